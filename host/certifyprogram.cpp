#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/types.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <functional>
#include <future>
#include <memory>
#include <string_view>
#include <thread>
#include <utility>
#include <vector>

#include "asycspipe1.h"
#include "certify.h"
#include "clexdsmb.h"
#include "dxglobals.h"
#include "framing.h"
#include "otherprocess.h"
#include "outpstatisticsx.h"
#include "vexadx_bytes.h"
#include "vexadx_codes.h"
#include "vexadx_process.h"
#include "vexadxconfigreader.h"
#include "xcmdargument.h"
#include "xpipemanager.h"

namespace fs = std::filesystem;

namespace certify {

namespace {

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;

constexpr auto kAnswer = 1s;     // to a command, also while a block executes
constexpr auto kEnd = 2s;        // of a process that was told to, or whose host has gone
constexpr auto kSlack = 500ms;   // of a busy machine
constexpr auto kInterrupt = 5s;  // of a block
constexpr auto kUnderWay = 300ms;
constexpr auto kLook = 2ms;

bool becomesTrue(milliseconds atMost, const std::function<bool()>& isSo) {
  const Clock::time_point end = Clock::now() + atMost;
  while (!isSo()) {
    if (Clock::now() > end) return false;
    std::this_thread::sleep_for(kLook);
  }
  return true;
}

// What is done on a thread of its own. One that does not end is left to the end of this process.
class Doing {
 public:
  explicit Doing(const std::function<int()>& work) {
    std::packaged_task<int()> task(work);
    m_code = task.get_future();
    std::thread(std::move(task)).detach();
  }

  bool IsOver(milliseconds atMost) const { return m_code.wait_for(atMost) == std::future_status::ready; }
  int Code() { return m_code.get(); }

 private:
  std::future<int> m_code;
};

// The code of what has to be over in time.
int within(milliseconds atMost, const std::string& what, const std::function<int()>& work) {
  Note(what);
  Doing doing(work);
  Require(doing.IsOver(atMost), "nothing came within " + std::to_string(atMost.count()) + " ms while " + what);
  return doing.Code();
}

// The X as a host drives it, without a registry: a run is begun and ended here.
class X {
 public:
  explicit X(const Subject& subject)
      : m_subject(subject),
        m_pipes(subject.pipes, std::to_string(::getpid())),
        m_prefix(subject.pipes + m_pipes.getPipePid() + subject.engine) {
    (void)::setenv("VEXA_HOME", subject.home.c_str(), 1);
    (void)::setenv("TMPDIR", (subject.pipes + "work").c_str(), 1);
    SetVEXAHOME(subject.home.c_str());
    SetXPipeManager(&m_pipes);
    Suit().increaseIndex();
    m_engine = std::make_unique<OutpStatisticsX>(VexaDXConfigReader::GetInstance(subject.engine), 1, true);
  }

  XPipeSuit& Suit() { return *m_pipes.getPipeSuit(m_subject.engine); }
  DXCmdDispatcher& Commands() { return *Suit().getCmdDispatcher(false); }
  VexaPipe& Results() { return *Suit().getXPipes()->GetSyntaxResultPipe(); }
  std::string File(const std::string& name) const { return m_prefix + name; }
  void ForgetPipes() { m_pipes.removePipeSuit(m_subject.engine); }

  void Start() {
    Note("it was started");
    const int code = m_engine->init_embedded_x(0, nullptr);
    m_process = vexadx::ProcessOf(*m_engine).id;
    RequireSuccess(code, "when it was started" + ownEnd());
  }

  int Begin() {
    return noted("a run began", [this] { return m_engine->pre_action(); });
  }
  int End() {
    return noted("a run ended", [this] { return m_engine->post_action(); });
  }
  int Execute(std::string block) {
    return noted("a block was executed", [&] { return m_engine->execute_x(block.data()); });
  }
  int Stop() {
    return noted("it was stopped", [this] { return m_engine->stop_embedded_x(); });
  }
  int CheckReady() {
    return within(kAnswer + kSlack, "a ready check was to be answered",
                  [this] { return Commands().sendCmd(DXCmdDispatcher::kPingDX); });
  }

