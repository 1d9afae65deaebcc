#include "hoststateguard.h"

#include <gtest/gtest.h>

#include <cfenv>
#include <clocale>
#include <string>
#include <vector>

#include "dxglobals.h"
#include "dxtracer.h"
#include "temphome.h"

namespace {

using Handler = void (*)(int);

void handler(int) {}

Handler handlerOf(int signal) {
  struct sigaction current {};
  ::sigaction(signal, nullptr, &current);
  return current.sa_handler;
}

bool isBlocked(int signal) {
  sigset_t mask;
  ::pthread_sigmask(SIG_SETMASK, nullptr, &mask);
  return sigismember(&mask, signal) == 1;
}

void changeEverything() {
  for (const int signal : {SIGPIPE, SIGSEGV}) ::signal(signal, &handler);
  sigset_t mask;
  sigemptyset(&mask);
  sigaddset(&mask, SIGUSR1);
  ::pthread_sigmask(SIG_BLOCK, &mask, nullptr);
  std::setlocale(LC_ALL, "C.UTF-8");
  std::fesetround(FE_UPWARD);
}

}  // namespace

TEST(HostStateGuard, PutsBackWhatWasChangedAndNamesIt) {
  using enum HostStateGuard::FaultSignals;
  TempDir dir;
  DxTracer tracer;
  tracer.open(dir.Path("trace").string());
  SetDxTracer(&tracer);
  const Handler pipe = handlerOf(SIGPIPE);
  const Handler fault = handlerOf(SIGSEGV);
  for (const auto faultSignals : {kPutBack, kLeave}) {
    {
      const HostStateGuard guard(faultSignals);
      changeEverything();
    }
    EXPECT_EQ(pipe, handlerOf(SIGPIPE));
    EXPECT_EQ(faultSignals == kLeave ? &handler : fault, handlerOf(SIGSEGV));
    EXPECT_FALSE(isBlocked(SIGUSR1));
    EXPECT_STREQ("C", std::setlocale(LC_ALL, nullptr));
    EXPECT_EQ(FE_TONEAREST, std::fegetround());
  }
  SetDxTracer(nullptr);
  ::signal(SIGSEGV, fault);
#ifdef __GLIBC__
  EXPECT_EQ((std::vector<std::string>{
                "HostStateGuard put back locale floating-point control SIGSEGV SIGPIPE signal mask",
                "HostStateGuard put back locale floating-point control SIGPIPE signal mask",
            }),
            TraceTexts(dir.Path("trace")));
#endif
}
