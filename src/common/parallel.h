// Parallel loops over fixed chunks: the library's one door to its threads.
//
// A loop of n items is cut into chunks of `grain` items whatever the thread count, and a
// reduction folds the chunks' partial results in chunk order: one thread and many give
// the same bits. The threads are those of oneTBB's shared arena (or of an arena of the
// size set by set_threads), which callers' own threads join rather than multiply.
//
// Bodies never throw (the library allocates through the matrix allocator, which returns
// false) and must give the same result when a chunk runs twice: if the runtime itself
// fails (it may throw std::bad_alloc), the chunks are run again in order on the calling
// thread.
#pragma once

#include <cstddef>

#include "zel/matrix.h"
#include "zel/zel_tessel_export.h"

namespace elfes {

/// The thread count of the library's loops: that given to set_parallel_threads, or by
/// default (0) the cores the process may run on (its affinity mask).
ZEL_TESSEL_EXPORT unsigned parallel_threads();
ZEL_TESSEL_EXPORT void set_parallel_threads(unsigned n);

/// Calls run(context, c) once for every c in [0, nb_chunks), on the library's threads.
ZEL_TESSEL_EXPORT void run_chunks(std::size_t nb_chunks, void (*run)(void*, std::size_t), void* context);

inline std::size_t chunk_count(std::size_t n, std::size_t grain) { return (n + grain - 1) / grain; }

/// body(chunk, first, last) for every chunk [first, last) of [0, n): in parallel when
/// there is more than one chunk and more than one thread, else in order on this thread.
template <class Body>
void parallel_chunks(std::size_t n, std::size_t grain, Body&& body) {
  const std::size_t nb_chunks = chunk_count(n, grain);
  auto one_chunk = [&](std::size_t c) { body(c, c * grain, c + 1 == nb_chunks ? n : (c + 1) * grain); };
  if (nb_chunks <= 1 || parallel_threads() == 1) {
    for (std::size_t c = 0; c < nb_chunks; ++c) one_chunk(c);
    return;
  }
  using chunk_fn = decltype(one_chunk);
  run_chunks(nb_chunks, [](void* f, std::size_t c) { (*static_cast<chunk_fn*>(f))(c); }, &one_chunk);
}

/// body(first, last) over [0, n) in chunks: for loops whose items are independent.
template <class Body>
void parallel_for(std::size_t n, std::size_t grain, Body&& body) {
  parallel_chunks(n, grain, [&](std::size_t, std::size_t first, std::size_t last) { body(first, last); });
}

/// The sum over [0, n) of body(first, last) per chunk, added in chunk order (the first
/// chunk's value is the start: a single chunk gives body(0, n) exactly). Without room for
/// the partial sums the chunks run in order on this thread: the same bits.
template <class Body>
double parallel_sum(std::size_t n, std::size_t grain, Body&& body) {
  const std::size_t nb_chunks = chunk_count(n, grain);
  zel::dense1D<double, 8> partial;
  if (nb_chunks > 1 && parallel_threads() > 1 && partial.resize(nb_chunks)) {
    parallel_chunks(n, grain,
                    [&](std::size_t c, std::size_t first, std::size_t last) { partial[c] = body(first, last); });
  } else {
    double total = 0;
    for (std::size_t c = 0; c < nb_chunks; ++c) {
      const double value = body(c * grain, c + 1 == nb_chunks ? n : (c + 1) * grain);
      total = c == 0 ? value : total + value;
    }
    return total;
  }
  double total = partial[0];
  for (std::size_t c = 1; c < nb_chunks; ++c) total += partial[c];
  return total;
}

}  // namespace elfes
