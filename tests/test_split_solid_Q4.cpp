// Splitting solids along listed quadrangle faces: conformity, volume, orientation, the
// shared choice of diagonal, the quality threshold, status codes and roll-back.
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <limits>
#include <map>
#include <set>
#include <string>
#include <vector>

#include "box_mesh.h"
#include "common/element_tables.h"
#include "failing_allocator.h"
#include "reference_volume.h"
#include "zel/tessel3d.h"

namespace t3 = zel::tessel3d;
using namespace tessel3d_test;
using zel::dense1D;
using zel::dense2D;

namespace {

constexpr unsigned absent = ~0U;
using face = std::vector<unsigned>;  // sorted node IDs
using quad = std::array<unsigned, 4>;

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
  EXPECT_EQ(r.status, 0);
  return r;
}

dense2D<unsigned> columns(const std::vector<quad>& list) {
  dense2D<unsigned> q(4, list.size());
  std::copy(list.data()->data(), list.data()->data() + 4 * list.size(), q.data());
  return q;
}

// The faces of column j as node cycles, by the kind of its row count (8: each column's
// own kind), and a face's key: its sorted nodes.
std::vector<std::vector<unsigned>> faces_of(const dense2D<unsigned>& c, std::size_t j) {
  const elfes::solid_kind kind = c.rows() == 5   ? elfes::kind_PY5
                                 : c.rows() == 6 ? elfes::kind_W6
                                                 : elfes::mixed8_kind(&c(0, j));
  const elfes::solid_descriptor& d = elfes::solid_table[kind];
  std::vector<std::vector<unsigned>> faces(d.nb_faces);
  for (unsigned f = 0; f < d.nb_faces; ++f)
    for (unsigned k = 0; k < d.face_size[f]; ++k) faces[f].push_back(c(d.faces[f][k], j));
  return faces;
}
face key_of(face f) {
  std::sort(f.begin(), f.end());
  return f;
}

