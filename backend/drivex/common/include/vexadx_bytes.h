#pragma once

#include <bit>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <type_traits>

// Numbers as they lie in messages and case data: integers of 32 bits and numbers in IEEE 754 binary64, their bytes in
// little-endian order wherever the machine has them, at any address.
namespace vexadx {

constexpr bool kNativeByteOrder = std::endian::native == std::endian::little;

// The unsigned number of a value's bits.
template <typename Value>
using BitsOf = std::conditional_t<sizeof(Value) == 8, std::uint64_t, std::uint32_t>;

// From the machine's order of bytes to little-endian, or back.
template <typename Unsigned>
constexpr Unsigned Reordered(Unsigned value) {
  if constexpr (kNativeByteOrder) {
    return value;
  } else {
    Unsigned reversed = 0;
    for (std::size_t i = 0; i < sizeof value; ++i, value >>= 8) reversed = reversed << 8 | (value & 0xFF);
    return reversed;
  }
}

template <typename Value>
void Store(char* bytes, Value value) {
  const auto bits = Reordered(std::bit_cast<BitsOf<Value>>(value));
  std::memcpy(bytes, &bits, sizeof bits);
}

template <typename Value>
Value Load(const char* bytes) {
  BitsOf<Value> bits;
  std::memcpy(&bits, bytes, sizeof bits);
  return std::bit_cast<Value>(Reordered(bits));
}

}  // namespace vexadx
