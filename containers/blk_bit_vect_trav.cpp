// omi_BlkBitVectTrav: ascending and descending walks over the set bits of a
// paged bit vector, a word at a time.
#include <algorithm>

#include "containers/blk_bit_vect.h"

namespace {
constexpr unsigned int kBitsPerWordShift = 5;
}  // namespace

omi_BlkBitVectTrav::omi_BlkBitVectTrav(const omi_BlkBitVect* vector)
    : directoryLength_(0),
      pageSize_(0),
      pageShift_(0),
      pageMask_(0),
      bitsPerPage_(0),
      directory_(nullptr),
      pageIndex_(0),
      word_(nullptr),
      pageFront_(nullptr),
      pageEnd_(nullptr),
      mask_(1),
      bitIndex_(0) {
  SetBitTraverseData(vector, this);
  bitsPerPage_ = pageSize_ * 32;
}

omi_BlkBitVectTrav::omi_BlkBitVectTrav(const omi_BlkBitVectTrav& other) = default;

omi_BlkBitVectTrav& omi_BlkBitVectTrav::operator=(const omi_BlkBitVectTrav& other) = default;

omi_BlkBitVectTrav::~omi_BlkBitVectTrav() = default;

void SetBitTraverseData(const omi_BlkBitVect* vector, omi_BlkBitVectTrav* traversal) {
  traversal->directoryLength_ = static_cast<int>(vector->directoryLength_);
  traversal->pageSize_ = vector->pageSize_;
  traversal->pageShift_ = vector->pageShift_;
  traversal->directory_ = vector->directory_;
  traversal->pageMask_ = vector->pageMask_;
}

bool omi_BlkBitVectTrav::StandOn(int page, const unsigned int* word, unsigned int mask, unsigned int& bit) {
  const unsigned int* front = directory_[page];
  pageIndex_ = page;
  pageFront_ = front;
  pageEnd_ = front + pageSize_;
  word_ = word;
  mask_ = mask;
  bitIndex_ = (static_cast<unsigned int>(page) << (pageShift_ + kBitsPerWordShift)) +
              (static_cast<unsigned int>(word - front) << kBitsPerWordShift) +
              static_cast<unsigned int>(__builtin_ctz(mask));
  bit = bitIndex_;
  return true;
}

bool omi_BlkBitVectTrav::RunOffEnd(int page, unsigned int& bit) {
  pageIndex_ = page;
  word_ = nullptr;
  bit = 0;
  return false;
}

// The lowest set bit in pages `page` onwards.
bool omi_BlkBitVectTrav::SearchForward(int page, unsigned int& bit) {
  for (; page < directoryLength_; ++page) {
    const unsigned int* front = directory_[page];
    if (front == nullptr) continue;
    for (const unsigned int* word = front; word != front + pageSize_; ++word) {
      if (*word != 0) return StandOn(page, word, *word & (0u - *word), bit);
    }
  }
  return RunOffEnd(directoryLength_, bit);
}

// The highest set bit in pages `page` downwards.
bool omi_BlkBitVectTrav::SearchBackward(int page, unsigned int& bit) {
  for (; page >= 0; --page) {
    const unsigned int* front = directory_[page];
    if (front == nullptr) continue;
    for (const unsigned int* word = front + pageSize_; word != front;) {
      --word;
      if (*word != 0) return StandOn(page, word, 0x80000000u >> __builtin_clz(*word), bit);
    }
  }
  return RunOffEnd(-1, bit);
}

bool omi_BlkBitVectTrav::First(unsigned int& bit) {
  bit = 0;
  return SearchForward(0, bit);
}

bool omi_BlkBitVectTrav::Last(unsigned int& bit) { return SearchBackward(directoryLength_ - 1, bit); }

bool omi_BlkBitVectTrav::NextBeyondPage(unsigned int& bit) {
  if (word_ == nullptr) {
    // Not on a word: fresh, or run off one end; resume from where it stands.
    if (pageIndex_ >= directoryLength_) return RunOffEnd(directoryLength_, bit);
    return SearchForward(std::max(pageIndex_, 0), bit);
  }
  return SearchForward(pageIndex_ + 1, bit);
}

bool omi_BlkBitVectTrav::PrevBeyondPage(unsigned int& bit) {
  if (word_ == nullptr) {
    if (pageIndex_ < 0) return RunOffEnd(-1, bit);
    return SearchBackward(std::min(pageIndex_, directoryLength_ - 1), bit);
  }
  return SearchBackward(pageIndex_ - 1, bit);
}

bool omi_BlkBitVectTrav::SetCurrent(unsigned int& bit, bool forward) {
  const unsigned int page = bit >> (pageShift_ + kBitsPerWordShift);
  if (page >= static_cast<unsigned int>(directoryLength_)) {
    if (forward) return RunOffEnd(directoryLength_, bit);
    return Last(bit);
  }
  const int pageIndex = static_cast<int>(page);
  const unsigned int* front = directory_[page];
  if (front == nullptr) return forward ? SearchForward(pageIndex, bit) : SearchBackward(pageIndex, bit);
  pageIndex_ = pageIndex;
  pageFront_ = front;
  pageEnd_ = front + pageSize_;
  word_ = front + ((bit >> kBitsPerWordShift) & pageMask_);
  mask_ = 1u << (bit & 31);
  bitIndex_ = bit;
  if ((*word_ & mask_) != 0) return true;
  return forward ? Next(bit) : Prev(bit);
}
