#include "block.h"

#include "console.h"
#include "embeddedr.h"
#include "host.h"
#include "language.h"
#include "runtime.h"
#include "turn.h"

namespace vexar {
namespace {

// A block while it runs. What R's jumps may leave behind has no destructor.
struct Block {
  const char* text;
  int expression = 0;     // the one that runs, counted from 1
  bool isBroken = false;  // the syntax error is what comes next
  int errorLine = 0;      // of it
};

SEXP sourceFile(SEXP text) {
  if (Rf_asLogical(Rf_GetOption1(Rf_install("keep.source"))) != TRUE) return R_NilValue;
  SEXP name = PROTECT(Rf_mkString("<text>"));
  SEXP call = PROTECT(Rf_lang3(Rf_install("srcfilecopy"), name, text));
  SEXP file = Rf_eval(call, R_BaseEnv);
  UNPROTECT(2);
  return file;
}

SEXP parse(void* text) {
  auto* const source = static_cast<SEXP>(text);
  SEXP file = PROTECT(sourceFile(source));
  ParseStatus status = PARSE_NULL;
  SEXP expressions = R_ParseVector(source, -1, &status, file);
  UNPROTECT(1);
  return status == PARSE_OK ? expressions : R_NilValue;
}

SEXP noExpressions(SEXP /*condition*/, void* /*unused*/) { return R_NilValue; }

void evaluate(SEXP expression) {
  SEXP value = PROTECT(Rf_eval(expression, R_GlobalEnv));
  const Rboolean isVisible = R_Visible;
  Rf_gsetVar(R_LastvalueSymbol, value, R_BaseEnv);
  if (isVisible) Rf_PrintValue(value);
  PrintWarnings();
  Rf_callToplevelHandlers(expression, value, TRUE, isVisible);
  UNPROTECT(1);
}

// For R_ToplevelExec, which ends it at an error.
void run(void* data) {
  auto& block = *static_cast<Block*>(data);
  SEXP text = PROTECT(Rf_mkString(block.text));
  SEXP expressions = PROTECT(R_tryCatchError(&parse, text, &noExpressions, nullptr));
  SEXP error = R_NilValue;
  if (expressions == R_NilValue) {
    SEXP call = PROTECT(Rf_lang2(TheConsole().upToError, text));
    SEXP found = Rf_eval(call, R_BaseEnv);
    UNPROTECT(2);
    PROTECT(found);
    expressions = VECTOR_ELT(found, 0);
    error = VECTOR_ELT(found, 1);
    block.errorLine = Rf_asInteger(VECTOR_ELT(found, 2));
  }
  for (R_xlen_t i = 0; i < Rf_xlength(expressions); ++i) {
    ++block.expression;
    evaluate(VECTOR_ELT(expressions, i));
    if (HasQuit()) break;
  }
  if (error != R_NilValue && !HasQuit()) {
    block.isBroken = true;
    Rf_errorcall(R_NilValue, "%s", Rf_translateChar(STRING_ELT(error, 0)));
  }
  UNPROTECT(2);
}

struct Description {
  const char* text;
  int expression;
  SEXP parts;
};

void describe(void* data) {
  auto& description = *static_cast<Description*>(data);
  SEXP text = PROTECT(Rf_mkString(description.text));
  SEXP number = PROTECT(Rf_ScalarInteger(description.expression));
  SEXP call = PROTECT(Rf_lang3(TheConsole().described, text, number));
  description.parts = Rf_eval(call, R_BaseEnv);
  UNPROTECT(3);
}

void tellHost(const Block& block, bool wasInterrupted) {
  const plugin::ErrorFunction function = plugin::HostErrors();
  if (!function) return;
  if (wasInterrupted) return function("interrupt", "", "", 0);
  Description description{block.text, block.expression, R_NilValue};
  if (R_ToplevelExec(&describe, &description) != TRUE) return;
  SEXP parts = PROTECT(description.parts);
  const auto textOf = [parts](int part) { return CHAR(STRING_ELT(VECTOR_ELT(parts, part), 0)); };
  function(block.isBroken ? "syntax error" : "error", textOf(0), textOf(1),
           block.isBroken ? block.errorLine : Rf_asInteger(VECTOR_ELT(parts, 2)));
  UNPROTECT(1);
}

}  // namespace

int RunBlock(const char* text) {
  if (Turn::IsHere()) return plugin::kBlockFailed;
  const Turn turn;
  if (!CanRun()) return plugin::kBlockFailed;
  const InterruptTarget target;
  Block block{text};
  const bool hasEnded = R_ToplevelExec(&run, &block) == TRUE;
  if (const auto status = TakeQuitStatus()) return *status;
  if (hasEnded) return 0;
  tellHost(block, target.IsHit());
  return plugin::kBlockFailed;
}

}  // namespace vexar
