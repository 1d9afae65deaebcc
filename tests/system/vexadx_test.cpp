#include <gtest/gtest.h>
#include <signal.h>
#include <sys/stat.h>

#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <future>
#include <iterator>
#include <nlohmann/json.hpp>
#include <regex>
#include <string>
#include <vector>

#include "gate.h"
#include "temphome.h"
#include "vexadx.h"
#include "vexadx_plugin.h"
#include "within.h"

namespace {

using namespace std::chrono_literals;
using Json = nlohmann::json;

Strings operator+(Strings first, const Strings& second) {
  first.insert(first.end(), second.begin(), second.end());
  return first;
}

// The objects of one type among the JSON lines, in order. Every line has to be one.
std::vector<Json> ObjectsOf(const std::string& out, const std::string& type) {
  std::vector<Json> objects;
  for (const std::string& line : Lines(out)) {
    const Json object = Json::parse(line);
    if (object.at("type") == type) objects.push_back(object);
  }
  return objects;
}

std::string OutputOf(const std::string& out) {
  std::string text;
  for (const Json& object : ObjectsOf(out, "output")) text += object.at("text").get<std::string>();
  return text;
}

// What is wrong and what to do about it is said in so many words, each line marked; nothing goes to standard output.
void ExpectProblem(int status, const Strings& words, const Strings& arguments) {
  const Outcome outcome = RunVexadx(arguments);
  EXPECT_EQ(status, outcome.status);
  EXPECT_EQ("", outcome.out);
  ExpectWords(outcome.err, words);
  ExpectWords(outcome.err, {"vexadx: error: ", "vexadx: hint: "});
  for (const std::string& line : Lines(outcome.err)) EXPECT_EQ(0U, line.find("vexadx: ")) << line;
}

// A run, which comes to the same as text and as JSON. In JSON the standard error of an engine's process is output.
struct RunCase {
  Strings arguments;
  long status;
  std::string out;
  Strings err;  // words; none: nothing at all
  std::string input = "";
  bool isSameInJson = true;
};

void ExpectRun(RunCase run) {
  for (const bool json : {false, true}) {
    if (json && !run.isSameInJson) break;
    if (json) run.arguments.emplace_back("--json");
    SCOPED_TRACE(testing::PrintToString(run.arguments));
    const Outcome outcome = RunVexadx(run.arguments, run.input);
    EXPECT_EQ(run.status, outcome.status) << outcome.err;
    EXPECT_EQ(run.out, json ? OutputOf(outcome.out) : outcome.out);
    ExpectWords(outcome.err, run.err);
    EXPECT_EQ(run.err.empty(), outcome.err.empty()) << outcome.err;
    if (!json) continue;
    const std::vector<Json> errors = ObjectsOf(outcome.out, "error");
    EXPECT_EQ(outcome.err.find("vexadx: error: ") == std::string::npos, errors.empty());
    for (const Json& error : errors) ExpectWords(outcome.err, {error.at("message")});
  }
}

// Homes with an engine CTEST, whose blocks answer the number they consist of, and the staged engine PYTHON.
class VexadxTest : public testing::Test {
 protected:
  VexadxTest() {
    home.AddPlugin("ctest");
    Configure("LIB_NAME=ctest\n");
  }

  // With these lines in the section CTEST.
  void Configure(const std::string& section) const {
    home.Configure("[SUPPORTED_LANG]\nX=CTEST;PYTHON\n[CTEST]\nINNER_PROCESS=true\n" + section);
  }

  static void ExpectDoctor(int status, const Strings& words) {
    const Outcome outcome = RunVexadx({"doctor"});
    EXPECT_EQ(status, outcome.status) << outcome.out;
    ExpectWords(outcome.out, words);
  }

