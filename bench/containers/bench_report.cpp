// Table, markdown and SVG output of the container benchmark.
#include "bench_report.h"

#include <algorithm>
#include <cmath>
#include <cstdio>

namespace zmx_bench_containers {

namespace {
volatile unsigned long long g_sink;
}

void Consume(unsigned long long value) { g_sink = g_sink + value; }

void Report::Add(const std::string& workload, const std::string& contender, double value, const std::string& unit) {
  results_.push_back({workload, contender, value, unit});
}

std::vector<std::string> Report::Workloads() const {
  std::vector<std::string> names;
  for (const auto& r : results_)
    if (std::find(names.begin(), names.end(), r.workload) == names.end()) names.push_back(r.workload);
  return names;
}

std::vector<std::string> Report::Contenders() const {
  std::vector<std::string> names;
  for (const auto& r : results_)
    if (std::find(names.begin(), names.end(), r.contender) == names.end()) names.push_back(r.contender);
  return names;
}

const Result* Report::Find(const std::string& workload, const std::string& contender) const {
  for (const auto& r : results_)
    if (r.workload == workload && r.contender == contender) return &r;
  return nullptr;
}

void Report::PrintTable(const std::string& baseline) const {
  std::printf("%-40s %-16s %14s %-10s %10s\n", "workload", "contender", "value", "unit", "vs omi");
  for (const auto& w : Workloads()) {
    const Result* base = Find(w, baseline);
    for (const auto& c : Contenders()) {
      const Result* r = Find(w, c);
      if (r == nullptr) continue;
      if (base != nullptr && base->value > 0) {
        std::printf("%-40s %-16s %14.2f %-10s %9.2fx\n", w.c_str(), c.c_str(), r->value, r->unit.c_str(),
                    r->value / base->value);
      } else {
        std::printf("%-40s %-16s %14.2f %-10s %10s\n", w.c_str(), c.c_str(), r->value, r->unit.c_str(), "-");
      }
    }
  }
}

void Report::WriteMarkdown(const std::string& path, const std::string& baseline) const {
  FILE* f = std::fopen(path.c_str(), "w");
  if (f == nullptr) return;
  const auto contenders = Contenders();
  std::fprintf(f, "| workload | unit |");
  for (const auto& c : contenders) std::fprintf(f, " %s |", c.c_str());
  std::fprintf(f, "\n|---|---|");
  for (size_t i = 0; i < contenders.size(); ++i) std::fprintf(f, "---:|");
  std::fprintf(f, "\n");
  for (const auto& w : Workloads()) {
    const Result* base = Find(w, baseline);
    std::fprintf(f, "| %s | %s |", w.c_str(), base ? base->unit.c_str() : "");
    for (const auto& c : contenders) {
      const Result* r = Find(w, c);
      if (r == nullptr) {
        std::fprintf(f, " n/a |");
      } else if (c == baseline || base == nullptr || base->value <= 0) {
        std::fprintf(f, " %.2f |", r->value);
      } else {
        std::fprintf(f, " %.2f (%.2fx) |", r->value, r->value / base->value);
      }
    }
    std::fprintf(f, "\n");
  }
  std::fprintf(f, "\nValues: lower is better. In brackets: the contender's value divided by %s's "
                  "(above 1: %s is faster or smaller).\n", baseline.c_str(), baseline.c_str());
  std::fclose(f);
}

// One row per workload, one bar per peer: log2 of (peer / baseline), so bars
// to the right of the axis are workloads the baseline wins.
void Report::WriteSvg(const std::string& path, const std::string& title, const std::string& baseline) const {
  FILE* f = std::fopen(path.c_str(), "w");
  if (f == nullptr) return;
  std::vector<std::string> peers;
  for (const auto& c : Contenders())
    if (c != baseline) peers.push_back(c);
  const auto workloads = Workloads();
  const char* colours[] = {"#4e79a7", "#f28e2b", "#59a14f", "#e15759", "#76b7b2", "#af7aa1"};
  const int bar = 7, rowGap = 6, left = 300, axis = 560, scale = 60;  // 60 px per doubling
  const int rowHeight = static_cast<int>(peers.size()) * bar + rowGap;
  const int height = 60 + static_cast<int>(workloads.size()) * rowHeight + 20 * static_cast<int>(peers.size());
  std::fprintf(f, "<svg xmlns=\"http://www.w3.org/2000/svg\" width=\"1100\" height=\"%d\" font-family=\"sans-serif\" "
                  "font-size=\"10\">\n", height);
  std::fprintf(f, "<text x=\"10\" y=\"18\" font-size=\"14\">%s</text>\n", title.c_str());
  std::fprintf(f, "<text x=\"10\" y=\"34\">bar = log2(peer / %s); right of the axis: %s faster or smaller</text>\n",
               baseline.c_str(), baseline.c_str());
  int y = 50;
  for (const auto& w : workloads) {
    const Result* base = Find(w, baseline);
    std::fprintf(f, "<text x=\"%d\" y=\"%d\" text-anchor=\"end\">%s</text>\n", left - 6,
                 y + rowHeight / 2, w.c_str());
    for (size_t p = 0; p < peers.size(); ++p) {
      const Result* r = Find(w, peers[p]);
      if (r != nullptr && base != nullptr && base->value > 0 && r->value > 0) {
        double l = std::log2(r->value / base->value);
        l = std::max(-7.0, std::min(7.0, l));
        const int len = static_cast<int>(std::fabs(l) * scale);
        const int x = l >= 0 ? axis : axis - len;
        std::fprintf(f, "<rect x=\"%d\" y=\"%d\" width=\"%d\" height=\"%d\" fill=\"%s\"><title>%s %s: %.2fx</title></rect>\n",
                     x, y + static_cast<int>(p) * bar, std::max(len, 1), bar - 1, colours[p % 6], w.c_str(),
                     peers[p].c_str(), r->value / base->value);
      }
    }
    y += rowHeight;
  }
  std::fprintf(f, "<line x1=\"%d\" y1=\"44\" x2=\"%d\" y2=\"%d\" stroke=\"black\"/>\n", axis, axis, y);
  for (size_t p = 0; p < peers.size(); ++p) {
    y += 18;
    std::fprintf(f, "<rect x=\"%d\" y=\"%d\" width=\"12\" height=\"10\" fill=\"%s\"/><text x=\"%d\" y=\"%d\">%s</text>\n",
                 left, y - 9, colours[p % 6], left + 18, y, peers[p].c_str());
  }
  std::fprintf(f, "</svg>\n");
  std::fclose(f);
}

}  // namespace zmx_bench_containers
