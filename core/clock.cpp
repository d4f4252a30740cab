// Timers, time of day and the session counter over the platform's clocks.
#include "core/clock.h"

#include <cmath>
#include <cstdio>

#include "platform/clock.h"

namespace platform = zmx::platform;

omi_Timer::omi_Timer()
    : m_running(0),
      m_wallStart(0),
      m_cpuStart(0),
      m_wallElapsed(0),
      m_cpuTotal(0),
      m_frequency(static_cast<double>(platform::PerformanceFrequency())) {}

double omi_Timer::Now() const { return static_cast<double>(platform::PerformanceCounter()) / m_frequency; }

void omi_Timer::Start() {
  if (m_running) return;
  m_wallStart = Now();
  m_cpuStart = platform::ProcessCpuSeconds();
  m_running = 1;
}

void omi_Timer::Stop() {
  if (!m_running) return;
  m_wallElapsed = Now() - m_wallStart;  // replaces the previous interval on purpose
  m_cpuTotal += platform::ProcessCpuSeconds() - m_cpuStart;
  m_running = 0;
}

void omi_Timer::Reset() {
  m_running = 0;
  m_wallStart = m_cpuStart = m_wallElapsed = m_cpuTotal = 0;
}

double omi_Timer::GetElapsedTime() const {
  return m_running ? Now() - m_wallStart + m_wallElapsed : m_wallElapsed;
}

double omi_Timer::GetTotalCpuTime() const {
  return m_running ? platform::ProcessCpuSeconds() - m_cpuStart + m_cpuTotal : m_cpuTotal;
}

omi_Time omi_gettimeofday() {
  std::int64_t seconds = 0;
  std::uint32_t milliseconds = 0;
  platform::TimeOfDay(&seconds, &milliseconds);
  return omi_Time{seconds, milliseconds * 1000u};
}

double omi_gettimestamp() { return omi_gettimeofday(); }

namespace {
double g_sessionCounter = 0;
}  // namespace

double omi_gettimecounter() {
  static const double limit = std::pow(10.0, 15.0);
  if (limit > g_sessionCounter) return g_sessionCounter++;
  std::fputs("Session Time Counter overflow!\n", stdout);
  std::fputs("Restart your session.\n", stdout);
  return 0;
}

void omi_settimecounterstart(double start) { g_sessionCounter = start; }
