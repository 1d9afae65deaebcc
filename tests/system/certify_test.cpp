#include <gtest/gtest.h>

#include <algorithm>
#include <cctype>
#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <nlohmann/json.hpp>
#include <ostream>
#include <string>

#include "gate.h"
#include "temphome.h"
#include "vexadx.h"

namespace {

using Json = nlohmann::json;

const std::string kStartX = VEXADX_STAGED_HOME "/bin/startx";
const std::string kFaulty = VEXADX_STAGED_HOME "/bin/startx-fault";
const std::string kPlugin = VEXADX_TEST_PLUGINS "/libctest.dylib";
const std::string kFaultyPlugin = VEXADX_STAGED_HOME "/lib/libfault_plugin.dylib";
const std::string kPython = VEXADX_STAGED_HOME "/lib/libvexapython.dylib";
// A thread sanitizer delivers signals at calls only.
const std::string kLoop = "import time\nwhile True: time.monotonic()";
const std::string kLoopOfR = "repeat Sys.time()";

// The names of the rules, in their order.
struct Row {
  std::string name;
  Strings arguments;
  Strings broken;
  Strings notExamined = {};  // and what needs a rule that is broken
};

std::ostream& operator<<(std::ostream& out, const Row& row) { return out << row.name; }

// What startx-fault does not care for.
const Strings kCareless{"nested", "signals", "files", "host-killed"};
const Strings kInBlock{"ready-in-block", "interrupt", "nested-in-block", "host-killed-in-block"};

Row faulty(const std::string& name, const std::string& fault, const Strings& broken, const Strings& notExamined = {}) {
  return {name, {kFaulty, "--timeout", "8", "--set", "STARTX_FAULT=" + fault}, broken, notExamined};
}

Row plugin(const std::string& name, const Strings& arguments, const Strings& broken, Strings notExamined = {}) {
  Row row{name, {kFaultyPlugin, "--timeout", "8"}, broken, std::move(notExamined)};
  row.arguments.insert(row.arguments.end(), arguments.begin(), arguments.end());
  return row;
}

const Row kRows[] = {
    {"StartX", {kStartX, "--library", kPlugin, "--endless-block", "loop"}, {}},
    {"StartXWithNestedRuns",
     {kStartX, "--library", kPlugin, "--set", "NESTABLE=true", "--endless-block", "loop", "--rule", "nested-in-block",
      "--rule", "nested"},
     {}},
    {"StartXWithPython", {kStartX, "--library", "vexapython", "--endless-block", kLoop}, {}},
    {"Plugin", {kPlugin, "--endless-block", "loop"}, {}},
    {"Python", {kPython, "--endless-block", kLoop}, {}},
#ifdef VEXADX_WITH_R
    {"StartXWithR", {kStartX, "--library", "vexar", "--endless-block", kLoopOfR}, {}},
    {"R", {VEXADX_STAGED_HOME "/lib/libvexar.dylib", "--endless-block", kLoopOfR}, {}},
#endif

    {"NoX", {"/bin/sleep"}, {"ready"}},
    {"StartXWithChildren", {kStartX, "--library", kPlugin, "--block", "child", "--rule", "host-killed"}, {}},
    {"DeafToInterrupts",
     {kStartX, "--library", kPlugin, "--endless-block", "wait", "--rule", "interrupt"},
     {"interrupt"}},
    {"BlockThatEnds",
     {kStartX, "--library", kPlugin, "--endless-block", "0", "--rule", "ready-in-block"},
     {"ready-in-block"}},
    faulty("Careless", "", kCareless, kInBlock),
    faulty("DiesBeforeOpening", "commands-made", {"ready"}),
    faulty("SilentAtReadyCheck", "ready-read silent", {"ready"}),
    faulty("DiesBeforeResult", "begin-answered", {"order", "run"}),
    faulty("HalfReply", "half-reply", {"run"}),
    faulty("SilentAtStop", "stop-read silent", {"nested", "signals", "stop", "host-killed"}, kInBlock),
    faulty("EndsWithStatus", "stopped exit=3", {"nested", "signals", "stop", "host-killed"}, kInBlock),

    plugin("StartsWithCode", {"--set", "FAULT_init_embedded_x=7"}, {"start"}),
    plugin("ThrowsAtStart", {"--set", "FAULT_init_embedded_x=throw"}, {"exceptions", "start"}),
    plugin("BeginsWithCode", {"--set", "FAULT_pre_action=7"}, {"run"}),
    plugin("ThrowsFromBlock", {"--block", "throw"}, {"exceptions", "run"}),
    plugin("StopsWithCode", {"--set", "FAULT_stop_embedded_x=7"}, {"stop"}, {"interrupt"}),
    plugin("Aborts", {"--block", "abort"}, {"exceptions", "run"}),
    plugin("Exits", {"--block", "exit"}, {"exceptions", "run"}),
    {"NeverReturns", {kFaultyPlugin, "--block", "never-return", "--timeout", "1"}, {"exceptions", "run"}},
    plugin("ChangesTheMask", {"--block", "umask"}, {"host-state"}, {"interrupt"}),
    plugin("LosesDescriptors", {"--block", "descriptor"}, {"flat"}, {"interrupt"}),
    {"IsNotInterrupted", {kPlugin, "--timeout", "8", "--endless-block", "wait"}, {"interrupt"}},
    {"LacksAnEntryPoint", {VEXADX_TEST_PLUGINS "/libwithout_post_action.dylib"}, {"entry-points"}},
    {"LacksATable",
     {VEXADX_TEST_PLUGINS "/libwithout_setup_dxcallback.dylib", "--endless-block", "loop"},
     {},
     {"other-table", "interrupt"}},
    {"ExportsMore", {VEXADX_STAGED_HOME "/lib/libvexadxcom.so"}, {"entry-points", "exports"}},
    {"IsNoLibrary", {kStartX, "--plug-in"}, {"loads", "exports"}},
};

class Certify : public testing::TestWithParam<Row> {
 protected:
  Certify() {
    // What a sanitizer keeps of released memory is not the plug-in's.
    const char* const options = std::getenv("ASAN_OPTIONS");
    ::setenv("ASAN_OPTIONS", (std::string(options ? options : "") + ":quarantine_size_mb=0").c_str(), 1);
#ifdef VEXADX_LOCALES
    ::setenv("LOCPATH", VEXADX_LOCALES, 1);
#endif
  }
};

INSTANTIATE_TEST_SUITE_P(System, Certify, testing::ValuesIn(kRows), [](const auto& row) { return row.param.name; });

bool needsAnother(const Json& rule) { return rule.at("detail").get<std::string>().starts_with("it needs the rule "); }

}  // namespace

