// tessel3d._native_mpi: the bindings of the distributed component. Every function is
// collective over the mpi4py communicator it is given, returns the library's status
// (the same on every rank) with its results, and releases the GIL while the library
// works; tessel3d.mpi turns a negative status into an exception.
#include "module_mpi.h"

PYBIND11_MODULE(_native_mpi, m) {
  m.doc() = "tessel3d distributed bindings (use tessel3d.mpi, which checks and converts the arguments)";
  t3py::register_distribution(m);
  t3py::register_pvtu(m);
  t3py::register_families(m);
}
