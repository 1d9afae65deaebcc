#pragma once

#include <benchmark/benchmark.h>

#include <iterator>

#include "language.h"

// A benchmark is run for each language, whose number is its first argument.

inline constexpr const Language* kLanguages[] = {
    &kPython,
#ifdef BENCH_R
    &kR,
#endif
};
constexpr int kLastLanguage = static_cast<int>(std::size(kLanguages)) - 1;

inline void eachLanguage(benchmark::internal::Benchmark* benchmark) {
  benchmark->ArgName("language")->DenseRange(0, kLastLanguage)->UseManualTime();
}

inline const Language& languageOf(benchmark::State& state) {
  const Language& language = *kLanguages[state.range(0)];
  state.SetLabel(language.name);
  return language;
}
