// The unit-test harness for the application's test programs: test functions
// (functors) grouped into test classes, classes grouped into a suite that picks
// classes and hands them arguments from the command line, and monitors that
// count checks and failures and print the result.
//
//   class GeometryTests : public uts_UnitTest {
//    public:
//     GeometryTests() {
//       addTest(uts_NewFunctor<uts_MethodFunctor<GeometryTests>>(
//           "GeometryTests", "area", this, &GeometryTests::Area));
//     }
//     void Area() { UTS_CHECK(2 * 3 == 6); }
//   };
//
//   int main(int argc, char** argv) {
//     int depth = 0;
//     UTI_CoreUtils_initialize(depth);
//     int failed;
//     {
//       uts_UnitTestSuite suite;
//       suite.addTestClass("geometry", new GeometryTests);
//       failed = suite.runTests(argc, argv);   // e.g. geometry -start_args big -end_args
//     }
//     UTI_CoreUtils_finalize(depth);
//     return failed;
//   }
//
// Every report goes to the process's standard output through printf. Warnings
// about misuse (null functors or classes, counts at their 32-bit limit) go to
// standard error and begin "WARNING: uts: ". Single-threaded.
#ifndef ZMXUTI_UNITTEST_UNIT_TEST_H
#define ZMXUTI_UNITTEST_UNIT_TEST_H

#include <new>
#include <utility>

#include "core/export.h"
#include "mem/allocation.h"

// ---------------------------------------------------------------------------
// Monitors

// Counts tests, checks and failures of one test class and prints the plain
// one-line result. Null strings given to the printing operations print as
// "(null)". Counters stop at 2147483647 (with one warning when they get there).
class ZMXUTI_API uts_UnitTestMonitor {
 public:
  uts_UnitTestMonitor();  // every count 0
  virtual ~uts_UnitTestMonitor();
  uts_UnitTestMonitor(const uts_UnitTestMonitor&) = delete;
  uts_UnitTestMonitor& operator=(const uts_UnitTestMonitor&) = delete;

  // Before the first test function: nothing.
  virtual void beginTesting();
  // After each test function: counts it as passed when it had no failure.
  virtual void reportEachTest();
  // After the last test function: "%d tests run, %d tests passed\n".
  virtual void endTesting();
  // A failed check: "%s (%d) : assertion failed : %s\n". Expects the failure
  // already counted by incrementUnitAssertFailureCount.
  virtual void errorPrint(const char* file, int line, const char* expression);
  // A UTS_ASSERT about to be evaluated: nothing.
  virtual void expressionPrint(const char* file, int line, const char* expression);
  // An exception escaped `what` of `owner`: "unexpected exception in %s::%s\n".
  virtual void exceptionPrint(const char* owner, const char* what);

  // One more check in the current test and in all tests.
  void incrementUnitAssertCount();
  // One more failure in the current test and in all tests.
  void incrementUnitAssertFailureCount();
  // A test function starts: tests run += 1, the current test's counts back to 0.
  void startTest();
  int getCurrentTestFailureCount() const { return currentFailures_; }
  int getTotalFailureCount() const { return totalFailures_; }

 protected:
  int testsRun_;         // number of the current test, 1-based once one has started
  int testsPassed_;
  int currentChecks_;    // checks in the current test
  int totalChecks_;      // checks in all tests
  int currentFailures_;  // failures in the current test
  int totalFailures_;    // failures in all tests
};

// The statistics table: a heading at the start, one row per test function with
// the running totals of checks and failures, a closing row with the totals and
// the overall status. Failed checks are printed under "Failures in Test %d"
// and each UTS_ASSERT expression is echoed before it is evaluated.
class ZMXUTI_API uts_UnitTestMonitorVerbose : public uts_UnitTestMonitor {
 public:
  void beginTesting() override;
  void reportEachTest() override;
  void endTesting() override;
  void errorPrint(const char* file, int line, const char* expression) override;
  void expressionPrint(const char* file, int line, const char* expression) override;
};

// ---------------------------------------------------------------------------
// Test functions

// One test function, supplied by the test program. The harness calls it
// through operator() and prints its owner and name when the call throws.
// Functors are handed to uts_UnitTest::addTest in memory from mem_Malloc
// (uts_NewFunctor does both steps); the test class releases that memory with
// mem_Free without running a destructor, so a functor must not own resources.
// The strings are not copied and must outlive the test class.
class ZMXUTI_API uts_Functor {
 public:
  uts_Functor(const char* owner, const char* name) : owner_(owner), name_(name) {}
  virtual void operator()() = 0;
  const char* Owner() const { return owner_; }
  const char* Name() const { return name_; }

 protected:
  ~uts_Functor() = default;  // never run by the harness

 private:
  const char* owner_;
  const char* name_;
};

// A functor that calls a member function of a test class.
template <class T>
class uts_MethodFunctor : public uts_Functor {
 public:
  uts_MethodFunctor(const char* owner, const char* name, T* object, void (T::*method)())
      : uts_Functor(owner, name), object_(object), method_(method) {}
  void operator()() override { (object_->*method_)(); }

 private:
  T* object_;
  void (T::*method_)();
};

// Builds a functor of type F in memory from mem_Malloc; null when that fails.
template <class F, class... Args>
F* uts_NewFunctor(Args&&... args) {
  void* block = mem_Malloc(sizeof(F));
  return block ? new (block) F(std::forward<Args>(args)...) : nullptr;
}

