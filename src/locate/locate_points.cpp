// locate_points: the element of each of many points, found by a point_locator built for
// the call (every point that lies in an element is found, whatever the mesh's shape).
#include <cmath>

#include "zel/tessel3d.h"

namespace zel {
namespace tessel3d {

int locate_points(const dense2D<double>& coords, const dense2D<unsigned>& connectivity, const dense2D<double>& points,
                  dense1D<unsigned, 8>& elements, double tolerance) {
  if (coords.rows() != 3) return -1;
  if (connectivity.rows() != 4 || !tessel::check_IDs(connectivity, TH4, unsigned(coords.cols()))) return -2;
  if (points.rows() != 3 || points.cols() > std::size_t(~0U)) return -3;
  if (!std::isfinite(tolerance)) return -5;
  point_locator locator;
  if (locator.build(coords, connectivity) != 0) return tessel::OUT_OF_MEMORY;
  return locator.find(points, elements, tolerance);
}

}  // namespace tessel3d
}  // namespace zel