  TempHome home;
};

TEST_F(VexadxTest, WrongUsageIsExplained) {
  const std::string nul = home.Write("nul.txt", std::string("0\n\0", 3));
  const std::string good = home.Write("good.txt", "0\n");
  const struct {
    Strings arguments;
    Strings words;
  } cases[] = {
      {{}, {"subcommand", "vexadx --help"}},
      {{"run"}, {"ENGINE is required"}},
      {{"run", "CTEST", good, "--no-such-option"}, {"--no-such-option"}},
      {{"run", "CTEST"}, {"nothing to run", "-e"}},
      {{"run", "CTEST", "-", good, "-"}, {"standard input", "once"}},
      {{"run", "JULIA", good}, {"no engine JULIA", "CTEST, PYTHON", "X=", "vexadxcfg.ini"}},
      {{"run", "CTEST", good, "--in-process", "--out-of-process"}, {"--in-process", "--out-of-process"}},
      {{"run", "JAVAEXTENSION", "-e", "0"}, {"which command", "--command NAME"}},
      {{"run", "JAVAEXTENSION", "--command", "", "-e", "0"}, {"which command", "--command NAME"}},
      {{"run", "javaextension", "--command", "X", "--in-process", "-e", "0"}, {"process of its own", "--in-process"}},
      {{"run", "JAVAEXTENSION", "--command", "X"}, {"nothing to run", "-e"}},
      {{"run", "CTEST", "--command", "X", "-e", "0"}, {"for JAVAEXTENSION", "instead of CTEST"}},
      {{"run", "CTEST", "--extension-path", "/", "-e", "0"}, {"for JAVAEXTENSION"}},
      {{"run", "CTEST", "-e", "0", "--timeout", "0"}, {"--timeout", "above 0"}},
      {{"run", "CTEST", "-e", "0", "--start-timeout", "nan"}, {"--start-timeout", "above 0"}},
      {{"run", "CTEST", "-e", "0", "--stop-timeout", "1e7"}, {"--stop-timeout", "1000000"}},
      {{"run", "CTEST", "-e", "0", "--timeout", "soon"}, {"--timeout", "soon"}},
      {{"run", "CTEST", "--no-package", "-e", "0"}, {"for JAVAEXTENSION"}},
      {{"run", "CTEST", good, home.Path("gone.txt")}, {"gone.txt", "No such file"}},
      {{"run", "CTEST", good, home.Path()}, {home.Path(), "directory"}},
      {{"run", "CTEST", good, nul}, {nul, "NUL byte", "offset 2", "UTF-8"}},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(testing::PrintToString(c.arguments));
    ExpectProblem(2, c.words, c.arguments);
  }
}

TEST_F(VexadxTest, AnEngineThatCannotRunIsExplainedAndTheDoctorNamesTheCheck) {
  home.Write("lib/libtext.dylib", "not a library\n");
  home.AddPlugin("unresolved");
  for (const vexadx::PluginEntryPoint& entryPoint : vexadx::kPluginEntryPoints) {
    if (entryPoint.mandatory) home.AddPlugin(std::string("without_") + entryPoint.name);
  }
  const std::string config = home.Path("bin/vexadxcfg.ini");
  const struct {
    std::string section;
    int status;
    std::string lastCheck;
    Strings words;  // of the run's problem; none: it has none
  } cases[] = {
      {"LIB_NAME=ctest", 0, "stop", {}},
      {"LIB_NAME=ctest\nCTEST_STOP=1", 3, "stop", {}},
      {"", 5, "library name", {"no plug-in library", "LIB_NAME=", "[CTEST]", config}},
      {"LIB_NAME = ctest", 5, "library name", {"no plug-in library", "without blanks"}},
      {"LIB_NAME=gone", 3, "library", {home.Path("lib/libgone.dylib"), "does not exist", "LIB_NAME"}},
      {"LIB_NAME=text", 3, "entry points", {home.Path("lib/libtext.dylib"), "could not be loaded", "the loader says"}},
      {"LIB_NAME=unresolved", 3, "entry points", {"could not be loaded", "undefined symbol: no_such_function"}},
      {"LIB_NAME=without_init_embedded_x", 3, "entry points", {"export: init_embedded_x;", "the loader says"}},
      {"LIB_NAME=without_execute_x", 3, "entry points", {"does not export: execute_x;"}},
      {"LIB_NAME=without_stop_embedded_x", 3, "entry points", {"does not export: stop_embedded_x;"}},
      {"LIB_NAME=without_pre_action", 3, "entry points", {"does not export: pre_action;"}},
      {"LIB_NAME=without_post_action", 3, "entry points", {"does not export: post_action;"}},
      {"LIB_NAME=ctest\nARGS=5 x", 3, "start", {"could not be started", "code 5 (code of the engine)", "--trace"}},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.section);
    Configure(c.section + '\n');
    if (!c.words.empty()) ExpectProblem(c.status, c.words, {"run", "CTEST", "-e", "0"});
    const Outcome outcome = RunVexadx({"doctor", "--engine", "ctest", "--json"});
    EXPECT_EQ(c.status, outcome.status) << outcome.err;
    const Json last = ObjectsOf(outcome.out, "check").back();
    EXPECT_EQ(c.lastCheck, last.at("check"));
    EXPECT_EQ(c.status == 0, last.at("ok"));
    EXPECT_EQ(c.status == 0, last.at("advice").get<std::string>().empty());
  }
}

TEST_F(VexadxTest, WrongConfigurationIsExplained) {
  const Strings runCtest{"run", "CTEST", "-e", "0"};
  home.Configure("\xEF\xBB\xBF[SUPPORTED_LANG]\nX=CTEST\n");
  ExpectProblem(5, {"byte-order mark", "without", "names no engine", "[SUPPORTED_LANG]"}, runCtest);
  home.Configure("");
  ExpectProblem(5, {"names no engine"}, {"engines"});

  // Besides what a host process loads: what the engine's own process is and loads.
  home.Configure("[SUPPORTED_LANG]\nX=PYTHON\n[PYTHON]\nLIB_NAME=gone\n");
  ExpectProblem(3, {"libgone.dylib", "LIB_NAME", "[PYTHON]"}, {"run", "PYTHON", "-e", "0"});
  ExpectDoctor(3, {"PYTHON process library: problem: ", "libgone.dylib", "[PYTHON]"});
  home.Remove("bin/startx");
  ExpectDoctor(127, {"PYTHON program: problem: ", home.Path("bin/startx")});

  home.Prefer("");
  ExpectProblem(5, {"Java preferences", "PYTHON.libName", home.Path("bin/vexaprefs.properties")},
                {"run", "PYTHON", "--in-process", "-e", "0"});

  home.Remove("bin/vexadxcfg.ini");
  ExpectProblem(5, {home.Path("bin/vexadxcfg.ini"), "VEXA_HOME", home.Path()}, runCtest);
  ExpectDoctor(5, {"home: ok: ", "configuration: problem: ", "  to do: "});
}

