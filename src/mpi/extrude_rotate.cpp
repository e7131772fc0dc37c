// extrude_rotate over MPI: each rank sweeps its faces around an axis, the layer count
// taken from the first node of the mesh's first face on every rank.
#include "mpi/extrude_part.h"

namespace zel {
namespace tessel3d {
namespace mpi {

int extrude_rotate(MPI_Comm comm, const part& surface, const vector_fixed<double, 3>& C,
                   const vector_fixed<double, 3>& R, unsigned nbLayers, part& solids) {
  detail::sweep_extras extras;
  extras.first_node_first = true;
  return detail::extrude_part(
      comm, surface, extras,
      [&](dense2D<double>& coords, const dense2D<unsigned>& faces, dense2D<unsigned>& connectE) {
        return tessel3d::extrude_rotate(coords, faces, C, R, nbLayers, connectE);
      },
      solids);
}

int extrude_rotate(MPI_Comm comm, const part& surface, const vector_fixed<double, 3>& C,
                   const vector_fixed<double, 3>& R, double h0, double h1, bool even_layers, part& solids) {
  detail::sweep_extras extras;
  extras.first_node_first = true;
  return detail::extrude_part(
      comm, surface, extras,
      [&](dense2D<double>& coords, const dense2D<unsigned>& faces, dense2D<unsigned>& connectE) {
        return tessel3d::extrude_rotate(coords, faces, C, R, h0, h1, even_layers, connectE);
      },
      solids);
}

}  // namespace mpi
}  // namespace tessel3d
}  // namespace zel
