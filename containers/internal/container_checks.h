// Invariant walkers of the bit vectors and integer-keyed tables, called by the
// tests and stress runs (and after every whole-set operator when the library is
// built with ZMX_HEAP_DEBUG).
#ifndef ZMXUTI_CONTAINERS_INTERNAL_CONTAINER_CHECKS_H
#define ZMXUTI_CONTAINERS_INTERNAL_CONTAINER_CHECKS_H

#include <cstddef>
#include <string>

#include "containers/blk_bit_vect.h"
#include "containers/uint_table.h"
#include "core/export.h"

namespace zmx {
namespace containers_internal {

struct ZMXUTI_INTERNAL_API ContainerChecks {
  // Each returns an empty string when the structure is sound, otherwise a
  // description of the first fault found.

  // Geometry of a bit vector, directory length a multiple of 128, count equal
  // to the bits of its pages (counted by the byte table).
  static std::string CheckBitVector(const omi_BlkBitVect& vector);
  // The same, and: no all-zero page left (holds right after a whole-set operator).
  static std::string CheckBitVectorAfterRecount(const omi_BlkBitVect& vector);

  // Directory length 2 or a multiple of 64; every block holds at least one
  // key, has the table's page geometry and a value page for every key present;
  // the table's count is the sum of its blocks' counts.
  static std::string CheckTable(const omi_UintTable<int>& table);
  static std::string CheckTable(const omi_UintTable<double>& table);
  static std::string CheckTable(const omi_UintTable<void*>& table);

  // Bytes held by the structure's raw arrays and objects (directories, pages,
  // blocks), as allocated.
  static std::size_t BytesHeld(const omi_BlkBitVect& vector);
  static std::size_t BytesHeld(const omi_UintTable<int>& table);
  static std::size_t BytesHeld(const omi_UintTable<double>& table);
  static std::size_t BytesHeld(const omi_UintTable<void*>& table);

  template <typename T>
  static std::string CheckTableOf(const omi_UintTable<T>& table);
  template <typename T>
  static std::size_t BytesOf(const omi_BlockedArray<T>& array);
  template <typename T>
  static std::size_t BytesOfTable(const omi_UintTable<T>& table);
};

}  // namespace containers_internal
}  // namespace zmx

#endif  // ZMXUTI_CONTAINERS_INTERNAL_CONTAINER_CHECKS_H
