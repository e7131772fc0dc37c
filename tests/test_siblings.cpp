// Tests of the sibling libraries: matrix containers, node-ID checks, nearest-node search,
// node compaction, face adjacency, nodal normals and the eigen-solver wrapper.
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <functional>
#include <limits>
#include <map>
#include <vector>

#include "box_mesh.h"
#include "failing_allocator.h"
#include "zel/lapack.h"
#include "zel/matrix.h"
#include "zel/tessel.h"
#include "zel/tessel2d.h"

using namespace tessel3d_test;
using zel::dense1D;
using zel::dense2D;

namespace {

constexpr unsigned absent = ~0U;
const double nan_value = std::numeric_limits<double>::quiet_NaN();
const double inf_value = std::numeric_limits<double>::infinity();

template <class T>
std::vector<T> entries(const dense2D<T>& m) {
  std::vector<T> v;
  for (std::size_t j = 0; j < m.cols(); ++j)
    for (std::size_t i = 0; i < m.rows(); ++i) v.push_back(m(i, j));
  return v;
}

template <class T>
std::vector<T> entries(const dense1D<T, 8>& v) {
  return std::vector<T>(v.begin(), v.end());
}

// Everything that must survive a failed call: layout, buffer and values.
template <class M>
struct snapshot {
  explicit snapshot(const M& m) : data(m.data()), values(entries(m)) {}
  const void* data;
  std::vector<typename M::value_type> values;
  void expect_same(const M& m) const {
    EXPECT_EQ(m.data(), data);
    EXPECT_EQ(entries(m), values);
  }
};

// Makes the n-th allocation of `op` fail for n = 1, 2, ... until op gets through. Each
// round builds a fresh fixture under the failing allocator (so that every block is freed
// by the allocator that made it), checks that op reported the failure and left the
// fixture as `unchanged` says, and that no block leaked. Returns the failures injected.
template <class Make, class Op, class Unchanged>
long inject_failures(Make make, Op op, Unchanged unchanged) {
  long setup = 0;
  {
    failing_allocator counter;
    auto fixture = make();
    setup = counter.allocations();
  }
  for (long n = 1; n < 64; ++n) {
    failing_allocator guard(setup + n);
    {
      auto fixture = make();
      const bool ok = op(fixture);
      if (!guard.failed()) {
        EXPECT_TRUE(ok);
        return n - 1;
      }
      EXPECT_FALSE(ok) << "allocation " << n << " failed unnoticed";
      unchanged(fixture);
    }
    EXPECT_EQ(guard.live_blocks(), 0) << "leak after failing allocation " << n;
  }
  ADD_FAILURE() << "operation never succeeded";
  return -1;
}

}  // namespace

// ---- matrix ----------------------------------------------------------------------------

TEST(dense2D, sub_matrix_is_a_shared_view_with_the_parent_ld) {
  dense2D<double> m(4, 3, {0, 1, 2, 3, 10, 11, 12, 13, 20, 21, 22, 23});  // entry (i, j) = 10 j + i
  const dense2D<double> view = m.sub_matrix(1, 1, 2, 2);
  EXPECT_EQ(view.ld(), 4u);
  EXPECT_EQ(view.offset(), 5u);
  EXPECT_EQ(m.storage()->__count(), 2u);
  EXPECT_EQ(entries(view), (std::vector<double>{11, 12, 21, 22}));
  m(2, 2) = -1;  // writes through the parent are seen by the view
  EXPECT_EQ(view(1, 1), -1);
  EXPECT_TRUE(m.sub_matrix(3, 0, 2, 1).empty());  // block outside the matrix
  EXPECT_EQ(m.sub_matrix(0, 2, 4, 2).data(), nullptr);
}

TEST(dense2D, resize_keeps_entries_in_place) {
  struct step {
    std::size_t rows, cols;
  };
  const step steps[] = {{5, 3}, {5, 6}, {2, 6}, {2, 2}, {7, 1}};
  for (bool padded : {false, true}) {
    dense2D<double> m(3, 3);
    for (std::size_t j = 0; j < 3; ++j)
      for (std::size_t i = 0; i < 3; ++i) m(i, j) = 10.0 * j + i;
    if (padded) m = padded_view(m, 4, -7.0);  // a view with ld 7 that alone owns its buffer
    std::size_t rows = 3, cols = 3;
    for (const step& s : steps) {
      ASSERT_TRUE(m.resize(s.rows, s.cols, -1.0));
      for (std::size_t j = 0; j < s.cols; ++j)
        for (std::size_t i = 0; i < s.rows; ++i) {
          const bool old = i < rows && j < cols && i < 3 && j < 3;
          EXPECT_EQ(m(i, j), old ? 10.0 * j + i : -1.0) << i << "," << j << " padded " << padded;
        }
      rows = std::min(rows, s.rows), cols = std::min(cols, s.cols);  // entries still original
    }
  }
}

TEST(dense2D, reserve_then_resize_neither_moves_nor_changes_entries) {
  dense2D<unsigned> m(2, 3, {1, 2, 3, 4, 5, 6});
  ASSERT_TRUE(m.reserve(4, 50, 1));
  EXPECT_EQ(m.rows(), 2u);
  EXPECT_EQ(m.cols(), 3u);
  EXPECT_EQ(entries(m), (std::vector<unsigned>{1, 2, 3, 4, 5, 6}));
  const unsigned* data = m.data();
  for (std::size_t c = 4; c <= 50; c += 3) {
    ASSERT_TRUE(m.resize(c % 2 ? 2 : 4, c, absent));
    EXPECT_EQ(m.data(), data);
    EXPECT_EQ(m(1, 2), 6u);
    EXPECT_EQ(m(0, 0), 1u);
  }
}

TEST(dense2D, copies_are_shallow_and_counted) {
  dense2D<double> a(3, 2, 1.5);
  {
    dense2D<double> b(a);
    dense2D<double> c;
    c.shallow_copy(a);
    EXPECT_EQ(a.storage()->__count(), 3u);
    EXPECT_EQ(c.data(), a.data());
    b(0, 1) = 9;
    EXPECT_EQ(a(0, 1), 9);
  }
  EXPECT_EQ(a.storage()->__count(), 1u);

  dense2D<double> padded = padded_view(a, 2, nan_value);
  dense2D<double> deep;
  ASSERT_TRUE(deep.copy(padded));
  EXPECT_NE(deep.data(), padded.data());
  EXPECT_EQ(deep.ld(), 3u);
  EXPECT_EQ(deep.storage()->__count(), 1u);
  EXPECT_EQ(entries(deep), entries(a));
}

