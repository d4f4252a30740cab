// Word-level kernels of the bit vector: bit counts and the page-wide
// operators that also count what they leave behind.
#ifndef ZMXUTI_CONTAINERS_INTERNAL_BIT_WORDS_H
#define ZMXUTI_CONTAINERS_INTERNAL_BIT_WORDS_H

#include "core/export.h"

namespace zmx {
namespace containers_internal {

// Bits set per byte value; the reference count that the faster paths must match.
ZMXUTI_INTERNAL_API extern const unsigned char kBitsInByte[256];

// Set bits of a word by four byte-table look-ups.
inline unsigned int CountBitsByTable(unsigned int word) {
  return kBitsInByte[word & 0xFF] + kBitsInByte[(word >> 8) & 0xFF] + kBitsInByte[(word >> 16) & 0xFF] +
         kBitsInByte[word >> 24];
}

// Each kernel works on `words` words (a page), writes the result into `target`
// and returns the number of bits set in the result.
ZMXUTI_INTERNAL_API unsigned int CountPageBits(const unsigned int* page, unsigned int words);
ZMXUTI_INTERNAL_API unsigned int AndPage(unsigned int* target, const unsigned int* source, unsigned int words);
ZMXUTI_INTERNAL_API unsigned int OrPage(unsigned int* target, const unsigned int* source, unsigned int words);
ZMXUTI_INTERNAL_API unsigned int AndNotPage(unsigned int* target, const unsigned int* source, unsigned int words);
ZMXUTI_INTERNAL_API unsigned int XorPage(unsigned int* target, const unsigned int* source, unsigned int words);

// Table-driven count of a page, for comparing the fast kernels against.
ZMXUTI_INTERNAL_API unsigned int CountPageBitsByTable(const unsigned int* page, unsigned int words);

}  // namespace containers_internal
}  // namespace zmx

#endif  // ZMXUTI_CONTAINERS_INTERNAL_BIT_WORDS_H
