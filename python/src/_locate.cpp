// Bindings (tessel3d._native): point location, field and metric interpolation. The mesh,
// points and node lists are private copies (arrays.h); fields and metrics are in-out: the
// library writes into the caller's array (zero copy).
#include "module.h"

#include <memory>

#include "arrays.h"
#include "zel/tessel3d.h"

namespace py = pybind11;
namespace t3 = zel::tessel3d;
using t3py::matrix_view;
using t3py::vector_view;

namespace {

struct located_mesh {
  zel::dense2D<double> coords;
  zel::dense2D<unsigned> connect, neighbors;
  zel::dense1D<unsigned, 8> node_element;

  located_mesh(py::array x, py::array c, py::array n, py::array e)
      : coords(t3py::private_matrix<double>(x, "coords")),
        connect(t3py::private_matrix<unsigned>(c, "connect")),
        neighbors(t3py::private_matrix<unsigned>(n, "neighbors")),
        node_element(t3py::private_vector<unsigned>(e, "node_element")) {}
};

#define MESH_ARGS py::array coords, py::array connect, py::array neighbors, py::array node_element
#define MAKE_MESH located_mesh mesh(coords, connect, neighbors, node_element)

}  // namespace

void t3py::register_locate(py::module_& m) {
  m.def("get_element_containing_point",
        [](MESH_ARGS, const t3py::detector_holder& detector, int type, py::object point, double tolerance) {
          const zel::element_type type_value = t3py::element_type_of(type);
          MAKE_MESH;
          const zel::tessel::node_detector search = detector.detector;
          const auto p = t3py::point3(point);
          unsigned element = ~0U;
          int status;
          {
            py::gil_scoped_release release;
            status = t3::get_element_containing_point(mesh.coords, mesh.connect, mesh.neighbors, mesh.node_element,
                                                      search, type_value, p, element, tolerance);
          }
          return py::make_tuple(status, element);
        });

  // Many points in one call, the mesh checked once: (status, elements), elements an
  // array with one entry per point (ABSENT where none was found).
  m.def("locate_points",
        [](MESH_ARGS, const t3py::detector_holder& detector, int type, py::array points, double tolerance) {
          const zel::element_type type_value = t3py::element_type_of(type);
          MAKE_MESH;
          const zel::tessel::node_detector search = detector.detector;
          const zel::dense2D<double> p = t3py::private_matrix<double>(points, "points");
          py::array_t<unsigned> elements(static_cast<py::ssize_t>(p.cols()));
          zel::dense1D<unsigned, 8> found = vector_view<unsigned>(elements, "elements", true);
          int status;
          {
            py::gil_scoped_release release;
            status = t3::get_elements_containing_points(mesh.coords, mesh.connect, mesh.neighbors, mesh.node_element,
                                                        search, type_value, p, found, tolerance);
          }
          if (status < 0) return py::make_tuple(status, py::none());
          return py::make_tuple(status, elements);
        });

  // ---- the search that cannot miss, values at any point (point_locator) ----------------
  // A PointLocator is built once by build_locator (deep copies of the mesh, made and
  // checked with the GIL released: the caller's arrays are not read afterwards) and is
  // read-only from then on, so its searches may run from any thread.
  py::class_<t3::point_locator>(m, "PointLocator")
      .def("__len__", &t3::point_locator::size)
      .def("find",
           [](const t3::point_locator& self, py::object point, double tolerance) {
             const auto p = t3py::point3(point);
             unsigned element = ~0U;
             int status;
             {
               py::gil_scoped_release release;
               status = self.find(p, element, tolerance);
             }
             return py::make_tuple(status, element);
           })
      .def("find_all", [](const t3::point_locator& self, py::array points, double tolerance) {
        const zel::dense2D<double> p = t3py::private_matrix<double>(points, "points");
        py::array_t<unsigned> elements(static_cast<py::ssize_t>(p.cols()));
        zel::dense1D<unsigned, 8> found = vector_view<unsigned>(elements, "elements", true);
        int status;
        {
          py::gil_scoped_release release;
          status = self.find(p, found, tolerance);
        }
        if (status < 0) return py::make_tuple(status, py::none());
        return py::make_tuple(status, elements);
      });
  m.def("build_locator", [](py::array coords, py::array connect) {
    const zel::dense2D<double> x = t3py::private_matrix<double>(coords, "coords");
    const zel::dense2D<unsigned> c = t3py::private_matrix<unsigned>(connect, "connect");
    auto locator = std::make_unique<t3::point_locator>();
    int status;
    {
      py::gil_scoped_release release;
      status = locator->build(x, c);
    }
    if (status < 0) return py::make_tuple(status, py::none());
    return py::make_tuple(status, py::cast(std::move(locator)));
  });
  m.def("interpolate_projected", [](py::array coords, py::array connect, py::array field, py::array nodes) {
    const zel::dense2D<double> x = t3py::private_matrix<double>(coords, "coords");
    const zel::dense2D<unsigned> c = t3py::private_matrix<unsigned>(connect, "connect");
    const zel::dense1D<unsigned, 8> list = t3py::private_vector<unsigned>(nodes, "nodes");
    if (field.ndim() == 1) {
      zel::dense1D<double, 8> f = vector_view<double>(field, "field", true);
      py::gil_scoped_release release;
      return t3::interpolate_projected(x, c, f, list);
    }
    zel::dense2D<double> f = matrix_view<double>(field, "field", true);
    py::gil_scoped_release release;
    return t3::interpolate_projected(x, c, f, list);
  });
  m.def("interpolate_metrics_projected",
        [](py::array coords, py::array connect, py::array metrics, py::object nodes, bool keep_valid) {
          const zel::dense2D<double> x = t3py::private_matrix<double>(coords, "coords");
          const zel::dense2D<unsigned> c = t3py::private_matrix<unsigned>(connect, "connect");
          const bool listed = !nodes.is_none();
          const zel::dense1D<unsigned, 8> list = t3py::private_vector<unsigned>(nodes, "nodes");
          if (metrics.ndim() == 1) {
            zel::dense1D<double, 8> sizes = vector_view<double>(metrics, "metrics", true);
            py::gil_scoped_release release;
            return listed ? t3::interpolate_metrics_projected(x, c, sizes, list, keep_valid)
                          : t3::interpolate_metrics_projected(x, c, sizes, keep_valid);
          }
          zel::dense2D<double> tensors = matrix_view<double>(metrics, "metrics", true);
          py::gil_scoped_release release;
          return listed ? t3::interpolate_metrics_projected(x, c, tensors, list, keep_valid)
                        : t3::interpolate_metrics_projected(x, c, tensors, keep_valid);
        });
  // ---- end of the point_locator block ---------------------------------------------------

  m.def("interpolate", [](MESH_ARGS, py::array field, py::array nodes) {
    MAKE_MESH;
    const zel::dense1D<unsigned, 8> list = t3py::private_vector<unsigned>(nodes, "nodes");
    if (field.ndim() == 1) {
      zel::dense1D<double, 8> f = vector_view<double>(field, "field", true);
      py::gil_scoped_release release;
      return t3::interpolate(mesh.coords, mesh.connect, mesh.neighbors, mesh.node_element, f, list);
    }
    zel::dense2D<double> f = matrix_view<double>(field, "field", true);
    py::gil_scoped_release release;
    return t3::interpolate(mesh.coords, mesh.connect, mesh.neighbors, mesh.node_element, f, list);
  });

  m.def("interpolate_metrics", [](MESH_ARGS, py::array metrics, py::object nodes, bool keep_valid) {
    MAKE_MESH;
    const bool listed = !nodes.is_none();
    const zel::dense1D<unsigned, 8> list = t3py::private_vector<unsigned>(nodes, "nodes");
    if (metrics.ndim() == 1) {
      zel::dense1D<double, 8> sizes = vector_view<double>(metrics, "metrics", true);
      py::gil_scoped_release release;
      return listed ? t3::interpolate_metrics(mesh.coords, mesh.connect, mesh.neighbors, mesh.node_element, sizes, list,
                                              keep_valid)
                    : t3::interpolate_metrics(mesh.coords, mesh.connect, mesh.neighbors, mesh.node_element, sizes,
                                              keep_valid);
    }
    zel::dense2D<double> tensors = matrix_view<double>(metrics, "metrics", true);
    py::gil_scoped_release release;
    return listed ? t3::interpolate_metrics(mesh.coords, mesh.connect, mesh.neighbors, mesh.node_element, tensors, list,
                                            keep_valid)
                  : t3::interpolate_metrics(mesh.coords, mesh.connect, mesh.neighbors, mesh.node_element, tensors,
                                            keep_valid);
  });
}
