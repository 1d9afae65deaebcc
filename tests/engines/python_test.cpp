#include <fcntl.h>
#include <gtest/gtest.h>
#include <pthread.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <chrono>
#include <clocale>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <functional>
#include <future>
#include <iterator>
#include <optional>
#include <regex>
#include <string>
#include <vector>

#include "language.h"
#include "within.h"

namespace {

using std::string_literals::operator""s;

std::string withoutBlockNumbers(const std::string& text) {
  return std::regex_replace(text, std::regex("<block \\d+>"), "<block N>");
}

std::size_t entriesOf(const char* directory) {
  const std::filesystem::directory_iterator entries(directory);
  return static_cast<std::size_t>(std::distance(begin(entries), end(entries)));
}

class Python : public Language {
 protected:
  Python() : Language("vexapython") {}

  // Runs a block whose standard output is this descriptor.
  int RunOn(int descriptor, const std::string& block) {
    m_engine->set_post_vexa_output(nullptr);
    const int kept = ::dup(STDOUT_FILENO);
    ::dup2(descriptor, STDOUT_FILENO);
    const int code = Run(block);
    ::dup2(kept, STDOUT_FILENO);
    ::close(kept);
    return code;
  }
};

struct BlockCase {
  std::string block;
  int code;
  std::vector<std::string> output;  // parts, in this order; an empty one: nothing at all
};

const BlockCase kBlocks[] = {
    {"", 0, {}},
    {"first = 1\nprint(first + 1)", 0, {"2\n"}},
    {"print(1)\r\nprint(2)\r\n", 0, {"1\n2\n"}},
    {"1 +", 1, {"  File \"<block N>\", line 1\n    1 +\n       ^\nSyntaxError: invalid syntax\n"}},
    {"def f():\n    return 1/0\nf()\n",
     1,
     {"Traceback (most recent call last):\n  File \"<block N>\", line 3, in <module>\n    f()\n",
      "  File \"<block N>\", line 2, in f\n    return 1/0\n           ~^~\nZeroDivisionError: division by zero\n"}},
    {"try:\n    1/0\nexcept ValueError.__base__ as e:\n    raise KeyError('k') from e\n",
     1,
     {"line 2, in <module>\n    1/0\n", "direct cause", "line 4, in <module>\n    raise KeyError('k') from e\n"}},
    {"def deeper(): deeper()\ndeeper()", 1, {"    def deeper(): deeper()\n", "RecursionError"}},
    {"text = '\xff'", 1, {"SyntaxError: (unicode error)"}},
    {"# coding: latin-1\nprint('\xe9')", 0, {"\xc3\xa9\n"}},
    {"print('\\udcff', '\\ud800', '\\udcff\\ud800')", 0, {"\xff \\ud800 \\udcff\\ud800\n"}},
    {"import sys\nprint('a')\nprint('b', file=sys.stderr)\nsys.stdout.buffer.write(b'\\0\\xff')\nprint('c', end='')",
     0,
     {"a\nb\n\0\xff"s + "c"}},
    {"raise SystemExit", 0, {""}},
    {"raise SystemExit(7)", 7, {""}},
    {"raise SystemExit('bye')", 1, {"bye\n"}},
    {"kept, sys.excepthook = sys.excepthook, lambda *raised: print('mine')\n1/0", 1, {"mine\n"}},
    {"def fail(*raised): raise KeyError\nsys.excepthook = fail\n1/0",
     1,
     {"Error in sys.excepthook:\n", "KeyError", "Original exception was:\n", "    1/0\n", "ZeroDivisionError"}},
    {"sys.excepthook = kept\nsys.stderr, kept = None, sys.stderr\n1/0", 1, {""}},
    {"sys.stderr = kept\nraise ValueError('shown again')", 1, {"ValueError: shown again\n"}},
    {"sys.modules['traceback'] = None\n1/0", 1, {"Traceback", "ZeroDivisionError: division by zero\n"}},
    {"del sys.modules['traceback']\n1/0", 1, {"    1/0\n", "ZeroDivisionError: division by zero\n"}},
};

}  // namespace

