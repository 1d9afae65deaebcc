#include "wireformat.h"

namespace wireformat {

namespace {

// Passes over fields; false, and nothing is passed over, where one does not lie within the bytes.
class Walk {
 public:
  explicit Walk(std::span<const char> bytes) : m_rest(bytes) {}

  bool AtEnd() const { return m_rest.empty(); }

  bool Count(std::size_t& count) {
    if (m_rest.size() < kIntLen) return false;
    const int value = Load<int>(m_rest.data());
    if (value < 0) return false;
    m_rest = m_rest.subspan(kIntLen);
    count = static_cast<std::size_t>(value);
    return true;
  }

  bool Bytes(std::size_t length) {
    if (length > m_rest.size()) return false;
    m_rest = m_rest.subspan(length);
    return true;
  }

  // A count, and as many values of a fixed length.
  bool Values(std::size_t length) {
    std::size_t count = 0;
    return Count(count) && count <= m_rest.size() / length && Bytes(count * length);
  }

  // A count, and as many times what `element` passes over. Every element takes bytes, so a count that is too large
  // ends with them.
  template <typename Element>
  bool Elements(Element element) {
    std::size_t count = 0;
    if (!Count(count)) return false;
    for (; count > 0; --count) {
      if (!element()) return false;
    }
    return true;
  }

  bool Longs() { return Values(kIntLen); }
  bool Doubles() { return Values(kDoubleLen); }
  bool String() { return Values(1); }
  bool Strings() {
    return Elements([this] { return String(); });
  }
  bool Structs() {
    return Elements([this] { return String() && Bytes(kStructNumbersLen) && String(); });
  }

 private:
  std::span<const char> m_rest;
};

}  // namespace

bool IsMessage(std::span<const char> bytes) {
  if (bytes.size() < kEmptyMessageLen || bytes.size() > kLongestMessage) return false;
  if (Load<int>(bytes.data()) != static_cast<int>(bytes.size())) return false;
  Walk walk(bytes.subspan(kHeaderLen));
  return walk.Longs() && walk.Doubles() && walk.Strings() && walk.Structs() &&  //
         walk.Elements([&] { return walk.Longs(); }) &&                         //
         walk.Elements([&] { return walk.Doubles(); }) &&                       //
         walk.Elements([&] { return walk.Strings(); }) &&                       //
         walk.Values(1) && walk.Values(kWideCharLen) && walk.Values(1) && walk.AtEnd();
}

}  // namespace wireformat
