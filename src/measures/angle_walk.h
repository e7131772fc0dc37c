// The element walk shared by dihedral_angles and solid_angles: ID check and dispatch on
// the row count, the values of each element on the stack, and the per-element extremes.
// The elements are cut into fixed chunks run on the library's threads: each element's
// extremes are written in its own place, so any thread count gives the same bits.
#pragma once

#include <cmath>
#include <cstdint>

#include "common/element_tables.h"
#include "common/parallel.h"
#include "common/shared_memory.h"
#include "common/vec3.h"
#include "measures/element_scale.h"
#include "zel/matrix.h"
#include "zel/tessel.h"

namespace elfes {

// Elements per chunk of the walks: a few hundred microseconds of work.
inline constexpr std::size_t angle_grain = std::size_t(1) << 13;

// Smallest and largest value in list order. Written as "x >= lo is false" on purpose:
// a NaN (from a cosine pushed past 1 by rounding) resets both extremes, and so does the
// next value, so the result covers the values after the last NaN (NaN when it is last).
inline void list_extremes(const double* v, std::size_t n, double& lo, double& hi) {
  lo = hi = v[0];
  for (std::size_t k = 1; k < n; ++k) {
    const double x = v[k];
    if (!(x >= lo)) lo = x;
    if (!(hi >= x)) hi = x;
  }
}

// The values of one element, each already scaled by its normalisation factor when
// asked. An element has at most twelve (the edges of a hexahedron), so the list lives on
// the stack: it never has to grow (no value is ever dropped for want of memory), and
// the chunks running at once share nothing.
class value_list {
 public:
  explicit value_list(bool normalise) : normalise_(normalise) {}
  void add(double value, double factor) { values_[size_++] = normalise_ ? value * factor : value; }
  std::size_t size() const { return size_; }
  const double* data() const { return values_; }

 private:
  double values_[12];
  std::size_t size_ = 0;
  bool normalise_;
};

// The extremes of an element through its list of values: for measures whose values
// all have to be computed anyway.
template <class Measure, solid_kind kind, class Reader>
inline void extremes_of_list(const unsigned* column, const Reader& node, bool normalise, double& lo, double& hi) {
  value_list list(normalise);
  Measure::template element<kind>(column, node, list);
  list_extremes(list.data(), list.size(), lo, hi);
}

// Measure provides: template <solid_kind kind, class Reader>
//   static void extremes(const unsigned* column, const Reader& node, bool normalise, double& lo, double& hi);
// Output entries past the end of a caller's vector are skipped, never grown.
struct extremes_out {
  double* lo;
  double* hi;
  std::size_t nb_lo, nb_hi;
  void store(std::size_t j, double a, double b) const {
    if (j < nb_lo) lo[j] = a;
    if (j < nb_hi) hi[j] = b;
  }
};

template <class Measure, solid_kind kind>
void walk_pure(const zel::dense2D<double>& coords, const zel::dense2D<unsigned>& connect, bool normalise,
               const extremes_out& out) {
  const node_reader node{coords.data(), coords.ld()};
  const std::size_t ld = connect.ld();
  parallel_for(connect.cols(), angle_grain, [&](std::size_t first, std::size_t last) {
    const unsigned* column = connect.data() + first * ld;
    for (std::size_t j = first; j < last; ++j, column += ld) {
      double lo, hi;
      Measure::template extremes<kind>(column, node, normalise, lo, hi);
      out.store(j, lo, hi);
    }
  });
}

template <class Measure>
void walk_mixed(const zel::dense2D<double>& coords, const zel::dense2D<unsigned>& connect, bool normalise,
                const extremes_out& out) {
  const mixed_node_reader node{coords.data(), coords.ld()};
  const std::size_t ld = connect.ld();
  parallel_for(connect.cols(), angle_grain, [&](std::size_t first, std::size_t last) {
    const unsigned* column = connect.data() + first * ld;
    for (std::size_t j = first; j < last; ++j, column += ld) {
      double lo, hi;
      switch (mixed8_kind(column)) {
        case kind_TH4: Measure::template extremes<kind_TH4>(column, node, normalise, lo, hi); break;
        case kind_PY5: Measure::template extremes<kind_PY5>(column, node, normalise, lo, hi); break;
        case kind_W6: Measure::template extremes<kind_W6>(column, node, normalise, lo, hi); break;
        default: Measure::template extremes<kind_H8>(column, node, normalise, lo, hi); break;
      }
      out.store(j, lo, hi);
    }
  });
}

// 4, 5, 6 rows: pure TH4, PY5, W6; any other count: the 8-row mixed layout, whose check
// rejects the counts that cannot be read as 8 rows. The coordinates need 3 rows at least.
template <class Measure>
int walk_angles(const zel::dense2D<double>& coords, const zel::dense2D<unsigned>& connect, bool normalise,
                zel::dense1D<double, 8>& min_values, zel::dense1D<double, 8>& max_values) {
  const unsigned nb_nodes = static_cast<unsigned>(coords.cols());
  solid_kind kind = kind_H8;
  const bool pure = pure_kind_of_rows(connect.rows(), kind);
  if (!zel::tessel::check_IDs(connect, pure ? solid_table[kind].type : zel::SOLID_MIX8, nb_nodes)) return -2;
  if (connect.empty()) return 0;
  // Rows beyond the third are ignored; fewer than three cannot be read at all.
  if (coords.rows() < 3) return -1;
  const extremes_out out{min_values.data(), max_values.data(), min_values.size(), max_values.size()};
  if (!pure) {
    walk_mixed<Measure>(coords, connect, normalise, out);
    return 0;
  }
  switch (kind) {
    case kind_TH4: walk_pure<Measure, kind_TH4>(coords, connect, normalise, out); break;
    case kind_PY5: walk_pure<Measure, kind_PY5>(coords, connect, normalise, out); break;
    default: walk_pure<Measure, kind_W6>(coords, connect, normalise, out); break;
  }
  return 0;
}

}  // namespace elfes

