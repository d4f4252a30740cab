// The stack hash: phase path strings to phase identifiers in a fixed table of
// 5987 slots, the keys copied back to back into one string pool.
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>

#include "mem/allocation.h"
#include "mem/tracker/hashes.h"
#include "mem/tracker/internal/probe_step.h"

namespace {

constexpr int kPoolIncrement = 32768;

// Characters count as signed bytes: a path and its permutations share a home slot.
std::uint32_t PathHash(const char* key) {
  std::uint32_t h = 0;
  for (const char* c = key; *c != '\0'; ++c) {
    h += static_cast<std::uint32_t>(static_cast<int>(static_cast<signed char>(*c)) - 48);
  }
  return h;
}

[[noreturn]] void Fatal(const char* message, long long number) {
  std::fprintf(stderr, message, number);
  std::fflush(stderr);
  std::abort();
}

}  // namespace

mem_StackHash::mem_StackHash()
    : used_(0), live_(0), capacity_(kCapacity), lookups_(0), probes_(0), poolLength_(0),
      poolCapacity_(kInlinePool), pool_(inlinePool_) {
  std::memcpy(emptyMarker_, "EMPTY", sizeof emptyMarker_);
  std::memcpy(deletedMarker_, "DELETED", sizeof deletedMarker_);
  for (Slot& slot : slots_) slot = Slot{emptyMarker_, 0};
}

mem_StackHash::~mem_StackHash() {
  if (pool_ != inlinePool_) mem_cFree(pool_);
}

int mem_StackHash::Search(const char* key) const {
  ++lookups_;
  const std::uint32_t h0 = PathHash(key);
  const int step = static_cast<int>(zmx::mem_internal::ProbeStep(h0, kCapacity));
  int slot = static_cast<int>(h0 % kCapacity);
  ++probes_;
  if (slots_[slot].key == emptyMarker_) return slot;
  int firstDeleted = -1;
  for (;;) {
    const char* found = slots_[slot].key;
    if (found == emptyMarker_) break;
    if (found == deletedMarker_) {
      if (firstDeleted < 0) firstDeleted = slot;
    } else if (std::strcmp(found, key) == 0) {
      return slot;
    }
    slot = (slot + step) % kCapacity;
    ++probes_;
  }
  return firstDeleted >= 0 ? firstDeleted : slot;
}

void mem_StackHash::Insert(const char* key, int value) {
  if (used_ * 3 >= capacity_ * 2) {
    std::fputs("mem_PtrHash::Add  --  ERROR  --  Stack hash table has been overfilled.\n", stderr);
    std::fflush(stderr);
    std::exit(0);
  }
  const int slot = Search(key);
  if (slots_[slot].key == emptyMarker_) ++used_;
  slots_[slot].key = CopyToPool(key);
  slots_[slot].value = value;
  ++live_;
}

const char* mem_StackHash::CopyToPool(const char* key) {
  const std::int64_t length = static_cast<std::int64_t>(std::strlen(key)) + 1;
  if (poolLength_ + length > poolCapacity_) {
    // The key may be one this table handed out (ForEach): it moves with the pool.
    const bool ownKey = !std::less<const char*>()(key, pool_) && std::less<const char*>()(key, pool_ + poolLength_);
    const std::ptrdiff_t offset = ownKey ? key - pool_ : 0;
    GrowPool(length);
    if (ownKey) key = pool_ + offset;
  }
  char* copy = pool_ + poolLength_;
  std::memcpy(copy, key, static_cast<std::size_t>(length));
  poolLength_ += static_cast<int>(length);
  return copy;
}

void mem_StackHash::GrowPool(std::int64_t needed) {
  std::fputs("\n\nWARNING: Memory tracking. Forced to resize mem_StackHash.\n", stderr);
  std::fputs("Memory use from tracking code may change allocation patterns.\n\n", stderr);
  // One step of 32768 bytes, or as many as a longer key needs.
  std::int64_t capacity = static_cast<std::int64_t>(poolCapacity_) + kPoolIncrement;
  while (capacity < poolLength_ + needed) capacity += kPoolIncrement;
  if (capacity > INT_MAX) Fatal("ERROR: mem_StackHash  --  string pool cannot grow to %lld bytes\n", capacity);
  char* fresh = static_cast<char*>(mem_cMalloc(static_cast<std::size_t>(capacity)));
  if (fresh == nullptr) Fatal("ERROR: mem_StackHash  --  cannot allocate a string pool of %lld bytes\n", capacity);
  std::memcpy(fresh, pool_, static_cast<std::size_t>(poolLength_));
  for (int i = 0; i < kCapacity; ++i) {
    if (Occupied(i)) slots_[i].key = fresh + (slots_[i].key - pool_);
  }
  if (pool_ != inlinePool_) mem_cFree(pool_);
  pool_ = fresh;
  poolCapacity_ = static_cast<int>(capacity);
}

int mem_StackHash::LookUp(const char* key) const {
  if (used_ == 0) return kNotFound;
  const int slot = Search(key);
  return Occupied(slot) ? slots_[slot].value : kNotFound;
}

float mem_StackHash::HitRate() const {
  return lookups_ == 0 ? 0.0f : static_cast<float>(probes_) / static_cast<float>(lookups_);
}

void mem_StackHash::ForEach(void (*visit)(const char* key, int value, void* context), void* context) const {
  for (int i = 0; i < kCapacity; ++i) {
    if (Occupied(i)) visit(slots_[i].key, slots_[i].value, context);
  }
}
