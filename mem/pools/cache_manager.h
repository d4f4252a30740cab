// Purgeable caches: cache items (recomputable data living in cache pools, linked
// by pool and handle rather than by pointer), the cache manager's four purge
// lists, and the labelled allocators that ask a manager to purge and retry once
// when memory runs out (mem_Allocator over the front door, mem_DLAllocator over
// the general heap).
//
//   mem_CacheManager manager("meshes");
//   mem_DLAllocator allocator(&manager);            // purges when the heap's limit refuses
//   mem_CachePool* pool = mem_CachePool::CreatePool(&allocator);
//   // ... items derived from mem_CacheItem, placed in `pool`, then
//   manager.AddItem(MEM_CACHE_PRIORITY_2, MEM_CACHE_BACK, itemPtr);
#ifndef ZMXUTI_MEM_POOLS_CACHE_MANAGER_H
#define ZMXUTI_MEM_POOLS_CACHE_MANAGER_H

#include <cstddef>
#include <cstdint>
#include <type_traits>

#include "core/export.h"

class mem_CachePool;
class mem_CacheItem;
class mem_CacheManager;

// A 32-bit pool handle: 0 is null; bit 0 clear names a block (index = value >> 1),
// bit 0 set a cluster element (cluster index in bits 1-15, word offset in 16-31).
typedef unsigned int mem_CachePoolID;

// The handle with the type of what it names (T is a pointer type).
template <class T>
class mem_CachePoolIDTyp {
 public:
  mem_CachePoolIDTyp() : id_(0) {}
  mem_CachePoolIDTyp(mem_CachePoolID id) : id_(id) {}  // NOLINT: converts both ways by design
  template <class U>
  mem_CachePoolIDTyp(const mem_CachePoolIDTyp<U>& other) : id_(other.Value()) {}  // NOLINT: retyping keeps the value
  operator mem_CachePoolID() const { return id_; }
  mem_CachePoolID Value() const { return id_; }
  bool IsNull() const { return id_ == 0; }
  // Null for the null handle, else the memory it names in `pool`.
  inline T Ptr(const mem_CachePool* pool) const;
  bool operator==(const mem_CachePoolIDTyp& other) const { return id_ == other.id_; }
  bool operator!=(const mem_CachePoolIDTyp& other) const { return id_ != other.id_; }

 private:
  mem_CachePoolID id_;
};

// A handle against a plain value (`h == 0`, `h != id`), without an ambiguous conversion.
template <class T, class V, typename std::enable_if<std::is_integral<V>::value, int>::type = 0>
bool operator==(const mem_CachePoolIDTyp<T>& h, V v) { return h.Value() == static_cast<mem_CachePoolID>(v); }
template <class T, class V, typename std::enable_if<std::is_integral<V>::value, int>::type = 0>
bool operator==(V v, const mem_CachePoolIDTyp<T>& h) { return h == v; }
template <class T, class V, typename std::enable_if<std::is_integral<V>::value, int>::type = 0>
bool operator!=(const mem_CachePoolIDTyp<T>& h, V v) { return !(h == v); }
template <class T, class V, typename std::enable_if<std::is_integral<V>::value, int>::type = 0>
bool operator!=(V v, const mem_CachePoolIDTyp<T>& h) { return !(h == v); }

// A cache item's address that stays valid while its pool moves memory: pool and handle.
class ZMXUTI_API mem_CacheItemPtr {
 public:
  mem_CacheItemPtr() : pool_(nullptr), id_(0) {}
  mem_CacheItemPtr(mem_CachePool* pool, mem_CachePoolIDTyp<mem_CacheItem*> id) : pool_(pool), id_(id) {}

  mem_CacheItem* Ptr() const;  // null for the null handle
  mem_CachePool* Pool() const { return pool_; }
  mem_CachePoolIDTyp<mem_CacheItem*> Id() const { return id_; }
  bool IsNull() const { return id_.IsNull(); }
  bool operator==(const mem_CacheItemPtr& o) const { return pool_ == o.pool_ && id_ == o.id_; }
  bool operator!=(const mem_CacheItemPtr& o) const { return !(*this == o); }

 private:
  mem_CachePool* pool_;
  mem_CachePoolIDTyp<mem_CacheItem*> id_;
};

// Base of a client's cached objects. An item is unlinked (both links null) or in
// exactly one circular purge list. Its memory belongs to the pool holding it:
// `delete` on an item does nothing; the pool's Free returns the memory.
class ZMXUTI_API mem_CacheItem {
 public:
  mem_CacheItem() = default;

  virtual std::uint64_t AvailableSize() = 0;  // bytes purging would give back now
  virtual void DebugPrint() = 0;
  virtual mem_CacheItemPtr Self() = 0;        // this item's own pool and handle
  // Drops the cached data; bytes released. The item itself stays in its pool:
  // the manager unlinks it right after.
  virtual std::uint64_t Purge() = 0;

