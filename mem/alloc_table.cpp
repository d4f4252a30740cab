// The live allocation table, its bootstrap entries and the once-per-process
// choice of the allocator.
#include "mem/internal/alloc_table.h"

#include <cstdio>
#include <cstdlib>

#include "mem/internal/runtime_heap.h"
#include "platform/system_allocator.h"

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
  return g_switches.useGeneralHeap ? kGeneralHeapTable.malloc(size) : platform::SystemMalloc(size);
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
void BootstrapFree(void* block) noexcept {
  if (block == nullptr) return;
  RunBootstrap();
  g_table.free(block);
}
void* BootstrapMemalign(std::size_t alignment, std::size_t size) {
  RunBootstrap();
  return g_table.memalign(alignment, size);
}
// No block can be live before the choice: a block asked about is someone else's.
std::size_t BootstrapUsableSize(const void*) { return 0; }

// Present with a value that does not begin with "0".
bool ThreadCacheWanted() {
  const char* value = std::getenv("ZMX_HEAP_THREAD_CACHE");
  return value != nullptr && value[0] != '0';
}

}  // namespace

AllocTable g_table = {
    // Until the choice, the queries answer as the runtime heap does.
    BootstrapMalloc, BootstrapCalloc, BootstrapRealloc, BootstrapFree, NoTrim,   NoMallopt, NoSize,
    NoSize,          NoSize,          NoMallinfo,       NoStatus,      NoSize,   BootstrapMemalign,
    BootstrapUsableSize,
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
    filling = useGeneral ? (ThreadCacheWanted() ? &kGeneralHeapCachedTable : &kGeneralHeapTable) : &kRuntimeHeapTable;
  }
  g_switches.useGeneralHeap = useGeneral;
  g_table = *filling;  // all slots at once
}

}  // namespace mem_internal
}  // namespace zmx
