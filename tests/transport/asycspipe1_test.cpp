#include "asycspipe1.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <filesystem>
#include <string>
#include <thread>
#include <vector>

#include "dxglobals.h"
#include "dxtracer.h"
#include "forkedpeer.h"
#include "temphome.h"

namespace {

using Texts = std::vector<std::string>;

// Answers a ping with 5, a setup with the number of its arguments, an exit with 7; the end of a run with the process.
class Answers : public DXCmdDispatcherVisitor {
 public:
  int cmdDispatcher(DXCmdDispatcher::CmdKey key, const std::vector<std::string>& arguments) override {
    switch (key) {
      case DXCmdDispatcher::kPingDX:
        return 5;
      case DXCmdDispatcher::kSetupRunDX:
        return static_cast<int>(arguments.size());
      case DXCmdDispatcher::kExitRunDX:
        ::_exit(9);
      default:
        return 8;
    }
  }
};

int serve(const std::string& name) {
  Answers answers;
  DXCmdDispatcher server(name, true);
  server.connectPeer();
  return server.receiveCmd(&answers);
}

void awaitFile(const std::string& path) {
  while (!std::filesystem::exists(path)) std::this_thread::yield();
}

class CommandTest : public ::testing::Test {
 protected:
  std::string Name() const { return m_dir.Path("pair").string(); }

  TempDir m_dir;
};

}  // namespace

TEST_F(CommandTest, TravelsToAnotherProcessAndBack) {
  {
    DXCmdDispatcher alone(Name(), false);
    EXPECT_EQ(99104, alone.sendCmd(DXCmdDispatcher::kPingDX)) << "nobody has made the server's FIFO";
  }
  EXPECT_FALSE(std::filesystem::exists(Name() + "_c"));
  ForkedPeer peer([this] { return serve(Name()); });
  awaitFile(Name() + "_s");
  DXCmdDispatcher client(Name(), false);
  client.connectPeer();
  const std::string large(100'000, 'l');
  for (int time = 0; time < 100; ++time) {
    EXPECT_EQ(5, client.sendCmd(DXCmdDispatcher::kPingDX));
    EXPECT_EQ(0, client.sendCmd(DXCmdDispatcher::kSetupRunDX));
    EXPECT_EQ(3, client.sendCmd(DXCmdDispatcher::kSetupRunDX, {"", "b", large}));
  }
  EXPECT_EQ(100'000, client.sendCmd(DXCmdDispatcher::kSetupRunDX, Texts(100'000, "a")));
  EXPECT_EQ(8, client.sendCmd(static_cast<DXCmdDispatcher::CmdKey>(-1))) << "that nobody knows";
  EXPECT_EQ(0, client.sendCmd(DXCmdDispatcher::kStopDX)) << "whatever the visitor answers";
  EXPECT_EQ(0, peer.Wait());
  EXPECT_NE(0, client.sendCmd(DXCmdDispatcher::kPingDX));
}

TEST_F(CommandTest, IsTracedStepByStep) {
  DxTracer tracer;
  ForkedPeer peer([this, &tracer] {
    tracer.open(m_dir.Path("server").string());
    SetDxTracer(&tracer);
    return serve(Name());
  });
  awaitFile(Name() + "_s");
  tracer.open(m_dir.Path("client").string());
  SetDxTracer(&tracer);
  {
    DXCmdDispatcher client(Name(), false);
    client.connectPeer();
    EXPECT_EQ(1, client.sendCmd(DXCmdDispatcher::kSetupRunDX, {"argument"}));
    EXPECT_EQ(0, client.sendCmd(DXCmdDispatcher::kStopDX));
  }
  EXPECT_EQ(0, peer.Wait());
  SetDxTracer(nullptr);
  const Texts closed{Name() + "_s ClosePipe error code : 0.", Name() + "_c ClosePipe error code : 0."};
  Texts expected{"AsyCsPipe1 C ConnectPipe A",
                 "AsyCsPipe1 C ConnectPipe B",
                 "cmd NO: 1146667011",
                 "AsyCsPipe1:send: SendData error code : 0.",
                 "AsyCsPipe1:send: ReceiveData error code : 1.",
                 "cmd return: 1",
                 "cmd NO: 1146667010",
                 "AsyCsPipe1:send: SendData error code : 0.",
                 "AsyCsPipe1:send: ReceiveData error code : 0.",
                 "cmd return: 0"};
  expected.insert(expected.end(), closed.begin(), closed.end());
  EXPECT_EQ(expected, TraceTexts(m_dir.Path("client")));
  expected = {"AsyCsPipe1 S ConnectPipe A",
              "AsyCsPipe1 S ConnectPipe B",
              "AsyCsPipe1:receive: ReceiveData error code : 0.",
              "AsyCsPipe1:receive: SendData error code : 0.",
              "AsyCsPipe1:receive: ReceiveData error code : 0.",
              "kStopDX",
              "AsyCsPipe1:receive: SendData error code : 0."};
  expected.insert(expected.end(), closed.begin(), closed.end());
  EXPECT_EQ(expected, TraceTexts(m_dir.Path("server")));
}

