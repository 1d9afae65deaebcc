#include "PlugInConfigReader.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <algorithm>
#include <vector>

#include "temphome.h"

namespace {

class Profile : public testing::Test {
 protected:
  struct Answer {
    ssize_t count;
    std::string text;  // the buffer up to the count
    bool operator==(const Answer&) const = default;
  };

  Answer Ask(const char* section, const char* key, std::size_t size = 8192) {
    std::vector<char> buffer(size + 1, '#');
    const ssize_t count =
        m_reader.GetPrivateProfileString(section, key, "default", buffer.data(), size, Path().c_str());
    EXPECT_EQ('#', buffer[size]) << "written past the buffer";
    for (std::size_t i = static_cast<std::size_t>(count); i < size; ++i) EXPECT_EQ('\0', buffer[i]) << i;
    return {count, std::string(buffer.data(), static_cast<std::size_t>(count))};
  }
  Answer Value(const std::string& text) { return {static_cast<ssize_t>(text.size()), text}; }
  Answer Names(std::initializer_list<std::string> names) {
    std::string list;
    for (const std::string& name : names) list.append(name).push_back('\0');
    return Value(list);
  }
  const Answer kNothing{0, ""};

  void Write(const std::string& text) { m_dir.Write("x.ini", text); }
  std::string Path() { return m_dir.Path("x.ini"); }

  TempDir m_dir;
  PlugInConfigReader m_reader;
};

}  // namespace

TEST_F(Profile, AnswersSectionsKeysAndValues) {
  Write("[SUPPORTED_LANG]\nX=R;PYTHON\n \t\n;comment\n\nTRACE=/tmp/dx.log\n[T]\nX=2\n[SUPPORTED_LANG]\nHOME=\n");
  EXPECT_EQ(Value("R;PYTHON"), Ask("SUPPORTED_LANG", "X"));
  EXPECT_EQ(Value("R;PYTHON"), Ask("supported_lang", "x"));
  EXPECT_EQ(Names({"SUPPORTED_LANG", "T", "SUPPORTED_LANG"}), Ask(nullptr, nullptr));
  EXPECT_EQ(Names({"SUPPORTED_LANG", "T", "SUPPORTED_LANG"}), Ask("", "X"));
  EXPECT_EQ(Names({"X", "TRACE"}), Ask("SUPPORTED_LANG", nullptr));
  EXPECT_EQ(kNothing, Ask("SUPPORTED_LANG", "HOME")) << "of the first section of a name";
  EXPECT_EQ(kNothing, Ask("R", "X"));
  EXPECT_EQ(kNothing, Ask("R", nullptr));
}

// Rows of a file's text and what the key "KEY" of the section "S" then answers.
TEST_F(Profile, KeepsItsRulesOnFilesPeopleHave) {
  const struct {
    const char* what;
    std::string text;
    std::string want;
  } kRows[] = {
      {"CR LF line ends", "[S]\r\nKEY=value\r\n", "value"},
      {"no newline at the end", "[S]\nKEY=value", "value"},
      {"a byte-order mark hides a head on the first line", "\xEF\xBB\xBF[S]\nKEY=1\n[s]\nKEY=2\n", "2"},
      {"a byte-order mark before an empty line does no harm", "\xEF\xBB\xBF\n[S]\nKEY=1\n", "1"},
      {"indented lines", " \t[S]\n \v\fKEY=value \t\n", "value"},
      {"the value keeps its leading blanks", "[S]\nKEY=  value\n", "  value"},
      {"a blank after the key is part of it", "[S]\nKEY = v\n", " v"},
      {"further equals signs belong to the value", "[S]\nKEY=a=b=c\n", "a=b=c"},
      {"a semicolon inside the value stays", "[S]\nKEY=a;b\n", "a;b"},
      {"comments are skipped", "[S]\n;KEY=1\n  ; KEY=2\nKEY=3\n", "3"},
      {"# has no meaning", "[S]\n#KEY=1\nKEY=2\n", "2"},
      {"a longer key that begins so is taken", "[S]\nKEYS=1\nKEY=2\n", "1"},
      {"the first match ends the search", "[S]\nKEY\nKEY=2\n", ""},
      {"an empty value ends it too", "[S]\nKEY=\nKEY=2\n", ""},
      {"a section whose name begins so is taken", "[SECOND]\nKEY=1\n[S]\nKEY=2\n", "1"},
      {"a head without its bracket", "[S\nKEY=1\n", "1"},
      {"text behind a head is ignored", "[S] trailing\nKEY=1\n", "1"},
      {"blanks in the brackets belong to the name", "[ S]\nKEY=1\n[S ]\nKEY=2\n", "2"},
      {"the section ends at the next head", "[S]\n[T]\nKEY=1\n", ""},
      {"keys outside every section are nobody's", "KEY=1\n[S]\n", ""},
      {"invalid UTF-8 passes through", "[S]\nKEY=\xFF\xC0\n", "\xFF\xC0"},
      {"a NUL ends its line", std::string("[S]\nKEY=a\0b\n", 12), "a"},
      {"only brackets", "[]\n[\n[S]\nKEY=1\n", "1"},
  };
  for (const auto& row : kRows) {
    Write(row.text);
    EXPECT_EQ(Value(row.want), Ask("S", "KEY")) << row.what;
  }
}

