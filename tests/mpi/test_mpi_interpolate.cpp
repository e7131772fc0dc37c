// Distributed interpolation against the one-machine interpolate_projected and
// interpolate_metrics_projected on the same mesh, with the points spread over the ranks.
#include <gtest/gtest.h>

#include <cmath>
#include <vector>

#include "failing_allocator.h"
#include "mpi_test_parts.h"
#include "zel/tessel3d.h"
#include "zel/tessel3d_mpi.h"

namespace {

using namespace tessel3d_test;
namespace t3 = zel::tessel3d;
using zel::dense1D;
using zel::dense2D;

// Every rank: the whole mesh, its part, the points (inside, on nodes, in the cavity and
// the slot, outside) and which of them this rank holds (some on two ranks).
struct setup {
  box_mesh mesh = holed_box(4);
  std::vector<int> owner;
  t3::mpi::part source;
  dense2D<double> all_points, points;
  std::vector<std::size_t> mine;  // columns of all_points held here
  // Parts cut in angular sectors (the nodes of the axis on every rank), or by METIS.
  explicit setup(bool metis = false) {
    const int size = comm_size(), rank = comm_rank();
    owner = sector_partition(mesh.coords, mesh.connect, size);
    if (metis) {
      EXPECT_EQ(t3::mpi::distribute(MPI_COMM_WORLD, 0, mesh.coords, mesh.connect, source), 0);
    } else {
      source = cut_part(mesh.coords, mesh.connect, owner, rank);
    }
    random_stream random(11);
    const std::size_t nb_random = 600, nb_nodes = 80;
    all_points.resize(3, nb_random + nb_nodes);
    for (std::size_t j = 0; j < nb_random; ++j) {
      all_points(0, j) = random.uniform(-0.3, 2.3);
      all_points(1, j) = random.uniform(-0.3, 2.3);
      all_points(2, j) = random.uniform(-0.3, 1.3);
    }
    for (std::size_t j = 0; j < nb_nodes; ++j)
      for (unsigned d = 0; d < 3; ++d) all_points(d, nb_random + j) = mesh.coords(d, (j * 37) % mesh.coords.cols());
    for (std::size_t j = 0; j < all_points.cols(); ++j)
      if (int(j % size) == rank || (size > 1 && int((j + 1) % size) == rank && j % 7 == 0)) mine.push_back(j);
    points.resize(3, mine.size());
    for (std::size_t i = 0; i < mine.size(); ++i)
      for (unsigned d = 0; d < 3; ++d) points(d, i) = all_points(d, mine[i]);
  }
  // The one-machine mesh with every point appended as a free node.
  dense2D<double> serial_coords() const {
    dense2D<double> c(3, mesh.coords.cols() + all_points.cols());
    for (std::size_t j = 0; j < c.cols(); ++j)
      for (unsigned d = 0; d < 3; ++d)
        c(d, j) = j < mesh.coords.cols() ? mesh.coords(d, j) : all_points(d, j - mesh.coords.cols());
    return c;
  }
  dense1D<unsigned, 8> appended() const {
    dense1D<unsigned, 8> nodes(all_points.cols());
    for (std::size_t j = 0; j < nodes.size(); ++j) nodes[j] = unsigned(mesh.coords.cols() + j);
    return nodes;
  }
  // Values per source node of the part from values per node of the whole mesh.
  dense2D<double> on_part(const dense2D<double>& whole) const {
    dense2D<double> local(whole.rows(), source.coords.cols());
    for (std::size_t i = 0; i < local.cols(); ++i)
      for (std::size_t c = 0; c < whole.rows(); ++c) local(c, i) = whole(c, source.node_ids[i]);
    return local;
  }
};

double node_value(unsigned c, const double* x) {
  return c == 0 ? x[0] + 2 * x[1] - 3 * x[2] : std::sin(3 * x[0]) * std::cos(2 * x[1]) + x[2] * x[2];
}

class MpiInterpolateOn : public ::testing::TestWithParam<bool> {};

TEST_P(MpiInterpolateOn, FieldEqualsOneMachineProjection) {
  setup s(GetParam());
  if (comm_size() >= 3 && !GetParam()) {
    EXPECT_GE(most_ranks_on_a_node(s.mesh.connect, s.owner, s.mesh.coords.cols()), 3);
  }
  const dense2D<double> xs = s.serial_coords();
  dense2D<double> whole(2, xs.cols(), NAN);
  for (std::size_t n = 0; n < s.mesh.coords.cols(); ++n)
    for (unsigned c = 0; c < 2; ++c) whole(c, n) = node_value(c, &xs(0, n));
  ASSERT_EQ(t3::interpolate_projected(xs, s.mesh.connect, whole, s.appended()), 0);

  dense2D<double> values;
  ASSERT_EQ(t3::mpi::interpolate(MPI_COMM_WORLD, s.source, s.on_part(whole), s.points, values), 0);
  ASSERT_EQ(values.rows(), 2u);
  ASSERT_EQ(values.cols(), s.mine.size());
  std::size_t exact = 0;
  for (std::size_t i = 0; i < s.mine.size(); ++i) {
    const std::size_t n = s.mesh.coords.cols() + s.mine[i];
    for (unsigned c = 0; c < 2; ++c) EXPECT_NEAR(values(c, i), whole(c, n), 1e-12) << "point " << s.mine[i];
    exact += values(0, i) == whole(0, n) && values(1, i) == whole(1, n);
  }
  // Points strictly inside one element, or nearest to one face, read the same bits.
  EXPECT_GE(exact, s.mine.size() * 9 / 10);
}

INSTANTIATE_TEST_SUITE_P(Partitions, MpiInterpolateOn, ::testing::Values(false, true),
                         [](const ::testing::TestParamInfo<bool>& partition) {
                           return partition.param ? "metis" : "sectors";
                         });

struct metric_case {
  const char* name;
  unsigned rows;
  bool keep_valid;
};

TEST(MpiInterpolate, MetricsEqualOneMachineProjection) {
  setup s;
  const dense2D<double> xs = s.serial_coords();
  const std::size_t nb_mesh = s.mesh.coords.cols();
  for (const metric_case& mc : {metric_case{"tensors", 6, false}, metric_case{"tensors, keep valid", 6, true},
                                metric_case{"sizes", 1, false}, metric_case{"sizes, keep valid", 1, true}}) {
    SCOPED_TRACE(mc.name);
    random_stream random(5);
    dense2D<double> whole(mc.rows, xs.cols(), 0.0);
    for (std::size_t n = 0; n < xs.cols(); ++n) {
      const bool point = n >= nb_mesh;
      if (point && n % 3 != 0) continue;  // a third of the points start with a valid metric
      if (mc.rows == 1) {
        whole(0, n) = random.uniform(0.05, 0.5);
      } else {
        // Diagonal-dominant, anisotropic along x.
        const double a = random.uniform(10, 400), b = random.uniform(10, 40), off = random.uniform(-3, 3);
        const double m[6] = {a, off, b, 0.5 * off, 0, b + 5};
        for (unsigned k = 0; k < 6; ++k) whole(k, n) = m[k];
      }
    }
    dense2D<double> serial;
    serial.copy(whole);
    if (mc.rows == 1) {  // sizes: the one-machine form takes a vector
      dense1D<double, 8> sizes(xs.cols());
      for (std::size_t n = 0; n < xs.cols(); ++n) sizes[n] = serial(0, n);
      ASSERT_EQ(t3::interpolate_metrics_projected(xs, s.mesh.connect, sizes, s.appended(), mc.keep_valid), 0);
      for (std::size_t n = 0; n < xs.cols(); ++n) serial(0, n) = sizes[n];
    } else {
      ASSERT_EQ(t3::interpolate_metrics_projected(xs, s.mesh.connect, serial, s.appended(), mc.keep_valid), 0);
    }

    dense2D<double> values(mc.rows, s.mine.size());
    for (std::size_t i = 0; i < s.mine.size(); ++i)
      for (unsigned k = 0; k < mc.rows; ++k) values(k, i) = whole(k, nb_mesh + s.mine[i]);
    ASSERT_EQ(t3::mpi::interpolate_metrics(MPI_COMM_WORLD, s.source, s.on_part(whole), s.points, values, mc.keep_valid),
              0);
    for (std::size_t i = 0; i < s.mine.size(); ++i)
      for (unsigned k = 0; k < mc.rows; ++k) {
        const double expected = serial(k, nb_mesh + s.mine[i]);
        EXPECT_NEAR(values(k, i), expected, 1e-9 * (1 + std::fabs(expected))) << "point " << s.mine[i];
      }
  }
}

// Bad arguments on one rank only: every rank returns the same code, nothing written.
TEST(MpiInterpolate, EveryRankReturnsTheFirstFailingArgument) {
  setup s;
  const bool last = comm_rank() == comm_size() - 1;
  const dense2D<double> field = s.on_part(dense2D<double>(1, s.mesh.coords.cols(), 1.0));
  struct bad_case {
    const char* name;
    int expected;
    bool metrics;
  };
  for (const bad_case& bc :
       {bad_case{"source coords", -2, false}, bad_case{"field columns", -3, false}, bad_case{"points rows", -4, false},
        bad_case{"values shape", -5, true}, bad_case{"component counts", -3, false}}) {
    SCOPED_TRACE(bc.name);
    if (bc.expected == -3 && std::string(bc.name) == "component counts" && comm_size() == 1) continue;
    t3::mpi::part source = s.source;
    dense2D<double> f = field, points = s.points;
    if (last && bc.expected == -2) source.coords = dense2D<double>(2, source.coords.cols());
    if (last && bc.name[0] == 'f') f = dense2D<double>(1, f.cols() + 1);
    if (last && bc.name[0] == 'c') f = dense2D<double>(2, f.cols());
    if (last && bc.expected == -4) points = dense2D<double>(2, 3);
    dense2D<double> values(1, bc.metrics && last ? points.cols() + 1 : points.cols(), 0.25);
    const dense2D<double> before = values;
    const int status = bc.metrics ? t3::mpi::interpolate_metrics(MPI_COMM_WORLD, source, f, points, values, false)
                                  : t3::mpi::interpolate(MPI_COMM_WORLD, source, f, points, values);
    EXPECT_EQ(status, bc.expected);
    EXPECT_EQ(values.data(), before.data());
    EXPECT_EQ(values.cols(), before.cols());
  }
}

// Memory runs out on one rank at each allocation in turn: every rank gets -199 and the
// values are left as they were, until the call has all it needs.
TEST(MpiInterpolate, MemoryFailureOnOneRankRollsBackEverywhere) {
  setup s;
  const dense2D<double> field = s.on_part(dense2D<double>(1, s.mesh.coords.cols(), 1.0));
  int status = -199;
  for (long n = 1; status == -199 && n < 200; ++n) {
    dense2D<double> values(1, 1, 7.0);
    const double* before = values.data();
    {
      failing_allocator guard(comm_rank() == 0 ? n : 0);
      status = t3::mpi::interpolate(MPI_COMM_WORLD, s.source, field, s.points, values);
    }
    if (status == -199) {
      EXPECT_EQ(values.data(), before);
      EXPECT_EQ(values(0, 0), 7.0);
    }
  }
  EXPECT_EQ(status, 0);
}

}  // namespace
