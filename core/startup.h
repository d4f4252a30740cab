// Bringing the library and its components up and down.
//
// Every client calls UTI_CoreUtils_initialize before its first allocation and
// UTI_CoreUtils_finalize when it is done:
//
//   int depth = 0;
//   UTI_CoreUtils_initialize(depth);   // depth == 6 on the first call
//   ...
//   UTI_CoreUtils_finalize(depth);     // depth back to 0 on the balancing call
//
// Each component keeps a private use counter. Start-up acts only when the old
// value was 0, shut-down only when the new value is 0; each action moves the
// caller's depth by one. Counters are not clamped: a shut-down of a component
// that is down takes its counter to -1, and the next start-up only brings it
// back to 0. Calls must come from one thread at a time.
#ifndef ZMXUTI_CORE_STARTUP_H
#define ZMXUTI_CORE_STARTUP_H

#include "core/export.h"

// The whole library: memory, unit-test harness, strings, streams, process services.
ZMXUTI_API void UTI_CoreUtils_initialize(int& depth);
ZMXUTI_API void UTI_CoreUtils_finalize(int& depth);

// Memory: chooses the allocator (once per process) and the tracking mode.
ZMXUTI_API void mem_initialize(int& depth);
ZMXUTI_API void mem_finalize(int& depth);
ZMXUTI_API void mem_formalize();  // kept hook: does nothing

// Unit-test harness.
ZMXUTI_API void uts_initialize(int& depth);
ZMXUTI_API void uts_finalize(int& depth);

// Strings and translation.
ZMXUTI_API void atr_initialize(int& depth);
ZMXUTI_API void atr_finalize(int& depth);

// Streams.
ZMXUTI_API void aio_initialize(int& depth);
ZMXUTI_API void aio_finalize(int& depth);

// Process services: floating-point traps, error mode, crash filter, alerts.
ZMXUTI_API void omni_initialize(int& depth);
ZMXUTI_API void omni_finalize(int& depth);
ZMXUTI_API void omni_formalize();  // kept hook: does nothing

// True once QVL_DEBUG_POPUP was present at a process-services start-up; a later
// start-up without it leaves the flag set.
ZMXUTI_API bool omi_DebugPopupsWanted();

// For programs whose static constructors allocate (test frameworks, registries):
// writing ZMXUTI_EARLY_START_UP; at namespace scope in one source file brings the
// library up in a static constructor that runs before every default-priority one
// of the program (GCC and clang).
class zmx_EarlyStartUp {
 public:
  zmx_EarlyStartUp() {
    int depth = 0;
    UTI_CoreUtils_initialize(depth);
  }
};
#define ZMXUTI_EARLY_START_UP \
  static zmx_EarlyStartUp zmx_earlyStartUp __attribute__((init_priority(101)))

#endif  // ZMXUTI_CORE_STARTUP_H
