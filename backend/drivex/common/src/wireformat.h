#pragma once

#include <algorithm>
#include <climits>
#include <cstddef>
#include <cstring>
#include <span>
#include <string>
#include <utility>
#include <vector>

#include "vexadx_bytes.h"

// How a message lies in bytes: fields in the order of bytes of vexadx_bytes.h, one behind the other, none aligned.
namespace wireformat {

static_assert(sizeof(int) == 4 && sizeof(wchar_t) == 4, "as wide as on the wire");
static_assert(sizeof(double) == 8, "as wide as on the wire");

using vexadx::Load;
using vexadx::Store;

constexpr std::size_t kIntLen = 4;
constexpr std::size_t kDoubleLen = 8;
constexpr std::size_t kWideCharLen = 4;
constexpr std::size_t kHeaderLen = 3 * kIntLen;                      // total length, command action, error code
constexpr std::size_t kEmptyMessageLen = kHeaderLen + 10 * kIntLen;  // ten counts and lengths of nothing
constexpr std::size_t kStructNumbersLen = 3 * kIntLen + kDoubleLen;  // between the two strings of a record
constexpr std::size_t kLongestMessage = INT_MAX;

// Runs of values, in one copy where the machine's order of bytes is the wire's.
template <typename Value>
void StoreRun(char* bytes, std::span<const Value> values) {
  if constexpr (vexadx::kNativeByteOrder) {
    if (!values.empty()) std::memcpy(bytes, values.data(), values.size_bytes());
  } else {
    for (const Value value : values) Store(std::exchange(bytes, bytes + sizeof value), value);
  }
}

// Turns values that were copied as bytes into the machine's order.
template <typename Value>
void ToNative(std::span<Value> values) {
  if constexpr (!vexadx::kNativeByteOrder) {
    for (Value& value : values) value = Load<Value>(reinterpret_cast<const char*>(&value));
  }
}

// In one copy for the same reason. The bytes are nowhere aligned as numbers: several are copied as bytes, but a
// standard library may read a single one as what it is. Making room for all the numbers first would touch it twice.
template <typename Value>
void AppendRun(std::vector<Value>& values, const char* bytes, std::size_t count) {
  if (vexadx::kNativeByteOrder && count > 1) {
    const auto* const numbers = reinterpret_cast<const Value*>(bytes);
    values.insert(values.end(), numbers, numbers + count);
  } else {
    for (; count > 0; --count) values.push_back(Load<Value>(std::exchange(bytes, bytes + sizeof(Value))));
  }
}

// Writes fields one after the other into memory that has been measured for them.
class Writer {
 public:
  explicit Writer(char* to) : m_to(to) {}

  void Int(int value) { Store(advance(kIntLen), value); }
  void Count(std::size_t value) { Int(static_cast<int>(value)); }
  void Double(double value) { Store(advance(kDoubleLen), value); }
  void Bytes(const void* bytes, std::size_t length) {
    if (length > 0) std::memcpy(advance(length), bytes, length);
  }
  template <typename Value>
  void Run(std::span<const Value> values) {
    StoreRun(advance(values.size_bytes()), values);
  }

 private:
  char* advance(std::size_t length) { return std::exchange(m_to, m_to + length); }

  char* m_to;
};

// Reads fields that are known to be there, as MessageReader reads those that may not be.
class Reader {
 public:
  explicit Reader(const char* from) : m_from(from) {}

  int Int() { return Load<int>(Skip(kIntLen)); }
  double Double() { return Load<double>(Skip(kDoubleLen)); }
  // A negative count is none.
  template <std::size_t kLeastBytes>
  std::size_t Count() {
    return static_cast<std::size_t>(std::max(Int(), 0));
  }
  std::size_t AtHand(std::size_t count, std::size_t /*leastBytes*/) const { return count; }
  void Text(std::string& text) {
    const std::size_t length = Count<1>();
    text.assign(Skip(length), length);
  }
  void Texts(std::vector<std::string>& texts, std::size_t count) {
    for (; count > 0; --count) {
      const std::size_t length = Count<1>();
      texts.emplace_back(Skip(length), length);
    }
  }
  template <typename Number>
  void Run(std::vector<Number>& values, std::size_t count) {
    AppendRun(values, Skip(count * sizeof(Number)), count);
  }
  const char* Position() const { return m_from; }

 private:
  // Answers where the bytes passed over begin.
  const char* Skip(std::size_t length) { return std::exchange(m_from, m_from + length); }

  const char* m_from;
};

}  // namespace wireformat
