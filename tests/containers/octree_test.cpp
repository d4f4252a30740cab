// Octree and segment walk by table: the split of a full leaf, the halves rule
// at the centre, growable leaves, the word blocks, the dump texts and aborts,
// degenerate input, and the walk's entry, stepping and gathering cases.
#include <gtest/gtest.h>

#include <csignal>
#include <cfloat>
#include <cmath>
#include <memory>
#include <limits>
#include <string>
#include <vector>

#include "ZMXUTI_CoreUtils.h"
#include "containers/octree_test_model.h"
#include "support/child_process.h"

namespace {

using namespace zmx_octree_test;

const float kNaN = std::numeric_limits<float>::quiet_NaN();

// Root centre 0, half-size 64: eight empty octant leaves.
omi_Octree* NewTree(float tolerance, Boxes* boxes = nullptr) {
  return new omi_Octree(omi_OctVector(0, 0, 0), omi_OctVector(64, 64, 64), tolerance,
                        boxes != nullptr ? BoxCallback : nullptr, boxes);
}

const omi_OctreeLeaf* LeafAt(const omi_Octree& tree, float x, float y, float z) {
  const float p[3] = {x, y, z};
  return tree.FindCell(p);
}

bool Holds(const omi_OctreeLeaf* leaf, unsigned int item) {
  for (unsigned int i = 0; i < leaf->Count(); ++i) {
    if (leaf->ItemAt(i) == item) return true;
  }
  return false;
}

TEST(Octree, The257thItemSplitsTheLeafThroughTheCallback) {
  Boxes boxes;
  std::unique_ptr<omi_Octree> tree(NewTree(0.01f, &boxes));
  EXPECT_EQ(tree->LeafCount(), 8u);
  for (unsigned int i = 0; i < 257; ++i) {
    const float c = 8.0f + (i % 8) * 6.0f;
    boxes.boxes.push_back(Box{{c, c, c}, {c + 1, c + 1, c + 1}});
  }
  for (unsigned int i = 0; i < 256; ++i) tree->Insert(i, Lo(boxes.boxes[i]), Hi(boxes.boxes[i]));
  EXPECT_TRUE(boxes.asked.empty());
  tree->Insert(256, Lo(boxes.boxes[256]), Hi(boxes.boxes[256]));
  std::vector<unsigned int> storedInOrder(256);
  for (unsigned int i = 0; i < 256; ++i) storedInOrder[i] = i;
  EXPECT_EQ(boxes.asked, storedInOrder);  // the new item's box is not asked for
  const omi_OctreeBranch* root = dynamic_cast<const omi_OctreeBranch*>(tree->Root());
  ASSERT_NE(root, nullptr);
  EXPECT_NE(dynamic_cast<const omi_OctreeBranch*>(root->Child(7)), nullptr);
  EXPECT_EQ(tree->LeafCount(), 16u);
  std::vector<LeafInfo> leaves;
  EXPECT_EQ(CollectLeaves(root->Child(7), 2, leaves).size(), 257u);
  CheckLeafContents(*tree, leaves, boxes);
}

TEST(Octree, AtTheCentreMaxGoesLowerAndMinGoesToBothHalves) {
  struct Case {
    float min, max;
    bool lower, upper;
  } cases[] = {{-1, 0, true, false}, {0, 1, true, true}, {0, 0, true, false},
               {0.5f, 1, false, true}, {-1, 1, true, true}, {kNaN, kNaN, true, false}};
  for (const Case& c : cases) {
    std::unique_ptr<omi_Octree> tree(NewTree(0.01f));
    tree->Insert(5, omi_OctVector(c.min, 1, 1), omi_OctVector(c.max, 2, 2));
    EXPECT_EQ(Holds(LeafAt(*tree, -1, 1, 1), 5), c.lower) << c.min << " " << c.max;
    EXPECT_EQ(Holds(LeafAt(*tree, 1, 1, 1), 5), c.upper) << c.min << " " << c.max;
    EXPECT_EQ(LeafAt(*tree, 0, 1, 1), LeafAt(*tree, -1, 1, 1));  // a point on the centre is lower
    EXPECT_EQ(LeafAt(*tree, kNaN, kNaN, kNaN), LeafAt(*tree, -1, -1, -1));
  }
}

TEST(Octree, ToleranceAboveEveryHalfSizeGivesGrowableLeavesOf512AndDoubling) {
  omi_Octree tree(omi_OctVector(0, 0, 0), omi_OctVector(1, 2, 3), 5.0f, nullptr, nullptr);
  EXPECT_EQ(tree.Root()->HalfSize().x, 5.0f);
  EXPECT_EQ(tree.Root()->HalfSize().z, 5.0f);
  const omi_OctreeBranch* root = dynamic_cast<const omi_OctreeBranch*>(tree.Root());
  ASSERT_NE(root, nullptr);
  for (unsigned int axis = 0; axis < 3; ++axis) EXPECT_FALSE(root->Split(axis));
  const unsigned int numberOfChild[8] = {0, 1, 3, 2, 7, 6, 4, 5};  // made 0, 1, 3, 2, 6, 7, 5, 4
  for (unsigned int i = 0; i < 8; ++i) {
    const omi_OctreeLeaf* child = dynamic_cast<const omi_OctreeLeaf*>(root->Child(i));
    ASSERT_NE(child, nullptr);  // made, though never filled but for child 0
    EXPECT_EQ(child->Number(), numberOfChild[i]);
  }
  EXPECT_EQ(root->Child(0)->HalfSize().y, 2.5f);  // halved though unsplit
  const unsigned int steps[][2] = {{256, 0}, {257, 512}, {512, 512}, {513, 1024}, {1025, 2048}};
  unsigned int inserted = 0;
  for (const auto& step : steps) {
    for (; inserted < step[0]; ++inserted) tree.Insert(inserted, omi_OctVector(4, 4, 4), omi_OctVector(4, 4, 4));
    const omi_OctreeLeafInf* leaf = dynamic_cast<const omi_OctreeLeafInf*>(LeafAt(tree, 4, 4, 4));
    ASSERT_EQ(leaf != nullptr, step[1] != 0) << step[0];
    if (leaf == nullptr) continue;
    EXPECT_EQ(leaf, root->Child(0));
    EXPECT_EQ(leaf->Capacity(), step[1]);
    EXPECT_EQ(leaf->Number(), 8u);
    for (unsigned int i = 0; i < inserted; ++i) ASSERT_EQ(leaf->ItemAt(i), i);
  }
}

// Leaves split while the depth counter is below 11: one item at a time, a
// leaf at level 11 grows; in a cascade of splits the counter runs on (each
// nested split adds two), so 257 items on one point split down to level 6 only.
TEST(Octree, LeavesSplitWhileTheSharedDepthCounterIsBelowEleven) {
  std::unique_ptr<omi_Octree> chain(NewTree(1e-6f));
  const float tiny = 1.0f / (1 << 20);
  for (unsigned int i = 0; i < 256; ++i) chain->Insert(i, omi_OctVector(tiny, tiny, tiny), omi_OctVector(tiny, tiny, tiny));
  for (int k = 0; k < 10; ++k) {  // each lands beside the full leaf of the tiny items, one level down
    const float s = 48.0f / static_cast<float>(1 << k);
    chain->Insert(1000 + k, omi_OctVector(s, s, s), omi_OctVector(s, s, s));
  }
  std::vector<LeafInfo> chainLeaves;
  CollectLeaves(chain->Root(), 1, chainLeaves);
  for (const LeafInfo& l : chainLeaves) {
    if (l.leaf != LeafAt(*chain, tiny, tiny, tiny)) continue;
    EXPECT_EQ(l.level, 11);
    EXPECT_NE(dynamic_cast<const omi_OctreeLeafInf*>(l.leaf), nullptr);
    EXPECT_EQ(l.leaf->Count(), 257u);
  }

  Boxes boxes;
  std::unique_ptr<omi_Octree> tree(NewTree(1e-6f, &boxes));
  for (unsigned int i = 0; i < 300; ++i) {
    boxes.boxes.push_back(Box{{1, 1, 1}, {1, 1, 1}});
    tree->Insert(i, Lo(boxes.boxes[i]), Hi(boxes.boxes[i]));
  }
  std::vector<LeafInfo> leaves;
  CollectLeaves(tree->Root(), 1, leaves);
  int matched = 0;
  for (const LeafInfo& l : leaves) {
    if (l.leaf == LeafAt(*tree, 1, 1, 1)) {
      ++matched;
      EXPECT_EQ(l.level, 7);
      EXPECT_NE(dynamic_cast<const omi_OctreeLeafInf*>(l.leaf), nullptr);
      EXPECT_EQ(l.leaf->Count(), 300u);
    }
  }
  EXPECT_EQ(matched, 1);
}

TEST(Octree, WordBlocksServeReuseAndGrow) {
  struct Case {
    unsigned int request, headSize, blocks;
  } cases[] = {{0, 1024, 1}, {1024, 1024, 1}, {1025, 2050, 2}, {2000, 4000, 2}};
  for (const Case& c : cases) {
    std::unique_ptr<omi_Octree> tree(NewTree(1.0f));
    const omi_OctreeMemPtr words = tree->MemAlloc(c.request);
    EXPECT_EQ(tree->Blocks()->Size(), c.headSize) << c.request;
    EXPECT_EQ(tree->Blocks()->Next() != nullptr, c.blocks == 2);
    EXPECT_EQ(words.Block(), tree->CurrentBlock());
  }
  std::unique_ptr<omi_Octree> tree(NewTree(1.0f));
  omi_OctreeMemPtr a = tree->MemAlloc(600);
  omi_OctreeMemPtr b = tree->MemAlloc(600);  // a second block becomes current
  const omi_OctreeMemory* blockA = a.Block();
  const omi_OctreeMemory* blockB = b.Block();
  EXPECT_NE(blockA, blockB);
  omi_OctreeMemPtr b2 = tree->MemAlloc(300);
  EXPECT_EQ(b2.Block(), blockB);
  b2.Release();
  EXPECT_EQ(blockB->WordsLeft(), 124u);  // words are not given back one allocation at a time
  EXPECT_EQ(blockB->LiveAllocations(), 1u);
  a.Release();
  EXPECT_EQ(tree->FreedBlocks(), blockA);
  EXPECT_EQ(blockA->WordsLeft(), 1024u);
  omi_OctreeMemPtr big = tree->MemAlloc(2000);  // the freed block is too small and stays first
  const omi_OctreeMemory* blockC = big.Block();
  EXPECT_EQ(tree->FreedBlocks(), blockA);
  EXPECT_EQ(blockC->Size(), 4000u);
  EXPECT_EQ(tree->CurrentBlock(), blockC);
  big.Release();  // emptied, pushed, and still current
  EXPECT_EQ(tree->FreedBlocks(), blockC);
  omi_OctreeMemPtr again = tree->MemAlloc(10);
  EXPECT_EQ(again.Block(), blockC);
  again.Release();  // a block already waiting is not pushed twice
  EXPECT_EQ(tree->FreedBlocks(), blockC);
  EXPECT_EQ(blockC->NextFreed(), blockA);
  EXPECT_EQ(blockA->NextFreed(), nullptr);
  omi_OctreeMemPtr fill = tree->MemAlloc(4000);  // the current block, still listed as freed, is used up
  EXPECT_EQ(fill.Block(), blockC);
  unsigned int* const baseC = fill.Words();
  const omi_OctreeMemPtr small = tree->MemAlloc(100);  // neither it nor the first freed block has room
  EXPECT_EQ(small.Block()->Size(), 1024u);
  fill.Release();
  const omi_OctreeMemPtr reused = tree->MemAlloc(2000);  // the first freed block serves and leaves the list
  EXPECT_EQ(reused.Block(), blockC);
  EXPECT_EQ(reused.Words(), baseC);  // from the reset cursor
  EXPECT_EQ(tree->CurrentBlock(), blockC);
  EXPECT_EQ(tree->FreedBlocks(), blockA);
  omi_OctreeMemPtr first = omi_OctreeMemPtr();
  EXPECT_TRUE(first.IsNull());
  first.Release();  // a null pointer releases nothing
}

TEST(Octree, DumpPrintsTotalsAndBlocksByteForByte) {
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
}

TEST(Octree, MisuseAbortsWithAMessage) {
  const struct {
    const char* scenario;
    const char* message;
  } cases[] = {
      {"octree_item_beyond_count", "ERROR: omi_OctreeLeaf::ItemAt: index 1 is not below the item count 1\n"},
      {"octree_request_too_large", "ERROR: omi_Octree::MemAlloc: a request of 2147483648 words is too large\n"},
  };
  for (const auto& c : cases) {
    const auto result = zmx_test::RunProbe("container_dump_probe", c.scenario);
    EXPECT_EQ(result.signal, SIGABRT) << zmx_test::Describe(result);
    EXPECT_EQ(result.err, c.message);
    EXPECT_EQ(result.out, "");
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

TEST(OctreeLineTrav, EntryStepsFacesAndAxisParallelSegments) {
  std::unique_ptr<omi_Octree> tree(NewTree(1.0f));
  auto octant = [&](int x, int y, int z) { return LeafAt(*tree, x * 10.0f, y * 10.0f, z * 10.0f); };
  using Leaves = std::vector<const omi_OctreeLeaf*>;
  // Shorter than 2e: step 1. No probe reaches x > 0, the exit at x = 0 is
  // passed by a whole step and the next leaf is found beyond the end point.
  EXPECT_EQ(Walk(*tree, {-1.5f, 10, 10}, {0.4f, 10, 10}, 1.0f), (Leaves{octant(-1, 1, 1), octant(1, 1, 1)}));
  // Entry through the face x = -64 from outside.
  EXPECT_EQ(Walk(*tree, {-100, 10, 10}, {100, 10, 10}, 1.0f), (Leaves{octant(-1, 1, 1), octant(1, 1, 1)}));
  bool started = true;
  EXPECT_TRUE(Walk(*tree, {-100, 10, 10}, {-200, 10, 10}, 1.0f, &started).empty());
  EXPECT_FALSE(started);  // pointing away
  EXPECT_TRUE(Walk(*tree, {-100, 0, 0}, {-50, 200, 0}, 1.0f, &started).empty());
  EXPECT_FALSE(started);  // passes the tree's corner without a face hit
  // Lying in the plane y = 0: the probes gather the leaves on both sides.
  EXPECT_EQ(Walk(*tree, {-50, 0, 10}, {50, 0, 10}, 1.0f),
            (Leaves{octant(-1, -1, 1), octant(-1, 1, 1), octant(1, -1, 1), octant(1, 1, 1)}));
  // Axis-parallel, also with tolerance 0 (the walk creeps over the face at x = 0).
  for (float e : {1.0f, 0.0f}) {
    EXPECT_EQ(Walk(*tree, {-50, 10, 10}, {50, 10, 10}, e), (Leaves{octant(-1, 1, 1), octant(1, 1, 1)})) << e;
  }
}

TEST(OctreeLineTrav, DegenerateInputEndsSafely) {
  std::unique_ptr<omi_Octree> tree(NewTree(1.0f));
  using Leaves = std::vector<const omi_OctreeLeaf*>;
  const omi_OctreeLeaf* here = LeafAt(*tree, 5, 5, 5);
  EXPECT_EQ(here->Count(), 0u);
  for (float e : {0.0f, 1.0f, -3.0f}) {
    EXPECT_EQ(Walk(*tree, {5, 5, 5}, {5, 5, 5}, e), Leaves{here}) << e;  // zero length
  }
  bool started = true;
  EXPECT_TRUE(Walk(*tree, {kNaN, 5, 5}, {5, 5, 5}, 1.0f, &started).empty());
  EXPECT_FALSE(started);
  EXPECT_TRUE(Walk(*tree, {5, 5, 5}, {5, 5, 5}, kNaN, &started).empty());
  EXPECT_FALSE(started);
  EXPECT_TRUE(Walk(*tree, {-3e38f, 5, 5}, {3e38f, 5, 5}, 1.0f, &started).empty());
  EXPECT_FALSE(started);  // an extent beyond float
  EXPECT_EQ(Walk(*tree, {-1e30f, 5, 5}, {1e30f, 5, 5}, 1e-3f).size(), 2u);  // steps too small for t
  EXPECT_EQ(Walk(*tree, {5, 5, 5}, {-3e38f, 3e38f, 5}, 1.0f).size(), 2u);  // ends on leaving the tree

  omi_Octree unsplittable(omi_OctVector(0, 0, 0), omi_OctVector(1, 1, 1), kNaN, nullptr, nullptr);
  EXPECT_EQ(unsplittable.ChosenAxis(), 3u);
  for (unsigned int i = 0; i < 300; ++i) unsplittable.Insert(i, omi_OctVector(1, 1, 1), omi_OctVector(2, 2, 2));
  EXPECT_EQ(LeafAt(unsplittable, 0.5f, 0.5f, 0.5f)->Count(), 300u);
  EXPECT_EQ(unsplittable.LeafCount(), 2u);
}

// Trees over boxes at or beyond the ends of float range, or given infinite or
// NaN sizes: built, split, searched and walked under the floating-point traps.
TEST(OctreeLineTrav, ExtremeTreesNeitherTrapNorWalk) {
  const float kMax = FLT_MAX, kInf = std::numeric_limits<float>::infinity();
  const float kTop = std::nextafter(FLT_MAX, 0.0f);  // + 2^104 is FLT_MAX: a finite box
  const struct {
    float centre, half, tolerance;
    bool walks;
  } cases[] = {{kMax, kMax, 1, false}, {-kMax, kMax, 1, false}, {0, 1, kInf, false}, {kInf, 1, 1, false},
               {0, kInf, 1, false},
               {kNaN, 1, 0.1f, false}, {1, kNaN, 0.1f, false}, {kTop, 0x1p104f, 0x1p90f, true}};
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
  std::unique_ptr<omi_Octree> tree(NewTree(1.0f));
  for (unsigned int i = 0; i < 257; ++i) {
    const omi_OctVector p((i & 1) ? 48 : 16, (i & 2) ? 48 : 16, (i & 4) ? 48 : 16);
    tree->Insert(i, p, p);
  }
  const float p[3] = {0.5f, 0.5f, 0.5f};
  std::vector<const omi_OctreeLeaf*> expected = {tree->FindCell(p)};
  for (int dx = -1; dx <= 1; dx += 2)
    for (int dy = -1; dy <= 1; dy += 2)
      for (int dz = -1; dz <= 1; dz += 2) expected.push_back(LeafAt(*tree, p[0] + dx * 40, p[1] + dy * 40, p[2] + dz * 40));
  const std::vector<const omi_OctreeLeaf*> walked = Walk(*tree, {0.5f, 0.5f, 0.5f}, {0.5f, 0.5f, 0.6f}, 40.0f);
  ASSERT_GE(walked.size(), 8u);
  EXPECT_EQ(std::vector<const omi_OctreeLeaf*>(walked.begin(), walked.begin() + 8),
            std::vector<const omi_OctreeLeaf*>(expected.begin(), expected.begin() + 8));
}

}  // namespace
