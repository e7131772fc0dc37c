// volume: the signed total volume of a partitioned mesh, the same bits on any number of
// ranks.
#include <cstdint>

#include "mpi/exact_sum.h"
#include "mpi/node_sharing.h"
#include "zel/tessel3d_mpi.h"

namespace zel {
namespace tessel3d {
namespace mpi {

// Each element's volume is the one-machine `volume` of that element alone; those values
// are summed exactly (exact_sum) and rounded once, so neither the partition nor the order
// of the elements can change a bit. Each rank sends 73 integers, once.
int volume(MPI_Comm comm, const part& p, double& result) {
  if (comm == MPI_COMM_NULL) return -1;
  try {
    detail::private_comm own(comm);
    int status = detail::status_ok;
    const std::size_t rows = p.connect.rows(), nb_elements = p.connect.cols();
    const bool layout = rows == 4 || rows == 5 || rows == 6 || rows == 8;
    if (nb_elements > 0 && (!layout || p.coords.rows() != 3)) status = -2;
    detail::exact_sum sum;
    for (std::size_t j = 0; j < nb_elements && status == detail::status_ok; ++j) {
      double element = 0;
      if (tessel3d::volume(p.coords, p.connect.sub_matrix(0, j, rows, 1), element) != 0) status = -2;
      sum.add(element);
    }
    status = detail::agree(own.get(), status);
    if (status != detail::status_ok) return status;
    sum.all_reduce(own.get());
    result = sum.rounded();
    return detail::status_ok;
  } catch (const std::bad_alloc&) {
    return detail::status_out_of_memory;
  }
}

}  // namespace mpi
}  // namespace tessel3d
}  // namespace zel
