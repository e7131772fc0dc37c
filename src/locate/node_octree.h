// Octree of the nodes of a TH4 mesh, the node search of the interpolations.
//
// The tree covers a cube around the nodes' bounding box (edge h = largest extent x
// 1.000000000001, 1e-12 for a single point), and positions are mapped to 32-bit integer
// cell coordinates (coordinate - lower corner) x (4294967295 / h). Each cell is one
// column of eight unsigned words: a leaf holds its node count (0 to 7) in word 0 and the
// node IDs after it; an inner cell holds its eight children, each word flagged with
// inner_flag. The child of a point at depth d is taken from bit 31 - d of its integer
// coordinates: x bit + 2 y bit + 4 z bit. A cell at depth 32 is one integer position;
// more than seven nodes there (a crowd: coincident nodes, or nodes squeezed together by
// a far outlier) make it an inner cell whose children 1-7 are leaves and whose child 0
// continues the crowd one level down. An insertion fills the first of those leaves
// with room, else moves the children one level down and starts seven new leaves, so it
// never walks the crowd; a search scans a crowd in a loop, never by recursion, so no
// input can exhaust the stack.
//
// Nodes with a coordinate that is not finite are left out: they cannot be placed on the
// grid, and an infinite extent would squeeze every finite node into one crowd.
//
// Queries: find_close (the nearest node of the leaf holding the point, else of the
// first non-empty sibling, else of the whole tree; ~0U outside the cube) and
// find_closest (the exact nearest node, ~0U only for an empty tree).
#pragma once

#include <cfloat>
#include <cmath>
#include <cstdint>
#include <limits>

#include "common/element_tables.h"
#include "zel/matrix.h"

namespace elfes {

class node_octree {
 public:
  static constexpr unsigned inner_flag = 0x80000000u;
  static constexpr unsigned leaf_size = 7;
  static constexpr unsigned crowd_depth = 32;  // cells of one integer position

  /// Builds the tree over the nodes of the columns of a 4-row connectivity (each node
  /// once, in order of first appearance). Node IDs must be columns of coords.
  /// @return 0 | -199 memory
  int build(const zel::dense2D<double>& coords, const zel::dense2D<unsigned>& connectivity) {
    coords_ = coords;
    xyz_ = coords_.data();
    ld_ = coords_.ld();
    cells_.clear();
    if (!cells_.reserve(8, 64, 1) || !cells_.resize(8, 1, 0u)) return OUT_OF_MEMORY;

    zel::dense1D<unsigned, 8> nodes;
    if (!collect_nodes(connectivity, nodes)) return OUT_OF_MEMORY;
    set_cube(nodes);
    for (std::size_t k = 0; k < nodes.size(); ++k) {
      const double* x = xyz_ + nodes[k] * ld_;
      if (in_cube(x) && !insert(nodes[k], x)) return OUT_OF_MEMORY;
    }
    return 0;
  }

  unsigned find_close(const zel::vector_fixed<double, 3>& point) const {
    const double* p = point.data();
    if (!in_cube(p)) return NOT_FOUND;
    const query q = scaled_query(p);
    std::uint32_t key[3];
    integer_position(p, key);
    box b = root_box(), parent_box = b;
    unsigned cell = 0, parent = NOT_FOUND, child = 0, depth = 0;
    while (depth < crowd_depth && is_inner(cell)) {
      parent = cell;
      parent_box = b;
      child = child_index(key, depth);
      b = child_box(b, child, depth);
      cell = child_cell(cell, child);
      ++depth;
    }
    double best = infinity();
    unsigned found = NOT_FOUND;
    nearest_in_crowd(cell, q, best, found);  // a leaf, or the whole crowd of a position
    if (found != NOT_FOUND) return found;
    if (parent != NOT_FOUND) {
      // Siblings differing in one bit, in two bits, then in all three.
      static const unsigned flips[7] = {1, 2, 4, 6, 5, 3, 7};
      for (unsigned flip : flips) {
        const unsigned sibling = child ^ flip;
        nearest_in(child_cell(parent, sibling), child_box(parent_box, sibling, depth - 1), depth, q, best, found);
        if (found != NOT_FOUND) return found;
      }
    }
    return find_closest(point);
  }

