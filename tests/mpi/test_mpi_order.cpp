// The distributed order conversions against the one-machine ones on the same mesh: every
// rank builds the mesh, takes its part, converts it; the parts' cells (tuples of node
// positions, absent rows included) must be the one-machine result's, bit for bit, and
// every node one global ID with one position on every rank that has it.
#include <gtest/gtest.h>
#include <mpi.h>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <functional>
#include <map>
#include <vector>

#include "box_mesh.h"
#include "failing_allocator.h"
#include "zel/tessel3d.h"
#include "zel/tessel3d_mpi.h"

namespace {

namespace t3 = zel::tessel3d;
namespace tm = zel::tessel3d::mpi;
using tessel3d_test::box_kind;
using zel::dense1D;
using zel::dense2D;
constexpr unsigned absent = zel::tessel::ABSENT;

int comm_rank() {
  int r = 0;
  MPI_Comm_rank(MPI_COMM_WORLD, &r);
  return r;
}
int comm_size() {
  int s = 0;
  MPI_Comm_size(MPI_COMM_WORLD, &s);
  return s;
}

struct mesh {
  dense2D<double> coords;
  dense2D<unsigned> connect;
};

// Structure-preserving relistings of an element's corners, so that shared edges and faces
// are walked from different corners and in both directions by their elements.
void relist_corners(dense2D<unsigned>& connect, std::uint64_t seed) {
  static const unsigned th4[6][4] = {{0, 1, 2, 3}, {1, 2, 0, 3}, {0, 2, 3, 1},
                                     {3, 1, 0, 2}, {2, 3, 0, 1}, {1, 3, 2, 0}};
  tessel3d_test::random_stream random(seed);
  for (std::size_t j = 0; j < connect.cols(); ++j) {
    unsigned* c = &connect(0, j);
    const unsigned nb = connect.rows() == 4 || c[4] == absent ? 4 : connect.rows() == 6 || c[6] == absent ? 6 : 8;
    unsigned old[8];
    std::copy(c, c + nb, old);
    const unsigned r = unsigned(random.next() % 6);
    for (unsigned i = 0; i < nb; ++i)
      c[i] = nb == 4 ? old[th4[r][i]] : nb == 6 ? old[(i / 3) * 3 + (i + r) % 3] : old[(i / 4) * 4 + (i + r) % 4];
  }
}

// Jittered boxes of 3 x 3 x 2 cells; "mixed": H8 cells, W6 pairs and TH4 sextets in the
// 8-row layout.
mesh build(const char* name) {
  const std::string kind = name;
  if (kind == "mixed") {
    const auto cells = tessel3d_test::make_box(box_kind::H8, 3, 3, 2, 1, 1, 1, 0.2, 5);
    const auto tets = tessel3d_test::make_box(box_kind::TH4, 3, 3, 2, 1, 1, 1, 0.2, 5);
    const auto wedges = tessel3d_test::make_box(box_kind::W6, 3, 3, 2, 1, 1, 1, 0.2, 5);
    std::vector<std::vector<unsigned>> elements;
    for (std::size_t cell = 0; cell < cells.connect.cols(); ++cell) {
      const auto& from = cell % 3 == 0 ? cells.connect : cell % 3 == 1 ? wedges.connect : tets.connect;
      const std::size_t per = cell % 3 == 0 ? 1 : cell % 3 == 1 ? 2 : 6;
      for (std::size_t k = 0; k < per; ++k)
        elements.emplace_back(&from(0, cell * per + k), &from(0, cell * per + k) + from.rows());
    }
    mesh m{cells.coords, dense2D<unsigned>(8, elements.size(), absent)};
    for (std::size_t j = 0; j < elements.size(); ++j)
      std::copy(elements[j].begin(), elements[j].end(), &m.connect(0, j));
    relist_corners(m.connect, 9);
    return m;
  }
  const box_kind k = kind == "TH4"  ? box_kind::TH4
                     : kind == "W6" ? box_kind::W6
                     : kind == "H8" ? box_kind::H8
                                    : box_kind::PY5;
  auto box = tessel3d_test::make_box(k, 3, 3, 2, 1, 1, 1, 0.2, 3);
  mesh m{box.coords, k == box_kind::PY5 ? tessel3d_test::to_mixed8(box.connect) : box.connect};
  if (k != box_kind::PY5) relist_corners(m.connect, 7);
  return m;
}

// Elements by the angle of their centroid around the line x = y = 0.5: with 3 or more
// ranks every node on that line is shared by all of them.
std::vector<int> sectors(const mesh& m, int nb_ranks) {
  std::vector<int> rank_of(m.connect.cols());
  for (std::size_t j = 0; j < m.connect.cols(); ++j) {
    double x = 0, y = 0;
    unsigned n = 0;
    for (std::size_t i = 0; i < m.connect.rows(); ++i)
      if (m.connect(i, j) != absent) x += m.coords(0, m.connect(i, j)), y += m.coords(1, m.connect(i, j)), ++n;
    const double turn = (std::atan2(y / n - 0.5, x / n - 0.5) + M_PI) / (2 * M_PI);
    rank_of[j] = std::min(nb_ranks - 1, int(turn * nb_ranks));
  }
  return rank_of;
}

// Global IDs that are neither dense nor 0-based (but keep the one-machine order).
std::uint64_t node_gid(std::size_t i) { return 3 * std::uint64_t(i) + 1000; }
std::uint64_t element_gid(std::size_t j) { return 5 * std::uint64_t(j) + 7; }

// This rank's part: its elements in descending ID, its nodes in order of first use.
tm::part part_of(const mesh& m, const std::vector<int>& rank_of, int rank) {
  std::vector<std::size_t> mine;
  for (std::size_t j = m.connect.cols(); j-- > 0;)
    if (rank_of[j] == rank) mine.push_back(j);
  std::map<unsigned, unsigned> local;
  std::vector<unsigned> global;
  tm::part p;
  p.connect.resize(m.connect.rows(), mine.size(), absent);
  p.element_ids.resize(mine.size());
  for (std::size_t k = 0; k < mine.size(); ++k) {
    p.element_ids[k] = element_gid(mine[k]);
    for (std::size_t i = 0; i < m.connect.rows(); ++i) {
      const unsigned x = m.connect(i, mine[k]);
      if (x == absent) continue;
      const auto it = local.emplace(x, unsigned(global.size())).first;
      if (it->second == global.size()) global.push_back(x);
      p.connect(i, k) = it->second;
    }
  }
  p.coords.resize(3, global.size());
  p.node_ids.resize(global.size());
  for (std::size_t l = 0; l < global.size(); ++l) {
    for (int d = 0; d < 3; ++d) p.coords(d, l) = m.coords(d, global[l]);
    p.node_ids[l] = node_gid(global[l]);
  }
  return p;
}

// Every rank's doubles, concatenated on rank 0.
std::vector<double> gather_all(const std::vector<double>& mine) {
  const int size = comm_size();
  int n = int(mine.size());
  std::vector<int> counts(size), offsets(size, 0);
  MPI_Gather(&n, 1, MPI_INT, counts.data(), 1, MPI_INT, 0, MPI_COMM_WORLD);
  for (int r = 1; r < size; ++r) offsets[r] = offsets[r - 1] + counts[r - 1];
  std::vector<double> all(comm_rank() == 0 ? offsets[size - 1] + counts[size - 1] : 0);
  MPI_Gatherv(mine.data(), n, MPI_DOUBLE, all.data(), counts.data(), offsets.data(), MPI_DOUBLE, 0, MPI_COMM_WORLD);
  return all;
}

// Cells as records of 3 doubles per row (an absent row: three infinities), sorted.
std::vector<std::vector<double>> sorted_cells(const dense2D<double>& coords, const dense2D<unsigned>& connect) {
  std::vector<std::vector<double>> cells;
  for (std::size_t j = 0; j < connect.cols(); ++j) {
    std::vector<double> cell;
    for (std::size_t i = 0; i < connect.rows(); ++i)
      for (int d = 0; d < 3; ++d) cell.push_back(connect(i, j) == absent ? INFINITY : coords(d, connect(i, j)));
    cells.push_back(cell);
  }
  std::sort(cells.begin(), cells.end());
  return cells;
}

std::vector<std::vector<double>> split_records(const std::vector<double>& flat, std::size_t length) {
  std::vector<std::vector<double>> records;
  for (std::size_t i = 0; i + length <= flat.size(); i += length) records.emplace_back(&flat[i], &flat[i] + length);
  std::sort(records.begin(), records.end());
  return records;
}

// The parts against the one-machine result `serial` (on rank 0): the same cells; one
// position per global ID and one global ID per position, as many IDs as `serial` uses
// nodes.
void expect_one_machine_result(const tm::part& p, const mesh& serial) {
  std::vector<double> cells, nodes;
  for (const auto& cell : sorted_cells(p.coords, p.connect)) cells.insert(cells.end(), cell.begin(), cell.end());
  for (std::size_t l = 0; l < p.coords.cols(); ++l) {
    nodes.push_back(double(p.node_ids[l]));  // exact below 2^53
    for (int d = 0; d < 3; ++d) nodes.push_back(p.coords(d, l));
  }
  unsigned rows = unsigned(p.connect.rows()), max_rows = 0, min_rows = 0;
  MPI_Allreduce(&rows, &max_rows, 1, MPI_UNSIGNED, MPI_MAX, MPI_COMM_WORLD);
  MPI_Allreduce(&rows, &min_rows, 1, MPI_UNSIGNED, MPI_MIN, MPI_COMM_WORLD);
  const auto all_cells = gather_all(cells), all_nodes = gather_all(nodes);
  EXPECT_EQ(min_rows, max_rows) << "every rank has the rows of the whole mesh's result";
  if (comm_rank() != 0) return;

  ASSERT_EQ(max_rows, serial.connect.rows());
  EXPECT_TRUE(split_records(all_cells, 3 * max_rows) == sorted_cells(serial.coords, serial.connect));
  const auto records = split_records(all_nodes, 4);  // by ID, then position
  std::map<std::vector<double>, double> id_at;
  std::size_t ids = 0;
  for (std::size_t i = 0; i < records.size(); ++i) {
    const std::vector<double> at(records[i].begin() + 1, records[i].end());
    if (i == 0 || records[i][0] != records[i - 1][0]) {
      ++ids;
    } else {
      EXPECT_TRUE(records[i] == records[i - 1]) << "node " << records[i][0] << " at two positions";
    }
    const auto known = id_at.emplace(at, records[i][0]).first;
    EXPECT_EQ(known->second, records[i][0]) << "one position, two IDs";
  }
  std::vector<char> used(serial.coords.cols(), 0);
  for (std::size_t j = 0; j < serial.connect.cols(); ++j)
    for (std::size_t i = 0; i < serial.connect.rows(); ++i)
      if (serial.connect(i, j) != absent) used[serial.connect(i, j)] = 1;
  EXPECT_EQ(ids, std::size_t(std::count(used.begin(), used.end(), 1)));
}

// Nodes held by 3 or more ranks (counted on rank 0).
std::size_t nodes_on_three_ranks(const tm::part& p) {
  std::vector<double> ids(p.node_ids.data(), p.node_ids.data() + p.node_ids.size());
  const auto all = gather_all(ids);
  std::map<double, int> holders;
  for (double id : all) ++holders[id];
  return std::size_t(std::count_if(holders.begin(), holders.end(), [](const auto& h) { return h.second >= 3; }));
}

const unsigned high_counts[7] = {2, 4, 3, 8, 1, 2, 1};

int serial_high(mesh& m) {
  t3::high_order_options options;
  return t3::convert_into_high_order(m.coords, m.connect, high_counts[0], high_counts[1], high_counts[2],
                                     high_counts[3], high_counts[4], high_counts[5], high_counts[6], {}, {}, options);
}
int distributed_high(MPI_Comm comm, tm::part& p) {
  return tm::convert_into_high_order(comm, p, high_counts[0], high_counts[1], high_counts[2], high_counts[3],
                                     high_counts[4], high_counts[5], high_counts[6], t3::high_order_options());
}
int serial_split(mesh& m) {
  dense2D<unsigned> hexahedra;
  const int status = t3::split_into_H8(m.coords, m.connect, hexahedra, {}, {});
  m.connect = hexahedra;
  return status;
}
int distributed_split(MPI_Comm comm, tm::part& p) { return tm::split_into_H8(comm, p, p); }
int serial_round_trip(mesh& m) {
  const int status = t3::convert_into_quadratic(m.coords, m.connect);
  return status != 0 ? status : t3::convert_into_linear(m.connect);
}
int distributed_round_trip(MPI_Comm comm, tm::part& p) {
  const int status = tm::convert_into_quadratic(comm, p);
  return status != 0 ? status : tm::convert_into_linear(comm, p);
}

struct conversion {
  const char* name;
  int (*serial)(mesh&);
  int (*distributed)(MPI_Comm, tm::part&);
  std::vector<const char*> meshes;
};
const conversion conversions[] = {
    {"quadratic",
     [](mesh& m) { return t3::convert_into_quadratic(m.coords, m.connect); },
     tm::convert_into_quadratic,
     {"TH4", "W6", "H8", "PY5", "mixed"}},
    {"high order 2 4 3 8 1 2 1", serial_high, distributed_high, {"TH4", "W6", "H8", "PY5", "mixed"}},
    {"hexahedra", serial_split, distributed_split, {"TH4", "W6", "H8", "mixed"}},
    {"quadratic then linear", serial_round_trip, distributed_round_trip, {"TH4", "W6", "H8", "mixed"}},
};

}  // namespace

