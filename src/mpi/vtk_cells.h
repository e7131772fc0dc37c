// The element types a VTK unstructured grid holds, and the order of their nodes there.
#pragma once

#include <array>
#include <cstdint>

#include "zel/tessel.h"
#include "zel/tessel_elements.h"

namespace zel {
namespace tessel3d {
namespace mpi {
namespace detail {

/// One element type as VTK stores it: its cell type number, its node count, and for each
/// of its VTK nodes k the library node in the same place (vtk[k] = library[order[k]]).
/// The orders were checked against VTK's own cells (docs/node-orders.md).
struct vtk_cell {
  element_type type;
  std::uint8_t vtk_type;
  std::uint8_t nodes;
  std::array<std::uint8_t, 27> order;
};

// clang-format off
inline constexpr vtk_cell vtk_cells[] = {
    {NODE, 1, 1, {0}},
    {E2, 3, 2, {0, 1}},
    {E3, 21, 3, {0, 1, 2}},
    {T3, 5, 3, {0, 1, 2}},
    {T6, 22, 6, {0, 1, 2, 5, 3, 4}},
    {Q4, 9, 4, {0, 1, 2, 3}},
    {Q8, 23, 8, {0, 1, 2, 3, 4, 5, 6, 7}},
    {Q9, 28, 9, {0, 1, 2, 3, 4, 5, 6, 7, 8}},
    // VTK's tetrahedra and its linear wedge are oriented the other way round.
    {TH4, 10, 4, {0, 2, 1, 3}},
    {TH10, 24, 10, {0, 2, 1, 3, 5, 4, 6, 7, 9, 8}},
    {PY5, 14, 5, {0, 1, 2, 3, 4}},
    {PY13, 27, 13, {0, 1, 2, 3, 4, 9, 10, 11, 12, 5, 6, 7, 8}},
    {W6, 13, 6, {0, 2, 1, 3, 5, 4}},
    {W15, 26, 15, {0, 1, 2, 3, 4, 5, 11, 9, 10, 14, 12, 13, 6, 7, 8}},
    {W18, 32, 18, {0, 1, 2, 3, 4, 5, 11, 9, 10, 14, 12, 13, 6, 7, 8, 17, 15, 16}},
    {H8, 12, 8, {0, 1, 2, 3, 4, 5, 6, 7}},
    {H20, 25, 20, {0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15, 16, 17, 18, 19}},
    {H27, 29, 27, {0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15, 16, 17, 18, 19, 20, 21, 22, 23, 24, 25, 26}},
};
// clang-format on

constexpr bool vtk_cells_consistent() {
  for (const vtk_cell& cell : vtk_cells) {
    if (tessel::element_records[cell.type].rows != cell.nodes) return false;
    unsigned seen = 0;  // every library node once
    for (unsigned k = 0; k < cell.nodes; ++k) seen |= 1U << cell.order[k];
    if (seen != (1U << cell.nodes) - 1) return false;
  }
  return true;
}
static_assert(vtk_cells_consistent(), "each VTK order is a permutation of the type's nodes");

/// The record of a library type (nullptr for the types VTK has no cell for: the mixed
/// layouts, NONE and PY14, whose centre node no VTK cell carries).
inline const vtk_cell* vtk_cell_of_type(unsigned type) {
  for (const vtk_cell& cell : vtk_cells)
    if (cell.type == type) return &cell;
  return nullptr;
}

/// The record of a VTK cell type number (nullptr for the cells the library has no type for).
inline const vtk_cell* vtk_cell_of_vtk_type(unsigned vtk_type) {
  for (const vtk_cell& cell : vtk_cells)
    if (cell.vtk_type == vtk_type) return &cell;
  return nullptr;
}

/// The pure types a column of a mixed layout may hold, told apart by the number of
/// leading entries before the first absent one (~0U): the layout's row count when none.
struct mixed_layout {
  element_type layout;
  std::uint8_t rows;
  std::array<element_type, 4> kinds;  // NONE past the last
};

// clang-format off
inline constexpr mixed_layout mixed_layouts[] = {
    {FACE_MIX4, 4, {T3, Q4, NONE, NONE}},
    {SOLID_MIX8, 8, {TH4, PY5, W6, H8}},
};
// clang-format on

inline const mixed_layout* mixed_layout_of(unsigned type) {
  for (const mixed_layout& layout : mixed_layouts)
    if (layout.layout == type) return &layout;
  return nullptr;
}

}  // namespace detail
}  // namespace mpi
}  // namespace tessel3d
}  // namespace zel
