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
//
// Before it dies it writes the time into the file <X>.died in the directory of the pipes; before it leaves a child, its
// process group's number into <X>.group. It lives for a minute at most.

#include <signal.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <iterator>
#include <map>
#include <sstream>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "asycspipe1.h"
#include "clexdsmb.h"
#include "faultlist.h"
#include "framing.h"
#include "vexapipe.h"
#include "xpipemanager.h"

namespace {

constexpr unsigned kLifetime = 60;
constexpr int kNotReady = 5;
constexpr int kUnknownWord = 2;

constexpr const char* kWays[] = {"late", "exit", "silent", "fork", "slow", "unready"};

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
  return std::ranges::find(kWays, word) != std::end(kWays) ||
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

class Faults {
 public:
  // What it notes is in files whose names begin with this.
  Faults(const std::string& text, std::string files) : m_files(std::move(files)) {
    std::istringstream words(wordsOf(text));
    for (std::string word; words >> word;) {
      const std::size_t equals = word.find('=');
      if (!isKnown(word.substr(0, equals))) ::_exit(kUnknownWord);
      m_words[word.substr(0, equals)] = equals == std::string::npos ? 0 : std::atoi(word.c_str() + equals + 1);
    }
  }

  bool Have(const std::string& word) const { return m_words.contains(word); }

  int Number(const std::string& word) const { return Have(word) ? m_words.at(word) : 0; }

  void Sleep(const std::string& word) const { std::this_thread::sleep_for(std::chrono::milliseconds(Number(word))); }

  void At(const std::string& moment) const {
    if (!Have(moment)) return;
    if (Have("fork")) {
      std::ofstream(m_files + ".group") << ::getpgrp();
      if (::fork() == 0) liveSilently();
    }
    Sleep("late");
    if (Have("silent")) liveSilently();
    std::ofstream(m_files + ".died") << std::chrono::steady_clock::now().time_since_epoch().count();
    if (Have("exit")) ::_exit(Number("exit"));
    ::kill(::getpid(), SIGKILL);
  }

 private:
  [[noreturn]] static void liveSilently() {
    (void)::alarm(kLifetime);
    for (;;) ::pause();
  }

  const std::string m_files;
  std::map<std::string, int> m_words;
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
    if (!m_results.HasPipe()) (void)m_results.OpenPipeToWrite();
    m_faults.At("result-open");
    CleXDSmb begun;
    if (SendData(&m_results, begun) != 0) return false;
    m_faults.At("begun");
    (void)m_blocks.OpenPipeToRead();
    m_faults.At("block-open");
    CleXDSmb block;
    if (ReceiveData(&m_blocks, block) != 0) return false;
    m_faults.At("block-read");
    CleXDSmb reply;
    reply.SetString(block.GetSingleString());
    if (m_faults.Have("half-reply")) sendHalf(reply);
    m_faults.At("half-reply");
    const bool isSent = SendData(&m_results, reply) == 0;
    m_faults.At("replied");
    return isSent;
  }

  void sendHalf(CleXDSmb& reply) {
    (void)reply.ContructSendData();
    int length = 0;
    const char* const bytes = reply.GetSendBuf(length);
    (void)m_results.WriteData(bytes, length / 2, nullptr);
  }

  const Faults& m_faults;
  VexaPipe m_commandPipe;
  DXCmdDispatcher m_commands;
  VexaPipe m_blocks;
  VexaPipe m_results;
  DXCmdDispatcher::CmdKey m_command{};
  int m_readyChecks = 0;
};

}  // namespace

int main(int argc, char** argv) {
  const std::string option = argc == 2 ? argv[1] : "";
  if (option == "--list") listFaults();
  if (option == "--moments") listMoments();
  if (!option.empty()) return 0;
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
