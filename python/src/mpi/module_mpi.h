// The compiled module tessel3d._native_mpi (built with the distributed component): one
// registration function per family, each in its own source file beside this header.
#pragma once

#include <mpi.h>
#include <pybind11/pybind11.h>

#include <stdexcept>

namespace t3py {

// The MPI communicator of an mpi4py communicator (through its Fortran handle, so that
// neither mpi4py's headers nor its build are needed here).
inline MPI_Comm communicator(const pybind11::object& comm) {
  if (!pybind11::hasattr(comm, "py2f")) throw std::invalid_argument("comm: an mpi4py communicator is expected");
  return MPI_Comm_f2c(static_cast<MPI_Fint>(comm.attr("py2f")().cast<long>()));
}

void register_distribution(pybind11::module_& m);  // distribute, gather, volume  (_distribution.cpp)
void register_pvtu(pybind11::module_& m);          // read_pvtu, write_pvtu       (_pvtu.cpp)
void register_families(pybind11::module_& m);      // conversions, extrusions, crack, interpolation (_families.cpp)

}  // namespace t3py
