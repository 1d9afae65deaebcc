#include "clexdsmb.h"

#include <algorithm>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <cwchar>
#include <exception>
#include <memory>
#include <new>
#include <utility>

#include "listformat.h"
#include "messagememory.h"
#include "messagereader.h"
#include "piecewriter.h"
#include "vexadx_codes.h"
#include "wireformat.h"

using wireformat::kIntLen;
using wireformat::kWideCharLen;

static_assert(CleXDSmb::LONG_LEN == kIntLen);

namespace {

// As a whole or not at all, should memory give out.
template <typename Lists>
void replace(Lists& lists, const Lists& by) {
  Lists copy = by;
  lists = std::move(copy);
}

class WholeMessage final : public MessageSource {
 public:
  explicit WholeMessage(std::span<const char> message) : m_message(message) {}
  std::span<const char> Next() override {
    if (m_message.empty()) throw EndOfSource{vexadx::kFailed};
    return std::exchange(m_message, {});
  }

 private:
  std::span<const char> m_message;
};

}  // namespace

CleXDSmb::CleXDSmb()
    : m_sendBuf(nullptr),
      m_sendLen(0),
      m_binaryLen(0),
      m_voidData(nullptr),
      m_voidLen(0),
      m_commandAction(static_cast<CommandAction>(-1)),
      m_errorCode(0),
      m_binaryHandedOut(false),
      m_binaryHeld(0),
      m_wString(nullptr),
      m_binaryData(nullptr) {}

CleXDSmb::~CleXDSmb() {
  messagememory::Release(m_sendBuf);
  std::free(m_voidData);
  delete[] m_wString;
  holdBinary(nullptr, 0);
}

void CleXDSmb::SetCommandAction(CommandAction action) { m_commandAction = action; }

CleXDSmb::CommandAction CleXDSmb::GetCommandAction() { return m_commandAction; }

void CleXDSmb::SetErrorCode(int code) { m_errorCode = code; }

int CleXDSmb::GetErrorCode() { return m_errorCode; }

std::size_t CleXDSmb::messageLength() const {
  const auto bytesOf = [](const auto& lists) {
    std::size_t bytes = kIntLen;
    for (const auto& list : lists) bytes += list.bytes();
    return bytes;
  };
  return wireformat::kHeaderLen + m_longData.bytes() + m_doubleData.bytes() + m_stringData.bytes() +
         m_structData.bytes() + bytesOf(m_longArray) + bytesOf(m_doubleArray) + bytesOf(m_stringArray) + kIntLen +
         binaryBytesToSend() + kIntLen + wideCount() * kWideCharLen + kIntLen + static_cast<std::size_t>(m_voidLen);
}

template <typename Writer>
void CleXDSmb::writeMessage(Writer writer, std::size_t length) const {
  const auto write = [&writer](const auto& item) { writer = wireformat::WriteList(writer, item.m_values); };
  const auto writeAll = [&writer, write](const auto& lists) {
    writer.Count(lists.size());
    for (const auto& list : lists) write(list);
  };
  writer.Count(length);
  writer.Int(m_commandAction);
  writer.Int(m_errorCode);
  write(m_longData);
  write(m_doubleData);
  write(m_stringData);
  write(m_structData);
  writeAll(m_longArray);
  writeAll(m_doubleArray);
  writeAll(m_stringArray);
  const std::size_t binaryLen = binaryBytesToSend();
  writer.Count(binaryLen);
  writer.Bytes(m_binaryData, binaryLen);
  const std::span<const wchar_t> wide(m_wString, wideCount());
  writer.Count(wide.size());
  writer.Run(wide);
  const auto voidLen = static_cast<std::size_t>(m_voidLen);
  writer.Count(voidLen);
  writer.Bytes(m_voidData, voidLen);
}

int CleXDSmb::ContructSendData() {
  messagememory::Release(std::exchange(m_sendBuf, nullptr));
  m_sendLen = 0;
  const std::size_t length = messageLength();
  if (length > wireformat::kLongestMessage) return 0;
  m_sendBuf = messagememory::Allocate(length);
  if (!m_sendBuf) return 0;
  m_sendLen = static_cast<int>(length);
  writeMessage(wireformat::Writer(m_sendBuf), length);
  return 0;
}

void CleXDSmb::stream(PieceWriter writer, std::size_t length) const { writeMessage(writer, length); }

char* CleXDSmb::GetSendBuf(int& length) {
  length = m_sendLen;
  return m_sendBuf;
}

int CleXDSmb::ParseBuf(const void* data) {
  if (!data) return 0;
  const auto* message = static_cast<const char*>(data);
  const int length = wireformat::Load<int>(message);
  if (length <= 0) return 0;
  WholeMessage source({message, static_cast<std::size_t>(length)});
  (void)parse(source, vexadx::kFailed);
  return 0;
}

