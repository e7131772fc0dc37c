// The size of one element as the angle measures' checks for degenerate elements see it:
// its longest edge, and its volume next to that edge's cube.
#pragma once

#include <cmath>

#include "common/element_tables.h"
#include "common/vec3.h"

namespace elfes {

// Below this share of the longest edge's length, square or cube, a direction or a
// volume is taken for rounding noise (which is about 1e-16 of them).
inline constexpr double degenerate_tolerance = 1e-12;

// Largest squared edge length of an element (NaN passed on).
template <solid_kind kind>
inline double longest_squared_edge(const vec3 (&p)[8]) {
  constexpr const solid_descriptor& solid = solid_table[kind];
  double longest = 0;
#pragma GCC unroll 12
  for (unsigned k = 0; k < solid.nb_edges; ++k) {
    const vec3 e = p[solid.edges[k][1]] - p[solid.edges[k][0]];
    const double squared = dot(e, e);
    if (!(squared <= longest)) longest = squared;
  }
  return longest;
}

// Six times the signed volume, split into tetrahedra as the volume function splits it.
template <solid_kind kind>
inline double six_volume(const vec3 (&p)[8]) {
  switch (kind) {
    case kind_TH4: return triple(p[0] - p[3], p[1] - p[3], p[2] - p[3]);
    case kind_PY5: return triple(p[0] - p[4], p[2] - p[4], p[1] - p[3]);
    case kind_W6: return triple(p[3] - p[2], p[4] - p[2], p[5] - p[2]) + triple(p[0] - p[2], p[4] - p[2], p[3] - p[1]);
    default:
      return triple(p[3] - p[1], p[4] - p[1], p[6] - p[0]) + triple(p[3] - p[1], p[6] - p[1], p[2] - p[1]) +
             triple(p[6] - p[4], p[6] - p[1], p[5] - p[6]) + triple(p[6] - p[4], p[3] - p[4], p[7] - p[4]);
  }
}

// An element is flat when its volume vanishes next to the cube of its longest edge
// (also for NaN coordinates, an absent node read as NaN, or an overflow).
template <solid_kind kind>
inline bool is_flat(const vec3 (&p)[8], double longest_squared) {
  const double scale = longest_squared * std::sqrt(longest_squared);
  return !(std::fabs(six_volume<kind>(p)) > degenerate_tolerance * scale) || !(scale < HUGE_VAL);
}

}  // namespace elfes
