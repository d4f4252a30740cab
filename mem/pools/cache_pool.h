// Cache pools: memory handed out by 32-bit handle instead of by pointer, so the
// pool may place it where it likes. Requests up to 16384 bytes are carved out of
// 256 KiB clusters (fixed 4 KiB regions per size class up to 128 bytes, a
// best-fit variable region for the rest); larger ("passthru") requests get a
// block of their own. All of a pool's memory, its tables and record pages
// included, comes from its mem_Allocator, so any failure can make the cache
// manager purge. One thread at a time.
//
//   mem_DLAllocator allocator(&manager);
//   mem_CachePool* pool = mem_CachePool::CreatePool(&allocator);
//   mem_CachePoolIDTyp<double*> h = pool->Alloc(10 * sizeof(double));
//   h.Ptr(pool)[3] = 1.0;   // resolve only for the moment of use
//   pool->Free(h);
//   pool->Delete();
#ifndef ZMXUTI_MEM_POOLS_CACHE_POOL_H
#define ZMXUTI_MEM_POOLS_CACHE_POOL_H

#include <cstddef>
#include <cstdint>

#include "core/export.h"
#include "mem/pools/cache_manager.h"
#include "mem/pools/region.h"

namespace zmx {
namespace mem_internal {
template <class T, unsigned int kChunkEntries>
class BlockedTable;
}  // namespace mem_internal
}  // namespace zmx

// The record of one block-table entry: a passthru or adopted block, a record
// page, or (as mem_Cluster) a cluster. 32 bytes.
class ZMXUTI_API mem_Block {
 public:
  enum StateEnm { EMPTY = 0, OWNED = 1, NOT_OWNED = 2, RECORD_PAGE = 3 };

  mem_Block() : data_(nullptr), size_(0), prev_(-1), next_(-1), state_(EMPTY) {}
  virtual ~mem_Block();
  // Releases the memory and ends the record.
  virtual void Destroy(mem_Allocator* a, int index);
  virtual void DebugPrint() const;  // "mem_Block: Size = %d\n" (words)

  void* Data() const { return data_; }
  unsigned int Words() const { return size_; }
  int State() const { return state_; }
  // Stores pointer and size in words; unless the memory is not owned (state 2)
  // the state becomes 1 for a pointer and 0 for null.
  void SetMemory(void* data, unsigned int words);
  // Clears pointer and size; owned memory (a cluster's 256 KiB included) goes
  // back through a->Free("mem_Block"), the allocator it came from (also in a
  // process on the runtime heap, so that a general-heap allocator's memory
  // never reaches the runtime's free). Nothing happens in state 0.
  void ReleaseMemory(mem_Allocator* a);

 protected:
  friend class mem_CachePool;
  void* data_;
  unsigned int size_;  // words
  int prev_;           // neighbours on the list the record is on, -1 for none
  int next_;
  int state_;
};

// A 4096-byte record page taken from the allocator ("mem_FixedBlock"): the page
// object sits at the head of its own page and lays a fixed region over the
// rest, which hands out block records (8 words) or cluster records (106 words).
// Pages are entered in the block table in state 3 and chained per kind by the
// block's next link.
class ZMXUTI_API mem_FixedBlock : public mem_Block {
 public:
  static constexpr int kPageBytes = 4096;
  // A new page for records of `recordWords` words; null when the allocator fails.
  static mem_FixedBlock* Create(mem_Allocator* a, int recordWords);
  ~mem_FixedBlock() override;
  void Destroy(mem_Allocator* a, int index) override;  // the page, this record included
  void* TakeRecord();  // null when the page is full

 private:
  mem_FixedBlock(int* page, int recordWords);
  static unsigned int RegionBase(const mem_FixedBlock* self);
  int* Page() const { return static_cast<int*>(Data()); }
  mem_FixedRegion region_;  // over this page, based at its own first word
};

// A cluster record (424 bytes): 256 KiB of memory ("mem_Cluster", 0x10000
// words) laid out as one variable region from word 0, out of which 1024-word
// fixed regions of one size class are cut (region r, 1..63, holds its region
// object at word r * 1024). Its block links file it in the pool's variable-
// space buckets or on the free cluster list.
class ZMXUTI_API mem_Cluster : public mem_Block {
 public:
  static constexpr int kWords = 0x10000;
  static constexpr int kRegions = 64;
  static constexpr int kRegionWords = 1024;
  static constexpr int kClasses = 11;  // 0..9 fixed, 10 variable
  static constexpr int kVariable = 10;
  static constexpr int kUnused = 11;  // region kind: not in use

  explicit mem_Cluster(int index);
  ~mem_Cluster() override;
  // Releases the cluster memory (the regions end with it); the record stays.
  void Destroy(mem_Allocator* a, int index) override;
  void DebugPrint() const override;  // "Allocated Regions:\n", then each region's print
  // "Cluster %d: alloc=%d\n", then the element bytes of each region ("%d ", 0 for variable).
  void DebugSummary() const;

  int Index() const { return index_; }
  int AllocatedWords() const;  // words in use in the variable region (fixed regions count whole)

