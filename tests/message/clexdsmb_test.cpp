#include "clexdsmb.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <iterator>
#include <memory>
#include <string>

#include "message.h"

namespace {

std::string hex(const std::string& bytes) {
  std::string text;
  char pair[3];
  for (const unsigned char byte : bytes) {
    std::snprintf(pair, sizeof pair, "%02X", byte);
    text += pair;
  }
  return text;
}

std::string zeros(int count) { return std::string(2 * static_cast<std::size_t>(count), '0'); }

// A block with every payload, and what only it has where a message leaves something out.
void fill(CleXDSmb& block) {
  block.SetLong(1);
  block.SetDouble(2);
  block.SetString(std::string("three"));
  block.SetStruct(dataSet{"four", 4, 4, 4, 4, "iv"});
  block.SetLongArray(block.GetLongData());
  block.SetDoubleArray(std::vector<DoubleData>{block.GetDoubleData(), {}});
  block.SetStringArray(block.GetStringData());
  block.SetBinaryString("five", 4);
  block.SetwString(L"six");
  block.AllocVoidData(8);
  block.SaveDataIntoVoidData("sev", 3).SaveDataIntoVoidData("en", 2);
}

}  // namespace

TEST(MessageBlock, IsTheBytesThatTheFormatSays) {
  const struct {
    std::function<void(CleXDSmb&)> fill;
    std::string message;
  } cases[] = {
      {[](CleXDSmb&) {}, "34000000FFFFFFFF00000000" + zeros(40)},
      {[](CleXDSmb& block) {
         block.SetCommandAction(static_cast<CleXDSmb::CommandAction>(3));
         block.SetLong(7);
         block.SetString("ab");
       },
       "3E0000000300000000000000010000000700000000000000010000000200000061"
       "62" +
           zeros(28)},
      {[](CleXDSmb& block) { block.SetErrorCode(99103); }, "34000000FFFFFFFF1F830100" + zeros(40)},
      {[](CleXDSmb& block) { block.SetwString(L"h\u00E9"); },
       "3C000000FFFFFFFF00000000" + zeros(32) + "0200000068000000E9000000" + zeros(4)},
      {[](CleXDSmb& block) { block.SetLong(4294967297); }, "38000000FFFFFFFF000000000100000001000000" + zeros(36)},
      {[](CleXDSmb& block) { block.AllocVoidData(10); }, "34000000FFFFFFFF00000000" + zeros(40)},
      {[](CleXDSmb& block) {
         block.SetString(static_cast<const char*>(nullptr));
         block.SetString("a\0b", 3);
         block.SetBinaryString("xyz", 3);
         block.CleanUpAllData();
       },
       "34000000FFFFFFFF00000000" + zeros(40)},
  };
  for (const auto& c : cases) {
    CleXDSmb block;
    c.fill(block);
    EXPECT_EQ(c.message, hex(MessageOf(block)));
    EXPECT_EQ(c.message, hex(MessageOf(block))) << "built again";
  }
}

TEST(MessageBlock, ParsesBehindWhatItHas) {
  CleXDSmb sent;
  fill(sent);
  const std::string message = MessageOf(sent);
  CleXDSmb block;
  for (int time = 1; time <= 2; ++time) {
    block.SetBinaryString("a longer one", 12);
    EXPECT_EQ(0, block.ParseBuf(message.data()));
    EXPECT_EQ(time, block.GetLongDataRef().Size());
    EXPECT_EQ(time, block.GetDoubleDataRef().Size());
    EXPECT_EQ(time, block.GetStringData().Size());
    EXPECT_EQ(time, block.GetStructData().Size());
    EXPECT_EQ(time, static_cast<int>(block.GetLongArray().size()));
    EXPECT_EQ(2 * time, static_cast<int>(block.GetDoubleArray().size()));
    EXPECT_EQ(time, static_cast<int>(block.GetStringArrayRef().size()));
    const std::unique_ptr<char[]> binary(block.GetBinaryData());
    EXPECT_STREQ("five", binary.get());
    EXPECT_STREQ(L"six", block.GetwStringData());
    int length = 0;
    EXPECT_EQ(0, std::memcmp("seven", block.GetVoidData(length), 5));
    EXPECT_EQ(5, length);
  }
}

