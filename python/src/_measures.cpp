// tessel3d._measures: volume, circumcentres, dihedral and solid angles.
#include <pybind11/pybind11.h>

#include <limits>
#include <utility>

#include "arrays.h"
#include "zel/tessel3d.h"

namespace py = pybind11;
namespace t3 = zel::tessel3d;
using t3py::matrix_view;

namespace {

using angle_fn = int (*)(const zel::dense2D<double>&, const zel::dense2D<unsigned>&, bool, zel::dense1D<double, 8>&,
                         zel::dense1D<double, 8>&);

// The library writes into vectors that the caller sizes: here two new NumPy arrays.
py::tuple angles(angle_fn fn, py::array coords, py::array connect, bool normalise) {
  const zel::dense2D<double> x = matrix_view<double>(coords, "coords");
  const zel::dense2D<unsigned> c = matrix_view<unsigned>(connect, "connect");
  py::array_t<double> lo(c.cols()), hi(c.cols());
  std::fill(lo.mutable_data(), lo.mutable_data() + c.cols(), std::numeric_limits<double>::quiet_NaN());
  std::fill(hi.mutable_data(), hi.mutable_data() + c.cols(), std::numeric_limits<double>::quiet_NaN());
  zel::dense1D<double, 8> min_values = t3py::vector_view<double>(lo, "min_values", true);
  zel::dense1D<double, 8> max_values = t3py::vector_view<double>(hi, "max_values", true);
  int status;
  {
    py::gil_scoped_release release;
    status = fn(x, c, normalise, min_values, max_values);
  }
  return py::make_tuple(status, lo, hi);
}

}  // namespace

PYBIND11_MODULE(_measures, m) {
  m.doc() = "tessel3d measures: volume, circumcentres, dihedral and solid angles";

  m.def("volume", [](py::array coords, py::array connect) {
    const zel::dense2D<double> x = matrix_view<double>(coords, "coords");
    const zel::dense2D<unsigned> c = matrix_view<unsigned>(connect, "connect");
    double result = 0.0;
    int status;
    {
      py::gil_scoped_release release;
      status = t3::volume(x, c, result);
    }
    return py::make_tuple(status, result);
  });

  m.def("circumcenters", [](py::array coords, py::array connect) {
    const zel::dense2D<double> x = matrix_view<double>(coords, "coords");
    const zel::dense2D<unsigned> c = matrix_view<unsigned>(connect, "connect");
    zel::dense2D<double> centers;
    int status;
    {
      py::gil_scoped_release release;
      status = t3::circumcenters(x, c, centers);
    }
    return py::make_tuple(status, t3py::to_numpy(centers));
  });

  m.def("dihedral_angles", [](py::array coords, py::array connect, bool normalise) {
    return angles(&t3::dihedral_angles, coords, connect, normalise);
  });
  m.def("solid_angles", [](py::array coords, py::array connect, bool normalise) {
    return angles(&t3::solid_angles, coords, connect, normalise);
  });

  // The checked forms: (status, min, max, columns of the degenerate elements).
  using checked_fn = int (*)(const zel::dense2D<double>&, const zel::dense2D<unsigned>&, bool,
                             zel::dense1D<double, 8>&, zel::dense1D<double, 8>&, zel::dense1D<unsigned, 8>&);
  for (const auto& [name, fn] : {std::make_pair("dihedral_angles_checked", checked_fn(&t3::dihedral_angles)),
                                 std::make_pair("solid_angles_checked", checked_fn(&t3::solid_angles))})
    m.def(name, [fn = fn](py::array coords, py::array connect, bool normalise) {
      const zel::dense2D<double> x = matrix_view<double>(coords, "coords");
      const zel::dense2D<unsigned> c = matrix_view<unsigned>(connect, "connect");
      py::array_t<double> lo(c.cols()), hi(c.cols());
      std::fill(lo.mutable_data(), lo.mutable_data() + c.cols(), std::numeric_limits<double>::quiet_NaN());
      std::fill(hi.mutable_data(), hi.mutable_data() + c.cols(), std::numeric_limits<double>::quiet_NaN());
      zel::dense1D<double, 8> min_values = t3py::vector_view<double>(lo, "min_values", true);
      zel::dense1D<double, 8> max_values = t3py::vector_view<double>(hi, "max_values", true);
      zel::dense1D<unsigned, 8> degenerate;
      int status;
      {
        py::gil_scoped_release release;
        status = fn(x, c, normalise, min_values, max_values, degenerate);
      }
      return py::make_tuple(status, lo, hi, t3py::to_numpy(degenerate));
    });
}
