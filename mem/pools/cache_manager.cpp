// Cache items and the cache manager: four circular purge lists linked by pool
// and handle, insertion by priority and policy, and purging for a byte count.
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "mem/pools/cache_manager.h"
#include "mem/pools/cache_pool.h"

namespace {

constexpr int kLists = 4;
constexpr int kAlwaysList = 3;
const char* const kListNames[kLists] = {"PRIORITY_1", "PRIORITY_2", "PRIORITY_3", "ALWAYS"};

[[noreturn]] void ManagerMisuse(const char* what, int value) {
  std::fprintf(stderr, "ERROR: mem_CacheManager::AddItem: %s %d out of range\n", what, value);
  std::fflush(stderr);
  std::abort();
}

// Linking an item a second time would leave its first list pointing at it.
[[noreturn]] void AlreadyLinked(mem_CachePoolID id) {
  std::fprintf(stderr, "ERROR: mem_CacheManager::AddItem: item 0x%08x already linked\n", id);
  std::fflush(stderr);
  std::abort();
}

// Asks until the item reports enough or repeats itself: an item that never
// grows must not hold the purge for ever.
std::uint64_t AskAvailable(mem_CacheItem* item, std::uint64_t bytes) {
  std::uint64_t available = item->AvailableSize();
  while (available < bytes) {
    const std::uint64_t again = item->AvailableSize();
    if (again == available) break;
    available = again;
  }
  return available;
}

}  // namespace

mem_CacheItem* mem_CacheItemPtr::Ptr() const {
  return pool_ == nullptr ? nullptr : id_.Ptr(pool_);
}

// ------------------------------------------------------------------- items

void mem_CacheItem::InsertItem(mem_CacheItemPtr& head) {
  const mem_CacheItemPtr self = Self();
  mem_CacheItem* front = head.Ptr();
  if (front == nullptr) {
    next_ = last_ = self;
    return;
  }
  const mem_CacheItemPtr back = front->last_;
  last_ = back;
  next_ = head;
  back.Ptr()->next_ = self;
  front->last_ = self;
}

mem_CacheItemPtr mem_CacheItem::Remove() {
  const mem_CacheItemPtr self = Self();
  if ((next_.IsNull() && last_.IsNull()) || (next_ == self && last_ == self)) {
    next_ = last_ = mem_CacheItemPtr();
    return mem_CacheItemPtr();
  }
  const mem_CacheItemPtr successor = next_;
  next_.Ptr()->last_ = last_;
  last_.Ptr()->next_ = next_;
  next_ = last_ = mem_CacheItemPtr();
  return successor;
}

// ----------------------------------------------------------------- manager

mem_CacheManager::mem_CacheManager(const char* name) : heads_(new mem_CacheItemPtr[kLists]) {
  std::strncpy(name_, name != nullptr ? name : "", 16);
  name_[16] = '\0';
}

mem_CacheManager::~mem_CacheManager() { delete[] heads_; }

void mem_CacheManager::AddItem(mem_CachePriorityEnm priority, mem_CachePolicyEnm policy, mem_CacheItemPtr& item) {
  if (policy == MEM_CACHE_NONE) return;
  if (policy < MEM_CACHE_FRONT || policy > MEM_CACHE_ALWAYS) ManagerMisuse("policy", policy);
  if (policy != MEM_CACHE_ALWAYS && (priority < MEM_CACHE_PRIORITY_1 || priority > MEM_CACHE_PRIORITY_ALWAYS))
    ManagerMisuse("priority", priority);
  mem_CacheItem* entry = item.Ptr();
  if (entry == nullptr) return;
  if (!entry->Next().IsNull()) AlreadyLinked(item.Id());
  const int list = policy == MEM_CACHE_ALWAYS ? kAlwaysList : priority - 1;
  const bool wasEmpty = heads_[list].IsNull();
  entry->InsertItem(heads_[list]);
  if (policy == MEM_CACHE_FRONT || wasEmpty) heads_[list] = item;
}

void mem_CacheManager::RemoveItem(mem_CacheItemPtr& item) {
  mem_CacheItem* entry = item.Ptr();
  if (entry == nullptr) return;
  const mem_CacheItemPtr successor = entry->Remove();
  for (int list = 0; list < kLists; ++list) {
    if (heads_[list] == item) {
      heads_[list] = successor;
      break;
    }
  }
}

// Each list is walked from its back. The item just purged is off its list,
// so the walk goes on with the new back; purging the head ends the list.
std::uint64_t mem_CacheManager::Purge(int level, std::uint64_t bytes) {
  std::uint64_t released = 0;
  for (int list = kAlwaysList; list >= 0; --list) {
    const bool taken = list == kAlwaysList || level == 0 || list == level - 1;
    if (!taken) continue;
    while (!heads_[list].IsNull()) {
      const mem_CacheItemPtr head = heads_[list];
      mem_CacheItemPtr current = head.Ptr()->Last();
      mem_CacheItem* item = current.Ptr();
      AskAvailable(item, bytes);
      released = item->Purge();
      RemoveItem(current);
      if (released >= bytes) return released;
      if (current == head) break;
    }
  }
  return released;
}

void mem_CacheManager::DebugPrint() const {
  std::printf("--- Debug Print for CacheManager: %s\n", name_);
  for (int list = 0; list < kLists; ++list) {
    std::printf("   ---Items in purge list %s\n", kListNames[list]);
    const mem_CacheItemPtr head = heads_[list];
    if (head.IsNull()) {
      std::printf("  --Empty--\n");
      continue;
    }
    mem_CacheItemPtr current = head;
    do {
      mem_CacheItem* item = current.Ptr();
      item->DebugPrint();
      current = item->Next();
    } while (!current.IsNull() && current != head);
  }
}
