// Fuzz target: volume, circumcentres, dihedral and solid angles.
#include "fuzz_input.h"
#include "fuzz_structured.h"
#include "zel/tessel3d.h"

namespace {

using tessel3d_fuzz::require;
using tessel3d_test::box_kind;

// A valid box of thousands of elements, any numbering: its volume is the box's, every
// circumcentre is as far from the four nodes of its tetrahedron, and the dihedral angles
// of a box of right hexahedra are all right angles.
void structured_measures(tessel3d_fuzz::byte_reader& in) {
  const auto s = tessel3d_fuzz::read_structured(in, {box_kind::TH4, box_kind::PY5, box_kind::W6, box_kind::H8});
  const auto& coords = s.mesh.coords;
  const zel::dense2D<unsigned> connect = tessel3d_fuzz::solid_layout(s, s.mesh.connect);
  const double v = tessel3d_fuzz::total_volume(coords, connect);
  if (tessel3d_fuzz::box_volume_known(s)) tessel3d_fuzz::require_close(v, 1.0);
  if (s.kind == box_kind::TH4) {
    zel::dense2D<double> centers;
    require(zel::tessel3d::circumcenters(coords, connect, centers) == 0 && centers.cols() == connect.cols());
    for (std::size_t j = 0; j < connect.cols(); ++j) {
      double r[4];
      for (int i = 0; i < 4; ++i) {
        r[i] = 0;
        for (int d = 0; d < 3; ++d) r[i] += std::pow(coords(d, connect(i, j)) - centers(d, j), 2);
      }
      for (int i = 1; i < 4; ++i) require(std::fabs(r[i] - r[0]) <= 1e-9 * r[0]);
    }
  }
  if (s.kind == box_kind::H8 && !s.jittered) {
    zel::dense1D<double, 8> low(connect.cols(), 0.0), high(connect.cols(), 0.0);
    require(zel::tessel3d::dihedral_angles(coords, connect, true, low, high) == 0);
    for (std::size_t j = 0; j < connect.cols(); ++j)
      require(std::fabs(low[j] - 1) < 1e-12 && std::fabs(high[j] - 1) < 1e-12);
  }
}

}  // namespace

TESSEL3D_FUZZ_TARGET(measures) {
  if (tessel3d_fuzz::is_structured(data, size)) {
    tessel3d_fuzz::byte_reader structured(data + 1, size - 1);
    structured_measures(structured);
    return 0;
  }
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
      if (in.flag()) {
        if (in.flag())
          zel::tessel3d::dihedral_angles(coords, connect, normalise, low, high);
        else
          zel::tessel3d::solid_angles(coords, connect, normalise, low, high);
        break;
      }
      // The checked forms: ordered extremes (both NaN only for a listed element) and an
      // ascending list of columns.
      zel::dense1D<unsigned, 8> degenerate(2, 9u);
      const bool dihedral = in.flag();
      const int status = dihedral ? zel::tessel3d::dihedral_angles(coords, connect, normalise, low, high, degenerate)
                                  : zel::tessel3d::solid_angles(coords, connect, normalise, low, high, degenerate);
      if (status != 0 && !degenerate.empty()) __builtin_trap();
      if (status != 0) break;
      std::size_t listed = 0;
      for (std::size_t j = 0; j < connect.cols(); ++j) {
        const bool is_listed = listed < degenerate.size() && degenerate[listed] == j;
        listed += is_listed;
        if (j >= low.size() || j >= high.size()) continue;
        const bool undefined = low[j] != low[j] || high[j] != high[j];
        if (undefined ? !is_listed || low[j] == low[j] || high[j] == high[j] : !(low[j] <= high[j])) __builtin_trap();
        const double bound = dihedral ? 3.3 : 12.6 * (normalise ? 1.6 : 1.0);  // a pyramid apex: two halves
        if (!undefined && !(-bound <= low[j] && high[j] <= bound)) __builtin_trap();
      }
      if (listed != degenerate.size()) __builtin_trap();
      break;
    }
  }
  return 0;
}
