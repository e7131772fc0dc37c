// Element order: conversion into high order and back to linear, splitting into hexahedra.
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <functional>
#include <map>
#include <set>
#include <string>
#include <vector>

#include "box_mesh.h"
#include "checks_in_order.h"
#include "reference_volume.h"
#include "zel/tessel.h"
#include "zel/tessel3d.h"

namespace t3 = zel::tessel3d;
using tessel3d_test::box_kind;
using tessel3d_test::make_box;
using tessel3d_test::padded_view;
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
  static const kind_info kinds[4] = {
      {4, {{1, 2}, {2, 0}, {0, 1}, {3, 0}, {3, 1}, {3, 2}}, {{1, 2, 3}, {2, 0, 3}, {0, 1, 3}, {2, 1, 0}}},
      {5,
       {{0, 4}, {1, 4}, {2, 4}, {3, 4}, {0, 1}, {1, 2}, {2, 3}, {3, 0}},
       {{0, 4, 1}, {1, 4, 2}, {2, 4, 3}, {3, 4, 0}, {0, 1, 2, 3}}},
      {6,
       {{0, 3}, {1, 4}, {2, 5}, {1, 2}, {2, 0}, {0, 1}, {4, 5}, {5, 3}, {3, 4}},
       {{0, 1, 2}, {3, 5, 4}, {2, 1, 4, 5}, {0, 2, 5, 3}, {1, 0, 3, 4}}},
      {8,
       {{0, 1}, {1, 2}, {2, 3}, {3, 0}, {4, 5}, {5, 6}, {6, 7}, {7, 4}, {0, 4}, {1, 5}, {2, 6}, {3, 7}},
       {{0, 3, 7, 4}, {1, 5, 6, 2}, {0, 4, 5, 1}, {3, 2, 6, 7}, {0, 1, 2, 3}, {4, 7, 6, 5}}}};
  return kinds[corners == 4 ? 0 : corners == 5 ? 1 : corners == 6 ? 2 : 3];
}

std::vector<unsigned> sorted(std::vector<unsigned> v) {
  std::sort(v.begin(), v.end());
  return v;
}

// Number of leading entries of a linear column that hold a node: its kind.
unsigned corners_of(const dense2D<unsigned>& m, std::size_t j) {
  unsigned k = 0;
  while (k < m.rows() && m(k, j) != absent) ++k;
  return k;
}

vec point(const dense2D<double>& x, unsigned id) { return {x(0, id), x(1, id), x(2, id)}; }
vec sub(const vec& a, const vec& b) { return {a[0] - b[0], a[1] - b[1], a[2] - b[2]}; }
double dot(const vec& a, const vec& b) { return a[0] * b[0] + a[1] * b[1] + a[2] * b[2]; }
vec cross(const vec& a, const vec& b) {
  return {a[1] * b[2] - a[2] * b[1], a[2] * b[0] - a[0] * b[2], a[0] * b[1] - a[1] * b[0]};
}
double distance(const vec& a, const vec& b) { return std::sqrt(dot(sub(a, b), sub(a, b))); }
void expect_at(const dense2D<double>& x, unsigned id, const vec& expected) {
  EXPECT_LT(distance(point(x, id), expected), 1e-12) << "node " << id;
}

// A unit cube (H8 0-7), a wedge roof on its face x = 1 (nodes 8, 9 on the ridge), a
// pyramid on its face y = 0 (apex 10) and a tetrahedron between roof and pyramid: edge
// 1-5 belongs to all four. Every element is positive; volumes 1, 1/4, 1/6, 1/24.
mesh mixed_mesh(bool with_pyramid) {
  mesh m;
  m.coords = dense2D<double>(3, 11, {0, 0, 0, 1, 0, 0, 1, 1,   0, 0,   1,   0, 0,   0,   1,    1,  0,
                                     1, 1, 1, 1, 0, 1, 1, 1.5, 0, 0.5, 1.5, 1, 0.5, 0.5, -0.5, 0.5});
  m.connect =
      dense2D<unsigned>(8, 4, {0, 1, 2,  3, 4,      5,      6,      7,      1, 5, 8, 2, 6,  9,      absent, absent,  //
                               5, 1, 10, 8, absent, absent, absent, absent, 0, 1, 5, 4, 10, absent, absent, absent});
  EXPECT_TRUE(m.connect.resize(8, 3 + with_pyramid));
  return m;
}

// One element of the mixed mesh on its nodes, with node `id` moved to `at`.
mesh one_element(const std::vector<unsigned>& nodes, unsigned id, vec at) {
  mesh m = mixed_mesh(true);
  m.connect = dense2D<unsigned>(nodes.size(), 1);
  std::copy(nodes.begin(), nodes.end(), m.connect.data());
  for (int d = 0; d < 3; ++d) m.coords(d, id) = at[d];
  return m;
}

struct entity_counts {
  std::size_t edges = 0, triangles = 0, quadrangles = 0;
  std::size_t kinds[9] = {};  // by corner count
};

