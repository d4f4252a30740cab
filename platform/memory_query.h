// The platform contract of the memory diagnostics: what lies at an address of
// the process's address space (in the state/type terms of a Windows region
// query), and the runtime heap's own totals. Linux implements it from
// /proc/self/maps, the dynamic loader's object list and glibc's statistics
// (platform/linux/memory_query.cpp).
//
// Nothing here allocates on any heap, so a diagnostic may call it while the
// heap is in a bad state.
#ifndef ZMXUTI_PLATFORM_MEMORY_QUERY_H
#define ZMXUTI_PLATFORM_MEMORY_QUERY_H

#include <cstdint>

#include "core/export.h"

namespace zmx {
namespace platform {

// Region states.
constexpr std::uint32_t kMemCommit = 0x1000;
constexpr std::uint32_t kMemReserve = 0x2000;
constexpr std::uint32_t kMemFree = 0x10000;
// Region types (0 for a free region).
constexpr std::uint32_t kMemPrivate = 0x20000;
constexpr std::uint32_t kMemMapped = 0x40000;
constexpr std::uint32_t kMemImage = 0x1000000;

struct Region {
  std::uint64_t base = 0;            // the queried address rounded down to its page
  std::uint64_t size = 0;            // bytes from base to the end of the region
  std::uint64_t allocationBase = 0;  // start of the mapping run the region belongs to; 0 when free
  std::uint32_t state = 0;           // kMemCommit, kMemReserve or kMemFree
  std::uint32_t type = 0;            // kMemPrivate, kMemMapped, kMemImage; 0 when free
};

// Describes the region holding `address`, as a Windows region query does:
//  - a gap between mappings (or below the first one) is one free region;
//  - a mapping without any access is reserved, any other mapping committed;
//  - anonymous mappings (heap, stacks, [vdso] and kin) are private; a
//    file-backed mapping that lies inside an object the dynamic loader has
//    loaded is an image, any other file-backed mapping is mapped;
//  - a region is one mapping as the kernel lists it (the kernel already joins
//    neighbours with identical attributes; nothing is merged beyond that);
//  - the allocation base is the start of the run of address-adjacent mappings
//    of the same file (or of anonymous memory) that holds the region.
// False when the address lies outside the user address space or the map
// cannot be read.
ZMXUTI_INTERNAL_API bool QueryRegion(std::uint64_t address, Region& region);

// The runtime (C library) heap's totals, in bytes.
struct RuntimeHeapTotals {
  std::uint64_t committed = 0;  // address space the heap holds with memory behind it
  std::uint64_t inUse = 0;      // bytes in blocks handed out
  std::uint64_t free = 0;       // bytes in free blocks
  std::uint64_t reserved = 0;   // address space held without memory behind it
};
RuntimeHeapTotals QueryRuntimeHeap();

}  // namespace platform
}  // namespace zmx

#endif  // ZMXUTI_PLATFORM_MEMORY_QUERY_H
