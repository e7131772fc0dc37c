// The all-to-all exchange of records used by the families that route items (points,
// faces) to the ranks that can answer for them (any rank, not only the neighbours of
// node_sharing). Memory for the exchange is had and agreed on before any rank starts
// sending, so a rank short of memory never leaves the others waiting.
#pragma once

#include <mpi.h>

#include <climits>
#include <cstddef>
#include <new>
#include <vector>

#include "mpi/node_sharing.h"

namespace zel {
namespace tessel3d {
namespace mpi {
namespace detail {

constexpr int out_of_memory = status_out_of_memory;

/// Runs a local step that may run out of memory: its status, or -199 on std::bad_alloc.
template <class Step>
int guarded(const Step& step) {
  try {
    return step();
  } catch (const std::bad_alloc&) {
    return out_of_memory;
  }
}

/// Records received from every rank, rank by rank: those of rank r are
/// data[offset[r] ... offset[r + 1]).
template <class T>
struct received_records {
  std::vector<T> data;
  std::vector<std::size_t> offset;
  std::size_t count(int rank) const { return offset[rank + 1] - offset[rank]; }
  const T* from(int rank) const { return data.data() + offset[rank]; }
};

/// Sends send[r] to rank r and receives every rank's records for this one (T trivially
/// copyable). Collective; every rank returns the same status: 0 | -199 (memory, or more
/// than INT_MAX records between two ranks, on any rank).
template <class T>
int exchange_records(MPI_Comm comm, const std::vector<std::vector<T>>& send, received_records<T>& out) {
  int size = 0;
  MPI_Comm_size(comm, &size);
  std::vector<int> send_counts, receive_counts, send_offsets, receive_offsets;
  std::vector<T> flat;
  int status = guarded([&] {
    send_counts.assign(std::size_t(size), 0);
    receive_counts.assign(std::size_t(size), 0);
    for (int r = 0; r < size; ++r) {
      if (send[r].size() > std::size_t(INT_MAX)) return out_of_memory;
      send_counts[r] = int(send[r].size());
    }
    return 0;
  });
  if ((status = agree(comm, status)) != 0) return status;
  MPI_Alltoall(send_counts.data(), 1, MPI_INT, receive_counts.data(), 1, MPI_INT, comm);

  status = guarded([&] {
    send_offsets.assign(std::size_t(size), 0);
    receive_offsets.assign(std::size_t(size), 0);
    std::size_t sent = 0, got = 0;
    for (int r = 0; r < size; ++r) {
      sent += std::size_t(send_counts[r]);
      got += std::size_t(receive_counts[r]);
    }
    if (sent > std::size_t(INT_MAX) || got > std::size_t(INT_MAX)) return out_of_memory;
    flat.reserve(sent);
    for (int r = 0; r < size; ++r) {
      send_offsets[r] = int(flat.size());
      flat.insert(flat.end(), send[r].begin(), send[r].end());
    }
    out.data.assign(got, T());
    out.offset.assign(std::size_t(size) + 1, 0);
    for (int r = 0; r < size; ++r) {
      receive_offsets[r] = int(out.offset[r]);
      out.offset[r + 1] = out.offset[r] + std::size_t(receive_counts[r]);
    }
    return 0;
  });
  if ((status = agree(comm, status)) != 0) return status;

  MPI_Datatype record;
  MPI_Type_contiguous(int(sizeof(T)), MPI_BYTE, &record);
  MPI_Type_commit(&record);
  MPI_Alltoallv(flat.data(), send_counts.data(), send_offsets.data(), record, out.data.data(), receive_counts.data(),
                receive_offsets.data(), record, comm);
  MPI_Type_free(&record);
  return 0;
}

}  // namespace detail
}  // namespace mpi
}  // namespace tessel3d
}  // namespace zel
