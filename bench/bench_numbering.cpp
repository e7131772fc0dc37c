// Every family that keys a table by edges or faces, on a box mesh numbered naturally and
// numbered so that an additive hash of the node IDs gives every quadrangle one value
// (crafted_numbering.h). The two times of a family should stay within a small factor.
#include <benchmark/benchmark.h>

#include "crafted_numbering.h"
#include "zel/tessel.h"
#include "zel/tessel3d.h"

namespace {

using tessel3d_test::box_kind;
using tessel3d_test::box_mesh;
using zel::dense1D;
using zel::dense2D;

box_mesh numbered(box_kind kind, unsigned n, bool crafted) {
  const box_mesh natural = tessel3d_test::make_box(kind, n, n, n);
  box_mesh mesh = crafted ? tessel3d_test::parity_numbering(natural, n, n, n).mesh : natural;
  if (kind == box_kind::PY5) mesh.connect = tessel3d_test::to_mixed8(mesh.connect);
  return mesh;
}

// Runs call(coords, connect) on fresh copies of the mesh in every iteration.
template <class Call>
void run(benchmark::State& state, box_kind kind, unsigned n, Call call) {
  const box_mesh mesh = numbered(kind, n, state.range(0) != 0);
  dense2D<double> coords;
  dense2D<unsigned> connect;
  for (auto _ : state) {
    state.PauseTiming();
    coords.copy(mesh.coords);
    connect.copy(mesh.connect);
    state.ResumeTiming();
    if (call(coords, connect) != 0) state.SkipWithError("the call failed");
  }
  state.SetLabel(state.range(0) ? "crafted" : "natural");
  state.counters["elements/s"] =
      benchmark::Counter(static_cast<double>(mesh.connect.cols()), benchmark::Counter::kIsIterationInvariantRate);
}

// 46^3 = 97336 H8, 6 * 22^3 = 63888 TH4, 6 * 20^3 = 48000 PY5.
void quadratic_H8(benchmark::State& s) {
  run(s, box_kind::H8, 46,
      [](dense2D<double>& x, dense2D<unsigned>& c) { return zel::tessel3d::convert_into_quadratic(x, c); });
}
void quadratic_TH4(benchmark::State& s) {
  run(s, box_kind::TH4, 22,
      [](dense2D<double>& x, dense2D<unsigned>& c) { return zel::tessel3d::convert_into_quadratic(x, c); });
}
void high_order_PY5(benchmark::State& s) {
  run(s, box_kind::PY5, 20, [](dense2D<double>& x, dense2D<unsigned>& c) {
    return zel::tessel3d::convert_into_high_order(x, c, 2, 4, 3, 0, 0, 1, 0, {}, {});
  });
}
void split_into_H8_TH4(benchmark::State& s) {
  run(s, box_kind::TH4, 22, [](dense2D<double>& x, dense2D<unsigned>& c) {
    dense2D<unsigned> hexahedra;
    return zel::tessel3d::split_into_H8(x, c, hexahedra, {}, {});
  });
}

// Every face of every cell listed as its cell sees it: 6 * 46^3 quadrangles.
void split_solid_Q4_H8(benchmark::State& s) {
  run(s, box_kind::H8, 46, [](dense2D<double>& x, dense2D<unsigned>& c) {
    static const unsigned faces[6][4] = {{0, 3, 7, 4}, {1, 5, 6, 2}, {0, 4, 5, 1},
                                         {3, 2, 6, 7}, {0, 1, 2, 3}, {4, 7, 6, 5}};
    dense2D<unsigned> quads(4, 6 * c.cols()), out;
    for (std::size_t j = 0; j < c.cols(); ++j)
      for (unsigned f = 0; f < 6; ++f)
        for (unsigned i = 0; i < 4; ++i) quads(i, 6 * j + f) = c(faces[f][i], j);
    dense1D<unsigned, 8> failed;
    return zel::tessel3d::split_solid_Q4(x, c, quads, -1.0, out, failed);
  });
}

// The surface: every bottom face (0 1 2 3) of the cells above the middle plane.
void duplicate_surface_nodes_H8(benchmark::State& s) {
  run(s, box_kind::H8, 46, [](dense2D<double>& x, dense2D<unsigned>& c) {
    dense2D<unsigned> neighbors;
    dense1D<unsigned, 8> node_element, excluded;
    if (zel::tessel::get_neighbors(c, zel::H8, neighbors) != 0 ||
        zel::tessel::get_node_element(c, unsigned(x.cols()), node_element) != 0)
      return -1;
    const std::size_t layer = 46 * 46, first = layer * 23;
    dense2D<unsigned> surface(4, layer);
    for (std::size_t j = 0; j < layer; ++j)
      for (unsigned i = 0; i < 4; ++i) surface(i, j) = c(i, first + j);
    const int added =
        zel::tessel3d::duplicate_surface_nodes(x, c, neighbors, node_element, surface, excluded, true, false, zel::H8);
    return added > 0 ? 0 : -1;
  });
}

}  // namespace

BENCHMARK(quadratic_H8)->Arg(0)->Arg(1)->Unit(benchmark::kMillisecond);
BENCHMARK(quadratic_TH4)->Arg(0)->Arg(1)->Unit(benchmark::kMillisecond);
BENCHMARK(high_order_PY5)->Arg(0)->Arg(1)->Unit(benchmark::kMillisecond);
BENCHMARK(split_into_H8_TH4)->Arg(0)->Arg(1)->Unit(benchmark::kMillisecond);
BENCHMARK(split_solid_Q4_H8)->Arg(0)->Arg(1)->Unit(benchmark::kMillisecond);
BENCHMARK(duplicate_surface_nodes_H8)->Arg(0)->Arg(1)->Unit(benchmark::kMillisecond);
BENCHMARK_MAIN();
