// Shortening of three-digit exponents in formatted floating-point text, shared
// by the number constructors of the strings and the message substitution.
#ifndef ZMXUTI_STRINGS_INTERNAL_NUMBER_TEXT_H
#define ZMXUTI_STRINGS_INTERNAL_NUMBER_TEXT_H

#include "core/export.h"

namespace zmx {
namespace atr_internal {

// When text (at least 4 characters) holds an 'e' whose part behind the sign
// has exactly three digits starting with '0', removes that '0' in place
// ("1e+005" -> "1e+05", "1e+100" stays). Returns the new length.
ZMXUTI_INTERNAL_API int FixExponent(char* text, int length);

}  // namespace atr_internal
}  // namespace zmx

#endif  // ZMXUTI_STRINGS_INTERNAL_NUMBER_TEXT_H
