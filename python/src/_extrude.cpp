// Bindings (tessel3d._native): the five extrusion families in their long forms (solids,
// lateral faces of the swept edges and the far cap), by layer count or by sizes. Each
// takes the coordinates, the surface, its own parameters and the tuple (solids, edges,
// lateral, cap) of the caller's outputs (None for none), and returns (status, coords,
// solids, lateral, cap). Every matrix is a private copy (arrays.h): the library appends
// to the copies and rolls them back, and the caller's arrays are never written.
#include "module.h"

#include <stdexcept>

#include "arrays.h"
#include "zel/tessel3d.h"

namespace py = pybind11;
namespace t3 = zel::tessel3d;
using t3py::point3;
using t3py::private_matrix;
using t3py::to_numpy;

namespace {

struct sweep {
  zel::dense2D<double> coords;
  zel::dense2D<unsigned> surface, solids, edges, lateral, cap;

  sweep(const py::array& x, const py::array& s, const py::tuple& outputs) {
    if (outputs.size() != 4) throw std::invalid_argument("outputs: (solids, edges, lateral, cap) is expected");
    coords = private_matrix<double>(x, "coords");
    surface = private_matrix<unsigned>(s, "surface");
    solids = private_matrix<unsigned>(outputs[0], "solids");
    edges = private_matrix<unsigned>(outputs[1], "edges");
    lateral = private_matrix<unsigned>(outputs[2], "lateral");
    cap = private_matrix<unsigned>(outputs[3], "cap");
  }

  // Runs call(coords, surface, solids, edges, lateral, cap) with the GIL released.
  template <class Call>
  py::tuple run(Call&& call) {
    int status;
    {
      py::gil_scoped_release release;
      status = call(coords, surface, solids, edges, lateral, cap);
    }
    return py::make_tuple(status, to_numpy(coords), to_numpy(solids), to_numpy(lateral), to_numpy(cap));
  }
};

using matrix = zel::dense2D<double>;
using ids = zel::dense2D<unsigned>;
using vector3 = zel::vector_fixed<double, 3>;

}  // namespace

void t3py::register_extrude(py::module_& m) {
  m.def("extrude_translate", [](const py::array& coords, const py::array& surface, const py::object& T, unsigned layers,
                                const py::tuple& outputs) {
    const vector3 t = point3(T);
    return sweep(coords, surface, outputs).run([&](matrix& x, const ids& s, ids& e, const ids& e2, ids& q, ids& top) {
      return t3::extrude_translate(x, s, t, layers, e, e2, q, top);
    });
  });
  m.def("extrude_translate_sizes", [](const py::array& coords, const py::array& surface, const py::object& T, double h0,
                                      double h1, bool even, const py::tuple& outputs) {
    const vector3 t = point3(T);
    return sweep(coords, surface, outputs).run([&](matrix& x, const ids& s, ids& e, const ids& e2, ids& q, ids& top) {
      return t3::extrude_translate(x, s, t, h0, h1, even, e, e2, q, top);
    });
  });

  m.def("extrude_rotate", [](const py::array& coords, const py::array& surface, const py::object& C,
                             const py::object& R, unsigned layers, const py::tuple& outputs) {
    const vector3 c = point3(C), r = point3(R);
    return sweep(coords, surface, outputs).run([&](matrix& x, const ids& s, ids& e, const ids& e2, ids& q, ids& top) {
      return t3::extrude_rotate(x, s, c, r, layers, e, e2, q, top);
    });
  });
  m.def("extrude_rotate_sizes", [](const py::array& coords, const py::array& surface, const py::object& C,
                                   const py::object& R, double h0, double h1, bool even, const py::tuple& outputs) {
    const vector3 c = point3(C), r = point3(R);
    return sweep(coords, surface, outputs).run([&](matrix& x, const ids& s, ids& e, const ids& e2, ids& q, ids& top) {
      return t3::extrude_rotate(x, s, c, r, h0, h1, even, e, e2, q, top);
    });
  });

  m.def("extrude_spiral", [](const py::array& coords, const py::array& surface, const py::object& C,
                             const py::object& R, const py::object& T, unsigned layers, const py::tuple& outputs) {
    const vector3 c = point3(C), r = point3(R), t = point3(T);
    return sweep(coords, surface, outputs).run([&](matrix& x, const ids& s, ids& e, const ids& e2, ids& q, ids& top) {
      return t3::extrude_spiral(x, s, c, r, t, layers, e, e2, q, top);
    });
  });
  m.def("extrude_spiral_sizes", [](const py::array& coords, const py::array& surface, const py::object& C,
                                   const py::object& R, const py::object& T, double h0, double h1, bool even,
                                   const py::tuple& outputs) {
    const vector3 c = point3(C), r = point3(R), t = point3(T);
    return sweep(coords, surface, outputs).run([&](matrix& x, const ids& s, ids& e, const ids& e2, ids& q, ids& top) {
      return t3::extrude_spiral(x, s, c, r, t, h0, h1, even, e, e2, q, top);
    });
  });

  m.def("extrude_normal_given", [](const py::array& coords, const py::array& surface, const py::array& normals,
                                   unsigned layers, const py::tuple& outputs) {
    const matrix n = private_matrix<double>(normals, "normals");
    return sweep(coords, surface, outputs).run([&](matrix& x, const ids& s, ids& e, const ids& e2, ids& q, ids& top) {
      return t3::extrude_normal(x, s, n, layers, e, e2, q, top);
    });
  });
  m.def("extrude_normal", [](const py::array& coords, const py::array& surface, double thickness, unsigned layers,
                             const py::tuple& outputs) {
    return sweep(coords, surface, outputs).run([&](matrix& x, const ids& s, ids& e, const ids& e2, ids& q, ids& top) {
      return t3::extrude_normal(x, s, thickness, layers, e, e2, q, top);
    });
  });
  m.def("extrude_normal_sizes", [](const py::array& coords, const py::array& surface, double thickness, double h0,
                                   double h1, bool even, const py::tuple& outputs) {
    return sweep(coords, surface, outputs).run([&](matrix& x, const ids& s, ids& e, const ids& e2, ids& q, ids& top) {
      return t3::extrude_normal(x, s, thickness, h0, h1, even, e, e2, q, top);
    });
  });

  m.def("extrude_line_metrics", [](const py::array& coords, const py::array& surface, const py::array& line,
                                   const py::object& V, const py::object& metrics, const py::tuple& outputs) {
    const zel::dense1D<unsigned, 8> l = t3py::private_vector<unsigned>(line, "line");
    const vector3 v = point3(V);
    const matrix g = private_matrix<double>(metrics, "metrics");
    return sweep(coords, surface, outputs).run([&](matrix& x, const ids& s, ids& e, const ids& e2, ids& q, ids& top) {
      return t3::extrude_line(x, s, l, v, g, e, e2, q, top);
    });
  });
  m.def("extrude_line_scales", [](const py::array& coords, const py::array& surface, const py::array& line,
                                  const py::object& V, const py::object& scales, const py::tuple& outputs) {
    const zel::dense1D<unsigned, 8> l = t3py::private_vector<unsigned>(line, "line");
    const vector3 v = point3(V);
    const zel::dense1D<double, 8> f = t3py::private_vector<double>(scales, "scales");
    return sweep(coords, surface, outputs).run([&](matrix& x, const ids& s, ids& e, const ids& e2, ids& q, ids& top) {
      return t3::extrude_line(x, s, l, v, f, e, e2, q, top);
    });
  });
}