  void Run() {
    RequireSuccess(Begin(), "when a run began");
    RequireSuccess(Execute(m_subject.block), "from a block");
    RequireSuccess(End(), "when a run ended");
  }

  // Within a run; answers when it is being executed.
  Doing ExecuteEndlessly() {
    if (m_subject.endlessBlock.empty()) throw NotExamined("no endless block is known: --endless-block TEXT");
    Doing doing([this] { return m_engine->execute_x(std::string(m_subject.endlessBlock).data()); });
    Require(!doing.IsOver(kUnderWay), "the block that should be endless ended");
    return doing;
  }

  // As at a terminal: whoever it has started gets the signal too.
  void Signal(int signal) const {
    if (::kill(-m_process, signal) != 0) (void)::kill(m_process, signal);
  }

  pid_t Process() const { return m_process; }
  bool HasEnded() { return vexadx::ProcessOf(*m_engine).hasEnded; }
  void RequireEnd(const std::string& when) {
    Note("it was to end " + when);
    Require(becomesTrue(kEnd + kSlack, [this] { return HasEnded(); }), "it did not end within 2 s " + when);
  }
  int EndStatus() { return vexadx::ProcessOf(*m_engine).status; }

 private:
  template <typename Work>
  static int noted(const char* what, Work work) {
    Note(what);
    return work();
  }

  std::string ownEnd() {
    const vexadx::XProcess process = vexadx::ProcessOf(*m_engine);
    if (!process.hasEnded || process.status == -1 || !WIFEXITED(process.status)) return "";
    return "; its process ended with exit status " + std::to_string(WEXITSTATUS(process.status));
  }

