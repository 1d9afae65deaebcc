#include <gtest/gtest.h>
#include <signal.h>
#include <sys/stat.h>

#include <cstdlib>
#include <filesystem>
#include <nlohmann/json.hpp>
#include <regex>
#include <string>
#include <vector>

#include "childprocess.h"
#include "gate.h"
#include "temphome.h"
#include "vexadx_plugin.h"

namespace {

using Json = nlohmann::json;
using Strings = std::vector<std::string>;

Strings CommandOf(const Strings& arguments) {
  Strings command{VEXADX_STAGED_HOME "/bin/vexadx"};
  command.insert(command.end(), arguments.begin(), arguments.end());
  return command;
}

struct Outcome {
  int status;
  std::string out;
  std::string err;
};

Outcome RunVexadx(const Strings& arguments, const std::string& input = "") {
  ChildProcess child(CommandOf(arguments));
  if (!input.empty()) child.Write(input);
  const int status = child.Wait();
  return {status, child.Out(), child.Err()};
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

void ExpectWords(const std::string& text, const Strings& words) {
  for (const std::string& word : words) EXPECT_NE(std::string::npos, text.find(word)) << word << " in\n" << text;
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

TEST_F(VexadxTest, WrongConfigurationIsExplained) {
  const std::string config = home.Path("bin/vexadxcfg.ini");
  const std::string preferences = home.Path("bin/vexaprefs.properties");

  Configure("");
  ExpectProblem(5, {"no plug-in library", "LIB_NAME=", "[CTEST]", config}, {"run", "CTEST", "-e", "0"});
  Configure("LIB_NAME = ctest\n");
  ExpectProblem(5, {"no plug-in library", "without blanks"}, {"run", "CTEST", "-e", "0"});
  home.Configure("\xEF\xBB\xBF[SUPPORTED_LANG]\nX=CTEST\n");
  ExpectProblem(5, {"byte-order mark", "without", "names no engine", "[SUPPORTED_LANG]"}, {"run", "CTEST", "-e", "0"});
  home.Configure("");
  ExpectProblem(5, {"names no engine"}, {"engines"});

  Configure("LIB_NAME=ctest\n");
  home.Prefer("");
  ExpectProblem(5, {"Java preferences", "PYTHON.libName", preferences}, {"run", "PYTHON", "--in-process", "-e", "0"});

  home.Remove("bin/vexadxcfg.ini");
  ExpectProblem(5, {config, "VEXA_HOME", home.Path()}, {"run", "CTEST", "-e", "0"});
}

TEST_F(VexadxTest, UnusableLibrariesAreExplained) {
  home.Write("lib/libtext.dylib", "not a library\n");
  for (const vexadx::PluginEntryPoint& entryPoint : vexadx::kPluginEntryPoints) {
    if (entryPoint.mandatory) home.AddPlugin(std::string("without_") + entryPoint.name);
  }
  const struct {
    std::string library;
    Strings words;
  } cases[] = {
      {"gone", {home.Path("lib/libgone.dylib"), "does not exist", "LIB_NAME"}},
      {"text", {home.Path("lib/libtext.dylib"), "could not be loaded", "the loader says"}},
      {"without_init_embedded_x", {"does not export: init_embedded_x;", "the loader says"}},
      {"without_execute_x", {"does not export: execute_x;"}},
      {"without_stop_embedded_x", {"does not export: stop_embedded_x;"}},
      {"without_pre_action", {"does not export: pre_action;"}},
      {"without_post_action", {"does not export: post_action;"}},
      {"ctest\nARGS=5 x", {"could not be started", "code 5 (code of the engine)", "--trace"}},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.library);
    Configure("LIB_NAME=" + c.library + '\n');
    ExpectProblem(3, c.words, {"run", "CTEST", "-e", "0"});
  }
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
  for (const Json& block : ObjectsOf(outcome.out, "block")) blocks.emplace_back(block.at("name"), block.at("code"));
  const std::vector<std::pair<std::string, int>> expected{{"-e 1", 1},           {three, 3},           {"-e 2", 0},
                                                          {"standard input", 7}, {"./[four,five]", 0}, {"-e 3", -2}};
  EXPECT_EQ(expected, blocks);
  EXPECT_EQ("1\n3\n[0,1]\n7\n0\n-2\n", OutputOf(outcome.out));
  EXPECT_EQ(Json({{"type", "end"}, {"status", 1}}), Json::parse(Lines(outcome.out).back()));
  ExpectWords(outcome.err, {"block -e 1: code 1 (code of the engine)", "block standard input: code 7"});
  EXPECT_EQ(std::string::npos, outcome.err.find(": code 0 "));
}

TEST_F(VexadxTest, TheTraceHasTheStepsInOrderOnEitherThread) {
  const std::string trace = home.Path("trace");
  home.Configure("[SUPPORTED_LANG]\nX=CTEST\nTRACE=" + trace + "\n[CTEST]\nLIB_NAME=ctest\n");
  Strings expected{"StatisticsX::setup_dxcallback", "StatisticsX::init_embedded_x error code : 0."};
  for (const std::string line : {"0", "6"}) {
    const std::string code = "error code : " + line + ".";
    const Strings run{"StatisticsX::pre_action error code : 0.",
                      "DriveX PRE ACTION ",
                      line + '\n',
                      "StatisticsX::execute_x " + code,
                      "DriveX ExecuteXLines  " + code,
                      "StatisticsX::post_action error code : 0.",
                      "DriveX POST ACTION "};
    expected.insert(expected.end(), run.begin(), run.end());
  }
  expected.emplace_back("StatisticsX::stop_embedded_x error code : 0.");

  for (const bool threaded : {false, true}) {
    Strings arguments{"run", "ctest", "-e", "0", "-e", "6", "--in-process"};
    if (threaded) arguments.emplace_back("--threaded");
    EXPECT_EQ(1, RunVexadx(arguments).status);
    Strings texts = TraceTexts(trace);
    // What the runtimes did to the host's state is their business, and nothing goes through the pipes.
    std::erase_if(texts, [](const std::string& text) {
      return text.starts_with("HostStateGuard") || text.starts_with("syntax") || text.starts_with("xdapi");
    });
    ASSERT_LE(expected.size(), texts.size());
    texts.resize(expected.size());  // the engine is stopped once more when it is destroyed
    EXPECT_EQ(expected, texts);
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

TEST_F(VexadxTest, TheDoctorNamesTheFirstProblem) {
  home.AddPlugin("without_post_action");
  const struct {
    std::string section;
    int status;
    std::string lastCheck;
  } cases[] = {
      {"LIB_NAME=ctest\n", 0, "stop"},
      {"", 5, "library name"},
      {"LIB_NAME=gone\n", 3, "library"},
      {"LIB_NAME=without_post_action\n", 3, "entry points"},
      {"LIB_NAME=ctest\nCTEST_INIT=1\n", 3, "start"},
      {"LIB_NAME=ctest\nCTEST_STOP=1\n", 3, "stop"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.section);
    Configure(c.section);
    const Outcome outcome = RunVexadx({"doctor", "--engine", "ctest", "--json"});
    EXPECT_EQ(c.status, outcome.status) << outcome.err;
    const Json last = ObjectsOf(outcome.out, "check").back();
    EXPECT_EQ(c.lastCheck, last.at("check"));
    EXPECT_EQ(c.status == 0, last.at("ok"));
    EXPECT_EQ(c.status == 0, last.at("advice").get<std::string>().empty());
  }
  // Besides what a host process loads: what the engine's own process is and loads.
  home.Configure("[SUPPORTED_LANG]\nX=PYTHON\n[PYTHON]\nLIB_NAME=gone\n");
  const Outcome noLibrary = RunVexadx({"doctor"});
  EXPECT_EQ(3, noLibrary.status);
  ExpectWords(noLibrary.out, {"PYTHON process library: problem: ", "libgone.dylib", "[PYTHON]"});
  ExpectProblem(3, {"libgone.dylib", "LIB_NAME", "[PYTHON]"}, {"run", "PYTHON", "-e", "0"});
  home.Remove("bin/startx");
  const Outcome noProgram = RunVexadx({"doctor"});
  EXPECT_EQ(127, noProgram.status);
  ExpectWords(noProgram.out, {"PYTHON program: problem: ", home.Path("bin/startx")});

  home.Remove("bin/vexadxcfg.ini");
  const Outcome plain = RunVexadx({"doctor"});
  EXPECT_EQ(5, plain.status);
  ExpectWords(plain.out, {"home: ok: ", "configuration: problem: ", "  to do: "});
}

TEST_F(VexadxTest, TheJavaExtensionIsFoundWithItsRuntimeAndItsArchive) {
  home.Configure("[SUPPORTED_LANG]\nX=JAVAEXTENSION\n");
  const std::string archive = home.Path("bin/vexajavaplugin.jar");
  EXPECT_EQ("JAVAEXTENSION\tfound\t" + archive + '\n', RunVexadx({"engines"}).out);
  const Outcome whole = RunVexadx({"doctor"});
  EXPECT_EQ(0, whole.status) << whole.out;
  ExpectWords(whole.out, {home.Path("JRE/bin/java"), archive});

  for (const std::string missing : {"bin/vexajavaplugin.jar", "JRE"}) {
    SCOPED_TRACE(missing);
    home.Remove(missing);
    ExpectWords(RunVexadx({"engines"}).out, {"JAVAEXTENSION\tnot found\t", home.Path(missing)});
    const Outcome outcome = RunVexadx({"doctor"});
    EXPECT_EQ(3, outcome.status);
    ExpectWords(outcome.out, {"problem: ", home.Path(missing), "  to do: "});
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
  home.Remove("bin/startx");
  ExpectProblem(127, {program, "does not exist"}, run);
  home.Write("bin/startx", "");
  ExpectProblem(126, {program, "cannot be executed", "chmod +x"}, run);
  // The system finds out that it is no program, and says so on standard output.
  home.Write("bin/startx", "#!/no/such/interpreter\n");
  std::filesystem::permissions(program, std::filesystem::perms::owner_all);
  const Outcome outcome = RunVexadx(run);
  EXPECT_EQ(126, outcome.status);
  ExpectWords(outcome.err,
              {"vexadx: error: the engine program " + program + " cannot be executed", "for this machine"});
}

// Runs of the staged Python engine in a home and with a directory for pipes of its own.
class VexadxPythonTest : public testing::Test {
 protected:
  VexadxPythonTest() { ::setenv("TMPDIR", m_temporary.Path().c_str(), 1); }
  ~VexadxPythonTest() override { ::unsetenv("TMPDIR"); }

  static Strings Python(const std::string& place, Strings arguments) {
    arguments.insert(arguments.begin(), {"run", "python", place});
    return arguments;
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

TEST_F(VexadxPythonTest, StandardOutputIsTheBlocksAlone) {
  for (const char* place : {kInside, kOutside}) {
    const Outcome outcome = RunVexadx(Python(place, {"-e", "x = 6", "-", "-e", "print(x * 7)"}), "print('hello')");
    EXPECT_EQ(0, outcome.status) << outcome.err;
    EXPECT_EQ("hello\n42\n", outcome.out);
    EXPECT_EQ("", outcome.err);
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

TEST_F(VexadxPythonTest, JsonIsOneObjectALineWhateverTheBlockDoes) {
  for (const std::string place : {kInside, kOutside}) {
    const Outcome outcome =
        RunVexadx(Python(place, {"--json", "-e", "import os\n_ = os.system('echo from a child')\nprint('\\u20ac\\n\"')",
                                 "-e", "import sys\nsys.exit(3)", "-e", "print('still here')"}));
    EXPECT_EQ(1, outcome.status);
    // What is written past the plug-in is the block's where the process is the block's alone.
    const std::string fromChild = "from a child\n";
    EXPECT_EQ((place == kOutside ? fromChild : "") + "\xE2\x82\xAC\n\"\nstill here\n", OutputOf(outcome.out));
    EXPECT_EQ(place == kInside, outcome.err.find(fromChild) != std::string::npos) << outcome.err;
    const std::vector<Json> blocks = ObjectsOf(outcome.out, "block");
    ASSERT_EQ(3U, blocks.size());
    EXPECT_EQ(0, blocks[0].at("code"));
    EXPECT_EQ(3, blocks[1].at("code"));
    EXPECT_EQ("code of the engine", blocks[1].at("meaning"));
    EXPECT_EQ(0, blocks[2].at("code"));
    ExpectWords(outcome.err, {"block -e 2: code 3"});
  }
}

TEST_F(VexadxPythonTest, CtrlCInterruptsTheBlockAndTheNextOneRuns) {
  for (const char* place : {kInside, kOutside}) {
    for (const bool threaded : {false, true}) {
      Strings arguments =
          Python(place, {"-e", "import os\nkept = os.getpid()", "-e", Stubborn(0), "-e", "print(kept == os.getpid())"});
      if (threaded) arguments.emplace_back("--threaded");
      ChildProcess child(CommandOf(arguments));
      child.AwaitOutput("ready\n");
      child.Signal(SIGINT);
      EXPECT_EQ(130, child.Wait());
      EXPECT_EQ("ready\nTrue\n", child.Out());
      ExpectWords(child.Err(), {"Traceback (most recent call last):\n  File \"<block 2>\", line ",
                                "\nKeyboardInterrupt\n", "block -e 2: interrupted: code 1"});
    }
  }
}

// Wait returns once nobody has the streams any more: no process of the engine is left then.
TEST_F(VexadxPythonTest, TheSecondSignalEndsTheRunAndTheThirdLeaves) {
  const struct {
    const char* place;
    std::vector<int> signals;
    std::size_t survived;
    int status;
    bool stopped;
  } cases[] = {
      {kInside, {SIGINT, SIGINT}, 1, 130, true},  {kInside, {SIGINT, SIGINT, SIGINT}, 2, 130, false},
      {kInside, {SIGTERM}, 0, 143, true},         {kInside, {SIGTERM, SIGTERM}, 1, 143, false},
      {kInside, {SIGINT, SIGTERM}, 1, 143, true}, {kOutside, {SIGINT, SIGINT}, 1, 130, true},
      {kOutside, {SIGTERM}, 0, 143, true},        {kOutside, {SIGINT, SIGTERM}, 1, 143, true},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.place + testing::PrintToString(c.signals));
    const std::string trace = home.Path("trace");
    ChildProcess child(
        CommandOf(Python(c.place, {"-e", Stubborn(c.survived), "-e", "print('next')", "--trace", trace})));
    int sent = 0;
    for (const int signal : c.signals) {
      child.AwaitOutput("ready\n", ++sent);
      child.Signal(signal);
    }
    EXPECT_EQ(c.status, child.Wait());
    EXPECT_EQ(std::string::npos, child.Out().find("next"));
    EXPECT_EQ(c.stopped, ReadFile(trace).find("stop_embedded_x error code : 0.") != std::string::npos);
    EXPECT_TRUE(HasNoPipes());
  }
}

TEST_F(VexadxPythonTest, SignalsReachTheChildrenOfABlockAsWell) {
  // While Python waits for this one it ignores the signal itself.
  ChildProcess interrupted(
      CommandOf(Python(kOutside, {"-e", "import os\nprint('ended by', os.system('echo ready; exec sleep 1000'))"})));
  interrupted.AwaitOutput("ready\n");
  interrupted.Signal(SIGINT);
  EXPECT_EQ(0, interrupted.Wait());
  EXPECT_EQ("ready\nended by 2\n", interrupted.Out());

  ChildProcess ended(
      CommandOf(Python(kOutside, {"-e", "import subprocess\nsubprocess.Popen(['sleep', '1000'])\n" + Stubborn(0)})));
  ended.AwaitOutput("ready\n");
  ended.Signal(SIGTERM);
  EXPECT_EQ(143, ended.Wait());  // when the child has let go of the streams as well
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

TEST_F(VexadxPythonTest, AnEngineThatDiesEndsTheRunAndSaysHow) {
  const struct {
    std::string block;
    std::string words;
  } cases[] = {
      {"import signal\nos.kill(os.getpid(), signal.SIGKILL)",
       "the process of the engine PYTHON was ended by signal 9 ("},
      {"os._exit(3)", "the process of the engine PYTHON ended with exit status 3\n"},
      {"os._exit(0)", "the process of the engine PYTHON ended with exit status 0\n"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.block);
    const Strings arguments = Python(kOutside, {"-e", "import os\nprint('before')\n" + c.block, "-e", "print('next')"});
    const Outcome outcome = RunVexadx(arguments);
    EXPECT_EQ(4, outcome.status);
    EXPECT_EQ("before\n", outcome.out);
    ExpectWords(outcome.err, {c.words, "block -e 1: code 99103", "vexadx: hint: "});
    EXPECT_TRUE(HasNoPipes());
  }
}

TEST_F(VexadxPythonTest, AnEngineKilledFromOutsideSaysSoToo) {
  ChildProcess child(CommandOf(Python(
      kOutside, {"--json", "-e", "import os\nprint(os.getpid(), 'ready')\nwhile True: pass", "-e", "print('next')"})));
  child.AwaitOutput("ready");
  ASSERT_EQ(0, ::kill(std::stoi(OutputOf(child.Out())), SIGKILL));
  EXPECT_EQ(4, child.Wait());
  const std::vector<Json> errors = ObjectsOf(child.Out(), "error");
  ASSERT_EQ(1U, errors.size());
  ExpectWords(errors[0].at("message"), {"signal 9"});
  EXPECT_EQ(1U, ObjectsOf(child.Out(), "block").size());
}

TEST_F(VexadxPythonTest, AChildOfABlockDoesNotAnswerForIt) {
  const Outcome outcome = RunVexadx(Python(kOutside, {"-e",
                                                      "import os\nchild = os.fork()\n"
                                                      "if child == 0:\n  print('child')\n  raise SystemExit(5)\n"
                                                      "print(os.WEXITSTATUS(os.waitpid(child, 0)[1]))",
                                                      "-e", "print('next')"}));
  EXPECT_EQ(0, outcome.status) << outcome.err;
  EXPECT_EQ("child\n5\nnext\n", outcome.out);
}

TEST_F(VexadxPythonTest, AnEngineHasNoInputAndNoTerminalSignals) {
  const Outcome outcome =
      RunVexadx(Python(kOutside, {"-e", "import os, sys\nprint([sys.stdin.read(), os.getpgrp() == os.getpid()])"}),
                "what vexadx was given\n");
  EXPECT_EQ(0, outcome.status) << outcome.err;
  EXPECT_EQ("['', True]\n", outcome.out);
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

TEST_F(VexadxPythonTest, ACodeThatABlockAnswersIsNoDeath) {
  const Outcome outcome = RunVexadx(Python(kOutside, {"-e", "raise SystemExit(99104)", "-e", "print('next')"}));
  EXPECT_EQ(1, outcome.status);
  EXPECT_EQ("next\n", outcome.out);
}

TEST_F(VexadxPythonTest, WhatAnEngineWritesWhenItStopsIsOutput) {
  const Outcome outcome = RunVexadx(
      Python(kOutside, {"--json", "-e", "import sys\nsys.stdout = open(1, 'w', closefd=False)\nprint('late')"}));
  EXPECT_EQ(0, outcome.status);
  EXPECT_EQ("late\n", OutputOf(outcome.out));
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
    Strings arguments{"run", "javaextension", "--extension-path", extensions, "--command", command};
    arguments.insert(arguments.end(), more.begin(), more.end());
    return arguments;
  }

  TempHome home;
};

TEST_F(VexadxJavaTest, TheStatusIsWhatTheCommandCameTo) {
  const struct {
    std::string command;
    Strings blocks;
    int status;
    std::string out;
    Strings err;  // words; none: nothing at all
  } cases[] = {
      {"STATS_HELLO", {"-e", "one\ntwo", "-e", "three"}, 0, "<one><two><three>", {}},
      {"STATS_EXIT", {"-e", "7", "-e", "0"}, 1, "", {"vexadx: block -e 1: code 7"}},
      {"STATS_THROW", {"-e", ""}, 1, "", {"IllegalStateException: on purpose", "code 1"}},
      {"STATS_GONE", {"-e", ""}, 3, "", {"no command \"STATS_GONE\"", "could not be started", "exit status 5"}},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.command);
    const Outcome outcome = RunVexadx(Java(c.command, c.blocks));
    EXPECT_EQ(c.status, outcome.status) << outcome.err;
    EXPECT_EQ(c.out, outcome.out);
    ExpectWords(outcome.err, c.err);
    EXPECT_EQ(c.err.empty(), outcome.err.empty()) << outcome.err;
  }
}

TEST_F(VexadxJavaTest, JsonHoldsWhatTheCommandsWrote) {
  const Outcome outcome = RunVexadx(Java("STATS_HELLO", {"-e", "one", "-e", "n\xC3\xA4her", "--json"}));
  EXPECT_EQ(0, outcome.status) << outcome.err;
  EXPECT_EQ("<one><n\xC3\xA4her>", OutputOf(outcome.out));
  const std::vector<Json> blocks = ObjectsOf(outcome.out, "block");
  ASSERT_EQ(2U, blocks.size());
  for (const Json& block : blocks) EXPECT_EQ(0, block.at("code"));
}

TEST_F(VexadxJavaTest, CtrlCEndsTheCommandAndTheNextBlockRuns) {
  ChildProcess child(CommandOf(Java("STATS_PROCESS", {"-e", "", "-e", "return"})));
  child.AwaitOutput("\n");
  child.Signal(SIGINT);
  EXPECT_EQ(130, child.Wait());
  ExpectWords(child.Out(), {"\nreturned"});
  ExpectWords(child.Err(), {"block -e 1: interrupted"});
}

TEST_F(VexadxJavaTest, AProcessThatIsKilledEndsTheRun) {
  ChildProcess child(CommandOf(Java("STATS_PROCESS", {"-e", "", "-e", "return"})));
  child.AwaitOutput("\n");
  ::kill(std::stoi(child.Out().substr(std::string("process ").size())), SIGKILL);
  EXPECT_EQ(4, child.Wait());
  EXPECT_EQ(std::string::npos, child.Out().find("returned"));
  ExpectWords(child.Err(), {"ended by signal 9"});
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