TEST(MessageBlock, ReplacesWhatItIsToldToReplace) {
  CleXDSmb block;
  for (int time = 0; time < 2; ++time) {
    block.SetLongArray(std::vector<LongData>(2));
    block.SetDoubleArray(std::vector<DoubleData>(2));
    block.SetStringArray(std::vector<StringData>(2));
    block.SetStruct(std::vector<dataSet>(2));
    block.SetSingleString("one");
  }
  EXPECT_EQ(2u, block.GetLongArray().size());
  EXPECT_EQ(2u, block.GetDoubleArray().size());
  EXPECT_EQ(2u, block.GetStringArray().size());
  EXPECT_EQ(2, block.GetStructData().Size());
  EXPECT_EQ(1, block.GetStringData().Size());

  int length = -1;
  for (const int wrong : {-5, 0}) {
    block.SetVoidData(std::malloc(4), wrong);
    block.SaveDataIntoVoidData("abc", 3);
    EXPECT_EQ(0, std::memcmp("abc", block.GetVoidData(length), 3));
    EXPECT_EQ(3, length);
  }
  CleXDSmb none;
  block.ParseBuf(MessageOf(none).data());
  (void)block.GetVoidData(length);
  EXPECT_EQ(0, length);
  for (const bool allocated : {false, true}) {
    if (allocated) {
      EXPECT_EQ(nullptr, block.AllocVoidData(-1));
    } else {
      block.SetVoidData(nullptr, 100);
    }
    EXPECT_EQ(nullptr, block.SaveDataIntoVoidData("abc", 3).GetVoidData(length));
  }
  EXPECT_EQ(0, length);
}

TEST(MessageBlock, IsUnchangedByWhatIsNoMessage) {
  CleXDSmb block;
  fill(block);
  const std::string message = MessageOf(block);
  EXPECT_EQ(0, block.ParseBuf(nullptr));
  block.SetString(nullptr, 3);
  block.SetString("abc", -1);
  block.SaveDataIntoVoidData(nullptr, 3).SaveDataIntoVoidData("abc", 0).SaveDataIntoVoidData("abc", -1);
  block.SaveDataIntoVoidData("abc", 2147483647);
  std::string wrong = message;
  wrong[12] = 2;  // one integer more than there is
  EXPECT_EQ(0, block.ParseBuf(wrong.data()));
  EXPECT_EQ(message, MessageOf(block));
}

// Who releases what, the address sanitizer sees.
TEST(MessageBlock, OwnsItsBuffersInAnyOrder) {
  CleXDSmb block;
  fill(block);
  const std::string message = MessageOf(block);
  const std::function<void()> steps[] = {
      [&] { fill(block); },
      [&] { block.ParseBuf(message.data()); },
      [&] { (void)MessageOf(block); },
      [&] { block.CleanUp(); },
      [&] { block.CleanUpAllData(); },
      [&] { block.SetVoidData(std::malloc(4), 4); },
      [&] {
        int length = 0;
        block.SetVoidData(block.GetVoidData(length), 0);
      },
      [&] { block.SetwString(block.GetwStringData()); },
      [&] {
        const std::unique_ptr<char[]> binary(block.GetBinaryData());
        block.SetBinaryString(nullptr, 0);
      },
  };
  unsigned seed = 1;
  for (int i = 0; i < 2000; ++i) {
    seed = seed * 1103515245 + 12345;
    steps[(seed >> 16) % std::size(steps)]();
  }
  block.SetLongArray(block.GetLongArrayRef());
  block.CleanUp();
  EXPECT_EQ(52u, MessageOf(block).size());
}

TEST(MessageBlock, HandsItsBinaryPayloadOver) {
  CleXDSmb block;
  block.SetBinaryString("abc", 3);
  std::unique_ptr<char[]> handedOut(block.GetBinaryData());
  EXPECT_EQ(55u, MessageOf(block).size()) << "it is still sent";
  block.CleanUp();
  EXPECT_EQ(nullptr, block.GetBinaryData());
  EXPECT_EQ(0, std::memcmp("abc", handedOut.get(), 3)) << "it is the caller's";

  block.SetBinaryString("abcdef", 6);
  CleXDSmb other;
  other.SetBinaryString("xy", 2);
  block.ParseBuf(MessageOf(other).data());  // the length that was set stays
  EXPECT_EQ(54u, MessageOf(block).size()) << "no more is sent than there is";
  block.ParseBuf(MessageOf(block).data());
  CleXDSmb none;
  block.ParseBuf(MessageOf(none).data());
  EXPECT_EQ(52u, MessageOf(block).size());
}

TEST(MessageBlock, CleansUpWhatItIsAskedTo) {
  CleXDSmb block;
  fill(block);
  block.SetErrorCode(5);
  (void)MessageOf(block);
  block.CleanUpLongData();
  block.CleanUpDoubleData();
  block.CleanUpStringData();
  block.CleanUpStructData();
  block.CleanUpwStringData();
  EXPECT_EQ(0, block.GetLongData().Size() + block.GetDoubleData().Size() + block.GetStructData().Size());
  EXPECT_EQ("", block.GetSingleString());
  EXPECT_FALSE(block.GetLongArray().empty());
  block.CleanUpAllData();
  EXPECT_STREQ(L"six", block.GetwStringData());
  int length = -1;
  EXPECT_NE(nullptr, block.GetSendBuf(length));
  block.CleanUp();
  EXPECT_EQ(nullptr, block.GetwStringData());
  EXPECT_EQ(nullptr, block.GetSendBuf(length));
  EXPECT_EQ(0, length);
  EXPECT_EQ(5, block.GetErrorCode());
}
