#pragma once

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstring>
#include <span>
#include <utility>

#include "clexdsmb.h"
#include "vexadx_codes.h"
#include "wireformat.h"

// Where a message goes piece by piece, each handed on as soon as it is full: a long message is then under way while it
// is still being written, and takes no memory of its own.
class PieceStream {
 public:
  static constexpr std::size_t kPiece = std::size_t{64} << 10;

  PieceStream() = default;
  PieceStream(const PieceStream&) = delete;
  PieceStream& operator=(const PieceStream&) = delete;

  void Add(const void* bytes, std::size_t length) {
    const auto* from = static_cast<const char*>(bytes);
    while (length > 0) {
      const std::size_t fitting = std::min(length, kPiece - m_used);
      std::memcpy(m_piece.data() + m_used, std::exchange(from, from + fitting), fitting);
      length -= fitting;
      m_used += fitting;
      if (m_used == kPiece) handOn();
    }
  }

  // Hands on the rest. Answers the first code that a piece was answered with, after which no other was handed on.
  int Finish() {
    if (m_used > 0) handOn();
    return m_code;
  }

 protected:
  ~PieceStream() = default;

 private:
  virtual int take(std::span<const char> piece) = 0;

  void handOn() {
    const std::size_t length = std::exchange(m_used, 0);
    if (m_code == vexadx::kSuccess) m_code = take({m_piece.data(), length});
  }

  alignas(64) std::array<char, kPiece> m_piece;
  std::size_t m_used = 0;
  int m_code = vexadx::kSuccess;
};

// Writes fields as wireformat::Writer does.
class PieceWriter {
 public:
  explicit PieceWriter(PieceStream& stream) : m_stream(&stream) {}

  void Int(int value) { number(value); }
  void Count(std::size_t value) { number(static_cast<int>(value)); }
  void Double(double value) { number(value); }
  void Bytes(const void* bytes, std::size_t length) { m_stream->Add(bytes, length); }
  template <typename Value>
  void Run(std::span<const Value> values) {
    if constexpr (vexadx::kNativeByteOrder) {
      m_stream->Add(values.data(), values.size_bytes());
    } else {
      for (const Value value : values) number(value);
    }
  }

 private:
  template <typename Number>
  void number(Number value) {
    std::array<char, sizeof value> bytes;
    wireformat::Store(bytes.data(), value);
    m_stream->Add(bytes.data(), bytes.size());
  }

  PieceStream* m_stream;
};

// Sends a message as a whole, for those who take it in pieces.
struct MessageStreamer {
  static std::size_t Length(const CleXDSmb& block) { return block.messageLength(); }
  static int Send(const CleXDSmb& block, std::size_t length, PieceStream& stream) {
    block.stream(PieceWriter(stream), length);
    return stream.Finish();
  }
};
