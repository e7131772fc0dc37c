// Mesh model: the element tables and the orientation flips.
#include <gtest/gtest.h>

#include <algorithm>
#include <map>
#include <numeric>
#include <set>
#include <vector>

#include "box_mesh.h"
#include "common/element_tables.h"
#include "reference_volume.h"
#include "zel/tessel3d.h"

using zel::dense2D;
namespace t3 = zel::tessel3d;

namespace {

constexpr unsigned absent = ~0U;
using pairs = std::vector<std::pair<unsigned, unsigned>>;

// A connectivity whose entry (i, j) is 100 * j + i, so every move is visible.
dense2D<unsigned> numbered(std::size_t rows, std::size_t cols) {
  dense2D<unsigned> c(rows, cols);
  for (std::size_t j = 0; j < cols; ++j)
    for (std::size_t i = 0; i < rows; ++i) c(i, j) = unsigned(100 * j + i);
  return c;
}

std::vector<unsigned> entries(const dense2D<unsigned>& c) {
  std::vector<unsigned> v;
  for (std::size_t j = 0; j < c.cols(); ++j)
    for (std::size_t i = 0; i < c.rows(); ++i) v.push_back(c(i, j));
  return v;
}

// Entries of numbered(rows, cols) with the listed pairs of rows exchanged in every column.
std::vector<unsigned> swapped(std::size_t rows, const pairs& exchanged, std::size_t cols = 2) {
  std::vector<unsigned> p(rows);
  std::iota(p.begin(), p.end(), 0u);
  for (auto [a, b] : exchanged) std::swap(p[a], p[b]);
  std::vector<unsigned> all;
  for (std::size_t j = 0; j < cols; ++j)
    for (unsigned i : p) all.push_back(unsigned(100 * j + i));
  return all;
}

template <class Flip>
std::vector<unsigned> flipped(Flip apply, dense2D<unsigned> c) {
  EXPECT_EQ(apply(c), 0);
  return entries(c);
}

}  // namespace

TEST(element_tables, every_face_normal_points_into_the_reference_element) {
  // Reference elements of positive orientation.
  const double th4[4][3] = {{0, 0, 0}, {0, 1, 0}, {1, 0, 0}, {0, 0, 1}};
  const double py5[5][3] = {{0, 0, 0}, {1, 0, 0}, {1, 1, 0}, {0, 1, 0}, {0.5, 0.5, 1}};
  const double w6[6][3] = {{0, 0, 0}, {1, 0, 0}, {0, 1, 0}, {0, 0, 1}, {1, 0, 1}, {0, 1, 1}};
  const double h8[8][3] = {{0, 0, 0}, {1, 0, 0}, {1, 1, 0}, {0, 1, 0}, {0, 0, 1}, {1, 0, 1}, {1, 1, 1}, {0, 1, 1}};
  const double(*vertices[4])[3] = {th4, py5, w6, h8};
  for (const auto& kind : elfes::solid_table) {
    const double(*p)[3] = vertices[&kind - elfes::solid_table];
    double centre[3] = {0, 0, 0};
    for (unsigned v = 0; v < kind.nb_vertices; ++v)
      for (int d = 0; d < 3; ++d) centre[d] += p[v][d] / kind.nb_vertices;
    for (unsigned f = 0; f < kind.nb_faces; ++f) {
      const unsigned* n = kind.faces[f];
      const bool triangle = kind.face_size[f] == 3;
      double u[3], v[3], inward = 0;
      for (int d = 0; d < 3; ++d) {
        // Triangle (a - c) x (b - c); quadrangle: the diagonals (c - a) x (d - b).
        u[d] = triangle ? p[n[0]][d] - p[n[2]][d] : p[n[2]][d] - p[n[0]][d];
        v[d] = triangle ? p[n[1]][d] - p[n[2]][d] : p[n[3]][d] - p[n[1]][d];
      }
      for (int d = 0; d < 3; ++d)  // normal . (centre - a vertex of the face)
        inward += (u[(d + 1) % 3] * v[(d + 2) % 3] - u[(d + 2) % 3] * v[(d + 1) % 3]) * (centre[d] - p[n[0]][d]);
      EXPECT_GT(inward, 0) << "kind " << kind.type << " face " << f;
    }
    // No edge is listed twice.
    for (unsigned e = 0; e < kind.nb_edges; ++e)
      for (unsigned o = 0; o < e; ++o)
        EXPECT_FALSE(std::minmax(kind.edges[e][0], kind.edges[e][1]) ==
                     std::minmax(kind.edges[o][0], kind.edges[o][1]));
  }
}

