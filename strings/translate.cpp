// Message translation: dictionary lookup, conversion parsing into a template
// with positional slots, argument formatting and padding, the finished text.
#include "strings/translate.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <new>

#include "mem/allocation.h"
#include "strings/internal/dictionary.h"
#include "strings/utf8.h"

namespace {

const int kUnnumbered = -10000;
// Caps on widths and precisions taken from translated texts: a dictionary must
// not be able to make one substitution allocate without bound.
const int kMaxFieldWidth = 65536;
const int kMaxNumericWidth = 512;
// Room for the longest numeric result under kMaxNumericWidth ("%.512f" of 1e308).
const int kNumberBuffer = 1100;

char* CopyText(const char* text, std::size_t length) {
  char* copy = static_cast<char*>(mem_Malloc(length + 1));
  if (copy == nullptr) return nullptr;
  std::memcpy(copy, text, length);
  copy[length] = '\0';
  return copy;
}

bool HasHighByte(const char* text) {
  for (; *text != '\0'; ++text) {
    if (static_cast<unsigned char>(*text) > 127) return true;
  }
  return false;
}

// The dictionary's text for key, or key up to its translator note ("\@..."),
// taken as UTF-8 and converted to the locale's encoding when it is not ASCII.
char* LookUpText(const char* key) {
  const char* hit = zmx::strings_internal::DictionaryLookup(key);
  char* text;
  if (hit != nullptr) {
    text = CopyText(hit, std::strlen(hit));
  } else {
    const char* note = std::strstr(key, "\\@");
    text = CopyText(key, note != nullptr ? static_cast<std::size_t>(note - key) : std::strlen(key));
  }
  if (text == nullptr || !HasHighByte(text)) return text;
  const int length = atr_utf8_to_encoding(atr_EncodingLocale, static_cast<char*>(nullptr), text, '?');
  if (length <= 0) return text;
  char* converted = static_cast<char*>(mem_Malloc(static_cast<std::size_t>(length) + 1));
  if (converted == nullptr) return text;
  atr_utf8_to_encoding(atr_EncodingLocale, converted, text, '?');
  mem_Free(text);
  return converted;
}

int CountConversions(const char* text) {
  int count = 0;
  for (const char* p = text; *p != '\0'; ++p) {
    if (*p != '%' || p[1] == '\0') continue;
    if (p[1] != '%') ++count;
    ++p;
  }
  return count;
}

// The text of a message without conversions: "%%" becomes "%".
void CollapsePercents(char* text) {
  char* out = text;
  for (const char* in = text; *in != '\0'; ++in) {
    *out++ = *in;
    if (in[0] == '%' && in[1] == '%') ++in;
  }
  *out = '\0';
}

bool IsDigit(char c) { return c >= '0' && c <= '9'; }

int ReadNumber(const char** p, int cap) {
  long long value = 0;
  for (; IsDigit(**p); ++*p) {
    value = value * 10 + (**p - '0');
    if (value > cap) value = cap;
  }
  return static_cast<int>(value);
}

// ---- numeric formatting from a conversion ----
// Conversions come from translated texts and may be malformed, so they are never
// handed to printf as they stand: flags, width, precision, an 'h' modifier and
// the letter are read from them and a well-formed format is built for the
// value's real type. An 'h' makes integers 16 bits wide, as printf would.
struct Conversion {
  bool left = false, zero = false, shortSize = false;
  int width = -1, precision = -1;
  char letter = 0;
};

Conversion ReadConversion(const char* text) {
  Conversion c;
  const std::size_t length = std::strlen(text);
  if (length < 2) return c;
  c.letter = text[length - 1];
  const char* p = text + 1;
  for (; *p == '-' || *p == '0'; ++p) (*p == '-' ? c.left : c.zero) = true;
  if (IsDigit(*p)) c.width = ReadNumber(&p, kMaxNumericWidth);
  if (*p == '.') {
    ++p;
    c.precision = ReadNumber(&p, kMaxNumericWidth);
  }
  for (; p < text + length - 1; ++p) {
    if (*p == 'h') c.shortSize = true;
  }
  return c;
}

// "%[-][0][width][.precision]" followed by modifier and letter.
void BuildFormat(char* out, std::size_t size, const Conversion& c, const char* modifier, char letter) {
  int n = std::snprintf(out, size, "%%%s%s", c.left ? "-" : "", c.zero ? "0" : "");
  if (c.width >= 0) n += std::snprintf(out + n, size - static_cast<std::size_t>(n), "%d", c.width);
  if (c.precision >= 0) n += std::snprintf(out + n, size - static_cast<std::size_t>(n), ".%d", c.precision);
  std::snprintf(out + n, size - static_cast<std::size_t>(n), "%s%c", modifier, letter);
}

enum class Kind { Int32, Uint32, Int64, Uint64, Double };

struct Value {
  Kind kind;
  unsigned long long bits;  // integers, as two's complement
  double real;
};

bool IsFloatLetter(char c) { return c == 'e' || c == 'E' || c == 'f' || c == 'g'; }

void FormatValue(char* out, const char* conversionText, const Value& v) {
  const Conversion c = ReadConversion(conversionText);
  char format[64];
  if (IsFloatLetter(c.letter)) {
    BuildFormat(format, sizeof format, c, "", c.letter);
    const double real = v.kind == Kind::Double ? v.real
                        : (v.kind == Kind::Int32 || v.kind == Kind::Int64)
                            ? static_cast<double>(static_cast<long long>(v.bits))
                            : static_cast<double>(v.bits);
    std::snprintf(out, kNumberBuffer, format, real);
    return;
  }
  const bool narrow = v.kind == Kind::Int32 || v.kind == Kind::Uint32;
  const unsigned long long bits = v.kind == Kind::Double ? static_cast<unsigned long long>(static_cast<long long>(v.real)) : v.bits;
  if (c.letter == 'c') {
    BuildFormat(format, sizeof format, c, "", 'c');
    std::snprintf(out, kNumberBuffer, format, static_cast<int>(static_cast<unsigned char>(bits)));
  } else if (c.letter == 'd') {
    const long long value = c.shortSize ? static_cast<short>(bits)
                            : narrow    ? static_cast<int>(static_cast<unsigned int>(bits))
                                        : static_cast<long long>(bits);
    BuildFormat(format, sizeof format, c, "ll", 'd');
    std::snprintf(out, kNumberBuffer, format, value);
  } else if (c.letter == 'u' || c.letter == 'x' || c.letter == 'X' || c.letter == 'o') {
    const unsigned long long value = c.shortSize ? static_cast<unsigned short>(bits)
                                     : narrow    ? static_cast<unsigned int>(bits)
                                                 : bits;
    BuildFormat(format, sizeof format, c, "ll", c.letter);
    std::snprintf(out, kNumberBuffer, format, value);
  } else {
    out[0] = '\0';
  }
}

// One numeric substitution following the table of letters and value types.
void SubstituteNumber(atr_translate& t, int position, const Value& v) {
  atr_Fmt fmt(t.Format(position));
  if (!fmt.Ok()) return;
  const char letter = fmt.Letter();
  const bool wide = v.kind == Kind::Int64 || v.kind == Kind::Uint64;
  const atr_Fmt::DataSize size = wide ? atr_Fmt::Size64 : atr_Fmt::SizeDefault;
  const bool isUnsigned = v.kind == Kind::Uint32 || v.kind == Kind::Uint64;
  const char* conversion;
  if (v.kind == Kind::Double) {
    conversion = IsFloatLetter(letter) ? fmt.Format(atr_Fmt::SizeDefault, 0) : "%e";
  } else if (IsFloatLetter(letter)) {
    conversion = fmt.FormatNoWidth(size, 0);
  } else if (letter == 'd') {
    conversion = fmt.Format(size, isUnsigned ? (wide ? 'u' : 'd') : 0);
  } else if (letter == 's') {
    conversion = wide ? fmt.FormatNoWidth(size, isUnsigned ? 'u' : 'd') : (isUnsigned ? "%u" : "%d");
  } else {
    conversion = fmt.Format(size, 0);
  }
  char buffer[kNumberBuffer];
  FormatValue(buffer, conversion, v);
  if (v.kind == Kind::Double && IsFloatLetter(letter)) atr_translate::FixExponent(buffer);
  t.AddSubstitution(position, buffer, nullptr);
}

void SubstituteText(atr_translate& t, int position, const char* text) {
  atr_Fmt fmt(t.Format(position));
  if (!fmt.Ok()) return;
  t.AddSubstitution(position, text, fmt.Letter() == 's' ? fmt.Format(atr_Fmt::SizeDefault, 0) : nullptr);
}

}  // namespace

