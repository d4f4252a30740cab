// Behaviour chosen from the environment at start-up, observed in fresh processes.
#include <gtest/gtest.h>

#include "support/child_process.h"

namespace {

using zmx_test::Describe;
using zmx_test::RunProbe;

std::string RunScenario(const std::string& scenario, const zmx_test::EnvVars& env = {}) {
  const auto result = RunProbe("i18n_probe", scenario, env);
  EXPECT_TRUE(result.exited && result.exitCode == 0) << Describe(result);
  return result.out;
}

TEST(NaturalOrderSwitch, IsOnUnlessTheVariableIsPresent) {
  EXPECT_EQ(RunScenario("natural_order"), "before 1\nafter 1\ncounted 5\nagain 1\n");
  // Presence alone turns it off, an empty value included.
  EXPECT_EQ(RunScenario("natural_order", {{"ZMX_USE_NATURAL_ORDER_SORT", ""}}),
            "before 1\nafter 0\ncounted 5\nagain 0\n");
  EXPECT_EQ(RunScenario("natural_order", {{"ZMX_USE_NATURAL_ORDER_SORT", "1"}}),
            "before 1\nafter 0\ncounted 5\nagain 0\n");
}

}  // namespace
