// How the front door reaches the small-object allocator: inline calls into the
// allocator, unless a test has installed a stand-in through the hooks.
#ifndef ZMXUTI_MEM_INTERNAL_SMALL_OBJECT_ROUTING_H
#define ZMXUTI_MEM_INTERNAL_SMALL_OBJECT_ROUTING_H

#include "mem/internal/small_object_hooks.h"
#include "mem/pools/internal/small_objects.h"

namespace zmx {
namespace mem_internal {

inline void* SmallAllocate(std::size_t size, bool lockWanted) {
  if (ZMX_UNLIKELY(g_smallObjectStandIn != nullptr)) return g_smallObjectStandIn->allocate(size, lockWanted);
  return small_objects::Allocate(size, lockWanted);
}
inline void SmallFree(void* block) {
  if (ZMX_UNLIKELY(g_smallObjectStandIn != nullptr)) return g_smallObjectStandIn->free(block);
  small_objects::Free(block);
}
inline void* SmallReallocate(void* block, std::size_t size) {
  if (g_smallObjectStandIn != nullptr) return g_smallObjectStandIn->reallocate(block, size);
  return small_objects::Reallocate(block, size);
}
// A marked block's slot size, read from its page record.
inline std::size_t SmallUsableSize(const void* block) {
  return static_cast<std::size_t>(small_objects::RecordOf(block)->SlotWords()) * sizeof(int);
}
inline void SmallSetLocking(bool on) {
  if (g_smallObjectStandIn != nullptr) return g_smallObjectStandIn->setLocking(on);
  small_objects::SetLocking(on);
}

}  // namespace mem_internal
}  // namespace zmx

#endif  // ZMXUTI_MEM_INTERNAL_SMALL_OBJECT_ROUTING_H
