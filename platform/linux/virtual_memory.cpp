// Linux virtual memory for the platform contract: mmap/munmap and the page size.
#include "platform/platform.h"

#include <sys/mman.h>
#include <unistd.h>

namespace zmx {
namespace platform {

std::size_t PageSize() {
  static const std::size_t size = static_cast<std::size_t>(sysconf(_SC_PAGESIZE));
  return size;
}

// Linux maps at page granularity; the library still takes address space in
// 64 KiB units, as it does where the system imposes them, so that heaps grow in
// the same steps on every OS and do not make one system call per page.
std::size_t AllocationGranularity() {
  constexpr std::size_t kUnit = 64 * 1024;
  return PageSize() > kUnit ? PageSize() : kUnit;
}

void* MapMemory(std::size_t size, bool /*fromTop*/, const void* near, bool prefault) {
  // Linux hands out mappings from the top of the address space downwards
  // already; a free range at `near` is taken when asked for.
  void* p = mmap(const_cast<void*>(near), size, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS | (prefault ? MAP_POPULATE : 0), -1, 0);
  return p == MAP_FAILED ? nullptr : p;
}

bool UnmapMemory(void* address, std::size_t size) { return munmap(address, size) == 0; }

}  // namespace platform
}  // namespace zmx
