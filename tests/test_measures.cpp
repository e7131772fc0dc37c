// Geometric measures: volume, circumcenters, dihedral_angles, solid_angles.
#include <gtest/gtest.h>

#include <cmath>
#include <limits>
#include <vector>

#include "box_mesh.h"
#include "failing_allocator.h"
#include "measures/angle_walk.h"
#include "zel/tessel3d.h"

namespace t3 = zel::tessel3d;
using tessel3d_test::box_kind;
using tessel3d_test::box_mesh;
using tessel3d_test::make_box;
using tessel3d_test::padded_view;
using tessel3d_test::to_mixed8;

namespace {

const double pi = std::acos(-1.0);
const double nan_guard = std::numeric_limits<double>::quiet_NaN();
constexpr unsigned absent = ~0U;

// One element: its nodes are 0, 1, 2, ... in connectivity order.
box_mesh element(std::initializer_list<double> xyz) {
  box_mesh m;
  const unsigned n = unsigned(xyz.size() / 3);
  m.coords = zel::dense2D<double>(3, n, xyz);
  m.connect.resize(n, 1);
  for (unsigned i = 0; i < n; ++i) m.connect(i, 0) = i;
  return m;
}

box_mesh unit_tet() { return element({0, 0, 0, 1, 0, 0, 0, 1, 0, 0, 0, 1}); }
box_mesh right_tet() { return element({0, 0, 0, 0, 1, 0, 1, 0, 0, 0, 0, 1}); }  // positive
box_mesh regular_tet() { return element({1, 1, 1, 1, -1, -1, -1, 1, -1, -1, -1, 1}); }
box_mesh unit_pyramid() { return element({0, 0, 0, 1, 0, 0, 1, 1, 0, 0, 1, 0, 0, 0, 1}); }
box_mesh regular_pyramid() { return element({0, 0, 0, 1, 0, 0, 1, 1, 0, 0, 1, 0, 0.5, 0.5, std::sqrt(0.5)}); }
box_mesh unit_prism() { return element({0, 0, 0, 1, 0, 0, 0, 1, 0, 0, 0, 1, 1, 0, 1, 0, 1, 1}); }
box_mesh regular_prism() {
  const double h = std::sqrt(3.0) / 2;
  return element({0, 0, 0, 1, 0, 0, 0.5, h, 0, 0, 0, 1, 1, 0, 1, 0.5, h, 1});
}
box_mesh box_hexa(double a, double b, double c) {
  return element({0, 0, 0, a, 0, 0, a, b, 0, 0, b, 0, 0, 0, c, a, 0, c, a, b, c, 0, b, c});
}

double volume_of(const zel::dense2D<double>& coords, const zel::dense2D<unsigned>& connect) {
  double v = 42.0;
  EXPECT_EQ(t3::volume(coords, connect, v), 0);
  return v;
}

// Several meshes side by side in one 8-row mixed connectivity, part k shifted by 2k in x.
box_mesh combine(const std::vector<box_mesh>& parts) {
  std::size_t nodes = 0, elements = 0;
  for (const box_mesh& p : parts) nodes += p.coords.cols(), elements += p.connect.cols();
  box_mesh all;
  all.coords.resize(3, nodes);
  all.connect.resize(8, elements, absent);
  std::size_t node0 = 0, element0 = 0;
  for (std::size_t k = 0; k < parts.size(); ++k) {
    const box_mesh& p = parts[k];
    for (std::size_t j = 0; j < p.coords.cols(); ++j)
      for (std::size_t i = 0; i < 3; ++i) all.coords(i, node0 + j) = p.coords(i, j) + (i == 0 ? 2.0 * k : 0.0);
    for (std::size_t j = 0; j < p.connect.cols(); ++j)
      for (std::size_t i = 0; i < p.connect.rows(); ++i) all.connect(i, element0 + j) = unsigned(node0 + p.connect(i, j));
    node0 += p.coords.cols();
    element0 += p.connect.cols();
  }
  return all;
}

zel::element_type type_of(box_kind kind) {
  static const zel::element_type types[] = {zel::TH4, zel::PY5, zel::W6, zel::H8};
  return types[static_cast<int>(kind)];
}

}  // namespace

// ---- volume ----------------------------------------------------------------------

