// Reading and analysing the memory tracker's output: the numbered record files
// (<name>.memT0, .memT1, ...) and the phase file (<name>.phaseStack), streamed
// record by record into a report of totals, peak, leaks and busy phases, and
// the report's text, JSON and SVG forms.
//
//   memreport::Report report = memreport::AnalyzeRun("job");  // throws InputError
//   memreport::WriteText(report, std::cout, 10);
#ifndef ZMXUTI_TOOLS_MEMREPORT_MEMREPORT_H
#define ZMXUTI_TOOLS_MEMREPORT_MEMREPORT_H

#include <cstddef>
#include <cstdint>
#include <iosfwd>
#include <map>
#include <stdexcept>
#include <string>
#include <unordered_map>
#include <vector>

namespace memreport {

constexpr std::size_t kRecordBytes = 40;
constexpr std::size_t kPhasePathBytes = 131072;
constexpr std::size_t kPhaseEntryBytes = 4 + kPhasePathBytes;
constexpr std::uint32_t kOperationCount = 9;
constexpr std::uint64_t kReleaseSize = ~std::uint64_t{0};

// Operation codes of a transaction record.
enum Op : std::uint32_t {
  kMalloc = 0, kFree = 1, kNew = 2, kDelete = 3, kRealloc = 4,
  kCalloc = 5, kValloc = 6, kRelease = 7, kAcquire = 8
};

// The word naming operation `op` (< kOperationCount) in reports.
const char* OpName(std::uint32_t op);

// One 40-byte transaction record, decoded from little-endian bytes.
struct Record {
  std::uint64_t address = 0;
  std::uint64_t previous = 0;  // realloc's old pointer, else 0
  std::uint32_t op = 0;
  std::uint32_t transaction = 0;
  std::uint64_t size = 0;      // kReleaseSize for releasing operations
  std::uint32_t thread = 0;
  std::uint32_t phase = 0;     // stale in free records: never used for them
};
Record DecodeRecord(const unsigned char* bytes);
void EncodeRecord(const Record& record, unsigned char* bytes);

// Malformed or missing input; what() is the whole message for the user.
class InputError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

// Phase identifiers and their paths. Without a phase file (`present` false)
// every identifier is shown as "phase#<id>".
struct PhaseTable {
  bool present = false;
  std::map<std::uint32_t, std::string> paths;
  bool Knows(std::uint32_t id) const { return !present || paths.count(id) != 0; }
  std::string Name(std::uint32_t id) const;
};

// Reads a phase file of `size` bytes from `in`; `fileName` only names it in
// errors. Holds one entry's bytes at a time.
PhaseTable ReadPhaseFile(std::istream& in, std::uint64_t size, const std::string& fileName);

// A stretch of transactions in the live-bytes chart: the highest live byte
// count reached in it, the count at its end and the phase of its last
// allocation (or of the stretch before, when it has none).
struct ChartPoint {
  std::uint32_t firstTransaction = 0;
  std::uint32_t lastTransaction = 0;
  std::uint64_t maxLive = 0;
  std::uint64_t endLive = 0;
  std::uint32_t phase = 0;
};

struct Group {        // blocks or allocations gathered under one key
  std::uint32_t key;  // phase identifier or thread index
  std::uint64_t count;
  std::uint64_t bytes;
};

struct Report {
  std::string name;
  unsigned files = 0;
  PhaseTable phases;
  std::vector<std::string> warnings;
  std::uint64_t transactions = 0;
  std::uint64_t byOp[kOperationCount] = {};
  std::uint64_t bytesAllocated = 0;    // sizes of acquiring records and realloc results
  std::uint64_t peakLive = 0;
  std::uint32_t peakTransaction = 0;   // where the peak was first reached
  std::uint64_t liveBlocks = 0, liveBytes = 0;
  std::uint64_t unknownReleases = 0;   // free/delete/realloc of a pointer not live
  std::uint64_t nullReleases = 0;      // free/delete of a null pointer
  std::uint64_t reusedAddresses = 0;   // allocation returned a pointer still live
  std::vector<Group> leaksByPhase;     // largest bytes first
  std::vector<Group> leaksByThread;
  std::vector<Group> allocationsByPhase;
  std::vector<ChartPoint> chart;       // at most kChartPoints, in transaction order
};

constexpr std::size_t kChartPoints = 1024;

// Streams records into the live set; memory stays bounded by the live blocks,
// the phases and the chart's fixed number of points.
class Analyzer {
 public:
  explicit Analyzer(const PhaseTable& phases) : m_phases(phases) {}
  // Takes the next record. Throws InputError for an unknown operation code and
  // for an allocation in a phase the phase file does not know.
  void Add(const Record& record);
  // Sorts the groups and fills `report`'s counters, leaks and chart.
  void Finish(Report& report);

 private:
  struct Block { std::uint64_t size; std::uint32_t phase, thread; };
  void Acquire(const Record& record);
  bool Drop(std::uint64_t address);
  void Sample(const Record& record);
  void HalveChart();

  const PhaseTable& m_phases;
  std::unordered_map<std::uint64_t, Block> m_live;
  std::unordered_map<std::uint32_t, Group> m_allocations;
  Report m_counts;
  std::uint64_t m_live_bytes = 0;
  std::uint32_t m_last_phase = 0;
  std::uint32_t m_span = 1;  // transactions per chart point
  std::vector<ChartPoint> m_chart;
};

// Feeds a record file of `size` bytes to `analyzer`, a batch at a time.
void ReadRecordFile(std::istream& in, std::uint64_t size, const std::string& fileName,
                    Analyzer& analyzer);

// Reads <name>.phaseStack and <name>.memT0, .memT1, ... up to the first
// missing. No record file is an error; no phase file is a warning, and the
// phases are then shown by number.
Report AnalyzeRun(const std::string& name);

// The report's forms; `top` caps the rows of each table.
void WriteText(const Report& report, std::ostream& out, std::size_t top);
void WriteJson(const Report& report, std::ostream& out, std::size_t top);
void WriteSvg(const Report& report, std::ostream& out);

}  // namespace memreport

#endif  // ZMXUTI_TOOLS_MEMREPORT_MEMREPORT_H
