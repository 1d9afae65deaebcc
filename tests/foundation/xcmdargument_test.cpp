#include "xcmdargument.h"

#include <gtest/gtest.h>

#include <optional>
#include <string>
#include <vector>

namespace {

using Texts = std::vector<std::string>;

// The arguments as the vector has them, which must be null-terminated; nothing for no vector at all.
std::optional<Texts> vectorOf(XCmdArgument& arguments) {
  const int count = arguments.argc();
  char** argv = arguments.argv();
  if (!argv) return {};
  EXPECT_EQ(nullptr, argv[count]);
  return Texts(argv, argv + count);
}

std::optional<std::string> lineOf(XCmdArgument& arguments) {
  const char* line = arguments.cmdline();
  return line ? std::optional<std::string>(line) : std::nullopt;
}

}  // namespace

TEST(CmdArgument, SplitsALineAtEveryBlank) {
  const struct {
    const char* line;
    Texts want;
  } kCases[] = {{"--silent --no-save", {"--silent", "--no-save"}},
                {"a  b", {"a", "", "b"}},
                {" a", {"", "a"}},
                {"a ", {"a"}},
                {" ", {""}},
                {"\"a b\" 'c'\td", {"\"a", "b\"", "'c'\td"}}};
  for (const auto& c : kCases) {
    XCmdArgument arguments(c.line);
    EXPECT_EQ(c.want, vectorOf(arguments)) << c.line;
    std::string joined;
    for (const std::string& argument : c.want) joined += " " + argument;
    EXPECT_EQ(joined, lineOf(arguments));
  }
}

TEST(CmdArgument, MayBeManyOrLong) {
  const std::pair<std::string, Texts> kCases[] = {{std::string(100'000, ' '), Texts(100'000)},
                                                  {std::string(200'000, 'a'), {std::string(200'000, 'a')}}};
  for (const auto& [line, want] : kCases) {
    XCmdArgument arguments(line);
    EXPECT_TRUE(want == vectorOf(arguments));
    EXPECT_EQ(line.size() + (line[0] == ' ' ? 0 : 1), lineOf(arguments)->size());
  }
  const char* texts[] = {"a", nullptr};
  XCmdArgument arguments(2, texts);
  EXPECT_EQ((Texts{"a", ""}), vectorOf(arguments));
}

TEST(CmdArgument, BuildsNothingFromNothing) {
  XCmdArgument none;
  XCmdArgument empty("");
  for (XCmdArgument* arguments : {&none, &empty}) {
    EXPECT_EQ(0, arguments->argc());
    EXPECT_EQ(std::nullopt, vectorOf(*arguments));
    EXPECT_EQ(std::nullopt, lineOf(*arguments));
    arguments->cleanc();
  }
  for (const int count : {0, 3, -1}) {
    XCmdArgument counted(count, nullptr);
    EXPECT_EQ(Texts{}, vectorOf(counted));
    EXPECT_EQ(std::nullopt, lineOf(counted));
  }
}

TEST(CmdArgument, EachFormIsBuiltAnewAfterAChange) {
  const char* texts[] = {"a", "b c", nullptr};
  XCmdArgument arguments(2, texts);
  EXPECT_EQ(" a b c", lineOf(arguments));  // the line first: the vector stays out of date
  EXPECT_EQ((Texts{"a", "b c"}), vectorOf(arguments));
  char** current = arguments.argv();
  EXPECT_EQ(current, arguments.argv());

  arguments.pushArgument("d e", false);
  EXPECT_EQ((Texts{"a", "b c", "d e"}), vectorOf(arguments));  // and now the vector first
  EXPECT_EQ(" a b c d e", lineOf(arguments));
  const char* line = arguments.cmdline();
  arguments.modifyArgument(-1, "x");
  arguments.modifyArgument(3, "x");
  EXPECT_EQ(line, arguments.cmdline());
  arguments.modifyArgument(1, "");
  arguments.modifyArgument(0, "z");
  EXPECT_STREQ("", arguments.argumentAt(1));
  EXPECT_EQ(nullptr, arguments.argumentAt(-1));
  EXPECT_EQ(nullptr, arguments.argumentAt(3));
  EXPECT_EQ((Texts{"z", "", "d e"}), vectorOf(arguments));
  EXPECT_EQ(" z  d e", lineOf(arguments));

  arguments.cleanc();
  EXPECT_EQ(std::nullopt, vectorOf(arguments));  // freed, not out of date
  EXPECT_EQ(" z  d e", lineOf(arguments));
  arguments.pushArgument("f", true);
  EXPECT_EQ((Texts{"z", "", "d e", "f"}), vectorOf(arguments));
}
