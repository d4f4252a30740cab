// The general heap's process-wide state: parameters, the heap record with its
// bins, segments and top chunk, the memory-limit status and the heap lock.
#ifndef ZMXUTI_MEM_HEAP_INTERNAL_GENERAL_HEAP_STATE_H
#define ZMXUTI_MEM_HEAP_INTERNAL_GENERAL_HEAP_STATE_H

#include <atomic>
#include <cstddef>
#include <cstdint>

#include "core/export.h"
#include "mem/heap/internal/counting_lock.h"
#include "mem/heap/internal/general_heap_check.h"
#include "mem/heap/internal/general_heap_chunks.h"

namespace zmx {
namespace mem_internal {
namespace heap {

// Heap flags (the default is all three).
constexpr size_t kUseMmapFlag = 1;
constexpr size_t kUseLockFlag = 2;
constexpr size_t kNonContiguousFlag = 4;

// The parameter record, filled by the first set-up.
struct Params {
  std::atomic<size_t> pageSize{0};  // 0 until the first set-up has run
  size_t granularity = 0;
  size_t mmapThreshold = 0;
  size_t trimThreshold = 0;
  size_t defaultFlags = 0;
  size_t lockUse = 0;
  size_t memoryLimit = 0;
  size_t magic = 0;
};

// A run of address space obtained from the system. Its record lives at the
// end of the run, inside an in-use footer chunk followed by a fence word:
//   [ chunks ... | top ][ footer chunk: head, Segment ][ prev_foot, fence ]
struct Segment {
  char* base;
  size_t size;
  Segment* next;
  size_t flags;
};
constexpr size_t kFooterChunk = 2 * kWord + sizeof(Segment);  // 48
constexpr size_t kTopFoot = kFooterChunk + 2 * kWord;           // 64
static_assert(kFooterChunk % kAlign == 0, "footer chunk must keep the alignment");

inline char* SegmentEnd(const Segment* s) { return s->base + s->size; }
inline Chunk* SegmentFooter(const Segment* s) { return ChunkBefore(SegmentEnd(s), kTopFoot); }
inline bool SegmentHolds(const Segment* s, const void* a) {
  return static_cast<const char*>(a) >= s->base && static_cast<const char*>(a) < SegmentEnd(s);
}

class Heap {
 public:
  // ---- operations (the caller holds the lock when locking is on) ----
  void* Malloc(size_t bytes);
  void Free(void* mem);
  void* Realloc(void* mem, size_t bytes);
  void* Memalign(size_t alignment, size_t bytes);
  void* Calloc(size_t count, size_t size);
  int Trim(size_t pad);

  // ---- state (read by the statistics, the walk and the tests' probes) ----
  std::uint32_t smallMap = 0;
  std::uint32_t treeMap = 0;
  size_t dvSize = 0;
  size_t topSize = 0;
  char* leastAddr = nullptr;
  size_t addrSpan = 0;  // from leastAddr to the end of the highest run obtained
  Chunk* dv = nullptr;
  Chunk* top = nullptr;  // null until the first segment exists
  size_t trimLatch = 0;  // no trimming attempt while top is not above this
  size_t magic = 0;
  size_t footprint = 0;
  size_t maxFootprint = 0;
  size_t mappedBytes = 0;  // footprint held by direct mappings
  size_t flags = 0;
  size_t lockUse = 0;      // working copy of the lock-use switch
  size_t memoryLimit = 0;  // working copy of the memory limit
  Segment* segments = nullptr;
  Chunk smallBins[kSmallBins] = {};  // list heads; only fd and bk are used
  TreeChunk* treeBins[kTreeBins] = {};
  // On a cache line of its own: threads queueing on the lock must not steal
  // the lines that the holder works on.
  alignas(64) CountingLock lock;
  alignas(64) unsigned long debugTick = 0;

  // ---- bins (general_heap_bins.cpp and inline) ----
  void InsertSmall(Chunk* p, size_t s);
  void UnlinkSmall(Chunk* p, size_t s);
  void InsertLarge(TreeChunk* x, size_t s);
  void UnlinkLarge(TreeChunk* x);
  void InsertChunk(Chunk* p, size_t s) {
    if (IsSmall(s))
      InsertSmall(p, s);
    else
      InsertLarge(AsTree(p), s);
  }
  void UnlinkChunk(Chunk* p, size_t s) {
    if (IsSmall(s))
      UnlinkSmall(p, s);
    else
      UnlinkLarge(AsTree(p));
  }
  void ReplaceDv(Chunk* r, size_t s);
  // Unlinks tree chunk v and marks its first nb bytes in use; returns the free
  // remainder of rsize bytes for the caller to place, or nullptr when all of v
  // went to the request.
  Chunk* CarveTreeChunk(TreeChunk* v, size_t nb, size_t rsize);  // general_heap_bins.cpp only
  void* TreeMallocSmall(size_t nb);
  void* TreeMallocLarge(size_t nb);