TEST_F(Profile, SplitsLongLines) {
  const std::string entry = "KEY=" + std::string(2043, 'a') + "B=" + std::string(951, 'b');
  Write("[S]\n" + entry + "\n");
  EXPECT_EQ(Value(std::string(2043, 'a')), Ask("S", "KEY"));
  EXPECT_EQ(Value(std::string(951, 'b')), Ask("S", "B"));
  EXPECT_EQ(Names({"KEY", "B"}), Ask("S", nullptr));
  for (const std::size_t length : {2046, 2047, 2048, 2049, 6000}) {
    Write("[S]\nKEY=" + std::string(length - 4, 'a') + "\n");
    EXPECT_EQ(Value(std::string(std::min<std::size_t>(length, 2047) - 4, 'a')), Ask("S", "KEY")) << length;
  }
}

TEST_F(Profile, MayBeLarge) {
  constexpr int kSections = 100'000;
  std::string text;
  for (int i = 0; i < kSections; ++i) text += "[A" + std::to_string(i) + "]\nKEY=v\n";
  Write(text + "[LAST]\nI=" + std::string(1000, 'i') + "\n");
  EXPECT_EQ(Value(std::string(1000, 'i')), Ask("last", "i"));
  EXPECT_EQ(kNothing, Ask("LAST", "KEY"));
  const std::string names = Ask(nullptr, nullptr, text.size()).text;
  EXPECT_EQ(kSections + 1, std::count(names.begin(), names.end(), '\0'));
}

TEST_F(Profile, NeverPlacesMoreThanFits) {
  Write("[ONE]\nKEY=value\nA=\nBB=\n[TWO]\n");
  const struct {
    const char* section;
    const char* key;
    std::size_t size;
    Answer want;
  } kCases[] = {{nullptr, nullptr, 9, Names({"ONE", "TWO"})},
                {nullptr, nullptr, 8, Names({"ONE"})},
                {nullptr, nullptr, 4, kNothing},
                {"ONE", nullptr, 6, Names({"KEY"})},
                {"ONE", nullptr, 7, Names({"KEY", "A"})},
                {"ONE", "KEY", 6, Value("value")},
                {"ONE", "KEY", 5, Value("valu")},
                {"ONE", "KEY", 2, Value("v")},
                {"ONE", "KEY", 1, kNothing}};
  for (const auto& c : kCases) EXPECT_EQ(c.want, Ask(c.section, c.key, c.size)) << c.size;
  for (const char* section : {"", "ONE"}) {
    for (const std::size_t size : {0, 1, 2}) EXPECT_EQ(kNothing, Ask(section, nullptr, size)) << size;
  }
  EXPECT_EQ(kNothing, Ask("ONE", "KEY", 0));
}

TEST_F(Profile, ThatIsNoFileAnswersNothing) {
  EXPECT_EQ(kNothing, Ask("S", "KEY"));
  ASSERT_EQ(0, ::mkfifo(Path().c_str(), 0600));  // opening it for reading would wait for a writer
  EXPECT_EQ(kNothing, Ask("S", "KEY"));
  std::filesystem::remove(Path());
  std::filesystem::create_directory(Path());
  EXPECT_EQ(kNothing, Ask("S", "KEY"));
  std::filesystem::remove(Path());
  std::filesystem::create_symlink("/dev/zero", Path());  // has no end
  EXPECT_EQ(kNothing, Ask("S", "KEY"));
}
