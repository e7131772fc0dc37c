// Internal tools of the distributed component: the library's private communicator, the
// agreement on a status, who shares which nodes, and the exchange of per-neighbour
// buffers between the ranks that share nodes.
#pragma once

#include <mpi.h>

#include <climits>
#include <cstdint>
#include <cstring>
#include <new>
#include <stdexcept>
#include <type_traits>
#include <vector>

#include "zel/matrix.h"

namespace zel {
namespace tessel3d {
namespace mpi {
namespace detail {

/// Status codes shared by the distributed functions.
constexpr int status_ok = 0;
constexpr int status_out_of_memory = -199;

/// A duplicate of the caller's communicator for the length of one call, so that the
/// library's messages never match the caller's. Every rank constructs it (collective).
class private_comm {
 public:
  explicit private_comm(MPI_Comm caller) { MPI_Comm_dup(caller, &comm_); }
  ~private_comm() { MPI_Comm_free(&comm_); }
  private_comm(const private_comm&) = delete;
  private_comm& operator=(const private_comm&) = delete;
  MPI_Comm get() const { return comm_; }
  int rank() const;
  int size() const;

 private:
  MPI_Comm comm_ = MPI_COMM_NULL;
};

/// The same status on every rank (collective): the local status when every rank has 0
/// (or a positive count); otherwise the invalid argument with the lowest number among
/// all ranks (-1 before -2 ...), and -199 only when no rank has an invalid argument.
/// This is the one-machine rule "the first failing check wins" with the arguments of
/// every rank checked together; the memory failures come after every argument check.
int agree(MPI_Comm comm, int local_status);

/// Whether root is a rank of comm and the same value on every rank (collective).
bool root_agreed(MPI_Comm comm, int root);

/// agree, for the ranks that may wait long for the work of one rank (the root of
/// distribute or gather): they poll with short sleeps instead of spinning inside MPI, so
/// that a waiting rank gives its core to the working one when ranks outnumber cores.
/// Adds at most a fraction of a millisecond.
int agree_after_wait(MPI_Comm comm, int local_status);

/// MPI_Waitall with the same short sleeps between polls.
void wait_all_after_wait(int nb_requests, MPI_Request* requests);

/// Who shares which local nodes, derived from the global node IDs by a rendezvous: each
/// global ID is sent to rank id % size, which answers every holder with the list of
/// holders, so no rank ever holds more than its share of the mesh.
struct node_sharing {
  std::vector<int> neighbours;                ///< ranks sharing >= 1 node with this one, ascending
  std::vector<std::vector<unsigned>> shared;  ///< per neighbour: the local node IDs shared with
                                              ///< it, in ascending global ID (so both sides list
                                              ///< the same nodes in the same order)
  std::vector<int> owner;                     ///< per local node: the lowest rank holding it
};

/// Builds `out` from this rank's global node IDs (collective).
/// @return 0 | -2 node_ids repeats an ID on some rank (or has more than 2^32 - 1
///         entries) | -199; the same status on every rank, out unchanged on failure.
int build_node_sharing(MPI_Comm comm, const dense1D<std::uint64_t>& node_ids, node_sharing& out);

/// Sends send[k] to sharing.neighbours[k] and receives that neighbour's buffer into
/// received[k], for every neighbour at once (collective: every rank of comm calls, with
/// one buffer per neighbour; buffers may be empty). T is any trivially copyable type.
/// @return 0 | -199 (the same on every rank; received unchanged on failure)
template <class T>
int exchange(MPI_Comm comm, const node_sharing& sharing, const std::vector<std::vector<T>>& send,
             std::vector<std::vector<T>>& received);

// ---- implementation of exchange ----------------------------------------------------

/// Messages longer than this go in several pieces (MPI counts are ints).
constexpr std::uint64_t max_piece_bytes = std::uint64_t(1) << 30;
inline std::uint64_t nb_pieces(std::uint64_t bytes) { return (bytes + max_piece_bytes - 1) / max_piece_bytes; }

/// Posts the non-blocking send of `bytes` bytes to rank `to` on `tag`, in pieces: writes
/// nb_pieces(bytes) requests from `requests` on and returns the end of those.
MPI_Request* post_send(MPI_Comm comm, int to, int tag, const void* data, std::uint64_t bytes, MPI_Request* requests);
/// The matching receive of `bytes` bytes from rank `from` (the same pieces).
MPI_Request* post_receive(MPI_Comm comm, int from, int tag, void* data, std::uint64_t bytes, MPI_Request* requests);

/// Posts the non-blocking send of `send_bytes` bytes to `neighbour` and the receive of
/// `receive_bytes` from it (post_send, then post_receive, on the exchange tag).
MPI_Request* post_bytes(MPI_Comm comm, int neighbour, const void* send, std::uint64_t send_bytes, void* receive,
                        std::uint64_t receive_bytes, MPI_Request* requests);

/// Exchanges one count with every neighbour. counts_out[k] receives neighbour k's
/// counts_in[k]. With counts_in == nullptr (a rank that could not size its buffers), it
/// sends 0 to every neighbour and drops what they send, allocating nothing.
void exchange_counts(MPI_Comm comm, const node_sharing& sharing, const std::uint64_t* counts_in,
                     std::uint64_t* counts_out);

template <class T>
int exchange(MPI_Comm comm, const node_sharing& sharing, const std::vector<std::vector<T>>& send,
             std::vector<std::vector<T>>& received) {
  static_assert(std::is_trivially_copyable<T>::value, "exchange sends raw bytes");
  const std::size_t nb_neighbours = sharing.neighbours.size();
  int status = status_ok;
  std::vector<std::uint64_t> send_counts, received_counts;
  std::vector<std::vector<T>> incoming;
  try {
    send_counts.resize(nb_neighbours);
    received_counts.resize(nb_neighbours);
    for (std::size_t k = 0; k < nb_neighbours; ++k) send_counts[k] = k < send.size() ? send[k].size() : 0;
  } catch (const std::bad_alloc&) {
    status = status_out_of_memory;
  }
  // The counts always travel, so that a rank short of memory leaves no neighbour waiting.
  if (status == status_ok)
    exchange_counts(comm, sharing, send_counts.data(), received_counts.data());
  else
    exchange_counts(comm, sharing, nullptr, nullptr);
  std::vector<MPI_Request> requests;
  if (status == status_ok) {
    try {
      incoming.resize(nb_neighbours);
      std::uint64_t nb_requests = 0;
      for (std::size_t k = 0; k < nb_neighbours; ++k) {
        incoming[k].resize(received_counts[k]);
        nb_requests += nb_pieces(send_counts[k] * sizeof(T)) + nb_pieces(received_counts[k] * sizeof(T));
      }
      requests.resize(nb_requests);
    } catch (const std::bad_alloc&) {
      status = status_out_of_memory;
    } catch (const std::length_error&) {
      status = status_out_of_memory;
    }
  }
  status = agree(comm, status);
  if (status != status_ok) return status;
  MPI_Request* next = requests.data();
  for (std::size_t k = 0; k < nb_neighbours; ++k)
    next = post_bytes(comm, sharing.neighbours[k], send_counts[k] ? send[k].data() : nullptr,
                      send_counts[k] * sizeof(T), incoming[k].data(), received_counts[k] * sizeof(T), next);
  MPI_Waitall(static_cast<int>(requests.size()), requests.data(), MPI_STATUSES_IGNORE);
  received.swap(incoming);
  return status_ok;
}

}  // namespace detail
}  // namespace mpi
}  // namespace tessel3d
}  // namespace zel
