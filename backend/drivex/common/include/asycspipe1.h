#pragma once

#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "clexdsmb.h"
#include "vexadx_export.h"
#include "vexapipe.h"

// The pair of named pipes over which the host, its client, sends commands to an X process, its server, and gets
// replies: requests through the base name + "_s", replies through the base name + "_c". Each side makes the FIFO that
// it reads. One thread at a time.
//
// Operations answer 0 or a code of the pipes. An open or a read waits until the other side does its part.
class VEXADX_API AsyCsPipe1 {
 public:
  // Answers requests on the server's side.
  class VEXADX_API Visitor {
   public:
    virtual ~Visitor();

    // Fills the reply. -1 ends the loop once the reply is sent; nothing else is made of the answer.
    virtual int VisitReceiver(CleXDSmb& request, CleXDSmb& reply) = 0;
  };

  // Makes this side's FIFO; one that cannot be made shows when the other side opens it.
  AsyCsPipe1(std::string name, bool isServer);

  // Closes both pipes and removes both files.
  ~AsyCsPipe1();
  AsyCsPipe1(const AsyCsPipe1&) = delete;
  AsyCsPipe1& operator=(const AsyCsPipe1&) = delete;

  // Makes this side's FIFO again after closePipe; closePipe closes both descriptors.
  int openPipe();
  int closePipe();

  // For the server and for the client only, which is checked. They trace; there is nothing to connect on this platform.
  int connectClient();
  int connectServer();

  int createPipeFile(VexaPipe* pipe);  // does nothing and answers 0

  // The client's exchange: sends the request and receives the reply. Answers the first code that is not 0, also that of
  // the reply.
  int send(CleXDSmb& request, CleXDSmb& reply);

  // The server's loop: receives requests and sends what the visitor or the function makes of each until that answers -1
  // or a reply cannot be sent. Answers the last code.
  int receive(Visitor* visitor);
  int receive(int (*answer)(CleXDSmb& request, CleXDSmb& reply));

  bool isServer() const;

 private:
  friend class DXCmdDispatcher;

  VEXADX_HIDDEN void renewEnds(bool ownToo);
  template <typename Answer>
  VEXADX_HIDDEN int answerRequests(Answer answer, const char* received, const char* sent);

  std::unique_ptr<VexaPipe> m_serverPipe;
  std::unique_ptr<VexaPipe> m_clientPipe;
  std::string m_name;
  bool m_opened;
  bool m_isServer;
  bool m_replyMissed;  // the last request was sent and its reply not read
};

class DXCmdDispatcherVisitor;

// Commands over a pair of pipes: a key and arguments one way, a result code the other. Commands may be sent by several
// threads, one exchange after the other; everything else is for one thread at a time.
class VEXADX_API DXCmdDispatcher {
 public:
  // The high half spells "DX".
  enum CmdKey : int {
    kStopDX = 0x4458C002,      // the X process is to stop
    kSetupRunDX = 0x4458C003,  // a run begins
    kExitRunDX = 0x4458C004,   // a run has ended
    kPingDX = 0x4458C0FF       // is the X process there?
  };

  DXCmdDispatcher(const std::string& name, bool isServer);
  ~DXCmdDispatcher();
  DXCmdDispatcher(const DXCmdDispatcher&) = delete;
  DXCmdDispatcher& operator=(const DXCmdDispatcher&) = delete;

  int connectPeer();

  // The client's command: the code that the server answered, or the one of what went wrong on the way.
  int sendCmd(CmdKey key);
  int sendCmd(CmdKey key, const std::vector<std::string>& arguments);

  // The server's loop: hands each command to the visitor until one says stop or a reply cannot be sent. Answers the
  // last code, 0 after a stop.
  int receiveCmd(DXCmdDispatcherVisitor* visitor);

 private:
  friend class OutpStatisticsX;
  friend class XPipeSuit;

  // Whether the last command was sent, and what its server replied was not read.
  VEXADX_HIDDEN bool hasMissedReply();

  // For a new server: this side's descriptors are closed, and files that the earlier one left are gone. This side's own
  // file is made anew when `ownToo` is set.
  VEXADX_HIDDEN void renewEnds(bool ownToo);

  std::unique_ptr<AsyCsPipe1> m_csPipe;
  std::mutex m_exchange;
};

// Turns requests into commands. The X process overrides cmdDispatcher.
class VEXADX_API DXCmdDispatcherVisitor : public AsyCsPipe1::Visitor {
 public:
  ~DXCmdDispatcherVisitor() override;

  // A request with one integer is a command: the reply gets its code. Any other gets the reply as it is.
  int VisitReceiver(CleXDSmb& request, CleXDSmb& reply) override;

  // Carries a command out; this one answers 0. The code of kStopDX is not used, it always succeeds.
  virtual int cmdDispatcher(DXCmdDispatcher::CmdKey key, const std::vector<std::string>& arguments);
};
