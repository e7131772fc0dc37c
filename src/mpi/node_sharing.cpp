// node_sharing: the status agreement, the rendezvous that derives who shares which nodes
// from the global node IDs, and the neighbour exchange underneath `exchange`.
#include "mpi/node_sharing.h"

#include <algorithm>
#include <chrono>
#include <numeric>
#include <stdexcept>
#include <thread>

namespace zel {
namespace tessel3d {
namespace mpi {
namespace detail {
namespace {

// The one tag of the neighbour exchanges: the communicator is the library's own, and
// MPI keeps the order of messages between two ranks on one tag.
constexpr int exchange_tag = 7301;

// The agreement's order of failures: invalid arguments by number, then memory.
int failure_rank(int status) {
  if (status >= 0) return INT_MAX;
  if (status == status_out_of_memory) return INT_MAX - 1;
  return status == INT_MIN ? INT_MAX - 2 : -status;
}

// All-to-all of variable-length blocks whose counts and offsets must fit MPI's ints.
bool fits_int(const std::vector<std::uint64_t>& counts) {
  std::uint64_t total = 0;
  for (std::uint64_t c : counts) total += c;
  return total <= static_cast<std::uint64_t>(INT_MAX);
}

void to_counts_and_offsets(const std::vector<std::uint64_t>& counts, std::vector<int>& c, std::vector<int>& offsets) {
  int offset = 0;
  for (std::size_t r = 0; r < counts.size(); ++r) {
    c[r] = static_cast<int>(counts[r]);
    offsets[r] = offset;
    offset += c[r];
  }
}

}  // namespace

int private_comm::rank() const {
  int r = 0;
  MPI_Comm_rank(comm_, &r);
  return r;
}

int private_comm::size() const {
  int s = 1;
  MPI_Comm_size(comm_, &s);
  return s;
}

bool root_agreed(MPI_Comm comm, int root) {
  int size = 1;
  MPI_Comm_size(comm, &size);
  int bounds[2] = {root, -root}, agreed[2] = {0, 0};
  MPI_Allreduce(bounds, agreed, 2, MPI_INT, MPI_MIN, comm);
  return agreed[0] == -agreed[1] && root >= 0 && root < size;
}

int agree(MPI_Comm comm, int local_status) {
  int local_rank = failure_rank(local_status), worst = INT_MAX;
  MPI_Allreduce(&local_rank, &worst, 1, MPI_INT, MPI_MIN, comm);
  if (worst == INT_MAX) return local_status;
  if (worst == INT_MAX - 1) return status_out_of_memory;
  if (worst == INT_MAX - 2) return INT_MIN;
  return -worst;
}

int agree_after_wait(MPI_Comm comm, int local_status) {
  int local_rank = failure_rank(local_status), worst = INT_MAX, done = 0;
  MPI_Request request;
  MPI_Iallreduce(&local_rank, &worst, 1, MPI_INT, MPI_MIN, comm, &request);
  for (MPI_Test(&request, &done, MPI_STATUS_IGNORE); !done; MPI_Test(&request, &done, MPI_STATUS_IGNORE))
    std::this_thread::sleep_for(std::chrono::microseconds(200));
  if (worst == INT_MAX) return local_status;
  if (worst == INT_MAX - 1) return status_out_of_memory;
  if (worst == INT_MAX - 2) return INT_MIN;
  return -worst;
}

void wait_all_after_wait(int nb_requests, MPI_Request* requests) {
  int done = 0;
  for (MPI_Testall(nb_requests, requests, &done, MPI_STATUSES_IGNORE); !done;
       MPI_Testall(nb_requests, requests, &done, MPI_STATUSES_IGNORE))
    std::this_thread::sleep_for(std::chrono::microseconds(200));
}

MPI_Request* post_send(MPI_Comm comm, int to, int tag, const void* data, std::uint64_t bytes, MPI_Request* requests) {
  const char* from_byte = static_cast<const char*>(data);
  for (std::uint64_t done = 0; done < bytes; done += max_piece_bytes) {
    const int piece = static_cast<int>(std::min(max_piece_bytes, bytes - done));
    MPI_Isend(from_byte + done, piece, MPI_BYTE, to, tag, comm, requests++);
  }
  return requests;
}

MPI_Request* post_receive(MPI_Comm comm, int from, int tag, void* data, std::uint64_t bytes, MPI_Request* requests) {
  char* to_byte = static_cast<char*>(data);
  for (std::uint64_t done = 0; done < bytes; done += max_piece_bytes) {
    const int piece = static_cast<int>(std::min(max_piece_bytes, bytes - done));
    MPI_Irecv(to_byte + done, piece, MPI_BYTE, from, tag, comm, requests++);
  }
  return requests;
}

MPI_Request* post_bytes(MPI_Comm comm, int neighbour, const void* send, std::uint64_t send_bytes, void* receive,
                        std::uint64_t receive_bytes, MPI_Request* requests) {
  requests = post_send(comm, neighbour, exchange_tag, send, send_bytes, requests);
  return post_receive(comm, neighbour, exchange_tag, receive, receive_bytes, requests);
}

void exchange_counts(MPI_Comm comm, const node_sharing& sharing, const std::uint64_t* counts_in,
                     std::uint64_t* counts_out) {
  const std::size_t nb = sharing.neighbours.size();
  if (counts_in == nullptr) {
    // Pairwise, in ascending rank order on every rank, with nothing to allocate: the
    // neighbours have posted all their sends and receives, or do the same.
    for (std::size_t k = 0; k < nb; ++k) {
      std::uint64_t zero = 0, dropped = 0;
      MPI_Sendrecv(&zero, 1, MPI_UINT64_T, sharing.neighbours[k], exchange_tag, &dropped, 1, MPI_UINT64_T,
                   sharing.neighbours[k], exchange_tag, comm, MPI_STATUS_IGNORE);
    }
    return;
  }
  std::vector<MPI_Request> requests;
  try {
    requests.resize(2 * nb);
  } catch (const std::bad_alloc&) {
    // Not even the requests: one neighbour at a time, as above.
    for (std::size_t k = 0; k < nb; ++k)
      MPI_Sendrecv(counts_in + k, 1, MPI_UINT64_T, sharing.neighbours[k], exchange_tag, counts_out + k, 1, MPI_UINT64_T,
                   sharing.neighbours[k], exchange_tag, comm, MPI_STATUS_IGNORE);
    return;
  }
  for (std::size_t k = 0; k < nb; ++k) {
    MPI_Isend(counts_in + k, 1, MPI_UINT64_T, sharing.neighbours[k], exchange_tag, comm, &requests[2 * k]);
    MPI_Irecv(counts_out + k, 1, MPI_UINT64_T, sharing.neighbours[k], exchange_tag, comm, &requests[2 * k + 1]);
  }
  MPI_Waitall(static_cast<int>(requests.size()), requests.data(), MPI_STATUSES_IGNORE);
}

// The rendezvous, in four collective steps, each preceded by an agreement so that a rank
// that cannot size its buffers stops every rank at the same point:
//   1. every rank sends each of its global IDs to rank id % size ("the rendezvous rank");
//   2. the rendezvous rank groups what it received by ID and answers each holder, for
//      each ID in the order received, with the number of other holders and their ranks;
//   3. each holder turns the answers into (neighbour, global ID, local node) triples;
//   4. sorted, the triples give the neighbours and their shared lists in ascending ID.
int build_node_sharing(MPI_Comm comm, const dense1D<std::uint64_t>& node_ids, node_sharing& out) {
  int size = 1, rank = 0;
  MPI_Comm_size(comm, &size);
  MPI_Comm_rank(comm, &rank);
  const std::size_t nb_nodes = node_ids.size();
  const auto ranks = static_cast<std::size_t>(size);

  int status = status_ok;
  std::vector<unsigned> by_destination;  // local nodes grouped by rendezvous rank, ascending ID
  std::vector<std::uint64_t> send_ids, send_counts(ranks, 0), receive_counts(ranks, 0);
  try {
    if (nb_nodes >= static_cast<std::size_t>(UINT_MAX)) {
      status = -2;
    } else {
      std::vector<unsigned> sorted(nb_nodes);
      std::iota(sorted.begin(), sorted.end(), 0U);
      const std::uint64_t* ids = node_ids.data();
      std::sort(sorted.begin(), sorted.end(), [ids](unsigned a, unsigned b) { return ids[a] < ids[b]; });
      for (std::size_t i = 1; i < nb_nodes && status == status_ok; ++i)
        if (ids[sorted[i]] == ids[sorted[i - 1]]) status = -2;
      if (status == status_ok) {
        for (unsigned i : sorted) ++send_counts[ids[i] % ranks];
        std::vector<std::uint64_t> next(ranks, 0);
        for (std::size_t r = 1; r < ranks; ++r) next[r] = next[r - 1] + send_counts[r - 1];
        by_destination.resize(nb_nodes);
        send_ids.resize(nb_nodes);
        for (unsigned i : sorted) {
          const std::uint64_t slot = next[ids[i] % ranks]++;
          by_destination[slot] = i;
          send_ids[slot] = ids[i];
        }
        if (!fits_int(send_counts)) status = status_out_of_memory;
      }
    }
  } catch (const std::bad_alloc&) {
    status = status_out_of_memory;
  }
  status = agree(comm, status);
  if (status != status_ok) return status;

  // Step 1: the IDs to their rendezvous ranks.
  MPI_Alltoall(send_counts.data(), 1, MPI_UINT64_T, receive_counts.data(), 1, MPI_UINT64_T, comm);
  std::vector<std::uint64_t> received_ids;
  std::vector<int> sc, so, rc, ro;
  try {
    sc.resize(ranks), so.resize(ranks), rc.resize(ranks), ro.resize(ranks);
    if (!fits_int(receive_counts))
      status = status_out_of_memory;
    else {
      received_ids.resize(std::accumulate(receive_counts.begin(), receive_counts.end(), std::uint64_t(0)));
      to_counts_and_offsets(send_counts, sc, so);
      to_counts_and_offsets(receive_counts, rc, ro);
    }
  } catch (const std::bad_alloc&) {
    status = status_out_of_memory;
  }
  status = agree(comm, status);
  if (status != status_ok) return status;
  MPI_Alltoallv(send_ids.data(), sc.data(), so.data(), MPI_UINT64_T, received_ids.data(), rc.data(), ro.data(),
                MPI_UINT64_T, comm);

  // Step 2: the answers, for each ID in the order received: m, then the m other holders.
  std::vector<int> answers;
  std::vector<std::uint64_t> answer_counts(ranks, 0), incoming_counts(ranks, 0);
  try {
    const std::size_t nb_received = received_ids.size();
    std::vector<int> source(nb_received);
    for (std::size_t r = 0; r < ranks; ++r)
      std::fill(source.begin() + ro[r], source.begin() + ro[r] + rc[r], static_cast<int>(r));
    std::vector<std::size_t> grouped(nb_received);
    std::iota(grouped.begin(), grouped.end(), std::size_t(0));
    std::sort(grouped.begin(), grouped.end(), [&](std::size_t a, std::size_t b) {
      return received_ids[a] != received_ids[b] ? received_ids[a] < received_ids[b] : source[a] < source[b];
    });
    // group_of[e]: where the holders of entry e's ID start in `grouped`, and how many.
    std::vector<std::size_t> group_start(nb_received), group_size(nb_received);
    for (std::size_t g = 0; g < nb_received;) {
      std::size_t end = g + 1;
      while (end < nb_received && received_ids[grouped[end]] == received_ids[grouped[g]]) ++end;
      for (std::size_t k = g; k < end; ++k) group_start[grouped[k]] = g, group_size[grouped[k]] = end - g;
      g = end;
    }
    std::uint64_t nb_answers = 0;
    for (std::size_t e = 0; e < nb_received; ++e) {
      answer_counts[source[e]] += group_size[e];  // the count and the size - 1 others
      nb_answers += group_size[e];
    }
    answers.resize(nb_answers);
    std::size_t w = 0;
    for (std::size_t e = 0; e < nb_received; ++e) {
      answers[w++] = static_cast<int>(group_size[e] - 1);
      for (std::size_t k = group_start[e]; k < group_start[e] + group_size[e]; ++k)
        if (grouped[k] != e) answers[w++] = source[grouped[k]];
    }
    if (!fits_int(answer_counts)) status = status_out_of_memory;
  } catch (const std::bad_alloc&) {
    status = status_out_of_memory;
  }
  status = agree(comm, status);
  if (status != status_ok) return status;
  MPI_Alltoall(answer_counts.data(), 1, MPI_UINT64_T, incoming_counts.data(), 1, MPI_UINT64_T, comm);
  std::vector<int> incoming;
  try {
    if (!fits_int(incoming_counts))
      status = status_out_of_memory;
    else {
      incoming.resize(std::accumulate(incoming_counts.begin(), incoming_counts.end(), std::uint64_t(0)));
      to_counts_and_offsets(answer_counts, sc, so);
      to_counts_and_offsets(incoming_counts, rc, ro);
    }
  } catch (const std::bad_alloc&) {
    status = status_out_of_memory;
  }
  status = agree(comm, status);
  if (status != status_ok) return status;
  MPI_Alltoallv(answers.data(), sc.data(), so.data(), MPI_INT, incoming.data(), rc.data(), ro.data(), MPI_INT, comm);

  // Steps 3 and 4. The answers come back per rendezvous rank in the order the IDs left,
  // that is in by_destination's order.
  node_sharing result;
  try {
    struct shared_entry {
      int neighbour;
      std::uint64_t id;
      unsigned node;
    };
    std::vector<shared_entry> entries;
    result.owner.assign(nb_nodes, rank);
    std::size_t r = 0;
    for (std::size_t slot = 0; slot < nb_nodes; ++slot) {
      const unsigned node = by_destination[slot];
      const int nb_others = incoming[r++];
      for (int k = 0; k < nb_others; ++k) {
        const int other = incoming[r++];
        result.owner[node] = std::min(result.owner[node], other);
        entries.push_back({other, node_ids[node], node});
      }
    }
    std::sort(entries.begin(), entries.end(), [](const shared_entry& a, const shared_entry& b) {
      return a.neighbour != b.neighbour ? a.neighbour < b.neighbour : a.id < b.id;
    });
    for (std::size_t e = 0; e < entries.size(); ++e) {
      if (e == 0 || entries[e].neighbour != entries[e - 1].neighbour) {
        result.neighbours.push_back(entries[e].neighbour);
        result.shared.emplace_back();
      }
      result.shared.back().push_back(entries[e].node);
    }
  } catch (const std::bad_alloc&) {
    status = status_out_of_memory;
  }
  status = agree(comm, status);
  if (status != status_ok) return status;
  std::swap(out, result);
  return status_ok;
}

}  // namespace detail
}  // namespace mpi
}  // namespace tessel3d
}  // namespace zel
