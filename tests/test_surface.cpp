// Duplication of surface nodes: boxes cut by an internal plane, checked against the
// expected copies and against the connected components of the opened mesh.
#include <gtest/gtest.h>

#include <algorithm>
#include <map>
#include <numeric>
#include <set>
#include <vector>

#include "box_mesh.h"
#include "failing_allocator.h"
#include "zel/tessel3d.h"

using namespace tessel3d_test;
using zel::dense1D;
using zel::dense2D;
using zel::tessel3d::duplicate_surface_nodes;

namespace {

constexpr unsigned absent = ~0U;
constexpr unsigned nx = 5, ny = 4, nz = 4, kc = 2;  // the cut is the plane z = kc / nz

// A box whose cells are H8, PY5, W6 or TH4, chosen per cell so that the mesh is
// conforming, cut by the plane z = kc / nz. Surface faces are listed cell by cell with
// corners counter-clockwise seen from above: their normals point up (+z).
struct cut_case {
  const char* name;
  zel::element_type type;
  box_kind (*cell_kind)(unsigned i, unsigned k);
  std::size_t mixed_rows;  // rows of a SOLID_MIX8 connectivity (4, 6 or 8)
};

struct mesh {
  zel::element_type type;
  dense2D<double> coords;
  dense2D<unsigned> connect, neighbors, surface;
  dense1D<unsigned, 8> node_element;
};

mesh make_cut_mesh(const cut_case& c, bool inner_only = false) {
  const box_mesh boxes[4] = {make_box(box_kind::TH4, nx, ny, nz), make_box(box_kind::PY5, nx, ny, nz),
                             make_box(box_kind::W6, nx, ny, nz), make_box(box_kind::H8, nx, ny, nz)};
  mesh m;
  m.type = c.type;
  m.coords = boxes[1].coords;  // grid nodes, then one apex per cell
  std::vector<std::vector<unsigned>> columns;
  std::size_t cell = 0;
  for (unsigned k = 0; k < nz; ++k)
    for (unsigned j = 0; j < ny; ++j)
      for (unsigned i = 0; i < nx; ++i, ++cell) {
        const int kind = static_cast<int>(c.cell_kind(i, k));
        const box_mesh& box = boxes[kind];
        const unsigned per_cell = box_elements_per_cell(box_kind(kind));
        for (unsigned e = 0; e < per_cell; ++e) {
          std::vector<unsigned> column(8, absent);
          for (unsigned r = 0; r < box.connect.rows(); ++r) column[r] = box.connect(r, cell * per_cell + e);
          columns.push_back(column);
        }
      }
  const std::size_t rows = c.type == zel::TH4 ? 4 : c.type == zel::H8 ? 8 : c.mixed_rows;
  dense2D<unsigned> full(8, columns.size());
  m.connect.resize(rows, columns.size());
  for (std::size_t e = 0; e < columns.size(); ++e)
    for (unsigned r = 0; r < 8; ++r) {
      full(r, e) = columns[e][r];
      if (r < rows) m.connect(r, e) = columns[e][r];
    }
  EXPECT_EQ(zel::tessel::get_neighbors(c.type == zel::SOLID_MIX8 ? full : m.connect, c.type, m.neighbors), 0);
  EXPECT_EQ(zel::tessel::get_node_element(m.connect, unsigned(m.coords.cols()), m.node_element), 0);

  auto node = [](unsigned i, unsigned j) { return (kc * (ny + 1) + j) * (nx + 1) + i; };
  std::vector<std::vector<unsigned>> faces;
  for (unsigned j = 0; j < ny; ++j)
    for (unsigned i = 0; i < nx; ++i) {
      if (inner_only && (i == 0 || j == 0 || i == nx - 1 || j == ny - 1)) continue;
      const unsigned q[4] = {node(i, j), node(i + 1, j), node(i + 1, j + 1), node(i, j + 1)};
      const box_kind above = c.cell_kind(i, kc);
      if (above == box_kind::H8 || above == box_kind::PY5) {
        faces.push_back({q[0], q[1], q[2], q[3]});
      } else {
        faces.push_back({q[0], q[1], q[2], absent});
        faces.push_back({q[0], q[2], q[3], absent});
      }
    }
  const std::size_t surface_rows = c.type == zel::TH4 ? 3 : 4;
  m.surface.resize(surface_rows, faces.size());
  for (std::size_t f = 0; f < faces.size(); ++f)
    for (std::size_t r = 0; r < surface_rows; ++r) m.surface(r, f) = faces[f][r];
  return m;
}

box_kind all_th4(unsigned, unsigned) { return box_kind::TH4; }
box_kind all_h8(unsigned, unsigned) { return box_kind::H8; }
box_kind all_w6(unsigned, unsigned) { return box_kind::W6; }
// H8, PY5 and W6 columns side by side (they meet on quadrangles).
box_kind columns_h8_py5_w6(unsigned i, unsigned) { return i < 1 ? box_kind::H8 : i < 3 ? box_kind::PY5 : box_kind::W6; }
// W6 below the cut, TH4 above (they meet on the same triangles).
box_kind w6_below_th4_above(unsigned, unsigned k) { return k < kc ? box_kind::W6 : box_kind::TH4; }

const cut_case cases[] = {
    {"TH4", zel::TH4, all_th4, 0},
    {"H8", zel::H8, all_h8, 0},
    {"mixed_H8_PY5_W6", zel::SOLID_MIX8, columns_h8_py5_w6, 8},
    {"mixed_W6_TH4", zel::SOLID_MIX8, w6_below_th4_above, 8},
    {"mixed_W6_in_6_rows", zel::SOLID_MIX8, all_w6, 6},
    {"mixed_TH4_in_4_rows", zel::SOLID_MIX8, all_th4, 4},
};

bool above_cut(const mesh& m, const dense2D<unsigned>& connect, std::size_t e) {
  double z = 0;
  unsigned count = 0;
  for (std::size_t r = 0; r < connect.rows(); ++r)
    if (connect(r, e) != absent) z += m.coords(2, connect(r, e)), ++count;
  return z / count > double(kc) / nz;
}

// Elements joined when they share a node, counted with a union-find.
std::size_t components(const dense2D<unsigned>& connect) {
  std::vector<std::size_t> parent(connect.cols());
  std::iota(parent.begin(), parent.end(), 0);
  auto root = [&](std::size_t e) {
    while (parent[e] != e) e = parent[e] = parent[parent[e]];
    return e;
  };
  std::map<unsigned, std::size_t> first;
  for (std::size_t e = 0; e < connect.cols(); ++e)
    for (std::size_t r = 0; r < connect.rows(); ++r)
      if (connect(r, e) != absent) {
        auto it = first.emplace(connect(r, e), e).first;
        parent[root(e)] = root(it->second);
      }
  std::set<std::size_t> roots;
  for (std::size_t e = 0; e < connect.cols(); ++e) roots.insert(root(e));
  return roots.size();
}

// The copies each side gives, numbered in order of first listing (the negative side
// reading each face backwards), and the connectivity they make.
struct expectation {
  std::map<unsigned, unsigned> positive, negative;
  dense2D<unsigned> connect;
};

expectation expect(const mesh& m, bool pos, bool neg, const std::set<unsigned>& excluded) {
  expectation x;
  unsigned next = unsigned(m.coords.cols());
  for (int side = 0; side < 2; ++side) {
    if (!(side == 0 ? pos : neg)) continue;
    auto& copies = side == 0 ? x.positive : x.negative;
    for (std::size_t f = 0; f < m.surface.cols(); ++f) {
      std::vector<unsigned> q;
      for (std::size_t r = 0; r < m.surface.rows(); ++r)
        if (m.surface(r, f) != absent) q.push_back(m.surface(r, f));
      if (side == 1) std::reverse(q.begin(), q.end());
      for (unsigned n : q)
        if (!excluded.count(n) && !copies.count(n)) copies[n] = next++;
    }
  }
  x.connect.copy(m.connect);
  for (std::size_t e = 0; e < m.connect.cols(); ++e) {
    const auto& copies = above_cut(m, m.connect, e) ? x.positive : x.negative;
    for (std::size_t r = 0; r < m.connect.rows(); ++r) {
      auto it = copies.find(m.connect(r, e));
      if (it != copies.end()) x.connect(r, e) = it->second;
    }
  }
  return x;
}

void expect_same(const dense2D<unsigned>& a, const dense2D<unsigned>& b) {
  ASSERT_EQ(a.rows(), b.rows());
  ASSERT_EQ(a.cols(), b.cols());
  for (std::size_t e = 0; e < a.cols(); ++e)
    for (std::size_t r = 0; r < a.rows(); ++r) ASSERT_EQ(a(r, e), b(r, e)) << "row " << r << " element " << e;
}

void expect_same(const dense2D<double>& a, const dense2D<double>& b) {
  ASSERT_EQ(a.rows(), b.rows());
  ASSERT_EQ(a.cols(), b.cols());
  for (std::size_t j = 0; j < a.cols(); ++j)
    for (std::size_t r = 0; r < a.rows(); ++r) ASSERT_EQ(a(r, j), b(r, j));
}

int call(const mesh& m, dense2D<double>& coords, dense2D<unsigned>& connect, const dense1D<unsigned, 8>& excluded,
         bool pos, bool neg) {
  return duplicate_surface_nodes(coords, connect, m.neighbors, m.node_element, m.surface, excluded, pos, neg, m.type);
}

// Runs the call on deep copies and checks the copies, the connectivity, the coordinates
// of the new nodes and how the elements hang together afterwards.
void check_opening(const mesh& m, bool pos, bool neg, const std::set<unsigned>& excluded = {}) {
  dense2D<double> coords;
  dense2D<unsigned> connect;
  coords.copy(m.coords);
  connect.copy(m.connect);
  // Entries that are not surface nodes (a corner of the box, an ID past the nodes) have
  // no effect.
  dense1D<unsigned, 8> ex{0, 4000000000u};
  for (unsigned n : excluded) ex.push_back(n);
  const expectation x = expect(m, pos, neg, excluded);
  const std::size_t nb_new = x.positive.size() + x.negative.size();
  ASSERT_EQ(call(m, coords, connect, ex, pos, neg), int(nb_new));
  ASSERT_EQ(coords.cols(), m.coords.cols() + nb_new);
  for (const auto* copies : {&x.positive, &x.negative})
    for (const auto& [n, copy] : *copies)
      for (unsigned d = 0; d < 3; ++d) EXPECT_EQ(coords(d, copy), m.coords(d, n));
  expect_same(connect, x.connect);
  for (std::size_t j = 0; j < m.coords.cols(); ++j)
    for (unsigned d = 0; d < 3; ++d) ASSERT_EQ(coords(d, j), m.coords(d, j));

  // Nodes shared by an element above the cut and one below.
  std::map<unsigned, int> sides;
  for (std::size_t e = 0; e < connect.cols(); ++e)
    for (std::size_t r = 0; r < connect.rows(); ++r)
      if (connect(r, e) != absent) sides[connect(r, e)] |= above_cut(m, m.connect, e) ? 1 : 2;
  std::size_t shared = 0;
  for (const auto& [n, s] : sides) shared += s == 3;
  const std::size_t duplicated = pos ? x.positive.size() : x.negative.size();
  EXPECT_EQ(shared, (nx + 1) * (ny + 1) - duplicated);  // the nodes of the plane left whole
  EXPECT_EQ(components(connect), excluded.empty() ? 2u : 1u);
}

}  // namespace

