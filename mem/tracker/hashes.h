// Two small open-addressing tables for the memory tracker and for clients that
// need a map without going through the tracked allocation paths: mem_PtrHash
// (64-bit keys such as pointers to 32-bit values; grows) and mem_StackHash
// (phase path strings to phase identifiers; fixed capacity, own string pool).
// Both probe with double hashing, mark free and deleted slots with sentinels,
// count lookups and probes, and take memory only from mem_cMalloc/mem_cFree.
//
//   mem_PtrHash map(0);
//   map.Add(reinterpret_cast<std::int64_t>(p), 7);
//   int v = map.LookUp(reinterpret_cast<std::int64_t>(p));   // 0x7FFFFFFF when absent
#ifndef ZMXUTI_MEM_TRACKER_HASHES_H
#define ZMXUTI_MEM_TRACKER_HASHES_H

#include <cstdint>
#include <cstdio>

#include "core/export.h"

class ZMXUTI_API mem_PtrHash {
 public:
  static constexpr std::int64_t kEmpty = 0x7FFFFFFF;    // sentinel keys: cannot be stored
  static constexpr std::int64_t kDeleted = 0x7FFFFFFE;
  static constexpr int kNotFound = 0x7FFFFFFF;

  // n > 0: a table for n entries (capacity: first table size >= 2n); else no table until the first Add.
  explicit mem_PtrHash(int n);
  ~mem_PtrHash();
  mem_PtrHash(const mem_PtrHash&) = delete;
  mem_PtrHash& operator=(const mem_PtrHash&) = delete;

  // Rebuilds first when used * 3 >= capacity * 2 (also the first build of a table made with n <= 0,
  // which sets Resized() like any rebuild). Adding a present key overwrites its value and still
  // counts it as a new live entry (deliberately: no presence test). The sentinel keys kEmpty and
  // kDeleted cannot be stored: Add ignores them, with no effect at all. A table that needs more than
  // the largest capacity (134217757 slots) stays at that size and fills on; taking its last free
  // slot aborts the process with "ERROR: mem_PtrHash::Add  --  table cannot grow beyond ...".
  void Add(std::int64_t key, int value);
  int LookUp(std::int64_t key) const;  // kNotFound when absent (always for the sentinel keys)
  void Delete(std::int64_t key);       // the slot becomes DELETED; used stays
  // "\nHASHING INFORMATION\n" and the lines after it, to `stream`.
  void PrintStatistics(std::FILE* stream) const;
  float HitRate() const;  // probes / lookups; 0 without lookups
  // The live values in slot order, in an array from mem_cMalloc (release with mem_cFree); null when
  // none. *count receives the number of values (the stored entries, which Live() can exceed).
  int* Values(int* count) const;

  unsigned int Capacity() const { return capacity_; }
  int Used() const { return used_; }
  int Live() const { return live_; }
  bool Resized() const { return resized_; }
  std::int64_t MemoryBytes() const { return memory_; }

 private:
  struct Slot {
    std::int64_t key;
    int value;
  };
  void Build(int n);
  void Rebuild();
  void Place(std::int64_t key, int value);  // search, store, count: no rebuild check
  int Search(std::int64_t key) const;

  Slot* table_;
  int used_;
  int live_;
  unsigned int capacity_;
  mutable unsigned int lookups_;
  mutable unsigned int probes_;
  bool resized_;
  std::int64_t memory_;
};

class ZMXUTI_API mem_StackHash {
 public:
  static constexpr int kCapacity = 5987;
  static constexpr int kInlinePool = 32768;
  static constexpr int kNotFound = 0x7FFFFFFF;

  mem_StackHash();
  ~mem_StackHash();  // releases a pool that outgrew the inline one
  mem_StackHash(const mem_StackHash&) = delete;
  mem_StackHash& operator=(const mem_StackHash&) = delete;

  // Ends the process (status 0, message on stderr) once two thirds of the slots are used.
  // The key (non-null) is copied into the string pool, which grows by 32768 bytes at a time
  // with a warning on stderr. Inserting a present key overwrites its value and counts it again.
  void Insert(const char* key, int value);
  int LookUp(const char* key) const;  // kNotFound when absent
  float HitRate() const;
  // Visits the occupied slots in bucket order (the phase file's order).
  void ForEach(void (*visit)(const char* key, int value, void* context), void* context) const;

  int Used() const { return used_; }
  int Live() const { return live_; }
  int PoolLength() const { return poolLength_; }
  int PoolCapacity() const { return poolCapacity_; }

 private:
  struct Slot {
    const char* key;
    int value;
  };
  int Search(const char* key) const;
  bool Occupied(int slot) const { return slots_[slot].key != emptyMarker_ && slots_[slot].key != deletedMarker_; }
  const char* CopyToPool(const char* key);
  void GrowPool(std::int64_t needed);

  Slot slots_[kCapacity];
  int used_;
  int live_;
  int capacity_;
  mutable unsigned int lookups_;
  mutable unsigned int probes_;
  int poolLength_;
  char inlinePool_[kInlinePool];
  int poolCapacity_;
  char* pool_;
  char emptyMarker_[6];     // "EMPTY": an empty slot points here
  char deletedMarker_[8];   // "DELETED"
};

#endif  // ZMXUTI_MEM_TRACKER_HASHES_H
