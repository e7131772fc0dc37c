// Distributed extrusions against the one-machine calls on the same surface: every solid
// of every rank is the one-machine solid its global ID names, node for node, and every
// node sits where the one-machine node it stands for sits.
#include <gtest/gtest.h>

#include <cmath>
#include <functional>
#include <vector>

#include "mpi_test_parts.h"
#include "zel/tessel3d.h"
#include "zel/tessel3d_mpi.h"

namespace {

using namespace tessel3d_test;
namespace t3 = zel::tessel3d;
using zel::dense1D;
using zel::dense2D;
using v3 = zel::vector_fixed<double, 3>;

// A wavy surface over [0, 2]^2: quadrangles, every third split into two triangles (the
// mixed 4-row layout), oriented upwards.
struct wavy_surface {
  dense2D<double> coords;
  dense2D<unsigned> faces;
  explicit wavy_surface(unsigned n) {
    const unsigned p = n + 1;
    coords.resize(3, p * p);
    for (unsigned j = 0; j < p; ++j)
      for (unsigned i = 0; i < p; ++i) {
        const double x = 2.0 * i / n, y = 2.0 * j / n;
        coords(0, j * p + i) = x;
        coords(1, j * p + i) = y;
        coords(2, j * p + i) = 0.1 * std::sin(2 * x) * std::cos(3 * y);
      }
    std::vector<unsigned> f;
    for (unsigned j = 0; j < n; ++j)
      for (unsigned i = 0; i < n; ++i) {
        const unsigned a = j * p + i, b = a + 1, c = a + p + 1, d = a + p;
        if ((i + j) % 3 == 0)
          f.insert(f.end(), {a, b, c, ~0U, a, c, d, ~0U});
        else
          f.insert(f.end(), {a, b, c, d});
      }
    faces.resize(4, f.size() / 4);
    std::copy(f.begin(), f.end(), faces.data());
  }
};

struct extrude_case {
  const char* name;
  bool exact;  // positions equal to the last bit
  // The one-machine call on (coords, faces) and the distributed one on a part.
  std::function<int(dense2D<double>&, const dense2D<unsigned>&, dense2D<unsigned>&)> serial;
  std::function<int(const t3::mpi::part&, t3::mpi::part&)> distributed;
  std::size_t appended = 0;  // points the one-machine call needs after the surface's nodes
};

dense2D<double> polyline() {
  return dense2D<double>(3, 4, {1.0, 1.0, 0.0, 1.1, 1.0, 0.5, 1.3, 1.2, 0.9, 1.3, 1.5, 1.3});
}

std::vector<extrude_case> cases() {
  const v3 T(0.1, -0.2, 1.0), C(1.0, -1.0, 0.0), R(1.2, 0.0, 0.0);
  std::vector<extrude_case> all;
  all.push_back({"translate, sizes", true,
                 [=](dense2D<double>& x, const dense2D<unsigned>& f, dense2D<unsigned>& e) {
                   return t3::extrude_translate(x, f, T, 0.1, 0.3, true, e);
                 },
                 [=](const t3::mpi::part& s, t3::mpi::part& out) {
                   return t3::mpi::extrude_translate(MPI_COMM_WORLD, s, T, 0.1, 0.3, true, out);
                 }});
  all.push_back({"rotate, sizes", true,
                 [=](dense2D<double>& x, const dense2D<unsigned>& f, dense2D<unsigned>& e) {
                   return t3::extrude_rotate(x, f, C, R, 0.05, 0.2, false, e);
                 },
                 [=](const t3::mpi::part& s, t3::mpi::part& out) {
                   return t3::mpi::extrude_rotate(MPI_COMM_WORLD, s, C, R, 0.05, 0.2, false, out);
                 }});
  all.push_back({"spiral, layers", true,
                 [=](dense2D<double>& x, const dense2D<unsigned>& f, dense2D<unsigned>& e) {
                   return t3::extrude_spiral(x, f, C, R, T, 3u, e);
                 },
                 [=](const t3::mpi::part& s, t3::mpi::part& out) {
                   return t3::mpi::extrude_spiral(MPI_COMM_WORLD, s, C, R, T, 3u, out);
                 }});
  all.push_back({"normal, thickness", false,
                 [=](dense2D<double>& x, const dense2D<unsigned>& f, dense2D<unsigned>& e) {
                   return t3::extrude_normal(x, f, 0.2, 3u, e);
                 },
                 [=](const t3::mpi::part& s, t3::mpi::part& out) {
                   return t3::mpi::extrude_normal(MPI_COMM_WORLD, s, 0.2, 3u, out);
                 }});
  const dense1D<double, 8> scales({1.0, 1.5, 0.8, 1.2});
  all.push_back({"line, scales", true,
                 [=](dense2D<double>& x, const dense2D<unsigned>& f, dense2D<unsigned>& e) {
                   const unsigned first = unsigned(x.cols() - 4);
                   return t3::extrude_line(x, f, dense1D<unsigned, 8>({first, first + 1, first + 2, first + 3}),
                                           v3(0, 0, 1), scales, e);
                 },
                 [=](const t3::mpi::part& s, t3::mpi::part& out) {
                   return t3::mpi::extrude_line(MPI_COMM_WORLD, s, polyline(), v3(0, 0, 1), scales, out);
                 },
                 4});
  return all;
}

TEST(MpiExtrude, EverySolidIsTheOneMachineSolidItsIdNames) {
  const wavy_surface surface(12);
  const int size = comm_size();
  const std::vector<int> owner = sector_partition(surface.coords, surface.faces, size);
  if (size >= 3) {
    EXPECT_GE(most_ranks_on_a_node(surface.faces, owner, surface.coords.cols()), 3);
  }
  const t3::mpi::part mine = cut_part(surface.coords, surface.faces, owner, comm_rank());
  const std::uint64_t stride = surface.coords.cols();  // largest global node ID + 1

  for (const extrude_case& c : cases()) {
    SCOPED_TRACE(c.name);
    dense2D<double> xs(3, surface.coords.cols() + c.appended);
    const dense2D<double> line = polyline();
    for (std::size_t n = 0; n < xs.cols(); ++n)
      for (unsigned d = 0; d < 3; ++d)
        xs(d, n) = n < surface.coords.cols() ? surface.coords(d, n) : line(d, n - stride);
    const std::size_t nb_serial_nodes = xs.cols();
    dense2D<unsigned> connectE;
    ASSERT_EQ(c.serial(xs, surface.faces, connectE), 0);
    const std::size_t N = connectE.cols() / surface.faces.cols();
    const std::size_t S = stride;  // every node is on the surface, in ID order of first appearance below
    std::vector<unsigned> position(stride, ~0U);
    unsigned next = 0;
    for (std::size_t j = 0; j < surface.faces.cols(); ++j)
      for (unsigned i = 0; i < 4; ++i)
        if (surface.faces(i, j) != ~0U && position[surface.faces(i, j)] == ~0U) position[surface.faces(i, j)] = next++;
    ASSERT_EQ(next, S);

    t3::mpi::part solids;
    ASSERT_EQ(c.distributed(mine, solids), 0);
    ASSERT_EQ(solids.connect.rows(), connectE.rows());
    auto serial_node = [&](std::uint64_t g) {
      const std::uint64_t k = g / stride, id = g % stride;
      return k == 0 ? std::size_t(id) : std::size_t(nb_serial_nodes + (k - 1) * S + position[id]);
    };
    std::size_t wrong_nodes = 0, wrong_positions = 0;
    for (std::size_t j = 0; j < solids.connect.cols(); ++j) {
      const std::uint64_t e = solids.element_ids[j];
      ASSERT_LT(e, connectE.cols());
      for (std::size_t i = 0; i < connectE.rows(); ++i) {
        const unsigned local = solids.connect(i, j);
        if (local == ~0U) {
          wrong_nodes += connectE(i, e) != ~0U;
          continue;
        }
        const std::size_t n = serial_node(solids.node_ids[local]);
        wrong_nodes += n != connectE(i, e);
        for (unsigned d = 0; d < 3 && n < xs.cols(); ++d) {
          const double a = solids.coords(d, local), b = xs(d, n);
          wrong_positions += c.exact ? a != b : std::fabs(a - b) > 1e-14;
        }
      }
    }
    EXPECT_EQ(wrong_nodes, 0u);
    EXPECT_EQ(wrong_positions, 0u);
    // Every one-machine solid is made by exactly one rank.
    unsigned long long made = solids.connect.cols();
    MPI_Allreduce(MPI_IN_PLACE, &made, 1, MPI_UNSIGNED_LONG_LONG, MPI_SUM, MPI_COMM_WORLD);
    EXPECT_EQ(made, connectE.cols());
    EXPECT_GE(N, 2u);
  }
}

// A bad argument on one rank: the same code everywhere, solids unchanged.
TEST(MpiExtrude, EveryRankReturnsTheFirstFailingArgument) {
  const wavy_surface surface(4);
  const std::vector<int> owner = sector_partition(surface.coords, surface.faces, comm_size());
  const bool last = comm_rank() == comm_size() - 1;
  t3::mpi::part mine = cut_part(surface.coords, surface.faces, owner, comm_rank());
  t3::mpi::part solids;
  solids.coords = dense2D<double>(3, 1, 5.0);
  const double* before = solids.coords.data();
  {
    t3::mpi::part bad = mine;
    if (last) bad.node_ids = dense1D<std::uint64_t>(bad.node_ids.size() + 1);
    EXPECT_EQ(t3::mpi::extrude_translate(MPI_COMM_WORLD, bad, v3(0, 0, 1), 2u, solids), -2);
  }
  EXPECT_EQ(t3::mpi::extrude_translate(MPI_COMM_WORLD, mine, v3(0, 0, last ? 0.0 : 1.0), 2u, solids), -4);
  EXPECT_EQ(t3::mpi::extrude_rotate(MPI_COMM_WORLD, mine, v3(0, 0, 0), v3(0, 0, 1), 2u, solids), -5);
  EXPECT_EQ(t3::mpi::extrude_normal(MPI_COMM_WORLD, mine, last ? -1.0 : 1.0, 2u, solids), -3);
  EXPECT_EQ(t3::mpi::extrude_line(MPI_COMM_WORLD, mine, dense2D<double>(3, last ? 1 : 2), v3(0, 0, 1),
                                  dense1D<double, 8>(), solids),
            -3);
  EXPECT_EQ(solids.coords.data(), before);
}

}  // namespace
