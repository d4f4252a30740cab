// Where the cache pools' own memory goes back, and the abort on a handle that
// names nothing. Memory goes back the way it came: what the pool's allocator
// gave (block, cluster and record memory) through that allocator's Free, so a
// pool over the general heap's allocator stays paired with it even in a process
// on the runtime heap; the tables' chunk arrays come from the allocator while
// the general heap serves requests, else from mem_Malloc, and return likewise.
#ifndef ZMXUTI_MEM_POOLS_INTERNAL_POOL_MEMORY_H
#define ZMXUTI_MEM_POOLS_INTERNAL_POOL_MEMORY_H

#include <cstddef>

#include "mem/allocation.h"
#include "mem/pools/cache_manager.h"
#include "mem/pools/internal/blocked_table.h"

namespace zmx {
namespace mem_internal {

inline void PoolRelease(mem_Allocator* a, const char* name, void* block) { a->Free(name, block); }

// The tables' chunk memory, labelled "mem_Block".
inline ChunkMemory PoolTableMemory(mem_Allocator* a) {
  return ChunkMemory{
      [](void* context, std::size_t bytes) -> void* {
        return mem_UseDL() ? static_cast<mem_Allocator*>(context)->Malloc("mem_Block", bytes) : mem_Malloc(bytes);
      },
      [](void* context, void* block) {
        if (mem_UseDL())
          PoolRelease(static_cast<mem_Allocator*>(context), "mem_Block", block);
        else
          mem_Free(block);
      },
      a};
}

// Prints "ERROR: mem_CachePool: invalid handle 0x%08x" (and why) on standard error and aborts.
[[noreturn]] void InvalidHandle(unsigned int id, const char* why);

}  // namespace mem_internal
}  // namespace zmx

#endif  // ZMXUTI_MEM_POOLS_INTERNAL_POOL_MEMORY_H
