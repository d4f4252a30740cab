// Table, markdown and SVG output for benchmark reports.
#include "bench_report.h"

#include <unistd.h>

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <cstdio>
#include <fstream>
#include <sstream>

namespace zmx_bench {

void Report::Add(const std::string& workload, const std::string& contender, double value, const std::string& unit) {
  entries_.push_back(Entry{workload, contender, unit, value, std::string()});
}

void Report::AddNote(const std::string& workload, const std::string& contender, const std::string& why) {
  entries_.push_back(Entry{workload, contender, std::string(), 0, why});
}

std::vector<std::string> Report::Workloads() const {
  std::vector<std::string> names;
  for (const Entry& e : entries_)
    if (std::find(names.begin(), names.end(), e.workload) == names.end()) names.push_back(e.workload);
  return names;
}

std::vector<std::string> Report::Contenders() const {
  std::vector<std::string> names;
  for (const Entry& e : entries_)
    if (std::find(names.begin(), names.end(), e.contender) == names.end()) names.push_back(e.contender);
  return names;
}

const Report::Entry* Report::Find(const std::string& workload, const std::string& contender) const {
  for (const Entry& e : entries_)
    if (e.workload == workload && e.contender == contender) return &e;
  return nullptr;
}

double Report::Ratio(const std::string& workload, const std::string& contender, const std::string& baseline) const {
  const Entry* value = Find(workload, contender);
  const Entry* base = Find(workload, baseline);
  if (value == nullptr || base == nullptr || value->value <= 0 || base->value <= 0) return 0;
  const double contenderAgainstBaseline = higherIsBetter_ ? value->value / base->value : base->value / value->value;
  return direction_ == RatioDirection::BaselineAhead ? 1.0 / contenderAgainstBaseline : contenderAgainstBaseline;
}

double Report::Value(const std::string& workload, const std::string& contender) const {
  const Entry* e = Find(workload, contender);
  return e == nullptr ? 0 : e->value;
}

std::string Report::AboveOneMeans(const std::string& baseline) const {
  return direction_ == RatioDirection::BaselineAhead ? baseline + " ahead" : "better than " + baseline;
}

std::string Report::MarkdownText(const std::string& baseline) const {
  std::ostringstream out;
  out << "## " << title_ << "\n\nRatio above 1: " << AboveOneMeans(baseline) << ".\n\n| workload | contender | value | ratio to "
      << baseline << " |\n|---|---|---:|---:|\n";
  char buf[128];
  for (const std::string& w : Workloads()) {
    for (const std::string& c : Contenders()) {
      const Entry* e = Find(w, c);
      if (e == nullptr) continue;
      if (e->note.empty()) {
        std::snprintf(buf, sizeof buf, "%.4g %s | %.2f", e->value, e->unit.c_str(), Ratio(w, c, baseline));
      } else {
        std::snprintf(buf, sizeof buf, "%s | -", e->note.c_str());
      }
      out << "| " << w << " | " << c << " | " << buf << " |\n";
    }
  }
  return out.str();
}

void Report::PrintTable(const std::string& baseline) const {
  std::printf("\n%s (ratio > 1: %s)\n", title_.c_str(), AboveOneMeans(baseline).c_str());
  int width = 28;  // the workload column widens for long names
  for (const std::string& w : Workloads()) width = std::max(width, static_cast<int>(w.size()));
  std::printf("%-*s %-22s %16s %10s\n", width, "workload", "contender", "value", "ratio");
  for (const std::string& w : Workloads()) {
    for (const std::string& c : Contenders()) {
      const Entry* e = Find(w, c);
      if (e == nullptr) continue;
      if (!e->note.empty()) {
        std::printf("%-*s %-22s %s\n", width, w.c_str(), c.c_str(), e->note.c_str());
        continue;
      }
      char value[64];
      std::snprintf(value, sizeof value, "%.4g %s", e->value, e->unit.c_str());
      std::printf("%-*s %-22s %16s %10.2f\n", width, w.c_str(), c.c_str(), value, Ratio(w, c, baseline));
    }
  }
}

bool Report::WriteMarkdown(const std::string& path, const std::string& baseline) const {
  std::ofstream out(path);
  out << MarkdownText(baseline);
  return static_cast<bool>(out);
}

bool Report::WriteSvg(const std::string& path, const std::string& baseline) const {
  static const char* const kColours[] = {"#4e79a7", "#f28e2b", "#e15759", "#76b7b2", "#59a14f",
                                         "#edc948", "#b07aa1", "#ff9da7", "#9c755f", "#bab0ac"};
  const std::vector<std::string> workloads = Workloads();
  const std::vector<std::string> contenders = Contenders();
  double top = 1.0;
  double bottom = 1.0;  // smallest ratio, for the logarithmic chart
  for (const std::string& w : workloads)
    for (const std::string& c : contenders) {
      const double r = Ratio(w, c, baseline);
      top = std::max(top, r);
      if (r > 0) bottom = std::min(bottom, r);
    }
  if (logScaleChart_ && top == bottom) top = bottom * 2;
  const int barWidth = 16, groupGap = 30, plotHeight = 300, left = 60, topMargin = 50;
  const int groupWidth = static_cast<int>(contenders.size()) * barWidth + groupGap;
  const int plotRight = left + static_cast<int>(workloads.size()) * groupWidth;  // the legend stands beyond
  const std::string heading = title_ + " (ratio to " + baseline + ", above 1: " + AboveOneMeans(baseline) +
                              (logScaleChart_ ? ", logarithmic scale" : "") + ")";
  // Wide enough for the heading too, over a chart of few workloads (about 9 px a character).
  const int width = std::max(plotRight + 200, left + 9 * static_cast<int>(heading.size()));
  const int height = topMargin + plotHeight + 120;
  std::ofstream out(path);
  out << "<svg xmlns=\"http://www.w3.org/2000/svg\" width=\"" << width << "\" height=\"" << height
      << "\" font-family=\"sans-serif\" font-size=\"11\">\n<rect width=\"100%\" height=\"100%\" fill=\"white\"/>\n"
      << "<text x=\"" << left << "\" y=\"20\" font-size=\"15\">" << heading << "</text>\n";
  auto y = [&](double ratio) {
    if (!logScaleChart_) return topMargin + plotHeight - static_cast<int>(ratio / top * plotHeight);
    const double span = std::log(top) - std::log(bottom);
    return topMargin + static_cast<int>((std::log(top) - std::log(ratio)) / span * plotHeight);
  };
  // Bars stand on the bottom of a linear chart and on the 1.0 line of a logarithmic one.
  const int barBase = logScaleChart_ ? y(1.0) : topMargin + plotHeight;
  out << "<line x1=\"" << left << "\" x2=\"" << plotRight << "\" y1=\"" << y(1.0) << "\" y2=\"" << y(1.0)
      << "\" stroke=\"black\" stroke-dasharray=\"4\"/>\n<text x=\"5\" y=\"" << y(1.0) + 4 << "\">1.0</text>\n"
      << "<text x=\"5\" y=\"" << y(top) + 4 << "\">" << static_cast<int>(top * 10) / 10.0 << "</text>\n";
  if (logScaleChart_ && bottom < 1.0) {
    out << "<text x=\"5\" y=\"" << y(bottom) + 4 << "\">" << static_cast<int>(bottom * 1000) / 1000.0 << "</text>\n";
  }
  for (std::size_t wi = 0; wi < workloads.size(); ++wi) {
    const int x0 = left + static_cast<int>(wi) * groupWidth;
    for (std::size_t ci = 0; ci < contenders.size(); ++ci) {
      const double r = Ratio(workloads[wi], contenders[ci], baseline);
      if (r <= 0) continue;
      const int x = x0 + static_cast<int>(ci) * barWidth;
      const int barTop = std::min(y(r), barBase);
      out << "<rect x=\"" << x << "\" y=\"" << barTop << "\" width=\"" << barWidth - 2 << "\" height=\""
          << std::max(std::abs(barBase - y(r)), 1) << "\" fill=\"" << kColours[ci % 10] << "\"><title>" << contenders[ci]
          << ": " << r << "</title></rect>\n";
    }
    out << "<text transform=\"translate(" << x0 + 4 << "," << topMargin + plotHeight + 12
        << ") rotate(30)\">" << workloads[wi] << "</text>\n";
  }
  for (std::size_t ci = 0; ci < contenders.size(); ++ci) {
    const int ly = topMargin + static_cast<int>(ci) * 16;
    out << "<rect x=\"" << plotRight + 10 << "\" y=\"" << ly << "\" width=\"12\" height=\"12\" fill=\""
        << kColours[ci % 10] << "\"/><text x=\"" << plotRight + 28 << "\" y=\"" << ly + 10 << "\">" << contenders[ci]
        << "</text>\n";
  }
  out << "</svg>\n";
  return static_cast<bool>(out);
}

double PeakResidentMiB() {
  std::ifstream status("/proc/self/status");
  std::string line;
  while (std::getline(status, line)) {
    if (line.rfind("VmHWM:", 0) == 0) return std::stod(line.substr(6)) / 1024.0;
  }
  return 0;
}

double ResidentBytes() {
  std::ifstream statm("/proc/self/statm");
  double sizePages = 0, residentPages = 0;
  if (!(statm >> sizePages >> residentPages)) return 0;
  return residentPages * static_cast<double>(sysconf(_SC_PAGESIZE));
}

}  // namespace zmx_bench
