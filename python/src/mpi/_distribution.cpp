// Bindings (tessel3d._native_mpi): distribute, gather and the distributed volume.
#include <pybind11/numpy.h>

#include "module_mpi.h"
#include "part_arrays.h"

namespace t3py {

namespace mpi = zel::tessel3d::mpi;

void register_distribution(py::module_& m) {
  m.def("distribute", [](const py::object& comm, int root, const py::object& coords, const py::object& connect) {
    const MPI_Comm c = communicator(comm);
    const zel::dense2D<double> x = private_matrix<double>(coords, "coords");
    const zel::dense2D<unsigned> e = private_matrix<unsigned>(connect, "connect");
    mpi::part out;
    int status;
    {
      py::gil_scoped_release release;
      status = mpi::distribute(c, root, x, e, out);
    }
    return py::make_tuple(status, part_tuple(out));
  });
  m.def("gather", [](const py::object& comm, int root, const py::object& coords, const py::object& connect,
                     const py::object& node_ids, const py::object& element_ids) {
    const MPI_Comm c = communicator(comm);
    const mpi::part p = part_of(coords, connect, node_ids, element_ids);
    zel::dense2D<double> x;
    zel::dense2D<unsigned> e;
    int status;
    {
      py::gil_scoped_release release;
      status = mpi::gather(c, root, p, x, e);
    }
    return py::make_tuple(status, to_numpy(x), to_numpy(e));
  });
  m.def("volume", [](const py::object& comm, const py::object& coords, const py::object& connect,
                     const py::object& node_ids, const py::object& element_ids) {
    const MPI_Comm c = communicator(comm);
    const mpi::part p = part_of(coords, connect, node_ids, element_ids);
    double result = 0;
    int status;
    {
      py::gil_scoped_release release;
      status = mpi::volume(c, p, result);
    }
    return py::make_tuple(status, result);
  });
}

}  // namespace t3py