// Faces met exactly once among columns [first, last) of an 8-row connectivity.
std::set<face> boundary(const dense2D<unsigned>& c, std::size_t first, std::size_t last) {
  std::map<face, int> count;
  for (std::size_t j = first; j < last; ++j)
    for (const face& f : faces_of(c, j)) ++count[key_of(f)];
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

// Smallest normalised dihedral angle of each column.
std::vector<double> qualities(const dense2D<double>& coords, const dense2D<unsigned>& c) {
  dense1D<double, 8> lo(c.cols()), hi(c.cols());
  EXPECT_EQ(t3::dihedral_angles(coords, c, true, lo, hi), 0);
  return std::vector<double>(lo.begin(), lo.end());
}

// Every output column positive, and the total volume kept.
void expect_positive_and_same_volume(const result& r, const box_mesh& m) {
  for (std::size_t j = 0; j < r.out.cols(); ++j)
    EXPECT_GT(volume_of(r.coords, r.out.sub_matrix(0, j, 8, 1)), 1e-6) << j;
  EXPECT_NEAR(volume_of(r.coords, r.out), volume_of(m.coords, m.connect), 1e-12);
}

struct listed_mesh {
  box_mesh mesh;
  dense2D<unsigned> quads;
};

// Box of H8 cells nx x ny x 2 and the faces of its middle plane listed from below (as
// the lower cells see them, right-hand normal pointing down) and from above.
listed_mesh middle_layer(unsigned nx, unsigned ny) {
  listed_mesh b{make_box(box_kind::H8, nx, ny, 2), {}};
  std::vector<quad> list;
  for (std::size_t j = 0; j < b.mesh.connect.cols(); ++j) {
    const auto n = [&](unsigned i) { return b.mesh.connect(i, j); };
    list.push_back(j < nx * ny ? quad{n(4), n(7), n(6), n(5)} : quad{n(0), n(1), n(2), n(3)});
  }
  b.quads = columns(list);
  return b;
}

// A unit cube beside a cube whose top is squashed towards one edge; their bottoms listed.
listed_mesh distorted_pair() {
  listed_mesh p{{dense2D<double>(3, 16), dense2D<unsigned>(8, 2)}, columns({{0, 1, 2, 3}, {8, 9, 10, 11}})};
  const double corner[8][3] = {{0, 0, 0}, {1, 0, 0}, {1, 1, 0}, {0, 1, 0}, {0, 0, 1}, {1, 0, 1}, {1, 1, 1}, {0, 1, 1}};
  for (unsigned k = 0; k < 8; ++k) {
    for (int d = 0; d < 3; ++d) p.mesh.coords(d, k) = p.mesh.coords(d, 8 + k) = corner[k][d];
    p.mesh.coords(0, 8 + k) += 3;
    if (k >= 4) p.mesh.coords(1, 8 + k) = 0.95 + 0.05 * corner[k][1], p.mesh.coords(2, 8 + k) = 0.1;
    p.mesh.connect(k, 0) = k, p.mesh.connect(k, 1) = 8 + k;
  }
  return p;
}

// Smallest quality of the two tetrahedra on quadrangle q = A B C D cut along A-C
// (diagonal 0) or B-D (1), with the given apex; each tetrahedron ordered to be positive.
double cut_quality(const dense2D<double>& coords, quad q, const double* apex, int diagonal) {
  dense2D<double> xyz(3, 5);
  for (std::size_t j = 0; j < 5; ++j)
    for (int d = 0; d < 3; ++d) xyz(d, j) = j < 4 ? coords(d, q[j]) : apex[d];
  dense2D<unsigned> tets(4, 2,
                         diagonal == 0 ? std::initializer_list<unsigned>{0, 1, 2, 4, 0, 2, 3, 4}
                                       : std::initializer_list<unsigned>{1, 2, 3, 4, 1, 3, 0, 4});
  for (std::size_t j = 0; j < 2; ++j)
    if (tet_volume(xyz, tets(3, j), tets(0, j), tets(1, j), tets(2, j)) < 0) std::swap(tets(0, j), tets(1, j));
  const std::vector<double> worst = qualities(xyz, tets);
  return std::min(worst[0], worst[1]);
}

// The diagonal of the square on nodes 0-3 (0: 0-2, 1: 1-3) that the pieces in columns
// [first, last) use.
int diagonal_used(const dense2D<unsigned>& out, std::size_t first, std::size_t last) {
  for (const face& f : boundary(out, first, last))
    if (f.size() == 3 && f[2] < 4)
      return (std::count(f.begin(), f.end(), 0u) && std::count(f.begin(), f.end(), 2u)) ? 0 : 1;
  return -1;
}

// A box whose cells are graded (x -> x^1.6 and so on) and then sheared: every face stays
// plane, so volumes are exact, while the cells differ in shape and quality.
box_mesh graded(box_kind kind, unsigned n) {
  box_mesh m = make_box(kind, n, n, 2);
  for (std::size_t j = 0; j < m.coords.cols(); ++j) {
    const double x = std::pow(m.coords(0, j), 1.6), y = std::pow(m.coords(1, j), 0.7), z = m.coords(2, j);
    m.coords(0, j) = x + 0.3 * y, m.coords(1, j) = y + 0.2 * z, m.coords(2, j) = z - 0.1 * x;
  }
  return m;
}

// The graded H8 box with every other cell (checkerboard) cut into six PY5 around a new
// node at its centre, in the 8-row layout.
box_mesh hexahedra_and_pyramids(unsigned n) {
  const box_mesh h = graded(box_kind::H8, n);
  box_mesh m{{}, dense2D<unsigned>(8, 0)};
  m.coords.copy(h.coords);
  std::vector<unsigned> ids;
  for (std::size_t j = 0; j < h.connect.cols(); ++j) {
    const unsigned* c = &h.connect(0, j);
    if ((j + j / n + j / (n * n)) % 2 == 0) {
      ids.insert(ids.end(), c, c + 8);
      continue;
    }
    const unsigned apex = unsigned(m.coords.cols());
    m.coords.resize(3, apex + 1);
    for (int d = 0; d < 3; ++d) {
      m.coords(d, apex) = 0;
      for (unsigned i = 0; i < 8; ++i) m.coords(d, apex) += h.coords(d, c[i]) / 8;
    }
    const elfes::solid_descriptor& hex = elfes::solid_table[elfes::kind_H8];
    for (unsigned f = 0; f < 6; ++f)
      ids.insert(ids.end(), {c[hex.faces[f][0]], c[hex.faces[f][1]], c[hex.faces[f][2]], c[hex.faces[f][3]], apex,
                             absent, absent, absent});
  }
  m.connect = dense2D<unsigned>(8, ids.size() / 8);
  std::copy(ids.begin(), ids.end(), m.connect.data());
  return m;
}

// Every quadrangle as each solid sees it, keyed by its sorted nodes.
std::map<face, std::vector<quad>> quadrangles(const dense2D<unsigned>& c) {
  std::map<face, std::vector<quad>> seen;
  for (std::size_t j = 0; j < c.cols(); ++j)
    for (const face& f : faces_of(c, j))
      if (f.size() == 4) seen[key_of(f)].push_back({{f[0], f[1], f[2], f[3]}});
  return seen;
}

// Quadrangle faces of the output (8-row layout) that face two triangles on the other
// side: the two triangles of one of its diagonals are faces of the output too.
int quadrangles_facing_triangles(const dense2D<unsigned>& out) {
  std::set<face> triangles;
  std::vector<quad> quads;
  for (std::size_t j = 0; j < out.cols(); ++j)
    for (const face& f : faces_of(out, j)) {
      if (f.size() == 4) quads.push_back({{f[0], f[1], f[2], f[3]}});
      if (f.size() == 3) triangles.insert(key_of(f));
    }
  int count = 0;
  for (const quad& q : quads)
    for (unsigned k = 0; k < 2; ++k)
      count += triangles.count(key_of({q[k], q[k + 1], q[k + 2]})) &&
               triangles.count(key_of({q[k + 2], q[(k + 3) % 4], q[k]}));
  return count;
}

}  // namespace

