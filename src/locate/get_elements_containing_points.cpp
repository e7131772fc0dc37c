// get_elements_containing_points: the TH4 that holds each of many points, with the
// mesh checked once for all of them. Each point is searched exactly as
// get_element_containing_point searches it alone (no seed carried from one point to the
// next); the points are only visited along a space-filling curve (point_order.h), so
// that consecutive searches walk through elements and nodes that are still in the caches.
#include <algorithm>
#include <atomic>
#include <cmath>

#include "common/parallel.h"
#include "common/shared_memory.h"
#include "locate/locate_point.h"
#include "locate/point_order.h"
#include "locate/search_checks.h"
#include "zel/tessel3d.h"

namespace zel {
namespace tessel3d {

int get_elements_containing_points(const dense2D<double>& coords, const dense2D<unsigned>& connectivity,
                                   const dense2D<unsigned>& neighbors, const dense1D<unsigned, 8>& node_element,
                                   const tessel::node_detector& detector, element_type type,
                                   const dense2D<double>& points, dense1D<unsigned, 8>& elements, double tolerance) {
  if (elfes::shares_with_any(elements, coords, connectivity, neighbors, node_element, points)) {
    dense2D<double> own_coords, own_points;  // elements is resized before the search
    dense2D<unsigned> own_connectivity, own_neighbors;
    dense1D<unsigned, 8> own_node_element;
    if (!own_coords.copy(coords) || !own_points.copy(points) || !own_connectivity.copy(connectivity) ||
        !own_neighbors.copy(neighbors) || !own_node_element.copy(node_element))
      return tessel::OUT_OF_MEMORY;
    return get_elements_containing_points(own_coords, own_connectivity, own_neighbors, own_node_element, detector, type,
                                          own_points, elements, tolerance);
  }
  if (const int status = elfes::check_search_arguments(coords, connectivity, neighbors, node_element, type))
    return status;
  // Points are numbered in 32 bits below ~0U while they are ordered.
  if (points.rows() != 3 || points.cols() > std::size_t(~0U)) return -7;
  const std::size_t nb_points = points.cols();
  // An infinite or undefined tolerance would accept every point.
  if (!std::isfinite(tolerance)) return -9;
  if (!elfes::is_searched_mesh(connectivity, type)) {
    if (!elements.resize(nb_points)) return tessel::OUT_OF_MEMORY;
    std::fill(elements.begin(), elements.end(), tessel::NOT_FOUND);
    return 0;
  }

  const double* xyz = points.data();
  const std::size_t ld = points.ld();
  elfes::order_records order;
  if (elfes::spatial_order(
          xyz, ld, nb_points, [](std::size_t k) { return static_cast<unsigned>(k); }, order) != 0)
    return tessel::OUT_OF_MEMORY;

  // Each record's key is replaced by the point's element once searched, so that nothing
  // is written to `elements` before every search has got through. The searches are
  // independent: runs of the curve on the library's threads, each with its scratch, and
  // the outcome flags merged (the same whatever order the runs take).
  std::atomic<bool> missed{false}, met_invalid{false}, failed{false};
  elfes::parallel_for(nb_points, 1u << 12, [&](std::size_t first, std::size_t last) {
    elfes::locate_scratch scratch;
    for (std::size_t k = first; k < last; ++k) {
      if (k + elfes::prefetch_distance < last)
        elfes::prefetch(xyz + elfes::record_id(order[k + elfes::prefetch_distance]) * ld);
      const unsigned j = elfes::record_id(order[k]);
      const double* p = xyz + j * ld;
      unsigned element = tessel::NOT_FOUND;
      const int r = elfes::locate_point(coords, connectivity, neighbors, node_element, detector,
                                        vector_fixed<double, 3>(p[0], p[1], p[2]), element, tolerance, true, scratch);
      if (r == tessel::OUT_OF_MEMORY) {
        failed.store(true, std::memory_order_relaxed);
        return;
      }
      if (r == -1) met_invalid.store(true, std::memory_order_relaxed);
      if (r != 1) {
        element = tessel::NOT_FOUND;
        if (r != -1) missed.store(true, std::memory_order_relaxed);
      }
      order[k] = std::uint64_t(element) << 32 | j;
    }
  });
  if (failed.load()) return tessel::OUT_OF_MEMORY;
  if (!elements.resize(nb_points)) return tessel::OUT_OF_MEMORY;
  unsigned* out = elements.data();
  for (std::size_t k = 0; k < nb_points; ++k) out[elfes::record_id(order[k])] = static_cast<unsigned>(order[k] >> 32);
  return met_invalid.load() ? -1 : missed.load() ? 0 : 1;
}

}  // namespace tessel3d
}  // namespace zel
