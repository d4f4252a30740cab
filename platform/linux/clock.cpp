// Linux clocks for the platform contract: CLOCK_MONOTONIC in nanoseconds,
// getrusage of the whole process, CLOCK_REALTIME cut to milliseconds.
#include "platform/clock.h"

#include <sys/resource.h>
#include <time.h>

namespace zmx {
namespace platform {

std::int64_t PerformanceCounter() {
  timespec now{};
  clock_gettime(CLOCK_MONOTONIC, &now);
  return static_cast<std::int64_t>(now.tv_sec) * 1000000000 + now.tv_nsec;
}

std::int64_t PerformanceFrequency() { return 1000000000; }

double ProcessCpuSeconds() {
  rusage usage{};
  getrusage(RUSAGE_SELF, &usage);
  // Whole microseconds summed first, so user + system is one exact count.
  const long long micros = (static_cast<long long>(usage.ru_utime.tv_sec) + usage.ru_stime.tv_sec) * 1000000LL +
                           usage.ru_utime.tv_usec + usage.ru_stime.tv_usec;
  return static_cast<double>(micros) / 1e6;
}

void TimeOfDay(std::int64_t* seconds, std::uint32_t* milliseconds) {
  timespec now{};
  clock_gettime(CLOCK_REALTIME, &now);
  *seconds = now.tv_sec;
  *milliseconds = static_cast<std::uint32_t>(now.tv_nsec / 1000000);
}

}  // namespace platform
}  // namespace zmx
