// A program of its own, in which allocations fail when told to.

#include <gtest/gtest.h>

#include <cstdlib>
#include <memory>
#include <new>
#include <string>

#include "message.h"

namespace {

int gAllocationsLeft = -1;  // then one fails; negative: none does

}  // namespace

void* operator new(std::size_t size) {
  if (gAllocationsLeft == 0) {
    gAllocationsLeft = -1;
    throw std::bad_alloc();
  }
  if (gAllocationsLeft > 0) --gAllocationsLeft;
  if (void* const block = std::malloc(size)) return block;
  throw std::bad_alloc();
}

void operator delete(void* block) noexcept { std::free(block); }
void operator delete(void* block, std::size_t) noexcept { std::free(block); }

TEST(MessageBlock, IsUnchangedWhenMemoryGivesOut) {
  CleXDSmb sent;
  sent.SetErrorCode(5);
  sent.SetLong(1);
  sent.SetDouble(2);
  for (int i = 0; i < 3; ++i) sent.SetString(std::string(40, 's'));
  sent.SetStruct(dataSet{std::string(40, 'n'), 1, 2, 3, 4, std::string(40, 't')});
  sent.SetLongArray(sent.GetLongData());
  sent.SetStringArray(sent.GetStringData());
  sent.SetBinaryString("b", 1);
  sent.SetwString(L"w");
  const std::string message = MessageOf(sent);

  CleXDSmb block;
  block.SetString("held");
  block.SetwString(L"held");
  const std::string before = MessageOf(block);
  int failed = 0;
  for (;; ++failed) {
    gAllocationsLeft = failed;
    EXPECT_EQ(0, block.ParseBuf(message.data()));
    const bool noneFailed = gAllocationsLeft >= 0;
    gAllocationsLeft = -1;
    if (noneFailed) break;
    ASSERT_EQ(before, MessageOf(block)) << failed;
  }
  EXPECT_GT(failed, 10);
  EXPECT_EQ(5, block.GetErrorCode());
}
