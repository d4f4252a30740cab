// The general heap's consistency walk: segment geometry, every chunk's
// boundary tags, the designated victim, the small bins and the tree bins.
#include <cstdarg>
#include <cstdio>
#include <cstdlib>

#include "mem/heap/internal/general_heap_check.h"
#include "mem/heap/internal/general_heap_state.h"
#include "mem/heap/internal/thread_cache.h"

namespace zmx {
namespace mem_internal {
namespace heap {

namespace {

class Walker {
 public:
  Walker(const Heap& h, HeapWalkReport& report) : h_(h), r_(report) {
    r_ = HeapWalkReport{};
    r_.consistent = true;
  }

  void Run() {
    if (h_.top == nullptr) {
      if (h_.segments != nullptr) Fail("segments without a top chunk");
      if (h_.footprint != h_.mappedBytes) Fail("footprint %zu differs from mapped bytes %zu", h_.footprint, h_.mappedBytes);
      return;
    }
    if (h_.magic != g_params.magic) Fail("magic 0x%zx differs from the parameters", h_.magic);
    if ((h_.dv == nullptr) != (h_.dvSize == 0)) Fail("victim pointer and size disagree");
    size_t segmentBytes = 0;
    for (const Segment* s = h_.segments; s != nullptr && r_.consistent; s = s->next) {
      if (++r_.segments > 1000000) return (void)Fail("segment list does not end");
      segmentBytes += s->size;
      CheckSegment(s);
    }
    if (!r_.consistent) return;
    if (topFound_ != 1) Fail("top chunk found %zu times in the segments", topFound_);
    if (h_.dvSize != 0 && !dvFound_) Fail("victim %p is not a free chunk of any segment", static_cast<void*>(h_.dv));
    if (segmentBytes + h_.mappedBytes != h_.footprint)
      Fail("footprint %zu differs from segments %zu + mappings %zu", h_.footprint, segmentBytes, h_.mappedBytes);
    if (h_.maxFootprint < h_.footprint) Fail("max footprint below footprint");
    CheckSmallBins();
    CheckTreeBins();
    if (r_.consistent && r_.binned != freeInBins_)
      Fail("%zu free chunks in the segments but %zu in the bins", freeInBins_, r_.binned);
    r_.topSize = h_.topSize;
  }

 private:
  bool Fail(const char* format, ...) __attribute__((format(printf, 2, 3))) {
    if (r_.consistent) {
      va_list args;
      va_start(args, format);
      std::vsnprintf(r_.problem, sizeof r_.problem, format, args);
      va_end(args);
      r_.consistent = false;
    }
    return false;
  }

  const Segment* Holding(const void* p) const {
    for (const Segment* s = h_.segments; s != nullptr; s = s->next)
      if (SegmentHolds(s, p) && static_cast<const char*>(p) < reinterpret_cast<const char*>(SegmentFooter(s)))
        return s;
    return nullptr;
  }

  void CheckSegment(const Segment* s) {
    const char* base = s->base;
    if ((reinterpret_cast<std::uintptr_t>(base) & (g_params.pageSize.load() - 1)) != 0 ||
        s->size % g_params.pageSize.load() != 0 || s->size < kTopFoot + kMinChunk)
      return (void)Fail("segment %p of %zu bytes is misshapen", static_cast<const void*>(base), s->size);
    if (base < h_.leastAddr) return (void)Fail("segment %p lies below the least address", static_cast<const void*>(base));
    const Chunk* footer = SegmentFooter(s);
    if (reinterpret_cast<const char*>(s) != static_cast<char*>(ToMem(const_cast<Chunk*>(footer))))
      return (void)Fail("segment record %p is not in its footer", static_cast<const void*>(s));
    if ((footer->head & ~kPinuse) != (kFooterChunk | kCinuse)) return (void)Fail("segment footer head damaged");
    if (ChunkAt(footer, kFooterChunk)->head != kFencepost) return (void)Fail("segment fence damaged");
    for (const Segment* o = h_.segments; o != nullptr; o = o->next)
      if (o != s && o->base < SegmentEnd(s) && s->base < SegmentEnd(o))
        return (void)Fail("segments %p and %p overlap", static_cast<const void*>(s->base), static_cast<const void*>(o->base));
    WalkChunks(s, footer);
  }

  void WalkChunks(const Segment* s, const Chunk* footer) {
    const Chunk* q = reinterpret_cast<const Chunk*>(s->base);
    bool first = true, prevFree = false;
    while (q != footer) {
      if (!IsAligned(ToMem(const_cast<Chunk*>(q)))) return (void)Fail("chunk %p misaligned", static_cast<const void*>(q));
      if (q == h_.top) {
        ++topFound_;
        if (h_.topSize < kMinChunk || h_.topSize % kAlign != 0 || q->head != (h_.topSize | kPinuse))
          return (void)Fail("top chunk head 0x%zx, size %zu", q->head, h_.topSize);
        if (ChunkAt(q, h_.topSize) != footer) return (void)Fail("top chunk does not reach its segment's footer");
        if (prevFree) return (void)Fail("free chunk before the top chunk");
        return;
      }
      const size_t size = ChunkSize(q);
      if (size < kMinChunk || size % kAlign != 0 || reinterpret_cast<const char*>(q) + size > reinterpret_cast<const char*>(footer))
        return (void)Fail("chunk %p has impossible size %zu", static_cast<const void*>(q), size);
      if (Pinuse(q) != (first || !prevFree))
        return (void)Fail("chunk %p: previous-in-use bit disagrees with its neighbour", static_cast<const void*>(q));
      ++r_.chunks;
      const bool isFree = !Cinuse(q);
      if (isFree) {
        ++r_.freeChunks;
        if (prevFree) return (void)Fail("adjacent free chunks at %p", static_cast<const void*>(q));
        if (NextChunk(q)->prevFoot != size) return (void)Fail("free chunk %p has a wrong foot", static_cast<const void*>(q));
        if (size > r_.largestFree) r_.largestFree = size;
        if (q == h_.dv) {
          dvFound_ = true;
          if (size != h_.dvSize) return (void)Fail("victim size %zu, chunk size %zu", h_.dvSize, size);
        } else {
          ++freeInBins_;
        }
      }
      prevFree = isFree;
      first = false;
      q = NextChunk(q);
    }
    if (Pinuse(footer) == prevFree) Fail("segment footer's previous-in-use bit is wrong");
  }

