// The small-object allocator: requests of 1..128 bytes in ten size classes,
// served from 4096-byte pages of one class each. A page starts with its mark
// (its own address, then 0xABABABAB) so that the front door recognises its
// blocks by two word comparisons, followed by its record: a fixed region over
// the page's 1020-word slot area plus the page number. Pages come from the
// general heap's labelled allocator ("mem_TBPool") and go back to it when a
// page empties and its class has another page; the last page of a class is
// kept. One process-wide counting lock, off unless mem_TBThreadLock turns it on.
#ifndef ZMXUTI_MEM_POOLS_INTERNAL_SMALL_OBJECTS_H
#define ZMXUTI_MEM_POOLS_INTERNAL_SMALL_OBJECTS_H

#include <cstddef>
#include <cstdint>
#include <string>

#include "core/export.h"
#include "mem/internal/alloc_table.h"
#include "mem/heap/internal/counting_lock.h"
#include "mem/internal/small_object_hooks.h"
#include "mem/pools/cache_manager.h"
#include "mem/pools/region.h"
#include "platform/platform.h"

namespace zmx {
namespace mem_internal {
namespace small_objects {

constexpr int kClasses = 10;
constexpr int kAreaWords = 1020;     // the slot area: page offset 16 to the page's end
constexpr std::size_t kAreaOffset = 16;
constexpr std::uint64_t kRetiredMark = 0xDEADBEEF;

// (n - 1) / 4 below 9 bytes, (n - 1) / 16 + 2 from 9 to 128; 0 bytes count as 1.
constexpr int ComputeClassOf(std::size_t n) {
  return n == 0 ? 0 : n < 9 ? static_cast<int>((n - 1) >> 2) : static_cast<int>(((n - 1) >> 4) + 2);
}
struct ClassTable {
  unsigned char of[kLargestTiny + 1];
  constexpr ClassTable() : of() {
    for (std::size_t n = 0; n <= kLargestTiny; ++n) of[n] = static_cast<unsigned char>(ComputeClassOf(n));
  }
};
inline constexpr ClassTable kClassTable{};
inline int ClassOf(std::size_t n) { return kClassTable.of[n]; }  // n <= 128
inline int SlotBytesOf(int c) { return c < 2 ? 4 * (c + 1) : 16 * (c - 1); }

// The record at page offset 16: the region's class is its tag, and the page
// number sits in the region's tail padding, so record and region fit in the
// 10 words ahead of the first slot of the two smallest classes.
struct PageRecord : mem_FixedRegion {
  PageRecord(int* area, int slotWords, int sizeClass, int pageNumber)
      : mem_FixedRegion(0, kAreaWords, area, slotWords, sizeClass), number(pageNumber) {}
  int* Area() { return reinterpret_cast<int*>(this); }
  bool Full() const { return FreeHead() > Capacity() - SlotWords(); }
  int number;
};
static_assert(sizeof(PageRecord) <= 40, "the page record must fit ahead of the first slot");

inline PageRecord* RecordOf(const void* block) {
  const std::uintptr_t page = reinterpret_cast<std::uintptr_t>(block) & ~(kSmallPageSize - 1);
  return reinterpret_cast<PageRecord*>(page + kAreaOffset);
}

// One entry of the page table, indexed by page number.
struct PageEntry {
  PageRecord* record;  // null while the number is free for reuse
  int prev;            // neighbours in the class's list, -1 for none
  int next;            // (for a number free for reuse: the next such number, one-based)
};

class ZMXUTI_INTERNAL_API Allocator {
 public:
  Allocator();