// ---- splitting and conformity -------------------------------------------------------------

// Each cell becomes 7 pieces in its place around a new node at its centroid (5 PY5 and
// 2 TH4 on the listed face); both sides cut each face the same way, so the whole mesh
// keeps the box's boundary. The same with coordinates that are themselves a view (they
// grow too) and the output given as the input.
TEST(split_solid_Q4, middle_layer_of_a_box_is_triangulated_conformingly) {
  const listed_mesh b = middle_layer(3, 2);
  const result r = run(b.mesh, b.quads, 0.1);
  EXPECT_TRUE(r.failed.empty());
  const std::size_t cells = 12, nodes = b.mesh.coords.cols();
  ASSERT_TRUE(r.out.rows() == 8 && r.out.cols() == cells * 7 && r.coords.cols() == nodes + cells);
  expect_positive_and_same_volume(r, b.mesh);
  for (double q : qualities(r.coords, r.out)) EXPECT_GT(q, 0.1);
  for (std::size_t cell = 0; cell < cells; ++cell) {
    for (int d = 0; d < 3; ++d) {
      double mean = 0;
      for (unsigned i = 0; i < 8; ++i) mean += b.mesh.coords(d, b.mesh.connect(i, cell)) / 8;
      EXPECT_NEAR(r.coords(d, nodes + cell), mean, 1e-15);
    }
    for (std::size_t j = 7 * cell; j < 7 * cell + 7; ++j)
      EXPECT_EQ(std::count(&r.out(0, j), &r.out(0, j) + 8, unsigned(nodes + cell)), 1) << j;
  }
  EXPECT_EQ(boundary(r.out, 0, r.out.cols()), boundary(b.mesh.connect, 0, cells));

  const auto expect_same_result = [&](const dense2D<double>& coords, const dense2D<unsigned>& out) {
    ASSERT_TRUE(out.cols() == r.out.cols() && coords.cols() == r.coords.cols());
    for (std::size_t j = 0; j < out.cols(); ++j)
      for (unsigned i = 0; i < 8; ++i) EXPECT_EQ(out(i, j), r.out(i, j));
    for (std::size_t j = 0; j < coords.cols(); ++j)
      for (int d = 0; d < 3; ++d) EXPECT_EQ(coords(d, j), r.coords(d, j));
  };
  dense2D<double> coords = padded_view(b.mesh.coords, 1, std::nan(""));
  dense2D<unsigned> connect;
  ASSERT_TRUE(connect.copy(b.mesh.connect));
  dense1D<unsigned, 8> failed;
  ASSERT_EQ(t3::split_solid_Q4(coords, connect, b.quads, 0.1, connect, failed), 0);
  expect_same_result(coords, connect);
}

