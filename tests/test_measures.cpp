// Geometric measures: volume, circumcenters, dihedral_angles, solid_angles.
#include <gtest/gtest.h>

#include <array>
#include <cmath>
#include <limits>
#include <numeric>
#include <string>
#include <tuple>
#include <vector>

#include "box_mesh.h"
#include "checks_in_order.h"
#include "failing_allocator.h"
#include "family_table.h"
#include "measures/angle_walk.h"
#include "reference_volume.h"
#include "zel/tessel3d.h"

namespace t3 = zel::tessel3d;
using namespace tessel3d_test;  // with zel::dense1D, zel::dense2D

namespace {

const double pi = std::acos(-1.0), nan_guard = std::numeric_limits<double>::quiet_NaN();
constexpr unsigned absent = ~0U;
const zel::element_type type_of[] = {zel::TH4, zel::PY5, zel::W6, zel::H8};  // by box_kind
const auto every_kind = ::testing::Values(box_kind::TH4, box_kind::PY5, box_kind::W6, box_kind::H8);

// One element: its nodes are 0, 1, 2, ... in connectivity order.
box_mesh element(std::initializer_list<double> xyz) {
  box_mesh m;
  const unsigned n = unsigned(xyz.size() / 3);
  m.coords = dense2D<double>(3, n, xyz);
  m.connect = dense2D<unsigned>(n, 1);
  std::iota(m.connect.data(), m.connect.data() + n, 0u);
  return m;
}
box_mesh unit_pyramid() { return element({0, 0, 0, 1, 0, 0, 1, 1, 0, 0, 1, 0, 0, 0, 1}); }
box_mesh cuboid(double a, double b, double c) {
  return element({0, 0, 0, a, 0, 0, a, b, 0, 0, b, 0, 0, 0, c, a, 0, c, a, b, c, 0, b, c});
}

double volume_of(const dense2D<double>& coords, const dense2D<unsigned>& connect) {
  double v = 42.0;
  EXPECT_EQ(t3::volume(coords, connect, v), 0);
  return v;
}

// An element's volume as a sum of right-handed tetrahedra (a, b, c, d), split so that
// the diagonals cut the quadrangles the way the kernels do.
double split_volume(const box_mesh& m, box_kind kind) {
  static const std::vector<std::vector<std::array<unsigned, 4>>> splits = {
      {{3, 0, 1, 2}},
      {{0, 1, 2, 4}, {0, 2, 3, 4}},
      {{1, 2, 0, 4}, {2, 0, 4, 3}, {2, 4, 5, 3}},
      {{0, 1, 3, 4}, {2, 3, 1, 6}, {5, 4, 6, 1}, {7, 6, 4, 3}, {1, 3, 4, 6}}};
  double total = 0;
  for (std::size_t j = 0; j < m.connect.cols(); ++j)
    for (const auto& t : splits[int(kind)])
      total += tet_volume(m.coords, m.connect(t[0], j), m.connect(t[1], j), m.connect(t[2], j), m.connect(t[3], j));
  return total;
}

// x -> A x + (1, 2, 3) on every node; returns det A = 2 * 1.2 + 0.5 * 0.32 - 0.1 * 0.6.
double shear(box_mesh& m) {
  const double a[3][3] = {{2.0, 0.5, 0.1}, {-0.3, 1.5, 0.2}, {0.4, 0.0, 0.8}};
  for (std::size_t j = 0; j < m.coords.cols(); ++j) {
    const double x[3] = {m.coords(0, j), m.coords(1, j), m.coords(2, j)};
    for (int i = 0; i < 3; ++i) m.coords(i, j) = a[i][0] * x[0] + a[i][1] * x[1] + a[i][2] * x[2] + (i + 1.0);
  }
  return 2.5;
}

using angle_fn = int (*)(const dense2D<double>&, const dense2D<unsigned>&, bool, dense1D<double, 8>&,
                         dense1D<double, 8>&);

struct extremes {
  double lo, hi;
};

extremes angles_of(angle_fn fn, const box_mesh& m, bool normalise) {
  dense1D<double, 8> lo(1, -7.0), hi(1, -7.0);
  EXPECT_EQ(fn(m.coords, m.connect, normalise, lo, hi), 0);
  return {lo[0], hi[0]};
}

void expect_extremes(angle_fn fn, const box_mesh& m, bool normalise, double lo, double hi) {
  const extremes e = angles_of(fn, m, normalise);
  EXPECT_NEAR(e.lo, lo, 1e-14);
  EXPECT_NEAR(e.hi, hi, 1e-14);
}

std::vector<double> values(const dense1D<double, 8>& v) { return std::vector<double>(v.begin(), v.end()); }

}  // namespace