TEST_F(VexadxTest, WarningsLeaveTheRunAsItIs) {
  const std::string fifo = home.Path("fifo");
  ASSERT_EQ(0, ::mkfifo(fifo.c_str(), 0600));
  for (const std::string& trace : {home.Path("no/such/directory/trace").string(), fifo, home.Path().string()}) {
    const Outcome outcome = RunVexadx({"run", "CTEST", "-e", "0", "--trace", trace});
    EXPECT_EQ(0, outcome.status);
    EXPECT_EQ("", outcome.out);
    ExpectWords(outcome.err, {"vexadx: warning: the trace file " + trace, "cannot be written", "--trace"});
  }
  home.Configure("\xEF\xBB\xBF\n[SUPPORTED_LANG]\nX=CTEST\n[CTEST]\nLIB_NAME=ctest\n");
  const Outcome outcome = RunVexadx({"run", "CTEST", "-e", "0", "--in-process"});
  EXPECT_EQ(0, outcome.status);
  ExpectWords(outcome.err, {"warning", "byte-order mark"});
}

TEST_F(VexadxTest, BlocksRunInTheOrderOfTheCommandLine) {
  const std::string three = home.Write("three", "3");
  (void)home.Write("[four,five]", "0\n");
  const std::filesystem::path directory = std::filesystem::current_path();
  std::filesystem::current_path(home.Path());
  const Outcome outcome =
      RunVexadx({"run", "ctest", "-e", "1", three, "-e", "[0,1]", "-", "[four,five]", "-e", "-2", "--json"}, "7\n");
  std::filesystem::current_path(directory);
  EXPECT_EQ(1, outcome.status);
  std::vector<std::pair<std::string, int>> blocks;
  for (const Json& block : ObjectsOf(outcome.out, "block")) {
    blocks.emplace_back(block.at("name"), block.at("code"));
    EXPECT_EQ(blocks.back().second != 0, block.at("meaning") == "code of the engine");
  }
  const std::vector<std::pair<std::string, int>> expected{{"-e 1", 1},           {three, 3},           {"-e 2", 0},
                                                          {"standard input", 7}, {"./[four,five]", 0}, {"-e 3", -2}};
  EXPECT_EQ(expected, blocks);
  EXPECT_EQ("1\n3\n[0,1]\n7\n0\n-2\n", OutputOf(outcome.out));
  EXPECT_EQ(Json({{"type", "end"}, {"status", 1}}), Json::parse(Lines(outcome.out).back()));
  ExpectWords(outcome.err, {"block -e 1: code 1 (code of the engine)", "block standard input: code 7"});
  EXPECT_EQ(std::string::npos, outcome.err.find(": code 0 "));
}

TEST_F(VexadxTest, ABlockReachesTheEngineByteForByte) {
  const std::string arrived = home.Path("arrived");
  ::setenv("CTEST_BLOCK", arrived.c_str(), 1);
  const std::string texts[] = {"0 a\rb\r\rc\r\n\n\n d\n", "0 \xFF\xC0\x80\xED\xA0\x80\xF8\n",
                               "0" + std::string(1 << 20, 'l') + '\n', "0\x01\x1A\x7F\t\x0C\xEF\xBB\xBF\n"};
  for (const std::string& text : texts) {
    const std::string file = home.Replace("block", text);
    for (const std::string place : {"--in-process", "--out-of-process"}) {
      home.Remove("arrived");
      EXPECT_EQ(0, RunVexadx({"run", "CTEST", place, file}).status);
      EXPECT_TRUE(text == ReadFile(arrived)) << place << ' ' << text.substr(0, 20);
    }
  }
  ::unsetenv("CTEST_BLOCK");
}

TEST_F(VexadxTest, TheTraceThatTheConfigurationAsksForHasEveryRun) {
  const std::string trace = home.Path("trace");
  home.Configure("[SUPPORTED_LANG]\nX=CTEST\nTRACE=" + trace + "\n[CTEST]\nLIB_NAME=ctest\n");
  for (const bool threaded : {false, true}) {
    EXPECT_EQ(1, RunVexadx(Strings{"run", "ctest", "-e", "0", "-e", "6", "--in-process"} +
                           (threaded ? Strings{"--threaded"} : Strings{}))
                     .status);
    Strings texts = TraceTexts(trace);
    std::erase_if(texts, [](const std::string& text) { return !text.starts_with("StatisticsX::"); });
    texts.pop_back();  // the engine is stopped once more when it is destroyed
    const std::string zero = " error code : 0.";
    EXPECT_EQ(
        (Strings{"StatisticsX::setup_dxcallback", "StatisticsX::init_embedded_x" + zero,
                 "StatisticsX::pre_action" + zero, "StatisticsX::execute_x" + zero, "StatisticsX::post_action" + zero,
                 "StatisticsX::pre_action" + zero, "StatisticsX::execute_x error code : 6.",
                 "StatisticsX::post_action" + zero, "StatisticsX::stop_embedded_x" + zero}),
        texts);
    ExpectWords(Lines(ReadFile(trace)).at(1), {" CTEST>>"});
  }
}

TEST_F(VexadxTest, TheVersionAndTheEnginesAreListed) {
  EXPECT_EQ(0U, RunVexadx({"--version"}).out.find("vexadx "));
  home.Configure("[SUPPORTED_LANG]\nX=CTEST;;GONE\n[CTEST]\nLIB_NAME=ctest\n[GONE]\nLIB_NAME=gone\n");
  const std::string ctest = home.Path("lib/libctest.dylib");
  const std::string gone = "the plug-in library " + home.Path("lib/libgone.dylib").string() + " does not exist";
  const Outcome plain = RunVexadx({"engines"});
  EXPECT_EQ(0, plain.status);
  EXPECT_EQ("CTEST\tfound\t" + ctest + "\nGONE\tnot found\t" + gone + '\n', plain.out);
  const std::vector<Json> engines = ObjectsOf(RunVexadx({"engines", "--json"}).out, "engine");
  ASSERT_EQ(2U, engines.size());
  EXPECT_EQ(Json({{"type", "engine"}, {"name", "CTEST"}, {"found", true}, {"library", ctest}, {"reason", ""}}),
            engines[0]);
  EXPECT_FALSE(engines[1].at("found"));
}

