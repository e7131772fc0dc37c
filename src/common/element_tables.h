// Element tables: row counts, boundary-entity counts and the local faces and edges of
// the linear solids, as data that loops read instead of per-type switches.
#pragma once

#include "zel/tessel.h"

namespace elfes {

constexpr unsigned absent = ~0U;  // marks a position without a node in the mixed layouts

struct element_info {
  unsigned rows;      // connectivity rows (nodes per element)
  unsigned boundary;  // faces of a solid, sides of a face, end points of an edge
};

// Indexed by zel::element_type (0 ... 24).
constexpr element_info element_table[25] = {
    {0, 0},  {1, 0},  {2, 2},  {3, 2},  {4, 2},  {4, 4},  {9, 4},  {3, 3},  {6, 3},  {4, 4},  {8, 4},  {9, 4},  {8, 6},
    {27, 6}, {4, 4},  {10, 4}, {5, 5},  {13, 5}, {14, 5}, {6, 5},  {15, 5}, {18, 5}, {8, 6},  {20, 6}, {27, 6}};

constexpr bool is_element_type(int type) { return type >= 0 && type <= 24; }
constexpr unsigned element_rows(zel::element_type type) { return element_table[type].rows; }

// Rows of a face adjacency (`neighbors`) for each element type: faces of a solid,
// sides of a face, ends of an edge; 6 for the mixed solids.
constexpr unsigned neighbor_rows[25] = {0, 0, 2, 2, 2, 4, 4, 3, 3, 4, 4, 4, 6, 6, 4, 4, 5, 5, 5, 5, 5, 5, 6, 6, 6};

// The four linear solid kinds, in the order of the mixed-column classification.
enum solid_kind : unsigned { kind_TH4, kind_PY5, kind_W6, kind_H8 };

struct solid_descriptor {
  zel::element_type type;
  unsigned nb_vertices;
  unsigned nb_faces;
  unsigned nb_edges;
  unsigned face_size[6];
  // Faces ordered so that, with the triangle normal (a - c) x (b - c) and the quadrangle
  // normal (c - a) x (d - b), their normals point into a positively oriented element.
  // TH4 face f is opposite node f.
  unsigned faces[6][4];
  // Edges in the order of the edge-node blocks of high-order elements.
  unsigned edges[12][2];
};

constexpr solid_descriptor solid_table[4] = {
    {zel::TH4, 4, 4, 6, {3, 3, 3, 3, 0, 0},
     {{1, 2, 3, absent}, {2, 0, 3, absent}, {0, 1, 3, absent}, {2, 1, 0, absent}},
     {{1, 2}, {2, 0}, {0, 1}, {3, 0}, {3, 1}, {3, 2}}},
    {zel::PY5, 5, 5, 8, {3, 3, 3, 3, 4, 0},
     {{0, 4, 1, absent}, {1, 4, 2, absent}, {2, 4, 3, absent}, {3, 4, 0, absent}, {0, 1, 2, 3}},
     {{0, 4}, {1, 4}, {2, 4}, {3, 4}, {0, 1}, {1, 2}, {2, 3}, {3, 0}}},
    {zel::W6, 6, 5, 9, {3, 3, 4, 4, 4, 0},
     {{0, 1, 2, absent}, {3, 5, 4, absent}, {2, 1, 4, 5}, {0, 2, 5, 3}, {1, 0, 3, 4}},
     {{0, 3}, {1, 4}, {2, 5}, {1, 2}, {2, 0}, {0, 1}, {4, 5}, {5, 3}, {3, 4}}},
    {zel::H8, 8, 6, 12, {4, 4, 4, 4, 4, 4},
     {{0, 3, 7, 4}, {1, 5, 6, 2}, {0, 4, 5, 1}, {3, 2, 6, 7}, {0, 1, 2, 3}, {4, 7, 6, 5}},
     {{0, 1}, {1, 2}, {2, 3}, {3, 0}, {4, 5}, {5, 6}, {6, 7}, {7, 4}, {0, 4}, {1, 5}, {2, 6}, {3, 7}}},
};

// Kind of a column of the 8-row mixed layout, from which of rows 3, 4, 5, 6 are absent,
// always tested in this order: row 3 present and row 4 absent is a TH4; with row 4
// present, row 5 absent is a PY5, else row 6 absent a W6, else an H8; with rows 3 and 4
// both absent, row 5 absent gives an H8 (malformed, measured as a hexahedron), else row 6
// absent a W6, else an H8.
inline solid_kind mixed8_kind(const unsigned* column) {
  if (column[3] != absent && column[4] == absent) return kind_TH4;
  if (column[4] != absent) {
    if (column[5] == absent) return kind_PY5;
    return column[6] == absent ? kind_W6 : kind_H8;
  }
  if (column[5] == absent) return kind_H8;
  return column[6] == absent ? kind_W6 : kind_H8;
}

// Kind of the columns of a pure connectivity by its row count (4, 5, 6; else mixed).
inline bool pure_kind_of_rows(std::size_t rows, solid_kind& kind) {
  switch (rows) {
    case 4: kind = kind_TH4; return true;
    case 5: kind = kind_PY5; return true;
    case 6: kind = kind_W6; return true;
    default: return false;
  }
}

}  // namespace elfes
