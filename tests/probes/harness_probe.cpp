// A test program written the way the application writes its own: a suite of
// test classes run from the command line, exiting with the suite's result.
// Classes: pass, fail, throw, stop, setup, args (twice, the second never given
// arguments). The harness's tests read its reports.
#include <cstdio>
#include <stdexcept>

#include "ZMXUTI_CoreUtils.h"

namespace {

template <class T>
void Add(T* self, const char* owner, const char* name, void (T::*method)()) {
  self->addTest(uts_NewFunctor<uts_MethodFunctor<T>>(owner, name, self, method));
}

// A functor whose uts_Functor part is not at the start of its block.
struct Listener {
  virtual ~Listener() = default;
  virtual void Note() {}
  int notes = 0;
};
struct SecondBaseFunctor : Listener, uts_Functor {
  SecondBaseFunctor() : uts_Functor("PassTest", "secondBase") {}
  void operator()() override { UTS_CHECK(notes == 0); }
};

class PassTest : public uts_UnitTest {
 public:
  PassTest() {
    Add(this, "PassTest", "sums", &PassTest::Sums);
    addTest(uts_NewFunctor<SecondBaseFunctor>());
    addTest(nullptr);
  }
  void Sums() {
    UTS_CHECK(1 + 1 == 2);
    UTS_ASSERT(2 * 2 == 4);
  }
};

class FailTest : public uts_UnitTest {
 public:
  FailTest() {
    Add(this, "FailTest", "good", &FailTest::Good);
    Add(this, "FailTest", "twoFailures", &FailTest::TwoFailures);
    Add(this, "FailTest", "assertFails", &FailTest::AssertFails);
  }
  void Good() {
    UTS_CHECK(true);
    UTS_CHECK(3 > 2);
  }
  void TwoFailures() {
    UTS_CHECK(1 + 1 == 3);
    UTS_CHECK(0 == 0);
    UTS_CHECK(2 + 2 == 5);
  }
  void AssertFails() { UTS_ASSERT(7 < 6); }
};

class ThrowTest : public uts_UnitTest {
 public:
  ThrowTest() {
    Add(this, "ThrowTest", "throws", &ThrowTest::Throws);
    Add(this, "ThrowTest", "after", &ThrowTest::After);
  }
  void Throws() {
    UTS_CHECK(true);
    throw std::runtime_error("boom");
  }
  void After() { UTS_CHECK(true); }
};

class StopTest : public uts_UnitTest {
 public:
  StopTest() {
    setStopOnFailure();
    Add(this, "StopTest", "first", &StopTest::First);
    Add(this, "StopTest", "second", &StopTest::Second);
    Add(this, "StopTest", "never", &StopTest::Never);
  }
  void testTearDown() override { std::printf("tear-down\n"); }
  void First() { UTS_CHECK(true); }
  void Second() { UTS_CHECK(false); }
  void Never() { std::printf("never runs\n"); }
};

class SetUpTest : public uts_UnitTest {
 public:
  SetUpTest() { Add(this, "SetUpTest", "body", &SetUpTest::Body); }
  void testSetUp() override { throw 42; }
  void testTearDown() override { throw std::logic_error("tear"); }
  void Body() { UTS_CHECK(true); }
};

class ArgsTest : public uts_UnitTest {
 public:
  ArgsTest() { Add(this, "ArgsTest", "show", &ArgsTest::Show); }
  void Show() {
    std::printf("argc %d:", getArgc());
    for (int i = 0; i < getArgc(); ++i) std::printf(" %s", getArgv()[i]);
    std::printf(getArgc() > 0 && getArgv()[getArgc()] == nullptr ? " (null-terminated)\n" : "\n");
  }
};

}  // namespace

int main(int argc, char** argv) {
  int depth = 0;
  UTI_CoreUtils_initialize(depth);
  int result;
  {
    uts_UnitTestSuite suite;
    suite.addTestClass("pass", new PassTest);
    suite.addTestClass("fail", new FailTest);
    suite.addTestClass("throw", new ThrowTest);
    suite.addTestClass("stop", new StopTest);
    suite.addTestClass("setup", new SetUpTest);
    suite.addTestClass("none", nullptr);
    suite.addTestClass("args", new ArgsTest);
    suite.addTestClass("args", new ArgsTest);
    result = suite.runTests(argc, argv);
  }
  UTI_CoreUtils_finalize(depth);
  return result;
}