  /// ~0U also for a point with a coordinate that is not finite (no node is nearer than
  /// another to it).
  unsigned find_closest(const zel::vector_fixed<double, 3>& point) const {
    double best = infinity();
    unsigned found = NOT_FOUND;
    if (!finite(point.data())) return found;
    nearest_in(0, root_box(), 0, scaled_query(point.data()), best, found);
    return found;
  }

  std::size_t nb_cells() const { return cells_.cols(); }

 private:
  // A query point: its coordinates times `scale`, a power of two that keeps squared
  // distances finite (1 unless some coordinate exceeds 2^500 in magnitude). Every
  // distance is computed as x * scale - p * scale: exact scaling, so the order of the
  // distances is that of the unscaled ones wherever those do not overflow.
  struct query {
    double p[3];
    double scale;
  };
  query scaled_query(const double* p) const {
    double largest = 0;
    for (unsigned d = 0; d < 3; ++d)
      largest = std::fmax(largest, std::fmax(std::fabs(p[d]), std::fmax(std::fabs(lower_[d]), std::fabs(upper_[d]))));
    query q{{p[0], p[1], p[2]}, 1.0};
    if (largest > 0x1p500) q.scale = std::ldexp(1.0, 500 - std::ilogb(largest));
    for (double& c : q.p) c *= q.scale;
    return q;
  }

  // A cell's integer box: origin and log2 of its edge (32 for the root; it stops
  // shrinking past depth 32).
  struct box {
    std::uint32_t origin[3];
    unsigned log2_size;
  };

  bool is_inner(unsigned cell) const { return (cells_.data()[cell * std::size_t(8)] & inner_flag) != 0; }
  unsigned child_cell(unsigned cell, unsigned child) const {
    return cells_.data()[cell * std::size_t(8) + child] & ~inner_flag;
  }
  static unsigned child_index(const std::uint32_t* key, unsigned depth) {
    if (depth >= 32) return 0;
    const unsigned bit = 31 - depth;
    return ((key[0] >> bit) & 1u) | (((key[1] >> bit) & 1u) << 1) | (((key[2] >> bit) & 1u) << 2);
  }
  static box child_box(const box& parent, unsigned child, unsigned depth) {
    if (depth >= 32) return parent;
    box b = parent;
    b.log2_size = parent.log2_size - 1;
    for (unsigned d = 0; d < 3; ++d)
      if (child & (1u << d)) b.origin[d] += std::uint32_t(1) << b.log2_size;
    return b;
  }
  static box root_box() { return box{{0, 0, 0}, 32}; }
  // Squared distances start from infinity, so any finite distance is an answer.
  static double infinity() { return std::numeric_limits<double>::infinity(); }

  static bool finite(const double* x) { return std::isfinite(x[0]) && std::isfinite(x[1]) && std::isfinite(x[2]); }
  bool in_cube(const double* p) const {
    for (unsigned d = 0; d < 3; ++d)
      if (!(p[d] >= lower_[d] && p[d] <= upper_[d])) return false;
    return true;
  }

  void integer_position(const double* p, std::uint32_t* key) const {
    for (unsigned d = 0; d < 3; ++d) {
      const double v = (p[d] - lower_[d]) * scale_;
      key[d] = !(v > 0) ? 0u : v > 4294967295.0 ? 4294967295u : static_cast<std::uint32_t>(v);
    }
  }

  bool collect_nodes(const zel::dense2D<unsigned>& connectivity, zel::dense1D<unsigned, 8>& nodes) const {
    const std::size_t nb_elements = connectivity.cols();
    if (!nodes.reserve(nb_elements / 5, 1)) return false;
    zel::dense1D<unsigned, 8> seen;  // one bit per node
    if (!seen.resize((coords_.cols() + 31) / 32, 0u)) return false;
    const unsigned* column = connectivity.data();
    for (std::size_t e = 0; e < nb_elements; ++e, column += connectivity.ld())
      for (unsigned k = 0; k < 4; ++k) {
        const unsigned n = column[k];
        if (n >= coords_.cols()) continue;  // invalid IDs are the caller's fault, but never written through
        if (!finite(xyz_ + n * ld_)) continue;
        unsigned& word = seen[n >> 5];
        if (word & (1u << (n & 31))) continue;
        word |= 1u << (n & 31);
        if (!nodes.push_back(n)) return false;
      }
    return true;
  }

