// Meshes for the distributed tests, built the same on every rank, and parts cut from
// them by a partition given per element (global IDs = the one-machine columns).
#pragma once

#include <mpi.h>

#include <cmath>
#include <cstdint>
#include <vector>

#include "box_mesh.h"
#include "zel/tessel3d_mpi.h"

namespace tessel3d_test {

inline int comm_rank(MPI_Comm comm = MPI_COMM_WORLD) {
  int r = 0;
  MPI_Comm_rank(comm, &r);
  return r;
}
inline int comm_size(MPI_Comm comm = MPI_COMM_WORLD) {
  int s = 1;
  MPI_Comm_size(comm, &s);
  return s;
}

// A jittered TH4 box [0, 2]^2 x [0, 1] with a spherical cavity in the middle and a thin
// slot cut from one side: boundaries that are curved, internal and close to each other.
inline box_mesh holed_box(unsigned n) {
  const box_mesh box = make_box(box_kind::TH4, 2 * n, 2 * n, n, 2.0, 2.0, 1.0, 0.2, 7);
  std::vector<unsigned> kept;
  for (std::size_t e = 0; e < box.connect.cols(); ++e) {
    double c[3] = {0, 0, 0};
    for (unsigned k = 0; k < 4; ++k)
      for (unsigned d = 0; d < 3; ++d) c[d] += box.coords(d, box.connect(k, e)) / 4;
    const double r2 = (c[0] - 1) * (c[0] - 1) + (c[1] - 1) * (c[1] - 1) + (c[2] - 0.5) * (c[2] - 0.5);
    const bool in_cavity = r2 < 0.35 * 0.35;
    const bool in_slot = c[0] > 1.4 && std::fabs(c[1] - 0.6) < 0.06;
    if (!in_cavity && !in_slot) kept.push_back(unsigned(e));
  }
  box_mesh mesh;
  mesh.coords = box.coords;
  mesh.connect.resize(4, kept.size());
  for (std::size_t j = 0; j < kept.size(); ++j)
    for (unsigned k = 0; k < 4; ++k) mesh.connect(k, j) = box.connect(k, kept[j]);
  return mesh;
}

// The rank of each element: sectors of the angle of its centre about the vertical line
// through (cx, cy), so that with 3 or more ranks the nodes on that line are shared by all.
inline std::vector<int> sector_partition(const zel::dense2D<double>& coords, const zel::dense2D<unsigned>& connect,
                                         int nb_ranks, double cx = 1, double cy = 1) {
  std::vector<int> rank(connect.cols());
  for (std::size_t e = 0; e < connect.cols(); ++e) {
    double c[2] = {0, 0}, count = 0;
    for (std::size_t k = 0; k < connect.rows(); ++k)
      if (connect(k, e) != ~0U) {
        for (unsigned d = 0; d < 2; ++d) c[d] += coords(d, connect(k, e));
        ++count;
      }
    c[0] /= count;
    c[1] /= count;
    const double turn = (std::atan2(c[1] - cy, c[0] - cx) + M_PI) / (2 * M_PI);
    rank[e] = std::min(nb_ranks - 1, int(turn * nb_ranks));
  }
  return rank;
}

// The part of `rank`: its elements in column order, the nodes they use in ascending ID.
inline zel::tessel3d::mpi::part cut_part(const zel::dense2D<double>& coords, const zel::dense2D<unsigned>& connect,
                                         const std::vector<int>& element_rank, int rank) {
  zel::tessel3d::mpi::part p;
  std::vector<unsigned> local(coords.cols(), ~0U), elements;
  for (std::size_t e = 0; e < connect.cols(); ++e)
    if (element_rank[e] == rank) {
      elements.push_back(unsigned(e));
      for (std::size_t k = 0; k < connect.rows(); ++k)
        if (connect(k, e) != ~0U) local[connect(k, e)] = 0;
    }
  std::vector<unsigned> nodes;
  for (std::size_t n = 0; n < coords.cols(); ++n)
    if (local[n] == 0) {
      local[n] = unsigned(nodes.size());
      nodes.push_back(unsigned(n));
    }
  p.coords.resize(coords.rows(), nodes.size());
  p.node_ids.resize(nodes.size());
  for (std::size_t i = 0; i < nodes.size(); ++i) {
    for (std::size_t d = 0; d < coords.rows(); ++d) p.coords(d, i) = coords(d, nodes[i]);
    p.node_ids[i] = nodes[i];
  }
  p.connect.resize(connect.rows(), elements.size());
  p.element_ids.resize(elements.size());
  for (std::size_t j = 0; j < elements.size(); ++j) {
    for (std::size_t k = 0; k < connect.rows(); ++k) {
      const unsigned n = connect(k, elements[j]);
      p.connect(k, j) = n == ~0U ? n : local[n];
    }
    p.element_ids[j] = elements[j];
  }
  return p;
}

// The largest number of ranks holding one node (every rank computes it from the mesh).
inline int most_ranks_on_a_node(const zel::dense2D<unsigned>& connect, const std::vector<int>& element_rank,
                                std::size_t nb_nodes) {
  std::vector<std::uint64_t> ranks(nb_nodes, 0);
  for (std::size_t e = 0; e < connect.cols(); ++e)
    for (std::size_t k = 0; k < connect.rows(); ++k)
      if (connect(k, e) != ~0U) ranks[connect(k, e)] |= std::uint64_t(1) << element_rank[e];
  int most = 0;
  for (std::uint64_t r : ranks) most = std::max(most, __builtin_popcountll(r));
  return most;
}

}  // namespace tessel3d_test
