#include "xpipemanager.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <string>
#include <vector>

#include "dxglobals.h"
#include "dxtracer.h"
#include "temphome.h"
#include "xmanager.h"

namespace {

namespace fs = std::filesystem;

class PipesTest : public ::testing::Test {
 protected:
  PipesTest() : m_manager(m_dir.Path().string() + "/", "4711") { SetXPipeManager(&m_manager); }
  ~PipesTest() override { SetXPipeManager(nullptr); }
  std::string Path(const std::string& name) const { return m_dir.Path(name).string(); }

  TempDir m_dir;
  XPipeManager m_manager;
};

}  // namespace

TEST_F(PipesTest, AreNamedByXLevelAndRole) {
  XPipeSuit* const suit = m_manager.getPipeSuit("R");
  EXPECT_EQ(suit, m_manager.getPipeSuit("R"));
  EXPECT_NE(suit, m_manager.getPipeSuit("r"));
  EXPECT_EQ("R", suit->XName());
  EXPECT_EQ(-1, suit->getIndex());
  EXPECT_EQ(Path("4711R"), suit->getPipeNamePrefix());
  std::vector<XPipes*> sets;
  for (const char* level : {"0", "1", "2", "3"}) {
    suit->increaseIndex();
    XPipes* const pipes = suit->getXPipes();
    const std::string prefix = Path("4711R") + level;
    EXPECT_EQ(prefix + "syntax", pipes->GetSyntaxPipe()->GetPipeName());
    EXPECT_EQ(prefix + "syntaxresult", pipes->GetSyntaxResultPipe()->GetPipeName());
    EXPECT_EQ(prefix + "xdapi", pipes->GetXDAPIPipe()->GetPipeName());
    EXPECT_EQ(prefix + "xdapiresult", pipes->GetXDAPIResultPipe()->GetPipeName());
    EXPECT_EQ(0, pipes->GetSyntaxResultPipe()->CreatePipe());
    sets.push_back(pipes);
  }
  for (int level = 3; level >= 0; --level) {
    EXPECT_EQ(sets[static_cast<std::size_t>(level)], suit->getXPipes());
    suit->decreaseIndex();
    EXPECT_EQ(level == 0, fs::exists(Path("4711R" + std::to_string(level) + "syntaxresult"))) << level;
  }
  suit->increaseIndex();
  EXPECT_EQ(sets[0], suit->getXPipes());
  m_manager.removePipeSuit("R");
  m_manager.removePipeSuit("R");
  EXPECT_TRUE(fs::is_empty(m_dir.Path()));
}

TEST_F(PipesTest, GoUpToLevel9999) {
  XPipeSuit* const suit = m_manager.getPipeSuit("X");
  for (int level = 0; level <= 9999; ++level) suit->increaseIndex();
  EXPECT_EQ(Path("4711X9999syntax"), suit->getXPipes()->GetSyntaxPipe()->GetPipeName());
  for (int level = 9999; level >= 0; --level) suit->decreaseIndex();
  EXPECT_EQ(-1, suit->getIndex());
}

TEST_F(PipesTest, AreTracedWhenTheyAreNamed) {
  DxTracer tracer;
  tracer.open(Path("trace"));
  SetDxTracer(&tracer);
  { const XPipes pipes("/p/4711R0"); }
  SetDxTracer(nullptr);
  EXPECT_EQ((std::vector<std::string>{"syntax:/p/4711R0syntax", "syntaxresult:/p/4711R0syntaxresult",
                                      "xdapi:/p/4711R0xdapi", "xdapiresult:/p/4711R0xdapiresult"}),
            TraceTexts(Path("trace")));
}

