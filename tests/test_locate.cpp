// Point location and interpolation: the walk, the octree of nodes,
// get_element_containing_point and its form for many points, interpolate and
// interpolate_metrics (with the two-metric mix), against brute force (barycentric
// coordinates, exhaustive nearest node), closed forms (linear fields, sizes linear along
// common axes) and one call per point or node. Allocation failures and views with padding are
// checked for every form through the family table (test_allocation_failures,
// test_concurrency).
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <functional>
#include <iterator>
#include <random>
#include <set>
#include <string>
#include <vector>

#include "box_mesh.h"
#include "checks_in_order.h"
#include "family_table.h"
#include "locate/metric_mix.h"
#include "locate/node_octree.h"
#include "locate/node_placement.h"
#include "locate/point_order.h"
#include "locate/triangle_projection.h"
#include "locate/visibility_walk.h"
#include "zel/tessel3d.h"

using namespace tessel3d_test;
using point3 = zel::vector_fixed<double, 3>;

namespace {

// ---- independent references ------------------------------------------------------------

dense2D<unsigned> neighbors_of(const dense2D<unsigned>& connect) {
  dense2D<unsigned> neighbors;
  EXPECT_EQ(zel::tessel::get_neighbors(connect, zel::TH4, neighbors), 0);
  return neighbors;
}

long double volume6(const double* a, const double* b, const double* c, const double* d) {
  long double u[3], v[3], w[3];
  for (int i = 0; i < 3; ++i)
    u[i] = a[i] - (long double)d[i], v[i] = b[i] - (long double)d[i], w[i] = c[i] - (long double)d[i];
  return u[0] * (v[1] * w[2] - v[2] * w[1]) - u[1] * (v[0] * w[2] - v[2] * w[0]) + u[2] * (v[0] * w[1] - v[1] * w[0]);
}

// The smallest barycentric coordinate of p in element e, each one found by replacing
// its node with p.
double min_barycentric(const dense2D<double>& coords, const dense2D<unsigned>& connect, unsigned e, const double* p) {
  const double* x[4];
  for (int k = 0; k < 4; ++k) x[k] = &coords(0, connect(k, e));
  double lowest = INFINITY;
  for (int k = 0; k < 4; ++k) {
    const double* y[4] = {x[0], x[1], x[2], x[3]};
    y[k] = p;
    lowest = std::min(lowest, double(volume6(y[0], y[1], y[2], y[3]) / volume6(x[0], x[1], x[2], x[3])));
  }
  return lowest;
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
      : mesh(make_box(box_kind::TH4, n, n, n, 1, 1, 1, jitter, seed)), neighbors(neighbors_of(mesh.connect)) {
    zel::tessel::get_node_element(mesh.connect, unsigned(mesh.coords.cols()), node_element);
  }
};

// ---- the element test and the walk ----------------------------------------------------

// Inverted, flat, overflowing and undefined elements are refused (the search then reports
// them) whatever the point.
TEST(TH4_exit_face, invalid_elements) {
  const double p[3] = {0.25, 0.25, 0.25};
  const double bad[4][4][3] = {{{1, 0, 0}, {0, 1, 0}, {0, 0, 0}, {0, 0, 1}},
                               {{0, 1, 0}, {1, 0, 0}, {0, 0, 0}, {1, 1, 0}},
                               {{0, 1e110, 0}, {1e110, 0, 0}, {0, 0, 0}, {0, 0, 1e110}},  // 6V overflows
                               {{0, 1, 0}, {NAN, 0, 0}, {0, 0, 0}, {0, 0, 1}}};
  for (const auto& b : bad) {
    const double* const corners[4] = {b[0], b[1], b[2], b[3]};
    EXPECT_EQ(elfes::TH4_exit_face(corners, p, 0, 0), -2);
  }
}

// The corner tetrahedron A = (O, Y, X, Z) and B on its slanted face XYZ with apex W =
// (-0.5, 1, 1): p, in B, lies beyond the face x = 0 of A (the boundary) as well as beyond
// the face it shares with B. Under every positive numbering of A's nodes (so that each
// face is drawn first in turn), the walk from A that meets the boundary face tries the
// others and reaches B; the point (1.5, 0.5, 0.5) is in neither. (A third element, apart,
// keeps the walks below the step limit.)
TEST(visibility_walk, a_boundary_face_is_passed_over_for_another_face_out) {
  const dense2D<double> coords(3, 9, {0, 0, 0, 0, 1, 0, 1,  0, 0, 0, 0, 1, -0.5, 1, 1,  //
                                      9, 0, 0, 9, 1, 0, 10, 0, 0, 9, 0, 1});
  const double p[3] = {-0.25, 0.8, 0.8}, outside[3] = {1.5, 0.5, 0.5};
  unsigned order[4] = {0, 1, 2, 3};
  int numberings = 0;
  do {
    dense2D<unsigned> connect(4, 3, {0, 0, 0, 0, 1, 2, 3, 4, 5, 6, 7, 8});  // B = (Y, X, Z, W)
    for (int k = 0; k < 4; ++k) connect(k, 0) = order[k];
    if (volume6(&coords(0, order[0]), &coords(0, order[1]), &coords(0, order[2]), &coords(0, order[3])) <= 0) continue;
    ++numberings;
    const dense2D<unsigned> neighbors = neighbors_of(connect);
    std::size_t steps = 0;
    unsigned element = 0;
    EXPECT_EQ(elfes::visibility_walk(coords, connect, neighbors, p, element, 0, steps), 1);
    EXPECT_EQ(element, 1u);
    EXPECT_GE(min_barycentric(coords, connect, 1, p), 0.0);
    element = 0;
    EXPECT_EQ(elfes::visibility_walk(coords, connect, neighbors, outside, element, 0, steps), 0);
    EXPECT_EQ(element, ~0U);
  } while (std::next_permutation(order, order + 4));
  EXPECT_EQ(numberings, 12);
}

TEST(visibility_walk, invalid_element_and_step_limit) {
  // Two elements sharing face 3 of element 0; element 1 is inverted, and is reached
  // exactly at the step limit (-2). A third, unrelated element lifts the limit (-1).
  const dense2D<double> coords(3, 5, {0, 1, 0, 1, 0, 0, 0, 0, 0, 0, 0, 1, 0, 0, -1});
  const dense2D<unsigned> two(4, 2, {0, 1, 2, 3, 0, 1, 2, 4}), three(4, 3, {0, 1, 2, 3, 0, 1, 2, 4, 0, 1, 2, 3});
  const dense2D<unsigned> neighbors3(4, 3, {~0U, ~0U, ~0U, 1, ~0U, ~0U, ~0U, 0, ~0U, ~0U, ~0U, ~0U});
  const double below[3] = {0.2, 0.2, -0.5};
  std::size_t steps = 0;
  unsigned element = 0;
  EXPECT_EQ(elfes::visibility_walk(coords, two, neighbors_of(two), below, element, 0, steps), -2);
  EXPECT_EQ(element, ~0U);
  element = 0;
  EXPECT_EQ(elfes::visibility_walk(coords, three, neighbors3, below, element, 0, steps), -1);
  EXPECT_EQ(element, ~0U);
}

// ---- the octree of nodes -------------------------------------------------------------------

TEST(node_octree, nearest_against_brute_force) {
  // Unused nodes appended to coords are never found; 20 coincident nodes force the tree
  // past its last bit; a far node (infinite, undefined, or finite but squeezing every
  // other node into one cell of the tree) takes no part unless it is the nearest.
  const th4_box box(5, 0.2, 3);
  const double outliers[] = {0, INFINITY, -INFINITY, NAN, 1e300};
  for (const double outlier : outliers) {
    dense2D<double> coords;
    ASSERT_TRUE(coords.copy(box.mesh.coords));
    const std::size_t used = coords.cols();
    ASSERT_TRUE(coords.resize(3, used + 21, 0.5));
    if (outlier != 0) coords(0, 0) = outlier;
    dense2D<unsigned> connect = box.mesh.connect;
    const std::size_t elements = connect.cols();
    ASSERT_TRUE(connect.resize(4, elements + 5));
    for (unsigned k = 0; k < 20; ++k) connect.data()[4 * elements + k] = unsigned(used + 1 + k);
    elfes::node_octree tree;
    ASSERT_EQ(tree.build(coords, connect), 0);
    random_stream random(5);
    for (int trial = 0; trial < 400; ++trial) {
      const double spread = trial < 300 ? 1.0 : 4.0;
      const point3 p(random.uniform(-0.1, spread), random.uniform(-0.1, spread), random.uniform(-0.1, 1.1));
      double best = INFINITY;
      for (std::size_t n = 0; n < coords.cols(); ++n)
        if (n != used) best = std::min(best, distance2(&coords(0, n), p.data()));
      const unsigned closest = tree.find_closest(p), close = tree.find_close(p);
      ASSERT_TRUE(closest < coords.cols() && closest != used) << outlier;
      EXPECT_EQ(distance2(&coords(0, closest), p.data()), best) << outlier;
      const bool in_cube = std::min({p[0], p[1], p[2]}) >= 0 && std::max({p[0], p[1], p[2]}) <= 1;
      EXPECT_TRUE(outlier != 0 || (close < coords.cols() && close != used) == in_cube);  // ~0U outside its cube
    }
    for (unsigned n = 1; n < used; n += 17)
      EXPECT_EQ(tree.find_close(point3(coords(0, n), coords(1, n), coords(2, n))), n) << outlier;
  }
  elfes::node_octree empty;
  ASSERT_EQ(empty.build(dense2D<double>(3, 4, 0.0), dense2D<unsigned>(4, 0)), 0);
  EXPECT_EQ(empty.find_close(point3(0, 0, 0)), ~0U);
  EXPECT_EQ(empty.find_closest(point3(0, 0, 0)), ~0U);
}

// ---- get_element_containing_point --------------------------------------------------------

int locate(const th4_box& box, const point3& p, double tolerance, unsigned& element) {
  element = 12345u;
  const int status =
      t3::get_element_containing_point(box.mesh.coords, box.mesh.connect, box.neighbors, box.node_element,
                                       zel::tessel::node_detector(box.mesh.coords), zel::TH4, p, element, tolerance);
  EXPECT_EQ(element == ~0U, status != 1);
  return status;
}

// Points inside and outside, from nodes found by the node search, are covered by the
// interpolations below; here the edges of the search.
TEST(get_element_containing_point, points_on_nodes_in_the_tolerance_band_and_behind_an_inverted_element) {
  th4_box box(4);
  unsigned element = 0;
  for (unsigned n = 0; n < box.mesh.coords.cols(); n += 7) {  // on nodes, with no tolerance
    const point3 p(box.mesh.coords(0, n), box.mesh.coords(1, n), box.mesh.coords(2, n));
    ASSERT_EQ(locate(box, p, 0, element), 1);
    EXPECT_GE(min_barycentric(box.mesh.coords, box.mesh.connect, element, p.data()), -1e-12);
  }
  // Just outside the flat face x = 1: found within a tolerance of its element's scale.
  const point3 beyond(1 + 1e-4, 0.4, 0.6);
  EXPECT_EQ(locate(box, beyond, 0, element), 0);
  ASSERT_EQ(locate(box, beyond, 1e-2, element), 1);
  const double lowest = min_barycentric(box.mesh.coords, box.mesh.connect, element, beyond.data());
  EXPECT_TRUE(lowest < 0 && lowest >= -1e-2) << lowest;
  // An element inverted by exchanging two nodes (its adjacency rebuilt to match), or
  // with a node moved to infinity or made NaN, stops the search for its centre.
  const unsigned bad = 100;
  point3 centre(0, 0, 0);
  for (int k = 0; k < 4; ++k)
    for (int d = 0; d < 3; ++d) centre[d] += box.mesh.coords(d, box.mesh.connect(k, bad)) / 4;
  for (const double moved : {0.0, double(INFINITY), double(NAN)}) {
    th4_box broken(4);
    if (moved == 0) {
      std::swap(broken.mesh.connect(0, bad), broken.mesh.connect(2, bad));
      broken.neighbors = neighbors_of(broken.mesh.connect);
    } else {
      broken.mesh.coords(0, broken.mesh.connect(3, bad)) = moved;
    }
    EXPECT_EQ(locate(broken, centre, 1e-9, element), -1) << moved;
  }
}

// ---- get_elements_containing_points --------------------------------------------------------

// Shuffled points: random inside, on nodes, on centroids of faces between two elements and
// of element 200; with `outside`, just and far outside the box, not finite. As columns
// of a view with padding rows.
dense2D<double> search_points(const th4_box& box, bool outside, std::uint64_t seed) {
  const auto& x = box.mesh.coords;
  const auto& t = box.mesh.connect;
  std::vector<point3> points;
  random_stream random(seed);
  for (int k = 0; k < 150; ++k) points.emplace_back(random.uniform(), random.uniform(), random.uniform());
  for (unsigned n = 0; n < x.cols(); n += 5) points.emplace_back(x(0, n), x(1, n), x(2, n));
  for (unsigned e = 0; e < t.cols(); e += 7) {
    const unsigned f = e % 4, nodes = e == 200 ? 4 : 3;
    point3 centroid(0, 0, 0);
    for (unsigned k = 0; k < nodes; ++k)
      for (int d = 0; d < 3; ++d) centroid[d] += x(d, t(nodes == 4 ? k : elfes::th4_faces[f][k], e)) / nodes;
    if (nodes == 4 || box.neighbors(f, e) != ~0U) points.push_back(centroid);
  }
  for (int k = 0; k < 40 && outside; ++k)
    points.emplace_back(1 + random.uniform(0, k < 20 ? 1e-3 : 2), random.uniform(), random.uniform());
  if (outside) points.emplace_back(NAN, 0.5, 0.5), points.emplace_back(0.5, INFINITY, 0.5);
  std::shuffle(points.begin(), points.end(), std::mt19937(unsigned(seed)));
  dense2D<double> plain(3, points.size());
  for (std::size_t j = 0; j < points.size(); ++j)
    for (int d = 0; d < 3; ++d) plain(d, j) = points[j][d];
  return padded_view(plain, 2, -7.0);
}

// The single search point by point, and the status that sums it up: -1 when one met an
// invalid element, else 0 when one was not located, else 1.
int one_by_one(const th4_box& box, const dense2D<double>& points, double tolerance, std::vector<unsigned>& elements) {
  const zel::tessel::node_detector detector(box.mesh.coords);
  bool missed = false, invalid = false;
  for (std::size_t j = 0; j < points.cols(); ++j) {
    unsigned element = 7;
    const int status = t3::get_element_containing_point(
        box.mesh.coords, box.mesh.connect, box.neighbors, box.node_element, detector, zel::TH4,
        point3(points(0, j), points(1, j), points(2, j)), element, tolerance);
    elements.push_back(element);
    invalid |= status == -1;
    missed |= status != 1 && status != -1;
  }
  return invalid ? -1 : missed ? 0 : 1;
}

TEST(get_elements_containing_points, each_element_is_that_of_the_single_search) {
  struct row {
    double tolerance;
    bool outside, inverted;
    int status;
  };
  for (const row& r :
       {row{0, false, false, 1}, row{0, true, false, 0}, row{1e-3, true, false, 0}, row{1e-9, true, true, -1}}) {
    th4_box box(5);
    if (r.inverted) {  // element 200, whose centre is searched
      std::swap(box.mesh.connect(0, 200), box.mesh.connect(2, 200));
      box.neighbors = neighbors_of(box.mesh.connect);
    }
    const dense2D<double> points = search_points(box, r.outside, 21);
    std::vector<unsigned> expected;
    ASSERT_EQ(one_by_one(box, points, r.tolerance, expected), r.status);
    dense1D<unsigned, 8> elements = {7, 7};
    EXPECT_EQ(t3::get_elements_containing_points(box.mesh.coords, box.mesh.connect, box.neighbors, box.node_element,
                                                 zel::tessel::node_detector(box.mesh.coords), zel::TH4, points,
                                                 elements, r.tolerance),
              r.status);
    EXPECT_EQ(std::vector<unsigned>(elements.begin(), elements.end()), expected) << r.status;
  }
}

// ---- interpolate -------------------------------------------------------------------------

// A mesh over [0, 1]^3 followed by free nodes (node_element ~0U): `inside` random ones,
// then `outside` ones around the box; every third node is listed.
struct free_nodes {
  th4_box box;
  dense2D<double> coords;
  dense1D<unsigned, 8> node_element, nodes;
  unsigned mesh_nodes;
  free_nodes(unsigned n, unsigned inside, unsigned outside) : box(n), mesh_nodes(unsigned(box.mesh.coords.cols())) {
    coords.copy(box.mesh.coords);
    coords.resize(3, mesh_nodes + inside + outside);
    random_stream random(99);
    for (unsigned k = 0; k < inside + outside; ++k)
      for (int d = 0; d < 3; ++d)
        coords(d, mesh_nodes + k) = k < inside ? random.uniform() : random.uniform(-0.5, 1.5) + (d == 0 ? 2 : 0);
    node_element.copy(box.node_element);
    node_element.resize(coords.cols(), ~0U);
    for (unsigned k = 0; k < coords.cols(); k += 3) nodes.push_back(k);
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
double size_at(const double* x) { return 0.1 + 0.2 * x[0] + 0.05 * x[1] + 0.3 * x[2]; }

// Listed free nodes get linear fields exactly inside the mesh and the nearest mesh node's
// values outside; every free node without a valid size or metric gets linear sizes (as
// isotropic metrics) the same way; nothing else is written.
TEST(interpolation, linear_fields_and_sizes_inside_nearest_copies_outside) {
  free_nodes f(6, 200, 40);
  const unsigned nb = unsigned(f.coords.cols());
  dense2D<double> field(3, nb, -7.0), tensors(6, nb, 0.0), field0, tensors0;
  dense1D<double, 8> scalar(nb, -7.0), sizes(nb, 0.0), scalar0, sizes0;
  for (unsigned n = 0; n < nb; ++n) {
    const double* x = &f.coords(0, n);
    for (int c = 0; c < 3 && n < f.mesh_nodes; ++c) field(c, n) = linear(x, c);
    if (n < f.mesh_nodes) scalar[n] = linear(x, 1);
    if (n < f.mesh_nodes || n % 2) {  // mesh nodes and odd free nodes hold valid sizes and metrics
      sizes[n] = size_at(x);
      tensors(0, n) = tensors(2, n) = tensors(5, n) = n < f.mesh_nodes ? std::pow(sizes[n], -2) : 1.0;
    }
  }
  field0.copy(field), tensors0.copy(tensors), scalar0.copy(scalar), sizes0.copy(sizes);
  const auto& t = f.box.mesh.connect;
  ASSERT_EQ(t3::interpolate(f.coords, t, f.box.neighbors, f.node_element, field, f.nodes), 0);
  ASSERT_EQ(t3::interpolate(f.coords, t, f.box.neighbors, f.node_element, scalar, f.nodes), 0);
  ASSERT_EQ(t3::interpolate_metrics(f.coords, t, f.box.neighbors, f.node_element, sizes, true), 0);
  ASSERT_EQ(t3::interpolate_metrics(f.coords, t, f.box.neighbors, f.node_element, tensors, true), 0);
  const std::set<unsigned> listed(f.nodes.begin(), f.nodes.end());
  for (unsigned n = 0; n < nb; ++n) {
    const double* x = &f.coords(0, n);
    const unsigned m = f.nearest_mesh_node(n);
    const bool in = f.is_inside(n), written = n >= f.mesh_nodes && listed.count(n), valid = n < f.mesh_nodes || n % 2;
    for (int c = 0; c < 3; ++c)
      EXPECT_NEAR(field(c, n), !written ? field0(c, n) : in ? linear(x, c) : field(c, m), 1e-12);
    EXPECT_NEAR(scalar[n], !written ? scalar0[n] : in ? linear(x, 1) : scalar[m], 1e-12);
    const double h = valid ? sizes0[n] : in ? size_at(x) : sizes[m];
    EXPECT_NEAR(sizes[n], h, 1e-13);
    for (int k = 0; k < 6; ++k)
      EXPECT_NEAR(tensors(k, n),
                  valid                        ? tensors0(k, n)
                  : k == 0 || k == 2 || k == 5 ? 1 / (h * h)
                                               : 0.0,
                  1e-11 / (h * h));
  }
}

// ---- status codes in validation order ------------------------------------------------------

// Valid arguments of every search and interpolation: a 2 x 2 x 2 box with five free nodes
// (every third node listed), fields of two components, metrics and three points; each
// matrix its own buffer, so that a bad entry reaches nothing else.
struct located {
  free_nodes f{2, 5, 0};
  dense2D<double> coords, field, tensors, points{3, 3, 0.5};
  dense2D<unsigned> connect, neighbors;
  dense1D<unsigned, 8> node_element, nodes, elements{7, 7};
  dense1D<double, 8> values;
  double tolerance = 0;
  located() {
    const std::size_t n = f.coords.cols();
    EXPECT_TRUE(coords.copy(f.coords) && connect.copy(f.box.mesh.connect) && neighbors.copy(f.box.neighbors) &&
                node_element.copy(f.node_element) && nodes.copy(f.nodes));
    field = dense2D<double>(2, n, 3.0), tensors = dense2D<double>(6, n, 3.0), values = dense1D<double, 8>(n, 3.0);
  }
};

enum bad_location {
  nodes_empty,
  coords_rows,
  connect_rows,
  connect_id,
  neighbors_rows,
  neighbors_cols,
  neighbors_entry,
  node_element_short,
  field_short,
  nodes_bad,
  points_rows,
  tolerance_minus_infinite,
  tolerance_infinite,
  tolerance_nan
};

void break_argument(bad_location b, located& a) {
  const std::size_t n = a.coords.cols();
  switch (b) {
    case nodes_empty: a.nodes.clear(); break;
    case coords_rows: a.coords = a.coords.sub_matrix(0, 0, 2, n); break;
    case connect_rows: a.connect = dense2D<unsigned>(5, a.connect.cols(), 0u); break;
    case connect_id: a.connect(2, 1) = unsigned(n); break;
    case neighbors_rows: a.neighbors = a.neighbors.sub_matrix(0, 0, 3, a.neighbors.cols()); break;
    case neighbors_cols: a.neighbors = a.neighbors.sub_matrix(0, 0, 4, a.neighbors.cols() - 1); break;
    case neighbors_entry: a.neighbors(0, 0) = unsigned(a.connect.cols()); break;  // an ID the walk would follow
    case node_element_short: a.node_element.resize(n - 1); break;
    case field_short:  // and metrics of 5 rows
      a.field.resize(2, n - 1), a.values.resize(n - 1), a.tensors.resize(5, n);
      break;
    case nodes_bad: a.nodes = {0u, unsigned(n)}; break;
    case points_rows: a.points = dense2D<double>(2, 3, 0.5); break;
    case tolerance_minus_infinite: a.tolerance = -INFINITY; break;
    case tolerance_infinite: a.tolerance = INFINITY; break;
    case tolerance_nan: a.tolerance = NAN; break;
  }
}

std::string bytes_of_located(const located& a) {
  std::string out = bytes_of(a.field, a.tensors);
  out.append(reinterpret_cast<const char*>(a.values.data()), a.values.size() * sizeof(double));
  out.append(reinterpret_cast<const char*>(a.elements.data()), a.elements.size() * sizeof(unsigned));
  return out;
}

struct location_form {
  const char* name;
  std::function<int(located&)> call;
  std::vector<std::pair<bad_location, int>> chain;
};

// The interpolations check the mesh like the search, then their field and their list.
const std::vector<std::pair<bad_location, int>> mesh_checks = {
    {coords_rows, -1},    {connect_rows, -2},    {connect_id, -2},        {neighbors_rows, -3},
    {neighbors_cols, -3}, {neighbors_entry, -3}, {node_element_short, -4}};
std::vector<std::pair<bad_location, int>> with(std::vector<std::pair<bad_location, int>> front,
                                               std::vector<std::pair<bad_location, int>> back) {
  front.insert(front.end(), back.begin(), back.end());
  return front;
}
const std::vector<std::pair<bad_location, int>> tolerances = {
    {tolerance_minus_infinite, -9}, {tolerance_infinite, -9}, {tolerance_nan, -9}};

const std::vector<location_form>& location_forms() {
  static const auto interpolated = with(with({{nodes_empty, 0}}, mesh_checks), {{field_short, -5}, {nodes_bad, -6}});
  static const auto every_node = with(mesh_checks, {{field_short, -5}});
  static const auto projected = std::vector<std::pair<bad_location, int>>{
      {nodes_empty, 0}, {coords_rows, -1}, {connect_rows, -2}, {connect_id, -2}, {field_short, -3}, {nodes_bad, -4}};
  static const std::vector<location_form> forms = {
      {"one point",
       [](located& a) {
         unsigned element = 77;
         const int status = t3::get_element_containing_point(a.coords, a.connect, a.neighbors, a.node_element,
                                                             zel::tessel::node_detector(a.coords), zel::TH4,
                                                             point3(0.5, 0.5, 0.5), element, a.tolerance);
         EXPECT_EQ(element == ~0U, status != 1);
         return status;
       },
       with({{coords_rows, -1},
             {connect_id, -2},
             {connect_rows, -3},
             {neighbors_rows, -3},
             {neighbors_cols, -3},
             {neighbors_entry, -3},
             {node_element_short, -4}},
            tolerances)},
      {"many points",
       [](located& a) {
         return t3::get_elements_containing_points(a.coords, a.connect, a.neighbors, a.node_element,
                                                   zel::tessel::node_detector(a.coords), zel::TH4, a.points, a.elements,
                                                   a.tolerance);
       },
       with(with({{coords_rows, -1}, {connect_id, -2}, {neighbors_rows, -3}, {node_element_short, -4}},
                 {{points_rows, -7}}),
            tolerances)},
      {"interpolate field",
       [](located& a) { return t3::interpolate(a.coords, a.connect, a.neighbors, a.node_element, a.field, a.nodes); },
       interpolated},
      {"interpolate values",
       [](located& a) { return t3::interpolate(a.coords, a.connect, a.neighbors, a.node_element, a.values, a.nodes); },
       interpolated},
      {"metrics at nodes",
       [](located& a) {
         return t3::interpolate_metrics(a.coords, a.connect, a.neighbors, a.node_element, a.tensors, a.nodes, false);
       },
       interpolated},
      {"sizes at nodes",
       [](located& a) {
         return t3::interpolate_metrics(a.coords, a.connect, a.neighbors, a.node_element, a.values, a.nodes, true);
       },
       interpolated},
      {"metrics everywhere",
       [](located& a) {
         return t3::interpolate_metrics(a.coords, a.connect, a.neighbors, a.node_element, a.tensors, false);
       },
       every_node},
      {"sizes everywhere",
       [](located& a) {
         return t3::interpolate_metrics(a.coords, a.connect, a.neighbors, a.node_element, a.values, true);
       },
       every_node},
      {"projected field", [](located& a) { return t3::interpolate_projected(a.coords, a.connect, a.field, a.nodes); },
       projected},
      {"projected values", [](located& a) { return t3::interpolate_projected(a.coords, a.connect, a.values, a.nodes); },
       projected},
      {"projected metrics",
       [](located& a) { return t3::interpolate_metrics_projected(a.coords, a.connect, a.tensors, a.nodes, false); },
       projected},
      {"projected sizes",
       [](located& a) { return t3::interpolate_metrics_projected(a.coords, a.connect, a.values, a.nodes, true); },
       projected},
      {"locate_points",
       [](located& a) { return t3::locate_points(a.coords, a.connect, a.points, a.elements, a.tolerance); },
       {{coords_rows, -1},
        {connect_rows, -2},
        {connect_id, -2},
        {points_rows, -3},
        {tolerance_minus_infinite, -5},
        {tolerance_infinite, -5},
        {tolerance_nan, -5}}},
      {"locator",
       [](located& a) {
         t3::point_locator locator;
         const int built = locator.build(a.coords, a.connect);
         unsigned element = 7;
         EXPECT_EQ(locator.find(point3(0.5, 0.5, 0.5), element, 0), built == 0 ? 1 : 0);  // an empty one finds nothing
         EXPECT_EQ(element == ~0U, built != 0);
         if (built != 0) return built;
         EXPECT_EQ(locator.find(point3(0.5, 0.5, 0.5), element, a.tolerance), std::isfinite(a.tolerance) ? 1 : -3);
         return locator.find(a.points, a.elements, a.tolerance);
       },
       {{coords_rows, -1},
        {connect_rows, -2},
        {connect_id, -2},
        {points_rows, -1},
        {tolerance_minus_infinite, -3},
        {tolerance_infinite, -3},
        {tolerance_nan, -3}}},
  };
  return forms;
}

// Each check in turn with every later argument bad too, and nothing written (the single
// search leaves ~0U); then what the calls that pass their checks give without searching.
TEST(location_status, every_code_in_validation_order_and_nothing_written) {
  for (const location_form& form : location_forms()) {
    SCOPED_TRACE(form.name);
    std::vector<bad_argument<located>> chain;
    for (const auto& [b, code] : form.chain)
      chain.push_back({std::to_string(b), [b = b](located& a) { break_argument(b, a); }, code});
    expect_checks_in_order(chain, form.call, bytes_of_located);
  }
  located a;
  const auto many = [&a](const dense2D<unsigned>& connect, const dense2D<unsigned>& neighbors, zel::element_type type,
                         const dense2D<double>& points) {
    a.elements = {7, 7};
    return t3::get_elements_containing_points(a.coords, connect, neighbors, a.node_element,
                                              zel::tessel::node_detector(a.coords), type, points, a.elements, 0);
  };
  const dense2D<unsigned> none(4, 0);
  const dense1D<unsigned, 8> not_found(3, ~0U);
  EXPECT_EQ(many(a.connect, a.neighbors, zel::TH10, a.points), 0);  // 4 faces, but not searched
  EXPECT_TRUE(same(a.elements, not_found));
  EXPECT_EQ(many(none, none, zel::TH4, a.points), 0);  // no element
  EXPECT_TRUE(same(a.elements, not_found));
  EXPECT_EQ(many(a.connect, a.neighbors, zel::TH4, dense2D<double>(3, 0)), 1);
  EXPECT_TRUE(a.elements.empty());
  EXPECT_EQ(many(a.connect, a.neighbors, zel::TH4, dense2D<double>()), -7);
  // No element: nothing to copy from; a field may have any number of components.
  EXPECT_EQ(t3::interpolate(a.coords, none, none, a.node_element, a.field, a.nodes), 0);
  dense2D<double> components0(0, a.coords.cols());
  EXPECT_EQ(t3::interpolate(a.coords, a.connect, a.neighbors, a.node_element, components0, a.nodes), 0);
  EXPECT_TRUE(same(a.field, dense2D<double>(2, a.coords.cols(), 3.0)));
  // The search takes any solid type: H8 needs 6 rows of neighbours, and only a TH4 mesh
  // is searched (6 rows of nodes and of neighbours fit type H8).
  unsigned element = 7;
  EXPECT_EQ(t3::get_element_containing_point(a.coords, a.connect, a.neighbors, a.node_element,
                                             zel::tessel::node_detector(a.coords), zel::H8, point3(0.5, 0.5, 0.5),
                                             element, 0),
            -3);
  const box_mesh wedges = make_box(box_kind::W6, 2, 2, 2);
  dense1D<unsigned, 8> wedge_ne;
  zel::tessel::get_node_element(wedges.connect, unsigned(wedges.coords.cols()), wedge_ne);
  EXPECT_EQ(t3::get_element_containing_point(
                wedges.coords, wedges.connect, dense2D<unsigned>(6, wedges.connect.cols(), ~0U), wedge_ne,
                zel::tessel::node_detector(wedges.coords), zel::H8, point3(0.5, 0.5, 0.5), element, 0),
            0);
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
  const double d3 =
      m[0] * (m[2] * m[5] - m[4] * m[4]) - m[1] * (m[1] * m[5] - m[4] * m[3]) + m[3] * (m[1] * m[4] - m[2] * m[3]);
  return m[0] > 0 && m[0] * m[2] - m[1] * m[1] > 0 && d3 > 0;
}

void expect_metric_near(const elfes::metric6& a, const elfes::metric6& b, double relative) {
  double scale = 0;
  for (unsigned k = 0; k < 6; ++k) scale = std::max(scale, std::fabs(b[k]));
  for (unsigned k = 0; k < 6; ++k) EXPECT_NEAR(a[k], b[k], relative * scale) << "entry " << k;
}

const elfes::metric6 metric_a = packed({4, 1, 3, 0.5, -0.2, 2}), metric_b = packed({1, -0.3, 9, 0.1, 0.4, 0.5});

TEST(mix, ends_common_axes_positive_definiteness_and_failures) {
  elfes::metric6 m;
  for (double t = 0; t <= 1; t += 0.125) {
    ASSERT_TRUE(elfes::mix(metric_a, metric_b, t, m));
    EXPECT_TRUE(positive_definite(m)) << t;
    if (t == 0 || t == 1) expect_metric_near(m, t == 0 ? metric_a : metric_b, 1e-13);
    ASSERT_TRUE(elfes::mix(metric_a, metric_a, t, m));
    expect_metric_near(m, metric_a, 1e-13);
  }
  // Diagonal metrics share their axes: each size moves linearly from 1/sqrt(a) to 1/sqrt(b).
  const double a[3] = {4, 1, 0.25}, b[3] = {1, 16, 0.25};
  for (double t : {0.25, 0.5, 1.25, -0.5}) {
    ASSERT_TRUE(elfes::mix(packed({a[0], 0, a[1], 0, 0, a[2]}), packed({b[0], 0, b[1], 0, 0, b[2]}), t, m));
    elfes::metric6 expected;
    for (int i = 0; i < 3; ++i)
      expected(i, i) = std::pow(1 / std::sqrt(a[i]) + t * (1 / std::sqrt(b[i]) - 1 / std::sqrt(a[i])), -2);
    expect_metric_near(m, expected, 1e-13);
  }
  const elfes::metric6 indefinite = packed({1, 2, 1, 0, 0, 1}), zero;
  EXPECT_FALSE(elfes::mix(indefinite, metric_b, 0.5, m));
  EXPECT_FALSE(elfes::mix(zero, metric_b, 0.5, m));
  EXPECT_FALSE(elfes::mix(metric_a, indefinite, 0.5, m));  // b has a negative diagonal value
  // Extrapolating past a zero size: sizes 1 -> 0.5 reach 0 at t = 2.
  EXPECT_FALSE(elfes::mix(packed({1, 0, 1, 0, 0, 1}), packed({4, 0, 4, 0, 0, 4}), 2.5, m));
  for (unsigned k = 0; k < 6; ++k) EXPECT_EQ(m[k], 0.0);
}

TEST(combine, negligible_weights_leave_nodes_out) {
  const elfes::metric6 good[4] = {metric_a, metric_b, packed({2, 0, 2, 0, 0, 2}), packed({1, 0, 5, 0, 0, 3})};
  struct row {
    double lambda[4];
    int bad_node;  // replaced by a metric that is not positive definite, and a size of 0
    bool succeeds;
  };
  const row rows[] = {
      {{1, 0, 0, 0}, 1, true},           {{0, 0, 0, 1}, 2, true},
      {{0.3, 5e-13, 0.7, 0}, 1, true},   {{0.3, 1e-9, 0.7, -1e-9}, 1, false},
      {{0.5, 0, 0, 0.5}, 2, true},       {{0.5, 0, 0, 0.5}, 3, false},
      {{0.2, 0.3, 0.5, 1e-13}, 3, true}, {{0.2, 0.3, 0.4, 0.1}, 0, false},
  };
  for (const row& r : rows) {
    elfes::metric6 m[4] = {good[0], good[1], good[2], good[3]}, out;
    m[r.bad_node] = packed({-1, 0, 1, 0, 0, 1});
    EXPECT_EQ(elfes::combine_metrics(m, r.lambda, out), r.succeeds);
    double sizes[4] = {1, 2, 3, 4}, h = 0, expected = 0;
    sizes[r.bad_node] = 0;
    for (int i = 0; i < 4; ++i) expected += r.lambda[i] * sizes[i];
    EXPECT_EQ(elfes::combine_sizes(sizes, r.lambda, h), r.succeeds);
    if (r.succeeds) {
      EXPECT_NEAR(h, expected, 1e-12);
    }
  }
  elfes::metric6 out;
  const double lone[4] = {0, 1, 0, 0};
  ASSERT_TRUE(elfes::combine_metrics(good, lone, out));
  for (unsigned k = 0; k < 6; ++k) EXPECT_EQ(out[k], good[1][k]);  // copied, not mixed
}

TEST(interpolate_metrics, anisotropic_listed_nodes_and_failed_combinations) {
  free_nodes f(3, 30, 10);
  const std::size_t nb = f.coords.cols();
  const unsigned by_corner = (f.mesh_nodes + 2) / 3 * 3;  // a listed free node next to node 0
  f.coords(0, by_corner) = 0.05, f.coords(1, by_corner) = 0.03, f.coords(2, by_corner) = 0.02;
  dense2D<double> metrics(6, nb, 0.0);
  for (unsigned n = 0; n < f.mesh_nodes; ++n)
    for (unsigned k = 0; k < 6; ++k) metrics(k, n) = metric_a[k];
  metrics(0, 0) = -1;                        // node 0, the corner at the origin, is not positive definite
  const unsigned was_valid = by_corner + 3;  // valid, but replaced without keep_valid
  f.coords(0, was_valid) = f.coords(1, was_valid) = f.coords(2, was_valid) = 0.9;
  metrics(0, was_valid) = metrics(2, was_valid) = metrics(5, was_valid) = 1.0;
  ASSERT_EQ(
      t3::interpolate_metrics(f.coords, f.box.mesh.connect, f.box.neighbors, f.node_element, metrics, f.nodes, false),
      0);
  // Far from node 0 (beyond the elements that hold it) the equal metrics give that metric.
  const std::set<unsigned> listed(f.nodes.begin(), f.nodes.end());
  for (unsigned n = f.mesh_nodes; n < nb; ++n) {
    elfes::metric6 got;
    for (int k = 0; k < 6; ++k) got[k] = metrics(k, n);
    if (listed.count(n) && distance2(&f.coords(0, n), &f.coords(0, 0)) > 1) expect_metric_near(got, metric_a, 1e-12);
    if (!listed.count(n) || n == by_corner) expect_metric_near(got, elfes::metric6(), 0);  // as it was: 0
  }
}

// ---- the order in which the interpolations treat their nodes -------------------------------

// The four kinds of values: fields given at the first `given` nodes (-7 elsewhere),
// metrics and sizes there and at every third other node.
struct interpolated {
  dense2D<double> field, tensors;
  dense1D<double, 8> scalar, sizes;
  interpolated(const dense2D<double>& x, unsigned given)
      : field(2, x.cols(), -7.0), tensors(6, x.cols(), 0.0), scalar(x.cols(), -7.0), sizes(x.cols(), 0.0) {
    for (unsigned n = 0; n < x.cols(); ++n) {
      if (n >= given && n % 3) continue;
      const double tensor[6] = {4 + x(0, n), 0.5 * x(1, n), 3 + x(2, n), 0.1, 0.2 * x(0, n), 2 + x(1, n)};
      for (int k = 0; k < 6; ++k) tensors(k, n) = tensor[k];
      sizes[n] = 1 + x(0, n) * x(1, n) + x(2, n);
      if (n < given) field(0, n) = x(0, n) - 2 * x(1, n), field(1, n) = x(2, n), scalar[n] = 1 + x(0, n) + x(2, n);
    }
  }
  // In one call, or one call per node in list order.
  void fill(const dense2D<double>& x, const dense2D<unsigned>& t, const dense2D<unsigned>& nb,
            const dense1D<unsigned, 8>& ne, const dense1D<unsigned, 8>& nodes, bool one_by_one) {
    if (one_by_one) {
      for (unsigned n : nodes) fill(x, t, nb, ne, {n}, false);
      return;
    }
    EXPECT_EQ(t3::interpolate(x, t, nb, ne, field, nodes), 0);
    EXPECT_EQ(t3::interpolate(x, t, nb, ne, scalar, nodes), 0);
    EXPECT_EQ(t3::interpolate_metrics(x, t, nb, ne, tensors, nodes, true), 0);
    EXPECT_EQ(t3::interpolate_metrics(x, t, nb, ne, sizes, nodes, true), 0);
  }
  bool operator==(const interpolated& o) const {
    return same(field, o.field) && same(tensors, o.tensors) && same(scalar, o.scalar) && same(sizes, o.sizes);
  }
};

// Free nodes inside and outside the mesh, one not finite, some listed twice, mesh nodes
// among them, in random order (which the interpolations do not keep): one call gives
// bit for bit what one call per node gives.
TEST(interpolation, nodes_in_any_order_give_the_values_of_one_call_per_node) {
  free_nodes f(5, 300, 60);
  f.coords(1, f.mesh_nodes + 7) = NAN;
  std::vector<unsigned> list;
  for (unsigned n = 0; n < f.coords.cols(); n += n < f.mesh_nodes ? 11 : 1) list.push_back(n);
  for (unsigned twice : {3u, 7u, 310u}) list.push_back(f.mesh_nodes + twice);
  std::shuffle(list.begin(), list.end(), std::mt19937(3));
  dense1D<unsigned, 8> nodes(list.size());
  std::copy(list.begin(), list.end(), nodes.begin());
  elfes::order_records order;
  ASSERT_EQ(elfes::free_nodes_in_order(f.coords, f.box.mesh.connect, f.node_element, nodes, order), 0);
  ASSERT_NE(elfes::record_id(order[0]), list[0] < f.mesh_nodes ? list[1] : list[0]);
  interpolated together(f.coords, f.mesh_nodes), alone(f.coords, f.mesh_nodes), before(f.coords, f.mesh_nodes);
  together.fill(f.coords, f.box.mesh.connect, f.box.neighbors, f.node_element, nodes, false);
  alone.fill(f.coords, f.box.mesh.connect, f.box.neighbors, f.node_element, nodes, true);
  EXPECT_TRUE(together == alone);
  EXPECT_FALSE(together == before);
}

// Inconsistent input: node 6 has no element in node_element but is a node of element 1.
// It is interpolated from element 0, whose node 2 lies at the same place and is found
// first, and the next node, inside element 1, reads it: the list order decides what that
// node gets, and is followed although the list is far from coherent.
TEST(interpolation, a_written_node_that_the_mesh_reads_keeps_the_list_order) {
  dense2D<double> x(3, 8, {0, 1, 0, 1, 0, 0, 0, 0, 0, 0, 0, 1, -1, 0, 0, 0, -1, 0, 0, 0, 0, 0, 0, -1});
  const dense2D<unsigned> t(4, 2, {0, 1, 2, 3, 4, 5, 6, 7}), nb(4, 2, ~0U);
  const unsigned reader = append_nodes(x, {point3(-0.1, -0.7, -0.1)});  // seeded from node 5
  random_stream random(6);
  for (int k = 0; k < 40; ++k)
    append_nodes(x, {point3(random.uniform(0, 0.1) + (k % 2 ? -0.3 : 0.3), 0.05, k % 2 ? -0.05 : 0.05)});
  dense1D<unsigned, 8> ne(x.cols(), ~0U);
  for (unsigned n = 0; n < 8; ++n) ne[n] = n == 6 ? ~0U : n / 4;
  double read[2];
  for (int first = 0; first < 2; ++first) {
    dense1D<unsigned, 8> nodes = {first ? reader : 6u, first ? 6u : reader};
    for (unsigned n = reader + 1; n < x.cols(); ++n) nodes.push_back(n);
    interpolated together(x, 8), alone(x, 8);
    for (interpolated* v : {&together, &alone})  // node 6 differs from node 2 at the same place
      v->field(0, 6) = v->scalar[6] = 50, v->sizes[6] = 5, v->tensors(0, 6) = 9;
    together.fill(x, t, nb, ne, nodes, false);
    alone.fill(x, t, nb, ne, nodes, true);
    EXPECT_TRUE(together == alone) << first;
    read[first] = together.scalar[reader];
  }
  EXPECT_NE(read[0], read[1]);
}

// ---- far and non-finite input --------------------------------------------------------------

// Far points round every triple product of the inside test to 0 (from about 1e17 away) or
// overflow it to NaN; none lies in an element, in any form of the search.
TEST(far_points, never_inside) {
  const th4_box box(3);
  const dense2D<double>& c = box.mesh.coords;
  const dense2D<unsigned>& t = box.mesh.connect;
  const zel::tessel::node_detector detector(c);
  t3::point_locator locator;
  ASSERT_EQ(locator.build(c, t), 0);
  const point3 far[] = {{INFINITY, 0.5, 0.5}, {1e200, 1e200, 1e200}, {-1e300, -1e300, 0.5},
                        {1e17, 1e17, 1e17},   {0.5, 3e154, 0.5},     {NAN, 0.5, 0.5}};
  dense2D<double> points(3, std::size(far));
  for (std::size_t j = 0; j < std::size(far); ++j)
    for (int d = 0; d < 3; ++d) points(d, j) = far[j][d];
  for (double tolerance : {0.0, 1e-3}) {
    for (const point3& p : far) {
      unsigned element = 7;
      EXPECT_EQ(t3::get_element_containing_point(c, t, box.neighbors, box.node_element, detector, zel::TH4, p, element,
                                                 tolerance),
                0)
          << p[0];
      EXPECT_EQ(locator.find(p, element, tolerance), 0) << p[0];
    }
    dense1D<unsigned, 8> elements;
    EXPECT_EQ(t3::get_elements_containing_points(c, t, box.neighbors, box.node_element, detector, zel::TH4, points,
                                                 elements, tolerance),
              0);
    EXPECT_TRUE(same(elements, dense1D<unsigned, 8>(std::size(far), ~0U)));
    EXPECT_EQ(t3::locate_points(c, t, points, elements, tolerance), 0);
    EXPECT_TRUE(same(elements, dense1D<unsigned, 8>(std::size(far), ~0U)));
  }
}

// A free node far beyond 1e154 gets its nearest mesh node's value (by exact distances in
// long double); a node with a coordinate that is not finite has none and is left alone.
TEST(far_points, interpolate_copies_the_nearest_node_however_far) {
  free_nodes f(3, 0, 0);
  const unsigned far = append_nodes(f.coords, {point3(3e200, -1e200, 2e200), point3(-1e300, 0.2, 0.9)});
  const unsigned infinite = append_nodes(f.coords, {point3(0.5, INFINITY, 0.5)});
  f.node_element.resize(f.coords.cols(), ~0U);
  dense1D<double, 8> field(f.coords.cols(), -7.0);
  for (unsigned n = 0; n < f.mesh_nodes; ++n) field[n] = n;
  const dense1D<unsigned, 8> nodes = {far, far + 1, infinite};
  ASSERT_EQ(t3::interpolate(f.coords, f.box.mesh.connect, f.box.neighbors, f.node_element, field, nodes), 0);
  for (unsigned n : {far, far + 1}) {
    long double best = INFINITY;
    for (unsigned m = 0; m < f.mesh_nodes; ++m) {
      long double d2 = 0;
      for (int d = 0; d < 3; ++d) d2 += std::pow((long double)f.coords(d, m) - f.coords(d, n), 2);
      best = std::min(best, d2);
    }
    ASSERT_LT(field[n], f.mesh_nodes);
    long double d2 = 0;
    for (int d = 0; d < 3; ++d) d2 += std::pow((long double)f.coords(d, unsigned(field[n])) - f.coords(d, n), 2);
    EXPECT_LE(d2, best * (1 + 1e-15L)) << n;
  }
  EXPECT_EQ(field[infinite], -7.0);
}

// ---- the search that cannot miss, values at any point --------------------------------------

// A jittered box with a slot cut in it: the elements whose centroid lies in x > 0.3, |z -
// 0.5| < 0.04 are removed, leaving a gap one layer thick (open on the side x = 1) whose
// sides face each other across it; the walk started next to a node on the far side misses points on the near
// side. Nodes are kept (those of removed elements only become unused).
struct slotted_box {
  th4_box box;
  dense2D<unsigned> connect;
  slotted_box() : box(12, 0.2, 31) {
    const auto& x = box.mesh.coords;
    const auto& t = box.mesh.connect;
    std::vector<unsigned> kept;
    for (unsigned e = 0; e < t.cols(); ++e) {
      double centroid[3] = {0, 0, 0};
      for (int k = 0; k < 4; ++k)
        for (int d = 0; d < 3; ++d) centroid[d] += x(d, t(k, e)) / 4;
      if (!(centroid[0] > 0.3 && std::fabs(centroid[2] - 0.5) < 0.04)) kept.push_back(e);
    }
    connect = dense2D<unsigned>(4, kept.size());
    for (std::size_t j = 0; j < kept.size(); ++j)
      for (int k = 0; k < 4; ++k) connect(k, j) = t(k, kept[j]);
  }
  const dense2D<double>& coords() const { return box.mesh.coords; }
  // Brute force: does any element hold p with every barycentric coordinate >= -tolerance?
  bool in_some_element(const double* p, double tolerance) const {
    for (unsigned e = 0; e < connect.cols(); ++e)
      if (min_barycentric(coords(), connect, e, p) >= -tolerance) return true;
    return false;
  }
};

// Random points in elements next to the slot (some on a face: one weight 0) are all
// found, in an element that holds them; points in the gap in none; one point at a time,
// many in one call and the call that builds its own locator agree.
TEST(point_locator, finds_every_point_that_lies_in_an_element_of_a_slotted_box) {
  const slotted_box slot;
  const auto& x = slot.coords();
  const auto& t = slot.connect;
  t3::point_locator locator;
  ASSERT_EQ(locator.build(x, t), 0);
  EXPECT_EQ(locator.size(), t.cols());
  random_stream random(41);
  std::vector<point3> in, gap;
  for (unsigned e = 0; e < t.cols(); ++e) {
    double centroid_z = 0;
    for (int k = 0; k < 4; ++k) centroid_z += x(2, t(k, e)) / 4;
    if (std::fabs(centroid_z - 0.5) > 0.15) continue;
    double w[4], sum = 0;
    for (double& wi : w) sum += wi = random.uniform();
    if (e % 3 == 0) sum -= w[e % 4], w[e % 4] = 0;
    point3 p(0, 0, 0);
    for (int k = 0; k < 4; ++k)
      for (int d = 0; d < 3; ++d) p[d] += w[k] / sum * x(d, t(k, e));
    in.push_back(p);
  }
  while (gap.size() < 200) {
    const point3 p(random.uniform(0.45, 1), random.uniform(), random.uniform(0.48, 0.52));
    if (!slot.in_some_element(p.data(), 1e-9)) gap.push_back(p);
  }
  ASSERT_GT(in.size(), 1000u);
  dense2D<double> points(3, in.size() + gap.size());
  std::size_t j = 0;
  for (const auto* list : {&in, &gap})
    for (const point3& p : *list) {
      for (int d = 0; d < 3; ++d) points(d, j) = p[d];
      unsigned element = 7;
      const int status = locator.find(p, element, 1e-9);
      EXPECT_EQ(status, list == &in ? 1 : 0) << j;
      if (status == 1) {
        EXPECT_GE(min_barycentric(x, t, element, p.data()), -1e-9) << j;
      }
      ++j;
    }
  dense1D<unsigned, 8> many, built;
  EXPECT_EQ(locator.find(points, many, 1e-9), 0);
  EXPECT_EQ(t3::locate_points(x, t, points, built, 1e-9), 0);
  EXPECT_TRUE(same(many, built));
  for (std::size_t k = 0; k < points.cols(); ++k) {
    unsigned element;
    locator.find(point3(points(0, k), points(1, k), points(2, k)), element, 1e-9);
    ASSERT_EQ(many[k], element) << k;
  }
}

double gradient_field(const double* x) { return 0.5 + 2.5 * x[0] - 1.5 * x[1] + 0.75 * x[2]; }

// Values of a linear field: exact inside, and outside at the closest point of the
// boundary: beyond a flat side of the box, the foot of the perpendicular; in the slot and
// anywhere outside, within |gradient| x (distance to the mesh) of the value at the point,
// the distance taken by brute force over every boundary face. Sizes follow the field.
TEST(interpolate_projected, linear_inside_closest_boundary_point_outside) {
  const slotted_box slot;
  const unsigned mesh_nodes = unsigned(slot.coords().cols());
  dense2D<double> coords;
  coords.copy(slot.coords());
  random_stream random(43);
  std::vector<point3> extra;
  for (int k = 0; k < 100; ++k) extra.emplace_back(random.uniform(), random.uniform(), random.uniform());
  for (int k = 0; k < 60; ++k)  // beyond the side x = 1, from 1e-11 to 0.1 away
    extra.emplace_back(1 + std::pow(10.0, -11 + 10 * random.uniform()), random.uniform(0.05, 0.95),
                       random.uniform(0.05, 0.95));
  for (int k = 0; k < 60; ++k)
    extra.emplace_back(random.uniform(-0.5, 1.5), random.uniform(-0.5, 1.5), random.uniform(-0.5, 1.5));
  for (const point3& p : extra) append_nodes(coords, {p});
  dense1D<unsigned, 8> nodes;
  for (unsigned n = mesh_nodes; n < coords.cols(); ++n) nodes.push_back(n);
  dense1D<double, 8> field(coords.cols(), -7.0), sizes(coords.cols(), 0.0);
  for (unsigned n = 0; n < mesh_nodes; ++n) field[n] = gradient_field(&coords(0, n)), sizes[n] = size_at(&coords(0, n));
  ASSERT_EQ(t3::interpolate_projected(coords, slot.connect, field, nodes), 0);
  ASSERT_EQ(t3::interpolate_metrics_projected(coords, slot.connect, sizes, false), 0);
  const dense2D<unsigned> neighbors = neighbors_of(slot.connect);
  const double gradient = std::sqrt(2.5 * 2.5 + 1.5 * 1.5 + 0.75 * 0.75);
  for (unsigned n = mesh_nodes; n < coords.cols(); ++n) {
    const double* p = &coords(0, n);
    if (slot.in_some_element(p, 0)) {
      EXPECT_NEAR(field[n], gradient_field(p), 1e-12) << n;
      EXPECT_NEAR(sizes[n], size_at(p), 1e-12) << n;
      continue;
    }
    if (p[0] > 1 && p[1] > 0.05 && p[1] < 0.95 && p[2] > 0.05 && p[2] < 0.95 && std::fabs(p[2] - 0.5) > 0.15) {
      const double foot[3] = {1, p[1], p[2]};
      EXPECT_NEAR(field[n], gradient_field(foot), 1e-12) << n;
      EXPECT_NEAR(sizes[n], size_at(foot), 1e-12) << n;
    }
    double distance2 = INFINITY;  // to the boundary, by brute force
    for (unsigned e = 0; e < slot.connect.cols(); ++e)
      for (unsigned f = 0; f < 4; ++f) {
        if (neighbors(f, e) != ~0U) continue;
        double corner[3][3], w[3];
        for (int i = 0; i < 3; ++i)
          for (int d = 0; d < 3; ++d) corner[i][d] = coords(d, slot.connect(elfes::th4_faces[f][i], e)) - p[d];
        distance2 = std::min(distance2, elfes::closest_on_triangle(corner[0], corner[1], corner[2], w));
      }
    EXPECT_LE(std::fabs(field[n] - gradient_field(p)), gradient * std::sqrt(distance2) * (1 + 1e-9) + 1e-12) << n;
  }
}

// The closest point of a triangle: inside its face, beyond an edge, beyond a corner, and
// on a needle triangle (the closest point of its edges).
TEST(interpolate_projected, closest_point_of_a_triangle) {
  struct row {
    double p[3], distance2, w[3];
  };
  const double a[3] = {0, 0, 0}, b[3] = {2, 0, 0}, c[3] = {0, 2, 0};
  const row rows[] = {{{0.5, 0.5, 3}, 9, {0.5, 0.25, 0.25}},
                      {{1.5, 1.5, 0}, 0.5, {0, 0.5, 0.5}},
                      {{-1, -1, 1}, 3, {1, 0, 0}},
                      {{3, -1, 0}, 2, {0, 1, 0}}};
  for (const row& r : rows) {
    double rel[3][3], w[3];
    for (int d = 0; d < 3; ++d) rel[0][d] = a[d] - r.p[d], rel[1][d] = b[d] - r.p[d], rel[2][d] = c[d] - r.p[d];
    EXPECT_NEAR(elfes::closest_on_triangle(rel[0], rel[1], rel[2], w), r.distance2, 1e-14);
    for (int i = 0; i < 3; ++i) EXPECT_NEAR(w[i], r.w[i], 1e-14);
  }
  const double n0[3] = {-1, 1, 1}, n1[3] = {1, 1, 1}, n2[3] = {3, 1, 1}, p0[3] = {0, 0, 0};  // collinear
  double w[3];
  EXPECT_NEAR(elfes::closest_on_triangle(n0, n1, n2, w), 2, 1e-14);
  EXPECT_NEAR(w[0] * n0[0] + w[1] * n1[0] + w[2] * n2[0], p0[0], 1e-14);
}

// Positive definite by the leading minors, in long double.
bool exactly_positive_definite(const double* m) {
  const long double m11 = m[0], m12 = m[1], m22 = m[2], m13 = m[3], m23 = m[4], m33 = m[5];
  const long double d3 = m11 * (m22 * m33 - m23 * m23) - m12 * (m12 * m33 - m23 * m13) + m13 * (m12 * m23 - m22 * m13);
  return m11 > 0 && m11 * m22 - m12 * m12 > 0 && d3 > 0;
}

// Tensors at the mesh nodes that are symmetric positive definite as stored but extremely
// anisotropic (eigenvalues 1e-8, 1, 1e8 along random axes): every free node, inside or
// outside, receives a positive-definite metric.
TEST(interpolate_metrics_projected, extreme_anisotropy_gives_valid_metrics_everywhere) {
  free_nodes f(4, 150, 50);
  const std::size_t nb = f.coords.cols();
  dense2D<double> tensors(6, nb, 0.0);
  random_stream random(47);
  for (unsigned n = 0; n < f.mesh_nodes; ++n) do {
      const double a = random.uniform(0, 6.3), b = random.uniform(0, 6.3);
      const double ca = std::cos(a), sa = std::sin(a), cb = std::cos(b), sb = std::sin(b);
      const double q[3][3] = {{ca, -sa * cb, sa * sb}, {sa, ca * cb, -ca * sb}, {0, sb, cb}};
      const double eigen[3] = {1e-8, 1, 1e8};
      unsigned k = 0;
      for (int col = 0; col < 3; ++col)
        for (int row = 0; row <= col; ++row, ++k) {
          double v = 0;
          for (int i = 0; i < 3; ++i) v += q[row][i] * eigen[i] * q[col][i];
          tensors(k, n) = v;
        }
    } while (!exactly_positive_definite(&tensors(0, n)));
  ASSERT_EQ(t3::interpolate_metrics_projected(f.coords, f.box.mesh.connect, tensors, false), 0);
  for (unsigned n = f.mesh_nodes; n < nb; ++n) EXPECT_TRUE(exactly_positive_definite(&tensors(0, n))) << n;
}

}  // namespace
