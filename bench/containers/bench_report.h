// Results of the container benchmark: one figure per (workload, contender),
// printed as a table with ratios to the library, written as markdown and SVG.
#ifndef ZMXUTI_BENCH_CONTAINERS_BENCH_REPORT_H
#define ZMXUTI_BENCH_CONTAINERS_BENCH_REPORT_H

#include <chrono>
#include <string>
#include <vector>

namespace zmx_bench_containers {

// Lower is better for every unit used here (ns per operation, bytes per key).
struct Result {
  std::string workload;
  std::string contender;
  double value;
  std::string unit;
};

class Report {
 public:
  void Add(const std::string& workload, const std::string& contender, double value, const std::string& unit);
  // Ratio column: contender's value / baseline's value (above 1: the baseline is
  // faster or smaller).
  void PrintTable(const std::string& baseline) const;
  void WriteMarkdown(const std::string& path, const std::string& baseline) const;
  void WriteSvg(const std::string& path, const std::string& title, const std::string& baseline) const;

 private:
  std::vector<std::string> Workloads() const;
  std::vector<std::string> Contenders() const;
  const Result* Find(const std::string& workload, const std::string& contender) const;
  std::vector<Result> results_;
};

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
void Consume(unsigned long long value);

}  // namespace zmx_bench_containers

#endif  // ZMXUTI_BENCH_CONTAINERS_BENCH_REPORT_H
