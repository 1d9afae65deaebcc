#pragma once

#include <cstddef>
#include <span>
#include <string>
#include <vector>

#include "datatype.h"
#include "vexadx_export.h"

class MessageReader;
class MessageSource;
class PieceWriter;

// The message block that the host and an X process exchange: a command action, an error code and payloads of each
// type. It turns itself into one contiguous message and fills itself from one. One thread at a time.
//
// Texts and lists that setters take are copied. What getters named ...Ref answer is the block's own and valid as long
// as the block; other lists are copies. When memory gives out, setters and copies throw std::bad_alloc like the
// containers they take, and the block is as before.
class VEXADX_API CleXDSmb {
 public:
  // Given its values by the programs that exchange blocks; a new block has -1.
  enum CommandAction : int {};

  // Bytes of every integer field of a message.
  static constexpr int LONG_LEN = 4;

  // An encoded item, as its ConstructData answers it.
  struct TempData {
    char* m_data;
    int m_length;
  };

  CleXDSmb();
  ~CleXDSmb();
  CleXDSmb(const CleXDSmb&) = delete;
  CleXDSmb& operator=(const CleXDSmb&) = delete;

  void SetCommandAction(CommandAction action);
  CommandAction GetCommandAction();
  void SetErrorCode(int code);
  int GetErrorCode();

  // Builds the message from the content, in place of an earlier one. Answers 0. There is no message afterwards, and
  // GetSendBuf answers null and 0, when memory gave out or it would take 2^31 bytes or more.
  int ContructSendData();  // exported spelling: the host links against it

  // The message last built and its length in bytes, valid until the next ContructSendData or CleanUp. After a parse the
  // length is that of the message parsed, and no longer that of what was built: build before sending.
  char* GetSendBuf(int& length);

  // Fills the block from a message: lists are appended to those the block has, everything else is replaced. Answers 0.
  // Nothing is changed by null, by a message that is not well formed, or when memory gives out.
  // REQUIRES: as many bytes as the message's first field announces.
  int ParseBuf(const void* data);

  // CleanUp releases the message, the wide string and all content, so that the block can be filled again;
  // CleanUpAllData the content but for the wide string. Both keep command action and error code. The others remove the
  // values of one list; there is none to remove for the wide string.
  void CleanUp();
  void CleanUpAllData();
  void CleanUpLongData();
  void CleanUpDoubleData();
  void CleanUpStringData();
  void CleanUpStructData();
  void CleanUpwStringData();

  // Appends the low 32 bits.
  void SetLong(long value);
  LongData GetLongData();
  LongData& GetLongDataRef();

  void SetDouble(double value);
  DoubleData GetDoubleData();
  DoubleData& GetDoubleDataRef();

  // Append a string; null appends nothing.
  void SetString(const std::string& text);
  void SetString(const char* text);
  void SetString(const char* bytes, int length);
  // The only string, and the first one.
  void SetSingleString(const char* text);
  std::string GetSingleString();
  StringData GetStringData();

  // A wide string; null leaves the block without one. The getter's text belongs to the block and is valid until the
  // next one is set or parsed, or CleanUp.
  void SetwString(const wchar_t* text);
  wchar_t* GetwStringData();

  // Replaces all records; appends one.
  void SetStruct(std::vector<dataSet> values);
  void SetStruct(dataSet value);
  StructData GetStructData();

  // The binary payload. Asking for it hands the array over, once however often it is asked for: it is the caller's to
  // release with delete[], and the block only forgets it, when it is set or parsed anew, cleaned up or destroyed.
  // REQUIRES: released after that, because until then it is what the block sends. An array that nobody asked for is the
  // block's.
  //
  // One that was parsed has a zero byte behind it, and its length is not kept: it is read as a zero-terminated string.
  // Of it a later message has as many bytes as the length last set, none when there is no such length.
  void SetBinaryString(const char* bytes, int length);
  char* GetBinaryData();

  // Lists of lists: append one, or replace all.
  void SetLongArray(const LongData& list);
  void SetLongArray(const std::vector<LongData>& lists);
  std::vector<LongData> GetLongArray();
  std::vector<LongData>& GetLongArrayRef();
  void SetDoubleArray(const DoubleData& list);
  void SetDoubleArray(const std::vector<DoubleData>& lists);
  std::vector<DoubleData> GetDoubleArray();
  std::vector<DoubleData>& GetDoubleArrayRef();
  void SetStringArray(const StringData& list);
  void SetStringArray(const std::vector<StringData>& lists);
  std::vector<StringData> GetStringArray();
  std::vector<StringData>& GetStringArrayRef();

  // Void data: bytes that mean something to the two programs only. Either a malloc block that becomes the block's, or
  // one that AllocVoidData makes and answers, null when it cannot, and SaveDataIntoVoidData fills piece by piece.
  // REQUIRES of the latter: all pieces together fit into what was allocated.
  void SetVoidData(void* block, int length);
  void* GetVoidData(int& length);
  void* AllocVoidData(int size);
  CleXDSmb& SaveDataIntoVoidData(const void* bytes, int length);

 private:
  friend struct MessageParser;
  friend struct MessageStreamer;

  VEXADX_HIDDEN int parse(MessageSource& source, int malformed);
  VEXADX_HIDDEN void parseFields(MessageReader& reader);
  VEXADX_HIDDEN void holdBinary(char* bytes, std::size_t length);
  VEXADX_HIDDEN std::size_t binaryBytesToSend() const;
  VEXADX_HIDDEN std::size_t wideCount() const;
  VEXADX_HIDDEN std::size_t messageLength() const;
  template <typename Writer>
  VEXADX_HIDDEN void writeMessage(Writer writer, std::size_t length) const;
  VEXADX_HIDDEN void stream(PieceWriter writer, std::size_t length) const;

  char* m_sendBuf;  // from malloc
  int m_sendLen;
  int m_binaryLen;
  void* m_voidData;  // from malloc
  int m_voidLen;
  CommandAction m_commandAction;
  int m_errorCode;
  // Of m_binaryData: whether it is the caller's by now, and the bytes of its payload.
  bool m_binaryHandedOut : 1;
  unsigned m_binaryHeld : 31;
  LongData m_longData;
  DoubleData m_doubleData;
  StringData m_stringData;
  wchar_t* m_wString;  // from new[]
  char* m_binaryData;  // from new[]
  std::vector<LongData> m_longArray;
  std::vector<DoubleData> m_doubleArray;
  std::vector<StringData> m_stringArray;
  StructData m_structData;
};
