#include "dxtracer.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <map>
#include <regex>
#include <thread>

#include "dxglobals.h"
#include "temphome.h"

namespace {

const std::string kBanner = std::string(40, '*') + "TRACE BEGIN" + std::string(40, '*');

class Trace : public testing::Test {
 protected:
  ~Trace() override { SetDxTracer(nullptr); }

  TempDir m_dir;
  const std::string m_path = m_dir.Path("trace.log");
};

// Whether some descriptor of this process open on the file would be inherited by a program it starts.
bool isInherited(const std::string& path) {
  struct stat file {};
  if (::stat(path.c_str(), &file) != 0) return true;
  for (int descriptor = 0; descriptor < 256; ++descriptor) {
    struct stat status {};
    if (::fstat(descriptor, &status) == 0 && status.st_ino == file.st_ino && status.st_dev == file.st_dev) {
      if (!(::fcntl(descriptor, F_GETFD) & FD_CLOEXEC)) return true;
    }
  }
  return false;
}

}  // namespace

TEST_F(Trace, HoldsBannerAndOneLineACall) {
  m_dir.Write("trace.log", "an earlier trace\n");
  DxTracer tracer;
  tracer.open(m_path);
  SetDxTracer(&tracer);
  DxTrace("before any engine");
  tracer.setXName("PYTHON");
  DxTrace("text");
  DxTraceError("ClosePipe", 7);
  DxTraceError("", -2147483648);

  const std::vector<std::string> lines = Lines(ReadFile(m_path));
  const char* kWant[] = {"", ">>before any engine", "PYTHON>>text", "PYTHON>>ClosePipe error code : 7.",
                         "PYTHON>> error code : -2147483648."};
  ASSERT_EQ(std::size(kWant), lines.size());
  EXPECT_EQ(kBanner, lines[0]);
  for (std::size_t i = 1; i < lines.size(); ++i) {
    // The time stamp of the C locale, such as "11/16/26 22:24:13 ".
    const std::regex stamp(R"(\d\d/\d\d/\d\d \d\d:\d\d:\d\d )");
    ASSERT_TRUE(std::regex_search(lines[i].substr(0, 18), stamp)) << lines[i];
    EXPECT_EQ(kWant[i], lines[i].substr(18));
  }
  EXPECT_FALSE(isInherited(m_path));
}

TEST_F(Trace, OfASecondOpenLeavesTheFirstFileWhole) {
  DxTracer tracer;
  tracer.open(m_path);
  tracer.write("first");
  const std::string second = m_dir.Path("second.log");
  tracer.open(second);
  tracer.write("second");
  tracer.open("");  // changes nothing
  tracer.write("third");
  EXPECT_EQ(std::vector<std::string>{"first"}, TraceTexts(m_path));
  EXPECT_EQ((std::vector<std::string>{"second", "third"}), TraceTexts(second));
}

TEST_F(Trace, ThatCannotBeWrittenIsDropped) {
  const std::string fifo = m_dir.Path("fifo");
  ASSERT_EQ(0, ::mkfifo(fifo.c_str(), 0600));
  for (const std::string& path : {m_dir.Path("missing/trace.log").string(), m_dir.Path().string(), fifo,
                                  std::string("/dev/full"), std::string()}) {
    DxTracer tracer;
    SetDxTracer(&tracer);
    DxTrace("before open");
    tracer.open(path);
    DxTraceError("after open", 1);
    SetDxTracer(nullptr);
  }
  DxTrace("without a tracer");
  DxTraceError("without a tracer", 1);
}

TEST_F(Trace, LinesOfSeveralThreadsStayWhole) {
  constexpr int kThreads = 8;
  constexpr int kLinesEach = 500;
  DxTracer tracer;
  tracer.open(m_path);
  SetDxTracer(&tracer);
  std::vector<std::thread> threads;
  threads.reserve(kThreads);
  for (int t = 0; t < kThreads; ++t) {
    threads.emplace_back([t, &tracer] {
      for (int i = 0; i < kLinesEach; ++i) {
        DxTrace(std::string(200, static_cast<char>('a' + t)));
        if (i % 100 == 0) tracer.setXName("PYTHON");
      }
    });
  }
  for (std::thread& thread : threads) thread.join();

  std::map<std::string, int> counts;
  for (const std::string& text : TraceTexts(m_path)) ++counts[text];
  ASSERT_EQ(kThreads, static_cast<int>(counts.size()));
  for (int t = 0; t < kThreads; ++t) EXPECT_EQ(kLinesEach, counts[std::string(200, static_cast<char>('a' + t))]);
}
