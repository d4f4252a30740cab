// Each memory-fault exerciser under valgrind memcheck, one run per exerciser:
// memcheck must name the exerciser's fault class. The process runs on the
// runtime heap (ZMX_CRTMALLOC), whose blocks memcheck tracks one by one.
#include <gtest/gtest.h>

#include <unistd.h>

#include <cstdlib>
#include <sstream>
#include <string>
#include <vector>

#include "support/child_process.h"

namespace {

using zmx_test::ChildResult;
using zmx_test::Describe;

struct Case {
  const char* exerciser;
  const char* fault;   // memcheck's name for the fault class
  const char* detail;  // where memcheck places it
  // Mismatched releases are only visible when memcheck serves the library's
  // own global operators; otherwise they keep theirs, which all end in the
  // runtime's malloc and free.
  bool memcheckServesOperators;
};

std::ostream& operator<<(std::ostream& out, const Case& c) { return out << c.exerciser; }

const Case kCases[] = {
    {"mem_heap_overwrite1", "Invalid write of size 1", "0 bytes after a block of size 10 alloc'd", false},
    {"mem_heap_underwrite1", "Invalid write of size 1", "1 bytes before a block of size 10 alloc'd", false},
    {"mem_heap_read_after_free1", "Invalid read of size 1", "48 bytes inside a block of size 64 free'd", false},
    {"mem_heap_write_after_free1", "Invalid write of size 1", "48 bytes inside a block of size 64 free'd", false},
    {"mem_heap_double_free1", "Invalid free() / delete / delete[] / realloc()",
     "0 bytes inside a block of size 32 free'd", false},
    {"mem_heap_umr1", "Conditional jump or move depends on uninitialised value(s)", "mem_heap_umr1", false},
    {"mem_heap_leak1", "definitely lost", "100 bytes in 1 blocks are definitely lost", false},
    {"mem_heap_mismatch_array_delete1", "Mismatched free() / delete / delete []", "block of size 40 alloc'd", true},
    {"mem_heap_mismatch_malloc_delete1", "Mismatched free() / delete / delete []", "block of size 4 alloc'd", true},
    {"mem_stack_umr01", "Conditional jump or move depends on uninitialised value(s)", "mem_stack_umr01", false},
};

std::string FindValgrind() {
  const char* path = std::getenv("PATH");
  std::istringstream dirs(path != nullptr ? path : "");
  for (std::string dir; std::getline(dirs, dir, ':');) {
    const std::string candidate = dir + "/valgrind";
    if (!dir.empty() && access(candidate.c_str(), X_OK) == 0) return candidate;
  }
  return "";
}

// Runs guards_probe with `probeArgs` under memcheck; errors end it with status 99.
ChildResult RunUnderMemcheck(const std::string& valgrind, const char* operatorSynonyms,
                             const std::vector<std::string>& probeArgs, const zmx_test::EnvVars& env) {
  std::vector<std::string> args = {"-q", "--error-exitcode=99", "--leak-check=full",
                                   std::string("--soname-synonyms=somalloc=") + operatorSynonyms,
                                   std::string("--suppressions=") + ZMX_SOURCE_DIR + "/tools/valgrind.supp",
                                   std::string(ZMX_PROBE_DIR) + "/guards_probe"};
  args.insert(args.end(), probeArgs.begin(), probeArgs.end());
  return zmx_test::RunProgram(valgrind, args, env);
}

class MemcheckNamesTheFault : public ::testing::TestWithParam<Case> {};

TEST_P(MemcheckNamesTheFault, OfEachExerciser) {
  const std::string valgrind = FindValgrind();
  if (valgrind.empty()) GTEST_SKIP() << "valgrind is not installed";
  const Case& c = GetParam();
  const ChildResult r =
      RunUnderMemcheck(valgrind, c.memcheckServesOperators ? "libZMXUTI_CoreUtils.so*" : "nouserintercepts",
                       {"exercise", c.exerciser}, {{"ZMX_CRTMALLOC", "1"}});
  EXPECT_TRUE(r.exited && r.exitCode == 99) << Describe(r);
  EXPECT_NE(r.err.find(c.fault), std::string::npos) << r.err;
  EXPECT_NE(r.err.find(c.detail), std::string::npos) << r.err;
  EXPECT_NE(r.out.find("returned\n"), std::string::npos) << r.out;
}

// Damaged size words send the guarded heap's back check astray; it must still
// read nothing outside the runtime blocks it handed out.
TEST(GuardedHeapUnderMemcheck, DamagedSizeWordsReadNothingOutsideTheBlocks) {
  const std::string valgrind = FindValgrind();
  if (valgrind.empty()) GTEST_SKIP() << "valgrind is not installed";
  const ChildResult r = RunUnderMemcheck(valgrind, "nouserintercepts", {"damaged_size"}, {{"ZEM_DEADBEEF", "1"}});
  EXPECT_TRUE(r.exited && r.exitCode == 0) << Describe(r);
  EXPECT_EQ(r.err.find("Invalid"), std::string::npos) << r.err;
}

// Printing a case names its exerciser, which ctest then shows in the test's name.
INSTANTIATE_TEST_SUITE_P(Exercisers, MemcheckNamesTheFault, ::testing::ValuesIn(kCases));

}  // namespace
