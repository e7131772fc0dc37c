// Timings of the distributed interpolation, extrusion and crack opening (run under mpirun):
//   mpirun -np N build/release/bench/mpi_scaling_rest NX NY NZ [weak]
// Every rank builds an NX x NY x NZ jittered box of TH4 (with "weak", NZ cells per rank)
// and takes the elements whose centroid lies in its slab of z. It prints the slowest
// rank's time for:
//   interpolate  a linear field read at 100,000 random points inside the box (spread
//                over the ranks): the points whose value is not the field's (a point
//                missed, or read in the wrong element) are counted;
//   extrude      a 2 x 224 x 224-triangle surface (100,352 T3) swept by
//                extrude_translate into 10 layers, cut in strips over the ranks;
//   crack        duplicate_surface_nodes on the mid-height plane of the box's grid, both
//                sides;
// and per rank the shared nodes, the boundary faces sent to the meeting ranks, and the
// points routed to other ranks.
#include <mpi.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <vector>

#include "box_mesh.h"
#include "mpi/node_sharing.h"
#include "zel/tessel3d_mpi.h"

namespace {

namespace tm = zel::tessel3d::mpi;
using zel::dense1D;
using zel::dense2D;

// The columns of `connect` whose centroid z lies in [z0, z1) as a part (global IDs: the
// columns).
tm::part slab(const dense2D<double>& coords, const dense2D<unsigned>& c, int axis, double z0, double z1) {
  std::vector<std::size_t> mine;
  const std::size_t rows = c.rows();
  for (std::size_t j = 0; j < c.cols(); ++j) {
    double z = 0;
    for (std::size_t i = 0; i < rows; ++i) z += coords(axis, c(i, j)) / double(rows);
    if (z >= z0 && z < z1) mine.push_back(j);
  }
  std::vector<unsigned> local(coords.cols(), ~0U), global;
  for (std::size_t j : mine)
    for (std::size_t i = 0; i < rows; ++i) local[c(i, j)] = 0;
  for (std::size_t x = 0; x < local.size(); ++x)
    if (local[x] == 0) local[x] = unsigned(global.size()), global.push_back(unsigned(x));
  tm::part p;
  p.coords.resize(3, global.size());
  p.node_ids.resize(global.size());
  for (std::size_t l = 0; l < global.size(); ++l) {
    for (int d = 0; d < 3; ++d) p.coords(d, l) = coords(d, global[l]);
    p.node_ids[l] = global[l];
  }
  p.connect.resize(rows, mine.size());
  p.element_ids.resize(mine.size());
  for (std::size_t k = 0; k < mine.size(); ++k) {
    p.element_ids[k] = mine[k];
    for (std::size_t i = 0; i < rows; ++i) p.connect(i, k) = local[c(i, mine[k])];
  }
  return p;
}

std::size_t shared_nodes(const tm::part& p) {
  tm::detail::node_sharing sharing;
  if (tm::detail::build_node_sharing(MPI_COMM_WORLD, p.node_ids, sharing) != 0) return 0;
  std::size_t n = 0;
  for (const auto& list : sharing.shared) n += list.size();
  return n;
}

double slowest(double seconds) {
  MPI_Allreduce(MPI_IN_PLACE, &seconds, 1, MPI_DOUBLE, MPI_MAX, MPI_COMM_WORLD);
  return seconds;
}

double cpu_seconds() {
  timespec t;
  clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &t);
  return double(t.tv_sec) + 1e-9 * double(t.tv_nsec);
}

// Wall time of the slowest rank; cpu receives the largest CPU time of a rank (the machine
// is shared: the CPU time says what the work costs, the wall time what the load allows).
template <class Call>
double timed(const Call& call, int& status, double& cpu) {
  MPI_Barrier(MPI_COMM_WORLD);
  const double t0 = MPI_Wtime(), c0 = cpu_seconds();
  status = call();
  cpu = slowest(cpu_seconds() - c0);
  return slowest(MPI_Wtime() - t0);
}

}  // namespace

