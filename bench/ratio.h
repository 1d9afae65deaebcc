#pragma once

#include <benchmark/benchmark.h>

#include <algorithm>
#include <chrono>
#include <cstddef>
#include <vector>

#include "stopunless.h"

// Figures beside the limit they are held against. Both are timed in turn, round by round, so that whatever slows the
// machine down for a while slows both.

constexpr int kRounds = 300;
constexpr int kCallsARound = 500;

template <typename Call>
double nanosecondsPerCall(Call call, int calls = kCallsARound) {
  const auto start = std::chrono::steady_clock::now();
  for (int i = 0; i < calls; ++i) call();
  const std::chrono::duration<double, std::nano> elapsed = std::chrono::steady_clock::now() - start;
  return elapsed.count() / calls;
}

inline double median(std::vector<double> values) {
  const auto middle = values.begin() + static_cast<std::ptrdiff_t>(values.size() / 2);
  std::nth_element(values.begin(), middle, values.end());
  return *middle;
}

// What a call and its limit took, round by round.
struct Pair {
  std::vector<double> call;
  std::vector<double> limit;

  double Call() const { return median(call); }
  double Limit() const { return median(limit); }
  double Ratio() const {
    std::vector<double> ratios;
    for (std::size_t i = 0; i < call.size(); ++i) ratios.push_back(call[i] / limit[i]);
    return median(ratios);
  }
};

template <typename Call, typename Limit>
Pair measure(benchmark::State& state, Call call, Limit limit, int calls = kCallsARound) {
  Pair pair;
  for ([[maybe_unused]] auto _ : state) {
    pair.limit.push_back(nanosecondsPerCall(limit, calls));
    pair.call.push_back(nanosecondsPerCall(call, calls));
    state.SetIterationTime(pair.call.back() * 1e-9);
  }
  state.counters["call_ns"] = pair.Call();
  state.counters["limit_ns"] = pair.Limit();
  return pair;
}
