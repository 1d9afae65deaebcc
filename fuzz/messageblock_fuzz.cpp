// Any bytes as a message: what a block takes is built again to the same bytes, what it does not
// take changes nothing.

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <cwchar>
#include <memory>
#include <string>
#include <utility>

#include "clexdsmb.h"
#include "input.h"
#include "invariant.h"
#include "wireformat.h"

namespace {

using wireformat::kIntLen;
using wireformat::kWideCharLen;

std::string messageOf(CleXDSmb& block) {
  int length = 0;
  block.ContructSendData();
  const char* const message = block.GetSendBuf(length);
  return {message, static_cast<std::size_t>(length)};
}

// Whether a block takes bytes that announce themselves.
bool isMessage(const std::string& bytes) {
  CleXDSmb block;
  int length = 0;
  require(block.ParseBuf(Exactly(bytes).get()) == 0);
  (void)block.GetSendBuf(length);
  const std::unique_ptr<char[]> binary(block.GetBinaryData());
  return length > 0;
}

template <typename Lists>
std::size_t bytesOf(Lists& lists) {
  std::size_t bytes = kIntLen;
  for (auto& list : lists) bytes += static_cast<std::size_t>(list.DataLength());
  return bytes;
}

std::string field(std::size_t value) {
  std::string bytes(kIntLen, '\0');
  wireformat::Store(bytes.data(), static_cast<int>(value));
  return bytes;
}

// What a block is to build from the message it has parsed: without the binary payload, whose length it does not keep,
// and with the wide string up to its first zero.
std::string expectedOf(const std::string& message, CleXDSmb& block) {
  const auto binaryAt = wireformat::kHeaderLen + static_cast<std::size_t>(block.GetLongDataRef().DataLength()) +
                        static_cast<std::size_t>(block.GetDoubleDataRef().DataLength()) +
                        static_cast<std::size_t>(block.GetStringData().DataLength()) +
                        static_cast<std::size_t>(block.GetStructData().DataLength()) +
                        bytesOf(block.GetLongArrayRef()) + bytesOf(block.GetDoubleArrayRef()) +
                        bytesOf(block.GetStringArrayRef());
  const char* at = message.data() + binaryAt;
  const auto count = [&at] { return static_cast<std::size_t>(wireformat::Load<int>(std::exchange(at, at + kIntLen))); };
  const std::size_t binaryLen = count();
  const char* const binary = std::exchange(at, at + binaryLen);
  const std::unique_ptr<char[]> parsed(block.GetBinaryData());
  require((parsed != nullptr) == (binaryLen > 0));
  require(!parsed || (std::memcmp(parsed.get(), binary, binaryLen) == 0 && parsed[binaryLen] == '\0'));
  block.SetBinaryString(nullptr, 0);

  const std::size_t wideCount = count();
  const char* const units = std::exchange(at, at + wideCount * kWideCharLen);
  const std::size_t kept = block.GetwStringData() ? std::wcslen(block.GetwStringData()) : 0;
  require(kept == wideCount || wireformat::Load<int>(units + kept * kWideCharLen) == 0);
  std::string expected = message.substr(0, binaryAt) + field(0) + field(kept);
  expected.append(units, kept * kWideCharLen).append(at, message.data() + message.size());
  return expected.replace(0, kIntLen, field(expected.size()));
}

// The bytes say that they are all of a message.
void check(const std::string& bytes) {
  CleXDSmb block;
  if (isMessage(bytes)) {
    require(block.ParseBuf(Exactly(bytes).get()) == 0);
    const std::string expected = expectedOf(bytes, block);
    require(messageOf(block) == expected);
    require(block.ParseBuf(Exactly(bytes).get()) == 0);  // behind what it has
    const std::unique_ptr<char[]> binary(block.GetBinaryData());
  } else {
    block.SetLong(1);
    block.SetwString(L"held");
    const std::string before = messageOf(block);
    require(block.ParseBuf(Exactly(bytes).get()) == 0);
    require(messageOf(block) == before);
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  if (size < kIntLen) return 0;
  // Few inputs say their own length; told the right one, the rest of them is looked at.
  std::string bytes(reinterpret_cast<const char*>(data), size);
  check(bytes.replace(0, kIntLen, field(size)));
  return 0;
}
