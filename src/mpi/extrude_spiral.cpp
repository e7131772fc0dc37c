// extrude_spiral over MPI: each rank sweeps its faces along a helix.
#include "mpi/extrude_part.h"

namespace zel {
namespace tessel3d {
namespace mpi {

int extrude_spiral(MPI_Comm comm, const part& surface, const vector_fixed<double, 3>& C,
                   const vector_fixed<double, 3>& R, const vector_fixed<double, 3>& T, unsigned nbLayers,
                   part& solids) {
  return detail::extrude_part(
      comm, surface, {},
      [&](dense2D<double>& coords, const dense2D<unsigned>& faces, dense2D<unsigned>& connectE) {
        return tessel3d::extrude_spiral(coords, faces, C, R, T, nbLayers, connectE);
      },
      solids);
}

int extrude_spiral(MPI_Comm comm, const part& surface, const vector_fixed<double, 3>& C,
                   const vector_fixed<double, 3>& R, const vector_fixed<double, 3>& T, double h0, double h1,
                   bool even_layers, part& solids) {
  return detail::extrude_part(
      comm, surface, {},
      [&](dense2D<double>& coords, const dense2D<unsigned>& faces, dense2D<unsigned>& connectE) {
        return tessel3d::extrude_spiral(coords, faces, C, R, T, h0, h1, even_layers, connectE);
      },
      solids);
}

}  // namespace mpi
}  // namespace tessel3d
}  // namespace zel
