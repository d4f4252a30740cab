// Suites of the unit-test harness: named test classes, their selection and
// arguments from a command line, and the combined result.
#include <climits>
#include <cstdio>
#include <cstring>

#include "unittest/unit_test.h"

struct uts_UnitTestSuite::Entry {
  const char* name;   // not owned
  uts_UnitTest* test; // owned
  char** args;        // built by runTests, owned; null if none
  bool selected;
};

namespace {

const char* const kStartArgs = "-start_args";
const char* const kEndArgs = "-end_args";

bool Is(const char* arg, const char* word) { return arg != nullptr && std::strcmp(arg, word) == 0; }

}  // namespace

uts_UnitTestSuite::uts_UnitTestSuite() : entries_(nullptr), count_(0) {}

uts_UnitTestSuite::~uts_UnitTestSuite() {
  for (int i = 0; i < count_; ++i) {
    delete entries_[i].test;
    mem_Free(entries_[i].args);
  }
  mem_Free(entries_);
}

void uts_UnitTestSuite::addTestClass(const char* name, uts_UnitTest* test) {
  if (test == nullptr) {
    std::fprintf(stderr, "WARNING: uts: uts_UnitTestSuite::addTestClass ignores a null test class\n");
    return;
  }
  Entry* grown = nullptr;
  if (count_ < INT_MAX) grown = static_cast<Entry*>(mem_Malloc((static_cast<size_t>(count_) + 1) * sizeof(Entry)));
  if (grown == nullptr) {
    std::fprintf(stderr, "WARNING: uts: uts_UnitTestSuite::addTestClass cannot hold another test class; %s dropped\n",
                 name ? name : "(null)");
    delete test;
    return;
  }
  if (count_ > 0) std::memcpy(grown, entries_, static_cast<size_t>(count_) * sizeof(Entry));
  grown[count_] = Entry{name, test, nullptr, false};
  mem_Free(entries_);
  entries_ = grown;
  ++count_;
}

// Vectors from an earlier run are dropped, and their classes told so, so that
// no class keeps pointing at released memory.
void uts_UnitTestSuite::ResetSelection() {
  for (int i = 0; i < count_; ++i) {
    Entry& e = entries_[i];
    e.selected = false;
    if (e.args != nullptr) {
      e.test->setArgs(0, nullptr);
      mem_Free(e.args);
      e.args = nullptr;
    }
  }
}

// Selects every class called `name`; returns the first one's index, or -1.
int uts_UnitTestSuite::SelectByName(const char* name) {
  int first = -1;
  for (int i = 0; i < count_; ++i) {
    if (entries_[i].name != nullptr && std::strcmp(entries_[i].name, name) == 0) {
      entries_[i].selected = true;
      if (first < 0) first = i;
    }
  }
  if (first < 0) std::printf("Error: \"%s\" test not found.\n", name);
  return first;
}

// Hands argv[begin..] up to "-end_args" (or argc) to entry `target` and
// returns the index after the block. Null arguments are left out.
int uts_UnitTestSuite::TakeArguments(int begin, int argc, char** argv, int target) {
  int end = begin;
  int count = 0;
  for (; end < argc && !Is(argv[end], kEndArgs); ++end)
    if (argv[end] != nullptr) ++count;
  const int next = end < argc ? end + 1 : end;

  // argv[0], the arguments, a terminating null; count + 2 <= argc, so no overflow.
  char** vector = static_cast<char**>(mem_Malloc((static_cast<size_t>(count) + 2) * sizeof(char*)));
  if (vector == nullptr) {
    std::fprintf(stderr, "WARNING: uts: no memory for the arguments of %s\n", entries_[target].name);
    return next;
  }
  int k = 0;
  vector[k++] = argv[0];
  for (int i = begin; i < end; ++i)
    if (argv[i] != nullptr) vector[k++] = argv[i];
  vector[k] = nullptr;

  Entry& e = entries_[target];
  mem_Free(e.args);  // the same class named twice with arguments: the last block wins
  e.args = vector;
  e.test->setArgs(count + 1, vector);
  return next;
}

int uts_UnitTestSuite::runTests(int argc, char** argv) {
  ResetSelection();
  if (argc <= 1 || argv == nullptr) {
    for (int i = 0; i < count_; ++i) entries_[i].selected = true;
  } else {
    int i = 1;
    while (i < argc) {
      const char* arg = argv[i++];
      if (arg == nullptr) continue;
      const int first = SelectByName(arg);
      // Only a known name takes an argument block; after an unknown one the
      // block's words are read as names like any other argument.
      if (first >= 0 && i < argc && Is(argv[i], kStartArgs)) i = TakeArguments(i + 1, argc, argv, first);
    }
  }

  int result = 0;
  for (int i = 0; i < count_; ++i) {
    Entry& e = entries_[i];
    if (!e.selected) continue;
    if (e.test->getVerbose() == 0) std::printf("[%s]\n", e.name ? e.name : "(null)");
    result |= e.test->runTests();
  }
  return result;
}
