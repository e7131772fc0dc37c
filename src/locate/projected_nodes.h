// What the interpolations onto any point share: the checks of their mesh arguments, the
// locator built for the call, and the free nodes to treat (listed, referenced by no
// element) in an order along their positions.
#pragma once

#include "common/element_tables.h"
#include "locate/node_placement.h"
#include "locate/placed_nodes.h"
#include "zel/tessel3d.h"

namespace elfes {

/// @return 0 | -1 coords not 3 rows | -2 connectivity not 4 rows, or a node ID not below
///         the node count
inline int check_projection_mesh(const zel::dense2D<double>& coords, const zel::dense2D<unsigned>& connectivity) {
  if (coords.rows() != 3) return -1;
  if (connectivity.rows() != 4 || !zel::tessel::check_IDs(connectivity, zel::TH4, unsigned(coords.cols()))) return -2;
  return 0;
}

/// Builds the locator and orders the listed nodes that no element references (as
/// free_nodes_in_order does, from the locator's own node-to-element array; list_order
/// as there).
/// @return 0 | -199 memory
inline int prepare_projection(const zel::dense2D<double>& coords, const zel::dense2D<unsigned>& connectivity,
                              const zel::dense1D<unsigned, 8>& nodes, zel::tessel3d::point_locator& locator,
                              order_records& order, bool& list_order) {
  if (locator.build(coords, connectivity) != 0) return OUT_OF_MEMORY;
  zel::dense1D<unsigned, 8> node_element;
  if (!node_element.resize(coords.cols())) return OUT_OF_MEMORY;
  for (std::size_t n = 0; n < coords.cols(); ++n) node_element[n] = locator.element_of_node(unsigned(n));
  return free_nodes_in_order(coords, connectivity, node_element, nodes, order, &list_order);
}

/// Where node n's value is read: status 1 or 2 with the element and its weights (see
/// point_locator::weights), 0 when nowhere. The locator's queries need no scratch.
struct no_scratch {};
inline void projected_weights(const zel::tessel3d::point_locator& locator, const zel::dense2D<double>& coords,
                              unsigned n, placed_node& placed) {
  const double* p = coords.data() + std::size_t(n) * coords.ld();
  zel::vector_fixed<double, 4> lambda;
  placed.status = locator.weights(zel::vector_fixed<double, 3>(p[0], p[1], p[2]), placed.where, lambda);
  for (unsigned i = 0; i < 4; ++i) placed.lambda[i] = lambda[i];
}

}  // namespace elfes
