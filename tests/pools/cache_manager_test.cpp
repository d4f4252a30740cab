// The cache manager: list order by priority and policy, head moves on removal,
// the purge walk and its result, the guard against items that never report
// enough, the debug print, and the labelled allocators' purge and retry.
#include <gtest/gtest.h>

#include <cstdint>
#include <cstdio>
#include <new>
#include <string>
#include <utility>
#include <vector>

#include "ZMXUTI_CoreUtils.h"
#include "support/child_process.h"

namespace {

constexpr std::size_t kHuge = std::size_t{1} << 62;

// A named item in a pool: AvailableSize answers start, start + step, ...; Purge logs its name.
class ScriptedItem : public mem_CacheItem {
 public:
  ScriptedItem(mem_CacheItemPtr self, char name, std::uint64_t released, std::string* log, std::uint64_t start,
               std::uint64_t step)
      : self_(self), name_(name), released_(released), start_(start), step_(step), log_(log) {}
  std::uint64_t AvailableSize() override { return start_ + step_ * asks_++; }
  void DebugPrint() override { std::printf("item %c\n", name_); }
  mem_CacheItemPtr Self() override { return self_; }
  std::uint64_t Purge() override {
    *log_ += name_;
    return released_;
  }
  mem_CacheItemPtr self_;
  char name_;
  std::uint64_t released_, start_, step_;
  std::string* log_;
  int asks_ = 0;
};

ScriptedItem* As(const mem_CacheItemPtr& p) { return static_cast<ScriptedItem*>(p.Ptr()); }

class CacheManagerTest : public ::testing::Test {
 protected:
  void SetUp() override { pool_ = mem_CachePool::CreatePool(&allocator_); }
  void TearDown() override { pool_->Delete(); }

  mem_CacheItemPtr Item(char name, std::uint64_t released = 1, std::uint64_t start = 0, std::uint64_t step = 0) {
    const mem_CachePoolID id = pool_->Alloc(sizeof(ScriptedItem));
    const mem_CacheItemPtr self(pool_, id);
    new (pool_->Ptr(id)) ScriptedItem(self, name, released, &log_, start, step);
    return self;
  }
  // Per list: its names from the head by Next, then "|" and its back's name ("" when empty).
  std::vector<std::string> Lists() const {
    std::vector<std::string> lists;
    for (int list = 0; list < 4; ++list) {
      const mem_CacheItemPtr head = manager_.Head(list);
      std::string names;
      for (mem_CacheItemPtr at = head; !at.IsNull() && (names.empty() || at != head) && names.size() < 64;
           at = at.Ptr()->Next())
        names += As(at)->name_;
      lists.push_back(head.IsNull() ? "" : names + "|" + As(head.Ptr()->Last())->name_);
    }
    return lists;
  }

