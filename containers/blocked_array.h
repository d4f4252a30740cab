// omi_BlockedArray<T>: a sparse, unbounded array indexed by unsigned 32-bit
// numbers, kept as a directory of fixed-size pages allocated on first write.
//
// Element i lives in page i >> pageShift at slot i & pageMask; an absent page
// reads as all zero. Pages, once written, stay until Clear, assignment or
// destruction; the directory only grows.
//
//   omi_BlockedArray<double> a(0, 4);   // empty directory, pages of 16
//   a.SetCell(1000, 2.5);               // directory grows to 128 slots, one page
//   double v = a.GetCell(1000);         // 2.5; GetCell(7) is 0.0
//
// Exported for unsigned int, int, double and void*.
#ifndef ZMXUTI_CONTAINERS_BLOCKED_ARRAY_H
#define ZMXUTI_CONTAINERS_BLOCKED_ARRAY_H

#include "core/export.h"
#include "mem/allocation.h"

namespace zmx {
namespace containers_internal {
struct ContainerChecks;
}  // namespace containers_internal
}  // namespace zmx

template <typename T>
class ZMXUTI_API omi_BlockedArray : public mem_AllocationOperators {
 public:
  // growthIncrement 0 means: increment 128 and an empty directory; otherwise the
  // directory starts with growthIncrement null slots. Pages hold 1 << pageShift
  // elements (shifts above 30 are capped at 30 with a message on standard error).
  omi_BlockedArray(unsigned int growthIncrement, unsigned int pageShift);
  // Deep copy: same geometry and directory length, every present page duplicated.
  omi_BlockedArray(const omi_BlockedArray& other);
  // Takes the other's increment, geometry and contents; target pages whose source
  // page is absent are freed. Self-assignment does nothing.
  omi_BlockedArray& operator=(const omi_BlockedArray& other);
  virtual ~omi_BlockedArray();

  // Stores value at index, growing the directory to the next multiple of the
  // increment above the page index and allocating a zero-filled page as needed.
  void SetCell(unsigned int index, const T& value) { PageForWrite(index >> pageShift_)[index & pageMask_] = value; }
  // The element at index; zero when its page is absent or beyond the directory.
  T GetCell(unsigned int index) const {
    const T* cell = CellAt(index);
    return cell != nullptr ? *cell : T();
  }
  unsigned int DirectoryLength() const { return directoryLength_; }
  bool PagePresent(unsigned int page) const { return page < directoryLength_ && directory_[page] != nullptr; }
  // Prints each present page on aio_cout: "Block indices= %d - %d\n", then every
  // element as its bytes in memory order ("%02x"), "|" between elements and a
  // newline after every eighth, and a newline closing the page.
  void Dump() const;

 protected:
  friend struct zmx::containers_internal::ContainerChecks;

  // Frees every page and nulls its slot; the directory keeps its length.
  void Clear();
  // Grows the directory to exactly `length` slots; nothing when not larger.
  void GrowDirectoryTo(unsigned int length);
  // The page for a write, created (and the directory grown) when missing.
  T* PageForWrite(unsigned int page) {
    if (ZMX_LIKELY(page < directoryLength_)) {
      T* present = directory_[page];
      if (ZMX_LIKELY(present != nullptr)) return present;
    }
    return MakePage(page);
  }
  // The cell of index when its page exists, null otherwise.
  T* CellAt(unsigned int index) const {
    const unsigned int page = index >> pageShift_;
    if (page >= directoryLength_ || directory_[page] == nullptr) return nullptr;
    return directory_[page] + (index & pageMask_);
  }
  T* MakePage(unsigned int page);
  T* NewZeroPage() const;
  T* NewPageCopy(const T* source) const;
  void FreePage(unsigned int page);
  std::size_t PageBytes() const { return static_cast<std::size_t>(pageSize_) * sizeof(T); }

  unsigned int growthIncrement_;
  unsigned int directoryLength_;
  unsigned int pageSize_;
  unsigned int pageShift_;
  unsigned int pageMask_;
  T** directory_;
};

extern template class omi_BlockedArray<unsigned int>;
extern template class omi_BlockedArray<int>;
extern template class omi_BlockedArray<double>;
extern template class omi_BlockedArray<void*>;

#endif  // ZMXUTI_CONTAINERS_BLOCKED_ARRAY_H
