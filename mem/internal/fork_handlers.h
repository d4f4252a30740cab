// The memory subsystem around fork(): every lock a thread may hold while it
// allocates is taken before the child is made, so that the child inherits the
// heaps in a consistent state, then released in the parent and set back to
// free in the child, where their holder and waiters no longer exist.
//
// Each component contributes one step per phase. The prepare steps run in the
// order the locks nest at run time (the tracker allocates while holding its
// locks, the small-object allocator takes pages from the heap under its lock):
//   tracker, the heap's per-thread caches (every cache goes back to the heap;
//   their registry stays locked), small-object allocator, general heap.
// The parent steps run in reverse. In the child the general heap comes first
// and the caches right after it (giving back the dead threads' caches takes the
// heap lock); the others in any order. The caches' steps live with them, in
// mem/heap/internal/thread_cache.h.
#ifndef ZMXUTI_MEM_INTERNAL_FORK_HANDLERS_H
#define ZMXUTI_MEM_INTERNAL_FORK_HANDLERS_H

namespace zmx {
namespace mem_internal {

// Registers the handlers with the system; only the first call of a process does anything.
void RegisterForkHandlers();

// Tracker (mem/tracker/tracker.cpp): its creation lock, then, once it exists,
// its phase lock and its record lock.
void LockTrackerForFork();           // takes them in that order
void UnlockTrackerAfterFork();       // parent: releases them in reverse
void ResetTrackerInForkChild();      // child: sets them free

// Small-object allocator (mem/pools/small_objects.cpp): its process-wide lock,
// whatever its locking switch says.
void LockSmallObjectsForFork();      // takes it
void UnlockSmallObjectsAfterFork();  // parent: releases it
void ResetSmallObjectsInForkChild(); // child: sets it free

// General heap (mem/heap/general_heap_params.cpp): its parameter lock, then
// the heap lock, whatever the lock-use switch says.
void LockGeneralHeapForFork();       // takes them in that order
void UnlockGeneralHeapAfterFork();   // parent: releases them in reverse
void ResetGeneralHeapInForkChild();  // child: sets them free

}  // namespace mem_internal
}  // namespace zmx

#endif  // ZMXUTI_MEM_INTERNAL_FORK_HANDLERS_H
