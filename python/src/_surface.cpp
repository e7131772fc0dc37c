// Bindings (tessel3d._native): duplication of the nodes of an internal surface. The
// library rewrites the connectivity and grows the coordinates: both are private copies
// (arrays.h), returned as new arrays.
#include "module.h"

#include "arrays.h"
#include "zel/tessel3d.h"

namespace py = pybind11;
namespace t3 = zel::tessel3d;
using t3py::private_matrix;
using t3py::private_vector;
using t3py::to_numpy;

void t3py::register_surface(py::module_& m) {
  m.def("duplicate_surface_nodes", [](const py::array& coords, const py::object& connect, const py::array& neighbors,
                                      const py::array& node_element, const py::array& surface,
                                      const py::object& excluded, bool positive_side, bool negative_side, int type) {
    const zel::element_type type_value = t3py::element_type_of(type);
    zel::dense2D<double> x = private_matrix<double>(coords, "coords");
    zel::dense2D<unsigned> c = private_matrix<unsigned>(connect, "connect");
    const zel::dense2D<unsigned> n = private_matrix<unsigned>(neighbors, "neighbors");
    const zel::dense1D<unsigned, 8> e = private_vector<unsigned>(node_element, "node_element");
    const zel::dense2D<unsigned> s = private_matrix<unsigned>(surface, "surface");
    const zel::dense1D<unsigned, 8> skip = private_vector<unsigned>(excluded, "excluded");
    int status;
    {
      py::gil_scoped_release release;
      status = t3::duplicate_surface_nodes(x, c, n, e, s, skip, positive_side, negative_side, type_value);
    }
    return py::make_tuple(status, to_numpy(x), to_numpy(c));
  });
}
