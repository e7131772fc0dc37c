// interpolate: linear values of a nodal field at the nodes that lie in no element of a
// TH4 mesh, from the four nodes of the element that holds each of them; nodes outside
// the mesh copy their nearest mesh node.
#include "common/shared_memory.h"
#include "locate/node_placement.h"
#include "locate/placed_nodes.h"
#include "zel/tessel3d.h"

namespace zel {
namespace tessel3d {
namespace {

// Field access shared by the two overloads: `components` values per node, node n's
// first value at values + n * stride.
struct field_view {
  double* values;
  std::size_t stride;
  std::size_t components;
  double* at(unsigned n) const { return values + n * stride; }
};

int interpolate_field(const dense2D<double>& coords, const dense2D<unsigned>& connectivity,
                      const dense2D<unsigned>& neighbors, const dense1D<unsigned, 8>& node_element,
                      const field_view& field, const dense1D<unsigned, 8>& nodes) {
  if (field.components == 0) return 0;
  elfes::node_placement placement(coords, connectivity, neighbors, node_element);
  if (placement.build() != 0) return tessel::OUT_OF_MEMORY;
  elfes::order_records order;
  bool list_order = false;
  if (elfes::free_nodes_in_order(coords, connectivity, node_element, nodes, order, &list_order) != 0)
    return tessel::OUT_OF_MEMORY;
  const unsigned* conn = connectivity.data();
  auto place = [&](unsigned n, elfes::placed_node& placed, elfes::locate_scratch& scratch) {
    placed.status = placement.place(n, placed.where, placed.lambda, scratch);
  };
  auto write = [&](unsigned n, const elfes::placed_node& placed) {
    double* out = field.at(n);
    const double* lambda = placed.lambda;
    if (placed.status == 1) {
      const unsigned* column = conn + placed.where * connectivity.ld();
      const double* f0 = field.at(column[0]);
      const double* f1 = field.at(column[1]);
      const double* f2 = field.at(column[2]);
      const double* f3 = field.at(column[3]);
      for (std::size_t c = 0; c < field.components; ++c)
        out[c] = f3[c] + lambda[0] * (f0[c] - f3[c]) + lambda[1] * (f1[c] - f3[c]) + lambda[2] * (f2[c] - f3[c]);
    } else if (placed.where != tessel::NOT_FOUND) {
      const double* from = field.at(placed.where);
      for (std::size_t c = 0; c < field.components; ++c) out[c] = from[c];
    }
  };
  return elfes::place_then_write<elfes::locate_scratch>(coords, order, list_order, place, write);
}

}  // namespace

int interpolate(const dense2D<double>& coords, const dense2D<unsigned>& connectivity,
                const dense2D<unsigned>& neighbors, const dense1D<unsigned, 8>& node_element, dense2D<double>& field,
                const dense1D<unsigned, 8>& nodes) {
  if (elfes::shares_with_any(field, coords, connectivity, neighbors, node_element,
                             nodes))  // written while they are read
    return elfes::with_private_copies([&](const auto& c, const auto& k, const auto& n, const auto& e,
                                          const auto& d) { return interpolate(c, k, n, e, field, d); },
                                      coords, connectivity, neighbors, node_element, nodes);
  if (nodes.empty()) return 0;
  if (const int status = elfes::check_placement_mesh(coords, connectivity, neighbors, node_element)) return status;
  if (field.cols() != coords.cols()) return -5;
  if (!tessel::check_IDs(nodes, static_cast<unsigned>(coords.cols()))) return -6;
  return interpolate_field(coords, connectivity, neighbors, node_element, {field.data(), field.ld(), field.rows()},
                           nodes);
}

int interpolate(const dense2D<double>& coords, const dense2D<unsigned>& connectivity,
                const dense2D<unsigned>& neighbors, const dense1D<unsigned, 8>& node_element, dense1D<double, 8>& field,
                const dense1D<unsigned, 8>& nodes) {
  if (elfes::shares_with_any(field, coords, connectivity, neighbors, node_element,
                             nodes))  // written while they are read
    return elfes::with_private_copies([&](const auto& c, const auto& k, const auto& n, const auto& e,
                                          const auto& d) { return interpolate(c, k, n, e, field, d); },
                                      coords, connectivity, neighbors, node_element, nodes);
  if (nodes.empty()) return 0;
  if (const int status = elfes::check_placement_mesh(coords, connectivity, neighbors, node_element)) return status;
  if (field.size() != coords.cols()) return -5;
  if (!tessel::check_IDs(nodes, static_cast<unsigned>(coords.cols()))) return -6;
  return interpolate_field(coords, connectivity, neighbors, node_element, {field.data(), 1, 1}, nodes);
}

}  // namespace tessel3d
}  // namespace zel
