// Rank 0's text sent to every rank, for the small descriptions of the files (the .pvtu's
// path, arrays and pieces) that every rank must agree on.
#pragma once

#include <mpi.h>

#include <algorithm>
#include <new>
#include <string>

namespace zel {
namespace tessel3d {
namespace mpi {
namespace detail {

// Rank 0's text on every rank; false (after taking part in every broadcast, so that no
// rank is left waiting) when it cannot be held.
inline bool broadcast_text(MPI_Comm comm, std::string& text) {
  constexpr std::size_t chunk = 1 << 16;
  unsigned long long size = text.size();
  MPI_Bcast(&size, 1, MPI_UNSIGNED_LONG_LONG, 0, comm);
  bool held = true;
  try {
    text.resize(static_cast<std::size_t>(size));
  } catch (const std::bad_alloc&) {
    held = false;
  }
  char scratch[chunk];
  for (std::size_t at = 0; at < size; at += chunk) {
    const int count = static_cast<int>(std::min<std::size_t>(size - at, chunk));
    MPI_Bcast(held ? &text[at] : scratch, count, MPI_CHAR, 0, comm);
  }
  return held;
}

}  // namespace detail
}  // namespace mpi
}  // namespace tessel3d
}  // namespace zel
