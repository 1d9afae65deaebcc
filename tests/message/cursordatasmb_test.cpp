#include "cursordatasmb.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <climits>
#include <cmath>
#include <cstring>
#include <limits>
#include <string>
#include <vector>

namespace {

// A cell of up to eight characters.
OBS cell(const std::string& text) {
  OBS obs = BlankObs();
  std::memcpy(obs.bytes, text.data(), text.size());
  return obs;
}

const double kNaN = std::numeric_limits<double>::quiet_NaN();

}  // namespace

TEST(Obs, IsComparedBitByBit) {
  EXPECT_EQ(0, std::memcmp("\xFF\xFF\xFF\xFF\xFF\xFF\xEF\xFF", VEXA_SystemMissing().bytes, 8));
  EXPECT_EQ(0, std::memcmp("        ", BlankObs().bytes, 8));
  EXPECT_TRUE(VEXA_SystemMissing() == -1.7976931348623157e+308);
  EXPECT_TRUE(kNaN == AsOBS(kNaN));
  EXPECT_FALSE(AsOBS(-0.0) == 0.0);
  EXPECT_TRUE(AsOBS(-0.0) != AsOBS(0.0));
  EXPECT_TRUE(ObsEqual(cell("ab"), cell("ab")));
  EXPECT_FALSE(cell("ab") == cell("ac"));
}

TEST(Obs, IsOneOfAsManyAsAVariableTakes) {
  const int widths[][2] = {{INT_MIN, 1},      {0, 1}, {1, 1}, {8, 1}, {9, 2}, {16, 2}, {17, 3}, {255, 32},
                           {INT_MAX, 1 << 28}};
  for (const auto& [width, cells] : widths) EXPECT_EQ(cells, ObsLength(width)) << width;
}

TEST(Cursor, KnowsMissingNumbers) {
  CursorDataSmb cursor;
  const double system = -1.7976931348623157e+308;
  const struct {
    int kind;
    double missing[3];
    std::vector<std::pair<double, int>> statuses;
  } cases[] = {
      {-3, {1, 5, 9}, {{3, 1}, {5, 1}, {1, 1}, {9, 1}, {7, 0}, {kNaN, 0}, {system, 2}}},
      {-2, {1, 5, 9}, {{1, 1}, {5, 1}, {9, 0}, {std::nextafter(5, 6), 0}, {kNaN, 0}, {system, 2}}},
      {-2, {system, 5, 9}, {{-1e300, 1}, {system, 2}}},
      {-1, {1, 2, 3}, {{1, 0}, {system, 2}}},
      {0, {1, 2, 3}, {{1, 0}, {2, 0}, {system, 2}}},
      {1, {1, 2, 3}, {{1, 1}, {2, 0}, {system, 2}}},
      {1, {0, 2, 3}, {{0, 1}, {-0.0, 0}}},
      {1, {kNaN, 2, 3}, {{kNaN, 1}}},
      {2, {1, 2, 3}, {{1, 1}, {2, 1}, {3, 0}}},
      {3, {1, 2, 3}, {{1, 1}, {2, 1}, {3, 1}, {4, 0}, {system, 2}}},
      {4, {1, 2, 3}, {{1, 0}, {2, 0}}},
  };
  for (const auto& c : cases) {
    const VarInfo info{0, AsOBS(c.missing[0]), AsOBS(c.missing[1]), AsOBS(c.missing[2]), c.kind};
    for (const auto& [value, status] : c.statuses) {
      const OBS obs = AsOBS(value);
      EXPECT_EQ(status, cursor.IsMissing(&info, &obs)) << "kind " << c.kind << " value " << value;
    }
  }
}