// ---- atr_translate ----

atr_translate::StrArgs::~StrArgs() {
  mem_Free(format);
  mem_Free(text);
}

atr_translate::atr_translate(const char* key)
    : m_key(key), m_count(0), m_args(nullptr), m_sorted(nullptr), m_format(nullptr) {
  if (key == nullptr) return;
  char* text = LookUpText(key);
  if (text == nullptr) return;
  if (CountConversions(text) == 0) {
    CollapsePercents(text);
    m_format = text;
    return;
  }
  Parse(text);
  mem_Free(text);
}

atr_translate::~atr_translate() {
  mem_Free(m_sorted);
  for (int i = 0; i < m_count; ++i) m_args[i].~StrArgs();
  mem_Free(m_args);
  mem_Free(m_format);
}

void atr_translate::Parse(char* text) {
  const int slots = CountConversions(text);
  m_args = static_cast<StrArgs*>(mem_Malloc(sizeof(StrArgs) * static_cast<std::size_t>(slots)));
  char* templ = static_cast<char*>(mem_Malloc(std::strlen(text) + 1));
  if (m_args == nullptr || templ == nullptr) {
    mem_Free(templ);
    return;
  }
  for (int i = 0; i < slots; ++i) new (&m_args[i]) StrArgs();
  bool unnumbered = false;
  char* out = templ;
  const char* p = text;
  while (*p != '\0') {
    if (*p != '%') {
      *out++ = *p++;
      continue;
    }
    if (p[1] == '%') {
      *out++ = '%';
      p += 2;
      continue;
    }
    const char* q = p + 1;
    int position = kUnnumbered;
    if (IsDigit(*q)) {
      const char* digits = q;
      const int number = ReadNumber(&digits, 999999999);
      if (*digits == '$') {
        position = number;
        q = digits + 1;
      }
    }
    if (position == kUnnumbered) unnumbered = true;
    const char* start = q;
    while (IsDigit(*q) || *q == 'l' || *q == '.' || *q == '-') ++q;
    if (*q != '\0' && std::strchr("EXcdefgosux", *q) != nullptr && m_count < slots) {
      std::size_t length = static_cast<std::size_t>(q - start) + 2;
      char* conversion = static_cast<char*>(mem_Malloc(length + 1));
      if (conversion != nullptr) {
        conversion[0] = '%';
        std::memcpy(conversion + 1, start, length - 1);
        conversion[length] = '\0';
        const char modifier = conversion[length - 2];
        if (length > 2 && (modifier == 'h' || modifier == 'l' || modifier == 'L')) {
          conversion[length - 2] = conversion[length - 1];
          conversion[length - 1] = '\0';
        }
      }
      m_args[m_count].position = position;
      m_args[m_count].format = conversion;
      ++m_count;
      *out++ = '%';
      *out++ = 's';
      p = q + 1;
    } else {
      // Not a conversion: the '%' and its position prefix are dropped.
      p = q;
    }
  }
  *out = '\0';
  m_format = templ;
  if (unnumbered) NumberUnnumbered();
  SortByPosition();
}

