// node_detector: nearest-node search over an implicit k-d tree.
//
// The nodes are permuted into tree order once (median splits by nth_element along the
// widest axis of each cell), so the tree needs no pointers: a cell is a range [lo, hi)
// of the permuted arrays, its median node sits at mid and its halves are [lo, mid) and
// [mid + 1, hi). The median stays at mid while the halves are split further, so its
// coordinate is the splitting plane.
#include <algorithm>
#include <cmath>

#include "common/parallel.h"
#include "zel/tessel.h"

namespace zel {
namespace tessel {
namespace {

constexpr std::size_t leaf_size = 8;
constexpr unsigned none = NOT_FOUND;

inline std::size_t middle(std::size_t lo, std::size_t hi) { return lo + (hi - lo) / 2; }

inline double squared_distance(const double* a, const double* b) {
  const double dx = a[0] - b[0], dy = a[1] - b[1], dz = a[2] - b[2];
  return dx * dx + dy * dy + dz * dz;
}

// Order of candidate answers: smaller distance first, a NaN distance (an infinite node
// seen from an infinite query) after every number, ties to the smaller ID.
inline bool better(double d, unsigned id, double best_d, unsigned best_id) {
  if (best_id == none) return true;
  const bool nan_d = std::isnan(d), nan_best = std::isnan(best_d);
  if (nan_d != nan_best) return nan_best;
  if (!nan_d && d != best_d) return d < best_d;
  return id < best_id;
}

struct builder {
  const double* xyz;  // coords.data()
  std::size_t ld;     // coords.ld()
  unsigned* ids;      // node IDs being permuted into tree order
  unsigned char* axes;

  double coordinate(unsigned id, unsigned axis) const { return xyz[std::size_t(id) * ld + axis]; }

  // Widest axis of the bounding box of [lo, hi); infinite or NaN extents lose to finite
  // ones only through the comparison, which is all a split needs.
  unsigned widest_axis(std::size_t lo, std::size_t hi) const {
    double low[3], high[3];
    for (unsigned a = 0; a < 3; ++a) low[a] = high[a] = coordinate(ids[lo], a);
    for (std::size_t i = lo + 1; i < hi; ++i)
      for (unsigned a = 0; a < 3; ++a) {
        const double c = coordinate(ids[i], a);
        if (c < low[a]) low[a] = c;
        if (c > high[a]) high[a] = c;
      }
    unsigned axis = 0;
    double extent = high[0] - low[0];
    for (unsigned a = 1; a < 3; ++a)
      if (high[a] - low[a] > extent || std::isnan(extent)) {
        axis = a;
        extent = high[a] - low[a];
      }
    return axis;
  }

  unsigned* min_ids;

  // Splits [lo, hi) and returns its smallest ID (kept at mid for a cell that splits).
  unsigned split(std::size_t lo, std::size_t hi) {
    if (hi - lo <= leaf_size) return hi > lo ? *std::min_element(ids + lo, ids + hi) : none;
    const std::size_t mid = middle(lo, hi);
    const unsigned axis = widest_axis(lo, hi);
    axes[mid] = static_cast<unsigned char>(axis);
    // No NaN reaches this point (such nodes are left out), so the order is strict weak.
    std::nth_element(ids + lo, ids + mid, ids + hi,
                     [this, axis](unsigned a, unsigned b) { return coordinate(a, axis) < coordinate(b, axis); });
    const unsigned low = std::min({split(lo, mid), split(mid + 1, hi), ids[mid]});
    min_ids[mid] = low;
    return low;
  }

  // As split, with the two halves of the cells of the top `levels` levels split at once
  // on the library's threads: each half is permuted apart from the other, so the tree is
  // the one a single thread builds. (Should the thread runtime fail midway and a half be
  // split again from its partly permuted state, that half is another valid tree of the
  // same nodes: find_closest's answer does not depend on the tree.)
  unsigned split_in_parallel(std::size_t lo, std::size_t hi, unsigned levels) {
    if (levels == 0 || hi - lo < parallel_cell) return split(lo, hi);
    const std::size_t mid = middle(lo, hi);
    const unsigned axis = widest_axis(lo, hi);
    axes[mid] = static_cast<unsigned char>(axis);
    std::nth_element(ids + lo, ids + mid, ids + hi,
                     [this, axis](unsigned a, unsigned b) { return coordinate(a, axis) < coordinate(b, axis); });
    unsigned half_low[2];
    elfes::parallel_chunks(2, 1, [&](std::size_t half, std::size_t, std::size_t) {
      half_low[half] = half == 0 ? split_in_parallel(lo, mid, levels - 1) : split_in_parallel(mid + 1, hi, levels - 1);
    });
    const unsigned low = std::min({half_low[0], half_low[1], ids[mid]});
    min_ids[mid] = low;
    return low;
  }

