// Meshes of every element type VTK holds, and their parts over the ranks, for the tests
// of the partitioned files (test_mpi_pvtu.cpp and the VTK referee's pvtu_tool.cpp).
#pragma once

#include <cstddef>
#include <vector>

#include "box_mesh.h"
#include "zel/tessel3d.h"
#include "zel/tessel3d_mpi.h"

namespace tessel3d_test {

using zel::dense2D;
using zel::element_type;
using zel::tessel3d::mpi::part;

struct serial_mesh {
  dense2D<double> coords;
  dense2D<unsigned> connect;
  element_type type;
};

// The first `rows` rows of connect, ~0U in the rows it lacks.
inline dense2D<unsigned> padded_rows(const dense2D<unsigned>& connect, std::size_t rows) {
  dense2D<unsigned> out(rows, connect.cols(), zel::tessel::ABSENT);
  for (std::size_t j = 0; j < connect.cols(); ++j)
    for (std::size_t i = 0; i < rows && i < connect.rows(); ++i) out(i, j) = connect(i, j);
  return out;
}

// A flat surface in z = 0 of 3 x 2 squares (each two triangles for T3 and T6), its
// elements turning counter-clockwise seen from +z.
inline serial_mesh flat_surface(element_type type) {
  const unsigned nx = 3, ny = 2, px = 2 * nx + 1, py = 2 * ny + 1;  // a grid of corners and midpoints
  serial_mesh mesh;
  mesh.type = type;
  mesh.coords.resize(3, px * py);
  for (unsigned j = 0; j < py; ++j)
    for (unsigned i = 0; i < px; ++i) {
      mesh.coords(0, j * px + i) = 0.5 * i + 0.01 * j * j;
      mesh.coords(1, j * px + i) = 0.5 * j;
    }
  const bool triangles = type == zel::T3 || type == zel::T6;
  const unsigned rows = zel::tessel::element_records[type].rows;
  mesh.connect.resize(rows, nx * ny * (triangles ? 2 : 1));
  std::size_t e = 0;
  for (unsigned j = 0; j < ny; ++j)
    for (unsigned i = 0; i < nx; ++i) {
      const auto at = [&](unsigned a, unsigned b) { return (2 * j + b) * px + 2 * i + a; };  // a, b in 0..2
      // corners (0,0) (2,0) (2,2) (0,2); a side's middle between them
      const unsigned quad[9] = {at(0, 0), at(2, 0), at(2, 2), at(0, 2), at(1, 0),
                                at(2, 1), at(1, 2), at(0, 1), at(1, 1)};
      if (!triangles) {
        for (unsigned k = 0; k < rows; ++k) mesh.connect(k, e) = quad[k];
        ++e;
        continue;
      }
      // 0-1-2 and 0-2-3; the T6 sides' middles follow 1-2, 2-0, 0-1
      const unsigned tris[2][6] = {{quad[0], quad[1], quad[2], quad[5], quad[8], quad[4]},
                                   {quad[0], quad[2], quad[3], quad[6], quad[7], quad[8]}};
      for (const auto& tri : tris) {
        for (unsigned k = 0; k < rows; ++k) mesh.connect(k, e) = tri[k];
        ++e;
      }
    }
  return mesh;
}

// A map that keeps faces planar and cells convex but leaves no symmetry that could hide
// a node in the wrong place: x' = A x with A = [1 .3 .1; 0 .8 .2; .05 0 .6], det A > 0.
inline void shear(dense2D<double>& coords) {
  for (std::size_t j = 0; j < coords.cols(); ++j) {
    const double x = coords(0, j), y = coords(1, j), z = coords(2, j);
    coords(0, j) = x + 0.3 * y + 0.1 * z;
    coords(1, j) = 0.8 * y + 0.2 * z;
    coords(2, j) = 0.05 * x + 0.6 * z;
  }
}

// A sheared box of `type` (the quadratic types by the library's conversions), or for
// SOLID_MIX8 tetrahedra beside hexahedra in the 8-row layout.
inline serial_mesh make_mesh(element_type type) {
  using zel::tessel3d::convert_into_high_order;
  static const struct {
    element_type type, linear;
    box_kind kind;
  } kinds[] = {{zel::TH4, zel::TH4, box_kind::TH4},     {zel::PY5, zel::PY5, box_kind::PY5},
               {zel::W6, zel::W6, box_kind::W6},        {zel::H8, zel::H8, box_kind::H8},
               {zel::TH10, zel::TH4, box_kind::TH4},    {zel::PY13, zel::PY5, box_kind::PY5},
               {zel::W15, zel::W6, box_kind::W6},       {zel::H20, zel::H8, box_kind::H8},
               {zel::W18, zel::W6, box_kind::W6},       {zel::H27, zel::H8, box_kind::H8},
               {zel::SOLID_MIX8, zel::H8, box_kind::H8}};
  serial_mesh mesh;
  mesh.type = type;
  if (type == zel::T3 || type == zel::T6 || type == zel::Q4 || type == zel::Q8 || type == zel::Q9)
    return flat_surface(type);
  for (const auto& k : kinds) {
    if (k.type != type) continue;
    tessel3d_test::box_mesh box = tessel3d_test::make_box(k.kind, 3, 2, 2);
    mesh.coords = box.coords;
    shear(mesh.coords);
    mesh.connect = box.connect;
    const bool serendipity = type == zel::TH10 || type == zel::PY13 || type == zel::W15 || type == zel::H20;
    int converted = 0;
    if (type == zel::PY13) mesh.connect = padded_rows(mesh.connect, 6);  // pyramids come padded
    if (serendipity)
      converted = convert_into_high_order(mesh.coords, mesh.connect, 1, 0, 0, 0, 0, 0, 0, dense2D<unsigned>(),
                                          dense2D<unsigned>());
    if (type == zel::PY13) mesh.connect = padded_rows(mesh.connect, 13);
    if (type == zel::W18 || type == zel::H27)
      converted = zel::tessel3d::convert_into_quadratic(mesh.coords, mesh.connect);
    if (converted != 0) mesh.connect = dense2D<unsigned>();
    if (type == zel::SOLID_MIX8) {
      // tetrahedra of a second box beside the hexahedra, sharing no node
      tessel3d_test::box_mesh tets = tessel3d_test::make_box(box_kind::TH4, 1, 2, 2, 0.5, 1.0, 1.0, 0.0, 3);
      const std::size_t n = mesh.coords.cols(), m = mesh.connect.cols();
      mesh.coords.resize(3, n + tets.coords.cols());
      for (std::size_t j = 0; j < tets.coords.cols(); ++j)
        for (int i = 0; i < 3; ++i) mesh.coords(i, n + j) = tets.coords(i, j) + (i == 0 ? 1.5 : 0.0);
      mesh.connect = tessel3d_test::to_mixed8(mesh.connect);
      mesh.connect.resize(8, m + tets.connect.cols(), zel::tessel::ABSENT);
      for (std::size_t j = 0; j < tets.connect.cols(); ++j)
        for (int i = 0; i < 4; ++i) mesh.connect(i, m + j) = unsigned(n) + tets.connect(i, j);
    }
  }
  return mesh;
}

// The elements of `mesh` dealt to `rank` of `size` in a scrambled order (so that nodes
// are shared by many ranks), with the nodes they use in ascending global ID.
inline part part_of(const serial_mesh& mesh, int rank, int size) {
  part p;
  std::vector<unsigned> local(mesh.coords.cols(), ~0U);
  std::vector<std::size_t> elements;
  for (std::size_t j = 0; j < mesh.connect.cols(); ++j)
    if ((j * 5 + j / 4) % size == std::size_t(rank)) elements.push_back(j);
  for (std::size_t j : elements)
    for (std::size_t i = 0; i < mesh.connect.rows(); ++i)
      if (mesh.connect(i, j) != zel::tessel::ABSENT) local[mesh.connect(i, j)] = 0;
  std::vector<std::size_t> used;
  for (std::size_t g = 0; g < local.size(); ++g)
    if (local[g] == 0) {
      local[g] = unsigned(used.size());
      used.push_back(g);
    }
  p.coords.resize(3, used.size());
  p.node_ids.resize(used.size());
  for (std::size_t k = 0; k < used.size(); ++k) {
    p.node_ids[k] = used[k];
    for (int i = 0; i < 3; ++i) p.coords(i, k) = mesh.coords(i, used[k]);
  }
  p.connect.resize(mesh.connect.rows(), elements.size());
  p.element_ids.resize(elements.size());
  for (std::size_t k = 0; k < elements.size(); ++k) {
    p.element_ids[k] = elements[k];
    for (std::size_t i = 0; i < mesh.connect.rows(); ++i) {
      const unsigned g = mesh.connect(i, elements[k]);
      p.connect(i, k) = g == zel::tessel::ABSENT ? g : local[g];
    }
  }
  return p;
}

}  // namespace tessel3d_test
