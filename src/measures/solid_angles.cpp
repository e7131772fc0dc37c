// solid_angles: smallest and largest solid angle at the vertices, per element.
#include <cmath>

#include "measures/angle_walk.h"
#include "zel/tessel3d.h"

namespace zel {
namespace tessel3d {
namespace {

using elfes::solid_kind;
using elfes::vec3;

// Each corner: the vertex and its three neighbours, ordered so that the corner of a
// positively oriented element measures positive; one factor per kind.
struct corner_list {
  unsigned count;
  unsigned corner[8][4];
  double factor;
};

constexpr corner_list corners_table[4] = {
    // 5 / pi: the regular tetrahedron scores about 0.877, not 1 (kept on purpose)
    {4, {{0, 2, 1, 3}, {1, 0, 2, 3}, {2, 1, 0, 3}, {3, 1, 2, 0}}, 1.5915494309189535},
    // the base corners only (1 / (2 asin(1/3))); the apex is split in two, see below
    {4, {{0, 1, 3, 4}, {1, 2, 0, 4}, {2, 3, 1, 4}, {3, 0, 2, 4}}, 1.4712939827611635},
    {6, {{0, 1, 2, 3}, {1, 2, 0, 4}, {2, 0, 1, 5}, {3, 5, 4, 0}, {4, 3, 5, 1}, {5, 4, 3, 2}}, 0.9549296585513721},
    {8,
     {{0, 4, 1, 3}, {1, 5, 2, 0}, {2, 6, 3, 1}, {3, 7, 0, 2}, {4, 0, 7, 5}, {5, 1, 4, 6}, {6, 2, 5, 7}, {7, 3, 6, 4}},
     0.6366197723675814},
};
constexpr double py5_apex_factor = 0.7356469913805818;  // 1 / (4 asin(1/3))

// Scaled to unit length, except a zero vector or one already of exact unit length.
inline vec3 direction(const vec3& a) {
  const double squared = dot(a, a);
  if (squared == 0 || squared == 1) return a;
  const double length = std::sqrt(squared);
  return {a.x / length, a.y / length, a.z / length};
}

// Solid angle of the trihedron at p spanned by q1, q2, q3 (positive when the three
// turn right-handed), by the half-angle tangent formula of the spherical triangle.
inline double solid_angle(const vec3& p, const vec3& q1, const vec3& q2, const vec3& q3) {
  const vec3 a = direction(q1 - p), b = direction(q2 - p), c = direction(q3 - p);
  return 2.0 * std::atan2(elfes::triple(a, b, c), dot(c + b, b + a));
}

struct solid_measure {
  template <solid_kind kind, class Reader>
  static void element(const unsigned* column, const Reader& node, elfes::value_list& list) {
    constexpr const corner_list& corners = corners_table[kind];
    vec3 p[8];
    elfes::load_vertices<elfes::solid_table[kind].nb_vertices>(column, node, p);
    for (unsigned k = 0; k < corners.count; ++k) {
      const unsigned* v = corners.corner[k];
      list.add(solid_angle(p[v[0]], p[v[1]], p[v[2]], p[v[3]]), corners.factor);
    }
    // The apex of a pyramid has four faces: two trihedra over the halves of the base.
    if (kind == elfes::kind_PY5)
      list.add(solid_angle(p[4], p[2], p[1], p[0]) + solid_angle(p[4], p[0], p[3], p[2]), py5_apex_factor);
  }
};

}  // namespace

int solid_angles(const dense2D<double>& coords, const dense2D<unsigned>& connect, bool normalise,
                 dense1D<double, 8>& minValues, dense1D<double, 8>& maxValues) {
  return elfes::walk_angles<solid_measure>(coords, connect, normalise, minValues, maxValues);
}

}  // namespace tessel3d
}  // namespace zel
