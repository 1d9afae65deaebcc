#include "messagememory.h"

#include <pthread.h>
#include <sys/mman.h>
#ifdef __APPLE__
#include <malloc/malloc.h>
#else
#include <malloc.h>
#endif

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <memory>
#include <new>
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
  Spares() = default;
  ~Spares() { std::free(block); }
  Spares(const Spares&) = delete;
  Spares& operator=(const Spares&) = delete;

  char* block = nullptr;
  std::array<std::string, 2> texts;
};

// Memory of the thread's that has no destructor: to have one called at a thread's end the C++ library takes memory, and
// ends the process when there is none.
struct ThreadsSpares {
  enum { kNone, kKept, kEnded } state;
  alignas(Spares) std::byte memory[sizeof(Spares)];
};

constinit thread_local ThreadsSpares threads{};

// Calls for the end of threads. Messages may outlive what ends with the thread.
class ThreadEnds {
 public:
  ThreadEnds() : m_made(::pthread_key_create(&m_key, &end) == 0) {}
  ~ThreadEnds() {
    if (std::exchange(m_made, false)) ::pthread_key_delete(m_key);
  }
  ThreadEnds(const ThreadEnds&) = delete;
  ThreadEnds& operator=(const ThreadEnds&) = delete;

  bool CallFor(Spares* kept) const { return m_made && ::pthread_setspecific(m_key, kept) == 0; }

 private:
  static void end(void* kept) {
    threads.state = ThreadsSpares::kEnded;
    std::destroy_at(static_cast<Spares*>(kept));
  }

  pthread_key_t m_key{};
  bool m_made;
};

// Null when the thread is at its end, or there is no memory.
Spares* spares() {
  static const ThreadEnds threadEnds;
  if (threads.state == ThreadsSpares::kEnded) return nullptr;
  if (threads.state == ThreadsSpares::kKept) return std::launder(reinterpret_cast<Spares*>(threads.memory));
  auto* const made = new (threads.memory) Spares;
  if (!threadEnds.CallFor(made)) {
    std::destroy_at(made);
    return nullptr;
  }
  threads.state = ThreadsSpares::kKept;
  return made;
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