  const Subject& m_subject;
  XPipeManager m_pipes;
  const std::string m_prefix;
  std::unique_ptr<OutpStatisticsX> m_engine;
  pid_t m_process = -1;
};

// An X that has been started. It, and what it refers to, lives to the end of this process, as calls that do not return
// use it.
X& startedX(const Subject& subject) {
  X& x = *new X(subject);
  x.Start();
  return x;
}

std::string ready(const Subject& subject) {
  const Clock::time_point begin = Clock::now();
  (void)startedX(subject);
  return std::to_string(std::chrono::duration_cast<milliseconds>(Clock::now() - begin).count()) + " ms";
}

std::string wrongUsage(const Subject& subject) {
  (void)::setenv("VEXA_HOME", subject.home.c_str(), 1);
  const std::vector<std::string> commandLines[] = {{}, {"LOCAL"}, {"LOCAL", "/"}};
  for (const std::vector<std::string>& commandLine : commandLines) {
    XCmdArgument arguments;
    arguments.pushArgument(subject.file, false);
    for (const std::string& argument : commandLine) arguments.pushArgument(argument, false);
    char* const* const argv = arguments.argv();
    const std::string what = std::string("it was started as") + arguments.cmdline();
    Note(what);
    const pid_t process = ::fork();
    if (process == 0) {
      (void)::execv(subject.file.c_str(), argv);
      ::_exit(0);
    }
    int status = 0;
    Require(becomesTrue(kInterrupt, [&] { return ::waitpid(process, &status, WNOHANG) == process; }),
            "it did not end when " + what);
    Require(WIFEXITED(status) && WEXITSTATUS(status) != 0,
            (WIFEXITED(status) ? "it ended with status 0 when " : "it was ended by a signal when ") + what);
  }
  return "";
}

std::string ownGroup(const Subject& subject) {
  const X& x = startedX(subject);
  Require(::getpgid(x.Process()) == x.Process(), "it is in the group of its host");
  return "";
}

std::string run(const Subject& subject) {
  startedX(subject).Run();
  return "";
}

// The other order deadlocks: whoever opens a pipe waits for the other end.
std::string answersBegin(const Subject& subject) {
  X& x = startedX(subject);
  (void)x.Results().CreatePipe();
  const int code = within(kEnd, "the beginning of a run was to be answered, before anybody opened the result pipe",
                          [&x] { return x.Commands().sendCmd(DXCmdDispatcher::kSetupRunDX); });
  RequireSuccess(code, "when a run began");
  struct stat status {};
  Require(::stat(x.File("0syntax").c_str(), &status) == 0 && S_ISFIFO(status.st_mode),
          "there is no block pipe when the beginning of a run has been answered");
  CleXDSmb reply;
  RequireSuccess(
      within(kEnd, "the result of the pre-action was to come", [&] { return ReceiveData(&x.Results(), reply, true); }),
      "from the pre-action");
  return "";
}

std::string runsAgain(const Subject& subject) {
  X& x = startedX(subject);
  for (int i = 0; i < 3; ++i) x.Run();
  return "";
}

std::string keepsPipes(const Subject& subject) {
  X& x = startedX(subject);
  x.Run();
  RequireSuccess(x.CheckReady(), "from the ready check after a run");  // what it closes after the answer, it has closed
  const auto descriptors = otherprocess::Descriptors(x.Process());
  if (!descriptors) throw NotExamined("the system does not tell which pipes it has open");
  for (const char* name : {"0syntax", "0syntaxresult"}) {
    Require(std::ranges::find(*descriptors, fs::canonical(x.File(name)).string()) != descriptors->end(),
            std::string("it closed its pipe \"") + name + "\" after a run");
  }
  return "";
}

std::string staysFlat(const Subject& subject) {
  X& x = startedX(subject);
  return RequireFlat(x.Process(), [&x] { x.Run(); });
}

std::string staysIdle(const Subject& subject) {
  constexpr auto kWatched = 1s;
  constexpr double kMost = 0.05;
  X& x = startedX(subject);
  x.Run();
  const auto before = otherprocess::ProcessorSeconds(x.Process());
  if (!before) throw NotExamined("the system does not tell its processor time");
  std::this_thread::sleep_for(kWatched);
  const double used = otherprocess::ProcessorSeconds(x.Process()).value_or(*before) - *before;
  Require(used <= kMost, "it used " + std::to_string(used) + " s of processor time in 1 s between runs");
  return "";
}

std::string takesBlockOf(const Subject& subject, std::size_t bytes) {
  X& x = startedX(subject);
  RequireSuccess(x.Begin(), "when a run began");
  RequireSuccess(x.Execute(subject.block + std::string(bytes, ' ')), "from a block with many blanks");
  RequireSuccess(x.End(), "when a run ended");
  return "";
}

std::string takesLargeBlock(const Subject& subject) { return takesBlockOf(subject, std::size_t{1} << 20); }

std::string takesHugeBlock(const Subject& subject) { return takesBlockOf(subject, std::size_t{64} << 20); }

std::string survivesOddBytes(const Subject& subject) {
  X& x = startedX(subject);
  RequireSuccess(x.Begin(), "when a run began");
  const int code = x.Execute(kOddBlock);
  RequireSuccess(x.End(), "when the run of a block of odd bytes ended");
  x.Run();
  return "the block answered " + std::to_string(code);
}

std::string answersDuringBlock(const Subject& subject) {
  X& x = startedX(subject);
  RequireSuccess(x.Begin(), "when a run began");
  const Doing block = x.ExecuteEndlessly();
  RequireSuccess(x.CheckReady(), "from a ready check during a block");
  return "";
}

std::string isInterrupted(const Subject& subject) {
  X& x = startedX(subject);
  RequireSuccess(x.Begin(), "when a run began");
  Doing block = x.ExecuteEndlessly();
  x.Signal(SIGINT);
  Require(block.IsOver(kInterrupt), "the block went on for 5 s after SIGINT");
  const int code = block.Code();
  Require(!x.HasEnded(), "it ended on SIGINT");
  Require(code != vexadx::kSuccess, "the interrupted block answered 0");
  RequireSuccess(x.End(), "when the run of an interrupted block ended");
  x.Run();
  return "the block answered " + std::to_string(code);
}

// A refusal is an answer.
int beginNested(X& x) {
  x.Suit().increaseIndex();
  return within(kAnswer + kSlack, "the beginning of a nested run was to be answered", [&x] { return x.Begin(); });
}

std::string answersNested(const Subject& subject) {
  X& x = startedX(subject);
  RequireSuccess(x.Begin(), "when a run began");
  const int code = beginNested(x);
  if (code == vexadx::kSuccess) {
    RequireSuccess(x.Execute(subject.block), "from a block of a nested run");
    RequireSuccess(x.End(), "when a nested run ended");
  }
  x.Suit().decreaseIndex();
  RequireSuccess(x.Execute(subject.block), "from a block after a nested run");
  RequireSuccess(x.End(), "when a run ended that another was nested in");
  return code == vexadx::kSuccess ? "it ran" : "it was refused with " + std::to_string(code);
}

std::string answersNestedDuringBlock(const Subject& subject) {
  X& x = startedX(subject);
  RequireSuccess(x.Begin(), "when a run began");
  const Doing block = x.ExecuteEndlessly();
  const int code = beginNested(x);
  return code == vexadx::kSuccess ? "it began" : "it was refused with " + std::to_string(code);
}

std::string answersUnknownCommand(const Subject& subject) {
  X& x = startedX(subject);
  constexpr auto kUnknown = static_cast<DXCmdDispatcher::CmdKey>(0x4458C0AA);
  const int code = within(kAnswer + kSlack, "a command that nobody knows was to be answered",
                          [&x] { return x.Commands().sendCmd(kUnknown); });
  RequireSuccess(x.CheckReady(), "from the ready check after a command that nobody knows");
  x.Run();
  return "it answered " + std::to_string(code);
}

// An empty message with another number in one place.
std::string messageWith(std::size_t offset, int number) {
  CleXDSmb empty;
  (void)empty.ContructSendData();
  int length = 0;
  const char* const bytes = empty.GetSendBuf(length);
  std::string message(bytes, static_cast<std::size_t>(length));
  vexadx::Store(message.data() + offset, number);
  return message;
}

class Descriptor {
 public:
  Descriptor(const std::string& path, int flags) : m_number(::open(path.c_str(), flags | O_CLOEXEC)) {}
  ~Descriptor() { (void)::close(m_number); }
  Descriptor(const Descriptor&) = delete;
  Descriptor& operator=(const Descriptor&) = delete;

