// The pointer hash: a growing open-addressing map from 64-bit keys to ints,
// double hashing over prime capacities, slot arrays straight from the chosen heap.
#include <cstdio>
#include <cstdlib>

#include "mem/allocation.h"
#include "mem/tracker/hashes.h"
#include "mem/tracker/internal/probe_step.h"

namespace {

// 13107 breaks the ascending order; the first-fit search below never picks it.
constexpr unsigned int kCapacities[] = {15683,   19609,   31397,    65521,    13107,
                                        262139,  524287,  1048573,  2097143,  4194301,
                                        8388593, 16777213, 33554393, 67108859, 134217757};
constexpr unsigned int kLargestCapacity = 134217757;

// The first entry not smaller than `wanted`; the largest when none is.
unsigned int CapacityFor(std::int64_t wanted) {
  for (unsigned int capacity : kCapacities) {
    if (static_cast<std::int64_t>(capacity) >= wanted) return capacity;
  }
  return kLargestCapacity;
}

[[noreturn]] void Fatal(const char* message, unsigned long long number) {
  std::fprintf(stderr, message, number);
  std::fflush(stderr);
  std::abort();
}

bool IsSentinel(std::int64_t key) { return key == mem_PtrHash::kEmpty || key == mem_PtrHash::kDeleted; }

}  // namespace

mem_PtrHash::mem_PtrHash(int n)
    : table_(nullptr), used_(0), live_(0), capacity_(0), lookups_(0), probes_(0), resized_(false), memory_(0) {
  if (n > 0) Build(n);
}

mem_PtrHash::~mem_PtrHash() {
  if (table_ != nullptr) mem_cFree(table_);
}

void mem_PtrHash::Build(int n) {
  static_assert(sizeof(Slot) == 16, "memory counts 16 bytes a slot");
  capacity_ = CapacityFor(2 * static_cast<std::int64_t>(n));
  const std::size_t bytes = static_cast<std::size_t>(capacity_) * sizeof(Slot);
  table_ = static_cast<Slot*>(mem_cMalloc(bytes));
  if (table_ == nullptr) Fatal("ERROR: mem_PtrHash  --  cannot allocate a table of %llu bytes\n", bytes);
  for (unsigned int i = 0; i < capacity_; ++i) table_[i] = Slot{kEmpty, 0};
  memory_ = static_cast<std::int64_t>(bytes);
  used_ = 0;
  live_ = 0;
}

void mem_PtrHash::Rebuild() {
  // Past the last capacity there is nowhere to go: the full-size table fills on
  // until its last free slot (Place refuses that one).
  if (capacity_ == kLargestCapacity && 2 * static_cast<std::int64_t>(live_) > kLargestCapacity) return;
  Slot* old = table_;
  const unsigned int oldCapacity = capacity_;
  Build(live_);
  resized_ = true;
  if (old == nullptr) return;
  for (unsigned int i = 0; i < oldCapacity; ++i) {
    if (!IsSentinel(old[i].key)) Place(old[i].key, old[i].value);
  }
  mem_cFree(old);
}

void mem_PtrHash::Add(std::int64_t key, int value) {
  if (IsSentinel(key)) return;
  if (static_cast<std::int64_t>(used_) * 3 >= static_cast<std::int64_t>(capacity_) * 2) Rebuild();
  Place(key, value);
}

void mem_PtrHash::Place(std::int64_t key, int value) {
  const int slot = Search(key);
  if (table_[slot].key == kEmpty) {
    // Searches end only at an empty slot, so the last one must stay empty.
    if (static_cast<unsigned int>(used_) + 1 >= capacity_) {
      Fatal("ERROR: mem_PtrHash::Add  --  table cannot grow beyond %llu slots\n", kLargestCapacity);
    }
    ++used_;
  }
  table_[slot].key = key;
  table_[slot].value = value;
  ++live_;
}

int mem_PtrHash::Search(std::int64_t key) const {
  ++lookups_;
  const auto h0 = static_cast<std::uint32_t>(key);
  const int capacity = static_cast<int>(capacity_);
  const int step = static_cast<int>(zmx::mem_internal::ProbeStep(h0, capacity_));
  int slot = static_cast<int>(h0 % capacity_);
  ++probes_;
  if (table_[slot].key == kEmpty) return slot;
  int firstDeleted = -1;
  for (;;) {
    const std::int64_t found = table_[slot].key;
    if (found == kEmpty) break;
    if (found == kDeleted) {
      if (firstDeleted < 0) firstDeleted = slot;
    } else if (found == key) {
      return slot;
    }
    slot = (slot + step) % capacity;
    ++probes_;
  }
  return firstDeleted >= 0 ? firstDeleted : slot;
}

int mem_PtrHash::LookUp(std::int64_t key) const {
  // A sentinel would "match" the empty or deleted slot the search ends on.
  if (used_ == 0 || IsSentinel(key)) return kNotFound;
  const int slot = Search(key);
  return table_[slot].key == key ? table_[slot].value : kNotFound;
}

void mem_PtrHash::Delete(std::int64_t key) {
  if (used_ == 0 || IsSentinel(key)) return;
  const int slot = Search(key);
  if (table_[slot].key != key) return;
  table_[slot].key = kDeleted;
  table_[slot].value = 0;
  --live_;
}

float mem_PtrHash::HitRate() const {
  return lookups_ == 0 ? 0.0f : static_cast<float>(probes_) / static_cast<float>(lookups_);
}

void mem_PtrHash::PrintStatistics(std::FILE* stream) const {
  std::fprintf(stream, "\nHASHING INFORMATION\n");
  std::fprintf(stream, resized_ ? "   HASH TABLE WAS RESIZED\n" : "   Hash Table was not Resized\n");
  std::fprintf(stream, "   Hit Rate = %f\n", static_cast<double>(HitRate()));
  std::fprintf(stream, "   m_table  = %p\n", static_cast<void*>(table_));
  std::fprintf(stream, "   Memory Used for Hash Table = %ld\n", static_cast<long>(memory_));
}

int* mem_PtrHash::Values(int* count) const {
  int stored = 0;
  for (unsigned int i = 0; i < capacity_; ++i) {
    if (!IsSentinel(table_[i].key)) ++stored;
  }
  if (count != nullptr) *count = stored;
  if (stored == 0) return nullptr;
  const std::size_t bytes = static_cast<std::size_t>(stored) * sizeof(int);
  int* values = static_cast<int*>(mem_cMalloc(bytes));
  if (values == nullptr) Fatal("ERROR: mem_PtrHash  --  cannot allocate %llu bytes for the values\n", bytes);
  int next = 0;
  for (unsigned int i = 0; i < capacity_; ++i) {
    if (!IsSentinel(table_[i].key)) values[next++] = table_[i].value;
  }
  return values;
}
