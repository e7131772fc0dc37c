// The dihedral-angle kernel of one element, shared by dihedral_angles and by the
// functions that judge the shape of elements they are about to create (the quality of
// an element being its smallest normalised dihedral angle).
#pragma once

#include <cmath>

#include "common/element_tables.h"
#include "common/vec3.h"
#include "measures/element_scale.h"
#include "measures/triangle_kernels.h"

namespace elfes {

// The faces meeting at each edge, as indices into the kind's face list (TH4 faces named
// by their opposite vertex), with the factor that scores the regular element 1.
struct face_pairs {
  unsigned count;
  unsigned pair[12][2];
  double factor[12];
};

inline constexpr double th4_factor = 0.8123744665443859;       // 1 / acos(1/3)
inline constexpr double py5_lateral = 0.5233866872132998;      // 1 / acos(-1/3)
inline constexpr double py5_base = 1.0467733744265997;         // 1 / acos(1/sqrt(3))
inline constexpr double w6_between_quads = 0.954929658551372;  // 3 / pi
inline constexpr double right_angle = 0.6366197723675814;      // 2 / pi

inline constexpr face_pairs pairs_table[4] = {
    {6,
     {{0, 3}, {1, 3}, {2, 3}, {2, 1}, {0, 2}, {1, 0}},
     {th4_factor, th4_factor, th4_factor, th4_factor, th4_factor, th4_factor}},
    // lateral edges k-4 (faces k and k-1), then base edges k-(k+1) (base and face k)
    {8,
     {{0, 3}, {1, 0}, {2, 1}, {3, 2}, {4, 0}, {4, 1}, {4, 2}, {4, 3}},
     {py5_lateral, py5_lateral, py5_lateral, py5_lateral, py5_base, py5_base, py5_base, py5_base}},
    // lateral edges (quadrangle pairs), then the edges of the two triangles
    {9,
     {{4, 3}, {2, 4}, {3, 2}, {0, 2}, {0, 3}, {0, 4}, {2, 1}, {3, 1}, {4, 1}},
     {w6_between_quads, w6_between_quads, w6_between_quads, right_angle, right_angle, right_angle, right_angle,
      right_angle, right_angle}},
    {12,
     {{4, 2}, {4, 1}, {4, 3}, {4, 0}, {2, 5}, {1, 5}, {3, 5}, {0, 5}, {2, 0}, {1, 2}, {3, 1}, {0, 3}},
     {right_angle, right_angle, right_angle, right_angle, right_angle, right_angle, right_angle, right_angle,
      right_angle, right_angle, right_angle, right_angle}},
};

// The pairs of a kind that share one factor, as ranges of its pair list: the pyramid's
// lateral then base edges, the wedge's edges between quadrangles then the others.
struct factor_groups {
  unsigned count;
  unsigned end[2];
};
inline constexpr factor_groups groups_table[4] = {{1, {6, 6}}, {2, {4, 8}}, {2, {3, 9}}, {1, {12, 12}}};

// Cosines closer than this to a group's extreme cosine have their arc cosine taken to
// find the extreme angle: an arc cosine is off by less than an ulp of its result (below
// 5e-16) and moves at least as fast as its argument, so a cosine farther away cannot
// give the extreme angle, whatever the rounding.
inline constexpr double cosine_margin = 1e-12;

// Interior angle between two faces from their inward normals na, nb:
// acos(-(na . nb) / sqrt(|na|^2 |nb|^2)), or 0 when a normal vanishes. The cosine is
// deliberately not clamped. The cosines of an element are formed first and the arc
// cosines taken after, so that the arithmetic of all pairs can overlap. Each angle goes
// to list.add(angle, factor).
struct dihedral_measure {
  template <solid_kind kind, class Reader>
  static void cosines(const unsigned* column, const Reader& node, double (&cosine)[12], bool (&defined)[12]) {
    constexpr const solid_descriptor& solid = solid_table[kind];
    constexpr const face_pairs& pairs = pairs_table[kind];
    vec3 p[8];
    load_vertices<solid.nb_vertices>(column, node, p);
    vec3 normal[6];
    double squared[6];
#pragma GCC unroll 6
    for (unsigned f = 0; f < solid.nb_faces; ++f) {
      const unsigned* v = solid.faces[f];
      // A pyramid base or wedge side without its fourth node (mixed layout) is a triangle.
      const bool triangle =
          solid.face_size[f] == 3 || (Reader::may_be_absent && kind != kind_H8 && column[v[3]] == ABSENT);
      normal[f] =
          triangle ? triangle_normal(p[v[0]], p[v[1]], p[v[2]]) : quadrangle_normal(p[v[0]], p[v[1]], p[v[2]], p[v[3]]);
      squared[f] = dot(normal[f], normal[f]);
    }
#pragma GCC unroll 12
    for (unsigned k = 0; k < pairs.count; ++k) {
      const unsigned a = pairs.pair[k][0], b = pairs.pair[k][1];
      const double product = squared[a] * squared[b];
      defined[k] = product > 0;
      cosine[k] = -dot(normal[a], normal[b]) / std::sqrt(defined[k] ? product : 1.0);
    }
  }

