// Regions: a stretch of somebody else's array of 4-byte words, handed out as
// word positions. All bookkeeping lives in the array itself (free lists, block
// headers, the free tree), so the owner may move or save the array as a whole;
// a region never allocates memory of its own.
//
//   int words[1024];
//   mem_VariableRegion region(0, 1024, words);
//   int pos = region.Alloc(words, 40);   // -1 when nothing fits
//   region.Free(words, pos);              // true: the region is empty again
//
// Positions returned by Alloc include the base index and are what Free and
// Reallocate take back. Word `position` of the owner's array is the first data
// word; the caller's bytes are &array[position].
#ifndef ZMXUTI_MEM_POOLS_REGION_H
#define ZMXUTI_MEM_POOLS_REGION_H

#include <cstddef>

#include "core/export.h"

// The common base: base index, a value fixed at construction (its meaning is
// the owner's), words in use, first-block offset and capacity in words.
class ZMXUTI_API mem_Region {
 public:
  virtual ~mem_Region();
  // A position (base index included), or -1 when the request does not fit.
  virtual int Alloc(int* array, std::size_t bytes) = 0;
  // Takes back `position`; true when no word is in use any more.
  virtual bool Free(int* array, int position) = 0;
  virtual void DebugPrint() = 0;

  unsigned int BaseIndex() const { return base_; }
  int Tag() const { return tag_; }
  int WordsInUse() const { return inUse_; }
  int FirstOffset() const { return first_; }
  int Capacity() const { return capacity_; }

 protected:
  mem_Region(unsigned int baseIndex, int tag, int firstOffset, int capacity)
      : base_(baseIndex), tag_(tag), inUse_(0), first_(firstOffset), capacity_(capacity) {}

  unsigned int base_;
  int tag_;
  int inUse_;
  int first_;
  int capacity_;
};

// Slots of one size threaded on a free list through the free slots themselves;
// a slot word of -1 marks the frontier beyond which no slot was ever handed out.
// The first slot lies at word 10 for slots of 1 or 2 words and at word 12
// otherwise (room for the region object when it lives at the head of its span).
class ZMXUTI_API mem_FixedRegion : public mem_Region {
 public:
  // `tag` is the owner's (the small-object allocator and the cache pools store
  // the size class there). Writes the frontier mark at the first slot.
  mem_FixedRegion(unsigned int baseIndex, int capacity, int* array, int slotWords, int tag = 0);
  ~mem_FixedRegion() override;

  int Alloc(int* array, std::size_t bytes) override;  // one slot, whatever `bytes` says
  bool Free(int* array, int position) override;
  void DebugPrint() override;  // "FixedRegion: AllocCount = %d\n" (words in use)

  int SlotWords() const { return slotWords_; }
  int FreeHead() const { return head_; }
  static int FirstSlotFor(int slotWords) { return slotWords <= 2 ? 10 : 12; }

  // The slot operations themselves, inline for the allocators' fast paths.
  int TakeSlot(int* array) {
    const int head = head_;
    if (head > capacity_ - slotWords_) return -1;
    int* word = array + base_ + head;
    if (*word == -1) {
      head_ = head + slotWords_;
      if (head_ < capacity_) array[base_ + head_] = -1;
    } else {
      head_ = *word;
    }
    inUse_ += slotWords_;
    return static_cast<int>(base_) + head;
  }
  // Caller has validated `position` (see SlotProblem). True when now empty.
  bool GiveSlot(int* array, int position) {
    const int pos = position - static_cast<int>(base_);
    inUse_ -= slotWords_;
    array[base_ + pos] = head_;
    head_ = pos;
    return inUse_ == 0;
  }
  // Null when `position` can be a slot in use; otherwise what is wrong with it
  // (outside the slots, not on a slot boundary, the slot just freed, region empty).
  const char* SlotProblem(int position) const;

 private:
  int head_;       // free-list head, relative to the base index
  int slotWords_;  // slot size in words
};

// Blocks of any size, best fit from an AVL tree of free blocks ordered by size,
// coalescing on release. Block at position p: word p-2 the preceding block's
// size, p-1 this block's size (header included; negative when free); a free
// block's first four data words are its tree node (parent, left, right,
// height). The object occupies words 0..13 when it lives at the head of its
// span; the first block starts at word 16; the last two words are a closing
// header (last block's size, 0).
class ZMXUTI_API mem_VariableRegion : public mem_Region {
 public:
  mem_VariableRegion(unsigned int baseIndex, int capacity, int* array);
  ~mem_VariableRegion() override;

  int Alloc(int* array, std::size_t bytes) override;
  bool Free(int* array, int position) override;
  // The same position when the block is large enough or grows into a free
  // follower; else a new block with the data copied (the old one freed); -1
  // (old block kept) when nothing fits.
  int Reallocate(int* array, int position, std::size_t bytes);
  void DebugPrint() override;  // "VariableRegion: Size=%d, Alloc=%d\n"

  // Words a request of `bytes` takes, header included (multiple of 4).
  static int WordsFor(std::size_t bytes);
  // Size in words (header included) of the block in use at `position`.
  int BlockWords(const int* array, int position) const;
  // Claims exactly the block whose data starts at `position` and spans `words`
  // words with its header (a multiple of 4), out of one free block; the rest of
  // that free block stays free. Returns `position`, or -1 when those words are
  // not all free. The cache pools cut their fixed regions out this way.
  int ClaimBlock(int* array, int position, int words);
  int LargestFreeWords() const { return largestSize_; }
  int LargestFreePosition() const { return largestPos_; }  // base index included; -1 none

 private:
  friend struct mem_RegionInspector;
  int spare_;           // kept for layout: the object is 14 words
  int treeHeader_[4];   // parent -1, left = root of the free tree, right -1, height 0
  int largestSize_;     // words, 0 when nothing is free
  int largestPos_;      // -1 when nothing is free
};

#endif  // ZMXUTI_MEM_POOLS_REGION_H
