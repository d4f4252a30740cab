// Block records of the cache pools and the record pages they come from.
#include <cstdio>
#include <cstdlib>
#include <new>

#include "mem/pools/cache_pool.h"
#include "mem/pools/internal/pool_memory.h"

namespace {

constexpr int kPageWords = mem_FixedBlock::kPageBytes / 4;

}  // namespace

void zmx::mem_internal::InvalidHandle(unsigned int id, const char* why) {
  std::fprintf(stderr, "ERROR: mem_CachePool: invalid handle 0x%08x (%s)\n", id, why);
  std::fflush(stderr);
  std::abort();
}

mem_Block::~mem_Block() = default;

void mem_Block::SetMemory(void* data, unsigned int words) {
  data_ = data;
  size_ = words;
  if (state_ != NOT_OWNED) state_ = data != nullptr ? OWNED : EMPTY;
}

// Memory a block does not own is only forgotten, never returned.
void mem_Block::ReleaseMemory(mem_Allocator* a) {
  if (state_ == EMPTY) return;
  void* data = data_;
  const bool owned = state_ != NOT_OWNED;
  data_ = nullptr;
  size_ = 0;
  if (owned && data != nullptr) zmx::mem_internal::PoolRelease(a, "mem_Block", data);
}

// The record's own storage belongs to a record page and goes back with it.
void mem_Block::Destroy(mem_Allocator* a, int) {
  ReleaseMemory(a);
  this->~mem_Block();
}

void mem_Block::DebugPrint() const { std::printf("mem_Block: Size = %d\n", static_cast<int>(size_)); }

static_assert(sizeof(mem_Block) == 32, "block records are 8 words");
static_assert(sizeof(mem_FixedBlock) <= 80, "the page object must end before the first record");

unsigned int mem_FixedBlock::RegionBase(const mem_FixedBlock* self) {
  return static_cast<unsigned int>((reinterpret_cast<const char*>(&self->region_) -
                                    reinterpret_cast<const char*>(self)) / 4);
}

mem_FixedBlock::mem_FixedBlock(int* page, int recordWords)
    : region_(RegionBase(this), kPageWords - static_cast<int>(RegionBase(this)), page, recordWords) {}

mem_FixedBlock::~mem_FixedBlock() = default;

mem_FixedBlock* mem_FixedBlock::Create(mem_Allocator* a, int recordWords) {
  void* memory = a->Malloc("mem_FixedBlock", kPageBytes);
  if (memory == nullptr) return nullptr;
  mem_FixedBlock* page = new (memory) mem_FixedBlock(static_cast<int*>(memory), recordWords);
  page->state_ = RECORD_PAGE;
  page->data_ = memory;
  page->size_ = kPageWords;
  return page;
}

// The page holds this very record: end the object first, then return the page.
void mem_FixedBlock::Destroy(mem_Allocator* a, int) {
  void* page = Data();
  this->~mem_FixedBlock();
  zmx::mem_internal::PoolRelease(a, "mem_Block", page);
}

void* mem_FixedBlock::TakeRecord() {
  const int position = region_.TakeSlot(Page());
  return position < 0 ? nullptr : Page() + position;
}
