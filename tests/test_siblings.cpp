// Tests of the sibling libraries: matrix containers, node-ID checks, nearest-node search,
// node compaction, face adjacency, nodal normals and the eigen-solver wrapper.
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <functional>
#include <limits>
#include <map>
#include <random>
#include <set>
#include <vector>

#include "box_mesh.h"
#include "checks_in_order.h"
#include "common/element_tables.h"
#include "failing_allocator.h"
#include "zel/lapack.h"
#include "zel/matrix.h"
#include "zel/tessel.h"
#include "zel/tessel2d.h"

using namespace tessel3d_test;
using zel::dense1D;
using zel::dense2D;
using vec3 = zel::vector_fixed<double, 3>;

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

}  // namespace

// ---- matrix ----------------------------------------------------------------------------

TEST(dense2D, growth_of_a_shared_buffer_detaches) {
  dense2D<unsigned> a(2, 2, {1, 2, 3, 4});
  for (int how = 0; how < 3; ++how) {
    dense2D<unsigned> b(a);
    ASSERT_TRUE(how == 0 ? b.resize(2, 5, 7U) : how == 1 ? b.resize(3, 2, 7U) : b.reserve(2, 9, 1));
    EXPECT_NE(b.data(), a.data());
    EXPECT_EQ(a.storage()->use_count(), 1u);
    EXPECT_EQ(entries(a), (std::vector<unsigned>{1, 2, 3, 4}));
    EXPECT_EQ(b(1, 1), 4u);
  }
  // A view grown beyond its rows must not write into the rows its parent keeps.
  dense2D<unsigned> top = a.sub_matrix(0, 0, 1, 2);
  ASSERT_TRUE(top.resize(2, 2, 0U));
  EXPECT_EQ(entries(a), (std::vector<unsigned>{1, 2, 3, 4}));
  EXPECT_EQ(entries(top), (std::vector<unsigned>{1, 0, 3, 0}));
}

// The library's roll-back after -199 rests on this: every allocating call of the
// containers, alone or on a buffer another matrix shares, fails with false, leaves the
// object as it was and leaks nothing, whichever of its allocations fails.
TEST(allocation, every_allocating_call_fails_cleanly) {
  struct matrices {
    dense2D<double> m = dense2D<double>(3, 4, 1.0);
    dense1D<unsigned, 8> v = {1, 2, 3, 4, 5, 6, 7, 8};
  };
  const dense2D<double> other_m(2, 2, 3.0);
  const dense1D<unsigned, 8> other_v{4, 5};
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
      [](matrices& f) {  // the same calls on buffers that other matrices share
        const dense2D<double> sharer(f.m);
        return f.m.resize(3, 2);
      },
      [](matrices& f) {
        const dense1D<unsigned, 8> sharer(f.v);
        return f.v.push_back(1);
      }};
  for (const auto& op : ops) {
    long setup = 0, n = 1;
    {
      failing_allocator counter;
      const matrices f;
      setup = counter.allocations();
    }
    for (;; ++n) {
      ASSERT_LT(n, 64) << "the call never succeeded";
      failing_allocator guard(setup + n);
      bool done = false;
      {
        matrices f;
        const snapshot<dense2D<double>> m_before(f.m);
        const snapshot<dense1D<unsigned, 8>> v_before(f.v);
        const bool ok = op(f);
        done = !guard.failed();
        EXPECT_EQ(ok, done) << "allocation " << n;
        if (!done) m_before.expect_same(f.m), v_before.expect_same(f.v);
      }
      EXPECT_EQ(guard.live_blocks(), 0) << "leak after failing allocation " << n;
      if (done) break;
    }
    EXPECT_GT(n, 1) << "the call allocates nothing";
  }
  // Allocating constructors leave an empty object (the buffer takes two blocks).
  for (long n : {1, 2}) {
    failing_allocator guard(n);
    EXPECT_EQ(dense2D<double>(10, 10, 1.0).data(), nullptr);
    EXPECT_EQ(guard.live_blocks(), 0);
    failing_allocator inner(n);
    EXPECT_TRUE((dense1D<double, 8>(10, 1.0).empty()));
    EXPECT_EQ(inner.live_blocks(), 0);
  }
}

