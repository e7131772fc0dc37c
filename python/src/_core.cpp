// Bindings (tessel3d._native): version, the orientation flips and the layout probe of the zero-copy
// inputs. Every function returns the library's status; the Python layer raises.
#include "module.h"

#include "arrays.h"
#include "zel/tessel3d.h"
#include "zel/tessel_elements.h"

namespace py = pybind11;
namespace t3 = zel::tessel3d;
using t3py::matrix_view;

void t3py::register_core(py::module_& m) {
  m.attr("ABSENT") = py::int_(zel::tessel::ABSENT);

  m.def("version", [] { return std::string(t3::version()); });

  // The thread count of the library's calls (0: the cores of the affinity mask).
  m.def("set_threads", [](unsigned n) { t3::set_threads(n); });
  m.def("threads", [] { return t3::threads(); });

  // The flips write the caller's array in place: they only move entries, whatever
  // their values, so a concurrent write there cannot send them out of bounds.
  m.def("flip", [](const py::array& connect, int type) {
    const zel::element_type type_value = t3py::element_type_of(type);
    zel::dense2D<unsigned> c = matrix_view<unsigned>(connect, "connect", true);
    py::gil_scoped_release release;
    return t3::flip(c, type_value);
  });
  m.def("flip_TH4", [](const py::array& connect) {
    zel::dense2D<unsigned> c = matrix_view<unsigned>(connect, "connect", true);
    py::gil_scoped_release release;
    return t3::flip_TH4(c);
  });
  m.def("flip_W6", [](const py::array& connect) {
    zel::dense2D<unsigned> c = matrix_view<unsigned>(connect, "connect", true);
    py::gil_scoped_release release;
    return t3::flip_W6(c);
  });
  m.def("flip_H8", [](const py::array& connect) {
    zel::dense2D<unsigned> c = matrix_view<unsigned>(connect, "connect", true);
    py::gil_scoped_release release;
    return t3::flip_H8(c);
  });

  // The element tables of the base mesh library, so that Python needs no copy of them:
  // "types": per element type value, (rows, corners, dimension, boundary, linear type);
  // "solids": per linear solid type value, {"faces": tuples of local nodes, "edges": pairs}.
  m.def("element_tables", [] {
    py::list types;
    for (const zel::tessel::element_record& r : zel::tessel::element_records)
      types.append(py::make_tuple(r.rows, r.corners, r.dimension, r.boundary, int(r.linear)));
    py::dict solids;
    for (const zel::tessel::solid_record& s : zel::tessel::solid_records) {
      py::list faces, edges;
      for (unsigned f = 0; f < s.nb_faces; ++f) {
        py::list face;
        for (unsigned k = 0; k < s.face_size[f]; ++k) face.append(s.faces[f][k]);
        faces.append(py::tuple(face));
      }
      for (unsigned e = 0; e < s.nb_edges; ++e) edges.append(py::make_tuple(s.edges[e][0], s.edges[e][1]));
      py::dict record;
      record["faces"] = py::tuple(faces);
      record["edges"] = py::tuple(edges);
      solids[py::int_(int(s.type))] = record;
    }
    py::dict tables;
    tables["types"] = py::tuple(types);
    tables["solids"] = solids;
    return tables;
  });

  // (address of entry (0, 0), rows, columns, leading dimension) of the matrix that an
  // array becomes: the tests compare the address with the array's own.
  m.def("matrix_layout", [](py::array a) -> py::tuple {
    if (t3py::has_dtype<double>(a)) {
      const zel::dense2D<double> v = matrix_view<double>(a, "array");
      return py::make_tuple(reinterpret_cast<std::uintptr_t>(v.data()), v.rows(), v.cols(), v.ld());
    }
    const zel::dense2D<unsigned> v = matrix_view<unsigned>(a, "array");
    return py::make_tuple(reinterpret_cast<std::uintptr_t>(v.data()), v.rows(), v.cols(), v.ld());
  });
}
