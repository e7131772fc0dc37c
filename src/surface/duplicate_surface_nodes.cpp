// duplicate_surface_nodes: opens a solid mesh along an internal surface by giving the
// surface nodes a copy on one side or on both.
//
// Every lookup (elements around a node, seeds, floods, local indices) reads the
// connectivity as given; replacements go to a working copy that becomes the
// connectivity only when every side succeeded, so a failure anywhere leaves the mesh
// as it was (coords is shrunk back to its column count on entry).
#include <cstddef>

#include "common/element_tables.h"
#include "common/parallel.h"
#include "common/shared_memory.h"
#include "locate/elements_around_node.h"
#include "order/hash_tables.h"
#include "zel/tessel3d.h"

namespace zel {
namespace tessel3d {
namespace {

using elfes::element_set;
using elfes::solid_descriptor;
using elfes::solid_table;

// What differs between the three mesh types: the surface face key and the kind of a
// column (read into 8 entries, absent rows padded with ~0U).
struct th4_mesh {
  using key_type = elfes::faceT3;
  static constexpr std::size_t rows = 4, surface_rows = 3;
  static key_type key(const unsigned* q, unsigned) { return {{q[0], q[1], q[2]}}; }
  static const solid_descriptor& solid(const unsigned*) { return solid_table[elfes::kind_TH4]; }
};

struct h8_mesh {
  using key_type = elfes::faceQ4;
  static constexpr std::size_t rows = 8, surface_rows = 4;
  static key_type key(const unsigned* q, unsigned) { return {{q[0], q[1], q[2], q[3]}}; }
  static const solid_descriptor& solid(const unsigned*) { return solid_table[elfes::kind_H8]; }
};

struct mixed8_mesh {
  using key_type = elfes::face_mix;
  static key_type key(const unsigned* q, unsigned size) {
    return {{q[0], q[1], q[2], size == 4 ? q[3] : tessel::ABSENT}};
  }
  static const solid_descriptor& solid(const unsigned* column) { return solid_table[elfes::mixed8_kind(column)]; }
};

// Copies the `rows` entries of a column into out[8], padding with ~0U: a mixed
// connectivity may have fewer than 8 rows, the missing ones being absent.
inline void read_column(const unsigned* column, std::size_t rows, unsigned* out) {
  std::size_t i = 0;
  for (; i < rows; ++i) out[i] = column[i];
  for (; i < 8; ++i) out[i] = tessel::ABSENT;
}

inline bool holds(const unsigned* column, std::size_t rows, unsigned n) {
  for (std::size_t i = 0; i < rows; ++i)
    if (column[i] == n) return true;
  return false;
}

// Faces of a column that contain n, for elements_around_node. TH4 columns use the rule
// of the point location (face j contains n when node j is not n); the other kinds list
// their face nodes. Reads only the connectivity's own rows.
template <class Mesh>
struct faces_with_node {
  std::size_t rows;
  unsigned operator()(const unsigned* column, unsigned n) const {
    unsigned nodes[8];
    read_column(column, rows, nodes);
    return elfes::solid_faces_with_node(Mesh::solid(nodes), nodes, n);
  }
};
template <>
struct faces_with_node<th4_mesh> {
  std::size_t rows;
  unsigned operator()(const unsigned* column, unsigned n) const { return elfes::th4_faces_with_node()(column, n); }
};

template <class Mesh>
typename Mesh::key_type element_face_key(const solid_descriptor& solid, const unsigned* nodes, unsigned f) {
  unsigned q[4] = {tessel::ABSENT, tessel::ABSENT, tessel::ABSENT, tessel::ABSENT};
  const unsigned size = solid.face_size[f];
  for (unsigned k = 0; k < size; ++k) q[k] = nodes[solid.faces[f][k]];
  return Mesh::key(q, size);
}

// Status of one side: keep going, the side failed (bad node_element entry), or memory.
enum side_status { side_ok = 0, side_failed = 1, side_no_memory = tessel::OUT_OF_MEMORY };

// What one thread needs to open a node: the elements around it, and the flood's.
struct opener_scratch {
  dense1D<unsigned, 8> around, stack;
  element_set visited;
};

// Surface nodes per chunk of the floods.
constexpr std::size_t flood_grain = 256;

template <class Mesh>
class surface_opener {
 public:
  using key_type = typename Mesh::key_type;
  using face_set = elfes::hash_table<key_type>;

  surface_opener(dense2D<double>& coords, dense2D<unsigned>& connectivity, const dense2D<unsigned>& neighbors,
                 const dense1D<unsigned, 8>& node_element, const dense2D<unsigned>& surface)
      : coords_(coords), conn_(connectivity), nbrs_(neighbors), node_element_(node_element), surface_(surface) {}

