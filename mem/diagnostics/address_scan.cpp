// The address-space scan: region lines and the memory-use summary on standard
// error, built from the platform's region query. Printing goes straight to the
// runtime's stderr so that a scan never allocates.
#include <cstdio>

#include "mem/diagnostics/diagnostics.h"
#include "platform/memory_query.h"

namespace {

namespace platform = zmx::platform;

// The walk never passes the first 2 GiB, whatever the caller's limit.
constexpr std::uint64_t kScanCeiling = 0x7FFFFFFF;

struct ScanTotals {
  std::uint64_t free = 0, committed = 0, reserved = 0;
  std::uint64_t maxFree = 0, maxFreeAddress = 0;
  std::uint64_t maxReserved = 0, maxReservedAddress = 0;
};

const char* StateName(std::uint32_t state) {
  switch (state) {
    case platform::kMemCommit: return "MEM_COMMIT";
    case platform::kMemReserve: return "MEM_RESERVE";
    case platform::kMemFree: return "MEM_FREE";
    default: return "UNKN MEM STA";
  }
}

const char* TypeName(std::uint32_t type) {
  switch (type) {
    case platform::kMemPrivate: return "MEM_PRIVATE";
    case platform::kMemMapped: return "MEM_MAPPED";
    case platform::kMemImage: return "MEM_IMAGE";
    default: return "NONE";
  }
}

unsigned Low32(std::uint64_t value) { return static_cast<unsigned>(value & 0xFFFFFFFFu); }
long long Signed(std::uint64_t value) { return static_cast<long long>(value); }

void PrintRegionLine(const platform::Region& region) {
  std::fprintf(stderr, "%x", Low32(region.base));
  std::fputs("  --  State = ", stderr);
  std::fprintf(stderr, "%12s", StateName(region.state));
  std::fputs("  --  Type = ", stderr);
  std::fprintf(stderr, "%11s", TypeName(region.type));
  std::fputs("  --  RegionSize = ", stderr);
  std::fprintf(stderr, "%lld\n", Signed(region.size));
  std::fflush(stderr);
}

void Account(const platform::Region& region, ScanTotals& totals) {
  if (region.state == platform::kMemFree) {
    totals.free += region.size;
    if (region.size > totals.maxFree) {
      totals.maxFree = region.size;
      totals.maxFreeAddress = region.base;
    }
  } else if (region.state == platform::kMemReserve) {
    totals.reserved += region.size;
    if (region.size > totals.maxReserved) {
      totals.maxReserved = region.size;
      totals.maxReservedAddress = region.base;
    }
  } else if (region.state == platform::kMemCommit) {
    totals.committed += region.size;
  }
}

void Walk(MEM_SCAN_LEVEL_ENM level, std::uint64_t limit, ScanTotals& totals) {
  std::uint64_t address = 0;
  platform::Region region;
  // A failed query ends the walk quietly: the scan has no failure messages.
  while (platform::QueryRegion(address, region)) {
    if (level == MEM_SCAN_ALL || (level == MEM_SCAN_FREE && region.state == platform::kMemFree)) {
      PrintRegionLine(region);
    }
    Account(region, totals);
    if (kScanCeiling - address < region.size || address + region.size >= limit) return;
    address += region.size;
  }
}

void PrintCompactSummary(const ScanTotals& t) {
  std::fputs("\nMEMORY USE SUMMARY\n", stderr);
  std::fprintf(stderr, "   Free Memory      = %lld", Signed(t.free));
  std::fprintf(stderr, "   Committed Memory = %lld", Signed(t.committed));
  std::fprintf(stderr, "   Reserved Memory  = %lld", Signed(t.reserved));
  std::fprintf(stderr, "\n   Max Free Block Size = %lld", Signed(t.maxFree));
  std::fprintf(stderr, "   PTR = %x", Low32(t.maxFreeAddress));
  std::fprintf(stderr, "\n   Max Reserved Block Size = %lld", Signed(t.maxReserved));
  std::fprintf(stderr, "   PTR = %x\n", Low32(t.maxReservedAddress));
}

void PrintSummary(const ScanTotals& t) {
  std::fputs("\nMEMORY USE SUMMARY\n", stderr);
  std::fprintf(stderr, "   Free Memory      = %lld\n", Signed(t.free));
  std::fprintf(stderr, "   Committed Memory = %lld\n", Signed(t.committed));
  std::fprintf(stderr, "   Reserved Memory  = %lld\n", Signed(t.reserved));
  std::fprintf(stderr, "\n   Max Free Block Size = %lld\n", Signed(t.maxFree));
  std::fprintf(stderr, "    PTR = %x\n", Low32(t.maxFreeAddress));
  std::fprintf(stderr, "   Max Reserved Block Size = %lld\n", Signed(t.maxReserved));
  std::fprintf(stderr, "   PTR = %x\n", Low32(t.maxReservedAddress));
  std::fputs("\n", stderr);
}

}  // namespace

void mem_ScanMemory(MEM_SCAN_LEVEL_ENM level, std::uint64_t limit) {
  ScanTotals totals;
  if (limit != 0) Walk(level, limit, totals);
  if (level == MEM_SCAN_ALL) PrintCompactSummary(totals);
  else PrintSummary(totals);
  std::fflush(stderr);
}

extern "C" void MEM_SCANMEMORY_IFC() { mem_ScanMemory(MEM_SCAN_ALL, kScanCeiling); }
