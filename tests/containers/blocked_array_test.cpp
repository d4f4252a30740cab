// omi_BlockedArray growth and assignment rules, its dump, and the integer set
// with its kept iteration order.
#include <gtest/gtest.h>

#include <climits>
#include <csignal>
#include <random>
#include <set>
#include <string>
#include <vector>

#include "ZMXUTI_CoreUtils.h"
#include "support/child_process.h"

namespace {

TEST(BlockedArray, ZeroIncrementStartsEmptyAndGrowsByOneHundredTwentyEight) {
  omi_BlockedArray<int> a(0, 4);
  EXPECT_EQ(a.DirectoryLength(), 0u);
  EXPECT_EQ(a.GetCell(5), 0);  // reading never allocates
  EXPECT_EQ(a.DirectoryLength(), 0u);
  a.SetCell(0, 7);
  EXPECT_EQ(a.DirectoryLength(), 128u);
  EXPECT_TRUE(a.PagePresent(0));
  EXPECT_FALSE(a.PagePresent(1));
  // Page 0 holds 16 elements: 15 is in it, 16 is not.
  EXPECT_EQ(a.GetCell(15), 0);
  EXPECT_FALSE(a.PagePresent(1));
  a.SetCell(16, 3);
  EXPECT_TRUE(a.PagePresent(1));
  // Page 128 needs the directory's next multiple of 128 above it.
  a.SetCell(128u * 16, 1);
  EXPECT_EQ(a.DirectoryLength(), 256u);
  EXPECT_EQ(a.GetCell(0), 7);
  EXPECT_EQ(a.GetCell(16), 3);
  EXPECT_EQ(a.GetCell(128u * 16), 1);
}

TEST(BlockedArray, DirectoryGrowsToTheNextMultipleOfTheIncrement) {
  omi_BlockedArray<double> a(24, 10);
  EXPECT_EQ(a.DirectoryLength(), 24u);
  a.SetCell(23u * 1024 + 1023, 1.5);  // last page of the first directory
  EXPECT_EQ(a.DirectoryLength(), 24u);
  a.SetCell(24u * 1024, 2.5);
  EXPECT_EQ(a.DirectoryLength(), 48u);
  a.SetCell(100u * 1024, 3.5);  // page 100 -> (100 / 24 + 1) * 24
  EXPECT_EQ(a.DirectoryLength(), 120u);
  EXPECT_EQ(a.GetCell(23u * 1024 + 1023), 1.5);
  EXPECT_EQ(a.GetCell(24u * 1024), 2.5);
  EXPECT_EQ(a.GetCell(24u * 1024 + 1), 0.0);  // new pages are zero-filled
  // The highest index works with every element width.
  omi_BlockedArray<void*> p(128, 10);
  int anchor = 0;
  p.SetCell(UINT_MAX, &anchor);
  EXPECT_EQ(p.GetCell(UINT_MAX), &anchor);
  EXPECT_EQ(p.DirectoryLength(), (((UINT_MAX >> 10) / 128) + 1) * 128);
}

TEST(BlockedArray, CopyAndAssignmentFollowTheSourcePages) {
  omi_BlockedArray<unsigned int> source(128, 4);
  source.SetCell(3, 33);
  source.SetCell(70, 77);
  omi_BlockedArray<unsigned int> copy(source);
  EXPECT_EQ(copy.GetCell(3), 33u);
  EXPECT_EQ(copy.GetCell(70), 77u);
  copy.SetCell(3, 1);
  EXPECT_EQ(source.GetCell(3), 33u);  // deep copy

  // Same lengths and page sizes: target pages whose source page is absent go.
  omi_BlockedArray<unsigned int> target(128, 4);
  target.SetCell(200, 5);  // page 12, absent in the source
  target.SetCell(4, 9);    // page 0, present in the source
  target = source;
  EXPECT_FALSE(target.PagePresent(12));
  EXPECT_EQ(target.GetCell(200), 0u);
  EXPECT_EQ(target.GetCell(4), 0u);  // page 0 overwritten by the source's
  EXPECT_EQ(target.GetCell(3), 33u);
  EXPECT_EQ(target.GetCell(70), 77u);

  // Different lengths: the target takes the source's length and geometry.
  omi_BlockedArray<unsigned int> wide(0, 6);
  wide.SetCell(64u * 1000, 8);
  EXPECT_EQ(wide.DirectoryLength(), 1024u);
  wide = source;
  EXPECT_EQ(wide.DirectoryLength(), 128u);
  EXPECT_EQ(wide.GetCell(70), 77u);
  EXPECT_EQ(wide.GetCell(64u * 1000), 0u);

  // Same length, different page size: cleared and re-geometried.
  omi_BlockedArray<unsigned int> coarse(128, 8);
  coarse.SetCell(255, 2);
  coarse = source;
  EXPECT_EQ(coarse.GetCell(255), 0u);
  EXPECT_EQ(coarse.GetCell(70), 77u);
  EXPECT_FALSE(coarse.PagePresent(15));  // index 255 with pages of 16 would be page 15

  target = target;  // self-assignment keeps everything
  EXPECT_EQ(target.GetCell(70), 77u);
}

TEST(BlockedArray, DumpPrintsPresentPagesByteForByte) {
  const auto result = zmx_test::RunProbe("container_dump_probe", "blocked_array_pages");
  ASSERT_TRUE(zmx_test::ExitedCleanly(result));
  const std::string zeros8 = "00000000|00000000|00000000|00000000|00000000|00000000|00000000|00000000\n";
  const std::string expected = "Block indices= 0 - 15\n"
                               "00000000|04030201|00000000|00000000|00000000|00000000|00000000|00000000\n" +
                               zeros8 + "\n" + "Block indices= 32 - 47\n" + zeros8 +
                               "ffffffff|00000000|00000000|00000000|00000000|00000000|00000000|00000000\n" + "\n";
  EXPECT_EQ(result.out, expected);
}

TEST(BlockedArray, AnIndexNeedingMoreThanThirtyTwoBitsOfDirectoryAborts) {
  const auto result = zmx_test::RunProbe("container_dump_probe", "directory_beyond_32_bits");
  EXPECT_FALSE(result.exited) << zmx_test::Describe(result);
  EXPECT_EQ(result.signal, SIGABRT);
  EXPECT_EQ(result.err, "omi_BlockedArray: page 4294967295 needs a directory of more than 4294967295 slots\n");
  EXPECT_EQ(result.out, "");
}

std::vector<int> Walk(const omi_Set& set) {
  std::vector<int> items;
  omi_SetIT it(set);
  for (it.First(); !it.IsDone(); it.Next()) items.push_back(it.CurrentItem());
  return items;
}

TEST(IntSet, IteratesNegativesByMagnitudeThenNonNegatives) {
  omi_Set set;
  for (int v : {3, -2, 0, -1}) set.Insert(v);
  EXPECT_EQ(set.Size(), 4);
  EXPECT_EQ(Walk(set), (std::vector<int>{-1, -2, 0, 3}));
  set.Insert(INT_MIN);
  set.Insert(INT_MAX);
  EXPECT_TRUE(set.IsMember(INT_MIN));
  EXPECT_FALSE(set.IsMember(INT_MIN + 1));
  EXPECT_EQ(Walk(set), (std::vector<int>{-1, -2, INT_MIN, 0, 3, INT_MAX}));
  set.Remove(-2);
  set.Remove(-2);
  set.Remove(5);
  EXPECT_EQ(set.Size(), 5);
  set.Clear();
  EXPECT_EQ(set.Size(), 0);
  EXPECT_TRUE(Walk(set).empty());
  set.Insert(-9);  // only negatives
  EXPECT_EQ(Walk(set), (std::vector<int>{-9}));
}

// The set against std::set over random members: order, membership, union and
// intersection.
TEST(IntSet, MatchesAStdSetModel) {
  std::mt19937 rng(20240611);
  std::uniform_int_distribution<int> wide(INT_MIN, INT_MAX);
  std::uniform_int_distribution<int> near(-5000, 5000);
  omi_Set a, b;
  std::set<int> ma, mb;
  for (int i = 0; i < 40000; ++i) {
    const int v = (i % 3 == 0) ? wide(rng) : near(rng);
    if (rng() % 4 == 0) {
      a.Remove(v);
      ma.erase(v);
    } else if (rng() % 2 == 0) {
      a.Insert(v);
      ma.insert(v);
    } else {
      b.Insert(v);
      mb.insert(v);
    }
  }
  auto expectedOrder = [](const std::set<int>& s) {
    std::vector<int> order;
    for (auto it = s.rbegin(); it != s.rend(); ++it)
      if (*it < 0) order.push_back(*it);
    for (int v : s)
      if (v >= 0) order.push_back(v);
    return order;
  };
  EXPECT_EQ(a.Size(), static_cast<int>(ma.size()));
  EXPECT_EQ(Walk(a), expectedOrder(ma));
  for (int probe = -6000; probe <= 6000; probe += 7) EXPECT_EQ(a.IsMember(probe), ma.count(probe) == 1) << probe;

  omi_Set both = a;
  both &= b;
  std::set<int> mboth;
  for (int v : ma)
    if (mb.count(v)) mboth.insert(v);
  EXPECT_EQ(Walk(both), expectedOrder(mboth));

  a += b;
  ma.insert(mb.begin(), mb.end());
  EXPECT_EQ(a.Size(), static_cast<int>(ma.size()));
  EXPECT_EQ(Walk(a), expectedOrder(ma));
}

}  // namespace
