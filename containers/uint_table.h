// omi_UintTable<T>: a map from unsigned 32-bit keys to values of T, kept as a
// two-level directory of blocks rather than a hash table; its block type, its
// iterator, and the client-side hashing helpers HashValue and omi_nextPrime.
//
// With geometry (a, b, c) the top a bits of a key select a block (a block
// covers 2^(32-a) keys), the next b bits a page of the block's value array
// (pages of 2^(32-a-b) values) and c is the initial length and growth step of
// each block's page directory. The default (12, 10, 24) gives blocks of
// 1,048,576 keys and pages of 1,024 values. Every key operation is a fixed
// number of shifts and masks; iteration is in ascending key order.
//
//   omi_UintTable<double> t(12, 10, 24);
//   t.Insert(42, 1.5);                       // true: a new key
//   if (const double* v = t.Find(42)) ...;   // 1.5
//   omi_UintTableIterator<double> it(t);
//   for (it.First(); !it.IsDone(); it.Next()) ...
//
// Exported for T = int, double and void*.
#ifndef ZMXUTI_CONTAINERS_UINT_TABLE_H
#define ZMXUTI_CONTAINERS_UINT_TABLE_H

#include "containers/blk_bit_vect.h"
#include "containers/blocked_array.h"
#include "core/export.h"

template <typename T>
class omi_UintTableIterator;
template <typename T>
class omi_IntMultiMap;

// One block: a contiguous range of keys; its bit vector holds the offsets present
// and its value pages the values (a removed offset keeps its old value bytes).
template <typename T>
class ZMXUTI_API omi_UintTableBlock : public omi_BlockedArray<T> {
 public:
  omi_UintTableBlock(unsigned int pageDirectoryIncrement, unsigned int pageShift);
  omi_UintTableBlock(const omi_UintTableBlock& other);
  omi_UintTableBlock& operator=(const omi_UintTableBlock&) = delete;
  ~omi_UintTableBlock() override;

  // Sets the offset's bit and stores the value; true when the offset was new.
  bool Insert(unsigned int offset, const T& value) {
    const unsigned int before = bits_.Count();
    bits_.SetBit(offset);
    this->SetCell(offset, value);
    return before != bits_.Count();
  }
  // Clears the offset's bit; true when it was set. The value stays in its page.
  bool Remove(unsigned int offset) {
    const unsigned int before = bits_.Count();
    bits_.UnsetBit(offset);
    return before != bits_.Count();
  }
  // Clears the bit vector, then frees every page (the page directory is kept).
  void Clear();

  bool Contains(unsigned int offset) const { return bits_.TestBit(offset); }
  unsigned int Count() const { return bits_.Count(); }
  const omi_BlkBitVect& Bits() const { return bits_; }
  omi_BlkBitVect& Bits() { return bits_; }
  // The value slot of an offset whose page exists, null otherwise.
  T* Slot(unsigned int offset) const { return this->CellAt(offset); }
  // The value of a present offset, null when the offset is absent. A set bit
  // means its value page was written, so the page needs no presence test.
  const T* Find(unsigned int offset) const {
    if (!bits_.TestBit(offset)) return nullptr;
    return this->directory_[offset >> this->pageShift_] + (offset & this->pageMask_);
  }

 private:
  omi_BlkBitVect bits_;
};

template <typename T>
class ZMXUTI_API omi_UintTable {
 public:
  // Geometry (a, b, c) as above; a must be at least 1 and a + b below 32
  // (numbers outside are brought into range with a message on standard error).
  omi_UintTable(unsigned int a, unsigned int b, unsigned int c);
  // Deep copy of every block.
  omi_UintTable(const omi_UintTable& other);
  omi_UintTable& operator=(const omi_UintTable&) = delete;
  ~omi_UintTable();

  // True if the key was new; the value is written either way.
  bool Insert(unsigned int key, const T& value) {
    const unsigned int index = key >> blockShift_;
    if (ZMX_LIKELY(index < directoryLength_)) {
      omi_UintTableBlock<T>* block = blocks_[index];
      if (ZMX_LIKELY(block != nullptr)) {
        const bool added = block->Insert(key & offsetMask_, value);
        count_ += added ? 1u : 0u;
        return added;
      }
    }
    return InsertIntoNewBlock(key, value);
  }
  // True if the key was present; a block left without keys is destroyed.
  bool Remove(unsigned int key);
  // Removes every key; the directory keeps its length.
  void Clear();
  // The key's value, null when the key is absent.
  const T* Find(unsigned int key) const {
    const omi_UintTableBlock<T>* block = BlockOf(key);
    return block != nullptr ? block->Find(key & offsetMask_) : nullptr;
  }

