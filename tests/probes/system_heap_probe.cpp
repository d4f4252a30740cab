// Fresh-process scenarios for the services a preloaded malloc relies on:
// aligned blocks, usable sizes and block ownership under the heap the
// environment chose, and a heap that still works in the child of a
// multithreaded fork. Each scenario prints its failed checks and exits 1 on any.
#include <malloc.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <thread>
#include <vector>

#include "ZMXUTI_CoreUtils.h"
#include "mem/internal/alloc_table.h"
#include "probes/probe_main.h"

extern "C" void* __libc_malloc(std::size_t size);
extern "C" void __libc_free(void* block);

namespace {

int g_failures = 0;

void Check(bool ok, const char* what, std::size_t detail = 0) {
  if (ok) return;
  ++g_failures;
  std::printf("FAIL: %s (%zu)\n", what, detail);
}

void Finish() {
  std::printf("failures=%d\n", g_failures);
  std::fflush(stdout);
  if (g_failures != 0) std::exit(1);
}

void Up() {
  int depth = 0;
  UTI_CoreUtils_initialize(depth);
}

// A usable size covers the request and every byte of it can be written.
void CheckUsable(void* block, std::size_t size) {
  const std::size_t usable = mem_UsableSize(block);
  Check(usable >= size, "usable size below the request", size);
  if (block != nullptr) std::memset(block, 0x5A, usable);
  Check(mem_OwnsBlock(block) == 1, "a front-door block is not owned", size);
}

void AlignedBlocks() {
  for (std::size_t alignment = 1; alignment <= 65536; alignment <<= 1) {
    void* a = mem_AlignedMalloc(alignment, 100);
    Check(a != nullptr && reinterpret_cast<std::uintptr_t>(a) % alignment == 0, "alignment not honoured", alignment);
    CheckUsable(a, 100);
    mem_Free(a);
  }
  for (std::size_t bad : {std::size_t{0}, std::size_t{3}, std::size_t{24}, std::size_t{4097}})
    Check(mem_AlignedMalloc(bad, 16) == nullptr, "alignment that is no power of two accepted", bad);
  void* z1 = mem_AlignedMalloc(64, 0);
  void* z2 = mem_AlignedMalloc(64, 0);
  Check(z1 != nullptr && z2 != nullptr && z1 != z2, "size 0 gives no distinct block");
  mem_Free(z1);
  mem_Free(z2);
}

void RandomSizes() {
  std::uint64_t seed = 0x9E3779B97F4A7C15ull;
  for (int i = 0; i < 300; ++i) {
    seed = seed * 6364136223846793005ull + 1442695040888963407ull;
    const unsigned shift = static_cast<unsigned>(seed >> 59) % 21;  // up to 1 MiB: direct mappings too
    const std::size_t size = static_cast<std::size_t>(seed >> 20) & ((std::size_t{1} << shift) - 1);
    void* block = mem_Malloc(size);
    CheckUsable(block, size);
    mem_Free(block);
  }
}

void GeneralHeapOwnership() {
  void* foreign = __libc_malloc(100);
  Check(mem_OwnsBlock(foreign) == 0, "a block of the C library is owned");
  __libc_free(foreign);
  void* mapped = mmap(nullptr, 65536, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
  Check(mem_OwnsBlock(mapped) == 0, "a private mapping is owned");
  munmap(mapped, 65536);
  int local = 0;
  Check(mem_OwnsBlock(&local) == 0, "a stack address is owned");

  mem_TBAllocator(2);
  void* tiny = mem_Malloc(100);
  Check(zmx::mem_internal::HasSmallObjectMark(tiny), "mem_Malloc(100) is not a small-object block");
  Check(mem_OwnsBlock(tiny) == 1, "a small-object block is not owned");
  Check(mem_UsableSize(tiny) == 112, "a small-object block's usable size is not its slot", mem_UsableSize(tiny));
  mem_Free(tiny);
  mem_TBAllocator(0);

  const std::size_t large = 4 << 20;
  char* big = static_cast<char*>(mem_Malloc(large));
  Check(mem_OwnsBlock(big) == 1 && mem_OwnsBlock(big + large - 1) == 1, "a direct mapping is not owned");
  CheckUsable(big, large);
  mem_Free(big);
  Check(mem_OwnsBlock(big) == 0, "a direct mapping is still owned after its release");
}

void OtherHeaps(bool guarded) {
  void* foreign = __libc_malloc(100);
  Check(mem_OwnsBlock(foreign) == 1, "the runtime's block is not owned under a runtime heap");
  __libc_free(foreign);
  for (std::size_t size : {1, 100, 1000, 300000}) {
    void* block = mem_Malloc(size);
    const std::size_t usable = mem_UsableSize(block);
    if (guarded)
      Check(usable == size, "the guarded heap's usable size is not the request", usable);
    else
      Check(usable == malloc_usable_size(block), "the runtime heap's usable size is not the runtime's", usable);
    mem_Free(block);
  }
}

void Queries() {
  Up();
  Check(mem_UsableSize(nullptr) == 0 && mem_OwnsBlock(nullptr) == 0, "null is not 0");
  AlignedBlocks();
  RandomSizes();
  if (mem_UseDL())
    GeneralHeapOwnership();
  else
    OtherHeaps(std::getenv("ZEM_DEADBEEF") != nullptr);
  std::printf("usedl=%d\n", mem_UseDL() ? 1 : 0);
  Finish();
}

// ------------------------------------------------------------------- fork

// Allocation traffic through the front door's entries until told to stop.
void Hammer(std::atomic<bool>* stop, unsigned seed) {
  void* held[64] = {};
  for (unsigned i = 0; !stop->load(std::memory_order_relaxed); ++i) {
    seed = seed * 1103515245u + 12345u;
    const std::size_t slot = (seed >> 8) % 64;
    const std::size_t size = (seed >> 16) % ((i % 97) == 0 ? 300000 : 200);
    mem_Free(held[slot]);
    switch (i % 4) {
      case 0: held[slot] = mem_Malloc(size); break;
      case 1: held[slot] = mem_Calloc(1, size + 1); break;
      case 2: held[slot] = mem_AlignedMalloc(64, size); break;
      default: held[slot] = mem_Realloc(mem_Malloc(size / 2 + 1), size + 1); break;
    }
  }
  for (void* block : held) mem_Free(block);
}

// The child: one round through every entry, then out without running exit handlers.
[[noreturn]] void ChildRound() {
  void* blocks[] = {mem_Malloc(50), mem_Malloc(5000), mem_Malloc(1 << 20), mem_Calloc(10, 10),
                    mem_AlignedMalloc(4096, 10), mem_cMalloc(77), ::operator new(40)};
  bool ok = true;
  for (void* b : blocks) ok = ok && b != nullptr && mem_UsableSize(b) > 0;
  blocks[1] = mem_Realloc(blocks[1], 20000);
  ok = ok && blocks[1] != nullptr;
  ::operator delete(blocks[6]);
  mem_cFree(blocks[5]);
  for (int i = 0; i < 5; ++i) mem_Free(blocks[i]);
  _exit(ok ? 0 : 3);
}

// Waits for the child at most ten seconds; a child that takes longer is stuck.
bool ChildSucceeded(pid_t pid, int round) {
  for (int waited = 0; waited < 10000; waited += 5) {
    int status = 0;
    if (waitpid(pid, &status, WNOHANG) == pid) {
      Check(WIFEXITED(status) && WEXITSTATUS(status) == 0, "a child failed", static_cast<std::size_t>(status));
      return WIFEXITED(status) && WEXITSTATUS(status) == 0;
    }
    usleep(5000);
  }
  kill(pid, SIGKILL);
  waitpid(pid, nullptr, 0);
  Check(false, "a child hung", static_cast<std::size_t>(round));
  return false;
}

void Fork() {
  Up();
  mem_TBAllocator(2);
  mem_TBThreadLock(true);
  std::atomic<bool> stop{false};
  std::vector<std::thread> threads;
  for (unsigned t = 0; t < 4; ++t) threads.emplace_back(Hammer, &stop, 7919u * (t + 1));
  for (int round = 0; round < 60; ++round) {
    const pid_t pid = fork();
    if (pid == 0) ChildRound();
    if (pid < 0 || !ChildSucceeded(pid, round)) break;
  }
  stop.store(true);
  for (std::thread& t : threads) t.join();
  Finish();
}

const zmx_probe::Scenario kScenarios[] = {
    {"queries", Queries},
    {"fork", Fork},
};

}  // namespace

int main(int argc, char** argv) { return zmx_probe::Dispatch(argc, argv, kScenarios); }
