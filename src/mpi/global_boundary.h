// Which faces of a rank's part lie on the boundary of the whole mesh: a face with no
// neighbour in the part is either on the mesh's boundary or between two ranks. Each such
// face, named by its sorted global node IDs, goes to a meeting rank chosen by a hash of
// those IDs; a face that two ranks send is between them.
#pragma once

#include <algorithm>
#include <array>
#include <cstdint>
#include <vector>

#include "mpi/record_exchange.h"
#include "zel/matrix.h"

namespace zel {
namespace tessel3d {
namespace mpi {
namespace detail {

using face_key = std::array<std::uint64_t, 3>;

inline face_key sorted_face_key(std::uint64_t a, std::uint64_t b, std::uint64_t c) {
  face_key key{a, b, c};
  std::sort(key.begin(), key.end());
  return key;
}

/// The meeting rank of a face (splitmix64 of its IDs, so no numbering crowds one rank).
inline int meeting_rank(const face_key& key, int size) {
  std::uint64_t z = key[0] * 0x9E3779B97F4A7C15ULL ^ key[1] * 0xC2B2AE3D27D4EB4FULL ^ key[2];
  z = (z ^ (z >> 30)) * 0xBF58476D1CE4E5B9ULL;
  z = (z ^ (z >> 27)) * 0x94D049BB133111EBULL;
  z ^= z >> 31;
  return int(z % std::uint64_t(size));
}

/// For each key of this rank (faces that no local element shares), whether no other rank
/// lists the same face: on_boundary[k] = 1 for the mesh's boundary, 0 between ranks.
/// Collective: 0 | -199 (on any rank).
inline int faces_on_mesh_boundary(MPI_Comm comm, const std::vector<face_key>& keys,
                                  std::vector<unsigned char>& on_boundary) {
  int size = 0;
  MPI_Comm_size(comm, &size);
  std::vector<std::vector<face_key>> send;
  std::vector<std::vector<std::size_t>> sent_index;  // per meeting rank: the keys sent, in order
  int status = guarded([&] {
    send.assign(std::size_t(size), {});
    sent_index.assign(std::size_t(size), {});
    for (std::size_t k = 0; k < keys.size(); ++k) {
      const int r = meeting_rank(keys[k], size);
      send[r].push_back(keys[k]);
      sent_index[r].push_back(k);
    }
    return 0;
  });
  if ((status = agree(comm, status)) != 0) return status;
  received_records<face_key> met;
  if ((status = exchange_records(comm, send, met)) != 0) return status;

  std::vector<std::vector<unsigned char>> answers;
  status = guarded([&] {
    // Count each key over every sender: sort (key, position) pairs.
    std::vector<std::pair<face_key, std::size_t>> order(met.data.size());
    for (std::size_t i = 0; i < met.data.size(); ++i) order[i] = {met.data[i], i};
    std::sort(order.begin(), order.end());
    std::vector<unsigned char> alone(met.data.size(), 1);
    for (std::size_t i = 0; i < order.size();) {
      std::size_t j = i + 1;
      while (j < order.size() && order[j].first == order[i].first) ++j;
      if (j - i > 1)
        for (std::size_t k = i; k < j; ++k) alone[order[k].second] = 0;
      i = j;
    }
    answers.assign(std::size_t(size), {});
    for (int r = 0; r < size; ++r) answers[r].assign(alone.begin() + met.offset[r], alone.begin() + met.offset[r + 1]);
    return 0;
  });
  if ((status = agree(comm, status)) != 0) return status;
  received_records<unsigned char> replies;
  if ((status = exchange_records(comm, answers, replies)) != 0) return status;
  status = guarded([&] {
    on_boundary.assign(keys.size(), 1);
    for (int r = 0; r < size; ++r)
      for (std::size_t i = 0; i < sent_index[r].size(); ++i) on_boundary[sent_index[r][i]] = replies.from(r)[i];
    return 0;
  });
  return agree(comm, status);
}

}  // namespace detail
}  // namespace mpi
}  // namespace tessel3d
}  // namespace zel
