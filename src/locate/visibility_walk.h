// The visibility walk: from a seed TH4, step across a face through which the point
// lies outside until an element holds it, the walk leaves the mesh, meets an invalid
// element or has tested as many elements as the mesh has. The first face tested in each
// element is drawn from a 32-bit FNV-style sequence restarted at 1 for every walk, so a
// walk is repeatable bit for bit; the random start keeps walks from cycling.
#pragma once

#include <cstdint>

#include "common/debug_check.h"
#include "common/element_tables.h"
#include "locate/th4_exit_face.h"
#include "zel/matrix.h"

namespace elfes {

/// One step of the draw sequence: (R ^ FNV offset basis) * FNV prime, mod 2^32.
inline std::uint32_t walk_seed_step(std::uint32_t state) { return (state ^ 0x811C9DC5u) * 0x01000193u; }

/// Walks from `current` towards p (3 doubles) in a TH4 mesh whose `neighbors` row f
/// holds the element across face f (~0U on the boundary).
/// A walk tests at most as many elements as the mesh has, or `step_limit` if fewer.
/// @return 1 found (current holds p) | 0 not found (current ~0U: left the mesh, or
///         more steps than elements) | -1 met an element with V <= 0 or not finite
///         (current ~0U) | -2 either ending exactly when `steps` equals the element
///         count (current ~0U)
inline int visibility_walk(const zel::dense2D<double>& coords, const zel::dense2D<unsigned>& connectivity,
                           const zel::dense2D<unsigned>& neighbors, const double* p, unsigned& current,
                           double tolerance, std::size_t& steps, std::size_t step_limit = ~std::size_t(0)) {
  const std::size_t nb_elements = connectivity.cols();
  // The callers have checked the shapes, and that every neighbour is an element or ~0U.
  TESSEL3D_DEBUG_ASSERT(coords.rows() == 3 && connectivity.rows() >= 4);
  TESSEL3D_DEBUG_ASSERT(neighbors.rows() == 4 && neighbors.cols() == nb_elements);
  const std::size_t limit = step_limit < nb_elements ? step_limit : nb_elements;
  const double* xyz = coords.data();
  const std::size_t ld_xyz = coords.ld();
  const unsigned* conn = connectivity.data();
  const std::size_t ld_conn = connectivity.ld();
  const unsigned* nbrs = neighbors.data();
  const std::size_t ld_nbrs = neighbors.ld();

  steps = 0;
  std::uint32_t state = 1, word = 0;
  unsigned draws_left = 0;
  for (;;) {
    if (current == NO_ELEMENT) break;
    if (steps++ >= limit) break;
    TESSEL3D_DEBUG_ASSERT(current < nb_elements);
    if (draws_left == 0) {
      state = walk_seed_step(state);
      word = state;
      draws_left = 16;
    }
    const unsigned first = word & 3u;
    word >>= 2;
    --draws_left;

    const unsigned* column = conn + current * ld_conn;
    const int face = TH4_exit_face(xyz, ld_xyz, column, p, tolerance, first);
    if (face == th4_inside) return 1;
    if (face == th4_invalid) {
      current = NO_ELEMENT;
      return steps == nb_elements ? -2 : -1;
    }
    TESSEL3D_DEBUG_ASSERT(face >= 0 && face < 4);
    const unsigned* across = nbrs + current * ld_nbrs;
    unsigned next = across[face];
    // A boundary face: look for another face through which p lies outside, without
    // spending a step or a draw.
    for (unsigned k = 1; k <= 3 && next == NO_ELEMENT; ++k) {
      const int retry = TH4_exit_face(xyz, ld_xyz, column, p, tolerance, (first + k) & 3u);
      if (retry >= 0) next = across[retry];
    }
    current = next;
  }
  current = NO_ELEMENT;
  return steps == nb_elements ? -2 : 0;
}

}  // namespace elfes
