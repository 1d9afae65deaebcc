#include "framing.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>
#ifdef __GLIBC__
#include <malloc.h>
#endif

#include <filesystem>
#include <functional>
#include <future>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "clexdsmb.h"
#include "javaextensionsmb.h"
#include "javapluginsocket.h"
#include "loopback.h"
#include "message.h"
#include "processstate.h"
#include "temphome.h"
#include "vexapipe.h"
#include "wireformat.h"

namespace {

// Whether a block takes the bytes, which are as many as they announce.
bool isMessage(const std::string& bytes) {
  CleXDSmb block;
  int length = 0;
  block.ParseBuf(bytes.data());
  (void)block.GetSendBuf(length);
  return length > 0;
}

// A real channel, with the library at the one end and a script at the other, given a descriptor.
class Channel {
 public:
  using Script = std::function<void(int)>;

  virtual ~Channel() = default;
  virtual int Receive(CleXDSmb& block, const Script& script) = 0;
  virtual int Malformed() const = 0;
};

class PipeChannel : public Channel {
 public:
  PipeChannel() { EXPECT_EQ(0, m_pipe.CreatePipe()); }

  int Receive(CleXDSmb& block, const Script& script) override {
    auto peer = std::async(std::launch::async, [&] {
      const int descriptor = ::open(m_pipe.GetPipeName().c_str(), O_WRONLY | O_CLOEXEC);
      script(descriptor);
      ::close(descriptor);
    });
    const int code = ReceiveData(&m_pipe, block, true);
    m_pipe.ClosePipe();
    return code;
  }
  int Malformed() const override { return 99104; }

 private:
  TempDir m_dir;
  VexaPipe m_pipe{m_dir.Path("pipe").string()};
};

class SocketChannel : public Channel {
 public:
  SocketChannel() { EXPECT_EQ(0, m_socket.CreateSocket()); }

  int Receive(CleXDSmb& block, const Script& script) override {
    auto peer = std::async(std::launch::async, [&] {
      const int descriptor = ConnectedTo(m_socket.GetSocketPort());
      script(descriptor);
      ::close(descriptor);
    });
    EXPECT_EQ(0, m_socket.AcceptSocket());
    return ReceiveData(&m_socket, block);
  }
  int Malformed() const override { return 99122; }

 private:
  JavaPlugInSocket m_socket;
};

// Writes in pieces of this size. The receiver may have left: no signal then.
Channel::Script writing(const std::string& bytes, std::size_t piece = 8192) {
  return [bytes, piece](int descriptor) {
    sigset_t set;
    ::sigemptyset(&set);
    ::sigaddset(&set, SIGPIPE);
    ::pthread_sigmask(SIG_BLOCK, &set, nullptr);
    for (std::size_t at = 0; at < bytes.size(); at += piece) {
      if (::write(descriptor, bytes.data() + at, std::min(piece, bytes.size() - at)) == -1) return;
    }
  };
}

// 0 where nobody counts. Sanitizers keep what is released, and look for leaks themselves.
std::size_t bytesInUse() {
#if defined(__GLIBC__) && !defined(VEXADX_SANITIZED)
  const struct mallinfo2 info = ::mallinfo2();
  return info.uordblks + info.hblkhd;
#else
  return 0;
#endif
}

template <typename ChannelType>
class FramingTest : public ::testing::Test {
 protected:
  ChannelType m_channel;
};

using Channels = ::testing::Types<PipeChannel, SocketChannel>;
TYPED_TEST_SUITE(FramingTest, Channels);

}  // namespace

TYPED_TEST(FramingTest, BringsMessagesOfAnySizeInAnyPieces) {
  for (const int size : {0, 1, 8135, 8136, 8137, 20000, 1'000'000}) {
    CleXDSmb sent;
    sent.SetErrorCode(7);
    if (size > 0) sent.SetString(std::string(static_cast<std::size_t>(size), 's'));
    const std::string message = MessageOf(sent);
    for (const std::size_t piece : {1, 3, 4, 5, 8191, 8192, 8193}) {
      if (piece < 100 && size > 20000) continue;
      CleXDSmb block;
      EXPECT_EQ(7, this->m_channel.Receive(block, writing(message, piece))) << "the message's own code";
      EXPECT_EQ(message, MessageOf(block)) << size << " in pieces of " << piece;
    }
  }
}

