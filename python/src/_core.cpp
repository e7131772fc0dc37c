// tessel3d._core: version, the orientation flips and the layout probe of the zero-copy
// inputs. Every function returns the library's status; the Python layer raises.
#include <pybind11/pybind11.h>

#include "arrays.h"
#include "zel/tessel3d.h"

namespace py = pybind11;
namespace t3 = zel::tessel3d;
using t3py::matrix_view;

PYBIND11_MODULE(_core, m) {
  m.doc() = "tessel3d core: version, orientation flips";
  m.attr("ABSENT") = py::int_(~0U);

  m.def("version", [] { return std::string(t3::version()); });

  // The thread count of the library's calls (0: the cores of the affinity mask).
  m.def("set_threads", [](unsigned n) { t3::set_threads(n); });
  m.def("threads", [] { return t3::threads(); });

  m.def("flip", [](py::array connect, int type) {
    zel::dense2D<unsigned> c = matrix_view<unsigned>(connect, "connect", true);
    py::gil_scoped_release release;
    return t3::flip(c, t3py::element_type_of(type));
  });
  m.def("flip_TH4", [](py::array connect) {
    zel::dense2D<unsigned> c = matrix_view<unsigned>(connect, "connect", true);
    py::gil_scoped_release release;
    return t3::flip_TH4(c);
  });
  m.def("flip_W6", [](py::array connect) {
    zel::dense2D<unsigned> c = matrix_view<unsigned>(connect, "connect", true);
    py::gil_scoped_release release;
    return t3::flip_W6(c);
  });
  m.def("flip_H8", [](py::array connect) {
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