// Two sheared hexahedra of height 2 on either side of the unit square A B C D at z = 0
// (nodes 0-3), their centroids at (0.7, 0.7, -1) and (0.9, 0.1, 1): alone, the lower one
// would cut the square along A-C and the upper one along B-D.
TEST(split_solid_Q4, face_listed_both_ways_is_cut_along_one_diagonal) {
  box_mesh p;
  p.coords = dense2D<double>(3, 12);
  const double square[4][2] = {{0, 0}, {1, 0}, {1, 1}, {0, 1}},
               shift[3][3] = {{0, 0, 0}, {0.4, 0.4, -2}, {0.8, -0.8, 2}};
  for (unsigned layer = 0; layer < 3; ++layer)
    for (unsigned k = 0; k < 4; ++k)
      for (int d = 0; d < 3; ++d) p.coords(d, 4 * layer + k) = (d < 2 ? square[k][d] : 0) + shift[layer][d];
  p.connect = dense2D<unsigned>(8, 2, {4, 5, 6, 7, 0, 1, 2, 3, 0, 1, 2, 3, 8, 9, 10, 11});
  const quad below{{0, 3, 2, 1}}, above{{0, 1, 2, 3}};
  const double lower[3] = {0.7, 0.7, -1}, upper[3] = {0.9, 0.1, 1};
  const double q_lower[2] = {cut_quality(p.coords, above, lower, 0), cut_quality(p.coords, above, lower, 1)};
  const double q_upper[2] = {cut_quality(p.coords, above, upper, 0), cut_quality(p.coords, above, upper, 1)};
  const int own_lower = q_lower[1] > q_lower[0], own_upper = q_upper[1] > q_upper[0];
  ASSERT_NE(own_lower, own_upper);  // the sides disagree on their own

  // Listed from one side, only the solid that carries it is split (the other is copied),
  // and it takes its own best diagonal.
  const result r_lower = run(p, columns({below}), 0), r_upper = run(p, columns({above}), 0);
  ASSERT_TRUE(r_lower.out.cols() == 8 && r_upper.out.cols() == 8);
  EXPECT_TRUE(std::equal(&r_lower.out(0, 7), &r_lower.out(0, 7) + 8, &p.connect(0, 1)));
  EXPECT_TRUE(std::equal(&r_upper.out(0, 0), &r_upper.out(0, 0) + 8, &p.connect(0, 0)));
  EXPECT_EQ(diagonal_used(r_lower.out, 0, 7), own_lower);
  EXPECT_EQ(diagonal_used(r_upper.out, 1, 8), own_upper);

  // Listed both ways, both take the diagonal whose worst tetrahedron on either side is
  // the better one, whatever the order of the list.
  const double worst[2] = {std::min(q_lower[0], q_upper[0]), std::min(q_lower[1], q_upper[1])};
  ASSERT_GT(std::fabs(worst[1] - worst[0]), 1e-3);
  for (const auto& quads : {columns({below, above}), columns({above, below})}) {
    const result r = run(p, quads, 0);
    ASSERT_EQ(r.out.cols(), 14u);
    EXPECT_EQ(diagonal_used(r.out, 0, 7), worst[1] > worst[0]);
    EXPECT_EQ(diagonal_used(r.out, 7, 14), worst[1] > worst[0]);
    EXPECT_EQ(boundary(r.out, 0, 14), boundary(p.connect, 0, 2));
    expect_positive_and_same_volume(r, p);
  }
}

TEST(split_solid_Q4, pyramid_base_takes_the_better_diagonal) {
  // Two kite bases under apexes 4 and 9, the second listed from its second corner so
  // that the better cut is 0-2 in one and 1-3 in the other; the quadrangles are listed
  // from another corner, which matches as well.
  box_mesh m;
  m.coords = dense2D<double>(3, 10, {0, 0, 0, 2,   -0.5, 0, 2.4, 0,   0, 2,    0.5, 0, 1.6, 0,   0.8,  //
                                     0, 0, 0, 0.5, 2,    0, 0,   2.4, 0, -0.5, 2,   0, 0,   1.6, 0.8});
  m.connect = dense2D<unsigned>(5, 2, {0, 1, 2, 3, 4, 6, 7, 8, 5, 9});
  const result r = run(m, columns({{1, 2, 3, 0}, {7, 8, 5, 6}}), -1);
  ASSERT_EQ(r.out.cols(), 4u);
  EXPECT_EQ(r.coords.cols(), 10u);  // no new node for a pyramid
  expect_positive_and_same_volume(r, m);
  for (unsigned k = 0; k < 2; ++k) {
    const quad base{{5 * k, 5 * k + 1, 5 * k + 2, 5 * k + 3}};
    const double* apex = &m.coords(0, 5 * k + 4);
    const double q[2] = {cut_quality(m.coords, base, apex, 0), cut_quality(m.coords, base, apex, 1)};
    ASSERT_GT(std::fabs(q[1] - q[0]), 1e-3);
    const unsigned through = base[q[1] > q[0] ? 1 : 0];  // an end of the better diagonal
    for (std::size_t j = 2 * k; j < 2 * k + 2; ++j) {
      EXPECT_TRUE(r.out(4, j) == absent && r.out(3, j) == base[0] + 4) << j;  // a tetrahedron under the apex
      EXPECT_TRUE(r.out(0, j) == through || r.out(1, j) == through || r.out(2, j) == through) << j;
    }
  }
}

