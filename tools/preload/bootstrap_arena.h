// The bootstrap arena: where the preload library serves requests that come
// before the library is up (the dynamic loader, the C library's own set-up,
// other libraries' constructors) and those made while it is coming up. A
// thread-safe bump allocator over a static buffer that continues in anonymous
// mappings when the buffer is full. Blocks carry their size in a 16-byte
// header; they are never reused: a release is accepted and ignored.
#ifndef ZMXUTI_TOOLS_PRELOAD_BOOTSTRAP_ARENA_H
#define ZMXUTI_TOOLS_PRELOAD_BOOTSTRAP_ARENA_H

#include <cstddef>

namespace zmx_preload {

// `size` bytes aligned to `alignment` (a power of two; below 16 counts as 16),
// zero-filled; null when no mapping can be had.
void* ArenaAlloc(std::size_t size, std::size_t alignment);
// True when `block` lies in the arena (its buffer or one of its mappings).
bool ArenaContains(const void* block);
// The requested size of an arena block.
std::size_t ArenaBlockSize(const void* block);

}  // namespace zmx_preload

#endif  // ZMXUTI_TOOLS_PRELOAD_BOOTSTRAP_ARENA_H
