// Speed of the point location and the interpolations on a jittered TH4 box of about a
// million elements: points per second, for points in a spatially coherent order (the
// nodes of a second box, in their own order) and in random order.
#include <benchmark/benchmark.h>

#include <cmath>
#include <vector>

#include "box_mesh.h"
#include "locate/locate_point.h"
#include "zel/tessel3d.h"

namespace {

using namespace tessel3d_test;

// The box mesh, its adjacency, and free nodes appended to coords: either the nodes of a
// second, finer jittered box in their own (spatially coherent) order, the typical use,
// or as many random points, which defeat the caches.
struct located_mesh {
  box_mesh mesh;
  zel::dense2D<double> coords;
  zel::dense2D<unsigned> neighbors;
  zel::dense1D<unsigned, 8> node_element, nodes;
  std::size_t mesh_nodes = 0;

  located_mesh(unsigned n, unsigned second_cells, bool random_order)
      : mesh(make_box(box_kind::TH4, n, n, n, 1, 1, 1, 0.2, 5)) {
    const box_mesh second = make_box(box_kind::H8, second_cells, second_cells, second_cells, 1, 1, 1, 0.2, 9);
    const std::size_t extra = second.coords.cols();
    mesh_nodes = mesh.coords.cols();
    coords.copy(mesh.coords);
    coords.resize(3, mesh_nodes + extra);
    random_stream random(17);
    for (std::size_t k = 0; k < extra; ++k)
      for (int d = 0; d < 3; ++d) coords(d, mesh_nodes + k) = random_order ? random.uniform() : second.coords(d, k);
    zel::tessel::get_neighbors(mesh.connect, zel::TH4, neighbors);
    zel::tessel::get_node_element(mesh.connect, unsigned(coords.cols()), node_element);
    nodes.resize(extra);
    for (std::size_t k = 0; k < extra; ++k) nodes[k] = unsigned(mesh_nodes + k);
  }
};

constexpr unsigned box_cells = 55;  // 6 x 55^3 = 998250 TH4

// 10^6 points (argument: 1 for random order); the octree is built in every call.
void interpolate_field(benchmark::State& state) {
  located_mesh m(box_cells, 99, state.range(0) != 0);
  const std::size_t points = m.nodes.size();
  zel::dense2D<double> field(3, m.coords.cols(), 0.0);
  for (std::size_t n = 0; n < m.mesh_nodes; ++n)
    for (int c = 0; c < 3; ++c) field(c, n) = m.coords(c, n) * (c + 1);
  for (auto _ : state) {
    const int status =
        zel::tessel3d::interpolate(m.coords, m.mesh.connect, m.neighbors, m.node_element, field, m.nodes);
    benchmark::DoNotOptimize(status);
  }
  state.counters["points/s"] = benchmark::Counter(double(points), benchmark::Counter::kIsIterationInvariantRate);
}
BENCHMARK(interpolate_field)->Arg(0)->Arg(1)->Unit(benchmark::kMillisecond);

// About 1.6 10^5 TH4 and as many free nodes, a quarter of them outside the mesh (their
// nearest node searched in the whole tree), with (argument 1) one far element whose
// nodes stretch the octree's cube 10^6 times: the mesh's nodes then sit 20 levels down.
void interpolate_far_outlier(benchmark::State& state) {
  located_mesh m(30, 54, false);
  for (unsigned n : m.nodes)  // a tenth wider than the mesh: a quarter of the nodes lie outside
    for (int d = 0; d < 3; ++d) m.coords(d, n) = 0.5 + 1.1 * (m.coords(d, n) - 0.5);
  if (state.range(0)) {
    const unsigned n = unsigned(m.coords.cols());
    m.coords.resize(3, n + 4);
    const double far[4][3] = {{1e6, 0, 0}, {1e6 + 1, 0, 0}, {1e6, 1, 0}, {1e6, 0, -1}};
    for (int k = 0; k < 4; ++k)
      for (int d = 0; d < 3; ++d) m.coords(d, n + k) = far[k][d];
    const std::size_t e = m.mesh.connect.cols();
    m.mesh.connect.resize(4, e + 1);
    for (unsigned k = 0; k < 4; ++k) m.mesh.connect(k, e) = n + k;
    zel::tessel::get_neighbors(m.mesh.connect, zel::TH4, m.neighbors);
    zel::tessel::get_node_element(m.mesh.connect, unsigned(m.coords.cols()), m.node_element);
  }
  zel::dense1D<double, 8> field(m.coords.cols(), 0.0);
  for (std::size_t n = 0; n < m.mesh_nodes; ++n) field[n] = m.coords(0, n);
  for (auto _ : state)
    benchmark::DoNotOptimize(
        zel::tessel3d::interpolate(m.coords, m.mesh.connect, m.neighbors, m.node_element, field, m.nodes));
  state.counters["points/s"] =
      benchmark::Counter(double(m.nodes.size()), benchmark::Counter::kIsIterationInvariantRate);
}
BENCHMARK(interpolate_far_outlier)->Arg(0)->Arg(1)->Unit(benchmark::kMillisecond);

// The same with interpolate_projected, which builds a point_locator in every call.
void interpolate_field_projected(benchmark::State& state) {
  located_mesh m(box_cells, 99, state.range(0) != 0);
  const std::size_t points = m.nodes.size();
  zel::dense2D<double> field(3, m.coords.cols(), 0.0);
  for (std::size_t n = 0; n < m.mesh_nodes; ++n)
    for (int c = 0; c < 3; ++c) field(c, n) = m.coords(c, n) * (c + 1);
  for (auto _ : state)
    benchmark::DoNotOptimize(zel::tessel3d::interpolate_projected(m.coords, m.mesh.connect, field, m.nodes));
  state.counters["points/s"] = benchmark::Counter(double(points), benchmark::Counter::kIsIterationInvariantRate);
}
BENCHMARK(interpolate_field_projected)->Arg(0)->Arg(1)->Unit(benchmark::kMillisecond);

// The exported search validates the whole mesh (node IDs and adjacency) on every call,
// so its rate per point is that of two scans of a million columns.
void element_containing_point(benchmark::State& state) {
  located_mesh m(box_cells, 9, false);
  const std::size_t points = m.nodes.size();
  const zel::tessel::node_detector detector(m.mesh.coords);  // the mesh nodes only
  for (auto _ : state) {
    for (std::size_t k = 0; k < points; ++k) {
      const unsigned n = m.nodes[k];
      const zel::vector_fixed<double, 3> p(m.coords(0, n), m.coords(1, n), m.coords(2, n));
      unsigned element;
      benchmark::DoNotOptimize(zel::tessel3d::get_element_containing_point(
          m.coords, m.mesh.connect, m.neighbors, m.node_element, detector, zel::TH4, p, element, 1e-9));
    }
  }
  state.counters["points/s"] = benchmark::Counter(double(points), benchmark::Counter::kIsIterationInvariantRate);
}
BENCHMARK(element_containing_point)->Unit(benchmark::kMillisecond);

// 10^6 points in one call (argument: 1 for random order): the mesh is checked once, and
// the points are searched in an order of their own along a space-filling curve.
void elements_containing_points(benchmark::State& state) {
  located_mesh m(box_cells, 99, state.range(0) != 0);
  const std::size_t points = m.nodes.size();
  const zel::tessel::node_detector detector(m.mesh.coords);
  const zel::dense2D<double> p = m.coords.sub_matrix(0, m.mesh_nodes, 3, points);
  zel::dense1D<unsigned, 8> elements;
  for (auto _ : state) {
    benchmark::DoNotOptimize(zel::tessel3d::get_elements_containing_points(
        m.coords, m.mesh.connect, m.neighbors, m.node_element, detector, zel::TH4, p, elements, 1e-9));
  }
  state.counters["points/s"] = benchmark::Counter(double(points), benchmark::Counter::kIsIterationInvariantRate);
}
BENCHMARK(elements_containing_points)->Arg(0)->Arg(1)->Unit(benchmark::kMillisecond);

// The search that cannot miss, 10^6 points (argument: 1 for random order) with a locator
// built once outside the loop (as the detector above is), and locate_points, which builds
// its own for each call (argument + 2).
void point_locator_find(benchmark::State& state) {
  located_mesh m(box_cells, 99, (state.range(0) & 1) != 0);
  const std::size_t points = m.nodes.size();
  const zel::dense2D<double> p = m.coords.sub_matrix(0, m.mesh_nodes, 3, points);
  zel::tessel3d::point_locator locator;
  if (locator.build(m.mesh.coords, m.mesh.connect) != 0) state.SkipWithError("build");
  zel::dense1D<unsigned, 8> elements;
  for (auto _ : state) {
    if (state.range(0) < 2)
      benchmark::DoNotOptimize(locator.find(p, elements, 1e-9));
    else
      benchmark::DoNotOptimize(zel::tessel3d::locate_points(m.mesh.coords, m.mesh.connect, p, elements, 1e-9));
  }
  state.counters["points/s"] = benchmark::Counter(double(points), benchmark::Counter::kIsIterationInvariantRate);
}
BENCHMARK(point_locator_find)->DenseRange(0, 3)->Unit(benchmark::kMillisecond);

// A point just outside a half-ball fan: every element shares the centre node, the
// point's closest node, and the walks leave the mesh (arguments: nodes per circle of
// latitude, and 1 for the specified search). The specified search walks again from every
// element around the closest node; the locator asks its tree.
void fan_just_outside(benchmark::State& state) {
  const unsigned ring = unsigned(state.range(0));  // nodes on each of `ring` circles of latitude
  zel::dense2D<double> coords(3, 1);
  std::vector<unsigned> cap;
  for (unsigned i = 0; i < ring; ++i)
    for (unsigned j = 0; j < ring; ++j) {
      const double theta = 1.5707963267948966 * (i + 0.5) / ring, phi = 6.283185307179586 * (j + 0.5 * (i % 2)) / ring;
      const unsigned n = unsigned(coords.cols());
      coords.resize(3, n + 1);
      coords(0, n) = std::sin(theta) * std::cos(phi), coords(1, n) = std::sin(theta) * std::sin(phi);
      coords(2, n) = std::cos(theta);
    }
  // Tetrahedra from the centre (node 0) to the quads between neighbouring latitudes, split in two.
  std::vector<unsigned> t;
  auto id = [&](unsigned i, unsigned j) { return 1 + i * ring + j % ring; };
  for (unsigned i = 0; i + 1 < ring; ++i)
    for (unsigned j = 0; j < ring; ++j) {
      const unsigned a = id(i, j), b = id(i, j + 1), c = id(i + 1, j), d = id(i + 1, j + 1);
      t.insert(t.end(), {0, a, b, c, 0, b, d, c});
    }
  zel::dense2D<unsigned> connect(4, t.size() / 4);
  for (std::size_t k = 0; k < t.size(); ++k) connect.data()[k] = t[k];
  // Orient every element positively.
  for (std::size_t e = 0; e < connect.cols(); ++e) {
    const double* x[4];
    for (int k = 0; k < 4; ++k) x[k] = &coords(0, connect(k, e));
    double u[3], v[3], w[3];
    for (int d = 0; d < 3; ++d) u[d] = x[0][d] - x[3][d], v[d] = x[1][d] - x[3][d], w[d] = x[2][d] - x[3][d];
    if (u[0] * (v[1] * w[2] - v[2] * w[1]) - u[1] * (v[0] * w[2] - v[2] * w[0]) + u[2] * (v[0] * w[1] - v[1] * w[0]) <
        0)
      std::swap(connect(0, e), connect(1, e));
  }
  zel::dense2D<unsigned> neighbors;
  zel::dense1D<unsigned, 8> node_element;
  zel::tessel::get_neighbors(connect, zel::TH4, neighbors);
  zel::tessel::get_node_element(connect, unsigned(coords.cols()), node_element);
  const zel::tessel::node_detector detector(coords);
  zel::tessel3d::point_locator locator;
  locator.build(coords, connect);
  const zel::dense2D<double> point(3, 1, {0.01, 0.02, -0.001});  // just below the centre, outside
  zel::dense1D<unsigned, 8> elements;
  const bool specified = state.range(1) != 0;
  for (auto _ : state)
    benchmark::DoNotOptimize(specified ? zel::tessel3d::get_elements_containing_points(coords, connect, neighbors,
                                                                                       node_element, detector, zel::TH4,
                                                                                       point, elements, 0.0)
                                       : locator.find(point, elements, 0.0));
  state.counters["elements"] = double(connect.cols());
}
BENCHMARK(fan_just_outside)->ArgsProduct({{40, 80}, {0, 1}})->Unit(benchmark::kMillisecond);

// The search itself, as the exported functions run it after their checks, one point
// after the other in the given order.
void locate_point_with_detector(benchmark::State& state) {
  located_mesh m(box_cells, 99, state.range(0) != 0);
  const std::size_t points = m.nodes.size();
  const zel::tessel::node_detector detector(m.mesh.coords);
  elfes::locate_scratch scratch;
  for (auto _ : state) {
    for (std::size_t k = 0; k < points; ++k) {
      const unsigned n = m.nodes[k];
      const zel::vector_fixed<double, 3> p(m.coords(0, n), m.coords(1, n), m.coords(2, n));
      unsigned element = ~0U;
      benchmark::DoNotOptimize(elfes::locate_point(m.coords, m.mesh.connect, m.neighbors, m.node_element, detector, p,
                                                   element, 1e-9, true, scratch));
    }
  }
  state.counters["points/s"] = benchmark::Counter(double(points), benchmark::Counter::kIsIterationInvariantRate);
}
BENCHMARK(locate_point_with_detector)->Arg(0)->Arg(1)->Unit(benchmark::kMillisecond);

// About 10^5 points (46^3).
void interpolate_anisotropic_metrics(benchmark::State& state) {
  located_mesh m(box_cells, 45, state.range(0) != 0);
  const std::size_t points = m.nodes.size();
  zel::dense2D<double> metrics(6, m.coords.cols(), 0.0);
  random_stream random(3);
  for (std::size_t n = 0; n < m.mesh_nodes; ++n) {
    // A random positive-definite tensor: diagonal sizes, made anisotropic by off-diagonal terms.
    const double a = random.uniform(1, 100), b = random.uniform(1, 100), c = random.uniform(1, 100);
    const double ab = 0.5 * std::sqrt(a * b) * random.uniform(-1, 1),
                 ac = 0.3 * std::sqrt(a * c) * random.uniform(-1, 1);
    const double values[6] = {a, ab, b, ac, 0.0, c};
    for (int k = 0; k < 6; ++k) metrics(k, n) = values[k];
  }
  for (auto _ : state) {
    const int status = zel::tessel3d::interpolate_metrics(m.coords, m.mesh.connect, m.neighbors, m.node_element,
                                                          metrics, m.nodes, false);
    benchmark::DoNotOptimize(status);
  }
  state.counters["points/s"] = benchmark::Counter(double(points), benchmark::Counter::kIsIterationInvariantRate);
}
BENCHMARK(interpolate_anisotropic_metrics)->Arg(0)->Arg(1)->Unit(benchmark::kMillisecond);

// find_closest among 10^6 nodes (argument: 0 random in a cube, 1 on a plane queried off
// it, 2 on a line queried off it, 3 all at one point, 4 on a sphere queried at its
// centre), 1000 queries per iteration.
void node_detector_degenerate(benchmark::State& state) {
  const int kind = int(state.range(0));
  const std::size_t n = 1000000;
  zel::dense2D<double> coords(3, n);
  random_stream random(23);
  for (std::size_t j = 0; j < n; ++j) {
    double x[3] = {random.uniform(-1, 1), random.uniform(-1, 1), random.uniform(-1, 1)};
    if (kind == 1) x[2] = 0;
    if (kind == 2) x[1] = x[2] = 0;
    if (kind == 3) x[0] = x[1] = x[2] = 0.5;
    if (kind == 4) {
      const double r = std::sqrt(x[0] * x[0] + x[1] * x[1] + x[2] * x[2]);
      for (double& c : x) c /= r;
    }
    for (int d = 0; d < 3; ++d) coords(d, j) = x[d];
  }
  const zel::tessel::node_detector detector(coords);
  std::vector<zel::vector_fixed<double, 3>> queries;
  for (int k = 0; k < 1000; ++k)
    queries.emplace_back(kind == 4 ? 0 : random.uniform(-1, 1), kind == 4 ? 0 : random.uniform(-1, 1),
                         kind == 4 ? 0 : random.uniform(-1, 1));
  for (auto _ : state)
    for (const auto& q : queries) benchmark::DoNotOptimize(detector.find_closest(q));
  state.counters["queries/s"] =
      benchmark::Counter(double(queries.size()), benchmark::Counter::kIsIterationInvariantRate);
}
BENCHMARK(node_detector_degenerate)->DenseRange(0, 4)->Unit(benchmark::kMillisecond);

}  // namespace

BENCHMARK_MAIN();
