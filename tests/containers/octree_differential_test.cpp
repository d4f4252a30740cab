// omi_Octree and omi_OctreeLineTrav against brute force over random trees
// (uniform, clustered, piled on one point): every leaf holds exactly the items
// whose boxes reach into its region, FindCell agrees with a search over all
// leaves, and segment walks keep their guarantees. The rate of crossed leaves
// a walk misses is printed.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <random>
#include <set>
#include <vector>

#include "ZMXUTI_CoreUtils.h"
#include "containers/octree_test_model.h"

namespace {

using namespace zmx_octree_test;

// Dyadic root (centre 0, half-size 64): every cell box is exact in float.
constexpr float kHalf = 64.0f;

struct TreeConfig {
  unsigned int seed;
  float tolerance;
  float walkTolerance;
};

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
    boxes.boxes.push_back(b);
  }
  for (unsigned int i = 0; i < 300; ++i) boxes.boxes.push_back(Box{{3.25f, 3.25f, -3.25f}, {3.25f, 3.25f, -3.25f}});
}

// Whether the segment start + t * d, t in [t0, t1], meets the box [lo, hi].
bool SegmentMeetsBox(const float* s, const float* d, double t0, double t1, const double* lo, const double* hi) {
  for (unsigned int a = 0; a < 3; ++a) {
    if (d[a] == 0.0f) {
      if (s[a] < lo[a] || s[a] > hi[a]) return false;
      continue;
    }
    double ta = (lo[a] - s[a]) / d[a];
    double tb = (hi[a] - s[a]) / d[a];
    if (ta > tb) std::swap(ta, tb);
    t0 = std::max(t0, ta);
    t1 = std::min(t1, tb);
    if (t0 > t1) return false;
  }
  return true;
}

bool SegmentNearLeaf(const float* s, const float* d, double t1, const LeafInfo& leaf, double widen) {
  double lo[3], hi[3];
  for (unsigned int a = 0; a < 3; ++a) {
    lo[a] = leaf.lo[a] - widen;
    hi[a] = leaf.hi[a] + widen;
  }
  return SegmentMeetsBox(s, d, 0.0, t1, lo, hi);
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
  unsigned long crossed = 0;
  unsigned long missed = 0;
  unsigned long initFalseCrossing = 0;
  unsigned long segments = 0;
};

void CheckWalks(const omi_Octree& tree, const std::vector<LeafInfo>& leaves, float e, std::mt19937& rng,
                WalkTally& tally) {
  omi_OctreeLineTrav walk;
  std::vector<const LeafInfo*> byLeaf(tree.LeafCount(), nullptr);
  for (const LeafInfo& l : leaves) byLeaf[l.leaf->Number()] = &l;
  for (unsigned int n = 0; n < 2000; ++n) {
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
    if (startInside) {
      ASSERT_TRUE(started);
    }
    std::set<const omi_OctreeLeaf*> seen;
    bool first = true;
    while (const omi_OctreeLeaf* leaf = started ? walk.NextCell() : nullptr) {
      ASSERT_LT(leaf->Number(), byLeaf.size());
      const LeafInfo* info = byLeaf[leaf->Number()];
      ASSERT_TRUE(info != nullptr && info->leaf == leaf) << "not a leaf of the tree";
      ASSERT_TRUE(seen.insert(leaf).second) << "leaf " << leaf->Number() << " returned twice";
      if (first && startInside) {
        ASSERT_EQ(leaf, tree.FindCell(s));
      }
      first = false;
      ASSERT_TRUE(SegmentNearLeaf(s, d, 1.0 + step, *info, e + 1e-3))
          << "leaf " << leaf->Number() << " beyond the tolerance of segment " << n;
    }
    if (!started) {
      ASSERT_EQ(walk.NextCell(), nullptr);
    }
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
  const TreeConfig configs[] = {{11u, 1e-3f, 1e-3f}, {12u, 2.0f, 0.5f}, {13u, 2.0f, 2.0f}};
  WalkTally tally;
  for (const TreeConfig& config : configs) {
    SCOPED_TRACE(config.seed);
    std::mt19937 rng(config.seed);
    Boxes boxes;
    FillRandom(rng, boxes);
    omi_Octree tree(omi_OctVector(0, 0, 0), omi_OctVector(kHalf, kHalf, kHalf), config.tolerance, BoxCallback,
                    &boxes);
    for (unsigned int i = 0; i < boxes.boxes.size(); ++i) {
      tree.Insert(i, Lo(boxes.boxes[i]), Hi(boxes.boxes[i]));
    }
    std::vector<LeafInfo> leaves;
    CollectLeaves(tree.Root(), 1, leaves);
    const TreeShape shape = CheckShape(tree, leaves);
    EXPECT_GT(shape.growable, 0u);
    EXPECT_GT(shape.deepest, 5);
    CheckLeafContents(tree, leaves, boxes);

    std::uniform_real_distribution<float> around(-80.0f, 80.0f);
    for (unsigned int n = 0; n < 3000; ++n) {
      float p[3] = {around(rng), around(rng), around(rng)};
      if (n % 3 == 0) p[n % 2] = static_cast<float>(static_cast<int>(p[n % 2] / 2.0f)) * 2.0f;
      ASSERT_EQ(tree.FindCell(p), ModelFindCell(tree, leaves, p)) << p[0] << " " << p[1] << " " << p[2];
    }
    CheckWalks(tree, leaves, config.walkTolerance, rng, tally);
  }
  std::printf("octree walk: %lu segments, %lu crossed leaves, %lu missed (%.3f%%), %lu of them after Init false\n",
              tally.segments, tally.crossed, tally.missed, 100.0 * tally.missed / std::max(1ul, tally.crossed),
              tally.initFalseCrossing);
}

}  // namespace
