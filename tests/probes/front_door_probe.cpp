// Fresh-process scenarios for the allocation front door: the allocator choice
// from the environment, allocation before start-up, size checking, the
// small-object routing (over marked test pages) and the tracker reports
// (recorded by a test sink). Each scenario prints what it observed.
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <new>

#include "ZMXUTI_CoreUtils.h"
#include "probes/probe_main.h"
#include "mem/internal/alloc_table.h"
#include "mem/internal/small_object_hooks.h"
#include "mem/internal/tracker_hooks.h"

namespace {

using namespace zmx::mem_internal;

void Up() {
  int depth = 0;
  UTI_CoreUtils_initialize(depth);
}

// Calls through a volatile pointer so the compiler cannot assume a non-null result.
void* (*volatile g_globalNew)(std::size_t) = &::operator new;

// ------------------------------------------------------------ allocator choice

void Choice() {
  Up();
  void* p = mem_Malloc(1000);
  std::printf("usedl=%d block=%d footprint=%d\n", mem_UseDL() ? 1 : 0, p != nullptr ? 1 : 0,
              mem_Footprint() > 0 ? 1 : 0);
  mem_Free(p);
}

void NewBeforeInit() {
  int* p = static_cast<int*>(g_globalNew(sizeof(int)));
  *p = 7;
  std::printf("allocated=%d usedl=%d\n", *p, mem_UseDL() ? 1 : 0);
  // The choice is made; a later start-up must not read the environment again.
  setenv("ZMX_DLALLOCATOR", "1", 1);
  setenv("ZMX_CRTMALLOC", "1", 1);
  Up();
  std::printf("after_init usedl=%d\n", mem_UseDL() ? 1 : 0);
  ::operator delete(p);
}

void MallocBeforeInit() {
  void* p = mem_Malloc(10);
  std::printf("allocated=%d\n", p != nullptr ? 1 : 0);
}

// ------------------------------------------------------------- size checking

template <std::size_t kSize>
struct TinyOfSize : mem_AllocationOperatorsTiny {
  char bytes[kSize];
};
template <std::size_t kSize>
struct GeneralOfSize : mem_AllocationOperators {
  char bytes[kSize];
};

void SizeCheck(const char* entry, std::size_t size) {
  Up();
  void* p = nullptr;
  if (std::strcmp(entry, "throw") == 0) p = mem_OperatorNewThrow(size);
  if (std::strcmp(entry, "nothrow") == 0) p = mem_OperatorNewNoThrow(size, std::nothrow);
  if (std::strcmp(entry, "tinythrow") == 0) p = mem_OperatorNewTinyThrow(size);
  if (std::strcmp(entry, "tinynothrow") == 0) p = mem_OperatorNewTinyNoThrow(size, std::nothrow);
  if (std::strcmp(entry, "builtin") == 0) p = mem_OperatorNewThrowBuiltin(size);
  if (std::strcmp(entry, "class_tiny") == 0) p = new TinyOfSize<200>;
  if (std::strcmp(entry, "class_tiny_small") == 0) p = new TinyOfSize<100>;
  if (std::strcmp(entry, "class_general") == 0) p = new GeneralOfSize<64>;
  if (std::strcmp(entry, "class_general_array") == 0) p = new GeneralOfSize<64>[2];
  std::printf("allocated %s %zu %d\n", entry, size, p != nullptr ? 1 : 0);
  mem_Free(p);
}

// ------------------------------------------------- small objects on test pages

// A stand-in small-object allocator: one marked 4096-byte page with 128-byte
// slots; it can be told to fail the next few requests.
struct TestPages {
  alignas(4096) unsigned char page[4096];
  int nextSlot = 1;
  int allocations = 0, frees = 0, reallocs = 0, lockCalls = 0, failNext = 0;
  bool lastLock = false;
} g_pages;

// Requests of up to 8 bytes get slots that are 8-byte but not 16-byte aligned,
// as the two smallest classes of the real pages do.
void* TestAllocate(std::size_t size, bool) {
  if (g_pages.failNext > 0) {
    --g_pages.failNext;
    return nullptr;
  }
  ++g_pages.allocations;
  return g_pages.page + 128 * g_pages.nextSlot++ + (size <= 8 ? 8 : 0);
}
void TestFree(void*) { ++g_pages.frees; }
void* TestReallocate(void* block, std::size_t) {
  ++g_pages.reallocs;
  return block;
}
void TestSetLocking(bool on) {
  ++g_pages.lockCalls;
  g_pages.lastLock = on;
}

void InstallTestPages() {
  std::uint64_t* words = reinterpret_cast<std::uint64_t*>(g_pages.page);
  words[0] = reinterpret_cast<std::uintptr_t>(g_pages.page);
  words[1] = 2880154539u;
  InstallSmallObjectOps(SmallObjectOps{TestAllocate, TestFree, TestReallocate, TestSetLocking});
}

bool OnTestPage(const void* p) {
  const unsigned char* c = static_cast<const unsigned char*>(p);
  return c >= g_pages.page && c < g_pages.page + sizeof g_pages.page;
}

void Show(const char* label, void* a, void* b) {
  std::printf("%s new=%s malloc=%s\n", label, OnTestPage(a) ? "small" : "heap", OnTestPage(b) ? "small" : "heap");
}

void Routing() {
  Up();
  InstallTestPages();
  mem_TBAllocator(1);
  void* n1 = ::operator new(100);
  void* m1 = mem_Malloc(100);
  Show("mode1", n1, m1);
  void* big = ::operator new(129);
  std::printf("mode1 new129=%s\n", OnTestPage(big) ? "small" : "heap");
  ::operator delete(big);
  mem_TBThreadLock(true);
  std::printf("lock_calls_mode1=%d\n", g_pages.lockCalls);
  mem_TBAllocator(2);
  void* n2 = ::operator new[](128);
  void* m2 = mem_Malloc(0);
  Show("mode2", n2, m2);
  void* c2 = mem_Calloc(1, 16);
  std::printf("mode2 calloc=%s\n", OnTestPage(c2) ? "small" : "heap");
  mem_TBThreadLock(true);
  std::printf("lock_calls_mode2=%d lock=%d\n", g_pages.lockCalls, g_pages.lastLock ? 1 : 0);
  void* r = mem_Realloc(m2, 20);
  std::printf("realloc small=%d reallocs=%d\n", OnTestPage(r) ? 1 : 0, g_pages.reallocs);
  // An over-aligned request never gets a slot of lesser alignment.
  void* a16 = ::operator new(4, std::align_val_t(16));
  std::printf("aligned16=%d\n", reinterpret_cast<std::uintptr_t>(a16) % 16 == 0 ? 1 : 0);
  ::operator delete(a16, std::align_val_t(16));
  mem_TBAllocator(1);  // mode 1 leaves mem_Malloc routing as mode 2 set it
  void* m3 = mem_Malloc(50);
  std::printf("mode1_after_2 malloc=%s\n", OnTestPage(m3) ? "small" : "heap");
  mem_TBAllocator(0);
  void* n4 = ::operator new(16);
  void* m4 = mem_Malloc(16);
  Show("mode0", n4, m4);
  // Blocks handed out before the switch-off still go home.
  ::operator delete(n1);
  ::operator delete[](n2);
  mem_Free(r);
  mem_Free(m3);
  ::operator delete(n4);
  mem_Free(m4);
  mem_Free(m1);
  mem_Free(c2);
  std::printf("allocations=%d frees=%d\n", g_pages.allocations, g_pages.frees);
}

void NewHandlerRetry() {
  Up();
  InstallTestPages();
  mem_TBAllocator(2);
  static int handlerCalls = 0;
  std::set_new_handler([] { ++handlerCalls; });
  g_pages.failNext = 3;
  void* p = ::operator new(64);
  std::printf("global_new small=%d handler_calls=%d\n", OnTestPage(p) ? 1 : 0, handlerCalls);
  handlerCalls = 0;
  g_pages.failNext = 2;
  p = mem_OperatorNewTinyThrow(64);
  std::printf("tiny_throw small=%d handler_calls=%d\n", OnTestPage(p) ? 1 : 0, handlerCalls);
  std::set_new_handler(nullptr);
  // Without a handler the NoThrow forms keep trying until a block comes.
  g_pages.failNext = 5;
  p = mem_OperatorNewTinyNoThrow(64, std::nothrow);
  std::printf("tiny_nothrow small=%d failures_left=%d\n", OnTestPage(p) ? 1 : 0, g_pages.failNext);
  g_pages.failNext = 1;
  p = mem_OperatorNewNoThrowBuiltin(64);
  std::printf("builtin_nothrow small=%d failures_left=%d\n", OnTestPage(p) ? 1 : 0, g_pages.failNext);
  // ... while the Throw forms throw at the first failure, and global new returns null.
  g_pages.failNext = 1;
  try {
    mem_OperatorNewTinyThrow(64);
    std::printf("tiny_throw returned\n");
  } catch (const std::bad_alloc& e) {
    std::printf("tiny_throw threw \"%s\" failures_left=%d\n", e.what(), g_pages.failNext);
  }
  g_pages.failNext = 1;
  std::printf("global_new null=%d\n", g_globalNew(64) == nullptr ? 1 : 0);
}

// -------------------------------------------------------- tracker reports

struct RecordingSink final : TrackerSink {
  char log[4096] = {};
  int prepared = 0;
  void Add(const char* kind, std::size_t a = 0, std::size_t b = 0) {
    char line[96];
    std::snprintf(line, sizeof line, "%s %zu %zu\n", kind, a, b);
    std::strncat(log, line, sizeof log - std::strlen(log) - 1);
  }
  // Releases log how many test-page slots were already given back when the
  // report came, which shows whether the report preceded the release.
  void RecordMalloc(void* block, std::size_t size) override { Add("malloc", size, block != nullptr ? 1 : 0); }
  void RecordFree(void* block) override { Add("free", block == nullptr ? 0 : 1, g_pages.frees); }
  void RecordNew(void*, std::size_t size) override { Add("new", size); }
  void RecordDelete(void*) override { Add("delete", g_pages.frees); }
  void RecordRealloc(void* block, void* old, std::size_t size) override {
    Add("realloc", size, (block != nullptr ? 1 : 0) + (old != nullptr ? 2 : 0));
  }
  void RecordCalloc(void*, std::size_t count, std::size_t size) override { Add("calloc", count, size); }
  void RecordValloc(void*, std::size_t size) override { Add("valloc", size); }
  void RecordRelease(void*) override { Add("release"); }
  void RecordAcquire(void*) override { Add("acquire"); }
  void PrepareThread() override { ++prepared; }
} g_sink;

struct TinyObject : mem_AllocationOperatorsTiny {
  char bytes[40];
};
struct LargeObject : mem_AllocationOperators {
  char bytes[200];
};
constexpr std::size_t kHuge = std::size_t{1} << 62;

void Tracking() {
  InstallTrackerSink(&g_sink);
  Up();
  // Failed requests: mem_Malloc and mem_Calloc report the null result, global new reports nothing.
  mem_Malloc(kHuge);
  mem_Calloc(kHuge, 2);
  if (g_globalNew(kHuge) != nullptr) std::printf("huge new succeeded\n");
  // Class operators and the size-checking entries allocate through mem_Malloc and free through mem_Free.
  delete new TinyObject;
  delete new LargeObject;
  mem_Free(mem_OperatorNewThrow(0));         // size 0 passed on unchanged
  mem_Free(mem_OperatorNewThrowBuiltin(0));  // size 0 taken as 1
  mem_Free(new (mem_BuiltIn) char[0]);
  void* a = mem_Malloc(24);
  a = mem_Realloc(a, 4000);
  mem_Free(a);
  mem_Free(nullptr);
  void* c = mem_Calloc(3, 8);
  mem_Release(c);
  mem_Acquire(c);
  mem_cFree(mem_cMalloc(8));  // never tracked
  mem_Free(c);
  void* n = g_globalNew(4);
  ::operator delete(n);
  void* arr = ::operator new[](0);
  ::operator delete[](arr);
  ::operator delete(static_cast<void*>(nullptr));  // null is ignored before any report
  std::printf("prepared=%d\n%s", g_sink.prepared, g_sink.log);
  // A process mode that leaves "on" stops every call site.
  SetProcessTrackingMode(kTrackingShutDown);
  std::free(nullptr);
  g_sink.log[0] = '\0';
  mem_Free(mem_Malloc(8));
  ::operator delete(g_globalNew(2));
  std::printf("after_shutdown=[%s]\n", g_sink.log);
}

// Releases reported before the block leaves; null and low addresses are not
// looked at for a page mark by mem_Free and mem_Realloc.
void TrackingSmall() {
  InstallTrackerSink(&g_sink);
  Up();
  InstallTestPages();
  mem_TBAllocator(2);
  ::operator delete(::operator new(32));
  mem_Free(mem_Malloc(16));
  mem_Free(nullptr);
  mem_Free(mem_Realloc(nullptr, 40));
  std::printf("%s", g_sink.log);
}

// Each entry point caches the process mode on its first call; a cached "off"
// is final, while an entry point called for the first time later takes the
// process mode as it is then.
void TrackingCaches() {
  int depth = 0;
  mem_initialize(depth);  // memory only: no other component allocates first
  InstallTrackerSink(&g_sink);
  mem_Free(mem_Malloc(8));
  ::operator delete(g_globalNew(8));
  ::operator delete[](::operator new[](8, std::nothrow));
  SetProcessTrackingMode(kTrackingOn);
  void* m = mem_Malloc(8);          // cached off
  m = mem_Realloc(m, 16);           // first call: on
  mem_Release(m);
  mem_Acquire(m);
  mem_Free(m);                      // cached off
  mem_Free(mem_Calloc(2, 4));       // calloc on, free off
  ::operator delete(g_globalNew(1));                                       // both off
  ::operator delete(::operator new(2, std::nothrow), std::nothrow);        // both on
  ::operator delete[](::operator new[](3));                                // new on, delete off
  ::operator delete[](::operator new[](4, std::nothrow), std::nothrow);   // new off, delete on
  std::printf("%s", g_sink.log);
}

// The size-check state of an entry point is settled by its first call.
void SizeCheckOnce(const char* family) {
  Up();
  const bool tiny = std::strcmp(family, "tiny") == 0;
  const std::size_t wrong = tiny ? 200 : 8;  // a misuse once checking is on
  void* p = tiny ? mem_OperatorNewTinyThrow(wrong) : mem_OperatorNewThrow(wrong);
  mem_Free(p);
  setenv("ZMX_DEBUG_MEMSIZE", "ON", 1);
  p = tiny ? mem_OperatorNewTinyThrow(wrong) : mem_OperatorNewThrow(wrong);
  std::printf("kept_off %d\n", p != nullptr ? 1 : 0);
  std::fflush(stdout);
  mem_Free(p);
  // The NoThrow form of the same family has not decided yet: it checks now.
  p = tiny ? mem_OperatorNewTinyNoThrow(wrong, std::nothrow) : mem_OperatorNewNoThrow(wrong, std::nothrow);
  std::printf("nothrow allocated %d\n", p != nullptr ? 1 : 0);
}

// ZMX_TBMALLOC is looked at by every mem_TBAllocator call.
void TbMallocEachCall() {
  Up();
  InstallTestPages();
  mem_TBAllocator(2);
  void* a = mem_Malloc(10);
  setenv("ZMX_TBMALLOC", "0", 1);
  mem_TBAllocator(2);
  void* b = mem_Malloc(10);
  std::printf("before=%s after=%s\n", OnTestPage(a) ? "small" : "heap", OnTestPage(b) ? "small" : "heap");
  mem_Free(b);
  mem_Free(a);
}

const zmx_probe::Scenario kScenarios[] = {
    {"choice", Choice},
    {"new_before_init", NewBeforeInit},
    {"malloc_before_init", MallocBeforeInit},
    {"size_check", [] {
       if (zmx_probe::ArgCount() > 3) SizeCheck(zmx_probe::Arg(2), std::strtoull(zmx_probe::Arg(3), nullptr, 10));
     }},
    {"routing", Routing},
    {"new_handler_retry", NewHandlerRetry},
    {"tracking", Tracking},
    {"tracking_small", TrackingSmall},
    {"tracking_caches", TrackingCaches},
    {"size_check_once", [] {
       if (zmx_probe::ArgCount() > 2) SizeCheckOnce(zmx_probe::Arg(2));
     }},
    {"tbmalloc_each_call", TbMallocEachCall},
};

}  // namespace

int main(int argc, char** argv) { return zmx_probe::Dispatch(argc, argv, kScenarios); }