  // ---- chunks ----
  // Within the address range of every run obtained so far (nothing before the first).
  bool OkAddress(const void* p) const {
    return reinterpret_cast<std::uintptr_t>(p) - reinterpret_cast<std::uintptr_t>(leastAddr) < addrSpan;
  }
  // A direct mapping's chunk: its mapping starts on a page within the heap's
  // range and its fence word is in place (checked before anything is unmapped).
  bool MappingIntact(const Chunk* p) const;
  // Frees an in-use chunk of a segment, coalescing with its neighbours.
  void ReleaseChunk(Chunk* p, size_t psize, bool mayTrim);
  void ReleaseChunkInline(Chunk* p, size_t psize, bool mayTrim);  // general_heap.cpp only
  void FreeInline(void* mem);                                      // general_heap.cpp only
  Chunk* ResizeInPlace(Chunk* p, size_t nb);

  // ---- system memory (general_heap_system.cpp) ----
  void* MallocFromSystem(size_t nb, size_t bytes);
  bool RequestAllowed(size_t size);
  // Null for a request no system can serve, after the limit rule has judged it.
  void* RefuseHugeRequest(size_t size);
  bool GrowHeap(size_t nb);
  void* MapDirect(size_t nb);
  void UnmapDirect(Chunk* p);
  Chunk* ResizeMapped(Chunk* p, size_t nb);
  int SysTrim(size_t pad);
  size_t ReleaseUnusedSegments();
  size_t TrimSegmentFronts(size_t pad);
  size_t TrimSegmentFront(Segment* s, size_t pad);
  void TrimAfterLargeFree();
  Segment** LinkTo(const Segment* s);
  Segment* SegmentHolding(const void* a) const;
  void AddFootprint(size_t size);
  void NoteRun(char* base, size_t size);

 private:
  void* MallocHeld(size_t bytes, size_t& nb);
  void InitFirstSegment(char* base, size_t size);
  void AppendToSegment(Segment* s, char* base, size_t size);
  void PrependToSegment(Segment* s, char* base, size_t size);
  void AddSegment(char* base, size_t size);
};

extern Heap g_heap;
extern Params g_params;
// Memory-limit status: 0 after an allowed system request, -1 after a refusal.
extern int g_limitStatus;

// Runs the parameter set-up (first run fills everything; later runs copy the
// lock-use switch and the memory limit into the heap).
void SetUp();
inline void EnsureSetUp() {
  if (ZMX_UNLIKELY(g_params.pageSize.load(std::memory_order_acquire) == 0)) SetUp();
}

// Holds the heap lock for one operation when the lock-use copy asks for it
// and another thread could be running. A process that never started a second
// thread takes no atomic: no one else can reach the heap. The choice is made
// once, here, and the release follows it, so an operation that started
// unlocked ends unlocked even if a thread was started meanwhile (only the
// thread inside the operation could have started it, and it was busy here).
class HeapLockGuard : CountingLockHold {
 public:
  explicit HeapLockGuard(Heap& h)
      : CountingLockHold(h.lock, h.lockUse != 0 && !platform::ProcessIsSingleThreaded()) {}
};

[[noreturn]] void CorruptionDetected(const char* what);

// The design's own cheap checks on the paths that touch chunk headers.
inline void Require(bool condition, const char* what) {
  if (ZMX_UNLIKELY(!condition)) CorruptionDetected(what);
}

size_t LargestFreeChunk(const Heap& h);
// The consistency walk without taking the lock (the caller holds it).
HeapWalkReport WalkHeap(const Heap& h);

#if defined(ZMX_HEAP_DEBUG) && ZMX_HEAP_DEBUG
// Runs the full consistency walk every few operations and aborts on a fault.
void DebugAfterOperation(Heap& h);
#  define ZMX_HEAP_DEBUG_CHECK(h) ::zmx::mem_internal::heap::DebugAfterOperation(h)
#else
#  define ZMX_HEAP_DEBUG_CHECK(h) ((void)0)
#endif

// ---- small bins: on every small allocation, so inline ----
inline void Heap::InsertSmall(Chunk* p, size_t s) {
  const unsigned i = SmallIndex(s);
  Chunk* b = &smallBins[i];
  Chunk* f = b;
  if ((smallMap & IndexBit(i)) == 0)
    smallMap |= IndexBit(i);
  else
    f = b->fd;
  b->fd = p;
  f->bk = p;
  p->fd = f;
  p->bk = b;
}

// The new designated victim; the old one goes to its bin.
inline void Heap::ReplaceDv(Chunk* r, size_t s) {
  if (dvSize != 0) InsertChunk(dv, dvSize);
  dv = r;
  dvSize = s;
}

inline void Heap::UnlinkSmall(Chunk* p, size_t s) {
  Chunk* f = p->fd;
  Chunk* b = p->bk;
  Require(f->bk == p && b->fd == p, "broken small-bin link");
  if (f == b) {
    smallMap &= ~IndexBit(SmallIndex(s));  // p was the only chunk of its bin
  } else {
    f->bk = b;
    b->fd = f;
  }
}

}  // namespace heap

}  // namespace mem_internal
}  // namespace zmx

// The worker of dlfragmentationinfo: the largest free chunk of one heap state.
std::size_t internal_dlfragmentationinfo(zmx::mem_internal::heap::Heap& heap);

#endif  // ZMXUTI_MEM_HEAP_INTERNAL_GENERAL_HEAP_STATE_H
