// The memory subsystem's fork handlers: each phase runs the components' steps
// in the fixed order that mem/internal/fork_handlers.h gives.
#include "mem/internal/fork_handlers.h"

#include "mem/heap/internal/thread_cache.h"

#include <atomic>

#include "platform/threads.h"

namespace zmx {
namespace mem_internal {

namespace {

std::atomic<bool> g_registered{false};

void Prepare() {
  LockTrackerForFork();
  ThreadCacheFlushAllForFork();
  LockSmallObjectsForFork();
  LockGeneralHeapForFork();
}

void InParent() {
  UnlockGeneralHeapAfterFork();
  UnlockSmallObjectsAfterFork();
  ThreadCacheResumeInParent();
  UnlockTrackerAfterFork();
}

void InChild() {
  ResetGeneralHeapInForkChild();
  ThreadCacheResetInChild();
  ResetSmallObjectsInForkChild();
  ResetTrackerInForkChild();
}

}  // namespace

void RegisterForkHandlers() {
  if (g_registered.exchange(true, std::memory_order_acq_rel)) return;
  platform::RegisterForkHandlers(Prepare, InParent, InChild);
}

}  // namespace mem_internal
}  // namespace zmx
