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
    const int status = zel::tessel3d::interpolate(m.coords, m.mesh.connect, m.neighbors, m.node_element, field, m.nodes);
    benchmark::DoNotOptimize(status);
  }
  state.counters["points/s"] = benchmark::Counter(double(points), benchmark::Counter::kIsIterationInvariantRate);
}
BENCHMARK(interpolate_field)->Arg(0)->Arg(1)->Unit(benchmark::kMillisecond);

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
      benchmark::DoNotOptimize(elfes::locate_point(m.coords, m.mesh.connect, m.neighbors, m.node_element, detector,
                                                   p, element, 1e-9, true, scratch));
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
    const double ab = 0.5 * std::sqrt(a * b) * random.uniform(-1, 1), ac = 0.3 * std::sqrt(a * c) * random.uniform(-1, 1);
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
