// The octree's cells: construction of branches and their children, insertion
// with splitting and growth of leaves, point location and the statistics dump.
#include "containers/octree.h"

#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <limits>

namespace {

// Insertion depth, shared by every tree of the process: a full fixed leaf only
// splits while it is below 11.
unsigned int gInsertDepth = 0;
constexpr unsigned int kSplitDepthLimit = 11;
constexpr unsigned int kFixedCapacity = 256;
constexpr unsigned int kChunkWords = 32;

// Dump counters, shared by every tree of the process.
int gDumpDepth = 0;
int gDumpCells = 0;
int gDumpLeaves = 0;
int gDumpMaxDepth = 0;

// a + b rounded to float as a float addition rounds it, but without raising the
// floating-point traps the library's start-up switches on: a sum beyond float
// range is an infinity, and infinities of opposite signs give a NaN. (A double
// holds more than twice a float's precision, so rounding first to double and
// then to float gives the float sum.)
float QuietSum(float a, float b) {
  if (std::isinf(a) && std::isinf(b) && std::signbit(a) != std::signbit(b))
    return std::numeric_limits<float>::quiet_NaN();
  const double sum = static_cast<double>(a) + b;
  constexpr double kRoundsToInfinity = 0x1.ffffffp+127;  // FLT_MAX + half its unit in the last place
  if (!std::isgreaterequal(std::fabs(sum), kRoundsToInfinity)) return static_cast<float>(sum);
  return std::signbit(sum) ? -std::numeric_limits<float>::infinity() : std::numeric_limits<float>::infinity();
}

float Component(const omi_OctVector& v, unsigned int axis) { return axis == 0 ? v.x : axis == 1 ? v.y : v.z; }
float& Component(omi_OctVector& v, unsigned int axis) { return axis == 0 ? v.x : axis == 1 ? v.y : v.z; }

void PrintTotals(unsigned int items, unsigned int size) {
  std::printf("Total nodeCount=%d, numCell=%d, numLeaf=%d, maxDepth=%d, size=%d\n", static_cast<int>(items),
              gDumpCells, gDumpLeaves, gDumpMaxDepth, static_cast<int>(size));
}

}  // namespace

// ---- omi_OctreeCell ----

omi_OctreeCell::omi_OctreeCell(const omi_OctVector& centre, const omi_OctVector& halfSize)
    : halfSize_(halfSize), centre_(centre) {}

omi_OctreeCell::~omi_OctreeCell() {}

// ---- omi_OctreeBranch ----

omi_OctreeBranch::omi_OctreeBranch(const omi_OctVector& centre, const omi_OctVector& halfSize, omi_Octree* tree)
    : omi_OctreeCell(centre, halfSize) {
  omi_OctVector childHalf = halfSize;
  for (unsigned int axis = 0; axis < 3; ++axis) {
    split_[axis] = tree->splittable_[axis];
    if (!split_[axis]) continue;
    float& h = Component(childHalf, axis);
    h = static_cast<float>(static_cast<double>(Component(halfSize, axis)) * 0.5);
    // The child keeps the halved size even when the split is given up again.
    if (std::isgreater(tree->tolerance_, h)) split_[axis] = false;
  }
  const unsigned int axis = tree->chosenAxis_;
  if (axis < 3 && std::isgreater(Component(tree->smallestHalfSize_, axis), Component(childHalf, axis))) {
    tree->smallestHalfSize_ = childHalf;
  }

  for (omi_OctreeCell*& child : children_) child = nullptr;
  const bool x = tree->splittable_[0];
  const bool y = tree->splittable_[1];
  const bool z = tree->splittable_[2];
  // Creation order fixes the leaf numbers: the lower z layer counter-clockwise
  // from 0, then the upper layer clockwise from above 2.
  const struct {
    unsigned int index;
    bool present;
  } order[8] = {{0, true}, {1, x}, {3, x && y}, {2, y}, {6, z && y}, {7, z && x && y}, {5, z && x}, {4, z}};
  // Centres at the ends of float range overflow to infinities here, quietly.
  for (const auto& c : order) {
    if (!c.present) continue;
    omi_OctVector childCentre;
    for (unsigned int a = 0; a < 3; ++a) {
      const float lower = QuietSum(Component(centre, a), -Component(childHalf, a));
      Component(childCentre, a) = (c.index >> a) & 1u ? QuietSum(lower, Component(halfSize, a)) : lower;
    }
    children_[c.index] = new omi_OctreeLeafFix(tree->TakeLeafNumber(), childCentre, childHalf);
  }
}

