// omi_BlkBitVect: a sparse set of unsigned 32-bit integers kept as paged bit
// words, with whole-set operators; omi_BlkBitVectTrav walks its set bits.
//
// Bit i lives in word i >> 5 (least significant bit = lowest index); words are
// grouped in pages of 256 (8,192 bits) allocated only where a bit was ever set.
// The directory starts with 128 slots (bits 0 to 1,048,575) and grows by 128.
// A zero word and an absent page mean the same; pages are freed only by Clear
// and by the recount that closes &=, |=, -= and ^= (UnsetBit keeps them).
//
//   omi_BlkBitVect v;
//   v.SetFromTo(30, 70);                 // 41 bits
//   omi_BlkBitVectTrav t(&v);
//   for (unsigned int b; ok = t.First(b); ok = t.Next(b)) ...   // 30, 31, ..., 70
//
// A traversal holds a copy of the vector's geometry and page-directory pointer:
// it sees bits changed in existing pages, but after anything that may
// reallocate the directory (SetBit beyond it, |=, ^=, assignment) it must be
// synchronised with SetBitTraverseData before use.
#ifndef ZMXUTI_CONTAINERS_BLK_BIT_VECT_H
#define ZMXUTI_CONTAINERS_BLK_BIT_VECT_H

#include "containers/blocked_array.h"
#include "core/export.h"
#include "mem/allocation.h"

class omi_BlkBitVectTrav;

class ZMXUTI_API omi_BlkBitVect : public omi_BlockedArray<unsigned int> {
 public:
  omi_BlkBitVect();
  omi_BlkBitVect(const omi_BlkBitVect& other);
  omi_BlkBitVect& operator=(const omi_BlkBitVect& other);
  ~omi_BlkBitVect() override;

  // Frees every page (the directory keeps its length); count 0.
  void Clear();
  // Setting a set bit or clearing a clear one changes nothing (and allocates nothing).
  void SetBit(unsigned int bit) {
    unsigned int* word = WordAt(bit);
    const unsigned int mask = 1u << (bit & 31);
    if (ZMX_LIKELY(word != nullptr)) {
      if ((*word & mask) == 0) {
        *word |= mask;
        ++count_;
      }
      return;
    }
    SetBitInNewPage(bit);
  }
  void UnsetBit(unsigned int bit) {
    unsigned int* word = WordAt(bit);
    const unsigned int mask = 1u << (bit & 31);
    if (word != nullptr && (*word & mask) != 0) {
      *word &= ~mask;
      --count_;
    }
  }
  bool TestBit(unsigned int bit) const {
    const unsigned int* word = WordAt(bit);
    return word != nullptr && (*word & (1u << (bit & 31))) != 0;
  }
  // Number of set bits.
  unsigned int Count() const { return count_; }

  // Sets every bit of [from, to]. Bit `from` is set even when from > to, and
  // then, when `to` lies in another word, so are the bits from `to` rounded down
  // to a multiple of 32 up to `to`.
  void SetFromTo(unsigned int from, unsigned int to);

  // Whole-set operators; both operands have the same page size. Each ends with
  // a recount that frees the pages left without set bits.
  omi_BlkBitVect& operator&=(const omi_BlkBitVect& other);
  omi_BlkBitVect& operator|=(const omi_BlkBitVect& other);
  omi_BlkBitVect& operator-=(const omi_BlkBitVect& other);
  omi_BlkBitVect& operator^=(const omi_BlkBitVect& other);

  // Equal counts, equal directory lengths and the same pages present with the
  // same words: equal sets with different directories, or one of them holding
  // an emptied page, compare unequal.
  bool operator==(const omi_BlkBitVect& other) const;
  // Count difference when the counts differ; otherwise the first difference of
  // page presence (+/- number of pages left) or of words (+1 / -1, unsigned
  // comparison of the first unequal word); 0 when equal.
  int Compare(const omi_BlkBitVect& other) const;
  // True if every bit of other is set here.
  bool Contains(const omi_BlkBitVect& other) const;

  // Prints the set on aio_cerr: "Empty List\n", or "ListCount=<n>\n" followed
  // by the members with "%8d", eight to a line, and a closing newline.
  virtual void DumpList() const;

 private:
  friend class omi_BlkBitVectTrav;
  friend void SetBitTraverseData(const omi_BlkBitVect*, omi_BlkBitVectTrav*);
  friend struct zmx::containers_internal::ContainerChecks;

