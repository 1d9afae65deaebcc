// A plug-in library for the tests. Its codes come from the environment (CTEST_INIT, CTEST_PRE, CTEST_POST, CTEST_STOP;
// 0 when unset) and a block's from its text; the code 666 is thrown instead, the block "wait" never ends, and the block
// "child" starts a process that lives for a minute. The last block's text is in the file CTEST_BLOCK. Compiled with
// WITHOUT_<entry point> it lacks that one, with UNRESOLVED a function that it calls.

#include <pthread.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <fstream>

#define ENTRY_POINT extern "C" __attribute__((visibility("default")))

namespace {

int codeOf(const char* text) {
  const int code = std::atoi(text);
  if (code == 666) throw code;
  return code;
}

int codeFrom(const char* variable) {
  const char* text = std::getenv(variable);
  return text ? codeOf(text) : 0;
}

// In the wait for a condition the thread can be cancelled, also in the eyes of the thread sanitizer.
[[maybe_unused]] void waitForEver() {
  pthread_mutex_t mutex = PTHREAD_MUTEX_INITIALIZER;
  pthread_cond_t never = PTHREAD_COND_INITIALIZER;
  ::pthread_mutex_lock(&mutex);
  while (true) ::pthread_cond_wait(&never, &mutex);
}

[[maybe_unused]] void startChild() {
  if (::fork() != 0) return;
  (void)::alarm(60);
  for (;;) ::pause();
}

[[maybe_unused]] int (*gOutput)(const char* text, int length) = nullptr;

}  // namespace

#ifndef WITHOUT_setup_dxcallback
ENTRY_POINT void setup_dxcallback(void* callback) { *static_cast<int*>(callback) += 1; }
#endif

#ifndef WITHOUT_init_embedded_x
ENTRY_POINT int init_embedded_x(int argc, char** argv) {
  if (argc > 0) return codeOf(argv[0]);
  return codeFrom("CTEST_INIT");
}
#endif

#ifndef WITHOUT_execute_x
ENTRY_POINT int execute_x(char* syntax) {
  if (gOutput) gOutput(syntax, static_cast<int>(std::strlen(syntax)));
  if (const char* const file = std::getenv("CTEST_BLOCK")) std::ofstream(file, std::ios::binary) << syntax;
  if (std::strncmp(syntax, "wait", 4) == 0) waitForEver();
  if (std::strncmp(syntax, "child", 5) == 0) startChild();
  return codeOf(syntax);
}
#endif

#ifdef UNRESOLVED
extern "C" int no_such_function();
ENTRY_POINT int call_it() { return no_such_function(); }
#endif

#ifndef WITHOUT_stop_embedded_x
ENTRY_POINT int stop_embedded_x() { return codeFrom("CTEST_STOP"); }
#endif

#ifndef WITHOUT_pre_action
ENTRY_POINT int pre_action() { return codeFrom("CTEST_PRE"); }
#endif

#ifndef WITHOUT_post_action
ENTRY_POINT int post_action() { return codeFrom("CTEST_POST"); }
#endif

#ifndef WITHOUT_set_post_vexa_output
ENTRY_POINT void set_post_vexa_output(int (*output)(const char* text, int length)) { gOutput = output; }
#endif