// ---------------------------------------------------------------------------
// Test classes and suites

// A test class: an ordered list of test functions run with one monitor. The
// monitor is the verbose one when the environment variable UnitTestVerbose is
// set at construction (its value, read as a decimal number, is the verbose
// level; "0" or text that is no number gives level 0), else the plain one
// with level 0.
class ZMXUTI_API uts_UnitTest {
 public:
  uts_UnitTest();
  // Releases every functor with mem_Free (no destructor runs) and the monitor.
  virtual ~uts_UnitTest();
  uts_UnitTest(const uts_UnitTest&) = delete;
  uts_UnitTest& operator=(const uts_UnitTest&) = delete;

  // Called before each test function; an exception is reported, not fatal.
  virtual void testSetUp();
  // Called after each test function; an exception is reported, not fatal.
  virtual void testTearDown();
  // Runs every test function in order of addition between the monitor's
  // beginTesting and endTesting: testSetUp, the function, reportEachTest,
  // testTearDown. An exception from set-up or tear-down is reported by
  // exceptionPrint(owner, "testSetUp" / "testTearDown"); one from the function
  // counts a failure and is reported with the functor's owner and name. With
  // stop-on-failure set, a function with failures ends the run after its
  // tear-down with "---Stop Testing Prematurely Due to stopOnFailure Flag
  // Set\n". While it runs, this class's monitor is CurrentMonitor().
  // Returns the number of failures in all tests.
  virtual int runTests();

  // Takes ownership of `test` (see uts_Functor). A null functor is ignored
  // with a warning; past 2147483647 functions, or when the list cannot grow,
  // the functor is released and dropped with a warning.
  void addTest(uts_Functor* test);
  int getVerbose() const { return verbose_; }
  void setStopOnFailure() { stopOnFailure_ = true; }
  void unsetStopOnFailure() { stopOnFailure_ = false; }
  // Stores the arguments; the vector is not copied.
  void setArgs(int argc, char** argv) {
    argc_ = argc;
    argv_ = argv;
  }
  int getArgc() const { return argc_; }
  char** getArgv() const { return argv_; }
  uts_UnitTestMonitor* getMonitor() const { return monitor_; }

  // The monitor of the test class whose runTests is under way (the innermost
  // one when runs nest), null outside any run. UTS_CHECK and UTS_ASSERT count
  // into it.
  static uts_UnitTestMonitor* CurrentMonitor();
  // UTS_CHECK's work: counts one check; when `passed` is false counts a
  // failure and calls errorPrint. Returns `passed`. With no run under way the
  // failure line is printed as the plain monitor prints it, counting nothing.
  static bool Check(bool passed, const char* file, int line, const char* expression);
  // UTS_ASSERT's first step: expressionPrint on the current monitor, if any.
  static void Announce(const char* file, int line, const char* expression);

 private:
  int testCount_;
  int verbose_;
  bool stopOnFailure_;
  uts_Functor** tests_;
  uts_UnitTestMonitor* monitor_;
  int argc_;
  char** argv_;
};

// A suite: named test classes, selected and given arguments from a command line.
class ZMXUTI_API uts_UnitTestSuite {
 public:
  uts_UnitTestSuite();
  // Deletes every test class and releases the argument vectors it built.
  ~uts_UnitTestSuite();
  uts_UnitTestSuite(const uts_UnitTestSuite&) = delete;
  uts_UnitTestSuite& operator=(const uts_UnitTestSuite&) = delete;

  // Appends `test` (owned from now on) under `name` (not copied; a null name
  // never matches an argument). A null class is ignored with a warning; past
  // 2147483647 classes, or when the list cannot grow, the class is deleted
  // with a warning.
  void addTestClass(const char* name, uts_UnitTest* test);

  // With argc <= 1 runs every class. Otherwise each argument names classes
  // (exact, case-sensitive; every class of that name is selected; an unknown
  // name prints "Error: \"%s\" test not found.\n"). A name followed by
  // "-start_args" hands the arguments up to "-end_args" (or the end) to the
  // first class of that name as the vector argv[0], arguments..., null with
  // count 1 + number of arguments; after an unknown name "-start_args" and
  // the words behind it are read as names. Null arguments are skipped. The
  // selected classes run in order of addition, each preceded by "[name]\n"
  // when its verbose level is 0. Returns the bitwise OR of the classes' results.
  int runTests(int argc, char** argv);

 private:
  struct Entry;
  void ResetSelection();
  int SelectByName(const char* name);
  int TakeArguments(int first, int argc, char** argv, int target);

  Entry* entries_;
  int count_;
};

// ---------------------------------------------------------------------------
// Checks for test functions. Both are expressions whose value is the result.
//
// UTS_CHECK(expr): evaluates expr, counts one check in the running class's
// monitor and, when expr is false, counts a failure and prints it (errorPrint
// with the file, the line and the text of expr).
// UTS_ASSERT(expr): the same, preceded by expressionPrint with the same three
// values before expr is evaluated, so the verbose monitor echoes every assert.
// Neither stops the test function.
#define UTS_CHECK(expr) \
  (uts_UnitTest::Check(static_cast<bool>(expr), __FILE__, __LINE__, #expr))
#define UTS_ASSERT(expr)                                     \
  (uts_UnitTest::Announce(__FILE__, __LINE__, #expr),        \
   uts_UnitTest::Check(static_cast<bool>(expr), __FILE__, __LINE__, #expr))

#endif  // ZMXUTI_UNITTEST_UNIT_TEST_H
