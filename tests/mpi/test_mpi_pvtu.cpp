// Partitioned VTK files: a mesh cut over the ranks is written and read back (by as many
// ranks, by fewer, by one), and must give every element its nodes' positions and every
// node its global ID; bad arguments and damaged files give one status on every rank.
// VTK's own reader and writer are the referees in python/tests/test_mpi_pvtu_vtk.py.
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include "failing_allocator.h"
#include "partitioned_meshes.h"
#include "zel/tessel3d.h"
#include "zel/tessel3d_mpi.h"

namespace {

using tessel3d_test::make_mesh;
using tessel3d_test::part_of;
using tessel3d_test::serial_mesh;
using zel::dense1D;
using zel::dense2D;
using zel::element_type;
using zel::tessel3d::mpi::data_array;
using zel::tessel3d::mpi::part;
using zel::tessel3d::mpi::read_pvtu;
using zel::tessel3d::mpi::write_pvtu;

int rank_of(MPI_Comm comm) {
  int r = 0;
  MPI_Comm_rank(comm, &r);
  return r;
}
int size_of(MPI_Comm comm) {
  int s = 0;
  MPI_Comm_size(comm, &s);
  return s;
}

// A file name in a directory private to this run, the same on every rank.
std::string scratch(const std::string& name) {
  long id = static_cast<long>(getpid());
  MPI_Bcast(&id, 1, MPI_LONG, 0, MPI_COMM_WORLD);
  return "/tmp/tessel3d_pvtu_" + std::to_string(id) + "_" + name;
}

// Checks a part read back against the serial mesh: each element's nodes are the serial
// element's (global IDs and positions), every element is read once over `comm`, and the
// type is the one written.
void expect_same_mesh(MPI_Comm comm, const serial_mesh& mesh, const part& p, element_type type,
                      const dense1D<unsigned char>& cell_types) {
  EXPECT_EQ(type, mesh.type);
  ASSERT_EQ(p.connect.cols(), p.element_ids.size());
  ASSERT_EQ(p.coords.cols(), p.node_ids.size());
  for (std::size_t k = 0; k < p.coords.cols(); ++k) {
    ASSERT_LT(p.node_ids[k], mesh.coords.cols());
    for (int i = 0; i < 3; ++i) ASSERT_EQ(p.coords(i, k), mesh.coords(i, p.node_ids[k]));
  }
  std::vector<int> seen(mesh.connect.cols(), 0);
  for (std::size_t k = 0; k < p.connect.cols(); ++k) {
    const std::uint64_t e = p.element_ids[k];
    ASSERT_LT(e, mesh.connect.cols());
    ++seen[e];
    ASSERT_EQ(p.connect.rows(), mesh.connect.rows());
    for (std::size_t i = 0; i < mesh.connect.rows(); ++i) {
      const unsigned local = p.connect(i, k), global = mesh.connect(i, e);
      if (global == zel::tessel::ABSENT)
        ASSERT_EQ(local, zel::tessel::ABSENT);
      else
        ASSERT_EQ(p.node_ids[local], global) << "element " << e << " node " << i;
    }
    const unsigned nodes = mesh.type == zel::SOLID_MIX8 ? (mesh.connect(4, e) == zel::tessel::ABSENT ? 4 : 8)
                                                        : unsigned(mesh.connect.rows());
    EXPECT_EQ(zel::tessel::element_records[cell_types[k]].rows, nodes);
  }
  std::vector<int> everywhere(seen.size());
  MPI_Allreduce(seen.data(), everywhere.data(), int(seen.size()), MPI_INT, MPI_SUM, comm);
  EXPECT_EQ(std::count(everywhere.begin(), everywhere.end(), 1), std::ptrdiff_t(everywhere.size()));
}

// The most ranks holding one node.
int most_holders(const serial_mesh& mesh, const part& p) {
  std::vector<int> holds(mesh.coords.cols(), 0), holders(holds.size());
  for (std::size_t k = 0; k < p.node_ids.size(); ++k) holds[p.node_ids[k]] = 1;
  MPI_Allreduce(holds.data(), holders.data(), int(holds.size()), MPI_INT, MPI_SUM, MPI_COMM_WORLD);
  return *std::max_element(holders.begin(), holders.end());
}

// Collective: once every rank is done with them.
void remove_files(const std::string& path, int pieces) {
  MPI_Barrier(MPI_COMM_WORLD);
  if (rank_of(MPI_COMM_WORLD) != 0) return;
  std::remove(path.c_str());
  for (int r = 0; r < pieces; ++r)
    std::remove((path.substr(0, path.size() - 5) + "_" + std::to_string(r) + ".vtu").c_str());
}

TEST(mpi_pvtu, every_type_reads_back_with_as_many_fewer_or_one_rank) {
  const int rank = rank_of(MPI_COMM_WORLD), size = size_of(MPI_COMM_WORLD);
  // Written by the first half of the ranks (at least one), read by every rank (more
  // ranks than pieces) and by each rank alone (every piece, shared nodes merged).
  const int writers = (size + 1) / 2;
  MPI_Comm writing;
  MPI_Comm_split(MPI_COMM_WORLD, rank < writers ? 0 : 1, rank, &writing);
  const std::string path = scratch("types.pvtu");
  for (element_type type : {zel::TH4, zel::PY5, zel::W6, zel::H8, zel::TH10, zel::PY13, zel::W15, zel::H20, zel::W18,
                            zel::H27, zel::SOLID_MIX8}) {
    SCOPED_TRACE(type);
    const serial_mesh mesh = make_mesh(type);
    ASSERT_GT(mesh.connect.cols(), 0U);
    const part all_ranks = part_of(mesh, rank, size);
    if (size >= 3) {
      EXPECT_GE(most_holders(mesh, all_ranks), 3);
    }
    ASSERT_EQ(write_pvtu(MPI_COMM_WORLD, path.c_str(), all_ranks, type), 0);
    for (int round = 0; round < 3; ++round) {
      if (round == 1 && rank < writers) {
        ASSERT_EQ(write_pvtu(writing, path.c_str(), part_of(mesh, rank, writers), type), 0);
      }
      MPI_Barrier(MPI_COMM_WORLD);
      const MPI_Comm reading = round == 2 ? MPI_COMM_SELF : MPI_COMM_WORLD;
      part p;
      element_type read_type = zel::NONE;
      dense1D<unsigned char> cell_types;
      std::vector<data_array> point_data, cell_data;
      ASSERT_EQ(read_pvtu(reading, path.c_str(), p, read_type, cell_types, point_data, cell_data), 0);
      expect_same_mesh(reading, mesh, p, read_type, cell_types);
      EXPECT_TRUE(point_data.empty() && cell_data.empty());
      if (round == 2) {  // one rank read every piece: each node once
        std::vector<std::uint64_t> ids(p.node_ids.data(), p.node_ids.data() + p.node_ids.size());
        std::sort(ids.begin(), ids.end());
        EXPECT_EQ(std::adjacent_find(ids.begin(), ids.end()), ids.end());
        EXPECT_EQ(ids.size(), mesh.coords.cols());
      }
      MPI_Barrier(MPI_COMM_WORLD);
    }
  }
  MPI_Comm_free(&writing);
  remove_files(path, size);
}

TEST(mpi_pvtu, data_arrays_and_large_ids_travel_with_their_nodes_and_elements) {
  const int rank = rank_of(MPI_COMM_WORLD), size = size_of(MPI_COMM_WORLD);
  const serial_mesh mesh = make_mesh(zel::H8);
  part p = part_of(mesh, rank, size);
  // IDs above 2^63 are written as negative Int64 and must come back unchanged
  const std::uint64_t high = std::uint64_t(1) << 63;
  for (std::size_t k = 0; k < p.node_ids.size(); ++k) p.node_ids[k] += high;
  std::vector<data_array> point_data(2), cell_data(1);
  point_data[0].name = "displacement <x&y>";
  point_data[0].reals.resize(3, p.coords.cols());
  point_data[1].name = "flag";
  point_data[1].integers.resize(1, p.coords.cols());
  for (std::size_t k = 0; k < p.coords.cols(); ++k) {
    for (int i = 0; i < 3; ++i) point_data[0].reals(i, k) = 2 * p.coords(i, k) + 1e-300;
    point_data[1].integers(0, k) = -std::int64_t(p.node_ids[k] - high) - (std::int64_t(1) << 40);
  }
  cell_data[0].name = "material";
  cell_data[0].integers.resize(2, p.connect.cols());
  for (std::size_t k = 0; k < p.connect.cols(); ++k) {
    cell_data[0].integers(0, k) = std::int64_t(p.element_ids[k]) * 3;
    cell_data[0].integers(1, k) = rank;
  }
  const std::string path = scratch("data.pvtu");
  ASSERT_EQ(write_pvtu(MPI_COMM_WORLD, path.c_str(), p, zel::H8, point_data, cell_data), 0);
  part q;
  element_type type;
  dense1D<unsigned char> cell_types;
  std::vector<data_array> points_in, cells_in;
  ASSERT_EQ(read_pvtu(MPI_COMM_SELF, path.c_str(), q, type, cell_types, points_in, cells_in), 0);
  ASSERT_EQ(points_in.size(), 2U);
  ASSERT_EQ(cells_in.size(), 1U);
  EXPECT_EQ(points_in[0].name, point_data[0].name);
  ASSERT_EQ(points_in[0].reals.rows(), 3U);
  ASSERT_EQ(points_in[1].integers.rows(), 1U);
  ASSERT_EQ(cells_in[0].integers.rows(), 2U);
  for (std::size_t k = 0; k < q.coords.cols(); ++k) {
    ASSERT_GE(q.node_ids[k], high);
    const std::uint64_t g = q.node_ids[k] - high;
    for (int i = 0; i < 3; ++i) EXPECT_EQ(points_in[0].reals(i, k), 2 * mesh.coords(i, g) + 1e-300);
    EXPECT_EQ(points_in[1].integers(0, k), -std::int64_t(g) - (std::int64_t(1) << 40));
  }
  for (std::size_t k = 0; k < q.connect.cols(); ++k) {
    EXPECT_EQ(cells_in[0].integers(0, k), std::int64_t(q.element_ids[k]) * 3);
    EXPECT_EQ(cells_in[0].integers(1, k), std::int64_t((q.element_ids[k] * 5 + q.element_ids[k] / 4) % size));
  }
  remove_files(path, size);
}

// A bad argument on one rank only (the last) gives its code on every rank.
TEST(mpi_pvtu, bad_arguments_give_one_status_everywhere) {
  const int rank = rank_of(MPI_COMM_WORLD), size = size_of(MPI_COMM_WORLD);
  const bool culprit = rank == size - 1;
  const serial_mesh mesh = make_mesh(zel::TH4);
  const part good = part_of(mesh, rank, size);
  const std::string path = scratch("bad.pvtu");
  std::vector<data_array> one_array(1);
  one_array[0].name = "u";
  one_array[0].reals.resize(1, good.coords.cols());
  const auto with = [&](auto change) {
    part p = good;
    p.coords.copy(good.coords);
    p.connect.copy(good.connect);
    p.node_ids.copy(good.node_ids);
    if (culprit) change(p);
    return p;
  };
  const struct {
    const char* what;
    int expected;
    std::function<int()> call;
  } cases[] = {
      {"null communicator", -1, [&] { return write_pvtu(MPI_COMM_NULL, path.c_str(), good, zel::TH4); }},
      {"null path", -2, [&] { return write_pvtu(MPI_COMM_WORLD, culprit ? nullptr : path.c_str(), good, zel::TH4); }},
      {"path differing between ranks", size > 1 ? -2 : 0,
       [&] { return write_pvtu(MPI_COMM_WORLD, (culprit ? path + "x.pvtu" : path).c_str(), good, zel::TH4); }},
      {"coords of 2 rows", -3,
       [&] {
         return write_pvtu(MPI_COMM_WORLD, path.c_str(), with([](part& p) { p.coords.resize(2, p.coords.cols()); }),
                           zel::TH4);
       }},
      {"node_ids too short", -3,
       [&] {
         return write_pvtu(MPI_COMM_WORLD, path.c_str(),
                           with([](part& p) { p.node_ids.resize(p.node_ids.size() - 1); }), zel::TH4);
       }},
      {"a node that is not local", -3,
       [&] {
         return write_pvtu(MPI_COMM_WORLD, path.c_str(),
                           with([](part& p) { p.connect(1, 0) = unsigned(p.coords.cols()); }), zel::TH4);
       }},
      {"PY14 has no VTK cell", -4,
       [&] { return write_pvtu(MPI_COMM_WORLD, path.c_str(), good, culprit ? zel::PY14 : zel::TH4); }},
      {"rows of another type", -4,
       [&] { return write_pvtu(MPI_COMM_WORLD, path.c_str(), good, culprit ? zel::H8 : zel::TH4); }},
      {"cell_types of the wrong size", -4,
       [&] {
         dense1D<unsigned char> types(good.connect.cols() - (culprit ? 1 : 0), zel::TH4);
         return write_pvtu(MPI_COMM_WORLD, path.c_str(), good, types);
       }},
      {"point array of the wrong count", -5,
       [&] {
         std::vector<data_array> arrays = one_array;
         if (culprit) arrays[0].reals = dense2D<double>(1, 1);
         return write_pvtu(MPI_COMM_WORLD, path.c_str(), good, zel::TH4, arrays);
       }},
      {"point array named as the global IDs", -5,
       [&] {
         std::vector<data_array> arrays = one_array;
         if (culprit) arrays[0].name = "GlobalNodeID";
         return write_pvtu(MPI_COMM_WORLD, path.c_str(), good, zel::TH4, arrays);
       }},
      {"point arrays differing between ranks", size > 1 ? -5 : 0,
       [&] {
         std::vector<data_array> arrays = one_array;
         if (culprit) arrays[0].name = "v";
         return write_pvtu(MPI_COMM_WORLD, path.c_str(), good, zel::TH4, arrays);
       }},
      {"cell array both real and integer", -6,
       [&] {
         std::vector<data_array> arrays(1);
         arrays[0].name = "c";
         arrays[0].reals.resize(1, good.connect.cols());
         if (culprit) arrays[0].integers.resize(1, good.connect.cols());
         return write_pvtu(MPI_COMM_WORLD, path.c_str(), good, zel::TH4, {}, arrays);
       }},
      {"read: null path", -2,
       [&] {
         part p;
         element_type type;
         dense1D<unsigned char> types;
         std::vector<data_array> a, b;
         return read_pvtu(MPI_COMM_WORLD, culprit ? nullptr : path.c_str(), p, type, types, a, b);
       }},
      {"read: no such file", -2,
       [&] {
         part p;
         element_type type;
         dense1D<unsigned char> types;
         std::vector<data_array> a, b;
         return read_pvtu(MPI_COMM_WORLD, (path + ".absent").c_str(), p, type, types, a, b);
       }},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.what);
    const int status = c.call();
    EXPECT_EQ(status, c.expected);
    int lowest = status, highest = status;
    MPI_Allreduce(&status, &lowest, 1, MPI_INT, MPI_MIN, MPI_COMM_WORLD);
    MPI_Allreduce(&status, &highest, 1, MPI_INT, MPI_MAX, MPI_COMM_WORLD);
    EXPECT_EQ(lowest, highest);
  }
  remove_files(path, size);
}

