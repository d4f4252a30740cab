// The general heap filling of the allocation table (the default allocator).
// Until the heap is in place its slots serve the runtime heap.
#include "mem/internal/alloc_table.h"
#include "mem/internal/runtime_heap.h"

namespace zmx {
namespace mem_internal {

const AllocTable kGeneralHeapTable = {
    RuntimeMalloc, RuntimeCalloc, RuntimeRealloc, RuntimeFree, NoTrim,  NoMallopt,
    NoSize,        NoSize,        NoSize,         NoMallinfo,  NoStatus, NoSize,
    RuntimeMemalign,
};

}  // namespace mem_internal
}  // namespace zmx