TEST_F(CommandTest, EndsWithACodeWhenTheOtherProcessDies) {
  for (const bool whileAsked : {true, false}) {
    ForkedPeer peer([this] { return serve(Name()); });
    awaitFile(Name() + "_s");
    DXCmdDispatcher client(Name(), false);
    EXPECT_EQ(5, client.sendCmd(DXCmdDispatcher::kPingDX));
    if (whileAsked) {
      EXPECT_EQ(99103, client.sendCmd(DXCmdDispatcher::kExitRunDX)) << "it ends without a reply";
      EXPECT_EQ(9, peer.Wait());
    } else {
      peer.Kill();
      EXPECT_EQ(-SIGKILL, peer.Wait());
    }
    EXPECT_EQ(99104, client.sendCmd(DXCmdDispatcher::kPingDX));
    std::filesystem::remove(Name() + "_s");  // which a killed process leaves
  }
}

TEST_F(CommandTest, IsOneIntegerAndNothingElse) {
  Answers visitor;
  CleXDSmb request;
  CleXDSmb reply;
  EXPECT_EQ(0, visitor.VisitReceiver(request, reply));
  for (int i = 0; i < 2; ++i) request.SetLong(DXCmdDispatcher::kStopDX);
  EXPECT_EQ(0, visitor.VisitReceiver(request, reply));
  EXPECT_EQ(0, reply.GetErrorCode());
  for (int i = 0; i < 1'000'000; ++i) request.SetLong(i);
  EXPECT_EQ(0, visitor.VisitReceiver(request, reply));
}

TEST_F(CommandTest, IsAnsweredByAFunctionJustAsWell) {
  ForkedPeer peer([this] {
    AsyCsPipe1 server(Name(), true);
    return server.receive([](CleXDSmb& request, CleXDSmb& reply) {
      reply.SetString(request.GetSingleString() + "!");
      return request.GetErrorCode();
    });
  });
  awaitFile(Name() + "_s");
  AsyCsPipe1 client(Name(), false);
  for (const int code : {0, 3, -1}) {
    CleXDSmb request;
    CleXDSmb reply;
    request.SetErrorCode(code);
    request.SetSingleString("text");
    EXPECT_EQ(0, client.send(request, reply));
    // An error code in the request is what receiving it answers, so that the function is not asked.
    EXPECT_EQ(code == 0 ? "text!" : "", reply.GetSingleString());
  }
}

TEST_F(CommandTest, IsAnsweredWith0ByNobody) {
  ForkedPeer peer([this] {
    int (*const nobody)(CleXDSmb&, CleXDSmb&) = nullptr;
    return AsyCsPipe1(Name(), true).receive(nobody);
  });
  awaitFile(Name() + "_s");
  DXCmdDispatcher client(Name(), false);
  for (int i = 0; i < 2; ++i) EXPECT_EQ(0, client.sendCmd(DXCmdDispatcher::kStopDX)) << "and nobody stops";
}

TEST(CommandDeathTest, SidesAreNotMixedUp) {
  const TempDir dir;
  const std::string name = dir.Path("pair").string();
  EXPECT_DEATH(AsyCsPipe1(name, false).connectClient(), "m_isServer.*connectClient.*src/asycspipe1");
  EXPECT_DEATH(AsyCsPipe1(name, true).connectServer(), "!m_isServer.*connectServer.*src/asycspipe1");
}
