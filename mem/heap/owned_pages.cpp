// The general heap's page-ownership map: a two-level radix map over the 47-bit
// user address space. The top level is a static array of leaf pointers (one
// per 4 GiB of address space); a leaf is a bitmap of that range's 2^20 pages,
// mapped from the system on first need and never given back, since a lookup
// may be reading it at any moment.
#include "mem/heap/internal/owned_pages.h"

#include <atomic>
#include <cstdint>

#include "platform/platform.h"

namespace zmx {
namespace mem_internal {
namespace heap {

namespace {

using Word = std::atomic<std::uint64_t>;

constexpr unsigned kPageShift = 12;
constexpr unsigned kAddressBits = 47;
constexpr unsigned kLeafBits = 20;  // pages per leaf: 2^20, so 128 KiB of bitmap
constexpr unsigned kTopBits = kAddressBits - kPageShift - kLeafBits;
constexpr std::uint64_t kLeafPages = std::uint64_t{1} << kLeafBits;
constexpr std::size_t kLeafBytes = kLeafPages / 8;
constexpr std::uint64_t kPageLimit = std::uint64_t{1} << (kAddressBits - kPageShift);

std::atomic<Word*> g_leaves[std::size_t{1} << kTopBits];

static_assert(sizeof(Word) == sizeof(std::uint64_t), "a leaf is a plain bitmap");

std::uint64_t PageOf(const void* address) { return reinterpret_cast<std::uintptr_t>(address) >> kPageShift; }

// Leaves are asked for at fixed addresses of their own, low in the address
// space where nothing else is mapped, never next to the heap's segments: a leaf
// right below a segment would stop the heap from growing it downwards, and the
// heap's layout would then depend on when a leaf happened to be created.
constexpr std::uintptr_t kLeafHome = std::uintptr_t{1} << 44;

// The leaf for pages [i << kLeafBits, ...), created when `create` is set.
// Another thread may race for the same slot when the heap lock is off: the
// loser gives its mapping back.
Word* Leaf(std::uint64_t top, bool create) {
  Word* leaf = g_leaves[top].load(std::memory_order_acquire);
  if (leaf != nullptr || !create) return leaf;
  const void* home = reinterpret_cast<const void*>(kLeafHome + top * kLeafBytes);
  Word* mine = static_cast<Word*>(platform::MapMemory(kLeafBytes, false, home));
  if (mine == nullptr) return nullptr;  // the mapping reads as zero: all bits clear
  if (g_leaves[top].compare_exchange_strong(leaf, mine, std::memory_order_acq_rel)) return mine;
  platform::UnmapMemory(mine, kLeafBytes);
  return leaf;
}

// The bits of pages [first, first + count) inside one word, set or cleared.
void ChangeWord(Word& word, unsigned first, unsigned count, bool set) {
  const std::uint64_t bits = (count == 64 ? ~std::uint64_t{0} : ((std::uint64_t{1} << count) - 1)) << first;
  if (set)
    word.fetch_or(bits, std::memory_order_relaxed);
  else
    word.fetch_and(~bits, std::memory_order_relaxed);
}

// Marks or clears the pages of [address, address + size). Marking fails when
// a leaf cannot be had; clearing never needs one that does not exist.
bool ChangeRange(const void* address, std::size_t size, bool set) {
  std::uint64_t page = PageOf(address);
  const std::uint64_t end = PageOf(static_cast<const char*>(address) + size - 1) + 1;
  if (size == 0 || end > kPageLimit) return !set;
  while (page < end) {
    Word* leaf = Leaf(page >> kLeafBits, set);
    const std::uint64_t leafEnd = ((page >> kLeafBits) + 1) << kLeafBits;
    const std::uint64_t stop = end < leafEnd ? end : leafEnd;
    if (leaf == nullptr) {
      if (set) return false;
      page = stop;
      continue;
    }
    while (page < stop) {
      const unsigned bit = static_cast<unsigned>(page & 63);
      const std::uint64_t inWord = 64 - bit < stop - page ? 64 - bit : stop - page;
      ChangeWord(leaf[(page & (kLeafPages - 1)) >> 6], bit, static_cast<unsigned>(inWord), set);
      page += inWord;
    }
  }
  return true;
}

}  // namespace

void* MapOwnedMemory(std::size_t size, bool fromTop, const void* near, bool prefault) {
  void* base = platform::MapMemory(size, fromTop, near, prefault);
  if (base == nullptr || ChangeRange(base, size, true)) return base;
  ChangeRange(base, size, false);  // the part marked before the failure
  platform::UnmapMemory(base, size);
  return nullptr;
}

bool UnmapOwnedMemory(void* address, std::size_t size) {
  ChangeRange(address, size, false);
  if (platform::UnmapMemory(address, size)) return true;
  ChangeRange(address, size, true);  // its leaves exist: this cannot fail
  return false;
}

bool OwnsPage(const void* address) {
  const std::uint64_t page = PageOf(address);
  if (page >= kPageLimit) return false;
  const Word* leaf = g_leaves[page >> kLeafBits].load(std::memory_order_acquire);
  if (leaf == nullptr) return false;
  return ((leaf[(page & (kLeafPages - 1)) >> 6].load(std::memory_order_relaxed) >> (page & 63)) & 1) != 0;
}

}  // namespace heap
}  // namespace mem_internal
}  // namespace zmx
