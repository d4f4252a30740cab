// Stack fault exercisers. This file alone is built with the stack protector,
// so that the overrun is caught when its function returns.
#include "mem/diagnostics/protection_page.h"
#include "mem/exercisers/fault_exercisers.h"
#include "mem/exercisers/internal/fault_exerciser_support.h"

using zmx::mem_internal::NoteUninitialisedDecision;
using zmx::mem_internal::Opaque;
using zmx::mem_internal::ProtectionPage;

namespace {
constexpr int kStackBytes = 16;
}  // namespace

// The arrays are left unwritten on purpose; the compiler's warning about that is the point.
#pragma GCC diagnostic push
#if !defined(__clang__)
#pragma GCC diagnostic ignored "-Wmaybe-uninitialized"
#endif

ZMX_FAULT_EXERCISER void mem_stack_umr01() {
  unsigned char bytes[kStackBytes];
  ProtectionPage marker(bytes, kStackBytes);
  volatile unsigned char* never_written = Opaque(bytes);
  if (never_written[5] == 0x5A) NoteUninitialisedDecision();
}

ZMX_FAULT_EXERCISER void mem_stack_corruption01() {
  char buffer[kStackBytes];
  ProtectionPage marker(buffer, kStackBytes);
  volatile char* cursor = Opaque(buffer);
  for (int i = 0; i < 2 * kStackBytes; ++i) cursor[i] = 'X';
}

#pragma GCC diagnostic pop