  void set_cube(const zel::dense1D<unsigned, 8>& nodes) {
    double lo[3] = {DBL_MAX, DBL_MAX, DBL_MAX}, hi[3] = {-DBL_MAX, -DBL_MAX, -DBL_MAX};
    for (std::size_t k = 0; k < nodes.size(); ++k) {
      const double* x = xyz_ + nodes[k] * ld_;
      for (unsigned d = 0; d < 3; ++d) {
        if (x[d] < lo[d]) lo[d] = x[d];
        if (x[d] > hi[d]) hi[d] = x[d];
      }
    }
    double extent = 0;
    for (unsigned d = 0; d < 3; ++d)
      if (hi[d] - lo[d] > extent) extent = hi[d] - lo[d];
    const double h = extent > 0 ? extent * 1.000000000001 : 1e-12;
    double reach = 0;
    for (unsigned d = 0; d < 3; ++d) {
      const double centre = nodes.empty() ? 0.0 : 0.5 * (lo[d] + hi[d]);
      // Rounding of the centre must not leave a node outside the cube.
      lower_[d] = std::fmin(centre - 0.5 * h, lo[d]);
      upper_[d] = std::fmax(lower_[d] + h, hi[d]);
      reach = std::fmax(reach, std::fabs(lower_[d]) + h);
    }
    scale_ = 4294967295.0 / h;
    unit_ = h / 4294967295.0;
    // One integer step plus the rounding of lower + i x unit at this magnitude.
    margin_ = unit_ + 4 * DBL_EPSILON * reach;
  }

  // `count` new empty leaves, the index of the first; ~0U when memory runs out.
  unsigned new_cells(unsigned count) {
    const std::size_t first = cells_.cols(), wanted = first + count;
    if (wanted >= inner_flag) return NOT_FOUND;
    const std::size_t room = cells_.storage() ? cells_.storage()->capacity() / 8 : 0;
    if (wanted > room && !cells_.reserve(8, 2 * wanted, 1)) return NOT_FOUND;
    if (!cells_.resize(8, wanted, 0u)) return NOT_FOUND;
    return static_cast<unsigned>(first);
  }

  bool insert(unsigned node, const double* x) {
    std::uint32_t key[3];
    integer_position(x, key);
    unsigned cell = 0, depth = 0;
    for (;;) {
      if (depth == crowd_depth) return insert_in_crowd(cell, node);
      unsigned* words = cells_.data() + cell * std::size_t(8);
      if (words[0] & inner_flag) {
        cell = words[child_index(key, depth)] & ~inner_flag;
        ++depth;
        continue;
      }
      if (words[0] < leaf_size) {
        words[1 + words[0]] = node;
        ++words[0];
        return true;
      }
      if (!split(cell, depth)) return false;
    }
  }

  // Turns a full leaf into an inner cell whose children share its nodes (all of them in
  // child 1 for a crowd, whose nodes have no bit left to tell them apart).
  bool split(unsigned cell, unsigned depth) {
    const unsigned first = new_cells(8);
    if (first == NOT_FOUND) return false;
    unsigned* words = cells_.data() + cell * std::size_t(8);
    unsigned moved[leaf_size];
    for (unsigned k = 0; k < leaf_size; ++k) moved[k] = words[1 + k];
    for (unsigned k = 0; k < 8; ++k) words[k] = (first + k) | inner_flag;
    for (unsigned k = 0; k < leaf_size; ++k) {
      std::uint32_t key[3];
      integer_position(xyz_ + moved[k] * ld_, key);
      const unsigned child = depth >= crowd_depth ? 1 : child_index(key, depth);
      unsigned* leaf = cells_.data() + (first + child) * std::size_t(8);
      leaf[1 + leaf[0]] = moved[k];
      ++leaf[0];
    }
    return true;
  }
  static bool append(unsigned* leaf, unsigned node) {
    if (leaf[0] >= leaf_size) return false;
    leaf[1 + leaf[0]] = node;
    ++leaf[0];
    return true;
  }
  // A node into the crowd at `cell` (see the file comment): the cell itself while it is a
  // leaf with room, else the first of its leaf children with room, else seven new leaves
  // after the children have moved one level down. Constant time whatever the crowd.
  bool insert_in_crowd(unsigned cell, unsigned node) {
    if (!is_inner(cell)) {
      if (append(cells_.data() + cell * std::size_t(8), node)) return true;
      if (!split(cell, crowd_depth)) return false;
    }
    for (unsigned k = 0; k < 8; ++k) {
      const unsigned child = child_cell(cell, k);
      if (!is_inner(child) && append(cells_.data() + child * std::size_t(8), node)) return true;
    }
    const unsigned first = new_cells(8);
    if (first == NOT_FOUND) return false;
    unsigned* words = cells_.data() + cell * std::size_t(8);
    unsigned* below = cells_.data() + first * std::size_t(8);
    for (unsigned k = 0; k < 8; ++k) {
      below[k] = words[k];  // child 0 of the new block takes over the crowd so far
      words[k] = (first + k) | inner_flag;
    }
    return append(cells_.data() + (first + 1) * std::size_t(8), node);
  }

