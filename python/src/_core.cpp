// Bindings (tessel3d._native): version, the orientation flips and the layout probe of the zero-copy
// inputs. Every function returns the library's status; the Python layer raises.
#include "module.h"

#include "arrays.h"
#include "zel/tessel3d.h"

namespace py = pybind11;
namespace t3 = zel::tessel3d;
using t3py::matrix_view;

void t3py::register_core(py::module_& m) {
  m.attr("ABSENT") = py::int_(~0U);

  m.def("version", [] { return std::string(t3::version()); });

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
