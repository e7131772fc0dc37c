// Extrusion: layer counts and distribution, numbering, volumes of every family against
// closed forms, status codes in validation order, roll-back after allocation failures.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <functional>
#include <limits>
#include <vector>

#include "box_mesh.h"
#include "extrude/extrude_core.h"
#include "extrude/rotation.h"
#include "failing_allocator.h"
#include "zel/tessel3d.h"

namespace {

using zel::dense1D;
using zel::dense2D;
using vec3 = zel::vector_fixed<double, 3>;
namespace t3 = zel::tessel3d;
using tessel3d_test::failing_allocator;
using tessel3d_test::padded_view;

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
  surface s;
  s.area = lx * ly;
  s.coords.resize(3, std::size_t(nx + 1) * (ny + 1));
  for (unsigned j = 0; j <= ny; ++j)
    for (unsigned i = 0; i <= nx; ++i) {
      double* p = &s.coords(0, j * (nx + 1) + i);
      p[0] = lx * i / nx, p[1] = ly * j / ny, p[2] = 0;
    }
  std::vector<std::vector<unsigned>> faces;
  for (unsigned j = 0; j < ny; ++j)
    for (unsigned i = 0; i < nx; ++i) {
      const unsigned a = j * (nx + 1) + i, b = a + 1, c = b + nx + 1, d = a + nx + 1;
      if (kind == face_kind::Q4 || (kind == face_kind::mixed && (i + j) % 2 == 0)) {
        faces.push_back({a, b, c, d});
      } else {
        faces.push_back({a, b, c, absent});
        faces.push_back({a, c, d, absent});
      }
    }
  const unsigned rows = kind == face_kind::T3 ? 3 : 4;
  s.connect.resize(rows, faces.size());
  for (std::size_t f = 0; f < faces.size(); ++f)
    for (unsigned r = 0; r < rows; ++r) s.connect(r, f) = faces[f][r];
  return s;
}

struct jacobian {
  double d[3][3];  // columns: derivatives along the three reference directions
  double det() const {
    return d[0][0] * (d[1][1] * d[2][2] - d[2][1] * d[1][2]) - d[1][0] * (d[0][1] * d[2][2] - d[2][1] * d[0][2]) +
           d[2][0] * (d[0][1] * d[1][2] - d[1][1] * d[0][2]);
  }
};

// Signed volume of W6 and H8 columns (6 rows, or 8 with ~0U in rows 6-7 for a W6) as the
// integral of the Jacobian of their isoparametric map; the Gauss rules used are exact for
// these maps (degree 2 per direction), so flat and warped faces alike are measured exactly.
double solid_volume(const dense2D<double>& xyz, const dense2D<unsigned>& E) {
  const double g = 1 / std::sqrt(3.0);
  double total = 0;
  for (std::size_t e = 0; e < E.cols(); ++e) {
    auto p = [&](unsigned r, unsigned c) { return xyz(c, E(r, e)); };
    const bool wedge = E.rows() == 6 || E(6, e) == absent;
    if (wedge) {
      const double tri[3][2] = {{0.5, 0}, {0.5, 0.5}, {0, 0.5}};
      for (const auto& q : tri)
        for (double z : {-g, g}) {
          const double L[3] = {1 - q[0] - q[1], q[0], q[1]};
          jacobian J;
          for (unsigned c = 0; c < 3; ++c) {
            const double lo = (1 - z) / 2, hi = (1 + z) / 2;
            J.d[c][0] = lo * (p(1, c) - p(0, c)) + hi * (p(4, c) - p(3, c));
            J.d[c][1] = lo * (p(2, c) - p(0, c)) + hi * (p(5, c) - p(3, c));
            J.d[c][2] = 0;
            for (unsigned i = 0; i < 3; ++i) J.d[c][2] += L[i] * (p(i + 3, c) - p(i, c)) / 2;
          }
          total += J.det() / 6;
        }
    } else {
      const int corner[8][3] = {{-1, -1, -1}, {1, -1, -1}, {1, 1, -1}, {-1, 1, -1},
                                {-1, -1, 1},  {1, -1, 1},  {1, 1, 1},  {-1, 1, 1}};
      for (double x : {-g, g})
        for (double y : {-g, g})
          for (double z : {-g, g}) {
            jacobian J{};
            for (unsigned a = 0; a < 8; ++a) {
              const double fx = 1 + corner[a][0] * x, fy = 1 + corner[a][1] * y, fz = 1 + corner[a][2] * z;
              const double dN[3] = {corner[a][0] * fy * fz / 8, fx * corner[a][1] * fz / 8, fx * fy * corner[a][2] / 8};
              for (unsigned c = 0; c < 3; ++c)
                for (unsigned k = 0; k < 3; ++k) J.d[c][k] += dN[k] * p(a, c);
            }
            total += J.det();
          }
    }
  }
  return total;
}

struct outputs {
  dense2D<unsigned> E, E2, Q4, Top;
};

// Surface nodes in order of first appearance (columns in order, ~0U skipped).
std::vector<unsigned> first_appearance(const dense2D<unsigned>& S) {
  std::vector<unsigned> order;
  for (std::size_t j = 0; j < S.cols(); ++j)
    for (std::size_t r = 0; r < S.rows(); ++r)
      if (S(r, j) != absent && std::find(order.begin(), order.end(), S(r, j)) == order.end()) order.push_back(S(r, j));
  return order;
}

// ---- layer count and distribution ----------------------------------------------------------

