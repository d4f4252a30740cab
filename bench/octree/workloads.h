// Workloads of the octree benchmark: axis-aligned boxes kept by the client
// (uniform small boxes in a cube, or mesh-element-like boxes on a few surfaces
// and one refined volume cluster), the query points and segments, and the
// exact box tests the brute-force scan and the filtered octree answers use.
#ifndef ZMXUTI_BENCH_OCTREE_WORKLOADS_H
#define ZMXUTI_BENCH_OCTREE_WORKLOADS_H

#include <cstddef>
#include <string>
#include <utility>
#include <vector>

namespace zmx_bench_octree {

struct Box {
  float min[3];
  float max[3];
};

struct Segment {
  float a[3];
  float b[3];
};

struct QueryPoint {
  float p[3];
};

struct Workload {
  std::string name;
  std::vector<Box> boxes;
  float rootMin[3], rootMax[3];  // bounding box of all boxes, slightly padded
  float typicalSize;             // median of the boxes' largest edges
  float segmentLength;
  std::vector<QueryPoint> points;
  std::vector<Segment> segments;
};

// `boxes` boxes with edges of about boxes^(-1/3) in the unit cube.
Workload MakeUniform(std::size_t boxes, unsigned seed);
// 70% triangle boxes on five spheres, 10% flat boxes on an axis-aligned
// plane patch, 20% graded tetrahedron-like boxes in a small ball.
Workload MakeClustered(std::size_t boxes, unsigned seed);
// Adds `points` points, each inside a random box, and `segments` segments of
// ten typical element sizes starting inside a random box in a random direction.
void AddQueries(Workload& w, std::size_t points, std::size_t segments, unsigned seed);

// Closed box tests, as the exact answer every contender is checked against.
inline bool BoxContains(const Box& box, const float p[3]) {
  for (int i = 0; i < 3; ++i) {
    if (p[i] < box.min[i] || p[i] > box.max[i]) return false;
  }
  return true;
}

// A segment prepared for many slab tests against boxes: its start and the
// inverse of its direction in double. An axis the segment does not move along
// is a plain interval test, so nothing is ever divided by zero.
class SegmentTest {
 public:
  explicit SegmentTest(const Segment& s) {
    for (int i = 0; i < 3; ++i) {
      a_[i] = s.a[i];
      const double d = static_cast<double>(s.b[i]) - a_[i];
      moves_[i] = d != 0.0;
      inverse_[i] = moves_[i] ? 1.0 / d : 0.0;
    }
  }

  // Whether the segment meets the closed box.
  bool Crosses(const Box& box) const {
    double lo = 0.0, hi = 1.0;
    for (int i = 0; i < 3; ++i) {
      if (!moves_[i]) {
        if (a_[i] < box.min[i] || a_[i] > box.max[i]) return false;
        continue;
      }
      double t0 = (box.min[i] - a_[i]) * inverse_[i];
      double t1 = (box.max[i] - a_[i]) * inverse_[i];
      if (t0 > t1) std::swap(t0, t1);
      lo = t0 > lo ? t0 : lo;
      hi = t1 < hi ? t1 : hi;
      if (lo > hi) return false;
    }
    return true;
  }

 private:
  double a_[3], inverse_[3];
  bool moves_[3];
};

}  // namespace zmx_bench_octree

#endif  // ZMXUTI_BENCH_OCTREE_WORKLOADS_H
