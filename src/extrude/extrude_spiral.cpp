// extrude_spiral: layers of a surface swept along a helix (rotation plus translation).
#include <cmath>

#include "extrude/extrude_core.h"
#include "extrude/rotation.h"
#include "zel/tessel3d.h"

namespace zel {
namespace tessel3d {
namespace {

double norm(const vector_fixed<double, 3>& v) { return std::sqrt(v[0] * v[0] + v[1] * v[1] + v[2] * v[2]); }

}  // namespace

// The codes are those of extrude_rotate's size form although h0 and h1 stand one
// argument further on here: callers rely on the two functions failing alike.
int extrude_spiral(dense2D<double>& coords, const dense2D<unsigned>& connectS, const vector_fixed<double, 3>& C,
                   const vector_fixed<double, 3>& R, const vector_fixed<double, 3>& T, double h0, double h1,
                   bool even_layers, dense2D<unsigned>& connectE, const dense2D<unsigned>& connectE2,
                   dense2D<unsigned>& connectQ4, dense2D<unsigned>& connectTop) {
  if (const int status = elfes::check_surface(coords, connectS, true, coords.cols())) return status > 0 ? 0 : status;
  if (!elfes::positive(h0)) return -5;
  if (!elfes::positive(h1)) return -6;
  if (const int status = elfes::check_outputs({-8, -9, -10, -11}, connectE, connectE2, connectQ4, connectTop))
    return status;

  elfes::surface_node_map map;
  elfes::build_surface_node_map(connectS, map);  // a failed reservation still leaves a usable map
  std::uint64_t N = 0;
  if (!elfes::layer_count(norm(T), h0, h1, even_layers, N)) return -199;
  elfes::extrusion_outputs out(coords, connectE, connectE2, connectQ4, connectTop);
  return elfes::extrude_layers(out, connectS, map, N, [&] {
    return elfes::place_rotated(coords, map, out.nb_nodes, N, C, R, T, h0, h1);
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
  const double h = norm(T) / nbLayers;
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
