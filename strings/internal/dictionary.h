// The in-memory translation dictionary shared by the loader and the message
// lookup, and the loader's line and escape rules (reached by the tests).
#ifndef ZMXUTI_STRINGS_INTERNAL_DICTIONARY_H
#define ZMXUTI_STRINGS_INTERNAL_DICTIONARY_H

#include "core/export.h"

namespace zmx {
namespace strings_internal {

struct DictionaryEntry {
  const char* key;   // the start of the entry's block: key, NUL, translation, NUL
  const char* text;  // translated text in the locale's encoding
};

// Number of entries: 0 not loaded, -1 a load was tried and kept nothing.
ZMXUTI_INTERNAL_API int DictionaryCount();
// The translated text stored for key, or null (also when no dictionary is in use).
ZMXUTI_INTERNAL_API const char* DictionaryLookup(const char* key);

// Decodes the backslash escapes of s in place; returns the new length (the
// text may now hold NUL bytes).
ZMXUTI_INTERNAL_API int DecodeEscapes(char* s);

// Splits an entry line in place: key (NUL-terminated where the "'] = r'"
// sequence began) and translation (cut before the line's last two characters).
// False for lines that are not entries.
ZMXUTI_INTERNAL_API bool SplitEntryLine(char* line, char** key, int* keyLength, char** translation);

// The search for and loading of the dictionary file (atr_tr_enable does both).
void LoadDictionary();

}  // namespace strings_internal
}  // namespace zmx

#endif  // ZMXUTI_STRINGS_INTERNAL_DICTIONARY_H