TEST(volume, reference_elements) {
  struct reference {
    const char* name;
    box_mesh mesh;
    double expected;
  };
  const reference table[] = {{"unit tetrahedron", unit_tet(), -1.0 / 6},  {"unit pyramid", unit_pyramid(), 1.0 / 3},
                             {"unit prism", unit_prism(), 0.5},           {"unit cube", box_hexa(1, 1, 1), 1.0},
                             {"box 2 x 3 x 5", box_hexa(2, 3, 5), 30.0}};
  for (const reference& r : table) {
    EXPECT_NEAR(volume_of(r.mesh.coords, r.mesh.connect), r.expected, 1e-14) << r.name;
    EXPECT_NEAR(volume_of(r.mesh.coords, to_mixed8(r.mesh.connect)), r.expected, 1e-14) << r.name << " (mixed)";
  }
}

namespace {

// An element's volume as a sum of tetrahedra (a, b, c, d), each measured right-handed:
// det(b - a, c - a, d - a) / 6. The splits are those whose diagonals cut the faces the
// way the kernels do (TH4 is listed left-handed, the library's sign).
struct tet_split {
  unsigned count;
  unsigned tets[5][4];
};
const tet_split splits[4] = {
    {1, {{3, 0, 1, 2}}},
    {2, {{0, 1, 2, 4}, {0, 2, 3, 4}}},
    {3, {{1, 2, 0, 4}, {2, 0, 4, 3}, {2, 4, 5, 3}}},
    {5, {{0, 1, 3, 4}, {2, 3, 1, 6}, {5, 4, 6, 1}, {7, 6, 4, 3}, {1, 3, 4, 6}}},
};

double split_volume(const box_mesh& m, box_kind kind) {
  const tet_split& split = splits[static_cast<int>(kind)];
  double total = 0;
  for (std::size_t j = 0; j < m.connect.cols(); ++j)
    for (unsigned t = 0; t < split.count; ++t) {
      double e[3][3];
      for (int k = 0; k < 3; ++k)
        for (int i = 0; i < 3; ++i)
          e[k][i] = m.coords(i, m.connect(split.tets[t][k + 1], j)) - m.coords(i, m.connect(split.tets[t][0], j));
      total += (e[0][0] * (e[1][1] * e[2][2] - e[1][2] * e[2][1]) - e[0][1] * (e[1][0] * e[2][2] - e[1][2] * e[2][0]) +
                e[0][2] * (e[1][0] * e[2][1] - e[1][1] * e[2][0])) / 6;
    }
  return total;
}

// x -> A x + (1, 2, 3) on every node; returns det A.
double shear(box_mesh& m) {
  const double a[3][3] = {{2.0, 0.5, 0.1}, {-0.3, 1.5, 0.2}, {0.4, 0.0, 0.8}};
  for (std::size_t j = 0; j < m.coords.cols(); ++j) {
    const double x[3] = {m.coords(0, j), m.coords(1, j), m.coords(2, j)};
    for (int i = 0; i < 3; ++i) m.coords(i, j) = a[i][0] * x[0] + a[i][1] * x[1] + a[i][2] * x[2] + (i + 1.0);
  }
  return a[0][0] * (a[1][1] * a[2][2] - a[1][2] * a[2][1]) - a[0][1] * (a[1][0] * a[2][2] - a[1][2] * a[2][0]) +
         a[0][2] * (a[1][0] * a[2][1] - a[1][1] * a[2][0]);
}

}  // namespace

class volume_box : public ::testing::TestWithParam<box_kind> {};

TEST_P(volume_box, total_is_the_box_volume) {
  const box_mesh m = make_box(GetParam(), 5, 4, 3, 2.0, 3.0, 5.0);
  EXPECT_NEAR(volume_of(m.coords, m.connect), 30.0, 1e-12);
  EXPECT_NEAR(volume_of(m.coords, to_mixed8(m.connect)), 30.0, 1e-12);
  // Strided views: wrong strides would read the NaN or node-0 guards.
  EXPECT_NEAR(volume_of(padded_view(m.coords, 2, nan_guard), padded_view(m.connect, 3, 0u)), 30.0, 1e-12);
  EXPECT_NEAR(volume_of(m.coords, padded_view(to_mixed8(m.connect), 1, 0u)), 30.0, 1e-12);
}