// ---- volume ----------------------------------------------------------------------

// Analytic volumes (the library's TH4 is left-handed: the unit corner listed 0, x, y, z
// is negative). Regular elements score 1 in both angle measures, except the
// tetrahedron's solid angle, acos(23/27) scaled by 5/pi (about 0.877). Every layout.
TEST(measures, reference_elements) {
  const double h = std::sqrt(3.0) / 2, none = nan_guard;
  const struct {
    box_mesh mesh;
    double volume, dihedral, solid;
  } table[] = {{element({0, 0, 0, 1, 0, 0, 0, 1, 0, 0, 0, 1}), -1.0 / 6, none, none},
               {unit_pyramid(), 1.0 / 3, none, none},
               {element({0, 0, 0, 1, 0, 0, 0, 1, 0, 0, 0, 1, 1, 0, 1, 0, 1, 1}), 0.5, none, none},
               {element({1, 1, 1, 1, -1, -1, -1, 1, -1, -1, -1, 1}), 8.0 / 3, 1, std::acos(23.0 / 27) * 5 / pi},
               {element({0, 0, 0, 1, 0, 0, 1, 1, 0, 0, 1, 0, 0.5, 0.5, std::sqrt(0.5)}), std::sqrt(0.5) / 3, 1, 1},
               {element({0, 0, 0, 1, 0, 0, 0.5, h, 0, 0, 0, 1, 1, 0, 1, 0.5, h, 1}), h / 2, 1, 1},
               {cuboid(2, 3, 5), 30.0, 1, 1}};
  for (const auto& r : table)
    for (const dense2D<unsigned>& c : {r.mesh.connect, to_mixed8(r.mesh.connect)}) {
      SCOPED_TRACE(::testing::Message() << r.mesh.connect.rows() << " nodes, " << c.rows() << " rows");
      const box_mesh m{r.mesh.coords, c};
      EXPECT_NEAR(volume_of(m.coords, m.connect), r.volume, 1e-14);
      if (std::isnan(r.solid)) continue;
      expect_extremes(t3::dihedral_angles, m, true, r.dihedral, r.dihedral);
      expect_extremes(t3::solid_angles, m, true, r.solid, r.solid);
    }
  // In radians: acos(1/3) in the tetrahedron, pi/2 in the cuboid, pi/2 at the right
  // corner (node 0) of the right-angled tetrahedron, which scales to 2.5.
  const box_mesh right_tet = element({0, 0, 0, 0, 1, 0, 1, 0, 0, 0, 0, 1});  // positive
  EXPECT_NEAR(angles_of(t3::dihedral_angles, table[3].mesh, false).hi, std::acos(1.0 / 3), 1e-14);
  expect_extremes(t3::dihedral_angles, table[6].mesh, false, pi / 2, pi / 2);
  expect_extremes(t3::solid_angles, table[6].mesh, false, pi / 2, pi / 2);
  EXPECT_NEAR(angles_of(t3::solid_angles, right_tet, false).hi, pi / 2, 1e-14);
  EXPECT_NEAR(angles_of(t3::solid_angles, right_tet, true).hi, 2.5, 1e-14);
}

class volume_box : public ::testing::TestWithParam<box_kind> {};

