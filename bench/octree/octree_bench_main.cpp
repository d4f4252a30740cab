// bench_octree: the library's octree against CGAL's AABB tree and a brute-force
// scan on uniform and clustered boxes, 10^5 and 10^6 of them, in one run;
// prints the tables with ratios to CGAL and writes them as markdown and SVG.
//   bench_octree [--quick] [--traps] [--out DIR]
//     --quick  the 10^5 workloads only
//     --traps  floating-point traps on (invalid, divide-by-zero, overflow) for the whole run
#include <fenv.h>

#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <string>
#include <utility>
#include <vector>

#include "ZMXUTI_CoreUtils.h"
#include "bench_report.h"
#include "contenders.h"
#include "workloads.h"

namespace {

// The library comes up before anything of the program allocates.
ZMXUTI_EARLY_START_UP;

using zmx_bench::Report;
using zmx_bench_octree::Measured;
using zmx_bench_octree::WorkloadResult;
using zmx_bench_octree::Workload;

const char kOctree[] = "omi_Octree";
const char kOctreeExact[] = "omi_Octree+exact";
const char kCgal[] = "CGAL AABB_tree";
const char kBrute[] = "brute force";

struct Reports {
  Report build{"Build time", false};
  Report memory{"Heap bytes of the index", false};
  Report points{"Point location rate", true};
  Report segments{"Segment query rate", true};
  Report pointCandidates{"Candidates per point", false};
  Report segmentCandidates{"Candidates per segment", false};
  std::vector<std::string> notes;
};

struct Plan {
  std::size_t boxes, points, segments, bruteSample;
  unsigned seed;
};

void Note(Reports& r, const std::string& text) {
  std::printf("  %s\n", text.c_str());
  r.notes.push_back(text);
}

std::string Format(const char* format, ...) __attribute__((format(printf, 1, 2)));
std::string Format(const char* format, ...) {
  char buf[512];
  va_list args;
  va_start(args, format);
  std::vsnprintf(buf, sizeof buf, format, args);
  va_end(args);
  return buf;
}

double Rate(std::size_t queries, double seconds) { return seconds > 0 ? queries / seconds / 1e3 : 0; }

void AddQueries(Reports& r, const std::string& name, const char* who, const Measured& m) {
  if (m.pointSeconds >= 0) {
    r.points.Add(name, who, Rate(m.pointQueries, m.pointSeconds), "kq/s");
    r.pointCandidates.Add(name, who, m.pointCandidates, "items");
  }
  if (m.segmentSeconds >= 0) {
    r.segments.Add(name, who, Rate(m.segmentQueries, m.segmentSeconds), "kq/s");
    r.segmentCandidates.Add(name, who, m.segmentCandidates, "items");
  }
}

void AddIndex(Reports& r, const std::string& name, const char* who, const Measured& m) {
  r.build.Add(name, who, m.buildSeconds * 1e3, "ms");
  r.memory.Add(name, who, m.heapBytes / (1024.0 * 1024.0), "MiB");
}

void Publish(Reports& r, const std::string& name, const WorkloadResult& res, bool haveCgal) {
  AddIndex(r, name, kOctree, res.octree);
  AddQueries(r, name, kOctree, res.octree);
  AddQueries(r, name, kOctreeExact, res.octreeExact);
  if (haveCgal) {
    AddIndex(r, name, kCgal, res.cgal);
    AddQueries(r, name, kCgal, res.cgal);
  } else {
    for (Report* report : {&r.build, &r.memory, &r.points, &r.segments})
      report->AddNote(name, kCgal, "CGAL not found at configure time");
  }
  r.build.AddNote(name, kBrute, "no index");
  r.memory.AddNote(name, kBrute, "no index");
  AddQueries(r, name, kBrute, res.brute);
}

void NoteWorkload(Reports& r, const std::string& name, const Workload& w, const WorkloadResult& res) {
  const auto& s = res.shape;
  const auto& a = res.agreement;
  Note(r, Format("%s: root [%.3g %.3g %.3g]-[%.3g %.3g %.3g], median element edge %.3g, tolerance %.3g, "
                 "segment length %.3g; %zu points, %zu segments, brute force on the first %zu of each",
                 name.c_str(), w.rootMin[0], w.rootMin[1], w.rootMin[2], w.rootMax[0], w.rootMax[1], w.rootMax[2],
                 w.typicalSize, res.tolerance, w.segmentLength, w.points.size(), w.segments.size(),
                 a.samplePoints));
  Note(r, Format("%s: octree of %u leaves (%u growable), depth up to %u, largest leaf %u items, %.2f leaf entries "
                 "per box; a segment walks %.1f leaves holding %.0f items (%.0f distinct)",
                 name.c_str(), s.leaves, s.growableLeaves, s.maxDepth, s.maxItemsInLeaf,
                 s.storedItems / static_cast<double>(w.boxes.size()), s.leavesPerSegment, s.rawItemsPerSegment,
                 res.octree.segmentCandidates));
  Note(r, Format("%s: on the sample, boxes containing a point missing from its leaf: %zu; boxes met by a segment "
                 "missing from the walk's leaves: %zu of %zu (%zu of %zu segments); CGAL counts differing from the "
                 "exact scan: %zu points, %zu segments",
                 name.c_str(), a.pointHitsMissedByLeaf, a.segmentHitsMissedByWalk, a.segmentHits,
                 a.segmentsWithMisses, a.sampleSegments, a.cgalPointMismatches, a.cgalSegmentMismatches));
  if (a.segmentsWithMisses == 0) return;
  const zmx_bench_octree::Segment& seg = w.segments[a.firstSegmentWithMisses];
  Note(r, Format("%s: first segment whose walk misses a box it meets: (%.9g, %.9g, %.9g) -> (%.9g, %.9g, %.9g), "
                 "tolerance %.9g",
                 name.c_str(), seg.a[0], seg.a[1], seg.a[2], seg.b[0], seg.b[1], seg.b[2], res.tolerance));
}

void RunPlan(Reports& r, const Plan& plan, bool clustered, bool haveCgal) {
  const std::string size = plan.boxes >= 1000000 ? "1e6" : "1e5";
  const std::string name = std::string(clustered ? "clustered " : "uniform ") + size;
  std::fprintf(stderr, "%s...\n", name.c_str());
  Workload w = clustered ? zmx_bench_octree::MakeClustered(plan.boxes, plan.seed)
                         : zmx_bench_octree::MakeUniform(plan.boxes, plan.seed);
  zmx_bench_octree::AddQueries(w, plan.points, plan.segments, plan.seed + 1);
  const WorkloadResult res = zmx_bench_octree::RunWorkload(w, plan.bruteSample);
  Publish(r, name, res, haveCgal);
  NoteWorkload(r, name, w, res);
}

// The octree's cost over CGAL's, per workload: time and bytes quotients.
void NoteRatios(Reports& r, const std::vector<std::string>& names) {
  auto quotient = [](double a, double b) { return a > 0 && b > 0 ? a / b : 0.0; };
  for (const std::string& n : names) {
    Note(r, Format("%s: octree/CGAL build time %.2f, heap bytes %.2f, point query time %.2f (%.2f with the exact "
                   "filter), segment query time %.2f (%.2f with the exact filter)",
                   n.c_str(), quotient(r.build.Value(n, kOctree), r.build.Value(n, kCgal)),
                   quotient(r.memory.Value(n, kOctree), r.memory.Value(n, kCgal)),
                   quotient(r.points.Value(n, kCgal), r.points.Value(n, kOctree)),
                   quotient(r.points.Value(n, kCgal), r.points.Value(n, kOctreeExact)),
                   quotient(r.segments.Value(n, kCgal), r.segments.Value(n, kOctree)),
                   quotient(r.segments.Value(n, kCgal), r.segments.Value(n, kOctreeExact))));
  }
}

// One chart of every measure: each contender's ratio to the baseline (above 1 = better).
Report Chart(const Reports& r, const std::vector<std::string>& names, const char* baseline) {
  Report chart(std::string("Octree against ") + baseline + " per measure", true);
  chart.SetLogScaleChart(true);
  const std::pair<const char*, const Report*> measures[] = {
      {"points", &r.points}, {"segments", &r.segments}, {"build", &r.build}, {"heap", &r.memory}};
  for (const auto& measure : measures) {
    for (const std::string& n : names) {
      for (const char* who : {kOctree, kOctreeExact, baseline}) {
        const double ratio = measure.second->Ratio(n, who, baseline);
        if (ratio > 0) chart.Add(std::string(measure.first) + " " + n, who, ratio, "x");
      }
    }
  }
  return chart;
}

void Write(const Reports& r, const std::vector<std::string>& names, const char* baseline, const std::string& out) {
  const Report* tables[] = {&r.build, &r.memory, &r.points, &r.segments, &r.pointCandidates, &r.segmentCandidates};
  for (const Report* table : tables) table->PrintTable(baseline);
  const Report chart = Chart(r, names, baseline);
  std::ofstream md(out + "/bench_octree.md");
  md << "# omi_Octree against CGAL's AABB tree and a brute-force scan\n\n";
  for (const std::string& note : r.notes) md << "- " << note << "\n";
  for (const Report* table : tables) md << "\n" << table->MarkdownText(baseline);
  md << "\n" << chart.MarkdownText(baseline) << "\n![chart](bench_octree.svg)\n";
  chart.WriteSvg(out + "/bench_octree.svg", baseline);
  std::printf("\nwritten: %s/bench_octree.{md,svg}\n", out.c_str());
}

void NoteMethod(Reports& r, bool traps) {
  Note(r, "Boxes are the client's (24 bytes each, not counted); the octree stores item numbers and reads boxes "
          "back through its callback; CGAL's primitive is the item number too, its datum the box read back.");
  Note(r, "Root = bounding box of all boxes padded by 0.1% per side; tolerance (tree and walk) = a quarter of the "
          "median largest box edge, so cells stop halving near element size; segments are ten median edges "
          "long, start inside a random box and point in a random direction; points lie inside random boxes.");
  Note(r, "Heap bytes: the library heap's bytes in use (mem_DLMallinfo().uordblks) after building minus before; "
          "CGAL's std::allocator reaches the same heap through the global operator new.");
  Note(r, "omi_Octree: point candidates = items of the leaf FindCell returns; segment candidates = union of the "
          "items of the leaves omi_OctreeLineTrav returns, deduplicated per segment. omi_Octree+exact filters "
          "those candidates with an exact box test, giving the answer CGAL and the brute force give (boxes "
          "containing the point / met by the segment, closed boxes).");
  Note(r, "Times are the fastest of three runs of each build and query pass (one pass for the brute force, "
          "which runs on a sample of the queries), single thread.");
  // Other work on the machine shows in every time measured.
  double load = 0;
  if (std::FILE* f = std::fopen("/proc/loadavg", "r")) {
    if (std::fscanf(f, "%lf", &load) != 1) load = 0;
    std::fclose(f);
  }
  Note(r, Format("Load average of the machine when the run began: %.2f.", load));
  Note(r, traps ? "Floating-point traps (invalid, divide-by-zero, overflow) were on for the whole run, CGAL included."
                : "Floating-point traps were off (run with --traps to switch them on).");
}

}  // namespace

