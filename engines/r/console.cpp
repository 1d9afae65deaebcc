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
SEXP gPrintWarnings = nullptr;  // a call

// What of the error stream is dropped. Guarded by the turn.
enum class Dropped { kNothing, kNextText, kAll };
Dropped gDropped = Dropped::kNothing;

SEXP kept(SEXP object) {
  R_PreserveObject(object);
  return object;
}

bool isDropped() {
  if (gDropped == Dropped::kAll) return true;
  return std::exchange(gDropped, Dropped::kNothing) == Dropped::kNextText;
}

}  // namespace

QuietErrors::QuietErrors() { gDropped = Dropped::kAll; }

QuietErrors::~QuietErrors() { gDropped = Dropped::kNothing; }

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
  gDropped = Dropped::kNextText;
  (void)Rf_eval(gPrintWarnings, R_BaseEnv);
  gDropped = Dropped::kNothing;
}

void WriteConsole(const char* text, int length, int isError) {
  if (isError && isDropped()) return;
  std::string_view bytes(text, length > 0 ? static_cast<std::size_t>(length) : 0);
  if (const plugin::OutputFunction function = plugin::HostOutput()) {
    (void)plugin::CallOutput(function, bytes);
    return;
  }
  while (!bytes.empty()) {
    const int error = plugin::WriteOnce(isError ? STDERR_FILENO : STDOUT_FILENO, bytes);
    if (error == EINTR && PendingInterrupt()) return;  // nobody may be reading
    if (error != 0 && error != EINTR) return;
  }
}

}  // namespace vexar
