// Point location and interpolation: the element test, the walk, the elements around a
// node, the octree of nodes, the 3 x 3 solver, get_element_containing_point,
// interpolate and interpolate_metrics (with the two-metric mix).
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cmath>
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

// The adjacency helpers of the base mesh library, as callers use them.
dense2D<unsigned> neighbors_of(const dense2D<unsigned>& connect, zel::element_type type = zel::TH4) {
  dense2D<unsigned> neighbors;
  EXPECT_EQ(zel::tessel::get_neighbors(connect, type, neighbors), 0);
  return neighbors;
}

dense1D<unsigned, 8> node_element_of(const dense2D<unsigned>& connect, std::size_t nb_nodes) {
  dense1D<unsigned, 8> node_element;
  EXPECT_EQ(zel::tessel::get_node_element(connect, unsigned(nb_nodes), node_element), 0);
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
        neighbors(neighbors_of(mesh.connect)),
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
  dense2D<unsigned> neighbors = neighbors_of(connect);
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
  expect_around_node(hexes.connect, neighbors_of(hexes.connect, zel::H8),
                     elfes::pure_faces_with_node{elfes::kind_H8}, centre, 8);
  dense2D<unsigned> mixed = to_mixed8(hexes.connect);
  expect_around_node(mixed, neighbors_of(mixed, zel::SOLID_MIX8), elfes::mixed8_faces_with_node(), centre, 8);
}

