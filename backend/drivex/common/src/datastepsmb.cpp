#include "datastepsmb.h"

#include <algorithm>
#include <climits>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <memory>
#include <string>
#include <utility>

#include "vexadx_codes.h"
#include "wireformat.h"

namespace {

constexpr int kCellLen = sizeof(OBS);

// A text of as many bytes, with a zero byte behind them.
char* copyOf(const char* bytes, std::size_t length) {
  char* const copy = new char[length + 1];
  if (length > 0) std::memcpy(copy, bytes, length);
  copy[length] = '\0';
  return copy;
}

// All zero; a size that is no multiple of a cell still gets room for all its bytes.
std::unique_ptr<OBS[]> newCase(int size) {
  return std::make_unique<OBS[]>((static_cast<std::size_t>(size) + kCellLen - 1) / kCellLen);
}

}  // namespace

DatastepSmb::DatastepSmb() : m_varCount(0), m_firstRow(-1) {}

void DatastepSmb::SetvarCount(int count, int& code) {
  m_varCount = count;
  code = vexadx::kSuccess;
}

void DatastepSmb::SetrowInfo(long firstRow, int& code) {
  m_firstRow = firstRow;
  code = vexadx::kSuccess;
}

// Finds a cell in the first of the lists of integers and of those of its values; false where there is none.
template <typename Item>
bool DatastepSmb::find(std::vector<Item>& values, long row, int column, int& entry) {
  std::vector<LongData>& codes = GetLongArrayRef();
  if (codes.empty() || values.empty() || row < m_firstRow || column < 0 || column >= m_varCount) return false;
  const auto cells = static_cast<std::uint64_t>(std::min(codes.front().Size(), values.front().Size()));
  const std::uint64_t rows = static_cast<std::uint64_t>(row) - static_cast<std::uint64_t>(m_firstRow);
  if (rows > cells) return false;  // and the product fits
  const std::uint64_t cell = rows * static_cast<std::uint64_t>(m_varCount) + static_cast<std::uint64_t>(column);
  entry = static_cast<int>(std::min(cell, cells));
  return cell < cells;
}

double DatastepSmb::GetNCellValue(const char*, long row, int column, int& cellCode, int& code) {
  int entry = 0;
  if (!find(GetDoubleArrayRef(), row, column, entry)) {
    code = vexadx::kNoSuchVariable;
    return 0.0;
  }
  code = vexadx::kSuccess;
  cellCode = GetLongArrayRef().front()[entry];
  return GetDoubleArrayRef().front()[entry];
}

char* DatastepSmb::GetCCellValue(const char*, long row, int column, int& cellCode, int& code) {
  int entry = 0;
  if (!find(GetStringArrayRef(), row, column, entry)) {
    code = vexadx::kNoSuchVariable;
    return nullptr;
  }
  const std::string& text = GetStringArrayRef().front()[entry];
  char* const copy = copyOf(text.data(), text.size());
  code = vexadx::kSuccess;
  cellCode = GetLongArrayRef().front()[entry];
  return copy;
}

DatastepDataSmb::DatastepDataSmb() : m_caseSize(0), m_caseBuf(nullptr), m_heldBytes(0) {}

DatastepDataSmb::~DatastepDataSmb() { delete[] m_caseBuf; }

void DatastepDataSmb::SetOneCaseSize(int size) {
  if (size >= 0) holdCase(newCase(size), size);
}

// Copied before the old case goes: it may be the one that is set.
DatastepDataSmb& DatastepDataSmb::SetCaseValue(const void* data, int size) {
  if (!data || size < 0) return *this;
  auto cells = newCase(size);
  if (size > 0) std::memcpy(cells.get(), data, static_cast<std::size_t>(size));
  holdCase(std::move(cells), size);
  return *this;
}

void DatastepDataSmb::holdCase(std::unique_ptr<OBS[]> cells, int size) {
  delete[] std::exchange(m_caseBuf, cells.release());
  m_caseSize = size;
  m_heldBytes = size / kCellLen * kCellLen;
}

OBS* DatastepDataSmb::GetCaseValue(int& size) {
  size = m_caseSize;
  return m_caseBuf;
}

// Where so many bytes of a variable lie; null when they do not lie in the case.
char* DatastepDataSmb::cellsOf(unsigned int variable, std::int64_t bytes) {
  if (variable >= m_obsOffset.size() || m_obsOffset[variable] < 0 || !m_caseBuf) return nullptr;
  const std::int64_t first = std::int64_t{m_obsOffset[variable]} * kCellLen;
  return first + bytes <= m_heldBytes ? reinterpret_cast<char*>(m_caseBuf) + first : nullptr;
}