TEST(split_solid_Q4, every_kind_in_the_mixed_layout) {
  // Unit cube, prism and pyramid, a tetrahedron; one quadrangle of each listed.
  box_mesh m;
  m.coords = dense2D<double>(3, 12, {0, 0, 0, 1, 0, 0, 1, 1, 0, 0, 1, 0, 0, 0, 1, 1,   0,   1,  //
                                     1, 1, 1, 0, 1, 1, 0, 0, 2, 1, 0, 2, 0, 1, 2, 0.5, 0.5, -1});
  m.connect =
      dense2D<unsigned>(8, 4, {0, 1, 2, 3, 4,  5,      6,      7,      4, 5, 7, 8, 9,      10,     absent, absent,  //
                               0, 3, 2, 1, 11, absent, absent, absent, 5, 4, 7, 8, absent, absent, absent, absent});
  const result r = run(m, columns({{3, 2, 6, 7}, {5, 4, 8, 9}, {0, 3, 2, 1}}), 0.05);
  EXPECT_TRUE(r.failed.empty());
  ASSERT_TRUE(r.out.cols() == 7 + 6 + 2 + 1 && r.coords.cols() == 14);  // new nodes: cube, then prism
  expect_positive_and_same_volume(r, m);
  for (unsigned i = 0; i < 8; ++i) EXPECT_EQ(r.out(i, 15), m.connect(i, 3));  // the tetrahedron, copied
  const double centres[2][3] = {{0.5, 0.5, 0.5}, {1.0 / 3, 1.0 / 3, 1.5}};
  for (int d = 0; d < 3; ++d) {
    EXPECT_NEAR(r.coords(d, 12), centres[0][d], 1e-15);
    EXPECT_NEAR(r.coords(d, 13), centres[1][d], 1e-15);
  }
}

// ---- the quality threshold ----------------------------------------------------------------

TEST(split_solid_Q4, distorted_hexahedron_is_left_whole_and_listed) {
  const listed_mesh p = distorted_pair();
  const box_mesh& m = p.mesh;
  const dense2D<unsigned>& quads = p.quads;

  // Accepting everything shows how poor the distorted split is.
  const result all = run(m, quads, -1);
  ASSERT_EQ(all.out.cols(), 14u);
  const std::vector<double> q = qualities(all.coords, all.out);
  const double cube_worst = *std::min_element(q.begin(), q.begin() + 7);
  const double distorted_worst = *std::min_element(q.begin() + 7, q.end());
  ASSERT_LT(distorted_worst, cube_worst);
  for (double threshold : {distorted_worst, (distorted_worst + cube_worst) / 2}) {
    const result r = run(m, quads, threshold);  // "not above" fails
    ASSERT_EQ(r.failed.size(), 1u);
    EXPECT_EQ(r.failed[0], 1u);
    ASSERT_EQ(r.out.cols(), 8u);
    for (unsigned i = 0; i < 8; ++i) EXPECT_EQ(r.out(i, 7), m.connect(i, 1));
    EXPECT_EQ(r.coords.cols(), 17u);  // the cube's node only
  }
  const result none = run(m, quads, cube_worst);
  ASSERT_EQ(none.failed.size(), 2u);
  EXPECT_EQ(std::vector<unsigned>(none.failed.begin(), none.failed.end()), (std::vector<unsigned>{0, 1}));
  EXPECT_EQ(none.coords.cols(), 16u);
}