  void CheckFreeInBin(const Chunk* p, const char* kind) {
    if (Holding(p) == nullptr) return (void)Fail("%s chunk %p lies outside every segment", kind, static_cast<const void*>(p));
    if (Cinuse(p)) return (void)Fail("%s chunk %p is marked in use", kind, static_cast<const void*>(p));
    if (p == h_.dv || p == h_.top) return (void)Fail("%s chunk %p is the victim or the top", kind, static_cast<const void*>(p));
  }

  void CheckSmallBins() {
    for (unsigned i = 0; i < kSmallBins && r_.consistent; ++i) {
      const Chunk* bin = &h_.smallBins[i];
      if ((h_.smallMap & IndexBit(i)) == 0) continue;
      if (bin->fd == bin) return (void)Fail("small bin %u marked but empty", i);
      size_t n = 0;
      for (const Chunk* p = bin->fd; p != bin && r_.consistent; p = p->fd) {
        if (++n > r_.freeChunks) return (void)Fail("small bin %u does not close", i);
        if (p->fd->bk != p || p->bk->fd != p) return (void)Fail("small bin %u has a broken link at %p", i, static_cast<const void*>(p));
        if (ChunkSize(p) != SmallIndexToSize(i)) return (void)Fail("chunk of %zu bytes in small bin %u", ChunkSize(p), i);
        CheckFreeInBin(p, "small-bin");
        ++r_.binned;
      }
    }
  }

  void CheckTreeBins() {
    for (unsigned i = 0; i < kTreeBins && r_.consistent; ++i) {
      const TreeChunk* root = h_.treeBins[i];
      if ((root != nullptr) != ((h_.treeMap & IndexBit(i)) != 0)) return (void)Fail("tree map bit %u disagrees with its bin", i);
      if (root == nullptr) continue;
      if (root->parent != nullptr) return (void)Fail("root of tree bin %u has a parent", i);
      CheckTreeNode(root, i, 0, 0);
    }
  }

  // Every node at depth d agrees with the path to it on the d size bits below the bin's own.
  void CheckTreeNode(const TreeChunk* t, unsigned i, unsigned depth, std::uint64_t path) {
    if (depth > 64) return (void)Fail("tree bin %u is deeper than a size has bits", i);
    const size_t size = ChunkSize(t);
    if (t->index != i || !t->inTree || TreeIndex(size) != i)
      return (void)Fail("tree node %p of %zu bytes misfiled in bin %u", static_cast<const void*>(t), size, i);
    const std::uint64_t key = static_cast<std::uint64_t>(size) << TreeLeftShift(i);
    if (depth > 0 && (key >> (64 - depth)) != path)
      return (void)Fail("tree node %p of %zu bytes sits on the wrong path", static_cast<const void*>(t), size);
    size_t ring = 0;
    const TreeChunk* m = t;
    do {
      if (++ring > r_.freeChunks) return (void)Fail("ring at %p does not close", static_cast<const void*>(t));
      if (m->fd->bk != m || m->bk->fd != m) return (void)Fail("ring at %p has a broken link", static_cast<const void*>(t));
      if (ChunkSize(m) != size || m->index != i) return (void)Fail("ring member %p differs from its node", static_cast<const void*>(m));
      if (m != t && (m->inTree || m->parent != nullptr)) return (void)Fail("ring member %p claims a trie place", static_cast<const void*>(m));
      CheckFreeInBin(reinterpret_cast<const Chunk*>(m), "tree-bin");
      ++r_.binned;
      m = m->fd;
    } while (m != t && r_.consistent);
    for (unsigned d = 0; d < 2 && r_.consistent; ++d) {
      const TreeChunk* c = t->child[d];
      if (c == nullptr) continue;
      if (c->parent != t) return (void)Fail("child %p does not name its parent", static_cast<const void*>(c));
      CheckTreeNode(c, i, depth + 1, (path << 1) | d);
    }
  }

  const Heap& h_;
  HeapWalkReport& r_;
  size_t topFound_ = 0;
  size_t freeInBins_ = 0;
  bool dvFound_ = false;
};

}  // namespace

HeapWalkReport WalkHeap(const Heap& h) {
  HeapWalkReport report;
  Walker(h, report).Run();
  return report;
}

#if defined(ZMX_HEAP_DEBUG) && ZMX_HEAP_DEBUG
void DebugAfterOperation(Heap& h) {
  if ((++h.debugTick & 63) != 0) return;
  const HeapWalkReport report = WalkHeap(h);
  if (!report.consistent) CorruptionDetected(report.problem);
}
#endif

}  // namespace heap

HeapWalkReport CheckGeneralHeap() {
  FlushThreadCachesBeforeQuery();
  heap::EnsureSetUp();
  heap::HeapLockGuard guard(heap::g_heap);
  return heap::WalkHeap(heap::g_heap);
}

}  // namespace mem_internal
}  // namespace zmx
