// Regions: the variable region against a model over random operation mixes,
// its documented sizes, splits and merges, claims, the walker's own verdicts,
// misuse that aborts; the fixed region against a model of its slot order.
#include <gtest/gtest.h>

#include <climits>
#include <csignal>
#include <cstdint>
#include <cstdio>
#include <new>
#include <random>
#include <string>
#include <vector>

#include "mem/pools/internal/region_check.h"
#include "mem/pools/region.h"
#include "pools/region_model.h"

namespace {

using zmx::mem_internal::CheckFixedRegion;
using zmx::mem_internal::CheckVariableRegion;

constexpr int kCanary = 0x5a5a5a5a;

int Pattern(int position, int k) { return position * 7919 + (k ^ 0x3c3c); }
std::size_t BytesFor(int words) { return static_cast<std::size_t>(words - 2) * 4; }

std::string Problem(const mem_VariableRegion& region, const int* array) {
  std::string problem;
  return CheckVariableRegion(region, array, &problem) ? "" : problem;
}

// A variable region with its object inside the span (at the base index) or
// beside it, canaries around the span, and a pattern in every block in use.
struct Harness {
  Harness(int capacity, unsigned baseIndex, bool objectInSpan)
      : base(static_cast<int>(baseIndex)), array(baseIndex + capacity + 8, kCanary), model(capacity),
        canaryEnd(objectInSpan ? 0 : base + 14) {  // beside the span, the object's words stay untouched
    void* place = objectInSpan ? static_cast<void*>(array.data() + base) : static_cast<void*>(&beside);
    region = new (place) mem_VariableRegion(baseIndex, capacity, array.data());
  }
  ~Harness() { region->~mem_VariableRegion(); }

  void Fill(int rel) {
    for (int k = 0; k < model.Used().at(rel) - 2; ++k) array[base + rel + k] = Pattern(base + rel, k);
  }
  // The first `words` data words of the block at `rel` hold the pattern of `owner`.
  void ExpectPattern(int rel, int owner, int words) {
    for (int k = 0; k < words; ++k) ASSERT_EQ(array[base + rel + k], Pattern(base + owner, k)) << "block " << rel;
  }
  void ExpectConsistent() {
    ASSERT_EQ(Problem(*region, array.data()), "");
    EXPECT_EQ(region->WordsInUse(), model.InUse());
    EXPECT_EQ(region->LargestFreeWords(), model.Largest());
    const int largestPos = region->LargestFreePosition();
    if (model.Largest() == 0) {
      EXPECT_EQ(largestPos, -1);
    } else {
      EXPECT_TRUE(model.IsTreeBlock(largestPos - base, model.Largest())) << largestPos;
    }
    for (int i = 0; i < base; ++i) ASSERT_EQ(array[i], kCanary) << "word " << i << " before the span";
    for (int i = base; i < canaryEnd; ++i) ASSERT_EQ(array[i], kCanary) << "object word " << i - base;
    for (std::size_t i = array.size() - 8; i < array.size(); ++i) ASSERT_EQ(array[i], kCanary) << "after the span";
  }