TEST_F(VexadxTest, TheJavaExtensionIsFoundWithItsRuntimeAndItsArchive) {
  home.Configure("[SUPPORTED_LANG]\nX=JAVAEXTENSION\n");
  const std::string archive = home.Path("bin/vexajavaplugin.jar");
  EXPECT_EQ("JAVAEXTENSION\tfound\t" + archive + '\n', RunVexadx({"engines"}).out);
  ExpectDoctor(0, {home.Path("JRE/bin/java"), archive});
  for (const std::string missing : {"bin/vexajavaplugin.jar", "JRE"}) {
    SCOPED_TRACE(missing);
    home.Remove(missing);
    ExpectWords(RunVexadx({"engines"}).out, {"JAVAEXTENSION\tnot found\t", home.Path(missing)});
    ExpectDoctor(3, {"problem: ", home.Path(missing), "  to do: "});
  }
}

TEST_F(VexadxTest, WithoutAJavaRuntimeItSaysHowToGetOne) {
  // No machine starts with an option that none knows.
  ::setenv("JAVA_TOOL_OPTIONS", "-XX:+NoSuchOptionAtAll", 1);
  const Outcome outcome = RunVexadx({"run", "PYTHON", "--in-process", "-e", "0"});
  ::unsetenv("JAVA_TOOL_OPTIONS");
  EXPECT_EQ(3, outcome.status);
  ExpectWords(outcome.err, {"no Java runtime could be started", "install", "JAVA_HOME"});
}

TEST_F(VexadxTest, AnEngineProgramThatCannotBeRunIsExplained) {
  const std::string program = home.Path("bin/startx");
  const Strings run{"run", "CTEST", "--out-of-process", "-e", "0"};
  const auto expectAtOnce = [&run](int status, const Strings& words) {
    const Within limit(200ms);
    ExpectProblem(status, words, run);
  };
  home.Remove("bin/startx");
  expectAtOnce(127, {program, "does not exist"});
  home.Write("bin/startx", "");
  expectAtOnce(126, {program, "cannot be executed", "chmod +x"});
  // The system finds out that it is no program, and says so on standard output.
  home.Write("bin/startx", "#!/no/such/interpreter\n");
  std::filesystem::permissions(program, std::filesystem::perms::owner_all);
  const Outcome outcome = RunVexadx(run);
  EXPECT_EQ(126, outcome.status);
  ExpectWords(outcome.err,
              {"vexadx: error: the engine program " + program + " cannot be executed", "for this machine"});
  // One that ends by itself.
  home.Write("bin/startx", "#!/bin/sh\nexit 3\n");
  ExpectProblem(3, {"the engine CTEST could not be started", "its process ended with exit status 3"}, run);
}

// Runs of the staged Python engine in a home and with a directory for pipes of its own.
class VexadxPythonTest : public testing::Test {
 protected:
  VexadxPythonTest() { ::setenv("TMPDIR", m_temporary.Path().c_str(), 1); }
  ~VexadxPythonTest() override { ::unsetenv("TMPDIR"); }

  static Strings Python(const std::string& place, const Strings& arguments) {
    return Strings{"run", "python", place} + arguments;
  }

  bool HasNoPipes() const { return std::filesystem::is_empty(m_temporary.Path()); }

  static constexpr const char* kInside = "--in-process";
  static constexpr const char* kOutside = "--out-of-process";

  TempHome home;

 private:
  TempDir m_temporary;
};

// Prints "ready" and runs until it is interrupted, and does so once more each time it has survived an interrupt. The
// clock is a call at which the thread sanitizer delivers a signal.
std::string Stubborn(std::size_t survived) {
  return "import time\n"
         "for _ in range(" +
         std::to_string(survived) +
         "):\n"
         "  try:\n"
         "    print('ready')\n"
         "    while True: time.monotonic()\n"
         "  except KeyboardInterrupt: pass\n"
         "print('ready')\n"
         "while True: time.monotonic()\n";
}

