// A part of the distributed component as the bindings of tessel3d._native_mpi pass it:
// the four arrays (coords (n, 3), connect (m, rows), node_ids (n,), element_ids (m,)).
#pragma once

#include <pybind11/numpy.h>

#include "arrays.h"
#include "zel/tessel3d_mpi.h"

namespace t3py {

// A part from its four arrays (private copies, see arrays.h).
inline zel::tessel3d::mpi::part part_of(const py::object& coords, const py::object& connect, const py::object& node_ids,
                                        const py::object& element_ids) {
  zel::tessel3d::mpi::part p;
  p.coords = private_matrix<double>(coords, "coords");
  p.connect = private_matrix<unsigned>(connect, "connect");
  p.node_ids = private_vector<std::uint64_t>(node_ids, "node_ids");
  p.element_ids = private_vector<std::uint64_t>(element_ids, "element_ids");
  return p;
}

inline py::tuple part_tuple(zel::tessel3d::mpi::part& p) {
  return py::make_tuple(to_numpy(p.coords), to_numpy(p.connect), to_numpy(p.node_ids), to_numpy(p.element_ids));
}

}  // namespace t3py
