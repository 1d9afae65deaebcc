#pragma once

#include <cstdint>
#include <memory>
#include <vector>

#include "clexdsmb.h"
#include "cursordatasmb.h"
#include "vexadx_export.h"

// A message block that carries cells of a data set, rows by variables: for each cell, row after row, an integer, a
// number and a string, in the first list of the block's lists of integer, double and string lists. How many variables a
// row has and which row is the first does not travel with it. One thread at a time.
class VEXADX_API DatastepSmb : public CleXDSmb {
 public:
  DatastepSmb();

  // Set `code` to 0.
  void SetvarCount(int count, int& code);
  void SetrowInfo(long firstRow, int& code);

  // The number of a cell and, as a new text that the caller releases with delete[], its string. Set `cellCode` to the
  // cell's integer and `code` to 0. Where there is no such cell they answer 0 and null, and `code` is
  // vexadx::kNoSuchVariable (10). The text is not used.
  double GetNCellValue(const char*, long row, int column, int& cellCode, int& code);
  char* GetCCellValue(const char*, long row, int column, int& cellCode, int& code);

 private:
  template <typename Item>
  VEXADX_HIDDEN bool find(std::vector<Item>& values, long row, int column, int& entry);

  int m_varCount;
  long m_firstRow;
};

// One case of a new data set, and the types of its variables: 0 for a number, else the bytes of a string. One thread at
// a time.
//
// Its user sets m_obsOffset. What lies outside the lists or the case is answered with vexadx::kNoSuchVariable (10).
// vexadx::kNotANumericCell (56) is for a number read from a string and a string written to a variable without cells,
// vexadx::kNotAStringCell (57) for a string read from a number and a number written to a string. Nothing changes then,
// nor when memory gives out, which throws std::bad_alloc.
class VEXADX_API DatastepDataSmb {
 public:
  DatastepDataSmb();
  ~DatastepDataSmb();
  DatastepDataSmb(const DatastepDataSmb&) = delete;
  DatastepDataSmb& operator=(const DatastepDataSmb&) = delete;

  // A new case of so many bytes, all zero; a negative number changes nothing.
  void SetOneCaseSize(int size);

  // Makes a copy of so many bytes the case; null or a negative number changes nothing.
  DatastepDataSmb& SetCaseValue(const void* data, int size);

  // The case and its size in bytes. It belongs to the object and is valid until the case is replaced.
  OBS* GetCaseValue(int& size);

  // A number and whether it is the system-missing value (1) or not (0); 0 on failure. `code` is set on failure only.
  double GetNCellValue(unsigned int variable, int& missing, int& code);

  // A string as a new text that the caller releases with delete[]; null on failure. `code` is set on failure only.
  char* GetCCellValue(unsigned int variable, int& code);

  // Write a cell. A text is filled up with blanks or cut to the variable's cells; null is an empty one, and the
  // variable's type is not looked at. Answer 0 or a code.
  int SetNCellValue(unsigned int variable, double value);
  int SetCCellValue(unsigned int variable, const char* text);

  // Whether it is the system-missing value.
  bool IsMissing(double value);

  // Answers a new array of the variables' types, which the caller releases with delete[], and their number. Without
  // variables it changes nothing.
  void GetVarInfo(int** types, int& count);

  // Change the list of variables, not m_obsOffset. All but AddVarType fit the size of the case to it and so make a new
  // case, unless its size would be negative. A position outside the list changes nothing.
  void AddVarType(int type);
  void InsertVarType(int position, int type);
  void EraseVarType(int position);
  void UpdateVarType(int position, int type);

  int m_caseSize;                // bytes of the case, a multiple of 8
  OBS* m_caseBuf;                // the case, from new[]
  std::vector<int> m_varTypes;   // the type of each variable
  std::vector<int> m_obsOffset;  // the index of each variable's first cell in the case
  std::vector<int> m_obsCount;   // the cells of each variable

 private:
  VEXADX_HIDDEN char* cellsOf(unsigned int variable, std::int64_t bytes);
  VEXADX_HIDDEN int findNumber(unsigned int variable, int wrongType, char*& cell);
  VEXADX_HIDDEN void holdCase(std::unique_ptr<OBS[]> cells, int size);
  VEXADX_HIDDEN void reserveOneMore();
  VEXADX_HIDDEN void resizeBy(int cells);
  VEXADX_HIDDEN bool has(int position) const;

  int m_heldBytes;  // of whole cells in m_caseBuf, whatever m_caseSize is set to
};
