// atr_StringBase: construction, the copy-on-write primitives isolate and get,
// and the editing, searching, trimming and case operations built on them.
#include "strings/string_base.h"

#include <algorithm>
#include <cctype>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#if defined(__SSE2__)
#include <emmintrin.h>
#endif

#include "mem/allocation.h"
#include "strings/internal/locale_traits.h"
#include "strings/internal/number_text.h"
#include "strings/internal/string_stats.h"

using zmx::strings_internal::RecordExtensionFailure;
using zmx::strings_internal::RecordRelease;

const char atr_StringBase::s_emptyText[1] = {'\0'};

namespace {

// Longest text a representation can hold: its capacity (length + 1) is a signed 32-bit count.
constexpr std::int64_t kMaxLength = 2147483646;

[[noreturn]] ZMX_NOINLINE void LengthLimitExceeded(std::int64_t requested) {
  std::fprintf(stderr, "atr_StringBase: a text of %lld bytes exceeds the limit of %lld bytes\n",
               static_cast<long long>(requested), static_cast<long long>(kMaxLength));
  std::fflush(stderr);
  std::abort();
}

inline int CheckedLength(std::int64_t n) {
  if (ZMX_UNLIKELY(n > kMaxLength)) LengthLimitExceeded(n);
  return static_cast<int>(n);
}

inline int ClampToRange(int value, int low, int high) { return value < low ? low : (value > high ? high : value); }

// Bytes available from a source: min(srcLen - from, count), never negative.
// A negative offset counts as 0 (the bytes before the source are not the
// caller's), and a null source has no bytes.
inline int SourceBytes(const char* src, int srcLen, int from, int count) {
  if (src == nullptr) return 0;
  const std::int64_t rest = static_cast<std::int64_t>(srcLen) - std::max(from, 0);
  const std::int64_t m = std::min<std::int64_t>(rest, count);
  return m > 0 ? static_cast<int>(m) : 0;
}

// First occurrence of the patLen bytes of pat in hay[0..hayLen), or null.
const char* SearchBytes(const char* hay, int hayLen, const char* pat, int patLen) {
  if (patLen == 0) return hay;
  const char* const last = hay + (hayLen - patLen);
  const char* p = hay;
  while (p <= last) {
    p = static_cast<const char*>(std::memchr(p, pat[0], static_cast<std::size_t>(last - p) + 1));
    if (p == nullptr) return nullptr;
    if (std::memcmp(p, pat, static_cast<std::size_t>(patLen)) == 0) return p;
    ++p;
  }
  return nullptr;
}

// Membership table of a byte set; the NUL byte never belongs to a set.
struct ByteSet {
  explicit ByteSet(const char* set) {
    std::memset(member, 0, sizeof member);
    if (set == nullptr) return;
    for (const unsigned char* p = reinterpret_cast<const unsigned char*>(set); *p != 0; ++p) member[*p] = true;
  }
  bool Has(char c) const { return member[static_cast<unsigned char>(c)]; }
  bool member[256];
};

// How case operations measure characters and classify bytes in the current
// runtime locale. A character's length is asked of mblen (at most 4 bytes,
// never past the end, from the initial shift state), and an invalid sequence
// (-1) or a NUL byte counts as one byte; mblen is skipped where its answer is
// known: in single-byte locales every byte is one character, and in stateless
// multi-byte encodings (UTF-8 and the other ASCII-compatible ones) so is every
// byte below 0x80. A byte's case comes from islower / isupper, or from the
// cached table of the process locale for long texts, where reading 16 plain ASCII
// bytes at a time pays for the cache lookup.
struct CharacterRules {
  bool singleByte;
  bool stateless;
  bool blocks;                    // below 0x80 exactly 'a'..'z' are lower and 'A'..'Z' upper case
  const unsigned char* caseBits;  // null: ask islower / isupper

  static CharacterRules FromRuntime() { return {MB_CUR_MAX == 1, std::mblen(nullptr, 0) == 0, false, nullptr}; }
  static CharacterRules FromCache(const zmx::strings_internal::LocaleTraits& t) {
    if (!t.singleByte) std::mblen(nullptr, 0);
    return {t.singleByte, t.stateless, (t.singleByte || t.stateless) && t.asciiLetters, t.caseBits};
  }

