// The general heap's page-ownership map: one bit per 4 KiB page of the 47-bit
// user address space, set while the page lies in a run the heap obtained from
// the system (a segment or a direct mapping). It answers "is this block the
// heap's?" in a few loads, without the heap lock, for callers that must tell
// the heap's blocks from the system allocator's on every free.
//
// Every system mapping of the heap goes through the two calls below, so the
// map is exact: bits are set once the system has handed a range over and
// cleared before the range goes back, so that no instant exists in which a
// range the system may hand to someone else still reads as the heap's.
#ifndef ZMXUTI_MEM_HEAP_INTERNAL_OWNED_PAGES_H
#define ZMXUTI_MEM_HEAP_INTERNAL_OWNED_PAGES_H

#include <cstddef>

namespace zmx {
namespace mem_internal {
namespace heap {

// platform::MapMemory, then the range is marked the heap's. Null when the
// system refuses, or when the map cannot record the range (its leaf could not
// be obtained, or the range lies beyond the 47-bit space): the range is then
// given back. Called under the heap lock.
void* MapOwnedMemory(std::size_t size, bool fromTop, const void* near = nullptr, bool prefault = false);
// Clears the range's marks, then platform::UnmapMemory; when the system
// refuses, the marks are put back and false returned. Called under the heap lock.
bool UnmapOwnedMemory(void* address, std::size_t size);
// Whether the page holding `address` lies in a run the heap holds now.
// Lock-free (atomic loads only); may be called from any thread at any time.
bool OwnsPage(const void* address);

}  // namespace heap
}  // namespace mem_internal
}  // namespace zmx

#endif  // ZMXUTI_MEM_HEAP_INTERNAL_OWNED_PAGES_H
