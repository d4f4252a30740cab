// Fresh-process scenarios for the internationalisation services: switches read
// from the environment at start-up, locale set-up and the dictionary's warnings.
// Prints one line per observation.
#include <clocale>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "ZMXUTI_CoreUtils.h"
#include "probes/probe_main.h"
#include "strings/internal/dictionary.h"

namespace {

void LibraryUp() {
  int depth = 0;
  UTI_CoreUtils_initialize(depth);
}

void NaturalOrder() {
  std::printf("before %d\n", atr_getNaturalOrder());
  int depth = 0;
  atr_initialize(depth);
  std::printf("after %d\n", atr_getNaturalOrder());
  atr_setNaturalOrder(5);
  atr_initialize(depth);  // only counted: the switch keeps the stored value
  std::printf("counted %d\n", atr_getNaturalOrder());
  atr_finalize(depth);
  atr_finalize(depth);
  atr_initialize(depth);  // acts again
  std::printf("again %d\n", atr_getNaturalOrder());
}

int g_argc = 0;
char** g_argv = nullptr;

void SetLocale() {
  atr_StringBasePrv path;
  const bool found = atr_setlocale(&path);
  std::printf("found %d\npath %s\n", found ? 1 : 0, path.CStr());
  const char* exported = std::getenv("ZMX_LC_ALL");
  std::printf("ZMX_LC_ALL %s\n", exported != nullptr ? exported : "(unset)");
  std::printf("ctype %s\nnumeric %s\n", std::setlocale(LC_CTYPE, nullptr), std::setlocale(LC_NUMERIC, nullptr));
}

// Loads the dictionary and prints the count and the lookup of each further argument.
void Load() {
  atr_tr_enable(true);
  std::printf("count %d\n", zmx::strings_internal::DictionaryCount());
  for (int i = 2; i < g_argc; ++i) {
    const char* text = zmx::strings_internal::DictionaryLookup(g_argv[i]);
    std::printf("[%s] -> [%s]\n", g_argv[i], text != nullptr ? text : "(none)");
  }
}

// Enable, enable, release, enable: loads twice; an empty load is not retried.
void Reload() {
  atr_tr_enable(true);
  std::printf("first %d\n", zmx::strings_internal::DictionaryCount());
  std::fflush(stdout);
  atr_tr_enable(true);
  std::printf("second %d\n", zmx::strings_internal::DictionaryCount());
  std::fflush(stdout);
  atr_tr_enable(false);
  std::printf("released %d\n", zmx::strings_internal::DictionaryCount());
  std::fflush(stdout);
  atr_tr_enable(true);
  std::printf("again %d\n", zmx::strings_internal::DictionaryCount());
  int depth = 0;
  UTI_CoreUtils_finalize(depth);  // releases the dictionary at shut-down
  std::printf("down %d\n", zmx::strings_internal::DictionaryCount());
}

void Testing() {
  std::printf("testing %d\n", atr_i18nTesting() ? 1 : 0);
  const char* extra = atr_i18nExtraCharacters();
  std::printf("extra %d", static_cast<int>(std::strlen(extra)));
  for (const char* p = extra; *p != '\0'; ++p) std::printf(" %02x", static_cast<unsigned char>(*p));
  std::printf("\n");
}

// Sets LC_CTYPE to the first argument before asking for the probe characters.
void ExtraInLocale() {
  std::setlocale(LC_CTYPE, g_argc > 2 ? g_argv[2] : "C");
  Testing();
}

// Wraps a text that starts with the testing probe characters, in a UTF-8 locale
// set before the probe is first asked for.
void WrapProbe() {
  std::setlocale(LC_CTYPE, "C.UTF-8");
  const atr_String text = atr_raw("\xE3\x82\xBD\xE3\x83\xBC" "aa bb cc");
  std::printf("[%s]\n", atr_String::BreakLineString(text, 6).CStr());
}

// The example program's messages through the dictionary the environment names.
void French() {
  atr_tr_enable(true);
  atr_translate up("ZMXUTI_CoreUtils is up (depth %d), serving from the %s.");
  atr_SubstituteFormat(up, 1, 6);
  atr_SubstituteFormat(up, 2, "general heap");
  std::printf("%s\n", up.Result().CStr());
  std::printf("%s\n", atr_raw("Allocating through each entry point:").CStr());
  atr_translate found("Found %d errors in %s");
  atr_SubstituteFormat(found, 1, 3);
  atr_SubstituteFormat(found, 2, "a.inp");
  std::printf("%s\n", found.Result().CStr());
  std::printf("%s\n", atr_raw("Line one\nLine two").CStr());
  atr_translate quoted("Quoted \"%s\"");
  atr_SubstituteFormat(quoted, 1, "x");
  std::printf("%s\n", quoted.Result().CStr());
  std::printf("%s\n", atr_raw("Not in the dictionary").CStr());
  atr_translate down("Down again (depth %d).");
  atr_SubstituteFormat(down, 1, 0);
  std::printf("%s\n", down.Result().CStr());
}

const zmx_probe::Scenario kScenarios[] = {
    {"natural_order", NaturalOrder},
    {"setlocale", SetLocale},
    {"load", Load},
    {"reload", Reload},
    {"testing", Testing},
    {"extra_in_locale", ExtraInLocale},
    {"french", French},
    {"wrap_probe", WrapProbe},
};

}  // namespace

int main(int argc, char** argv) {
  g_argc = argc;
  g_argv = argv;
  // Natural order is decided at start-up, so that scenario brings the library up itself.
  if (argc > 1 && std::strcmp(argv[1], "natural_order") != 0) LibraryUp();
  return zmx_probe::Dispatch(argc, argv, kScenarios);
}
