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

// Runs one half of the workloads, prints its table and writes <out>/<stem>.md and .svg.
void RunAndPublish(const char* what, void (*run)(zmx_bench::Report&, bool), zmx_bench::Report& report, bool quick,
                   const char* baseline, const std::string& out, const char* stem) {
  std::fprintf(stderr, "%s...\n", what);
  run(report, quick);
  report.PrintTable(baseline);
  report.WriteMarkdown(out + "/" + stem + ".md", baseline);
  report.WriteSvg(out + "/" + stem + ".svg", baseline);
}
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
    RunAndPublish("bit vectors", zmx_bench_containers::RunBitVectorBench, bits, quick, "omi_BlkBitVect", out,
                  "bench_containers_bits");
  }
  if (only != "bits") {
    RunAndPublish("tables", zmx_bench_containers::RunTableBench, tables, quick, "omi_UintTable", out,
                  "bench_containers_tables");
  }
  std::printf("\nwritten: %s/bench_containers_{bits,tables}.{md,svg}\n", out.c_str());
  return 0;
}
