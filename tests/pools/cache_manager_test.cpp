// The cache manager: list order by priority and policy, head moves on removal,
// the purge walk and its result, the guard against items that never report
// enough, the debug print, and the labelled allocators' purge and retry.
#include <gtest/gtest.h>

#include <cstdint>
#include <string>
#include <vector>

#include "ZMXUTI_CoreUtils.h"
#include "support/child_process.h"
#include "tests/pools/cache_items.h"

namespace {

using pools_test::As;
using pools_test::ListOf;
using pools_test::ScriptedItem;

constexpr std::size_t kHuge = std::size_t{1} << 62;

class CacheManagerTest : public ::testing::Test {
 protected:
  void SetUp() override { pool_ = mem_CachePool::CreatePool(&allocator_); }
  void TearDown() override { pool_->Delete(); }

  mem_CacheItemPtr Item(char name, std::uint64_t released = 1, std::uint64_t start = 0, std::uint64_t step = 0) {
    return ScriptedItem::Place(pool_, name, released, &log_, start, step);
  }
  std::vector<std::string> Lists() const {
    return {ListOf(manager_, 0), ListOf(manager_, 1), ListOf(manager_, 2), ListOf(manager_, 3)};
  }

  mem_Allocator allocator_;
  mem_CachePool* pool_ = nullptr;
  mem_CacheManager manager_{"tests"};
  std::string log_;
};

TEST_F(CacheManagerTest, ListsFollowPriorityAndPolicyAndHeadsMoveOnRemoval) {
  mem_CacheItemPtr items[6];
  for (int i = 0; i < 6; ++i) items[i] = Item(static_cast<char>('A' + i));
  struct Step {
    int add;  // item to add (-1: remove `remove`)
    mem_CachePriorityEnm priority;
    mem_CachePolicyEnm policy;
    int remove;
    std::vector<std::string> lists;  // "names from head|back"
  };
  const Step steps[] = {
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
  for (const Step& s : steps) {
    if (s.add >= 0)
      manager_.AddItem(s.priority, s.policy, items[s.add]);
    else
      manager_.RemoveItem(items[s.remove]);
    EXPECT_EQ(Lists(), s.lists) << "step " << n++;
  }
  EXPECT_TRUE(items[0].Ptr()->Next().IsNull() && items[0].Ptr()->Last().IsNull());
}

TEST_F(CacheManagerTest, PurgeTakesAlwaysFirstThenTheLevelsListsFromTheBack) {
  struct Case {
    int level;
    std::uint64_t bytes;
    const char* purged;
    std::uint64_t result;  // the last purged item's amount, not a sum
    std::vector<std::string> left;
  };
  // ALWAYS: a; PRIORITY_3: b c; PRIORITY_2: d; PRIORITY_1: e. Each releases its letter's rank.
  const Case cases[] = {
      {0, 1000, "acbde", 5, {"", "", "", ""}},
      {2, 1000, "ad", 4, {"e|e", "", "bc|c", ""}},
      {3, 1000, "acb", 2, {"e|e", "d|d", "", ""}},
      {1, 1000, "ae", 5, {"", "d|d", "bc|c", ""}},
      {0, 3, "ac", 3, {"e|e", "d|d", "b|b", ""}},  // stops at the first amount >= bytes
      {0, 1, "a", 1, {"e|e", "d|d", "bc|c", ""}},
  };
  for (const Case& c : cases) {
    mem_CacheItemPtr a = Item('a', 1), b = Item('b', 2), cc = Item('c', 3), d = Item('d', 4), e = Item('e', 5);
    manager_.AddItem(MEM_CACHE_PRIORITY_1, MEM_CACHE_ALWAYS, a);
    manager_.AddItem(MEM_CACHE_PRIORITY_3, MEM_CACHE_BACK, b);
    manager_.AddItem(MEM_CACHE_PRIORITY_3, MEM_CACHE_BACK, cc);
    manager_.AddItem(MEM_CACHE_PRIORITY_2, MEM_CACHE_BACK, d);
    manager_.AddItem(MEM_CACHE_PRIORITY_1, MEM_CACHE_FRONT, e);
    log_.clear();
    EXPECT_EQ(manager_.Purge(c.level, c.bytes), c.result) << c.level << " " << c.bytes;
    EXPECT_EQ(log_, c.purged) << c.level << " " << c.bytes;
    EXPECT_EQ(Lists(), c.left) << c.level << " " << c.bytes;
    for (mem_CacheItemPtr* p : {&a, &b, &cc, &d, &e}) manager_.RemoveItem(*p);
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
  EXPECT_EQ(As(growing)->Asks(), 6);  // until 60 >= 55
  EXPECT_EQ(As(stuck)->Asks(), 2);    // 5, then 5 again
}

TEST_F(CacheManagerTest, DebugPrintNamesEachListAndItsItemsFromTheHead) {
  mem_CacheManager manager("a_name_longer_than_sixteen");
  testing::internal::CaptureStdout();
  manager.DebugPrint();
  EXPECT_EQ(testing::internal::GetCapturedStdout(),
            "--- Debug Print for CacheManager: a_name_longer_th\n"
            "   ---Items in purge list PRIORITY_1\n  --Empty--\n"
            "   ---Items in purge list PRIORITY_2\n  --Empty--\n"
            "   ---Items in purge list PRIORITY_3\n  --Empty--\n"
            "   ---Items in purge list ALWAYS\n  --Empty--\n");
  EXPECT_STREQ(manager.Name(), "a_name_longer_th");
  mem_CacheItemPtr x = Item('x'), y = Item('y');
  manager.AddItem(MEM_CACHE_PRIORITY_3, MEM_CACHE_BACK, x);
  manager.AddItem(MEM_CACHE_PRIORITY_3, MEM_CACHE_FRONT, y);
  testing::internal::CaptureStdout();
  manager.DebugPrint();
  const std::string out = testing::internal::GetCapturedStdout();
  EXPECT_NE(out.find("   ---Items in purge list PRIORITY_3\nitem y\nitem x\n   ---Items in purge list ALWAYS\n"),
            std::string::npos)
      << out;
}

// Each failed request purges once, for the requested size (the element size for
// Calloc), and hands back the second attempt's null.
TEST_F(CacheManagerTest, AllocatorsPurgeOnceForTheRequestedSizeAndReturnTheRetry) {
  mem_Allocator frontDoor(&manager_);
  mem_DLAllocator general(&manager_);
  mem_Allocator unbound;
  void* kept = frontDoor.Malloc("t", 32);
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
  void* small = general.Malloc("t", 16);
  EXPECT_EQ(purgedBy([&] { return general.Realloc("t", small, kHuge); }), "qp");
  general.Free("t", small);
  EXPECT_EQ(purgedBy([&] { return unbound.Malloc("t", kHuge); }), "");
  frontDoor.Free("t", kept);  // the failed Realloc left it in place
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
