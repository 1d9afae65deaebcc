#pragma once

#include <signal.h>

#include <chrono>
#include <filesystem>
#include <string>

#include "outofprocess.h"

// Engines whose X process misbehaves as its options say.
class FaultyX : public OutOfProcess {
 protected:
  FaultyX() { PutStartX(VEXADX_STARTX_FAULT); }

  // What an X process has left behind ends with the test.
  ~FaultyX() override {
    for (const std::filesystem::directory_entry& entry : std::filesystem::directory_iterator(m_pipes.Path())) {
      if (entry.path().extension() == ".group") ::kill(-std::stoi(ReadFile(entry.path())), SIGKILL);
    }
  }

  void PutStartX(const std::filesystem::path& program) {
    m_home.Remove("bin/startx");
    std::filesystem::create_symlink(program, m_home.Path("bin/startx"));
  }

  OutpX& AddFaulty(const std::string& fault, const std::string& xName = "FAULTY") {
    OutpX& x = Add(xName);
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
};