  operator int() const { return m_number; }

 private:
  int m_number;
};

std::string survivesNoMessage(const Subject& subject) {
  constexpr std::size_t kLength = 0;
  constexpr std::size_t kIntegers = 12;
  const std::string messages[] = {messageWith(kLength, 0), messageWith(kLength, 51), messageWith(kLength, -1),
                                  messageWith(kIntegers, -1), messageWith(kIntegers, 0x40000000)};
  X& x = startedX(subject);
  const Descriptor requests(x.File("_s"), O_WRONLY | O_NONBLOCK);
  const Descriptor replies(x.File("_c"), O_RDONLY | O_NONBLOCK);
  int which = 0;
  for (const std::string& message : messages) {
    const std::string number = "malformed message " + std::to_string(++which) + " of 5";
    Note(number + " was to be replied to");
    (void)!::write(requests, message.data(), message.size());
    pollfd reply{replies, POLLIN, 0};
    Require(::poll(&reply, 1, static_cast<int>(milliseconds(kAnswer + kSlack).count())) == 1,
            "no reply came to " + number);
    char bytes[4096];
    (void)!::read(replies, bytes, sizeof bytes);
    Require(!x.HasEnded(), "it ended after " + number);
  }
  RequireSuccess(x.CheckReady(), "from the ready check after malformed messages");
  x.Run();
  return "";
}

std::string stops(const Subject& subject) {
  X& x = startedX(subject);
  x.Run();
  RequireSuccess(x.Stop(), "when it was stopped");
  x.RequireEnd("after the stop");
  const int status = x.EndStatus();
  Require(WIFEXITED(status), "it was ended by a signal after the stop");
  Require(WEXITSTATUS(status) == 0,
          "it ended with exit status " + std::to_string(WEXITSTATUS(status)) + " after the stop");
  return "";
}

// The names in a directory that the host has not made, in a line.
std::string foreignNames(const std::string& directory, const std::vector<std::string>& known) {
  std::string names;
  for (const fs::directory_entry& entry : fs::directory_iterator(directory)) {
    if (std::ranges::find(known, entry.path().string()) != known.end()) continue;
    if (!names.empty()) names += ", ";
    names += entry.path().filename().string();
  }
  return names;
}

void requireNoFiles(const Subject& subject, const std::vector<std::string>& ofHost, const std::string& when) {
  std::vector<std::string> known = ofHost;
  for (const char* name : {"words", "work"}) known.push_back(subject.pipes + name);
  std::string names = foreignNames(subject.pipes, known);
  if (names.empty()) names = foreignNames(subject.pipes + "work", known);
  Require(names.empty(), "it left behind " + when + ": " + names);
}

std::string leavesNoFiles(const Subject& subject) {
  X& x = startedX(subject);
  x.Run();
  RequireSuccess(x.Stop(), "when it was stopped");
  x.RequireEnd("after the stop");
  requireNoFiles(subject, {x.File("_c"), x.File("0syntaxresult")}, "after the stop");
  return "";
}

std::string endsWithItsPipe(const Subject& subject) {
  X& x = startedX(subject);
  x.Run();
  x.ForgetPipes();
  x.RequireEnd("after the host had closed the command pipe");
  return "";
}

// Children of this process, which are also those that have lost their parent.
bool hasNoChildren() {
  while (::waitpid(-1, nullptr, WNOHANG) > 0) {
  }
  return ::waitpid(-1, nullptr, WNOHANG) == -1 && errno == ECHILD;
}

// A host of its own starts the X, so that it can be killed.
[[noreturn]] void beHost(const Subject& subject, bool inBlock, int tell) {
  char told = 'y';
  try {
    X& x = startedX(subject);
    x.Run();
    if (inBlock) {
      RequireSuccess(x.Begin(), "when a run began");
      (void)x.ExecuteEndlessly();
    }
  } catch (const std::exception&) {
    told = 'n';
  }
  (void)!::write(tell, &told, 1);
  for (;;) ::pause();
}

#ifdef __linux__
constexpr bool kOrphansComeHere = true;
#else
constexpr bool kOrphansComeHere = false;
#endif

void killHost(const Subject& subject, bool inBlock) {
  if (!kOrphansComeHere) throw NotExamined("the system does not tell what becomes of processes without a parent");
  int ends[2];
  if (::pipe(ends) != 0) throw NotExamined("there is no pipe");
  for (const int end : ends) (void)::fcntl(end, F_SETFD, FD_CLOEXEC);
  const pid_t host = ::fork();
  if (host == 0) beHost(subject, inBlock, ends[1]);
  (void)::close(ends[1]);
  char told = 'n';
  Note("a host was to be killed");
  if (::read(ends[0], &told, 1) != 1 || told != 'y') throw Broken("it could not be started by another host");
  (void)::kill(host, SIGKILL);
  Note("it was to end after its host had been killed");
  Require(becomesTrue(kEnd + kSlack, &hasNoChildren),
          "it, or what it started, lived on for 2 s after the host was killed");
}

std::string endsWithItsHost(const Subject& subject) {
  killHost(subject, false);
  std::vector<std::string> ofHost;
  for (const fs::directory_entry& entry : fs::directory_iterator(subject.pipes)) {
    const std::string path = entry.path().string();
    if (path.ends_with(subject.engine + "_c") || path.ends_with("0syntaxresult")) ofHost.push_back(path);
  }
  requireNoFiles(subject, ofHost, "when its host was killed");
  return "";
}

std::string endsWithItsHostDuringBlock(const Subject& subject) {
  if (subject.endlessBlock.empty()) throw NotExamined("no endless block is known: --endless-block TEXT");
  killHost(subject, true);
  return "";
}

std::string hearsSignals(const Subject& subject) {
  for (const int signal : {SIGINT, SIGTERM, SIGHUP, SIGPIPE, SIGALRM, SIGUSR1}) (void)::signal(signal, SIG_IGN);
  sigset_t all;
  ::sigfillset(&all);
  ::pthread_sigmask(SIG_SETMASK, &all, nullptr);
  X& x = startedX(subject);
  x.Run();
  for (const auto& [signal, name] : {std::pair(SIGINT, "SIGINT"), std::pair(SIGTERM, "SIGTERM")}) {
    const auto isDeaf = otherprocess::IsDeafTo(x.Process(), signal);
    if (!isDeaf) throw NotExamined("the system does not tell which signals it takes");
    Require(!*isDeaf, std::string("it is deaf to ") + name + " because its host is");
  }
  return "";
}

std::string startsAgain(const Subject& subject) {
  X& x = startedX(subject);
  x.Run();
  RequireSuccess(x.Begin(), "when a run began");
  x.Signal(SIGKILL);
  x.RequireEnd("when it was killed");
  (void)x.Stop();
  x.Start();
  x.Run();
  return "";
}

constexpr const char* kReady = "ready";
constexpr const char* kRun = "run";
constexpr const char* kStop = "stop";

constexpr Rule kProgramRules[] = {
    {kReady, "It makes its command pipe and answers the ready check with 0.", nullptr, &ready},
    {"usage", "It ends with a status other than 0 when its command line is wrong.", nullptr, &wrongUsage},
    {"group", "It leads a process group of its own.", kReady, &ownGroup},
    {"order", "It makes its block pipe, then answers the beginning of a run, and then opens the result pipe.", kReady,
     &answersBegin},
    {kRun, "It answers a run with 0: its beginning, a block and its end.", kReady, &run},
    {"runs", "More runs follow in the same process.", kRun, &runsAgain},
    {"pipes", "It keeps the pipes of a run open for the next.", kRun, &keepsPipes},
    {"flat", "Runs by the thousand cost it neither descriptors nor memory.", kRun, &staysFlat},
    {"idle", "It uses no processor time while nothing is asked of it.", kRun, &staysIdle},
    {"large-block", "It takes a block of 1 MiB.", kRun, &takesLargeBlock},
    {"huge-block", "It takes a block of 64 MiB.", kRun, &takesHugeBlock},
    {"odd-block", "A block of bytes that are no text gets a code, and the next block runs.", kRun, &survivesOddBytes},
    {"ready-in-block", "It answers the ready check while a block executes.", kRun, &answersDuringBlock},
    {"interrupt", "SIGINT ends an endless block with a code other than 0, and the next block runs.", kRun,
     &isInterrupted},
    {"nested", "A nested run runs, or is refused with a code at once.", kRun, &answersNested},
    {"nested-in-block", "So is one that begins while a block executes.", kRun, &answersNestedDuringBlock},
    {"unknown-command", "A command that it does not know is answered, and it goes on.", kRun, &answersUnknownCommand},
    {"malformed", "What is no message is replied to, and it goes on.", kRun, &survivesNoMessage},
    {"signals", "It takes signals that its host blocks or ignores.", kRun, &hearsSignals},
    {kStop, "It answers the stop with 0 and ends within 2 s, with status 0.", kRun, &stops},
    {"files", "It leaves none of its files behind when it is stopped.", kStop, &leavesNoFiles},
    {"end-of-file", "It ends within 2 s when the host closes the command pipe.", kRun, &endsWithItsPipe},
    {"host-killed", "It and its children end within 2 s when the host is killed, and leave none of its files.", kRun,
     &endsWithItsHost},
    {"host-killed-in-block", "So they do while a block executes.", kRun, &endsWithItsHostDuringBlock},
    {"again", "Another process runs behind the same pipes when one was killed.", kRun, &startsAgain},
};

}  // namespace

std::span<const Rule> ProgramRules() { return kProgramRules; }

}  // namespace certify
