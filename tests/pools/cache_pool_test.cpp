// The cache pools: handles, classes, clusters and the summary; a randomized run
// against a model of live handles over three allocators; purging under a real
// memory limit and the aborts in fresh processes.
#include <gtest/gtest.h>

#include <algorithm>
#include <csignal>
#include <cstdint>
#include <cstring>
#include <map>
#include <new>
#include <numeric>
#include <random>
#include <set>
#include <string>
#include <vector>

#include "ZMXUTI_CoreUtils.h"
#include "support/child_process.h"

namespace {

// Counts live memory by block, keeps the labels it was given ("+name" taken,
// "-name" returned) and refuses `perMille` of the requests at random.
struct CountingAllocator : mem_Allocator {
  explicit CountingAllocator(unsigned int share = 0) : perMille(share) {}
  void* Malloc(const char* name, std::size_t size) override {
    labels.insert(std::string("+") + name);
    return Note(Refuse() ? nullptr : mem_Malloc(size), size);
  }
  void* Realloc(const char*, void* block, std::size_t size) override {
    void* moved = Refuse() ? nullptr : mem_Realloc(block, size);
    if (moved != nullptr) live.erase(block);
    return Note(moved, size);
  }
  void Free(const char* name, void* block) override {
    labels.insert(std::string("-") + name);
    EXPECT_EQ(block == nullptr ? 1u : live.erase(block), 1u) << "freed a block it never gave out";
    mem_Free(block);
  }
  std::size_t LiveBytes() const {
    return std::accumulate(live.begin(), live.end(), std::size_t{0}, [](auto n, const auto& e) { return n + e.second; });
  }
  bool Refuse() { return perMille != 0 && rng() % 1000 < perMille; }
  void* Note(void* block, std::size_t size) {
    if (block != nullptr) live[block] = size;
    return block;
  }
  std::map<void*, std::size_t> live;
  std::set<std::string> labels;
  unsigned int perMille;
  std::minstd_rand rng{7};
};

unsigned int ClusterOf(mem_CachePoolID h) { return (h >> 1) & 0x7FFF; }

std::string Captured(void (mem_CachePool::*print)() const, const mem_CachePool* pool) {
  testing::internal::CaptureStdout();
  (pool->*print)();
  return testing::internal::GetCapturedStdout();
}

TEST(CachePool, NumberedFacts) {
  CountingAllocator allocator;
  mem_CachePool* pool = mem_CachePool::CreatePool(&allocator);
  ASSERT_NE(pool, nullptr);
  EXPECT_EQ(pool->Alloc(0).Value(), 0u);
  pool->Free(0);

  const mem_CachePoolID big = pool->Alloc(16385).Value();
  EXPECT_GE(big >> 1, 1u);
  // Two 4-byte requests: the first slots of a fixed region cut at the top of cluster 1.
  const mem_CachePoolID a = pool->Alloc(4).Value(), b = pool->Alloc(4).Value();
  EXPECT_EQ(a, 1u | (1u << 1) | ((63u * 1024 + 10) << 16));
  EXPECT_EQ(b, a + (1u << 16));
  EXPECT_EQ(Captured(&mem_CachePool::DebugSummary, pool),
            "Pool Summary: blockCount=4, clusterCount=1, passthruCount=1\n"
            "        PassthruSize=4097, ClusterAlloc=1024\n");
  EXPECT_EQ(Captured(&mem_CachePool::DebugPrint, pool),
            "Allocated Regions:\nVariableRegion: Size=65536, Alloc=1024\nFixedRegion: AllocCount = 2\n"
            "mem_Block: Size = 1024\nmem_Block: Size = 4097\nmem_Block: Size = 1024\n");

  const mem_CachePoolID odd = pool->Alloc(16384);
  std::memset(pool->Ptr(odd), 0x5A, 16384);
  EXPECT_EQ(pool->ReAlloc(odd, 0).Value(), 0u);  // the old block is kept
  EXPECT_EQ(static_cast<unsigned char*>(pool->Ptr(odd))[16383], 0x5A);
  // Its run holds 16392 bytes, yet 16385 make a block of their own, the data moved along.
  const mem_CachePoolID grown = pool->ReAlloc(odd, 16385);
  EXPECT_EQ(static_cast<unsigned char*>(pool->Ptr(grown))[16383], 0x5A);
  pool->Free(grown);
  EXPECT_EQ(pool->Alloc(16385).Value(), grown);  // freed block indices are reused
  const mem_CachePoolID variable = pool->Alloc(300);
  // Smaller requests keep their handle; a block never moves into a cluster.
  for (const auto& [h, size] : {std::pair{variable, 1}, {variable, 200}, {variable, 300}, {a, 3}, {big, 1}})
    EXPECT_EQ(pool->ReAlloc(h, size).Value(), h) << size;
  const mem_CachePoolID adopted = pool->Adopt(10, allocator.Malloc("test", 10));
  // Blocks (passthru, adopted) have even handles, cluster memory odd ones.
  for (const auto& [h, bit] : {std::pair{big, 0u}, {odd, 1u}, {grown, 0u}, {adopted, 0u}}) EXPECT_EQ(h & 1, bit) << h;

  // Emptying cluster 1 gives its 256 KiB back; the next cluster request reuses index 1.
  const std::size_t withCluster = allocator.LiveBytes();
  for (mem_CachePoolID h : {a, b, variable}) pool->Free(h);
  EXPECT_EQ(withCluster - allocator.LiveBytes(), 0x40000u);
  const mem_CachePoolID again = pool->Alloc(100);
  EXPECT_EQ(ClusterOf(again), 1u);
  EXPECT_EQ(allocator.LiveBytes(), withCluster);
  pool->Delete();

  // Fifteen runs of 16384 bytes leave cluster 1 a free run of 4020 words (bucket 6); the
  // sixteenth opens cluster 2 (bucket 7), which a class without clusters of its own tries first.
  pool = mem_CachePool::CreatePool(&allocator);
  mem_CachePoolID run = 0;
  for (int i = 0; i < 16; ++i) run = pool->Alloc(16384);
  EXPECT_EQ(ClusterOf(run), 2u);
  EXPECT_EQ(ClusterOf(pool->Alloc(4)), 2u);
  pool->Delete();
  EXPECT_EQ(allocator.live.size(), 0u);  // blocks, adopted memory, pages, tables and the pool itself
  // Memory is taken under its kind's label and goes back as a block's, the pool's own as the pool's;
  // the tables' chunk arrays come from the allocator only while the general heap serves requests.
  std::set<std::string> labels{"+mem_CachePool", "+mem_Cluster", "+mem_FixedBlock", "+test", "-mem_Block",
                               "-mem_CachePool"};
  if (mem_UseDL()) labels.insert("+mem_Block");
  EXPECT_EQ(allocator.labels, labels);
}

constexpr std::size_t kDataBytes = 3000;

// A cache item in the pool whose data is another handle of the same pool.
struct HeldItem : mem_CacheItem {
  mem_CachePool* pool;
  mem_CachePoolID self;
  mem_CachePoolID data;
  std::vector<mem_CachePoolID>* purged;
  HeldItem(mem_CachePool* p, mem_CachePoolID s, mem_CachePoolID d, std::vector<mem_CachePoolID>* log)
      : pool(p), self(s), data(d), purged(log) {}
  std::uint64_t AvailableSize() override { return data != 0 ? kDataBytes : 0; }
  void DebugPrint() override {}
  mem_CacheItemPtr Self() override { return mem_CacheItemPtr(pool, self); }
  std::uint64_t Purge() override {
    purged->push_back(data);
    pool->Free(data);
    data = 0;
    return kDataBytes;
  }
};

struct Live {
  std::uint64_t size;
  unsigned int serial;
  bool held;  // a cache item's data: only the item frees it
};

unsigned char PatternByte(unsigned int serial, std::size_t i) {
  return static_cast<unsigned char>(serial * 131u + i * 7u + (i >> 8));
}

class PoolModelTest : public ::testing::TestWithParam<int> {
 protected:
  unsigned char* Bytes(mem_CachePoolID h) const { return static_cast<unsigned char*>(pool_->Ptr(h)); }
  void Fill(mem_CachePoolID h, std::uint64_t from) {
    for (std::uint64_t i = from; i < model_[h].size; ++i) Bytes(h)[i] = PatternByte(model_[h].serial, i);
  }
  bool Intact(mem_CachePoolID h) const {
    for (std::uint64_t i = 0; i < model_.at(h).size; ++i)
      if (Bytes(h)[i] != PatternByte(model_.at(h).serial, i)) return false;
    return true;
  }
  // Every live handle keeps its contents and no two live handles overlap.
  void CheckAll(int step) {
    std::vector<std::pair<const unsigned char*, std::uint64_t>> spans;
    for (const auto& entry : model_) {
      ASSERT_TRUE(Intact(entry.first)) << "handle " << std::hex << entry.first << std::dec << " at step " << step;
      spans.emplace_back(Bytes(entry.first), entry.second.size);
    }
    std::sort(spans.begin(), spans.end());
    for (std::size_t i = 1; i < spans.size(); ++i)
      ASSERT_LE(spans[i - 1].first + spans[i - 1].second, spans[i].first) << "overlap at step " << step;
  }
  std::uint64_t RandomSize() { return SizeOfKind(rng_() % 100); }
  // Mostly within the old size's kind, so that handles stay in clusters.
  std::uint64_t ResizeOf(std::uint64_t old) {
    const unsigned int kind = old <= 128 ? 0 : old <= 16384 ? 60 : 99;
    return SizeOfKind(rng_() % 4 == 0 ? rng_() % 100 : kind);
  }
  std::uint64_t SizeOfKind(unsigned int kind) {
    if (kind < 60) return 1 + rng_() % 128;              // fixed classes
    if (kind < 95) return 129 + rng_() % (16384 - 128);  // variable runs
    return 16385 + rng_() % (40960 - 16384);             // passthru
  }