 private:
  friend class mem_CachePool;
  int* Words() const { return static_cast<int*>(Data()); }
  mem_VariableRegion* Variable() const;
  mem_FixedRegion* Fixed(int region) const;
  // Takes fresh memory and lays out the empty variable region; false on failure.
  bool Open(mem_Allocator* a);
  // A word offset for `bytes` of class `sizeClass`, or -1 when the cluster has no room.
  int Allocate(int sizeClass, std::size_t bytes);
  int AllocateFixed(int sizeClass);
  int CutRegion(int sizeClass);
  // Frees the element at `offset`; returns its class.
  int Release(int offset);
  // The class of the element at `offset` (10 for the variable region).
  int ClassAt(int offset) const;
  // Usable bytes of the element at `offset`; aborts when it names no element.
  std::size_t ElementBytes(int offset) const;
  bool Empty() const;
  int LargestFree() const;

  int index_;
  int current_[kClasses];    // current region per class, -1 none
  int classNext_[kClasses];  // links in the pool's per-class cluster lists
  int classPrev_[kClasses - 1];
  int bucket_;               // the variable-space bucket holding the cluster, -1 none
  unsigned int kinds_[kRegions];
};

class ZMXUTI_API mem_CachePool {
 public:
  // The pool object comes from a->Malloc("mem_CachePool", ...); null on failure.
  static mem_CachePool* CreatePool(mem_Allocator* a);
  // Destroys the pool (every block and cluster released) and returns its memory.
  void Delete();

  mem_Allocator* Allocator() const { return allocator_; }

  mem_CachePoolIDTyp<void*> Alloc(std::uint64_t size);  // 0 bytes: the null handle
  // Size 0 returns the null handle and keeps the old allocation (deliberately);
  // the null handle allocates anew. On failure the null handle, the old kept.
  mem_CachePoolIDTyp<void*> ReAlloc(mem_CachePoolID id, std::uint64_t size);
  // Puts memory `p` of `size` bytes under a new block handle; the pool owns it
  // from then on and returns it as it returns its own blocks, so `p` must come
  // from this pool's allocator. A null `p` gives the null handle.
  mem_CachePoolIDTyp<void*> Adopt(std::uint64_t size, void* p);
  void Free(mem_CachePoolID id);  // the null handle does nothing
  // The memory a handle names now (null for the null handle). Free, ReAlloc and
  // Ptr abort with "ERROR: mem_CachePool: invalid handle ..." on a handle whose
  // block or cluster is not in use.
  void* Ptr(mem_CachePoolID id) const;

  void DebugPrint() const;
  void DebugSummary() const;

 private:
  explicit mem_CachePool(mem_Allocator* a);
  ~mem_CachePool();
  mem_CachePool(const mem_CachePool&) = delete;
  mem_CachePool& operator=(const mem_CachePool&) = delete;

  using BlockTable = zmx::mem_internal::BlockedTable<mem_Block*, 1024>;
  using ClusterTable = zmx::mem_internal::BlockedTable<mem_Cluster*, 64>;
  static constexpr int kFixedClasses = 10;
  static constexpr int kBuckets = 8;
  static constexpr std::uint64_t kLargestClusterRequest = 16384;

  // Records and handles.
  mem_Block* BlockAt(mem_CachePoolID id) const;      // aborts on a bad block handle
  mem_Cluster* ClusterAt(mem_CachePoolID id) const;  // aborts on a bad cluster handle
  int* FixedBlockAlloc(bool cluster);
  int NewBlockRecord();  // a free or new block index with its record, -1 when none
  mem_CachePoolIDTyp<void*> FileBlock(void* data, std::uint64_t size);

  // Clusters.
  mem_CachePoolIDTyp<void*> AllocFixedClass(int sizeClass, std::uint64_t size);
  mem_CachePoolIDTyp<void*> AllocVariable(std::uint64_t size);
  mem_CachePoolIDTyp<void*> AllocFresh(int sizeClass, std::uint64_t size);
  mem_CachePoolIDTyp<void*> TryCluster(mem_Cluster* c, int sizeClass, std::uint64_t size);
  mem_Cluster* OpenCluster();
  void Refile(mem_Cluster* c, int sizeClass);
  void FileByFreeSpace(mem_Cluster* c);
  void LinkClass(mem_Cluster* c, int sizeClass);
  void UnlinkClass(mem_Cluster* c, int sizeClass);
  void LinkBucket(mem_Cluster* c, int bucket);
  void UnlinkBucket(mem_Cluster* c);
  void CloseCluster(mem_Cluster* c);
  void FreeInCluster(mem_CachePoolID id);
  mem_CachePoolIDTyp<void*> ReAllocInCluster(mem_CachePoolID id, std::uint64_t size);

  mem_Allocator* allocator_;
  BlockTable* blocks_;      // both tables live right behind the pool object, in its allocation
  int blockCount_;
  ClusterTable* clusters_;
  int clusterCount_;
  int classHeads_[kFixedClasses];
  int freeBlocks_;
  int buckets_[kBuckets];
  int freeClusters_;
  mem_Cluster* recent_;       // the most recently re-filed cluster
  mem_FixedBlock* blockPage_;    // current record pages
  mem_FixedBlock* clusterPage_;
};

template <class T>
inline T mem_CachePoolIDTyp<T>::Ptr(const mem_CachePool* pool) const {
  return id_ == 0 ? nullptr : static_cast<T>(pool->Ptr(id_));
}

#endif  // ZMXUTI_MEM_POOLS_CACHE_POOL_H