  // Cells smaller than this are split on one thread, and the top levels in parallel
  // give 2^levels cells.
  static constexpr std::size_t parallel_cell = std::size_t(1) << 14;
  static constexpr unsigned parallel_levels = 6;
};

// A query: the point times `scale`, a power of two that keeps squared distances finite
// (1 unless a finite coordinate of the point or of the nodes' box exceeds 2^500). Every
// distance is taken as x * scale - q, an exact scaling, so the distances compare as the
// unscaled ones do wherever those do not overflow.
struct search_state {
  double q[3];
  double scale;
  double best_d;
  unsigned best_id;
};

inline double scaled_distance(const search_state& s, const double* x) {
  const double dx = s.q[0] - x[0] * s.scale, dy = s.q[1] - x[1] * s.scale, dz = s.q[2] - x[2] * s.scale;
  return dx * dx + dy * dy + dz * dz;
}

}  // namespace

node_detector::node_detector() = default;

node_detector::node_detector(const dense2D<double>& coords) { build(coords, nullptr); }

node_detector::node_detector(const dense2D<double>& coords, const dense1D<unsigned, 8>& ids) { build(coords, &ids); }

void node_detector::build(const dense2D<double>& coords, const dense1D<unsigned, 8>* ids) {
  if (coords.rows() != 3 || coords.cols() == 0) return;
  const std::size_t nb_cols = coords.cols();
  const std::size_t nb_candidates = ids ? ids->size() : nb_cols;
  const double* xyz = coords.data();
  const std::size_t ld = coords.ld();

  dense1D<unsigned, 8> order;
  if (!order.resize(nb_candidates)) return;
  std::size_t nb_nodes = 0;
  for (std::size_t k = 0; k < nb_candidates; ++k) {
    const std::size_t id = ids ? (*ids)[k] : k;
    if (id >= nb_cols || id >= none) continue;
    const double* p = xyz + id * ld;
    if (std::isnan(p[0]) || std::isnan(p[1]) || std::isnan(p[2])) continue;
    order[nb_nodes++] = static_cast<unsigned>(id);
  }
  order.resize(nb_nodes);  // shrinking never allocates

  dense1D<unsigned char, 8> axes;
  dense1D<double, 8> points;
  dense1D<unsigned, 8> min_ids;
  if (nb_nodes && (!axes.resize(nb_nodes, 0) || !points.resize(3 * nb_nodes) || !min_ids.resize(nb_nodes, none)))
    return;
  builder b{xyz, ld, order.data(), axes.data(), min_ids.data()};
  b.split_in_parallel(0, nb_nodes, builder::parallel_levels);
  double bounds[6] = {INFINITY, INFINITY, INFINITY, -INFINITY, -INFINITY, -INFINITY};
  for (std::size_t i = 0; i < nb_nodes; ++i)
    for (unsigned a = 0; a < 3; ++a) {
      const double c = b.coordinate(order[i], a);
      points[3 * i + a] = c;
      bounds[a] = std::fmin(bounds[a], c);
      bounds[a + 3] = std::fmax(bounds[a + 3], c);
    }

  ids_.swap(order);
  points_.swap(points);
  split_axes_.swap(axes);
  min_ids_.swap(min_ids);
  std::copy(bounds, bounds + 6, bounds_);
}

unsigned node_detector::find_close(const vector_fixed<double, 3>& p) const {
  const double* q = p.data();
  if (ids_.empty() || std::isnan(q[0]) || std::isnan(q[1]) || std::isnan(q[2])) return none;
  std::size_t lo = 0, hi = ids_.size();
  double best_d = 0;
  unsigned best_id = none;
  while (hi - lo > leaf_size) {
    const std::size_t mid = middle(lo, hi);
    const double d = squared_distance(q, &points_[3 * mid]);
    if (better(d, ids_[mid], best_d, best_id)) best_d = d, best_id = ids_[mid];
    const unsigned axis = split_axes_[mid];
    if (q[axis] < points_[3 * mid + axis])
      hi = mid;
    else
      lo = mid + 1;
  }
  for (std::size_t i = lo; i < hi; ++i) {
    const double d = squared_distance(q, &points_[3 * i]);
    if (better(d, ids_[i], best_d, best_id)) best_d = d, best_id = ids_[i];
  }
  return best_id;
}

namespace {

// Squared distance from the query to a box (lower x y z, upper x y z), no more than that of
// any point in it: each gap is rounded as the differences to the nodes inside are, and
// rounding is monotone. Infinite bounds give a gap of 0 towards them.
inline double box_distance(const search_state& s, const double* box) {
  double gap[3];
  for (unsigned a = 0; a < 3; ++a) {
    const double lo = box[a] * s.scale, hi = box[a + 3] * s.scale;
    gap[a] = s.q[a] < lo ? s.q[a] - lo : s.q[a] > hi ? s.q[a] - hi : 0.0;
  }
  return gap[0] * gap[0] + gap[1] * gap[1] + gap[2] * gap[2];
}

// Whether a cell at box distance d whose smallest ID is `low` may hold a better answer
// than the best so far. Only a number strictly greater than the best distance, or equal
// to it with only larger IDs behind it, rules the cell out (a NaN never does).
inline bool may_improve(const search_state& s, double d, unsigned low) {
  if (s.best_id == none || std::isnan(s.best_d) || std::isnan(d)) return true;
  return !(d > s.best_d) && !(d == s.best_d && low > s.best_id);
}

struct tree_view {
  const unsigned* ids;
  const double* points;
  const unsigned char* axes;
  const unsigned* min_ids;

