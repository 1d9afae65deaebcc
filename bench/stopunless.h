#pragma once

#include <cstdio>
#include <cstdlib>

// A benchmark whose subject fails measures nothing.
inline void stopUnless(bool holds, const char* what) {
  if (holds) return;
  std::fprintf(stderr, "%s\n", what);
  std::exit(1);
}
