// What the fault exercisers share: keeping the compiler's hands off the
// faults they commit on purpose.
#ifndef ZMXUTI_MEM_EXERCISERS_INTERNAL_FAULT_EXERCISER_SUPPORT_H
#define ZMXUTI_MEM_EXERCISERS_INTERNAL_FAULT_EXERCISER_SUPPORT_H

#include "core/export.h"

// Every exerciser's fault is undefined behaviour by nature: the sanitizers
// are kept away so that the fault itself, not a sanitizer's abort, is what a
// checker sees.
#define ZMX_FAULT_EXERCISER extern "C" ZMXUTI_API __attribute__((noinline, no_sanitize("undefined", "address")))

namespace zmx {
namespace mem_internal {

// Hides where a pointer came from, so the compiler can neither prove the
// fault nor drop the accesses as dead.
template <typename T>
inline T* Opaque(T* pointer) {
  __asm__ volatile("" : "+r"(pointer) : : "memory");
  return pointer;
}

// A side effect taken on one branch only, so that a decision on an
// uninitialised byte stays a real conditional jump.
void NoteUninitialisedDecision();

}  // namespace mem_internal
}  // namespace zmx

#endif  // ZMXUTI_MEM_EXERCISERS_INTERNAL_FAULT_EXERCISER_SUPPORT_H