// Jittered nodes bend the quadrangles: elements are then measured as their tetrahedral
// splits. Triangles and pyramid bases are cut the same way from both sides, so TH4 and
// PY5 meshes still fill the box exactly; W6 and H8 neighbours cut a shared face along
// different diagonals and do not.
TEST_P(volume_box, jittered_elements_are_their_tetrahedral_splits) {
  const box_mesh m = make_box(GetParam(), 5, 4, 3, 2.0, 3.0, 5.0, 0.2, 7);
  const double total = volume_of(m.coords, m.connect);
  EXPECT_NEAR(total, split_volume(m, GetParam()), 1e-12);
  EXPECT_NEAR(volume_of(m.coords, to_mixed8(m.connect)), total, 1e-12);
  if (GetParam() == box_kind::TH4 || GetParam() == box_kind::PY5) {
    EXPECT_NEAR(total, 30.0, 1e-12);
  }
}

TEST_P(volume_box, affine_map_scales_by_its_determinant) {
  box_mesh m = make_box(GetParam(), 3, 3, 3, 1.0, 1.0, 1.0, 0.2, 11);
  const double before = volume_of(m.coords, m.connect);
  const double det = shear(m);
  EXPECT_NEAR(volume_of(m.coords, m.connect), det * before, 1e-12);
}

TEST_P(volume_box, flips_negate_it) {
  box_mesh m = make_box(GetParam(), 3, 2, 2, 1.0, 2.0, 3.0);
  const double expected = -6.0 * shear(m);  // oblique, still with plane faces
  zel::dense2D<unsigned> flipped;
  ASSERT_TRUE(flipped.copy(m.connect));
  ASSERT_EQ(t3::flip(flipped, type_of(GetParam())), 0);
  EXPECT_NEAR(volume_of(m.coords, flipped), expected, 1e-12);
  EXPECT_NEAR(volume_of(m.coords, to_mixed8(flipped)), expected, 1e-12);
  // Each element next to its flipped copy cancels.
  const box_mesh both = combine({m, box_mesh{m.coords, flipped}});
  EXPECT_NEAR(volume_of(both.coords, both.connect), 0.0, 1e-12);
}

INSTANTIATE_TEST_SUITE_P(every_kind, volume_box, ::testing::Values(box_kind::TH4, box_kind::PY5, box_kind::W6, box_kind::H8));

// Part k is shifted to [2k, 2k + l] in x: the pieces do not overlap.
TEST(volume, mixed_mesh_of_every_kind) {
  const std::vector<box_mesh> plain = {make_box(box_kind::H8, 2, 2, 2, 1, 1, 1), make_box(box_kind::TH4, 2, 3, 2, 1, 2, 1),
                                       make_box(box_kind::W6, 3, 2, 2, 1.5, 1, 2), make_box(box_kind::PY5, 2, 2, 2, 1, 1, 3)};
  const box_mesh m = combine(plain);
  EXPECT_NEAR(volume_of(m.coords, m.connect), 1.0 + 2.0 + 3.0 + 3.0, 1e-12);
  // Jittered, each column still gets the kernel of its own kind.
  std::vector<box_mesh> jittered;
  double parts = 0;
  for (std::size_t k = 0; k < 4; ++k) {
    const box_kind kinds[] = {box_kind::H8, box_kind::TH4, box_kind::W6, box_kind::PY5};
    jittered.push_back(make_box(kinds[k], 2, 2, 2, 1, 1, 1, 0.2, 20 + k));
    parts += volume_of(jittered.back().coords, jittered.back().connect);
  }
  const box_mesh j = combine(jittered);
  EXPECT_NEAR(volume_of(j.coords, j.connect), parts, 1e-12);
}

