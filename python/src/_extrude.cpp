// Bindings (tessel3d._native): the five extrusion families, long forms (solids, lateral faces of
// the swept edges and the far cap), by layer count or by sizes. The outputs the caller
// passes are copied first, since the library appends to them and rolls them back.
#include "module.h"

#include "arrays.h"
#include "zel/tessel3d.h"

namespace py = pybind11;
namespace t3 = zel::tessel3d;
using t3py::matrix_view;
using t3py::point3;
using t3py::to_numpy;

namespace {

struct sweep {
  py::object caller_coords;
  zel::dense2D<double> coords;
  zel::dense2D<unsigned> surface, solids, edges, lateral, cap;

  sweep(py::array x, py::array s, py::object solids_in, py::object edges_in, py::object lateral_in, py::object cap_in)
      : caller_coords(x),
        coords(matrix_view<double>(x, "coords")),
        surface(matrix_view<unsigned>(s, "surface")),
        solids(t3py::owned_copy<unsigned>(solids_in, "solids")),
        edges(t3py::optional_matrix<unsigned>(edges_in, "edges")),
        lateral(t3py::owned_copy<unsigned>(lateral_in, "lateral")),
        cap(t3py::owned_copy<unsigned>(cap_in, "cap")) {}

  template <class Call>
  py::tuple run(Call call) {
    int status;
    {
      py::gil_scoped_release release;
      status = call(*this);
    }
    return py::make_tuple(status, to_numpy(coords, {&caller_coords}), to_numpy(solids), to_numpy(lateral),
                          to_numpy(cap));
  }
};

#define SWEEP_ARGS py::array coords, py::array surface
#define OUTPUT_ARGS py::object solids, py::object edges, py::object lateral, py::object cap
#define MAKE_SWEEP sweep s(coords, surface, solids, edges, lateral, cap)

}  // namespace

void t3py::register_extrude(py::module_& m) {

  m.def("extrude_translate", [](SWEEP_ARGS, py::object T, unsigned layers, OUTPUT_ARGS) {
    MAKE_SWEEP;
    const auto t = point3(T);
    return s.run([&](sweep& w) {
      return t3::extrude_translate(w.coords, w.surface, t, layers, w.solids, w.edges, w.lateral, w.cap);
    });
  });
  m.def("extrude_translate_sizes", [](SWEEP_ARGS, py::object T, double h0, double h1, bool even, OUTPUT_ARGS) {
    MAKE_SWEEP;
    const auto t = point3(T);
    return s.run([&](sweep& w) {
      return t3::extrude_translate(w.coords, w.surface, t, h0, h1, even, w.solids, w.edges, w.lateral, w.cap);
    });
  });

  m.def("extrude_rotate", [](SWEEP_ARGS, py::object C, py::object R, unsigned layers, OUTPUT_ARGS) {
    MAKE_SWEEP;
    const auto c = point3(C), r = point3(R);
    return s.run([&](sweep& w) {
      return t3::extrude_rotate(w.coords, w.surface, c, r, layers, w.solids, w.edges, w.lateral, w.cap);
    });
  });
  m.def("extrude_rotate_sizes", [](SWEEP_ARGS, py::object C, py::object R, double h0, double h1, bool even,
                                   OUTPUT_ARGS) {
    MAKE_SWEEP;
    const auto c = point3(C), r = point3(R);
    return s.run([&](sweep& w) {
      return t3::extrude_rotate(w.coords, w.surface, c, r, h0, h1, even, w.solids, w.edges, w.lateral, w.cap);
    });
  });

  m.def("extrude_spiral", [](SWEEP_ARGS, py::object C, py::object R, py::object T, unsigned layers, OUTPUT_ARGS) {
    MAKE_SWEEP;
    const auto c = point3(C), r = point3(R), t = point3(T);
    return s.run([&](sweep& w) {
      return t3::extrude_spiral(w.coords, w.surface, c, r, t, layers, w.solids, w.edges, w.lateral, w.cap);
    });
  });
  m.def("extrude_spiral_sizes", [](SWEEP_ARGS, py::object C, py::object R, py::object T, double h0, double h1,
                                   bool even, OUTPUT_ARGS) {
    MAKE_SWEEP;
    const auto c = point3(C), r = point3(R), t = point3(T);
    return s.run([&](sweep& w) {
      return t3::extrude_spiral(w.coords, w.surface, c, r, t, h0, h1, even, w.solids, w.edges, w.lateral, w.cap);
    });
  });

  m.def("extrude_normal_given", [](SWEEP_ARGS, py::array normals, unsigned layers, OUTPUT_ARGS) {
    MAKE_SWEEP;
    const zel::dense2D<double> n = matrix_view<double>(normals, "normals");
    return s.run([&](sweep& w) {
      return t3::extrude_normal(w.coords, w.surface, n, layers, w.solids, w.edges, w.lateral, w.cap);
    });
  });
  m.def("extrude_normal", [](SWEEP_ARGS, double thickness, unsigned layers, OUTPUT_ARGS) {
    MAKE_SWEEP;
    return s.run([&](sweep& w) {
      return t3::extrude_normal(w.coords, w.surface, thickness, layers, w.solids, w.edges, w.lateral, w.cap);
    });
  });
  m.def("extrude_normal_sizes", [](SWEEP_ARGS, double thickness, double h0, double h1, bool even, OUTPUT_ARGS) {
    MAKE_SWEEP;
    return s.run([&](sweep& w) {
      return t3::extrude_normal(w.coords, w.surface, thickness, h0, h1, even, w.solids, w.edges, w.lateral, w.cap);
    });
  });

  m.def("extrude_line_metrics", [](SWEEP_ARGS, py::array line, py::object V, py::object metrics, OUTPUT_ARGS) {
    MAKE_SWEEP;
    const zel::dense1D<unsigned, 8> l = t3py::vector_view<unsigned>(line, "line");
    const auto v = point3(V);
    const zel::dense2D<double> g = t3py::optional_matrix<double>(metrics, "metrics");
    return s.run([&](sweep& w) {
      return t3::extrude_line(w.coords, w.surface, l, v, g, w.solids, w.edges, w.lateral, w.cap);
    });
  });
  m.def("extrude_line_scales", [](SWEEP_ARGS, py::array line, py::object V, py::object scales, OUTPUT_ARGS) {
    MAKE_SWEEP;
    const zel::dense1D<unsigned, 8> l = t3py::vector_view<unsigned>(line, "line");
    const auto v = point3(V);
    const zel::dense1D<double, 8> f = t3py::optional_vector<double>(scales, "scales");
    return s.run([&](sweep& w) {
      return t3::extrude_line(w.coords, w.surface, l, v, f, w.solids, w.edges, w.lateral, w.cap);
    });
  });
}
