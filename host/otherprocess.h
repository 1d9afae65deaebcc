#pragma once

#include <sys/types.h>

#include <cstddef>
#include <optional>
#include <string>
#include <vector>

// What the system tells of a process. Nothing where it tells nothing.
namespace otherprocess {

// What the descriptors of the process are: paths, or the system's words for others.
std::optional<std::vector<std::string>> Descriptors(pid_t process);

std::optional<long> ResidentBytes(pid_t process);
std::optional<double> ProcessorSeconds(pid_t process);

// Whether the main thread blocks the signal, or the process ignores it.
std::optional<bool> IsDeafTo(pid_t process, int signal);

}  // namespace otherprocess
