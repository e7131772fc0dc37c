// The elements that hold a node and can be reached from one of them across faces that
// contain the node: a depth-first traversal of the face adjacency (`neighbors`, one row
// per local face, ~0U on the boundary). It serves the second chance of the point
// location and the duplication of surface nodes, for any solid connectivity: which local
// faces of a column contain the node is told by a small predicate object.
#pragma once

#include "common/element_tables.h"
#include "order/hash_tables.h"
#include "zel/matrix.h"

namespace elfes {

/// Faces of a TH4 column that contain node n, as a bit mask: face j (opposite local node
/// j) contains n when local node j is not n.
struct th4_faces_with_node {
  unsigned operator()(const unsigned* column, unsigned n) const {
    unsigned mask = 0;
    for (unsigned j = 0; j < 4; ++j)
      if (column[j] != n) mask |= 1u << j;
    return mask;
  }
};

/// Faces of a solid of one kind that contain node n among their nodes.
inline unsigned solid_faces_with_node(const solid_descriptor& solid, const unsigned* column, unsigned n) {
  unsigned mask = 0;
  for (unsigned f = 0; f < solid.nb_faces; ++f)
    for (unsigned k = 0; k < solid.face_size[f]; ++k)
      if (column[solid.faces[f][k]] == n) {
        mask |= 1u << f;
        break;
      }
  return mask;
}

/// Faces that contain n, for a pure PY5, W6 or H8 connectivity (or a TH4 read by its
/// face nodes), with the face order of the element tables.
struct pure_faces_with_node {
  solid_kind kind;
  unsigned operator()(const unsigned* column, unsigned n) const {
    return solid_faces_with_node(solid_table[kind], column, n);
  }
};

/// Faces that contain n, for an 8-row SOLID_MIX8 connectivity (kind read per column).
struct mixed8_faces_with_node {
  unsigned operator()(const unsigned* column, unsigned n) const {
    return solid_faces_with_node(solid_table[mixed8_kind(column)], column, n);
  }
};

/// The set of visited elements.
using element_set = hash_table<unsigned>;

/// Lists in `elements` the elements that hold node n and are reached from e0 across
/// faces containing n (faces_with_node(column, n) gives their bit mask, bit f for local
/// face f). Depth first: an element is listed when popped, and the neighbours across
/// its faces are pushed from the highest face to the lowest, so the one across the
/// lowest face is visited next. Boundary faces (~0U) are passed over.
/// `elements` and `visited` are emptied first; on return `visited` holds every element
/// met. e0 = ~0U gives an empty list.
/// @return 0 | 1 stopped at a popped element with no face containing n (the elements
///         listed before it are kept) | -199 memory (list, stack or set)
template <class FacesWithNode>
int elements_around_node(unsigned n, unsigned e0, const zel::dense2D<unsigned>& connectivity,
                         const zel::dense2D<unsigned>& neighbors, const FacesWithNode& faces_with_node,
                         zel::dense1D<unsigned, 8>& elements, element_set& visited) {
  elements.clear();
  if (e0 == NO_ELEMENT) return 0;
  if (!visited.reset(23, 23, 1.0)) return OUT_OF_MEMORY;
  zel::dense1D<unsigned, 8> stack;
  if (visited.insert_growing(hash_key(e0), e0) == element_set::npos || !stack.push_back(e0)) return OUT_OF_MEMORY;

  const unsigned* conn = connectivity.data();
  const std::size_t ld_conn = connectivity.ld();
  const unsigned* nbrs = neighbors.data();
  const std::size_t ld_nbrs = neighbors.ld();
  while (!stack.empty()) {
    const unsigned e = stack[stack.size() - 1];
    stack.resize(stack.size() - 1);
    const unsigned mask = faces_with_node(conn + e * ld_conn, n);
    if (mask == 0) return 1;
    if (!elements.push_back(e)) return OUT_OF_MEMORY;
    const unsigned* across = nbrs + e * ld_nbrs;
    for (unsigned f = 8; f-- > 0;) {  // at most six faces
      if (!(mask & (1u << f))) continue;
      const unsigned next = across[f];
      if (next == NO_ELEMENT) continue;
      bool added = false;
      if (visited.insert_growing(hash_key(next), next, &added) == element_set::npos) return OUT_OF_MEMORY;
      if (added && !stack.push_back(next)) return OUT_OF_MEMORY;
    }
  }
  return 0;
}

/// The TH4 form used by the point location.
inline int elements_around_node(unsigned n, unsigned e0, const zel::dense2D<unsigned>& connectivity,
                                const zel::dense2D<unsigned>& neighbors, zel::dense1D<unsigned, 8>& elements,
                                element_set& visited) {
  return elements_around_node(n, e0, connectivity, neighbors, th4_faces_with_node(), elements, visited);
}

}  // namespace elfes
