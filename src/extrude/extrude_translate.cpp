// extrude_translate: layers of a surface swept along a straight vector.
#include "extrude/extrude_core.h"
#include "zel/tessel3d.h"

namespace zel {
namespace tessel3d {
namespace {

int place_translated(dense2D<double>& coords, const elfes::surface_node_map& map, std::size_t nb_nodes, std::size_t N,
                     const vector_fixed<double, 3>& T, double h0, double h1) {
  elfes::node_layers layers;
  const int status = elfes::open_layers(coords, map, nb_nodes, N, layers);
  if (status != 0) return status < 0 ? status : 0;
  const double inverse_N = 1.0 / static_cast<double>(N);
  struct shift {
    double u, d[3];
  };
  elfes::place_layers(
      layers, N,
      [&](std::size_t k) {
        const double t = static_cast<double>(k) * inverse_N;
        const double u = h0 > 0 && h1 > 0 ? elfes::layer_fraction(t, h0, h1) : t;
        return shift{u, {u * T[0], u * T[1], u * T[2]}};
      },
      [&](const shift& s, std::size_t i, double* out) {
        const double* p = layers.surface(i);
        out[0] = p[0];
        out[1] = p[1];
        out[2] = p[2];
        if (s.u != 0) {
          out[0] += s.d[0];
          out[1] += s.d[1];
          out[2] += s.d[2];
        }
      });
  return 0;
}

}  // namespace

int extrude_translate(dense2D<double>& coords, const dense2D<unsigned>& connectS, const vector_fixed<double, 3>& T,
                      double h0, double h1, bool even_layers, dense2D<unsigned>& connectE,
                      const dense2D<unsigned>& connectE2, dense2D<unsigned>& connectQ4, dense2D<unsigned>& connectTop) {
  return elfes::extrude_sized(
      coords, connectS, h0, h1, even_layers, {-4, -5, {-7, -8, -9, -10}}, connectE, connectE2, connectQ4, connectTop,
      [&] { return elfes::norm(T); },
      [&](const elfes::surface_node_map& map, std::size_t nb_nodes, std::size_t N) {
        return place_translated(coords, map, nb_nodes, N, T, h0, h1);
      });
}

int extrude_translate(dense2D<double>& coords, const dense2D<unsigned>& connectS, const vector_fixed<double, 3>& T,
                      double h0, double h1, bool even_layers, dense2D<unsigned>& connectE) {
  dense2D<unsigned> connectE2, connectQ4, connectTop;
  return extrude_translate(coords, connectS, T, h0, h1, even_layers, connectE, connectE2, connectQ4, connectTop);
}

int extrude_translate(dense2D<double>& coords, const dense2D<unsigned>& connectS, const vector_fixed<double, 3>& T,
                      unsigned nbLayers, dense2D<unsigned>& connectE, const dense2D<unsigned>& connectE2,
                      dense2D<unsigned>& connectQ4, dense2D<unsigned>& connectTop) {
  if (nbLayers == 0) return 0;
  const double h = elfes::norm(T) / nbLayers;
  return extrude_translate(coords, connectS, T, h, h, false, connectE, connectE2, connectQ4, connectTop);
}

int extrude_translate(dense2D<double>& coords, const dense2D<unsigned>& connectS, const vector_fixed<double, 3>& T,
                      unsigned nbLayers, dense2D<unsigned>& connectE) {
  dense2D<unsigned> connectE2, connectQ4, connectTop;
  return extrude_translate(coords, connectS, T, nbLayers, connectE, connectE2, connectQ4, connectTop);
}

}  // namespace tessel3d
}  // namespace zel
