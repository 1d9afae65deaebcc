#pragma once

#include <algorithm>
#include <climits>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "clexdsmb.h"
#include "framing.h"
#include "input.h"
#include "invariant.h"
#include "vexadx_codes.h"
#include "wireformat.h"

// Any stream of bytes in any pieces, through a real channel: what comes of a message does not depend on the pieces,
// nothing is taken but one whole message, and bytes that come together with its end make it malformed.

inline std::string messageOf(CleXDSmb& block) {
  int length = 0;
  block.ContructSendData();
  const char* const message = block.GetSendBuf(length);
  return {message, static_cast<std::size_t>(length)};
}

// What is expected of a stream: what a block makes of its first message as a whole.
struct Expected {
  int code;
  std::size_t taken;  // bytes
  std::unique_ptr<CleXDSmb> block;

  Expected(const std::string& stream, const std::vector<std::string_view>& pieces, int malformed, bool held)
      : code(vexadx::kPipeClosed), taken(0), block(new CleXDSmb) {
    if (held) block->SetString("held");
    const int announced = stream.size() >= wireformat::kIntLen ? vexadx::Load<int>(stream.data()) : INT_MAX;
    const bool isLong = announced >= static_cast<int>(wireformat::kEmptyMessageLen);
    const std::size_t awaited = isLong ? static_cast<std::size_t>(announced) : wireformat::kIntLen;
    for (const std::string_view piece : pieces) {
      if (taken < awaited) taken += piece.size();
    }
    if (taken < awaited) return;
    code = malformed;
    if (!isLong || taken > awaited) return;
    int length = 0;
    block->ParseBuf(Exactly(std::string_view(stream).substr(0, taken)).get());
    (void)block->GetSendBuf(length);
    if (length > 0) code = block->GetErrorCode();
  }
};

// Of any sizes, from single bytes to the whole; few enough to lie in the system's memory all at once.
inline std::vector<std::string_view> inPieces(std::string_view stream, std::size_t seed) {
  const std::size_t most = std::max(stream.size() / 60 + 1, std::size_t{1} << seed % 13);
  std::vector<std::string_view> pieces;
  for (auto state = static_cast<std::uint32_t>(seed); !stream.empty(); stream.remove_prefix(pieces.back().size())) {
    state = state * 1103515245 + 12345;
    pieces.push_back(stream.substr(0, 1 + (state >> 8) % most));
  }
  return pieces;
}

// A channel has `kMalformed`, and
//   Send     takes pieces that are received one by one, and an end behind them
//   Receive  receives a message
//   Left     the bytes behind it
// The input's first byte says how the rest is cut.
template <typename Channel>
void checkStream(Channel& channel, const std::uint8_t* data, std::size_t size) {
  constexpr std::size_t kLongestStream = 4096;  // in one piece
  if (size == 0 || size > kLongestStream) return;
  const std::size_t seed = data[0];
  std::string stream(reinterpret_cast<const char*>(data + 1), size - 1);
  // Few streams announce their own length; told something near it, the rest of them is looked at as well.
  if (seed % 4 != 0 && stream.size() >= wireformat::kIntLen) {
    vexadx::Store(stream.data(), static_cast<int>(stream.size()) + static_cast<int>(seed / 4 % 3) - 1);
  }
  // Memory for what a longer one announces costs the sanitizer a second.
  constexpr int kLongest = 1 << 20;
  if (stream.size() >= wireformat::kIntLen && vexadx::Load<int>(stream.data()) > kLongest) return;

  const bool held = seed % 2 == 0;
  const std::vector<std::string_view> pieces = inPieces(stream, seed);
  const Expected expected(stream, pieces, Channel::kMalformed, held);
  CleXDSmb block;
  if (held) block.SetString("held");
  channel.Send(pieces);
  require(channel.Receive(block) == expected.code);
  require(channel.Left() == stream.size() - expected.taken);
  require(messageOf(block) == messageOf(*expected.block));
  const std::unique_ptr<char[]> binaries[] = {std::unique_ptr<char[]>(block.GetBinaryData()),
                                              std::unique_ptr<char[]>(expected.block->GetBinaryData())};
  require((binaries[0] != nullptr) == (binaries[1] != nullptr));
}
