// What an engine in a process of its own costs, each figure beside the limit it is held against: a run beside four bare
// exchanges, a large block beside the language compiling it, the start beside its prescribed wait, and the memory of
// the idle process beside an embedded language that does nothing.

#include <benchmark/benchmark.h>
#include <signal.h>
#include <sys/stat.h>

#include <chrono>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "bareexchange.h"
#include "dxglobals.h"
#include "languages.h"
#include "outpstatisticsx.h"
#include "placement.h"
#include "ratio.h"
#include "vexadx_process.h"
#include "vexadxconfigreader.h"
#include "xmanager.h"
#include "xpipemanager.h"

namespace {

constexpr double kPrescribedStartNs = 500e6;
constexpr int kNothing = -1;  // in place of a language's number

// A home with an engine of the plug-in that does nothing and one of each language under a name that has no
// preferences to be asked for.
class Home {
 public:
  Home() {
    namespace fs = std::filesystem;
    fs::create_directory(m_directory.Path("bin"));
    fs::create_symlink(VEXADX_STAGED_HOME "/bin/startx", m_directory.Path("bin/startx"));
    std::ofstream configuration(m_directory.Path("bin/vexadxcfg.ini"));
    configuration << "[nothing]\nLIB_NAME=benchplugin\nLIB_PATH=" BENCH_PROGRAMS "/lib\n";
    for (const Language* language : kLanguages) {
      configuration << "[" << language->name << "]\nLIB_NAME=" << language->library
                    << "\nLIB_PATH=" VEXADX_STAGED_HOME "/lib\nARGS=" << language->arguments << "\n";
    }
    configuration.close();
    SetVEXAHOME(m_directory.Path("").c_str());
  }
  ~Home() { std::filesystem::remove_all(m_directory.Path("bin")); }
  Home(const Home&) = delete;
  Home& operator=(const Home&) = delete;

 private:
  const Directory m_directory;
};

// One engine, started, and a driver of it.
class Engine {
 public:
  explicit Engine(const char* xName) : m_pipes(m_directory.Path("/"), "1") {
    SetXPipeManager(&m_pipes);
    XConfigOptions* const options = VexaDXConfigReader::GetInstance()->GetOptions(xName);
    m_engine = new OutpStatisticsX(options, 1, true);
    m_registry.addStatisticsX(xName, m_engine);
    m_driver = new DriveX(xName, m_engine, options);
    m_registry.addVexaDX(m_driver);
    stopUnless(m_driver->initializeX() == 0, "the engine did not start");
  }
  ~Engine() {
    const int process = Process();
    m_registry.cleanup();
    while (process > 0 && ::kill(process, 0) == 0) ::usleep(1000);
    m_pipes.cleanup();
    SetXPipeManager(nullptr);
  }
  Engine(const Engine&) = delete;
  Engine& operator=(const Engine&) = delete;

  void Run(const std::string& block) {
    m_lines = {block};
    m_driver->setSyntax(m_lines);
    stopUnless(m_driver->runX() == 0, "the block did not succeed");
  }
  int Process() { return vexadx::ProcessOf(*m_engine).id; }

