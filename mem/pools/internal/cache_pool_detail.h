// The cache pools' arithmetic: size classes, handle packing and the buckets
// that file clusters by the size of their largest free variable run.
#ifndef ZMXUTI_MEM_POOLS_INTERNAL_CACHE_POOL_DETAIL_H
#define ZMXUTI_MEM_POOLS_INTERNAL_CACHE_POOL_DETAIL_H

#include <cstdint>

namespace zmx {
namespace mem_internal {
namespace cache_pool {

constexpr int kBlockRecordWords = 8;      // 32-byte block records
constexpr int kClusterRecordWords = 106;  // 424-byte cluster records
constexpr int kMaxBlocks = 0x7FFFFFFF;    // block index << 1 must fit the handle
constexpr int kMaxClusters = 0x8000;      // cluster indices 1..32767
constexpr int kVariableClass = 10;

// Classes 0..9 hold elements of 4, 8, 16, 32, ..., 128 bytes; 10 is variable.
constexpr int SizeClass(std::uint64_t s) {
  return s < 9 ? static_cast<int>((s - 1) >> 2) : s <= 128 ? static_cast<int>(((s - 1) >> 4) + 2) : kVariableClass;
}

// A byte size as whole words (saturated to 32 bits).
constexpr unsigned int WordsOf(std::uint64_t s) {
  return s == 0 ? 0u : ((s - 1) >> 2) + 1 > 0xFFFFFFFFull ? 0xFFFFFFFFu : static_cast<unsigned int>(((s - 1) >> 2) + 1);
}

constexpr unsigned int ClusterHandle(int index, int offset) {
  return 1u | (static_cast<unsigned int>(index) << 1) | (static_cast<unsigned int>(offset) << 16);
}

constexpr int BitLength(unsigned int k) {
  int bits = 0;
  for (; k != 0; k >>= 1) ++bits;
  return bits;
}

// The first bucket whose clusters are sure to hold a variable request of `s`
// bytes (s <= 16384): the request's words less 3, past 31 in steps of 32, as
// a bit length.
constexpr int RequestBucket(std::uint64_t s) {
  const int w = static_cast<int>((s - 1) >> 2);
  const int r = w + ((-(w + 3)) & 3);
  const int k = (r - 31) >> 5;
  return k <= 0 ? 0 : BitLength(static_cast<unsigned int>(k));
}

// The bucket of a cluster whose largest free run is `words` long: one lower
// than a request's bit length, so each cluster in bucket b >= 1 holds any
// request of bucket b or lower.
constexpr int FreeSpaceBucket(int words) {
  const int k = (words - 34) >> 5;
  if (k <= 0) return 0;
  const int bucket = BitLength(static_cast<unsigned int>(k)) - 1;
  return bucket < 7 ? bucket : 7;
}

}  // namespace cache_pool
}  // namespace mem_internal
}  // namespace zmx

#endif  // ZMXUTI_MEM_POOLS_INTERNAL_CACHE_POOL_DETAIL_H
