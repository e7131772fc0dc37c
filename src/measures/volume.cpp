// volume: signed total volume of a solid mesh (TH4, PY5, W6, or the 8-row mixed layout).
#include <atomic>

#include "common/parallel.h"
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

// The node IDs are validated in the summing pass itself, column by column before any of
// its coordinates is read: the verdict of check_IDs, without a second pass over the
// connectivity (which costs as much memory traffic as the sum of a hexahedral mesh).

// All n IDs of a column are below the node count (the absent marker is not).
template <unsigned n>
inline bool valid_column(const unsigned* column, unsigned nb_nodes) {
  bool valid = true;
  for (unsigned k = 0; k < n; ++k) valid &= column[k] < nb_nodes;
  return valid;
}

// Tetrahedra four columns at a time into separate partial sums: the loads of one
// column overlap the arithmetic of the others. False on an invalid ID.
bool sum_TH4(const dense2D<unsigned>& connect, const elfes::node_reader& node, unsigned nb_nodes, std::size_t first,
             std::size_t n, double& sum) {
  const std::size_t ld = connect.ld();
  const unsigned* column = connect.data() + first * ld;
  double s0 = 0, s1 = 0, s2 = 0, s3 = 0;
  std::size_t j = first;
  for (; j + 4 <= n; j += 4, column += 4 * ld) {
    if (!(int(valid_column<4>(column, nb_nodes)) & int(valid_column<4>(column + ld, nb_nodes)) &
          int(valid_column<4>(column + 2 * ld, nb_nodes)) & int(valid_column<4>(column + 3 * ld, nb_nodes))))
      return false;
    s0 += six_volume<elfes::kind_TH4>(column, node);
    s1 += six_volume<elfes::kind_TH4>(column + ld, node);
    s2 += six_volume<elfes::kind_TH4>(column + 2 * ld, node);
    s3 += six_volume<elfes::kind_TH4>(column + 3 * ld, node);
  }
  for (; j < n; ++j, column += ld) {
    if (!valid_column<4>(column, nb_nodes)) return false;
    s0 += six_volume<elfes::kind_TH4>(column, node);
  }
  sum = (s0 + s1) + (s2 + s3);
  return true;
}

template <elfes::solid_kind kind>
bool sum_pure(const dense2D<unsigned>& connect, const elfes::node_reader& node, unsigned nb_nodes, std::size_t first,
              std::size_t n, double& sum) {
  constexpr unsigned rows = elfes::solid_table[kind].nb_vertices;
  const std::size_t ld = connect.ld();
  const unsigned* column = connect.data() + first * ld;
  sum = 0;
  for (std::size_t j = first; j < n; ++j, column += ld) {
    if (!valid_column<rows>(column, nb_nodes)) return false;
    sum += six_volume<kind>(column, node);
  }
  return true;
}

// Mixed columns (8 rows): an entry is a node or the absent marker. Each column is
// classified by its absent rows, then measured with the kernel of its kind (the same
// kernels as the pure paths). A column of 8 nodes, the whole of an 8-row H8 mesh, is a
// hexahedron read without the marker tests: the same values.
bool sum_mixed(const dense2D<unsigned>& connect, const elfes::mixed_node_reader& node, unsigned nb_nodes,
               std::size_t first, std::size_t n, double& sum) {
  const std::size_t ld = connect.ld();
  const unsigned* column = connect.data() + first * ld;
  const elfes::node_reader plain{node.base, node.ld};
  sum = 0;
  vec3 p[8];
  for (std::size_t j = first; j < n; ++j, column += ld) {
    if (valid_column<8>(column, nb_nodes)) {
      elfes::load_vertices<8>(column, plain, p);
      sum += six_volume_H8(p);
      continue;
    }
    for (unsigned k = 0; k < 8; ++k)
      if (column[k] >= nb_nodes && column[k] != elfes::absent) return false;
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
  return true;
}

}  // namespace

int volume(const dense2D<double>& coords, const dense2D<unsigned>& connect, double& result) {
  result = 0.0;
  if (connect.empty()) return 0;
  if (coords.rows() != 3) return -1;
  const unsigned nb_nodes = static_cast<unsigned>(coords.cols());
  const elfes::node_reader node{coords.data(), coords.ld()};
  elfes::solid_kind kind;
  const bool pure = elfes::pure_kind_of_rows(connect.rows(), kind);
  // Any other row count is the mixed layout; only 8 rows can be read as its columns
  // (4, 5 and 6 rows are the pure kinds above).
  if (!pure && connect.rows() != 8) return -2;
  const elfes::mixed_node_reader mixed_node{coords.data(), coords.ld()};
  std::atomic<bool> valid{true};
  // Chunks of a fixed size summed in order: the same bits on any number of threads.
  const double sum = elfes::parallel_sum(connect.cols(), 1u << 16, [&](std::size_t first, std::size_t last) {
    double part = 0;
    bool ok;
    if (!pure) {
      ok = sum_mixed(connect, mixed_node, nb_nodes, first, last, part);
    } else {
      switch (kind) {
        case elfes::kind_TH4: ok = sum_TH4(connect, node, nb_nodes, first, last, part); break;
        case elfes::kind_PY5: ok = sum_pure<elfes::kind_PY5>(connect, node, nb_nodes, first, last, part); break;
        default: ok = sum_pure<elfes::kind_W6>(connect, node, nb_nodes, first, last, part); break;
      }
    }
    if (!ok) valid.store(false, std::memory_order_relaxed);
    return part;
  });
  if (!valid.load()) return -2;
  result = sum * 0.16666666666666666;
  return 0;
}

}  // namespace tessel3d
}  // namespace zel