  // Nearest node of a crowd (or of a plain leaf): its leaves level by level, in a loop.
  // An exact hit ends the scan, no node being nearer.
  void nearest_in_crowd(unsigned cell, const query& p, double& best, unsigned& found) const {
    while (is_inner(cell) && best > 0) {
      for (unsigned k = 1; k < 8; ++k) nearest_in_leaf(child_cell(cell, k), p, best, found);
      cell = child_cell(cell, 0);
    }
    if (!is_inner(cell)) nearest_in_leaf(cell, p, best, found);
  }
  // Squared distance from p to a box, enlarged by margin_ on each side so that the
  // rounding of the integer mapping never prunes a node that lies in the box.
  double box_distance2(const box& b, const query& q) const {
    const double size = static_cast<double>(std::uint64_t(1) << b.log2_size);
    const double* p = q.p;
    double sum = 0;
    for (unsigned d = 0; d < 3; ++d) {
      const double lo = (lower_[d] + static_cast<double>(b.origin[d]) * unit_ - margin_) * q.scale;
      const double hi = (lower_[d] + (static_cast<double>(b.origin[d]) + size) * unit_ + margin_) * q.scale;
      const double gap = p[d] < lo ? lo - p[d] : p[d] > hi ? p[d] - hi : 0.0;
      sum += gap * gap;
    }
    return sum;
  }

  void nearest_in_leaf(unsigned cell, const query& q, double& best, unsigned& found) const {
    const unsigned* words = cells_.data() + cell * std::size_t(8);
    const double* p = q.p;
    const double s = q.scale;
    for (unsigned k = 1; k <= words[0]; ++k) {
      const double* x = xyz_ + words[k] * ld_;
      const double dx = x[0] * s - p[0], dy = x[1] * s - p[1], dz = x[2] * s - p[2];
      const double d2 = dx * dx + dy * dy + dz * dz;
      if (d2 < best) {
        best = d2;
        found = words[k];
      }
    }
  }

  // Nearest node of the subtree at `cell` (its box b, at `depth`), improving best (a
  // squared distance) and found; children are visited nearest box first.
  void nearest_in(unsigned cell, const box& b, unsigned depth, const query& p, double& best, unsigned& found) const {
    if (depth >= crowd_depth || !is_inner(cell)) {
      nearest_in_crowd(cell, p, best, found);
      return;
    }
    box boxes[8];
    double gaps[8];
    unsigned order[8];
    for (unsigned k = 0; k < 8; ++k) {
      boxes[k] = child_box(b, k, depth);
      const unsigned child = child_cell(cell, k);
      // An empty leaf holds no answer: no box to measure (most of them along the
      // chain of cells that a far outlier makes).
      gaps[k] =
          !is_inner(child) && cells_.data()[child * std::size_t(8)] == 0 ? infinity() : box_distance2(boxes[k], p);
      unsigned i = k;
      for (; i > 0 && gaps[order[i - 1]] > gaps[k]; --i) order[i] = order[i - 1];
      order[i] = k;
    }
    for (unsigned i = 0; i < 8; ++i) {
      const unsigned k = order[i];
      if (!(gaps[k] < best)) break;
      nearest_in(child_cell(cell, k), boxes[k], depth + 1, p, best, found);
    }
  }

  zel::dense2D<double> coords_;
  const double* xyz_ = nullptr;
  std::size_t ld_ = 0;
  zel::dense2D<unsigned> cells_;  // 8 x #cells
  double lower_[3] = {0, 0, 0}, upper_[3] = {0, 0, 0};
  double scale_ = 0, unit_ = 0, margin_ = 0;
};

}  // namespace elfes
