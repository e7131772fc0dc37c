// dihedral_angles: smallest and largest angle between two faces sharing an edge, per
// element. The element kernel is in measures/dihedral_kernel.h, shared with the
// functions that judge the shape of the elements they create.
#include "common/shared_memory.h"
#include "measures/angle_walk.h"
#include "measures/dihedral_kernel.h"
#include "zel/tessel3d.h"

namespace zel {
namespace tessel3d {

int dihedral_angles(const dense2D<double>& coords, const dense2D<unsigned>& connect, bool normalise,
                    dense1D<double, 8>& minValues, dense1D<double, 8>& maxValues) {
  if (elfes::share_memory(minValues, maxValues)) return -5;  // one vector cannot hold both
  if (elfes::shares_with_any(minValues, coords, connect) || elfes::shares_with_any(maxValues, coords, connect)) {
    dense2D<double> own_coords;
    dense2D<unsigned> own_connect;
    if (!own_coords.copy(coords) || !own_connect.copy(connect)) return tessel::OUT_OF_MEMORY;
    return elfes::walk_angles<elfes::dihedral_measure>(own_coords, own_connect, normalise, minValues, maxValues);
  }
  return elfes::walk_angles<elfes::dihedral_measure>(coords, connect, normalise, minValues, maxValues);
}

int dihedral_angles(const dense2D<double>& coords, const dense2D<unsigned>& connect, bool normalise,
                    dense1D<double, 8>& minValues, dense1D<double, 8>& maxValues, dense1D<unsigned, 8>& degenerate) {
  return elfes::walk_checked_angles<elfes::checked_dihedral_measure>(coords, connect, normalise, minValues, maxValues,
                                                                     degenerate);
}

}  // namespace tessel3d
}  // namespace zel
