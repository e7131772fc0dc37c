// Parallel loops over fixed chunks: the library's one door to its threads.
//
// A loop of n items is cut into chunks of `grain` items whatever the thread count, each
// item's result written in its own place: one thread and many give the same bits. There is
// no reduction here: a floating-point sum split into chunks would change its last bits. The threads are those of oneTBB's shared arena (or of an arena of the
// size set by set_threads), which callers' own threads join rather than multiply.
//
// Bodies never throw (the library allocates through the matrix allocator, which returns
// false) and must give the same result when a chunk runs twice: if the runtime itself
// fails (it may throw std::bad_alloc), the chunks are run again in order on the calling
// thread.
#pragma once

#include <cstddef>

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
  run_chunks(
      nb_chunks, [](void* f, std::size_t c) { (*static_cast<chunk_fn*>(f))(c); }, &one_chunk);
}

/// body(first, last) over [0, n) in chunks: for loops whose items are independent.
template <class Body>
void parallel_for(std::size_t n, std::size_t grain, Body&& body) {
  parallel_chunks(n, grain, [&](std::size_t, std::size_t first, std::size_t last) { body(first, last); });
}

}  // namespace elfes