// ---- check_IDs -------------------------------------------------------------------------

TEST(check_IDs, typed_rules_by_type_and_rows) {
  const struct {
    zel::element_type type;
    std::size_t rows;
    bool with_absent, expected;
  } table[] = {
      {zel::TH4, 4, false, true},         {zel::TH4, 4, true, false},         {zel::T3, 5, false, true},
      {zel::FACE_MIX4, 3, true, true},    {zel::FACE_MIX4, 4, true, true},    {zel::FACE_MIX4, 5, false, false},
      {zel::FACE_MIX4, 2, false, false},  {zel::SOLID_MIX8, 4, true, true},   {zel::SOLID_MIX8, 5, true, true},
      {zel::SOLID_MIX8, 6, true, true},   {zel::SOLID_MIX8, 8, true, true},   {zel::SOLID_MIX8, 7, false, false},
      {zel::SOLID_MIX8, 9, false, false}, {zel::SOLID_MIX8, 3, false, false}, {zel::FACE_MIX9, 9, true, true},
      {zel::FACE_MIX9, 10, false, false}, {zel::SOLID_MIX27, 27, true, true}, {zel::SOLID_MIX27, 28, false, false},
      {zel::H27, 27, true, false},
  };
  for (const auto& r : table) {
    dense2D<unsigned> c(r.rows, 3, 4U);
    if (r.with_absent) c(r.rows - 1, 1) = absent;
    EXPECT_EQ(zel::tessel::check_IDs(c, r.type, 5), r.expected) << r.type << " rows " << r.rows;
    EXPECT_TRUE(zel::tessel::check_IDs(dense2D<unsigned>(r.rows, 0), r.type, 0));  // empty passes
  }
  const dense2D<unsigned> c(4, 2, {1, 1, 1, 1, 1, 1, 1, 5});  // ID == nbNodes
  EXPECT_FALSE(zel::tessel::check_IDs(c, zel::TH4, 5));
  EXPECT_TRUE(zel::tessel::check_IDs(c, zel::TH4, 6));
  EXPECT_FALSE(zel::tessel::check_IDs(padded_view(c, 2, 99U), zel::TH4, 5));  // the view, not the guard
  EXPECT_TRUE(zel::tessel::check_IDs(padded_view(c, 2, 99U), zel::TH4, 6));
}

TEST(check_IDs, untyped_matrix_and_vector_forms) {
  const dense2D<unsigned> c(3, 2, {0, 1, 2, absent, 4, 2});
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
unsigned brute_nearest(const dense2D<double>& coords, const std::vector<unsigned>& candidates, const vec3& q) {
  unsigned best = absent;
  double best_d = 0;
  for (unsigned id : candidates) {
    const double dx = q[0] - coords(0, id), dy = q[1] - coords(1, id), dz = q[2] - coords(2, id);
    const double d = dx * dx + dy * dy + dz * dz;
    if (best == absent || d < best_d || (d == best_d && id < best)) best = id, best_d = d;
  }
  return best;
}

}  // namespace

