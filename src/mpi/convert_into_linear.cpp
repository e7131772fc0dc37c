// convert_into_linear over MPI: each rank drops the high-order nodes of its elements
// and the nodes none of its elements uses any more. A node is dropped on every rank at
// once, since the ranks that hold it hold it for the same elements' corners or not at
// all, so no message is needed beyond agreeing on the status.
#include <algorithm>
#include <new>
#include <vector>

#include "mpi/new_node_sharing.h"
#include "zel/tessel3d.h"
#include "zel/tessel3d_mpi.h"

namespace zel {
namespace tessel3d {
namespace mpi {

int convert_into_linear(MPI_Comm comm, part& mesh) {
  if (comm == MPI_COMM_NULL) return -1;
  int status = 0;
  dense2D<unsigned> connect;
  dense2D<double> coords;
  dense1D<std::uint64_t> node_ids;
  try {
    status = detail::part_status(mesh);
    if (status == 0 && !detail::distinct_node_ids(mesh)) status = -2;
    const std::size_t nodes = mesh.coords.cols();
    // Every entry a node or absent: the renumbering reads them all.
    for (std::size_t j = 0; j < mesh.connect.cols() && status == 0; ++j) {
      const unsigned* column = mesh.connect.data() + j * mesh.connect.ld();
      for (std::size_t i = 0; i < mesh.connect.rows(); ++i)
        if (column[i] != tessel::ABSENT && column[i] >= nodes) status = -2;
    }
    if (status == 0 && !connect.copy(mesh.connect)) status = tessel::OUT_OF_MEMORY;
    if (status == 0 && (status = tessel3d::convert_into_linear(connect)) == -1) status = -2;
    if (status == 0) {
      std::vector<unsigned> renumber(nodes, tessel::ABSENT);
      for (std::size_t j = 0; j < connect.cols(); ++j) {
        const unsigned* column = connect.data() + j * connect.ld();
        for (std::size_t i = 0; i < connect.rows(); ++i)
          if (column[i] != tessel::ABSENT) renumber[column[i]] = 0;
      }
      unsigned kept = 0;
      for (unsigned& x : renumber)
        if (x == 0) x = kept++;
      if (!coords.resize(3, kept) || !node_ids.resize(kept)) {
        status = tessel::OUT_OF_MEMORY;
      } else {
        for (std::size_t x = 0; x < nodes; ++x) {
          if (renumber[x] == tessel::ABSENT) continue;
          std::copy_n(mesh.coords.data() + x * mesh.coords.ld(), 3, coords.data() + renumber[x] * coords.ld());
          node_ids[renumber[x]] = mesh.node_ids[x];
        }
        for (std::size_t j = 0; j < connect.cols(); ++j) {
          unsigned* column = connect.data() + j * connect.ld();
          for (std::size_t i = 0; i < connect.rows(); ++i)
            if (column[i] != tessel::ABSENT) column[i] = renumber[column[i]];
        }
      }
    }
  } catch (const std::bad_alloc&) {
    status = tessel::OUT_OF_MEMORY;
  }
  if ((status = detail::agree(comm, status)) != 0) return status;
  mesh.coords = coords;
  mesh.connect = connect;
  mesh.node_ids = node_ids;
  return 0;
}

}  // namespace mpi
}  // namespace tessel3d
}  // namespace zel
