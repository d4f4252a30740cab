// UTF-8 lengths and code points, the per-encoding operations table, validation
// and the converter between encodings through UCS-4 code points.
#include "strings/utf8.h"

#include <climits>
#include <cstdint>
#include <cstdlib>
#include <cstring>

#if defined(__SSE2__)
#include <emmintrin.h>
#endif

#include "strings/internal/utf8_walk.h"

namespace {

const unsigned int kBadCodePoint = 0xFFFFFFFFu;
// Payload bits of a lead byte, indexed by sequence length.
const unsigned char kLeadMask[7] = {0, 0x7F, 0x1F, 0x0F, 0x07, 0x03, 0x01};

// ---- one row per encoding: validate a text, decode one character, encode one code point ----
// decode returns the bytes consumed (below 1 on failure); encode returns the
// bytes produced (below 0 on failure) and only measures when out is null.
struct EncodingRow {
  bool (*validate)(const unsigned char* text);
  int (*decode)(const unsigned char* s, unsigned int* codePoint);
  int (*encode)(unsigned char* out, unsigned int codePoint);
};

bool NoneValidate(const unsigned char*) { return false; }
int NoneDecode(const unsigned char*, unsigned int*) { return -1; }
int NoneEncode(unsigned char*, unsigned int) { return -1; }

bool LocaleValidate(const unsigned char* text) {
  const char* p = reinterpret_cast<const char*>(text);
  const std::size_t maxLength = MB_CUR_MAX;
  std::mblen(nullptr, 0);
  while (*p != '\0') {
    const int n = std::mblen(p, maxLength);
    if (n < 1) return false;
    p += n;
  }
  return true;
}

int LocaleDecode(const unsigned char* s, unsigned int* codePoint) {
  wchar_t wc = 0;
  const int n = std::mbtowc(&wc, reinterpret_cast<const char*>(s), MB_CUR_MAX);
  if (n < 1) return n < 0 ? n : -1;
  *codePoint = static_cast<unsigned int>(wc);
  return n;
}

int LocaleEncode(unsigned char* out, unsigned int codePoint) {
  if (codePoint > static_cast<unsigned int>(INT32_MAX)) return -1;
  char scratch[MB_LEN_MAX];
  char* target = out != nullptr ? reinterpret_cast<char*>(out) : scratch;
  return std::wctomb(target, static_cast<wchar_t>(codePoint));
}

bool Utf8Validate(const unsigned char* p) {
  for (;;) {
    if (*p < 0x80) {
      if (*p == 0) return true;
      p += zmx::strings_internal::AsciiRunLength(p);
      continue;
    }
    const int n = atr_utf8_len(p);
    if (n == 0) return false;
    for (int k = 1; k < n; ++k) {
      if ((p[k] & 0xC0) != 0x80) return false;
    }
    p += n;
  }
}

int Utf8Decode(const unsigned char* s, unsigned int* codePoint) {
  int len = 0;
  const unsigned int value = atr_utf8_to_ucs4(s, &len);
  if (value == kBadCodePoint) return -1;
  *codePoint = value;
  return len;
}

int Utf8Encode(unsigned char* out, unsigned int codePoint) {
  if (out == nullptr) return atr_utf8_len(codePoint);
  return atr_utf8_from_ucs4(out, codePoint);
}

// DEL and the C1 control range are not text in ISO 8859-1.
bool Latin1Validate(const unsigned char* p) {
  for (; *p != 0; ++p) {
    if (*p >= 127 && *p <= 159) return false;
  }
  return true;
}

int Latin1Decode(const unsigned char* s, unsigned int* codePoint) {
  *codePoint = *s;
  return 1;
}

int Latin1Encode(unsigned char* out, unsigned int codePoint) {
  if (codePoint > 255) return -1;
  if (out != nullptr) *out = static_cast<unsigned char>(codePoint);
  return 1;
}

// Id 4 passes the range check but has no encoding of its own: it is row 0 again.
const EncodingRow kRows[5] = {
    {NoneValidate, NoneDecode, NoneEncode},
    {LocaleValidate, LocaleDecode, LocaleEncode},
    {Utf8Validate, Utf8Decode, Utf8Encode},
    {Latin1Validate, Latin1Decode, Latin1Encode},
    {NoneValidate, NoneDecode, NoneEncode},
};

const EncodingRow& Row(int id) { return (id >= 0 && id <= 4) ? kRows[id] : kRows[0]; }

// ASCII maps to itself between UTF-8 and ISO 8859-1, so whole runs can be copied.
bool AsciiIdentity(int id) { return id == atr_EncodingUtf8 || id == atr_EncodingLatin1; }

int Convert(int fromId, int toId, unsigned char* out, const unsigned char* in, unsigned char replacement) {
  const EncodingRow& from = Row(fromId);
  const EncodingRow& to = Row(toId);
  const bool copyAscii = AsciiIdentity(fromId) && AsciiIdentity(toId);
  if (fromId == atr_EncodingLocale) std::mbtowc(nullptr, nullptr, 0);
  if (toId == atr_EncodingLocale) (void)std::wctomb(nullptr, 0);
  long long total = 0;
  while (*in != 0) {
    if (copyAscii && *in < 0x80) {
      const std::size_t run = zmx::strings_internal::AsciiRunLength(in);
      if (out != nullptr) {
        std::memcpy(out, in, run);
        out += run;
      }
      in += run;
      total += static_cast<long long>(run);
    } else {
      unsigned int codePoint = 0;
      const int used = from.decode(in, &codePoint);
      if (used < 1) return atr_ConvertInvalidInput;
      in += used;
      int produced = to.encode(out, codePoint);
      if (produced < 0) {
        if (replacement == 0) return atr_ConvertUnencodable;
        if (out != nullptr) *out = replacement;
        produced = 1;
      }
      if (out != nullptr) out += produced;
      total += produced;
    }
    // A result that no int can hold is refused rather than wrapped.
    if (total > INT_MAX - 8) return atr_ConvertInvalidInput;
  }
  if (out != nullptr) *out = 0;
  return static_cast<int>(total);
}

}  // namespace