// ---- arguments, memory, views -------------------------------------------------------------

TEST(split_solid_Q4, status_codes_in_order) {
  const listed_mesh b = middle_layer(1, 1);
  const dense2D<double>& xyz = b.mesh.coords;
  const dense2D<unsigned>& c = b.mesh.connect;
  const dense2D<unsigned> bad_ids = columns({{0, 1, 2, 99}}), absent_id = columns({{0, 1, 2, absent}});
  const dense2D<unsigned> no_corner(8, 1, {0, 1, 2, absent, absent, 5, 6, 7});  // a hexahedron without two corners
  const double nan = std::numeric_limits<double>::quiet_NaN(), inf = std::numeric_limits<double>::infinity();
  const struct {
    dense2D<double> coords;
    dense2D<unsigned> connect, quads;
    double q;
    int status;
  } table[] = {{dense2D<double>(2, 18), dense2D<unsigned>(7, 1), bad_ids, nan, -1},
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
               {xyz, dense2D<unsigned>(7, 0), dense2D<unsigned>(), 0, 0},  // nothing to split: copied
               {xyz, c, dense2D<unsigned>(9, 0), 0, 0}};
  for (const auto& row : table) {
    SCOPED_TRACE("row " + std::to_string(&row - table));
    dense2D<double> coords;
    coords.copy(row.coords);
    dense2D<unsigned> out(3, 3, 5u);
    dense1D<unsigned, 8> failed(2, 5u);
    EXPECT_EQ(t3::split_solid_Q4(coords, row.connect, row.quads, row.q, out, failed), row.status);
    EXPECT_EQ(coords.cols(), row.coords.cols());
    EXPECT_TRUE(failed.empty());
    if (row.status < 0) {
      EXPECT_TRUE(out.empty());
    } else {
      EXPECT_TRUE(out.rows() == 8 && out.cols() == row.connect.cols()) << "copied unchanged";
    }
  }
}

// ---- the conforming form ------------------------------------------------------------------

// A quarter of the interior quadrangles listed once (either way, at random) or in both
// orientations, at thresholds that leave no, some or most solids whole: no quadrangle of
// the output faces two triangles, the volume is kept, every piece is positive and above
// the threshold, and `failed` gives each solid left whole or partly split with a reason
// that matches the output. The form that keeps one side whole breaks the first rule.
TEST(split_solid_Q4, conforming_on_every_kind_listing_and_threshold) {
  const struct {
    const char* name;
    box_mesh mesh;
  } meshes[] = {{"H8", graded(box_kind::H8, 4)},
                {"W6", graded(box_kind::W6, 4)},
                {"PY5", graded(box_kind::PY5, 3)},
                {"H8 and PY5", hexahedra_and_pyramids(4)}};
  int left_whole = 0, partly = 0, broken_by_one_sided = 0;
  for (const auto& m : meshes) {
    std::vector<quad> once, twice;
    random_stream random(7);
    for (const auto& [key, sides] : quadrangles(m.mesh.connect)) {
      if (sides.size() != 2 || random.uniform() >= 0.25) continue;
      once.push_back(sides[random.uniform() < 0.5]);
      twice.insert(twice.end(), sides.begin(), sides.end());
    }
    ASSERT_GT(once.size(), 4u) << m.name;
    for (const auto& listed : {once, twice})
      for (double threshold : {-1.0, 0.3, 0.45, 0.6}) {
        SCOPED_TRACE(::testing::Message() << m.name << ", " << listed.size() << " listed, above " << threshold);
        result r;
        r.coords.copy(m.mesh.coords);
        dense2D<unsigned> failed(1, 1, 5u);
        ASSERT_EQ(t3::split_solid_Q4(r.coords, m.mesh.connect, columns(listed), threshold, r.out, failed), 0);
        EXPECT_EQ(quadrangles_facing_triangles(r.out), 0);
        expect_positive_and_same_volume(r, m.mesh);
        const std::vector<double> q = qualities(r.coords, r.out);
        std::set<std::vector<unsigned>> out_columns;
        for (std::size_t j = 0; j < r.out.cols(); ++j) {
          const bool piece = elfes::mixed8_kind(&r.out(0, j)) == elfes::kind_TH4 ||
                             *std::max_element(&r.out(0, j), &r.out(0, j) + 5) >= m.mesh.coords.cols();
          if (piece) {
            EXPECT_GT(q[j], threshold) << j;
          }
          out_columns.emplace(&r.out(0, j), &r.out(0, j) + 5);
        }
        // The listed columns ascend; a solid left whole is in the output as it was.
        ASSERT_EQ(failed.rows(), 2u);
        for (std::size_t k = 0; k < failed.cols(); ++k) {
          const unsigned column = failed(0, k), reason = failed(1, k);
          EXPECT_TRUE(reason >= t3::split_Q4_below_quality && reason <= t3::split_Q4_partly_split);
          if (k) {
            EXPECT_LT(failed(0, k - 1), column);
          }
          const unsigned* in = &m.mesh.connect(0, column);
          EXPECT_EQ(out_columns.count(std::vector<unsigned>(in, in + 5)), reason != t3::split_Q4_partly_split);
          left_whole += reason != t3::split_Q4_partly_split;
          partly += reason == t3::split_Q4_partly_split;
        }
        if (threshold < 0) {
          EXPECT_EQ(failed.cols(), 0u) << "every piece is positive";
        }

        dense1D<unsigned, 8> one_sided;
        result old;
        old.coords.copy(m.mesh.coords);
        ASSERT_EQ(t3::split_solid_Q4(old.coords, m.mesh.connect, columns(listed), threshold, old.out, one_sided), 0);
        broken_by_one_sided += quadrangles_facing_triangles(old.out);
      }
  }
  EXPECT_GT(left_whole, 0);
  EXPECT_GT(partly, 0);
  EXPECT_GT(broken_by_one_sided, 0);
}

