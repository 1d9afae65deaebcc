#include "console.h"

#include <unistd.h>

#include <cerrno>
#include <string_view>
#include <utility>

#include "consolesource.h"
#include "output.h"

namespace vexar {
namespace {

Console gConsole;
SEXP gPrintWarnings = nullptr;   // a call
bool gDropsErrorOutput = false;  // what is written next. Guarded by the turn

SEXP kept(SEXP object) {
  R_PreserveObject(object);
  return object;
}

}  // namespace

const Console& TheConsole() { return gConsole; }

void OpenConsole(void* /*unused*/) {
  SEXP newEnvironment = PROTECT(Rf_lang2(Rf_install("new.env"), Rf_ScalarLogical(FALSE)));
  SEXP functions = PROTECT(Rf_eval(newEnvironment, R_BaseEnv));
  ParseStatus status = PARSE_NULL;
  SEXP source = PROTECT(Rf_mkString(plugin::kConsoleSource));
  SEXP expressions = PROTECT(R_ParseVector(source, -1, &status, R_NilValue));
  if (status != PARSE_OK) Rf_error("the console's functions cannot be read");
  for (R_xlen_t i = 0; i < Rf_xlength(expressions); ++i) (void)Rf_eval(VECTOR_ELT(expressions, i), functions);
  SEXP print = PROTECT(Rf_lang1(Rf_install("printDeferredWarnings")));
  gConsole = {kept(Rf_findFun(Rf_install("up_to_error"), functions)),
              kept(Rf_findFun(Rf_install("described"), functions))};
  gPrintWarnings = kept(Rf_lang2(Rf_install(".Internal"), print));
  R_unLockBinding(R_LastvalueSymbol, R_BaseEnv);  // the console has its own way round the lock
  UNPROTECT(5);
}

// R begins with the words "In addition: ", written by themselves, which the console has only behind an error.
void PrintWarnings() {
  gDropsErrorOutput = true;
  (void)Rf_eval(gPrintWarnings, R_BaseEnv);
  gDropsErrorOutput = false;
}

void WriteConsole(const char* text, int length, int isError) {
  if (isError && std::exchange(gDropsErrorOutput, false)) return;
  std::string_view bytes(text, length > 0 ? static_cast<std::size_t>(length) : 0);
  if (const plugin::OutputFunction function = plugin::HostOutput()) {
    (void)plugin::CallOutput(function, bytes);
    return;
  }
  while (!bytes.empty()) {
    const int error = plugin::WriteOnce(isError ? STDERR_FILENO : STDOUT_FILENO, bytes);
    if (error == EINTR && R_interrupts_pending) return;  // nobody may be reading
    if (error != 0 && error != EINTR) return;
  }
}

}  // namespace vexar
