// get_neighbors: face adjacency of a linear solid mesh.
//
// Linear in the mesh: a node -> elements incidence (compressed rows, built by counting;
// by a sort when the node IDs are sparse) lets each face be compared only with the faces
// of the elements around its smallest node, which every element sharing the face must hold.
#include <algorithm>
#include <cstdint>

#include "zel/tessel.h"

namespace zel {
namespace tessel {
namespace {

constexpr unsigned absent = ~0U;

// The linear solids' faces, in the numbering of the mesh library (face f of a TH4 is
// opposite node f). Each face lists 3 or 4 local nodes; absent pads the triangles.
struct solid_faces {
  unsigned nb_vertices;
  unsigned nb_faces;
  unsigned faces[6][4];
};

enum kind : unsigned { kind_TH4, kind_PY5, kind_W6, kind_H8 };

constexpr solid_faces face_table[4] = {
    {4, 4, {{1, 2, 3, absent}, {2, 0, 3, absent}, {0, 1, 3, absent}, {2, 1, 0, absent}}},
    {5, 5, {{0, 4, 1, absent}, {1, 4, 2, absent}, {2, 4, 3, absent}, {3, 4, 0, absent}, {0, 1, 2, 3}}},
    {6, 5, {{0, 1, 2, absent}, {3, 5, 4, absent}, {2, 1, 4, 5}, {0, 2, 5, 3}, {1, 0, 3, 4}}},
    {8, 6, {{0, 3, 7, 4}, {1, 5, 6, 2}, {0, 4, 5, 1}, {3, 2, 6, 7}, {0, 1, 2, 3}, {4, 7, 6, 5}}},
};

// Kind of a column of the 8-row mixed layout, from rows 3, 4, 5, 6 tested in this order
// (rows 3 and 4 both absent is a malformed column read as a hexahedron or a wedge).
kind mixed8_kind(const unsigned* column) {
  if (column[3] != absent && column[4] == absent) return kind_TH4;
  if (column[4] != absent) {
    if (column[5] == absent) return kind_PY5;
    return column[6] == absent ? kind_W6 : kind_H8;
  }
  if (column[5] == absent) return kind_H8;
  return column[6] == absent ? kind_W6 : kind_H8;
}

struct solid_mesh {
  const unsigned* data;
  std::size_t ld;
  bool mixed;
  kind pure;

