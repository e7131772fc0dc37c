// The element test of the point location: is a point inside a TH4, or through which
// face does it lie outside? Shared by the walk, the interpolations and their tests.
#pragma once

#include <cfloat>
#include <cmath>

#include "common/element_tables.h"

namespace elfes {

// Face f of a TH4 is opposite local node f, read with its nodes (a, b, c).
inline constexpr const unsigned (&th4_faces)[6][4] = solid_table[kind_TH4].faces;

constexpr int th4_inside = -1;
constexpr int th4_invalid = -2;

// (a - p) . ((b - p) x (c - p)), differences to p taken first.
inline double triple_about(const double* a, const double* b, const double* c, const double* p) {
  const double ax = a[0] - p[0], ay = a[1] - p[1], az = a[2] - p[2];
  const double bx = b[0] - p[0], by = b[1] - p[1], bz = b[2] - p[2];
  const double cx = c[0] - p[0], cy = c[1] - p[1], cz = c[2] - p[2];
  return ax * (by * cz - bz * cy) + ay * (bz * cx - bx * cz) + az * (bx * cy - by * cx);
}

/// Relative margin of the box test below, in element extents: wide enough that no
/// rounding of the triple products near an element (however flat) is overruled by it.
constexpr double box_margin = 1.0 / 1024;

/// True when p can hold barycentric coordinates >= -tolerance in the TH4: within the
/// nodes' box widened by (4 tolerance + box_margin) extents plus the rounding of the
/// coordinates' magnitude. False for a coordinate that is not finite (or a NaN
/// tolerance). A point inside has each coordinate within 3 tolerance extents of the box.
inline bool near_th4_box(const double* const node[4], const double* p, double tolerance) {
  const double widen = 4 * (tolerance > 0 ? tolerance : 0.0) + box_margin;
  for (unsigned d = 0; d < 3; ++d) {
    const double lo = std::fmin(std::fmin(node[0][d], node[1][d]), std::fmin(node[2][d], node[3][d]));
    const double hi = std::fmax(std::fmax(node[0][d], node[1][d]), std::fmax(node[2][d], node[3][d]));
    const double slack = widen * (hi - lo) + 8 * DBL_EPSILON * std::fmax(std::fabs(lo), std::fabs(hi));
    if (!(p[d] >= lo - slack && p[d] <= hi + slack)) return false;
  }
  return true;
}

/// The exit face of a point far from the TH4 (see TH4_exit_face), from the same
/// triple products written (a - p) . ((b - a) x (c - a)): the face normal is then taken
/// from differences between nodes, which keep their digits whatever p is. The first
/// face in the cyclic order whose product is not <= threshold; `first` + 1 if none.
inline int far_exit_face(const double* const node[4], const double* p, double threshold, unsigned first) {
  for (unsigned k = 1; k <= 4; ++k) {
    const unsigned f = (first + k) & 3u;
    const double* a = node[th4_faces[f][0]];
    const double* b = node[th4_faces[f][1]];
    const double* c = node[th4_faces[f][2]];
    const double u[3] = {b[0] - a[0], b[1] - a[1], b[2] - a[2]}, v[3] = {c[0] - a[0], c[1] - a[1], c[2] - a[2]};
    const double s = (a[0] - p[0]) * (u[1] * v[2] - u[2] * v[1]) + (a[1] - p[1]) * (u[2] * v[0] - u[0] * v[2]) +
                     (a[2] - p[2]) * (u[0] * v[1] - u[1] * v[0]);
    if (!(s <= threshold)) return static_cast<int>(f);
  }
  return static_cast<int>((first + 1) & 3u);
}

/// Tests point p against the TH4 with node coordinates node[0..3] (3 doubles each).
/// V = (P0 - P3) . ((P1 - P3) x (P2 - P3)) must be positive and finite, else th4_invalid.
/// The faces are tried in the cyclic order first + 1, first + 2, first + 3, first
/// (mod 4); the first face f whose S_f = (a - p) . ((b - p) x (c - p)) exceeds
/// V x tolerance is returned. -S_f / V is the barycentric coordinate of node f, so
/// th4_inside (-1) means every coordinate is at least -tolerance.
/// Far from the element (beyond about 1e8 extents, or a coordinate that is not finite)
/// the differences to p lose every digit and the S_f round to 0, or overflow to NaN,
/// which no comparison calls outside; an inside verdict is therefore kept only for a
/// point near the element's box (near_th4_box), and a point beyond it gets the face of
/// far_exit_face. Near the element nothing changes.
inline int TH4_exit_face(const double* const node[4], const double* p, double tolerance, unsigned first) {
  const double volume = triple_about(node[0], node[1], node[2], node[3]);
  if (!(volume > 0) || !std::isfinite(volume)) return th4_invalid;
  const double threshold = volume * tolerance;
  for (unsigned k = 1; k <= 4; ++k) {
    const unsigned f = (first + k) & 3u;
    const unsigned* face = th4_faces[f];
    if (triple_about(node[face[0]], node[face[1]], node[face[2]], p) > threshold) return static_cast<int>(f);
  }
  if (!near_th4_box(node, p, tolerance)) return far_exit_face(node, p, threshold, first);
  return th4_inside;
}

/// The same test on column `element` of a TH4 connectivity (node IDs into coords).
inline int TH4_exit_face(const double* xyz, std::size_t ld_xyz, const unsigned* column, const double* p,
                         double tolerance, unsigned first) {
  const double* const node[4] = {xyz + column[0] * ld_xyz, xyz + column[1] * ld_xyz, xyz + column[2] * ld_xyz,
                                 xyz + column[3] * ld_xyz};
  return TH4_exit_face(node, p, tolerance, first);
}

}  // namespace elfes
