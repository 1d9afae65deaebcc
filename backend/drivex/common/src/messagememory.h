#pragma once

#include <cstddef>
#include <memory>

// The memory of whole messages. A thread keeps one block of a middle size that it no longer needs for its next message:
// the allocator of a small process gives such blocks back to the system at once, and touching new pages takes several
// times as long as writing the message. Blocks come from malloc.
namespace messagememory {

// A block of at least so many bytes; null when there is no memory.
char* Allocate(std::size_t length);

// Null is nothing.
void Release(char* block) noexcept;

struct Releaser {
  void operator()(char* block) const noexcept { Release(block); }
};

using Block = std::unique_ptr<char, Releaser>;

}  // namespace messagememory
