#include "temphome.h"

#include <cstdlib>
#include <fstream>
#include <iterator>
#include <sstream>
#include <stdexcept>

namespace fs = std::filesystem;

TempDir::TempDir() {
  std::string name = (fs::temp_directory_path() / "vexadx-XXXXXX").string();
  if (!::mkdtemp(name.data())) throw std::runtime_error("cannot make " + name);
  m_path = name;
}

TempDir::~TempDir() {
  std::error_code ignored;
  fs::permissions(m_path, fs::perms::owner_all, ignored);
  fs::remove_all(m_path, ignored);
}

fs::path TempDir::Path(const std::string& relative) const { return relative.empty() ? m_path : m_path / relative; }

std::string TempDir::Write(const std::string& relative, const std::string& text) const {
  const fs::path path = Path(relative);
  fs::create_directories(path.parent_path());
  std::ofstream(path, std::ios::binary) << text;
  return path.string();
}

TempHome::TempHome() {
  const fs::path staged = VEXADX_STAGED_HOME;
  for (const char* directory : {"bin", "lib"}) {
    fs::create_directory(Path(directory));
    for (const fs::directory_entry& entry : fs::directory_iterator(staged / directory)) {
      fs::create_symlink(entry.path(), Path(directory) / entry.path().filename());
    }
  }
  fs::create_symlink(staged / "JRE", Path("JRE"));
  ::setenv("VEXA_HOME", Path().c_str(), 1);
}

std::string TempHome::Replace(const std::string& relative, const std::string& text) const {
  Remove(relative);
  return Write(relative, text);
}

void TempHome::Remove(const std::string& relative) const { fs::remove(Path(relative)); }

void TempHome::AddPlugin(const std::string& name) const {
  const std::string file = "lib" + name + ".dylib";
  fs::create_symlink(fs::path(VEXADX_TEST_PLUGINS) / file, Path("lib") / file);
}

std::string ReadFile(const fs::path& path) {
  std::ifstream file(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(file), {}};
}

std::vector<std::string> Lines(const std::string& text) {
  std::vector<std::string> lines;
  std::istringstream stream(text);
  for (std::string line; std::getline(stream, line);) lines.push_back(line);
  return lines;
}

std::vector<std::string> TraceTexts(const fs::path& trace) {
  std::vector<std::string> texts;
  for (const std::string& line : Lines(ReadFile(trace))) {
    if (const std::size_t mark = line.find(">>"); mark != std::string::npos) {
      texts.push_back(line.substr(mark + 2));
    } else if (!texts.empty() && !line.starts_with("****")) {
      texts.back() += "\n" + line;
    }
  }
  return texts;
}
