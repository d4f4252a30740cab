// CGAL's AABB tree over the client's boxes: a primitive that is only the item
// number (4 bytes, like the octree's stored item), whose datum is the box read
// back from the client's array as an Iso_cuboid_3 of the Simple_cartesian<double>
// kernel, and whose reference point for the tree's splits is the box centre.
#include "cgal_boxes.h"

#include <CGAL/AABB_traits.h>
#include <CGAL/AABB_tree.h>
#include <CGAL/Simple_cartesian.h>
#include <boost/iterator/counting_iterator.hpp>

namespace zmx_bench_octree {

namespace {

using Kernel = CGAL::Simple_cartesian<double>;

// The boxes of the tree being built or queried; the primitive stays one item
// number wide by reading them from here.
const Box* g_treeBoxes = nullptr;

struct BoxPrimitive {
  using Point = Kernel::Point_3;
  using Datum = Kernel::Iso_cuboid_3;
  using Id = unsigned;

  BoxPrimitive() = default;
  // The tree makes its primitives from the iterators of the range it is given.
  explicit BoxPrimitive(boost::counting_iterator<unsigned> item) : item_(*item) {}

  Id id() const { return item_; }
  Datum datum() const {
    const Box& b = g_treeBoxes[item_];
    return Datum(b.min[0], b.min[1], b.min[2], b.max[0], b.max[1], b.max[2]);
  }
  Point reference_point() const {
    const Box& b = g_treeBoxes[item_];
    return Point(0.5 * (double(b.min[0]) + b.max[0]), 0.5 * (double(b.min[1]) + b.max[1]),
                 0.5 * (double(b.min[2]) + b.max[2]));
  }

 private:
  unsigned item_ = 0;
};

using Traits = CGAL::AABB_traits<Kernel, BoxPrimitive>;
using Tree = CGAL::AABB_tree<Traits>;

// Counts what the tree writes instead of storing it.
struct CountingOutput {
  std::size_t* count;
  CountingOutput& operator*() { return *this; }
  CountingOutput& operator++() { return *this; }
  CountingOutput operator++(int) { return *this; }
  CountingOutput& operator=(unsigned) {
    ++*count;
    return *this;
  }
};

Kernel::Segment_3 ToSegment(const Segment& s) {
  return Kernel::Segment_3(Kernel::Point_3(s.a[0], s.a[1], s.a[2]), Kernel::Point_3(s.b[0], s.b[1], s.b[2]));
}

}  // namespace

struct CgalBoxTree::Impl {
  Tree tree;
};

CgalBoxTree::CgalBoxTree(const std::vector<Box>& boxes) : impl_(new Impl) {
  g_treeBoxes = boxes.data();
  impl_->tree.insert(boost::counting_iterator<unsigned>(0),
                     boost::counting_iterator<unsigned>(static_cast<unsigned>(boxes.size())));
  impl_->tree.build();
}

CgalBoxTree::~CgalBoxTree() = default;

std::size_t CgalBoxTree::CountContaining(const float p[3]) const {
  std::size_t count = 0;
  impl_->tree.all_intersected_primitives(Kernel::Point_3(p[0], p[1], p[2]), CountingOutput{&count});
  return count;
}

std::size_t CgalBoxTree::CountCrossing(const Segment& s) const {
  std::size_t count = 0;
  impl_->tree.all_intersected_primitives(ToSegment(s), CountingOutput{&count});
  return count;
}

void CgalBoxTree::ListCrossing(const Segment& s, std::vector<unsigned>& items) const {
  items.clear();
  impl_->tree.all_intersected_primitives(ToSegment(s), std::back_inserter(items));
}

}  // namespace zmx_bench_octree
