// The general heap filling of the allocation table (the default allocator).
#include "mem/heap/general_heap.h"
#include "mem/internal/alloc_table.h"

namespace zmx {
namespace mem_internal {

const AllocTable kGeneralHeapTable = {
    dlmalloc,           dlcalloc,  dlrealloc,          dlfree,          dlmalloc_trim,
    dlmallopt,          dlmalloc_footprint, dlmalloc_max_footprint, dlmalloc_memory_limit,
    dlmallinfo,         error_memory_limit, dlfragmentationinfo,
    dlmemalign,
};

}  // namespace mem_internal
}  // namespace zmx
