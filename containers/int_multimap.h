// omi_IntMultiMap<T>: a map from signed int keys to any number of values of T,
// built on omi_IntTable<void*> whose value per key is the head of a chain of
// links handed out in bulk from link blocks; and its iterator.
//
// A key's chain runs from the newest value to the oldest. When removals leave
// too many dead links (at least 257 handed out and three or more per live
// value), the map compacts its links into new blocks; compaction reverses
// every chain. Kept behaviours of the map:
// - a negative key's first value is placed by its magnitude, but later
//   inserts and IsMember place it by the key's own low bits (two's complement),
//   while removals always place it by magnitude;
// - Remove(key, value) leaves in the chain the second of two adjacent matching
//   links behind the first link, yet counts it as removed.
//
//   omi_IntMultiMap<int> m;
//   m.Insert(5, 1);  m.Insert(5, 2);     // chain of 5: 2, 1
//   m.IsMember(5, 1);                    // true
//   omi_IntMultiMapIterator<int> it(m);
//   for (it.First(); !it.IsDone(); it.Next()) ...
//
// Exported for T = int and void*.
#ifndef ZMXUTI_CONTAINERS_INT_MULTIMAP_H
#define ZMXUTI_CONTAINERS_INT_MULTIMAP_H

#include "containers/int_table.h"
#include "core/export.h"

// One value of a key's chain.
template <typename T>
struct omi_IntMultiMapLink {
  T value;
  omi_IntMultiMapLink* next;
};

// An array of links taken through mem_OperatorNewThrow, and the block made before it.
template <typename T>
class ZMXUTI_API omi_IntMultiMapLinkBlock {
 public:
  explicit omi_IntMultiMapLinkBlock(int count);
  omi_IntMultiMapLinkBlock(const omi_IntMultiMapLinkBlock&) = delete;
  omi_IntMultiMapLinkBlock& operator=(const omi_IntMultiMapLinkBlock&) = delete;
  ~omi_IntMultiMapLinkBlock();

  omi_IntMultiMapLink<T>* links;
  omi_IntMultiMapLinkBlock* next;
};

template <typename T>
class ZMXUTI_API omi_IntMultiMap : public omi_IntTable<void*> {
 public:
  using Link = omi_IntMultiMapLink<T>;

  omi_IntMultiMap();
  omi_IntMultiMap(const omi_IntMultiMap&) = delete;
  omi_IntMultiMap& operator=(const omi_IntMultiMap&) = delete;
  ~omi_IntMultiMap() override;

  // Adds one value under key (duplicates allowed); always true.
  bool Insert(int key, const T& value);
  // True when value is one of key's values.
  bool IsMember(int key, const T& value) const;
  // Removes key with all its values; false when the key holds none.
  bool Remove(int key);
  // Removes key's links whose value equals value; false only when the key
  // holds no link. Applies the compaction rule.
  bool Remove(int key, const T& value);
  // Empties the map and frees every link block.
  void Clear();
  // Values currently in the map.
  unsigned int Count() const { return liveValues_; }

  // The first link of the key found by magnitude, null when it holds none.
  const Link* FirstLink(int key) const;
  // Links taken from link blocks since the last compaction or Clear.
  unsigned int LinksHandedOut() const { return linksHandedOut_; }
  // Number of link blocks held.
  unsigned int LinkBlockCount() const;

 private:
  using LinkBlock = omi_IntMultiMapLinkBlock<T>;
  using ValueComparison = int (*)(const T*, const T*);

  Link* TakeLink();
  void FreeLinkBlocks(LinkBlock* list);
  void AfterRemoval();
  void Compact(ValueComparison compare);
  // The block and position of a key found by magnitude; false when it holds no link.
  bool FindByMagnitude(int key, omi_UintTableBlock<void*>*& block, unsigned int& position) const;

  unsigned int liveValues_;
  unsigned int linksHandedOut_;
  LinkBlock* linkBlocks_;
  int linksUsed_;
  Link* lastLink_;
};

// Visits the keys in table order (ascending signed) and each key's chain from
// its first link.
template <typename T>
class ZMXUTI_API omi_IntMultiMapIterator {
 public:
  explicit omi_IntMultiMapIterator(const omi_IntMultiMap<T>& map);
  ~omi_IntMultiMapIterator();

  void First();
  void Next();
  bool IsDone() const { return current_ == nullptr; }
  int CurrentKey() const { return tableIterator_.CurrentKey(); }
  const T& CurrentValue() const { return current_->value; }

 private:
  void EnterKey();

  omi_IntTableIterator<void*> tableIterator_;
  const omi_IntMultiMapLink<T>* current_;
  const omi_IntMultiMap<T>* map_;
};

extern template class omi_IntMultiMapLinkBlock<int>;
extern template class omi_IntMultiMapLinkBlock<void*>;
extern template class omi_IntMultiMap<int>;
extern template class omi_IntMultiMap<void*>;
extern template class omi_IntMultiMapIterator<int>;
extern template class omi_IntMultiMapIterator<void*>;

#endif  // ZMXUTI_CONTAINERS_INT_MULTIMAP_H
