// Clusters of the cache pools: 256 KiB laid out as one variable region, with
// 1024-word fixed regions of one size class cut out of it as classes need them.
#include <cstdio>
#include <new>

#include "mem/pools/cache_pool.h"
#include "mem/pools/internal/pool_memory.h"

namespace {

int SlotWordsOf(int sizeClass) { return sizeClass < 2 ? sizeClass + 1 : 4 * (sizeClass - 1); }

// A fixed region takes the whole claimed block: 1024 words less its header.
constexpr int kFixedCapacity = mem_Cluster::kRegionWords - 2;

}  // namespace

static_assert(sizeof(mem_Cluster) == 424, "cluster records are 106 words");
static_assert(sizeof(mem_VariableRegion) <= 14 * 4, "the variable region object must end before its first block");

mem_Cluster::mem_Cluster(int index) : index_(index), bucket_(-1) {
  for (int c = 0; c < kClasses; ++c) current_[c] = classNext_[c] = -1;
  for (int c = 0; c < kClasses - 1; ++c) classPrev_[c] = -1;
  for (unsigned int& kind : kinds_) kind = kUnused;
}

mem_Cluster::~mem_Cluster() = default;

mem_VariableRegion* mem_Cluster::Variable() const {
  return std::launder(reinterpret_cast<mem_VariableRegion*>(Data()));
}

mem_FixedRegion* mem_Cluster::Fixed(int region) const {
  return std::launder(reinterpret_cast<mem_FixedRegion*>(Words() + region * kRegionWords));
}

bool mem_Cluster::Open(mem_Allocator* a) {
  void* memory = a->Malloc("mem_Cluster", kWords * 4);
  if (memory == nullptr) return false;
  SetMemory(memory, kWords);
  new (memory) mem_VariableRegion(0, kWords, Words());
  for (unsigned int& kind : kinds_) kind = kVariable;
  for (int& region : current_) region = -1;
  return true;
}

// The regions live inside the memory and end with it.
void mem_Cluster::Destroy(mem_Allocator* a, int) {
  if (Data() == nullptr) return;
  for (int r = 1; r < kRegions; ++r)
    if (kinds_[r] < kVariable) Fixed(r)->~mem_FixedRegion();
  Variable()->~mem_VariableRegion();
  ReleaseMemory(a);
  SetMemory(nullptr, 0);
  for (unsigned int& kind : kinds_) kind = kUnused;
  for (int& region : current_) region = -1;
}

int mem_Cluster::Allocate(int sizeClass, std::size_t bytes) {
  if (sizeClass == kVariable) return Variable()->Alloc(Words(), bytes);
  return AllocateFixed(sizeClass);
}

int mem_Cluster::AllocateFixed(int sizeClass) {
  int* words = Words();
  const int current = current_[sizeClass];
  if (current >= 0) {
    const int position = Fixed(current)->TakeSlot(words);
    if (position >= 0) return position;
  }
  for (int r = kRegions - 1; r >= 1; --r) {
    if (r == current || kinds_[r] != static_cast<unsigned int>(sizeClass)) continue;
    const int position = Fixed(r)->TakeSlot(words);
    if (position >= 0) {
      current_[sizeClass] = r;
      return position;
    }
  }
  const int region = CutRegion(sizeClass);
  if (region < 0) return -1;
  current_[sizeClass] = region;
  return Fixed(region)->TakeSlot(words);
}

// Slots are tried from the top so that fixed regions gather at the end of the
// cluster and the variable region's best fit keeps the low words.
int mem_Cluster::CutRegion(int sizeClass) {
  mem_VariableRegion* variable = Variable();
  if (variable->LargestFreeWords() < kRegionWords) return -1;
  int* words = Words();
  for (int r = kRegions - 1; r >= 1; --r) {
    if (kinds_[r] != kVariable || variable->ClaimBlock(words, r * kRegionWords, kRegionWords) < 0) continue;
    new (words + r * kRegionWords)
        mem_FixedRegion(static_cast<unsigned int>(r * kRegionWords), kFixedCapacity, words, SlotWordsOf(sizeClass),
                        sizeClass);
    kinds_[r] = static_cast<unsigned int>(sizeClass);
    return r;
  }
  return -1;
}

int mem_Cluster::ClassAt(int offset) const { return static_cast<int>(kinds_[offset / kRegionWords]); }

int mem_Cluster::Release(int offset) {
  const int region = offset / kRegionWords;
  const int kind = ClassAt(offset);
  int* words = Words();
  if (kind == kVariable) {
    Variable()->Free(words, offset);
    return kind;
  }
  mem_FixedRegion* fixed = Fixed(region);
  if (fixed->Free(words, offset)) {
    fixed->~mem_FixedRegion();
    Variable()->Free(words, region * kRegionWords);
    kinds_[region] = kVariable;
    if (current_[kind] == region) current_[kind] = -1;
  }
  return kind;
}

std::size_t mem_Cluster::ElementBytes(int offset) const {
  const int kind = ClassAt(offset);
  if (kind == kVariable) return static_cast<std::size_t>(Variable()->BlockWords(Words(), offset)) * 4 - 8;
  const mem_FixedRegion* fixed = Fixed(offset / kRegionWords);
  return fixed->SlotProblem(offset) == nullptr ? static_cast<std::size_t>(fixed->SlotWords()) * 4 : 0;
}

bool mem_Cluster::Empty() const { return Variable()->WordsInUse() == 0; }

int mem_Cluster::LargestFree() const { return Variable()->LargestFreeWords(); }

int mem_Cluster::AllocatedWords() const { return Data() != nullptr ? Variable()->WordsInUse() : 0; }

void mem_Cluster::DebugPrint() const {
  std::printf("Allocated Regions:\n");
  if (Data() == nullptr) return;
  Variable()->DebugPrint();
  for (int r = 1; r < kRegions; ++r)
    if (kinds_[r] < kVariable) Fixed(r)->DebugPrint();
}

void mem_Cluster::DebugSummary() const {
  std::printf("Cluster %d: alloc=%d\n", index_, AllocatedWords());
  for (unsigned int kind : kinds_)
    std::printf("%d ", kind < kVariable ? 4 * SlotWordsOf(static_cast<int>(kind)) : 0);
  std::printf("\n");
}
