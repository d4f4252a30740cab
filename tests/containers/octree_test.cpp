// Octree and segment walk by table: construction, the split of a full leaf,
// the halves rule at the centre, growable leaves, the depth limit, the word
// blocks, the dump texts and aborts, and the walk's entry, stepping, gathering
// and degenerate or extreme input (all under the floating-point traps).
#include <gtest/gtest.h>

#include <cfloat>
#include <cmath>
#include <csignal>
#include <limits>
#include <string>
#include <vector>

#include "ZMXUTI_CoreUtils.h"
#include "support/child_process.h"

namespace {

const float kNaN = std::numeric_limits<float>::quiet_NaN();
const float kInf = std::numeric_limits<float>::infinity();

// Root centre 0, half-size 64: eight empty octant leaves.
omi_Octree Tree64(float tolerance) {
  return omi_Octree(omi_OctVector(0, 0, 0), omi_OctVector(64, 64, 64), tolerance, nullptr, nullptr);
}

const omi_OctreeLeaf* LeafAt(const omi_Octree& tree, float x, float y, float z) {
  const float p[3] = {x, y, z};
  return tree.FindCell(p);
}

// The level of `leaf` below `cell` (the root is level 1); 0 when not below it.
int LevelOf(const omi_OctreeCell* cell, const omi_OctreeLeaf* leaf, int level = 1) {
  if (cell == leaf) return level;
  const omi_OctreeBranch* branch = dynamic_cast<const omi_OctreeBranch*>(cell);
  for (unsigned int i = 0; branch != nullptr && i < 8; ++i) {
    const int found = branch->Child(i) != nullptr ? LevelOf(branch->Child(i), leaf, level + 1) : 0;
    if (found != 0) return found;
  }
  return 0;
}

bool Holds(const omi_OctreeLeaf* leaf, unsigned int item) {
  for (unsigned int i = 0; i < leaf->Count(); ++i) if (leaf->ItemAt(i) == item) return true;
  return false;
}

TEST(Octree, ConstructionRaisesTheHalfSizeAndPicksTheSmallestSplittableAxis) {
  const struct {
    float half[3], tolerance, root[3];
    unsigned int splittable, split, axis;  // masks: bit 0 = x, 1 = y, 2 = z
    float smallest[3];
  } cases[] = {
      {{1, 2, 3}, 5, {5, 5, 5}, 7, 0, 0, {2.5f, 2.5f, 2.5f}},  // raised; the root halves but splits nothing
      {{4, 4, 4}, 1, {4, 4, 4}, 7, 7, 0, {2, 2, 2}},            // ties keep the earlier axis
      {{8, 4, 4}, 1, {8, 4, 4}, 7, 7, 1, {4, 2, 2}},
      {{8, 8, 4}, 1, {8, 8, 4}, 7, 7, 2, {4, 4, 2}},
      {{0.5f, 4, 2}, 1, {0.5f, 4, 2}, 6, 6, 2, {0.5f, 2, 1}},   // x below the tolerance: never halved
      {{1, 2, 3}, 2, {1, 2, 3}, 6, 0, 1, {1, 1, 1.5f}},         // equal to one component: not raised
      {{3, 1, 3}, 2, {3, 1, 3}, 5, 0, 0, {1.5f, 1, 1.5f}},
      {{1, 1, 1}, kNaN, {1, 1, 1}, 0, 0, 3, {1, 1, 1}},          // nothing splittable: one child
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(testing::Message() << c.half[0] << " " << c.half[1] << " " << c.half[2] << " " << c.tolerance);
    omi_Octree tree(omi_OctVector(0, 0, 0), omi_OctVector(c.half[0], c.half[1], c.half[2]), c.tolerance, nullptr,
                    nullptr);
    const omi_OctreeBranch* root = dynamic_cast<const omi_OctreeBranch*>(tree.Root());
    ASSERT_NE(root, nullptr);
    const omi_OctVector& h = root->HalfSize();
    EXPECT_TRUE(h.x == c.root[0] && h.y == c.root[1] && h.z == c.root[2]);
    const omi_OctVector& s = tree.SmallestHalfSize();
    EXPECT_TRUE(s.x == c.smallest[0] && s.y == c.smallest[1] && s.z == c.smallest[2]) << s.x << " " << s.y << " " << s.z;
    EXPECT_EQ(tree.ChosenAxis(), c.axis);
    for (unsigned int a = 0; a < 3; ++a) {
      EXPECT_EQ(tree.Splittable(a), ((c.splittable >> a) & 1) != 0) << a;
      EXPECT_EQ(root->Split(a), ((c.split >> a) & 1) != 0) << a;
    }
    for (unsigned int i = 0; i < 8; ++i) EXPECT_EQ(root->Child(i) != nullptr, (i & ~c.splittable) == 0) << i;
    EXPECT_EQ(tree.LeafCount(), 1u << __builtin_popcount(c.splittable));  // one leaf per child made
  }
  // Without a splittable axis a full leaf grows instead of splitting.
  omi_Octree flat(omi_OctVector(0, 0, 0), omi_OctVector(1, 1, 1), kNaN, nullptr, nullptr);
  for (unsigned int i = 0; i < 300; ++i) flat.Insert(i, omi_OctVector(1, 1, 1), omi_OctVector(2, 2, 2));
  EXPECT_EQ(LeafAt(flat, 0.5f, 0.5f, 0.5f)->Count(), 300u);
  EXPECT_EQ(flat.LeafCount(), 2u);
}

// Records the items asked for and writes a box (the point 50, 50, 50) for odd
// items only: the even ones find whatever the previous call left.
void OddBoxesOnly(void* user, unsigned int item, float* const min, float* const max) {
  static_cast<std::vector<unsigned int>*>(user)->push_back(item);
  if (item % 2 == 0) return;
  for (unsigned int a = 0; a < 3; ++a) min[a] = max[a] = 50.0f;
}

TEST(Octree, The257thItemSplitsTheLeafAskingTheCallbackForTheStoredBoxes) {
  std::vector<unsigned int> asked;
  omi_Octree tree(omi_OctVector(0, 0, 0), omi_OctVector(64, 64, 64), 0.01f, OddBoxesOnly, &asked);
  for (unsigned int i = 0; i < 256; ++i) tree.Insert(i, omi_OctVector(40, 40, 40), omi_OctVector(40, 40, 40));
  EXPECT_TRUE(asked.empty());
  EXPECT_EQ(tree.LeafCount(), 8u);
  tree.Insert(256, omi_OctVector(50, 50, 50), omi_OctVector(50, 50, 50));
  std::vector<unsigned int> storedInOrder(256);
  for (unsigned int i = 0; i < 256; ++i) storedInOrder[i] = i;
  EXPECT_EQ(asked, storedInOrder);  // the new item's box is not asked for
  const omi_OctreeBranch* branch =
      dynamic_cast<const omi_OctreeBranch*>(dynamic_cast<const omi_OctreeBranch*>(tree.Root())->Child(7));
  ASSERT_NE(branch, nullptr);
  EXPECT_EQ(tree.LeafCount(), 16u);
  EXPECT_EQ(branch->Child(0)->Centre().x, 16.0f);  // centre - h'
  EXPECT_EQ(branch->Child(7)->Centre().z, 48.0f);  // centre - h' + half-size
  EXPECT_EQ(branch->Child(7)->HalfSize().y, 16.0f);
  // The box starts zeroed once before the loop: item 0 reads zeros, every
  // later even item the box of the odd one before it.
  const omi_OctreeLeaf* lower = dynamic_cast<const omi_OctreeLeaf*>(branch->Child(0));
  const omi_OctreeLeaf* upper = dynamic_cast<const omi_OctreeLeaf*>(branch->Child(7));
  ASSERT_TRUE(lower != nullptr && upper != nullptr);
  EXPECT_EQ(lower->Count(), 1u);
  EXPECT_EQ(upper->Count(), 256u);
  EXPECT_EQ(upper->ItemAt(1), 2u);
  EXPECT_EQ(upper->ItemAt(255), 256u);
}

TEST(Octree, AtTheCentreMaxGoesLowerAndMinGoesToBothHalves) {
  const struct {
    float min, max;
    bool lower, upper;
  } cases[] = {{-1, 0, true, false}, {0, 1, true, true}, {0, 0, true, false},
               {0.5f, 1, false, true}, {-1, 1, true, true}, {kNaN, kNaN, true, false}};
  for (const auto& c : cases) {
    omi_Octree tree = Tree64(0.01f);
    tree.Insert(5, omi_OctVector(c.min, 1, 1), omi_OctVector(c.max, 2, 2));
    EXPECT_EQ(Holds(LeafAt(tree, -1, 1, 1), 5), c.lower) << c.min << " " << c.max;
    EXPECT_EQ(Holds(LeafAt(tree, 1, 1, 1), 5), c.upper) << c.min << " " << c.max;
    EXPECT_EQ(LeafAt(tree, 0, 1, 1), LeafAt(tree, -1, 1, 1));  // a point on the centre is lower
    EXPECT_EQ(LeafAt(tree, kNaN, kNaN, kNaN), LeafAt(tree, -1, -1, -1));
  }
}

TEST(Octree, ToleranceAboveEveryHalfSizeGivesGrowableLeavesOf512AndDoubling) {
  omi_Octree tree(omi_OctVector(0, 0, 0), omi_OctVector(1, 2, 3), 5.0f, nullptr, nullptr);
  const omi_OctreeBranch* root = dynamic_cast<const omi_OctreeBranch*>(tree.Root());
  ASSERT_NE(root, nullptr);
  const unsigned int numberOfChild[8] = {0, 1, 3, 2, 7, 6, 4, 5};  // made 0, 1, 3, 2, 6, 7, 5, 4
  for (unsigned int i = 0; i < 8; ++i) {
    const omi_OctreeLeaf* child = dynamic_cast<const omi_OctreeLeaf*>(root->Child(i));
    ASSERT_NE(child, nullptr);  // made, though never filled but for child 0
    EXPECT_EQ(child->Number(), numberOfChild[i]);
  }
  const unsigned int steps[][2] = {{256, 0}, {257, 512}, {512, 512}, {513, 1024}, {1025, 2048}};
  unsigned int inserted = 0;
  for (const auto& step : steps) {
    for (; inserted < step[0]; ++inserted) tree.Insert(inserted, omi_OctVector(4, 4, 4), omi_OctVector(4, 4, 4));
    const omi_OctreeLeafInf* leaf = dynamic_cast<const omi_OctreeLeafInf*>(root->Child(0));
    ASSERT_EQ(leaf != nullptr, step[1] != 0) << step[0];
    if (leaf == nullptr) continue;
    EXPECT_EQ(leaf->Capacity(), step[1]);
    EXPECT_EQ(leaf->Number(), 8u);
    for (unsigned int i = 0; i < inserted; ++i) ASSERT_EQ(leaf->ItemAt(i), i);
  }
}

// Leaves split while the depth counter is below 11: one item at a time, a
// leaf at level 11 grows; in a cascade of splits the counter runs on (each
// nested split adds two), so 257 items on one point split down to level 6 only.
TEST(Octree, LeavesSplitWhileTheSharedDepthCounterIsBelowEleven) {
  const float tiny = 1.0f / (1 << 20);
  omi_Octree chain = Tree64(1e-6f);
  for (unsigned int i = 0; i < 256; ++i) chain.Insert(i, omi_OctVector(tiny, tiny, tiny), omi_OctVector(tiny, tiny, tiny));
  for (int k = 0; k < 10; ++k) {  // each lands beside the full leaf of the tiny items, one level down
    const float s = 48.0f / static_cast<float>(1 << k);
    chain.Insert(1000 + k, omi_OctVector(s, s, s), omi_OctVector(s, s, s));
  }
  omi_Octree cascade = Tree64(1e-6f);
  for (unsigned int i = 0; i < 300; ++i) cascade.Insert(i, omi_OctVector(1, 1, 1), omi_OctVector(1, 1, 1));
  const struct {
    const omi_Octree* tree;
    float at;
    int level;
    unsigned int count;
  } cases[] = {{&chain, tiny, 11, 257}, {&cascade, 1, 7, 300}};
  for (const auto& c : cases) {
    const omi_OctreeLeaf* leaf = LeafAt(*c.tree, c.at, c.at, c.at);
    EXPECT_EQ(LevelOf(c.tree->Root(), leaf), c.level);
    EXPECT_NE(dynamic_cast<const omi_OctreeLeafInf*>(leaf), nullptr);
    EXPECT_EQ(leaf->Count(), c.count);
  }
}

TEST(Octree, WordBlocksServeReuseAndGrow) {
  const unsigned int sizes[][3] = {{0, 1024, 1}, {1024, 1024, 1}, {1025, 2050, 2}, {2000, 4000, 2}};
  for (const auto& c : sizes) {  // request, size of the block it comes from, blocks
    omi_Octree tree = Tree64(1.0f);
    const omi_OctreeMemory* from = tree.MemAlloc(c[0]).Block();
    EXPECT_EQ(from, tree.CurrentBlock());
    EXPECT_EQ(tree.Blocks()->Size(), c[1]) << c[0];
    EXPECT_EQ(tree.Blocks()->Next() != nullptr, c[2] == 2);
  }
  omi_Octree tree = Tree64(1.0f);
  omi_OctreeMemPtr a = tree.MemAlloc(600);
  omi_OctreeMemPtr b = tree.MemAlloc(600);  // a second block becomes current
  const omi_OctreeMemory* blockA = a.Block();
  const omi_OctreeMemory* blockB = b.Block();
  omi_OctreeMemPtr b2 = tree.MemAlloc(300);
  EXPECT_TRUE(blockA != blockB && b2.Block() == blockB);
  b2.Release();
  EXPECT_EQ(blockB->WordsLeft(), 124u);  // words are not given back one allocation at a time
  EXPECT_EQ(blockB->LiveAllocations(), 1u);
  a.Release();
  EXPECT_TRUE(tree.FreedBlocks() == blockA && blockA->WordsLeft() == 1024u);
  omi_OctreeMemPtr big = tree.MemAlloc(2000);  // the freed block is too small and stays first
  const omi_OctreeMemory* blockC = big.Block();
  EXPECT_TRUE(tree.FreedBlocks() == blockA && tree.CurrentBlock() == blockC && blockC->Size() == 4000u);
  big.Release();  // emptied, pushed, and still current
  omi_OctreeMemPtr again = tree.MemAlloc(10);
  EXPECT_EQ(again.Block(), blockC);
  again.Release();  // a block already waiting is not pushed twice
  EXPECT_TRUE(tree.FreedBlocks() == blockC && blockC->NextFreed() == blockA && blockA->NextFreed() == nullptr);
  omi_OctreeMemPtr fill = tree.MemAlloc(4000);  // the current block, still listed as freed, is used up
  unsigned int* const baseC = fill.Words();
  EXPECT_EQ(tree.MemAlloc(100).Block()->Size(), 1024u);  // neither it nor the first freed block has room
  fill.Release();
  const omi_OctreeMemPtr reused = tree.MemAlloc(2000);  // the first freed block serves and leaves the list
  EXPECT_TRUE(reused.Block() == blockC && reused.Words() == baseC && tree.CurrentBlock() == blockC);
  EXPECT_EQ(tree.FreedBlocks(), blockA);
  omi_OctreeMemPtr none;
  none.Release();  // a null pointer releases nothing
  EXPECT_TRUE(none.IsNull());
}

TEST(Octree, DumpPrintsTotalsAndBlocksByteForByteAndMisuseAborts) {
  const auto result = zmx_test::RunProbe("container_dump_probe", "octree_dumps");
  ASSERT_TRUE(zmx_test::ExitedCleanly(result));
  const std::string blocks = "MemoryBlocks: Count=1, Size=4152, Waste=3072\nFreedBlocks: Count=0, Size=0\n";
  EXPECT_EQ(result.out,
            "Total nodeCount=10, numCell=10, numLeaf=8, maxDepth=3, size=1552\n" + blocks + "items 10\n" +
                "Total nodeCount=2, numCell=1, numLeaf=1, maxDepth=1, size=40\n"
                "Total nodeCount=10, numCell=10, numLeaf=16, maxDepth=3, size=2064\n" +
                blocks +
                "Total nodeCount=10, numCell=10, numLeaf=8, maxDepth=3, size=1552\n"
                "MemoryBlocks: Count=2, Size=20208, Waste=19072\n"
                "FreedBlocks: Count=1, Size=16056\n");
  // Misuse aborts with a message.
  const struct {
    const char* scenario;
    const char* message;
  } cases[] = {
      {"octree_item_beyond_count", "ERROR: omi_OctreeLeaf::ItemAt: index 1 is not below the item count 1\n"},
      {"octree_request_too_large", "ERROR: omi_Octree::MemAlloc: a request of 2147483648 words is too large\n"},
  };
  for (const auto& c : cases) {
    const auto aborted = zmx_test::RunProbe("container_dump_probe", c.scenario);
    EXPECT_EQ(aborted.signal, SIGABRT) << zmx_test::Describe(aborted);
    EXPECT_EQ(aborted.err, c.message);
    EXPECT_EQ(aborted.out, "");
  }
}

// Walks the whole segment; fails on a repeated leaf.
std::vector<const omi_OctreeLeaf*> Walk(const omi_Octree& tree, std::vector<float> s, std::vector<float> e,
                                        float tolerance, bool* started = nullptr) {
  omi_OctreeLineTrav walk;
  std::vector<const omi_OctreeLeaf*> out;
  const bool ok = walk.Init(&tree, s.data(), e.data(), tolerance);
  if (started != nullptr) *started = ok;
  while (const omi_OctreeLeaf* leaf = walk.NextCell()) {
    for (const omi_OctreeLeaf* seen : out) EXPECT_NE(seen, leaf);
    out.push_back(leaf);
    if (out.size() > 64) break;
  }
  return out;
}

using Leaves = std::vector<const omi_OctreeLeaf*>;

TEST(OctreeLineTrav, EntryStepsFacesAndAxisParallelSegments) {
  const omi_Octree tree = Tree64(1.0f);
  auto octant = [&](int x, int y, int z) { return LeafAt(tree, x * 10.0f, y * 10.0f, z * 10.0f); };
  // Shorter than 2e: step 1. No probe reaches x > 0, the exit at x = 0 is
  // passed by a whole step and the next leaf is found beyond the end point.
  EXPECT_EQ(Walk(tree, {-1.5f, 10, 10}, {0.4f, 10, 10}, 1.0f), (Leaves{octant(-1, 1, 1), octant(1, 1, 1)}));
  // Entry through the face x = -64 from outside.
  EXPECT_EQ(Walk(tree, {-100, 10, 10}, {100, 10, 10}, 1.0f), (Leaves{octant(-1, 1, 1), octant(1, 1, 1)}));
  bool started = true;
  EXPECT_TRUE(Walk(tree, {-100, 10, 10}, {-200, 10, 10}, 1.0f, &started).empty());
  EXPECT_FALSE(started);  // pointing away
  EXPECT_TRUE(Walk(tree, {-100, 0, 0}, {-50, 200, 0}, 1.0f, &started).empty());
  EXPECT_FALSE(started);  // passes the tree's corner without a face hit
  // Lying in the plane y = 0: the probes gather the leaves on both sides.
  EXPECT_EQ(Walk(tree, {-50, 0, 10}, {50, 0, 10}, 1.0f),
            (Leaves{octant(-1, -1, 1), octant(-1, 1, 1), octant(1, -1, 1), octant(1, 1, 1)}));
  // Axis-parallel (no face test on y or z), also with tolerance 0, where the
  // walk creeps over the face at x = 0 one unit of t at a time.
  for (float e : {1.0f, 0.0f}) {
    EXPECT_EQ(Walk(tree, {-50, 10, 10}, {0.001f, 10, 10}, e), (Leaves{octant(-1, 1, 1), octant(1, 1, 1)})) << e;
  }
}

TEST(OctreeLineTrav, DegenerateInputEndsSafely) {
  const omi_Octree tree = Tree64(1.0f);
  const omi_OctreeLeaf* here = LeafAt(tree, 5, 5, 5);
  for (float e : {0.0f, 1.0f, -3.0f}) {
    EXPECT_EQ(Walk(tree, {5, 5, 5}, {5, 5, 5}, e), Leaves{here}) << e;  // zero length
  }
  const struct {
    std::vector<float> start, end;
    float tolerance;
    size_t leaves;
  } cases[] = {
      {{kNaN, 5, 5}, {5, 5, 5}, 1, 0},          {{5, 5, 5}, {5, kInf, 5}, 1, 0},
      {{5, 5, 5}, {5, 5, 5}, kNaN, 0},          {{5, 5, 5}, {5, 5, 6}, kInf, 0},
      {{-3e38f, 5, 5}, {3e38f, 5, 5}, 1, 0},    // an extent beyond float
      {{-1e30f, 5, 5}, {1e30f, 5, 5}, 1e-3f, 2},  // steps too small for t
      {{5, 5, 5}, {-3e38f, 3e38f, 5}, 1, 2},    // ends on leaving the tree
      {{5, 5, 5}, {6, 6, 6}, FLT_MAX, 8},       // probes beyond float range
  };
  for (const auto& c : cases) {
    bool started = false;
    EXPECT_EQ(Walk(tree, c.start, c.end, c.tolerance, &started).size(), c.leaves) << c.start[0] << " " << c.tolerance;
    EXPECT_EQ(started, c.leaves > 0);
  }
}

// Trees over boxes at or beyond the ends of float range, or given infinite or
// NaN sizes: built, split, searched and walked without a floating-point trap.
TEST(OctreeLineTrav, ExtremeTreesNeitherTrapNorWalk) {
  const float kMax = FLT_MAX;
  const float kTop = std::nextafter(FLT_MAX, 0.0f);  // + 2^104 is FLT_MAX: a finite box
  const struct {
    float centre, half, tolerance;
    bool walks;
  } cases[] = {{kMax, kMax, 1, false},    {-kMax, kMax, 1, false},   {0, 1, kInf, false},
               {kInf, 1, 1, false},       {0, kInf, 1, false},       {kNaN, 1, 0.1f, false},
               {1, kNaN, 0.1f, false},    {kTop, 0x1p104f, 0x1p90f, true}};
  for (const auto& c : cases) {
    SCOPED_TRACE(testing::Message() << c.centre << " " << c.half << " " << c.tolerance);
    omi_Octree tree(omi_OctVector(c.centre, c.centre, c.centre), omi_OctVector(c.half, c.half, c.half), c.tolerance,
                    nullptr, nullptr);
    for (unsigned int i = 0; i < 600; ++i) {
      const float v = i % 2 ? kMax : 1.0f;
      tree.Insert(i, omi_OctVector(v, v, v), omi_OctVector(v, v, v));
    }
    bool started = false;
    const size_t walked = Walk(tree, {kTop, kTop, kTop}, {kMax, kMax, kMax}, 0x1p100f, &started).size();
    EXPECT_EQ(started, c.walks);
    EXPECT_EQ(walked > 0, c.walks);
    EXPECT_NE(LeafAt(tree, kMax, kMax, kMax), nullptr);
  }
}

// A point inside a small leaf with a walk tolerance far above the tree's: the
// leaf and its eight probes are nine leaves, and gathering stops at eight.
TEST(OctreeLineTrav, GatheringStopsAtEightLeaves) {
  omi_Octree tree = Tree64(1.0f);
  for (unsigned int i = 0; i < 257; ++i) {
    const omi_OctVector p((i & 1) ? 48 : 16, (i & 2) ? 48 : 16, (i & 4) ? 48 : 16);
    tree.Insert(i, p, p);
  }
  const float p[3] = {0.5f, 0.5f, 0.5f};
  Leaves expected = {tree.FindCell(p)};
  for (int dx = -1; dx <= 1; dx += 2)
    for (int dy = -1; dy <= 1; dy += 2)
      for (int dz = -1; dz <= 1; dz += 2) expected.push_back(LeafAt(tree, p[0] + dx * 40, p[1] + dy * 40, p[2] + dz * 40));
  const Leaves walked = Walk(tree, {0.5f, 0.5f, 0.5f}, {0.5f, 0.5f, 0.6f}, 40.0f);
  ASSERT_GE(walked.size(), 8u);
  EXPECT_EQ(Leaves(walked.begin(), walked.begin() + 8), Leaves(expected.begin(), expected.begin() + 8));
}

}  // namespace
