// point_locator: a TH4 mesh prepared for point searches that find every point lying in
// an element (a walk first, the tree of the elements when the walk fails), and for
// reading values at any point (the element holding it, else the nearest boundary face).
#include <algorithm>
#include <atomic>
#include <cmath>

#include "common/parallel.h"
#include "locate/box_tree.h"
#include "locate/node_placement.h"
#include "locate/triangle_projection.h"
#include "locate/visibility_walk.h"
#include "zel/tessel3d.h"

namespace zel {
namespace tessel3d {
namespace {

// A walk from the element of a near node reaches a point inside in a few steps; past
// this many, the tree is the cheaper way, and no crafted mesh makes a query cost more.
constexpr std::size_t walk_steps = 256;

// The tolerance at which weights() takes a point as inside (rounding on shared faces).
constexpr double weights_tolerance = 1e-9;

bool finite3(const double* p) { return std::isfinite(p[0]) && std::isfinite(p[1]) && std::isfinite(p[2]); }

// The nodes of column e as pointers into the coordinates.
struct th4_nodes {
  const double* node[4];
  th4_nodes(const dense2D<double>& coords, const dense2D<unsigned>& connectivity, unsigned e) {
    const unsigned* column = connectivity.data() + std::size_t(e) * connectivity.ld();
    for (unsigned k = 0; k < 4; ++k) node[k] = coords.data() + std::size_t(column[k]) * coords.ld();
  }
};

void box_of_nodes(const double* const* node, unsigned count, double* box) {
  for (unsigned d = 0; d < 3; ++d) {
    box[d] = box[d + 3] = node[0][d];
    for (unsigned k = 1; k < count; ++k) {
      box[d] = elfes::lower_of(box[d], node[k][d]);
      box[d + 3] = elfes::upper_of(box[d + 3], node[k][d]);
    }
  }
}

elfes::box_tree tree_view(const dense1D<unsigned, 8>& items, const dense1D<double, 8>& nodes, unsigned depth) {
  elfes::box_tree tree;
  tree.items = items;
  tree.nodes = nodes;
  tree.depth = depth;
  return tree;
}

}  // namespace

int point_locator::build(const dense2D<double>& coords, const dense2D<unsigned>& connectivity) {
  *this = point_locator();
  if (coords.rows() != 3) return -1;
  if (connectivity.rows() != 4) return -2;
  const std::size_t nb_elements = connectivity.cols();
  if (nb_elements >= (std::size_t(1) << 30)) return tessel::OUT_OF_MEMORY;  // face items 4 e + f must fit in 32 bits

  // The copies are checked, not the caller's matrices, which another thread might change
  // in between (from Python).
  point_locator built;
  if (!built.coords_.copy(coords) || !built.connectivity_.copy(connectivity)) return tessel::OUT_OF_MEMORY;
  if (!tessel::check_IDs(built.connectivity_, TH4, unsigned(coords.cols()))) return -2;
  if (tessel::get_neighbors(built.connectivity_, TH4, built.neighbors_) != 0) return tessel::OUT_OF_MEMORY;
  if (tessel::get_node_element(built.connectivity_, unsigned(coords.cols()), built.node_element_) != 0)
    return tessel::OUT_OF_MEMORY;
  dense1D<unsigned, 8> used;
  for (std::size_t n = 0; n < built.node_element_.size(); ++n)
    if (built.node_element_[n] != tessel::NO_ELEMENT && !used.push_back(unsigned(n))) return tessel::OUT_OF_MEMORY;
  built.nodes_ = tessel::node_detector(built.coords_, used);
  std::size_t held = 0;  // the detector leaves out nodes with a NaN coordinate, and fails silently
  const dense2D<double>& x0 = built.coords_;
  for (unsigned n : used) held += !std::isnan(x0(0, n)) && !std::isnan(x0(1, n)) && !std::isnan(x0(2, n));
  if (built.nodes_.size() != held) return tessel::OUT_OF_MEMORY;

  const dense2D<double>& x = built.coords_;
  const dense2D<unsigned>& t = built.connectivity_;
  elfes::box_tree elements;
  auto element_box = [&](unsigned e, double* box) { box_of_nodes(th4_nodes(x, t, e).node, 4, box); };
  if (elements.build(nb_elements, element_box) != 0) return tessel::OUT_OF_MEMORY;

  dense1D<unsigned, 8> faces;  // boundary faces as 4 e + f
  for (std::size_t e = 0; e < nb_elements; ++e)
    for (unsigned f = 0; f < 4; ++f)
      if (built.neighbors_(f, e) == tessel::NO_ELEMENT && !faces.push_back(unsigned(4 * e + f)))
        return tessel::OUT_OF_MEMORY;
  elfes::box_tree boundary;
  auto face_box = [&](unsigned k, double* box) {
    const unsigned item = faces[k];
    const th4_nodes element(x, t, item >> 2);
    const double* corner[3];
    for (unsigned i = 0; i < 3; ++i) corner[i] = element.node[elfes::th4_faces[item & 3u][i]];
    box_of_nodes(corner, 3, box);
  };
  if (boundary.build(faces.size(), face_box) != 0) return tessel::OUT_OF_MEMORY;
  for (std::size_t k = 0; k < boundary.items.size(); ++k) boundary.items[k] = faces[boundary.items[k]];

  built.element_items_ = elements.items;
  built.element_nodes_ = elements.nodes;
  built.element_depth_ = elements.depth;
  built.face_items_ = boundary.items;
  built.face_nodes_ = boundary.nodes;
  built.face_depth_ = boundary.depth;
  for (unsigned d = 0; d < 6; ++d) built.bounds_[d] = elements.nodes[d];
  *this = built;
  return 0;
}

int point_locator::find(const vector_fixed<double, 3>& point, unsigned& element, double tolerance) const {
  element = tessel::NO_ELEMENT;
  if (!std::isfinite(tolerance)) return -3;
  const double* p = point.data();
  if (!finite3(p) || connectivity_.cols() == 0) return 0;

  const unsigned n = nodes_.find_close(point);
  if (n < node_element_.size() && node_element_[n] != tessel::NO_ELEMENT) {
    unsigned current = node_element_[n];
    std::size_t steps = 0;
    if (elfes::visibility_walk(coords_, connectivity_, neighbors_, p, current, tolerance, steps, walk_steps) == 1) {
      element = current;
      return 1;
    }
  }
  const double widen = 4 * (tolerance > 0 ? tolerance : 0.0) + elfes::box_margin;
  const bool found =
      tree_view(element_items_, element_nodes_, element_depth_).visit_containing(p, widen, [&](unsigned e) {
        const th4_nodes candidate(coords_, connectivity_, e);
        if (elfes::TH4_exit_face(candidate.node, p, tolerance, 0) != elfes::th4_inside) return false;
        element = e;
        return true;
      });
  return found ? 1 : 0;
}

int point_locator::find(const dense2D<double>& points, dense1D<unsigned, 8>& elements, double tolerance) const {
  if (points.rows() != 3 || points.cols() > std::size_t(~0U)) return -1;
  if (!std::isfinite(tolerance)) return -3;
  const std::size_t nb_points = points.cols();
  const double* xyz = points.data();
  const std::size_t ld = points.ld();
  elfes::order_records order;
  if (elfes::spatial_order(
          xyz, ld, nb_points, [](std::size_t k) { return static_cast<unsigned>(k); }, order) != 0)
    return tessel::OUT_OF_MEMORY;
  // Runs of the curve on the library's threads; each record's key is replaced by the
  // point's element, written to `elements` once every point is searched.
  std::atomic<bool> missed{false};
  elfes::parallel_for(nb_points, 1u << 12, [&](std::size_t first, std::size_t last) {
    bool chunk_missed = false;
    for (std::size_t k = first; k < last; ++k) {
      if (k + elfes::prefetch_distance < last)
        elfes::prefetch(xyz + elfes::record_id(order[k + elfes::prefetch_distance]) * ld);
      const unsigned j = elfes::record_id(order[k]);
      const double* p = xyz + j * ld;
      unsigned element;
      chunk_missed |= find(vector_fixed<double, 3>(p[0], p[1], p[2]), element, tolerance) != 1;
      order[k] = std::uint64_t(element) << 32 | j;
    }
    if (chunk_missed) missed.store(true, std::memory_order_relaxed);
  });
  if (!elements.resize(nb_points)) return tessel::OUT_OF_MEMORY;
  for (std::size_t k = 0; k < nb_points; ++k) elements[elfes::record_id(order[k])] = unsigned(order[k] >> 32);
  return missed.load() ? 0 : 1;
}

int point_locator::weights(const vector_fixed<double, 3>& point, unsigned& element,
                           vector_fixed<double, 4>& lambda) const {
  element = tessel::NO_ELEMENT;
  const double* p = point.data();
  if (!finite3(p)) return 0;
  // Exactly inside first: a point inside one element may lie within the tolerance of its
  // neighbour too, whose clamped weights would be a little off. Within the tolerance
  // only, the point lies across a face by rounding: an inner face, where the weights are
  // clamped, or a boundary face, where the point is outside and projected like any other.
  const bool inside = find(point, element, 0.0) == 1;
  if (inside || find(point, element, weights_tolerance) == 1) {
    elfes::th4_weights(th4_nodes(coords_, connectivity_, element).node, p, lambda.data());
    bool across_boundary = false;
    for (unsigned k = 0; k < 4; ++k)
      across_boundary |= !inside && lambda[k] < 0 && neighbors_(k, element) == tessel::NO_ELEMENT;
    if (!across_boundary) {
      double sum = 0;
      for (unsigned k = 0; k < 4; ++k) sum += lambda[k] = std::fmin(std::fmax(lambda[k], 0.0), 1.0);
      for (unsigned k = 0; k < 4; ++k) lambda[k] /= sum;  // sum >= 1 - 3e-9: one weight at least is large
      return 1;
    }
    element = tessel::NO_ELEMENT;
  }
  // The nearest boundary face, distances taken relative to the point (and scaled when
  // they would overflow).
  const elfes::scaled_point q(p, bounds_);
  auto face_distance2 = [&](unsigned item, double* w) {
    const th4_nodes e(coords_, connectivity_, item >> 2);
    double corner[3][3];
    for (unsigned i = 0; i < 3; ++i)
      for (unsigned d = 0; d < 3; ++d) corner[i][d] = e.node[elfes::th4_faces[item & 3u][i]][d] * q.scale - q.p[d];
    return elfes::closest_on_triangle(corner[0], corner[1], corner[2], w);
  };
  double best = INFINITY, w[3];
  unsigned found = tessel::NO_ELEMENT;
  tree_view(face_items_, face_nodes_, face_depth_)
      .nearest([&](unsigned item) { return face_distance2(item, w); }, [&](const double* box) { return q.gap2(box); },
               best, found);
  if (found == tessel::NO_ELEMENT) return 0;
  face_distance2(found, w);
  element = found >> 2;
  const unsigned face = found & 3u;
  lambda[face] = 0;
  for (unsigned i = 0; i < 3; ++i) lambda[elfes::th4_faces[face][i]] = w[i];
  return 2;
}

}  // namespace tessel3d
}  // namespace zel
