// The ATR_SUMMARY statistics report, byte for byte, from fresh processes whose
// environment decides at start-up whether the statistics exist.
#include <gtest/gtest.h>

#include <csignal>
#include <string>

#include "support/child_process.h"

namespace {

using zmx_test::Describe;
using zmx_test::ExitedCleanly;
using zmx_test::RunProbe;

std::string Report(int reps, int strings, int failures, int active, int bytes, int maxActive, int maxBytes,
                   const char* means) {
  char buffer[512];
  std::snprintf(buffer, sizeof buffer,
                "%8d Reps Created\n%8d Strings Created\n%8d Extension Failures\n%8d Active\n%8d Bytes in use\n"
                "%8d Maximum active\n%8d Maximum bytes in use\n",
                reps, strings, failures, active, bytes, maxActive, maxBytes);
  return buffer + std::string(means);
}

std::string RunWithSummary(const std::string& scenario) {
  const auto result = RunProbe("strings_probe", scenario, {{"ATR_SUMMARY", "1"}});
  EXPECT_TRUE(ExitedCleanly(result));
  return result.err;
}

TEST(StringSummary, CountsCreationsGrowthAndReleasesOfAMixedRun) {
  // Released inline texts: lengths 11, 21, 5 with spares 9, 31, 15.
  EXPECT_EQ(RunWithSummary("mixed"),
            "       2 Reps Created\n"
            "       3 Strings Created\n"
            "       1 Extension Failures\n"
            "       0 Active\n"
            "       0 Bytes in use\n"
            "       4 Maximum active\n"
            "      92 Maximum bytes in use\n"
            "    12.3 Mean length\n"
            "     6.6 Sigma length\n"
            "    18.3 Mean spare\n"
            "     9.3 Sigma spare\n");
}

TEST(StringSummary, AssignmentGrowthReleasesBeforeItCreates) {
  // get() releases the outgrown block before creating the new one, so the
  // maximum stays at 2 (the new text plus Replace's temporary).
  // Released inline texts: lengths 3, 2, 0 with spares 17, 18, 52.
  EXPECT_EQ(RunWithSummary("edits"), Report(0, 3, 1, 0, 0, 2, 72,
                                            "     1.7 Mean length\n     1.2 Sigma length\n"
                                            "    29.0 Mean spare\n    16.3 Sigma spare\n"));
}

TEST(StringSummary, WithoutInlineTextsTheMeansAreZero) {
  // An empty value switches the statistics on too; the adopted string is still
  // alive at shut-down.
  const auto result = RunProbe("strings_probe", "no_inline", {{"ATR_SUMMARY", ""}});
  ASSERT_TRUE(ExitedCleanly(result));
  EXPECT_EQ(result.err, Report(3, 0, 0, 1, 0, 3, 0,
                               "     0.0 Mean length\n     0.0 Sigma length\n"
                               "     0.0 Mean spare\n     0.0 Sigma spare\n"));
}

TEST(StringSummary, NoVariableNoReport) {
  for (const char* scenario : {"mixed", "no_inline"}) {
    const auto result = RunProbe("strings_probe", scenario);
    ASSERT_TRUE(ExitedCleanly(result));
    EXPECT_EQ(result.err, "") << scenario;
  }
}

TEST(StringSummary, OnlyTheLastShutDownReports) {
  EXPECT_EQ(RunWithSummary("nested"),
            "inner shut-down done\n" +
                Report(0, 1, 0, 0, 0, 1, 20,
                       "     7.0 Mean length\n     0.0 Sigma length\n    13.0 Mean spare\n     0.0 Sigma spare\n") +
                "outer shut-down done\n");
}

TEST(StringLimits, TextsBeyondTheSignedLengthAbortWithAMessage) {
  const auto result = RunProbe("strings_probe", "length_limit");
  EXPECT_FALSE(result.exited) << Describe(result);
  EXPECT_EQ(result.signal, SIGABRT) << Describe(result);
  EXPECT_EQ(result.err, "atr_StringBase: a text of 2147483647 bytes exceeds the limit of 2147483646 bytes\n");
  EXPECT_EQ(result.out, "");
}

}  // namespace