TEST(element_tables, mixed_columns_are_classified_by_their_padding) {
  const struct {
    unsigned rows[8];
    elfes::solid_kind kind;
  } samples[] = {
      {{0, 1, 2, 3, absent, absent, absent, absent}, elfes::kind_TH4},
      {{0, 1, 2, 3, 4, absent, absent, absent}, elfes::kind_PY5},
      {{0, 1, 2, 3, 4, 5, absent, absent}, elfes::kind_W6},
      {{0, 1, 2, 3, 4, 5, 6, 7}, elfes::kind_H8},
      {{0, 1, 2, absent, absent, absent, absent, absent}, elfes::kind_H8},  // malformed
      {{0, 1, 2, absent, absent, 5, absent, absent}, elfes::kind_W6},
      {{0, 1, 2, absent, absent, 5, 6, 7}, elfes::kind_H8},
  };
  for (const auto& s : samples) EXPECT_EQ(elfes::mixed8_kind(s.rows), s.kind);
}

// The pyramid's documented exchanges (its 6<->8 moves the nodes of edges 1-4 and 3-4,
// which 0<->2 leaves in place, so the geometric check below cannot stand in for it), the
// single-type flips, and nothing moving for the types without exchanges.
TEST(flip, permutation_of_each_type) {
  const std::set<int> checked_by_geometry = {zel::TH4, zel::TH10, zel::W6, zel::W18, zel::H8, zel::H27};
  for (int t = 0; t < 25; ++t) {
    if (t == zel::SOLID_MIX8 || checked_by_geometry.count(t)) continue;
    const unsigned rows = elfes::element_table[t].rows;
    const pairs exchanged = t == zel::PY14  ? pairs{{0, 2}, {5, 7}, {6, 8}, {9, 10}, {11, 12}}
                            : t == zel::PY5 ? pairs{{0, 2}}
                                            : pairs{};
    EXPECT_EQ(flipped([t](dense2D<unsigned>& c) { return t3::flip(c, zel::element_type(t)); }, numbered(rows, 2)),
              swapped(rows, exchanged))
        << t;
  }
  EXPECT_EQ(flipped(t3::flip_TH4, numbered(4, 2)), swapped(4, {{0, 1}}));
  EXPECT_EQ(flipped(t3::flip_W6, numbered(6, 2)), swapped(6, {{0, 3}, {1, 4}, {2, 5}}));
  EXPECT_EQ(flipped(t3::flip_H8, numbered(8, 2)), swapped(8, {{0, 4}, {1, 5}, {2, 6}, {3, 7}}));
}

TEST(flip, mixed_27_row_layout_follows_the_padding) {
  const auto mixed = [](dense2D<unsigned>& c) { return t3::flip(c, zel::SOLID_MIX8); };
  const auto check = [&](unsigned first_absent, const pairs& exchanged) {
    dense2D<unsigned> c = numbered(27, 1);
    for (unsigned i = first_absent; i < 27; ++i) c(i, 0) = absent;
    std::vector<unsigned> expected = swapped(27, exchanged, 1);
    for (auto& v : expected)
      if (v >= first_absent) v = absent;
    EXPECT_EQ(flipped(mixed, c), expected) << "rows from " << first_absent << " absent";
  };
  check(10, {{0, 2}, {4, 6}, {7, 9}});
  check(14, {{0, 2}, {5, 7}, {6, 8}, {9, 10}, {11, 12}});
  check(18, {{0, 2}, {3, 5}, {6, 8}, {9, 11}, {12, 14}, {15, 17}});
  // The hexahedron also exchanges rows 3 and 5.
  check(27, {{0, 2}, {3, 5}, {4, 6}, {8, 9}, {10, 11}, {12, 13}, {14, 15}, {16, 18}, {21, 22}, {20, 23}});
  // A linear element in this layout has row 10 absent and is taken for a tetrahedron.
  check(8, {{0, 2}, {4, 6}, {7, 9}});
}

TEST(flip, reverses_the_orientation_of_a_tetrahedral_box) {
  const auto mesh = tessel3d_test::make_box(tessel3d_test::box_kind::TH4, 3, 2, 2, 1, 1, 1, 0.2, 7);
  const auto volume = [&](const dense2D<unsigned>& c, std::size_t j) {  // the library's TH4 sign
    return tessel3d_test::tet_volume(mesh.coords, c(3, j), c(0, j), c(1, j), c(2, j));
  };
  for (int (*apply)(dense2D<unsigned>&) : {+[](dense2D<unsigned>& c) { return t3::flip(c, zel::TH4); },
                                           +[](dense2D<unsigned>& c) { return t3::flip_TH4(c); }}) {
    dense2D<unsigned> c;
    ASSERT_TRUE(c.copy(mesh.connect));
    ASSERT_EQ(apply(c), 0);
    for (std::size_t j = 0; j < c.cols(); ++j) {
      EXPECT_GT(volume(mesh.connect, j), 0);
      EXPECT_NEAR(volume(c, j), -volume(mesh.connect, j), 1e-12);
    }
  }
}

