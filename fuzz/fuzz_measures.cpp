// Fuzz target: volume, circumcentres, dihedral and solid angles.
#include "fuzz_input.h"
#include "zel/tessel3d.h"

TESSEL3D_FUZZ_TARGET(measures) {
  tessel3d_fuzz::byte_reader in(data, size);
  auto coords = in.coords(30);
  const unsigned nb_nodes = static_cast<unsigned>(coords.cols());
  auto connect = in.connectivity({4, 5, 6, 8}, nb_nodes, 24);
  switch (in.below(4)) {
    case 0: {
      double result = 1;
      const int status = zel::tessel3d::volume(coords, connect, result);
      if (status != 0 && result != 0) __builtin_trap();  // a failure leaves 0
      break;
    }
    case 1: {
      zel::dense2D<double> centers(2, 2, 5.0);
      const int status = zel::tessel3d::circumcenters(coords, connect, centers);
      if (status != 0 && !(centers.rows() == 0 && centers.cols() == 0)) __builtin_trap();
      if (status == 0 && centers.cols() != connect.cols()) __builtin_trap();
      break;
    }
    default: {
      // Output vectors of any length, shorter than the element count included.
      zel::dense1D<double, 8> low(in.below(30), 9.0), high(in.below(30), 9.0);
      const bool normalise = in.flag();
      if (in.flag())
        zel::tessel3d::dihedral_angles(coords, connect, normalise, low, high);
      else
        zel::tessel3d::solid_angles(coords, connect, normalise, low, high);
      break;
    }
  }
  return 0;
}