TYPED_TEST(FramingTest, TakesNothingOfWhatIsNoMessage) {
  CleXDSmb sent;
  sent.SetLong(7);
  sent.SetString("ab");
  sent.SetErrorCode(5);
  const std::string message = MessageOf(sent);
  const int malformed = this->m_channel.Malformed();
  std::vector<std::pair<std::string, int>> cases = {{message + "x", malformed}, {message + message, malformed}};
  for (std::size_t cut = 0; cut < message.size(); ++cut) cases.push_back({message.substr(0, cut), 99103});
  for (const int wrong : {-2147483647 - 1, -1, 0, 3, 51}) cases.push_back({WithNumber(message, 0, wrong), malformed});
  cases.push_back({WithNumber(message, 0, 2147483647), 99103});
  cases.push_back({WithNumber(message, 12, 2), malformed});  // one integer more than there is: the rest is one short
  const auto length = static_cast<int>(message.size());
  cases.push_back({WithNumber(message, 0, length - 1), malformed});
  cases.push_back({WithNumber(message, 0, length + 1), 99103});
  cases.push_back({WithNumber(message, 0, length + 1) + "x", malformed});
  for (std::size_t at = 4; at < message.size(); ++at) {
    std::string wrong = message;
    wrong[at] = static_cast<char>(wrong[at] ^ 0xFF);
    if (!isMessage(wrong)) cases.push_back({wrong, malformed});
  }
  CleXDSmb block;
  block.SetString("held");
  const std::string before = MessageOf(block);
  for (const auto& [bytes, code] : cases) {
    EXPECT_EQ(code, this->m_channel.Receive(block, writing(bytes))) << bytes.size() << " bytes";
    ASSERT_EQ(before, MessageOf(block));
  }
}

