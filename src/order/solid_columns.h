// Kinds of the columns of a linear solid connectivity (4, 6 or 8 rows), shared by the
// conversions into high order and the splitting into hexahedra.
#pragma once

#include <cstddef>

#include "common/debug_check.h"
#include "common/element_tables.h"

namespace elfes {

// Kind of one column: 4 rows are tetrahedra; in 6 rows row 4 absent is a TH4, else row 5
// absent a PY5, else a W6; 8 rows follow the mixed-layout order of tests.
inline solid_kind linear_column_kind(const unsigned* column, std::size_t rows) {
  TESSEL3D_DEBUG_ASSERT(rows == 4 || rows == 6 || rows == 8);
  if (rows == 4) return kind_TH4;
  if (rows == 6) {
    if (column[4] == ABSENT) return kind_TH4;
    return column[5] == ABSENT ? kind_PY5 : kind_W6;
  }
  return mixed8_kind(column);
}

// True when every vertex the kind reads holds a node (no absent marker): an absent
// vertex cannot be given coordinates, so such a column is an invalid argument.
inline bool vertices_present(const unsigned* column, solid_kind kind) {
  TESSEL3D_DEBUG_ASSERT(kind <= kind_H8);
  for (unsigned v = 0; v < solid_table[kind].nb_vertices; ++v)
    if (column[v] == ABSENT) return false;
  return true;
}

}  // namespace elfes
