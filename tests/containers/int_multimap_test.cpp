// omi_IntMultiMap: chains newest first, the kept removal and placement quirks,
// link blocks, the after-removal rule and the compaction that reverses chains;
// then a long random run against a model of chains.
#include <gtest/gtest.h>

#include <algorithm>
#include <map>
#include <random>
#include <vector>

#include "ZMXUTI_CoreUtils.h"

namespace {

template <typename T>
std::vector<T> Chain(const omi_IntMultiMap<T>& m, int key) {
  std::vector<T> values;
  for (auto* link = m.FirstLink(key); link != nullptr; link = link->next) values.push_back(link->value);
  return values;
}

TEST(IntMultiMap, ChainsRunNewestFirstAndRemovalByValueKeepsItsQuirk) {
  omi_IntMultiMap<int> m;
  const int a = 10, b = 20;
  EXPECT_TRUE(m.Insert(5, a));
  EXPECT_TRUE(m.Insert(5, b));
  EXPECT_TRUE(m.Insert(5, a));
  EXPECT_EQ(m.Count(), 3u);
  EXPECT_EQ(Chain(m, 5), (std::vector<int>{a, b, a}));
  EXPECT_TRUE(m.IsMember(5, b));
  EXPECT_FALSE(m.IsMember(5, 30));
  EXPECT_FALSE(m.IsMember(6, a));
  EXPECT_TRUE(m.Remove(5, a));  // the first a, then b is kept, then the last a
  EXPECT_EQ(m.Count(), 1u);
  EXPECT_EQ(Chain(m, 5), (std::vector<int>{b}));
  EXPECT_TRUE(m.Remove(5, 99));  // nothing matched: still true
  EXPECT_EQ(m.Count(), 1u);

  // x, v, v, y: both v are counted, the second stays linked (kept).
  omi_IntMultiMap<int> q;
  const int x = 1, v = 2, y = 3;
  for (int value : {y, v, v, x}) q.Insert(7, value);
  q.Insert(8, 0);
  EXPECT_EQ(Chain(q, 7), (std::vector<int>{x, v, v, y}));
  EXPECT_TRUE(q.Remove(7, v));
  EXPECT_EQ(q.Count(), 3u);  // 5 - 2
  EXPECT_EQ(Chain(q, 7), (std::vector<int>{x, v, y}));
  EXPECT_TRUE(q.IsMember(7, v));

  // Removing every value of a key removes the key.
  EXPECT_TRUE(q.Remove(8, 0));
  EXPECT_EQ(q.FirstLink(8), nullptr);
  EXPECT_FALSE(q.Remove(8));
  EXPECT_FALSE(q.Remove(8, 0));
  EXPECT_FALSE(q.Remove(123456));  // no block there
  EXPECT_EQ(q.Count(), 2u);
}

TEST(IntMultiMap, LinksComeFromBlocksOfTwoHundredFiftySix) {
  omi_IntMultiMap<void*> m;
  EXPECT_EQ(m.LinkBlockCount(), 0u);
  int anchor = 0;
  for (int i = 0; i < 256; ++i) m.Insert(i % 7, &anchor);
  EXPECT_EQ(m.LinkBlockCount(), 1u);
  m.Insert(3, &anchor);  // the 257th
  EXPECT_EQ(m.LinkBlockCount(), 2u);
  EXPECT_EQ(m.LinksHandedOut(), 257u);
  m.Clear();
  EXPECT_EQ(m.LinkBlockCount(), 0u);
  EXPECT_EQ(m.Count(), 0u);
  EXPECT_EQ(m.LinksHandedOut(), 0u);
  m.Insert(4, &anchor);
  EXPECT_EQ(m.LinkBlockCount(), 1u);
  EXPECT_TRUE(m.IsMember(4, &anchor));
}

TEST(IntMultiMap, AfterRemovalRuleClearsOrCompactsAndCompactionReversesChains) {
  omi_IntMultiMap<int> m;
  for (int i = 1; i <= 100; ++i) m.Insert(1, i);
  for (int i = 0; i < 199; ++i) m.Insert(2, i);
  EXPECT_EQ(m.LinksHandedOut(), 299u);
  EXPECT_TRUE(m.Remove(2));  // 299 / 100 = 2: no compaction
  EXPECT_EQ(m.Count(), 100u);
  EXPECT_EQ(m.LinksHandedOut(), 299u);
  EXPECT_EQ(Chain(m, 1).front(), 100);
  m.Insert(3, 7);  // 300 handed out, 101 live
  EXPECT_TRUE(m.Remove(3, 7));  // 300 / 100 = 3: compaction
  EXPECT_EQ(m.LinksHandedOut(), 100u);
  EXPECT_EQ(m.LinkBlockCount(), 1u);
  std::vector<int> reversed;
  for (int i = 1; i <= 100; ++i) reversed.push_back(i);
  EXPECT_EQ(Chain(m, 1), reversed);  // oldest first now
  EXPECT_TRUE(m.IsMember(1, 50));

  // With 256 handed out it never compacts.
  omi_IntMultiMap<int> small;
  small.Insert(1, 1);
  for (int i = 0; i < 255; ++i) small.Insert(2, i);
  EXPECT_TRUE(small.Remove(2));
  EXPECT_EQ(small.Count(), 1u);
  EXPECT_EQ(small.LinksHandedOut(), 256u);
  // The last value out clears the map.
  EXPECT_TRUE(small.Remove(1, 1));
  EXPECT_EQ(small.LinksHandedOut(), 0u);
  EXPECT_EQ(small.LinkBlockCount(), 0u);
}

TEST(IntMultiMap, NegativeKeysArePlacedByTheirLowBitsOnceTheirBlockExists) {
  omi_IntMultiMap<int> m;
  m.Insert(-1, 100);  // new block: placed by magnitude (offset 1)
  m.Insert(-1, 200);  // block exists: placed at 0xFFFFFFFF & 0xFFFFF = offset 0xFFFFF
  EXPECT_EQ(m.Count(), 2u);
  EXPECT_EQ(Chain(m, -1), (std::vector<int>{100}));
  EXPECT_EQ(Chain(m, -1048575), (std::vector<int>{200}));
  EXPECT_FALSE(m.IsMember(-1, 100));  // IsMember looks at the low bits too
  EXPECT_TRUE(m.IsMember(-1, 200));
  EXPECT_TRUE(m.IsMember(-1048575, 100));
  std::vector<std::pair<int, int>> walked;
  omi_IntMultiMapIterator<int> it(m);
  for (it.First(); !it.IsDone(); it.Next()) walked.emplace_back(it.CurrentKey(), it.CurrentValue());
  EXPECT_EQ(walked, (std::vector<std::pair<int, int>>{{-1048575, 200}, {-1, 100}}));
  EXPECT_TRUE(m.Remove(-1));  // by magnitude
  EXPECT_EQ(m.Count(), 1u);
  EXPECT_TRUE(m.IsMember(-1, 200));
  EXPECT_EQ(m.FirstLink(-1), nullptr);
  EXPECT_TRUE(m.Remove(-1048575));
  EXPECT_EQ(m.Count(), 0u);
  EXPECT_EQ(m.LinkBlockCount(), 0u);  // the last removal cleared the map
}

// A model of the map: chains newest first with the same removal, clearing and
// compaction rules, for non-negative keys (where placement is symmetric).
struct ChainModel {
  std::map<int, std::vector<int>> chains;
  unsigned int live = 0;
  unsigned int handedOut = 0;