// Plane faces: the box volume, in every layout and through strided views (wrong strides
// read the NaN or node-0 guards); an affine map keeps them plane, a flip negates the
// volume. Jittered nodes bend the quadrangles: elements are then measured as their
// tetrahedral splits (which an affine map scales by its determinant). Triangles and
// pyramid bases are cut the same way from both sides, so TH4 and PY5 meshes still fill
// the box exactly; W6 and H8 neighbours cut a shared face along different diagonals.
TEST_P(volume_box, box_total_splits_affine_maps_and_flips) {
  const box_kind kind = GetParam();
  box_mesh m = make_box(kind, 5, 4, 3, 2.0, 3.0, 5.0);
  EXPECT_NEAR(volume_of(m.coords, m.connect), 30.0, 1e-12);
  EXPECT_NEAR(volume_of(m.coords, to_mixed8(m.connect)), 30.0, 1e-12);
  EXPECT_NEAR(volume_of(padded_view(m.coords, 2, nan_guard), padded_view(m.connect, 3, 0u)), 30.0, 1e-12);
  EXPECT_NEAR(volume_of(m.coords, padded_view(to_mixed8(m.connect), 1, 0u)), 30.0, 1e-12);
  const double sheared = 30.0 * shear(m);
  dense2D<unsigned> flipped;
  ASSERT_TRUE(flipped.copy(m.connect));
  ASSERT_EQ(t3::flip(flipped, type_of[int(kind)]), 0);
  EXPECT_NEAR(volume_of(m.coords, flipped), -sheared, 1e-11);
  EXPECT_NEAR(volume_of(m.coords, to_mixed8(flipped)), -sheared, 1e-11);

  box_mesh j = make_box(kind, 5, 4, 3, 2.0, 3.0, 5.0, 0.2, 7);
  const double total = volume_of(j.coords, j.connect);
  EXPECT_NEAR(total, split_volume(j, kind), 1e-12);
  EXPECT_NEAR(volume_of(j.coords, to_mixed8(j.connect)), total, 1e-12);
  EXPECT_TRUE(kind == box_kind::W6 || kind == box_kind::H8 || std::fabs(total - 30.0) < 1e-12) << total;
  const double det = shear(j);
  EXPECT_NEAR(volume_of(j.coords, j.connect), det * total, 1e-11);
}

INSTANTIATE_TEST_SUITE_P(every_kind, volume_box, every_kind);

// Each column of a mixed mesh gets the kernel of its own kind: a unit cube of each.
TEST(volume, mixed_mesh_of_every_kind) {
  const scene s = every_solid_kind();
  EXPECT_NEAR(volume_of(s.coords, s.connect), 4.0, 1e-12);
}

namespace {

// One unit tetrahedron; `result` starts at 42 and reads 0 after any failure.
struct volume_args {
  box_mesh m = element({0, 0, 0, 0, 1, 0, 1, 0, 0, 0, 0, 1});
  double result = 42.0;
};

bad_argument<volume_args> connectivity_of(std::initializer_list<unsigned> rows, int status) {
  const dense2D<unsigned> c(rows.size(), 1, rows);
  return {std::to_string(rows.size()) + " rows", [c](volume_args& a) { a.m.connect = c; }, status};
}

}  // namespace

TEST(volume, status_codes_and_result_on_failure) {
  const auto call = [](volume_args& a) {
    const int status = t3::volume(a.m.coords, a.m.connect, a.result);
    EXPECT_TRUE((status == 0 && !a.m.connect.empty()) || a.result == 0.0) << "result on failure";
    return status;
  };
  const auto untouched = [](const volume_args& a) { return bytes_of(a.m.coords, a.m.connect); };
  // An empty connectivity comes first: even malformed coordinates pass.
  expect_checks_in_order<volume_args>(
      {{"connectivity (empty)", [](volume_args& a) { a.m.connect = dense2D<unsigned>(4, 0); }, 0},
       {"coords rows", [](volume_args& a) { a.m.coords = dense2D<double>(2, 4, 0.0); }, -1},
       connectivity_of({0, 1, 4, 3}, -2)},
      call, untouched);
  for (const auto& alone : {connectivity_of({0, 1, absent, 3}, -2),  // ~0U only in the mixed layout
                            connectivity_of({0, 1, 2}, -2), connectivity_of({0, 1, 2, 3, 0, 1, 2}, -2),
                            connectivity_of({0, 1, 2, 3, 0, 1, 2, 3, 0}, -2)})
    expect_checks_in_order<volume_args>({alone}, call, untouched);
  // An invalid ID anywhere (a column read four at a time, the last column) in every layout.
  for (int k = 0; k < 4; ++k) {
    const box_mesh b = make_box(static_cast<box_kind>(k), k == 0 ? 1 : 2, 1, 1);  // 6 TH4: 4 + 2
    for (bool mixed : {false, true})
      for (std::size_t column : {std::size_t(1), b.connect.cols() - 1}) {
        dense2D<unsigned> connect;
        ASSERT_TRUE(connect.copy(mixed ? to_mixed8(b.connect) : b.connect));
        connect(2, column) = unsigned(b.coords.cols()) + 5;
        double v = 42.0;
        EXPECT_EQ(t3::volume(b.coords, connect, v), -2) << k << mixed << column;
        EXPECT_EQ(v, 0.0);
      }
  }
}

