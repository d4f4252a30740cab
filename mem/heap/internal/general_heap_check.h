// Test-facing hooks of the general heap: the consistency walk over every
// segment, chunk, bin and trie, and a view of the parameters in force.
#ifndef ZMXUTI_MEM_HEAP_INTERNAL_GENERAL_HEAP_CHECK_H
#define ZMXUTI_MEM_HEAP_INTERNAL_GENERAL_HEAP_CHECK_H

#include <cstddef>

#include "core/export.h"

namespace zmx {
namespace mem_internal {

// ---- the consistency walk, reachable from the tests ----
struct HeapWalkReport {
  bool consistent;
  std::size_t segments;
  std::size_t chunks;      // chunks in segments, top and footers excluded
  std::size_t freeChunks;  // free chunks in segments, top excluded
  std::size_t binned;      // chunks found in the bins
  std::size_t topSize;
  std::size_t largestFree;
  char problem[240];  // first fault found, empty when consistent
};

// Walks every segment, chunk, bin and trie of the general heap under its lock.
ZMXUTI_INTERNAL_API HeapWalkReport CheckGeneralHeap();

// The parameters and the working copies in force, for the tests.
struct HeapParameterView {
  std::size_t pageSize, granularity, mmapThreshold, trimThreshold, defaultFlags;
  std::size_t lockUse, memoryLimit, magic;
  std::size_t lockUseInForce, memoryLimitInForce, heapFlags;
};
ZMXUTI_INTERNAL_API HeapParameterView GeneralHeapParameters();

}  // namespace mem_internal
}  // namespace zmx

#endif  // ZMXUTI_MEM_HEAP_INTERNAL_GENERAL_HEAP_CHECK_H
