// TEMPORARY main of the distributed tests (until the shared one is merged).
#include <gtest/gtest.h>
#include <mpi.h>

int main(int argc, char** argv) {
  MPI_Init(&argc, &argv);
  ::testing::InitGoogleTest(&argc, argv);
  int rank = 0;
  MPI_Comm_rank(MPI_COMM_WORLD, &rank);
  if (rank != 0)
    delete ::testing::UnitTest::GetInstance()->listeners().Release(
        ::testing::UnitTest::GetInstance()->listeners().default_result_printer());
  const int failed = RUN_ALL_TESTS();
  int any = 0;
  MPI_Allreduce(&failed, &any, 1, MPI_INT, MPI_MAX, MPI_COMM_WORLD);
  MPI_Finalize();
  return any;
}
