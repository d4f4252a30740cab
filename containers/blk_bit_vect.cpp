// omi_BlkBitVect: range setting, the whole-set operators with their closing
// recount, comparisons and the list dump.
#include "containers/blk_bit_vect.h"

#include <algorithm>
#include <cstdio>
#include <string>

#include "containers/internal/bit_words.h"
#include "containers/internal/dump_output.h"
#if ZMX_HEAP_DEBUG
#include <cstdlib>

#include "containers/internal/container_checks.h"
#endif

using zmx::containers_internal::AndNotPage;
using zmx::containers_internal::AndPage;
using zmx::containers_internal::CountPageBits;
using zmx::containers_internal::OrPage;
using zmx::containers_internal::XorPage;

namespace {
constexpr unsigned int kGrowthIncrement = 128;
constexpr unsigned int kWordsPerPageShift = 8;

// With ZMX_HEAP_DEBUG every whole-set operator walks its result.
inline void VerifyAfterRecount(const omi_BlkBitVect& vector, const char* where) {
#if ZMX_HEAP_DEBUG
  const std::string fault = zmx::containers_internal::ContainerChecks::CheckBitVectorAfterRecount(vector);
  if (!fault.empty()) {
    std::fprintf(stderr, "%s  --  %s\n", where, fault.c_str());
    std::abort();
  }
#else
  (void)vector;
  (void)where;
#endif
}
}  // namespace

omi_BlkBitVect::omi_BlkBitVect() : omi_BlockedArray<unsigned int>(kGrowthIncrement, kWordsPerPageShift), count_(0) {}

omi_BlkBitVect::omi_BlkBitVect(const omi_BlkBitVect& other)
    : omi_BlockedArray<unsigned int>(other), count_(other.count_) {}

omi_BlkBitVect& omi_BlkBitVect::operator=(const omi_BlkBitVect& other) {
  if (this == &other) return *this;
  omi_BlockedArray<unsigned int>::operator=(other);
  count_ = other.count_;
  return *this;
}

omi_BlkBitVect::~omi_BlkBitVect() = default;

void omi_BlkBitVect::Clear() {
  omi_BlockedArray<unsigned int>::Clear();
  count_ = 0;
}

void omi_BlkBitVect::SetBitInNewPage(unsigned int bit) {
  SetCell(bit >> 5, 1u << (bit & 31));
  ++count_;
}

void omi_BlkBitVect::SetFromTo(unsigned int from, unsigned int to) {
  const unsigned int firstWord = from >> 5;
  const unsigned int lastWord = to >> 5;
  // Whole words strictly between the two ends.
  for (unsigned int w = firstWord + 1; w < lastWord; ++w) {
    unsigned int* word = CellAt(w);
    if (word != nullptr) count_ -= zmx::containers_internal::CountBitsByTable(*word);
    SetCell(w, 0xFFFFFFFFu);
    count_ += 32;
  }
  // From `from` up to `to` or the end of its word; `from` itself always.
  unsigned int bit = from;
  do {
    SetBit(bit);
    ++bit;
  } while (bit <= to && (bit & 31) != 0);
  if (lastWord != firstWord) {
    for (unsigned int b = to & ~31u;; ++b) {
      SetBit(b);
      if (b == to) break;
    }
  }
}

unsigned int omi_BlkBitVect::RecountPage(unsigned int page) {
  unsigned int* words = directory_[page];
  if (words == nullptr) return 0;
  const unsigned int bits = CountPageBits(words, pageSize_);
  if (bits == 0) FreePage(page);
  return bits;
}

unsigned int omi_BlkBitVect::CopyPagesFrom(const omi_BlkBitVect& other, unsigned int first) {
  unsigned int bits = 0;
  for (unsigned int page = first; page < other.directoryLength_; ++page) {
    if (other.directory_[page] == nullptr) continue;
    directory_[page] = NewPageCopy(other.directory_[page]);
    bits += RecountPage(page);
  }
  return bits;
}

// Each operator counts the pages it combines as it writes them and recounts
// the others, so that the closing recount costs no second pass.
omi_BlkBitVect& omi_BlkBitVect::operator&=(const omi_BlkBitVect& other) {
  const unsigned int common = std::min(directoryLength_, other.directoryLength_);
  unsigned int total = 0;
  for (unsigned int page = 0; page < directoryLength_; ++page) {
    if (directory_[page] == nullptr) continue;
    if (page >= common || other.directory_[page] == nullptr) {
      FreePage(page);
      continue;
    }
    const unsigned int bits = AndPage(directory_[page], other.directory_[page], pageSize_);
    if (bits == 0) FreePage(page);
    total += bits;
  }
  count_ = total;
  VerifyAfterRecount(*this, "omi_BlkBitVect::operator&=");
  return *this;
}

