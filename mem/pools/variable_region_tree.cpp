// The variable region's free tree: an AVL tree threaded through the free blocks
// themselves (parent, left, right, height in a block's first four data words),
// ordered by size then position, with the largest-free cache kept beside it.
#include <algorithm>

#include "mem/pools/region.h"

namespace {

enum NodeWord { kParent = 0, kLeft = 1, kRight = 2, kHeight = 3 };

// A free block needs 2 header words and 4 node words; 4-word blocks stay out.
constexpr int kSmallestNodeBlock = 8;

// The header node is the region object's member and every other node lives in
// the owner's array, so that the object may sit inside its span or elsewhere.
template <typename Int>
struct Nodes {
  Int* span;    // the owner's array at the base index
  Int* header;  // the header node
  int headerPos;

  Int* At(int pos) const { return pos == headerPos ? header : span + pos; }
  int Size(int pos) const { return -span[pos - 1]; }  // free sizes are stored negated
  int Height(int pos) const { return pos < 0 ? -1 : At(pos)[kHeight]; }
  bool Less(int a, int b) const {
    const int sa = Size(a), sb = Size(b);
    return sa < sb || (sa == sb && a < b);
  }
};
using MutableNodes = Nodes<int>;

void UpdateHeight(const MutableNodes& n, int x) {
  int* node = n.At(x);
  node[kHeight] = 1 + std::max(n.Height(node[kLeft]), n.Height(node[kRight]));
}

void ReplaceChild(const MutableNodes& n, int parent, int oldChild, int newChild) {
  int* node = n.At(parent);
  if (node[kLeft] == oldChild) {
    node[kLeft] = newChild;
  } else {
    node[kRight] = newChild;
  }
}

// Moves `x` down to side `down`; its child on the other side takes its place.
int Rotate(const MutableNodes& n, int x, int down) {
  const int up = down == kLeft ? kRight : kLeft;
  int* nx = n.At(x);
  const int y = nx[up];
  int* ny = n.At(y);
  const int inner = ny[down];
  nx[up] = inner;
  if (inner >= 0) n.At(inner)[kParent] = x;
  ny[kParent] = nx[kParent];
  ReplaceChild(n, ny[kParent], x, y);
  ny[down] = x;
  nx[kParent] = y;
  UpdateHeight(n, x);
  UpdateHeight(n, y);
  return y;
}

// Heights and balance from `x` up to the header node.
void Rebalance(const MutableNodes& n, int x) {
  while (x != n.headerPos) {
    const int* node = n.At(x);
    const int balance = n.Height(node[kLeft]) - n.Height(node[kRight]);
    if (balance > 1 || balance < -1) {
      const int heavy = balance > 1 ? kLeft : kRight;
      const int light = heavy == kLeft ? kRight : kLeft;
      const int child = node[heavy];
      const int* c = n.At(child);
      if (n.Height(c[heavy]) < n.Height(c[light])) Rotate(n, child, heavy);
      x = Rotate(n, x, light);
    } else {
      UpdateHeight(n, x);
    }
    x = n.At(x)[kParent];
  }
}

// Unlinks `z`, which has two children, by moving its successor into its place.
void RemoveWithTwoChildren(const MutableNodes& n, int z) {
  int* nz = n.At(z);
  int s = nz[kRight];
  while (n.At(s)[kLeft] >= 0) s = n.At(s)[kLeft];
  int* ns = n.At(s);
  const int sParent = ns[kParent];
  const int sRight = ns[kRight];
  ReplaceChild(n, sParent, s, sRight);
  if (sRight >= 0) n.At(sRight)[kParent] = sParent;
  const int rebalanceFrom = sParent == z ? s : sParent;
  ns[kLeft] = nz[kLeft];
  ns[kRight] = nz[kRight];
  n.At(ns[kLeft])[kParent] = s;
  if (ns[kRight] >= 0) n.At(ns[kRight])[kParent] = s;
  ns[kParent] = nz[kParent];
  ReplaceChild(n, nz[kParent], z, s);
  ns[kHeight] = nz[kHeight];
  Rebalance(n, rebalanceFrom);
}

}  // namespace

void mem_VariableRegion::TreeInsert(int* array, int pos) {
  const MutableNodes n{array + base_, treeHeader_, kTreeHeader};
  const int size = n.Size(pos);
  if (size < kSmallestNodeBlock) return;
  int* node = n.At(pos);
  node[kLeft] = node[kRight] = -1;
  node[kHeight] = 0;
  int parent = kTreeHeader;
  int side = kLeft;
  for (int cur = treeHeader_[kLeft]; cur >= 0; cur = n.At(cur)[side]) {
    parent = cur;
    side = n.Less(pos, cur) ? kLeft : kRight;
  }
  node[kParent] = parent;
  n.At(parent)[side] = pos;
  Rebalance(n, parent);
  if (size > largestSize_) {
    largestSize_ = size;
    largestPos_ = static_cast<int>(base_) + pos;
  }
}

void mem_VariableRegion::TreeRemove(int* array, int pos) {
  const MutableNodes n{array + base_, treeHeader_, kTreeHeader};
  if (n.Size(pos) < kSmallestNodeBlock) return;
  const int* node = n.At(pos);
  if (node[kLeft] >= 0 && node[kRight] >= 0) {
    RemoveWithTwoChildren(n, pos);
  } else {
    const int child = node[kLeft] >= 0 ? node[kLeft] : node[kRight];
    const int parent = node[kParent];
    ReplaceChild(n, parent, pos, child);
    if (child >= 0) n.At(child)[kParent] = parent;
    Rebalance(n, parent);
  }
  if (static_cast<int>(base_) + pos == largestPos_) RecomputeLargest(array);
}

int mem_VariableRegion::TreeBestFit(const int* array, int words) const {
  const Nodes<const int> n{array + base_, treeHeader_, kTreeHeader};
  int best = -1;
  for (int cur = treeHeader_[kLeft]; cur >= 0;) {
    if (n.Size(cur) >= words) {
      best = cur;  // equal sizes further left lie at lower positions
      cur = n.At(cur)[kLeft];
    } else {
      cur = n.At(cur)[kRight];
    }
  }
  return best;
}

void mem_VariableRegion::RecomputeLargest(const int* array) {
  const Nodes<const int> n{array + base_, treeHeader_, kTreeHeader};
  int cur = treeHeader_[kLeft];
  if (cur < 0) {
    largestSize_ = 0;
    largestPos_ = -1;
    return;
  }
  while (n.At(cur)[kRight] >= 0) cur = n.At(cur)[kRight];
  largestSize_ = n.Size(cur);
  largestPos_ = static_cast<int>(base_) + cur;
}
