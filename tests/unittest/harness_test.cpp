// The unit-test harness as a test program sees it: harness_probe (a suite of
// passing, failing, throwing, stopping and argument-printing classes) is run
// as a fresh process, and its plain and verbose reports, selection by name,
// argument vectors and exit status are compared byte for byte.
#include <climits>
#include <fstream>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "ZMXUTI_CoreUtils.h"
#include "support/child_process.h"

namespace {

using zmx_test::Describe;
using zmx_test::EnvVars;

const std::string kProbe = std::string(ZMX_PROBE_DIR) + "/harness_probe";
const std::string kSource = std::string(ZMX_SOURCE_DIR) + "/tests/probes/harness_probe.cpp";

// The line of the probe's source holding `text`.
int LineOf(const std::string& text) {
  std::ifstream in(kSource);
  std::string line;
  for (int n = 1; std::getline(in, line); ++n)
    if (line.find(text) != std::string::npos) return n;
  ADD_FAILURE() << "not in the probe: " << text;
  return 0;
}

std::string Where(const std::string& macro, const std::string& expr) {
  return kSource + " (" + std::to_string(LineOf(macro + "(" + expr + ")")) + ") : ";
}
std::string Failed(const std::string& macro, const std::string& expr) {
  return Where(macro, expr) + "assertion failed : " + expr + "\n";
}
std::string Echo(const std::string& expr) {
  return "\n" + Where("UTS_ASSERT", expr) + "UTS_ASSERT expression evaluated is: " + expr + "\n";
}
std::string Summary(int run, int passed) {
  return std::to_string(run) + " tests run, " + std::to_string(passed) + " tests passed\n";
}
std::string Row(int a, int b, int c) {
  char line[128];
  std::snprintf(line, sizeof line, "%20d%34d%37d\n", a, b, c);
  return line;
}
std::string Blanks(int n) { return std::string(n, ' '); }

std::string TableHead() {
  return "\n\n" + Blanks(4) + std::string(102, '=') + "\n\t" + Blanks(38) + "Test Statistics" + Blanks(50) +
         "\n" + Blanks(4) + std::string(102, '-') + "\n" + Blanks(9) + "Test Function Number" + Blanks(8) +
         "Number of Checks Within Test Function" + Blanks(9) + "Number of Failures" + Blanks(5) + "\n";
}
std::string TableFoot(int run, int checks, int failures) {
  return "\n" + Blanks(4) + std::string(101, '-') + "\n" + Row(run, checks, failures) + Blanks(4) +
         std::string(101, '=') + "\n\n" + (failures ? " Test Status: FAILED \n\n" : " Test Status: PASSED \n\n");
}

// The plain reports of the probe's classes, as run alone.
const std::string kPass = "[pass]\n" + Summary(2, 2);
const std::string kFail = "[fail]\n" + Failed("UTS_CHECK", "1 + 1 == 3") + Failed("UTS_CHECK", "2 + 2 == 5") +
                          Failed("UTS_ASSERT", "7 < 6") + Summary(3, 1);
const std::string kThrow = "[throw]\nunexpected exception in ThrowTest::throws\n" + Summary(2, 1);
const std::string kStop = "[stop]\ntear-down\n" + Failed("UTS_CHECK", "false") +
                          "tear-down\n---Stop Testing Prematurely Due to stopOnFailure Flag Set\n" + Summary(2, 1);
const std::string kSetUp = "[setup]\nunexpected exception in SetUpTest::testSetUp\n"
                           "unexpected exception in SetUpTest::testTearDown\n" + Summary(1, 1);
std::string Args(const std::string& shown) { return "[args]\nargc " + shown + "\n" + Summary(1, 1); }

struct ProbeRun {
  std::vector<std::string> args;
  std::string out;
  int status;  // the suite's result
};

// Returns what the run wrote on standard error.
std::string Expect(const ProbeRun& run, const EnvVars& env = {}) {
  const auto result = zmx_test::RunProgram(kProbe, run.args, env);
  const std::string label = ::testing::PrintToString(run.args);
  EXPECT_TRUE(result.exited) << label << " " << Describe(result);
  EXPECT_EQ(result.out, run.out) << label;
  EXPECT_EQ(result.exitCode, run.status) << label;
  return result.err;
}

// Null functors and classes are refused with warnings.
TEST(Harness, PlainReportsCountChecksFailuresExceptionsAndStops) {
  EXPECT_EQ(Expect({{"pass"}, kPass, 0}),
            "WARNING: uts: uts_UnitTest::addTest ignores a null test function\n"
            "WARNING: uts: uts_UnitTestSuite::addTestClass ignores a null test class\n");
  for (const ProbeRun& run : std::vector<ProbeRun>{
           {{"fail"}, kFail, 3}, {{"throw"}, kThrow, 1}, {{"stop"}, kStop, 1}, {{"setup"}, kSetUp, 0}})
    Expect(run);
}

TEST(Harness, VerboseTableShowsRunningTotalsAndEchoesAsserts) {
  const std::string failTable =
      TableHead() + Row(1, 2, 0) + "\nFailures in Test 2\n" + Failed("UTS_CHECK", "1 + 1 == 3") + "\n" +
      Failed("UTS_CHECK", "2 + 2 == 5") + Row(2, 5, 2) + Echo("7 < 6") + "\nFailures in Test 3\n" +
      Failed("UTS_ASSERT", "7 < 6") + Row(3, 6, 3) + TableFoot(3, 6, 3);
  // Any value gives the table; the level decides the bracketed name line.
  Expect({{"fail"}, failTable, 3}, {{"UnitTestVerbose", "1"}});
  Expect({{"fail"}, "[fail]\n" + failTable, 3}, {{"UnitTestVerbose", "0"}});
  const std::string passTable = TableHead() + Echo("2 * 2 == 4") + Row(1, 2, 0) + Row(2, 3, 0) + TableFoot(2, 3, 0);
  Expect({{"pass"}, "[pass]\n" + passTable, 0}, {{"UnitTestVerbose", "x7"}});
  Expect({{"pass"}, passTable, 0}, {{"UnitTestVerbose", "7"}});
}

TEST(Harness, SuiteSelectsByNameRunsInOrderOfAdditionAndOrsResults) {
  for (const ProbeRun& run : std::vector<ProbeRun>{
           {{"nosuch", "pass"}, "Error: \"nosuch\" test not found.\n" + kPass, 0},
           {{"stop", "pass"}, kPass + kStop, 1},
           {{"throw", "fail"}, kFail + kThrow, 3},  // 3 | 1, not 3 + 1
           {{"Pass"}, "Error: \"Pass\" test not found.\n", 0},
           {{}, kPass + kFail + kThrow + kStop + kSetUp + Args("0:") + Args("0:"), 3}})
    Expect(run);
}

TEST(Harness, ArgumentBlocksGoToTheFirstClassOfTheName) {
  const std::string withArgs = "3: " + kProbe + " a b (null-terminated)";
  for (const ProbeRun& run : std::vector<ProbeRun>{
           {{"args", "-start_args", "a", "b", "-end_args", "pass"}, kPass + Args(withArgs) + Args("0:"), 0},
           {{"args", "-start_args"}, Args("1: " + kProbe + " (null-terminated)") + Args("0:"), 0},
           {{"args", "-start_args", "x", "pass"}, Args("3: " + kProbe + " x pass (null-terminated)") + Args("0:"), 0},
           {{"args", "-start_args", "a", "-end_args", "args", "-start_args", "b", "-end_args"},
            Args("2: " + kProbe + " b (null-terminated)") + Args("0:"), 0},
           {{"nosuch", "-start_args", "pass", "-end_args"},  // no block without a class: all are names
            "Error: \"nosuch\" test not found.\nError: \"-start_args\" test not found.\n"
            "Error: \"-end_args\" test not found.\n" + kPass, 0},
           {{"-end_args", "pass"}, "Error: \"-end_args\" test not found.\n" + kPass, 0}})
    Expect(run);
}

// Exposes the counters so that their limit can be reached without 2^31 checks.
class NearFullMonitor : public uts_UnitTestMonitor {
 public:
  NearFullMonitor() { currentFailures_ = totalFailures_ = INT_MAX - 1; }
};

TEST(Harness, CountersStopAtTheirLimitWithOneWarning) {
  NearFullMonitor monitor;
  ::testing::internal::CaptureStderr();
  for (int i = 0; i < 3; ++i) monitor.incrementUnitAssertFailureCount();
  const std::string err = ::testing::internal::GetCapturedStderr();
  EXPECT_EQ(monitor.getCurrentTestFailureCount(), INT_MAX);
  EXPECT_EQ(monitor.getTotalFailureCount(), INT_MAX);
  EXPECT_EQ(err, "WARNING: uts: a test count reached 2147483647 and stops there\n"
                 "WARNING: uts: a test count reached 2147483647 and stops there\n");
}

TEST(Harness, ChecksOutsideARunPrintTheirFailureAndCountNothing) {
  ASSERT_EQ(uts_UnitTest::CurrentMonitor(), nullptr);
  ::testing::internal::CaptureStdout();
  const bool passed = UTS_CHECK(1 > 2);
  const bool held = UTS_ASSERT(2 > 1);
  const std::string out = ::testing::internal::GetCapturedStdout();
  EXPECT_FALSE(passed);
  EXPECT_TRUE(held);
  EXPECT_EQ(out, std::string(__FILE__) + " (" + std::to_string(__LINE__ - 5) + ") : assertion failed : 1 > 2\n");
}

}  // namespace
