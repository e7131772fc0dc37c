// The argument checks of the exported point searches (one point or many), in their
// order: coordinates, connectivity, adjacency, node_element.
#pragma once

#include "common/element_tables.h"
#include "zel/matrix.h"
#include "zel/tessel.h"

namespace elfes {

/// @return 0 | -1 coords not 3 rows | -2 connectivity rejected by check_IDs(type,
///         #nodes) | -3 neighbors not the shape of connectivity, its rows not the face
///         count of `type`, or an entry neither an element nor ~0U | -4 node_element
///         not one entry per node
inline int check_search_arguments(const zel::dense2D<double>& coords, const zel::dense2D<unsigned>& connectivity,
                                  const zel::dense2D<unsigned>& neighbors,
                                  const zel::dense1D<unsigned, 8>& node_element, zel::element_type type) {
  if (coords.rows() != 3) return -1;
  const auto nb_nodes = static_cast<unsigned>(coords.cols());
  if (!zel::tessel::check_IDs(connectivity, type, nb_nodes)) return -2;
  if (neighbors.rows() != connectivity.rows() || neighbors.cols() != connectivity.cols()) return -3;
  if (!is_element_type(type) || neighbors.rows() != neighbor_rows[type]) return -3;
  if (!zel::tessel::check_IDs(neighbors, static_cast<unsigned>(connectivity.cols()))) return -3;
  if (node_element.size() != coords.cols()) return -4;
  return 0;
}

/// Only a 4-row TH4 mesh is searched; any other passing the checks is reported as not
/// located.
inline bool is_searched_mesh(const zel::dense2D<unsigned>& connectivity, zel::element_type type) {
  return connectivity.rows() == 4 && type == zel::TH4;
}

}  // namespace elfes
