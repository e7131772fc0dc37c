// Mesh model: version, element tables and the orientation flips.
#include <gtest/gtest.h>

#include <algorithm>
#include <numeric>
#include <vector>

#include "box_mesh.h"
#include "common/element_tables.h"
#include "zel/tessel3d.h"

using zel::dense2D;
namespace t3 = zel::tessel3d;

namespace {

constexpr unsigned absent = ~0U;

// A connectivity whose entry (i, j) is 100 * j + i, so every move is visible.
dense2D<unsigned> numbered(std::size_t rows, std::size_t cols) {
  dense2D<unsigned> c(rows, cols);
  for (std::size_t j = 0; j < cols; ++j)
    for (std::size_t i = 0; i < rows; ++i) c(i, j) = unsigned(100 * j + i);
  return c;
}

bool same(const dense2D<unsigned>& a, const dense2D<unsigned>& b) {
  if (a.rows() != b.rows() || a.cols() != b.cols()) return false;
  for (std::size_t j = 0; j < a.cols(); ++j)
    for (std::size_t i = 0; i < a.rows(); ++i)
      if (a(i, j) != b(i, j)) return false;
  return true;
}

// Rows of a flipped column, as the permutation applied to 0 ... rows - 1.
std::vector<unsigned> permutation_after(int (*apply)(dense2D<unsigned>&), std::size_t rows) {
  dense2D<unsigned> c = numbered(rows, 1);
  EXPECT_EQ(apply(c), 0);
  return std::vector<unsigned>(c.data(), c.data() + rows);
}

std::vector<unsigned> permutation_after(zel::element_type type, std::size_t rows) {
  dense2D<unsigned> c = numbered(rows, 1);
  EXPECT_EQ(t3::flip(c, type), 0);
  return std::vector<unsigned>(c.data(), c.data() + rows);
}

// Identity with the listed pairs exchanged.
std::vector<unsigned> swapped(std::size_t rows, std::initializer_list<std::pair<unsigned, unsigned>> pairs) {
  std::vector<unsigned> p(rows);
  std::iota(p.begin(), p.end(), 0u);
  for (auto [a, b] : pairs) std::swap(p[a], p[b]);
  return p;
}

// Six times the signed volume of a TH4, written out independently of the library.
double th4_volume6(const dense2D<double>& xyz, const unsigned* n) {
  double p[4][3];
  for (int k = 0; k < 4; ++k)
    for (int d = 0; d < 3; ++d) p[k][d] = xyz(d, n[k]) - (k < 3 ? xyz(d, n[3]) : 0);
  return p[0][0] * (p[1][1] * p[2][2] - p[1][2] * p[2][1]) - p[0][1] * (p[1][0] * p[2][2] - p[1][2] * p[2][0]) +
         p[0][2] * (p[1][0] * p[2][1] - p[1][1] * p[2][0]);
}

}  // namespace

TEST(version, is_the_release_string) { EXPECT_STREQ(t3::version(), "5.5.0.0"); }

TEST(element_tables, rows_and_boundaries) {
  const unsigned rows[25] = {0, 1, 2, 3, 4, 4, 9, 3, 6, 4, 8, 9, 8, 27, 4, 10, 5, 13, 14, 6, 15, 18, 8, 20, 27};
  const unsigned faces[25] = {0, 0, 2, 2, 2, 4, 4, 3, 3, 4, 4, 4, 6, 6, 4, 4, 5, 5, 5, 5, 5, 5, 6, 6, 6};
  for (int t = 0; t < 25; ++t) {
    EXPECT_EQ(elfes::element_table[t].rows, rows[t]) << t;
    EXPECT_EQ(elfes::element_table[t].boundary, faces[t]) << t;
  }
  EXPECT_EQ(zel::TH4, 14);
  EXPECT_EQ(zel::SOLID_MIX8, 12);
  EXPECT_EQ(zel::H27, 24);
}