  void Insert(int key, int value) {
    auto& chain = chains[key];
    chain.insert(chain.begin(), value);
    ++live;
    ++handedOut;
  }
  bool RemoveKey(int key) {
    auto it = chains.find(key);
    if (it == chains.end()) return false;
    live -= static_cast<unsigned int>(it->second.size());
    chains.erase(it);
    AfterRemoval();
    return true;
  }
  bool RemoveValue(int key, int value) {
    auto it = chains.find(key);
    if (it == chains.end()) return false;
    std::vector<int>& chain = it->second;
    size_t first = 0;
    while (first < chain.size() && chain[first] == value) {
      --live;
      ++first;
    }
    std::vector<int> kept;
    if (first == chain.size()) {
      chains.erase(it);
    } else {
      kept.push_back(chain[first]);
      bool previousLinked = true;  // the walk's previous link is still in the chain
      for (size_t i = first + 1; i < chain.size(); ++i) {
        if (chain[i] == value) {
          --live;
          if (previousLinked) {
            previousLinked = false;  // unlinked
            continue;
          }
        }
        kept.push_back(chain[i]);
        previousLinked = true;
      }
      chain = kept;
    }
    AfterRemoval();
    return true;
  }
  void AfterRemoval() {
    if (live == 0) {
      chains.clear();
      handedOut = 0;
    } else if (handedOut >= 257 && handedOut / live >= 3) {
      handedOut = 0;
      for (auto& kv : chains) {
        std::reverse(kv.second.begin(), kv.second.end());
        handedOut += static_cast<unsigned int>(kv.second.size());
      }
    }
  }
  bool IsMember(int key, int value) const {
    auto it = chains.find(key);
    return it != chains.end() && std::find(it->second.begin(), it->second.end(), value) != it->second.end();
  }
};

void ExpectSameWalk(const omi_IntMultiMap<int>& m, const ChainModel& model) {
  std::vector<std::pair<int, int>> walked, expected;
  omi_IntMultiMapIterator<int> it(m);
  for (it.First(); !it.IsDone(); it.Next()) walked.emplace_back(it.CurrentKey(), it.CurrentValue());
  for (const auto& kv : model.chains)
    for (int value : kv.second) expected.emplace_back(kv.first, value);
  ASSERT_EQ(walked, expected);
}

TEST(IntMultiMapDifferential, MatchesAChainModelOverALongRun) {
  std::mt19937 rng(4242);
  std::vector<int> keyPool;
  for (int i = 0; i < 400; ++i) keyPool.push_back(static_cast<int>(rng() & 0x7FFFFFFF));  // anywhere
  for (int i = 0; i < 1600; ++i) keyPool.push_back(5000000 + static_cast<int>(rng() % 60000));  // clustered
  omi_IntMultiMap<int> m;
  ChainModel model;
  for (int i = 1; i <= 150000; ++i) {
    const int key = keyPool[rng() % keyPool.size()];
    const int value = static_cast<int>(rng() % 4);
    const unsigned int kind = rng() % 100;
    if (kind < 55) {
      m.Insert(key, value);
      model.Insert(key, value);
    } else if (kind < 85) {
      ASSERT_EQ(m.Remove(key, value), model.RemoveValue(key, value)) << i;
    } else if (kind < 90) {
      ASSERT_EQ(m.Remove(key), model.RemoveKey(key)) << i;
    } else {
      ASSERT_EQ(m.IsMember(key, value), model.IsMember(key, value)) << i;
    }
    ASSERT_EQ(m.Count(), model.live) << i;
    ASSERT_EQ(m.LinksHandedOut(), model.handedOut) << i;
    if (i % 25000 == 0) ExpectSameWalk(m, model);
  }
  ExpectSameWalk(m, model);
}

}  // namespace
