#include "cursordatasmb.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <utility>

namespace {

constexpr double kSystemMissing = -1.7976931348623157e+308;
constexpr std::int64_t kCellLen = sizeof(OBS);

bool same(OBS left, OBS right) { return std::memcmp(left.bytes, right.bytes, sizeof left.bytes) == 0; }

const OBS blankObs = BlankObs();

// Make the compiler keep the functions for those who call them by name.
[[gnu::used]] const auto getNumericValue = &CursorDataSmb::GetNumericValue;
[[gnu::used]] const auto nextCase = &CursorDataSmb::NextCase;

}  // namespace

OBS VEXA_SystemMissing() { return AsOBS(kSystemMissing); }

OBS BlankObs() {
  OBS blank;
  std::memset(blank.bytes, ' ', sizeof blank.bytes);
  return blank;
}

bool ObsEqual(OBS left, OBS right) { return same(left, right); }

bool operator==(OBS left, OBS right) { return same(left, right); }

bool operator!=(OBS left, OBS right) { return !same(left, right); }

bool operator==(OBS left, double right) { return same(left, AsOBS(right)); }

bool operator==(double left, OBS right) { return same(AsOBS(left), right); }

OBS AsOBS(const double& value) {
  OBS cell;
  vexadx::Store(cell.bytes, value);
  return cell;
}

// Without the sum that a width near the largest would overflow.
int ObsLength(int width) { return width <= 8 ? 1 : (width - 1) / 8 + 1; }

bool MissingStringMatch(const OBS* value, const OBS* missing, int cells) {
  return same(*value, *missing) &&
         std::all_of(value + 1, value + std::max(cells, 1), [](OBS cell) { return same(cell, blankObs); });
}

CursorDataSmb::CursorDataSmb()
    : m_caseIndex(-1),
      m_caseBuf(nullptr),
      m_curCase(nullptr),
      m_caseSize(0),
      m_caseCount(-1),
      m_endCode(0),
      m_userLong(0),
      m_userInt(0),
      m_caseBufBytes(0),
      m_chunkCells(0),
      m_cellsLeft(0) {}

CursorDataSmb::~CursorDataSmb() { std::free(m_caseBuf); }

CursorDataSmb& CursorDataSmb::SetCasePtr(const void* data, int size) {
  const bool given = data && size >= 0;
  const auto bytes = static_cast<std::size_t>(given ? size : 0);
  // A block that fits is used again: touching new memory takes longer than the copy. The chunk may lie in the old one.
  if (given && m_caseBuf && size <= m_caseBufBytes && size >= m_caseBufBytes / 2) {
    std::memmove(m_caseBuf, data, bytes);
  } else {
    void* const block = given ? std::malloc(bytes) : nullptr;
    if (given && block) std::memcpy(block, data, bytes);
    std::free(std::exchange(m_caseBuf, block));
    m_caseBufBytes = block ? size : 0;
  }
  m_chunkCells = m_caseBuf ? size / kCellLen : 0;
  m_caseIndex = m_caseBuf ? 0 : -1;
  standOn(0);
  return *this;
}

bool CursorDataSmb::HasData() { return m_caseCount >= 1; }

unsigned int CursorDataSmb::OBSIndex(int variable) { return m_obsIndex[static_cast<std::size_t>(variable)]; }

int CursorDataSmb::IsMissing(const VarInfo* variable, const OBS* value) {
  return variable->varType == 0 ? statusOfNumber(*variable, *value) : statusOfString(*variable, value);
}

int CursorDataSmb::statusOfString(const VarInfo& variable, const OBS* cells) {
  const int count = ObsLength(variable.varType);
  const auto matches = [&](const OBS& missing) { return MissingStringMatch(cells, &missing, count); };
  switch (variable.missKind) {
    case 3:
      if (matches(variable.missVal3)) return 1;
      [[fallthrough]];
    case 2:
      if (matches(variable.missVal2)) return 1;
      [[fallthrough]];
    case 1:
      return matches(variable.missVal1) ? 1 : 0;
    default:
      return 0;
  }
}

int CursorDataSmb::GetStringValue(unsigned int variable, char*& text, int, int& status) {
  if (variable >= m_varInfo.size()) return vexadx::kNoSuchVariable;
  const VarInfo& info = *m_varInfo[variable];
  if (info.varType == 0) return vexadx::kOtherVariableType;
  if (!holds(variable, ObsLength(info.varType))) return vexadx::kNoSuchVariable;
  const OBS* const cells = m_curCase + m_obsIndex[variable];
  if (info.varType > 0)
    std::strncpy(text, reinterpret_cast<const char*>(cells), static_cast<std::size_t>(info.varType));
  status = statusOfString(info, cells);
  return vexadx::kSuccess;
}
