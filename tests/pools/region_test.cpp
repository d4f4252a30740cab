// Regions: the variable region against a model over random operation mixes,
// its documented sizes, splits and merges, claims, the walker's own verdicts,
// misuse that aborts; the fixed region against a model of its slot order.
#include <gtest/gtest.h>

#include <climits>
#include <csignal>
#include <cstdint>
#include <cstdio>
#include <map>
#include <set>
#include <functional>
#include <initializer_list>
#include <iterator>
#include <new>
#include <numeric>
#include <random>
#include <string>
#include <utility>
#include <vector>

#include "mem/pools/internal/region_check.h"
#include "mem/pools/region.h"

namespace {

using zmx::mem_internal::CheckFixedRegion;
using zmx::mem_internal::CheckVariableRegion;

// Plain models of both regions, from maps instead of in-array bookkeeping. The
// variable one works relative to the base; best fit is the smallest free block
// of 8 words or more that holds the request, the lowest position among equals.
class VariableModel {
 public:
  explicit VariableModel(int capacity) : capacity_(capacity) { AddFree(16, capacity - 16); }
  int Alloc(int need) {
    const auto it = fit_.lower_bound({need, INT_MIN});
    if (it == fit_.end()) return -1;
    const int pos = it->second;
    Carve(pos, RemoveFree(pos), need);
    return pos;
  }
  bool Free(int pos) {
    int start = pos, size = used_.at(pos);
    used_.erase(pos);
    if (free_.count(pos + size)) size += RemoveFree(pos + size);
    auto before = free_.lower_bound(pos);
    if (before != free_.begin() && (--before)->first + before->second == pos) {
      start = before->first;
      size += RemoveFree(start);
    }
    AddFree(start, size);
    return used_.empty();
  }
  int Reallocate(int pos, int need) {
    const int size = used_.at(pos);
    if (size >= need) return pos;
    if (free_.count(pos + size) && size + free_.at(pos + size) >= need) {
      Carve(pos, size + RemoveFree(pos + size), need);
      return pos;
    }
    const int moved = Alloc(need);
    if (moved >= 0) Free(pos);
    return moved;
  }
  int Claim(int pos, int words) {
    if (pos < 16 || pos % 4 != 0 || pos > capacity_ - words) return -1;
    auto it = free_.upper_bound(pos);
    if (it == free_.begin()) return -1;
    const auto [start, size] = *--it;
    if (pos + words > start + size) return -1;
    RemoveFree(start);
    if (pos > start) AddFree(start, pos - start);
    used_[pos] = words;
    if (start + size > pos + words) AddFree(pos + words, start + size - pos - words);
    return pos;
  }

  int InUse() const {
    return std::accumulate(used_.begin(), used_.end(), 0, [](int n, const auto& block) { return n + block.second; });
  }
  int Largest() const { return fit_.empty() ? 0 : fit_.rbegin()->first; }
  bool IsTreeBlock(int pos, int size) const { return fit_.count({size, pos}) != 0; }
  const std::map<int, int>& Used() const { return used_; }
  const std::map<int, int>& FreeBlocks() const { return free_; }

 private:
  void Carve(int pos, int available, int need) {
    const int size = available - need >= 35 ? need : available;
    used_[pos] = size;
    if (size != available) AddFree(pos + size, available - size);
  }
  void AddFree(int pos, int size) {
    free_[pos] = size;
    if (size >= 8) fit_.insert({size, pos});
  }
  int RemoveFree(int pos) {
    const int size = free_.at(pos);
    free_.erase(pos);
    fit_.erase({size, pos});
    return size;
  }

  int capacity_;
  std::map<int, int> used_;            // position -> words
  std::map<int, int> free_;            // position -> words, every free block
  std::set<std::pair<int, int>> fit_;  // (words, position) of the blocks Alloc can find
};

// Freed slots are handed out again last-in first-out, then the frontier moves.
struct FixedModel {
  int Alloc() {
    if (freed.empty()) return frontier > capacity - slot ? -1 : (frontier += slot) - slot;
    const int pos = freed.back();
    freed.pop_back();
    return pos;
  }
  int capacity, slot, frontier;
  std::vector<int> freed;
};

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
    EXPECT_TRUE(model.Largest() == 0 ? largestPos == -1 : model.IsTreeBlock(largestPos - base, model.Largest()))
        << largestPos;
    for (int i = 0; i < base; ++i) ASSERT_EQ(array[i], kCanary) << "word " << i << " before the span";
    for (int i = base; i < canaryEnd; ++i) ASSERT_EQ(array[i], kCanary) << "object word " << i - base;
    for (std::size_t i = array.size() - 8; i < array.size(); ++i) ASSERT_EQ(array[i], kCanary) << "after the span";
  }

  const int base;
  std::vector<int> array;
  VariableModel model;
  const int canaryEnd;
  alignas(mem_VariableRegion) unsigned char beside[sizeof(mem_VariableRegion)];
  mem_VariableRegion* region;
};

std::size_t RandomBytes(std::mt19937& rng) {
  static const std::size_t kLimits[] = {8, 64, 512, 4096};
  return rng() % (kLimits[rng() % 4] + 1);  // 0 included: it counts as 1
}

