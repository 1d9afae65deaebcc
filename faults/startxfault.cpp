// An X process that misbehaves when it is asked to. It takes startx's command line and talks as startx does, for runs
// of level 0: it answers a block with 0 and the block's own text. STARTX_FAULT says how it misbehaves, by the name of
// one of the faults that --list prints, or in words:
//
//   MOMENT     where, one of those that --moments prints: there it dies, by SIGKILL unless a word says otherwise
//   late=N     so many milliseconds later, when the host waits for what comes next
//   exit=N     it ends with this status
//   silent     it lives on and says nothing more
//   fork       a child that it leaves behind keeps its pipes open
//   slow=N     it makes its first pipe after so many milliseconds
//   unready=N  so many ready checks are answered with 5 before one is answered with 0
//   bytewise   the pipes of blocks hold one page, and it moves one byte at a time
//   code=N     a block is answered with this code
//   longer     the answer to a block is a byte longer than it announces
//   twice      it comes twice, in one write
//
// The last three, as often as they are given, are for one block each, in turn. Before it dies or falls silent it writes
// the time into the file <X>.died in the directory of the pipes; before it leaves a child, its process group's number
// into <X>.group. It lives for a minute at most.

#include <fcntl.h>
#include <signal.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <iterator>
#include <sstream>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "asycspipe1.h"
#include "clexdsmb.h"
#include "faultlist.h"
#include "framing.h"
#include "vexadx_bytes.h"
#include "vexapipe.h"
#include "xpipemanager.h"

namespace {

constexpr unsigned kLifetime = 60;
constexpr int kNotReady = 5;
constexpr int kUnknownWord = 2;

constexpr const char* kWays[] = {"late", "exit", "silent", "fork", "slow", "unready", "bytewise"};
constexpr const char* kAnswers[] = {"code", "longer", "twice"};

constexpr std::pair<const char*, const char*> kMoments[] = {
    {"started", "it has made nothing yet"},
    {"commands-made", "its command pipe is made, and not opened"},
    {"commands-open", "the command pipe is open, and nothing read"},
    {"ready-read", "a ready check is read, and not answered"},
    {"begin-read", "the beginning of a run is read, and not answered"},
    {"begin-answered", "it is answered, and the result pipe not opened"},
    {"result-open", "the result pipe is open, and the pre-action not answered"},
    {"begun", "the pre-action is answered, and the block pipe not opened"},
    {"block-open", "the block pipe is open, and nothing read"},
    {"block-read", "a block is executed"},
    {"half-reply", "half of its reply is written"},
    {"replied", "all of it is"},
    {"end-read", "the end of a run is read, and not answered"},
    {"ended", "it is answered"},
    {"stop-read", "a stop is read, and not answered"},
    {"stopped", "it is answered"},
};

bool isKnown(const std::string& word) {
  return std::ranges::find(kWays, word) != std::end(kWays) || std::ranges::find(kAnswers, word) != std::end(kAnswers) ||
         std::ranges::any_of(kMoments, [&word](const auto& moment) { return word == moment.first; });
}

// The words of a fault that goes by a name.
std::string wordsOf(const std::string& text) {
  const auto* const fault = std::ranges::find(kFaults, text, &Fault::name);
  return fault == std::end(kFaults) ? text : fault->words;
}

const char* nameOf(Fault::By by) {
  switch (by) {
    case Fault::By::kStartX:
      return "startx-fault";
    case Fault::By::kPlugin:
      return "plug-in";
    case Fault::By::kPreload:
      return "preload";
    case Fault::By::kHost:
      break;
  }
  return "host";
}

void listFaults() {
  for (const Fault& fault : kFaults) {
    (void)std::printf("%-3d %-24s %-13s %s\n", fault.number, fault.name, nameOf(fault.by), fault.what);
  }
}

void listMoments() {
  for (const auto& [name, meaning] : kMoments) (void)std::printf("%-16s%s\n", name, meaning);
}

struct Word {
  std::string name;
  int number = 0;
};

class Faults {
 public:
  // What it notes is in files whose names begin with this.
  Faults(const std::string& text, std::string files) : m_files(std::move(files)) {
    std::istringstream words(wordsOf(text));
    for (std::string word; words >> word;) {
      const std::size_t equals = word.find('=');
      const Word known{word.substr(0, equals), equals == std::string::npos ? 0 : std::atoi(word.c_str() + equals + 1)};
      if (!isKnown(known.name)) ::_exit(kUnknownWord);
      const bool isAnswer = std::ranges::find(kAnswers, known.name) != std::end(kAnswers);
      (isAnswer ? m_answers : m_words).push_back(known);
    }
  }

