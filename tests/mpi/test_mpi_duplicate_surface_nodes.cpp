// Distributed crack opening against the one-machine duplicate_surface_nodes on the same
// mesh: a surface of element faces crossing every rank's boundary, opened on both sides.
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <set>
#include <vector>

#include "mpi_test_parts.h"
#include "zel/tessel.h"
#include "zel/tessel3d.h"
#include "zel/tessel3d_mpi.h"

namespace {

using namespace tessel3d_test;
namespace t3 = zel::tessel3d;
using zel::dense1D;
using zel::dense2D;

// The horizontal faces of grid layer 1 of holed_box(4) over the cells of rows 0 and 1
// in y, all along x, oriented upwards: a crack that opens onto the box's sides, its inner
// rim (the nodes of row 2) excluded.
struct crack {
  box_mesh mesh = holed_box(4);
  dense2D<unsigned> surface;
  std::vector<unsigned> excluded;
  crack() {
    std::set<std::array<unsigned, 3>> faces;
    for (std::size_t e = 0; e < mesh.connect.cols(); ++e)
      for (unsigned f = 0; f < 4; ++f) {
        std::array<unsigned, 3> key;
        for (unsigned i = 0; i < 3; ++i) key[i] = mesh.connect(zel::tessel::solid_records[0].faces[f][i], e);
        std::sort(key.begin(), key.end());
        faces.insert(key);
      }
    auto node = [](unsigned i, unsigned j, unsigned k) { return (k * 9 + j) * 9 + i; };
    std::vector<unsigned> listed;
    for (unsigned j = 0; j < 2; ++j)
      for (unsigned i = 0; i < 8; ++i) {
        const unsigned c[4] = {node(i, j, 1), node(i + 1, j, 1), node(i + 1, j + 1, 1), node(i, j + 1, 1)};
        for (const std::array<unsigned, 3>& t :
             {std::array<unsigned, 3>{c[0], c[1], c[2]}, std::array<unsigned, 3>{c[0], c[2], c[3]}}) {
          std::array<unsigned, 3> key = t;
          std::sort(key.begin(), key.end());
          if (faces.count(key)) listed.insert(listed.end(), t.begin(), t.end());
        }
      }
    surface.resize(3, listed.size() / 3);
    std::copy(listed.begin(), listed.end(), surface.data());
    for (unsigned i = 0; i < 9; ++i) excluded.push_back(node(i, 2, 1));
  }
};

TEST(MpiDuplicateSurfaceNodes, OpensTheSameCrackAsOneMachine) {
  const crack c;
  const int size = comm_size(), rank = comm_rank();
  const std::vector<int> owner = sector_partition(c.mesh.coords, c.mesh.connect, size, 1.0, 0.25);
  if (size >= 3) {
    EXPECT_GE(most_ranks_on_a_node(c.mesh.connect, owner, c.mesh.coords.cols()), 3);
  }

  // One machine.
  dense2D<double> xs;
  xs.copy(c.mesh.coords);
  dense2D<unsigned> connect;
  connect.copy(c.mesh.connect);
  dense2D<unsigned> neighbors;
  dense1D<unsigned, 8> node_element, excluded_all(c.excluded.size());
  ASSERT_EQ(zel::tessel::get_neighbors(connect, zel::TH4, neighbors), 0);
  ASSERT_EQ(zel::tessel::get_node_element(connect, unsigned(xs.cols()), node_element), 0);
  std::copy(c.excluded.begin(), c.excluded.end(), excluded_all.data());
  const std::size_t nb_serial = xs.cols();
  const int serial_added =
      t3::duplicate_surface_nodes(xs, connect, neighbors, node_element, c.surface, excluded_all, true, true, zel::TH4);
  ASSERT_GT(serial_added, 0);
  // The serial copies of node n: positive side in the order the columns list the nodes,
  // then the negative side reading each column backwards.
  std::vector<std::size_t> copy_index[2] = {std::vector<std::size_t>(nb_serial, 0),
                                            std::vector<std::size_t>(nb_serial, 0)};
  {
    std::vector<unsigned char> excluded(nb_serial, 0);
    for (unsigned n : c.excluded) excluded[n] = 1;
    std::size_t next = nb_serial;
    for (unsigned side = 0; side < 2; ++side)
      for (std::size_t j = 0; j < c.surface.cols(); ++j)
        for (unsigned k = 0; k < 3; ++k) {
          const unsigned n = c.surface(side == 0 ? k : 2 - k, j);
          if (!excluded[n] && copy_index[side][n] == 0) copy_index[side][n] = next++;
        }
  }

  // Over the ranks: each lists the faces whose nodes it holds.
  t3::mpi::part mine = cut_part(c.mesh.coords, c.mesh.connect, owner, rank);
  std::vector<unsigned> local(nb_serial, ~0U);
  std::uint64_t largest = 0;
  for (std::size_t n = 0; n < mine.node_ids.size(); ++n) {
    local[mine.node_ids[n]] = unsigned(n);
    largest = std::max<std::uint64_t>(largest, mine.node_ids[n]);
  }
  MPI_Allreduce(MPI_IN_PLACE, &largest, 1, MPI_UINT64_T, MPI_MAX, MPI_COMM_WORLD);
  std::vector<unsigned> faces, excluded;
  for (std::size_t j = 0; j < c.surface.cols(); ++j)
    if (local[c.surface(0, j)] != ~0U && local[c.surface(1, j)] != ~0U && local[c.surface(2, j)] != ~0U)
      for (unsigned i = 0; i < 3; ++i) faces.push_back(local[c.surface(i, j)]);
  for (unsigned n : c.excluded)
    if (local[n] != ~0U) excluded.push_back(local[n]);
  dense2D<unsigned> surface(3, faces.size() / 3);
  std::copy(faces.begin(), faces.end(), surface.data());
  dense1D<unsigned, 8> excluded_here(excluded.size());
  std::copy(excluded.begin(), excluded.end(), excluded_here.data());
  const int added =
      t3::mpi::duplicate_surface_nodes(MPI_COMM_WORLD, mine, surface, excluded_here, true, true, zel::TH4);
  EXPECT_EQ(added, serial_added);

  const std::uint64_t stride = largest + 1;
  std::size_t wrong_nodes = 0, wrong_positions = 0;
  for (std::size_t j = 0; j < mine.connect.cols(); ++j) {
    const std::uint64_t e = mine.element_ids[j];
    for (unsigned i = 0; i < 4; ++i) {
      const std::uint64_t g = mine.node_ids[mine.connect(i, j)];
      const std::uint64_t side = g / stride;
      const std::size_t expected = side == 0 ? std::size_t(g) : side < 3 ? copy_index[side - 1][g % stride] : 0;
      wrong_nodes += expected != connect(i, e);
      for (unsigned d = 0; d < 3; ++d) wrong_positions += mine.coords(d, mine.connect(i, j)) != xs(d, connect(i, e));
    }
  }
  EXPECT_EQ(wrong_nodes, 0u);
  EXPECT_EQ(wrong_positions, 0u);
}

// A bad argument on one rank: the same code everywhere, the mesh unchanged.
TEST(MpiDuplicateSurfaceNodes, EveryRankReturnsTheFirstFailingArgument) {
  const crack c;
  const bool last = comm_rank() == comm_size() - 1;
  t3::mpi::part mine = cut_part(c.mesh.coords, c.mesh.connect,
                                sector_partition(c.mesh.coords, c.mesh.connect, comm_size()), comm_rank());
  const double* before = mine.coords.data();
  const dense2D<unsigned> no_surface(3, 0);
  const dense1D<unsigned, 8> none;
  struct bad_case {
    int expected;
    dense2D<unsigned> surface;
    dense1D<unsigned, 8> excluded;
    zel::element_type type;
  };
  const unsigned beyond = unsigned(mine.coords.cols());
  for (const bad_case& bc :
       {bad_case{-3, dense2D<unsigned>(3, 1, {0u, 1u, beyond}), none, zel::TH4},
        bad_case{-4, no_surface, dense1D<unsigned, 8>({beyond}), zel::TH4}, bad_case{-7, no_surface, none, zel::W6}}) {
    EXPECT_EQ(t3::mpi::duplicate_surface_nodes(MPI_COMM_WORLD, mine, last ? bc.surface : no_surface,
                                               last ? bc.excluded : none, true, true, last ? bc.type : zel::TH4),
              bc.expected);
  }
  EXPECT_EQ(mine.coords.data(), before);
}

}  // namespace
