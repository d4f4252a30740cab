// The fixed region: equal slots threaded on a free list through the free slots,
// with a frontier mark beyond which no slot was ever handed out.
#include <climits>
#include <cstdio>
#include <cstdlib>

#include "mem/pools/region.h"

namespace {

[[noreturn]] void FixedRegionFault(const char* what, int position) {
  std::fprintf(stderr, "ERROR: fixed region: %s (position %d)\n", what, position);
  std::fflush(stderr);
  std::abort();
}

}  // namespace

mem_FixedRegion::mem_FixedRegion(unsigned int baseIndex, int capacity, int* array, int slotWords, int tag)
    : mem_Region(baseIndex, tag, FirstSlotFor(slotWords), capacity), head_(FirstSlotFor(slotWords)),
      slotWords_(slotWords) {
  if (slotWords < 1 || static_cast<long long>(capacity) - first_ < slotWords) {
    std::fprintf(stderr, "ERROR: fixed region: %d words cannot hold a slot of %d words\n", capacity, slotWords);
    std::fflush(stderr);
    std::abort();
  }
  // Positions are ints: a base beyond that range would hand out negative ones.
  if (static_cast<long long>(baseIndex) + capacity > INT_MAX) {
    std::fprintf(stderr, "ERROR: fixed region: base index %u and capacity %d run past the largest position\n",
                 baseIndex, capacity);
    std::fflush(stderr);
    std::abort();
  }
  array[base_ + head_] = -1;
}

mem_FixedRegion::~mem_FixedRegion() = default;

int mem_FixedRegion::Alloc(int* array, std::size_t) { return TakeSlot(array); }

bool mem_FixedRegion::Free(int* array, int position) {
  if (const char* problem = SlotProblem(position)) FixedRegionFault(problem, position);
  return GiveSlot(array, position);
}

void mem_FixedRegion::DebugPrint() { std::printf("FixedRegion: AllocCount = %d\n", inUse_); }

const char* mem_FixedRegion::DescribeSlotProblem(int position) const {
  const long pos = static_cast<long>(position) - static_cast<long>(base_);
  if (pos < first_ || pos > capacity_ - slotWords_) return "position outside the slots";
  if ((pos - first_) % slotWords_ != 0) return "position not at a slot";
  if (inUse_ <= 0) return "release into a region with no slot in use";
  if (pos == head_) return "slot released twice";
  return nullptr;
}
