// Triangle kernels shared by the circumcentres and the angle measures: the normal
// computed from the better-conditioned pair of edges, the quadrangle normal, and the
// circumcircle of a triangle solved in its own plane.
#pragma once

#include <cmath>

#include "common/vec3.h"

namespace elfes {

// Squared radius that marks a triangle without a circumcircle (the largest finite double).
constexpr double no_circle = 1.7976931348623157e308;

// (a - c) x (b - c), or the same vector as (a - c) x (b - a) when a-b is no longer than
// the shorter of the two other edges, so that the product avoids the shortest edge
// whenever it can.
inline vec3 triangle_normal(const vec3& a, const vec3& b, const vec3& c) {
  const vec3 ca = a - c, cb = b - c, ab = b - a;
  const double lab = dot(ab, ab), lca = dot(ca, ca), lcb = dot(cb, cb);
  if (lab > (lca < lcb ? lca : lcb)) return cross(ca, cb);
  return cross(ca, ab);
}

// Cross product of the diagonals, (c - a) x (d - b).
inline vec3 quadrangle_normal(const vec3& a, const vec3& b, const vec3& c, const vec3& d) {
  return cross(c - a, d - b);
}

// Solves [uu g; g vv] [x; y] = [r1; r2] by Cramer's rule, inv = 1 / determinant.
inline void cramer(double uu, double g, double vv, double r1, double r2, double inv, double& x, double& y) {
  x = (r1 * vv - g * r2) * inv;
  y = (uu * r2 - g * r1) * inv;
}

// Circumcircle of triangle (a, b, c): writes its centre and returns its squared radius,
// or no_circle (centre = c) for a triangle too flat to have one. The centre is sought
// as base + (alpha u + beta v) / 2 from the vertex opposite the shortest edge (c unless
// a-b is strictly the shortest), refined twice at most against the residual.
inline double triangle_circumcircle(const vec3& a, const vec3& b, const vec3& c, vec3& centre) {
  const vec3 ab = b - a, ca = a - c, cb = b - c;
  const double lab = dot(ab, ab);
  vec3 base = c, u = ca, v = cb;
  if (lab < dot(ca, ca) && lab < dot(cb, cb)) {
    base = a;
    u = c - a;
    v = ab;
  }
  const double uu = dot(u, u), vv = dot(v, v), g = dot(u, v);
  const double det = uu * vv - g * g;
  if (!(det > uu * 1e-12 * vv)) {
    centre = c;
    return no_circle;
  }
  const double inv = 1.0 / det;
  double alpha, beta;
  cramer(uu, g, vv, uu, vv, inv, alpha, beta);
  for (int pass = 0; pass < 2; ++pass) {
    const double r1 = uu - (uu * alpha + g * beta);
    const double r2 = vv - (g * alpha + vv * beta);
    double da, db;
    cramer(uu, g, vv, r1, r2, inv, da, db);
    alpha += da;
    beta += db;
    if (std::fabs(da) <= 1e-12 * std::fabs(alpha) && std::fabs(db) <= 1e-12 * std::fabs(beta)) break;
  }
  alpha *= 0.5;
  beta *= 0.5;
  const vec3 offset = {alpha * u.x + beta * v.x, alpha * u.y + beta * v.y, alpha * u.z + beta * v.z};
  centre = base + offset;
  return dot(offset, offset);
}

}  // namespace elfes