  int run(const dense1D<unsigned, 8>& excluded, bool positive_side, bool negative_side) {
    const std::size_t entry_cols = coords_.cols();
    const int status = open(excluded, positive_side, negative_side);
    if (status != 0) {
      coords_.resize(3, entry_cols);  // shrinking in place: cannot fail
      return status == side_failed ? 0 : tessel::OUT_OF_MEMORY;
    }
    return static_cast<int>(coords_.cols() - entry_cols);
  }

 private:
  // Nodes of surface column j into q[4] (~0U padded) and their count (3 or 4).
  unsigned surface_face(std::size_t j, unsigned* q) const {
    const unsigned* column = surface_.data() + j * surface_.ld();
    const std::size_t rows = surface_.rows();
    for (unsigned i = 0; i < 4; ++i) q[i] = i < rows ? column[i] : tessel::ABSENT;
    return q[3] == tessel::ABSENT ? 3 : 4;
  }

  int open(const dense1D<unsigned, 8>& excluded, bool positive_side, bool negative_side) {
    const std::size_t nb_faces = surface_.cols();
    const unsigned nb_nodes = static_cast<unsigned>(coords_.cols());

    if (!faces_.reset(23, 23, 1.0) || !faces_.rehash(nb_faces)) return side_no_memory;
    for (std::size_t j = 0; j < nb_faces; ++j) {
      unsigned q[4];
      const unsigned size = surface_face(j, q);
      const key_type key = Mesh::key(q, size);
      if (faces_.insert_growing(elfes::hash_key(key), key) == face_set::npos) return side_no_memory;
    }

    // The node sets of the two sides as two bits per node. A flag array costs one byte
    // per node of the mesh, far less than the working copy of the connectivity made
    // below, and tests and removals are plain indexing.
    const unsigned char sides = static_cast<unsigned char>((positive_side ? 1 : 0) | (negative_side ? 2 : 0));
    if (!pending_.resize(nb_nodes, 0)) return side_no_memory;
    std::size_t nb_surface_nodes = 0;
    for (std::size_t j = 0; j < nb_faces; ++j) {
      unsigned q[4];
      const unsigned size = surface_face(j, q);
      for (unsigned k = 0; k < size; ++k)
        if (q[k] != tessel::ABSENT && pending_[q[k]] == 0) {
          pending_[q[k]] = sides;
          ++nb_surface_nodes;
        }
    }
    for (std::size_t i = 0; i < excluded.size(); ++i) {
      const unsigned n = excluded[i];
      if (n < nb_nodes && pending_[n] != 0) {
        pending_[n] = 0;
        --nb_surface_nodes;
      }
    }

    const std::size_t nb_new = nb_surface_nodes * ((positive_side ? 1 : 0) + (negative_side ? 1 : 0));
    // New IDs stay below the absent marker ~0U, and their count fits the int returned.
    if (coords_.cols() + nb_new > 0xFFFFFFFFu || nb_new > 0x7FFFFFFFu) return side_no_memory;
    if (nb_new > 0 && !coords_.reserve(3, coords_.cols() + nb_new, 1)) return side_no_memory;
    if (!work_.copy(conn_)) return side_no_memory;
    work_data_ = work_.data();
    work_ld_ = work_.ld();

    if (positive_side) {
      const int status = open_side(1, false);
      if (status != side_ok) return status;
    }
    if (negative_side) {
      const int status = open_side(2, true);
      if (status != side_ok) return status;
    }
    conn_.swap(work_);
    return side_ok;
  }

  // Nodes of surface column j into q[4] as its side sees them (reversed for the
  // negative side), and their count.
  unsigned oriented_face(std::size_t j, bool reversed, unsigned* q) const {
    const unsigned size = surface_face(j, q);
    if (reversed)
      for (unsigned k = 0; k < size / 2; ++k) {
        const unsigned t = q[k];
        q[k] = q[size - 1 - k];
        q[size - 1 - k] = t;
      }
    return size;
  }
  key_type oriented_key(std::size_t j, bool reversed) const {
    unsigned q[4];
    const unsigned size = oriented_face(j, reversed, q);
    return Mesh::key(q, size);
  }

