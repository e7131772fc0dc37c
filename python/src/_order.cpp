// Bindings (tessel3d._native): conversion into high order and back, splitting into
// hexahedra. Every input is a private copy (arrays.h); the coordinates grow by the new
// nodes and the in-out connectivities are rewritten in those copies, so the caller's
// arrays are never written.
#include "module.h"

#include "arrays.h"
#include "zel/tessel3d.h"

namespace py = pybind11;
namespace t3 = zel::tessel3d;
using t3py::private_matrix;
using t3py::to_numpy;

void t3py::register_order(py::module_& m) {
  // conforming: the form with options, every element listing a face's nodes in its own
  // face order; otherwise the form without options.
  m.def("convert_into_high_order", [](const py::array& coords, const py::array& connect, unsigned e, unsigned q,
                                      unsigned t, unsigned h, unsigned w, unsigned p, unsigned n,
                                      const py::object& faces, const py::object& edges, bool conforming) {
    zel::dense2D<double> x = private_matrix<double>(coords, "coords");
    const zel::dense2D<unsigned> c = private_matrix<unsigned>(connect, "connect");
    const zel::dense2D<unsigned> f = private_matrix<unsigned>(faces, "faces");
    const zel::dense2D<unsigned> g = private_matrix<unsigned>(edges, "edges");
    zel::dense2D<unsigned> high;
    int status;
    {
      py::gil_scoped_release release;
      status = conforming ? t3::convert_into_high_order(x, c, e, q, t, h, w, p, n, high, f, g, t3::high_order_options())
                          : t3::convert_into_high_order(x, c, e, q, t, h, w, p, n, high, f, g);
    }
    return py::make_tuple(status, to_numpy(x), to_numpy(high));
  });

  m.def("convert_into_quadratic",
        [](const py::array& coords, const py::object& connect, const py::object& faces, const py::object& edges) {
          zel::dense2D<double> x = private_matrix<double>(coords, "coords");
          zel::dense2D<unsigned> c = private_matrix<unsigned>(connect, "connect");
          const zel::dense2D<unsigned> f = private_matrix<unsigned>(faces, "faces");
          const zel::dense2D<unsigned> g = private_matrix<unsigned>(edges, "edges");
          const bool with_tables = !faces.is_none() || !edges.is_none();
          int status;
          {
            py::gil_scoped_release release;
            status = with_tables ? t3::convert_into_quadratic(x, c, f, g) : t3::convert_into_quadratic(x, c);
          }
          return py::make_tuple(status, to_numpy(x), to_numpy(c));
        });

  m.def("convert_into_linear", [](const py::object& connect) {
    zel::dense2D<unsigned> c = private_matrix<unsigned>(connect, "connect");
    int status;
    {
      py::gil_scoped_release release;
      status = t3::convert_into_linear(c);
    }
    return py::make_tuple(status, to_numpy(c));
  });

  m.def("split_into_H8", [](const py::array& coords, const py::array& connect, const py::object& hexahedra,
                            const py::object& faces, const py::object& edges) {
    zel::dense2D<double> x = private_matrix<double>(coords, "coords");
    const zel::dense2D<unsigned> c = private_matrix<unsigned>(connect, "connect");
    zel::dense2D<unsigned> out = private_matrix<unsigned>(hexahedra, "hexahedra");
    const zel::dense2D<unsigned> f = private_matrix<unsigned>(faces, "faces");
    const zel::dense2D<unsigned> g = private_matrix<unsigned>(edges, "edges");
    int status;
    {
      py::gil_scoped_release release;
      status = t3::split_into_H8(x, c, out, f, g);
    }
    return py::make_tuple(status, to_numpy(x), to_numpy(out));
  });
}