TEST(volume, status_codes_and_result_on_failure) {
  const box_mesh m = make_box(box_kind::TH4, 1, 1, 1);
  const zel::dense2D<double> flat(2, m.coords.cols(), 0.0);
  double v = 42.0;
  // Empty connectivity first: even malformed coordinates pass.
  EXPECT_EQ(t3::volume(flat, zel::dense2D<unsigned>(4, 0), v), 0);
  EXPECT_EQ(v, 0.0);
  v = 42.0;
  EXPECT_EQ(t3::volume(flat, m.connect, v), -1);
  EXPECT_EQ(v, 0.0);
  zel::dense2D<unsigned> bad;
  ASSERT_TRUE(bad.copy(m.connect));
  bad(2, 3) = unsigned(m.coords.cols());
  EXPECT_EQ(t3::volume(flat, bad, v), -1);  // coordinates are checked before IDs
  v = 42.0;
  EXPECT_EQ(t3::volume(m.coords, bad, v), -2);
  EXPECT_EQ(v, 0.0);
  bad(2, 3) = absent;  // absent nodes only belong to the mixed layout
  EXPECT_EQ(t3::volume(m.coords, bad, v), -2);
  for (std::size_t rows : {3u, 7u, 9u}) {
    const zel::dense2D<unsigned> odd(rows, 2, 0u);
    EXPECT_EQ(t3::volume(m.coords, odd, v), -2) << rows << " rows";
  }
}

// ---- circumcenters -------------------------------------------------------------------

namespace {

void expect_center(const zel::dense2D<double>& centers, std::size_t j, double x, double y, double z) {
  EXPECT_NEAR(centers(0, j), x, 1e-14);
  EXPECT_NEAR(centers(1, j), y, 1e-14);
  EXPECT_NEAR(centers(2, j), z, 1e-14);
}

}  // namespace

TEST(circumcenters, positive_inverted_and_degenerate) {
  // Positive: the sphere centre. Inverted: the centre of face (1, 2, 3). Nodes 1, 2, 3 on
  // a line: node 3. Node 0 in the plane of the face: the centre of the face.
  const zel::dense2D<double> coords(3, 7, {0, 0, 0, 1, 0, 0, 0, 1, 0, 0, 0, 1, 2, 0, 0, 3, 0, 0, 0.5, 0.5, 0});
  const zel::dense2D<unsigned> connect(4, 4, {0, 2, 1, 3, 0, 1, 2, 3, 2, 1, 4, 5, 6, 0, 1, 2});
  zel::dense2D<double> centers;
  ASSERT_EQ(t3::circumcenters(padded_view(coords, 1, nan_guard), padded_view(connect, 2, 0u), centers), 0);
  ASSERT_EQ(centers.rows(), 3u);
  ASSERT_EQ(centers.cols(), 4u);
  expect_center(centers, 0, 0.5, 0.5, 0.5);
  expect_center(centers, 1, 1.0 / 3, 1.0 / 3, 1.0 / 3);
  expect_center(centers, 2, 3, 0, 0);
  expect_center(centers, 3, 0.5, 0.5, 0);
}

TEST(circumcenters, equidistant_from_the_nodes_of_random_positive_tets) {
  tessel3d_test::random_stream random(5);
  const unsigned n = 200;
  zel::dense2D<double> coords(3, 4 * n);
  zel::dense2D<unsigned> connect(4, n);
  for (unsigned e = 0; e < n; ++e) {
    for (unsigned k = 0; k < 4; ++k)
      for (unsigned i = 0; i < 3; ++i) coords(i, 4 * e + k) = random.uniform(-1, 1);
    for (unsigned k = 0; k < 4; ++k) connect(k, e) = 4 * e + k;
    double v;
    ASSERT_EQ(t3::volume(coords, connect.sub_matrix(0, e, 4, 1), v), 0);
    if (v < 0) std::swap(connect(0, e), connect(1, e));
  }
  zel::dense2D<double> centers;
  ASSERT_EQ(t3::circumcenters(coords, connect, centers), 0);
  for (unsigned e = 0; e < n; ++e) {
    double r2[4];
    for (unsigned k = 0; k < 4; ++k) {
      r2[k] = 0;
      for (unsigned i = 0; i < 3; ++i) r2[k] += std::pow(centers(i, e) - coords(i, connect(k, e)), 2);
    }
    for (unsigned k = 1; k < 4; ++k) EXPECT_NEAR(r2[k], r2[0], 1e-8 * r2[0]) << "element " << e;
  }
}

