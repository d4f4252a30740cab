// The allocation front door: allocator choice per environment, the fatal
// allocation before start-up, size checking, small-object routing, the
// new-handler protocol of each entry-point family and the tracker reports.
#include <gtest/gtest.h>

#include <csignal>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <new>
#include <set>
#include <vector>

#include "ZMXUTI_CoreUtils.h"
#include "mem/internal/alloc_table.h"
#include "support/child_process.h"

namespace {

using zmx_test::ChildResult;
using zmx_test::Describe;
using zmx_test::ExitedCleanly;
using zmx_test::EnvVars;
using zmx_test::RunProbe;

ChildResult Probe(const std::string& scenario, const EnvVars& env = {}, const std::vector<std::string>& args = {}) {
  return RunProbe("front_door_probe", scenario, env, args);
}

std::string ProbeOutput(const std::string& scenario, const EnvVars& env = {}) {
  const ChildResult r = Probe(scenario, env);
  EXPECT_TRUE(ExitedCleanly(r));
  return r.out;
}

constexpr std::size_t kHuge = std::size_t{1} << 62;

// -------------------------------------------------------- fresh processes

TEST(AllocatorChoice, FollowsTheThreeVariables) {
  // The general heap reports a footprint; the runtime and guarded heaps answer
  // every statistics query with 0.
  const std::string general = "usedl=1 block=1 footprint=1\n";
  const std::string other = "usedl=0 block=1 footprint=0\n";
  const std::pair<EnvVars, std::string> cases[] = {
      {{}, general},
      {{{"ZMX_CRTMALLOC", "1"}}, other},
      {{{"ZMX_CRTMALLOC", ""}, {"ZMX_DLALLOCATOR", ""}}, general},
      {{{"ZMX_DLALLOCATOR", "1"}}, general},  // ignored without ZMX_CRTMALLOC
      {{{"ZEM_DEADBEEF", "1"}}, other},
      {{{"ZEM_DEADBEEF", "0"}, {"ZMX_CRTMALLOC", "1"}, {"ZMX_DLALLOCATOR", "1"}}, other},
  };
  for (const auto& c : cases) EXPECT_EQ(ProbeOutput("choice", c.first), c.second);
}

TEST(AllocatorChoice, AllocationBeforeStartUpIsFatalUnlessTheRuntimeHeapIsAllowed) {
  for (const char* scenario : {"new_before_init", "malloc_before_init"}) {
    const ChildResult r = Probe(scenario);
    EXPECT_FALSE(r.exited) << Describe(r);
    EXPECT_EQ(r.signal, SIGABRT);
    EXPECT_EQ(r.err, "ERROR: Memory allocation attempt before component initialization\n");
    EXPECT_EQ(r.out, "");
  }
  // With ZMX_CRTMALLOC the first allocation makes the choice, and start-up keeps
  // it even though the environment now asks for the general heap.
  EXPECT_EQ(ProbeOutput("new_before_init", {{"ZMX_CRTMALLOC", "1"}}), "allocated=7 usedl=0\nafter_init usedl=0\n");
  EXPECT_EQ(ProbeOutput("new_before_init", {{"ZMX_CRTMALLOC", "1"}, {"ZMX_DLALLOCATOR", "1"}}),
            "allocated=7 usedl=1\nafter_init usedl=1\n");
}

TEST(SizeCheck, OnlyValuesBeginningWithUpperCaseOnCheck) {
  const std::string general = "ZEMRIX class with sizeof(class) < 129 should use mem_AllocationOperatorsTiny\n";
  const std::string tiny = "ZEMRIX class with sizeof(class) > 128 should use mem_AllocationOperatorsTiny\n";
  struct Case {
    const char* entry;
    const char* size;
    const std::string* abortText;  // null: the allocation succeeds
  };
  const Case checked[] = {
      {"throw", "128", &general},   {"throw", "1", &general},      {"throw", "129", nullptr},
      {"nothrow", "100", &general}, {"nothrow", "4096", nullptr},  {"tinythrow", "129", &tiny},
      {"tinythrow", "128", nullptr}, {"tinynothrow", "1000", &tiny}, {"tinynothrow", "1", nullptr},
      {"throw", "0", nullptr},      {"tinythrow", "0", nullptr},   {"builtin", "5", nullptr},
  };
  for (const char* value : {"ON", "ONWARDS"}) {
    for (const Case& c : checked) {
      const ChildResult r = Probe("size_check", {{"ZMX_DEBUG_MEMSIZE", value}}, {c.entry, c.size});
      if (c.abortText != nullptr) {
        EXPECT_EQ(r.signal, SIGABRT) << c.entry << " " << c.size << " " << Describe(r);
        EXPECT_EQ(r.err, *c.abortText) << c.entry << " " << c.size;
      } else {
        EXPECT_EQ(r.out, std::string("allocated ") + c.entry + " " + c.size + " 1\n") << Describe(r);
      }
    }
  }
  for (const EnvVars& env : {EnvVars{}, EnvVars{{"ZMX_DEBUG_MEMSIZE", "on"}}, EnvVars{{"ZMX_DEBUG_MEMSIZE", "O"}},
                             EnvVars{{"ZMX_DEBUG_MEMSIZE", "OFF"}}}) {
    EXPECT_EQ(ProbeOutput("size_check", env).size(), 0u);  // no arguments: nothing to do
    const ChildResult r1 = Probe("size_check", env, {"throw", "8"});
    const ChildResult r2 = Probe("size_check", env, {"tinythrow", "100000"});
    EXPECT_EQ(r1.out, "allocated throw 8 1\n") << Describe(r1);
    EXPECT_EQ(r2.out, "allocated tinythrow 100000 1\n") << Describe(r2);
  }
}

TEST(SmallObjectRouting, ModesSwitchTheAllocatingSideOnlyAndBlocksStillGoHome) {
  const std::string routed =
      "mode1 new=small malloc=heap\n"
      "mode1 new129=heap\n"
      "lock_calls_mode1=0\n"
      "mode2 new=small malloc=small\n"
      "mode2 calloc=heap\n"
      "lock_calls_mode2=1 lock=1\n"
      "realloc small=1 reallocs=1\n"
      "aligned16=1\n"
      "mode1_after_2 malloc=small\n"
      "mode0 new=heap malloc=heap\n"
      "allocations=4 frees=4\n";
  EXPECT_EQ(ProbeOutput("routing"), routed);
  // Forced off by the environment, or not under the general heap: nothing is routed.
  const std::string unrouted =
      "mode1 new=heap malloc=heap\n"
      "mode1 new129=heap\n"
      "lock_calls_mode1=0\n"
      "mode2 new=heap malloc=heap\n"
      "mode2 calloc=heap\n"
      "lock_calls_mode2=0 lock=0\n"
      "realloc small=0 reallocs=0\n"
      "aligned16=1\n"
      "mode1_after_2 malloc=heap\n"
      "mode0 new=heap malloc=heap\n"
      "allocations=0 frees=0\n";
  EXPECT_EQ(ProbeOutput("routing", {{"ZMX_TBMALLOC", "0x"}}), unrouted);
  EXPECT_EQ(ProbeOutput("routing", {{"ZMX_CRTMALLOC", "1"}}), unrouted);
  EXPECT_EQ(ProbeOutput("routing", {{"ZEM_DEADBEEF", "1"}}), unrouted);
  EXPECT_EQ(ProbeOutput("routing", {{"ZMX_TBMALLOC", "1"}}), routed);
}

TEST(NewHandler, EachFamilyRetriesThrowsOrReturnsNullAsDocumented) {
  EXPECT_EQ(ProbeOutput("new_handler_retry"),
            "global_new small=1 handler_calls=3\n"
            "tiny_throw small=1 handler_calls=2\n"
            "tiny_nothrow small=1 failures_left=0\n"
            "builtin_nothrow small=1 failures_left=0\n"
            "tiny_throw threw \"bad allocation\" failures_left=0\n"
            "global_new null=1\n");
}

TEST(Tracking, EveryEntryPointReportsOnlyWhileTheProcessTracks) {
  EXPECT_EQ(ProbeOutput("tracking", {{"ZEM_MEM_TRACK", ""}}),
            "prepared=1\n"
            "malloc 4611686018427387904 0\n"  // failures reported by mem_Malloc and mem_Calloc only
            "calloc 4611686018427387904 2\n"
            "malloc 40 1\n"  // class operators: through mem_Malloc and mem_Free
            "free 1 0\n"
            "malloc 200 1\n"
            "free 1 0\n"
            "malloc 0 1\n"  // mem_OperatorNewThrow(0) keeps the size
            "free 1 0\n"
            "malloc 1 1\n"  // the Builtin forms take 0 as 1
            "free 1 0\n"
            "malloc 1 1\n"
            "free 1 0\n"
            "malloc 24 1\n"
            "realloc 4000 3\n"
            "free 1 0\n"
            "free 0 0\n"
            "calloc 3 8\n"
            "release 0 0\n"
            "acquire 0 0\n"
            "free 1 0\n"
            "new 4 0\n"
            "delete 0 0\n"
            "new 1 0\n"
            "delete 0 0\n"
            "after_shutdown=[]\n");
  EXPECT_EQ(ProbeOutput("tracking"), "prepared=0\nafter_shutdown=[]\n");
}

TEST(Tracking, ReleasesAreReportedBeforeTheBlockLeavesAndNullIsNeverProbedForAPageMark) {
  // The second number of a release line counts the small-object slots already
  // given back when the report came.
  EXPECT_EQ(ProbeOutput("tracking_small", {{"ZEM_MEM_TRACK", ""}}),
            "new 32 0\n"
            "delete 0 0\n"
            "malloc 16 1\n"
            "free 1 1\n"
            "free 0 2\n"
            "realloc 40 1\n"
            "free 1 2\n");
}

TEST(Tracking, EachEntryPointSettlesItsOwnCacheAndOffIsFinal) {
  // Called while the process mode was off: silent for good. Called first after
  // the mode turned on: reporting. Every operator form has its own cache.
  EXPECT_EQ(ProbeOutput("tracking_caches"),
            "realloc 16 3\n"
            "release 0 0\n"
            "acquire 0 0\n"
            "calloc 2 4\n"
            "new 2 0\n"
            "delete 0 0\n"
            "new 3 0\n"
            "delete 0 0\n");
}

TEST(SizeCheck, EachEntryPointDecidesOnceOnItsFirstCall) {
  const std::pair<const char*, const char*> families[] = {
      {"general", "ZEMRIX class with sizeof(class) < 129 should use mem_AllocationOperatorsTiny\n"},
      {"tiny", "ZEMRIX class with sizeof(class) > 128 should use mem_AllocationOperatorsTiny\n"},
  };
  for (const auto& f : families) {
    const ChildResult r = Probe("size_check_once", {}, {f.first});
    EXPECT_EQ(r.signal, SIGABRT) << f.first << " " << Describe(r);
    EXPECT_EQ(r.out, "kept_off 1\n") << f.first;
    EXPECT_EQ(r.err, f.second) << f.first;
  }
}

TEST(SizeCheck, ClassOperatorsCheckTheirClassSize) {
  const std::string general = "ZEMRIX class with sizeof(class) < 129 should use mem_AllocationOperatorsTiny\n";
  const std::string tiny = "ZEMRIX class with sizeof(class) > 128 should use mem_AllocationOperatorsTiny\n";
  const std::pair<const char*, const std::string*> cases[] = {
      {"class_tiny", &tiny}, {"class_general", &general}, {"class_general_array", &general}};
  for (const auto& c : cases) {
    const ChildResult r = Probe("size_check", {{"ZMX_DEBUG_MEMSIZE", "ON"}}, {c.first, "0"});
    EXPECT_EQ(r.signal, SIGABRT) << c.first << " " << Describe(r);
    EXPECT_EQ(r.err, *c.second) << c.first;
  }
  EXPECT_EQ(Probe("size_check", {{"ZMX_DEBUG_MEMSIZE", "ON"}}, {"class_tiny_small", "100"}).out,
            "allocated class_tiny_small 100 1\n");
}

TEST(SmallObjectRouting, EverySwitchCallLooksAtTheEnvironmentAgain) {
  EXPECT_EQ(ProbeOutput("tbmalloc_each_call"), "before=small after=heap\n");
}

// ------------------------------------------------------------ in process

void* (*volatile g_globalNew)(std::size_t) = &::operator new;
void* (*volatile g_globalNewNoThrow)(std::size_t, const std::nothrow_t&) noexcept = &::operator new;

TEST(GlobalNew, ZeroBytesGiveDistinctUsableBlocks) {
  std::set<void*> seen;
  std::vector<void*> blocks;
  for (int i = 0; i < 100; ++i) {
    void* p = g_globalNew(0);
    ASSERT_NE(p, nullptr);
    *static_cast<char*>(p) = 'x';
    EXPECT_TRUE(seen.insert(p).second);
    blocks.push_back(p);
  }
  for (void* p : blocks) ::operator delete(p);
}

TEST(GlobalNew, ExhaustionReturnsNullInsteadOfThrowing) {
  ASSERT_EQ(std::get_new_handler(), nullptr);
  void* p = reinterpret_cast<void*>(1);
  EXPECT_NO_THROW(p = g_globalNew(kHuge));
  EXPECT_EQ(p, nullptr);
  EXPECT_EQ(g_globalNewNoThrow(kHuge, std::nothrow), nullptr);
  EXPECT_EQ(mem_Malloc(kHuge), nullptr);
  EXPECT_EQ(mem_Calloc(kHuge, 4), nullptr);
}

TEST(GlobalNew, HandlerIsCalledBeforeGivingUpAndMayThrowFromNothrowForms) {
  static int calls = 0;
  calls = 0;
  std::set_new_handler([] {
    if (++calls == 2) std::set_new_handler(nullptr);
  });
  EXPECT_EQ(g_globalNew(kHuge), nullptr);
  EXPECT_EQ(calls, 2);
  std::set_new_handler([] { throw std::bad_alloc(); });
  EXPECT_EQ(g_globalNewNoThrow(kHuge, std::nothrow), nullptr);
  EXPECT_THROW(g_globalNew(kHuge), std::bad_alloc);
  std::set_new_handler(nullptr);
}

TEST(ThrowingEntryPoints, ThrowBadAllocationWhenNoHandlerHelps) {
  auto expectBadAllocation = [](auto&& call) {
    try {
      call();
      ADD_FAILURE() << "no exception";
    } catch (const std::bad_alloc& e) {
      EXPECT_STREQ(e.what(), "bad allocation");
    }
  };
  expectBadAllocation([] { mem_OperatorNewThrow(kHuge); });
  expectBadAllocation([] { mem_OperatorNewTinyThrow(kHuge); });
  expectBadAllocation([] { mem_OperatorNewThrowBuiltin(kHuge); });
  expectBadAllocation([] { static_cast<void>(new (mem_BuiltIn) char[kHuge]); });
}

TEST(GlobalNew, EveryFormPairsWithItsDeleteAndHonoursAlignment) {
  struct alignas(256) Wide {
    char bytes[300];
  };
  for (int i = 0; i < 50; ++i) {
    Wide* w = new Wide;
    EXPECT_EQ(reinterpret_cast<std::uintptr_t>(w) % 256, 0u);
    delete w;
    Wide* ws = new Wide[3];
    EXPECT_EQ(reinterpret_cast<std::uintptr_t>(ws) % 256, 0u);
    delete[] ws;
    for (std::size_t align : {16u, 32u, 64u, 4096u}) {
      void* p = ::operator new(align * 3 + i, std::align_val_t(align));
      EXPECT_EQ(reinterpret_cast<std::uintptr_t>(p) % align, 0u);
      ::operator delete(p, align * 3 + i, std::align_val_t(align));
      void* q = ::operator new[](i, std::align_val_t(align), std::nothrow);
      ASSERT_NE(q, nullptr);
      ::operator delete[](q, std::align_val_t(align), std::nothrow);
    }
    void* s = ::operator new(i + 1);
    ::operator delete(s, static_cast<std::size_t>(i + 1));
    void* a = ::operator new[](i + 1, std::nothrow);
    ::operator delete[](a, std::nothrow);
  }
}

TEST(AllocationOperators, ClassOperatorsGoThroughTheSizeCheckingEntries) {
  struct Tiny : mem_AllocationOperatorsTiny {
    int v[4];
  };
  struct Large : mem_AllocationOperators {
    double v[40];
  };
  Tiny* t = new Tiny();
  Large* l = new Large();
  Large* ls = new Large[4];
  t->v[3] = 3;
  l->v[39] = 39;
  ls[3].v[0] = 1;
  EXPECT_EQ(t->v[3] + l->v[39] + ls[3].v[0], 43);
  delete t;
  delete l;
  delete[] ls;
}

TEST(PageMark, RecognisesOnlyAPageThatNamesItselfFollowedByTheMarkWord) {
  using zmx::mem_internal::HasSmallObjectMark;
  void* raw = std::aligned_alloc(4096, 3 * 4096);
  std::memset(raw, 0, 3 * 4096);
  auto* page = static_cast<unsigned char*>(raw) + 4096;
  auto* words = reinterpret_cast<std::uint64_t*>(page);
  words[0] = reinterpret_cast<std::uintptr_t>(page);
  words[1] = 0xABABABABu;
  for (std::size_t offset : {16u, 64u, 100u, 4095u}) EXPECT_TRUE(HasSmallObjectMark(page + offset)) << offset;
  EXPECT_FALSE(HasSmallObjectMark(page + 4096));       // the next page is not marked
  words[1] = 0xABABABABABABABABull;                      // the upper half must be zero
  EXPECT_FALSE(HasSmallObjectMark(page + 16));
  words[1] = 0xABABABABu;
  words[0] = reinterpret_cast<std::uintptr_t>(page) + 4096;  // a page naming another page
  EXPECT_FALSE(HasSmallObjectMark(page + 16));
  words[0] = 0xDEADBEEF;  // a retired page
  words[1] = 0xDEADBEEF;
  EXPECT_FALSE(HasSmallObjectMark(page + 16));
  std::free(raw);
}

}  // namespace
