#pragma once

#include <sys/types.h>

#include <cstddef>
#include <cstdio>

#include "vexadx_export.h"

// Reads INI profiles: sections "[name]", entries "key=value", comments from ";". The file is opened, scanned and
// closed at every call.
//
// Lines are read in pieces of at most 2047 bytes, each piece a line of its own, and trimmed of white space at both
// ends. Names are compared without regard to case and only as far as the requested name goes, so "R" also finds the
// section RSERVE; the first match in the file wins. Letters are compared as the process's locale has them: in a Turkish
// one "I" is not the capital of "i". Blanks around "=" belong to key and value. Only a regular file is read: anything
// else counts as one that cannot be opened.
class VEXADX_API PlugInConfigReader {
 public:
  virtual ~PlugInConfigReader();

  // Fills the buffer and answers the number of characters placed, 0 when nothing was found or the file cannot be read:
  //   without a section (null or empty)  the names of all sections, each followed by a NUL, and one more NUL
  //   without a key                      the names of the section's keys, likewise
  //   otherwise                          the value, cut to size - 1 characters
  // A list holds only whole names, and its last NUL is not counted. The whole buffer is cleared first. The default is
  // not consulted: a caller that gets 0 applies its own.
  ssize_t GetPrivateProfileString(const char* section, const char* key, const char* defaultValue, char* buffer,
                                  std::size_t size, const char* path);

 protected:
  // These read on from the file's position and expect a cleared buffer.
  ssize_t RetrieveSectionNames(std::FILE* file, char* buffer, std::size_t size);
  ssize_t RetrieveKeyNames(std::FILE* file, const char* section, char* buffer, std::size_t size);
  ssize_t RetrieveValue(std::FILE* file, const char* section, const char* key, char* buffer, std::size_t size);

  // 1 with the file positioned after the section's head, 0 at the end of the file.
  int GotoSectionStart(std::FILE* file, const char* section);

  // Removes blank, tab, newline, vertical tab, form feed and carriage return at both ends, in place.
  void TrimAll(char* text);
};
