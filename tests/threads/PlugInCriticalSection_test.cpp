#include "PlugInCriticalSection.h"

#include <gtest/gtest.h>

#include <atomic>
#include <ctime>
#include <map>
#include <memory>
#include <optional>
#include <string>

#include "threadtools.h"

namespace {

using Lock = PlugInCriticalSection::Lock;
using TryLock = PlugInCriticalSectionExt::TryLock;
using Counts = std::map<pthread_t, int>;
using Mutex = pthread_mutex_t*;

// Where the fields lie, which is part of the interface.
constexpr std::size_t kHandle = 8, kLocked = 16, kGate = 24, kCountGuard = 32, kCounts = 40;
constexpr std::size_t kSection = kCounts + sizeof(Counts), kOwner = 2 * kSection, kAcquisitions = kOwner + 8;
constexpr std::size_t kEventMutex = 16, kWaitersLock = 32, kReplyEvent = kWaitersLock + 3 * kSection;
constexpr std::size_t kSignaled = kReplyEvent + 8;
static_assert(sizeof(PlugInCriticalSection) == kSection && sizeof(PlugInCriticalSectionExt) == kAcquisitions + 8);
static_assert(sizeof(PlugInSynchEvent) == kSignaled + 8 && sizeof(Lock) == 16 && sizeof(TryLock) == 16);

template <typename Field, typename Object>
Field& at(Object& object, std::size_t offset) {
  return *reinterpret_cast<Field*>(reinterpret_cast<char*>(&object) + offset);
}

template <typename Object>
bool isLocked(Object& object, std::size_t offset) {
  const Mutex mutex = at<Mutex>(object, offset);
  if (::pthread_mutex_trylock(mutex) != 0) return true;
  ::pthread_mutex_unlock(mutex);
  return false;
}

std::unique_ptr<PlugInCriticalSection> sectionOn(Mutex mutex, int count) {
  auto section = std::make_unique<PlugInCriticalSection>();
  for (int i = 0; i < count; ++i) section->Increment_ThreadCount(::pthread_self());
  at<Mutex>(*section, kHandle) = mutex;
  return section;
}

Mutex makeErrorCheckingMutex(bool locked) {
  pthread_mutexattr_t attributes;
  ::pthread_mutexattr_init(&attributes);
  ::pthread_mutexattr_settype(&attributes, PTHREAD_MUTEX_ERRORCHECK);
  auto* mutex = new pthread_mutex_t;
  ::pthread_mutex_init(mutex, &attributes);
  if (locked) ::pthread_mutex_lock(mutex);
  return mutex;
}

template <typename Section>
void expectFreeAfterTheThirdRelease() {
  Section section;
  std::atomic<bool> lastRelease = false;
  bool inTime = false;
  for (int i = 0; i < 3; ++i) section.Acquire();
  std::thread waiter([&] {
    const Lock lock(section);
    inTime = lastRelease;
  });
  EXPECT_TRUE(becomesTrue([&] { return isLocked(section, kGate); }));  // now it waits for the section itself
  for (int held = 3; held >= 1; --held) {
    EXPECT_EQ(held, section.get_ThreadCount(::pthread_self()));
    EXPECT_TRUE(isLocked(section, kHandle) && at<bool>(section, kLocked));
    lastRelease = held == 1;
    section.Release();
  }
  waiter.join();
  EXPECT_TRUE(inTime);
  for (const std::size_t mutex : {kHandle, kGate, kCountGuard}) EXPECT_FALSE(isLocked(section, mutex));
  EXPECT_FALSE(at<bool>(section, kLocked));
  EXPECT_EQ(2U, at<Counts>(section, kCounts).size());  // entries stay
  for (const auto& [thread, count] : at<Counts>(section, kCounts)) EXPECT_EQ(0, count);
  // Takes the mutex as the first time. The sanitizers tell when it is destroyed locked, or stays.
  for (int i = 0; i < 2; ++i) section.Acquire();
  EXPECT_TRUE(isLocked(section, kHandle));
}

}  // namespace

