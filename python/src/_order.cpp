// Bindings (tessel3d._native): conversion into high order and back, splitting into hexahedra.
// In-out coordinates are passed as views of the caller's array: the library appends
// nodes, which moves the matrix to a buffer of its own, so the caller's array is never
// written. In-out connectivities are copied first, since the library rewrites them.
#include "module.h"

#include "arrays.h"
#include "zel/tessel3d.h"

namespace py = pybind11;
namespace t3 = zel::tessel3d;
using t3py::matrix_view;
using t3py::optional_matrix;
using t3py::to_numpy;

void t3py::register_order(py::module_& m) {

  m.def("convert_into_high_order", [](py::array coords, py::array connect, unsigned e, unsigned q, unsigned t,
                                      unsigned h, unsigned w, unsigned p, unsigned n, py::object faces,
                                      py::object edges) {
    zel::dense2D<double> x = matrix_view<double>(coords, "coords");
    const zel::dense2D<unsigned> c = matrix_view<unsigned>(connect, "connect");
    const zel::dense2D<unsigned> f = optional_matrix<unsigned>(faces, "faces");
    const zel::dense2D<unsigned> g = optional_matrix<unsigned>(edges, "edges");
    zel::dense2D<unsigned> high;
    int status;
    {
      py::gil_scoped_release release;
      status = t3::convert_into_high_order(x, c, e, q, t, h, w, p, n, high, f, g);
    }
    py::object caller = coords;
    return py::make_tuple(status, to_numpy(x, {&caller}), to_numpy(high));
  });

  m.def("convert_into_quadratic", [](py::array coords, py::object connect, py::object faces, py::object edges) {
    zel::dense2D<double> x = matrix_view<double>(coords, "coords");
    zel::dense2D<unsigned> c = t3py::owned_copy<unsigned>(connect, "connect");
    const zel::dense2D<unsigned> f = optional_matrix<unsigned>(faces, "faces");
    const zel::dense2D<unsigned> g = optional_matrix<unsigned>(edges, "edges");
    const bool with_tables = !faces.is_none() || !edges.is_none();
    int status;
    {
      py::gil_scoped_release release;
      status = with_tables ? t3::convert_into_quadratic(x, c, f, g) : t3::convert_into_quadratic(x, c);
    }
    py::object caller = coords;
    return py::make_tuple(status, to_numpy(x, {&caller}), to_numpy(c));
  });

  m.def("convert_into_linear", [](py::object connect) {
    zel::dense2D<unsigned> c = t3py::owned_copy<unsigned>(connect, "connect");
    int status;
    {
      py::gil_scoped_release release;
      status = t3::convert_into_linear(c);
    }
    return py::make_tuple(status, to_numpy(c));
  });

  m.def("split_into_H8", [](py::array coords, py::array connect, py::object hexahedra, py::object faces,
                            py::object edges) {
    zel::dense2D<double> x = matrix_view<double>(coords, "coords");
    const zel::dense2D<unsigned> c = matrix_view<unsigned>(connect, "connect");
    zel::dense2D<unsigned> out = t3py::owned_copy<unsigned>(hexahedra, "hexahedra");
    const zel::dense2D<unsigned> f = optional_matrix<unsigned>(faces, "faces");
    const zel::dense2D<unsigned> g = optional_matrix<unsigned>(edges, "edges");
    int status;
    {
      py::gil_scoped_release release;
      status = t3::split_into_H8(x, c, out, f, g);
    }
    py::object caller = coords;
    return py::make_tuple(status, to_numpy(x, {&caller}), to_numpy(out));
  });
}
