// Clocks and timers: a stopwatch of real and processor time, the time of day
// with a microsecond field, and a process-wide session counter.
//
//   omi_Timer timer;
//   timer.Start();
//   Solve();
//   timer.Stop();
//   printf("%.3f s wall, %.3f s cpu\n", timer.GetElapsedTime(), timer.GetTotalCpuTime());
#ifndef ZMXUTI_CORE_CLOCK_H
#define ZMXUTI_CORE_CLOCK_H

#include <cstdint>

#include "core/export.h"

// A stopwatch. Its two measures differ on purpose: the processor time adds up
// every completed Start/Stop interval, while the elapsed real time is that of
// the last completed interval only (plus the running one while started).
// Processor time is that of the whole process, every thread included.
// Single-threaded: one object belongs to one thread at a time.
class ZMXUTI_API omi_Timer {
 public:
  omi_Timer();  // stopped, all times 0; reads the counter frequency once

  void Start();  // ignored while running
  void Stop();   // ignored while stopped
  void Reset();  // stopped, all times 0; the frequency is kept

  // Seconds of the last completed interval, plus the current one while running.
  double GetElapsedTime() const;
  // Processor seconds of all completed intervals, plus the current one while running.
  double GetTotalCpuTime() const;

 private:
  double Now() const;

  std::uint32_t m_running;
  double m_wallStart;
  double m_cpuStart;
  double m_wallElapsed;
  double m_cpuTotal;
  double m_frequency;
};

// A moment of the wall clock.
struct ZMXUTI_API omi_Time {
  std::int64_t seconds;        // since the epoch
  std::uint32_t microseconds;  // within that second; a multiple of 1000
  operator double() const { return static_cast<double>(seconds) + microseconds * 1e-6; }
};

// The time of day; its resolution is one millisecond.
ZMXUTI_API omi_Time omi_gettimeofday();
// omi_gettimeofday as seconds.
ZMXUTI_API double omi_gettimestamp();

// The session counter: returns its value and adds 1. Once it reaches 10^15 it
// prints "Session Time Counter overflow!" and "Restart your session." on
// standard output at every call and returns 0, staying where it is.
// Process-wide and unsynchronised: callers serialise.
ZMXUTI_API double omi_gettimecounter();
ZMXUTI_API void omi_settimecounterstart(double start);

#endif  // ZMXUTI_CORE_CLOCK_H
