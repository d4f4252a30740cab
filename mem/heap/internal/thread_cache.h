// The general heap's optional per-thread cache of free small chunks: its entry
// points (the cached filling of the allocation table), the flushes that the
// heap's queries, trim and fork run first, and a view for the tests.
#ifndef ZMXUTI_MEM_HEAP_INTERNAL_THREAD_CACHE_H
#define ZMXUTI_MEM_HEAP_INTERNAL_THREAD_CACHE_H

#include <atomic>
#include <cstddef>

#include "core/export.h"

namespace zmx {
namespace mem_internal {

// ---- limits (every thread's cache keeps within them) ----
// Chunks of 32 to 1024 bytes (requests up to 1016 bytes) are cached, one list
// per 16-byte size class.
constexpr std::size_t kCachedChunkMax = 1024;
constexpr unsigned kCacheClasses = kCachedChunkMax / 16 - 1;  // 32, 48, ... 1024
// No class holds more than this many bytes (and never more than 64 chunks)...
constexpr std::size_t kCacheClassBytes = 16384;
constexpr unsigned kCacheClassCountMax = 64;
// ...and no thread more than this; the process as a whole holds at most this
// much per live thread that used the cache.
constexpr std::size_t kCacheThreadBytes = 131072;

constexpr unsigned CacheClassCap(std::size_t chunkSize) {
  const std::size_t n = kCacheClassBytes / chunkSize;
  return n > kCacheClassCountMax ? kCacheClassCountMax : static_cast<unsigned>(n);
}

// Number of threads whose cache is registered; 0 while nobody uses the cached
// filling, so that the heap's queries skip the flush at the cost of one load.
extern std::atomic<unsigned> g_threadCaches;

// Returns every cached chunk of every thread to the heap. The caller holds
// neither the heap lock nor any cache's lock. Returns the bytes returned.
ZMXUTI_INTERNAL_API std::size_t FlushAllThreadCaches();

// The hook of the heap's queries, trim and limit: cached chunks count as free.
inline void FlushThreadCachesBeforeQuery() {
  if (g_threadCaches.load(std::memory_order_relaxed) != 0) FlushAllThreadCaches();
}

// ---- fork ----
// Prepare step: returns every cache's chunks to the heap and keeps the cache
// registry locked until ThreadCacheResumeInParent or ThreadCacheResetInChild.
// Call it first, before the heap lock (or any lock that the heap lock nests
// in) is taken: it takes the registry, then each cache and the heap lock in
// turn, and the order registry before heap lock is the one every path keeps.
ZMXUTI_INTERNAL_API void ThreadCacheFlushAllForFork();
// Parent step: unlocks the registry.
ZMXUTI_INTERNAL_API void ThreadCacheResumeInParent();
// Child step, after the heap lock has been reset: the other threads are gone.
// Their caches are unregistered; the chunks of those not caught in the middle
// of an operation go back to the heap, the others stay in use (at most one
// thread's bound each).
ZMXUTI_INTERNAL_API void ThreadCacheResetInChild();

// ---- the cached entry points (the cached filling of the allocation table) ----
ZMXUTI_INTERNAL_API void* ThreadCacheMalloc(std::size_t size);
ZMXUTI_INTERNAL_API void ThreadCacheFree(void* block) noexcept;
ZMXUTI_INTERNAL_API void* ThreadCacheCalloc(std::size_t count, std::size_t size);
ZMXUTI_INTERNAL_API void* ThreadCacheRealloc(void* block, std::size_t size);
ZMXUTI_INTERNAL_API void* ThreadCacheMemalign(std::size_t alignment, std::size_t size);

// ---- the heap's own requests, for callers that reach the heap directly ----
// As dlmalloc, dlrealloc and dlmemalign, with one more try after every cache
// went back when the memory limit refused the request.
ZMXUTI_INTERNAL_API void* HeapMallocReturningCaches(std::size_t size);
ZMXUTI_INTERNAL_API void* HeapReallocReturningCaches(void* block, std::size_t size);
ZMXUTI_INTERNAL_API void* HeapMemalignReturningCaches(std::size_t alignment, std::size_t size);

// ---- for the tests ----
struct ThreadCacheView {
  bool registered;          // the calling thread has a cache
  std::size_t bytes;        // chunk bytes it holds
  std::size_t chunks;       // chunks it holds
  bool withinClassCaps;     // every class within CacheClassCap
  unsigned liveCaches;      // caches registered in the process
  std::size_t processBytes;  // chunk bytes held by all of them
};
ZMXUTI_INTERNAL_API ThreadCacheView CurrentThreadCacheView();

}  // namespace mem_internal
}  // namespace zmx

#endif  // ZMXUTI_MEM_HEAP_INTERNAL_THREAD_CACHE_H
