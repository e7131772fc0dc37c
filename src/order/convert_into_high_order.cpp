// convert_into_high_order, convert_into_quadratic: new nodes on the edges, inside the
// faces and inside the elements of a linear solid mesh, one set per shared edge or face
// (found through the edge and face maps), appended to the coordinates. The forms with
// options list each face's nodes in every element's own face order (conforming faces).
#include <cmath>
#include <cstdint>
#include <cstdlib>

#include "common/element_tables.h"
#include "common/shared_memory.h"
#include "order/hash_tables.h"
#include "order/shape_functions.h"
#include "order/solid_columns.h"
#include "zel/tessel3d.h"

namespace zel {
namespace tessel3d {
namespace {

using elfes::solid_descriptor;
using elfes::solid_kind;
using elfes::solid_table;
using edge_map = elfes::hash_table<elfes::map_entry<elfes::edge2, unsigned>>;
using face_map = elfes::hash_table<elfes::map_entry<elfes::face_mix, unsigned>>;

constexpr std::uint64_t id_limit = 0xFFFFFFFFull;  // node IDs stay below the absent marker

struct node_counts {
  unsigned e, q, t, h, w, p, n;
};

// Rows of one kind's high-order column: corners, e nodes per edge, then the face blocks,
// then the interior nodes.
struct kind_layout {
  std::size_t face_row[6];
  unsigned face_nodes[6];
  std::size_t interior_row;
  unsigned interior;
  std::size_t rows;
};

struct conversion {
  conversion(dense2D<double>& coords_, const dense2D<unsigned>& connectM_, dense2D<unsigned>& connectH_,
             const dense2D<unsigned>& faces_, const dense2D<unsigned>& edges_, const node_counts& counts,
             bool with_options = false, bool conforming_faces_ = false)
      : coords(coords_),
        connectM(connectM_),
        connectH(connectH_),
        faces(faces_),
        edges(edges_),
        c(counts),
        any_cube(with_options),
        conforming_faces(conforming_faces_) {}

