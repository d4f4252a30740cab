// Brings the library up before the fuzzer allocates anything (the library's
// operator new refuses to run before start-up).
#ifndef ZMXUTI_FUZZ_I18N_FUZZ_LIBRARY_UP_H
#define ZMXUTI_FUZZ_I18N_FUZZ_LIBRARY_UP_H

#include "ZMXUTI_CoreUtils.h"

namespace {
// The library comes up before anything of the program allocates.
ZMXUTI_EARLY_START_UP;
}  // namespace

#endif  // ZMXUTI_FUZZ_I18N_FUZZ_LIBRARY_UP_H
