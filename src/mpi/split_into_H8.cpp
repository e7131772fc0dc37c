// split_into_H8 over MPI: each rank cuts its elements (in ascending global element ID)
// with the one-machine split; the new nodes on shared edges and faces become one node
// across ranks (new_node_sharing.h).
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

// The columns of the conversion with every count 1 (corners, one node per edge in edge
// order, one per face in face order, the centre), rebuilt from the split: each hexahedron
// holds one corner of its element, and a new node belongs to the edge, face or interior
// whose corners are exactly the corners of the hexahedra holding it.
bool high_order_columns(const dense2D<unsigned>& linear, const dense2D<unsigned>& hexahedra,
                        const std::vector<std::size_t>& first, std::size_t nb_old, dense2D<unsigned>& high) {
  if (!high.resize(27, linear.cols(), tessel::ABSENT)) return false;
  for (std::size_t j = 0; j < linear.cols(); ++j) {
    const unsigned* column = linear.data() + j * linear.ld();
    unsigned* out = high.data() + j * high.ld();
    const tessel::solid_record& d = tessel::solid_records[detail::linear_kind(column, linear.rows())];
    unsigned node[27], corners_of[27], nb_new = 0;  // the element's new nodes, with a bit per corner
    for (std::size_t k = first[j]; k < first[j + 1]; ++k) {
      const unsigned* hexahedron = hexahedra.data() + k * hexahedra.ld();
      unsigned corner = 0;
      for (unsigned v = 0; v < 8; ++v)
        if (hexahedron[v] < nb_old)
          while (corner < d.nb_vertices && column[corner] != hexahedron[v]) ++corner;
      for (unsigned v = 0; v < 8 && corner < d.nb_vertices; ++v) {
        if (hexahedron[v] < nb_old) continue;
        unsigned n = 0;
        while (n < nb_new && node[n] != hexahedron[v]) ++n;
        if (n == nb_new && nb_new < 27) node[nb_new] = hexahedron[v], corners_of[nb_new++] = 0;
        if (n < 27) corners_of[n] |= 1u << corner;
      }
    }
    std::copy_n(column, d.nb_vertices, out);
    const auto place = [&](unsigned corners, unsigned row) {
      for (unsigned n = 0; n < nb_new; ++n)
        if (corners_of[n] == corners) out[row] = node[n];
    };
    for (unsigned i = 0; i < d.nb_edges; ++i) place((1u << d.edges[i][0]) | (1u << d.edges[i][1]), d.nb_vertices + i);
    for (unsigned f = 0; f < d.nb_faces; ++f) {
      unsigned corners = 0;
      for (unsigned c = 0; c < d.face_size[f]; ++c) corners |= 1u << d.faces[f][c];
      place(corners, d.nb_vertices + d.nb_edges + f);
    }
    place((1u << d.nb_vertices) - 1, d.nb_vertices + d.nb_edges + d.nb_faces);
  }
  return true;
}
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

  // The one-machine split, elements in ascending ID; then each element's new nodes as the
  // conversion with every count 1 lists them, to tell which edge or face each belongs to.
  std::vector<std::size_t> order, first;
  std::vector<std::uint64_t> element_ids;
  dense2D<unsigned> linear, high, hexahedra;
  dense2D<double> coords;
  const dense2D<unsigned> no_caller_faces, no_caller_edges;
  try {
    if (!detail::ascending_elements(in.element_ids, order)) status = -2;
    if (status == 0 && !detail::columns_in_order(in.connect, order, linear)) status = tessel::OUT_OF_MEMORY;
    if (status == 0 && !coords.copy(in.coords)) status = tessel::OUT_OF_MEMORY;
    if (status == 0) status = tessel3d::split_into_H8(coords, linear, hexahedra, no_caller_faces, no_caller_edges);
    if (status == -1) status = -2;  // coords are part of the part
    if (status == 0) {
      element_ids.resize(order.size());
      first.assign(order.size() + 1, 0);
      for (std::size_t i = 0; i < order.size(); ++i) {
        element_ids[i] = in.element_ids[order[i]];
        first[i + 1] =
            first[i] + hexahedra_of_kind[detail::linear_kind(linear.data() + i * linear.ld(), linear.rows())];
      }
      if (first.back() != hexahedra.cols() || (hexahedra.cols() > 0 && hexahedra.rows() != 8)) status = -2;
    }
    if (status == 0 && !high_order_columns(linear, hexahedra, first, in.coords.cols(), high))
      status = tessel::OUT_OF_MEMORY;
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
    std::vector<std::size_t> at(m, 0);  // per caller column: its place in ascending ID
    for (std::size_t i = 0; i < m; ++i) at[order[i]] = i;
    if (!connect.resize(8, first[m], tessel::ABSENT) || !hexahedron_ids.resize(first[m])) {
      status = tessel::OUT_OF_MEMORY;
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
