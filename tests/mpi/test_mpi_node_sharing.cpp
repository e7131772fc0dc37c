// Who shares which nodes, checked against a brute-force answer built from every rank's
// full list of IDs; the neighbour exchange; the agreement on a status.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <map>
#include <vector>

#include "mpi/node_sharing.h"

namespace {

using zel::dense1D;
using zel::tessel3d::mpi::detail::agree;
using zel::tessel3d::mpi::detail::build_node_sharing;
using zel::tessel3d::mpi::detail::exchange;
using zel::tessel3d::mpi::detail::node_sharing;

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

// Every rank's ID list, on every rank.
std::vector<std::vector<std::uint64_t>> all_ids(const std::vector<std::uint64_t>& mine) {
  const int size = comm_size();
  int n = static_cast<int>(mine.size());
  std::vector<int> counts(size), offsets(size, 0);
  MPI_Allgather(&n, 1, MPI_INT, counts.data(), 1, MPI_INT, MPI_COMM_WORLD);
  for (int r = 1; r < size; ++r) offsets[r] = offsets[r - 1] + counts[r - 1];
  std::vector<std::uint64_t> flat(offsets[size - 1] + counts[size - 1]);
  MPI_Allgatherv(mine.data(), n, MPI_UINT64_T, flat.data(), counts.data(), offsets.data(), MPI_UINT64_T,
                 MPI_COMM_WORLD);
  std::vector<std::vector<std::uint64_t>> lists(size);
  for (int r = 0; r < size; ++r) lists[r].assign(flat.begin() + offsets[r], flat.begin() + offsets[r] + counts[r]);
  return lists;
}

dense1D<std::uint64_t> to_dense(const std::vector<std::uint64_t>& v) {
  dense1D<std::uint64_t> d(v.size());
  std::copy(v.begin(), v.end(), d.data());
  return d;
}

// The layouts: a chain of ranks where neighbours overlap by two IDs, a node every rank
// holds, sparse IDs far above 2^32, local orders shuffled, and an empty rank.
std::vector<std::uint64_t> layout(int which, int rank, int size) {
  std::vector<std::uint64_t> ids;
  const std::uint64_t big = std::uint64_t(1) << 40;
  if (which == 1 && rank == 1) return ids;  // an empty part
  for (int k = 0; k < 12; ++k) ids.push_back(big * (k % 3) + 10u * rank + k);
  ids.push_back(~std::uint64_t(0));                                        // held by every rank
  if (which == 0 && rank + 1 < size) ids.push_back(10u * (rank + 1) + 0);  // a node of the next rank
  std::reverse(ids.begin(), ids.end());
  std::rotate(ids.begin(), ids.begin() + rank % 5, ids.end());
  return ids;
}

TEST(node_sharing, matches_brute_force) {
  const int rank = comm_rank(), size = comm_size();
  for (int which = 0; which < 2; ++which) {
    SCOPED_TRACE(which);
    const std::vector<std::uint64_t> mine = layout(which, rank, size);
    const auto everyone = all_ids(mine);
    // The brute-force answer: for each local node, the ranks holding its ID.
    std::map<int, std::vector<std::uint64_t>> expected_shared;  // neighbour -> IDs, ascending
    std::vector<int> expected_owner(mine.size());
    for (std::size_t i = 0; i < mine.size(); ++i) {
      expected_owner[i] = rank;
      for (int r = 0; r < size; ++r) {
        if (std::find(everyone[r].begin(), everyone[r].end(), mine[i]) == everyone[r].end()) continue;
        expected_owner[i] = std::min(expected_owner[i], r);
        if (r != rank) expected_shared[r].push_back(mine[i]);
      }
    }
    for (auto& entry : expected_shared) std::sort(entry.second.begin(), entry.second.end());

    node_sharing sharing;
    ASSERT_EQ(build_node_sharing(MPI_COMM_WORLD, to_dense(mine), sharing), 0);
    EXPECT_EQ(sharing.owner, expected_owner);
    std::map<int, std::vector<std::uint64_t>> got;
    ASSERT_EQ(sharing.shared.size(), sharing.neighbours.size());
    EXPECT_TRUE(std::is_sorted(sharing.neighbours.begin(), sharing.neighbours.end()));
    for (std::size_t k = 0; k < sharing.neighbours.size(); ++k)
      for (unsigned node : sharing.shared[k]) got[sharing.neighbours[k]].push_back(mine.at(node));
    EXPECT_EQ(got, expected_shared);

    // Both sides list the shared nodes in the same order: what a neighbour sends of its
    // list is this rank's list, element by element.
    std::vector<std::vector<std::uint64_t>> send(sharing.neighbours.size()), received;
    for (std::size_t k = 0; k < send.size(); ++k)
      for (unsigned node : sharing.shared[k]) send[k].push_back(mine[node]);
    ASSERT_EQ(exchange(MPI_COMM_WORLD, sharing, send, received), 0);
    EXPECT_EQ(received, send);
  }
}

TEST(node_sharing, a_repeated_id_on_one_rank_fails_everywhere) {
  const int rank = comm_rank(), size = comm_size();
  std::vector<std::uint64_t> mine = layout(0, rank, size);
  if (rank == size - 1) mine.push_back(mine.front());
  node_sharing sharing;
  sharing.neighbours = {-7};
  EXPECT_EQ(build_node_sharing(MPI_COMM_WORLD, to_dense(mine), sharing), -2);
  EXPECT_EQ(sharing.neighbours, std::vector<int>{-7});  // unchanged
}

TEST(node_sharing, agree_takes_the_lowest_argument_then_memory) {
  const int rank = comm_rank(), size = comm_size();
  struct case_ {
    int first_rank, last_rank, expected_on_many, expected_alone;
  };
  // Status on rank 0 and on the last rank (the others have 0); with one rank, the
  // last rank's status is the one that counts.
  const case_ cases[] = {{0, 0, 0, 0}, {-3, 0, -3, 0}, {0, -4, -4, -4}, {-199, -4, -4, -4}, {-2, -199, -2, -199}};
  for (const case_& c : cases) {
    int local = rank == size - 1 ? c.last_rank : rank == 0 ? c.first_rank : 0;
    EXPECT_EQ(agree(MPI_COMM_WORLD, local), size == 1 ? c.expected_alone : c.expected_on_many);
  }
}

}  // namespace
