// tessel3d._native: every binding of the package in one compiled module. The functions
// take arrays the pure-Python layer has already converted, return the library's status
// (with their results) and release the GIL while the library works; the Python layer
// turns a negative status into an exception.
#include "module.h"

PYBIND11_MODULE(_native, m) {
  m.doc() = "tessel3d native bindings (use the tessel3d package, which checks and converts the arguments)";
  t3py::register_core(m);
  t3py::register_mesh(m);  // before locate, whose functions take the NodeDetector it registers
  t3py::register_measures(m);
  t3py::register_order(m);
  t3py::register_extrude(m);
  t3py::register_locate(m);
  t3py::register_surface(m);
  t3py::register_split_q4(m);
}
