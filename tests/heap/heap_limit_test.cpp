// The memory limit of the general heap in fresh processes: the strictly-less
// rule and its status, the one-call lag, recovery after release, and what the
// front door makes of a refusal; plus the first fragmentation query and the
// abort on a damaged heap.
#include <gtest/gtest.h>

#include <csignal>
#include <cstdlib>
#include <string>

#include "support/child_process.h"

namespace {

using zmx_test::Describe;
using zmx_test::ExitedCleanly;
using zmx_test::RunProbe;

// The children run under the same heap configuration as this program (the
// per-thread cache on or off).
zmx_test::EnvVars HeapConfiguration() {
  const char* cache = std::getenv("ZMX_HEAP_THREAD_CACHE");
  if (cache == nullptr) return {};
  return {{"ZMX_HEAP_THREAD_CACHE", cache}};
}

std::string Scenario(const std::string& name) {
  const auto result = RunProbe("heap_probe", name, HeapConfiguration());
  EXPECT_TRUE(ExitedCleanly(result));
  return result.out;
}

TEST(HeapLimit, ARequestReachingTheLimitExactlyIsRefusedAndHeldSpaceStillServes) {
  EXPECT_EQ(Scenario("limit_boundary"),
            "status_start 0\n"
            "exact_refused 1\n"
            "status_after_refusal -1\n"
            "small_served 1\n"
            "status_after_small -1\n"
            "footprint_unchanged 1\n"
            "one_more_allowed 1\n"
            "status_after_allowed 0\n"
            "huge_refused_status 10\n"
            "huge_refused_status 10\n"
            "huge_refused_status 10\n");
}

TEST(HeapLimit, ANewLimitIsStoredAtOnceButEnforcedFromTheNextMalloptCall) {
  EXPECT_EQ(Scenario("limit_lag"),
            "mallopt 1\n"
            "stored 1\n"
            "served_before_next_call 1\n"
            "status 0\n"
            "served_after_next_call 0\n"
            "status_after -1\n"
            "mem_MemoryLimit 1\n");
}

TEST(HeapLimit, GrowingADirectMappingIsJudgedByTheLimitAndSetsTheStatus) {
  EXPECT_EQ(Scenario("mapped_growth_status"),
            "mapped 1\n"
            "refused 1\n"
            "status_refused -1\n"
            "grown 1\n"
            "status_growth_allowed 0\n"
            "grown_again 1\n"
            "status_growth_refused -1\n"
            "footprint_only_shrank 1\n");
}

TEST(HeapLimit, AFullHeapServesAgainOnceMemoryGoesBack) {
  EXPECT_EQ(Scenario("limit_recovery"),
            "filled 1\n"
            "status_full -1\n"
            "footprint_below_limit 1\n"
            "served_after_free 1\n"
            "status_after_free 0\n"
            "big_after_release 1\n");
}

TEST(HeapLimit, FrontDoorReturnsNullThrowsBadAllocationOrRetriesThroughTheNewHandler) {
  EXPECT_EQ(Scenario("front_door_limit"),
            "mem_Malloc_null 1\n"
            "mem_ErrorMemoryLimit -1\n"
            "new_nothrow_null 1\n"
            "new_null_without_handler 1\n"
            "bad_alloc_what bad allocation\n"
            "builtin_what bad allocation\n"
            "retry_served 1\n"
            "handler_calls 1\n"
            "status_after_retry 0\n"
            "operator_new_retry_served 1\n"
            "operator_new_handler_calls 1\n");
}

// A fresh process starts with one thread, so the heap runs without its lock's
// atomics at first; they must be back as soon as a second thread exists.
TEST(HeapLock, TheLockIsBackFromTheSecondThreadOn) {
  EXPECT_EQ(Scenario("lock_after_second_thread"),
            "single_threaded_before 1\nsingle_threaded_after 0\nconsistent 1\n");
}

TEST(HeapFragmentation, ZeroBeforeAnyAllocationThenTheLargestFreeChunk) {
  EXPECT_EQ(Scenario("first_fragmentation"),
            "before_any_allocation 0\n"
            "largest_is_freed_chunk 1\n"
            "mem_FragmentationInfo 1\n");
}

TEST(HeapStatistics, ALargeFirstRequestIsCountedLikeAnyOther) {
  EXPECT_EQ(Scenario("first_request_large"),
            "footprint_taken 1\n"
            "arena_plus_mapped_is_footprint 1\n"
            "in_use_counted 1\n"
            "top_counted 1\n"
            "freed_chunk_is_largest 1\n");
}

// A double free, frees of pointers the heap never handed out (on the stack, in
// static data, from the runtime's heap, inside a block, before the heap has
// any memory) and a size word damaged by a stray byte: each stops the process
// with the heap's message before anything is written or given back.
TEST(HeapCorruption, MisuseAbortsWithTheHeapMessage) {
  const std::string notInUse = "ERROR: general heap corrupted (free of a block that is not in use)\n";
  const struct {
    const char* scenario;
    std::string message;
  } cases[] = {
      {"double_free", notInUse},
      {"double_mem_free", notInUse},
      {"free_stack_pointer", notInUse},
      {"free_zeroed_static", notInUse},
      {"free_runtime_block", notInUse},
      {"free_interior_pointer", notInUse},
      {"free_before_any_allocation", notInUse},
      {"underwrite_free", "ERROR: general heap corrupted (chunk after a freed block is damaged)\n"},
      {"underwrite_realloc", "ERROR: general heap corrupted (chunk after a reallocated block is damaged)\n"},
  };
  for (const auto& c : cases) {
    const auto result = RunProbe("heap_probe", c.scenario, HeapConfiguration());
    EXPECT_EQ(result.signal, SIGABRT) << c.scenario << ": " << Describe(result);
    EXPECT_EQ(result.err, c.message) << c.scenario;
    EXPECT_EQ(result.out.find("survived"), std::string::npos) << c.scenario;
  }
}

}  // namespace
