#include <cstdlib>
#include <iterator>

#include "embeddedr.h"
#include "language.h"
#include "stopunless.h"

namespace {

// Started as the plug-in starts it.
void start() {
  static char name[] = "R";
  static char quiet[] = "--no-echo";
  static char save[] = "--no-save";
  static char* arguments[] = {name, quiet, save, nullptr};
  ::setenv("R_HOME", BENCH_R_HOME, 0);
  R_SignalHandlers = 0;
  (void)Rf_initialize_R(std::size(arguments) - 1, arguments);
  R_Interactive = FALSE;
  setup_Rmainloop();
  R_CleanTempDir();  // nobody would when the process ends
}

SEXP parsed(const char* text) {
  SEXP source = PROTECT(Rf_mkString(text));
  ParseStatus status = PARSE_NULL;
  SEXP expressions = R_ParseVector(source, -1, &status, R_NilValue);
  stopUnless(status == PARSE_OK, "R did not parse the block");
  UNPROTECT(1);
  return expressions;
}

void parse(void* text) { (void)parsed(static_cast<const char*>(text)); }

void evaluate(void* text) {
  SEXP expressions = PROTECT(parsed(static_cast<const char*>(text)));
  for (R_xlen_t i = 0; i < Rf_xlength(expressions); ++i) (void)Rf_eval(VECTOR_ELT(expressions, i), R_GlobalEnv);
  UNPROTECT(1);
}

void call(void (*function)(void*), const char* text) {
  stopUnless(R_ToplevelExec(function, const_cast<char*>(text)) == TRUE, "R did not run the block");
}

void run(const char* text, int times) {
  for (int i = 0; i < times; ++i) call(&evaluate, text);
}

constexpr DirectCall kDirectCalls[] = {{"direct", &run}};

}  // namespace

const Language kR = {
    "r", "vexar", "--no-save", "x <- 1\n", &start, [](const char* text) { call(&parse, text); }, kDirectCalls,
};
