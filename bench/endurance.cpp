// What a host goes through in weeks, in minutes: engines killed at any moment, started and stopped, run again and
// again. Writes a table: what was done, what is asked, what was measured, and whether it holds. Ends with 1 when
// something did not hold.

#include <malloc.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <chrono>
#include <cstdio>
#include <exception>
#include <filesystem>
#include <fstream>
#include <functional>
#include <future>
#include <iterator>
#include <limits>
#include <list>
#include <memory>
#include <mutex>
#include <optional>
#include <random>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "clexdsmb.h"
#include "dxglobals.h"
#include "inpstatisticsx.h"
#include "javaextensionsmb.h"
#include "javapluginsocket.h"
#include "outpstatisticsx.h"
#include "stopunless.h"
#include "vexadx_process.h"
#include "vexadxconfigreader.h"
#include "xpipemanager.h"

namespace {

namespace fs = std::filesystem;
using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;
using Times = std::vector<double>;  // in milliseconds

constexpr long kKiB = 1024;
constexpr long kLeakAllowed = 256 * kKiB;
constexpr int kLanes = 8;  // engines that are started side by side, as a start mostly waits
constexpr int kClosed = 99103;
constexpr int kFailed = 99104;

// How often each thing is done.
struct Scale {
  int kills;
  int javaKills;
  int deaths;
  int starts;
  int runs;
  int insideRuns;
  int javaRuns;
  int nestings;
  int pairs;
  bool looksAtTime;  // of each run, which other work of the machine prolongs
};

constexpr Scale kEachChange{200, 10, 500, 50, 20'000, 1'000'000, 20, 20, 1'000, false};
constexpr Scale kRelease{2'000, 200, 500, 1'000, 1'000'000, 10'000'000, 600, 500, 50'000, true};

// A row of the table.
struct Figure {
  std::string what;
  std::string asked;
  std::string measured;
  bool holds;
};

double milliseconds(Clock::duration time) { return std::chrono::duration<double, std::milli>(time).count(); }

std::string number(double value, int decimals) {
  char text[32];
  (void)std::snprintf(text, sizeof text, "%.*f", decimals, value);
  return text;
}

// The share of the times, 0 to 1, that is not longer than the answer. Of no times at all it is none that is asked for.
double quantile(Times& times, double share) {
  if (times.empty()) return std::numeric_limits<double>::infinity();
  std::sort(times.begin(), times.end());
  return times[std::min(times.size() - 1, static_cast<std::size_t>(share * static_cast<double>(times.size())))];
}

std::size_t entries(const fs::path& directory) {
  std::error_code none;
  const fs::directory_iterator found(directory, none);
  return none ? 0 : static_cast<std::size_t>(std::distance(begin(found), end(found)));
}

long resident(pid_t process) {
  if (process == ::getpid()) (void)::malloc_trim(0);
  long pages = 0;
  long bytes = 0;
  std::ifstream("/proc/" + std::to_string(process) + "/statm") >> pages >> bytes;
  return bytes * ::sysconf(_SC_PAGESIZE);
}

// What a process holds that it could leak.
struct Held {
  explicit Held(pid_t ofProcess)
      : process(ofProcess),
        descriptors(entries("/proc/" + std::to_string(process) + "/fd")),
        threads(entries("/proc/" + std::to_string(process) + "/task")),
        memory(resident(process)) {}

  // What has come since; memory counts from so many bytes on.
  bool Grew(std::string& measured, long allowed) const {
    const Held now(process);
    const long more = now.memory - memory;
    measured += "descriptors " + std::to_string(descriptors) + " to " + std::to_string(now.descriptors) + ", threads " +
                std::to_string(threads) + " to " + std::to_string(now.threads) + ", memory " + (more < 0 ? "" : "+") +
                std::to_string(more / kKiB) + " KiB";
    return now.descriptors > descriptors || now.threads > threads || more > allowed;
  }

  pid_t process;
  std::size_t descriptors;
  std::size_t threads;
  long memory;
};

class Directory {
 public:
  Directory() { stopUnless(::mkdtemp(m_path.data()) != nullptr, "no directory"); }
  ~Directory() {
    std::error_code ignored;
    fs::remove_all(m_path, ignored);
  }
  Directory(const Directory&) = delete;
  Directory& operator=(const Directory&) = delete;
  std::string Path(const std::string& name) const { return m_path + '/' + name; }

 private:
  std::string m_path = "/tmp/vexadx-endurance-XXXXXX";
};

// An X and a block of its language.
struct Kind {
  const char* name;
  const char* library;
  const char* idle;
  const char* waiting;  // a block that does not end by itself
};

constexpr Kind kPlain{"a plug-in that does nothing", "benchplugin", "", "wait"};
constexpr Kind kPython{"Python", "vexapython", "x = 1", "import time\ntime.sleep(60)"};
#ifdef BENCH_R
constexpr Kind kR{"R", "vexar", "x <- 1", "Sys.sleep(60)"};
constexpr Kind kKinds[] = {kPlain, kPython, kR};
#else
constexpr Kind kKinds[] = {kPlain, kPython};
#endif

const Kind& kindOf(int lane) { return kKinds[static_cast<std::size_t>(lane) % std::size(kKinds)]; }

std::string kindNames() {
  std::string names;
  for (const Kind& kind : kKinds) names += (names.empty() ? "" : ", ") + std::string(kind.name);
  return names;
}

std::string laneName(int lane) { return "LANE" + std::to_string(lane); }

// A home and the directory of its pipes. Lanes take turns with the languages; PYTHON is one that can nest.
class Home {
 public:
  Home() {
    for (const char* file : {"startx", "vexajavaplugin.jar"}) {
      fs::create_directories(m_directory.Path("bin"));
      fs::create_symlink(std::string(VEXADX_STAGED_HOME "/bin/") + file, m_directory.Path(std::string("bin/") + file));
    }
    fs::create_directory_symlink(VEXADX_STAGED_HOME "/JRE", m_directory.Path("JRE"));
    fs::create_directory(m_directory.Path("pipes"));
    fs::create_directory(m_directory.Path("lib"));
    fs::create_symlink(BENCH_PROGRAMS "/lib/libbenchplugin.dylib", m_directory.Path("lib/libbenchplugin.dylib"));
    for (const fs::directory_entry& library : fs::directory_iterator(VEXADX_STAGED_HOME "/lib")) {
      fs::create_symlink(library.path(), m_directory.Path("lib/" + library.path().filename().string()));
    }
    std::ofstream configuration(m_directory.Path("bin/vexadxcfg.ini"));
    const auto section = [&configuration](const std::string& name, const Kind& kind) {
      configuration << '[' << name << "]\nLIB_NAME=" << kind.library << '\n';
    };
    for (int lane = 0; lane < kLanes; ++lane) section(laneName(lane), kindOf(lane));
    section("PLAIN", kPlain);
    section("PYTHON", kPython);
    configuration.close();
    SetVEXAHOME(m_directory.Path("").c_str());
    m_pipes.emplace(Pipes() + '/', "1");
    SetXPipeManager(&*m_pipes);
  }
  ~Home() { SetXPipeManager(nullptr); }
  Home(const Home&) = delete;
  Home& operator=(const Home&) = delete;

  std::string Pipes() const { return m_directory.Path("pipes"); }
  std::string Path(const std::string& name) const { return m_directory.Path(name); }

 private:
  const Directory m_directory;
  std::optional<XPipeManager> m_pipes;
};

// One engine in a process of its own, used by one thread at a time.
class Engine {
 public:
  explicit Engine(const std::string& xName) : m_options(*VexaDXConfigReader::GetInstance()->GetOptions(xName)) {
    Suit().increaseIndex();
  }
  ~Engine() {
    (void)Stop();
    AwaitEnd();
    Suit().decreaseIndex();
  }
  Engine(const Engine&) = delete;
  Engine& operator=(const Engine&) = delete;

  int Start() { return m_engine.init_embedded_x(0, nullptr); }
  int Begin() { return m_engine.pre_action(); }
  int Execute(std::string block) { return m_engine.execute_x(block.data()); }
  int End() { return m_engine.post_action(); }
  int Stop() { return m_engine.stop_embedded_x(); }

  // The first code that is not 0.
  int Run(const std::string& block) {
    int code = Begin();
    if (code == 0) code = Execute(block);
    return code == 0 ? End() : code;
  }

  pid_t Process() { return vexadx::ProcessOf(m_engine).id; }
  void AwaitEnd() {
    while (Process() != -1 && !vexadx::ProcessOf(m_engine).hasEnded) std::this_thread::sleep_for(1ms);
  }
  XPipeSuit& Suit() const { return *GetXPipeManager()->getPipeSuit(m_options.XName()); }

 private:
  XConfigOptions& m_options;
  OutpStatisticsX m_engine{&m_options, 1, true};
};

// Calls the function so often in all, on as many threads as there are lanes, each with the engine of its lane.
void inLanes(int times, const std::function<void(Engine&, int lane, int round)>& round) {
  std::list<Engine> engines;
  for (int lane = 0; lane < kLanes; ++lane) engines.emplace_back(laneName(lane));  // the registry changes here only
  std::vector<std::future<void>> lanes;
  for (Engine& engine : engines) {
    const int lane = static_cast<int>(lanes.size());
    lanes.push_back(std::async(std::launch::async, [&round, &engine, lane, times] {
      for (int i = lane; i < times; i += kLanes) round(engine, lane, i);
    }));
  }
  for (std::future<void>& lane : lanes) lane.get();
}

// Kills a process some time after it is called, from another thread, and answers when.
std::future<Clock::time_point> kill(pid_t process, std::chrono::microseconds after) {
  return std::async(std::launch::async, [process, after] {
    std::this_thread::sleep_for(after);
    const Clock::time_point now = Clock::now();
    stopUnless(process > 0 && ::kill(process, SIGKILL) == 0, "the process is not there to be killed");
    return now;
  });
}

std::string told(Times& times) {
  return "told after " + number(quantile(times, 0.5), 1) + " ms (half), " + number(quantile(times, 0.99), 1) +
         " ms (99 %), " + number(quantile(times, 1), 1) + " ms (all)";
}

// At random moments of runs. Whatever became of the process, the same engine then starts and runs a block.
Figure killed(const Scale& scale, unsigned seed) {
  std::mutex guard;
  Times times;
  int wrong = 0;
  inLanes(scale.kills, [&](Engine& engine, int lane, int round) {
    const Kind& kind = kindOf(lane);
    std::mt19937 random(seed + static_cast<unsigned>(round));
    const auto upTo = [&random](int most) { return std::uniform_int_distribution(0, most)(random); };
    int code = engine.Start();
    if (code == 0) code = engine.Run(kind.idle);
    const bool isHealthy = code == 0;
    auto killing = kill(engine.Process(), std::chrono::microseconds(upTo(20'000)));
    while (code == 0) {
      code = engine.Run(kind.idle + std::string(static_cast<std::size_t>(upTo(round % 4 < 2 ? 200'000 : 10)), ' '));
    }
    const double time = milliseconds(Clock::now() - killing.get());
    (void)engine.Stop();
    engine.AwaitEnd();
    const std::lock_guard lock(guard);
    times.push_back(time);
    if (!isHealthy || (code != kClosed && code != kFailed)) ++wrong;
  });
  return {"kill -9 at a random moment, " + std::to_string(scale.kills) + " times (" + kindNames() + "), seed " +
              std::to_string(seed),
          "99103 or 99104 within 1 s; the next start runs a block", std::to_string(wrong) + " wrong; " + told(times),
          wrong == 0 && quantile(times, 1) <= 1000};
}

// While a block waits.
Figure deathTold(const Scale& scale) {
  std::mutex guard;
  Times times;
  int wrong = 0;
  inLanes(scale.deaths, [&](Engine& engine, int lane, int) {
    int code = engine.Start();
    if (code == 0) code = engine.Begin();
    auto killing = kill(engine.Process(), 10ms);
    if (code == 0) code = engine.Execute(kindOf(lane).waiting);
    const double time = milliseconds(Clock::now() - killing.get());
    (void)engine.Stop();
    engine.AwaitEnd();
    const std::lock_guard lock(guard);
    times.push_back(time);
    if (code != kClosed) ++wrong;
  });
  return {"kill -9 while a block runs, " + std::to_string(scale.deaths) + " times",
          "99103; 99 % within 100 ms, all within 1 s", std::to_string(wrong) + " wrong; " + told(times),
          wrong == 0 && quantile(times, 0.99) <= 100 && quantile(times, 1) <= 1000};
}

Figure startedAndStopped(const Scale& scale, const Home& home) {
  Engine engine("PLAIN");
  constexpr int kSettled = 10;
  std::optional<Held> before;
  std::size_t pipesBefore = 0;
  for (int i = 0; i < scale.starts; ++i) {
    if (i == kSettled) {
      before.emplace(::getpid());
      pipesBefore = entries(home.Pipes());
    }
    stopUnless(engine.Start() == 0 && engine.Run("") == 0 && engine.Stop() == 0, "a start, run or stop failed");
    engine.AwaitEnd();
  }
  std::string measured;
  const bool grew = before->Grew(measured, kLeakAllowed);
  const std::size_t pipes = entries(home.Pipes());
  return {"starts and stops in a process of its own, " + std::to_string(scale.starts) + " times",
          "descriptors, threads and pipes flat, memory within 256 KiB",
          measured + ", pipes " + std::to_string(pipesBefore) + " to " + std::to_string(pipes),
          !grew && pipes <= pipesBefore};
}

// The host's side and the engine's.
Figure runs(const Scale& scale) {
  Engine engine("PLAIN");
  stopUnless(engine.Start() == 0, "the engine did not start");
  constexpr int kSettled = 1'000;
  std::optional<Held> host;
  std::optional<Held> process;
  Times times;
  times.reserve(static_cast<std::size_t>(scale.runs));
  for (int i = 0; i < scale.runs + kSettled; ++i) {
    if (i == kSettled) {
      std::fill_n(std::back_inserter(times), scale.runs, 0);  // touched, so that they are no growth
      times.clear();
      host.emplace(::getpid());
      process.emplace(engine.Process());
    }
    const Clock::time_point begin = Clock::now();
    stopUnless(engine.Run("") == 0, "a run failed");
    if (i >= kSettled) times.push_back(milliseconds(Clock::now() - begin));
  }
  std::string measured = "half within " + number(quantile(times, 0.5), 3) + " ms, 99 % within " +
                         number(quantile(times, 0.99), 3) + " ms; host ";
  bool grew = host->Grew(measured, kKiB * kKiB);
  measured += "; engine ";
  grew |= process->Grew(measured, kKiB * kKiB);
  const bool isSlow = quantile(times, 0.5) > 1 || quantile(times, 0.99) > 5;
  return {"runs of an empty block out of process, " + std::to_string(scale.runs),
          (scale.looksAtTime ? "half within 1 ms, 99 % within 5 ms; " : "") +
              std::string("memory within 1 MiB after the first 1,000"),
          measured, !grew && !(isSlow && scale.looksAtTime)};
}

Figure insideRuns(const Scale& scale) {
  InpStatisticsX engine(VexaDXConfigReader::GetInstance()->GetOptions("PLAIN"), true);
  stopUnless(engine.init_embedded_x(0, nullptr) == 0, "the plug-in did not start");
  char block[] = "";
  const Held before(::getpid());
  const Clock::time_point begin = Clock::now();
  for (int i = 0; i < scale.insideRuns; ++i) {
    stopUnless(engine.pre_action() == 0 && engine.execute_x(block) == 0 && engine.post_action() == 0, "a run failed");
  }
  const double each = milliseconds(Clock::now() - begin) * 1e6 / scale.insideRuns;
  std::string measured = number(each, 0) + " ns each; ";
  const bool grew = before.Grew(measured, kLeakAllowed);
  (void)engine.stop_embedded_x();
  return {"runs in process of a plug-in that does nothing, " + std::to_string(scale.insideRuns),
          (scale.looksAtTime ? "at most 1 µs each; " : "") + std::string("nothing kept"), measured,
          !grew && !(each > 1000 && scale.looksAtTime)};
}

// Levels one after the other, a block in each, and back.
Figure nested(const Scale& scale, const Home& home) {
  constexpr int kDepth = 50;
  Engine engine("PYTHON");
  stopUnless(engine.Start() == 0 && engine.Run("count = 0") == 0, "the engine did not start");
  std::optional<Held> before;
  std::size_t pipesBefore = 0;
  for (int i = 0; i < scale.nestings; ++i) {
    for (int level = 0; level < kDepth; ++level) {
      if (level > 0) engine.Suit().increaseIndex();
      stopUnless(engine.Begin() == 0, "a nested run did not begin");
    }
    for (int level = kDepth; level-- > 0;) {
      stopUnless(engine.Execute("count += 1") == 0 && engine.End() == 0, "a nested run failed");
      if (level > 0) engine.Suit().decreaseIndex();
    }
    if (i > 0) continue;
    before.emplace(::getpid());
    pipesBefore = entries(home.Pipes());
  }
  const int code = engine.Run("assert count == " + std::to_string(kDepth * scale.nestings) + ", count");
  std::string measured = code == 0 ? "every block ran; " : "blocks are missing; ";
  const bool grew = before->Grew(measured, kLeakAllowed);
  const std::size_t pipes = entries(home.Pipes());
  return {"runs nested 50 deep, " + std::to_string(scale.nestings) + " times", "every code 0; nothing kept",
          measured + ", pipes " + std::to_string(pipesBefore) + " to " + std::to_string(pipes),
          code == 0 && !grew && pipes <= pipesBefore};
}

Figure pairs(const Scale& scale) {
  Engine engines[] = {Engine("LANE0"), Engine("LANE1")};
  std::vector<std::future<int>> drivers;
  for (Engine& engine : engines) {
    const char* const block = kindOf(static_cast<int>(drivers.size())).idle;
    drivers.push_back(std::async(std::launch::async, [&engine, block, runs = scale.pairs] {
      int wrong = engine.Start();
      for (int i = 0; i < runs; ++i) wrong += engine.Run(block) == 0 ? 0 : 1;
      return wrong + engine.Stop();
    }));
  }
  int wrong = 0;
  for (std::future<int>& driver : drivers) wrong += driver.get();
  return {"two engines at once, " + std::to_string(scale.pairs) + " runs each", "every code 0",
          std::to_string(wrong) + " wrong", wrong == 0};
}

// The Java extension, whose process is a new one for each run.
class Java {
 public:
  explicit Java(const Home& home) : m_extensions(home.Path("extensions")) {
    fs::create_directories(m_extensions);
    for (const char* command : {"STATS_HELLO", "STATS_WAIT"}) {
      fs::copy_file(BENCH_COMMANDS, m_extensions + '/' + command + ".jar", fs::copy_options::overwrite_existing);
    }
    SetavaExtSocket(&m_socket);
  }
  ~Java() {
    m_extension.CleanUp();
    SetavaExtSocket(nullptr);
  }
  Java(const Java&) = delete;
  Java& operator=(const Java&) = delete;

  int Start(const char* command) {
    CleXDSmb lines;
    int length = 0;
    (void)lines.ContructSendData();
    const char* const bytes = lines.GetSendBuf(length);
    m_extension.SetExtensionPath(m_extensions);
    m_extension.SetPackageMode(true);
    m_extension.SetCommandName(command);
    m_extension.SetDataLen(length);
    m_extension.SetSendBuf(bytes);
    char argument[] = "JavaExtension";
    char* arguments[] = {argument};
    return m_engine.init_embedded_x(1, arguments);
  }
  int Execute() {
    char unused[] = "";
    return m_engine.execute_x(unused);
  }
  int Stop() { return m_engine.stop_embedded_x(); }
  pid_t Process() { return vexadx::ProcessOf(m_engine).id; }

 private:
  const std::string m_extensions;
  JavaPlugInSocket m_socket;
  JavaExtensionSmb m_extension;
  XConfigOptions m_options{"JAVAEXTENSION"};
  OutpStatisticsX m_engine{&m_options, 1, true};
};

// What Java writes is not asked for here.
class Silence {
 public:
  Silence() : m_out(::dup(STDOUT_FILENO)) {
    (void)std::fflush(stdout);
    stopUnless(std::freopen("/dev/null", "w", stdout) != nullptr, "no silence");
  }
  ~Silence() {
    (void)::dup2(m_out, STDOUT_FILENO);
    ::close(m_out);
  }
  Silence(const Silence&) = delete;
  Silence& operator=(const Silence&) = delete;

 private:
  const int m_out;
};

Figure javaRuns(const Scale& scale, const Home& home) {
  const Silence silence;
  Java java(home);
  std::optional<Held> before;
  int wrong = 0;
  for (int i = 0; i < scale.javaRuns; ++i) {
    if (i == 2) before.emplace(::getpid());
    if (java.Start("STATS_HELLO") != 0 || java.Execute() != 0 || java.Stop() != 0) ++wrong;
  }
  std::string measured = std::to_string(wrong) + " wrong; ";
  const bool grew = before->Grew(measured, kLeakAllowed);
  return {"runs of the Java extension, " + std::to_string(scale.javaRuns), "every code 0; descriptors flat", measured,
          wrong == 0 && !grew};
}

// While the command runs, and between the start and it.
Figure javaKilled(const Scale& scale, const Home& home, unsigned seed) {
  const Silence silence;
  Java java(home);
  std::mt19937 random(seed);
  Times times;
  int wrong = 0;
  for (int i = 0; i < scale.javaKills; ++i) {
    if (java.Start("STATS_WAIT") != 0) {
      ++wrong;
      continue;
    }
    auto killing = kill(java.Process(), std::chrono::microseconds(std::uniform_int_distribution(0, 200'000)(random)));
    (void)java.Execute();
    times.push_back(std::max(0.0, milliseconds(Clock::now() - killing.get())));
    (void)java.Stop();
  }
  return {"kill -9 of the Java extension at a random moment, " + std::to_string(scale.javaKills) + " times, seed " +
              std::to_string(seed),
          "the run ends within 1 s; the next start succeeds", std::to_string(wrong) + " wrong; " + told(times),
          wrong == 0 && quantile(times, 1) <= 1000};
}

}  // namespace

int main(int argc, char** argv) try {
  CLI::App app("What a host goes through in weeks, in minutes.", "endurance");
  bool isLong = false;
  std::vector<std::string> only;
  unsigned seed = std::random_device{}() % 99'999 + 1;
  app.add_flag("--long", isLong, "As before a release; else as at each change");
  app.add_option("--seed", seed, "Of the random moments");
  app.add_option("ROW", only, "Only these: kill death start run inside nest pair java java-kill");
  CLI11_PARSE(app, argc, argv);

  ::signal(SIGPIPE, SIG_DFL);
  const Scale& scale = isLong ? kRelease : kEachChange;
  const Home home;
  const std::pair<const char*, std::function<Figure()>> rows[] = {
      {"kill", [&] { return killed(scale, seed); }},
      {"death", [&] { return deathTold(scale); }},
      {"start", [&] { return startedAndStopped(scale, home); }},
      {"run", [&] { return runs(scale); }},
      {"inside", [&] { return insideRuns(scale); }},
      {"nest", [&] { return nested(scale, home); }},
      {"pair", [&] { return pairs(scale); }},
      {"java", [&] { return javaRuns(scale, home); }},
      {"java-kill", [&] { return javaKilled(scale, home, seed); }},
  };
  bool allHold = true;
  for (const auto& [name, row] : rows) {
    if (!only.empty() && std::find(only.begin(), only.end(), name) == only.end()) continue;
    const Figure figure = row();
    (void)std::printf("| %s | %s | %s | %s |\n", figure.what.c_str(), figure.asked.c_str(), figure.measured.c_str(),
                      figure.holds ? "yes" : "**no**");
    (void)std::fflush(stdout);
    allHold &= figure.holds;
  }
  return allHold ? 0 : 1;
} catch (const std::exception& error) {
  (void)std::fprintf(stderr, "%s\n", error.what());
  return 1;
}
