#include "childprocess.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <stdexcept>
#include <utility>

extern char** environ;  // NOLINT(readability-redundant-declaration): macOS declares it nowhere

namespace {

constexpr int kLongestWaitMs = 60000;

struct Pipe {
  int readEnd = -1;
  int writeEnd = -1;
};

Pipe MakePipe() {
  std::array<int, 2> ends{};
  if (::pipe(ends.data()) != 0) throw std::runtime_error("cannot make a pipe");
  for (const int end : ends) ::fcntl(end, F_SETFD, FD_CLOEXEC);
  return {ends[0], ends[1]};
}

void Close(int& descriptor) {
  if (descriptor != -1) ::close(std::exchange(descriptor, -1));
}

pid_t Spawn(const std::vector<std::string>& command, const std::array<int, 3>& streams) {
  std::vector<char*> argv;
  argv.reserve(command.size() + 1);
  for (const std::string& argument : command) argv.push_back(const_cast<char*>(argument.c_str()));
  argv.push_back(nullptr);

  posix_spawn_file_actions_t actions;
  ::posix_spawn_file_actions_init(&actions);
  for (int i = 0; i < 3; ++i) ::posix_spawn_file_actions_adddup2(&actions, streams[static_cast<std::size_t>(i)], i);

  posix_spawnattr_t attributes;
  ::posix_spawnattr_init(&attributes);
  sigset_t signals;
  ::sigemptyset(&signals);
  ::posix_spawnattr_setsigmask(&attributes, &signals);
  for (const int signal : {SIGINT, SIGTERM, SIGPIPE}) ::sigaddset(&signals, signal);
  ::posix_spawnattr_setsigdefault(&attributes, &signals);
  ::posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF);

  pid_t pid = -1;
  const int error = ::posix_spawn(&pid, argv[0], &actions, &attributes, argv.data(), environ);
  ::posix_spawn_file_actions_destroy(&actions);
  ::posix_spawnattr_destroy(&attributes);
  if (error != 0) throw std::runtime_error("cannot start " + command[0] + ": " + std::strerror(error));
  return pid;
}

int CountOf(const std::string& text, const std::string& part) {
  int count = 0;
  for (std::size_t at = 0; (at = text.find(part, at)) != std::string::npos; at += part.size()) ++count;
  return count;
}

}  // namespace

ChildProcess::ChildProcess(const std::vector<std::string>& command) {
  Pipe input = MakePipe();
  std::array<Pipe, 2> outputs{MakePipe(), MakePipe()};
  m_pid = Spawn(command, {input.readEnd, outputs[0].writeEnd, outputs[1].writeEnd});
  Close(input.readEnd);
  m_input = input.writeEnd;
  for (std::size_t i = 0; i < outputs.size(); ++i) {
    Close(outputs[i].writeEnd);
    m_output[i] = outputs[i].readEnd;
  }
}

ChildProcess::~ChildProcess() {
  if (m_pid != -1) {
    ::kill(m_pid, SIGKILL);
    (void)Reap();
  }
  Close(m_input);
  for (int& output : m_output) Close(output);
}

void ChildProcess::Write(const std::string& text) {
  // What a test writes fits into the pipe.
  if (::write(m_input, text.data(), text.size()) != static_cast<ssize_t>(text.size())) Fail("cannot write to it");
}

void ChildProcess::CloseInput() { Close(m_input); }

void ChildProcess::Signal(int signal) {
  if (::kill(m_pid, signal) != 0) Fail("cannot signal it");
}

void ChildProcess::AwaitOutput(const std::string& text, int times) {
  while (CountOf(Out(), text) < times) {
    if (!ReadSome()) Fail("its output ended before \"" + text + "\" had come");
  }
}

int ChildProcess::Wait() {
  CloseInput();
  while (ReadSome()) {
  }
  return Reap();
}

bool ChildProcess::ReadSome() {
  std::array<pollfd, 2> polls{{{m_output[0], POLLIN, 0}, {m_output[1], POLLIN, 0}}};  // a closed one, -1, is left out
  if (m_output[0] == -1 && m_output[1] == -1) return false;
  const int ready = ::poll(polls.data(), polls.size(), kLongestWaitMs);
  if (ready == 0) Fail("nothing happened for a minute");
  if (ready == -1 && errno != EINTR) Fail("cannot wait for it");
  for (std::size_t i = 0; i < polls.size() && ready > 0; ++i) {
    if (polls[i].revents == 0) continue;
    std::array<char, 4096> piece;
    const ssize_t count = ::read(m_output[i], piece.data(), piece.size());
    if (count > 0) m_text[i].append(piece.data(), static_cast<std::size_t>(count));
    if (count == 0) Close(m_output[i]);
  }
  return true;
}

int ChildProcess::Reap() {
  int status = 0;
  while (::waitpid(m_pid, &status, 0) == -1 && errno == EINTR) {
  }
  m_pid = -1;
  return WIFSIGNALED(status) ? -WTERMSIG(status) : WEXITSTATUS(status);
}

void ChildProcess::Fail(const std::string& reason) {
  if (m_pid != -1) ::kill(m_pid, SIGKILL);
  throw std::runtime_error(reason + "\nstandard output:\n" + Out() + "\nstandard error:\n" + Err());
}
