// The plain C entry points of the front door: mem_Malloc and its family, the
// direct heap calls and the heap queries.
#include <cstdint>

#include "mem/allocation.h"
#include "mem/heap/internal/owned_pages.h"
#include "mem/internal/alloc_table.h"
#include "mem/internal/small_object_routing.h"
#include "mem/internal/tracker_hooks.h"

using namespace zmx::mem_internal;

namespace {

// Each entry point's own cached tracking mode.
int g_trackMalloc = 0;
int g_trackFree = 0;
int g_trackRealloc = 0;
int g_trackCalloc = 0;
int g_trackAlignedMalloc = 0;
int g_trackRelease = 0;
int g_trackAcquire = 0;

// mem_Free and mem_Realloc leave addresses below one page to the heap.
inline bool IsSmallObjectForMemFree(const void* block) {
  return g_switches.tinyForMemFree && reinterpret_cast<std::uintptr_t>(block) >= kSmallPageSize &&
         HasSmallObjectMark(block);
}

ZMX_NOINLINE void* MallocRouted(std::size_t size) {
  void* block = (g_switches.tinyForMemMalloc && size <= kLargestTiny) ? SmallAllocate(size, true)
                                                                      : g_table.malloc(size);
  if (ZMX_UNLIKELY(TrackingOn(g_trackMalloc))) Tracker().RecordMalloc(block, size);
  return block;
}

ZMX_NOINLINE void FreeRouted(void* block) {
  if (ZMX_UNLIKELY(TrackingOn(g_trackFree))) Tracker().RecordFree(block);
  if (IsSmallObjectForMemFree(block))
    SmallFree(block);
  else
    g_table.free(block);
}

}  // namespace

extern "C" {

// The common case -- no small-object routing and tracking finally off -- is a
// test of each and a jump through the table; the rest lies out of line.
void* mem_Malloc(std::size_t size) {
  if (ZMX_LIKELY(!g_switches.tinyForMemMalloc && g_trackMalloc == kTrackingOff)) return g_table.malloc(size);
  return MallocRouted(size);
}

void mem_Free(void* block) {
  if (ZMX_LIKELY(g_trackFree == kTrackingOff && !g_switches.tinyForMemFree)) return g_table.free(block);
  FreeRouted(block);
}

void* mem_Realloc(void* block, std::size_t size) {
  void* result = IsSmallObjectForMemFree(block) ? SmallReallocate(block, size)
                                                : g_table.realloc(block, size);
  if (ZMX_UNLIKELY(TrackingOn(g_trackRealloc))) Tracker().RecordRealloc(result, block, size);
  return result;
}

void* mem_Calloc(std::size_t count, std::size_t size) {
  void* block = g_table.calloc(count, size);
  if (ZMX_UNLIKELY(TrackingOn(g_trackCalloc))) Tracker().RecordCalloc(block, count, size);
  return block;
}

void* mem_AlignedMalloc(std::size_t alignment, std::size_t size) {
  if (alignment == 0 || (alignment & (alignment - 1)) != 0) return nullptr;
  void* block = g_table.memalign(alignment, size == 0 ? 1 : size);
  if (ZMX_UNLIKELY(TrackingOn(g_trackAlignedMalloc))) Tracker().RecordMalloc(block, size);
  return block;
}

std::size_t mem_UsableSize(const void* block) {
  if (block == nullptr) return 0;
  if (IsSmallObjectForMemFree(block)) return SmallUsableSize(block);
  return g_table.usableSize(block);
}

int mem_OwnsBlock(const void* block) {
  if (block == nullptr) return 0;
  if (g_switches.useGeneralHeap) return zmx::mem_internal::heap::OwnsPage(block) ? 1 : 0;
  return AllocatorChosen() ? 1 : 0;
}

void mem_Release(void* block) {
  if (TrackingOn(g_trackRelease)) Tracker().RecordRelease(block);
}

void mem_Acquire(void* block) {
  if (TrackingOn(g_trackAcquire)) Tracker().RecordAcquire(block);
}

void* mem_cMalloc(std::size_t size) { return g_table.malloc(size); }
void mem_cFree(void* block) { g_table.free(block); }

int mem_Trim(std::size_t pad) { return g_table.trim(pad); }
int mem_Mallopt(int parameter, int value) { return g_table.mallopt(parameter, value); }
std::size_t mem_Footprint() { return g_table.footprint(); }
std::size_t mem_MaxFootprint() { return g_table.maxFootprint(); }
std::size_t mem_MemoryLimit() { return g_table.memoryLimit(); }
int mem_ErrorMemoryLimit() { return g_table.errorMemoryLimit(); }
std::size_t mem_FragmentationInfo() { return g_table.fragmentationInfo(); }

mem_DLMallinfoRec mem_DLMallinfo() {
  const dl_mallinfo info = g_table.mallinfo();
  return mem_DLMallinfoRec{info.arena,    info.ordblks,  info.hblkhd,  info.usmblks,
                           info.uordblks, info.fordblks, info.keepcost};
}

bool mem_UseDL() { return g_switches.useGeneralHeap; }

}  // extern "C"
