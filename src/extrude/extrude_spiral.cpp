// extrude_spiral: layers of a surface swept along a helix (rotation plus translation).
#include "extrude/extrude_core.h"
#include "extrude/rotation.h"
#include "zel/tessel3d.h"

namespace zel {
namespace tessel3d {

// The codes are those of extrude_rotate's size form although h0 and h1 stand one
// argument further on here: callers rely on the two functions failing alike.
int extrude_spiral(dense2D<double>& coords, const dense2D<unsigned>& connectS, const vector_fixed<double, 3>& C,
                   const vector_fixed<double, 3>& R, const vector_fixed<double, 3>& T, double h0, double h1,
                   bool even_layers, dense2D<unsigned>& connectE, const dense2D<unsigned>& connectE2,
                   dense2D<unsigned>& connectQ4, dense2D<unsigned>& connectTop) {
  return elfes::extrude_sized(
      coords, connectS, h0, h1, even_layers, {-5, -6, {-8, -9, -10, -11}}, connectE, connectE2, connectQ4, connectTop,
      [&] { return elfes::norm(T); },
      [&](const elfes::surface_node_map& map, std::size_t nb_nodes, std::size_t N) {
        return elfes::place_rotated(coords, map, nb_nodes, N, C, R, T, h0, h1);
      });
}

int extrude_spiral(dense2D<double>& coords, const dense2D<unsigned>& connectS, const vector_fixed<double, 3>& C,
                   const vector_fixed<double, 3>& R, const vector_fixed<double, 3>& T, double h0, double h1,
                   bool even_layers, dense2D<unsigned>& connectE) {
  dense2D<unsigned> connectE2, connectQ4, connectTop;
  return extrude_spiral(coords, connectS, C, R, T, h0, h1, even_layers, connectE, connectE2, connectQ4, connectTop);
}

// Only connectE and connectTop are checked before the conversion, with the codes -7 and
// -8 (kept as they are; the size form reports every other argument).
int extrude_spiral(dense2D<double>& coords, const dense2D<unsigned>& connectS, const vector_fixed<double, 3>& C,
                   const vector_fixed<double, 3>& R, const vector_fixed<double, 3>& T, unsigned nbLayers,
                   dense2D<unsigned>& connectE, const dense2D<unsigned>& connectE2, dense2D<unsigned>& connectQ4,
                   dense2D<unsigned>& connectTop) {
  if (nbLayers == 0) return 0;
  if (const int status = elfes::check_outputs({-7, 0, 0, -8}, connectE, connectE2, connectQ4, connectTop))
    return status;
  const double h = elfes::norm(T) / nbLayers;
  return extrude_spiral(coords, connectS, C, R, T, h, h, false, connectE, connectE2, connectQ4, connectTop);
}

int extrude_spiral(dense2D<double>& coords, const dense2D<unsigned>& connectS, const vector_fixed<double, 3>& C,
                   const vector_fixed<double, 3>& R, const vector_fixed<double, 3>& T, unsigned nbLayers,
                   dense2D<unsigned>& connectE) {
  dense2D<unsigned> connectE2, connectQ4, connectTop;
  return extrude_spiral(coords, connectS, C, R, T, nbLayers, connectE, connectE2, connectQ4, connectTop);
}

}  // namespace tessel3d
}  // namespace zel
