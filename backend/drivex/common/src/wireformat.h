#pragma once

#include <algorithm>
#include <climits>
#include <cstddef>
#include <cstring>
#include <span>
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

template <typename Value>
void LoadRun(std::span<Value> values, const char* bytes) {
  if constexpr (vexadx::kNativeByteOrder) {
    if (!values.empty()) std::memcpy(values.data(), bytes, values.size_bytes());
  } else {
    for (Value& value : values) value = Load<Value>(std::exchange(bytes, bytes + sizeof value));
  }
}

// Makes room for more values without making repeated growth slow.
template <typename Value>
void GrowBy(std::vector<Value>& values, std::size_t count) {
  const std::size_t needed = values.size() + count;
  if (needed > values.capacity()) values.reserve(std::max(needed, 2 * values.capacity()));
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

// Reads fields that are known to be there.
class Reader {
 public:
  explicit Reader(const char* from) : m_from(from) {}

  int Int() { return Load<int>(Skip(kIntLen)); }
  double Double() { return Load<double>(Skip(kDoubleLen)); }
  // A count or length; a negative one is none.
  std::size_t Count() {
    const int count = Int();
    return count > 0 ? static_cast<std::size_t>(count) : 0;
  }
  // Answers where the bytes passed over begin.
  const char* Skip(std::size_t length) { return std::exchange(m_from, m_from + length); }
  const char* Position() const { return m_from; }

 private:
  const char* m_from;
};

// Whether the bytes are one message and nothing else: its announced length is theirs, no count or length in it is
// negative or reaches past the end, and its fields fill it. What passes can be parsed without another look.
bool IsMessage(std::span<const char> bytes);

}  // namespace wireformat
