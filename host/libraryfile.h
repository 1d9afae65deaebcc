#pragma once

#include <optional>
#include <string>
#include <vector>

// What a file holds, read and not loaded.
namespace libraryfile {

// Whether the file is a shared library, and not a program or no machine code at all.
bool IsSharedLibrary(const std::string& path);

// The names that a shared library defines for others; nothing when they cannot be read.
std::optional<std::vector<std::string>> ExportedNames(const std::string& path);

}  // namespace libraryfile
