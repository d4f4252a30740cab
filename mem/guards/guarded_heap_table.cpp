// The guarded runtime heap filling of the allocation table (ZEM_DEADBEEF):
// guarded allocation slots, do-nothing query slots.
#include "mem/guards/internal/guarded_heap.h"
#include "mem/internal/alloc_table.h"
#include "mem/internal/runtime_heap.h"

namespace zmx {
namespace mem_internal {

const AllocTable kGuardedHeapTable = {
    GuardedMalloc, GuardedCalloc, GuardedRealloc, GuardedFree, NoTrim,   NoMallopt,
    NoSize,        NoSize,        NoSize,         NoMallinfo,  NoStatus, NoSize,
    GuardedMemalign, GuardedUsableSize,
};

}  // namespace mem_internal
}  // namespace zmx
