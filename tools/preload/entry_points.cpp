// The C library's allocation functions, routed through the library's front
// door once it is up. Before that (and while it comes up) requests are served
// by the bootstrap arena; requests made from inside the front door, and every
// block that neither the arena nor the library handed out, belong to the C
// library's own heap.
#include <malloc.h>
#include <stdlib.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstring>

#include "bootstrap_arena.h"
#include "mem/allocation.h"
#include "platform/system_allocator.h"
#include "preload_state.h"

#define ZMX_PRELOAD_EXPORT extern "C" __attribute__((visibility("default")))

using zmx::platform::SystemCalloc;
using zmx::platform::SystemFree;
using zmx::platform::SystemMalloc;
using zmx::platform::SystemMemalign;
using zmx::platform::SystemRealloc;

namespace zmx_preload {

int g_state = kDown;
bool g_roundTiny = false;
bool g_alignByHand = false;
thread_local bool t_inside __attribute__((tls_model("initial-exec"))) = false;

namespace {

constexpr std::size_t kMinAlignment = 16;

inline bool FrontDoorServes() { return __builtin_expect(g_state == kUp && !t_inside, 1); }

inline void* NullMeansNoMemory(void* block) {
  if (block == nullptr) errno = ENOMEM;
  return block;
}

inline std::size_t Shaped(std::size_t size) { return g_roundTiny && size < kMinAlignment ? kMinAlignment : size; }

inline bool IsPowerOfTwo(std::size_t x) { return x != 0 && (x & (x - 1)) == 0; }

// Requests the front door cannot take: from inside it (to the C library) or
// before the library is up (to the arena).
void* EarlyAlloc(std::size_t size, std::size_t alignment) {
  if (t_inside) return NullMeansNoMemory(SystemMemalign(alignment, size));
  return NullMeansNoMemory(ArenaAlloc(size, alignment));
}

// The front door's malloc; the caller is inside.
inline void* FrontDoorMalloc(std::size_t size) {
  if (__builtin_expect(g_alignByHand, 0)) return mem_AlignedMalloc(kMinAlignment, size);
  return mem_Malloc(Shaped(size));
}

void* Allocate(std::size_t size) {
  if (FrontDoorServes()) {
    Inside inside;
    return NullMeansNoMemory(FrontDoorMalloc(size));
  }
  return t_inside ? NullMeansNoMemory(SystemMalloc(size)) : EarlyAlloc(size, kMinAlignment);
}

void Release(void* block) {
  if (block == nullptr || ArenaContains(block)) return;  // arena blocks are never reused
  // A release from inside the front door is the C library's own (its streams,
  // opened and closed by the tracker): under the runtime and guarded heaps the
  // ownership test cannot tell such a block apart.
  if (!t_inside && mem_OwnsBlock(block) != 0) {
    Inside inside;
    mem_Free(block);
  } else {
    SystemFree(block);
  }
}

// An arena block moves out on its first resize; the arena keeps the old copy.
void* MoveOutOfArena(void* block, std::size_t size) {
  void* fresh = Allocate(size);
  if (fresh != nullptr) {
    const std::size_t old = ArenaBlockSize(block);
    std::memcpy(fresh, block, old < size ? old : size);
  }
  return fresh;
}

// Under the guarded heap: a fresh 16-byte aligned block (its realloc would
// give back one aligned to 8 only).
void* MoveAligned(void* block, std::size_t size) {
  void* fresh = mem_AlignedMalloc(kMinAlignment, size);
  if (fresh == nullptr) return nullptr;
  const std::size_t old = mem_UsableSize(block);
  std::memcpy(fresh, block, old < size ? old : size);
  mem_Free(block);
  return fresh;
}

void* Resize(void* block, std::size_t size) {
  if (block == nullptr) return Allocate(size);
  if (size == 0) {  // as the C library does: the block is freed and null returned
    Release(block);
    return nullptr;
  }
  if (ArenaContains(block)) return MoveOutOfArena(block, size);
  if (t_inside || mem_OwnsBlock(block) == 0) return NullMeansNoMemory(SystemRealloc(block, size));
  Inside inside;
  if (__builtin_expect(g_alignByHand, 0)) return NullMeansNoMemory(MoveAligned(block, size));
  return NullMeansNoMemory(mem_Realloc(block, Shaped(size)));
}

// `alignment` is a power of two.
void* AllocateAligned(std::size_t alignment, std::size_t size) {
  if (alignment <= kMinAlignment) return Allocate(size);
  if (!FrontDoorServes()) return EarlyAlloc(size, alignment);
  Inside inside;
  return NullMeansNoMemory(mem_AlignedMalloc(alignment, size));
}

std::size_t PageSize() {
  static const std::size_t page = static_cast<std::size_t>(sysconf(_SC_PAGESIZE));
  return page;
}

}  // namespace
}  // namespace zmx_preload

