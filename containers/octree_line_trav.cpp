// The octree's segment walk: entry into the tree's box, gathering of the
// leaves around a point, the jump to the earliest exit and the stepping
// across the gaps between leaves.
#include "containers/octree_line_trav.h"

#include <algorithm>
#include <cfloat>
#include <cmath>

namespace {

// The point arithmetic runs in double and is stored clamped, so that extreme
// but finite segments can neither overflow nor leave NaN behind. The
// comparisons are the quiet ones: the library's start-up switches the
// floating-point traps on.
float ToFloat(double value) {
  if (std::isgreater(value, FLT_MAX)) return FLT_MAX;
  if (std::isless(value, -FLT_MAX)) return -FLT_MAX;
  return static_cast<float>(value);
}

// The root's box; false when no float holds it (a centre or half-size that is
// infinite or NaN, or a corner beyond float range), so that no arithmetic on
// the tree's cells can meet an infinity minus an infinity or a NaN.
bool RootBox(const omi_OctreeCell* root, float* min, float* max) {
  const float c[3] = {root->Centre().x, root->Centre().y, root->Centre().z};
  const float h[3] = {root->HalfSize().x, root->HalfSize().y, root->HalfSize().z};
  for (unsigned int a = 0; a < 3; ++a) {
    if (!std::isfinite(c[a]) || !std::isfinite(h[a])) return false;
    const double lo = static_cast<double>(c[a]) - h[a];
    const double hi = static_cast<double>(c[a]) + h[a];
    if (std::fabs(lo) > FLT_MAX || std::fabs(hi) > FLT_MAX) return false;
    min[a] = static_cast<float>(lo);
    max[a] = static_cast<float>(hi);
  }
  return true;
}

bool AllFinite(const float* v) { return std::isfinite(v[0]) && std::isfinite(v[1]) && std::isfinite(v[2]); }

void BoxOf(const omi_OctreeCell* cell, float* min, float* max) {
  const omi_OctVector& c = cell->Centre();
  const omi_OctVector& h = cell->HalfSize();
  min[0] = ToFloat(static_cast<double>(c.x) - h.x);
  min[1] = ToFloat(static_cast<double>(c.y) - h.y);
  min[2] = ToFloat(static_cast<double>(c.z) - h.z);
  max[0] = ToFloat(static_cast<double>(c.x) + h.x);
  max[1] = ToFloat(static_cast<double>(c.y) + h.y);
  max[2] = ToFloat(static_cast<double>(c.z) + h.z);
}

}  // namespace

omi_OctreeLineTrav::omi_OctreeLineTrav()
    : tree_(nullptr),
      found_(0),
      next_(0),
      gathered_(),
      start_(),
      end_(),
      direction_(),
      boxMin_(),
      boxMax_(),
      t_(0.0f),
      step_(0.0f),
      tolerance_(0.0f),
      leavesBox_(0.0f) {}

omi_OctreeLineTrav::~omi_OctreeLineTrav() {}

bool omi_OctreeLineTrav::Init(const omi_Octree* tree, float* const start, float* const end, float tolerance) {
  tree_ = tree;
  found_ = 0;
  next_ = 0;
  t_ = 0.0f;
  visited_.Clear();
  // Non-finite input (and a tree missing) leaves nothing to walk; a negative
  // tolerance would step backwards for ever and counts as 0.
  if (tree == nullptr || !AllFinite(start) || !AllFinite(end) || !std::isfinite(tolerance)) return false;
  tolerance_ = tolerance > 0.0f ? tolerance : 0.0f;
  double lengthSquared = 0.0;
  for (unsigned int a = 0; a < 3; ++a) {
    start_[a] = start[a];
    end_[a] = end[a];
    const double d = static_cast<double>(end[a]) - start[a];
    if (std::fabs(d) > FLT_MAX) return false;  // an extent no float can hold
    direction_[a] = static_cast<float>(d);
    lengthSquared += d * d;
  }
  const double length = std::sqrt(lengthSquared);
  // A zero-length segment (even with tolerance 0) takes the single step 1.
  step_ = length > 0.0 && 2.0 * tolerance_ <= length ? static_cast<float>(2.0 * tolerance_ / length) : 1.0f;

  if (!RootBox(tree->Root(), boxMin_, boxMax_)) return false;
  bool inside = true;
  double lo[3], hi[3];
  for (unsigned int a = 0; a < 3; ++a) {
    lo[a] = static_cast<double>(boxMin_[a]) - tolerance_;
    hi[a] = static_cast<double>(boxMax_[a]) + tolerance_;
    if ((start_[a] < lo[a] && end_[a] < lo[a]) || (start_[a] > hi[a] && end_[a] > hi[a])) return false;
    if (start_[a] < lo[a] || start_[a] > hi[a]) inside = false;
  }
  FindBoxExit(lo, hi);
  if (inside) return GatherAt(start_) > 0;

  float entry = 2.0f;
  for (unsigned int axis = 0; axis < 3; ++axis) {
    if (!AxisUsable(axis)) continue;
    float t;
    if (FaceHit(axis, boxMin_[axis], boxMin_, boxMax_, t) && t < entry) entry = t;
    if (FaceHit(axis, boxMax_[axis], boxMin_, boxMax_, t) && t < entry) entry = t;
  }
  if (entry < 0.0f || entry > 1.0f) return false;
  float p[3];
  for (unsigned int a = 0; a < 3; ++a) p[a] = ToFloat(start_[a] + static_cast<double>(direction_[a]) * entry);
  return GatherAt(p) > 0;
}