  mem_Allocator allocator_;
  mem_CachePool* pool_ = nullptr;
  mem_CacheManager manager_{"tests"};
  std::string log_;
};

TEST_F(CacheManagerTest, ListsFollowPriorityAndPolicyAndHeadsMoveOnRemoval) {
  mem_CacheItemPtr items[6];
  for (int i = 0; i < 6; ++i) items[i] = Item(static_cast<char>('A' + i));
  const struct {
    int add;  // item to add (-1: remove `remove`)
    mem_CachePriorityEnm priority;
    mem_CachePolicyEnm policy;
    int remove;
    std::vector<std::string> lists;  // "names from head|back"
  } steps[] = {
      {0, MEM_CACHE_PRIORITY_2, MEM_CACHE_BACK, 0, {"", "A|A", "", ""}},
      {1, MEM_CACHE_PRIORITY_2, MEM_CACHE_BACK, 0, {"", "AB|B", "", ""}},
      {2, MEM_CACHE_PRIORITY_2, MEM_CACHE_BACK, 0, {"", "ABC|C", "", ""}},
      {3, MEM_CACHE_PRIORITY_2, MEM_CACHE_FRONT, 0, {"", "DABC|C", "", ""}},
      {4, MEM_CACHE_PRIORITY_1, MEM_CACHE_NONE, 0, {"", "DABC|C", "", ""}},
      {4, MEM_CACHE_PRIORITY_1, MEM_CACHE_ALWAYS, 0, {"", "DABC|C", "", "E|E"}},
      {5, MEM_CACHE_PRIORITY_3, MEM_CACHE_FRONT, 0, {"", "DABC|C", "F|F", "E|E"}},
      {-1, MEM_CACHE_PRIORITY_1, MEM_CACHE_BACK, 3, {"", "ABC|C", "F|F", "E|E"}},  // the head
      {-1, MEM_CACHE_PRIORITY_1, MEM_CACHE_BACK, 1, {"", "AC|C", "F|F", "E|E"}},
      {-1, MEM_CACHE_PRIORITY_1, MEM_CACHE_BACK, 2, {"", "A|A", "F|F", "E|E"}},  // the back
      {-1, MEM_CACHE_PRIORITY_1, MEM_CACHE_BACK, 0, {"", "", "F|F", "E|E"}},
      {-1, MEM_CACHE_PRIORITY_1, MEM_CACHE_BACK, 0, {"", "", "F|F", "E|E"}},  // not linked: harmless
      {-1, MEM_CACHE_PRIORITY_1, MEM_CACHE_BACK, 4, {"", "", "F|F", ""}},
  };
  int n = 0;
  for (const auto& s : steps) {
    if (s.add >= 0)
      manager_.AddItem(s.priority, s.policy, items[s.add]);
    else
      manager_.RemoveItem(items[s.remove]);
    EXPECT_EQ(Lists(), s.lists) << "step " << n++;
  }
  EXPECT_TRUE(items[0].Ptr()->Next().IsNull() && items[0].Ptr()->Last().IsNull());
}

TEST_F(CacheManagerTest, PurgeTakesAlwaysFirstThenTheLevelsListsFromTheBack) {
  // ALWAYS: a; PRIORITY_3: b c; PRIORITY_2: d; PRIORITY_1: e. Each releases its letter's rank;
  // the result is the last purged item's amount, not a sum.
  const struct {
    int level;
    std::uint64_t bytes;
    const char* purged;
    std::uint64_t result;
    std::vector<std::string> left;
  } cases[] = {
      {0, 1000, "acbde", 5, {"", "", "", ""}},
      {2, 1000, "ad", 4, {"e|e", "", "bc|c", ""}},
      {3, 1000, "acb", 2, {"e|e", "d|d", "", ""}},
      {1, 1000, "ae", 5, {"", "d|d", "bc|c", ""}},
      {0, 3, "ac", 3, {"e|e", "d|d", "b|b", ""}},  // stops at the first amount >= bytes
      {0, 1, "a", 1, {"e|e", "d|d", "bc|c", ""}},
  };
  const std::pair<mem_CachePriorityEnm, mem_CachePolicyEnm> places[] = {
      {MEM_CACHE_PRIORITY_1, MEM_CACHE_ALWAYS}, {MEM_CACHE_PRIORITY_3, MEM_CACHE_BACK},
      {MEM_CACHE_PRIORITY_3, MEM_CACHE_BACK}, {MEM_CACHE_PRIORITY_2, MEM_CACHE_BACK}, {MEM_CACHE_PRIORITY_1, MEM_CACHE_FRONT}};
  for (const auto& c : cases) {
    mem_CacheItemPtr items[5];
    for (int i = 0; i < 5; ++i) {
      items[i] = Item(static_cast<char>('a' + i), i + 1);
      manager_.AddItem(places[i].first, places[i].second, items[i]);
    }
    log_.clear();
    EXPECT_EQ(manager_.Purge(c.level, c.bytes), c.result) << c.level << " " << c.bytes;
    EXPECT_EQ(log_, c.purged) << c.level << " " << c.bytes;
    EXPECT_EQ(Lists(), c.left) << c.level << " " << c.bytes;
    for (mem_CacheItemPtr& p : items) manager_.RemoveItem(p);
  }
  EXPECT_EQ(manager_.Purge(0, 10), 0u);  // nothing to purge
}

TEST_F(CacheManagerTest, PurgeAsksUntilEnoughOrTheAnswerRepeats) {
  mem_CacheItemPtr stuck = Item('s', 7, 5, 0);     // always 5
  mem_CacheItemPtr growing = Item('g', 9, 10, 10);  // 10, 20, 30, ...
  manager_.AddItem(MEM_CACHE_PRIORITY_2, MEM_CACHE_BACK, stuck);
  manager_.AddItem(MEM_CACHE_PRIORITY_2, MEM_CACHE_BACK, growing);
  EXPECT_EQ(manager_.Purge(2, 55), 7u);
  EXPECT_EQ(log_, "gs");
  EXPECT_EQ(As(growing)->asks_, 6);  // until 60 >= 55
  EXPECT_EQ(As(stuck)->asks_, 2);    // 5, then 5 again
}

TEST_F(CacheManagerTest, DebugPrintNamesEachListAndItsItemsFromTheHead) {
  mem_CacheManager manager("a_name_longer_than_sixteen");
  auto printed = [&manager] {
    testing::internal::CaptureStdout();
    manager.DebugPrint();
    return testing::internal::GetCapturedStdout();
  };
  EXPECT_EQ(printed(),
            "--- Debug Print for CacheManager: a_name_longer_th\n"
            "   ---Items in purge list PRIORITY_1\n  --Empty--\n"
            "   ---Items in purge list PRIORITY_2\n  --Empty--\n"
            "   ---Items in purge list PRIORITY_3\n  --Empty--\n"
            "   ---Items in purge list ALWAYS\n  --Empty--\n");
  EXPECT_STREQ(manager.Name(), "a_name_longer_th");
  mem_CacheItemPtr x = Item('x'), y = Item('y');
  manager.AddItem(MEM_CACHE_PRIORITY_3, MEM_CACHE_BACK, x);
  manager.AddItem(MEM_CACHE_PRIORITY_3, MEM_CACHE_FRONT, y);
  const std::string out = printed();
  EXPECT_NE(out.find("   ---Items in purge list PRIORITY_3\nitem y\nitem x\n   ---Items in purge list ALWAYS\n"),
            std::string::npos)
      << out;
}

// Each failed request purges once, for the requested size (the element size for
// Calloc), and hands back the second attempt's null.
TEST_F(CacheManagerTest, AllocatorsPurgeOnceForTheRequestedSizeAndReturnTheRetry) {
  mem_Allocator frontDoor(&manager_), unbound;
  mem_DLAllocator general(&manager_);
  void* kept = frontDoor.Malloc("t", 32);
  void* small = general.Malloc("t", 16);
  auto purgedBy = [&](auto request) {
    mem_CacheItemPtr p = Item('p', 100, 100), q = Item('q', 100, 100);
    manager_.AddItem(MEM_CACHE_PRIORITY_1, MEM_CACHE_ALWAYS, p);
    manager_.AddItem(MEM_CACHE_PRIORITY_1, MEM_CACHE_ALWAYS, q);
    log_.clear();
    EXPECT_EQ(request(), nullptr);
    manager_.RemoveItem(p);
    manager_.RemoveItem(q);
    return log_;
  };
  EXPECT_EQ(purgedBy([&] { return frontDoor.Malloc("t", kHuge); }), "qp");
  EXPECT_EQ(purgedBy([&] { return frontDoor.Realloc("t", kept, kHuge); }), "qp");
  EXPECT_EQ(purgedBy([&] { return frontDoor.Calloc("t", kHuge, 64); }), "q");  // 100 bytes cover one element
  EXPECT_EQ(purgedBy([&] { return general.Malloc("t", kHuge); }), "qp");
  EXPECT_EQ(purgedBy([&] { return general.AlignedAlloc("t", 64, kHuge); }), "qp");
  EXPECT_EQ(purgedBy([&] { return general.Realloc("t", small, kHuge); }), "qp");
  EXPECT_EQ(purgedBy([&] { return unbound.Malloc("t", kHuge); }), "");
  general.Free("t", small);
  frontDoor.Free("t", kept);  // the failed Reallocs left them in place
  mem_Allocator* clone = general.Clone();
  EXPECT_TRUE(dynamic_cast<mem_DLAllocator*>(clone) != nullptr && clone->Manager() == &manager_);
  delete clone;
}

// Attempts are counted by the front door's tracker reports in a fresh process.
TEST(LabelledAllocator, WithoutAManagerAFailedRequestIsTriedExactlyTwice) {
  const zmx_test::ChildResult r = zmx_test::RunProbe("pools_probe", "attempts", {{"ZEM_MEM_TRACK", ""}});
  ASSERT_TRUE(zmx_test::ExitedCleanly(r));
  EXPECT_EQ(r.out,
            "unbound malloc attempts=2 null=1\n"
            "unbound calloc attempts=2 null=1\n"
            "unbound realloc attempts=2 null=1\n");
}

}  // namespace
