#pragma once

#include <cstddef>
#include <cstdlib>
#include <memory>
#include <string>
#include <vector>

#include "vexadx_export.h"

// The typed payloads of a message block: lists of values that measure, serialise and parse themselves. One thread at a
// time each.
//
// Every item has the operations of DataType and, for its own type of value:
//   SetValue    appends a value
//   operator[]  the i-th value, valid until the list changes. REQUIRES: 0 <= i < Size()
//   CleanUp     removes all values; what ConstructData answered stays valid
// A copy has the values but no encoding, and an assignment leaves the target's own.

// The operations common to the items. Items are held and destroyed as what they are, never through this class.
class VEXADX_API DataType {
 public:
  // Serialises the item. Answers the encoding and its length in bytes: a block that belongs to the item, valid until
  // its next ConstructData or its end. Null and 0 when memory gave out or the encoding would take 2^31 bytes or more.
  virtual char* ConstructData(int& length) = 0;

  // Appends the values encoded at `data` and sets `length` to the bytes they take; with null nothing changes.
  // REQUIRES: a whole encoding. Its counts and lengths are taken as they stand.
  virtual void ParseData(const void* data, int& length) = 0;

  // The length of the encoding in bytes, at most INT_MAX.
  virtual int DataLength() = 0;

  // The number of values.
  virtual int Size() = 0;

 protected:
  ~DataType() = default;
};

// A record, as StructData holds them.
struct dataSet {
  std::string m_name;
  int m_int1 = 0;
  int m_int2 = 0;
  int m_int3 = 0;
  double m_double = 0;
  std::string m_string;
};

// Gives back what malloc gave.
struct FreeMemory {
  void operator()(char* block) const noexcept { std::free(block); }
};

// 32-bit integers.
class VEXADX_API LongData final : public DataType {
 public:
  LongData();
  LongData(const LongData& other);
  LongData(LongData&& other) noexcept;
  LongData& operator=(const LongData& other);
  ~LongData();

  char* ConstructData(int& length) override;
  void ParseData(const void* data, int& length) override;
  int DataLength() override;
  int Size() override;

  void SetValue(int value);
  int& operator[](int i);
  void CleanUp();

 private:
  friend class CleXDSmb;

  VEXADX_HIDDEN std::size_t bytes() const;
  VEXADX_HIDDEN void shrinkTo(int size);

  std::unique_ptr<char, FreeMemory> m_buffer;
  int m_length;  // of the encoding, as last measured or parsed
  std::vector<int> m_values;
};

class VEXADX_API DoubleData final : public DataType {
 public:
  DoubleData();
  DoubleData(const DoubleData& other);
  DoubleData(DoubleData&& other) noexcept;
  DoubleData& operator=(const DoubleData& other);
  ~DoubleData();

  char* ConstructData(int& length) override;
  void ParseData(const void* data, int& length) override;
  int DataLength() override;
  int Size() override;

  void SetValue(double value);
  double& operator[](int i);
  void CleanUp();

 private:
  friend class CleXDSmb;

  VEXADX_HIDDEN std::size_t bytes() const;
  VEXADX_HIDDEN void shrinkTo(int size);

  std::unique_ptr<char, FreeMemory> m_buffer;
  int m_length;  // of the encoding, as last measured or parsed
  std::vector<double> m_values;
};

// Strings of bytes: any byte may be in them.
class VEXADX_API StringData final : public DataType {
 public:
  StringData();
  StringData(const StringData& other);
  StringData(StringData&& other) noexcept;
  StringData& operator=(const StringData& other);
  ~StringData();

  char* ConstructData(int& length) override;
  void ParseData(const void* data, int& length) override;
  int DataLength() override;
  int Size() override;

  void SetValue(std::string value);
  std::string& operator[](int i);
  void CleanUp();

  // Makes the text the only value; null leaves the list empty.
  void SetSingleString(const char* text);

  // A copy of the first value; empty when there is none.
  std::string GetSingleString();

  // A copy of all values.
  std::vector<std::string> GetData();

 private:
  friend class CleXDSmb;

  VEXADX_HIDDEN std::size_t bytes() const;
  VEXADX_HIDDEN void shrinkTo(int size);

  std::unique_ptr<char, FreeMemory> m_buffer;
  int m_length;  // of the encoding, as last measured or parsed
  std::vector<std::string> m_values;
};

class VEXADX_API StructData final : public DataType {
 public:
  StructData();
  StructData(const StructData& other);
  StructData(StructData&& other) noexcept;
  StructData& operator=(const StructData& other);
  ~StructData();

  char* ConstructData(int& length) override;
  void ParseData(const void* data, int& length) override;
  int DataLength() override;
  int Size() override;

  void SetValue(dataSet value);
  dataSet& operator[](int i);
  void CleanUp();

  // Replaces all values.
  void AssignValue(std::vector<dataSet> values);

 private:
  friend class CleXDSmb;

  VEXADX_HIDDEN std::size_t bytes() const;
  VEXADX_HIDDEN void shrinkTo(int size);

  std::unique_ptr<char, FreeMemory> m_buffer;
  int m_length;  // of the encoding, as last measured or parsed
  std::vector<dataSet> m_values;
};
