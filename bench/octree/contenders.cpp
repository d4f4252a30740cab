// Measurement of the contenders on one workload, and the cross-checks of their
// answers against the brute-force scan on the sample queries.
#include "contenders.h"

#include <chrono>
#include <memory>

#include "ZMXUTI_CoreUtils.h"
#include "containers/octree.h"
#include "containers/octree_line_trav.h"

#if ZMX_BENCH_HAVE_CGAL
#include "cgal_boxes.h"
#endif

namespace zmx_bench_octree {

namespace {

using Clock = std::chrono::steady_clock;

double SecondsSince(Clock::time_point start) { return std::chrono::duration<double>(Clock::now() - start).count(); }

// Every timed pass runs this often and keeps its fastest time: the machine is
// shared, and the fastest run is the least disturbed one. The first build of a
// structure also pays for the heap's growth, which a structure built later
// would not.
constexpr int kRuns = 3;

template <typename Pass>
double FastestOf(Pass&& pass) {
  double best = 0;
  for (int run = 0; run < kRuns; ++run) {
    const Clock::time_point start = Clock::now();
    pass();
    const double seconds = SecondsSince(start);
    best = run == 0 || seconds < best ? seconds : best;
  }
  return best;
}

// Keeps computed counts alive so the optimiser cannot drop a query loop.
volatile unsigned long long g_sink = 0;

void BoxOfItem(void* user, unsigned int item, float* const min, float* const max) {
  const Box& b = (*static_cast<const std::vector<Box>*>(user))[item];
  for (int axis = 0; axis < 3; ++axis) {
    min[axis] = b.min[axis];
    max[axis] = b.max[axis];
  }
}

// Marks items per query with a query number, so the union of the leaves'
// items is counted once per query without clearing anything between queries.
class Stamps {
 public:
  explicit Stamps(std::size_t items) : stamp_(items, 0) {}
  void NextQuery() { ++query_; }
  // True the first time `item` is seen in this query.
  bool Mark(unsigned item) {
    if (stamp_[item] == query_) return false;
    stamp_[item] = query_;
    return true;
  }
  bool Marked(unsigned item) const { return stamp_[item] == query_; }

 private:
  std::vector<unsigned> stamp_;
  unsigned query_ = 0;
};

struct SegmentCounts {
  unsigned long long leaves = 0, raw = 0, unique = 0, exact = 0;
};

// The octree's answer to a segment: the items of the leaves the walk returns,
// deduplicated per segment; with kExact also the ones whose box the segment meets.
template <bool kExact>
void WalkSegment(const omi_Octree& tree, omi_OctreeLineTrav& walk, const Segment& s, float tolerance,
                 const std::vector<Box>& boxes, Stamps& stamps, SegmentCounts& counts) {
  float a[3] = {s.a[0], s.a[1], s.a[2]};
  float b[3] = {s.b[0], s.b[1], s.b[2]};
  const SegmentTest test(s);
  stamps.NextQuery();
  if (!walk.Init(&tree, a, b, tolerance)) return;
  while (const omi_OctreeLeaf* leaf = walk.NextCell()) {
    ++counts.leaves;
    const unsigned n = leaf->Count();
    counts.raw += n;
    for (unsigned i = 0; i < n; ++i) {
      const unsigned item = leaf->ItemAt(i);
      if (!stamps.Mark(item)) continue;
      ++counts.unique;
      if (kExact && test.Crosses(boxes[item])) ++counts.exact;
    }
  }
}

void ShapeOf(const omi_OctreeCell* cell, unsigned depth, OctreeShape& shape) {
  if (const auto* branch = dynamic_cast<const omi_OctreeBranch*>(cell)) {
    for (unsigned i = 0; i < 8; ++i)
      if (branch->Child(i) != nullptr) ShapeOf(branch->Child(i), depth + 1, shape);
    return;
  }
  const auto* leaf = static_cast<const omi_OctreeLeaf*>(cell);
  ++shape.leaves;
  if (dynamic_cast<const omi_OctreeLeafInf*>(leaf) != nullptr) ++shape.growableLeaves;
  shape.maxItemsInLeaf = leaf->Count() > shape.maxItemsInLeaf ? leaf->Count() : shape.maxItemsInLeaf;
  shape.maxDepth = depth > shape.maxDepth ? depth : shape.maxDepth;
  shape.storedItems += leaf->Count();
}

double Mean(unsigned long long total, std::size_t queries) {
  return queries == 0 ? 0.0 : static_cast<double>(total) / static_cast<double>(queries);
}

class OctreeContender {
 public:
  OctreeContender(const Workload& w, float tolerance)
      : w_(w), tolerance_(tolerance), stamps_(w.boxes.size()), walk_(new omi_OctreeLineTrav) {}

