// What the interpolations share: the checks of the mesh arguments, and the placement
// of one node in a TH4 mesh (the point search with the library's octree, then the
// barycentric weights of the node in its element, or the nearest mesh node when the
// search fails).
#pragma once

#include "common/element_tables.h"
#include "locate/locate_point.h"
#include "locate/node_octree.h"
#include "locate/point_order.h"
#include "locate/solve3.h"
#include "zel/matrix.h"
#include "zel/tessel.h"

namespace elfes {

/// Checks of coords, connectivity, neighbors and node_element, in this order. The IDs of
/// connectivity and neighbors are checked too: the walks index coordinates and elements
/// with them, so an invalid one must be refused rather than read.
/// @return 0 | -1 coords not 3 rows | -2 connectivity not 4 rows, or a node ID not below
///         the node count | -3 neighbors not 4 rows, not one column per element, or an
///         entry neither an element nor ~0U | -4 node_element not one entry per node
inline int check_placement_mesh(const zel::dense2D<double>& coords, const zel::dense2D<unsigned>& connectivity,
                                const zel::dense2D<unsigned>& neighbors,
                                const zel::dense1D<unsigned, 8>& node_element) {
  if (coords.rows() != 3) return -1;
  if (connectivity.rows() != 4 || !zel::tessel::check_IDs(connectivity, zel::TH4, unsigned(coords.cols()))) return -2;
  if (neighbors.rows() != 4 || neighbors.cols() != connectivity.cols() ||
      !zel::tessel::check_IDs(neighbors, unsigned(connectivity.cols())))
    return -3;
  if (node_element.size() != coords.cols()) return -4;
  return 0;
}

/// The listed nodes that lie in no element (node_element ~0U), as order records (see
/// point_order.h), in the order the interpolations treat them. Each is placed on its own
/// and reads only nodes of the connectivity, so taking them by position, each once,
/// gives what the list order gives, only faster (a node listed again would get again
/// the value it got), and lets them be placed at once on several threads. The exception
/// is input in which a listed node with no element is nevertheless a node of the
/// connectivity: what the call writes there may be read by the next nodes, and the list
/// order is kept, repetitions included (*list_order is then set).
/// @return 0 | -199 memory
inline int free_nodes_in_order(const zel::dense2D<double>& coords, const zel::dense2D<unsigned>& connectivity,
                               const zel::dense1D<unsigned, 8>& node_element, const zel::dense1D<unsigned, 8>& nodes,
                               order_records& records, bool* list_order = nullptr) {
  auto free_node = [&](std::size_t k) { return node_element[nodes[k]] == NO_ELEMENT ? nodes[k] : NO_ELEMENT; };
  zel::dense1D<unsigned, 8> written, repeated;  // one bit per node, one bit per entry of nodes
  if (!written.resize((coords.cols() + 31) / 32, 0u) || !repeated.resize((nodes.size() + 31) / 32, 0u))
    return OUT_OF_MEMORY;
  for (std::size_t k = 0; k < nodes.size(); ++k) {
    if (free_node(k) == NO_ELEMENT) continue;
    unsigned& word = written[nodes[k] >> 5];
    const unsigned bit = 1u << (nodes[k] & 31);
    if (word & bit) repeated[k >> 5] |= 1u << (k & 31);
    word |= bit;
  }
  bool read_after_write = false;
  const unsigned* column = connectivity.data();
  for (std::size_t e = 0; e < connectivity.cols() && !read_after_write; ++e, column += connectivity.ld())
    for (unsigned i = 0; i < 4; ++i) read_after_write |= (written[column[i] >> 5] >> (column[i] & 31)) & 1u;
  if (list_order) *list_order = read_after_write;
  if (!read_after_write) {
    auto first_time = [&](std::size_t k) { return (repeated[k >> 5] >> (k & 31)) & 1u ? NO_ELEMENT : free_node(k); };
    return spatial_order(coords.data(), coords.ld(), nodes.size(), first_time, records);
  }

  records.clear();
  for (std::size_t k = 0; k < nodes.size(); ++k)
    if (free_node(k) != NO_ELEMENT && !records.push_back(free_node(k))) return OUT_OF_MEMORY;
  return 0;
}

/// Barycentric weights of p in a TH4 with node coordinates node[0..3]: the system with
/// columns P0 - P3, P1 - P3, P2 - P3 and right-hand side p - P3, refined twice;
/// lambda[3] = 1 - lambda[0] - lambda[1] - lambda[2].
inline void th4_weights(const double* const node[4], const double* p, double* lambda) {
  double a[9], b[3];
  for (unsigned d = 0; d < 3; ++d) {
    a[d] = node[0][d] - node[3][d];
    a[d + 3] = node[1][d] - node[3][d];
    a[d + 6] = node[2][d] - node[3][d];
    b[d] = p[d] - node[3][d];
  }
  solve3(a, b, lambda, 2);
  lambda[3] = 1 - lambda[0] - lambda[1] - lambda[2];
}

/// Places nodes of a TH4 mesh by the point search with second chance and tolerance 1e-6.
class node_placement {
 public:
  static constexpr double tolerance = 1e-6;

  node_placement(const zel::dense2D<double>& coords, const zel::dense2D<unsigned>& connectivity,
                 const zel::dense2D<unsigned>& neighbors, const zel::dense1D<unsigned, 8>& node_element)
      : coords_(coords), connectivity_(connectivity), neighbors_(neighbors), node_element_(node_element) {}

  /// Builds the octree of the mesh's nodes. @return 0 | -199
  int build() { return tree_.build(coords_, connectivity_); }

  /// Places node n. 1: located, `where` is its element (a column of connectivity) and
  /// lambda its four weights. 0: not located (outside, or a walk met an invalid
  /// element), `where` is the nearest mesh node or ~0U when the mesh has none.
  /// -199: memory. Each thread places with a scratch of its own.
  int place(unsigned n, unsigned& where, double* lambda, locate_scratch& scratch) const {
    const double* p = coords_.data() + n * coords_.ld();
    const zel::vector_fixed<double, 3> point(p[0], p[1], p[2]);
    where = NOT_FOUND;
    const int r =
        locate_point(coords_, connectivity_, neighbors_, node_element_, tree_, point, where, tolerance, true, scratch);
    if (r == OUT_OF_MEMORY) return OUT_OF_MEMORY;
    if (r != 1) {
      where = tree_.find_closest(point);
      return 0;
    }
    const unsigned* column = connectivity_.data() + where * connectivity_.ld();
    const double* xyz = coords_.data();
    const std::size_t ld = coords_.ld();
    const double* const node[4] = {xyz + column[0] * ld, xyz + column[1] * ld, xyz + column[2] * ld,
                                   xyz + column[3] * ld};
    th4_weights(node, p, lambda);
    return 1;
  }

  const node_octree& tree() const { return tree_; }

 private:
  const zel::dense2D<double>& coords_;
  const zel::dense2D<unsigned>& connectivity_;
  const zel::dense2D<unsigned>& neighbors_;
  const zel::dense1D<unsigned, 8>& node_element_;
  node_octree tree_;
};

}  // namespace elfes