TEST(circumcenters, status_codes_and_output_on_failure) {
  const box_mesh m = unit_tet();
  zel::dense2D<double> centers(3, 2, 9.0);
  EXPECT_EQ(t3::circumcenters(zel::dense2D<double>(2, 4), m.connect, centers), -1);
  EXPECT_EQ(centers.rows() + centers.cols() + centers.ld(), 0u);
  EXPECT_EQ(t3::circumcenters(m.coords, zel::dense2D<unsigned>(3, 1, 0u), centers), -2);
  EXPECT_EQ(t3::circumcenters(m.coords, zel::dense2D<unsigned>(4, 1, 4u), centers), -2);
  EXPECT_EQ(t3::circumcenters(m.coords, zel::dense2D<unsigned>(3, 0), centers), -2);  // rows before emptiness
  EXPECT_EQ(t3::circumcenters(m.coords, zel::dense2D<unsigned>(4, 0), centers), 0);
  EXPECT_EQ(centers.rows(), 3u);
  EXPECT_EQ(centers.cols(), 0u);
}

TEST(circumcenters, allocation_failure_leaves_centers_empty) {
  const box_mesh m = make_box(box_kind::TH4, 2, 2, 2);
  const zel::dense2D<double> shared(3, 4, 9.0);
  zel::dense2D<double> centers = shared;  // shares its buffer: must not be written
  {
    tessel3d_test::failing_allocator guard(1);
    EXPECT_EQ(t3::circumcenters(m.coords, m.connect, centers), -199);
    EXPECT_TRUE(guard.failed());
  }
  EXPECT_EQ(centers.rows() + centers.cols(), 0u);
  EXPECT_EQ(shared(2, 3), 9.0);
}

// ---- dihedral_angles, solid_angles ---------------------------------------------------------

namespace {

using angle_fn = int (*)(const zel::dense2D<double>&, const zel::dense2D<unsigned>&, bool, zel::dense1D<double, 8>&,
                         zel::dense1D<double, 8>&);

struct extremes {
  double lo, hi;
};

extremes angles_of(angle_fn fn, const box_mesh& m, bool normalise) {
  zel::dense1D<double, 8> lo(1, -7.0), hi(1, -7.0);
  EXPECT_EQ(fn(m.coords, m.connect, normalise, lo, hi), 0);
  return {lo[0], hi[0]};
}

}  // namespace

// Regular elements score 1 in both measures, except the tetrahedron's solid angle,
// acos(23/27) scaled by 5/pi (about 0.877). Mixed layout too.
TEST(dihedral_and_solid_angles, regular_elements) {
  const double tet_corner = std::acos(23.0 / 27) * 5 / pi;
  const struct {
    box_mesh mesh;
    double solid;
  } table[] = {{regular_tet(), tet_corner}, {regular_pyramid(), 1.0}, {regular_prism(), 1.0}, {box_hexa(1, 1, 1), 1.0}};
  for (const auto& r : table)
    for (const zel::dense2D<unsigned>& c : {r.mesh.connect, to_mixed8(r.mesh.connect)}) {
      const box_mesh m{r.mesh.coords, c};
      const extremes dihedral = angles_of(t3::dihedral_angles, m, true), solid = angles_of(t3::solid_angles, m, true);
      EXPECT_NEAR(dihedral.lo, 1.0, 1e-14) << r.mesh.connect.rows() << " rows";
      EXPECT_NEAR(dihedral.hi, 1.0, 1e-14) << r.mesh.connect.rows() << " rows";
      EXPECT_NEAR(solid.lo, r.solid, 1e-14) << r.mesh.connect.rows() << " rows";
      EXPECT_NEAR(solid.hi, r.solid, 1e-14) << r.mesh.connect.rows() << " rows";
    }
  // In radians: acos(1/3) in the tetrahedron, pi/2 in the cube, pi/2 at the right corner
  // (node 0) of the right-angled tetrahedron, which scales to 2.5.
  EXPECT_NEAR(angles_of(t3::dihedral_angles, regular_tet(), false).hi, std::acos(1.0 / 3), 1e-14);
  EXPECT_NEAR(angles_of(t3::dihedral_angles, box_hexa(1, 1, 1), false).lo, pi / 2, 1e-14);
  EXPECT_NEAR(angles_of(t3::solid_angles, box_hexa(1, 1, 1), false).hi, pi / 2, 1e-14);
  EXPECT_NEAR(angles_of(t3::solid_angles, right_tet(), false).hi, pi / 2, 1e-14);
  EXPECT_NEAR(angles_of(t3::solid_angles, right_tet(), true).hi, 2.5, 1e-14);
}

