// Running a program as a fresh process with a chosen environment, for the
// behaviour that a process decides once (allocator choice, tracking mode,
// environment switches) and for abort and exit paths.
#ifndef ZMXUTI_TESTS_SUPPORT_CHILD_PROCESS_H
#define ZMXUTI_TESTS_SUPPORT_CHILD_PROCESS_H

#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

namespace zmx_test {

struct ChildResult {
  bool exited = false;    // ended through exit()
  int exitCode = -1;      // when exited
  int signal = 0;         // when killed by a signal
  std::string out;        // everything written to standard output
  std::string err;        // everything written to standard error
};

using EnvVars = std::vector<std::pair<std::string, std::string>>;

// Runs `program` with `args`. The child sees the parent's environment without
// any of the library's own variables (ZMX_*, ZEM_*, ZEMRIX_*, QVL_*, ATR_*,
// UnitTestVerbose), plus `env`.
ChildResult RunProgram(const std::string& program, const std::vector<std::string>& args,
                       const EnvVars& env = {});

// Runs the probe program `probe` (built into tests/probes) with one scenario name.
ChildResult RunProbe(const std::string& probe, const std::string& scenario, const EnvVars& env = {},
                     const std::vector<std::string>& extraArgs = {});

// A readable one-line summary for assertion messages.
std::string Describe(const ChildResult& result);

// Success when the child exited with status 0; otherwise a failure carrying Describe(result).
::testing::AssertionResult ExitedCleanly(const ChildResult& result);

}  // namespace zmx_test

#endif  // ZMXUTI_TESTS_SUPPORT_CHILD_PROCESS_H
