// The heap usage snapshot: the general heap's footprint, or the runtime heap's
// own totals when the runtime heap serves the process.
#include "mem/allocation.h"
#include "mem/diagnostics/diagnostics.h"
#include "platform/memory_query.h"

mem_Mallinfo::mem_Mallinfo() : committed(0), inUse(0), free(0), reserved(0) {
  if (mem_UseDL()) {
    committed = mem_Footprint();
    return;
  }
  // The runtime heap offers no entry-by-entry walk here, so its arena totals
  // (used, free, system bytes) take the place of one.
  const zmx::platform::RuntimeHeapTotals totals = zmx::platform::QueryRuntimeHeap();
  committed = totals.committed;
  inUse = totals.inUse;
  free = totals.free;
  reserved = totals.reserved;
}
