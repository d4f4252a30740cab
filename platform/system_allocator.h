// The C runtime's own heap, reached without passing through whatever the
// process may have put in front of malloc and free (a preloaded library that
// routes them into this library's front door, for one). The runtime heap
// filling, the guarded heap and the library's own bookkeeping below the
// allocator (events, thread start blocks, the crash handler's module list)
// use these, so that none of them can call back into the front door.
//
// Blocks from these functions are freed with SystemFree only (never with
// free, which may be someone else's).
#ifndef ZMXUTI_PLATFORM_SYSTEM_ALLOCATOR_H
#define ZMXUTI_PLATFORM_SYSTEM_ALLOCATOR_H

#include <cstddef>

#include "core/export.h"

namespace zmx {
namespace platform {

// As malloc, calloc, realloc and free of the runtime library.
ZMXUTI_INTERNAL_API void* SystemMalloc(std::size_t size);
ZMXUTI_INTERNAL_API void* SystemCalloc(std::size_t count, std::size_t size);
ZMXUTI_INTERNAL_API void* SystemRealloc(void* block, std::size_t size);
ZMXUTI_INTERNAL_API void SystemFree(void* block) noexcept;  // null accepted
// `size` bytes aligned to `alignment`, a power of two (any, 1 included); null
// when the alignment is not one or memory runs out.
ZMXUTI_INTERNAL_API void* SystemMemalign(std::size_t alignment, std::size_t size);
// Bytes usable in a live block of the functions above (at least its size); 0 for null.
ZMXUTI_INTERNAL_API std::size_t SystemUsableSize(const void* block);

}  // namespace platform
}  // namespace zmx

#endif  // ZMXUTI_PLATFORM_SYSTEM_ALLOCATOR_H
