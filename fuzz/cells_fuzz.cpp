// Any bytes as cases, described in any way: cursors and data steps answer what lies in the case and refuse the rest.
// Cases and destinations are exactly as large as they are said to be, which the address sanitizer watches.

#include <algorithm>
#include <climits>
#include <cstdint>
#include <cstring>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "cursordatasmb.h"
#include "datastepsmb.h"
#include "input.h"
#include "invariant.h"
#include "vexadx_codes.h"

namespace {

constexpr int kCell = sizeof(OBS);

// Small numbers that make sense more often than not, and others.
int number(Input& input) {
  const int small = input.Get<signed char>();
  return small == SCHAR_MIN ? input.Get<int>() : small;
}

OBS cell(Input& input) {
  OBS obs = BlankObs();
  const std::string_view bytes = input.Bytes(input.Below(kCell + 1));
  std::copy(bytes.begin(), bytes.end(), obs.bytes);
  return obs;
}

void checkNumber(CursorDataSmb& cursor, unsigned variable, std::string_view chunk, std::int64_t at) {
  double value = 0.5;
  int status = -1;
  const int code = cursor.GetNumericValue(variable, value, status);
  const bool isThere = variable < cursor.m_varInfo.size();
  if (!isThere || cursor.m_varInfo[variable]->varType != 0) {
    require(code == (isThere ? vexadx::kOtherVariableType : vexadx::kNoSuchVariable));
  } else if (code == vexadx::kSuccess) {
    require(at >= 0 && at + kCell <= static_cast<std::int64_t>(chunk.size()));
    require(std::memcmp(chunk.data() + at, &value, sizeof value) == 0);
    const OBS obs = AsOBS(value);
    require(status == cursor.IsMissing(cursor.m_varInfo[variable], &obs) && status >= 0 && status <= 2);
    return;
  } else {
    require(code == vexadx::kNoSuchVariable && (at < 0 || at + kCell > static_cast<std::int64_t>(chunk.size())));
  }
  require(value == 0.5 && status == -1);
}

void checkString(CursorDataSmb& cursor, unsigned variable, std::string_view chunk, std::int64_t at) {
  const bool isThere = variable < cursor.m_varInfo.size();
  const int width = isThere ? cursor.m_varInfo[variable]->varType : 0;
  constexpr int kWidest = 1 << 16;
  if (width > kWidest) return;  // no room for it
  const auto room = static_cast<std::size_t>(std::max(width, 0));
  const std::unique_ptr<char[]> destination = Exactly(std::string(room, '#'));
  char* text = destination.get();
  int status = -1;
  const int code = cursor.GetStringValue(variable, text, 0, status);
  require(text == destination.get());
  const std::int64_t end = at + std::int64_t{ObsLength(width)} * kCell;
  const bool isInside = at >= 0 && end <= static_cast<std::int64_t>(chunk.size());
  if (code == vexadx::kSuccess) {
    require(isThere && width != 0 && isInside && (status == 0 || status == 1));
    std::string wanted(chunk.substr(static_cast<std::size_t>(at), room));
    wanted.resize(std::min(wanted.find('\0'), room));
    wanted.resize(room);
    require(std::memcmp(text, wanted.data(), room) == 0);
    return;
  }
  require(status == -1 && std::string_view(text, room) == std::string(room, '#'));
  require(code == (isThere && width == 0 ? vexadx::kOtherVariableType : vexadx::kNoSuchVariable));
  require(!isThere || width == 0 || !isInside);
}

void runCursor(Input& input) {
  CursorDataSmb cursor;
  std::vector<VarInfo> variables(input.Below(6));
  for (VarInfo& variable : variables) {
    variable = {number(input), cell(input), cell(input), cell(input), number(input)};
    cursor.m_varInfo.push_back(&variable);
  }
  const std::size_t indexes = input.Below(7);
  while (cursor.m_obsIndex.size() < indexes) cursor.m_obsIndex.push_back(static_cast<unsigned>(number(input)));
  for (std::size_t chunks = 1 + input.Below(3); chunks > 0; --chunks) {
    cursor.m_caseSize = number(input);
    cursor.m_caseCount = number(input);
    cursor.m_endCode = number(input);
    const int said = cursor.m_caseCount;
    const int endCode = cursor.m_endCode;
    const std::string_view chunk = input.Bytes(input.Get<std::uint16_t>() % 512);
    cursor.SetCasePtr(Exactly(chunk).get(), static_cast<int>(chunk.size()));
    std::int64_t row = 0;
    for (int code = 0; code == 0; ++row) {
      const std::int64_t first = row * (cursor.m_caseSize / kCell);
      for (unsigned variable = 0; variable < variables.size() + 2; ++variable) {
        const std::int64_t at =
            variable < indexes ? (first + std::int64_t{cursor.m_obsIndex[variable]}) * kCell : std::int64_t{-1};
        checkNumber(cursor, variable, chunk, at);
        checkString(cursor, variable, chunk, at);
      }
      if (row > 20) return;
      code = cursor.NextCase();
      if (code == 0) require(row + 1 < said && cursor.HasData() && cursor.m_caseIndex == row + 1);
      if (code != 0) require(code == (endCode != 0 ? endCode : CursorDataSmb::NO_CACHE_DATA));
      if (row > said) break;  // an end code of 0 cannot be; one that equals it neither
    }
    double value = 0;
    int status = 0;
    if (cursor.m_caseIndex == -1 && !cursor.m_varInfo.empty()) {
      require(cursor.GetNumericValue(0, value, status) != vexadx::kSuccess && !cursor.HasData());
    }
  }
}

void runCase(Input& input) {
  DatastepDataSmb data;
  while (!input.IsAtEnd()) {
    const int position = number(input);
    const auto variable = static_cast<unsigned>(position);
    int code = 0;
    int size = 0;
    switch (input.Below(9)) {
      case 0:
        data.AddVarType(number(input));
        break;
      case 1:
        data.InsertVarType(position, std::min(number(input), 4096));
        break;
      case 2:
        data.EraseVarType(position);
        break;
      case 3:
        data.UpdateVarType(position, std::min(number(input), 4096));
        break;
      case 4: {
        const std::string_view bytes = input.Bytes(input.Below(256));
        data.SetCaseValue(Exactly(bytes).get(), static_cast<int>(bytes.size()));
        const OBS* const held = data.GetCaseValue(size);
        require(size == static_cast<int>(bytes.size()));
        require(std::memcmp(held, bytes.data(), bytes.size()) == 0);
        break;
      }
      case 5:
        data.m_obsOffset.push_back(position);
        break;
      case 6:
        data.m_obsOffset.clear();
        break;
      case 7: {
        const double value = input.Get<double>();
        const int written = data.SetNCellValue(variable, value);
        int missing = -1;
        const double found = data.GetNCellValue(variable, missing, code);
        require((written == 0) == (code == 0));
        if (written != 0) break;
        require(std::memcmp(&found, &value, sizeof value) == 0 && missing == (data.IsMissing(value) ? 1 : 0));
        break;
      }
      default: {
        const std::string text(input.Until('\n'));
        const int written = data.SetCCellValue(variable, text.c_str());
        const std::unique_ptr<char[]> found(data.GetCCellValue(variable, code));
        require((found != nullptr) == (code == 0));
        if (written != 0 || !found) break;
        const auto width = static_cast<std::size_t>(std::max(data.m_varTypes[variable], 0));
        const std::string wanted = text.c_str() + std::string(width, ' ');
        require(std::string_view(found.get(), width) == std::string_view(wanted).substr(0, width));
      }
    }
    int* types = nullptr;
    int count = 0;
    data.GetVarInfo(&types, count);
    const std::unique_ptr<int[]> owned(types);
    require(std::vector<int>(types, types + count) == data.m_varTypes);
    require(data.m_varTypes.size() == data.m_obsCount.size());
  }
}

void runRows(Input& input) {
  DatastepSmb block;
  int code = -1;
  const int width = number(input);
  const long first = input.Below(2) == 0 ? number(input) : input.Get<long>();
  block.SetvarCount(width, code);
  block.SetrowInfo(first, code);
  LongData codes;
  DoubleData numbers;
  StringData texts;
  const std::size_t counts[] = {input.Below(20), input.Below(20), input.Below(20)};
  for (int i = 0; i < static_cast<int>(counts[0]); ++i) codes.SetValue(100 + i);
  for (int i = 0; i < static_cast<int>(counts[1]); ++i) numbers.SetValue(i);
  for (int i = 0; i < static_cast<int>(counts[2]); ++i) texts.SetValue(std::to_string(i));
  const std::size_t lists = input.Below(8);
  if (lists != 0) block.SetLongArray(codes);
  if (lists != 1) block.SetDoubleArray(numbers);
  if (lists != 2) block.SetStringArray(texts);
  while (!input.IsAtEnd()) {
    const long row = input.Below(2) == 0 ? number(input) : input.Get<long>();
    const int column = number(input);
    // Where it lies, in an arithmetic that has no end.
    const __int128 at = (static_cast<__int128>(row) - first) * width + column;
    const bool isCell = row >= first && column >= 0 && column < width && lists != 0;
    const auto has = [&](std::size_t count) {
      return isCell && at < static_cast<__int128>(std::min(counts[0], count));
    };
    int cellCode = -1;
    const double value = block.GetNCellValue("", row, column, cellCode, code = -1);
    const bool hasNumber = lists != 1 && has(counts[1]);
    require(code == (hasNumber ? vexadx::kSuccess : vexadx::kNoSuchVariable));
    require(hasNumber ? value == static_cast<double>(at) && cellCode == 100 + at : value == 0 && cellCode == -1);
    cellCode = -1;
    const std::unique_ptr<char[]> text(block.GetCCellValue("", row, column, cellCode, code = -1));
    const bool hasText = lists != 2 && has(counts[2]);
    require(code == (hasText ? vexadx::kSuccess : vexadx::kNoSuchVariable));
    require(hasText ? text.get() == std::to_string(static_cast<int>(at)) && cellCode == 100 + at
                    : !text && cellCode == -1);
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  Input input(data, size);
  switch (input.Below(3)) {
    case 0:
      runCursor(input);
      break;
    case 1:
      runCase(input);
      break;
    default:
      runRows(input);
  }
  return 0;
}
