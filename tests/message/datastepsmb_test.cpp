#include "datastepsmb.h"

#include <gtest/gtest.h>

#include <climits>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

TEST(DatastepBlock, AnswersCellsByRowAndColumn) {
  DatastepSmb block;
  LongData codes;
  DoubleData numbers;
  StringData texts;
  for (int i = 0; i < 6; ++i) {
    codes.SetValue(10 * i);
    numbers.SetValue(i / 2.0);
    texts.SetValue(std::string("t") + '\0' + std::to_string(i));
  }
  int cellCode = -1;
  int code = -1;
  EXPECT_EQ(0.0, block.GetNCellValue("", 0, 0, cellCode, code));
  EXPECT_EQ(10, code);
  block.SetLongArray(codes);
  block.SetDoubleArray(numbers);
  block.SetStringArray(texts);
  block.SetvarCount(3, code);
  EXPECT_EQ(0, code);
  for (const long first : {100L, -1L, LONG_MIN}) {
    block.SetrowInfo(first, code = -1);
    EXPECT_EQ(0, code);
    EXPECT_EQ(2.5, block.GetNCellValue(nullptr, first + 1, 2, cellCode, code = -1));
    EXPECT_EQ(50, cellCode);
    EXPECT_EQ(0, code);
    const std::unique_ptr<char[]> text(block.GetCCellValue(nullptr, first, 1, cellCode, code = -1));
    EXPECT_EQ(0, std::memcmp("t\0001", text.get(), 4));
    EXPECT_EQ(10, cellCode);
    EXPECT_EQ(0, code);
    const std::pair<long, int> outside[] = {{first + 2, 0}, {first, 3}, {first, -1}, {LONG_MAX, 0}};
    for (const auto& [row, column] : outside) {
      EXPECT_EQ(nullptr, block.GetCCellValue(nullptr, row, column, cellCode, code = -1)) << row << ' ' << column;
      EXPECT_EQ(10, code);
    }
  }
  LongData fewer;
  fewer.SetValue(1);
  block.SetLongArray(std::vector<LongData>{fewer});
  block.SetrowInfo(0, code);
  EXPECT_EQ(0.0, block.GetNCellValue(nullptr, 1, 2, cellCode, code)) << "no integer for it";
  EXPECT_EQ(10, code);
  block.SetrowInfo(5, code);
  EXPECT_EQ(0.0, block.GetNCellValue(nullptr, LONG_MIN, 0, cellCode, code));
  EXPECT_EQ(10, code);
}

TEST(DatastepCase, IsReadAndWrittenByCell) {
  DatastepDataSmb data;
  for (const int type : {0, 10, 5, 0}) data.AddVarType(type);
  EXPECT_EQ((std::vector<int>{1, 2, 1, 1}), data.m_obsCount);
  EXPECT_EQ(0, data.m_caseSize);
  for (const std::vector<int>& offsets : {std::vector<int>{}, {-1}, {0, 1, 3, 4}}) {
    data.m_obsOffset = offsets;
    EXPECT_EQ(10, data.SetNCellValue(0, 1)) << "no case";
  }
  data.SetOneCaseSize(32);

  int missing = -1;
  int code = -1;
  EXPECT_EQ(0, data.SetNCellValue(0, -1.7976931348623157e+308));
  EXPECT_EQ(-1.7976931348623157e+308, data.GetNCellValue(0, missing, code));
  EXPECT_EQ(1, missing);
  EXPECT_EQ(0, data.SetNCellValue(0, 2.5));
  EXPECT_EQ(2.5, data.GetNCellValue(0, missing, code));
  EXPECT_EQ(0, missing);
  EXPECT_EQ(-1, code) << "set on failure only";

  const std::pair<const char*, std::string> texts[] = {{"abc", "abc             "},
                                                       {"01234567890123456789", "0123456789012345"},
                                                       {"", "                "},
                                                       {nullptr, "                "}};
  for (const auto& [text, written] : texts) {
    EXPECT_EQ(0, data.SetCCellValue(1, text));
    EXPECT_EQ(written, std::string(data.m_caseBuf[1].bytes, 16));
    EXPECT_EQ(std::string(8, '\0'), std::string(data.m_caseBuf[3].bytes, 8)) << "more than its cells";
  }
  EXPECT_EQ(0, data.SetCCellValue(2, "fiveplus"));
  EXPECT_EQ("five", std::string(std::unique_ptr<char[]>(data.GetCCellValue(2, code)).get()).substr(0, 4));
  EXPECT_EQ(5u, std::strlen(std::unique_ptr<char[]>(data.GetCCellValue(2, code)).get()));
  EXPECT_EQ(0, data.SetCCellValue(0, "a number")) << "its type is not looked at";

  for (const unsigned none : {3u, 4u, UINT_MAX}) {  // the fourth lies outside the case
    EXPECT_EQ(10, data.SetNCellValue(none, 1)) << none;
    EXPECT_EQ(10, data.SetCCellValue(none, "x")) << none;
    EXPECT_EQ(0.0, data.GetNCellValue(none, missing, code = -1)) << none;
    EXPECT_EQ(10, code);
  }
  EXPECT_EQ(nullptr, data.GetCCellValue(4, code = -1));
  EXPECT_EQ(10, code);
  EXPECT_EQ(57, data.SetNCellValue(1, 1));
  EXPECT_EQ(0.0, data.GetNCellValue(1, missing, code));
  EXPECT_EQ(56, code);
  EXPECT_EQ(nullptr, data.GetCCellValue(0, code));
  EXPECT_EQ(57, code);
  const std::pair<int, int> counts[] = {{0, 56}, {-1, 10}, {INT_MAX, 10}};
  for (const auto& [count, wrong] : counts) {
    data.m_obsCount[1] = count;
    EXPECT_EQ(wrong, data.SetCCellValue(1, "x")) << count;
  }
  data.m_obsCount.clear();
  EXPECT_EQ(10, data.SetCCellValue(1, "x"));
  data.m_varTypes[1] = -5;
  EXPECT_STREQ("", std::unique_ptr<char[]>(data.GetCCellValue(1, code)).get());
}

