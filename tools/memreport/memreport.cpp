// The memory report's reader and analysis: decoding the tracker's record and
// phase files, replaying the transactions on a live set, and the report's
// grouping; its output forms are in memreport_output.cpp.
#include "memreport.h"

#include <algorithm>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <istream>

namespace memreport {

namespace {

std::uint64_t Load(const unsigned char* p, int bytes) {
  std::uint64_t value = 0;
  for (int i = bytes - 1; i >= 0; --i) value = (value << 8) | p[i];
  return value;
}

void Store(std::uint64_t value, unsigned char* p, int bytes) {
  for (int i = 0; i < bytes; ++i, value >>= 8) p[i] = static_cast<unsigned char>(value & 0xFF);
}

bool IsAcquiring(std::uint32_t op) { return op == kMalloc || op == kNew || op == kCalloc || op == kValloc; }

void ReadExactly(std::istream& in, unsigned char* into, std::size_t bytes, const std::string& fileName) {
  in.read(reinterpret_cast<char*>(into), static_cast<std::streamsize>(bytes));
  if (static_cast<std::size_t>(in.gcount()) != bytes)
    throw InputError(fileName + ": read failed before the end of the file");
}

// Checks that a file of `size` bytes holds a 4-byte count and exactly that
// many entries of `entryBytes`; returns the count.
std::uint64_t CheckedCount(std::istream& in, std::uint64_t size, std::size_t entryBytes,
                           const std::string& fileName, const char* what) {
  if (size < 4) throw InputError(fileName + ": truncated: " + std::to_string(size) + " bytes, no count");
  unsigned char head[4];
  ReadExactly(in, head, 4, fileName);
  std::uint64_t count = Load(head, 4);
  std::uint64_t body = size - 4;
  if (body % entryBytes != 0 || body / entryBytes != count)
    throw InputError(fileName + ": count says " + std::to_string(count) + " " + what + " but the file holds " +
                     std::to_string(body) + " bytes after it (" + std::to_string(entryBytes) + " per entry)");
  return count;
}

// Opens `path` for reading; returns false when it does not exist. A file that
// exists but cannot be read is an error, not the end of the numbered files.
bool Open(std::ifstream& in, const std::string& path, std::uint64_t& size) {
  std::error_code error;
  auto status = std::filesystem::status(path, error);
  if (status.type() == std::filesystem::file_type::not_found) return false;
  if (status.type() != std::filesystem::file_type::regular) throw InputError(path + ": not a regular file");
  in.open(path, std::ios::binary);
  if (!in) throw InputError(path + ": cannot be opened for reading");
  in.seekg(0, std::ios::end);
  std::streamoff end = in.tellg();
  in.seekg(0, std::ios::beg);
  if (end < 0) throw InputError(path + ": cannot find the file's size");
  size = static_cast<std::uint64_t>(end);
  return true;
}

bool LargerFirst(const Group& a, const Group& b) {
  if (a.bytes != b.bytes) return a.bytes > b.bytes;
  if (a.count != b.count) return a.count > b.count;
  return a.key < b.key;
}

std::vector<Group> Sorted(const std::unordered_map<std::uint32_t, Group>& groups) {
  std::vector<Group> out;
  out.reserve(groups.size());
  for (const auto& entry : groups) out.push_back(entry.second);
  std::sort(out.begin(), out.end(), LargerFirst);
  return out;
}

void AddTo(std::unordered_map<std::uint32_t, Group>& groups, std::uint32_t key, std::uint64_t bytes) {
  Group& g = groups.emplace(key, Group{key, 0, 0}).first->second;
  g.count += 1;
  g.bytes += bytes;
}

}  // namespace

const char* OpName(std::uint32_t op) {
  static const char* const kNames[kOperationCount] = {"malloc", "free",   "new",     "delete", "realloc",
                                                      "calloc", "valloc", "release", "acquire"};
  return op < kOperationCount ? kNames[op] : "unknown";
}

Record DecodeRecord(const unsigned char* p) {
  Record r;
  r.address = Load(p, 8);
  r.previous = Load(p + 8, 8);
  r.op = static_cast<std::uint32_t>(Load(p + 16, 4));
  r.transaction = static_cast<std::uint32_t>(Load(p + 20, 4));
  r.size = Load(p + 24, 8);
  r.thread = static_cast<std::uint32_t>(Load(p + 32, 4));
  r.phase = static_cast<std::uint32_t>(Load(p + 36, 4));
  return r;
}

void EncodeRecord(const Record& r, unsigned char* p) {
  Store(r.address, p, 8);
  Store(r.previous, p + 8, 8);
  Store(r.op, p + 16, 4);
  Store(r.transaction, p + 20, 4);
  Store(r.size, p + 24, 8);
  Store(r.thread, p + 32, 4);
  Store(r.phase, p + 36, 4);
}

std::string PhaseTable::Name(std::uint32_t id) const {
  auto it = paths.find(id);
  return it != paths.end() ? it->second : "phase#" + std::to_string(id);
}

PhaseTable ReadPhaseFile(std::istream& in, std::uint64_t size, const std::string& fileName) {
  PhaseTable table;
  table.present = true;
  std::uint64_t count = CheckedCount(in, size, kPhaseEntryBytes, fileName, "phases");
  std::vector<unsigned char> entry(kPhaseEntryBytes);
  for (std::uint64_t i = 0; i < count; ++i) {
    ReadExactly(in, entry.data(), entry.size(), fileName);
    auto id = static_cast<std::uint32_t>(Load(entry.data(), 4));
    const char* path = reinterpret_cast<const char*>(entry.data() + 4);
    const void* end = std::memchr(path, '\0', kPhasePathBytes);
    if (end == nullptr)
      throw InputError(fileName + ": phase entry " + std::to_string(i) + " has no terminating NUL");
    if (!table.paths.emplace(id, std::string(path, static_cast<const char*>(end))).second)
      throw InputError(fileName + ": phase id " + std::to_string(id) + " appears twice");
  }
  return table;
}

void Analyzer::Add(const Record& r) {
  if (r.op >= kOperationCount) throw InputError("unknown operation code " + std::to_string(r.op));
  // Only acquiring and realloc records have their phase used; a free record's
  // phase field is whatever the tracker's buffer slot held before.
  if ((IsAcquiring(r.op) || r.op == kRealloc) && !m_phases.Knows(r.phase))
    throw InputError("phase id " + std::to_string(r.phase) + " of " + OpName(r.op) +
                     " is not in the phase file");
  m_counts.transactions += 1;
  m_counts.byOp[r.op] += 1;
  if (IsAcquiring(r.op)) {
    Acquire(r);
  } else if (r.op == kFree || r.op == kDelete) {
    if (r.address == 0)
      m_counts.nullReleases += 1;
    else if (!Drop(r.address))
      m_counts.unknownReleases += 1;
  } else if (r.op == kRealloc) {
    // A null result with size 0 freed the old block; a null result otherwise
    // is a failed realloc that left it in place.
    bool moves = r.address != 0 || r.size == 0;
    if (r.previous != 0 && moves && !Drop(r.previous)) m_counts.unknownReleases += 1;
    if (r.address != 0) Acquire(r);
  }
  // release/acquire pass a block's ownership; its memory stays where it is.
  Sample(r);
}

void Analyzer::Acquire(const Record& r) {
  auto inserted = m_live.emplace(r.address, Block{r.size, r.phase, r.thread});
  if (!inserted.second) {  // the release of the earlier block went unrecorded
    m_counts.reusedAddresses += 1;
    m_live_bytes -= inserted.first->second.size;
    inserted.first->second = Block{r.size, r.phase, r.thread};
  }
  m_live_bytes += r.size;
  m_counts.bytesAllocated += r.size;
  AddTo(m_allocations, r.phase, r.size);
  m_last_phase = r.phase;
  if (m_live_bytes > m_counts.peakLive) {
    m_counts.peakLive = m_live_bytes;
    m_counts.peakTransaction = r.transaction;
  }
}

bool Analyzer::Drop(std::uint64_t address) {
  auto it = m_live.find(address);
  if (it == m_live.end()) return false;
  m_live_bytes -= it->second.size;
  m_live.erase(it);
  return true;
}

// Each chart point covers m_span transactions counted from the first record;
// when the points run out, neighbours merge and the span doubles, so the chart
// keeps a fixed size however long the run.
void Analyzer::Sample(const Record& r) {
  if (m_chart.empty()) m_chart.push_back(ChartPoint{r.transaction, r.transaction, 0, 0, m_last_phase});
  std::uint32_t first = m_chart.front().firstTransaction;
  std::uint64_t slot = r.transaction >= first ? (r.transaction - first) / m_span : 0;
  std::uint64_t lastSlot = (m_chart.back().firstTransaction - first) / m_span;
  if (slot > lastSlot) {
    m_chart.push_back(ChartPoint{r.transaction, r.transaction, 0, 0, m_last_phase});
    if (m_chart.size() > kChartPoints) HalveChart();
  }
  ChartPoint& point = m_chart.back();  // records out of order join the latest point
  point.lastTransaction = std::max(point.lastTransaction, r.transaction);
  point.maxLive = std::max(point.maxLive, m_live_bytes);
  point.endLive = m_live_bytes;
  point.phase = m_last_phase;
}

void Analyzer::HalveChart() {
  m_span *= 2;
  std::uint32_t first = m_chart.front().firstTransaction;
  std::vector<ChartPoint> merged;
  for (const ChartPoint& p : m_chart) {
    if (!merged.empty() && (merged.back().firstTransaction - first) / m_span == (p.firstTransaction - first) / m_span) {
      ChartPoint& m = merged.back();
      m.lastTransaction = std::max(m.lastTransaction, p.lastTransaction);
      m.maxLive = std::max(m.maxLive, p.maxLive);
      m.endLive = p.endLive;
      m.phase = p.phase;
    } else {
      merged.push_back(p);
    }
  }
  m_chart.swap(merged);
}

void Analyzer::Finish(Report& report) {
  std::unordered_map<std::uint32_t, Group> byPhase, byThread;
  for (const auto& entry : m_live) {
    AddTo(byPhase, entry.second.phase, entry.second.size);
    AddTo(byThread, entry.second.thread, entry.second.size);
  }
  report.transactions = m_counts.transactions;
  std::copy(std::begin(m_counts.byOp), std::end(m_counts.byOp), std::begin(report.byOp));
  report.bytesAllocated = m_counts.bytesAllocated;
  report.peakLive = m_counts.peakLive;
  report.peakTransaction = m_counts.peakTransaction;
  report.liveBlocks = m_live.size();
  report.liveBytes = m_live_bytes;
  report.unknownReleases = m_counts.unknownReleases;
  report.nullReleases = m_counts.nullReleases;
  report.reusedAddresses = m_counts.reusedAddresses;
  report.leaksByPhase = Sorted(byPhase);
  report.leaksByThread = Sorted(byThread);
  report.allocationsByPhase = Sorted(m_allocations);
  report.chart = m_chart;
}

void ReadRecordFile(std::istream& in, std::uint64_t size, const std::string& fileName, Analyzer& analyzer) {
  std::uint64_t count = CheckedCount(in, size, kRecordBytes, fileName, "records");
  constexpr std::size_t kBatch = 4096;
  std::vector<unsigned char> batch(kBatch * kRecordBytes);
  for (std::uint64_t done = 0; done < count;) {
    std::size_t n = static_cast<std::size_t>(std::min<std::uint64_t>(kBatch, count - done));
    ReadExactly(in, batch.data(), n * kRecordBytes, fileName);
    for (std::size_t i = 0; i < n; ++i, ++done) {
      try {
        analyzer.Add(DecodeRecord(batch.data() + i * kRecordBytes));
      } catch (const InputError& e) {
        throw InputError(fileName + ": record " + std::to_string(done) + ": " + e.what());
      }
    }
  }
}

Report AnalyzeRun(const std::string& name) {
  Report report;
  report.name = name;
  std::string phaseName = name + ".phaseStack";
  std::ifstream phaseFile;
  std::uint64_t size = 0;
  if (Open(phaseFile, phaseName, size))
    report.phases = ReadPhaseFile(phaseFile, size, phaseName);
  else
    report.warnings.push_back("no phase file " + phaseName + ": phases are shown by number");
  Analyzer analyzer(report.phases);
  for (unsigned i = 0;; ++i) {
    std::string fileName = name + ".memT" + std::to_string(i);
    std::ifstream records;
    if (!Open(records, fileName, size)) break;
    ReadRecordFile(records, size, fileName, analyzer);
    report.files = i + 1;
  }
  if (report.files == 0) throw InputError("no record files: " + name + ".memT0 does not exist");
  analyzer.Finish(report);
  return report;
}

}  // namespace memreport
