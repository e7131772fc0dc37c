// extrude_rotate: layers of a surface swept around an axis.
#include <cmath>

#include "extrude/extrude_core.h"
#include "extrude/rotation.h"
#include "zel/tessel3d.h"

namespace zel {
namespace tessel3d {
namespace {

// Arc length travelled by the first node of the first face: sqrt(|P0 - C|^2 |R|^2), with
// z = 0 for a planar (2-row) coords.
double sweep_length(const dense2D<double>& coords, unsigned P0, const vector_fixed<double, 3>& C,
                    const vector_fixed<double, 3>& R) {
  const double* p = coords.data() + std::size_t(P0) * coords.ld();
  const double z = coords.rows() == 3 ? p[2] : 0.0;
  const double d[3] = {p[0] - C[0], p[1] - C[1], z - C[2]};
  const double radius2 = d[0] * d[0] + d[1] * d[1] + d[2] * d[2];
  const double angle2 = R[0] * R[0] + R[1] * R[1] + R[2] * R[2];
  return std::sqrt(radius2 * angle2);
}

}  // namespace

int extrude_rotate(dense2D<double>& coords, const dense2D<unsigned>& connectS, const vector_fixed<double, 3>& C,
                   const vector_fixed<double, 3>& R, double h0, double h1, bool even_layers,
                   dense2D<unsigned>& connectE, const dense2D<unsigned>& connectE2, dense2D<unsigned>& connectQ4,
                   dense2D<unsigned>& connectTop) {
  const vector_fixed<double, 3> no_translation;
  return elfes::extrude_sized(
      coords, connectS, h0, h1, even_layers, {-5, -6, {-8, -9, -10, -11}}, connectE, connectE2, connectQ4, connectTop,
      [&] { return sweep_length(coords, connectS(0, 0), C, R); },
      [&](const elfes::surface_node_map& map, std::size_t nb_nodes, std::size_t N) {
        return elfes::place_rotated(coords, map, nb_nodes, N, C, R, no_translation, h0, h1);
      });
}

int extrude_rotate(dense2D<double>& coords, const dense2D<unsigned>& connectS, const vector_fixed<double, 3>& C,
                   const vector_fixed<double, 3>& R, double h0, double h1, bool even_layers,
                   dense2D<unsigned>& connectE) {
  dense2D<unsigned> connectE2, connectQ4, connectTop;
  return extrude_rotate(coords, connectS, C, R, h0, h1, even_layers, connectE, connectE2, connectQ4, connectTop);
}

int extrude_rotate(dense2D<double>& coords, const dense2D<unsigned>& connectS, const vector_fixed<double, 3>& C,
                   const vector_fixed<double, 3>& R, unsigned nbLayers, dense2D<unsigned>& connectE,
                   const dense2D<unsigned>& connectE2, dense2D<unsigned>& connectQ4, dense2D<unsigned>& connectTop) {
  // The sweep length needs the first node, so it is checked before the conversion.
  if (nbLayers == 0 || connectS.empty()) return 0;
  if (coords.rows() != 2 && coords.rows() != 3) return -1;
  const unsigned P0 = connectS(0, 0);
  if (P0 >= coords.cols()) return -2;
  if (const int status = elfes::check_outputs({-6, -7, -8, -9}, connectE, connectE2, connectQ4, connectTop))
    return status;
  const double h = sweep_length(coords, P0, C, R) / nbLayers;
  return extrude_rotate(coords, connectS, C, R, h, h, false, connectE, connectE2, connectQ4, connectTop);
}

int extrude_rotate(dense2D<double>& coords, const dense2D<unsigned>& connectS, const vector_fixed<double, 3>& C,
                   const vector_fixed<double, 3>& R, unsigned nbLayers, dense2D<unsigned>& connectE) {
  dense2D<unsigned> connectE2, connectQ4, connectTop;
  return extrude_rotate(coords, connectS, C, R, nbLayers, connectE, connectE2, connectQ4, connectTop);
}

}  // namespace tessel3d
}  // namespace zel
