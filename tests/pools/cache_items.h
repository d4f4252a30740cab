// Cache items for the pool tests: named items living in a pool, with a scripted
// answer to AvailableSize and a fixed Purge result, logging what the manager
// asks of them.
#ifndef ZMXUTI_TESTS_POOLS_CACHE_ITEMS_H
#define ZMXUTI_TESTS_POOLS_CACHE_ITEMS_H

#include <cstdint>
#include <cstdio>
#include <new>
#include <string>

#include "ZMXUTI_CoreUtils.h"

namespace pools_test {

class ScriptedItem : public mem_CacheItem {
 public:
  // AvailableSize answers start, start + step, start + 2 * step, ... (step 0: always start).
  ScriptedItem(mem_CachePool* pool, mem_CachePoolID id, char name, std::uint64_t released, std::string* log,
               std::uint64_t start = 0, std::uint64_t step = 0)
      : pool_(pool), id_(id), name_(name), released_(released), start_(start), step_(step), log_(log) {}

  std::uint64_t AvailableSize() override { return start_ + step_ * asks_++; }
  void DebugPrint() override { std::printf("item %c\n", name_); }
  mem_CacheItemPtr Self() override { return mem_CacheItemPtr(pool_, id_); }
  std::uint64_t Purge() override {
    *log_ += name_;
    return released_;
  }
  int Asks() const { return asks_; }
  char Name() const { return name_; }

  // An item placed in `pool`'s memory; Self() resolves back to it.
  static mem_CacheItemPtr Place(mem_CachePool* pool, char name, std::uint64_t released, std::string* log,
                                std::uint64_t start = 0, std::uint64_t step = 0) {
    const mem_CachePoolID id = pool->Alloc(sizeof(ScriptedItem));
    new (pool->Ptr(id)) ScriptedItem(pool, id, name, released, log, start, step);
    return mem_CacheItemPtr(pool, id);
  }

 private:
  mem_CachePool* pool_;
  mem_CachePoolID id_;
  char name_;
  std::uint64_t released_;
  std::uint64_t start_;
  std::uint64_t step_;
  std::string* log_;
  int asks_ = 0;
};

inline ScriptedItem* As(const mem_CacheItemPtr& p) { return static_cast<ScriptedItem*>(p.Ptr()); }

// A list's names from its head by Next, then "|" and its back's name ("" when empty).
inline std::string ListOf(const mem_CacheManager& manager, int list) {
  const mem_CacheItemPtr head = manager.Head(list);
  if (head.IsNull()) return "";
  std::string names;
  mem_CacheItemPtr at = head;
  do {
    names += As(at)->Name();
    at = at.Ptr()->Next();
  } while (at != head && !at.IsNull() && names.size() < 64);
  return names + "|" + As(head.Ptr()->Last())->Name();
}

}  // namespace pools_test

#endif  // ZMXUTI_TESTS_POOLS_CACHE_ITEMS_H
