// Extrusion: layer counts and distribution, numbering, volumes of every family against
// closed forms, status codes in validation order. What each form leaves after an
// allocation failure, and what it gives on views with padding, is checked for every
// family through the family table (test_allocation_failures, test_concurrency).
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <functional>
#include <string>
#include <vector>

#include "box_mesh.h"
#include "checks_in_order.h"
#include "extrude/extrude_core.h"
#include "extrude/rotation.h"
#include "family_table.h"
#include "zel/tessel3d.h"

namespace {

using tessel3d_test::same;
using zel::dense1D;
using zel::dense2D;
using vec3 = zel::vector_fixed<double, 3>;
namespace t3 = zel::tessel3d;

constexpr unsigned absent = ~0U;
const double pi = std::acos(-1.0);

// ---- surfaces and an independent volume -------------------------------------------------

enum class face_kind { T3, Q4, mixed };

struct surface {
  dense2D<double> coords;
  dense2D<unsigned> connect;
  double area;
};

// nx x ny cells over [0, lx] x [0, ly] at z = 0, faces counter-clockwise seen from +z.
// Mixed: a quadrangle where i + j is even, two triangles (~0U in row 3) elsewhere.
surface grid(face_kind kind, unsigned nx, unsigned ny, double lx = 1, double ly = 1) {
  surface s{dense2D<double>(3, std::size_t(nx + 1) * (ny + 1), 0.0), {}, lx * ly};
  for (unsigned j = 0; j <= ny; ++j)
    for (unsigned i = 0; i <= nx; ++i) {
      s.coords(0, j * (nx + 1) + i) = lx * i / nx;
      s.coords(1, j * (nx + 1) + i) = ly * j / ny;
    }
  const unsigned rows = kind == face_kind::T3 ? 3 : 4;
  s.connect.resize(rows, 0);
  auto add = [&](std::initializer_list<unsigned> face) {
    s.connect.resize(rows, s.connect.cols() + 1);
    std::copy(face.begin(), face.begin() + rows, &s.connect(0, s.connect.cols() - 1));
  };
  for (unsigned j = 0; j < ny; ++j)
    for (unsigned i = 0; i < nx; ++i) {
      const unsigned a = j * (nx + 1) + i, b = a + 1, c = b + nx + 1, d = a + nx + 1;
      if (kind == face_kind::Q4 || (kind == face_kind::mixed && (i + j) % 2 == 0)) {
        add({a, b, c, d});
      } else {
        add({a, b, c, absent});
        add({a, c, d, absent});
      }
    }
  return s;
}

// The grid stood up in the plane y = 0 at 1 <= x <= 2, (x, y) -> (1 + x, 0, y), its faces
// reversed so that their normals point along +y: ready to turn about the z axis.
surface standing(face_kind kind) {
  surface s = grid(kind, 2, 2);
  for (std::size_t n = 0; n < s.coords.cols(); ++n)
    s.coords(2, n) = s.coords(1, n), s.coords(1, n) = 0, s.coords(0, n) += 1;
  for (std::size_t j = 0; j < s.connect.cols(); ++j)
    std::swap(s.connect(1, j), s.connect(s.connect.rows() == 4 && s.connect(3, j) != absent ? 3 : 2, j));
  return s;
}

// Signed volume of W6 and H8 columns (6 rows, or 8 with ~0U in rows 6-7 for a W6) as the
// integral of the Jacobian of their trilinear map, a W6 being the H8 whose corners 2, 3
// and 6, 7 coincide. The 2-point Gauss rule is exact for these maps, so flat and warped
// faces alike are measured exactly.
double solid_volume(const dense2D<double>& xyz, const dense2D<unsigned>& E) {
  static const int corner[8][3] = {{-1, -1, -1}, {1, -1, -1}, {1, 1, -1}, {-1, 1, -1},
                                   {-1, -1, 1},  {1, -1, 1},  {1, 1, 1},  {-1, 1, 1}};
  static const unsigned as_wedge[8] = {0, 1, 2, 2, 3, 4, 5, 5};
  const double g = 1 / std::sqrt(3.0);
  double total = 0;
  for (std::size_t e = 0; e < E.cols(); ++e)
    for (int q = 0; q < 8; ++q) {
      const double at[3] = {q & 1 ? g : -g, q & 2 ? g : -g, q & 4 ? g : -g};
      double J[3][3] = {};  // J[c][k]: derivative of coordinate c along reference direction k
      for (unsigned a = 0; a < 8; ++a) {
        const double* p = &xyz(0, E(E.rows() == 6 || E(6, e) == absent ? as_wedge[a] : a, e));
        for (unsigned k = 0; k < 3; ++k) {
          double dN = corner[a][k] / 8.0;
          for (unsigned m = 0; m < 3; ++m) dN *= m == k ? 1 : 1 + corner[a][m] * at[m];
          for (unsigned c = 0; c < 3; ++c) J[c][k] += dN * p[c];
        }
      }
      total += J[0][0] * (J[1][1] * J[2][2] - J[2][1] * J[1][2]) - J[1][0] * (J[0][1] * J[2][2] - J[2][1] * J[0][2]) +
               J[2][0] * (J[0][1] * J[1][2] - J[1][1] * J[0][2]);
    }
  return total;
}

// ---- layer count and distribution ----------------------------------------------------------

TEST(extrusion_core, layer_count_rounds_at_the_geometric_mean) {
  const double x[6] = {2.4, 2.46, 0.01, 0.01, 4.9, 4.8};  // 5.76 < 2 x 3; 6.05 >= 6; never below m; 24.01 >= 4 x 6
  const unsigned m[6] = {1, 1, 1, 2, 2, 2}, expected[6] = {2, 3, 1, 2, 6, 4};
  for (int k = 0; k < 6; ++k) EXPECT_EQ(elfes::round_layer_count(x[k], m[k]), expected[k]) << x[k];
  // A uniform size L / n gives n layers even when L * (1 / h) falls just below n.
  std::uint64_t N = 0;
  for (unsigned n : {1u, 3u, 7u, 10u, 49u, 1000u}) {
    ASSERT_TRUE(elfes::layer_count(0.7, 0.7 / n, 0.7 / n, false, N));
    EXPECT_EQ(N, n);
  }
  // Tiny sizes or an undefined length cannot give a layer count.
  EXPECT_FALSE(elfes::layer_count(1.0, 1e-300, 1e-300, false, N));
  EXPECT_FALSE(elfes::layer_count(std::nan(""), 1, 1, false, N));
}

TEST(extrusion_core, layers_per_length_matches_the_integral_on_every_branch) {
  // The integral of 1/h for h linear from hmin to hmax over a unit length,
  // ln(hmax / hmin) / (hmax - hmin) = (1 / hmax) sum e^k / (k + 1) with e = 1 - hmin / hmax;
  // the sum is taken far beyond the terms the library uses.
  for (double ratio : {0.5, 0.98, 0.995, 0.9999, 1 - 1e-9, 1 - 1e-13})
    for (bool swap : {false, true}) {
      const double hmin = 0.3 * ratio, hmax = 0.3, e = (hmax - hmin) / hmax;
      double sum = 0;
      for (int k = 60; k >= 0; --k) sum = sum * e + 1.0 / (k + 1);
      const double expected = e > 0.1 ? std::log(hmax / hmin) / (hmax - hmin) : sum / hmax;
      const double got = swap ? elfes::layers_per_length(hmax, hmin) : elfes::layers_per_length(hmin, hmax);
      EXPECT_NEAR(got, expected, 1e-12 * expected) << ratio;
    }
}

TEST(extrusion_core, layer_fractions_grow_geometrically) {
  // Growing, shrinking, and close enough for the series branches.
  const double sizes[4][2] = {{0.1, 0.2}, {0.2, 0.1}, {0.1, 0.0995}, {0.1, 0.1000001}};
  for (const auto& h : sizes)
    for (unsigned N : {2u, 7u, 20u}) {
      std::vector<double> u(N + 1);
      for (unsigned k = 0; k <= N; ++k) u[k] = elfes::layer_fraction(k * (1.0 / N), h[0], h[1]);
      EXPECT_EQ(u[0], 0.0);
      EXPECT_EQ(u[N], 1.0);
      for (unsigned k = 1; k < N; ++k)
        EXPECT_NEAR((u[k + 1] - u[k]) / (u[k] - u[k - 1]), std::pow(h[1] / h[0], 1.0 / N), 1e-9) << h[1] << " " << N;
    }
  for (unsigned k = 0; k <= 9; ++k) EXPECT_EQ(elfes::layer_fraction(k / 9.0, 0.4, 0.4), k / 9.0);
}

TEST(extrusion_core, rotation_matrix_is_rodrigues_on_both_branches) {
  const double zero[3] = {0, 0, 0};
  const elfes::rotation3 I = elfes::rotation_matrix(zero);
  for (unsigned i = 0; i < 9; ++i) EXPECT_EQ(I.m[i], i % 4 == 0 ? 1.0 : 0.0);
  // Rotation about an oblique unit axis n: v cos t + (n x v) sin t + n (n . v)(1 - cos t),
  // just below, at and above the series threshold and far from it.
  const double n[3] = {2 / 7.0, 3 / 7.0, 6 / 7.0}, v[3] = {0.3, -1.1, 0.7};
  const double nv = n[0] * v[0] + n[1] * v[1] + n[2] * v[2];
  const double cross[3] = {n[1] * v[2] - n[2] * v[1], n[2] * v[0] - n[0] * v[2], n[0] * v[1] - n[1] * v[0]};
  for (double t : {1e-9, 0.05, 0.1, 0.1 + 1e-12, 0.7, pi / 2, 3.0}) {
    const double w[3] = {t * n[0], t * n[1], t * n[2]};
    double got[3];
    elfes::rotation_matrix(w).apply(v, got);
    for (unsigned c = 0; c < 3; ++c)
      EXPECT_NEAR(got[c], v[c] * std::cos(t) + cross[c] * std::sin(t) + n[c] * nv * (1 - std::cos(t)), 1e-15) << t;
  }
}

// ---- numbering ------------------------------------------------------------------------------

TEST(extrude_translate, numbering_lateral_faces_and_far_cap) {
  // A quadrangle (4, 0, 1, 3) and a triangle (0, 2, 1): the map order is 4, 0, 1, 3, 2, so
  // with 6 nodes on entry layer 1 is 6 + (1, 2, 4, 3 for nodes 0, 1, 2, 3; 0 for node 4).
  dense2D<double> coords(3, 6, {0, 0, 0, 1, 0, 0, 0.5, -1, 0, 1, 1, 0, 0, 1, 0, 9, 9, 9});
  const dense2D<unsigned> S(4, 2, {4, 0, 1, 3, 0, 2, 1, absent});
  dense2D<unsigned> E(8, 1, 5u), Q4(4, 1, 5u), Top(4, 1, 5u);  // existing columns stay in front
  ASSERT_EQ(t3::extrude_translate(coords, S, vec3(0, 0, 1), 2u, E, dense2D<unsigned>(2, 1, {0, 1}), Q4, Top), 0);
  EXPECT_TRUE(same(E, dense2D<unsigned>(8, 5, {5,  5, 5,      5,      5, 5,  5,  5,  4,  0,  1,      3,     6, 7,
                                               8,  9, 6,      7,      8, 9,  11, 12, 13, 14, 0,      2,     1, 7,
                                               10, 8, absent, absent, 7, 10, 8,  12, 15, 13, absent, absent})));
  EXPECT_TRUE(same(Q4, dense2D<unsigned>(4, 3, {5, 5, 5, 5, 1, 0, 7, 8, 8, 7, 12, 13})));
  EXPECT_TRUE(same(Top, dense2D<unsigned>(4, 3, {5, 5, 5, 5, 11, 14, 13, 12, 12, 13, 15, absent})));
  // Node 6 + 5 (k - 1) + i is the i-th node of the map order moved by k/2 along z.
  const unsigned order[5] = {4, 0, 1, 3, 2};
  ASSERT_EQ(coords.cols(), 16u);
  EXPECT_EQ(coords(2, 5), 9.0);  // old nodes untouched
  for (unsigned k = 1; k <= 2; ++k)
    for (unsigned i = 0; i < 5; ++i)
      for (unsigned c = 0; c < 3; ++c)
        EXPECT_EQ(coords(c, 6 + 5 * (k - 1) + i), coords(c, order[i]) + (c == 2 ? k * 0.5 : 0.0));
}

TEST(extrude_normal, zero_layers_give_only_the_reversed_surface) {
  surface s = grid(face_kind::mixed, 2, 1);  // a quadrangle (0, 1, 4, 3), triangles (1, 2, 5) and (1, 5, 4)
  dense2D<unsigned> E, E2, Q4, Top;
  ASSERT_EQ(t3::extrude_normal(s.coords, s.connect, dense2D<double>(3, 6, 1.0), 0u, E, E2, Q4, Top), 0);
  EXPECT_EQ(s.coords.cols(), 6u);
  EXPECT_EQ(E.rows(), 8u);
  EXPECT_EQ(E.cols(), 0u);
  EXPECT_TRUE(same(Top, dense2D<unsigned>(4, 3, {0, 3, 4, 1, 1, 5, 2, absent, 1, 4, 5, absent})));
}

// ---- volumes ---------------------------------------------------------------------------------

class extrusion_volume : public ::testing::TestWithParam<face_kind> {};

TEST_P(extrusion_volume, translation_and_normals_give_area_times_height) {
  for (double dz : {0.7, -0.7}) {
    surface s = grid(GetParam(), 3, 2, 2.0, 1.5);
    dense2D<unsigned> E;
    ASSERT_EQ(t3::extrude_translate(s.coords, s.connect, vec3(0.3, -0.2, dz), 3u, E), 0);  // slanted
    EXPECT_EQ(E.rows(), 2 * s.connect.rows());
    EXPECT_EQ(E.cols(), 3 * s.connect.cols());
    EXPECT_NEAR(solid_volume(s.coords, E), s.area * dz, 1e-12);
  }
  // Along the unit normals (+z), then along given normals of length 0.4.
  surface s = grid(GetParam(), 3, 3, 1.0, 2.0), g = s;
  dense2D<unsigned> E, F;
  ASSERT_EQ(t3::extrude_normal(s.coords, s.connect, 0.4, 4u, E), 0);
  EXPECT_NEAR(solid_volume(s.coords, E), s.area * 0.4, 1e-12);
  for (std::size_t n = 16; n < s.coords.cols(); ++n) EXPECT_NEAR(s.coords(2, n), 0.1 * ((n - 16) / 16 + 1), 1e-15);
  dense2D<double> normals(3, 16, 0.0);
  for (std::size_t n = 0; n < 16; ++n) normals(2, n) = 0.4;
  ASSERT_EQ(t3::extrude_normal(g.coords, g.connect, normals, 4u, F), 0);
  EXPECT_NEAR(solid_volume(g.coords, F), g.area * 0.4, 1e-12);
}

TEST_P(extrusion_volume, rotation_approaches_pappus_as_layers_grow) {
  // The unit square at 1 <= x <= 2 turned about z: each layer is a prism of trapezoidal
  // section, so N layers give 1.5 N sin(angle / N) exactly, within (angle / N)^2 / 6 of
  // Pappus' 1.5 angle.
  const double angle = 2.0;
  double previous_error = 1;
  for (unsigned N : {2u, 4u, 8u, 16u, 32u}) {
    surface s = standing(GetParam());
    dense2D<unsigned> E;
    ASSERT_EQ(t3::extrude_rotate(s.coords, s.connect, vec3(0, 0, 0), vec3(0, 0, angle), N, E), 0);
    const double V = solid_volume(s.coords, E), pappus = 1.5 * angle, error = std::abs(V - pappus);
    EXPECT_NEAR(V, 1.5 * N * std::sin(angle / N), 1e-12);
    EXPECT_LE(error, pappus * std::pow(angle / N, 2) / 6);
    EXPECT_LT(error, previous_error);
    previous_error = error;
  }
}

INSTANTIATE_TEST_SUITE_P(faces, extrusion_volume, ::testing::Values(face_kind::T3, face_kind::Q4, face_kind::mixed));

TEST(extrude_spiral, helix_is_the_rotation_plus_a_proportional_shift) {
  surface s = standing(face_kind::mixed), r = s;
  dense2D<unsigned> E, F;
  const vec3 C(0, 0, 0), R(0, 0, 2.0), T(0, 0, 0.8);
  ASSERT_EQ(t3::extrude_spiral(s.coords, s.connect, C, R, T, 5u, E), 0);
  ASSERT_EQ(t3::extrude_rotate(r.coords, r.connect, C, R, 5u, F), 0);
  ASSERT_EQ(s.coords.cols(), r.coords.cols());
  for (std::size_t n = 9; n < s.coords.cols(); ++n)
    for (unsigned c = 0; c < 3; ++c)
      EXPECT_NEAR(s.coords(c, n), r.coords(c, n) + (c == 2 ? 0.16 * ((n - 9) / 9 + 1) : 0), 1e-14);
  // The axial shift slides the section in its own plane: the volume is the rotation's.
  EXPECT_NEAR(solid_volume(s.coords, E), 1.5 * 5 * std::sin(2.0 / 5), 1e-12);
}

TEST(extrusion_sizes, layers_grow_from_h0_to_h1_in_every_family) {
  // Each family sweeps node 0 of the unit square by a length of 1: along z, about the z
  // axis through (-1, 0, 0) (an angle of 1), along that helix climbing by 1, along the
  // normals. ln 2 / 0.1 = 6.93 layers: 7, or 8 when even (6.93^2 = 48.05 >= 6 x 8).
  const vec3 C(-1, 0, 0), R(0, 0, 1), T(0, 0, 1);
  for (bool even : {false, true}) {
    const unsigned N = even ? 8 : 7;
    std::vector<double> u[4];  // the fraction of the sweep at the end of each layer
    for (int family = 0; family < 4; ++family) {
      surface s = grid(face_kind::T3, 1, 1);
      dense2D<unsigned> E;
      ASSERT_EQ(family == 0   ? t3::extrude_translate(s.coords, s.connect, T, 0.1, 0.2, even, E)
                : family == 1 ? t3::extrude_rotate(s.coords, s.connect, C, R, 0.1, 0.2, even, E)
                : family == 2 ? t3::extrude_spiral(s.coords, s.connect, C, R, T, 0.1, 0.2, even, E)
                              : t3::extrude_normal(s.coords, s.connect, 1.0, 0.1, 0.2, even, E),
                0);
      ASSERT_EQ(E.cols(), N * 2);
      for (unsigned k = 0; k <= N; ++k) {
        const double* p = &s.coords(0, k == 0 ? 0 : 4 + 4 * (k - 1));
        u[family].push_back(family == 1 ? std::atan2(p[1], p[0] + 1) : p[2]);
      }
    }
    EXPECT_NEAR(u[0][N], 1.0, 1e-15);
    if (!even) {  // about h0 next to the surface, about h1 at the cap
      EXPECT_NEAR(u[0][1], 0.1, 0.01);
      EXPECT_NEAR(u[0][N] - u[0][N - 1], 0.2, 0.015);
    }
    for (int family = 1; family < 4; ++family)
      for (unsigned k = 0; k <= N; ++k) EXPECT_NEAR(u[family][k], u[0][k], 1e-14) << family << " " << k;
  }
}

TEST(extrude_rotate, planar_nodes_are_lifted_and_turned) {
  // A planar (2-row) triangle turned a quarter about the x axis in one layer: the old
  // nodes get z = 0, their copies are (x, 0, y).
  dense2D<double> coords(2, 3, {1, 0, 2, 0, 1, 1});
  dense2D<unsigned> E;
  ASSERT_EQ(t3::extrude_rotate(coords, dense2D<unsigned>(3, 1, {0, 1, 2}), vec3(0, 0, 0), vec3(pi / 2, 0, 0), 1u, E),
            0);
  const double expected[18] = {1, 0, 0, 2, 0, 0, 1, 1, 0, 1, 0, 0, 2, 0, 0, 1, 0, 1};
  ASSERT_EQ(coords.rows() * coords.cols(), 18u);
  for (int k = 0; k < 18; ++k) EXPECT_NEAR(coords.data()[k], expected[k], 1e-15) << k;
}

// ---- extrusion along a polyline ---------------------------------------------------------------

using tessel3d_test::append_nodes;

TEST(extrude_line, straight_polyline_equals_the_translation) {
  surface s = grid(face_kind::mixed, 3, 2), t = grid(face_kind::mixed, 3, 2);
  const unsigned n = append_nodes(s.coords, {vec3(0.5, 0.5, 0), vec3(0.5, 0.5, 1), vec3(0.5, 0.5, 2)});
  append_nodes(t.coords, {vec3(0.5, 0.5, 0), vec3(0.5, 0.5, 1), vec3(0.5, 0.5, 2)});
  const dense1D<unsigned, 8> line = {n, n + 1, n + 2};
  tessel3d_test::scene a, b;
  a.E2 = b.E2 = dense2D<unsigned>(2, 2, {0, 1, 1, 2});
  ASSERT_EQ(t3::extrude_line(s.coords, s.connect, line, vec3(0, 0, 1), dense2D<double>(), a.E, a.E2, a.Q4, a.Top), 0);
  ASSERT_EQ(t3::extrude_translate(t.coords, t.connect, vec3(0, 0, 2), 2u, b.E, b.E2, b.Q4, b.Top), 0);
  a.coords = s.coords, b.coords = t.coords;
  tessel3d_test::expect_same(a, b, "line against translation");
  EXPECT_NEAR(solid_volume(s.coords, a.E), s.area * 2, 1e-12);
}

TEST(extrude_line, polyline_from_a_section_node_replaces_its_copies) {
  // The unit square at z = 0 swept along its node 0 -> (0,0,1) -> (1,0,1): the polyline's
  // nodes stand in for the copies of node 0.
  surface s = grid(face_kind::Q4, 1, 1);
  const dense1D<unsigned, 8> line = {0, append_nodes(s.coords, {vec3(0, 0, 1), vec3(1, 0, 1)}), 5};
  dense2D<unsigned> E;
  ASSERT_EQ(t3::extrude_line(s.coords, s.connect, line, vec3(0, 0, 1), dense1D<double, 8>(), E), 0);
  // 6 nodes on entry, 3 new per layer; layer 1 of node 0 is the polyline node 4.
  ASSERT_EQ(s.coords.cols(), 12u);
  ASSERT_EQ(E.cols(), 2u);
  EXPECT_EQ(E(4, 0), 4u);
  EXPECT_EQ(E(0, 1), 4u);
  EXPECT_EQ(E(4, 1), 5u);
  for (std::size_t k = 0; k < 16; ++k) EXPECT_LT(E.data()[k], 12u);
  // Layer 1 is the square lifted by 1; layer 2 turned by 90 degrees about y onto x = 1.
  EXPECT_NEAR(solid_volume(s.coords, E.sub_matrix(0, 0, 8, 1)), 1.0, 1e-12);
  const unsigned corner = E(6, 1);  // copy of node 3 = (1, 1, 0) in layer 2
  for (unsigned c = 0; c < 3; ++c) EXPECT_NEAR(s.coords(c, corner), c < 2 ? 1.0 : 0.0, 1e-15);
}

TEST(extrude_line, factors_and_tensors_scale_the_section) {
  surface s = grid(face_kind::T3, 2, 2);
  for (std::size_t n = 0; n < s.coords.cols(); ++n) s.coords(0, n) -= 0.5, s.coords(1, n) -= 0.5;
  const unsigned n = append_nodes(s.coords, {vec3(0, 0, 0), vec3(0, 0, 1), vec3(0, 0, 2), vec3(0, 0, 3)});
  const dense1D<unsigned, 8> line = {n, n + 1, n + 2, n + 3};
  surface f = s;
  dense2D<unsigned> E, F;
  ASSERT_EQ(t3::extrude_line(f.coords, f.connect, line, vec3(0, 0, 1), dense1D<double, 8>{7, 2, 2, 1}, E), 0);
  // Layer k holds the surface nodes (in order of first appearance) scaled by (1, 2, 2, 1)[k], at z = k.
  const double scale[4] = {1, 2, 2, 1};
  std::vector<unsigned> order;
  for (std::size_t k = 0; k < s.connect.rows() * s.connect.cols(); ++k)
    if (std::find(order.begin(), order.end(), s.connect.data()[k]) == order.end()) order.push_back(s.connect.data()[k]);
  for (unsigned k = 1; k <= 3; ++k)
    for (unsigned i = 0; i < 9; ++i)
      for (unsigned c = 0; c < 3; ++c)
        EXPECT_NEAR(f.coords(c, 13 + 9 * (k - 1) + i), c == 2 ? k : scale[k] * s.coords(c, order[i]), 1e-14);
  // Sections of area 1, 4, 4, 1 one unit apart: two pyramid frustums around a box.
  const double frustum = (1 + 4 + std::sqrt(4.0)) / 3;
  EXPECT_NEAR(solid_volume(f.coords, E), frustum + 4 + frustum, 1e-12);

  // Isotropic tensors 1 / g^2 I give the same sizes; a tensor that is not positive
  // definite counts as size 1.
  dense2D<double> metrics(6, 4, 0.0);
  for (unsigned k = 0; k < 4; ++k) metrics(0, k) = metrics(2, k) = metrics(5, k) = 1 / (scale[k] * scale[k]);
  surface m = s;
  ASSERT_EQ(t3::extrude_line(m.coords, m.connect, line, vec3(0, 0, 1), metrics, F), 0);
  for (std::size_t node = 13; node < m.coords.cols(); ++node)
    for (unsigned c = 0; c < 3; ++c) EXPECT_NEAR(m.coords(c, node), f.coords(c, node), 1e-14);
  metrics(5, 2) = -1;
  m = s;
  ASSERT_EQ(t3::extrude_line(m.coords, m.connect, line, vec3(0, 0, 1), metrics, F), 0);
  EXPECT_NEAR(std::abs(m.coords(0, 13 + 9)), 0.5, 1e-14);   // layer 2: factor 1 / g1 = 1/2
  EXPECT_NEAR(std::abs(m.coords(0, 13 + 18)), 0.5, 1e-14);  // layer 3: factor g3 / 1 = 1
}

// ---- status codes in validation order -------------------------------------------------------

// Bad arguments: coords with 4 rows, or 2 (planar: only the normal and line extrusions
// refuse them); a surface node ID equal to the node count, ~0U where a triangle needs a
// node, no face; the first node of the first face out of range, or on the rotation axis
// (a sweep length of 0); h0 = 0 or NaN, h1 < 0, thickness 0, T = 0; normals with fewer
// columns than the surface has nodes, or 2 rows; a polyline of one node, or with a node
// out of range; metrics with 5 rows; outputs with the wrong row count; no layer.
enum bad {
  layers_zero,
  coords_rows,
  coords_planar,
  surface_id,
  surface_absent,
  surface_empty,
  P0_id,
  P0_at_C,
  h0_zero,
  h0_nan,
  h1_negative,
  thickness_zero,
  T_zero,
  normals_cols,
  normals_rows,
  line_short,
  line_id,
  metrics_rows,
  E_rows,
  E2_rows,
  Q4_rows,
  Top_rows
};

struct call_args {
  dense2D<double> coords{3, 6, {0, 0, 0, 1, 0, 0, 1, 1, 0, 0, 1, 0, 5, 5, 0, 5, 5, 1}};
  dense2D<unsigned> S{3, 2, {0, 1, 2, 0, 2, 3}}, E, E2, Q4, Top;
  vec3 T{0, 0, 1}, C{-1, 0, 0}, R{0, 0, 1};
  double h0 = 0.5, h1 = 0.5, thickness = 1;
  unsigned n = 2;
  dense2D<double> normals{3, 6, 0.0}, metrics;
  dense1D<unsigned, 8> line{4, 5};
  dense1D<double, 8> scales;

