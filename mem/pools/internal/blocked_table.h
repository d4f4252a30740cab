// A growable table indexed by small integers: chunks of kChunkEntries entries
// (zero-filled when first needed) behind a growable array of chunk pointers.
// Entries never move once their chunk exists, so references into a chunk stay
// valid while the table grows. All memory comes from the caller's ChunkMemory,
// so the owner decides where it lives (an allocator that can purge, the front
// door, ...). Not locked.
//
//   ChunkMemory memory{&MyAllocate, &MyRelease, context};
//   BlockedTable<Record*, 1024> table(memory, 64);
//   if (table.Reserve(index)) table[index] = record;
//   Record* r = table.Get(index);   // null (T{}) for an index never reserved
//   table.Release();                // chunks and the chunk array go back
#ifndef ZMXUTI_MEM_POOLS_INTERNAL_BLOCKED_TABLE_H
#define ZMXUTI_MEM_POOLS_INTERNAL_BLOCKED_TABLE_H

#include <cstddef>
#include <cstring>
#include <type_traits>

namespace zmx {
namespace mem_internal {

// Where a table's memory comes from: allocate returns null on failure.
struct ChunkMemory {
  void* (*allocate)(void* context, std::size_t bytes);
  void (*release)(void* context, void* block);
  void* context;
};

template <class T, unsigned int kChunkEntries>
class BlockedTable {
  static_assert(std::is_trivially_copyable<T>::value, "entries are zero-filled and copied as bytes");
  static_assert(kChunkEntries > 0 && (kChunkEntries & (kChunkEntries - 1)) == 0, "chunk size is a power of two");

 public:
  // Nothing is allocated until the first Reserve; the chunk array then starts
  // with `initialChunks` pointers and doubles as indices grow.
  BlockedTable(const ChunkMemory& memory, unsigned int initialChunks)
      : memory_(memory), chunks_(nullptr), chunkCount_(0), initialChunks_(initialChunks ? initialChunks : 1) {}
  ~BlockedTable() { Release(); }
  BlockedTable(const BlockedTable&) = delete;
  BlockedTable& operator=(const BlockedTable&) = delete;

  static constexpr unsigned int ChunkEntries() { return kChunkEntries; }
  // Entries addressable without growing the chunk array.
  std::size_t Capacity() const { return static_cast<std::size_t>(chunkCount_) * kChunkEntries; }

  // Makes entry `index` present (its chunk zero-filled if new); false when memory runs out.
  bool Reserve(std::size_t index) {
    const std::size_t chunk = index / kChunkEntries;
    if (chunk >= chunkCount_ && !GrowTo(chunk)) return false;
    if (chunks_[chunk] != nullptr) return true;
    void* fresh = memory_.allocate(memory_.context, sizeof(T) * kChunkEntries);
    if (fresh == nullptr) return false;
    std::memset(fresh, 0, sizeof(T) * kChunkEntries);
    chunks_[chunk] = static_cast<T*>(fresh);
    return true;
  }

  // The entry, or T{} when its chunk was never reserved.
  T Get(std::size_t index) const {
    const T* entry = Find(index);
    return entry != nullptr ? *entry : T{};
  }
  // The entry's address, or null when its chunk was never reserved.
  T* Find(std::size_t index) const {
    const std::size_t chunk = index / kChunkEntries;
    if (chunk >= chunkCount_ || chunks_[chunk] == nullptr) return nullptr;
    return chunks_[chunk] + index % kChunkEntries;
  }
  // An entry made present by Reserve.
  T& operator[](std::size_t index) { return chunks_[index / kChunkEntries][index % kChunkEntries]; }

  // Returns every chunk and the chunk array; the table is empty again.
  void Release() {
    for (std::size_t i = 0; i < chunkCount_; ++i)
      if (chunks_[i] != nullptr) memory_.release(memory_.context, chunks_[i]);
    if (chunks_ != nullptr) memory_.release(memory_.context, chunks_);
    chunks_ = nullptr;
    chunkCount_ = 0;
  }

 private:
  bool GrowTo(std::size_t chunk) {
    std::size_t count = chunkCount_ ? chunkCount_ : initialChunks_;
    while (count <= chunk) count *= 2;
    if (count > static_cast<std::size_t>(-1) / sizeof(T*)) return false;
    void* fresh = memory_.allocate(memory_.context, count * sizeof(T*));
    if (fresh == nullptr) return false;
    T** grown = static_cast<T**>(fresh);
    for (std::size_t i = 0; i < count; ++i) grown[i] = i < chunkCount_ ? chunks_[i] : nullptr;
    if (chunks_ != nullptr) memory_.release(memory_.context, chunks_);
    chunks_ = grown;
    chunkCount_ = count;
    return true;
  }

  ChunkMemory memory_;
  T** chunks_;
  std::size_t chunkCount_;
  std::size_t initialChunks_;
};

}  // namespace mem_internal
}  // namespace zmx

#endif  // ZMXUTI_MEM_POOLS_INTERNAL_BLOCKED_TABLE_H
