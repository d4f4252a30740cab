// The octree's word blocks: where leaves take their item lists from, and how
// emptied blocks are reset and waited on the tree's freed list for reuse.
#include <cstdio>
#include <cstdlib>

#include "containers/octree.h"

namespace {

constexpr unsigned int kDefaultBlockWords = 1024;
// A block holds twice a large request, and its size must stay a 32-bit count.
constexpr unsigned int kLargestRequest = 0x7FFFFFFFu;

}  // namespace

void omi_OctreeMemPtr::Release() {
  if (block_ != nullptr) block_->ReleaseOne();
  block_ = nullptr;
  words_ = nullptr;
}

omi_OctreeMemory::omi_OctreeMemory(unsigned int words, omi_OctreeMemory* next, omi_Octree* tree)
    : base_(static_cast<unsigned int*>(mem_Malloc(static_cast<std::size_t>(words) * sizeof(unsigned int)))),
      wordsLeft_(words),
      live_(0),
      cursor_(base_),
      size_(words),
      next_(next),
      nextFreed_(nullptr),
      tree_(tree),
      onFreedList_(false) {
  if (base_ == nullptr && words != 0) {
    std::fprintf(stderr, "ERROR: omi_OctreeMemory: no memory for a block of %u words\n", words);
    std::abort();
  }
}

omi_OctreeMemory::~omi_OctreeMemory() { mem_Free(base_); }

unsigned int* omi_OctreeMemory::Serve(unsigned int words) {
  if (wordsLeft_ < words) return nullptr;
  unsigned int* served = cursor_;
  cursor_ += words;
  wordsLeft_ -= words;
  ++live_;
  return served;
}

void omi_OctreeMemory::ReleaseOne() {
  if (live_ > 0) --live_;
  if (live_ != 0) return;
  wordsLeft_ = size_;
  cursor_ = base_;
  tree_->FreedBlock(this);
}

omi_OctreeMemPtr omi_Octree::MemAlloc(unsigned int words) {
  if (words > kLargestRequest) {
    std::fprintf(stderr, "ERROR: omi_Octree::MemAlloc: a request of %u words is too large\n", words);
    std::abort();
  }
  if (unsigned int* served = current_->Serve(words)) return omi_OctreeMemPtr(current_, served);
  if (freed_ != nullptr) {
    if (unsigned int* served = freed_->Serve(words)) {
      current_ = freed_;
      freed_ = current_->nextFreed_;
      current_->nextFreed_ = nullptr;
      current_->onFreedList_ = false;
      return omi_OctreeMemPtr(current_, served);
    }
  }
  const unsigned int size = words > kDefaultBlockWords ? 2 * words : kDefaultBlockWords;
  blocks_ = new omi_OctreeMemory(size, blocks_, this);
  current_ = blocks_;
  return omi_OctreeMemPtr(current_, current_->Serve(words));
}

void omi_Octree::FreedBlock(omi_OctreeMemory* block) {
  // The current block may be emptied, pushed, and used again before it is
  // taken off the list; pushing it a second time would loop the list.
  if (block == nullptr || block->onFreedList_) return;
  block->nextFreed_ = freed_;
  block->onFreedList_ = true;
  freed_ = block;
}