  // The nodes of one side are listed in the order of the surface's faces (the order of
  // their copies' IDs) with the face they were met on, and their copies appended; then
  // each node's elements are flooded on the library's threads. A flood reads the given
  // connectivity and writes only the entries that hold its own node, so nodes flooded at
  // once never touch the same entry; the status is that of the first node in the list
  // that fails, as when the nodes are opened one by one.
  int open_side(unsigned char bit, bool reversed) {
    opened_.clear();
    met_on_.clear();
    for (std::size_t j = 0; j < surface_.cols(); ++j) {
      unsigned q[4];
      const unsigned size = oriented_face(j, reversed, q);
      for (unsigned k = 0; k < size; ++k) {
        const unsigned n = q[k];
        if (n == tessel::ABSENT || !(pending_[n] & bit)) continue;
        pending_[n] = static_cast<unsigned char>(pending_[n] & ~bit);
        if (!opened_.push_back(n) || !met_on_.push_back(static_cast<unsigned>(j))) return side_no_memory;
      }
    }
    const std::size_t first_copy = coords_.cols(), count = opened_.size();
    // Room was reserved for every copy, so this resize stays in place.
    if (!coords_.resize(3, first_copy + count, 0.0)) return side_no_memory;
    double* xyz = coords_.data();
    const std::size_t ld = coords_.ld();
    for (std::size_t i = 0; i < count; ++i)
      for (unsigned d = 0; d < 3; ++d) xyz[(first_copy + i) * ld + d] = xyz[std::size_t(opened_[i]) * ld + d];

    const std::size_t nb_chunks = elfes::chunk_count(count, flood_grain);
    dense1D<int, 8> failure;  // per chunk: the status of its first node that failed
    if (!failure.resize(nb_chunks, side_ok)) return side_no_memory;
    elfes::parallel_chunks(count, flood_grain, [&](std::size_t c, std::size_t first, std::size_t last) {
      opener_scratch scratch;
      for (std::size_t i = first; i < last; ++i) {
        const int status =
            open_node(opened_[i], oriented_key(met_on_[i], reversed), static_cast<unsigned>(first_copy + i), scratch);
        if (status != side_ok) {
          failure[c] = status;
          return;
        }
      }
    });
    for (std::size_t c = 0; c < nb_chunks; ++c)
      if (failure[c] != side_ok) return failure[c];
    return side_ok;
  }

  const unsigned* column(unsigned e) const { return conn_.data() + e * conn_.ld(); }

  int open_node(unsigned n, const key_type& oriented, unsigned copy, opener_scratch& scratch) const {
    const std::size_t nb_elements = conn_.cols(), rows = conn_.rows();
    if (n >= node_element_.size()) return side_failed;
    const unsigned e = node_element_[n];
    if (e >= nb_elements || !holds(column(e), rows, n)) return side_failed;

    const int around =
        elfes::elements_around_node(n, e, conn_, nbrs_, faces_with_node<Mesh>{rows}, scratch.around, scratch.visited);
    if (around < 0) return side_no_memory;
    const unsigned seed = find_seed(oriented, scratch);
    if (seed == tessel::NO_ELEMENT) return side_ok;
    return flood(n, seed, copy, scratch);
  }

  // First element around n with a face equal to the oriented surface face, same
  // orientation; NO_ELEMENT when there is none.
  unsigned find_seed(const key_type& oriented, const opener_scratch& scratch) const {
    const dense1D<unsigned, 8>& around = scratch.around;
    for (std::size_t i = 0; i < around.size(); ++i) {
      unsigned nodes[8];
      read_column(column(around[i]), conn_.rows(), nodes);
      const solid_descriptor& solid = Mesh::solid(nodes);
      for (unsigned f = 0; f < solid.nb_faces; ++f)
        if (elfes::compare_keys(element_face_key<Mesh>(solid, nodes, f), oriented) == 1) return around[i];
    }
    return tessel::NO_ELEMENT;
  }

  // Spreads from the seed to the elements holding n that are reached without crossing
  // the surface or the boundary, and gives them the copy. An element is marked visited
  // when first met, even when it is then passed over, and is not reconsidered.
  int flood(unsigned n, unsigned seed, unsigned copy, opener_scratch& scratch) const {
    const std::size_t rows = conn_.rows();
    element_set& visited = scratch.visited;
    dense1D<unsigned, 8>& stack = scratch.stack;
    // Every element met holds n or is a neighbour of one that does.
    const std::size_t expected = 2 + 6 * scratch.around.size();
    if (!visited.reset(expected, expected, 1.0)) return side_no_memory;
    if (visited.insert_growing(elfes::hash_key(tessel::NO_ELEMENT), tessel::NO_ELEMENT) == element_set::npos ||
        visited.insert_growing(elfes::hash_key(seed), seed) == element_set::npos)
      return side_no_memory;
    stack.clear();
    if (!stack.push_back(seed)) return side_no_memory;

    const unsigned* nbrs = nbrs_.data();
    const std::size_t ld_nbrs = nbrs_.ld();
    while (!stack.empty()) {
      const unsigned e = stack[stack.size() - 1];
      stack.resize(stack.size() - 1);
      const unsigned* in = column(e);
      unsigned* out = work_data_ + std::size_t(e) * work_ld_;
      for (std::size_t r = 0; r < rows; ++r)
        if (in[r] == n) out[r] = copy;

      unsigned nodes[8];
      read_column(in, rows, nodes);
      const solid_descriptor& solid = Mesh::solid(nodes);
      for (unsigned f = 0; f < solid.nb_faces; ++f) {
        const unsigned next = nbrs[e * ld_nbrs + f];
        bool added = false;
        if (visited.insert_growing(elfes::hash_key(next), next, &added) == element_set::npos) return side_no_memory;
        if (!added || !holds(column(next), rows, n)) continue;
        const key_type face = element_face_key<Mesh>(solid, nodes, f);
        if (faces_.find(elfes::hash_key(face), face) != faces_.end()) continue;
        if (!stack.push_back(next)) return side_no_memory;
      }
    }
    return side_ok;
  }

