// Bindings (tessel3d._native): splitting of the solids that carry given quadrangles.
#include "module.h"

#include "arrays.h"
#include "zel/tessel3d.h"

namespace py = pybind11;
namespace t3 = zel::tessel3d;
using t3py::private_matrix;
using t3py::to_numpy;

void t3py::register_split_q4(py::module_& m) {
  m.def("split_solid_Q4",
        [](const py::array& coords, const py::array& connect, const py::array& quads, double min_quality) {
          zel::dense2D<double> x = private_matrix<double>(coords, "coords");
          const zel::dense2D<unsigned> c = private_matrix<unsigned>(connect, "connect");
          const zel::dense2D<unsigned> q = private_matrix<unsigned>(quads, "quads");
          zel::dense2D<unsigned> out;
          zel::dense1D<unsigned, 8> failed;
          int status;
          {
            py::gil_scoped_release release;
            status = t3::split_solid_Q4(x, c, q, min_quality, out, failed);
          }
          return py::make_tuple(status, to_numpy(x), to_numpy(out), to_numpy(failed));
        });

  // The conforming form: failed comes back as (k, 2) rows of (column, reason).
  m.def("split_solid_Q4_conforming",
        [](const py::array& coords, const py::array& connect, const py::array& quads, double min_quality) {
          zel::dense2D<double> x = private_matrix<double>(coords, "coords");
          const zel::dense2D<unsigned> c = private_matrix<unsigned>(connect, "connect");
          const zel::dense2D<unsigned> q = private_matrix<unsigned>(quads, "quads");
          zel::dense2D<unsigned> out, failed;
          int status;
          {
            py::gil_scoped_release release;
            status = t3::split_solid_Q4(x, c, q, min_quality, out, failed);
          }
          return py::make_tuple(status, to_numpy(x), to_numpy(out), to_numpy(failed));
        });
}