using namespace zmx_preload;

ZMX_PRELOAD_EXPORT void* malloc(std::size_t size) noexcept { return Allocate(size); }

ZMX_PRELOAD_EXPORT void free(void* block) noexcept { Release(block); }

ZMX_PRELOAD_EXPORT void* calloc(std::size_t count, std::size_t size) noexcept {
  std::size_t bytes = 0;
  if (__builtin_mul_overflow(count, size, &bytes)) return NullMeansNoMemory(nullptr);
  if (FrontDoorServes()) {
    Inside inside;
    if (__builtin_expect(g_alignByHand, 0)) {
      void* block = mem_AlignedMalloc(kMinAlignment, bytes);
      if (block != nullptr) std::memset(block, 0, bytes);
      return NullMeansNoMemory(block);
    }
    // A zero element size would end the process under the guarded heap; a
    // request for nothing gets a distinct minimal block under every heap.
    return NullMeansNoMemory(bytes == 0 ? mem_Calloc(1, 1) : mem_Calloc(count, size));
  }
  if (t_inside) return NullMeansNoMemory(SystemCalloc(count, size));
  return EarlyAlloc(bytes, kMinAlignment);  // arena memory is handed out only once: still zero
}

ZMX_PRELOAD_EXPORT void* realloc(void* block, std::size_t size) noexcept { return Resize(block, size); }

ZMX_PRELOAD_EXPORT void* reallocarray(void* block, std::size_t count, std::size_t size) noexcept {
  std::size_t bytes = 0;
  if (__builtin_mul_overflow(count, size, &bytes)) return NullMeansNoMemory(nullptr);
  return Resize(block, bytes);
}

ZMX_PRELOAD_EXPORT int posix_memalign(void** result, std::size_t alignment, std::size_t size) noexcept {
  if (!IsPowerOfTwo(alignment) || alignment % sizeof(void*) != 0) return EINVAL;
  const int savedErrno = errno;  // the function reports through its result only
  void* block = AllocateAligned(alignment, size);
  errno = savedErrno;
  if (block == nullptr) return ENOMEM;
  *result = block;
  return 0;
}

ZMX_PRELOAD_EXPORT void* aligned_alloc(std::size_t alignment, std::size_t size) noexcept {
  if (!IsPowerOfTwo(alignment)) {
    errno = EINVAL;
    return nullptr;
  }
  return AllocateAligned(alignment, size);
}

// As the C library: an alignment that is not a power of two is rounded up to one.
ZMX_PRELOAD_EXPORT void* memalign(std::size_t alignment, std::size_t size) noexcept {
  if (alignment > (std::size_t{1} << 62)) {
    errno = EINVAL;
    return nullptr;
  }
  std::size_t power = 1;
  while (power < alignment) power <<= 1;
  return AllocateAligned(power, size);
}

ZMX_PRELOAD_EXPORT void* valloc(std::size_t size) noexcept { return AllocateAligned(PageSize(), size); }

ZMX_PRELOAD_EXPORT void* pvalloc(std::size_t size) noexcept {
  const std::size_t page = PageSize();
  if (size > SIZE_MAX - page) return NullMeansNoMemory(nullptr);
  const std::size_t rounded = size == 0 ? page : (size + page - 1) & ~(page - 1);
  return AllocateAligned(page, rounded);
}

ZMX_PRELOAD_EXPORT std::size_t malloc_usable_size(void* block) noexcept {
  if (block == nullptr) return 0;
  if (ArenaContains(block)) return ArenaBlockSize(block);
  if (mem_OwnsBlock(block) != 0) return mem_UsableSize(block);
  return zmx::platform::SystemUsableSize(block);
}