  // Links this item in before the item `head` names (a list of one when `head` is null).
  void InsertItem(mem_CacheItemPtr& head);
  // Unlinks this item; its former successor, or null when the list became empty
  // or the item was not linked.
  mem_CacheItemPtr Remove();
  mem_CacheItemPtr Next() const { return next_; }
  mem_CacheItemPtr Last() const { return last_; }

  static void operator delete(void*) {}  // deliberately nothing: the pool owns the memory
  static void* operator new(std::size_t, void* place) { return place; }

 protected:
  ~mem_CacheItem() = default;  // non-virtual, as the pools destroy nothing through it

 private:
  mem_CacheItemPtr next_;
  mem_CacheItemPtr last_;
};

// Which list an item joins: priority p goes to list p - 1; the fourth list,
// "ALWAYS", is purged first whatever the level.
enum mem_CachePriorityEnm {
  MEM_CACHE_PRIORITY_1 = 1,
  MEM_CACHE_PRIORITY_2 = 2,
  MEM_CACHE_PRIORITY_3 = 3,
  MEM_CACHE_PRIORITY_ALWAYS = 4
};
// Where an item joins its list.
enum mem_CachePolicyEnm {
  MEM_CACHE_FRONT = 0,   // becomes the head
  MEM_CACHE_BACK = 1,    // joins at the back
  MEM_CACHE_NONE = 2,    // not cached: AddItem does nothing
  MEM_CACHE_ALWAYS = 3   // back of the "ALWAYS" list, whatever the priority
};

// Four purge lists of cache items; owns neither items nor memory.
class ZMXUTI_API mem_CacheManager {
 public:
  explicit mem_CacheManager(const char* name);  // at most 16 characters are kept
  ~mem_CacheManager();                          // items stay linked as they are
  mem_CacheManager(const mem_CacheManager&) = delete;
  mem_CacheManager& operator=(const mem_CacheManager&) = delete;

  // Aborts ("ERROR: mem_CacheManager::AddItem: ...") on a priority or policy out
  // of range and on an item already in a list (remove it first to move it).
  void AddItem(mem_CachePriorityEnm priority, mem_CachePolicyEnm policy, mem_CacheItemPtr& item);
  void RemoveItem(mem_CacheItemPtr& item);
  void DebugPrint() const;  // on standard output

  const char* Name() const { return name_; }
  // The head of list 0..3 (null when empty).
  mem_CacheItemPtr Head(int list) const { return list >= 0 && list < 4 ? heads_[list] : mem_CacheItemPtr(); }
  // Purges for `bytes`: list "ALWAYS", then for level 0 lists 2, 1, 0 or for
  // level 1..3 list level-1, each from its back. An item is asked AvailableSize
  // until it reports `bytes` or gives the same answer twice in a row, then
  // purged and removed; an amount >= `bytes` ends the purge, purging a list's
  // head ends that list. Returns what the last purged item released (0: none).
  std::uint64_t Purge(int level, std::uint64_t bytes);

 private:
  char name_[17];
  mem_CacheItemPtr* heads_;
};

// A labelled allocator over the front door (mem_Malloc family). A failed
// allocation asks the bound manager to purge for the requested size (level 0)
// and is tried exactly once more; the second result is returned as it is.
class ZMXUTI_API mem_Allocator {
 public:
  explicit mem_Allocator(mem_CacheManager* manager = nullptr) : manager_(manager) {}
  mem_Allocator(const mem_Allocator& other) = default;
  virtual ~mem_Allocator();

  // Purges for `size` (the element size, deliberately not count * size).
  virtual void* Calloc(const char* name, std::size_t count, std::size_t size);
  virtual void* Malloc(const char* name, std::size_t size);
  virtual void* Realloc(const char* name, void* block, std::size_t size);
  virtual void Free(const char* name, void* block);
  virtual mem_Allocator* Clone();

  mem_CacheManager* Manager() const { return manager_; }

 protected:
  // Asks the manager to purge for `bytes`; 0 without a manager.
  std::uint64_t PurgeFor(std::size_t bytes);

 private:
  mem_CacheManager* manager_;
};

// A labelled allocator straight over the general heap (dlmalloc and kin). When
// the heap refuses (its memory limit, say), the bound manager purges and the
// request is tried once more; without a manager it is simply tried twice.
class ZMXUTI_API mem_DLAllocator : public mem_Allocator {
 public:
  explicit mem_DLAllocator(mem_CacheManager* manager = nullptr) : mem_Allocator(manager) {}
  mem_DLAllocator(const mem_DLAllocator& other) = default;
  ~mem_DLAllocator() override;

  void* Malloc(const char* name, std::size_t size) override;
  void* Realloc(const char* name, void* block, std::size_t size) override;
  void Free(const char* name, void* block) override;
  mem_Allocator* Clone() override;  // through mem_OperatorNewTinyThrow
  // `size` bytes aligned to `alignment` (dlmemalign), with the same purge and retry.
  void* AlignedAlloc(const char* name, std::size_t alignment, std::size_t size);

  static void* operator new(std::size_t size);
  static void operator delete(void* block);
};

#endif  // ZMXUTI_MEM_POOLS_CACHE_MANAGER_H