class duplicate_surface : public ::testing::TestWithParam<cut_case> {};

TEST_P(duplicate_surface, plane_cut_one_side_then_both) {
  const mesh m = make_cut_mesh(GetParam());
  ASSERT_EQ(components(m.connect), 1u);
  // The surface normals point up, towards the positive side.
  for (std::size_t f = 0; f < m.surface.cols(); ++f) {
    double p[3][3];
    for (unsigned k = 0; k < 3; ++k)
      for (unsigned d = 0; d < 3; ++d) p[k][d] = m.coords(d, m.surface(k, f));
    const double ux = p[1][0] - p[0][0], uy = p[1][1] - p[0][1], vx = p[2][0] - p[0][0], vy = p[2][1] - p[0][1];
    ASSERT_GT(ux * vy - uy * vx, 0.0);
  }
  check_opening(m, true, false);
  check_opening(m, false, true);
  check_opening(m, true, true);
}

TEST_P(duplicate_surface, excluded_rim_keeps_one_index) {
  // A cut over the inner cells only, its rim excluded: the mesh stays in one piece and
  // the rim nodes are the only ones both sides share.
  const mesh m = make_cut_mesh(GetParam(), true);
  std::map<unsigned, int> count;  // rim nodes lie on fewer faces than interior ones
  std::set<unsigned> rim;
  const unsigned lo = 1, hi_x = nx - 1, hi_y = ny - 1;
  for (std::size_t f = 0; f < m.surface.cols(); ++f)
    for (std::size_t r = 0; r < m.surface.rows(); ++r) {
      const unsigned n = m.surface(r, f);
      if (n == absent) continue;
      const unsigned i = n % (nx + 1), j = n / (nx + 1) % (ny + 1);
      if (i == lo || i == hi_x || j == lo || j == hi_y) rim.insert(n);
    }
  check_opening(m, true, true, rim);
  check_opening(m, true, false, rim);
}