TEST(dense2D, growth_of_a_shared_buffer_detaches) {
  dense2D<unsigned> a(2, 2, {1, 2, 3, 4});
  for (int how = 0; how < 3; ++how) {
    dense2D<unsigned> b(a);
    const bool ok = how == 0 ? b.resize(2, 5, 7U) : how == 1 ? b.resize(3, 2, 7U) : b.reserve(2, 9, 1);
    ASSERT_TRUE(ok);
    EXPECT_NE(b.data(), a.data());
    EXPECT_EQ(a.storage()->__count(), 1u);
    EXPECT_EQ(a.cols(), 2u);
    EXPECT_EQ(entries(a), (std::vector<unsigned>{1, 2, 3, 4}));
    EXPECT_EQ(b(1, 1), 4u);
  }
  // A view grown beyond its rows must not write into the rows its parent keeps.
  dense2D<unsigned> top = a.sub_matrix(0, 0, 1, 2);
  ASSERT_TRUE(top.resize(2, 2, 0U));
  EXPECT_EQ(entries(a), (std::vector<unsigned>{1, 2, 3, 4}));
  EXPECT_EQ(entries(top), (std::vector<unsigned>{1, 0, 3, 0}));
}

TEST(dense2D, clear_and_as_vector) {
  dense2D<unsigned> m(2, 3, {1, 2, 3, 4, 5, 6});
  const dense1D<unsigned, 8> all = m.as_vector();  // contiguous: shares the buffer
  EXPECT_EQ(all.data(), m.data());
  EXPECT_EQ(entries(all), entries(m));
  const dense1D<unsigned, 8> strided = padded_view(m, 3, 0U).sub_matrix(1, 0, 1, 3).as_vector();
  EXPECT_EQ(entries(strided), (std::vector<unsigned>{2, 4, 6}));

  dense2D<unsigned> shared(m);
  shared.clear();
  EXPECT_EQ(shared.rows() + shared.cols(), 0u);
  EXPECT_EQ(entries(m).size(), 6u);  // the other user keeps its matrix
  EXPECT_EQ(m.storage()->__count(), 2u);  // m and `all`
}

TEST(dense1D, push_back_resize_reserve_clear) {
  dense1D<unsigned, 8> v;
  for (unsigned i = 0; i < 100; ++i) ASSERT_TRUE(v.push_back(i * i));
  for (unsigned i = 0; i < 100; ++i) ASSERT_EQ(v[i], i * i);
  ASSERT_TRUE(v.resize(103, 5U));
  EXPECT_EQ(v[99], 99u * 99u);
  EXPECT_EQ(v[102], 5u);
  ASSERT_TRUE(v.reserve(1000, 1));
  const unsigned* data = v.data();
  for (unsigned i = 0; i < 800; ++i) ASSERT_TRUE(v.push_back(i));
  EXPECT_EQ(v.data(), data);
  EXPECT_EQ(v[50], 2500u);

  dense1D<unsigned, 8> shared(v);
  ASSERT_TRUE(shared.reserve(3, 1));  // fewer than its entries: detaches with all of them
  ASSERT_TRUE(shared.push_back(1));
  EXPECT_EQ(shared.size(), 904u);
  EXPECT_EQ(shared[50], 2500u);
  EXPECT_EQ(v.size(), 903u);
  EXPECT_EQ(v.storage()->__count(), 1u);

  v.clear();
  EXPECT_TRUE(v.empty());
  ASSERT_TRUE(v.push_back(4));
  EXPECT_EQ(v.data(), data);  // the buffer was kept for reuse
  const dense1D<double, 8> filled(4, 2.5);
  EXPECT_EQ(entries(filled), (std::vector<double>{2.5, 2.5, 2.5, 2.5}));
}

TEST(allocation, every_allocating_call_fails_cleanly) {
  struct matrices {
    dense2D<double> m;
    dense1D<unsigned, 8> v;
    snapshot<dense2D<double>> m_before;
    snapshot<dense1D<unsigned, 8>> v_before;
  };
  auto make = [] {
    dense2D<double> m(3, 4, 1.0);
    dense1D<unsigned, 8> v{1, 2, 3, 4, 5, 6, 7, 8};
    return matrices{m, v, snapshot<dense2D<double>>(m), snapshot<dense1D<unsigned, 8>>(v)};
  };
  auto unchanged = [](matrices& f) {
    f.m_before.expect_same(f.m);
    f.v_before.expect_same(f.v);
    EXPECT_EQ(f.m.rows(), 3u);
    EXPECT_EQ(f.v.size(), 8u);
  };
  const dense2D<double> other_m(2, 2, 3.0);
  const dense1D<unsigned, 8> other_v{4, 5};
  auto with_sharer = [&](auto op) {  // the same call on a buffer that another matrix shares
    return [op](matrices& f) {
      dense2D<double> sharer(f.m);
      dense1D<unsigned, 8> vsharer(f.v);
      return op(f);
    };
  };
  const std::function<bool(matrices&)> ops[] = {
      [](matrices& f) { return f.m.resize(3, 9, 0.0); },
      [](matrices& f) { return f.m.resize(5, 4); },
      [](matrices& f) { return f.m.reserve(3, 40, 1); },
      [](matrices& f) { return f.m.reserve(6, 4, 0); },
      [&](matrices& f) { return f.m.copy(other_m); },
      [](matrices& f) { return f.v.push_back(9); },
      [](matrices& f) { return f.v.resize(30, 1U); },
      [](matrices& f) { return f.v.reserve(100, 1); },
      [&](matrices& f) { return f.v.copy(other_v); },
      with_sharer([](matrices& f) { return f.m.resize(3, 2); }),
      with_sharer([](matrices& f) { return f.v.push_back(1); }),
  };
  for (const auto& op : ops) EXPECT_GT(inject_failures(make, op, unchanged), 0);

  // Allocating constructors leave an empty object (the buffer takes two blocks).
  for (long n : {1, 2}) {
    failing_allocator guard(n);
    {
      const dense2D<double> m(10, 10, 1.0);
      EXPECT_TRUE(m.empty());
      EXPECT_EQ(m.data(), nullptr);
    }
    {
      failing_allocator inner(n);
      const dense1D<double, 8> v(10, 1.0);
      EXPECT_EQ(v.size(), 0u);
    }
    EXPECT_EQ(guard.live_blocks(), 0);
  }
}

