// The general heap's allocation paths (malloc, free, realloc, memalign,
// calloc) and their exported entry points, each run under the heap lock.
#include "mem/heap/general_heap.h"

#include <cstring>

#include "mem/heap/internal/general_heap_state.h"

namespace zmx {
namespace mem_internal {
namespace heap {

// Everything that can be served without asking the system. Sets nb to the
// chunk size wanted (0 when the request is beyond any possible size).
inline void* Heap::MallocHeld(size_t bytes, size_t& nb) {
  if (bytes <= kMaxSmallRequest) {
    nb = RequestToSize(bytes);
    unsigned idx = SmallIndex(nb);
    const std::uint32_t bits = smallMap >> idx;
    if (bits & 3u) {
      // An exact fit (or the bin just above, one chunk too big to split).
      idx += ~bits & 1u;
      Chunk* p = smallBins[idx].fd;
      UnlinkSmall(p, SmallIndexToSize(idx));
      SetInuseAndPinuse(p, SmallIndexToSize(idx));
      return ToMem(p);
    }
    if (nb > dvSize) {
      if (bits != 0) {
        const unsigned i = LowestBitIndex((bits << idx) & LeftBits(IndexBit(idx)));
        const size_t size = SmallIndexToSize(i);
        Chunk* p = smallBins[i].fd;
        UnlinkSmall(p, size);
        const size_t rsize = size - nb;
        if (rsize < kMinChunk) {
          SetInuseAndPinuse(p, size);
        } else {
          SetSizeAndPinuseOfInuseChunk(p, nb);
          Chunk* r = ChunkAt(p, nb);
          SetSizeAndPinuseOfFreeChunk(r, rsize);
          ReplaceDv(r, rsize);
        }
        return ToMem(p);
      }
      if (treeMap != 0) return TreeMallocSmall(nb);
    }
  } else if (bytes >= kMaxRequest) {
    nb = 0;
    return RefuseHugeRequest(bytes);
  } else {
    nb = PadRequest(bytes);
    if (treeMap != 0) {
      if (void* mem = TreeMallocLarge(nb)) return mem;
    }
  }

  if (nb <= dvSize) {
    Chunk* p = dv;
    const size_t rsize = dvSize - nb;
    if (rsize >= kMinChunk) {
      Chunk* r = dv = ChunkAt(p, nb);
      dvSize = rsize;
      SetSizeAndPinuseOfFreeChunk(r, rsize);
      SetSizeAndPinuseOfInuseChunk(p, nb);
    } else {
      const size_t whole = dvSize;
      dvSize = 0;
      dv = nullptr;
      SetInuseAndPinuse(p, whole);
    }
    return ToMem(p);
  }
  // The top chunk always keeps at least a minimum chunk, so it stays a chunk.
  if (nb + kMinChunk <= topSize) {
    Chunk* p = top;
    topSize -= nb;
    top = ChunkAt(p, nb);
    top->head = topSize | kPinuse;
    SetSizeAndPinuseOfInuseChunk(p, nb);
    return ToMem(p);
  }
  return nullptr;
}

ZMX_NOINLINE void* Heap::Malloc(size_t bytes) {
  size_t nb;
  if (void* mem = MallocHeld(bytes, nb)) return mem;
  if (nb == 0) return nullptr;
  return MallocFromSystem(nb, bytes);
}

void* Heap::MallocFromSystem(size_t nb, size_t bytes) {
  // The first request builds the top chunk whatever its size, so that a heap
  // with memory always has one (the statistics and queries start from it).
  if ((flags & kUseMmapFlag) && nb >= g_params.mmapThreshold && top != nullptr) {
    if (void* mem = MapDirect(nb)) return mem;
  }
  if (!GrowHeap(nb)) return nullptr;
  size_t again;
  return MallocHeld(bytes, again);
}

// Frees an in-use chunk of a segment, coalescing with its neighbours: the body
// of every free, so it is expanded in place on the free path.
__attribute__((always_inline)) inline void Heap::ReleaseChunkInline(Chunk* p, size_t psize, bool mayTrim) {
  Chunk* next = ChunkAt(p, psize);
  if (!Pinuse(p)) {
    const size_t prevSize = p->prevFoot;
    Chunk* prev = ChunkBefore(p, prevSize);
    Require(OkAddress(prev), "previous chunk outside the heap");
    psize += prevSize;
    p = prev;
    if (p != dv) {
      UnlinkChunk(p, prevSize);
    } else if ((next->head & kInuseBits) == kInuseBits) {
      dvSize = psize;
      SetFreeWithPinuse(p, psize, next);
      return;
    }
  }
  // A damaged size word must not send the read of the next header out of the heap.
  Require(reinterpret_cast<char*>(next) > reinterpret_cast<char*>(p) && OkAddress(next) && Pinuse(next),
          "chunk after a freed block is damaged");
  if (!Cinuse(next)) {
    if (next == top) {
      topSize += psize;
      top = p;
      p->head = topSize | kPinuse;
      if (p == dv) {
        dv = nullptr;
        dvSize = 0;
      }
      if (mayTrim && topSize > g_params.trimThreshold && topSize > trimLatch) SysTrim(0);
      return;
    }
    if (next == dv) {
      dvSize += psize;
      dv = p;
      SetSizeAndPinuseOfFreeChunk(p, dvSize);
      return;
    }
    const size_t nsize = ChunkSize(next);
    psize += nsize;
    UnlinkChunk(next, nsize);
    SetSizeAndPinuseOfFreeChunk(p, psize);
    if (p == dv) {
      dvSize = psize;
      return;
    }
  } else {
    SetFreeWithPinuse(p, psize, next);
  }
  InsertChunk(p, psize);
  // A large free chunk away from the top may open a segment (new runs often
  // land below the heap): give its leading space back as the top trim would.
  if (ZMX_UNLIKELY(mayTrim && psize > g_params.trimThreshold)) TrimAfterLargeFree();
}

void Heap::ReleaseChunk(Chunk* p, size_t psize, bool mayTrim) { ReleaseChunkInline(p, psize, mayTrim); }

__attribute__((always_inline)) inline void Heap::FreeInline(void* mem) {
  Chunk* p = FromMem(mem);
  Require(OkAddress(p) && IsInuse(p), "free of a block that is not in use");
  if (ZMX_UNLIKELY(IsMapped(p))) {
    Require(MappingIntact(p), "free of a block that is not in use");
    UnmapDirect(p);
    return;
  }
  ReleaseChunkInline(p, ChunkSize(p), true);
}

ZMX_NOINLINE void Heap::Free(void* mem) { FreeInline(mem); }

// ---- the entry points' inline paths ----

// A small request whose exact bin, or the bin just above, holds a chunk: the
// most common request of all, served without leaving the entry point. Null
// sends the request down the whole path.
__attribute__((always_inline)) inline void* MallocFromSmallBin(Heap& h, size_t bytes) {
  if (ZMX_UNLIKELY(bytes > kMaxSmallRequest)) return nullptr;
  unsigned idx = SmallIndex(RequestToSize(bytes));
  const std::uint32_t bits = h.smallMap >> idx;
  if ((bits & 3u) == 0) return nullptr;
  idx += ~bits & 1u;
  Chunk* p = h.smallBins[idx].fd;
  h.UnlinkSmall(p, SmallIndexToSize(idx));
  SetInuseAndPinuse(p, SmallIndexToSize(idx));
  return ToMem(p);
}

// A small chunk between two chunks in use goes straight to its bin. False for
// every other block, damaged ones included: the whole path judges those.
__attribute__((always_inline)) inline bool FreeToSmallBin(Heap& h, void* mem) {
  Chunk* p = FromMem(mem);
  if (ZMX_UNLIKELY(!h.OkAddress(p))) return false;
  const size_t head = p->head;
  const size_t size = head & ~kFlagBits;
  if ((head & kInuseBits) != kInuseBits || !IsSmall(size) || size == 0) return false;
  Chunk* next = ChunkAt(p, size);
  if (!h.OkAddress(next) || (next->head & kInuseBits) != kInuseBits) return false;
  SetFreeWithPinuse(p, size, next);
  h.InsertSmall(p, size);
  // The trim threshold may have been set below the small sizes.
  if (ZMX_UNLIKELY(size > g_params.trimThreshold)) h.TrimAfterLargeFree();
  return true;
}

// Grows or shrinks p where it lies; null when that is not possible.
Chunk* Heap::ResizeInPlace(Chunk* p, size_t nb) {
  if (IsMapped(p)) return ResizeMapped(p, nb);
  const size_t oldSize = ChunkSize(p);
  Chunk* next = ChunkAt(p, oldSize);
  Require(reinterpret_cast<char*>(next) > reinterpret_cast<char*>(p) && OkAddress(next) && Pinuse(next),
          "chunk after a reallocated block is damaged");
  if (oldSize >= nb) {
    const size_t rsize = oldSize - nb;
    if (rsize >= kMinChunk) {
      Chunk* r = ChunkAt(p, nb);
      SetInuse(p, nb);
      SetInuse(r, rsize);
      ReleaseChunk(r, rsize, true);
    }
    return p;
  }
  if (next == top) {
    if (oldSize + topSize < nb + kMinChunk) return nullptr;
    const size_t newTopSize = oldSize + topSize - nb;
    SetInuse(p, nb);
    top = ChunkAt(p, nb);
    topSize = newTopSize;
    top->head = newTopSize | kPinuse;
    return p;
  }
  if (next == dv) {
    const size_t total = oldSize + dvSize;
    if (total < nb) return nullptr;
    const size_t rsize = total - nb;
    if (rsize >= kMinChunk) {
      Chunk* r = ChunkAt(p, nb);
      Chunk* after = ChunkAt(r, rsize);
      SetInuse(p, nb);
      SetSizeAndPinuseOfFreeChunk(r, rsize);
      after->head &= ~kPinuse;
      dv = r;
      dvSize = rsize;
    } else {
      SetInuse(p, total);
      dv = nullptr;
      dvSize = 0;
    }
    return p;
  }
  if (!Cinuse(next)) {
    const size_t nextSize = ChunkSize(next);
    if (oldSize + nextSize < nb) return nullptr;
    const size_t rsize = oldSize + nextSize - nb;
    UnlinkChunk(next, nextSize);
    if (rsize < kMinChunk) {
      SetInuse(p, oldSize + nextSize);
    } else {
      Chunk* r = ChunkAt(p, nb);
      SetInuse(p, nb);
      SetInuse(r, rsize);
      ReleaseChunk(r, rsize, true);
    }
    return p;
  }
  return nullptr;
}

void* Heap::Realloc(void* mem, size_t bytes) {
  if (bytes >= kMaxRequest) return RefuseHugeRequest(bytes);
  Chunk* p = FromMem(mem);
  Require(OkAddress(p) && IsInuse(p) && (!IsMapped(p) || MappingIntact(p)), "realloc of a block that is not in use");
  if (Chunk* q = ResizeInPlace(p, RequestToSize(bytes))) return ToMem(q);
  void* fresh = Malloc(bytes);
  if (fresh == nullptr) return nullptr;
  const size_t usable = ChunkSize(p) - kChunkOverhead;
  std::memcpy(fresh, mem, usable < bytes ? usable : bytes);
  Free(mem);
  return fresh;
}

void* Heap::Memalign(size_t alignment, size_t bytes) {
  if (alignment <= kAlign) return Malloc(bytes);
  // Before the rounding below, which would never end for alignments above 2^63.
  if (bytes >= kMaxRequest || alignment >= kMaxRequest) return RefuseHugeRequest(bytes > alignment ? bytes : alignment);
  if (alignment < kMinChunk) alignment = kMinChunk;
  if ((alignment & (alignment - 1)) != 0) {
    size_t a = kMinChunk << 1;
    while (a < alignment) a <<= 1;
    alignment = a;
  }
  const size_t nb = RequestToSize(bytes);
  char* mem = static_cast<char*>(Malloc(nb + alignment + kMinChunk - kChunkOverhead));
  if (mem == nullptr) return nullptr;
  Chunk* p = FromMem(mem);
  if ((reinterpret_cast<std::uintptr_t>(mem) & (alignment - 1)) != 0) {
    // Move to an aligned spot far enough in to leave a whole chunk in front.
    char* aligned = reinterpret_cast<char*>((reinterpret_cast<std::uintptr_t>(mem) + alignment - 1) &
                                            ~(alignment - 1));
    Chunk* br = FromMem(aligned);
    if (reinterpret_cast<char*>(br) - reinterpret_cast<char*>(p) < static_cast<std::ptrdiff_t>(kMinChunk))
      br = ChunkAt(br, alignment);
    const size_t lead = static_cast<size_t>(reinterpret_cast<char*>(br) - reinterpret_cast<char*>(p));
    const size_t newSize = ChunkSize(p) - lead;
    if (IsMapped(p)) {
      br->prevFoot = p->prevFoot + lead;
      br->head = newSize;
    } else {
      SetInuse(br, newSize);
      SetInuse(p, lead);
      ReleaseChunk(p, lead, true);
    }
    p = br;
  }
  if (!IsMapped(p)) {
    const size_t size = ChunkSize(p);
    if (size > nb + kMinChunk) {
      Chunk* r = ChunkAt(p, nb);
      SetInuse(p, nb);
      SetInuse(r, size - nb);
      ReleaseChunk(r, size - nb, true);
    }
  }
  return ToMem(p);
}

void* Heap::Calloc(size_t count, size_t size) {
  size_t bytes = 0;
  if (__builtin_mul_overflow(count, size, &bytes)) return nullptr;
  void* mem = Malloc(bytes);
  // Direct mappings arrive zeroed from the system.
  if (mem != nullptr && !IsMapped(FromMem(mem))) std::memset(mem, 0, bytes);
  return mem;
}

}  // namespace heap
}  // namespace mem_internal
}  // namespace zmx

