// dihedral_angles, solid_angles: the checked angle measures on a partitioned mesh, with
// the extremes over every rank.
#include <cmath>
#include <limits>

#include "mpi/node_sharing.h"
#include "zel/tessel3d_mpi.h"

namespace zel {
namespace tessel3d {
namespace mpi {
namespace {

using local_measure = int (*)(const dense2D<double>&, const dense2D<unsigned>&, bool, dense1D<double, 8>&,
                              dense1D<double, 8>&, dense1D<unsigned, 8>&);

// The per-element values stay on their rank: only the two extremes travel (one
// reduction of two doubles). The local call writes into fresh vectors, handed over
// only when every rank has succeeded.
int measure(local_measure local, MPI_Comm comm, const part& p, bool normalise, dense1D<double, 8>& minValues,
            dense1D<double, 8>& maxValues, dense1D<unsigned, 8>& degenerate, double& smallest, double& largest) {
  if (comm == MPI_COMM_NULL) return -1;
  try {
    detail::private_comm own(comm);
    const std::size_t nb_elements = p.connect.cols();
    dense1D<double, 8> mins, maxs;
    dense1D<unsigned, 8> flat;
    int status = detail::status_ok;
    if (!mins.resize(nb_elements) || !maxs.resize(nb_elements))
      status = detail::status_out_of_memory;
    else {
      const int code = local(p.coords, p.connect, normalise, mins, maxs, flat);
      if (code == -1 || code == -2)
        status = -2;
      else if (code < 0)
        status = detail::status_out_of_memory;
    }
    status = detail::agree(own.get(), status);
    if (status != detail::status_ok) return status;
    // NaN is an element without a defined value: it takes no part in the extremes.
    const double inf = std::numeric_limits<double>::infinity();
    double local_extremes[2] = {inf, inf}, extremes[2];  // the smallest, and minus the largest
    for (std::size_t j = 0; j < nb_elements; ++j) {
      if (!std::isnan(mins[j]) && mins[j] < local_extremes[0]) local_extremes[0] = mins[j];
      if (!std::isnan(maxs[j]) && -maxs[j] < local_extremes[1]) local_extremes[1] = -maxs[j];
    }
    MPI_Allreduce(local_extremes, extremes, 2, MPI_DOUBLE, MPI_MIN, own.get());
    const bool none = extremes[0] == inf && extremes[1] == inf;
    smallest = none ? std::nan("") : extremes[0];
    largest = none ? std::nan("") : -extremes[1];
    minValues = mins;
    maxValues = maxs;
    degenerate = flat;
    return detail::status_ok;
  } catch (const std::bad_alloc&) {
    return detail::status_out_of_memory;
  }
}

int local_dihedral(const dense2D<double>& coords, const dense2D<unsigned>& connect, bool normalise,
                   dense1D<double, 8>& mins, dense1D<double, 8>& maxs, dense1D<unsigned, 8>& flat) {
  return tessel3d::dihedral_angles(coords, connect, normalise, mins, maxs, flat);
}

int local_solid(const dense2D<double>& coords, const dense2D<unsigned>& connect, bool normalise,
                dense1D<double, 8>& mins, dense1D<double, 8>& maxs, dense1D<unsigned, 8>& flat) {
  return tessel3d::solid_angles(coords, connect, normalise, mins, maxs, flat);
}

}  // namespace

int dihedral_angles(MPI_Comm comm, const part& p, bool normalise, dense1D<double, 8>& minValues,
                    dense1D<double, 8>& maxValues, dense1D<unsigned, 8>& degenerate, double& smallest,
                    double& largest) {
  return measure(local_dihedral, comm, p, normalise, minValues, maxValues, degenerate, smallest, largest);
}

int solid_angles(MPI_Comm comm, const part& p, bool normalise, dense1D<double, 8>& minValues,
                 dense1D<double, 8>& maxValues, dense1D<unsigned, 8>& degenerate, double& smallest, double& largest) {
  return measure(local_solid, comm, p, normalise, minValues, maxValues, degenerate, smallest, largest);
}

}  // namespace mpi
}  // namespace tessel3d
}  // namespace zel
