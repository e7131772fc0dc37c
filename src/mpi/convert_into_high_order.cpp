// convert_into_high_order, convert_into_quadratic over MPI: each rank converts its
// elements in ascending global element ID, then the new nodes on shared edges and faces
// become one node across ranks (new_node_sharing.h).
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

using tessel::ABSENT;

// Rows of the converted matrix, as a one-machine conversion of the whole mesh gives them:
// TH4 alone, W6 alone, or the largest of the four kinds' counts (kinds: bit per kind).
std::size_t converted_rows(unsigned kinds, const unsigned c[7]) {
  const unsigned e = c[0], q = c[1], t = c[2], h = c[3], w = c[4], p = c[5], n = c[6];
  const std::size_t th = 4 + 6ull * e + 4ull * t + n, py = 5 + 8ull * e + q + 4ull * t + p;
  const std::size_t we = 6 + 9ull * e + 3ull * q + 2ull * t + w, he = 8 + 12ull * e + 6ull * q + h;
  if (kinds == 1u << tessel::kind_TH4) return th;
  if (kinds == 1u << tessel::kind_W6) return we;
  return std::max(std::max(th, py), std::max(we, he));
}

// The counts must be the same on every rank: -k for the first count (argument k) that is not.
int counts_agreed(MPI_Comm comm, const unsigned c[7]) {
  unsigned both[14], top[14];
  for (int i = 0; i < 7; ++i) both[i] = c[i], both[7 + i] = ~c[i];  // max of ~c is ~(min of c)
  if (MPI_Allreduce(both, top, 14, MPI_UNSIGNED, MPI_MAX, comm) != MPI_SUCCESS) return -1;
  for (int i = 0; i < 7; ++i)
    if (top[i] != ~top[7 + i]) return -(3 + i);
  return 0;
}

int convert(MPI_Comm comm, part& mesh, const unsigned c[7], const high_order_options& options) {
  if (comm == MPI_COMM_NULL) return -1;
  int status = 0;
  try {
    status = detail::part_status(mesh);
    const std::size_t R = mesh.connect.rows();
    if (status == 0 && mesh.connect.cols() > 0 && R != 4 && R != 6 && R != 8) status = -2;
    // Faces first met on another rank would be listed from a different corner by the
    // flat rotation, so the distributed form always lists them in each element's order.
    if (status == 0 && !options.conforming_faces && (c[1] > 1 || c[2] == 3)) status = -10;
  } catch (const std::bad_alloc&) {
    status = tessel::OUT_OF_MEMORY;
  }
  const int counts_status = counts_agreed(comm, c);
  if ((status = detail::agree(comm, status != 0 ? status : counts_status)) != 0) return status;
  bool any = false;
  for (int i = 0; i < 7; ++i) any = any || c[i] != 0;
  if (!any) return 0;  // nothing to add: the part stays as it is

  detail::private_comm own(comm);
  detail::node_sharing sharing;
  if ((status = detail::build_node_sharing(own.get(), mesh.node_ids, sharing)) != 0) return status;

  // The one-machine conversion, elements in ascending ID so that each shared entity is
  // met first in the element a one-machine conversion in ID order meets it in.
  std::vector<std::size_t> order;
  std::vector<std::uint64_t> element_ids;
  dense2D<unsigned> linear, high;
  dense2D<double> coords;
  unsigned kinds = 0;
  try {
    if (!detail::ascending_elements(mesh.element_ids, order)) status = -2;
    if (status == 0 && !detail::columns_in_order(mesh.connect, order, linear)) status = tessel::OUT_OF_MEMORY;
    if (status == 0 && !coords.copy(mesh.coords)) status = tessel::OUT_OF_MEMORY;
    if (status == 0) {
      high_order_options conforming;
      conforming.conforming_faces = true;
      status = tessel3d::convert_into_high_order(coords, linear, c[0], c[1], c[2], c[3], c[4], c[5], c[6], high, {}, {},
                                                 conforming);
      if (status == -1) status = -2;  // coords are part of the part
    }
    if (status == 0) {
      element_ids.resize(order.size());
      for (std::size_t i = 0; i < order.size(); ++i) element_ids[i] = mesh.element_ids[order[i]];
      for (std::size_t j = 0; j < linear.cols(); ++j)
        kinds |= 1u << detail::linear_kind(linear.data() + j * linear.ld(), linear.rows());
    }
  } catch (const std::bad_alloc&) {
    status = tessel::OUT_OF_MEMORY;
  }
  if ((status = detail::agree(own.get(), status)) != 0) return status;
  unsigned all_kinds = 0;
  MPI_Allreduce(&kinds, &all_kinds, 1, MPI_UNSIGNED, MPI_BOR, own.get());

  dense1D<std::uint64_t> node_ids;
  status = detail::share_new_nodes(own.get(), sharing, mesh.node_ids, linear, element_ids, high, {c[0], c[1], c[2]},
                                   coords, node_ids);
  if (status != 0) return status;

  // Back to the caller's column order, with the rows of the whole mesh's conversion.
  dense2D<unsigned> connect;
  const std::size_t rows = all_kinds == 0 ? high.rows() : converted_rows(all_kinds, c);
  if (!connect.resize(rows, mesh.connect.cols(), ABSENT)) status = tessel::OUT_OF_MEMORY;
  if (status == 0)
    for (std::size_t i = 0; i < order.size(); ++i)
      std::copy_n(high.data() + i * high.ld(), std::min(rows, high.rows()), connect.data() + order[i] * connect.ld());
  if ((status = detail::agree(own.get(), status)) != 0) return status;
  mesh.coords = coords;
  mesh.connect = connect;
  mesh.node_ids = node_ids;
  return 0;
}

}  // namespace

int convert_into_high_order(MPI_Comm comm, part& mesh, unsigned nodes_per_edge, unsigned nodes_in_Q4,
                            unsigned nodes_in_T3, unsigned nodes_in_H8, unsigned nodes_in_W6, unsigned nodes_in_PY5,
                            unsigned nodes_in_TH4, const high_order_options& options) {
  const unsigned counts[7] = {nodes_per_edge, nodes_in_Q4,  nodes_in_T3, nodes_in_H8,
                              nodes_in_W6,    nodes_in_PY5, nodes_in_TH4};
  return convert(comm, mesh, counts, options);
}

int convert_into_quadratic(MPI_Comm comm, part& mesh) {
  static const unsigned quadratic[7] = {1, 1, 0, 1, 0, 0, 0};
  return convert(comm, mesh, quadratic, high_order_options());
}

}  // namespace mpi
}  // namespace tessel3d
}  // namespace zel
