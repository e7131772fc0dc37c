// A bounding-volume tree over items with boxes (the elements of a mesh, or its boundary
// faces): the fallback of the point search that cannot miss an element, and the search
// of the boundary face nearest a point.
//
// The items are sorted along a Morton curve of their box centres, and the tree is
// implicit over that order: node k covers a range of it, halved at lo + (hi - lo) / 2
// into nodes 2k + 1 and 2k + 2, down to a fixed depth where no range holds more than
// leaf_size items. Each node stores the box of its items and the largest extent of any
// of them (which widens the box for a relative tolerance): 7 doubles. Building costs a
// radix sort and one pass; a query descends with a stack of at most depth + 1 entries,
// never by recursion.
#pragma once

#include <cfloat>
#include <cmath>
#include <cstdint>

#include "common/element_tables.h"
#include "common/parallel.h"
#include "locate/point_order.h"
#include "zel/matrix.h"

namespace elfes {

// fmin and fmax as the C library defines them (a NaN argument loses to a number),
// written out: the library calls cost more than the comparisons, several per box.
inline double lower_of(double a, double b) { return b < a || a != a ? b : a; }
inline double upper_of(double a, double b) { return b > a || a != a ? b : a; }

struct box_tree {
  static constexpr unsigned leaf_size = 4;
  static constexpr unsigned node_values = 7;  // lower x y z, upper x y z, largest item extent

  zel::dense1D<unsigned, 8> items;  // item IDs in tree order
  zel::dense1D<double, 8> nodes;    // node_values per node, heap order
  unsigned depth = 0;

  /// Builds the tree over items 0 ... count - 1 whose boxes box_of(item, double[6])
  /// writes (lower x y z, upper x y z). Items whose box is not finite are left out.
  /// @return 0 | -199 memory (the tree is then empty)
  template <class BoxOf>
  int build(std::size_t count, const BoxOf& box_of) {
    items.clear();
    nodes.clear();
    depth = 0;
    // The boxes are computed once, in item order (which reads the mesh in its own order),
    // and read again in tree order.
    zel::dense1D<double, 8> centres, boxes;
    zel::dense1D<unsigned, 8> kept;  // 1 for an item with a finite box
    if (!centres.resize(3 * count) || !boxes.resize(6 * count) || !kept.resize(count, 0u)) return OUT_OF_MEMORY;
    parallel_for(count, std::size_t(1) << 14, [&](std::size_t first, std::size_t last) {
      for (std::size_t i = first; i < last; ++i) {
        double* b = boxes.data() + 6 * i;
        box_of(static_cast<unsigned>(i), b);
        bool finite = true;
        for (unsigned v = 0; v < 6; ++v) finite &= std::isfinite(b[v]);
        kept[i] = finite;
        for (unsigned d = 0; d < 3; ++d) centres[3 * i + d] = finite ? 0.5 * b[d] + 0.5 * b[d + 3] : 0.0;
      }
    });
    order_records order;
    auto id_of = [&](std::size_t i) { return kept[i] ? static_cast<unsigned>(i) : NOT_FOUND; };
    if (spatial_order(centres.data(), 3, count, id_of, order) != 0) return OUT_OF_MEMORY;
    const std::size_t m = order.size();
    while (((m + (std::size_t(1) << depth) - 1) >> depth) > leaf_size) ++depth;
    const std::size_t nb_nodes = (std::size_t(2) << depth) - 1;
    if (!items.resize(m) || !nodes.resize(node_values * nb_nodes)) {
      items.clear();
      return OUT_OF_MEMORY;
    }
    for (std::size_t k = 0; k < m; ++k) items[k] = record_id(order[k]);
    fill(0, 0, m, 0, boxes.data());
    return 0;
  }

  /// Calls visit(item) for each item whose box, widened by widen x its largest extent
  /// in every direction plus the rounding of its coordinates' magnitude, holds p, in
  /// tree order, until visit returns true. @return whether a visit returned true
  template <class Visit>
  bool visit_containing(const double* p, double widen, const Visit& visit) const {
    if (items.empty()) return false;
    struct entry {
      std::size_t node, lo, hi;
      unsigned level;
    };
    entry stack[66];
    unsigned top = 0;
    stack[top++] = {0, 0, items.size(), 0};
    while (top) {
      const entry e = stack[--top];
      const double* b = nodes.data() + node_values * e.node;
      bool holds = true;
      for (unsigned d = 0; d < 3 && holds; ++d) {
        const double slack = widen * b[6] + 8 * DBL_EPSILON * std::fmax(std::fabs(b[d]), std::fabs(b[d + 3]));
        holds = p[d] >= b[d] - slack && p[d] <= b[d + 3] + slack;
      }
      if (!holds) continue;
      if (e.level == depth) {
        for (std::size_t k = e.lo; k < e.hi; ++k)
          if (visit(items[k])) return true;
        continue;
      }
      const std::size_t mid = e.lo + (e.hi - e.lo) / 2;
      stack[top++] = {2 * e.node + 2, mid, e.hi, e.level + 1};
      stack[top++] = {2 * e.node + 1, e.lo, mid, e.level + 1};
    }
    return false;
  }

