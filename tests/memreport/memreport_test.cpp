// The memory report tool on small tracker runs written here record by record:
// totals, peak, realloc accounting, leaks by phase and thread, several record
// files, the JSON and SVG forms, and the refusal of malformed input.
#include <gtest/gtest.h>

#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <map>
#include <random>
#include <string>
#include <tuple>
#include <vector>

#include <unistd.h>

#include "memreport.h"
#include "support/child_process.h"

namespace {

namespace fs = std::filesystem;
using memreport::Record;

constexpr std::uint32_t kStale = 0xFFFFFFFF;  // phase field of a free record in the first batch

class MemReport : public ::testing::Test {
 public:
  void SetUp() override {
    m_dir = fs::path(::testing::TempDir()) / ("memreport_" + std::to_string(::getpid()) + "_" +
                                              ::testing::UnitTest::GetInstance()->current_test_info()->name());
    fs::create_directories(m_dir);
    m_name = (m_dir / "job").string();
  }
  void TearDown() override { fs::remove_all(m_dir); }

  // Writes the output name + suffix (".memT0", ".phaseStack").
  void Write(const std::string& suffix, const std::string& bytes) { std::ofstream(m_name + suffix) << bytes; }
  static std::string U32(std::uint32_t v) { return std::string(reinterpret_cast<const char*>(&v), 4); }
  static std::string Records(const std::vector<Record>& records) {
    std::string bytes = U32(static_cast<std::uint32_t>(records.size()));
    for (const Record& r : records) {
      unsigned char raw[memreport::kRecordBytes];
      memreport::EncodeRecord(r, raw);
      bytes.append(reinterpret_cast<const char*>(raw), sizeof raw);
    }
    return bytes;
  }
  static std::string Phases(const std::map<std::uint32_t, std::string>& phases, bool terminate = true) {
    std::string bytes = U32(static_cast<std::uint32_t>(phases.size()));
    for (const auto& p : phases)
      bytes += U32(p.first) + p.second +
               std::string(memreport::kPhasePathBytes - p.second.size(), terminate ? '\0' : 'x');
    return bytes;
  }
  // The next record, numbered in transaction order.
  Record Op(std::uint32_t op, std::uint64_t address, std::uint64_t size, std::uint32_t thread, std::uint32_t phase,
            std::uint64_t previous = 0) {
    return Record{address, previous, op, m_next++, size, thread, phase};
  }
  Record Release(std::uint32_t op, std::uint64_t address, std::uint32_t phase = kStale) {
    return Op(op, address, memreport::kReleaseSize, 0, phase);
  }
  zmx_test::ChildResult Tool(std::vector<std::string> args) {
    args.push_back(m_name);
    return zmx_test::RunProgram(ZMX_MEMREPORT_TOOL, args);
  }
  void WriteKnownRun();

