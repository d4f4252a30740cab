// The process's global operator new/delete (every form, sized and aligned
// included) and the size-checking entry points behind class-level operators.
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <new>

#include "mem/allocation.h"
#include "mem/internal/alloc_table.h"
#include "mem/internal/small_object_routing.h"
#include "mem/internal/tracker_hooks.h"

using namespace zmx::mem_internal;

namespace {

// std::bad_alloc with the library's message.
class BadAllocation final : public std::bad_alloc {
 public:
  const char* what() const noexcept override { return "bad allocation"; }
};

// ---------------------------------------------------------------- new path

inline void* AllocateForNew(std::size_t size) {
  if (g_switches.tinyForOperatorNew && size <= kLargestTiny) return SmallAllocate(size, true);
  return g_table.malloc(size);
}

// Calls the installed new handler; false when there is none. A handler that
// throws ends a nothrow request with null.
template <bool kNoThrow>
inline bool CallNewHandler() {
  std::new_handler handler = std::get_new_handler();
  if (handler == nullptr) return false;
  if (kNoThrow) {
    try {
      handler();
    } catch (const std::bad_alloc&) {
      return false;
    }
  } else {
    handler();
  }
  return true;
}

// The library's operator new never throws: without a handler it returns null.
template <bool kNoThrow>
ZMX_NOINLINE void* NewSlowPath(std::size_t size, int& cache) {
  for (;;) {
    if (!CallNewHandler<kNoThrow>()) return nullptr;
    if (void* block = AllocateForNew(size)) {
      if (TrackingOn(cache)) Tracker().RecordNew(block, size);
      return block;
    }
  }
}

// Every case but the common one: size 0, small-object routing, tracking not
// yet known or on.
template <bool kNoThrow>
ZMX_NOINLINE void* NewRouted(std::size_t size, int& cache) {
  if (size == 0) size = 1;
  void* block = AllocateForNew(size);
  if (ZMX_LIKELY(block != nullptr)) {
    if (ZMX_UNLIKELY(TrackingOn(cache))) Tracker().RecordNew(block, size);
    return block;
  }
  return NewSlowPath<kNoThrow>(size, cache);
}

// The common case is one test each of the size, the switch and the cached
// tracking mode, and a call through the table.
template <bool kNoThrow>
inline void* NewPath(std::size_t size, int& cache) {
  if (ZMX_LIKELY(size != 0 && !g_switches.tinyForOperatorNew && cache == kTrackingOff)) {
    if (void* block = g_table.malloc(size)) return block;
    return NewSlowPath<kNoThrow>(size, cache);
  }
  return NewRouted<kNoThrow>(size, cache);
}

// Requests aligned beyond 4 bytes use the heap's aligned allocation and never
// the small-object allocator, whose 4-byte slots lie 4 bytes apart.
constexpr std::size_t kSmallestSlotAlignment = 4;

template <bool kNoThrow>
void* AlignedNewPath(std::size_t size, std::align_val_t alignment, int& cache) {
  const std::size_t align = static_cast<std::size_t>(alignment);
  if (align <= kSmallestSlotAlignment) return NewPath<kNoThrow>(size, cache);
  if (size == 0) size = 1;
  for (;;) {
    if (void* block = g_table.memalign(align, size)) {
      if (ZMX_UNLIKELY(TrackingOn(cache))) Tracker().RecordNew(block, size);
      return block;
    }
    if (!CallNewHandler<kNoThrow>()) return nullptr;
  }
}

// ------------------------------------------------------------- delete path

ZMX_NOINLINE void DeleteRouted(void* block, int& cache) {
  if (ZMX_UNLIKELY(TrackingOn(cache))) Tracker().RecordDelete(block);
  if (g_switches.tinyForOperatorDelete && HasSmallObjectMark(block))
    SmallFree(block);
  else
    g_table.free(block);
}

inline void DeletePath(void* block, int& cache) {
  if (block == nullptr) return;
  if (ZMX_LIKELY(cache == kTrackingOff && !g_switches.tinyForOperatorDelete)) return g_table.free(block);
  DeleteRouted(block, cache);
}

// Cached tracking modes, one per operator form.
int g_trackNew = 0, g_trackNewNoThrow = 0, g_trackNewArray = 0, g_trackNewArrayNoThrow = 0;
int g_trackNewAligned = 0, g_trackNewArrayAligned = 0;
int g_trackDelete = 0, g_trackDeleteNoThrow = 0, g_trackDeleteArray = 0, g_trackDeleteArrayNoThrow = 0;
int g_trackDeleteSized = 0, g_trackDeleteAligned = 0;

// -------------------------------------------------------- size-check path

enum SizeCheck : int { kCheckOff = 0, kCheckOn = 1, kCheckUnknown = 2 };

int g_checkThrow = kCheckUnknown;
int g_checkNoThrow = kCheckUnknown;
int g_checkTinyThrow = kCheckUnknown;
int g_checkTinyNoThrow = kCheckUnknown;

inline int SizeCheckState(int& state) {
  if (ZMX_UNLIKELY(state == kCheckUnknown)) {
    const char* value = std::getenv("ZMX_DEBUG_MEMSIZE");
    state = (value != nullptr && value[0] == 'O' && value[1] == 'N') ? kCheckOn : kCheckOff;
  }
  return state;
}

[[noreturn]] ZMX_NOINLINE void AbortOnSizeMisuse(bool tinyForm) {
  std::fputs(tinyForm ? "ZEMRIX class with sizeof(class) > 128 should use "
                      : "ZEMRIX class with sizeof(class) < 129 should use ",
             stderr);
  std::fputs("mem_AllocationOperatorsTiny\n", stderr);
  std::abort();
}

template <bool kTiny, bool kThrow>
void* CheckedNew(std::size_t size, int& state) {
  for (;;) {
    if (SizeCheckState(state) == kCheckOn && size != 0) {
      const bool misuse = kTiny ? size > kLargestTiny : size <= kLargestTiny;
      if (misuse) AbortOnSizeMisuse(kTiny);
    }
    if (void* block = mem_Malloc(size)) return block;
    if (CallNewHandler<false>()) continue;
    if (kThrow) throw BadAllocation();
    // The NoThrow forms never return null: they try again without end.
  }
}

template <bool kThrow>
void* BuiltinNew(std::size_t size) {
  if (size == 0) size = 1;
  for (;;) {
    if (void* block = mem_Malloc(size)) return block;
    if (CallNewHandler<false>()) continue;
    if (kThrow) throw BadAllocation();
  }
}

}  // namespace

