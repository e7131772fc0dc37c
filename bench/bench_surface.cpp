// Duplication of surface nodes: a TH4 box of about 10^6 elements cut by the plane
// through its middle. The adjacency and node_element are built once, outside the timed
// region; each iteration times the whole call on fresh coordinates.
#include <benchmark/benchmark.h>

#include "box_mesh.h"
#include "zel/tessel3d.h"

namespace {

using namespace tessel3d_test;

struct cut_box {
  box_mesh mesh;
  zel::dense2D<unsigned> neighbors, surface;
  zel::dense1D<unsigned, 8> node_element;
  std::size_t nb_surface_nodes = 0;
};

// n x n x n cells of six TH4; the surface is the bottom of the cells of layer n / 2,
// two triangles per cell with their normals up.
const cut_box& box(unsigned n) {
  static cut_box b;
  static unsigned made = 0;
  if (made == n) return b;
  b.mesh = make_box(box_kind::TH4, n, n, n);
  zel::tessel::get_neighbors(b.mesh.connect, zel::TH4, b.neighbors);
  zel::tessel::get_node_element(b.mesh.connect, unsigned(b.mesh.coords.cols()), b.node_element);
  const unsigned k = n / 2, p = n + 1;
  auto node = [&](unsigned i, unsigned j) { return (k * p + j) * p + i; };
  b.surface.resize(3, std::size_t(2) * n * n);
  unsigned* column = b.surface.data();
  for (unsigned j = 0; j < n; ++j)
    for (unsigned i = 0; i < n; ++i) {
      const unsigned q[4] = {node(i, j), node(i + 1, j), node(i + 1, j + 1), node(i, j + 1)};
      column[0] = q[0], column[1] = q[1], column[2] = q[2], column += 3;
      column[0] = q[0], column[1] = q[2], column[2] = q[3], column += 3;
    }
  b.nb_surface_nodes = std::size_t(p) * p;
  made = n;
  return b;
}

// Arguments: cells per side, sides (1 positive, 2 negative, 3 both).
void duplicate_surface_nodes_TH4(benchmark::State& state) {
  const cut_box& b = box(unsigned(state.range(0)));
  const bool positive = state.range(1) & 1, negative = state.range(1) & 2;
  const zel::dense1D<unsigned, 8> excluded;
  zel::dense2D<double> coords;
  zel::dense2D<unsigned> connect;
  int added = 0;
  for (auto _ : state) {
    state.PauseTiming();
    coords.copy(b.mesh.coords);
    connect = b.mesh.connect;  // read only by the call, which swaps in its own copy
    state.ResumeTiming();
    added = zel::tessel3d::duplicate_surface_nodes(coords, connect, b.neighbors, b.node_element, b.surface, excluded,
                                                   positive, negative, zel::TH4);
    benchmark::DoNotOptimize(added);
  }
  if (added <= 0) state.SkipWithError("no node added");
  state.counters["elements"] = double(b.mesh.connect.cols());
  state.counters["added"] = added;
  state.counters["surface_nodes/s"] = benchmark::Counter(double(added), benchmark::Counter::kIsIterationInvariantRate);
  state.counters["elements/s"] =
      benchmark::Counter(double(b.mesh.connect.cols()), benchmark::Counter::kIsIterationInvariantRate);
}

BENCHMARK(duplicate_surface_nodes_TH4)->Args({20, 1})->Args({55, 1})->Args({55, 3})->Unit(benchmark::kMillisecond);

}  // namespace

BENCHMARK_MAIN();
