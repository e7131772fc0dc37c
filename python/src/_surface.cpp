// Bindings (tessel3d._native): duplication of the nodes of an internal surface. The connectivity is
// copied first (the library rewrites it); the coordinates are a view of the caller's array
// that the library's growth detaches.
#include "module.h"

#include "arrays.h"
#include "zel/tessel3d.h"

namespace py = pybind11;
namespace t3 = zel::tessel3d;
using t3py::matrix_view;
using t3py::to_numpy;

void t3py::register_surface(py::module_& m) {

  m.def("duplicate_surface_nodes", [](py::array coords, py::object connect, py::array neighbors,
                                      py::array node_element, py::array surface, py::object excluded,
                                      bool positive_side, bool negative_side, int type) {
    zel::dense2D<double> x = matrix_view<double>(coords, "coords");
    zel::dense2D<unsigned> c = t3py::owned_copy<unsigned>(connect, "connect");
    const zel::dense2D<unsigned> n = matrix_view<unsigned>(neighbors, "neighbors");
    const zel::dense1D<unsigned, 8> e = t3py::vector_view<unsigned>(node_element, "node_element");
    const zel::dense2D<unsigned> s = matrix_view<unsigned>(surface, "surface");
    const zel::dense1D<unsigned, 8> skip = t3py::optional_vector<unsigned>(excluded, "excluded");
    int status;
    {
      py::gil_scoped_release release;
      status = t3::duplicate_surface_nodes(x, c, n, e, s, skip, positive_side, negative_side,
                                           t3py::element_type_of(type));
    }
    py::object caller = coords;
    return py::make_tuple(status, to_numpy(x, {&caller}), to_numpy(c));
  });
}