TEST_P(duplicate_surface, cut_on_the_boundary_gives_unused_copies) {
  // The bottom of the box, normals into the mesh: the negative side has no element,
  // so its copies are used by none and the original nodes are left in no element.
  mesh m = make_cut_mesh(GetParam());
  const std::size_t shift = kc * (ny + 1) * (nx + 1);
  for (std::size_t f = 0; f < m.surface.cols(); ++f)
    for (std::size_t r = 0; r < m.surface.rows(); ++r)
      if (m.surface(r, f) != absent) m.surface(r, f) -= unsigned(shift);
  dense2D<double> coords;
  dense2D<unsigned> connect;
  coords.copy(m.coords);
  connect.copy(m.connect);
  const std::size_t nb_nodes = (nx + 1) * (ny + 1);
  ASSERT_EQ(call(m, coords, connect, {}, true, true), int(2 * nb_nodes));
  std::set<unsigned> used;
  for (std::size_t e = 0; e < connect.cols(); ++e)
    for (std::size_t r = 0; r < connect.rows(); ++r) used.insert(connect(r, e));
  for (unsigned n = 0; n < nb_nodes; ++n) EXPECT_FALSE(used.count(n));
  for (std::size_t n = m.coords.cols(); n < m.coords.cols() + 2 * nb_nodes; ++n)
    EXPECT_EQ(used.count(unsigned(n)), n < m.coords.cols() + nb_nodes ? 1u : 0u);
}