TEST(elements_around_node, empty_seed_degenerate_element_and_memory) {
  th4_box box(2);
  dense1D<unsigned, 8> list(3, 7u);
  elfes::element_set visited;
  EXPECT_EQ(elfes::elements_around_node(5, ~0U, box.mesh.connect, box.neighbors, list, visited), 0);
  EXPECT_TRUE(list.empty());
  // An H8 seed that does not hold the node has no face containing it.
  box_mesh hexes = make_box(box_kind::H8, 2, 2, 2);
  EXPECT_EQ(elfes::elements_around_node(26, 0, hexes.connect, neighbors_of(hexes.connect, zel::H8),
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

// ---- get_element_containing_point --------------------------------------------------------

struct located {
  int status;
  unsigned element;
};

located locate(const th4_box& box, const point3& p, double tolerance = 1e-9) {
  const zel::tessel::node_detector detector(box.mesh.coords);
  located r{0, 12345u};
  r.status = zel::tessel3d::get_element_containing_point(box.mesh.coords, box.mesh.connect, box.neighbors,
                                                         box.node_element, detector, zel::TH4, p, r.element,
                                                         tolerance);
  return r;
}

TEST(get_element_containing_point, random_points_inside_and_outside) {
  th4_box box(8);
  const zel::tessel::node_detector detector(box.mesh.coords);
  // Views with a leading dimension larger than their rows must give the same answers.
  const auto coords = padded_view(box.mesh.coords, 2, 1e300);
  const auto connect = padded_view(box.mesh.connect, 3, 0u);
  const auto neighbors = padded_view(box.neighbors, 1, 0u);
  random_stream random(21);
  for (int trial = 0; trial < 400; ++trial) {
    const bool inside = trial < 300;
    const point3 p = inside ? point3(random.uniform(), random.uniform(), random.uniform())
                            : point3(random.uniform(1.01, 2), random.uniform(-1, 2), random.uniform(-1, 2));
    const located r = locate(box, p);
    ASSERT_EQ(r.status, inside ? 1 : 0);
    if (!inside) {
      EXPECT_EQ(r.element, ~0U);
      continue;
    }
    for (double l : barycentric(box.mesh.coords, box.mesh.connect, r.element, p.data())) EXPECT_GE(l, -1e-9);
    unsigned element = 0;
    EXPECT_EQ(zel::tessel3d::get_element_containing_point(coords, connect, neighbors, box.node_element, detector,
                                                          zel::TH4, p, element, 1e-9),
              1);
    EXPECT_EQ(element, r.element);           // same query, same walk, same element
    EXPECT_EQ(locate(box, p).element, r.element);
  }
}

TEST(get_element_containing_point, nodes_faces_and_the_tolerance_band) {
  th4_box box(4);
  for (unsigned n = 0; n < box.mesh.coords.cols(); n += 7) {  // points on nodes
    const point3 p(box.mesh.coords(0, n), box.mesh.coords(1, n), box.mesh.coords(2, n));
    const located r = locate(box, p, 0);
    ASSERT_EQ(r.status, 1);
    for (double l : barycentric(box.mesh.coords, box.mesh.connect, r.element, p.data())) EXPECT_GE(l, -1e-12);
  }
  // Just outside the flat face x = 1: found within a tolerance of its element's scale.
  const point3 beyond(1 + 1e-4, 0.4, 0.6);
  EXPECT_EQ(locate(box, beyond, 0).status, 0);
  const located near = locate(box, beyond, 1e-2);
  ASSERT_EQ(near.status, 1);
  const auto lambda = barycentric(box.mesh.coords, box.mesh.connect, near.element, beyond.data());
  EXPECT_LT(*std::min_element(lambda.begin(), lambda.end()), 0.0);
  EXPECT_GE(*std::min_element(lambda.begin(), lambda.end()), -1e-2);
}

TEST(get_element_containing_point, inverted_element_on_the_way) {
  th4_box box(4);
  // Exchanging two nodes inverts an element; its adjacency is rebuilt to match.
  const unsigned bad = 100;
  std::swap(box.mesh.connect(0, bad), box.mesh.connect(2, bad));
  box.neighbors = neighbors_of(box.mesh.connect);
  double centre[3] = {0, 0, 0};
  for (int k = 0; k < 4; ++k)
    for (int d = 0; d < 3; ++d) centre[d] += box.mesh.coords(d, box.mesh.connect(k, bad)) / 4;
  const located r = locate(box, point3(centre[0], centre[1], centre[2]));
  EXPECT_EQ(r.status, -1);
  EXPECT_EQ(r.element, ~0U);
}

TEST(get_element_containing_point, status_codes_in_order) {
  th4_box box(2);
  const zel::tessel::node_detector detector(box.mesh.coords);
  const point3 p(0.5, 0.5, 0.5);
  dense2D<double> coords2(2, box.mesh.coords.cols());
  dense2D<unsigned> bad_ids = box.mesh.connect.sub_matrix(0, 0, 4, 4);
  bad_ids.copy(bad_ids);
  bad_ids(1, 2) = unsigned(box.mesh.coords.cols());
  dense2D<unsigned> bad_neighbor;
  bad_neighbor.copy(box.neighbors);
  bad_neighbor(0, 0) = unsigned(box.mesh.connect.cols());
  const dense1D<unsigned, 8> short_node_element(box.mesh.coords.cols() - 1, 0u);
  // Six rows of nodes and of neighbours fit type H8 (22) in the checks, and are not searched.
  box_mesh wedges = make_box(box_kind::W6, 2, 2, 2);
  const dense2D<unsigned> six_rows(6, wedges.connect.cols(), ~0U);
  const auto wedge_node_element = node_element_of(wedges.connect, wedges.coords.cols());
  const dense2D<unsigned> empty4(4, 0);
  const dense1D<unsigned, 8> no_element(box.mesh.coords.cols(), ~0U);
  struct row {
    const dense2D<double>* coords;
    const dense2D<unsigned>* connect;
    const dense2D<unsigned>* neighbors;
    const dense1D<unsigned, 8>* node_element;
    zel::element_type type;
    int expected;
  };
  const auto& c = box.mesh.coords;
  const auto& t = box.mesh.connect;
  const auto& nb = box.neighbors;
  const auto& ne = box.node_element;
  const dense2D<unsigned> nb_cols = nb.sub_matrix(0, 0, 4, nb.cols() - 1);
  const row rows[] = {
      {&coords2, &t, &nb, &ne, zel::TH4, -1},
      {&c, &bad_ids, &nb, &ne, zel::TH4, -2},
      {&c, &t, &nb_cols, &ne, zel::TH4, -3},            // one column short
      {&c, &t, &nb, &ne, zel::H8, -3},                  // H8 needs 6 rows of neighbours
      {&c, &t, &bad_neighbor, &ne, zel::TH4, -3},       // not an element index
      {&c, &t, &nb, &short_node_element, zel::TH4, -4},
      {&wedges.coords, &wedges.connect, &six_rows, &wedge_node_element, zel::H8, 0},
      {&c, &empty4, &empty4, &no_element, zel::TH4, 0},   // no element
      {&c, &t, &nb, &ne, zel::TH4, 1},
  };
  for (const row& r : rows) {
    unsigned element = 77;
    const zel::tessel::node_detector other_detector(*r.coords);
    EXPECT_EQ(zel::tessel3d::get_element_containing_point(*r.coords, *r.connect, *r.neighbors, *r.node_element,
                                                          r.coords == &c ? detector : other_detector, r.type, p,
                                                          element, 0),
              r.expected);
    EXPECT_EQ(element == ~0U, r.expected != 1);
  }
}

TEST(get_element_containing_point, memory_for_the_second_chance) {
  th4_box box(3);
  const zel::tessel::node_detector detector(box.mesh.coords);
  failing_allocator guard(1);
  unsigned element = 0;
  EXPECT_EQ(zel::tessel3d::get_element_containing_point(box.mesh.coords, box.mesh.connect, box.neighbors,
                                                        box.node_element, detector, zel::TH4, point3(3, 3, 3),
                                                        element, 0),
            -199);
  EXPECT_EQ(element, ~0U);
}

// ---- interpolate -------------------------------------------------------------------------

// A mesh over [0, 1]^3 followed by free nodes (node_element ~0U): `inside` random ones,
// then `outside` ones around the box.
struct free_nodes {
  th4_box box;
  dense2D<double> coords;
  dense1D<unsigned, 8> node_element, nodes;
  std::size_t mesh_nodes;
  free_nodes(unsigned n, unsigned inside, unsigned outside) : box(n) {
    mesh_nodes = box.mesh.coords.cols();
    coords.copy(box.mesh.coords);
    coords.resize(3, mesh_nodes + inside + outside);
    random_stream random(99);
    for (unsigned k = 0; k < inside + outside; ++k)
      for (int d = 0; d < 3; ++d)
        coords(d, mesh_nodes + k) = k < inside ? random.uniform() : random.uniform(-0.5, 1.5) + (d == 0 ? 2 : 0);
    node_element.copy(box.node_element);
    node_element.resize(coords.cols(), ~0U);
    for (unsigned k = 0; k < coords.cols(); k += 3) nodes.push_back(k);  // mesh and free nodes
  }
  unsigned nearest_mesh_node(unsigned n) const {
    unsigned best = 0;
    for (unsigned m = 1; m < mesh_nodes; ++m)
      if (distance2(&coords(0, m), &coords(0, n)) < distance2(&coords(0, best), &coords(0, n))) best = m;
    return best;
  }
  bool is_inside(unsigned n) const { return n >= mesh_nodes && coords(0, n) < 1.5; }
};

double linear(const double* x, int c) { return 1.5 + (c + 1) * x[0] - 2 * x[1] + (0.5 - c) * x[2]; }

TEST(interpolate, linear_field_and_nearest_copies) {
  free_nodes f(6, 200, 40);
  dense2D<double> field(3, f.coords.cols(), -7.0);
  dense1D<double, 8> scalar(f.coords.cols(), -7.0);
  for (unsigned n = 0; n < f.mesh_nodes; ++n) {
    for (int c = 0; c < 3; ++c) field(c, n) = linear(&f.coords(0, n), c);
    scalar[n] = linear(&f.coords(0, n), 1);
  }
  dense2D<double> before;
  before.copy(field);
  const auto padded = padded_view(field, 2, 0.0);  // a view with ld > rows
  ASSERT_EQ(zel::tessel3d::interpolate(f.coords, f.box.mesh.connect, f.box.neighbors, f.node_element, field, f.nodes), 0);
  ASSERT_EQ(zel::tessel3d::interpolate(f.coords, f.box.mesh.connect, f.box.neighbors, f.node_element, scalar, f.nodes), 0);
  dense2D<double> view = padded;
  ASSERT_EQ(zel::tessel3d::interpolate(padded_view(f.coords, 1, 1e300), padded_view(f.box.mesh.connect, 2, 0u),
                                       padded_view(f.box.neighbors, 1, 0u), f.node_element, view, f.nodes),
            0);
  std::set<unsigned> listed(f.nodes.begin(), f.nodes.end());
  for (unsigned n = 0; n < f.coords.cols(); ++n) {
    for (int c = 0; c < 3; ++c) EXPECT_EQ(view(c, n), field(c, n));
    if (n < f.mesh_nodes || !listed.count(n)) {  // never written
      for (int c = 0; c < 3; ++c) EXPECT_EQ(field(c, n), before(c, n));
    } else if (f.is_inside(n)) {
      for (int c = 0; c < 3; ++c) EXPECT_NEAR(field(c, n), linear(&f.coords(0, n), c), 1e-12);
      EXPECT_NEAR(scalar[n], linear(&f.coords(0, n), 1), 1e-12);
    } else {
      const unsigned m = f.nearest_mesh_node(n);
      for (int c = 0; c < 3; ++c) EXPECT_EQ(field(c, n), field(c, m));
      EXPECT_EQ(scalar[n], scalar[m]);
    }
  }
}

TEST(interpolate, status_codes_in_order_and_nothing_written) {
  free_nodes f(2, 5, 0);
  const auto& t = f.box.mesh.connect;
  const auto& nb = f.box.neighbors;
  dense2D<double> field(2, f.coords.cols(), 3.0), short_field(2, f.coords.cols() - 1, 3.0), rows0(0, f.coords.cols());
  dense1D<double, 8> scalar(f.coords.cols(), 3.0), short_scalar(f.coords.cols() + 1, 3.0);
  const dense2D<double> coords2 = f.coords.sub_matrix(0, 0, 2, f.coords.cols());
  const dense2D<unsigned> t5(5, t.cols()), nb3 = nb.sub_matrix(0, 0, 3, nb.cols());
  const dense2D<unsigned> nb_short = nb.sub_matrix(0, 0, 4, nb.cols() - 1);
  const dense1D<unsigned, 8> ne_short(f.coords.cols() - 1, ~0U), bad_nodes = {0u, unsigned(f.coords.cols())}, empty;
  auto both = [&](const dense2D<double>& c, const dense2D<unsigned>& conn, const dense2D<unsigned>& n,
                  const dense1D<unsigned, 8>& ne, dense2D<double>& fm, dense1D<double, 8>& fv,
                  const dense1D<unsigned, 8>& nodes, int expected) {
    EXPECT_EQ(zel::tessel3d::interpolate(c, conn, n, ne, fm, nodes), expected);
    EXPECT_EQ(zel::tessel3d::interpolate(c, conn, n, ne, fv, nodes), expected);
  };
  both(coords2, t5, nb3, ne_short, short_field, short_scalar, empty, 0);  // nothing else is checked
  both(coords2, t, nb, f.node_element, field, scalar, f.nodes, -1);
  both(f.coords, t5, nb, f.node_element, field, scalar, f.nodes, -2);
  dense2D<unsigned> bad_id, bad_neighbor;  // IDs the walk would index with
  ASSERT_TRUE(bad_id.copy(t) && bad_neighbor.copy(nb));
  bad_id(2, 1) = unsigned(f.coords.cols());
  bad_neighbor(0, 0) = unsigned(t.cols());
  both(f.coords, bad_id, nb, f.node_element, field, scalar, f.nodes, -2);
  both(f.coords, t, nb3, f.node_element, field, scalar, f.nodes, -3);
  both(f.coords, t, nb_short, f.node_element, field, scalar, f.nodes, -3);
  both(f.coords, t, bad_neighbor, f.node_element, field, scalar, f.nodes, -3);
  both(f.coords, t, nb, ne_short, field, scalar, f.nodes, -4);
  both(f.coords, t, nb, f.node_element, short_field, short_scalar, f.nodes, -5);
  both(f.coords, t, nb, f.node_element, field, scalar, bad_nodes, -6);
  for (unsigned n = 0; n < f.coords.cols(); ++n) EXPECT_EQ(scalar[n], 3.0);
  both(f.coords, dense2D<unsigned>(4, 0), dense2D<unsigned>(4, 0), f.node_element, field, scalar, f.nodes, 0);
  for (unsigned n = 0; n < f.coords.cols(); ++n) EXPECT_TRUE(scalar[n] == 3.0 && field(1, n) == 3.0);
  EXPECT_EQ(zel::tessel3d::interpolate(f.coords, t, nb, f.node_element, rows0, f.nodes), 0);
}

TEST(interpolate, memory_for_the_octree) {
  free_nodes f(3, 10, 0);
  dense1D<double, 8> scalar(f.coords.cols(), 3.0);
  failing_allocator guard(1);
  EXPECT_EQ(zel::tessel3d::interpolate(f.coords, f.box.mesh.connect, f.box.neighbors, f.node_element, scalar,
                                       f.nodes),
            -199);
  for (unsigned n = 0; n < f.coords.cols(); ++n) EXPECT_EQ(scalar[n], 3.0);
}

// ---- mix and interpolate_metrics -----------------------------------------------------------

elfes::metric6 packed(std::initializer_list<double> values) {
  elfes::metric6 m;
  unsigned k = 0;
  for (double v : values) m[k++] = v;
  return m;
}

// Positive definite by the leading minors.
bool positive_definite(const elfes::metric6& m) {
  const double d1 = m[0], d2 = m[0] * m[2] - m[1] * m[1];
  const double d3 = m[0] * (m[2] * m[5] - m[4] * m[4]) - m[1] * (m[1] * m[5] - m[4] * m[3]) +
                    m[3] * (m[1] * m[4] - m[2] * m[3]);
  return d1 > 0 && d2 > 0 && d3 > 0;
}

void expect_metric_near(const elfes::metric6& a, const elfes::metric6& b, double relative) {
  double scale = 0;
  for (unsigned k = 0; k < 6; ++k) scale = std::max(scale, std::fabs(b[k]));
  for (unsigned k = 0; k < 6; ++k) EXPECT_NEAR(a[k], b[k], relative * scale) << "entry " << k;
}

const elfes::metric6 metric_a = packed({4, 1, 3, 0.5, -0.2, 2});
const elfes::metric6 metric_b = packed({1, -0.3, 9, 0.1, 0.4, 0.5});

TEST(mix, ends_and_positive_definiteness) {
  elfes::metric6 m;
  ASSERT_TRUE(elfes::mix(metric_a, metric_b, 0, m));
  expect_metric_near(m, metric_a, 1e-13);
  ASSERT_TRUE(elfes::mix(metric_a, metric_b, 1, m));
  expect_metric_near(m, metric_b, 1e-13);
  for (double t = 0; t <= 1; t += 0.125) {
    ASSERT_TRUE(elfes::mix(metric_a, metric_b, t, m));
    EXPECT_TRUE(positive_definite(m)) << t;
    ASSERT_TRUE(elfes::mix(metric_a, metric_a, t, m));
    expect_metric_near(m, metric_a, 1e-13);
  }
}

TEST(mix, sizes_interpolate_linearly_along_common_axes) {
  // Diagonal metrics share their axes: each size moves linearly from 1/sqrt(a) to 1/sqrt(b).
  const double a[3] = {4, 1, 0.25}, b[3] = {1, 16, 0.25};
  for (double t : {0.25, 0.5, 1.25, -0.5}) {
    elfes::metric6 m;
    ASSERT_TRUE(elfes::mix(packed({a[0], 0, a[1], 0, 0, a[2]}), packed({b[0], 0, b[1], 0, 0, b[2]}), t, m));
    elfes::metric6 expected;
    for (int i = 0; i < 3; ++i) {
      const double h = 1 / std::sqrt(a[i]) + t * (1 / std::sqrt(b[i]) - 1 / std::sqrt(a[i]));
      expected(i, i) = 1 / (h * h);
    }
    expect_metric_near(m, expected, 1e-13);
  }
}

TEST(mix, failures) {
  elfes::metric6 m;
  const elfes::metric6 indefinite = packed({1, 2, 1, 0, 0, 1}), zero;
  EXPECT_FALSE(elfes::mix(indefinite, metric_b, 0.5, m));
  EXPECT_FALSE(elfes::mix(zero, metric_b, 0.5, m));
  EXPECT_FALSE(elfes::mix(metric_a, indefinite, 0.5, m));  // b has a negative diagonal value
  // Extrapolating past a zero size: sizes 1 -> 0.5 reach 0 at t = 2.
  m = metric_a;
  EXPECT_FALSE(elfes::mix(packed({1, 0, 1, 0, 0, 1}), packed({4, 0, 4, 0, 0, 4}), 2.5, m));
  for (unsigned k = 0; k < 6; ++k) EXPECT_EQ(m[k], 0.0);
}

TEST(combine, negligible_weights_leave_nodes_out) {
  const elfes::metric6 bad = packed({-1, 0, 1, 0, 0, 1});
  const elfes::metric6 good[4] = {metric_a, metric_b, packed({2, 0, 2, 0, 0, 2}), packed({1, 0, 5, 0, 0, 3})};
  struct row {
    double lambda[4];
    int bad_node;  // replaced by a non-positive-definite metric
    bool succeeds;
  };
  const row rows[] = {
      {{1, 0, 0, 0}, 1, true},          {{0, 0, 0, 1}, 2, true},           {{0.3, 5e-13, 0.7, 0}, 1, true},
      {{0.3, 1e-9, 0.7, -1e-9}, 1, false}, {{0.5, 0, 0, 0.5}, 2, true},   {{0.5, 0, 0, 0.5}, 3, false},
      {{0.2, 0.3, 0.5, 1e-13}, 3, true}, {{0.2, 0.3, 0.4, 0.1}, 0, false},
  };
  for (const row& r : rows) {
    elfes::metric6 m[4] = {good[0], good[1], good[2], good[3]}, out;
    m[r.bad_node] = bad;
    EXPECT_EQ(elfes::combine_metrics(m, r.lambda, out), r.succeeds);
    double sizes[4] = {1, 2, 3, 4}, h = 0;
    sizes[r.bad_node] = 0;
    EXPECT_EQ(elfes::combine_sizes(sizes, r.lambda, h), r.succeeds);
    if (r.succeeds) {
      double expected = 0;
      for (int i = 0; i < 4; ++i) expected += r.lambda[i] * sizes[i];
      EXPECT_NEAR(h, expected, 1e-12);
    }
  }
  elfes::metric6 out;
  const double lone[4] = {0, 1, 0, 0};
  ASSERT_TRUE(elfes::combine_metrics(good, lone, out));
  for (unsigned k = 0; k < 6; ++k) EXPECT_EQ(out[k], good[1][k]);  // copied, not mixed
}

double size_at(const double* x) { return 0.1 + 0.2 * x[0] + 0.05 * x[1] + 0.3 * x[2]; }

TEST(interpolate_metrics, isotropic_fields_in_both_forms) {
  free_nodes f(5, 100, 20);
  const std::size_t nb = f.coords.cols();
  dense1D<double, 8> sizes(nb, 0.0);
  dense2D<double> tensors(6, nb, 0.0);
  for (unsigned n = 0; n < nb; ++n) {
    const double h = size_at(&f.coords(0, n));
    if (n < f.mesh_nodes || n % 2) {  // mesh nodes and odd free nodes hold valid values
      sizes[n] = h;
      tensors(0, n) = tensors(2, n) = tensors(5, n) = n < f.mesh_nodes ? 1 / (h * h) : 1.0;
    }
  }
  dense1D<double, 8> sizes_before;
  dense2D<double> tensors_before;
  sizes_before.copy(sizes);
  tensors_before.copy(tensors);
  ASSERT_EQ(zel::tessel3d::interpolate_metrics(f.coords, f.box.mesh.connect, f.box.neighbors, f.node_element, sizes,
                                               true),
            0);
  ASSERT_EQ(zel::tessel3d::interpolate_metrics(f.coords, f.box.mesh.connect, f.box.neighbors, f.node_element,
                                               tensors, true),
            0);
  for (unsigned n = 0; n < nb; ++n) {
    if (n < f.mesh_nodes || n % 2) {  // mesh nodes, and valid metrics kept
      EXPECT_EQ(sizes[n], sizes_before[n]);
      for (int k = 0; k < 6; ++k) EXPECT_EQ(tensors(k, n), tensors_before(k, n));
      continue;
    }
    // Isotropic metrics stay isotropic with linearly interpolated sizes.
    const double h = f.is_inside(n) ? size_at(&f.coords(0, n)) : sizes[f.nearest_mesh_node(n)];
    EXPECT_NEAR(sizes[n], h, 1e-13);
    const elfes::metric6 expected = packed({1 / (h * h), 0, 1 / (h * h), 0, 0, 1 / (h * h)});
    elfes::metric6 got;
    for (int k = 0; k < 6; ++k) got[k] = tensors(k, n);
    expect_metric_near(got, expected, 1e-12);
  }
}

TEST(interpolate_metrics, anisotropic_listed_nodes) {
  free_nodes f(3, 30, 10);
  const std::size_t nb = f.coords.cols();
  const unsigned by_corner = unsigned((f.mesh_nodes + 2) / 3 * 3);  // a listed free node
  f.coords(0, by_corner) = 0.05, f.coords(1, by_corner) = 0.03, f.coords(2, by_corner) = 0.02;
  dense2D<double> tensors(6, nb, 0.0);
  for (unsigned n = 0; n < f.mesh_nodes; ++n)
    for (unsigned k = 0; k < 6; ++k) tensors(k, n) = metric_a[k];
  tensors(0, 0) = -1;  // node 0, the corner at the origin, is not positive definite
  const unsigned was_valid = by_corner + 3;  // valid, but replaced without keep_valid
  f.coords(0, was_valid) = f.coords(1, was_valid) = f.coords(2, was_valid) = 0.5;
  tensors(0, was_valid) = tensors(2, was_valid) = tensors(5, was_valid) = 1.0;
  const auto view = padded_view(tensors, 1, 9.0);
  dense2D<double> metrics = view;
  ASSERT_EQ(zel::tessel3d::interpolate_metrics(f.coords, f.box.mesh.connect, f.box.neighbors, f.node_element,
                                               metrics, f.nodes, false),
            0);
  // Could p lie in an element where node 0 takes part?
  auto near_node0 = [&](const double* p) {
    for (unsigned e : holding(f.box.mesh.connect, 0)) {
      const auto lambda = barycentric(f.coords, f.box.mesh.connect, e, p);
      unsigned k = 0;
      while (f.box.mesh.connect(k, e) != 0) ++k;
      if (*std::min_element(lambda.begin(), lambda.end()) >= -1e-6 && lambda[k] >= 1e-12) return true;
    }
    return false;
  };
  const std::set<unsigned> listed(f.nodes.begin(), f.nodes.end());
  for (unsigned n = unsigned(f.mesh_nodes); n < nb; ++n) {
    elfes::metric6 got;
    for (int k = 0; k < 6; ++k) got[k] = metrics(k, n);
    if (listed.count(n) && !(f.is_inside(n) && near_node0(&f.coords(0, n)))) {
      expect_metric_near(got, metric_a, 1e-12);  // equal metrics give that metric
    } else if (!listed.count(n) || n == by_corner) {
      for (int k = 0; k < 6; ++k) EXPECT_EQ(got[k], 0.0);  // not listed, or the combination failed
    }
  }
  for (unsigned n = 0; n < nb; ++n) EXPECT_EQ(view.data()[n * view.ld() + 6], 9.0);  // padding untouched
}

TEST(interpolate_metrics, status_codes_in_order) {
  free_nodes f(2, 4, 0);
  const auto& t = f.box.mesh.connect;
  const auto& nb = f.box.neighbors;
  const std::size_t n = f.coords.cols();
  dense2D<double> tensors(6, n, 1.0), five(5, n, 1.0), short_tensors(6, n - 1, 1.0);
  dense1D<double, 8> sizes(n, 1.0), short_sizes(n - 1, 1.0);
  const dense2D<double> coords4(4, n);
  const dense1D<unsigned, 8> ne_short(n + 1, ~0U), bad_nodes = {unsigned(n)}, empty;
  using zel::tessel3d::interpolate_metrics;
  EXPECT_EQ(interpolate_metrics(coords4, t, nb, f.node_element, tensors, empty, false), 0);
  EXPECT_EQ(interpolate_metrics(coords4, t, nb, f.node_element, sizes, empty, false), 0);
  EXPECT_EQ(interpolate_metrics(coords4, t, nb, f.node_element, tensors, f.nodes, false), -1);
  EXPECT_EQ(interpolate_metrics(f.coords, dense2D<unsigned>(3, t.cols()), nb, f.node_element, sizes, false), -2);
  EXPECT_EQ(interpolate_metrics(f.coords, t, dense2D<unsigned>(4, 1), f.node_element, tensors, false), -3);
  EXPECT_EQ(interpolate_metrics(f.coords, t, nb, ne_short, sizes, f.nodes, false), -4);
  EXPECT_EQ(interpolate_metrics(f.coords, t, nb, f.node_element, five, f.nodes, false), -5);
  EXPECT_EQ(interpolate_metrics(f.coords, t, nb, f.node_element, short_tensors, false), -5);
  EXPECT_EQ(interpolate_metrics(f.coords, t, nb, f.node_element, short_sizes, f.nodes, false), -5);
  EXPECT_EQ(interpolate_metrics(f.coords, t, nb, f.node_element, tensors, bad_nodes, false), -6);
  EXPECT_EQ(interpolate_metrics(f.coords, t, nb, f.node_element, sizes, bad_nodes, false), -6);
}

}  // namespace
