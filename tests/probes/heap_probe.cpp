// Fresh-process scenarios for the general heap: the memory limit and its lag,
// the limit seen through the front door (null, bad_alloc, new-handler retry),
// the first fragmentation query, the abort on a damaged heap, the heap's lock
// coming back once a second thread exists, and the per-thread cache's choice,
// its return on a refusal and on trim.
// Prints one "name value" line per observation.
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <sys/single_threaded.h>

#include <atomic>
#include <new>
#include <random>
#include <thread>
#include <vector>

#include <sys/wait.h>
#include <unistd.h>

#include "ZMXUTI_CoreUtils.h"
#include "mem/heap/internal/general_heap_check.h"
#include "mem/heap/internal/thread_cache.h"
#include "probes/probe_main.h"

namespace {

constexpr std::size_t kBig = std::size_t(1) << 20;  // served by a direct mapping

void Show(const char* what, long long value) { std::printf("%s %lld\n", what, value); }

void Up() { zmx_probe::BringUp(UTI_CoreUtils_initialize); }

// Makes the stored limit the one in force: the second dlmallopt call copies it.
void SetLimitInForce(std::size_t limit) {
  dlmallopt(-5, static_cast<int>(limit));
  dlmallopt(-3, 262144);
}

// Bytes of footprint that one kBig request adds (its mapping).
std::size_t MappingCost() {
  const std::size_t before = dlmalloc_footprint();
  void* p = dlmalloc(kBig);
  const std::size_t cost = dlmalloc_footprint() - before;
  dlfree(p);
  return cost;
}

void LimitBoundary() {
  Up();
  dlfree(dlmalloc(20000));  // leaves free space held in the top chunk
  const std::size_t cost = MappingCost();
  const std::size_t footprint = dlmalloc_footprint();
  Show("status_start", error_memory_limit());
  SetLimitInForce(footprint + cost);  // footprint + cost == limit: refused
  void* refused = dlmalloc(kBig);
  Show("exact_refused", refused == nullptr);
  Show("status_after_refusal", error_memory_limit());
  void* small = dlmalloc(64);  // fits in the space already held
  Show("small_served", small != nullptr);
  Show("status_after_small", error_memory_limit());
  Show("footprint_unchanged", dlmalloc_footprint() == footprint);
  SetLimitInForce(footprint + cost + 1);
  void* allowed = dlmalloc(kBig);
  Show("one_more_allowed", allowed != nullptr);
  Show("status_after_allowed", error_memory_limit());
  // With the limit gone, a request no system can serve is a failed system
  // request that passed the rule: the status reads 0, whatever came before.
  const std::size_t huge[] = {std::size_t(1) << 59, std::size_t(1) << 60, std::size_t(1) << 63};
  for (std::size_t size : huge) {
    SetLimitInForce(footprint + cost);
    dlfree(dlmalloc(kBig));  // refused: status -1
    SetLimitInForce(0);
    Show("huge_refused_status", (dlmalloc(size) == nullptr ? 10 : 20) + error_memory_limit());
  }
  dlfree(allowed);
  dlfree(small);
}

void LimitLag() {
  Up();
  dlfree(dlmalloc(64));  // the heap's first run exists, so kBig gets a mapping
  const std::size_t limit = dlmalloc_footprint() + 4096;
  Show("mallopt", dlmallopt(-5, static_cast<int>(limit)));
  Show("stored", dlmalloc_memory_limit() == limit);
  void* p = dlmalloc(kBig);  // not yet in force
  Show("served_before_next_call", p != nullptr);
  Show("status", error_memory_limit());
  dlfree(p);
  dlmallopt(-1, 2097152);  // any call brings the limit into force
  p = dlmalloc(kBig);
  Show("served_after_next_call", p != nullptr);
  Show("status_after", error_memory_limit());
  Show("mem_MemoryLimit", mem_MemoryLimit() == limit);
}

// The heap fills up to its limit, refuses, and serves again once blocks go back.
void LimitRecovery() {
  Up();
  SetLimitInForce(dlmalloc_footprint() + 16 * kBig);
  std::vector<void*> blocks;
  while (void* p = dlmalloc(kBig / 2 + 4096)) blocks.push_back(p);
  Show("filled", blocks.size() >= 20 && blocks.size() <= 32);
  Show("status_full", error_memory_limit());
  Show("footprint_below_limit", dlmalloc_footprint() < dlmalloc_memory_limit());
  dlfree(blocks.back());
  blocks.pop_back();
  void* again = dlmalloc(kBig / 2 + 4096);
  Show("served_after_free", again != nullptr);
  Show("status_after_free", error_memory_limit());
  blocks.push_back(again);
  for (void* p : blocks) dlfree(p);
  dlmalloc_trim(0);
  void* big = dlmalloc(8 * kBig);
  Show("big_after_release", big != nullptr);
  dlfree(big);
}

// Growing a direct mapping is judged by the limit (the difference) and sets the
// status even when the block then moves into free space the heap already holds.
void MappedGrowthStatus() {
  Up();
  void* first = dlmalloc(64);  // the top chunk exists and is small
  const std::size_t mappedBefore = dlmallinfo().hblkhd;
  void* m1 = dlmalloc(300000);
  void* m2 = dlmalloc(300000);
  Show("mapped", dlmallinfo().hblkhd - mappedBefore >= 600000);
  dlmallopt(-3, -1);  // no mappings while the free chunks are made
  void* held[4];
  for (int i = 0; i < 2; ++i) {
    held[2 * i] = dlmalloc(700000);
    held[2 * i + 1] = dlmalloc(64);  // keeps the freed chunk out of the top
  }
  dlfree(held[0]);
  dlfree(held[2]);
  dlmallopt(-3, 262144);
  const std::size_t footprint = dlmalloc_footprint();
  // The growth (a few 64 KiB units) fits under this limit, a whole new mapping does not.
  SetLimitInForce(footprint + 200000);
  Show("refused", dlmalloc(4 * kBig) == nullptr);
  Show("status_refused", error_memory_limit());
  m1 = dlrealloc(m1, 400000);
  Show("grown", m1 != nullptr);
  Show("status_growth_allowed", error_memory_limit());
  const std::size_t footprintNow = dlmalloc_footprint();  // m1's mapping went back
  SetLimitInForce(footprintNow + 4096);
  m2 = dlrealloc(m2, 400000);
  Show("grown_again", m2 != nullptr);
  Show("status_growth_refused", error_memory_limit());
  Show("footprint_only_shrank", dlmalloc_footprint() < footprintNow && footprintNow < footprint);
  (void)first;
}

// A large first request still builds the heap's top chunk, so the statistics
// and the largest-free query see the memory it took.
void FirstRequestLarge() {
  Up();
  void* big = dlmalloc(300000);
  void* guard = dlmalloc(64);  // keeps big's chunk out of the top once freed
  void* bigger = dlmalloc(400000);
  const dl_mallinfo info = dlmallinfo();
  Show("footprint_taken", dlmalloc_footprint() >= 700000);
  Show("arena_plus_mapped_is_footprint", info.arena + info.hblkhd == dlmalloc_footprint());
  Show("in_use_counted", info.uordblks >= 700000);
  Show("top_counted", info.ordblks >= 1);
  dlfree(big);
  Show("freed_chunk_is_largest", dlfragmentationinfo() > 300000);
  dlfree(bigger);
  dlfree(guard);
}

int g_handlerCalls = 0;
void* g_reserve = nullptr;

void FreeReserve() {
  ++g_handlerCalls;
  mem_Free(g_reserve);
  g_reserve = nullptr;
  std::set_new_handler(nullptr);
}

// Exhaustion under the limit as every front-door form reports it.
void FrontDoorLimit() {
  Up();
  mem_Free(mem_Malloc(64));  // the heap's first run exists, so kBig gets a mapping
  g_reserve = mem_Malloc(kBig);
  mem_Mallopt(-5, static_cast<int>(mem_Footprint() + 4096));
  mem_Mallopt(-3, 262144);
  Show("mem_Malloc_null", mem_Malloc(kBig) == nullptr);
  Show("mem_ErrorMemoryLimit", mem_ErrorMemoryLimit());
  Show("new_nothrow_null", ::operator new(kBig, std::nothrow) == nullptr);
  // Through a pointer: the compiler may assume the throwing form never yields null.
  void* (*volatile plainNew)(std::size_t) = ::operator new;
  Show("new_null_without_handler", plainNew(kBig) == nullptr);
  try {
    void* p = mem_OperatorNewThrow(kBig);
    Show("throw_returned", p != nullptr);
  } catch (const std::bad_alloc& e) {
    std::printf("bad_alloc_what %s\n", e.what());
  }
  try {
    void* p = mem_OperatorNewThrowBuiltin(kBig);
    Show("builtin_returned", p != nullptr);
  } catch (const std::bad_alloc& e) {
    std::printf("builtin_what %s\n", e.what());
  }
  // A handler that gives memory back lets the retry succeed.
  std::set_new_handler(FreeReserve);
  void* p = mem_OperatorNewThrow(kBig);
  Show("retry_served", p != nullptr);
  Show("handler_calls", g_handlerCalls);
  Show("status_after_retry", mem_ErrorMemoryLimit());
  mem_Free(p);
  g_reserve = mem_Malloc(kBig);
  g_handlerCalls = 0;
  std::set_new_handler(FreeReserve);
  void* q = ::operator new(kBig);
  Show("operator_new_retry_served", q != nullptr);
  Show("operator_new_handler_calls", g_handlerCalls);
  ::operator delete(q);
}

void FirstFragmentation() {
  Show("before_any_allocation", static_cast<long long>(dlfragmentationinfo()));
  Up();
  void* a = dlmalloc(100);
  void* b = dlmalloc(5000);
  void* c = dlmalloc(100);
  const std::size_t chunk = dlmalloc_usable_size(b) + sizeof(std::size_t);
  dlfree(b);
  Show("largest_is_freed_chunk", dlfragmentationinfo() == chunk);
  Show("mem_FragmentationInfo", mem_FragmentationInfo() == chunk);
  dlfree(a);
  dlfree(c);
}

void DoubleFree() {
  Up();
  void* keep = dlmalloc(200);
  void* p = dlmalloc(200);
  void* keep2 = dlmalloc(200);
  dlfree(p);
  std::fflush(stdout);
  dlfree(p);
  Show("survived", keep != nullptr && keep2 != nullptr);
}

// A stray byte written over the top of a block's size word, found by free
// (the library's own exerciser) or by realloc.
void UnderwriteThenFree() {
  Up();
  std::fflush(stdout);
  mem_heap_underwrite1();
  Show("survived", 1);
}

void UnderwriteThenRealloc() {
  Up();
  void* keep = dlmalloc(200);
  char* block = static_cast<char*>(dlmalloc(10));
  block[-1] = 'X';
  std::fflush(stdout);
  Show("survived", dlrealloc(block, 100) != nullptr && keep != nullptr);
}

// Frees of pointers the heap never handed out. Each must stop the process with
// the heap's message before anything is written or given back to the system.
alignas(4096) unsigned char g_zeroPage[8192];

void ForeignFree(void* p) {
  Up();
  void* keep = dlmalloc(200);
  std::fflush(stdout);
  dlfree(p);
  Show("survived", keep != nullptr);
}

void FreeOfStackPointer() {
  alignas(16) unsigned char local[256];
  std::memset(local, 0x5A, sizeof local);
  ForeignFree(local + 128);
}

// Zeroed memory reads as a directly mapped chunk at offset 0.
void FreeOfZeroedStatic() { ForeignFree(g_zeroPage + 4096 + 16); }

void FreeOfRuntimeBlock() {
  void* p = std::malloc(200);
  std::memset(p, 0, 200);
  ForeignFree(p);
}

// A pointer into a block whose preceding words look like a direct mapping
// (both in-use bits clear) over pages the heap still uses.
void FreeOfInteriorPointer() {
  Up();
  unsigned char* block = static_cast<unsigned char*>(dlmemalign(4096, 4 * 4096));
  std::memset(block, 0, 4 * 4096);
  const std::size_t fake[2] = {0, 8192};  // offset 0, size 8192, not in use
  std::memcpy(block + 4096, fake, sizeof fake);
  ForeignFree(block + 4096 + 2 * sizeof(std::size_t));
}

void FreeBeforeAnyAllocation() {
  alignas(16) unsigned char local[64] = {};
  std::fflush(stdout);
  dlfree(local + 32);
  Show("survived", 1);
}

// Blocks taken while the process has one thread (the heap then skips its
// lock's atomics) are freed by the main thread while three more threads churn
// the heap: from the second thread on, every operation must be locked again.
void LockAfterSecondThread() {
  Up();
  std::vector<void*> early;
  for (int i = 0; i < 20000; ++i) early.push_back(dlmalloc(16 + static_cast<std::size_t>(i % 600)));
  Show("single_threaded_before", __libc_single_threaded != 0);
  auto churn = [](unsigned seed) {
    std::mt19937 rng(seed);
    std::vector<unsigned char*> mine(256, nullptr);
    for (int i = 0; i < 300000; ++i) {
      unsigned char*& slot = mine[rng() % mine.size()];
      if (slot != nullptr && slot[0] != static_cast<unsigned char>(seed)) std::abort();  // overwritten by another thread
      dlfree(slot);
      slot = static_cast<unsigned char*>(dlmalloc(1 + rng() % 700));
      slot[0] = static_cast<unsigned char>(seed);
    }
    for (unsigned char* p : mine) dlfree(p);
  };
  std::vector<std::thread> threads;
  for (unsigned t = 1; t <= 3; ++t) threads.emplace_back(churn, t);
  Show("single_threaded_after", __libc_single_threaded != 0);
  for (void* p : early) dlfree(p);
  for (auto& t : threads) t.join();
  Show("consistent", zmx::mem_internal::CheckGeneralHeap().consistent);
}

// A second mem_Free of a block (kept apart from its neighbours).
void DoubleMemFree() {
  Up();
  void* keep = mem_Malloc(200);
  void* p = mem_Malloc(200);
  void* keep2 = mem_Malloc(200);
  mem_Free(p);
  std::fflush(stdout);
  mem_Free(p);
  Show("survived", keep != nullptr && keep2 != nullptr);
}

std::size_t CachedBytes() { return zmx::mem_internal::CurrentThreadCacheView().bytes; }

void CacheChoice() {
  Up();
  mem_Free(mem_Malloc(64));
  Show("cache", zmx::mem_internal::CurrentThreadCacheView().registered);
}

// Four blocks in each of twelve cached size classes, carved side by side
// from a top chunk made large first.
std::vector<void*> CacheableRun() {
  dlfree(dlmalloc(200000));
  std::vector<void*> blocks;
  for (int cls = 0; cls < 12; ++cls)
    for (int i = 0; i < 4; ++i) blocks.push_back(mem_Malloc(static_cast<std::size_t>(1000 - 16 * cls)));
  return blocks;
}

// Every byte the heap holds is in use or cached, and the limit allows no more
// system memory: a request of a size class the cache does not hold.
void CacheLimit() {
  Up();
  const std::vector<void*> blocks = CacheableRun();
  std::vector<void*> fillers;
  fillers.reserve(1 << 20);  // the vector must not grow once the limit is in force
  SetLimitInForce(dlmalloc_footprint() + 1);
  for (std::size_t size : {std::size_t(4000), std::size_t(8)})
    while (void* p = dlmalloc(size)) fillers.push_back(p);
  for (void* p : blocks) mem_Free(p);
  Show("cached", CachedBytes() >= 30000);
  void* p = mem_Malloc(500);
  Show("served_after_return", p != nullptr);
  Show("status", mem_ErrorMemoryLimit());
  Show("cache_emptied", CachedBytes() == 0);
  mem_Free(p);
  for (void* f : fillers) dlfree(f);
}

// Cached chunks next to the top come back before the trim, which then releases them.
void CacheTrim() {
  Up();
  dlmallopt(-2, static_cast<int>(sysconf(_SC_PAGESIZE)));  // trim in pages
  const std::vector<void*> blocks = CacheableRun();
  mem_Trim(0);
  const std::size_t footprint = mem_Footprint();
  for (void* p : blocks) mem_Free(p);
  Show("cached", CachedBytes() >= 30000);
  Show("trimmed", mem_Trim(0));
  Show("footprint_dropped", mem_Footprint() < footprint);
}

// The fork steps of the cache: a second thread fills its cache after the
// prepare step; the child takes that cache back and goes on alone.
void CacheFork() {
  Up();
  std::atomic<int> phase{0};
  auto await = [&phase](int value) {
    while (phase.load() != value) std::this_thread::yield();
  };
  std::thread other([&phase, &await] {
    std::vector<void*> blocks;
    for (int i = 0; i < 64; ++i) blocks.push_back(mem_Malloc(100));
    phase.store(1);
    await(2);
    for (void* p : blocks) mem_Free(p);
    phase.store(3);
    await(4);
  });
  mem_Free(mem_Malloc(100));
  await(1);
  phase.store(2);
  await(3);
  std::fflush(stdout);
  const pid_t child = fork();
  if (child == 0) {  // the fork handlers gave every cache back, then forgot the other thread's
    const zmx::mem_internal::ThreadCacheView view = zmx::mem_internal::CurrentThreadCacheView();
    Show("child_caches", view.liveCaches);
    Show("child_holds_only_its_own", view.processBytes == view.bytes);
    std::vector<void*> blocks;
    for (int i = 0; i < 1000; ++i) blocks.push_back(mem_Malloc(static_cast<std::size_t>(16 + i % 900)));
    for (void* p : blocks) mem_Free(p);
    Show("child_heap_consistent", zmx::mem_internal::CheckGeneralHeap().consistent);
    std::fflush(stdout);
    _exit(0);
  }
  int status = 0;
  waitpid(child, &status, 0);
  Show("child_exit", WIFEXITED(status) ? WEXITSTATUS(status) : 100);
  phase.store(4);
  other.join();
  Show("parent_caches_after_join", zmx::mem_internal::CurrentThreadCacheView().liveCaches);
}

const zmx_probe::Scenario kScenarios[] = {
    {"cache_fork", CacheFork},
    {"double_mem_free", DoubleMemFree}, {"cache_choice", CacheChoice},
    {"cache_limit", CacheLimit}, {"cache_trim", CacheTrim},
    {"limit_boundary", LimitBoundary}, {"limit_lag", LimitLag},
    {"limit_recovery", LimitRecovery}, {"front_door_limit", FrontDoorLimit},
    {"first_fragmentation", FirstFragmentation}, {"double_free", DoubleFree},
    {"underwrite_free", UnderwriteThenFree}, {"underwrite_realloc", UnderwriteThenRealloc}, {"first_request_large", FirstRequestLarge}, {"mapped_growth_status", MappedGrowthStatus},
    {"free_stack_pointer", FreeOfStackPointer}, {"free_zeroed_static", FreeOfZeroedStatic},
    {"free_runtime_block", FreeOfRuntimeBlock},
    {"free_interior_pointer", FreeOfInteriorPointer}, {"free_before_any_allocation", FreeBeforeAnyAllocation},
    {"lock_after_second_thread", LockAfterSecondThread},
};

}  // namespace

int main(int argc, char** argv) { return zmx_probe::Dispatch(argc, argv, kScenarios); }