// ---- circumcenters -------------------------------------------------------------------

TEST(circumcenters, positive_inverted_and_degenerate) {
  // Positive: the sphere centre. Inverted: the centre of face (1, 2, 3). Nodes 1, 2, 3 on
  // a line: node 3. Node 0 in the plane of the face: the centre of the face.
  const dense2D<double> coords(3, 7, {0, 0, 0, 1, 0, 0, 0, 1, 0, 0, 0, 1, 2, 0, 0, 3, 0, 0, 0.5, 0.5, 0});
  const dense2D<unsigned> connect(4, 4, {0, 2, 1, 3, 0, 1, 2, 3, 2, 1, 4, 5, 6, 0, 1, 2});
  dense2D<double> centers;
  ASSERT_EQ(t3::circumcenters(padded_view(coords, 1, nan_guard), padded_view(connect, 2, 0u), centers), 0);
  ASSERT_TRUE(centers.rows() == 3 && centers.cols() == 4);
  const double expected[4][3] = {{0.5, 0.5, 0.5}, {1.0 / 3, 1.0 / 3, 1.0 / 3}, {3, 0, 0}, {0.5, 0.5, 0}};
  for (unsigned j = 0; j < 4; ++j)
    for (unsigned i = 0; i < 3; ++i) EXPECT_NEAR(centers(i, j), expected[j][i], 1e-14) << j;
}

TEST(circumcenters, equidistant_from_the_nodes_of_positive_tets) {
  const box_mesh m = make_box(box_kind::TH4, 4, 4, 4, 1, 1, 1, 0.24, 5);
  dense2D<double> centers;
  ASSERT_EQ(t3::circumcenters(m.coords, m.connect, centers), 0);
  for (std::size_t e = 0; e < m.connect.cols(); ++e) {
    double r2[4] = {0, 0, 0, 0};
    for (unsigned k = 0; k < 4; ++k)
      for (unsigned i = 0; i < 3; ++i) r2[k] += std::pow(centers(i, e) - m.coords(i, m.connect(k, e)), 2);
    for (unsigned k = 1; k < 4; ++k) EXPECT_NEAR(r2[k], r2[0], 1e-8 * r2[0]) << "element " << e;
  }
}

TEST(circumcenters, status_codes_and_output_on_failure) {
  struct args {
    box_mesh m = element({0, 0, 0, 1, 0, 0, 0, 1, 0, 0, 0, 1});
    dense2D<double> centers{3, 2, 9.0};
  };
  expect_checks_in_order<args>(
      {{"coords rows", [](args& a) { a.m.coords = dense2D<double>(2, 4); }, -1},
       {"connectivity rows (before emptiness)", [](args& a) { a.m.connect = dense2D<unsigned>(3, 0); }, -2},
       {"connectivity ID", [](args& a) { a.m.connect = dense2D<unsigned>(4, 1, 4u); }, -2},
       {"connectivity (empty)", [](args& a) { a.m.connect = dense2D<unsigned>(4, 0); }, 0}},
      [](args& a) {
        const int status = t3::circumcenters(a.m.coords, a.m.connect, a.centers);
        if (status != 0) {
          EXPECT_EQ(a.centers.rows() + a.centers.cols() + a.centers.ld(), 0u) << "cleared";
        } else {
          EXPECT_TRUE(a.centers.rows() == 3 && a.centers.cols() == a.m.connect.cols());
        }
        return status;
      },
      [](const args& a) { return bytes_of(a.m.coords, a.m.connect); });
}