  std::mt19937 rng_{20240611u + static_cast<unsigned int>(GetParam())};
  mem_CachePool* pool_ = nullptr;
  std::map<mem_CachePoolID, Live> model_;
};

TEST_P(PoolModelTest, HandlesKeepTheirContentsThroughRandomUse) {
  mem_CacheManager manager("model");
  mem_DLAllocator general;
  mem_Allocator frontDoor;
  CountingAllocator refusing(30);
  mem_Allocator* allocators[] = {&general, &frontDoor, &refusing};
  mem_Allocator* allocator = allocators[GetParam()];
  pool_ = mem_CachePool::CreatePool(allocator);
  ASSERT_NE(pool_, nullptr);
  std::vector<mem_CachePoolID> items, purged;
  unsigned int serial = 1;
  int refusals = 0;
  for (int step = 0; step < 16000; ++step) {
    const unsigned int op = rng_() % 100;
    const bool draining = step / 2500 % 2 == 1;  // waves that fill clusters and then empty them
    auto pick = [&]() -> mem_CachePoolID {  // 0 when only held data came up
      auto it = model_.lower_bound(static_cast<mem_CachePoolID>(rng_()));
      if (it == model_.end()) it = model_.begin();
      return it->second.held ? 0 : it->first;
    };
    if (model_.empty() || (!draining && op < 45)) {
      const std::uint64_t size = RandomSize();
      const bool adopt = op % 9 == 0 && size > 128;  // memory taken by the test and handed over
      void* memory = adopt ? allocator->Malloc("test", size) : nullptr;
      const mem_CachePoolID h = !adopt ? pool_->Alloc(size).Value() : memory ? pool_->Adopt(size, memory).Value() : 0;
      if (h == 0) {
        ++refusals;
        continue;
      }
      ASSERT_EQ(model_.count(h), 0u) << "handle handed out twice";
      model_[h] = Live{size, serial++, false};
      Fill(h, 0);
    } else if (op < (draining ? 20u : 75u)) {
      const mem_CachePoolID h = pick();
      if (h == 0) continue;
      const Live old = model_[h];
      const std::uint64_t size = ResizeOf(old.size);
      const mem_CachePoolID moved = pool_->ReAlloc(h, size);
      if (moved == 0) {
        ++refusals;
        ASSERT_TRUE(Intact(h)) << "a failed reallocation must keep the old block";
        continue;
      }
      model_.erase(h);
      model_[moved] = Live{size, old.serial, false};
      for (std::uint64_t i = 0; i < std::min(size, old.size); i += 61)
        ASSERT_EQ(Bytes(moved)[i], PatternByte(old.serial, i)) << "contents lost by ReAlloc at step " << step;
      ASSERT_TRUE((size > old.size && (h & 1)) || moved == h) << "blocks and smaller requests keep their handle";
      ASSERT_TRUE(size <= 16384 || !(moved & 1)) << "more than 16384 bytes make a block";
      Fill(moved, std::min(size, old.size));
    } else if (op < 97) {
      const mem_CachePoolID h = pick();
      if (h == 0) continue;
      ASSERT_TRUE(Intact(h)) << "step " << step;
      model_.erase(h);
      pool_->Free(h);
    } else if (op < 99) {
      // A cache item holding data; the data stays in the model until purged.
      const mem_CachePoolID data = pool_->Alloc(kDataBytes), self = pool_->Alloc(sizeof(HeldItem));
      if (data == 0 || self == 0) {
        pool_->Free(data);
        pool_->Free(self);
        continue;
      }
      new (pool_->Ptr(self)) HeldItem(pool_, self, data, &purged);
      model_[data] = Live{kDataBytes, serial++, true};
      Fill(data, 0);
      mem_CacheItemPtr ptr(pool_, self);
      manager.AddItem(MEM_CACHE_PRIORITY_2, MEM_CACHE_FRONT, ptr);
      items.push_back(self);
    } else {
      manager.Purge(0, 2 * kDataBytes);
      for (mem_CachePoolID gone : purged) model_.erase(gone);
      purged.clear();
    }
    if (step % 1000 == 999) CheckAll(step);
  }
  CheckAll(-1);
  EXPECT_EQ(refusals > 0, GetParam() == 2) << refusals;
  for (mem_CachePoolID self : items) {
    mem_CacheItemPtr ptr(pool_, self);
    manager.RemoveItem(ptr);
    HeldItem* item = static_cast<HeldItem*>(pool_->Ptr(self));
    if (item->data != 0) model_.erase(item->data);
    pool_->Free(item->data);
    pool_->Free(self);
  }
  for (const auto& entry : model_) {
    ASSERT_FALSE(entry.second.held);
    pool_->Free(entry.first);
  }
  EXPECT_EQ(Captured(&mem_CachePool::DebugSummary, pool_).substr(0, 14), "Pool Summary: ");
  pool_->Delete();
  if (allocator == &refusing) {
    EXPECT_EQ(refusing.live.size(), 0u);  // everything it gave went back
  }
}

INSTANTIATE_TEST_SUITE_P(Allocators, PoolModelTest, ::testing::Values(0, 1, 2), [](const auto& param) {
  return std::string(param.param == 0 ? "GeneralHeap" : param.param == 1 ? "FrontDoor" : "RefusingCounting");
});

TEST(CachePoolProcess, PurgingUnderTheMemoryLimitMakesRoomUntilNothingIsLeft) {
  const zmx_test::ChildResult r = zmx_test::RunProbe("pools_probe", "limit");
  ASSERT_TRUE(zmx_test::ExitedCleanly(r));
  EXPECT_EQ(r.out,
            "filled more than 50 items: 1\n"
            "while filling purged: 0\n"
            "extra block served: 1\n"
            "for the extra block purged: 1\n"
            "remaining data intact: 1\n"
            "nothing purgeable: null=1 status=-1\n"
            "for the refused block purged:\n");
}

TEST(CachePoolProcess, MisuseAbortsWithItsMessage) {
  const struct {
    const char* scenario;
    const char* err;
  } cases[] = {
      {"bad_handle", "ERROR: mem_CachePool: invalid handle 0x00000004 (block not in use)\n"},
      // The first 80-byte element of a fresh pool: cluster 1, region 63, word 12.
      {"linked_twice", "ERROR: mem_CacheManager::AddItem: item 0xfc0c0003 already linked\n"},
      {"priority_0", "ERROR: mem_CacheManager::AddItem: priority 0 out of range\n"},
  };
  for (const auto& c : cases) {
    const zmx_test::ChildResult r = zmx_test::RunProbe("pools_probe", c.scenario);
    EXPECT_EQ(r.signal, SIGABRT) << zmx_test::Describe(r);
    EXPECT_EQ(r.err, c.err);
    EXPECT_EQ(r.out, "");
  }
}

}  // namespace
