// Any stream of bytes in any pieces, as a pipe or socket brings it: what comes of a message does not depend on the
// pieces, nothing is taken but one whole message, and bytes that come together with its end make it malformed.

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <span>
#include <string>
#include <string_view>

#include "clexdsmb.h"
#include "messageparser.h"

namespace {

constexpr int kMalformed = 1;
constexpr int kEnded = 2;

void require(bool holds) {
  if (!holds) std::abort();
}

class Pieces final : public MessageSource {
 public:
  Pieces(const std::string& stream, std::size_t seed) : m_stream(stream), m_seed(seed) {}

  // In memory of its own, whose end the address sanitizer knows.
  std::span<const char> Next() override {
    if (m_stream.empty()) throw EndOfSource{kEnded};
    const std::size_t length = std::min(1 + (m_seed * 7 + m_stream.size()) % 19, m_stream.size());
    m_piece = std::make_unique<char[]>(length);
    std::memcpy(m_piece.get(), m_stream.data(), length);
    m_stream.remove_prefix(length);
    return {m_piece.get(), length};
  }

  std::size_t Left() const { return m_stream.size(); }

 private:
  std::string_view m_stream;
  std::size_t m_seed;
  std::unique_ptr<char[]> m_piece;
};

std::string messageOf(CleXDSmb& block) {
  int length = 0;
  block.ContructSendData();
  const char* const message = block.GetSendBuf(length);
  return {message, static_cast<std::size_t>(length)};
}

// Without the binary payload, whose length a block does not keep.
std::string contentOf(CleXDSmb& block) {
  const std::unique_ptr<char[]> binary(block.GetBinaryData());
  block.SetBinaryString(nullptr, 0);
  return messageOf(block);
}

// What a block has that was given the bytes as a whole; empty when it took nothing.
std::string parsed(const std::string& bytes) {
  CleXDSmb block;
  int length = 0;
  block.ParseBuf(bytes.data());
  (void)block.GetSendBuf(length);
  return length > 0 ? contentOf(block) : std::string();
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
  const int announced = stream.size() >= wireformat::kIntLen ? vexadx::Load<int>(stream.data()) : 0;
  // Memory for what a longer one announces costs the sanitizer a second.
  constexpr int kLongest = 1 << 20;
  if (announced > kLongest) return 0;
  const auto length = static_cast<int>(stream.size());

  CleXDSmb block;
  block.SetString("held");
  const std::string before = messageOf(block);
  CleXDSmb emptyBlock;
  Pieces pieces(stream, seed);
  const int code = MessageParser::Parse(seed % 2 == 0 ? block : emptyBlock, pieces, kMalformed);
  const auto taken = length - static_cast<int>(pieces.Left());
  const std::string message = stream.substr(0, stream.size() - pieces.Left());
  if (code != 0) {
    require(messageOf(block) == before && emptyBlock.GetStringData().Size() == 0);
    // The stream's end is waited for unless there is nothing to wait for.
    require((code == kEnded) == (length < static_cast<int>(wireformat::kIntLen) ||
                                 (announced >= static_cast<int>(wireformat::kEmptyMessageLen) && announced > length)));
    require(announced != taken || length < static_cast<int>(wireformat::kIntLen) || parsed(message).empty());
    return 0;
  }
  require(announced == taken);
  if (seed % 2 != 0) require(contentOf(emptyBlock) == parsed(message));
  const std::unique_ptr<char[]> binary(block.GetBinaryData());
  return 0;
}
