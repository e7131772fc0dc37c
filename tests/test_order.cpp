// Element order: conversion into high order and back to linear, splitting into hexahedra.
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <map>
#include <set>
#include <vector>

#include "box_mesh.h"
#include "failing_allocator.h"
#include "zel/tessel3d.h"

namespace t3 = zel::tessel3d;
using tessel3d_test::box_kind;
using tessel3d_test::make_box;
using zel::dense2D;

namespace {

constexpr unsigned absent = ~0U;
using vec = std::array<double, 3>;

struct mesh {
  dense2D<double> coords;
  dense2D<unsigned> connect;
};

// Local edges and faces of the linear kinds, in the orders the public header documents
// for the high-order rows.
struct kind_info {
  unsigned corners;
  std::vector<std::array<unsigned, 2>> edges;
  std::vector<std::vector<unsigned>> faces;
};

const kind_info& info(unsigned corners) {
  static const kind_info th4{
      4, {{1, 2}, {2, 0}, {0, 1}, {3, 0}, {3, 1}, {3, 2}}, {{1, 2, 3}, {2, 0, 3}, {0, 1, 3}, {2, 1, 0}}};
  static const kind_info py5{5,
                             {{0, 4}, {1, 4}, {2, 4}, {3, 4}, {0, 1}, {1, 2}, {2, 3}, {3, 0}},
                             {{0, 4, 1}, {1, 4, 2}, {2, 4, 3}, {3, 4, 0}, {0, 1, 2, 3}}};
  static const kind_info w6{6,
                            {{0, 3}, {1, 4}, {2, 5}, {1, 2}, {2, 0}, {0, 1}, {4, 5}, {5, 3}, {3, 4}},
                            {{0, 1, 2}, {3, 5, 4}, {2, 1, 4, 5}, {0, 2, 5, 3}, {1, 0, 3, 4}}};
  static const kind_info h8{
      8,
      {{0, 1}, {1, 2}, {2, 3}, {3, 0}, {4, 5}, {5, 6}, {6, 7}, {7, 4}, {0, 4}, {1, 5}, {2, 6}, {3, 7}},
      {{0, 3, 7, 4}, {1, 5, 6, 2}, {0, 4, 5, 1}, {3, 2, 6, 7}, {0, 1, 2, 3}, {4, 7, 6, 5}}};
  return corners == 4 ? th4 : corners == 5 ? py5 : corners == 6 ? w6 : h8;
}

// Number of leading entries of a linear column that hold a node: its kind.
unsigned corners_of(const dense2D<unsigned>& m, std::size_t j) {
  unsigned k = 0;
  while (k < m.rows() && m(k, j) != absent) ++k;
  return k;
}

vec point(const dense2D<double>& x, unsigned id) { return {x(0, id), x(1, id), x(2, id)}; }
vec lerp(const vec& a, const vec& b, double f) {
  return {a[0] + f * (b[0] - a[0]), a[1] + f * (b[1] - a[1]), a[2] + f * (b[2] - a[2])};
}
vec sub(const vec& a, const vec& b) { return {a[0] - b[0], a[1] - b[1], a[2] - b[2]}; }
double dot(const vec& a, const vec& b) { return a[0] * b[0] + a[1] * b[1] + a[2] * b[2]; }
vec cross(const vec& a, const vec& b) {
  return {a[1] * b[2] - a[2] * b[1], a[2] * b[0] - a[0] * b[2], a[0] * b[1] - a[1] * b[0]};
}
double distance(const vec& a, const vec& b) { return std::sqrt(dot(sub(a, b), sub(a, b))); }

// Exact volume of a trilinear hexahedron: 2 x 2 x 2 Gauss points integrate its Jacobian.
double hexahedron_volume(const dense2D<double>& x, const unsigned* node) {
  static const double s[8][3] = {{-1, -1, -1}, {1, -1, -1}, {1, 1, -1}, {-1, 1, -1},
                                 {-1, -1, 1},  {1, -1, 1},  {1, 1, 1},  {-1, 1, 1}};
  const double g = 1 / std::sqrt(3.0);
  double volume = 0;
  for (int q = 0; q < 8; ++q) {
    const double u = s[q][0] * g, v = s[q][1] * g, w = s[q][2] * g;
    vec d[3] = {{0, 0, 0}, {0, 0, 0}, {0, 0, 0}};
    for (int i = 0; i < 8; ++i) {
      const vec p = point(x, node[i]);
      const double grad[3] = {s[i][0] * (1 + s[i][1] * v) * (1 + s[i][2] * w) / 8,
                              s[i][1] * (1 + s[i][0] * u) * (1 + s[i][2] * w) / 8,
                              s[i][2] * (1 + s[i][0] * u) * (1 + s[i][1] * v) / 8};
      for (int a = 0; a < 3; ++a)
        for (int c = 0; c < 3; ++c) d[a][c] += grad[a] * p[c];
    }
    volume += dot(d[0], cross(d[1], d[2]));
  }
  return volume;
}

// A unit cube (H8 0-7), a wedge roof on its face x = 1 (nodes 8, 9 on the ridge), a
// pyramid on its face y = 0 (apex 10) and a tetrahedron between roof and pyramid: edge
// 1-5 belongs to all four. Every element is positive; volumes 1, 1/4, 1/6, 1/24.
mesh mixed_mesh(bool with_pyramid) {
  mesh m;
  m.coords = dense2D<double>(3, 11, {0, 0, 0, 1, 0, 0, 1, 1,   0, 0,   1,   0, 0,   0,   1,    1,  0,
                                     1, 1, 1, 1, 0, 1, 1, 1.5, 0, 0.5, 1.5, 1, 0.5, 0.5, -0.5, 0.5});
  std::vector<std::vector<unsigned>> elements = {{0, 1, 2, 3, 4, 5, 6, 7}, {1, 5, 8, 2, 6, 9}, {5, 1, 10, 8}};
  if (with_pyramid) elements.push_back({0, 1, 5, 4, 10});
  m.connect = dense2D<unsigned>(8, elements.size(), absent);
  for (std::size_t j = 0; j < elements.size(); ++j)
    for (std::size_t i = 0; i < elements[j].size(); ++i) m.connect(i, j) = elements[j][i];
  return m;
}

struct entity_counts {
  std::size_t edges = 0, triangles = 0, quadrangles = 0;
  std::size_t kinds[9] = {};  // by corner count
};

// Distinct edges and faces of a linear mesh, counted by their node sets.
entity_counts count_entities(const dense2D<unsigned>& connect) {
  std::set<std::pair<unsigned, unsigned>> edges;
  std::set<std::vector<unsigned>> faces;
  entity_counts n;
  for (std::size_t j = 0; j < connect.cols(); ++j) {
    const unsigned c = corners_of(connect, j);
    ++n.kinds[c];
    for (const auto& e : info(c).edges) {
      const unsigned a = connect(e[0], j), b = connect(e[1], j);
      edges.insert({std::min(a, b), std::max(a, b)});
    }
    for (const auto& f : info(c).faces) {
      std::vector<unsigned> key;
      for (unsigned v : f) key.push_back(connect(v, j));
      std::sort(key.begin(), key.end());
      faces.insert(key);
    }
  }
  n.edges = edges.size();
  for (const auto& f : faces) (f.size() == 3 ? n.triangles : n.quadrangles)++;
  return n;
}

struct counts {
  unsigned e, q, t, h, w, p, n;
};

int convert(mesh& m, const counts& c, dense2D<unsigned>& high, const dense2D<unsigned>& faces = {},
            const dense2D<unsigned>& edges = {}) {
  return t3::convert_into_high_order(m.coords, m.connect, c.e, c.q, c.t, c.h, c.w, c.p, c.n, high, faces, edges);
}

// Runs a call with its n-th allocation failing, n = 1, 2, ... until the call no longer
// meets a failure. setup() builds the inputs (its own allocations are let through), run()
// makes the call, rolled_back() checks the inputs after a failure; nothing may leak.
template <class Setup, class Run, class RolledBack>
void check_allocation_failures(Setup setup, Run run, RolledBack rolled_back) {
  long setup_allocations = 0;
  {
    tessel3d_test::failing_allocator counter;
    auto inputs = setup();
    setup_allocations = counter.allocations();
  }
  for (long n = 1; n < 1000; ++n) {
    tessel3d_test::failing_allocator guard(setup_allocations + n);
    bool failed = false;
    {
      auto inputs = setup();
      const int status = run(inputs);
      failed = guard.failed();
      if (failed) {
        EXPECT_EQ(status, -199) << "allocation " << n;
        rolled_back(inputs, n);
      } else {
        EXPECT_EQ(status, 0);
      }
    }
    EXPECT_EQ(guard.live_blocks(), 0) << "allocation " << n;
    if (!failed) {
      EXPECT_GT(n, 3);  // the call allocates
      return;
    }
  }
  FAIL() << "the call never succeeded";
}

}  // namespace