TEST(Cursor, KnowsMissingStrings) {
  CursorDataSmb cursor;
  const struct {
    int kind;
    int width;
    std::vector<OBS> value;
    int status;
  } cases[] = {
      {1, 12, {cell("NA"), cell("")}, 1},
      {1, 12, {cell("NA"), cell("x")}, 0},
      {1, 2, {cell("NA"), cell("x")}, 1},  // not its own cell
      {1, 2, {cell("NB")}, 0},
      {2, 8, {cell("NB")}, 1},
      {2, 8, {cell("NC")}, 0},
      {2, 8, {cell("NA")}, 1},
      {3, 8, {cell("NA")}, 1},
      {3, 8, {cell("NB")}, 1},
      {3, 20, {cell("NC"), cell(""), cell("")}, 1},
      {3, 20, {cell("NC"), cell(""), cell("x")}, 0},
      {-2, 2, {cell("NB")}, 0},
      {-3, 2, {cell("NC")}, 0},
      {0, 2, {cell("NA")}, 0},
      {1, 8, {VEXA_SystemMissing()}, 0},
  };
  for (const auto& c : cases) {
    const VarInfo info{c.width, cell("NA"), cell("NB"), cell("NC"), c.kind};
    EXPECT_EQ(c.status, cursor.IsMissing(&info, c.value.data())) << "kind " << c.kind << " width " << c.width;
  }
  const OBS value = cell("NA");
  for (const int cells : {1, 0, -1}) EXPECT_TRUE(MissingStringMatch(&value, &value, cells)) << cells;
}

TEST(Cursor, StepsThroughChunks) {
  VarInfo number{0, AsOBS(2), {}, {}, 1};
  CursorDataSmb cursor;
  EXPECT_FALSE(cursor.HasData());
  EXPECT_EQ(1900, cursor.NextCase());
  cursor.m_caseSize = 16;
  cursor.m_obsIndex = {1};
  EXPECT_EQ(1u, cursor.OBSIndex(0));
  cursor.m_varInfo = {&number};
  const struct {
    int endCode;
    int end;
  } chunks[] = {{0, 1900}, {7, 7}, {0, 1900}};
  for (const auto& [endCode, end] : chunks) {
    const std::vector<OBS> cells = {AsOBS(0), AsOBS(1), AsOBS(0), AsOBS(2), AsOBS(0), VEXA_SystemMissing()};
    cursor.m_caseCount = 3;
    cursor.m_endCode = endCode;
    ASSERT_EQ(&cursor, &cursor.SetCasePtr(cells.data(), 48));
    EXPECT_TRUE(cursor.HasData());
    for (int status = 0; status < 3; ++status) {
      double value = 0;
      int missing = -1;
      ASSERT_EQ(0, cursor.GetNumericValue(0, value, missing));
      EXPECT_TRUE(cells[2 * static_cast<std::size_t>(status) + 1] == value);
      EXPECT_EQ(status, missing);
      EXPECT_EQ(status < 2 ? 0 : end, cursor.NextCase());
    }
    EXPECT_FALSE(cursor.HasData());
    double none = 0;
    int missing = 0;
    EXPECT_EQ(10, cursor.GetNumericValue(0, none, missing));
    EXPECT_EQ(1900, cursor.NextCase());
  }
  cursor.SetCasePtr(cursor.m_caseBuf, 16);  // its own copy
  EXPECT_EQ(0, cursor.m_caseIndex);
  for (const int size : {16, 48, 8, 0, 4096, 24}) {  // into the same memory or other
    const std::string chunk(static_cast<std::size_t>(size), 'c');
    cursor.SetCasePtr(chunk.data(), size);
    EXPECT_EQ(0, std::memcmp(chunk.data(), cursor.m_caseBuf, chunk.size())) << size;
    double value = 0;
    int missing = 0;
    EXPECT_EQ(size < 16 ? 10 : 0, cursor.GetNumericValue(0, value, missing)) << "not what lay there before";
  }
  cursor.SetCasePtr(nullptr, 48);
  EXPECT_EQ(-1, cursor.m_caseIndex);
}