namespace {
long custom_allocations = 0;
void* counting_alloc(std::size_t bytes) {
  ++custom_allocations;
  return std::malloc(bytes);
}
void counting_free(void* p) { std::free(p); }
}  // namespace

TEST(allocation, set_vector_num_allocator_returns_the_previous_pair) {
  const auto initial = zel::set_vector_num_allocator(&counting_alloc, &counting_free);
  dense1D<double, 8> v(5, 1.0);
  EXPECT_GT(custom_allocations, 0);
  const auto mine = zel::set_vector_num_allocator(nullptr, nullptr);  // back to the default
  EXPECT_EQ(mine.first, &counting_alloc);
  EXPECT_EQ(mine.second, &counting_free);
  const long before = custom_allocations;
  dense1D<double, 8> w(5, 1.0);
  EXPECT_EQ(custom_allocations, before);
  const auto restored = zel::set_vector_num_allocator(initial.first, initial.second);
  EXPECT_EQ(restored.first, initial.first);
  zel::set_vector_num_allocator(&counting_alloc, &counting_free);  // v must go back to free()
  v = dense1D<double, 8>();
  zel::set_vector_num_allocator(initial.first, initial.second);
}

TEST(fixed, vector_and_symmetric_indexing) {
  const zel::vector_fixed<double, 3> p(1, 2.5, -3);
  EXPECT_EQ(p[0], 1);
  EXPECT_EQ(p[1], 2.5);
  EXPECT_EQ(p[2], -3);
  zel::symmetric_fixed<double, 3> a;
  for (unsigned k = 0; k < 6; ++k) a[k] = k + 1;  // a11 a12 a22 a13 a23 a33
  const double expected[3][3] = {{1, 2, 4}, {2, 3, 5}, {4, 5, 6}};
  for (unsigned i = 0; i < 3; ++i)
    for (unsigned j = 0; j < 3; ++j) EXPECT_EQ(a(i, j), expected[i][j]);
  zel::symmetric_fixed<double, 3> b;
  b = a;
  b(2, 0) = 9;
  EXPECT_EQ(b(0, 2), 9);
  EXPECT_EQ(a(0, 2), 4);
}

// ---- check_IDs -------------------------------------------------------------------------

TEST(check_IDs, typed_rules_by_type_and_rows) {
  struct row {
    zel::element_type type;
    std::size_t rows;
    bool with_absent, expected;
  };
  const row table[] = {
      {zel::TH4, 4, false, true},         {zel::TH4, 4, true, false},        {zel::T3, 5, false, true},
      {zel::FACE_MIX4, 3, true, true},    {zel::FACE_MIX4, 4, true, true},   {zel::FACE_MIX4, 5, false, false},
      {zel::FACE_MIX4, 2, false, false},  {zel::SOLID_MIX8, 4, true, true},  {zel::SOLID_MIX8, 5, true, true},
      {zel::SOLID_MIX8, 6, true, true},   {zel::SOLID_MIX8, 8, true, true},  {zel::SOLID_MIX8, 7, false, false},
      {zel::SOLID_MIX8, 9, false, false}, {zel::SOLID_MIX8, 3, false, false}, {zel::FACE_MIX9, 9, true, true},
      {zel::FACE_MIX9, 10, false, false}, {zel::SOLID_MIX27, 27, true, true}, {zel::SOLID_MIX27, 28, false, false},
      {zel::H27, 27, true, false},
  };
  for (const row& r : table) {
    dense2D<unsigned> c(r.rows, 3, 4U);
    if (r.with_absent) c(r.rows - 1, 1) = absent;
    EXPECT_EQ(zel::tessel::check_IDs(c, r.type, 5), r.expected) << r.type << " rows " << r.rows;
    EXPECT_TRUE(zel::tessel::check_IDs(dense2D<unsigned>(r.rows, 0), r.type, 0));  // empty passes
  }
  dense2D<unsigned> c(4, 2, 1U);
  c(3, 1) = 5;  // ID == nbNodes
  EXPECT_FALSE(zel::tessel::check_IDs(c, zel::TH4, 5));
  EXPECT_TRUE(zel::tessel::check_IDs(c, zel::TH4, 6));
  EXPECT_FALSE(zel::tessel::check_IDs(padded_view(c, 2, 99U), zel::TH4, 5));  // the view, not the guard
  EXPECT_TRUE(zel::tessel::check_IDs(padded_view(c, 2, 99U), zel::TH4, 6));
}

TEST(check_IDs, untyped_matrix_and_vector_forms) {
  dense2D<unsigned> c(3, 2, {0, 1, 2, absent, 4, 2});
  EXPECT_TRUE(zel::tessel::check_IDs(c, 5));  // the marker is accepted
  EXPECT_FALSE(zel::tessel::check_IDs(c, 4));
  const dense1D<unsigned, 8> ids{0, 1, 4};
  EXPECT_TRUE(zel::tessel::check_IDs(ids, 5));
  EXPECT_FALSE(zel::tessel::check_IDs(ids, 4));
  EXPECT_FALSE(zel::tessel::check_IDs(dense1D<unsigned, 8>{absent}, absent));  // strict
  EXPECT_TRUE(zel::tessel::check_IDs(dense1D<unsigned, 8>(), 0));
}

// ---- node_detector ---------------------------------------------------------------------