int main(int argc, char** argv) {
  MPI_Init(&argc, &argv);
  int rank = 0, size = 1;
  MPI_Comm_rank(MPI_COMM_WORLD, &rank);
  MPI_Comm_size(MPI_COMM_WORLD, &size);
  const unsigned nx = argc > 1 ? unsigned(std::atoi(argv[1])) : 40, ny = argc > 2 ? unsigned(std::atoi(argv[2])) : 40;
  unsigned nz = argc > 3 ? unsigned(std::atoi(argv[3])) : 40;
  const bool weak = argc > 4 && std::strcmp(argv[4], "weak") == 0;
  if (weak) nz *= unsigned(size);
  const double lz = double(nz) / nx;
  const tessel3d_test::box_mesh box =
      tessel3d_test::make_box(tessel3d_test::box_kind::TH4, nx, ny, nz, 1.0, double(ny) / nx, lz, 0.2, 3);
  const double h = lz / size;
  tm::part source = slab(box.coords, box.connect, 2, rank * h, rank + 1 == size ? lz + 1 : (rank + 1) * h);
  const std::size_t shared = shared_nodes(source);

  // Interpolation at 100,000 points inside the box, each rank a share of them.
  const std::size_t nb_points = 100000;
  tessel3d_test::random_stream random(17);
  std::vector<double> all(3 * nb_points);
  for (std::size_t j = 0; j < nb_points; ++j) {
    all[3 * j] = random.uniform(0, 1.0);
    all[3 * j + 1] = random.uniform(0, double(ny) / nx);
    all[3 * j + 2] = random.uniform(0, lz);
  }
  const std::size_t first = nb_points * rank / size, last = nb_points * (rank + 1) / size;
  dense2D<double> points(3, last - first);
  std::copy(all.begin() + std::ptrdiff_t(3 * first), all.begin() + std::ptrdiff_t(3 * last), points.data());
  dense2D<double> field(1, source.coords.cols());
  for (std::size_t n = 0; n < field.cols(); ++n)
    field(0, n) = source.coords(0, n) + 2 * source.coords(1, n) + 3 * source.coords(2, n);
  dense2D<double> values;
  int status = 0;
  double cpu = 0;
  const double t_interpolate =
      timed([&] { return tm::interpolate(MPI_COMM_WORLD, source, field, points, values); }, status, cpu);
  unsigned long long wrong = 0;
  for (std::size_t j = 0; j < points.cols() && status == 0; ++j) {
    const double expected = points(0, j) + 2 * points(1, j) + 3 * points(2, j);
    wrong += !(std::fabs(values(0, j) - expected) <= 1e-9 * (1 + std::fabs(expected)));
  }
  MPI_Allreduce(MPI_IN_PLACE, &wrong, 1, MPI_UNSIGNED_LONG_LONG, MPI_SUM, MPI_COMM_WORLD);
  if (rank == 0)
    std::printf("interpolate %zu TH4, %zu points: %.3f s (cpu %.3f s, status %d), points not read right: %llu\n",
                box.connect.cols(), nb_points, t_interpolate, cpu, status, wrong);

  // Extrusion of 100,352 triangles into 10 layers, the surface cut in strips of y.
  {
    const unsigned n = 224, p = n + 1;
    dense2D<double> xyz(3, std::size_t(p) * p);
    for (unsigned j = 0; j < p; ++j)
      for (unsigned i = 0; i < p; ++i) {
        xyz(0, j * p + i) = double(i) / n;
        xyz(1, j * p + i) = double(j) / n;
        xyz(2, j * p + i) = 0.05 * std::sin(6.0 * i / n);
      }
    dense2D<unsigned> tri(3, 2 * std::size_t(n) * n);
    for (unsigned j = 0, k = 0; j < n; ++j)
      for (unsigned i = 0; i < n; ++i) {
        const unsigned a = j * p + i;
        const unsigned t[6] = {a, a + 1, a + p + 1, a, a + p + 1, a + p};
        for (unsigned r = 0; r < 6; ++r) tri(r % 3, k + r / 3) = t[r];
        k += 2;
      }
    const tm::part surface = slab(xyz, tri, 1, double(rank) / size, rank + 1 == size ? 2.0 : double(rank + 1) / size);
    tm::part solids;
    const double t_extrude = timed(
        [&] {
          return tm::extrude_translate(MPI_COMM_WORLD, surface, zel::vector_fixed<double, 3>(0, 0, 0.3), 10u, solids);
        },
        status, cpu);
    unsigned long long made = solids.connect.cols();
    MPI_Allreduce(MPI_IN_PLACE, &made, 1, MPI_UNSIGNED_LONG_LONG, MPI_SUM, MPI_COMM_WORLD);
    if (rank == 0)
      std::printf("extrude_translate %zu T3 x 10 layers: %.3f s (cpu %.3f s, status %d), %llu W6\n", tri.cols(),
                  t_extrude, cpu, status, made);
  }

  // Crack along the grid plane at mid-height of y (it crosses every slab).
  {
    const unsigned px = nx + 1, py = ny + 1, jm = ny / 2;
    std::vector<unsigned> local(box.coords.cols(), ~0U);
    for (std::size_t l = 0; l < source.node_ids.size(); ++l) local[source.node_ids[l]] = unsigned(l);
    std::vector<unsigned> faces;
    for (unsigned k = 0; k < nz; ++k)
      for (unsigned i = 0; i < nx; ++i) {
        auto node = [&](unsigned a, unsigned c) { return (c * py + jm) * px + a; };
        const unsigned q[4] = {node(i, k), node(i, k + 1), node(i + 1, k + 1), node(i + 1, k)};
        const unsigned t[2][3] = {{q[0], q[1], q[2]}, {q[0], q[2], q[3]}};
        for (const auto& f : t) {
          if (local[f[0]] == ~0U || local[f[1]] == ~0U || local[f[2]] == ~0U) continue;
          for (unsigned r = 0; r < 3; ++r) faces.push_back(local[f[r]]);
        }
      }
    dense2D<unsigned> surface(3, faces.size() / 3);
    std::copy(faces.begin(), faces.end(), surface.data());
    int added = 0;
    const double t_crack = timed(
        [&] {
          return added = tm::duplicate_surface_nodes(MPI_COMM_WORLD, source, surface, dense1D<unsigned, 8>(), true,
                                                     true, zel::TH4);
        },
        status, cpu);
    if (rank == 0)
      std::printf("duplicate_surface_nodes %zu TH4, %u-face plane: %.3f s (cpu %.3f s), %d nodes added\n",
                  box.connect.cols(), 2 * nx * nz, t_crack, cpu, added);
  }
  for (int r = 0; r < size; ++r) {
    if (r == rank) std::printf("  rank %d: %zu TH4, %zu shared nodes\n", rank, source.connect.cols(), shared);
    std::fflush(stdout);
    MPI_Barrier(MPI_COMM_WORLD);
  }
  MPI_Finalize();
  return 0;
}
