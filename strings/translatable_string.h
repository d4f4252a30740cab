// atr_String: the string type of every user-visible text. It is made by the
// translation functions (atr_raw, atr_translate::Result), from an integer, or by
// copying; never from a plain character pointer (those constructors are
// private). Text that must not be translated enters through the
// ReplaceNonTranslated family, which fills placeholders of a translated text.
//
//   atr_String msg = atr_raw("File %s not found");
//   msg.ReplaceNonTranslated(0, fileName);              // fills the first "%s"
//   atr_String wrapped = atr_String::AddLineBreaks(msg, 72, true);
#ifndef ZMXUTI_STRINGS_TRANSLATABLE_STRING_H
#define ZMXUTI_STRINGS_TRANSLATABLE_STRING_H

#include <cstddef>

#include "core/export.h"
#include "strings/string_base.h"

class atr_translate;

class ZMXUTI_API atr_String : public atr_StringBase {
 public:
  atr_String() {}
  atr_String(const atr_String& other) : atr_StringBase(other) {}
  // Decimal text of value.
  explicit atr_String(int value) : atr_StringBase(value) {}
  ~atr_String() {}
  atr_String& operator=(const atr_String& other) {
    atr_StringBase::operator=(other);
    return *this;
  }

  std::size_t Length() const { return static_cast<std::size_t>(atr_StringBase::Length()); }
  const char* text() const { return atr_StringBase::CStr(); }
  const char* CStr() const { return atr_StringBase::CStr(); }
  bool Empty() const { return atr_StringBase::Empty(); }

  atr_String& Append(const atr_String& s);
  // min(Length - pos, n) bytes from pos (pos must not exceed the length).
  atr_String Substr(std::size_t pos, std::size_t n) const;

  // Each replaces only the first occurrence of its placeholder and returns *this.
  // Position p > 0 means the placeholder "%p$d" / "%p$s"; position 0 means "%d" / "%s".
  atr_String& ReplaceNonTranslated(int position, int value);
  atr_String& ReplaceNonTranslated(int position, const atr_StringBase& s);
  atr_String& ReplaceNonTranslated(int position, const char* s);  // null counts as empty
  atr_String& ReplaceNonTranslated(const char* placeholder, const atr_StringBase& s);
  atr_String& ReplaceNonTranslated(const char* placeholder, const char* s);

  // Field `field` (0-based) of the text split at sep; empty when there is none.
  atr_String extract(int field, char sep) const;
  // The same; inside the field a single quote character is dropped and a doubled
  // one gives one (quotes do not protect separators).
  atr_String extract(int field, char sep, char quote) const;

  // Wraps one paragraph at word boundaries: each line ends with the word that
  // reaches or crosses width bytes. width must be positive.
  static atr_String BreakLineString(const atr_String& s, std::size_t width);
  // Wraps every line of s; with keepIfBroken a text that already holds a
  // newline is returned unchanged.
  static atr_String AddLineBreaks(const atr_String& s, std::size_t width, bool keepIfBroken);

 private:
  friend class atr_translate;
  friend ZMXUTI_API atr_String atr_raw(const char* key);

  explicit atr_String(const char* text) : atr_StringBase(text) {}
  atr_String(const char* text, std::size_t n) : atr_StringBase(text, static_cast<int>(n)) {}
  atr_String(int n, PreSizeEnm tag) : atr_StringBase(n, tag) {}

  atr_String ExtractField(int field, char sep, bool useQuote, char quote) const;
  atr_String& ReplaceFirst(const char* placeholder, const char* s);
};

ZMXUTI_API atr_String operator+(atr_String a, const atr_String& b);

#endif  // ZMXUTI_STRINGS_TRANSLATABLE_STRING_H
