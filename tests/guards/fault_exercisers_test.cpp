// The memory-fault exercisers under the two checkers that need no tool: the
// guarded heap reports the overruns and stays silent on the other faults, and
// the stack protector ends the stack overrun. Each run is a fresh process.
#include <gtest/gtest.h>

#include <csignal>
#include <regex>
#include <string>

#include "support/child_process.h"

namespace {

using zmx_test::ChildResult;
using zmx_test::Describe;
using zmx_test::ExitedCleanly;
using zmx_test::RunProbe;

const char kMarkers[] =
    "Creating a protection page at address 0x[0-9a-f]{8}, size 16\n"
    "DESTROYING a PROTECTION PAGE ...\n"
    "Destroying a protection page at address 0x00000000, size 0\n";

TEST(FaultExercisers, GuardedHeapReportsOverrunsAndNothingElse) {
  const std::string markersThenReturn = std::string(kMarkers) + "returned\n";
  const struct {
    const char* exerciser;
    const char* err;  // pattern for the whole of standard error
    const char* out;  // pattern for the whole of standard output
  } cases[] = {
      {"mem_heap_overwrite1", "FREE:memory overwrite detected at 0x[0-9a-f]+ back end\n", "returned\n"},
      {"mem_heap_underwrite1", "FREE:memory overwrite detected at 0x[0-9a-f]+ front end\n", "returned\n"},
      {"mem_heap_read_after_free1", "", "returned\n"},
      {"mem_heap_write_after_free1", "", "returned\n"},
      {"mem_heap_umr1", "", "returned\n"},
      {"mem_heap_leak1", "", "returned\n"},
      {"mem_heap_mismatch_array_delete1", "", "returned\n"},
      {"mem_heap_mismatch_malloc_delete1", "", "returned\n"},
      {"mem_stack_umr01", "", markersThenReturn.c_str()},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.exerciser);
    const ChildResult r = RunProbe("guards_probe", "exercise", {{"ZEM_DEADBEEF", "1"}}, {c.exerciser});
    ASSERT_TRUE(ExitedCleanly(r));
    EXPECT_TRUE(std::regex_match(r.err, std::regex(c.err))) << r.err;
    EXPECT_TRUE(std::regex_match(r.out, std::regex(c.out))) << r.out;
  }
}

TEST(FaultExercisers, StackProtectorEndsTheStackOverrunAfterTheMarkers) {
  const ChildResult r = RunProbe("guards_probe", "exercise", {}, {"mem_stack_corruption01"});
  EXPECT_EQ(r.signal, SIGABRT) << Describe(r);
  EXPECT_NE(r.err.find("*** stack smashing detected ***"), std::string::npos) << r.err;
  EXPECT_TRUE(std::regex_match(r.out, std::regex(kMarkers))) << r.out;  // never "returned"
}

}  // namespace