  unsigned lowest_id(std::size_t lo, std::size_t hi) const {
    return hi - lo > leaf_size ? min_ids[middle(lo, hi)] : 0;  // a leaf is simply scanned
  }

  // Nearest node of the cell [lo, hi) whose box is `box` (the nodes' box cut by the
  // splitting planes above it). A half is visited only when its box may hold a better
  // answer, the nearer half first: the answer is the least (distance, ID) whatever the
  // order, and degenerate node sets (on a plane or a line, all at one point) cost a
  // descent instead of a scan, the boxes being flat or a point like the nodes.
  void nearest(std::size_t lo, std::size_t hi, const double* box, search_state& s) const {
    if (hi - lo <= leaf_size) {
      for (std::size_t i = lo; i < hi; ++i) {
        const double d = scaled_distance(s, points + 3 * i);
        if (better(d, ids[i], s.best_d, s.best_id)) s.best_d = d, s.best_id = ids[i];
      }
      return;
    }
    const std::size_t mid = middle(lo, hi);
    const double d = scaled_distance(s, points + 3 * mid);
    if (better(d, ids[mid], s.best_d, s.best_id)) s.best_d = d, s.best_id = ids[mid];
    const unsigned axis = axes[mid];
    double halves[2][6];
    std::copy(box, box + 6, halves[0]);
    std::copy(box, box + 6, halves[1]);
    halves[0][axis + 3] = points[3 * mid + axis];
    halves[1][axis] = points[3 * mid + axis];
    const std::size_t range[2][2] = {{lo, mid}, {mid + 1, hi}};
    double gap[2];
    unsigned low[2];
    for (unsigned h = 0; h < 2; ++h) {
      gap[h] = box_distance(s, halves[h]);
      low[h] = lowest_id(range[h][0], range[h][1]);
    }
    const unsigned first = gap[1] < gap[0] || (gap[1] == gap[0] && low[1] < low[0]) ? 1 : 0;
    for (unsigned k = 0; k < 2; ++k) {
      const unsigned h = first ^ k;
      if (may_improve(s, gap[h], low[h])) nearest(range[h][0], range[h][1], halves[h], s);
    }
  }
};

}  // namespace

unsigned node_detector::find_closest(const vector_fixed<double, 3>& p) const {
  const double* q = p.data();
  if (ids_.empty() || std::isnan(q[0]) || std::isnan(q[1]) || std::isnan(q[2])) return none;
  search_state s{{q[0], q[1], q[2]}, 1.0, 0, none};
  double largest = 0;
  for (unsigned a = 0; a < 3; ++a)
    for (double c : {q[a], bounds_[a], bounds_[a + 3]})
      if (std::isfinite(c)) largest = std::fmax(largest, std::fabs(c));
  if (largest > 0x1p500 && std::isfinite(q[0]) && std::isfinite(q[1]) && std::isfinite(q[2])) {
    s.scale = std::ldexp(1.0, 500 - std::ilogb(largest));
    for (double& c : s.q) c *= s.scale;
  }
  const tree_view tree{ids_.data(), points_.data(), split_axes_.data(), min_ids_.data()};
  tree.nearest(0, ids_.size(), bounds_, s);
  return s.best_id;
}

}  // namespace tessel
}  // namespace zel
