// The process-wide allocation table and the front door's switches. Each heap
// (general, runtime, guarded) provides one filling; the choice installs one of
// them exactly once per process.
#ifndef ZMXUTI_MEM_INTERNAL_ALLOC_TABLE_H
#define ZMXUTI_MEM_INTERNAL_ALLOC_TABLE_H

#include <cstddef>
#include <cstdint>

#include "mem/heap/general_heap.h"

namespace zmx {
namespace mem_internal {

// Twelve slots in the documented order, plus the library's own extensions:
// `memalign`, which serves the C++17 aligned operator new forms and
// mem_AlignedMalloc from the same heap, and `usableSize`, the bytes usable in a
// live block of this heap (small-object blocks are not asked here).
struct AllocTable {
  void* (*malloc)(std::size_t size);
  void* (*calloc)(std::size_t count, std::size_t size);
  void* (*realloc)(void* block, std::size_t size);
  void (*free)(void* block) noexcept;  // never throws: operator delete tail-calls it
  int (*trim)(std::size_t pad);
  int (*mallopt)(int parameter, int value);
  std::size_t (*footprint)();
  std::size_t (*maxFootprint)();
  std::size_t (*memoryLimit)();
  dl_mallinfo (*mallinfo)();
  int (*errorMemoryLimit)();
  std::size_t (*fragmentationInfo)();
  void* (*memalign)(std::size_t alignment, std::size_t size);
  std::size_t (*usableSize)(const void* block);
};

// The fillings. Each lives with its heap; a heap that is not built yet fills
// its slots from the runtime heap.
extern const AllocTable kGeneralHeapTable;
// The general heap behind a per-thread cache of small chunks (ZMX_HEAP_THREAD_CACHE).
extern const AllocTable kGeneralHeapCachedTable;
extern const AllocTable kRuntimeHeapTable;
extern const AllocTable kGuardedHeapTable;

// The live table (malloc slot = bootstrap entry until the choice).
extern AllocTable g_table;

// Byte switches of the front door (false at load).
struct Switches {
  bool useGeneralHeap;
  bool tinyForOperatorNew;
  bool tinyForOperatorDelete;  // once set, stays set
  bool tinyForMemMalloc;
  bool tinyForMemFree;  // once set, stays set
};
extern Switches g_switches;

// True once the choice has replaced the bootstrap entry in the malloc slot.
bool AllocatorChosen();
// Reads ZMX_CRTMALLOC, ZMX_DLALLOCATOR and ZEM_DEADBEEF and installs the table.
void ChooseAllocator();

// The small-object page mark: the page's own address, then 0xABABABAB.
constexpr std::uintptr_t kSmallPageSize = 4096;
constexpr std::uint64_t kSmallPageMark = 2880154539u;

inline bool HasSmallObjectMark(const void* block) {
  const std::uintptr_t page = reinterpret_cast<std::uintptr_t>(block) & ~(kSmallPageSize - 1);
  const std::uint64_t* words = reinterpret_cast<const std::uint64_t*>(page);
  return words[0] == page && words[1] == kSmallPageMark;
}

}  // namespace mem_internal
}  // namespace zmx

#endif  // ZMXUTI_MEM_INTERNAL_ALLOC_TABLE_H
