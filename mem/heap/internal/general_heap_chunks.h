// The general heap's chunk layout: boundary-tagged chunks aligned to 16 bytes,
// their flag bits, and the index arithmetic of the small bins and tree bins.
#ifndef ZMXUTI_MEM_HEAP_INTERNAL_GENERAL_HEAP_CHUNKS_H
#define ZMXUTI_MEM_HEAP_INTERNAL_GENERAL_HEAP_CHUNKS_H

#include <cstddef>
#include <cstdint>

namespace zmx {
namespace mem_internal {
namespace heap {

using std::size_t;

constexpr size_t kWord = sizeof(size_t);
constexpr size_t kAlign = 16;
constexpr size_t kAlignMask = kAlign - 1;
// An in-use chunk lends its successor's prev_foot word to the caller, so only
// the head word is overhead.
constexpr size_t kChunkOverhead = kWord;
constexpr size_t kMinChunk = 32;
constexpr size_t kMinRequest = kMinChunk - kChunkOverhead - 1;
// Larger requests are refused outright; far beyond any address space we can map,
// it keeps every size computation below free of overflow.
constexpr size_t kMaxRequest = size_t(1) << 60;
// Requests from here on would wrap the chunk-size arithmetic itself; they alone
// are refused before the limit rule (every other refused size is a failed system request).
constexpr size_t kWrapGuard = (~kMinChunk + 1) << 2;

// Head flags. A chunk with both in-use bits clear is a direct mapping.
constexpr size_t kPinuse = 1;  // the previous chunk is in use
constexpr size_t kCinuse = 2;  // this chunk is in use
constexpr size_t kInuseBits = kPinuse | kCinuse;
constexpr size_t kFlagBits = 7;
// Head word that ends a segment or a direct mapping: in use, impossible size.
constexpr size_t kFencepost = kInuseBits | kWord;

// A free chunk in a small bin. In-use chunks only own prev_foot and head.
struct Chunk {
  size_t prevFoot;  // size of the previous chunk when it is free (offset for mappings)
  size_t head;      // size | flags
  Chunk* fd;
  Chunk* bk;
};

// A free chunk of tree-bin size: a node of its bin's bitwise trie, or a member
// of the ring of equal-sized chunks hanging off such a node.
struct TreeChunk {
  size_t prevFoot;
  size_t head;
  TreeChunk* fd;
  TreeChunk* bk;
  TreeChunk* child[2];
  TreeChunk* parent;  // null for the root and for ring members
  std::uint32_t index;
  std::uint32_t inTree;  // 1 for trie nodes, 0 for ring members
};

inline Chunk* ChunkAt(const void* base, size_t offset) {
  return reinterpret_cast<Chunk*>(const_cast<char*>(static_cast<const char*>(base)) + offset);
}
inline Chunk* ChunkBefore(const void* base, size_t offset) {
  return reinterpret_cast<Chunk*>(const_cast<char*>(static_cast<const char*>(base)) - offset);
}
inline void* ToMem(Chunk* p) { return reinterpret_cast<char*>(p) + 2 * kWord; }
inline Chunk* FromMem(void* mem) { return reinterpret_cast<Chunk*>(static_cast<char*>(mem) - 2 * kWord); }
inline TreeChunk* AsTree(Chunk* p) { return reinterpret_cast<TreeChunk*>(p); }
inline Chunk* AsChunk(TreeChunk* p) { return reinterpret_cast<Chunk*>(p); }

inline size_t ChunkSize(const Chunk* p) { return p->head & ~kFlagBits; }
inline size_t ChunkSize(const TreeChunk* p) { return p->head & ~kFlagBits; }
inline bool Cinuse(const Chunk* p) { return (p->head & kCinuse) != 0; }
inline bool Pinuse(const Chunk* p) { return (p->head & kPinuse) != 0; }
inline bool IsInuse(const Chunk* p) { return (p->head & kInuseBits) != kPinuse; }
inline bool IsMapped(const Chunk* p) { return (p->head & kInuseBits) == 0; }
inline Chunk* NextChunk(const Chunk* p) { return ChunkAt(p, ChunkSize(p)); }

inline size_t PadRequest(size_t request) { return (request + kChunkOverhead + kAlignMask) & ~kAlignMask; }
inline size_t RequestToSize(size_t request) {
  return request < kMinRequest ? kMinChunk : PadRequest(request);
}
inline bool IsAligned(const void* mem) { return (reinterpret_cast<std::uintptr_t>(mem) & kAlignMask) == 0; }

// ---- boundary-tag updates ----
// A free chunk of size s followed by its foot (the next chunk's prev_foot).
inline void SetSizeAndPinuseOfFreeChunk(Chunk* p, size_t s) {
  p->head = s | kPinuse;
  ChunkAt(p, s)->prevFoot = s;
}
inline void SetFreeWithPinuse(Chunk* p, size_t s, Chunk* next) {
  next->head &= ~kPinuse;
  SetSizeAndPinuseOfFreeChunk(p, s);
}
inline void SetInuse(Chunk* p, size_t s) {
  p->head = (p->head & kPinuse) | s | kCinuse;
  ChunkAt(p, s)->head |= kPinuse;
}
inline void SetInuseAndPinuse(Chunk* p, size_t s) {
  p->head = s | kPinuse | kCinuse;
  ChunkAt(p, s)->head |= kPinuse;
}
inline void SetSizeAndPinuseOfInuseChunk(Chunk* p, size_t s) { p->head = s | kPinuse | kCinuse; }

// ---- bins ----
constexpr unsigned kSmallBins = 32;
constexpr unsigned kTreeBins = 32;
constexpr unsigned kSmallShift = 3;
constexpr unsigned kTreeShift = 8;
constexpr size_t kMinLargeSize = size_t(1) << kTreeShift;
constexpr size_t kMaxSmallSize = kMinLargeSize - 1;
constexpr size_t kMaxSmallRequest = kMaxSmallSize - kAlignMask - kChunkOverhead;

inline bool IsSmall(size_t s) { return (s >> kSmallShift) < kSmallBins; }
inline unsigned SmallIndex(size_t s) { return static_cast<unsigned>(s >> kSmallShift); }
inline size_t SmallIndexToSize(unsigned i) { return size_t(i) << kSmallShift; }
inline std::uint32_t IndexBit(unsigned i) { return std::uint32_t(1) << i; }
// All bits above the lowest set bit of x.
inline std::uint32_t LeftBits(std::uint32_t x) { return (x << 1) | (0u - (x << 1)); }
inline unsigned LowestBitIndex(std::uint32_t x) { return static_cast<unsigned>(__builtin_ctz(x)); }

// Two tree bins per power of two from 256 bytes on; the last takes everything above.
inline unsigned TreeIndex(size_t s) {
  const size_t x = s >> kTreeShift;
  if (x == 0) return 0;
  if (x > 0xFFFF) return kTreeBins - 1;
  const unsigned k = 63u - static_cast<unsigned>(__builtin_clzll(x));
  return (k << 1) + static_cast<unsigned>((s >> (k + (kTreeShift - 1))) & 1);
}
// Shift that brings the first size bit below the bin's own bits to the top.
inline unsigned TreeLeftShift(unsigned i) {
  return i == kTreeBins - 1 ? 0u : 63u - ((i >> 1) + kTreeShift - 2);
}
inline size_t TreeBinMinSize(unsigned i) {
  return (size_t(1) << ((i >> 1) + kTreeShift)) | (size_t(i & 1) << ((i >> 1) + kTreeShift - 1));
}
inline TreeChunk* LeftmostChild(const TreeChunk* t) { return t->child[0] ? t->child[0] : t->child[1]; }

}  // namespace heap
}  // namespace mem_internal
}  // namespace zmx

#endif  // ZMXUTI_MEM_HEAP_INTERNAL_GENERAL_HEAP_CHUNKS_H