// ---- convert_into_high_order ------------------------------------------------------------

TEST(convert_into_high_order, status_codes_in_order) {
  const mesh base = mixed_mesh(true);
  const std::size_t nb = base.coords.cols();
  auto run = [&](const dense2D<double>& coords, const dense2D<unsigned>& connect, counts c,
                 const dense2D<unsigned>& faces = {}, const dense2D<unsigned>& edges = {}) {
    mesh m{dense2D<double>(), connect};
    m.coords.copy(coords);
    dense2D<unsigned> high(2, 2, 7u);
    const int status = convert(m, c, high, faces, edges);
    if (status != 0 || c.e + c.q + c.t + c.h + c.w + c.p + c.n == 0 || connect.empty()) {
      EXPECT_TRUE(high.rows() == 0 && high.cols() == 0);
      EXPECT_EQ(m.coords.cols(), coords.cols());
    }
    return status;
  };
  const counts quad{1, 1, 0, 1, 0, 0, 0};
  const dense2D<double> flat(2, nb, 0.0);
  dense2D<unsigned> bad_id = base.connect, missing_corner = base.connect, five(5, 1, 0u);
  bad_id.copy(base.connect), missing_corner.copy(base.connect);
  bad_id(3, 0) = unsigned(nb);
  missing_corner(7, 0) = absent;  // an H8 without its corner 7

  EXPECT_EQ(run(base.coords, dense2D<unsigned>(8, 0), quad), 0);
  EXPECT_EQ(run(flat, base.connect, {0, 0, 0, 0, 0, 0, 0}), 0);
  EXPECT_EQ(run(flat, bad_id, quad), -1);
  EXPECT_EQ(run(base.coords, five, quad), -2);
  EXPECT_EQ(run(base.coords, bad_id, {1, 2, 2, 1, 0, 0, 0}), -2);
  EXPECT_EQ(run(base.coords, missing_corner, quad), -2);
  EXPECT_EQ(run(base.coords, base.connect, {1, 2, 2, 1, 0, 0, 0}), -4);
  EXPECT_EQ(run(base.coords, base.connect, {1, 4, 2, 64, 0, 0, 0}), -5);
  EXPECT_EQ(run(base.coords, base.connect, {1, 4, 3, 64, 2, 0, 2}), -6);
  EXPECT_EQ(run(base.coords, base.connect, {1, 4, 3, 27, 2, 0, 2}), -7);
  EXPECT_EQ(run(base.coords, base.connect, {1, 4, 3, 27, 1, 9, 2}), -9);
  // Faces of an 8-row mesh have q + 4(e + 1) rows; edges e + 2.
  const dense2D<unsigned> face_t6(6, 1, {0, 1, 2, 8, 8, 8}), face_q8(9, 1, {0, 1, 2, 3, 8, 8, 8, 8, 10});
  dense2D<unsigned> face_bad = face_q8, edge_ok(3, 1, {0, 1, 8}), edge_bad(3, 1, {0, 1, absent});
  face_bad.copy(face_q8);
  face_bad(2, 0) = absent;  // a corner of a quadrangle
  EXPECT_EQ(run(base.coords, base.connect, quad, face_t6, edge_bad), -11);
  EXPECT_EQ(run(base.coords, base.connect, quad, face_bad, edge_ok), -11);
  EXPECT_EQ(run(base.coords, base.connect, quad, face_q8, dense2D<unsigned>(4, 1, 0u)), -12);
  EXPECT_EQ(run(base.coords, base.connect, quad, face_q8, edge_bad), -12);
  EXPECT_EQ(run(base.coords, base.connect, quad, face_q8, edge_ok), 0);
  EXPECT_EQ(run(base.coords, base.connect, {1, 4, 3, 27, 1, 9, 1}), 0);  // h = 27 passes, p is free
}

