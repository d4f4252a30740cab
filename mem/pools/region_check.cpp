// The consistency walks over regions: block tiling, headers, the free tree and
// the largest-free cache of a variable region; the free list of a fixed region.
#include <algorithm>
#include <climits>
#include <cstdarg>
#include <cstdio>
#include <vector>

#include "mem/pools/internal/region_check.h"

// The variable region's private parts that its walk reads.
struct mem_RegionInspector {
  static const int* TreeHeader(const mem_VariableRegion& region) { return region.treeHeader_; }
  static constexpr int kTreeHeader = mem_VariableRegion::kTreeHeader;
  static constexpr int kFirstBlock = mem_VariableRegion::kFirstBlock;
};

namespace zmx {
namespace mem_internal {

namespace {

enum NodeWord { kParent = 0, kLeft = 1, kRight = 2, kHeight = 3 };
constexpr int kSmallestNodeBlock = 8;
constexpr int kDeepest = 64;  // far beyond any AVL tree a region can hold

class Walk {
 public:
  bool Fail(const char* format, ...) __attribute__((format(printf, 2, 3))) {
    char text[200];
    va_list args;
    va_start(args, format);
    std::vsnprintf(text, sizeof text, format, args);
    va_end(args);
    problem_ = text;
    return false;
  }
  bool Report(bool ok, std::string* problem) const {
    if (!ok && problem != nullptr) *problem = problem_;
    return ok;
  }

 private:
  std::string problem_;
};

class VariableWalk : public Walk {
 public:
  VariableWalk(const mem_VariableRegion& region, const int* array)
      : r_(region), span_(array + region.BaseIndex()), capacity_(region.Capacity()) {}

  bool Run() {
    if (capacity_ < 24 || capacity_ % 4 != 0) return Fail("capacity %d is no region's", capacity_);
    if (r_.Tag() != 10 || r_.FirstOffset() != kFirst)
      return Fail("tag %d and first block %d, expected 10 and %d", r_.Tag(), r_.FirstOffset(), kFirst);
    marks_.assign(static_cast<std::size_t>(capacity_ / 4), kNone);
    return WalkBlocks() && WalkTree() && CheckLargest();
  }

 private:
  enum Mark : unsigned char { kNone, kInUse, kFree, kFreeSeenInTree };
  static constexpr int kFirst = mem_RegionInspector::kFirstBlock;

  bool WalkBlocks() {
    int pos = kFirst, before = 0;
    long long inUse = 0;
    bool beforeFree = false;
    for (; pos < capacity_; pos += before) {
      const int header = span_[pos - 1];
      if (header == 0 || header == INT_MIN) return Fail("block at %d: size word %d", pos, header);
      const int size = header < 0 ? -header : header;
      if (size % 4 != 0 || size > capacity_ - pos) return Fail("block at %d: size %d does not fit the region", pos, size);
      if (span_[pos - 2] != before)
        return Fail("block at %d: preceding size %d, the preceding block has %d", pos, span_[pos - 2], before);
      if (header < 0 && beforeFree) return Fail("free blocks at %d and %d touch", pos - before, pos);
      if (header > 0) inUse += size;
      if (header < 0 && size >= kSmallestNodeBlock) ++treeBlocks_;
      marks_[static_cast<std::size_t>(pos / 4)] = header < 0 ? kFree : kInUse;
      beforeFree = header < 0;
      before = size;
    }
    if (span_[capacity_ - 2] != before || span_[capacity_ - 1] != 0)
      return Fail("closing header (%d, %d), expected (%d, 0)", span_[capacity_ - 2], span_[capacity_ - 1], before);
    if (inUse != r_.WordsInUse()) return Fail("blocks in use hold %lld words, the region counts %d", inUse, r_.WordsInUse());
    return true;
  }

  bool WalkTree() {
    const int* header = mem_RegionInspector::TreeHeader(r_);
    if (header[kParent] != -1 || header[kRight] != -1 || header[kHeight] != 0)
      return Fail("header node (%d, %d, %d, %d)", header[kParent], header[kLeft], header[kRight], header[kHeight]);
    int height = 0;
    if (!WalkSubtree(header[kLeft], mem_RegionInspector::kTreeHeader, LLONG_MIN, LLONG_MAX, 0, &height)) return false;
    if (treeNodes_ != treeBlocks_) return Fail("%d free blocks of 8 words or more, %d in the tree", treeBlocks_, treeNodes_);
    return true;
  }