  int Bytes(const char* text, int remaining) const {
    if (singleByte || (stateless && static_cast<unsigned char>(*text) < 0x80)) return 1;
    const int k = std::mblen(text, static_cast<std::size_t>(std::min(4, remaining)));
    if (k <= 0) {
      std::mblen(nullptr, 0);  // an invalid sequence leaves the shift state undefined
      return 1;
    }
    return k;
  }
};

// Texts from this length on are walked with the cached locale table.
const int kCachedRulesFrom = 32;

// A copy of source bytes that lie inside the text being edited, so that moving
// or freeing that text cannot pull them away.
class SourceCopy {
 public:
  SourceCopy(const char* src, int n, const char* text, int textLength) : m_src(src), m_heap(nullptr) {
    const std::uintptr_t first = reinterpret_cast<std::uintptr_t>(src);
    const std::uintptr_t textFirst = reinterpret_cast<std::uintptr_t>(text);
    if (n == 0 || first + static_cast<std::uintptr_t>(n) <= textFirst ||
        first > textFirst + static_cast<std::uintptr_t>(textLength))
      return;
    char* copy = m_local;
    if (n > static_cast<int>(sizeof m_local)) {
      m_heap = static_cast<char*>(mem_OperatorNewThrowBuiltin(static_cast<std::size_t>(n)));
      copy = m_heap;
    }
    std::memcpy(copy, src, static_cast<std::size_t>(n));
    m_src = copy;
  }
  ~SourceCopy() { mem_Free(m_heap); }
  SourceCopy(const SourceCopy&) = delete;
  SourceCopy& operator=(const SourceCopy&) = delete;
  const char* Bytes() const { return m_src; }

 private:
  const char* m_src;
  char* m_heap;
  char m_local[256];
};

// Frees what a representation owns: the separate text (unless borrowed or
// inline) and the header, recording the release in the statistics.
void ReleaseStorage(atr_StringRep* rep, char* text) {
  if (text == rep->InlineText()) {
    RecordRelease(rep->Capacity(), rep->Length());
  } else {
    if (rep->Capacity() != 0) mem_Free(text);
    RecordRelease(0, rep->Length());
  }
  delete rep;
}

// The case walk: ToUpper moves every one-byte character that is lower case
// down by 32, ToLower every upper-case one up by 32. Walk<false> returns the
// offset of the first character to change (or the length); Walk<true> changes
// everything from `from` on. kCached: the rules come from the locale cache,
// which allows the 16-byte blocks; otherwise every byte is asked of the runtime.
template <bool kCached>
class CaseWalk {
 public:
  CaseWalk(const CharacterRules& rules, bool toUpper) : m_rules(rules), m_toUpper(toUpper) {}

  template <bool kWrite>
  int Walk(char* text, int from, int length) const {
    // Locals, so that writes through the text need not reload them.
    const CharacterRules rules = m_rules;
    const bool toUpper = m_toUpper;
    unsigned char* const p = reinterpret_cast<unsigned char*>(text);
    int i = from;
    while (i < length) {
#if defined(__SSE2__)
      if (kCached && rules.blocks && length - i >= 16) {
        const __m128i v = _mm_loadu_si128(reinterpret_cast<const __m128i*>(p + i));
        const unsigned int high = static_cast<unsigned int>(_mm_movemask_epi8(v));
        if (high == 0) {
          // The letters to change: (byte - first letter) is at most 25, unsigned.
          const __m128i x = _mm_sub_epi8(v, _mm_set1_epi8(toUpper ? 'a' : 'A'));
          const __m128i hit = _mm_cmpeq_epi8(_mm_min_epu8(x, _mm_set1_epi8(25)), x);
          if (!kWrite) {
            const unsigned int hits = static_cast<unsigned int>(_mm_movemask_epi8(hit));
            if (hits != 0) return i + __builtin_ctz(hits);
          } else {
            const __m128i change = _mm_and_si128(hit, _mm_set1_epi8(32));
            _mm_storeu_si128(reinterpret_cast<__m128i*>(p + i),
                             toUpper ? _mm_sub_epi8(v, change) : _mm_add_epi8(v, change));
          }
          i += 16;
          continue;
        }
        // Every byte before the first high one is a one-byte character.
        for (const int run = i + __builtin_ctz(high); i < run; ++i) {
          if (Changes(rules, toUpper, p[i])) {
            if (!kWrite) return i;
            p[i] = static_cast<unsigned char>(toUpper ? p[i] - 32 : p[i] + 32);
          }
        }
      }
#endif
      const unsigned char c = p[i];
      const int k = rules.Bytes(text + i, length - i);
      if (k == 1 && Changes(rules, toUpper, c)) {
        if (!kWrite) return i;
        p[i] = static_cast<unsigned char>(toUpper ? c - 32 : c + 32);
      }
      i += k;
    }
    return length;
  }

