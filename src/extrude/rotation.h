// Rotation operator shared by the rotation, spiral and line extrusions, and the node
// placement of the rotation and spiral extrusions.
#pragma once

#include <cmath>

#include "extrude/extrude_core.h"
#include "zel/matrix.h"

namespace elfes {

/// 3 x 3 rotation, row-major: m[3 * i + j] is entry (i, j).
struct rotation3 {
  double m[9];

  /// out = M v (out may not alias v).
  void apply(const double* v, double* out) const {
    out[0] = m[0] * v[0] + m[1] * v[1] + m[2] * v[2];
    out[1] = m[3] * v[0] + m[4] * v[1] + m[5] * v[2];
    out[2] = m[6] * v[0] + m[7] * v[1] + m[8] * v[2];
  }
};

/// Rotation by the angle |w| about w / |w| (right-hand rule), by Rodrigues' formula
/// I + a K + b K^2 with K v = w x v, a = sin t / t and b = (1 - cos t) / t^2. Below
/// t = 0.1 both come from their Taylor series in t^2, so that w = 0 gives the identity
/// and small angles keep full precision.
inline rotation3 rotation_matrix(const double* w) {
  const double t2 = w[0] * w[0] + w[1] * w[1] + w[2] * w[2];
  const double t = std::sqrt(t2);
  double a, b;
  if (t <= 0.1) {
    a = 1 - t2 / 6 * (1 - t2 / 20 * (1 - t2 / 42 * (1 - t2 / 72 * (1 - t2 / 110))));
    b = 0.5 - t2 / 24 * (1 - t2 / 30 * (1 - t2 / 56 * (1 - t2 / 90)));
  } else {
    a = std::sin(t) / t;
    b = (1 - std::cos(t)) / t2;
  }
  // K^2 = w w^T - t^2 I.
  return {{1 + b * (w[0] * w[0] - t2), -a * w[2] + b * w[0] * w[1], a * w[1] + b * w[0] * w[2],
           a * w[2] + b * w[1] * w[0], 1 + b * (w[1] * w[1] - t2), -a * w[0] + b * w[1] * w[2],
           -a * w[1] + b * w[2] * w[0], a * w[0] + b * w[2] * w[1], 1 + b * (w[2] * w[2] - t2)}};
}

/// Places layer k = 1 ... N of a rotation about the axis through C along R, followed by
/// the translation T (zero for a pure rotation): with u the layer's fraction of the
/// sweep, node P goes to C + M(u R) (P - C) + u T.
inline int place_rotated(dense2D<double>& coords, const surface_node_map& map, std::size_t nb_nodes, std::size_t N,
                         const zel::vector_fixed<double, 3>& C, const zel::vector_fixed<double, 3>& R,
                         const zel::vector_fixed<double, 3>& T, double h0, double h1) {
  node_layers layers;
  const int status = open_layers(coords, map, nb_nodes, N, layers);
  if (status != 0) return status < 0 ? status : 0;
  const double inverse_N = 1.0 / static_cast<double>(N);
  struct motion {
    rotation3 M;
    double shift[3];
  };
  place_layers(
      layers, N,
      [&](std::size_t k) {
        const double t = static_cast<double>(k) * inverse_N;
        const double u = h0 > 0 && h1 > 0 ? layer_fraction(t, h0, h1) : t;
        const double angle[3] = {u * R[0], u * R[1], u * R[2]};
        // Image of the origin shift: C + u T, added after rotating P - C.
        return motion{rotation_matrix(angle), {C[0] + u * T[0], C[1] + u * T[1], C[2] + u * T[2]}};
      },
      [&](const motion& m, std::size_t i, double* out) {
        const double* p = layers.surface(i);
        const double v[3] = {p[0] - C[0], p[1] - C[1], p[2] - C[2]};
        m.M.apply(v, out);
        out[0] += m.shift[0];
        out[1] += m.shift[1];
        out[2] += m.shift[2];
      });
  return 0;
}

}  // namespace elfes