omi_OctreeBranch::~omi_OctreeBranch() {
  for (omi_OctreeCell* child : children_) delete child;
}

const omi_OctreeLeaf* omi_OctreeBranch::FindCell(const float* const point) const {
  unsigned int index = 0;
  for (unsigned int axis = 0; axis < 3; ++axis) {
    if (split_[axis] && std::isgreater(point[axis], Component(centre_, axis))) index |= 1u << axis;
  }
  // Every index built from split axes has a child (and a NaN coordinate gives the lower half).
  // Comparisons of client coordinates are the quiet ones throughout: under the
  // invalid-operation trap an ordered comparison with a NaN would end the process.
  return children_[index]->FindCell(point);
}

omi_OctreeCell* omi_OctreeBranch::InsertBox(unsigned int item, const omi_OctVector& min, const omi_OctVector& max,
                                            omi_Octree* tree) {
  ++gInsertDepth;
  unsigned int low[3];
  unsigned int high[3];
  for (unsigned int axis = 0; axis < 3; ++axis) {
    const float c = Component(centre_, axis);
    low[axis] = split_[axis] && std::isgreater(Component(min, axis), c) ? 1u : 0u;
    high[axis] = split_[axis] && (std::isgreater(Component(min, axis), c) || std::isgreater(Component(max, axis), c)) ? 1u : 0u;
  }
  for (unsigned int zb = low[2]; zb <= high[2]; ++zb) {
    for (unsigned int yb = low[1]; yb <= high[1]; ++yb) {
      for (unsigned int xb = low[0]; xb <= high[0]; ++xb) {
        const unsigned int index = xb | (yb << 1) | (zb << 2);
        omi_OctreeCell* replacement = children_[index]->InsertBox(item, min, max, tree);
        if (replacement != nullptr) {
          delete children_[index];
          children_[index] = replacement;
        }
      }
    }
  }
  --gInsertDepth;
  return nullptr;
}

unsigned int omi_OctreeBranch::Dump() const {
  ++gDumpDepth;
  ++gDumpCells;
  unsigned int items = 0;
  for (const omi_OctreeCell* child : children_) {
    if (child != nullptr) items += child->Dump();
  }
  if (gDumpDepth > gDumpMaxDepth) gDumpMaxDepth = gDumpDepth;
  --gDumpDepth;
  return items;
}

// ---- omi_OctreeLeaf ----

omi_OctreeLeaf::omi_OctreeLeaf(unsigned int number, const omi_OctVector& centre, const omi_OctVector& halfSize)
    : omi_OctreeCell(centre, halfSize), count_(0), number_(number) {}

omi_OctreeLeaf::~omi_OctreeLeaf() {}

const omi_OctreeLeaf* omi_OctreeLeaf::FindCell(const float* const) const { return this; }

unsigned int omi_OctreeLeaf::Dump() const {
  ++gDumpCells;
  ++gDumpLeaves;
  if (gDumpDepth + 1 > gDumpMaxDepth) gDumpMaxDepth = gDumpDepth + 1;
  if (gDumpDepth == 0) {
    const unsigned int cells = static_cast<unsigned int>(gDumpCells);
    const unsigned int leaves = static_cast<unsigned int>(gDumpLeaves);
    PrintTotals(count_, (cells - leaves) * 104u + leaves * 40u);
    gDumpLeaves = 0;
    gDumpCells = 0;
    gDumpMaxDepth = 0;
  }
  return count_;
}

void omi_OctreeLeaf::CheckIndex(unsigned int i) const {
  if (i < count_) return;
  std::fprintf(stderr, "ERROR: omi_OctreeLeaf::ItemAt: index %u is not below the item count %u\n", i, count_);
  std::abort();
}

