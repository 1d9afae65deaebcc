#include <fcntl.h>
#include <signal.h>
#include <string.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/types.h>
#include <sys/wait.h>
#include <unistd.h>
#ifdef __linux__
#include <sys/prctl.h>
#endif

#include <algorithm>
#include <array>
#include <cerrno>
#include <csignal>
#include <filesystem>
#include <fstream>
#include <optional>
#include <thread>
#include <vector>

#include "certify.h"
#include "otherprocess.h"
#include "problem.h"
#include "report.h"
#include "vexadx_codes.h"

namespace fs = std::filesystem;

namespace certify {

namespace {

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;

constexpr auto kLook = 2ms;

volatile std::sig_atomic_t gEndingSignal = 0;

// The signals that end it all, and what was done with them before they were noted.
struct Ending {
  int signal;
  struct sigaction before;
};
std::array<Ending, 2> gEndings{{{SIGINT, {}}, {SIGTERM, {}}}};

void forgetSignals() {
  for (const Ending& ending : gEndings) (void)::sigaction(ending.signal, &ending.before, nullptr);
}

// What the process of a rule tells, in memory that it shares with its parent: it may end at any moment.
struct Notes {
  enum State : int { kRunning, kKept, kBroken, kNotExamined };
  int state;
  char step[256];
  char detail[1024];
};

Notes* gNotes = nullptr;

template <std::size_t size>
void put(char (&destination)[size], const std::string& text) {
  const std::size_t length = std::min(text.size(), size - 1);
  std::copy_n(text.begin(), length, destination);
  destination[length] = '\0';
}

Notes& sharedNotes() {
  if (!gNotes) {
    void* const memory = ::mmap(nullptr, sizeof(Notes), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    if (memory == MAP_FAILED) {
      throw Problem(kNotStarted, std::string("no memory can be shared: ") + ::strerror(errno), "end other programs");
    }
    gNotes = new (memory) Notes{};
  }
  *gNotes = {};
  return *gNotes;
}

// Where processes that lose their parent go: here they are found, and ended.
void adoptOrphans() {
#ifdef __linux__
  (void)::prctl(PR_SET_CHILD_SUBREAPER, 1);
#endif
}

void endWithParent() {
#ifdef __linux__
  (void)::prctl(PR_SET_PDEATHSIG, SIGKILL);
#endif
}

void sendStream(int stream, const char* path, int flags) {
  const int file = ::open(path, flags | O_CLOEXEC, 0600);
  if (file == -1) return;
  (void)::dup2(file, stream);
  (void)::close(file);
}

std::string fileOfWords(const Subject& subject) { return subject.pipes + "words"; }

// A group of its own, so that whoever ends that does not end vexadx, and streams that are nobody's.
void standAlone(const Subject& subject) {
  (void)::setpgid(0, 0);
  endWithParent();
  adoptOrphans();
  sendStream(STDIN_FILENO, "/dev/null", O_RDONLY);
  sendStream(STDOUT_FILENO, fileOfWords(subject).c_str(), O_WRONLY | O_CREAT | O_APPEND);
  (void)::dup2(STDOUT_FILENO, STDERR_FILENO);
  const std::string directory = subject.pipes + "work";
  if (::mkdir(directory.c_str(), 0700) == 0) (void)!::chdir(directory.c_str());
}

void conclude(Notes& notes, Notes::State state, const std::string& detail) {
  put(notes.detail, detail);
  notes.state = state;
}

[[noreturn]] void examineHere(const Rule& rule, const Subject& subject, Notes& notes) {
  standAlone(subject);
  try {
    conclude(notes, Notes::kKept, rule.examine(subject));
  } catch (const Broken& broken) {
    conclude(notes, Notes::kBroken, broken.what());
  } catch (const NotExamined& notExamined) {
    conclude(notes, Notes::kNotExamined, notExamined.what());
  } catch (const std::exception& other) {
    conclude(notes, Notes::kBroken, std::string("the examination failed: ") + other.what());
  }
  ::_exit(0);
}

// How the process ended; nothing when it had to be ended, for its time was over or a signal has come.
std::optional<int> awaitEnd(pid_t process, std::chrono::milliseconds atMost) {
  const Clock::time_point end = Clock::now() + atMost;
  int status = 0;
  while (::waitpid(process, &status, WNOHANG) != process) {
    if (Clock::now() > end || gEndingSignal != 0) {
      (void)::kill(process, SIGKILL);
      (void)::waitpid(process, &status, 0);
      return std::nullopt;
    }
    std::this_thread::sleep_for(kLook);
  }
  return status;
}

// The processes whose parent this one is.
std::vector<pid_t> children() {
  std::vector<pid_t> found;
  std::error_code ignored;
  for (const fs::directory_entry& entry : fs::directory_iterator("/proc", ignored)) {
    std::ifstream file(entry.path() / "stat");
    pid_t process = 0;
    pid_t parent = 0;
    std::string rest;
    if (!(file >> process) || !std::getline(file, rest)) continue;
    const std::size_t name = rest.rfind(')');  // which may hold blanks and brackets
    if (name == std::string::npos || rest.size() < name + 4) continue;
    parent = std::atoi(rest.c_str() + name + 4);
    if (parent == ::getpid()) found.push_back(process);
  }
  return found;
}

// Those of a child that is ended come here next.
void endChildren() {
  for (std::vector<pid_t> left = children(); !left.empty(); left = children()) {
    for (const pid_t process : left) {
      (void)::kill(process, SIGKILL);
      (void)::waitpid(process, nullptr, 0);
    }
  }
}

std::string lastLine(const std::string& path) {
  std::ifstream file(path);
  std::string last;
  for (std::string line; std::getline(file, line);) {
    if (!line.empty()) last = line;
  }
  return last;
}

std::string withStep(const std::string& what, const Notes& notes) {
  return *notes.step == '\0' ? what : what + " while " + notes.step;
}

std::string endOf(int status) {
  if (WIFEXITED(status)) return "the process ended with exit status " + std::to_string(WEXITSTATUS(status));
  return std::string("the process was ended by a signal (") + ::strsignal(WTERMSIG(status)) + ")";
}

Finding findingOf(const Notes& notes, std::optional<int> status, std::chrono::milliseconds atMost) {
  using Result = Finding::Result;
  if (!status && gEndingSignal != 0) return {Result::kNotExamined, "a signal ended the examination"};
  if (!status) {
    return {Result::kBroken, withStep("nothing more came within " + std::to_string(atMost.count()) + " ms", notes)};
  }
  switch (notes.state) {
    case Notes::kKept:
      return {Result::kKept, notes.detail};
    case Notes::kBroken:
      return {Result::kBroken, notes.detail};
    case Notes::kNotExamined:
      return {Result::kNotExamined, notes.detail};
    default:
      return {Result::kBroken, withStep(endOf(*status), notes)};
  }
}

}  // namespace

Finding Examine(const Rule& rule, const Subject& subject, std::chrono::milliseconds atMost) {
  Notes& notes = sharedNotes();
  adoptOrphans();
  fs::create_directories(subject.pipes);
  const pid_t process = ::fork();
  if (process == 0) {
    forgetSignals();
    examineHere(rule, subject, notes);
  }
  if (process == -1) return {Finding::Result::kNotExamined, std::string("no process: ") + ::strerror(errno)};
  Finding finding = findingOf(notes, awaitEnd(process, atMost), atMost);
  endChildren();
  if (finding.result == Finding::Result::kBroken) {
    const std::string words = lastLine(fileOfWords(subject));
    if (!words.empty()) finding.detail += "; the last it wrote: " + words;
  }
  std::error_code ignored;
  fs::remove_all(subject.pipes, ignored);
  return finding;
}

void NoteSignals() {
  struct sigaction note {};
  note.sa_handler = [](int signal) { gEndingSignal = signal; };
  for (Ending& ending : gEndings) {
    (void)::sigaction(ending.signal, nullptr, &ending.before);
    if (ending.before.sa_handler != SIG_IGN) (void)::sigaction(ending.signal, &note, nullptr);
  }
}

int EndingSignal() { return gEndingSignal; }

void Note(const std::string& step) { put(gNotes->step, step); }

void Require(bool isSo, const std::string& otherwise) {
  if (!isSo) throw Broken(otherwise);
}

namespace {

struct Cost {
  std::size_t descriptors;
  long bytes;
};

Cost costOf(pid_t process) {
  const auto descriptors = otherprocess::Descriptors(process);
  const auto bytes = otherprocess::ResidentBytes(process);
  if (!descriptors || !bytes) throw NotExamined("the system does not tell what the process has");
  return {descriptors->size(), *bytes};
}

}  // namespace

// What is lost is lost again and again; what a collector of garbage has not yet found is not. Slow runs are fewer.
std::string RequireFlat(pid_t process, const std::function<void()>& run) {
  constexpr int kRuns = 1'000;
  constexpr std::chrono::milliseconds kTime{1'500};
  constexpr long kGrowth = 1L << 20;
  Cost costs[3];
  int runs = kRuns;
  for (Cost& cost : costs) {
    const Clock::time_point end = Clock::now() + kTime;
    int done = 0;
    for (; done < runs && (done == 0 || Clock::now() < end); ++done) run();
    runs = done;
    cost = costOf(process);
  }
  const std::string what = std::to_string(runs) + " runs cost ";
  Require(costs[2].descriptors <= costs[1].descriptors || costs[1].descriptors <= costs[0].descriptors,
          what + std::to_string(costs[2].descriptors - costs[1].descriptors) + " descriptors");
  const long grown = std::min(costs[2].bytes - costs[1].bytes, costs[1].bytes - costs[0].bytes) / 1024;
  Require(grown <= kGrowth / 1024, what + std::to_string(grown) + " KiB");
  return grown > 0 ? what + std::to_string(grown) + " KiB" : "";
}

void RequireSuccess(int code, const std::string& when) {
  Require(code == vexadx::kSuccess, "code " + std::to_string(code) + " (" + Meaning(code) + ") came " + when);
}

}  // namespace certify
