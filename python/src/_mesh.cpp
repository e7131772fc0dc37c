// Bindings (tessel3d._native): the helpers of the sibling libraries that callers of the location and
// surface functions need: face neighbours, node-to-element arrays, the nearest-node
// detector and nodal normals of a surface.
#include "module.h"

#include "arrays.h"
#include "zel/tessel.h"
#include "zel/tessel2d.h"

namespace py = pybind11;
using t3py::private_matrix;

namespace {

using t3py::detector_holder;

py::array query(const detector_holder& holder, const py::array& points, bool closest) {
  const zel::tessel::node_detector detector = holder.detector;
  const zel::dense2D<double> p = private_matrix<double>(points, "points");
  if (!p.empty() && p.rows() != 3) throw std::invalid_argument("points: an (n, 3) array is expected");
  py::array_t<unsigned> found(p.cols());
  unsigned* out = found.mutable_data();
  py::gil_scoped_release release;
  for (std::size_t j = 0; j < p.cols(); ++j) {
    const zel::vector_fixed<double, 3> x(p(0, j), p(1, j), p(2, j));
    out[j] = closest ? detector.find_closest(x) : detector.find_close(x);
  }
  return std::move(found);
}

}  // namespace

void t3py::register_mesh(py::module_& m) {
  m.def("get_neighbors", [](const py::array& connect, int type) {
    const zel::element_type type_value = t3py::element_type_of(type);
    const zel::dense2D<unsigned> c = private_matrix<unsigned>(connect, "connect");
    zel::dense2D<unsigned> neighbors;
    int status;
    {
      py::gil_scoped_release release;
      status = zel::tessel::get_neighbors(c, type_value, neighbors);
    }
    return py::make_tuple(status, t3py::to_numpy(neighbors));
  });

  m.def("get_node_element", [](const py::array& connect, unsigned nb_nodes) {
    const zel::dense2D<unsigned> c = private_matrix<unsigned>(connect, "connect");
    zel::dense1D<unsigned, 8> node_element;
    int status;
    {
      py::gil_scoped_release release;
      status = zel::tessel::get_node_element(c, nb_nodes, node_element);
    }
    return py::make_tuple(status, t3py::to_numpy(node_element));
  });

  m.def("normals", [](const py::array& coords, const py::array& surface, double angle, bool unit) {
    const zel::dense2D<double> x = private_matrix<double>(coords, "coords");
    const zel::dense2D<unsigned> s = private_matrix<unsigned>(surface, "surface");
    zel::dense2D<double> normals;
    int status;
    {
      py::gil_scoped_release release;
      status = zel::tessel2d::normals(x, s, angle, unit, normals);
    }
    return py::make_tuple(status, t3py::to_numpy(normals));
  });

  py::class_<detector_holder>(m, "NodeDetector")
      .def(py::init([](const py::array& coords, const py::object& ids) {
             const zel::dense2D<double> x = private_matrix<double>(coords, "coords");
             auto holder = std::make_unique<detector_holder>();
             holder->nb_nodes = x.cols();
             if (ids.is_none()) {
               py::gil_scoped_release release;
               holder->detector = zel::tessel::node_detector(x);
             } else {
               const zel::dense1D<unsigned, 8> list = t3py::private_vector<unsigned>(ids, "ids");
               py::gil_scoped_release release;
               holder->detector = zel::tessel::node_detector(x, list);
             }
             return holder;
           }),
           py::arg("coords"), py::arg("ids") = py::none())
      .def("find_close", [](const detector_holder& h, const py::array& points) { return query(h, points, false); })
      .def("find_closest", [](const detector_holder& h, const py::array& points) { return query(h, points, true); })
      .def("__len__", [](const detector_holder& h) { return h.detector.size(); })
      .def_property_readonly("nb_nodes", [](const detector_holder& h) { return h.nb_nodes; });
}
