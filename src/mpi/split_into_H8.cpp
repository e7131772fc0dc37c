// split_into_H8 over MPI: each rank converts its elements (in ascending global element
// ID) with one node on every edge, face and interior, as the one-machine split does, and
// cuts them with the one-machine split; the new nodes on shared edges and faces become one
// node across ranks (new_node_sharing.h).
#include <algorithm>
#include <new>
#include <vector>

#include "mpi/new_node_sharing.h"
#include "zel/tessel3d.h"
#include "zel/tessel3d_mpi.h"

namespace zel {
namespace tessel3d {
namespace mpi {

namespace {
constexpr unsigned hexahedra_of_kind[4] = {4, 0, 6, 8};  // TH4, PY5 (refused), W6, H8
constexpr std::uint64_t first_too_large_element_id = std::uint64_t(1) << 61;
}  // namespace

int split_into_H8(MPI_Comm comm, const part& in, part& out) {
  if (comm == MPI_COMM_NULL) return -1;
  int status = 0;
  try {
    status = detail::part_status(in);
    const std::size_t R = in.connect.rows();
    if (status == 0 && in.connect.cols() > 0 && R != 4 && R != 6 && R != 8) status = -2;
    for (std::size_t j = 0; j < in.element_ids.size() && status == 0; ++j)
      if (in.element_ids[j] >= first_too_large_element_id) status = -2;  // hexahedron IDs are 8 ID + k
  } catch (const std::bad_alloc&) {
    status = tessel::OUT_OF_MEMORY;
  }
  if ((status = detail::agree(comm, status)) != 0) return status;

  detail::private_comm own(comm);
  detail::node_sharing sharing;
  if ((status = detail::build_node_sharing(own.get(), in.node_ids, sharing)) != 0) return status;

  // The nodes of the split are those of the conversion with every count 1 (the split
  // makes that conversion itself): the conversion tells which edge or face each new node
  // belongs to, the split gives the hexahedra on the same numbering.
  std::vector<std::size_t> order;
  std::vector<std::uint64_t> element_ids;
  dense2D<unsigned> linear, high, hexahedra;
  dense2D<double> coords, split_coords;
  const dense2D<unsigned> no_caller_faces, no_caller_edges;
  try {
    if (!detail::ascending_elements(in.element_ids, order)) status = -2;
    if (status == 0 && !detail::columns_in_order(in.connect, order, linear)) status = tessel::OUT_OF_MEMORY;
    if (status == 0 && (!coords.copy(in.coords) || !split_coords.copy(in.coords))) status = tessel::OUT_OF_MEMORY;
    if (status == 0)
      status = tessel3d::split_into_H8(split_coords, linear, hexahedra, no_caller_faces, no_caller_edges);
    if (status == 0)
      status = tessel3d::convert_into_high_order(coords, linear, 1, 1, 1, 1, 1, 1, 1, high, no_caller_faces,
                                                 no_caller_edges);
    if (status == -1) status = -2;  // coords are part of the part
    if (status == 0 && (split_coords.cols() != coords.cols() || hexahedra.rows() > 8)) status = -2;
    if (status == 0) {
      element_ids.resize(order.size());
      for (std::size_t i = 0; i < order.size(); ++i) element_ids[i] = in.element_ids[order[i]];
    }
  } catch (const std::bad_alloc&) {
    status = tessel::OUT_OF_MEMORY;
  }
  if ((status = detail::agree(own.get(), status)) != 0) return status;

  dense1D<std::uint64_t> node_ids;
  status =
      detail::share_new_nodes(own.get(), sharing, in.node_ids, linear, element_ids, high, {1, 1, 1}, coords, node_ids);
  if (status != 0) return status;

  // The hexahedra of each element, in the caller's element order; hexahedron k of
  // element g gets the ID 8 g + k, whatever the partition.
  dense2D<unsigned> connect;
  dense1D<std::uint64_t> hexahedron_ids;
  try {
    const std::size_t m = order.size();
    std::vector<std::size_t> first(m + 1, 0), at(m, 0);  // first: in sorted order; at: per caller column
    for (std::size_t i = 0; i < m; ++i)
      first[i + 1] = first[i] + hexahedra_of_kind[detail::linear_kind(linear.data() + i * linear.ld(), linear.rows())];
    for (std::size_t i = 0; i < m; ++i) at[order[i]] = i;
    if (first[m] != hexahedra.cols() || !connect.resize(8, first[m], tessel::ABSENT) ||
        !hexahedron_ids.resize(first[m])) {
      status = first[m] != hexahedra.cols() ? -2 : tessel::OUT_OF_MEMORY;
    } else {
      std::size_t made = 0;
      for (std::size_t j = 0; j < m; ++j) {
        const std::size_t i = at[j];
        for (std::size_t k = first[i]; k < first[i + 1]; ++k, ++made) {
          std::copy_n(hexahedra.data() + k * hexahedra.ld(), 8, connect.data() + made * connect.ld());
          hexahedron_ids[made] = 8 * element_ids[i] + (k - first[i]);
        }
      }
    }
  } catch (const std::bad_alloc&) {
    status = tessel::OUT_OF_MEMORY;
  }
  if ((status = detail::agree(own.get(), status)) != 0) return status;
  out.coords = coords;
  out.connect = connect;
  out.node_ids = node_ids;
  out.element_ids = hexahedron_ids;
  return 0;
}

}  // namespace mpi
}  // namespace tessel3d
}  // namespace zel
