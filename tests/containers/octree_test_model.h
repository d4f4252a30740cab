// Brute-force view of an omi_Octree for the octree tests: the client's boxes
// with the callback, every leaf with its box and level, and the region rule
// (along each axis a leaf owns (lo, hi], its outer faces reaching to infinity
// where they lie on the root's) that the tree's contents and FindCell obey.
#ifndef ZMXUTI_TESTS_CONTAINERS_OCTREE_TEST_MODEL_H
#define ZMXUTI_TESTS_CONTAINERS_OCTREE_TEST_MODEL_H

#include <gtest/gtest.h>

#include <algorithm>
#include <set>
#include <vector>

#include "ZMXUTI_CoreUtils.h"

namespace zmx_octree_test {

struct Box {
  float lo[3];
  float hi[3];
};

// The client side: the boxes and the items the tree asked for, in order.
struct Boxes {
  std::vector<Box> boxes;
  std::vector<unsigned int> asked;
};

inline void BoxCallback(void* user, unsigned int item, float* const min, float* const max) {
  Boxes* b = static_cast<Boxes*>(user);
  b->asked.push_back(item);
  for (unsigned int a = 0; a < 3; ++a) {
    min[a] = b->boxes[item].lo[a];
    max[a] = b->boxes[item].hi[a];
  }
}

inline omi_OctVector Lo(const Box& b) { return omi_OctVector(b.lo[0], b.lo[1], b.lo[2]); }
inline omi_OctVector Hi(const Box& b) { return omi_OctVector(b.hi[0], b.hi[1], b.hi[2]); }

struct LeafInfo {
  const omi_OctreeLeaf* leaf;
  float lo[3];
  float hi[3];
  float half[3];
  int level;  // the root branch is level 1
};

inline void Corners(const omi_OctreeCell* cell, float* lo, float* hi, float* half) {
  const float c[3] = {cell->Centre().x, cell->Centre().y, cell->Centre().z};
  const float h[3] = {cell->HalfSize().x, cell->HalfSize().y, cell->HalfSize().z};
  for (unsigned int a = 0; a < 3; ++a) {
    lo[a] = c[a] - h[a];
    hi[a] = c[a] + h[a];
    if (half != nullptr) half[a] = h[a];
  }
}

// Appends the leaves below `cell` and returns the items stored below it. A
// branch other than the root only exists because a leaf overflowed, so at
// least 257 distinct items lie below it.
inline std::set<unsigned int> CollectLeaves(const omi_OctreeCell* cell, int level, std::vector<LeafInfo>& out) {
  std::set<unsigned int> items;
  if (const omi_OctreeLeaf* leaf = dynamic_cast<const omi_OctreeLeaf*>(cell)) {
    LeafInfo info{leaf, {}, {}, {}, level};
    Corners(leaf, info.lo, info.hi, info.half);
    out.push_back(info);
    for (unsigned int i = 0; i < leaf->Count(); ++i) items.insert(leaf->ItemAt(i));
    return items;
  }
  const omi_OctreeBranch* branch = dynamic_cast<const omi_OctreeBranch*>(cell);
  EXPECT_NE(branch, nullptr);
  if (branch == nullptr) return items;
  for (unsigned int i = 0; i < 8; ++i) {
    if (branch->Child(i) == nullptr) continue;
    const std::set<unsigned int> below = CollectLeaves(branch->Child(i), level + 1, out);
    items.insert(below.begin(), below.end());
  }
  if (level > 1) {
    EXPECT_GE(items.size(), 257u) << "branch at level " << level;
  }
  return items;
}

struct RootBox {
  float lo[3];
  float hi[3];
  explicit RootBox(const omi_Octree& tree) { Corners(tree.Root(), lo, hi, nullptr); }
};

// Whether [lo, hi] reaches into the leaf's region on every axis.
inline bool Reaches(const LeafInfo& leaf, const RootBox& root, const float* lo, const float* hi) {
  for (unsigned int a = 0; a < 3; ++a) {
    if (!(hi[a] > leaf.lo[a] || leaf.lo[a] == root.lo[a])) return false;
    if (!(lo[a] <= leaf.hi[a] || leaf.hi[a] == root.hi[a])) return false;
  }
  return true;
}

// The one leaf whose region holds p; null when none or several do.
inline const omi_OctreeLeaf* ModelFindCell(const omi_Octree& tree, const std::vector<LeafInfo>& leaves,
                                           const float* p) {
  const RootBox root(tree);
  const omi_OctreeLeaf* found = nullptr;
  for (const LeafInfo& l : leaves) {
    if (!Reaches(l, root, p, p)) continue;
    if (found != nullptr) return nullptr;
    found = l.leaf;
  }
  return found;
}

struct TreeShape {
  unsigned int growable = 0;
  int deepest = 0;
};

// Leaf numbers unique and handed out; fixed leaves at most 256 items; growable
// leaves above 256 in the smallest doubling of 512 that holds them, made so by
// the tolerance or by the depth limit (which a cascade of splits reaches at level 7 soonest).
inline TreeShape CheckShape(const omi_Octree& tree, const std::vector<LeafInfo>& leaves) {
  TreeShape shape;
  std::set<unsigned int> numbers;
  const unsigned int axis = tree.ChosenAxis();
  for (const LeafInfo& l : leaves) {
    EXPECT_TRUE(numbers.insert(l.leaf->Number()).second);
    EXPECT_LT(l.leaf->Number(), tree.LeafCount());
    EXPECT_LE(l.level, 11);
    shape.deepest = std::max(shape.deepest, l.level);
    if (dynamic_cast<const omi_OctreeLeafFix*>(l.leaf) != nullptr) {
      EXPECT_LE(l.leaf->Count(), 256u);
      continue;
    }
    const omi_OctreeLeafInf* inf = dynamic_cast<const omi_OctreeLeafInf*>(l.leaf);
    EXPECT_NE(inf, nullptr);
    if (inf == nullptr) continue;
    ++shape.growable;
    EXPECT_GT(inf->Count(), 256u);
    unsigned int capacity = 512;
    while (capacity < inf->Count()) capacity *= 2;
    EXPECT_EQ(inf->Capacity(), capacity);
    EXPECT_TRUE(tree.Tolerance() > 0.5f * l.half[axis] || l.level >= 7) << "level " << l.level;
  }
  return shape;
}

// Every leaf holds each item whose box reaches into its region, once, and no other.
inline void CheckLeafContents(const omi_Octree& tree, const std::vector<LeafInfo>& leaves, const Boxes& boxes) {
  const RootBox root(tree);
  for (const LeafInfo& l : leaves) {
    std::vector<unsigned int> held;
    for (unsigned int i = 0; i < l.leaf->Count(); ++i) held.push_back(l.leaf->ItemAt(i));
    std::sort(held.begin(), held.end());
    std::vector<unsigned int> expected;
    for (unsigned int i = 0; i < boxes.boxes.size(); ++i) {
      if (Reaches(l, root, boxes.boxes[i].lo, boxes.boxes[i].hi)) expected.push_back(i);
    }
    ASSERT_EQ(held, expected) << "leaf " << l.leaf->Number() << " at level " << l.level;
  }
}

}  // namespace zmx_octree_test

#endif  // ZMXUTI_TESTS_CONTAINERS_OCTREE_TEST_MODEL_H