  const int base;
  std::vector<int> array;
  region_model::VariableModel model;
  const int canaryEnd;
  alignas(mem_VariableRegion) unsigned char beside[sizeof(mem_VariableRegion)];
  mem_VariableRegion* region;
};

std::size_t RandomBytes(std::mt19937& rng) {
  static const std::size_t kLimits[] = {8, 64, 512, 4096};
  return rng() % (kLimits[rng() % 4] + 1);  // 0 included: it counts as 1
}

int RandomUsed(const region_model::VariableModel& model, std::mt19937& rng) {
  auto it = model.Used().begin();
  std::advance(it, rng() % model.Used().size());
  return it->first;
}

// One random step against the model; the region's answers must match exactly.
void Step(Harness& h, std::mt19937& rng, int capacity) {
  mem_VariableRegion& region = *h.region;
  auto& model = h.model;
  const int base = h.base;
  const bool crowded = model.InUse() > capacity * 3 / 5;
  const unsigned op = model.Used().empty() ? 0 : rng() % 10;
  if (op < (crowded ? 2u : 4u)) {
    const std::size_t bytes = RandomBytes(rng);
    const int expected = model.Alloc(mem_VariableRegion::WordsFor(bytes));
    ASSERT_EQ(region.Alloc(h.array.data(), bytes), expected < 0 ? -1 : base + expected) << bytes << " bytes";
    if (expected >= 0) h.Fill(expected);
  } else if (op < 7) {
    const int rel = RandomUsed(model, rng);
    h.ExpectPattern(rel, rel, model.Used().at(rel) - 2);
    const bool empty = model.Free(rel);
    ASSERT_EQ(region.Free(h.array.data(), base + rel), empty);
  } else if (op < 9) {
    const int rel = RandomUsed(model, rng);
    const int oldData = model.Used().at(rel) - 2;
    const std::size_t bytes = RandomBytes(rng);
    const int expected = model.Reallocate(rel, mem_VariableRegion::WordsFor(bytes));
    ASSERT_EQ(region.Reallocate(h.array.data(), base + rel, bytes), expected < 0 ? -1 : base + expected);
    if (expected < 0) return h.ExpectPattern(rel, rel, oldData);
    h.ExpectPattern(expected, rel, oldData);
    h.Fill(expected);
    EXPECT_EQ(region.BlockWords(h.array.data(), base + expected), model.Used().at(expected));
  } else {
    int rel = 16 + 4 * static_cast<int>(rng() % (capacity / 4));
    int words = 4 * (1 + static_cast<int>(rng() % 64));
    if (rng() % 2 == 0 && !model.FreeBlocks().empty()) {  // inside a free block: it must succeed
      auto it = model.FreeBlocks().begin();
      std::advance(it, rng() % model.FreeBlocks().size());
      rel = it->first + 4 * static_cast<int>(rng() % (it->second / 4));
      words = 4 * (1 + static_cast<int>(rng() % ((it->first + it->second - rel) / 4)));
    }
    const int expected = model.Claim(rel, words);
    ASSERT_EQ(region.ClaimBlock(h.array.data(), base + rel, words), expected < 0 ? -1 : base + rel) << rel << "+" << words;
    if (expected >= 0) h.Fill(rel);
  }
}

TEST(VariableRegion, RandomOperationsMatchAModelOfBestFitSplitsAndMerges) {
  struct Run { int capacity; unsigned base; bool objectInSpan; };
  const Run runs[] = {{1024, 1000, true}, {1024, 37, false}, {4096, 64, true}, {4096, 0, false}, {65536, 2, true}, {65536, 5, false}};
  for (const Run& run : runs) {
    for (const unsigned seed : {11u, 22u, 33u}) {
      SCOPED_TRACE("capacity " + std::to_string(run.capacity) + " base " + std::to_string(run.base) + " seed " + std::to_string(seed));
      Harness h(run.capacity, run.base, run.objectInSpan);
      std::mt19937 rng(seed + run.base);
      for (int step = 0; step < 3000 && !testing::Test::HasFatalFailure(); ++step) {
        Step(h, rng, run.capacity);
        h.ExpectConsistent();
        if (step % 64 != 0) continue;
        for (const auto& [rel, size] : h.model.Used()) h.ExpectPattern(rel, rel, size - 2);
      }
      ASSERT_FALSE(testing::Test::HasFatalFailure());
      while (!h.model.Used().empty()) {  // the last release reports the region empty
        const int rel = RandomUsed(h.model, rng);
        ASSERT_EQ(h.region->Free(h.array.data(), h.base + rel), h.model.Free(rel));
      }
      h.ExpectConsistent();
      EXPECT_EQ(h.region->LargestFreeWords(), run.capacity - 16);
    }
  }
}

TEST(VariableRegion, RequestsTakeWholeBlocksOfFourWordsAndSmallRestsStayWithTheBlock) {
  const struct { std::size_t bytes; int words; } sizes[] = {{0, 4}, {1, 4}, {8, 4}, {9, 8}, {24, 8}, {25, 12}, {57, 20}, {SIZE_MAX, INT_MAX & ~3}};
  for (const auto& s : sizes) EXPECT_EQ(mem_VariableRegion::WordsFor(s.bytes), s.words) << s.bytes;
  // A fresh 1024-word region holds one free block of 1008 words at 16.
  const struct { std::size_t bytes; int given; int largest; } fits[] = {
      {1, 4, 1004}, {BytesFor(972), 972, 36}, {BytesFor(976), 1008, 0}, {BytesFor(1008), 1008, 0}, {BytesFor(1012), -1, 1008}, {SIZE_MAX, -1, 1008}};
  for (const auto& f : fits) {
    std::vector<int> array(1024);
    mem_VariableRegion region(0, 1024, array.data());
    ASSERT_EQ(region.LargestFreeWords(), 1008);
    const int pos = region.Alloc(array.data(), f.bytes);
    EXPECT_EQ(pos, f.given < 0 ? -1 : 16) << f.bytes;
    if (pos > 0) {
      EXPECT_EQ(region.BlockWords(array.data(), pos), f.given);
    }
    EXPECT_EQ(region.WordsInUse(), f.given < 0 ? 0 : f.given);
    EXPECT_EQ(region.LargestFreeWords(), f.largest);
    EXPECT_EQ(region.LargestFreePosition(), f.largest == 0 ? -1 : f.given < 0 ? 16 : 16 + f.given);
    EXPECT_EQ(Problem(region, array.data()), "");
  }
}

TEST(VariableRegion, ReleasesMergeWithFreeNeighboursInEitherOrder) {
  for (const bool firstA : {true, false}) {
    std::vector<int> array(1024);
    mem_VariableRegion region(0, 1024, array.data());
    const int a = region.Alloc(array.data(), BytesFor(28)), b = region.Alloc(array.data(), BytesFor(52));
    const int c = region.Alloc(array.data(), 1);
    EXPECT_FALSE(region.Free(array.data(), firstA ? a : b));
    EXPECT_FALSE(region.Free(array.data(), firstA ? b : a));
    EXPECT_EQ(array[a - 1], -80);  // one free block, and the next block knows its size
    EXPECT_EQ(array[c - 2], 80);
    EXPECT_EQ(Problem(region, array.data()), "");
    EXPECT_EQ(region.Alloc(array.data(), BytesFor(80)), a) << "the merged block is the best fit";
    EXPECT_FALSE(region.Free(array.data(), a));
    EXPECT_TRUE(region.Free(array.data(), c));
    EXPECT_EQ(array[15], -1008);
    EXPECT_EQ(region.WordsInUse(), 0);
  }
}

TEST(VariableRegion, AFourWordBlockFreedBetweenBlocksInUseWaitsOutsideTheTree) {
  std::vector<int> array(1024);
  mem_VariableRegion region(0, 1024, array.data());
  const int a = region.Alloc(array.data(), BytesFor(28));
  const int b = region.Alloc(array.data(), 1);
  const int c = region.Alloc(array.data(), BytesFor(40));
  for (int k = 0; k < 38; ++k) array[c + k] = Pattern(c, k);
  region.Free(array.data(), b);
  EXPECT_EQ(array[b - 1], -4);
  EXPECT_EQ(array[c - 2], 4);
  EXPECT_EQ(array[c - 1], 40);
  for (int k = 0; k < 38; ++k) ASSERT_EQ(array[c + k], Pattern(c, k));
  EXPECT_EQ(Problem(region, array.data()), "");
  const int d = region.Alloc(array.data(), 1);
  EXPECT_EQ(d, c + 40) << "the 4-word gap is not handed out";
  EXPECT_EQ(region.Reallocate(array.data(), a, BytesFor(32)), a) << "growing into the gap";
  EXPECT_EQ(region.BlockWords(array.data(), a), 32);
  const int e = region.Alloc(array.data(), BytesFor(8));
  region.Free(array.data(), d);  // a new gap between c and e merges when c goes
  region.Free(array.data(), c);
  EXPECT_EQ(array[c - 1], -44);
  EXPECT_EQ(array[e - 2], 44);
  EXPECT_EQ(Problem(region, array.data()), "");
  const int inUse = region.WordsInUse();  // smaller requests keep their block
  EXPECT_EQ(region.Reallocate(array.data(), a, 1), a);
  EXPECT_EQ(region.WordsInUse(), inUse);
  EXPECT_EQ(region.Reallocate(array.data(), a, BytesFor(2000)), -1);
  EXPECT_EQ(region.BlockWords(array.data(), a), 32);
}

TEST(VariableRegion, ClaimsCutExactBlocksOutOfOneFreeBlock) {
  std::vector<int> cluster(65536);
  mem_VariableRegion region(0, 65536, cluster.data());
  for (int r = 1; r < 64; ++r) ASSERT_EQ(region.ClaimBlock(cluster.data(), r * 1024, 1024), r * 1024);
  EXPECT_EQ(region.WordsInUse(), 63 * 1024);
  EXPECT_EQ(region.LargestFreeWords(), 1008);
  EXPECT_EQ(cluster[65534], 1024) << "the last claim ends at the closing header";
  EXPECT_EQ(region.ClaimBlock(cluster.data(), 2048, 4), -1);
  EXPECT_EQ(region.ClaimBlock(cluster.data(), 1000, 32), -1) << "crosses into a claimed block";
  EXPECT_EQ(region.ClaimBlock(cluster.data(), 18, 4), -1) << "off the grid";
  EXPECT_EQ(Problem(region, cluster.data()), "");
  // Remnants of 4 words on both sides stay free, out of the tree, until a merge.
  std::vector<int> array(1024);
  mem_VariableRegion small(0, 1024, array.data());
  ASSERT_EQ(small.ClaimBlock(array.data(), 20, 1000), 20);
  EXPECT_EQ(array[15], -4);
  EXPECT_EQ(array[1019], -4);
  EXPECT_EQ(small.LargestFreeWords(), 0);
  EXPECT_EQ(Problem(small, array.data()), "");
  EXPECT_TRUE(small.Free(array.data(), 20));
  EXPECT_EQ(array[15], -1008);
}

TEST(VariableRegion, TheWalkerNamesDamageAndDebugPrintReportsSizes) {
  std::vector<int> array(1024);
  mem_VariableRegion region(0, 1024, array.data());
  const int a = region.Alloc(array.data(), 100), b = region.Alloc(array.data(), 100);
  region.Alloc(array.data(), 100);
  region.Free(array.data(), b);
  const struct { int word; int value; const char* problem; } damage[] = {
      {a + 26, 4, "block at 44: preceding size 4, the preceding block has 28"},
      {a - 1, -28, "free blocks at 16 and 44 touch"},
      {b + 3, 1, "node 44: height 1, its children give 0"},
      {b, 9, "node 44: parent 9, expected 100"},
      {1023, 7, "closing header (924, 7), expected (924, 0)"}};
  for (const auto& d : damage) {
    const int saved = array[d.word];
    array[d.word] = d.value;
    EXPECT_EQ(Problem(region, array.data()), d.problem);
    array[d.word] = saved;
  }
  EXPECT_EQ(Problem(region, array.data()), "");
  std::fflush(stdout);
  testing::internal::CaptureStdout();
  region.DebugPrint();
  EXPECT_EQ(testing::internal::GetCapturedStdout(), "VariableRegion: Size=1024, Alloc=56\n");
}

TEST(RegionDeathTest, MisuseOfEitherKindAbortsWithAMessage) {
  std::vector<int> array(1024 + 400);  // the fixed region's words follow the variable region's
  mem_VariableRegion region(0, 1024, array.data());
  const int pos = region.Alloc(array.data(), 10);
  region.Free(array.data(), pos);
  mem_FixedRegion fixed(1024, 400, array.data(), 3);
  const int slot = fixed.Alloc(array.data(), 1);
  fixed.Alloc(array.data(), 1);
  fixed.Free(array.data(), slot);
  const struct { void (*misuse)(int*, mem_VariableRegion&, mem_FixedRegion&); const char* message; } cases[] = {
      {[](int* a, mem_VariableRegion& r, mem_FixedRegion&) { r.Free(a, 16); },
       "^ERROR: variable region: Free of position 16: block already free\n$"},
      {[](int* a, mem_VariableRegion& r, mem_FixedRegion&) { r.Reallocate(a, 1024, 8); },
       "^ERROR: variable region: Reallocate of position 1024: outside the region\n$"},
      {[](int* a, mem_VariableRegion&, mem_FixedRegion&) { mem_VariableRegion(0, 1022, a); },
       "^ERROR: variable region: a capacity of 1022 words cannot hold a region \\(a multiple of 4, at least 24\\)\n$"},
      {[](int* a, mem_VariableRegion&, mem_FixedRegion& f) { f.Free(a, 1036); },
       "^ERROR: fixed region: slot released twice \\(position 1036\\)\n$"},
      {[](int* a, mem_VariableRegion&, mem_FixedRegion& f) { f.Free(a, 1040); },
       "^ERROR: fixed region: position not at a slot \\(position 1040\\)\n$"},
      {[](int* a, mem_VariableRegion&, mem_FixedRegion&) { mem_FixedRegion(0, 20, a, INT_MAX); },
       "^ERROR: fixed region: 20 words cannot hold a slot of 2147483647 words\n$"},
      {[](int* a, mem_VariableRegion&, mem_FixedRegion&) { mem_FixedRegion(INT_MAX - 100, 101, a, 4); },
       "^ERROR: fixed region: base index 2147483547 and capacity 101 run past the largest position\n$"}};
  for (const auto& c : cases)
    EXPECT_EXIT(c.misuse(array.data(), region, fixed), testing::KilledBySignal(SIGABRT), c.message) << c.message;
}

TEST(FixedRegion, RandomSlotTrafficMatchesALastInFirstOutModel) {
  for (const int slot : {1, 2, 3, 4, 7}) {
    SCOPED_TRACE("slot words " + std::to_string(slot));
    const unsigned base = 9;
    std::vector<int> array(base + 400);
    mem_FixedRegion region(base, 400, array.data(), slot);
    region_model::FixedModel model(400, slot, mem_FixedRegion::FirstSlotFor(slot));
    std::vector<int> inUse;
    std::mt19937 rng(static_cast<unsigned>(slot));
    std::string problem;
    for (int step = 0; step < 2000; ++step) {
      if (inUse.empty() || rng() % 16 < 9) {
        const int expected = model.Alloc();
        ASSERT_EQ(region.Alloc(array.data(), 1), expected < 0 ? -1 : static_cast<int>(base) + expected);
        if (expected >= 0) inUse.push_back(static_cast<int>(base) + expected);
      } else {
        std::swap(inUse[rng() % inUse.size()], inUse.back());
        model.Free(inUse.back() - static_cast<int>(base));
        ASSERT_EQ(region.Free(array.data(), inUse.back()), inUse.size() == 1);
        inUse.pop_back();
      }
      ASSERT_TRUE(CheckFixedRegion(region, array.data(), &problem)) << problem;
      ASSERT_EQ(region.WordsInUse(), static_cast<int>(inUse.size()) * slot);
    }
    if (inUse.size() >= 2) {  // a free list that loops back on itself
      region.Free(array.data(), inUse[0]);
      region.Free(array.data(), inUse[1]);
      array[inUse[0]] = inUse[1] - static_cast<int>(base);
      EXPECT_FALSE(CheckFixedRegion(region, array.data(), &problem));
      EXPECT_EQ(problem, "free list does not end");
    }
  }
}

}  // namespace
