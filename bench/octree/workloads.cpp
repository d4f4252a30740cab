// Box and query generation of the octree benchmark; fixed seeds make every
// run build the same boxes and ask the same questions.
#include "workloads.h"

#include <algorithm>
#include <cmath>
#include <random>

namespace zmx_bench_octree {

namespace {

using Rng = std::mt19937_64;

double Uniform(Rng& rng, double lo, double hi) { return std::uniform_real_distribution<double>(lo, hi)(rng); }

struct Vec {
  double x, y, z;
};
Vec Add(Vec a, Vec b, double s) { return {a.x + b.x * s, a.y + b.y * s, a.z + b.z * s}; }
Vec Cross(Vec a, Vec b) { return {a.y * b.z - a.z * b.y, a.z * b.x - a.x * b.z, a.x * b.y - a.y * b.x}; }
double Length(Vec a) { return std::sqrt(a.x * a.x + a.y * a.y + a.z * a.z); }
Vec Scaled(Vec a, double s) { return {a.x * s, a.y * s, a.z * s}; }

Vec RandomDirection(Rng& rng) {
  std::normal_distribution<double> gauss(0.0, 1.0);
  for (;;) {
    const Vec v{gauss(rng), gauss(rng), gauss(rng)};
    const double len = Length(v);
    if (len > 1e-6) return Scaled(v, 1.0 / len);
  }
}

Box BoxOf(const Vec* corners, int count) {
  Box box{};
  const double* first = &corners[0].x;
  for (int axis = 0; axis < 3; ++axis) box.min[axis] = box.max[axis] = static_cast<float>(first[axis]);
  for (int c = 1; c < count; ++c) {
    const double* v = &corners[c].x;
    for (int axis = 0; axis < 3; ++axis) {
      box.min[axis] = std::min(box.min[axis], static_cast<float>(v[axis]));
      box.max[axis] = std::max(box.max[axis], static_cast<float>(v[axis]));
    }
  }
  return box;
}

// A triangle of edge about h lying in the plane through p with normal n.
Box TriangleBox(Rng& rng, Vec p, Vec n, double h) {
  Vec u = Cross(n, std::fabs(n.x) < 0.9 ? Vec{1, 0, 0} : Vec{0, 1, 0});
  u = Scaled(u, 1.0 / Length(u));
  const Vec v = Cross(n, u);
  const double angle = Uniform(rng, 0.0, 2.0 * M_PI);
  const double third = 2.0 * M_PI / 3.0;
  Vec corners[3];
  for (int c = 0; c < 3; ++c) {
    const double a = angle + c * third;
    corners[c] = Add(Add(p, u, h * 0.58 * std::cos(a)), v, h * 0.58 * std::sin(a));
  }
  return BoxOf(corners, 3);
}

// A tetrahedron of edge about h around p.
Box TetrahedronBox(Rng& rng, Vec p, double h) {
  Vec corners[4];
  for (Vec& c : corners) c = Add(p, RandomDirection(rng), h * 0.6);
  return BoxOf(corners, 4);
}

struct Sphere {
  Vec centre;
  double radius;
  double size;  // element size on this sphere
};

void SetRoot(Workload& w) {
  for (int axis = 0; axis < 3; ++axis) {
    float lo = w.boxes[0].min[axis], hi = w.boxes[0].max[axis];
    for (const Box& b : w.boxes) {
      lo = std::min(lo, b.min[axis]);
      hi = std::max(hi, b.max[axis]);
    }
    const float pad = (hi - lo) * 1e-3f;
    w.rootMin[axis] = lo - pad;
    w.rootMax[axis] = hi + pad;
  }
  std::vector<float> edges(w.boxes.size());
  for (std::size_t i = 0; i < w.boxes.size(); ++i) {
    const Box& b = w.boxes[i];
    edges[i] = std::max({b.max[0] - b.min[0], b.max[1] - b.min[1], b.max[2] - b.min[2]});
  }
  std::nth_element(edges.begin(), edges.begin() + edges.size() / 2, edges.end());
  w.typicalSize = edges[edges.size() / 2];
}

}  // namespace

Workload MakeUniform(std::size_t boxes, unsigned seed) {
  Workload w;
  w.name = "uniform";
  Rng rng(seed);
  const double edge = std::cbrt(1.0 / static_cast<double>(boxes));
  w.boxes.resize(boxes);
  for (Box& b : w.boxes) {
    for (int axis = 0; axis < 3; ++axis) {
      const double half = 0.5 * edge * Uniform(rng, 0.5, 1.5);
      const double c = Uniform(rng, half, 1.0 - half);
      b.min[axis] = static_cast<float>(c - half);
      b.max[axis] = static_cast<float>(c + half);
    }
  }
  SetRoot(w);
  return w;
}

Workload MakeClustered(std::size_t boxes, unsigned seed) {
  Workload w;
  w.name = "clustered";
  Rng rng(seed);
  Sphere spheres[5];
  double area = 0;
  for (Sphere& s : spheres) {
    s.centre = {Uniform(rng, 0.3, 0.7), Uniform(rng, 0.3, 0.7), Uniform(rng, 0.3, 0.7)};
    s.radius = Uniform(rng, 0.05, 0.25);
    area += s.radius * s.radius;
  }
  // Spheres share 70% of the elements by area, so their element sizes match
  // roughly; each sphere then varies it by a factor of up to 2 either way.
  const double sphereElements = 0.7 * static_cast<double>(boxes);
  for (Sphere& s : spheres) {
    const double count = sphereElements * s.radius * s.radius / area;
    s.size = std::sqrt(4.0 * M_PI * s.radius * s.radius / count * 2.3) * std::exp(Uniform(rng, -0.7, 0.7));
  }
  const double planeSize = std::sqrt(0.36 / (0.1 * static_cast<double>(boxes)) * 2.3);
  const Vec ball{0.62, 0.41, 0.55};
  const double ballRadius = 0.06;
  const double ballSize = std::cbrt(ballRadius * ballRadius * ballRadius * 4.2 / (0.2 * static_cast<double>(boxes)) * 6);
  w.boxes.resize(boxes);
  for (Box& b : w.boxes) {
    const double pick = Uniform(rng, 0.0, 1.0);
    if (pick < 0.7) {
      double r = Uniform(rng, 0.0, area);
      const Sphere* s = &spheres[0];
      for (const Sphere& candidate : spheres) {
        s = &candidate;
        r -= candidate.radius * candidate.radius;
        if (r <= 0) break;
      }
      const Vec n = RandomDirection(rng);
      b = TriangleBox(rng, Add(s->centre, n, s->radius), n, s->size * std::exp(Uniform(rng, -0.3, 0.3)));
    } else if (pick < 0.8) {
      // A flat patch z = 0.35 over [0.2, 0.8]^2: boxes of zero thickness in z.
      const Vec p{Uniform(rng, 0.2, 0.8), Uniform(rng, 0.2, 0.8), 0.35};
      b = TriangleBox(rng, p, Vec{0, 0, 1}, planeSize);
      b.min[2] = b.max[2] = 0.35f;
    } else {
      // Graded refinement: elements shrink towards the ball's centre.
      const Vec dir = RandomDirection(rng);
      const double r = ballRadius * std::cbrt(Uniform(rng, 0.0, 1.0));
      b = TetrahedronBox(rng, Add(ball, dir, r), ballSize * (0.15 + 1.7 * r / ballRadius));
    }
  }
  SetRoot(w);
  return w;
}

void AddQueries(Workload& w, std::size_t points, std::size_t segments, unsigned seed) {
  Rng rng(seed);
  std::uniform_int_distribution<std::size_t> anyBox(0, w.boxes.size() - 1);
  auto pointInBox = [&](float* out) {
    const Box& b = w.boxes[anyBox(rng)];
    for (int axis = 0; axis < 3; ++axis) out[axis] = static_cast<float>(Uniform(rng, b.min[axis], b.max[axis]));
  };
  w.points.resize(points);
  for (QueryPoint& q : w.points) pointInBox(q.p);
  w.segmentLength = 10.0f * w.typicalSize;
  w.segments.resize(segments);
  for (Segment& s : w.segments) {
    pointInBox(s.a);
    const Vec d = RandomDirection(rng);
    const double* dv = &d.x;
    for (int axis = 0; axis < 3; ++axis) s.b[axis] = static_cast<float>(s.a[axis] + dv[axis] * w.segmentLength);
  }
}

}  // namespace zmx_bench_octree