  dense2D<double>& coords;
  const dense2D<unsigned>& connectM;
  dense2D<unsigned>& connectH;
  const dense2D<unsigned>& faces;
  const dense2D<unsigned>& edges;
  node_counts c;
  bool any_cube;             // h passes when it is a cube (the forms with options)
  bool conforming_faces;     // face blocks in each element's own face order
  std::size_t nb_nodes = 0;  // coordinates columns at entry
  unsigned q_side = 0;       // q = q_side^2
  unsigned h_side = 0;       // h = h_side^3
  bool faces_quad_form = false;
  std::size_t nb_kind[4] = {0, 0, 0, 0};
  kind_layout layout[4];
  edge_map edge_nodes;
  face_map face_nodes;
  std::uint64_t next_node = 0;
  bool caller_edges = false;  // the edge map holds caller's nodes
  bool caller_faces = false;  // the face map holds caller's nodes
};

// ---- checks -------------------------------------------------------------------------------

bool present(const unsigned* column, std::size_t row) { return column[row] != tessel::ABSENT; }

// Counts the kinds, refusing columns with an absent vertex.
bool count_kinds(conversion& cv) {
  const dense2D<unsigned>& m = cv.connectM;
  const unsigned* column = m.data();
  for (std::size_t j = 0; j < m.cols(); ++j, column += m.ld()) {
    const solid_kind kind = elfes::linear_column_kind(column, m.rows());
    if (!elfes::vertices_present(column, kind)) return false;
    ++cv.nb_kind[kind];
  }
  return true;
}

// A face column is a triangle in the triangle form, or in the quadrangle form when its
// last row is absent. When both forms have the same row count (6-row meshes), the
// quadrangle form is assumed. The corners and the first interior node must be nodes.
bool faces_valid(conversion& cv) {
  const dense2D<unsigned>& f = cv.faces;
  if (f.empty()) return true;
  const std::uint64_t e = cv.c.e;
  const std::uint64_t triangle_rows = cv.c.t + 3 * (e + 1), quadrangle_rows = cv.c.q + 4 * (e + 1);
  const std::size_t rows = f.rows(), R = cv.connectM.rows();
  if (R == 4) {
    if (rows != triangle_rows) return false;
  } else if (rows == quadrangle_rows) {
    cv.faces_quad_form = true;
  } else if (R == 8 || rows != triangle_rows) {
    return false;
  }
  if (!tessel::check_IDs(f, static_cast<unsigned>(cv.nb_nodes))) return false;
  const unsigned* column = f.data();
  for (std::size_t j = 0; j < f.cols(); ++j, column += f.ld()) {
    const bool triangle = !cv.faces_quad_form || column[rows - 1] == tessel::ABSENT;
    const unsigned corners = triangle ? 3 : 4, inside = triangle ? cv.c.t : cv.c.q;
    for (unsigned i = 0; i < corners; ++i)
      if (!present(column, i)) return false;
    if (inside > 0 && !present(column, corners * (e + 1))) return false;
  }
  return true;
}

bool edges_valid(const conversion& cv) {
  const dense2D<unsigned>& g = cv.edges;
  if (g.empty()) return true;
  if (g.rows() != std::uint64_t(cv.c.e) + 2 || !tessel::check_IDs(g, static_cast<unsigned>(cv.nb_nodes))) return false;
  const std::size_t read = cv.c.e > 0 ? 3 : 2;
  const unsigned* column = g.data();
  for (std::size_t j = 0; j < g.cols(); ++j, column += g.ld())
    for (std::size_t i = 0; i < read; ++i)
      if (!present(column, i)) return false;
  return true;
}

int check_arguments(conversion& cv) {
  if (cv.coords.rows() != 3) return -1;
  cv.nb_nodes = cv.coords.cols();
  const std::size_t R = cv.connectM.rows();
  if ((R != 4 && R != 6 && R != 8) || !tessel::check_IDs(cv.connectM, SOLID_MIX8, static_cast<unsigned>(cv.nb_nodes)) ||
      !count_kinds(cv))
    return -2;
  cv.q_side = static_cast<unsigned>(std::sqrt(static_cast<double>(cv.c.q)));
  if (std::uint64_t(cv.q_side) * cv.q_side != cv.c.q) return -4;
  if (cv.c.t != 0 && cv.c.t != 1 && cv.c.t != 3) return -5;
  // Truncated on purpose: with a correctly rounded pow, 64 gives 3.999... and is refused.
  // The forms with options take the nearest integer root instead, so every cube passes.
  const double root = std::pow(static_cast<double>(cv.c.h), 0.3333333333333333);
  cv.h_side = static_cast<unsigned>(cv.any_cube ? std::nearbyint(root) : root);
  if (std::uint64_t(cv.h_side) * cv.h_side * cv.h_side != cv.c.h) return -6;
  if (cv.c.w >= 2) return -7;
  if (cv.c.n >= 2) return -9;
  if (!faces_valid(cv)) return -11;
  if (!edges_valid(cv)) return -12;
  return 0;
}

// ---- layout -------------------------------------------------------------------------------

void make_layouts(conversion& cv) {
  const unsigned interior[4] = {cv.c.n, cv.c.p, cv.c.w, cv.c.h};
  for (unsigned k = 0; k < 4; ++k) {
    const solid_descriptor& d = solid_table[k];
    kind_layout& L = cv.layout[k];
    std::size_t row = d.nb_vertices + std::size_t(d.nb_edges) * cv.c.e;
    for (unsigned f = 0; f < d.nb_faces; ++f) {
      L.face_row[f] = row;
      L.face_nodes[f] = d.face_size[f] == 3 ? cv.c.t : cv.c.q;
      row += L.face_nodes[f];
    }
    L.interior_row = row;
    L.interior = interior[k];
    L.rows = row + interior[k];
  }
}

std::size_t output_rows(const conversion& cv) {
  const std::size_t columns = cv.connectM.cols();
  if (cv.nb_kind[elfes::kind_TH4] == columns) return cv.layout[elfes::kind_TH4].rows;
  if (cv.nb_kind[elfes::kind_W6] == columns) return cv.layout[elfes::kind_W6].rows;
  std::size_t rows = 0;
  for (const kind_layout& L : cv.layout) rows = L.rows > rows ? L.rows : rows;
  return rows;
}

bool kind_has_face_nodes(const conversion& cv, unsigned kind) {
  for (unsigned f = 0; f < solid_table[kind].nb_faces; ++f)
    if (cv.layout[kind].face_nodes[f] > 0) return true;
  return false;
}

// ---- numbering ----------------------------------------------------------------------------

// The key of face f of a column: its corners in the local face order.
elfes::face_mix face_key(const unsigned* column, const solid_descriptor& d, unsigned f) {
  elfes::face_mix key{{column[d.faces[f][0]], column[d.faces[f][1]], column[d.faces[f][2]], tessel::ABSENT}};
  if (d.face_size[f] == 4) key.node[3] = column[d.faces[f][3]];
  return key;
}

// Empties a map and gives it the bucket count of a reset to 23 buckets followed by a
// rehash to `wanted` when that exceeds them, with its slots sized at once for `expected`
// entries (no more than the growth rule lets in before the next rehash), so that it does
// not double its storage while it fills.
template <class Map>
bool reset_for(Map& map, std::size_t wanted, std::size_t expected) {
  const std::size_t buckets = wanted > 23 ? elfes::next_prime(wanted) : 23;
  return map.reset(expected < 2 * buckets ? expected : 2 * buckets, buckets, 1.0);
}

// The keys of the columns ahead with their hashes and home buckets, whose loading into
// the cache has been started: the map's cache misses, which dominate on large meshes,
// then overlap with the work on the columns before them. Two blocks of columns: the
// one being inserted and the next one, filled when the walk enters the first. `Keys`
// writes the keys of a column of a kind (in the order the column inserts them) and
// returns their count. A home holds while the map keeps the bucket count it had when
// the home was taken.
template <class Key, unsigned per_column>
class keys_ahead {
 public:
  static constexpr std::size_t block = 8;
  struct column_keys {
    Key key[per_column];
    std::uint64_t hash[per_column];
    std::size_t home[per_column];
    std::size_t buckets;
  };