// Clouds that defeat a search pruning by splitting planes alone: flat, on a grid (copies
// and equidistant ties, also between copies on both sides of a split), on a plane, on a
// line, all at one point (ties to the smallest ID), on a sphere (queried at its centre),
// and one whose squared distances overflow (compared by exact distances in long double).
// Queries anywhere, on nodes and off the cloud; every node, and every third one listed
// among IDs out of range (skipped).
TEST(node_detector, nearest_matches_brute_force_on_degenerate_clouds) {
  random_stream random(7);
  const unsigned n = 2000;
  enum { flat, grid, plane, line, point, sphere, huge, kinds };
  for (int kind = 0; kind < kinds; ++kind) {
    SCOPED_TRACE("cloud " + std::to_string(kind));
    dense2D<double> cloud(3, n);
    for (unsigned j = 0; j < n; ++j) {
      double x[3] = {random.uniform(-1, 1), random.uniform(-1, 1), random.uniform(-1, 1)};
      if (kind == flat || kind == grid) x[2] *= 0.1;
      if (kind == grid)
        for (double& c : x) c = std::round(c / 0.25) * 0.25;
      if (kind == plane) x[2] = 0.5;
      if (kind == line) x[1] = x[2] = -0.25;
      if (kind == point) x[0] = x[1] = x[2] = 0.125;
      const double r = kind == sphere ? std::sqrt(x[0] * x[0] + x[1] * x[1] + x[2] * x[2]) : 1;
      for (int d = 0; d < 3; ++d) cloud(d, j) = kind == huge ? x[d] * 1e300 : x[d] / r;
    }
    const dense2D<double> coords = padded_view(cloud, 2, nan_value);
    std::vector<unsigned> all(n), subset;
    dense1D<unsigned, 8> ids{absent, n};
    for (unsigned i = 0; i < n; ++i) {
      all[i] = i;
      if (i % 3 == 0) subset.push_back(i), ids.push_back(i);
    }
    const zel::tessel::node_detector every(coords), some(coords, ids);
    EXPECT_EQ(every.size(), n);
    EXPECT_EQ(some.size(), subset.size());
    const auto exact_d2 = [&](unsigned id, const vec3& q) {
      long double d2 = 0;
      for (int d = 0; d < 3; ++d) d2 += (q[d] - (long double)coords(d, id)) * (q[d] - (long double)coords(d, id));
      return d2;
    };
    const auto expect_nearest = [&](const zel::tessel::node_detector& detector, const std::vector<unsigned>& candidates,
                                    const vec3& q) {
      const unsigned found = detector.find_closest(q);
      if (kind != huge) {
        EXPECT_EQ(found, brute_nearest(coords, candidates, q));
        return;
      }
      long double best = INFINITY;
      for (unsigned id : candidates) best = std::min(best, exact_d2(id, q));
      ASSERT_TRUE(std::binary_search(candidates.begin(), candidates.end(), found));
      EXPECT_LE(exact_d2(found, q), best * (1 + 1e-14L));
    };
    const double spread = kind == huge ? 1e300 : 1.5;
    for (int k = 0; k < 600; ++k) {
      vec3 q(random.uniform(-spread, spread), random.uniform(-spread, spread), random.uniform(-spread, spread));
      if (k == 0) q = vec3(0, 0, 0);
      if (kind == grid && k % 2) q[0] = std::round(q[0] / 0.125) * 0.125, q[1] = std::round(q[1] / 0.125) * 0.125;
      if (k % 3 == 1) {
        const std::size_t j = random.next() % n;
        q = vec3(coords(0, j), coords(1, j), coords(2, j));
      }
      expect_nearest(every, all, q);
      expect_nearest(some, subset, q);
      ASSERT_LT(every.find_close(q), n) << k;
    }
    for (unsigned j = 0; j < n && kind == flat; j += 7)  // distinct points: a node lands in its own leaf
      EXPECT_EQ(every.find_close({coords(0, j), coords(1, j), coords(2, j)}), j);
  }
}

