// omi_OctreeLineTrav: walks a straight segment through an omi_Octree and hands
// out, one at a time and each once, the leaves the segment passes through or
// passes within a tolerance of.
//
//   omi_OctreeLineTrav walk;
//   float a[3] = {...}, b[3] = {...};
//   if (walk.Init(&tree, a, b, 0.001f))
//     while (const omi_OctreeLeaf* leaf = walk.NextCell()) ...
//
// The walk works in the segment parameter t (0 at the start, 1 at the end).
// From the leaves gathered at the current position it jumps to the earliest
// exit among them, then steps 2 * tolerance in space at a time until new
// leaves are gathered around the point reached (its leaf and the leaves of the
// eight probes at +/- tolerance per axis). The last gathering may lie up to one
// step beyond the end point; its leaves are still returned. A position where
// only probe leaves are new and the segment enters none of them ends the walk,
// so a leaf the segment crosses may go unreported. The walk also ends where
// the segment leaves the tree's box widened by the tolerance for good: beyond
// it no leaf lies within the tolerance, and stepping on to a far end point
// would take without bound.
//
// The tree must not change between Init and the null result of NextCell.
#ifndef ZMXUTI_CONTAINERS_OCTREE_LINE_TRAV_H
#define ZMXUTI_CONTAINERS_OCTREE_LINE_TRAV_H

#include "containers/blk_bit_vect.h"
#include "containers/octree.h"
#include "core/export.h"
#include "mem/allocation.h"

class ZMXUTI_API omi_OctreeLineTrav : public mem_AllocationOperators {
 public:
  // No tree, all points zero, nothing gathered.
  omi_OctreeLineTrav();
  ~omi_OctreeLineTrav();
  omi_OctreeLineTrav(const omi_OctreeLineTrav&) = delete;
  omi_OctreeLineTrav& operator=(const omi_OctreeLineTrav&) = delete;

  // Prepares the walk of the segment start -> end with the given tolerance and
  // gathers the first leaves: those at the start point when it lies in the
  // tree's box widened by the tolerance, else those at the nearest face entry.
  // False when the segment misses the tree, when an input is infinite or NaN,
  // or when no float holds the tree's box (nothing to walk). May be called
  // again for another segment; the set of visited leaves starts empty.
  bool Init(const omi_Octree* tree, float* const start, float* const end, float tolerance);
  // The next leaf, or null when the walk is over.
  const omi_OctreeLeaf* NextCell();

 private:
  // The parameter (at most 1) at which the segment leaves the leaf's box.
  float FindMaxCellIntersect(const omi_OctreeLeaf* leaf);
  // Parameter of the hit of face `face` on `axis` of the box [min, max]; false when missed.
  bool FaceHit(unsigned int axis, float face, const float* min, const float* max, float& t) const;
  // Sets leavesBox_ from the widened tree box [lo, hi].
  void FindBoxExit(const double* lo, const double* hi);
  // Whether the segment is tried against the faces of this axis.
  bool AxisUsable(unsigned int axis) const;
  // Gathers the unvisited leaves at p and its eight probes; returns how many.
  int GatherAt(const float* p);
  void Gather(const omi_OctreeLeaf* leaf);

  const omi_Octree* tree_;
  int found_;
  int next_;
  const omi_OctreeLeaf* gathered_[8];
  float start_[3];
  float end_[3];
  float direction_[3];
  float boxMin_[3];
  float boxMax_[3];
  float t_;
  float step_;
  float tolerance_;
  omi_BlkBitVect visited_;
  float leavesBox_;  // parameter from which the segment stays outside the widened tree box
};

#endif  // ZMXUTI_CONTAINERS_OCTREE_LINE_TRAV_H
