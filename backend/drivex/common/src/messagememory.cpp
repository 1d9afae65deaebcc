#include "messagememory.h"

#ifdef __APPLE__
#include <malloc/malloc.h>
#else
#include <malloc.h>
#endif

#include <cstdlib>
#include <utility>

namespace messagememory {

namespace {

constexpr std::size_t kSmallestKept = std::size_t{16} << 10;
constexpr std::size_t kLargestKept = std::size_t{4} << 20;

std::size_t sizeOf(char* block) {
#ifdef __APPLE__
  return ::malloc_size(block);
#else
  return ::malloc_usable_size(block);
#endif
}

// Apart from what ends with the thread, which messages may outlive.
thread_local char* spare = nullptr;
thread_local bool ended = false;

struct EndOfThread {
  ~EndOfThread() {
    std::free(std::exchange(spare, nullptr));
    ended = true;
  }
};

bool isWorthKeeping(char* block) {
  const std::size_t size = sizeOf(block);
  return size >= kSmallestKept && size <= kLargestKept && (!spare || size > sizeOf(spare));
}

}  // namespace

char* Allocate(std::size_t length) {
  if (spare && length >= kSmallestKept && length <= sizeOf(spare)) return std::exchange(spare, nullptr);
  return static_cast<char*>(std::malloc(length));
}

void Release(char* block) noexcept {
  if (!block) return;
  thread_local const EndOfThread endOfThread;
  (void)endOfThread;
  if (!ended && isWorthKeeping(block)) std::swap(spare, block);
  std::free(block);
}

}  // namespace messagememory
