// Where the cache pools' own memory goes back: through the pool's allocator
// while the general heap serves requests, else through the front door, and the
// abort on a handle that names nothing.
#ifndef ZMXUTI_MEM_POOLS_INTERNAL_POOL_MEMORY_H
#define ZMXUTI_MEM_POOLS_INTERNAL_POOL_MEMORY_H

#include <cstddef>

#include "mem/allocation.h"
#include "mem/pools/cache_manager.h"
#include "mem/pools/internal/blocked_table.h"

namespace zmx {
namespace mem_internal {

inline void PoolRelease(mem_Allocator* a, const char* name, void* block) {
  if (mem_UseDL())
    a->Free(name, block);
  else
    mem_Free(block);
}

// The tables' chunk memory, labelled "mem_Block".
inline ChunkMemory PoolTableMemory(mem_Allocator* a) {
  return ChunkMemory{
      [](void* context, std::size_t bytes) -> void* {
        return mem_UseDL() ? static_cast<mem_Allocator*>(context)->Malloc("mem_Block", bytes) : mem_Malloc(bytes);
      },
      [](void* context, void* block) { PoolRelease(static_cast<mem_Allocator*>(context), "mem_Block", block); }, a};
}

// Prints "ERROR: mem_CachePool: invalid handle 0x%08x" (and why) on standard error and aborts.
[[noreturn]] void InvalidHandle(unsigned int id, const char* why);

}  // namespace mem_internal
}  // namespace zmx

#endif  // ZMXUTI_MEM_POOLS_INTERNAL_POOL_MEMORY_H
