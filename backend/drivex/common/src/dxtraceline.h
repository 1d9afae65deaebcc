#pragma once

#include <initializer_list>
#include <string>
#include <string_view>

#include "dxglobals.h"
#include "dxtracer.h"

// How the library's own operations trace: while tracing is off nothing is composed, not even the text of a literal.

inline void TraceLine(std::initializer_list<std::string_view> pieces) {
  if (!GetDxTracer()) return;
  std::string text;
  for (const std::string_view piece : pieces) text += piece;
  DxTrace(text);
}

inline void TraceLine(std::string_view text) { TraceLine({text}); }

inline void TraceCode(std::string_view text, int code) {
  if (GetDxTracer()) DxTraceError(std::string(text), code);
}
