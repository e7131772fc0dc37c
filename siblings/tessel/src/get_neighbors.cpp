// get_neighbors: face adjacency of a linear solid mesh.
//
// Linear in the mesh: every face is filed under its smallest node (a counting sort; the
// rank of the node among the distinct IDs when the IDs are sparse), so faces that share
// their nodes meet in one short bucket, where a small hash table on the remaining nodes
// pairs them.
#include <algorithm>
#include <cstdint>

#include "common/parallel.h"
#include "zel/tessel.h"
#include "zel/tessel_elements.h"

namespace zel {
namespace tessel {
namespace {

struct solid_mesh {
  const unsigned* data;
  std::size_t ld;
  bool mixed;
  solid_kind pure;

  const unsigned* column(std::size_t e) const { return data + e * ld; }
  solid_kind kind_of(const unsigned* column) const { return mixed ? mixed8_kind(column) : pure; }
};

// 3 or 4, read off the padding (the compiler then knows at least 3 nodes are written).
inline unsigned face_size(const solid_record& table, unsigned f) { return table.faces[f][3] == ABSENT ? 3 : 4; }

// The nodes of face f of a column; false when one of them is absent.
inline bool face_nodes(const unsigned* column, const solid_record& table, unsigned f, unsigned nodes[4]) {
  const unsigned* local = table.faces[f];
  for (unsigned k = 0, size = face_size(table, f); k < size; ++k)
    if ((nodes[k] = column[local[k]]) == ABSENT) return false;
  return true;
}

// A face filed under its smallest node: the other nodes of its node set, ascending, with
// absent past them (a repeated node counts once, so faces match as node sets), and the
// face itself as element << 3 | local face, so that a bucket filled element by element
// is ordered by element.
template <typename Ref>
struct face_record {
  unsigned rest[3];
  Ref ref;
};

// The key (rest[], lexicographically), then the face. A bucket is filled in face order,
// so this sorts it as a stable sort on the key would, but in place: no buffer is taken
// from outside the library's allocator.
template <typename Ref>
inline bool key_then_face_less(const face_record<Ref>& a, const face_record<Ref>& b) {
  if (a.rest[0] != b.rest[0]) return a.rest[0] < b.rest[0];
  if (a.rest[1] != b.rest[1]) return a.rest[1] < b.rest[1];
  if (a.rest[2] != b.rest[2]) return a.rest[2] < b.rest[2];
  return a.ref < b.ref;
}

template <typename Ref>
inline bool same_key(const face_record<Ref>& a, const face_record<Ref>& b) {
  return a.rest[0] == b.rest[0] && a.rest[1] == b.rest[1] && a.rest[2] == b.rest[2];
}

inline void order(unsigned& a, unsigned& b) {
  const unsigned low = std::min(a, b);
  b = std::max(a, b);
  a = low;
}

// The node set of a face: its smallest node, returned, and the others in rest[]. Sorted
// in registers by a network of compare-exchanges (an array sorted in place on the stack
// stalls on store forwarding).
inline unsigned face_key(const unsigned* nodes, unsigned size, unsigned rest[3]) {
  unsigned a = nodes[0], b = nodes[1], c = nodes[2], d = size == 4 ? nodes[3] : ABSENT;
  if (size == 4) {
    order(a, b), order(c, d), order(a, c), order(b, d), order(b, c);
  } else {
    order(a, b), order(b, c), order(a, b);
  }
  rest[0] = b, rest[1] = c, rest[2] = d;
  if (a == b || b == c || (size == 4 && c == d)) {  // a repeated node: keep each once
    const unsigned sorted[4] = {a, b, c, d};
    unsigned n = 0;
    for (unsigned k = 1; k < size; ++k)
      if (sorted[k] != sorted[k - 1]) rest[n++] = sorted[k];
    while (n < 3) rest[n++] = ABSENT;
  }
  return a;
}

// Faces of the same node set are the faces of one bucket with the same key; within a
// group, every face takes the lowest-numbered other element of the group. Buckets are
// filled element by element, so a group's faces come in element order.

// By sorting on the key (groups keep their face order): any bucket, any group.
template <typename Ref>
void pair_by_sorting(face_record<Ref>* first, face_record<Ref>* last, unsigned* out, std::size_t ld) {
  std::sort(first, last, key_then_face_less<Ref>);
  for (face_record<Ref>* group = first; group < last;) {
    face_record<Ref>* end = group + 1;
    while (end < last && same_key(*end, *group)) ++end;
    if (end - group > 1) {
      const unsigned lowest = static_cast<unsigned>(group->ref >> 3);
      unsigned second = NO_ELEMENT;
      for (face_record<Ref>* r = group + 1; r < end && second == NO_ELEMENT; ++r)
        if (static_cast<unsigned>(r->ref >> 3) != lowest) second = static_cast<unsigned>(r->ref >> 3);
      for (face_record<Ref>* r = group; r < end; ++r) {
        const std::size_t element = std::size_t(r->ref >> 3);
        out[element * ld + (r->ref & 7)] = element == lowest ? second : lowest;
      }
    }
    group = end;
  }
}

// By a small open-addressing table over the bucket, whose slots hold the first face of
// each group (its lowest element): a later face of the group takes that element, and
// gives its own to the first face when that one has none yet (the second element of the
// group). A group where the lowest element comes twice (a degenerate element) needs the
// second element for faces already seen, and a long probe run means colliding keys:
// both hand the bucket to the sort, which rewrites every face of every group.
constexpr unsigned table_bits = 11;
constexpr std::size_t largest_hashed_bucket = (std::size_t(1) << table_bits) / 2;

template <typename Ref>
void pair_bucket(face_record<Ref>* first, face_record<Ref>* last, unsigned* out, std::size_t ld, unsigned* table) {
  const std::size_t size = std::size_t(last - first);
  if (size < 2) return;
  if (size == 2) {  // the usual bucket of a face shared by two elements
    const unsigned e0 = static_cast<unsigned>(first->ref >> 3), e1 = static_cast<unsigned>(first[1].ref >> 3);
    if (same_key(first[0], first[1]) && e0 != e1) {
      out[std::size_t(e0) * ld + (first->ref & 7)] = e1;
      out[std::size_t(e1) * ld + (first[1].ref & 7)] = e0;
    }
    return;
  }
  if (size > largest_hashed_bucket) return pair_by_sorting(first, last, out, ld);
  unsigned bits = 3;
  while ((std::size_t(1) << bits) < 2 * size) ++bits;
  const unsigned mask = (1U << bits) - 1;
  std::fill(table, table + mask + 1, ABSENT);
  std::size_t probes = 0;
  for (face_record<Ref>* r = first; r < last; ++r) {
    unsigned slot = (r->rest[0] * 0x9E3779B1U ^ r->rest[1] * 0x85EBCA77U ^ r->rest[2] * 0xC2B2AE3DU) >> (32 - bits);
    for (;; slot = (slot + 1) & mask) {
      if (table[slot] == ABSENT) {
        table[slot] = static_cast<unsigned>(r - first);
        break;
      }
      const face_record<Ref>& head = first[table[slot]];
      if (++probes > 4 * size) return pair_by_sorting(first, last, out, ld);
      if (!same_key(head, *r)) continue;
      const unsigned lowest = static_cast<unsigned>(head.ref >> 3), element = static_cast<unsigned>(r->ref >> 3);
      if (element == lowest) return pair_by_sorting(first, last, out, ld);
      out[std::size_t(element) * ld + (r->ref & 7)] = lowest;
      unsigned& back = out[std::size_t(lowest) * ld + (head.ref & 7)];
      if (back == ABSENT) back = element;
      break;
    }
  }
}

// visit(element, local face, nodes, 3 or 4) for every face without an absent node.
template <class Visit>
inline void for_each_face(const solid_mesh& mesh, std::size_t nb_elements, const Visit& visit) {
  for (std::size_t e = 0; e < nb_elements; ++e) {
    const unsigned* column = mesh.column(e);
    const solid_record& table = solid_records[mesh.kind_of(column)];
    for (unsigned f = 0; f < table.nb_faces; ++f) {
      unsigned nodes[4];
      if (face_nodes(column, table, f, nodes)) visit(e, f, nodes, face_size(table, f));
    }
  }
}

template <typename Ref>
int match_faces(const solid_mesh& mesh, std::size_t nb_elements, dense2D<unsigned>& result) {
  // The largest node ID and the number of vertex entries.
  std::size_t nb_incidences = 0, max_id = 0;
  for (std::size_t e = 0; e < nb_elements; ++e) {
    const unsigned* column = mesh.column(e);
    const unsigned nb_vertices = solid_records[mesh.kind_of(column)].nb_vertices;
    for (unsigned k = 0; k < nb_vertices; ++k)
      if (column[k] != ABSENT) {
        max_id = std::max(max_id, std::size_t(column[k]));
        ++nb_incidences;
      }
  }
  if (nb_incidences == 0) return 0;

  // Bucket of a face: 2 x (its smallest node, or that node's rank among the distinct IDs
  // when the IDs are sparse, so that huge IDs cost no huge table), + 1 for quadrangles.
  const bool dense = max_id <= 2 * nb_incidences + 1024;
  dense1D<unsigned, 8> distinct_ids;
  if (!dense) {
    if (!distinct_ids.reserve(nb_incidences, 1)) return OUT_OF_MEMORY;
    for (std::size_t e = 0; e < nb_elements; ++e) {
      const unsigned* column = mesh.column(e);
      const unsigned nb_vertices = solid_records[mesh.kind_of(column)].nb_vertices;
      for (unsigned k = 0; k < nb_vertices; ++k)
        if (column[k] != ABSENT) distinct_ids.push_back(column[k]);  // room reserved: cannot fail
    }
    std::sort(distinct_ids.begin(), distinct_ids.end());
    const std::size_t n = std::size_t(std::unique(distinct_ids.begin(), distinct_ids.end()) - distinct_ids.begin());
    distinct_ids.resize(n);  // shrinking: cannot fail
  }
  const std::size_t nb_buckets = 2 * (dense ? max_id + 1 : distinct_ids.size());
  auto bucket_of = [&](unsigned smallest, unsigned size) {
    const std::size_t node =
        dense
            ? smallest
            : std::size_t(std::lower_bound(distinct_ids.begin(), distinct_ids.end(), smallest) - distinct_ids.begin());
    return 2 * node + (size == 4);
  };

  dense1D<Ref, 8> start;
  if (!start.resize(nb_buckets + 1, 0)) return OUT_OF_MEMORY;
  for_each_face(mesh, nb_elements, [&](std::size_t, unsigned, const unsigned* nodes, unsigned size) {
    unsigned smallest = std::min(std::min(nodes[0], nodes[1]), nodes[2]);
    if (size == 4) smallest = std::min(smallest, nodes[3]);
    ++start[bucket_of(smallest, size) + 1];
  });
  for (std::size_t b = 0; b < nb_buckets; ++b) start[b + 1] += start[b];
  // Room only: every record is written below, so the buffer is not filled first.
  dense1D<face_record<Ref>, 8> records;
  if (!records.reserve(start[nb_buckets], 1)) return OUT_OF_MEMORY;
  // Fill with start[b] as the cursor of bucket b, which leaves it at the end of b, then
  // shift the starts back by one bucket.
  for_each_face(mesh, nb_elements, [&](std::size_t e, unsigned f, const unsigned* nodes, unsigned size) {
    unsigned rest[3];
    face_record<Ref>& record = records.data()[start[bucket_of(face_key(nodes, size, rest), size)]++];
    record.rest[0] = rest[0], record.rest[1] = rest[1], record.rest[2] = rest[2];
    record.ref = Ref(e) << 3 | f;
  });
  for (std::size_t b = nb_buckets; b > 0; --b) start[b] = start[b - 1];
  start[0] = 0;

  // Each face lies in one bucket and each bucket writes only its faces' entries: the
  // buckets are paired on the library's threads, in chunks.
  elfes::parallel_for(nb_buckets, std::size_t(1) << 14, [&](std::size_t first, std::size_t last) {
    unsigned table[std::size_t(1) << table_bits];
    for (std::size_t b = first; b < last; ++b)
      pair_bucket(records.data() + start[b], records.data() + start[b + 1], result.data(), result.ld(), table);
  });
  return 0;
}

}  // namespace

int get_neighbors(const dense2D<unsigned>& connect, element_type type, dense2D<unsigned>& neighbors) {
  solid_mesh mesh{connect.data(), connect.ld(), false, kind_TH4};
  std::size_t rows = 0;
  switch (type) {
    case TH4: rows = 4, mesh.pure = kind_TH4; break;
    case PY5: rows = 5, mesh.pure = kind_PY5; break;
    case W6: rows = 6, mesh.pure = kind_W6; break;
    case H8: rows = 8, mesh.pure = kind_H8; break;
    case SOLID_MIX8: rows = 8, mesh.mixed = true; break;
    default: return -2;
  }
  const std::size_t nb_elements = connect.cols();
  if (nb_elements && connect.rows() != rows) return -1;
  if (nb_elements >= NO_ELEMENT) return OUT_OF_MEMORY;  // element IDs must stay below the marker
  const std::size_t nb_faces = mesh.mixed ? 6 : solid_records[mesh.pure].nb_faces;

  dense2D<unsigned> result;
  if (!result.resize(nb_faces, nb_elements, NO_ELEMENT)) return OUT_OF_MEMORY;
  // 32-bit face references and bucket starts while element << 3 and the face count fit.
  const int status = nb_elements < (std::size_t(1) << 28) ? match_faces<std::uint32_t>(mesh, nb_elements, result)
                                                          : match_faces<std::uint64_t>(mesh, nb_elements, result);
  if (status != 0) return status;
  neighbors.swap(result);
  return 0;
}

}  // namespace tessel
}  // namespace zel
