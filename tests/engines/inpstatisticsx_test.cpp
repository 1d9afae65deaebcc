#include "inpstatisticsx.h"

#include <gtest/gtest.h>

#include <cstdlib>

#include "inprocess.h"

namespace {

using Texts = std::vector<std::string>;

std::string gOutput;
int takeOutput(const char* text, int length) {
  gOutput.append(text, static_cast<std::size_t>(length));
  return 0;
}

}  // namespace

TEST_F(InProcess, PassesCodesAndTextsThrough) {
  const auto engine = Engine("ctest");
  EXPECT_EQ(0, engine->loadXlib());
  char seven[] = "7";
  char* arguments[] = {seven, nullptr};
  EXPECT_EQ(7, engine->init_embedded_x(1, arguments));
  EXPECT_EQ(0, engine->init_embedded_x(0, nullptr));

  int callbacks = 0;
  engine->setup_dxcallback(&callbacks);
  EXPECT_EQ(1, callbacks);
  engine->set_post_vexa_output(&takeOutput);
  for (const int code : {0, 1, -1, 7, 2147483647, -2147483647 - 1}) {
    std::string block = std::to_string(code) + " is the code\n";
    gOutput.clear();
    EXPECT_EQ(code, engine->execute_x(block.data()));
    EXPECT_EQ(block, gOutput);
  }
  ::setenv("CTEST_PRE", "11", 1);
  ::setenv("CTEST_POST", "12", 1);
  ::setenv("CTEST_STOP", "13", 1);
  EXPECT_EQ(11, engine->pre_action());
  EXPECT_EQ(12, engine->post_action());
  EXPECT_EQ(0, engine->get_library_lock());
  EXPECT_EQ(0, engine->release_library_lock());
  EXPECT_EQ(13, engine->stop_embedded_x());
}

TEST_F(InProcess, PutsTheSectionsVariablesIntoTheEnvironment) {
  ::setenv("CTEST_TWO", "old", 1);
  m_options.PutOption("CTEST_ONE", "/opt/a");
  m_options.PutOption("CTEST_TWO", "${CTEST_ONE}/b");
  m_options.PutOption("CTEST_ONE ", "a name no lookup asks for");
  {
    const InpStatisticsX nameless(&m_options, true);
    EXPECT_STREQ("old", std::getenv("CTEST_TWO"));
  }
  (void)Engine("ctest");
  EXPECT_STREQ("/opt/a", std::getenv("CTEST_ONE"));
  EXPECT_STREQ("/opt/a/b", std::getenv("CTEST_TWO"));
}

TEST_F(InProcess, WithoutALibraryNameAnswers99118) {
  InpStatisticsX engine(&m_options, true);
  EXPECT_EQ(99118, engine.loadXlib());
  EXPECT_EQ(99118, engine.init_embedded_x(0, nullptr));
  EXPECT_FALSE(engine.isIntialized());
  const std::string line = "Configration file vexadxcfg.ini is invalid because the LIB_NAME is NULL.";
  EXPECT_EQ((Texts{line, line, "StatisticsX::init_embedded_x error code : 99118."}), Traced());
}

TEST_F(InProcess, WithoutAMandatoryEntryPointAnswers99114) {
  const struct {
    const char* missing;
    int init;  // resolution stops at the missing one: what was found before it is called
  } kRows[] = {
      {"init_embedded_x", 99114}, {"execute_x", 0}, {"stop_embedded_x", 0}, {"pre_action", 0}, {"post_action", 0}};
  for (const auto& row : kRows) {
    const auto engine = Engine(std::string("without_") + row.missing);
    EXPECT_NE(std::string::npos, Traced().back().find(row.missing)) << Traced().back();
    EXPECT_EQ(99114, engine->loadXlib()) << row.missing;
    EXPECT_EQ(row.init, engine->init_embedded_x(0, nullptr)) << row.missing;
  }
  // The last code stays what it was when there is nothing to call.
  const auto engine = Engine("without_pre_action");
  EXPECT_EQ(0, engine->init_embedded_x(0, nullptr));
  EXPECT_EQ(0, engine->pre_action());
  char block[] = "6";
  EXPECT_EQ(6, engine->execute_x(block));
  EXPECT_EQ(6, engine->pre_action());
}

TEST_F(InProcess, LetsNoExceptionOfThePluginOut) {
  const auto engine = Engine("ctest");
  char thrown[] = "666";
  char* arguments[] = {thrown, nullptr};
  EXPECT_EQ(1, engine->init_embedded_x(1, arguments));
  ASSERT_EQ(0, engine->init_embedded_x(0, nullptr));
  EXPECT_EQ(1, engine->execute_x(thrown));
  for (const char* variable : {"CTEST_PRE", "CTEST_POST", "CTEST_STOP"}) ::setenv(variable, "666", 1);
  EXPECT_EQ(1, engine->pre_action());
  EXPECT_EQ(1, engine->post_action());
  EXPECT_EQ(1, engine->stop_embedded_x());
  EXPECT_EQ("The plug-in's stop_embedded_x threw an exception.", *(Traced().end() - 2));
}

TEST_F(InProcess, OptionalEntryPointsMayBeMissing) {
  for (const std::string missing : {"setup_dxcallback", "set_post_vexa_output"}) {
    const auto engine = Engine("without_" + missing);
    EXPECT_EQ(0, engine->loadXlib()) << missing;
    EXPECT_EQ(0, engine->init_embedded_x(0, nullptr));
    int callbacks = 0;
    engine->setup_dxcallback(&callbacks);
    engine->set_post_vexa_output(&takeOutput);
  }
}

TEST_F(InProcess, StopsWithTheEngine) {
  ::setenv("CTEST_STOP", "13", 1);
  Engine("ctest")->init_embedded_x(0, nullptr);
  EXPECT_EQ("StatisticsX::stop_embedded_x error code : 13.", Traced().back());
}
