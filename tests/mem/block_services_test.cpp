// Aligned blocks, usable sizes and block ownership under each of the three
// heaps, and the heap in the child of a multithreaded fork (fresh processes:
// the heap is chosen once per process).
#include <gtest/gtest.h>

#include "support/child_process.h"

namespace {

using zmx_test::ChildResult;
using zmx_test::EnvVars;
using zmx_test::ExitedCleanly;
using zmx_test::RunProbe;

TEST(BlockServices, AlignmentUsableSizeAndOwnershipUnderEveryHeap) {
  struct Case {
    const char* heap;
    EnvVars env;
    const char* useDL;
  };
  const Case cases[] = {
      {"general", {}, "usedl=1"},
      {"general, asked for by name", {{"ZMX_CRTMALLOC", "1"}, {"ZMX_DLALLOCATOR", "1"}}, "usedl=1"},
      {"runtime", {{"ZMX_CRTMALLOC", "1"}}, "usedl=0"},
      {"guarded", {{"ZEM_DEADBEEF", "1"}}, "usedl=0"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.heap);
    const ChildResult r = RunProbe("system_heap_probe", "queries", c.env);
    EXPECT_TRUE(ExitedCleanly(r));
    EXPECT_NE(r.out.find(c.useDL), std::string::npos) << r.out;
    EXPECT_NE(r.out.find("failures=0"), std::string::npos) << r.out;
  }
}

TEST(BlockServices, ChildOfAMultithreadedForkAllocatesThroughEveryEntry) {
  const ChildResult r = RunProbe("system_heap_probe", "fork");
  EXPECT_TRUE(ExitedCleanly(r));
  EXPECT_NE(r.out.find("failures=0"), std::string::npos) << r.out;
}

}  // namespace
