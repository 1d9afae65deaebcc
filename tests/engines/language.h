#pragma once

#include <gtest/gtest.h>
#include <pthread.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <csignal>
#include <functional>
#include <future>
#include <iterator>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "dxglobals.h"
#include "inpstatisticsx.h"
#include "temphome.h"
#include "vexadx_plugin.h"
#include "within.h"

inline std::string gOutput;
inline std::function<void()> gOnOutput;
inline void (*gInterrupt)() = nullptr;
inline std::vector<std::string> gErrors;  // type, message, traceback and line of each that was noted

inline int takeOutput(const char* text, int length) {
  gOutput.append(text, static_cast<std::size_t>(length));
  if (gOnOutput) gOnOutput();
  return 0;
}

inline vexadx::HostCallback hostCallback() {
  vexadx::HostCallback table{};
  std::copy(std::begin(vexadx::kHostCallbackTag), std::end(vexadx::kHostCallbackTag), table.tag);
  table.size = sizeof table;
  table.setInterrupt = [](void (*interrupt)()) { gInterrupt = interrupt; };
  table.noteError = [](const char* type, const char* message, const char* traceback, int line) {
    for (const std::string& part : {std::string(type), std::string(message), std::string(traceback)}) {
      gErrors.push_back(part);
    }
    gErrors.push_back(std::to_string(line));
  };
  return table;
}

template <typename Function>
auto onAnotherThread(Function function) {
  return std::async(std::launch::async, function).get();
}

// Whether the text has the parts in this order; an empty one stands for an empty text.
inline bool holdsInOrder(const std::string& text, const std::vector<std::string>& parts) {
  std::size_t position = 0;
  for (const std::string& part : parts) {
    if (part.empty()) return text.empty();
    position = text.find(part, position);
    if (position == std::string::npos) return false;
    position += part.size();
  }
  return true;
}

// A language in this process, whose output comes here and which is interrupted as hosts do it.
class Language : public testing::Test {
 protected:
  explicit Language(const std::string& library) {
    SetVEXAHOME(m_home.Path().c_str());
    m_options.PutOption("LIB_NAME", library);
    m_engine.emplace(&m_options, true);
    m_engine->set_post_vexa_output(&takeOutput);
    m_engine->setup_dxcallback(&m_callback);
    struct sigaction action {};
    action.sa_handler = [](int) {
      if (gInterrupt) gInterrupt();
    };
    ::sigaction(SIGINT, &action, nullptr);
    gOutput.clear();
  }
  ~Language() override {
    m_engine.reset();
    gOnOutput = nullptr;
  }

  int Start() { return m_engine->init_embedded_x(0, nullptr); }
  int Run(std::string block) {
    gOutput.clear();
    return m_engine->execute_x(block.data());
  }

  // Interrupts from another thread, from the moment that the block has printed something until it has ended. More than
  // once, because a language may miss a signal that comes between its last look and a system call.
  int RunAndInterrupt(const std::string& block, void (*interrupt)(pthread_t runner)) {
    std::promise<void> ready;
    std::promise<void> ended;
    gOnOutput = [&] {
      gOnOutput = nullptr;
      ready.set_value();
    };
    const auto interrupting = std::async(std::launch::async, [&, runner = ::pthread_self()] {
      ready.get_future().wait();
      const auto done = ended.get_future();
      const Within limit(std::chrono::seconds(2));
      do {
        interrupt(runner);
      } while (done.wait_for(std::chrono::milliseconds(100)) == std::future_status::timeout);
    });
    const int code = Run(block);
    ended.set_value();
    return code;
  }

  // Interrupts until after the end of one block must leave the next one alone, however late they are carried.
  int CountBlocksHitTooLate(const std::string& shortBlock, const std::string& longerBlock) {
    int hit = 0;
    for (int i = 0; i < 50; ++i) {
      std::promise<void> ready;
      std::atomic<bool> ended = false;
      std::atomic<bool> stopped = false;
      const auto interrupting = std::async(std::launch::async, [&] {
        ready.set_value();
        while (!ended) gInterrupt();
        stopped = true;
      });
      ready.get_future().wait();
      (void)Run(shortBlock);
      ended = true;
      while (!stopped) {
      }
      hit += Run(longerBlock) != 0;
    }
    return hit;
  }

  TempHome m_home;
  XConfigOptions m_options{"LANGUAGEX"};  // a name that has no Java preferences
  vexadx::HostCallback m_callback = hostCallback();
  std::optional<InpStatisticsX> m_engine;
};
