// convert_into_high_order, convert_into_quadratic: new nodes on the edges, inside the
// faces and inside the elements of a linear solid mesh, one set per shared edge or face
// (found through the edge and face maps), appended to the coordinates. The forms with
// options list each face's nodes in every element's own face order (conforming faces).
#include <cmath>
#include <cstdint>
#include <cstdlib>

#include "common/element_tables.h"
#include "common/parallel.h"
#include "common/shared_memory.h"
#include "order/hash_tables.h"
#include "order/occurrence_sort.h"
#include "order/shape_functions.h"
#include "order/solid_columns.h"
#include "zel/tessel3d.h"

namespace zel {
namespace tessel3d {
namespace {

using elfes::solid_descriptor;
using elfes::solid_kind;
using elfes::solid_table;

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
  std::uint64_t next_node = 0;
  bool caller_edges = false;    // the caller gave edges
  bool caller_faces = false;    // the caller gave faces with nodes to reuse
  bool faces_numbered = false;  // some element has face nodes
  bool single_kind = false;     // every element is of kind only_kind
  solid_kind only_kind = elfes::kind_TH4;
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
//
// Edges and faces are numbered from their occurrences: each caller's column and each
// (element, local edge or face) gives a record of the entity's canonical key and its
// place in meeting order (the caller's columns first, then the elements in column order,
// each in its local order). Sorted by key, then place, the occurrences of one entity lie
// together, the first one met at their head. That one owns the entity, unless a caller's
// column gave it: its corner order is the one the new nodes are spread by. The owners,
// taken in element order, hand out the new IDs; every other occurrence copies its
// owner's. Every step is a loop over fixed chunks, so any thread count numbers alike.

constexpr std::size_t element_grain = std::size_t(1) << 13;
constexpr std::size_t run_grain = std::size_t(1) << 15;

// The key of face f of a column: its corners in the local face order.
elfes::face_mix face_key(const unsigned* column, const solid_descriptor& d, unsigned f) {
  elfes::face_mix key{{column[d.faces[f][0]], column[d.faces[f][1]], column[d.faces[f][2]], tessel::ABSENT}};
  if (d.face_size[f] == 4) key.node[3] = column[d.faces[f][3]];
  return key;
}

elfes::occurrence<2> edge_occurrence(unsigned a, unsigned b, std::uint64_t place) {
  return {{a < b ? a : b, a < b ? b : a}, (place << 1) | (a > b ? 1u : 0u)};
}

// Equal for every cyclic order of a face's corners, either way round: the smallest corner
// (its first occurrence), the smaller and the larger of its two neighbours, and for a
// quadrangle the corner opposite it in between (the equality of compare_keys()).
elfes::occurrence<4> face_occurrence(const elfes::face_mix& k, std::uint64_t place) {
  const unsigned n = k.node[3] == tessel::ABSENT ? 3 : 4;
  unsigned r = 0;
  for (unsigned i = 1; i < n; ++i)
    if (k.node[i] < k.node[r]) r = i;
  const unsigned next = k.node[(r + 1) % n], previous = k.node[(r + n - 1) % n];
  const unsigned low = next < previous ? next : previous, high = next < previous ? previous : next;
  if (n == 3) return {{k.node[r], low, high, tessel::ABSENT}, place << 1};
  return {{k.node[r], low, k.node[(r + 2) % 4], high}, place << 1};
}

// Local edge of each side of each face: side i of a triangle joins its corners
// (i + 1, i + 2) mod 3, side i of a quadrangle its corners (i, i + 1) mod 4.
struct face_side_table {
  unsigned edge[4][6][4];
};
constexpr face_side_table make_face_sides() {
  face_side_table t{};
  for (unsigned k = 0; k < 4; ++k) {
    const solid_descriptor& d = solid_table[k];
    for (unsigned f = 0; f < d.nb_faces; ++f)
      for (unsigned i = 0; i < d.face_size[f]; ++i) {
        const unsigned n = d.face_size[f];
        const unsigned a = d.faces[f][n == 3 ? (i + 1) % 3 : i], b = d.faces[f][n == 3 ? (i + 2) % 3 : (i + 1) % 4];
        t.edge[k][f][i] = ~0u;
        for (unsigned g = 0; g < d.nb_edges; ++g)
          if ((d.edges[g][0] == a && d.edges[g][1] == b) || (d.edges[g][0] == b && d.edges[g][1] == a))
            t.edge[k][f][i] = g;
      }
  }
  return t;
}
constexpr face_side_table face_sides = make_face_sides();
constexpr bool every_side_an_edge() {
  for (unsigned k = 0; k < 4; ++k)
    for (unsigned f = 0; f < solid_table[k].nb_faces; ++f)
      for (unsigned i = 0; i < solid_table[k].face_size[f]; ++i)
        if (face_sides.edge[k][f][i] >= solid_table[k].nb_edges) return false;
  return true;
}
static_assert(every_side_an_edge(), "every side of a face is an edge of its element");

// The occurrences of one kind of entity: the records, sorted, and which element slots
// (local item i of element j at j * stride + i, the stride a power of two) own their
// entity.
template <unsigned W>
struct occurrences {
  std::size_t callers = 0;  // caller's columns, ahead of the elements' places
  unsigned shift = 0;
  std::size_t stride = 1;
  // Room for up to `items` local items per element.
  void set_stride(unsigned items) {
    for (shift = 0; (std::size_t(1) << shift) < items;) ++shift;
    stride = std::size_t(1) << shift;
  }
  std::size_t element(std::size_t slot) const { return slot >> shift; }
  unsigned local(std::size_t slot) const { return static_cast<unsigned>(slot & (stride - 1)); }
  std::size_t n = 0;
  elfes::scratch<elfes::occurrence<W>> records;
  elfes::scratch<unsigned char> owner;
  std::uint64_t place(std::size_t j, unsigned i) const { return callers + j * stride + i; }
  std::size_t slot(const elfes::occurrence<W>& r) const { return std::size_t(r.place >> 1) - callers; }
};

// Fills list with the callers' records (caller(c, record) tells whether column c gives
// one) and the elements' (items(column, kind, j, sink) calls sink(record) for each of
// column j's), sorted, and marks the owners.
template <unsigned W, class Caller, class Items>
bool gather(const conversion& cv, occurrences<W>& list, std::size_t nb_callers, const Caller& caller,
            const Items& items) {
  const dense2D<unsigned>& m = cv.connectM;
  const std::size_t R = m.rows(), ld = m.ld(), columns = m.cols();
  list.callers = nb_callers;
  const auto emit = [&](std::size_t lo, std::size_t hi, const auto& sink) {
    elfes::occurrence<W> record;
    for (std::size_t s = lo; s < hi && s < nb_callers; ++s)
      if (caller(s, record)) sink(record);
    for (std::size_t j = (lo > nb_callers ? lo : nb_callers) - nb_callers; j + nb_callers < hi; ++j) {
      const unsigned* column = m.data() + j * ld;
      items(column, elfes::linear_column_kind(column, R), j, sink);
    }
  };
  if (!list.owner.allocate(columns * list.stride) ||
      !elfes::sort_occurrences<W>(nb_callers + columns, cv.nb_nodes, emit, list.records, list.n))
    return false;
  elfes::parallel_for(columns, element_grain, [&](std::size_t lo, std::size_t hi) {
    std::fill(list.owner.data() + lo * list.stride, list.owner.data() + hi * list.stride, 0);
  });
  elfes::for_each_run(list.records.data(), list.n, run_grain, [&](std::size_t head, std::size_t) {
    const elfes::occurrence<W>& r = list.records[head];
    if ((r.place >> 1) >= list.callers) list.owner[list.slot(r)] = 1;
  });
  return true;
}

// Hands out IDs from cv.next_node element by element: count(j, column, kind) of them to
// element j, which assign(j, column, kind, first) writes. False when they would reach
// the absent marker or memory runs out.
template <class Count, class Assign>
bool number_in_element_order(conversion& cv, const Count& count, const Assign& assign) {
  const dense2D<unsigned>& m = cv.connectM;
  const std::size_t R = m.rows(), ld = m.ld();
  const std::size_t nb_chunks = elfes::chunk_count(m.cols(), element_grain);
  elfes::scratch<std::uint64_t> first;
  if (!first.allocate(nb_chunks)) return false;
  elfes::parallel_chunks(m.cols(), element_grain, [&](std::size_t c, std::size_t lo, std::size_t hi) {
    std::uint64_t sum = 0;
    for (std::size_t j = lo; j < hi; ++j) {
      const unsigned* column = m.data() + j * ld;
      sum += count(j, column, elfes::linear_column_kind(column, R));
    }
    first[c] = sum;
  });
  std::uint64_t next = cv.next_node;
  for (std::size_t c = 0; c < nb_chunks; ++c) {
    const std::uint64_t sum = first[c];
    first[c] = next;
    next += sum;
  }
  if (next > id_limit) return false;
  elfes::parallel_chunks(m.cols(), element_grain, [&](std::size_t c, std::size_t lo, std::size_t hi) {
    std::uint64_t at = first[c];
    for (std::size_t j = lo; j < hi; ++j) {
      const unsigned* column = m.data() + j * ld;
      const solid_kind kind = elfes::linear_column_kind(column, R);
      assign(j, column, kind, static_cast<unsigned>(at));
      at += count(j, column, kind);
    }
  });
  cv.next_node = next;
  return true;
}

// The kind of element j, read from its column unless the mesh holds a single kind.
solid_kind kind_of(const conversion& cv, std::size_t j) {
  return cv.single_kind ? cv.only_kind
                        : elfes::linear_column_kind(cv.connectM.data() + j * cv.connectM.ld(), cv.connectM.rows());
}

// The column of element j in the linear and the high-order connectivities.
const unsigned* linear_column(const conversion& cv, std::size_t j) { return cv.connectM.data() + j * cv.connectM.ld(); }
unsigned* high_column(conversion& cv, std::size_t j) { return cv.connectH.data() + j * cv.connectH.ld(); }

// Corners and edge nodes of every column. New edges get e consecutive IDs in the order
// they are met; an element walking an edge against its stored direction lists them
// backwards. Of the caller's columns for one edge, the first gives the direction and
// the last the nodes.
bool number_edges(conversion& cv, occurrences<2>& list) {
  const unsigned e = cv.c.e;
  const auto corners = [&cv](std::size_t j, const unsigned* column, solid_kind kind) {
    unsigned* out = high_column(cv, j);
    for (unsigned v = 0; v < solid_table[kind].nb_vertices; ++v) out[v] = column[v];
  };
  if (e == 0) {
    elfes::parallel_for(cv.connectM.cols(), element_grain, [&](std::size_t lo, std::size_t hi) {
      for (std::size_t j = lo; j < hi; ++j) {
        const unsigned* column = linear_column(cv, j);
        corners(j, column, elfes::linear_column_kind(column, cv.connectM.rows()));
      }
    });
    return true;
  }
  const dense2D<unsigned>& g = cv.edges;
  cv.caller_edges = g.cols() > 0;
  unsigned most = 0;
  for (unsigned k = 0; k < 4; ++k)
    if (cv.nb_kind[k] > 0 && solid_table[k].nb_edges > most) most = solid_table[k].nb_edges;
  list.set_stride(most);
  const auto caller = [&g](std::size_t c, elfes::occurrence<2>& r) {
    const unsigned* column = g.data() + c * g.ld();
    r = edge_occurrence(column[0], column[1], c);
    return true;
  };
  const auto items = [&list](const unsigned* column, solid_kind kind, std::size_t j, const auto& sink) {
    const solid_descriptor& d = solid_table[kind];
    for (unsigned i = 0; i < d.nb_edges; ++i)
      sink(edge_occurrence(column[d.edges[i][0]], column[d.edges[i][1]], list.place(j, i)));
  };
  if (!gather(cv, list, g.cols(), caller, items)) return false;

  // The owners' runs, upwards.
  const auto count = [&list, e](std::size_t j, const unsigned*, solid_kind kind) {
    std::uint64_t sum = 0;
    for (unsigned i = 0; i < solid_table[kind].nb_edges; ++i) sum += list.owner[j * list.stride + i] ? e : 0;
    return sum;
  };
  const auto assign = [&](std::size_t j, const unsigned* column, solid_kind kind, unsigned first) {
    corners(j, column, kind);
    const solid_descriptor& d = solid_table[kind];
    unsigned* out = high_column(cv, j) + d.nb_vertices;
    for (unsigned i = 0; i < d.nb_edges; ++i) {
      if (!list.owner[j * list.stride + i]) continue;
      for (unsigned k = 0; k < e; ++k) out[std::size_t(i) * e + k] = first + k;
      first += e;
    }
  };
  if (!number_in_element_order(cv, count, assign)) return false;

  // Every other occurrence from its entity's head.
  elfes::for_each_run(list.records.data(), list.n, run_grain, [&](std::size_t head, std::size_t last) {
    const elfes::occurrence<2>* r = list.records.data();
    const bool head_flipped = (r[head].place & 1) != 0;
    std::size_t from = head + 1;
    unsigned first;
    if ((r[head].place >> 1) < list.callers) {
      std::size_t c = head;
      while (c + 1 < last && (r[c + 1].place >> 1) < list.callers) ++c;
      first = g.data()[(r[c].place >> 1) * g.ld() + 2];
      from = c + 1;
    } else {
      const std::size_t slot = list.slot(r[head]), j = list.element(slot);
      const solid_kind kind = kind_of(cv, j);
      first = high_column(cv, j)[solid_table[kind].nb_vertices + list.local(slot) * e];
    }
    for (std::size_t k = from; k < last; ++k) {
      const std::size_t slot = list.slot(r[k]), j = list.element(slot);
      const solid_kind kind = kind_of(cv, j);
      unsigned* row = high_column(cv, j) + solid_table[kind].nb_vertices + list.local(slot) * e;
      const bool upwards = ((r[k].place & 1) != 0) == head_flipped;
      for (unsigned i = 0; i < e; ++i) row[i] = upwards ? first + i : first + (e - 1 - i);
    }
  });
  list.records.release();
  return true;
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

// Writes a face's run of nodes as the element `mine` sees it, the face being stored with
// the corner order `stored`.
void write_face(const conversion& cv, unsigned* row, unsigned first, unsigned count, const elfes::face_mix& stored,
                const elfes::face_mix& mine) {
  if (cv.conforming_faces)
    write_face_grid(row, first, count, cv.q_side, stored, mine);
  else
    write_face_run(row, first, count, stored, mine);
}

// Face nodes of every column, after every edge node: new faces get their t or q IDs in
// the order they are met. Of the caller's columns for one face, the first gives the
// corner order and the last the nodes.
bool number_faces(conversion& cv, occurrences<4>& list) {
  bool needed = false;
  for (unsigned k = 0; k < 4; ++k) needed = needed || (cv.nb_kind[k] > 0 && kind_has_face_nodes(cv, k));
  if (!needed) return true;
  const dense2D<unsigned>& f = cv.faces;
  unsigned most = 0;
  for (unsigned k = 0; k < 4; ++k)
    if (cv.nb_kind[k] > 0 && solid_table[k].nb_faces > most) most = solid_table[k].nb_faces;
  list.set_stride(most);
  // A caller's column: its corners, and where its first interior node is.
  const auto caller_key = [&cv, &f](std::size_t c, std::size_t& inside_row) {
    const unsigned* column = f.data() + c * f.ld();
    const bool triangle = !cv.faces_quad_form || column[f.rows() - 1] == tessel::ABSENT;
    inside_row = (triangle ? 3 : 4) * (cv.c.e + std::size_t(1));
    return elfes::face_mix{{column[0], column[1], column[2], triangle ? tessel::ABSENT : column[3]}};
  };
  const auto caller = [&](std::size_t c, elfes::occurrence<4>& r) {
    std::size_t inside_row;
    const elfes::face_mix key = caller_key(c, inside_row);
    if ((key.node[3] == tessel::ABSENT ? cv.c.t : cv.c.q) == 0) return false;  // nothing of it can be reused
    r = face_occurrence(key, c);
    return true;
  };
  const auto items = [&](const unsigned* column, solid_kind kind, std::size_t j, const auto& sink) {
    const solid_descriptor& d = solid_table[kind];
    for (unsigned i = 0; i < d.nb_faces; ++i)
      if (cv.layout[kind].face_nodes[i] > 0) sink(face_occurrence(face_key(column, d, i), list.place(j, i)));
  };
  if (!gather(cv, list, f.cols(), caller, items)) return false;
  cv.faces_numbered = true;
  for (std::size_t k = 0; k < list.callers && !cv.caller_faces; ++k) {
    elfes::occurrence<4> unused;
    cv.caller_faces = caller(k, unused);
  }

  const auto count = [&](std::size_t j, const unsigned*, solid_kind kind) {
    std::uint64_t sum = 0;
    for (unsigned i = 0; i < solid_table[kind].nb_faces; ++i)
      sum += list.owner[j * list.stride + i] ? cv.layout[kind].face_nodes[i] : 0;
    return sum;
  };
  const auto assign = [&](std::size_t j, const unsigned* column, solid_kind kind, unsigned first) {
    const solid_descriptor& d = solid_table[kind];
    const kind_layout& L = cv.layout[kind];
    unsigned* out = high_column(cv, j);
    for (unsigned i = 0; i < d.nb_faces; ++i) {
      if (!list.owner[j * list.stride + i]) continue;
      const elfes::face_mix key = face_key(column, d, i);
      write_face(cv, out + L.face_row[i], first, L.face_nodes[i], key, key);
      first += L.face_nodes[i];
    }
  };
  if (!number_in_element_order(cv, count, assign)) return false;

  elfes::for_each_run(list.records.data(), list.n, run_grain, [&](std::size_t head, std::size_t last) {
    const elfes::occurrence<4>* r = list.records.data();
    std::size_t from = head + 1;
    elfes::face_mix stored;
    unsigned first;
    if ((r[head].place >> 1) < list.callers) {
      std::size_t inside_row;
      stored = caller_key(r[head].place >> 1, inside_row);
      std::size_t c = head;
      while (c + 1 < last && (r[c + 1].place >> 1) < list.callers) ++c;
      first = f.data()[(r[c].place >> 1) * f.ld() + inside_row];
      from = c + 1;
    } else {
      const std::size_t slot = list.slot(r[head]), j = list.element(slot);
      const unsigned i = list.local(slot);
      const unsigned* column = linear_column(cv, j);
      const solid_kind kind = kind_of(cv, j);
      stored = face_key(column, solid_table[kind], i);
      first = high_column(cv, j)[cv.layout[kind].face_row[i]];
    }
    for (std::size_t k = from; k < last; ++k) {
      const std::size_t slot = list.slot(r[k]), j = list.element(slot);
      const unsigned i = list.local(slot);
      const unsigned* column = linear_column(cv, j);
      const solid_kind kind = kind_of(cv, j);
      const kind_layout& L = cv.layout[kind];
      write_face(cv, high_column(cv, j) + L.face_row[i], first, L.face_nodes[i], stored,
                 face_key(column, solid_table[kind], i));
    }
  });
  list.records.release();
  return true;
}

// ---- placement ----------------------------------------------------------------------------

// New edge nodes equally spaced on the straight edge, from the end the edge was first
// met with, placed by the element that owns the edge.
void place_edge_nodes(conversion& cv, const occurrences<2>& list) {
  const unsigned e = cv.c.e;
  if (e == 0) return;
  double* xyz = cv.coords.data();
  const std::size_t ld = cv.coords.ld(), R = cv.connectM.rows();
  elfes::parallel_for(cv.connectM.cols(), element_grain, [&](std::size_t lo, std::size_t hi) {
    for (std::size_t j = lo; j < hi; ++j) {
      const unsigned* column = linear_column(cv, j);
      const solid_descriptor& d = solid_table[elfes::linear_column_kind(column, R)];
      const unsigned* out = high_column(cv, j);
      for (unsigned i = 0; i < d.nb_edges; ++i) {
        if (!list.owner[j * list.stride + i]) continue;
        const unsigned first = out[d.nb_vertices + std::size_t(i) * e];
        const double* a = xyz + column[d.edges[i][0]] * ld;
        const double* b = xyz + column[d.edges[i][1]] * ld;
        for (unsigned k = 0; k < e; ++k) {
          const double s = 2.0 * (k + 1) / (e + 1.0) - 1;
          double* x = xyz + (std::size_t(first) + k) * ld;
          for (int c = 0; c < 3; ++c) x[c] = (1 - s) / 2 * a[c] + (1 + s) / 2 * b[c];
        }
      }
    }
  });
}

// The nodes of face f of a column, which owns it (see place_face_nodes).
void place_one_face(conversion& cv, const unsigned* column, const unsigned* out, solid_kind kind, unsigned f) {
  static constexpr double t3_points[3][2] = {{0.25, 0.25}, {0.5, 0.25}, {0.25, 0.5}};
  static constexpr double t1_point[1][2] = {{1.0 / 3.0, 1.0 / 3.0}};
  const unsigned e = cv.c.e;
  double* xyz = cv.coords.data();
  const std::size_t ld = cv.coords.ld();
  const solid_descriptor& d = solid_table[kind];
  const elfes::face_mix stored = face_key(column, d, f);
  const unsigned first = out[cv.layout[kind].face_row[f]];
  const unsigned* corner = stored.node;
  const unsigned n = corner[3] == tessel::ABSENT ? 3 : 4;
  unsigned node[8] = {corner[0], corner[1], corner[2], corner[3]};
  bool curved = false;
  if (cv.caller_edges) {
    // The first node of each side's edge: triangle sides follow the opposite corners.
    for (unsigned i = 0; i < n; ++i) {
      const unsigned* run = out + d.nb_vertices + std::size_t(face_sides.edge[kind][f][i]) * e;
      node[n + i] = e == 1 || run[0] < run[e - 1] ? run[0] : run[e - 1];
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
      elfes::weighted_sum(xyz, ld, node, w, curved ? 6 : 3, xyz + (std::size_t(first) + k) * ld);
    }
    return;
  }
  const unsigned side = cv.q_side;
  for (unsigned jj = 0; jj < side; ++jj)
    for (unsigned ii = 0; ii < side; ++ii) {
      const double xi = 2.0 * (ii + 1) / (side + 1.0) - 1, eta = 2.0 * (jj + 1) / (side + 1.0) - 1;
      if (curved)
        elfes::quadrangle_serendipity(xi, eta, w);
      else
        elfes::quadrangle_bilinear(xi, eta, w);
      double* x = xyz + (std::size_t(first) + std::size_t(jj) * side + ii) * ld;
      elfes::weighted_sum(xyz, ld, node, w, curved ? 8 : 4, x);
    }
}
// New face nodes, placed by the element that owns the face: linear on the corners, or,
// when an edge of the face carries a caller's node (a curved face), the quadratic
// triangle or serendipity quadrangle on the corners and the first node of each edge.
void place_face_nodes(conversion& cv, const occurrences<4>& list) {
  if (!cv.faces_numbered) return;
  const std::size_t R = cv.connectM.rows();
  elfes::parallel_for(cv.connectM.cols(), element_grain, [&](std::size_t lo, std::size_t hi) {
    for (std::size_t j = lo; j < hi; ++j) {
      const unsigned* column = linear_column(cv, j);
      const solid_kind kind = elfes::linear_column_kind(column, R);
      const solid_descriptor& d = solid_table[kind];
      const unsigned* out = high_column(cv, j);
      for (unsigned f = 0; f < d.nb_faces; ++f)
        if (list.owner[j * list.stride + f]) place_one_face(cv, column, out, kind, f);
    }
  });
}

bool any_caller_node(const unsigned* row, std::size_t from, std::size_t to, std::size_t nb_nodes) {
  for (std::size_t i = from; i < to; ++i)
    if (row[i] < nb_nodes) return true;
  return false;
}

// Interior nodes, numbered element by element after every face node, placed at the
// element's parameter points: linear weights, or quadratic ones when the element has
// quadratic edge (and face) nodes of which one is the caller's.
bool number_and_place_interiors(conversion& cv) {
  const node_counts& c = cv.c;
  if (c.n == 0 && c.p == 0 && c.w == 0 && c.h == 0) return true;
  const bool callers = cv.caller_edges || cv.caller_faces;
  double* xyz = cv.coords.data();
  const std::size_t ld = cv.coords.ld(), nb = cv.nb_nodes;
  const auto count = [&cv](std::size_t, const unsigned*, solid_kind kind) { return cv.layout[kind].interior; };
  const auto assign = [&](std::size_t j, const unsigned*, solid_kind kind, unsigned first) {
    const kind_layout& L = cv.layout[kind];
    if (L.interior == 0) return;
    unsigned* out = high_column(cv, j);
    unsigned* inside = out + L.interior_row;
    for (unsigned k = 0; k < L.interior; ++k) inside[k] = first + k;
    double w[26];
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
  };
  return number_in_element_order(cv, count, assign);
}

// ---- the conversion -----------------------------------------------------------------------

int convert(conversion& cv) {
  cv.connectH.clear();
  const node_counts& c = cv.c;
  if (cv.connectM.empty() || (c.e == 0 && c.q == 0 && c.t == 0 && c.h == 0 && c.w == 0 && c.p == 0 && c.n == 0))
    return 0;
  if (const int status = check_arguments(cv)) return status;
  make_layouts(cv);
  for (unsigned k = 0; k < 4; ++k)
    if (cv.nb_kind[k] == cv.connectM.cols()) {
      cv.single_kind = true;
      cv.only_kind = solid_kind(k);
    }
  cv.next_node = cv.nb_nodes;
  occurrences<2> edge_list;
  occurrences<4> face_list;
  if (!cv.connectH.resize(output_rows(cv), cv.connectM.cols(), tessel::ABSENT) || !number_edges(cv, edge_list) ||
      !number_faces(cv, face_list)) {
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
  place_edge_nodes(cv, edge_list);
  place_face_nodes(cv, face_list);
  if (!number_and_place_interiors(cv)) {
    cv.coords.resize(3, cv.nb_nodes);
    cv.connectH.clear();
    return tessel::OUT_OF_MEMORY;
  }
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