int CleXDSmb::parse(MessageSource& source, int malformed) {
  const auto forget = [this, longs = m_longData.Size(), doubles = m_doubleData.Size(), strings = m_stringData.Size(),
                       structs = m_structData.Size(), longLists = m_longArray.size(),
                       doubleLists = m_doubleArray.size(), stringLists = m_stringArray.size()] {
    m_longData.shrinkTo(longs);
    m_doubleData.shrinkTo(doubles);
    m_stringData.shrinkTo(strings);
    m_structData.shrinkTo(structs);
    m_longArray.resize(longLists);
    m_doubleArray.resize(doubleLists);
    m_stringArray.resize(stringLists);
  };
  try {
    MessageReader reader(source);
    try {
      parseFields(reader);
    } catch (const std::exception&) {
      forget();
      reader.Drain();
      return malformed;
    }
  } catch (const EndOfSource& end) {
    forget();
    return end.code;
  } catch (const std::exception&) {
    return malformed;
  }
  return vexadx::kSuccess;
}

// Lists first, everything else when nothing can fail any more.
void CleXDSmb::parseFields(MessageReader& reader) {
  const auto action = static_cast<CommandAction>(reader.Int());
  const int errorCode = reader.Int();
  const auto append = [&reader](auto& item) { wireformat::ReadList(reader, item.m_values); };
  const auto appendAll = [&reader, append](auto& lists) {
    const std::size_t count = reader.Count<kIntLen>();
    messagememory::GrowBy(lists, reader.AtHand(count, kIntLen));
    for (std::size_t i = 0; i < count; ++i) append(lists.emplace_back());
  };
  append(m_longData);
  append(m_doubleData);
  append(m_stringData);
  append(m_structData);
  appendAll(m_longArray);
  appendAll(m_doubleArray);
  appendAll(m_stringArray);

  const std::size_t binaryLen = reader.Count<1>();
  std::unique_ptr<char[]> binary;
  if (binaryLen > 0) {
    binary.reset(new char[binaryLen + 1]);
    reader.Bytes(binary.get(), binaryLen);
    binary[binaryLen] = '\0';
  }
  const std::size_t wideLen = reader.Count<kWideCharLen>();
  std::unique_ptr<wchar_t[]> wide;
  if (wideLen > 0) {
    wide.reset(new wchar_t[wideLen + 1]);
    reader.Bytes(wide.get(), wideLen * kWideCharLen);
    wireformat::ToNative(std::span(wide.get(), wideLen));
    wide[wideLen] = L'\0';
  }
  const std::size_t voidLen = reader.Count<1>();
  std::unique_ptr<char, FreeMemory> voidData;
  if (voidLen > 0) {
    voidData.reset(static_cast<char*>(std::malloc(voidLen)));
    if (!voidData) throw std::bad_alloc();
    reader.Bytes(voidData.get(), voidLen);
  }
  reader.Finish();

  m_sendLen = reader.Length();
  m_commandAction = action;
  m_errorCode = errorCode;
  holdBinary(binary.release(), binaryLen);
  delete[] std::exchange(m_wString, wide.release());
  m_voidLen = static_cast<int>(voidLen);
  if (voidLen > 0) std::free(std::exchange(m_voidData, voidData.release()));
}

void CleXDSmb::CleanUp() {
  messagememory::Release(std::exchange(m_sendBuf, nullptr));
  m_sendLen = 0;
  delete[] std::exchange(m_wString, nullptr);
  CleanUpAllData();
}

void CleXDSmb::CleanUpAllData() {
  m_stringData.CleanUp();
  m_longData.CleanUp();
  m_doubleData.CleanUp();
  m_structData.CleanUp();
  m_stringArray.clear();
  m_doubleArray.clear();
  m_longArray.clear();
  SetVoidData(nullptr, 0);
  holdBinary(nullptr, 0);
  m_binaryLen = 0;
}

void CleXDSmb::CleanUpLongData() { m_longData.CleanUp(); }

void CleXDSmb::CleanUpDoubleData() { m_doubleData.CleanUp(); }

void CleXDSmb::CleanUpStringData() { m_stringData.CleanUp(); }

void CleXDSmb::CleanUpStructData() { m_structData.CleanUp(); }

void CleXDSmb::CleanUpwStringData() {}

void CleXDSmb::SetLong(long value) { m_longData.SetValue(static_cast<int>(value)); }

LongData CleXDSmb::GetLongData() { return m_longData; }

LongData& CleXDSmb::GetLongDataRef() { return m_longData; }

void CleXDSmb::SetDouble(double value) { m_doubleData.SetValue(value); }

DoubleData CleXDSmb::GetDoubleData() { return m_doubleData; }

DoubleData& CleXDSmb::GetDoubleDataRef() { return m_doubleData; }

void CleXDSmb::SetString(const std::string& text) {
  m_stringData.SetValue(messagememory::Text(text.data(), text.size()));
}