TEST(convert_into_high_order, new_nodes_are_the_distinct_edges_faces_and_cells) {
  std::vector<mesh> meshes = {mixed_mesh(true)};
  for (box_kind kind : {box_kind::TH4, box_kind::W6, box_kind::H8, box_kind::PY5}) {
    mesh m;
    auto box = make_box(kind, 3, 2, 2, 1, 1, 1, 0.2, 7);
    m.coords = box.coords;
    m.connect = kind == box_kind::PY5 ? tessel3d_test::to_mixed8(box.connect) : box.connect;
    meshes.push_back(m);
  }
  const counts settings[] = {
      {1, 1, 0, 1, 0, 0, 0}, {2, 4, 3, 8, 1, 2, 1}, {3, 9, 1, 0, 0, 1, 0}, {0, 0, 1, 1, 0, 0, 0}};
  for (const mesh& original : meshes)
    for (const counts& c : settings) {
      mesh m{original.coords, original.connect};
      m.coords.copy(original.coords);
      dense2D<unsigned> high;
      ASSERT_EQ(convert(m, c, high), 0);
      const entity_counts n = count_entities(original.connect);
      const std::size_t expected = c.e * n.edges + c.t * n.triangles + c.q * n.quadrangles + c.n * n.kinds[4] +
                                   c.p * n.kinds[5] + c.w * n.kinds[6] + c.h * n.kinds[8];
      EXPECT_EQ(m.coords.cols(), original.coords.cols() + expected);
      const std::size_t rows[9] = {0,
                                   0,
                                   0,
                                   0,
                                   4 + 6 * c.e + 4 * c.t + c.n,
                                   5 + 8 * c.e + c.q + 4 * c.t + c.p,
                                   6 + 9 * c.e + 3 * c.q + 2 * c.t + c.w,
                                   0,
                                   8 + 12 * c.e + 6 * c.q + c.h};
      const std::size_t all = n.kinds[4] + n.kinds[5] + n.kinds[6] + n.kinds[8];
      const std::size_t wanted = n.kinds[4] == all   ? rows[4]
                                 : n.kinds[6] == all ? rows[6]
                                                     : std::max({rows[4], rows[5], rows[6], rows[8]});
      EXPECT_EQ(high.rows(), wanted);
      // Every new ID is used, and no caller node appears outside the corners.
      std::set<unsigned> used;
      for (std::size_t j = 0; j < high.cols(); ++j) {
        const unsigned corners = corners_of(original.connect, j);
        for (std::size_t i = corners; i < rows[corners]; ++i) {
          ASSERT_NE(high(i, j), absent);
          ASSERT_GE(high(i, j), original.coords.cols());
          used.insert(high(i, j));
        }
        for (std::size_t i = rows[corners]; i < high.rows(); ++i) EXPECT_EQ(high(i, j), absent);
      }
      EXPECT_EQ(used.size(), expected);
    }
}

TEST(convert_into_high_order, edge_nodes_are_equally_spaced_and_shared_in_opposite_orders) {
  for (unsigned e : {1u, 2u, 3u}) {
    mesh m = mixed_mesh(true);
    const mesh linear = mixed_mesh(true);
    dense2D<unsigned> high;
    ASSERT_EQ(convert(m, {e, 0, 0, 0, 0, 0, 0}, high), 0);
    std::map<std::pair<unsigned, unsigned>, std::vector<unsigned>> from_smaller_end;
    for (std::size_t j = 0; j < high.cols(); ++j) {
      const kind_info& k = info(corners_of(linear.connect, j));
      for (std::size_t i = 0; i < k.edges.size(); ++i) {
        const unsigned a = high(k.edges[i][0], j), b = high(k.edges[i][1], j);
        std::vector<unsigned> run;
        for (unsigned s = 0; s < e; ++s) {
          const unsigned node = high(k.corners + i * e + s, j);
          EXPECT_LT(distance(point(m.coords, node), lerp(point(m.coords, a), point(m.coords, b), (s + 1.0) / (e + 1))),
                    1e-12);
          run.push_back(node);
        }
        if (a > b) std::reverse(run.begin(), run.end());
        auto [it, fresh] = from_smaller_end.insert({{std::min(a, b), std::max(a, b)}, run});
        if (!fresh) {
          EXPECT_EQ(it->second, run);  // one set of nodes, listed from each side
        }
      }
    }
  }
}

