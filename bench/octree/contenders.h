// The contenders of the octree benchmark on one workload: the library's octree
// (point location with FindCell, segments with omi_OctreeLineTrav), CGAL's AABB
// tree and a brute-force scan, each measured for build time, heap bytes, point
// and segment query rates and the candidates each answer holds.
#ifndef ZMXUTI_BENCH_OCTREE_CONTENDERS_H
#define ZMXUTI_BENCH_OCTREE_CONTENDERS_H

#include <cstddef>
#include <string>
#include <vector>

#include "workloads.h"

namespace zmx_bench_octree {

// What one contender measured; a negative value was not measured.
struct Measured {
  double buildSeconds = -1;
  double heapBytes = -1;
  double pointSeconds = -1;  // for pointQueries points
  double pointCandidates = -1;  // mean per point
  double segmentSeconds = -1;  // for segmentQueries segments
  double segmentCandidates = -1;  // mean per segment
  std::size_t pointQueries = 0;
  std::size_t segmentQueries = 0;
};

// The octree's shape after the build, for the notes.
struct OctreeShape {
  unsigned leaves = 0, growableLeaves = 0, maxItemsInLeaf = 0, maxDepth = 0;
  double storedItems = 0;  // an item is counted in every leaf that holds it
  double leavesPerSegment = 0, rawItemsPerSegment = 0;  // before deduplication
};

// How far each contender's answers agree with the exact brute-force answers on
// the sample queries.
struct Agreement {
  std::size_t samplePoints = 0, sampleSegments = 0;
  std::size_t pointHitsMissedByLeaf = 0;  // boxes containing a point but absent from its leaf
  std::size_t segmentHits = 0, segmentHitsMissedByWalk = 0;  // exact hits absent from the walk's candidates
  std::size_t segmentsWithMisses = 0;
  std::size_t firstSegmentWithMisses = 0;  // its index, when segmentsWithMisses > 0
  std::size_t cgalPointMismatches = 0, cgalSegmentMismatches = 0;  // queries whose counts differ
};

struct WorkloadResult {
  Measured octree, octreeExact, cgal, brute;
  OctreeShape shape;
  Agreement agreement;
  float tolerance = 0;
};

// Runs every contender on `w`: the brute force on the first `bruteSample`
// points and segments only.
WorkloadResult RunWorkload(const Workload& w, std::size_t bruteSample);

// The library heap's bytes in use.
double HeapInUse();

}  // namespace zmx_bench_octree

#endif  // ZMXUTI_BENCH_OCTREE_CONTENDERS_H
