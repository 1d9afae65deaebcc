#include "dxutils.h"

#include <sys/select.h>

#include <algorithm>
#include <cctype>
#include <limits>

namespace {

// Set by the host before any configuration is read.
ExpandEnvStrHook my_ExpandEnvStr = nullptr;

char upper(char c) { return static_cast<char>(std::toupper(static_cast<unsigned char>(c))); }

}  // namespace

std::vector<std::string> GetListFromDelims(const std::string& text, const std::string& delimiter) {
  std::vector<std::string> pieces;
  std::size_t start = 0;
  if (!delimiter.empty()) {
    for (std::size_t end; (end = text.find(delimiter, start)) != std::string::npos; start = end + delimiter.size()) {
      pieces.push_back(text.substr(start, end - start));
    }
  }
  if (start < text.size()) pieces.push_back(text.substr(start));
  return pieces;
}

void DecoratePathEnd(std::string& path) {
  if (!path.empty() && path.back() != '/') path.push_back('/');
}

int strincmp(const char* a, const char* b, std::size_t n) {
  for (std::size_t i = 0; i < n; ++i) {
    const auto left = static_cast<signed char>(upper(a[i]));
    const auto right = static_cast<signed char>(upper(b[i]));
    if (left != right) return left - right;
    if (left == '\0') return 0;
  }
  return 0;
}

std::string UpperString(const std::string& text) {
  std::string result = text;
  std::transform(result.begin(), result.end(), result.begin(), upper);
  return result;
}

void msleep(std::uint32_t milliseconds) {
  // Not resumed after a signal: a signal is meant to end the sleep.
  if (milliseconds == std::numeric_limits<std::uint32_t>::max()) {
    ::select(0, nullptr, nullptr, nullptr, nullptr);
    return;
  }
  timeval timeout{};
  timeout.tv_sec = milliseconds / 1000;
  timeout.tv_usec = suseconds_t{milliseconds % 1000} * 1000;
  ::select(0, nullptr, nullptr, nullptr, &timeout);
}

std::string trimSpace(std::string text) {
  text.erase(text.find_last_not_of(' ') + 1);
  text.erase(0, text.find_first_not_of(' '));
  return text;
}

void SetExpandEnvStr(ExpandEnvStrHook hook) { my_ExpandEnvStr = hook; }

bool ExpandEnvStr(const std::string& input, std::string& output) {
  if (my_ExpandEnvStr) return my_ExpandEnvStr(input, output);
  output = input;
  return false;
}