int main(int argc, char** argv) {
  bool quick = false, traps = false;
  std::string out = ".";
  for (int i = 1; i < argc; ++i) {
    if (std::strcmp(argv[i], "--quick") == 0) {
      quick = true;
    } else if (std::strcmp(argv[i], "--traps") == 0) {
      traps = true;
    } else if (std::strcmp(argv[i], "--out") == 0 && i + 1 < argc) {
      out = argv[++i];
    } else {
      std::fprintf(stderr, "usage: %s [--quick] [--traps] [--out DIR]\n", argv[0]);
      return 2;
    }
  }
  if (traps) feenableexcept(FE_INVALID | FE_DIVBYZERO | FE_OVERFLOW);
#if ZMX_BENCH_HAVE_CGAL
  const bool haveCgal = true;
#else
  const bool haveCgal = false;
#endif
  Reports r;
  std::printf("Notes\n");
  NoteMethod(r, traps);
  if (!haveCgal) Note(r, "CGAL was not found at configure time: its column is left out.");
  std::vector<std::string> names;
  std::vector<Plan> plans = {{100000, 100000, 20000, 1000, 11}};
  if (!quick) plans.push_back({1000000, 100000, 20000, 200, 13});
  for (const Plan& plan : plans) {
    for (bool clustered : {false, true}) {
      RunPlan(r, plan, clustered, haveCgal);
      names.push_back(std::string(clustered ? "clustered " : "uniform ") + (plan.boxes >= 1000000 ? "1e6" : "1e5"));
    }
  }
  if (haveCgal) NoteRatios(r, names);
  Write(r, names, haveCgal ? kCgal : kOctree, out);
  return 0;
}
