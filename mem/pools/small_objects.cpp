// The small-object allocator's slow paths: new pages, page retirement, the page
// table, reallocation, creation, locking and the invariant walk.
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <new>

#include "mem/allocation.h"
#include "mem/internal/fork_handlers.h"
#include "mem/pools/internal/small_objects.h"

namespace zmx {
namespace mem_internal {
namespace small_objects {

Allocator* g_allocator = nullptr;
bool g_lockSwitch = false;
CountingLock g_lock;

namespace {

constexpr const char* kLabel = "mem_TBPool";
constexpr int kFirstEntrySlots = 256;

}  // namespace

Allocator::Allocator() {
  for (int c = 0; c < kClasses; ++c) {
    heads_[c] = -1;
    headRecord_[c] = nullptr;
  }
}

const PageEntry* Allocator::Entry(int number) const {
  return number >= 0 && static_cast<unsigned int>(number) < nextNumber_ ? &At(number) : nullptr;
}

// Makes room in the page table for `number`; false when memory runs out. The
// table is a flat array (entries hold numbers, never addresses of entries), so
// list steps cost one index each.
bool Allocator::EnsureEntry(int number) {
  if (number < entrySlots_) return true;
  const int slots = entrySlots_ == 0 ? kFirstEntrySlots : entrySlots_ * 2;
  auto* grown = static_cast<PageEntry*>(supplier_.Malloc(kLabel, slots * sizeof(PageEntry)));
  if (grown == nullptr) return false;
  if (entrySlots_ > 0) std::memcpy(grown, entries_, entrySlots_ * sizeof(PageEntry));
  supplier_.Free(kLabel, entries_);
  entries_ = grown;
  entrySlots_ = slots;
  return true;
}

void Allocator::Unlink(int number, int c) {
  PageEntry& e = At(number);
  const int prev = e.prev, next = e.next;
  if (prev >= 0) At(prev).next = next;
  if (next >= 0) At(next).prev = prev;
  if (prev < 0) {  // it was the head
    heads_[c] = next;
    headRecord_[c] = next >= 0 ? At(next).record : nullptr;
  }
  e.prev = e.next = -1;
}

void Allocator::PushFront(int number, int c) {
  PageEntry& e = At(number);
  const int next = heads_[c];
  e.prev = -1;
  e.next = next;
  if (next >= 0) At(next).prev = number;
  heads_[c] = number;
  headRecord_[c] = e.record;
}

void* Allocator::AllocateSlow(int c) {
  // Pages found full on the way leave the list; a release brings them back.
  while (heads_[c] >= 0) {
    PageRecord* record = headRecord_[c];
    const int pos = record->TakeSlot(record->Area());
    if (pos >= 0) return record->Area() + pos;
    Unlink(heads_[c], c);
  }
  PageRecord* record = NewPage(c);
  if (record == nullptr) return nullptr;
  return record->Area() + record->TakeSlot(record->Area());
}

// A number comes from the reuse list first. When no page can be had, the
// number taken is not given back (kept as designed: it only costs a table entry).
PageRecord* Allocator::NewPage(int c) {
  int number;
  if (reuseHead_ != 0) {
    number = reuseHead_ - 1;
    reuseHead_ = At(number).next;
  } else {
    if (nextNumber_ >= 0x7FFFFFFFu || !EnsureEntry(static_cast<int>(nextNumber_))) return nullptr;
    number = static_cast<int>(nextNumber_++);
    At(number) = PageEntry{nullptr, -1, -1};
  }
  void* page = supplier_.AlignedAlloc(kLabel, kSmallPageSize, kSmallPageSize);
  if (page == nullptr) return nullptr;
  auto* words = static_cast<std::uint64_t*>(page);
  words[0] = reinterpret_cast<std::uintptr_t>(page);
  words[1] = kSmallPageMark;
  int* area = reinterpret_cast<int*>(static_cast<char*>(page) + kAreaOffset);
  auto* record = new (area) PageRecord(area, SlotBytesOf(c) / 4, c, number);
  At(number) = PageEntry{record, -1, -1};
  PushFront(number, c);
  return record;
}

void Allocator::AfterRelease(PageRecord* record, bool empty) {
  const int number = record->number;
  const int c = record->Tag();
  const PageEntry& e = At(number);
  const bool inList = e.prev >= 0 || heads_[c] == number;
  if (empty && inList && (e.prev >= 0 || e.next >= 0)) {
    Retire(record);
  } else if (!inList) {
    PushFront(number, c);
  }
}

// The page leaves its list, its number goes on the reuse list, and its mark is
// overwritten so that a stale pointer into it no longer passes as a small block.
void Allocator::Retire(PageRecord* record) {
  const int number = record->number;
  Unlink(number, record->Tag());
  PageEntry& e = At(number);
  e.record = nullptr;
  e.next = reuseHead_;
  reuseHead_ = number + 1;
  auto* words = reinterpret_cast<std::uint64_t*>(reinterpret_cast<char*>(record) - kAreaOffset);
  words[0] = kRetiredMark;
  words[1] = kRetiredMark;
  supplier_.Free(kLabel, words);
}

void Allocator::BadRelease(const void* block, const char* problem) {
  std::fprintf(stderr, "ERROR: small-object allocator: %s at %p\n", problem, block);
  std::fflush(stderr);
  std::abort();
}

#if defined(ZMX_HEAP_DEBUG)
// A debug build walks the page's free list to catch any slot released twice.
void Allocator::CheckNotFreeAlready(PageRecord* record, int pos) {
  const int* area = record->Area();
  for (int p = record->FreeHead(); p <= record->Capacity() - record->SlotWords(); p = area[p]) {
    if (p == pos) BadRelease(area + pos, "slot released twice");
    if (area[p] == -1) {
      if (pos >= p) BadRelease(area + pos, "slot never handed out");
      return;
    }
  }
}
#endif

// Within the class the block stays put; beyond 128 bytes the general heap
// takes over. When no new block can be had, the old one is kept and null returned.
void* Allocator::Reallocate(void* block, std::size_t n) {
  if (n == 0) {
    Free(block);
    return nullptr;
  }
  const int oldBytes = RecordOf(block)->SlotWords() * 4;
  if (n <= kLargestTiny && n <= static_cast<std::size_t>(oldBytes)) return block;
  void* fresh = n <= kLargestTiny ? Allocate(n) : supplier_.Malloc(kLabel, n);
  if (fresh == nullptr) return nullptr;
  std::memcpy(fresh, block, oldBytes);
  Free(block);
  return fresh;
}

int Allocator::PageCount() const {
  int pages = 0;
  for (unsigned int n = 0; n < nextNumber_; ++n)
    if (At(static_cast<int>(n)).record != nullptr) ++pages;
  return pages;
}

// Creation happens once; a thread that loses a race gives its object back.
Allocator* Instance() {
  Allocator* existing = __atomic_load_n(&g_allocator, __ATOMIC_ACQUIRE);
  if (existing != nullptr) return existing;
  void* memory = g_switches.useGeneralHeap ? dlmalloc(sizeof(Allocator)) : mem_Malloc(sizeof(Allocator));
  if (memory == nullptr) {
    std::fprintf(stderr, "ERROR: small-object allocator: no memory for the allocator itself\n");
    std::fflush(stderr);
    std::abort();
  }
  auto* mine = new (memory) Allocator();
  Allocator* expected = nullptr;
  if (__atomic_compare_exchange_n(&g_allocator, &expected, mine, false, __ATOMIC_ACQ_REL, __ATOMIC_ACQUIRE))
    return mine;
  g_switches.useGeneralHeap ? dlfree(memory) : mem_Free(memory);
  return expected;
}

void* Reallocate(void* block, std::size_t n) {
  Allocator& a = Get();
  LockScope lock(true);
  return a.Reallocate(block, n);
}

void SetLocking(bool on) {
  Get();
  g_lockSwitch = on;
}

}  // namespace small_objects

void LockSmallObjectsForFork() { small_objects::g_lock.Acquire(); }
void UnlockSmallObjectsAfterFork() { small_objects::g_lock.Release(); }
void ResetSmallObjectsInForkChild() { small_objects::g_lock.ResetInForkChild(); }

}  // namespace mem_internal
}  // namespace zmx
