// circumcenters: centre of the sphere through the four nodes of every tetrahedron.
#include <cmath>

#include "common/parallel.h"
#include "common/shared_memory.h"
#include "measures/triangle_kernels.h"
#include "zel/tessel3d.h"

namespace zel {
namespace tessel3d {
namespace {

using elfes::vec3;

// Starts from the circumcircle of the face (1, 2, 3) and moves along its normal n to the
// point equidistant from node 0. The move is made only when node 0 lies on the side n
// points to (s = 6V > 0) far enough for the division: a flat or inverted element keeps
// the face's centre, and a face without a circumcircle gives node 3. The squared radius
// is carried along (no_circle when the sphere is unknown) although only the centre is
// returned to the caller.
inline double tet_circumcentre(const vec3& p0, const vec3& a, const vec3& b, const vec3& c, vec3& centre) {
  double r2 = elfes::triangle_circumcircle(a, b, c, centre);
  if (r2 == elfes::no_circle) return r2;
  const vec3 n = elfes::triangle_normal(a, b, c);
  const vec3 d = p0 - centre;
  const double s = dot(d, n), dd = dot(d, d), nn = dot(n, n);
  if (s > 0 && s * s > dd * 1e-24 * nn) {
    const double t = (dd - r2) * (0.5 / s);
    r2 = r2 + t * t * nn;
    if (t != 0) centre = {centre.x + t * n.x, centre.y + t * n.y, centre.z + t * n.z};
  } else if (std::fabs(dd - r2) > r2 * 1e-12) {
    r2 = elfes::no_circle;
  }
  return r2;
}

}  // namespace

int circumcenters(const dense2D<double>& coords, const dense2D<unsigned>& connect, dense2D<double>& centers) {
  if (elfes::shares_with_any(centers, coords, connect)) {  // clearing centers would lose them
    dense2D<double> own_coords;
    dense2D<unsigned> own_connect;
    if (!own_coords.copy(coords) || !own_connect.copy(connect)) return -199;
    return circumcenters(own_coords, own_connect, centers);
  }
  centers.clear();
  if (coords.rows() != 3) return -1;
  if (connect.rows() != 4 || !tessel::check_IDs(connect, TH4, static_cast<unsigned>(coords.cols()))) return -2;
  if (!centers.resize(3, connect.cols(), 0.0)) return tessel::OUT_OF_MEMORY;
  if (connect.cols() == 0) return 0;

  const elfes::node_reader node{coords.data(), coords.ld()};
  const std::size_t ld = connect.ld(), out_ld = centers.ld();
  elfes::parallel_for(connect.cols(), 1u << 14, [&](std::size_t first, std::size_t last) {
    const unsigned* column = connect.data() + first * ld;
    double* out = centers.data() + first * out_ld;
    for (std::size_t j = first; j < last; ++j, column += ld, out += out_ld) {
      vec3 centre;
      tet_circumcentre(node(column[0]), node(column[1]), node(column[2]), node(column[3]), centre);
      out[0] = centre.x;
      out[1] = centre.y;
      out[2] = centre.z;
    }
  });
  return 0;
}

}  // namespace tessel3d
}  // namespace zel
