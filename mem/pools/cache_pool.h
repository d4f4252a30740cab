// Cache pools: memory handed out by 32-bit handle instead of by pointer, so the
// pool may place it where it likes. Requests up to 16384 bytes are carved out of
// 256 KiB clusters (fixed 4 KiB regions per size class up to 128 bytes, a
// best-fit variable region for the rest); larger ("passthru") requests get a
// block of their own. All of a pool's memory, its tables and record pages
// included, comes from its mem_Allocator, so any failure can make the cache
// manager purge. One thread at a time.
//
//   mem_DLAllocator allocator(&manager);
//   mem_CachePool* pool = mem_CachePool::CreatePool(&allocator);
//   mem_CachePoolIDTyp<double*> h = pool->Alloc(10 * sizeof(double));
//   h.Ptr(pool)[3] = 1.0;   // resolve only for the moment of use
//   pool->Free(h);
//   pool->Delete();
#ifndef ZMXUTI_MEM_POOLS_CACHE_POOL_H
#define ZMXUTI_MEM_POOLS_CACHE_POOL_H

#include <cstddef>
#include <cstdint>

#include "core/export.h"
#include "mem/pools/cache_manager.h"

// (the helper that builds the pools declares mem_Block, mem_FixedBlock and
// mem_Cluster here, and completes mem_CachePool's private state)

class ZMXUTI_API mem_CachePool {
 public:
  // The pool object comes from a->Malloc("mem_CachePool", ...); null on failure.
  static mem_CachePool* CreatePool(mem_Allocator* a);
  // Destroys the pool (every block and cluster released) and returns its memory.
  void Delete();

  mem_Allocator* Allocator() const { return allocator_; }

  mem_CachePoolIDTyp<void*> Alloc(std::uint64_t size);  // 0 bytes: the null handle
  // Size 0 returns the null handle and keeps the old allocation (deliberately).
  mem_CachePoolIDTyp<void*> ReAlloc(mem_CachePoolID id, std::uint64_t size);
  // Puts memory `p` of `size` bytes under a new block handle; the pool owns it from then on.
  mem_CachePoolIDTyp<void*> Adopt(std::uint64_t size, void* p);
  void Free(mem_CachePoolID id);  // the null handle does nothing
  void* Ptr(mem_CachePoolID id) const;  // no test for null

  void DebugPrint() const;
  void DebugSummary() const;

 private:
  explicit mem_CachePool(mem_Allocator* a);
  ~mem_CachePool();

  mem_Allocator* allocator_;
};

template <class T>
inline T mem_CachePoolIDTyp<T>::Ptr(const mem_CachePool* pool) const {
  return id_ == 0 ? nullptr : static_cast<T>(pool->Ptr(id_));
}

#endif  // ZMXUTI_MEM_POOLS_CACHE_POOL_H
