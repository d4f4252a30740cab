// The harness's monitors: counting checks and failures, the plain one-line
// result and the verbose statistics table.
#include <climits>
#include <cstdio>

#include "unittest/unit_test.h"

namespace {

const char* Text(const char* s) { return s ? s : "(null)"; }

// Counters stop at INT_MAX rather than wrap; the warning comes once, on the
// step that reaches the limit.
void Increment(int& counter) {
  if (counter == INT_MAX) return;
  if (++counter == INT_MAX)
    std::fprintf(stderr, "WARNING: uts: a test count reached %d and stops there\n", INT_MAX);
}

void PrintRule(char c, int length) {
  std::printf("    ");
  for (int i = 0; i < length; ++i) std::putchar(c);
}

void PrintBlanks(int count) { std::printf("%*s", count, ""); }

}  // namespace

// ---- plain monitor ----

uts_UnitTestMonitor::uts_UnitTestMonitor()
    : testsRun_(0), testsPassed_(0), currentChecks_(0), totalChecks_(0), currentFailures_(0),
      totalFailures_(0) {}

uts_UnitTestMonitor::~uts_UnitTestMonitor() = default;

void uts_UnitTestMonitor::beginTesting() {}

void uts_UnitTestMonitor::reportEachTest() {
  if (currentFailures_ == 0) Increment(testsPassed_);
}

void uts_UnitTestMonitor::endTesting() {
  std::printf("%d tests run, %d tests passed\n", testsRun_, testsPassed_);
}

void uts_UnitTestMonitor::errorPrint(const char* file, int line, const char* expression) {
  std::printf("%s (%d) : assertion failed : %s\n", Text(file), line, Text(expression));
}

void uts_UnitTestMonitor::expressionPrint(const char*, int, const char*) {}

void uts_UnitTestMonitor::exceptionPrint(const char* owner, const char* what) {
  std::printf("unexpected exception in %s::%s\n", Text(owner), Text(what));
}

void uts_UnitTestMonitor::incrementUnitAssertCount() {
  Increment(currentChecks_);
  Increment(totalChecks_);
}

void uts_UnitTestMonitor::incrementUnitAssertFailureCount() {
  Increment(currentFailures_);
  Increment(totalFailures_);
}

void uts_UnitTestMonitor::startTest() {
  Increment(testsRun_);
  currentChecks_ = 0;
  currentFailures_ = 0;
}

// ---- verbose monitor ----

void uts_UnitTestMonitorVerbose::beginTesting() {
  std::printf("\n\n");
  PrintRule('=', 102);
  std::printf("\n\t");
  PrintBlanks(38);
  std::printf("Test Statistics");
  PrintBlanks(50);
  std::printf("\n");
  PrintRule('-', 102);
  std::printf("\n");
  PrintBlanks(9);
  std::printf("Test Function Number");
  PrintBlanks(8);
  std::printf("Number of Checks Within Test Function");
  PrintBlanks(9);
  std::printf("Number of Failures");
  PrintBlanks(5);
  std::printf("\n");
}

// The row shows the running totals, not the test's own counts: that is the
// table's established reading, whatever its column title says.
void uts_UnitTestMonitorVerbose::reportEachTest() {
  if (currentFailures_ == 0) Increment(testsPassed_);
  std::printf("%20d%34d%37d\n", testsRun_, totalChecks_, totalFailures_);
}

// The closing rules are one character shorter than the opening ones, as the
// table has always been printed.
void uts_UnitTestMonitorVerbose::endTesting() {
  std::printf("\n");
  PrintRule('-', 101);
  std::printf("\n%20d%34d%37d\n", testsRun_, totalChecks_, totalFailures_);
  PrintRule('=', 101);
  std::printf("\n\n");
  std::fputs(totalFailures_ != 0 ? " Test Status: FAILED \n\n" : " Test Status: PASSED \n\n", stdout);
}

void uts_UnitTestMonitorVerbose::errorPrint(const char* file, int line, const char* expression) {
  std::printf("\n");
  if (currentFailures_ == 1) std::printf("Failures in Test %d\n", testsRun_);
  std::printf("%s (%d) : assertion failed : %s\n", Text(file), line, Text(expression));
}

void uts_UnitTestMonitorVerbose::expressionPrint(const char* file, int line, const char* expression) {
  std::printf("\n%s (%d) : UTS_ASSERT expression evaluated is: %s\n", Text(file), line,
              Text(expression));
}
