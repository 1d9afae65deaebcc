#include "asycspipe1.h"

#include <utility>

#include "dxassert.h"
#include "dxtraceline.h"
#include "framing.h"
#include "vexadx_codes.h"

using vexadx::kSuccess;

namespace {

constexpr const char* kSourceFile = "backend/drivex/common/src/asycspipe1";
constexpr int kStop = -1;  // what a visitor answers to end the loop

}  // namespace

AsyCsPipe1::Visitor::~Visitor() = default;

AsyCsPipe1::AsyCsPipe1(std::string name, bool isServer)
    : m_name(std::move(name)), m_opened(false), m_isServer(isServer), m_replyMissed(false) {
  (void)openPipe();
}

AsyCsPipe1::~AsyCsPipe1() { (void)closePipe(); }

int AsyCsPipe1::openPipe() {
  if (m_opened) return kSuccess;
  // Made once: the end of a pipe object takes the file away, the other side's too.
  if (!m_serverPipe) m_serverPipe = std::make_unique<VexaPipe>(m_name + "_s");
  if (!m_clientPipe) m_clientPipe = std::make_unique<VexaPipe>(m_name + "_c");
  VexaPipe& own = m_isServer ? *m_serverPipe : *m_clientPipe;
  (void)own.CreatePipe();
  m_opened = true;
  return own.DisconnectPipe();
}

int AsyCsPipe1::closePipe() {
  if (!m_opened) return kSuccess;
  (void)(m_isServer ? m_serverPipe : m_clientPipe)->DisconnectPipe();
  (void)m_serverPipe->ClosePipe();
  (void)m_clientPipe->ClosePipe();
  m_opened = false;
  return kSuccess;
}

void AsyCsPipe1::renewEnds(bool ownToo) {
  (void)closePipe();
  (m_isServer ? m_clientPipe : m_serverPipe)->dropEnd();
  if (ownToo) (m_isServer ? m_serverPipe : m_clientPipe)->dropEnd();
  m_replyMissed = false;
  (void)openPipe();
}

int AsyCsPipe1::connectClient() {
  DxAssert(m_isServer, "m_isServer", "connectClient", kSourceFile);
  if (m_serverPipe->IsWritePipeConnected()) return kSuccess;
  TraceLine("AsyCsPipe1 S ConnectPipe A");
  (void)m_serverPipe->ConnectPipe();
  TraceLine("AsyCsPipe1 S ConnectPipe B");
  return kSuccess;
}

int AsyCsPipe1::connectServer() {
  DxAssert(!m_isServer, "!m_isServer", "connectServer", kSourceFile);
  if (m_clientPipe->IsWritePipeConnected()) return kSuccess;
  TraceLine("AsyCsPipe1 C ConnectPipe A");
  (void)m_clientPipe->ConnectPipe();
  TraceLine("AsyCsPipe1 C ConnectPipe B");
  return kSuccess;
}

int AsyCsPipe1::createPipeFile(VexaPipe*) { return kSuccess; }

int AsyCsPipe1::send(CleXDSmb& request, CleXDSmb& reply) {
  (void)openPipe();
  if (m_replyMissed) {  // it answers nothing that is asked from here on
    if (const int code = m_clientPipe->discardLate(); code != kSuccess) return code;
    m_replyMissed = false;
  }
  int code = SendData(m_serverPipe.get(), request, true);
  TraceCode("AsyCsPipe1:send: SendData", code);
  if (code != kSuccess) return code;
  code = ReceiveData(m_clientPipe.get(), reply, true);
  m_replyMissed = code == vexadx::kPipeFailed && reply.GetErrorCode() != code;
  TraceCode("AsyCsPipe1:send: ReceiveData", code);
  return code;
}

template <typename Answer>
int AsyCsPipe1::answerRequests(Answer answer, const char* received, const char* sent) {
  (void)openPipe();
  for (;;) {
    CleXDSmb request;
    CleXDSmb reply;
    int code = ReceiveData(m_serverPipe.get(), request, true);
    TraceCode(received, code);
    const bool stops = code == kSuccess && answer(request, reply) == kStop;
    code = SendData(m_clientPipe.get(), reply, true);
    TraceCode(sent, code);
    if (stops || code != kSuccess) return code;
  }
}

int AsyCsPipe1::receive(Visitor* visitor) {
  const auto answer = [visitor](CleXDSmb& request, CleXDSmb& reply) {
    return visitor ? visitor->VisitReceiver(request, reply) : kSuccess;
  };
  return answerRequests(answer, "AsyCsPipe1:receive: ReceiveData", "AsyCsPipe1:receive: SendData");
}

int AsyCsPipe1::receive(int (*function)(CleXDSmb& request, CleXDSmb& reply)) {
  const auto answer = [function](CleXDSmb& request, CleXDSmb& reply) {
    return function ? function(request, reply) : kSuccess;
  };
  return answerRequests(answer, "AsyCsPipe1: ReceiveData", "AsyCsPipe1: SendData");
}

bool AsyCsPipe1::isServer() const { return m_isServer; }

DXCmdDispatcher::DXCmdDispatcher(const std::string& name, bool isServer)
    : m_csPipe(std::make_unique<AsyCsPipe1>(name, isServer)) {}

DXCmdDispatcher::~DXCmdDispatcher() = default;

int DXCmdDispatcher::connectPeer() {
  return m_csPipe->isServer() ? m_csPipe->connectClient() : m_csPipe->connectServer();
}

int DXCmdDispatcher::sendCmd(CmdKey key) { return sendCmd(key, {}); }

int DXCmdDispatcher::sendCmd(CmdKey key, const std::vector<std::string>& arguments) {
  const std::lock_guard exchange(m_exchange);
  CleXDSmb request;
  CleXDSmb reply;
  request.SetLong(key);
  for (const std::string& argument : arguments) request.SetString(argument);
  if (GetDxTracer()) TraceLine({"cmd NO: ", std::to_string(key)});
  int code = m_csPipe->send(request, reply);
  if (code == kSuccess) code = reply.GetErrorCode();
  if (GetDxTracer()) TraceLine({"cmd return: ", std::to_string(code)});
  return code;
}

bool DXCmdDispatcher::hasMissedReply() {
  const std::lock_guard exchange(m_exchange);
  return m_csPipe->m_replyMissed;
}

void DXCmdDispatcher::renewEnds(bool ownToo) { m_csPipe->renewEnds(ownToo); }

int DXCmdDispatcher::receiveCmd(DXCmdDispatcherVisitor* visitor) { return m_csPipe->receive(visitor); }

DXCmdDispatcherVisitor::~DXCmdDispatcherVisitor() = default;

int DXCmdDispatcherVisitor::VisitReceiver(CleXDSmb& request, CleXDSmb& reply) {
  LongData& values = request.GetLongDataRef();
  if (values.Size() != 1) return kSuccess;
  const auto key = static_cast<DXCmdDispatcher::CmdKey>(values[0]);
  const int code = cmdDispatcher(key, request.GetStringData().GetData());
  if (key == DXCmdDispatcher::kStopDX) {
    TraceLine("kStopDX");
    reply.SetErrorCode(kSuccess);
    return kStop;
  }
  reply.SetErrorCode(code);
  return code;
}

int DXCmdDispatcherVisitor::cmdDispatcher(DXCmdDispatcher::CmdKey, const std::vector<std::string>&) { return kSuccess; }