TEST(CriticalSection, IsFreeOnceReleasedAsOftenAsAcquired) {
  expectFreeAfterTheThirdRelease<PlugInCriticalSection>();
  expectFreeAfterTheThirdRelease<PlugInCriticalSectionExt>();
}

TEST(CriticalSection, IgnoresAReleaseByAThreadThatDoesNotHoldIt) {
  PlugInCriticalSection section;
  PlugInCriticalSectionExt ext;
  section.Release();
  EXPECT_TRUE(at<Counts>(section, kCounts).empty());
  section.Acquire();
  ext.Acquire();
  std::thread([&] {
    section.Release();
    ext.Release();
  }).join();
  EXPECT_TRUE(isLocked(section, kHandle) && isLocked(ext, kHandle));
  EXPECT_EQ(1, at<int>(ext, kAcquisitions));
  section.Release();
  ext.Release();
  for (int i = 0; i < 2; ++i) section.Decrement_ThreadCount(::pthread_self());
  EXPECT_EQ(0, section.get_ThreadCount(::pthread_self()));
  EXPECT_FALSE(isLocked(section, kHandle) || isLocked(ext, kHandle));
}

TEST(CriticalSection, ExtRecordsWhoHoldsItAndCanBeTried) {
  PlugInCriticalSectionExt section;
  EXPECT_EQ(&at<PlugInCriticalSection>(section, kSection), section.AcquireProtect());
  EXPECT_FALSE(section.IsAcquired());
  std::optional<TryLock> whileHeld, thenFree;
  {
    Lock lock(section);
    EXPECT_EQ(&section, at<PlugInCriticalSection*>(lock, 8));
    EXPECT_TRUE(::pthread_equal(::pthread_self(), at<pthread_t>(section, kOwner)));
    {
      TryLock again(section);
      EXPECT_TRUE(again.IsAcquired() && at<bool>(again, 0));
      EXPECT_EQ(&section, at<PlugInCriticalSectionExt*>(again, 8));
      EXPECT_EQ(2, at<int>(section, kAcquisitions));
    }
    std::thread([&] {
      EXPECT_TRUE(section.IsAcquired());
      whileHeld.emplace(section);
      thenFree.emplace(section);
    }).join();
    EXPECT_FALSE(whileHeld->IsAcquired() || thenFree->IsAcquired());
    whileHeld.reset();
    EXPECT_EQ(1, at<int>(section, kAcquisitions));
    EXPECT_TRUE(isLocked(section, kHandle));
  }
  EXPECT_FALSE(isLocked(section, kHandle) || isLocked(section, kSection + kHandle) || section.IsAcquired());
  EXPECT_EQ(pthread_t{}, at<pthread_t>(section, kOwner));
  thenFree.reset();  // a release would stop the process
  std::thread([&] { EXPECT_TRUE(TryLock(section).IsAcquired()); }).join();
  EXPECT_FALSE(section.IsAcquired());
}

TEST(CriticalSectionDeathTest, FailedChecksStopTheProcess) {
  const auto loseSection = [] {
    PlugInCriticalSection section;
    Lock lock(section);
    at<PlugInCriticalSection*>(lock, 8) = nullptr;
  };
  const auto countNegative = [] {
    PlugInCriticalSectionExt section;
    at<int>(section, kAcquisitions) = -1;
    section.IsAcquired();
  };
  const struct {
    const char* operation;
    const char* check;
    void (*fail)();
  } kCases[] = {
      {"Acquire", "tmp==0", [] { sectionOn(makeErrorCheckingMutex(true), 0)->Acquire(); }},
      {"Release", "m_Handle!=NULL", [] { sectionOn(nullptr, 0)->Release(); }},
      {"Release", "tmp==0", [] { sectionOn(makeErrorCheckingMutex(false), 1)->Release(); }},
      {"~PlugInCriticalSection", "m_Handle!=NULL", [] { sectionOn(nullptr, 0).reset(); }},
      {"~Lock", "m_Crit!=NULL", loseSection},
      {"IsAcquired", "m_NumAcquisitions>=0", countNegative},
      {"Release", "m_NumAcquisitions>=0", [] { PlugInCriticalSectionExt().Release(); }},
  };
  for (const auto& c : kCases) {
    EXPECT_DEATH(c.fail(), "\\(" + std::string(c.check) + "\\), function " + c.operation +
                               ", file backend/drivex/common/src/PlugInCriticalSection\\.");
  }
}

