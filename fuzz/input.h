#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <memory>
#include <string_view>
#include <utility>

// A copy in memory whose end the address sanitizer knows.
inline std::unique_ptr<char[]> Exactly(std::string_view bytes) {
  auto copy = std::make_unique<char[]>(bytes.size());
  std::copy(bytes.begin(), bytes.end(), copy.get());
  return copy;
}

// An input taken apart from its front. Past its end everything is zero or empty.
class Input {
 public:
  Input(const std::uint8_t* data, std::size_t size) : m_rest(reinterpret_cast<const char*>(data), size) {}

  bool IsAtEnd() const { return m_rest.empty(); }
  std::string_view Rest() const { return m_rest; }

  std::string_view Bytes(std::size_t most) {
    const std::string_view bytes = m_rest.substr(0, most);
    m_rest.remove_prefix(bytes.size());
    return bytes;
  }
  template <typename Number>
  Number Get() {
    Number value{};
    const std::string_view bytes = Bytes(sizeof value);
    if (!bytes.empty()) std::memcpy(&value, bytes.data(), bytes.size());
    return value;
  }
  std::size_t Below(std::size_t end) { return Get<std::uint8_t>() % end; }

  // Up to the delimiter, which is passed over.
  std::string_view Until(char delimiter) {
    const std::size_t length = std::min(m_rest.find(delimiter), m_rest.size());
    const std::string_view text = Bytes(length);
    (void)Bytes(1);
    return text;
  }

 private:
  std::string_view m_rest;
};
