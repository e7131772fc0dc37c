// Speed of the sibling library helpers: nearest-node search and face adjacency.
#include <benchmark/benchmark.h>

#include <random>

#include "box_mesh.h"
#include "zel/tessel.h"

using namespace tessel3d_test;

namespace {

zel::dense2D<double> random_points(std::size_t n, std::uint64_t seed) {
  random_stream random(seed);
  zel::dense2D<double> coords(3, n);
  for (std::size_t j = 0; j < n; ++j)
    for (int d = 0; d < 3; ++d) coords(d, j) = random.uniform();
  return coords;
}

void node_detector_build(benchmark::State& state) {
  const std::size_t n = static_cast<std::size_t>(state.range(0));
  const zel::dense2D<double> coords = random_points(n, 1);
  for (auto _ : state) {
    zel::tessel::node_detector detector(coords);
    benchmark::DoNotOptimize(detector.size());
  }
  state.counters["points/s"] = benchmark::Counter(double(n), benchmark::Counter::kIsIterationInvariantRate);
}
BENCHMARK(node_detector_build)->RangeMultiplier(10)->Range(1000, 1000000)->Unit(benchmark::kMillisecond);

template <bool closest>
void node_detector_query(benchmark::State& state) {
  const std::size_t n = static_cast<std::size_t>(state.range(0));
  const zel::tessel::node_detector detector(random_points(n, 1));
  const std::size_t nb_queries = 10000;
  const zel::dense2D<double> queries = random_points(nb_queries, 2);
  for (auto _ : state)
    for (std::size_t k = 0; k < nb_queries; ++k) {
      const zel::vector_fixed<double, 3> p(queries(0, k), queries(1, k), queries(2, k));
      benchmark::DoNotOptimize(closest ? detector.find_closest(p) : detector.find_close(p));
    }
  state.counters["points/s"] = benchmark::Counter(double(nb_queries), benchmark::Counter::kIsIterationInvariantRate);
}
BENCHMARK_TEMPLATE(node_detector_query, true)->RangeMultiplier(10)->Range(1000, 1000000);
BENCHMARK_TEMPLATE(node_detector_query, false)->RangeMultiplier(10)->Range(1000, 1000000);

// state.range(0): box kind (TH4, PY5, W6, H8), state.range(1): cells per side; range(2): 1 mixed
// layout, 2 columns in random order (no locality between consecutive elements).
void get_neighbors(benchmark::State& state) {
  const box_kind kind = static_cast<box_kind>(state.range(0));
  const unsigned side = static_cast<unsigned>(state.range(1));
  const bool mixed = state.range(2) == 1;
  const box_mesh mesh = make_box(kind, side, side, side);
  zel::dense2D<unsigned> connect = mixed ? to_mixed8(mesh.connect) : mesh.connect;
  if (state.range(2) == 2) {
    connect = zel::dense2D<unsigned>();
    connect.copy(mesh.connect);
    std::mt19937 random(1);
    for (std::size_t j = connect.cols(); j > 1; --j) {
      const std::size_t k = random() % j;
      for (std::size_t r = 0; r < connect.rows(); ++r) std::swap(connect(r, j - 1), connect(r, k));
    }
  }
  static const zel::element_type types[] = {zel::TH4, zel::PY5, zel::W6, zel::H8};
  const zel::element_type type = mixed ? zel::SOLID_MIX8 : types[state.range(0)];
  zel::dense2D<unsigned> neighbors;
  for (auto _ : state) benchmark::DoNotOptimize(zel::tessel::get_neighbors(connect, type, neighbors));
  state.counters["elements/s"] =
      benchmark::Counter(double(connect.cols()), benchmark::Counter::kIsIterationInvariantRate);
}
BENCHMARK(get_neighbors)
    ->ArgsProduct({{0, 1, 2, 3}, {10, 50}, {0}})
    ->Args({3, 100, 0})
    ->Args({0, 50, 1})
    ->Args({3, 50, 1})
    ->Args({0, 50, 2})
    ->Unit(benchmark::kMillisecond);

}  // namespace

BENCHMARK_MAIN();