void atr_translate::NumberUnnumbered() {
  for (int k = 1; k <= m_count; ++k) {
    bool taken = false;
    for (int i = 0; i < m_count && !taken; ++i) taken = m_args[i].position == k;
    if (taken) continue;
    int first = 0;
    while (first < m_count && m_args[first].position != kUnnumbered) ++first;
    if (first == m_count) return;
    m_args[first].position = k;
  }
  int next = m_count + 1;
  for (int i = 0; i < m_count; ++i) {
    if (m_args[i].position == kUnnumbered) m_args[i].position = next++;
  }
}

void atr_translate::SortByPosition() {
  if (m_count == 0) return;
  m_sorted = static_cast<StrArgs**>(mem_Malloc(sizeof(StrArgs*) * static_cast<std::size_t>(m_count)));
  if (m_sorted == nullptr) {
    m_count = 0;
    return;
  }
  bool ordered = true;
  for (int i = 0; i < m_count; ++i) {
    m_sorted[i] = &m_args[i];
    if (i > 0 && m_args[i].position < m_args[i - 1].position) ordered = false;
  }
  if (ordered) return;
  // Shell sort: gaps halve from count / 2; each pass is an insertion pass.
  for (int gap = m_count / 2; gap > 0; gap /= 2) {
    for (int i = gap; i < m_count; ++i) {
      StrArgs* moving = m_sorted[i];
      int j = i;
      for (; j >= gap && compare(&m_sorted[j - gap], &moving) > 0; j -= gap) m_sorted[j] = m_sorted[j - gap];
      m_sorted[j] = moving;
    }
  }
}

