// The runtime heap reached past any interposed malloc: glibc exports its
// allocator a second time under the __libc_ names, which nobody interposes.
// malloc_usable_size has no such twin; its glibc definition is looked up
// once, by version, in the C library's own object.
#include "platform/system_allocator.h"

#include <dlfcn.h>

#include <atomic>
#include <cstdint>

extern "C" {
void* __libc_malloc(std::size_t size);
void* __libc_calloc(std::size_t count, std::size_t size);
void* __libc_realloc(void* block, std::size_t size);
void __libc_free(void* block);
void* __libc_memalign(std::size_t alignment, std::size_t size);
}

namespace zmx {
namespace platform {

namespace {

using UsableSizeFunction = std::size_t (*)(void*);

std::atomic<UsableSizeFunction> g_usableSize{nullptr};
std::atomic<bool> g_resolving{false};

// The C library found through one of its own functions, so that whatever the
// object is called, and whatever comes first in the global scope, the symbol
// is glibc's. dlopen and dlvsym may allocate (through malloc, so possibly
// through the front door); a call that comes back here meanwhile, or one on
// another thread, does not wait for the lookup: it reads the chunk header.
UsableSizeFunction Resolve() {
  if (g_resolving.exchange(true, std::memory_order_acq_rel)) return nullptr;
  UsableSizeFunction found = nullptr;
  Dl_info info{};
  if (dladdr(reinterpret_cast<void*>(&__libc_malloc), &info) != 0 && info.dli_fname != nullptr) {
    if (void* libc = dlopen(info.dli_fname, RTLD_LAZY | RTLD_NOLOAD)) {
      found = reinterpret_cast<UsableSizeFunction>(dlvsym(libc, "malloc_usable_size", "GLIBC_2.2.5"));
      dlclose(libc);
    }
  }
  if (found != nullptr) g_usableSize.store(found, std::memory_order_release);
  return found;
}

// glibc's chunk layout (stable since the allocator's 2.x design): the size
// word sits one word before the block, its low three bits are flags, bit 1
// marks a chunk mapped on its own. An in-use chunk owns its successor's first
// word; a mapped chunk has no successor and loses two words of header.
std::size_t UsableFromHeader(const void* block) {
  const std::size_t word = *(reinterpret_cast<const std::size_t*>(block) - 1);
  const std::size_t size = word & ~std::size_t{7};
  const std::size_t overhead = (word & 2) != 0 ? 2 * sizeof(std::size_t) : sizeof(std::size_t);
  return size > overhead ? size - overhead : 0;
}

// Resolved at load, before anything can be freed through the guarded heap.
__attribute__((constructor)) void ResolveAtLoad() {
  if (g_usableSize.load(std::memory_order_acquire) == nullptr) Resolve();
}

}  // namespace

void* SystemMalloc(std::size_t size) { return __libc_malloc(size); }
void* SystemCalloc(std::size_t count, std::size_t size) { return __libc_calloc(count, size); }
void* SystemRealloc(void* block, std::size_t size) { return __libc_realloc(block, size); }
void SystemFree(void* block) noexcept { __libc_free(block); }

void* SystemMemalign(std::size_t alignment, std::size_t size) {
  if (alignment == 0 || (alignment & (alignment - 1)) != 0) return nullptr;
  return __libc_memalign(alignment, size);
}

std::size_t SystemUsableSize(const void* block) {
  if (block == nullptr) return 0;
  UsableSizeFunction f = g_usableSize.load(std::memory_order_acquire);
  if (f == nullptr) f = Resolve();
  return f != nullptr ? f(const_cast<void*>(block)) : UsableFromHeader(block);
}

}  // namespace platform
}  // namespace zmx
