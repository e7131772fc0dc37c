// The solid connectivity layouts a distributed mesh may have, told apart by their row
// count, and the corners of one column (what the partitioner sees of an element).
#pragma once

#include <cstddef>

#include "common/element_tables.h"

namespace zel {
namespace tessel3d {
namespace mpi {
namespace detail {

struct solid_layout {
  unsigned rows;
  element_type type;  ///< the type check_IDs validates the layout with
};

// 8 rows is the linear mixed layout (pure H8 included), 27 the high-order mixed one
// (pure H27 included): both accept absent nodes (~0U) where a column's kind has fewer.
constexpr solid_layout solid_layouts[] = {{4, TH4},   {5, PY5},   {6, W6},          {8, SOLID_MIX8},
                                          {10, TH10}, {13, PY13}, {14, PY14},       {15, W15},
                                          {18, W18},  {20, H20},  {27, SOLID_MIX27}};

inline bool solid_layout_of_rows(std::size_t rows, element_type& type) {
  for (const solid_layout& l : solid_layouts)
    if (l.rows == rows) {
      type = l.type;
      return true;
    }
  return false;
}

/// Number of corners of a column of the given layout: the vertices of its linear kind.
/// A 27-row column is told by its padding: row 10 absent (TH10), row 14 absent (PY13,
/// PY14), row 18 absent (W15, W18), else a hexahedron (H20, H27).
inline unsigned corners_of_column(const unsigned* column, element_type type) {
  if (type == SOLID_MIX8) return elfes::solid_table[elfes::mixed8_kind(column)].nb_vertices;
  if (type == SOLID_MIX27) {
    if (column[10] == elfes::ABSENT) return 4;
    if (column[14] == elfes::ABSENT) return 5;
    return column[18] == elfes::ABSENT ? 6 : 8;
  }
  return elfes::element_table[type].corners;
}

}  // namespace detail
}  // namespace mpi
}  // namespace tessel3d
}  // namespace zel
