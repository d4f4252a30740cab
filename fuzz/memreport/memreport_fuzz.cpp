// libFuzzer target for the memory report's reader: the input supplies a phase
// file and a record file. Malformed files must end in InputError; accepted
// ones are analysed and written in every form, and the report must stay
// consistent with the records read.
//
// Input: byte 0 holds flags (bit 0: phase file given raw, else built from
// short entries; bit 1: no phase file; bit 2: record count set to fit the
// bytes), bytes 1-2 the phase part's length, then the phase part, then the
// record file.
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <sstream>
#include <string>

#include "memreport.h"

namespace {

[[noreturn]] void Broken(const char* what) {
  std::fprintf(stderr, "memreport fuzz: %s\n", what);
  std::abort();
}

// A well-formed phase file from entries of (id byte, length byte, text); the
// real entries are 128 KiB each, too large for the fuzzer to write itself.
std::string BuiltPhaseFile(const std::string& part) {
  std::string entries;
  std::uint32_t count = 0;
  for (std::size_t i = 0; i + 2 <= part.size() && count < 8; ++count) {
    std::uint32_t id = static_cast<unsigned char>(part[i]);
    std::size_t length = std::min<std::size_t>(static_cast<unsigned char>(part[i + 1]), part.size() - i - 2);
    std::string text = part.substr(i + 2, length);
    i += 2 + length;
    entries.append(reinterpret_cast<const char*>(&id), 4);
    entries += text + std::string(memreport::kPhasePathBytes - text.size(), '\0');
  }
  return std::string(reinterpret_cast<const char*>(&count), 4) + entries;
}

void Check(const memreport::Report& report, std::uint64_t records) {
  if (report.transactions != records) Broken("transactions differ from the records read");
  if (report.liveBlocks > records) Broken("more live blocks than records");
  if (report.chart.size() > memreport::kChartPoints) Broken("chart over its budget");
  if (records > 0 && (report.chart.empty() || report.chart.back().endLive != report.liveBytes))
    Broken("chart does not end at the live bytes");
  std::uint64_t sum = 0;
  for (std::uint64_t n : report.byOp) sum += n;
  if (sum != records) Broken("operation counts differ from the records read");
  std::ostringstream sink;
  memreport::WriteText(report, sink, 5);
  memreport::WriteJson(report, sink, 5);
  memreport::WriteSvg(report, sink);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  if (size < 3) return 0;
  std::string input(reinterpret_cast<const char*>(data), size);
  unsigned flags = data[0];
  std::size_t phaseLength = std::min<std::size_t>(data[1] | (data[2] << 8), size - 3);
  std::string phasePart = input.substr(3, phaseLength);
  std::string records = input.substr(3 + phaseLength);
  if ((flags & 4) && records.size() >= 4) {
    auto count = static_cast<std::uint32_t>((records.size() - 4) / memreport::kRecordBytes);
    records.replace(0, 4, reinterpret_cast<const char*>(&count), 4);
    records.resize(4 + count * memreport::kRecordBytes);
  }
  memreport::Report report;
  try {
    if (!(flags & 2)) {
      std::string phaseFile = (flags & 1) ? phasePart : BuiltPhaseFile(phasePart);
      std::istringstream in(phaseFile);
      report.phases = memreport::ReadPhaseFile(in, phaseFile.size(), "fuzz.phaseStack");
    }
    memreport::Analyzer analyzer(report.phases);
    std::istringstream in(records);
    memreport::ReadRecordFile(in, records.size(), "fuzz.memT0", analyzer);
    analyzer.Finish(report);
  } catch (const memreport::InputError&) {
    return 0;
  }
  Check(report, (records.size() - 4) / memreport::kRecordBytes);
  return 0;
}
