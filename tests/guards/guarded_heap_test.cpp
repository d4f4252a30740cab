// The guarded heap of ZEM_DEADBEEF, each case in a fresh process: the reports
// of broken guards byte for byte with their addresses, the layout of a block,
// silence on intact blocks and random traffic, the refusals, and the
// zero-size calloc fault.
#include <gtest/gtest.h>

#include <csignal>
#include <cstdio>
#include <regex>
#include <sstream>
#include <string>
#include <vector>

#include "support/child_process.h"

namespace {

using zmx_test::ChildResult;
using zmx_test::Describe;
using zmx_test::EnvVars;
using zmx_test::ExitedCleanly;
using zmx_test::RunProbe;

const EnvVars kGuarded = {{"ZEM_DEADBEEF", "1"}};

// Each scenario prints the addresses its reports must name (bare hex lines);
// standard error must hold exactly those reports and the other output must match.
TEST(GuardedHeap, ReportsExactlyTheBrokenGuardsAndGoesOn) {
  struct Case {
    const char* scenario;
    EnvVars env;
    std::vector<const char*> reports;  // one per printed address, "%s" the address; null: none expected
    const char* otherOutput;
    const char* arg = "";
  };
  const char* const freeBack = "FREE:memory overwrite detected at 0x%s back end\n";
  const char* const freeFront = "FREE:memory overwrite detected at 0x%s front end\n";
  const char* const reallocFront = "REALLOC:memory overwrite detected at 0x%s front end\n";
  const char* const guards = "front=DEADBEEFDEADBEEF back=DEADBEEFDEADBEEF room=1";
  const std::string layout = std::string("calloc(3,8) size=24 ") + guards + " zeros=24\nmalloc(13) size=13 " + guards +
                             "\nmalloc(0) size=0 " + guards + "\n";
  const Case cases[] = {
      {"back_overrun", kGuarded, {freeBack}, ""},
      // The guarded heap wins whatever the other two variables ask for; without it nothing is reported.
      {"back_overrun", {{"ZEM_DEADBEEF", "0"}, {"ZMX_CRTMALLOC", "1"}, {"ZMX_DLALLOCATOR", "1"}}, {freeBack}, ""},
      {"back_overrun", {{"ZMX_CRTMALLOC", "1"}}, {nullptr}, ""},
      // The moved block has fresh guards: freeing it says nothing.
      {"front_underrun_realloc", kGuarded, {reallocFront}, "kept 1\n"},
      {"both_ends", kGuarded, {freeFront, freeBack}, ""},
      {"damaged_size", kGuarded, {freeBack, freeBack}, ""},
      // new[]/delete[], an over-aligned new/delete and a realloc of that block.
      {"operators", kGuarded, {freeBack, freeFront, freeBack}, "aligned=1\n"},
      {"quiet", kGuarded, {}, "usedl=0 footprint=0\n"},
      {"layout", kGuarded, {}, layout.c_str()},
      // Sizes that would wrap are refused; the block a failed realloc leaves is intact.
      {"overflow", kGuarded, {}, "malloc=1 calloc=1 calloc_pad=1 realloc=1\nintact!\n"},
      {"randomized", kGuarded, {}, "mismatches 0\n", "1"},
      {"randomized", kGuarded, {}, "mismatches 0\n", "987654321"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(std::string(c.scenario) + " " + c.arg);
    const ChildResult r = RunProbe("guards_probe", c.scenario, c.env, {c.arg});
    ASSERT_TRUE(ExitedCleanly(r));
    std::vector<std::string> addresses;  // the bare hex lines
    std::string rest;
    std::istringstream lines(r.out);
    for (std::string line; std::getline(lines, line);) {
      if (std::regex_match(line, std::regex("[0-9a-f]+"))) addresses.push_back(line);
      else rest += line + "\n";
    }
    ASSERT_EQ(addresses.size(), c.reports.size()) << Describe(r);
    std::string expected;
    for (std::size_t i = 0; i < addresses.size(); ++i) {
      char line[128] = "";
      if (c.reports[i] != nullptr) std::snprintf(line, sizeof line, c.reports[i], addresses[i].c_str());
      expected += line;
    }
    EXPECT_EQ(r.err, expected);
    EXPECT_EQ(rest, c.otherOutput);
  }
}

TEST(GuardedHeap, CallocOfSizeZeroDiesOfAnIntegerDivisionFault) {
  const ChildResult r = RunProbe("guards_probe", "calloc_zero_size", kGuarded);
  EXPECT_EQ(r.signal, SIGFPE) << Describe(r);
  EXPECT_EQ(r.out, "integer division\n");
}

}  // namespace
