// node_detector: nearest-node search over an implicit k-d tree.
//
// The nodes are permuted into tree order once (median splits by nth_element along the
// widest axis of each cell), so the tree needs no pointers: a cell is a range [lo, hi)
// of the permuted arrays, its median node sits at mid and its halves are [lo, mid) and
// [mid + 1, hi). The median stays at mid while the halves are split further, so its
// coordinate is the splitting plane.
#include <algorithm>
#include <cmath>

#include "zel/tessel.h"

namespace zel {
namespace tessel {
namespace {

constexpr std::size_t leaf_size = 8;
constexpr unsigned none = ~0U;

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

  void split(std::size_t lo, std::size_t hi) {
    if (hi - lo <= leaf_size) return;
    const std::size_t mid = middle(lo, hi);
    const unsigned axis = widest_axis(lo, hi);
    axes[mid] = static_cast<unsigned char>(axis);
    // No NaN reaches this point (such nodes are left out), so the order is strict weak.
    std::nth_element(ids + lo, ids + mid, ids + hi,
                     [this, axis](unsigned a, unsigned b) { return coordinate(a, axis) < coordinate(b, axis); });
    split(lo, mid);
    split(mid + 1, hi);
  }
};

struct search_state {
  const double* q;
  double best_d;
  unsigned best_id;
};

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
  if (nb_nodes && (!axes.resize(nb_nodes, 0) || !points.resize(3 * nb_nodes))) return;
  builder b{xyz, ld, order.data(), axes.data()};
  b.split(0, nb_nodes);
  for (std::size_t i = 0; i < nb_nodes; ++i)
    for (unsigned a = 0; a < 3; ++a) points[3 * i + a] = b.coordinate(order[i], a);

  ids_.swap(order);
  points_.swap(points);
  split_axes_.swap(axes);
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

// Nearest node of the cell [lo, hi), near half first; the far half is skipped only when
// its splitting plane is strictly farther than the best distance so far (an equal
// distance may still hide a smaller ID). Rounding is monotone, so a node beyond the
// plane never computes closer than the plane itself: the pruning is exact.
void nearest(const unsigned* ids, const double* points, const unsigned char* axes, std::size_t lo, std::size_t hi,
             search_state& s) {
  if (hi - lo <= leaf_size) {
    for (std::size_t i = lo; i < hi; ++i) {
      const double d = squared_distance(s.q, points + 3 * i);
      if (better(d, ids[i], s.best_d, s.best_id)) s.best_d = d, s.best_id = ids[i];
    }
    return;
  }
  const std::size_t mid = middle(lo, hi);
  const double d = squared_distance(s.q, points + 3 * mid);
  if (better(d, ids[mid], s.best_d, s.best_id)) s.best_d = d, s.best_id = ids[mid];
  const unsigned axis = axes[mid];
  const double offset = s.q[axis] - points[3 * mid + axis];
  const bool left_first = offset < 0;
  if (left_first)
    nearest(ids, points, axes, lo, mid, s);
  else
    nearest(ids, points, axes, mid + 1, hi, s);
  if (!(offset * offset > s.best_d)) {  // also taken when either side is NaN
    if (left_first)
      nearest(ids, points, axes, mid + 1, hi, s);
    else
      nearest(ids, points, axes, lo, mid, s);
  }
}

}  // namespace

unsigned node_detector::find_closest(const vector_fixed<double, 3>& p) const {
  const double* q = p.data();
  if (ids_.empty() || std::isnan(q[0]) || std::isnan(q[1]) || std::isnan(q[2])) return none;
  search_state s{q, 0, none};
  nearest(ids_.data(), points_.data(), split_axes_.data(), 0, ids_.size(), s);
  return s.best_id;
}

}  // namespace tessel
}  // namespace zel
