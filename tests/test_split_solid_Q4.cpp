// Splitting solids along listed quadrangle faces: conformity, volume, orientation, the
// shared choice of diagonal, the quality threshold, status codes and roll-back.
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <limits>
#include <map>
#include <set>
#include <vector>

#include "box_mesh.h"
#include "failing_allocator.h"
#include "zel/tessel3d.h"

namespace t3 = zel::tessel3d;
using tessel3d_test::box_kind;
using tessel3d_test::box_mesh;
using tessel3d_test::make_box;
using tessel3d_test::padded_view;
using tessel3d_test::to_mixed8;
using zel::dense1D;
using zel::dense2D;

namespace {

constexpr unsigned absent = ~0U;
using face = std::vector<unsigned>;  // sorted node IDs

struct result {
  int status = 1;
  dense2D<double> coords;
  dense2D<unsigned> out;
  dense1D<unsigned, 8> failed;
};

result run(const box_mesh& m, const dense2D<unsigned>& quads, double min_quality) {
  result r;
  r.coords.copy(m.coords);
  r.status = t3::split_solid_Q4(r.coords, m.connect, quads, min_quality, r.out, r.failed);
  return r;
}

dense2D<unsigned> columns(const std::vector<std::array<unsigned, 4>>& list) {
  dense2D<unsigned> q(4, list.size());
  for (std::size_t j = 0; j < list.size(); ++j)
    for (unsigned i = 0; i < 4; ++i) q(i, j) = list[j][i];
  return q;
}

dense2D<double> points(const std::vector<std::array<double, 3>>& list) {
  dense2D<double> xyz(3, list.size());
  for (std::size_t j = 0; j < list.size(); ++j)
    for (int d = 0; d < 3; ++d) xyz(d, j) = list[j][d];
  return xyz;
}

// Node lists of the faces of each kind, by the number of present rows in 8 (4 TH4, 5
// PY5, 6 W6, 8 H8); orientation plays no part here.
const std::map<unsigned, std::vector<face>> faces_by_rows = {
    {4, {{1, 2, 3}, {0, 2, 3}, {0, 1, 3}, {0, 1, 2}}},
    {5, {{0, 1, 2, 3}, {0, 1, 4}, {1, 2, 4}, {2, 3, 4}, {0, 3, 4}}},
    {6, {{0, 1, 2}, {3, 4, 5}, {0, 1, 3, 4}, {1, 2, 4, 5}, {0, 2, 3, 5}}},
    {8, {{0, 1, 2, 3}, {4, 5, 6, 7}, {0, 1, 4, 5}, {1, 2, 5, 6}, {2, 3, 6, 7}, {0, 3, 4, 7}}}};

unsigned present_rows(const dense2D<unsigned>& c, std::size_t j) {
  unsigned n = 0;
  while (n < c.rows() && c(n, j) != absent) ++n;
  return n;
}

// Faces met exactly once among columns [first, last) of an 8-row connectivity.
std::set<face> boundary(const dense2D<unsigned>& c, std::size_t first, std::size_t last) {
  std::map<face, int> count;
  for (std::size_t j = first; j < last; ++j)
    for (const face& local : faces_by_rows.at(present_rows(c, j))) {
      face f;
      for (unsigned v : local) f.push_back(c(v, j));
      std::sort(f.begin(), f.end());
      ++count[f];
    }
  std::set<face> once;
  for (const auto& [f, n] : count)
    if (n == 1) once.insert(f);
  return once;
}

double volume_of(const dense2D<double>& coords, const dense2D<unsigned>& c) {
  double v = 0;
  EXPECT_EQ(t3::volume(coords, c, v), 0);
  return v;
}

double column_volume(const dense2D<double>& coords, const dense2D<unsigned>& c, std::size_t j) {
  return volume_of(coords, c.sub_matrix(0, j, c.rows(), 1));
}

// Smallest normalised dihedral angle of each column.
std::vector<double> qualities(const dense2D<double>& coords, const dense2D<unsigned>& c) {
  dense1D<double, 8> lo(c.cols()), hi(c.cols());
  EXPECT_EQ(t3::dihedral_angles(coords, c, true, lo, hi), 0);
  return std::vector<double>(lo.begin(), lo.end());
}

// Box with cells nx x ny x 2 and the faces of its middle plane listed from below (as
// the lower cells see them, right-hand normal pointing down), from above, or both.
struct layered_box {
  box_mesh mesh;
  dense2D<unsigned> quads;
};
layered_box middle_layer(unsigned nx, unsigned ny, bool below, bool above) {
  layered_box b{make_box(box_kind::H8, nx, ny, 2), {}};
  std::vector<std::array<unsigned, 4>> list;
  for (std::size_t j = 0; j < b.mesh.connect.cols(); ++j) {
    const auto n = [&](unsigned i) { return b.mesh.connect(i, j); };
    if (below && j < nx * ny) list.push_back({n(4), n(7), n(6), n(5)});
    if (above && j >= nx * ny) list.push_back({n(0), n(1), n(2), n(3)});
  }
  b.quads = columns(list);
  return b;
}

// ---- splitting and conformity -------------------------------------------------------------

TEST(split_solid_Q4, middle_layer_of_a_box_is_triangulated_conformingly) {
  const unsigned nx = 3, ny = 2;
  const layered_box b = middle_layer(nx, ny, true, true);
  const result r = run(b.mesh, b.quads, 0.1);
  ASSERT_EQ(r.status, 0);
  EXPECT_TRUE(r.failed.empty());
  const std::size_t cells = nx * ny * 2, nodes = b.mesh.coords.cols();
  ASSERT_EQ(r.out.rows(), 8u);
  ASSERT_EQ(r.out.cols(), cells * 7);  // 5 PY5 and 2 TH4 per cell
  ASSERT_EQ(r.coords.cols(), nodes + cells);
  EXPECT_NEAR(volume_of(r.coords, r.out), 1.0, 1e-12);
  for (std::size_t j = 0; j < r.out.cols(); ++j) EXPECT_GT(column_volume(r.coords, r.out, j), 1e-6) << j;
  for (double q : qualities(r.coords, r.out)) EXPECT_GT(q, 0.1);

  // Cell j's pieces are columns 7j ... 7j+6 around new node nodes + j, its centroid.
  std::set<face> listed;
  for (std::size_t j = 0; j < b.quads.cols(); ++j) {
    face f{b.quads(0, j), b.quads(1, j), b.quads(2, j), b.quads(3, j)};
    std::sort(f.begin(), f.end());
    listed.insert(f);
  }
  for (std::size_t cell = 0; cell < cells; ++cell) {
    for (int d = 0; d < 3; ++d) {
      double mean = 0;
      for (unsigned i = 0; i < 8; ++i) mean += b.mesh.coords(d, b.mesh.connect(i, cell)) / 8;
      EXPECT_NEAR(r.coords(d, nodes + cell), mean, 1e-15);
    }
    const std::set<face> pieces = boundary(r.out, 7 * cell, 7 * cell + 7);
    std::set<face> expected;  // the cell's own faces, the listed one as two triangles
    for (const face& f : boundary(to_mixed8(b.mesh.connect), cell, cell + 1)) {
      if (!listed.count(f)) {
        expected.insert(f);
        continue;
      }
      std::vector<face> halves;
      for (const face& p : pieces)
        if (p.size() == 3 && std::includes(f.begin(), f.end(), p.begin(), p.end())) halves.push_back(p);
      ASSERT_EQ(halves.size(), 2u) << "cell " << cell;
      face shared;
      std::set_intersection(halves[0].begin(), halves[0].end(), halves[1].begin(), halves[1].end(),
                            std::back_inserter(shared));
      EXPECT_EQ(shared.size(), 2u);  // cut along a diagonal
      expected.insert(halves.begin(), halves.end());
    }
    EXPECT_EQ(pieces, expected) << "cell " << cell;
  }
  // Both sides cut each face the same way: the whole mesh keeps the box's boundary.
  EXPECT_EQ(boundary(r.out, 0, r.out.cols()), boundary(to_mixed8(b.mesh.connect), 0, cells));
}

TEST(split_solid_Q4, one_orientation_splits_only_the_solids_that_carry_it) {
  const layered_box b = middle_layer(2, 2, false, true);
  const result r = run(b.mesh, b.quads, 0.1);
  ASSERT_EQ(r.status, 0);
  ASSERT_EQ(r.out.cols(), 4 + 4 * 7u);
  EXPECT_EQ(r.coords.cols(), b.mesh.coords.cols() + 4);
  for (std::size_t j = 0; j < 4; ++j)  // the lower cells, copied
    for (unsigned i = 0; i < 8; ++i) EXPECT_EQ(r.out(i, j), b.mesh.connect(i, j));
  EXPECT_NEAR(volume_of(r.coords, r.out), 1.0, 1e-12);
  // The layer is now triangles on one side only.
  EXPECT_NE(boundary(r.out, 0, r.out.cols()), boundary(to_mixed8(b.mesh.connect), 0, 8));
}

// Two sheared hexahedra of height 2 on either side of the unit square A B C D at z = 0
// (nodes 0-3), their centroids at (0.7, 0.7, -1) and (0.9, 0.1, 1): alone, the lower one
// would cut the square along A-C and the upper one along B-D.
struct sheared_pair {
  box_mesh mesh;
  std::array<unsigned, 4> below{{0, 3, 2, 1}}, above{{0, 1, 2, 3}};  // A D C B, A B C D
};
sheared_pair make_sheared_pair() {
  const double s = 0.4, t = 0.8;
  const double square[4][2] = {{0, 0}, {1, 0}, {1, 1}, {0, 1}};
  sheared_pair p;
  p.mesh.coords.resize(3, 12);
  for (unsigned k = 0; k < 4; ++k) {
    const double x = square[k][0], y = square[k][1];
    const double xyz[3][3] = {{x, y, 0}, {x + s, y + s, -2}, {x + t, y - t, 2}};
    for (unsigned layer = 0; layer < 3; ++layer)
      for (int d = 0; d < 3; ++d) p.mesh.coords(d, 4 * layer + k) = xyz[layer][d];
  }
  p.mesh.connect = dense2D<unsigned>(8, 2, {4, 5, 6, 7, 0, 1, 2, 3, 0, 1, 2, 3, 8, 9, 10, 11});
  return p;
}

// Smallest quality of the two tetrahedra on quadrangle q = A B C D cut along A-C
// (diagonal 0) or B-D (1), with the given apex; each tetrahedron ordered to be positive.
double cut_quality(const dense2D<double>& coords, std::array<unsigned, 4> q, std::array<double, 3> apex, int diagonal) {
  dense2D<double> xyz(3, 5);
  for (std::size_t j = 0; j < 4; ++j)
    for (int d = 0; d < 3; ++d) xyz(d, j) = coords(d, q[j]);
  for (int d = 0; d < 3; ++d) xyz(d, 4) = apex[d];
  dense2D<unsigned> tets = diagonal == 0 ? dense2D<unsigned>(4, 2, {0, 1, 2, 4, 0, 2, 3, 4})
                                         : dense2D<unsigned>(4, 2, {1, 2, 3, 4, 1, 3, 0, 4});
  for (std::size_t j = 0; j < 2; ++j)
    if (column_volume(xyz, tets, j) < 0) std::swap(tets(0, j), tets(1, j));
  const std::vector<double> worst = qualities(xyz, tets);
  return std::min(worst[0], worst[1]);
}

std::array<double, 3> centroid(const box_mesh& m, std::size_t j) {
  std::array<double, 3> c{};
  for (unsigned i = 0; i < 8; ++i)
    for (int d = 0; d < 3; ++d) c[d] += m.coords(d, m.connect(i, j)) / 8;
  return c;
}

// The diagonal of A B C D (0: A-C, 1: B-D) that the pieces in columns [first, last) use.
int diagonal_used(const dense2D<unsigned>& out, std::size_t first, std::size_t last) {
  for (const face& f : boundary(out, first, last))
    if (f.size() == 3 && f[2] < 4)
      return (std::count(f.begin(), f.end(), 0u) && std::count(f.begin(), f.end(), 2u)) ? 0 : 1;
  return -1;
}

TEST(split_solid_Q4, face_listed_both_ways_is_cut_along_one_diagonal) {
  const sheared_pair p = make_sheared_pair();
  const auto lower = centroid(p.mesh, 0), upper = centroid(p.mesh, 1);
  const double q_lower[2] = {cut_quality(p.mesh.coords, p.above, lower, 0),
                             cut_quality(p.mesh.coords, p.above, lower, 1)};
  const double q_upper[2] = {cut_quality(p.mesh.coords, p.above, upper, 0),
                             cut_quality(p.mesh.coords, p.above, upper, 1)};
  const int own_lower = q_lower[1] > q_lower[0], own_upper = q_upper[1] > q_upper[0];
  ASSERT_NE(own_lower, own_upper);  // the sides disagree on their own

  // Listed from one side, each solid takes its own best diagonal.
  const result r_lower = run(p.mesh, columns({p.below}), 0);
  ASSERT_EQ(r_lower.status, 0);
  EXPECT_EQ(diagonal_used(r_lower.out, 0, 7), own_lower);
  const result r_upper = run(p.mesh, columns({p.above}), 0);
  ASSERT_EQ(r_upper.status, 0);
  EXPECT_EQ(diagonal_used(r_upper.out, 1, 8), own_upper);

  // Listed both ways, both take the diagonal whose worst tetrahedron on either side is
  // the better one, whatever the order of the list.
  const double worst[2] = {std::min(q_lower[0], q_upper[0]), std::min(q_lower[1], q_upper[1])};
  ASSERT_GT(std::fabs(worst[1] - worst[0]), 1e-3);
  const int best = worst[1] > worst[0];
  for (const auto& quads : {columns({p.below, p.above}), columns({p.above, p.below})}) {
    const result r = run(p.mesh, quads, 0);
    ASSERT_EQ(r.status, 0);
    ASSERT_EQ(r.out.cols(), 14u);
    EXPECT_EQ(diagonal_used(r.out, 0, 7), best);
    EXPECT_EQ(diagonal_used(r.out, 7, 14), best);
    EXPECT_EQ(boundary(r.out, 0, 14), boundary(p.mesh.connect, 0, 2));
    EXPECT_NEAR(volume_of(r.coords, r.out), volume_of(p.mesh.coords, p.mesh.connect), 1e-12);
  }
}

TEST(split_solid_Q4, pyramid_base_takes_the_better_diagonal) {
  // Two kite bases under apexes 4 and 9, the second listed from its second corner so
  // that the better cut is 0-2 in one and 1-3 in the other; the quadrangles are listed
  // from another corner, which matches as well.
  box_mesh m;
  m.coords = points({{0, 0, 0},
                     {2, -0.5, 0},
                     {2.4, 0, 0},
                     {2, 0.5, 0},
                     {1.6, 0, 0.8},
                     {0, 0, 0},
                     {0.5, 2, 0},
                     {0, 2.4, 0},
                     {-0.5, 2, 0},
                     {0, 1.6, 0.8}});
  m.connect = dense2D<unsigned>(5, 2, {0, 1, 2, 3, 4, 6, 7, 8, 5, 9});
  const result r = run(m, columns({{1, 2, 3, 0}, {7, 8, 5, 6}}), -1);
  ASSERT_EQ(r.status, 0);
  ASSERT_EQ(r.out.cols(), 4u);
  EXPECT_EQ(r.coords.cols(), 10u);  // no new node for a pyramid
  for (std::size_t k = 0; k < 2; ++k) {
    const std::array<unsigned, 4> base{
        {5 * unsigned(k), 5 * unsigned(k) + 1, 5 * unsigned(k) + 2, 5 * unsigned(k) + 3}};
    const std::array<double, 3> apex{{m.coords(0, 5 * k + 4), m.coords(1, 5 * k + 4), m.coords(2, 5 * k + 4)}};
    const double q[2] = {cut_quality(m.coords, base, apex, 0), cut_quality(m.coords, base, apex, 1)};
    ASSERT_GT(std::fabs(q[1] - q[0]), 1e-3);
    const unsigned through = base[q[1] > q[0] ? 1 : 0];  // an end of the better diagonal
    for (std::size_t j = 2 * k; j < 2 * k + 2; ++j) {
      EXPECT_EQ(present_rows(r.out, j), 4u);
      EXPECT_GT(column_volume(r.coords, r.out, j), 0);
      EXPECT_EQ(r.out(3, j), base[0] + 4);
      EXPECT_TRUE(r.out(0, j) == through || r.out(1, j) == through || r.out(2, j) == through) << j;
    }
  }
  EXPECT_NEAR(volume_of(r.coords, r.out), volume_of(m.coords, m.connect), 1e-12);
}

TEST(split_solid_Q4, every_kind_in_the_mixed_layout) {
  // Unit cube, prism and pyramid, a tetrahedron; one quadrangle of each listed.
  box_mesh m;
  m.coords = points({{0, 0, 0},
                     {1, 0, 0},
                     {1, 1, 0},
                     {0, 1, 0},
                     {0, 0, 1},
                     {1, 0, 1},
                     {1, 1, 1},
                     {0, 1, 1},
                     {0, 0, 2},
                     {1, 0, 2},
                     {0, 1, 2},
                     {0.5, 0.5, -1}});
  m.connect = dense2D<unsigned>(8, 4, absent);
  const std::vector<std::vector<unsigned>> solids = {
      {0, 1, 2, 3, 4, 5, 6, 7}, {4, 5, 7, 8, 9, 10}, {0, 3, 2, 1, 11}, {5, 4, 7, 8}};
  for (std::size_t j = 0; j < 4; ++j)
    for (std::size_t i = 0; i < solids[j].size(); ++i) m.connect(i, j) = solids[j][i];
  const dense2D<unsigned> quads = columns({{3, 2, 6, 7}, {5, 4, 8, 9}, {0, 3, 2, 1}});
  const result r = run(m, quads, 0.05);
  ASSERT_EQ(r.status, 0);
  EXPECT_TRUE(r.failed.empty());
  ASSERT_EQ(r.out.cols(), 7 + 6 + 2 + 1u);
  EXPECT_EQ(r.coords.cols(), 14u);  // cube, then prism
  for (std::size_t j = 0; j < r.out.cols(); ++j) EXPECT_GT(column_volume(r.coords, r.out, j), 1e-6) << j;
  for (unsigned i = 0; i < 8; ++i) EXPECT_EQ(r.out(i, 15), m.connect(i, 3));  // the tetrahedron, copied
  EXPECT_NEAR(volume_of(r.coords, r.out), volume_of(m.coords, m.connect), 1e-12);
  const double centres[2][3] = {{0.5, 0.5, 0.5}, {1.0 / 3, 1.0 / 3, 1.5}};
  for (int d = 0; d < 3; ++d) {
    EXPECT_NEAR(r.coords(d, 12), centres[0][d], 1e-15);
    EXPECT_NEAR(r.coords(d, 13), centres[1][d], 1e-15);
  }
}

// ---- the quality threshold ----------------------------------------------------------------

TEST(split_solid_Q4, distorted_hexahedron_is_left_whole_and_listed) {
  // A unit cube beside a cube whose top is squashed towards one edge.
  const box_mesh cube = make_box(box_kind::H8, 1, 1, 1);
  box_mesh m;
  m.coords = dense2D<double>(3, 16);
  m.connect = dense2D<unsigned>(8, 2);
  for (unsigned k = 0; k < 8; ++k) {
    const unsigned v = cube.connect(k, 0);
    for (int d = 0; d < 3; ++d) m.coords(d, k) = m.coords(d, 8 + k) = cube.coords(d, v);
    m.coords(0, 8 + k) += 3;
    if (k >= 4) m.coords(1, 8 + k) = 0.95 + 0.05 * cube.coords(1, v), m.coords(2, 8 + k) = 0.1;
    m.connect(k, 0) = k;
    m.connect(k, 1) = 8 + k;
  }
  const dense2D<unsigned> quads = columns({{0, 1, 2, 3}, {8, 9, 10, 11}});

  // Accepting everything shows how poor the distorted split is.
  const result all = run(m, quads, -1);
  ASSERT_EQ(all.status, 0);
  ASSERT_EQ(all.out.cols(), 14u);
  const std::vector<double> q = qualities(all.coords, all.out);
  const double cube_worst = *std::min_element(q.begin(), q.begin() + 7);
  const double distorted_worst = *std::min_element(q.begin() + 7, q.end());
  ASSERT_LT(distorted_worst, cube_worst);
  for (double threshold : {distorted_worst, (distorted_worst + cube_worst) / 2}) {
    const result r = run(m, quads, threshold);  // "not above" fails
    ASSERT_EQ(r.status, 0);
    ASSERT_EQ(r.failed.size(), 1u);
    EXPECT_EQ(r.failed[0], 1u);
    ASSERT_EQ(r.out.cols(), 8u);
    for (unsigned i = 0; i < 8; ++i) EXPECT_EQ(r.out(i, 7), m.connect(i, 1));
    EXPECT_EQ(r.coords.cols(), 17u);  // the cube's node only
  }
  const result none = run(m, quads, cube_worst);
  ASSERT_EQ(none.failed.size(), 2u);
  EXPECT_EQ(none.failed[0], 0u);
  EXPECT_EQ(none.failed[1], 1u);
  EXPECT_EQ(none.coords.cols(), 16u);
}

// ---- arguments, memory, views -------------------------------------------------------------

TEST(split_solid_Q4, status_codes_in_order) {
  const layered_box b = middle_layer(1, 1, true, true);
  const dense2D<double>& xyz = b.mesh.coords;
  const dense2D<unsigned>& c = b.mesh.connect;
  const dense2D<unsigned> bad_ids = columns({{0, 1, 2, 99}}), absent_id = columns({{0, 1, 2, absent}});
  dense2D<unsigned> no_corner = c.sub_matrix(0, 0, 8, 1);
  no_corner.copy(no_corner);
  no_corner(3, 0) = no_corner(4, 0) = absent;  // read as a hexahedron without two corners
  const double nan = std::numeric_limits<double>::quiet_NaN(), inf = std::numeric_limits<double>::infinity();
  struct row {
    dense2D<double> coords;
    dense2D<unsigned> connect, quads;
    double q;
    int status;
  };
  const std::vector<row> table = {
      {dense2D<double>(2, 18), dense2D<unsigned>(7, 1), bad_ids, nan, -1},
      {xyz, dense2D<unsigned>(7, 1), bad_ids, nan, -2},
      {xyz, dense2D<unsigned>(4, 1), bad_ids, nan, -2},
      {xyz, dense2D<unsigned>(5, 1, {0, 1, 2, 3, 99}), b.quads, 0, -2},
      {xyz, dense2D<unsigned>(6, 1, {0, 1, 2, 3, 4, absent}), b.quads, 0, -2},
      {xyz, to_mixed8(bad_ids), b.quads, 0, -2},
      {xyz, no_corner, b.quads, 0, -2},
      {xyz, c, dense2D<unsigned>(3, 1), nan, -3},
      {xyz, c, bad_ids, nan, -3},
      {xyz, c, absent_id, nan, -3},
      {xyz, c, b.quads, nan, -4},
      {xyz, c, b.quads, inf, -4},
      {xyz, c, b.quads, -inf, -4},
      {xyz, dense2D<unsigned>(7, 0), dense2D<unsigned>(), 0, 0},
      {xyz, c, dense2D<unsigned>(9, 0), 0, 0},
  };
  for (std::size_t k = 0; k < table.size(); ++k) {
    dense2D<double> coords;
    coords.copy(table[k].coords);
    dense2D<unsigned> out(3, 3, 5u);
    dense1D<unsigned, 8> failed(2, 5u);
    EXPECT_EQ(t3::split_solid_Q4(coords, table[k].connect, table[k].quads, table[k].q, out, failed), table[k].status)
        << "row " << k;
    EXPECT_EQ(coords.cols(), table[k].coords.cols()) << "row " << k;
    EXPECT_TRUE(failed.empty()) << "row " << k;
    if (table[k].status < 0) {
      EXPECT_TRUE(out.empty()) << "row " << k;
    } else {
      EXPECT_EQ(out.rows(), 8u);
      EXPECT_EQ(out.cols(), table[k].connect.cols()) << "copied unchanged";
    }
  }
}

TEST(split_solid_Q4, allocation_failures_roll_back) {
  // Every path that allocates: the map, the records, the carriers, a failed solid,
  // the output and the new nodes.
  layered_box b = middle_layer(3, 3, true, true);
  b.mesh.coords(2, b.mesh.connect(6, 0)) = 0.9;  // lifts a middle node: four cells fail
  const result reference = run(b.mesh, b.quads, 0.3);
  ASSERT_EQ(reference.status, 0);
  ASSERT_GE(reference.failed.size(), 1u);
  for (long n = 1;; ++n) {
    ASSERT_LT(n, 200) << "the call never succeeded";
    result r;
    r.coords.copy(b.mesh.coords);
    bool failed_allocation = false;
    {
      tessel3d_test::failing_allocator guard(n);
      r.status = t3::split_solid_Q4(r.coords, b.mesh.connect, b.quads, 0.3, r.out, r.failed);
      failed_allocation = guard.failed();
    }
    if (!failed_allocation) {
      EXPECT_EQ(r.status, 0);
      EXPECT_GT(n, 5);
      ASSERT_EQ(r.out.cols(), reference.out.cols());
      for (std::size_t j = 0; j < r.out.cols(); ++j)
        for (unsigned i = 0; i < 8; ++i) EXPECT_EQ(r.out(i, j), reference.out(i, j));
      break;
    }
    EXPECT_EQ(r.status, -199) << "allocation " << n;
    EXPECT_EQ(r.coords.cols(), b.mesh.coords.cols()) << "allocation " << n;
    EXPECT_TRUE(r.out.empty() && r.failed.empty()) << "allocation " << n;
  }
}

TEST(split_solid_Q4, views_with_larger_leading_dimension) {
  const layered_box b = middle_layer(2, 1, true, true);
  const result plain = run(b.mesh, b.quads, 0.1);
  ASSERT_EQ(plain.status, 0);
  box_mesh padded{padded_view(b.mesh.coords, 2, std::nan("")), padded_view(b.mesh.connect, 3, 77u)};
  const result r = run(padded, padded_view(b.quads, 1, 77u), 0.1);
  ASSERT_EQ(r.status, 0);
  ASSERT_EQ(r.out.cols(), plain.out.cols());
  for (std::size_t j = 0; j < r.out.cols(); ++j)
    for (unsigned i = 0; i < 8; ++i) EXPECT_EQ(r.out(i, j), plain.out(i, j));
  // Coordinates that are themselves a view into a larger buffer grow too.
  dense2D<double> coords = padded_view(b.mesh.coords, 1, std::nan(""));
  dense2D<unsigned> out;
  dense1D<unsigned, 8> failed;
  ASSERT_EQ(t3::split_solid_Q4(coords, b.mesh.connect, b.quads, 0.1, out, failed), 0);
  ASSERT_EQ(coords.cols(), plain.coords.cols());
  for (std::size_t j = 0; j < coords.cols(); ++j)
    for (int d = 0; d < 3; ++d) EXPECT_EQ(coords(d, j), plain.coords(d, j));
}

TEST(split_solid_Q4, output_may_be_the_input) {
  const layered_box b = middle_layer(1, 1, true, true);
  const result plain = run(b.mesh, b.quads, 0.1);
  dense2D<double> coords;
  coords.copy(b.mesh.coords);
  dense2D<unsigned> connect;
  connect.copy(b.mesh.connect);
  dense1D<unsigned, 8> failed;
  ASSERT_EQ(t3::split_solid_Q4(coords, connect, b.quads, 0.1, connect, failed), 0);
  ASSERT_EQ(connect.cols(), plain.out.cols());
  for (std::size_t j = 0; j < connect.cols(); ++j)
    for (unsigned i = 0; i < 8; ++i) EXPECT_EQ(connect(i, j), plain.out(i, j));
}

}  // namespace
