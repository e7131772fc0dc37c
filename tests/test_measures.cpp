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

// The forms that also list degenerate elements.
using checked_fn = int (*)(const dense2D<double>&, const dense2D<unsigned>&, bool, dense1D<double, 8>&,
                           dense1D<double, 8>&, dense1D<unsigned, 8>&);
const checked_fn checked_dihedral = t3::dihedral_angles, checked_solid = t3::solid_angles;
checked_fn checked_form(angle_fn fn) { return fn == angle_fn(t3::dihedral_angles) ? checked_dihedral : checked_solid; }

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

// Plane faces: the box volume, in every layout; an affine map keeps them plane, a flip
// negates the volume. Jittered nodes bend the quadrangles: elements are then measured as their
// tetrahedral splits (which an affine map scales by its determinant). Triangles and
// pyramid bases are cut the same way from both sides, so TH4 and PY5 meshes still fill
// the box exactly; W6 and H8 neighbours cut a shared face along different diagonals.
TEST_P(volume_box, box_total_splits_affine_maps_and_flips) {
  const box_kind kind = GetParam();
  box_mesh m = make_box(kind, 5, 4, 3, 2.0, 3.0, 5.0);
  EXPECT_NEAR(volume_of(m.coords, m.connect), 30.0, 1e-12);
  EXPECT_NEAR(volume_of(m.coords, to_mixed8(m.connect)), 30.0, 1e-12);
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
// inverted elements have negative solid angles. The checked form agrees to rounding and
// finds no degenerate element.
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
  dense1D<unsigned, 8> degenerate(1, 7u);
  ASSERT_EQ(checked_form(fn)(padded_view(m.coords, 2, nan_guard), padded_view(to_mixed8(m.connect), 1, 0u), true,
                             view_lo, view_hi, degenerate),
            0);
  EXPECT_TRUE(degenerate.empty());
  for (std::size_t j = 0; j < n; ++j) {
    EXPECT_NEAR(view_lo[j], lo[j], 1e-13) << j;
    EXPECT_NEAR(view_hi[j], hi[j], 1e-13) << j;
  }
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

namespace {

// Six tetrahedra; the extremes start at -7 and the list of degenerate elements holds one
// entry, which the checked forms clear first.
struct angle_args {
  box_mesh m = make_box(box_kind::TH4, 1, 1, 1);
  dense1D<double, 8> lo = dense1D<double, 8>(6, -7.0), hi = dense1D<double, 8>(6, -7.0);
  dense1D<unsigned, 8> degenerate = dense1D<unsigned, 8>(1, 7u);
};

}  // namespace

TEST(dihedral_and_solid_angles, status_codes_and_outputs) {
  // IDs and row counts first, then emptiness, then coordinates with 2 rows.
  const std::vector<bad_argument<angle_args>> chain = {
      {"connectivity ID", [](angle_args& a) { a.m.connect = dense2D<unsigned>(4, 1, 8u); }, -2},
      {"connectivity (empty)", [](angle_args& a) { a.m.connect = dense2D<unsigned>(8, 0); }, 0},
      {"coords rows", [](angle_args& a) { a.m.coords = a.m.coords.sub_matrix(0, 0, 2, a.m.coords.cols()); }, -1}};
  const auto untouched = [](const angle_args& a) {
    return ::testing::PrintToString(std::make_pair(values(a.lo), values(a.hi)));
  };
  for (angle_fn fn : {angle_fn(t3::dihedral_angles), angle_fn(t3::solid_angles)}) {
    for (bool listing : {false, true}) {
      SCOPED_TRACE(std::string(fn == angle_fn(t3::dihedral_angles) ? "dihedral" : "solid") +
                   (listing ? ", listing" : ""));
      const auto call = [&](angle_args& a) {
        if (!listing) return fn(a.m.coords, a.m.connect, false, a.lo, a.hi);
        const int status = checked_form(fn)(a.m.coords, a.m.connect, false, a.lo, a.hi, a.degenerate);
        EXPECT_TRUE(a.degenerate.empty());
        return status;
      };
      expect_checks_in_order<angle_args>(chain, call, untouched);
      expect_checks_in_order<angle_args>(
          {{"7 rows", [](angle_args& a) { a.m.connect = dense2D<unsigned>(7, 1, 0u); }, -2}}, call, untouched);
    }
    // A fourth coordinate row is ignored; short outputs are neither enlarged nor written
    // past their end.
    const box_mesh m = make_box(box_kind::TH4, 1, 1, 1);
    dense2D<double> four;
    ASSERT_TRUE(four.copy(m.coords) && four.resize(4, m.coords.cols(), 5.0));
    dense1D<double, 8> lo(6), hi(6), lo4(6), hi4(6), lo2(2, -7.0), hi1(1, -7.0);
    ASSERT_EQ(fn(four, m.connect, false, lo4, hi4), 0);
    ASSERT_EQ(fn(m.coords, m.connect, false, lo2, hi1), 0);
    ASSERT_EQ(fn(m.coords, m.connect, false, lo, hi), 0);
    EXPECT_EQ(values(lo4), values(lo));
    EXPECT_TRUE(lo2.size() == 2 && hi1.size() == 1 && lo2[1] == lo[1] && hi1[0] == hi[0]);
  }
}

// ---- checked angles --------------------------------------------------------------------------

namespace {

struct checked_angles {
  std::vector<double> lo, hi;
  std::vector<unsigned> degenerate;
};

checked_angles checked(checked_fn fn, const box_mesh& m, bool normalise = false) {
  dense1D<double, 8> lo(m.connect.cols(), -7.0), hi(m.connect.cols(), -7.0);
  dense1D<unsigned, 8> degenerate(2, 7u);
  EXPECT_EQ(fn(m.coords, m.connect, normalise, lo, hi, degenerate), 0);
  return {values(lo), values(hi), std::vector<unsigned>(degenerate.begin(), degenerate.end())};
}

// Reference angles in extended precision that use no face normal: the dihedral angle
// along edge (a, b) between the half-planes through q1 and q2 is the angle between the
// parts of q1 - a and q2 - a normal to the edge; the solid angle at a corner of a convex
// element is the sum of the dihedral angles along its n edges minus (n - 2) pi.
using lvec = std::array<long double, 3>;

lvec point(const dense2D<double>& xyz, unsigned j) { return {xyz(0, j), xyz(1, j), xyz(2, j)}; }
lvec minus(const lvec& a, const lvec& b) { return {a[0] - b[0], a[1] - b[1], a[2] - b[2]}; }
long double ldot(const lvec& a, const lvec& b) { return a[0] * b[0] + a[1] * b[1] + a[2] * b[2]; }
lvec lcross(const lvec& a, const lvec& b) {
  return {a[1] * b[2] - a[2] * b[1], a[2] * b[0] - a[0] * b[2], a[0] * b[1] - a[1] * b[0]};
}
long double edge_angle(const lvec& a, const lvec& b, const lvec& q1, const lvec& q2) {
  const lvec e = minus(b, a);
  auto normal_part = [&](const lvec& q) {
    const lvec d = minus(q, a);
    const long double t = ldot(d, e) / ldot(e, e);
    return lvec{d[0] - t * e[0], d[1] - t * e[1], d[2] - t * e[2]};
  };
  const lvec u = normal_part(q1), v = normal_part(q2), w = lcross(u, v);
  return std::atan2(std::sqrt(ldot(w, w)), ldot(u, v));
}

// Edges (a, b, q1, q2) of a TH4 and of a PY5 with a plane convex base.
const std::vector<std::array<unsigned, 4>> reference_edges[2] = {
    {{0, 1, 2, 3}, {0, 2, 1, 3}, {0, 3, 1, 2}, {1, 2, 0, 3}, {1, 3, 0, 2}, {2, 3, 0, 1}},
    {{0, 4, 1, 3}, {1, 4, 2, 0}, {2, 4, 3, 1}, {3, 4, 0, 2}, {0, 1, 2, 4}, {1, 2, 3, 4}, {2, 3, 0, 4}, {3, 0, 1, 4}}};

struct reference_extremes {
  long double dihedral_lo = 10, dihedral_hi = -10, solid_lo = 10, solid_hi = -10;
};

reference_extremes reference(const box_mesh& m, unsigned pyramid) {
  reference_extremes r;
  const unsigned nb_corners = pyramid ? 5 : 4;
  std::vector<long double> corner_sum(nb_corners, 0);
  std::vector<int> corner_edges(nb_corners, 0);
  for (const auto& e : reference_edges[pyramid]) {
    const long double angle =
        edge_angle(point(m.coords, e[0]), point(m.coords, e[1]), point(m.coords, e[2]), point(m.coords, e[3]));
    r.dihedral_lo = std::min(r.dihedral_lo, angle);
    r.dihedral_hi = std::max(r.dihedral_hi, angle);
    for (unsigned k : {e[0], e[1]}) corner_sum[k] += angle, ++corner_edges[k];
  }
  const long double pi_l = std::acos(-1.0L);
  for (unsigned k = 0; k < nb_corners; ++k) {
    const long double solid = corner_sum[k] - (corner_edges[k] - 2) * pi_l;
    r.solid_lo = std::min(r.solid_lo, solid);
    r.solid_hi = std::max(r.solid_hi, solid);
  }
  return r;
}

// A positive TH4 (pyramid = 0) or PY5 (1) whose last node lies `height` times its
// longest edge off the plane of the others, its foot anywhere near them.
box_mesh nearly_flat(unsigned pyramid, double height, random_stream& random) {
  auto uniform3 = [&](double lo, double hi) {
    return lvec{random.uniform(lo, hi), random.uniform(lo, hi), random.uniform(lo, hi)};
  };
  const unsigned n = pyramid ? 5 : 4;
  std::vector<lvec> p(n);
  if (pyramid) {
    // A perturbed square in a random plane, counter-clockwise about its normal w.
    const lvec u0 = uniform3(-1, 1), v0 = uniform3(-1, 1);
    const lvec w0 = lcross(u0, v0), v1 = lcross(w0, u0);
    const long double lu = std::sqrt(ldot(u0, u0)), lv = std::sqrt(ldot(v1, v1));
    const lvec u{u0[0] / lu, u0[1] / lu, u0[2] / lu}, v{v1[0] / lv, v1[1] / lv, v1[2] / lv};
    const double square[4][2] = {{-1, -1}, {1, -1}, {1, 1}, {-1, 1}};
    for (unsigned k = 0; k < 4; ++k) {
      const double s = square[k][0] + random.uniform(-0.3, 0.3), t = square[k][1] + random.uniform(-0.3, 0.3);
      for (int d = 0; d < 3; ++d) p[k][d] = s * u[d] + t * v[d];
    }
    const double s = random.uniform(-1.5, 1.5), t = random.uniform(-1.5, 1.5);
    for (int d = 0; d < 3; ++d) p[4][d] = s * u[d] + t * v[d];
  } else {
    for (unsigned k = 0; k < 3; ++k) p[k] = uniform3(0, 1);
    const double s = random.uniform(-0.5, 1.5), t = random.uniform(-0.5, 1.5);
    for (int d = 0; d < 3; ++d) p[3][d] = p[0][d] + s * (p[1][d] - p[0][d]) + t * (p[2][d] - p[0][d]);
  }
  long double longest = 0;
  for (unsigned a = 0; a < n; ++a)
    for (unsigned b = 0; b < a; ++b) longest = std::max(longest, ldot(minus(p[a], p[b]), minus(p[a], p[b])));
  lvec normal = lcross(minus(p[1], p[0]), minus(p[2], p[0]));
  const long double scale = height * std::sqrt(longest / ldot(normal, normal));
  // A TH4 is positive with node 3 below the right-hand normal of 0-1-2, a PY5 with its
  // apex above.
  for (int d = 0; d < 3; ++d) p[n - 1][d] += (pyramid ? scale : -scale) * normal[d];
  box_mesh m = element({});
  m.coords = dense2D<double>(3, n);
  m.connect = dense2D<unsigned>(n, 1);
  for (unsigned k = 0; k < n; ++k) {
    m.connect(k, 0) = k;
    for (int d = 0; d < 3; ++d) m.coords(d, k) = double(p[k][d]);
  }
  return m;
}

}  // namespace

// Elements 1e-9 of their size from flat: the unclamped arc cosine gives NaN or loses
// an extreme on some of them; the checked forms match the extended-precision reference
// on all, and none is degenerate.
TEST(checked_angles, nearly_flat_elements_match_extended_precision) {
  random_stream random(2024);
  for (unsigned pyramid : {0u, 1u}) {
    SCOPED_TRACE(pyramid ? "PY5" : "TH4");
    int lost_by_arc_cosine = 0;
    for (int trial = 0; trial < 200; ++trial) {
      const box_mesh m = nearly_flat(pyramid, 1e-9, random);
      ASSERT_GT(volume_of(m.coords, m.connect), 0.0);
      const reference_extremes r = reference(m, pyramid);
      const extremes old = angles_of(t3::dihedral_angles, m, false);
      lost_by_arc_cosine +=
          !(std::fabs(old.lo - double(r.dihedral_lo)) <= 1e-6) || !(std::fabs(old.hi - double(r.dihedral_hi)) <= 1e-6);
      const checked_angles d = checked(checked_dihedral, m), s = checked(checked_solid, m);
      EXPECT_NEAR(d.lo[0], double(r.dihedral_lo), 1e-13) << trial;
      EXPECT_NEAR(d.hi[0], double(r.dihedral_hi), 1e-13) << trial;
      EXPECT_NEAR(s.lo[0], double(r.solid_lo), 1e-12) << trial;
      EXPECT_NEAR(s.hi[0], double(r.solid_hi), 1e-12) << trial;
      EXPECT_TRUE(d.degenerate.empty() && s.degenerate.empty()) << trial;
    }
    EXPECT_GT(lost_by_arc_cosine, 20);
  }
}

// Degenerate faces and corners are left out of the extremes, which come from the other
// values (reference: the edges (a, b, q1, q2) left, and each corner left as a list of
// its edges); the element is listed. Nothing left gives NaN.
TEST(checked_angles, degenerate_faces_and_corners_are_left_out) {
  using edge = std::array<unsigned, 4>;
  box_mesh collapsed_pyramid = unit_pyramid();  // base corners 0 and 1 at one point
  for (int d = 0; d < 3; ++d) collapsed_pyramid.coords(d, 1) = collapsed_pyramid.coords(d, 0);
  collapsed_pyramid.coords(0, 4) = collapsed_pyramid.coords(1, 4) = 0.4;
  box_mesh malformed{unit_pyramid().coords, to_mixed8(unit_pyramid().connect)};
  malformed.connect(3, 0) = absent;        // a pyramid needs row 3
  box_mesh wedged_cube = cuboid(1, 1, 1);  // top edge 4-5 collapsed: not flat
  for (int d = 0; d < 3; ++d) wedged_cube.coords(d, 5) = wedged_cube.coords(d, 4);
  const struct {
    const char* name;
    box_mesh mesh;
    std::vector<edge> dihedral;              // empty: NaN
    std::vector<std::vector<edge>> corners;  // empty: NaN
    bool dihedral_listed, solid_listed;
  } table[] = {
      // node 3 inside face (0, 1, 2): angles 0 and pi, flat; the corner at node 3 is
      // surrounded by its edges (+-2 pi on a rounding error), the others measure 0
      {"flat TH4",
       element({0, 0, 0, 1, 0, 0, 0, 1, 0, 0.25, 0.25, 0}),
       {{0, 1, 2, 3}, {0, 3, 1, 2}},
       {{{0, 1, 2, 3}, {0, 2, 1, 3}, {0, 3, 1, 2}}},
       true,
       true},
      // nodes 0 and 1 at one point: faces opposite 2 and 3 have no normal; the faces
      // opposite 0 and 1 are one triangle, at angle 0 to itself; no corner is left
      {"collapsed TH4", element({0, 0, 0, 0, 0, 0, 0, 1, 0, 0, 0, 1}), {{2, 3, 1, 1}}, {}, true, true},
      {"collapsed PY5",
       collapsed_pyramid,
       {{2, 4, 1, 3}, {3, 4, 2, 0}, {1, 2, 3, 4}, {2, 3, 0, 4}, {3, 0, 2, 4}},
       {{{2, 1, 3, 4}, {2, 3, 1, 4}, {2, 4, 1, 3}}, {{3, 2, 0, 4}, {3, 0, 2, 4}, {3, 4, 2, 0}}},
       true,
       true},
      {"mixed PY5 without row 3", malformed, {}, {}, true, true},
  };
  for (const auto& row : table) {
    SCOPED_TRACE(row.name);
    auto angle = [&](const edge& e) {
      return double(edge_angle(point(row.mesh.coords, e[0]), point(row.mesh.coords, e[1]), point(row.mesh.coords, e[2]),
                               point(row.mesh.coords, e[3])));
    };
    std::vector<double> dihedral, solid;
    for (const edge& e : row.dihedral) dihedral.push_back(angle(e));
    for (const auto& corner : row.corners) {
      double sum = -pi * (corner.size() - 2.0);
      for (const edge& e : corner) sum += angle(e);
      solid.push_back(sum);
    }
    for (const auto& [fn, expected, listed] : {std::make_tuple(checked_dihedral, dihedral, row.dihedral_listed),
                                               std::make_tuple(checked_solid, solid, row.solid_listed)}) {
      const checked_angles c = checked(fn, row.mesh);
      if (expected.empty()) {
        EXPECT_TRUE(std::isnan(c.lo[0]) && std::isnan(c.hi[0]));
      } else {
        EXPECT_NEAR(c.lo[0], *std::min_element(expected.begin(), expected.end()), 1e-14);
        EXPECT_NEAR(c.hi[0], *std::max_element(expected.begin(), expected.end()), 1e-14);
      }
      EXPECT_EQ(c.degenerate, listed ? std::vector<unsigned>{0} : std::vector<unsigned>{});
    }
  }
  // A collapsed edge of a cube leaves every face a direction and the volume half: only
  // the solid angles at its ends are undefined.
  EXPECT_TRUE(checked(checked_dihedral, wedged_cube).degenerate.empty());
  const checked_angles s = checked(checked_solid, wedged_cube);
  EXPECT_EQ(s.degenerate, std::vector<unsigned>{0});
  EXPECT_NEAR(s.lo[0], pi / 4, 1e-14);  // corners 1 and 0 under the collapsed edge
  EXPECT_NEAR(s.hi[0], pi / 2, 1e-14);
}