  // Checks the subtree at `x` against its parent and the open key range (lo, hi).
  bool WalkSubtree(int x, int parent, long long lo, long long hi, int depth, int* height) {
    if (x == -1) {
      *height = -1;
      return true;
    }
    if (depth > kDeepest) return Fail("tree deeper than %d levels", kDeepest);
    if (x < kFirst || x >= capacity_ || x % 4 != 0) return Fail("tree node %d outside the blocks", x);
    Mark& mark = marks_[static_cast<std::size_t>(x / 4)];
    if (mark == kFreeSeenInTree) return Fail("tree node %d reached twice", x);
    if (mark != kFree) return Fail("tree node %d is not a free block", x);
    mark = kFreeSeenInTree;
    const int size = -span_[x - 1];
    if (size < kSmallestNodeBlock) return Fail("free block at %d of %d words is in the tree", x, size);
    const int* node = span_ + x;
    if (node[kParent] != parent) return Fail("node %d: parent %d, expected %d", x, node[kParent], parent);
    const long long key = (static_cast<long long>(size) << 32) | x;
    if (key <= lo || key >= hi) return Fail("node %d of %d words out of order", x, size);
    int left = 0, right = 0;
    if (!WalkSubtree(node[kLeft], x, lo, key, depth + 1, &left) ||
        !WalkSubtree(node[kRight], x, key, hi, depth + 1, &right))
      return false;
    if (node[kHeight] != 1 + std::max(left, right))
      return Fail("node %d: height %d, its children give %d", x, node[kHeight], 1 + std::max(left, right));
    if (left - right > 1 || right - left > 1) return Fail("node %d: children of heights %d and %d", x, left, right);
    ++treeNodes_;
    largest_ = std::max(largest_, size);
    *height = node[kHeight];
    return true;
  }

  bool CheckLargest() {
    const int size = r_.LargestFreeWords();
    const long long pos = static_cast<long long>(r_.LargestFreePosition()) - r_.BaseIndex();
    if (largest_ == 0) {
      if (size != 0 || r_.LargestFreePosition() != -1)
        return Fail("largest free block (%d words at %d) in an empty tree", size, r_.LargestFreePosition());
      return true;
    }
    if (size != largest_) return Fail("largest free block cached as %d words, the tree's is %d", size, largest_);
    if (pos < kFirst || pos >= capacity_ || pos % 4 != 0 ||
        marks_[static_cast<std::size_t>(pos / 4)] != kFreeSeenInTree || -span_[pos - 1] != size)
      return Fail("largest free position %d is not a tree block of %d words", r_.LargestFreePosition(), size);
    return true;
  }

  const mem_VariableRegion& r_;
  const int* span_;
  const int capacity_;
  std::vector<Mark> marks_;  // by block start / 4
  int treeBlocks_ = 0;
  int treeNodes_ = 0;
  int largest_ = 0;
};

class FixedWalk : public Walk {
 public:
  FixedWalk(const mem_FixedRegion& region, const int* array)
      : r_(region), span_(array + region.BaseIndex()), slot_(region.SlotWords()), first_(region.FirstOffset()),
        capacity_(region.Capacity()) {}

  bool Run() {
    if (slot_ < 1 || first_ != mem_FixedRegion::FirstSlotFor(slot_) || capacity_ < first_ + slot_)
      return Fail("slot of %d words from %d in a capacity of %d", slot_, first_, capacity_);
    const int slots = (capacity_ - first_) / slot_;
    int freeSlots = 0;
    int x = r_.FreeHead();
    for (;; x = span_[x], ++freeSlots) {
      if (x < first_ || x > capacity_ || (x - first_) % slot_ != 0)
        return Fail("free-list entry %d is off the slot grid", x);
      if (x > capacity_ - slot_ || span_[x] == -1) break;
      if (freeSlots == slots) return Fail("free list does not end");
    }
    const int frontier = x;
    if (frontier < capacity_ && span_[frontier] != -1) return Fail("frontier at %d lacks its mark", frontier);
    for (x = r_.FreeHead(); x != frontier; x = span_[x]) {
      if (x > frontier) return Fail("free slot %d lies beyond the frontier %d", x, frontier);
    }
    const long long inUse = static_cast<long long>((frontier - first_) / slot_ - freeSlots) * slot_;
    if (inUse != r_.WordsInUse()) return Fail("slots in use hold %lld words, the region counts %d", inUse, r_.WordsInUse());
    return true;
  }

 private:
  const mem_FixedRegion& r_;
  const int* span_;
  const int slot_, first_, capacity_;
};

}  // namespace

bool CheckVariableRegion(const mem_VariableRegion& region, const int* array, std::string* problem) {
  VariableWalk walk(region, array);
  return walk.Report(walk.Run(), problem);
}

bool CheckFixedRegion(const mem_FixedRegion& region, const int* array, std::string* problem) {
  FixedWalk walk(region, array);
  return walk.Report(walk.Run(), problem);
}

}  // namespace mem_internal
}  // namespace zmx