namespace {

// Nearest of `candidates` by the detector's own distance formula, ties to the smallest ID.
unsigned brute_nearest(const dense2D<double>& coords, const std::vector<unsigned>& candidates, const double* q) {
  unsigned best = absent;
  double best_d = 0;
  for (unsigned id : candidates) {
    const double dx = q[0] - coords(0, id), dy = q[1] - coords(1, id), dz = q[2] - coords(2, id);
    const double d = dx * dx + dy * dy + dz * dz;
    if (best == absent || d < best_d || (d == best_d && id < best)) best = id, best_d = d;
  }
  return best;
}

dense2D<double> random_points(std::size_t n, random_stream& random, double grid = 0) {
  dense2D<double> coords(3, n);
  for (std::size_t j = 0; j < n; ++j)
    for (int d = 0; d < 3; ++d) {
      const double x = random.uniform(-1, 1) * (d == 2 ? 0.1 : 1);  // flat cloud: uneven axes
      coords(d, j) = grid > 0 ? std::round(x / grid) * grid : x;
    }
  return coords;
}

}  // namespace

TEST(node_detector, matches_brute_force_on_random_points) {
  random_stream random(7);
  for (double grid : {0.0, 0.25}) {  // 0.25: many duplicate points and equidistant ties
    const dense2D<double> coords = padded_view(random_points(3000, random, grid), 2, nan_value);
    std::vector<unsigned> all(coords.cols()), subset;
    for (unsigned i = 0; i < all.size(); ++i) all[i] = i;
    dense1D<unsigned, 8> ids{absent, 3000};  // out of range: skipped
    for (unsigned i = 0; i < all.size(); i += 3) subset.push_back(i), ids.push_back(i);

    const zel::tessel::node_detector every(coords), some(coords, ids);
    EXPECT_EQ(every.size(), 3000u);
    EXPECT_EQ(some.size(), subset.size());
    for (int k = 0; k < 2000; ++k) {
      double q[3] = {random.uniform(-1.5, 1.5), random.uniform(-1.5, 1.5), random.uniform(-0.3, 0.3)};
      if (grid > 0 && k % 2) q[0] = std::round(q[0] / 0.125) * 0.125, q[1] = std::round(q[1] / 0.125) * 0.125;
      if (k % 3 == 0) {  // on a node: with the grid, a tie between its copies on both sides of a split
        const std::size_t j = random.next() % coords.cols();
        for (int d = 0; d < 3; ++d) q[d] = coords(d, j);
      }
      const zel::vector_fixed<double, 3> p(q[0], q[1], q[2]);
      ASSERT_EQ(every.find_closest(p), brute_nearest(coords, all, q)) << k;
      ASSERT_EQ(some.find_closest(p), brute_nearest(coords, subset, q)) << k;
      const unsigned close = every.find_close(p);
      ASSERT_LT(close, 3000u);
    }
    if (grid == 0) {  // distinct points: a node's own position lands in its own leaf
      for (unsigned j = 0; j < coords.cols(); j += 7)
        EXPECT_EQ(every.find_close({coords(0, j), coords(1, j), coords(2, j)}), j);
    }
  }
}

TEST(node_detector, empty_detectors_answer_absent) {
  const zel::vector_fixed<double, 3> p(0, 0, 0);
  const dense2D<double> two_rows(2, 5, 1.0), three_rows(3, 5, 1.0);
  const zel::tessel::node_detector detectors[] = {
      zel::tessel::node_detector(), zel::tessel::node_detector(two_rows), zel::tessel::node_detector(dense2D<double>(3, 0)),
      zel::tessel::node_detector(three_rows, dense1D<unsigned, 8>{5, 9, absent})};
  for (const auto& d : detectors) {
    EXPECT_EQ(d.size(), 0u);
    EXPECT_EQ(d.find_close(p), absent);
    EXPECT_EQ(d.find_closest(p), absent);
  }
}

TEST(node_detector, non_finite_coordinates) {
  dense2D<double> coords(3, 40);
  random_stream random(3);
  for (std::size_t j = 0; j < 40; ++j)
    for (int d = 0; d < 3; ++d) coords(d, j) = random.uniform();
  coords(0, 0) = nan_value;                  // left out
  coords(1, 5) = inf_value;                  // kept, far from everything
  coords(2, 6) = -inf_value;
  const zel::tessel::node_detector detector(coords);
  EXPECT_EQ(detector.size(), 39u);
  const zel::vector_fixed<double, 3> at0(coords(0, 1), coords(1, 1), coords(2, 1));
  EXPECT_EQ(detector.find_closest(at0), 1u);
  EXPECT_EQ(detector.find_closest({nan_value, 0, 0}), absent);
  EXPECT_EQ(detector.find_close({0, nan_value, 0}), absent);
  // Seen from y = inf every node is infinitely far (a tie: smallest ID) except node 5,
  // whose distance is NaN and ranks last.
  EXPECT_EQ(detector.find_closest({0, inf_value, 0}), 1u);
  EXPECT_LT(detector.find_close({inf_value, -inf_value, inf_value}), 40u);

  dense2D<double> far(3, 4, inf_value);  // every distance from a finite point is infinite: a tie
  EXPECT_EQ(zel::tessel::node_detector(far).find_closest({0, 0, 0}), 0u);
}

TEST(node_detector, allocation_failure_gives_an_empty_detector) {
  random_stream random(5);
  const auto make = [&random] { return random_points(100, random); };
  long failures = inject_failures(
      make, [](dense2D<double>& coords) { return zel::tessel::node_detector(coords).size() == 100; },
      [](dense2D<double>&) {});
  EXPECT_GT(failures, 0);
}

// ---- simplify --------------------------------------------------------------------------

namespace {

// A square section (nodes 0-3, x = ID) swept into two layers of copies (4-7, 8-11), whose
// copies of node 0 (4 and 8) were replaced by other nodes, as a sweep along a line that
// starts at a section node does. Node 2 is used by nobody but lies below nbNodes.
struct swept {
  dense2D<double> coords{3, 12};
  dense2D<unsigned> connect[2] = {dense2D<unsigned>(4, 2, {0, 1, 5, 20, 5, 6, 10, 9}),
                                  dense2D<unsigned>(3, 2, {9, 11, absent, 3, 1, 11})};
  swept() {
    for (unsigned j = 0; j < 12; ++j) coords(0, j) = j, coords(1, j) = -1.0 * j, coords(2, j) = 0.5 * j;
  }
};

}  // namespace