TEST(convert_into_high_order, shared_faces_get_one_set_of_nodes) {
  mesh m = mixed_mesh(true);
  const mesh linear = mixed_mesh(true);
  dense2D<unsigned> high;
  ASSERT_EQ(convert(m, {1, 4, 3, 0, 0, 0, 0}, high), 0);
  std::map<std::vector<unsigned>, std::vector<unsigned>> first_cycle;  // face -> corners as first met
  std::map<std::vector<unsigned>, std::set<unsigned>> nodes;
  std::set<unsigned> all;
  std::size_t shared = 0;
  for (std::size_t j = 0; j < high.cols(); ++j) {
    const kind_info& k = info(corners_of(linear.connect, j));
    std::size_t row = k.corners + k.edges.size();
    for (const auto& f : k.faces) {
      const unsigned count = f.size() == 3 ? 3 : 4;
      std::vector<unsigned> cycle, key;
      for (unsigned v : f) cycle.push_back(high(v, j));
      key = cycle;
      std::sort(key.begin(), key.end());
      std::set<unsigned> run;
      for (unsigned s = 0; s < count; ++s) run.insert(high(row + s, j));
      auto [it, fresh] = nodes.insert({key, run});
      if (!fresh) {
        EXPECT_EQ(it->second, run);
        ++shared;
      } else {
        for (unsigned node : run) EXPECT_TRUE(all.insert(node).second);  // distinct faces, distinct nodes
        first_cycle[key] = cycle;
      }
      if (count == 3) {
        // Node s weighs 1/2 on corner (s + 2) mod 3 of a face seen as first met, and on
        // corner (s + 1) mod 3 of a face seen reversed.
        const std::vector<unsigned>& stored = first_cycle[key];
        const std::size_t r = std::find(stored.begin(), stored.end(), cycle[0]) - stored.begin();
        const bool same = stored[(r + 1) % 3] == cycle[1];
        for (unsigned s = 0; s < 3; ++s) {
          const vec x = point(m.coords, high(row + s, j));
          const unsigned near = (s + (same ? 2 : 1)) % 3;
          const vec a = point(m.coords, cycle[near]), b = point(m.coords, cycle[(near + 1) % 3]),
                    c = point(m.coords, cycle[(near + 2) % 3]);
          const vec area = cross(sub(b, a), sub(c, a)), opposite = cross(sub(b, x), sub(c, x));
          EXPECT_NEAR(dot(opposite, area) / dot(area, area), 0.5, 1e-12);
        }
      }
      row += count;
    }
  }
  EXPECT_EQ(shared, 4u);  // cube-roof, cube-pyramid, pyramid-tetrahedron, roof-tetrahedron
}

TEST(convert_into_high_order, caller_edges_keep_their_nodes_and_bend_their_neighbours) {
  // One unit cube whose edge 0-1 carries the caller's node 8, bulging by d = -0.2 in y.
  const double d = -0.2;
  mesh m = mixed_mesh(false);
  m.connect = dense2D<unsigned>(8, 1, {0, 1, 2, 3, 4, 5, 6, 7});
  m.coords(0, 8) = 0.5, m.coords(1, 8) = d, m.coords(2, 8) = 0;
  const dense2D<unsigned> edges(3, 1, {1, 0, 8});
  const std::size_t nb = m.coords.cols();
  ASSERT_EQ(t3::convert_into_quadratic(m.coords, m.connect, dense2D<unsigned>(), edges), 0);
  ASSERT_EQ(m.connect.rows(), 27u);
  EXPECT_EQ(m.connect(8, 0), 8u);
  EXPECT_EQ(m.coords.cols(), nb + 11 + 6 + 1);
  EXPECT_EQ(point(m.coords, 8), (vec{0.5, d, 0}));
  // The two faces through edge 0-1 follow the serendipity rule (their centre moves by
  // d/2); the others stay flat. The centre moves by 1/2 (d/2 + d/2) - 1/4 d = d/4.
  const vec centres[6] = {{0, 0.5, 0.5}, {1, 0.5, 0.5},         {0.5, d / 2, 0.5},
                          {0.5, 1, 0.5}, {0.5, 0.5 + d / 2, 0}, {0.5, 0.5, 1}};
  for (int f = 0; f < 6; ++f) EXPECT_LT(distance(point(m.coords, m.connect(20 + f, 0)), centres[f]), 1e-12) << f;
  EXPECT_LT(distance(point(m.coords, m.connect(26, 0)), vec{0.5, 0.5 + d / 4, 0.5}), 1e-12);

  // A tetrahedron: a six-node triangle weighs its edge nodes 4/9 at the centroid, the
  // ten-node tetrahedron 1/4 at its centre.
  mesh tet = mixed_mesh(false);
  tet.connect = dense2D<unsigned>(4, 1, {1, 0, 3, 4});  // positive: the unit corner
  tet.coords(0, 8) = 0.5, tet.coords(1, 8) = d, tet.coords(2, 8) = 0;
  dense2D<unsigned> high;
  ASSERT_EQ(convert(tet, {1, 0, 1, 0, 0, 0, 1}, high, dense2D<unsigned>(), edges), 0);
  const vec p[4] = {{1, 0, 0}, {0, 0, 0}, {0, 1, 0}, {0, 0, 1}};
  for (int f = 0; f < 4; ++f) {
    vec centroid{0, 0, 0};
    for (int v = 0; v < 4; ++v)
      if (v != f)
        for (int c = 0; c < 3; ++c) centroid[c] += p[v][c] / 3;
    if (f == 2 || f == 3) centroid[1] += 4.0 / 9 * d;  // faces through corners 0 and 1
    EXPECT_LT(distance(point(tet.coords, high(10 + f, 0)), centroid), 1e-12) << f;
  }
  mesh tet10 = tet;
  tet10.coords.copy(mixed_mesh(false).coords);
  tet10.coords(0, 8) = 0.5, tet10.coords(1, 8) = d, tet10.coords(2, 8) = 0;
  ASSERT_EQ(convert(tet10, {1, 0, 0, 0, 0, 0, 1}, high, dense2D<unsigned>(), edges), 0);
  EXPECT_LT(distance(point(tet10.coords, high(10, 0)), vec{0.25, 0.25 + d / 4, 0.25}), 1e-12);
}

