// The compiled module tessel3d._native is put together from one registration function
// per family, each in its own source file beside this header.
#pragma once

#include <pybind11/pybind11.h>

namespace t3py {

void register_core(pybind11::module_& m);      // version, flips, layout probe   (_core.cpp)
void register_mesh(pybind11::module_& m);      // neighbours, node detector      (_mesh.cpp)
void register_measures(pybind11::module_& m);  // volume, angles, circumcentres  (_measures.cpp)
void register_order(pybind11::module_& m);     // high order and back, hexahedra (_order.cpp)
void register_extrude(pybind11::module_& m);   // the five extrusions            (_extrude.cpp)
void register_locate(pybind11::module_& m);    // point location, interpolation  (_locate.cpp)
void register_surface(pybind11::module_& m);   // duplicate_surface_nodes        (_surface.cpp)
void register_split_q4(pybind11::module_& m);  // split_solid_Q4                 (_split_q4.cpp)

}  // namespace t3py
