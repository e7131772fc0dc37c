// Duplication of surface nodes: boxes of every solid kind cut by an internal plane,
// checked against the copies each side must get and against the connected components
// of the opened mesh. Allocation failures and views with padding are checked for every
// family by test_allocation_failures and test_concurrency.
#include <gtest/gtest.h>

#include <algorithm>
#include <map>
#include <numeric>
#include <set>
#include <vector>

#include "box_mesh.h"
#include "checks_in_order.h"
#include "family_table.h"
#include "zel/tessel3d.h"

using namespace tessel3d_test;
using zel::tessel3d::duplicate_surface_nodes;

namespace {

constexpr unsigned absent = ~0U;
constexpr unsigned nx = 5, ny = 4, nz = 4, kc = 2;  // the cut is the plane z = kc / nz

// A box whose cells are H8, PY5, W6 or TH4, chosen per cell so that the mesh is
// conforming, cut by the plane z = kc / nz (over the inner cells only with `inner`).
// Surface faces are listed cell by cell, counter-clockwise seen from above: their
// normals point up, to the positive side.
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

mesh make_cut_mesh(const cut_case& c, bool inner = false) {
  const box_mesh boxes[4] = {make_box(box_kind::TH4, nx, ny, nz), make_box(box_kind::PY5, nx, ny, nz),
                             make_box(box_kind::W6, nx, ny, nz), make_box(box_kind::H8, nx, ny, nz)};
  mesh m{c.type, boxes[1].coords, {}, {}, {}, {}};  // grid nodes, then one apex per cell
  const std::size_t rows = c.type == zel::TH4 ? 4 : c.type == zel::H8 ? 8 : c.mixed_rows;
  dense2D<unsigned> full(8, 0);
  std::size_t cell = 0;
  for (unsigned k = 0; k < nz; ++k)
    for (unsigned j = 0; j < ny; ++j)
      for (unsigned i = 0; i < nx; ++i, ++cell) {
        const box_kind kind = c.cell_kind(i, k);
        const box_mesh& box = boxes[int(kind)];
        for (unsigned e = 0, per_cell = box_elements_per_cell(kind); e < per_cell; ++e) {
          full.resize(8, full.cols() + 1, absent);
          std::copy_n(&box.connect(0, cell * per_cell + e), box.connect.rows(), &full(0, full.cols() - 1));
        }
      }
  m.connect.copy(full.sub_matrix(0, 0, rows, full.cols()));
  EXPECT_EQ(zel::tessel::get_neighbors(c.type == zel::SOLID_MIX8 ? full : m.connect, c.type, m.neighbors), 0);
  EXPECT_EQ(zel::tessel::get_node_element(m.connect, unsigned(m.coords.cols()), m.node_element), 0);
  const std::size_t surface_rows = c.type == zel::TH4 ? 3 : 4;
  m.surface.resize(surface_rows, 0);
  auto add = [&](std::initializer_list<unsigned> face) {
    m.surface.resize(surface_rows, m.surface.cols() + 1);
    std::copy_n(face.begin(), surface_rows, &m.surface(0, m.surface.cols() - 1));
  };
  for (unsigned j = 0; j < ny; ++j)
    for (unsigned i = 0; i < nx; ++i) {
      if (inner && (i == 0 || j == 0 || i == nx - 1 || j == ny - 1)) continue;
      const unsigned a = (kc * (ny + 1) + j) * (nx + 1) + i, b = a + 1, d = a + nx + 1, e = d + 1;
      const box_kind above = c.cell_kind(i, kc);
      if (above == box_kind::H8 || above == box_kind::PY5) {
        add({a, b, e, d});
      } else {
        add({a, b, e, absent});
        add({a, e, d, absent});
      }
    }
  return m;
}

const cut_case cases[] = {
    {"TH4", zel::TH4, [](unsigned, unsigned) { return box_kind::TH4; }, 0},
    {"H8", zel::H8, [](unsigned, unsigned) { return box_kind::H8; }, 0},
    // H8, PY5 and W6 columns side by side (they meet on quadrangles)
    {"mixed_H8_PY5_W6", zel::SOLID_MIX8,
     [](unsigned i, unsigned) { return i < 1   ? box_kind::H8
                                       : i < 3 ? box_kind::PY5
                                               : box_kind::W6; }, 8},
    // W6 below the cut, TH4 above (they meet on the same triangles)
    {"mixed_W6_TH4", zel::SOLID_MIX8, [](unsigned, unsigned k) { return k < kc ? box_kind::W6 : box_kind::TH4; }, 8},
    {"mixed_W6_in_6_rows", zel::SOLID_MIX8, [](unsigned, unsigned) { return box_kind::W6; }, 6},
    {"mixed_TH4_in_4_rows", zel::SOLID_MIX8, [](unsigned, unsigned) { return box_kind::TH4; }, 4},
};

bool above_cut(const mesh& m, std::size_t e) {
  double z = 0;
  unsigned count = 0;
  for (std::size_t r = 0; r < m.connect.rows(); ++r)
    if (m.connect(r, e) != absent) z += m.coords(2, m.connect(r, e)), ++count;
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
      if (connect(r, e) != absent) parent[root(e)] = root(first.emplace(connect(r, e), e).first->second);
  std::set<std::size_t> roots;
  for (std::size_t e = 0; e < connect.cols(); ++e) roots.insert(root(e));
  return roots.size();
}

// A deep copy: a call that wrote into a shared buffer would change its reference too.
template <class M>
M deep(const M& m) {
  M copy;
  copy.copy(m);
  return copy;
}

int call(const mesh& m, dense2D<double>& coords, dense2D<unsigned>& connect, const dense1D<unsigned, 8>& excluded,
         bool pos, bool neg) {
  return duplicate_surface_nodes(coords, connect, m.neighbors, m.node_element, m.surface, excluded, pos, neg, m.type);
}

// Runs the call on deep copies and checks the copies each side gets (numbered in order of
// first listing, the negative side reading each face backwards), the connectivity, the
// coordinates and how the elements hang together afterwards; then the same call on
// views with padding.
void check_opening(const mesh& m, bool pos, bool neg, const std::set<unsigned>& excluded = {}) {
  std::map<unsigned, unsigned> copies[2];
  unsigned next = unsigned(m.coords.cols());
  for (int side = 0; side < 2; ++side)
    for (std::size_t f = 0; f < m.surface.cols() && (side == 0 ? pos : neg); ++f)
      for (std::size_t k = 0; k < m.surface.rows(); ++k) {
        const unsigned n = m.surface(side == 0 ? k : m.surface.rows() - 1 - k, f);
        if (n != absent && !excluded.count(n) && !copies[side].count(n)) copies[side][n] = next++;
      }
  dense2D<unsigned> expected;
  expected.copy(m.connect);
  for (std::size_t e = 0; e < m.connect.cols(); ++e)
    for (std::size_t r = 0; r < m.connect.rows(); ++r) {
      const auto& side = copies[above_cut(m, e) ? 0 : 1];
      if (side.count(m.connect(r, e))) expected(r, e) = side.at(m.connect(r, e));
    }
  dense2D<double> coords = deep(m.coords);
  dense2D<unsigned> connect = deep(m.connect);
  dense1D<unsigned, 8> ex{0, 4000000000u};  // not surface nodes (a corner, an ID past the nodes): no effect
  for (unsigned n : excluded) ex.push_back(n);
  ASSERT_EQ(call(m, coords, connect, ex, pos, neg), int(next - m.coords.cols()));
  EXPECT_TRUE(same(connect, expected));
  EXPECT_TRUE(same(coords.sub_matrix(0, 0, 3, m.coords.cols()), m.coords));
  for (const auto& side : copies)
    for (const auto& [n, copy] : side)
      for (unsigned d = 0; d < 3; ++d) EXPECT_EQ(coords(d, copy), m.coords(d, n));
  // The nodes of the plane left whole are shared by an element above the cut and one below.
  std::map<unsigned, int> sides;
  for (std::size_t e = 0; e < connect.cols(); ++e)
    for (std::size_t r = 0; r < connect.rows(); ++r)
      if (connect(r, e) != absent) sides[connect(r, e)] |= above_cut(m, e) ? 1 : 2;
  EXPECT_EQ(std::count_if(sides.begin(), sides.end(), [](const auto& s) { return s.second == 3; }),
            long((nx + 1) * (ny + 1) - copies[pos ? 0 : 1].size()));
  EXPECT_EQ(components(connect), excluded.empty() ? 2u : 1u);
}

}  // namespace

