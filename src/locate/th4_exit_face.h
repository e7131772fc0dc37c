// The element test of the point location: is a point inside a TH4, or through which
// face does it lie outside? Shared by the walk, the interpolations and their tests.
#pragma once

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

/// Tests point p against the TH4 with node coordinates node[0..3] (3 doubles each).
/// V = (P0 - P3) . ((P1 - P3) x (P2 - P3)) must be positive and finite, else th4_invalid.
/// The faces are tried in the cyclic order first + 1, first + 2, first + 3, first
/// (mod 4); the first face f whose S_f = (a - p) . ((b - p) x (c - p)) exceeds
/// V x tolerance is returned. -S_f / V is the barycentric coordinate of node f, so
/// th4_inside (-1) means every coordinate is at least -tolerance.
inline int TH4_exit_face(const double* const node[4], const double* p, double tolerance, unsigned first) {
  const double volume = triple_about(node[0], node[1], node[2], node[3]);
  if (!(volume > 0) || !std::isfinite(volume)) return th4_invalid;
  const double threshold = volume * tolerance;
  for (unsigned k = 1; k <= 4; ++k) {
    const unsigned f = (first + k) & 3u;
    const unsigned* face = th4_faces[f];
    if (triple_about(node[face[0]], node[face[1]], node[face[2]], p) > threshold) return static_cast<int>(f);
  }
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
