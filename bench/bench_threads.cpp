// Speed of the families that cut their work into chunks, on 1 and 2 threads (the
// argument), on meshes of about 10^6 elements: elements (or faces, nodes) per second.
// The ratio of the two rates is what a second core buys; a family whose rate barely
// moves is bound by memory bandwidth, not arithmetic.
#include <benchmark/benchmark.h>

#include "box_mesh.h"
#include "zel/tessel3d.h"

namespace {

using tessel3d_test::box_kind;
using tessel3d_test::box_mesh;
namespace t3 = zel::tessel3d;

const box_mesh& th4() {
  static const box_mesh m = tessel3d_test::make_box(box_kind::TH4, 55, 55, 55, 1, 1, 1, 0.1);  // 998,250 TH4
  return m;
}
const box_mesh& h8() {
  static const box_mesh m = tessel3d_test::make_box(box_kind::H8, 100, 100, 100, 1, 1, 1, 0.1);  // 10^6 H8
  return m;
}
// 10^6 H27 columns, converted once.
const zel::dense2D<unsigned>& h27() {
  static const zel::dense2D<unsigned> c = [] {
    box_mesh m = h8();
    zel::dense2D<double> coords;
    coords.copy(m.coords);
    zel::dense2D<unsigned> connect;
    connect.copy(m.connect);
    t3::convert_into_quadratic(coords, connect);
    return connect;
  }();
  return c;
}
// A 1000 x 1000 grid of quadrangles (the bottom of a one-layer H8 box).
const box_mesh& grid() {
  static const box_mesh m = [] {
    box_mesh b = tessel3d_test::make_box(box_kind::H8, 1000, 1000, 1, 1, 1, 0.01);
    b.connect = b.connect.sub_matrix(0, 0, 4, b.connect.cols());
    return b;
  }();
  return m;
}

void threads_from(benchmark::State& state) { t3::set_threads(unsigned(state.range(0))); }
void rate(benchmark::State& state, std::size_t items) {
  state.counters["elements/s"] = benchmark::Counter(double(items), benchmark::Counter::kIsIterationInvariantRate);
  t3::set_threads(0);
}

void circumcenters(benchmark::State& state) {
  threads_from(state);
  zel::dense2D<double> centres;
  for (auto _ : state) t3::circumcenters(th4().coords, th4().connect, centres);
  rate(state, th4().connect.cols());
}

void flip_H8(benchmark::State& state) {
  threads_from(state);
  zel::dense2D<unsigned> c;
  c.copy(h8().connect);
  for (auto _ : state) t3::flip(c, zel::H8);
  rate(state, c.cols());
}

// The copy of the quadratic columns is timed too (paused timers cost more than it).
void convert_into_linear(benchmark::State& state) {
  threads_from(state);
  for (auto _ : state) {
    state.PauseTiming();
    zel::dense2D<unsigned> c;
    c.copy(h27());
    state.ResumeTiming();
    t3::convert_into_linear(c);
  }
  rate(state, h27().cols());
}

void extrude_translate(benchmark::State& state) {
  threads_from(state);
  for (auto _ : state) {
    state.PauseTiming();
    zel::dense2D<double> coords;
    coords.copy(grid().coords);
    zel::dense2D<unsigned> E;
    state.ResumeTiming();
    t3::extrude_translate(coords, grid().connect, zel::vector_fixed<double, 3>(0, 0, 1), 4u, E);
  }
  rate(state, 4 * grid().connect.cols());  // solids made
}

void get_node_element(benchmark::State& state) {
  threads_from(state);
  zel::dense1D<unsigned, 8> first;
  for (auto _ : state) zel::tessel::get_node_element(th4().connect, unsigned(th4().coords.cols()), first);
  rate(state, th4().connect.cols());
}

void dihedral_angles(benchmark::State& state) {
  threads_from(state);
  const std::size_t m = th4().connect.cols();
  zel::dense1D<double, 8> lo(m), hi(m);
  zel::dense1D<unsigned, 8> degenerate;
  for (auto _ : state) t3::dihedral_angles(th4().coords, th4().connect, false, lo, hi, degenerate);
  rate(state, m);
}

void solid_angles(benchmark::State& state) {
  threads_from(state);
  const std::size_t m = th4().connect.cols();
  zel::dense1D<double, 8> lo(m), hi(m);
  for (auto _ : state) t3::solid_angles(th4().coords, th4().connect, false, lo, hi);
  rate(state, m);
}

void node_detector(benchmark::State& state) {
  threads_from(state);
  for (auto _ : state) benchmark::DoNotOptimize(zel::tessel::node_detector(h8().coords).size());
  rate(state, h8().coords.cols());  // nodes
}

void point_locator_build(benchmark::State& state) {
  threads_from(state);
  for (auto _ : state) {
    t3::point_locator locator;
    benchmark::DoNotOptimize(locator.build(th4().coords, th4().connect));
  }
  rate(state, th4().connect.cols());
}

// 10^6 random points, one locator built beforehand; and the same points appended to
// the mesh's nodes, filled by interpolate_projected (its locator built in the call).
const zel::dense2D<double>& random_points() {
  static const zel::dense2D<double> p = [] {
    zel::dense2D<double> x(3, 1000000);
    tessel3d_test::random_stream random(21);
    for (std::size_t j = 0; j < x.cols(); ++j)
      for (int d = 0; d < 3; ++d) x(d, j) = random.uniform();
    return x;
  }();
  return p;
}

void locate(benchmark::State& state) {
  threads_from(state);
  t3::point_locator locator;
  locator.build(th4().coords, th4().connect);
  zel::dense1D<unsigned, 8> found;
  for (auto _ : state) locator.find(random_points(), found, 0.0);
  rate(state, random_points().cols());  // points
}

void interpolate_projected(benchmark::State& state) {
  threads_from(state);
  const std::size_t n = th4().coords.cols(), k = random_points().cols();
  zel::dense2D<double> coords(3, n + k);
  zel::dense1D<double, 8> field(n + k, 0.0);
  zel::dense1D<unsigned, 8> nodes(k);
  for (std::size_t j = 0; j < n + k; ++j)
    for (int d = 0; d < 3; ++d) coords(d, j) = j < n ? th4().coords(d, j) : random_points()(d, j - n);
  for (std::size_t j = 0; j < n; ++j) field[j] = coords(0, j) + 2 * coords(1, j);
  for (std::size_t j = 0; j < k; ++j) nodes[j] = unsigned(n + j);
  for (auto _ : state) t3::interpolate_projected(coords, th4().connect, field, nodes);
  rate(state, k);  // points
}

#define BY_THREADS(f) BENCHMARK(f)->Arg(1)->Arg(2)->Unit(benchmark::kMillisecond)->UseRealTime()
BY_THREADS(circumcenters);
BY_THREADS(flip_H8);
BY_THREADS(convert_into_linear);
BY_THREADS(extrude_translate);
BY_THREADS(get_node_element);
BY_THREADS(dihedral_angles);
BY_THREADS(solid_angles);
BY_THREADS(node_detector);
BY_THREADS(point_locator_build);
BY_THREADS(locate);
BY_THREADS(interpolate_projected);

}  // namespace

BENCHMARK_MAIN();
