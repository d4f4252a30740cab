// The small-object switches (mem_TBAllocator, mem_TBThreadLock) and the hook
// through which the small-object allocator plugs into the front door.
#include <cstdlib>

#include "mem/allocation.h"
#include "mem/internal/alloc_table.h"
#include "mem/internal/small_object_hooks.h"
#include "mem/pools/internal/small_objects.h"

namespace zmx {
namespace mem_internal {

namespace {

void* AllocatorAllocate(std::size_t size, bool lockWanted) { return small_objects::Allocate(size, lockWanted); }
void AllocatorFree(void* block) { small_objects::Free(block); }

}  // namespace

SmallObjectOps g_smallObjects = {AllocatorAllocate, AllocatorFree, small_objects::Reallocate, small_objects::SetLocking};
bool g_smallObjectStandIn = false;

SmallObjectOps InstallSmallObjectOps(const SmallObjectOps& ops) {
  const SmallObjectOps previous = g_smallObjects;
  g_smallObjects = ops;
  g_smallObjectStandIn = true;
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
