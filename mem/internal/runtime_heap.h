// The runtime library's heap, as table entries (also the stand-in filling of
// heaps that are not built yet). The entries reach the runtime's own
// allocator, never an interposed malloc that might lead back to the front door.
#ifndef ZMXUTI_MEM_INTERNAL_RUNTIME_HEAP_H
#define ZMXUTI_MEM_INTERNAL_RUNTIME_HEAP_H

#include <cstddef>
#include "mem/heap/general_heap.h"
#include "platform/system_allocator.h"

namespace zmx {
namespace mem_internal {

// The runtime's own functions sit in the slots directly (no wrapper call).
constexpr void* (*RuntimeMalloc)(std::size_t) = &platform::SystemMalloc;
constexpr void* (*RuntimeCalloc)(std::size_t, std::size_t) = &platform::SystemCalloc;
constexpr void* (*RuntimeRealloc)(void*, std::size_t) = &platform::SystemRealloc;
constexpr void (*RuntimeFree)(void*) noexcept = &platform::SystemFree;
constexpr void* (*RuntimeMemalign)(std::size_t, std::size_t) = &platform::SystemMemalign;
constexpr std::size_t (*RuntimeUsableSize)(const void*) = &platform::SystemUsableSize;

// The query slots of a heap that keeps no statistics: all return 0.
int NoTrim(std::size_t pad);
int NoMallopt(int parameter, int value);
std::size_t NoSize();
dl_mallinfo NoMallinfo();
int NoStatus();

}  // namespace mem_internal
}  // namespace zmx

#endif  // ZMXUTI_MEM_INTERNAL_RUNTIME_HEAP_H
