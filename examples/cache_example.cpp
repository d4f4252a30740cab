// Purgeable caches in a few lines: recomputable tables live in a cache pool under
// 32-bit handles and are registered with a cache manager; when the general
// heap's memory limit refuses a request made through a labelled allocator, the
// manager purges a table and the request is tried once more. Also switches the
// small-object allocator on and shows where small blocks go.
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <new>

#include "ZMXUTI_CoreUtils.h"

namespace {

constexpr std::size_t kTableBytes = 1 << 20;

// A table that can be recomputed: the item lives in the pool, its values in a
// block of their own (a passthru block) that Purge gives back.
class CachedTable : public mem_CacheItem {
 public:
  CachedTable(mem_CachePool* pool, mem_CachePoolID self) : pool_(pool), self_(self) {
    values_ = pool->Alloc(kTableBytes);
    if (double* v = values_.Ptr(pool_)) v[0] = 42.0;  // "computed"
  }
  bool Present() const { return values_ != 0; }

  std::uint64_t AvailableSize() override { return Present() ? kTableBytes : 0; }
  void DebugPrint() override { std::printf("  table %u%s\n", self_, Present() ? "" : " (purged)"); }
  mem_CacheItemPtr Self() override { return mem_CacheItemPtr(pool_, self_); }
  std::uint64_t Purge() override {
    if (!Present()) return 0;
    pool_->Free(values_);
    values_ = 0;
    return kTableBytes;
  }

  // Places a new table in `pool`'s memory.
  static mem_CacheItemPtr Create(mem_CachePool* pool) {
    const mem_CachePoolID self = pool->Alloc(sizeof(CachedTable));
    if (self == 0) return mem_CacheItemPtr();
    new (pool->Ptr(self)) CachedTable(pool, self);
    return mem_CacheItemPtr(pool, self);
  }

 private:
  mem_CachePool* pool_;
  mem_CachePoolID self_;
  mem_CachePoolIDTyp<double*> values_;
};

CachedTable* Table(const mem_CacheItemPtr& item) { return static_cast<CachedTable*>(item.Ptr()); }

// Which of the first `count` tables are still cached, as a row of + and -.
void PrintCached(const char* when, const mem_CacheItemPtr* tables, int count) {
  char row[65] = {};
  for (int i = 0; i < count; ++i) row[i] = Table(tables[i])->Present() ? '+' : '-';
  std::printf("  %-34s %s\n", when, row);
}

void ShowCaches() {
  std::printf("Caches under a memory limit (+ cached, - purged; oldest first):\n");
  mem_CacheManager manager("tables");
  mem_DLAllocator allocator(&manager);  // purges through `manager` when the heap refuses
  mem_CachePool* pool = mem_CachePool::CreatePool(&allocator);

  // A limit 8 MiB above what the heap holds now; a limit is in force from the next mem_Mallopt call.
  const int limit = static_cast<int>(mem_Footprint() + (8u << 20));
  mem_Mallopt(-5, limit);
  mem_Mallopt(-5, limit);

  // New tables join at the front of their list; purging starts at the back, with the oldest.
  constexpr int kTables = 12;
  mem_CacheItemPtr tables[kTables];
  for (int i = 0; i < kTables; ++i) {
    tables[i] = CachedTable::Create(pool);
    manager.AddItem(MEM_CACHE_PRIORITY_2, MEM_CACHE_FRONT, tables[i]);
  }
  PrintCached("after making 12 tables of 1 MiB:", tables, kTables);

  void* block = allocator.Malloc("example", kTableBytes / 2);  // refused, purge, retried
  std::printf("  a 512 KiB request through the labelled allocator: %s\n", block ? "served" : "refused");
  PrintCached("after it:", tables, kTables);

  allocator.Free("example", block);
  for (mem_CacheItemPtr& table : tables) {
    manager.RemoveItem(table);
    Table(table)->Purge();
    pool->Free(table.Id());
  }
  mem_Mallopt(-5, 0);
  mem_Mallopt(-5, 0);
  pool->Delete();
}

void ShowSmallObjects() {
  std::printf("Small objects:\n");
  mem_TBAllocator(2);  // operator new and mem_Malloc up to 128 bytes go to the small-object allocator
  void* small = mem_Malloc(24);
  void* large = mem_Malloc(200);
  std::printf("  24 bytes at page offset %4u, 200 bytes from the general heap\n",
              static_cast<unsigned>(reinterpret_cast<std::uintptr_t>(small) & 4095));
  mem_Free(small);  // recognised by its page's mark
  mem_Free(large);
  mem_TBAllocator(0);
}

}  // namespace

int main() {
  int depth = 0;
  UTI_CoreUtils_initialize(depth);
  ShowCaches();
  ShowSmallObjects();
  UTI_CoreUtils_finalize(depth);
  return 0;
}