TEST_P(duplicate_surface, bad_node_element_entry_changes_nothing) {
  mesh m = make_cut_mesh(GetParam());
  // A node of the last surface face, so that copies were made before it fails.
  const unsigned n = m.surface(m.surface.rows() == 3 || m.surface(3, m.surface.cols() - 1) == absent ? 2 : 3,
                               m.surface.cols() - 1);
  std::size_t far = 0;  // an element that does not hold n
  while (std::set<unsigned>(&m.connect(0, far), &m.connect(0, far) + m.connect.rows()).count(n)) ++far;
  for (unsigned bad : {unsigned(far), unsigned(m.connect.cols()), absent}) {
    dense1D<unsigned, 8> node_element;
    node_element.copy(m.node_element);
    node_element[n] = bad;
    for (int sides = 1; sides <= 3; ++sides) {
      dense2D<double> coords;
      dense2D<unsigned> connect;
      coords.copy(m.coords);
      connect.copy(m.connect);
      EXPECT_EQ(duplicate_surface_nodes(coords, connect, m.neighbors, node_element, m.surface, {}, sides & 1,
                                        sides & 2, m.type),
                0);
      expect_same(coords, m.coords);
      expect_same(connect, m.connect);
    }
  }
}

TEST_P(duplicate_surface, allocation_failure_changes_nothing) {
  // Fail the n-th allocation, n = 1, 2, ... until the call makes fewer than n: each
  // call either reports -199 with nothing changed or (when a table could do with less
  // room) succeeds in full.
  const mesh m = make_cut_mesh(GetParam());
  const int expected = int(expect(m, true, true, {}).positive.size() * 2);
  long failures = 0;
  for (long n = 1;; ++n) {
    dense2D<double> coords;
    dense2D<unsigned> connect;
    coords.copy(m.coords);
    connect.copy(m.connect);
    int status;
    bool reached;
    {
      failing_allocator guard(n);
      status = call(m, coords, connect, {}, true, true);
      reached = guard.failed();
    }
    if (status == -199) {
      ++failures;
      expect_same(coords, m.coords);
      expect_same(connect, m.connect);
    } else {
      EXPECT_EQ(status, expected);
      EXPECT_EQ(coords.cols(), m.coords.cols() + expected);
    }
    if (!reached) break;
  }
  EXPECT_GT(failures, 3);
}