TEST(convert_into_high_order, caller_nodes_bend_wedge_and_pyramid_interiors) {
  // The roof wedge with a caller's node on its lateral edge 1-2 moved by d in z: the
  // two quadrangles through that edge move their centres by d/2, the centroid by
  // -1/9 d + 2 * 4/9 * d/2 = d/3.
  const double d = 0.3;
  mesh m = mixed_mesh(false);
  m.connect = dense2D<unsigned>(6, 1, {1, 5, 8, 2, 6, 9});
  m.coords(0, 10) = 1, m.coords(1, 10) = 0.5, m.coords(2, 10) = d;
  dense2D<unsigned> high;
  ASSERT_EQ(convert(m, {1, 1, 0, 0, 1, 0, 0}, high, {}, dense2D<unsigned>(3, 1, {2, 1, 10})), 0);
  EXPECT_LT(distance(point(m.coords, high(18, 0)), vec{7.0 / 6, 0.5, 0.5 + d / 3}), 1e-12);

  // The pyramid with a caller's node on base edge 0-1 moved by d in y: at mid-height the
  // axis point weighs base edge nodes 1/8 and the base centre 0.
  mesh py = mixed_mesh(true);
  py.connect = dense2D<unsigned>(6, 1, {0, 1, 5, 4, 10, absent});
  py.coords(0, 9) = 0.5, py.coords(1, 9) = d, py.coords(2, 9) = 0;
  ASSERT_EQ(convert(py, {1, 1, 0, 0, 0, 1, 0}, high, {}, dense2D<unsigned>(3, 1, {0, 1, 9})), 0);
  ASSERT_EQ(high.rows(), 26u);  // the largest layout: 8 + 12 + 6 rows of H8
  EXPECT_EQ(high(9, 0), 9u);
  EXPECT_LT(distance(point(py.coords, high(13, 0)), vec{0.5, d / 2, 0.5}), 1e-12);  // base centre
  EXPECT_LT(distance(point(py.coords, high(14, 0)), vec{0.5, -0.25 + d / 8, 0.5}), 1e-12);
}

TEST(convert_into_high_order, caller_faces_are_reused) {
  // The cube's bottom face given with its centre node 8 off the middle: reused as is;
  // the cube's centre then follows the 26-node rule and moves by half of it.
  mesh m = mixed_mesh(false);
  m.connect = dense2D<unsigned>(8, 1, {0, 1, 2, 3, 4, 5, 6, 7});
  m.coords(0, 8) = 0.5, m.coords(1, 8) = 0.5, m.coords(2, 8) = -0.4;
  dense2D<unsigned> faces(9, 1, 0u);
  for (unsigned i = 0; i < 4; ++i) faces(i, 0) = (6 - i) % 4;  // (2, 1, 0, 3): reversed
  faces(8, 0) = 8;
  ASSERT_EQ(t3::convert_into_quadratic(m.coords, m.connect, faces, dense2D<unsigned>()), 0);
  EXPECT_EQ(m.connect(24, 0), 8u);
  EXPECT_EQ(m.coords.cols(), 11u + 12 + 5 + 1);
  EXPECT_LT(distance(point(m.coords, m.connect(26, 0)), vec{0.5, 0.5, 0.5 - 0.2}), 1e-12);

  // A triangle among 9-row faces: ~0U in the last row, its interior node in row 6. The
  // roof's triangle (1, 5, 8) is shared with the tetrahedron, which sees it reversed.
  mesh mixed = mixed_mesh(false);
  const std::size_t nb = mixed.coords.cols();
  dense2D<unsigned> triangle(9, 1, {8, 1, 5, 0, 0, 0, 3, 0, absent}), high;
  ASSERT_EQ(convert(mixed, {1, 1, 1, 0, 0, 0, 0}, high, triangle), 0);
  EXPECT_EQ(high(15, 1), 3u);  // wedge face (0, 1, 2)
  EXPECT_EQ(high(12, 2), 3u);  // tetrahedron face (0, 1, 3)
  const entity_counts n = count_entities(mixed_mesh(false).connect);
  EXPECT_EQ(mixed.coords.cols(), nb + n.edges + n.triangles - 1 + n.quadrangles);
}

TEST(convert_into_high_order, views_with_larger_leading_dimension) {
  auto box = make_box(box_kind::W6, 2, 2, 1, 1, 1, 1, 0.1, 3);
  const dense2D<unsigned> edges(3, 1, {0, 1, 2}), faces(7, 1, {0, 1, 4, 3, 4, 5, 6});
  mesh plain{box.coords, box.connect};
  plain.coords.copy(box.coords);
  dense2D<unsigned> expected, high;
  ASSERT_EQ(convert(plain, {1, 1, 1, 0, 1, 0, 0}, expected, faces, edges), 0);
  mesh view{tessel3d_test::padded_view(box.coords, 2, -7.0), tessel3d_test::padded_view(box.connect, 3, 0u)};
  ASSERT_EQ(convert(view, {1, 1, 1, 0, 1, 0, 0}, high, tessel3d_test::padded_view(faces, 1, 0u),
                    tessel3d_test::padded_view(edges, 4, 0u)),
            0);
  ASSERT_EQ(high.rows(), expected.rows());
  ASSERT_EQ(view.coords.cols(), plain.coords.cols());
  for (std::size_t j = 0; j < high.cols(); ++j)
    for (std::size_t i = 0; i < high.rows(); ++i) EXPECT_EQ(high(i, j), expected(i, j));
  for (std::size_t j = 0; j < plain.coords.cols(); ++j)
    for (std::size_t i = 0; i < 3; ++i) EXPECT_EQ(view.coords(i, j), plain.coords(i, j));
}

