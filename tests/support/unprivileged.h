#pragma once

#include <sys/types.h>
#include <unistd.h>
#ifdef __linux__
#include <sys/prctl.h>
#include <sys/syscall.h>
#endif

// While it lives the calling thread, and what it starts, has the rights of a user with nothing but the test's number
// in common. Without the superuser's rights it has few enough already, and stays what it is.
class Unprivileged {
 public:
#ifdef __linux__
  // By the system call: the library's function is one for all threads.
  Unprivileged() { become(User()); }
  ~Unprivileged() {
    if (!m_isSuperuser) return;
    become(0);
    (void)::prctl(PR_SET_DUMPABLE, 1);  // which a sanitizer's look for leaks needs
  }
#else
  Unprivileged() = default;
#endif
  Unprivileged(const Unprivileged&) = delete;
  Unprivileged& operator=(const Unprivileged&) = delete;

  // Nobody else's processes count as its own.
  static uid_t User() { return 1'000'000 + static_cast<uid_t>(::getpid()); }

 private:
#ifdef __linux__
  void become(uid_t user) const {
    if (m_isSuperuser) (void)::syscall(SYS_setresuid, user, user, -1);
  }

  const bool m_isSuperuser = ::geteuid() == 0;
#endif
};