namespace zmx {
namespace strings_internal {

const unsigned char* Utf8Next(const unsigned char* s) {
  const int n = atr_utf8_len(s);
  return s + (n > 0 ? n : 1);
}

const unsigned char* Utf8Prev(const unsigned char* begin, const unsigned char* pos) {
  const unsigned char* p = pos - 1;
  int continuations = 0;
  while (p > begin && (*p & 0xC0) == 0x80 && continuations < 6) {
    --p;
    ++continuations;
  }
  if ((*p & 0xC0) != 0x80 && p + atr_utf8_len(p) == pos) return p;
  return pos - 1;
}

// Reading whole aligned blocks may look at bytes behind the terminating NUL but
// never leaves the page that holds it; the address sanitizer cannot know that.
#if defined(__SSE2__)
__attribute__((no_sanitize("address"))) std::size_t AsciiRunLength(const unsigned char* s) {
  const unsigned char* p = s;
  while ((reinterpret_cast<std::uintptr_t>(p) & 31) != 0) {
    if (*p == 0 || *p >= 0x80) return static_cast<std::size_t>(p - s);
    ++p;
  }
  // As signed bytes, a byte ends the run exactly when it is not greater than 0.
  const __m128i zero = _mm_setzero_si128();
  for (;;) {
    const __m128i* block = reinterpret_cast<const __m128i*>(p);
    const __m128i a = _mm_cmpgt_epi8(_mm_load_si128(block), zero);
    const __m128i b = _mm_cmpgt_epi8(_mm_load_si128(block + 1), zero);
    if (_mm_movemask_epi8(_mm_and_si128(a, b)) != 0xFFFF) {
      const unsigned int maskA = static_cast<unsigned int>(_mm_movemask_epi8(a)) ^ 0xFFFFu;
      if (maskA != 0) return static_cast<std::size_t>(p - s) + static_cast<std::size_t>(__builtin_ctz(maskA));
      const unsigned int maskB = static_cast<unsigned int>(_mm_movemask_epi8(b)) ^ 0xFFFFu;
      return static_cast<std::size_t>(p - s) + 16 + static_cast<std::size_t>(__builtin_ctz(maskB));
    }
    p += 32;
  }
}
#else
std::size_t AsciiRunLength(const unsigned char* s) {
  const unsigned char* p = s;
  while (*p != 0 && *p < 0x80) ++p;
  return static_cast<std::size_t>(p - s);
}
#endif

}  // namespace strings_internal
}  // namespace zmx

int atr_utf8_len(const unsigned char* s) {
  const unsigned char c = *s;
  if (c < 0x80) return 1;
  if (c < 0xC0) return 0;
  if (c < 0xE0) return 2;
  if (c < 0xF0) return 3;
  if (c < 0xF8) return 4;
  if (c < 0xFC) return 5;
  if (c < 0xFE) return 6;
  return 0;
}

int atr_utf8_len(unsigned int c) {
  if (c < 0x80) return 1;
  if (c < 0x800) return 2;
  if (c < 0x10000) return 3;
  if (c < 0x200000) return 4;
  if (c < 0x4000000) return 5;
  return 6;
}

unsigned int atr_utf8_to_ucs4(const unsigned char* s, int* len) {
  const int n = atr_utf8_len(s);
  if (len != nullptr) *len = n;
  if (n == 0) return kBadCodePoint;
  unsigned int value = s[0] & kLeadMask[n];
  for (int k = 1; k < n; ++k) {
    if ((s[k] & 0xC0) != 0x80) return kBadCodePoint;
    value = (value << 6) | (s[k] & 0x3Fu);
  }
  return value;
}

int atr_utf8_from_ucs4(unsigned char* out, unsigned int c) {
  const int n = atr_utf8_len(c);
  if (n == 1) {
    out[0] = static_cast<unsigned char>(c);
    return 1;
  }
  for (int k = n - 1; k > 0; --k) {
    out[k] = static_cast<unsigned char>(0x80 | (c & 0x3F));
    c >>= 6;
  }
  // The lead byte: n high bits set, then a zero, then the remaining payload.
  const unsigned char marker = static_cast<unsigned char>(0xFF00u >> n);
  out[0] = static_cast<unsigned char>(marker | (c & kLeadMask[n]));
  return n;
}

bool atr_encoding_validate(int id, const unsigned char* text) { return Row(id).validate(text); }

bool atr_encoding_validate(int id, const char* text) {
  return Row(id).validate(reinterpret_cast<const unsigned char*>(text));
}

int atr_utf8_to_encoding(int id, unsigned char* out, const unsigned char* utf8, unsigned char replacement) {
  return Convert(atr_EncodingUtf8, id, out, utf8, replacement);
}

int atr_utf8_to_encoding(int id, char* out, const char* utf8, char replacement) {
  return Convert(atr_EncodingUtf8, id, reinterpret_cast<unsigned char*>(out),
                 reinterpret_cast<const unsigned char*>(utf8), static_cast<unsigned char>(replacement));
}

int atr_utf8_from_encoding(unsigned char* out, int id, const unsigned char* text) {
  return Convert(id, atr_EncodingUtf8, out, text, 0);
}