 private:
  static bool Changes(const CharacterRules& rules, bool toUpper, unsigned char c) {
    if (kCached)
      return (rules.caseBits[c] & (toUpper ? zmx::strings_internal::LocaleTraits::kLower
                                           : zmx::strings_internal::LocaleTraits::kUpper)) != 0;
    return (toUpper ? std::islower(c) : std::isupper(c)) != 0;
  }

  CharacterRules m_rules;
  bool m_toUpper;
};

}  // namespace

namespace zmx {
namespace strings_internal {

int FixExponent(char* text, int length) {
  if (length < 4) return length;
  char* e = std::strchr(text, 'e');
  if (e == nullptr) return length;
  char* digits = e + 1;
  if (*digits == '+' || *digits == '-') ++digits;
  if (std::strlen(digits) != 3 || digits[0] != '0') return length;
  if (!std::isdigit(static_cast<unsigned char>(digits[1])) || !std::isdigit(static_cast<unsigned char>(digits[2])))
    return length;
  std::memmove(digits, digits + 1, 3);  // the two digits and the NUL
  return length - 1;
}

}  // namespace strings_internal
}  // namespace zmx

// ---------------------------------------------------------------- creation

// Points the handle at a new representation with room for `room` characters
// and the given length: inline text up to 238 characters, a separate buffer of
// exactly room + 1 bytes beyond. Writes a NUL at offset 0.
void atr_StringBase::CreateRep(int room, int length) {
  if (room < 0) room = 0;
  const int blocks = atr_StringRep::BlocksFor(CheckedLength(room));
  if (blocks <= atr_StringRep::kMaxInlineBlocks) {
    m_rep = new (blocks) atr_StringRep(length, atr_StringRep::InlineCapacity(blocks));
    m_text = m_rep->InlineText();
  } else {
    char* text = static_cast<char*>(mem_OperatorNewThrowBuiltin(static_cast<std::size_t>(room) + 1));
    try {
      m_rep = new atr_StringRep(length, room + 1);
    } catch (...) {
      mem_Free(text);
      throw;
    }
    m_text = text;
  }
  m_text[0] = '\0';
}

atr_StringBase::atr_StringBase(const char* text) : m_text(nullptr), m_rep(nullptr) {
  if (text == nullptr || text[0] == '\0') return;
  const int n = CheckedLength(static_cast<std::int64_t>(std::strlen(text)));
  CreateRep(n, n);
  std::memcpy(m_text, text, static_cast<std::size_t>(n) + 1);
}

atr_StringBase::atr_StringBase(const char* text, int n) : m_text(nullptr), m_rep(nullptr) {
  if (text == nullptr) return;
  if (n < 0) n = 0;
  CreateRep(n, n);
  if (n > 0) std::memcpy(m_text, text, static_cast<std::size_t>(n));
  m_text[n] = '\0';
}

atr_StringBase::atr_StringBase(const char* text, int n, Borrow) : m_text(nullptr), m_rep(nullptr) {
  if (text == nullptr) return;
  m_rep = new atr_StringRep(n < 0 ? 0 : n, 0);
  m_text = const_cast<char*>(text);
}

atr_StringBase::atr_StringBase(char* text, int n, Adopt) : m_text(nullptr), m_rep(nullptr) {
  if (text == nullptr) return;
  if (n < 0) n = 0;
  m_rep = new atr_StringRep(n, CheckedLength(n) + 1);
  m_text = text;
  m_text[n] = '\0';
}