// ---- the checked walk ----------------------------------------------------------------------
//
// The forms that list degenerate elements. Values come from kernels that never leave
// their range; those that depend on a face or corner without a direction are not
// added, and their element is marked. A flat element is marked too.

namespace elfes {

// The values of one element, at most twelve, on the stack: nothing to allocate.
class element_values {
 public:
  explicit element_values(bool normalise) : normalise_(normalise) {}
  void add(double value, double factor) { value_[count_++] = normalise_ ? value * factor : value; }
  void mark_degenerate() { degenerate_ = true; }
  bool degenerate() const { return degenerate_; }
  // NaN for both when no value is defined.
  void extremes(double& lo, double& hi) const {
    lo = hi = count_ ? value_[0] : std::nan("");
    for (unsigned k = 1; k < count_; ++k) {
      lo = value_[k] < lo ? value_[k] : lo;
      hi = value_[k] > hi ? value_[k] : hi;
    }
  }

 private:
  double value_[12];
  unsigned count_ = 0;
  bool degenerate_ = false;
  bool normalise_;
};

// Measure provides: template <solid_kind kind, bool may_be_absent>
//   static void element(const unsigned* column, const vec3 (&p)[8], double longest_squared, element_values& list);
// Writes the element's extremes; true when it is degenerate.
template <class Measure, solid_kind kind, class Reader>
inline bool checked_element(const unsigned* column, const Reader& node, bool normalise, const extremes_out& out,
                            std::size_t j) {
  element_values list(normalise);
  vec3 p[8];
  load_vertices<solid_table[kind].nb_vertices>(column, node, p);
  const double longest = longest_squared_edge<kind>(p);
  Measure::template element<kind, Reader::may_be_absent>(column, p, longest, list);
  if (is_flat<kind>(p, longest)) list.mark_degenerate();
  double lo, hi;
  list.extremes(lo, hi);
  out.store(j, lo, hi);
  return list.degenerate();
}

template <class Measure>
inline bool checked_column(const unsigned* column, bool pure, solid_kind pure_kind, const node_reader& plain,
                           const mixed_node_reader& mixed, bool normalise, const extremes_out& out, std::size_t j) {
  switch (pure ? pure_kind : mixed8_kind(column)) {
    case kind_TH4:
      return pure ? checked_element<Measure, kind_TH4>(column, plain, normalise, out, j)
                  : checked_element<Measure, kind_TH4>(column, mixed, normalise, out, j);
    case kind_PY5:
      return pure ? checked_element<Measure, kind_PY5>(column, plain, normalise, out, j)
                  : checked_element<Measure, kind_PY5>(column, mixed, normalise, out, j);
    case kind_W6:
      return pure ? checked_element<Measure, kind_W6>(column, plain, normalise, out, j)
                  : checked_element<Measure, kind_W6>(column, mixed, normalise, out, j);
    default: return checked_element<Measure, kind_H8>(column, mixed, normalise, out, j);
  }
}

// The checks and layouts of walk_angles; `degenerate` is cleared first and lists the
// marked columns, ascending. When it cannot grow, every extreme is still written and it
// is left empty: -199. The chunks mark the degenerate elements in a byte per element,
// listed in column order once every chunk is done; without memory for the marks, the
// elements are walked in order on this thread.
template <class Measure>
int walk_checked_angles(const zel::dense2D<double>& coords, const zel::dense2D<unsigned>& connect, bool normalise,
                        zel::dense1D<double, 8>& min_values, zel::dense1D<double, 8>& max_values,
                        zel::dense1D<unsigned, 8>& degenerate) {
  // Outputs in one buffer are refused; an input under an output is read from a copy.
  if (share_memory(min_values, max_values)) return -5;
  if (shares_with_any(degenerate, min_values, max_values)) return -6;
  if (shares_with_any(min_values, coords, connect) || shares_with_any(max_values, coords, connect) ||
      shares_with_any(degenerate, coords, connect)) {
    zel::dense2D<double> own_coords;
    zel::dense2D<unsigned> own_connect;
    if (!own_coords.copy(coords) || !own_connect.copy(connect)) return OUT_OF_MEMORY;
    return walk_checked_angles<Measure>(own_coords, own_connect, normalise, min_values, max_values, degenerate);
  }
  degenerate.clear();
  const unsigned nb_nodes = static_cast<unsigned>(coords.cols());
  solid_kind pure_kind = kind_H8;
  const bool pure = pure_kind_of_rows(connect.rows(), pure_kind);
  if (!zel::tessel::check_IDs(connect, pure ? solid_table[pure_kind].type : zel::SOLID_MIX8, nb_nodes)) return -2;
  if (connect.empty()) return 0;
  if (coords.rows() < 3) return -1;
  const node_reader plain{coords.data(), coords.ld()};
  const mixed_node_reader mixed{coords.data(), coords.ld()};
  const extremes_out out{min_values.data(), max_values.data(), min_values.size(), max_values.size()};
  const std::size_t n = connect.cols(), ld = connect.ld();
  bool listed = true;
  zel::dense1D<std::uint8_t, 8> marks;
  if (n > angle_grain && parallel_threads() > 1 && marks.resize(n)) {
    parallel_for(n, angle_grain, [&](std::size_t first, std::size_t last) {
      const unsigned* column = connect.data() + first * ld;
      for (std::size_t j = first; j < last; ++j, column += ld)
        marks[j] = checked_column<Measure>(column, pure, pure_kind, plain, mixed, normalise, out, j);
    });
    for (std::size_t j = 0; j < n && listed; ++j)
      if (marks[j]) listed = degenerate.push_back(static_cast<unsigned>(j));
  } else {
    const unsigned* column = connect.data();
    for (std::size_t j = 0; j < n; ++j, column += ld)
      if (checked_column<Measure>(column, pure, pure_kind, plain, mixed, normalise, out, j) && listed)
        listed = degenerate.push_back(static_cast<unsigned>(j));
  }
  if (listed) return 0;
  degenerate.clear();
  return OUT_OF_MEMORY;
}

}  // namespace elfes
