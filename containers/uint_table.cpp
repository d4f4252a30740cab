// omi_UintTable<T> and its blocks: directory growth, block life and death, the
// plain and sorted walks, and the client-side hashing helpers.
#include "containers/uint_table.h"

#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <cstdint>

namespace {

constexpr unsigned int kBlockDirectoryStart = 2;
constexpr unsigned int kBlockDirectoryStep = 64;

// Brings (a, b) into the range where every shift stays below 32.
void CheckGeometry(unsigned int& a, unsigned int& b) {
  unsigned int cappedA = a < 1 ? 1 : (a > 31 ? 31 : a);
  // b is compared with the room left, so that a huge b cannot wrap the sum.
  unsigned int cappedB = b > 31 - cappedA ? 31 - cappedA : b;
  if (cappedA != a || cappedB != b) {
    std::fprintf(stderr, "omi_UintTable: geometry (%u, %u) out of range, using (%u, %u)\n", a, b, cappedA,
                 cappedB);
  }
  a = cappedA;
  b = cappedB;
}

template <typename T>
omi_UintTableBlock<T>** NewBlockDirectory(unsigned int length) {
  const std::size_t bytes = static_cast<std::size_t>(length) * sizeof(omi_UintTableBlock<T>*);
  auto** blocks = static_cast<omi_UintTableBlock<T>**>(mem_Malloc(bytes));
  std::memset(blocks, 0, bytes);
  return blocks;
}

}  // namespace

// ------------------------------------------------------------------ blocks

template <typename T>
omi_UintTableBlock<T>::omi_UintTableBlock(unsigned int pageDirectoryIncrement, unsigned int pageShift)
    : omi_BlockedArray<T>(pageDirectoryIncrement, pageShift), bits_() {}

template <typename T>
omi_UintTableBlock<T>::omi_UintTableBlock(const omi_UintTableBlock& other)
    : omi_BlockedArray<T>(other), bits_(other.bits_) {}

template <typename T>
omi_UintTableBlock<T>::~omi_UintTableBlock() = default;

template <typename T>
void omi_UintTableBlock<T>::Clear() {
  bits_.Clear();
  omi_BlockedArray<T>::Clear();
}

// ------------------------------------------------------------------ table

template <typename T>
omi_UintTable<T>::omi_UintTable(unsigned int a, unsigned int b, unsigned int c)
    : blocks_(nullptr),
      count_(0),
      directoryLength_(kBlockDirectoryStart),
      offsetMask_(0),
      blockShift_(0),
      pageDirectoryIncrement_(c),
      pageShift_(0) {
  CheckGeometry(a, b);
  blockShift_ = 32 - a;
  offsetMask_ = (1u << blockShift_) - 1;
  pageShift_ = 32 - a - b;
  blocks_ = NewBlockDirectory<T>(directoryLength_);
}

template <typename T>
omi_UintTable<T>::omi_UintTable(const omi_UintTable& other)
    : blocks_(NewBlockDirectory<T>(other.directoryLength_)),
      count_(other.count_),
      directoryLength_(other.directoryLength_),
      offsetMask_(other.offsetMask_),
      blockShift_(other.blockShift_),
      pageDirectoryIncrement_(other.pageDirectoryIncrement_),
      pageShift_(other.pageShift_) {
  for (unsigned int i = 0; i < directoryLength_; ++i) {
    if (other.blocks_[i] != nullptr) blocks_[i] = ::new omi_UintTableBlock<T>(*other.blocks_[i]);
  }
}

template <typename T>
omi_UintTable<T>::~omi_UintTable() {
  Clear();
  mem_Free(blocks_);
}

template <typename T>
void omi_UintTable<T>::GrowDirectoryFor(unsigned int index) {
  const unsigned int length = (index / kBlockDirectoryStep + 1) * kBlockDirectoryStep;
  omi_UintTableBlock<T>** grown = NewBlockDirectory<T>(length);
  std::memcpy(grown, blocks_, directoryLength_ * sizeof(omi_UintTableBlock<T>*));
  mem_Free(blocks_);
  blocks_ = grown;
  directoryLength_ = length;
}

