// The runtime heap filling of the allocation table.
#include "mem/internal/runtime_heap.h"

#include "mem/internal/alloc_table.h"

namespace zmx {
namespace mem_internal {

int NoTrim(std::size_t) { return 0; }
int NoMallopt(int, int) { return 0; }
std::size_t NoSize() { return 0; }
dl_mallinfo NoMallinfo() { return dl_mallinfo{}; }
int NoStatus() { return 0; }

const AllocTable kRuntimeHeapTable = {
    RuntimeMalloc, RuntimeCalloc, RuntimeRealloc, RuntimeFree, NoTrim,  NoMallopt,
    NoSize,        NoSize,        NoSize,         NoMallinfo,  NoStatus, NoSize,
    RuntimeMemalign, RuntimeUsableSize,
};

}  // namespace mem_internal
}  // namespace zmx