TEST(extrusion_core, layer_count_rounds_at_the_geometric_mean) {
  EXPECT_EQ(elfes::round_layer_count(2.4, 1), 2u);   // 5.76 < 2 x 3
  EXPECT_EQ(elfes::round_layer_count(2.46, 1), 3u);  // 6.05 >= 6, below the midpoint
  EXPECT_EQ(elfes::round_layer_count(0.01, 1), 1u);  // never below m
  EXPECT_EQ(elfes::round_layer_count(0.01, 2), 2u);
  EXPECT_EQ(elfes::round_layer_count(4.9, 2), 6u);   // 24.01 >= 4 x 6
  EXPECT_EQ(elfes::round_layer_count(4.8, 2), 4u);
  // h0 = 0.1, h1 = 0.2 over a length of 1: ln 2 / 0.1 = 6.93 layers.
  EXPECT_NEAR(elfes::layers_per_length(0.1, 0.2), std::log(2.0) / 0.1, 1e-12);
  std::uint64_t N = 0;
  ASSERT_TRUE(elfes::layer_count(1.0, 0.1, 0.2, false, N));
  EXPECT_EQ(N, 7u);
  ASSERT_TRUE(elfes::layer_count(1.0, 0.2, 0.1, true, N));
  EXPECT_EQ(N, 8u);  // 6.93^2 = 48.05 >= 6 x 8
  // A uniform size L / n gives n layers even when L * (1 / h) falls just below n.
  for (unsigned n : {1u, 3u, 7u, 10u, 49u, 1000u}) {
    const double L = 0.7, h = L / n;
    ASSERT_TRUE(elfes::layer_count(L, h, h, false, N));
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
      const double h0 = h[0], h1 = h[1];
      std::vector<double> u(N + 1);
      for (unsigned k = 0; k <= N; ++k) u[k] = elfes::layer_fraction(k * (1.0 / N), h0, h1);
      EXPECT_EQ(u[0], 0.0);
      EXPECT_EQ(u[N], 1.0);
      const double ratio = std::pow(h1 / h0, 1.0 / N);
      for (unsigned k = 1; k < N; ++k)
        EXPECT_NEAR((u[k + 1] - u[k]) / (u[k] - u[k - 1]), ratio, 1e-9) << h0 << " " << N << " " << k;
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
  for (double t : {1e-9, 0.05, 0.1, 0.1 + 1e-12, 0.7, pi / 2, 3.0}) {
    const double w[3] = {t * n[0], t * n[1], t * n[2]};
    double got[3];
    elfes::rotation_matrix(w).apply(v, got);
    const double nv = n[0] * v[0] + n[1] * v[1] + n[2] * v[2];
    const double cross[3] = {n[1] * v[2] - n[2] * v[1], n[2] * v[0] - n[0] * v[2], n[0] * v[1] - n[1] * v[0]};
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
  outputs o;
  o.E = dense2D<unsigned>(8, 1, 5u);  // existing columns stay in front
  o.Q4 = dense2D<unsigned>(4, 1, 5u);
  o.Top = dense2D<unsigned>(4, 1, 5u);
  o.E2 = dense2D<unsigned>(2, 1, {0, 1});
  ASSERT_EQ(t3::extrude_translate(coords, S, vec3(0, 0, 1), 2u, o.E, o.E2, o.Q4, o.Top), 0);

  const std::vector<std::vector<unsigned>> solids = {
      {5, 5, 5, 5, 5, 5, 5, 5},           {4, 0, 1, 3, 6, 7, 8, 9},
      {6, 7, 8, 9, 11, 12, 13, 14},       {0, 2, 1, 7, 10, 8, absent, absent},
      {7, 10, 8, 12, 15, 13, absent, absent}};
  ASSERT_EQ(o.E.rows(), 8u);
  ASSERT_EQ(o.E.cols(), solids.size());
  for (std::size_t j = 0; j < solids.size(); ++j)
    for (unsigned r = 0; r < 8; ++r) EXPECT_EQ(o.E(r, j), solids[j][r]) << j << " " << r;
  const std::vector<std::vector<unsigned>> quads = {{5, 5, 5, 5}, {1, 0, 7, 8}, {8, 7, 12, 13}};
  const std::vector<std::vector<unsigned>> top = {{5, 5, 5, 5}, {11, 14, 13, 12}, {12, 13, 15, absent}};
  ASSERT_EQ(o.Q4.cols(), 3u);
  ASSERT_EQ(o.Top.cols(), 3u);
  for (std::size_t j = 0; j < 3; ++j)
    for (unsigned r = 0; r < 4; ++r) {
      EXPECT_EQ(o.Q4(r, j), quads[j][r]);
      EXPECT_EQ(o.Top(r, j), top[j][r]);
    }
  // Node 6 + 5 (k - 1) + i is node_ids[i] moved by k/2 along z; old nodes untouched.
  const unsigned order[5] = {4, 0, 1, 3, 2};
  ASSERT_EQ(coords.cols(), 16u);
  EXPECT_EQ(coords(2, 5), 9.0);
  for (unsigned k = 1; k <= 2; ++k)
    for (unsigned i = 0; i < 5; ++i)
      for (unsigned c = 0; c < 3; ++c)
        EXPECT_EQ(coords(c, 6 + 5 * (k - 1) + i), coords(c, order[i]) + (c == 2 ? k * 0.5 : 0.0));
}

TEST(extrude_normal, zero_layers_give_only_the_reversed_surface) {
  surface s = grid(face_kind::mixed, 2, 1);
  dense2D<double> normals(3, s.coords.cols(), 1.0);
  outputs o;
  const std::size_t nodes = s.coords.cols();
  ASSERT_EQ(t3::extrude_normal(s.coords, s.connect, normals, 0u, o.E, o.E2, o.Q4, o.Top), 0);
  EXPECT_EQ(s.coords.cols(), nodes);
  EXPECT_EQ(o.E.rows(), 8u);
  EXPECT_EQ(o.E.cols(), 0u);
  ASSERT_EQ(o.Top.cols(), s.connect.cols());
  for (std::size_t j = 0; j < s.connect.cols(); ++j) {
    const bool quad = s.connect(3, j) != absent;
    EXPECT_EQ(o.Top(0, j), s.connect(0, j));
    EXPECT_EQ(o.Top(1, j), s.connect(quad ? 3 : 2, j));
    EXPECT_EQ(o.Top(quad ? 3 : 2, j), s.connect(1, j));
    if (!quad) {
      EXPECT_EQ(o.Top(3, j), absent);
    }
  }
}

// ---- volumes ---------------------------------------------------------------------------------

class extrusion_volume : public ::testing::TestWithParam<face_kind> {};

TEST_P(extrusion_volume, translation_gives_area_times_height_with_orientation) {
  for (double dz : {0.7, -0.7}) {
    surface s = grid(GetParam(), 3, 2, 2.0, 1.5);
    dense2D<unsigned> E;
    const vec3 T(0.3, -0.2, dz);  // slanted: the volume only sees the height
    ASSERT_EQ(t3::extrude_translate(s.coords, s.connect, T, 3u, E), 0);
    EXPECT_EQ(E.rows(), 2 * s.connect.rows());
    EXPECT_EQ(E.cols(), 3 * s.connect.cols());
    EXPECT_NEAR(solid_volume(s.coords, E), s.area * dz, 1e-12);
  }
}

TEST_P(extrusion_volume, rotation_approaches_pappus_as_layers_grow) {
  // The square [1, 2] x [0, 1] in the plane y = 0, its normal along +y, turned about z:
  // each layer is a prism of trapezoidal section, so N layers give 1.5 N sin(angle / N)
  // exactly, within (angle / N)^2 / 6 of Pappus' 1.5 angle.
  const double angle = 2.0;
  double previous_error = 1;
  for (unsigned N : {2u, 4u, 8u, 16u, 32u}) {
    surface s = grid(GetParam(), 2, 2);
    for (std::size_t n = 0; n < s.coords.cols(); ++n) {  // (x, y) -> (1 + x, 0, y)
      s.coords(2, n) = s.coords(1, n);
      s.coords(1, n) = 0;
      s.coords(0, n) += 1;
    }
    for (std::size_t j = 0; j < s.connect.cols(); ++j) {  // reverse the faces: normal +y
      const bool quad = s.connect.rows() == 4 && s.connect(3, j) != absent;
      std::swap(s.connect(1, j), s.connect(quad ? 3 : 2, j));
    }
    dense2D<unsigned> E;
    ASSERT_EQ(t3::extrude_rotate(s.coords, s.connect, vec3(0, 0, 0), vec3(0, 0, angle), N, E), 0);
    const double V = solid_volume(s.coords, E), pappus = 1.5 * angle;
    EXPECT_NEAR(V, 1.5 * N * std::sin(angle / N), 1e-12);
    const double error = std::abs(V - pappus);
    EXPECT_LE(error, pappus * std::pow(angle / N, 2) / 6);
    EXPECT_LT(error, previous_error);
    previous_error = error;
  }
}

TEST_P(extrusion_volume, flat_surface_along_its_normals_gives_area_times_thickness) {
  surface s = grid(GetParam(), 3, 3, 1.0, 2.0);
  dense2D<unsigned> E;
  ASSERT_EQ(t3::extrude_normal(s.coords, s.connect, 0.4, 4u, E), 0);
  EXPECT_NEAR(solid_volume(s.coords, E), s.area * 0.4, 1e-12);
  // Layers at 0.1, 0.2, 0.3, 0.4 along the unit normals.
  const std::size_t nodes = 16;
  for (unsigned k = 1; k <= 4; ++k) EXPECT_NEAR(s.coords(2, nodes + (k - 1) * nodes + 5), 0.1 * k, 1e-15);

  surface g = grid(GetParam(), 3, 3, 1.0, 2.0);
  dense2D<double> normals(3, g.coords.cols(), 0.0);
  for (std::size_t n = 0; n < normals.cols(); ++n) normals(2, n) = 0.4;
  dense2D<unsigned> F;
  ASSERT_EQ(t3::extrude_normal(g.coords, g.connect, normals, 4u, F), 0);
  EXPECT_NEAR(solid_volume(g.coords, F), g.area * 0.4, 1e-12);
}

INSTANTIATE_TEST_SUITE_P(faces, extrusion_volume, ::testing::Values(face_kind::T3, face_kind::Q4, face_kind::mixed));

TEST(extrude_translate, sizes_grow_layers_from_h0_to_h1) {
  for (bool even : {false, true}) {
    surface s = grid(face_kind::T3, 1, 1);
    dense2D<unsigned> E;
    ASSERT_EQ(t3::extrude_translate(s.coords, s.connect, vec3(0, 0, 1), 0.1, 0.2, even, E), 0);
    const unsigned N = even ? 8 : 7;
    ASSERT_EQ(E.cols(), N * 2);
    ASSERT_EQ(s.coords.cols(), 4 + 4 * N);
    std::vector<double> z(N + 1, 0.0);
    for (unsigned k = 1; k <= N; ++k) z[k] = s.coords(2, 4 + 4 * (k - 1));
    EXPECT_NEAR(z[N], 1.0, 1e-15);
    if (!even) {  // 7 layers for 6.93: about h0 next to the surface, about h1 at the cap
      EXPECT_NEAR(z[1], 0.1, 0.01);
      EXPECT_NEAR(z[N] - z[N - 1], 0.2, 0.015);
    }
    for (unsigned k = 1; k < N; ++k)
      EXPECT_NEAR((z[k + 1] - z[k]) / (z[k] - z[k - 1]), std::pow(2.0, 1.0 / N), 1e-9);
  }
}

TEST(extrude_translate, planar_coordinates_become_three_rows) {
  surface s = grid(face_kind::Q4, 2, 2);
  dense2D<double> flat(2, s.coords.cols());
  for (std::size_t n = 0; n < flat.cols(); ++n) flat(0, n) = s.coords(0, n), flat(1, n) = s.coords(1, n);
  dense2D<unsigned> E;
  ASSERT_EQ(t3::extrude_translate(flat, s.connect, vec3(0, 0, 1), 2u, E), 0);
  ASSERT_EQ(flat.rows(), 3u);
  for (std::size_t n = 0; n < 9; ++n) {
    EXPECT_EQ(flat(0, n), s.coords(0, n));
    EXPECT_EQ(flat(2, n), 0.0);
    EXPECT_EQ(flat(2, 9 + n), 0.5);
    EXPECT_EQ(flat(2, 18 + n), 1.0);
  }
}

TEST(extrude_rotate, quarter_turn_places_uniform_angles_and_lifts_planar_nodes) {
  // A planar (2-row) triangle turned about the x axis leaves its plane: its copies get
  // their z from the rotation.
  dense2D<double> coords(2, 3, {1, 0, 2, 0, 1, 1});
  const dense2D<unsigned> S(3, 1, {0, 1, 2});
  dense2D<unsigned> E;
  ASSERT_EQ(t3::extrude_rotate(coords, S, vec3(0, 0, 0), vec3(pi / 2, 0, 0), 4u, E), 0);
  ASSERT_EQ(coords.rows(), 3u);
  ASSERT_EQ(coords.cols(), 15u);
  for (unsigned k = 1; k <= 4; ++k)
    for (unsigned i = 0; i < 3; ++i) {
      const double a = k * pi / 8, y = coords(1, i), *p = &coords(0, 3 * k + i);
      EXPECT_EQ(p[0], coords(0, i));
      EXPECT_NEAR(p[1], y * std::cos(a), 1e-15);
      EXPECT_NEAR(p[2], y * std::sin(a), 1e-15);
    }
}

TEST(extrude_spiral, helix_is_the_rotation_plus_a_proportional_shift) {
  surface s = grid(face_kind::mixed, 2, 2);
  for (std::size_t n = 0; n < s.coords.cols(); ++n) std::swap(s.coords(1, n), s.coords(2, n)), s.coords(0, n) += 1;
  for (std::size_t j = 0; j < s.connect.cols(); ++j)
    std::swap(s.connect(1, j), s.connect(s.connect(3, j) != absent ? 3 : 2, j));
  surface r = s;
  r.coords.copy(s.coords);
  dense2D<unsigned> E, F;
  const vec3 C(0, 0, 0), R(0, 0, 2.0), T(0, 0, 0.8);
  ASSERT_EQ(t3::extrude_spiral(s.coords, s.connect, C, R, T, 5u, E), 0);
  ASSERT_EQ(t3::extrude_rotate(r.coords, r.connect, C, R, 5u, F), 0);
  ASSERT_EQ(s.coords.cols(), r.coords.cols());
  for (std::size_t n = 9; n < s.coords.cols(); ++n) {
    const std::size_t k = (n - 9) / 9 + 1;
    for (unsigned c = 0; c < 3; ++c) EXPECT_NEAR(s.coords(c, n), r.coords(c, n) + (c == 2 ? 0.16 * k : 0), 1e-14);
  }
  // The axial shift slides the section in its own plane: the volume is the rotation's.
  EXPECT_NEAR(solid_volume(s.coords, E), solid_volume(r.coords, F), 1e-12);
  EXPECT_NEAR(solid_volume(s.coords, E), 1.5 * 5 * std::sin(2.0 / 5), 1e-12);
}

// ---- extrusion along a polyline ---------------------------------------------------------------

// Appends nodes to coords and returns their IDs.
dense1D<unsigned, 8> add_nodes(dense2D<double>& coords, const std::vector<std::vector<double>>& points) {
  dense1D<unsigned, 8> ids;
  for (const auto& p : points) {
    const std::size_t n = coords.cols();
    coords.resize(3, n + 1);
    for (unsigned c = 0; c < 3; ++c) coords(c, n) = p[c];
    ids.push_back(static_cast<unsigned>(n));
  }
  return ids;
}

TEST(extrude_line, straight_polyline_equals_the_translation) {
  surface s = grid(face_kind::mixed, 3, 2), t = grid(face_kind::mixed, 3, 2);
  const dense1D<unsigned, 8> line = add_nodes(s.coords, {{0.5, 0.5, 0}, {0.5, 0.5, 1}, {0.5, 0.5, 2}});
  add_nodes(t.coords, {{0.5, 0.5, 0}, {0.5, 0.5, 1}, {0.5, 0.5, 2}});
  outputs a, b;
  a.E2 = b.E2 = dense2D<unsigned>(2, 2, {0, 1, 1, 2});
  ASSERT_EQ(t3::extrude_line(s.coords, s.connect, line, vec3(0, 0, 1), dense2D<double>(), a.E, a.E2, a.Q4, a.Top), 0);
  ASSERT_EQ(t3::extrude_translate(t.coords, t.connect, vec3(0, 0, 2), 2u, b.E, b.E2, b.Q4, b.Top), 0);
  ASSERT_EQ(s.coords.cols(), t.coords.cols());
  for (std::size_t n = 0; n < s.coords.cols(); ++n)
    for (unsigned c = 0; c < 3; ++c) EXPECT_NEAR(s.coords(c, n), t.coords(c, n), 1e-15);
  using pair = std::pair<dense2D<unsigned>*, dense2D<unsigned>*>;
  for (auto [x, y] : {pair{&a.E, &b.E}, pair{&a.Q4, &b.Q4}, pair{&a.Top, &b.Top}}) {
    ASSERT_EQ(x->cols(), y->cols());
    for (std::size_t j = 0; j < x->cols(); ++j)
      for (std::size_t r = 0; r < x->rows(); ++r) EXPECT_EQ((*x)(r, j), (*y)(r, j));
  }
  EXPECT_NEAR(solid_volume(s.coords, a.E), s.area * 2, 1e-12);
}

TEST(extrude_line, polyline_from_a_section_node_replaces_its_copies) {
  // The section (unit square at z = 0) swept along 0 -> (0,0,1) -> (1,0,1): node 0 is the
  // polyline's start, so the polyline's nodes stand in for its copies.
  surface s = grid(face_kind::Q4, 1, 1);
  dense1D<unsigned, 8> line = add_nodes(s.coords, {{0, 0, 1}, {1, 0, 1}});
  line = dense1D<unsigned, 8>{0, line[0], line[1]};
  dense2D<unsigned> E;
  ASSERT_EQ(t3::extrude_line(s.coords, s.connect, line, vec3(0, 0, 1), dense1D<double, 8>(), E), 0);
  // 6 nodes on entry, 3 new per layer (node 0's copies dropped).
  ASSERT_EQ(s.coords.cols(), 12u);
  ASSERT_EQ(E.cols(), 2u);
  EXPECT_EQ(E(4, 0), 4u);  // layer 1 of node 0 is the polyline node (0, 0, 1)
  EXPECT_EQ(E(0, 1), 4u);
  EXPECT_EQ(E(4, 1), 5u);
  for (std::size_t j = 0; j < 2; ++j)
    for (unsigned r = 0; r < 8; ++r) EXPECT_LT(E(r, j), 12u);
  // Layer 1 is the square lifted by 1; layer 2 turned by 90 degrees about y onto x = 1.
  EXPECT_NEAR(solid_volume(s.coords, E.sub_matrix(0, 0, 8, 1)), 1.0, 1e-12);
  const unsigned corner = E(6, 1);  // copy of node 3 = (1, 1, 0) in layer 2
  EXPECT_NEAR(s.coords(0, corner), 1.0, 1e-15);
  EXPECT_NEAR(s.coords(1, corner), 1.0, 1e-15);
  EXPECT_NEAR(s.coords(2, corner), 0.0, 1e-15);
}

TEST(extrude_line, factors_and_tensors_scale_the_section) {
  surface s = grid(face_kind::T3, 2, 2, 1.0, 1.0);
  for (std::size_t n = 0; n < s.coords.cols(); ++n) s.coords(0, n) -= 0.5, s.coords(1, n) -= 0.5;
  const dense1D<unsigned, 8> line = add_nodes(s.coords, {{0, 0, 0}, {0, 0, 1}, {0, 0, 2}, {0, 0, 3}});
  dense2D<unsigned> E;
  surface f = s;
  f.coords.copy(s.coords);
  ASSERT_EQ(t3::extrude_line(f.coords, f.connect, line, vec3(0, 0, 1), dense1D<double, 8>{7, 2, 2, 1}, E), 0);
  const double expected_scale[4] = {1, 2, 2, 1};
  const std::vector<unsigned> order = first_appearance(s.connect);
  for (unsigned k = 1; k <= 3; ++k)
    for (unsigned i = 0; i < 9; ++i) {
      const double* p = &f.coords(0, 13 + 9 * (k - 1) + i);
      EXPECT_NEAR(p[2], k, 1e-15);
      for (unsigned c = 0; c < 2; ++c) EXPECT_NEAR(p[c], expected_scale[k] * s.coords(c, order[i]), 1e-14);
    }
  // Sections of area 1, 4, 4, 1 one unit apart: two pyramid frustums around a box.
  const double frustum = (1 + 4 + std::sqrt(4.0)) / 3;
  EXPECT_NEAR(solid_volume(f.coords, E), frustum + 4 + frustum, 1e-12);

  // Isotropic tensors 1 / g^2 I give the same sizes; a negative one is invalid (scale 1).
  dense2D<double> metrics(6, 4, 0.0);
  const double g[4] = {1, 2, 2, 1};
  for (unsigned k = 0; k < 4; ++k) metrics(0, k) = metrics(2, k) = metrics(5, k) = 1 / (g[k] * g[k]);
  surface m = s;
  m.coords.copy(s.coords);
  dense2D<unsigned> F;
  ASSERT_EQ(t3::extrude_line(m.coords, m.connect, line, vec3(0, 0, 1), metrics, F), 0);
  for (std::size_t n = 13; n < m.coords.cols(); ++n)
    for (unsigned c = 0; c < 3; ++c) EXPECT_NEAR(m.coords(c, n), f.coords(c, n), 1e-14);
  metrics(5, 2) = -1;  // tensor 2 is not positive definite: its size counts as 1
  m.coords.copy(s.coords);
  ASSERT_EQ(t3::extrude_line(m.coords, m.connect, line, vec3(0, 0, 1), metrics, F), 0);
  EXPECT_NEAR(std::abs(m.coords(0, 13 + 9)), 0.5, 1e-14);   // layer 2: factor 1 / g1 = 1/2
  EXPECT_NEAR(std::abs(m.coords(0, 13 + 18)), 0.5, 1e-14);  // layer 3: factor g3 / 1 = 1
}

// ---- status codes in validation order -------------------------------------------------------

enum bad {
  coords_rows,     // 4 rows
  coords_planar,   // 2 rows: only the normal and line extrusions refuse them
  surface_id,      // a node ID equal to the node count
  surface_absent,  // ~0U where a triangle needs a node
  surface_empty,
  P0_id,           // the first node of the first face out of range
  P0_at_C,         // the rotation's first node on the axis: a sweep length of 0
  h0_zero,
  h0_nan,
  h1_negative,
  thickness_zero,
  T_zero,
  normals_cols,    // fewer columns than the surface's nodes
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
  dense2D<unsigned> S{3, 2, {0, 1, 2, 0, 2, 3}};
  outputs o;
  vec3 T{0, 0, 1}, C{-1, 0, 0}, R{0, 0, 1};
  double h0 = 0.5, h1 = 0.5, thickness = 1;
  unsigned n = 2;
  dense2D<double> normals{3, 6, {0, 0, 1, 0, 0, 1, 0, 0, 1, 0, 0, 1, 0, 0, 1, 0, 0, 1}};
  dense1D<unsigned, 8> line{4, 5};
  dense2D<double> metrics;
  dense1D<double, 8> scales;

  void apply(bad b) {
    switch (b) {
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
      case E_rows: o.E = dense2D<unsigned>(7, 1, 0u); break;
      case E2_rows: o.E2 = dense2D<unsigned>(3, 1, 0u); break;
      case Q4_rows: o.Q4 = dense2D<unsigned>(3, 1, 0u); break;
      case Top_rows: o.Top = dense2D<unsigned>(5, 1, 0u); break;
    }
  }
};

struct form_codes {
  const char* name;
  std::function<int(call_args&)> call;
  // In validation order: case i is run with every bad argument from i on, so the
  // earlier check must win.
  std::vector<std::pair<bad, int>> chain;
  std::vector<std::pair<bad, int>> alone;  // run one at a time
};

const std::vector<form_codes>& status_table() {
  using A = call_args;
  static const std::vector<form_codes> table = {
      {"translate sizes long",
       [](A& a) { return t3::extrude_translate(a.coords, a.S, a.T, a.h0, a.h1, false, a.o.E, a.o.E2, a.o.Q4, a.o.Top); },
       {{coords_rows, -1}, {surface_id, -2}, {h0_zero, -4}, {h1_negative, -5}, {E_rows, -7}, {E2_rows, -8},
        {Q4_rows, -9}, {Top_rows, -10}},
       {{surface_absent, -2}, {h0_nan, -4}, {coords_planar, 0}, {surface_empty, 0}, {T_zero, 0}}},
      {"translate sizes short", [](A& a) { return t3::extrude_translate(a.coords, a.S, a.T, a.h0, a.h1, true, a.o.E); },
       {{coords_rows, -1}, {surface_id, -2}, {h0_zero, -4}, {h1_negative, -5}, {E_rows, -7}},
       {{E2_rows, 0}}},
      {"translate layers long",
       [](A& a) { return t3::extrude_translate(a.coords, a.S, a.T, a.n, a.o.E, a.o.E2, a.o.Q4, a.o.Top); },
       {{coords_rows, -1}, {surface_id, -2}, {T_zero, -4}, {E_rows, -7}, {E2_rows, -8}, {Q4_rows, -9},
        {Top_rows, -10}},
       {}},
      {"translate layers short", [](A& a) { return t3::extrude_translate(a.coords, a.S, a.T, a.n, a.o.E); },
       {{T_zero, -4}, {E_rows, -7}},
       {}},
      {"rotate sizes long",
       [](A& a) {
         return t3::extrude_rotate(a.coords, a.S, a.C, a.R, a.h0, a.h1, false, a.o.E, a.o.E2, a.o.Q4, a.o.Top);
       },
       {{coords_rows, -1}, {surface_id, -2}, {h0_zero, -5}, {h1_negative, -6}, {E_rows, -8}, {E2_rows, -9},
        {Q4_rows, -10}, {Top_rows, -11}},
       {{coords_planar, 0}, {P0_at_C, 0}}},
      {"rotate sizes short", [](A& a) { return t3::extrude_rotate(a.coords, a.S, a.C, a.R, a.h0, a.h1, false, a.o.E); },
       {{h0_zero, -5}, {E_rows, -8}},
       {}},
      {"rotate layers long",
       [](A& a) { return t3::extrude_rotate(a.coords, a.S, a.C, a.R, a.n, a.o.E, a.o.E2, a.o.Q4, a.o.Top); },
       {{coords_rows, -1}, {P0_id, -2}, {E_rows, -6}, {E2_rows, -7}, {Q4_rows, -8}, {Top_rows, -9},
        {surface_id, -2}, {P0_at_C, -5}},
       {{surface_empty, 0}}},
      {"rotate layers short", [](A& a) { return t3::extrude_rotate(a.coords, a.S, a.C, a.R, a.n, a.o.E); },
       {{P0_id, -2}, {E_rows, -6}, {P0_at_C, -5}},
       {}},
      {"spiral sizes long",
       [](A& a) {
         return t3::extrude_spiral(a.coords, a.S, a.C, a.R, a.T, a.h0, a.h1, false, a.o.E, a.o.E2, a.o.Q4, a.o.Top);
       },
       {{coords_rows, -1}, {surface_id, -2}, {h0_zero, -5}, {h1_negative, -6}, {E_rows, -8}, {E2_rows, -9},
        {Q4_rows, -10}, {Top_rows, -11}},
       {{coords_planar, 0}, {T_zero, 0}}},  // sizes given: T = 0 is one turning layer
      {"spiral sizes short",
       [](A& a) { return t3::extrude_spiral(a.coords, a.S, a.C, a.R, a.T, a.h0, a.h1, false, a.o.E); },
       {{h1_negative, -6}, {E_rows, -8}},
       {}},
      {"spiral layers long",
       [](A& a) { return t3::extrude_spiral(a.coords, a.S, a.C, a.R, a.T, a.n, a.o.E, a.o.E2, a.o.Q4, a.o.Top); },
       {{E_rows, -7}, {Top_rows, -8}, {coords_rows, -1}, {surface_id, -2}, {T_zero, -5}, {E2_rows, -9},
        {Q4_rows, -10}},
       {}},
      {"spiral layers short", [](A& a) { return t3::extrude_spiral(a.coords, a.S, a.C, a.R, a.T, a.n, a.o.E); },
       {{E_rows, -7}, {coords_rows, -1}, {T_zero, -5}},
       {}},
      {"normal given long",
       [](A& a) { return t3::extrude_normal(a.coords, a.S, a.normals, a.n, a.o.E, a.o.E2, a.o.Q4, a.o.Top); },
       {{coords_planar, -1}, {normals_cols, -2}, {normals_rows, -3}, {E_rows, -5}, {E2_rows, -6}, {Q4_rows, -7},
        {Top_rows, -8}},
       {{coords_rows, -1}, {surface_id, -2}, {surface_absent, -2}, {surface_empty, 0}}},
      {"normal given short", [](A& a) { return t3::extrude_normal(a.coords, a.S, a.normals, a.n, a.o.E); },
       {{normals_rows, -3}, {E_rows, -5}},
       {}},
      {"normal thickness sizes long",
       [](A& a) {
         return t3::extrude_normal(a.coords, a.S, a.thickness, a.h0, a.h1, false, a.o.E, a.o.E2, a.o.Q4, a.o.Top);
       },
       {{coords_planar, -1}, {surface_id, -2}, {thickness_zero, -3}, {h0_zero, -4}, {h1_negative, -5},
        {E_rows, -7}, {E2_rows, -8}, {Q4_rows, -9}, {Top_rows, -10}},
       {{surface_absent, -2}}},
      {"normal thickness sizes short",
       [](A& a) { return t3::extrude_normal(a.coords, a.S, a.thickness, a.h0, a.h1, false, a.o.E); },
       {{thickness_zero, -3}, {E_rows, -7}},
       {}},
      {"normal thickness layers long",
       [](A& a) { return t3::extrude_normal(a.coords, a.S, a.thickness, a.n, a.o.E, a.o.E2, a.o.Q4, a.o.Top); },
       {{E_rows, -5}, {Top_rows, -6}, {coords_planar, -1}, {surface_id, -2}, {thickness_zero, -3}, {E2_rows, -8},
        {Q4_rows, -9}},
       {}},
      {"normal thickness layers short",
       [](A& a) { return t3::extrude_normal(a.coords, a.S, a.thickness, a.n, a.o.E); },
       {{E_rows, -5}, {thickness_zero, -3}},
       {}},
      {"line tensors long",
       [](A& a) { return t3::extrude_line(a.coords, a.S, a.line, a.T, a.metrics, a.o.E, a.o.E2, a.o.Q4, a.o.Top); },
       {{coords_planar, -1}, {surface_id, -2}, {line_short, -3}, {metrics_rows, -5}, {E_rows, -6}, {E2_rows, -7},
        {Q4_rows, -8}, {Top_rows, -9}},
       {{line_id, -3}, {surface_empty, 0}}},
      {"line tensors short", [](A& a) { return t3::extrude_line(a.coords, a.S, a.line, a.T, a.metrics, a.o.E); },
       {{line_id, -3}, {metrics_rows, -5}, {E_rows, -6}},
       {}},
      {"line factors long",
       [](A& a) { return t3::extrude_line(a.coords, a.S, a.line, a.T, a.scales, a.o.E, a.o.E2, a.o.Q4, a.o.Top); },
       {{coords_planar, -1}, {surface_id, -2}, {line_short, -3}, {E_rows, -6}, {E2_rows, -7}, {Q4_rows, -8},
        {Top_rows, -9}},
       {{line_id, -3}}},
      {"line factors short", [](A& a) { return t3::extrude_line(a.coords, a.S, a.line, a.T, a.scales, a.o.E); },
       {{line_id, -3}, {E_rows, -6}},
       {}},
  };
  return table;
}

struct shapes {
  std::size_t s[10];
  explicit shapes(const call_args& a)
      : s{a.coords.rows(), a.coords.cols(), a.o.E.rows(), a.o.E.cols(), a.o.E2.cols(),
          a.o.Q4.rows(), a.o.Q4.cols(), a.o.Top.rows(), a.o.Top.cols(), 0} {}
  bool operator==(const shapes& o) const { return std::equal(s, s + 10, o.s); }
};

TEST(extrusion_status, every_code_in_validation_order_and_nothing_written) {
  for (const form_codes& form : status_table()) {
    call_args valid;
    EXPECT_EQ(form.call(valid), 0) << form.name;
    for (std::size_t i = 0; i < form.chain.size(); ++i) {
      call_args a;
      for (std::size_t j = i; j < form.chain.size(); ++j) a.apply(form.chain[j].first);
      const shapes before(a);
      EXPECT_EQ(form.call(a), form.chain[i].second) << form.name << ", bad argument " << form.chain[i].first;
      EXPECT_TRUE(shapes(a) == before) << form.name << ", bad argument " << form.chain[i].first;
    }
    for (const auto& [b, code] : form.alone) {
      call_args a;
      a.apply(b);
      EXPECT_EQ(form.call(a), code) << form.name << ", bad argument " << b;
    }
  }
}

TEST(extrusion_status, zero_layers_and_empty_surfaces_touch_nothing) {
  // Even with invalid other arguments.
  for (const form_codes& form : status_table()) {
    if (std::string(form.name).find("layers") == std::string::npos) continue;
    call_args a;
    a.n = 0;
    a.apply(coords_rows);
    a.apply(E_rows);
    const shapes before(a);
    EXPECT_EQ(form.call(a), 0) << form.name;
    EXPECT_TRUE(shapes(a) == before) << form.name;
  }
  call_args a;
  a.apply(surface_empty);
  a.apply(E_rows);
  EXPECT_EQ(t3::extrude_spiral(a.coords, a.S, a.C, a.R, a.T, 3u, a.o.E), -7);  // its pre-check comes first
  EXPECT_EQ(t3::extrude_rotate(a.coords, a.S, a.C, a.R, 3u, a.o.E), 0);
}

TEST(extrusion_status, layer_counts_that_overflow_node_ids_fail_before_writing) {
  call_args a;
  const shapes before(a);
  EXPECT_EQ(t3::extrude_translate(a.coords, a.S, a.T, 4294967295u, a.o.E), -199);  // 6 + N x 4 >= 2^32
  EXPECT_EQ(t3::extrude_translate(a.coords, a.S, a.T, 1e-300, 1e-300, false, a.o.E), -199);
  EXPECT_EQ(t3::extrude_translate(a.coords, a.S, vec3(std::nan(""), 0, 0), 1.0, 1.0, false, a.o.E), -199);
  EXPECT_EQ(t3::extrude_rotate(a.coords, a.S, a.C, vec3(0, 0, 1e300), 1.0, 1.0, false, a.o.E), -199);
  EXPECT_EQ(t3::extrude_normal(a.coords, a.S, a.normals, 1u << 30, a.o.E), -199);
  EXPECT_EQ(t3::extrude_normal(a.coords, a.S, 1.0, 1e-12, 1e-12, true, a.o.E), -199);
  EXPECT_TRUE(shapes(a) == before);
  // The largest count that still fits is not refused by the check (it fails for memory).
  EXPECT_TRUE(elfes::node_ids_fit(6, (0xFFFFFFFFu - 6) / 4, 4));
  EXPECT_FALSE(elfes::node_ids_fit(6, (0xFFFFFFFFu - 6) / 4 + 1, 4));
}

// ---- roll-back after allocation failures ----------------------------------------------------

struct scene {
  dense2D<double> coords;
  dense2D<unsigned> S;
  outputs o;
  dense1D<unsigned, 8> line;
  dense2D<double> extra{6, 20, 0.0};  // normals (rows 0-2) or isotropic tensors
  dense1D<double, 8> scales{1, 2, 0.5, 3};
};

// A mixed surface with an unused node, outputs holding one column each, boundary edges.
scene make_scene(bool planar) {
  scene s;
  surface g = grid(face_kind::mixed, 3, 2);
  s.coords = g.coords;
  s.S = g.connect;
  s.line = add_nodes(s.coords, {{0, 0, 1}, {0.5, 0, 2}, {1, 0.5, 3}});
  s.line = dense1D<unsigned, 8>{0, s.line[0], s.line[1], s.line[2]};  // starts on the section
  if (planar) s.coords.resize(2, s.coords.cols());
  s.o.E = dense2D<unsigned>(8, 1, 7u);
  s.o.Q4 = dense2D<unsigned>(4, 1, 7u);
  s.o.Top = dense2D<unsigned>(4, 1, 7u);
  s.o.E2 = dense2D<unsigned>(2, 3, {0, 1, 1, 2, 2, 3});
  for (std::size_t j = 0; j < s.extra.cols(); ++j) s.extra(0, j) = s.extra(2, j) = s.extra(5, j) = 1.0 + 0.1 * j;
  return s;
}

template <class T>
void expect_same_entries(const dense2D<T>& a, const dense2D<T>& b, const char* what) {
  ASSERT_EQ(a.rows(), b.rows()) << what;
  ASSERT_EQ(a.cols(), b.cols()) << what;
  for (std::size_t j = 0; j < a.cols(); ++j)
    for (std::size_t i = 0; i < a.rows(); ++i) ASSERT_EQ(a(i, j), b(i, j)) << what << " " << i << " " << j;
}

// Makes the n-th allocation of the call fail for n = 1, 2, ... until the call no longer
// reaches it. Each run either succeeds with the reference result or returns -199 with every
// output back to its entry column count and entries; everything is made and released under
// the guard, so no block may be left behind. `unmerged` is the number of extra nodes a
// success may keep when only the final node merge ran out of memory.
void expect_roll_back(const std::function<int(scene&)>& call, bool planar, std::size_t unmerged = 0) {
  scene reference = make_scene(planar);
  ASSERT_EQ(call(reference), 0);
  long setup = 0;
  {
    failing_allocator counter;
    scene s = make_scene(planar);
    const scene entry = make_scene(planar);
    setup = counter.allocations();
  }
  long failures = 0;
  for (long n = 1;; ++n) {
    ASSERT_LT(n, 200);
    failing_allocator guard(setup + n);
    bool reached = false;
    {
      scene s = make_scene(planar);
      const scene entry = make_scene(planar);
      const int status = call(s);
      reached = guard.failed();
      if (status == 0 && s.coords.cols() == reference.coords.cols() + unmerged && unmerged) {
        EXPECT_EQ(s.o.E.cols(), reference.o.E.cols());
      } else if (status == 0) {
        expect_same_entries(s.coords, reference.coords, "coords");
        expect_same_entries(s.o.E, reference.o.E, "connectE");
        expect_same_entries(s.o.Q4, reference.o.Q4, "connectQ4");
        expect_same_entries(s.o.Top, reference.o.Top, "connectTop");
      } else {
        ++failures;
        EXPECT_EQ(status, -199) << n;
        EXPECT_EQ(s.coords.cols(), entry.coords.cols()) << n;
        EXPECT_EQ(s.o.E.cols(), 1u) << n;
        EXPECT_EQ(s.o.Q4.cols(), 1u) << n;
        EXPECT_EQ(s.o.Top.cols(), 1u) << n;
        EXPECT_EQ(s.o.E(0, 0), 7u);
        EXPECT_EQ(s.coords(0, 1), entry.coords(0, 1));
      }
    }
    EXPECT_EQ(guard.live_blocks(), 0) << n;
    if (!reached) break;
  }
  EXPECT_GT(failures, 0);
}

TEST(extrusion_roll_back, every_allocation_of_every_family) {
  expect_roll_back([](scene& s) {
    return t3::extrude_translate(s.coords, s.S, vec3(0, 0, 1), 0.1, 0.3, true, s.o.E, s.o.E2, s.o.Q4, s.o.Top);
  }, true);
  expect_roll_back([](scene& s) {
    return t3::extrude_rotate(s.coords, s.S, vec3(-1, 0, 0), vec3(0, 1, 0), 3u, s.o.E, s.o.E2, s.o.Q4, s.o.Top);
  }, true);
  expect_roll_back([](scene& s) {
    return t3::extrude_spiral(s.coords, s.S, vec3(-1, 0, 0), vec3(0, 1, 0), vec3(0, 2, 0), 0.5, 0.5, false, s.o.E,
                              s.o.E2, s.o.Q4, s.o.Top);
  }, false);
  expect_roll_back([](scene& s) {
    return t3::extrude_normal(s.coords, s.S, 1.0, 0.2, 0.4, false, s.o.E, s.o.E2, s.o.Q4, s.o.Top);
  }, false);
  expect_roll_back([](scene& s) {
    return t3::extrude_normal(s.coords, s.S, s.extra.sub_matrix(0, 0, 3, 20), 2u, s.o.E, s.o.E2, s.o.Q4, s.o.Top);
  }, false);
  expect_roll_back([](scene& s) {
    return t3::extrude_line(s.coords, s.S, s.line, vec3(0, 0, 1), s.extra, s.o.E, s.o.E2, s.o.Q4, s.o.Top);
  }, false, 3);
  expect_roll_back([](scene& s) {
    return t3::extrude_line(s.coords, s.S, s.line, vec3(0, 0, 1), s.scales, s.o.E);
  }, false, 3);
}

// ---- views whose leading dimension exceeds their rows ------------------------------------------

TEST(extrusion_views, padded_inputs_and_outputs_give_the_same_mesh) {
  const std::vector<std::function<int(scene&, const dense2D<double>&)>> calls = {
      [](scene& s, const dense2D<double>&) {
        return t3::extrude_translate(s.coords, s.S, vec3(0.1, 0, 1), 3u, s.o.E, s.o.E2, s.o.Q4, s.o.Top);
      },
      [](scene& s, const dense2D<double>&) {
        return t3::extrude_spiral(s.coords, s.S, vec3(-1, 0, 0), vec3(0, 1, 0), vec3(0, 1, 0), 4u, s.o.E, s.o.E2,
                                  s.o.Q4, s.o.Top);
      },
      [](scene& s, const dense2D<double>& extra) {
        return t3::extrude_normal(s.coords, s.S, extra.sub_matrix(0, 0, 3, s.coords.cols()), 2u, s.o.E, s.o.E2,
                                  s.o.Q4, s.o.Top);
      },
      [](scene& s, const dense2D<double>& extra) {
        return t3::extrude_line(s.coords, s.S, s.line, vec3(0, 0, 1), extra, s.o.E, s.o.E2, s.o.Q4, s.o.Top);
      },
  };
  for (std::size_t c = 0; c < calls.size(); ++c) {
    dense2D<double> extra(6, 20, 0.0);  // normals (rows 0-2) and tensors alike
    for (std::size_t j = 0; j < extra.cols(); ++j) extra(0, j) = extra(2, j) = extra(5, j) = 1.0 + 0.1 * j;
    scene plain = make_scene(false), padded = make_scene(false);
    padded.coords = padded_view(padded.coords, 2, -1.0);
    padded.S = padded_view(padded.S, 3, 0u);
    padded.o.E = padded_view(padded.o.E, 1, 0u);
    padded.o.E2 = padded_view(padded.o.E2, 4, 0u);
    padded.o.Q4 = padded_view(padded.o.Q4, 2, 0u);
    padded.o.Top = padded_view(padded.o.Top, 5, 0u);
    ASSERT_EQ(calls[c](plain, extra), 0) << c;
    ASSERT_EQ(calls[c](padded, padded_view(extra, 3, -1.0)), 0) << c;
    expect_same_entries(padded.coords, plain.coords, "coords");
    expect_same_entries(padded.o.E, plain.o.E, "connectE");
    expect_same_entries(padded.o.Q4, plain.o.Q4, "connectQ4");
    expect_same_entries(padded.o.Top, plain.o.Top, "connectTop");
  }
}

TEST(extrusion_views, wedges_join_an_existing_six_row_mesh_as_mixed_columns) {
  surface s = grid(face_kind::Q4, 1, 1);
  dense2D<unsigned> E(6, 1, {0, 1, 2, 0, 1, 2});
  ASSERT_EQ(t3::extrude_translate(s.coords, s.connect, vec3(0, 0, 1), 1u, E), 0);
  ASSERT_EQ(E.rows(), 8u);
  EXPECT_EQ(E(5, 0), 2u);
  EXPECT_EQ(E(6, 0), absent);
  EXPECT_EQ(E(7, 0), absent);
  EXPECT_NE(E(7, 1), absent);
}

}  // namespace