template <typename T>
bool omi_UintTable<T>::InsertIntoNewBlock(unsigned int key, const T& value) {
  const unsigned int index = key >> blockShift_;
  if (index >= directoryLength_) GrowDirectoryFor(index);
  if (blocks_[index] == nullptr) blocks_[index] = ::new omi_UintTableBlock<T>(pageDirectoryIncrement_, pageShift_);
  const bool added = blocks_[index]->Insert(key & offsetMask_, value);
  if (added) ++count_;
  return added;
}

template <typename T>
void omi_UintTable<T>::DestroyBlock(unsigned int index) {
  ::delete blocks_[index];
  blocks_[index] = nullptr;
}

template <typename T>
bool omi_UintTable<T>::Remove(unsigned int key) {
  const unsigned int index = key >> blockShift_;
  omi_UintTableBlock<T>* block = BlockAt(index);
  if (block == nullptr) return false;
  const bool removed = block->Remove(key & offsetMask_);
  if (block->Count() == 0) DestroyBlock(index);
  if (removed) --count_;
  return removed;
}

template <typename T>
void omi_UintTable<T>::Clear() {
  count_ = 0;
  for (unsigned int i = 0; i < directoryLength_; ++i) {
    if (blocks_[i] != nullptr) DestroyBlock(i);
  }
}

// ------------------------------------------------------------------ iterator

template <typename T>
omi_UintTableIterator<T>::omi_UintTableIterator(const omi_UintTable<T>& table)
    : omi_UintTableIterator(table, nullptr) {}

template <typename T>
omi_UintTableIterator<T>::omi_UintTableIterator(const omi_UintTable<T>& table, Comparator comparator)
    : table_(&table),
      currentOffset_(0),
      currentBlockBase_(0),
      position_(-2),
      currentBlock_(nullptr),
      bitTraversal_(nullptr),
      done_(false),
      comparator_(comparator),
      snapshot_(nullptr),
      snapshotLength_(0) {}

template <typename T>
omi_UintTableIterator<T>::~omi_UintTableIterator() {
  delete bitTraversal_;
  if (snapshot_ != nullptr) {
    for (unsigned int i = 0; i < snapshotLength_; ++i) ::delete snapshot_[i];
    mem_Free(snapshot_);
  }
}

// Puts a fresh traversal on the block at `index`, at its first or last key.
template <typename T>
bool omi_UintTableIterator<T>::EnterBlock(int index, bool atFirstBit) {
  position_ = index;
  currentBlock_ = table_->BlockAt(static_cast<unsigned int>(index));
  currentBlockBase_ = static_cast<unsigned int>(index) << table_->BlockShift();
  delete bitTraversal_;
  bitTraversal_ = new omi_BlkBitVectTrav(&currentBlock_->Bits());
  return atFirstBit ? bitTraversal_->First(currentOffset_) : bitTraversal_->Last(currentOffset_);
}

// The position is only moved when a block is found, so that a walk run off
// one end can come back from the block it stands on.
template <typename T>
bool omi_UintTableIterator<T>::AdvanceToBlock(int from) {
  const int length = static_cast<int>(table_->DirectoryLength());
  for (int index = from < 0 ? 0 : from; index < length; ++index) {
    if (table_->BlockAt(static_cast<unsigned int>(index)) != nullptr) return EnterBlock(index, true);
  }
  return false;
}

template <typename T>
bool omi_UintTableIterator<T>::StepBackToBlock(int from) {
  const int last = static_cast<int>(table_->DirectoryLength()) - 1;
  for (int index = from > last ? last : from; index >= 0; --index) {
    if (table_->BlockAt(static_cast<unsigned int>(index)) != nullptr) return EnterBlock(index, false);
  }
  return false;
}

template <typename T>
void omi_UintTableIterator<T>::BuildSnapshot() {
  const unsigned int count = table_->Count();
  snapshot_ = static_cast<SnapshotRecord**>(mem_Malloc(static_cast<std::size_t>(count) * sizeof(SnapshotRecord*)));
  unsigned int length = 0;
  omi_UintTableIterator<T> plain(*table_);
  for (plain.First(); !plain.IsDone() && length < count; plain.Next()) {
    snapshot_[length++] = ::new SnapshotRecord{plain.CurrentKey(), &plain.CurrentValue()};
  }
  snapshotLength_ = length;
  std::qsort(snapshot_, length, sizeof(SnapshotRecord*), comparator_);
}

template <typename T>
bool omi_UintTableIterator<T>::OnSnapshotRecord() const {
  return snapshot_ != nullptr && position_ >= 0 && static_cast<unsigned int>(position_) < snapshotLength_;
}

