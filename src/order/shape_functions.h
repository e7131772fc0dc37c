// Interpolation weights that place the new nodes of the high-order conversion: linear
// functions for straight elements, quadratic ones when a caller's curved nodes are near.
// Every function fills `w` with one weight per node, in the node order of the high-order
// element (corners, then edge nodes in the local edge order, then face nodes).
#pragma once

#include <cstddef>

#include "common/element_tables.h"

namespace elfes {

// Sum of w[i] times the coordinates of node[i] (coordinates column-major, leading
// dimension ld), written to target[0..2].
inline void weighted_sum(const double* xyz, std::size_t ld, const unsigned* node, const double* w, unsigned count,
                         double* target) {
  double x = 0, y = 0, z = 0;
  for (unsigned i = 0; i < count; ++i) {
    const double* p = xyz + node[i] * ld;
    x += w[i] * p[0];
    y += w[i] * p[1];
    z += w[i] * p[2];
  }
  target[0] = x;
  target[1] = y;
  target[2] = z;
}

// ---- faces ------------------------------------------------------------------------------

// Triangle at (r, s): corners 0, 1, 2 weigh r, s, 1 - r - s.
inline void triangle_linear(double r, double s, double* w) {
  w[0] = r;
  w[1] = s;
  w[2] = 1 - r - s;
}

// Six-node triangle: corners 0, 1, 2, then the nodes of edges (1, 2), (2, 0), (0, 1).
inline void triangle_quadratic(double r, double s, double* w) {
  const double l0 = r, l1 = s, l2 = 1 - r - s;
  w[0] = l0 * (2 * l0 - 1);
  w[1] = l1 * (2 * l1 - 1);
  w[2] = l2 * (2 * l2 - 1);
  w[3] = 4 * l1 * l2;
  w[4] = 4 * l2 * l0;
  w[5] = 4 * l0 * l1;
}

// Quadrangle at (xi, eta) in [-1, 1]^2, xi from corner 0 to 1, eta from corner 0 to 3.
inline void quadrangle_bilinear(double xi, double eta, double* w) {
  w[0] = (1 - xi) * (1 - eta) / 4;
  w[1] = (1 + xi) * (1 - eta) / 4;
  w[2] = (1 + xi) * (1 + eta) / 4;
  w[3] = (1 - xi) * (1 + eta) / 4;
}

// Eight-node serendipity quadrangle: corners, then edges (0, 1), (1, 2), (2, 3), (3, 0).
inline void quadrangle_serendipity(double xi, double eta, double* w) {
  static const double corner[4][2] = {{-1, -1}, {1, -1}, {1, 1}, {-1, 1}};
  for (int i = 0; i < 4; ++i) {
    const double a = corner[i][0] * xi, b = corner[i][1] * eta;
    w[i] = (1 + a) * (1 + b) * (a + b - 1) / 4;
  }
  w[4] = (1 - xi * xi) * (1 - eta) / 2;
  w[5] = (1 + xi) * (1 - eta * eta) / 2;
  w[6] = (1 - xi * xi) * (1 + eta) / 2;
  w[7] = (1 - xi) * (1 - eta * eta) / 2;
}

// ---- element interiors -------------------------------------------------------------------

// Ten-node tetrahedron at its centroid: corners -1/8, edge nodes 1/4.
inline void tetrahedron_quadratic_centroid(double* w) {
  for (int i = 0; i < 4; ++i) w[i] = -0.125;
  for (int i = 4; i < 10; ++i) w[i] = 0.25;
}

// Wedge at (r, s, zeta): triangle weights r, s, 1 - r - s; zeta from -1 (triangle 0-1-2)
// to +1 (triangle 3-4-5).
inline void wedge_linear(double r, double s, double zeta, double* w) {
  double t[3];
  triangle_linear(r, s, t);
  for (int i = 0; i < 3; ++i) {
    w[i] = t[i] * (1 - zeta) / 2;
    w[i + 3] = t[i] * (1 + zeta) / 2;
  }
}

// Eighteen-node wedge, the six-node triangle times the quadratic Lagrange functions of
// zeta: corners, edges (0,3) (1,4) (2,5) (1,2) (2,0) (0,1) (4,5) (5,3) (3,4), then the
// centres of the quadrangles opposite corners 0, 1, 2.
inline void wedge_quadratic(double r, double s, double zeta, double* w) {
  double t[6];
  triangle_quadratic(r, s, t);
  const double bottom = zeta * (zeta - 1) / 2, middle = 1 - zeta * zeta, top = zeta * (zeta + 1) / 2;
  for (int i = 0; i < 3; ++i) {
    w[i] = t[i] * bottom;
    w[3 + i] = t[i] * top;
    w[6 + i] = t[i] * middle;       // lateral edge i - i+3
    w[9 + i] = t[3 + i] * bottom;   // bottom triangle edges
    w[12 + i] = t[3 + i] * top;     // top triangle edges
    w[15 + i] = t[3 + i] * middle;  // quadrangle centres
  }
}

// Parameters of the hexahedron's corners: xi along 0-1, eta along 0-3, zeta along 0-4.
constexpr double hex_corner[8][3] = {{-1, -1, -1}, {1, -1, -1}, {1, 1, -1}, {-1, 1, -1},
                                     {-1, -1, 1},  {1, -1, 1},  {1, 1, 1},  {-1, 1, 1}};

inline void hexahedron_trilinear(double xi, double eta, double zeta, double* w) {
  for (int i = 0; i < 8; ++i)
    w[i] = (1 + hex_corner[i][0] * xi) * (1 + hex_corner[i][1] * eta) * (1 + hex_corner[i][2] * zeta) / 8;
}

// Quadratic Lagrange function of the node at a (-1, 0 or 1), evaluated at x.
inline double lagrange2(double a, double x) {
  if (a < 0) return x * (x - 1) / 2;
  if (a > 0) return x * (x + 1) / 2;
  return 1 - x * x;
}

// Twenty-six-node hexahedron (corners, the 12 edge nodes, the 6 face nodes, in the local
// orders of the element tables): the 27-node triquadratic functions, with the missing
// centre replaced by its transfinite value 1/2 sum(faces) - 1/4 sum(edges) + 1/8 sum(corners),
// which is exact for every map the 26 nodes determine (all but the x^2 y^2 z^2 bubble).
inline void hexahedron_26(double xi, double eta, double zeta, double* w) {
  const solid_descriptor& hex = solid_table[kind_H8];
  const double centre = (1 - xi * xi) * (1 - eta * eta) * (1 - zeta * zeta);
  for (int i = 0; i < 8; ++i)
    w[i] = lagrange2(hex_corner[i][0], xi) * lagrange2(hex_corner[i][1], eta) * lagrange2(hex_corner[i][2], zeta) +
           centre / 8;
  for (int k = 0; k < 12; ++k) {
    const double* a = hex_corner[hex.edges[k][0]];
    const double* b = hex_corner[hex.edges[k][1]];
    w[8 + k] =
        lagrange2((a[0] + b[0]) / 2, xi) * lagrange2((a[1] + b[1]) / 2, eta) * lagrange2((a[2] + b[2]) / 2, zeta) -
        centre / 4;
  }
  for (int f = 0; f < 6; ++f) {
    double m[3] = {0, 0, 0};
    for (int c = 0; c < 4; ++c)
      for (int d = 0; d < 3; ++d) m[d] += hex_corner[hex.faces[f][c]][d] / 4;
    w[20 + f] = lagrange2(m[0], xi) * lagrange2(m[1], eta) * lagrange2(m[2], zeta) + centre / 2;
  }
}

// Pyramid on its axis: zeta = 0 at the base centre, 1 at the apex. Linear: each base
// corner (1 - zeta) / 4, the apex zeta.
inline void pyramid_axis_linear(double zeta, double* w) {
  for (int i = 0; i < 4; ++i) w[i] = (1 - zeta) / 4;
  w[4] = zeta;
}

// Fourteen-node pyramid on its axis (corners, edges (0,4) (1,4) (2,4) (3,4) (0,1) (1,2)
// (2,3) (3,0), base centre): quadratic Lagrange interpolation in zeta through the base
// centre node, the apex and the mid-height point 1/4 sum(lateral edge nodes)
// + 1/8 sum(base edge nodes) - 1/8 sum(base corners), the one combination of these nodes
// that is exact there for every quadratic map.
inline void pyramid_axis_quadratic(double zeta, double* w) {
  const double base = (1 - zeta) * (1 - 2 * zeta), middle = 4 * zeta * (1 - zeta), apex = zeta * (2 * zeta - 1);
  for (int i = 0; i < 4; ++i) {
    w[i] = -middle / 8;
    w[5 + i] = middle / 4;
    w[9 + i] = middle / 8;
  }
  w[4] = apex;
  w[13] = base;
}

}  // namespace elfes
