// The per-thread cache in front of the general heap: blocks crossing threads
// keep their contents while every cache stays within its bounds, a thread's
// cache goes back when it ends, the variable that chooses it, and (in fresh
// processes) the return of every cache on a refusal by the limit, on trim and
// around a fork.
#include <gtest/gtest.h>

#include <atomic>
#include <cstdint>
#include <cstring>
#include <random>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "mem/heap/internal/general_heap_check.h"
#include "mem/heap/internal/thread_cache.h"
#include "support/child_process.h"

namespace {

using namespace zmx::mem_internal;

// A block carries its size and tag in front, then a byte derived from the tag.
struct Header {
  std::size_t size;
  std::uint64_t tag;
};

void Stamp(void* p, std::size_t size, std::uint64_t tag) {
  const Header h{size, tag};
  std::memcpy(p, &h, sizeof h);
  std::memset(static_cast<char*>(p) + sizeof h, static_cast<int>(tag * 37 + 11) & 0xFF, size - sizeof h);
}

bool Intact(const void* p) {
  Header h;
  std::memcpy(&h, p, sizeof h);
  const unsigned char* b = static_cast<const unsigned char*>(p);
  for (std::size_t i = sizeof h; i < h.size; ++i)
    if (b[i] != ((h.tag * 37 + 11) & 0xFF)) return false;
  return true;
}

struct Exchange {
  std::vector<std::atomic<void*>> boxes = std::vector<std::atomic<void*>>(128);
  std::atomic<long> damaged{0}, failed{0}, overBound{0}, cachedSeen{0};
};

// Random requests through every cached entry point; every other block is left
// for another thread to free, whatever it finds is checked first.
void Worker(Exchange& x, unsigned id, int ops) {
  std::mt19937_64 rng(id * 7919 + 1);
  std::vector<void*> own(48, nullptr);
  std::uint64_t tag = std::uint64_t(id) << 40;
  for (int op = 0; op < ops; ++op) {
    std::size_t size = sizeof(Header) + (rng() % 10 == 0 ? rng() % 5000 : rng() % 1000);
    void* p;
    switch (rng() % 4) {
      case 0: p = ThreadCacheMalloc(size); break;
      case 1:
        p = ThreadCacheCalloc(1, size);
        for (std::size_t i = 0; p != nullptr && i < size; ++i)
          if (static_cast<unsigned char*>(p)[i] != 0) x.damaged.fetch_add(1);
        break;
      case 2: p = ThreadCacheMemalign(rng() % 2 ? 16 : 64, size); break;
      default: p = ThreadCacheRealloc(ThreadCacheMalloc(24), size); break;
    }
    if (p == nullptr) {
      x.failed.fetch_add(1);
      continue;
    }
    Stamp(p, size, ++tag);
    void* old = rng() % 2 ? x.boxes[rng() % x.boxes.size()].exchange(p) : std::exchange(own[rng() % own.size()], p);
    if (old != nullptr) {
      if (!Intact(old)) x.damaged.fetch_add(1);
      ThreadCacheFree(old);
    }
    if (op % 512 == 0) {
      const ThreadCacheView v = CurrentThreadCacheView();
      if (!v.withinClassCaps || v.bytes > kCacheThreadBytes) x.overBound.fetch_add(1);
      if (v.chunks > 0) x.cachedSeen.fetch_add(1);
    }
  }
  for (void* p : own) {
    if (p != nullptr && !Intact(p)) x.damaged.fetch_add(1);
    ThreadCacheFree(p);
  }
}

TEST(ThreadCache, BlocksCrossingThreadsKeepTheirContentsAndCachesStayWithinBounds) {
  Exchange x;
  std::vector<std::thread> pool;
  for (unsigned t = 0; t < 4; ++t) pool.emplace_back(Worker, std::ref(x), t, 60000);
  for (auto& th : pool) th.join();
  for (auto& box : x.boxes) {
    void* p = box.exchange(nullptr);
    if (p != nullptr && !Intact(p)) x.damaged.fetch_add(1);
    ThreadCacheFree(p);
  }
  EXPECT_EQ(x.damaged.load(), 0);
  EXPECT_EQ(x.failed.load(), 0);
  EXPECT_EQ(x.overBound.load(), 0);
  EXPECT_GT(x.cachedSeen.load(), 0) << "the caches were never used";
  const HeapWalkReport report = CheckGeneralHeap();
  EXPECT_TRUE(report.consistent) << report.problem;
}

TEST(ThreadCache, AThreadsCacheGoesBackToTheHeapWhenTheThreadEnds) {
  const ThreadCacheView before = CurrentThreadCacheView();
  ThreadCacheView inside{};
  std::thread([&inside] {
    std::vector<void*> blocks;
    for (int i = 0; i < 300; ++i) blocks.push_back(ThreadCacheMalloc(16 + 8 * (i % 40)));
    for (void* p : blocks) ThreadCacheFree(p);
    inside = CurrentThreadCacheView();
  }).join();
  EXPECT_TRUE(inside.registered);
  EXPECT_GT(inside.bytes, 0u);
  EXPECT_LE(inside.bytes, kCacheThreadBytes);
  EXPECT_TRUE(inside.withinClassCaps);
  EXPECT_EQ(inside.liveCaches, before.liveCaches + 1);
  const ThreadCacheView after = CurrentThreadCacheView();
  EXPECT_EQ(after.liveCaches, before.liveCaches);
  // Only this thread's own cache may have changed meanwhile.
  EXPECT_EQ(after.processBytes - after.bytes, before.processBytes - before.bytes);
  const HeapWalkReport report = CheckGeneralHeap();
  EXPECT_TRUE(report.consistent) << report.problem;
}

std::string CachedScenario(const std::string& name, const char* value = "1") {
  const auto result = zmx_test::RunProbe("heap_probe", name, {{"ZMX_HEAP_THREAD_CACHE", value}});
  EXPECT_TRUE(zmx_test::ExitedCleanly(result)) << name;
  return result.out;
}

TEST(ThreadCache, ChosenByAValueThatDoesNotBeginWithZero) {
  const struct {
    const char* value;
    const char* expected;
  } cases[] = {{"1", "cache 1\n"}, {"on", "cache 1\n"}, {"0", "cache 0\n"}, {"01", "cache 0\n"}};
  for (const auto& c : cases) EXPECT_EQ(CachedScenario("cache_choice", c.value), c.expected) << c.value;
  EXPECT_EQ(zmx_test::RunProbe("heap_probe", "cache_choice").out, "cache 0\n");
}

// Every cache goes back to the heap when a request would be refused by the
// limit, before a trim, and around a fork (the child keeps its own cache only).
TEST(ThreadCache, CachesGoBackOnALimitRefusalOnTrimAndAroundFork) {
  const struct {
    const char* scenario;
    const char* expected;
  } cases[] = {
      {"cache_limit", "cached 1\nserved_after_return 1\nstatus -1\ncache_emptied 1\n"},
      {"cache_trim", "cached 1\ntrimmed 1\nfootprint_dropped 1\n"},
      {"cache_fork",
       "child_caches 1\nchild_holds_only_its_own 1\nchild_heap_consistent 1\nchild_exit 0\n"
       "parent_caches_after_join 1\n"},
  };
  for (const auto& c : cases) EXPECT_EQ(CachedScenario(c.scenario), c.expected) << c.scenario;
}

}  // namespace
