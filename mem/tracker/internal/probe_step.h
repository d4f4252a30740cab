// The probe step shared by the pointer and stack hashes: a key-dependent,
// never-zero stride, so that keys with one home slot part ways at once.
#ifndef ZMXUTI_MEM_TRACKER_INTERNAL_PROBE_STEP_H
#define ZMXUTI_MEM_TRACKER_INTERNAL_PROBE_STEP_H

#include <cstdint>

namespace zmx {
namespace mem_internal {

// Transforms h0 at least once (3s + 1 below 0x55555554, else 2s + 1, 32-bit wrap)
// until the result is not a multiple of `capacity`; returns it modulo `capacity`.
// With a prime capacity every step reaches every slot.
inline std::uint32_t ProbeStep(std::uint32_t h0, std::uint32_t capacity) {
  std::uint32_t s = h0;
  do {
    s = s < 0x55555554u ? 3u * s + 1u : 2u * s + 1u;
  } while (s % capacity == 0);
  return s % capacity;
}

}  // namespace mem_internal
}  // namespace zmx

#endif  // ZMXUTI_MEM_TRACKER_INTERNAL_PROBE_STEP_H