// Damaged copies of a written file: any status but 0 or -2 (or a crash, or a hang) is a
// fault; a 0 must come with a mesh whose node indices are in range. Each rank damages
// its own copies and reads them alone.
TEST(mpi_pvtu, damaged_files_give_a_status_and_leave_outputs_unchanged) {
  const int rank = rank_of(MPI_COMM_WORLD);
  const serial_mesh mesh = make_mesh(zel::W15);
  const std::string path = scratch("damaged_source_" + std::to_string(rank) + ".pvtu");
  const part small = part_of(mesh, 0, 6);
  std::vector<data_array> cell_data(1);
  cell_data[0].name = "id";
  cell_data[0].integers.resize(1, small.connect.cols());
  ASSERT_EQ(write_pvtu(MPI_COMM_SELF, path.c_str(), small, zel::W15, {}, cell_data), 0);
  std::string piece;
  {
    std::ifstream in(path.substr(0, path.size() - 5) + "_0.vtu", std::ios::binary);
    piece.assign(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
  }
  ASSERT_GT(piece.size(), 500U);
  const std::string own = scratch("damaged_" + std::to_string(rank) + ".vtu");
  const auto read_copy = [&](const std::string& bytes) {
    {
      std::ofstream out(own, std::ios::binary | std::ios::trunc);
      out << bytes;
    }
    part p;
    p.node_ids.resize(1, 77);
    element_type type = zel::H8;
    dense1D<unsigned char> types;
    std::vector<data_array> a, b;
    const int status = read_pvtu(MPI_COMM_SELF, own.c_str(), p, type, types, a, b);
    if (status != 0) {
      EXPECT_EQ(status, -2);
      EXPECT_TRUE(p.node_ids.size() == 1 && p.node_ids[0] == 77 && type == zel::H8 && p.coords.empty());
    } else {
      for (std::size_t j = 0; j < p.connect.cols(); ++j)
        for (std::size_t i = 0; i < p.connect.rows(); ++i)
          EXPECT_TRUE(p.connect(i, j) < p.coords.cols() || p.connect(i, j) == zel::tessel::ABSENT);
    }
    return status;
  };
  const auto replaced = [&](const std::string& from, const std::string& to) {
    std::string bytes = piece;
    const std::size_t at = bytes.find(from);
    EXPECT_NE(at, std::string::npos) << from;
    return bytes.replace(at, from.size(), to);
  };
  EXPECT_EQ(read_copy(piece), 0);
  const struct {
    const char* from;
    const char* to;
  } edits[] = {{"NumberOfPoints=\"", "NumberOfPoints=\"9999999999"},
               {"NumberOfCells=\"", "NumberOfCells=\"4294967296"},
               {"offset=\"0\"", "offset=\"99999999\""},
               {"offset=\"0\"", "offset=\"18446744073709551615\""},
               {"offset=\"0\"", "offset=\"-1\""},
               {"header_type=\"UInt64\"", "header_type=\"UInt16\""},
               {"byte_order=\"", "byte_order=\"Middle"},
               {"type=\"UInt8\"", "type=\"Float16\""},
               {"<Cells>", "<Cell>"},
               {"</Piece>", ""},
               {"encoding=\"raw\"", "encoding=\"base64\""},
               {"<VTKFile", "<VTKFile compressor=\"vtkLZ4DataCompressor\""},
               {"<VTKFile", "<VTKFile compressor=\"vtkZLibDataCompressor\""},
               {"Name=\"connectivity\"", "Name=\"connectivity\" format=\"ascii\""}};
  for (const auto& edit : edits) EXPECT_EQ(read_copy(replaced(edit.from, edit.to)), -2) << edit.to;
  // cut short anywhere before the end of the data, and random bytes changed: a status, never a fault
  const std::size_t data_end = piece.rfind("</AppendedData>") - 3;
  for (std::size_t cut = 0; cut < data_end; cut += 1 + data_end / 60) EXPECT_EQ(read_copy(piece.substr(0, cut)), -2);
  std::uint64_t state = 12345 + rank;
  for (int trial = 0; trial < 150; ++trial) {
    std::string bytes = piece;
    for (int k = 0; k < 1 + trial % 4; ++k) {
      state = state * 6364136223846793005ULL + 1442695040888963407ULL;
      bytes[(state >> 33) % bytes.size()] = static_cast<char>(state >> 20);
    }
    read_copy(bytes);
  }
  std::remove(own.c_str());
  std::remove(path.c_str());
  std::remove((path.substr(0, path.size() - 5) + "_0.vtu").c_str());
}

TEST(mpi_pvtu, memory_failure_on_one_rank_fails_everywhere_and_changes_nothing) {
  const int rank = rank_of(MPI_COMM_WORLD), size = size_of(MPI_COMM_WORLD);
  const serial_mesh mesh = make_mesh(zel::PY5);
  const std::string path = scratch("memory.pvtu");
  std::vector<data_array> point_data(1);
  point_data[0].name = "t";
  const part written = part_of(mesh, rank, size);
  point_data[0].reals.resize(2, written.coords.cols());
  ASSERT_EQ(write_pvtu(MPI_COMM_WORLD, path.c_str(), written, zel::PY5, point_data), 0);
  for (long n = 1;; ++n) {
    part p;
    element_type type = zel::NODE;
    dense1D<unsigned char> types;
    std::vector<data_array> points_in, cells_in;
    int status;
    {
      tessel3d_test::failing_allocator guard(rank == size - 1 ? n : 0);
      status = read_pvtu(MPI_COMM_WORLD, path.c_str(), p, type, types, points_in, cells_in);
    }
    if (status == 0) {
      expect_same_mesh(MPI_COMM_WORLD, mesh, p, type, types);
      EXPECT_GT(n, 4);  // the part's matrices at least
      break;
    }
    ASSERT_EQ(status, -199);
    EXPECT_TRUE(p.coords.empty() && p.connect.empty() && p.node_ids.empty() && types.empty() && type == zel::NODE &&
                points_in.empty());
  }
  remove_files(path, size);
}

}  // namespace