// Each conversion on each mesh, cut into angular sectors (elements in descending ID,
// sparse IDs, a node on 3 or more ranks from 3 ranks on) and by METIS (distribute).
TEST(mpi_order, equals_the_one_machine_conversion_up_to_node_numbering) {
  for (const conversion& c : conversions)
    for (const char* name : c.meshes)
      for (const bool metis : {false, true}) {
        SCOPED_TRACE(std::string(c.name) + " on " + name + (metis ? ", METIS" : ", sectors"));
        mesh serial = build(name);
        tm::part p;
        if (metis) {
          ASSERT_EQ(tm::distribute(MPI_COMM_WORLD, 0, serial.coords, serial.connect, p), 0);
        } else {
          p = part_of(serial, sectors(serial, comm_size()), comm_rank());
          const std::size_t three = nodes_on_three_ranks(p);
          if (comm_rank() == 0 && comm_size() >= 3) {
            EXPECT_GT(three, 0u);
          }
        }
        ASSERT_EQ(c.serial(serial), 0);
        ASSERT_EQ(c.distributed(MPI_COMM_WORLD, p), 0);  // the same status on every rank
        expect_one_machine_result(p, serial);
      }
}

// Tetrahedra cut into hexahedra keep the box's volume (flat faces: no bent quadrangle).
TEST(mpi_order, split_keeps_the_volume) {
  const mesh m = build("TH4");
  tm::part p = part_of(m, sectors(m, comm_size()), comm_rank()), hexahedra;
  ASSERT_EQ(tm::split_into_H8(MPI_COMM_WORLD, p, hexahedra), 0);
  double local[2] = {0, 0}, total[2];
  ASSERT_EQ(t3::volume(p.coords, p.connect, local[0]), 0);
  ASSERT_EQ(t3::volume(hexahedra.coords, hexahedra.connect, local[1]), 0);
  MPI_Allreduce(local, total, 2, MPI_DOUBLE, MPI_SUM, MPI_COMM_WORLD);
  EXPECT_NEAR(std::abs(total[0]), 1.0, 1e-12);
  EXPECT_NEAR(total[1], total[0], 1e-12);
}

