// flip, flip_TH4, flip_W6, flip_H8: orientation reversal by fixed row exchanges.
#include <utility>

#include "common/element_tables.h"
#include "common/parallel.h"
#include "zel/tessel3d.h"

namespace zel {
namespace tessel3d {
namespace {

struct row_swaps {
  unsigned count;
  unsigned pairs[9][2];
};

// Exchanges applied, in order, by flip() to every column of each type; a type with no
// exchange only has its row count checked.
constexpr row_swaps no_swaps = {0, {}};
constexpr row_swaps th_swaps = {1, {{0, 2}}};
constexpr row_swaps th10_swaps = {3, {{0, 2}, {4, 6}, {7, 9}}};
constexpr row_swaps py14_swaps = {5, {{0, 2}, {5, 7}, {6, 8}, {9, 10}, {11, 12}}};
constexpr row_swaps w6_swaps = {2, {{0, 2}, {3, 5}}};
constexpr row_swaps w18_swaps = {6, {{0, 2}, {3, 5}, {6, 8}, {9, 11}, {12, 14}, {15, 17}}};
constexpr row_swaps h8_swaps = {2, {{0, 2}, {4, 6}}};
constexpr row_swaps h27_swaps = {9,
                                 {{0, 2}, {4, 6}, {8, 9}, {10, 11}, {12, 13}, {14, 15}, {16, 18}, {21, 22}, {20, 23}}};

constexpr const row_swaps* flip_table[25] = {
    &no_swaps,   &no_swaps, &no_swaps, &no_swaps,  &no_swaps, &no_swaps, &no_swaps,   &no_swaps, &no_swaps,
    &no_swaps,   &no_swaps, &no_swaps, &no_swaps,  &no_swaps, &th_swaps, &th10_swaps, &th_swaps, &no_swaps,
    &py14_swaps, &w6_swaps, &no_swaps, &w18_swaps, &h8_swaps, &no_swaps, &h27_swaps};

// The 27-row mixed layout, recognised by its padding: after 0<->2, a TH10 (row 10
// absent), a PY14 (row 14 absent), else 3<->5 and a W18 (row 18 absent) or an H27.
constexpr row_swaps mixed_th10_swaps = {2, {{4, 6}, {7, 9}}};
constexpr row_swaps mixed_py14_swaps = {4, {{5, 7}, {6, 8}, {9, 10}, {11, 12}}};
constexpr row_swaps mixed_w18_swaps = {4, {{6, 8}, {9, 11}, {12, 14}, {15, 17}}};
constexpr row_swaps mixed_h27_swaps = {8, {{4, 6}, {8, 9}, {10, 11}, {12, 13}, {14, 15}, {16, 18}, {21, 22}, {20, 23}}};

inline void apply(unsigned* column, const row_swaps& swaps) {
  for (unsigned k = 0; k < swaps.count; ++k) std::swap(column[swaps.pairs[k][0]], column[swaps.pairs[k][1]]);
}

void flip_mixed27(unsigned* column) {
  std::swap(column[0], column[2]);
  if (column[10] == elfes::ABSENT) return apply(column, mixed_th10_swaps);
  if (column[14] == elfes::ABSENT) return apply(column, mixed_py14_swaps);
  std::swap(column[3], column[5]);
  apply(column, column[18] == elfes::ABSENT ? mixed_w18_swaps : mixed_h27_swaps);
}

// The single-type flips exchange the two halves of each element.
constexpr row_swaps th4_halves = {1, {{0, 1}}};
constexpr row_swaps w6_halves = {3, {{0, 3}, {1, 4}, {2, 5}}};
constexpr row_swaps h8_halves = {4, {{0, 4}, {1, 5}, {2, 6}, {3, 7}}};

// The columns are independent: chunks of them on the library's threads.
constexpr std::size_t flip_grain = 1u << 16;

template <class Flip>
void flip_each_column(dense2D<unsigned>& connect, Flip flip_one) {
  elfes::parallel_for(connect.cols(), flip_grain, [&](std::size_t first, std::size_t last) {
    unsigned* column = connect.data() + first * connect.ld();
    for (std::size_t j = first; j < last; ++j, column += connect.ld()) flip_one(column);
  });
}

int flip_columns(dense2D<unsigned>& connect, std::size_t rows, const row_swaps& swaps) {
  if (connect.cols() == 0) return 0;
  if (connect.rows() != rows) return -1;
  flip_each_column(connect, [&](unsigned* column) { apply(column, swaps); });
  return 0;
}

}  // namespace

int flip(dense2D<unsigned>& connect, element_type type) {
  if (connect.cols() == 0) return 0;
  if (type == SOLID_MIX8) {
    if (connect.rows() != 27) return -2;
    flip_each_column(connect, flip_mixed27);
    return 0;
  }
  if (!elfes::is_element_type(type) || connect.rows() != elfes::element_rows(type)) return -2;
  const row_swaps& swaps = *flip_table[type];
  if (swaps.count == 0) return 0;
  flip_each_column(connect, [&](unsigned* column) { apply(column, swaps); });
  return 0;
}

int flip_TH4(dense2D<unsigned>& connect) { return flip_columns(connect, 4, th4_halves); }
int flip_W6(dense2D<unsigned>& connect) { return flip_columns(connect, 6, w6_halves); }
int flip_H8(dense2D<unsigned>& connect) { return flip_columns(connect, 8, h8_halves); }

}  // namespace tessel3d
}  // namespace zel
