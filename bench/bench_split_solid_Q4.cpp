// Splitting solids along listed quadrangles: a 50 x 50 x 40 box of hexahedra (10^5
// solids) whose middle plane z = 0.5 is listed from both sides, so 5000 solids are cut;
// the conforming form with the plane listed from below only (the same cut); and the
// same box with nothing listed, which measures the copy alone.
#include <benchmark/benchmark.h>

#include "box_mesh.h"
#include "zel/tessel3d.h"

namespace {

using tessel3d_test::box_kind;

constexpr unsigned nx = 50, ny = 50, nz = 40;

// The faces of plane z = 0.5 as the cells below (top face 4 7 6 5) and above (bottom
// face 0 1 2 3) see them.
zel::dense2D<unsigned> middle_plane(const zel::dense2D<unsigned>& connect, bool both_sides) {
  const std::size_t layer = std::size_t(nx) * ny, below = layer * (nz / 2 - 1);
  zel::dense2D<unsigned> quads(4, 2 * layer);
  static const unsigned top[4] = {4, 7, 6, 5};
  for (std::size_t c = 0; c < layer; ++c)
    for (unsigned i = 0; i < 4; ++i) {
      quads(i, c) = connect(top[i], below + c);
      quads(i, layer + c) = connect(i, below + layer + c);
    }
  return both_sides ? quads : quads.sub_matrix(0, 0, 4, layer);
}

void run(benchmark::State& state, bool listed, bool conforming = false) {
  const tessel3d_test::box_mesh box = tessel3d_test::make_box(box_kind::H8, nx, ny, nz);
  const zel::dense2D<unsigned> quads = listed ? middle_plane(box.connect, !conforming) : zel::dense2D<unsigned>();
  zel::dense2D<double> coords;
  zel::dense2D<unsigned> out, reasons;
  zel::dense1D<unsigned, 8> failed;
  for (auto _ : state) {
    state.PauseTiming();
    coords.copy(box.coords);
    state.ResumeTiming();
    const int status = conforming ? zel::tessel3d::split_solid_Q4(coords, box.connect, quads, 0.1, out, reasons)
                                  : zel::tessel3d::split_solid_Q4(coords, box.connect, quads, 0.1, out, failed);
    if (status != 0) state.SkipWithError("the call failed");
  }
  state.counters["solids/s"] =
      benchmark::Counter(static_cast<double>(box.connect.cols()), benchmark::Counter::kIsIterationInvariantRate);
  state.counters["split"] = static_cast<double>(out.cols() - box.connect.cols()) / 6;  // 7 pieces each
}

void split_H8_middle_plane(benchmark::State& state) { run(state, true); }
void split_H8_middle_plane_conforming(benchmark::State& state) { run(state, true, true); }
void split_H8_nothing_listed(benchmark::State& state) { run(state, false); }

}  // namespace

BENCHMARK(split_H8_middle_plane)->Unit(benchmark::kMillisecond);
BENCHMARK(split_H8_middle_plane_conforming)->Unit(benchmark::kMillisecond);
BENCHMARK(split_H8_nothing_listed)->Unit(benchmark::kMillisecond);
BENCHMARK_MAIN();