// ------------------------------------------------------- exported entries

extern "C" {
void* mem_OperatorNewThrow(std::size_t size) { return CheckedNew<false, true>(size, g_checkThrow); }
void* mem_OperatorNewNoThrow(std::size_t size, const std::nothrow_t&) {
  return CheckedNew<false, false>(size, g_checkNoThrow);
}
void* mem_OperatorNewTinyThrow(std::size_t size) { return CheckedNew<true, true>(size, g_checkTinyThrow); }
void* mem_OperatorNewTinyNoThrow(std::size_t size, const std::nothrow_t&) {
  return CheckedNew<true, false>(size, g_checkTinyNoThrow);
}
void* mem_OperatorNewThrowBuiltin(std::size_t size) { return BuiltinNew<true>(size); }
void* mem_OperatorNewNoThrowBuiltin(std::size_t size) { return BuiltinNew<false>(size); }
}  // extern "C"

ZMXUTI_API void* operator new[](std::size_t size, mem_BuiltInAlloc) { return mem_OperatorNewThrowBuiltin(size); }

ZMXUTI_API void* operator new(std::size_t size) { return NewPath<false>(size, g_trackNew); }
ZMXUTI_API void* operator new(std::size_t size, const std::nothrow_t&) noexcept {
  return NewPath<true>(size, g_trackNewNoThrow);
}
ZMXUTI_API void* operator new[](std::size_t size) { return NewPath<false>(size, g_trackNewArray); }
ZMXUTI_API void* operator new[](std::size_t size, const std::nothrow_t&) noexcept {
  return NewPath<true>(size, g_trackNewArrayNoThrow);
}
ZMXUTI_API void* operator new(std::size_t size, std::align_val_t alignment) {
  return AlignedNewPath<false>(size, alignment, g_trackNewAligned);
}
ZMXUTI_API void* operator new(std::size_t size, std::align_val_t alignment, const std::nothrow_t&) noexcept {
  return AlignedNewPath<true>(size, alignment, g_trackNewAligned);
}
ZMXUTI_API void* operator new[](std::size_t size, std::align_val_t alignment) {
  return AlignedNewPath<false>(size, alignment, g_trackNewArrayAligned);
}
ZMXUTI_API void* operator new[](std::size_t size, std::align_val_t alignment, const std::nothrow_t&) noexcept {
  return AlignedNewPath<true>(size, alignment, g_trackNewArrayAligned);
}

ZMXUTI_API void operator delete(void* block) noexcept { DeletePath(block, g_trackDelete); }
ZMXUTI_API void operator delete(void* block, const std::nothrow_t&) noexcept {
  DeletePath(block, g_trackDeleteNoThrow);
}
ZMXUTI_API void operator delete[](void* block) noexcept { DeletePath(block, g_trackDeleteArray); }
ZMXUTI_API void operator delete[](void* block, const std::nothrow_t&) noexcept {
  DeletePath(block, g_trackDeleteArrayNoThrow);
}
ZMXUTI_API void operator delete(void* block, std::size_t) noexcept { DeletePath(block, g_trackDeleteSized); }
ZMXUTI_API void operator delete[](void* block, std::size_t) noexcept { DeletePath(block, g_trackDeleteSized); }
ZMXUTI_API void operator delete(void* block, std::align_val_t) noexcept { DeletePath(block, g_trackDeleteAligned); }
ZMXUTI_API void operator delete(void* block, std::align_val_t, const std::nothrow_t&) noexcept {
  DeletePath(block, g_trackDeleteAligned);
}
ZMXUTI_API void operator delete[](void* block, std::align_val_t) noexcept { DeletePath(block, g_trackDeleteAligned); }
ZMXUTI_API void operator delete[](void* block, std::align_val_t, const std::nothrow_t&) noexcept {
  DeletePath(block, g_trackDeleteAligned);
}
ZMXUTI_API void operator delete(void* block, std::size_t, std::align_val_t) noexcept {
  DeletePath(block, g_trackDeleteAligned);
}
ZMXUTI_API void operator delete[](void* block, std::size_t, std::align_val_t) noexcept {
  DeletePath(block, g_trackDeleteAligned);
}
