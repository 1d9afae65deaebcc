#include "dxutils.h"

#include <gtest/gtest.h>
#include <pthread.h>
#include <signal.h>

#include <atomic>
#include <chrono>
#include <limits>
#include <thread>

namespace {

using Pieces = std::vector<std::string>;
using std::chrono::steady_clock;

double secondsSince(steady_clock::time_point start) {
  return std::chrono::duration<double>(steady_clock::now() - start).count();
}

}  // namespace

TEST(Utilities, SplitAtTheWholeDelimiter) {
  const struct {
    const char* text;
    const char* delimiter;
    Pieces want;
  } kCases[] = {{"R;PYTHON;", ";", {"R", "PYTHON"}},
                {";R", ";", {"", "R"}},
                {"R;;PYTHON", ";", {"R", "", "PYTHON"}},
                {"", ";", {}},
                {";", ";", {""}},
                {"R", ";", {"R"}},
                {" a ; b ", ";", {" a ", " b "}},
                {"a;b::c:d::", "::", {"a;b", "c:d"}},
                {"a:::b", "::", {"a", ":b"}},
                {"abc", "", {"abc"}},
                {"", "", {}}};
  for (const auto& c : kCases) EXPECT_EQ(c.want, GetListFromDelims(c.text, c.delimiter)) << c.text;
}

TEST(Utilities, DecorateTrimAndUpper) {
  const struct {
    const char* path;
    const char* want;
  } kPaths[] = {{"/opt/x", "/opt/x/"}, {"/opt/x/", "/opt/x/"}, {"", ""}, {"/", "/"}, {"x//", "x//"}};
  for (const auto& c : kPaths) {
    std::string path = c.path;
    DecoratePathEnd(path);
    EXPECT_EQ(c.want, path);
  }
  EXPECT_EQ("x\t", trimSpace("  x\t "));
  EXPECT_EQ("a b", trimSpace("a b"));
  EXPECT_EQ("", trimSpace("   "));
  EXPECT_EQ("", trimSpace(""));
  EXPECT_EQ("ABC1\xE4", UpperString("aBc1\xE4"));
}

TEST(Utilities, CompareWithoutCase) {
  const struct {
    const char* a;
    const char* b;
    std::size_t n;
    int want;  // its sign
  } kCases[] = {{"abc", "ABD", 2, 0}, {"abc", "ABD", 3, -1},     {"abc", "ABC", 9, 0},    {"ab", "abc", 3, -1},
                {"abc", "ab", 3, 1},  {"ab", "abc", 2, 0},       {"a", "b", 0, 0},        {"", "", 4, 0},
                {"\x80", "a", 1, -1}, {"a\xFF", "a\x01", 2, -1}, {"\x80", "\xFF", 1, -1}, {"z", "\x7F", 1, -1}};
  for (const auto& c : kCases) {
    const int result = strincmp(c.a, c.b, c.n);
    EXPECT_EQ(c.want, (result > 0) - (result < 0)) << c.a << " " << c.b << " " << c.n;
  }
}

TEST(Utilities, SleepLastsAndASignalEndsIt) {
  auto start = steady_clock::now();
  msleep(0);
  msleep(1500);
  EXPECT_GE(secondsSince(start), 1.5);

  struct sigaction action {};
  action.sa_handler = [](int) {};
  action.sa_flags = SA_RESTART;
  ASSERT_EQ(0, ::sigaction(SIGUSR1, &action, nullptr));
  for (const std::uint32_t forLong : {3'600'000U, std::numeric_limits<std::uint32_t>::max()}) {
    std::atomic<bool> awake = false;
    std::thread sleeper([&] {
      msleep(forLong);
      awake = true;
    });
    // Signals go on until one has met the sleep: the first may come before it has begun.
    while (!awake) {
      ::pthread_kill(sleeper.native_handle(), SIGUSR1);
      std::this_thread::yield();
    }
    sleeper.join();
  }
}
