// The general heap's traffic with the system: the memory-limit rule, segments
// (new, merged with a neighbouring run, trimmed, released) and direct mappings.
#include <cstdio>
#include <cstdlib>

#include "mem/heap/internal/general_heap_state.h"
#include "mem/heap/internal/owned_pages.h"
#include "platform/platform.h"

namespace zmx {
namespace mem_internal {
namespace heap {

namespace {

size_t AlignUp(size_t size, size_t unit) { return (size + unit - 1) & ~(unit - 1); }

// Writes the footer chunk and fence at the end of a run and returns the record.
Segment* WriteFooter(char* end, const Segment& record) {
  Chunk* footer = ChunkBefore(end, kTopFoot);
  footer->head = kFooterChunk | kCinuse | kPinuse;
  Segment* s = reinterpret_cast<Segment*>(ToMem(footer));
  *s = record;
  ChunkBefore(end, 2 * kWord)->head = kFencepost;
  return s;
}

}  // namespace

[[noreturn]] void CorruptionDetected(const char* what) {
  std::fprintf(stderr, "ERROR: general heap corrupted (%s)\n", what);
  std::fflush(stderr);
  std::abort();
}

// The limit rule: allowed when no limit is in force or footprint + size stays
// strictly below it. Every system request passes here first.
bool Heap::RequestAllowed(size_t size) {
  if (size == 0) return true;
  if (memoryLimit == 0 || (footprint + size > footprint && footprint + size < memoryLimit)) {
    g_limitStatus = 0;
    return true;
  }
  g_limitStatus = -1;
  return false;
}

void* Heap::RefuseHugeRequest(size_t size) {
  if (size < kWrapGuard) RequestAllowed(size);
  return nullptr;
}

// Widens the range of addresses that free and realloc accept to cover a new run.
void Heap::NoteRun(char* base, size_t size) {
  char* end = leastAddr == nullptr ? base + size : leastAddr + addrSpan;
  if (base + size > end) end = base + size;
  if (leastAddr == nullptr || base < leastAddr) leastAddr = base;
  addrSpan = static_cast<size_t>(end - leastAddr);
}

void Heap::AddFootprint(size_t size) {
  footprint += size;
  if (footprint > maxFootprint) maxFootprint = footprint;
}

Segment** Heap::LinkTo(const Segment* s) {
  Segment** link = &segments;
  while (*link != s) link = &(*link)->next;
  return link;
}

Segment* Heap::SegmentHolding(const void* a) const {
  for (Segment* s = segments; s != nullptr; s = s->next)
    if (SegmentHolds(s, a)) return s;
  return nullptr;
}

// ---------------------------------------------------------------- segments

bool Heap::GrowHeap(size_t nb) {
  const size_t size = AlignUp(nb + kTopFoot + kMinChunk, g_params.granularity);
  if (size <= nb) return false;
  if (!RequestAllowed(size)) return false;
  // New address space is asked for right behind the top chunk's segment, so
  // that it usually extends the top (and can be trimmed) instead of landing
  // below the heap as a free chunk apart from it. It is backed at once: the
  // top is carved from its start onwards, and a fault per page costs far more
  // than one system call that backs them all.
  const Segment* topSegment = top != nullptr ? SegmentHolding(top) : nullptr;
  char* base = static_cast<char*>(
      MapOwnedMemory(size, false, topSegment != nullptr ? SegmentEnd(topSegment) : nullptr, true));
  if (base == nullptr) return false;
  AddFootprint(size);
  NoteRun(base, size);
  trimLatch = 0;
  if (top == nullptr) {
    InitFirstSegment(base, size);
    return true;
  }
  for (Segment* s = segments; s != nullptr; s = s->next) {
    if (SegmentEnd(s) == base) {
      AppendToSegment(s, base, size);
      return true;
    }
    if (base + size == s->base) {
      PrependToSegment(s, base, size);
      return true;
    }
  }
  AddSegment(base, size);
  return true;
}

void Heap::InitFirstSegment(char* base, size_t size) {
  magic = g_params.magic;
  for (Chunk& b : smallBins) b.fd = b.bk = &b;
  segments = WriteFooter(base + size, Segment{base, size, nullptr, kUseMmapFlag});
  top = reinterpret_cast<Chunk*>(base);
  topSize = size - kTopFoot;
  top->head = topSize | kPinuse;
}

// The new run starts where s ends: the old footer and the run become one chunk.
void Heap::AppendToSegment(Segment* s, char* base, size_t size) {
  Chunk* oldFooter = SegmentFooter(s);
  Segment record = *s;
  record.size += size;
  Segment** link = LinkTo(s);
  *link = WriteFooter(base + size, record);
  if (ChunkAt(top, topSize) == oldFooter) {
    topSize += size;
    top->head = topSize | kPinuse;
    return;
  }
  Chunk* c = oldFooter;
  c->head = size | kCinuse | (c->head & kPinuse);
  ChunkAt(c, size)->head |= kPinuse;
  ReleaseChunk(c, size, false);
}

// The new run ends where s starts: it becomes a chunk in front of s's first one.
void Heap::PrependToSegment(Segment* s, char* base, size_t size) {
  s->base = base;
  s->size += size;
  Chunk* c = reinterpret_cast<Chunk*>(base);
  c->head = size | kCinuse | kPinuse;
  ReleaseChunk(c, size, false);
}

// A run apart from every segment becomes a segment of its own and the new top;
// the old top goes to the bins.
void Heap::AddSegment(char* base, size_t size) {
  segments = WriteFooter(base + size, Segment{base, size, segments, kUseMmapFlag});
  Chunk* oldTop = top;
  const size_t oldTopSize = topSize;
  top = reinterpret_cast<Chunk*>(base);
  topSize = size - kTopFoot;
  top->head = topSize | kPinuse;
  SetFreeWithPinuse(oldTop, oldTopSize, ChunkAt(oldTop, oldTopSize));
  InsertChunk(oldTop, oldTopSize);
}

// Gives back whole units from the end of the top chunk, keeping pad bytes.
int Heap::SysTrim(size_t pad) {
  if (top == nullptr || pad >= kMaxRequest) return 0;
  size_t released = 0;
  const size_t keep = pad + kMinChunk;
  const size_t unit = g_params.granularity;
  if (topSize > keep) {
    const size_t extra = ((topSize - keep) / unit) * unit;
    Segment* s = SegmentHolding(top);
    if (extra > 0 && s != nullptr) {
      Segment record = *s;
      record.size -= extra;
      Segment** link = LinkTo(s);
      char* newEnd = record.base + record.size;
      if (UnmapOwnedMemory(newEnd, extra)) {
        *link = WriteFooter(newEnd, record);
        topSize -= extra;
        top->head = topSize | kPinuse;
        footprint -= extra;
        released += extra;
      }
    }
  }
  released += ReleaseUnusedSegments();
  released += TrimSegmentFronts(pad);
  if (released == 0 && topSize > trimLatch) trimLatch = topSize;
  return released != 0 ? 1 : 0;
}

// Mirror of the top trim for the other end of a segment: the system usually
// places new runs just below the heap, so free space gathers at segment fronts.
// Whole units at the front of a free first chunk go back, keeping pad bytes.
size_t Heap::TrimSegmentFront(Segment* s, size_t pad) {
  Chunk* first = reinterpret_cast<Chunk*>(s->base);
  if (first == top || Cinuse(first)) return 0;
  const size_t size = ChunkSize(first);
  const size_t keep = pad + kMinChunk;
  if (pad >= kMaxRequest || size <= keep) return 0;
  const size_t cut = ((size - keep) / g_params.granularity) * g_params.granularity;
  if (cut == 0) return 0;
  const bool isDv = first == dv;
  if (!isDv) UnlinkChunk(first, size);
  if (!UnmapOwnedMemory(s->base, cut)) {
    if (!isDv) InsertChunk(first, size);
    return 0;
  }
  s->base += cut;
  s->size -= cut;
  footprint -= cut;
  Chunk* rest = reinterpret_cast<Chunk*>(s->base);
  SetSizeAndPinuseOfFreeChunk(rest, size - cut);
  if (isDv) {
    dv = rest;
    dvSize = size - cut;
  } else {
    InsertChunk(rest, size - cut);
  }
  return cut;
}

size_t Heap::TrimSegmentFronts(size_t pad) {
  size_t released = 0;
  for (Segment* s = segments; s != nullptr; s = s->next) released += TrimSegmentFront(s, pad);
  return released;
}

void Heap::TrimAfterLargeFree() {
  ReleaseUnusedSegments();
  TrimSegmentFronts(0);
}

// Unmaps every segment (but the top's) that holds one free chunk and nothing else.
size_t Heap::ReleaseUnusedSegments() {
  size_t released = 0;
  Segment** link = &segments;
  while (*link != nullptr) {
    Segment* s = *link;
    Chunk* first = reinterpret_cast<Chunk*>(s->base);
    const bool whollyFree = !SegmentHolds(s, top) && !Cinuse(first) &&
                            ChunkAt(first, ChunkSize(first)) == SegmentFooter(s);
    if (!whollyFree) {
      link = &s->next;
      continue;
    }
    const Segment record = *s;
    if (first == dv) {
      dv = nullptr;
      dvSize = 0;
    } else {
      UnlinkChunk(first, ChunkSize(first));
    }
    *link = record.next;
    if (UnmapOwnedMemory(record.base, record.size)) {
      footprint -= record.size;
      released += record.size;
    } else {
      // Keep the run: put the record and the chunk back as they were.
      *link = s;
      InsertChunk(first, ChunkSize(first));
      link = &s->next;
    }
  }
  return released;
}

// ---------------------------------------------------------- direct mappings
//
// A direct mapping holds one chunk whose prev_foot is its offset from the start
// of the mapping and whose head has both in-use bits clear, then a fence word.

bool Heap::MappingIntact(const Chunk* p) const {
  const char* base = reinterpret_cast<const char*>(p) - p->prevFoot;
  const size_t page = g_params.pageSize.load(std::memory_order_relaxed);
  if (ChunkSize(p) < kMinChunk || base > reinterpret_cast<const char*>(p) || !OkAddress(base) ||
      (reinterpret_cast<std::uintptr_t>(base) & (page - 1)) != 0)
    return false;
  const Chunk* fence = ChunkAt(p, ChunkSize(p));
  return fence > p && OkAddress(fence) && fence->head == kFencepost;
}

void* Heap::MapDirect(size_t nb) {
  const size_t size = AlignUp(nb + 2 * kWord, g_params.granularity);
  if (size <= nb) return nullptr;
  if (!RequestAllowed(size)) return nullptr;
  char* base = static_cast<char*>(MapOwnedMemory(size, true));
  if (base == nullptr) return nullptr;
  const size_t psize = size - 2 * kWord;
  Chunk* p = reinterpret_cast<Chunk*>(base);
  p->prevFoot = 0;
  p->head = psize;
  ChunkAt(p, psize)->head = kFencepost;
  NoteRun(base, size);
  AddFootprint(size);
  mappedBytes += size;
  return ToMem(p);
}

void Heap::UnmapDirect(Chunk* p) {
  const size_t offset = p->prevFoot;
  const size_t size = ChunkSize(p) + offset + 2 * kWord;
  if (UnmapOwnedMemory(reinterpret_cast<char*>(p) - offset, size)) {
    footprint -= size;
    mappedBytes -= size;
  }
}

// A mapping is never grown in place; the limit rule still judges the growth
// so that the status reports the attempt.
Chunk* Heap::ResizeMapped(Chunk* p, size_t nb) {
  const size_t oldSize = ChunkSize(p);
  if (IsSmall(nb)) return nullptr;
  if (oldSize >= nb + kWord && (oldSize - nb) <= (g_params.granularity << 1)) return p;
  const size_t oldMapping = oldSize + p->prevFoot + 2 * kWord;
  const size_t newMapping = AlignUp(nb + 2 * kWord, g_params.granularity);
  if (newMapping > oldMapping) RequestAllowed(newMapping - oldMapping);
  return nullptr;
}

}  // namespace heap
}  // namespace mem_internal
}  // namespace zmx
