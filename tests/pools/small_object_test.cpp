// The small-object allocator on a private instance: classes, slots, reallocation,
// page retirement and number reuse, a randomized model run, refused releases; the
// front door and threads in fresh processes (small_objects_probe).
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <random>
#include <string>
#include <utility>
#include <vector>

#include "mem/internal/alloc_table.h"
#include "mem/pools/internal/small_objects.h"
#include "support/child_process.h"

namespace {

using zmx::mem_internal::HasSmallObjectMark;
using zmx::mem_internal::small_objects::Allocator;
using zmx::mem_internal::small_objects::RecordOf;

std::uintptr_t PageOffset(const void* p) { return reinterpret_cast<std::uintptr_t>(p) & 4095; }

void ExpectIntact(const Allocator& a) {
  std::string problem;
  EXPECT_TRUE(a.Check(&problem)) << problem;
}

TEST(SmallObjects, SizeClassesSlotPlacementAndReallocationWithinTheSlotOrByCopy) {
  struct Case { std::size_t bytes; int sizeClass; int slotBytes; };
  const Case cases[] = {{0, 0, 4},   {1, 0, 4},   {4, 0, 4},   {5, 1, 8},   {8, 1, 8},    {9, 2, 16},   {16, 2, 16},
                        {17, 3, 32}, {48, 4, 48}, {49, 5, 64}, {97, 8, 112}, {113, 9, 128}, {128, 9, 128}};
  Allocator a;
  for (const Case& c : cases) {
    void* p = a.Allocate(c.bytes);
    ASSERT_TRUE(HasSmallObjectMark(p)) << c.bytes;
    EXPECT_EQ(RecordOf(p)->Tag(), c.sizeClass) << c.bytes;
    EXPECT_EQ(RecordOf(p)->SlotWords() * 4, c.slotBytes) << c.bytes;
  }
  // The first slot of a fresh page: offset 56 for the 4- and 8-byte classes, 64 (16-aligned) from 16 bytes on.
  Allocator fresh;
  const std::pair<std::size_t, std::uintptr_t> offsets[] = {{3, 56}, {6, 56}, {16, 64}, {100, 64}, {100, 64 + 112}};
  for (const auto& [bytes, offset] : offsets) EXPECT_EQ(PageOffset(fresh.Allocate(bytes)), offset) << bytes;

  // A 32-byte slot takes 30 and 32 bytes in place; 33 move with the whole slot copied, 200 to the general heap.
  auto* block = static_cast<unsigned char*>(a.Allocate(20));
  for (int i = 0; i < 32; ++i) block[i] = static_cast<unsigned char>(i + 1);
  auto copied = [](const unsigned char* p) {
    for (int i = 0; i < 32; ++i) EXPECT_EQ(p[i], i + 1) << "byte " << i;
  };
  EXPECT_EQ(a.Reallocate(block, 30), block);
  EXPECT_EQ(a.Reallocate(block, 32), block);
  auto* moved = static_cast<unsigned char*>(a.Reallocate(block, 33));
  EXPECT_EQ(RecordOf(moved)->Tag(), 4);  // moved: the old slot's class is 3
  copied(moved);
  auto* large = static_cast<unsigned char*>(a.Reallocate(moved, 200));
  ASSERT_NE(large, nullptr);
  EXPECT_FALSE(HasSmallObjectMark(large));
  copied(large);
  dlfree(large);
  EXPECT_EQ(a.Reallocate(a.Allocate(10), 0), nullptr);  // size 0 releases
  ExpectIntact(a);
  ExpectIntact(fresh);
}

// Fills `full` pages of one class and opens one more; the blocks of each page, in page order.
std::vector<std::vector<void*>> FillPages(Allocator& a, std::size_t bytes, int full) {
  std::vector<std::vector<void*>> byPage;
  for (const void* last = nullptr; static_cast<int>(byPage.size()) <= full;) {
    void* p = a.Allocate(bytes);
    if (RecordOf(p) != last) byPage.emplace_back();
    last = RecordOf(p);
    byPage.back().push_back(p);
  }
  return byPage;
}

TEST(SmallObjects, AnEmptiedPageWithANeighbourIsRetiredAndItsNumberReusedWhileALonePageIsKept) {
  Allocator a;
  void* opener = a.Allocate(100);  // page 0, the only page of class 8
  a.Free(opener);
  EXPECT_TRUE(HasSmallObjectMark(opener));  // emptied, but alone in its class: kept
  EXPECT_EQ(a.ClassHead(8), 0);

  auto pages = FillPages(a, 40, 2);  // class 4: pages 1 and 2 full, page 3 opened
  ASSERT_EQ(RecordOf(pages[1][0])->number, 2);
  for (void* p : pages[1]) a.Free(p);
  EXPECT_FALSE(HasSmallObjectMark(pages[1][0]));  // a stale pointer no longer passes as a small block
  EXPECT_EQ(a.ReuseHead(), 3);
  EXPECT_EQ(a.Entry(2)->record, nullptr);
  // The retired number is the next one a new page takes, whatever its class.
  EXPECT_EQ(RecordOf(a.Allocate(1))->number, 2);
  EXPECT_EQ(a.LivePageNumbers(), 4);
  EXPECT_EQ(a.ReuseHead(), 0);

  a.Free(pages[2][0]);  // page 3 empties alone in its list: kept
  EXPECT_TRUE(HasSmallObjectMark(pages[2][0]));
  for (void* p : pages[0]) a.Free(p);  // page 1 comes back beside page 3, then empties: retired
  EXPECT_FALSE(HasSmallObjectMark(pages[0][0]));
  EXPECT_EQ(a.PageCount(), 3);
  ExpectIntact(a);
}

// Random allocations, reallocations and releases against a model of the live
// blocks; every block carries a pattern of its own serial, checked when it is
// released or moved, so overlapping slots or a damaged free list show up.
TEST(SmallObjects, RandomTrafficKeepsEveryBlockIntactAgainstAModel) {
  for (unsigned seed : {1u, 7u, 42u}) {
    Allocator a;
    std::mt19937 rng(seed);
    struct Live { unsigned char* p; std::size_t bytes; unsigned char tag; };
    std::vector<Live> live;
    auto fill = [](const Live& b) { std::memset(b.p, b.tag, b.bytes); };
    auto intact = [](const Live& b) { return std::count(b.p, b.p + b.bytes, b.tag) == static_cast<long>(b.bytes); };
    for (int step = 0; step < 60000; ++step) {
      const unsigned r = rng();
      const std::size_t bytes = 1 + rng() % 128;
      if (live.empty() || r % 8 < 4) {
        Live b{static_cast<unsigned char*>(a.Allocate(bytes)), bytes, static_cast<unsigned char>(step)};
        ASSERT_TRUE(HasSmallObjectMark(b.p));
        fill(b);
        live.push_back(b);
      } else {
        const std::size_t k = rng() % live.size();
        ASSERT_TRUE(intact(live[k])) << "seed " << seed << " step " << step;
        if (r % 8 == 4) {
          Live& b = live[k];
          b.p = static_cast<unsigned char*>(a.Reallocate(b.p, bytes));
          b.bytes = std::min(b.bytes, bytes);
          ASSERT_TRUE(intact(b)) << "reallocation lost data, seed " << seed << " step " << step;
          b.bytes = bytes;
          b.tag = static_cast<unsigned char>(step);
          fill(b);
        } else {
          a.Free(live[k].p);
          live[k] = live.back();
          live.pop_back();
        }
      }
      if (step % 5000 == 0) ExpectIntact(a);
    }
    for (const Live& b : live) ASSERT_TRUE(intact(b));
    for (const Live& b : live) a.Free(b.p);
    ExpectIntact(a);
  }
}

TEST(SmallObjectsDeathTest, ReleasesThatWouldDamageAPageAreRefusedWithAMessage) {
  Allocator a;
  auto* p = static_cast<char*>(a.Allocate(32));
  a.Allocate(32);
  for (int inside : {1, 8, 31}) EXPECT_DEATH(a.Free(p + inside), "ERROR: small-object allocator: position not at a slot at 0x");
  EXPECT_DEATH(a.Free(p - 64), "ERROR: small-object allocator: position outside the slots");
  a.Free(p);
  EXPECT_DEATH(a.Free(p), "ERROR: small-object allocator: slot released twice");
  // A page of another allocator, or foreign data that happens to carry the mark.
  Allocator other;
  other.Allocate(32);  // its page 0 exists, but is not the page of a's block
  EXPECT_DEATH(other.Free(a.Allocate(32)), "ERROR: small-object allocator: block is not on a page of this allocator");
}

TEST(SmallObjectsProcess, FrontDoorRoutingAndEightThreadsUnderTheLock) {
  const auto routing = zmx_test::RunProbe("small_objects_probe", "front_door");
  ASSERT_TRUE(zmx_test::ExitedCleanly(routing));
  EXPECT_EQ(routing.out,
            "new 100 small=1\nmalloc 100 small=1\nmalloc 129 small=0\ncalloc 16 small=0\n"
            "realloc 20->200 small=0 copied=1\naligned8=1\nnew after off small=0\npages=2 intact=1\n");
  const auto stress = zmx_test::RunProbe("small_objects_probe", "threads");
  ASSERT_TRUE(zmx_test::ExitedCleanly(stress));
  EXPECT_EQ(stress.out, "threads=8 damaged=0 intact=1\n");
}

}  // namespace