atr_StringBase::atr_StringBase(int n, PreSizeEnm) : m_text(nullptr), m_rep(nullptr) { isolate(n); }

atr_StringBase::atr_StringBase(int value) : m_text(nullptr), m_rep(nullptr) {
  char buffer[16];
  const int n = std::snprintf(buffer, sizeof buffer, "%d", value);
  CreateRep(n, n);
  std::memcpy(m_text, buffer, static_cast<std::size_t>(n) + 1);
}

atr_StringBase::atr_StringBase(unsigned int value) : m_text(nullptr), m_rep(nullptr) {
  char buffer[16];
  const int n = std::snprintf(buffer, sizeof buffer, "%u", value);
  CreateRep(n, n);
  std::memcpy(m_text, buffer, static_cast<std::size_t>(n) + 1);
}

atr_StringBase::atr_StringBase(float value) : m_text(nullptr), m_rep(nullptr) {
  char buffer[64];
  int n = std::snprintf(buffer, sizeof buffer, "%g", static_cast<double>(value));
  n = zmx::strings_internal::FixExponent(buffer, n);
  CreateRep(n, n);
  std::memcpy(m_text, buffer, static_cast<std::size_t>(n) + 1);
}

atr_StringBase::atr_StringBase(double value) : m_text(nullptr), m_rep(nullptr) {
  char buffer[64];
  int n = std::snprintf(buffer, sizeof buffer, "%.15g", value);
  n = zmx::strings_internal::FixExponent(buffer, n);
  CreateRep(n, n);
  std::memcpy(m_text, buffer, static_cast<std::size_t>(n) + 1);
}

atr_StringBase& atr_StringBase::operator=(const char* text) {
  if (text == nullptr || text[0] == '\0') {
    if (m_rep != nullptr && m_rep->Decrement()) Delete();
    m_rep = nullptr;
    m_text = nullptr;
    return *this;
  }
  const int n = CheckedLength(static_cast<std::int64_t>(std::strlen(text)));
  void* old = get(n);
  // text may lie in the storage get kept or handed back: move first, free after.
  std::memmove(m_text, text, static_cast<std::size_t>(n) + 1);
  m_rep->SetLength(n);
  mem_Free(old);
  return *this;
}

// ---------------------------------------------------------------- copy-on-write primitives

void atr_StringBase::Delete() {
  if (m_rep != nullptr) ReleaseStorage(m_rep, m_text);
  m_rep = nullptr;
  m_text = nullptr;
}

void atr_StringBase::isolate(int n) {
  if (n < 0) n = 0;
  if (m_rep == nullptr) {
    CreateRep(n, 0);
    return;
  }
  atr_StringRep* const old = m_rep;
  char* const oldText = m_text;
  const bool shared = old->RefCount() > 1;
  if (!shared && old->Capacity() > n) return;
  if (shared) {
    old->Decrement();  // the other sharers keep the old text
  } else if (oldText == old->InlineText()) {
    RecordExtensionFailure();  // inline text never grows in place
  }
  const int length = old->Length();
  CreateRep(std::max(n, length), length);
  std::memcpy(m_text, oldText, static_cast<std::size_t>(length));
  m_text[length] = '\0';
  if (!shared) ReleaseStorage(old, oldText);
}

void* atr_StringBase::get(int n) {
  if (n < 0) n = 0;
  if (m_rep == nullptr) {
    CreateRep(n, 0);
    return nullptr;
  }
  atr_StringRep* const old = m_rep;
  if (old->RefCount() > 1) {
    old->Decrement();
    CreateRep(n, 0);
    return nullptr;
  }
  if (old->Capacity() > n) return nullptr;
  void* handBack = nullptr;
  if (m_text == old->InlineText()) {
    RecordExtensionFailure();
    RecordRelease(old->Capacity(), old->Length());
    handBack = old;  // the whole block, which still holds the old text
  } else {
    if (old->Capacity() != 0) handBack = m_text;  // owned separate text; borrowed text stays with its owner
    RecordRelease(0, old->Length());
    delete old;
  }
  CreateRep(n, 0);
  return handBack;
}

char& atr_StringBase::operator[](int i) {
  isolate(Length());
  return m_text[i];
}

