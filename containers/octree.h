// omi_Octree: a spatial index of axis-aligned boxes known by unsigned item
// numbers, with its cells (branches, fixed and growable leaves) and the word
// blocks that hold the leaves' item lists.
//
// The client keeps the boxes; the tree stores item numbers in its leaves and,
// when a full leaf is redistributed, asks the client's callback for the box of
// each stored item.
//
//   void BoxOf(void* user, unsigned int item, float* const min, float* const max);
//   omi_Octree tree(omi_OctVector(0, 0, 0), omi_OctVector(10, 10, 10), 0.01f, BoxOf, &boxes);
//   tree.Insert(7, omi_OctVector(1, 1, 1), omi_OctVector(2, 2, 2));
//   float p[3] = {1.5f, 1.5f, 1.5f};
//   const omi_OctreeLeaf* leaf = tree.FindCell(p);   // holds item 7
//
// Along a split axis a box goes to the upper half only when its min is above
// the centre, to both halves when its max is above it, else to the lower half
// only (so max == centre: lower only; min == centre: both). A fixed leaf holds
// 256 items; the 257th splits it into a branch while the tree depth is below
// 11 and the cell can still be halved above the tolerance, otherwise the leaf
// becomes a growable leaf (512 items, then doubling).
//
// Not thread-safe: the insertion depth counter and the Dump counters are single
// process-wide values shared by all trees; fill and dump one tree at a time.
#ifndef ZMXUTI_CONTAINERS_OCTREE_H
#define ZMXUTI_CONTAINERS_OCTREE_H

#include "core/export.h"
#include "mem/allocation.h"

class omi_Octree;
class omi_OctreeLeaf;
class omi_OctreeMemory;

// Three single-precision floats.
struct ZMXUTI_API omi_OctVector {
  float x;
  float y;
  float z;

  omi_OctVector() : x(0.0f), y(0.0f), z(0.0f) {}
  omi_OctVector(float ax, float ay, float az) : x(ax), y(ay), z(az) {}
};

// Words handed out by omi_Octree::MemAlloc: the block they came from and the
// first word. Both null when default-constructed.
class ZMXUTI_API omi_OctreeMemPtr {
 public:
  omi_OctreeMemPtr() : block_(nullptr), words_(nullptr) {}
  omi_OctreeMemPtr(omi_OctreeMemory* block, unsigned int* words) : block_(block), words_(words) {}

  omi_OctreeMemory* Block() const { return block_; }
  unsigned int* Words() const { return words_; }
  bool IsNull() const { return words_ == nullptr; }
  // Gives the words back to their block (which is reset and put on its tree's
  // freed list once none of its allocations is live) and nulls this pointer.
  // Nothing for a null pointer.
  void Release();

 private:
  omi_OctreeMemory* block_;
  unsigned int* words_;
};

// One word block of a tree. Words are handed out from a cursor and never
// returned one by one: the block is reset only when all its allocations are released.
class ZMXUTI_API omi_OctreeMemory : public mem_AllocationOperatorsTiny {
 public:
  // A block of `words` words at the head of a list whose next block is `next`.
  omi_OctreeMemory(unsigned int words, omi_OctreeMemory* next, omi_Octree* tree);
  ~omi_OctreeMemory();
  omi_OctreeMemory(const omi_OctreeMemory&) = delete;
  omi_OctreeMemory& operator=(const omi_OctreeMemory&) = delete;

  unsigned int Size() const { return size_; }
  unsigned int WordsLeft() const { return wordsLeft_; }
  unsigned int LiveAllocations() const { return live_; }
  const omi_OctreeMemory* Next() const { return next_; }
  const omi_OctreeMemory* NextFreed() const { return nextFreed_; }

 private:
  friend class omi_Octree;
  friend class omi_OctreeMemPtr;

  // Serves `words` from the cursor when enough are left; null otherwise.
  unsigned int* Serve(unsigned int words);
  void ReleaseOne();

  unsigned int* base_;
  unsigned int wordsLeft_;
  unsigned int live_;
  unsigned int* cursor_;
  unsigned int size_;
  omi_OctreeMemory* next_;
  omi_OctreeMemory* nextFreed_;
  omi_Octree* tree_;
  bool onFreedList_;  // a block already waiting on the freed list is not pushed twice
};

