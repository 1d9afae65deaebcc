#include "hoststateguard.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <clocale>
#include <filesystem>
#include <functional>
#include <future>
#include <optional>
#include <semaphore>

#include "temphome.h"

namespace {

using Handler = void (*)(int);

void handler(int) {}

Handler handlerOf(int signal) {
  struct sigaction current {};
  ::sigaction(signal, nullptr, &current);
  return current.sa_handler;
}

// Does one thing after the other, each when it is asked to.
class Worker {
 public:
  Worker() = default;
  ~Worker() { Do(nullptr); }
  Worker(const Worker&) = delete;
  Worker& operator=(const Worker&) = delete;

  void Do(const std::function<void()>& step) {
    m_step = &step;
    m_turn.release();
    m_done.acquire();
  }

 private:
  const std::function<void()>* m_step = nullptr;
  std::binary_semaphore m_turn{0};
  std::binary_semaphore m_done{0};
  std::future<void> m_thread = std::async(std::launch::async, [this] {
    for (bool more = true; more;) {
      m_turn.acquire();
      more = static_cast<bool>(*m_step);
      if (more) (*m_step)();
      m_done.release();
    }
  });
};

}  // namespace

// The second to begin must not take for the host's what the first one's code has changed, whichever ends first.
TEST(HostStateGuard, IsSharedByThreads) {
  const Handler before = handlerOf(SIGUSR1);
  Worker other;
  for (const bool otherEndsFirst : {true, false}) {
    std::optional<HostStateGuard> here;
    std::optional<HostStateGuard> there;
    here.emplace("the one");
    ::signal(SIGUSR1, &handler);
    other.Do([&] { there.emplace("the other"); });
    if (!otherEndsFirst) here.reset();
    other.Do([&] { there.reset(); });
    EXPECT_EQ(otherEndsFirst ? &handler : before, handlerOf(SIGUSR1));
    here.reset();
    EXPECT_EQ(before, handlerOf(SIGUSR1));
  }
}

// R's block, while the host starts another engine.
TEST(HostStateGuard, TakesNoLocaleOfAnUnguardedCallForTheHosts) {
  using enum ForeignCall::Kind;
  Worker other;
  const TempDir directory;
  const std::filesystem::path before = std::filesystem::current_path();
  for (const bool otherEndsFirst : {true, false}) {
    std::optional<HostStateGuard> here;
    std::optional<ForeignCall> there;
    if (otherEndsFirst) {
      other.Do([&] {
        there.emplace(kUnguarded);
        std::setlocale(LC_ALL, "C.UTF-8");
      });
    }
    here.emplace("a start");
    std::setlocale(LC_NUMERIC, "C.UTF-8");
    if (!otherEndsFirst) {
      other.Do([&] {
        there.emplace(kUnguarded);
        std::setlocale(LC_ALL, "C.UTF-8");
      });
    }
    other.Do([&] { (void)!::chdir(directory.Path().c_str()); });
    if (otherEndsFirst) other.Do([&] { there.reset(); });
    here.reset();
    if (!otherEndsFirst) {
      EXPECT_STREQ("C.UTF-8", std::setlocale(LC_ALL, nullptr));  // as its code expects
      other.Do([&] { there.reset(); });
    }
    EXPECT_STREQ("C", std::setlocale(LC_ALL, nullptr));
    EXPECT_EQ(directory.Path(), std::filesystem::current_path());
    std::filesystem::current_path(before);
  }
}
