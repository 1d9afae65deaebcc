// What the library adds to a block of syntax, each figure beside the limit it is held against, taken in turn within one
// run: a block through the engine beside its language called directly, a run through a plug-in that does nothing beside
// its functions called directly, a traced operation beside the bare write of its line, DxTrace without a tracer beside
// a call that tests a pointer.

#include <benchmark/benchmark.h>
#include <dlfcn.h>
#include <fcntl.h>
#include <unistd.h>

#include <cstdlib>
#include <string>
#include <vector>

#include "dxglobals.h"
#include "dxtracer.h"
#include "inpstatisticsx.h"
#include "languages.h"
#include "pointertest.h"
#include "ratio.h"
#include "xcmdargument.h"

namespace {

// Beside each way of calling the language directly. The engine has started the language for both.
void BlockThroughTheEngine(benchmark::State& state) {
  const Language& language = languageOf(state);
  SetVEXAHOME(VEXADX_STAGED_HOME);
  XConfigOptions options("BENCH");  // a name that has no Java preferences
  options.PutOption(XConfigOptions::KEY_LIB_NAME, language.library);
  InpStatisticsX engine(&options, true);
  XCmdArgument start(language.arguments);
  stopUnless(engine.init_embedded_x(start.argc(), start.argv()) == 0, "the engine did not start");

  std::string block = language.block;
  std::vector<Pair> pairs(language.directCalls.size());
  for ([[maybe_unused]] auto _ : state) {
    for (std::size_t i = 0; i < pairs.size(); ++i) {
      const auto directly = [&] { language.directCalls[i].run(block.c_str(), kCallsARound); };
      pairs[i].limit.push_back(nanosecondsPerCall(directly, 1) / kCallsARound);
    }
    const double call = nanosecondsPerCall(
        [&] { stopUnless(engine.execute_x(block.data()) == 0, "the engine did not run the block"); });
    for (Pair& pair : pairs) pair.call.push_back(call);
    state.SetIterationTime(call * 1e-9);
  }
  state.counters["call_ns"] = pairs.front().Call();
  for (std::size_t i = 0; i < pairs.size(); ++i) {
    const std::string name = language.directCalls[i].name;
    state.counters[name + "_ns"] = pairs[i].Limit();
    state.counters["over_" + name + "_percent"] = (pairs[i].Ratio() - 1) * 100;  // under 5
  }
}
BENCHMARK(BlockThroughTheEngine)->Apply(eachLanguage)->Iterations(kRounds);

template <typename Function>
Function* entryPoint(void* plugin, const char* name) {
  return reinterpret_cast<Function*>(::dlsym(plugin, name));
}

// Pre-action, block and post-action.
void RunThroughTheEngine(benchmark::State& state) {
  SetVEXAHOME(BENCH_PROGRAMS);
  XConfigOptions options("BENCH");
  options.PutOption(XConfigOptions::KEY_LIB_NAME, "benchplugin");
  InpStatisticsX engine(&options, true);
  stopUnless(engine.init_embedded_x(0, nullptr) == 0, "the engine did not start");
  void* const plugin = ::dlopen(BENCH_PROGRAMS "/lib/libbenchplugin.dylib", RTLD_NOW);
  stopUnless(plugin, "no plug-in");
  auto* const preAction = entryPoint<int()>(plugin, "pre_action");
  auto* const execute = entryPoint<int(char*)>(plugin, "execute_x");
  auto* const postAction = entryPoint<int()>(plugin, "post_action");

  std::string block;
  const Pair pair = measure(
      state,
      [&] { stopUnless(engine.pre_action() + engine.execute_x(block.data()) + engine.post_action() == 0, "no run"); },
      [&] { stopUnless(preAction() + execute(block.data()) + postAction() == 0, "no run"); });
  state.counters["beyond_the_calls_ns"] = pair.Call() - pair.Limit();  // under 1000
  ::dlclose(plugin);
}
BENCHMARK(RunThroughTheEngine)->UseManualTime()->Iterations(kRounds);

// An engine whose operations do nothing but trace.
class IdleEngine : public StatisticsX {
 public:
  IdleEngine() : StatisticsX(true) {}

 private:
  int x_init_embedded_x(int, char**) override { return 0; }
  int x_execute_x(char*) override { return 0; }
  int x_stop_embedded_x() override { return 0; }
  int x_pre_action() override { return 0; }
  int x_post_action() override { return 0; }
};

void TracedOperation(benchmark::State& state) {
  std::string tracePath = "/tmp/vexadx-bench-XXXXXX";
  std::string plainPath = tracePath;
  const int traceFile = ::mkstemp(tracePath.data());
  const int plainFile = ::mkstemp(plainPath.data());
  stopUnless(traceFile != -1 && plainFile != -1, "no temporary file");
  DxTracer tracer;
  tracer.setXName("PYTHON");
  tracer.open(tracePath);
  SetDxTracer(&tracer);

  IdleEngine engine;
  engine.setIntialized(true);
  const std::string line = "11/16/26 22:24:13 PYTHON>>StatisticsX::pre_action error code : 0.\n";
  const Pair pair = measure(
      state, [&] { benchmark::DoNotOptimize(engine.pre_action()); },
      [&] { stopUnless(::write(plainFile, line.data(), line.size()) > 0, "cannot write"); });
  SetDxTracer(nullptr);
  state.counters["beyond_the_write_ns"] = pair.Call() - pair.Limit();  // under 3000
  for (const int file : {traceFile, plainFile}) ::close(file);
  for (const std::string& path : {tracePath, plainPath}) ::unlink(path.c_str());
}
BENCHMARK(TracedOperation)->UseManualTime()->Iterations(kRounds);

void TraceTurnedOff(benchmark::State& state) {
  SetDxTracer(nullptr);
  const std::string text = "StatisticsX::pre_action";
  const Pair pair = measure(
      state, [&] { DxTrace(text); }, [&] { testPointer(text); });
  state.counters["ratio"] = pair.Ratio();  // about 1
}
BENCHMARK(TraceTurnedOff)->UseManualTime()->Iterations(kRounds);

}  // namespace

BENCHMARK_MAIN();