TEST(convert_into_high_order, allocation_failures_roll_back) {
  const auto box = make_box(box_kind::H8, 3, 3, 2);
  struct inputs {
    mesh m;
    dense2D<unsigned> high, edges;
  };
  check_allocation_failures(
      [&] {
        inputs in{
            {dense2D<double>(), box.connect}, dense2D<unsigned>(27, 2, 5u), dense2D<unsigned>(4, 1, {0, 1, 40, 41})};
        in.m.coords.copy(box.coords);
        return in;
      },
      [](inputs& in) {
        return convert(in.m, {2, 4, 0, 8, 0, 0, 0}, in.high, {}, in.edges);
      },
      [&](inputs& in, long) {
        EXPECT_EQ(in.m.coords.cols(), box.coords.cols());
        EXPECT_TRUE(in.high.rows() == 0 && in.high.cols() == 0);
      });
}

// ---- convert_into_quadratic ---------------------------------------------------------------

TEST(convert_into_quadratic, rows_and_new_nodes_of_single_kinds_and_mixes) {
  // A single H8: 12 edge midpoints, 6 face centres, 1 centre.
  mesh m = mixed_mesh(true);
  ASSERT_EQ(t3::convert_into_quadratic(m.coords, m.connect = dense2D<unsigned>(8, 1, {0, 1, 2, 3, 4, 5, 6, 7})), 0);
  EXPECT_EQ(m.connect.rows(), 27u);
  EXPECT_EQ(m.coords.cols(), 11u + 19);
  for (int f = 0; f < 6; ++f) EXPECT_NEAR(distance(point(m.coords, m.connect(20 + f, 0)), {0.5, 0.5, 0.5}), 0.5, 1e-12);
  EXPECT_EQ(point(m.coords, m.connect(26, 0)), (vec{0.5, 0.5, 0.5}));

  // Only tetrahedra: TH10; only wedges: W18; tetrahedra and wedges: the largest, 27.
  const dense2D<unsigned> tet(4, 1, {5, 1, 10, 8}), wedge(6, 1, {1, 5, 8, 2, 6, 9}),
      both(6, 2, {5, 1, 10, 8, absent, absent, 1, 5, 8, 2, 6, 9});
  const std::pair<const dense2D<unsigned>*, std::size_t> cases[] = {{&tet, 10}, {&wedge, 18}, {&both, 27}};
  for (const auto& [connect, rows] : cases) {
    mesh c = mixed_mesh(true);
    c.connect.copy(*connect);
    ASSERT_EQ(t3::convert_into_quadratic(c.coords, c.connect), 0);
    EXPECT_EQ(c.connect.rows(), rows);
  }
}

TEST(convert_into_quadratic, in_place_failures_clear_the_connectivity) {
  mesh m = mixed_mesh(true);
  dense2D<double> flat(2, 11, 0.0);
  EXPECT_EQ(t3::convert_into_quadratic(flat, m.connect), -1);
  EXPECT_EQ(m.connect.cols(), 0u);
  const auto box = make_box(box_kind::TH4, 2, 2, 2);
  check_allocation_failures(
      [&] {
        mesh c;
        c.coords.copy(box.coords);
        c.connect.copy(box.connect);
        return c;
      },
      [](mesh& c) { return t3::convert_into_quadratic(c.coords, c.connect); },
      [&](mesh& c, long n) {
        EXPECT_EQ(c.coords.cols(), box.coords.cols());
        if (n <= 2) {
          EXPECT_EQ(c.connect.cols(), box.connect.cols());  // the copy (buffer, entries) failed: untouched
        } else {
          EXPECT_TRUE(c.connect.rows() == 0 && c.connect.cols() == 0);
        }
      });
}

// ---- convert_into_linear ------------------------------------------------------------------

TEST(convert_into_linear, undoes_the_quadratic_conversion) {
  std::vector<mesh> inputs = {mixed_mesh(true)};
  for (box_kind kind : {box_kind::TH4, box_kind::H8, box_kind::PY5}) {
    const auto box = make_box(kind, 2, 2, 2);
    inputs.push_back({box.coords, kind == box_kind::PY5 ? tessel3d_test::to_mixed8(box.connect) : box.connect});
  }
  for (const mesh& input : inputs) {
    mesh m{input.coords, dense2D<unsigned>()};
    m.connect.copy(input.connect);
    ASSERT_EQ(t3::convert_into_quadratic(m.coords, m.connect), 0);
    ASSERT_EQ(t3::convert_into_linear(m.connect), 0);
    ASSERT_EQ(m.connect.rows(), input.connect.rows());
    for (std::size_t j = 0; j < input.connect.cols(); ++j)
      for (std::size_t i = 0; i < input.connect.rows(); ++i) EXPECT_EQ(m.connect(i, j), input.connect(i, j));
  }
  // Pure W18 keeps two edge nodes after its corners: no rule looks past row 17.
  auto box = make_box(box_kind::W6, 1, 1, 1);
  mesh w{box.coords, box.connect};
  ASSERT_EQ(t3::convert_into_quadratic(w.coords, w.connect), 0);
  const unsigned edge_03 = w.connect(6, 0), edge_14 = w.connect(7, 0);
  ASSERT_EQ(t3::convert_into_linear(w.connect), 0);
  EXPECT_EQ(w.connect.rows(), 8u);
  EXPECT_EQ(w.connect(6, 0), edge_03);
  EXPECT_EQ(w.connect(7, 0), edge_14);
}

