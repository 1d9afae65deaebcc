#include "framing.h"

#include <array>

#include "clexdsmb.h"
#include "incomingmessage.h"
#include "javaextensionsmb.h"
#include "javapluginsocket.h"
#include "messageparser.h"
#include "vexadx_codes.h"
#include "vexapipe.h"

using vexadx::kSuccess;

namespace {

constexpr std::size_t kChunk = 8192;

// `read` reads once, into a chunk that it is given, and answers a code; `malformed` is what is answered for bytes that
// are no message.
template <typename Read>
int receive(CleXDSmb& block, Read read, int malformed) {
  alignas(64) std::array<char, kChunk> chunk;
  IncomingMessage message;
  for (;;) {
    unsigned long count = 0;
    if (const int code = read(chunk, count); code != kSuccess) return code;
    if (count == 0) return vexadx::kPipeClosed;
    switch (message.Add({chunk.data(), count})) {
      case IncomingMessage::State::kIncomplete:
        break;
      case IncomingMessage::State::kMalformed:
        return malformed;
      case IncomingMessage::State::kComplete:
        return MessageParser::Parse(block, message.Bytes()) ? block.GetErrorCode() : malformed;
    }
  }
}

template <typename Write>
int send(CleXDSmb& block, Write write) {
  int length = 0;
  (void)block.ContructSendData();
  const char* const message = block.GetSendBuf(length);
  if (!message) return vexadx::kFailed;
  const int code = write(message, length);
  if (code == kSuccess) block.CleanUp();
  return code;
}

}  // namespace

int SendData(VexaPipe* pipe, CleXDSmb& block) {
  return send(block, [pipe](const char* message, int length) { return pipe->WriteData(message, length, nullptr); });
}

int SendData(VexaPipe* pipe, CleXDSmb& block, bool) {
  const int code = pipe->IsWritePipeConnected() ? kSuccess : pipe->OpenPipeToWrite();
  return code == kSuccess ? SendData(pipe, block) : code;
}

int ReceiveData(VexaPipe* pipe, CleXDSmb& block) {
  const auto read = [pipe](auto& chunk, unsigned long& count) {
    return pipe->ReadData(static_cast<int>(chunk.size()), chunk.data(), count);
  };
  return receive(block, read, vexadx::kPipeFailed);
}

int ReceiveData(VexaPipe* pipe, CleXDSmb& block, bool) {
  const int code = pipe->OpenPipeToRead();
  return code == kSuccess ? ReceiveData(pipe, block) : code;
}

int SendData(JavaPlugInSocket* socket, CleXDSmb& block) {
  return send(block, [socket](const char* message, int length) {
    unsigned long unused = 0;
    return socket->WriteData(message, length, unused);
  });
}

int ReceiveData(JavaPlugInSocket* socket, CleXDSmb& block) {
  const auto read = [socket](auto& chunk, unsigned long& count) {
    return socket->ReadData(chunk.data(), static_cast<int>(chunk.size()), count);
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