  template <solid_kind kind, class Reader, class List>
  static void element(const unsigned* column, const Reader& node, List& list) {
    constexpr const face_pairs& pairs = pairs_table[kind];
    double cosine[12];
    bool defined[12];
    cosines<kind>(column, node, cosine, defined);
#pragma GCC unroll 12
    for (unsigned k = 0; k < pairs.count; ++k) list.add(defined[k] ? std::acos(cosine[k]) : 0.0, pairs.factor[k]);
  }

  // The smallest and largest value of element(), bit for bit, with two arc cosines per
  // group of pairs instead of one per pair where every cosine lies in [-1, 1]: within a
  // group (one factor) the smallest angle is the arc cosine of the largest cosine (0
  // when a pair is undefined), the largest that of the smallest cosine, and scaling by a
  // positive factor keeps the order. Elements with a NaN value (a cosine outside
  // [-1, 1], NaN coordinates) take the list's path, whose comparisons pass NaN on.
  template <solid_kind kind, class Reader>
  static void extremes(const unsigned* column, const Reader& node, bool normalise, double& lo, double& hi) {
    constexpr const face_pairs& pairs = pairs_table[kind];
    constexpr const factor_groups& groups = groups_table[kind];
    double cosine[12];
    bool defined[12];
    cosines<kind>(column, node, cosine, defined);
    bool in_range = true;
#pragma GCC unroll 12
    for (unsigned k = 0; k < pairs.count; ++k) in_range &= !defined[k] || (cosine[k] >= -1 && cosine[k] <= 1);
    if (!in_range) {
      double value[12];
      for (unsigned k = 0; k < pairs.count; ++k) {
        const double angle = defined[k] ? std::acos(cosine[k]) : 0.0;
        value[k] = normalise ? angle * pairs.factor[k] : angle;
      }
      lo = hi = value[0];
      for (unsigned k = 1; k < pairs.count; ++k) {
        if (!(value[k] >= lo)) lo = value[k];
        if (!(hi >= value[k])) hi = value[k];
      }
      return;
    }
    lo = HUGE_VAL;
    hi = -HUGE_VAL;
    for (unsigned g = 0, begin = 0; g < groups.count; begin = groups.end[g++]) {
      double largest = -HUGE_VAL, smallest = HUGE_VAL;
      bool any_undefined = false;
      for (unsigned k = begin; k < groups.end[g]; ++k) {
        any_undefined |= !defined[k];
        if (!defined[k]) continue;
        largest = cosine[k] > largest ? cosine[k] : largest;
        smallest = cosine[k] < smallest ? cosine[k] : smallest;
      }
      double group_lo = any_undefined ? 0.0 : HUGE_VAL, group_hi = 0.0;
      for (unsigned k = begin; k < groups.end[g]; ++k) {
        if (!defined[k]) continue;
        if (!any_undefined && cosine[k] >= largest - cosine_margin) {
          const double angle = std::acos(cosine[k]);
          group_lo = angle < group_lo ? angle : group_lo;
        }
        if (cosine[k] <= smallest + cosine_margin) {
          const double angle = std::acos(cosine[k]);
          group_hi = angle > group_hi ? angle : group_hi;
        }
      }
      const double factor = normalise ? pairs.factor[begin] : 1.0;
      group_lo = normalise ? group_lo * factor : group_lo;
      group_hi = normalise ? group_hi * factor : group_hi;
      lo = group_lo < lo ? group_lo : lo;
      hi = group_hi > hi ? group_hi : hi;
    }
  }
};

// The checked form. A face whose normal is shorter than degenerate_tolerance times the
// squared longest edge has no direction: its pairs are left out and the element is
// marked. The others give atan2(|na x nb|, -(na . nb)) from the unit normals, which lies
// in [0, pi] and keeps its precision near 0 and pi, where an arc cosine loses half the
// digits (and, unclamped, leaves its domain).
struct checked_dihedral_measure {
  template <solid_kind kind, bool may_be_absent, class List>
  static void element(const unsigned* column, const vec3 (&p)[8], double longest_squared, List& list) {
    constexpr const solid_descriptor& solid = solid_table[kind];
    constexpr const face_pairs& pairs = pairs_table[kind];
    const double smallest = degenerate_tolerance * longest_squared;
    vec3 unit[6];
    bool defined[6];
#pragma GCC unroll 6
    for (unsigned f = 0; f < solid.nb_faces; ++f) {
      const unsigned* v = solid.faces[f];
      const bool triangle = solid.face_size[f] == 3 || (may_be_absent && kind != kind_H8 && column[v[3]] == ABSENT);
      const vec3 n =
          triangle ? triangle_normal(p[v[0]], p[v[1]], p[v[2]]) : quadrangle_normal(p[v[0]], p[v[1]], p[v[2]], p[v[3]]);
      const double length = std::sqrt(dot(n, n));
      defined[f] = length > smallest && length < HUGE_VAL;  // false for NaN
      unit[f] = {n.x / length, n.y / length, n.z / length};
    }
    // Only the extremes of the element are kept: the pairs are ranked by the cosine of
    // their angle, and the arc tangent is taken for those within cosine_margin of the
    // largest or smallest cosine of their group. (The sine and cosine of a pair lie on a
    // circle of radius 1 up to a few ulps, so cosines farther apart than the margin
    // belong to angles at least about as far apart.)
    double cosine[12];
    bool pair_defined[12];
#pragma GCC unroll 12
    for (unsigned k = 0; k < pairs.count; ++k) {
      const unsigned a = pairs.pair[k][0], b = pairs.pair[k][1];
      pair_defined[k] = defined[a] && defined[b];
      cosine[k] = -dot(unit[a], unit[b]);
    }
    constexpr const factor_groups& groups = groups_table[kind];
    for (unsigned g = 0, begin = 0; g < groups.count; begin = groups.end[g++]) {
      double lowest = HUGE_VAL, highest = -HUGE_VAL;
      for (unsigned k = begin; k < groups.end[g]; ++k) {
        if (!pair_defined[k]) continue;
        lowest = cosine[k] < lowest ? cosine[k] : lowest;
        highest = cosine[k] > highest ? cosine[k] : highest;
      }
      for (unsigned k = begin; k < groups.end[g]; ++k) {
        if (!pair_defined[k]) {
          list.mark_degenerate();
          continue;
        }
        // Every pair when a cosine is NaN (never for finite unit normals).
        if (cosine[k] <= lowest + cosine_margin || cosine[k] >= highest - cosine_margin || !(highest >= lowest)) {
          const unsigned a = pairs.pair[k][0], b = pairs.pair[k][1];
          const vec3 sine = cross(unit[a], unit[b]);
          list.add(std::atan2(std::sqrt(dot(sine, sine)), cosine[k]), pairs.factor[k]);
        }
      }
    }
  }
};

// The smallest normalised value of an element, with the comparisons of the angle
// functions' extremes ("x >= lo" false takes x, so a NaN is passed on as they pass it).
// Needs no memory, unlike the walk's value list.
class smallest_normalised {
 public:
  void add(double value, double factor) {
    const double x = value * factor;
    if (empty_ || !(x >= lo_)) lo_ = x;
    empty_ = false;
  }
  double value() const { return lo_; }

 private:
  double lo_ = 0;
  bool empty_ = true;
};

// Smallest normalised dihedral angle of one element of the given kind.
template <solid_kind kind, class Reader>
inline double smallest_dihedral(const unsigned* column, const Reader& node) {
  smallest_normalised lowest;
  dihedral_measure::element<kind>(column, node, lowest);
  return lowest.value();
}

}  // namespace elfes
