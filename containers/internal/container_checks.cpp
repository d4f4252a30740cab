// Invariant walkers and byte accounting of the paged containers.
#include "containers/internal/container_checks.h"

#include "containers/internal/bit_words.h"

namespace zmx {
namespace containers_internal {

namespace {
std::string Fault(const char* what, unsigned long long a, unsigned long long b) {
  return std::string(what) + " (" + std::to_string(a) + " vs " + std::to_string(b) + ")";
}
}  // namespace

std::string ContainerChecks::CheckBitVector(const omi_BlkBitVect& vector) {
  if (vector.pageShift_ != 8 || vector.pageSize_ != 256 || vector.pageMask_ != 255) {
    return Fault("bit vector page geometry", vector.pageShift_, 8);
  }
  if (vector.growthIncrement_ != 128 || vector.directoryLength_ % 128 != 0) {
    return Fault("bit vector directory length", vector.directoryLength_, vector.growthIncrement_);
  }
  if (vector.directoryLength_ != 0 && vector.directory_ == nullptr) return "bit vector directory missing";
  unsigned long long bits = 0;
  for (unsigned int page = 0; page < vector.directoryLength_; ++page) {
    if (vector.directory_[page] != nullptr) bits += CountPageBitsByTable(vector.directory_[page], vector.pageSize_);
  }
  if (bits != vector.count_) return Fault("bit vector count", vector.count_, bits);
  return std::string();
}

std::string ContainerChecks::CheckBitVectorAfterRecount(const omi_BlkBitVect& vector) {
  std::string fault = CheckBitVector(vector);
  if (!fault.empty()) return fault;
  for (unsigned int page = 0; page < vector.directoryLength_; ++page) {
    if (vector.directory_[page] != nullptr && CountPageBitsByTable(vector.directory_[page], vector.pageSize_) == 0) {
      return Fault("empty page kept by the recount", page, 0);
    }
  }
  return std::string();
}

template <typename T>
std::string ContainerChecks::CheckTableOf(const omi_UintTable<T>& table) {
  if (table.directoryLength_ != 2 && table.directoryLength_ % 64 != 0) {
    return Fault("table directory length", table.directoryLength_, 64);
  }
  unsigned long long keys = 0;
  for (unsigned int index = 0; index < table.directoryLength_; ++index) {
    const omi_UintTableBlock<T>* block = table.blocks_[index];
    if (block == nullptr) continue;
    if (block->Count() == 0) return Fault("empty block kept", index, 0);
    if (block->pageShift_ != table.pageShift_) return Fault("block page shift", block->pageShift_, table.pageShift_);
    std::string fault = CheckBitVector(block->Bits());
    if (!fault.empty()) return "block " + std::to_string(index) + ": " + fault;
    omi_BlkBitVectTrav offsets(&block->Bits());
    unsigned int offset = 0;
    for (bool more = offsets.First(offset); more; more = offsets.Next(offset)) {
      if (offset > table.offsetMask_) return Fault("offset beyond the block", offset, table.offsetMask_);
      if (block->Slot(offset) == nullptr) return Fault("key without a value page", offset, index);
    }
    keys += block->Count();
  }
  if (keys != table.count_) return Fault("table count", table.count_, keys);
  return std::string();
}

std::string ContainerChecks::CheckTable(const omi_UintTable<int>& table) { return CheckTableOf(table); }
std::string ContainerChecks::CheckTable(const omi_UintTable<double>& table) { return CheckTableOf(table); }
std::string ContainerChecks::CheckTable(const omi_UintTable<void*>& table) { return CheckTableOf(table); }

template <typename T>
std::size_t ContainerChecks::BytesOf(const omi_BlockedArray<T>& array) {
  std::size_t bytes = static_cast<std::size_t>(array.directoryLength_) * sizeof(T*);
  for (unsigned int page = 0; page < array.directoryLength_; ++page) {
    if (array.directory_[page] != nullptr) bytes += array.PageBytes();
  }
  return bytes;
}

template <typename T>
std::size_t ContainerChecks::BytesOfTable(const omi_UintTable<T>& table) {
  std::size_t bytes = sizeof table + static_cast<std::size_t>(table.directoryLength_) * sizeof(void*);
  for (unsigned int index = 0; index < table.directoryLength_; ++index) {
    const omi_UintTableBlock<T>* block = table.blocks_[index];
    if (block != nullptr) bytes += sizeof *block + BytesOf(*block) + BytesOf<unsigned int>(block->Bits());
  }
  return bytes;
}

std::size_t ContainerChecks::BytesHeld(const omi_BlkBitVect& vector) { return sizeof vector + BytesOf<unsigned int>(vector); }
std::size_t ContainerChecks::BytesHeld(const omi_UintTable<int>& table) { return BytesOfTable(table); }
std::size_t ContainerChecks::BytesHeld(const omi_UintTable<double>& table) { return BytesOfTable(table); }
std::size_t ContainerChecks::BytesHeld(const omi_UintTable<void*>& table) { return BytesOfTable(table); }

}  // namespace containers_internal
}  // namespace zmx
