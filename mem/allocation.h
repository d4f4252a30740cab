// The allocation front door: the process-wide operator new/delete, the
// size-checking entry points behind class-level operators, and the plain
// mem_Malloc family. Every request reaches the allocator chosen once per process
// (general heap by default, runtime heap, or guarded runtime heap); requests up
// to 128 bytes may go to the small-object allocator once mem_TBAllocator
// switches it on; with ZEM_MEM_TRACK set every call is reported to the tracker.
//
// The library must be up (UTI_CoreUtils_initialize) before the first
// allocation, unless ZMX_CRTMALLOC is set in the environment.
#ifndef ZMXUTI_MEM_ALLOCATION_H
#define ZMXUTI_MEM_ALLOCATION_H

#include <cstddef>
#include <cstdint>
#include <new>

#include "core/export.h"

// Tag selecting operator new[](size_t, mem_BuiltInAlloc); the value is ignored.
enum mem_BuiltInAlloc { mem_BuiltIn };

// Seven counts of the general heap's statistics (all zero under the other heaps).
struct mem_DLMallinfoRec {
  std::uint64_t arena;     // bytes obtained from the system
  std::uint64_t ordblks;   // number of free chunks
  std::uint64_t hblkhd;    // bytes in directly mapped blocks
  std::uint64_t usmblks;   // maximum total allocated space
  std::uint64_t uordblks;  // total allocated space
  std::uint64_t fordblks;  // total free space
  std::uint64_t keepcost;  // releasable space at the top
};

extern "C" {

// ---- size-checking entry points for class-level operators ----
// With ZMX_DEBUG_MEMSIZE beginning "ON", the general forms abort on sizes 1..128
// and the Tiny forms on sizes above 128. On exhaustion the new handler is called
// and the request retried; without a handler the Throw forms throw std::bad_alloc
// ("bad allocation") and the NoThrow forms retry without end (never null).
ZMXUTI_API void* mem_OperatorNewThrow(std::size_t size);
ZMXUTI_API void* mem_OperatorNewNoThrow(std::size_t size, const std::nothrow_t&);
ZMXUTI_API void* mem_OperatorNewTinyThrow(std::size_t size);
ZMXUTI_API void* mem_OperatorNewTinyNoThrow(std::size_t size, const std::nothrow_t&);
// No size check; size 0 is taken as 1.
ZMXUTI_API void* mem_OperatorNewThrowBuiltin(std::size_t size);
ZMXUTI_API void* mem_OperatorNewNoThrowBuiltin(std::size_t size);

// ---- plain entry points ----
// Null on failure; tracked when tracking is on.
ZMXUTI_API void* mem_Malloc(std::size_t size);
ZMXUTI_API void mem_Free(void* block);  // null accepted
ZMXUTI_API void* mem_Realloc(void* block, std::size_t size);
ZMXUTI_API void* mem_Calloc(std::size_t count, std::size_t size);  // never a small-object block
// `size` bytes aligned to `alignment`, a power of two (anything else: null, no
// allocation), from the chosen heap, never the small-object allocator; size 0
// gives a distinct minimal block. Tracked as a malloc; released with mem_Free.
ZMXUTI_API void* mem_AlignedMalloc(std::size_t alignment, std::size_t size);
// Bytes usable in a live block of the front door (at least the size asked
// for): a small-object block's slot, a heap chunk's room, the size asked of the
// guarded heap, the runtime heap's own figure. 0 for null.
ZMXUTI_API std::size_t mem_UsableSize(const void* block);
// 1 when `block` is the chosen allocator's: under the general heap, when it
// lies in a run the heap holds from the system (small-object pages included);
// under the runtime and guarded heaps, for any non-null pointer (the runtime
// owns everything there). 0 otherwise, and for every pointer before the choice.
// Lock-free and a few loads long, fit to be asked on every free.
ZMXUTI_API int mem_OwnsBlock(const void* block);
// Tell the tracker a block changed owner; no allocation work.
ZMXUTI_API void mem_Release(void* block);
ZMXUTI_API void mem_Acquire(void* block);
// The chosen heap directly: no small-object routing, no tracking. Pair them only with each other.
ZMXUTI_API void* mem_cMalloc(std::size_t size);
ZMXUTI_API void mem_cFree(void* block);

// ---- heap queries (0 under the runtime and guarded heaps) ----
ZMXUTI_API int mem_Trim(std::size_t pad);
ZMXUTI_API int mem_Mallopt(int parameter, int value);
ZMXUTI_API std::size_t mem_Footprint();
ZMXUTI_API std::size_t mem_MaxFootprint();
ZMXUTI_API std::size_t mem_MemoryLimit();
ZMXUTI_API int mem_ErrorMemoryLimit();
ZMXUTI_API std::size_t mem_FragmentationInfo();
ZMXUTI_API mem_DLMallinfoRec mem_DLMallinfo();
// True when the general heap serves requests.
ZMXUTI_API bool mem_UseDL();

// ---- small-object allocator switches ----
// mode 0 off, 1 operator new/delete only, 2 operators and mem_Malloc. Only under
// the general heap; ZMX_TBMALLOC beginning with "0" forces mode 0. Switching off
// keeps recognising blocks handed out earlier.
ZMXUTI_API void mem_TBAllocator(int mode);
// Turns the small-object allocator's process-wide lock on or off (only while
// mem_Malloc routes to it).
ZMXUTI_API void mem_TBThreadLock(bool on);

}  // extern "C"

// The global operator new/delete of the process are the library's; they never throw.
ZMXUTI_API void* operator new[](std::size_t size, mem_BuiltInAlloc);

// Base class giving a class (of more than 128 bytes) the library's operators.
class mem_AllocationOperators {
 public:
  static void* operator new(std::size_t size) { return mem_OperatorNewThrow(size); }
  static void* operator new(std::size_t size, const std::nothrow_t& nt) noexcept {
    return mem_OperatorNewNoThrow(size, nt);
  }
  static void* operator new[](std::size_t size) { return mem_OperatorNewThrow(size); }
  static void* operator new(std::size_t, void* place) noexcept { return place; }
  static void operator delete(void* block) { mem_Free(block); }
  static void operator delete(void* block, const std::nothrow_t&) noexcept { mem_Free(block); }
  static void operator delete[](void* block) { mem_Free(block); }
  static void operator delete(void*, void*) noexcept {}
};

// Base class giving a class of at most 128 bytes the library's operators.
class mem_AllocationOperatorsTiny {
 public:
  static void* operator new(std::size_t size) { return mem_OperatorNewTinyThrow(size); }
  static void* operator new(std::size_t size, const std::nothrow_t& nt) noexcept {
    return mem_OperatorNewTinyNoThrow(size, nt);
  }
  static void* operator new(std::size_t, void* place) noexcept { return place; }
  static void operator delete(void* block) { mem_Free(block); }
  static void operator delete(void* block, const std::nothrow_t&) noexcept { mem_Free(block); }
  static void operator delete(void*, void*) noexcept {}
};

#endif  // ZMXUTI_MEM_ALLOCATION_H