// The allocation sweep over every family meets no solid left whole: here some are (and,
// conforming, neighbours are sent back). Every allocation made to fail in turn: -199
// with coords, the result and the lists as on entry (empty); once none fails, the
// reference result.
TEST(split_solid_Q4, allocation_failures_with_solids_left_whole_roll_back) {
  const box_mesh m = graded(box_kind::H8, 3);
  std::vector<quad> listed;
  for (const auto& [key, sides] : quadrangles(m.connect))
    if (sides.size() == 2) listed.push_back(sides[0]);
  const dense2D<unsigned> quads = columns(listed);
  const double threshold = 0.45;
  struct outputs {
    dense2D<double> coords;
    dense2D<unsigned> out, reasons;
    dense1D<unsigned, 8> failed;
  };
  for (bool conforming : {false, true}) {
    SCOPED_TRACE(conforming ? "conforming" : "one side");
    const auto call = [&](outputs& o) {
      return conforming ? t3::split_solid_Q4(o.coords, m.connect, quads, threshold, o.out, o.reasons)
                        : t3::split_solid_Q4(o.coords, m.connect, quads, threshold, o.out, o.failed);
    };
    outputs reference;
    reference.coords.copy(m.coords);
    ASSERT_EQ(call(reference), 0);
    std::set<unsigned> reasons;
    for (std::size_t k = 0; k < reference.reasons.cols(); ++k) reasons.insert(reference.reasons(1, k));
    ASSERT_TRUE(conforming ? reasons.count(t3::split_Q4_below_quality) && reasons.size() > 1
                           : !reference.failed.empty());
    for (long n = 1;; ++n) {
      ASSERT_LT(n, 200) << "the call never succeeded";
      outputs o;
      o.coords.copy(m.coords);
      bool hit = false;
      int status;
      {
        failing_allocator guard(n);
        status = call(o);
        hit = guard.failed();
      }
      if (!hit) {
        ASSERT_EQ(status, 0);
        EXPECT_TRUE(std::equal(o.out.data(), o.out.data() + 8 * o.out.cols(), reference.out.data()));
        EXPECT_TRUE(std::equal(o.reasons.data(), o.reasons.data() + 2 * o.reasons.cols(), reference.reasons.data()));
        EXPECT_EQ(std::vector<unsigned>(o.failed.begin(), o.failed.end()),
                  std::vector<unsigned>(reference.failed.begin(), reference.failed.end()));
        break;
      }
      EXPECT_EQ(status, -199) << "allocation " << n;
      EXPECT_EQ(o.coords.cols(), m.coords.cols()) << "allocation " << n;
      EXPECT_TRUE(o.out.empty() && o.failed.empty() && o.reasons.empty()) << "allocation " << n;
    }
  }
}