class duplicate_surface : public ::testing::TestWithParam<cut_case> {};

TEST_P(duplicate_surface, plane_cut_one_side_then_both) {
  const mesh m = make_cut_mesh(GetParam());
  ASSERT_EQ(components(m.connect), 1u);
  check_opening(m, true, false);
  check_opening(m, false, true);
  check_opening(m, true, true);
}

TEST_P(duplicate_surface, excluded_rim_keeps_one_index) {
  // A cut over the inner cells only, its rim excluded: the mesh stays in one piece and
  // the rim nodes are the only ones both sides share.
  const mesh m = make_cut_mesh(GetParam(), true);
  std::set<unsigned> rim;
  for (std::size_t k = 0; k < m.surface.rows() * m.surface.cols(); ++k) {
    const unsigned n = m.surface.data()[k], i = n % (nx + 1), j = n / (nx + 1) % (ny + 1);
    if (n != absent && (i == 1 || i == nx - 1 || j == 1 || j == ny - 1)) rim.insert(n);
  }
  check_opening(m, true, true, rim);
  check_opening(m, true, false, rim);
}

TEST_P(duplicate_surface, cut_on_the_boundary_gives_unused_copies) {
  // The bottom of the box, normals into the mesh: the negative side has no element,
  // so its copies are used by none and the original nodes are left in no element.
  mesh m = make_cut_mesh(GetParam());
  for (std::size_t k = 0; k < m.surface.rows() * m.surface.cols(); ++k)
    if (m.surface.data()[k] != absent) m.surface.data()[k] -= kc * (ny + 1) * (nx + 1);
  dense2D<double> coords = deep(m.coords);
  dense2D<unsigned> connect = deep(m.connect);
  const unsigned nb_nodes = (nx + 1) * (ny + 1), first = unsigned(m.coords.cols());
  ASSERT_EQ(call(m, coords, connect, {}, true, true), int(2 * nb_nodes));
  const std::set<unsigned> used(connect.data(), connect.data() + connect.rows() * connect.cols());
  for (unsigned n = 0; n < nb_nodes; ++n) EXPECT_FALSE(used.count(n)) << n;
  for (unsigned n = first; n < first + 2 * nb_nodes; ++n) EXPECT_EQ(used.count(n), n < first + nb_nodes ? 1u : 0u);
}

