// get_element_containing_point: the TH4 of a mesh that holds a point, found by the
// visibility walk from an element next to a node of the caller's node_detector.
#include <cmath>

#include "locate/locate_point.h"
#include "locate/search_checks.h"
#include "zel/tessel3d.h"

namespace zel {
namespace tessel3d {

int get_element_containing_point(const dense2D<double>& coords, const dense2D<unsigned>& connectivity,
                                 const dense2D<unsigned>& neighbors, const dense1D<unsigned, 8>& node_element,
                                 const tessel::node_detector& detector, element_type type,
                                 const vector_fixed<double, 3>& point, unsigned& element, double tolerance) {
  element = tessel::NOT_FOUND;
  if (const int status = elfes::check_search_arguments(coords, connectivity, neighbors, node_element, type))
    return status;
  // An infinite or undefined tolerance would accept every point.
  if (!std::isfinite(tolerance)) return -9;
  if (!elfes::is_searched_mesh(connectivity, type)) return 0;

  elfes::locate_scratch scratch;
  const int r = elfes::locate_point(coords, connectivity, neighbors, node_element, detector, point, element, tolerance,
                                    true, scratch);
  if (r == 1) return 1;
  element = tessel::NOT_FOUND;
  return r == -2 ? 0 : r;
}

}  // namespace tessel3d
}  // namespace zel
