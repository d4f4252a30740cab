// The cache pool: handles, block records and record pages, passthru and adopted
// blocks, and the pool's life. Cluster filing is in cache_pool_clusters.cpp.
#include <cstdio>
#include <cstring>
#include <new>

#include "mem/pools/cache_pool.h"
#include "mem/pools/internal/cache_pool_detail.h"
#include "mem/pools/internal/pool_memory.h"

using zmx::mem_internal::InvalidHandle;
namespace detail = zmx::mem_internal::cache_pool;

namespace {

// The pool object, then its two tables, in one allocation.
constexpr std::size_t RoundUp(std::size_t n) { return (n + 15) & ~std::size_t{15}; }

}  // namespace

mem_CachePool* mem_CachePool::CreatePool(mem_Allocator* a) {
  if (a == nullptr) return nullptr;
  const std::size_t bytes = RoundUp(sizeof(mem_CachePool)) + RoundUp(sizeof(BlockTable)) + sizeof(ClusterTable);
  void* memory = a->Malloc("mem_CachePool", bytes);
  return memory != nullptr ? new (memory) mem_CachePool(a) : nullptr;
}

mem_CachePool::mem_CachePool(mem_Allocator* a)
    : allocator_(a), blocks_(nullptr), blockCount_(1), clusters_(nullptr), clusterCount_(1), freeBlocks_(-1),
      freeClusters_(-1), recent_(nullptr), blockPage_(nullptr), clusterPage_(nullptr) {
  char* behind = reinterpret_cast<char*>(this) + RoundUp(sizeof(mem_CachePool));
  blocks_ = new (behind) BlockTable(zmx::mem_internal::PoolTableMemory(a), 64);
  clusters_ = new (behind + RoundUp(sizeof(BlockTable))) ClusterTable(zmx::mem_internal::PoolTableMemory(a), 8);
  for (int& head : classHeads_) head = -1;
  for (int& head : buckets_) head = -1;
}

// Records live in the record pages, so the pages go last.
mem_CachePool::~mem_CachePool() {
  for (int i = 1; i < clusterCount_; ++i) {
    mem_Cluster** entry = clusters_->Find(static_cast<std::size_t>(i));
    if (entry == nullptr || *entry == nullptr) continue;
    (*entry)->Destroy(allocator_, i);
    *entry = nullptr;
  }
  for (int i = 1; i < blockCount_; ++i) {
    mem_Block** entry = blocks_->Find(static_cast<std::size_t>(i));
    if (entry == nullptr || *entry == nullptr || (*entry)->State() == mem_Block::RECORD_PAGE) continue;
    (*entry)->ReleaseMemory(allocator_);
    *entry = nullptr;
  }
  for (int i = 1; i < blockCount_; ++i) {
    mem_Block** entry = blocks_->Find(static_cast<std::size_t>(i));
    if (entry == nullptr || *entry == nullptr) continue;
    (*entry)->Destroy(allocator_, i);
    *entry = nullptr;
  }
  blocks_->~BlockTable();
  clusters_->~ClusterTable();
}

void mem_CachePool::Delete() {
  mem_Allocator* a = allocator_;
  this->~mem_CachePool();
  a->Free("mem_CachePool", this);
}

// ---------------------------------------------------------------- handles

mem_Block* mem_CachePool::BlockAt(mem_CachePoolID id) const {
  const unsigned int index = id >> 1;
  if (index == 0 || index >= static_cast<unsigned int>(blockCount_)) InvalidHandle(id, "no such block");
  mem_Block* block = blocks_->Get(index);
  if (block == nullptr || (block->state_ != mem_Block::OWNED && block->state_ != mem_Block::NOT_OWNED))
    InvalidHandle(id, "block not in use");
  return block;
}

mem_Cluster* mem_CachePool::ClusterAt(mem_CachePoolID id) const {
  const unsigned int index = (id >> 1) & 0x7FFF;
  if (index == 0 || index >= static_cast<unsigned int>(clusterCount_)) InvalidHandle(id, "no such cluster");
  mem_Cluster* cluster = clusters_->Get(index);
  if (cluster == nullptr || cluster->Data() == nullptr) InvalidHandle(id, "cluster not in use");
  if (cluster->ClassAt(static_cast<int>(id >> 16)) == mem_Cluster::kUnused) InvalidHandle(id, "region not in use");
  return cluster;
}

void* mem_CachePool::Ptr(mem_CachePoolID id) const {
  if (id == 0) return nullptr;  // the reserved entry 0 holds no memory
  if ((id & 1) == 0) return BlockAt(id)->Data();
  return ClusterAt(id)->Words() + (id >> 16);
}

// ------------------------------------------------------------ record pages

int* mem_CachePool::FixedBlockAlloc(bool cluster) {
  mem_FixedBlock*& current = cluster ? clusterPage_ : blockPage_;
  while (current != nullptr) {
    if (void* record = current->TakeRecord()) return static_cast<int*>(record);
    if (current->next_ < 0) break;
    current = static_cast<mem_FixedBlock*>(blocks_->Get(static_cast<std::size_t>(current->next_)));
  }
  if (blockCount_ >= detail::kMaxBlocks || !blocks_->Reserve(static_cast<std::size_t>(blockCount_))) return nullptr;
  mem_FixedBlock* page = mem_FixedBlock::Create(allocator_, cluster ? detail::kClusterRecordWords
                                                                    : detail::kBlockRecordWords);
  if (page == nullptr) return nullptr;
  const int index = blockCount_++;
  (*blocks_)[static_cast<std::size_t>(index)] = page;
  if (current != nullptr) current->next_ = index;
  current = page;
  return static_cast<int*>(page->TakeRecord());
}

