// omi_Octree and omi_OctreeLineTrav against brute force over random trees
// (uniform, clustered, piled on one point): every leaf holds exactly the items
// whose boxes reach into its region (along each axis a leaf owns (lo, hi], its
// outer faces reaching to infinity where they lie on the root's), FindCell
// agrees with a search over all leaves, and segment walks keep their
// guarantees. The rate of crossed leaves a walk misses is printed.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <random>
#include <set>
#include <vector>

#include "ZMXUTI_CoreUtils.h"

namespace {

// Dyadic root (centre 0, half-size 64): every cell box is exact in float.
constexpr float kHalf = 64.0f;

struct Box {
  float lo[3], hi[3];
};
using Boxes = std::vector<Box>;

void BoxCallback(void* user, unsigned int item, float* const min, float* const max) {
  const Box& b = (*static_cast<Boxes*>(user))[item];
  std::copy(b.lo, b.lo + 3, min);
  std::copy(b.hi, b.hi + 3, max);
}

struct LeafInfo {
  const omi_OctreeLeaf* leaf;
  float lo[3], hi[3], half[3];
  int level;  // the root branch is level 1
};

// Appends the leaves below `cell`; returns the items stored below it. A branch
// other than the root exists only because a leaf overflowed, so at least 257
// distinct items lie below it.
std::set<unsigned int> CollectLeaves(const omi_OctreeCell* cell, int level, std::vector<LeafInfo>& out) {
  std::set<unsigned int> items;
  if (const omi_OctreeLeaf* leaf = dynamic_cast<const omi_OctreeLeaf*>(cell)) {
    const omi_OctVector& c = leaf->Centre();
    const omi_OctVector& h = leaf->HalfSize();
    out.push_back(LeafInfo{leaf, {c.x - h.x, c.y - h.y, c.z - h.z}, {c.x + h.x, c.y + h.y, c.z + h.z}, {h.x, h.y, h.z},
                           level});
    for (unsigned int i = 0; i < leaf->Count(); ++i) items.insert(leaf->ItemAt(i));
    return items;
  }
  const omi_OctreeBranch* branch = dynamic_cast<const omi_OctreeBranch*>(cell);
  EXPECT_NE(branch, nullptr);
  for (unsigned int i = 0; branch != nullptr && i < 8; ++i) {
    if (branch->Child(i) == nullptr) continue;
    const std::set<unsigned int> below = CollectLeaves(branch->Child(i), level + 1, out);
    items.insert(below.begin(), below.end());
  }
  EXPECT_TRUE(level == 1 || items.size() >= 257u) << "branch at level " << level << " holds " << items.size();
  return items;
}

// Whether [lo, hi] reaches into the leaf's region on every axis.
bool Reaches(const LeafInfo& leaf, const float* lo, const float* hi) {
  for (unsigned int a = 0; a < 3; ++a) {
    if (!(hi[a] > leaf.lo[a] || leaf.lo[a] == -kHalf) || !(lo[a] <= leaf.hi[a] || leaf.hi[a] == kHalf)) return false;
  }
  return true;
}

// The one leaf whose region holds p; null when none or several do.
const omi_OctreeLeaf* ModelFindCell(const std::vector<LeafInfo>& leaves, const float* p) {
  const omi_OctreeLeaf* found = nullptr;
  for (const LeafInfo& l : leaves) {
    if (!Reaches(l, p, p)) continue;
    if (found != nullptr) return nullptr;
    found = l.leaf;
  }
  return found;
}

// Leaf numbers unique and handed out; fixed leaves at most 256 items; growable
// leaves above 256 in the smallest doubling of 512 that holds them, made so by
// the tolerance or by the depth limit (which a cascade of splits reaches at
// level 7 soonest); every leaf holds each item whose box reaches into its
// region, once, and no other. Returns the number of growable leaves.
unsigned int CheckLeaves(const omi_Octree& tree, const std::vector<LeafInfo>& leaves, const Boxes& boxes) {
  unsigned int growable = 0;
  std::set<unsigned int> numbers;
  for (const LeafInfo& l : leaves) {
    EXPECT_TRUE(numbers.insert(l.leaf->Number()).second);
    EXPECT_LT(l.leaf->Number(), tree.LeafCount());
    EXPECT_LE(l.level, 11);
    if (const omi_OctreeLeafInf* inf = dynamic_cast<const omi_OctreeLeafInf*>(l.leaf)) {
      ++growable;
      unsigned int capacity = 512;
      while (capacity < inf->Count()) capacity *= 2;
      EXPECT_TRUE(inf->Count() > 256u && inf->Capacity() == capacity) << inf->Count() << " " << inf->Capacity();
      EXPECT_TRUE(tree.Tolerance() > 0.5f * l.half[tree.ChosenAxis()] || l.level >= 7) << "level " << l.level;
    } else {
      EXPECT_LE(l.leaf->Count(), 256u);
    }
    std::vector<unsigned int> held, expected;
    for (unsigned int i = 0; i < l.leaf->Count(); ++i) held.push_back(l.leaf->ItemAt(i));
    std::sort(held.begin(), held.end());
    for (unsigned int i = 0; i < boxes.size(); ++i) if (Reaches(l, boxes[i].lo, boxes[i].hi)) expected.push_back(i);
    EXPECT_EQ(held, expected) << "leaf " << l.leaf->Number() << " at level " << l.level;
  }
  return growable;
}

// Uniform small boxes, two tight clusters, coordinates snapped onto cell
// planes, and a pile of identical points that splits down to the depth limit.
void FillRandom(std::mt19937& rng, Boxes& boxes) {
  std::uniform_real_distribution<float> anywhere(-70.0f, 70.0f);
  std::uniform_real_distribution<float> size(0.0f, 4.0f);
  std::uniform_real_distribution<float> near(-1.0f, 1.0f);
  const float clusters[2][3] = {{10.3f, -20.7f, 33.1f}, {-40.2f, 5.5f, -5.9f}};
  for (unsigned int i = 0; i < 3000; ++i) {
    Box b;
    for (unsigned int a = 0; a < 3; ++a) {
      float lo = i % 5 < 3 ? anywhere(rng) : clusters[i % 2][a] + near(rng);
      if (i % 7 == 0) lo = static_cast<float>(static_cast<int>(lo / 4.0f)) * 4.0f;  // on a cell plane
      b.lo[a] = lo;
      b.hi[a] = i % 11 == 0 ? lo : lo + (i % 5 < 3 ? size(rng) : size(rng) / 8.0f);
    }
    boxes.push_back(b);
  }
  for (unsigned int i = 0; i < 300; ++i) boxes.push_back(Box{{3.25f, 3.25f, -3.25f}, {3.25f, 3.25f, -3.25f}});
}

// Whether the segment s + t * d, t in [0, t1], meets the leaf's box widened by `widen`.
bool SegmentNearLeaf(const float* s, const float* d, double t1, const LeafInfo& leaf, double widen) {
  double t0 = 0.0;
  for (unsigned int a = 0; a < 3; ++a) {
    const double lo = leaf.lo[a] - widen, hi = leaf.hi[a] + widen;
    if (d[a] == 0.0f) {
      if (s[a] < lo || s[a] > hi) return false;
      continue;
    }
    const double ta = (lo - s[a]) / d[a], tb = (hi - s[a]) / d[a];
    t0 = std::max(t0, std::min(ta, tb));
    t1 = std::min(t1, std::max(ta, tb));
    if (t0 > t1) return false;
  }
  return true;
}

// Starts and ends anywhere in and around the tree, some axis-parallel, some
// shorter than the tolerance, some lying in cell planes.
void RandomSegment(std::mt19937& rng, float* s, float* e, float tolerance) {
  std::uniform_real_distribution<float> around(-90.0f, 90.0f);
  for (unsigned int a = 0; a < 3; ++a) {
    s[a] = around(rng);
    e[a] = around(rng);
  }
  switch (rng() % 6) {
    case 0: e[1] = s[1], e[2] = s[2]; break;
    case 1: for (unsigned int a = 0; a < 3; ++a) e[a] = s[a] + tolerance * 0.5f * (a == 0); break;
    case 2: s[2] = e[2] = 32.0f; break;
    default: break;
  }
}

struct WalkTally {
  unsigned long crossed = 0, missed = 0, initFalseCrossing = 0, segments = 0;
};

void CheckWalks(const omi_Octree& tree, const std::vector<LeafInfo>& leaves, float e, std::mt19937& rng,
                WalkTally& tally) {
  omi_OctreeLineTrav walk;
  std::vector<const LeafInfo*> byLeaf(tree.LeafCount(), nullptr);
  for (const LeafInfo& l : leaves) byLeaf[l.leaf->Number()] = &l;
  for (unsigned int n = 0; n < 1000; ++n) {
    float s[3], en[3], d[3];
    RandomSegment(rng, s, en, e);
    double length2 = 0.0;
    for (unsigned int a = 0; a < 3; ++a) {
      d[a] = en[a] - s[a];
      length2 += static_cast<double>(d[a]) * d[a];
    }
    const double length = std::sqrt(length2);
    const double step = length > 0.0 && 2.0 * e <= length ? 2.0 * e / length : 1.0;
    bool startInside = true;
    for (unsigned int a = 0; a < 3; ++a) startInside = startInside && s[a] >= -kHalf - e && s[a] <= kHalf + e;

    const bool started = walk.Init(&tree, s, en, e);
    ASSERT_TRUE(started || !startInside);
    std::set<const omi_OctreeLeaf*> seen;
    bool first = true;
    while (const omi_OctreeLeaf* leaf = started ? walk.NextCell() : nullptr) {
      ASSERT_LT(leaf->Number(), byLeaf.size());
      const LeafInfo* info = byLeaf[leaf->Number()];
      ASSERT_TRUE(info != nullptr && info->leaf == leaf) << "not a leaf of the tree";
      ASSERT_TRUE(seen.insert(leaf).second) << "leaf " << leaf->Number() << " returned twice";
      ASSERT_TRUE(!first || !startInside || leaf == tree.FindCell(s)) << "the first leaf holds the start";
      first = false;
      ASSERT_TRUE(SegmentNearLeaf(s, d, 1.0 + step, *info, e + 1e-3))
          << "leaf " << leaf->Number() << " beyond the tolerance of segment " << n;
    }
    ASSERT_TRUE(started || walk.NextCell() == nullptr);
    ++tally.segments;
    if (length == 0.0) continue;
    for (const LeafInfo& l : leaves) {
      if (!SegmentNearLeaf(s, d, 1.0, l, -1e-3)) continue;  // touching a face is no crossing
      ++tally.crossed;
      if (seen.count(l.leaf) == 0) {
        ++tally.missed;
        if (!started) ++tally.initFalseCrossing;
      }
    }
  }
}

TEST(OctreeDifferential, LeavesFindCellAndWalksAgreeWithBruteForce) {
  const struct {
    unsigned int seed;
    float tolerance, walkTolerance;
  } configs[] = {{11u, 1e-3f, 1e-3f}, {12u, 2.0f, 0.5f}, {13u, 2.0f, 2.0f}};
  WalkTally tally;
  for (const auto& config : configs) {
    SCOPED_TRACE(config.seed);
    std::mt19937 rng(config.seed);
    Boxes boxes;
    FillRandom(rng, boxes);
    omi_Octree tree(omi_OctVector(0, 0, 0), omi_OctVector(kHalf, kHalf, kHalf), config.tolerance, BoxCallback,
                    &boxes);
    for (unsigned int i = 0; i < boxes.size(); ++i) {
      const Box& b = boxes[i];
      tree.Insert(i, omi_OctVector(b.lo[0], b.lo[1], b.lo[2]), omi_OctVector(b.hi[0], b.hi[1], b.hi[2]));
    }
    std::vector<LeafInfo> leaves;
    CollectLeaves(tree.Root(), 1, leaves);
    EXPECT_GT(CheckLeaves(tree, leaves, boxes), 0u);
    int deepest = 0;
    for (const LeafInfo& l : leaves) deepest = std::max(deepest, l.level);
    EXPECT_GT(deepest, 5);

    std::uniform_real_distribution<float> around(-80.0f, 80.0f);
    for (unsigned int n = 0; n < 3000; ++n) {
      float p[3] = {around(rng), around(rng), around(rng)};
      if (n % 3 == 0) p[n % 2] = static_cast<float>(static_cast<int>(p[n % 2] / 2.0f)) * 2.0f;
      ASSERT_EQ(tree.FindCell(p), ModelFindCell(leaves, p)) << p[0] << " " << p[1] << " " << p[2];
    }
    CheckWalks(tree, leaves, config.walkTolerance, rng, tally);
  }
  std::printf("octree walk: %lu segments, %lu crossed leaves, %lu missed (%.3f%%), %lu of them after Init false\n",
              tally.segments, tally.crossed, tally.missed, 100.0 * tally.missed / std::max(1ul, tally.crossed),
              tally.initFalseCrossing);
}

}  // namespace
