#include "framing.h"

#include <array>
#include <span>

#include "clexdsmb.h"
#include "javaextensionsmb.h"
#include "javapluginsocket.h"
#include "messagememory.h"
#include "messageparser.h"
#include "piecewriter.h"
#include "vexadx_codes.h"
#include "vexapipe.h"

using vexadx::kSuccess;

namespace {

constexpr std::size_t kChunk = 8192;

// `read` reads once, into memory that it is given, and answers a code.
template <typename Read>
class Chunks final : public MessageSource {
 public:
  explicit Chunks(Read read) : m_read(read) {}

  std::span<const char> Next() override {
    unsigned long count = 0;
    if (const int code = m_read(m_chunk, count); code != kSuccess) throw EndOfSource{code};
    if (count == 0) throw EndOfSource{vexadx::kPipeClosed};
    return std::span(m_chunk).first(count);
  }

 private:
  Read m_read;
  alignas(64) std::array<char, kChunk> m_chunk;
};

// `malformed` is what is answered for bytes that are no message.
template <typename Read>
int receive(CleXDSmb& block, Read read, int malformed) {
  Chunks<Read> chunks(read);
  const int code = MessageParser::Parse(block, chunks, malformed);
  return code == kSuccess ? block.GetErrorCode() : code;
}

template <typename Write>
class Pieces final : public PieceStream {
 public:
  explicit Pieces(Write write) : m_write(write) {}

 private:
  int take(std::span<const char> piece) override { return m_write(piece); }

  Write m_write;
};

template <typename Write>
int sendStreamed(CleXDSmb& block, std::size_t length, Write write) {
  Pieces<Write> pieces(write);
  const int code = MessageStreamer::Send(block, length, pieces);
  if (code != kSuccess) (void)block.ContructSendData();  // what could not be sent stays at hand
  return code;
}

template <typename Write>
int sendBuilt(CleXDSmb& block, Write write) {
  int length = 0;
  (void)block.ContructSendData();
  const char* const message = block.GetSendBuf(length);
  return message ? write(std::span(message, static_cast<std::size_t>(length))) : vexadx::kFailed;
}

// `write` writes all of the bytes that it is given and answers a code. A message is built in memory that can be kept
// for the next one, or else not as a whole.
template <typename Write>
int send(CleXDSmb& block, Write write) {
  const std::size_t length = MessageStreamer::Length(block);
  const bool streamed = length > messagememory::kLargestKept && length <= wireformat::kLongestMessage;
  const int code = streamed ? sendStreamed(block, length, write) : sendBuilt(block, write);
  if (code == kSuccess) block.CleanUp();
  return code;
}

}  // namespace

int SendData(VexaPipe* pipe, CleXDSmb& block) {
  return send(block, [pipe](std::span<const char> bytes) {
    return pipe->WriteData(bytes.data(), static_cast<int>(bytes.size()), nullptr);
  });
}

int SendData(VexaPipe* pipe, CleXDSmb& block, bool) {
  const int code = pipe->IsWritePipeConnected() ? kSuccess : pipe->OpenPipeToWrite();
  return code == kSuccess ? SendData(pipe, block) : code;
}

int ReceiveData(VexaPipe* pipe, CleXDSmb& block) {
  const auto read = [pipe](std::span<char> destination, unsigned long& count) {
    return pipe->ReadData(static_cast<int>(destination.size()), destination.data(), count);
  };
  return receive(block, read, vexadx::kPipeFailed);
}

int ReceiveData(VexaPipe* pipe, CleXDSmb& block, bool) {
  const int code = pipe->OpenPipeToRead();
  return code == kSuccess ? ReceiveData(pipe, block) : code;
}

int SendData(JavaPlugInSocket* socket, CleXDSmb& block) {
  return send(block, [socket](std::span<const char> bytes) {
    unsigned long unused = 0;
    return socket->WriteData(bytes.data(), static_cast<int>(bytes.size()), unused);
  });
}

int ReceiveData(JavaPlugInSocket* socket, CleXDSmb& block) {
  const auto read = [socket](std::span<char> destination, unsigned long& count) {
    return socket->ReadData(destination.data(), static_cast<int>(destination.size()), count);
  };
  return receive(block, read, vexadx::kSocketFailed);
}

int SendData(JavaPlugInSocket* socket, JavaExtensionSmb& message) {
  int length = 0;
  const void* const data = message.GetSendBuf(length);
  unsigned long unused = 0;
  const int code = socket->WriteData(data, data ? length : 0, unused);
  if (code == kSuccess) message.CleanUp();
  return code;
}

int ReceiveData(JavaPlugInSocket*, JavaExtensionSmb&) { return kSuccess; }
