#pragma once

#include <filesystem>
#include <string>
#include <vector>

// A directory of one test, removed at its end.
class TempDir {
 public:
  TempDir();
  ~TempDir();
  TempDir(const TempDir&) = delete;
  TempDir& operator=(const TempDir&) = delete;

  std::filesystem::path Path(const std::string& relative = "") const;

  // Writes a file, making its directories, and answers its path.
  std::string Write(const std::string& relative, const std::string& text) const;

 private:
  std::filesystem::path m_path;
};

// A host home of one test: links to everything of the staged home, over which the test lays its own files. Sets
// VEXA_HOME to it.
class TempHome : public TempDir {
 public:
  TempHome();

  // Replaces a staged file, or adds one.
  std::string Replace(const std::string& relative, const std::string& text) const;
  void Remove(const std::string& relative) const;

  // Replaces the configuration, bin/vexadxcfg.ini, or the Java preferences, bin/vexaprefs.properties.
  void Configure(const std::string& text) const { Replace("bin/vexadxcfg.ini", text); }
  void Prefer(const std::string& text) const { Replace("bin/vexaprefs.properties", text); }

  // Puts one of the tests' plug-in libraries (lib<name>.dylib) into the home's lib directory.
  void AddPlugin(const std::string& name) const;
};

// The bytes of a file; empty when there is none.
std::string ReadFile(const std::filesystem::path& path);

// The text's lines, without their newlines.
std::vector<std::string> Lines(const std::string& text);

// What follows ">>" in the lines of a trace, without its banners. A text of several lines is one.
std::vector<std::string> TraceTexts(const std::filesystem::path& trace);