using zmx::mem_internal::heap::EnsureSetUp;
using zmx::mem_internal::heap::FreeToSmallBin;
using zmx::mem_internal::heap::g_heap;
using zmx::mem_internal::heap::HeapLockGuard;
using zmx::mem_internal::heap::MallocFromSmallBin;

namespace {

// One request served under the heap lock, the debug walk after it.
template <typename Request>
inline void* UnderHeapLock(Request request) {
  EnsureSetUp();
  HeapLockGuard guard(g_heap);
  void* mem = request();
  ZMX_HEAP_DEBUG_CHECK(g_heap);
  return mem;
}

}  // namespace

extern "C" {

void* dlmalloc(std::size_t size) {
  return UnderHeapLock([size] {
    void* mem = MallocFromSmallBin(g_heap, size);
    return mem != nullptr ? mem : g_heap.Malloc(size);
  });
}

void dlfree(void* block) noexcept {
  if (block == nullptr) return;
  EnsureSetUp();
  HeapLockGuard guard(g_heap);
  if (!FreeToSmallBin(g_heap, block)) g_heap.Free(block);
  ZMX_HEAP_DEBUG_CHECK(g_heap);
}

void* dlcalloc(std::size_t count, std::size_t size) {
  return UnderHeapLock([count, size] { return g_heap.Calloc(count, size); });
}

void* dlrealloc(void* block, std::size_t size) {
  if (block == nullptr) return dlmalloc(size);
  if (size == 0) {
    // A zero-byte reallocation frees the block.
    dlfree(block);
    return nullptr;
  }
  return UnderHeapLock([block, size] { return g_heap.Realloc(block, size); });
}

void* dlmemalign(std::size_t alignment, std::size_t size) {
  return UnderHeapLock([alignment, size] { return g_heap.Memalign(alignment, size); });
}

std::size_t dlmalloc_usable_size(void* block) {
  if (block == nullptr) return 0;
  using namespace zmx::mem_internal::heap;
  const Chunk* p = FromMem(block);
  return IsInuse(p) ? ChunkSize(p) - kChunkOverhead : 0;
}

}  // extern "C"