// Each message so often that what is kept of one shows.
TYPED_TEST(FramingTest, KeepsNothingOfWhatCame) {
  CleXDSmb sent;
  sent.SetErrorCode(5);
  sent.SetLong(7);
  sent.SetString(std::string(60'000, 's'));
  const std::string good = MessageOf(sent);
  const int malformed = this->m_channel.Malformed();
  std::vector<std::pair<std::string, int>> cases = {{good, 5},
                                                    {good + "x", malformed},
                                                    {good.substr(0, good.size() / 2), 99103},
                                                    {WithNumber(good, wireformat::kHeaderLen, -1), malformed},
                                                    {WithNumber(good, 0, 2147483647), 99103}};
  for (const int wrong : {-1, 0, 3, 51}) cases.emplace_back(WithNumber(good.substr(0, 100), 0, wrong), malformed);
  for (const auto& [bytes, code] : cases) {
    SCOPED_TRACE(std::to_string(bytes.size()) + " bytes, " + std::to_string(code));
    const auto receive = [&, message = bytes, wanted = code](int times) {
      for (int i = 0; i < times; ++i) {
        CleXDSmb block;
        EXPECT_EQ(wanted, this->m_channel.Receive(block, writing(message)));
      }
    };
    receive(10);  // some memory is kept, but not for each
    const int descriptors = OpenDescriptors();
    const std::size_t memory = bytesInUse();
    receive(200);
    EXPECT_LE(bytesInUse(), memory + 2000);
    EXPECT_EQ(descriptors, OpenDescriptors());
  }
}

TEST(Framing, EmptiesABlockThatWasSentAndNoOther) {
  const TempDir dir;
  for (const std::size_t size : {std::size_t{4}, std::size_t{5'000'000}}) {
    VexaPipe reader(dir.Path("pipe").string());
    VexaPipe writer(reader.GetPipeName());
    CleXDSmb block;
    const std::string text(size, 't');
    block.SetString(text);
    block.SetDouble(0.5);
    block.SetwString(L"w");
    block.SetStringArray(block.GetStringData());
    block.SetBinaryString(text.data(), 3);
    const std::string message = MessageOf(block);
    EXPECT_EQ(99104, SendData(&writer, block, true)) << "there is no pipe";
    EXPECT_EQ(message, MessageOf(block));
    EXPECT_EQ(99104, ReceiveData(&reader, block, true));
    ASSERT_EQ(0, reader.CreatePipe());
    ASSERT_EQ(0, reader.OpenPipeToUnBlockRead());
    ASSERT_EQ(0, writer.OpenPipeToWrite());
    reader.ClosePipe();
    EXPECT_EQ(99104, SendData(&writer, block)) << "nobody reads";
    int length = 0;
    const char* const kept = block.GetSendBuf(length);
    EXPECT_TRUE(kept && message == std::string_view(kept, static_cast<std::size_t>(length)));

    writer.ClosePipe();
    auto received = std::async(std::launch::async, [&] {
      EXPECT_EQ(0, reader.OpenPipeToRead());
      std::string bytes;
      std::vector<char> piece(8192);
      for (unsigned long count = 1; count > 0 && bytes.size() < message.size(); bytes.append(piece.data(), count)) {
        EXPECT_EQ(0, reader.ReadData(8192, piece.data(), count));
      }
      return bytes;
    });
    EXPECT_EQ(0, SendData(&writer, block, true));
    EXPECT_TRUE(message == received.get());
    EXPECT_EQ(nullptr, block.GetSendBuf(length));
    EXPECT_EQ(0, block.GetStringData().Size());
  }
}

TEST(Framing, AnswersWhatTheSystemRefusesASocket) {
  JavaPlugInSocket first;
  JavaPlugInSocket second;
  EXPECT_EQ(99121, second.AcceptSocket()) << "nothing is listened on";
  EXPECT_EQ(-1, second.CloseSocket());
  rlimit before{};
  ASSERT_EQ(0, ::getrlimit(RLIMIT_NOFILE, &before));
  const rlimit none{0, before.rlim_max};
  ASSERT_EQ(0, ::setrlimit(RLIMIT_NOFILE, &none));
  EXPECT_EQ(99121, first.CreateSocket());
  ASSERT_EQ(0, ::setrlimit(RLIMIT_NOFILE, &before));
  ASSERT_EQ(0, first.CreateSocket());
  EXPECT_EQ(99122, second.CreateSocket(first.GetSocketPort())) << "it is another's";
  unsigned long count = 7;
  char byte = 0;
  EXPECT_EQ(99122, second.ReadData(&byte, 1, count)) << "nobody is connected";
  EXPECT_EQ(7u, count);
}

TEST(Framing, SendsTheJavaExtensionsDataAsTheyAre) {
  JavaExtensionSmb message;
  JavaExtensionSmb same;
  same.SetCommandName("command");
  same.SetExtensionPath("/ext");
  same.SetPackageMode(false);
  EXPECT_EQ("command", message.GetCommandName());
  const std::string data("da\0ta", 5);
  message.SetDataLen(5);
  message.SetSendBuf(data.data());

  JavaPlugInSocket socket;
  EXPECT_EQ(0, socket.GetSocketPort());
  EXPECT_EQ(0, socket.CreateSocket(0));
  EXPECT_EQ(0, socket.GetSocketPort());
  ASSERT_EQ(0, socket.CreateSocket());
  auto peer = std::async(std::launch::async, [port = socket.GetSocketPort()] {
    const int descriptor = ConnectedTo(port);
    std::string got;
    char byte = 0;
    while (::read(descriptor, &byte, 1) == 1) got += byte;
    ::close(descriptor);
    return got;
  });
  ASSERT_EQ(0, socket.AcceptSocket());
  EXPECT_EQ(0, SendData(&socket, message));
  EXPECT_EQ(0, SendData(&socket, message)) << "there is nothing to send any more";
  EXPECT_EQ(0, ReceiveData(&socket, message));
  EXPECT_EQ(0, socket.CloseSocket());
  EXPECT_EQ(data, peer.get());
  int length = 0;
  EXPECT_EQ(nullptr, message.GetSendBuf(length));
  EXPECT_EQ(5, length);
  for (const void* const none : {static_cast<const void*>("x"), static_cast<const void*>(nullptr)}) {
    message.SetDataLen(none ? 0 : 5);
    message.SetSendBuf(none);
    EXPECT_EQ(none == nullptr, message.GetSendBuf(length) == nullptr);
    EXPECT_EQ(message.GetDataLen(), length);
  }
  EXPECT_TRUE(same.IsPackageMode());
  EXPECT_EQ("", same.GetCommandName() + same.GetExtensionPath());

  CleXDSmb block;
  block.SetString("held");
  EXPECT_EQ(99122, SendData(&socket, block)) << "it is shut down";
  EXPECT_EQ("held", block.GetSingleString());
}
