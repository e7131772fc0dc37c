// Strong and weak scaling of the distributed order conversions (run under mpirun):
//   mpirun -np N build/release/bench/mpi/bench_mpi_order NX NY NZ [weak]
// Every rank builds an NX x NY x NZ box of TH4 (six per cell; with "weak", NZ cells per
// rank) and takes the elements whose centroid lies in its slab of z, elements and nodes in
// ascending global ID. For each conversion it prints the slowest rank's time, the
// elements per second, and per rank the shared nodes before and after (the new shared
// nodes are those the conversion had to make one across ranks).
#include <mpi.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "box_mesh.h"
#include "mpi/node_sharing.h"
#include "zel/tessel3d_mpi.h"

namespace {

namespace tm = zel::tessel3d::mpi;

tm::part slab(const tessel3d_test::box_mesh& box, double z0, double z1) {
  const auto& c = box.connect;
  std::vector<std::size_t> mine;
  for (std::size_t j = 0; j < c.cols(); ++j) {
    double z = 0;
    for (std::size_t i = 0; i < 4; ++i) z += box.coords(2, c(i, j)) / 4;
    if (z >= z0 && z < z1) mine.push_back(j);
  }
  std::vector<unsigned> local(box.coords.cols(), ~0U), global;
  for (std::size_t j : mine)
    for (std::size_t i = 0; i < 4; ++i) local[c(i, j)] = 0;
  for (std::size_t x = 0; x < local.size(); ++x)
    if (local[x] == 0) local[x] = unsigned(global.size()), global.push_back(unsigned(x));
  tm::part p;
  p.coords.resize(3, global.size());
  p.node_ids.resize(global.size());
  for (std::size_t l = 0; l < global.size(); ++l) {
    for (int d = 0; d < 3; ++d) p.coords(d, l) = box.coords(d, global[l]);
    p.node_ids[l] = global[l];
  }
  p.connect.resize(4, mine.size());
  p.element_ids.resize(mine.size());
  for (std::size_t k = 0; k < mine.size(); ++k) {
    p.element_ids[k] = mine[k];
    for (std::size_t i = 0; i < 4; ++i) p.connect(i, k) = local[c(i, mine[k])];
  }
  return p;
}

std::size_t shared_nodes(const tm::part& p) {
  zel::tessel3d::mpi::detail::node_sharing sharing;
  if (zel::tessel3d::mpi::detail::build_node_sharing(MPI_COMM_WORLD, p.node_ids, sharing) != 0) return 0;
  std::size_t n = 0;
  for (const auto& list : sharing.shared) n += list.size();
  return n;
}

}  // namespace

int main(int argc, char** argv) {
  MPI_Init(&argc, &argv);
  int rank = 0, size = 1;
  MPI_Comm_rank(MPI_COMM_WORLD, &rank);
  MPI_Comm_size(MPI_COMM_WORLD, &size);
  const unsigned nx = argc > 1 ? unsigned(std::atoi(argv[1])) : 40, ny = argc > 2 ? unsigned(std::atoi(argv[2])) : 40;
  const bool weak = argc > 4 && std::strcmp(argv[4], "weak") == 0;
  const unsigned nz = (argc > 3 ? unsigned(std::atoi(argv[3])) : 40) * (weak ? unsigned(size) : 1u);
  const auto box = tessel3d_test::make_box(tessel3d_test::box_kind::TH4, nx, ny, nz, 1, 1, double(nz) / nx, 0.2, 1);
  const double height = double(nz) / nx, eps = 1e-9;
  const tm::part linear =
      slab(box, rank == 0 ? -eps : height * rank / size, rank == size - 1 ? height + eps : height * (rank + 1) / size);
  if (rank == 0)
    std::printf("%u ranks, %zu TH4 (%s), %zu elements on rank 0\n", size, box.connect.cols(), weak ? "weak" : "strong",
                linear.connect.cols());

  struct step {
    const char* name;
    int (*run)(const tm::part& in, tm::part& out);
  };
  const step steps[] = {
      {"quadratic",
       [](const tm::part& in, tm::part& out) {
         out = in;
         return tm::convert_into_quadratic(MPI_COMM_WORLD, out);
       }},
      {"high order (2,1,1,1,1,1,1)",
       [](const tm::part& in, tm::part& out) {
         out = in;
         return tm::convert_into_high_order(MPI_COMM_WORLD, out, 2, 1, 1, 1, 1, 1, 1, {});
       }},
      {"split into H8", [](const tm::part& in, tm::part& out) { return tm::split_into_H8(MPI_COMM_WORLD, in, out); }},
      {"linear (of the quadratic)",
       [](const tm::part& in, tm::part& out) {
         out = in;
         return tm::convert_into_linear(MPI_COMM_WORLD, out);
       }},
  };
  if (rank == 0) {  // the one-machine conversions of the whole mesh, for reference
    zel::dense2D<double> coords, split_coords;
    zel::dense2D<unsigned> connect, hexahedra;
    coords.copy(box.coords);
    split_coords.copy(box.coords);
    connect.copy(box.connect);
    const double t0 = MPI_Wtime();
    zel::tessel3d::split_into_H8(split_coords, connect, hexahedra, {}, zel::dense2D<unsigned>());
    const double t1 = MPI_Wtime();
    zel::tessel3d::convert_into_quadratic(coords, connect);
    std::printf("one machine, whole mesh: quadratic %.3f s, split into H8 %.3f s\n", MPI_Wtime() - t1, t1 - t0);
  }
  const std::size_t before = shared_nodes(linear);
  for (const step& s : steps) {
    tm::part out;
    tm::part in;
    in.coords.copy(linear.coords);
    in.connect.copy(linear.connect);
    in.node_ids.copy(linear.node_ids);
    in.element_ids.copy(linear.element_ids);
    if (std::strncmp(s.name, "linear", 6) == 0) tm::convert_into_quadratic(MPI_COMM_WORLD, in);  // untimed
    MPI_Barrier(MPI_COMM_WORLD);
    const double t0 = MPI_Wtime();
    const int status = s.run(in, out);
    double seconds = MPI_Wtime() - t0, slowest = 0;
    MPI_Reduce(&seconds, &slowest, 1, MPI_DOUBLE, MPI_MAX, 0, MPI_COMM_WORLD);
    const std::size_t after = shared_nodes(out);
    std::vector<unsigned long> counts(2 * size);
    unsigned long mine[2] = {before, after};
    MPI_Gather(mine, 2, MPI_UNSIGNED_LONG, counts.data(), 2, MPI_UNSIGNED_LONG, 0, MPI_COMM_WORLD);
    if (rank == 0) {
      std::printf("%-28s status %d  %.3f s  %.2e elements/s  shared nodes per rank (before -> after):", s.name, status,
                  slowest, double(box.connect.cols()) / slowest);
      for (int r = 0; r < size; ++r) std::printf(" %lu->%lu", counts[2 * r], counts[2 * r + 1]);
      std::printf("\n");
    }
  }
  MPI_Finalize();
  return 0;
}
