// The pointer hash against a std::unordered_map (live count with its overwrite quirk,
// rebuilds, capacities), its sizing and statistics; the stack hash's collisions, pool
// growth, overfill exit and slot walk.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <functional>
#include <map>
#include <memory>
#include <random>
#include <string>
#include <tuple>
#include <unordered_map>
#include <vector>

#include "ZMXUTI_CoreUtils.h"

namespace {

// The first capacity not smaller than `wanted`, as the table sizes itself.
unsigned int ExpectedCapacity(std::int64_t wanted) {
  for (unsigned int c : {15683u, 19609u, 31397u, 65521u, 262139u, 524287u, 1048573u})
    if (c >= wanted) return c;
  return 0;
}

std::vector<int> SortedValues(const mem_PtrHash& map) {
  int count = -1;
  int* values = map.Values(&count);
  std::vector<int> out(values, values + count);
  mem_cFree(values);
  std::sort(out.begin(), out.end());
  return out;
}

std::string Statistics(const mem_PtrHash& map) {
  std::FILE* file = std::tmpfile();
  map.PrintStatistics(file);
  std::rewind(file);
  std::string text;
  for (int c; (c = std::fgetc(file)) != EOF;) text += static_cast<char>(c);
  std::fclose(file);
  return text;
}

TEST(PtrHash, RandomAddsDeletesAndLookupsAgreeWithAMapIncludingTheLiveCountOfOverwrites) {
  std::mt19937_64 rng(20261123);
  // Key i: scrambled, and odd i shares its low 32 bits (the hash) with i - 1.
  auto keyOf = [](std::uint64_t i) {
    const std::uint64_t even = (i & ~std::uint64_t{1}) * 0x9E3779B97F4A7C15u;
    return static_cast<std::int64_t>((even & ~std::uint64_t{0xF}) ^ ((i & 1) << 40));
  };
  mem_PtrHash map(0);
  std::unordered_map<std::int64_t, int> model;
  std::vector<std::int64_t> present, gone;  // key sources only: the model decides
  std::uint64_t next = 0;
  auto any = [&rng](const std::vector<std::int64_t>& from, std::int64_t otherwise) {
    return from.empty() ? otherwise : from[rng() % from.size()];
  };
  int live = 0, rebuilds = 0, shrinks = 0;
  for (int op = 0; op < 200000; ++op) {
    // Filling and draining phases alternate, so rebuilds both grow and shrink the table.
    const int roll = static_cast<int>(rng() % 100);
    const bool add = roll < ((op / 20000) % 2 == 0 ? 70 : 15);
    const bool lookUp = roll >= 90;
    const int source = static_cast<int>(rng() % 10);
    std::int64_t key = keyOf(next);
    if (add) {
      // New keys, overwrites of present ones (live counts them) and returns of deleted ones.
      key = source < 8 ? keyOf(next++) : any(source == 8 ? present : gone, key);
      if (source != 8) present.push_back(key);
      const int value = static_cast<int>(rng() % 1000000);
      const bool rebuild = std::int64_t{map.Used()} * 3 >= std::int64_t{map.Capacity()} * 2;
      const int liveBefore = live;
      const unsigned int capacityBefore = map.Capacity();
      if (rebuild) live = static_cast<int>(model.size());  // re-inserting counts each entry once
      map.Add(key, value);
      model[key] = value;
      ++live;
      ASSERT_EQ(map.Capacity(), rebuild ? ExpectedCapacity(2 * std::int64_t{liveBefore}) : capacityBefore)
          << "op " << op;
      rebuilds += rebuild;
      shrinks += map.Capacity() < capacityBefore;
      if (rebuild) { ASSERT_EQ(map.Used(), static_cast<int>(model.size())) << "rebuilt, no deleted slots"; }
    } else if (!lookUp) {
      if (!present.empty()) {
        const std::size_t at = rng() % present.size();
        key = present[at];
        present[at] = present.back();
        present.pop_back();
        gone.push_back(key);
      }
      if (model.erase(key) != 0) --live;
      map.Delete(key);
    } else {
      if (source < 6) key = any(source < 3 ? present : gone, key);  // else a key never added
      const auto it = model.find(key);
      ASSERT_EQ(map.LookUp(key), it == model.end() ? mem_PtrHash::kNotFound : it->second) << "op " << op;
    }
    ASSERT_EQ(map.Live(), live) << "op " << op;
    ASSERT_GE(map.Used(), static_cast<int>(model.size()));
    ASSERT_LT(static_cast<unsigned int>(map.Used()), map.Capacity());
  }
  EXPECT_TRUE(rebuilds >= 5 && shrinks >= 1 && map.Resized()) << rebuilds << " rebuilds, " << shrinks << " shrinks";
  std::vector<int> expected;
  for (const auto& entry : model) expected.push_back(entry.second);
  std::sort(expected.begin(), expected.end());
  EXPECT_EQ(SortedValues(map), expected);
  EXPECT_GT(map.HitRate(), 1.0f);
  EXPECT_EQ(map.MemoryBytes(), std::int64_t{map.Capacity()} * 16);
}

TEST(PtrHash, SizesRebuildPointsSlotReuseAndSentinelKeys) {
  struct Sizing { int n; unsigned int capacity; };
  // 2n above 65521 skips the out-of-order 13107 entry.
  for (const Sizing& s : {Sizing{1, 15683}, Sizing{7841, 15683}, Sizing{7842, 19609}, Sizing{9805, 31397},
                          Sizing{10000, 31397}, Sizing{32760, 65521}, Sizing{32761, 262139}}) {
    mem_PtrHash map(s.n);
    EXPECT_EQ(map.Capacity(), s.capacity) << s.n;
    EXPECT_EQ(map.MemoryBytes(), std::int64_t{s.capacity} * 16) << s.n;
  }

  mem_PtrHash lazy(0);
  EXPECT_EQ(lazy.LookUp(0x1000), mem_PtrHash::kNotFound);
  lazy.Delete(0x1000);
  lazy.Add(mem_PtrHash::kEmpty, 1);  // sentinels are ignored: not even the first build happens
  lazy.Add(mem_PtrHash::kDeleted, 1);
  EXPECT_EQ(std::make_pair(lazy.Capacity(), lazy.HitRate()), std::make_pair(0u, 0.0f));
  lazy.Add(0x1000, 5);
  EXPECT_EQ(lazy.Capacity(), 15683u);
  lazy.Delete(0x1000);
  for (std::int64_t key : {std::int64_t{0x1000}, mem_PtrHash::kDeleted, mem_PtrHash::kEmpty})
    EXPECT_EQ(lazy.LookUp(key), mem_PtrHash::kNotFound) << key;
  lazy.Add(0x1000, 7);  // takes the deleted slot back
  EXPECT_EQ(lazy.Used(), 1);
  lazy.Add(0x1000, 8);  // an overwrite still counts as a new live entry: used, live, value
  EXPECT_EQ(std::make_tuple(lazy.Used(), lazy.Live(), lazy.LookUp(0x1000)), std::make_tuple(1, 2, 8));
  EXPECT_EQ(SortedValues(lazy), std::vector<int>{8});

  mem_PtrHash map(1);
  for (int i = 1; i <= 10456; ++i) map.Add(std::int64_t{i} * 16, i);
  EXPECT_EQ(map.Capacity(), 15683u);
  EXPECT_NE(Statistics(map).find("   Hash Table was not Resized\n"), std::string::npos);
  map.Add(0x7, 7);  // 10456 * 3 >= 15683 * 2
  EXPECT_EQ(std::make_tuple(map.Capacity(), map.Used(), map.LookUp(16 * 5000)), std::make_tuple(31397u, 10457, 5000));
  const std::string text = Statistics(map);
  EXPECT_EQ(text.rfind("\nHASHING INFORMATION\n   HASH TABLE WAS RESIZED\n   Hit Rate = ", 0), 0u) << text;
  EXPECT_NE(text.find("   Memory Used for Hash Table = 502352\n"), std::string::npos) << text;
  EXPECT_NE(text.find("\n   m_table  = 0x"), std::string::npos) << text;
}

TEST(StackHash, PermutedPathsShareAHomeSlotKeepTheirValuesAndAreWalkedOnceEach) {
  auto hash = std::make_unique<mem_StackHash>();
  EXPECT_EQ(hash->LookUp("ROOT"), mem_StackHash::kNotFound);
  std::vector<std::string> paths;  // permutations of one string: one path hash, hence one home slot
  std::string letters = "abcdef";
  do paths.push_back("ROOT/" + letters);
  while (std::next_permutation(letters.begin(), letters.end()));
  for (std::size_t i = 0; i < paths.size(); ++i) hash->Insert(paths[i].c_str(), static_cast<int>(i));
  hash->Insert("EMPTY", -1);  // the markers are told apart by address, not by text
  for (std::size_t i = 0; i < paths.size(); ++i) EXPECT_EQ(hash->LookUp(paths[i].c_str()), static_cast<int>(i));
  EXPECT_EQ(hash->LookUp("EMPTY"), -1);
  EXPECT_EQ(hash->LookUp("DELETED"), mem_StackHash::kNotFound);
  EXPECT_EQ(hash->LookUp("ROOT/abcdeg"), mem_StackHash::kNotFound);
  EXPECT_GT(hash->HitRate(), 20.0f);  // 720 keys chained from one home slot
  hash->Insert(paths[1].c_str(), 1000);  // overwrite: one slot, counted live twice
  EXPECT_EQ(std::make_pair(hash->Live(), hash->Used()), std::make_pair(722, 721));
  std::map<std::string, std::vector<int>> seen;
  hash->ForEach([](const char* key, int value, void* context) {
    (*static_cast<std::map<std::string, std::vector<int>>*>(context))[key].push_back(value);
  }, &seen);
  ASSERT_EQ(seen.size(), 721u);
  EXPECT_EQ(seen["EMPTY"], std::vector<int>{-1});
  for (std::size_t i = 0; i < paths.size(); ++i)
    EXPECT_EQ(seen[paths[i]], std::vector<int>{i == 1 ? 1000 : static_cast<int>(i)}) << paths[i];
}

TEST(StackHash, PoolGrowthWarnsAndMovesEveryKey) {
  const std::string warning =
      "\n\nWARNING: Memory tracking. Forced to resize mem_StackHash.\n"
      "Memory use from tracking code may change allocation patterns.\n\n";
  auto hash = std::make_unique<mem_StackHash>();
  std::vector<std::string> paths;
  for (int i = 0; i < 700; ++i) paths.push_back("ROOT/" + std::string(90, 'a' + i % 26) + std::to_string(i));
  testing::internal::CaptureStderr();
  for (int i = 0; i < 700; ++i) hash->Insert(paths[i].c_str(), i);
  EXPECT_EQ(testing::internal::GetCapturedStderr(), warning + warning);  // at 32768 and 65536 bytes
  EXPECT_EQ(std::make_pair(hash->PoolCapacity(), hash->PoolLength()),
            std::make_pair(98304, 700 * 96 + 10 * 1 + 90 * 2 + 600 * 3));
  // A key longer than one step grows the pool in one move, with one warning.
  const std::string longPath(70000, 'z');
  testing::internal::CaptureStderr();
  hash->Insert(longPath.c_str(), 9);
  EXPECT_EQ(testing::internal::GetCapturedStderr(), warning);
  EXPECT_TRUE(hash->PoolCapacity() >= hash->PoolLength() && hash->PoolCapacity() % 32768 == 0) << hash->PoolCapacity();
  for (int i = 0; i < 700; ++i) EXPECT_EQ(hash->LookUp(paths[i].c_str()), i);
  EXPECT_EQ(hash->LookUp(longPath.c_str()), 9);
  // Every key moved with the pool: none still points into the object's inline pool.
  struct Span { const char* begin; const char* end; int inside; };
  Span object{reinterpret_cast<const char*>(hash.get()), reinterpret_cast<const char*>(hash.get() + 1), 0};
  hash->ForEach([](const char* key, int, void* context) {
    auto* span = static_cast<Span*>(context);
    span->inside += !std::less<const char*>()(key, span->begin) && std::less<const char*>()(key, span->end);
  }, &object);
  EXPECT_EQ(object.inside, 0);
}

TEST(StackHash, TheNextInsertPastTwoThirdsEndsTheProcessWithStatusZero) {
  auto hash = std::make_unique<mem_StackHash>();
  for (int i = 0; i < 3992; ++i) hash->Insert(("p" + std::to_string(i)).c_str(), i);
  EXPECT_EQ(std::make_pair(hash->Used(), hash->LookUp("p3991")), std::make_pair(3992, 3991));
  EXPECT_EXIT(hash->Insert("p3992", 1), testing::ExitedWithCode(0),
              "^mem_PtrHash::Add  --  ERROR  --  Stack hash table has been overfilled\\.\n$");
}

}  // namespace
