// The cache pool's clusters: which cluster serves a request, the per-class
// lists and variable-space buckets clusters are filed in, opening clusters and
// closing them when they empty, and moves of elements between clusters.
#include <cstring>
#include <new>

#include "mem/pools/cache_pool.h"
#include "mem/pools/internal/cache_pool_detail.h"
#include "mem/pools/internal/pool_memory.h"

using zmx::mem_internal::InvalidHandle;
namespace detail = zmx::mem_internal::cache_pool;

mem_CachePoolIDTyp<void*> mem_CachePool::TryCluster(mem_Cluster* c, int sizeClass, std::uint64_t size) {
  const int offset = c->Allocate(sizeClass, static_cast<std::size_t>(size));
  if (offset < 0) return 0;
  Refile(c, sizeClass);
  return detail::ClusterHandle(c->Index(), offset);
}

// The class's own clusters first (dropping those that turn out full), then one
// cluster with plenty of variable space to cut a new region from.
mem_CachePoolIDTyp<void*> mem_CachePool::AllocFixedClass(int sizeClass, std::uint64_t size) {
  const bool listEmpty = classHeads_[sizeClass] < 0;
  for (int index = classHeads_[sizeClass]; index >= 0;) {
    mem_Cluster* cluster = (*clusters_)[static_cast<std::size_t>(index)];
    const int next = cluster->classNext_[sizeClass];
    const mem_CachePoolIDTyp<void*> id = TryCluster(cluster, sizeClass, size);
    if (!id.IsNull()) return id;
    UnlinkClass(cluster, sizeClass);
    index = next;
  }
  const int fallback = buckets_[6] >= 0 ? 6 : 7;
  if (listEmpty && fallback == 6 && buckets_[7] >= 0) {
    const mem_CachePoolIDTyp<void*> id = TryCluster((*clusters_)[static_cast<std::size_t>(buckets_[7])], sizeClass, size);
    if (!id.IsNull()) return id;
  }
  if (buckets_[fallback] < 0) return 0;
  return TryCluster((*clusters_)[static_cast<std::size_t>(buckets_[fallback])], sizeClass, size);
}

// The last cluster used, then the head of each bucket that can hold the run.
mem_CachePoolIDTyp<void*> mem_CachePool::AllocVariable(std::uint64_t size) {
  if (recent_ != nullptr) {
    const mem_CachePoolIDTyp<void*> id = TryCluster(recent_, detail::kVariableClass, size);
    if (!id.IsNull()) return id;
  }
  for (int bucket = detail::RequestBucket(size); bucket < kBuckets; ++bucket) {
    if (buckets_[bucket] < 0) continue;
    mem_Cluster* cluster = (*clusters_)[static_cast<std::size_t>(buckets_[bucket])];
    const mem_CachePoolIDTyp<void*> id = TryCluster(cluster, detail::kVariableClass, size);
    if (!id.IsNull()) return id;
    UnlinkBucket(cluster);
    FileByFreeSpace(cluster);
  }
  return 0;
}

mem_CachePoolIDTyp<void*> mem_CachePool::AllocFresh(int sizeClass, std::uint64_t size) {
  mem_Cluster* cluster = OpenCluster();
  if (cluster == nullptr) return 0;
  const mem_CachePoolIDTyp<void*> id = TryCluster(cluster, sizeClass, size);
  if (id.IsNull()) CloseCluster(cluster);  // an empty cluster holds any cluster request; kept for safety
  return id;
}

// A cluster record from the free list gets new memory; otherwise a new record
// and a new index. Nothing of the pool's state is held across the allocator's
// calls, since a purge may free into this pool meanwhile.
mem_Cluster* mem_CachePool::OpenCluster() {
  if (freeClusters_ >= 0) {
    const int index = freeClusters_;
    mem_Cluster* cluster = (*clusters_)[static_cast<std::size_t>(index)];
    freeClusters_ = cluster->next_;
    cluster->next_ = -1;
    if (cluster->Open(allocator_)) return cluster;
    cluster->next_ = freeClusters_;
    freeClusters_ = index;
    return nullptr;
  }
  if (clusterCount_ >= detail::kMaxClusters || !clusters_->Reserve(static_cast<std::size_t>(clusterCount_)))
    return nullptr;
  int* record = FixedBlockAlloc(true);
  if (record == nullptr) return nullptr;
  const int index = clusterCount_++;
  mem_Cluster* cluster = new (record) mem_Cluster(index);
  (*clusters_)[static_cast<std::size_t>(index)] = cluster;
  if (cluster->Open(allocator_)) return cluster;
  cluster->next_ = freeClusters_;
  freeClusters_ = index;
  return nullptr;
}

void mem_CachePool::CloseCluster(mem_Cluster* c) {
  for (int sizeClass = 0; sizeClass < kFixedClasses; ++sizeClass) UnlinkClass(c, sizeClass);
  UnlinkBucket(c);
  if (recent_ == c) recent_ = nullptr;
  c->Destroy(allocator_, c->Index());
  c->prev_ = -1;
  c->next_ = freeClusters_;
  freeClusters_ = c->Index();
}

