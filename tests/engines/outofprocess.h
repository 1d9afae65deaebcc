#pragma once

#include <gtest/gtest.h>
#include <signal.h>
#include <sys/types.h>

#include <chrono>
#include <filesystem>
#include <functional>
#include <list>
#include <memory>
#include <optional>
#include <string>
#include <thread>

#include "dxglobals.h"
#include "outpstatisticsx.h"
#include "processstate.h"
#include "temphome.h"
#include "vexadx_process.h"
#include "xpipemanager.h"

// Waits for something that nobody tells of, two seconds at most; answers whether it has become so.
inline bool BecomesTrue(const std::function<bool()>& isSo) {
  const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(2);
  while (!isSo()) {
    if (std::chrono::steady_clock::now() > end) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
  return true;
}

// An engine with the process and the pipes of its X, as a host drives it. REQUIRES: a pipe manager.
class OutpX {
 public:
  explicit OutpX(const std::string& xName) : options(xName) { GetXPipeManager()->getPipeSuit(xName)->increaseIndex(); }

  int Start() { return engine.init_embedded_x(0, nullptr); }
  int Begin() { return engine.pre_action(); }
  int Execute(std::string block) { return engine.execute_x(block.data()); }
  int End() { return engine.post_action(); }
  int Stop() { return engine.stop_embedded_x(); }

  // The first code that is not 0.
  int Run(const std::string& block) {
    int code = Begin();
    if (code == 0) code = Execute(block);
    return code == 0 ? End() : code;
  }

  pid_t Process() { return vexadx::ProcessOf(engine).id; }
  bool HasEnded() { return vexadx::ProcessOf(engine).hasEnded; }
  bool Dies() {
    return BecomesTrue([this] { return HasEnded(); });
  }

  XConfigOptions options;
  OutpStatisticsX engine{&options, 1, true};
};

// Engines out of process, in a home and with a directory for pipes of their own. What they must leave as it was is
// compared in the end.
class OutOfProcess : public testing::Test {
 protected:
  OutOfProcess() {
    ::signal(SIGPIPE, SIG_DFL);  // whatever the test was started with
    SetVEXAHOME(m_home.Path().c_str());
    m_manager.emplace(m_pipes.Path().string() + "/", "4711");
    SetXPipeManager(&*m_manager);
    m_state = ProcessState();
    std::thread([] {}).join();  // a sanitizer's own thread comes with the first
    m_threads = Threads();
  }
  ~OutOfProcess() override { SetXPipeManager(nullptr); }

  void TearDown() override {
    m_xs.clear();
    m_manager.reset();
    EXPECT_TRUE(BecomesTrue([] { return !HasChildren(); })) << "a process is left, or was not reaped";
    EXPECT_TRUE(BecomesTrue([this] { return Threads() <= m_threads; })) << "a thread is left";
    EXPECT_EQ(m_state, ProcessState());
    EXPECT_EQ("", Fifos());
  }

  OutpX& Add(const std::string& xName) { return m_xs.emplace_back(xName); }

  // The names of the pipes that are there.
  std::string Fifos() const {
    std::string names;
    for (const std::filesystem::directory_entry& entry :
         std::filesystem::recursive_directory_iterator(m_pipes.Path())) {
      if (entry.is_fifo()) names += entry.path().filename().string() + ' ';
    }
    return names;
  }

  TempHome m_home;
  TempDir m_pipes;
  std::optional<XPipeManager> m_manager;

 private:
  std::string m_state;
  int m_threads;
  std::list<OutpX> m_xs;
};
