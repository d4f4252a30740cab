// omi_IntTable<T>: a map from signed int keys to values of T made of two
// omi_UintTable<T> halves, and omi_IntTableIterator<T>, its ascending walk.
//
// A key k < 0 is kept in the first half under its magnitude -k (taken in
// unsigned arithmetic, so INT_MIN is 2,147,483,648); k >= 0 in the second.
// The walk runs from the most negative key to the largest, also when the
// iterator was given a comparator (which is only stored).
//
//   omi_IntTable<int> t;            // geometry (12, 10, 24)
//   t.Insert(-1, 10);  t.Insert(1, 11);
//   omi_IntTableIterator<int> it(t);
//   for (it.First(); !it.IsDone(); it.Next()) use(it.CurrentKey(), it.CurrentValue());
//
// Exported for T = int, double and void*.
#ifndef ZMXUTI_CONTAINERS_INT_TABLE_H
#define ZMXUTI_CONTAINERS_INT_TABLE_H

#include "containers/uint_table.h"
#include "core/export.h"

template <typename T>
class ZMXUTI_API omi_IntTable {
 public:
  omi_IntTable();
  omi_IntTable(unsigned int a, unsigned int b, unsigned int c);
  omi_IntTable& operator=(const omi_IntTable&) = delete;
  virtual ~omi_IntTable();

  // A deep copy; the caller owns it.
  omi_IntTable<T>* Copy() const;

  // As the omi_UintTable operations, routed by the key's sign.
  bool Insert(int key, const T& value) {
    return key < 0 ? negative_->Insert(Magnitude(key), value) : nonNegative_->Insert(static_cast<unsigned int>(key), value);
  }
  bool Remove(int key) { return key < 0 ? negative_->Remove(Magnitude(key)) : nonNegative_->Remove(static_cast<unsigned int>(key)); }
  const T* Find(int key) const {
    return key < 0 ? negative_->Find(Magnitude(key)) : nonNegative_->Find(static_cast<unsigned int>(key));
  }
  void Clear();
  unsigned int Count() const { return negative_->Count() + nonNegative_->Count(); }

  // The halves, for the iterator and the multimap.
  const omi_UintTable<T>& NegativeHalf() const { return *negative_; }
  const omi_UintTable<T>& NonNegativeHalf() const { return *nonNegative_; }
  // The half holding a key, by its sign.
  omi_UintTable<T>& HalfOf(int key) const { return key < 0 ? *negative_ : *nonNegative_; }
  // The magnitude of a negative key, in unsigned arithmetic.
  static unsigned int Magnitude(int key) { return 0u - static_cast<unsigned int>(key); }
  // The unsigned key under which a signed key is stored.
  static unsigned int StoredKey(int key) { return key < 0 ? Magnitude(key) : static_cast<unsigned int>(key); }

 protected:
  omi_IntTable(const omi_IntTable& other);

 private:
  omi_UintTable<T>* negative_;
  omi_UintTable<T>* nonNegative_;
};

template <typename T>
class ZMXUTI_API omi_IntTableIterator {
 public:
  explicit omi_IntTableIterator(const omi_IntTable<T>& table);
  omi_IntTableIterator(const omi_IntTable<T>& table, int (*comparator)(const void*, const void*));

  // Onto the most negative key.
  void First();
  // Onto the largest non-negative key; a table with only negative keys is done at once.
  void Last();
  void Next();
  bool IsDone() const { return negativesLeft_ == 0 && nonNegative_.IsDone(); }
  int CurrentKey() const;
  const T& CurrentValue() const;

 private:
  unsigned int negativesLeft_;
  unsigned int negativeCount_;
  omi_UintTableIterator<T> negative_;
  omi_UintTableIterator<T> nonNegative_;
  int (*comparator_)(const void*, const void*);
};

extern template class omi_IntTable<int>;
extern template class omi_IntTable<double>;
extern template class omi_IntTable<void*>;
extern template class omi_IntTableIterator<int>;
extern template class omi_IntTableIterator<double>;
extern template class omi_IntTableIterator<void*>;

#endif  // ZMXUTI_CONTAINERS_INT_TABLE_H
