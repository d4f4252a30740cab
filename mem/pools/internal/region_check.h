// Consistency walks over both kinds of region, for the tests and for builds
// with ZMX_HEAP_DEBUG (where the variable region walks itself after every
// operation).
#ifndef ZMXUTI_MEM_POOLS_INTERNAL_REGION_CHECK_H
#define ZMXUTI_MEM_POOLS_INTERNAL_REGION_CHECK_H

#include <string>

#include "core/export.h"
#include "mem/pools/region.h"

namespace zmx {
namespace mem_internal {

// True when the variable region laid out in `array` is consistent; otherwise
// false, with the first fault found in *problem when `problem` is not null.
// Checked: the blocks tile the words from 16 to the closing header with
// matching preceding-size words, no two free blocks touch, the blocks in use
// add up to the words in use; the free tree is an AVL tree (heights, balance,
// parent links, order by size then position) holding every free block of 8
// words or more exactly once and nothing else; the largest-free cache is the
// tree's largest block (0 and -1 when the tree is empty).
ZMXUTI_INTERNAL_API bool CheckVariableRegion(const mem_VariableRegion& region, const int* array,
                                             std::string* problem);

// The same for a fixed region: the free list runs through slots inside the
// region and on the slot grid, without cycles, to the frontier (a slot word of
// -1, or the end of the whole slots), every free slot lies below the frontier,
// and the words in use are the slots below the frontier less the free ones.
ZMXUTI_INTERNAL_API bool CheckFixedRegion(const mem_FixedRegion& region, const int* array,
                                          std::string* problem);

}  // namespace mem_internal
}  // namespace zmx

#endif  // ZMXUTI_MEM_POOLS_INTERNAL_REGION_CHECK_H