// ---- dihedral_angles, solid_angles ---------------------------------------------------------

// The unit pyramid, apex above base corner 0: solid angles pi/2 at corner 0, pi/4 at 1
// and 3, pi/6 at 2 and at the apex (a unit square seen from height 1 above a corner);
// dihedral angles pi/2 and pi/4 along the base, pi/2 and 2 pi/3 along the lateral edges.
TEST(solid_angles, unit_pyramid_apex_and_base_corners) {
  expect_extremes(t3::solid_angles, unit_pyramid(), false, pi / 6, pi / 2);
  expect_extremes(t3::solid_angles, unit_pyramid(), true, pi / 6 / (4 * std::asin(1.0 / 3)),  // the apex
                  pi / 2 / (2 * std::asin(1.0 / 3)));
  expect_extremes(t3::dihedral_angles, unit_pyramid(), false, pi / 4, 2 * pi / 3);
  EXPECT_NEAR(angles_of(t3::dihedral_angles, unit_pyramid(), true).hi, pi / 2 / std::acos(1 / std::sqrt(3.0)), 1e-14);
}

class angles_on_boxes : public ::testing::TestWithParam<std::tuple<angle_fn, box_kind>> {};

// The mixed layout and strided views give exactly the values of the plain pure mesh;
// inverted elements have negative solid angles.
TEST_P(angles_on_boxes, mixed_layout_views_and_inversion) {
  const angle_fn fn = std::get<0>(GetParam());
  box_mesh m = make_box(std::get<1>(GetParam()), 3, 2, 2, 1, 2, 3, 0.2, 13);
  const std::size_t n = m.connect.cols();
  dense1D<double, 8> lo(n), hi(n), mixed_lo(n), mixed_hi(n), view_lo(n), view_hi(n);
  ASSERT_EQ(fn(m.coords, m.connect, true, lo, hi), 0);
  ASSERT_EQ(fn(m.coords, to_mixed8(m.connect), true, mixed_lo, mixed_hi), 0);
  ASSERT_EQ(fn(padded_view(m.coords, 2, nan_guard), padded_view(m.connect, 1, 0u), true, view_lo, view_hi), 0);
  for (std::size_t j = 0; j < n; ++j) EXPECT_TRUE(0 < lo[j] && lo[j] <= hi[j]) << j;
  EXPECT_EQ(values(mixed_lo), values(lo));
  EXPECT_EQ(values(mixed_hi), values(hi));
  EXPECT_EQ(values(view_lo), values(lo));
  EXPECT_EQ(values(view_hi), values(hi));
  if (fn != angle_fn(t3::solid_angles)) return;
  ASSERT_EQ(t3::flip(m.connect, type_of[int(std::get<1>(GetParam()))]), 0);
  ASSERT_EQ(fn(m.coords, m.connect, false, lo, hi), 0);
  for (std::size_t j = 0; j < n; ++j) EXPECT_LT(hi[j], 0.0) << "element " << j;
}

INSTANTIATE_TEST_SUITE_P(
    every_kind, angles_on_boxes,
    ::testing::Combine(::testing::Values(angle_fn(t3::dihedral_angles), angle_fn(t3::solid_angles)), every_kind));

// Nodes 0 and 1 of a tetrahedron coincide: the faces opposite 2 and 3 have no normal.
// Mixed columns that lack a node their kind needs read an absent node as NaN, never as
// memory; a pyramid without row 3 keeps the triangle (0, 1, 2) as its base.
TEST(dihedral_and_solid_angles, degenerate_and_malformed_columns) {
  EXPECT_EQ(angles_of(t3::dihedral_angles, element({0, 0, 0, 0, 0, 0, 1, 0, 0, 0, 1, 0}), false).lo, 0.0);
  box_mesh m{unit_pyramid().coords, to_mixed8(unit_pyramid().connect)};
  m.connect(3, 0) = absent;
  const extremes scaled = angles_of(t3::dihedral_angles, m, true);
  EXPECT_EQ(scaled.lo, 0.0);                                              // faces through node 3
  EXPECT_NEAR(scaled.hi, pi / 2 / std::acos(1 / std::sqrt(3.0)), 1e-14);  // base and face (0, 4, 1)
  EXPECT_TRUE(std::isnan(volume_of(m.coords, m.connect)));
  m.connect(4, 0) = absent;  // rows 3 to 7 absent: read as a hexahedron
  EXPECT_TRUE(std::isnan(volume_of(m.coords, m.connect)));
}

