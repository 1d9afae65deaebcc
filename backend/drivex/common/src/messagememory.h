#pragma once

#include <algorithm>
#include <cstddef>
#include <memory>
#include <string>
#include <vector>

// The memory of messages and of the large texts in them. The allocator of a small process gives large blocks back to
// the system at once, and touching new pages takes several times as long as writing the message. So a thread keeps what
// it no longer needs of a middle size for its next message, and larger memory is asked for in large pages.
namespace messagememory {

constexpr std::size_t kSmallestKept = std::size_t{16} << 10;
constexpr std::size_t kLargestKept = std::size_t{4} << 20;

// A block from malloc of at least so many bytes; null when there is no memory.
char* Allocate(std::size_t length);

// Null is nothing.
void Release(char* block) noexcept;

struct Releaser {
  void operator()(char* block) const noexcept { Release(block); }
};

using Block = std::unique_ptr<char, Releaser>;

// Memory that is about to be filled for the first time.
void ExpectFilling(void* memory, std::size_t length) noexcept;

// Makes room for more values without making repeated growth slow.
template <typename Value>
void GrowBy(std::vector<Value>& values, std::size_t count) {
  const std::size_t needed = values.size() + count;
  if (needed <= values.capacity()) return;
  values.reserve(std::max(needed, 2 * values.capacity()));
  ExpectFilling(values.data(), values.capacity() * sizeof(Value));
}

// An empty text with room for so many bytes.
std::string RoomForText(std::size_t length);

// A text of these bytes.
inline std::string Text(const char* bytes, std::size_t length) {
  if (length < kSmallestKept) return {bytes, length};
  std::string text = RoomForText(length);
  text.assign(bytes, length);
  return text;
}

// Keeps the memory of a text that goes.
void Keep(std::string& text) noexcept;

// Texts that go.
inline void Release(std::vector<std::string>& texts) noexcept {
  for (std::string& text : texts) {
    if (text.capacity() >= kSmallestKept) Keep(text);
  }
  texts.clear();
}

}  // namespace messagememory
