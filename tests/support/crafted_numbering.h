// A hostile numbering of the structured box meshes (box_mesh.h): grid node (i, j, k) gets
// y = base + s * (i + px j + px py k), with s = +1 when i + j + k is even and -1 when it
// is odd, and ID y ^ 0x811C9DC5 within a power-of-two range (the IDs that no grid node
// takes are unused nodes at the origin; pyramid apexes come after the grid's values).
// Every face of a grid cell has two corners of each parity, so the sum of (ID ^
// 0x811C9DC5) over its corners is 4 base for every quadrangle of the mesh, and an edge's
// sum takes one of six values: a table keyed by an additive hash of the node IDs would
// put them all in a few buckets.
#pragma once

#include <vector>

#include "box_mesh.h"

namespace tessel3d_test {

struct renumbered_mesh {
  box_mesh mesh;
  std::vector<unsigned> new_id;  // per node of the natural mesh
};

inline renumbered_mesh parity_numbering(const box_mesh& natural, unsigned nx, unsigned ny, unsigned nz) {
  const std::size_t px = nx + 1, py = ny + 1, grid = px * py * (nz + 1), nodes = natural.coords.cols();
  std::size_t base = 1;
  while (base < nodes) base *= 2;
  const std::size_t total = 2 * base;
  renumbered_mesh out;
  out.new_id.resize(nodes);
  for (std::size_t n = 0; n < nodes; ++n) {
    std::size_t y = base + n;  // an apex: above every grid value
    if (n < grid) {
      const std::size_t i = n % px, j = n / px % py, k = n / (px * py);
      y = (i + j + k) % 2 == 0 ? base + n : base - n;
    }
    out.new_id[n] = static_cast<unsigned>((y ^ 0x811C9DC5u) & (total - 1));
  }
  out.mesh.coords.resize(3, total, 0.0);
  for (std::size_t n = 0; n < nodes; ++n)
    for (int d = 0; d < 3; ++d) out.mesh.coords(d, out.new_id[n]) = natural.coords(d, n);
  out.mesh.connect.copy(natural.connect);
  for (std::size_t j = 0; j < natural.connect.cols(); ++j)
    for (std::size_t r = 0; r < natural.connect.rows(); ++r) out.mesh.connect(r, j) = out.new_id[natural.connect(r, j)];
  return out;
}

}  // namespace tessel3d_test
