#include "certify.h"

#include <signal.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <map>
#include <set>
#include <span>

#include "PlugInDynamicLoadedLibrary.h"
#include "commands.h"
#include "dxutils.h"
#include "installation.h"
#include "libraryfile.h"
#include "pipedirectory.h"

namespace fs = std::filesystem;

namespace {

using certify::Finding;
using certify::Rule;

std::string existingFile(const std::string& path) {
  std::error_code failed;
  const fs::path file = fs::canonical(path, failed);
  if (failed || !fs::is_regular_file(file)) {
    throw Problem(kWrongUsage, "there is no file " + path, "name an X process program or a plug-in library");
  }
  return file.string();
}

bool isPlugin(const Certificate& certificate, const std::string& file) {
  if (certificate.kind == Certificate::Kind::kPlugin) return true;
  if (certificate.kind == Certificate::Kind::kBySight && libraryfile::IsSharedLibrary(file)) return true;
  if (::access(file.c_str(), X_OK) == 0) return false;
  throw Problem(kWrongUsage, file + " is neither a program that can be executed nor a shared library",
                "make a program executable: chmod +x " + file);
}

void link(const fs::path& target, const fs::path& name) {
  std::error_code ignored;
  fs::remove(name, ignored);
  fs::create_symlink(target, name);
}

// A home of its own: what the home of vexadx has, with another program and configuration.
class Home {
 public:
  Home(const std::string& directory, const std::string& original) : m_path(directory + "home/") {
    for (const char* part : {"bin", "lib"}) {
      fs::create_directories(m_path / part);
      std::error_code none;
      for (const fs::directory_entry& entry : fs::directory_iterator(fs::path(original) / part, none)) {
        link(entry.path(), m_path / part / entry.path().filename());
      }
    }
    link(fs::path(original) / "JRE", m_path / "JRE");
  }

  void PutProgram(const std::string& file) const { link(file, m_path / "bin/startx"); }

  // Answers the name by which a configuration knows the library.
  std::string PutLibrary(const std::string& fileOrName) const {
    if (fileOrName.find('/') == std::string::npos) return fileOrName;
    link(existingFile(fileOrName), PlugInDecorateDynamicPathName((m_path / "lib" / certify::kLibrary).string()));
    return certify::kLibrary;
  }

  void Configure(const std::string& engine, const std::vector<std::string>& section) const {
    const fs::path file = m_path / "bin/vexadxcfg.ini";
    fs::remove(file);
    std::ofstream text(file);
    text << "[SUPPORTED_LANG]\nX=" << engine << "\n[" << engine << "]\n";
    for (const std::string& line : section) text << line << '\n';
  }

  std::string Path() const { return (m_path / "").string(); }

 private:
  const fs::path m_path;
};

const Rule& ruleNamed(std::span<const Rule> rules, const std::string& name) {
  const auto rule = std::ranges::find_if(rules, [&](const Rule& one) { return name == one.name; });
  if (rule != rules.end()) return *rule;
  std::vector<std::string> names;
  for (const Rule& one : rules) names.emplace_back(one.name);
  throw Problem(kWrongUsage, "there is no rule " + name + " for it", "choose one of these: " + Joined(names));
}

// What is to be examined, in the order in which a rule comes after what it needs.
std::vector<Rule> chosenRules(std::span<const Rule> rules, const std::vector<std::string>& names) {
  if (names.empty()) return {rules.begin(), rules.end()};
  std::set<std::string> chosen;
  for (const std::string& name : names) {
    for (const Rule* rule = &ruleNamed(rules, name);; rule = &ruleNamed(rules, rule->needs)) {
      chosen.insert(rule->name);
      if (!rule->needs) break;
    }
  }
  std::vector<Rule> found;
  std::ranges::copy_if(rules, std::back_inserter(found), [&](const Rule& rule) { return chosen.contains(rule.name); });
  return found;
}

const char* wordOf(Finding::Result result) {
  switch (result) {
    case Finding::Result::kKept:
      return "kept";
    case Finding::Result::kBroken:
      return "broken";
    case Finding::Result::kNotExamined:
      break;
  }
  return "not examined";
}

int list(Report& report) {
  for (const Rule& rule : certify::ProgramRules()) report.ListedRule("program", rule.name, rule.sentence);
  for (const Rule& rule : certify::PluginRules()) report.ListedRule("plug-in", rule.name, rule.sentence);
  return kAllSucceeded;
}

class Examination {
 public:
  Examination(certify::Subject subject, std::string directory, double seconds, Report& report)
      : m_subject(std::move(subject)),
        m_directory(std::move(directory)),
        m_atMost(std::chrono::milliseconds(static_cast<long>(seconds * 1000))),
        m_report(report) {}

  void Examine(const Rule& rule) {
    const auto begin = std::chrono::steady_clock::now();
    const Finding finding = examined(rule);
    const std::chrono::duration<double> taken = std::chrono::steady_clock::now() - begin;
    m_results[rule.name] = finding.result;
    m_report.Rule({rule.name, rule.sentence, wordOf(finding.result), finding.detail, taken.count()});
  }

  int Status() const {
    const auto isBroken = [](const auto& result) { return result.second == Finding::Result::kBroken; };
    return std::ranges::any_of(m_results, isBroken) ? kRuleBroken : kAllSucceeded;
  }

 private:
  Finding examined(const Rule& rule) {
    if (rule.needs && m_results.at(rule.needs) != Finding::Result::kKept) {
      return {Finding::Result::kNotExamined, std::string("it needs the rule ") + rule.needs};
    }
    m_subject.pipes = m_directory + rule.name + '/';
    return certify::Examine(rule, m_subject, m_atMost);
  }

  certify::Subject m_subject;
  const std::string m_directory;
  const std::chrono::milliseconds m_atMost;
  Report& m_report;
  std::map<std::string, Finding::Result> m_results;
};

}  // namespace

int Certify(const CommandLine& commandLine, Report& report) {
  const Certificate& certificate = commandLine.certificate;
  if (certificate.listsRules) return list(report);
  const std::string file = existingFile(certificate.file);
  const std::string engine = UpperString(certificate.engine);
  const bool isLibrary = isPlugin(certificate, file);
  if (isLibrary && !certificate.library.empty()) {
    throw Problem(kWrongUsage, "--library is for a program, and " + file + " is a plug-in library", "leave it out");
  }
  const std::vector<Rule> rules =
      chosenRules(isLibrary ? certify::PluginRules() : certify::ProgramRules(), certificate.rules);

  certify::NoteSignals();
  const PipeDirectory directory;
  const Home home(directory.Path(), TakeHome());
  if (isLibrary) {
    (void)home.PutLibrary(file);
  } else {
    home.PutProgram(file);
  }
  std::vector<std::string> section = certificate.section;
  if (!certificate.library.empty()) section.push_back("LIB_NAME=" + home.PutLibrary(certificate.library));
  home.Configure(engine, section);
  Examination examination({file, engine, certificate.block, certificate.endlessBlock, home.Path(), ""},
                          directory.Path(), certificate.seconds, report);
  for (const Rule& rule : rules) {
    examination.Examine(rule);
    if (const int signal = certify::EndingSignal()) return signal == SIGTERM ? kTerminated : kInterrupted;
  }
  return examination.Status();
}
