// The point of a triangle closest to a point, as barycentric weights of its corners:
// the projection onto the plane when it falls inside, else onto the nearest edge or
// corner (the Voronoi regions of the triangle, tested by signs of dot products).
#pragma once

#include <cmath>

namespace elfes {

inline double dot3(const double* u, const double* v) { return u[0] * v[0] + u[1] * v[1] + u[2] * v[2]; }

/// Closest point to the origin of the segment a-b, as the weight t of b (1 - t of a);
/// returns its squared distance.
inline double closest_on_segment(const double* a, const double* b, double& t) {
  const double ab[3] = {b[0] - a[0], b[1] - a[1], b[2] - a[2]};
  const double length2 = dot3(ab, ab);
  t = length2 > 0 ? -dot3(a, ab) / length2 : 0.0;
  t = t < 0 ? 0.0 : t > 1 ? 1.0 : t;
  const double q[3] = {a[0] + t * ab[0], a[1] + t * ab[1], a[2] + t * ab[2]};
  return dot3(q, q);
}

/// Closest point to the origin of triangle (a, b, c), given relative to the query point:
/// w[0..2] its barycentric weights (>= 0, sum 1). Returns its squared distance. A flat
/// or needle triangle gets the closest point of its edges.
inline double closest_on_triangle(const double* a, const double* b, const double* c, double* w) {
  const double ab[3] = {b[0] - a[0], b[1] - a[1], b[2] - a[2]};
  const double ac[3] = {c[0] - a[0], c[1] - a[1], c[2] - a[2]};
  const double ap[3] = {-a[0], -a[1], -a[2]};
  const double d1 = dot3(ab, ap), d2 = dot3(ac, ap);
  const double bp[3] = {-b[0], -b[1], -b[2]};
  const double d3 = dot3(ab, bp), d4 = dot3(ac, bp);
  const double cp[3] = {-c[0], -c[1], -c[2]};
  const double d5 = dot3(ab, cp), d6 = dot3(ac, cp);
  const double va = d3 * d6 - d5 * d4, vb = d5 * d2 - d1 * d6, vc = d1 * d4 - d3 * d2;
  const double sum = va + vb + vc;
  if (va >= 0 && vb >= 0 && vc >= 0 && sum > 0 && std::isfinite(sum)) {  // inside the face region
    w[0] = va / sum, w[1] = vb / sum, w[2] = vc / sum;
    const double q[3] = {w[0] * a[0] + w[1] * b[0] + w[2] * c[0], w[0] * a[1] + w[1] * b[1] + w[2] * c[1],
                         w[0] * a[2] + w[1] * b[2] + w[2] * c[2]};
    return dot3(q, q);
  }
  // An edge or corner region (or a degenerate triangle): the best of the three edges.
  double t, best;
  best = closest_on_segment(a, b, t);
  w[0] = 1 - t, w[1] = t, w[2] = 0;
  const double on_bc = closest_on_segment(b, c, t);
  if (on_bc < best) best = on_bc, w[0] = 0, w[1] = 1 - t, w[2] = t;
  const double on_ca = closest_on_segment(c, a, t);
  if (on_ca < best) best = on_ca, w[0] = t, w[1] = 0, w[2] = 1 - t;
  return best;
}

}  // namespace elfes
