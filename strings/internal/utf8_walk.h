// Walking UTF-8 text character by character, and the ASCII-run scan that the
// validator and the converter use as their fast path.
#ifndef ZMXUTI_STRINGS_INTERNAL_UTF8_WALK_H
#define ZMXUTI_STRINGS_INTERNAL_UTF8_WALK_H

#include <cstddef>

#include "core/export.h"

namespace zmx {
namespace strings_internal {

// The start of the next character: s advanced by its announced length, at least
// one byte. Does not look past the lead byte, so the caller must know the
// sequence is complete (validated text).
ZMXUTI_INTERNAL_API const unsigned char* Utf8Next(const unsigned char* s);

// The start of the character that ends at pos (pos > begin): walks back over at
// most six continuation bytes to a lead byte; when that lead byte's sequence
// ends exactly at pos it is the answer, otherwise pos - 1.
ZMXUTI_INTERNAL_API const unsigned char* Utf8Prev(const unsigned char* begin, const unsigned char* pos);

// Number of bytes from s up to the first byte that is NUL or above 0x7F.
// Reads whole aligned 32-byte blocks, which never cross a page boundary.
ZMXUTI_INTERNAL_API std::size_t AsciiRunLength(const unsigned char* s);

}  // namespace strings_internal
}  // namespace zmx

#endif  // ZMXUTI_STRINGS_INTERNAL_UTF8_WALK_H
