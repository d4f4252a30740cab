// omi_BlockedArray<T>: directory growth, page allocation, copying and the dump.
#include "containers/blocked_array.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "containers/internal/dump_output.h"

namespace {

constexpr unsigned int kDefaultIncrement = 128;
constexpr unsigned int kLargestPageShift = 30;

unsigned int CappedPageShift(unsigned int shift) {
  if (shift <= kLargestPageShift) return shift;
  std::fprintf(stderr, "omi_BlockedArray: page shift %u capped at %u\n", shift, kLargestPageShift);
  return kLargestPageShift;
}

template <typename T>
T** NewDirectory(unsigned int length) {
  if (length == 0) return nullptr;
  const std::size_t bytes = static_cast<std::size_t>(length) * sizeof(T*);
  T** directory = static_cast<T**>(mem_Malloc(bytes));
  std::memset(directory, 0, bytes);
  return directory;
}

}  // namespace

template <typename T>
omi_BlockedArray<T>::omi_BlockedArray(unsigned int growthIncrement, unsigned int pageShift)
    : growthIncrement_(growthIncrement),
      directoryLength_(growthIncrement),
      pageSize_(0),
      pageShift_(CappedPageShift(pageShift)),
      pageMask_(0),
      directory_(nullptr) {
  pageSize_ = 1u << pageShift_;
  pageMask_ = pageSize_ - 1;
  if (growthIncrement_ == 0) growthIncrement_ = kDefaultIncrement;
  directory_ = NewDirectory<T>(directoryLength_);
}

template <typename T>
omi_BlockedArray<T>::omi_BlockedArray(const omi_BlockedArray& other)
    : mem_AllocationOperators(),
      growthIncrement_(other.growthIncrement_),
      directoryLength_(other.directoryLength_),
      pageSize_(other.pageSize_),
      pageShift_(other.pageShift_),
      pageMask_(other.pageMask_),
      directory_(NewDirectory<T>(other.directoryLength_)) {
  for (unsigned int page = 0; page < directoryLength_; ++page) {
    if (other.directory_[page] != nullptr) directory_[page] = NewPageCopy(other.directory_[page]);
  }
}

template <typename T>
omi_BlockedArray<T>& omi_BlockedArray<T>::operator=(const omi_BlockedArray& other) {
  if (this == &other) return *this;
  growthIncrement_ = other.growthIncrement_;
  if (directoryLength_ != other.directoryLength_) {
    Clear();
    mem_Free(directory_);
    pageSize_ = other.pageSize_;
    pageShift_ = other.pageShift_;
    pageMask_ = other.pageMask_;
    directoryLength_ = other.directoryLength_;
    directory_ = NewDirectory<T>(directoryLength_);
  } else if (pageSize_ != other.pageSize_) {
    Clear();
    pageSize_ = other.pageSize_;
    pageShift_ = other.pageShift_;
    pageMask_ = other.pageMask_;
  }
  for (unsigned int page = 0; page < directoryLength_; ++page) {
    const T* source = other.directory_[page];
    if (source == nullptr) {
      FreePage(page);
    } else if (directory_[page] == nullptr) {
      directory_[page] = NewPageCopy(source);
    } else {
      std::memcpy(static_cast<void*>(directory_[page]), source, PageBytes());
    }
  }
  return *this;
}

template <typename T>
omi_BlockedArray<T>::~omi_BlockedArray() {
  Clear();
  mem_Free(directory_);
}

template <typename T>
void omi_BlockedArray<T>::Clear() {
  for (unsigned int page = 0; page < directoryLength_; ++page) FreePage(page);
}

template <typename T>
void omi_BlockedArray<T>::GrowDirectoryTo(unsigned int length) {
  if (length <= directoryLength_) return;
  T** grown = NewDirectory<T>(length);
  if (directoryLength_ != 0) std::memcpy(grown, directory_, directoryLength_ * sizeof(T*));
  mem_Free(directory_);
  directory_ = grown;
  directoryLength_ = length;
}

template <typename T>
T* omi_BlockedArray<T>::MakePage(unsigned int page) {
  if (page >= directoryLength_) {
    // The next multiple of the increment above the page index, taken in 64
    // bits: with page shift 0 the highest indices need more slots than a
    // 32-bit directory length can count, and no shorter directory holds them.
    const unsigned long long length = (static_cast<unsigned long long>(page) / growthIncrement_ + 1) * growthIncrement_;
    if (length > 0xFFFFFFFFull) {
      std::fprintf(stderr, "omi_BlockedArray: page %u needs a directory of more than 4294967295 slots\n", page);
      std::abort();
    }
    GrowDirectoryTo(static_cast<unsigned int>(length));
  }
  if (directory_[page] == nullptr) directory_[page] = NewZeroPage();
  return directory_[page];
}

template <typename T>
T* omi_BlockedArray<T>::NewZeroPage() const {
  T* page = static_cast<T*>(mem_Malloc(PageBytes()));
  std::memset(static_cast<void*>(page), 0, PageBytes());
  return page;
}

template <typename T>
T* omi_BlockedArray<T>::NewPageCopy(const T* source) const {
  T* page = static_cast<T*>(mem_Malloc(PageBytes()));
  std::memcpy(static_cast<void*>(page), source, PageBytes());
  return page;
}

template <typename T>
void omi_BlockedArray<T>::FreePage(unsigned int page) {
  mem_Free(directory_[page]);
  directory_[page] = nullptr;
}

template <typename T>
void omi_BlockedArray<T>::Dump() const {
  std::string text;
  char piece[64];
  for (unsigned int page = 0; page < directoryLength_; ++page) {
    const T* cells = directory_[page];
    if (cells == nullptr) continue;
    const unsigned int first = page << pageShift_;
    std::snprintf(piece, sizeof piece, "Block indices= %d - %d\n", static_cast<int>(first),
                  static_cast<int>(first + pageMask_));
    text += piece;
    for (unsigned int slot = 0; slot < pageSize_; ++slot) {
      const unsigned char* bytes = reinterpret_cast<const unsigned char*>(cells + slot);
      for (std::size_t b = 0; b < sizeof(T); ++b) {
        std::snprintf(piece, sizeof piece, "%02x", bytes[b]);
        text += piece;
      }
      text += ((slot + 1) % 8 == 0) ? "\n" : "|";
    }
    text += "\n";
  }
  zmx::containers_internal::WriteStandardOutput(text.data(), text.size(), true);
}

template class omi_BlockedArray<unsigned int>;
template class omi_BlockedArray<int>;
template class omi_BlockedArray<double>;
template class omi_BlockedArray<void*>;
