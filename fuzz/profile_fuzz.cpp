// Any bytes as a profile: every question about the sections, keys and values that are in it, with buffers of every
// size, is answered as a plain reading of its lines says, and never past the buffer.

#include <strings.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "input.h"
#include "invariant.h"
#include "vexadxconfigreader.h"

namespace {

// A file that each input fills anew.
class ProfilePath {
 public:
  ProfilePath() : m_file(::mkstemp(m_path)) { require(m_file != -1); }
  ~ProfilePath() { (void)::unlink(m_path); }
  ProfilePath(const ProfilePath&) = delete;
  ProfilePath& operator=(const ProfilePath&) = delete;

  const char* Fill(std::string_view bytes) {
    require(::ftruncate(m_file, 0) == 0);
    require(::pwrite(m_file, bytes.data(), bytes.size(), 0) == static_cast<ssize_t>(bytes.size()));
    return m_path;
  }

 private:
  char m_path[32] = "/tmp/vexadxfuzzXXXXXX";
  int m_file;
};

struct Entry {
  std::string line;
  std::string key;
  std::optional<std::string> value;
};

struct Section {
  std::string head;  // behind the "["
  std::vector<Entry> entries;
};

std::vector<Section> read(std::string_view bytes) {
  constexpr std::size_t kLongestLine = 2047;
  constexpr std::string_view kSpace = " \t\n\v\f\r";
  std::vector<Section> sections;
  while (!bytes.empty()) {
    std::string_view line = bytes.substr(0, std::min(bytes.find('\n'), kLongestLine - 1) + 1);
    bytes.remove_prefix(line.size());
    line = line.substr(0, line.find('\0'));
    line.remove_prefix(std::min(line.find_first_not_of(kSpace), line.size()));
    line = line.substr(0, line.find_last_not_of(kSpace) + 1);
    if (line.starts_with('[')) {
      sections.push_back({std::string(line.substr(1)), {}});
    } else if (!sections.empty() && !line.empty() && !line.starts_with(';')) {
      const std::size_t equals = line.find('=');
      Entry entry{std::string(line), std::string(line.substr(0, equals)), {}};
      if (equals != std::string_view::npos) entry.value = line.substr(equals + 1);
      sections.back().entries.push_back(std::move(entry));
    }
  }
  return sections;
}

bool beginsWith(const std::string& text, const std::string& name) {
  return ::strncasecmp(text.c_str(), name.c_str(), name.size()) == 0;
}

const Section* find(const std::vector<Section>& sections, const std::string& name) {
  for (const Section& section : sections) {
    if (beginsWith(section.head, name)) return &section;
  }
  return nullptr;
}

// The whole buffer, cleared behind what was placed.
std::string listed(const std::vector<std::string>& names, std::size_t size, std::size_t& count) {
  std::string list;
  for (const std::string& name : names) {
    if (list.size() + name.size() + 2 > size) break;
    list.append(name).push_back('\0');
  }
  count = list.size();
  list.resize(size);
  return list;
}

std::string cut(const std::string& value, std::size_t size, std::size_t& count) {
  count = size == 0 ? 0 : std::min(value.size(), size - 1);
  std::string text = value.substr(0, count);
  text.resize(size);
  return text;
}

class Questions {
 public:
  // Each is asked with a buffer for all of the answer and with another one, chosen by the seed.
  Questions(const char* path, std::size_t seed) : m_path(path), m_seed(seed) {}

  void AskList(const char* section, const std::vector<std::string>& names) {
    std::size_t whole = 2;
    for (const std::string& name : names) whole += name.size() + 1;
    for (const std::size_t size : {whole, other(whole)}) {
      std::size_t count = 0;
      const std::string wanted = listed(names, size, count);
      ask(section, nullptr, wanted, count);
    }
  }
  void AskValue(const char* section, const char* key, const std::string& value) {
    for (const std::size_t size : {value.size() + 1, other(value.size() + 1)}) {
      std::size_t count = 0;
      const std::string wanted = cut(value, size, count);
      ask(section, key, wanted, count);
    }
  }

 private:
  std::size_t other(std::size_t whole) {
    m_seed = m_seed * 1103515245 + 12345;
    return (m_seed >> 16) % 2 == 0 ? (m_seed >> 17) % 3 : (m_seed >> 17) % whole;
  }

  void ask(const char* section, const char* key, const std::string& wanted, std::size_t count) {
    const auto buffer = std::make_unique<char[]>(wanted.size());
    std::memset(buffer.get(), '#', wanted.size());
    const ssize_t placed = m_reader.GetPrivateProfileString(section, key, "no", buffer.get(), wanted.size(), m_path);
    require(placed == static_cast<ssize_t>(count));
    require(std::memcmp(buffer.get(), wanted.data(), wanted.size()) == 0);
  }

  const char* m_path;
  std::size_t m_seed;
  PlugInConfigReader m_reader;
};

void askAbout(Questions& questions, const char* path, const std::string& name, const Section& section) {
  std::vector<std::string> keys;
  for (const Entry& entry : section.entries) keys.push_back(entry.key);
  questions.AskList(name.c_str(), keys);
  std::vector<std::string> wantedKeys;
  std::vector<std::string> wantedValues;
  constexpr std::size_t kMostKeys = 8;  // each costs several looks at the file
  for (const Entry& entry : section.entries) {
    if (entry.key.empty()) continue;
    if (wantedKeys.size() < kMostKeys) {
      const auto first = std::find_if(section.entries.begin(), section.entries.end(),
                                      [&](const Entry& other) { return beginsWith(other.line, entry.key); });
      questions.AskValue(name.c_str(), entry.key.c_str(), first->value.value_or(""));
    }
    wantedKeys.push_back(entry.key);
    wantedValues.push_back(entry.value.value_or(""));
  }
  std::vector<std::string> foundKeys;
  std::vector<std::string> foundValues;
  VexaDXConfigReader().RetrieveKeyValue(path, name.c_str(), foundKeys, foundValues);
  require(foundKeys == wantedKeys && foundValues == wantedValues);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  static ProfilePath file;
  const std::string_view bytes(reinterpret_cast<const char*>(data), size);
  const char* const path = file.Fill(bytes);
  const std::vector<Section> sections = read(bytes);
  std::vector<std::string> names;
  for (const Section& section : sections) names.push_back(section.head.substr(0, section.head.find(']')));
  Questions questions(path, size);
  questions.AskList(nullptr, names);
  questions.AskValue("no such section", "key", "");
  constexpr std::size_t kMostSections = 4;
  for (std::size_t i = 0; i < std::min(names.size(), kMostSections); ++i) {
    if (!names[i].empty()) askAbout(questions, path, names[i], *find(sections, names[i]));
  }
  return 0;
}
