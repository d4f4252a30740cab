// The guarded runtime heap filling of the allocation table (ZEM_DEADBEEF).
// The overwrite guards are not in place yet: the slots serve the runtime heap.
#include "mem/internal/alloc_table.h"
#include "mem/internal/runtime_heap.h"

namespace zmx {
namespace mem_internal {

const AllocTable kGuardedHeapTable = {
    RuntimeMalloc, RuntimeCalloc, RuntimeRealloc, RuntimeFree, NoTrim,  NoMallopt,
    NoSize,        NoSize,        NoSize,         NoMallinfo,  NoStatus, NoSize,
    RuntimeMemalign,
};

}  // namespace mem_internal
}  // namespace zmx
