// Blocks and replies as no well-behaved process and no small program makes them.

#include <fcntl.h>
#include <unistd.h>

#include <chrono>
#include <climits>
#include <future>
#include <string>
#include <vector>

#include "exchange.h"
#include "faultyx.h"

namespace {

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;

}  // namespace

TEST_F(FaultyX, IsDrivenThroughSmallPipesByteByByte) {
  OutpX& x = AddFaulty("byte-by-byte");
  ASSERT_EQ(0, x.Start());
  ASSERT_EQ(0, x.Begin());
  const std::string text = TextOf(1'000'000);
  const Clock::time_point begin = Clock::now();
  // A thread keeps the memory of a message of a middle size.
  EXPECT_TRUE(std::async(std::launch::async, [&] { return text == TextInReplyTo(text, "FAULTY"); }).get());
  EXPECT_LT(Clock::now() - begin, 60s);
#ifdef F_GETPIPE_SZ
  XPipes* const pipes = m_manager->getPipeSuit("FAULTY")->getXPipes();
  for (VexaPipe* const pipe : {pipes->GetSyntaxPipe(), pipes->GetSyntaxResultPipe()}) {
    const int descriptor = ::open(pipe->GetPipeName().c_str(), O_RDONLY | O_NONBLOCK);
    EXPECT_EQ(4096, ::fcntl(descriptor, F_GETPIPE_SZ));
    ::close(descriptor);
  }
#endif
  EXPECT_EQ(0, x.End());
  EXPECT_EQ(0, x.Stop());
}

TEST_F(FaultyX, AnswersABlockWithItsOwnCodeAndNoMessageWithOneOfThePipes) {
  const struct {
    const char* fault;
    std::vector<int> codes;
  } kRows[] = {{"odd-codes", {7, -1, INT_MIN, INT_MAX, 0}}, {"wrong-length", {99104, 99104, 0}}};
  OutpX& x = AddFaulty("");
  for (const auto& [fault, codes] : kRows) {
    x.options.PutOption("STARTX_FAULT", fault);
    ASSERT_EQ(0, x.Start());
    for (const int code : codes) {
      ASSERT_EQ(0, x.Begin());
      const Clock::time_point begin = Clock::now();
      EXPECT_EQ(code, x.Execute("block")) << fault;
      EXPECT_LT(Clock::now() - begin, 1s);
      EXPECT_EQ(0, x.End());
    }
    EXPECT_EQ(0, x.Stop());
  }
}

TEST_F(FaultyX, GivesTheMemoryOfLargeBlocksBack) {
  OutpX& x = AddFaulty("large-block");
  ASSERT_EQ(0, x.Start());
  ASSERT_EQ(0, x.Begin());
  const std::string text = TextOf(std::size_t{64} << 20);
  const long before = ResidentBytes(::getpid());
  const Clock::time_point begin = Clock::now();
  EXPECT_TRUE(text == TextInReplyTo(text, "FAULTY"));
  EXPECT_LT(Clock::now() - begin, 5s);
  EXPECT_LE(ResidentBytes(::getpid()), before + 256L * 1024);
  EXPECT_EQ(0, x.End());
  EXPECT_EQ(0, x.Stop());
}