  void* Allocate(std::size_t n) {
    const int c = ClassOf(n);
    if (PageRecord* head = headRecord_[c]) {
      const int pos = head->TakeSlot(head->Area());
      if (ZMX_LIKELY(pos >= 0)) return head->Area() + pos;
    }
    return AllocateSlow(c);
  }
  void Free(void* block) {
    PageRecord* record = RecordOf(block);
    const std::uintptr_t offset = reinterpret_cast<std::uintptr_t>(block) - reinterpret_cast<std::uintptr_t>(record);
    const int pos = static_cast<int>(offset >> 2);
    if (ZMX_UNLIKELY(offset & 3)) BadRelease(block, "position not at a slot");
    // A page that only looks marked (foreign data that happens to hold the mark) is not in the table.
    if (ZMX_UNLIKELY(static_cast<unsigned int>(record->number) >= nextNumber_ || At(record->number).record != record))
      BadRelease(block, "block is not on a page of this allocator");
    if (const char* problem = record->SlotProblem(pos)) BadRelease(block, problem);
    CheckNotFreeAlready(record, pos);
    const bool wasFull = record->Full();
    const bool empty = record->GiveSlot(record->Area(), pos);
    if (ZMX_UNLIKELY(empty || wasFull)) AfterRelease(record, empty);
  }
  void* Reallocate(void* block, std::size_t n);

  // The invariant walk: every list, page mark, record and free list.
  bool Check(std::string* problem) const;
  int PageCount() const;     // pages held now
  int LivePageNumbers() const { return static_cast<int>(nextNumber_); }
  int ReuseHead() const { return reuseHead_; }  // one-based, 0 when empty
  int ClassHead(int c) const { return heads_[c]; }
  const PageEntry* Entry(int number) const;

 private:
  ZMX_NOINLINE void* AllocateSlow(int c);
  ZMX_NOINLINE void AfterRelease(PageRecord* record, bool empty);
  [[noreturn]] ZMX_NOINLINE void BadRelease(const void* block, const char* problem);
#if defined(ZMX_HEAP_DEBUG)
  void CheckNotFreeAlready(PageRecord* record, int pos);
#else
  void CheckNotFreeAlready(PageRecord*, int) {}
#endif

  PageRecord* NewPage(int c);
  bool EnsureEntry(int number);
  PageEntry& At(int number) const { return entries_[number]; }
  void Unlink(int number, int c);
  void PushFront(int number, int c);
  void Retire(PageRecord* record);

  mem_DLAllocator supplier_;                // no cache manager: tries twice
  PageEntry* entries_ = nullptr;            // the page table, by page number; grows by doubling
  int entrySlots_ = 0;
  unsigned int nextNumber_ = 0;             // the next never-used page number
  int reuseHead_ = 0;                       // numbers free for reuse, one-based, 0 empty
  int heads_[kClasses];                     // first page with free slots, -1 none
  PageRecord* headRecord_[kClasses];        // the record of heads_[c], null none
};

// The process's allocator (null until first use) and its lock state.
extern Allocator* g_allocator;
extern bool g_lockSwitch;
extern CountingLock g_lock;

// The process's allocator, created on first use.
ZMXUTI_INTERNAL_API Allocator* Instance();
inline Allocator& Get() {
  Allocator* a = g_allocator;
  return ZMX_LIKELY(a != nullptr) ? *a : *Instance();
}

// Holds the process-wide lock when the switch is on and another thread could
// be running; a process that never started a second thread needs no atomics.
class LockScope : CountingLockHold {
 public:
  explicit LockScope(bool wanted)
      : CountingLockHold(g_lock, wanted && g_lockSwitch && !platform::ProcessIsSingleThreaded()) {}
};

// The operations the front door routes to.
inline void* Allocate(std::size_t n, bool lockWanted) {
  Allocator& a = Get();
  LockScope lock(lockWanted);
  return a.Allocate(n);
}
inline void Free(void* block) {
  Allocator& a = Get();
  LockScope lock(true);
  a.Free(block);
}
ZMXUTI_INTERNAL_API void* Reallocate(void* block, std::size_t n);
ZMXUTI_INTERNAL_API void SetLocking(bool on);

}  // namespace small_objects
}  // namespace mem_internal
}  // namespace zmx

#endif  // ZMXUTI_MEM_POOLS_INTERNAL_SMALL_OBJECTS_H
