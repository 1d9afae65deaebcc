#include "datatype.h"

#include <algorithm>
#include <climits>
#include <cstdlib>
#include <type_traits>
#include <utility>

#include "listformat.h"
#include "messagememory.h"
#include "wireformat.h"

using wireformat::kIntLen;
using wireformat::kStructNumbersLen;

namespace {

// Values are measured before they are written, in 64 bits.

template <typename Number>
std::size_t bytesOf(const std::vector<Number>& values) {
  return kIntLen + values.size() * sizeof(Number);
}

std::size_t bytesOf(const std::vector<std::string>& values) {
  std::size_t bytes = kIntLen;
  for (const std::string& value : values) bytes += kIntLen + value.size();
  return bytes;
}

std::size_t bytesOf(const std::vector<dataSet>& values) {
  std::size_t bytes = kIntLen;
  for (const dataSet& value : values) {
    bytes += kIntLen + value.m_name.size() + kStructNumbersLen + kIntLen + value.m_string.size();
  }
  return bytes;
}

int asLength(std::size_t bytes) { return static_cast<int>(std::min<std::size_t>(bytes, INT_MAX)); }

template <typename Value>
void parse(const void* data, int& length, int& itemLength, std::vector<Value>& values) {
  if (!data) return;
  const auto* const start = static_cast<const char*>(data);
  wireformat::Reader reader(start);
  wireformat::ReadList(reader, values);
  itemLength = asLength(static_cast<std::size_t>(reader.Position() - start));
  length = itemLength;
}

template <typename Value>
void forget(std::vector<Value>& values) {
  if constexpr (std::is_same_v<Value, std::string>) {
    messagememory::Release(values);
  } else {
    values.clear();
  }
}

// Replaces the buffer by the encoding of the values.
template <typename Value>
char* construct(std::unique_ptr<char, FreeMemory>& buffer, const std::vector<Value>& values, int& itemLength,
                int& length) {
  buffer.reset();
  const std::size_t bytes = bytesOf(values);
  itemLength = asLength(bytes);
  if (bytes <= wireformat::kLongestMessage) buffer.reset(static_cast<char*>(std::malloc(bytes)));
  length = buffer ? itemLength : 0;
  if (!buffer) return nullptr;
  (void)wireformat::WriteList(wireformat::Writer(buffer.get()), values);
  return buffer.get();
}

}  // namespace

// What the items do alike, each on its own type of value.
// NOLINTBEGIN(bugprone-macro-parentheses): no parentheses around types
#define VEXADX_DEFINE_ITEM(Item, Value)                                                                  \
  Item::Item() : m_length(0) {}                                                                          \
  Item::Item(const Item& other) : DataType(other), m_length(other.m_length), m_values(other.m_values) {} \
  Item::Item(Item&& other) noexcept = default;                                                           \
  Item::~Item() { forget(m_values); }                                                                    \
  Item& Item::operator=(const Item& other) {                                                             \
    std::vector<Value> copy = other.m_values;                                                            \
    m_values = std::move(copy);                                                                          \
    m_length = other.m_length;                                                                           \
    return *this;                                                                                        \
  }                                                                                                      \
  char* Item::ConstructData(int& length) { return construct(m_buffer, m_values, m_length, length); }     \
  void Item::ParseData(const void* data, int& length) { parse(data, length, m_length, m_values); }       \
  int Item::DataLength() { return m_length = asLength(bytesOf(m_values)); }                              \
  int Item::Size() { return static_cast<int>(m_values.size()); }                                         \
  Value& Item::operator[](int i) { return m_values[static_cast<std::size_t>(i)]; }                       \
  void Item::CleanUp() { forget(m_values); }                                                             \
  std::size_t Item::bytes() const { return bytesOf(m_values); }                                          \
  void Item::shrinkTo(int size) { m_values.erase(m_values.begin() + size, m_values.end()); }

// NOLINTEND(bugprone-macro-parentheses)

VEXADX_DEFINE_ITEM(LongData, int)
VEXADX_DEFINE_ITEM(DoubleData, double)
VEXADX_DEFINE_ITEM(StringData, std::string)
VEXADX_DEFINE_ITEM(StructData, dataSet)

#undef VEXADX_DEFINE_ITEM

void LongData::SetValue(int value) { m_values.push_back(value); }

void DoubleData::SetValue(double value) { m_values.push_back(value); }

void StringData::SetValue(std::string value) { m_values.push_back(std::move(value)); }

// Copied before the list is emptied: the text may be one of its values.
void StringData::SetSingleString(const char* text) {
  std::vector<std::string> values;
  if (text) values.emplace_back(text);
  m_values = std::move(values);
}

std::string StringData::GetSingleString() { return m_values.empty() ? std::string() : m_values.front(); }

std::vector<std::string> StringData::GetData() { return m_values; }

void StructData::SetValue(dataSet value) { m_values.push_back(std::move(value)); }

void StructData::AssignValue(std::vector<dataSet> values) { m_values = std::move(values); }