TEST(simplify, drops_unused_copies_and_keeps_order) {
  swept s;
  dense1D<unsigned, 8> work{1, 2, 3};
  ASSERT_EQ(zel::tessel::simplify(s.coords, s.connect, s.connect + 2, work, 4), 0);
  // Unused: 4, 7, 8. Kept 5, 6, 9, 10, 11 become 4, 5, 6, 7, 8.
  EXPECT_EQ(s.coords.cols(), 9u);
  std::vector<double> x;
  for (std::size_t j = 0; j < 9; ++j) {
    x.push_back(s.coords(0, j));
    EXPECT_EQ(s.coords(1, j), -s.coords(0, j));
    EXPECT_EQ(s.coords(2, j), 0.5 * s.coords(0, j));
  }
  EXPECT_EQ(x, (std::vector<double>{0, 1, 2, 3, 5, 6, 9, 10, 11}));
  EXPECT_EQ(entries(s.connect[0]), (std::vector<unsigned>{0, 1, 4, 20, 4, 5, 7, 6}));  // 20: beyond coords, kept
  EXPECT_EQ(entries(s.connect[1]), (std::vector<unsigned>{6, 8, absent, 3, 1, 8}));
}

TEST(simplify, views_repeats_and_empty_ranges) {
  swept s;
  dense2D<unsigned> range[3] = {padded_view(s.connect[0], 1, 7U), s.connect[1], s.connect[1]};
  dense1D<unsigned, 8> work;
  ASSERT_EQ(zel::tessel::simplify(s.coords, range, range + 3, work, 4), 0);
  EXPECT_EQ(s.coords.cols(), 9u);  // the guard rows (7) do not keep node 7
  EXPECT_EQ(entries(range[0]), (std::vector<unsigned>{0, 1, 4, 20, 4, 5, 7, 6}));
  EXPECT_EQ(entries(s.connect[1]), (std::vector<unsigned>{6, 8, absent, 3, 1, 8}));  // renumbered once

  swept t;
  ASSERT_EQ(zel::tessel::simplify(t.coords, nullptr, nullptr, work, 4), 0);  // nothing used
  EXPECT_EQ(t.coords.cols(), 4u);
  ASSERT_EQ(zel::tessel::simplify(t.coords, t.connect, t.connect + 2, work, 12), 0);  // all kept
  EXPECT_EQ(t.coords.cols(), 4u);

  dense2D<double> flat(2, 12);
  EXPECT_EQ(zel::tessel::simplify(flat, t.connect, t.connect + 2, work, 4), -1);
  EXPECT_EQ(flat.cols(), 12u);
}

TEST(simplify, work_allocation_failure_changes_nothing) {
  struct fixture {
    swept s;
    dense1D<unsigned, 8> work;
  };
  const long failures = inject_failures(
      [] { return fixture(); },
      [](fixture& f) { return zel::tessel::simplify(f.s.coords, f.s.connect, f.s.connect + 2, f.work, 4) == 0; },
      [](fixture& f) {
        const swept fresh;
        EXPECT_EQ(entries(f.s.coords), entries(fresh.coords));
        EXPECT_EQ(entries(f.s.connect[0]), entries(fresh.connect[0]));
        EXPECT_EQ(entries(f.s.connect[1]), entries(fresh.connect[1]));
      });
  EXPECT_GT(failures, 0);
}

// ---- get_neighbors ---------------------------------------------------------------------

namespace {

const std::vector<std::vector<std::vector<unsigned>>> reference_faces = {
    {{1, 2, 3}, {2, 0, 3}, {0, 1, 3}, {2, 1, 0}},
    {{0, 4, 1}, {1, 4, 2}, {2, 4, 3}, {3, 4, 0}, {0, 1, 2, 3}},
    {{0, 1, 2}, {3, 5, 4}, {2, 1, 4, 5}, {0, 2, 5, 3}, {1, 0, 3, 4}},
    {{0, 3, 7, 4}, {1, 5, 6, 2}, {0, 4, 5, 1}, {3, 2, 6, 7}, {0, 1, 2, 3}, {4, 7, 6, 5}}};

unsigned kind_of_rows(std::size_t rows) { return rows == 4 ? 0 : rows == 5 ? 1 : rows == 6 ? 2 : 3; }

// Every pair of elements compared: entry (f, e) is the smallest other element with a
// face of the same node set. `mesh` holds pure kinds (by their row count).
std::vector<unsigned> brute_neighbors(const dense2D<unsigned>& c, std::size_t out_rows) {
  const auto& faces = reference_faces[kind_of_rows(c.rows())];
  auto key = [&](std::size_t e, std::size_t f) {
    std::vector<unsigned> k;
    for (unsigned l : faces[f]) k.push_back(c(l, e));
    std::sort(k.begin(), k.end());
    return k;
  };
  std::vector<unsigned> result(out_rows * c.cols(), absent);
  for (std::size_t e = 0; e < c.cols(); ++e)
    for (std::size_t f = 0; f < faces.size(); ++f)
      for (std::size_t o = 0; o < c.cols() && result[e * out_rows + f] == absent; ++o)
        for (std::size_t g = 0; g < faces.size() && o != e; ++g)
          if (key(e, f) == key(o, g)) {
            result[e * out_rows + f] = unsigned(o);
            break;
          }
  return result;
}

const zel::element_type box_types[] = {zel::TH4, zel::PY5, zel::W6, zel::H8};

}  // namespace

TEST(get_neighbors, boxes_match_brute_force_and_count_the_surface) {
  const unsigned nx = 3, ny = 2, nz = 4;
  for (int k = 0; k < 4; ++k)
    for (double jitter : {0.0, 0.2}) {
      const box_kind kind = static_cast<box_kind>(k);
      const box_mesh mesh = make_box(kind, nx, ny, nz, 1, 1, 1, jitter, 11);
      const std::size_t nb_faces = reference_faces[k].size();
      dense2D<unsigned> neighbors;
      ASSERT_EQ(zel::tessel::get_neighbors(padded_view(mesh.connect, 3, 0U), box_types[k], neighbors), 0);
      ASSERT_EQ(neighbors.rows(), nb_faces);
      ASSERT_EQ(neighbors.cols(), mesh.connect.cols());
      const std::vector<unsigned> found = entries(neighbors);
      EXPECT_EQ(found, brute_neighbors(mesh.connect, nb_faces)) << k;

      const std::size_t boundary = std::count(found.begin(), found.end(), absent);
      const std::size_t xy = nx * ny, yz = ny * nz, zx = nz * nx;
      const std::size_t surface[] = {4 * (xy + yz + zx), 2 * (xy + yz + zx), 4 * xy + 2 * (yz + zx), 2 * (xy + yz + zx)};
      EXPECT_EQ(boundary, surface[k]) << k;

      dense2D<unsigned> mixed;  // the same elements in the 8-row layout: rows past the faces absent
      ASSERT_EQ(zel::tessel::get_neighbors(to_mixed8(mesh.connect), zel::SOLID_MIX8, mixed), 0);
      ASSERT_EQ(mixed.rows(), 6u);
      for (std::size_t e = 0; e < mixed.cols(); ++e)
        for (std::size_t f = 0; f < 6; ++f) ASSERT_EQ(mixed(f, e), f < nb_faces ? neighbors(f, e) : absent);
    }
}

