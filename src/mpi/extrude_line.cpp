// extrude_line over MPI: each rank sweeps its faces along a polyline that every rank
// holds as points, appended to its own nodes for the call.
#include "mpi/extrude_part.h"

namespace zel {
namespace tessel3d {
namespace mpi {
namespace {

template <class Sizes>
int extrude_along(MPI_Comm comm, const part& surface, const dense2D<double>& line_points,
                  const vector_fixed<double, 3>& V, const Sizes& sizes, part& solids) {
  // The polyline is checked here (before its points are appended): -3 as the one-machine
  // call gives it for a polyline too short.
  detail::sweep_extras extras;
  extras.status = line_points.rows() == 3 && line_points.cols() >= 2 ? 0 : -3;
  extras.appended = &line_points;
  return detail::extrude_part(
      comm, surface, extras,
      [&](dense2D<double>& coords, const dense2D<unsigned>& faces, dense2D<unsigned>& connectE) {
        dense1D<unsigned, 8> line;
        if (!line.resize(line_points.cols())) return detail::out_of_memory;
        const std::size_t first = coords.cols() - line_points.cols();
        for (std::size_t k = 0; k < line.size(); ++k) line[k] = unsigned(first + k);
        return tessel3d::extrude_line(coords, faces, line, V, sizes, connectE);
      },
      solids);
}

}  // namespace

int extrude_line(MPI_Comm comm, const part& surface, const dense2D<double>& line_points,
                 const vector_fixed<double, 3>& V, const dense2D<double>& line_metrics, part& solids) {
  return extrude_along(comm, surface, line_points, V, line_metrics, solids);
}

int extrude_line(MPI_Comm comm, const part& surface, const dense2D<double>& line_points,
                 const vector_fixed<double, 3>& V, const dense1D<double, 8>& line_scales, part& solids) {
  return extrude_along(comm, surface, line_points, V, line_scales, solids);
}

}  // namespace mpi
}  // namespace tessel3d
}  // namespace zel
