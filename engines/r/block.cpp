#include "block.h"

#include <unistd.h>

#include <cstring>
#include <string>
#include <string_view>

#include "console.h"
#include "embeddedr.h"
#include "host.h"
#include "language.h"
#include "runtime.h"
#include "turn.h"

namespace vexar {
namespace {

// The console takes a line's end from any system; the parser does not.
std::string withPlainLineEnds(std::string_view text) {
  std::string plain;
  plain.reserve(text.size());
  for (std::size_t i = 0; i < text.size(); ++i) {
    const bool isLineEnd = text[i] == '\r' && (i + 1 == text.size() || text[i + 1] == '\n');
    if (!isLineEnd) plain += text[i];
  }
  return plain;
}

// A block while it runs. What R's jumps may leave behind has no destructor. The objects are protected by who runs it.
struct Block {
  const char* text;
  SEXP expressions = R_NilValue;  // null when it has a syntax error
  int expression = 0;             // the one that runs, counted from 1
  bool isBroken = false;          // the syntax error has been reached
  int errorLine = 0;              // of it
};

SEXP sourceFile(SEXP text) {
  if (Rf_asLogical(Rf_GetOption1(Rf_install("keep.source"))) != TRUE) return R_NilValue;
  SEXP name = PROTECT(Rf_mkString("<text>"));
  SEXP call = PROTECT(Rf_lang3(Rf_install("srcfilecopy"), name, text));
  SEXP file = Rf_eval(call, R_BaseEnv);
  UNPROTECT(2);
  return file;
}

// The parser complains in two ways, by a status and by an error.
void parse(void* data) {
  auto& block = *static_cast<Block*>(data);
  SEXP text = PROTECT(Rf_mkString(block.text));
  SEXP file = PROTECT(sourceFile(text));
  ParseStatus status = PARSE_NULL;
  SEXP expressions = R_ParseVector(text, -1, &status, file);
  if (status == PARSE_OK) block.expressions = expressions;
  UNPROTECT(2);
}

void evaluate(SEXP expression) {
  SEXP value = PROTECT(Rf_eval(expression, R_GlobalEnv));
  const Rboolean isVisible = R_Visible;
  Rf_gsetVar(R_LastvalueSymbol, value, R_BaseEnv);
  if (isVisible) Rf_PrintValue(value);
  PrintWarnings();
  Rf_callToplevelHandlers(expression, value, TRUE, isVisible);
  UNPROTECT(1);
}

void evaluateAll(Block& block, SEXP expressions) {
  for (R_xlen_t i = 0; i < Rf_xlength(expressions) && !HasQuit(); ++i) {
    ++block.expression;
    evaluate(VECTOR_ELT(expressions, i));
  }
}

// The console has run what comes before a syntax error when it meets it.
void runUpToError(Block& block) {
  SEXP text = PROTECT(Rf_mkString(block.text));
  SEXP call = PROTECT(Rf_lang2(TheConsole().upToError, text));
  SEXP found = PROTECT(Rf_eval(call, R_BaseEnv));
  block.errorLine = Rf_asInteger(VECTOR_ELT(found, 2));
  evaluateAll(block, VECTOR_ELT(found, 0));
  if (!HasQuit()) {
    block.isBroken = true;
    Rf_errorcall(R_NilValue, "%s", Rf_translateChar(STRING_ELT(VECTOR_ELT(found, 1), 0)));
  }
  UNPROTECT(3);
}

void run(void* data) {
  auto& block = *static_cast<Block*>(data);
  if (block.expressions == R_NilValue) {
    runUpToError(block);
  } else {
    evaluateAll(block, block.expressions);
  }
}

struct Description {
  const Block& block;
  SEXP parts = R_NilValue;
};

void describe(void* data) {
  auto& description = *static_cast<Description*>(data);
  SEXP text = PROTECT(Rf_mkString(description.block.text));
  SEXP number = PROTECT(Rf_ScalarInteger(description.block.expression));
  SEXP call = PROTECT(Rf_lang3(TheConsole().described, text, number));
  description.parts = Rf_eval(call, R_BaseEnv);
  UNPROTECT(3);
}

// The texts belong to R, which does not run meanwhile.
void tellHost(const Block& block, bool wasInterrupted) {
  const plugin::ErrorFunction function = plugin::HostErrors();
  if (!function) return;
  if (wasInterrupted) return function("interrupt", "", "", 0);
  Description description{block};
  if (R_ToplevelExec(&describe, &description) != TRUE) return;
  const auto textOf = [&description](int part) { return CHAR(STRING_ELT(VECTOR_ELT(description.parts, part), 0)); };
  const int line = block.isBroken ? block.errorLine : Rf_asInteger(VECTOR_ELT(description.parts, 2));
  function(block.isBroken ? "syntax error" : "error", textOf(0), textOf(1), line);
}

}  // namespace

int RunBlock(const char* text) {
  if (Turn::IsHere()) return plugin::kBlockFailed;
  const Turn turn;
  if (!CanRun()) return plugin::kBlockFailed;
  const InterruptTarget target;
  (void)TakeQuitStatus();  // a finalizer may have called q() after the last block
  const bool hasReturns = std::strchr(text, '\r') != nullptr;
  const std::string plain = hasReturns ? withPlainLineEnds(text) : std::string();
  const pid_t process = ::getpid();
  Block block{hasReturns ? plain.c_str() : text};
  {
    const QuietErrors quiet;  // a syntax error is told in its turn
    (void)R_ToplevelExec(&parse, &block);
  }
  PROTECT(block.expressions);
  const bool hasEnded = R_ToplevelExec(&run, &block) == TRUE;
  UNPROTECT(1);
  const auto status = TakeQuitStatus();
  if (status) return *status;
  if (hasEnded) return 0;
  if (::getpid() == process) tellHost(block, target.IsHit());  // a child that the block has forked ends here
  return plugin::kBlockFailed;
}

}  // namespace vexar