TEST(convert_into_linear, row_rules) {
  // Columns of 27 rows: TH10, PY13, PY14, W15, W18, H27 with rows past their size absent.
  const std::size_t sizes[] = {10, 13, 14, 15, 18, 27};
  const unsigned corners[] = {4, 5, 5, 6, 6, 8};
  dense2D<unsigned> mixed(27, 6, absent);
  for (std::size_t j = 0; j < 6; ++j)
    for (std::size_t i = 0; i < sizes[j]; ++i) mixed(i, j) = unsigned(100 * j + i);
  dense2D<unsigned> view = tessel3d_test::padded_view(mixed, 2, 9u);
  ASSERT_EQ(t3::convert_into_linear(view), 0);
  ASSERT_EQ(view.rows(), 8u);
  for (std::size_t j = 0; j < 6; ++j)
    for (std::size_t i = 0; i < 8; ++i) EXPECT_EQ(view(i, j), i < corners[j] ? 100 * j + i : absent) << j;

  // Pure PY13, PY14, W15: no rule fires, the first 8 rows stay as they are.
  for (std::size_t rows : {13, 14, 15}) {
    dense2D<unsigned> pure(rows, 2);
    for (std::size_t k = 0; k < rows * 2; ++k) pure.data()[k] = unsigned(k);
    ASSERT_EQ(t3::convert_into_linear(pure), 0);
    ASSERT_EQ(pure.rows(), 8u);
    for (std::size_t i = 0; i < 8; ++i) EXPECT_EQ(pure(i, 1), rows + i);
  }
  // 10 rows give 4 rows, never 8; the other row counts are refused and left alone.
  dense2D<unsigned> th10(10, 3, 1u);
  ASSERT_EQ(t3::convert_into_linear(th10), 0);
  EXPECT_EQ(th10.rows(), 4u);
  for (std::size_t rows : {4, 8, 11, 12, 16, 17, 19, 21, 22, 23, 24, 25, 26, 28, 40}) {
    dense2D<unsigned> other(rows, 2, 3u);
    EXPECT_EQ(t3::convert_into_linear(other), -1) << rows;
    EXPECT_EQ(other.rows(), rows);
  }
  dense2D<unsigned> empty(11, 0);
  EXPECT_EQ(t3::convert_into_linear(empty), 0);
  EXPECT_EQ(empty.rows(), 11u);
}

TEST(convert_into_linear, shared_buffer_is_left_to_the_other_views) {
  dense2D<unsigned> original(27, 1, absent);
  for (unsigned i = 0; i < 10; ++i) original(i, 0) = i;
  dense2D<unsigned> shared = original;
  ASSERT_EQ(t3::convert_into_linear(shared), 0);
  EXPECT_EQ(shared(4, 0), absent);
  EXPECT_EQ(original(4, 0), 4u);
  EXPECT_EQ(original.rows(), 27u);
  {
    dense2D<unsigned> again = original;
    tessel3d_test::failing_allocator guard(1);
    EXPECT_EQ(t3::convert_into_linear(again), -199);
    EXPECT_EQ(again.rows(), 27u);
  }
}

// ---- split_into_H8 ----------------------------------------------------------------------

TEST(split_into_H8, status_codes_in_order) {
  const mesh base = mixed_mesh(false);
  const std::size_t nb = base.coords.cols();
  auto run = [&](const dense2D<double>& coords, const dense2D<unsigned>& connect, dense2D<unsigned> hexahedra,
                 const dense2D<unsigned>& faces = {}, const dense2D<unsigned>& edges = {}) {
    dense2D<double> x;
    x.copy(coords);
    const std::size_t columns = hexahedra.cols();
    const int status = t3::split_into_H8(x, connect, hexahedra, faces, edges);
    if (status != 0) {
      EXPECT_EQ(x.cols(), coords.cols());
      EXPECT_EQ(hexahedra.cols(), columns);
    }
    return status;
  };
  const dense2D<double> flat(2, nb, 0.0);
  dense2D<unsigned> bad_id, pyramid8 = mixed_mesh(true).connect, pyramid6(6, 1, {0, 1, 5, 4, 10, absent});
  bad_id.copy(base.connect);
  bad_id(0, 1) = unsigned(nb);
  const dense2D<unsigned> h8(8, 1, 0u), h4(4, 1, 0u), q9(9, 1, {0, 1, 2, 3, 8, 8, 8, 8, 8});
  dense2D<unsigned> q9_triangle = q9;
  q9_triangle.copy(q9);
  q9_triangle(8, 0) = absent;

  EXPECT_EQ(run(flat, dense2D<unsigned>(8, 0), h4), 0);
  EXPECT_EQ(run(flat, bad_id, h4), -1);
  EXPECT_EQ(run(base.coords, bad_id, h4), -2);
  EXPECT_EQ(run(base.coords, base.connect, h4, q9_triangle), -3);
  EXPECT_EQ(run(base.coords, base.connect, h8, q9_triangle), -4);  // even the ~0U of a triangle
  EXPECT_EQ(run(base.coords, base.connect, h8, q9, dense2D<unsigned>(3, 1, {0, 1, unsigned(nb)})), -5);
  EXPECT_EQ(run(base.coords, pyramid8, h8), -2);
  EXPECT_EQ(run(base.coords, pyramid6, h8), -2);
  EXPECT_EQ(run(base.coords, base.connect, h8, dense2D<unsigned>(7, 1, 0u)), -11);
  EXPECT_EQ(run(base.coords, base.connect, h8, q9, dense2D<unsigned>(2, 1, 0u)), -12);
  EXPECT_EQ(run(base.coords, base.connect, h8, q9, dense2D<unsigned>(3, 1, {0, 1, 8})), 0);
}