  void apply(bad b) {
    switch (b) {
      case layers_zero: n = 0; break;
      case coords_rows: coords.resize(4, coords.cols(), 0.0); break;
      case coords_planar: coords.resize(2, coords.cols()); break;
      case surface_id: S(2, 1) = static_cast<unsigned>(coords.cols()); break;
      case surface_absent: S(1, 0) = absent; break;
      case surface_empty: S = dense2D<unsigned>(3, 0); break;
      case P0_id: S(0, 0) = 99; break;
      case P0_at_C: C = vec3(0, 0, 0); break;
      case h0_zero: h0 = 0; break;
      case h0_nan: h0 = std::nan(""); break;
      case h1_negative: h1 = -1; break;
      case thickness_zero: thickness = 0; break;
      case T_zero: T = vec3(0, 0, 0); break;
      case normals_cols: normals.resize(normals.rows(), 3); break;
      case normals_rows: normals.resize(2, normals.cols()); break;
      case line_short: line = dense1D<unsigned, 8>{4}; break;
      case line_id: line = dense1D<unsigned, 8>{4, 6}; break;
      case metrics_rows: metrics = dense2D<double>(5, 2, 1.0); break;
      case E_rows: E = dense2D<unsigned>(7, 1, 0u); break;
      case E2_rows: E2 = dense2D<unsigned>(3, 1, 0u); break;
      case Q4_rows: Q4 = dense2D<unsigned>(3, 1, 0u); break;
      case Top_rows: Top = dense2D<unsigned>(5, 1, 0u); break;
    }
  }
};

struct form_codes {
  const char* name;
  int (*call)(call_args&);        // the long form
  int (*short_call)(call_args&);  // the short form with the same arguments but E2, Q4 and Top
  // In validation order: case i is run with every bad argument from i on, so the
  // earlier check must win.
  std::vector<std::pair<bad, int>> chain;
  std::vector<std::pair<std::vector<bad>, int>> alone;  // each set on its own
};

// A form's name, then its long and short forms with the given leading arguments.
#define TESSEL3D_FORMS(name, call, ...)                                         \
  name, [](call_args& a) { return call(__VA_ARGS__, a.E, a.E2, a.Q4, a.Top); }, \
      [](call_args& a) { return call(__VA_ARGS__, a.E); }

using check_list = std::vector<std::pair<bad, int>>;

// The checks of a form's arguments, then those of its four outputs from code `first` on.
check_list then_outputs(check_list checks, int first) {
  for (bad b : {E_rows, E2_rows, Q4_rows, Top_rows}) checks.push_back({b, first--});
  return checks;
}

const std::vector<form_codes>& status_table() {
  static const std::vector<bad> idle = {layers_zero, coords_rows, E_rows};  // no layer: 0 before any check
  static const std::vector<form_codes> table = {
      {TESSEL3D_FORMS("translate sizes", t3::extrude_translate, a.coords, a.S, a.T, a.h0, a.h1, false),
       then_outputs({{coords_rows, -1}, {surface_id, -2}, {h0_zero, -4}, {h1_negative, -5}}, -7),
       {{{surface_absent}, -2}, {{h0_nan}, -4}, {{coords_planar}, 0}, {{surface_empty}, 0}, {{T_zero}, 0}}},
      {TESSEL3D_FORMS("translate layers", t3::extrude_translate, a.coords, a.S, a.T, a.n),
       then_outputs({{coords_rows, -1}, {surface_id, -2}, {T_zero, -4}}, -7),
       {{idle, 0}}},
      {TESSEL3D_FORMS("rotate sizes", t3::extrude_rotate, a.coords, a.S, a.C, a.R, a.h0, a.h1, false),
       then_outputs({{coords_rows, -1}, {surface_id, -2}, {h0_zero, -5}, {h1_negative, -6}}, -8),
       {{{coords_planar}, 0}, {{P0_at_C}, 0}}},
      {TESSEL3D_FORMS("rotate layers", t3::extrude_rotate, a.coords, a.S, a.C, a.R, a.n),
       {{coords_rows, -1},
        {P0_id, -2},
        {E_rows, -6},
        {E2_rows, -7},
        {Q4_rows, -8},
        {Top_rows, -9},
        {surface_id, -2},
        {P0_at_C, -5}},
       {{{surface_empty}, 0}, {idle, 0}, {{surface_empty, E_rows}, 0}}},
      {TESSEL3D_FORMS("spiral sizes", t3::extrude_spiral, a.coords, a.S, a.C, a.R, a.T, a.h0, a.h1, false),
       then_outputs({{coords_rows, -1}, {surface_id, -2}, {h0_zero, -5}, {h1_negative, -6}}, -8),
       {{{coords_planar}, 0}, {{T_zero}, 0}}},  // sizes given: T = 0 is one turning layer
      {TESSEL3D_FORMS("spiral layers", t3::extrude_spiral, a.coords, a.S, a.C, a.R, a.T, a.n),
       {{E_rows, -7}, {Top_rows, -8}, {coords_rows, -1}, {surface_id, -2}, {T_zero, -5}, {E2_rows, -9}, {Q4_rows, -10}},
       {{idle, 0}, {{surface_empty, E_rows}, -7}}},  // its pre-checks come before the empty surface
      {TESSEL3D_FORMS("normal given", t3::extrude_normal, a.coords, a.S, a.normals, a.n),
       then_outputs({{coords_planar, -1}, {normals_cols, -2}, {normals_rows, -3}}, -5),
       {{{coords_rows}, -1}, {{surface_id}, -2}, {{surface_absent}, -2}, {{surface_empty}, 0}}},
      {TESSEL3D_FORMS("normal thickness sizes", t3::extrude_normal, a.coords, a.S, a.thickness, a.h0, a.h1, false),
       then_outputs({{coords_planar, -1}, {surface_id, -2}, {thickness_zero, -3}, {h0_zero, -4}, {h1_negative, -5}},
                    -7),
       {{{surface_absent}, -2}}},
      {TESSEL3D_FORMS("normal thickness layers", t3::extrude_normal, a.coords, a.S, a.thickness, a.n),
       {{E_rows, -5},
        {Top_rows, -6},
        {coords_planar, -1},
        {surface_id, -2},
        {thickness_zero, -3},
        {E2_rows, -8},
        {Q4_rows, -9}},
       {{idle, 0}}},
      {TESSEL3D_FORMS("line tensors", t3::extrude_line, a.coords, a.S, a.line, a.T, a.metrics),
       then_outputs({{coords_planar, -1}, {surface_id, -2}, {line_short, -3}, {metrics_rows, -5}}, -6),
       {{{line_id}, -3}, {{surface_empty}, 0}}},
      {TESSEL3D_FORMS("line factors", t3::extrude_line, a.coords, a.S, a.line, a.T, a.scales),
       then_outputs({{coords_planar, -1}, {surface_id, -2}, {line_short, -3}}, -6),
       {{{line_id}, -3}}},
  };
  return table;
}

#undef TESSEL3D_FORMS

// A failing check writes nothing, nor does a call without layers or faces. The short
// forms give the long forms' codes for the arguments they have.
TEST(extrusion_status, every_code_in_validation_order_and_nothing_written) {
  const auto untouched = [](const call_args& a) { return tessel3d_test::bytes_of(a.coords, a.E, a.E2, a.Q4, a.Top); };
  for (const form_codes& form : status_table())
    for (const bool is_short : {false, true}) {
      SCOPED_TRACE(std::string(form.name) + (is_short ? " short" : " long"));
      auto has = [&](bad b) { return !is_short || (b != E2_rows && b != Q4_rows && b != Top_rows); };
      const std::function<int(call_args&)> call = [&](call_args& a) {
        return is_short ? form.short_call(a) : form.call(a);
      };
      std::vector<tessel3d_test::bad_argument<call_args>> chain;
      for (const auto& [b, code] : form.chain)
        if (has(b)) chain.push_back({std::to_string(b), [b = b](call_args& a) { a.apply(b); }, code});
      tessel3d_test::expect_checks_in_order(chain, call, untouched);
      for (const auto& [set, code] : form.alone) {
        call_args a;
        for (bad b : set) a.apply(b);
        const std::string before = untouched(a);
        EXPECT_EQ(call(a), code) << "bad argument " << set[0];
        if (code != 0 || a.n == 0 || a.S.cols() == 0) {
          EXPECT_TRUE(untouched(a) == before) << "bad argument " << set[0];
        }
      }
    }
}

// ---- existing outputs ------------------------------------------------------------------------------

TEST(extrusion_views, wedges_join_an_existing_six_row_mesh_as_mixed_columns) {
  surface s = grid(face_kind::Q4, 1, 1);  // the quadrangle (0, 1, 3, 2)
  dense2D<unsigned> E(6, 1, {0, 1, 2, 0, 1, 2});
  ASSERT_EQ(t3::extrude_translate(s.coords, s.connect, vec3(0, 0, 1), 1u, E), 0);
  EXPECT_TRUE(same(E, dense2D<unsigned>(8, 2, {0, 1, 2, 0, 1, 2, absent, absent, 0, 1, 3, 2, 4, 5, 6, 7})));
}

}  // namespace
