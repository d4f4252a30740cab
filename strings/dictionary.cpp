// The translation dictionary: the two-pass loader with its line and escape
// rules, the sorted entry array, lookup and release.
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "mem/allocation.h"
#include "strings/internal/dictionary.h"
#include "strings/locale.h"
#include "strings/utf8.h"

namespace zmx {
namespace strings_internal {

namespace {

const char kEntryMark[] = "'] = r'";
const int kEntryMarkLength = 7;
// Lines longer than this are read in pieces of this size.
const int kLineBuffer = 8192;

DictionaryEntry* g_entries = nullptr;
int g_count = 0;  // 0 not loaded, -1 tried and empty

int EntryOrder(const void* a, const void* b) {
  // strcmp compares as unsigned bytes.
  return std::strcmp(static_cast<const DictionaryEntry*>(a)->key, static_cast<const DictionaryEntry*>(b)->key);
}

int KeyOrder(const void* key, const void* entry) {
  return std::strcmp(static_cast<const char*>(key), static_cast<const DictionaryEntry*>(entry)->key);
}

int OctalValue(char c) { return (c >= '0' && c <= '7') ? c - '0' : -1; }

int HexValue(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  return -1;
}

char SimpleEscape(char c) {
  switch (c) {
    case '"': return '"';
    case '\'': return '\'';
    case '\\': return '\\';
    case 'a': return '\a';
    case 'b': return '\b';
    case 'f': return '\f';
    case 'n': return '\n';
    case 'r': return '\r';
    case 't': return '\t';
    case 'v': return '\v';
    default: return '\0';
  }
}

void Warn(const char* message, const char* key) {
  std::fprintf(stderr, "%s", message);
  std::fprintf(stderr, "\"%s\"\n\n", key);
}

const char kInvalidUtf8[] = "WARNING: atr: Invalid UTF-8 string.\n";
const char kNotEncodable[] = "WARNING: atr: Failure encoding in the current locale.\n";

// The length of the translation in the locale's encoding ('?' for what it
// cannot hold); negative for invalid UTF-8.
int EncodedLength(const char* translation) {
  return atr_utf8_to_encoding(atr_EncodingLocale, static_cast<char*>(nullptr), translation, '?');
}

// An identical translation is not stored.
bool SameAsKey(const char* key, int keyLength, const char* translation, int encodedLength) {
  return encodedLength == keyLength && std::strncmp(key, translation, static_cast<std::size_t>(keyLength)) == 0;
}

// First pass: lines that will give an entry.
int CountEntries(std::FILE* file) {
  char line[kLineBuffer];
  int count = 0;
  while (std::fgets(line, kLineBuffer, file) != nullptr) {
    char* key;
    char* translation;
    int keyLength;
    if (!SplitEntryLine(line, &key, &keyLength, &translation)) continue;
    const int n = EncodedLength(translation);
    if (n >= 0 && !SameAsKey(key, keyLength, translation, n)) ++count;
  }
  return count;
}

// Second pass over one line: stores its entry in g_entries[g_count] when it gives one.
void StoreEntry(char* line, int capacity, bool warnUnencodable) {
  char* key;
  char* translation;
  int keyLength;
  if (!SplitEntryLine(line, &key, &keyLength, &translation)) return;
  const int n = EncodedLength(translation);
  if (n < 0) {
    Warn(kInvalidUtf8, key);
    return;
  }
  if (SameAsKey(key, keyLength, translation, n)) return;
  // The first pass counted with the same rule; the bound only guards against a
  // file that changed between the passes.
  if (g_count >= capacity) return;
  const int decodedKeyLength = DecodeEscapes(key);
  DecodeEscapes(translation);
  if (warnUnencodable &&
      atr_utf8_to_encoding(atr_EncodingLocale, static_cast<char*>(nullptr), translation, 0) == atr_ConvertUnencodable) {
    Warn(kNotEncodable, key);
  }
  // Escapes may have changed the encoded length: measure the decoded text.
  const int encoded = EncodedLength(translation);
  if (encoded < 0) {
    Warn(kInvalidUtf8, key);
    return;
  }
  char* block = static_cast<char*>(mem_Malloc(static_cast<std::size_t>(decodedKeyLength) + encoded + 2));
  if (block == nullptr) return;
  std::memcpy(block, key, static_cast<std::size_t>(decodedKeyLength));
  block[decodedKeyLength] = '\0';
  char* text = block + decodedKeyLength + 1;
  atr_utf8_to_encoding(atr_EncodingLocale, text, translation, '?');
  g_entries[g_count].key = block;
  g_entries[g_count].text = text;
  ++g_count;
}

void LoadFile(const char* path) {
  std::FILE* file = std::fopen(path, "r");
  if (file == nullptr) return;
  const int capacity = CountEntries(file);
  if (capacity > 0) {
    g_entries = static_cast<DictionaryEntry*>(mem_Calloc(static_cast<std::size_t>(capacity), sizeof(DictionaryEntry)));
  }
  const int usable = g_entries != nullptr ? capacity : 0;
  const char* site = std::getenv("ZEMRIX_SITE");
  const bool warnUnencodable = site != nullptr && std::strcmp(site, "kvt") == 0;
  std::rewind(file);
  char line[kLineBuffer];
  while (std::fgets(line, kLineBuffer, file) != nullptr) StoreEntry(line, usable, warnUnencodable);
  std::fclose(file);
}

}  // namespace

int DecodeEscapes(char* s) {
  char* out = s;
  const char* in = s;
  while (*in != '\0') {
    if (*in != '\\' || in[1] == '\0') {
      *out++ = *in++;
      continue;
    }
    const char c = in[1];
    if (SimpleEscape(c) != '\0') {
      *out++ = SimpleEscape(c);
      in += 2;
    } else if (OctalValue(c) >= 0) {
      unsigned int value = 0;
      in += 1;
      for (int k = 0; k < 3 && OctalValue(*in) >= 0; ++k) value = value * 8 + static_cast<unsigned int>(OctalValue(*in++));
      *out++ = static_cast<char>(value & 0xFF);
    } else if (c == 'x' && HexValue(in[2]) >= 0) {
      unsigned int value = 0;
      for (in += 2; HexValue(*in) >= 0; ++in) value = (value * 16 + static_cast<unsigned int>(HexValue(*in))) & 0xFF;
      *out++ = static_cast<char>(value);
    } else {
      // Not an escape: the pair stays as it is.
      *out++ = *in++;
      *out++ = *in++;
    }
  }
  *out = '\0';
  return static_cast<int>(out - s);
}

bool SplitEntryLine(char* line, char** key, int* keyLength, char** translation) {
  char* mark = std::strstr(line, kEntryMark);
  if (mark == nullptr) return false;
  char* quote = std::strchr(line, '\'');
  // The key starts behind the line's first quote; when that quote is the
  // mark's own, there is no key.
  if (quote == mark) return false;
  *key = quote + 1;
  *keyLength = static_cast<int>(mark - *key);
  *mark = '\0';
  char* text = mark + kEntryMarkLength;
  const std::size_t length = std::strlen(text);
  text[length >= 2 ? length - 2 : 0] = '\0';
  *translation = text;
  return true;
}

int DictionaryCount() { return g_count; }

const char* DictionaryLookup(const char* key) {
  if (g_count <= 0 || key == nullptr) return nullptr;
  const void* hit = std::bsearch(key, g_entries, static_cast<std::size_t>(g_count), sizeof(DictionaryEntry), KeyOrder);
  return hit != nullptr ? static_cast<const DictionaryEntry*>(hit)->text : nullptr;
}

void LoadDictionary() {
  atr_StringBasePrv path;
  if (atr_setlocale(&path)) LoadFile(path.CStr());
  if (g_count > 0) {
    std::qsort(g_entries, static_cast<std::size_t>(g_count), sizeof(DictionaryEntry), EntryOrder);
  } else {
    g_count = -1;
  }
}

}  // namespace strings_internal
}  // namespace zmx

void atr_tr_enable(bool on) {
  if (!on) {
    atr_trReleaseDB();
  } else if (zmx::strings_internal::g_count == 0) {
    zmx::strings_internal::LoadDictionary();
  }
}

void atr_trReleaseDB() {
  using namespace zmx::strings_internal;
  // After a load that kept nothing (count -1) only the array is freed.
  for (int i = 0; i < g_count; ++i) mem_Free(const_cast<char*>(g_entries[i].key));
  mem_Free(g_entries);
  g_entries = nullptr;
  g_count = 0;
}
