// Bindings (tessel3d._native_mpi): the partitioned VTK files. Data arrays cross as
// {name: (items, components) array}, float64 for reals and int64 for integers.
#include <pybind11/numpy.h>

#include <string>
#include <vector>

#include "module_mpi.h"
#include "part_arrays.h"

namespace t3py {

namespace mpi = zel::tessel3d::mpi;

namespace {

std::vector<mpi::data_array> arrays_of(const py::dict& arrays, const char* what) {
  std::vector<mpi::data_array> out;
  for (const auto& item : arrays) {
    mpi::data_array a;
    a.name = py::cast<std::string>(item.first);
    const py::array values = py::reinterpret_borrow<py::array>(item.second);
    if (has_dtype<double>(values))
      a.reals = private_matrix<double>(values, what);
    else
      a.integers = private_matrix<std::int64_t>(values, what);
    out.push_back(std::move(a));
  }
  return out;
}

py::dict dict_of(std::vector<mpi::data_array>& arrays) {
  py::dict out;
  for (mpi::data_array& a : arrays)
    out[py::str(a.name)] = a.reals.rows() != 0 ? to_numpy(a.reals) : to_numpy(a.integers);
  return out;
}

}  // namespace

void register_pvtu(py::module_& m) {
  m.def("read_pvtu", [](const py::object& comm, const std::string& path) {
    const MPI_Comm c = communicator(comm);
    mpi::part p;
    zel::element_type type = zel::NONE;
    zel::dense1D<unsigned char> cell_types;
    std::vector<mpi::data_array> point_data, cell_data;
    int status;
    {
      py::gil_scoped_release release;
      status = mpi::read_pvtu(c, path.c_str(), p, type, cell_types, point_data, cell_data);
    }
    return py::make_tuple(status, part_tuple(p), static_cast<int>(type), to_numpy(cell_types), dict_of(point_data),
                          dict_of(cell_data));
  });
  // type >= 0: one type or layout for every column; type < 0: cell_types gives each column's.
  m.def("write_pvtu", [](const py::object& comm, const std::string& path, const py::object& coords,
                         const py::object& connect, const py::object& node_ids, const py::object& element_ids, int type,
                         const py::object& cell_types, const py::dict& point_data, const py::dict& cell_data) {
    const MPI_Comm c = communicator(comm);
    const mpi::part p = part_of(coords, connect, node_ids, element_ids);
    const zel::dense1D<unsigned char> types = private_vector<unsigned char>(cell_types, "cell_types");
    const std::vector<mpi::data_array> points = arrays_of(point_data, "point_data");
    const std::vector<mpi::data_array> cells = arrays_of(cell_data, "cell_data");
    // The library indexes its tables by the type: a value outside the enumeration goes in as NONE, which it refuses.
    const zel::element_type t = type >= 0 && type <= zel::H27 ? static_cast<zel::element_type>(type) : zel::NONE;
    int status;
    {
      py::gil_scoped_release release;
      status = type >= 0 ? mpi::write_pvtu(c, path.c_str(), p, t, points, cells)
                         : mpi::write_pvtu(c, path.c_str(), p, types, points, cells);
    }
    return status;
  });
}

}  // namespace t3py