TEST(Cursor, AnswersStringsOfAnyWidth) {
  for (const int width : {1, 7, 8, 9, 255, 32767}) {
    std::vector<OBS> cells(static_cast<std::size_t>(ObsLength(width)), BlankObs());
    std::memset(cells.data(), 'x', static_cast<std::size_t>(width));
    VarInfo info{width, BlankObs(), {}, {}, 1};
    std::memset(info.missVal1.bytes, 'x', static_cast<std::size_t>(std::min(width, 8)));
    CursorDataSmb cursor;
    cursor.m_caseSize = static_cast<int>(cells.size() * sizeof(OBS));
    cursor.m_caseCount = 1;
    cursor.m_obsIndex = {0};
    cursor.m_varInfo = {&info};
    cursor.SetCasePtr(cells.data(), cursor.m_caseSize);
    std::string buffer(static_cast<std::size_t>(width) + 1, '\0');
    char* text = buffer.data();
    int status = -1;
    ASSERT_EQ(0, cursor.GetStringValue(0, text, 0, status));
    EXPECT_EQ(std::string(static_cast<std::size_t>(width), 'x') + '\0', buffer);
    EXPECT_EQ(width <= 8 ? 1 : 0, status);
    EXPECT_EQ(0u, cursor.OBSIndex(0));

    cells[0].bytes[0] = '\0';  // behind it all is zero
    cursor.SetCasePtr(cells.data(), cursor.m_caseSize);
    ASSERT_EQ(0, cursor.GetStringValue(0, text, 0, status));
    EXPECT_EQ(std::string(buffer.size(), '\0'), buffer);
  }
}

TEST(Cursor, RefusesWhatIsNotThere) {
  VarInfo number{0, {}, {}, {}, 0};
  VarInfo text{20, {}, {}, {}, 0};
  VarInfo negative{-5, {}, {}, {}, 0};
  const std::vector<OBS> cells(3, AsOBS(1));
  CursorDataSmb cursor;
  cursor.m_varInfo = {&number, &text, &number, &negative, &number};
  cursor.m_obsIndex = {0, 1, UINT_MAX, 0};
  double value = 3;
  int status = 4;
  char room[32] = "before";
  char* destination = room;
  EXPECT_EQ(10, cursor.GetNumericValue(0, value, status)) << "no chunk";
  cursor.m_caseSize = 24;
  cursor.m_caseCount = 2;  // more than the chunk has
  cursor.SetCasePtr(cells.data(), 24);
  for (const unsigned none : {2u, 4u, 5u, UINT_MAX}) {
    EXPECT_EQ(10, cursor.GetNumericValue(none, value, status)) << none;
  }
  EXPECT_EQ(24, cursor.GetNumericValue(1, value, status));
  EXPECT_EQ(24, cursor.GetNumericValue(3, value, status));
  EXPECT_EQ(24, cursor.GetStringValue(0, destination, 0, status));
  EXPECT_EQ(10, cursor.GetStringValue(1, destination, 0, status)) << "beyond the chunk";
  EXPECT_EQ(10, cursor.GetStringValue(5, destination, 0, status));
  EXPECT_EQ(3, value);
  EXPECT_EQ(4, status);
  EXPECT_STREQ("before", room);
  EXPECT_EQ(0, cursor.GetStringValue(3, destination, 0, status));
  EXPECT_STREQ("before", room);
  EXPECT_EQ(1900, cursor.NextCase());
  const struct {
    int caseSize;
    int caseIndex;
  } kWrong[] = {{-24, 0}, {24, -2}, {24, INT_MAX}, {INT_MAX, 0}};
  for (const auto& wrong : kWrong) {
    cursor.SetCasePtr(cells.data(), 24);
    cursor.m_caseSize = wrong.caseSize;
    cursor.m_caseIndex = wrong.caseIndex;
    cursor.m_caseCount = INT_MAX;
    EXPECT_EQ(1900, cursor.NextCase()) << wrong.caseSize << ' ' << wrong.caseIndex;
    EXPECT_EQ(10, cursor.GetNumericValue(0, value, status));
  }
  cursor.SetCasePtr(cells.data(), -1);
  EXPECT_EQ(-1, cursor.m_caseIndex);
}