  dense2D<double>& coords_;
  dense2D<unsigned>& conn_;  // read only, until the working copy replaces it
  const dense2D<unsigned>& nbrs_;
  const dense1D<unsigned, 8>& node_element_;
  const dense2D<unsigned>& surface_;

  face_set faces_;                     // surface faces, a face and its reverse one key
  dense1D<unsigned char, 8> pending_;  // per node: bit 1 positive side, bit 2 negative
  dense2D<unsigned> work_;             // the connectivity being rewritten
  unsigned* work_data_ = nullptr;      // work_'s entries, written by the floods at once
  std::size_t work_ld_ = 0;
  dense1D<unsigned, 8> opened_, met_on_;  // the nodes of a side and their surface faces
};

template <class Mesh>
int open_surface(dense2D<double>& coords, dense2D<unsigned>& connectivity, const dense2D<unsigned>& neighbors,
                 const dense1D<unsigned, 8>& node_element, const dense2D<unsigned>& surface,
                 const dense1D<unsigned, 8>& excluded, bool positive_side, bool negative_side) {
  surface_opener<Mesh> opener(coords, connectivity, neighbors, node_element, surface);
  return opener.run(excluded, positive_side, negative_side);
}

}  // namespace

int duplicate_surface_nodes(dense2D<double>& coords, dense2D<unsigned>& connectivity,
                            const dense2D<unsigned>& neighbors, const dense1D<unsigned, 8>& node_element,
                            const dense2D<unsigned>& surface, const dense1D<unsigned, 8>& excluded, bool positive_side,
                            bool negative_side, element_type type) {
  if (elfes::share_memory(coords, connectivity)) return -2;  // both are rewritten
  if (elfes::shares_with_any(coords, neighbors, node_element, surface, excluded) ||
      elfes::shares_with_any(connectivity, neighbors, node_element, surface, excluded)) {
    dense2D<unsigned> own_neighbors, own_surface;
    dense1D<unsigned, 8> own_node_element, own_excluded;
    if (!own_neighbors.copy(neighbors) || !own_surface.copy(surface) || !own_node_element.copy(node_element) ||
        !own_excluded.copy(excluded))
      return tessel::OUT_OF_MEMORY;
    return duplicate_surface_nodes(coords, connectivity, own_neighbors, own_node_element, own_surface, own_excluded,
                                   positive_side, negative_side, type);
  }
  if (connectivity.empty() || surface.empty() || (!positive_side && !negative_side)) return 0;
  if (coords.rows() != 3) return -1;
  const unsigned nb_nodes = static_cast<unsigned>(coords.cols());
  if (!tessel::check_IDs(connectivity, type, nb_nodes)) return -2;
  if ((type == TH4 && connectivity.rows() != th4_mesh::rows) || (type == H8 && connectivity.rows() != h8_mesh::rows))
    return -2;
  if (neighbors.cols() != connectivity.cols()) return -3;
  const unsigned faces = elfes::is_element_type(type) ? elfes::neighbor_rows[type] : 0;
  if (neighbors.rows() != faces || !tessel::check_IDs(neighbors, static_cast<unsigned>(connectivity.cols()))) return -3;
  const std::size_t nb_entries = node_element.size();
  if (!tessel::check_IDs(connectivity, nb_entries < ~0U ? static_cast<unsigned>(nb_entries) : ~0U)) return -4;

  switch (type) {
    case TH4:
      if (surface.rows() != th4_mesh::surface_rows || !tessel::check_IDs(surface, T3, nb_nodes)) return -5;
      return open_surface<th4_mesh>(coords, connectivity, neighbors, node_element, surface, excluded, positive_side,
                                    negative_side);
    case H8:
      if (surface.rows() != h8_mesh::surface_rows || !tessel::check_IDs(surface, Q4, nb_nodes)) return -5;
      return open_surface<h8_mesh>(coords, connectivity, neighbors, node_element, surface, excluded, positive_side,
                                   negative_side);
    case SOLID_MIX8:
      if (!tessel::check_IDs(surface, FACE_MIX4, nb_nodes)) return -5;
      return open_surface<mixed8_mesh>(coords, connectivity, neighbors, node_element, surface, excluded, positive_side,
                                       negative_side);
    default: return -9;
  }
}

}  // namespace tessel3d
}  // namespace zel