  /// The item nearest a point: distance2(item) gives its squared distance and gap2(box)
  /// the squared distance of a node's box (6 values), no more than that of any item in
  /// it, both in the caller's units (see scaled_point). Nearer children are visited
  /// first and a node no nearer than the best so far is skipped, so the first item at
  /// the least distance in that order wins. `found` is ~0U when no item has a distance
  /// below `best` on entry.
  template <class Distance2, class Gap2>
  void nearest(const Distance2& distance2, const Gap2& gap2, double& best, unsigned& found) const {
    if (items.empty()) return;
    struct entry {
      std::size_t node, lo, hi;
      unsigned level;
      double gap;
    };
    entry stack[66];
    unsigned top = 0;
    stack[top++] = {0, 0, items.size(), 0, gap2(nodes.data())};
    while (top) {
      const entry e = stack[--top];
      if (!(e.gap < best)) continue;
      if (e.level == depth) {
        for (std::size_t k = e.lo; k < e.hi; ++k) {
          const double d = distance2(items[k]);
          if (d < best) {
            best = d;
            found = items[k];
          }
        }
        continue;
      }
      const std::size_t mid = e.lo + (e.hi - e.lo) / 2;
      const entry left{2 * e.node + 1, e.lo, mid, e.level + 1, gap2(nodes.data() + node_values * (2 * e.node + 1))};
      const entry right{2 * e.node + 2, mid, e.hi, e.level + 1, gap2(nodes.data() + node_values * (2 * e.node + 2))};
      // The nearer child on top of the stack (the left one on a tie).
      if (right.gap < left.gap) {
        stack[top++] = left;
        stack[top++] = right;
      } else {
        stack[top++] = right;
        stack[top++] = left;
      }
    }
  }

 private:
  static constexpr unsigned parallel_levels = 6;
  static constexpr std::size_t parallel_items = std::size_t(1) << 14;

  // Box and largest extent of node k over items [lo, hi) of the tree order; an empty
  // range gets a box that holds nothing.
  void fill(std::size_t k, std::size_t lo, std::size_t hi, unsigned level, const double* boxes) {
    double* out = nodes.data() + node_values * k;
    for (unsigned d = 0; d < 3; ++d) out[d] = INFINITY, out[d + 3] = -INFINITY;
    out[6] = 0;
    auto merge = [out](const double* b, double extent) {
      for (unsigned d = 0; d < 3; ++d) {
        out[d] = lower_of(out[d], b[d]);
        out[d + 3] = upper_of(out[d + 3], b[d + 3]);
      }
      out[6] = upper_of(out[6], extent);
    };
    if (level == depth) {
      for (std::size_t i = lo; i < hi; ++i) {
        const double* b = boxes + 6 * std::size_t(items[i]);
        if (i + 8 < hi) prefetch(boxes + 6 * std::size_t(items[i + 8]));
        merge(b, upper_of(upper_of(b[3] - b[0], b[4] - b[1]), b[5] - b[2]));
      }
      return;
    }
    const std::size_t mid = lo + (hi - lo) / 2;
    // The two halves of a large node are filled at once on the library's threads (each
    // writes only its own nodes).
    if (level < parallel_levels && hi - lo >= parallel_items) {
      parallel_chunks(2, 1, [&](std::size_t half, std::size_t, std::size_t) {
        if (half == 0)
          fill(2 * k + 1, lo, mid, level + 1, boxes);
        else
          fill(2 * k + 2, mid, hi, level + 1, boxes);
      });
    } else {
      fill(2 * k + 1, lo, mid, level + 1, boxes);
      fill(2 * k + 2, mid, hi, level + 1, boxes);
    }
    const double* left = nodes.data() + node_values * (2 * k + 1);
    const double* right = nodes.data() + node_values * (2 * k + 2);
    merge(left, left[6]);
    merge(right, right[6]);
  }
};

/// A query point scaled by a power of two so that squared distances to anything within
/// the box `bounds` (lower x y z, upper x y z) stay finite: 1 unless a coordinate
/// exceeds 2^500 in magnitude. Differences are taken as x * scale - p[d], an exact
/// scaling that keeps the order of distances.
struct scaled_point {
  double p[3];
  double scale;
  scaled_point(const double* point, const double* bounds) : p{point[0], point[1], point[2]}, scale(1.0) {
    double largest = 0;
    for (unsigned d = 0; d < 3; ++d)
      for (double c : {point[d], bounds[d], bounds[d + 3]})
        if (std::isfinite(c)) largest = std::fmax(largest, std::fabs(c));
    if (largest > 0x1p500) scale = std::ldexp(1.0, 500 - std::ilogb(largest));
    for (double& c : p) c *= scale;
  }
  /// Squared distance to a box (6 values).
  double gap2(const double* box) const {
    double sum = 0;
    for (unsigned d = 0; d < 3; ++d) {
      const double lo = box[d] * scale - p[d], hi = box[d + 3] * scale - p[d];
      const double gap = lo > 0 ? lo : hi < 0 ? -hi : 0.0;
      sum += gap * gap;
    }
    return sum;
  }
};

}  // namespace elfes
