#pragma once

#include <signal.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <filesystem>
#include <future>
#include <string>
#include <thread>

#include "outofprocess.h"
#include "processstate.h"

// Engines whose X process misbehaves as its options say, and a neighbour: an engine that runs blocks all the time, and
// whose runs none of that may touch.
class FaultyX : public OutOfProcess {
 protected:
  FaultyX() { PutStartX(VEXADX_STARTX_FAULT); }

  // What an X process has left behind ends with the test.
  ~FaultyX() override {
    for (const std::filesystem::directory_entry& entry : std::filesystem::directory_iterator(m_pipes.Path())) {
      if (entry.path().extension() == ".group") ::kill(-std::stoi(ReadFile(entry.path())), SIGKILL);
    }
  }

  void SetUp() override {
    OutpX& neighbour = Add("NEIGHBOUR");
    ASSERT_EQ(0, neighbour.Start());
    ASSERT_EQ(0, neighbour.Run("first"));
    neighbourProcess = neighbour.Process();
    m_bytes = OwnBytes();
    m_neighbour = std::async(std::launch::async, [this, &neighbour] {
      int code = 0;
      while (code == 0 && !m_isOver) {
        code = neighbour.Run("neighbour's");
        m_isAtWork = true;
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
      }
      const int stopped = neighbour.Stop();
      return code == 0 ? stopped : code;
    });
    ASSERT_TRUE(BecomesTrue([this] { return m_isAtWork.load(); }));
  }

  void TearDown() override {
    if (!m_neighbour.valid()) return OutOfProcess::TearDown();
    m_isOver = true;
    EXPECT_EQ(0, m_neighbour.get()) << "the neighbour was touched";
    OutOfProcess::TearDown();
    EXPECT_LE(OwnBytes(), m_bytes + kBytesOfARow * m_rows);
  }

  // Besides the neighbour.
  static bool HasChildren() { return HasChildrenBeside(neighbourProcess); }

  void PutStartX(const std::filesystem::path& program) {
    m_home.Remove("bin/startx");
    std::filesystem::create_symlink(program, m_home.Path("bin/startx"));
  }

  OutpX& AddFaulty(const std::string& fault, const std::string& xName = "FAULTY") {
    OutpX& x = Add(xName);
    ++m_rows;
    x.options.PutOption("STARTX_FAULT", fault);
    return x;
  }

  // When the X process FAULTY died.
  std::chrono::steady_clock::time_point Death() const {
    using Clock = std::chrono::steady_clock;
    return Clock::time_point(Clock::duration(std::stoll(ReadFile(m_pipes.Path("FAULTY.died")))));
  }

  static void ExpectHealthyAgain(OutpX& x) {
    x.options.PutOption("STARTX_FAULT", "");
    EXPECT_EQ(0, x.Start());
    EXPECT_EQ(0, x.Run("healthy"));
    EXPECT_EQ(0, x.Stop());
  }

 private:
  static constexpr long kBytesOfARow = 256L * 1024;

  static inline pid_t neighbourProcess = -1;

  std::atomic<bool> m_isAtWork{false};
  std::atomic<bool> m_isOver{false};
  std::future<int> m_neighbour;
  long m_bytes = 0;
  long m_rows = 0;
};
