// Point location and interpolation: the element test, the walk, the elements around a
// node, the octree of nodes, the 3 x 3 solver, get_element_containing_point,
// interpolate and interpolate_metrics (with the two-metric mix).
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <map>
#include <set>
#include <vector>

#include "box_mesh.h"
#include "common/element_tables.h"
#include "failing_allocator.h"
#include "locate/elements_around_node.h"
#include "locate/metric_mix.h"
#include "locate/node_octree.h"
#include "locate/solve3.h"
#include "locate/visibility_walk.h"
#include "zel/tessel3d.h"

using namespace tessel3d_test;
using zel::dense1D;
using zel::dense2D;
using point3 = zel::vector_fixed<double, 3>;

namespace {

// ---- independent references ------------------------------------------------------------

// Face adjacency by sorted face nodes, with the face lists of the element tables;
// kind < 0 reads the kind of each column of the 8-row mixed layout.
dense2D<unsigned> neighbors_of(const dense2D<unsigned>& connect, unsigned rows, int kind = elfes::kind_TH4) {
  dense2D<unsigned> neighbors(rows, connect.cols(), ~0U);
  std::map<std::vector<unsigned>, std::pair<unsigned, unsigned>> open;
  for (unsigned e = 0; e < connect.cols(); ++e) {
    const unsigned* column = &connect(0, e);
    const auto& solid = elfes::solid_table[kind < 0 ? int(elfes::mixed8_kind(column)) : kind];
    for (unsigned f = 0; f < solid.nb_faces; ++f) {
      std::vector<unsigned> key;
      for (unsigned k = 0; k < solid.face_size[f]; ++k) key.push_back(column[solid.faces[f][k]]);
      std::sort(key.begin(), key.end());
      auto found = open.find(key);
      if (found == open.end()) {
        open[key] = {e, f};
      } else {
        neighbors(f, e) = found->second.first;
        neighbors(found->second.second, found->second.first) = e;
        open.erase(found);
      }
    }
  }
  return neighbors;
}

dense1D<unsigned, 8> node_element_of(const dense2D<unsigned>& connect, std::size_t nb_nodes) {
  dense1D<unsigned, 8> node_element(nb_nodes, ~0U);
  for (unsigned e = connect.cols(); e-- > 0;)
    for (unsigned k = 0; k < connect.rows(); ++k)
      if (connect(k, e) != ~0U) node_element[connect(k, e)] = e;
  return node_element;
}

long double volume6(const double* a, const double* b, const double* c, const double* d) {
  long double u[3], v[3], w[3];
  for (int i = 0; i < 3; ++i) u[i] = a[i] - (long double)d[i], v[i] = b[i] - (long double)d[i], w[i] = c[i] - (long double)d[i];
  return u[0] * (v[1] * w[2] - v[2] * w[1]) - u[1] * (v[0] * w[2] - v[2] * w[0]) + u[2] * (v[0] * w[1] - v[1] * w[0]);
}

// Barycentric coordinates of p in element e by replacing one node with p at a time.
std::array<double, 4> barycentric(const dense2D<double>& coords, const dense2D<unsigned>& connect, unsigned e,
                                  const double* p) {
  const double* x[4];
  for (int k = 0; k < 4; ++k) x[k] = &coords(0, connect(k, e));
  const long double whole = volume6(x[0], x[1], x[2], x[3]);
  std::array<double, 4> lambda;
  for (int k = 0; k < 4; ++k) {
    const double* y[4] = {x[0], x[1], x[2], x[3]};
    y[k] = p;
    lambda[k] = double(volume6(y[0], y[1], y[2], y[3]) / whole);
  }
  return lambda;
}

double distance2(const double* a, const double* b) {
  return (a[0] - b[0]) * (a[0] - b[0]) + (a[1] - b[1]) * (a[1] - b[1]) + (a[2] - b[2]) * (a[2] - b[2]);
}

// A jittered TH4 box over [0, 1]^3 with its adjacency.
struct th4_box {
  box_mesh mesh;
  dense2D<unsigned> neighbors;
  dense1D<unsigned, 8> node_element;
  explicit th4_box(unsigned n, double jitter = 0.2, std::uint64_t seed = 7)
      : mesh(make_box(box_kind::TH4, n, n, n, 1, 1, 1, jitter, seed)),
        neighbors(neighbors_of(mesh.connect, 4)),
        node_element(node_element_of(mesh.connect, mesh.coords.cols())) {}
};

// ---- the element test -------------------------------------------------------------------

// A positive unit TH4 (6V = 1): the unit tetrahedron with nodes 0 and 2 exchanged.
const double unit_nodes[4][3] = {{0, 1, 0}, {1, 0, 0}, {0, 0, 0}, {0, 0, 1}};

int exit_face(const double (&nodes)[4][3], const double* p, double tolerance, unsigned first) {
  const double* const node[4] = {nodes[0], nodes[1], nodes[2], nodes[3]};
  return elfes::TH4_exit_face(node, p, tolerance, first);
}

TEST(TH4_exit_face, inside_boundary_and_tolerance) {
  const double centroid[3] = {0.25, 0.25, 0.25}, vertex[3] = {1, 0, 0}, on_face[3] = {0.3, 0.3, 0};
  const double just_out[3] = {0.3, 0.3, -1e-4};  // barycentric -1e-4 for node 3
  for (unsigned s = 0; s < 4; ++s) {
    EXPECT_EQ(exit_face(unit_nodes, centroid, 0, s), -1);
    EXPECT_EQ(exit_face(unit_nodes, vertex, 0, s), -1);
    EXPECT_EQ(exit_face(unit_nodes, on_face, 0, s), -1);
    EXPECT_EQ(exit_face(unit_nodes, on_face, -1e-3, s), 3);  // a negative tolerance rejects faces
    EXPECT_EQ(exit_face(unit_nodes, just_out, 0, s), 3);
    EXPECT_EQ(exit_face(unit_nodes, just_out, 2e-4, s), -1);
  }
}

TEST(TH4_exit_face, first_face_drawn_decides_among_several) {
  // Barycentric coordinates (y, x, 1 - x - y - z, z): outside the faces opposite nodes 1
  // and 3 only.
  const double p[3] = {-0.5, 0.7, -0.1};
  const std::set<int> outside = {1, 3};
  for (unsigned s = 0; s < 4; ++s) {
    int expected = -1;
    for (unsigned k = 1; k <= 4 && expected < 0; ++k)
      if (outside.count(int((s + k) % 4))) expected = int((s + k) % 4);
    EXPECT_EQ(exit_face(unit_nodes, p, 0, s), expected) << "first face " << s;
  }
}

TEST(TH4_exit_face, invalid_elements) {
  const double p[3] = {0.25, 0.25, 0.25};
  const double inverted[4][3] = {{1, 0, 0}, {0, 1, 0}, {0, 0, 0}, {0, 0, 1}};
  const double flat[4][3] = {{0, 1, 0}, {1, 0, 0}, {0, 0, 0}, {1, 1, 0}};
  const double infinite[4][3] = {{0, 1, 0}, {INFINITY, 0, 0}, {0, 0, 0}, {0, 0, 1}};
  const double not_a_number[4][3] = {{0, 1, 0}, {NAN, 0, 0}, {0, 0, 0}, {0, 0, 1}};
  for (const auto* nodes : {&inverted, &flat, &infinite, &not_a_number}) EXPECT_EQ(exit_face(*nodes, p, 0, 0), -2);
}

// ---- the 3 x 3 solver --------------------------------------------------------------------

TEST(solve3, known_systems) {
  const double a[9] = {4, 1, 0, 1, 3, 1, 0, 1, 2};  // column major, symmetric, det 18
  const double x_true[3] = {1, -2, 3};
  double b[3], x[3];
  for (int i = 0; i < 3; ++i) b[i] = a[i] * x_true[0] + a[i + 3] * x_true[1] + a[i + 6] * x_true[2];
  EXPECT_NEAR(elfes::solve3(a, b, x, 2), 18.0, 1e-14);
  for (int i = 0; i < 3; ++i) EXPECT_NEAR(x[i], x_true[i], 1e-14);

  const double permutation[9] = {0, 1, 0, 0, 0, 1, 1, 0, 0};  // a 3-cycle: det 1
  double inv[9];
  EXPECT_DOUBLE_EQ(elfes::inverse3(permutation, inv), 1.0);
  for (int i = 0; i < 3; ++i)
    for (int j = 0; j < 3; ++j) EXPECT_EQ(inv[i + 3 * j], permutation[j + 3 * i]);  // inverse = transpose

  const double singular[9] = {1, 2, 3, 2, 4, 6, 0, 1, 1};  // column 1 = 2 x column 0
  const double rhs[3] = {1, 1, 1};
  EXPECT_EQ(elfes::solve3(singular, rhs, x, 2), 0.0);
  for (double xi : x) EXPECT_EQ(xi, 0.0);
}

TEST(solve3, refinement_on_an_ill_conditioned_system) {
  const double hilbert[9] = {1, 1. / 2, 1. / 3, 1. / 2, 1. / 3, 1. / 4, 1. / 3, 1. / 4, 1. / 5};
  const double b[3] = {11. / 6, 13. / 12, 47. / 60};  // x = (1, 1, 1)
  double x[3];
  elfes::solve3(hilbert, b, x, 2);
  for (double xi : x) EXPECT_NEAR(xi, 1.0, 1e-12);
}

// ---- the walk and the elements around a node ----------------------------------------------

TEST(visibility_walk, reaches_the_element_holding_the_point) {
  th4_box box(6);
  random_stream random(11);
  for (int trial = 0; trial < 200; ++trial) {
    const double p[3] = {random.uniform(), random.uniform(), random.uniform()};
    unsigned element = unsigned(random.next() % box.mesh.connect.cols());
    const unsigned seed = element;
    std::size_t steps = 0;
    ASSERT_EQ(elfes::visibility_walk(box.mesh.coords, box.mesh.connect, box.neighbors, p, element, 1e-9, steps), 1);
    for (double l : barycentric(box.mesh.coords, box.mesh.connect, element, p)) EXPECT_GE(l, -1e-9);
    unsigned again = seed;  // same seed and point: same path, same answer
    elfes::visibility_walk(box.mesh.coords, box.mesh.connect, box.neighbors, p, again, 1e-9, steps);
    EXPECT_EQ(again, element);
  }
  const double outside[3] = {1.5, 0.5, 0.5};
  unsigned element = 0;
  std::size_t steps = 0;
  EXPECT_EQ(elfes::visibility_walk(box.mesh.coords, box.mesh.connect, box.neighbors, outside, element, 0, steps), 0);
  EXPECT_EQ(element, ~0U);
  EXPECT_LE(steps, box.mesh.connect.cols());
}

TEST(visibility_walk, invalid_element_and_step_limit) {
  // Two elements sharing face 3 of element 0; element 1 is inverted.
  dense2D<double> coords(3, 5, {0, 1, 0, 1, 0, 0, 0, 0, 0, 0, 0, 1, 0, 0, -1});
  dense2D<unsigned> connect(4, 2, {0, 1, 2, 3, 0, 1, 2, 4});
  dense2D<unsigned> neighbors = neighbors_of(connect, 4);
  const double below[3] = {0.2, 0.2, -0.5};
  std::size_t steps = 0;
  unsigned element = 0;  // the second element is reached exactly at the step limit
  EXPECT_EQ(elfes::visibility_walk(coords, connect, neighbors, below, element, 0, steps), -2);
  EXPECT_EQ(element, ~0U);
  // With a third, unrelated element the limit is not reached: an ordinary failure.
  dense2D<unsigned> three(4, 3, {0, 1, 2, 3, 0, 1, 2, 4, 0, 1, 2, 3});
  dense2D<unsigned> neighbors3(4, 3, ~0U);
  neighbors3(3, 0) = 1, neighbors3(3, 1) = 0;
  element = 0;
  EXPECT_EQ(elfes::visibility_walk(coords, three, neighbors3, below, element, 0, steps), -1);
  EXPECT_EQ(element, ~0U);
}

// Every element holding node n, by brute force.
std::set<unsigned> holding(const dense2D<unsigned>& connect, unsigned n) {
  std::set<unsigned> result;
  for (unsigned e = 0; e < connect.cols(); ++e)
    for (unsigned k = 0; k < connect.rows(); ++k)
      if (connect(k, e) == n) result.insert(e);
  return result;
}

template <class Predicate>
void expect_around_node(const dense2D<unsigned>& connect, const dense2D<unsigned>& neighbors, Predicate faces,
                        unsigned n, std::size_t expected_count) {
  const std::set<unsigned> expected = holding(connect, n);
  ASSERT_EQ(expected.size(), expected_count);
  dense1D<unsigned, 8> list;
  elfes::element_set visited;
  ASSERT_EQ(elfes::elements_around_node(n, *expected.rbegin(), connect, neighbors, faces, list, visited), 0);
  std::vector<unsigned> got(list.begin(), list.end());
  EXPECT_EQ(got.front(), *expected.rbegin());
  EXPECT_EQ(std::set<unsigned>(got.begin(), got.end()), expected);
  EXPECT_EQ(got.size(), expected.size());  // each element once
  // Depth first: each element after the first is a neighbour of one listed before it.
  for (std::size_t k = 1; k < got.size(); ++k) {
    bool linked = false;
    for (std::size_t j = 0; j < k && !linked; ++j)
      for (unsigned f = 0; f < neighbors.rows(); ++f) linked |= neighbors(f, got[j]) == got[k];
    EXPECT_TRUE(linked);
  }
}

TEST(elements_around_node, every_element_holding_the_node) {
  th4_box box(3, 0.0);
  const unsigned centre = 1 + 4 * 1 + 16 * 1, corner = 0, on_edge = 1;
  // Six TH4 per cell around its diagonal from corner 0 to 6, which hold corners 0 and 6
  // in all six and the other corners in two: 8 x 3 for an inner node, 6 + 2 for node 1.
  expect_around_node(box.mesh.connect, box.neighbors, elfes::th4_faces_with_node(), centre, 24);
  expect_around_node(box.mesh.connect, box.neighbors, elfes::th4_faces_with_node(), corner, 6);
  expect_around_node(box.mesh.connect, box.neighbors, elfes::th4_faces_with_node(), on_edge, 8);

  box_mesh hexes = make_box(box_kind::H8, 3, 3, 3);
  expect_around_node(hexes.connect, neighbors_of(hexes.connect, 6, elfes::kind_H8),
                     elfes::pure_faces_with_node{elfes::kind_H8}, centre, 8);
  dense2D<unsigned> mixed = to_mixed8(hexes.connect);
  expect_around_node(mixed, neighbors_of(mixed, 6, -1), elfes::mixed8_faces_with_node(), centre, 8);
}

TEST(elements_around_node, empty_seed_degenerate_element_and_memory) {
  th4_box box(2);
  dense1D<unsigned, 8> list(3, 7u);
  elfes::element_set visited;
  EXPECT_EQ(elfes::elements_around_node(5, ~0U, box.mesh.connect, box.neighbors, list, visited), 0);
  EXPECT_TRUE(list.empty());
  // An H8 seed that does not hold the node has no face containing it.
  box_mesh hexes = make_box(box_kind::H8, 2, 2, 2);
  EXPECT_EQ(elfes::elements_around_node(26, 0, hexes.connect, neighbors_of(hexes.connect, 6, elfes::kind_H8),
                                        elfes::pure_faces_with_node{elfes::kind_H8}, list, visited),
            1);
  EXPECT_TRUE(list.empty());
  const unsigned inner = 1 + 3 + 9;
  int status = -199;
  long fail_at = 1;
  for (; status == -199 && fail_at < 50; ++fail_at) {
    failing_allocator guard(fail_at);
    dense1D<unsigned, 8> fresh_list;
    elfes::element_set fresh_set;
    status = elfes::elements_around_node(inner, box.node_element[inner], box.mesh.connect, box.neighbors,
                                         fresh_list, fresh_set);
    if (status == -199) {
      EXPECT_TRUE(guard.failed());
    }
  }
  EXPECT_EQ(status, 0);
  EXPECT_GT(fail_at, 3);  // the list, the stack and the set each failed once
}

// ---- the octree of nodes -------------------------------------------------------------------

TEST(node_octree, nearest_against_brute_force) {
  th4_box box(5, 0.2, 3);
  // Unused nodes appended to coords must never be found; 20 coincident nodes force the
  // tree past its last bit.
  dense2D<double> coords = box.mesh.coords;
  const std::size_t used = coords.cols();
  ASSERT_TRUE(coords.resize(3, used + 21, 0.5));
  dense2D<unsigned> connect = box.mesh.connect;
  const std::size_t elements = connect.cols();
  ASSERT_TRUE(connect.resize(4, elements + 5));
  for (unsigned e = 0; e < 5; ++e)
    for (unsigned k = 0; k < 4; ++k) connect(k, elements + e) = unsigned(used + 1 + 4 * e + k);
  elfes::node_octree tree;
  ASSERT_EQ(tree.build(coords, connect), 0);
  random_stream random(5);
  for (int trial = 0; trial < 500; ++trial) {
    const double spread = trial < 400 ? 1.0 : 4.0;
    const point3 p(random.uniform(-0.1, spread), random.uniform(-0.1, spread), random.uniform(-0.1, 1.1));
    double best = INFINITY;
    for (std::size_t n = 0; n < coords.cols(); ++n)
      if (n != used) best = std::min(best, distance2(&coords(0, n), p.data()));
    const unsigned closest = tree.find_closest(p);
    ASSERT_NE(closest, ~0U);
    EXPECT_NE(closest, unsigned(used));
    EXPECT_EQ(distance2(&coords(0, closest), p.data()), best);
    const unsigned close = tree.find_close(p);
    if (std::min({p[0], p[1], p[2]}) >= 0 && std::max({p[0], p[1], p[2]}) <= 1) {
      EXPECT_TRUE(close < coords.cols() && close != used);
    } else {
      EXPECT_EQ(close, ~0U);  // outside the cube of the tree
    }
  }
  // A point on a node finds that node.
  for (unsigned n = 0; n < used; n += 17) EXPECT_EQ(tree.find_close(point3(coords(0, n), coords(1, n), coords(2, n))), n);
}

TEST(node_octree, empty_mesh) {
  elfes::node_octree tree;
  ASSERT_EQ(tree.build(dense2D<double>(3, 4, 0.0), dense2D<unsigned>(4, 0)), 0);
  EXPECT_EQ(tree.find_close(point3(0, 0, 0)), ~0U);
  EXPECT_EQ(tree.find_closest(point3(0, 0, 0)), ~0U);
}

}  // namespace
