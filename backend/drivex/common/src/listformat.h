#pragma once

#include <span>
#include <string>
#include <type_traits>
#include <vector>

#include "datatype.h"
#include "messagememory.h"
#include "wireformat.h"

// How the values of a list are written and read, in memory or piece by piece.
namespace wireformat {

template <typename Writer>
void WriteValue(Writer& writer, const std::string& value) {
  writer.Count(value.size());
  writer.Bytes(value.data(), value.size());
}

template <typename Writer>
void WriteValue(Writer& writer, const dataSet& value) {
  WriteValue(writer, value.m_name);
  writer.Int(value.m_int1);
  writer.Int(value.m_int2);
  writer.Int(value.m_int3);
  writer.Double(value.m_double);
  WriteValue(writer, value.m_string);
}

// Answers the writer behind the list. Its own copy stays in a register, where one that others can see would not.
template <typename Writer, typename Value>
Writer WriteList(Writer writer, const std::vector<Value>& values) {
  writer.Count(values.size());
  if constexpr (std::is_arithmetic_v<Value>) {
    writer.Run(std::span(values));
  } else {
    for (const Value& value : values) WriteValue(writer, value);
  }
  return writer;
}

template <typename Reader>
void AppendValues(Reader& reader, std::vector<std::string>& values, std::size_t count) {
  reader.Texts(values, count);
}

template <typename Reader>
void AppendValue(Reader& reader, std::vector<dataSet>& values) {
  dataSet& value = values.emplace_back();
  reader.Text(value.m_name);
  value.m_int1 = reader.Int();
  value.m_int2 = reader.Int();
  value.m_int3 = reader.Int();
  value.m_double = reader.Double();
  reader.Text(value.m_string);
}

template <typename Reader>
void AppendValues(Reader& reader, std::vector<dataSet>& values, std::size_t count) {
  for (std::size_t i = 0; i < count; ++i) AppendValue(reader, values);
}

template <typename Value>
constexpr std::size_t kLeastBytes = sizeof(Value);
template <>
inline constexpr std::size_t kLeastBytes<std::string> = kIntLen;
template <>
inline constexpr std::size_t kLeastBytes<dataSet> = 2 * kIntLen + kStructNumbersLen;

// Appends.
template <typename Reader, typename Value>
void ReadList(Reader& reader, std::vector<Value>& values) {
  const std::size_t count = reader.template Count<kLeastBytes<Value>>();
  if (count == 0) return;
  if constexpr (std::is_arithmetic_v<Value>) {
    reader.Run(values, count);
  } else {
    messagememory::GrowBy(values, reader.AtHand(count, kLeastBytes<Value>));
    AppendValues(reader, values, count);
  }
}

}  // namespace wireformat
