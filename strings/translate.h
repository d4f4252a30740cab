// Message translation with argument substitution. A message is an English key
// with printf-style conversions; atr_translate looks it up in the dictionary,
// turns the translation into a template with one slot per conversion, and the
// caller feeds each argument by position; Result() gives the finished text.
// Translations may reorder arguments with positional conversions ("%2$s").
//
//   atr_translate t("Found %d errors in %s");
//   atr_SubstituteFormat(t, 1, errors);
//   atr_SubstituteFormat(t, 2, fileName);
//   atr_String message = t.Result();
//
// Accepted in a conversion: a position prefix "n$", then '0'-'9', 'l', '.', '-'
// and one of the letters E X c d e f g o s u x. Nothing is reported: unknown
// positions, missing arguments and unknown letters are ignored.
#ifndef ZMXUTI_STRINGS_TRANSLATE_H
#define ZMXUTI_STRINGS_TRANSLATE_H

#include <cstdint>

#include "core/export.h"
#include "strings/string_base.h"
#include "strings/translatable_string.h"

class ZMXUTI_API atr_translate {
 public:
  // One conversion of the translated text.
  struct ZMXUTI_API StrArgs {
    StrArgs() : position(0), format(nullptr), text(nullptr) {}
    ~StrArgs();
    int position;  // 1-based argument position
    char* format;  // the conversion without position prefix and with one size modifier removed
    char* text;    // the formatted argument, null until set
  };

  // Translates and parses key (not copied: it must outlive the object). Null gives an empty result.
  explicit atr_translate(const char* key);
  ~atr_translate();
  atr_translate(const atr_translate&) = delete;
  atr_translate& operator=(const atr_translate&) = delete;

  // The conversion of the slot with that position; null outside 1..count.
  const char* Format(int position) const;
  // Stores text for the slot with that position, padded by a "%[-][w][.p]s" conversion.
  void AddSubstitution(int position, const char* text, const char* conversion);
  atr_String Result() const;

  // Drops the leading 0 of a three-digit exponent at the first 'e' ("e+005" -> "e+05").
  static void FixExponent(char* s);
  // Orders two StrArgs pointers by position: the difference of their positions.
  static int compare(const void* a, const void* b);
  void ReportIllegalPosition(int position) const;

 private:
  void Parse(char* text);
  void NumberUnnumbered();
  void SortByPosition();

  [[maybe_unused]] const char* m_key;  // kept with the message for debuggers; nothing reads it
  int m_count;
  StrArgs* m_args;
  StrArgs** m_sorted;
  char* m_format;
};

// Rewrites one conversion for a data size and letter.
class ZMXUTI_API atr_Fmt {
 public:
  // Sizes 1, 2 and 3 all add the modifier 'h'; the 64-bit substitutions pass 2.
  enum DataSize { SizeDefault = 0, SizeSmall = 1, Size64 = 2, SizeLarge = 3 };

  explicit atr_Fmt(const char* conversion) : m_format(conversion), m_letter(0), m_buffer(nullptr) {}
  ~atr_Fmt();
  atr_Fmt(const atr_Fmt&) = delete;
  atr_Fmt& operator=(const atr_Fmt&) = delete;

  bool Ok() const { return m_format != nullptr; }
  // The last character of the conversion.
  char Letter();
  // The conversion, its last character replaced by letter (unless 0), with 'h' before it for sizes 1..3.
  const char* Format(DataSize size, char letter);
  // "%", 'h' for sizes 1..3, then letter (or Letter()); flags, width and precision dropped.
  const char* FormatNoWidth(DataSize size, char letter);

 private:
  char* Buffer();

  const char* m_format;
  char m_letter;
  char* m_buffer;
};

ZMXUTI_API void atr_SubstituteFormat(atr_translate& t, int position, int value);
ZMXUTI_API void atr_SubstituteFormat(atr_translate& t, int position, unsigned int value);
ZMXUTI_API void atr_SubstituteFormat(atr_translate& t, int position, std::int64_t value);
ZMXUTI_API void atr_SubstituteFormat(atr_translate& t, int position, std::uint64_t value);
ZMXUTI_API void atr_SubstituteFormat(atr_translate& t, int position, double value);
ZMXUTI_API void atr_SubstituteFormat(atr_translate& t, int position, float value);
ZMXUTI_API void atr_SubstituteFormat(atr_translate& t, int position, const char* value);
ZMXUTI_API void atr_SubstituteFormat(atr_translate& t, int position, const void* value);
ZMXUTI_API void atr_SubstituteFormat(atr_translate& t, int position, const atr_StringBase& value);

// Pointers are substituted as unsigned integers of their size.
template <int PointerSize>
struct ForwardVoidPBySize;
template <>
struct ZMXUTI_API ForwardVoidPBySize<8> {
  static void Format(atr_translate& t, int position, const void* value);
};

// The translation of a key without arguments, used literally ('%' is not parsed).
ZMXUTI_API atr_String atr_raw(const char* key);

#endif  // ZMXUTI_STRINGS_TRANSLATE_H
