// The memory tracker, run in fresh processes: the record files field by field,
// batches, the phase file, announced transactions, stop/start filtering,
// naming, the limits the library adds and the phase-table overflow.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <map>
#include <set>
#include <sstream>
#include <string>
#include <tuple>
#include <vector>

#include "support/child_process.h"

namespace {

namespace fs = std::filesystem;
using zmx_test::ChildResult;
using zmx_test::EnvVars;
using zmx_test::ExitedCleanly;

constexpr std::uint32_t kStale = 0xFFFFFFFF;  // a free record's phase in the first batch
constexpr std::uint64_t kReleased = ~std::uint64_t{0};

struct Record {
  std::uint64_t address, previous;
  std::uint32_t code, number;
  std::uint64_t size;
  std::uint32_t thread, phase;
};
static_assert(sizeof(Record) == 40, "file layout");

std::string ReadFile(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}
std::uint32_t U32(const std::string& bytes, std::size_t at) {
  std::uint32_t v = 0;
  std::memcpy(&v, bytes.data() + at, sizeof v);
  return v;
}

// A fresh output directory, removed afterwards.
struct OutputDir {
  OutputDir() {
    char pattern[] = "/tmp/zmx_tracker_XXXXXX";
    path = mkdtemp(pattern);
  }
  ~OutputDir() { fs::remove_all(path); }
  std::set<std::string> Files() const {
    std::set<std::string> names;
    for (const auto& e : fs::directory_iterator(path)) names.insert(e.path().filename().string());
    return names;
  }
  std::vector<Record> Records(const std::string& name = "unknownMemTrack.memT0") const {
    const std::string bytes = ReadFile(path + "/" + name);
    if (bytes.size() < 4) return {};
    std::vector<Record> records(U32(bytes, 0));
    EXPECT_EQ(bytes.size(), 4 + 40 * records.size()) << name;
    if (bytes.size() == 4 + 40 * records.size()) std::memcpy(records.data(), bytes.data() + 4, bytes.size() - 4);
    return records;
  }
  std::string path;
};

// "name=value ..." from a probe's output (addresses printed as %p).
std::map<std::string, std::uint64_t> Values(const std::string& out) {
  std::map<std::string, std::uint64_t> values;
  std::istringstream in(out);
  std::string word;
  while (in >> word) {
    const std::size_t eq = word.find('=');
    if (eq != std::string::npos) values[word.substr(0, eq)] = std::stoull(word.substr(eq + 1), nullptr, 0);
  }
  return values;
}

ChildResult Probe(const std::string& scenario, const EnvVars& env, const std::vector<std::string>& args = {}) {
  return zmx_test::RunProbe("tracker_probe", scenario, env, args);
}
EnvVars Tracking(const OutputDir& dir) { return {{"ZEM_MEM_TRACK", "1"}, {"ZEM_MEM_OUTPUTDIR", dir.path}}; }

// The records' fields row by row (previous is 0 where not given), numbered from `first` unless negative.
struct Want {
  std::uint32_t code;
  std::uint64_t address, size;
  std::uint32_t thread, phase;
  std::uint64_t previous = 0;
};
void ExpectRecords(const std::vector<Record>& r, std::int64_t first, const std::vector<Want>& want) {
  ASSERT_EQ(r.size(), want.size());
  for (std::size_t i = 0; i < r.size(); ++i) {
    const Want& w = want[i];
    EXPECT_TRUE(first < 0 || r[i].number == first + std::int64_t(i)) << "record " << i << ": " << r[i].number;
    EXPECT_EQ(std::make_tuple(r[i].code, r[i].address, r[i].previous, r[i].size, r[i].thread, r[i].phase),
              std::make_tuple(w.code, w.address, w.previous, w.size, w.thread, w.phase)) << "record " << i;
  }
}

TEST(TrackerRecords, EveryFieldOfEveryOperationOnTwoThreadsInPhases) {
  OutputDir dir;
  const ChildResult run = Probe("records", Tracking(dir));
  ASSERT_TRUE(ExitedCleanly(run));
  auto v = Values(run.out);
  EXPECT_EQ(v["active"], 0u);  // shut down
  EXPECT_EQ(run.err,
            "ROOT->load  --  ENTER PHASE  --  Monitored TransID = 1 --  threadId = 0\n"
            "ROOT->load->solve  --  EXIT PHASE  -- Monitored TransID = 7 -- threadId = 0\n"
            "memTracker  --  phase exit without a matching enter: ignored\n"
            "mark  --  Monitored TransId = 11\n");
  // "/job" in the output directory: the directory goes after the name's last '/'.
  EXPECT_EQ(dir.Files(), (std::set<std::string>{"job.memT0", "job.phaseStack"}));
  for (const std::string& name : dir.Files())  // whatever the umask: the owner's files
    EXPECT_EQ(fs::status(dir.path + "/" + name).permissions(), fs::perms::owner_read | fs::perms::owner_write) << name;
  const std::vector<Record> r = dir.Records("job.memT0");
  ExpectRecords(r, 0, {{0, v["p"], 24, 0, 0}, {2, v["q"], 100, 0, 1}, {4, v["r"], 4000, 0, 1, v["p"]},
                    {5, v["c"], 24, 0, 1}, {7, v["c"], kReleased, 0, 2}, {8, v["c"], kReleased, 0, 2},
                    {1, v["c"], kReleased, 0, kStale}, {3, v["q"], kReleased, 0, 1},
                    {0, v["w"], 7, 1, 4},  // the worker, in ROOT->worker (its name cut to 6 characters)
                    {1, v["w"], kReleased, 1, kStale}, {1, v["r"], kReleased, 0, kStale}});
  // Phase file: count, then identifier and a 131072-byte NUL-terminated path per entry.
  const std::string phases = ReadFile(dir.path + "/job.phaseStack");
  ASSERT_GE(phases.size(), 4u);
  const std::uint32_t count = U32(phases, 0);
  ASSERT_EQ(phases.size(), 4 + 131076u * count);
  std::map<std::string, std::uint32_t> table;
  for (std::uint32_t i = 0; i < count; ++i) {
    const std::string field = phases.substr(4 + 131076u * i + 4, 131072);
    EXPECT_EQ(field.find_first_not_of('\0', field.find('\0')), std::string::npos);  // zero after the path
    table[field.c_str()] = U32(phases, 4 + 131076u * i);
  }
  EXPECT_EQ(table, (std::map<std::string, std::uint32_t>{
                       {"ROOT", 0}, {"ROOT->load", 1}, {"ROOT->load->solve", 2}, {"ROOT->solve", 3}, {"ROOT->worker", 4}}));
}

TEST(TrackerRecords, AFullBatchIsWrittenAndFreeRecordsKeepTheirSlotsStalePhase) {
  OutputDir dir;
  const ChildResult run = Probe("batches", Tracking(dir));
  ASSERT_TRUE(ExitedCleanly(run));
  auto v = Values(run.out);
  ASSERT_EQ(v["start"], 0u);
  const std::vector<Record> first = dir.Records();
  ASSERT_EQ(first.size(), 131072u);
  std::vector<Want> pairs;  // each free names the address its malloc returned
  for (std::uint32_t i = 0; i < first.size(); ++i)
    pairs.push_back(i % 2 ? Want{1, first[i - 1].address, kReleased, 0, kStale}
                          : Want{0, first[i].address, 1 + i / 2 % 100, 0, 1});
  ExpectRecords(first, 0, pairs);
  const std::vector<Record> second = dir.Records("unknownMemTrack.memT1");
  ExpectRecords(second, 131072, {{0, v["a"], 5, 0, 0}, {0, v["b"], 6, 0, 0},
                                 {1, v["a"], kReleased, 0, 1},         // slot 2 last held a malloc in "bulk"
                                 {1, v["b"], kReleased, 0, kStale}});  // slot 3 only ever held frees
}

TEST(TrackerDebugTransactions, AnnouncedInNumberOrderAndBlockedByANumberAlreadyPassed) {
  // Transactions: 0 malloc, 1 new, 2 realloc, 3 calloc, 4 release, 5 acquire,
  // 6 free, 7 delete, 8 malloc, 9 free, 10 free.
  auto line = [](int n, const char* word) {
    return "mem_Tracker  --  transaction " + std::to_string(n) + "  --  " + word + "\n";
  };
  std::string fiftyOne;
  for (int i = 100; i < 150; ++i) fiftyOne += std::to_string(i) + ",";
  const std::pair<std::string, std::string> cases[] = {
      {"5,3,9", line(3, "calloc") + line(5, "acquire") + line(9, "free")},
      {"9,0,7", line(7, "delete") + line(9, "free")},  // 0 (a malloc) prints nothing but moves on
      {"3,3,7", line(3, "calloc")},                    // the second 3 has passed: the list stops there
      {"-1,2", ""},
      {"x,4,1", line(1, "new") + line(4, "release")},  // "x" reads as 0
      {fiftyOne + "2", "memTracker  --  Too many debug transactions specified. First 50 will be used.\n"},
  };
  for (const auto& c : cases) {
    const ChildResult run = Probe("debug_transactions", {{"ZEM_MEM_TRACK", ""}, {"ZEM_MEM_DBTRANS", c.first}});
    EXPECT_TRUE(ExitedCleanly(run));
    EXPECT_EQ(run.err, c.second) << c.first;
  }
}

TEST(TrackerStopStart, BlocksAcquiredWhileStoppedAreNeverRecorded) {
  OutputDir dir;
  const ChildResult run = Probe("untracked", Tracking(dir));
  ASSERT_TRUE(ExitedCleanly(run));
  auto v = Values(run.out);
  ExpectRecords(dir.Records(), -1, {{0, v["a"], 10, 0, 0}, {0, v["g0"], 16, 0, 0},
                                    {1, v["a"], kReleased, 0, kStale},  // acquired before the stop
                                    {0, v["f"], 60, 0, 0}, {1, v["f"], kReleased, 0, kStale},
                                    {1, v["g"], kReleased, 0, kStale}});  // its move while stopped left no record
}

// Names too long switch tracking off; a missing directory loses the files with a
// hint; with tracking off nothing is written and the counter stays at zero.
TEST(TrackerNaming, LongNamesMissingDirectoriesAndTrackingOff) {
  const std::string nameError = "ERROR: Output file names are too long in memory tracking code.\n";
  const std::string noFile = "\nUnable to open memory tracking file.\n  FileName: /no/such/dir/unknownMemTrack.";
  const std::string hint = "  Does the output directory /no/such/dir exist?\n";
  OutputDir dir, quiet;
  const int d = static_cast<int>(dir.path.size());
  const EnvVars inCwd = {{"ZEM_MEM_TRACK", ""}};  // no output directory: names stand alone
  struct Case {
    const char* scenario;
    EnvVars env;
    int nameLength;
    std::string err;
    std::string out;
  };
  const Case cases[] = {
      {"set_name", Tracking(dir), 2036 - d, "", "active=1\n"},
      {"set_name", Tracking(dir), 2037 - d, nameError, "active=0\n"},
      {"set_name", inCwd, 2036, "", "active=1\n"},
      {"set_name", inCwd, 2037, nameError, "active=0\n"},
      {"set_name", {{"ZEM_MEM_TRACK", ""}, {"ZEM_MEM_OUTPUTDIR", std::string(1024, 'x')}}, 1,
       "ERROR: Name of output directory given for memory tracking is too long.\nName must be under 1024 characters.\n\n",
       "active=0\n"},
      {"one_record", {{"ZEM_MEM_TRACK", ""}, {"ZEM_MEM_OUTPUTDIR", "/no/such/dir"}}, 0,
       "ROOT->phase  --  ENTER PHASE  --  Monitored TransID = 2 --  threadId = 0\n" + noFile + "phaseStack" + hint +
           noFile + "memT0" + hint,
       "active=1 id=2\n"},
      {"one_record", {{"ZEM_MEM_OUTPUTDIR", quiet.path}}, 0, "", "active=0 id=0\n"},
  };
  for (const Case& c : cases) {
    const ChildResult run = Probe(c.scenario, c.env, {std::to_string(c.nameLength)});
    EXPECT_TRUE(ExitedCleanly(run));
    EXPECT_EQ(run.err, c.err) << c.scenario << " " << c.nameLength;
    EXPECT_EQ(run.out, c.out) << c.scenario << " " << c.nameLength;
  }
  EXPECT_TRUE(quiet.Files().empty());
}

TEST(TrackerLimits, OverlongInputIsCutWithOneMessagePerKind) {
  OutputDir dir;
  const ChildResult run = Probe("limits", Tracking(dir));
  ASSERT_TRUE(ExitedCleanly(run));
  const std::pair<std::string, std::size_t> expected[] = {
      {"memTracker  --  explicit string length outside 0..151: the string is cut to fit\n", 1},
      {"memTracker  --  phase name of 128 characters or more: only the first 127 are kept\n", 1},
      {"memTracker  --  phases nested deeper than 1024: deeper phases are not followed\n", 1},
      {"memTracker  --  more than 64 threads: further threads are recorded as thread 63 and their phases are "
       "not followed\n", 1},
      {"memTracker  --  phase exit without a matching enter: ignored\n", 0},  // refused enters were undone
      {"ROOT->" + std::string(127, 'n') + "  --  ENTER PHASE", 1},
      {"ROOT->y  --  ENTER PHASE", 1},
  };
  for (const auto& e : expected) {
    std::size_t n = 0;
    for (std::size_t at = run.err.find(e.first); at != std::string::npos; at = run.err.find(e.first, at + 1)) ++n;
    EXPECT_EQ(n, e.second) << e.first;
  }
  const std::vector<Record> r = dir.Records();
  ASSERT_EQ(r.size(), 140u);
  std::map<std::uint32_t, int> perThread;
  for (const Record& rec : r) ++perThread[rec.thread];
  EXPECT_EQ(perThread.size(), 63u);  // threads 1..63; 63 also takes the seven threads beyond the tables
  EXPECT_EQ(perThread[63], 16);
}

TEST(TrackerLimits, ThePhaseTableEndsTheProcessWhenTwoThirdsFull) {
  const ChildResult run = Probe("overflow", {{"ZEM_MEM_TRACK", ""}});
  EXPECT_TRUE(ExitedCleanly(run));
  EXPECT_EQ(run.out, "stored=3992\n");
  const std::string message = "mem_PtrHash::Add  --  ERROR  --  Stack hash table has been overfilled.\n";
  EXPECT_EQ(run.err.substr(run.err.size() - std::min(run.err.size(), message.size())), message);
}

}  // namespace
