// Timers, time of day and the session counter.
#include <gtest/gtest.h>

#include <sched.h>
#include <time.h>

#include <chrono>
#include <cstdlib>
#include <ctime>
#include <thread>

#include "ZMXUTI_CoreUtils.h"
#include "support/child_process.h"

namespace {

using Clock = std::chrono::steady_clock;

double Seconds(Clock::duration d) { return std::chrono::duration<double>(d).count(); }

double ThreadCpuSeconds() {
  timespec now{};
  clock_gettime(CLOCK_THREAD_CPUTIME_ID, &now);
  return static_cast<double>(now.tv_sec) + now.tv_nsec * 1e-9;
}

// Spins until the calling thread has used `seconds` of processor time.
void BurnCpu(double seconds) {
  const double end = ThreadCpuSeconds() + seconds;
  volatile double sink = 1;
  while (ThreadCpuSeconds() < end)
    for (int i = 0; i < 1000; ++i) sink = sink * 1.0000001;
}

TEST(Timer, FreshResetAndUnstartedTimersReadZero) {
  omi_Timer fresh, stoppedOnly;
  stoppedOnly.Stop();
  omi_Timer reset;
  reset.Start();
  BurnCpu(0.02);
  reset.Stop();
  reset.Reset();
  for (const omi_Timer* t : {&fresh, &stoppedOnly, &reset}) {
    EXPECT_EQ(t->GetElapsedTime(), 0.0);
    EXPECT_EQ(t->GetTotalCpuTime(), 0.0);
  }
}

TEST(Timer, ElapsedKeepsTheLastIntervalWhileProcessorTimeAddsThemAll) {
  omi_Timer timer;
  timer.Start();
  BurnCpu(0.1);
  timer.Stop();
  timer.Stop();  // ignored: already stopped
  const double first = timer.GetElapsedTime();
  EXPECT_GE(first, 0.1);

  const auto secondStart = Clock::now();
  timer.Start();
  timer.Start();  // ignored: already running
  BurnCpu(0.05);
  // While running: the current interval plus the last completed one.
  EXPECT_GE(timer.GetElapsedTime(), first + 0.05);
  EXPECT_GE(timer.GetTotalCpuTime(), 0.15 - 0.005);
  BurnCpu(0.15);
  timer.Stop();
  const double second = Seconds(Clock::now() - secondStart);

  EXPECT_GE(timer.GetElapsedTime(), 0.2);
  EXPECT_LE(timer.GetElapsedTime(), second);
  EXPECT_GE(timer.GetTotalCpuTime(), 0.3 - 0.005);        // both intervals
  EXPECT_LT(timer.GetTotalCpuTime(), 0.3 + 0.1);
}

// Two busy threads overlap only when no other test keeps the processors busy:
// ctest runs this one alone (core.alone.*), with ZMX_RUN_ALONE set.
TEST(Timer, ProcessorTimeCountsEveryThreadOfTheProcess) {
  if (std::getenv("ZMX_RUN_ALONE") == nullptr) GTEST_SKIP() << "runs alone as core.alone.ProcessorTimeOfTwoThreads";
  cpu_set_t cpus;
  if (sched_getaffinity(0, sizeof cpus, &cpus) != 0 || CPU_COUNT(&cpus) < 2)
    GTEST_SKIP() << "needs two processors to run two busy threads at once";
  // Both threads' processor time counts whether or not they overlap; the
  // processors are shared with other work, so overlap may take a few attempts.
  for (int attempt = 0; attempt < 3; ++attempt) {
    omi_Timer timer;
    const auto start = Clock::now();
    timer.Start();
    std::thread a(BurnCpu, 0.2), b(BurnCpu, 0.2);
    a.join();
    b.join();
    timer.Stop();
    const double wall = Seconds(Clock::now() - start);
    ASSERT_GE(timer.GetTotalCpuTime(), 0.4 - 0.01);
    if (wall < 0.3) {  // the threads ran side by side
      EXPECT_GT(timer.GetTotalCpuTime(), timer.GetElapsedTime());
      return;
    }
  }
  GTEST_SKIP() << "the two threads never ran at once (processors busy elsewhere)";
}

TEST(TimeOfDay, MillisecondResolutionNearTheSystemClock) {
  const std::time_t before = std::time(nullptr);
  const omi_Time now = omi_gettimeofday();
  const std::time_t after = std::time(nullptr);
  EXPECT_EQ(now.microseconds % 1000, 0u);
  EXPECT_LT(now.microseconds, 1000000u);
  // time() reads a coarse clock that may lag the precise one by a tick.
  EXPECT_GE(now.seconds, before);
  EXPECT_LE(now.seconds, after + 1);
  EXPECT_NEAR(static_cast<double>(now), now.seconds + now.microseconds * 1e-6, 1e-9);
  EXPECT_NEAR(omi_gettimestamp(), static_cast<double>(now), 1.0);
}

TEST(SessionCounter, HandsOutConsecutiveNumbersFromItsStart) {
  omi_settimecounterstart(5);
  for (double expected : {5.0, 6.0, 7.0}) EXPECT_EQ(omi_gettimecounter(), expected);
}

TEST(SessionCounter, AtTheLimitEveryCallPrintsTheOverflowLinesAndReturnsZero) {
  const auto result = zmx_test::RunProbe("services_probe", "session_counter_overflow");
  ASSERT_TRUE(zmx_test::ExitedCleanly(result));
  const std::string overflow = "Session Time Counter overflow!\nRestart your session.\n";
  EXPECT_EQ(result.out, "got 999999999999999\n" + overflow + "got 0\n" + overflow + "got 0\n");
}

}  // namespace