TEST(get_neighbors, mixed_solids_share_triangles_and_quadrangles) {
  // 0: unit cube 0-7; 1: pyramid on its top face, apex 8; 2: wedge beside its face
  // x = 1 (triangles 1-2-9 and 5-6-10); 3: tetrahedron on the pyramid's face 4-8-5.
  const dense2D<unsigned> connect(8, 4, {0, 1, 2, 3, 4, 5, 6, 7,                          //
                                         4, 5, 6, 7, 8, absent, absent, absent,           //
                                         1, 2, 9, 5, 6, 10, absent, absent,               //
                                         4, 5, 8, 11, absent, absent, absent, absent});
  dense2D<unsigned> neighbors;
  ASSERT_EQ(zel::tessel::get_neighbors(connect, zel::SOLID_MIX8, neighbors), 0);
  const std::vector<unsigned> expected = {
      absent, 2, absent, absent, absent, 1,            // cube: face (1,5,6,2) wedge, (4,7,6,5) pyramid
      3, absent, absent, absent, 0, absent,            // pyramid: (4,8,5) tetrahedron, base cube
      absent, absent, absent, absent, 0, absent,       // wedge: (2,1,5,6) cube
      absent, absent, absent, 1, absent, absent};      // tetrahedron: (8,5,4) pyramid
  EXPECT_EQ(entries(neighbors), expected);
}

TEST(get_neighbors, sparse_huge_node_ids_give_the_same_adjacency) {
  // IDs near the top of the range must not cost a table indexed by ID.
  const box_mesh mesh = make_box(box_kind::H8, 3, 3, 2);
  dense2D<unsigned> sparse;
  ASSERT_TRUE(sparse.copy(mesh.connect));
  for (std::size_t j = 0; j < sparse.cols(); ++j)
    for (std::size_t i = 0; i < 8; ++i) sparse(i, j) = 0xF0000000u + 977u * sparse(i, j);
  dense2D<unsigned> expected, found;
  ASSERT_EQ(zel::tessel::get_neighbors(mesh.connect, zel::H8, expected), 0);
  ASSERT_EQ(zel::tessel::get_neighbors(sparse, zel::H8, found), 0);
  EXPECT_EQ(entries(found), entries(expected));
}

TEST(get_neighbors, non_manifold_face_takes_the_lowest_other_element) {
  const dense2D<unsigned> connect(4, 3, {0, 1, 2, 3, 0, 2, 1, 4, 1, 0, 2, 5});  // face 0-1-2 thrice
  dense2D<unsigned> neighbors;
  ASSERT_EQ(zel::tessel::get_neighbors(connect, zel::TH4, neighbors), 0);
  EXPECT_EQ(neighbors(3, 0), 1u);
  EXPECT_EQ(neighbors(3, 1), 0u);
  EXPECT_EQ(neighbors(3, 2), 0u);
}

TEST(get_neighbors, status_codes_leave_neighbors_untouched) {
  const box_mesh mesh = make_box(box_kind::H8, 2, 2, 2);
  dense2D<unsigned> neighbors(2, 2, 5U);
  const snapshot<dense2D<unsigned>> before(neighbors);
  EXPECT_EQ(zel::tessel::get_neighbors(mesh.connect, zel::H27, neighbors), -2);
  EXPECT_EQ(zel::tessel::get_neighbors(mesh.connect, zel::Q4, neighbors), -2);
  EXPECT_EQ(zel::tessel::get_neighbors(mesh.connect, static_cast<zel::element_type>(99), neighbors), -2);
  EXPECT_EQ(zel::tessel::get_neighbors(mesh.connect, zel::TH4, neighbors), -1);
  EXPECT_EQ(zel::tessel::get_neighbors(mesh.connect.sub_matrix(0, 0, 6, 8), zel::SOLID_MIX8, neighbors), -1);
  before.expect_same(neighbors);
  ASSERT_EQ(zel::tessel::get_neighbors(dense2D<unsigned>(), zel::W6, neighbors), 0);  // no element
  EXPECT_EQ(neighbors.rows(), 5u);
  EXPECT_EQ(neighbors.cols(), 0u);

  const long failures = inject_failures(
      [] {
        dense2D<unsigned> n(2, 2, 5U);
        return std::make_pair(n, snapshot<dense2D<unsigned>>(n));
      },
      [&](std::pair<dense2D<unsigned>, snapshot<dense2D<unsigned>>>& f) {
        return zel::tessel::get_neighbors(mesh.connect, zel::H8, f.first) == 0;
      },
      [](std::pair<dense2D<unsigned>, snapshot<dense2D<unsigned>>>& f) { f.second.expect_same(f.first); });
  EXPECT_GT(failures, 0);
}

// ---- get_node_element ------------------------------------------------------------------