// Bad arguments, on one rank or all: every rank returns the same code, and no part changes.
TEST(mpi_order, bad_arguments_give_one_status_everywhere_and_change_nothing) {
  const bool last = comm_rank() == comm_size() - 1, many = comm_size() > 1;
  struct bad_call {
    const char* name;
    int expected;
    const char* mesh;
    std::function<int(tm::part&)> call;
  };
  const bad_call calls[] = {
      {"no communicator", -1, "TH4", [](tm::part& p) { return tm::convert_into_quadratic(MPI_COMM_NULL, p); }},
      {"node IDs not one per node, last rank", -2, "TH4",
       [last](tm::part& p) {
         if (last) p.node_ids.resize(p.node_ids.size() + 1);
         return tm::convert_into_quadratic(MPI_COMM_WORLD, p);
       }},
      {"a repeated element ID, last rank", -2, "H8",
       [last](tm::part& p) {
         if (last && p.element_ids.size() > 1) p.element_ids[1] = p.element_ids[0];
         return tm::split_into_H8(MPI_COMM_WORLD, p, p);
       }},
      {"e differs on the last rank", many ? -3 : 0, "W6",
       [last](tm::part& p) {
         return tm::convert_into_high_order(MPI_COMM_WORLD, p, last ? 2 : 1, 0, 0, 0, 0, 0, 0, {});
       }},
      {"q not a square", -4, "H8",
       [](tm::part& p) { return tm::convert_into_high_order(MPI_COMM_WORLD, p, 1, 3, 0, 0, 0, 0, 0, {}); }},
      {"flat face runs", -10, "H8",
       [](tm::part& p) {
         t3::high_order_options flat;
         flat.conforming_faces = false;
         return tm::convert_into_high_order(MPI_COMM_WORLD, p, 1, 4, 0, 0, 0, 0, 0, flat);
       }},
      {"pyramids split", -2, "PY5", [](tm::part& p) { return tm::split_into_H8(MPI_COMM_WORLD, p, p); }},
      {"linear elements made linear", -2, "H8", [](tm::part& p) { return tm::convert_into_linear(MPI_COMM_WORLD, p); }},
  };
  for (const bad_call& b : calls) {
    SCOPED_TRACE(b.name);
    const mesh m = build(b.mesh);
    tm::part p = part_of(m, sectors(m, comm_size()), comm_rank());
    const double* coords = p.coords.data();
    const unsigned* connect = p.connect.data();
    const std::size_t rows = p.connect.rows(), nodes = p.coords.cols();
    EXPECT_EQ(b.call(p), b.expected);
    if (b.expected == 0) continue;
    EXPECT_EQ(p.coords.data(), coords);
    EXPECT_EQ(p.connect.data(), connect);
    EXPECT_EQ(p.connect.rows(), rows);
    EXPECT_EQ(p.coords.cols(), nodes);
  }
}

// An allocation failure on the last rank only: -199 everywhere and the parts unchanged,
// until the failure comes too late to matter.
TEST(mpi_order, memory_failure_on_one_rank_rolls_back_everywhere) {
  const mesh m = build("mixed");
  const bool last = comm_rank() == comm_size() - 1;
  int status = -199;
  long n = 1;
  for (; status == -199 && n < 400; ++n) {
    tm::part p = part_of(m, sectors(m, comm_size()), comm_rank());
    const double* coords = p.coords.data();
    const std::size_t nodes = p.coords.cols();
    {
      tessel3d_test::failing_allocator guard(last ? n : 0);
      status = distributed_split(MPI_COMM_WORLD, p);
    }
    if (status != 0) {
      ASSERT_EQ(status, -199);
      EXPECT_EQ(p.coords.data(), coords);
      EXPECT_EQ(p.coords.cols(), nodes);
    }
  }
  EXPECT_EQ(status, 0);
  EXPECT_GT(n, 3);
}