template <typename T>
void omi_UintTableIterator<T>::First() {
  if (comparator_ != nullptr) {
    if (table_->Count() < 1) {
      done_ = true;
      return;
    }
    if (snapshot_ == nullptr) BuildSnapshot();
    position_ = 0;
    done_ = false;
    return;
  }
  done_ = !AdvanceToBlock(0);
}

template <typename T>
void omi_UintTableIterator<T>::Last() {
  if (comparator_ != nullptr) {
    if (snapshot_ == nullptr && table_->Count() > 0) BuildSnapshot();
    position_ = static_cast<int>(table_->Count()) - 1;
    done_ = false;
    return;
  }
  done_ = !StepBackToBlock(static_cast<int>(table_->DirectoryLength()) - 1);
}

template <typename T>
void omi_UintTableIterator<T>::Next() {
  if (comparator_ != nullptr) {
    position_ += 1;
    done_ = static_cast<unsigned int>(position_) == table_->Count();
    return;
  }
  if (bitTraversal_ == nullptr) return;
  if (bitTraversal_->Next(currentOffset_)) {
    done_ = false;
    return;
  }
  done_ = !AdvanceToBlock(position_ + 1);
}

template <typename T>
void omi_UintTableIterator<T>::Prev() {
  if (comparator_ != nullptr) {
    if (position_ == 0) {
      done_ = true;
    } else {
      position_ -= 1;
      done_ = false;
    }
    return;
  }
  if (bitTraversal_ == nullptr) return;
  if (bitTraversal_->Prev(currentOffset_)) {
    done_ = false;
    return;
  }
  done_ = !StepBackToBlock(position_ - 1);
}

template <typename T>
unsigned int omi_UintTableIterator<T>::CurrentKey() const {
  if (comparator_ != nullptr) return OnSnapshotRecord() ? snapshot_[position_]->key : 0;
  return currentBlockBase_ + currentOffset_;
}

template <typename T>
const T& omi_UintTableIterator<T>::CurrentValue() const {
  static const T kZero{};
  if (comparator_ != nullptr) return OnSnapshotRecord() ? *snapshot_[position_]->value : kZero;
  if (currentBlock_ == nullptr) return kZero;
  const T* slot = currentBlock_->Slot(currentOffset_);
  return slot != nullptr ? *slot : kZero;
}

// ------------------------------------------------------------------ hashing

unsigned int HashValue(const unsigned int& key, unsigned int n) { return (key >> 2) % n; }

unsigned int HashValue(void* const& pointer, unsigned int n) {
  const auto low = static_cast<unsigned int>(reinterpret_cast<std::uintptr_t>(pointer));
  return (low >> 2) % n;
}

namespace {

// The library's primality test: 7 is tried before the bound is looked at, so
// 5 and 7 fail and 1 passes.
bool PassesPrimeTest(std::uint64_t candidate) {
  const auto bound = static_cast<std::uint64_t>(std::sqrt(static_cast<double>(candidate) + 1.0));
  if (candidate % 5 == 0) return false;
  for (std::uint64_t d = 5;;) {
    if (candidate % (d + 2) == 0) return false;
    d += 6;
    if (d > bound) return true;
    if (candidate % d == 0) return false;
  }
}

}  // namespace

unsigned int omi_nextPrime(unsigned int n) {
  if (n == 0) return 0;
  const std::uint64_t base = static_cast<std::uint64_t>(n / 6) * 6;
  if (base + 1 >= n && PassesPrimeTest(base + 1)) return static_cast<unsigned int>(base + 1);
  // 6k+5, 6k+7, 6k+11, 6k+13, ...
  std::uint64_t candidate = base + 5;
  for (std::uint64_t step = 2; candidate <= 0xFFFFFFFFull; candidate += step, step = 6 - step) {
    if (PassesPrimeTest(candidate)) return static_cast<unsigned int>(candidate);
  }
  return 0;
}

template class omi_UintTableBlock<int>;
template class omi_UintTableBlock<double>;
template class omi_UintTableBlock<void*>;
template class omi_UintTable<int>;
template class omi_UintTable<double>;
template class omi_UintTable<void*>;
template class omi_UintTableIterator<int>;
template class omi_UintTableIterator<double>;
template class omi_UintTableIterator<void*>;