TEST(element_tables, every_face_normal_points_into_the_reference_element) {
  // Reference elements of positive orientation.
  const double th4[4][3] = {{0, 0, 0}, {0, 1, 0}, {1, 0, 0}, {0, 0, 1}};
  const double py5[5][3] = {{0, 0, 0}, {1, 0, 0}, {1, 1, 0}, {0, 1, 0}, {0.5, 0.5, 1}};
  const double w6[6][3] = {{0, 0, 0}, {1, 0, 0}, {0, 1, 0}, {0, 0, 1}, {1, 0, 1}, {0, 1, 1}};
  const double h8[8][3] = {{0, 0, 0}, {1, 0, 0}, {1, 1, 0}, {0, 1, 0}, {0, 0, 1}, {1, 0, 1}, {1, 1, 1}, {0, 1, 1}};
  const double (*vertices[4])[3] = {th4, py5, w6, h8};
  for (const auto& kind : elfes::solid_table) {
    const double(*p)[3] = vertices[&kind - elfes::solid_table];
    double centre[3] = {0, 0, 0};
    for (unsigned v = 0; v < kind.nb_vertices; ++v)
      for (int d = 0; d < 3; ++d) centre[d] += p[v][d] / kind.nb_vertices;
    for (unsigned f = 0; f < kind.nb_faces; ++f) {
      const unsigned* n = kind.faces[f];
      double u[3], v[3], face_centre[3] = {0, 0, 0};
      for (int d = 0; d < 3; ++d) {
        // Triangle (a - c) x (b - c); quadrangle: the diagonals (c - a) x (d - b).
        u[d] = kind.face_size[f] == 3 ? p[n[0]][d] - p[n[2]][d] : p[n[2]][d] - p[n[0]][d];
        v[d] = kind.face_size[f] == 3 ? p[n[1]][d] - p[n[2]][d] : p[n[3]][d] - p[n[1]][d];
        for (unsigned k = 0; k < kind.face_size[f]; ++k) face_centre[d] += p[n[k]][d] / kind.face_size[f];
      }
      const double normal[3] = {u[1] * v[2] - u[2] * v[1], u[2] * v[0] - u[0] * v[2], u[0] * v[1] - u[1] * v[0]};
      double inward = 0;
      for (int d = 0; d < 3; ++d) inward += normal[d] * (centre[d] - face_centre[d]);
      EXPECT_GT(inward, 0) << "kind " << kind.type << " face " << f;
    }
    // Each edge joins two vertices that share a face, and no edge is listed twice.
    for (unsigned e = 0; e < kind.nb_edges; ++e)
      for (unsigned o = 0; o < e; ++o)
        EXPECT_FALSE(std::minmax(kind.edges[e][0], kind.edges[e][1]) == std::minmax(kind.edges[o][0], kind.edges[o][1]));
  }
}

