#include "vexadxconfigreader.h"

#include <gtest/gtest.h>

#include <thread>

#include "dxglobals.h"
#include "temphome.h"

namespace {

using Texts = std::vector<std::string>;

class Configuration : public testing::Test {
 protected:
  void Configure(const std::string& text) {
    m_home.Configure(text);
    SetVEXAHOME(m_home.Path().c_str());
  }
  VexaDXConfigReader& Reader() { return *VexaDXConfigReader::GetInstance(); }
  ~Configuration() override { delete VexaDXConfigReader::m_instance; }

  TempHome m_home;
};

}  // namespace

TEST_F(Configuration, IsFoundUnderTheHome) {
  const struct {
    const char* home;
    const char* want;
  } kCases[] = {{"/", "bin/vexadxcfg.ini"},
                {"/opt/app", "/opt/app/bin/vexadxcfg.ini"},
                {"/opt/app/", "/opt/app/bin/vexadxcfg.ini"}};
  for (const auto& c : kCases) {
    SetVEXAHOME(c.home);
    VexaDXConfigReader reader("R");
    EXPECT_EQ(c.want, reader.GetConfigFullPath());
    EXPECT_EQ("R", reader.GetXName());
  }
}

TEST_F(Configuration, AnswersTheGlobalQuestions) {
  Configure(
      "[SUPPORTED_LANG]\r\nX = R;PYTHON; \r\nTRACE =  /tmp/t.log\r\n"
      "[version]\r\nVexadxVersion=1.2.3\r\nVexadxVersionMajor=1\r\nVexadxVersionMinor=2\r\n"
      "VexadxVersionPatch=3\r\nVexadxFixPack=4");
  EXPECT_EQ((Texts{"R", "PYTHON"}), Reader().GetSupportLanguage());
  for (const char* name : {"R", "PYTHON", "JAVAEXTENSION"}) EXPECT_TRUE(Reader().IsSupportLanguage(name)) << name;
  for (const char* name : {"r", "PY", "", "R;PYTHON"}) EXPECT_FALSE(Reader().IsSupportLanguage(name)) << name;
  EXPECT_EQ("/tmp/t.log", Reader().GetTracePath());
  EXPECT_EQ("1.2.3", Reader().GetVersion());
  EXPECT_EQ("1", Reader().GetVersionMajor());
  EXPECT_EQ("2", Reader().GetVersionMinor());
  EXPECT_EQ("3", Reader().GetVersionPatch());
  EXPECT_EQ("4", Reader().GetVersionBugfix());

  const XConfigOptions copy = Reader().GetGlobalOptions();
  EXPECT_EQ("_GLOBAL_", copy.XName());
  EXPECT_EQ(Reader().GetNGlobalOptions(), Reader().GetOptions("_GLOBAL_"));
}

TEST_F(Configuration, GivesEachEngineItsSection) {
  Configure(
      "[RSERVE]\nLIB_NAME=wrong\n"
      "[CTEST]\nLIB_NAME=libR.dylib\nLIB_NAME =blank\n;HIDDEN=1\n=nameless\nMYVAR=1\nALONE\nARGS=  -q\n"
      "[PYTHON]\nLIB_NAME=other\n");
  XConfigOptions* options = VexaDXConfigReader::GetInstance("CTEST");
  EXPECT_EQ("libR.dylib", options->GetXLibName());
  EXPECT_EQ("  -q", options->GetXArgs());
  EXPECT_EQ((std::map<std::string, std::string>{{"ALONE", ""}, {"LIB_NAME ", "blank"}, {"MYVAR", "1"}}),
            options->GetXEnvVars());

  // A name finds the first section that begins with it.
  EXPECT_EQ("wrong", Reader().GetOptions("R")->GetOption("LIB_NAME"));

  Reader().SetXName("CTEST");
  EXPECT_EQ("1", Reader().GetOptions().GetXEnvVars()["MYVAR"]);
}

TEST_F(Configuration, IsReadOnce) {
  Configure("[CTEST]\nMYVAR=1\n");
  XConfigOptions* options = Reader().GetOptions("CTEST");
  EXPECT_TRUE(Reader().GetOptions("NOSUCH")->GetXEnvVars().empty());
  const auto expectRead = [&](const std::string& other) {
    EXPECT_EQ(options, Reader().GetOptions("CTEST"));
    EXPECT_EQ("1", options->GetXEnvVars()["MYVAR"]);
    EXPECT_TRUE(Reader().GetOptions(other)->GetXEnvVars().empty());
  };
  m_home.Configure("[CTE");
  expectRead("OTHER");
  m_home.Remove("bin/vexadxcfg.ini");
  expectRead("ANOTHER");
}

TEST_F(Configuration, ThatIsMissingIsEmpty) {
  SetVEXAHOME(m_home.Path("nowhere").c_str());
  EXPECT_TRUE(Reader().GetSupportLanguage().empty());
  EXPECT_FALSE(Reader().IsSupportLanguage("R"));
  EXPECT_TRUE(Reader().IsSupportLanguage("JAVAEXTENSION"));
  EXPECT_EQ("", Reader().GetTracePath());
  EXPECT_EQ("", Reader().GetVersion());
  EXPECT_TRUE(Reader().GetOptions("CTEST")->GetXEnvVars().empty());
  Texts keys{"kept"};
  Texts values{"kept"};
  Reader().RetrieveKeyValue(Reader().GetConfigFullPath().c_str(), "CTEST", keys, values);
  EXPECT_EQ(Texts{"kept"}, keys);
  EXPECT_EQ(Texts{"kept"}, values);
}

TEST_F(Configuration, SingleValuesAreTrimmedAndDefaulted) {
  Configure("[CTEST]\nmykey =  a b  \nEMPTY=\nLONG=" + std::string(3000, 'x'));
  EXPECT_EQ("a b", Reader().GetOption("ctest", "MYKEY", "default"));
  EXPECT_EQ("abc", Reader().GetOption("CTEST", "EMPTY", " abc "));
  EXPECT_EQ("abc", Reader().GetOption("CTEST", "MISSING", "abc"));
  EXPECT_EQ(std::string(2042, 'x'), Reader().GetOption("CTEST", "LONG", ""));
}

TEST_F(Configuration, MayBeReadFirstFromSeveralThreads) {
  Configure("[CTEST]\nMYVAR=1\n");
  std::vector<XConfigOptions*> sets(8);
  std::vector<std::thread> threads;
  threads.reserve(sets.size());
  for (XConfigOptions*& set : sets) {
    threads.emplace_back([&set] { set = VexaDXConfigReader::GetInstance("CTEST"); });
  }
  for (std::thread& thread : threads) thread.join();
  EXPECT_EQ(std::vector<XConfigOptions*>(8, sets[0]), sets);
  EXPECT_EQ("1", sets[0]->GetXEnvVars()["MYVAR"]);
}
