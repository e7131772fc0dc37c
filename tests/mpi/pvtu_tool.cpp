// The partitioned files as a program, for the test that lets VTK judge them
// (test_pvtu_vtk.py), run under mpirun:
//   tessel3d_pvtu_tool types DIR    writes DIR/<type>.pvtu, a mesh of each type VTK holds,
//                                   its elements spread over the ranks
//   tessel3d_pvtu_tool copy IN OUT  reads IN with every rank and writes it to OUT
//                                   (cells, global IDs and every data array)
// The exit status is 0 on success, 1 otherwise (with the status on stderr).
#include <mpi.h>

#include <cstdio>
#include <cstring>
#include <string>

#include "partitioned_meshes.h"

namespace {

using namespace zel::tessel3d::mpi;

int write_types(const std::string& directory) {
  static const struct {
    zel::element_type type;
    const char* name;
  } types[] = {{zel::T3, "T3"},     {zel::T6, "T6"},   {zel::Q4, "Q4"},     {zel::Q8, "Q8"},
               {zel::Q9, "Q9"},     {zel::TH4, "TH4"}, {zel::TH10, "TH10"}, {zel::PY5, "PY5"},
               {zel::PY13, "PY13"}, {zel::W6, "W6"},   {zel::W15, "W15"},   {zel::W18, "W18"},
               {zel::H8, "H8"},     {zel::H20, "H20"}, {zel::H27, "H27"},   {zel::SOLID_MIX8, "SOLID_MIX8"}};
  int rank = 0, size = 1;
  MPI_Comm_rank(MPI_COMM_WORLD, &rank);
  MPI_Comm_size(MPI_COMM_WORLD, &size);
  for (const auto& t : types) {
    const tessel3d_test::serial_mesh mesh = tessel3d_test::make_mesh(t.type);
    const std::string path = directory + "/" + t.name + ".pvtu";
    const int status = mesh.connect.empty()
                           ? -4
                           : write_pvtu(MPI_COMM_WORLD, path.c_str(), tessel3d_test::part_of(mesh, rank, size), t.type);
    if (status != 0) {
      std::fprintf(stderr, "%s: status %d\n", path.c_str(), status);
      return 1;
    }
  }
  return 0;
}

int copy(const char* in, const char* out) {
  part p;
  zel::element_type type;
  zel::dense1D<unsigned char> cell_types;
  std::vector<data_array> point_data, cell_data;
  int status = read_pvtu(MPI_COMM_WORLD, in, p, type, cell_types, point_data, cell_data);
  if (status == 0) status = write_pvtu(MPI_COMM_WORLD, out, p, cell_types, point_data, cell_data);
  if (status != 0) std::fprintf(stderr, "%s -> %s: status %d\n", in, out, status);
  return status == 0 ? 0 : 1;
}

}  // namespace

int main(int argc, char** argv) {
  MPI_Init(&argc, &argv);
  int failed = 2;
  if (argc == 3 && std::strcmp(argv[1], "types") == 0) failed = write_types(argv[2]);
  if (argc == 4 && std::strcmp(argv[1], "copy") == 0) failed = copy(argv[2], argv[3]);
  if (failed == 2) std::fprintf(stderr, "usage: %s types DIR | copy IN OUT\n", argv[0]);
  MPI_Finalize();
  return failed;
}
