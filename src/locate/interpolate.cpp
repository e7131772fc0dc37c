// interpolate: linear values of a nodal field at the nodes that lie in no element of a
// TH4 mesh, from the four nodes of the element that holds each of them; nodes outside
// the mesh copy their nearest mesh node.
#include "common/shared_memory.h"
#include "locate/node_placement.h"
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
  if (elfes::free_nodes_in_order(coords, connectivity, node_element, nodes, order) != 0) return tessel::OUT_OF_MEMORY;
  const unsigned* conn = connectivity.data();
  for (std::size_t k = 0; k < order.size(); ++k) {
    elfes::prefetch_node_ahead(order, k, coords, [&](unsigned ahead) { return field.at(ahead); });
    const unsigned n = elfes::record_id(order[k]);
    unsigned where;
    double lambda[4];
    const int r = placement.place(n, where, lambda);
    if (r < 0) return r;
    double* out = field.at(n);
    if (r == 1) {
      const unsigned* column = conn + where * connectivity.ld();
      const double* f0 = field.at(column[0]);
      const double* f1 = field.at(column[1]);
      const double* f2 = field.at(column[2]);
      const double* f3 = field.at(column[3]);
      for (std::size_t c = 0; c < field.components; ++c)
        out[c] = f3[c] + lambda[0] * (f0[c] - f3[c]) + lambda[1] * (f1[c] - f3[c]) + lambda[2] * (f2[c] - f3[c]);
    } else if (where != tessel::NOT_FOUND) {
      const double* from = field.at(where);
      for (std::size_t c = 0; c < field.components; ++c) out[c] = from[c];
    }
  }
  return 0;
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