void atr_StringBase::SetStringLength(int n) {
  if (m_rep == nullptr) return;
  // Owned storage bounds the length (capacity counts the NUL); borrowed text is the caller's word.
  if (m_rep->Capacity() != 0) n = ClampToRange(n, 0, m_rep->Capacity() - 1);
  m_rep->SetLength(n < 0 ? 0 : n);
}

// ---------------------------------------------------------------- editing

// Replaces `removed` bytes at pos by the `added` bytes of src (which must not
// lie in this handle's text). Storage comes from get: a new text receives the
// prefix and the tail, an unchanged one moves its tail in place.
void atr_StringBase::Splice(int pos, int removed, const char* src, int added) {
  const int length = Length();
  const int newLength = CheckedLength(static_cast<std::int64_t>(length) - removed + added);
  const char* const oldText = CStr();
  const int tail = length - pos - removed;
  void* old = get(newLength);
  if (m_text != oldText) {
    std::memcpy(m_text, oldText, static_cast<std::size_t>(pos));
    std::memcpy(m_text + pos + added, oldText + pos + removed, static_cast<std::size_t>(tail));
  } else {
    std::memmove(m_text + pos + added, m_text + pos + removed, static_cast<std::size_t>(tail));
  }
  m_text[newLength] = '\0';
  if (added > 0) std::memcpy(m_text + pos, src, static_cast<std::size_t>(added));
  m_rep->SetLength(newLength);
  mem_Free(old);
}

void atr_StringBase::append(const char* src, int srcLen, int from, int count) {
  const int m = SourceBytes(src, srcLen, from, count);
  if (m == 0) return;
  const int length = Length();
  const int newLength = CheckedLength(static_cast<std::int64_t>(length) + m);
  const SourceCopy bytes(src + std::max(from, 0), m, CStr(), length);
  isolate(newLength);
  std::memcpy(m_text + length, bytes.Bytes(), static_cast<std::size_t>(m));
  m_rep->SetLength(newLength);
  m_text[newLength] = '\0';
}

void atr_StringBase::insert(int pos, const char* src, int srcLen, int from, int count) {
  const int m = SourceBytes(src, srcLen, from, count);
  if (m == 0) return;
  pos = ClampToRange(pos, 0, Length());
  const SourceCopy bytes(src + std::max(from, 0), m, CStr(), Length());
  Splice(pos, 0, bytes.Bytes(), m);
}

void atr_StringBase::replace(int pos, int count, const char* src, int srcLen, int from, int count2) {
  const int length = Length();
  pos = ClampToRange(pos, 0, length);
  const int d = ClampToRange(count, 0, length - pos);
  const int m = SourceBytes(src, srcLen, from, count2);
  if (d == 0 && m == 0) return;
  const SourceCopy bytes(m > 0 ? src + std::max(from, 0) : nullptr, m, CStr(), length);
  Splice(pos, d, bytes.Bytes(), m);
}

void atr_StringBase::Replace(int pos, int count, const atr_StringBase& s) {
  replace(pos, count, s.CStr(), s.Length(), 0, kAll);
}

void atr_StringBase::Replace(int pos, int count, const char* s, int n) {
  const atr_StringBase temporary(s, s == nullptr ? 0 : n);
  replace(pos, count, temporary.CStr(), temporary.Length(), 0, kAll);
}

void atr_StringBase::Erase(int pos, int count) {
  if (m_rep == nullptr) return;
  const int length = Length();
  pos = ClampToRange(pos, 0, length);
  const int d = ClampToRange(count, 0, length - pos);
  if (d == 0) return;
  Splice(pos, d, nullptr, 0);
}

// ---------------------------------------------------------------- searching

int atr_StringBase::Find(const char* s, int from) const {
  if (m_rep == nullptr) return 0;
  const int length = Length();
  if (s == nullptr || from > length) return length;
  if (from < 0) from = 0;
  const std::size_t n = std::strlen(s);
  if (n > static_cast<std::size_t>(length - from)) return length;
  const char* hit = SearchBytes(m_text + from, length - from, s, static_cast<int>(n));
  return hit != nullptr ? static_cast<int>(hit - m_text) : length;
}

