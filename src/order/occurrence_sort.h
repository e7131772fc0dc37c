// The occurrences of the edges or faces of a mesh, sorted so that the occurrences of one
// entity lie together in the order the elements meet them: what the conversions number
// edges and faces by, in time linear in the mesh and on every core.
//
// An occurrence holds its entity's canonical key (key[0] its smallest node, the rest a
// form equal for every occurrence of the entity) and its place in meeting order (shifted
// left by one, the low bit free for the caller). sort_occurrences() orders them by key,
// then by place: a partition by the high bits of key[0] written straight from the mesh,
// then within each part (small enough for the cache) a counting sort by its low bits,
// then an insertion sort of each node's few occurrences (a plain sort when a node has
// very many, so that no numbering makes the cost grow faster than n log n). Places are
// distinct, so the order is total: whatever the chunks and the threads, one result.
#pragma once

#include <algorithm>
#include <atomic>
#include <cstddef>
#include <cstdint>

#include "common/parallel.h"
#include "zel/matrix.h"

namespace elfes {

template <unsigned W>
struct occurrence {
  unsigned key[W];
  std::uint64_t place;
};

/// A buffer of the matrix allocator holding n values (uninitialised), released with it.
template <class T>
class scratch {
 public:
  bool allocate(std::size_t n) {
    buffer_ = zel::vector_num<T, 8>::create(n > 0 ? n : 1);
    return bool(buffer_);
  }
  void release() { buffer_.reset(); }
  T* data() const { return buffer_->data(); }
  T& operator[](std::size_t i) const { return buffer_->data()[i]; }