TEST_P(Certify, NamesTheRulesThatAreBroken) {
  const Row& row = GetParam();
  Strings arguments{"certify", "--json"};
  arguments.insert(arguments.end(), row.arguments.begin(), row.arguments.end());
  const Outcome outcome = RunVexadx(arguments);
  EXPECT_EQ(row.broken.empty() ? 0 : 1, outcome.status) << outcome.err;
  Strings broken;
  Strings notExamined;
  for (const std::string& line : Lines(outcome.out)) {
    const Json rule = Json::parse(line);
    if (rule.at("type") != "rule") continue;
    EXPECT_NE("", rule.at("rule"));
    EXPECT_LT(0, rule.at("name").get<std::string>().size());
    if (rule.at("result") == "kept") continue;
    EXPECT_NE("", rule.at("detail")) << line;
    if (rule.at("result") == "broken") broken.push_back(rule.at("name"));
    const bool isForWantOfALocale = rule.at("name") == "locale";
    if (rule.at("result") == "not examined" && !needsAnother(rule) && !isForWantOfALocale) {
      notExamined.push_back(rule.at("name"));
    }
  }
  EXPECT_EQ(row.broken, broken) << outcome.out;
  EXPECT_EQ(row.notExamined, notExamined) << outcome.out;
}

TEST(CertifyCommand, SaysInWordsWhatItSaw) {
  const TempHome home;
  const Outcome outcome = RunVexadx({"certify", kFaultyPlugin, "--block", "abort", "--rule", "run"});
  EXPECT_EQ(1, outcome.status);
  ExpectWords(outcome.out,
              {"start: kept: It starts with 0.\n", "run: broken: ", "Aborted", "while execute_x was called"});
  EXPECT_EQ("", outcome.err);
}

TEST(CertifyCommand, ListsTheRules) {
  const Outcome outcome = RunVexadx({"certify", "--list"});
  EXPECT_EQ(0, outcome.status);
  ExpectWords(outcome.out, {"program ready: It makes", "program again: ", "plug-in loads: It can", "plug-in locale: "});
}

TEST(CertifyCommand, LeavesNothingWhenItIsEnded) {
  const TempDir gates;
  const Gate begun(gates, "begun");
  const TempDir temporary;
  ::setenv("TMPDIR", temporary.Path().c_str(), 1);
  const struct {
    int signal;
    int status;
  } ends[] = {{SIGINT, 130}, {SIGTERM, 143}};
  for (const auto& end : ends) {
    const std::string block = begun.OpenInPython() + "import time\ntime.sleep(1000)";
    ChildProcess child(CommandOf({"certify", kPython, "--block", block, "--rule", "run", "--timeout", "60"}));
    begun.Await();
    EXPECT_EQ(end.status, EndBy(end.signal, child));
    ExpectWords(child.Out(), {"run: not examined: ", "a signal ended the examination"});
    EXPECT_TRUE(std::filesystem::is_empty(temporary.Path()));
  }
  ::unsetenv("TMPDIR");
}

TEST(CertifyCommand, ExplainsWrongUsage) {
  const TempHome home;
  const std::string text = home.Write("text", "no program\n");
  const struct {
    Strings arguments;
    Strings words;
  } cases[] = {
      {{}, {"FILE is required"}},
      {{home.Path("gone")}, {"there is no file", "gone"}},
      {{text}, {text, "neither", "chmod +x"}},
      {{kPlugin, "--rule", "nested"}, {"no rule nested", "entry-points"}},
      {{kPlugin, "--program", "--plug-in"}, {"--program", "--plug-in"}},
      {{kStartX, "--library", home.Path("lib/gone.so")}, {"there is no file", "gone.so"}},
      {{kPlugin, "--timeout", "0"}, {"--timeout"}},
      {{kPlugin, "--list"}, {"--list"}},
  };
  for (const auto& c : cases) {
    Strings arguments{"certify"};
    arguments.insert(arguments.end(), c.arguments.begin(), c.arguments.end());
    const Outcome outcome = RunVexadx(arguments);
    EXPECT_EQ(2, outcome.status) << testing::PrintToString(arguments);
    EXPECT_EQ("", outcome.out);
    ExpectWords(outcome.err, c.words);
  }
}