 private:
  const Directory m_directory;
  XPipeManager m_pipes;
  XManager m_registry;
  OutpStatisticsX* m_engine;  // the registry's, like the driver
  DriveX* m_driver;
  std::vector<std::string> m_lines;
};

// Start, block, end: four times a message each way, of the sizes of a command and its reply.
void Run(benchmark::State& state) {
  const bool isOfLanguage = state.range(0) != kNothing;
  const char* const xName = isOfLanguage ? languageOf(state).name : "nothing";
  const char* const block = isOfLanguage ? languageOf(state).block : "";
  constexpr std::size_t kCommand = 60;
  constexpr std::size_t kReply = 52;
  const auto processors = static_cast<int>(state.range(1));
  const Home home;
  const Directory directory;
  const std::string there = directory.Path("there");
  const std::string back = directory.Path("back");
  stopUnless(::mkfifo(there.c_str(), 0600) == 0 && ::mkfifo(back.c_str(), 0600) == 0, "cannot make FIFOs");
  {
    const Child bareChild([&] {
      const Placement elsewhere(processors - 1, 1);
      const int in = opened(there, O_RDONLY);
      BareEnd(opened(back, O_WRONLY), in, kCommand, kReply).Answer();
    });
    const auto started = [&] {
      const Placement elsewhere(processors - 1, 1);
      return std::make_unique<Engine>(xName);
    };
    const std::unique_ptr<Engine> engine = started();
    const Placement here(0, 1);
    const int out = opened(there, O_WRONLY);
    BareEnd bare(out, opened(back, O_RDONLY), kCommand, kReply);
    const Pair pair = measure(
        state, [&] { engine->Run(block); },
        [&] {
          for (int i = 0; i < 4; ++i) bare.Exchange();
        });
    state.counters["ratio"] = pair.Ratio();
  }
  for (const std::string& fifo : {there, back}) ::unlink(fifo.c_str());
}
// At most 1.3; with a language at most 60 microseconds on one processor where the bare four take 25.
BENCHMARK(Run)
    ->ArgNames({"language", "processors"})
    ->ArgsProduct({benchmark::CreateDenseRange(kNothing, kLastLanguage, 1),
                   benchmark::CreateDenseRange(kFewestProcessors, 2, 1)})
    ->UseManualTime()
    ->Iterations(40);

// From the start of the engine to the first result, beyond the wait that every start has. At most 60 ms.
void StartToFirstResult(benchmark::State& state) {
  const Language& language = languageOf(state);
  const Home home;
  for ([[maybe_unused]] auto _ : state) {
    const auto begin = std::chrono::steady_clock::now();
    Engine engine(language.name);
    engine.Run(language.block);
    const std::chrono::duration<double> taken = std::chrono::steady_clock::now() - begin;
    state.SetIterationTime(taken.count());
    state.counters["beyond_ms"] = (taken.count() * 1e9 - kPrescribedStartNs) / 1e6;
  }
}
BENCHMARK(StartToFirstResult)->Apply(eachLanguage)->Iterations(1)->Repetitions(5);

double residentMiB(int process) {
  std::ifstream status("/proc/" + std::to_string(process) + "/status");
  for (std::string line; std::getline(status, line);) {
    if (line.starts_with("VmRSS:")) return std::stod(line.substr(6)) / 1024;
  }
  stopUnless(false, "no figure of the memory");
  return 0;
}

// At most 3 MiB more.
void IdleMemory(benchmark::State& state) {
  const Language& language = languageOf(state);
  const Home home;
  const std::string program = std::string(BENCH_PROGRAMS "/idle_") + language.name;
  int ready[2];
  stopUnless(::pipe(ready) == 0, "no pipe");
  const pid_t bare = ::fork();
  if (bare == 0) {
    ::dup2(ready[1], STDOUT_FILENO);
    ::execl(program.c_str(), program.c_str(), nullptr);
    ::_exit(1);
  }
  char byte;
  stopUnless(::read(ready[0], &byte, 1) == 1, "no bare language");
  for ([[maybe_unused]] auto _ : state) {
    Engine engine(language.name);
    state.SetIterationTime(1);
    state.counters["idle_mib"] = residentMiB(engine.Process());
    state.counters["bare_mib"] = residentMiB(bare);
    state.counters["more_mib"] = residentMiB(engine.Process()) - residentMiB(bare);
  }
  ::kill(bare, SIGKILL);
  ::waitpid(bare, nullptr, 0);
  for (const int end : ready) ::close(end);
}
BENCHMARK(IdleMemory)->Apply(eachLanguage)->Iterations(1);

// A million bytes of text, beside the language compiling them in this process. At most 1.5. The last one, as the
// languages make this process large, which takes a fork longer.
void LargeBlock(benchmark::State& state) {
  const Language& language = languageOf(state);
  std::string text;
  for (int line = 0; text.size() < 1'000'000; ++line) text += "v" + std::to_string(line % 1000) + " = 1.5\n";
  const Home home;
  Engine engine(language.name);
  language.start();
  const Pair pair = measure(
      state, [&] { engine.Run(text); }, [&] { language.compile(text.c_str()); }, 1);
  state.counters["ratio"] = pair.Ratio();
}
BENCHMARK(LargeBlock)->Apply(eachLanguage)->Iterations(15);

}  // namespace

BENCHMARK_MAIN();