TEST_F(Python, AnswersAndShowsWhatTheConsoleWould) {
  ASSERT_EQ(0, Start());
  for (const BlockCase& c : kBlocks) {
    EXPECT_EQ(c.code, Run(c.block)) << c.block << '\n' << gOutput;
    EXPECT_TRUE(holdsInOrder(withoutBlockNumbers(gOutput), c.output)) << c.block << '\n' << gOutput;
    EXPECT_EQ(0, Run("good = 'again'")) << c.block << '\n' << gOutput;
  }
  EXPECT_EQ(0, Run("assert first == 1 and __name__ == '__main__' and good == 'again'"));
}

TEST_F(Python, TakesAndPrintsFiftyMegabytes) {
  constexpr std::size_t kSize = 50'000'000;
  ASSERT_EQ(0, Start());
  EXPECT_EQ(0, Run("big = '''" + std::string(kSize, 'a') + "'''\nassert len(big) == 50_000_000"));
  EXPECT_EQ(0, Run("print(big, end='')"));
  EXPECT_EQ(kSize, gOutput.size());
  EXPECT_EQ(kSize, static_cast<std::size_t>(std::count(gOutput.begin(), gOutput.end(), 'a')));
}

TEST_F(Python, OutputAppearsWhileTheBlockRuns) {
  std::array<int, 2> pipe{};
  ASSERT_EQ(0, ::pipe(pipe.data()));
  ASSERT_EQ(0, Start());
  // The block goes on only because its output has come.
  gOnOutput = [&] {
    if (gOutput == "ready") (void)!::write(pipe[1], "x", 1);
  };
  EXPECT_EQ(0, Run("import os\nprint('ready', end='')\nos.read(" + std::to_string(pipe[0]) + ", 1)\nprint('on')"));
  EXPECT_EQ("readyon\n", gOutput);
  for (const int end : pipe) ::close(end);
}

TEST_F(Python, WritesToTheDescriptorsWithoutAnOutputFunction) {
  constexpr std::size_t kSize = 300'000;
  std::array<int, 2> pipe{};
  ASSERT_EQ(0, ::pipe(pipe.data()));
  ASSERT_EQ(0, ::fcntl(pipe[1], F_SETFL, O_NONBLOCK));
  ASSERT_EQ(0, Start());
  // Reads more slowly than the block writes, so that the pipe is full most of the time.
  auto reading = std::async(std::launch::async, [&] {
    std::string text;
    for (char c = 0; ::read(pipe[0], &c, 1) == 1;) text += c;
    return text;
  });
  EXPECT_EQ(0, RunOn(pipe[1], "print('b' * 300_000, end='')"));
  ::close(pipe[1]);
  EXPECT_EQ(std::string(kSize, 'b'), reading.get());
  ::close(pipe[0]);

  // A reader that has gone is an exception, although the host leaves SIGPIPE as it was born.
  ::signal(SIGPIPE, SIG_DFL);
  ASSERT_EQ(0, ::pipe(pipe.data()));
  ::close(pipe[0]);
  EXPECT_EQ(32, RunOn(pipe[1], "try:\n    print('nobody')\nexcept BrokenPipeError:\n    raise SystemExit(32)"));
  ::close(pipe[1]);
  sigset_t pending;
  ::sigpending(&pending);
  EXPECT_EQ(0, sigismember(&pending, SIGPIPE));
}

