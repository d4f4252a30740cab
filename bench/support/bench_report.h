// Benchmark reporting shared by every benchmark program: collects one value per
// (workload, contender), prints a table with ratios to a baseline contender,
// and writes the same as a markdown table and an SVG bar chart.
#ifndef ZMXUTI_BENCH_SUPPORT_BENCH_REPORT_H
#define ZMXUTI_BENCH_SUPPORT_BENCH_REPORT_H

#include <string>
#include <vector>

namespace zmx_bench {

class Report {
 public:
  // `higherIsBetter`: true for throughputs, false for times or bytes.
  explicit Report(std::string title, bool higherIsBetter = true)
      : title_(std::move(title)), higherIsBetter_(higherIsBetter) {}

  void Add(const std::string& workload, const std::string& contender, double value, const std::string& unit);
  // A (workload, contender) pair that was not measured: the table and the
  // markdown show `why` in its row, the chart leaves it out.
  void AddNote(const std::string& workload, const std::string& contender, const std::string& why);

  // Which way the ratio column reads. By default it says how the contender does
  // against the baseline; with `BaselineAhead` it says how far the baseline is
  // ahead of each contender (a report whose baseline is the library itself then
  // reads "above 1 = the library ahead").
  enum class RatioDirection { ContenderAgainstBaseline, BaselineAhead };
  void SetRatioDirection(RatioDirection direction) { direction_ = direction; }
  // A logarithmic chart, for ratios that span orders of magnitude: bars grow up
  // or down from the 1.0 line.
  void SetLogScaleChart(bool on) { logScaleChart_ = on; }

  // Prints "workload | contender | value unit | ratio" rows; the ratio is
  // value / baseline value for throughputs and baseline / value otherwise, so
  // above 1 always means better than the baseline (inverted by BaselineAhead).
  void PrintTable(const std::string& baselineContender) const;
  bool WriteMarkdown(const std::string& path, const std::string& baselineContender) const;
  // The markdown section WriteMarkdown writes, for a file that gathers several reports.
  std::string MarkdownText(const std::string& baselineContender) const;
  // One group of bars per workload, one bar per contender, heights as ratios to the baseline.
  bool WriteSvg(const std::string& path, const std::string& baselineContender) const;

  // The ratio of `contender` to the baseline on `workload` in the report's
  // direction, 0 when either is missing.
  double Ratio(const std::string& workload, const std::string& contender, const std::string& baseline) const;
  // The measured value of `contender` on `workload`, 0 when there is none.
  double Value(const std::string& workload, const std::string& contender) const;

 private:
  struct Entry {
    std::string workload, contender, unit;
    double value;
    std::string note;  // set for a pair that was not measured
  };
  std::vector<std::string> Workloads() const;
  std::vector<std::string> Contenders() const;
  const Entry* Find(const std::string& workload, const std::string& contender) const;
  // What a ratio above 1 means, for the headings.
  std::string AboveOneMeans(const std::string& baselineContender) const;

  std::string title_;
  bool higherIsBetter_;
  RatioDirection direction_ = RatioDirection::ContenderAgainstBaseline;
  bool logScaleChart_ = false;
  std::vector<Entry> entries_;
};

// Peak resident set size of this process in MiB (VmHWM).
double PeakResidentMiB();
// Current resident set size of this process in bytes (/proc/self/statm), 0 if unreadable.
double ResidentBytes();

}  // namespace zmx_bench

#endif  // ZMXUTI_BENCH_SUPPORT_BENCH_REPORT_H
