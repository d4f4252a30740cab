// Locale set-up from the environment, the ZMX_LC_ALL export, the dictionary
// search along QVL_DICT_DIR and ZEM_PATH, and the testing services.
#include "strings/locale.h"

#include <clocale>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "mem/allocation.h"
#include "strings/utf8.h"

namespace {

const char kDefaultRelativePath[] = "/Configuration/Xresources/en_US/en_US_Dict.py";

// The environment keeps pointing at this buffer, so it lives for the process.
char g_lcAllExport[1024];

int g_i18nTesting = -1;  // -1 unknown, then 0 or 1
bool g_extraCharactersDone = false;
char g_extraCharacters[64];

// A separator from either platform becomes '/'.
void ToSlashes(char* s) {
  for (; *s != '\0'; ++s) {
    if (*s == '\\') *s = '/';
  }
}

// A mem_Malloc copy of a, b and c one after the other (b and c may be null).
char* Concat(const char* a, const char* b, const char* c) {
  const std::size_t la = std::strlen(a), lb = b ? std::strlen(b) : 0, lc = c ? std::strlen(c) : 0;
  char* out = static_cast<char*>(mem_Malloc(la + lb + lc + 1));
  if (out == nullptr) return nullptr;
  std::memcpy(out, a, la);
  if (b != nullptr) std::memcpy(out + la, b, lb);
  if (c != nullptr) std::memcpy(out + la + lb, c, lc);
  out[la + lb + lc] = '\0';
  return out;
}

// With both variables present the locale is set and the named dictionary is
// used; otherwise the locale stays and the default path is searched. Returns
// the relative path (mem_Malloc).
char* SetLocaleAndRelativePath() {
  const char* supported = std::getenv("ZEMRIX_SUPPORTED_LOCALE");
  const char* dictionary = std::getenv("ZEMRIX_TRANSLATION_DICTIONARY");
  if (supported == nullptr || dictionary == nullptr) return Concat(kDefaultRelativePath, nullptr, nullptr);
  const char* const names[] = {"en", "en_US", "English_United States.1252", "C"};
  for (const char* name : names) {
    if (std::setlocale(LC_ALL, name) != nullptr) break;
  }
  const char* lang = std::getenv("ZEMRIX_LANG");
  std::setlocale(LC_CTYPE, lang != nullptr ? lang : "");
  // Numbers are always read and written with a decimal point.
  std::setlocale(LC_NUMERIC, "C");
  char* relative = Concat("/", dictionary, nullptr);
  if (relative != nullptr) ToSlashes(relative);
  return relative;
}

void ExportLocaleName() {
  const char* name = std::setlocale(LC_ALL, nullptr);
  std::snprintf(g_lcAllExport, sizeof g_lcAllExport, "ZMX_LC_ALL=%s", name != nullptr ? name : "");
  putenv(g_lcAllExport);
}

// The first candidate below the ';'-separated directories that opens; mem_Malloc'd or null.
char* SearchDictionary(const char* directories, const char* relative) {
  const char* p = directories;
  while (*p != '\0') {
    const char* end = std::strchr(p, ';');
    const std::size_t length = end != nullptr ? static_cast<std::size_t>(end - p) : std::strlen(p);
    if (length > 0) {
      char* candidate = static_cast<char*>(mem_Malloc(length + std::strlen(relative) + 1));
      if (candidate == nullptr) return nullptr;
      std::memcpy(candidate, p, length);
      candidate[length] = '\0';
      ToSlashes(candidate);
      std::size_t kept = length;
      while (kept > 0 && candidate[kept - 1] == '/') --kept;
      std::strcpy(candidate + kept, relative);
      if (std::FILE* file = std::fopen(candidate, "r")) {
        std::fclose(file);
        return candidate;
      }
      mem_Free(candidate);
    }
    if (end == nullptr) break;
    p = end + 1;
  }
  return nullptr;
}

}  // namespace

bool atr_setlocale(atr_StringBase* path) {
  char* relative = SetLocaleAndRelativePath();
  ExportLocaleName();
  const char* zemPath = std::getenv("ZEM_PATH");
  if (zemPath == nullptr || relative == nullptr) {
    mem_Free(relative);
    return false;
  }
  const char* dictDir = std::getenv("QVL_DICT_DIR");
  char* directories = dictDir != nullptr ? Concat(dictDir, ";", zemPath) : Concat(zemPath, nullptr, nullptr);
  char* found = directories != nullptr ? SearchDictionary(directories, relative) : nullptr;
  mem_Free(directories);
  mem_Free(relative);
  if (found == nullptr) return false;
  if (path != nullptr) atr_StringBasePrv(found).AssignTo(*path);
  mem_Free(found);
  return true;
}

bool atr_i18nTesting() {
  if (g_i18nTesting < 0) {
    g_i18nTesting = (std::getenv("ZEMRIX_LANG") != nullptr && std::getenv("ZMX_QA_PRINT") != nullptr &&
                     std::getenv("QVL_DICT_DIR") != nullptr)
                        ? 1
                        : 0;
  }
  return g_i18nTesting == 1;
}

const char* atr_i18nExtraCharacters() {
  if (!g_extraCharactersDone) {
    g_extraCharactersDone = true;
    // Katakana SO and the prolonged sound mark: in some multi-byte encodings the
    // second byte of SO is a backslash, which makes the pair a good probe.
    const char probe[] = "\xE3\x82\xBD\xE3\x83\xBC";
    const int length = atr_utf8_to_encoding(atr_EncodingLocale, static_cast<char*>(nullptr), probe, 0);
    if (length >= 1 && length <= 62) atr_utf8_to_encoding(atr_EncodingLocale, g_extraCharacters, probe, 0);
  }
  return g_extraCharacters;
}