// Entries for a new record and for a record page it may need are reserved
// first, so that a record once taken always finds its entry.
int mem_CachePool::NewBlockRecord() {
  if (freeBlocks_ >= 0) {
    const int index = freeBlocks_;
    mem_Block* block = (*blocks_)[static_cast<std::size_t>(index)];
    freeBlocks_ = block->next_;
    block->next_ = -1;
    return index;
  }
  if (blockCount_ + 1 >= detail::kMaxBlocks) return -1;
  if (!blocks_->Reserve(static_cast<std::size_t>(blockCount_)) ||
      !blocks_->Reserve(static_cast<std::size_t>(blockCount_) + 1))
    return -1;
  int* record = FixedBlockAlloc(false);
  if (record == nullptr) return -1;
  const int index = blockCount_++;
  (*blocks_)[static_cast<std::size_t>(index)] = new (record) mem_Block();
  return index;
}

mem_CachePoolIDTyp<void*> mem_CachePool::FileBlock(void* data, std::uint64_t size) {
  const int index = NewBlockRecord();
  if (index < 0) return 0;
  (*blocks_)[static_cast<std::size_t>(index)]->SetMemory(data, detail::WordsOf(size));
  return static_cast<mem_CachePoolID>(index) << 1;
}

// ------------------------------------------------------------- operations

mem_CachePoolIDTyp<void*> mem_CachePool::Alloc(std::uint64_t size) {
  if (size == 0) return 0;
  if (size > kLargestClusterRequest) {
    if (size > static_cast<std::uint64_t>(static_cast<std::size_t>(-1))) return 0;
    void* memory = allocator_->Malloc("mem_CachePool", static_cast<std::size_t>(size));
    if (memory == nullptr) return 0;
    const mem_CachePoolIDTyp<void*> id = FileBlock(memory, size);
    if (id.IsNull()) allocator_->Free("mem_CachePool", memory);
    return id;
  }
  const int sizeClass = detail::SizeClass(size);
  const mem_CachePoolIDTyp<void*> id = sizeClass < kFixedClasses ? AllocFixedClass(sizeClass, size)
                                                                 : AllocVariable(size);
  return id.IsNull() ? AllocFresh(sizeClass, size) : id;
}

mem_CachePoolIDTyp<void*> mem_CachePool::Adopt(std::uint64_t size, void* p) {
  return p != nullptr ? FileBlock(p, size) : mem_CachePoolIDTyp<void*>();
}

void mem_CachePool::Free(mem_CachePoolID id) {
  if (id == 0) return;
  if (id & 1) {
    FreeInCluster(id);
    return;
  }
  mem_Block* block = BlockAt(id);
  block->ReleaseMemory(allocator_);
  block->data_ = nullptr;
  block->state_ = mem_Block::EMPTY;
  block->prev_ = -1;
  block->next_ = freeBlocks_;
  freeBlocks_ = static_cast<int>(id >> 1);
}

mem_CachePoolIDTyp<void*> mem_CachePool::ReAlloc(mem_CachePoolID id, std::uint64_t size) {
  if (size == 0) return 0;  // the old allocation stays, deliberately
  if (id == 0) return Alloc(size);
  if (id & 1) return ReAllocInCluster(id, size);
  mem_Block* block = BlockAt(id);
  if (size > static_cast<std::uint64_t>(static_cast<std::size_t>(-1))) return 0;
  void* moved = allocator_->Realloc("mem_CachePool", block->Data(), static_cast<std::size_t>(size));
  if (moved == nullptr) return 0;
  block->SetMemory(moved, detail::WordsOf(size));
  return id;
}

// ------------------------------------------------------------------ prints

void mem_CachePool::DebugPrint() const {
  for (int i = 1; i < clusterCount_; ++i) {
    const mem_Cluster* cluster = clusters_->Get(static_cast<std::size_t>(i));
    if (cluster != nullptr && cluster->Data() != nullptr) cluster->DebugPrint();
  }
  for (int i = 1; i < blockCount_; ++i) {
    const mem_Block* block = blocks_->Get(static_cast<std::size_t>(i));
    if (block != nullptr && block->State() != mem_Block::EMPTY) block->DebugPrint();
  }
}

void mem_CachePool::DebugSummary() const {
  long long clusterWords = 0;
  for (int i = 1; i < clusterCount_; ++i) {
    const mem_Cluster* cluster = clusters_->Get(static_cast<std::size_t>(i));
    if (cluster != nullptr) clusterWords += cluster->AllocatedWords();
  }
  int passthruCount = 0;
  long long passthruWords = 0;
  for (int i = 1; i < blockCount_; ++i) {
    const mem_Block* block = blocks_->Get(static_cast<std::size_t>(i));
    if (block == nullptr || block->State() != mem_Block::OWNED) continue;
    ++passthruCount;
    passthruWords += block->Words();
  }
  std::printf("Pool Summary: blockCount=%d, clusterCount=%d, passthruCount=%d\n", blockCount_, clusterCount_ - 1,
              passthruCount);
  std::printf("        PassthruSize=%d, ClusterAlloc=%d\n", static_cast<int>(passthruWords),
              static_cast<int>(clusterWords));
}