// Distinct edges and faces of a linear mesh, counted by their node sets.
entity_counts count_entities(const dense2D<unsigned>& connect) {
  std::set<std::vector<unsigned>> edges, faces;
  entity_counts n;
  for (std::size_t j = 0; j < connect.cols(); ++j) {
    const unsigned c = corners_of(connect, j);
    ++n.kinds[c];
    for (const auto& e : info(c).edges) edges.insert(sorted({connect(e[0], j), connect(e[1], j)}));
    for (const auto& f : info(c).faces) {
      std::vector<unsigned> key;
      for (unsigned v : f) key.push_back(connect(v, j));
      faces.insert(sorted(key));
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

// A copy whose coordinates can grow without touching the original's.
mesh copy_of(const mesh& original) {
  mesh m{dense2D<double>(), original.connect};
  m.coords.copy(original.coords);
  return m;
}

// A deep copy of c with entry (i, j) set to value.
dense2D<unsigned> deep_with(const dense2D<unsigned>& c, std::size_t i, std::size_t j, unsigned value) {
  dense2D<unsigned> d;
  d.copy(c);
  if (i < d.rows() && j < d.cols()) d(i, j) = value;
  return d;
}

}  // namespace

// ---- convert_into_high_order ------------------------------------------------------------

namespace {

// The conversion's arguments on the mixed mesh (11 nodes): an H8 whose quadrangle 0-1-2-3
// the caller gives (q + 4(e + 1) = 9 rows) and whose edge 0-1 too (e + 2 = 3 rows).
struct conversion_args {
  mesh m = copy_of(mixed_mesh(true));
  counts c{1, 1, 0, 1, 0, 0, 0};
  dense2D<unsigned> faces{9, 1, {0, 1, 2, 3, 8, 8, 8, 8, 10}}, edges{3, 1, {0, 1, 8}}, high{2, 2, 7u};
};
using conversion_fault = tessel3d_test::bad_argument<conversion_args>;

const std::vector<conversion_fault> conversion_checks = {
    {"connectivity (empty)", [](conversion_args& a) { a.m.connect = dense2D<unsigned>(8, 0); }, 0},
    {"counts (all 0)", [](conversion_args& a) { a.c = {0, 0, 0, 0, 0, 0, 0}; }, 0},
    {"coords rows", [](conversion_args& a) { a.m.coords = dense2D<double>(2, 11, 0.0); }, -1},
    {"connectivity ID", [](conversion_args& a) { a.m.connect = deep_with(a.m.connect, 3, 0, 11); }, -2},
    {"q", [](conversion_args& a) { a.c.q = 2; }, -4},
    {"t", [](conversion_args& a) { a.c.t = 2; }, -5},
    {"h", [](conversion_args& a) { a.c.h = 64; }, -6},  // a cube, refused without options
    {"w", [](conversion_args& a) { a.c.w = 2; }, -7},
    {"n", [](conversion_args& a) { a.c.n = 2; }, -9},
    {"faces", [](conversion_args& a) { a.faces(2, 0) = absent; }, -11},  // a corner of a quadrangle
    {"edges", [](conversion_args& a) { a.edges(2, 0) = absent; }, -12}};

// Faults that no chain holds: each on its own.
const std::vector<conversion_fault> conversion_faults = {
    {"5 rows", [](conversion_args& a) { a.m.connect = dense2D<unsigned>(5, 1, 0u); }, -2},
    {"H8 without corner 7", [](conversion_args& a) { a.m.connect = deep_with(a.m.connect, 7, 0, absent); }, -2},
    {"faces of 6 rows",
     [](conversion_args& a) {
       a.faces = dense2D<unsigned>(6, 1, {0, 1, 2, 8, 8, 8});
     },
     -11},
    {"edges of 4 rows", [](conversion_args& a) { a.edges = dense2D<unsigned>(4, 1, 0u); }, -12}};

}  // namespace

TEST(convert_into_high_order, status_codes_in_order) {
  const t3::high_order_options conforming;
  for (const bool with_options : {false, true}) {
    SCOPED_TRACE(with_options ? "with options" : "without options");
    const std::function<int(conversion_args&)> call = [&](conversion_args& a) {
      const counts& c = a.c;
      const int status = with_options ? t3::convert_into_high_order(a.m.coords, a.m.connect, c.e, c.q, c.t, c.h, c.w,
                                                                    c.p, c.n, a.high, a.faces, a.edges, conforming)
                                      : convert(a.m, c, a.high, a.faces, a.edges);
      if (status != 0 || c.e + c.q + c.t + c.h + c.w + c.p + c.n == 0 || a.m.connect.empty()) {
        EXPECT_TRUE(a.high.empty()) << "the output is cleared";
      }
      return status;
    };
    const auto untouched = [](const conversion_args& a) { return tessel3d_test::bytes_of(a.m.coords); };
    std::vector<conversion_fault> chain = conversion_checks;
    if (with_options) chain[6].status = -7;  // h = 64 is a cube there: the next check fails
    tessel3d_test::expect_checks_in_order<conversion_args>(chain, call, untouched);
    for (const conversion_fault& fault : conversion_faults)
      tessel3d_test::expect_checks_in_order<conversion_args>({fault}, call, untouched);
    conversion_args any_p;  // h = 27 passes, p is free
    any_p.c = {1, 4, 3, 27, 1, 9, 1};
    any_p.faces.clear();
    any_p.edges.clear();
    EXPECT_EQ(call(any_p), 0);
  }
}

// The corners first, then new IDs: one per distinct edge, face and element (counted by
// brute force), every one used, none outside the element's own rows; the documented row
// counts.
TEST(convert_into_high_order, new_nodes_are_the_distinct_edges_faces_and_cells) {
  std::vector<mesh> meshes = {mixed_mesh(true)};
  for (box_kind kind : {box_kind::TH4, box_kind::W6, box_kind::H8, box_kind::PY5}) {
    const auto box = make_box(kind, 3, 2, 2, 1, 1, 1, 0.2, 7);
    meshes.push_back({box.coords, kind == box_kind::PY5 ? tessel3d_test::to_mixed8(box.connect) : box.connect});
  }
  for (const mesh& original : meshes)
    for (const counts& c : {counts{1, 1, 0, 1, 0, 0, 0}, counts{2, 4, 3, 8, 1, 2, 1}, counts{3, 9, 1, 0, 0, 1, 0},
                            counts{0, 0, 1, 1, 0, 0, 0}}) {
      mesh m = copy_of(original);
      dense2D<unsigned> high;
      ASSERT_EQ(convert(m, c, high), 0);
      const entity_counts n = count_entities(original.connect);
      const std::size_t expected = c.e * n.edges + c.t * n.triangles + c.q * n.quadrangles + c.n * n.kinds[4] +
                                   c.p * n.kinds[5] + c.w * n.kinds[6] + c.h * n.kinds[8];
      EXPECT_EQ(m.coords.cols(), original.coords.cols() + expected);
      std::size_t rows[9] = {};
      rows[4] = 4 + 6 * c.e + 4 * c.t + c.n, rows[5] = 5 + 8 * c.e + c.q + 4 * c.t + c.p;
      rows[6] = 6 + 9 * c.e + 3 * c.q + 2 * c.t + c.w, rows[8] = 8 + 12 * c.e + 6 * c.q + c.h;
      const std::size_t all = n.kinds[4] + n.kinds[5] + n.kinds[6] + n.kinds[8];
      EXPECT_EQ(high.rows(), n.kinds[4] == all   ? rows[4]
                             : n.kinds[6] == all ? rows[6]
                                                 : std::max({rows[4], rows[5], rows[6], rows[8]}));
      std::set<unsigned> used;
      for (std::size_t j = 0; j < high.cols(); ++j) {
        const unsigned corners = corners_of(original.connect, j);
        EXPECT_TRUE(std::equal(&high(0, j), &high(0, j) + corners, &original.connect(0, j))) << "corners first";
        for (std::size_t i = corners; i < high.rows(); ++i) {
          ASSERT_EQ(high(i, j) == absent, i >= rows[corners]);
          if (i < rows[corners]) used.insert(high(i, j));
        }
      }
      EXPECT_EQ(used.size(), expected);
      EXPECT_GE(*used.begin(), original.coords.cols());
    }
}

// Edge node s of (a, b) lies at fraction (s + 1) / (e + 1) from a whichever way the
// element walks the edge. A face shared by two elements gets one set of nodes; a
// triangle's node s weighs 1/2 on corner (s + 2) mod 3 of the face seen as first met, on
// corner (s + 1) mod 3 seen reversed.
TEST(convert_into_high_order, edge_and_face_nodes_are_placed_and_shared) {
  for (unsigned e : {1u, 2u, 3u}) {
    mesh m = mixed_mesh(true);
    const dense2D<unsigned> linear = m.connect;
    dense2D<unsigned> high;
    ASSERT_EQ(convert(m, {e, 4, 3, 0, 0, 0, 0}, high), 0);
    std::map<std::vector<unsigned>, std::vector<unsigned>> first_cycle;  // face -> corners as first met
    std::map<std::vector<unsigned>, std::set<unsigned>> nodes;
    for (std::size_t j = 0; j < high.cols(); ++j) {
      const kind_info& k = info(corners_of(linear, j));
      for (std::size_t i = 0; i < k.edges.size(); ++i)
        for (unsigned s = 0; s < e; ++s) {
          const vec a = point(m.coords, high(k.edges[i][0], j)), b = point(m.coords, high(k.edges[i][1], j));
          const double f = (s + 1.0) / (e + 1);
          expect_at(m.coords, high(k.corners + i * e + s, j),
                    {a[0] + f * (b[0] - a[0]), a[1] + f * (b[1] - a[1]), a[2] + f * (b[2] - a[2])});
        }
      std::size_t row = k.corners + k.edges.size() * e;
      for (const auto& f : k.faces) {
        const unsigned count = f.size() == 3 ? 3 : 4;
        std::vector<unsigned> cycle;
        for (unsigned v : f) cycle.push_back(high(v, j));
        const std::vector<unsigned> key = sorted(cycle);
        const std::set<unsigned> run(&high(row, j), &high(row, j) + count);
        if (!nodes.insert({key, run}).second) {
          EXPECT_EQ(nodes[key], run);
        } else {
          first_cycle[key] = cycle;
        }
        const std::vector<unsigned>& stored = first_cycle[key];
        const std::size_t r = std::find(stored.begin(), stored.end(), cycle[0]) - stored.begin();
        for (unsigned s = 0; s < 3 && count == 3; ++s) {
          const unsigned near = (s + (stored[(r + 1) % 3] == cycle[1] ? 2 : 1)) % 3;
          const vec x = point(m.coords, high(row + s, j)), a = point(m.coords, cycle[near]),
                    b = point(m.coords, cycle[(near + 1) % 3]), c = point(m.coords, cycle[(near + 2) % 3]);
          const vec area = cross(sub(b, a), sub(c, a)), opposite = cross(sub(b, x), sub(c, x));
          EXPECT_NEAR(dot(opposite, area) / dot(area, area), 0.5, 1e-12);
        }
        row += count;
      }
    }
  }
}

// The caller's nodes are reused and bend what is built next to them (d = -0.2, u = 0.3):
// - the unit cube whose edge 0-1 carries node 8 bulging by d in y (of two columns for
//   that edge, the last counts): the two faces through
//   that edge follow the serendipity rule (centres move by d/2), the others stay flat,
//   the centre moves by 1/2 (d/2 + d/2) - 1/4 d = d/4;
// - the cube's bottom face given reversed, its centre node 8 at z = -0.4: the centre
//   follows the 26-node rule and moves by half of it;
// - the tetrahedron on the unit corner with that edge: a six-node triangle weighs its
//   edge nodes 4/9 at the centroid, the ten-node tetrahedron 1/4 at its centre;
// - the roof wedge, its lateral edge 1-2 moved by u in z: the quadrangles through that
//   edge move their centres by u/2, the centroid by -1/9 u + 2 * 4/9 * u/2 = u/3;
// - the pyramid, base edge 0-1 moved by u in y: at mid-height the axis point weighs the
//   base edge nodes 1/8 and the base centre 0.
TEST(convert_into_high_order, caller_nodes_are_reused_and_bend_their_neighbours) {
  const double d = -0.2, u = 0.3, third = 1.0 / 3;
  const std::vector<unsigned> cube = {0, 1, 2, 3, 4, 5, 6, 7}, tet = {1, 0, 3, 4};
  const counts quadratic{1, 1, 0, 1, 0, 0, 0};
  const dense2D<unsigned> no, cube_edge(3, 1, {1, 0, 8});
  // The caller's `node`, moved to `at`, is expected in row `row`; `expected` lists rows
  // of the result, each followed by its position.
  const auto check = [&](const std::vector<unsigned>& element, unsigned node, vec at, counts c,
                         const dense2D<unsigned>& faces, const dense2D<unsigned>& edges, unsigned row,
                         unsigned new_nodes, const std::vector<double>& expected) {
    mesh m = one_element(element, node, at);
    dense2D<unsigned> high;
    ASSERT_EQ(convert(m, c, high, faces, edges), 0);
    EXPECT_EQ(high(row, 0), node);
    EXPECT_EQ(m.coords.cols(), 11 + new_nodes);
    expect_at(m.coords, node, at);
    for (std::size_t k = 0; k < expected.size(); k += 4)
      expect_at(m.coords, high(unsigned(expected[k]), 0), {expected[k + 1], expected[k + 2], expected[k + 3]});
    if (c.h == 0) return;
    mesh in_place = one_element(element, node, at);  // the quadratic form gives the same
    ASSERT_EQ(t3::convert_into_quadratic(in_place.coords, in_place.connect, faces, edges), 0);
    EXPECT_TRUE(std::equal(high.data(), high.data() + 27, in_place.connect.data()));
    EXPECT_EQ(in_place.coords.cols(), m.coords.cols());
  };
  check(cube, 8, {0.5, d, 0}, quadratic, no, dense2D<unsigned>(3, 2, {0, 1, 10, 1, 0, 8}), 8, 11 + 6 + 1,
        {20, 0,   0.5, 0.5, 21,          1, 0.5, 0.5, 22,  0.5, d / 2, 0.5, 23,          0.5,
         1,  0.5, 24,  0.5, 0.5 + d / 2, 0, 25,  0.5, 0.5, 1,   26,    0.5, 0.5 + d / 4, 0.5});
  check(cube, 8, {0.5, 0.5, -0.4}, quadratic, dense2D<unsigned>(9, 1, {2, 1, 0, 3, 0, 0, 0, 0, 8}), no, 24, 12 + 5 + 1,
        {26, 0.5, 0.5, 0.3});
  check(
      tet, 8, {0.5, d, 0}, {1, 0, 1, 0, 0, 0, 1}, no, cube_edge, 6, 5 + 4 + 1,
      {10, 0, third, third, 11, third, third, third, 12, third, 4.0 / 9 * d, third, 13, third, third + 4.0 / 9 * d, 0});
  check(tet, 8, {0.5, d, 0}, {1, 0, 0, 0, 0, 0, 1}, no, cube_edge, 6, 5 + 1, {10, 0.25, 0.25 + d / 4, 0.25});
  check({1, 5, 8, 2, 6, 9}, 10, {1, 0.5, u}, {1, 1, 0, 0, 1, 0, 0}, no, dense2D<unsigned>(3, 1, {2, 1, 10}), 6,
        8 + 3 + 1, {18, 7.0 / 6, 0.5, 0.5 + u / 3});
  check({0, 1, 5, 4, 10, absent}, 9, {0.5, u, 0}, {1, 1, 0, 0, 0, 1, 0}, no, dense2D<unsigned>(3, 1, {0, 1, 9}), 9,
        7 + 1 + 1, {13, 0.5, u / 2, 0.5, 14, 0.5, -0.25 + u / 8, 0.5});
}

// A triangle among 9-row faces: ~0U in the last row, its interior node in row 6. The
// roof's triangle (1, 5, 8) is shared with the tetrahedron, which sees it reversed.
TEST(convert_into_high_order, caller_triangle_among_quadrangle_faces) {
  mesh mixed = mixed_mesh(false);
  dense2D<unsigned> high;
  ASSERT_EQ(convert(mixed, {1, 1, 1, 0, 0, 0, 0}, high, dense2D<unsigned>(9, 1, {8, 1, 5, 0, 0, 0, 3, 0, absent})), 0);
  EXPECT_EQ(high(15, 1), 3u);  // wedge face (0, 1, 2)
  EXPECT_EQ(high(12, 2), 3u);  // tetrahedron face (0, 1, 3)
  const entity_counts n = count_entities(mixed_mesh(false).connect);
  EXPECT_EQ(mixed.coords.cols(), 11 + n.edges + n.triangles - 1 + n.quadrangles);
}

// ---- conforming face nodes ----------------------------------------------------------------
//
// Each element's own map, independent of the library: reference corners, the reference
// point of every row of a high-order column (the documented layout, built affinely from
// the corners), the linear map of each kind, and the complete Lagrange map of the
// high-order column solved from its nodes.

namespace {

using point3 = std::array<double, 3>;

struct reference_kind {
  std::vector<point3> corner;
};

const reference_kind& reference(unsigned corners) {
  static const reference_kind kinds[4] = {
      {{{0, 0, 0}, {1, 0, 0}, {0, 1, 0}, {0, 0, 1}}},
      {{{-1, -1, 0}, {1, -1, 0}, {1, 1, 0}, {-1, 1, 0}, {0, 0, 1}}},
      {{{1, 0, -1}, {0, 1, -1}, {0, 0, -1}, {1, 0, 1}, {0, 1, 1}, {0, 0, 1}}},
      {{{-1, -1, -1}, {1, -1, -1}, {1, 1, -1}, {-1, 1, -1}, {-1, -1, 1}, {1, -1, 1}, {1, 1, 1}, {-1, 1, 1}}}};
  return kinds[corners == 4 ? 0 : corners == 5 ? 1 : corners == 6 ? 2 : 3];
}

point3 affine(const point3& o, const point3& a, double s, const point3& b = {0, 0, 0}, double t = 0) {
  return {o[0] + s * a[0] + t * b[0], o[1] + s * a[1] + t * b[1], o[2] + s * a[2] + t * b[2]};
}
point3 minus(const point3& a, const point3& b) { return {a[0] - b[0], a[1] - b[1], a[2] - b[2]}; }

// Reference points of the rows of one kind's high-order column for the counts.
std::vector<point3> row_points(unsigned corners, const counts& c) {
  const kind_info& k = info(corners);
  const std::vector<point3>& x = reference(corners).corner;
  std::vector<point3> rows(x);
  for (const auto& e : k.edges)
    for (unsigned s = 0; s < c.e; ++s) rows.push_back(affine(x[e[0]], minus(x[e[1]], x[e[0]]), (s + 1.0) / (c.e + 1)));
  for (const auto& f : k.faces) {
    const point3 &a = x[f[0]], &b = x[f[1]], &d = x[f[2]];
    if (f.size() == 3) {
      const double t1[3] = {1.0 / 3, 1.0 / 3, 1.0 / 3},
                   t3[3][3] = {{0.25, 0.25, 0.5}, {0.5, 0.25, 0.25}, {0.25, 0.5, 0.25}};
      for (unsigned s = 0; s < c.t; ++s) {
        const double* w = c.t == 1 ? t1 : t3[s];
        rows.push_back({w[0] * a[0] + w[1] * b[0] + w[2] * d[0], w[0] * a[1] + w[1] * b[1] + w[2] * d[1],
                        w[0] * a[2] + w[1] * b[2] + w[2] * d[2]});
      }
    } else {
      const unsigned side = unsigned(std::lround(std::sqrt(c.q)));
      for (unsigned j = 0; j < side; ++j)
        for (unsigned i = 0; i < side; ++i)
          rows.push_back(affine(a, minus(b, a), (i + 1.0) / (side + 1), minus(x[f[3]], a), (j + 1.0) / (side + 1)));
    }
  }
  point3 centre{0, 0, 0};
  for (const point3& p : x) centre = affine(centre, p, 1.0 / x.size());
  if (corners == 4 && c.n == 1) rows.push_back(centre);
  if (corners == 6 && c.w == 1) rows.push_back(centre);
  for (unsigned s = 0; corners == 5 && s < c.p; ++s) rows.push_back({0, 0, (s + 1.0) / (c.p + 1)});
  const unsigned m = unsigned(std::lround(std::cbrt(c.h)));
  for (unsigned k3 = 0; corners == 8 && k3 < m; ++k3)
    for (unsigned j = 0; j < m; ++j)
      for (unsigned i = 0; i < m; ++i)
        rows.push_back({2 * (i + 1.0) / (m + 1) - 1, 2 * (j + 1.0) / (m + 1) - 1, 2 * (k3 + 1.0) / (m + 1) - 1});
  return rows;
}

// Weights of the corners of the linear element at reference point r (the pyramid's
// functions are rational; its apex is taken alone).
std::vector<double> linear_weights(unsigned corners, const point3& r) {
  const double u = r[0], v = r[1], w = r[2];
  switch (corners) {
    case 4: return {1 - u - v - w, u, v, w};
    case 5: {
      if (w > 1 - 1e-14) return {0, 0, 0, 0, 1};
      std::vector<double> n(5);
      const auto& x = reference(5).corner;
      for (int i = 0; i < 4; ++i) n[i] = (1 - w + x[i][0] * u) * (1 - w + x[i][1] * v) / (4 * (1 - w));
      n[4] = w;
      return n;
    }
    case 6: {
      const double t[3] = {u, v, 1 - u - v};
      return {t[0] * (1 - w) / 2, t[1] * (1 - w) / 2, t[2] * (1 - w) / 2,
              t[0] * (1 + w) / 2, t[1] * (1 + w) / 2, t[2] * (1 + w) / 2};
    }
    default: {
      std::vector<double> n(8);
      const auto& x = reference(8).corner;
      for (int i = 0; i < 8; ++i) n[i] = (1 + x[i][0] * u) * (1 + x[i][1] * v) * (1 + x[i][2] * w) / 8;
      return n;
    }
  }
}

point3 linear_map(const dense2D<double>& xyz, const unsigned* column, unsigned corners, const point3& r) {
  const std::vector<double> n = linear_weights(corners, r);
  point3 p{0, 0, 0};
  for (unsigned i = 0; i < corners; ++i) p = affine(p, {xyz(0, column[i]), xyz(1, column[i]), xyz(2, column[i])}, n[i]);
  return p;
}

double det3(const std::array<point3, 3>& j) {
  return j[0][0] * (j[1][1] * j[2][2] - j[1][2] * j[2][1]) - j[0][1] * (j[1][0] * j[2][2] - j[1][2] * j[2][0]) +
         j[0][2] * (j[1][0] * j[2][1] - j[1][1] * j[2][0]);
}

// Jacobian of the linear map by central differences (exact for these maps up to rounding
// away from the pyramid's apex).
double linear_det(const dense2D<double>& xyz, const unsigned* column, unsigned corners, const point3& r) {
  std::array<point3, 3> J;
  const double h = 1e-6;
  for (int d = 0; d < 3; ++d) {
    point3 a = r, b = r;
    a[d] -= h, b[d] += h;
    const point3 pa = linear_map(xyz, column, corners, a), pb = linear_map(xyz, column, corners, b);
    for (int i = 0; i < 3; ++i) J[i][d] = (pb[i] - pa[i]) / (2 * h);
  }
  return det3(J);
}

// The complete Lagrange element of degree `order` through the rows' reference points:
// monomials x^a y^b z^c of the kind's space (a + b + c <= order for TH4, a + b <= order
// and c <= order for W6, each <= order for H8), the interpolation matrix factored once.
struct lagrange_element {
  std::vector<std::array<int, 3>> powers;
  std::vector<double> lu;  // row-major LU of the interpolation matrix
  std::vector<std::size_t> pivot;

  lagrange_element(unsigned corners, unsigned order, const std::vector<point3>& points) {
    for (unsigned a = 0; a <= order; ++a)
      for (unsigned b = 0; b <= order; ++b)
        for (unsigned c = 0; c <= order; ++c)
          if ((corners == 8) || (corners == 6 && a + b <= order) || (corners == 4 && a + b + c <= order))
            powers.push_back({int(a), int(b), int(c)});
    const std::size_t n = powers.size();
    EXPECT_EQ(n, points.size()) << "a complete element";
    lu.resize(n * n);
    for (std::size_t i = 0; i < n; ++i)
      for (std::size_t k = 0; k < n; ++k) lu[i * n + k] = monomial(k, points[i], -1);
    pivot.resize(n);
    for (std::size_t k = 0; k < n; ++k) {
      std::size_t p = k;
      for (std::size_t i = k + 1; i < n; ++i)
        if (std::abs(lu[i * n + k]) > std::abs(lu[p * n + k])) p = i;
      pivot[k] = p;
      for (std::size_t m = 0; m < n; ++m) std::swap(lu[k * n + m], lu[p * n + m]);
      for (std::size_t i = k + 1; i < n; ++i) {
        lu[i * n + k] /= lu[k * n + k];
        for (std::size_t m = k + 1; m < n; ++m) lu[i * n + m] -= lu[i * n + k] * lu[k * n + m];
      }
    }
  }

  // The monomial k at r, or its derivative along direction d (0, 1, 2).
  double monomial(std::size_t k, const point3& r, int d) const {
    double value = 1;
    for (int i = 0; i < 3; ++i) {
      const int p = powers[k][i];
      if (i == d) {
        if (p == 0) return 0;
        value *= p * std::pow(r[i], p - 1);
      } else {
        value *= std::pow(r[i], p);
      }
    }
    return value;
  }

  // det J at each of `at` for the map through the nodes of `column`.
  std::vector<double> dets(const dense2D<double>& xyz, const unsigned* column, const std::vector<point3>& at) const {
    const std::size_t n = powers.size();
    std::vector<point3> coef(n);
    for (std::size_t i = 0; i < n; ++i) coef[i] = {xyz(0, column[i]), xyz(1, column[i]), xyz(2, column[i])};
    for (std::size_t k = 0; k < n; ++k) std::swap(coef[k], coef[pivot[k]]);
    for (std::size_t i = 0; i < n; ++i)
      for (std::size_t k = 0; k < i; ++k) coef[i] = affine(coef[i], coef[k], -lu[i * n + k]);
    for (std::size_t i = n; i-- > 0;) {
      for (std::size_t k = i + 1; k < n; ++k) coef[i] = affine(coef[i], coef[k], -lu[i * n + k]);
      for (double& v : coef[i]) v /= lu[i * n + i];
    }
    std::vector<double> result;
    for (const point3& r : at) {
      std::array<point3, 3> J{};
      for (std::size_t k = 0; k < n; ++k)
        for (int d = 0; d < 3; ++d) {
          const double g = monomial(k, r, d);
          for (int i = 0; i < 3; ++i) J[i][d] += coef[k][i] * g;
        }
      result.push_back(det3(J));
    }
    return result;
  }
};

// The corner permutations p of a kind that keep it positive: the element listing old
// corner p[i] as its corner i has every face cycle among the old element's face cycles
// (found by brute force over all permutations).
const std::vector<std::vector<unsigned>>& rotations(unsigned corners) {
  static std::map<unsigned, std::vector<std::vector<unsigned>>> cache;
  auto& found = cache[corners];
  if (!found.empty()) return found;
  const auto& faces = info(corners).faces;
  const auto is_face_cycle = [&](const std::vector<unsigned>& cycle) {
    for (const auto& f : faces)
      for (std::size_t r = 0; f.size() == cycle.size() && r < f.size(); ++r) {
        bool same = true;
        for (std::size_t i = 0; i < f.size(); ++i) same = same && cycle[i] == f[(i + r) % f.size()];
        if (same) return true;
      }
    return false;
  };
  std::vector<unsigned> p(corners);
  for (unsigned i = 0; i < corners; ++i) p[i] = i;
  do {
    bool keeps = true;
    for (const auto& f : faces) {
      std::vector<unsigned> image;
      for (unsigned v : f) image.push_back(p[v]);
      keeps = keeps && is_face_cycle(image);
    }
    if (keeps) found.push_back(p);
  } while (std::next_permutation(p.begin(), p.end()));
  static const std::map<unsigned, std::size_t> group_order = {{4, 12}, {5, 4}, {6, 6}, {8, 24}};
  EXPECT_EQ(found.size(), group_order.at(corners)) << "the rotations of a " << corners << "-corner solid";
  return found;
}

// Lists each element's corners from a random one of its positive rotations.
void renumber_elements(dense2D<unsigned>& connect, unsigned seed) {
  tessel3d_test::random_stream random(seed);
  for (std::size_t j = 0; j < connect.cols(); ++j) {
    const unsigned corners = corners_of(connect, j);
    const auto& all = rotations(corners);
    const std::vector<unsigned>& p = all[random.next() % all.size()];
    std::vector<unsigned> old(&connect(0, j), &connect(0, j) + corners);
    for (unsigned i = 0; i < corners; ++i) connect(i, j) = old[p[i]];
  }
}

// A jittered 3 x 3 x 2 grid of mixed cells in the 8-row layout: the cells with i = 0
// split into two W6 (the same way up the column, so their triangles match), the others
// an H8 or six PY5 around a centre node, a pyramid on the boundary split into two TH4.
mesh mixed_grid(unsigned seed) {
  const auto box = make_box(box_kind::H8, 3, 3, 2, 1, 1, 1, 0.2, seed);
  mesh m{dense2D<double>(), dense2D<unsigned>(8, 0)};
  m.coords.copy(box.coords);
  tessel3d_test::random_stream random(seed);
  std::vector<std::vector<unsigned>> elements;
  const auto boundary_face = [&](const std::vector<unsigned>& f) {
    for (int d = 0; d < 3; ++d) {
      bool low = true, high = true;
      for (unsigned v : f)
        low = low && std::abs(m.coords(d, v)) < 1e-12, high = high && std::abs(m.coords(d, v) - 1) < 1e-12;
      if (low || high) return true;
    }
    return false;
  };
  for (std::size_t cell = 0; cell < box.connect.cols(); ++cell) {
    const unsigned* c = &box.connect(0, cell);
    if (cell % 3 == 0) {
      elements.push_back({c[0], c[1], c[2], c[4], c[5], c[6]});
      elements.push_back({c[0], c[2], c[3], c[4], c[6], c[7]});
    } else if (random.next() % 2) {
      elements.push_back(std::vector<unsigned>(c, c + 8));
    } else {
      const unsigned apex = unsigned(m.coords.cols());
      EXPECT_TRUE(m.coords.resize(3, apex + 1));
      for (int d = 0; d < 3; ++d) {
        double sum = 0;
        for (int v = 0; v < 8; ++v) sum += m.coords(d, c[v]);
        m.coords(d, apex) = sum / 8;
      }
      for (const auto& f : info(8).faces) {
        const std::vector<unsigned> base = {c[f[0]], c[f[1]], c[f[2]], c[f[3]]};
        if (boundary_face(base) && random.next() % 2) {
          elements.push_back({base[0], base[2], base[1], apex});
          elements.push_back({base[0], base[3], base[2], apex});
        } else {
          elements.push_back({base[0], base[1], base[2], base[3], apex});
        }
      }
    }
  }
  EXPECT_TRUE(m.connect.resize(8, elements.size(), absent));
  for (std::size_t j = 0; j < elements.size(); ++j) std::copy(elements[j].begin(), elements[j].end(), &m.connect(0, j));
  return m;
}

// The counts of the complete elements of an order, as far as the conversion allows them:
// every face and element interior of a degree-n Lagrange element, with the W6 and PY5
// interiors left empty (and no triangle nodes past order 4, for hexahedra alone).
counts order_counts(unsigned n) {
  const unsigned k = n - 1;
  return {k, k * k, n <= 4 ? k * (k - 1) / 2 : 0, k * k * k, 0, 0, n == 4 ? 1u : 0u};
}

int convert_conforming(mesh& m, const counts& c, dense2D<unsigned>& high, bool conforming = true) {
  t3::high_order_options options;
  options.conforming_faces = conforming;
  return t3::convert_into_high_order(m.coords, m.connect, c.e, c.q, c.t, c.h, c.w, c.p, c.n, high, {}, {}, options);
}

struct conforming_case {
  const char* name;
  unsigned max_order;
  mesh (*make)(unsigned seed);
};

mesh box_of(box_kind kind, unsigned seed) {
  const auto box = make_box(kind, 3, 3, 3, 1, 1, 1, 0.2, seed);
  return {box.coords, kind == box_kind::PY5 ? tessel3d_test::to_mixed8(box.connect) : box.connect};
}

const conforming_case conforming_cases[] = {{"TH4", 4, [](unsigned seed) { return box_of(box_kind::TH4, seed); }},
                                            {"PY5", 4, [](unsigned seed) { return box_of(box_kind::PY5, seed); }},
                                            {"W6", 4, [](unsigned seed) { return box_of(box_kind::W6, seed); }},
                                            {"H8", 5, [](unsigned seed) { return box_of(box_kind::H8, seed); }},
                                            {"mixed", 4, mixed_grid}};

}  // namespace

// Jittered meshes of every kind, each element listing its corners from a random positive
// rotation: every node of every element lies where that element's own linear map puts
// its row's reference point, and the complete Lagrange map through the column (TH4 to
// order 4, W6 order 2, H8 to order 5) has det J > 0 wherever the linear element has (the
// two agree, the nodes sampling the linear map). The flat rotation of the face runs
// (conforming_faces false) gives the same nodes and coordinates, reordered in each column.
TEST(convert_into_high_order, conforming_faces_put_every_node_at_its_own_element_point) {
  for (const conforming_case& test : conforming_cases)
    for (unsigned order = 2; order <= test.max_order; ++order) {
      SCOPED_TRACE(std::string(test.name) + " order " + std::to_string(order));
      const counts c = order_counts(order);
      mesh original = test.make(order);
      renumber_elements(original.connect, 100 + order);
      mesh m = copy_of(original), flat_rule = copy_of(original);
      dense2D<unsigned> high, rotated;
      ASSERT_EQ(convert_conforming(m, c, high), 0);
      ASSERT_EQ(convert_conforming(flat_rule, c, rotated, false), 0);
      std::map<unsigned, lagrange_element> lagrange;
      std::size_t misplaced = 0, folded = 0, blocks_differ = 0;
      for (std::size_t j = 0; j < high.cols(); ++j) {
        const unsigned corners = corners_of(original.connect, j);
        const std::vector<point3> points = row_points(corners, c);
        const unsigned* column = &high(0, j);
        for (std::size_t r = 0; r < points.size(); ++r) {
          const point3 expected = linear_map(m.coords, column, corners, points[r]);
          misplaced += distance(point(m.coords, column[r]), expected) > 1e-12;
        }
        const std::vector<unsigned> mine(column, column + high.rows()),
            theirs(&rotated(0, j), &rotated(0, j) + high.rows());
        blocks_differ += mine != theirs;
        EXPECT_EQ(sorted(mine), sorted(theirs));
        const bool complete = corners == 4 || corners == 8 || (corners == 6 && order == 2);
        if (!complete) continue;
        if (!lagrange.count(corners)) lagrange.emplace(corners, lagrange_element(corners, order, points));
        // At the nodes and half-way from each node to the last one (inside the element).
        std::vector<point3> at = points;
        for (const point3& r : points) at.push_back(affine(r, minus(points.back(), r), 0.5));
        const std::vector<double> dets = lagrange.at(corners).dets(m.coords, column, at);
        for (std::size_t r = 0; r < at.size(); ++r) {
          const double linear = linear_det(m.coords, column, corners, at[r]);
          ASSERT_NE(linear, 0.0);
          folded += !(dets[r] * linear > 0) || std::abs(dets[r] - linear) > 1e-6 * std::abs(linear);
        }
      }
      EXPECT_EQ(misplaced, 0u);
      EXPECT_EQ(folded, 0u);
      const bool affected = c.t == 3 || (c.q > 1 && std::string(test.name) != "TH4");
      if (affected) {
        EXPECT_GT(blocks_differ, 0u) << "the rotated runs are not the element's order";
      }
      ASSERT_EQ(m.coords.cols(), flat_rule.coords.cols());
      EXPECT_TRUE(std::equal(m.coords.data(), m.coords.data() + 3 * m.coords.cols(), flat_rule.coords.data()));
    }
}

// ---- convert_into_quadratic ---------------------------------------------------------------

TEST(convert_into_quadratic, rows_and_failure) {
  // Only tetrahedra: TH10; only wedges: W18; tetrahedra and wedges: the largest, 27.
  for (const auto& [connect, rows] :
       {std::pair{dense2D<unsigned>(4, 1, {5, 1, 10, 8}), 10u},
        {dense2D<unsigned>(6, 1, {1, 5, 8, 2, 6, 9}), 18u},
        {dense2D<unsigned>(6, 2, {5, 1, 10, 8, absent, absent, 1, 5, 8, 2, 6, 9}), 27u}}) {
    mesh c = mixed_mesh(true);
    c.connect = connect;
    ASSERT_EQ(t3::convert_into_quadratic(c.coords, c.connect), 0);
    EXPECT_EQ(c.connect.rows(), rows);
  }
  // A failed check leaves the connectivity cleared.
  mesh flat{dense2D<double>(2, 11, 0.0), mixed_mesh(true).connect};
  EXPECT_EQ(t3::convert_into_quadratic(flat.coords, flat.connect), -1);
  EXPECT_EQ(flat.connect.cols(), 0u);
}

// ---- convert_into_linear ------------------------------------------------------------------

TEST(convert_into_linear, row_rules) {
  // Columns of 27 rows: TH10, PY13, PY14, W15, W18, H27 with rows past their size absent.
  const std::size_t sizes[] = {10, 13, 14, 15, 18, 27};
  const unsigned corners[] = {4, 5, 5, 6, 6, 8};
  dense2D<unsigned> mixed(27, 6, absent);
  for (std::size_t j = 0; j < 6; ++j)
    for (std::size_t i = 0; i < sizes[j]; ++i) mixed(i, j) = unsigned(100 * j + i);
  dense2D<unsigned> view = padded_view(mixed, 2, 9u);
  ASSERT_EQ(t3::convert_into_linear(view), 0);
  ASSERT_EQ(view.rows(), 8u);
  for (std::size_t j = 0; j < 6; ++j)
    for (std::size_t i = 0; i < 8; ++i) EXPECT_EQ(view(i, j), i < corners[j] ? 100 * j + i : absent) << j;
  // Pure PY13, PY14, W15, W18: no rule fires, the first 8 rows stay as they are.
  for (std::size_t rows : {13, 14, 15, 18}) {
    dense2D<unsigned> pure(rows, 2);
    for (std::size_t k = 0; k < rows * 2; ++k) pure.data()[k] = unsigned(k);
    ASSERT_EQ(t3::convert_into_linear(pure), 0);
    ASSERT_EQ(pure.rows(), 8u);
    for (std::size_t i = 0; i < 8; ++i) EXPECT_EQ(pure(i, 1), rows + i);
  }
  // 10 rows give 4 rows, never 8; the other row counts are refused and left alone.
  dense2D<unsigned> th10(10, 3, 1u), empty(11, 0);
  ASSERT_EQ(t3::convert_into_linear(th10), 0);
  EXPECT_EQ(th10.rows(), 4u);
  for (std::size_t rows : {4, 8, 11, 12, 16, 17, 19, 21, 22, 23, 24, 25, 26, 28, 40}) {
    dense2D<unsigned> other(rows, 2, 3u);
    EXPECT_EQ(t3::convert_into_linear(other), -1) << rows;
    EXPECT_EQ(other.rows(), rows);
  }
  EXPECT_EQ(t3::convert_into_linear(empty), 0);
  EXPECT_EQ(empty.rows(), 11u);
}

// ---- split_into_H8 ----------------------------------------------------------------------

namespace {

// The split's arguments on the mixed mesh without its pyramid: one caller face (the
// quadrangle 0-1-2-3) and edge (0-1), and a connectivity of hexahedra to append to.
struct split_args {
  mesh m = copy_of(mixed_mesh(false));
  dense2D<unsigned> hexahedra{8, 1, 0u}, faces{9, 1, {0, 1, 2, 3, 8, 8, 8, 8, 8}}, edges{3, 1, {0, 1, 8}};
};
using split_fault = tessel3d_test::bad_argument<split_args>;

}  // namespace

TEST(split_into_H8, status_codes_in_order) {
  const std::vector<split_fault> chain = {
      {"connectivity (empty)", [](split_args& a) { a.m.connect = dense2D<unsigned>(8, 0); }, 0},
      {"coords rows", [](split_args& a) { a.m.coords = dense2D<double>(2, 11, 0.0); }, -1},
      {"connectivity ID", [](split_args& a) { a.m.connect = deep_with(a.m.connect, 0, 1, 11); }, -2},
      {"hexahedra rows", [](split_args& a) { a.hexahedra = dense2D<unsigned>(4, 1, 0u); }, -3},
      {"faces", [](split_args& a) { a.faces(8, 0) = absent; }, -4},  // even the ~0U of a triangle
      {"edges", [](split_args& a) { a.edges(2, 0) = 11; }, -5}};
  const std::vector<split_fault> alone = {
      {"a pyramid", [](split_args& a) { a.m.connect = mixed_mesh(true).connect; }, -2},
      {"a pyramid in 6 rows",
       [](split_args& a) {
         a.m.connect = dense2D<unsigned>(6, 1, {0, 1, 5, 4, 10, absent});
       },
       -2},
      {"faces of 7 rows", [](split_args& a) { a.faces = dense2D<unsigned>(7, 1, 0u); }, -11},
      {"edges of 2 rows", [](split_args& a) { a.edges = dense2D<unsigned>(2, 1, 0u); }, -12}};
  const std::function<int(split_args&)> call = [](split_args& a) {
    return t3::split_into_H8(a.m.coords, a.m.connect, a.hexahedra, a.faces, a.edges);
  };
  const auto untouched = [](const split_args& a) { return tessel3d_test::bytes_of(a.m.coords, a.hexahedra); };
  tessel3d_test::expect_checks_in_order<split_args>(chain, call, untouched);
  for (const split_fault& fault : alone) tessel3d_test::expect_checks_in_order<split_args>({fault}, call, untouched);
}

// Hexahedra per element and new nodes (edges, faces, centre); every hexahedron positive,
// the volume kept, and the hexahedra conforming: only the boundary is left unmatched.
TEST(split_into_H8, positive_conforming_and_volume_preserving) {
  const auto split = [](mesh m, std::size_t nb_hexahedra, double volume) {
    dense2D<unsigned> hexahedra;
    const std::size_t nodes = m.coords.cols();
    EXPECT_EQ(t3::split_into_H8(m.coords, m.connect, hexahedra, {}, {}), 0);
    EXPECT_EQ(hexahedra.cols(), nb_hexahedra);
    double total = 0;
    for (std::size_t j = 0; j < hexahedra.cols(); ++j) {
      const double v = tessel3d_test::hexahedron_volume(m.coords, &hexahedra(0, j));
      EXPECT_GT(v, 0) << j;
      total += v;
    }
    EXPECT_NEAR(total, volume, 1e-12);
    return std::make_pair(hexahedra, m.coords.cols() - nodes);
  };
  EXPECT_EQ(split(one_element({0, 1, 2, 3, 4, 5, 6, 7}, 0, {0, 0, 0}), 8, 1).second, 19u);
  EXPECT_EQ(split(one_element({5, 1, 10, 8}, 0, {0, 0, 0}), 4, 1.0 / 24).second, 11u);
  EXPECT_EQ(split(one_element({1, 5, 8, 2, 6, 9}, 0, {0, 0, 0}), 6, 0.25).second, 15u);
  split(mixed_mesh(false), 8 + 6 + 4, 1 + 0.25 + 1.0 / 24);

  const unsigned n = 3;
  const std::size_t per_cell[] = {6, 0, 2, 1};  // elements of a cell, by box_kind
  for (box_kind kind : {box_kind::TH4, box_kind::W6, box_kind::H8}) {
    const auto box = make_box(kind, n, n, n, 1.0, 2.0, 0.5, 0.2, 11);
    const std::size_t corners = tessel3d_test::box_rows(kind);
    const dense2D<unsigned> hexahedra =
        split({box.coords, box.connect}, n * n * n * per_cell[int(kind)] * corners, 1).first;
    dense2D<unsigned> neighbors;
    ASSERT_EQ(zel::tessel::get_neighbors(hexahedra, zel::H8, neighbors), 0);
    const std::size_t once = std::count(neighbors.data(), neighbors.data() + 6 * neighbors.cols(), absent);
    // Faces without a neighbour: 6 quadrangles per boundary square for TH4 (two triangles), 4 for H8; wedges: 3 per
    // boundary triangle (z faces), 4 per boundary square (sides).
    EXPECT_EQ(once,
              kind == box_kind::W6 ? 2 * n * n * 2 * 3 + 4 * n * n * 4 : 6 * n * n * (kind == box_kind::TH4 ? 6 : 4));
  }
}

TEST(split_into_H8, appends_after_existing_columns_of_a_view) {
  mesh m = mixed_mesh(false), x = copy_of(m);
  dense2D<unsigned> expected;
  ASSERT_EQ(t3::split_into_H8(x.coords, m.connect, expected, {}, {}), 0);
  dense2D<unsigned> hexahedra = padded_view(dense2D<unsigned>(8, 2, 3u), 3, 0u);
  ASSERT_EQ(t3::split_into_H8(m.coords, padded_view(m.connect, 2, 0u), hexahedra, {}, {}), 0);
  ASSERT_EQ(hexahedra.cols(), 2 + expected.cols());
  for (std::size_t j = 0; j < hexahedra.cols(); ++j)
    for (std::size_t i = 0; i < 8; ++i) EXPECT_EQ(hexahedra(i, j), j < 2 ? 3u : expected(i, j - 2));
}
