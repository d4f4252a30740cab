// The platform's clocks: a monotonic high-resolution counter, the processor
// time consumed by the whole process, and the time of day to the millisecond.
// Windows: QueryPerformanceCounter/Frequency, GetProcessTimes, _ftime64.
#ifndef ZMXUTI_PLATFORM_CLOCK_H
#define ZMXUTI_PLATFORM_CLOCK_H

#include <cstdint>

namespace zmx {
namespace platform {

// Ticks of a monotonic counter with an unspecified origin; never goes back.
std::int64_t PerformanceCounter();
// Ticks of PerformanceCounter per second; fixed for the life of the process.
std::int64_t PerformanceFrequency();

// User plus system processor time of every thread of the process, in seconds.
double ProcessCpuSeconds();

// Seconds since the epoch and the milliseconds within that second (0..999).
void TimeOfDay(std::int64_t* seconds, std::uint32_t* milliseconds);

}  // namespace platform
}  // namespace zmx

#endif  // ZMXUTI_PLATFORM_CLOCK_H
