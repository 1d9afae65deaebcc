#pragma once

#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <functional>
#include <utility>

// The other process of a test: a copy of this one, which never outlives the test, nor a minute.
class ForkedPeer {
 public:
  // Its exit status is what the work answers.
  explicit ForkedPeer(const std::function<int()>& work) : m_pid(::fork()) {
    if (m_pid != 0) return;
    ::alarm(60);
    ::_exit(work());
  }
  ~ForkedPeer() {
    if (m_pid <= 0) return;
    Kill();
    (void)Wait();
  }
  ForkedPeer(const ForkedPeer&) = delete;
  ForkedPeer& operator=(const ForkedPeer&) = delete;

  void Kill() const { ::kill(m_pid, SIGKILL); }

  // Answers its exit status, or the negative number of the signal that ended it.
  int Wait() {
    int status = -1;
    ::waitpid(std::exchange(m_pid, -1), &status, 0);
    return WIFEXITED(status) ? WEXITSTATUS(status) : -WTERMSIG(status);
  }

 private:
  pid_t m_pid;
};
