// Element tables of the library: the records of the base mesh library under the short
// names the kernels use, and the few tables derived from them.
#pragma once

#include <array>
#include <cstddef>

#include "zel/tessel.h"
#include "zel/tessel_elements.h"

namespace elfes {

using zel::tessel::ABSENT;
using zel::tessel::NO_ELEMENT;
using zel::tessel::NOT_FOUND;
using zel::tessel::OUT_OF_MEMORY;

using element_info = zel::tessel::element_record;
inline constexpr const auto& element_table = zel::tessel::element_records;

using zel::tessel::is_element_type;
constexpr unsigned element_rows(zel::element_type type) { return element_table[type].rows; }

// Rows of a face adjacency (`neighbors`) for each element type: faces of a solid,
// sides of a face, ends of an edge; 6 for the mixed solids.
constexpr std::array<unsigned, 25> make_neighbor_rows() {
  std::array<unsigned, 25> rows{};
  for (std::size_t t = 0; t < rows.size(); ++t) rows[t] = element_table[t].boundary;
  return rows;
}
inline constexpr std::array<unsigned, 25> neighbor_rows = make_neighbor_rows();
static_assert(neighbor_rows[zel::SOLID_MIX8] == 6 && neighbor_rows[zel::W15] == 5 && neighbor_rows[zel::T6] == 3,
              "adjacency rows are the boundary counts");

using zel::tessel::kind_H8;
using zel::tessel::kind_PY5;
using zel::tessel::kind_TH4;
using zel::tessel::kind_W6;
using zel::tessel::solid_kind;
using solid_descriptor = zel::tessel::solid_record;
inline constexpr const auto& solid_table = zel::tessel::solid_records;
static_assert(solid_table[kind_TH4].type == zel::TH4 && solid_table[kind_PY5].type == zel::PY5 &&
                  solid_table[kind_W6].type == zel::W6 && solid_table[kind_H8].type == zel::H8,
              "solid kinds index the solid records");

using zel::tessel::mixed8_kind;

// Kind of the columns of a pure connectivity by its row count (4, 5, 6; else mixed).
inline bool pure_kind_of_rows(std::size_t rows, solid_kind& kind) {
  for (solid_kind k : {kind_TH4, kind_PY5, kind_W6})
    if (rows == solid_table[k].nb_vertices) {
      kind = k;
      return true;
    }
  return false;
}

}  // namespace elfes
