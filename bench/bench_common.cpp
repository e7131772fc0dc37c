// Mesh model: the box generator shared with the tests, and the flips.
#include <benchmark/benchmark.h>

#include "box_mesh.h"
#include "zel/tessel3d.h"

using tessel3d_test::box_kind;

namespace {

// Cells per side giving about `elements` elements of the kind.
unsigned cells_per_side(box_kind kind, double elements) {
  double n = 1;
  while (n * n * n * tessel3d_test::box_elements_per_cell(kind) < elements) ++n;
  return static_cast<unsigned>(n);
}

void box_generation(benchmark::State& state) {
  const auto kind = static_cast<box_kind>(state.range(0));
  const unsigned n = cells_per_side(kind, static_cast<double>(state.range(1)));
  std::size_t elements = 0;
  for (auto _ : state) {
    auto mesh = tessel3d_test::make_box(kind, n, n, n, 1, 1, 1, 0.2);
    elements = mesh.connect.cols();
    benchmark::DoNotOptimize(mesh.coords.data());
  }
  state.counters["elements"] = static_cast<double>(elements);
  state.counters["elements/s"] =
      benchmark::Counter(static_cast<double>(elements), benchmark::Counter::kIsIterationInvariantRate);
}

void flip_mesh(benchmark::State& state) {
  const auto kind = static_cast<box_kind>(state.range(0));
  const zel::element_type types[] = {zel::TH4, zel::PY5, zel::W6, zel::H8};
  const unsigned n = cells_per_side(kind, 1e6);
  auto mesh = tessel3d_test::make_box(kind, n, n, n);
  for (auto _ : state) benchmark::DoNotOptimize(zel::tessel3d::flip(mesh.connect, types[state.range(0)]));
  state.counters["elements/s"] =
      benchmark::Counter(static_cast<double>(mesh.connect.cols()), benchmark::Counter::kIsIterationInvariantRate);
}

}  // namespace

BENCHMARK(box_generation)->ArgsProduct({{0, 1, 2, 3}, {1000, 1000000}})->Unit(benchmark::kMillisecond);
BENCHMARK(flip_mesh)->DenseRange(0, 3)->Unit(benchmark::kMillisecond);
BENCHMARK_MAIN();
