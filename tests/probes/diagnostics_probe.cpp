// Fresh-process scenarios for the memory diagnostics: scans at each level
// (optionally around stretches this probe maps below 2 GiB), the
// debugger's life-cycle texts, and heap snapshots under the chosen heap.
#include <sys/mman.h>

#include <cerrno>
#include <cinttypes>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "ZMXUTI_CoreUtils.h"
#include "probes/probe_main.h"

namespace {

// Stretches the probe maps: inaccessible ones at 1 GiB and across the 2 GiB
// line, a readable one at 1.5 GiB.
struct Stretch {
  std::uintptr_t at;
  std::size_t size;
  int protection;
};
constexpr Stretch kStretches[] = {
    {0x40000000, 0x30000, PROT_NONE}, {0x60000000, 0x10000, PROT_READ}, {0x7FFE0000, 0x30000, PROT_NONE}};

// Arguments: level, limit; or "ifc" for the entry point without arguments.
void RunScan() {
  if (std::strcmp(zmx_probe::Arg(2), "ifc") == 0) MEM_SCANMEMORY_IFC();
  else mem_ScanMemory(static_cast<MEM_SCAN_LEVEL_ENM>(std::atoi(zmx_probe::Arg(2))),
                      std::strtoull(zmx_probe::Arg(3), nullptr, 0));
}

void Scan() {
  zmx_probe::BringUp(UTI_CoreUtils_initialize);
  RunScan();
}

// Maps `size` bytes exactly at `at`, never over an existing
// mapping; false (with the reason printed) when the kernel will not.
bool MapExactly(std::uintptr_t at, std::size_t size, int protection, const char* what) {
  void* p = mmap(reinterpret_cast<void*>(at), size, protection,
                 MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE | MAP_FIXED_NOREPLACE, -1, 0);
  if (p == reinterpret_cast<void*>(at)) return true;
  // Kernels before 4.17 take the flag for a hint and may place the mapping elsewhere.
  if (p != MAP_FAILED) munmap(p, size);
  std::printf("refused: %s at %#lx: %s\n", what, static_cast<unsigned long>(at),
              p == MAP_FAILED ? std::strerror(errno) : "placed elsewhere");
  return false;
}

// Arguments as for RunScan. Prints "reserved" on stdout once the stretches are in place, or why not.
void ScanAroundReservations() {
  zmx_probe::BringUp(UTI_CoreUtils_initialize);
  // The expected lines assume nothing else below the second stretch's end.
  constexpr std::uintptr_t kLow = 0x10000, kHigh = 0x80010000;
  if (!MapExactly(kLow, kHigh - kLow, PROT_NONE, "an empty low address space")) return;
  munmap(reinterpret_cast<void*>(kLow), kHigh - kLow);
  for (const Stretch& s : kStretches) if (!MapExactly(s.at, s.size, s.protection, "a stretch")) return;
  std::printf("reserved\n");
  std::fflush(stdout);
  RunScan();
}

void FinalizeOnly() { mem_Debugger::Finalize(); }

void DebuggerLifeCycle() {
  zmx_probe::BringUp(UTI_CoreUtils_initialize);
  mem_Debugger::Initialize();
  mem_Debugger& first = mem_Debugger::Instance();
  mem_Debugger::Initialize();
  std::printf("same %d\n", &first == &mem_Debugger::Instance() ? 1 : 0);
  mem_Debugger::Finalize();
  mem_Debugger::Finalize();
  mem_Debugger::Instance();
  mem_Debugger::Finalize();
}

void PrintSnapshot(const char* label) {
  const mem_Mallinfo info;
  std::printf("%s %" PRIu64 " %" PRIu64 " %" PRIu64 " %" PRIu64 "\n", label, info.committed, info.inUse,
              info.free, info.reserved);
}

// Prints the snapshot and the footprint, allocates `count` blocks of `bytes`
// (arguments 2 and 3), prints both again, releases the blocks and prints once more.
void Snapshot() {
  zmx_probe::BringUp(UTI_CoreUtils_initialize);
  const int count = std::atoi(zmx_probe::Arg(2));
  const std::size_t bytes = std::strtoull(zmx_probe::Arg(3), nullptr, 0);
  static void* blocks[256];
  if (count < 0 || count > 256) return;
  std::printf("footprint %zu\n", mem_Footprint());
  PrintSnapshot("before");
  for (int i = 0; i < count; ++i) blocks[i] = mem_Malloc(bytes);
  std::printf("footprint %zu\n", mem_Footprint());
  PrintSnapshot("holding");
  for (int i = 0; i < count; ++i) mem_Free(blocks[i]);
  PrintSnapshot("released");
}

}  // namespace

int main(int argc, char** argv) {
  static const zmx_probe::Scenario scenarios[] = {
      {"scan", Scan}, {"scan_reserved", ScanAroundReservations}, {"debugger_finalize_only", FinalizeOnly},
      {"debugger_life_cycle", DebuggerLifeCycle}, {"snapshot", Snapshot},
  };
  return zmx_probe::Dispatch(argc, argv, scenarios);
}
