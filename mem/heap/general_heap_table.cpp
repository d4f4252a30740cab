// The general heap fillings of the allocation table: the default one, and the
// one with the per-thread cache in front (ZMX_HEAP_THREAD_CACHE).
#include "mem/heap/general_heap.h"
#include "mem/heap/internal/thread_cache.h"
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

// The queries, trim and limit of the heap itself return the caches first.
const AllocTable kGeneralHeapCachedTable = {
    ThreadCacheMalloc,  ThreadCacheCalloc,  ThreadCacheRealloc,     ThreadCacheFree,       dlmalloc_trim,
    dlmallopt,          dlmalloc_footprint, dlmalloc_max_footprint, dlmalloc_memory_limit,
    dlmallinfo,         error_memory_limit, dlfragmentationinfo,
    ThreadCacheMemalign, HeapUsableSize,
};

}  // namespace mem_internal
}  // namespace zmx
