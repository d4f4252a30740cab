// What the case operations need to know of the runtime's character locale:
// the class of every byte and how characters are measured, kept per thread and
// measured again when the locale changes.
#ifndef ZMXUTI_STRINGS_INTERNAL_LOCALE_TRAITS_H
#define ZMXUTI_STRINGS_INTERNAL_LOCALE_TRAITS_H

namespace zmx {
namespace strings_internal {

struct LocaleTraits {
  enum : unsigned char { kLower = 1, kUpper = 2 };
  // islower / isupper of every byte, as kLower / kUpper bits.
  unsigned char caseBits[256];
  bool singleByte;    // MB_CUR_MAX is 1
  bool stateless;     // mblen keeps no shift state
  bool asciiLetters;  // below 0x80, exactly 'a'..'z' are lower and 'A'..'Z' upper case
};

// The traits of the process-wide character locale, cached per thread by its
// LC_CTYPE name; null on a thread that runs under a locale of its own (callers
// then ask the runtime byte by byte).
const LocaleTraits* CachedLocaleTraits();

}  // namespace strings_internal
}  // namespace zmx

#endif  // ZMXUTI_STRINGS_INTERNAL_LOCALE_TRAITS_H