 private:
  zel::Ptr<zel::vector_num<T, 8>> buffer_;
};

template <unsigned W>
bool same_key(const occurrence<W>& a, const occurrence<W>& b) {
  for (unsigned i = 0; i < W; ++i)
    if (a.key[i] != b.key[i]) return false;
  return true;
}

// Order of two occurrences of one smallest node: the rest of the key, then the place.
template <unsigned W>
bool rest_less(const occurrence<W>& a, const occurrence<W>& b) {
  for (unsigned i = 1; i < W; ++i)
    if (a.key[i] != b.key[i]) return a.key[i] < b.key[i];
  return false;
}
struct key_place_less {
  template <unsigned W>
  bool operator()(const occurrence<W>& a, const occurrence<W>& b) const {
    for (unsigned i = 0; i < W; ++i)
      if (a.key[i] != b.key[i]) return a.key[i] < b.key[i];
    return a.place < b.place;
  }
};

namespace detail {

constexpr unsigned bucket_bits = 10;  // nodes per part of the partition: 1024
constexpr std::size_t max_parts = std::size_t(1) << 16;

// One node's occurrences, by the rest of the key, then the place.
template <unsigned W>
void sort_node(occurrence<W>* first, occurrence<W>* last) {
  if (last - first > 64) {
    std::sort(first, last, key_place_less());
    return;
  }
  for (occurrence<W>* i = first + 1; i < last; ++i) {
    const occurrence<W> moving = *i;
    occurrence<W>* j = i;
    for (; j > first && key_place_less()(moving, j[-1]); --j) *j = j[-1];
    *j = moving;
  }
}

}  // namespace detail

/// The occurrences of nb_sources sources, sorted by key then place into `sorted` (n of
/// them): emit(lo, hi, sink) calls sink(record) for every occurrence of the sources
/// [lo, hi), each record's key[0] below nb_nodes; it is called twice per chunk of
/// sources (to count, then to write). False when memory runs out.
template <unsigned W, class Emit>
bool sort_occurrences(std::size_t nb_sources, std::size_t nb_nodes, const Emit& emit, scratch<occurrence<W>>& sorted,
                      std::size_t& n) {
  unsigned low_bits = detail::bucket_bits;
  while ((nb_nodes >> low_bits) + 1 > detail::max_parts) ++low_bits;
  const std::size_t parts = (nb_nodes >> low_bits) + 1;
  // Few enough chunks that their counts stay small next to the records.
  std::size_t most_chunks = (std::size_t(1) << 22) / parts;
  most_chunks = most_chunks < 1 ? 1 : most_chunks > 256 ? 256 : most_chunks;
  std::size_t grain = nb_sources / most_chunks + 1;
  grain = grain < (std::size_t(1) << 12) ? std::size_t(1) << 12 : grain;
  const std::size_t nb_chunks = chunk_count(nb_sources, grain);

  // counts[c * parts + p]: occurrences of chunk c in part p, then where they go.
  scratch<std::size_t> counts, cursors, part_begin;
  if (!counts.allocate(nb_chunks * parts) || !cursors.allocate(nb_chunks * parts) || !part_begin.allocate(parts + 1))
    return false;
  parallel_chunks(nb_sources, grain, [&](std::size_t c, std::size_t lo, std::size_t hi) {
    std::size_t* count = counts.data() + c * parts;
    std::fill(count, count + parts, std::size_t(0));
    emit(lo, hi, [&](const occurrence<W>& r) { ++count[r.key[0] >> low_bits]; });
  });
  std::size_t at = 0;
  for (std::size_t p = 0; p < parts; ++p) {
    part_begin[p] = at;
    for (std::size_t c = 0; c < nb_chunks; ++c) {
      const std::size_t k = counts[c * parts + p];
      counts[c * parts + p] = at;
      at += k;
    }
  }
  part_begin[parts] = at;
  n = at;
  if (!sorted.allocate(n)) return false;
  occurrence<W>* records = sorted.data();
  parallel_chunks(nb_sources, grain, [&](std::size_t c, std::size_t lo, std::size_t hi) {
    std::size_t* cursor = cursors.data() + c * parts;
    std::copy(counts.data() + c * parts, counts.data() + (c + 1) * parts, cursor);
    emit(lo, hi, [&](const occurrence<W>& r) { records[cursor[r.key[0] >> low_bits]++] = r; });
  });

  // Each part by node, through a buffer of the chunk's largest part (in the cache).
  const std::size_t nodes_per_part = std::size_t(1) << low_bits;
  std::atomic<bool> failed{false};
  parallel_for(parts, 16, [&](std::size_t p0, std::size_t p1) {
    std::size_t largest = 0;
    for (std::size_t p = p0; p < p1; ++p) largest = std::max(largest, part_begin[p + 1] - part_begin[p]);
    if (nodes_per_part > (std::size_t(1) << detail::bucket_bits)) {  // very sparse IDs
      for (std::size_t p = p0; p < p1; ++p)
        std::sort(records + part_begin[p], records + part_begin[p + 1], key_place_less());
      return;
    }
    scratch<occurrence<W>> buffer;
    if (!buffer.allocate(largest)) {
      failed.store(true, std::memory_order_relaxed);
      return;
    }
    occurrence<W>* by_node = buffer.data();
    for (std::size_t p = p0; p < p1; ++p) {
      const std::size_t begin = part_begin[p], end = part_begin[p + 1];
      std::size_t node_begin[(std::size_t(1) << detail::bucket_bits) + 1];
      std::fill(node_begin, node_begin + nodes_per_part + 1, std::size_t(0));
      const std::size_t mask = nodes_per_part - 1;
      for (std::size_t i = begin; i < end; ++i) ++node_begin[(records[i].key[0] & mask) + 1];
      for (std::size_t k = 1; k <= nodes_per_part; ++k) node_begin[k] += node_begin[k - 1];
      // Node k's run is [node_begin[k], node_begin[k + 1]) of the buffer.
      std::size_t cursor[std::size_t(1) << detail::bucket_bits];
      std::copy(node_begin, node_begin + nodes_per_part, cursor);
      for (std::size_t i = begin; i < end; ++i) by_node[cursor[records[i].key[0] & mask]++] = records[i];
      for (std::size_t k = 0; k < nodes_per_part; ++k)
        detail::sort_node(by_node + node_begin[k], by_node + node_begin[k + 1]);
      std::copy(by_node, by_node + (end - begin), records + begin);
    }
  });
  return !failed.load();
}

/// body(first, last) for every run [first, last) of equal keys of sorted[0, n), the runs
/// shared out in chunks of about `grain` records (a run belongs to the chunk it starts in).
template <unsigned W, class Body>
void for_each_run(const occurrence<W>* sorted, std::size_t n, std::size_t grain, const Body& body) {
  parallel_for(n, grain, [&](std::size_t lo, std::size_t hi) {
    std::size_t i = lo;
    while (i > 0 && i < hi && same_key(sorted[i], sorted[i - 1])) ++i;
    while (i < hi) {
      std::size_t j = i + 1;
      while (j < n && same_key(sorted[j], sorted[i])) ++j;
      body(i, j);
      i = j;
    }
  });
}

}  // namespace elfes
