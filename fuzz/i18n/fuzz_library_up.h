// Brings the library up before the fuzzer allocates anything (the library's
// operator new refuses to run before start-up).
#ifndef ZMXUTI_FUZZ_I18N_FUZZ_LIBRARY_UP_H
#define ZMXUTI_FUZZ_I18N_FUZZ_LIBRARY_UP_H

#include "ZMXUTI_CoreUtils.h"

namespace {
struct FuzzLibraryUp {
  FuzzLibraryUp() {
    int depth = 0;
    UTI_CoreUtils_initialize(depth);
  }
};
FuzzLibraryUp g_fuzzLibraryUp __attribute__((init_priority(101)));
}  // namespace

#endif  // ZMXUTI_FUZZ_I18N_FUZZ_LIBRARY_UP_H
