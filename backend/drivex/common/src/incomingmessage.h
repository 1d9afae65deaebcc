#pragma once

#include <algorithm>
#include <array>
#include <cstddef>
#include <span>

#include "messagememory.h"
#include "wireformat.h"

// A message as it comes in, piece by piece. Nothing past its announced length is ever stored.
class IncomingMessage {
 public:
  enum class State { kIncomplete, kComplete, kMalformed };

  // Takes the next bytes.
  State Add(std::span<const char> bytes) {
    if (!m_bytes) {
      bytes = completeLength(bytes);
      if (m_received < wireformat::kIntLen) return State::kIncomplete;
      if (!allocate()) return State::kMalformed;
    }
    if (bytes.size() > m_length - m_received) return State::kMalformed;
    std::copy(bytes.begin(), bytes.end(), m_bytes.get() + m_received);
    m_received += bytes.size();
    return m_received == m_length ? State::kComplete : State::kIncomplete;
  }

  std::span<const char> Bytes() const { return {m_bytes.get(), m_length}; }

 private:
  // Collects the announced length, which need not come in one piece; answers the rest.
  std::span<const char> completeLength(std::span<const char> bytes) {
    const std::size_t missing = std::min(wireformat::kIntLen - m_received, bytes.size());
    std::copy_n(bytes.begin(), missing, m_announced.begin() + static_cast<std::ptrdiff_t>(m_received));
    m_received += missing;
    return bytes.subspan(missing);
  }

  // False when the length is none of a message, or when there is no memory for it.
  bool allocate() {
    const int length = wireformat::Load<int>(m_announced.data());
    if (length < static_cast<int>(wireformat::kEmptyMessageLen)) return false;
    m_length = static_cast<std::size_t>(length);
    m_bytes.reset(messagememory::Allocate(m_length));
    if (m_bytes) std::copy(m_announced.begin(), m_announced.end(), m_bytes.get());
    return m_bytes != nullptr;
  }

  std::array<char, wireformat::kIntLen> m_announced{};
  messagememory::Block m_bytes;
  std::size_t m_length = 0;
  std::size_t m_received = 0;
};
