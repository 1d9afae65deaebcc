#include "turn.h"

#include <pthread.h>

#include <algorithm>
#include <atomic>
#include <clocale>
#include <cstddef>
#include <cstdint>
#include <mutex>
#include <string>
#include <thread>

#include "embeddedr.h"
#include "host.h"

namespace vexar {
namespace {

// What R leaves of a stack to what does not check, such as the printing of the error itself: a share of it, and on a
// small stack no less than a few of R's buffers of 8 KiB.
constexpr std::size_t kUncheckedShare = 20;
constexpr std::size_t kUncheckedLeast = 128UL * 1024;
constexpr auto kNoLimit = static_cast<std::uintptr_t>(-1);

std::mutex gTurn;
thread_local bool tHasTurn = false;

// R's own, empty before its start, and the host's. Guarded by gTurn; never destroyed, as blocks may run to the end.
std::string& gLocale = *new std::string;
std::string& gHostLocale = *new std::string;

void copyLocale(std::string& to) {
  if (const char* const locale = std::setlocale(LC_ALL, nullptr); to != locale) to = locale;
}

void takeLocale() {
  if (plugin::IsProcessOfLanguage()) return;
  copyLocale(gHostLocale);
  if (gLocale.empty()) {
    (void)std::setlocale(LC_NUMERIC, "C");  // as R expects, which sets the others itself when it starts
  } else if (gLocale != gHostLocale) {
    (void)std::setlocale(LC_ALL, gLocale.c_str());
  }
}

void giveLocaleBack() {
  if (plugin::IsProcessOfLanguage()) return;
  copyLocale(gLocale);
  if (gLocale != gHostLocale) (void)std::setlocale(LC_ALL, gHostLocale.c_str());
}

struct Stack {
  std::uintptr_t top;
  std::size_t size;  // 0 when it is not known
};

Stack stackOfThread() {
#ifdef __APPLE__
  const pthread_t self = ::pthread_self();
  return {reinterpret_cast<std::uintptr_t>(::pthread_get_stackaddr_np(self)), ::pthread_get_stacksize_np(self)};
#else
  pthread_attr_t attributes;
  if (::pthread_getattr_np(::pthread_self(), &attributes) != 0) return {0, 0};
  void* bottom = nullptr;
  std::size_t size = 0;
  (void)::pthread_attr_getstack(&attributes, &bottom, &size);
  (void)::pthread_attr_destroy(&attributes);
  return {reinterpret_cast<std::uintptr_t>(bottom) + size, size};
#endif
}

std::uintptr_t usable(std::size_t size) {
  return size - std::max(size / kUncheckedShare, std::min(kUncheckedLeast, size / 2));
}

// Shared with InterruptBlock, which may be a signal handler. A target says first that it is none any more and then
// waits until no call is under way.
std::atomic<int> gCallsUnderWay{0};
std::atomic<bool> gIsRunning{false};
std::atomic<bool> gIsHit{false};
static_assert(std::atomic<int>::is_always_lock_free && std::atomic<bool>::is_always_lock_free);

}  // namespace

Turn::Turn() : m_lock(gTurn) {
  ::pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &m_cancelState);
  tHasTurn = true;
  CheckThisStack();
  takeLocale();
}

Turn::~Turn() {
  giveLocaleBack();
  tHasTurn = false;
  ::pthread_setcancelstate(m_cancelState, nullptr);
}

bool Turn::IsHere() { return tHasTurn; }

void Turn::CheckThisStack() {
  thread_local const Stack stack = stackOfThread();  // it takes long on the main thread
  const auto here = reinterpret_cast<std::uintptr_t>(__builtin_frame_address(0));
  // A host may run its code on stacks of its own making.
  const bool isOnIt = here < stack.top && stack.top - here <= stack.size;
  R_CStackStart = stack.top;
  R_CStackLimit = isOnIt ? usable(stack.size) : kNoLimit;
}

InterruptTarget::InterruptTarget() {
  gIsHit = false;
  gIsRunning = true;
}

InterruptTarget::~InterruptTarget() {
  gIsRunning = false;
  while (gCallsUnderWay > 0) std::this_thread::yield();
  PendingInterrupt() = 0;
}

bool InterruptTarget::IsHit() const { return gIsHit; }

void InterruptBlock() {
  ++gCallsUnderWay;
  if (gIsRunning) {
    gIsHit = true;
    PendingInterrupt() = 1;
  }
  --gCallsUnderWay;
}

}  // namespace vexar
