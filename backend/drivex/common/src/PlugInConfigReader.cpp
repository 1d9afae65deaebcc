#include "PlugInConfigReader.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <string_view>

#include "dxutils.h"
#include "profilefile.h"

namespace {

constexpr std::string_view kWhiteSpace = " \t\n\v\f\r";

bool isEmpty(const char* text) { return !text || *text == '\0'; }

// Whether the text begins with the requested name, without regard to case.
bool matches(const char* text, const char* name) { return strincmp(text, name, std::strlen(name)) == 0; }

// A list of names in a cleared buffer, each followed by a NUL. Only whole names are taken.
class NameList {
 public:
  NameList(char* buffer, std::size_t size) : m_buffer(buffer), m_size(static_cast<ssize_t>(size)) {}

  // False when the name, its NUL and the list's final NUL do not fit.
  bool Append(std::string_view name) {
    const auto length = static_cast<ssize_t>(name.size());
    if (m_written + length + 2 > m_size) return false;
    std::copy(name.begin(), name.end(), m_buffer + m_written);
    m_written += length + 1;
    return true;
  }

  ssize_t Written() const { return m_written; }

 private:
  char* m_buffer;
  ssize_t m_size;
  ssize_t m_written = 0;
};

}  // namespace

ProfileFile OpenProfile(const char* path) {
  int descriptor;
  do {
    descriptor = ::open(path, O_RDONLY | O_CLOEXEC | O_NONBLOCK);
  } while (descriptor == -1 && errno == EINTR);
  if (descriptor == -1) return nullptr;

  struct stat status {};
  if (::fstat(descriptor, &status) == 0 && S_ISREG(status.st_mode)) {
    if (std::FILE* file = ::fdopen(descriptor, "r")) return ProfileFile(file);
  }
  ::close(descriptor);
  return nullptr;
}

std::string_view SectionName(const char* line) {
  const std::string_view text(line + 1);
  return text.substr(0, text.find(']'));
}

ProfileEntry SplitEntry(const char* line) {
  const char* equals = std::strchr(line, '=');
  if (!equals) return {line, nullptr};
  return {{line, static_cast<std::size_t>(equals - line)}, equals + 1};
}

PlugInConfigReader::~PlugInConfigReader() = default;

ssize_t PlugInConfigReader::GetPrivateProfileString(const char* section, const char* key, const char* /*defaultValue*/,
                                                    char* buffer, std::size_t size, const char* path) {
  if (size == 0) return 0;
  std::memset(buffer, 0, size);
  const ProfileFile file = OpenProfile(path);
  if (!file) return 0;
  if (isEmpty(section)) return RetrieveSectionNames(file.get(), buffer, size);
  if (isEmpty(key)) return RetrieveKeyNames(file.get(), section, buffer, size);
  return RetrieveValue(file.get(), section, key, buffer, size);
}

ssize_t PlugInConfigReader::RetrieveSectionNames(std::FILE* file, char* buffer, std::size_t size) {
  NameList names(buffer, size);
  ProfileLine line;
  while (std::fgets(line.data(), line.size(), file)) {
    TrimAll(line.data());
    if (IsSectionHead(line.data()) && !names.Append(SectionName(line.data()))) break;
  }
  return names.Written();
}

ssize_t PlugInConfigReader::RetrieveKeyNames(std::FILE* file, const char* section, char* buffer, std::size_t size) {
  NameList names(buffer, size);
  if (!GotoSectionStart(file, section)) return 0;
  ProfileLine line;
  while (std::fgets(line.data(), line.size(), file)) {
    TrimAll(line.data());
    if (IsSectionHead(line.data())) break;
    if (isEmpty(line.data()) || IsComment(line.data())) continue;
    if (!names.Append(SplitEntry(line.data()).key)) break;
  }
  return names.Written();
}

ssize_t PlugInConfigReader::RetrieveValue(std::FILE* file, const char* section, const char* key, char* buffer,
                                          std::size_t size) {
  if (size == 0 || !GotoSectionStart(file, section)) return 0;
  ProfileLine line;
  while (std::fgets(line.data(), line.size(), file)) {
    TrimAll(line.data());
    if (IsSectionHead(line.data())) break;
    if (IsComment(line.data()) || !matches(line.data(), key)) continue;
    // The first match ends the search, even one without a value.
    const char* value = SplitEntry(line.data()).value;
    if (!value) return 0;
    const std::size_t length = std::min(std::strlen(value), size - 1);
    std::copy_n(value, length, buffer);  // the cleared buffer ends it
    return static_cast<ssize_t>(length);
  }
  return 0;
}

int PlugInConfigReader::GotoSectionStart(std::FILE* file, const char* section) {
  ProfileLine line;
  while (std::fgets(line.data(), line.size(), file)) {
    TrimAll(line.data());
    if (IsSectionHead(line.data()) && matches(line.data() + 1, section)) return 1;
  }
  return 0;
}

void PlugInConfigReader::TrimAll(char* text) {
  const std::string_view whole(text);
  const std::size_t first = whole.find_first_not_of(kWhiteSpace);
  if (first == std::string_view::npos) {
    *text = '\0';
    return;
  }
  const std::size_t length = whole.find_last_not_of(kWhiteSpace) - first + 1;
  std::memmove(text, text + first, length);
  text[length] = '\0';
}
