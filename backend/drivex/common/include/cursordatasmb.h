#pragma once

#include <cstdint>
#include <cstring>
#include <utility>
#include <vector>

#include "vexadx_bytes.h"
#include "vexadx_codes.h"
#include "vexadx_export.h"

// One cell of a case, eight bytes as they travel: a number as a little-endian binary64, or eight characters of a
// string. A string of more characters takes several cells in a row, the last filled up with blanks.
struct alignas(8) OBS {
  char bytes[8];
};

// The system-missing value, and a cell of blanks.
VEXADX_API OBS VEXA_SystemMissing();
VEXADX_API OBS BlankObs();

// Cells are equal when all their bits are: -0.0 is not 0.0, and a NaN is equal to itself.
VEXADX_API bool ObsEqual(OBS left, OBS right);
VEXADX_API bool operator==(OBS left, OBS right);
VEXADX_API bool operator!=(OBS left, OBS right);
VEXADX_API bool operator==(OBS left, double right);
VEXADX_API bool operator==(double left, OBS right);

// The cell of a number.
VEXADX_API OBS AsOBS(const double& value);

// The cells that a variable takes: `width` is 0 for a number, else the bytes of the string.
VEXADX_API int ObsLength(int width);

// Whether a string of `cells` cells is the missing value: its first cell is, and the others are blank.
VEXADX_API bool MissingStringMatch(const OBS* value, const OBS* missing, int cells);

// A variable: its type and its missing values.
struct VarInfo {
  int varType;   // 0 for a number, else the bytes of the string
  OBS missVal1;  // a missing value, or the low end of a range
  OBS missVal2;  // a missing value, or the high end of a range
  OBS missVal3;  // a missing value, also beside a range
  // 1 to 3: as many values; -2: a range; -3: a range and missVal3; any other: none. A string has no range.
  int missKind;
};

// Steps through the cases of a chunk and answers the values of their variables. One thread at a time.
//
// Its user describes a chunk in the fields before reading from it: the size and number of its cases, and for each
// variable where it lies in a case and what it is.
class VEXADX_API CursorDataSmb {
 public:
  static constexpr int NO_CACHE_DATA = 1900;   // the cases of the chunk are used up
  static constexpr int CACHE_SIZE = 20971520;  // bytes of case data that a program keeps at a time

  CursorDataSmb();
  ~CursorDataSmb();
  CursorDataSmb(const CursorDataSmb&) = delete;
  CursorDataSmb& operator=(const CursorDataSmb&) = delete;

  // Takes a copy of a chunk of `size` bytes, in place of the one before, and stands on its first case. Without a
  // chunk - null, a negative size, or no memory for it - there is no case to stand on.
  CursorDataSmb& SetCasePtr(const void* data, int size);

  // Goes to the next case: 0. Behind the last one, or the last whole one of a chunk that is too short, it answers
  // m_endCode, or NO_CACHE_DATA when that is 0, and forgets the number of cases and the end code; there
  // is no current case then.
  VEXADX_API int NextCase();

  // Whether the chunk has cases.
  bool HasData();

  // Where a variable's first cell lies in a case. REQUIRES: a variable's index.
  unsigned int OBSIndex(int variable);

  // 0: not missing, 1: one of the variable's missing values, 2: the system-missing value. `value` is the first cell.
  int IsMissing(const VarInfo* variable, const OBS* value);

  // The value of a variable in the current case and its status as IsMissing answers it. Answers 0;
  // vexadx::kNoSuchVariable (10) for an index that is not below the number of variables, or when its cells do not
  // lie in the chunk or there is no current case; vexadx::kOtherVariableType (24) for a variable of the other type.
  // Only success changes anything.
  VEXADX_API int GetNumericValue(unsigned int variable, double& value, int& status);

  // The same for a string: copies its bytes up to a zero byte and fills up with zero bytes, as many as the variable
  // has. The int is not used. REQUIRES: that much room at `text`, and a zero byte behind it for who reads it as a text.
  int GetStringValue(unsigned int variable, char*& text, int, int& status);

