#pragma once

#include <array>
#include <cstdio>
#include <memory>
#include <string_view>

// A profile opened for reading, and the one way its lines are taken apart.

struct ProfileCloser {
  void operator()(std::FILE* file) const { (void)std::fclose(file); }
};
using ProfileFile = std::unique_ptr<std::FILE, ProfileCloser>;

// Null unless the path names a regular file that can be read: a FIFO or a device in its place could hold the host up
// for ever.
ProfileFile OpenProfile(const char* path);

// 2047 bytes of a line and the terminating NUL.
using ProfileLine = std::array<char, 2048>;

inline bool IsSectionHead(const char* line) { return *line == '['; }
inline bool IsComment(const char* line) { return *line == ';'; }

// The text between "[" and the first "]" of a section head, or up to its end.
std::string_view SectionName(const char* line);

// An entry is split at its first "="; without one the whole line is the key.
struct ProfileEntry {
  std::string_view key;
  const char* value;  // null when there is no "="
};
ProfileEntry SplitEntry(const char* line);
