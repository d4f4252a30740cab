// The calling thread's floating-point environment in the portable form of the
// Windows runtime's _controlfp/_clearfp values. On x86-64 each call acts on
// both the x87 control word and the SSE control register (MXCSR), so code of
// either unit sees the same traps, rounding and denormal handling.
#ifndef ZMXUTI_PLATFORM_FPU_H
#define ZMXUTI_PLATFORM_FPU_H

#include <cfenv>

#include "core/export.h"

namespace zmx {
namespace platform {

// ---- control values (a set bit in the exception field masks that exception) ----
constexpr unsigned kFpMaskInexact = 0x1;
constexpr unsigned kFpMaskUnderflow = 0x2;
constexpr unsigned kFpMaskOverflow = 0x4;
constexpr unsigned kFpMaskZeroDivide = 0x8;
constexpr unsigned kFpMaskInvalid = 0x10;
constexpr unsigned kFpMaskDenormal = 0x80000;
constexpr unsigned kFpExceptionField = 0x8001F;
constexpr unsigned kFpRoundingField = 0x300;     // 0 nearest, 0x100 down, 0x200 up, 0x300 toward zero
constexpr unsigned kFpPrecisionField = 0x30000;  // 0 64-bit, 0x10000 53-bit, 0x20000 24-bit
constexpr unsigned kFpInfinityField = 0x40000;   // no effect on this hardware; reads as 0
constexpr unsigned kFpDenormalField = 0x3000000;
constexpr unsigned kFpDenormalSave = 0x0;                 // denormals kept
constexpr unsigned kFpDenormalFlush = 0x1000000;          // operands and results flushed
constexpr unsigned kFpDenormalFlushOperands = 0x2000000;  // operands only
constexpr unsigned kFpDenormalFlushResults = 0x3000000;   // results only

// ---- SSE control register bits ----
constexpr unsigned kSseStatusFlags = 0x3F;      // IE DE ZE OE UE PE
constexpr unsigned kSseDenormalsAreZero = 0x40;
constexpr unsigned kSseExceptionMasks = 0x1F80; // IM DM ZM OM UM PM
constexpr unsigned kSseFlushToZero = 0x8000;

// Sets the fields selected by `mask` to those of `newValue`, leaves the others,
// and returns the resulting control value (as _controlfp does).
ZMXUTI_INTERNAL_API unsigned ControlFp(unsigned newValue, unsigned mask);
// Clears the pending exception flags of both units and returns the flags that
// were set, in the exception-field bit layout.
ZMXUTI_INTERNAL_API unsigned ClearFp();

// The raw SSE control register.
ZMXUTI_INTERNAL_API unsigned ReadSseControl();
ZMXUTI_INTERNAL_API void WriteSseControl(unsigned value);
// The raw x87 control word (masks in bits 0-5, precision 8-9, rounding 10-11).
ZMXUTI_INTERNAL_API unsigned ReadX87Control();

// Masks every floating-point exception while it lives and restores the whole
// floating-point state, status flags included, when it ends: the runtime's text
// conversions raise overflow on out-of-range input even though they report it
// by their result, which would end the process under the library's traps.
class ZMXUTI_INTERNAL_API FpExceptionsHeld {
 public:
  FpExceptionsHeld();
  ~FpExceptionsHeld();
  FpExceptionsHeld(const FpExceptionsHeld&) = delete;
  FpExceptionsHeld& operator=(const FpExceptionsHeld&) = delete;

 private:
  std::fenv_t saved_;
};

}  // namespace platform
}  // namespace zmx

#endif  // ZMXUTI_PLATFORM_FPU_H