  int m_caseIndex;                       // of the current case in the chunk; -1: none
  void* m_caseBuf;                       // the cursor's copy of the chunk, from malloc
  OBS* m_curCase;                        // the current case
  int m_caseSize;                        // bytes of a case, a multiple of 8
  int m_caseCount;                       // cases in the chunk; -1: none
  std::vector<unsigned int> m_obsIndex;  // for each variable, the index of its first cell in a case
  int m_endCode;                         // what NextCase answers behind the last case; 0: NO_CACHE_DATA
  std::vector<VarInfo*> m_varInfo;       // for each variable, its description; not owned
  std::int64_t m_userLong;               // these two are for the user alone
  std::int32_t m_userInt;

 private:
  static bool same(const OBS& left, const OBS& right) { return std::memcmp(&left, &right, sizeof left) == 0; }
  static bool inRange(const VarInfo& variable, double value);
  static int statusOfNumber(const VarInfo& variable, const OBS& cell);
  VEXADX_HIDDEN static int statusOfString(const VarInfo& variable, const OBS* cells);
  bool holds(unsigned int variable, int cells) const;
  void standOn(std::int64_t firstCell);

  std::int64_t m_caseBufBytes;  // allocated
  std::int64_t m_chunkCells;    // in the chunk
  std::int64_t m_cellsLeft;     // from the current case on; 0 without one
};

// These two are here for the caller's compiler, because a call costs more than a value. The library exports them all
// the same.

inline int CursorDataSmb::NextCase() {
  const std::int64_t next = std::int64_t{m_caseIndex} + 1;
  const std::int64_t cells = m_caseSize / static_cast<int>(sizeof(OBS));
  if (next >= 0 && next < m_caseCount && cells >= 0 && (next + 1) * cells <= m_chunkCells) {
    m_caseIndex = static_cast<int>(next);
    standOn(next * cells);
    return vexadx::kSuccess;
  }
  m_caseIndex = -1;
  m_caseCount = -1;
  m_cellsLeft = 0;
  const int endCode = std::exchange(m_endCode, 0);
  return endCode != 0 ? endCode : NO_CACHE_DATA;
}

inline void CursorDataSmb::standOn(std::int64_t firstCell) {
  m_curCase = static_cast<OBS*>(m_caseBuf) + firstCell;
  m_cellsLeft = m_chunkCells - firstCell;
}

inline int CursorDataSmb::GetNumericValue(unsigned int variable, double& value, int& status) {
  if (variable >= m_varInfo.size()) return vexadx::kNoSuchVariable;
  const VarInfo& info = *m_varInfo[variable];
  if (info.varType != 0) return vexadx::kOtherVariableType;
  if (!holds(variable, 1)) return vexadx::kNoSuchVariable;
  const OBS& cell = m_curCase[m_obsIndex[variable]];
  value = vexadx::Load<double>(cell.bytes);
  status = statusOfNumber(info, cell);
  return vexadx::kSuccess;
}

// Whether so many cells of a variable in the current case lie in the chunk.
inline bool CursorDataSmb::holds(unsigned int variable, int cells) const {
  return variable < m_obsIndex.size() && std::int64_t{m_obsIndex[variable]} + cells <= m_cellsLeft;
}

inline bool CursorDataSmb::inRange(const VarInfo& variable, double value) {
  return vexadx::Load<double>(variable.missVal1.bytes) <= value &&
         value <= vexadx::Load<double>(variable.missVal2.bytes);
}

// Written as a chain, most common first: a switch becomes a jump through a table, for every cell.
inline int CursorDataSmb::statusOfNumber(const VarInfo& variable, const OBS& cell) {
  constexpr std::uint64_t kSystemMissingBits = 0xFFEF'FFFF'FFFF'FFFF;
  if (vexadx::Load<std::uint64_t>(cell.bytes) == kSystemMissingBits) return 2;
  const int kind = variable.missKind;
  if (kind == 0) return 0;
  if (kind > 0) {
    if (same(cell, variable.missVal1)) return kind <= 3 ? 1 : 0;
    if (kind == 1) return 0;
    if (same(cell, variable.missVal2)) return kind <= 3 ? 1 : 0;
    return kind == 3 && same(cell, variable.missVal3) ? 1 : 0;
  }
  if (kind != -2 && kind != -3) return 0;
  if (kind == -3 && same(cell, variable.missVal3)) return 1;
  return inRange(variable, vexadx::Load<double>(cell.bytes)) ? 1 : 0;
}