  // The keys of column j, where the walk visits every column in order from 0.
  template <class Map, class Keys>
  const column_keys& at(std::size_t j, const Map& map, const dense2D<unsigned>& m, const Keys& keys_of) {
    if (j % block == 0) {
      if (j == 0) fill(map, m, 0, keys_of);
      fill(map, m, j + block, keys_of);
    }
    return keys_[(j / block) % 2][j % block];
  }

 private:
  template <class Map, class Keys>
  void fill(const Map& map, const dense2D<unsigned>& m, std::size_t first, const Keys& keys_of) {
    if (first >= m.cols()) return;
    const std::size_t R = m.rows(), count = m.cols() - first < block ? m.cols() - first : block;
    const unsigned* column = m.data() + first * m.ld();
    column_keys* keys = keys_[(first / block) % 2];
    for (std::size_t b = 0; b < count; ++b, column += m.ld()) {
      column_keys& c = keys[b];
      c.buckets = map.bucket_count();
      const unsigned n = keys_of(column, elfes::linear_column_kind(column, R), c.key);
      for (unsigned i = 0; i < n; ++i) {
        c.hash[i] = elfes::hash_key(c.key[i]);
        c.home[i] = map.home(c.hash[i]);
        map.prefetch(c.home[i]);
        map.prefetch_key(c.key[i]);
      }
    }
  }

