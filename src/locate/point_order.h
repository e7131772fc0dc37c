// A spatially coherent order for many independent point searches. Searching points in
// the order a caller gives them (random, or interleaved from several sources) makes
// every walk start from cold caches; searching them along a Morton curve makes
// consecutive walks cross the same elements and nodes. The order is only a schedule:
// callers process each point exactly as they would alone, so results never depend on it.
//
// Each point gets a 30-bit Morton key from its position quantised on a 1024^3 grid over
// the cube around the finite points; a point with a coordinate that is not finite gets a
// key above every other and comes last. Records (key << 32 | id) are sorted by key with
// a stable radix sort, so points of one grid cell keep the order in which they were given.
#pragma once

#include <cmath>
#include <cstdint>
#include <cstring>
#include <utility>

#include "common/element_tables.h"
#include "zel/matrix.h"

namespace elfes {

/// A point's record: its sort key in the high 32 bits, its ID (a column) in the low ones.
using order_records = zel::dense1D<std::uint64_t, 8>;

inline unsigned record_id(std::uint64_t record) { return static_cast<unsigned>(record); }

/// Spreads the low 10 bits of v to every third bit.
inline std::uint32_t spread_bits10(std::uint32_t v) {
  v &= 0x3FFu;
  v = (v | (v << 16)) & 0x030000FFu;
  v = (v | (v << 8)) & 0x0300F00Fu;
  v = (v | (v << 4)) & 0x030C30C3u;
  v = (v | (v << 2)) & 0x09249249u;
  return v;
}

inline std::uint32_t morton_key30(std::uint32_t x, std::uint32_t y, std::uint32_t z) {
  return spread_bits10(x) | (spread_bits10(y) << 1) | (spread_bits10(z) << 2);
}

/// The key of any point with a coordinate that is not finite: above every Morton key.
constexpr std::uint32_t non_finite_key = 1u << 30;

/// Sorts records by their high 32 bits, stable: least significant byte first, a pass
/// skipped when every record has the same byte there. @return false: memory
inline bool sort_records_by_key(order_records& records) {
  const std::size_t n = records.size();
  if (n < 2) return true;
  order_records other;
  if (!other.resize(n)) return false;
  std::uint64_t* from = records.data();
  std::uint64_t* to = other.data();
  for (unsigned shift = 32; shift < 64; shift += 8) {
    std::size_t start[257] = {0};
    for (std::size_t k = 0; k < n; ++k) ++start[((from[k] >> shift) & 0xFFu) + 1];
    if (start[((from[0] >> shift) & 0xFFu) + 1] == n) continue;  // one digit for all
    for (unsigned d = 0; d < 256; ++d) start[d + 1] += start[d];
    for (std::size_t k = 0; k < n; ++k) to[start[(from[k] >> shift) & 0xFFu]++] = from[k];
    std::swap(from, to);
  }
  if (from != records.data()) std::memcpy(records.data(), from, n * sizeof(std::uint64_t));
  return true;
}

/// Orders the points xyz + id * ld (3 doubles each) of the candidates k = 0 ... count-1,
/// where id_of(k) gives candidate k's ID, or ~0U to leave it out. `records` receives one
/// record per chosen candidate, in the order to process them (see the file comment); a
/// candidate listed twice gets two records.
/// @return 0 | -199 memory (records then empty)
template <class IdOf>
int spatial_order(const double* xyz, std::size_t ld, std::size_t count, const IdOf& id_of, order_records& records) {
  records.clear();
  double lo[3] = {INFINITY, INFINITY, INFINITY}, hi[3] = {-INFINITY, -INFINITY, -INFINITY};
  std::size_t chosen = 0;
  for (std::size_t k = 0; k < count; ++k) {
    const unsigned id = id_of(k);
    if (id == NOT_FOUND) continue;
    ++chosen;
    const double* x = xyz + id * ld;
    if (!std::isfinite(x[0]) || !std::isfinite(x[1]) || !std::isfinite(x[2])) continue;
    for (unsigned d = 0; d < 3; ++d) {
      if (x[d] < lo[d]) lo[d] = x[d];
      if (x[d] > hi[d]) hi[d] = x[d];
    }
  }
  if (!records.resize(chosen)) return OUT_OF_MEMORY;
  // Cubic cells over the largest extent; a finite extent too large to divide (1e308
  // across) or none at all puts every finite point in the first cell.
  double extent = 0;
  for (unsigned d = 0; d < 3; ++d)
    if (hi[d] - lo[d] > extent) extent = hi[d] - lo[d];
  const double scale = extent > 0 && std::isfinite(extent) ? 1024.0 / extent : 0.0;
  std::uint64_t* record = records.data();
  for (std::size_t k = 0; k < count; ++k) {
    const unsigned id = id_of(k);
    if (id == NOT_FOUND) continue;
    const double* x = xyz + id * ld;
    std::uint32_t key = non_finite_key;
    if (std::isfinite(x[0]) && std::isfinite(x[1]) && std::isfinite(x[2])) {
      std::uint32_t cell[3];
      for (unsigned d = 0; d < 3; ++d) {
        const double v = (x[d] - lo[d]) * scale;
        cell[d] = v >= 1023.0 ? 1023u : v > 0 ? static_cast<std::uint32_t>(v) : 0u;
      }
      key = morton_key30(cell[0], cell[1], cell[2]);
    }
    *record++ = std::uint64_t(key) << 32 | id;
  }
  if (!sort_records_by_key(records)) {
    records.clear();
    return OUT_OF_MEMORY;
  }
  return 0;
}

/// How many points ahead the loops over ordered points ask for their memory: the
/// searches themselves follow the curve through caches that stay warm, but each
/// point's own entries (its coordinates, its output) lie wherever its ID puts them.
constexpr std::size_t prefetch_distance = 4;

/// Asks the caches for the memory at p ahead of its use (to read, or to write), where
/// the compiler offers a way to; nothing otherwise.
inline void prefetch(const void* p) {
#if defined(__GNUC__) || defined(__clang__)
  __builtin_prefetch(p, 0);
#else
  (void)p;
#endif
}
inline void prefetch_for_write(const void* p) {
#if defined(__GNUC__) || defined(__clang__)
  __builtin_prefetch(p, 1);
#else
  (void)p;
#endif
}

/// Before treating ordered node k: the coordinates of the node prefetch_distance ahead,
/// and its output entry, output_of(node) (the interpolations' node loops).
template <class Output>
inline void prefetch_node_ahead(const order_records& order, std::size_t k, const zel::dense2D<double>& coords,
                                const Output& output_of) {
  if (k + prefetch_distance >= order.size()) return;
  const unsigned ahead = record_id(order[k + prefetch_distance]);
  prefetch(coords.data() + std::size_t(ahead) * coords.ld());
  prefetch_for_write(output_of(ahead));
}

}  // namespace elfes
