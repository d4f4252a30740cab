// omi_IntTable / omi_UintTable against std::map models over long random runs:
// insert and remove results, look-ups, counts, ascending and descending walks,
// sorted-mode order and deep copies, with keys over the whole 32-bit range and
// clustered, in the default geometry and in a small one (many blocks).
#include <gtest/gtest.h>

#include <climits>
#include <map>
#include <memory>
#include <random>
#include <vector>

#include "ZMXUTI_CoreUtils.h"
#include "containers/internal/container_checks.h"

namespace {

using zmx::containers_internal::ContainerChecks;

class KeySource {
 public:
  KeySource(unsigned int seed, unsigned int widePercent) : rng_(seed), widePercent_(widePercent) {
    for (int i = 0; i < 8; ++i) clusters_.push_back(static_cast<int>(rng_()));
  }
  int Next() {
    const unsigned int pick = rng_() % 100;
    if (pick < widePercent_) return static_cast<int>(rng_());
    if (pick < widePercent_ + 2) {
      const int edges[] = {INT_MIN, INT_MIN + 1, -1, 0, 1, INT_MAX, INT_MAX - 1, -1048576, 1048575, 1048576};
      return edges[rng_() % 10];
    }
    const int base = clusters_[rng_() % clusters_.size()];
    return static_cast<int>(static_cast<unsigned int>(base) + rng_() % 30000);
  }
  std::mt19937& Rng() { return rng_; }

 private:
  std::mt19937 rng_;
  unsigned int widePercent_;
  std::vector<int> clusters_;
};

void ExpectWalksMatch(const omi_IntTable<int>& t, const std::map<int, int>& m) {
  ASSERT_EQ(t.Count(), m.size());
  std::vector<std::pair<int, int>> walked;
  omi_IntTableIterator<int> it(t);
  for (it.First(); !it.IsDone(); it.Next()) walked.emplace_back(it.CurrentKey(), it.CurrentValue());
  using Pairs = std::vector<std::pair<int, int>>;
  ASSERT_EQ(walked, Pairs(m.begin(), m.end()));
  // Each half walked backwards: descending magnitudes.
  std::vector<unsigned int> negatives, nonNegatives;
  omi_UintTableIterator<int> neg(t.NegativeHalf());
  for (neg.Last(); !neg.IsDone(); neg.Prev()) negatives.push_back(neg.CurrentKey());
  omi_UintTableIterator<int> pos(t.NonNegativeHalf());
  for (pos.Last(); !pos.IsDone(); pos.Prev()) nonNegatives.push_back(pos.CurrentKey());
  std::vector<unsigned int> expectedNeg, expectedPos;
  for (const auto& kv : m) {
    if (kv.first < 0) expectedNeg.push_back(0u - static_cast<unsigned int>(kv.first));
  }
  for (auto it2 = m.rbegin(); it2 != m.rend(); ++it2) {
    if (it2->first >= 0) expectedPos.push_back(static_cast<unsigned int>(it2->first));
  }
  ASSERT_EQ(negatives, expectedNeg);
  ASSERT_EQ(nonNegatives, expectedPos);
  ASSERT_EQ(ContainerChecks::CheckTable(t.NegativeHalf()), "");
  ASSERT_EQ(ContainerChecks::CheckTable(t.NonNegativeHalf()), "");
}

void RunAgainstModel(omi_IntTable<int>& t, KeySource& keys, int operations, int checkEvery) {
  std::map<int, int> m;
  auto& rng = keys.Rng();
  for (int i = 1; i <= operations; ++i) {
    const int key = keys.Next();
    const unsigned int kind = rng() % 10;
    if (kind < 5) {
      const int value = static_cast<int>(rng());
      const bool added = m.find(key) == m.end();
      m[key] = value;
      ASSERT_EQ(t.Insert(key, value), added) << key;
    } else if (kind < 8) {
      ASSERT_EQ(t.Remove(key), m.erase(key) == 1) << key;
    } else {
      const auto it = m.find(key);
      const int* found = t.Find(key);
      ASSERT_EQ(found != nullptr, it != m.end()) << key;
      if (found != nullptr) {
        ASSERT_EQ(*found, it->second) << key;
      }
    }
    if (i % checkEvery == 0) {
      ExpectWalksMatch(t, m);
      std::unique_ptr<omi_IntTable<int>> copy(t.Copy());
      ExpectWalksMatch(*copy, m);
    }
    if (i == operations / 2 && operations > 1000) {  // a Clear in the middle of the run
      t.Clear();
      m.clear();
    }
  }
  ExpectWalksMatch(t, m);
}

TEST(TableDifferential, DefaultGeometryWithClusteredAndRareWideKeys) {
  omi_IntTable<int> t;
  KeySource keys(101, 3);
  RunAgainstModel(t, keys, 300000, 60000);
}

TEST(TableDifferential, SmallGeometryWithManyBlocksAndWideKeys) {
  omi_IntTable<int> t(20, 6, 2);  // blocks of 4096 keys, pages of 64 values
  KeySource keys(202, 25);
  RunAgainstModel(t, keys, 200000, 50000);
}

int ByKeyDescending(const void* a, const void* b) {
  const auto* ra = *static_cast<const omi_UintTableIterator<double>::SnapshotRecord* const*>(a);
  const auto* rb = *static_cast<const omi_UintTableIterator<double>::SnapshotRecord* const*>(b);
  return ra->key < rb->key ? 1 : (ra->key > rb->key ? -1 : 0);
}

TEST(TableDifferential, SortedWalkMatchesTheModelInComparatorOrder) {
  std::mt19937 rng(303);
  omi_UintTable<double> t(14, 8, 8);
  std::map<unsigned int, double> m;
  for (int i = 0; i < 50000; ++i) {
    const unsigned int key = (i % 2) ? static_cast<unsigned int>(rng()) : static_cast<unsigned int>(rng() % 200000);
    const double value = static_cast<double>(rng() % 1000) / 8.0;
    m[key] = value;
    t.Insert(key, value);
  }
  omi_UintTableIterator<double> sorted(t, ByKeyDescending);
  std::vector<std::pair<unsigned int, double>> walked;
  for (sorted.First(); !sorted.IsDone(); sorted.Next()) walked.emplace_back(sorted.CurrentKey(), sorted.CurrentValue());
  using Pairs = std::vector<std::pair<unsigned int, double>>;
  EXPECT_EQ(walked, Pairs(m.rbegin(), m.rend()));
  std::vector<unsigned int> back;
  for (sorted.Last(); !sorted.IsDone(); sorted.Prev()) back.push_back(sorted.CurrentKey());
  ASSERT_EQ(back.size(), m.size());
  EXPECT_EQ(back.front(), m.begin()->first);
  EXPECT_EQ(back.back(), m.rbegin()->first);
  EXPECT_EQ(ContainerChecks::CheckTable(t), "");
}

}  // namespace
