// omi_BlkBitVect: page allocation and freeing, range setting with its kept
// quirk, the whole-set operators and comparisons, the list dump, the byte-table
// equivalence of the fast counts, and traversal placement.
#include <gtest/gtest.h>

#include <climits>
#include <random>
#include <string>
#include <vector>

#include "ZMXUTI_CoreUtils.h"
#include "containers/bit_vector_members.h"
#include "containers/internal/bit_words.h"
#include "containers/internal/container_checks.h"
#include "support/child_process.h"

namespace {

using zmx::containers_internal::ContainerChecks;

unsigned int PagesPresent(const omi_BlkBitVect& v) {
  unsigned int pages = 0;
  for (unsigned int p = 0; p < v.DirectoryLength(); ++p) pages += v.PagePresent(p) ? 1 : 0;
  return pages;
}

TEST(BitVector, PagesAreAllocatedPerEightThousandBitsAndTheDirectoryGrowsBy128) {
  omi_BlkBitVect v;
  EXPECT_EQ(v.DirectoryLength(), 128u);
  EXPECT_EQ(PagesPresent(v), 0u);
  v.SetBit(0);
  v.SetBit(8191);
  EXPECT_EQ(PagesPresent(v), 1u);
  v.SetBit(8192);
  EXPECT_EQ(PagesPresent(v), 2u);
  v.SetBit(1048575);
  EXPECT_EQ(v.DirectoryLength(), 128u);
  v.SetBit(1048576);
  EXPECT_EQ(v.DirectoryLength(), 256u);
  v.SetBit(8191);  // already set: no change
  EXPECT_EQ(v.Count(), 5u);
  v.UnsetBit(5000000);  // beyond the directory: nothing grows
  EXPECT_EQ(v.DirectoryLength(), 256u);
  v.SetBit(UINT_MAX);
  EXPECT_EQ(v.DirectoryLength(), 524288u);
  EXPECT_TRUE(v.TestBit(UINT_MAX));
  EXPECT_FALSE(v.TestBit(UINT_MAX - 1));
  EXPECT_EQ(ContainerChecks::CheckBitVector(v), "");
}

TEST(BitVector, UnsetBitKeepsTheEmptiedPageSoEqualityFails) {
  omi_BlkBitVect v, fresh;
  v.SetBit(3);
  v.UnsetBit(3);
  v.UnsetBit(3);
  EXPECT_EQ(v.Count(), 0u);
  EXPECT_EQ(PagesPresent(v), 1u);
  EXPECT_FALSE(v == fresh);  // kept: an all-zero page is not an absent page
  EXPECT_TRUE(fresh == omi_BlkBitVect());
  // A whole-set operator's recount frees it; then they compare equal.
  v |= fresh;
  EXPECT_EQ(PagesPresent(v), 0u);
  EXPECT_TRUE(v == fresh);
  // Equal members with different directory lengths compare unequal.
  omi_BlkBitVect longer;
  longer.SetBit(2000000);
  longer.UnsetBit(2000000);
  longer |= fresh;
  EXPECT_EQ(longer.Count(), 0u);
  EXPECT_FALSE(longer == fresh);
  // Emptied pages at the same place on both sides combine into an empty page,
  // which the recount frees too, for | as for ^.
  for (const bool useOr : {true, false}) {
    omi_BlkBitVect a, b;
    a.SetBit(9000);
    a.UnsetBit(9000);
    b.SetBit(9001);
    b.UnsetBit(9001);
    if (useOr)
      a |= b;
    else
      a ^= b;
    EXPECT_EQ(PagesPresent(a), 0u) << (useOr ? "|=" : "^=");
    EXPECT_EQ(ContainerChecks::CheckBitVectorAfterRecount(a), "") << (useOr ? "|=" : "^=");
  }
  v.Clear();
  EXPECT_EQ(v.DirectoryLength(), 128u);
}

TEST(BitVector, SetFromToSetsTheClosedRangeAndKeepsItsReversedRangeQuirk) {
  omi_BlkBitVect v;
  v.SetFromTo(30, 70);
  EXPECT_EQ(v.Count(), 41u);
  std::vector<unsigned int> expected;
  for (unsigned int b = 30; b <= 70; ++b) expected.push_back(b);
  EXPECT_EQ(Forward(v), expected);
  // Overlapping bits already set are counted once.
  v.SetFromTo(0, 127);
  EXPECT_EQ(v.Count(), 128u);
  EXPECT_EQ(ContainerChecks::CheckBitVector(v), "");

  omi_BlkBitVect reversed;
  reversed.SetFromTo(5, 3);  // same word: only `from`
  EXPECT_EQ(Forward(reversed), (std::vector<unsigned int>{5}));
  omi_BlkBitVect across;
  across.SetFromTo(100, 3);  // different words: `from`, then to's word up to `to`
  EXPECT_EQ(Forward(across), (std::vector<unsigned int>{0, 1, 2, 3, 100}));
  omi_BlkBitVect single;
  single.SetFromTo(64, 64);
  EXPECT_EQ(Forward(single), (std::vector<unsigned int>{64}));

  omi_BlkBitVect top;  // the last word of the range space ends without wrapping
  top.SetFromTo(UINT_MAX - 40, UINT_MAX);
  EXPECT_EQ(top.Count(), 41u);
  EXPECT_TRUE(top.TestBit(UINT_MAX));
  EXPECT_FALSE(top.TestBit(UINT_MAX - 41));
  EXPECT_EQ(ContainerChecks::CheckBitVector(top), "");
}

TEST(BitVector, OperatorsFreeEmptiedPagesAndKeepCountsExact) {
  omi_BlkBitVect a, empty;
  a.SetFromTo(0, 20000);
  a &= empty;
  EXPECT_EQ(a.Count(), 0u);
  EXPECT_EQ(PagesPresent(a), 0u);

  omi_BlkBitVect b;
  b.SetFromTo(100, 50000);
  b -= b;
  EXPECT_EQ(b.Count(), 0u);
  EXPECT_EQ(PagesPresent(b), 0u);

  // |= with a longer right operand grows to exactly its length and copies its pages.
  omi_BlkBitVect shortOne, longOne;
  shortOne.SetBit(1);
  longOne.SetBit(1048576 * 3 + 5);
  EXPECT_EQ(longOne.DirectoryLength(), 512u);
  shortOne |= longOne;
  EXPECT_EQ(shortOne.DirectoryLength(), 512u);
  EXPECT_EQ(Forward(shortOne), (std::vector<unsigned int>{1, 1048576 * 3 + 5}));
  // &= frees every page at or above the shorter length.
  omi_BlkBitVect narrow;
  narrow.SetBit(1);
  shortOne &= narrow;
  EXPECT_EQ(Forward(shortOne), (std::vector<unsigned int>{1}));
  EXPECT_EQ(PagesPresent(shortOne), 1u);
  // ^= of a set with itself empties it.
  longOne ^= longOne;
  EXPECT_EQ(longOne.Count(), 0u);
  EXPECT_EQ(PagesPresent(longOne), 0u);
  // -= keeps pages without a counterpart, but the recount frees empty ones.
  omi_BlkBitVect keep;
  keep.SetBit(9000);
  keep.SetBit(20000);
  keep.UnsetBit(20000);
  keep -= narrow;
  EXPECT_EQ(Forward(keep), (std::vector<unsigned int>{9000}));
  EXPECT_EQ(PagesPresent(keep), 1u);
  EXPECT_EQ(ContainerChecks::CheckBitVectorAfterRecount(keep), "");
}

TEST(BitVector, CompareOrdersByCountThenPagesThenWords) {
  omi_BlkBitVect five, three;
  for (unsigned int b : {1u, 2u, 3u, 4u, 5u}) five.SetBit(b);
  for (unsigned int b : {1u, 2u, 3u}) three.SetBit(b);
  EXPECT_EQ(five.Compare(three), 2);
  EXPECT_EQ(three.Compare(five), -2);
  omi_BlkBitVect same(five);
  EXPECT_EQ(five.Compare(same), 0);
  EXPECT_TRUE(five == same);

  // Same count, first difference in page presence: +/- pages left from there.
  omi_BlkBitVect low, high;
  low.SetBit(10);          // page 0
  high.SetBit(8192 * 5);   // page 5
  EXPECT_EQ(low.Compare(high), 128);   // page 0 present here, absent there: 128 pages left
  EXPECT_EQ(high.Compare(low), -128);
  // Same pages, first unequal word decides by unsigned value.
  omi_BlkBitVect w1, w2;
  w1.SetBit(31);  // word 0 = 0x80000000
  w2.SetBit(0);   // word 0 = 1
  EXPECT_EQ(w1.Compare(w2), 1);
  EXPECT_EQ(w2.Compare(w1), -1);
  // Count difference taken in unsigned arithmetic.
  omi_BlkBitVect none;
  EXPECT_EQ(none.Compare(three), -3);
}

TEST(BitVector, ContainsChecksEveryWordOfTheArgument) {
  omi_BlkBitVect big, small, other;
  big.SetFromTo(0, 100000);
  small.SetFromTo(500, 600);
  other.SetBit(100001);
  EXPECT_TRUE(big.Contains(small));
  EXPECT_FALSE(small.Contains(big));
  EXPECT_FALSE(big.Contains(other));
  EXPECT_TRUE(big.Contains(omi_BlkBitVect()));
  omi_BlkBitVect far;
  far.SetBit(3000000);  // page beyond big's present pages
  far.SetBit(1);
  EXPECT_FALSE(big.Contains(far));
}

TEST(BitVector, FastCountsMatchTheByteTable) {
  std::mt19937 rng(7);
  std::vector<unsigned int> page(256), other(256), scratch(256);
  for (int round = 0; round < 200; ++round) {
    for (auto& w : page) w = (round % 3 == 0) ? (rng() & rng()) : rng();
    for (auto& w : other) w = rng() | rng();
    if (round % 5 == 0) page[rng() % 256] = 0xFFFFFFFFu;
    EXPECT_EQ(zmx::containers_internal::CountPageBits(page.data(), 256), zmx::containers_internal::CountPageBitsByTable(page.data(), 256));
    auto check = [&](unsigned int (*op)(unsigned int*, const unsigned int*, unsigned int), auto reference) {
      scratch = page;
      const unsigned int counted = op(scratch.data(), other.data(), 255);  // odd length too
      for (unsigned int i = 0; i < 255; ++i) ASSERT_EQ(scratch[i], reference(page[i], other[i]));
      EXPECT_EQ(counted, zmx::containers_internal::CountPageBitsByTable(scratch.data(), 255));
    };
    check(zmx::containers_internal::AndPage, [](unsigned int a, unsigned int b) { return a & b; });
    check(zmx::containers_internal::OrPage, [](unsigned int a, unsigned int b) { return a | b; });
    check(zmx::containers_internal::AndNotPage, [](unsigned int a, unsigned int b) { return a & ~b; });
    check(zmx::containers_internal::XorPage, [](unsigned int a, unsigned int b) { return a ^ b; });
  }
  EXPECT_EQ(zmx::containers_internal::CountBitsByTable(0xFFFFFFFFu), 32u);
  EXPECT_EQ(zmx::containers_internal::CountBitsByTable(0x80000001u), 2u);
}

std::string RunDump(const std::string& scenario) {
  const auto result = zmx_test::RunProbe("container_dump_probe", scenario);
  EXPECT_TRUE(zmx_test::ExitedCleanly(result));
  EXPECT_EQ(result.out, "");
  return result.err;
}

TEST(BitVector, DumpListPrintsCountThenEightRightAlignedIndicesPerLine) {
  EXPECT_EQ(RunDump("list_of_ten"),
            "ListCount=10\n"
            "       0       1       2       3       4       5       6       7\n"
            "       8       9\n");
  EXPECT_EQ(RunDump("empty_list"), "Empty List\n");
  // Sixteen members end a line and still get the closing newline.
  EXPECT_EQ(RunDump("list_of_sixteen_and_large"),
            "ListCount=16\n"
            "     100     101     102     103     104     105     106     107\n"
            "     108     109     110     111     112     113     114123456789\n"
            "\n");
  EXPECT_EQ(RunDump("list_of_high_bits"), "ListCount=1\n      -1\n");
}

TEST(BitVectorTraversal, MovesAndPlacementOnSetClearAndAbsentBits) {
  omi_BlkBitVect v;
  for (unsigned int b : {5u, 37u, 8191u, 8192u * 3 + 1, 1048575u}) v.SetBit(b);
  omi_BlkBitVectTrav t(&v);
  unsigned int b = 99;
  ASSERT_TRUE(t.Last(b));
  EXPECT_EQ(b, 1048575u);
  ASSERT_TRUE(t.Prev(b));
  EXPECT_EQ(b, 8192u * 3 + 1);
  ASSERT_TRUE(t.Prev(b));
  EXPECT_EQ(b, 8191u);
  ASSERT_TRUE(t.Prev(b));
  ASSERT_TRUE(t.Prev(b));
  EXPECT_EQ(b, 5u);
  EXPECT_FALSE(t.Prev(b));

  b = 37;  // on a set bit: stays
  ASSERT_TRUE(t.SetCurrent(b, true));
  EXPECT_EQ(b, 37u);
  b = 38;  // clear bit, forward: next above
  ASSERT_TRUE(t.SetCurrent(b, true));
  EXPECT_EQ(b, 8191u);
  b = 38;  // clear bit, backward: next below
  ASSERT_TRUE(t.SetCurrent(b, false));
  EXPECT_EQ(b, 37u);
  b = 8192u * 2 + 7;  // absent page, forward and backward
  ASSERT_TRUE(t.SetCurrent(b, true));
  EXPECT_EQ(b, 8192u * 3 + 1);
  b = 8192u * 2 + 7;
  ASSERT_TRUE(t.SetCurrent(b, false));
  EXPECT_EQ(b, 8191u);
  ASSERT_TRUE(t.Next(b));  // and walking on from a placement
  EXPECT_EQ(b, 8192u * 3 + 1);
  b = 4;  // below everything, backward
  EXPECT_FALSE(t.SetCurrent(b, false));
  EXPECT_EQ(b, 0u);
  b = 50000000;  // beyond the directory: forward fails, backward is Last
  EXPECT_FALSE(t.SetCurrent(b, true));
  EXPECT_EQ(b, 0u);
  b = 50000000;
  ASSERT_TRUE(t.SetCurrent(b, false));
  EXPECT_EQ(b, 1048575u);
  EXPECT_FALSE(t.Next(b));
  EXPECT_EQ(b, 0u);

  // The traversal sees bits and pages added within the directory it holds; a
  // regrown directory (the old one is freed) needs a new synchronisation.
  v.SetBit(6);
  v.SetBit(8192u * 100);
  ASSERT_TRUE(t.First(b));
  ASSERT_TRUE(t.Next(b));
  EXPECT_EQ(b, 6u);
  b = 8192u * 99;
  ASSERT_TRUE(t.SetCurrent(b, true));
  EXPECT_EQ(b, 8192u * 100);
  v.SetBit(5000000);
  SetBitTraverseData(&v, &t);
  ASSERT_TRUE(t.Last(b));
  EXPECT_EQ(b, 5000000u);

  omi_BlkBitVectTrav copy(t);  // copies stand where the original stands
  ASSERT_TRUE(copy.Prev(b));
  EXPECT_EQ(b, 1048575u);

  omi_BlkBitVect empty;
  omi_BlkBitVectTrav none(&empty);
  b = 12;
  EXPECT_FALSE(none.First(b));
  EXPECT_EQ(b, 0u);
  EXPECT_FALSE(none.Last(b));
  EXPECT_FALSE(none.Next(b));
}

TEST(BitVectorTraversal, IsSmallEnoughForTheSmallObjectAllocator) {
  EXPECT_LE(sizeof(omi_BlkBitVectTrav), 128u);
  omi_BlkBitVect v;
  v.SetBit(1);
  auto* t = new omi_BlkBitVectTrav(&v);
  unsigned int b = 0;
  EXPECT_TRUE(t->First(b));
  EXPECT_EQ(b, 1u);
  delete t;
}

}  // namespace