TEST_F(VexadxPythonTest, ARunComesToWhatItsBlocksDo) {
  const Strings failing{"-e", "print('\\u20ac\\n\"')", "-e", "raise SystemExit(3)", "-e", "print('still here')"};
  const Strings threeBlocks{"-e", "x = 6", "-", "-e", "print(x * 7)"};
  const std::string child =
      "import os\nchild = os.fork()\nif child == 0:\n  print('child')\n  raise SystemExit(5)\n"
      "print(os.WEXITSTATUS(os.waitpid(child, 0)[1]))";
  const std::string input = "import os, sys\nprint([sys.stdin.read(), os.getpgrp() == os.getpid()])";
  const std::string late = "import sys\nsys.stdout = open(1, 'w', closefd=False)\nprint('late')";
  const auto dead = [](const std::string& how) {
    return Strings{"the process of the engine PYTHON " + how, "block -e 1: code 99103", "vexadx: hint: "};
  };
  const std::string before = "import os, signal\nprint('before')\n";
  const std::string killed = before + "os.kill(os.getpid(), signal.SIGKILL)";
  const RunCase runs[] = {
      {Python(kInside, threeBlocks), 0, "hello\n42\n", {}, "print('hello')"},
      {Python(kOutside, threeBlocks), 0, "hello\n42\n", {}, "print('hello')"},
      {Python(kInside, failing), 1, "\xE2\x82\xAC\n\"\nstill here\n", {"block -e 2: code 3 (code of the engine)"}},
      {Python(kOutside, failing), 1, "\xE2\x82\xAC\n\"\nstill here\n", {"block -e 2: code 3 (code of the engine)"}},
      {Python(kOutside, {"-e", child, "-e", "print('next')"}), 0, "child\n5\nnext\n", {}},
      {Python(kOutside, {"-e", input}), 0, "['', True]\n", {}, "what vexadx was given\n"},
      {Python(kOutside, {"-e", late}), 0, "late\n", {}},
      // A code that means a death is none when a block answers it.
      {Python(kOutside, {"-e", "raise SystemExit(99104)", "-e", "print('next')"}), 1, "next\n", {"1: code 99104"}},
      {Python(kOutside, {"-e", killed, "-e", "print('next')"}), 4, "before\n",
       dead("was ended by signal 9 (Killed) while it executed a block\n")},
      {Python(kOutside, {"-e", before + "os._exit(3)"}), 4, "before\n",
       dead("ended with exit status 3 while it executed a block\n")},
      {Python(kOutside, {"-e", before + "os._exit(0)"}), 4, "before\n",
       dead("ended with exit status 0 while it executed a block\n")},
  };
  for (const RunCase& run : runs) {
    ExpectRun(run);
    EXPECT_TRUE(HasNoPipes());
  }
}

// In words and in JSON. A stack of its language says more than what came before it.
TEST_F(VexadxPythonTest, AnEnginesDeathIsToldWithWhatItWroteLast) {
  const std::string error = "import sys, os\nprint('so it began', file=sys.stderr)\n";
  const struct {
    std::string block;
    Json signal;
    Json exitStatus;
    std::string stack;
  } cases[] = {{error + "os._exit(3)", {}, 3, ""}, {error + "os.abort()", 6, {}, "Fatal Python error: Aborted\n"}};
  for (const auto& c : cases) {
    const Outcome plain = RunVexadx(Python(kOutside, {"-e", c.block}));
    EXPECT_EQ(4, plain.status);
    EXPECT_EQ(0U, plain.err.find("so it began\n")) << plain.err;
    ExpectWords(plain.err, {"\nvexadx: the process of the engine PYTHON wrote last:\nvexadx:   " +
                            (c.stack.empty() ? "so it began\n" : c.stack)});
    const Outcome json = RunVexadx(Python(kOutside, {"--json", "-e", c.block}));
    const Json death = ObjectsOf(json.out, "death").at(0);
    EXPECT_EQ(c.signal, death.at("signal"));
    EXPECT_EQ(c.exitStatus, death.at("exitStatus"));
    EXPECT_EQ("while it executed a block", death.at("step"));
    EXPECT_EQ(OutputOf(json.out), death.at("lastLines"));
    EXPECT_EQ(0U, death.at("stack").get<std::string>().find(c.stack));
    EXPECT_EQ(c.stack.empty(), death.at("stack") == "");
  }
}

TEST_F(VexadxPythonTest, ABlockIsTheSameInAndOutOfProcess) {
  const Strings blocks{"print('one')\nimport sys\n_ = sys.stdout.write('no newline')",
                       "print('\\u20ac')\nsys.stdout.buffer.write(b'\\xff\\n')\nprint('to the other', file=sys.stderr)",
                       "def f():\n  return 1 / 0\nf()",
                       "1 +",
                       "raise SystemExit(7)",
                       "raise SystemExit('bye')",
                       "raise SystemExit(-2)",
                       "",
                       "print('b' * 300_000)"};
  const std::regex seconds("[0-9.]+ m?s\n");
  for (const bool json : {false, true}) {
    Strings arguments;
    if (json) arguments.emplace_back("--json");
    for (const std::string& block : blocks) arguments.insert(arguments.end(), {"-e", block});
    const Outcome inside = RunVexadx(Python(kInside, arguments));
    const Outcome outside = RunVexadx(Python(kOutside, arguments));
    EXPECT_EQ(1, inside.status);
    EXPECT_EQ(inside.status, outside.status);
    EXPECT_EQ(std::regex_replace(inside.err, seconds, ""), std::regex_replace(outside.err, seconds, ""));
    if (json) {
      EXPECT_EQ(OutputOf(inside.out), OutputOf(outside.out));
    } else {
      EXPECT_EQ(inside.out, outside.out);
    }
  }
}

TEST_F(VexadxPythonTest, OutputArrivesWhileTheBlockRuns) {
  const Gate gate(home, "gate");
  for (const char* place : {kInside, kOutside}) {
    for (const bool json : {false, true}) {
      Strings arguments = Python(place, {"-e", "print('ready')\n" + gate.AwaitInPython() + "print('released')"});
      if (json) arguments.emplace_back("--json");
      ChildProcess child(CommandOf(arguments));
      child.AwaitOutput("ready");
      gate.Open();
      EXPECT_EQ(0, child.Wait()) << child.Err();
      EXPECT_EQ("ready\nreleased\n", json ? OutputOf(child.Out()) : child.Out());
    }
  }
}

