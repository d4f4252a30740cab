// Timing helpers of the container benchmark: best-of-a-few runs of a workload
// and a sink that keeps computed values alive.
#ifndef ZMXUTI_BENCH_CONTAINERS_BENCH_TIMING_H
#define ZMXUTI_BENCH_CONTAINERS_BENCH_TIMING_H

#include <chrono>

namespace zmx_bench_containers {

// Best of a few runs of `body` (at least one, more while the total stays short).
template <typename Setup, typename Body>
double BestSeconds(Setup&& setup, Body&& body, int maxRuns = 5, double budgetSeconds = 0.15) {
  double best = 1e30;
  double total = 0;
  for (int run = 0; run < maxRuns && (run == 0 || total < budgetSeconds); ++run) {
    setup();
    const auto start = std::chrono::steady_clock::now();
    body();
    const double seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    best = seconds < best ? seconds : best;
    total += seconds;
  }
  return best;
}

// Keeps a computed value alive so the optimiser cannot drop the loop.
inline volatile unsigned long long g_sink = 0;
inline void Consume(unsigned long long value) { g_sink = g_sink + value; }

}  // namespace zmx_bench_containers

#endif  // ZMXUTI_BENCH_CONTAINERS_BENCH_TIMING_H
