// Test classes of the unit-test harness: the list of test functions, the
// monitor chosen from UnitTestVerbose, the run loop, and the checks behind
// UTS_CHECK and UTS_ASSERT.
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "unittest/unit_test.h"

namespace {

// The monitor of the class whose runTests is under way; the macros have no
// other way to reach it from inside a test function.
uts_UnitTestMonitor* g_currentMonitor = nullptr;

// Decimal conversion in the manner of atoi, but a value out of int range is
// clamped instead of being undefined.
int DecimalValue(const char* text) {
  const long value = std::strtol(text, nullptr, 10);
  if (value > INT_MAX) return INT_MAX;
  if (value < INT_MIN) return INT_MIN;
  return static_cast<int>(value);
}

// Restores the previous current monitor on every way out of a run.
class CurrentMonitorScope {
 public:
  explicit CurrentMonitorScope(uts_UnitTestMonitor* monitor) : saved_(g_currentMonitor) {
    g_currentMonitor = monitor;
  }
  ~CurrentMonitorScope() { g_currentMonitor = saved_; }
  CurrentMonitorScope(const CurrentMonitorScope&) = delete;
  CurrentMonitorScope& operator=(const CurrentMonitorScope&) = delete;

 private:
  uts_UnitTestMonitor* saved_;
};

}  // namespace

uts_UnitTest::uts_UnitTest()
    : testCount_(0), verbose_(0), stopOnFailure_(false), tests_(nullptr), monitor_(nullptr),
      argc_(0), argv_(nullptr) {
  const char* level = std::getenv("UnitTestVerbose");
  if (level != nullptr) {
    monitor_ = new uts_UnitTestMonitorVerbose;
    verbose_ = DecimalValue(level);
  } else {
    monitor_ = new uts_UnitTestMonitor;
  }
}

// Functors came from mem_Malloc plus placement new and are released as raw
// memory: a test program's functors own nothing, and running their
// destructors is not part of the contract. The block starts at the most
// derived object, which is not the uts_Functor part when that is not the
// first base.
static void ReleaseFunctor(uts_Functor* test) { mem_Free(dynamic_cast<void*>(test)); }

uts_UnitTest::~uts_UnitTest() {
  for (int i = 0; i < testCount_; ++i) ReleaseFunctor(tests_[i]);
  mem_Free(tests_);
  delete monitor_;
}

void uts_UnitTest::testSetUp() {}
void uts_UnitTest::testTearDown() {}

void uts_UnitTest::addTest(uts_Functor* test) {
  if (test == nullptr) {
    std::fprintf(stderr, "WARNING: uts: uts_UnitTest::addTest ignores a null test function\n");
    return;
  }
  uts_Functor** grown = nullptr;
  if (testCount_ < INT_MAX)
    grown = static_cast<uts_Functor**>(mem_Malloc((static_cast<size_t>(testCount_) + 1) * sizeof(uts_Functor*)));
  if (grown == nullptr) {
    std::fprintf(stderr, "WARNING: uts: uts_UnitTest::addTest cannot hold another test function; %s::%s dropped\n",
                 test->Owner() ? test->Owner() : "(null)", test->Name() ? test->Name() : "(null)");
    ReleaseFunctor(test);
    return;
  }
  if (testCount_ > 0) std::memcpy(grown, tests_, static_cast<size_t>(testCount_) * sizeof(uts_Functor*));
  grown[testCount_] = test;
  mem_Free(tests_);
  tests_ = grown;
  ++testCount_;
}

int uts_UnitTest::runTests() {
  CurrentMonitorScope scope(monitor_);
  monitor_->beginTesting();
  for (int i = 0; i < testCount_; ++i) {
    uts_Functor& test = *tests_[i];
    try {
      testSetUp();
    } catch (...) {
      monitor_->exceptionPrint(test.Owner(), "testSetUp");
    }
    monitor_->startTest();
    try {
      test();
    } catch (...) {
      monitor_->incrementUnitAssertFailureCount();
      monitor_->exceptionPrint(test.Owner(), test.Name());
    }
    monitor_->reportEachTest();
    try {
      testTearDown();
    } catch (...) {
      monitor_->exceptionPrint(test.Owner(), "testTearDown");
    }
    if (monitor_->getCurrentTestFailureCount() != 0 && stopOnFailure_) {
      std::printf("---Stop Testing Prematurely Due to stopOnFailure Flag Set\n");
      break;
    }
  }
  monitor_->endTesting();
  return monitor_->getTotalFailureCount();
}

uts_UnitTestMonitor* uts_UnitTest::CurrentMonitor() { return g_currentMonitor; }

bool uts_UnitTest::Check(bool passed, const char* file, int line, const char* expression) {
  uts_UnitTestMonitor* monitor = g_currentMonitor;
  if (monitor == nullptr) {
    if (!passed)
      std::printf("%s (%d) : assertion failed : %s\n", file ? file : "(null)", line,
                  expression ? expression : "(null)");
    return passed;
  }
  monitor->incrementUnitAssertCount();
  if (!passed) {
    monitor->incrementUnitAssertFailureCount();
    monitor->errorPrint(file, line, expression);
  }
  return passed;
}

void uts_UnitTest::Announce(const char* file, int line, const char* expression) {
  if (g_currentMonitor != nullptr) g_currentMonitor->expressionPrint(file, line, expression);
}
