// The loaded-object questions of the Linux platform layer.
#include "platform/linux/loaded_objects.h"

#include <link.h>

#include "platform/platform.h"

namespace zmx {
namespace platform {

namespace {

struct SegmentSearch {
  std::uintptr_t address;
  bool codeOnly;
  bool found;
};

int FindSegment(dl_phdr_info* info, size_t, void* raw) {
  auto* search = static_cast<SegmentSearch*>(raw);
  const std::uintptr_t page = PageSize();
  for (int i = 0; i < info->dlpi_phnum; ++i) {
    const ElfW(Phdr)& segment = info->dlpi_phdr[i];
    if (segment.p_type != PT_LOAD || (search->codeOnly && (segment.p_flags & PF_X) == 0)) continue;
    const std::uintptr_t start = (info->dlpi_addr + segment.p_vaddr) & ~(page - 1);
    const std::uintptr_t end = info->dlpi_addr + segment.p_vaddr + segment.p_memsz;
    if (search->address >= start && search->address < end) {
      search->found = true;
      return 1;
    }
  }
  return 0;
}

}  // namespace

bool InLoadedSegment(std::uintptr_t address, bool codeOnly) {
  SegmentSearch search{address, codeOnly, false};
  dl_iterate_phdr(FindSegment, &search);
  return search.found;
}

}  // namespace platform
}  // namespace zmx
