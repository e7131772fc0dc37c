// The loop of the interpolations over their free nodes, on the library's threads: the
// nodes of a batch are placed at once (each search is independent and reads only the
// mesh), then their values written; a batch is written only up to its first node whose
// placement ran out of memory, so that on -199 the nodes before it in the order hold
// their values and the others are as they were, as when the nodes are treated one by one.
// When written values may be read by later nodes (the list order is kept), every node
// is placed and written before the next one.
#pragma once

#include <algorithm>
#include <cstddef>

#include "common/element_tables.h"
#include "common/parallel.h"
#include "locate/point_order.h"
#include "zel/matrix.h"

namespace elfes {

/// Where one node's value is read: `status` as the placement returns it (or `skipped`),
/// the element or nearest node in `where`, the weights in `lambda`.
struct placed_node {
  double lambda[4];
  unsigned where;
  int status;
};

inline constexpr int skipped = 1000;

/// Nodes per batch (their placements are kept until written: 40 bytes each), and per
/// chunk of a batch.
inline constexpr std::size_t placement_batch = std::size_t(1) << 16;
inline constexpr std::size_t placement_grain = std::size_t(1) << 10;

/// The nodes are those of `order`, whose coordinates are read ahead of their search.
/// place(n, placed, scratch) sets placed.status (OUT_OF_MEMORY stops the call) with a
/// Scratch of the thread's own; write(n, placed) writes node n's value. Neither is
/// called for a node twice.
/// @return 0 | -199 memory (for the batch: nothing written; for a placement: the nodes
///         before it written)
template <class Scratch, class Place, class Write>
int place_then_write(const zel::dense2D<double>& coords, const order_records& order, bool list_order, Place&& place,
                     Write&& write) {
  const std::size_t n = order.size();
  const std::size_t batch = list_order ? 1 : std::min(n, placement_batch);
  if (n == 0) return 0;
  zel::dense1D<placed_node, 8> placed;
  if (!placed.resize(batch)) return OUT_OF_MEMORY;
  for (std::size_t start = 0; start < n; start += batch) {
    const std::size_t count = std::min(batch, n - start);
    parallel_for(count, placement_grain, [&](std::size_t first, std::size_t last) {
      Scratch scratch;
      for (std::size_t i = first; i < last; ++i) {
        if (i + prefetch_distance < last)
          prefetch(coords.data() + std::size_t(record_id(order[start + i + prefetch_distance])) * coords.ld());
        place(record_id(order[start + i]), placed[i], scratch);
        if (placed[i].status == OUT_OF_MEMORY) return;  // the rest of the chunk is never written
      }
    });
    std::size_t stop = 0;
    while (stop < count && placed[stop].status != OUT_OF_MEMORY) ++stop;
    parallel_for(stop, placement_grain, [&](std::size_t first, std::size_t last) {
      for (std::size_t i = first; i < last; ++i) write(record_id(order[start + i]), placed[i]);
    });
    if (stop < count) return OUT_OF_MEMORY;
  }
  return 0;
}

}  // namespace elfes
