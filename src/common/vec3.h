// Small 3-vector arithmetic for the kernels of every subsystem, and the two ways of reading a
// node's coordinates out of a coordinates view (plain, or with absent nodes allowed).
#pragma once

#include <cstddef>
#include <limits>

#include "common/element_tables.h"

namespace elfes {

struct vec3 {
  double x, y, z;
};

inline vec3 operator-(const vec3& a, const vec3& b) { return {a.x - b.x, a.y - b.y, a.z - b.z}; }
inline vec3 operator+(const vec3& a, const vec3& b) { return {a.x + b.x, a.y + b.y, a.z + b.z}; }
inline double dot(const vec3& a, const vec3& b) { return a.x * b.x + a.y * b.y + a.z * b.z; }
inline vec3 cross(const vec3& a, const vec3& b) {
  return {a.y * b.z - a.z * b.y, a.z * b.x - a.x * b.z, a.x * b.y - a.y * b.x};
}
// a . (b x c)
inline double triple(const vec3& a, const vec3& b, const vec3& c) { return dot(a, cross(b, c)); }

// Coordinates of node `id`: column id of a 3-row view (offset and ld already applied to
// `base`). Pure connectivities have been checked, so every ID is a valid column.
struct node_reader {
  static constexpr bool may_be_absent = false;
  const double* base;
  std::size_t ld;
  vec3 operator()(unsigned id) const {
    const double* p = base + std::size_t(id) * ld;
    return {p[0], p[1], p[2]};
  }
};

// The mixed layout lets ~0U through the ID check, and a malformed column can make a
// kernel ask for such a node: it reads as NaN instead of memory far past the view, so
// the element's volume becomes NaN and its face normals degenerate.
struct mixed_node_reader {
  static constexpr bool may_be_absent = true;
  const double* base;
  std::size_t ld;
  vec3 operator()(unsigned id) const {
    if (id == ABSENT) {
      const double nan = std::numeric_limits<double>::quiet_NaN();
      return {nan, nan, nan};
    }
    const double* p = base + std::size_t(id) * ld;
    return {p[0], p[1], p[2]};
  }
};

// The vertices (rows 0 ... n-1) of one column.
template <unsigned n, class Reader>
inline void load_vertices(const unsigned* column, const Reader& node, vec3 (&p)[8]) {
  for (unsigned k = 0; k < n; ++k) p[k] = node(column[k]);
}

}  // namespace elfes
