// Start-up and shut-down of the memory component.
#include "core/internal/use_counter.h"
#include "core/startup.h"
#include "mem/internal/alloc_table.h"
#include "mem/internal/fork_handlers.h"
#include "mem/internal/tracker_hooks.h"

namespace {
int g_memUseCount = 0;
}

void mem_initialize(int& depth) {
  zmx::core_internal::StartUp(g_memUseCount, depth, [] {
    using namespace zmx::mem_internal;
    if (!AllocatorChosen()) ChooseAllocator();  // an earlier allocation's choice stands
    RegisterForkHandlers();
    if (ProcessTrackingMode() == kTrackingOn) Tracker().PrepareThread();
  });
}

// The heap, the small-object pool and the table stay in place: other modules
// may still free blocks after the library went down.
void mem_finalize(int& depth) { zmx::core_internal::ShutDown(g_memUseCount, depth, zmx::core_internal::NoWork); }

void mem_formalize() {}