TEST(DatastepCase, FollowsItsVariables) {
  DatastepDataSmb data;
  int* types = nullptr;
  int count = -1;
  data.GetVarInfo(&types, count);
  EXPECT_EQ(nullptr, types);
  EXPECT_EQ(-1, count);

  data.AddVarType(8);
  data.UpdateVarType(0, 20);
  EXPECT_EQ(16, data.m_caseSize);
  data.InsertVarType(0, 0);
  data.InsertVarType(2, 255);
  EXPECT_EQ(16 + 8 + 256, data.m_caseSize);
  EXPECT_EQ((std::vector<int>{1, 3, 32}), data.m_obsCount);
  for (const int none : {-1, 4}) data.InsertVarType(none, 8);
  for (const int none : {-1, 3}) {
    data.EraseVarType(none);
    data.UpdateVarType(none, 8);
  }
  data.GetVarInfo(&types, count);
  const std::unique_ptr<int[]> owned(types);
  EXPECT_EQ((std::vector<int>{0, 20, 255}), std::vector<int>(types, types + count));
  data.EraseVarType(1);
  EXPECT_EQ(280 - 24, data.m_caseSize);
  EXPECT_EQ((std::vector<int>{0, 255}), data.m_varTypes);
  EXPECT_EQ((std::vector<int>{1, 32}), data.m_obsCount);

  const std::vector<OBS> cells(2, AsOBS(7));
  data.SetCaseValue(cells.data(), 16);
  int size = 0;
  EXPECT_EQ(0, std::memcmp(cells.data(), data.GetCaseValue(size), 16));
  EXPECT_EQ(16, size);
  data.SetCaseValue(data.GetCaseValue(size), 13);  // its own case
  EXPECT_EQ(0, std::memcmp(cells.data(), data.GetCaseValue(size), 13));
  data.EraseVarType(1);  // would leave less than nothing
  EXPECT_EQ(13, data.m_caseSize);
  for (const int position : {2, 1}) data.m_varTypes.insert(data.m_varTypes.begin(), position);  // lists that differ
  data.InsertVarType(3, 8);
  data.m_caseSize = 4096;
  data.m_obsOffset = {300};
  EXPECT_EQ(10, data.SetCCellValue(0, "x")) << "not in the case that there is";
  data.m_caseSize = 13;
  data.SetOneCaseSize(16);
  EXPECT_EQ(std::string(16, '\0'), std::string(data.m_caseBuf[0].bytes, 16)) << "a new case";
  data.SetOneCaseSize(13);
  data.SetOneCaseSize(-8);
  data.SetCaseValue(nullptr, 8);
  data.SetCaseValue(cells.data(), -8);
  EXPECT_EQ(13, data.m_caseSize);
  data.SetCaseValue(cells.data(), 0);
  EXPECT_EQ(0, data.m_caseSize);
  data.m_caseSize = INT_MAX;
  data.InsertVarType(0, 8);  // would make it larger than any
  EXPECT_EQ(INT_MAX, data.m_caseSize);
}