  bool Have(const std::string& word) const { return std::ranges::find(m_words, word, &Word::name) != m_words.end(); }

  int Number(const std::string& word) const {
    const auto found = std::ranges::find(m_words, word, &Word::name);
    return found == m_words.end() ? 0 : found->number;
  }

  // How the n-th block, from 0 on, is answered.
  Word Answer(std::size_t n) const { return n < m_answers.size() ? m_answers[n] : Word{}; }

  void Sleep(const std::string& word) const { std::this_thread::sleep_for(std::chrono::milliseconds(Number(word))); }

  void At(const std::string& moment) const {
    if (!Have(moment)) return;
    if (Have("fork")) {
      std::ofstream(m_files + ".group") << ::getpgrp();
      if (::fork() == 0) liveSilently();
    }
    Sleep("late");
    std::ofstream(m_files + ".died") << std::chrono::steady_clock::now().time_since_epoch().count();
    if (Have("silent")) liveSilently();
    if (Have("exit")) ::_exit(Number("exit"));
    ::kill(::getpid(), SIGKILL);
  }

 private:
  [[noreturn]] static void liveSilently() {
    (void)::alarm(kLifetime);
    for (;;) ::pause();
  }

  const std::string m_files;
  std::vector<Word> m_words;
  std::vector<Word> m_answers;
};

class Server : private DXCmdDispatcherVisitor {
 public:
  Server(const Faults& faults, const std::string& prefix)
      : m_faults(faults),
        m_commandPipe(prefix + "_s"),
        m_commands(prefix, true),
        m_blocks(prefix + "0" + XPipes::SYNTAX_PIPE),
        m_results(prefix + "0" + XPipes::SYNTAX_RESULT_PIPE) {
    (void)m_blocks.CreatePipe();
    makeSmall(m_blocks);
  }

  // Until the host stops it or has gone.
  void Serve() {
    m_faults.At("commands-made");
    if (m_faults.Have("commands-open")) (void)m_commandPipe.OpenPipeToRead();
    m_faults.At("commands-open");
    bool isServed = true;
    while (isServed && m_commands.receiveCmd(this) == 0) {
      if (m_command == DXCmdDispatcher::kSetupRunDX) isServed = run();
      if (m_command == DXCmdDispatcher::kExitRunDX) m_faults.At("ended");
      if (m_command == DXCmdDispatcher::kStopDX) isServed = false;
    }
    if (m_command == DXCmdDispatcher::kStopDX) m_faults.At("stopped");
  }

 private:
  // One command at a time.
  int VisitReceiver(CleXDSmb& request, CleXDSmb& reply) override {
    (void)DXCmdDispatcherVisitor::VisitReceiver(request, reply);
    return -1;
  }

  int cmdDispatcher(DXCmdDispatcher::CmdKey key, const std::vector<std::string>& /*arguments*/) override {
    m_command = key;
    switch (key) {
      case DXCmdDispatcher::kPingDX:
        m_faults.At("ready-read");
        return m_readyChecks++ < m_faults.Number("unready") ? kNotReady : 0;
      case DXCmdDispatcher::kSetupRunDX:
        m_faults.At("begin-read");
        break;
      case DXCmdDispatcher::kExitRunDX:
        m_faults.At("end-read");
        break;
      case DXCmdDispatcher::kStopDX:
        m_faults.At("stop-read");
        break;
    }
    return 0;
  }

