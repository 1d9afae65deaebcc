#pragma once

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstring>
#include <exception>
#include <span>
#include <string>
#include <utility>
#include <vector>

#include "messagememory.h"
#include "wireformat.h"

// Where a message comes from, piece by piece.
class MessageSource {
 public:
  // The next bytes, at least one, valid until the next call. Throws EndOfSource when there are none.
  virtual std::span<const char> Next() = 0;

 protected:
  ~MessageSource() = default;
};

struct EndOfSource {
  int code;
};

struct MalformedMessage final : std::exception {};

// Reads the fields of a message that is still coming in, and trusts none of them: no field is read, and no memory is
// touched, beyond the length that the message announces and the bytes that have come. What is no message throws
// MalformedMessage.
class MessageReader {
 public:
  // Waits until the announced length is known.
  explicit MessageReader(MessageSource& source) : m_source(source), m_piece(source.Next()) {
    m_length = Int();
    if (m_length < static_cast<int>(wireformat::kEmptyMessageLen)) throw MalformedMessage();
    announce(static_cast<std::size_t>(m_length) - wireformat::kIntLen);
  }
  MessageReader(const MessageReader&) = delete;
  MessageReader& operator=(const MessageReader&) = delete;

  int Length() const { return m_length; }

  int Int() { return number<int>(); }
  double Double() { return number<double>(); }

  // A number of values that take at least so many bytes each.
  template <std::size_t kLeastBytes>
  std::size_t Count() {
    const int count = Int();
    if (count == 0) return 0;  // as most are
    if (count < 0 || static_cast<std::size_t>(count) > (m_piece.size() + m_ahead) / kLeastBytes) {
      throw MalformedMessage();
    }
    return static_cast<std::size_t>(count);
  }

  // Of so many values, those whose bytes may be here already.
  std::size_t AtHand(std::size_t count, std::size_t leastBytes) const {
    return std::min(count, m_piece.size() / leastBytes);
  }

  void Text(std::string& text) {
    const std::size_t length = Count<1>();
    if (isShortAndHere(length)) {
      text.assign(take(length), length);
    } else {
      longText(text, length);
    }
  }

  // Appends so many texts. What is read of a piece is counted in a copy, which stays in registers while memory is
  // written.
  void Texts(std::vector<std::string>& texts, std::size_t count) {
    for (; count > 0; --count) {
      const char* at = m_piece.data();
      const char* const end = at + m_piece.size();
      for (; count > 0 && end - at >= static_cast<std::ptrdiff_t>(wireformat::kIntLen); --count) {
        const auto length = static_cast<unsigned>(wireformat::Load<int>(at));
        const char* const text = at + wireformat::kIntLen;
        if (length >= messagememory::kSmallestKept || length > static_cast<std::size_t>(end - text)) break;
        texts.emplace_back(text, length);
        at = text + length;
      }
      m_piece = {at, end};
      if (count == 0) return;
      Text(texts.emplace_back());  // lies in two pieces, is long, or is no text
    }
  }

  // Appends so many numbers.
  template <typename Number>
  void Run(std::vector<Number>& values, std::size_t count) {
    if (count > 1) messagememory::GrowBy(values, count);
    while (count > 0) {
      const std::size_t whole = AtHand(count, sizeof(Number));
      wireformat::AppendRun(values, take(whole * sizeof(Number)), whole);
      count -= whole;
      if (count == 0) return;
      values.push_back(number<Number>());  // lies in two pieces
      --count;
    }
  }

  void Bytes(void* to, std::size_t length) {
    auto* place = static_cast<char*>(to);
    forEachPiece(length, [&place](std::span<const char> bytes) {
      std::memcpy(std::exchange(place, place + bytes.size()), bytes.data(), bytes.size());
    });
  }

  // Nothing must be left.
  void Finish() const {
    if (m_piece.size() + m_ahead > 0) throw MalformedMessage();
  }

  // Waits for the rest of what was announced, so that the next message begins where it should.
  void Drain() {
    m_piece = {};
    while (m_ahead > 0) {
      refill();
      m_piece = {};
    }
  }

 private:
  static constexpr std::size_t kNotAnnounced = static_cast<std::size_t>(-1);

  const char* take(std::size_t length) {
    const char* const bytes = m_piece.data();
    m_piece = m_piece.subspan(length);
    return bytes;
  }

  bool isShortAndHere(std::size_t length) const {
    return length < messagememory::kSmallestKept && length <= m_piece.size();
  }

  template <typename Number>
  Number number() {
    return m_piece.size() >= sizeof(Number) ? wireformat::Load<Number>(take(sizeof(Number))) : numberInPieces<Number>();
  }

  // Apart from what is done for every field.

  template <typename Number>
  [[gnu::noinline]] Number numberInPieces() {
    std::array<char, sizeof(Number)> bytes;
    Bytes(bytes.data(), bytes.size());
    return wireformat::Load<Number>(bytes.data());
  }

  [[gnu::noinline]] void longText(std::string& text, std::size_t length) {
    text = messagememory::RoomForText(length);
    forEachPiece(length, [&text](std::span<const char> bytes) { text.append(bytes.data(), bytes.size()); });
  }

  template <typename Use>
  void forEachPiece(std::size_t length, Use use) {
    while (length > 0) {
      if (m_piece.empty()) refill();
      const std::size_t here = std::min(length, m_piece.size());
      use(std::span(take(here), here));
      length -= here;
    }
  }

  void refill() {
    if (m_ahead == 0) throw MalformedMessage();
    m_piece = m_source.Next();
    if (m_ahead != kNotAnnounced) announce(m_ahead);
  }

  // So many bytes are left of the message, those in the piece among them.
  void announce(std::size_t left) {
    m_ahead = 0;
    if (m_piece.size() > left) throw MalformedMessage();
    m_ahead = left - m_piece.size();
  }

  MessageSource& m_source;
  std::span<const char> m_piece;        // has come and is not read
  std::size_t m_ahead = kNotAnnounced;  // announced, but has not come
  int m_length = 0;
};