  unsigned int Count() const { return count_; }
  unsigned int DirectoryLength() const { return directoryLength_; }

  // Geometry and blocks, for the iterators and the multimap.
  unsigned int BlockShift() const { return blockShift_; }
  unsigned int OffsetMask() const { return offsetMask_; }
  // The block at a directory index, null when absent or beyond the directory.
  omi_UintTableBlock<T>* BlockAt(unsigned int index) const {
    return index < directoryLength_ ? blocks_[index] : nullptr;
  }
  omi_UintTableBlock<T>* BlockOf(unsigned int key) const { return BlockAt(key >> blockShift_); }

 private:
  friend class omi_IntMultiMap<int>;
  friend class omi_IntMultiMap<void*>;
  friend struct zmx::containers_internal::ContainerChecks;

  bool InsertIntoNewBlock(unsigned int key, const T& value);
  void GrowDirectoryFor(unsigned int index);
  void DestroyBlock(unsigned int index);

  omi_UintTableBlock<T>** blocks_;
  unsigned int count_;
  unsigned int directoryLength_;
  unsigned int offsetMask_;
  unsigned int blockShift_;
  unsigned int pageDirectoryIncrement_;
  unsigned int pageShift_;
};

// Walks one table in ascending key order (plain mode), or in the order of a
// comparator over a snapshot taken at the first First() (sorted mode; the
// comparator receives pointers to pointers to {unsigned int key; const T* value}
// records, as qsort hands them). The table must not change while a sorted
// iterator lives; a plain one must not outlive changes to the current block.
template <typename T>
class ZMXUTI_API omi_UintTableIterator {
 public:
  struct SnapshotRecord {
    unsigned int key;
    const T* value;
  };
  using Comparator = int (*)(const void*, const void*);

  explicit omi_UintTableIterator(const omi_UintTable<T>& table);
  omi_UintTableIterator(const omi_UintTable<T>& table, Comparator comparator);
  omi_UintTableIterator(const omi_UintTableIterator&) = delete;
  omi_UintTableIterator& operator=(const omi_UintTableIterator&) = delete;
  ~omi_UintTableIterator();

  void First();
  void Last();
  void Next();
  void Prev();
  bool IsDone() const { return done_; }
  // The current key and value (0 and a zero value when not on a key).
  unsigned int CurrentKey() const;
  const T& CurrentValue() const;

 private:
  bool AdvanceToBlock(int from);
  bool StepBackToBlock(int from);
  bool EnterBlock(int index, bool atFirstBit);
  void BuildSnapshot();
  bool OnSnapshotRecord() const;

  const omi_UintTable<T>* table_;
  unsigned int currentOffset_;
  unsigned int currentBlockBase_;
  int position_;
  omi_UintTableBlock<T>* currentBlock_;
  omi_BlkBitVectTrav* bitTraversal_;
  bool done_;
  Comparator comparator_;
  SnapshotRecord** snapshot_;
  unsigned int snapshotLength_;  // records in the snapshot (its reads never go beyond)
};

// Client-side hashing: the key (or the pointer's low 32 bits) shifted right by
// 2, modulo n. n must not be zero.
ZMXUTI_API unsigned int HashValue(const unsigned int& key, unsigned int n);
ZMXUTI_API unsigned int HashValue(void* const& pointer, unsigned int n);
// The smallest number not below n passing the library's primality test of
// candidates 6k+1 and 6k+5. Kept small-number results: 0 -> 0, 1 -> 1, 2..11
// -> 11 (5 and 7 fail the test); from 12 on the true next prime. Returns 0 when
// the answer does not fit in 32 bits.
ZMXUTI_API unsigned int omi_nextPrime(unsigned int n);

extern template class omi_UintTableBlock<int>;
extern template class omi_UintTableBlock<double>;
extern template class omi_UintTableBlock<void*>;
extern template class omi_UintTable<int>;
extern template class omi_UintTable<double>;
extern template class omi_UintTable<void*>;
extern template class omi_UintTableIterator<int>;
extern template class omi_UintTableIterator<double>;
extern template class omi_UintTableIterator<void*>;

#endif  // ZMXUTI_CONTAINERS_UINT_TABLE_H
