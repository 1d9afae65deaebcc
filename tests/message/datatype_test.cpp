#include "datatype.h"

#include <gtest/gtest.h>

#include <string>
#include <tuple>
#include <utility>
#include <vector>

namespace {

template <typename Value>
bool same(const Value& left, const Value& right) {
  return left == right;
}

bool same(const dataSet& left, const dataSet& right) {
  const auto fields = [](const dataSet& value) {
    return std::tie(value.m_name, value.m_int1, value.m_int2, value.m_int3, value.m_double, value.m_string);
  };
  return fields(left) == fields(right);
}

template <typename Item>
std::string encodingOf(Item& item) {
  int length = -1;
  const char* const encoding = item.ConstructData(length);
  EXPECT_EQ(length, item.DataLength());
  return {encoding, static_cast<std::size_t>(length)};
}

// The values encode as expected and are parsed from that, behind those the item has.
template <typename Item, typename Value>
void expectEncoding(const std::vector<Value>& values, const std::string& expected) {
  Item item;
  for (const Value& value : values) item.SetValue(value);
  ASSERT_EQ(expected, encodingOf(item));

  int length = -1;
  item.ParseData(nullptr, length);
  EXPECT_EQ(-1, length);
  item.ParseData(expected.data(), length);
  EXPECT_EQ(static_cast<int>(expected.size()), length);
  const auto count = values.size();
  ASSERT_EQ(2 * count, static_cast<std::size_t>(item.Size()));
  for (std::size_t i = 0; i < 2 * count; ++i) EXPECT_TRUE(same(values[i % count], item[static_cast<int>(i)])) << i;
  item.CleanUp();
  EXPECT_EQ(std::string(4, '\0'), encodingOf(item));
}

template <std::size_t n>
std::string bytes(const char (&text)[n]) {
  return {text, n - 1};
}

}  // namespace

TEST(PayloadItem, IsEncodedAndParsed) {
  expectEncoding<LongData, int>({}, bytes("\0\0\0\0"));
  expectEncoding<LongData, int>({1, -1}, bytes("\2\0\0\0\1\0\0\0\xFF\xFF\xFF\xFF"));
  expectEncoding<DoubleData, double>({1.0}, bytes("\1\0\0\0\0\0\0\0\0\0\xF0\x3F"));
  expectEncoding<StringData, std::string>({"ab", ""}, bytes("\2\0\0\0\2\0\0\0ab\0\0\0\0"));
  expectEncoding<StructData, dataSet>({{"x", 1, 2, 3, 0.5, ""}},
                                      bytes("\1\0\0\0\1\0\0\0x\1\0\0\0\2\0\0\0\3\0\0\0\0\0\0\0\0\0\xE0\x3F\0\0\0\0"));
}

// What is shared or released twice here, the address sanitizer sees.
TEST(PayloadItem, KeepsItsEncodingToItself) {
  LongData item;
  item.SetValue(1);
  const std::string encoding = encodingOf(item);
  LongData copy = item;
  LongData target;
  for (int i = 0; i < 3; ++i) target.SetValue(i);
  int length = 0;
  const char* const old = target.ConstructData(length);
  const std::string oldEncoding(old, static_cast<std::size_t>(length));
  target = item;
  EXPECT_EQ(oldEncoding, std::string(old, oldEncoding.size()));
  target = copy;
  LongData& self = target;
  target = self;
  EXPECT_EQ(encoding, encodingOf(target));
  EXPECT_EQ(encoding, encodingOf(copy));
  const LongData moved = std::move(item);
  std::vector<LongData> lists(100, moved);
  lists.erase(lists.begin(), lists.begin() + 50);
  EXPECT_EQ(encoding, encodingOf(lists.front()));

  StringData own;
  own.SetValue("a");
  own.ParseData(own.ConstructData(length), length);
  EXPECT_EQ((std::vector<std::string>{"a", "a"}), own.GetData());
}

TEST(PayloadItem, HoldsOneStringOrGivenRecords) {
  StringData strings;
  EXPECT_EQ("", strings.GetSingleString());
  for (const char* text : {"a", "b"}) strings.SetValue(text);
  EXPECT_EQ("a", strings.GetSingleString());
  strings.SetSingleString(strings[1].c_str());
  EXPECT_EQ(std::vector<std::string>{"b"}, strings.GetData());
  strings.SetSingleString(nullptr);
  EXPECT_EQ(0, strings.Size());

  StructData records;
  records.SetValue({"old", 0, 0, 0, 0, ""});
  records.AssignValue({{"first", 1, 0, 0, 0, ""}, {"second", 2, 0, 0, 0, ""}});
  ASSERT_EQ(2, records.Size());
  EXPECT_EQ("second", records[1].m_name);
}
