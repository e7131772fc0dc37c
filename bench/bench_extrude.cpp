// Extrusion speed: each family sweeps a surface of about 10^5 triangles (the bottom faces
// of a W6 box) or 10^5 quadrangles (of an H8 box) into 10 layers. Reports solids per second.
// Every iteration but translate_reused starts from fresh outputs, so the figures include
// obtaining and first touching tens of megabytes (the allocator's large blocks come as
// fresh pages from the system: that part depends on the machine and its load).
#include <benchmark/benchmark.h>

#include "box_mesh.h"
#include "zel/tessel3d.h"

namespace {

using zel::dense1D;
using zel::dense2D;
using vec3 = zel::vector_fixed<double, 3>;
namespace t3 = zel::tessel3d;
using tessel3d_test::box_kind;

constexpr unsigned nb_layers = 10;

struct surface {
  dense2D<double> coords;  // box nodes (the top ones unused) and 11 polyline nodes
  dense2D<unsigned> faces;
  dense2D<double> normals;
  dense1D<unsigned, 8> line;
};

// The z = 0 faces of a one-cell-thick box: rows 0-2 of its W6 or rows 0-3 of its H8.
const surface& make_surface(bool quadrangles) {
  static surface cache[2];
  surface& s = cache[quadrangles];
  if (!s.faces.empty()) return s;
  const unsigned n = quadrangles ? 317 : 224;  // 100489 quadrangles or 100352 triangles
  const auto box = tessel3d_test::make_box(quadrangles ? box_kind::H8 : box_kind::W6, n, n, 1);
  const std::size_t rows = quadrangles ? 4 : 3, nb_nodes = box.coords.cols();
  s.faces.resize(rows, box.connect.cols());
  for (std::size_t j = 0; j < box.connect.cols(); ++j)
    for (std::size_t r = 0; r < rows; ++r) s.faces(r, j) = box.connect(r, j);
  s.coords.resize(3, nb_nodes + nb_layers + 1);
  for (std::size_t j = 0; j < nb_nodes; ++j)
    for (unsigned c = 0; c < 3; ++c) s.coords(c, j) = box.coords(c, j);
  for (unsigned k = 0; k <= nb_layers; ++k) {
    s.coords(0, nb_nodes + k) = -1, s.coords(1, nb_nodes + k) = -1, s.coords(2, nb_nodes + k) = 0.1 * k;
    s.line.push_back(static_cast<unsigned>(nb_nodes + k));
  }
  s.normals.resize(3, s.coords.cols(), 0.0);
  for (std::size_t j = 0; j < s.normals.cols(); ++j) s.normals(2, j) = 0.5;
  return s;
}

template <class Call>
void run(benchmark::State& state, Call call) {
  const surface& s = make_surface(state.range(0) != 0);
  for (auto _ : state) {
    state.PauseTiming();
    dense2D<double> coords;
    coords.copy(s.coords);
    dense2D<unsigned> connectE;
    state.ResumeTiming();
    const int status = call(s, coords, connectE);
    if (status != 0) state.SkipWithError("extrusion failed");
    benchmark::DoNotOptimize(connectE.data());
  }
  const double solids = double(nb_layers) * double(s.faces.cols());
  state.counters["solids/s"] = benchmark::Counter(solids, benchmark::Counter::kIsIterationInvariantRate);
}

void translate(benchmark::State& state) {
  run(state, [](const surface& s, dense2D<double>& coords, dense2D<unsigned>& E) {
    return t3::extrude_translate(coords, s.faces, vec3(0.1, 0.2, 1.0), nb_layers, E);
  });
}

// The same call on outputs kept from one iteration to the next (brought back to their
// entry columns, which keeps their buffers): the cost without fresh memory.
void translate_reused(benchmark::State& state) {
  const surface& s = make_surface(state.range(0) != 0);
  dense2D<double> coords;
  coords.copy(s.coords);
  dense2D<unsigned> connectE;
  for (auto _ : state) {
    coords.resize(3, s.coords.cols());
    connectE.resize(connectE.rows(), 0);
    if (t3::extrude_translate(coords, s.faces, vec3(0.1, 0.2, 1.0), nb_layers, connectE) != 0)
      state.SkipWithError("extrusion failed");
    benchmark::DoNotOptimize(connectE.data());
  }
  const double solids = double(nb_layers) * double(s.faces.cols());
  state.counters["solids/s"] = benchmark::Counter(solids, benchmark::Counter::kIsIterationInvariantRate);
}

void translate_graded(benchmark::State& state) {
  run(state, [](const surface& s, dense2D<double>& coords, dense2D<unsigned>& E) {
    return t3::extrude_translate(coords, s.faces, vec3(0, 0, 1.0), 0.068, 0.136, false, E);  // ln 2 / 0.068: 10 layers
  });
}

void rotate(benchmark::State& state) {
  run(state, [](const surface& s, dense2D<double>& coords, dense2D<unsigned>& E) {
    return t3::extrude_rotate(coords, s.faces, vec3(-1, 0, 0), vec3(0, 1.0, 0), nb_layers, E);
  });
}

void spiral(benchmark::State& state) {
  run(state, [](const surface& s, dense2D<double>& coords, dense2D<unsigned>& E) {
    return t3::extrude_spiral(coords, s.faces, vec3(-1, 0, 0), vec3(0, 1.0, 0), vec3(0, 0.5, 0), nb_layers, E);
  });
}

void normal_given(benchmark::State& state) {
  run(state, [](const surface& s, dense2D<double>& coords, dense2D<unsigned>& E) {
    return t3::extrude_normal(coords, s.faces, s.normals, nb_layers, E);
  });
}

void normal_thickness(benchmark::State& state) {
  run(state, [](const surface& s, dense2D<double>& coords, dense2D<unsigned>& E) {
    return t3::extrude_normal(coords, s.faces, 0.5, nb_layers, E);
  });
}

void line_factors(benchmark::State& state) {
  static const dense1D<double, 8> scales(nb_layers + 1, 1.0);
  run(state, [](const surface& s, dense2D<double>& coords, dense2D<unsigned>& E) {
    return t3::extrude_line(coords, s.faces, s.line, vec3(0, 0, 1), scales, E);
  });
}

void line_tensors(benchmark::State& state) {
  static const dense2D<double> metrics(
      6, nb_layers + 1,
      {1, 0, 1, 0, 0, 1, 1, 0, 1, 0, 0, 1, 1, 0, 1, 0, 0, 1, 1, 0, 1, 0, 0, 1, 1, 0, 1, 0, 0, 1, 1, 0, 1,
       0, 0, 1, 1, 0, 1, 0, 0, 1, 1, 0, 1, 0, 0, 1, 1, 0, 1, 0, 0, 1, 1, 0, 1, 0, 0, 1, 1, 0, 1, 0, 0, 1});
  run(state, [](const surface& s, dense2D<double>& coords, dense2D<unsigned>& E) {
    return t3::extrude_line(coords, s.faces, s.line, vec3(0, 0, 1), metrics, E);
  });
}

}  // namespace

// Argument: 0 triangles, 1 quadrangles.
BENCHMARK(translate)->Arg(0)->Arg(1)->Unit(benchmark::kMillisecond);
BENCHMARK(translate_reused)->Arg(0)->Arg(1)->Unit(benchmark::kMillisecond);
BENCHMARK(translate_graded)->Arg(0)->Arg(1)->Unit(benchmark::kMillisecond);
BENCHMARK(rotate)->Arg(0)->Arg(1)->Unit(benchmark::kMillisecond);
BENCHMARK(spiral)->Arg(0)->Arg(1)->Unit(benchmark::kMillisecond);
BENCHMARK(normal_given)->Arg(0)->Arg(1)->Unit(benchmark::kMillisecond);
BENCHMARK(normal_thickness)->Arg(0)->Arg(1)->Unit(benchmark::kMillisecond);
BENCHMARK(line_factors)->Arg(0)->Arg(1)->Unit(benchmark::kMillisecond);
BENCHMARK(line_tensors)->Arg(0)->Arg(1)->Unit(benchmark::kMillisecond);

BENCHMARK_MAIN();
