// Times of the distributed foundation on a box of 998,250 TH4 (55^3 cells), on as many
// ranks as mpirun starts: distribute from rank 0, the derivation of who shares which
// nodes, volume, the dihedral angles and gather back to rank 0. Each figure is the best
// of `repeats` runs of the slowest rank; the parts' shared nodes are what a neighbour
// exchange of one value per node sends.
//   mpirun -np N bench_mpi_distribute [cells per side = 55] [repeats = 3]
#include <mpi.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>

#include "box_mesh.h"
#include "mpi/node_sharing.h"
#include "zel/tessel3d_mpi.h"

namespace {

namespace tm = zel::tessel3d::mpi;

// Seconds of the slowest rank for one collective call.
template <class F>
double timed(F call) {
  MPI_Barrier(MPI_COMM_WORLD);
  const double start = MPI_Wtime();
  if (call() != 0) {
    std::fprintf(stderr, "a call failed\n");
    MPI_Abort(MPI_COMM_WORLD, 1);
  }
  double local = MPI_Wtime() - start, slowest = 0;
  MPI_Allreduce(&local, &slowest, 1, MPI_DOUBLE, MPI_MAX, MPI_COMM_WORLD);
  return slowest;
}

}  // namespace

int main(int argc, char** argv) {
  MPI_Init(&argc, &argv);
  int rank = 0, size = 1;
  MPI_Comm_rank(MPI_COMM_WORLD, &rank);
  MPI_Comm_size(MPI_COMM_WORLD, &size);
  const unsigned side = argc > 1 ? unsigned(std::atoi(argv[1])) : 55;
  const int repeats = argc > 2 ? std::atoi(argv[2]) : 3;

  tessel3d_test::box_mesh mesh;
  if (rank == 0) mesh = tessel3d_test::make_box(tessel3d_test::box_kind::TH4, side, side, side, 1, 1, 1, 0.1);
  double best[5] = {1e30, 1e30, 1e30, 1e30, 1e30};
  tm::part p;
  tm::detail::node_sharing sharing;
  for (int r = 0; r < repeats; ++r) {
    double total = 0, smallest = 0, largest = 0;
    zel::dense1D<double, 8> mins, maxs;
    zel::dense1D<unsigned, 8> flat;
    zel::dense2D<double> coords;
    zel::dense2D<unsigned> connect;
    const double t[5] = {
        timed([&] { return tm::distribute(MPI_COMM_WORLD, 0, mesh.coords, mesh.connect, p); }),
        timed([&] { return tm::detail::build_node_sharing(MPI_COMM_WORLD, p.node_ids, sharing); }),
        timed([&] { return tm::volume(MPI_COMM_WORLD, p, total); }),
        timed([&] { return tm::dihedral_angles(MPI_COMM_WORLD, p, true, mins, maxs, flat, smallest, largest); }),
        timed([&] { return tm::gather(MPI_COMM_WORLD, 0, p, coords, connect); }),
    };
    for (int k = 0; k < 5; ++k) best[k] = std::min(best[k], t[k]);
  }
  // Communication volume: local nodes, shared node entries and neighbours per rank.
  unsigned long long local[3] = {p.node_ids.size(), 0, sharing.neighbours.size()}, most[3], sum[3];
  for (const auto& list : sharing.shared) local[1] += list.size();
  MPI_Reduce(local, most, 3, MPI_UNSIGNED_LONG_LONG, MPI_MAX, 0, MPI_COMM_WORLD);
  MPI_Reduce(local, sum, 3, MPI_UNSIGNED_LONG_LONG, MPI_SUM, 0, MPI_COMM_WORLD);
  unsigned long long elements = p.element_ids.size(), all_elements = 0;
  MPI_Reduce(&elements, &all_elements, 1, MPI_UNSIGNED_LONG_LONG, MPI_SUM, 0, MPI_COMM_WORLD);
  if (rank == 0) {
    std::printf(
        "ranks %d, %llu TH4: distribute %.3f s, node sharing %.3f s, volume %.3f s, dihedral %.3f s, "
        "gather %.3f s\n",
        size, all_elements, best[0], best[1], best[2], best[3], best[4]);
    std::printf("per rank: nodes <= %llu, shared node entries <= %llu (total %llu), neighbours <= %llu\n", most[0],
                most[1], sum[1], most[2]);
  }
  MPI_Finalize();
  return 0;
}