// The unit pyramid, apex above base corner 0: solid angles pi/2 at corner 0, pi/4 at 1
// and 3, pi/6 at 2 and at the apex (a unit square seen from height 1 above a corner);
// dihedral angles pi/2 and pi/4 along the base, pi/2 and 2 pi/3 along the lateral edges.
TEST(solid_angles, unit_pyramid_apex_and_base_corners) {
  const extremes raw = angles_of(t3::solid_angles, unit_pyramid(), false);
  EXPECT_NEAR(raw.lo, pi / 6, 1e-14);
  EXPECT_NEAR(raw.hi, pi / 2, 1e-14);
  const extremes scaled = angles_of(t3::solid_angles, unit_pyramid(), true);
  EXPECT_NEAR(scaled.lo, pi / 6 / (4 * std::asin(1.0 / 3)), 1e-14);  // the apex
  EXPECT_NEAR(scaled.hi, pi / 2 / (2 * std::asin(1.0 / 3)), 1e-14);
  const extremes dihedral = angles_of(t3::dihedral_angles, unit_pyramid(), false);
  EXPECT_NEAR(dihedral.lo, pi / 4, 1e-14);
  EXPECT_NEAR(dihedral.hi, 2 * pi / 3, 1e-14);
  EXPECT_NEAR(angles_of(t3::dihedral_angles, unit_pyramid(), true).hi, pi / 2 / std::acos(1 / std::sqrt(3.0)), 1e-14);
}

TEST(solid_angles, inverted_elements_are_negative) {
  for (box_kind kind : {box_kind::TH4, box_kind::PY5, box_kind::W6, box_kind::H8}) {
    box_mesh m = make_box(kind, 2, 2, 2, 1, 1, 1, 0.1, 9);
    ASSERT_EQ(t3::flip(m.connect, type_of(kind)), 0);
    const std::size_t n = m.connect.cols();
    zel::dense1D<double, 8> lo(n), hi(n);
    ASSERT_EQ(t3::solid_angles(m.coords, m.connect, false, lo, hi), 0);
    for (std::size_t j = 0; j < n; ++j) EXPECT_LT(hi[j], 0.0) << "kind " << int(kind) << " element " << j;
  }
}

class angles_on_boxes : public ::testing::TestWithParam<std::tuple<angle_fn, box_kind>> {};

// The mixed layout and strided views give exactly the values of the plain pure mesh.
TEST_P(angles_on_boxes, mixed_layout_and_views_agree) {
  const angle_fn fn = std::get<0>(GetParam());
  const box_mesh m = make_box(std::get<1>(GetParam()), 3, 2, 2, 1, 2, 3, 0.2, 13);
  const std::size_t n = m.connect.cols();
  zel::dense1D<double, 8> lo(n), hi(n), mixed_lo(n), mixed_hi(n), view_lo(n), view_hi(n);
  ASSERT_EQ(fn(m.coords, m.connect, true, lo, hi), 0);
  ASSERT_EQ(fn(m.coords, to_mixed8(m.connect), true, mixed_lo, mixed_hi), 0);
  ASSERT_EQ(fn(padded_view(m.coords, 2, nan_guard), padded_view(m.connect, 1, 0u), true, view_lo, view_hi), 0);
  for (std::size_t j = 0; j < n; ++j) {
    EXPECT_GT(lo[j], 0.0);
    EXPECT_LE(lo[j], hi[j]);
    EXPECT_EQ(mixed_lo[j], lo[j]);
    EXPECT_EQ(mixed_hi[j], hi[j]);
    EXPECT_EQ(view_lo[j], lo[j]);
    EXPECT_EQ(view_hi[j], hi[j]);
  }
}

INSTANTIATE_TEST_SUITE_P(every_kind, angles_on_boxes,
                         ::testing::Combine(::testing::Values(angle_fn(t3::dihedral_angles), angle_fn(t3::solid_angles)),
                                            ::testing::Values(box_kind::TH4, box_kind::PY5, box_kind::W6, box_kind::H8)));

TEST(dihedral_angles, degenerate_faces_give_zero) {
  // Nodes 0 and 1 coincide: the faces opposite 2 and 3 have no normal.
  const box_mesh m = element({0, 0, 0, 0, 0, 0, 1, 0, 0, 0, 1, 0});
  const extremes e = angles_of(t3::dihedral_angles, m, false);
  EXPECT_EQ(e.lo, 0.0);
}

