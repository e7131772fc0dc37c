// The whole point search in a TH4 mesh: a seed from a near node, one visibility walk,
// and, when that walk leaves the mesh, one walk from each element around the node
// closest to the point. Generic over the node search, which must offer
//   unsigned find_close(const zel::vector_fixed<double, 3>&) const    (may give ~0U)
//   unsigned find_closest(const zel::vector_fixed<double, 3>&) const  (exact, ~0U if empty)
// (zel::tessel::node_detector for the exported search, the library's own octree for
// the interpolations).
#pragma once

#include <cmath>

#include "common/element_tables.h"
#include "locate/elements_around_node.h"
#include "locate/visibility_walk.h"
#include "zel/matrix.h"

namespace elfes {

/// Scratch space of the second chance, kept by callers that locate many points (on one
/// mesh: it remembers whether every element of that mesh is valid).
struct locate_scratch {
  zel::dense1D<unsigned, 8> around;
  element_set visited;
  int every_element_valid = -1;  // unknown until a long second chance asks
};

/// A second chance from more elements than this first checks whether any element holds
/// the point at all: one scan of the mesh instead of one walk per element (a fan of T
/// elements around one node would cost T walks of up to sqrt(T) steps each).
constexpr std::size_t long_second_chance = 64;

/// True when no walk can find p nor stop at an invalid element: every element is valid
/// (cached in scratch) and none holds p by the walk's own test.
inline bool no_element_holds(const zel::dense2D<double>& coords, const zel::dense2D<unsigned>& connectivity,
                             const double* p, double tolerance, locate_scratch& scratch) {
  const double* xyz = coords.data();
  const std::size_t ld = coords.ld();
  const unsigned* column = connectivity.data();
  const std::size_t nb_elements = connectivity.cols(), ld_conn = connectivity.ld();
  if (scratch.every_element_valid < 0) {
    scratch.every_element_valid = 1;
    for (std::size_t e = 0; e < nb_elements && scratch.every_element_valid; ++e)
      if (TH4_exit_face(xyz, ld, column + e * ld_conn, p, 0.0, 0) == th4_invalid) scratch.every_element_valid = 0;
  }
  if (!scratch.every_element_valid) return false;
  for (std::size_t e = 0; e < nb_elements; ++e)
    if (TH4_exit_face(xyz, ld, column + e * ld_conn, p, tolerance, 0) == th4_inside) return false;
  return true;
}

/// Locates p in a TH4 mesh. `element` is the seed on entry (~0U: none, a seed is taken
/// from node_element[find_close(p)]) and the containing element on a return of 1 (~0U
/// otherwise). With `second_chance`, a first walk that leaves the mesh (or reaches the
/// step limit) is followed by walks from each element around find_closest(p), in the
/// order of elements_around_node, until one finds p.
/// A point with a coordinate that is not finite is not found.
/// @return 1 found | 0 not found | -1 a walk met an invalid element | -2 a walk ended
///         exactly at its step limit (not retried) | -199 memory (second chance)
template <class NodeSearch>
int locate_point(const zel::dense2D<double>& coords, const zel::dense2D<unsigned>& connectivity,
                 const zel::dense2D<unsigned>& neighbors, const zel::dense1D<unsigned, 8>& node_element,
                 const NodeSearch& search, const zel::vector_fixed<double, 3>& point, unsigned& element,
                 double tolerance, bool second_chance, locate_scratch& scratch) {
  const double* p = point.data();
  const std::size_t nb_elements = connectivity.cols();
  // A point with a coordinate that is not finite lies in no element (and no walk
  // could aim at it).
  if (!(std::isfinite(p[0]) && std::isfinite(p[1]) && std::isfinite(p[2]))) {
    element = NO_ELEMENT;
    return 0;
  }
  if (element == NO_ELEMENT) {
    const unsigned n = search.find_close(point);
    // Entries that are no element (~0U, or out of range in a caller's bad input) give no seed.
    if (n >= node_element.size() || node_element[n] >= nb_elements) return 0;
    element = node_element[n];
  }
  std::size_t steps = 0;
  int r = visibility_walk(coords, connectivity, neighbors, p, element, tolerance, steps);
  if (r != 0) {
    if (r != 1) element = NO_ELEMENT;
    return r;
  }
  element = NO_ELEMENT;
  if (!second_chance) return 0;

  const unsigned n = search.find_closest(point);
  if (n >= node_element.size() || node_element[n] >= nb_elements) return 0;
  if (elements_around_node(n, node_element[n], connectivity, neighbors, scratch.around, scratch.visited) < 0)
    return OUT_OF_MEMORY;
  // Every walk would leave the mesh (or stop at its limit): the same answer, at once.
  if (scratch.around.size() > long_second_chance && no_element_holds(coords, connectivity, p, tolerance, scratch))
    return 0;
  for (std::size_t k = 0; k < scratch.around.size() && r == 0; ++k) {
    element = scratch.around[k];
    r = visibility_walk(coords, connectivity, neighbors, p, element, tolerance, steps);
  }
  if (r != 1) element = NO_ELEMENT;
  return r;
}

}  // namespace elfes