// Lines of 100 bytes with their numbers, from the language and, behind the interpreter's back, from C that holds its
// lock.
TEST_F(VexadxPythonTest, AFloodOfOutputArrivesInOrder) {
  constexpr int kLines = 100'000;
  const std::string lines = "range(" + std::to_string(kLines) + ")";
  const std::string fromPython =
      "import sys\nfor i in " + lines + ":\n  print(f'{i:099}')\n  print(f'{i:099}', file=sys.stderr)";
  const std::string fromC =
      "import ctypes\nwrite = ctypes.PyDLL(None).write\ntext = ''.join(f'{i:099}\\n' for i in " + lines +
      ").encode()\nfor fd in (1, 2):\n  at = 0\n" +
      "  while at < len(text): at += write(fd, text[at:at + 1_000_000], len(text[at:at + 1_000_000]))";
  std::string expected;
  for (int i = 0; i < kLines; ++i) {
    const std::string number = std::to_string(i);
    expected += std::string(99 - number.size(), '0') + number + '\n';
  }
  for (const char* place : {kInside, kOutside}) {
    for (const std::string& block : {fromPython, fromC}) {
      SCOPED_TRACE(place + block);
      const auto begin = std::chrono::steady_clock::now();
      const Outcome outcome = RunVexadx(Python(place, {"-e", block}));
      EXPECT_LT(std::chrono::steady_clock::now() - begin, std::chrono::seconds(10));
      EXPECT_EQ(0, outcome.status);
      EXPECT_TRUE(expected == outcome.out) << outcome.out.size();
      EXPECT_TRUE(expected == outcome.err) << outcome.err.size();
    }
  }
  const Outcome outcome = RunVexadx(Python(kOutside, {"--json", "-e", fromC}));
  EXPECT_TRUE(expected + expected == OutputOf(outcome.out)) << outcome.out.size();
}

// What is written past the plug-in is the block's where the process is the block's alone.
TEST_F(VexadxPythonTest, WhatAChildOfABlockWritesIsOutputOfItsProcess) {
  for (const std::string place : {kInside, kOutside}) {
    const Outcome outcome = RunVexadx(Python(place, {"--json", "-e", "import os\n_ = os.system('echo from a child')"}));
    EXPECT_EQ(0, outcome.status);
    EXPECT_EQ(place == kOutside ? "from a child\n" : "", OutputOf(outcome.out));
    EXPECT_EQ(place == kInside ? "from a child\n" : "", outcome.err);
  }
}

// The first interrupt ends the block, the second one and a termination the run, the third signal does not wait for
// that. Wait returns once nobody has the streams any more: neither the engine's process nor a child of it is left then.
TEST_F(VexadxPythonTest, SignalsEndTheBlockThenTheRunThenEverything) {
  const Strings keeping{"-e", "import os\nkept = os.getpid()", "-e", Stubborn(0), "-e", "print(kept == os.getpid())"};
  const Strings threadedKeeping = keeping + Strings{"--threaded"};
  const auto stubborn = [](std::size_t survived) { return Strings{"-e", Stubborn(survived), "-e", "print('next')"}; };
  // While Python waits for this one it ignores the signal itself.
  const Strings waiting{"-e", "import os\nprint('ended by', os.system('echo ready; exec sleep 1000'))"};
  const Strings withChild{"-e", "import subprocess\nsubprocess.Popen(['sleep', '1000'])\n" + Stubborn(0)};
  const Strings interrupted{"Traceback (most recent call last):\n  File \"<block 2>\", line ", "\nKeyboardInterrupt\n",
                            "block -e 2: interrupted: code 1"};
  const struct {
    const char* place;
    Strings arguments;
    std::vector<int> signals;  // each at the next "ready"
    long status;
    std::string end;  // of the output, behind these
    Strings err;
    bool stopped = true;
  } cases[] = {
      {kInside, keeping, {SIGINT}, 130, "True\n", interrupted},
      {kInside, threadedKeeping, {SIGINT}, 130, "True\n", interrupted},
      {kInside, stubborn(1), {SIGINT, SIGINT}, 130, "", {}},
      {kInside, stubborn(2), {SIGINT, SIGINT, SIGINT}, 130, "", {}, false},
      {kInside, stubborn(0), {SIGTERM}, 143, "", {}},
      {kInside, stubborn(1), {SIGTERM, SIGTERM}, 143, "", {}, false},
      {kInside, stubborn(1), {SIGINT, SIGTERM}, 143, "", {}},
      {kOutside, keeping, {SIGINT}, 130, "True\n", interrupted},
      {kOutside, threadedKeeping, {SIGINT}, 130, "True\n", interrupted},
      {kOutside, stubborn(1), {SIGINT, SIGINT}, 130, "", {}},
      {kOutside, stubborn(0), {SIGTERM}, 143, "", {}},
      {kOutside, stubborn(1), {SIGINT, SIGTERM}, 143, "", {}},
      {kOutside, waiting, {SIGINT}, 0, "ended by 2\n", {}},
      {kOutside, withChild, {SIGTERM}, 143, "", {}},
  };
  const std::string trace = home.Path("trace");
  for (const auto& c : cases) {
    SCOPED_TRACE(c.place + testing::PrintToString(c.arguments) + testing::PrintToString(c.signals));
    ChildProcess child(CommandOf(Python(c.place, c.arguments + Strings{"--trace", trace})));
    std::string out;
    for (std::size_t sent = 0; sent < c.signals.size(); ++sent) {
      out += "ready\n";
      child.AwaitOutput(out);
      if (sent + 1 < c.signals.size()) child.Signal(c.signals[sent]);
    }
    EXPECT_EQ(c.status, EndBy(c.signals.back(), child));
    EXPECT_EQ(out + c.end, child.Out());
    ExpectWords(child.Err(), c.err);
    EXPECT_EQ(c.stopped, ReadFile(trace).find("stop_embedded_x error code : 0.") != std::string::npos);
    EXPECT_TRUE(HasNoPipes());
  }
}

