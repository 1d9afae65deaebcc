// What a plug-in does to the process that it lives in.

#include "inprocess.h"

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cfloat>
#include <chrono>
#include <clocale>
#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <functional>
#include <future>
#include <map>
#include <sstream>
#include <string>
#include <vector>

#include "outofprocess.h"
#include "processstate.h"
#include "vexadx.h"
#include "vexadx_hoststate.h"
#include "vexadx_plugin.h"

namespace {

using vexadx::HostStateGuarding;

// As the names come.
const struct {
  const char* deed;
  const char* name;
  bool isArithmetic = false;
} kChanges[] = {
    {"SIGINT", "SIGINT"},
    {"SIGPIPE", "SIGPIPE"},
    {"SIGCHLD", "SIGCHLD"},
    {"mask", "signal mask"},
    {"rounding", "rounding mode", true},
    {"flush-to-zero", "flush-to-zero", true},
    {"locale", "locale"},
    {"directory", "working directory"},
    {"umask", "umask"},
    {"close", "standard output"},
    {"redirect", "standard error"},
};

std::string hostState() {
  std::ostringstream state;
  volatile double tiny = DBL_MIN;
  tiny = tiny / 2;
  state << ProcessState() << ", " << (tiny == 0 ? "flushed" : "not flushed");
  for (const int signal : {SIGINT, SIGCHLD}) {
    struct sigaction action {};
    ::sigaction(signal, nullptr, &action);
    state << ", " << reinterpret_cast<void*>(action.sa_handler);
  }
  for (const int stream : {STDOUT_FILENO, STDERR_FILENO}) {
    struct stat file {};
    ::fstat(stream, &file);
    state << ", file " << file.st_dev << ' ' << file.st_ino;
  }
  return state.str();
}

// Puts back by hand what a plug-in may keep.
class HostsOwn {
 public:
  ~HostsOwn() {
    for (const int signal : {SIGINT, SIGPIPE, SIGCHLD}) (void)::signal(signal, SIG_DFL);
    ::pthread_sigmask(SIG_SETMASK, &m_mask, nullptr);
    std::setlocale(LC_ALL, "C");
    std::filesystem::current_path(m_directory);
    ::umask(m_umask);
    for (const auto& [stream, kept] : m_streams) {
      ::dup2(kept, stream);
      ::close(kept);
    }
  }

 private:
  const std::filesystem::path m_directory = std::filesystem::current_path();
  const mode_t m_umask = [] {
    const mode_t mask = ::umask(0);
    ::umask(mask);
    return mask;
  }();
  const sigset_t m_mask = [] {
    sigset_t mask;
    ::pthread_sigmask(SIG_SETMASK, nullptr, &mask);
    return mask;
  }();
  const std::map<int, int> m_streams{{STDOUT_FILENO, ::dup(STDOUT_FILENO)}, {STDERR_FILENO, ::dup(STDERR_FILENO)}};
};

std::atomic<int> gOutputs{0};
int takeOutput(const char* /*text*/, int /*length*/) {
  ++gOutputs;
  gOutputs.notify_all();
  return 0;
}

int run(InpStatisticsX& engine, std::string block) { return engine.execute_x(block.data()); }

// Has each of a plug-in's entry points called as a host does; the codes of those that have one.
std::vector<int> callAll(InpStatisticsX& engine, const char* block) {
  engine.setup_dxcallback(nullptr);
  engine.set_post_vexa_output(&takeOutput);
  std::vector<int> codes{engine.init_embedded_x(0, nullptr)};
  engine.setIntialized(true);
  codes.push_back(engine.pre_action());
  codes.push_back(run(engine, block));
  codes.push_back(engine.post_action());
  codes.push_back(engine.stop_embedded_x());
  return codes;
}

void haveAllDo(const std::string& deeds) {
  for (const auto& entryPoint : vexadx::kPluginEntryPoints) {
    ::setenv((std::string("FAULT_") + entryPoint.name).c_str(), deeds.c_str(), 1);
  }
}

}  // namespace

TEST_F(InProcess, LetsNoExceptionOfThePluginOut) {
  const auto engine = Engine("fault_plugin");
  for (const char* thrown : {"throw", "throw-number"}) {
    haveAllDo(thrown);
    EXPECT_EQ(std::vector<int>(5, 1), callAll(*engine, thrown));
  }
  const std::vector<std::string> traced = Traced();
  for (const auto& entryPoint : vexadx::kPluginEntryPoints) {
    const std::string line = std::string("The plug-in's ") + entryPoint.name + " threw an exception.";
    EXPECT_EQ(2, std::count(traced.begin(), traced.end(), line)) << line;
  }
}

