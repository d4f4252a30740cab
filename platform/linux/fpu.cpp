// x86-64 floating-point environment for the platform contract: the portable
// control values translated onto the x87 control word and the SSE control
// register, which each thread carries separately.
#include "platform/fpu.h"

#include <cfenv>
#include <cstdint>

namespace zmx {
namespace platform {

namespace {

// Exception bits in hardware order (x87 bits 0-5; SSE masks are these << 7,
// SSE flags these << 0) paired with their portable bits.
struct ExceptionBit {
  unsigned hardware;
  unsigned portable;
};
constexpr ExceptionBit kExceptions[] = {
    {0x01, kFpMaskInvalid},  {0x02, kFpMaskDenormal}, {0x04, kFpMaskZeroDivide},
    {0x08, kFpMaskOverflow}, {0x10, kFpMaskUnderflow}, {0x20, kFpMaskInexact},
};
constexpr unsigned kSseMaskShift = 7;
constexpr unsigned kSseRoundingShift = 13;
constexpr unsigned kX87RoundingShift = 10;
constexpr unsigned kX87PrecisionShift = 8;
constexpr unsigned kPortableRoundingShift = 8;

unsigned HardwareToPortable(unsigned hardware) {
  unsigned portable = 0;
  for (const ExceptionBit& e : kExceptions)
    if (hardware & e.hardware) portable |= e.portable;
  return portable;
}

unsigned PortableToHardware(unsigned portable) {
  unsigned hardware = 0;
  for (const ExceptionBit& e : kExceptions)
    if (portable & e.portable) hardware |= e.hardware;
  return hardware;
}

// x87 precision control: 00 single, 10 double, 11 extended.
unsigned X87PrecisionToPortable(unsigned pc) { return pc == 0 ? 0x20000u : pc == 2 ? 0x10000u : 0u; }
unsigned PortableToX87Precision(unsigned field) { return field == 0x20000 ? 0u : field == 0x10000 ? 2u : 3u; }

unsigned SseDenormalToPortable(unsigned mxcsr) {
  const bool daz = mxcsr & kSseDenormalsAreZero, ftz = mxcsr & kSseFlushToZero;
  if (daz && ftz) return kFpDenormalFlush;
  if (daz) return kFpDenormalFlushOperands;
  return ftz ? kFpDenormalFlushResults : kFpDenormalSave;
}

unsigned PortableToSseDenormal(unsigned field) {
  switch (field) {
    case kFpDenormalFlush: return kSseDenormalsAreZero | kSseFlushToZero;
    case kFpDenormalFlushOperands: return kSseDenormalsAreZero;
    case kFpDenormalFlushResults: return kSseFlushToZero;
    default: return 0;
  }
}

std::uint16_t ReadX87Word() {
  std::uint16_t word;
  asm volatile("fnstcw %0" : "=m"(word));
  return word;
}

void WriteX87Word(std::uint16_t word) { asm volatile("fldcw %0" : : "m"(word)); }

// The SSE register decides masks, rounding and denormals (it is what compiled
// double arithmetic uses); only precision exists on the x87 alone.
unsigned CurrentControl() {
  const unsigned mxcsr = ReadSseControl();
  return HardwareToPortable((mxcsr & kSseExceptionMasks) >> kSseMaskShift) |
         (((mxcsr >> kSseRoundingShift) & 3u) << kPortableRoundingShift) |
         X87PrecisionToPortable((ReadX87Word() >> kX87PrecisionShift) & 3u) | SseDenormalToPortable(mxcsr);
}

}  // namespace

unsigned ReadSseControl() { return __builtin_ia32_stmxcsr(); }
void WriteSseControl(unsigned value) { __builtin_ia32_ldmxcsr(value); }
unsigned ReadX87Control() { return ReadX87Word(); }

unsigned ControlFp(unsigned newValue, unsigned mask) {
  const unsigned wanted = (CurrentControl() & ~mask) | (newValue & mask);
  const unsigned masks = PortableToHardware(wanted & kFpExceptionField);
  const unsigned rounding = (wanted & kFpRoundingField) >> kPortableRoundingShift;

  unsigned x87 = ReadX87Word() & ~0x0F3Fu;
  x87 |= masks | (PortableToX87Precision(wanted & kFpPrecisionField) << kX87PrecisionShift) |
         (rounding << kX87RoundingShift);
  WriteX87Word(static_cast<std::uint16_t>(x87));

  unsigned mxcsr = ReadSseControl() & ~(kSseExceptionMasks | (3u << kSseRoundingShift) |
                                        kSseDenormalsAreZero | kSseFlushToZero);
  mxcsr |= (masks << kSseMaskShift) | (rounding << kSseRoundingShift) |
           PortableToSseDenormal(wanted & kFpDenormalField);
  WriteSseControl(mxcsr);
  return CurrentControl();
}

unsigned ClearFp() {
  std::uint16_t status;
  asm volatile("fnstsw %0" : "=m"(status));
  const unsigned mxcsr = ReadSseControl();
  asm volatile("fnclex");
  WriteSseControl(mxcsr & ~kSseStatusFlags);
  return HardwareToPortable((status | mxcsr) & 0x3Fu);
}

FpExceptionsHeld::FpExceptionsHeld() { std::feholdexcept(&saved_); }

FpExceptionsHeld::~FpExceptionsHeld() { std::fesetenv(&saved_); }

}  // namespace platform
}  // namespace zmx