TEST_P(duplicate_surface, views_with_padding) {
  const mesh m = make_cut_mesh(GetParam());
  mesh padded = m;
  padded.neighbors = padded_view(m.neighbors, 3, 0u);
  padded.surface = padded_view(m.surface, 1, 0u);
  dense2D<unsigned> connect = padded_view(m.connect, 2, 0u), plain;
  dense2D<double> coords = padded_view(m.coords, 2, -7.0), reference;
  plain.copy(m.connect);
  reference.copy(m.coords);
  const int added = call(m, reference, plain, {}, true, true);
  ASSERT_GT(added, 0);
  ASSERT_EQ(call(padded, coords, connect, {}, true, true), added);
  expect_same(connect, plain);
  expect_same(coords, reference);
  // The rows past the view are left alone (those of the last column lie outside the
  // view's span, which the matrix keeps when it grows).
  for (std::size_t j = 0; j + 1 < m.coords.cols(); ++j) {
    EXPECT_EQ(coords.data()[j * coords.ld() + 3], -7.0);
    EXPECT_EQ(coords.data()[j * coords.ld() + 4], -7.0);
  }
}

INSTANTIATE_TEST_SUITE_P(duplicate_surface_nodes, duplicate_surface, ::testing::ValuesIn(cases),
                         [](const auto& info) { return std::string(info.param.name); });

TEST(duplicate_surface_nodes, numbering_on_two_tetrahedra) {
  // Two TH4 on either side of the triangle 0-1-2 (z = 0): node 3 above, node 4 below.
  // The face normal (+z) points to the upper element.
  dense2D<double> coords(3, 5, {0, 0, 0, 1, 0, 0, 0, 1, 0, 0, 0, 1, 0, 0, -1});
  dense2D<unsigned> connect(4, 2, {1, 0, 2, 3, 0, 1, 2, 4}), neighbors;
  dense2D<unsigned> surface(3, 1, {0, 1, 2});
  dense1D<unsigned, 8> node_element;
  ASSERT_EQ(zel::tessel::get_neighbors(connect, zel::TH4, neighbors), 0);
  ASSERT_EQ(zel::tessel::get_node_element(connect, 5, node_element), 0);
  ASSERT_EQ(duplicate_surface_nodes(coords, connect, neighbors, node_element, surface, {}, true, true, zel::TH4), 6);
  // Positive copies 5, 6, 7 of nodes 0, 1, 2; negative copies 8, 9, 10 of nodes 2, 1, 0.
  const unsigned expected[8] = {6, 5, 7, 3, 10, 9, 8, 4};
  for (unsigned k = 0; k < 8; ++k) EXPECT_EQ(connect.data()[k], expected[k]);
  EXPECT_EQ(coords(0, 6), 1.0);
  EXPECT_EQ(coords(0, 10), 0.0);
  EXPECT_EQ(coords(1, 8), 1.0);
}