TEST(split_into_H8, single_elements) {
  struct scenario {
    dense2D<unsigned> element;
    std::size_t hexahedra, new_nodes;
  };
  const scenario cases[] = {{dense2D<unsigned>(8, 1, {0, 1, 2, 3, 4, 5, 6, 7}), 8, 19},
                            {dense2D<unsigned>(4, 1, {5, 1, 10, 8}), 4, 11},
                            {dense2D<unsigned>(6, 1, {1, 5, 8, 2, 6, 9}), 6, 15}};
  for (const scenario& s : cases) {
    mesh m = mixed_mesh(true);
    dense2D<unsigned> hexahedra;
    ASSERT_EQ(t3::split_into_H8(m.coords, s.element, hexahedra, {}, {}), 0);
    EXPECT_EQ(hexahedra.rows(), 8u);
    EXPECT_EQ(hexahedra.cols(), s.hexahedra);
    EXPECT_EQ(m.coords.cols(), 11 + s.new_nodes);
  }
}

// Every hexahedron positive, the volume kept, and the hexahedra conforming: a quadrangle
// shared by two of them is listed by both, so the ones listed once are the boundary.
TEST(split_into_H8, positive_conforming_and_volume_preserving) {
  struct scenario {
    box_kind kind;
    std::size_t boundary_per_cell_face;  // hexahedron faces on one boundary square
  };
  const unsigned n = 3;
  for (const scenario s : {scenario{box_kind::TH4, 6}, scenario{box_kind::W6, 0}, scenario{box_kind::H8, 4}}) {
    auto box = make_box(s.kind, n, n, n, 1.0, 2.0, 0.5, 0.2, 11);
    dense2D<unsigned> hexahedra;
    ASSERT_EQ(t3::split_into_H8(box.coords, box.connect, hexahedra, {}, {}), 0);
    double volume = 0;
    std::map<std::vector<unsigned>, int> quads;
    static const unsigned hex_faces[6][4] = {{0, 1, 2, 3}, {4, 5, 6, 7}, {0, 1, 5, 4},
                                             {1, 2, 6, 5}, {2, 3, 7, 6}, {3, 0, 4, 7}};
    for (std::size_t j = 0; j < hexahedra.cols(); ++j) {
      const double v = hexahedron_volume(box.coords, &hexahedra(0, j));
      EXPECT_GT(v, 0) << j;
      volume += v;
      for (const auto& f : hex_faces) {
        std::vector<unsigned> key = {hexahedra(f[0], j), hexahedra(f[1], j), hexahedra(f[2], j), hexahedra(f[3], j)};
        std::sort(key.begin(), key.end());
        ++quads[key];
      }
    }
    EXPECT_NEAR(volume, 1.0, 1e-12);
    std::size_t once = 0;
    for (const auto& [key, times] : quads) {
      EXPECT_LE(times, 2);
      once += times == 1;
    }
    // Wedges: 3 quadrangles per boundary triangle (z faces), 4 per boundary square (sides).
    const std::size_t expected =
        s.kind == box_kind::W6 ? 2 * n * n * 2 * 3 + 4 * n * n * 4 : 6 * n * n * s.boundary_per_cell_face;
    EXPECT_EQ(once, expected);
  }
  mesh m = mixed_mesh(false);
  dense2D<unsigned> hexahedra;
  ASSERT_EQ(t3::split_into_H8(m.coords, m.connect, hexahedra, {}, {}), 0);
  double volume = 0;
  for (std::size_t j = 0; j < hexahedra.cols(); ++j) {
    EXPECT_GT(hexahedron_volume(m.coords, &hexahedra(0, j)), 0);
    volume += hexahedron_volume(m.coords, &hexahedra(0, j));
  }
  EXPECT_NEAR(volume, 1 + 0.25 + 1.0 / 24, 1e-12);
}

TEST(split_into_H8, appends_after_existing_columns_of_a_view) {
  mesh m = mixed_mesh(false);
  dense2D<unsigned> expected;
  dense2D<double> x;
  x.copy(m.coords);
  ASSERT_EQ(t3::split_into_H8(x, m.connect, expected, {}, {}), 0);
  dense2D<unsigned> existing(8, 2, 3u);
  dense2D<unsigned> hexahedra = tessel3d_test::padded_view(existing, 3, 0u);
  ASSERT_EQ(t3::split_into_H8(m.coords, tessel3d_test::padded_view(m.connect, 2, 0u), hexahedra, {}, {}), 0);
  ASSERT_EQ(hexahedra.cols(), 2 + expected.cols());
  for (std::size_t j = 0; j < hexahedra.cols(); ++j)
    for (std::size_t i = 0; i < 8; ++i) EXPECT_EQ(hexahedra(i, j), j < 2 ? 3u : expected(i, j - 2));
}

TEST(split_into_H8, allocation_failures_roll_back) {
  const auto box = make_box(box_kind::W6, 3, 2, 2);
  check_allocation_failures(
      [&] {
        mesh m;
        m.coords.copy(box.coords);
        m.connect = box.connect;
        return std::make_pair(m, dense2D<unsigned>(8, 3, 1u));
      },
      [](std::pair<mesh, dense2D<unsigned>>& in) {
        return t3::split_into_H8(in.first.coords, in.first.connect, in.second, {}, {});
      },
      [&](std::pair<mesh, dense2D<unsigned>>& in, long) {
        EXPECT_EQ(in.first.coords.cols(), box.coords.cols());
        EXPECT_EQ(in.second.cols(), 3u);
      });
}
