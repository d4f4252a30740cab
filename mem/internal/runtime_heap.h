// The runtime library's heap, as table entries (also the stand-in filling of
// heaps that are not built yet).
#ifndef ZMXUTI_MEM_INTERNAL_RUNTIME_HEAP_H
#define ZMXUTI_MEM_INTERNAL_RUNTIME_HEAP_H

#include <cstddef>
#include <cstdlib>

#include "mem/heap/general_heap.h"

namespace zmx {
namespace mem_internal {

// The runtime's own functions sit in the slots directly (no wrapper call).
constexpr void* (*RuntimeMalloc)(std::size_t) = &std::malloc;
constexpr void* (*RuntimeCalloc)(std::size_t, std::size_t) = &std::calloc;
constexpr void* (*RuntimeRealloc)(void*, std::size_t) = &std::realloc;
constexpr void (*RuntimeFree)(void*) = &std::free;
void* RuntimeMemalign(std::size_t alignment, std::size_t size);

// The query slots of a heap that keeps no statistics: all return 0.
int NoTrim(std::size_t pad);
int NoMallopt(int parameter, int value);
std::size_t NoSize();
dl_mallinfo NoMallinfo();
int NoStatus();

}  // namespace mem_internal
}  // namespace zmx

#endif  // ZMXUTI_MEM_INTERNAL_RUNTIME_HEAP_H
