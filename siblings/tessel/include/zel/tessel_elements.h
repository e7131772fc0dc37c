// zel base mesh library: element combinatorics as data. One record per element type
// (row count, corners, boundary entities) and, for the four linear solids, their local
// faces and edges. Loops read these tables instead of switching on the type; every other
// table of the libraries is checked against them at compile time.
#pragma once

#include "zel/tessel.h"

namespace zel {
namespace tessel {

/// One element type: its connectivity layout and shape.
struct element_record {
  unsigned rows;        ///< connectivity rows (nodes per column)
  unsigned corners;     ///< vertices of the shape (the most, for the mixed layouts)
  unsigned dimension;   ///< 0 node, 1 edge, 2 face, 3 solid
  unsigned boundary;    ///< faces of a solid, sides of a face, ends of an edge (the
                        ///< most for the mixed layouts): the rows of a face adjacency
  element_type linear;  ///< the type with the same corners and no other node
};

/// Indexed by element_type (0 ... 24).
// clang-format off (the tables keep their layout)
constexpr element_record element_records[25] = {
    {0, 0, 0, 0, NONE},       {1, 1, 0, 0, NODE},        {2, 2, 1, 2, E2},        {3, 2, 1, 2, E2},
    {4, 2, 1, 2, E2},         {4, 4, 2, 4, FACE_MIX4},   {9, 4, 2, 4, FACE_MIX4}, {3, 3, 2, 3, T3},
    {6, 3, 2, 3, T3},         {4, 4, 2, 4, Q4},          {8, 4, 2, 4, Q4},        {9, 4, 2, 4, Q4},
    {8, 8, 3, 6, SOLID_MIX8}, {27, 8, 3, 6, SOLID_MIX8}, {4, 4, 3, 4, TH4},       {10, 4, 3, 4, TH4},
    {5, 5, 3, 5, PY5},        {13, 5, 3, 5, PY5},        {14, 5, 3, 5, PY5},      {6, 6, 3, 5, W6},
    {15, 6, 3, 5, W6},        {18, 6, 3, 5, W6},         {8, 8, 3, 6, H8},        {20, 8, 3, 6, H8},
    {27, 8, 3, 6, H8}};
// clang-format on

/// True for the values of element_type.
constexpr bool is_element_type(int type) { return type >= NONE && type <= H27; }

/// The four linear solids, in this order in solid_records.
enum solid_kind : unsigned { kind_TH4, kind_PY5, kind_W6, kind_H8 };

/// Local faces and edges of a linear solid.
struct solid_record {
  element_type type;
  unsigned nb_vertices;
  unsigned nb_faces;
  unsigned nb_edges;
  unsigned face_size[6];  ///< 3 or 4 nodes; 0 past nb_faces
  /// Faces ordered so that, with the triangle normal (a - c) x (b - c) and the quadrangle
  /// normal (c - a) x (d - b), their normals point into a positively oriented element.
  /// TH4 face f is opposite node f. ABSENT pads the triangles; rows past nb_faces are 0.
  unsigned faces[6][4];
  /// Edges in the order of the edge-node blocks of the high-order elements.
  unsigned edges[12][2];
};

// clang-format off
constexpr solid_record solid_records[4] = {
    {TH4, 4, 4, 6, {3, 3, 3, 3, 0, 0},
     {{1, 2, 3, ABSENT}, {2, 0, 3, ABSENT}, {0, 1, 3, ABSENT}, {2, 1, 0, ABSENT}},
     {{1, 2}, {2, 0}, {0, 1}, {3, 0}, {3, 1}, {3, 2}}},
    {PY5, 5, 5, 8, {3, 3, 3, 3, 4, 0},
     {{0, 4, 1, ABSENT}, {1, 4, 2, ABSENT}, {2, 4, 3, ABSENT}, {3, 4, 0, ABSENT}, {0, 1, 2, 3}},
     {{0, 4}, {1, 4}, {2, 4}, {3, 4}, {0, 1}, {1, 2}, {2, 3}, {3, 0}}},
    {W6, 6, 5, 9, {3, 3, 4, 4, 4, 0},
     {{0, 1, 2, ABSENT}, {3, 5, 4, ABSENT}, {2, 1, 4, 5}, {0, 2, 5, 3}, {1, 0, 3, 4}},
     {{0, 3}, {1, 4}, {2, 5}, {1, 2}, {2, 0}, {0, 1}, {4, 5}, {5, 3}, {3, 4}}},
    {H8, 8, 6, 12, {4, 4, 4, 4, 4, 4},
     {{0, 3, 7, 4}, {1, 5, 6, 2}, {0, 4, 5, 1}, {3, 2, 6, 7}, {0, 1, 2, 3}, {4, 7, 6, 5}},
     {{0, 1}, {1, 2}, {2, 3}, {3, 0}, {4, 5}, {5, 6}, {6, 7}, {7, 4}, {0, 4}, {1, 5}, {2, 6}, {3, 7}}},
};
// clang-format on

/// Kind of a column of the 8-row mixed layout (SOLID_MIX8), from which of rows 3, 4, 5, 6
/// are ABSENT, always tested in this order: row 3 present and row 4 absent is a TH4; with
/// row 4 present, row 5 absent is a PY5, else row 6 absent a W6, else an H8; with rows 3
/// and 4 both absent (a malformed column), row 5 absent gives an H8, else row 6 absent a
/// W6, else an H8.
inline solid_kind mixed8_kind(const unsigned* column) {
  if (column[3] != ABSENT && column[4] == ABSENT) return kind_TH4;
  if (column[4] != ABSENT) {
    if (column[5] == ABSENT) return kind_PY5;
    return column[6] == ABSENT ? kind_W6 : kind_H8;
  }
  if (column[5] == ABSENT) return kind_H8;
  return column[6] == ABSENT ? kind_W6 : kind_H8;
}

namespace element_checks {
// The records agree with each other; a typo in one of them fails the build.
constexpr bool solid_consistent(const solid_record& s) {
  const element_record& e = element_records[s.type];
  if (e.rows != s.nb_vertices || e.corners != s.nb_vertices || e.boundary != s.nb_faces) return false;
  for (unsigned f = 0; f < 6; ++f) {
    if (f >= s.nb_faces) {
      if (s.face_size[f] != 0) return false;
      continue;
    }
    for (unsigned k = 0; k < 4; ++k)
      if ((k < s.face_size[f]) != (s.faces[f][k] < s.nb_vertices)) return false;
  }
  // Every edge joins two distinct vertices, and Euler's formula holds: V - E + F = 2.
  for (unsigned g = 0; g < s.nb_edges; ++g)
    if (s.edges[g][0] >= s.nb_vertices || s.edges[g][1] >= s.nb_vertices || s.edges[g][0] == s.edges[g][1])
      return false;
  return s.nb_vertices + s.nb_faces == s.nb_edges + 2;
}
constexpr bool records_consistent() {
  for (unsigned k = 0; k < 4; ++k)
    if (!solid_consistent(solid_records[k]) || solid_records[k].type != element_records[solid_records[k].type].linear)
      return false;
  for (int t = NONE; t <= H27; ++t) {
    const element_record& e = element_records[t];
    const element_record& l = element_records[e.linear];
    if (e.rows < e.corners || l.corners != e.corners || l.boundary != e.boundary || l.dimension != e.dimension)
      return false;
  }
  return true;
}
static_assert(records_consistent(), "element records disagree");
}  // namespace element_checks

}  // namespace tessel
}  // namespace zel