  bool run() {
    m_faults.At("begin-answered");
    if (!m_results.HasPipe()) {
      makeSmall(m_results);
      (void)m_results.OpenPipeToWrite();
    }
    m_faults.At("result-open");
    CleXDSmb begun;
    if (SendData(&m_results, begun) != 0) return false;
    m_faults.At("begun");
    (void)m_blocks.OpenPipeToRead();
    m_faults.At("block-open");
    CleXDSmb block;
    if (!receive(block)) return false;
    m_faults.At("block-read");
    const Word answer = m_faults.Answer(m_answered++);
    CleXDSmb reply;
    reply.SetErrorCode(answer.name == "code" ? answer.number : 0);
    reply.SetString(block.GetSingleString());
    if (m_faults.Have("half-reply")) {
      const std::string message = messageOf(reply);
      (void)write(message.substr(0, message.size() / 2));
    }
    m_faults.At("half-reply");
    const bool isSent = send(reply, answer.name);
    m_faults.At("replied");
    return isSent;
  }

  bool send(CleXDSmb& reply, const std::string& way) {
    const bool isLonger = way == "longer";
    const bool isTwice = way == "twice";
    if (!isLonger && !isTwice && !m_faults.Have("bytewise")) return SendData(&m_results, reply) == 0;
    std::string message = messageOf(reply);
    if (isLonger) message += '\0';
    if (isTwice) message += message;
    return write(message);
  }

  static std::string messageOf(CleXDSmb& block) {
    (void)block.ContructSendData();
    int length = 0;
    const char* const bytes = block.GetSendBuf(length);
    return {bytes, static_cast<std::size_t>(length)};
  }

  bool receive(CleXDSmb& block) {
    if (!m_faults.Have("bytewise")) return ReceiveData(&m_blocks, block) == 0;
    std::string message;
    std::size_t length = sizeof(std::int32_t);  // of the number at its beginning, and that is the whole's
    while (message.size() < length) {
      char byte = 0;
      unsigned long count = 0;
      if (m_blocks.ReadData(1, &byte, count) != 0 || count == 0) return false;
      message += byte;
      if (message.size() == sizeof(std::int32_t)) {
        length = static_cast<std::size_t>(vexadx::Load<std::int32_t>(message.data()));
      }
    }
    return block.ParseBuf(message.data()) == 0;
  }

  bool write(const std::string& bytes) {
    const std::size_t piece = m_faults.Have("bytewise") ? 1 : bytes.size();
    for (std::size_t at = 0; at < bytes.size(); at += piece) {
      if (m_results.WriteData(bytes.data() + at, static_cast<int>(piece), nullptr) != 0) return false;
    }
    return true;
  }

  // While nothing is in it. The descriptor stays open, for a pipe that nobody has open forgets its size.
  void makeSmall(VexaPipe& pipe) const {
#ifdef F_SETPIPE_SZ
    constexpr int kPage = 4096;
    if (!m_faults.Have("bytewise")) return;
    (void)::fcntl(::open(pipe.GetPipeName().c_str(), O_RDWR | O_CLOEXEC), F_SETPIPE_SZ, kPage);
#else
    (void)pipe;
#endif
  }

  const Faults& m_faults;
  VexaPipe m_commandPipe;
  DXCmdDispatcher m_commands;
  VexaPipe m_blocks;
  VexaPipe m_results;
  DXCmdDispatcher::CmdKey m_command{};
  int m_readyChecks = 0;
  std::size_t m_answered = 0;
};

}  // namespace

int main(int argc, char** argv) {
  const std::string option = argc == 2 ? argv[1] : "";
  if (option == "--list") listFaults();
  if (option == "--moments") listMoments();
  if (option == "--list" || option == "--moments") return 0;
  if (argc < 5) return 2;
  (void)::alarm(kLifetime);
  (void)::setpgid(0, 0);
  const char* const text = std::getenv("STARTX_FAULT");
  const std::string directory = argv[2];
  const Faults faults(text ? text : "", directory + argv[4]);
  faults.At("started");
  faults.Sleep("slow");
  Server server(faults, directory + argv[3] + argv[4]);
  server.Serve();
  ::_exit(0);  // files are left to the host
}