TEST(get_node_element, first_element_of_each_node) {
  const dense2D<unsigned> connect(3, 3, {4, 1, absent, 1, 2, 4, 0, 2, 2});
  dense1D<unsigned, 8> node_element{7};
  ASSERT_EQ(zel::tessel::get_node_element(padded_view(connect, 2, 5U), 6, node_element), 0);
  EXPECT_EQ(entries(node_element), (std::vector<unsigned>{2, 0, 1, absent, 0, absent}));

  const snapshot<dense1D<unsigned, 8>> before(node_element);
  EXPECT_EQ(zel::tessel::get_node_element(connect, 4, node_element), -1);  // node 4 == nbNodes
  before.expect_same(node_element);
  const long failures = inject_failures(
      [] {
        dense1D<unsigned, 8> out{7};
        return std::make_pair(out, snapshot<dense1D<unsigned, 8>>(out));
      },
      [&](std::pair<dense1D<unsigned, 8>, snapshot<dense1D<unsigned, 8>>>& f) {
        return zel::tessel::get_node_element(connect, 6, f.first) == 0;
      },
      [](std::pair<dense1D<unsigned, 8>, snapshot<dense1D<unsigned, 8>>>& f) { f.second.expect_same(f.first); });
  EXPECT_GT(failures, 0);
}

// ---- normals ---------------------------------------------------------------------------

namespace {

// (n + 1)^2 nodes on the unit square, z = 0; faces counter-clockwise seen from +z. The
// mixed form has the even cells as two triangles (row 3 absent), the odd ones as quadrangles.
struct square {
  dense2D<double> coords;
  dense2D<unsigned> triangles, quads, mixed;
  explicit square(unsigned n) : coords(3, (n + 1) * (n + 1)), triangles(3, 2 * n * n), quads(4, n * n), mixed(4, 0) {
    auto id = [n](unsigned i, unsigned j) { return j * (n + 1) + i; };
    for (unsigned j = 0; j <= n; ++j)
      for (unsigned i = 0; i <= n; ++i) coords(0, id(i, j)) = double(i) / n, coords(1, id(i, j)) = double(j) / n;
    for (unsigned j = 0, c = 0; j < n; ++j)
      for (unsigned i = 0; i < n; ++i, ++c) {
        const unsigned q[4] = {id(i, j), id(i + 1, j), id(i + 1, j + 1), id(i, j + 1)};
        for (int k = 0; k < 4; ++k) quads(k, c) = q[k];
        const unsigned t[2][3] = {{q[0], q[1], q[2]}, {q[0], q[2], q[3]}};
        for (int k = 0; k < 3; ++k) triangles(k, 2 * c) = t[0][k], triangles(k, 2 * c + 1) = t[1][k];
        for (int half = 0; half < (c % 2 ? 1 : 2); ++half) {
          mixed.resize(4, mixed.cols() + 1);
          for (int k = 0; k < 4; ++k) mixed(k, mixed.cols() - 1) = c % 2 ? q[k] : k < 3 ? t[half][k] : absent;
        }
      }
  }
};

dense2D<unsigned> reversed(const dense2D<unsigned>& faces) {  // opposite orientation
  dense2D<unsigned> r;
  r.copy(faces);
  for (std::size_t j = 0; j < r.cols(); ++j) {
    const bool triangle = r.rows() == 3 || r(3, j) == absent;
    std::swap(r(1, j), r(triangle ? 2 : 3, j));
  }
  return r;
}

}  // namespace

TEST(normals, flat_square_of_every_face_kind) {
  const square sq(4);
  for (const dense2D<unsigned>* faces : {&sq.triangles, &sq.quads, &sq.mixed})
    for (bool flip : {false, true}) {
      dense2D<double> n;
      const dense2D<unsigned> f = flip ? reversed(*faces) : *faces;
      ASSERT_EQ(zel::tessel2d::normals(padded_view(sq.coords, 1, nan_value), f, 0, true, n), 0);
      ASSERT_EQ(n.cols(), sq.coords.cols());
      for (std::size_t j = 0; j < n.cols(); ++j) {
        EXPECT_NEAR(n(0, j), 0, 1e-15);
        EXPECT_NEAR(n(1, j), 0, 1e-15);
        EXPECT_NEAR(n(2, j), flip ? -1 : 1, 1e-15);
      }
      // Without scaling the length is the sum of the angles at the node.
      ASSERT_EQ(zel::tessel2d::normals(sq.coords, f, 0, false, n), 0);
      EXPECT_NEAR(std::fabs(n(2, 6)), 2 * M_PI, 1e-12);  // interior node
      EXPECT_NEAR(std::fabs(n(2, 0)), M_PI / 2, 1e-12);  // corner
    }
}

TEST(normals, sphere_normals_approach_the_radius) {
  // Cube surface split into n x n quadrangles per face, projected onto the unit sphere.
  auto max_error = [](int n) {
    std::map<std::array<int, 3>, unsigned> ids;
    std::vector<std::array<int, 3>> grid;
    std::vector<unsigned> quads;
    auto node = [&](std::array<int, 3> g) {
      auto it = ids.emplace(g, unsigned(grid.size())).first;
      if (it->second == grid.size()) grid.push_back(g);
      return it->second;
    };
    for (int axis = 0; axis < 3; ++axis)
      for (int side : {-n, n})
        for (int a = -n; a < n; a += 2)
          for (int b = -n; b < n; b += 2) {
            const int u = (axis + 1) % 3, v = (axis + 2) % 3;
            std::array<unsigned, 4> q;
            const int corner[4][2] = {{a, b}, {a + 2, b}, {a + 2, b + 2}, {a, b + 2}};
            for (int k = 0; k < 4; ++k) {
              std::array<int, 3> g;
              g[axis] = side, g[u] = corner[k][0], g[v] = corner[k][1];
              q[k] = node(g);
            }
            if (side < 0) std::swap(q[1], q[3]);  // outward right-hand normal
            quads.insert(quads.end(), q.begin(), q.end());
          }
    dense2D<double> coords(3, grid.size());
    for (std::size_t j = 0; j < grid.size(); ++j) {
      const double r = std::sqrt(double(grid[j][0]) * grid[j][0] + double(grid[j][1]) * grid[j][1] +
                                 double(grid[j][2]) * grid[j][2]);
      for (int d = 0; d < 3; ++d) coords(d, j) = grid[j][d] / r;
    }
    dense2D<unsigned> connect(4, quads.size() / 4);
    std::copy(quads.begin(), quads.end(), connect.data());
    dense2D<double> normal;
    EXPECT_EQ(zel::tessel2d::normals(coords, connect, 0, true, normal), 0);
    double worst = 0;
    for (std::size_t j = 0; j < coords.cols(); ++j) {
      const double dot = normal(0, j) * coords(0, j) + normal(1, j) * coords(1, j) + normal(2, j) * coords(2, j);
      worst = std::max(worst, std::acos(std::min(1.0, dot)));
    }
    return worst;
  };
  const double coarse = max_error(4), fine = max_error(16);
  EXPECT_LT(coarse, 0.1);
  EXPECT_LT(fine, coarse / 4);  // angle error falls at least with the element size
}

