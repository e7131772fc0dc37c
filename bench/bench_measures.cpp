// Speed of the measures on box meshes of about 10^6 elements, next to a baseline loop
// that only reads the connectivity and the coordinates it references (the memory limit).
#include <benchmark/benchmark.h>

#include "box_mesh.h"
#include "zel/tessel3d.h"

namespace {

using tessel3d_test::box_kind;
using tessel3d_test::box_mesh;

// About 10^6 elements of each kind, built once.
const box_mesh& mesh(box_kind kind) {
  static const box_mesh meshes[4] = {
      tessel3d_test::make_box(box_kind::TH4, 55, 55, 55, 1, 1, 1, 0.1),    // 998,250 TH4
      tessel3d_test::make_box(box_kind::PY5, 55, 55, 55, 1, 1, 1, 0.1),    // 998,250 PY5
      tessel3d_test::make_box(box_kind::W6, 80, 80, 78, 1, 1, 1, 0.1),     // 998,400 W6
      tessel3d_test::make_box(box_kind::H8, 100, 100, 100, 1, 1, 1, 0.1),  // 10^6 H8, 8 rows
  };
  return meshes[static_cast<int>(kind)];
}

void set_rate(benchmark::State& state, std::size_t elements) {
  state.counters["elements/s"] = benchmark::Counter(double(elements), benchmark::Counter::kIsIterationInvariantRate);
}

// Reads every node of every column and sums its coordinates: no kernel can beat this.
void baseline(benchmark::State& state, box_kind kind) {
  const box_mesh& m = mesh(kind);
  const std::size_t n = m.connect.cols(), rows = m.connect.rows(), ld = m.connect.ld(), ldc = m.coords.ld();
  for (auto _ : state) {
    const unsigned* column = m.connect.data();
    const double* xyz = m.coords.data();
    double sum = 0;
    for (std::size_t j = 0; j < n; ++j, column += ld)
      for (std::size_t i = 0; i < rows; ++i) {
        const double* p = xyz + std::size_t(column[i]) * ldc;
        sum += p[0] + p[1] + p[2];
      }
    benchmark::DoNotOptimize(sum);
  }
  set_rate(state, n);
}

void volume(benchmark::State& state, box_kind kind) {
  const box_mesh& m = mesh(kind);
  double v = 0;
  for (auto _ : state) {
    zel::tessel3d::volume(m.coords, m.connect, v);
    benchmark::DoNotOptimize(v);
  }
  set_rate(state, m.connect.cols());
}

using angle_fn = int (*)(const zel::dense2D<double>&, const zel::dense2D<unsigned>&, bool, zel::dense1D<double, 8>&,
                         zel::dense1D<double, 8>&);

void run_angles(benchmark::State& state, angle_fn angles, box_kind kind) {
  const box_mesh& m = mesh(kind);
  zel::dense1D<double, 8> lo(m.connect.cols()), hi(m.connect.cols());
  for (auto _ : state) {
    angles(m.coords, m.connect, true, lo, hi);
    benchmark::DoNotOptimize(lo.data());
    benchmark::ClobberMemory();
  }
  set_rate(state, m.connect.cols());
}

void dihedral_angles(benchmark::State& state, box_kind kind) {
  run_angles(state, zel::tessel3d::dihedral_angles, kind);
}
void solid_angles(benchmark::State& state, box_kind kind) { run_angles(state, zel::tessel3d::solid_angles, kind); }

// The checked forms, which also list the degenerate elements (none in a box).
zel::dense1D<unsigned, 8> degenerate;
int dihedral_checked(const zel::dense2D<double>& x, const zel::dense2D<unsigned>& c, bool normalise,
                     zel::dense1D<double, 8>& lo, zel::dense1D<double, 8>& hi) {
  return zel::tessel3d::dihedral_angles(x, c, normalise, lo, hi, degenerate);
}
int solid_checked(const zel::dense2D<double>& x, const zel::dense2D<unsigned>& c, bool normalise,
                  zel::dense1D<double, 8>& lo, zel::dense1D<double, 8>& hi) {
  return zel::tessel3d::solid_angles(x, c, normalise, lo, hi, degenerate);
}
void dihedral_angles_checked(benchmark::State& state, box_kind kind) { run_angles(state, dihedral_checked, kind); }
void solid_angles_checked(benchmark::State& state, box_kind kind) { run_angles(state, solid_checked, kind); }

BENCHMARK_CAPTURE(baseline, TH4, box_kind::TH4)->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(volume, TH4, box_kind::TH4)->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(baseline, PY5, box_kind::PY5)->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(volume, PY5, box_kind::PY5)->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(baseline, W6, box_kind::W6)->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(volume, W6, box_kind::W6)->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(baseline, H8, box_kind::H8)->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(volume, H8, box_kind::H8)->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(dihedral_angles, TH4, box_kind::TH4)->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(dihedral_angles, H8, box_kind::H8)->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(solid_angles, TH4, box_kind::TH4)->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(solid_angles, H8, box_kind::H8)->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(dihedral_angles_checked, TH4, box_kind::TH4)->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(dihedral_angles_checked, H8, box_kind::H8)->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(solid_angles_checked, TH4, box_kind::TH4)->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(solid_angles_checked, H8, box_kind::H8)->Unit(benchmark::kMillisecond);

}  // namespace

BENCHMARK_MAIN();
