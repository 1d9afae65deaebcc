#include "jniaccessor.h"

#include <string_view>
#include <utility>
#include <vector>

namespace {

// The machine makes room for more on demand.
constexpr jint kUsualReferences = 16;

constexpr char32_t kReplacement = 0xFFFD;
constexpr char32_t kFirstSupplementary = 0x10000;
constexpr char32_t kLastCodePoint = 0x10FFFF;
constexpr char32_t kHighSurrogates = 0xD800;
constexpr char32_t kLowSurrogates = 0xDC00;
constexpr char32_t kSurrogatesEnd = 0xE000;

bool isSurrogate(char32_t point) { return point >= kHighSurrogates && point < kSurrogatesEnd; }

bool isContinuation(unsigned char byte) { return (byte & 0xC0U) == 0x80; }

// Takes one character off the front of UTF-8 text; of a sequence that is cut short, what there is of it.
char32_t takeUtf8(std::string_view& rest) {
  constexpr char32_t kSmallest[] = {0, 0x80, 0x800, kFirstSupplementary};  // by the number of continuation bytes
  const auto lead = static_cast<unsigned char>(rest.front());
  rest.remove_prefix(1);
  if (lead < 0x80) return lead;
  if (isContinuation(lead) || lead > 0xF7) return kReplacement;

  const int continuations = lead >= 0xF0 ? 3 : lead >= 0xE0 ? 2 : 1;
  char32_t point = lead & (0x3FU >> continuations);
  for (int i = 0; i < continuations; ++i) {
    if (rest.empty() || !isContinuation(static_cast<unsigned char>(rest.front()))) return kReplacement;
    point = point << 6U | (static_cast<unsigned char>(rest.front()) & 0x3FU);
    rest.remove_prefix(1);
  }
  if (point < kSmallest[continuations] || point > kLastCodePoint || isSurrogate(point)) return kReplacement;
  return point;
}

void appendUtf16(std::vector<jchar>& units, char32_t point) {
  if (point < kFirstSupplementary) {
    units.push_back(static_cast<jchar>(point));
    return;
  }
  const char32_t offset = point - kFirstSupplementary;
  units.push_back(static_cast<jchar>(kHighSurrogates + (offset >> 10U)));
  units.push_back(static_cast<jchar>(kLowSurrogates + (offset & 0x3FFU)));
}

// The character at the index, which moves behind it.
char32_t takeUtf16(const std::vector<jchar>& units, std::size_t& index) {
  const char32_t unit = units[index++];
  if (!isSurrogate(unit)) return unit;
  if (unit >= kLowSurrogates || index == units.size()) return kReplacement;
  const char32_t low = units[index];
  if (low < kLowSurrogates || low >= kSurrogatesEnd) return kReplacement;
  ++index;
  return kFirstSupplementary + ((unit - kHighSurrogates) << 10U) + (low - kLowSurrogates);
}

void appendUtf8(std::string& text, char32_t point) {
  if (point < 0x80) {
    text.push_back(static_cast<char>(point));
    return;
  }
  const unsigned continuations = point < 0x800 ? 1 : point < kFirstSupplementary ? 2 : 3;
  const unsigned leadMark =
      0xFF00U >> (continuations + 1) & 0xFFU;  // as many ones as the sequence has bytes, then a zero
  text.push_back(static_cast<char>(leadMark | point >> 6U * continuations));
  for (unsigned left = continuations; left > 0; --left) {
    text.push_back(static_cast<char>(0x80U | (point >> 6U * (left - 1) & 0x3FU)));
  }
}

}  // namespace

JNIAccessor::JNIAccessor(JNIEnv* env) : m_env(env) {
  if (!m_env) return;
  ClearException();  // with one pending hardly anything may be called
  if (m_env->PushLocalFrame(kUsualReferences) == JNI_OK) return;
  ClearException();
  m_env = nullptr;
}

JNIAccessor::~JNIAccessor() {
  if (!m_env) return;
  ClearException();
  m_env->PopLocalFrame(nullptr);
}

jclass JNIAccessor::setClass(const std::string& name) {
  if (!m_env) return nullptr;
  m_class = m_env->FindClass(name.c_str());
  if (ClearException()) m_class = nullptr;
  return m_class;
}

jmethodID JNIAccessor::setStaticMethod(const std::string& name, const std::string& signature) {
  if (!m_class || name.empty()) return nullptr;
  const jmethodID method = m_env->GetStaticMethodID(m_class, name.c_str(), signature.c_str());
  return ClearException() ? nullptr : method;
}

// Java's own UTF-8 functions are of no use here: they expect supplementary characters as pairs of surrogates, and check
// nothing.
jstring JNIAccessor::ToJString(const std::string& text, const char* /*encoding*/) {
  if (!m_env) return nullptr;
  std::vector<jchar> units;
  units.reserve(text.size());
  for (std::string_view rest = text; !rest.empty();) appendUtf16(units, takeUtf8(rest));
  if (!std::in_range<jsize>(units.size())) return nullptr;
  const jstring result = m_env->NewString(units.data(), static_cast<jsize>(units.size()));
  return ClearException() ? nullptr : result;
}

std::string JNIAccessor::FromJString(jstring text, const char* /*encoding*/) {
  if (!m_env || !text) return "";
  ClearException();
  std::vector<jchar> units(static_cast<std::size_t>(m_env->GetStringLength(text)));
  m_env->GetStringRegion(text, 0, static_cast<jsize>(units.size()), units.data());
  std::string result;
  result.reserve(units.size());
  for (std::size_t index = 0; index < units.size();) appendUtf8(result, takeUtf16(units, index));
  return result;
}

bool JNIAccessor::ClearException() {
  if (!m_env->ExceptionCheck()) return false;
  m_env->ExceptionClear();
  return true;
}
