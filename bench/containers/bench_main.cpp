// bench_containers: one run of every container workload against the peers,
// printed as a table with ratios and written as markdown and SVG.
//   bench_containers [--quick] [--only bits|tables] [--out DIR]
#include <cstdio>
#include <cstring>
#include <string>

#include "ZMXUTI_CoreUtils.h"
#include "bench_report.h"

namespace zmx_bench_containers {
void RunBitVectorBench(zmx_bench::Report& report, bool quick);
void RunTableBench(zmx_bench::Report& report, bool quick);
}  // namespace zmx_bench_containers

namespace {
// The library must be up before the first allocation of the program.
struct LibraryUp {
  LibraryUp() {
    int depth = 0;
    UTI_CoreUtils_initialize(depth);
  }
};
LibraryUp g_libraryUp __attribute__((init_priority(101)));
}  // namespace

int main(int argc, char** argv) {
  bool quick = false;
  std::string out = ".";
  std::string only;  // "bits" or "tables": one half of the run
  for (int i = 1; i < argc; ++i) {
    if (std::strcmp(argv[i], "--quick") == 0) {
      quick = true;
    } else if (std::strcmp(argv[i], "--only") == 0 && i + 1 < argc) {
      only = argv[++i];
    } else if (std::strcmp(argv[i], "--out") == 0 && i + 1 < argc) {
      out = argv[++i];
    } else {
      std::fprintf(stderr, "usage: %s [--quick] [--only bits|tables] [--out DIR]\n", argv[0]);
      return 2;
    }
  }
  // Values are times and bytes (lower is better); the ratio column says how far
  // the library is ahead of each peer: peer / library, above 1 = library ahead.
  zmx_bench::Report bits("Bit vectors: omi_BlkBitVect against CRoaring and a flat bitset", false);
  zmx_bench::Report tables("Integer-keyed tables: omi_UintTable against std::unordered_map, absl::flat_hash_map, JudyL",
                           false);
  for (zmx_bench::Report* report : {&bits, &tables}) {
    report->SetRatioDirection(zmx_bench::Report::RatioDirection::BaselineAhead);
    report->SetLogScaleChart(true);
  }
  if (only != "tables") {
    std::fprintf(stderr, "bit vectors...\n");
    zmx_bench_containers::RunBitVectorBench(bits, quick);
    bits.PrintTable("omi_BlkBitVect");
    bits.WriteMarkdown(out + "/bench_containers_bits.md", "omi_BlkBitVect");
    bits.WriteSvg(out + "/bench_containers_bits.svg", "omi_BlkBitVect");
  }
  if (only != "bits") {
    std::fprintf(stderr, "tables...\n");
    zmx_bench_containers::RunTableBench(tables, quick);
    tables.PrintTable("omi_UintTable");
    tables.WriteMarkdown(out + "/bench_containers_tables.md", "omi_UintTable");
    tables.WriteSvg(out + "/bench_containers_tables.svg", "omi_UintTable");
  }
  std::printf("\nwritten: %s/bench_containers_{bits,tables}.{md,svg}\n", out.c_str());
  return 0;
}
