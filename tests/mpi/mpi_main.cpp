// The main of every distributed test: MPI around GoogleTest. Every rank runs every test;
// only rank 0 prints, and a test fails on every rank's exit status when it fails on any.
#include <gtest/gtest.h>
#include <mpi.h>

int main(int argc, char** argv) {
  MPI_Init(&argc, &argv);
  ::testing::InitGoogleTest(&argc, argv);
  int rank = 0;
  MPI_Comm_rank(MPI_COMM_WORLD, &rank);
  if (rank != 0) {
    // The other ranks report their failures through the exit status below, and print
    // only the failures themselves.
    auto& listeners = ::testing::UnitTest::GetInstance()->listeners();
    ::testing::TestEventListener* printer = listeners.Release(listeners.default_result_printer());
    delete printer;
  }
  int failed = RUN_ALL_TESTS() != 0 ? 1 : 0, failed_anywhere = 0;
  MPI_Allreduce(&failed, &failed_anywhere, 1, MPI_INT, MPI_MAX, MPI_COMM_WORLD);
  if (rank == 0 && failed_anywhere && !failed) std::fprintf(stderr, "a test failed on another rank\n");
  MPI_Finalize();
  return failed_anywhere;
}
