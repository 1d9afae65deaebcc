// What the library does when the platform refuses, and whether it keeps to the platform's rules: this program's own
// versions of the thread functions stand before the system's. They fail on request, and they watch that each thread is
// joined or detached exactly once.

#include <dlfcn.h>
#include <gtest/gtest.h>
#include <sys/resource.h>

#include <atomic>
#include <cerrno>
#include <fstream>
#include <map>
#include <mutex>
#include <string>
#include <string_view>
#include <thread>

#include "drivex.h"
#include "threadtools.h"

namespace {

// The call that fails next, and how many calls of it succeed before.
const char* gFailing = nullptr;
int gSuccessesLeft = 0;

bool fails(std::string_view name) {
  if (!gFailing || gFailing != name || gSuccessesLeft-- > 0) return false;
  gFailing = nullptr;
  return true;
}

void failAfter(int successes, const char* name) {
  gFailing = name;
  gSuccessesLeft = successes;
}

template <typename Function>
Function* systems(Function* /*own*/, const char* name) {
  return reinterpret_cast<Function*>(::dlsym(RTLD_NEXT, name));
}
#define SYSTEMS(function) systems(&::function, #function)

std::mutex gWatch;               // held while a thread is made, so that it cannot be detached before it is known
std::map<pthread_t, int> gEnds;  // how often each thread has been joined or detached
int gMade = 0;
int gEndedOnce = 0;
int gEndedAgain = 0;

void noteEnd(pthread_t thread) {
  const std::lock_guard lock(gWatch);
  ++(gEnds[thread]++ == 0 ? gEndedOnce : gEndedAgain);
}

}  // namespace

extern "C" {

int pthread_mutex_init(pthread_mutex_t* mutex, const pthread_mutexattr_t* attributes) noexcept {
  static auto* const real = SYSTEMS(pthread_mutex_init);
  return fails("pthread_mutex_init") ? EAGAIN : real(mutex, attributes);
}

int pthread_attr_init(pthread_attr_t* attributes) noexcept {
  static auto* const real = SYSTEMS(pthread_attr_init);
  return fails("pthread_attr_init") ? EAGAIN : real(attributes);
}

int pthread_mutexattr_init(pthread_mutexattr_t* attributes) noexcept {
  static auto* const real = SYSTEMS(pthread_mutexattr_init);
  return fails("pthread_mutexattr_init") ? EAGAIN : real(attributes);
}

int pthread_condattr_init(pthread_condattr_t* attributes) noexcept {
  static auto* const real = SYSTEMS(pthread_condattr_init);
  return fails("pthread_condattr_init") ? EAGAIN : real(attributes);
}

int pthread_cond_init(pthread_cond_t* cond, const pthread_condattr_t* attributes) noexcept {
  static auto* const real = SYSTEMS(pthread_cond_init);
  return fails("pthread_cond_init") ? EAGAIN : real(cond, attributes);
}

int pthread_create(pthread_t* thread, const pthread_attr_t* attributes, void* (*start)(void*),
                   void* argument) noexcept {
  static auto* const real = SYSTEMS(pthread_create);
  if (fails("pthread_create")) return EAGAIN;
  const std::lock_guard lock(gWatch);
  const int error = real(thread, attributes, start, argument);
  if (error != 0) return error;
  ++gMade;
  gEnds[*thread] = 0;
  return 0;
}

int pthread_join(pthread_t thread, void** result) {
  static auto* const real = SYSTEMS(pthread_join);
  if (::pthread_equal(thread, ::pthread_self())) return real(thread, result);
  noteEnd(thread);
  return real(thread, result);
}

int pthread_detach(pthread_t thread) noexcept {
  static auto* const real = SYSTEMS(pthread_detach);
  noteEnd(thread);
  return real(thread);
}

}  // extern "C"

namespace {

class IdleEngine : public StatisticsX {
 public:
  IdleEngine() : StatisticsX(true) { setIntialized(true); }

