// bench_containers: one run of every container workload against the peers,
// printed as a table with ratios and written as markdown and SVG.
//   bench_containers [--quick] [--only bits|tables] [--out DIR]
#include <cstdio>
#include <cstring>
#include <string>

#include "ZMXUTI_CoreUtils.h"
#include "bench_report.h"

namespace zmx_bench_containers {
void RunBitVectorBench(Report& report, bool quick);
void RunTableBench(Report& report, bool quick);
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
  zmx_bench_containers::Report bits, tables;
  std::fprintf(stderr, "bit vectors...\n");
  if (only != "tables") zmx_bench_containers::RunBitVectorBench(bits, quick);
  std::fprintf(stderr, "tables...\n");
  if (only != "bits") zmx_bench_containers::RunTableBench(tables, quick);
  std::printf("== bit vectors (ratio: peer / omi_BlkBitVect, above 1 = omi ahead)\n");
  bits.PrintTable("omi_BlkBitVect");
  std::printf("\n== integer-keyed tables (ratio: peer / omi_UintTable, above 1 = omi ahead)\n");
  tables.PrintTable("omi_UintTable");
  bits.WriteMarkdown(out + "/bench_containers_bits.md", "omi_BlkBitVect");
  tables.WriteMarkdown(out + "/bench_containers_tables.md", "omi_UintTable");
  bits.WriteSvg(out + "/bench_containers_bits.svg", "omi_BlkBitVect against CRoaring and a flat bitset", "omi_BlkBitVect");
  tables.WriteSvg(out + "/bench_containers_tables.svg", "omi_UintTable against std::unordered_map, absl::flat_hash_map, JudyL",
                  "omi_UintTable");
  std::printf("\nwritten: %s/bench_containers_{bits,tables}.{md,svg}\n", out.c_str());
  return 0;
}
