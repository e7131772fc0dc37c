// interpolate_projected: a nodal field at the nodes that no element of a TH4 mesh
// references, interpolated in the element that holds each node, or at the closest point
// of the boundary for a node outside the mesh.
#include "locate/projected_nodes.h"
#include "zel/tessel3d.h"

namespace zel {
namespace tessel3d {
namespace {

int interpolate_field(const dense2D<double>& coords, const dense2D<unsigned>& connectivity, double* values,
                      std::size_t stride, std::size_t components, const dense1D<unsigned, 8>& nodes) {
  if (components == 0) return 0;
  point_locator locator;
  elfes::order_records order;
  bool list_order = false;
  if (elfes::prepare_projection(coords, connectivity, nodes, locator, order, list_order) != 0)
    return tessel::OUT_OF_MEMORY;
  const unsigned* conn = connectivity.data();
  auto place = [&](unsigned n, elfes::placed_node& placed, elfes::no_scratch&) {
    elfes::projected_weights(locator, coords, n, placed);
  };
  auto write = [&](unsigned n, const elfes::placed_node& placed) {
    if (placed.status == 0) return;
    const unsigned* column = conn + std::size_t(placed.where) * connectivity.ld();
    double* out = values + std::size_t(n) * stride;
    for (std::size_t c = 0; c < components; ++c) {
      double sum = 0;
      for (unsigned i = 0; i < 4; ++i)
        if (placed.lambda[i] != 0) sum += placed.lambda[i] * values[std::size_t(column[i]) * stride + c];
      out[c] = sum;
    }
  };
  return elfes::place_then_write<elfes::no_scratch>(coords, order, list_order, place, write);
}

}  // namespace

int interpolate_projected(const dense2D<double>& coords, const dense2D<unsigned>& connectivity, dense2D<double>& field,
                          const dense1D<unsigned, 8>& nodes) {
  if (nodes.empty()) return 0;
  if (const int status = elfes::check_projection_mesh(coords, connectivity)) return status;
  if (field.cols() != coords.cols()) return -3;
  if (!tessel::check_IDs(nodes, static_cast<unsigned>(coords.cols()))) return -4;
  return interpolate_field(coords, connectivity, field.data(), field.ld(), field.rows(), nodes);
}

int interpolate_projected(const dense2D<double>& coords, const dense2D<unsigned>& connectivity,
                          dense1D<double, 8>& field, const dense1D<unsigned, 8>& nodes) {
  if (nodes.empty()) return 0;
  if (const int status = elfes::check_projection_mesh(coords, connectivity)) return status;
  if (field.size() != coords.cols()) return -3;
  if (!tessel::check_IDs(nodes, static_cast<unsigned>(coords.cols()))) return -4;
  return interpolate_field(coords, connectivity, field.data(), 1, 1, nodes);
}

}  // namespace tessel3d
}  // namespace zel
