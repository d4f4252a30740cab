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
#include <cstdint>

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

// ceil(2^32 / d) for slot sizes d = 1..32 words: slot-boundary tests multiply instead of dividing.
namespace zmx_region_detail {
constexpr int kLargestTabulatedSlot = 32;
constexpr std::uint64_t Reciprocal(int d) { return 0xFFFFFFFFull / static_cast<unsigned int>(d) + 1; }
template <int... D>
struct ReciprocalTable {
  static constexpr std::uint64_t values[sizeof...(D) + 1] = {0, Reciprocal(D)...};
};
constexpr const std::uint64_t* kSlotReciprocals =
    ReciprocalTable<1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15, 16, 17, 18, 19, 20, 21, 22, 23, 24, 25, 26,
                    27, 28, 29, 30, 31, 32>::values;
}  // namespace zmx_region_detail

// Slots of one size threaded on a free list through the free slots themselves;
// a slot word of -1 marks the frontier beyond which no slot was ever handed out.
// The first slot lies at word 10 for slots of 1 or 2 words and at word 12
// otherwise (room for the region object when it lives at the head of its span).
class ZMXUTI_API mem_FixedRegion : public mem_Region {
 public:
  // `tag` is the owner's (the small-object allocator and the cache pools store
  // the size class there). Writes the frontier mark at the first slot. Aborts
  // when `capacity` holds no slot or base index + capacity reaches 2^31.
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
  const char* SlotProblem(int position) const {
    const unsigned int pos = static_cast<unsigned int>(position) - base_ - static_cast<unsigned int>(first_);
    const unsigned int span = static_cast<unsigned int>(capacity_ - slotWords_ - first_);
    if (ZMX_LIKELY(pos <= span && OnSlotGrid(pos) && inUse_ > 0 && position - static_cast<int>(base_) != head_))
      return nullptr;
    return DescribeSlotProblem(position);
  }

 private:
  // Whether `offset` words past the first slot is a slot boundary: a division by
  // the slot size, done as a multiplication (exact for offsets below 2^16).
  bool OnSlotGrid(unsigned int offset) const {
    if (ZMX_UNLIKELY(slotWords_ > zmx_region_detail::kLargestTabulatedSlot)) return offset % static_cast<unsigned int>(slotWords_) == 0;
    const std::uint64_t reciprocal = zmx_region_detail::kSlotReciprocals[slotWords_];
    const unsigned int slot = static_cast<unsigned int>((offset * reciprocal) >> 32);
    return slot * static_cast<unsigned int>(slotWords_) == offset;
  }
  const char* DescribeSlotProblem(int position) const;

  int head_;       // free-list head, relative to the base index
  int slotWords_;  // slot size in words
};

// Blocks of any size, best fit from an AVL tree of free blocks ordered by size
// then position (the smallest block that holds the request, the lowest position
// among equal sizes), coalescing on release; a rest of 35 words or more is
// split off as a free block. Block at position p: word p-2 the preceding block's
// size, p-1 this block's size (header included; negative when free); a free
// block's first four data words are its tree node (parent, left, right,
// height). The object occupies words 0..13 when it lives at the head of its
// span; the first block starts at word 16; the last two words are a closing
// header (last block's size, 0).
class ZMXUTI_API mem_VariableRegion : public mem_Region {
 public:
  // `capacity` must be a multiple of 4 of at least 24 words (one block of 8
  // words) and base index + capacity must stay below 2^31; aborts otherwise.
  mem_VariableRegion(unsigned int baseIndex, int capacity, int* array);
  ~mem_VariableRegion() override;

  int Alloc(int* array, std::size_t bytes) override;
  bool Free(int* array, int position) override;
  // The same position when the block is large enough or grows into a free
  // follower; else a new block with the data copied (the old one freed); -1
  // (old block kept) when nothing fits.
  int Reallocate(int* array, int position, std::size_t bytes);
  void DebugPrint() override;  // "VariableRegion: Size=%d, Alloc=%d\n"

  // Words a request of `bytes` takes, header included (multiple of 4); 0 bytes
  // count as 1. Requests beyond any region give a size no region can hold.
  static int WordsFor(std::size_t bytes);
  // Size in words (header included) of the block in use at `position`.
  // Free, Reallocate and BlockWords abort ("ERROR: variable region: ...") when
  // `position` is not a block in use of this region.
  int BlockWords(const int* array, int position) const;
  // Claims exactly the block whose data starts at `position` and spans `words`
  // words with its header (a multiple of 4), out of one free block; the parts
  // of that free block before and after stay free blocks of any size. Returns
  // `position`, or -1 when those words are not all free (or `position` is off
  // the region's 4-word grid). Aborts when `words` is not a positive multiple
  // of 4. Linear in the blocks before `position`. The cache pools cut their
  // fixed regions out this way.
  int ClaimBlock(int* array, int position, int words);
  // The largest block an Alloc could be given (0 when none) and its position
  // (base index included; -1 when none). Free blocks of 4 words do not count:
  // they cannot hold a tree node and wait, out of the tree, for a neighbour.
  int LargestFreeWords() const { return largestSize_; }
  int LargestFreePosition() const { return largestPos_; }

 private:
  friend struct mem_RegionInspector;
  static constexpr int kTreeHeader = 8;   // the header node's position (a member)
  static constexpr int kFirstBlock = 16;  // the first block's position
  static constexpr int kSplitRest = 35;   // the smallest rest split off a block
  // The free tree (variable_region_tree.cpp); positions relative to the base,
  // the header node (position 8) is treeHeader_, never the owner's word 8.
  // Insert and Remove keep the largest-free cache and pass over free blocks of
  // 4 words, which stay out of the tree. Insert wants the free header written.
  void TreeInsert(int* array, int pos);
  void TreeRemove(int* array, int pos);
  int TreeBestFit(const int* array, int words) const;  // -1 when nothing fits
  void RecomputeLargest(const int* array);
  // Marks the block at `pos` in use with `need` of its `available` words (it is
  // out of the tree); a rest of kSplitRest words or more becomes a free block.
  // Returns the block's size.
  int Carve(int* array, int pos, int available, int need);
  // The relative position of the block in use at `position`; aborts otherwise.
  int BlockInUse(const int* array, int position, const char* operation) const;
  void CheckAfter(const int* array, const char* operation) const;  // ZMX_HEAP_DEBUG

  int spare_;           // kept for layout: the object is 14 words
  int treeHeader_[4];   // parent -1, left = root of the free tree, right -1, height 0
  int largestSize_;     // words, 0 when nothing is free
  int largestPos_;      // -1 when nothing is free
};

// The layout the block positions count on: the object fills words 0..13 when it
// lives at the head of its span, and its header node is word 8.
static_assert(sizeof(mem_VariableRegion) == 56, "a variable region is 14 words");

#endif  // ZMXUTI_MEM_POOLS_REGION_H