TEST(dihedral_angles, extremes_follow_the_comparisons_through_nan) {
  const double values[] = {1.0, nan_guard, 3.0, 2.0};
  double lo, hi;
  elfes::list_extremes(values, 4, lo, hi);  // a NaN resets both; the values after it remain
  EXPECT_EQ(lo, 2.0);
  EXPECT_EQ(hi, 3.0);
  elfes::list_extremes(values, 2, lo, hi);
  EXPECT_TRUE(std::isnan(lo) && std::isnan(hi));
}

TEST(dihedral_angles, a_value_that_cannot_be_stored_is_dropped) {
  // A right prism over the quadrangle (0,0) (2,0) (2,1) (1,1): its 45 degree lateral
  // edge 0-4 is the ninth value, the first one past the list's initial room of 8.
  const box_mesh m = element({0, 0, 0, 2, 0, 0, 2, 1, 0, 1, 1, 0, 0, 0, 1, 2, 0, 1, 2, 1, 1, 1, 1, 1});
  EXPECT_NEAR(angles_of(t3::dihedral_angles, m, false).lo, pi / 4, 1e-14);
  dense1D<double, 8> lo(1), hi(1);
  failing_allocator guard(3);  // list object, room for 8, room for 16
  EXPECT_EQ(t3::dihedral_angles(m.coords, m.connect, false, lo, hi), 0);
  EXPECT_TRUE(guard.failed());
  EXPECT_NEAR(lo[0], pi / 2, 1e-14);
  EXPECT_NEAR(hi[0], 3 * pi / 4, 1e-14);
}

TEST(dihedral_and_solid_angles, status_codes_and_outputs) {
  for (angle_fn fn : {angle_fn(t3::dihedral_angles), angle_fn(t3::solid_angles)}) {
    const box_mesh m = make_box(box_kind::TH4, 1, 1, 1);  // 6 elements
    dense1D<double, 8> lo(6, -7.0), hi(6, -7.0);
    const dense2D<unsigned> bad(4, 1, {0, unsigned(m.coords.cols()), 1, 2});
    // IDs and row counts first, then emptiness, then coordinates with 2 rows; nothing written.
    const dense2D<double> flat = m.coords.sub_matrix(0, 0, 2, m.coords.cols());
    EXPECT_EQ(fn(flat, bad, false, lo, hi), -2);
    EXPECT_EQ(fn(flat, dense2D<unsigned>(7, 1, 0u), false, lo, hi), -2);
    EXPECT_EQ(fn(flat, dense2D<unsigned>(8, 0), false, lo, hi), 0);
    EXPECT_EQ(fn(flat, m.connect, false, lo, hi), -1);
    for (std::size_t j = 0; j < 6; ++j) EXPECT_EQ(lo[j] + hi[j], -14.0) << "written on failure or empty input";
    // A fourth coordinate row is ignored; short outputs are neither enlarged nor written
    // past their end.
    dense2D<double> four;
    ASSERT_TRUE(four.copy(m.coords) && four.resize(4, m.coords.cols(), 5.0));
    dense1D<double, 8> lo4(6), hi4(6), lo2(2, -7.0), hi1(1, -7.0);
    ASSERT_EQ(fn(four, m.connect, false, lo4, hi4), 0);
    ASSERT_EQ(fn(m.coords, m.connect, false, lo2, hi1), 0);
    ASSERT_EQ(fn(m.coords, m.connect, false, lo, hi), 0);
    for (std::size_t j = 0; j < 6; ++j) EXPECT_EQ(lo4[j], lo[j]);
    EXPECT_EQ(lo2.size() + hi1.size(), 3u);
    EXPECT_EQ(lo2[1], lo[1]);
    EXPECT_EQ(hi1[0], hi[0]);
  }
}