TEST(normals, status_codes_in_order) {
  const square sq(2);
  dense2D<double> n(1, 1, 42.0);
  const snapshot<dense2D<double>> before(n);
  dense2D<unsigned> bad_corner = sq.quads;
  bad_corner.copy(sq.quads);
  bad_corner(0, 1) = absent;  // only corner 3 may be absent
  dense2D<unsigned> too_big;
  too_big.copy(sq.triangles);
  too_big(2, 0) = 9;  // == number of nodes
  EXPECT_EQ(zel::tessel2d::normals(dense2D<double>(2, 9), sq.triangles, -1, true, n), -1);
  EXPECT_EQ(zel::tessel2d::normals(sq.coords, dense2D<unsigned>(5, 2), -1, true, n), -2);
  EXPECT_EQ(zel::tessel2d::normals(sq.coords, bad_corner, -1, true, n), -2);
  EXPECT_EQ(zel::tessel2d::normals(sq.coords, too_big, -1, true, n), -2);
  EXPECT_EQ(zel::tessel2d::normals(sq.coords, sq.triangles, -1, true, n), -3);
  EXPECT_EQ(zel::tessel2d::normals(sq.coords, sq.triangles, nan_value, true, n), -3);
  before.expect_same(n);

  dense2D<double> lonely(3, 10);  // node 9 in no face
  for (std::size_t j = 0; j < 9; ++j)
    for (int d = 0; d < 3; ++d) lonely(d, j) = sq.coords(d, j);
  ASSERT_EQ(zel::tessel2d::normals(lonely, sq.mixed, M_PI, true, n), 0);
  EXPECT_EQ((std::vector<double>{n(0, 9), n(1, 9), n(2, 9)}), (std::vector<double>{0, 0, 0}));
  EXPECT_NEAR(n(2, 4), 1, 1e-15);

  const long failures = inject_failures(
      [] {
        dense2D<double> out(1, 1, 42.0);
        return std::make_pair(out, snapshot<dense2D<double>>(out));
      },
      [&](std::pair<dense2D<double>, snapshot<dense2D<double>>>& f) {
        return zel::tessel2d::normals(sq.coords, sq.quads, 0.5, true, f.first) == 0;
      },
      [](std::pair<dense2D<double>, snapshot<dense2D<double>>>& f) { f.second.expect_same(f.first); });
  EXPECT_GT(failures, 1);  // the feature angle needs a second table
}

// ---- dspev -----------------------------------------------------------------------------

TEST(dspev, diagonal_and_rotated_matrices) {
  // A = R diag(1, 2, 4) R^T with R a rotation about (1, 1, 1) by 0.7 radians.
  const double lambda[3] = {1, 2, 4};
  double r[3][3];
  {
    const double c = std::cos(0.7), s = std::sin(0.7), k = 1 / std::sqrt(3.0), t = 1 - c;
    const double m[3][3] = {{c + k * k * t, k * k * t - k * s, k * k * t + k * s},
                            {k * k * t + k * s, c + k * k * t, k * k * t - k * s},
                            {k * k * t - k * s, k * k * t + k * s, c + k * k * t}};
    std::copy(&m[0][0], &m[0][0] + 9, &r[0][0]);
  }
  auto a = [&](int i, int j) {
    double sum = 0;
    for (int k = 0; k < 3; ++k) sum += r[i][k] * lambda[k] * r[j][k];
    return sum;
  };
  const double diagonal[6] = {4, 0, 1, 0, 0, 2};  // diag(4, 1, 2), upper packed
  const double rotated[6] = {a(0, 0), a(0, 1), a(1, 1), a(0, 2), a(1, 2), a(2, 2)};
  const double rotated_lower[6] = {a(0, 0), a(1, 0), a(2, 0), a(1, 1), a(2, 1), a(2, 2)};
  const double permutation[3][3] = {{0, 0, 1}, {1, 0, 0}, {0, 1, 0}};  // eigenvectors e2, e3, e1
  struct input {
    const double* packed;
    char uplo;
    const double (*basis)[3];  // column k: the eigenvector of lambda[k]
  };
  const input inputs[] = {{diagonal, 'U', permutation}, {rotated, 'U', r}, {rotated_lower, 'L', r}};
  for (const input& in : inputs)
    for (char jobz : {'N', 'V'}) {
      double ap[6], w[3], z[9], work[9];
      std::copy(in.packed, in.packed + 6, ap);
      int info = 99;
      zel::lapack::dspev(jobz, in.uplo, 3, ap, w, z, 3, work, info);
      ASSERT_EQ(info, 0);
      for (int k = 0; k < 3; ++k) EXPECT_NEAR(w[k], lambda[k], 1e-13);
      if (jobz == 'N') continue;
      for (int k = 0; k < 3; ++k) {  // each column of z is +- the expected axis
        double dot = 0;
        for (int i = 0; i < 3; ++i) dot += z[3 * k + i] * in.basis[i][k];
        EXPECT_NEAR(std::fabs(dot), 1, 1e-12);
      }
    }
}

TEST(dspev, invalid_arguments_in_order) {
  double ap[6] = {1, 0, 1, 0, 0, 1}, w[3], z[9], work[9];
  struct call {
    char jobz, uplo;
    int n, ldz, info;
  };
  const call calls[] = {{'X', 'Q', -1, 0, -1}, {'v', 'Q', -1, 0, -2}, {'n', 'l', -1, 0, -3},
                        {'N', 'U', 3, 0, -7},  {'V', 'U', 3, 2, -7},  {'N', 'U', 3, 1, 0}};
  for (const call& c : calls) {
    int info = 99;
    zel::lapack::dspev(c.jobz, c.uplo, c.n, ap, w, z, c.ldz, work, info);
    EXPECT_EQ(info, c.info) << c.jobz << c.uplo << c.n << " " << c.ldz;
  }
}
