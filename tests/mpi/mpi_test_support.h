// Shared by the distributed tests: the communicator's shape, meshes with curved
// boundaries and a hole, the count of ranks sharing a node, and the comparison of two
// meshes up to the numbering of their nodes.
#pragma once

#include <gtest/gtest.h>
#include <mpi.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <map>
#include <utility>
#include <vector>

#include "box_mesh.h"
#include "mpi/node_sharing.h"
#include "zel/tessel3d_mpi.h"

namespace tessel3d_test {

inline int world_rank() {
  int r = 0;
  MPI_Comm_rank(MPI_COMM_WORLD, &r);
  return r;
}
inline int world_size() {
  int s = 0;
  MPI_Comm_size(MPI_COMM_WORLD, &s);
  return s;
}

// An int that must be the same on every rank (a status): the smallest and the largest.
inline std::pair<int, int> min_max_over_ranks(int value) {
  int in[2] = {value, -value}, out[2];
  MPI_Allreduce(in, out, 2, MPI_INT, MPI_MIN, MPI_COMM_WORLD);
  return {out[0], -out[1]};
}

// A box of cells bent into part of a thick cylindrical shell: x becomes the radius in
// [1, 1 + thickness], y the angle in [0, 2 pi turn], z the height in [0, height].
// Curved boundaries, a hole (the shell's inside), and elements that stay positive (the
// map is right-handed). The default, a quarter turn twice as thick as the hole's radius,
// is chunky enough for METIS to cut it into parts that meet along lines at 3 and 4
// ranks (nodes shared by 3 or more ranks); a long thin shell is cut into slabs.
inline box_mesh make_shell(box_kind kind, unsigned nx, unsigned ny, unsigned nz, double jitter = 0.1,
                           double turn = 0.25, double thickness = 2.0, double height = 2.0) {
  box_mesh mesh = make_box(kind, nx, ny, nz, thickness, 1.0, height, jitter);
  const double angle = 2 * std::acos(-1.0) * turn;
  for (std::size_t i = 0; i < mesh.coords.cols(); ++i) {
    const double r = 1 + mesh.coords(0, i), theta = angle * mesh.coords(1, i);
    mesh.coords(0, i) = r * std::cos(theta);
    mesh.coords(1, i) = r * std::sin(theta);
  }
  return mesh;
}

// The quadratic TH10 mesh of a TH4 one: a new node at the middle of each edge, in the
// library's edge order (1,2) (2,0) (0,1) (3,0) (3,1) (3,2).
inline box_mesh to_TH10(const box_mesh& linear) {
  static const unsigned edges[6][2] = {{1, 2}, {2, 0}, {0, 1}, {3, 0}, {3, 1}, {3, 2}};
  std::map<std::pair<unsigned, unsigned>, unsigned> middle;
  std::vector<std::array<double, 3>> extra;
  const unsigned nb_nodes = static_cast<unsigned>(linear.coords.cols());
  box_mesh mesh;
  mesh.connect.resize(10, linear.connect.cols());
  for (std::size_t j = 0; j < linear.connect.cols(); ++j) {
    for (unsigned k = 0; k < 4; ++k) mesh.connect(k, j) = linear.connect(k, j);
    for (unsigned e = 0; e < 6; ++e) {
      unsigned a = linear.connect(edges[e][0], j), b = linear.connect(edges[e][1], j);
      auto found = middle.emplace(std::make_pair(std::min(a, b), std::max(a, b)), nb_nodes + unsigned(extra.size()));
      if (found.second) {
        std::array<double, 3> m;
        for (int c = 0; c < 3; ++c) m[c] = (linear.coords(c, a) + linear.coords(c, b)) / 2;
        extra.push_back(m);
      }
      mesh.connect(4 + e, j) = found.first->second;
    }
  }
  mesh.coords.resize(3, nb_nodes + extra.size());
  for (std::size_t i = 0; i < nb_nodes; ++i)
    for (int c = 0; c < 3; ++c) mesh.coords(c, i) = linear.coords(c, i);
  for (std::size_t i = 0; i < extra.size(); ++i)
    for (int c = 0; c < 3; ++c) mesh.coords(c, nb_nodes + i) = extra[i][c];
  return mesh;
}

// The largest number of ranks holding one node, over every rank (the same everywhere).
inline int most_ranks_on_a_node(const zel::tessel3d::mpi::part& p) {
  zel::tessel3d::mpi::detail::node_sharing sharing;
  EXPECT_EQ(zel::tessel3d::mpi::detail::build_node_sharing(MPI_COMM_WORLD, p.node_ids, sharing), 0);
  std::vector<int> holders(p.node_ids.size(), 1);
  for (const auto& list : sharing.shared)
    for (unsigned node : list) ++holders[node];
  int most = holders.empty() ? 0 : *std::max_element(holders.begin(), holders.end()), everywhere = 0;
  MPI_Allreduce(&most, &everywhere, 1, MPI_INT, MPI_MAX, MPI_COMM_WORLD);
  return everywhere;
}

// A mesh as numbering-free data: its node positions, sorted, and its cells as tuples of
// positions in connectivity order (absent rows skipped), sorted. Two meshes are equal up
// to the numbering of their nodes when these are equal.
struct numbering_free_mesh {
  std::vector<std::array<double, 3>> nodes;
  std::vector<std::vector<std::array<double, 3>>> cells;
  bool operator==(const numbering_free_mesh& o) const { return nodes == o.nodes && cells == o.cells; }
};

inline numbering_free_mesh without_numbering(const zel::dense2D<double>& coords,
                                             const zel::dense2D<unsigned>& connect) {
  numbering_free_mesh m;
  for (std::size_t i = 0; i < coords.cols(); ++i) m.nodes.push_back({coords(0, i), coords(1, i), coords(2, i)});
  for (std::size_t j = 0; j < connect.cols(); ++j) {
    std::vector<std::array<double, 3>> cell;
    for (std::size_t k = 0; k < connect.rows(); ++k) {
      const unsigned n = connect(k, j);
      if (n != zel::tessel::ABSENT) cell.push_back({coords(0, n), coords(1, n), coords(2, n)});
    }
    m.cells.push_back(cell);
  }
  std::sort(m.nodes.begin(), m.nodes.end());
  std::sort(m.cells.begin(), m.cells.end());
  return m;
}

}  // namespace tessel3d_test
