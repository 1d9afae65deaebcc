#pragma once

#include <initializer_list>
#include <new>
#include <string>
#include <string_view>

#include "dxglobals.h"
#include "dxtracer.h"

// How the library's own operations trace: while tracing is off nothing is composed, not even the text of a literal. A
// line for which there is no memory is left out: no operation fails because it is traced.

inline std::string Joined(std::initializer_list<std::string_view> pieces) {
  std::string text;
  for (const std::string_view piece : pieces) text += piece;
  return text;
}

inline void TraceLine(std::initializer_list<std::string_view> pieces) {
  if (!GetDxTracer()) return;
  try {
    DxTrace(Joined(pieces));
  } catch (const std::bad_alloc&) {
  }
}

inline void TraceLine(std::string_view text) { TraceLine({text}); }

inline void TraceCode(std::initializer_list<std::string_view> pieces, int code) {
  if (!GetDxTracer()) return;
  try {
    DxTraceError(Joined(pieces), code);
  } catch (const std::bad_alloc&) {
  }
}

inline void TraceCode(std::string_view text, int code) { TraceCode({text}, code); }
