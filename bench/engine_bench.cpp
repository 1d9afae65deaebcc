// What the library adds to a block of syntax, each figure beside the limit it is held against, taken in turn within one
// run: a block through the engine beside CPython called directly, a traced operation beside the bare write of its line,
// DxTrace without a tracer beside a call that tests a pointer.

#include <Python.h>
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <unistd.h>

#include <cstdlib>
#include <string>

#include "dxglobals.h"
#include "dxtracer.h"
#include "inpstatisticsx.h"
#include "pointertest.h"
#include "ratio.h"

namespace {

// REQUIRES: the interpreter lock is held.
void evaluateDirectly(const char* text, PyObject* globals) {
  PyObject* code = Py_CompileString(text, "<block>", Py_file_input);
  PyObject* result = PyEval_EvalCode(code, globals, globals);
  stopUnless(result != nullptr, "CPython did not run the block");
  Py_DECREF(result);
  Py_DECREF(code);
}

void evaluateTakingTheLock(const char* text, PyObject* globals) {
  const PyGILState_STATE lock = PyGILState_Ensure();
  evaluateDirectly(text, globals);
  PyGILState_Release(lock);
}

// Beside two ways of calling CPython directly: `lock_held` throughout, by a program that has it to itself, and
// `lock_taken` for each block, by one with other threads.
void BlockThroughTheEngine(benchmark::State& state) {
  SetVEXAHOME(VEXADX_STAGED_HOME);
  XConfigOptions options("PYX");  // a name that has no Java preferences
  options.PutOption(XConfigOptions::KEY_LIB_NAME, "vexapython");
  InpStatisticsX engine(&options, true);
  stopUnless(engine.init_embedded_x(0, nullptr) == 0, "the engine did not start");

  char block[] = "1\n";
  Pair lockHeld;
  Pair lockTaken;
  for ([[maybe_unused]] auto _ : state) {
    const PyGILState_STATE lock = PyGILState_Ensure();
    PyObject* globals = PyModule_GetDict(PyImport_AddModule("__main__"));
    lockHeld.limit.push_back(nanosecondsPerCall([&] { evaluateDirectly(block, globals); }));
    PyGILState_Release(lock);
    lockTaken.limit.push_back(nanosecondsPerCall([&] { evaluateTakingTheLock(block, globals); }));
    const double call =
        nanosecondsPerCall([&] { stopUnless(engine.execute_x(block) == 0, "the engine did not run the block"); });
    lockHeld.call.push_back(call);
    lockTaken.call.push_back(call);
    state.SetIterationTime(call * 1e-9);
  }
  state.counters["call_ns"] = lockHeld.Call();
  state.counters["lock_held_ns"] = lockHeld.Limit();
  state.counters["lock_taken_ns"] = lockTaken.Limit();
  state.counters["over_lock_held_percent"] = (lockHeld.Ratio() - 1) * 100;    // under 5, the stricter
  state.counters["over_lock_taken_percent"] = (lockTaken.Ratio() - 1) * 100;  // under 5
}
BENCHMARK(BlockThroughTheEngine)->UseManualTime()->Iterations(kRounds);

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
