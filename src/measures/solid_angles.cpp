// solid_angles: smallest and largest solid angle at the vertices, per element.
#include <cmath>

#include "common/shared_memory.h"
#include "measures/angle_walk.h"
#include "zel/tessel3d.h"

namespace zel {
namespace tessel3d {
namespace {

using elfes::solid_kind;
using elfes::vec3;

// Each trihedron: a vertex and its three neighbours, ordered so that the corners of a
// positively oriented element measure positive; one factor per kind except at the apex
// of a pyramid, which is split into two trihedra over the halves of its base.
struct corner_list {
  unsigned count;
  unsigned corner[8][4];
  double factor;
};

constexpr corner_list corners_table[4] = {
    // 5 / pi: the regular tetrahedron scores about 0.877, not 1 (kept on purpose)
    {4, {{0, 2, 1, 3}, {1, 0, 2, 3}, {2, 1, 0, 3}, {3, 1, 2, 0}}, 1.5915494309189535},
    // base corners, 1 / (2 asin(1/3)); then the two halves of the apex
    {6, {{0, 1, 3, 4}, {1, 2, 0, 4}, {2, 3, 1, 4}, {3, 0, 2, 4}, {4, 2, 1, 0}, {4, 0, 3, 2}}, 1.4712939827611635},
    {6, {{0, 1, 2, 3}, {1, 2, 0, 4}, {2, 0, 1, 5}, {3, 5, 4, 0}, {4, 3, 5, 1}, {5, 4, 3, 2}}, 0.9549296585513721},
    {8,
     {{0, 4, 1, 3}, {1, 5, 2, 0}, {2, 6, 3, 1}, {3, 7, 0, 2}, {4, 0, 7, 5}, {5, 1, 4, 6}, {6, 2, 5, 7}, {7, 3, 6, 4}},
     0.6366197723675814},
};
constexpr double py5_apex_factor = 0.7356469913805818;  // 1 / (4 asin(1/3))

// Every side of a trihedron is an edge of its element, walked from one end or the
// other. The unit vector of an edge is computed once per element and negated for the
// other end: q - p and p - q, their squared lengths and their quotients by the length
// are exact negatives of each other, so the values do not change.
struct trihedron_edges {
  unsigned edge[8][3];
  bool reversed[8][3];
  bool complete;  // every side found among the edges
};

constexpr trihedron_edges find_edges(solid_kind kind) {
  const elfes::solid_descriptor& solid = elfes::solid_table[kind];
  const corner_list& corners = corners_table[kind];
  trihedron_edges t{};
  t.complete = true;
  for (unsigned c = 0; c < corners.count; ++c)
    for (unsigned s = 0; s < 3; ++s) {
      const unsigned from = corners.corner[c][0], to = corners.corner[c][s + 1];
      bool found = false;
      for (unsigned k = 0; k < solid.nb_edges && !found; ++k) {
        const bool forward = solid.edges[k][0] == from && solid.edges[k][1] == to;
        const bool backward = solid.edges[k][0] == to && solid.edges[k][1] == from;
        if (forward || backward) {
          found = true;
          t.edge[c][s] = k;
          t.reversed[c][s] = backward;
        }
      }
      t.complete = t.complete && found;
    }
  return t;
}

constexpr trihedron_edges edges_table[4] = {find_edges(elfes::kind_TH4), find_edges(elfes::kind_PY5),
                                            find_edges(elfes::kind_W6), find_edges(elfes::kind_H8)};
static_assert(edges_table[0].complete && edges_table[1].complete && edges_table[2].complete && edges_table[3].complete,
              "every side of a trihedron is an edge");

// Scaled to unit length, except a zero vector or one already of exact unit length.
// Those are divided by 1, which leaves them exactly as they are and keeps the divisions
// free of branches.
inline vec3 direction(const vec3& a) {
  const double squared = dot(a, a);
  const double length = squared == 0 || squared == 1 ? 1.0 : std::sqrt(squared);
  return {a.x / length, a.y / length, a.z / length};
}

inline vec3 side(const vec3& edge, bool reversed) { return reversed ? vec3{-edge.x, -edge.y, -edge.z} : edge; }

// Solid angle of the trihedron spanned by the unit vectors a, b, c (positive when they
// turn right-handed), by the half-angle tangent formula of the spherical triangle.
inline double solid_angle(const vec3& a, const vec3& b, const vec3& c) {
  return 2.0 * std::atan2(elfes::triple(a, b, c), dot(c + b, b + a));
}

struct solid_measure {
  template <solid_kind kind, class Reader>
  static void extremes(const unsigned* column, const Reader& node, bool normalise, double& lo, double& hi) {
    elfes::extremes_of_list<solid_measure, kind>(column, node, normalise, lo, hi);
  }