// A cell: an axis-aligned box given by its centre and half-size.
class ZMXUTI_API omi_OctreeCell : public mem_AllocationOperators {
 public:
  omi_OctreeCell(const omi_OctVector& centre, const omi_OctVector& halfSize);
  virtual ~omi_OctreeCell();
  omi_OctreeCell(const omi_OctreeCell&) = delete;
  omi_OctreeCell& operator=(const omi_OctreeCell&) = delete;

  // The leaf below this cell containing the point: along each split axis the
  // upper child when the coordinate is above the centre, else the lower one.
  virtual const omi_OctreeLeaf* FindCell(const float* const point) const = 0;
  // Adds the item with its box below this cell. A non-null result is the cell
  // that replaces this one: the caller destroys this cell and puts it in its place.
  virtual omi_OctreeCell* InsertBox(unsigned int item, const omi_OctVector& min, const omi_OctVector& max,
                                    omi_Octree* tree) = 0;
  // Adds this subtree to the dump counters; returns the number of items stored below.
  virtual unsigned int Dump() const = 0;

  const omi_OctVector& Centre() const { return centre_; }
  const omi_OctVector& HalfSize() const { return halfSize_; }

 protected:
  omi_OctVector halfSize_;
  omi_OctVector centre_;
};

// A cell split into up to eight children. Child index bit 1 = upper x half,
// bit 2 = upper y, bit 4 = upper z.
class ZMXUTI_API omi_OctreeBranch : public omi_OctreeCell {
 public:
  // Creates the children as fixed leaves numbered from the tree's leaf
  // counter, in the order 0, 1, 3, 2 and, when z is splittable, 6, 7, 5, 4,
  // each only where the tree's splittable axes allow it.
  omi_OctreeBranch(const omi_OctVector& centre, const omi_OctVector& halfSize, omi_Octree* tree);
  ~omi_OctreeBranch() override;

  const omi_OctreeLeaf* FindCell(const float* const point) const override;
  omi_OctreeCell* InsertBox(unsigned int item, const omi_OctVector& min, const omi_OctVector& max,
                            omi_Octree* tree) override;
  unsigned int Dump() const override;

  // Child at index 0..7; null where absent (or index above 7).
  const omi_OctreeCell* Child(unsigned int index) const { return index < 8 ? children_[index] : nullptr; }
  // Whether the branch distributes items along axis 0 (x), 1 (y) or 2 (z).
  bool Split(unsigned int axis) const { return axis < 3 && split_[axis]; }

 private:
  omi_OctreeCell* children_[8];
  bool split_[3];
};

// A cell that stores item numbers.
class ZMXUTI_API omi_OctreeLeaf : public omi_OctreeCell {
 public:
  omi_OctreeLeaf(unsigned int number, const omi_OctVector& centre, const omi_OctVector& halfSize);
  ~omi_OctreeLeaf() override;

  // Itself.
  const omi_OctreeLeaf* FindCell(const float* const point) const override;
  // Counts this leaf; dumped on its own (outside a tree's Dump) it prints the
  // "Total nodeCount=..." line for itself.
  unsigned int Dump() const override;
  // The i-th stored item, i below Count() (aborts with a message otherwise).
  virtual unsigned int ItemAt(unsigned int i) const = 0;

  unsigned int Count() const { return count_; }
  unsigned int Number() const { return number_; }

 protected:
  // Aborts unless i < count_.
  void CheckIndex(unsigned int i) const;

  unsigned int count_;
  unsigned int number_;
};

// A leaf of at most 256 items, held in eight chunks of 32 words taken from the
// tree's blocks when first needed.
class ZMXUTI_API omi_OctreeLeafFix : public omi_OctreeLeaf {
 public:
  omi_OctreeLeafFix(unsigned int number, const omi_OctVector& centre, const omi_OctVector& halfSize);
  ~omi_OctreeLeafFix() override;

  omi_OctreeCell* InsertBox(unsigned int item, const omi_OctVector& min, const omi_OctVector& max,
                            omi_Octree* tree) override;
  unsigned int ItemAt(unsigned int i) const override;

 private:
  omi_OctreeCell* SplitInto(unsigned int item, const omi_OctVector& min, const omi_OctVector& max, omi_Octree* tree);
  omi_OctreeCell* Grow(unsigned int item, omi_Octree* tree);

  omi_OctreeMemPtr chunks_[8];
};

