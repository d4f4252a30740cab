// Start-up and shut-down: the use-counter and depth rules of the library and of
// each component, run in fresh processes so that every counter starts at zero.
#include <gtest/gtest.h>

#include "support/child_process.h"

namespace {

using zmx_test::ExitedCleanly;
using zmx_test::RunProbe;

std::string RunScenario(const std::string& scenario, const zmx_test::EnvVars& env = {}) {
  const auto result = RunProbe("startup_probe", scenario, env);
  EXPECT_TRUE(ExitedCleanly(result));
  return result.out;
}

TEST(Startup, OnlyTheBalancingCallsActAndDepthCountsSixLevels) {
  EXPECT_EQ(RunScenario("twice_up_twice_down"),
            "init1 6\ninit2 6\nfini1 6\nfini2 0\nreinit 6\n");
}

TEST(Startup, AComponentAlreadyUpIsOnlyCounted) {
  // Memory up on its own raises d1 by one; the library then starts the other four
  // plus itself; the library's shut-down leaves memory up (its counter is still 1).
  EXPECT_EQ(RunScenario("memory_first"), "mem 1\nlibrary 5\nlibrary_down 0\nmem_down -1\n");
}

TEST(Startup, UnbalancedShutDownDrivesCountersNegativeWithoutClamping) {
  EXPECT_EQ(RunScenario("finalize_before_initialize"),
            "fini 0\ninit1 0\ninit2 6\nomni_down_twice -1\nomni_up1 -1\nomni_up2 0\n");
}

TEST(Startup, EveryComponentFollowsTheSameCounterRule) {
  // From depth 10: up, up, down leaves 11; two more downs bring the counter to
  // -1 (depth 10); an up returns it to 0 without acting; the next up acts (11).
  std::string expected;
  for (int i = 0; i < 5; ++i) expected += "component" + std::to_string(i) + " 11 10 11\n";
  // All five components are up at the end, so the library start-up counts only itself.
  expected += "after_formalize 1\n";
  EXPECT_EQ(RunScenario("each_component"), expected);
}

TEST(Startup, DebugPopupFlagFollowsThePresenceOfTheVariable) {
  EXPECT_EQ(RunScenario("debug_popup"), "before 0\nafter 0\nrestarted 0\n");
  EXPECT_EQ(RunScenario("debug_popup", {{"QVL_DEBUG_POPUP", ""}}), "before 0\nafter 1\nrestarted 1\n");
}

TEST(Startup, ShutDownDestroysTheAlertListenerAndAStartUpMakesAFreshOne) {
  EXPECT_EQ(RunScenario("listener_finalized"), "before 0\narmed 1\nafter 0\nfresh armed 0\n");
}

}  // namespace
