// distribute and gather: the parts of a mesh and the mesh they give back, on meshes with
// curved boundaries and a hole; every rank's status on input that only the root holds;
// roll-back when an allocation fails on any rank.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <string>

#include "failing_allocator.h"
#include "mpi_test_support.h"

namespace {

using namespace tessel3d_test;
using zel::dense2D;
using zel::tessel3d::mpi::distribute;
using zel::tessel3d::mpi::gather;
using zel::tessel3d::mpi::part;

struct mesh_case {
  const char* name;
  box_mesh mesh;
};

std::vector<mesh_case> meshes() {
  std::vector<mesh_case> cases;
  cases.push_back({"TH4 shell", make_shell(box_kind::TH4, 5, 5, 5)});
  cases.push_back({"PY5 shell", make_shell(box_kind::PY5, 4, 4, 4)});
  cases.push_back({"W6 shell", make_shell(box_kind::W6, 5, 5, 5)});
  cases.push_back({"H8 shell", make_shell(box_kind::H8, 6, 6, 6)});
  box_mesh mixed = make_shell(box_kind::W6, 5, 5, 5);
  mixed.connect = to_mixed8(mixed.connect);
  cases.push_back({"mixed layout", mixed});
  cases.push_back({"TH10 shell", to_TH10(make_shell(box_kind::TH4, 4, 4, 4))});
  const box_mesh shell = make_shell(box_kind::PY5, 4, 4, 4);
  cases.push_back({"PY5 shell in padded views",
                   {padded_view(shell.coords, 2, std::nan("")), padded_view(shell.connect, 3, 0xDEADu)}});
  cases.push_back({"long thin H8 shell", make_shell(box_kind::H8, 2, 12, 2, 0.1, 0.75, 1.0, 1.0)});
  return cases;
}

// Each part as distribute promises it, checked against the root's mesh.
void expect_part_of(const part& p, const box_mesh& mesh) {
  ASSERT_EQ(p.coords.rows(), 3u);
  ASSERT_EQ(p.coords.cols(), p.node_ids.size());
  ASSERT_EQ(p.connect.cols(), p.element_ids.size());
  EXPECT_TRUE(std::is_sorted(p.node_ids.data(), p.node_ids.data() + p.node_ids.size()));
  EXPECT_TRUE(std::is_sorted(p.element_ids.data(), p.element_ids.data() + p.element_ids.size()));
  std::vector<bool> used(p.node_ids.size(), false);
  for (std::size_t j = 0; j < p.connect.cols(); ++j)
    for (std::size_t k = 0; k < p.connect.rows(); ++k) {
      const unsigned local = p.connect(k, j), global = mesh.connect(k, p.element_ids[j]);
      if (global == zel::tessel::ABSENT) {
        EXPECT_EQ(local, zel::tessel::ABSENT);
        continue;
      }
      ASSERT_LT(local, p.node_ids.size());
      EXPECT_EQ(p.node_ids[local], global);
      used[local] = true;
    }
  EXPECT_TRUE(std::all_of(used.begin(), used.end(), [](bool u) { return u; }));
  for (std::size_t i = 0; i < p.node_ids.size(); ++i)
    for (int c = 0; c < 3; ++c) EXPECT_EQ(p.coords(c, i), mesh.coords(c, p.node_ids[i]));
}

TEST(distribute, parts_and_gather_give_back_the_mesh) {
  const int rank = world_rank(), size = world_size();
  for (const mesh_case& c : meshes()) {
    SCOPED_TRACE(c.name);
    const int root = size - 1;
    part p;
    ASSERT_EQ(distribute(MPI_COMM_WORLD, root, c.mesh.coords, c.mesh.connect, p), 0);
    expect_part_of(p, c.mesh);
    // Every element on one rank, and the boundaries through nodes of 3 or more ranks.
    unsigned long long local = p.element_ids.size(), total = 0;
    MPI_Allreduce(&local, &total, 1, MPI_UNSIGNED_LONG_LONG, MPI_SUM, MPI_COMM_WORLD);
    EXPECT_EQ(total, c.mesh.connect.cols());
    if (size >= 3 && std::string(c.name).find("long") == std::string::npos) {
      EXPECT_GE(most_ranks_on_a_node(p), 3);
    }

    dense2D<double> coords;
    dense2D<unsigned> connect;
    ASSERT_EQ(gather(MPI_COMM_WORLD, 0, p, coords, connect), 0);
    if (rank != 0) {
      EXPECT_TRUE(coords.empty() && connect.empty());
      continue;
    }
    ASSERT_EQ(coords.cols(), c.mesh.coords.cols());
    ASSERT_EQ(connect.rows(), c.mesh.connect.rows());
    ASSERT_EQ(connect.cols(), c.mesh.connect.cols());
    for (std::size_t i = 0; i < coords.cols(); ++i)
      for (int d = 0; d < 3; ++d) EXPECT_EQ(coords(d, i), c.mesh.coords(d, i));
    for (std::size_t j = 0; j < connect.cols(); ++j)
      for (std::size_t k = 0; k < connect.rows(); ++k) EXPECT_EQ(connect(k, j), c.mesh.connect(k, j));
  }
}

TEST(distribute, a_point_cloud_is_spread_in_blocks) {
  const int size = world_size();
  dense2D<double> cloud(3, 10);
  for (std::size_t i = 0; i < 10; ++i) cloud(0, i) = double(i);
  part p;
  ASSERT_EQ(distribute(MPI_COMM_WORLD, 0, cloud, dense2D<unsigned>(4, 0), p), 0);
  const int rank = world_rank();
  EXPECT_EQ(p.node_ids.size(), std::size_t(10 * (rank + 1) / size - 10 * rank / size));
  dense2D<double> back;
  dense2D<unsigned> connect;
  ASSERT_EQ(gather(MPI_COMM_WORLD, 0, p, back, connect), 0);
  if (rank == 0) {
    ASSERT_EQ(back.cols(), 10u);
    for (std::size_t i = 0; i < 10; ++i) EXPECT_EQ(back(0, i), double(i));
  }
}

// Bad input on the root only: every rank returns the root's status and keeps its part.
TEST(distribute, every_rank_gets_the_status_of_the_root_input) {
  const int rank = world_rank(), size = world_size();
  const int root = size / 2;
  const box_mesh good = make_shell(box_kind::TH4, 2, 2, 2);
  dense2D<unsigned> seven_rows(7, 3), out_of_range;
  out_of_range.copy(good.connect);
  out_of_range(2, 5) = unsigned(good.coords.cols());
  struct bad_case {
    const char* name;
    int root;
    dense2D<double> coords;
    dense2D<unsigned> connect;
    int expected;
  };
  const bad_case cases[] = {
      {"root out of range", size, good.coords, good.connect, -2},
      {"root differs", rank == 0 ? root : (root + 1) % size, good.coords, good.connect, size > 1 ? -2 : 0},
      {"coords with 2 rows", root, good.coords.sub_matrix(0, 0, 2, good.coords.cols()), good.connect, -3},
      {"7 rows", root, good.coords, seven_rows, -4},
      {"node ID out of range", root, good.coords, out_of_range, -4},
  };
  for (const bad_case& c : cases) {
    SCOPED_TRACE(c.name);
    part p;
    p.node_ids.resize(1, 42);
    // Only the root's mesh is read: the others pass empty matrices.
    const bool holds = rank == c.root;
    const int status = distribute(MPI_COMM_WORLD, c.root, holds ? c.coords : dense2D<double>(),
                                  holds ? c.connect : dense2D<unsigned>(), p);
    EXPECT_EQ(status, c.expected);
    EXPECT_EQ(min_max_over_ranks(status), std::make_pair(status, status));
    if (status != 0) {
      EXPECT_EQ(p.node_ids.size(), 1u);
    }
  }
  part untouched;
  EXPECT_EQ(distribute(MPI_COMM_NULL, 0, good.coords, good.connect, untouched), -1);

  // gather: a root that is not a rank, and an element ID that two ranks (or, alone, one
  // rank) both hold.
  part p;
  ASSERT_EQ(distribute(MPI_COMM_WORLD, 0, good.coords, good.connect, p), 0);
  dense2D<double> coords(1, 1, 7.0);
  dense2D<unsigned> connect;
  EXPECT_EQ(gather(MPI_COMM_WORLD, -1, p, coords, connect), -2);
  part repeated = p;
  repeated.element_ids.copy(p.element_ids);
  if (rank == size - 1 && repeated.element_ids.size() > 1) repeated.element_ids[1] = 0;
  if (rank == size - 1 && size > 1 && !repeated.element_ids.empty()) repeated.element_ids[0] = 0;
  EXPECT_EQ(gather(MPI_COMM_WORLD, 0, repeated, coords, connect), -3);
  EXPECT_EQ(coords(0, 0), 7.0);
  EXPECT_EQ(gather(MPI_COMM_NULL, 0, p, coords, connect), -1);
}

// The n-th allocation of one rank fails, for every n up to success: every rank returns
// -199 and keeps its outputs.
TEST(distribute, an_allocation_failure_on_one_rank_rolls_back_everywhere) {
  const int rank = world_rank(), size = world_size();
  const box_mesh mesh = make_shell(box_kind::H8, 3, 4, 2);
  for (int failing_rank = 0; failing_rank < size; ++failing_rank) {
    int status = -199;
    for (long n = 1; status == -199 && n < 200; ++n) {
      part p;
      p.node_ids.resize(1, 42);
      dense2D<double> coords(1, 1, 7.0);
      dense2D<unsigned> connect;
      int distributed = 0;
      {
        failing_allocator guard(rank == failing_rank ? n : 0, true);
        distributed = status = distribute(MPI_COMM_WORLD, 0, mesh.coords, mesh.connect, p);
        if (status == 0) status = gather(MPI_COMM_WORLD, 0, p, coords, connect);
      }
      EXPECT_EQ(min_max_over_ranks(status), std::make_pair(status, status));
      if (status == -199) {
        EXPECT_EQ(coords(0, 0), 7.0);
        EXPECT_EQ(p.node_ids.size() == 1, distributed != 0);
      }
      ASSERT_TRUE(status == 0 || status == -199);
    }
    EXPECT_EQ(status, 0);
  }
}

}  // namespace