// Finds the cell of a number; 0 or a code, `wrongType` for a string.
int DatastepDataSmb::findNumber(unsigned int variable, int wrongType, char*& cell) {
  if (variable >= m_varTypes.size()) return vexadx::kNoSuchVariable;
  if (m_varTypes[variable] != 0) return wrongType;
  cell = cellsOf(variable, kCellLen);
  return cell ? vexadx::kSuccess : vexadx::kNoSuchVariable;
}

double DatastepDataSmb::GetNCellValue(unsigned int variable, int& missing, int& code) {
  char* cell = nullptr;
  const int found = findNumber(variable, vexadx::kNotANumericCell, cell);
  if (found != vexadx::kSuccess) {
    code = found;
    return 0.0;
  }
  const auto value = wireformat::Load<double>(cell);
  missing = IsMissing(value) ? 1 : 0;
  return value;
}

char* DatastepDataSmb::GetCCellValue(unsigned int variable, int& code) {
  const bool exists = variable < m_varTypes.size();
  if (exists && m_varTypes[variable] == 0) {
    code = vexadx::kNotAStringCell;
    return nullptr;
  }
  const int length = exists ? std::max(m_varTypes[variable], 0) : 0;
  const char* const cells = exists ? cellsOf(variable, length) : nullptr;
  if (!cells) {
    code = vexadx::kNoSuchVariable;
    return nullptr;
  }
  return copyOf(cells, static_cast<std::size_t>(length));
}

int DatastepDataSmb::SetNCellValue(unsigned int variable, double value) {
  char* cell = nullptr;
  const int found = findNumber(variable, vexadx::kNotAStringCell, cell);
  if (found == vexadx::kSuccess) wireformat::Store(cell, value);
  return found;
}

int DatastepDataSmb::SetCCellValue(unsigned int variable, const char* text) {
  if (variable >= m_varTypes.size() || variable >= m_obsCount.size()) return vexadx::kNoSuchVariable;
  if (m_obsCount[variable] == 0) return vexadx::kNotANumericCell;
  const std::int64_t length = std::int64_t{m_obsCount[variable]} * kCellLen;
  char* const cells = length > 0 ? cellsOf(variable, length) : nullptr;
  if (!cells) return vexadx::kNoSuchVariable;
  const auto size = static_cast<std::size_t>(length);
  std::memset(cells, ' ', size);
  if (text) std::memcpy(cells, text, ::strnlen(text, size));
  return vexadx::kSuccess;
}

bool DatastepDataSmb::IsMissing(double value) { return VEXA_SystemMissing() == value; }

void DatastepDataSmb::GetVarInfo(int** types, int& count) {
  if (m_varTypes.empty()) return;
  auto copy = std::make_unique<int[]>(m_varTypes.size());
  std::copy(m_varTypes.begin(), m_varTypes.end(), copy.get());
  *types = copy.release();
  count = static_cast<int>(m_varTypes.size());
}

void DatastepDataSmb::AddVarType(int type) {
  reserveOneMore();
  m_varTypes.push_back(type);
  m_obsCount.push_back(ObsLength(type));
}

// What may fail for want of memory comes before the first change.
void DatastepDataSmb::reserveOneMore() {
  m_varTypes.reserve(m_varTypes.size() + 1);
  m_obsCount.reserve(m_obsCount.size() + 1);
}

void DatastepDataSmb::InsertVarType(int position, int type) {
  const auto most = static_cast<std::int64_t>(std::min(m_varTypes.size(), m_obsCount.size()));
  if (position < 0 || position > most) return;
  reserveOneMore();
  resizeBy(ObsLength(type));
  m_varTypes.insert(m_varTypes.begin() + position, type);
  m_obsCount.insert(m_obsCount.begin() + position, ObsLength(type));
}

void DatastepDataSmb::EraseVarType(int position) {
  if (!has(position)) return;
  resizeBy(-ObsLength(m_varTypes[static_cast<std::size_t>(position)]));
  m_varTypes.erase(m_varTypes.begin() + position);
  m_obsCount.erase(m_obsCount.begin() + position);
}

void DatastepDataSmb::UpdateVarType(int position, int type) {
  if (!has(position)) return;
  const auto index = static_cast<std::size_t>(position);
  resizeBy(ObsLength(type) - ObsLength(m_varTypes[index]));
  m_varTypes[index] = type;
  m_obsCount[index] = ObsLength(type);
}

// A size that no case can have changes nothing.
void DatastepDataSmb::resizeBy(int cells) {
  const std::int64_t size = m_caseSize + std::int64_t{cells} * kCellLen;
  if (size >= 0 && size <= INT_MAX) SetOneCaseSize(static_cast<int>(size));
}

bool DatastepDataSmb::has(int position) const {
  return position >= 0 && static_cast<std::size_t>(position) < std::min(m_varTypes.size(), m_obsCount.size());
}
