// get_element_containing_point: the TH4 of a mesh that holds a point, found by the
// visibility walk from an element next to a node of the caller's node_detector.
#include "common/element_tables.h"
#include "locate/locate_point.h"
#include "zel/tessel3d.h"

namespace zel {
namespace tessel3d {

int get_element_containing_point(const dense2D<double>& coords, const dense2D<unsigned>& connectivity,
                                 const dense2D<unsigned>& neighbors, const dense1D<unsigned, 8>& node_element,
                                 const tessel::node_detector& detector, element_type type,
                                 const vector_fixed<double, 3>& point, unsigned& element, double tolerance) {
  element = ~0U;
  if (coords.rows() != 3) return -1;
  const auto nb_nodes = static_cast<unsigned>(coords.cols());
  if (!tessel::check_IDs(connectivity, type, nb_nodes)) return -2;
  if (neighbors.rows() != connectivity.rows() || neighbors.cols() != connectivity.cols()) return -3;
  if (!elfes::is_element_type(type) || neighbors.rows() != elfes::neighbor_rows[type]) return -3;
  if (!tessel::check_IDs(neighbors, static_cast<unsigned>(connectivity.cols()))) return -3;
  if (node_element.size() != coords.cols()) return -4;
  // Only a 4-row TH4 mesh is searched; any other is reported as not located.
  if (connectivity.rows() != 4 || type != TH4) return 0;

  elfes::locate_scratch scratch;
  const int r = elfes::locate_point(coords, connectivity, neighbors, node_element, detector, point, element,
                                    tolerance, true, scratch);
  if (r == 1) return 1;
  element = ~0U;
  return r == -2 ? 0 : r;
}

}  // namespace tessel3d
}  // namespace zel