TEST(element_tables, mixed_columns_are_classified_by_their_padding) {
  struct sample {
    unsigned rows[8];
    elfes::solid_kind kind;
  };
  const sample samples[] = {
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

TEST(flip, permutation_of_each_type) {
  EXPECT_EQ(permutation_after(zel::TH4, 4), swapped(4, {{0, 2}}));
  EXPECT_EQ(permutation_after(zel::PY5, 5), swapped(5, {{0, 2}}));
  EXPECT_EQ(permutation_after(zel::TH10, 10), swapped(10, {{0, 2}, {4, 6}, {7, 9}}));
  EXPECT_EQ(permutation_after(zel::PY14, 14), swapped(14, {{0, 2}, {5, 7}, {6, 8}, {9, 10}, {11, 12}}));
  EXPECT_EQ(permutation_after(zel::W6, 6), swapped(6, {{0, 2}, {3, 5}}));
  EXPECT_EQ(permutation_after(zel::W18, 18), swapped(18, {{0, 2}, {3, 5}, {6, 8}, {9, 11}, {12, 14}, {15, 17}}));
  EXPECT_EQ(permutation_after(zel::H8, 8), swapped(8, {{0, 2}, {4, 6}}));
  EXPECT_EQ(permutation_after(zel::H27, 27), swapped(27, {{0, 2}, {4, 6}, {8, 9}, {10, 11}, {12, 13}, {14, 15},
                                                             {16, 18}, {21, 22}, {20, 23}}));
  // Accepted and left as they are.
  for (zel::element_type t : {zel::PY13, zel::W15, zel::H20, zel::T3, zel::Q4, zel::E2})
    EXPECT_EQ(permutation_after(t, elfes::element_rows(t)), swapped(elfes::element_rows(t), {})) << t;

  EXPECT_EQ(permutation_after(t3::flip_TH4, 4), swapped(4, {{0, 1}}));
  EXPECT_EQ(permutation_after(t3::flip_W6, 6), swapped(6, {{0, 3}, {1, 4}, {2, 5}}));
  EXPECT_EQ(permutation_after(t3::flip_H8, 8), swapped(8, {{0, 4}, {1, 5}, {2, 6}, {3, 7}}));
}

TEST(flip, mixed_27_row_layout_follows_the_padding) {
  auto column = [](unsigned first_absent) {
    dense2D<unsigned> c = numbered(27, 1);
    for (unsigned i = first_absent; i < 27; ++i) c(i, 0) = absent;
    return c;
  };
  auto flipped = [](dense2D<unsigned> c) {
    EXPECT_EQ(t3::flip(c, zel::SOLID_MIX8), 0);
    return std::vector<unsigned>(c.data(), c.data() + 27);
  };
  auto expected = [](unsigned first_absent, std::initializer_list<std::pair<unsigned, unsigned>> pairs) {
    std::vector<unsigned> p = swapped(27, pairs);
    for (auto& v : p)
      if (v >= first_absent) v = absent;
    return p;
  };
  EXPECT_EQ(flipped(column(10)), expected(10, {{0, 2}, {4, 6}, {7, 9}}));
  EXPECT_EQ(flipped(column(14)), expected(14, {{0, 2}, {5, 7}, {6, 8}, {9, 10}, {11, 12}}));
  EXPECT_EQ(flipped(column(18)), expected(18, {{0, 2}, {3, 5}, {6, 8}, {9, 11}, {12, 14}, {15, 17}}));
  // The hexahedron also exchanges rows 3 and 5.
  EXPECT_EQ(flipped(column(27)), expected(27, {{0, 2}, {3, 5}, {4, 6}, {8, 9}, {10, 11}, {12, 13}, {14, 15},
                                               {16, 18}, {21, 22}, {20, 23}}));
  // A linear element in this layout has row 10 absent and is taken for a tetrahedron.
  EXPECT_EQ(flipped(column(8)), expected(8, {{0, 2}, {4, 6}, {7, 9}}));
}

TEST(flip, twice_is_the_identity) {
  for (int t = 0; t < 25; ++t) {
    const std::size_t rows = t == zel::SOLID_MIX8 ? 27 : elfes::element_table[t].rows;
    if (rows == 0) continue;
    const dense2D<unsigned> original = numbered(rows, 3);
    dense2D<unsigned> c;
    ASSERT_TRUE(c.copy(original));
    ASSERT_EQ(t3::flip(c, zel::element_type(t)), 0);
    ASSERT_EQ(t3::flip(c, zel::element_type(t)), 0);
    EXPECT_TRUE(same(c, original)) << t;
  }
  for (auto [apply, rows] : {std::pair{&t3::flip_TH4, 4}, {&t3::flip_W6, 6}, {&t3::flip_H8, 8}}) {
    const dense2D<unsigned> original = numbered(rows, 3);
    dense2D<unsigned> c;
    ASSERT_TRUE(c.copy(original));
    apply(c);
    EXPECT_FALSE(same(c, original));
    apply(c);
    EXPECT_TRUE(same(c, original));
  }
}

TEST(flip, reverses_the_orientation_of_a_tetrahedral_box) {
  const auto mesh = tessel3d_test::make_box(tessel3d_test::box_kind::TH4, 3, 2, 2, 1, 1, 1, 0.2, 7);
  for (int (*apply)(dense2D<unsigned>&) : {+[](dense2D<unsigned>& c) { return t3::flip(c, zel::TH4); },
                                           +[](dense2D<unsigned>& c) { return t3::flip_TH4(c); }}) {
    dense2D<unsigned> c;
    ASSERT_TRUE(c.copy(mesh.connect));
    ASSERT_EQ(apply(c), 0);
    for (std::size_t j = 0; j < c.cols(); ++j) {
      EXPECT_GT(th4_volume6(mesh.coords, &mesh.connect(0, j)), 0);
      EXPECT_NEAR(th4_volume6(mesh.coords, &c(0, j)), -th4_volume6(mesh.coords, &mesh.connect(0, j)), 1e-12);
    }
  }
}

TEST(flip, status_codes) {
  dense2D<unsigned> empty27(27, 0), empty_any(5, 0), none;
  for (int t = 0; t < 25; ++t) {
    EXPECT_EQ(t3::flip(empty27, zel::element_type(t)), 0);
    EXPECT_EQ(t3::flip(none, zel::element_type(t)), 0);
  }
  EXPECT_EQ(t3::flip_TH4(empty_any), 0);
  EXPECT_EQ(t3::flip_W6(empty_any), 0);
  EXPECT_EQ(t3::flip_H8(empty_any), 0);

  dense2D<unsigned> c27 = numbered(27, 2), c8 = numbered(8, 2), c20 = numbered(20, 2);
  const dense2D<unsigned> before27 = numbered(27, 2), before8 = numbered(8, 2);
  EXPECT_EQ(t3::flip(c27, zel::H8), -2);
  EXPECT_EQ(t3::flip_H8(c27), -1);  // the single-type flips say -1 for the same fault
  EXPECT_EQ(t3::flip(c8, zel::SOLID_MIX8), -2);
  EXPECT_EQ(t3::flip_TH4(c8), -1);
  EXPECT_EQ(t3::flip_W6(c8), -1);
  EXPECT_EQ(t3::flip(c8, zel::element_type(25)), -2);
  EXPECT_TRUE(same(c27, before27));
  EXPECT_TRUE(same(c8, before8));
  EXPECT_EQ(t3::flip(c20, zel::H20), 0);
  EXPECT_TRUE(same(c20, numbered(20, 2)));
}

TEST(flip, views_with_a_larger_leading_dimension) {
  dense2D<unsigned> big = numbered(11, 4);
  dense2D<unsigned> view = big.sub_matrix(1, 1, 8, 3);  // rows 1-8 of columns 1-3, ld 11
  ASSERT_EQ(view.ld(), 11u);
  ASSERT_EQ(t3::flip(view, zel::H8), 0);
  ASSERT_EQ(t3::flip_H8(view), 0);
  for (std::size_t j = 0; j < 4; ++j)
    for (std::size_t i = 0; i < 11; ++i) {
      const bool inside = j >= 1 && i >= 1 && i <= 8;
      if (!inside) {
        EXPECT_EQ(big(i, j), 100 * j + i);  // outside the view: untouched
        continue;
      }
      // flip(H8) then flip_H8 on local rows r = i - 1.
      std::vector<unsigned> p = swapped(8, {{0, 2}, {4, 6}});
      std::vector<unsigned> q = swapped(8, {{0, 4}, {1, 5}, {2, 6}, {3, 7}});
      EXPECT_EQ(big(i, j), 100 * j + 1 + p[q[i - 1]]);
    }
}

TEST(flip, works_on_memory_wrapped_from_another_container) {
  std::vector<unsigned> memory = {0, 1, 2, 3, 10, 11, 12, 13};
  {
    dense2D<unsigned> view = dense2D<unsigned>::wrap(memory.data(), 4, 2, 4);
    ASSERT_EQ(t3::flip(view, zel::TH4), 0);
    EXPECT_EQ(view.data(), memory.data());  // no copy was made
    dense2D<unsigned> grown = view;
    ASSERT_TRUE(grown.resize(4, 3, 7u));  // growth moves to a buffer of its own
    EXPECT_NE(grown.data(), memory.data());
    EXPECT_EQ(grown(0, 1), 12u);
  }
  EXPECT_EQ(memory, (std::vector<unsigned>{2, 1, 0, 3, 12, 11, 10, 13}));  // still ours, flipped
}
