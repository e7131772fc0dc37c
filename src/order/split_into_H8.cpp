// split_into_H8: every TH4 into 4, W6 into 6 and H8 into 8 hexahedra, cut by fixed
// tables from the element with one node on each edge, face and interior.
#include "common/element_tables.h"
#include "common/parallel.h"
#include "common/shared_memory.h"
#include "order/solid_columns.h"
#include "zel/tessel3d.h"

namespace zel {
namespace tessel3d {
namespace {

// Rows of the high-order elements (corners, edge nodes in the local edge order, face
// nodes in the local face order, centre), one hexahedron per corner of the element.
constexpr unsigned hexahedron_cut[8][8] = {{0, 8, 24, 11, 16, 22, 26, 20},  {1, 9, 24, 8, 17, 21, 26, 22},
                                           {2, 10, 24, 9, 18, 23, 26, 21},  {3, 11, 24, 10, 19, 20, 26, 23},
                                           {4, 15, 25, 12, 16, 20, 26, 22}, {5, 12, 25, 13, 17, 22, 26, 21},
                                           {6, 13, 25, 14, 18, 21, 26, 23}, {7, 14, 25, 15, 19, 23, 26, 20}};
constexpr unsigned wedge_cut[6][8] = {{0, 11, 15, 10, 6, 19, 20, 18}, {1, 9, 15, 11, 7, 17, 20, 19},
                                      {2, 10, 15, 9, 8, 18, 20, 17},  {6, 19, 20, 18, 3, 14, 16, 13},
                                      {7, 17, 20, 19, 4, 12, 16, 14}, {8, 18, 20, 17, 5, 13, 16, 12}};
constexpr unsigned tetrahedron_cut[4][8] = {{0, 5, 13, 6, 7, 11, 14, 12},
                                            {1, 6, 13, 4, 8, 12, 14, 10},
                                            {2, 4, 13, 5, 9, 10, 14, 11},
                                            {3, 7, 12, 8, 9, 11, 14, 10}};

constexpr std::size_t column_grain = std::size_t(1) << 13;

struct cut_table {
  const unsigned (*rows)[8];
  unsigned count;
};

// The cut of high-order column j, by the last row its kind fills: 26 (H27), 17 (the
// wedge's 21 rows) or 9 (the tetrahedron's 15); no row of those gives nothing.
cut_table cut_of(const dense2D<unsigned>& high, std::size_t j) {
  const unsigned* column = high.data() + j * high.ld();
  const auto present = [&](std::size_t row) { return row < high.rows() && column[row] != tessel::ABSENT; };
  if (present(26)) return {hexahedron_cut, 8};
  if (present(17)) return {wedge_cut, 6};
  if (present(9)) return {tetrahedron_cut, 4};
  return {nullptr, 0};
}

}  // namespace

int split_into_H8(dense2D<double>& coords, const dense2D<unsigned>& connect, dense2D<unsigned>& connectH8,
                  const dense2D<unsigned>& faces, const dense2D<unsigned>& edges) {
  if (elfes::shares_with_any(connectH8, connect, faces, edges) ||
      elfes::shares_with_any(coords, connect, faces, edges)) {
    dense2D<unsigned> own_connect, own_faces, own_edges;  // the outputs grow in place
    if (!own_connect.copy(connect) || !own_faces.copy(faces) || !own_edges.copy(edges)) return tessel::OUT_OF_MEMORY;
    return split_into_H8(coords, own_connect, connectH8, own_faces, own_edges);
  }
  if (connect.cols() == 0) return 0;
  if (coords.rows() != 3) return -1;
  const std::size_t nb_nodes = coords.cols();
  const unsigned nb = static_cast<unsigned>(nb_nodes);
  if (!tessel::check_IDs(connect, SOLID_MIX8, nb)) return -2;
  if (!connectH8.empty() && connectH8.rows() != 8) return -3;
  if (!tessel::check_IDs(faces, Q9, nb)) return -4;
  if (!tessel::check_IDs(edges, E3, nb)) return -5;

  // Pyramids cannot be cut into hexahedra; 6-row meshes are counted like 8-row ones.
  std::size_t hexahedra = 0;
  const std::size_t R = connect.rows();
  if (R == 4 || R == 6 || R == 8) {
    static const unsigned per_kind[4] = {4, 0, 6, 8};
    const unsigned* column = connect.data();
    for (std::size_t j = 0; j < connect.cols(); ++j, column += connect.ld()) {
      const elfes::solid_kind kind = elfes::linear_column_kind(column, R);
      if (kind == elfes::kind_PY5) return -2;
      hexahedra += per_kind[kind];
    }
  }

  dense2D<unsigned> high;
  if (const int status = convert_into_high_order(coords, connect, 1, 1, 1, 1, 1, 1, 1, high, faces, edges))
    return status;
  if (hexahedra == 0) return 0;  // a connectivity of 0 rows: nothing was converted

  // Each chunk of columns writes its hexahedra after those of the chunks before it.
  const std::size_t nb_chunks = elfes::chunk_count(high.cols(), column_grain);
  dense1D<std::size_t> first_made;
  const std::size_t kept = connectH8.empty() ? 0 : connectH8.cols();
  if (connectH8.empty()) connectH8.clear();
  if (!first_made.resize(nb_chunks) || !connectH8.reserve(8, kept + hexahedra, 1) ||
      !connectH8.resize(8, kept + hexahedra, tessel::ABSENT)) {
    coords.resize(3, nb_nodes);
    return tessel::OUT_OF_MEMORY;
  }

  elfes::parallel_chunks(high.cols(), column_grain, [&](std::size_t c, std::size_t lo, std::size_t hi) {
    std::size_t count = 0;
    for (std::size_t j = lo; j < hi; ++j) count += cut_of(high, j).count;
    first_made[c] = count;
  });
  for (std::size_t c = 0, made = kept; c < nb_chunks; ++c) {
    const std::size_t count = first_made[c];
    first_made[c] = made;
    made += count;
  }
  elfes::parallel_chunks(high.cols(), column_grain, [&](std::size_t c, std::size_t lo, std::size_t hi) {
    unsigned node[27];
    std::size_t made = first_made[c];
    for (std::size_t j = lo; j < hi; ++j) {
      const unsigned* column = high.data() + j * high.ld();
      for (std::size_t i = 0; i < 27; ++i) node[i] = i < high.rows() ? column[i] : tessel::ABSENT;
      const cut_table cut = cut_of(high, j);
      for (unsigned k = 0; k < cut.count && made < kept + hexahedra; ++k, ++made) {
        unsigned* out = connectH8.data() + made * connectH8.ld();
        for (int v = 0; v < 8; ++v) out[v] = node[cut.rows[k][v]];
      }
    }
  });
  return 0;
}

}  // namespace tessel3d
}  // namespace zel