TEST_F(Python, ShowsLinesOfEarlierBlocksAsLongAsTheyAreHeld) {
  ASSERT_EQ(0, Start());
  ASSERT_EQ(0, Run("def divide():\n    return 1 / 0"));
  ASSERT_EQ(1, Run("divide()"));
  EXPECT_TRUE(holdsInOrder(gOutput, {"    divide()\n", "in divide\n    return 1 / 0\n"})) << gOutput;
  for (int i = 0; i < 100; ++i) ASSERT_EQ(0, Run("pass"));
  ASSERT_EQ(1, Run("divide()"));
  EXPECT_EQ(std::string::npos, gOutput.find("return 1 / 0")) << gOutput;
  EXPECT_TRUE(holdsInOrder(gOutput, {"line 2, in divide\n", "ZeroDivisionError"})) << gOutput;
  // The running one is held however long it is, and no longer.
  const std::string length(200'000, '#');
  ASSERT_EQ(1, Run("def subtract():\n    1 - ''\nsubtract()\n" + length));
  EXPECT_TRUE(holdsInOrder(gOutput, {"    subtract()\n", "    1 - ''\n"})) << gOutput;
  ASSERT_EQ(1, Run("subtract()"));
  EXPECT_EQ(std::string::npos, gOutput.find("1 - ''")) << gOutput;
}

TEST_F(Python, BlocksLeaveNothingBehind) {
  ASSERT_EQ(0, Start());
  const auto runMany = [&] {
    for (int i = 0; i < 5000; ++i) {
      ASSERT_EQ(0, Run("value = " + std::to_string(i)));
      ASSERT_EQ(i % 20 == 0, Run("if value % 20 == 0: raise ValueError(value)"));
    }
    ASSERT_EQ(0, Run("import gc, sys\nsys.last_traceback = sys.last_value = sys.last_exc = None\ngc.collect()"));
  };
  runMany();
  ASSERT_EQ(0, Run("before = sys.getallocatedblocks()"));
  runMany();
  EXPECT_EQ(0, Run("assert sys.getallocatedblocks() < before + 500, sys.getallocatedblocks() - before")) << gOutput;
}

TEST_F(Python, InterruptsRaiseKeyboardInterrupt) {
  const std::string endless = "print('ready')\nsum(1 for i in iter(int, 1))";
  const std::string asleep = "import time\nprint('ready')\ntime.sleep(1000)";
  const auto call = [](pthread_t /*runner*/) { gInterrupt(); };
  const auto signal = [](pthread_t runner) { ::pthread_kill(runner, SIGINT); };
  ASSERT_EQ(0, Start());
  EXPECT_EQ(0, onAnotherThread([&] {
              return Run("import threading\nassert threading.current_thread() is not threading.main_thread()");
            }));
  const struct {
    const char* name;
    std::function<int()> run;
  } cases[] = {
      {"endless generator", [&] { return RunAndInterrupt(endless, call); }},
      {"endless generator on another thread",
       [&] { return onAnotherThread([&] { return RunAndInterrupt(endless, call); }); }},
      // A sleep ends only when a signal wakes it, which the host's handler turns into an interrupt.
      {"sleep", [&] { return RunAndInterrupt(asleep, signal); }},
  };
  for (const auto& c : cases) {
    EXPECT_EQ(1, c.run()) << c.name;
    EXPECT_NE(std::string::npos, gOutput.find("KeyboardInterrupt")) << c.name << '\n' << gOutput;
    EXPECT_EQ(0, Run("kept = 1")) << c.name << '\n' << gOutput;
  }
}

TEST_F(Python, InterruptsDoNotHitTheNextBlock) {
  ASSERT_EQ(0, Start());
  gInterrupt();
  EXPECT_EQ(0, Run("for i in range(1000): pass"));
  const auto count = [&] {
    return CountBlocksHitTooLate("for turn in range(500): pass",
                                 "import time\nend = time.monotonic() + 0.01\nwhile time.monotonic() < end: pass");
  };
  EXPECT_EQ(0, count());
  EXPECT_EQ(0, onAnotherThread(count));
}

TEST_F(Python, IgnoresCallbackTablesOfOtherHosts) {
  vexadx::HostCallback other = hostCallback();
  other.tag[7] = '?';
  gInterrupt = nullptr;
  m_engine->setup_dxcallback(&other);
  m_engine->setup_dxcallback(nullptr);
  EXPECT_EQ(nullptr, gInterrupt);
  m_engine->setup_dxcallback(&m_callback);
  EXPECT_NE(nullptr, gInterrupt);
}

TEST_F(Python, StartsRunsAndStopsOnDifferentThreads) {
  m_engine->setIntialized(true);  // whatever the host believes, nothing runs before the start
  EXPECT_EQ(1, Run("pass"));
  m_engine->setIntialized(false);

  ASSERT_EQ(0, onAnotherThread([&] { return Start(); }));
  ASSERT_EQ(0, m_engine->stop_embedded_x());
#ifdef __linux__
  const std::size_t threads = entriesOf("/proc/self/task");
  const std::size_t descriptors = entriesOf("/proc/self/fd");
#endif
  for (int round = 0; round < 3; ++round) {
    ASSERT_EQ(0, onAnotherThread([&] { return Start(); }));
    EXPECT_EQ(0, Run("here = globals().get('here', 0) + 1\nprint(here)"));
    EXPECT_EQ(std::to_string(2 * round + 1) + "\n", gOutput);
    EXPECT_EQ(0, onAnotherThread([&] { return Run("here += 1\nimport sys\nsys.stdout = None"); }));
    EXPECT_EQ(0, onAnotherThread([&] { return m_engine->stop_embedded_x(); }));
    m_engine->setIntialized(true);
    EXPECT_EQ(1, Run("pass"));
    m_engine->setIntialized(false);
  }
#ifdef __linux__
  EXPECT_EQ(threads, entriesOf("/proc/self/task"));
  EXPECT_EQ(descriptors, entriesOf("/proc/self/fd"));
#endif
}

TEST_F(Python, AForkedChildEndsWithItsBlock) {
  const struct {
    const char* leaves;
    int code;
  } cases[] = {{"pass", 0}, {"sys.exit(3)", 3}, {"1/0", 1}, {"os._exit(4)", 4}};
  const pid_t host = ::getpid();
  ASSERT_EQ(0, Start());
  for (const auto& c : cases) {
    const int code =
        Run("import os, sys\nif child := os.fork():\n"
            "    sys.exit(os.waitstatus_to_exitcode(os.waitpid(child, 0)[1]))\nelse:\n    "s +
            c.leaves);
    if (::getpid() != host) ::_exit(99);
    EXPECT_EQ(c.code, code) << c.leaves;
  }
}

TEST_F(Python, LeavesTheHostsStateAlone) {
  ::setenv("LC_ALL", "C.UTF-8", 1);
  ::setenv("PYTHONFAULTHANDLER", "1", 1);
  std::array<struct sigaction, NSIG> before{};
  for (int signal = 1; signal < NSIG; ++signal) ::sigaction(signal, nullptr, &before[signal]);
  const std::string locale = std::setlocale(LC_ALL, nullptr);
  ASSERT_EQ(0, Start());
  ASSERT_EQ(0, Run("import asyncio, locale, signal"));
  for (int signal = 1; signal < NSIG; ++signal) {
    struct sigaction after {};
    ::sigaction(signal, nullptr, &after);
    EXPECT_EQ(before[signal].sa_handler, after.sa_handler) << signal;
    EXPECT_EQ(before[signal].sa_flags, after.sa_flags) << signal;
  }
  EXPECT_EQ(locale, std::setlocale(LC_ALL, nullptr));
  EXPECT_STREQ("C.UTF-8", std::getenv("LC_ALL"));
}

TEST_F(Python, AWrongHomeIsACodeAndTheRightOneIsUsedAndForgotten) {
  // The right one, as a Python in another process knows it.
  std::array<int, 2> pipe{};
  ASSERT_EQ(0, ::pipe(pipe.data()));
  const pid_t child = ::fork();
  if (child == 0) {
    const bool told = Start() == 0 && Run("import sys\nprint(sys.base_prefix, end='')") == 0 &&
                      ::write(pipe[1], gOutput.data(), gOutput.size()) > 0;
    ::_exit(told ? 0 : 1);
  }
  ::close(pipe[1]);  // a child that dies ends the read
  std::array<char, 4096> home{};
  ASSERT_LT(0, ::read(pipe[0], home.data(), home.size() - 1));
  ASSERT_EQ(child, ::waitpid(child, nullptr, 0));
  ::close(pipe[0]);

  for (const std::string& wrong : {"/no/such/home"s, m_home.Path().string()}) {
    gOutput.clear();
    ::setenv("PYTHONHOME", wrong.c_str(), 1);
    const Within limit(std::chrono::seconds(1));
    EXPECT_EQ(1, Start());
    EXPECT_NE(std::string::npos, gOutput.find(wrong)) << gOutput;
  }
  for (int round = 0; round < 2; ++round) {
    ::setenv("PYTHONHOME", home.data(), 1);
    ASSERT_EQ(0, Start()) << gOutput;
    EXPECT_EQ(nullptr, std::getenv("PYTHONHOME"));
    EXPECT_EQ(0, Run("import os, subprocess, sys\n"
                     "assert 'PYTHONHOME' not in os.environ\n"
                     "assert sys.base_prefix == '"s +
                     home.data() +
                     "'\n"
                     "told = subprocess.run([sys.executable, '-c', 'import json, sys; print(sys.version)'],\n"
                     "                      capture_output=True, text=True, check=True).stdout\n"
                     "assert told.strip() == sys.version.strip(), told"))
        << gOutput;
    ASSERT_EQ(0, m_engine->stop_embedded_x());
  }
}