// A random (position, words) entry of a non-empty map of the model.
std::pair<int, int> RandomOf(const std::map<int, int>& blocks, std::mt19937& rng) {
  return *std::next(blocks.begin(), static_cast<long>(rng() % blocks.size()));
}
int RandomUsed(const VariableModel& model, std::mt19937& rng) { return RandomOf(model.Used(), rng).first; }

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
      const auto [start, size] = RandomOf(model.FreeBlocks(), rng);
      rel = start + 4 * static_cast<int>(rng() % (size / 4));
      words = 4 * (1 + static_cast<int>(rng() % ((start + size - rel) / 4)));
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

// A fresh region of `capacity` words at index 0 of its own array.
struct Plain {
  explicit Plain(int capacity = 1024) : array(capacity), a(array.data()), region(0, capacity, a) {}
  int Alloc(std::size_t bytes) { return region.Alloc(a, bytes); }
  // Each (index, value) pair: the word's expected value; then the walker finds nothing wrong.
  void Expect(std::initializer_list<std::pair<int, int>> words) {
    for (const auto& [i, v] : words) EXPECT_EQ(array[i], v) << "word " << i;
    EXPECT_EQ(Problem(region, a), "");
  }
  std::vector<int> array;
  int* a;
  mem_VariableRegion region;
};

TEST(VariableRegion, RequestsTakeWholeBlocksOfFourWordsAndSmallRestsStayWithTheBlock) {
  const struct { std::size_t bytes; int words; } sizes[] = {
      {0, 4}, {1, 4}, {8, 4}, {9, 8}, {24, 8}, {25, 12}, {57, 20}, {SIZE_MAX, INT_MAX & ~3}};
  for (const auto& s : sizes) EXPECT_EQ(mem_VariableRegion::WordsFor(s.bytes), s.words) << s.bytes;
  // A fresh 1024-word region holds one free block of 1008 words at 16.
  const struct { std::size_t bytes; int given; int largest; } fits[] = {
      {1, 4, 1004}, {BytesFor(972), 972, 36}, {BytesFor(976), 1008, 0}, {BytesFor(1008), 1008, 0},
      {BytesFor(1012), -1, 1008}, {SIZE_MAX, -1, 1008}};
  for (const auto& f : fits) {
    Plain p;
    ASSERT_EQ(p.region.LargestFreeWords(), 1008);
    const int pos = p.Alloc(f.bytes);
    EXPECT_EQ(pos, f.given < 0 ? -1 : 16) << f.bytes;
    if (pos > 0) {
      EXPECT_EQ(p.region.BlockWords(p.a, pos), f.given);
    }
    EXPECT_EQ(p.region.WordsInUse(), f.given < 0 ? 0 : f.given);
    EXPECT_EQ(p.region.LargestFreeWords(), f.largest);
    EXPECT_EQ(p.region.LargestFreePosition(), f.largest == 0 ? -1 : f.given < 0 ? 16 : 16 + f.given);
    p.Expect({});
  }
}

TEST(VariableRegion, ReleasesMergeWithFreeNeighboursInEitherOrder) {
  for (const bool firstA : {true, false}) {
    Plain p;
    const int a = p.Alloc(BytesFor(28)), b = p.Alloc(BytesFor(52)), c = p.Alloc(1);
    EXPECT_FALSE(p.region.Free(p.a, firstA ? a : b));
    EXPECT_FALSE(p.region.Free(p.a, firstA ? b : a));
    p.Expect({{a - 1, -80}, {c - 2, 80}});  // one free block, and the next block knows its size
    EXPECT_EQ(p.Alloc(BytesFor(80)), a) << "the merged block is the best fit";
    EXPECT_FALSE(p.region.Free(p.a, a));
    EXPECT_TRUE(p.region.Free(p.a, c));
    EXPECT_EQ(p.array[15], -1008);
    EXPECT_EQ(p.region.WordsInUse(), 0);
  }
}

TEST(VariableRegion, AFourWordBlockFreedBetweenBlocksInUseWaitsOutsideTheTree) {
  Plain p;
  const int a = p.Alloc(BytesFor(28)), b = p.Alloc(1), c = p.Alloc(BytesFor(40));
  for (int k = 0; k < 38; ++k) p.array[c + k] = Pattern(c, k);
  p.region.Free(p.a, b);
  p.Expect({{b - 1, -4}, {c - 2, 4}, {c - 1, 40}});
  for (int k = 0; k < 38; ++k) ASSERT_EQ(p.array[c + k], Pattern(c, k));
  const int d = p.Alloc(1);
  EXPECT_EQ(d, c + 40) << "the 4-word gap is not handed out";
  EXPECT_EQ(p.region.Reallocate(p.a, a, BytesFor(32)), a) << "growing into the gap";
  EXPECT_EQ(p.region.BlockWords(p.a, a), 32);
  const int e = p.Alloc(BytesFor(8));
  p.region.Free(p.a, d);  // a new gap between c and e merges when c goes
  p.region.Free(p.a, c);
  p.Expect({{c - 1, -44}, {e - 2, 44}});
  const int inUse = p.region.WordsInUse();  // smaller requests keep their block
  EXPECT_EQ(p.region.Reallocate(p.a, a, 1), a);
  EXPECT_EQ(p.region.WordsInUse(), inUse);
  EXPECT_EQ(p.region.Reallocate(p.a, a, BytesFor(2000)), -1);
  EXPECT_EQ(p.region.BlockWords(p.a, a), 32);
}

