// The general-purpose heap: one process-wide boundary-tagged heap with exact
// small bins, tree bins for large chunks, a top chunk, direct mappings for very
// large requests, and the library's additions (memory limit with an error
// status, largest-free-block query, lock switch). All functions act on the one
// global heap and have C linkage.
#ifndef ZMXUTI_MEM_HEAP_GENERAL_HEAP_H
#define ZMXUTI_MEM_HEAP_GENERAL_HEAP_H

#include <cstddef>

#include "core/export.h"

// The heap's ten-field statistics record.
struct dl_mallinfo {
  std::size_t arena;     // bytes obtained from the system
  std::size_t ordblks;   // number of free chunks
  std::size_t smblks;    // always 0
  std::size_t hblks;     // always 0
  std::size_t hblkhd;    // bytes in directly mapped blocks
  std::size_t usmblks;   // maximum total allocated space
  std::size_t fsmblks;   // always 0
  std::size_t uordblks;  // total allocated space
  std::size_t fordblks;  // total free space
  std::size_t keepcost;  // releasable space at the top
};

extern "C" {

ZMXUTI_API void* dlmalloc(std::size_t size);
ZMXUTI_API void dlfree(void* block) noexcept;
ZMXUTI_API void* dlcalloc(std::size_t count, std::size_t size);
ZMXUTI_API void* dlrealloc(void* block, std::size_t size);
ZMXUTI_API void* dlmemalign(std::size_t alignment, std::size_t size);
// 1 when memory was given back to the system, else 0.
ZMXUTI_API int dlmalloc_trim(std::size_t pad);
ZMXUTI_API std::size_t dlmalloc_footprint();
ZMXUTI_API std::size_t dlmalloc_max_footprint();
// The stored memory-limit parameter (in force only after the next dlmallopt call).
ZMXUTI_API std::size_t dlmalloc_memory_limit();
// 0 after the last system request was allowed, -1 after one was refused by the limit.
ZMXUTI_API int error_memory_limit();
ZMXUTI_API dl_mallinfo dlmallinfo();
// Size of the largest free chunk (chunk overhead included, top chunk excluded).
ZMXUTI_API std::size_t dlfragmentationinfo();
ZMXUTI_API std::size_t dlmalloc_usable_size(void* block);
// Parameters: -1 trim threshold, -2 granularity, -3 direct-mapping threshold,
// -4 lock-use switch (stored, but reports 0), -5 memory limit. 1 accepted, 0 refused.
ZMXUTI_API int dlmallopt(int parameter, int value);

}  // extern "C"

#endif  // ZMXUTI_MEM_HEAP_GENERAL_HEAP_H
