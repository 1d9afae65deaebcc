#include "monitor.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <signal.h>
#include <sys/ioctl.h>
#ifdef __linux__
#include <sys/inotify.h>
#endif
#include <sys/resource.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <string>
#include <thread>
#include <vector>

#include "temphome.h"
#include "within.h"

namespace {

std::atomic<int> gCalls;

int noteCall() { return ++gCalls; }

class MonitorTest : public ::testing::Test {
 protected:
  MonitorTest() { gCalls = 0; }
  std::string Path() const { return m_dir.Path("status").string(); }

  // The other end, once the monitor has opened its own.
  int OpenPeer(int mode) const {
    int descriptor = -1;
    while (descriptor == -1) descriptor = ::open(Path().c_str(), mode | O_NONBLOCK);
    return descriptor;
  }

  TempDir m_dir;
};

std::string bytesOf(std::initializer_list<int> words) {
  return {reinterpret_cast<const char*>(std::data(words)), words.size() * sizeof(int)};
}

// Once the other end has read what came before.
void writeBytes(int descriptor, const std::string& bytes) {
  for (int left = 1; left > 0;) ASSERT_EQ(0, ::ioctl(descriptor, FIONREAD, &left));
  ASSERT_EQ(static_cast<ssize_t>(bytes.size()), ::write(descriptor, bytes.data(), bytes.size()));
}

int readWord(int descriptor) {
  pollfd waited{descriptor, POLLIN, 0};
  ::poll(&waited, 1, 20'000);
  int word = 0;
  return ::read(descriptor, &word, sizeof word) == sizeof word ? word : -1;
}

}  // namespace

TEST(PipeErrors, AreTwo) {
  for (const int code : {109, 99103}) EXPECT_TRUE(CleXDErrorCode::IsPipeError(code)) << code;
  for (const int code : {0, 99104, 99106}) EXPECT_FALSE(CleXDErrorCode::IsPipeError(code)) << code;
}

TEST_F(MonitorTest, ReadsUntilTheOtherEndStopsOrIsGone) {
  const struct {
    std::vector<std::string> writes;
    bool leaves;
    int calls;
  } cases[] = {
      {{bytesOf({3})}, false, 0},
      {{bytesOf({3, 1})}, false, 0},
      {{bytesOf({1}), bytesOf({7}), bytesOf({3})}, false, 0},
      {{bytesOf({1})}, true, 1},
      {{}, true, 1},
      {{bytesOf({7})}, true, 1},
      {{bytesOf({1, 3})}, true, 1},
      {{bytesOf({1}).substr(0, 2)}, true, 1},
  };
  for (const auto& c : cases) {
    gCalls = 0;
    MonitorThread monitor(Path().c_str(), 1);
    monitor.SetExceptionHandle(&noteCall);
    ASSERT_TRUE(monitor.Start(0));
    const int peer = OpenPeer(O_WRONLY);
    const Within limit(std::chrono::milliseconds(1500));
    for (const std::string& bytes : c.writes) writeBytes(peer, bytes);
    if (c.leaves) ::close(peer);
    EXPECT_TRUE(monitor.WaitForStop());
    EXPECT_EQ(c.calls, gCalls);
    if (!c.leaves) ::close(peer);
    monitor.Stop();
    EXPECT_EQ(c.calls, gCalls);
  }
}

TEST_F(MonitorTest, WritesThatItRunsAndThatItStops) {
  VexaPipe file(Path());
  ASSERT_EQ(0, file.CreatePipe());
  MonitorThread monitor(Path().c_str(), 0);
  monitor.SetExceptionHandle(&noteCall);
  const int peer = ::open(Path().c_str(), O_RDONLY | O_NONBLOCK);
  ASSERT_TRUE(monitor.Start(0));
  for (int i = 0; i < 2; ++i) EXPECT_EQ(1, readWord(peer));
  monitor.Stop();
  int word = -1;
  while ((word = readWord(peer)) == 1) {
  }
  EXPECT_EQ(3, word);
  ASSERT_TRUE(monitor.Start(0));
  EXPECT_EQ(1, readWord(peer));
  ::close(peer);
  EXPECT_TRUE(monitor.WaitForStop()) << "nobody reads any more";
  EXPECT_EQ(0, gCalls);
}

// Whatever the monitor waits for; one that did not stop would hang the test.
TEST_F(MonitorTest, StopsAtOnceInEveryState) {
  VexaPipe file(Path());
  ASSERT_EQ(0, file.CreatePipe());
  for (const int type : {0, 1}) {
    const auto begin = std::chrono::steady_clock::now();
    MonitorThread monitor(Path().c_str(), type);
    monitor.Stop();
    for (int round = 0; round < 50; ++round) {  // stopped before, while or after its thread begins
      ASSERT_TRUE(monitor.Start(0));
      for (int i = 0; i < round; ++i) std::this_thread::yield();
      monitor.Stop();
      EXPECT_FALSE(monitor.HasThread());
    }
    ASSERT_TRUE(monitor.Start(0));
    const int peer = OpenPeer(type == 0 ? O_RDONLY : O_WRONLY);  // which stays silent
    monitor.Stop();
    ::close(peer);
    EXPECT_LT(std::chrono::steady_clock::now() - begin, std::chrono::seconds(20));
    ASSERT_TRUE(monitor.Start(0));  // and is destroyed running
  }
  VexaPipe again(Path());
  ASSERT_EQ(0, again.CreatePipe());
  MonitorThread full(Path().c_str(), 0);
  const int peer = ::open(Path().c_str(), O_RDWR | O_NONBLOCK);
  ASSERT_NE(-1, peer);
  while (::write(peer, "full", 4) == 4) {
  }
  ASSERT_TRUE(full.Start(0));
  full.Stop();
  ::close(peer);
}

#ifndef VEXADX_SANITIZED  // sanitizers take descriptors of their own
TEST_F(MonitorTest, GoesOnWithoutWhatTheSystemRefuses) {
  const std::string path = Path();
  rlimit before{};
  ASSERT_EQ(0, ::getrlimit(RLIMIT_NOFILE, &before));
  const rlimit none{0, before.rlim_max};
  ASSERT_EQ(0, ::setrlimit(RLIMIT_NOFILE, &none));
  MonitorThread reader(path.c_str(), 1);  // cannot be woken up
  ASSERT_EQ(0, ::setrlimit(RLIMIT_NOFILE, &before));
  ASSERT_TRUE(reader.Start(0));
  ::close(OpenPeer(O_WRONLY));
  EXPECT_TRUE(reader.WaitForStop()) << "with nobody to tell";
  for (const int type : {0, 1}) {
    MonitorThread nowhere(m_dir.Path("missing/status").c_str(), type);
    ASSERT_TRUE(nowhere.Start(0));
    nowhere.Stop();
  }
}
#endif

#ifdef __linux__
TEST_F(MonitorTest, GoesOnWhenAnotherFileIsInThePlaceOfItsOwn) {
  const std::string file = m_dir.Write("file", "untouched");
  const int watch = ::inotify_init1(IN_CLOEXEC);
  ASSERT_NE(-1, ::inotify_add_watch(watch, file.c_str(), IN_OPEN));
  MonitorThread reader(file.c_str(), 1);
  reader.SetExceptionHandle(&noteCall);
  ASSERT_TRUE(reader.Start(0));
  char events[256];
  EXPECT_GT(::read(watch, events, sizeof events), 0) << "it has tried";
  reader.Stop();
  ::close(watch);
  EXPECT_EQ(0, gCalls);
  EXPECT_EQ("untouched", ReadFile(file));
}
#endif

TEST(MonitorDeathTest, HasOneOfTwoTypes) {
  EXPECT_DEATH(MonitorThread("pipe", 2), "Un_supported_monitorType.*MonitorThread.*src/monitor");
}
