// The per-thread cache of the character locale's case bits and encoding traits.
#include "strings/internal/locale_traits.h"

#include <cctype>
#include <clocale>
#include <cstdlib>
#include <cstring>

#include "platform/platform.h"

namespace zmx {
namespace strings_internal {

namespace {

void Measure(LocaleTraits& t) {
  bool letters = true;
  for (int c = 0; c < 256; ++c) {
    unsigned char bits = 0;
    if (std::islower(c)) bits |= LocaleTraits::kLower;
    if (std::isupper(c)) bits |= LocaleTraits::kUpper;
    t.caseBits[c] = bits;
    if (c < 0x80) {
      const unsigned char plain = (c >= 'a' && c <= 'z')   ? LocaleTraits::kLower
                                  : (c >= 'A' && c <= 'Z') ? LocaleTraits::kUpper
                                                           : 0;
      letters = letters && bits == plain;
    }
  }
  t.asciiLetters = letters;
  t.singleByte = MB_CUR_MAX == 1;
  t.stateless = std::mblen(nullptr, 0) == 0;  // also leaves mblen in its initial state
}

// The LC_CTYPE name the traits were measured under; a name too long to keep is
// never matched, so its traits are measured on every call.
struct CachedTraits {
  char name[128];
  bool valid;
  LocaleTraits traits;
};

thread_local CachedTraits t_cache = {};

}  // namespace

const LocaleTraits* CachedLocaleTraits() {
  if (!platform::ThreadUsesGlobalLocale()) return nullptr;
  CachedTraits& cache = t_cache;
  const char* name = std::setlocale(LC_CTYPE, nullptr);
  if (name == nullptr) name = "";
  if (!cache.valid || std::strcmp(cache.name, name) != 0) {
    Measure(cache.traits);
    const std::size_t n = std::strlen(name);
    cache.valid = n < sizeof cache.name;
    if (cache.valid) std::memcpy(cache.name, name, n + 1);
  }
  return &cache.traits;
}

}  // namespace strings_internal
}  // namespace zmx
