#pragma once

#include <signal.h>

#include <bitset>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

// What is the host's own while foreign code runs in its process: a Java machine that starts, a plug-in.
//
// Of the thread these are the signal mask and the floating-point control; of the process the signal dispositions, the
// locale, the working directory, the file-creation mask, and the files of the standard streams. What cannot be looked
// at is left alone, and so are the signals of faults (SIGSEGV, SIGBUS, SIGFPE, SIGILL) where a Java machine handles
// them: it cannot work without.

// Some of it. The first are the signals' dispositions, by their numbers.
enum HostStateItem {
  kSignalMask = NSIG,
  kRoundingMode,
  kFlushToZero,
  kFloatingPointControl,  // the rest of it
  kLocale,
  kWorkingDirectory,
  kUmask,
  kStandardStream,  // and the two after it
  kHostStateItems = kStandardStream + 3
};
using HostStateItems = std::bitset<kHostStateItems>;

// Of the calling thread: rounding, precision, exception masks and the treatment of denormal numbers, as they are at the
// construction; without the exceptions raised so far.
class FloatingPointControl {
 public:
  FloatingPointControl();

  // REQUIRES: the same thread, as for the next.
  bool IsInForce() const;

  // Puts back what is different, and answers it.
  HostStateItems PutBack() const;

 private:
#if defined(__x86_64__)
  unsigned m_x87;
  unsigned m_sse;
#elif defined(__aarch64__)
  unsigned long long m_fpcr;
#else
  int m_rounding;
#endif
};

// A call of foreign code, which may change the locale for as long as it lasts, as R does for each block: what another
// thread finds meanwhile is not the host's. Calls within a call on the same thread do not count.
class ForeignCall {
 public:
  enum class Kind { kGuarded, kUnguarded };  // whether what it changes of the process is put back in the end

  explicit ForeignCall(Kind kind);
  ~ForeignCall();
  ForeignCall(const ForeignCall&) = delete;
  ForeignCall& operator=(const ForeignCall&) = delete;

  static bool IsOutermostHere();

  // How many unguarded calls have begun and ended.
  static std::uint64_t UnguardedEvents();

  // When no thread has a call, the locale becomes what it was before the first of them.
  static void PutBackLocaleInTheEnd();

 private:
  const Kind m_kind;
};

// Guards all of it for a scope, which begins and ends on the same thread, and traces what was changed in it. Guards on
// several threads share what the first of them found, and the last to end puts it back. Where unguarded calls on other
// threads have begun or ended meanwhile, the locale is put back when all calls have ended, and working directory and
// umask, which may be theirs, are left. Without memory for it what belongs to the process goes unguarded: foreign code
// that ends something has to run all the same.
class HostStateGuard {
 public:
  enum class OnChange {
    kPutBack,
    kLeave,  // but for the floating-point control, which is put back all the same
  };

  // `what` runs in the scope; a literal, for the trace. The names of what was changed go to `names` in the end, each
  // once, unless that is null.
  explicit HostStateGuard(const char* what, OnChange onChange = OnChange::kPutBack,
                          std::vector<std::string>* names = nullptr);
  ~HostStateGuard();
  HostStateGuard(const HostStateGuard&) = delete;
  HostStateGuard& operator=(const HostStateGuard&) = delete;

 private:
  class Process;

  std::shared_ptr<const Process> Find() const;
  void EndOfProcess(HostStateItems& putBack, HostStateItems& left);

  const ForeignCall m_call;  // the last to end
  const char* const m_what;
  const OnChange m_onChange;
  std::vector<std::string>* const m_names;
  const bool m_isShared;
  std::shared_ptr<const Process> m_process;  // null: unguarded
  sigset_t m_mask{};
  const FloatingPointControl m_floatingPoint;
};

// Guards the floating-point control, which takes no system call: cheap enough for every block.
class FloatingPointGuard {
 public:
  FloatingPointGuard(const char* what, std::vector<std::string>* names) : m_what(what), m_names(names) {}
  ~FloatingPointGuard();
  FloatingPointGuard(const FloatingPointGuard&) = delete;
  FloatingPointGuard& operator=(const FloatingPointGuard&) = delete;

 private:
  const ForeignCall m_call{ForeignCall::Kind::kUnguarded};
  const char* const m_what;
  std::vector<std::string>* const m_names;
  const FloatingPointControl m_floatingPoint;
};
