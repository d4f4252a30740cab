// Memory diagnostics: the scan's region lines and summaries byte for byte, its
// limit and 2 GiB stop, the region query's view of the address space, the
// debugger's life-cycle texts, and heap snapshots under either heap.
#include <sys/mman.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <sstream>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "ZMXUTI_CoreUtils.h"
#include "platform/memory_query.h"
#include "support/child_process.h"

namespace {

using zmx_test::ExitedCleanly;
using zmx_test::RunProbe;

namespace platform = zmx::platform;

zmx_test::ChildResult Probe(const std::string& scenario, const std::vector<std::string>& args,
                            const zmx_test::EnvVars& env = {}) {
  auto result = RunProbe("diagnostics_probe", scenario, env, args);
  EXPECT_TRUE(ExitedCleanly(result)) << scenario;
  return result;
}

// The scan's closing summary in its compact (level 0) and long forms; the
// largest free block of every scan here starts at 0.
using Text = const std::string&;
std::string Compact(Text free, Text committed, Text reserved, Text maxFree, Text maxReserved, Text at) {
  return "\nMEMORY USE SUMMARY\n   Free Memory      = " + free + "   Committed Memory = " + committed +
         "   Reserved Memory  = " + reserved + "\n   Max Free Block Size = " + maxFree +
         "   PTR = 0\n   Max Reserved Block Size = " + maxReserved + "   PTR = " + at + "\n";
}
std::string Long(Text free, Text committed, Text reserved, Text maxFree, Text maxReserved, Text at) {
  return "\nMEMORY USE SUMMARY\n   Free Memory      = " + free + "\n   Committed Memory = " + committed +
         "\n   Reserved Memory  = " + reserved + "\n\n   Max Free Block Size = " + maxFree +
         "\n    PTR = 0\n   Max Reserved Block Size = " + maxReserved + "\n   PTR = " + at + "\n\n";
}

TEST(Diagnostics, ScanWithLimitZeroPrintsOnlyTheSummary) {
  for (const char* level : {"0", "1", "2", "7"}) {
    EXPECT_EQ(Probe("scan", {level, "0"}).err, (level[0] == '0' ? Compact : Long)("0", "0", "0", "0", "0", "0"))
        << level;
  }
}

// The probe maps two inaccessible stretches of 0x30000 bytes, at 0x40000000 and
// at 0x7FFE0000 (across the 2 GiB line), and a readable one of 0x10000 bytes at
// 0x60000000, once it has made sure that nothing else lies below them; skipped
// where the kernel refuses.
const char kFirstFree[] = "0  --  State =     MEM_FREE  --  Type =        NONE  --  RegionSize = 1073741824\n";
const char kFirstReserved[] =
    "40000000  --  State =  MEM_RESERVE  --  Type = MEM_PRIVATE  --  RegionSize = 196608\n";
const char kSecondFree[] = "40030000  --  State =     MEM_FREE  --  Type =        NONE  --  RegionSize = 536674304\n";
const char kCommitted[] = "60000000  --  State =   MEM_COMMIT  --  Type = MEM_PRIVATE  --  RegionSize = 65536\n";
const char kThirdFree[] = "60010000  --  State =     MEM_FREE  --  Type =        NONE  --  RegionSize = 536674304\n";
const char kSecondReserved[] =
    "7ffe0000  --  State =  MEM_RESERVE  --  Type = MEM_PRIVATE  --  RegionSize = 196608\n";

TEST(Diagnostics, ScanStopsAtTheRegionThatCrossesTwoGigabytesWhateverTheLimit) {
  // Equal reserved sizes: the first one stays the largest.
  const std::string compact = std::string(kFirstFree) + kFirstReserved + kSecondFree + kCommitted + kThirdFree +
                              kSecondReserved +
                              Compact("2147090432", "65536", "393216", "1073741824", "196608", "40000000");
  const std::string longSummary = Long("2147090432", "65536", "393216", "1073741824", "196608", "40000000");
  const struct {
    const char* level;
    const char* limit;
    std::string expected;
  } cases[] = {
      {"0", "0xFFFFFFFFFFFFFFFF", compact},
      {"ifc", "", compact},
      {"0", "0x7FFFFFFF", compact},
      {"1", "0x7FFFFFFF", std::string(kFirstFree) + kSecondFree + kThirdFree + longSummary},
      {"2", "0x7FFFFFFF", longSummary},
      {"0", "0x40000001",  // stops once a region reaches the limit
       kFirstFree + (kFirstReserved + Compact("1073741824", "0", "196608", "1073741824", "196608", "40000000"))},
      {"0", "0x40000000", kFirstFree + Compact("1073741824", "0", "0", "1073741824", "0", "0")},
  };
  for (const auto& c : cases) {
    const auto result = Probe("scan_reserved", {c.level, c.limit});
    if (result.out.rfind("refused", 0) == 0) GTEST_SKIP() << "the kernel " << result.out;
    ASSERT_EQ(result.out, "reserved\n");
    EXPECT_EQ(result.err, c.expected) << c.level << " " << c.limit;
  }
}

// Maps `pages` anonymous pages with `protection`; unmapped by the test.
char* MapPages(int pages, int protection) {
  void* p = mmap(nullptr, pages * getpagesize(), protection, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
  return p == MAP_FAILED ? nullptr : static_cast<char*>(p);
}

platform::Region Query(const void* address) {
  platform::Region region;
  EXPECT_TRUE(platform::QueryRegion(reinterpret_cast<std::uintptr_t>(address), region));
  return region;
}

TEST(Diagnostics, RegionQueryClassifiesMappings) {
  const std::uint64_t page = static_cast<std::uint64_t>(getpagesize());
  char* stretch = MapPages(4, PROT_NONE);
  ASSERT_NE(stretch, nullptr);
  mprotect(stretch + page, page, PROT_READ | PROT_WRITE);
  munmap(stretch + 3 * page, page);  // leaves a gap unless a neighbour follows at once
  FILE* file = std::tmpfile();
  ASSERT_NE(file, nullptr);
  ASSERT_EQ(ftruncate(fileno(file), static_cast<off_t>(2 * page)), 0);
  void* fileMap = mmap(nullptr, 2 * page, PROT_READ, MAP_PRIVATE, fileno(file), 0);
  ASSERT_NE(fileMap, MAP_FAILED);

  const platform::Region reserved = Query(stretch + 10), committed = Query(stretch + page + 10);
  const platform::Region mapped = Query(static_cast<char*>(fileMap) + page + 1);
  const platform::Region image = Query(reinterpret_cast<const void*>(&mem_ScanMemory));
  const platform::Region stack = Query(&page);

  const auto at = [](const void* p) { return reinterpret_cast<std::uintptr_t>(p); };
  using Fields = std::tuple<std::uint64_t, std::uint64_t, std::uint64_t, std::uint64_t>;
  EXPECT_EQ(Fields(reserved.base, reserved.size, reserved.state, reserved.type),
            Fields(at(stretch), page, platform::kMemReserve, platform::kMemPrivate));
  EXPECT_EQ(Fields(committed.base, committed.size, committed.state, committed.allocationBase),
            Fields(reserved.base + page, page, platform::kMemCommit, reserved.allocationBase));  // one anonymous run
  EXPECT_LE(reserved.allocationBase, reserved.base);
  EXPECT_EQ(Fields(mapped.base, mapped.size, mapped.type, mapped.allocationBase),
            Fields(at(fileMap) + page, page, platform::kMemMapped, at(fileMap)));
  EXPECT_EQ(std::make_pair(image.type, image.state), std::make_pair(platform::kMemImage, platform::kMemCommit));
  EXPECT_EQ(stack.type, platform::kMemPrivate);
  // Query where the unmapped page was: free, or (when another mapping moved in) not ours.
  const platform::Region gap = Query(stretch + 3 * page);
  if (gap.state == platform::kMemFree) {
    EXPECT_EQ(Fields(gap.base, 0, gap.type, gap.allocationBase), Fields(at(stretch) + 3 * page, 0, 0, 0));
  }
  platform::Region none;
  EXPECT_FALSE(platform::QueryRegion(0x800000000000ull, none));
  munmap(fileMap, 2 * page);
  std::fclose(file);
  munmap(stretch, 3 * page);
}

TEST(Diagnostics, DebuggerAnnouncesItsLifeOnStandardOutput) {
  const auto alone = Probe("debugger_finalize_only", {});
  EXPECT_EQ(alone.out, "Finalizing\n");
  EXPECT_EQ(alone.err, "");
  EXPECT_EQ(Probe("debugger_life_cycle", {}).out,
            "Initializing\nCreated mem_Debugger\nInitializing\nsame 1\n"
            "Finalizing\nDestroyed mem_Debugger\nFinalizing\n"
            "Created mem_Debugger\nFinalizing\nDestroyed mem_Debugger\n");
}

struct Snapshot {
  std::uint64_t committed = 0, inUse = 0, free = 0, reserved = 0;
};

// The probe's lines "footprint F" and "<label> committed inUse free reserved".
std::vector<Snapshot> ReadSnapshots(const std::string& out, std::vector<std::uint64_t>& footprints) {
  std::vector<Snapshot> snapshots;
  std::istringstream in(out);
  std::string label;
  while (in >> label) {
    if (label == "footprint") {
      std::uint64_t f = 0;
      in >> f;
      footprints.push_back(f);
      continue;
    }
    Snapshot s;
    in >> s.committed >> s.inUse >> s.free >> s.reserved;
    snapshots.push_back(s);
  }
  return snapshots;
}

TEST(Diagnostics, SnapshotOfTheGeneralHeapIsItsFootprintAndTheRuntimeHeapFollowsItsBlocks) {
  std::vector<std::uint64_t> footprints;
  const auto snaps = ReadSnapshots(Probe("snapshot", {"10", "100000"}).out, footprints);
  ASSERT_EQ(snaps.size(), 3u);
  ASSERT_EQ(footprints.size(), 2u);
  EXPECT_GT(footprints[1], 10u * 100000u);
  EXPECT_EQ(snaps[0].committed, footprints[0]);
  EXPECT_EQ(snaps[1].committed, footprints[1]);
  for (const Snapshot& s : snaps) {
    EXPECT_EQ(s.inUse, 0u);
    EXPECT_EQ(s.free, 0u);
    EXPECT_EQ(s.reserved, 0u);
  }
  // The runtime heap's snapshot follows its blocks: blocks too large for its
  // per-thread cache, and blocks it maps directly.
  const struct {
    std::uint64_t count, bytes;
  } cases[] = {{10, 2000}, {8, 300000}};
  for (const auto& c : cases) {
    std::vector<std::uint64_t> unused;
    const auto runtime = ReadSnapshots(
        Probe("snapshot", {std::to_string(c.count), std::to_string(c.bytes)}, {{"ZMX_CRTMALLOC", "1"}}).out, unused);
    ASSERT_EQ(runtime.size(), 3u);
    EXPECT_GE(runtime[1].inUse, runtime[0].inUse + c.count * c.bytes) << c.bytes;
    EXPECT_LT(runtime[2].inUse, runtime[1].inUse) << c.bytes;
    for (const Snapshot& s : runtime) {
      EXPECT_EQ(s.committed, s.inUse + s.free) << c.bytes;
      EXPECT_EQ(s.reserved, 0u);
    }
  }
}

}  // namespace