  fs::path m_dir;
  std::string m_name;
  std::uint32_t m_next = 0;
};

// Phases 0 ROOT, 1 ROOT->solve, 2 ROOT->solve->assemble; two record files and
// a third after a gap that must not be read.
void MemReport::WriteKnownRun() {
  using namespace memreport;
  Write(".phaseStack", Phases({{0, "ROOT"}, {1, "ROOT->solve"}, {2, "ROOT->solve->assemble"}}));
  Write(".memT0", Records({Op(kMalloc, 0x1000, 100, 0, 1), Op(kNew, 0x2000, 50, 1, 2), Op(kCalloc, 0x3000, 30, 0, 2)}));
  Write(".memT1", Records({
      Release(kFree, 0x1000),                    // 80 live
      Op(kRealloc, 0x4000, 200, 1, 1, 0x2000),   // moves 50 -> 200: 230 live
      Release(kDelete, 0x9999, 1),               // never allocated
      Release(kFree, 0),
      Release(kRelease, 0x3000, 2),              // ownership notes leave the block live
      Release(kAcquire, 0x3000, 2),
      Op(kValloc, 0x5000, 10, 2, 0),             // 240: the peak, at transaction 9
      Op(kRealloc, 0, 0, 2, 0, 0x5000),          // realloc to size 0 frees
      Op(kRealloc, 0, 99, 0, 2, 0x3000),         // a failed realloc keeps the block
      Op(kMalloc, 0x6000, 5, 0, 2),
      Release(kFree, 0x6000, 0x7777)}));         // a stale phase no one knows
  Write(".memT3", "garbage");
}

TEST_F(MemReport, AKnownRunAsTextAsJsonWithTopAndAsSvg) {
  WriteKnownRun();
  zmx_test::ChildResult result = Tool({});
  ASSERT_TRUE(zmx_test::ExitedCleanly(result));
  EXPECT_EQ(result.err, "");
  EXPECT_EQ(result.out,
            "memory report for " + m_name + ": 2 record files, 3 phases\n"
            "transactions: 14\n  malloc: 2\n  free: 3\n  new: 1\n  delete: 1\n  realloc: 3\n  calloc: 1\n"
            "  valloc: 1\n  release: 1\n  acquire: 1\n"
            "bytes allocated: 395\npeak live bytes: 240 at transaction 9\nlive at end: 230 bytes in 2 blocks\n"
            "releases of unknown pointers: 1\nreleases of null pointers: 1\n"
            "allocations at a still-live address: 0\nownership notes (release/acquire, not frees): 2\n"
            "leaks by phase:\n  200 bytes in 1 blocks  ROOT->solve\n  30 bytes in 1 blocks  ROOT->solve->assemble\n"
            "leaks by thread:\n  200 bytes in 1 blocks  thread 1\n  30 bytes in 1 blocks  thread 0\n"
            "allocations by phase:\n  300 bytes in 2 allocations  ROOT->solve\n"
            "  85 bytes in 3 allocations  ROOT->solve->assemble\n  10 bytes in 1 allocations  ROOT\n");
  const std::string svgPath = (m_dir / "chart.svg").string();
  result = Tool({"--json", "--top", "1", "--svg", svgPath});
  ASSERT_TRUE(zmx_test::ExitedCleanly(result));
  for (const char* field :
       {"\"record_files\": 2", "\"transactions\": 14", "\"realloc\": 3", "\"bytes_allocated\": 395",
        "\"peak_live_bytes\": 240", "\"peak_transaction\": 9", "\"live_bytes\": 230", "\"unknown_releases\": 1",
        "\"leaks_by_phase\": [\n    {\"phase\": \"ROOT->solve\", \"phase_id\": 1, \"blocks\": 1, \"bytes\": 200}\n  ]",
        "\"leaks_by_thread\": [\n    {\"thread\": 1, \"blocks\": 1, \"bytes\": 200}\n  ]"})
    EXPECT_NE(result.out.find(field), std::string::npos) << field << "\n" << result.out;
  EXPECT_EQ(result.out.find("assemble"), std::string::npos) << "--top 1 keeps one row per table";
  std::ifstream in(svgPath);
  const std::string svg((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
  EXPECT_EQ(svg.rfind("<svg ", 0), 0u);
  for (const char* part : {">ROOT-&gt;solve-&gt;assemble</text>", "peak 240 at 9"})  // phase change, peak marked
    EXPECT_NE(svg.find(part), std::string::npos) << part;
}

TEST_F(MemReport, MissingPhaseFileWarnsAndNumbersThePhases) {
  Write(".memT0", Records({Op(memreport::kMalloc, 0x10, 8, 3, 7)}));
  zmx_test::ChildResult result = Tool({});
  ASSERT_TRUE(zmx_test::ExitedCleanly(result));
  EXPECT_EQ(result.err, "zmx_memreport: warning: no phase file " + m_name + ".phaseStack: phases are shown by number\n");
  for (const char* row : {"8 bytes in 1 blocks  phase#7\n", "8 bytes in 1 blocks  thread 3\n"})
    EXPECT_NE(result.out.find(row), std::string::npos) << result.out;
}

TEST_F(MemReport, MalformedInputIsRefusedWithStatus2) {
  const std::string one = Records({Op(memreport::kMalloc, 0x10, 8, 0, 0)}), root = Phases({{0, "ROOT"}});
  struct Case {
    std::map<std::string, std::string> files;  // suffix -> bytes
    std::vector<std::string> args;
    std::string err;  // expected within stderr; "@" stands for the output name
  };
  const Case cases[] = {
      {{}, {}, "error: no record files: @.memT0 does not exist\n"},
      {{{".memT0", "ab"}}, {}, "error: @.memT0: truncated: 2 bytes, no count\n"},
      {{{".memT0", U32(2) + one.substr(4)}}, {},
       "error: @.memT0: count says 2 records but the file holds 40 bytes after it (40 per entry)\n"},
      {{{".memT0", U32(1) + std::string(39, '\0')}}, {}, "count says 1 records but the file holds 39 bytes"},
      {{{".phaseStack", root}, {".memT0", Records({Op(9, 0x10, 8, 0, 0)})}}, {},
       "error: @.memT0: record 0: unknown operation code 9\n"},
      {{{".phaseStack", root}, {".memT0", Records({Release(memreport::kFree, 0x10), Op(2, 0x10, 8, 0, 4)})}}, {},
       "error: @.memT0: record 1: phase id 4 of new is not in the phase file\n"},
      {{{".memT0", one}, {".phaseStack", U32(1)}}, {},
       "error: @.phaseStack: count says 1 phases but the file holds 0 bytes"},
      {{{".memT0", one}, {".phaseStack", Phases({{0, "ROOT"}}, false)}}, {},
       "error: @.phaseStack: phase entry 0 has no terminating NUL\n"},
      {{{".memT0", one}}, {"--top", "x"}, "--top needs a number"},
      {{{".memT0", one}}, {"--csv"}, "unknown option --csv"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.err);
    fs::remove_all(m_dir);
    fs::create_directories(m_dir);
    for (const auto& file : c.files) Write(file.first, file.second);
    zmx_test::ChildResult result = Tool(c.args);
    std::string err = c.err;
    for (std::size_t at = err.find('@'); at != std::string::npos; at = err.find('@')) err.replace(at, 1, m_name);
    EXPECT_TRUE(result.exited && result.exitCode == 2) << zmx_test::Describe(result);
    EXPECT_NE(result.err.find(err), std::string::npos) << result.err;
    EXPECT_EQ(result.out, "");
  }
}

// Random runs against a map of live blocks: live bytes, peak, leaks by thread, and
// a chart within its point budget that reaches the peak and ends at the live bytes.
TEST(MemReportAnalyzer, MatchesALiveSetModel) {
  std::mt19937 rng(7);
  memreport::PhaseTable phases;  // absent: every phase id is accepted
  for (int run = 0; run < 4; ++run) {
    memreport::Analyzer analyzer(phases);
    std::map<std::uint64_t, std::pair<std::uint64_t, std::uint32_t>> live;  // size, thread
    std::uint64_t bytes = 0, peak = 0;
    std::uint32_t peakAt = 0;
    const std::uint32_t n = 3000 + 3000u * static_cast<std::uint32_t>(run);
    for (std::uint32_t t = 0; t < n; ++t) {
      std::uint64_t address = 16 * (1 + rng() % 300);
      Record r{address, 0, memreport::kFree, t, memreport::kReleaseSize, static_cast<std::uint32_t>(rng() % 4), kStale};
      auto it = live.find(address);
      if (it == live.end()) {
        r.op = memreport::kMalloc;
        r.size = rng() % 1000;
        live[address] = {r.size, r.thread};
        bytes += r.size;
        if (bytes > peak) peak = bytes, peakAt = t;
      } else {
        bytes -= it->second.first;
        live.erase(it);
      }
      analyzer.Add(r);
    }
    memreport::Report report;
    analyzer.Finish(report);
    EXPECT_EQ(std::make_tuple(report.liveBytes, report.liveBlocks, report.peakLive, report.peakTransaction),
              std::make_tuple(bytes, live.size(), peak, peakAt));  // live bytes, blocks, peak and where
    std::map<std::uint32_t, std::uint64_t> byThread;
    for (const auto& block : live) byThread[block.second.second] += block.second.first;
    for (const memreport::Group& g : report.leaksByThread) EXPECT_EQ(g.bytes, byThread[g.key]);
    EXPECT_EQ(report.leaksByThread.size(), byThread.size());
    ASSERT_LE(report.chart.size(), memreport::kChartPoints);
    EXPECT_EQ(std::make_pair(report.chart.back().endLive, report.chart.back().lastTransaction),
              std::make_pair(bytes, n - 1));
    std::uint64_t chartPeak = 0;
    for (const auto& p : report.chart) chartPeak = std::max(chartPeak, p.maxLive);
    EXPECT_EQ(chartPeak, peak);
  }
}

}  // namespace
