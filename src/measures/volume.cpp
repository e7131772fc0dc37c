// volume: signed total volume of a solid mesh (TH4, PY5, W6, or the 8-row mixed layout).
#include "measures/vec3.h"
#include "zel/tessel3d.h"

namespace zel {
namespace tessel3d {
namespace {

using elfes::vec3;

// Six times the signed volume of one element from its vertices p[0 ...]. Each form
// is a sum of triple products over a split of the element; the differences are taken
// exactly as below so that pure and mixed meshes give identical element values.
inline double six_volume_TH4(const vec3* p) { return triple(p[0] - p[3], p[1] - p[3], p[2] - p[3]); }

// Uses both diagonals of the base: a non-planar base counts as split along 0-2.
inline double six_volume_PY5(const vec3* p) { return triple(p[0] - p[4], p[2] - p[4], p[1] - p[3]); }

inline double six_volume_W6(const vec3* p) {
  return triple(p[3] - p[2], p[4] - p[2], p[5] - p[2]) + triple(p[0] - p[2], p[4] - p[2], p[3] - p[1]);
}

inline double six_volume_H8(const vec3* p) {
  return triple(p[3] - p[1], p[4] - p[1], p[6] - p[0]) + triple(p[3] - p[1], p[6] - p[1], p[2] - p[1]) +
         triple(p[6] - p[4], p[6] - p[1], p[5] - p[6]) + triple(p[6] - p[4], p[3] - p[4], p[7] - p[4]);
}

template <elfes::solid_kind kind>
inline double six_volume(const unsigned* column, const elfes::node_reader& node) {
  vec3 p[8];
  switch (kind) {
    case elfes::kind_TH4: elfes::load_vertices<4>(column, node, p); return six_volume_TH4(p);
    case elfes::kind_PY5: elfes::load_vertices<5>(column, node, p); return six_volume_PY5(p);
    case elfes::kind_W6: elfes::load_vertices<6>(column, node, p); return six_volume_W6(p);
    default: elfes::load_vertices<8>(column, node, p); return six_volume_H8(p);
  }
}

// Tetrahedra four columns at a time into separate partial sums: the loads of one
// column overlap the arithmetic of the others.
double sum_TH4(const dense2D<unsigned>& connect, const elfes::node_reader& node) {
  const std::size_t n = connect.cols(), ld = connect.ld();
  const unsigned* column = connect.data();
  double s0 = 0, s1 = 0, s2 = 0, s3 = 0;
  std::size_t j = 0;
  for (; j + 4 <= n; j += 4, column += 4 * ld) {
    s0 += six_volume<elfes::kind_TH4>(column, node);
    s1 += six_volume<elfes::kind_TH4>(column + ld, node);
    s2 += six_volume<elfes::kind_TH4>(column + 2 * ld, node);
    s3 += six_volume<elfes::kind_TH4>(column + 3 * ld, node);
  }
  for (; j < n; ++j, column += ld) s0 += six_volume<elfes::kind_TH4>(column, node);
  return (s0 + s1) + (s2 + s3);
}

template <elfes::solid_kind kind>
double sum_pure(const dense2D<unsigned>& connect, const elfes::node_reader& node) {
  const std::size_t n = connect.cols(), ld = connect.ld();
  const unsigned* column = connect.data();
  double sum = 0;
  for (std::size_t j = 0; j < n; ++j, column += ld) sum += six_volume<kind>(column, node);
  return sum;
}

// Every row holds a node: a hexahedron whose nodes need no test for the marker.
inline bool complete_H8(const unsigned* column) {
  bool complete = true;
  for (unsigned k = 0; k < 8; ++k) complete &= column[k] != elfes::absent;
  return complete;
}

// Mixed columns: each classified by its absent rows, then measured with the kernel of
// its kind (the same kernels as the pure paths). A hexahedron with all its nodes, the
// whole of an 8-row H8 mesh, is read without the marker tests: the same values.
double sum_mixed(const dense2D<unsigned>& connect, const elfes::mixed_node_reader& node) {
  const std::size_t n = connect.cols(), ld = connect.ld();
  const unsigned* column = connect.data();
  const elfes::node_reader plain{node.base, node.ld};
  double sum = 0;
  vec3 p[8];
  for (std::size_t j = 0; j < n; ++j, column += ld) {
    if (complete_H8(column)) {
      elfes::load_vertices<8>(column, plain, p);
      sum += six_volume_H8(p);
      continue;
    }
    switch (elfes::mixed8_kind(column)) {
      case elfes::kind_TH4:
        elfes::load_vertices<4>(column, node, p);
        sum += six_volume_TH4(p);
        break;
      case elfes::kind_PY5:
        elfes::load_vertices<5>(column, node, p);
        sum += six_volume_PY5(p);
        break;
      case elfes::kind_W6:
        elfes::load_vertices<6>(column, node, p);
        sum += six_volume_W6(p);
        break;
      case elfes::kind_H8:
        elfes::load_vertices<8>(column, node, p);
        sum += six_volume_H8(p);
        break;
    }
  }
  return sum;
}

}  // namespace

int volume(const dense2D<double>& coords, const dense2D<unsigned>& connect, double& result) {
  result = 0.0;
  if (connect.empty()) return 0;
  if (coords.rows() != 3) return -1;
  const unsigned nb_nodes = static_cast<unsigned>(coords.cols());
  const elfes::node_reader node{coords.data(), coords.ld()};
  elfes::solid_kind kind;
  double sum;
  if (elfes::pure_kind_of_rows(connect.rows(), kind)) {
    if (!tessel::check_IDs(connect, elfes::solid_table[kind].type, nb_nodes)) return -2;
    switch (kind) {
      case elfes::kind_TH4: sum = sum_TH4(connect, node); break;
      case elfes::kind_PY5: sum = sum_pure<elfes::kind_PY5>(connect, node); break;
      default: sum = sum_pure<elfes::kind_W6>(connect, node); break;
    }
  } else {
    // Any other row count is the mixed layout; the check rejects those (7, 9, ...)
    // whose columns could not be read as 8 rows.
    if (!tessel::check_IDs(connect, SOLID_MIX8, nb_nodes)) return -2;
    sum = sum_mixed(connect, elfes::mixed_node_reader{coords.data(), coords.ld()});
  }
  result = sum * 0.16666666666666666;
  return 0;
}

}  // namespace tessel3d
}  // namespace zel
