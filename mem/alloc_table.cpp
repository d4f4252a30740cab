// The live allocation table, its bootstrap entries and the once-per-process
// choice of the allocator.
#include "mem/internal/alloc_table.h"

#include <cstdio>
#include <cstdlib>

namespace zmx {
namespace mem_internal {

namespace {

bool g_bootstrapRan = false;

void* BootstrapMalloc(std::size_t size);

// The first allocation of a process that comes before mem_initialize. Fatal
// unless ZMX_CRTMALLOC allows it; then it makes the choice on the spot.
void RunBootstrap() {
  if (g_bootstrapRan) return;
  g_bootstrapRan = true;
  if (std::getenv("ZMX_CRTMALLOC") == nullptr) {
    std::fputs("ERROR: Memory allocation attempt before component initialization\n", stderr);
    std::fflush(stderr);
    std::abort();
  }
  ChooseAllocator();
}

void* BootstrapMalloc(std::size_t size) {
  RunBootstrap();
  if (g_table.malloc != BootstrapMalloc) return g_table.malloc(size);
  return g_switches.useGeneralHeap ? kGeneralHeapTable.malloc(size) : std::malloc(size);
}

// The other allocation slots are empty by design until the choice; a call
// through them is treated as the first allocation rather than a jump to null.
void* BootstrapCalloc(std::size_t count, std::size_t size) {
  RunBootstrap();
  return g_table.calloc(count, size);
}
void* BootstrapRealloc(void* block, std::size_t size) {
  RunBootstrap();
  return g_table.realloc(block, size);
}
void BootstrapFree(void* block) {
  if (block == nullptr) return;
  RunBootstrap();
  g_table.free(block);
}
void* BootstrapMemalign(std::size_t alignment, std::size_t size) {
  RunBootstrap();
  return g_table.memalign(alignment, size);
}
int UnchosenTrim(std::size_t) { return 0; }
int UnchosenMallopt(int, int) { return 0; }
std::size_t UnchosenSize() { return 0; }
dl_mallinfo UnchosenMallinfo() { return dl_mallinfo{}; }
int UnchosenStatus() { return 0; }

}  // namespace

AllocTable g_table = {
    BootstrapMalloc, BootstrapCalloc, BootstrapRealloc, BootstrapFree,   UnchosenTrim,
    UnchosenMallopt, UnchosenSize,    UnchosenSize,     UnchosenSize,    UnchosenMallinfo,
    UnchosenStatus,  UnchosenSize,    BootstrapMemalign,
};

Switches g_switches = {false, false, false, false, false};

bool AllocatorChosen() { return g_table.malloc != BootstrapMalloc; }

void ChooseAllocator() {
  bool useGeneral = true;
  if (std::getenv("ZMX_CRTMALLOC") != nullptr) useGeneral = std::getenv("ZMX_DLALLOCATOR") != nullptr;
  const AllocTable* filling;
  if (std::getenv("ZEM_DEADBEEF") != nullptr) {
    useGeneral = false;
    filling = &kGuardedHeapTable;
  } else {
    filling = useGeneral ? &kGeneralHeapTable : &kRuntimeHeapTable;
  }
  g_switches.useGeneralHeap = useGeneral;
  g_table = *filling;  // all slots at once
}

}  // namespace mem_internal
}  // namespace zmx