int atr_translate::compare(const void* a, const void* b) {
  const StrArgs* x = *static_cast<StrArgs* const*>(a);
  const StrArgs* y = *static_cast<StrArgs* const*>(b);
  return x->position < y->position ? -1 : (x->position > y->position ? 1 : 0);
}

const char* atr_translate::Format(int position) const {
  if (position < 1 || position > m_count) return nullptr;
  return m_sorted[position - 1]->format;
}

void atr_translate::AddSubstitution(int position, const char* text, const char* conversion) {
  if (position < 1 || position > m_count) return;
  StrArgs* slot = m_sorted[position - 1];
  if (text == nullptr) text = "";
  const int length = static_cast<int>(std::strlen(text));
  mem_Free(slot->text);
  slot->text = nullptr;
  if (conversion == nullptr || conversion[0] == '\0' || conversion[1] == 's') {
    slot->text = CopyText(text, static_cast<std::size_t>(length));
    return;
  }
  const char* p = conversion + 1;
  const bool left = *p == '-';
  if (left) ++p;
  const int width = IsDigit(*p) ? ReadNumber(&p, kMaxFieldWidth) : -1;
  int precision = -1;
  if (*p == '.') {
    ++p;
    precision = ReadNumber(&p, kMaxFieldWidth);
  }
  if (precision == -1 || precision > length) precision = length;
  const int padding = (width != -1 && width > precision) ? width - precision : 0;
  char* out = static_cast<char*>(mem_Malloc(static_cast<std::size_t>(precision + padding) + 1));
  if (out == nullptr) return;
  // The padding goes in ten spaces at a time, then the remainder.
  char* w = out;
  if (!left) {
    for (int n = padding; n > 0; n -= 10) w += std::snprintf(w, 11, "%.*s", n < 10 ? n : 10, "          ");
  }
  std::memcpy(w, text, static_cast<std::size_t>(precision));
  w += precision;
  if (left) {
    for (int n = padding; n > 0; n -= 10) w += std::snprintf(w, 11, "%.*s", n < 10 ? n : 10, "          ");
  }
  *w = '\0';
  slot->text = out;
}

atr_String atr_translate::Result() const {
  if (m_format == nullptr) return atr_String();
  if (m_count == 0) return atr_String(m_format);
  std::size_t length = std::strlen(m_format);
  for (int i = 0; i < m_count; ++i) length += m_args[i].text != nullptr ? std::strlen(m_args[i].text) : 0;
  char* out = static_cast<char*>(mem_Malloc(length + 1));
  if (out == nullptr) return atr_String();
  char* w = out;
  int slot = 0;
  for (const char* p = m_format; *p != '\0'; ++p) {
    if (p[0] == '%' && p[1] == 's') {
      // Slots are filled in text order; a "%s" beyond the last slot gives nothing.
      if (slot < m_count && m_args[slot].text != nullptr) {
        const std::size_t n = std::strlen(m_args[slot].text);
        std::memcpy(w, m_args[slot].text, n);
        w += n;
      }
      ++slot;
      ++p;
      continue;
    }
    *w++ = *p;
  }
  *w = '\0';
  atr_String result(out, static_cast<std::size_t>(w - out));
  mem_Free(out);
  return result;
}

