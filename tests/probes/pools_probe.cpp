// Fresh-process scenarios for the cache pools and labelled allocators: attempts
// counted by the tracker, purging under the heap's memory limit, and the aborts.
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <new>
#include <vector>

#include "ZMXUTI_CoreUtils.h"
#include "mem/internal/tracker_hooks.h"
#include "probes/probe_main.h"

namespace {

void Up() {
  int depth = 0;
  UTI_CoreUtils_initialize(depth);
}

struct FailureCounter final : zmx::mem_internal::TrackerSink {
  int failed = 0;
  void RecordMalloc(void* block, std::size_t) override { failed += block == nullptr; }
  void RecordFree(void*) override {}
  void RecordNew(void*, std::size_t) override {}
  void RecordDelete(void*) override {}
  void RecordRealloc(void* block, void*, std::size_t) override { failed += block == nullptr; }
  void RecordCalloc(void* block, std::size_t, std::size_t) override { failed += block == nullptr; }
  void RecordValloc(void*, std::size_t) override {}
  void RecordRelease(void*) override {}
  void RecordAcquire(void*) override {}
  void PrepareThread() override {}
} g_failures;

constexpr std::size_t kHuge = std::size_t{1} << 62;

void Attempts() {
  zmx::mem_internal::InstallTrackerSink(&g_failures);
  Up();
  mem_Allocator unbound;
  void* block = unbound.Malloc("probe", 64);
  for (const char* what : {"malloc", "calloc", "realloc"}) {
    g_failures.failed = 0;
    void* r = what[0] == 'm'   ? unbound.Malloc("probe", kHuge)
              : what[0] == 'c' ? unbound.Calloc("probe", kHuge, 2)
                               : unbound.Realloc("probe", block, kHuge);
    std::printf("unbound %s attempts=%d null=%d\n", what, g_failures.failed, r == nullptr);
  }
  unbound.Free("probe", block);
  zmx::mem_internal::InstallTrackerSink(nullptr);
}

constexpr std::size_t kDataBytes = 65536;  // a passthru block, served from the heap's bins

// Cached data: a passthru block filled with the item's number; purging frees it.
struct DataItem : mem_CacheItem {
  mem_CachePool* pool;
  mem_CachePoolID self;
  mem_CachePoolID data;
  int number;
  std::vector<int>* purged;
  DataItem(mem_CachePool* p, mem_CachePoolID s, mem_CachePoolID d, int n, std::vector<int>* log)
      : pool(p), self(s), data(d), number(n), purged(log) {}
  std::uint64_t AvailableSize() override { return data != 0 ? kDataBytes : 0; }
  void DebugPrint() override { std::printf("data item %d\n", number); }
  mem_CacheItemPtr Self() override { return mem_CacheItemPtr(pool, self); }
  std::uint64_t Purge() override {
    if (data == 0) return 0;
    pool->Free(data);
    data = 0;
    purged->push_back(number);
    return kDataBytes;
  }
};

void PrintPurged(const char* when, std::vector<int>& purged) {
  std::printf("%s purged:", when);
  for (int n : purged) std::printf(" %d", n);
  std::printf("\n");
  purged.clear();
}

void LimitPurge() {
  Up();
  mem_CacheManager manager("limit");
  mem_DLAllocator allocator(&manager);
  mem_CachePool* pool = mem_CachePool::CreatePool(&allocator);
  std::vector<int> purged;
  std::vector<mem_CachePoolID> items;
  dlmallopt(-5, static_cast<int>(dlmalloc_footprint() + (std::size_t{8} << 20)));
  dlmallopt(-3, 262144);  // the limit is in force from this call on
  // Items join at the front, so the oldest is at the back, where purging starts.
  while (purged.empty() && items.size() < 100000) {
    const mem_CachePoolID data = pool->Alloc(kDataBytes);
    const mem_CachePoolID self = pool->Alloc(sizeof(DataItem));
    if (data == 0 || self == 0) break;
    std::memset(pool->Ptr(data), static_cast<int>(items.size()) & 0xFF, kDataBytes);
    new (pool->Ptr(self)) DataItem(pool, self, data, static_cast<int>(items.size()), &purged);
    mem_CacheItemPtr ptr(pool, self);
    manager.AddItem(MEM_CACHE_PRIORITY_2, MEM_CACHE_FRONT, ptr);
    items.push_back(self);
  }
  std::printf("filled more than 50 items: %d\n", items.size() > 50);
  PrintPurged("while filling", purged);
  void* extra = allocator.Malloc("probe", kDataBytes);
  std::printf("extra block served: %d\n", extra != nullptr);
  PrintPurged("for the extra block", purged);
  bool intact = true;
  for (mem_CachePoolID self : items) {
    const DataItem* item = static_cast<DataItem*>(pool->Ptr(self));
    for (std::size_t i = 0; item->data != 0 && i < kDataBytes; i += 997)
      intact = intact && static_cast<unsigned char*>(pool->Ptr(item->data))[i] == (item->number & 0xFF);
    mem_CacheItemPtr ptr(pool, self);
    manager.RemoveItem(ptr);
  }
  std::printf("remaining data intact: %d\n", intact);
  void* refused = allocator.Malloc("probe", std::size_t{16} << 20);
  std::printf("nothing purgeable: null=%d status=%d\n", refused == nullptr, error_memory_limit());
  PrintPurged("for the refused block", purged);
  allocator.Free("probe", extra);
  pool->Delete();  // with the items and their data
}

void BadHandle() {
  Up();
  mem_Allocator allocator;
  mem_CachePool* pool = mem_CachePool::CreatePool(&allocator);
  const mem_CachePoolID block = pool->Alloc(20000);
  pool->Free(block);
  std::fflush(stdout);
  pool->Free(block);  // freed twice: the record is empty now
  std::printf("not reached\n");
}

// An item added to a list while it is still in one, or at priority 0.
void AddItemMisuse(bool linkedTwice) {
  Up();
  mem_Allocator allocator;
  mem_CacheManager manager("misuse");
  mem_CachePool* pool = mem_CachePool::CreatePool(&allocator);
  const mem_CachePoolID self = pool->Alloc(sizeof(DataItem));
  new (pool->Ptr(self)) DataItem(pool, self, 0, 1, nullptr);
  mem_CacheItemPtr ptr(pool, self);
  manager.AddItem(MEM_CACHE_PRIORITY_2, MEM_CACHE_BACK, ptr);
  std::fflush(stdout);
  manager.AddItem(linkedTwice ? MEM_CACHE_PRIORITY_3 : static_cast<mem_CachePriorityEnm>(0), MEM_CACHE_BACK, ptr);
  std::printf("not reached\n");
}

}  // namespace

int main(int argc, char** argv) {
  static const zmx_probe::Scenario scenarios[] = {
      {"attempts", Attempts},
      {"limit", LimitPurge},
      {"bad_handle", BadHandle},
      {"linked_twice", [] { AddItemMisuse(true); }},
      {"priority_0", [] { AddItemMisuse(false); }},
  };
  return zmx_probe::Dispatch(argc, argv, scenarios);
}