 private:
  int x_init_embedded_x(int, char**) override { return 0; }
  int x_execute_x(char*) override { return 5; }
  int x_stop_embedded_x() override { return 0; }
  int x_pre_action() override { return 0; }
  int x_post_action() override { return 0; }
};

std::string printedByANewThreadObject() {
  testing::internal::CaptureStdout();
  {
    Worker thread([] { return 4; });
    EXPECT_TRUE(thread.Start(0));  // which needs none of what failed
    EXPECT_TRUE(thread.WaitForStop());
    EXPECT_EQ(4, thread.GetReturnValue());
    thread.Resume();
    thread.Suspend();
  }
  return testing::internal::GetCapturedStdout();
}

}  // namespace

TEST(PlatformRefusesDeathTest, ASectionWithoutItsMutexesStopsTheProcess) {
  const char* checks[] = {"tmp2==0", "tmp==0", "tmp3==0"};
  for (int successes = 0; successes < 3; ++successes) {
    EXPECT_DEATH(
        {
          failAfter(successes, "pthread_mutex_init");
          const PlugInCriticalSection section;
        },
        std::string("\\(") + checks[successes] +
            "\\), function PlugInCriticalSection, file backend/drivex/common/src/PlugInCriticalSection\\.");
  }
}

TEST(PlatformRefuses, AThreadObjectSaysSoAndIsUsable) {
  EXPECT_EQ("", printedByANewThreadObject());
  constexpr int kSectionMutexes = 15;  // five sections come before the object's own mutex
  const struct {
    const char* call;
    int successes;
  } kCases[] = {{"pthread_attr_init", 0},
                {"pthread_mutexattr_init", 0},
                {"pthread_condattr_init", 0},
                {"pthread_mutex_init", kSectionMutexes},
                {"pthread_cond_init", 0}};
  for (const auto& c : kCases) {
    failAfter(c.successes, c.call);
    EXPECT_EQ(std::string("*PlugInThreadHot Error: ") + c.call + " returned " + std::to_string(EAGAIN) +
                  ": Resource temporarily unavailable\n",
              printedByANewThreadObject());
  }
}

TEST(PlatformRefuses, WithoutAThreadTheDriverAnswers99116) {
  IdleEngine engine;
  XConfigOptions options("CTEST");
  DriveX driver("CTEST", &engine, &options);
  failAfter(0, "pthread_create");
  EXPECT_EQ(99116, driver.startX());
  EXPECT_EQ(0, driver.getReturnValue());
  vexadx::WaitForRun(driver);
  EXPECT_EQ(0, driver.startX());
  vexadx::WaitForRun(driver);
  EXPECT_EQ(5, driver.getReturnValue());
}

TEST(PlatformRefuses, WithoutMemoryForTheBlockTheDriverAnswers1) {
  constexpr std::size_t kBlock = 512U << 20;
  long pages = 0;
  std::ifstream("/proc/self/statm") >> pages;
  IdleEngine engine;
  XConfigOptions options("CTEST");
  DriveX driver("CTEST", &engine, &options);
  std::vector<std::string> lines(8, std::string(kBlock / 8, 'x'));
  driver.setSyntax(lines);
  const rlim_t used = static_cast<rlim_t>(pages) * 4096;
  const rlimit limit{used + kBlock + kBlock / 2, RLIM_INFINITY};
  ASSERT_EQ(0, ::setrlimit(RLIMIT_AS, &limit));
  EXPECT_EQ(1, driver.invokeX());
  lines.resize(1);
  EXPECT_EQ(5, driver.invokeX());
}

TEST(PlatformsRules, EachThreadIsJoinedOrDetachedExactlyOnce) {
  constexpr int kThreads = 2000;
  startAndEnd(kThreads);
  EXPECT_TRUE(becomesTrue([] {
    const std::lock_guard lock(gWatch);
    return gEndedOnce == gMade;
  }));
  EXPECT_LE(kThreads, gMade);
  EXPECT_EQ(0, gEndedAgain);
}