// A flipped column keeps every node with its edge, face or cell: row by row, the flip of
// the quadratic mesh puts its nodes where the quadratic conversion of the flipped linear
// mesh puts them (the conversion's own layout is the reference). Corners check the
// linear flips, the other rows the quadratic ones (PY14 aside, see above).
TEST(flip, high_order_rows_follow_the_corners) {
  using tessel3d_test::box_kind;
  const struct {
    box_kind kind;
    zel::element_type linear, quadratic;
  } kinds[] = {
      {box_kind::TH4, zel::TH4, zel::TH10}, {box_kind::W6, zel::W6, zel::W18}, {box_kind::H8, zel::H8, zel::H27}};
  for (const auto& k : kinds) {
    const auto box = tessel3d_test::make_box(k.kind, 2, 2, 2, 1, 1, 1, 0.2, 7);
    dense2D<double> x_then, x_first;
    dense2D<unsigned> then_flipped, flipped_first;
    ASSERT_TRUE(x_then.copy(box.coords) && x_first.copy(box.coords));
    ASSERT_TRUE(then_flipped.copy(box.connect) && flipped_first.copy(box.connect));
    ASSERT_EQ(t3::convert_into_quadratic(x_then, then_flipped), 0);
    ASSERT_EQ(t3::flip(then_flipped, k.quadratic), 0);
    ASSERT_EQ(t3::flip(flipped_first, k.linear), 0);
    ASSERT_EQ(t3::convert_into_quadratic(x_first, flipped_first), 0);
    for (std::size_t j = 0; j < then_flipped.cols(); ++j)
      for (std::size_t i = 0; i < then_flipped.rows(); ++i)
        for (int d = 0; d < 3; ++d)
          EXPECT_NEAR(x_then(d, then_flipped(i, j)), x_first(d, flipped_first(i, j)), 1e-12)
              << "type " << k.quadratic << " row " << i << " column " << j;
  }
}

TEST(flip, status_codes) {
  dense2D<unsigned> empty27(27, 0), none;
  for (int t = 0; t < 25; ++t) {
    EXPECT_EQ(t3::flip(empty27, zel::element_type(t)), 0);
    EXPECT_EQ(t3::flip(none, zel::element_type(t)), 0);
  }
  EXPECT_EQ(t3::flip_TH4(empty27) + t3::flip_W6(empty27) + t3::flip_H8(empty27), 0);

  dense2D<unsigned> c27 = numbered(27, 2), c8 = numbered(8, 2);
  EXPECT_EQ(t3::flip(c27, zel::H8), -2);
  EXPECT_EQ(t3::flip_H8(c27), -1);  // the single-type flips say -1 for the same fault
  EXPECT_EQ(t3::flip(c8, zel::SOLID_MIX8), -2);
  EXPECT_EQ(t3::flip_TH4(c8), -1);
  EXPECT_EQ(t3::flip_W6(c8), -1);
  EXPECT_EQ(t3::flip(c8, zel::element_type(25)), -2);
  EXPECT_EQ(entries(c27), entries(numbered(27, 2)));
  EXPECT_EQ(entries(c8), entries(numbered(8, 2)));
}

TEST(flip, views_with_a_larger_leading_dimension) {
  dense2D<unsigned> big = numbered(11, 4);
  dense2D<unsigned> view = big.sub_matrix(1, 1, 8, 3);  // rows 1-8 of columns 1-3, ld 11
  ASSERT_EQ(view.ld(), 11u);
  ASSERT_EQ(t3::flip(view, zel::H8), 0);
  ASSERT_EQ(t3::flip_H8(view), 0);
  // flip(H8) then flip_H8 on local rows r = i - 1; outside the view: untouched.
  const std::vector<unsigned> p = swapped(8, {{0, 2}, {4, 6}}, 1), q = swapped(8, {{0, 4}, {1, 5}, {2, 6}, {3, 7}}, 1);
  for (std::size_t j = 0; j < 4; ++j)
    for (std::size_t i = 0; i < 11; ++i) {
      const bool inside = j >= 1 && i >= 1 && i <= 8;
      EXPECT_EQ(big(i, j), 100 * j + (inside ? 1 + p[q[i - 1]] : i)) << i << ", " << j;
    }
}
