// The memory report's forms: plain text for people, one JSON object for
// scripts, and an SVG chart of live bytes over the transactions.
#include <algorithm>
#include <cstdio>
#include <ostream>

#include "memreport.h"

namespace memreport {

namespace {

// Length of the well-formed UTF-8 sequence at s[i], or 0.
std::size_t Utf8Length(const std::string& s, std::size_t i) {
  auto byte = [&](std::size_t k) { return static_cast<unsigned char>(s[k]); };
  unsigned char c = byte(i);
  std::size_t n = c < 0x80 ? 1 : (c >= 0xC2 && c <= 0xDF) ? 2 : (c >= 0xE0 && c <= 0xEF) ? 3
                               : (c >= 0xF0 && c <= 0xF4) ? 4 : 0;
  if (n == 0 || i + n > s.size()) return 0;
  for (std::size_t k = 1; k < n; ++k)
    if ((byte(i + k) & 0xC0) != 0x80) return 0;
  if (n == 3 && ((c == 0xE0 && byte(i + 1) < 0xA0) || (c == 0xED && byte(i + 1) >= 0xA0))) return 0;
  if (n == 4 && ((c == 0xF0 && byte(i + 1) < 0x90) || (c == 0xF4 && byte(i + 1) >= 0x90))) return 0;
  return n;
}

// Phase names hold whatever bytes the program gave: JSON and SVG get valid
// UTF-8 with the markup characters escaped; a bad byte becomes U+FFFD.
std::string Escaped(const std::string& s, bool json) {
  std::string out;
  for (std::size_t i = 0; i < s.size();) {
    std::size_t n = Utf8Length(s, i);
    unsigned char c = static_cast<unsigned char>(s[i]);
    if (n == 0) {
      out += "\xEF\xBF\xBD";
      ++i;
      continue;
    }
    if (n == 1 && json && (c == '"' || c == '\\')) {
      out += '\\';
      out += static_cast<char>(c);
    } else if (n == 1 && c < 0x20) {
      char buffer[8];
      std::snprintf(buffer, sizeof buffer, "\\u%04x", c);
      out += json ? buffer : "?";  // XML 1.0 has no way to write these
    } else if (n == 1 && !json && (c == '&' || c == '<' || c == '>' || c == '"')) {
      out += c == '&' ? "&amp;" : c == '<' ? "&lt;" : c == '>' ? "&gt;" : "&quot;";
    } else {
      out.append(s, i, n);
    }
    i += n;
  }
  return out;
}

template <typename Row>
void TextTable(std::ostream& out, const char* title, const std::vector<Group>& rows, std::size_t top,
               const char* unit, Row label) {
  out << title << ":" << (rows.empty() ? " none" : "") << "\n";
  for (std::size_t i = 0; i < rows.size() && i < top; ++i)
    out << "  " << rows[i].bytes << " bytes in " << rows[i].count << " " << unit << "  " << label(rows[i].key)
        << "\n";
  if (rows.size() > top) out << "  ... " << rows.size() - top << " more\n";
}

void JsonTable(std::ostream& out, const char* title, const std::vector<Group>& rows, std::size_t top,
               const char* countName, const Report* phases) {
  out << ",\n  \"" << title << "\": [";
  for (std::size_t i = 0; i < rows.size() && i < top; ++i) {
    out << (i ? ",\n    " : "\n    ") << "{";
    if (phases)
      out << "\"phase\": \"" << Escaped(phases->phases.Name(rows[i].key), true) << "\", \"phase_id\": " << rows[i].key;
    else
      out << "\"thread\": " << rows[i].key;
    out << ", \"" << countName << "\": " << rows[i].count << ", \"bytes\": " << rows[i].bytes << "}";
  }
  out << (rows.empty() || top == 0 ? "]" : "\n  ]");
}

}  // namespace

void WriteText(const Report& r, std::ostream& out, std::size_t top) {
  out << "memory report for " << r.name << ": " << r.files << " record file" << (r.files == 1 ? "" : "s") << ", "
      << (r.phases.present ? std::to_string(r.phases.paths.size()) + " phases" : "no phase file") << "\n";
  out << "transactions: " << r.transactions << "\n";
  for (std::uint32_t op = 0; op < kOperationCount; ++op) out << "  " << OpName(op) << ": " << r.byOp[op] << "\n";
  out << "bytes allocated: " << r.bytesAllocated << "\n";
  out << "peak live bytes: " << r.peakLive << " at transaction " << r.peakTransaction << "\n";
  out << "live at end: " << r.liveBytes << " bytes in " << r.liveBlocks << " blocks\n";
  out << "releases of unknown pointers: " << r.unknownReleases << "\n";
  out << "releases of null pointers: " << r.nullReleases << "\n";
  out << "allocations at a still-live address: " << r.reusedAddresses << "\n";
  out << "ownership notes (release/acquire, not frees): " << r.byOp[kRelease] + r.byOp[kAcquire] << "\n";
  auto phase = [&](std::uint32_t id) { return r.phases.Name(id); };
  auto thread = [](std::uint32_t id) { return "thread " + std::to_string(id); };
  TextTable(out, "leaks by phase", r.leaksByPhase, top, "blocks", phase);
  TextTable(out, "leaks by thread", r.leaksByThread, top, "blocks", thread);
  TextTable(out, "allocations by phase", r.allocationsByPhase, top, "allocations", phase);
}

void WriteJson(const Report& r, std::ostream& out, std::size_t top) {
  out << "{\n  \"name\": \"" << Escaped(r.name, true) << "\",\n  \"record_files\": " << r.files
      << ",\n  \"phase_file\": " << (r.phases.present ? "true" : "false") << ",\n  \"warnings\": [";
  for (std::size_t i = 0; i < r.warnings.size(); ++i) out << (i ? ", " : "") << "\"" << Escaped(r.warnings[i], true) << "\"";
  out << "],\n  \"transactions\": " << r.transactions << ",\n  \"operations\": {";
  for (std::uint32_t op = 0; op < kOperationCount; ++op) out << (op ? ", " : "") << "\"" << OpName(op) << "\": " << r.byOp[op];
  out << "},\n  \"bytes_allocated\": " << r.bytesAllocated << ",\n  \"peak_live_bytes\": " << r.peakLive
      << ",\n  \"peak_transaction\": " << r.peakTransaction << ",\n  \"live_blocks\": " << r.liveBlocks
      << ",\n  \"live_bytes\": " << r.liveBytes << ",\n  \"unknown_releases\": " << r.unknownReleases
      << ",\n  \"null_releases\": " << r.nullReleases << ",\n  \"reused_addresses\": " << r.reusedAddresses;
  JsonTable(out, "leaks_by_phase", r.leaksByPhase, top, "blocks", &r);
  JsonTable(out, "leaks_by_thread", r.leaksByThread, top, "blocks", nullptr);
  JsonTable(out, "allocations_by_phase", r.allocationsByPhase, top, "allocations", &r);
  out << "\n}\n";
}

namespace {

// Where chart values land in the SVG's plot area.
struct Plot {
  static constexpr double kWidth = 1000, kHeight = 400, kLeft = 90, kTop = 30, kW = 890, kH = 320;
  std::uint64_t first = 0, last = 1;
  std::uint64_t peakBytes = 1;  // kept whole: near 2^64 a double rounds past the integer range
  double peak = 1;
  explicit Plot(const Report& r) {
    if (!r.chart.empty()) {
      first = r.chart.front().firstTransaction;
      last = std::max<std::uint64_t>(r.chart.back().lastTransaction, first + 1);
    }
    peakBytes = std::max<std::uint64_t>(1, r.peakLive);
    for (const ChartPoint& p : r.chart) peakBytes = std::max(peakBytes, p.maxLive);
    peak = static_cast<double>(peakBytes);
  }
  double X(double t) const {
    return kLeft + kW * (t - static_cast<double>(first)) / static_cast<double>(last - first);
  }
  double Y(double bytes) const { return kTop + kH * (1.0 - bytes / peak); }
};

// One colour band per run of chart points in the same phase, and a dashed,
// labelled line where the phase of the allocations changes.
void SvgPhaseBands(const Report& r, const Plot& plot, std::ostream& out) {
  static const char* const kColours[] = {"#e8f0fe", "#fef3e0", "#e6f4ea", "#fce8e6", "#f3e8fd", "#e0f7fa"};
  double labelEnd = 0;
  double lastLine = -1e9;  // phases that change faster than a few pixels keep their bands, not a line each
  for (std::size_t i = 0; i < r.chart.size();) {
    std::size_t j = i;
    while (j + 1 < r.chart.size() && r.chart[j + 1].phase == r.chart[i].phase) ++j;
    double x0 = plot.X(r.chart[i].firstTransaction);
    double x1 = plot.X(j + 1 < r.chart.size() ? r.chart[j + 1].firstTransaction : plot.last);
    std::string name = Escaped(r.phases.Name(r.chart[i].phase), false);
    out << "<rect x=\"" << x0 << "\" y=\"" << Plot::kTop << "\" width=\"" << std::max(0.5, x1 - x0)
        << "\" height=\"" << Plot::kH << "\" fill=\"" << kColours[r.chart[i].phase % 6] << "\"><title>" << name
        << "</title></rect>\n";
    if (i > 0 && x0 - lastLine >= 12) {
      lastLine = x0;
      out << "<line x1=\"" << x0 << "\" y1=\"" << Plot::kTop << "\" x2=\"" << x0 << "\" y2=\""
          << Plot::kTop + Plot::kH << "\" stroke=\"#999\" stroke-dasharray=\"3,3\"/>\n";
    }
    if (x0 >= labelEnd) {  // a label that would overlap the previous one is left to the band's tooltip
      out << "<text x=\"" << x0 + 2 << "\" y=\"" << Plot::kTop - 4 << "\" fill=\"#555\">" << name << "</text>\n";
      labelEnd = x0 + 8 + 6.5 * static_cast<double>(r.phases.Name(r.chart[i].phase).size());
    }
    i = j + 1;
  }
}

void SvgAxes(const Report& r, const Plot& plot, std::ostream& out) {
  const double bottom = Plot::kTop + Plot::kH, right = Plot::kLeft + Plot::kW;
  out << "<line x1=\"" << Plot::kLeft << "\" y1=\"" << bottom << "\" x2=\"" << right << "\" y2=\"" << bottom
      << "\" stroke=\"black\"/>\n<line x1=\"" << Plot::kLeft << "\" y1=\"" << Plot::kTop << "\" x2=\""
      << Plot::kLeft << "\" y2=\"" << bottom << "\" stroke=\"black\"/>\n";
  out << "<text x=\"" << Plot::kLeft - 6 << "\" y=\"" << Plot::kTop + 4 << "\" text-anchor=\"end\">"
      << plot.peakBytes << "</text>\n<text x=\"" << Plot::kLeft - 6 << "\" y=\"" << bottom
      << "\" text-anchor=\"end\">0</text>\n";
  out << "<text x=\"" << Plot::kLeft << "\" y=\"" << bottom + 16 << "\">" << plot.first << "</text>\n<text x=\""
      << right << "\" y=\"" << bottom + 16 << "\" text-anchor=\"end\">" << plot.last << "</text>\n";
  out << "<text x=\"" << Plot::kLeft + Plot::kW / 2 << "\" y=\"" << Plot::kHeight - 12
      << "\" text-anchor=\"middle\">transaction (live bytes; peak " << r.peakLive << " at " << r.peakTransaction
      << ")</text>\n";
}

}  // namespace

// Live bytes as a line over transaction number, each point at the highest
// count of its stretch, over the phase bands.
void WriteSvg(const Report& r, std::ostream& out) {
  Plot plot(r);
  out << "<svg xmlns=\"http://www.w3.org/2000/svg\" width=\"" << Plot::kWidth << "\" height=\"" << Plot::kHeight
      << "\" font-family=\"sans-serif\" font-size=\"11\">\n<title>live bytes of " << Escaped(r.name, false)
      << "</title>\n<rect width=\"100%\" height=\"100%\" fill=\"white\"/>\n";
  SvgPhaseBands(r, plot, out);
  out << "<polyline fill=\"none\" stroke=\"#1a73e8\" stroke-width=\"1.5\" points=\"";
  for (const ChartPoint& p : r.chart) out << plot.X(p.firstTransaction) << "," << plot.Y(static_cast<double>(p.maxLive)) << " ";
  out << "\"/>\n";
  SvgAxes(r, plot, out);
  out << "</svg>\n";
}

}  // namespace memreport
