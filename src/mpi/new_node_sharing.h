// The distributed order conversions (high order, quadratic, hexahedra) convert each
// rank's elements with the one-machine functions, then make every new node that sits on
// an edge or a face shared with other ranks one node: one global ID and the same
// coordinates on every rank that has it. Shared here by the three families.
#pragma once

#include <mpi.h>

#include <cstddef>
#include <cstdint>
#include <vector>

#include "mpi/node_sharing.h"
#include "zel/matrix.h"
#include "zel/tessel3d_mpi.h"
#include "zel/tessel_elements.h"

namespace zel {
namespace tessel3d {
namespace mpi {
namespace detail {

/// Kind of a column of a linear solid connectivity of 4, 6 or 8 rows, by the
/// conversion's rule: 4 rows are TH4; in 6 rows row 4 absent is a TH4, else row 5 absent
/// a PY5, else a W6; 8 rows follow the mixed layout.
tessel::solid_kind linear_kind(const unsigned* column, std::size_t rows);

/// The checks every conversion makes on its part before any communication: coords
/// 3 x #nodes (or empty with no node), one global ID per node and per element, fewer
/// than 2^32 - 1 local nodes. Returns 0 or -2 (the part is argument 2 of every
/// conversion). Repeated node IDs are found by build_node_sharing.
int part_status(const part& mesh);

/// True when no two local nodes have the same global ID. Throws std::bad_alloc.
bool distinct_node_ids(const part& mesh);

/// The local columns in ascending global element ID: order[i] is the column holding the
/// i-th smallest ID. false when two elements have the same ID. Throws std::bad_alloc.
bool ascending_elements(const dense1D<std::uint64_t>& element_ids, std::vector<std::size_t>& order);

/// The columns of connect taken in `order` (a shallow copy when order is the identity).
/// false when memory runs out.
bool columns_in_order(const dense2D<unsigned>& connect, const std::vector<std::size_t>& order, dense2D<unsigned>& out);

/// New nodes per edge (e), per triangle (t) and per quadrangle (q) of a conversion.
struct new_node_counts {
  unsigned e, q, t;
};

/// Gives global IDs to the new nodes of a converted part and makes the ones on shared
/// edges and faces one node across ranks.
/// @param[in]     sharing    node_sharing of old_ids
/// @param[in]     old_ids    #old nodes: the global IDs before the conversion
/// @param[in]     linear     the linear elements (4, 6 or 8 rows), in ascending global ID
/// @param[in]     element_ids  #elements: their global IDs, ascending
/// @param[in]     high       the conversion of `linear` with `counts`, each face listed in
///                           its element's own face order (conforming faces)
/// @param[in,out] coords     3 x #nodes after the conversion; the new nodes of an edge or
///                           face another rank owns receive the owner's coordinates
/// @param[out]    node_ids   #nodes after the conversion: old IDs kept, new ones made
/// The owner of an edge or face is the rank of the element with the lowest global ID that
/// has it; its conversion met the entity first there, as a one-machine conversion in
/// element-ID order does, so it holds that conversion's coordinates. Owners number their
/// new nodes by (lowest global element ID, row in that element), rank after rank, from
/// the largest global node ID + 1.
/// @return the same on every rank: 0 | -2 (node IDs too large for the new ones, or parts
///         that disagree on a shared entity) | -199 memory
int share_new_nodes(MPI_Comm comm, const node_sharing& sharing, const dense1D<std::uint64_t>& old_ids,
                    const dense2D<unsigned>& linear, const std::vector<std::uint64_t>& element_ids,
                    const dense2D<unsigned>& high, new_node_counts counts, dense2D<double>& coords,
                    dense1D<std::uint64_t>& node_ids);

}  // namespace detail
}  // namespace mpi
}  // namespace tessel3d
}  // namespace zel