TEST(node_detector, empty_and_non_finite) {
  const vec3 origin(0, 0, 0);
  const dense2D<double> three_rows(3, 5, 1.0);
  for (const auto& d : {zel::tessel::node_detector(), zel::tessel::node_detector(dense2D<double>(2, 5, 1.0)),
                        zel::tessel::node_detector(dense2D<double>(3, 0)),
                        zel::tessel::node_detector(three_rows, dense1D<unsigned, 8>{5, 9, absent})}) {
    EXPECT_EQ(d.size(), 0u);
    EXPECT_TRUE(d.find_close(origin) == absent && d.find_closest(origin) == absent);
  }
  dense2D<double> coords(3, 40);
  random_stream random(3);
  for (std::size_t j = 0; j < 40; ++j)
    for (int d = 0; d < 3; ++d) coords(d, j) = random.uniform();
  coords(0, 0) = nan_value;  // left out
  coords(1, 5) = inf_value;  // kept, far from everything
  coords(2, 6) = -inf_value;
  const zel::tessel::node_detector detector(coords);
  EXPECT_EQ(detector.size(), 39u);
  EXPECT_EQ(detector.find_closest({coords(0, 1), coords(1, 1), coords(2, 1)}), 1u);
  EXPECT_EQ(detector.find_closest({nan_value, 0, 0}), absent);
  EXPECT_EQ(detector.find_close({0, nan_value, 0}), absent);
  // Seen from y = inf every node is infinitely far (a tie: smallest ID) except node 5,
  // whose distance is NaN and ranks last.
  EXPECT_EQ(detector.find_closest({0, inf_value, 0}), 1u);
  EXPECT_LT(detector.find_close({inf_value, -inf_value, inf_value}), 40u);
  // Every distance from a finite point to infinite nodes is infinite: a tie.
  EXPECT_EQ(zel::tessel::node_detector(dense2D<double>(3, 4, inf_value)).find_closest(origin), 0u);
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

// Unused: 4, 7, 8. Kept 5, 6, 9, 10, 11 become 4, 5, 6, 7, 8 (20 is beyond coords: kept).
// A padded view (its guard rows do not keep node 7) and a matrix listed twice (renumbered
// once) give the same.
TEST(simplify, drops_unused_copies_and_keeps_order) {
  for (bool views : {false, true}) {
    swept s;
    dense2D<unsigned> range[3] = {views ? padded_view(s.connect[0], 1, 7U) : s.connect[0], s.connect[1], s.connect[1]};
    dense1D<unsigned, 8> work{1, 2, 3};
    ASSERT_EQ(zel::tessel::simplify(s.coords, range, range + (views ? 3 : 2), work, 4), 0);
    ASSERT_EQ(s.coords.cols(), 9u);
    const double x[9] = {0, 1, 2, 3, 5, 6, 9, 10, 11};
    for (std::size_t j = 0; j < 9; ++j)
      EXPECT_TRUE(s.coords(0, j) == x[j] && s.coords(1, j) == -x[j] && s.coords(2, j) == 0.5 * x[j]) << j;
    EXPECT_EQ(entries(range[0]), (std::vector<unsigned>{0, 1, 4, 20, 4, 5, 7, 6}));
    EXPECT_EQ(entries(s.connect[1]), (std::vector<unsigned>{6, 8, absent, 3, 1, 8}));
  }
}

TEST(simplify, empty_ranges_and_status) {
  swept t;
  dense1D<unsigned, 8> work;
  ASSERT_EQ(zel::tessel::simplify(t.coords, nullptr, nullptr, work, 4), 0);  // nothing used
  EXPECT_EQ(t.coords.cols(), 4u);
  ASSERT_EQ(zel::tessel::simplify(t.coords, t.connect, t.connect + 2, work, 12), 0);  // all kept
  EXPECT_EQ(t.coords.cols(), 4u);
  dense2D<double> flat(2, 12);
  EXPECT_EQ(zel::tessel::simplify(flat, t.connect, t.connect + 2, work, 4), -1);
  EXPECT_EQ(flat.cols(), 12u);
}

// ---- get_neighbors ---------------------------------------------------------------------

namespace {

const zel::element_type box_types[] = {zel::TH4, zel::PY5, zel::W6, zel::H8};

// Entry (f, e) is the smallest other element with a face of the same size and the same
// node set, from this library's own face tables (the mixed layout classified per column):
// every face filed in an ordered map under its node set.
std::vector<unsigned> reference_neighbors(const dense2D<unsigned>& c, int kind, std::size_t out_rows) {
  auto descriptor = [&](std::size_t e) -> const elfes::solid_descriptor& {
    return elfes::solid_table[kind >= 0 ? unsigned(kind) : unsigned(elfes::mixed8_kind(&c(0, e)))];
  };
  auto key = [&](std::size_t e, std::size_t f) {
    const elfes::solid_descriptor& d = descriptor(e);
    std::vector<unsigned> k{d.face_size[f]};
    for (unsigned l = 0; l < d.face_size[f]; ++l) k.push_back(c(d.faces[f][l], e));
    std::sort(k.begin() + 1, k.end());
    k.erase(std::unique(k.begin() + 1, k.end()), k.end());
    return k;
  };
  std::map<std::vector<unsigned>, std::set<unsigned>> holders;
  for (std::size_t e = 0; e < c.cols(); ++e)
    for (std::size_t f = 0; f < descriptor(e).nb_faces; ++f) holders[key(e, f)].insert(unsigned(e));
  std::vector<unsigned> result(out_rows * c.cols(), absent);
  for (std::size_t e = 0; e < c.cols(); ++e)
    for (std::size_t f = 0; f < descriptor(e).nb_faces; ++f) {
      const std::vector<unsigned> k = key(e, f);
      if (std::find(k.begin() + 1, k.end(), absent) != k.end()) continue;
      for (unsigned o : holders[k])
        if (o != e) {
          result[e * out_rows + f] = o;
          break;
        }
    }
  return result;
}

}  // namespace

// Also: the number of boundary faces, the same elements in the 8-row mixed layout (rows
// past the faces absent), and sparse IDs near the top of the range, which must not cost
// a table indexed by ID.
TEST(get_neighbors, boxes_match_brute_force_and_count_the_surface) {
  const unsigned nx = 3, ny = 2, nz = 4;
  for (int k = 0; k < 4; ++k)
    for (double jitter : {0.0, 0.2}) {
      SCOPED_TRACE("kind " + std::to_string(k));
      const box_mesh mesh = make_box(static_cast<box_kind>(k), nx, ny, nz, 1, 1, 1, jitter, 11);
      const std::size_t nb_faces = elfes::solid_table[k].nb_faces;
      dense2D<unsigned> neighbors, mixed, sparse, from_sparse;
      ASSERT_EQ(zel::tessel::get_neighbors(padded_view(mesh.connect, 3, 0U), box_types[k], neighbors), 0);
      ASSERT_TRUE(neighbors.rows() == nb_faces && neighbors.cols() == mesh.connect.cols());
      const std::vector<unsigned> found = entries(neighbors);
      EXPECT_EQ(found, reference_neighbors(mesh.connect, k, nb_faces));
      const std::size_t xy = nx * ny, yz = ny * nz, zx = nz * nx;
      const std::size_t surface[] = {4 * (xy + yz + zx), 2 * (xy + yz + zx), 4 * xy + 2 * (yz + zx),
                                     2 * (xy + yz + zx)};
      EXPECT_EQ(std::size_t(std::count(found.begin(), found.end(), absent)), surface[k]);

      ASSERT_EQ(zel::tessel::get_neighbors(to_mixed8(mesh.connect), zel::SOLID_MIX8, mixed), 0);
      ASSERT_EQ(mixed.rows(), 6u);
      for (std::size_t e = 0; e < mixed.cols(); ++e)
        for (std::size_t f = 0; f < 6; ++f) ASSERT_EQ(mixed(f, e), f < nb_faces ? neighbors(f, e) : absent);

      ASSERT_TRUE(sparse.copy(mesh.connect));
      for (std::size_t i = 0; i < sparse.rows() * sparse.cols(); ++i)
        sparse.data()[i] = 0xF0000000u + 977u * sparse.data()[i];
      ASSERT_EQ(zel::tessel::get_neighbors(sparse, box_types[k], from_sparse), 0);
      EXPECT_EQ(entries(from_sparse), found);
    }
}

// Elements drawn at random from a handful of nodes: repeated nodes, faces shared by many
// elements, elements holding the same face twice, and one node in every element so that
// its bucket of faces is large.
TEST(get_neighbors, random_crowded_meshes_match_the_reference) {
  std::mt19937 random(7);
  for (int kind : {0, 3, -1})
    for (unsigned nb_elements : {40u, 3000u}) {
      SCOPED_TRACE("kind " + std::to_string(kind) + ", " + std::to_string(nb_elements) + " elements");
      const unsigned rows = kind == 0 ? 4 : 8;
      dense2D<unsigned> connect(rows, nb_elements);
      for (unsigned e = 0; e < nb_elements; ++e) {
        const elfes::solid_kind k = kind >= 0 ? elfes::solid_kind(kind) : elfes::solid_kind(random() % 4);
        for (unsigned r = 0; r < rows; ++r)
          connect(r, e) = r < elfes::solid_table[k].nb_vertices ? unsigned(random() % 9) : absent;
        connect(random() % elfes::solid_table[k].nb_vertices, e) = 4;
      }
      const std::size_t out_rows = kind == 0 ? 4 : 6;
      dense2D<unsigned> neighbors;
      ASSERT_EQ(zel::tessel::get_neighbors(connect,
                                           kind == 0   ? zel::TH4
                                           : kind == 3 ? zel::H8
                                                       : zel::SOLID_MIX8,
                                           neighbors),
                0);
      EXPECT_EQ(entries(neighbors), reference_neighbors(connect, kind, out_rows));
    }
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
  EXPECT_TRUE(neighbors.rows() == 5 && neighbors.cols() == 0);
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
}

// ---- normals ---------------------------------------------------------------------------

namespace {

// (n + 1)^2 nodes on the unit square, z = 0: the bottoms of a box of hexahedra (counter-
// clockwise seen from +z), of one of wedges (two triangles per cell), and a mix of both
// in 4-row columns, the even cells as two triangles (row 3 absent), the odd ones whole.
struct square {
  dense2D<double> coords;
  dense2D<unsigned> triangles, quads, mixed{4, 0};
  explicit square(unsigned n) {
    const box_mesh hexahedra = make_box(box_kind::H8, n, n, 1), wedges = make_box(box_kind::W6, n, n, 1);
    coords.copy(hexahedra.coords.sub_matrix(0, 0, 3, (n + 1) * (n + 1)));
    quads.copy(hexahedra.connect.sub_matrix(0, 0, 4, n * n));
    triangles.copy(wedges.connect.sub_matrix(0, 0, 3, 2 * n * n));
    for (unsigned c = 0; c < n * n; ++c)
      for (unsigned half = 0; half < (c % 2 ? 1u : 2u); ++half) {
        mixed.resize(4, mixed.cols() + 1);
        for (int k = 0; k < 4; ++k)
          mixed(k, mixed.cols() - 1) = c % 2 ? quads(k, c) : k < 3 ? triangles(k, 2 * c + half) : absent;
      }
  }
};

}  // namespace

TEST(normals, flat_square_of_every_face_kind) {
  const square sq(4);
  for (const dense2D<unsigned>* faces : {&sq.triangles, &sq.quads, &sq.mixed})
    for (bool flip : {false, true}) {
      dense2D<double> n;
      dense2D<unsigned> f;
      f.copy(*faces);
      for (std::size_t j = 0; j < f.cols() && flip; ++j)  // the opposite orientation
        std::swap(f(1, j), f(f.rows() == 3 || f(3, j) == absent ? 2 : 3, j));
      ASSERT_EQ(zel::tessel2d::normals(padded_view(sq.coords, 1, nan_value), f, 0, true, n), 0);
      ASSERT_EQ(n.cols(), sq.coords.cols());
      for (std::size_t j = 0; j < n.cols(); ++j)
        EXPECT_TRUE(n(0, j) == 0 && n(1, j) == 0 && std::fabs(n(2, j) - (flip ? -1 : 1)) < 1e-15) << j;
      // Without scaling the length is the sum of the angles at the node.
      ASSERT_EQ(zel::tessel2d::normals(sq.coords, f, 0, false, n), 0);
      EXPECT_NEAR(std::fabs(n(2, 6)), 2 * M_PI, 1e-12);  // interior node
      EXPECT_NEAR(std::fabs(n(2, 0)), M_PI / 2, 1e-12);  // corner
    }
}

// At a corner of the unit cube whose face y = 0 is cut into two triangles through it,
// the angle weights (pi/2; pi/4 + pi/4; pi/2) keep the normal on the diagonal, whichever
// way the face is cut (a weight per face would tilt it towards -y).
TEST(normals, angle_weights_make_the_normal_independent_of_the_cut) {
  const dense2D<double> cube(3, 8, {0, 0, 0, 1, 0, 0, 1, 1, 0, 0, 1, 0, 0, 0, 1, 1, 0, 1, 1, 1, 1, 0, 1, 1});
  const dense2D<unsigned> faces(4, 4, {0, 3, 2, 1, 0, 4, 7, 3, 0, 1, 5, absent, 0, 5, 4, absent});  // outward
  dense2D<double> n;
  ASSERT_EQ(zel::tessel2d::normals(cube, faces, 0, true, n), 0);
  for (int d = 0; d < 3; ++d) EXPECT_NEAR(n(d, 0), -1 / std::sqrt(3.0), 1e-15);
}

// Lifting a corner of the square tilts one face of the centre node by about 55 degrees
// (the flat ones are about 13 degrees from the all-face average): a feature angle of
// 0.5 leaves it out of that node's normal.
TEST(normals, feature_angle_leaves_out_the_faces_beyond_it) {
  square bent(2);
  bent.coords(2, 2) = 1;
  dense2D<double> all, flat;
  ASSERT_EQ(zel::tessel2d::normals(bent.coords, bent.quads, 0, true, all), 0);
  ASSERT_EQ(zel::tessel2d::normals(bent.coords, bent.quads, 0.5, true, flat), 0);
  EXPECT_LT(all(0, 4), -0.1);
  EXPECT_TRUE(std::fabs(flat(0, 4)) + std::fabs(flat(1, 4)) + std::fabs(flat(2, 4) - 1) < 1e-15) << flat(0, 4);
}

TEST(normals, status_codes_in_order) {
  struct args {
    square sq{2};
    dense2D<unsigned> faces = sq.triangles;
    double angle = 0;
    dense2D<double> n{1, 1, 42.0};
  };
  using fault = bad_argument<args>;
  const auto call = [](args& a) { return zel::tessel2d::normals(a.sq.coords, a.faces, a.angle, true, a.n); };
  const auto untouched = [](const args& a) { return bytes_of(a.n); };
  expect_checks_in_order<args>({{"coords rows", [](args& a) { a.sq.coords = dense2D<double>(2, 9); }, -1},
                                {"face ID",
                                 [](args& a) {
                                   a.faces = dense2D<unsigned>(3, 1, {0, 1, 9});
                                 },
                                 -2},
                                {"angle NaN", [](args& a) { a.angle = nan_value; }, -3}},
                               call, untouched);
  for (const fault& alone : {fault{"faces of 5 rows", [](args& a) { a.faces = dense2D<unsigned>(5, 2); }, -2},
                             fault{"~0U not in row 3",
                                   [](args& a) {
                                     a.faces = dense2D<unsigned>(4, 1, {0, absent, 4, 3});
                                   },
                                   -2},
                             fault{"angle -1", [](args& a) { a.angle = -1; }, -3}})
    expect_checks_in_order<args>({alone}, call, untouched);
  const square sq(2);
  dense2D<double> n;
  dense2D<double> lonely;  // node 9 in no face
  ASSERT_TRUE(lonely.copy(sq.coords) && lonely.resize(3, 10, 0.5));
  ASSERT_EQ(zel::tessel2d::normals(lonely, sq.mixed, M_PI, true, n), 0);
  EXPECT_TRUE(n(0, 9) == 0 && n(1, 9) == 0 && n(2, 9) == 0);
  EXPECT_NEAR(n(2, 4), 1, 1e-15);
}

// ---- dspev -----------------------------------------------------------------------------

// tridiag(1, 2, 1) has eigenvalues 2 - sqrt 2, 2, 2 + sqrt 2 with eigenvectors
// (1, -sqrt 2, 1) / 2, (1, 0, -1) / sqrt 2, (1, sqrt 2, 1) / 2; diag(4, 1, 2) is sorted.
TEST(dspev, diagonal_and_tridiagonal_matrices) {
  const double h = std::sqrt(0.5), tri_lambda[3] = {2 - 2 * h, 2, 2 + 2 * h}, diag_lambda[3] = {1, 2, 4};
  const double tri_basis[3][3] = {{0.5, h, 0.5}, {-h, 0, h}, {0.5, -h, 0.5}};  // column k: vector k
  const double diag_basis[3][3] = {{0, 0, 1}, {1, 0, 0}, {0, 1, 0}};           // e2, e3, e1
  const double tri_upper[6] = {2, 1, 2, 0, 1, 2}, tri_lower[6] = {2, 1, 0, 2, 1, 2}, diag[6] = {4, 0, 1, 0, 0, 2};
  const struct {
    const double* packed;
    char uplo;
    const double* lambda;
    const double (*basis)[3];
  } inputs[] = {{diag, 'U', diag_lambda, diag_basis},
                {tri_upper, 'U', tri_lambda, tri_basis},
                {tri_lower, 'L', tri_lambda, tri_basis}};
  for (const auto& in : inputs)
    for (char jobz : {'N', 'V'}) {
      double ap[6], w[3], z[9], work[9];
      std::copy(in.packed, in.packed + 6, ap);
      int info = 99;
      zel::lapack::dspev(jobz, in.uplo, 3, ap, w, z, 3, work, info);
      ASSERT_EQ(info, 0);
      for (int m = 0; m < 3; ++m) EXPECT_NEAR(w[m], in.lambda[m], 1e-13);
      for (int m = 0; m < 3 && jobz == 'V'; ++m)  // each column of z is +- the expected vector
        EXPECT_NEAR(
            std::fabs(z[3 * m] * in.basis[0][m] + z[3 * m + 1] * in.basis[1][m] + z[3 * m + 2] * in.basis[2][m]), 1,
            1e-12);
    }
}

TEST(dspev, invalid_arguments_in_order) {
  double ap[6] = {1, 0, 1, 0, 0, 1}, w[3], z[9], work[9];
  const struct {
    char jobz, uplo;
    int n, ldz, info;
  } calls[] = {{'X', 'Q', -1, 0, -1}, {'v', 'Q', -1, 0, -2}, {'n', 'l', -1, 0, -3},
               {'N', 'U', 3, 0, -7},  {'V', 'U', 3, 2, -7},  {'N', 'U', 3, 1, 0}};
  for (const auto& c : calls) {
    int info = 99;
    zel::lapack::dspev(c.jobz, c.uplo, c.n, ap, w, z, c.ldz, work, info);
    EXPECT_EQ(info, c.info) << c.jobz << c.uplo << c.n << " " << c.ldz;
  }
}