  const unsigned* column(std::size_t e) const { return data + e * ld; }
  kind kind_of(const unsigned* column) const { return mixed ? mixed8_kind(column) : pure; }
};

inline unsigned face_size(const solid_faces& table, unsigned f) { return table.faces[f][3] == absent ? 3 : 4; }

// The nodes of face f of a column; false when one of them is absent.
inline bool face_nodes(const unsigned* column, const solid_faces& table, unsigned f, unsigned nodes[4]) {
  const unsigned* local = table.faces[f];
  for (unsigned k = 0, size = face_size(table, f); k < size; ++k)
    if ((nodes[k] = column[local[k]]) == absent) return false;
  return true;
}

inline bool contains(const unsigned* nodes, unsigned size, unsigned node) {
  for (unsigned k = 0; k < size; ++k)
    if (nodes[k] == node) return true;
  return false;
}

// Same node set (any order), without sorting: each list contains the other.
inline bool same_nodes(const unsigned* a, const unsigned* b, unsigned size) {
  for (unsigned k = 0; k < size; ++k)
    if (!contains(a, size, b[k]) || !contains(b, size, a[k])) return false;
  return true;
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
  if (nb_elements >= absent) return -199;  // element IDs must stay below the marker
  const std::size_t nb_faces = mesh.mixed ? 6 : face_table[mesh.pure].nb_faces;

  dense2D<unsigned> result;
  if (!result.resize(nb_faces, nb_elements, absent)) return -199;

  // Node -> elements incidence: the elements of node v are incident[start[i] .. start[i + 1]),
  // ascending, with i = v when the IDs are dense (a counting pass) and i = the rank of v
  // among the distinct IDs otherwise (a sort, so that huge IDs cost no huge table).
  std::size_t max_id = 0, nb_incidences = 0;
  for (std::size_t e = 0; e < nb_elements; ++e) {
    const unsigned* column = mesh.column(e);
    const unsigned nb_vertices = face_table[mesh.kind_of(column)].nb_vertices;
    for (unsigned k = 0; k < nb_vertices; ++k)
      if (column[k] != absent) {
        max_id = std::max(max_id, std::size_t(column[k]));
        ++nb_incidences;
      }
  }
  const bool dense = max_id <= 2 * nb_incidences + 1024;
  dense1D<std::size_t, 8> start;
  dense1D<unsigned, 8> incident, distinct_ids;
  if (!incident.resize(nb_incidences)) return -199;
  if (dense) {
    const std::size_t nb_nodes = nb_incidences ? max_id + 1 : 0;
    if (!start.resize(nb_nodes + 1, 0)) return -199;
    for (std::size_t e = 0; e < nb_elements; ++e) {
      const unsigned* column = mesh.column(e);
      const unsigned nb_vertices = face_table[mesh.kind_of(column)].nb_vertices;
      for (unsigned k = 0; k < nb_vertices; ++k)
        if (column[k] != absent) ++start[column[k] + std::size_t(1)];
    }
    for (std::size_t v = 0; v < nb_nodes; ++v) start[v + 1] += start[v];
    // Fill with start[v] as the cursor of v, which leaves start[v] at the end of v's list,
    // then shift the starts back by one node.
    for (std::size_t e = 0; e < nb_elements; ++e) {
      const unsigned* column = mesh.column(e);
      const unsigned nb_vertices = face_table[mesh.kind_of(column)].nb_vertices;
      for (unsigned k = 0; k < nb_vertices; ++k)
        if (column[k] != absent) incident[start[column[k]]++] = static_cast<unsigned>(e);
    }
    for (std::size_t v = nb_nodes; v > 0; --v) start[v] = start[v - 1];
    start[0] = 0;
  } else {
    dense1D<std::uint64_t, 8> pairs;  // node << 32 | element, sorted
    if (!pairs.resize(nb_incidences) || !distinct_ids.reserve(nb_incidences, 1) ||
        !start.reserve(nb_incidences + 1, 1))
      return -199;
    std::size_t n = 0;
    for (std::size_t e = 0; e < nb_elements; ++e) {
      const unsigned* column = mesh.column(e);
      const unsigned nb_vertices = face_table[mesh.kind_of(column)].nb_vertices;
      for (unsigned k = 0; k < nb_vertices; ++k)
        if (column[k] != absent) pairs[n++] = std::uint64_t(column[k]) << 32 | e;
    }
    std::sort(pairs.begin(), pairs.end());
    for (std::size_t i = 0; i < n; ++i) {
      const unsigned id = static_cast<unsigned>(pairs[i] >> 32);
      if (i == 0 || id != distinct_ids[distinct_ids.size() - 1]) {
        distinct_ids.push_back(id);  // room reserved: cannot fail
        start.push_back(i);
      }
      incident[i] = static_cast<unsigned>(pairs[i]);
    }
    start.push_back(n);
  }
  auto elements_of = [&](unsigned id, std::size_t& first, std::size_t& last) {
    std::size_t i = id;
    if (!dense) i = std::size_t(std::lower_bound(distinct_ids.begin(), distinct_ids.end(), id) - distinct_ids.begin());
    first = start[i];
    last = start[i + 1];
  };

  // Face f of e is matched with the lowest-numbered other element holding a face with the
  // same nodes; every such element holds the face's smallest node, so only that node's
  // elements are compared. The match is written on both sides: the other side's entry,
  // when still empty, has e as its lowest other element too (a lower one would have
  // been e's match), and faces already written are skipped.
  const std::size_t ld = result.ld();
  unsigned* out = result.data();
  for (std::size_t e = 0; e < nb_elements; ++e) {
    const unsigned* column = mesh.column(e);
    const solid_faces& table = face_table[mesh.kind_of(column)];
    for (unsigned f = 0; f < table.nb_faces; ++f) {
      unsigned& entry = out[e * ld + f];
      unsigned nodes[4];
      if (entry != absent || !face_nodes(column, table, f, nodes)) continue;
      const unsigned size = face_size(table, f);
      const unsigned smallest = *std::min_element(nodes, nodes + size);
      unsigned previous = absent;
      std::size_t first = 0, last = 0;
      elements_of(smallest, first, last);
      for (std::size_t i = first; i < last && entry == absent; ++i) {
        const unsigned other = incident[i];
        if (other == e || other == previous) continue;  // a repeated node lists an element twice
        previous = other;
        const unsigned* other_column = mesh.column(other);
        const solid_faces& other_table = face_table[mesh.kind_of(other_column)];
        for (unsigned g = 0; g < other_table.nb_faces; ++g) {
          unsigned other_nodes[4];
          if (face_size(other_table, g) != size || !face_nodes(other_column, other_table, g, other_nodes) ||
              !same_nodes(nodes, other_nodes, size))
            continue;
          entry = other;
          unsigned& back = out[other * ld + g];
          if (back == absent) back = static_cast<unsigned>(e);
          break;
        }
      }
    }
  }
  neighbors.swap(result);
  return 0;
}

}  // namespace tessel
}  // namespace zel
