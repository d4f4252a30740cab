// The small-object switches (mem_TBAllocator, mem_TBThreadLock) and the
// stand-in that tests may put in place of the small-object allocator.
#include <cstdlib>

#include "mem/allocation.h"
#include "mem/internal/alloc_table.h"
#include "mem/internal/small_object_routing.h"

namespace zmx {
namespace mem_internal {

namespace {
SmallObjectOps g_standInOps;
}  // namespace

const SmallObjectOps* g_smallObjectStandIn = nullptr;

void InstallSmallObjectOps(const SmallObjectOps& ops) {
  g_standInOps = ops;
  g_smallObjectStandIn = &g_standInOps;
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
  if (g_switches.tinyForMemMalloc) zmx::mem_internal::SmallSetLocking(on);
}
