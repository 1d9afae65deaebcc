// A plug-in library that misbehaves when it is asked to. A block's text says how, in the words of kDeeds; what another
// entry point does says the environment, FAULT_init_embedded_x and so on, and FAULT_load what the library does when it
// is loaded. A word that is a number is the code, 0 without one.

#include <fcntl.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#ifdef __x86_64__
#include <xmmintrin.h>
#endif

#include <atomic>
#include <cfenv>
#include <chrono>
#include <clocale>
#include <cstdlib>
#include <cstring>
#include <sstream>
#include <stdexcept>
#include <string>
#include <thread>

#include "vexadx_export.h"

namespace {

using OutputFunction = int (*)(const char* text, int length);
std::atomic<OutputFunction> gOutput{nullptr};

void output(const char* text, int length) {
  if (const OutputFunction function = gOutput) (void)function(text, length);
}

void outputText(const char* text) { output(text, static_cast<int>(std::strlen(text))); }

void outputForEver() {
  std::thread([] {
    for (;;) {
      outputText("late\n");
      std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
  }).detach();
}

void block(int signal) {
  sigset_t set;
  sigemptyset(&set);
  sigaddset(&set, signal);
  (void)::pthread_sigmask(SIG_BLOCK, &set, nullptr);
}

void flushToZero() {
#if defined(__x86_64__)
  _mm_setcsr(_mm_getcsr() | 0x8040);
#elif defined(__aarch64__)
  unsigned long long control = 0;
  __asm__ volatile("mrs %0, fpcr" : "=r"(control));
  __asm__ volatile("msr fpcr, %0" : : "r"(control | 1ULL << 24));
#endif
}

void redirect() {
  const int file = ::open("/dev/null", O_WRONLY | O_CLOEXEC);
  (void)::dup2(file, STDERR_FILENO);
  (void)::close(file);
}

int* volatile gNowhere = nullptr;  // as far as anybody can tell before it runs

[[noreturn]] void writeToNowhere() {
  *gNowhere = 1;
  std::abort();
}

constexpr struct {
  const char* word;
  void (*run)();
} kDeeds[] = {
    {"throw", [] { throw std::runtime_error("a fault"); }},
    {"throw-number", [] { throw 1; }},

    {"SIGINT", [] { (void)::signal(SIGINT, [](int) {}); }},
    {"SIGPIPE", [] { (void)::signal(SIGPIPE, SIG_IGN); }},
    {"SIGCHLD", [] { (void)::signal(SIGCHLD, SIG_IGN); }},
    {"mask", [] { block(SIGTERM); }},
    {"locale", [] { (void)std::setlocale(LC_ALL, "C.UTF-8"); }},
    {"directory", [] { (void)!::chdir("/"); }},
    {"umask", [] { (void)::umask(0123); }},
    {"rounding", [] { (void)std::fesetround(FE_UPWARD); }},
    {"flush-to-zero", &flushToZero},
    {"close", [] { (void)::close(STDOUT_FILENO); }},
    {"redirect", &redirect},

    {"descriptor", [] { (void)!::dup(STDERR_FILENO); }},

    {"exit", [] { std::exit(3); }},
    {"abort", [] { std::abort(); }},
    {"null", &writeToNowhere},
    {"never-return",
     [] {
       for (;;) ::pause();
     }},

    {"output-null", [] { output(nullptr, 4); }},
    {"output-negative", [] { output("text", -1); }},
    {"output-elsewhere", [] { std::thread([] { outputText("elsewhere\n"); }).join(); }},
    {"output-for-ever", &outputForEver},
};

int perform(const char* text) {
  std::istringstream words(text ? text : "");
  int code = 0;
  for (std::string word; words >> word;) {
    bool isDeed = false;
    for (const auto& deed : kDeeds) {
      if (word != deed.word) continue;
      isDeed = true;
      deed.run();
    }
    if (!isDeed) code = std::atoi(word.c_str());
  }
  return code;
}

[[maybe_unused]] const int kCodeOfLoad = perform(std::getenv("FAULT_load"));

}  // namespace

extern "C" {

VEXADX_API void setup_dxcallback(void* /*callback*/) { (void)perform(std::getenv("FAULT_setup_dxcallback")); }

VEXADX_API int init_embedded_x(int /*argc*/, char** /*argv*/) { return perform(std::getenv("FAULT_init_embedded_x")); }

VEXADX_API int execute_x(char* syntax) { return perform(syntax); }

VEXADX_API int stop_embedded_x() { return perform(std::getenv("FAULT_stop_embedded_x")); }

VEXADX_API int pre_action() { return perform(std::getenv("FAULT_pre_action")); }

VEXADX_API int post_action() { return perform(std::getenv("FAULT_post_action")); }

VEXADX_API void set_post_vexa_output(int (*function)(const char* text, int length)) {
  gOutput = function;
  (void)perform(std::getenv("FAULT_set_post_vexa_output"));
}

}  // extern "C"
