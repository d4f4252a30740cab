// atr_String: appending, substrings, placeholder filling, field extraction and
// word wrapping for console output.
#include "strings/translatable_string.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "strings/locale.h"

namespace {

bool IsAsciiSpace(char c) { return c == ' ' || c == '\t' || c == '\n' || c == '\v' || c == '\f' || c == '\r'; }

// What the word scan needs to know about internationalisation testing, read once.
struct ProbeInfo {
  bool testing;
  const char* text;
  std::size_t length;
};

const ProbeInfo& Probe() {
  static const ProbeInfo info = [] {
    const bool testing = atr_i18nTesting();
    const char* text = atr_i18nExtraCharacters();
    return ProbeInfo{testing, text, std::strlen(text)};
  }();
  return info;
}

// Length of the next word at pos together with the white space before it.
// Probe characters of internationalisation testing are skipped 4 bytes at a
// time and counted in *probeBytes, which do not count towards the width.
long long WordScan(const char* t, long long length, long long pos, long long* probeBytes) {
  const ProbeInfo& probe = Probe();
  long long p = pos;
  while (p < length && IsAsciiSpace(t[p])) ++p;
  while (p < length && !IsAsciiSpace(t[p])) {
    if (probe.testing && probe.length > 0 && std::strncmp(t + p, probe.text, probe.length) == 0) {
      const long long skip = length - p < 4 ? length - p : 4;
      p += skip;
      *probeBytes += skip;
      continue;
    }
    const long long room = length - p < 4 ? length - p : 4;
    const int n = std::mblen(t + p, static_cast<std::size_t>(room));
    p += n < 1 ? 1 : n;
  }
  return p - pos;
}

}  // namespace

atr_String& atr_String::Append(const atr_String& s) {
  append(s.CStr(), atr_StringBase::LengthOf(s), 0, kAll);
  return *this;
}

atr_String atr_String::Substr(std::size_t pos, std::size_t n) const {
  const std::size_t rest = Length() - pos;
  return atr_String(CStr() + pos, n < rest ? n : rest);
}

atr_String operator+(atr_String a, const atr_String& b) {
  a.Append(b);
  return a;
}

atr_String& atr_String::ReplaceFirst(const char* placeholder, const char* s) {
  const atr_String what(placeholder);
  const atr_String with(s != nullptr ? s : "");
  Substitute(what, with, 1);
  return *this;
}

atr_String& atr_String::ReplaceNonTranslated(int position, int value) {
  char placeholder[32];
  if (position == 0) {
    std::strcpy(placeholder, "%d");
  } else {
    std::snprintf(placeholder, sizeof placeholder, "%%%d$d", position);
  }
  char number[16];
  std::snprintf(number, sizeof number, "%d", value);
  return ReplaceFirst(placeholder, number);
}

atr_String& atr_String::ReplaceNonTranslated(int position, const char* s) {
  char placeholder[32];
  if (position == 0) {
    std::strcpy(placeholder, "%s");
  } else {
    std::snprintf(placeholder, sizeof placeholder, "%%%d$s", position);
  }
  return ReplaceFirst(placeholder, s);
}

atr_String& atr_String::ReplaceNonTranslated(int position, const atr_StringBase& s) {
  return ReplaceNonTranslated(position, atr_StringBase::TextOf(s));
}

atr_String& atr_String::ReplaceNonTranslated(const char* placeholder, const atr_StringBase& s) {
  return ReplaceFirst(placeholder, atr_StringBase::TextOf(s));
}

atr_String& atr_String::ReplaceNonTranslated(const char* placeholder, const char* s) {
  return ReplaceFirst(placeholder, s);
}

atr_String atr_String::ExtractField(int field, char sep, bool useQuote, char quote) const {
  if (Empty()) return atr_String();
  const char* t = CStr();
  const int length = atr_StringBase::Length();
  int i = 0;
  for (int skipped = 0; skipped < field;) {
    if (i >= length) return atr_String();
    if (t[i++] == sep) ++skipped;
  }
  int end = i;
  while (end < length && t[end] != sep) ++end;
  if (end == i) return atr_String();
  if (!useQuote) return atr_String(t + i, static_cast<std::size_t>(end - i));
  atr_String out(end - i, PRESIZE);
  char* w = &out[0];
  int kept = 0;
  for (int j = i; j < end; ++j) {
    if (t[j] == quote) {
      if (j + 1 < end && t[j + 1] == quote) {
        w[kept++] = quote;
        ++j;
      }
      continue;
    }
    w[kept++] = t[j];
  }
  w[kept] = '\0';
  out.SetStringLength(kept);
  return out;
}

atr_String atr_String::extract(int field, char sep) const { return ExtractField(field, sep, false, 0); }

atr_String atr_String::extract(int field, char sep, char quote) const { return ExtractField(field, sep, true, quote); }

atr_String atr_String::BreakLineString(const atr_String& s, std::size_t width) {
  const long long length = static_cast<long long>(s.Length());
  if (static_cast<std::size_t>(length) <= width) return s;
  const long long limit = static_cast<long long>(width);
  const char* t = s.CStr();
  atr_String result;
  long long p = 0;
  while (p < length) {
    long long line = 0;
    long long probeBytes = 0;
    do {
      line += WordScan(t, length, p + line, &probeBytes);
    } while (p + line < length && line - probeBytes < limit);
    if (!result.Empty()) result.append("\n", 1, 0, 1);
    result.append(t + p, static_cast<int>(line), 0, kAll);
    p += line;
    if (p < length && IsAsciiSpace(t[p])) {
      const bool newline = t[p] == '\n';
      ++p;
      if (newline && p == length) result.append("\n", 1, 0, 1);
    }
  }
  return result;
}

atr_String atr_String::AddLineBreaks(const atr_String& s, std::size_t width, bool keepIfBroken) {
  const std::size_t length = s.Length();
  if (length <= width) return s;
  const char* t = s.CStr();
  atr_String result;
  std::size_t start = 0;
  while (start < length) {
    const char* newline = static_cast<const char*>(std::memchr(t + start, '\n', length - start));
    std::size_t end = length;
    if (newline != nullptr) {
      if (keepIfBroken) return s;
      end = static_cast<std::size_t>(newline - t) + 1;
    }
    result.Append(BreakLineString(s.Substr(start, end - start), width));
    start = end;
  }
  return result;
}