TEST(VariableRegion, ClaimsCutExactBlocksOutOfOneFreeBlock) {
  Plain cluster(65536);
  for (int r = 1; r < 64; ++r) ASSERT_EQ(cluster.region.ClaimBlock(cluster.a, r * 1024, 1024), r * 1024);
  EXPECT_EQ(cluster.region.WordsInUse(), 63 * 1024);
  EXPECT_EQ(cluster.region.LargestFreeWords(), 1008);
  // Refused: a claimed block, a claim crossing into one, a position off the grid.
  for (const auto& [pos, words] : {std::pair{2048, 4}, {1000, 32}, {18, 4}})
    EXPECT_EQ(cluster.region.ClaimBlock(cluster.a, pos, words), -1) << pos;
  cluster.Expect({{65534, 1024}});  // the last claim ends at the closing header
  // Remnants of 4 words on both sides stay free, out of the tree, until a merge.
  Plain small;
  ASSERT_EQ(small.region.ClaimBlock(small.a, 20, 1000), 20);
  small.Expect({{15, -4}, {1019, -4}});
  EXPECT_EQ(small.region.LargestFreeWords(), 0);
  EXPECT_TRUE(small.region.Free(small.a, 20));
  EXPECT_EQ(small.array[15], -1008);
}

TEST(VariableRegion, TheWalkerNamesDamageAndDebugPrintReportsSizes) {
  Plain p;
  const int a = p.Alloc(100), b = p.Alloc(100);
  p.Alloc(100);
  p.region.Free(p.a, b);
  const struct { int word; int value; const char* problem; } damage[] = {
      {a + 26, 4, "block at 44: preceding size 4, the preceding block has 28"},
      {a - 1, -28, "free blocks at 16 and 44 touch"},
      {b + 3, 1, "node 44: height 1, its children give 0"},
      {b, 9, "node 44: parent 9, expected 100"},
      {1023, 7, "closing header (924, 7), expected (924, 0)"}};
  for (const auto& d : damage) {
    const int saved = p.array[d.word];
    p.array[d.word] = d.value;
    EXPECT_EQ(Problem(p.region, p.a), d.problem);
    p.array[d.word] = saved;
  }
  p.Expect({});
  std::fflush(stdout);
  testing::internal::CaptureStdout();
  p.region.DebugPrint();
  EXPECT_EQ(testing::internal::GetCapturedStdout(), "VariableRegion: Size=1024, Alloc=56\n");
}

TEST(RegionDeathTest, MisuseOfEitherKindAbortsWithAMessage) {
  std::vector<int> array(1024 + 400);  // the fixed region's words follow the variable region's
  int* a = array.data();
  mem_VariableRegion region(0, 1024, a);
  region.Free(a, region.Alloc(a, 10));
  mem_FixedRegion fixed(1024, 400, a, 3);
  const int slot = fixed.Alloc(a, 1);
  fixed.Alloc(a, 1);
  fixed.Free(a, slot);
  const struct { std::function<void()> misuse; const char* message; } cases[] = {
      {[&] { region.Free(a, 16); }, "variable region: Free of position 16: block already free"},
      {[&] { region.Reallocate(a, 1024, 8); }, "variable region: Reallocate of position 1024: outside the region"},
      {[&] { mem_VariableRegion(0, 1022, a); },
       "variable region: a capacity of 1022 words cannot hold a region \\(a multiple of 4, at least 24\\)"},
      {[&] { fixed.Free(a, 1036); }, "fixed region: slot released twice \\(position 1036\\)"},
      {[&] { fixed.Free(a, 1040); }, "fixed region: position not at a slot \\(position 1040\\)"},
      {[&] { mem_FixedRegion(0, 20, a, INT_MAX); }, "fixed region: 20 words cannot hold a slot of 2147483647 words"},
      {[&] { mem_FixedRegion(INT_MAX - 100, 101, a, 4); },
       "fixed region: base index 2147483547 and capacity 101 run past the largest position"}};
  for (const auto& c : cases)
    EXPECT_EXIT(c.misuse(), testing::KilledBySignal(SIGABRT), std::string("^ERROR: ") + c.message + "\n$") << c.message;
}

TEST(FixedRegion, RandomSlotTrafficMatchesALastInFirstOutModel) {
  for (const int slot : {1, 2, 3, 4, 7}) {
    SCOPED_TRACE("slot words " + std::to_string(slot));
    const unsigned base = 9;
    std::vector<int> array(base + 400);
    mem_FixedRegion region(base, 400, array.data(), slot);
    FixedModel model{400, slot, mem_FixedRegion::FirstSlotFor(slot), {}};
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
        model.freed.push_back(inUse.back() - static_cast<int>(base));
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