// ---- omi_OctreeLeafFix ----

omi_OctreeLeafFix::omi_OctreeLeafFix(unsigned int number, const omi_OctVector& centre,
                                     const omi_OctVector& halfSize)
    : omi_OctreeLeaf(number, centre, halfSize) {}

omi_OctreeLeafFix::~omi_OctreeLeafFix() {
  for (omi_OctreeMemPtr& chunk : chunks_) chunk.Release();
}

unsigned int omi_OctreeLeafFix::ItemAt(unsigned int i) const {
  CheckIndex(i);
  return chunks_[i / kChunkWords].Words()[i % kChunkWords];
}

omi_OctreeCell* omi_OctreeLeafFix::InsertBox(unsigned int item, const omi_OctVector& min, const omi_OctVector& max,
                                             omi_Octree* tree) {
  ++gInsertDepth;
  if (count_ < kFixedCapacity) {
    omi_OctreeMemPtr& chunk = chunks_[count_ / kChunkWords];
    if (chunk.IsNull()) chunk = tree->MemAlloc(kChunkWords);
    chunk.Words()[count_ % kChunkWords] = item;
    ++count_;
    --gInsertDepth;
    return nullptr;
  }
  // Without a splittable axis a branch would only pass everything to its child 0.
  const unsigned int axis = tree->chosenAxis_;
  const bool roomToSplit =
      axis < 3 && !std::isgreater(static_cast<double>(tree->tolerance_), 0.5 * static_cast<double>(Component(halfSize_, axis)));
  omi_OctreeCell* replacement =
      gInsertDepth < kSplitDepthLimit && roomToSplit ? SplitInto(item, min, max, tree) : Grow(item, tree);
  --gInsertDepth;
  return replacement;
}

omi_OctreeCell* omi_OctreeLeafFix::SplitInto(unsigned int item, const omi_OctVector& min, const omi_OctVector& max,
                                             omi_Octree* tree) {
  omi_OctreeBranch* branch = new omi_OctreeBranch(centre_, halfSize_, tree);
  omi_OctVector storedMin;
  omi_OctVector storedMax;
  for (unsigned int i = 0; i < kFixedCapacity; ++i) {
    const unsigned int stored = ItemAt(i);
    tree->BoxOf(stored, storedMin, storedMax);
    branch->InsertBox(stored, storedMin, storedMax, tree);
  }
  branch->InsertBox(item, min, max, tree);
  return branch;
}

omi_OctreeCell* omi_OctreeLeafFix::Grow(unsigned int item, omi_Octree* tree) {
  omi_OctreeLeafInf* leaf = new omi_OctreeLeafInf(tree->TakeLeafNumber(), centre_, halfSize_, tree);
  const omi_OctVector none;
  for (unsigned int i = 0; i < kFixedCapacity; ++i) leaf->InsertBox(ItemAt(i), none, none, tree);
  leaf->InsertBox(item, none, none, tree);
  return leaf;
}

// ---- omi_OctreeLeafInf ----

omi_OctreeLeafInf::omi_OctreeLeafInf(unsigned int number, const omi_OctVector& centre,
                                     const omi_OctVector& halfSize, omi_Octree* tree)
    : omi_OctreeLeaf(number, centre, halfSize), capacity_(512), items_(tree->MemAlloc(512)) {}

omi_OctreeLeafInf::~omi_OctreeLeafInf() { items_.Release(); }

unsigned int omi_OctreeLeafInf::ItemAt(unsigned int i) const {
  CheckIndex(i);
  return items_.Words()[i];
}

omi_OctreeCell* omi_OctreeLeafInf::InsertBox(unsigned int item, const omi_OctVector&, const omi_OctVector&,
                                             omi_Octree* tree) {
  if (count_ == capacity_) {
    // MemAlloc refuses (with a message) a doubled capacity beyond 0x7FFFFFFF words.
    const unsigned long long doubled = 2ull * capacity_;
    const omi_OctreeMemPtr grown =
        tree->MemAlloc(doubled > 0xFFFFFFFFull ? 0xFFFFFFFFu : static_cast<unsigned int>(doubled));
    std::memcpy(grown.Words(), items_.Words(), static_cast<std::size_t>(count_) * sizeof(unsigned int));
    items_.Release();
    items_ = grown;
    capacity_ = static_cast<unsigned int>(doubled);
  }
  items_.Words()[count_] = item;
  ++count_;
  return nullptr;
}

