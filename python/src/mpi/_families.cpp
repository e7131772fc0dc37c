// Bindings (tessel3d._native_mpi): the distributed order conversions, extrusions, crack
// opening and interpolation. Each returns (status, results...); a part goes in and comes
// out as its four arrays (part_arrays.h).
#include <pybind11/numpy.h>

#include "module_mpi.h"
#include "part_arrays.h"

namespace t3py {

namespace mpi = zel::tessel3d::mpi;
using vector3 = zel::vector_fixed<double, 3>;

namespace {

// Runs `call` (returning a status) with the GIL released.
template <class Call>
int released(Call&& call) {
  py::gil_scoped_release release;
  return call();
}

}  // namespace

void register_families(py::module_& m) {
  // ---- order conversions: the part is replaced by its converted form
  m.def("convert_into_quadratic", [](const py::object& comm, const py::object& x, const py::object& e,
                                     const py::object& nodes, const py::object& elements) {
    const MPI_Comm c = communicator(comm);
    mpi::part p = part_of(x, e, nodes, elements);
    const int status = released([&] { return mpi::convert_into_quadratic(c, p); });
    return py::make_tuple(status, part_tuple(p));
  });
  m.def("convert_into_linear", [](const py::object& comm, const py::object& x, const py::object& e,
                                  const py::object& nodes, const py::object& elements) {
    const MPI_Comm c = communicator(comm);
    mpi::part p = part_of(x, e, nodes, elements);
    const int status = released([&] { return mpi::convert_into_linear(c, p); });
    return py::make_tuple(status, part_tuple(p));
  });
  m.def("split_into_h8", [](const py::object& comm, const py::object& x, const py::object& e, const py::object& nodes,
                            const py::object& elements) {
    const MPI_Comm c = communicator(comm);
    const mpi::part in = part_of(x, e, nodes, elements);
    mpi::part out;
    const int status = released([&] { return mpi::split_into_H8(c, in, out); });
    return py::make_tuple(status, part_tuple(out));
  });

  // ---- extrusions: kind "translate" | "rotate" | "spiral" | "normal" (vectors), with
  // layers >= 0 (uniform) or layers < 0 and h0, h1, even (graded)
  m.def("extrude", [](const py::object& comm, const std::string& kind, const py::object& x, const py::object& e,
                      const py::object& nodes, const py::object& elements, const py::object& c0, const py::object& r0,
                      const py::object& t0, long long layers, double h0, double h1, bool even) {
    const MPI_Comm c = communicator(comm);
    const mpi::part s = part_of(x, e, nodes, elements);
    mpi::part out;
    int status;
    if (kind == "normal") {
      const zel::dense2D<double> normals = private_matrix<double>(c0, "node_normals");
      status = released([&] { return mpi::extrude_normal(c, s, normals, static_cast<unsigned>(layers), out); });
      return py::make_tuple(status, part_tuple(out));
    }
    const vector3 C = point3(c0), R = point3(r0), T = point3(t0);
    const bool graded = layers < 0;
    const auto n = static_cast<unsigned>(graded ? 0 : layers);
    status = released([&] {
      if (kind == "translate")
        return graded ? mpi::extrude_translate(c, s, T, h0, h1, even, out) : mpi::extrude_translate(c, s, T, n, out);
      if (kind == "rotate")
        return graded ? mpi::extrude_rotate(c, s, C, R, h0, h1, even, out) : mpi::extrude_rotate(c, s, C, R, n, out);
      return graded ? mpi::extrude_spiral(c, s, C, R, T, h0, h1, even, out)
                    : mpi::extrude_spiral(c, s, C, R, T, n, out);
    });
    return py::make_tuple(status, part_tuple(out));
  });
  m.def("extrude_normal_thickness",
        [](const py::object& comm, const py::object& x, const py::object& e, const py::object& nodes,
           const py::object& elements, double thickness, unsigned layers) {
          const MPI_Comm c = communicator(comm);
          const mpi::part s = part_of(x, e, nodes, elements);
          mpi::part out;
          const int status = released([&] { return mpi::extrude_normal(c, s, thickness, layers, out); });
          return py::make_tuple(status, part_tuple(out));
        });
  m.def("extrude_line",
        [](const py::object& comm, const py::object& x, const py::object& e, const py::object& nodes,
           const py::object& elements, const py::object& line, const py::object& direction, const py::object& scales) {
          const MPI_Comm c = communicator(comm);
          const mpi::part s = part_of(x, e, nodes, elements);
          const zel::dense2D<double> points = private_matrix<double>(line, "line");
          const vector3 V = point3(direction);
          mpi::part out;
          int status;
          if (scales.is_none()) {  // no scaling: the metrics form with no metrics
            const zel::dense2D<double> none;
            status = released([&] { return mpi::extrude_line(c, s, points, V, none, out); });
          } else {
            const zel::dense1D<double, 8> f = private_vector<double>(scales, "scales");
            status = released([&] { return mpi::extrude_line(c, s, points, V, f, out); });
          }
          return py::make_tuple(status, part_tuple(out));
        });

  // ---- crack opening: returns (status or added count, part)
  m.def("duplicate_surface_nodes", [](const py::object& comm, const py::object& x, const py::object& e,
                                      const py::object& nodes, const py::object& elements, const py::object& surface,
                                      const py::object& excluded, bool positive, bool negative, int type) {
    const MPI_Comm c = communicator(comm);
    mpi::part p = part_of(x, e, nodes, elements);
    const zel::dense2D<unsigned> faces = private_matrix<unsigned>(surface, "surface");
    const zel::dense1D<unsigned, 8> skip = private_vector<unsigned>(excluded, "excluded");
    const zel::element_type t = element_type_of(type);
    const int status = released([&] { return mpi::duplicate_surface_nodes(c, p, faces, skip, positive, negative, t); });
    return py::make_tuple(status, part_tuple(p));
  });

  // ---- interpolation
  m.def("interpolate", [](const py::object& comm, const py::object& x, const py::object& e, const py::object& nodes,
                          const py::object& elements, const py::object& field, const py::object& points) {
    const MPI_Comm c = communicator(comm);
    const mpi::part s = part_of(x, e, nodes, elements);
    const zel::dense2D<double> f = private_matrix<double>(field, "field");
    const zel::dense2D<double> at = private_matrix<double>(points, "points");
    zel::dense2D<double> values;
    const int status = released([&] { return mpi::interpolate(c, s, f, at, values); });
    return py::make_tuple(status, to_numpy(values));
  });
  m.def("interpolate_metrics", [](const py::object& comm, const py::object& x, const py::object& e,
                                  const py::object& nodes, const py::object& elements, const py::object& metrics,
                                  const py::object& points, const py::object& values, bool keep_valid) {
    const MPI_Comm c = communicator(comm);
    const mpi::part s = part_of(x, e, nodes, elements);
    const zel::dense2D<double> f = private_matrix<double>(metrics, "metrics");
    const zel::dense2D<double> at = private_matrix<double>(points, "points");
    zel::dense2D<double> result = private_matrix<double>(values, "values");
    const int status = released([&] { return mpi::interpolate_metrics(c, s, f, at, result, keep_valid); });
    return py::make_tuple(status, to_numpy(result));
  });
}

}  // namespace t3py
