// The element walk shared by dihedral_angles and solid_angles: ID check and dispatch on
// the row count, one scratch list of values per call, and the per-element extremes.
#pragma once

#include <cmath>

#include "common/element_tables.h"
#include "common/shared_memory.h"
#include "common/vec3.h"
#include "measures/element_scale.h"
#include "zel/matrix.h"
#include "zel/tessel.h"

namespace elfes {

// The values of the current element, each already scaled by its normalisation factor
// when asked. A value the list cannot make room for is dropped; the others still count.
// The list owns its buffer alone, so the room it has obtained stays valid: values are
// written straight into it and only growth goes through the vector.
class value_list {
 public:
  explicit value_list(bool normalise) : normalise_(normalise) {}
  void add(double value, double factor) {
    const double x = normalise_ ? value * factor : value;
    if (size_ < room_)
      data_[size_++] = x;
    else
      grow_and_add(x);
  }
  void clear() { size_ = 0; }  // keeps the room: no allocation once it is large enough
  std::size_t size() const { return size_; }
  const double* data() const { return data_; }

 private:
  void grow_and_add(double x) {
    if (!values_.push_back(x)) return;  // the vector's size is size_ here
    size_ = values_.size();
    values_.resize(values_.capacity());  // spans all its room, which needs no allocation
    data_ = values_.data();
    room_ = values_.size();
  }

  zel::dense1D<double, 8> values_;
  double* data_ = nullptr;
  std::size_t size_ = 0, room_ = 0;
  bool normalise_;
};

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

// Output entries past the end of a caller's vector are skipped, never grown.
inline void store_extremes(const value_list& list, std::size_t j, zel::dense1D<double, 8>& min_values,
                           zel::dense1D<double, 8>& max_values) {
  if (list.size() == 0) return;  // every value dropped: nothing to report
  double lo, hi;
  list_extremes(list.data(), list.size(), lo, hi);
  if (j < min_values.size()) min_values[j] = lo;
  if (j < max_values.size()) max_values[j] = hi;
}

// Measure provides: template <solid_kind kind, class Reader>
//   static void element(const unsigned* column, const Reader& node, value_list& list);
template <class Measure, solid_kind kind>
void walk_pure(const zel::dense2D<double>& coords, const zel::dense2D<unsigned>& connect, value_list& list,
               zel::dense1D<double, 8>& min_values, zel::dense1D<double, 8>& max_values) {
  const node_reader node{coords.data(), coords.ld()};
  const std::size_t n = connect.cols(), ld = connect.ld();
  const unsigned* column = connect.data();
  for (std::size_t j = 0; j < n; ++j, column += ld) {
    list.clear();
    Measure::template element<kind>(column, node, list);
    store_extremes(list, j, min_values, max_values);
  }
}

template <class Measure>
void walk_mixed(const zel::dense2D<double>& coords, const zel::dense2D<unsigned>& connect, value_list& list,
                zel::dense1D<double, 8>& min_values, zel::dense1D<double, 8>& max_values) {
  const mixed_node_reader node{coords.data(), coords.ld()};
  const std::size_t n = connect.cols(), ld = connect.ld();
  const unsigned* column = connect.data();
  for (std::size_t j = 0; j < n; ++j, column += ld) {
    list.clear();
    switch (mixed8_kind(column)) {
      case kind_TH4: Measure::template element<kind_TH4>(column, node, list); break;
      case kind_PY5: Measure::template element<kind_PY5>(column, node, list); break;
      case kind_W6: Measure::template element<kind_W6>(column, node, list); break;
      case kind_H8: Measure::template element<kind_H8>(column, node, list); break;
    }
    store_extremes(list, j, min_values, max_values);
  }
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
  value_list list(normalise);
  if (!pure) {
    walk_mixed<Measure>(coords, connect, list, min_values, max_values);
    return 0;
  }
  switch (kind) {
    case kind_TH4: walk_pure<Measure, kind_TH4>(coords, connect, list, min_values, max_values); break;
    case kind_PY5: walk_pure<Measure, kind_PY5>(coords, connect, list, min_values, max_values); break;
    default: walk_pure<Measure, kind_W6>(coords, connect, list, min_values, max_values); break;
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
  void clear() {
    count_ = 0;
    degenerate_ = false;
  }
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
template <class Measure, solid_kind kind, class Reader>
inline void checked_element(const unsigned* column, const Reader& node, element_values& list) {
  vec3 p[8];
  load_vertices<solid_table[kind].nb_vertices>(column, node, p);
  const double longest = longest_squared_edge<kind>(p);
  Measure::template element<kind, Reader::may_be_absent>(column, p, longest, list);
  if (is_flat<kind>(p, longest)) list.mark_degenerate();
}

// The checks and layouts of walk_angles; `degenerate` is cleared first and lists the
// marked columns, ascending. When it cannot grow, every extreme is still written and it
// is left empty: -199.
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
  element_values list(normalise);
  bool listed = true;
  const std::size_t n = connect.cols(), ld = connect.ld();
  const unsigned* column = connect.data();
  for (std::size_t j = 0; j < n; ++j, column += ld) {
    list.clear();
    switch (pure ? pure_kind : mixed8_kind(column)) {
      case kind_TH4:
        pure ? checked_element<Measure, kind_TH4>(column, plain, list)
             : checked_element<Measure, kind_TH4>(column, mixed, list);
        break;
      case kind_PY5:
        pure ? checked_element<Measure, kind_PY5>(column, plain, list)
             : checked_element<Measure, kind_PY5>(column, mixed, list);
        break;
      case kind_W6:
        pure ? checked_element<Measure, kind_W6>(column, plain, list)
             : checked_element<Measure, kind_W6>(column, mixed, list);
        break;
      case kind_H8: checked_element<Measure, kind_H8>(column, mixed, list); break;
    }
    double lo, hi;
    list.extremes(lo, hi);
    if (j < min_values.size()) min_values[j] = lo;
    if (j < max_values.size()) max_values[j] = hi;
    if (list.degenerate() && listed) listed = degenerate.push_back(static_cast<unsigned>(j));
  }
  if (listed) return 0;
  degenerate.clear();
  return OUT_OF_MEMORY;
}

}  // namespace elfes