TEST_F(InProcess, StartsAndStopsLeaveTheHostsStateAlone) {
  std::string deeds;
  std::vector<std::string> names;
  std::string line = "HostStateGuard put back what init_embedded_x changed: ";
  for (const auto& change : kChanges) {
    line += (names.empty() ? "" : ", ") + std::string(change.name);
    deeds += change.deed + std::string(" ");
    names.emplace_back(change.name);
  }
  const auto butForDescriptors = [](const std::string& state) { return state.substr(state.find(',')); };
  const std::string beforeLoad = hostState();
  ::setenv("FAULT_load", deeds.c_str(), 1);
  const auto engine = Engine("fault_plugin");
  const std::string before = hostState();
  EXPECT_EQ(butForDescriptors(beforeLoad), butForDescriptors(before));
  EXPECT_EQ(names, vexadx::HostStateChanges(*engine)) << "load";
  const struct {
    const char* entryPoint;
    std::function<void()> call;
  } kCalls[] = {
      {"setup_dxcallback", [&] { engine->setup_dxcallback(nullptr); }},
      {"set_post_vexa_output", [&] { engine->set_post_vexa_output(nullptr); }},
      {"init_embedded_x", [&] { (void)engine->init_embedded_x(0, nullptr); }},
      {"stop_embedded_x", [&] { (void)engine->stop_embedded_x(); }},
  };
  haveAllDo(deeds);
  for (const auto& call : kCalls) {
    call.call();
    EXPECT_EQ(before, hostState()) << call.entryPoint;
    EXPECT_EQ(names, vexadx::HostStateChanges(*engine)) << call.entryPoint;
  }
#ifdef __GLIBC__
  const std::vector<std::string> traced = Traced();
  EXPECT_EQ(1, std::count(traced.begin(), traced.end(), line)) << line;
#endif
}

// A block may mean what it changes, unless the host says that it may not.
TEST_F(InProcess, BlocksKeepWhatTheHostLeavesToThem) {
  const auto engine = Engine("fault_plugin");
  ASSERT_EQ(0, engine->init_embedded_x(0, nullptr));
  for (const auto guarding :
       {HostStateGuarding::kArithmetic, HostStateGuarding::kReport, HostStateGuarding::kRestore}) {
    vexadx::GuardHostState(*engine, guarding);
    for (const auto& change : kChanges) {
      const std::string text = std::string(change.name) + ' ' + std::to_string(static_cast<int>(guarding));
      const HostsOwn hostsOwn;
      const std::string before = hostState();
      EXPECT_EQ(7, run(*engine, change.deed + std::string(" 7"))) << text;
      EXPECT_EQ(change.isArithmetic || guarding == HostStateGuarding::kRestore, before == hostState()) << text;
      const bool isFound = change.isArithmetic || guarding != HostStateGuarding::kArithmetic;
      const std::vector<std::string> names{change.name};
      EXPECT_EQ(isFound ? names : std::vector<std::string>(), vexadx::HostStateChanges(*engine)) << text;
    }
  }
}

TEST_F(InProcess, CannotBeSavedFromAPluginThatEndsTheProcess) {
  const auto engine = Engine("fault_plugin");
  ASSERT_EQ(0, engine->init_embedded_x(0, nullptr));
  for (const std::string deed : {"exit", "abort", "null"}) {
    EXPECT_EXIT((void)run(*engine, deed), [](int status) { return status != 0; }, "") << deed;
  }
}

TEST_F(OutOfProcess, APluginThatEndsItsProcessIsACode) {
  m_home.Configure("[FAULTY]\nLIB_NAME=fault_plugin\n");
  OutpX& x = Add("FAULTY");
  for (const std::string deed : {"exit", "abort", "null"}) {
    ASSERT_EQ(0, x.Start());
    ASSERT_EQ(0, x.Begin());
    const auto begin = std::chrono::steady_clock::now();
    EXPECT_EQ(99103, x.Execute(deed)) << deed;
#ifndef VEXADX_SANITIZED
    EXPECT_LT(std::chrono::steady_clock::now() - begin, std::chrono::seconds(1)) << deed;
#else
    (void)begin;  // the report of the crash takes long
#endif
    EXPECT_TRUE(x.Dies()) << deed;
    (void)x.Stop();  // an engine that has no process any more may say so
  }
  ASSERT_EQ(0, x.Start());
  EXPECT_EQ(7, x.Run("7"));
  EXPECT_EQ(0, x.Stop());
}

TEST_F(InProcess, OutputComesFromAnyThreadAndAfterTheStop) {
  const auto engine = Engine("fault_plugin");
  EXPECT_EQ((std::vector<int>(5, 0)), callAll(*engine, "output-null output-negative output-elsewhere"));
  EXPECT_EQ(3, gOutputs);
  EXPECT_EQ((std::vector<int>(5, 0)), callAll(*engine, "output-for-ever"));
  gOutputs.wait(gOutputs);
  engine->set_post_vexa_output(nullptr);
}

TEST(Vexadx, TakesOddOutputOfAPlugin) {
  const TempHome home;
  home.Configure("[SUPPORTED_LANG]\nX=FAULTY\n[FAULTY]\nLIB_NAME=fault_plugin\n");
  const Outcome outcome = RunVexadx({"run", "FAULTY", "--in-process", "--json", "-e",
                                     "output-null output-negative output-elsewhere", "-e", "output-for-ever"});
  EXPECT_EQ(0, outcome.status) << outcome.err;
  const std::vector<std::string> lines = Lines(outcome.out);
  ASSERT_FALSE(lines.empty());
  for (const std::string& line : lines) EXPECT_TRUE(line.starts_with("{\"type\":") && line.ends_with('}')) << line;
  EXPECT_EQ("{\"type\":\"end\",\"status\":0}", lines.back());
  ExpectWords(outcome.out, {"elsewhere"});
}

TEST_F(InProcess, EachThreadMayStartRunAndStopIt) {
  const auto engine = Engine("fault_plugin");
  const auto elsewhere = [](auto function) { return std::async(std::launch::async, function).get(); };
  EXPECT_EQ(0, elsewhere([&] { return engine->init_embedded_x(0, nullptr); }));
  EXPECT_EQ(7, elsewhere([&] { return run(*engine, "7"); }));
  EXPECT_EQ(0, elsewhere([&] { return engine->stop_embedded_x(); }));
}