TEST_F(VexadxPythonTest, AnEngineThatDefiesEverySignalGoesWithTheHost) {
  ChildProcess child(CommandOf(Python(
      kOutside, {"-e", "import signal\nsignal.signal(signal.SIGTERM, lambda *_: print('ready'))\n" + Stubborn(99)})));
  for (int sent = 1; sent <= 3; ++sent) {
    child.AwaitOutput("ready\n", sent);
    child.Signal(SIGINT);
  }
  EXPECT_EQ(130, child.Wait());
}

#ifdef VEXADX_SANITIZED
constexpr std::chrono::seconds kSlower{4};  // a sanitizer's programs and Java machine start slowly
#else
constexpr std::chrono::seconds kSlower{0};
#endif

// Wait returns once neither the engine's process nor a child of it is left.
TEST_F(VexadxPythonTest, ALimitHoldsAlsoWhereNobodyTakesTheOutput) {
  const std::string unread = home.Path("unread");
  ASSERT_EQ(0, ::mkfifo(unread.c_str(), 0600));
  const Strings withUnreadOutput{"/bin/sh", "-c", "\"$@\" 1<>\"$0\"", unread};
  for (const std::string place : {kInside, kOutside}) {
    for (const Strings& form : {Strings{}, Strings{"--json"}}) {
      SCOPED_TRACE(place + testing::PrintToString(form));
      const Strings run = Python(place, {"--timeout", "1", "-e", "while True: print('x' * 1000)"}) + form;
      const auto begin = std::chrono::steady_clock::now();
      const Outcome outcome = RunProgram(withUnreadOutput + CommandOf(run));
      EXPECT_LT(std::chrono::steady_clock::now() - begin, std::chrono::seconds(8) + kSlower);
      EXPECT_EQ(124, outcome.status);
      ExpectWords(outcome.err, {"vexadx: error: block -e 1 took longer than 1 s (--timeout)"});
      EXPECT_TRUE(HasNoPipes());
    }
  }
}

TEST_F(VexadxPythonTest, WhatTakesTooLongIsInterruptedOrEndedInTime) {
  home.AddPlugin("ctest");
  const std::string realStartX = std::filesystem::canonical(home.Path("bin/startx"));
  home.Remove("bin/startx");
  const std::string choosing = home.Write("bin/startx", "#!/bin/sh\n[ \"$4\" = PYTHON ] && exec " + realStartX +
                                                            " \"$@\"\nexec " VEXADX_STARTX_FAULT " \"$@\"\n");
  std::filesystem::permissions(choosing, std::filesystem::perms::owner_all);
  const std::string sleeping = "print('begun')\nimport time\ntime.sleep(1000)";
  const std::string deaf =
      "import signal, time\nsignal.signal(signal.SIGTERM, signal.SIG_IGN)\n"
      "signal.pthread_sigmask(signal.SIG_BLOCK, [signal.SIGINT])\n"
      "while True: time.sleep(1000)";
  const std::string stopped =
      "import os, signal, subprocess\nsubprocess.Popen(['sleep', '1000'])\n"
      "os.kill(os.getpid(), signal.SIGSTOP)";
  const auto faulty = [](const std::string& x, const Strings& more) { return Strings{"run", x, "-e", ""} + more; };
  const Strings next{"-e", "print('next')"};
  const std::string blockLate = "block -e 1 took longer than 1 s (--timeout)";
  const struct {
    Strings arguments;
    const char* fault;  // of the X process that is not Python's
    long status;
    int within;  // seconds
    Strings words;
  } rows[] = {
      {Python(kInside, {"--timeout", "1", "-e", sleeping}) + next, "", 124, 4, {blockLate + "; it was interrupted"}},
      {Python(kOutside, {"--timeout", "1", "-e", sleeping}) + next, "", 124, 4, {blockLate + "; it was interrupted"}},
      {Python(kOutside, {"--timeout", "5", "-e", stopped}) + next,
       "",
       124,
       8,
       {"5 s (--timeout); its process was ended by"}},
      {Python(kOutside, {"--timeout", "1", "-e", deaf}) + next,
       "",
       124,
       8,
       {"signal 9 (Killed) while it executed a block"}},
      {Python(kInside, {"--timeout", "1", "-e", deaf}) + next, "", 124, 4, {blockLate + " and cannot be ended"}},
      {Python(kOutside, {"--timeout", "60", "-e", "print('begun')"}), "", 0, 10, {}},
      {faulty("SILENT", {"--start-timeout", "5"}),
       "ready-read silent",
       124,
       6,
       {"the start of the engine", "at the ready check"}},
      {faulty("GONE", {}), "started exit=3", 3, 1, {"exit status 3 during the start"}},
      {faulty("WEDGED", {}), "stop-read silent", 124, 6, {"the stop of the engine", "(--stop-timeout)", "was ended"}},
      {faulty("LINGERING", {"--stop-timeout", "0.5"}), "stopped silent", 124, 4, {"the stop of the engine"}},
  };
  std::string configuration = "[SUPPORTED_LANG]\nX=PYTHON;SILENT;GONE;WEDGED;LINGERING\n";
  for (const auto& row : rows) {
    if (*row.fault) configuration += '[' + row.arguments[1] + "]\nLIB_NAME=ctest\nSTARTX_FAULT=" + row.fault + '\n';
  }
  home.Configure(configuration);
  // Two at a time: they wait most of the time.
  const auto runEverySecond = [&rows](std::size_t first) {
    for (std::size_t i = first; i < std::size(rows); i += 2) {
      const auto& row = rows[i];
      SCOPED_TRACE(testing::PrintToString(row.arguments));
      const auto begin = std::chrono::steady_clock::now();
      const Outcome outcome = RunVexadx(row.arguments + Strings{"--json"});
      EXPECT_LT(std::chrono::steady_clock::now() - begin, std::chrono::seconds(row.within) + kSlower) << outcome.err;
      EXPECT_EQ(row.status, outcome.status) << outcome.err;
      EXPECT_EQ(std::string::npos, OutputOf(outcome.out).find("next"));
      const std::vector<Json> errors = ObjectsOf(outcome.out, "error");
      EXPECT_EQ(row.words.empty() ? 0U : 1U, errors.size()) << outcome.err;
      if (!errors.empty()) ExpectWords(errors[0].at("message"), row.words);
    }
  };
  std::future<void> others = std::async(std::launch::async, runEverySecond, 1);
  runEverySecond(0);
  others.get();
  EXPECT_TRUE(HasNoPipes());
}

