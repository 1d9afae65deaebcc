#include "statisticsx.h"

#include <gtest/gtest.h>

#include "dxglobals.h"
#include "dxtracer.h"
#include "temphome.h"

namespace {

using Texts = std::vector<std::string>;

// Notes what it is asked for and answers the code it was given for it.
class NotingEngine : public StatisticsX {
 public:
  using StatisticsX::StatisticsX;

  Texts m_calls;
  int m_code = 0;
  bool m_wasInitialized = false;  // inside the last call
  bool m_wasRunning = false;

 private:
  int Note(const char* call) {
    m_calls.emplace_back(call);
    m_wasInitialized = isIntialized();
    m_wasRunning = isRunning();
    return m_code;
  }
  int x_init_embedded_x(int, char**) override { return Note("init"); }
  int x_execute_x(char* syntax) override { return Note(syntax); }
  int x_stop_embedded_x() override { return Note("stop"); }
  int x_pre_action() override { return Note("pre"); }
  int x_post_action() override { return Note("post"); }
  void x_setup_dxcallback(void*) override { Note("callback"); }
  void x_set_post_vexa_output(int (*)(const char*, int)) override { Note("output"); }
  int x_get_library_lock() override { return Note("lock"); }
  int x_release_library_lock() override { return Note("unlock"); }
};

class Engine : public testing::Test {
 protected:
  Engine() {
    m_tracer.open(m_dir.Path("trace.log"));
    SetDxTracer(&m_tracer);
  }
  ~Engine() override { SetDxTracer(nullptr); }

  // What has been traced since the last call.
  Texts Traced() {
    const Texts all = TraceTexts(m_dir.Path("trace.log"));
    Texts fresh(all.begin() + static_cast<std::ptrdiff_t>(m_seen), all.end());
    m_seen = all.size();
    return fresh;
  }

  char m_block[6] = "block";
  TempDir m_dir;
  DxTracer m_tracer;
  std::size_t m_seen = 0;
};

}  // namespace

TEST_F(Engine, RunsThroughItsLife) {
  NotingEngine engine(true);
  EXPECT_EQ(99115, engine.pre_action());
  EXPECT_EQ(99115, engine.execute_x(m_block));
  EXPECT_EQ(99115, engine.post_action());
  EXPECT_EQ(0, engine.stop_embedded_x());
  EXPECT_EQ(Texts{}, engine.m_calls);
  EXPECT_EQ((Texts{"StatisticsX::pre_action error code : 99115.", "StatisticsX::execute_x error code : 99115.",
                   "StatisticsX::post_action error code : 99115.", "StatisticsX::stop_embedded_x error code : 0."}),
            Traced());

  engine.m_code = 5;
  EXPECT_EQ(5, engine.init_embedded_x(0, nullptr));
  EXPECT_FALSE(engine.isIntialized());
  engine.m_code = 0;
  EXPECT_EQ(0, engine.init_embedded_x(0, nullptr));
  EXPECT_TRUE(engine.isIntialized());
  EXPECT_EQ(0, engine.init_embedded_x(0, nullptr));  // at once: neither called nor traced
  EXPECT_EQ((Texts{"init", "init"}), engine.m_calls);
  EXPECT_EQ((Texts{"StatisticsX::init_embedded_x error code : 5.", "StatisticsX::init_embedded_x error code : 0."}),
            Traced());

  engine.m_calls.clear();
  engine.m_code = -7;
  EXPECT_EQ(-7, engine.pre_action());
  EXPECT_FALSE(engine.m_wasRunning);
  EXPECT_EQ(-7, engine.execute_x(m_block));
  EXPECT_TRUE(engine.m_wasRunning);
  EXPECT_FALSE(engine.isRunning());
  EXPECT_EQ(-7, engine.post_action());
  EXPECT_EQ(-7, engine.stop_embedded_x());
  EXPECT_FALSE(engine.isIntialized());
  EXPECT_EQ(99115, engine.execute_x(m_block));
  EXPECT_EQ((Texts{"pre", "block", "post", "stop"}), engine.m_calls);
  EXPECT_EQ((Texts{"StatisticsX::pre_action error code : -7.", "StatisticsX::execute_x error code : -7.",
                   "StatisticsX::post_action error code : -7.", "StatisticsX::stop_embedded_x error code : -7.",
                   "StatisticsX::execute_x error code : 99115."}),
            Traced());
}

TEST_F(Engine, MarkedAsRStartsAnewAndCountsAsInitializedMeanwhile) {
  NotingEngine engine(true);
  engine.setR(true);
  EXPECT_TRUE(engine.isR());
  EXPECT_EQ(0, engine.init_embedded_x(0, nullptr));
  EXPECT_TRUE(engine.m_wasInitialized);
  engine.m_code = 3;
  EXPECT_EQ(3, engine.init_embedded_x(0, nullptr));
  EXPECT_TRUE(engine.m_wasInitialized);
  EXPECT_FALSE(engine.isIntialized());
  EXPECT_EQ((Texts{"init", "init"}), engine.m_calls);
  EXPECT_EQ((Texts{"StatisticsX::init_embedded_R", "StatisticsX::init_embedded_x error code : 0.",
                   "StatisticsX::init_embedded_R", "StatisticsX::init_embedded_x error code : 3."}),
            Traced());
}

TEST_F(Engine, DrivenBySomebodyElseOnlyKeepsItsState) {
  NotingEngine engine(false);
  engine.m_code = 9;
  EXPECT_FALSE(engine.isVexaDrive());
  EXPECT_EQ(0, engine.init_embedded_x(0, nullptr));
  EXPECT_TRUE(engine.isIntialized());
  EXPECT_EQ(9, engine.execute_x(m_block));
  EXPECT_EQ(0, engine.stop_embedded_x());
  EXPECT_FALSE(engine.isIntialized());
  EXPECT_EQ(Texts{"block"}, engine.m_calls);
}

TEST_F(Engine, PassesHooksAndLocksInAnyState) {
  NotingEngine engine(true);
  engine.m_code = 4;
  engine.setup_dxcallback(nullptr);
  engine.set_post_vexa_output(nullptr);
  EXPECT_EQ((Texts{"StatisticsX::setup_dxcallback", "StatisticsX::x_set_post_vexa_output"}), Traced());
  EXPECT_EQ(4, engine.get_library_lock());
  EXPECT_EQ(4, engine.release_library_lock());
  EXPECT_EQ(Texts{}, Traced());
  EXPECT_EQ((Texts{"callback", "output", "lock", "unlock"}), engine.m_calls);

  engine.setLock(true);
  EXPECT_TRUE(engine.hasLock());
  engine.setIntialized(true);
  EXPECT_EQ(4, engine.execute_x(m_block));
}