  void Build(Measured& m) {
    double heapBefore = 0;
    m.buildSeconds = FastestOf([&] {
      tree_.reset();
      heapBefore = HeapInUse();
      BuildOnce();
    });
    m.heapBytes = HeapInUse() - heapBefore;
  }

  void BuildOnce() {
    const omi_OctVector centre(0.5f * (w_.rootMin[0] + w_.rootMax[0]), 0.5f * (w_.rootMin[1] + w_.rootMax[1]),
                               0.5f * (w_.rootMin[2] + w_.rootMax[2]));
    const omi_OctVector half(0.5f * (w_.rootMax[0] - w_.rootMin[0]), 0.5f * (w_.rootMax[1] - w_.rootMin[1]),
                             0.5f * (w_.rootMax[2] - w_.rootMin[2]));
    tree_.reset(new omi_Octree(centre, half, tolerance_, BoxOfItem, const_cast<std::vector<Box>*>(&w_.boxes)));
    for (std::size_t i = 0; i < w_.boxes.size(); ++i) {
      const Box& b = w_.boxes[i];
      tree_->Insert(static_cast<unsigned>(i), omi_OctVector(b.min[0], b.min[1], b.min[2]),
                    omi_OctVector(b.max[0], b.max[1], b.max[2]));
    }
  }

  // Leaf only (candidates = the leaf's items) or filtered to the boxes containing the point.
  template <bool kExact>
  void Points(Measured& m) {
    unsigned long long total = 0;
    m.pointSeconds = FastestOf([&] {
      total = 0;
      for (const QueryPoint& q : w_.points) {
        const omi_OctreeLeaf* leaf = tree_->FindCell(q.p);
        if (!kExact) {
          total += leaf->Count();
          continue;
        }
        for (unsigned i = 0, n = leaf->Count(); i < n; ++i) total += BoxContains(w_.boxes[leaf->ItemAt(i)], q.p);
      }
    });
    m.pointQueries = w_.points.size();
    m.pointCandidates = Mean(total, w_.points.size());
    g_sink = g_sink + total;
  }

  template <bool kExact>
  void Segments(Measured& m, OctreeShape& shape) {
    SegmentCounts counts;
    m.segmentSeconds = FastestOf([&] {
      counts = SegmentCounts();
      for (const Segment& s : w_.segments) WalkSegment<kExact>(*tree_, *walk_, s, tolerance_, w_.boxes, stamps_, counts);
    });
    m.segmentQueries = w_.segments.size();
    m.segmentCandidates = Mean(kExact ? counts.exact : counts.unique, w_.segments.size());
    shape.leavesPerSegment = Mean(counts.leaves, w_.segments.size());
    shape.rawItemsPerSegment = Mean(counts.raw, w_.segments.size());
    g_sink = g_sink + counts.unique + counts.exact;
  }

  void Shape(OctreeShape& shape) const { ShapeOf(tree_->Root(), 0, shape); }

  // Boxes containing the point that its leaf lacks.
  std::size_t PointMisses(const QueryPoint& q) {
    const omi_OctreeLeaf* leaf = tree_->FindCell(q.p);
    stamps_.NextQuery();
    for (unsigned i = 0, n = leaf->Count(); i < n; ++i) stamps_.Mark(leaf->ItemAt(i));
    std::size_t misses = 0;
    for (std::size_t i = 0; i < w_.boxes.size(); ++i)
      misses += BoxContains(w_.boxes[i], q.p) && !stamps_.Marked(static_cast<unsigned>(i));
    return misses;
  }

  // Boxes the segment meets that the walk's candidates lack; `hits` gets the exact count.
  std::size_t SegmentMisses(const Segment& s, std::size_t& hits) {
    SegmentCounts counts;
    WalkSegment<false>(*tree_, *walk_, s, tolerance_, w_.boxes, stamps_, counts);
    const SegmentTest test(s);
    std::size_t misses = 0;
    hits = 0;
    for (std::size_t i = 0; i < w_.boxes.size(); ++i) {
      if (!test.Crosses(w_.boxes[i])) continue;
      ++hits;
      misses += !stamps_.Marked(static_cast<unsigned>(i));
    }
    return misses;
  }

