#include <signal.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <clocale>
#include <cstring>
#include <functional>
#include <future>
#include <iterator>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include "PlugInDynamicLoadedLibrary.h"
#include "certify.h"
#include "dxglobals.h"
#include "inpstatisticsx.h"
#include "installation.h"
#include "libraryfile.h"
#include "vexadx_codes.h"
#include "vexadx_hoststate.h"
#include "vexadx_plugin.h"
#include "vexadxconfigreader.h"
#include "xcmdargument.h"
#include "xconfigoptions.h"

namespace certify {

namespace {

using namespace std::chrono_literals;

constexpr auto kInterrupt = 5s;
constexpr auto kUnderWay = 300ms;
constexpr auto kAfterwards = 200ms;

std::atomic<void (*)()> gInterrupt{nullptr};

vexadx::HostCallback gTable = [] {
  vexadx::HostCallback table{};
  std::copy(std::begin(vexadx::kHostCallbackTag), std::end(vexadx::kHostCallbackTag), table.tag);
  table.size = sizeof table;
  table.setInterrupt = [](void (*interrupt)()) { gInterrupt = interrupt; };
  return table;
}();

// The entry points of the library, called as a host calls them. Each call tells what it is about to do, as it may not
// come back.
class Plugin {
 public:
  explicit Plugin(const Subject& subject) : m_subject(subject), m_library(subject.file, 0) {
    SetVEXAHOME(subject.home.c_str());
    for (const auto& [name, value] : options().GetXEnvVars()) (void)::setenv(name.c_str(), value.c_str(), 1);
    Note("it was loaded");
    const bool isLoaded = m_library.LoadLibraryNow() == 0;
    Require(isLoaded, "the loader says: " + m_library.GetErrorString());
    Note("it had been loaded");
  }

  bool Has(const char* name) { return m_library.GetSymbolAddress(name) != nullptr; }

  void Meet(void* table) {
    if (auto* const entry = find<void(void*)>("setup_dxcallback")) {
      (void)call("setup_dxcallback", [&] { return entry(table), 0; });
    }
  }
  void SetOutput(int (*output)(const char* text, int length)) {
    auto* const entry = find<void(int (*)(const char*, int))>("set_post_vexa_output");
    if (!entry) throw NotExamined("it has no set_post_vexa_output");
    (void)call("set_post_vexa_output", [&] { return entry(output), 0; });
  }
  int Init() {
    XCmdArgument arguments(vexadx::StartArguments(options()));
    return call("init_embedded_x",
                [&] { return find<int(int, char**)>("init_embedded_x")(arguments.argc(), arguments.argv()); });
  }
  int Execute(std::string block) {
    return call("execute_x", [&] { return find<int(char*)>("execute_x")(block.data()); });
  }
  int Pre() { return callPlain("pre_action"); }
  int Post() { return callPlain("post_action"); }
  int Stop() { return callPlain("stop_embedded_x"); }

  void Start() {
    Meet(&gTable);
    RequireSuccess(Init(), "from init_embedded_x");
  }
  void Run(const std::string& block) {
    RequireSuccess(Pre(), "from pre_action");
    RequireSuccess(Execute(block), "from execute_x");
    RequireSuccess(Post(), "from post_action");
  }
  void Run() { Run(m_subject.block); }
  void RequireStop() { RequireSuccess(Stop(), "from stop_embedded_x"); }

  bool HasThrown() const { return !m_thrown.empty(); }
  const std::string& Thrown() const { return m_thrown; }

 private:
  template <typename Function>
  Function* find(const char* name) {
    void* const address = m_library.GetSymbolAddress(name);
    Function* entry = nullptr;
    std::memcpy(&entry, &address, sizeof entry);
    return entry;
  }

  XConfigOptions& options() const { return *VexaDXConfigReader::GetInstance(m_subject.engine); }

  int callPlain(const char* name) {
    return call(name, [&] { return find<int()>(name)(); });
  }

  // An exception counts as it does for hosts.
  template <typename Work>
  int call(const char* name, Work work) {
    Note(std::string(name) + " was called");
    int code = vexadx::kFailed;
    try {
      code = work();
    } catch (...) {
      m_thrown += (m_thrown.empty() ? "" : ", ") + std::string(name);
    }
    Note(std::string(name) + " had been called");
    return code;
  }