TEST_F(VexadxPythonTest, PipesAreRemovedAtTheEndOrByTheNextRun) {
  ChildProcess child(CommandOf(Python(kOutside, {"-e", Stubborn(0)})));
  child.AwaitOutput("ready\n");
  child.Signal(SIGKILL);
  EXPECT_EQ(-SIGKILL, child.Wait());  // the engine has ended by now as well
  EXPECT_FALSE(HasNoPipes());
  EXPECT_EQ(0, RunVexadx(Python(kOutside, {"-e", ""})).status);
  EXPECT_TRUE(HasNoPipes());
}

// Commands of the staged Java extension.
class VexadxJavaTest : public testing::Test {
 protected:
  VexadxJavaTest() { ::unsetenv("JAVA_TOOL_OPTIONS"); }

  Strings Java(const std::string& command, const Strings& more) const {
    const std::string extensions = home.Path("extensions");
    std::filesystem::create_directories(extensions);
    std::filesystem::copy_file(VEXADX_COMMANDS, extensions + '/' + command + ".jar",
                               std::filesystem::copy_options::skip_existing);
    return Strings{"run", "javaextension", "--extension-path", extensions, "--command", command} + more;
  }

  TempHome home;
};

TEST_F(VexadxJavaTest, TheStatusIsWhatTheCommandCameTo) {
  const Strings lines{"-e", "one\ntwo", "-e", "n\xC3\xA4her"};
  const RunCase runs[] = {
      {Java("STATS_HELLO", lines), 0, "<one><two><n\xC3\xA4her>", {}},
      {Java("STATS_EXIT", {"-e", "7", "-e", "0"}), 1, "", {"vexadx: block -e 1: code 7"}},
      {Java("STATS_THROW", {"-e", ""}), 1, "", {"IllegalStateException: on purpose", "code 1"}, "", false},
      {Java("STATS_GONE", {"-e", ""}),
       3,
       "",
       {"no command \"STATS_GONE\"", "could not be started", "exit status 5"},
       "",
       false},
  };
  for (const RunCase& run : runs) ExpectRun(run);
}

TEST_F(VexadxJavaTest, CtrlCEndsTheCommandAloneAndAKilledProcessTheRun) {
  ChildProcess alone(CommandOf(Java("STATS_PROCESS", {"-e", ""})));
  alone.AwaitOutput("\n");
  EXPECT_EQ(130, EndBy(SIGINT, alone));
  for (const bool killed : {false, true}) {
    ChildProcess child(CommandOf(Java("STATS_PROCESS", {"-e", "", "-e", "return"})));
    child.AwaitOutput("\n");
    const Within limit(2s);
    if (killed) {
      ::kill(std::stoi(child.Out().substr(std::string("process ").size())), SIGKILL);
    } else {
      child.Signal(SIGINT);
    }
    EXPECT_EQ(killed ? 4 : 130, child.Wait());
    EXPECT_EQ(killed, child.Out().find("\nreturned") == std::string::npos);
    ExpectWords(child.Err(), {killed ? "ended by signal 9" : "block -e 1: interrupted"});
  }
}

TEST_F(VexadxJavaTest, AConnectionThatBreaksInTheMiddleOfABlockEndsTheRun) {
  home.Remove("JRE");
  std::filesystem::create_directory_symlink(VEXADX_JAVA_PEER, home.Path("JRE"));
  std::string text;
  text.resize(32'000'000, 'x');
  const std::string large = home.Write("large", text);
  ::setenv("JAVA_PEER", "connect receive", 1);
  const Outcome outcome = RunVexadx(Java("STATS_HELLO", {large, "-e", "next"}));
  EXPECT_EQ(4, outcome.status);
  ExpectWords(outcome.err, {"block " + large + ": code 99122", "ended with exit status 0"});
  EXPECT_EQ(std::string::npos, outcome.err.find("block -e 1"));
}

}  // namespace