 private:
  const Workload& w_;
  float tolerance_;
  Stamps stamps_;
  std::unique_ptr<omi_Octree> tree_;
  std::unique_ptr<omi_OctreeLineTrav> walk_;
};

std::size_t BrutePointCount(const Workload& w, const QueryPoint& q) {
  std::size_t n = 0;
  for (const Box& b : w.boxes) n += BoxContains(b, q.p);
  return n;
}

std::size_t BruteSegmentCount(const Workload& w, const Segment& s) {
  const SegmentTest test(s);
  std::size_t n = 0;
  for (const Box& b : w.boxes) n += test.Crosses(b);
  return n;
}

void RunBrute(const Workload& w, std::size_t sample, Measured& m, std::vector<std::size_t>& pointCounts,
              std::vector<std::size_t>& segmentCounts) {
  const std::size_t points = sample < w.points.size() ? sample : w.points.size();
  const std::size_t segments = sample < w.segments.size() ? sample : w.segments.size();
  unsigned long long total = 0;
  Clock::time_point start = Clock::now();
  for (std::size_t i = 0; i < points; ++i) total += (pointCounts[i] = BrutePointCount(w, w.points[i]));
  m.pointSeconds = SecondsSince(start);
  m.pointQueries = points;
  m.pointCandidates = Mean(total, points);
  total = 0;
  start = Clock::now();
  for (std::size_t i = 0; i < segments; ++i) total += (segmentCounts[i] = BruteSegmentCount(w, w.segments[i]));
  m.segmentSeconds = SecondsSince(start);
  m.segmentQueries = segments;
  m.segmentCandidates = Mean(total, segments);
}

void CheckOctree(OctreeContender& octree, const Workload& w, Agreement& a) {
  for (std::size_t i = 0; i < a.samplePoints; ++i) a.pointHitsMissedByLeaf += octree.PointMisses(w.points[i]);
  for (std::size_t i = 0; i < a.sampleSegments; ++i) {
    std::size_t hits = 0;
    const std::size_t misses = octree.SegmentMisses(w.segments[i], hits);
    a.segmentHits += hits;
    a.segmentHitsMissedByWalk += misses;
    if (misses != 0 && a.segmentsWithMisses++ == 0) a.firstSegmentWithMisses = i;
  }
}

#if ZMX_BENCH_HAVE_CGAL
void RunCgal(const Workload& w, Measured& m, Agreement& a, const std::vector<std::size_t>& pointCounts,
             const std::vector<std::size_t>& segmentCounts) {
  std::unique_ptr<CgalBoxTree> tree;
  double heapBefore = 0;
  m.buildSeconds = FastestOf([&] {
    tree.reset();
    heapBefore = HeapInUse();
    tree.reset(new CgalBoxTree(w.boxes));
  });
  m.heapBytes = HeapInUse() - heapBefore;
  unsigned long long total = 0;
  m.pointSeconds = FastestOf([&] {
    total = 0;
    for (const QueryPoint& q : w.points) total += tree->CountContaining(q.p);
  });
  m.pointQueries = w.points.size();
  m.pointCandidates = Mean(total, w.points.size());
  m.segmentSeconds = FastestOf([&] {
    total = 0;
    for (const Segment& s : w.segments) total += tree->CountCrossing(s);
  });
  m.segmentQueries = w.segments.size();
  m.segmentCandidates = Mean(total, w.segments.size());
  for (std::size_t i = 0; i < a.samplePoints; ++i)
    a.cgalPointMismatches += tree->CountContaining(w.points[i].p) != pointCounts[i];
  for (std::size_t i = 0; i < a.sampleSegments; ++i)
    a.cgalSegmentMismatches += tree->CountCrossing(w.segments[i]) != segmentCounts[i];
}
#endif

}  // namespace

double HeapInUse() { return static_cast<double>(mem_DLMallinfo().uordblks); }

WorkloadResult RunWorkload(const Workload& w, std::size_t bruteSample) {
  WorkloadResult r;
  r.tolerance = 0.25f * w.typicalSize;
  std::vector<std::size_t> pointCounts(bruteSample), segmentCounts(bruteSample);
  RunBrute(w, bruteSample, r.brute, pointCounts, segmentCounts);
  r.agreement.samplePoints = r.brute.pointQueries;
  r.agreement.sampleSegments = r.brute.segmentQueries;
  {
    OctreeContender octree(w, r.tolerance);
    octree.Build(r.octree);
    r.octreeExact.buildSeconds = r.octree.buildSeconds;
    r.octreeExact.heapBytes = r.octree.heapBytes;
    octree.Points<false>(r.octree);
    octree.Points<true>(r.octreeExact);
    octree.Segments<false>(r.octree, r.shape);
    octree.Segments<true>(r.octreeExact, r.shape);
    octree.Shape(r.shape);
    CheckOctree(octree, w, r.agreement);
  }
#if ZMX_BENCH_HAVE_CGAL
  RunCgal(w, r.cgal, r.agreement, pointCounts, segmentCounts);
#endif
  return r;
}

}  // namespace zmx_bench_octree
