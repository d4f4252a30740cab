// A stand-in for the small-object allocator that tests may install: the front
// door then calls these four operations instead of the allocator of mem/pools.
#ifndef ZMXUTI_MEM_INTERNAL_SMALL_OBJECT_HOOKS_H
#define ZMXUTI_MEM_INTERNAL_SMALL_OBJECT_HOOKS_H

#include <cstddef>

#include "core/export.h"

namespace zmx {
namespace mem_internal {

// The largest request the small-object allocator serves.
constexpr std::size_t kLargestTiny = 128;

struct SmallObjectOps {
  // A block for 0..128 bytes, or null. Creates the allocator on first use.
  void* (*allocate)(std::size_t size, bool lockWanted);
  // Returns a block whose page carries the small-object mark.
  void (*free)(void* block);
  // Reallocates a marked block (size 0 frees and returns null).
  void* (*reallocate)(void* block, std::size_t size);
  // Creates the allocator if need be and sets its locking switch.
  void (*setLocking)(bool on);
};

// The installed stand-in, null while the real allocator serves.
extern const SmallObjectOps* g_smallObjectStandIn;

// Installs `ops` (all four set) for the rest of the process.
ZMXUTI_INTERNAL_API void InstallSmallObjectOps(const SmallObjectOps& ops);

}  // namespace mem_internal
}  // namespace zmx

#endif  // ZMXUTI_MEM_INTERNAL_SMALL_OBJECT_HOOKS_H