TEST(duplicate_surface_nodes, status_codes_in_order) {
  const mesh m = make_cut_mesh(cases[0]);
  dense2D<double> bad_coords(2, m.coords.cols());
  dense2D<unsigned> bad_connect, bad_neighbors_ids, bad_surface, wide_surface, five_rows(5, m.connect.cols(), 0u);
  bad_connect.copy(m.connect);
  bad_connect(1, 3) = unsigned(m.coords.cols());
  bad_neighbors_ids.copy(m.neighbors);
  bad_neighbors_ids(0, 0) = unsigned(m.connect.cols());
  bad_surface.copy(m.surface);
  bad_surface(2, 0) = unsigned(m.coords.cols());
  wide_surface.resize(4, m.surface.cols(), 0u);
  const dense1D<unsigned, 8> short_node_element(m.coords.cols() / 2, 0u);
  const dense2D<unsigned> no_columns(4, 0), neighbors_cols = m.neighbors.sub_matrix(0, 0, 4, 5),
                          neighbors_rows = m.neighbors.sub_matrix(0, 0, 3, m.neighbors.cols());

  struct row {
    int expected;
    dense2D<double> coords;
    dense2D<unsigned> connect, neighbors;
    dense1D<unsigned, 8> node_element;
    dense2D<unsigned> surface;
    bool pos, neg;
    zel::element_type type;
  };
  // Each row breaks one argument and every argument checked after it.
  const row rows[] = {
      {0, bad_coords, no_columns, bad_neighbors_ids, short_node_element, bad_surface, true, true, zel::W6},
      {0, bad_coords, bad_connect, bad_neighbors_ids, short_node_element, {}, true, true, zel::W6},
      {0, bad_coords, bad_connect, bad_neighbors_ids, short_node_element, bad_surface, false, false, zel::W6},
      {-1, bad_coords, bad_connect, bad_neighbors_ids, short_node_element, bad_surface, true, false, zel::W6},
      {-2, m.coords, bad_connect, bad_neighbors_ids, short_node_element, bad_surface, true, false, zel::TH4},
      {-2, m.coords, five_rows, m.neighbors, m.node_element, m.surface, true, false, zel::TH4},
      {-3, m.coords, m.connect, neighbors_cols, short_node_element, bad_surface, false, true, zel::TH4},
      {-3, m.coords, m.connect, neighbors_rows, short_node_element, bad_surface, false, true, zel::TH4},
      {-3, m.coords, m.connect, bad_neighbors_ids, short_node_element, bad_surface, false, true, zel::TH4},
      {-4, m.coords, m.connect, m.neighbors, short_node_element, bad_surface, true, true, zel::TH4},
      {-5, m.coords, m.connect, m.neighbors, m.node_element, bad_surface, true, true, zel::TH4},
      {-5, m.coords, m.connect, m.neighbors, m.node_element, wide_surface, true, true, zel::TH4},
      {-9, m.coords, m.connect, m.neighbors, m.node_element, m.surface, true, true, zel::TH10},
      {-2, m.coords, dense2D<unsigned>(7, 3, 0u), m.neighbors, m.node_element, m.surface, true, true, zel::SOLID_MIX8},
  };
  for (const row& r : rows) {
    dense2D<double> coords = r.coords;
    dense2D<unsigned> connect = r.connect;
    const std::size_t cols = coords.cols();
    EXPECT_EQ(duplicate_surface_nodes(coords, connect, r.neighbors, r.node_element, r.surface, {}, r.pos, r.neg,
                                      r.type),
              r.expected)
        << "row expecting " << r.expected;
    EXPECT_EQ(coords.cols(), cols);
  }
}
