// omi_IntMultiMap<T>: link hand-out, insertion and removal with their kept
// placement rules, the after-removal rule and the compaction that reverses chains.
#include "containers/int_multimap.h"

namespace {

constexpr int kLinksPerBlock = 256;
constexpr unsigned int kCompactionFloor = 257;
constexpr unsigned int kDeadLinkRatio = 3;

template <typename T>
int AlwaysEqual(const T*, const T*) {
  return 0;
}

}  // namespace

// ------------------------------------------------------------------ link blocks

template <typename T>
omi_IntMultiMapLinkBlock<T>::omi_IntMultiMapLinkBlock(int count)
    : links(static_cast<omi_IntMultiMapLink<T>*>(
          mem_OperatorNewThrow(static_cast<std::size_t>(count < 1 ? 1 : count) * sizeof(omi_IntMultiMapLink<T>)))),
      next(nullptr) {}

template <typename T>
omi_IntMultiMapLinkBlock<T>::~omi_IntMultiMapLinkBlock() {
  mem_Free(links);
}

// ------------------------------------------------------------------ map

template <typename T>
omi_IntMultiMap<T>::omi_IntMultiMap()
    : omi_IntTable<void*>(),
      liveValues_(0),
      linksHandedOut_(0),
      linkBlocks_(nullptr),
      linksUsed_(kLinksPerBlock),
      lastLink_(nullptr) {}

template <typename T>
omi_IntMultiMap<T>::~omi_IntMultiMap() {
  FreeLinkBlocks(linkBlocks_);
}

template <typename T>
typename omi_IntMultiMap<T>::Link* omi_IntMultiMap<T>::TakeLink() {
  linksUsed_ += 1;
  if (linksUsed_ > kLinksPerBlock) {
    LinkBlock* block = new LinkBlock(kLinksPerBlock);
    block->next = linkBlocks_;
    linkBlocks_ = block;
    linksUsed_ = 1;
    lastLink_ = block->links;
  } else {
    lastLink_ += 1;
  }
  linksHandedOut_ += 1;
  return lastLink_;
}

template <typename T>
void omi_IntMultiMap<T>::FreeLinkBlocks(LinkBlock* list) {
  while (list != nullptr) {
    LinkBlock* older = list->next;
    delete list;
    list = older;
  }
}

template <typename T>
unsigned int omi_IntMultiMap<T>::LinkBlockCount() const {
  unsigned int blocks = 0;
  for (const LinkBlock* block = linkBlocks_; block != nullptr; block = block->next) ++blocks;
  return blocks;
}

template <typename T>
bool omi_IntMultiMap<T>::FindByMagnitude(int key, omi_UintTableBlock<void*>*& block, unsigned int& position) const {
  const omi_UintTable<void*>& half = HalfOf(key);
  const unsigned int stored = StoredKey(key);
  block = half.BlockOf(stored);
  position = stored & half.OffsetMask();
  // A slot whose bit is clear may still hold the bytes of a removed chain:
  // only a set bit makes it a live slot.
  return block != nullptr && block->Contains(position) && block->GetCell(position) != nullptr;
}

template <typename T>
const typename omi_IntMultiMap<T>::Link* omi_IntMultiMap<T>::FirstLink(int key) const {
  omi_UintTableBlock<void*>* block = nullptr;
  unsigned int position = 0;
  if (!FindByMagnitude(key, block, position)) return nullptr;
  return static_cast<const Link*>(block->GetCell(position));
}

template <typename T>
bool omi_IntMultiMap<T>::Insert(int key, const T& value) {
  Link* link = TakeLink();
  link->value = value;
  omi_UintTable<void*>& half = HalfOf(key);
  const unsigned int stored = StoredKey(key);
  omi_UintTableBlock<void*>* block = half.BlockOf(stored);
  if (block != nullptr) {
    // The key's own low bits, also for a negative key (kept asymmetry).
    const unsigned int position = static_cast<unsigned int>(key) & half.OffsetMask();
    if (block->Contains(position)) {
      link->next = static_cast<Link*>(block->GetCell(position));
    } else {
      link->next = nullptr;
      // The half's count stays the number of keys present.
      if (block->Insert(position, link)) half.count_ += 1;
    }
    block->SetCell(position, link);
  } else {
    link->next = nullptr;
    half.Insert(stored, link);
  }
  liveValues_ += 1;
  return true;
}

template <typename T>
bool omi_IntMultiMap<T>::IsMember(int key, const T& value) const {
  const omi_UintTable<void*>& half = HalfOf(key);
  const omi_UintTableBlock<void*>* block = half.BlockOf(StoredKey(key));
  if (block == nullptr) return false;
  const unsigned int position = static_cast<unsigned int>(key) & half.OffsetMask();
  if (!block->Contains(position)) return false;
  for (const Link* link = static_cast<const Link*>(block->GetCell(position)); link != nullptr; link = link->next) {
    if (link->value == value) return true;
  }
  return false;
}