TEST_P(duplicate_surface, bad_node_element_entry_changes_nothing) {
  const mesh m = make_cut_mesh(GetParam());
  // A node of the last surface face, so that copies were made before it fails.
  const unsigned n =
      m.surface(m.surface.rows() == 3 || m.surface(3, m.surface.cols() - 1) == absent ? 2 : 3, m.surface.cols() - 1);
  std::size_t far = 0;  // an element that does not hold n
  while (std::count(&m.connect(0, far), &m.connect(0, far) + m.connect.rows(), n)) ++far;
  for (unsigned bad : {unsigned(far), unsigned(m.connect.cols()), absent})
    for (int sides = 1; sides <= 3; ++sides) {
      dense1D<unsigned, 8> node_element = deep(m.node_element);
      node_element[n] = bad;
      dense2D<double> coords = deep(m.coords);
      dense2D<unsigned> connect = deep(m.connect);
      EXPECT_EQ(duplicate_surface_nodes(coords, connect, m.neighbors, node_element, m.surface, {}, sides & 1, sides & 2,
                                        m.type),
                0);
      EXPECT_TRUE(same(coords, m.coords) && same(connect, m.connect));
    }
}

INSTANTIATE_TEST_SUITE_P(duplicate_surface_nodes, duplicate_surface, ::testing::ValuesIn(cases),
                         [](const auto& row) { return std::string(row.param.name); });

