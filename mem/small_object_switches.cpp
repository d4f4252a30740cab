// The small-object switches (mem_TBAllocator, mem_TBThreadLock) and the hook
// through which the small-object allocator plugs into the front door.
#include <cstdlib>

#include "mem/allocation.h"
#include "mem/internal/alloc_table.h"
#include "mem/internal/small_object_hooks.h"

namespace zmx {
namespace mem_internal {

namespace {

// Until the small-object allocator is installed, small requests are served by
// the chosen heap; those blocks carry no page mark and so never come back here.
void* HeapAllocate(std::size_t size, bool) { return g_table.malloc(size == 0 ? 1 : size); }
void HeapFree(void* block) { g_table.free(block); }
void* HeapReallocate(void* block, std::size_t size) { return g_table.realloc(block, size); }
void HeapSetLocking(bool) {}  // the heap locks itself

}  // namespace

SmallObjectOps g_smallObjects = {HeapAllocate, HeapFree, HeapReallocate, HeapSetLocking};

SmallObjectOps InstallSmallObjectOps(const SmallObjectOps& ops) {
  const SmallObjectOps previous = g_smallObjects;
  g_smallObjects = ops;
  return previous;
}

}  // namespace mem_internal
}  // namespace zmx

using zmx::mem_internal::g_switches;

extern "C" void mem_TBAllocator(int mode) {
  const char* forced = std::getenv("ZMX_TBMALLOC");
  if (forced != nullptr && forced[0] == '0') mode = 0;
  if (g_switches.useGeneralHeap && mode != 0) {
    g_switches.tinyForMemFree = true;
    g_switches.tinyForOperatorNew = true;
    g_switches.tinyForOperatorDelete = true;
    if (mode == 2) g_switches.tinyForMemMalloc = true;
  } else {
    // The free-side switches stay on so that blocks handed out earlier still go home.
    g_switches.tinyForMemMalloc = false;
    g_switches.tinyForOperatorNew = false;
  }
}

extern "C" void mem_TBThreadLock(bool on) {
  if (g_switches.tinyForMemMalloc) zmx::mem_internal::g_smallObjects.setLocking(on);
}
