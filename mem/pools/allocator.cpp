// The labelled allocators: over the front door (mem_Allocator) and straight
// over the general heap (mem_DLAllocator). A failed request makes the bound
// cache manager purge, and is then tried exactly once more. The heap's own
// per-thread caches, when switched on, go back before anything is purged.
#include "mem/allocation.h"
#include "mem/heap/general_heap.h"
#include "mem/heap/internal/thread_cache.h"
#include "mem/pools/cache_manager.h"

mem_Allocator::~mem_Allocator() = default;

std::uint64_t mem_Allocator::PurgeFor(std::size_t bytes) {
  return manager_ != nullptr ? manager_->Purge(0, bytes) : 0;
}

void* mem_Allocator::Calloc(const char*, std::size_t count, std::size_t size) {
  if (void* block = mem_Calloc(count, size)) return block;
  PurgeFor(size);  // the element size, deliberately
  return mem_Calloc(count, size);
}

void* mem_Allocator::Malloc(const char*, std::size_t size) {
  if (void* block = mem_Malloc(size)) return block;
  PurgeFor(size);
  return mem_Malloc(size);
}

// A reallocation to 0 bytes releases the block: null is its answer, not a failure.
void* mem_Allocator::Realloc(const char*, void* block, std::size_t size) {
  void* moved = mem_Realloc(block, size);
  if (moved != nullptr || size == 0) return moved;
  PurgeFor(size);
  return mem_Realloc(block, size);
}

void mem_Allocator::Free(const char*, void* block) { mem_Free(block); }

mem_Allocator* mem_Allocator::Clone() { return new mem_Allocator(*this); }

mem_DLAllocator::~mem_DLAllocator() = default;

using zmx::mem_internal::HeapMallocReturningCaches;
using zmx::mem_internal::HeapMemalignReturningCaches;
using zmx::mem_internal::HeapReallocReturningCaches;

void* mem_DLAllocator::Malloc(const char*, std::size_t size) {
  if (void* block = HeapMallocReturningCaches(size)) return block;
  PurgeFor(size);
  return HeapMallocReturningCaches(size);
}

void* mem_DLAllocator::Realloc(const char*, void* block, std::size_t size) {
  void* moved = HeapReallocReturningCaches(block, size);
  if (moved != nullptr || size == 0) return moved;
  PurgeFor(size);
  return HeapReallocReturningCaches(block, size);
}

void mem_DLAllocator::Free(const char*, void* block) { dlfree(block); }

mem_Allocator* mem_DLAllocator::Clone() { return new mem_DLAllocator(*this); }

void* mem_DLAllocator::AlignedAlloc(const char*, std::size_t alignment, std::size_t size) {
  if (void* block = HeapMemalignReturningCaches(alignment, size)) return block;
  PurgeFor(size);
  return HeapMemalignReturningCaches(alignment, size);
}

void* mem_DLAllocator::operator new(std::size_t size) { return mem_OperatorNewTinyThrow(size); }
void mem_DLAllocator::operator delete(void* block) { mem_Free(block); }