  column_keys keys_[2][block];
};

// The keys of a column's edges, in the order of its kind's edge list.
unsigned edge_keys(const unsigned* column, solid_kind kind, elfes::edge2* key) {
  const solid_descriptor& d = solid_table[kind];
  for (unsigned i = 0; i < d.nb_edges; ++i) key[i] = {{column[d.edges[i][0]], column[d.edges[i][1]]}};
  return d.nb_edges;
}

// Corners and edge nodes of every column. New edges get e consecutive IDs in the order
// they are met; an element walking an edge against its stored direction lists them
// backwards.
bool number_edges(conversion& cv) {
  const unsigned e = cv.c.e;
  const dense2D<unsigned>& m = cv.connectM;
  const std::size_t R = m.rows(), ldH = cv.connectH.ld();
  if (e > 0) {
    edge_map& map = cv.edge_nodes;
    const std::size_t wanted = cv.edges.cols() + 3 * m.cols() + cv.faces.cols();
    if (!reset_for(map, wanted, wanted)) return false;
    const unsigned* column = cv.edges.data();
    for (std::size_t j = 0; j < cv.edges.cols(); ++j, column += cv.edges.ld()) {
      const elfes::edge2 key{{column[0], column[1]}};
      const std::size_t pos = map.insert_growing(elfes::hash_key(key), {key, column[2]});
      if (pos == map.npos) return false;
      map.value(pos).second = column[2];  // of two columns for one edge, the last wins
      cv.caller_edges = true;
    }
  }
  const unsigned* column = m.data();
  unsigned* out = cv.connectH.data();
  edge_map& map = cv.edge_nodes;
  keys_ahead<elfes::edge2, 12> ahead;
  for (std::size_t j = 0; j < m.cols(); ++j, column += m.ld(), out += ldH) {
    const solid_descriptor& d = solid_table[elfes::linear_column_kind(column, R)];
    for (unsigned v = 0; v < d.nb_vertices; ++v) out[v] = column[v];
    if (e == 0) continue;
    const auto& keys = ahead.at(j, map, m, edge_keys);
    for (unsigned i = 0; i < d.nb_edges; ++i) {
      const unsigned a = column[d.edges[i][0]];
      const elfes::edge2& key = keys.key[i];
      bool added = false;
      const std::size_t pos = map.insert_growing(keys.hash[i], keys.home[i], keys.buckets,
                                                 {key, static_cast<unsigned>(cv.next_node)}, &added);
      if (pos == edge_map::npos) return false;
      if (added) cv.next_node += e;
      const auto& entry = map.value(pos);
      unsigned* row = out + d.nb_vertices + std::size_t(i) * e;
      if (e == 1) {
        row[0] = entry.second;
      } else if (entry.first.node[0] == a) {
        for (unsigned k = 0; k < e; ++k) row[k] = entry.second + k;
      } else {
        for (unsigned k = 0; k < e; ++k) row[k] = entry.second + (e - 1 - k);
      }
    }
  }
  return cv.next_node <= id_limit;
}

// Writes the count nodes of a face starting at `first` as the element sees them: the run
// is reversed (with the stored corners) when the element walks the face the other way,
// then rotated left by the position of the element's first corner among the stored ones.
void write_face_run(unsigned* row, unsigned first, unsigned count, const elfes::face_mix& stored,
                    const elfes::face_mix& mine) {
  if (count == 1) {
    row[0] = first;
    return;
  }
  const unsigned n = stored.node[3] == tessel::ABSENT ? 3 : 4;
  const bool reversed = elfes::compare_keys(stored, mine) == -1;
  unsigned r = 0;
  while (r < n && (reversed ? stored.node[n - 1 - r] : stored.node[r]) != mine.node[0]) ++r;
  for (unsigned i = 0; i < count; ++i) {
    const unsigned k = (i + r) % count;
    row[i] = reversed ? first + (count - 1 - k) : first + k;
  }
}

// Grid coordinates of the corners of a quadrangle's node grid (in units of k + 1, for a
// k x k grid): corner 0 at the origin, xi towards corner 1, eta towards corner 3.
constexpr int quadrangle_corner_at[4][2] = {{0, 0}, {1, 0}, {1, 1}, {0, 1}};

// Writes the count nodes of a face starting at `first` in the element's own face order:
// the element's grid point is mapped onto the stored grid through the rotation and
// reflection that carry the element's face corners onto the stored ones. A triangle's
// three nodes sit next to one corner each (stored node k next to stored corner
// (k + 2) mod 3). A face with a repeated corner, which has no such map, keeps the stored
// order.
void write_face_grid(unsigned* row, unsigned first, unsigned count, unsigned side, const elfes::face_mix& stored,
                     const elfes::face_mix& mine) {
  const unsigned n = stored.node[3] == tessel::ABSENT ? 3 : 4;
  unsigned at[4] = {0, 0, 0, 0};  // at[c]: the stored position of the element's corner c
  unsigned seen = 0;              // bit s: stored corner s is some element corner
  for (unsigned c = 0; c < n; ++c) {
    while (at[c] < n && stored.node[at[c]] != mine.node[c]) ++at[c];
    if (at[c] < n) seen |= 1u << at[c];
  }
  if (count == 1 || seen != (1u << n) - 1) {
    for (unsigned i = 0; i < count; ++i) row[i] = first + i;
    return;
  }
  if (n == 3) {
    for (unsigned k = 0; k < 3; ++k) row[k] = first + (at[(k + 2) % 3] + 1) % 3;
    return;
  }
  // With the four corners a cycle of the stored ones in either direction, the element's
  // xi and eta steps are each one unit step along one stored grid axis; checked, so that
  // every ID stays inside the face's run whatever the map matched the key with.
  const int K = static_cast<int>(side) + 1;
  const int* origin = quadrangle_corner_at[at[0]];
  const int* to_xi = quadrangle_corner_at[at[1]];
  const int* to_eta = quadrangle_corner_at[at[3]];
  const int dxi[2] = {to_xi[0] - origin[0], to_xi[1] - origin[1]};
  const int deta[2] = {to_eta[0] - origin[0], to_eta[1] - origin[1]};
  if (std::abs(dxi[0]) + std::abs(dxi[1]) != 1 || std::abs(deta[0]) + std::abs(deta[1]) != 1 ||
      dxi[0] * deta[0] + dxi[1] * deta[1] != 0) {
    for (unsigned i = 0; i < count; ++i) row[i] = first + i;
    return;
  }
  for (int j = 1; j <= K - 1; ++j)
    for (int i = 1; i <= K - 1; ++i) {
      const int x = origin[0] * K + i * dxi[0] + j * deta[0], y = origin[1] * K + i * dxi[1] + j * deta[1];
      *row++ = first + static_cast<unsigned>((y - 1) * (K - 1) + (x - 1));
    }
}

bool number_faces(conversion& cv) {
  bool needed = false;
  for (unsigned k = 0; k < 4; ++k) needed = needed || (cv.nb_kind[k] > 0 && kind_has_face_nodes(cv, k));
  if (!needed) return true;
  const dense2D<unsigned>& m = cv.connectM;
  face_map& map = cv.face_nodes;
  // A face is mostly shared by two elements: half its incidences, and some boundary.
  std::size_t incidences = 0;
  for (unsigned k = 0; k < 4; ++k)
    for (unsigned f = 0; f < solid_table[k].nb_faces; ++f)
      incidences += cv.layout[k].face_nodes[f] > 0 ? cv.nb_kind[k] : 0;
  if (!reset_for(map, cv.faces.cols() + m.cols(), cv.faces.cols() + incidences / 2 + incidences / 16)) return false;

  const dense2D<unsigned>& f = cv.faces;
  const std::uint64_t e = cv.c.e;
  const unsigned* column = f.data();
  for (std::size_t j = 0; j < f.cols(); ++j, column += f.ld()) {
    const bool triangle = !cv.faces_quad_form || column[f.rows() - 1] == tessel::ABSENT;
    if ((triangle ? cv.c.t : cv.c.q) == 0) continue;  // nothing of it can be reused
    const elfes::face_mix key{{column[0], column[1], column[2], triangle ? tessel::ABSENT : column[3]}};
    const unsigned first = column[(triangle ? 3 : 4) * (e + 1)];
    const std::size_t pos = map.insert_growing(elfes::hash_key(key), {key, first});
    if (pos == map.npos) return false;
    map.value(pos).second = first;
    cv.caller_faces = true;
  }

  const std::size_t R = m.rows(), ldH = cv.connectH.ld();
  column = m.data();
  unsigned* out = cv.connectH.data();
  keys_ahead<elfes::face_mix, 6> ahead;
  // The faces of a column that get nodes, in face order.
  const auto face_keys = [&cv](const unsigned* c, solid_kind kind, elfes::face_mix* key) {
    const solid_descriptor& d = solid_table[kind];
    unsigned n = 0;
    for (unsigned i = 0; i < d.nb_faces; ++i)
      if (cv.layout[kind].face_nodes[i] > 0) key[n++] = face_key(c, d, i);
    return n;
  };
  for (std::size_t j = 0; j < m.cols(); ++j, column += m.ld(), out += ldH) {
    const solid_kind kind = elfes::linear_column_kind(column, R);
    const solid_descriptor& d = solid_table[kind];
    const kind_layout& L = cv.layout[kind];
    const auto& keys = ahead.at(j, map, m, face_keys);
    for (unsigned i = 0, n = 0; i < d.nb_faces; ++i) {
      const unsigned count = L.face_nodes[i];
      if (count == 0) continue;
      const elfes::face_mix& key = keys.key[n];
      bool added = false;
      const std::size_t pos = map.insert_growing(keys.hash[n], keys.home[n], keys.buckets,
                                                 {key, static_cast<unsigned>(cv.next_node)}, &added);
      ++n;
      if (pos == face_map::npos) return false;
      if (added) cv.next_node += count;
      const auto& entry = map.value(pos);
      if (cv.conforming_faces)
        write_face_grid(out + L.face_row[i], entry.second, count, cv.q_side, entry.first, key);
      else
        write_face_run(out + L.face_row[i], entry.second, count, entry.first, key);
    }
  }
  return cv.next_node <= id_limit;
}

// ---- placement ----------------------------------------------------------------------------

// First node of the edge (a, b), or absent when the map does not hold it.
unsigned edge_first(const conversion& cv, unsigned a, unsigned b) {
  const elfes::edge2 key{{a, b}};
  const std::size_t pos = cv.edge_nodes.find(elfes::hash_key(key), key);
  return pos == cv.edge_nodes.end() ? tessel::ABSENT : cv.edge_nodes.value(pos).second;
}

// New edge nodes equally spaced on the straight edge, from the end the edge was first
// met with: the one the element lists its run upwards from. Read from the connectivity,
// so that the edge map can go once the edges are numbered; an edge shared by several
// elements gets the same values from each.
void place_edge_nodes(conversion& cv) {
  const unsigned e = cv.c.e;
  if (e == 0) return;
  double* xyz = cv.coords.data();
  const std::size_t ld = cv.coords.ld(), ldH = cv.connectH.ld(), R = cv.connectM.rows();
  const unsigned* column = cv.connectM.data();
  const unsigned* out = cv.connectH.data();
  for (std::size_t j = 0; j < cv.connectM.cols(); ++j, column += cv.connectM.ld(), out += ldH) {
    const solid_descriptor& d = solid_table[elfes::linear_column_kind(column, R)];
    for (unsigned i = 0; i < d.nb_edges; ++i) {
      const unsigned* run = out + d.nb_vertices + std::size_t(i) * e;
      const bool upwards = e == 1 || run[0] < run[1];
      const unsigned first = upwards ? run[0] : run[e - 1];
      if (first < cv.nb_nodes) continue;  // a caller's edge keeps its nodes
      const double* a = xyz + column[d.edges[i][upwards ? 0 : 1]] * ld;
      const double* b = xyz + column[d.edges[i][upwards ? 1 : 0]] * ld;
      for (unsigned k = 0; k < e; ++k) {
        const double s = 2.0 * (k + 1) / (e + 1.0) - 1;
        double* x = xyz + (std::size_t(first) + k) * ld;
        for (int c = 0; c < 3; ++c) x[c] = (1 - s) / 2 * a[c] + (1 + s) / 2 * b[c];
      }
    }
  }
}

// New face nodes: linear on the corners, or, when an edge of the face carries a caller's
// node (a curved face), the quadratic triangle or serendipity quadrangle on the corners
// and the first node of each edge.
void place_face_nodes(conversion& cv) {
  if (cv.face_nodes.bucket_count() == 0) return;
  static const double t3_points[3][2] = {{0.25, 0.25}, {0.5, 0.25}, {0.25, 0.5}};
  static const double t1_point[1][2] = {{1.0 / 3.0, 1.0 / 3.0}};
  double* xyz = cv.coords.data();
  const std::size_t ld = cv.coords.ld();
  const face_map& map = cv.face_nodes;
  for (std::size_t pos = map.begin(); pos < map.end(); ++pos) {
    if (!map.occupied(pos)) continue;
    const auto& entry = map.value(pos);
    if (entry.second < cv.nb_nodes) continue;  // a caller's face keeps its nodes
    const unsigned* corner = entry.first.node;
    const unsigned n = corner[3] == tessel::ABSENT ? 3 : 4;
    unsigned node[8] = {corner[0], corner[1], corner[2], corner[3]};
    bool curved = false;
    if (cv.caller_edges) {
      // Triangle edge nodes follow the opposite corners: (1, 2), (2, 0), (0, 1).
      for (unsigned i = 0; i < n; ++i) {
        const unsigned a = n == 3 ? (i + 1) % 3 : i, b = n == 3 ? (i + 2) % 3 : (i + 1) % 4;
        node[n + i] = edge_first(cv, corner[a], corner[b]);
        curved = curved || node[n + i] < cv.nb_nodes;
      }
    }
    double w[8];
    if (n == 3) {
      const double(*points)[2] = cv.c.t == 3 ? t3_points : t1_point;
      for (unsigned k = 0; k < cv.c.t; ++k) {
        if (curved)
          elfes::triangle_quadratic(points[k][0], points[k][1], w);
        else
          elfes::triangle_linear(points[k][0], points[k][1], w);
        elfes::weighted_sum(xyz, ld, node, w, curved ? 6 : 3, xyz + (std::size_t(entry.second) + k) * ld);
      }
      continue;
    }
    const unsigned side = cv.q_side;
    for (unsigned jj = 0; jj < side; ++jj)
      for (unsigned ii = 0; ii < side; ++ii) {
        const double xi = 2.0 * (ii + 1) / (side + 1.0) - 1, eta = 2.0 * (jj + 1) / (side + 1.0) - 1;
        if (curved)
          elfes::quadrangle_serendipity(xi, eta, w);
        else
          elfes::quadrangle_bilinear(xi, eta, w);
        double* x = xyz + (std::size_t(entry.second) + std::size_t(jj) * side + ii) * ld;
        elfes::weighted_sum(xyz, ld, node, w, curved ? 8 : 4, x);
      }
  }
}

bool any_caller_node(const unsigned* row, std::size_t from, std::size_t to, std::size_t nb_nodes) {
  for (std::size_t i = from; i < to; ++i)
    if (row[i] < nb_nodes) return true;
  return false;
}

// Interior nodes, numbered element by element after every face node, placed at the
// element's parameter points: linear weights, or quadratic ones when the element has
// quadratic edge (and face) nodes of which one is the caller's.
void number_and_place_interiors(conversion& cv) {
  const node_counts& c = cv.c;
  if (c.n == 0 && c.p == 0 && c.w == 0 && c.h == 0) return;
  const bool callers = cv.caller_edges || cv.caller_faces;
  double* xyz = cv.coords.data();
  const std::size_t ld = cv.coords.ld(), ldH = cv.connectH.ld(), R = cv.connectM.rows(), nb = cv.nb_nodes;
  const unsigned* column = cv.connectM.data();
  unsigned* out = cv.connectH.data();
  double w[26];
  for (std::size_t j = 0; j < cv.connectM.cols(); ++j, column += cv.connectM.ld(), out += ldH) {
    const solid_kind kind = elfes::linear_column_kind(column, R);
    const kind_layout& L = cv.layout[kind];
    if (L.interior == 0) continue;
    const unsigned first = static_cast<unsigned>(cv.next_node);
    unsigned* inside = out + L.interior_row;
    for (unsigned k = 0; k < L.interior; ++k) inside[k] = first + k;
    cv.next_node += L.interior;
    switch (kind) {
      case elfes::kind_TH4: {
        const bool quadratic = callers && c.e == 1 && c.t == 0 && any_caller_node(out, 4, 10, nb);
        if (quadratic) {
          elfes::tetrahedron_quadratic_centroid(w);
        } else {
          for (int i = 0; i < 4; ++i) w[i] = 0.25;
        }
        elfes::weighted_sum(xyz, ld, out, w, quadratic ? 10 : 4, xyz + std::size_t(first) * ld);
        break;
      }
      case elfes::kind_W6: {
        const bool quadratic = callers && c.e == 1 && c.t == 0 && c.q == 1 && any_caller_node(out, 6, 15, nb);
        if (quadratic)
          elfes::wedge_quadratic(1.0 / 3.0, 1.0 / 3.0, 0.0, w);
        else
          elfes::wedge_linear(1.0 / 3.0, 1.0 / 3.0, 0.0, w);
        elfes::weighted_sum(xyz, ld, out, w, quadratic ? 18 : 6, xyz + std::size_t(first) * ld);
        break;
      }
      case elfes::kind_H8: {
        const bool quadratic = callers && c.e == 1 && c.q == 1 && any_caller_node(out, 8, 26, nb);
        const unsigned m = cv.h_side;
        for (unsigned k = 0; k < m; ++k)
          for (unsigned jj = 0; jj < m; ++jj)
            for (unsigned ii = 0; ii < m; ++ii) {
              const double xi = 2.0 * (ii + 1) / (m + 1.0) - 1, eta = 2.0 * (jj + 1) / (m + 1.0) - 1,
                           zeta = 2.0 * (k + 1) / (m + 1.0) - 1;
              if (quadratic)
                elfes::hexahedron_26(xi, eta, zeta, w);
              else
                elfes::hexahedron_trilinear(xi, eta, zeta, w);
              double* x = xyz + (std::size_t(first) + (std::size_t(k) * m + jj) * m + ii) * ld;
              elfes::weighted_sum(xyz, ld, out, w, quadratic ? 26 : 8, x);
            }
        break;
      }
      case elfes::kind_PY5: {
        const bool quadratic = callers && c.e == 1 && c.t == 0 && c.q == 1 && any_caller_node(out, 5, 14, nb);
        for (unsigned k = 0; k < c.p; ++k) {
          const double zeta = (k + 1.0) / (c.p + 1.0);
          if (quadratic)
            elfes::pyramid_axis_quadratic(zeta, w);
          else
            elfes::pyramid_axis_linear(zeta, w);
          elfes::weighted_sum(xyz, ld, out, w, quadratic ? 14 : 5, xyz + (std::size_t(first) + k) * ld);
        }
        break;
      }
    }
  }
}

// ---- the conversion -----------------------------------------------------------------------

int convert(conversion& cv) {
  cv.connectH.clear();
  const node_counts& c = cv.c;
  if (cv.connectM.empty() || (c.e == 0 && c.q == 0 && c.t == 0 && c.h == 0 && c.w == 0 && c.p == 0 && c.n == 0))
    return 0;
  if (const int status = check_arguments(cv)) return status;
  make_layouts(cv);
  cv.next_node = cv.nb_nodes;
  if (!cv.connectH.resize(output_rows(cv), cv.connectM.cols(), tessel::ABSENT) || !number_edges(cv)) {
    cv.connectH.clear();
    return tessel::OUT_OF_MEMORY;
  }
  if (!cv.caller_edges) cv.edge_nodes = edge_map();  // only curved faces look edges up again
  if (!number_faces(cv)) {
    cv.connectH.clear();
    return tessel::OUT_OF_MEMORY;
  }
  const std::uint64_t total = cv.next_node + std::uint64_t(c.n) * cv.nb_kind[elfes::kind_TH4] +
                              std::uint64_t(c.p) * cv.nb_kind[elfes::kind_PY5] +
                              std::uint64_t(c.w) * cv.nb_kind[elfes::kind_W6] +
                              std::uint64_t(c.h) * cv.nb_kind[elfes::kind_H8];
  if (total > id_limit || !cv.coords.resize(3, total, 0.0)) {
    cv.connectH.clear();
    return tessel::OUT_OF_MEMORY;
  }
  place_edge_nodes(cv);
  place_face_nodes(cv);
  number_and_place_interiors(cv);
  return 0;
}

}  // namespace

int convert_into_high_order(dense2D<double>& coords, const dense2D<unsigned>& connectM, unsigned nodes_per_edge,
                            unsigned nodes_in_Q4, unsigned nodes_in_T3, unsigned nodes_in_H8, unsigned nodes_in_W6,
                            unsigned nodes_in_PY5, unsigned nodes_in_TH4, dense2D<unsigned>& connectH,
                            const dense2D<unsigned>& faces, const dense2D<unsigned>& edges) {
  if (elfes::shares_with_any(connectH, connectM, faces, edges) ||
      elfes::shares_with_any(coords, connectM, faces, edges)) {
    dense2D<unsigned> own_connect, own_faces, own_edges;  // connectH is cleared first
    if (!own_connect.copy(connectM) || !own_faces.copy(faces) || !own_edges.copy(edges)) return tessel::OUT_OF_MEMORY;
    return convert_into_high_order(coords, own_connect, nodes_per_edge, nodes_in_Q4, nodes_in_T3, nodes_in_H8,
                                   nodes_in_W6, nodes_in_PY5, nodes_in_TH4, connectH, own_faces, own_edges);
  }
  conversion cv(coords, connectM, connectH, faces, edges,
                {nodes_per_edge, nodes_in_Q4, nodes_in_T3, nodes_in_H8, nodes_in_W6, nodes_in_PY5, nodes_in_TH4});
  return convert(cv);
}

int convert_into_high_order(dense2D<double>& coords, dense2D<unsigned>& connect, unsigned nodes_per_edge,
                            unsigned nodes_in_Q4, unsigned nodes_in_T3, unsigned nodes_in_H8, unsigned nodes_in_W6,
                            unsigned nodes_in_PY5, unsigned nodes_in_TH4, const dense2D<unsigned>& faces,
                            const dense2D<unsigned>& edges) {
  dense2D<unsigned> linear;
  if (!linear.copy(connect)) return tessel::OUT_OF_MEMORY;
  return convert_into_high_order(coords, linear, nodes_per_edge, nodes_in_Q4, nodes_in_T3, nodes_in_H8, nodes_in_W6,
                                 nodes_in_PY5, nodes_in_TH4, connect, faces, edges);
}

int convert_into_high_order(dense2D<double>& coords, const dense2D<unsigned>& connectM, unsigned nodes_per_edge,
                            unsigned nodes_in_Q4, unsigned nodes_in_T3, unsigned nodes_in_H8, unsigned nodes_in_W6,
                            unsigned nodes_in_PY5, unsigned nodes_in_TH4, dense2D<unsigned>& connectH,
                            const dense2D<unsigned>& faces, const dense2D<unsigned>& edges,
                            const high_order_options& options) {
  conversion cv(coords, connectM, connectH, faces, edges,
                {nodes_per_edge, nodes_in_Q4, nodes_in_T3, nodes_in_H8, nodes_in_W6, nodes_in_PY5, nodes_in_TH4}, true,
                options.conforming_faces);
  return convert(cv);
}

int convert_into_high_order(dense2D<double>& coords, dense2D<unsigned>& connect, unsigned nodes_per_edge,
                            unsigned nodes_in_Q4, unsigned nodes_in_T3, unsigned nodes_in_H8, unsigned nodes_in_W6,
                            unsigned nodes_in_PY5, unsigned nodes_in_TH4, const dense2D<unsigned>& faces,
                            const dense2D<unsigned>& edges, const high_order_options& options) {
  dense2D<unsigned> linear;
  if (!linear.copy(connect)) return tessel::OUT_OF_MEMORY;
  return convert_into_high_order(coords, linear, nodes_per_edge, nodes_in_Q4, nodes_in_T3, nodes_in_H8, nodes_in_W6,
                                 nodes_in_PY5, nodes_in_TH4, connect, faces, edges, options);
}

int convert_into_quadratic(dense2D<double>& coords, dense2D<unsigned>& connect) {
  const dense2D<unsigned> none;
  return convert_into_high_order(coords, connect, 1, 1, 0, 1, 0, 0, 0, none, none);
}

int convert_into_quadratic(dense2D<double>& coords, dense2D<unsigned>& connect, const dense2D<unsigned>& faces,
                           const dense2D<unsigned>& edges) {
  return convert_into_high_order(coords, connect, 1, 1, 0, 1, 0, 0, 0, faces, edges);
}

}  // namespace tessel3d
}  // namespace zel
