#include "messagememory.h"

#include <sys/mman.h>
#ifdef __APPLE__
#include <malloc/malloc.h>
#else
#include <malloc.h>
#endif

#include <algorithm>
#include <array>
#include <cstdint>
#include <cstdlib>
#include <utility>

namespace messagememory {

namespace {

// Where malloc puts large blocks, just behind the start of a page, the system copies to and from them far more slowly.
constexpr std::size_t kAlignment = 64;

bool isMiddling(std::size_t size) { return size >= kSmallestKept && size <= kLargestKept; }

std::size_t sizeOf(char* block) {
#ifdef __APPLE__
  return ::malloc_size(block);
#else
  return ::malloc_usable_size(block);
#endif
}

// A request and its reply have a text each.
struct Spares {
  ~Spares();

  char* block = nullptr;
  std::array<std::string, 2> texts;
};

// Apart from what ends with the thread, which messages may outlive.
thread_local bool ended = false;

Spares::~Spares() {
  std::free(block);
  ended = true;
}

// Null when the thread is at its end.
Spares* spares() {
  if (ended) return nullptr;
  thread_local Spares kept;
  return &kept;
}

void takeSpare(std::string& text, std::size_t length) {
  Spares* const kept = spares();
  if (!kept) return;
  for (std::string& spare : kept->texts) {
    if (spare.capacity() < length) continue;
    text.swap(spare);
    text.clear();
    return;
  }
}

}  // namespace

char* Allocate(std::size_t length) {
  if (length < kSmallestKept) return static_cast<char*>(std::malloc(length));
  if (Spares* const kept = spares(); kept && kept->block && length <= sizeOf(kept->block)) {
    return std::exchange(kept->block, nullptr);
  }
  auto* const block =
      static_cast<char*>(std::aligned_alloc(kAlignment, (length + kAlignment - 1) / kAlignment * kAlignment));
  if (block) ExpectFilling(block, length);
  return block;
}

void Release(char* block) noexcept {
  if (!block) return;
  if (isMiddling(sizeOf(block))) {
    Spares* const kept = spares();
    if (kept && (!kept->block || sizeOf(block) > sizeOf(kept->block))) std::swap(kept->block, block);
  }
  std::free(block);
}

void ExpectFilling(void* memory, std::size_t length) noexcept {
#ifdef MADV_HUGEPAGE
  if (length <= kLargestKept) return;
  constexpr std::size_t kPage = 4096;
  const std::size_t beforePage = kPage - reinterpret_cast<std::uintptr_t>(memory) % kPage;
  (void)::madvise(static_cast<char*>(memory) + beforePage, (length - beforePage) / kPage * kPage, MADV_HUGEPAGE);
#else
  (void)memory;
  (void)length;
#endif
}

std::string RoomForText(std::size_t length) {
  std::string text;
  if (length >= kSmallestKept) takeSpare(text, length);
  if (text.capacity() < length) {
    text.reserve(length);
    ExpectFilling(text.data(), length);
  }
  return text;
}

void Keep(std::string& text) noexcept {
  Spares* const kept = text.capacity() <= kLargestKept ? spares() : nullptr;
  if (!kept) return;
  const auto bySize = [](const std::string& a, const std::string& b) { return a.capacity() < b.capacity(); };
  std::string& smallest = *std::min_element(kept->texts.begin(), kept->texts.end(), bySize);
  if (text.capacity() > smallest.capacity()) text.swap(smallest);
}

}  // namespace messagememory