  const Subject& m_subject;
  PlugInDynamicLoadedLibrary m_library;
  std::string m_thrown;
};

std::string loads(const Subject& subject) {
  const Plugin plugin(subject);
  return "";
}

std::string hasEntryPoints(const Subject& subject) {
  Plugin plugin(subject);
  std::string missing;
  std::string optional;
  for (const vexadx::PluginEntryPoint& entryPoint : vexadx::kPluginEntryPoints) {
    if (plugin.Has(entryPoint.name)) continue;
    std::string& names = entryPoint.mandatory ? missing : optional;
    names += (names.empty() ? "" : ", ") + std::string(entryPoint.name);
  }
  Require(missing.empty(), "it does not export " + missing);
  return optional.empty() ? "" : "without " + optional + ", which is allowed";
}

bool isEntryPoint(const std::string& name) {
  return std::ranges::any_of(vexadx::kPluginEntryPoints,
                             [&](const vexadx::PluginEntryPoint& entryPoint) { return name == entryPoint.name; });
}

// Of the loader's own.
bool isLinkers(const std::string& name) {
  constexpr std::string_view kNames[] = {"_init", "_fini", "_edata", "_end", "__bss_start"};
  return std::ranges::find(kNames, name) != std::end(kNames);
}

std::string exportsNothingElse(const Subject& subject) {
  const auto names = libraryfile::ExportedNames(subject.file);
  if (!names) throw NotExamined("its exported names cannot be read");
  std::size_t count = 0;
  std::string first;
  for (const std::string& name : *names) {
    if (isEntryPoint(name) || isLinkers(name)) continue;
    if (++count <= 3) first += (first.empty() ? "" : ", ") + name;
  }
  Require(count == 0, "it exports " + std::to_string(count) + " other names: " + first + (count > 3 ? ", ..." : ""));
  return "";
}

std::string throwsNothing(const Subject& subject) {
  Plugin plugin(subject);
  plugin.Meet(&gTable);
  if (plugin.Init() == vexadx::kSuccess) {
    (void)plugin.Pre();
    (void)plugin.Execute(subject.block);
    (void)plugin.Execute(kOddBlock);
    (void)plugin.Post();
  }
  (void)plugin.Stop();
  Require(!plugin.HasThrown(), "an exception came from " + plugin.Thrown());
  return "";
}

std::string starts(const Subject& subject) {
  Plugin(subject).Start();
  return "";
}

std::string runs(const Subject& subject) {
  Plugin plugin(subject);
  plugin.Start();
  plugin.Run();
  plugin.Run();
  return "";
}

std::string stops(const Subject& subject) {
  Plugin plugin(subject);
  plugin.Start();
  plugin.Run();
  plugin.RequireStop();
  return "";
}

std::string startsAgain(const Subject& subject) {
  Plugin plugin(subject);
  for (int i = 0; i < 2; ++i) {
    plugin.Start();
    plugin.Run();
    plugin.RequireStop();
  }
  return "";
}

std::string startsTwice(const Subject& subject) {
  Plugin plugin(subject);
  plugin.Start();
  const int code = plugin.Init();
  plugin.Run();
  return "the second start answered " + std::to_string(code);
}

// What it throws comes to the caller.
void onAThread(const std::function<void()>& work) { std::async(std::launch::async, work).get(); }

std::string takesAnyThread(const Subject& subject) {
  Plugin plugin(subject);
  onAThread([&] { plugin.Start(); });
  onAThread([&] { plugin.Run(); });
  onAThread([&] { plugin.RequireStop(); });
  return "";
}

std::string takesBlockBeforeStart(const Subject& subject) {
  Plugin plugin(subject);
  plugin.Meet(&gTable);
  const int code = plugin.Execute(subject.block);
  RequireSuccess(plugin.Init(), "from init_embedded_x after a block");
  plugin.Run();
  return "the block answered " + std::to_string(code);
}

std::string takesBlockAfterStop(const Subject& subject) {
  Plugin plugin(subject);
  plugin.Start();
  plugin.RequireStop();
  const int code = plugin.Execute(subject.block);
  (void)plugin.Stop();
  return "the block answered " + std::to_string(code);
}

// Much of what a host may have that a language would like to be otherwise.
void beParticular() {
  (void)::signal(SIGINT, [](int) {});
  (void)::signal(SIGPIPE, SIG_IGN);
  sigset_t blocked;
  ::sigemptyset(&blocked);
  ::sigaddset(&blocked, SIGUSR1);
  (void)::pthread_sigmask(SIG_BLOCK, &blocked, nullptr);
  (void)std::setlocale(LC_ALL, "C.UTF-8");
  (void)::umask(027);
}

// As the guard of a host finds it.
std::string leavesHostState(const Subject& subject) {
  beParticular();
  SetVEXAHOME(subject.home.c_str());
  XConfigOptions options = *VexaDXConfigReader::GetInstance(subject.engine);
  XCmdArgument arguments(vexadx::StartArguments(options));
  XConfigOptions underAnotherName(kLibrary);
  underAnotherName.PutOption(XConfigOptions::KEY_LIB_NAME, kLibrary);
  for (const auto& [name, value] : options.GetXEnvVars()) underAnotherName.PutOption(name, value);
  InpStatisticsX host(&underAnotherName, true);
  if (host.loadXlib() != vexadx::kSuccess) throw NotExamined("it can be loaded from its own directory only");
  vexadx::GuardHostState(host, vexadx::HostStateGuarding::kReport);
  std::string changes;
  const auto call = [&](const std::string& name, const std::function<int()>& entry) {
    Note(name + " was called");
    RequireSuccess(entry(), "from " + name);
    const std::string changed = Joined(vexadx::HostStateChanges(host));
    if (!changed.empty()) changes += (changes.empty() ? "" : "; ") + name + ": " + changed;
  };
  std::string block = subject.block;
  call("setup_dxcallback", [&] { return host.setup_dxcallback(&gTable), 0; });
  call("init_embedded_x", [&] { return host.init_embedded_x(arguments.argc(), arguments.argv()); });
  call("pre_action", [&] { return host.pre_action(); });
  call("execute_x", [&] { return host.execute_x(block.data()); });
  call("post_action", [&] { return host.post_action(); });
  call("stop_embedded_x", [&] { return host.stop_embedded_x(); });
  Require(changes.empty(), "it changed in " + changes);
  return "";
}

std::atomic<int> gNullTexts{0};
std::atomic<int> gNegativeLengths{0};
std::atomic<int> gOutputs{0};

int takeOutput(const char* text, int length) {
  ++gOutputs;
  if (length < 0) {
    ++gNegativeLengths;
  } else if (!text && length > 0) {
    ++gNullTexts;
  }
  return 0;
}

std::string outputsText(const Subject& subject) {
  Plugin plugin(subject);
  plugin.SetOutput(&takeOutput);
  plugin.Start();
  plugin.Run();
  (void)plugin.Execute(kOddBlock);
  plugin.RequireStop();
  const int atStop = gOutputs;
  std::this_thread::sleep_for(kAfterwards);
  Require(gNullTexts == 0, "the output function got no text");
  Require(gNegativeLengths == 0, "the output function got a negative length");
  Require(gOutputs == atStop, "the output function was called after the stop");
  return std::to_string(atStop) + " calls";
}

// Of a table that is not ours no more than the tag can be read, and nothing written.
std::string ignoresOtherTables(const Subject& subject) {
  Plugin plugin(subject);
  if (!plugin.Has("setup_dxcallback")) throw NotExamined("it has no setup_dxcallback");
  const auto page = static_cast<std::size_t>(::sysconf(_SC_PAGESIZE));
  void* const pages = ::mmap(nullptr, 2 * page, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
  if (pages == MAP_FAILED) throw NotExamined("there is no memory for the table");
  constexpr std::string_view kTag = "ANOTHER1";
  static_assert(kTag.size() == sizeof vexadx::kHostCallbackTag);
  char* const table = static_cast<char*>(pages) + page - kTag.size();
  std::copy(kTag.begin(), kTag.end(), table);
  (void)::mprotect(table + kTag.size(), page, PROT_NONE);
  (void)::mprotect(pages, page, PROT_READ);
  plugin.Meet(table);
  plugin.Meet(nullptr);
  RequireSuccess(plugin.Init(), "from init_embedded_x after another host's table");
  plugin.Run();
  return "";
}

std::string staysFlat(const Subject& subject) {
  Plugin plugin(subject);
  plugin.Start();
  return RequireFlat(::getpid(), [&plugin] { plugin.Run(); });
}

std::string isInterrupted(const Subject& subject) {
  if (subject.endlessBlock.empty()) throw NotExamined("no endless block is known: --endless-block TEXT");
  Plugin& plugin = *new Plugin(subject);  // a block that does not end uses it
  plugin.Start();
  if (!gInterrupt) throw NotExamined("it does not say how a block is interrupted");
  std::packaged_task<int()> task([&plugin, block = subject.endlessBlock] { return plugin.Execute(block); });
  std::future<int> code = task.get_future();
  std::thread(std::move(task)).detach();
  Require(code.wait_for(kUnderWay) != std::future_status::ready, "the block that should be endless ended");
  gInterrupt.load()();
  Require(code.wait_for(kInterrupt) == std::future_status::ready, "the block went on for 5 s after it was interrupted");
  const int answered = code.get();
  Require(answered != vexadx::kSuccess, "the interrupted block answered 0");
  gInterrupt.load()();  // which does nothing while no block runs
  plugin.Run();
  return "the block answered " + std::to_string(answered);
}

std::string takesLargeBlock(const Subject& subject) {
  Plugin plugin(subject);
  plugin.Start();
  plugin.Run(subject.block + std::string(std::size_t{1} << 20, ' '));
  return "";
}

std::string survivesOddBytes(const Subject& subject) {
  Plugin plugin(subject);
  plugin.Start();
  const int code = plugin.Execute(kOddBlock);
  plugin.Run();
  return "the block answered " + std::to_string(code);
}

bool hasDecimalComma() { return std::string_view(std::localeconv()->decimal_point) == ","; }

std::string takesOtherLocale(const Subject& subject) {
  const char* const kLocales[] = {"de_DE.UTF-8", "fr_FR.UTF-8", "es_ES.UTF-8", "it_IT.UTF-8", "de_DE"};
  const bool isSet =
      std::ranges::any_of(kLocales, [](const char* name) { return std::setlocale(LC_ALL, name) && hasDecimalComma(); });
  if (!isSet) throw NotExamined("no locale with a decimal comma is installed");
  Plugin plugin(subject);
  plugin.Start();
  plugin.Run();
  Require(hasDecimalComma(), "the locale was another afterwards");
  plugin.RequireStop();
  return std::setlocale(LC_NUMERIC, nullptr);
}

constexpr const char* kLoads = "loads";
constexpr const char* kEntryPoints = "entry-points";
constexpr const char* kStarts = "start";
constexpr const char* kRuns = "run";

constexpr Rule kPluginRules[] = {
    {kLoads, "It can be loaded.", nullptr, &loads},
    {kEntryPoints, "It exports the five entry points that it must have.", kLoads, &hasEntryPoints},
    {"exports", "It exports nothing but entry points.", nullptr, &exportsNothingElse},
    {"exceptions", "No exception leaves an entry point.", kEntryPoints, &throwsNothing},
    {kStarts, "It starts with 0.", kEntryPoints, &starts},
    {kRuns, "It answers a run with 0: its beginning, a block and its end.", kStarts, &runs},
    {"stop", "It stops with 0.", kRuns, &stops},
    {"again", "It starts again after the stop.", "stop", &startsAgain},
    {"start-twice", "A second start, without a stop, gets a code, and a block runs.", kRuns, &startsTwice},
    {"threads", "It starts, runs and stops on three threads.", "stop", &takesAnyThread},
    {"block-before-start", "A block before the start gets a code, and the start follows.", kRuns,
     &takesBlockBeforeStart},
    {"block-after-stop", "A block after the stop gets a code, and so does another stop.", "stop", &takesBlockAfterStop},
    {"host-state", "It leaves the host's own state as it was: signals, locale, floating-point control and the like.",
     "stop", &leavesHostState},
    {"locale", "It works in a host whose numbers have a decimal comma, and leaves it that.", "stop", &takesOtherLocale},
    {"output", "The output function gets text, and nothing after the stop.", "stop", &outputsText},
    {"other-table", "It ignores the table of another host, and none at all.", kRuns, &ignoresOtherTables},
    {"flat", "Runs by the thousand cost the host neither descriptors nor memory.", kRuns, &staysFlat},
    {"interrupt", "An endless block is interrupted with a code other than 0, and the next block runs.", kRuns,
     &isInterrupted},
    {"large-block", "It takes a block of 1 MiB.", kRuns, &takesLargeBlock},
    {"odd-block", "A block of bytes that are no text gets a code, and the next block runs.", kRuns, &survivesOddBytes},
};

}  // namespace

std::span<const Rule> PluginRules() { return kPluginRules; }

}  // namespace certify