// ------------------------------------------------------------------ filing

void mem_CachePool::Refile(mem_Cluster* c, int sizeClass) {
  recent_ = c;
  if (sizeClass < kFixedClasses && classHeads_[sizeClass] != c->Index()) {
    UnlinkClass(c, sizeClass);
    LinkClass(c, sizeClass);
  }
  FileByFreeSpace(c);
}

void mem_CachePool::FileByFreeSpace(mem_Cluster* c) {
  const int largest = c->LargestFree();
  const int bucket = detail::FreeSpaceBucket(largest);
  if (buckets_[bucket] == c->Index()) return;
  UnlinkBucket(c);
  if (largest >= 33) LinkBucket(c, bucket);
}

void mem_CachePool::LinkClass(mem_Cluster* c, int sizeClass) {
  const int head = classHeads_[sizeClass];
  c->classPrev_[sizeClass] = -1;
  c->classNext_[sizeClass] = head;
  if (head >= 0) (*clusters_)[static_cast<std::size_t>(head)]->classPrev_[sizeClass] = c->Index();
  classHeads_[sizeClass] = c->Index();
}

void mem_CachePool::UnlinkClass(mem_Cluster* c, int sizeClass) {
  const int prev = c->classPrev_[sizeClass];
  const int next = c->classNext_[sizeClass];
  if (prev < 0 && classHeads_[sizeClass] != c->Index()) return;  // not on the list
  if (prev >= 0)
    (*clusters_)[static_cast<std::size_t>(prev)]->classNext_[sizeClass] = next;
  else
    classHeads_[sizeClass] = next;
  if (next >= 0) (*clusters_)[static_cast<std::size_t>(next)]->classPrev_[sizeClass] = prev;
  c->classPrev_[sizeClass] = c->classNext_[sizeClass] = -1;
}

void mem_CachePool::LinkBucket(mem_Cluster* c, int bucket) {
  const int head = buckets_[bucket];
  c->bucket_ = bucket;
  c->prev_ = -1;
  c->next_ = head;
  if (head >= 0) (*clusters_)[static_cast<std::size_t>(head)]->prev_ = c->Index();
  buckets_[bucket] = c->Index();
}

void mem_CachePool::UnlinkBucket(mem_Cluster* c) {
  if (c->bucket_ < 0) return;
  if (c->prev_ >= 0)
    (*clusters_)[static_cast<std::size_t>(c->prev_)]->next_ = c->next_;
  else
    buckets_[c->bucket_] = c->next_;
  if (c->next_ >= 0) (*clusters_)[static_cast<std::size_t>(c->next_)]->prev_ = c->prev_;
  c->prev_ = c->next_ = c->bucket_ = -1;
}

// ------------------------------------------------------ free and realloc

void mem_CachePool::FreeInCluster(mem_CachePoolID id) {
  mem_Cluster* cluster = ClusterAt(id);
  const int sizeClass = cluster->Release(static_cast<int>(id >> 16));
  if (cluster->Empty())
    CloseCluster(cluster);
  else
    Refile(cluster, sizeClass);
}

// Grows in place when it can, else moves within the cluster, else anywhere.
mem_CachePoolIDTyp<void*> mem_CachePool::ReAllocInCluster(mem_CachePoolID id, std::uint64_t size) {
  mem_Cluster* cluster = ClusterAt(id);
  const int offset = static_cast<int>(id >> 16);
  const int oldClass = cluster->ClassAt(offset);
  const std::size_t oldBytes = cluster->ElementBytes(offset);
  if (oldBytes == 0) InvalidHandle(id, "no element at this offset");
  // A variable run may hold a few bytes more than 16384, yet a larger request
  // always becomes a block of its own (given no more than the block holds).
  if (size <= kLargestClusterRequest) {
    if (size <= oldBytes) return id;
    const int newClass = detail::SizeClass(size);
    int* words = cluster->Words();
    int moved = -1;
    if (oldClass == detail::kVariableClass && newClass == detail::kVariableClass)
      moved = cluster->Variable()->Reallocate(words, offset, static_cast<std::size_t>(size));
    if (moved < 0) {
      moved = cluster->Allocate(newClass, static_cast<std::size_t>(size));
      if (moved >= 0) {
        std::memcpy(words + moved, words + offset, oldBytes);
        cluster->Release(offset);
        if (oldClass != newClass) Refile(cluster, oldClass);
      }
    }
    if (moved >= 0) {
      Refile(cluster, newClass);
      return detail::ClusterHandle(cluster->Index(), moved);
    }
  }
  const mem_CachePoolIDTyp<void*> fresh = Alloc(size);
  if (fresh.IsNull()) return 0;
  std::memcpy(Ptr(fresh), Ptr(id), size < oldBytes ? static_cast<std::size_t>(size) : oldBytes);
  Free(id);
  return fresh;
}
