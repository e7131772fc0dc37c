// The distributed measures: the exact sum against hand-worked totals, volume with the
// same bits as one rank holding the whole mesh in reverse order, the angle measures
// against the one-machine call, and every rank's status on a bad part held by one rank.
#include <gtest/gtest.h>

#include <cfloat>
#include <cmath>
#include <limits>
#include <set>

#include "failing_allocator.h"
#include "mpi/exact_sum.h"
#include "mpi_test_support.h"

namespace {

using namespace tessel3d_test;
using zel::dense1D;
using zel::dense2D;
using zel::tessel3d::mpi::distribute;
using zel::tessel3d::mpi::part;
using zel::tessel3d::mpi::detail::exact_sum;

const double inf = std::numeric_limits<double>::infinity();
const double nan_value = std::numeric_limits<double>::quiet_NaN();

// The terms are dealt round-robin to the ranks, then summed over all of them.
TEST(exact_sum, rounds_the_exact_total_once) {
  const int rank = world_rank(), size = world_size();
  const double ulp_half = std::ldexp(1.0, -53), tiny = std::numeric_limits<double>::denorm_min();
  struct sum_case {
    const char* name;
    std::vector<double> terms;
    double expected;
  };
  const sum_case cases[] = {
      {"nothing", {}, 0.0},
      {"cancellation", {1e300, 1.0, -1e300}, 1.0},
      {"tie to even, down", {1.0, ulp_half}, 1.0},
      {"tie broken by a far term", {1.0, ulp_half, std::ldexp(1.0, -200)}, 1.0 + 2 * ulp_half},
      {"tie to even, up", {1.0 + 2 * ulp_half, ulp_half}, 1.0 + 4 * ulp_half},
      {"ten tenths", std::vector<double>(10, 0.1), 1.0},
      {"largest, overflow undone", {DBL_MAX, DBL_MAX, -DBL_MAX}, DBL_MAX},
      {"overflow", {DBL_MAX, DBL_MAX}, inf},
      {"subnormals", {tiny, tiny, tiny}, 3 * tiny},
      {"signs", {-3.5, 1.25, -0.0}, -2.25},
      {"infinity", {inf, 1.0}, inf},
      {"both infinities", {inf, -inf}, nan_value},
      {"NaN", {1.0, nan_value}, nan_value},
  };
  for (const sum_case& c : cases) {
    SCOPED_TRACE(c.name);
    exact_sum sum;
    for (std::size_t k = rank; k < c.terms.size(); k += size) sum.add(c.terms[k]);
    sum.all_reduce(MPI_COMM_WORLD);
    const double total = sum.rounded();
    if (std::isnan(c.expected)) {
      EXPECT_TRUE(std::isnan(total));
    } else {
      EXPECT_EQ(total, c.expected);
    }
  }
}

std::vector<box_mesh> solid_meshes() {
  box_mesh mixed = make_shell(box_kind::PY5, 3, 5, 2);
  mixed.connect = to_mixed8(mixed.connect);
  return {make_shell(box_kind::TH4, 4, 6, 3), make_shell(box_kind::PY5, 3, 5, 2),
          make_shell(box_kind::W6, 4, 6, 3, 0.2), make_shell(box_kind::H8, 4, 8, 3, 0.2), mixed};
}

TEST(volume, same_bits_as_one_rank_with_the_elements_reversed) {
  for (const box_mesh& mesh : solid_meshes()) {
    SCOPED_TRACE(mesh.connect.rows());
    part p;
    ASSERT_EQ(distribute(MPI_COMM_WORLD, 0, mesh.coords, mesh.connect, p), 0);
    double total = 0;
    ASSERT_EQ(zel::tessel3d::mpi::volume(MPI_COMM_WORLD, p, total), 0);

    part whole;
    whole.coords = mesh.coords;
    whole.connect.resize(mesh.connect.rows(), mesh.connect.cols());
    const std::size_t n = mesh.connect.cols();
    for (std::size_t j = 0; j < n; ++j)
      for (std::size_t k = 0; k < mesh.connect.rows(); ++k) whole.connect(k, j) = mesh.connect(k, n - 1 - j);
    double alone = 0, serial = 0;
    ASSERT_EQ(zel::tessel3d::mpi::volume(MPI_COMM_SELF, whole, alone), 0);
    EXPECT_EQ(total, alone);
    ASSERT_EQ(zel::tessel3d::volume(mesh.coords, mesh.connect, serial), 0);
    EXPECT_NEAR(total, serial, 1e-13 * std::fabs(serial));
    EXPECT_GT(total, 0);
  }
}

// A part that only the last rank holds badly: every rank returns -2, results untouched.
TEST(volume, a_bad_part_on_one_rank_fails_everywhere) {
  const int rank = world_rank(), size = world_size();
  const box_mesh mesh = make_shell(box_kind::TH4, 2, 3, 2);
  part p;
  ASSERT_EQ(distribute(MPI_COMM_WORLD, 0, mesh.coords, mesh.connect, p), 0);
  part bad = p;
  if (rank == size - 1) {
    bad.connect.copy(p.connect);
    if (bad.connect.cols() > 0)
      bad.connect(1, 0) = unsigned(p.coords.cols());
    else
      bad.coords = dense2D<double>(2, 0), bad.connect = dense2D<unsigned>(4, 1);
  }
  double total = 5.0, smallest = 5.0, largest = 5.0;
  dense1D<double, 8> mins(1, 5.0), maxs;
  dense1D<unsigned, 8> flat;
  EXPECT_EQ(zel::tessel3d::mpi::volume(MPI_COMM_WORLD, bad, total), -2);
  EXPECT_EQ(zel::tessel3d::mpi::dihedral_angles(MPI_COMM_WORLD, bad, false, mins, maxs, flat, smallest, largest), -2);
  EXPECT_EQ(zel::tessel3d::mpi::solid_angles(MPI_COMM_WORLD, bad, true, mins, maxs, flat, smallest, largest), -2);
  EXPECT_EQ(total, 5.0);
  EXPECT_EQ(smallest, 5.0);
  EXPECT_EQ(mins.size(), 1u);
  EXPECT_EQ(zel::tessel3d::mpi::volume(MPI_COMM_NULL, p, total), -1);
}

// Equal, or NaN both (an element with no defined value).
bool same_value(double a, double b) { return a == b || (std::isnan(a) && std::isnan(b)); }

using distributed_angles = int (*)(MPI_Comm, const part&, bool, dense1D<double, 8>&, dense1D<double, 8>&,
                                   dense1D<unsigned, 8>&, double&, double&);
using serial_angles = int (*)(const dense2D<double>&, const dense2D<unsigned>&, bool, dense1D<double, 8>&,
                              dense1D<double, 8>&, dense1D<unsigned, 8>&);

TEST(angles, local_values_and_global_extremes_match_one_machine) {
  struct angle_case {
    const char* name;
    distributed_angles distributed;
    serial_angles serial;
  };
  const angle_case measures[] = {{"dihedral", zel::tessel3d::mpi::dihedral_angles, zel::tessel3d::dihedral_angles},
                                 {"solid", zel::tessel3d::mpi::solid_angles, zel::tessel3d::solid_angles}};
  for (box_mesh mesh : solid_meshes()) {
    // Two nodes of one element at the same place: degenerate elements to report.
    for (int c = 0; c < 3; ++c) mesh.coords(c, mesh.connect(0, 3)) = mesh.coords(c, mesh.connect(1, 3));
    part p;
    ASSERT_EQ(distribute(MPI_COMM_WORLD, 0, mesh.coords, mesh.connect, p), 0);
    for (const angle_case& m : measures)
      for (bool normalise : {false, true}) {
        SCOPED_TRACE(m.name);
        const std::size_t n = mesh.connect.cols();
        dense1D<double, 8> all_mins(n), all_maxs(n), mins, maxs;
        dense1D<unsigned, 8> all_flat, flat;
        ASSERT_EQ(m.serial(mesh.coords, mesh.connect, normalise, all_mins, all_maxs, all_flat), 0);
        double smallest = 0, largest = 0;
        ASSERT_EQ(m.distributed(MPI_COMM_WORLD, p, normalise, mins, maxs, flat, smallest, largest), 0);
        ASSERT_EQ(mins.size(), p.element_ids.size());
        const std::set<unsigned> serial_flat(all_flat.data(), all_flat.data() + all_flat.size());
        const std::set<unsigned> local_flat(flat.data(), flat.data() + flat.size());
        for (std::size_t j = 0; j < mins.size(); ++j) {
          const unsigned global = unsigned(p.element_ids[j]);
          EXPECT_TRUE(same_value(mins[j], all_mins[global]));
          EXPECT_TRUE(same_value(maxs[j], all_maxs[global]));
          EXPECT_EQ(local_flat.count(unsigned(j)), serial_flat.count(global));
        }
        double expected_smallest = inf, expected_largest = -inf;
        for (std::size_t j = 0; j < n; ++j) {
          if (!std::isnan(all_mins[j])) expected_smallest = std::min(expected_smallest, all_mins[j]);
          if (!std::isnan(all_maxs[j])) expected_largest = std::max(expected_largest, all_maxs[j]);
        }
        EXPECT_EQ(smallest, expected_smallest);
        EXPECT_EQ(largest, expected_largest);
        if (mesh.connect.rows() == 4) {
          EXPECT_FALSE(serial_flat.empty());  // the collapsed tetrahedra
        }
      }
  }
}

TEST(angles, an_allocation_failure_on_one_rank_rolls_back_everywhere) {
  const int rank = world_rank(), size = world_size();
  const box_mesh mesh = make_shell(box_kind::W6, 2, 4, 2);
  part p;
  ASSERT_EQ(distribute(MPI_COMM_WORLD, 0, mesh.coords, mesh.connect, p), 0);
  for (int failing_rank = 0; failing_rank < size; ++failing_rank) {
    int status = -199;
    for (long n = 1; status == -199 && n < 50; ++n) {
      dense1D<double, 8> mins(1, 5.0), maxs;
      dense1D<unsigned, 8> flat;
      double smallest = 5.0, largest = 5.0;
      {
        failing_allocator guard(rank == failing_rank ? n : 0, true);
        status = zel::tessel3d::mpi::dihedral_angles(MPI_COMM_WORLD, p, true, mins, maxs, flat, smallest, largest);
      }
      EXPECT_EQ(min_max_over_ranks(status), std::make_pair(status, status));
      if (status != 0) {
        EXPECT_EQ(mins.size(), 1u);
        EXPECT_EQ(smallest, 5.0);
      }
    }
    EXPECT_EQ(status, 0);
  }
}

}  // namespace
