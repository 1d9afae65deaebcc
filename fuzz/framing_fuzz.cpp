// Any stream of bytes in any pieces, as a pipe or socket brings it: a message is complete with its last byte and not
// before, nothing past it is taken, and what is complete is checked before it is parsed.

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <span>
#include <string>

#include "clexdsmb.h"
#include "incomingmessage.h"
#include "messageparser.h"

namespace {

using State = IncomingMessage::State;

void require(bool holds) {
  if (!holds) std::abort();
}

}  // namespace

// The first byte says how the rest is cut.
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  if (size == 0) return 0;
  const std::size_t seed = data[0];
  std::string stream(reinterpret_cast<const char*>(data + 1), size - 1);
  // Few streams announce their own length; told something near it, the rest of them is looked at as well.
  if (seed % 4 != 0 && stream.size() >= wireformat::kIntLen) {
    vexadx::Store(stream.data(), static_cast<int>(stream.size()) + static_cast<int>(seed / 4 % 3) - 1);
  }
  // A longer one is only waited for, and its memory costs the sanitizer a second.
  constexpr int kLongest = 1 << 20;
  if (stream.size() >= wireformat::kIntLen && vexadx::Load<int>(stream.data()) > kLongest) return 0;
  IncomingMessage message;
  State state = State::kIncomplete;
  std::size_t taken = 0;
  while (taken < stream.size() && state == State::kIncomplete) {
    const std::size_t piece = std::min(1 + (seed * 7 + taken) % 19, stream.size() - taken);
    // Memory of its own, whose end the address sanitizer knows.
    const auto bytes = std::make_unique<char[]>(piece);
    std::memcpy(bytes.get(), stream.data() + taken, piece);
    state = message.Add({bytes.get(), piece});
    taken += piece;
  }
  const std::string whole = stream.substr(0, taken);
  const bool announcesItself = taken >= wireformat::kIntLen &&
                               vexadx::Load<int>(whole.data()) == static_cast<int>(taken) &&
                               taken >= wireformat::kEmptyMessageLen;
  require((state == State::kComplete) == announcesItself);
  if (state != State::kComplete) return 0;
  require(std::memcmp(message.Bytes().data(), whole.data(), taken) == 0);
  CleXDSmb block;
  require(MessageParser::Parse(block, message.Bytes()) == wireformat::IsMessage(whole));
  const std::unique_ptr<char[]> binary(block.GetBinaryData());
  return 0;
}
