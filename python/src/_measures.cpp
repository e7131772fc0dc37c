// Bindings (tessel3d._native): volume, per-element volumes, circumcentres, dihedral and
// solid angles.
#include "module.h"

#include <limits>
#include <utility>

#include "arrays.h"
#include "zel/tessel3d.h"

namespace py = pybind11;
namespace t3 = zel::tessel3d;
using t3py::private_matrix;

namespace {

using angle_fn = int (*)(const zel::dense2D<double>&, const zel::dense2D<unsigned>&, bool, zel::dense1D<double, 8>&,
                         zel::dense1D<double, 8>&);

py::array_t<double> nan_array(std::size_t n) {
  py::array_t<double> a(static_cast<py::ssize_t>(n));
  std::fill(a.mutable_data(), a.mutable_data() + n, std::numeric_limits<double>::quiet_NaN());
  return a;
}

// The library writes into vectors that the caller sizes: here two new NumPy arrays.
py::tuple angles(angle_fn fn, const py::array& coords, const py::array& connect, bool normalise) {
  const zel::dense2D<double> x = private_matrix<double>(coords, "coords");
  const zel::dense2D<unsigned> c = private_matrix<unsigned>(connect, "connect");
  py::array_t<double> lo = nan_array(c.cols()), hi = nan_array(c.cols());
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

void t3py::register_measures(py::module_& m) {
  m.def("volume", [](const py::array& coords, const py::array& connect) {
    const zel::dense2D<double> x = private_matrix<double>(coords, "coords");
    const zel::dense2D<unsigned> c = private_matrix<unsigned>(connect, "connect");
    double result = 0.0;
    int status;
    {
      py::gil_scoped_release release;
      status = t3::volume(x, c, result);
    }
    return py::make_tuple(status, result);
  });

  // The library's volume of each column on its own (its status is that of the first
  // column that fails, with the same codes as volume; NaN entries from there on), so
  // that every entry is bit for bit what volume() gives for that element.
  m.def("element_volumes", [](const py::array& coords, const py::array& connect) {
    const zel::dense2D<double> x = private_matrix<double>(coords, "coords");
    const zel::dense2D<unsigned> c = private_matrix<unsigned>(connect, "connect");
    py::array_t<double> volumes = nan_array(c.cols());
    double* out = volumes.mutable_data();
    int status = 0;
    {
      py::gil_scoped_release release;
      for (std::size_t j = 0; j < c.cols() && status == 0; ++j)
        status = t3::volume(x, c.sub_matrix(0, j, c.rows(), 1), out[j]);
    }
    return py::make_tuple(status, volumes);
  });

  m.def("circumcenters", [](const py::array& coords, const py::array& connect) {
    const zel::dense2D<double> x = private_matrix<double>(coords, "coords");
    const zel::dense2D<unsigned> c = private_matrix<unsigned>(connect, "connect");
    zel::dense2D<double> centers;
    int status;
    {
      py::gil_scoped_release release;
      status = t3::circumcenters(x, c, centers);
    }
    return py::make_tuple(status, t3py::to_numpy(centers));
  });

  m.def("dihedral_angles", [](const py::array& coords, const py::array& connect, bool normalise) {
    return angles(&t3::dihedral_angles, coords, connect, normalise);
  });
  m.def("solid_angles", [](const py::array& coords, const py::array& connect, bool normalise) {
    return angles(&t3::solid_angles, coords, connect, normalise);
  });

  // The checked forms: (status, min, max, columns of the degenerate elements).
  using checked_fn = int (*)(const zel::dense2D<double>&, const zel::dense2D<unsigned>&, bool, zel::dense1D<double, 8>&,
                             zel::dense1D<double, 8>&, zel::dense1D<unsigned, 8>&);
  for (const auto& [name, fn] : {std::make_pair("dihedral_angles_checked", checked_fn(&t3::dihedral_angles)),
                                 std::make_pair("solid_angles_checked", checked_fn(&t3::solid_angles))})
    m.def(name, [fn = fn](const py::array& coords, const py::array& connect, bool normalise) {
      const zel::dense2D<double> x = private_matrix<double>(coords, "coords");
      const zel::dense2D<unsigned> c = private_matrix<unsigned>(connect, "connect");
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
