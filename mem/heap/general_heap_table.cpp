// The general heap filling of the allocation table (the default allocator).
#include "mem/heap/general_heap.h"
#include "mem/internal/alloc_table.h"

namespace zmx {
namespace mem_internal {

namespace {
// Mapped chunks included: their usable size is read from the chunk head as well.
std::size_t HeapUsableSize(const void* block) { return dlmalloc_usable_size(const_cast<void*>(block)); }
}  // namespace

const AllocTable kGeneralHeapTable = {
    dlmalloc,           dlcalloc,  dlrealloc,          dlfree,          dlmalloc_trim,
    dlmallopt,          dlmalloc_footprint, dlmalloc_max_footprint, dlmalloc_memory_limit,
    dlmallinfo,         error_memory_limit, dlfragmentationinfo,
    dlmemalign,         HeapUsableSize,
};

}  // namespace mem_internal
}  // namespace zmx