  template <solid_kind kind, class Reader>
  static void element(const unsigned* column, const Reader& node, elfes::value_list& list) {
    constexpr const elfes::solid_descriptor& solid = elfes::solid_table[kind];
    constexpr const corner_list& corners = corners_table[kind];
    constexpr const trihedron_edges& sides = edges_table[kind];
    vec3 p[8];
    elfes::load_vertices<solid.nb_vertices>(column, node, p);
    vec3 unit[12];
#pragma GCC unroll 12
    for (unsigned k = 0; k < solid.nb_edges; ++k) unit[k] = direction(p[solid.edges[k][1]] - p[solid.edges[k][0]]);
    double angle[8];
#pragma GCC unroll 8
    for (unsigned c = 0; c < corners.count; ++c)
      angle[c] = solid_angle(side(unit[sides.edge[c][0]], sides.reversed[c][0]),
                             side(unit[sides.edge[c][1]], sides.reversed[c][1]),
                             side(unit[sides.edge[c][2]], sides.reversed[c][2]));
    if (kind == elfes::kind_PY5) {
      for (unsigned c = 0; c < 4; ++c) list.add(angle[c], corners.factor);
      list.add(angle[4] + angle[5], py5_apex_factor);
    } else {
#pragma GCC unroll 8
      for (unsigned c = 0; c < corners.count; ++c) list.add(angle[c], corners.factor);
    }
  }
};

// The checked form. A corner has no defined solid angle when a side is shorter than
// degenerate_tolerance times the longest edge, when two sides are parallel (a face at
// the corner has no direction), or when the three sides lie in a plane with the corner
// inside their angle: the value then jumps between -2 pi and 2 pi on the sign of a
// rounding error. Such corners are left out (a pyramid's apex when either half is) and
// the element is marked.
struct checked_solid_measure {
  struct corner_value {
    double angle;
    bool defined;
  };

  static corner_value trihedron(const vec3& a, const vec3& b, const vec3& c) {
    const double tolerance = elfes::degenerate_tolerance, parallel = tolerance * tolerance;
    const vec3 ab = elfes::cross(a, b), bc = elfes::cross(b, c), ca = elfes::cross(c, a);
    const double volume = dot(a, bc), spread = dot(c + b, b + a);
    const bool defined = dot(ab, ab) > parallel && dot(bc, bc) > parallel && dot(ca, ca) > parallel &&
                         (std::fabs(volume) > tolerance || spread > 0);
    return {2.0 * std::atan2(volume, spread), defined};
  }

  template <solid_kind kind, bool may_be_absent>
  static void element(const unsigned*, const vec3 (&p)[8], double longest_squared, elfes::element_values& list) {
    constexpr const elfes::solid_descriptor& solid = elfes::solid_table[kind];
    constexpr const corner_list& corners = corners_table[kind];
    constexpr const trihedron_edges& sides = edges_table[kind];
    const double shortest = elfes::degenerate_tolerance * elfes::degenerate_tolerance * longest_squared;
    vec3 unit[12];
    bool defined[12];
#pragma GCC unroll 12
    for (unsigned k = 0; k < solid.nb_edges; ++k) {
      const vec3 e = p[solid.edges[k][1]] - p[solid.edges[k][0]];
      const double squared = dot(e, e), length = std::sqrt(squared);
      defined[k] = squared > shortest;  // false for NaN
      unit[k] = {e.x / length, e.y / length, e.z / length};
    }
    corner_value value[8];
#pragma GCC unroll 8
    for (unsigned c = 0; c < corners.count; ++c) {
      const unsigned* e = sides.edge[c];
      value[c] = trihedron(side(unit[e[0]], sides.reversed[c][0]), side(unit[e[1]], sides.reversed[c][1]),
                           side(unit[e[2]], sides.reversed[c][2]));
      value[c].defined = value[c].defined && defined[e[0]] && defined[e[1]] && defined[e[2]];
    }
    const unsigned nb_values = kind == elfes::kind_PY5 ? 5 : corners.count;
    if (kind == elfes::kind_PY5) value[4] = {value[4].angle + value[5].angle, value[4].defined && value[5].defined};
    for (unsigned c = 0; c < nb_values; ++c) {
      if (!value[c].defined) {
        list.mark_degenerate();
        continue;
      }
      list.add(value[c].angle, kind == elfes::kind_PY5 && c == 4 ? py5_apex_factor : corners.factor);
    }
  }
};

}  // namespace

int solid_angles(const dense2D<double>& coords, const dense2D<unsigned>& connect, bool normalise,
                 dense1D<double, 8>& minValues, dense1D<double, 8>& maxValues, dense1D<unsigned, 8>& degenerate) {
  return elfes::walk_checked_angles<checked_solid_measure>(coords, connect, normalise, minValues, maxValues,
                                                           degenerate);
}

int solid_angles(const dense2D<double>& coords, const dense2D<unsigned>& connect, bool normalise,
                 dense1D<double, 8>& minValues, dense1D<double, 8>& maxValues) {
  if (elfes::share_memory(minValues, maxValues)) return -5;  // one vector cannot hold both
  if (elfes::shares_with_any(minValues, coords, connect) || elfes::shares_with_any(maxValues, coords, connect)) {
    dense2D<double> own_coords;
    dense2D<unsigned> own_connect;
    if (!own_coords.copy(coords) || !own_connect.copy(connect)) return tessel::OUT_OF_MEMORY;
    return elfes::walk_angles<solid_measure>(own_coords, own_connect, normalise, minValues, maxValues);
  }
  return elfes::walk_angles<solid_measure>(coords, connect, normalise, minValues, maxValues);
}

}  // namespace tessel3d
}  // namespace zel
