// The peer of the octree benchmark: CGAL's AABB tree over the client's boxes,
// behind an interface free of CGAL types so that only one file of the
// benchmark sees CGAL's headers (and the warnings they need relaxed).
#ifndef ZMXUTI_BENCH_OCTREE_CGAL_BOXES_H
#define ZMXUTI_BENCH_OCTREE_CGAL_BOXES_H

#include <cstddef>
#include <memory>
#include <vector>

#include "workloads.h"

namespace zmx_bench_octree {

class CgalBoxTree {
 public:
  // Builds the tree at once (no lazy build on the first query). The boxes must
  // outlive the tree; only one tree may exist at a time.
  explicit CgalBoxTree(const std::vector<Box>& boxes);
  ~CgalBoxTree();

  // Number of boxes containing the point (closed boxes).
  std::size_t CountContaining(const float p[3]) const;
  // Number of boxes the segment meets (closed boxes).
  std::size_t CountCrossing(const Segment& s) const;
  // The items of the boxes the segment meets, for the cross-checks.
  void ListCrossing(const Segment& s, std::vector<unsigned>& items) const;

 private:
  struct Impl;
  std::unique_ptr<Impl> impl_;
};

}  // namespace zmx_bench_octree

#endif  // ZMXUTI_BENCH_OCTREE_CGAL_BOXES_H
