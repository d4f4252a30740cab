// Fuzzes the dictionary loader on arbitrary files: each input is written as the
// dictionary, loaded (in the "C" or a UTF-8 locale, with the "kvt" warnings on),
// looked up and released.
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "fuzz_library_up.h"
#include "strings/internal/dictionary.h"

namespace {
std::string g_path;
}

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  char dir[] = "/tmp/zmx_fuzz_dict_XXXXXX";
  if (mkdtemp(dir) == nullptr) std::abort();
  g_path = std::string(dir) + "/d.py";
  setenv("ZEMRIX_SUPPORTED_LOCALE", "1", 1);
  setenv("ZEMRIX_TRANSLATION_DICTIONARY", "d.py", 1);
  setenv("ZEMRIX_SITE", "kvt", 1);
  setenv("ZEM_PATH", dir, 1);
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  std::FILE* f = std::fopen(g_path.c_str(), "wb");
  if (f == nullptr) return 0;
  std::fwrite(data, 1, size, f);
  std::fclose(f);
  setenv("ZEMRIX_LANG", (size > 0 && (data[0] & 1) != 0) ? "C.UTF-8" : "C", 1);
  atr_tr_enable(true);
  const int count = zmx::strings_internal::DictionaryCount();
  if (count == 0) std::abort();  // a load always leaves a positive count or -1
  atr_translate t("key");
  atr_SubstituteFormat(t, 1, 5);
  (void)t.Result();
  (void)atr_raw("a");
  atr_tr_enable(true);  // loaded or tried: nothing happens
  if (zmx::strings_internal::DictionaryCount() != count) std::abort();
  atr_tr_enable(false);
  return 0;
}