  unsigned int* WordAt(unsigned int bit) const { return CellAt(bit >> 5); }
  void SetBitInNewPage(unsigned int bit);
  // Bits of a present page, freeing it when it has none.
  unsigned int RecountPage(unsigned int page);
  // Copies the other's present pages from `first` on into this (same length).
  unsigned int CopyPagesFrom(const omi_BlkBitVect& other, unsigned int first);
  // |= and ^=: `combine` merges the other's page into each page both have and
  // returns its bits; pages only the other has are copied, growing this to the
  // other's length; the recount frees every page left empty.
  omi_BlkBitVect& CombineGrowing(const omi_BlkBitVect& other,
                                 unsigned int (*combine)(unsigned int*, const unsigned int*, unsigned int),
                                 const char* what);

  unsigned int count_;
};

// Walks the set bits of an omi_BlkBitVect in either direction. Each move
// writes the bit index reached and returns false when there is none (then the
// index written is 0).
class ZMXUTI_API omi_BlkBitVectTrav : public mem_AllocationOperatorsTiny {
 public:
  explicit omi_BlkBitVectTrav(const omi_BlkBitVect* vector);
  omi_BlkBitVectTrav(const omi_BlkBitVectTrav& other);
  omi_BlkBitVectTrav& operator=(const omi_BlkBitVectTrav& other);
  virtual ~omi_BlkBitVectTrav();

  bool First(unsigned int& bit);
  bool Last(unsigned int& bit);
  // Next and Prev look in the current word and the rest of the current page
  // inline; leaving the page (or a traversal not standing on a word) goes out of line.
  bool Next(unsigned int& bit) {
    if (ZMX_LIKELY(word_ != nullptr)) {
      const unsigned int above = *word_ & ~(mask_ | (mask_ - 1));
      if (above != 0) return StandInPage(word_, above & (0u - above), bitIndex_ & ~31u, bit);
      for (const unsigned int* word = word_ + 1; word != pageEnd_; ++word) {
        if (*word != 0) {
          const unsigned int wordBase = (bitIndex_ & ~31u) + (static_cast<unsigned int>(word - word_) << 5);
          return StandInPage(word, *word & (0u - *word), wordBase, bit);
        }
      }
    }
    return NextBeyondPage(bit);
  }
  bool Prev(unsigned int& bit) {
    if (ZMX_LIKELY(word_ != nullptr)) {
      const unsigned int below = *word_ & (mask_ - 1);
      if (below != 0) return StandInPage(word_, 0x80000000u >> __builtin_clz(below), bitIndex_ & ~31u, bit);
      for (const unsigned int* word = word_; word != pageFront_;) {
        --word;
        if (*word != 0) {
          const unsigned int wordBase = (bitIndex_ & ~31u) - (static_cast<unsigned int>(word_ - word) << 5);
          return StandInPage(word, 0x80000000u >> __builtin_clz(*word), wordBase, bit);
        }
      }
    }
    return PrevBeyondPage(bit);
  }
  // Places the traversal at `bit` when it is set (bit unchanged, true);
  // otherwise moves to the nearest set bit above (forward) or below it.
  bool SetCurrent(unsigned int& bit, bool forward);

 private:
  friend void SetBitTraverseData(const omi_BlkBitVect*, omi_BlkBitVectTrav*);
  friend class omi_SetIT;

  // Past the last page (after a forward search found nothing) or never placed past it.
  bool Exhausted() const { return pageIndex_ >= directoryLength_; }
  bool SearchForward(int page, unsigned int& bit);
  bool SearchBackward(int page, unsigned int& bit);
  bool StandOn(int page, const unsigned int* word, unsigned int mask, unsigned int& bit);
  bool RunOffEnd(int page, unsigned int& bit);
  // Moves to `mask` of `word` in the current page; wordBase is the index of the word's bit 0.
  bool StandInPage(const unsigned int* word, unsigned int mask, unsigned int wordBase, unsigned int& bit) {
    word_ = word;
    mask_ = mask;
    bitIndex_ = wordBase + static_cast<unsigned int>(__builtin_ctz(mask));
    bit = bitIndex_;
    return true;
  }
  // The moves once the current page holds no further bit that way (or the
  // traversal does not stand on a word).
  bool NextBeyondPage(unsigned int& bit);
  bool PrevBeyondPage(unsigned int& bit);

  int directoryLength_;
  unsigned int pageSize_;
  unsigned int pageShift_;
  unsigned int pageMask_;
  unsigned int bitsPerPage_;
  unsigned int* const* directory_;
  int pageIndex_;
  const unsigned int* word_;       // current word; null when not standing on one
  const unsigned int* pageFront_;  // first word of the current page
  const unsigned int* pageEnd_;    // just past the current page's last word
  unsigned int mask_;
  unsigned int bitIndex_;
};

// Copies the vector's page-directory length, page size, shift, mask and
// directory pointer into the traversal.
ZMXUTI_API void SetBitTraverseData(const omi_BlkBitVect* vector, omi_BlkBitVectTrav* traversal);

#endif  // ZMXUTI_CONTAINERS_BLK_BIT_VECT_H