TEST(SynchEvent, WaitsAsLongAsAskedAndATimeOutLeavesItsState) {
  using std::chrono::steady_clock;
  const std::clock_t start = std::clock();
  for (const bool manualReset : {false, true}) {
    for (const unsigned int timeoutMs : {0U, 1U, 999U, 1500U}) {
      PlugInSynchEvent event(manualReset, false, "event");
      const std::chrono::milliseconds timeout(timeoutMs);
      const auto begin = steady_clock::now();
      event.WaitForSignal(timeoutMs);
      // The time of day, by which it waits, has a resolution and may be slewed.
      EXPECT_GE(steady_clock::now() - begin, timeout - timeout / 1000.0 - std::chrono::microseconds(1));
      EXPECT_LT(steady_clock::now() - begin, timeout + std::chrono::seconds(5));
      EXPECT_EQ(manualReset ? 1 : 0, at<int>(event, kSignaled));
    }
  }
  EXPECT_LT(std::clock() - start, CLOCKS_PER_SEC / 10);  // asleep, not trying again and again
}

TEST(SynchEvent, KeepsItsStateUntilAWaitOrUnsignalClearsIt) {
  const struct {
    const char* steps;  // Signal, Unsignal, Wait
    int want;
    bool manualReset, signaled;
  } kCases[] = {{"", 1, false, true},    {"W", 0, false, true}, {"SSW", 0, false, false}, {"S", 1, false, false},
                {"USW", 0, false, true}, {"WW", 1, true, true}, {"SWUS", 1, true, false}, {"SWU", 0, true, false}};
  for (const auto& c : kCases) {
    PlugInSynchEvent event(c.manualReset, c.signaled, nullptr);
    for (const char step : std::string(c.steps)) {
      if (step == 'W') event.WaitForSignal();
      if (step != 'W') step == 'S' ? event.Signal() : event.Unsignal();
    }
    EXPECT_EQ(c.want, at<int>(event, kSignaled)) << c.manualReset << c.signaled << c.steps;
    EXPECT_FALSE(isLocked(event, kEventMutex) || isLocked(event, kWaitersLock + kHandle));
  }
}

TEST(SynchEvent, OneThreadAtATimeWaitsForAnAutomaticOne) {
  Gate event;
  std::atomic<bool> signaled = false;
  bool inTime = false;
  std::thread first([&] { event.WaitForSignal(); });
  EXPECT_TRUE(becomesTrue([&] { return isLocked(event, kWaitersLock + kHandle); }));
  std::thread second([&] {
    event.WaitForSignal(1);
    inTime = signaled;
  });
  EXPECT_TRUE(becomesTrue([&] { return isLocked(event, kWaitersLock + kGate); }));
  signaled = true;
  event.Signal();
  first.join();
  second.join();
  EXPECT_TRUE(inTime);
}

TEST(SynchEvent, ARequestLeavesNoReplyEvent) {
  Gate event;
  std::thread replier([&] {
    event.WaitForSignal();
    event.Reply();
  });
  event.SignalAndWaitForReply();
  replier.join();
  for (int round = 0; round < 2; ++round) {
    EXPECT_EQ(nullptr, at<PlugInSynchEvent*>(event, kReplyEvent));
    event.Reply();
    EXPECT_EQ(event.ReplyEvent(), at<PlugInSynchEvent*>(event, kReplyEvent));
    event.SignalAndWaitForReply();  // the reply that came before counts
  }
  EXPECT_EQ(1, at<int>(event, kSignaled));
  event.Reply();
  event.ClearReplyEvent();
  EXPECT_EQ(0, at<int>(*event.ReplyEvent(), kSignaled));
}
