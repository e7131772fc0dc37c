// Volumes written out independently of the library, for tests to compare against: the
// tetrahedron by its determinant, the trilinear hexahedron by exact Gauss integration.
#pragma once

#include <cmath>

#include "zel/matrix.h"

namespace tessel3d_test {

// Right-handed volume of the tetrahedron (a, b, c, d): det(b - a, c - a, d - a) / 6.
// (The library's TH4 (n0, n1, n2, n3) is positive when tet_volume(n3, n0, n1, n2) is.)
inline double tet_volume(const zel::dense2D<double>& x, unsigned a, unsigned b, unsigned c, unsigned d) {
  double e[3][3];
  const unsigned to[3] = {b, c, d};
  for (int k = 0; k < 3; ++k)
    for (int i = 0; i < 3; ++i) e[k][i] = x(i, to[k]) - x(i, a);
  return (e[0][0] * (e[1][1] * e[2][2] - e[1][2] * e[2][1]) - e[0][1] * (e[1][0] * e[2][2] - e[1][2] * e[2][0]) +
          e[0][2] * (e[1][0] * e[2][1] - e[1][1] * e[2][0])) /
         6;
}

// Exact volume of the trilinear hexahedron on nodes node[0 ... 7] (bottom 0-3
// counter-clockwise seen from above, top 4-7): 2 x 2 x 2 Gauss points integrate its
// Jacobian determinant exactly.
inline double hexahedron_volume(const zel::dense2D<double>& x, const unsigned* node) {
  static const double s[8][3] = {{-1, -1, -1}, {1, -1, -1}, {1, 1, -1}, {-1, 1, -1},
                                 {-1, -1, 1},  {1, -1, 1},  {1, 1, 1},  {-1, 1, 1}};
  const double g = 1 / std::sqrt(3.0);
  double volume = 0;
  for (const auto& q : s) {
    const double u = q[0] * g, v = q[1] * g, w = q[2] * g;
    double d[3][3] = {};  // d[a][c]: derivative of coordinate c along reference axis a
    for (int i = 0; i < 8; ++i) {
      const double grad[3] = {s[i][0] * (1 + s[i][1] * v) * (1 + s[i][2] * w) / 8,
                              s[i][1] * (1 + s[i][0] * u) * (1 + s[i][2] * w) / 8,
                              s[i][2] * (1 + s[i][0] * u) * (1 + s[i][1] * v) / 8};
      for (int a = 0; a < 3; ++a)
        for (int c = 0; c < 3; ++c) d[a][c] += grad[a] * x(c, node[i]);
    }
    volume += d[0][0] * (d[1][1] * d[2][2] - d[1][2] * d[2][1]) - d[0][1] * (d[1][0] * d[2][2] - d[1][2] * d[2][0]) +
              d[0][2] * (d[1][0] * d[2][1] - d[1][1] * d[2][0]);
  }
  return volume;
}

}  // namespace tessel3d_test
