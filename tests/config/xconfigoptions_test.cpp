#include "xconfigoptions.h"

#include <gtest/gtest.h>

#include <utility>
#include <vector>

#include "dxutils.h"

namespace {

using Entries = std::vector<std::pair<std::string, std::string>>;

XConfigOptions optionsOf(const Entries& entries) {
  XConfigOptions options("X");
  for (const auto& [key, value] : entries) options.PutOption(key, value);
  return options;
}

}  // namespace

// The environment value of the last entry.
TEST(Expansion, FollowsEarlierVariables) {
  const struct {
    Entries entries;
    const char* want;
  } kRows[] = {
      {{{"A", "/opt/a"}, {"B", "$A/bin"}}, "/opt/a/bin"},
      {{{"B", "$A/bin"}}, "$A/bin"},
      {{{"A", "/opt/a"}, {"C", "${A}x"}}, "/opt/ax"},
      {{{"A", "/opt/a"}, {"D", "$A"}}, "$A"},
      {{{"A", "/opt/a"}, {"E", "$A/$Z/y"}}, "/opt/a/$Z/y"},
      {{{"A", "/opt/a"}, {"E", "$Z/$A/y"}}, "$Z/$A/y"},
      {{{"F", "100$"}}, "100$"},
      {{{"A", "x"}, {"F", "100$ ${A}"}}, "100$ ${A}"},
      {{{"A", "x"}, {"F", "${A"}}, "${A"},
      {{{"A", "x"}, {"F", "$/${A}"}}, "$/${A}"},
      {{{"A", "x"}, {"F", "${}${A}"}}, "${}${A}"},
      {{{"A", "x"}, {"F", "${a}"}}, "${a}"},
      {{{"HOME", "/root"}, {"G", "$HOME/x"}}, "$HOME/x"},
      {{{"A", "x"}, {"A", "y"}, {"B", "${A}"}}, "y"},
      // A value that was stored with an open reference is searched again wherever it is put in.
      {{{"A", "$B"}, {"B", "/b"}, {"C", "$A/x"}}, "/b/x"},
      {{{"A", "<$B"}, {"B", "b>"}, {"C", "$A/x$A/y"}}, "<b>/x<b>/y"},
      // References that meet themselves in their own product.
      {{{"A", "$A/x"}, {"B", "$A/y"}}, "$A/x/y"},
      {{{"A", "$A"}, {"B", "$A/y"}}, "$A/y"},
      {{{"A", "a$B"}, {"B", "b$A"}, {"C", "$A/x"}}, "ab$A/x"},
      {{{"B/", "$A/}"}, {"A", "${B"}, {"C", "$A/}/z"}}, "$A/}/z"},
      {{{"B/", "y$"}, {"A", "${B"}, {"C", "$A/}A/z"}}, "y$A/z"},
      // The same reference twice, one behind the other, is not inside its own product.
      {{{"A", "a"}, {"C", "$A/$A/${A}${A}"}}, "a/a/aa"},
  };
  for (const auto& row : kRows) {
    XConfigOptions options = optionsOf(row.entries);
    const auto& [key, raw] = row.entries.back();
    std::string value;
    ASSERT_TRUE(options.FindUserEnv(key, value)) << raw;
    EXPECT_EQ(row.want, value) << raw;
    EXPECT_EQ(raw, options.GetOption(key));
  }
}

TEST(Expansion, EndsHoweverMuchIsAsked) {
  Entries manyReferences{{"A", "a"}, {"B", ""}};
  for (int i = 0; i < 10'000; ++i) manyReferences.back().second += "${A}";
  EXPECT_EQ(std::string(10'000, 'a'), optionsOf(manyReferences).GetXEnvVars()["B"]);

  // Each variable doubles the one after it: 2^40 replacements of nothing, and 2^40 characters.
  for (const char* leaf : {"", "x"}) {
    Entries doubling;
    for (int i = 0; i < 40; ++i) {
      const std::string next = "${V" + std::to_string(i + 1) + "}";
      doubling.emplace_back("V" + std::to_string(i), next + next);
    }
    doubling.emplace_back("V40", leaf);
    doubling.emplace_back("ALL", "${V0}");
    EXPECT_LE(optionsOf(doubling).GetXEnvVars()["ALL"].size(), 1024U * 1024U);
  }
}

TEST(Expansion, GivesTheHookTheLastWord) {
  SetExpandEnvStr([](const std::string& input, std::string& output) {
    output = "<" + input + ">";
    return true;
  });
  XConfigOptions options = optionsOf({{"A", "a"}, {"B", "${A}/$HOST"}});
  EXPECT_EQ("<<a>/$HOST>", options.GetXEnvVars()["B"]);
  std::string output;
  EXPECT_TRUE(options.ExpandEnvVars("${A}", output));
  SetExpandEnvStr(nullptr);
  EXPECT_FALSE(options.ExpandEnvVars("${A}", output));
  EXPECT_EQ("<a>", output);
}

TEST(Options, SeparateDefinedKeysFromVariables) {
  const char* kDefined[] = {"LIB_NAME",
                            "HOME",
                            "ARGS",
                            "X",
                            "VexadxVersion",
                            "VexadxVersionMajor",
                            "VexadxVersionMinor",
                            "VexadxVersionPatch",
                            "VexadxFixPack",
                            "TRACE",
                            "INNER_PROCESS",
                            "NESTABLE",
                            "WORK_ON_32",
                            "LIB_PATH",
                            "PKG_PATH"};
  XConfigOptions options("X");
  for (const char* key : kDefined) {
    EXPECT_TRUE(XConfigOptions::IsDefinedKey(key)) << key;
    options.PutOption(key, "$" + std::string(key));
    EXPECT_EQ("$" + std::string(key), options.GetOption(key));
  }
  EXPECT_TRUE(options.GetXEnvVars().empty());
  for (const char* key : {"home", "HOME ", "", "LIB"}) EXPECT_FALSE(XConfigOptions::IsDefinedKey(key)) << key;

  options.PutOption("MYVAR", "1");
  const XConfigOptions copy(options);
  options.PutOption("MYVAR", "2");
  std::string value = "unchanged";
  EXPECT_FALSE(options.FindUserEnv("HOME", value));
  EXPECT_EQ("unchanged", value);
  EXPECT_TRUE(XConfigOptions(copy).FindUserEnv("MYVAR", value));
  EXPECT_EQ("1", value);
  EXPECT_EQ("X", copy.XName());
}

TEST(Options, BooleansAreTrueForTheExactTextOnly) {
  const struct {
    const char* xName;
    const char* value;
    bool isTrue;
    bool isNestable;
  } kCases[] = {{"X", "true", true, true},      {"X", "True", false, false},      {"X", "", false, false},
                {"X", "1", false, false},       {"PYTHON", "false", false, true}, {"PYTHON3", "false", false, false},
                {"PYTHON3", "true", true, true}};
  for (const auto& c : kCases) {
    XConfigOptions options(c.xName);
    for (const char* key : {"INNER_PROCESS", "NESTABLE", "WORK_ON_32"}) options.PutOption(key, c.value);
    EXPECT_EQ(c.isTrue, options.IsInnerProcess()) << c.xName << c.value;
    EXPECT_EQ(c.isNestable, options.IsNestable()) << c.xName << c.value;
    EXPECT_EQ(c.isTrue, options.WorkOn32()) << c.xName << c.value;
  }
}
