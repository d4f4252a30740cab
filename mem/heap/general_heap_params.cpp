// The general heap's parameters and their set-up, dlmallopt, the memory-limit
// status, and the statistics queries (footprints, mallinfo, largest free chunk).
#include <cstdio>
#include <cstdlib>

#include "mem/heap/general_heap.h"
#include "mem/heap/internal/general_heap_check.h"
#include "mem/heap/internal/general_heap_state.h"
#include "mem/internal/fork_handlers.h"
#include "mem/heap/internal/thread_cache.h"
#include "platform/platform.h"

namespace zmx {
namespace mem_internal {
namespace heap {

Heap g_heap;
Params g_params;
int g_limitStatus = 0;

namespace {

CountingLock g_paramLock;

constexpr size_t kDefaultMmapThreshold = 262144;
constexpr size_t kDefaultTrimThreshold = 2097152;
constexpr size_t kDefaultFlags = kUseMmapFlag | kUseLockFlag | kNonContiguousFlag;
constexpr size_t kDefaultLockUse = 2;
constexpr size_t kMagic = 0x58585858;  // "XXXX", deliberately fixed

bool IsPowerOfTwo(size_t x) { return x != 0 && (x & (x - 1)) == 0; }

[[noreturn]] void AbortSetUp(const char* what) {
  std::fprintf(stderr, "ERROR: general heap: the system %s is not a power of two\n", what);
  std::fflush(stderr);
  std::abort();
}

// Fills the parameter record; returns the page size for SetUp to publish last.
size_t FillParameters() {
  const size_t page = platform::PageSize();
  const size_t granularity = platform::AllocationGranularity();
  if (!IsPowerOfTwo(page)) AbortSetUp("page size");
  if (!IsPowerOfTwo(granularity)) AbortSetUp("allocation granularity");
  g_params.granularity = granularity;
  g_params.mmapThreshold = kDefaultMmapThreshold;
  g_params.trimThreshold = kDefaultTrimThreshold;
  g_params.defaultFlags = kDefaultFlags;
  g_params.lockUse = kDefaultLockUse;
  g_params.memoryLimit = 0;
  g_params.magic = kMagic;
  g_heap.flags = g_params.defaultFlags;
  g_heap.magic = kMagic;
  return page;
}

}  // namespace

void SetUp() {
  g_paramLock.Acquire();
  const size_t firstPage = g_params.pageSize.load(std::memory_order_relaxed) == 0 ? FillParameters() : 0;
  g_heap.lockUse = g_params.lockUse;
  g_heap.memoryLimit = g_params.memoryLimit;
  // Published last: a thread that sees a page size sees the heap's copies too.
  if (firstPage != 0) g_params.pageSize.store(firstPage, std::memory_order_release);
  g_paramLock.Release();
}

int Heap::Trim(size_t pad) { return SysTrim(pad); }

size_t LargestFreeChunk(const Heap& h) {
  size_t largest = 0;
  for (const Segment* s = h.segments; s != nullptr; s = s->next) {
    const Chunk* end = SegmentFooter(s);
    for (const Chunk* q = reinterpret_cast<const Chunk*>(s->base); q != end && q != h.top; q = NextChunk(q)) {
      if (q->head == kFencepost || ChunkSize(q) == 0) break;
      if (!Cinuse(q) && ChunkSize(q) > largest) largest = ChunkSize(q);
    }
  }
  return largest;
}

}  // namespace heap

void LockGeneralHeapForFork() {
  heap::g_paramLock.Acquire();
  heap::g_heap.lock.Acquire();
}
void UnlockGeneralHeapAfterFork() {
  heap::g_heap.lock.Release();
  heap::g_paramLock.Release();
}
void ResetGeneralHeapInForkChild() {
  heap::g_heap.lock.ResetInForkChild();
  heap::g_paramLock.ResetInForkChild();
}

HeapParameterView GeneralHeapParameters() {
  using namespace heap;
  EnsureSetUp();
  return HeapParameterView{g_params.pageSize.load(), g_params.granularity, g_params.mmapThreshold,
                           g_params.trimThreshold,   g_params.defaultFlags, g_params.lockUse,
                           g_params.memoryLimit,     g_params.magic,        g_heap.lockUse,
                           g_heap.memoryLimit,       g_heap.flags};
}

}  // namespace mem_internal
}  // namespace zmx

using namespace zmx::mem_internal::heap;

std::size_t internal_dlfragmentationinfo(Heap& h) {
  EnsureSetUp();
  HeapLockGuard guard(h);
  if (h.top == nullptr) return 0;
  return LargestFreeChunk(h);
}

extern "C" {

int dlmallopt(int parameter, int value) {
  SetUp();
  // Widened with its sign: -1 stores the largest unsigned value.
  const size_t v = static_cast<size_t>(static_cast<long long>(value));
  switch (parameter) {
    case -1:
      g_params.trimThreshold = v;
      return 1;
    case -2:
      if (v < g_params.pageSize.load() || !IsPowerOfTwo(v)) return 0;
      g_params.granularity = v;
      return 1;
    case -3:
      g_params.mmapThreshold = v;
      return 1;
    case -4:
      g_params.lockUse = v;
      return 0;  // stored, yet reported as refused: callers rely on this
    case -5:
      g_params.memoryLimit = v;
      return 1;
    default:
      return 0;
  }
}

int dlmalloc_trim(std::size_t pad) {
  zmx::mem_internal::FlushThreadCachesBeforeQuery();
  EnsureSetUp();
  HeapLockGuard guard(g_heap);
  return g_heap.Trim(pad);
}

std::size_t dlmalloc_footprint() { return g_heap.footprint; }
std::size_t dlmalloc_max_footprint() { return g_heap.maxFootprint; }
std::size_t dlmalloc_memory_limit() { return g_params.memoryLimit; }
int error_memory_limit() { return g_limitStatus; }

std::size_t dlfragmentationinfo() {
  zmx::mem_internal::FlushThreadCachesBeforeQuery();
  return internal_dlfragmentationinfo(g_heap);
}

dl_mallinfo dlmallinfo() {
  zmx::mem_internal::FlushThreadCachesBeforeQuery();
  EnsureSetUp();
  HeapLockGuard guard(g_heap);
  dl_mallinfo info{};
  const Heap& h = g_heap;
  if (h.top == nullptr) return info;
  size_t freeCount = 1;  // the top chunk
  size_t freeBytes = h.topSize;
  size_t arena = 0;
  for (const Segment* s = h.segments; s != nullptr; s = s->next) {
    arena += s->size;
    const Chunk* end = SegmentFooter(s);
    for (const Chunk* q = reinterpret_cast<const Chunk*>(s->base); q != end && q != h.top; q = NextChunk(q)) {
      if (!Cinuse(q)) {
        freeBytes += ChunkSize(q);
        ++freeCount;
      }
    }
  }
  info.arena = arena;
  info.ordblks = freeCount;
  info.hblkhd = h.footprint - arena;
  info.usmblks = h.maxFootprint;
  info.uordblks = h.footprint - freeBytes;
  info.fordblks = freeBytes;
  info.keepcost = h.topSize;
  return info;
}

}  // extern "C"
