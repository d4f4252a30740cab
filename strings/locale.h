// Locale set-up from the environment, the translation dictionary (search,
// load, release) and two services for internationalisation testing.
//
//   atr_tr_enable(true);   // sets the locale, finds and loads the dictionary once
//   ... atr_translate / atr_raw look messages up ...
//   atr_tr_enable(false);  // releases it; the next enable loads again
//
// Environment: ZEMRIX_SUPPORTED_LOCALE and ZEMRIX_TRANSLATION_DICTIONARY (both
// present: set the locale and use that dictionary path), ZEMRIX_LANG (the
// character-type locale), ZEM_PATH and QVL_DICT_DIR (';'-separated search
// directories, QVL_DICT_DIR first), ZEMRIX_SITE ("kvt": warn about texts the
// locale cannot encode). ZMX_LC_ALL is exported with the locale in force.
//
// Dictionary file: one entry per line, shaped  text['key'] = r'translation'
// followed by the newline; the translation is UTF-8; both sides may carry the
// escapes \" \' \\ \a \b \f \n \r \t \v, \ooo (one to three octal digits) and
// \xhh... (low 8 bits kept).
#ifndef ZMXUTI_STRINGS_LOCALE_H
#define ZMXUTI_STRINGS_LOCALE_H

#include "core/export.h"
#include "strings/string_base.h"

// Sets the locale (when both ZEMRIX_SUPPORTED_LOCALE and
// ZEMRIX_TRANSLATION_DICTIONARY are present), exports ZMX_LC_ALL and searches
// the dictionary. On success stores the file's full path in *path (when not
// null) and returns true.
ZMXUTI_API bool atr_setlocale(atr_StringBase* path);
// true: loads the dictionary unless it is loaded or a load was already tried.
// false: releases it.
ZMXUTI_API void atr_tr_enable(bool on);
// Frees every entry and the entry array; the next atr_tr_enable(true) loads again.
ZMXUTI_API void atr_trReleaseDB();
// True when ZEMRIX_LANG, ZMX_QA_PRINT and QVL_DICT_DIR are all present (asked once).
ZMXUTI_API bool atr_i18nTesting();
// U+30BD U+30FC in the current locale's encoding, or "" when it cannot hold them
// (converted on the first call, the same buffer afterwards).
ZMXUTI_API const char* atr_i18nExtraCharacters();

#endif  // ZMXUTI_STRINGS_LOCALE_H
