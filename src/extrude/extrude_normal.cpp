// extrude_normal: layers of a surface grown along nodal normals, given or computed.
#include <algorithm>

#include "extrude/extrude_core.h"
#include "zel/tessel2d.h"
#include "zel/tessel3d.h"

namespace zel {
namespace tessel3d {
namespace {

// Layer k of node P with ID n: P + scale(k) * normals(:, n).
template <class Scale>
int place_along_normals(dense2D<double>& coords, const elfes::surface_node_map& map, std::size_t nb_nodes,
                        std::size_t N, const dense2D<double>& normals, Scale scale) {
  elfes::node_layers layers;
  const int status = elfes::open_layers(coords, map, nb_nodes, N, layers);
  if (status != 0) return status < 0 ? status : 0;
  const double* vectors = normals.data();
  const std::size_t ldn = normals.ld();
  elfes::place_layers(
      layers, N, [&](std::size_t k) { return scale(k); },
      [&](double s, std::size_t i, double* out) {
        const double* p = layers.surface(i);
        out[0] = p[0];
        out[1] = p[1];
        out[2] = p[2];
        if (s != 0) {
          const double* n = vectors + std::size_t(layers.ids[i]) * ldn;
          out[0] += s * n[0];
          out[1] += s * n[1];
          out[2] += s * n[2];
        }
      });
  return 0;
}

}  // namespace

int extrude_normal(dense2D<double>& coords, const dense2D<unsigned>& connectS, const dense2D<double>& node_normals,
                   unsigned nbLayers, dense2D<unsigned>& connectE, const dense2D<unsigned>& connectE2,
                   dense2D<unsigned>& connectQ4, dense2D<unsigned>& connectTop) {
  // Every node of the surface needs a column of node_normals.
  const std::size_t id_bound = std::min(node_normals.cols(), coords.cols());
  if (const int status = elfes::check_surface(coords, connectS, false, id_bound)) return status > 0 ? 0 : status;
  if (node_normals.rows() != 3) return -3;
  if (const int status = elfes::check_outputs({-5, -6, -7, -8}, connectE, connectE2, connectQ4, connectTop))
    return status;

  elfes::surface_node_map map;
  elfes::build_surface_node_map(connectS, map);  // a failed reservation still leaves a usable map
  const std::size_t N = nbLayers;
  const double inverse_N = N ? 1.0 / static_cast<double>(N) : 0.0;
  elfes::extrusion_outputs out(coords, connectE, connectE2, connectQ4, connectTop);
  return elfes::extrude_layers(out, connectS, map, N, [&] {
    return place_along_normals(coords, map, out.nb_nodes, N, node_normals,
                               [&](std::size_t k) { return static_cast<double>(k) * inverse_N; });
  });
}

int extrude_normal(dense2D<double>& coords, const dense2D<unsigned>& connectS, const dense2D<double>& node_normals,
                   unsigned nbLayers, dense2D<unsigned>& connectE) {
  dense2D<unsigned> connectE2, connectQ4, connectTop;
  return extrude_normal(coords, connectS, node_normals, nbLayers, connectE, connectE2, connectQ4, connectTop);
}

int extrude_normal(dense2D<double>& coords, const dense2D<unsigned>& connectS, double thickness, double h0, double h1,
                   bool even_layers, dense2D<unsigned>& connectE, const dense2D<unsigned>& connectE2,
                   dense2D<unsigned>& connectQ4, dense2D<unsigned>& connectTop) {
  if (const int status = elfes::check_surface(coords, connectS, false, coords.cols())) return status > 0 ? 0 : status;
  if (!elfes::positive(thickness)) return -3;
  if (!elfes::positive(h0)) return -4;
  if (!elfes::positive(h1)) return -5;
  if (const int status = elfes::check_outputs({-7, -8, -9, -10}, connectE, connectE2, connectQ4, connectTop))
    return status;

  std::uint64_t N = 0;
  if (!elfes::layer_count(thickness, h0, h1, even_layers, N)) return tessel::OUT_OF_MEMORY;
  dense2D<double> normals;
  const int normals_status = tessel2d::normals(coords, connectS, 0.0, true, normals);
  if (normals_status < 0) return normals_status;
  elfes::surface_node_map map;
  elfes::build_surface_node_map(connectS, map);  // a failed reservation still leaves a usable map
  const double inverse_N = 1.0 / static_cast<double>(N);
  elfes::extrusion_outputs out(coords, connectE, connectE2, connectQ4, connectTop);
  return elfes::extrude_layers(out, connectS, map, N, [&] {
    return place_along_normals(coords, map, out.nb_nodes, N, normals, [&](std::size_t k) {
      return thickness * elfes::layer_fraction(static_cast<double>(k) * inverse_N, h0, h1);
    });
  });
}

int extrude_normal(dense2D<double>& coords, const dense2D<unsigned>& connectS, double thickness, double h0, double h1,
                   bool even_layers, dense2D<unsigned>& connectE) {
  dense2D<unsigned> connectE2, connectQ4, connectTop;
  return extrude_normal(coords, connectS, thickness, h0, h1, even_layers, connectE, connectE2, connectQ4, connectTop);
}

// Only connectE and connectTop are checked before the conversion, with the codes -5 and
// -6 (kept as they are; the size form reports every other argument).
int extrude_normal(dense2D<double>& coords, const dense2D<unsigned>& connectS, double thickness, unsigned nbLayers,
                   dense2D<unsigned>& connectE, const dense2D<unsigned>& connectE2, dense2D<unsigned>& connectQ4,
                   dense2D<unsigned>& connectTop) {
  if (nbLayers == 0) return 0;
  if (const int status = elfes::check_outputs({-5, 0, 0, -6}, connectE, connectE2, connectQ4, connectTop))
    return status;
  const double h = thickness / nbLayers;
  return extrude_normal(coords, connectS, thickness, h, h, false, connectE, connectE2, connectQ4, connectTop);
}

int extrude_normal(dense2D<double>& coords, const dense2D<unsigned>& connectS, double thickness, unsigned nbLayers,
                   dense2D<unsigned>& connectE) {
  dense2D<unsigned> connectE2, connectQ4, connectTop;
  return extrude_normal(coords, connectS, thickness, nbLayers, connectE, connectE2, connectQ4, connectTop);
}

}  // namespace tessel3d
}  // namespace zel