void CleXDSmb::SetString(const char* text) {
  if (text) m_stringData.SetValue(text);
}

void CleXDSmb::SetString(const char* bytes, int length) {
  if (bytes && length >= 0) m_stringData.SetValue(messagememory::Text(bytes, static_cast<std::size_t>(length)));
}

void CleXDSmb::SetSingleString(const char* text) { m_stringData.SetSingleString(text); }

std::string CleXDSmb::GetSingleString() { return m_stringData.GetSingleString(); }

StringData CleXDSmb::GetStringData() { return m_stringData; }

// Copied before the old text goes: it may be the one that is set.
void CleXDSmb::SetwString(const wchar_t* text) {
  std::unique_ptr<wchar_t[]> copy;
  if (text) {
    const std::size_t count = std::wcslen(text);
    copy = std::make_unique<wchar_t[]>(count + 1);
    std::wmemcpy(copy.get(), text, count);
  }
  delete[] std::exchange(m_wString, copy.release());
}

wchar_t* CleXDSmb::GetwStringData() { return m_wString; }

void CleXDSmb::SetStruct(std::vector<dataSet> values) { m_structData.AssignValue(std::move(values)); }

void CleXDSmb::SetStruct(dataSet value) { m_structData.SetValue(std::move(value)); }

StructData CleXDSmb::GetStructData() { return m_structData; }

// Copied before the old array goes: it may be the one that is set.
void CleXDSmb::SetBinaryString(const char* bytes, int length) {
  const std::size_t count = bytes && length > 0 ? static_cast<std::size_t>(length) : 0;
  std::unique_ptr<char[]> copy;
  if (bytes) {
    copy.reset(new char[count]);
    if (count > 0) std::memcpy(copy.get(), bytes, count);
  }
  holdBinary(copy.release(), count);
  m_binaryLen = static_cast<int>(count);
}

char* CleXDSmb::GetBinaryData() {
  m_binaryHandedOut = true;
  return m_binaryData;
}

// Takes over an array in place of the one held, which goes too unless it was handed out.
void CleXDSmb::holdBinary(char* bytes, std::size_t length) {
  if (!m_binaryHandedOut) delete[] m_binaryData;
  m_binaryData = bytes;
  m_binaryHeld = static_cast<unsigned>(length) & 0x7FFFFFFF;
  m_binaryHandedOut = false;
}

std::size_t CleXDSmb::wideCount() const { return m_wString ? std::wcslen(m_wString) : 0; }

// The length that was set; an array that was parsed may be shorter.
std::size_t CleXDSmb::binaryBytesToSend() const {
  return m_binaryData ? std::min<std::size_t>(static_cast<std::size_t>(m_binaryLen), m_binaryHeld) : 0;
}

void CleXDSmb::SetLongArray(const LongData& list) { m_longArray.push_back(list); }

void CleXDSmb::SetLongArray(const std::vector<LongData>& lists) { replace(m_longArray, lists); }

std::vector<LongData> CleXDSmb::GetLongArray() { return m_longArray; }

std::vector<LongData>& CleXDSmb::GetLongArrayRef() { return m_longArray; }

void CleXDSmb::SetDoubleArray(const DoubleData& list) { m_doubleArray.push_back(list); }

void CleXDSmb::SetDoubleArray(const std::vector<DoubleData>& lists) { replace(m_doubleArray, lists); }

std::vector<DoubleData> CleXDSmb::GetDoubleArray() { return m_doubleArray; }

std::vector<DoubleData>& CleXDSmb::GetDoubleArrayRef() { return m_doubleArray; }

void CleXDSmb::SetStringArray(const StringData& list) { m_stringArray.push_back(list); }

void CleXDSmb::SetStringArray(const std::vector<StringData>& lists) { replace(m_stringArray, lists); }

std::vector<StringData> CleXDSmb::GetStringArray() { return m_stringArray; }

std::vector<StringData>& CleXDSmb::GetStringArrayRef() { return m_stringArray; }

void CleXDSmb::SetVoidData(void* block, int length) {
  void* const old = std::exchange(m_voidData, block);
  if (old != block) std::free(old);
  m_voidLen = block ? std::max(length, 0) : 0;
}

void* CleXDSmb::GetVoidData(int& length) {
  length = m_voidLen;
  return m_voidData;
}

void* CleXDSmb::AllocVoidData(int size) {
  SetVoidData(size >= 0 ? std::malloc(static_cast<std::size_t>(size)) : nullptr, 0);
  return m_voidData;
}

CleXDSmb& CleXDSmb::SaveDataIntoVoidData(const void* bytes, int length) {
  if (m_voidData && bytes && length > 0 && length <= INT_MAX - m_voidLen) {
    std::memcpy(static_cast<char*>(m_voidData) + m_voidLen, bytes, static_cast<std::size_t>(length));
    m_voidLen += length;
  }
  return *this;
}
