// Integer-keyed tables: directory growth, block life, the plain and sorted
// walks, the signed table's join of its halves with its kept asymmetries, and
// the hashing helpers with their kept small-number results.
#include <gtest/gtest.h>

#include <climits>
#include <cstdint>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "ZMXUTI_CoreUtils.h"
#include "containers/internal/container_checks.h"

namespace {

using zmx::containers_internal::ContainerChecks;

constexpr unsigned int kBlock = 1u << 20;  // keys per block in the default geometry

TEST(UintTable, DirectoryStartsAtTwoAndGrowsInSixtyFours) {
  omi_UintTable<int> t(12, 10, 24);
  EXPECT_EQ(t.DirectoryLength(), 2u);
  EXPECT_EQ(t.BlockShift(), 20u);
  EXPECT_EQ(t.OffsetMask(), kBlock - 1);
  EXPECT_TRUE(t.Insert(kBlock + 5, 1));  // block 1 fits the first directory
  EXPECT_EQ(t.DirectoryLength(), 2u);
  EXPECT_TRUE(t.Insert(kBlock * 2, 2));
  EXPECT_EQ(t.DirectoryLength(), 64u);
  EXPECT_TRUE(t.Insert(kBlock * 64, 3));
  EXPECT_EQ(t.DirectoryLength(), 128u);
  EXPECT_TRUE(t.Insert(UINT_MAX, 4));
  EXPECT_EQ(t.DirectoryLength(), 4096u);
  EXPECT_FALSE(t.Remove(UINT_MAX - 1));
  EXPECT_TRUE(t.Remove(UINT_MAX));
  EXPECT_EQ(t.DirectoryLength(), 4096u);  // never shrinks
  t.Clear();
  EXPECT_EQ(t.Count(), 0u);
  EXPECT_EQ(t.DirectoryLength(), 4096u);
  EXPECT_EQ(t.Find(kBlock + 5), nullptr);
  EXPECT_EQ(ContainerChecks::CheckTable(t), "");
}

TEST(UintTable, InsertOverwritesAndRemoveDestroysEmptiedBlocks) {
  omi_UintTable<double> t(12, 10, 24);
  EXPECT_TRUE(t.Insert(77, 1.0));
  EXPECT_FALSE(t.Insert(77, 2.0));
  ASSERT_NE(t.Find(77), nullptr);
  EXPECT_EQ(*t.Find(77), 2.0);
  EXPECT_EQ(t.Count(), 1u);
  EXPECT_TRUE(t.Insert(78, 3.0));
  EXPECT_TRUE(t.Remove(77));
  EXPECT_NE(t.BlockAt(0), nullptr);  // 78 keeps the block
  EXPECT_FALSE(t.Remove(77));
  EXPECT_EQ(t.Find(77), nullptr);
  EXPECT_TRUE(t.Remove(78));
  EXPECT_EQ(t.BlockAt(0), nullptr);  // a block without keys never survives
  EXPECT_FALSE(t.Remove(78));
  EXPECT_FALSE(t.Remove(kBlock * 3000));  // beyond the directory
  EXPECT_EQ(t.Count(), 0u);
  EXPECT_TRUE(t.Insert(79, 4.0));  // a new block, with fresh pages
  EXPECT_EQ(*t.Find(79), 4.0);
  EXPECT_EQ(ContainerChecks::CheckTable(t), "");
}

TEST(UintTable, CopyIsDeep) {
  omi_UintTable<void*> t(16, 8, 4);
  int cells[3];
  t.Insert(1, &cells[0]);
  t.Insert(70000, &cells[1]);
  t.Insert(4000000000u, &cells[2]);
  omi_UintTable<void*> copy(t);
  EXPECT_EQ(copy.Count(), 3u);
  EXPECT_EQ(copy.DirectoryLength(), t.DirectoryLength());
  t.Remove(70000);
  t.Insert(1, nullptr);
  ASSERT_NE(copy.Find(70000), nullptr);
  EXPECT_EQ(*copy.Find(70000), &cells[1]);
  EXPECT_EQ(*copy.Find(1), &cells[0]);
  EXPECT_EQ(*copy.Find(4000000000u), &cells[2]);
  EXPECT_EQ(ContainerChecks::CheckTable(copy), "");
}

TEST(UintTable, OutOfRangeGeometryIsBroughtIntoRange) {
  omi_UintTable<int> noBlockBits(0, 10, 24);
  EXPECT_EQ(noBlockBits.BlockShift(), 31u);
  omi_UintTable<int> tooMany(20, 20, 4);  // a + b capped at 31: pages of 2 values
  EXPECT_EQ(tooMany.BlockShift(), 12u);
  for (unsigned int k = 0; k < 5000; k += 3) tooMany.Insert(k * 977u, static_cast<int>(k));
  for (unsigned int k = 0; k < 5000; k += 3) ASSERT_EQ(*tooMany.Find(k * 977u), static_cast<int>(k));
  EXPECT_EQ(ContainerChecks::CheckTable(tooMany), "");
  // A huge second number must not wrap a + b past the limit: capped to 19 here,
  // so pages hold 2 values and keys 0 and 2 land in different pages.
  testing::internal::CaptureStderr();
  omi_UintTable<int> hugeB(12, UINT_MAX, 4);
  const std::string message = testing::internal::GetCapturedStderr();
  EXPECT_EQ(message, "omi_UintTable: geometry (12, 4294967295) out of range, using (12, 19)\n");
  hugeB.Insert(0, 1);
  hugeB.Insert(2, 2);
  ASSERT_NE(hugeB.BlockAt(0), nullptr);
  EXPECT_TRUE(hugeB.BlockAt(0)->PagePresent(1));
  EXPECT_EQ(*hugeB.Find(2), 2);
}

std::vector<unsigned int> PlainWalk(const omi_UintTable<int>& t, bool backward) {
  std::vector<unsigned int> keys;
  omi_UintTableIterator<int> it(t);
  if (backward) {
    for (it.Last(); !it.IsDone(); it.Prev()) keys.push_back(it.CurrentKey());
  } else {
    for (it.First(); !it.IsDone(); it.Next()) keys.push_back(it.CurrentKey());
  }
  return keys;
}

TEST(UintTableIterator, PlainModeWalksAscendingAndDescendingAcrossBlocks) {
  omi_UintTable<int> t(12, 10, 24);
  const std::vector<unsigned int> keys = {0, 5, kBlock - 1, kBlock, kBlock * 7 + 3, UINT_MAX};
  for (unsigned int k : keys) t.Insert(k, static_cast<int>(k % 1000));
  EXPECT_EQ(PlainWalk(t, false), keys);
  EXPECT_EQ(PlainWalk(t, true), std::vector<unsigned int>(keys.rbegin(), keys.rend()));

  omi_UintTableIterator<int> it(t);
  it.Next();  // before First: nothing happens
  EXPECT_FALSE(it.IsDone());
  it.First();
  it.Next();
  it.Next();
  EXPECT_EQ(it.CurrentKey(), kBlock - 1);
  EXPECT_EQ(it.CurrentValue(), static_cast<int>((kBlock - 1) % 1000));
  it.Prev();
  EXPECT_EQ(it.CurrentKey(), 5u);
  // Running off the end and coming back.
  it.Last();
  it.Next();
  EXPECT_TRUE(it.IsDone());
  it.Prev();
  EXPECT_FALSE(it.IsDone());
  EXPECT_EQ(it.CurrentKey(), UINT_MAX);
  it.Prev();
  EXPECT_EQ(it.CurrentKey(), kBlock * 7 + 3);

  omi_UintTable<int> empty(12, 10, 24);
  omi_UintTableIterator<int> none(empty);
  none.First();
  EXPECT_TRUE(none.IsDone());
  none.Last();
  EXPECT_TRUE(none.IsDone());
}

int ByValueDescending(const void* a, const void* b) {
  const auto* ra = *static_cast<const omi_UintTableIterator<int>::SnapshotRecord* const*>(a);
  const auto* rb = *static_cast<const omi_UintTableIterator<int>::SnapshotRecord* const*>(b);
  return *rb->value - *ra->value;
}

TEST(UintTableIterator, SortedModeWalksASnapshotInComparatorOrder) {
  omi_UintTable<int> t(12, 10, 24);
  t.Insert(10, 3);
  t.Insert(kBlock * 5, 9);
  t.Insert(20, 1);
  t.Insert(30, 5);
  omi_UintTableIterator<int> it(t, ByValueDescending);
  std::vector<std::pair<unsigned int, int>> seen;
  for (it.First(); !it.IsDone(); it.Next()) seen.emplace_back(it.CurrentKey(), it.CurrentValue());
  EXPECT_EQ(seen, (std::vector<std::pair<unsigned int, int>>{{kBlock * 5, 9}, {30, 5}, {10, 3}, {20, 1}}));
  it.Last();
  EXPECT_EQ(it.CurrentKey(), 20u);
  it.Prev();
  EXPECT_EQ(it.CurrentKey(), 10u);
  it.First();  // the snapshot is reused
  EXPECT_EQ(it.CurrentKey(), kBlock * 5);
  it.Prev();  // at position 0: done
  EXPECT_TRUE(it.IsDone());

  omi_UintTable<int> empty(12, 10, 24);
  omi_UintTableIterator<int> none(empty, ByValueDescending);
  none.First();
  EXPECT_TRUE(none.IsDone());
}

std::vector<int> SignedWalk(const omi_IntTable<int>& t, bool withComparator) {
  std::vector<int> keys;
  omi_IntTableIterator<int> it = withComparator ? omi_IntTableIterator<int>(t, ByValueDescending)
                                                : omi_IntTableIterator<int>(t);
  for (it.First(); !it.IsDone(); it.Next()) {
    keys.push_back(it.CurrentKey());
    EXPECT_EQ(it.CurrentValue(), it.CurrentKey() / 2) << it.CurrentKey();
  }
  return keys;
}

TEST(IntTable, JoinsTheHalvesInAscendingSignedOrder) {
  omi_IntTable<int> t;
  for (int k : {1, -1, 0, INT_MIN, INT_MAX, -1048576, 1048576}) t.Insert(k, k / 2);
  EXPECT_EQ(t.Count(), 7u);
  ASSERT_NE(t.Find(INT_MIN), nullptr);
  EXPECT_EQ(*t.Find(INT_MIN), INT_MIN / 2);
  EXPECT_EQ(t.NegativeHalf().Count(), 3u);
  const std::vector<int> ascending = {INT_MIN, -1048576, -1, 0, 1, 1048576, INT_MAX};
  EXPECT_EQ(SignedWalk(t, false), ascending);
  // A comparator is only stored: the walk stays ascending by key (kept).
  EXPECT_EQ(SignedWalk(t, true), ascending);

  omi_IntTableIterator<int> it(t);
  it.Last();  // on the largest non-negative key
  EXPECT_FALSE(it.IsDone());
  EXPECT_EQ(it.CurrentKey(), INT_MAX);

  omi_IntTable<int> negativesOnly;
  negativesOnly.Insert(-5, 0);
  omi_IntTableIterator<int> neg(negativesOnly);
  neg.Last();  // kept asymmetry: done at once
  EXPECT_TRUE(neg.IsDone());
  neg.First();
  EXPECT_FALSE(neg.IsDone());
  EXPECT_EQ(neg.CurrentKey(), -5);
  neg.Next();
  EXPECT_TRUE(neg.IsDone());

  std::unique_ptr<omi_IntTable<int>> copy(t.Copy());
  t.Clear();
  EXPECT_EQ(t.Count(), 0u);
  EXPECT_EQ(SignedWalk(*copy, false), ascending);
  EXPECT_TRUE(copy->Remove(-1));
  EXPECT_FALSE(copy->Remove(-1));
  EXPECT_EQ(copy->Find(-1), nullptr);
}

TEST(TableHashing, NextPrimeKeepsItsSmallNumberResults) {
  EXPECT_EQ(omi_nextPrime(0), 0u);
  EXPECT_EQ(omi_nextPrime(1), 1u);
  for (unsigned int n = 2; n <= 11; ++n) EXPECT_EQ(omi_nextPrime(n), 11u) << n;
  const std::pair<unsigned int, unsigned int> known[] = {{12, 13},   {14, 17},     {25, 29},
                                                         {49, 53},   {121, 127},   {1000, 1009},
                                                         {1024, 1031}, {65536, 65537}, {4294967291u, 4294967291u}};
  for (const auto& [n, p] : known) EXPECT_EQ(omi_nextPrime(n), p) << n;
  // From 12 on: the true next prime.
  auto isPrime = [](unsigned int c) {
    if (c < 2) return false;
    for (unsigned int d = 2; d * d <= c; ++d)
      if (c % d == 0) return false;
    return true;
  };
  for (unsigned int n = 12; n < 20000; ++n) {
    unsigned int expected = n;
    while (!isPrime(expected)) ++expected;
    ASSERT_EQ(omi_nextPrime(n), expected) << n;
  }
  EXPECT_EQ(omi_nextPrime(4294967292u), 0u);  // no 32-bit answer
}

TEST(TableHashing, HashValueShiftsThenReduces) {
  EXPECT_EQ(HashValue(8u, 3), 2u);
  EXPECT_EQ(HashValue(0xFFFFFFFFu, 1), 0u);
  EXPECT_EQ(HashValue(1000u, 7), 5u);  // 250 mod 7
  void* p = reinterpret_cast<void*>(static_cast<std::uintptr_t>(0x1234567800000040ull));
  EXPECT_EQ(HashValue(p, 100), 16u);  // low 32 bits 0x40, shifted: 16
  EXPECT_EQ(HashValue(p, 1), 0u);
}

}  // namespace