void atr_translate::FixExponent(char* s) {
  char* e = std::strchr(s, 'e');
  if (e == nullptr || (e[1] != '+' && e[1] != '-')) return;
  char* digits = e + 2;
  if (std::strlen(digits) == 3 && digits[0] == '0') std::memmove(digits, digits + 1, 3);
}

void atr_translate::ReportIllegalPosition(int) const {}

// ---- atr_Fmt ----

atr_Fmt::~atr_Fmt() { mem_Free(m_buffer); }

char atr_Fmt::Letter() {
  if (m_letter == 0 && m_format != nullptr && m_format[0] != '\0') m_letter = m_format[std::strlen(m_format) - 1];
  return m_letter;
}

char* atr_Fmt::Buffer() {
  if (m_buffer == nullptr) {
    const std::size_t length = m_format != nullptr ? std::strlen(m_format) : 0;
    m_buffer = static_cast<char*>(mem_Malloc(length + 4 > 8 ? length + 4 : 8));
  }
  return m_buffer;
}

const char* atr_Fmt::Format(DataSize size, char letter) {
  char* out = Buffer();
  if (out == nullptr || m_format == nullptr) return "";
  std::size_t length = std::strlen(m_format);
  std::memcpy(out, m_format, length + 1);
  if (length == 0) return out;
  if (letter != 0) out[length - 1] = letter;
  if (size >= SizeSmall && size <= SizeLarge) {
    out[length] = out[length - 1];
    out[length - 1] = 'h';
    out[++length] = '\0';
  }
  return out;
}

const char* atr_Fmt::FormatNoWidth(DataSize size, char letter) {
  char* out = Buffer();
  if (out == nullptr) return "";
  char* w = out;
  *w++ = '%';
  if (size >= SizeSmall && size <= SizeLarge) *w++ = 'h';
  *w++ = letter != 0 ? letter : Letter();
  *w = '\0';
  return out;
}

// ---- substitutions ----

void atr_SubstituteFormat(atr_translate& t, int position, int value) {
  SubstituteNumber(t, position, Value{Kind::Int32, static_cast<unsigned long long>(static_cast<long long>(value)), 0});
}

void atr_SubstituteFormat(atr_translate& t, int position, unsigned int value) {
  SubstituteNumber(t, position, Value{Kind::Uint32, value, 0});
}

void atr_SubstituteFormat(atr_translate& t, int position, std::int64_t value) {
  SubstituteNumber(t, position, Value{Kind::Int64, static_cast<unsigned long long>(value), 0});
}

void atr_SubstituteFormat(atr_translate& t, int position, std::uint64_t value) {
  SubstituteNumber(t, position, Value{Kind::Uint64, value, 0});
}

void atr_SubstituteFormat(atr_translate& t, int position, double value) {
  SubstituteNumber(t, position, Value{Kind::Double, 0, value});
}

void atr_SubstituteFormat(atr_translate& t, int position, float value) {
  SubstituteNumber(t, position, Value{Kind::Double, 0, static_cast<double>(value)});
}

void atr_SubstituteFormat(atr_translate& t, int position, const char* value) { SubstituteText(t, position, value); }

void atr_SubstituteFormat(atr_translate& t, int position, const atr_StringBase& value) {
  SubstituteText(t, position, atr_StringBasePrv(value).CStr());
}

void atr_SubstituteFormat(atr_translate& t, int position, const void* value) {
  ForwardVoidPBySize<8>::Format(t, position, value);
}

void ForwardVoidPBySize<8>::Format(atr_translate& t, int position, const void* value) {
  atr_SubstituteFormat(t, position, static_cast<std::uint64_t>(reinterpret_cast<std::uintptr_t>(value)));
}

atr_String atr_raw(const char* key) {
  if (key == nullptr) return atr_String();
  char* text = LookUpText(key);
  if (text == nullptr) return atr_String();
  atr_String result(text);
  mem_Free(text);
  return result;
}