template <typename T>
bool omi_IntMultiMap<T>::Remove(int key) {
  omi_UintTableBlock<void*>* block = nullptr;
  unsigned int position = 0;
  if (!FindByMagnitude(key, block, position)) return false;
  for (const Link* link = static_cast<const Link*>(block->GetCell(position)); link != nullptr; link = link->next) {
    liveValues_ -= 1;
  }
  HalfOf(key).Remove(StoredKey(key));
  AfterRemoval();
  return true;
}

template <typename T>
bool omi_IntMultiMap<T>::Remove(int key, const T& value) {
  omi_UintTableBlock<void*>* block = nullptr;
  unsigned int position = 0;
  if (!FindByMagnitude(key, block, position)) return false;
  Link* first = static_cast<Link*>(block->GetCell(position));
  while (first != nullptr && first->value == value) {
    liveValues_ -= 1;
    first = first->next;
  }
  block->SetCell(position, first);
  if (first != nullptr) {
    // The walk goes on from an unlinked link, so the second of two adjacent
    // matches is counted but stays in the chain (kept behaviour).
    for (Link *previous = first, *current = first->next; current != nullptr;) {
      if (current->value == value) {
        liveValues_ -= 1;
        previous->next = current->next;
      }
      previous = current;
      current = current->next;
    }
  } else {
    HalfOf(key).Remove(StoredKey(key));
  }
  AfterRemoval();
  return true;
}

template <typename T>
void omi_IntMultiMap<T>::AfterRemoval() {
  if (liveValues_ == 0) {
    Clear();
  } else if (linksHandedOut_ >= kCompactionFloor && linksHandedOut_ / liveValues_ >= kDeadLinkRatio) {
    Compact(&AlwaysEqual<T>);
  }
}

// Every chain is rebuilt from new links in table order; each new link goes
// before the first one that does not compare below it, so with a comparison
// that is always 0 the chain comes out reversed.
template <typename T>
void omi_IntMultiMap<T>::Compact(ValueComparison compare) {
  LinkBlock* oldBlocks = linkBlocks_;
  linksHandedOut_ = 0;
  linkBlocks_ = nullptr;
  linksUsed_ = kLinksPerBlock;
  omi_IntTableIterator<void*> keys(*this);
  for (keys.First(); !keys.IsDone(); keys.Next()) {
    const int key = keys.CurrentKey();
    const omi_UintTable<void*>& half = HalfOf(key);
    const unsigned int stored = StoredKey(key);
    omi_UintTableBlock<void*>* block = half.BlockOf(stored);
    const unsigned int position = stored & half.OffsetMask();
    const Link* old = static_cast<const Link*>(block->GetCell(position));
    Link* head = nullptr;
    for (; old != nullptr; old = old->next) {
      Link* fresh = TakeLink();
      fresh->value = old->value;
      Link** at = &head;
      while (*at != nullptr && compare(&(*at)->value, &fresh->value) < 0) at = &(*at)->next;
      fresh->next = *at;
      *at = fresh;
    }
    block->SetCell(position, head);
  }
  FreeLinkBlocks(oldBlocks);
}

template <typename T>
void omi_IntMultiMap<T>::Clear() {
  FreeLinkBlocks(linkBlocks_);
  omi_IntTable<void*>::Clear();
  liveValues_ = 0;
  linksHandedOut_ = 0;
  linkBlocks_ = nullptr;
  lastLink_ = nullptr;
  linksUsed_ = kLinksPerBlock;
}

// ------------------------------------------------------------------ iterator

template <typename T>
omi_IntMultiMapIterator<T>::omi_IntMultiMapIterator(const omi_IntMultiMap<T>& map)
    : tableIterator_(map), current_(nullptr), map_(&map) {}

template <typename T>
omi_IntMultiMapIterator<T>::~omi_IntMultiMapIterator() = default;

template <typename T>
void omi_IntMultiMapIterator<T>::EnterKey() {
  current_ = tableIterator_.IsDone() ? nullptr : map_->FirstLink(tableIterator_.CurrentKey());
}

template <typename T>
void omi_IntMultiMapIterator<T>::First() {
  tableIterator_.First();
  EnterKey();
}

template <typename T>
void omi_IntMultiMapIterator<T>::Next() {
  if (current_ == nullptr) return;
  if (current_->next != nullptr) {
    current_ = current_->next;
    return;
  }
  tableIterator_.Next();
  EnterKey();
}

template class omi_IntMultiMapLinkBlock<int>;
template class omi_IntMultiMapLinkBlock<void*>;
template class omi_IntMultiMap<int>;
template class omi_IntMultiMap<void*>;
template class omi_IntMultiMapIterator<int>;
template class omi_IntMultiMapIterator<void*>;
