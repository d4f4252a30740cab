// omi_IntTable<T>: the two halves by sign, and the walk that joins them in
// ascending signed order.
#include "containers/int_table.h"

namespace {
constexpr unsigned int kDefaultBlockBits = 12;
constexpr unsigned int kDefaultPageBits = 10;
constexpr unsigned int kDefaultPageDirectoryStep = 24;
}  // namespace

template <typename T>
omi_IntTable<T>::omi_IntTable() : omi_IntTable(kDefaultBlockBits, kDefaultPageBits, kDefaultPageDirectoryStep) {}

template <typename T>
omi_IntTable<T>::omi_IntTable(unsigned int a, unsigned int b, unsigned int c)
    : negative_(new omi_UintTable<T>(a, b, c)), nonNegative_(new omi_UintTable<T>(a, b, c)) {}

template <typename T>
omi_IntTable<T>::omi_IntTable(const omi_IntTable& other)
    : negative_(new omi_UintTable<T>(*other.negative_)), nonNegative_(new omi_UintTable<T>(*other.nonNegative_)) {}

template <typename T>
omi_IntTable<T>::~omi_IntTable() {
  delete negative_;
  delete nonNegative_;
}

template <typename T>
omi_IntTable<T>* omi_IntTable<T>::Copy() const {
  return new omi_IntTable<T>(*this);
}

template <typename T>
void omi_IntTable<T>::Clear() {
  negative_->Clear();
  nonNegative_->Clear();
}

template <typename T>
omi_IntTableIterator<T>::omi_IntTableIterator(const omi_IntTable<T>& table) : omi_IntTableIterator(table, nullptr) {}

template <typename T>
omi_IntTableIterator<T>::omi_IntTableIterator(const omi_IntTable<T>& table,
                                              int (*comparator)(const void*, const void*))
    : negativesLeft_(table.NegativeHalf().Count()),
      negativeCount_(table.NegativeHalf().Count()),
      negative_(table.NegativeHalf()),
      nonNegative_(table.NonNegativeHalf()),
      comparator_(comparator) {}

template <typename T>
void omi_IntTableIterator<T>::First() {
  negativesLeft_ = negativeCount_;
  negative_.Last();
  nonNegative_.First();
}

template <typename T>
void omi_IntTableIterator<T>::Last() {
  negativesLeft_ = 0;
  negative_.First();
  nonNegative_.Last();
}

template <typename T>
void omi_IntTableIterator<T>::Next() {
  if (negativesLeft_ == 0) {
    nonNegative_.Next();
  } else {
    negativesLeft_ -= 1;
    negative_.Prev();
  }
}

template <typename T>
int omi_IntTableIterator<T>::CurrentKey() const {
  if (negativesLeft_ == 0) return static_cast<int>(nonNegative_.CurrentKey());
  return static_cast<int>(0u - negative_.CurrentKey());
}

template <typename T>
const T& omi_IntTableIterator<T>::CurrentValue() const {
  return negativesLeft_ == 0 ? nonNegative_.CurrentValue() : negative_.CurrentValue();
}

template class omi_IntTable<int>;
template class omi_IntTable<double>;
template class omi_IntTable<void*>;
template class omi_IntTableIterator<int>;
template class omi_IntTableIterator<double>;
template class omi_IntTableIterator<void*>;