const omi_OctreeLeaf* omi_OctreeLineTrav::NextCell() {
  if (next_ < found_) return gathered_[next_++];
  // Continue from the earliest exit among the leaves gathered at the last position.
  float exit = 1.0f;
  for (int i = 0; i < found_; ++i) {
    const float r = FindMaxCellIntersect(gathered_[i]);
    if (r > 0.0f && r < exit) exit = r;
  }
  t_ = exit;
  found_ = 0;
  if (t_ >= 1.0f) return nullptr;
  for (;;) {
    const float advanced = t_ + step_;
    // A step too small to move t in float precision moves it by one unit in
    // the last place instead, so that the walk always ends.
    t_ = advanced > t_ ? advanced : std::nextafter(t_, 2.0f);
    if (t_ > leavesBox_) return nullptr;
    float p[3];
    for (unsigned int a = 0; a < 3; ++a) p[a] = ToFloat(start_[a] + static_cast<double>(direction_[a]) * t_);
    if (GatherAt(p) > 0) break;
    if (t_ >= 1.0f) return nullptr;
  }
  next_ = 1;
  return gathered_[0];
}

void omi_OctreeLineTrav::FindBoxExit(const double* lo, const double* hi) {
  double exit = 2.0;  // past any step beyond the end point
  for (unsigned int a = 0; a < 3; ++a) {
    if (direction_[a] == 0.0f) continue;
    const double toLo = (lo[a] - start_[a]) / direction_[a];
    const double toHi = (hi[a] - start_[a]) / direction_[a];
    exit = std::min(exit, std::max(toLo, toHi));
  }
  leavesBox_ = ToFloat(exit);
}

float omi_OctreeLineTrav::FindMaxCellIntersect(const omi_OctreeLeaf* leaf) {
  float min[3];
  float max[3];
  BoxOf(leaf, min, max);
  float r = 0.0f;
  for (unsigned int axis = 0; axis < 3; ++axis) {
    if (!AxisUsable(axis)) continue;
    float t;
    if (FaceHit(axis, min[axis], min, max, t) && t > r) r = t;
    if (FaceHit(axis, max[axis], min, max, t) && t > r) r = t;
  }
  return r < 1.0f ? r : 1.0f;
}

bool omi_OctreeLineTrav::AxisUsable(unsigned int axis) const {
  // Also skips a zero component under tolerance 0, which the division cannot take.
  const float d = std::fabs(direction_[axis]);
  return !(tolerance_ > d) && d > 0.0f;
}

bool omi_OctreeLineTrav::FaceHit(unsigned int axis, float face, const float* min, const float* max, float& t) const {
  const double e = tolerance_;
  const double hit = (static_cast<double>(face) - start_[axis]) / direction_[axis];
  if (hit + e < 0.0 || hit - e > 1.0) return false;
  const unsigned int others[2] = {(axis + 1) % 3, (axis + 2) % 3};
  for (unsigned int a : others) {
    const double coordinate = start_[a] + static_cast<double>(direction_[a]) * hit;
    if (coordinate - e > max[a] || min[a] > coordinate + e) return false;
  }
  t = ToFloat(hit);
  return true;
}

int omi_OctreeLineTrav::GatherAt(const float* p) {
  found_ = 0;
  next_ = 0;
  const omi_OctreeLeaf* centreLeaf = tree_->FindCell(p);
  Gather(centreLeaf);
  float min[3];
  float max[3];
  BoxOf(centreLeaf, min, max);
  const double e = tolerance_;
  for (int dx = -1; dx <= 1; dx += 2) {
    for (int dy = -1; dy <= 1; dy += 2) {
      for (int dz = -1; dz <= 1; dz += 2) {
        const float probe[3] = {ToFloat(p[0] + dx * e), ToFloat(p[1] + dy * e), ToFloat(p[2] + dz * e)};
        bool outside = false;
        for (unsigned int a = 0; a < 3; ++a) outside = outside || probe[a] < min[a] || probe[a] > max[a];
        if (outside) Gather(tree_->FindCell(probe));
      }
    }
  }
  return found_;
}

void omi_OctreeLineTrav::Gather(const omi_OctreeLeaf* leaf) {
  // Eight slots: a tree split no finer than the tolerance never fills them;
  // should it, the ninth leaf stays unvisited and may be gathered later.
  if (found_ >= 8 || visited_.TestBit(leaf->Number())) return;
  gathered_[found_++] = leaf;
  visited_.SetBit(leaf->Number());
}