int atr_StringBase::rfind(const char* s, int n, int last) const {
  const int length = Length();
  if (n <= 0 || last == 0 || s == nullptr || n > length) return length;
  const char* const text = CStr();
  int found = length;
  int start = 0;
  while (start <= length - n) {
    const char* hit = SearchBytes(text + start, length - start, s, n);
    if (hit == nullptr) break;
    const int offset = static_cast<int>(hit - text);
    if (offset > last) break;
    found = offset;
    start = offset + 1;
  }
  return found;
}

int atr_StringBase::Substr(int pos, int count) const {
  const std::int64_t rest = static_cast<std::int64_t>(Length()) - pos;
  const std::int64_t n = std::min<std::int64_t>(count, rest);
  return n > 0 ? static_cast<int>(n) : 0;
}

// ---------------------------------------------------------------- trimming, case, order

void atr_StringBase::LeftTrim(const char* set) {
  if (m_rep == nullptr) return;
  const ByteSet members(set);
  const int length = Length();
  int run = 0;
  while (run < length && members.Has(m_text[run])) ++run;
  if (run > 0) Erase(0, run);
}

void atr_StringBase::RightTrim(const char* set) {
  if (m_rep == nullptr) return;
  const ByteSet members(set);
  const int length = Length();
  int end = length;
  while (end > 0 && members.Has(m_text[end - 1])) --end;
  if (end < length) Erase(end, length - end);
}

void atr_StringBase::Trim(const char* set) {
  if (m_rep == nullptr) return;
  const ByteSet members(set);
  isolate(Length());  // even when nothing goes
  const int length = Length();
  int kept = 0;
  for (int i = 0; i < length; ++i) {
    if (!members.Has(m_text[i])) m_text[kept++] = m_text[i];
  }
  m_text[kept] = '\0';
  m_rep->SetLength(kept);
}

void atr_StringBase::ChangeCase(bool toUpper) {
  const int length = Length();
  if (length == 0) return;
  // Find the first character to change before copying anything.
  const auto change = [&](const auto& walk) {
    const int first = walk.template Walk<false>(m_text, 0, length);
    if (first >= length) return;
    isolate(length);
    m_text[first] = static_cast<char>(static_cast<unsigned char>(m_text[first]) + (toUpper ? -32 : 32));
    walk.template Walk<true>(m_text, first + 1, length);
  };
  const zmx::strings_internal::LocaleTraits* cached =
      length >= kCachedRulesFrom ? zmx::strings_internal::CachedLocaleTraits() : nullptr;
  if (cached != nullptr)
    change(CaseWalk<true>(CharacterRules::FromCache(*cached), toUpper));
  else
    change(CaseWalk<false>(CharacterRules::FromRuntime(), toUpper));
}

void atr_StringBase::ToLower() { ChangeCase(false); }

void atr_StringBase::ToUpper() { ChangeCase(true); }

void atr_StringBase::Capitalize() {
  const int length = Length();
  if (length == 0) return;
  const int c = static_cast<unsigned char>(m_text[0]);
  const CharacterRules rules = CharacterRules::FromRuntime();
  if (rules.Bytes(m_text, length) == 1 && std::islower(c)) {
    isolate(length);
    m_text[0] = static_cast<char>(c - 32);
  }
}

void atr_StringBase::Uncapitalize() {
  const int length = Length();
  if (length == 0) return;
  const int c = static_cast<unsigned char>(m_text[0]);
  const CharacterRules rules = CharacterRules::FromRuntime();
  if (rules.Bytes(m_text, length) == 1 && std::isupper(c)) {
    isolate(length);
    m_text[0] = static_cast<char>(c + 32);
  }
}

void atr_StringBase::Reverse() {
  if (m_rep == nullptr) return;
  isolate(Length());
  std::reverse(m_text, m_text + Length());
}

void atr_StringBase::Substitute(const atr_StringBase& what, const atr_StringBase& with, int maxCount) {
  if (Empty() || what.Empty() || maxCount <= 0) return;
  for (int done = 0; done < maxCount; ++done) {
    // Restarting at 0 every time is the rule: a replacement can be matched again.
    const int at = Find(what.CStr(), 0);
    if (at >= Length()) break;
    Replace(at, what.Length(), with);
  }
}
