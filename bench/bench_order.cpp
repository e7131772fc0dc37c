// Element order: quadratic conversion and hexahedral split of structured box meshes.
// Reports elements per second and the peak memory the call allocates on top of its
// inputs, next to the size of what it returns (connectivity plus all coordinates).
#include <benchmark/benchmark.h>

#include <memory>

#include "box_mesh.h"
#include "failing_allocator.h"
#include "zel/tessel3d.h"

namespace {

using tessel3d_test::box_kind;

template <class Call>
void run(benchmark::State& state, box_kind kind, unsigned n, Call call) {
  const tessel3d_test::box_mesh box = tessel3d_test::make_box(kind, n, n, n);
  const double elements = static_cast<double>(box.connect.cols());
  long long peak = 0;
  double output = 0;
  zel::dense2D<double> coords;
  zel::dense2D<unsigned> connect, result;
  std::unique_ptr<tessel3d_test::failing_allocator> counter;
  for (auto _ : state) {
    state.PauseTiming();
    counter.reset();
    coords.copy(box.coords);
    connect.copy(box.connect);
    result = zel::dense2D<unsigned>();
    counter = std::make_unique<tessel3d_test::failing_allocator>();  // counts the call's own memory
    state.ResumeTiming();
    if (call(coords, connect, result) != 0) state.SkipWithError("the call failed");
    state.PauseTiming();
    peak = counter->peak_bytes();
    const zel::dense2D<unsigned>& out = result.cols() ? result : connect;
    output = 8.0 * coords.rows() * coords.cols() + 4.0 * out.rows() * out.cols();
    state.ResumeTiming();
  }
  state.counters["elements/s"] = benchmark::Counter(elements, benchmark::Counter::kIsIterationInvariantRate);
  state.counters["peak_bytes"] = static_cast<double>(peak);
  state.counters["output_bytes"] = output;
  state.counters["peak/output"] = static_cast<double>(peak) / output;
}

int quadratic(zel::dense2D<double>& coords, zel::dense2D<unsigned>& connect, zel::dense2D<unsigned>&) {
  return zel::tessel3d::convert_into_quadratic(coords, connect);
}

int split(zel::dense2D<double>& coords, zel::dense2D<unsigned>& connect, zel::dense2D<unsigned>& hexahedra) {
  return zel::tessel3d::split_into_H8(coords, connect, hexahedra, {}, {});
}

// Order 4 tetrahedra (3 nodes per edge and per face, 1 inside) and order 3 hexahedra
// (2 per edge, 2 x 2 per face, 2 x 2 x 2 inside), each face listed in every element's own
// order or by the fixed rotation of the forms without options.
template <bool conforming>
int quartic_TH4_call(zel::dense2D<double>& coords, zel::dense2D<unsigned>& connect, zel::dense2D<unsigned>& out) {
  zel::tessel3d::high_order_options options;
  options.conforming_faces = conforming;
  return zel::tessel3d::convert_into_high_order(coords, connect, 3, 0, 3, 0, 0, 0, 1, out, {}, {}, options);
}
template <bool conforming>
int cubic_H8_call(zel::dense2D<double>& coords, zel::dense2D<unsigned>& connect, zel::dense2D<unsigned>& out) {
  zel::tessel3d::high_order_options options;
  options.conforming_faces = conforming;
  return zel::tessel3d::convert_into_high_order(coords, connect, 2, 4, 0, 8, 0, 0, 0, out, {}, {}, options);
}

// 6 * 55^3 = 998250 tetrahedra; 58^3 = 195112 hexahedra.
void quadratic_TH4(benchmark::State& state) { run(state, box_kind::TH4, 55, quadratic); }
void quadratic_H8(benchmark::State& state) { run(state, box_kind::H8, 58, quadratic); }
void split_TH4(benchmark::State& state) { run(state, box_kind::TH4, 55, split); }
void quartic_TH4(benchmark::State& state) { run(state, box_kind::TH4, 30, quartic_TH4_call<true>); }
void quartic_TH4_fixed_rule(benchmark::State& state) { run(state, box_kind::TH4, 30, quartic_TH4_call<false>); }
void cubic_H8(benchmark::State& state) { run(state, box_kind::H8, 40, cubic_H8_call<true>); }
void cubic_H8_fixed_rule(benchmark::State& state) { run(state, box_kind::H8, 40, cubic_H8_call<false>); }

// Cost per element against the size of the mesh and the thread count: arguments
// {0 TH4 or 1 H8, cells per side, threads}. 10^5, 10^6 and 10^7 elements: 26, 55, 119
// per side for TH4 (six per cube), 46, 100, 215 for H8.
template <int (*call)(zel::dense2D<double>&, zel::dense2D<unsigned>&, zel::dense2D<unsigned>&)>
void scaling(benchmark::State& state) {
  zel::tessel3d::set_threads(unsigned(state.range(2)));
  run(state, state.range(0) ? box_kind::H8 : box_kind::TH4, unsigned(state.range(1)), call);
  zel::tessel3d::set_threads(0);
}
void quadratic_scaling(benchmark::State& state) { scaling<quadratic>(state); }
void split_scaling(benchmark::State& state) { scaling<split>(state); }
void scaling_sizes(benchmark::internal::Benchmark* b) {
  for (int threads : {1, 2})
    for (int kind : {0, 1})
      for (int n : {kind ? 46 : 26, kind ? 100 : 55, kind ? 215 : 119}) b->Args({kind, n, threads});
}

}  // namespace

BENCHMARK(quadratic_scaling)->Apply(scaling_sizes)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(split_scaling)->Apply(scaling_sizes)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(quadratic_TH4)->Unit(benchmark::kMillisecond);
BENCHMARK(quadratic_H8)->Unit(benchmark::kMillisecond);
BENCHMARK(split_TH4)->Unit(benchmark::kMillisecond);
BENCHMARK(quartic_TH4)->Unit(benchmark::kMillisecond);
BENCHMARK(quartic_TH4_fixed_rule)->Unit(benchmark::kMillisecond);
BENCHMARK(cubic_H8)->Unit(benchmark::kMillisecond);
BENCHMARK(cubic_H8_fixed_rule)->Unit(benchmark::kMillisecond);
BENCHMARK_MAIN();