// Mixed columns that lack a node their kind needs: an absent node reads as NaN, never
// as memory. A pyramid without row 3 keeps the triangle (0, 1, 2) as its base.
TEST(dihedral_and_solid_angles, malformed_mixed_columns) {
  box_mesh m = unit_pyramid();
  m.connect = to_mixed8(m.connect);
  m.connect(3, 0) = absent;
  const extremes scaled = angles_of(t3::dihedral_angles, m, true);
  EXPECT_EQ(scaled.lo, 0.0);                                               // faces through node 3
  EXPECT_NEAR(scaled.hi, pi / 2 / std::acos(1 / std::sqrt(3.0)), 1e-14);  // base and face (0, 4, 1)
  double v = 0;
  EXPECT_EQ(t3::volume(m.coords, m.connect, v), 0);
  EXPECT_TRUE(std::isnan(v));
  m.connect(4, 0) = absent;  // rows 3 to 7 absent: read as a hexahedron
  EXPECT_EQ(t3::volume(m.coords, m.connect, v), 0);
  EXPECT_TRUE(std::isnan(v));
}

TEST(dihedral_angles, extremes_follow_the_comparisons_through_nan) {
  const double nan = std::numeric_limits<double>::quiet_NaN();
  const double values[] = {1.0, nan, 3.0, 2.0};
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
  zel::dense1D<double, 8> lo(1), hi(1);
  tessel3d_test::failing_allocator guard(3);  // list object, room for 8, room for 16
  EXPECT_EQ(t3::dihedral_angles(m.coords, m.connect, false, lo, hi), 0);
  EXPECT_TRUE(guard.failed());
  EXPECT_NEAR(lo[0], pi / 2, 1e-14);
  EXPECT_NEAR(hi[0], 3 * pi / 4, 1e-14);
}

TEST(dihedral_and_solid_angles, status_codes_and_outputs) {
  for (angle_fn fn : {angle_fn(t3::dihedral_angles), angle_fn(t3::solid_angles)}) {
    const box_mesh m = make_box(box_kind::TH4, 1, 1, 1);  // 6 elements
    zel::dense1D<double, 8> lo(6, -7.0), hi(6, -7.0);
    zel::dense2D<unsigned> bad;
    ASSERT_TRUE(bad.copy(m.connect));
    bad(1, 4) = unsigned(m.coords.cols());
    EXPECT_EQ(fn(m.coords, bad, false, lo, hi), -2);
    EXPECT_EQ(fn(m.coords, zel::dense2D<unsigned>(7, 1, 0u), false, lo, hi), -2);
    EXPECT_EQ(fn(m.coords, zel::dense2D<unsigned>(8, 0), false, lo, hi), 0);
    for (std::size_t j = 0; j < 6; ++j) EXPECT_EQ(lo[j] + hi[j], -14.0) << "written on failure or empty input";
    // Coordinates with 2 rows cannot be read: -1, nothing written.
    EXPECT_EQ(fn(m.coords.sub_matrix(0, 0, 2, m.coords.cols()), m.connect, false, lo, hi), -1);
    for (std::size_t j = 0; j < 6; ++j) EXPECT_EQ(lo[j] + hi[j], -14.0);
    // A fourth row is simply ignored.
    zel::dense2D<double> four(4, m.coords.cols(), 5.0);
    for (std::size_t j = 0; j < m.coords.cols(); ++j)
      for (std::size_t i = 0; i < 3; ++i) four(i, j) = m.coords(i, j);
    zel::dense1D<double, 8> lo4(6), hi4(6);
    ASSERT_EQ(fn(four, m.connect, false, lo4, hi4), 0);
    ASSERT_EQ(fn(m.coords, m.connect, false, lo, hi), 0);
    for (std::size_t j = 0; j < 6; ++j) EXPECT_EQ(lo4[j], lo[j]);
    // Short outputs are neither enlarged nor written past their end.
    zel::dense1D<double, 8> lo2(2, -7.0), hi1(1, -7.0);
    ASSERT_EQ(fn(m.coords, m.connect, false, lo2, hi1), 0);
    EXPECT_EQ(lo2.size(), 2u);
    EXPECT_EQ(hi1.size(), 1u);
    EXPECT_EQ(lo2[1], lo[1]);
    EXPECT_EQ(hi1[0], hi[0]);
  }
}