// A leaf without limit: one array of item numbers that starts at 512 and doubles.
class ZMXUTI_API omi_OctreeLeafInf : public omi_OctreeLeaf {
 public:
  omi_OctreeLeafInf(unsigned int number, const omi_OctVector& centre, const omi_OctVector& halfSize,
                    omi_Octree* tree);
  ~omi_OctreeLeafInf() override;

  omi_OctreeCell* InsertBox(unsigned int item, const omi_OctVector& min, const omi_OctVector& max,
                            omi_Octree* tree) override;
  unsigned int ItemAt(unsigned int i) const override;

  unsigned int Capacity() const { return capacity_; }

 private:
  unsigned int capacity_;
  omi_OctreeMemPtr items_;
};

class ZMXUTI_API omi_Octree : public mem_AllocationOperators {
 public:
  // Writes the box of `item` into min and max (three floats each).
  typedef void (*BoxCallback)(void* userData, unsigned int item, float* const min, float* const max);

  // A tree whose root is a branch over the box centre +/- halfSize. When the
  // tolerance exceeds all three half-size components the root half-size
  // becomes (tolerance, tolerance, tolerance). An axis is splittable where the
  // root half-size is not below the tolerance. A null callback reads every box
  // as zero when a full leaf is redistributed. Cell centres beyond float range
  // become infinities (no floating-point trap is raised).
  omi_Octree(const omi_OctVector& centre, const omi_OctVector& halfSize, float tolerance, BoxCallback callback,
             void* userData);
  // Destroys every cell, then frees every word block.
  ~omi_Octree();
  omi_Octree(const omi_Octree&) = delete;
  omi_Octree& operator=(const omi_Octree&) = delete;

  // Adds the item with its box (min <= max expected; any floats are safe).
  void Insert(unsigned int item, const omi_OctVector& min, const omi_OctVector& max);
  // The leaf containing the point (three floats).
  const omi_OctreeLeaf* FindCell(const float* const point) const { return root_->FindCell(point); }

  // `words` words from the current block, else from the first freed block when
  // it has room (it becomes current), else from a new block of 1,024 words (or
  // twice the request above 1,024) that becomes current. Requests above
  // 0x7FFFFFFF words abort with a message.
  omi_OctreeMemPtr MemAlloc(unsigned int words);
  // Pushes an emptied block on the freed list.
  void FreedBlock(omi_OctreeMemory* block);

  // Prints on standard output:
  //   "Total nodeCount=%d, numCell=%d, numLeaf=%d, maxDepth=%d, size=%d\n"
  //   "MemoryBlocks: Count=%d, Size=%d, Waste=%d\n"
  //   "FreedBlocks: Count=%d, Size=%d\n"
  // and returns the number of items stored (an item is counted in every leaf holding it).
  unsigned int Dump() const;

  const omi_OctreeCell* Root() const { return root_; }
  // The number the next leaf created will get (= leaves created so far).
  unsigned int LeafCount() const { return leafCounter_; }
  float Tolerance() const { return tolerance_; }
  // The smallest child half-size reached along the chosen axis (the splittable
  // axis with the smallest root half-size; 3 when no axis is splittable).
  const omi_OctVector& SmallestHalfSize() const { return smallestHalfSize_; }
  unsigned int ChosenAxis() const { return chosenAxis_; }
  bool Splittable(unsigned int axis) const { return axis < 3 && splittable_[axis]; }
  // The list of all word blocks (newest first), the current block and the freed list.
  const omi_OctreeMemory* Blocks() const { return blocks_; }
  const omi_OctreeMemory* CurrentBlock() const { return current_; }
  const omi_OctreeMemory* FreedBlocks() const { return freed_; }

 private:
  friend class omi_OctreeBranch;
  friend class omi_OctreeLeafFix;

  unsigned int TakeLeafNumber() { return leafCounter_++; }
  // The item's box from the callback (zero when there is none).
  void BoxOf(unsigned int item, omi_OctVector& min, omi_OctVector& max);

  float tolerance_;
  omi_OctVector smallestHalfSize_;
  unsigned int chosenAxis_;
  bool splittable_[3];
  omi_OctreeCell* root_;
  omi_OctreeMemory* blocks_;
  omi_OctreeMemory* current_;
  omi_OctreeMemory* freed_;
  unsigned int leafCounter_;
  void* userData_;
  BoxCallback callback_;
};

#endif  // ZMXUTI_CONTAINERS_OCTREE_H
