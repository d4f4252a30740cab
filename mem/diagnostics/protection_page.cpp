// Protection-page markers. Each line is flushed at once: the exercisers that
// use them may end the process by a fault before stdio would flush.
#include "mem/diagnostics/protection_page.h"

#include <cstdint>
#include <cstdio>

namespace zmx {
namespace mem_internal {

namespace {

unsigned Low32(const void* address) { return static_cast<unsigned>(reinterpret_cast<std::uintptr_t>(address)); }

}  // namespace

ProtectionPage::ProtectionPage(const void* address, int size) {
  std::printf("Creating a protection page at address 0x%08x, size %d\n", Low32(address), size);
  std::fflush(stdout);
}

ProtectionPage::~ProtectionPage() {
  std::printf("DESTROYING a PROTECTION PAGE ...\n");
  std::printf("Destroying a protection page at address 0x%08x, size %d\n", Low32(address_), size_);
  std::fflush(stdout);
}

}  // namespace mem_internal
}  // namespace zmx