omi_BlkBitVect& omi_BlkBitVect::CombineGrowing(const omi_BlkBitVect& other,
                                               unsigned int (*combine)(unsigned int*, const unsigned int*, unsigned int),
                                               const char* what) {
  const unsigned int common = std::min(directoryLength_, other.directoryLength_);
  unsigned int total = 0;
  for (unsigned int page = 0; page < directoryLength_; ++page) {
    const unsigned int* source = page < common ? other.directory_[page] : nullptr;
    if (source == nullptr) {
      total += RecountPage(page);
    } else if (directory_[page] == nullptr) {
      directory_[page] = NewPageCopy(source);
      total += RecountPage(page);
    } else {
      const unsigned int bits = combine(directory_[page], source, pageSize_);
      if (bits == 0) FreePage(page);
      total += bits;
    }
  }
  if (other.directoryLength_ > directoryLength_) {
    GrowDirectoryTo(other.directoryLength_);
    total += CopyPagesFrom(other, common);
  }
  count_ = total;
  VerifyAfterRecount(*this, what);
  return *this;
}

omi_BlkBitVect& omi_BlkBitVect::operator|=(const omi_BlkBitVect& other) {
  return CombineGrowing(other, OrPage, "omi_BlkBitVect::operator|=");
}

omi_BlkBitVect& omi_BlkBitVect::operator-=(const omi_BlkBitVect& other) {
  const unsigned int common = std::min(directoryLength_, other.directoryLength_);
  unsigned int total = 0;
  for (unsigned int page = 0; page < directoryLength_; ++page) {
    if (directory_[page] == nullptr) continue;
    const unsigned int* source = page < common ? other.directory_[page] : nullptr;
    if (source == nullptr) {
      total += RecountPage(page);
      continue;
    }
    const unsigned int bits = AndNotPage(directory_[page], source, pageSize_);
    if (bits == 0) FreePage(page);
    total += bits;
  }
  count_ = total;
  VerifyAfterRecount(*this, "omi_BlkBitVect::operator-=");
  return *this;
}

omi_BlkBitVect& omi_BlkBitVect::operator^=(const omi_BlkBitVect& other) {
  return CombineGrowing(other, XorPage, "omi_BlkBitVect::operator^=");
}

bool omi_BlkBitVect::operator==(const omi_BlkBitVect& other) const {
  if (count_ != other.count_) return false;
  if (directoryLength_ != other.directoryLength_) return false;
  for (unsigned int page = 0; page < directoryLength_; ++page) {
    const unsigned int* mine = directory_[page];
    const unsigned int* theirs = other.directory_[page];
    if ((mine == nullptr) != (theirs == nullptr)) return false;
    if (mine != nullptr && !std::equal(mine, mine + pageSize_, theirs)) return false;
  }
  return true;
}

int omi_BlkBitVect::Compare(const omi_BlkBitVect& other) const {
  if (count_ != other.count_) return static_cast<int>(count_ - other.count_);
  for (unsigned int page = 0; page < other.directoryLength_; ++page) {
    const int pagesLeft = static_cast<int>(other.directoryLength_ - page);
    // A left operand with a shorter directory reads as absent pages there.
    const unsigned int* mine = page < directoryLength_ ? directory_[page] : nullptr;
    const unsigned int* theirs = other.directory_[page];
    if (theirs != nullptr && mine == nullptr) return -pagesLeft;
    if (theirs == nullptr && mine != nullptr) return pagesLeft;
    if (theirs == nullptr) continue;
    for (unsigned int w = 0; w < pageSize_; ++w) {
      if (mine[w] != theirs[w]) return mine[w] > theirs[w] ? 1 : -1;
    }
  }
  return 0;
}

bool omi_BlkBitVect::Contains(const omi_BlkBitVect& other) const {
  if (count_ < other.count_) return false;
  for (unsigned int page = 0; page < other.directoryLength_; ++page) {
    const unsigned int* theirs = other.directory_[page];
    if (theirs == nullptr) continue;
    const unsigned int* mine = page < directoryLength_ ? directory_[page] : nullptr;
    if (mine == nullptr) return false;
    for (unsigned int w = 0; w < pageSize_; ++w) {
      if ((mine[w] & theirs[w]) != theirs[w]) return false;
    }
  }
  return true;
}

void omi_BlkBitVect::DumpList() const {
  using zmx::containers_internal::WriteStandardError;
  omi_BlkBitVectTrav traversal(this);
  unsigned int bit = 0;
  if (!traversal.First(bit)) {
    WriteStandardError("Empty List\n", 11, false);
    return;
  }
  char piece[32];
  int length = std::snprintf(piece, sizeof piece, "ListCount=%u\n", count_);
  WriteStandardError(piece, static_cast<std::size_t>(length), true);
  std::string line;
  unsigned int printed = 0;
  bool more = true;
  while (more) {
    length = std::snprintf(piece, sizeof piece, "%8d", static_cast<int>(bit));
    line.append(piece, static_cast<std::size_t>(length));
    if (++printed % 8 == 0) {
      line += '\n';
      WriteStandardError(line.data(), line.size(), true);
      line.clear();
    }
    more = traversal.Next(bit);
  }
  line += '\n';
  WriteStandardError(line.data(), line.size(), true);
}
