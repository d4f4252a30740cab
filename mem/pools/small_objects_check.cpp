// The small-object allocator's invariant walk, for tests and stress runs.
#include <cstdio>
#include <string>

#include "mem/pools/internal/region_check.h"
#include "mem/pools/internal/small_objects.h"

namespace zmx {
namespace mem_internal {
namespace small_objects {

namespace {

bool Fail(std::string* problem, const char* what, int number) {
  if (problem != nullptr) {
    char text[160];
    std::snprintf(text, sizeof text, "page %d: %s", number, what);
    *problem = text;
  }
  return false;
}

bool MarkIntact(const PageRecord* record) {
  const auto* words = reinterpret_cast<const std::uint64_t*>(reinterpret_cast<const char*>(record) - kAreaOffset);
  return words[0] == reinterpret_cast<std::uintptr_t>(words) && words[1] == kSmallPageMark;
}

}  // namespace

bool Allocator::Check(std::string* problem) const {
  int linked = 0;
  for (int c = 0; c < kClasses; ++c) {
    int prev = -1;
    for (int n = heads_[c]; n >= 0; prev = n, n = At(n).next) {
      const PageEntry& e = At(n);
      if (static_cast<unsigned int>(n) >= nextNumber_) return Fail(problem, "list names an unused number", n);
      if (e.record == nullptr) return Fail(problem, "list holds a retired page", n);
      if (e.prev != prev) return Fail(problem, "backward link does not match", n);
      if (e.record->Tag() != c) return Fail(problem, "page on another class's list", n);
      if (++linked > static_cast<int>(nextNumber_)) return Fail(problem, "list has a cycle", n);
    }
    if ((heads_[c] < 0) != (headRecord_[c] == nullptr) ||
        (heads_[c] >= 0 && At(heads_[c]).record != headRecord_[c]))
      return Fail(problem, "cached head record is stale", heads_[c]);
  }
  for (unsigned int i = 0; i < nextNumber_; ++i) {
    const int n = static_cast<int>(i);
    const PageRecord* record = At(n).record;
    if (record == nullptr) continue;
    if (!MarkIntact(record)) return Fail(problem, "page mark damaged", n);
    if (record->number != n) return Fail(problem, "record names another number", n);
    if (record->SlotWords() * 4 != SlotBytesOf(record->Tag())) return Fail(problem, "slot size of another class", n);
    if (record->Capacity() != kAreaWords || record->BaseIndex() != 0) return Fail(problem, "region geometry", n);
    std::string slots;
    if (!CheckFixedRegion(*record, reinterpret_cast<const int*>(record), &slots))
      return Fail(problem, ("slots: " + slots).c_str(), n);
  }
  int reusable = 0;
  for (int r = reuseHead_; r != 0; r = At(r - 1).next) {
    if (At(r - 1).record != nullptr) return Fail(problem, "reuse list holds a live page", r - 1);
    if (++reusable > static_cast<int>(nextNumber_)) return Fail(problem, "reuse list has a cycle", r - 1);
  }
  return true;
}

}  // namespace small_objects
}  // namespace mem_internal
}  // namespace zmx