TEST_F(PipesTest, HaveOneDispatcherAndOneMonitorOfEachKind) {
  XPipeSuit* const suit = m_manager.getPipeSuit("R");
  DXCmdDispatcher* const dispatcher = suit->getCmdDispatcher(false);
  EXPECT_EQ(dispatcher, suit->getCmdDispatcher(true));
  EXPECT_TRUE(fs::exists(Path("4711R_c")));
  for (const bool p2c : {true, false}) {
    EXPECT_EQ(nullptr, suit->getMonitor(p2c));
    EXPECT_EQ(0, suit->stopMonitor(p2c));
    MonitorThread* const monitor = suit->startMonitor(p2c, nullptr);
    EXPECT_TRUE(monitor->HasThread());
    EXPECT_EQ(monitor, suit->startMonitor(p2c, nullptr));
    EXPECT_EQ(monitor, suit->getMonitor(p2c));
    EXPECT_EQ(p2c, fs::exists(Path("4711RP2C")) && !fs::exists(Path("4711RC2P")) && p2c);
    EXPECT_EQ(0, suit->stopMonitor(p2c));
    EXPECT_FALSE(monitor->HasThread());
  }
  m_manager.cleanup();
  EXPECT_TRUE(fs::is_empty(m_dir.Path()));
}

TEST(PipesDeathTest, AreNeverWithoutManagerOrLevel) {
  EXPECT_DEATH(XPipeSuit("R", nullptr), "m_manager.*XPipeSuit.*src/xpipemanager");
  XPipeManager manager("/p/", "1");
  XPipeSuit suit("R", &manager);
  EXPECT_DEATH(suit.getXPipes(), "m_pipe_index >= 0.*getXPipes.*include/xpipemanager");
  EXPECT_DEATH(suit.decreaseIndex(), "m_pipe_index >= 0.*decreaseIndex");
}

namespace {

std::vector<std::string> gEnded;

class NotedEngine : public StatisticsX {
 public:
  explicit NotedEngine(std::string name) : StatisticsX(true), m_name(std::move(name)) {}
  ~NotedEngine() override { gEnded.push_back(m_name); }

 private:
  int x_init_embedded_x(int, char**) override { return 0; }
  int x_execute_x(char*) override { return 0; }
  int x_stop_embedded_x() override { return 0; }
  int x_pre_action() override { return 0; }
  int x_post_action() override { return 0; }

  std::string m_name;
};

class NotedDriver : public DriveX {
 public:
  using DriveX::DriveX;
  ~NotedDriver() override { gEnded.push_back(XName() + std::to_string(getIndex())); }
};

}  // namespace

TEST_F(PipesTest, LevelsFollowTheRegistrysDrivers) {
  gEnded.clear();
  XConfigOptions options("R");
  XManager registry;
  EXPECT_EQ(nullptr, registry.getBackVexaDX());
  registry.destoryVexaDX(nullptr);
  auto* const engine = new NotedEngine("R");
  registry.addStatisticsX("R", new NotedEngine("R before"));
  registry.addStatisticsX("R", engine);
  registry.addStatisticsX("R", engine);
  EXPECT_EQ(std::vector<std::string>{"R before"}, gEnded);
  EXPECT_EQ(engine, registry.getStatisticsX("R"));
  EXPECT_EQ(nullptr, registry.getStatisticsX("r"));
  registry.addStatisticsX("A", new NotedEngine("A"));
  registry.addStatisticsX("B", new NotedEngine("B"));
  registry.destoryStatisticsX("B");
  registry.destoryStatisticsX("B");

  const auto add = [&](const char* name) {
    auto* const driver = new NotedDriver(name, engine, &options);
    registry.addVexaDX(driver);
    EXPECT_EQ(driver, registry.getBackVexaDX());
    return driver;
  };
  auto* const first = add("R");
  auto* const second = add("R");
  EXPECT_EQ(0, first->getIndex());
  EXPECT_EQ(1, second->getIndex());
  registry.destoryVexaDX(first);
  EXPECT_EQ(second, registry.getBackVexaDX()) << "only the innermost goes";
  registry.destoryVexaDX(second);
  EXPECT_EQ(1, add("R")->getIndex());
  EXPECT_EQ(0, add("r")->getIndex());
  registry.cleanup();
  EXPECT_EQ((std::vector<std::string>{"R before", "B", "R1", "A", "R", "r0", "R1", "R0"}), gEnded);
  EXPECT_EQ(nullptr, registry.getBackVexaDX());
  EXPECT_EQ(-1, m_manager.getPipeSuit("R")->getIndex());
}