TEST(duplicate_surface_nodes, numbering_on_two_tetrahedra) {
  // Two TH4 on either side of the triangle 0-1-2 (z = 0): node 3 above, node 4 below.
  // The face normal (+z) points to the upper element.
  dense2D<double> coords(3, 5, {0, 0, 0, 1, 0, 0, 0, 1, 0, 0, 0, 1, 0, 0, -1});
  dense2D<unsigned> connect(4, 2, {1, 0, 2, 3, 0, 1, 2, 4}), neighbors;
  dense1D<unsigned, 8> node_element;
  ASSERT_EQ(zel::tessel::get_neighbors(connect, zel::TH4, neighbors), 0);
  ASSERT_EQ(zel::tessel::get_node_element(connect, 5, node_element), 0);
  ASSERT_EQ(duplicate_surface_nodes(coords, connect, neighbors, node_element, dense2D<unsigned>(3, 1, {0, 1, 2}), {},
                                    true, true, zel::TH4),
            6);
  // Positive copies 5, 6, 7 of nodes 0, 1, 2; negative copies 8, 9, 10 of nodes 2, 1, 0.
  EXPECT_TRUE(same(connect, dense2D<unsigned>(4, 2, {6, 5, 7, 3, 10, 9, 8, 4})));
  EXPECT_TRUE(same(coords.sub_matrix(0, 5, 3, 6), dense2D<double>(3, 6,
                                                                  {0, 0, 0, 1, 0, 0, 0, 1, 0,  //
                                                                   0, 1, 0, 1, 0, 0, 0, 0, 0})));
}

// On a TH4, an H8 and a mixed mesh (each type reads its surface in its own way).
TEST(duplicate_surface_nodes, status_codes_in_order) {
  for (const cut_case& c : {cases[0], cases[1], cases[2]}) {
    SCOPED_TRACE(c.name);
    static mesh cut;
    cut = make_cut_mesh(c);
    struct args {
      mesh m = cut;
      dense2D<double> coords = deep(cut.coords);
      dense2D<unsigned> connect = deep(cut.connect);
      bool pos = true, neg = true;
    };
    using fault = bad_argument<args>;
    const auto with = [](const dense2D<unsigned>& m, std::size_t i, std::size_t j, unsigned value) {
      dense2D<unsigned> d = deep(m);
      d(i, j) = value;
      return d;
    };
    const auto nodes = unsigned(cut.coords.cols()), elements = unsigned(cut.connect.cols());
    const std::vector<fault> chain = {
        {"connectivity (empty)", [](args& a) { a.connect = dense2D<unsigned>(4, 0); }, 0},
        {"surface (empty)", [](args& a) { a.m.surface = dense2D<unsigned>(); }, 0},
        {"no side", [](args& a) { a.pos = a.neg = false; }, 0},
        {"coords rows", [](args& a) { a.coords = dense2D<double>(2, a.coords.cols()); }, -1},
        {"connectivity ID", [&](args& a) { a.connect = with(a.connect, 1, 3, nodes); }, -2},
        {"neighbor", [&](args& a) { a.m.neighbors = with(a.m.neighbors, 0, 0, elements); }, -3},
        {"node_element size", [](args& a) { a.m.node_element = dense1D<unsigned, 8>(a.coords.cols() / 2, 0u); }, -4},
        {"surface ID", [&](args& a) { a.m.surface = with(a.m.surface, 2, 0, nodes); }, -5}};
    std::vector<fault> alone = {
        {"connectivity of 7 rows", [](args& a) { a.connect = dense2D<unsigned>(7, a.connect.cols(), 0u); }, -2},
        {"neighbors columns", [](args& a) { a.m.neighbors = a.m.neighbors.sub_matrix(0, 0, a.m.neighbors.rows(), 5); },
         -3},
        {"neighbors rows", [](args& a) { a.m.neighbors = a.m.neighbors.sub_matrix(0, 0, 3, a.m.neighbors.cols()); },
         -3},
        {"surface of 5 rows", [](args& a) { a.m.surface = dense2D<unsigned>(5, a.m.surface.cols(), 0u); }, -5}};
    if (c.type == zel::TH4) alone.push_back({"type TH10", [](args& a) { a.m.type = zel::TH10; }, -9});
    const auto call = [](args& a) {
      return duplicate_surface_nodes(a.coords, a.connect, a.m.neighbors, a.m.node_element, a.m.surface, {}, a.pos,
                                     a.neg, a.m.type);
    };
    const auto untouched = [](const args& a) { return bytes_of(a.coords, a.connect); };
    expect_checks_in_order<args>(chain, call, untouched);
    for (const fault& f : alone) expect_checks_in_order<args>({f}, call, untouched);
  }
}