// ---- omi_Octree ----

omi_Octree::omi_Octree(const omi_OctVector& centre, const omi_OctVector& halfSize, float tolerance,
                       BoxCallback callback, void* userData)
    : tolerance_(tolerance),
      chosenAxis_(3),
      root_(nullptr),
      blocks_(nullptr),
      current_(nullptr),
      freed_(nullptr),
      leafCounter_(0),
      userData_(userData),
      callback_(callback) {
  omi_OctVector half = halfSize;
  if (std::isgreater(tolerance, half.x) && std::isgreater(tolerance, half.y) && std::isgreater(tolerance, half.z))
    half = omi_OctVector(tolerance, tolerance, tolerance);
  for (unsigned int axis = 0; axis < 3; ++axis) splittable_[axis] = std::isgreaterequal(Component(half, axis), tolerance);
  for (unsigned int axis = 0; axis < 3 && chosenAxis_ == 3; ++axis) {
    if (splittable_[axis]) chosenAxis_ = axis;
  }
  // Ties keep the earlier axis.
  for (unsigned int axis = 1; axis < 3 && chosenAxis_ < 3; ++axis) {
    if (splittable_[axis] && std::isgreater(Component(half, chosenAxis_), Component(half, axis))) chosenAxis_ = axis;
  }
  smallestHalfSize_ = half;
  root_ = new omi_OctreeBranch(centre, half, this);
  blocks_ = new omi_OctreeMemory(1024, nullptr, this);
  current_ = blocks_;
}

omi_Octree::~omi_Octree() {
  delete root_;
  while (blocks_ != nullptr) {
    omi_OctreeMemory* next = blocks_->next_;
    delete blocks_;
    blocks_ = next;
  }
}

void omi_Octree::Insert(unsigned int item, const omi_OctVector& min, const omi_OctVector& max) {
  gInsertDepth = 0;
  omi_OctreeCell* replacement = root_->InsertBox(item, min, max, this);
  if (replacement != nullptr) {
    delete root_;
    root_ = replacement;
  }
}

void omi_Octree::BoxOf(unsigned int item, omi_OctVector& min, omi_OctVector& max) {
  if (callback_ == nullptr) return;
  float lo[3] = {min.x, min.y, min.z};
  float hi[3] = {max.x, max.y, max.z};
  callback_(userData_, item, lo, hi);
  min = omi_OctVector(lo[0], lo[1], lo[2]);
  max = omi_OctVector(hi[0], hi[1], hi[2]);
}

unsigned int omi_Octree::Dump() const {
  gDumpDepth = 1;
  gDumpCells = 1;
  gDumpMaxDepth = 0;
  const unsigned int items = root_->Dump();
  const unsigned int cells = static_cast<unsigned int>(gDumpCells);
  const unsigned int leaves = static_cast<unsigned int>(gDumpLeaves);
  PrintTotals(items, cells * 104u + leaves * 64u);
  gDumpLeaves = 0;
  gDumpCells = 0;
  gDumpMaxDepth = 0;
  gDumpDepth = 0;

  unsigned int count = 0;
  unsigned int size = 0;
  unsigned int left = 0;
  for (const omi_OctreeMemory* block = blocks_; block != nullptr; block = block->next_) {
    ++count;
    size += block->size_;
    left += block->wordsLeft_;
  }
  std::printf("MemoryBlocks: Count=%d, Size=%d, Waste=%d\n", static_cast<int>(count),
              static_cast<int>((count * 14u + size) * 4u), static_cast<int>(left * 4u));
  count = 0;
  size = 0;
  for (const omi_OctreeMemory* block = freed_; block != nullptr; block = block->nextFreed_) {
    ++count;
    size += block->size_;
  }
  std::printf("FreedBlocks: Count=%d, Size=%d\n", static_cast<int>(count), static_cast<int>((count * 14u + size) * 4u));
  return items;
}
