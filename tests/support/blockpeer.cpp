// Shows what the library makes of messages: reads them from standard input, each behind its length in four bytes, and
// answers a line of JSON for each:
//   parsed   what a block has that parsed them as long as they say they are; null when it took nothing
//   rebuilt  the message of a new block that was given the same values
// Bytes are written in hexadecimal, doubles as their 64 bits.

#include <bit>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <cwchar>
#include <iostream>
#include <memory>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "clexdsmb.h"
#include "wireformat.h"

using Json = nlohmann::json;

namespace {

Json show(int value) { return value; }

Json show(double value) { return std::bit_cast<std::uint64_t>(value); }

Json show(const std::string& bytes) {
  static const char* const kDigits = "0123456789abcdef";
  std::string hex;
  hex.reserve(2 * bytes.size());
  for (const unsigned char byte : bytes) hex.append({kDigits[byte >> 4], kDigits[byte & 15]});
  return hex;
}

Json show(const dataSet& value) {
  return {show(value.m_name), value.m_int1, value.m_int2, value.m_int3, show(value.m_double), show(value.m_string)};
}

template <typename Item>
Json showItem(Item item) {
  Json values = Json::array();
  for (int i = 0; i < item.Size(); ++i) values.push_back(show(item[i]));
  return values;
}

template <typename Item>
Json showLists(const std::vector<Item>& lists) {
  Json values = Json::array();
  for (const Item& list : lists) values.push_back(showItem(list));
  return values;
}

std::string messageOf(CleXDSmb& block) {
  int length = 0;
  block.ContructSendData();
  const char* const message = block.GetSendBuf(length);
  return {message, static_cast<std::size_t>(length)};
}

Json content(CleXDSmb& block, const char* binary) {
  Json wide = Json::array();
  for (const wchar_t* unit = block.GetwStringData(); unit && *unit; ++unit) {
    wide.push_back(static_cast<std::uint32_t>(*unit));
  }
  int length = 0;
  const auto* const bytes = static_cast<const char*>(block.GetVoidData(length));
  return {{"action", block.GetCommandAction()},
          {"error", block.GetErrorCode()},
          {"longs", showItem(block.GetLongData())},
          {"doubles", showItem(block.GetDoubleData())},
          {"strings", showItem(block.GetStringData())},
          {"structs", showItem(block.GetStructData())},
          {"long_lists", showLists(block.GetLongArray())},
          {"double_lists", showLists(block.GetDoubleArray())},
          {"string_lists", showLists(block.GetStringArray())},
          {"binary", show(binary ? std::string(binary) : std::string())},
          {"wide", wide},
          {"void", show(bytes ? std::string(bytes, static_cast<std::size_t>(length)) : std::string())}};
}

std::string rebuild(CleXDSmb& from, const char* binary) {
  CleXDSmb block;
  block.SetCommandAction(from.GetCommandAction());
  block.SetErrorCode(from.GetErrorCode());
  for (int i = 0; i < from.GetLongDataRef().Size(); ++i) block.SetLong(from.GetLongDataRef()[i]);
  for (int i = 0; i < from.GetDoubleDataRef().Size(); ++i) block.SetDouble(from.GetDoubleDataRef()[i]);
  for (const std::string& text : from.GetStringData().GetData()) {
    block.SetString(text.data(), static_cast<int>(text.size()));
  }
  StructData records = from.GetStructData();
  for (int i = 0; i < records.Size(); ++i) block.SetStruct(records[i]);
  block.SetLongArray(from.GetLongArrayRef());
  for (const DoubleData& list : from.GetDoubleArrayRef()) block.SetDoubleArray(list);
  block.SetStringArray(from.GetStringArrayRef());
  if (binary) block.SetBinaryString(binary, static_cast<int>(std::strlen(binary)));
  if (from.GetwStringData()) block.SetwString(from.GetwStringData());
  int length = 0;
  const void* const bytes = from.GetVoidData(length);
  if (length > 0) {
    block.AllocVoidData(length);
    block.SaveDataIntoVoidData(bytes, 1).SaveDataIntoVoidData(static_cast<const char*>(bytes) + 1, length - 1);
  }
  return messageOf(block);
}

Json answer(const std::vector<char>& bytes) {
  Json line = {{"parsed", nullptr}};
  if (bytes.size() < wireformat::kIntLen) return line;
  const int announced = vexadx::Load<int>(bytes.data());
  if (announced > static_cast<int>(bytes.size())) return line;

  CleXDSmb block;
  const std::string before = messageOf(block);
  block.CleanUp();
  block.ParseBuf(bytes.data());
  int length = 0;
  (void)block.GetSendBuf(length);  // that of the message parsed
  if (length == 0) {
    if (messageOf(block) != before) line["parsed"] = "in part";
    return line;
  }
  const std::unique_ptr<char[]> binary(block.GetBinaryData());
  line["parsed"] = content(block, binary.get());
  line["rebuilt"] = show(rebuild(block, binary.get()));
  return line;
}

}  // namespace

int main() {
  char prefix[wireformat::kIntLen];
  while (std::fread(prefix, 1, sizeof prefix, stdin) == sizeof prefix) {
    std::vector<char> bytes(vexadx::Load<std::uint32_t>(prefix));
    if (std::fread(bytes.data(), 1, bytes.size(), stdin) != bytes.size()) return 1;
    std::cout << answer(bytes) << std::endl;
  }
}
