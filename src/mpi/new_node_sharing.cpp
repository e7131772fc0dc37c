// New nodes of the distributed conversions: one node per shared edge or face, numbered
// by its owner. Two rounds with the neighbours: the holders of each entity tell each
// other their lowest element ID (so they agree on the owner), then the owners send the
// IDs and coordinates of its nodes.
#include "mpi/new_node_sharing.h"

#include <algorithm>
#include <limits>
#include <new>

namespace zel {
namespace tessel3d {
namespace mpi {
namespace detail {

using tessel::ABSENT;
using tessel::solid_kind;
using tessel::solid_record;
using tessel::solid_records;

namespace {

constexpr std::uint64_t NO_ID = std::numeric_limits<std::uint64_t>::max();
constexpr std::size_t NONE = std::numeric_limits<std::size_t>::max();

// An edge or face by the global IDs of its corners, in a form every rank writes the same
// way: an edge or triangle sorted; a quadrangle from its lowest corner towards the lower
// of that corner's two neighbours (the cycle either way round is the same face). NO_ID
// pads the edges and triangles.
struct entity_key {
  std::uint64_t corner[4];
};
bool operator<(const entity_key& a, const entity_key& b) {
  return std::lexicographical_compare(a.corner, a.corner + 4, b.corner, b.corner + 4);
}
bool operator==(const entity_key& a, const entity_key& b) { return std::equal(a.corner, a.corner + 4, b.corner); }

// Round 1: "I have this entity; my lowest element holding it has this ID".
struct holder_record {
  entity_key key;
  std::uint64_t element;
};

// Round 2, from the owner: the node at a position of the entity.
struct node_record {
  entity_key key;
  std::uint64_t id;
  double xyz[3];
  std::uint64_t position;
};

struct boundary_entity {
  entity_key key;
  std::uint64_t element;  // lowest global element ID known to hold it
  int owner;              // index of the owning neighbour; -1: this rank
  std::size_t first;      // its nodes: entity_nodes[first .. first + count), by position
  unsigned count;
};

// Position of each node of a face or edge block in the entity's own frame: the
// orientation given by its lowest corner (and, for a quadrangle, the lower of that
// corner's neighbours), so that every rank names a node the same way.
class canonical_frame {
 public:
  // An edge from corner a to b: block node i lies i + 1 steps from a.
  static void edge(std::uint64_t a, std::uint64_t b, unsigned e, unsigned* position, entity_key& key) {
    for (unsigned i = 0; i < e; ++i) position[i] = a <= b ? i : e - 1 - i;
    key = {{std::min(a, b), std::max(a, b), NO_ID, NO_ID}};
  }
  // A triangle c0 c1 c2: one node, or three, node k next to corner (k + 2) mod 3.
  static void triangle(const std::uint64_t* c, unsigned t, unsigned* position, entity_key& key) {
    unsigned rank[3];
    for (unsigned i = 0; i < 3; ++i) {
      rank[i] = 0;
      for (unsigned j = 0; j < 3; ++j) rank[i] += c[j] < c[i] || (c[j] == c[i] && j < i);
    }
    for (unsigned k = 0; k < t; ++k) position[k] = t == 1 ? 0 : rank[(k + 2) % 3];
    key = {{c[0], c[1], c[2], NO_ID}};
    std::sort(key.corner, key.corner + 3);
  }
  // A quadrangle c0 c1 c2 c3 with a side x side grid, node i + side * j at (i + 1, j + 1)
  // in units where the corners sit at 0 and side + 1 (xi towards c1, eta towards c3).
  static void quadrangle(const std::uint64_t* c, unsigned side, unsigned* position, entity_key& key) {
    static const int at[4][2] = {{0, 0}, {1, 0}, {1, 1}, {0, 1}};
    unsigned low = 0;
    for (unsigned i = 1; i < 4; ++i)
      if (c[i] < c[low]) low = i;
    const unsigned next = (low + 1) % 4, previous = (low + 3) % 4;
    const bool forward = c[next] <= c[previous];
    const unsigned u_to = forward ? next : previous, v_to = forward ? previous : next;
    for (unsigned i = 0; i < 4; ++i) key.corner[i] = c[(low + (forward ? i : 4 - i)) % 4];
    const int K = static_cast<int>(side) + 1;
    const int du[2] = {at[u_to][0] - at[low][0], at[u_to][1] - at[low][1]};
    const int dv[2] = {at[v_to][0] - at[low][0], at[v_to][1] - at[low][1]};
    for (unsigned j = 0; j < side; ++j)
      for (unsigned i = 0; i < side; ++i) {
        const int x = static_cast<int>(i) + 1 - at[low][0] * K, y = static_cast<int>(j) + 1 - at[low][1] * K;
        const int u = x * du[0] + y * du[1], v = x * dv[0] + y * dv[1];  // 1 .. side each
        position[j * side + i] = static_cast<unsigned>((v - 1) * static_cast<int>(side) + (u - 1));
      }
  }
};

// Which neighbours share each old node (indices into sharing.neighbours, ascending).
struct neighbours_of_nodes {
  std::vector<std::size_t> start;  // #old nodes + 1
  std::vector<int> list;

  void build(const node_sharing& sharing, std::size_t nb_old) {
    start.assign(nb_old + 1, 0);
    for (const auto& shared : sharing.shared)
      for (unsigned x : shared) ++start[x + 1];
    for (std::size_t i = 0; i < nb_old; ++i) start[i + 1] += start[i];
    list.resize(start[nb_old]);
    std::vector<std::size_t> fill(start.begin(), start.end() - 1);
    for (std::size_t k = 0; k < sharing.shared.size(); ++k)
      for (unsigned x : sharing.shared[k]) list[fill[x]++] = static_cast<int>(k);
  }
  bool has(unsigned node, int k) const {
    return std::binary_search(list.begin() + start[node], list.begin() + start[node + 1], k);
  }
};

// The local walk: every new node in the order (element, row), and the entities of the
// new nodes on edges and faces whose corners are all shared with some neighbour.
struct new_node_walk {
  const std::uint64_t* old_ids = nullptr;
  std::size_t nb_old = 0, nb_all = 0;
  neighbours_of_nodes near;
  std::vector<char> visited;           // per new node
  std::vector<unsigned> order;         // new nodes, by (element, row)
  std::vector<std::size_t> entity_of;  // per new node: its boundary entity, or NONE
  std::vector<boundary_entity> entities;
  std::vector<unsigned> entity_nodes;               // the entities' nodes, by position
  std::vector<std::vector<holder_record>> to_send;  // per neighbour
  std::vector<int> candidates;                      // scratch
  std::vector<unsigned> position;                   // scratch

  void init(const node_sharing& sharing, const dense1D<std::uint64_t>& ids, std::size_t all) {
    old_ids = ids.data();
    nb_old = ids.size();
    nb_all = all;
    near.build(sharing, nb_old);
    visited.assign(nb_all - nb_old, 0);
    entity_of.assign(nb_all - nb_old, NONE);
    order.reserve(nb_all - nb_old);
    to_send.resize(sharing.neighbours.size());
  }

  bool is_new(unsigned x) const { return x != ABSENT && x >= nb_old && x < nb_all; }
  void visit(unsigned x) {
    if (!is_new(x) || visited[x - nb_old]) return;
    visited[x - nb_old] = 1;
    order.push_back(x);
  }

  // One edge or face block of `count` nodes at `row` of a converted column, its corners
  // given as local IDs. The first element in ID order that has the entity meets it here.
  void block(const unsigned* corners, unsigned nb_corners, const unsigned* row, unsigned count, unsigned side,
             std::uint64_t element) {
    if (!is_new(row[0]) || visited[row[0] - nb_old]) return;
    for (unsigned i = 0; i < count; ++i) visit(row[i]);
    // The neighbours that share every corner may have the entity too.
    candidates.clear();
    for (std::size_t s = near.start[corners[0]]; s < near.start[corners[0] + 1]; ++s) {
      const int k = near.list[s];
      bool all = true;
      for (unsigned c = 1; c < nb_corners && all; ++c) all = near.has(corners[c], k);
      if (all) candidates.push_back(k);
    }
    if (candidates.empty()) return;

    std::uint64_t g[4];
    for (unsigned c = 0; c < nb_corners; ++c) g[c] = old_ids[corners[c]];
    position.resize(count);
    boundary_entity entity{{}, element, -1, entity_nodes.size(), count};
    if (nb_corners == 2)
      canonical_frame::edge(g[0], g[1], count, position.data(), entity.key);
    else if (nb_corners == 3)
      canonical_frame::triangle(g, count, position.data(), entity.key);
    else
      canonical_frame::quadrangle(g, side, position.data(), entity.key);
    entity_nodes.resize(entity_nodes.size() + count, ABSENT);
    for (unsigned i = 0; i < count; ++i) {
      entity_nodes[entity.first + position[i]] = row[i];
      if (is_new(row[i])) entity_of[row[i] - nb_old] = entities.size();
    }
    entities.push_back(entity);
    for (int k : candidates) to_send[k].push_back({entity.key, element});
  }
};

// Walks the converted columns: corners, the edge blocks, the face blocks, the interior.
void walk_columns(new_node_walk& walk, const dense2D<unsigned>& linear, const std::vector<std::uint64_t>& element_ids,
                  const dense2D<unsigned>& high, new_node_counts counts) {
  const std::size_t R = linear.rows(), RH = high.rows();
  unsigned side = 0;  // of the quadrangles' node grid: q = side * side
  while (std::uint64_t(side + 1) * (side + 1) <= counts.q) ++side;
  for (std::size_t j = 0; j < linear.cols(); ++j) {
    const unsigned* column = linear.data() + j * linear.ld();
    const unsigned* out = high.data() + j * high.ld();
    const solid_record& d = solid_records[linear_kind(column, R)];
    std::size_t row = d.nb_vertices;
    for (unsigned i = 0; i < d.nb_edges; ++i, row += counts.e) {
      if (counts.e == 0) continue;
      const unsigned ends[2] = {column[d.edges[i][0]], column[d.edges[i][1]]};
      walk.block(ends, 2, out + row, counts.e, 0, element_ids[j]);
    }
    for (unsigned f = 0; f < d.nb_faces; ++f) {
      const unsigned n = d.face_size[f], count = n == 3 ? counts.t : counts.q;
      if (count == 0) continue;
      unsigned corners[4];
      for (unsigned c = 0; c < n; ++c) corners[c] = column[d.faces[f][c]];
      walk.block(corners, n, out + row, count, side, element_ids[j]);
      row += count;
    }
    for (; row < RH; ++row) walk.visit(out[row]);
  }
  for (std::size_t x = walk.nb_old; x < walk.nb_all; ++x) walk.visit(static_cast<unsigned>(x));  // none expected
}

// Index of the entity with this key among `sorted` (entity indices in key order), or NONE.
std::size_t find_entity(const std::vector<boundary_entity>& entities, const std::vector<std::size_t>& sorted,
                        const entity_key& key) {
  const auto it = std::lower_bound(sorted.begin(), sorted.end(), key,
                                   [&entities](std::size_t e, const entity_key& k) { return entities[e].key < k; });
  return it != sorted.end() && entities[*it].key == key ? *it : NONE;
}

}  // namespace

solid_kind linear_kind(const unsigned* column, std::size_t rows) {
  if (rows == 4) return tessel::kind_TH4;
  if (rows == 6) {
    if (column[4] == ABSENT) return tessel::kind_TH4;
    return column[5] == ABSENT ? tessel::kind_PY5 : tessel::kind_W6;
  }
  return tessel::mixed8_kind(column);
}

int part_status(const part& mesh) {
  const std::size_t nodes = mesh.coords.cols();
  if (nodes > 0 && mesh.coords.rows() != 3) return -2;
  if (nodes >= std::size_t(ABSENT) || mesh.node_ids.size() != nodes) return -2;
  return mesh.element_ids.size() == mesh.connect.cols() ? 0 : -2;
}

bool distinct_node_ids(const part& mesh) {
  std::vector<std::uint64_t> ids(mesh.node_ids.data(), mesh.node_ids.data() + mesh.node_ids.size());
  std::sort(ids.begin(), ids.end());
  return std::adjacent_find(ids.begin(), ids.end()) == ids.end();
}

bool ascending_elements(const dense1D<std::uint64_t>& element_ids, std::vector<std::size_t>& order) {
  const std::size_t n = element_ids.size();
  order.resize(n);
  for (std::size_t j = 0; j < n; ++j) order[j] = j;
  const std::uint64_t* id = element_ids.data();
  if (!std::is_sorted(id, id + n))
    std::sort(order.begin(), order.end(), [id](std::size_t a, std::size_t b) { return id[a] < id[b]; });
  for (std::size_t i = 1; i < n; ++i)
    if (id[order[i]] == id[order[i - 1]]) return false;
  return true;
}

bool columns_in_order(const dense2D<unsigned>& connect, const std::vector<std::size_t>& order, dense2D<unsigned>& out) {
  bool identity = true;
  for (std::size_t i = 0; i < order.size() && identity; ++i) identity = order[i] == i;
  if (identity) {
    out.shallow_copy(connect);
    return true;
  }
  dense2D<unsigned> sorted;
  if (!sorted.resize(connect.rows(), connect.cols(), ABSENT)) return false;
  for (std::size_t i = 0; i < order.size(); ++i)
    std::copy_n(connect.data() + order[i] * connect.ld(), connect.rows(), sorted.data() + i * sorted.ld());
  out = sorted;
  return true;
}

int share_new_nodes(MPI_Comm comm, const node_sharing& sharing, const dense1D<std::uint64_t>& old_ids,
                    const dense2D<unsigned>& linear, const std::vector<std::uint64_t>& element_ids,
                    const dense2D<unsigned>& high, new_node_counts counts, dense2D<double>& coords,
                    dense1D<std::uint64_t>& node_ids) {
  const std::size_t nb_old = old_ids.size(), nb_all = coords.cols();
  const std::size_t nb_neighbours = sharing.neighbours.size();
  int rank = 0;
  MPI_Comm_rank(comm, &rank);

  // The local walk, then round 1: who else holds each boundary entity, and its owner.
  int status = 0;
  new_node_walk walk;
  std::vector<std::vector<holder_record>> holders;
  try {
    walk.init(sharing, old_ids, nb_all);
    walk_columns(walk, linear, element_ids, high, counts);
  } catch (const std::bad_alloc&) {
    status = tessel::OUT_OF_MEMORY;
  }
  if ((status = agree(comm, status)) != 0) return status;
  if ((status = exchange(comm, sharing, walk.to_send, holders)) != 0) return status;  // agreed

  std::vector<boundary_entity>& entities = walk.entities;
  std::vector<std::size_t> by_key;                // entity indices in key order
  std::vector<std::vector<std::size_t>> held_by;  // per neighbour: the entities it has too
  try {
    held_by.resize(nb_neighbours);
    by_key.resize(entities.size());
    for (std::size_t e = 0; e < by_key.size(); ++e) by_key[e] = e;
    std::sort(by_key.begin(), by_key.end(),
              [&entities](std::size_t a, std::size_t b) { return entities[a].key < entities[b].key; });
    for (std::size_t k = 0; k < nb_neighbours && k < holders.size(); ++k)
      for (const holder_record& r : holders[k]) {
        const std::size_t e = find_entity(entities, by_key, r.key);
        if (e == NONE) continue;  // its corners only: the entity is not here
        held_by[k].push_back(e);
        boundary_entity& entity = entities[e];
        const int owner_rank = entity.owner < 0 ? rank : sharing.neighbours[entity.owner];
        if (r.element < entity.element || (r.element == entity.element && sharing.neighbours[k] < owner_rank)) {
          entity.element = r.element;
          entity.owner = static_cast<int>(k);
        }
      }
  } catch (const std::bad_alloc&) {
    status = tessel::OUT_OF_MEMORY;
  }
  if ((status = agree(comm, status)) != 0) return status;

  // New IDs: the owned new nodes, rank after rank, after the largest ID in use.
  const auto owned_here = [&](unsigned x) {
    const std::size_t e = walk.entity_of[x - nb_old];
    return e == NONE || entities[e].owner < 0;
  };
  std::uint64_t owned = 0, top = 0;  // top: largest old ID + 1, 0 without nodes
  for (unsigned x : walk.order) owned += owned_here(x);
  for (std::size_t i = 0; i < nb_old; ++i) top = std::max(top, old_ids[i] == NO_ID ? NO_ID : old_ids[i] + 1);
  std::uint64_t base = 0, total = 0, offset = 0;
  MPI_Allreduce(&top, &base, 1, MPI_UINT64_T, MPI_MAX, comm);
  MPI_Allreduce(&owned, &total, 1, MPI_UINT64_T, MPI_SUM, comm);
  MPI_Exscan(&owned, &offset, 1, MPI_UINT64_T, MPI_SUM, comm);
  if (rank == 0) offset = 0;                                            // Exscan leaves it undefined
  if (total > 0 && (base == NO_ID || total > NO_ID - base)) return -2;  // the same on every rank

  dense1D<std::uint64_t> ids;
  std::vector<std::vector<node_record>> to_holders, from_owners;
  if (!ids.resize(nb_all, NO_ID)) status = tessel::OUT_OF_MEMORY;
  if (status == 0) {
    std::copy_n(old_ids.data(), nb_old, ids.data());
    std::uint64_t next = base + offset;
    for (unsigned x : walk.order)
      if (owned_here(x)) ids[x] = next++;
    // Round 2: the owners send the IDs and coordinates of their shared entities' nodes.
    try {
      to_holders.resize(nb_neighbours);
      for (std::size_t k = 0; k < nb_neighbours; ++k)
        for (std::size_t e : held_by[k]) {
          const boundary_entity& entity = entities[e];
          if (entity.owner >= 0) continue;
          for (unsigned p = 0; p < entity.count; ++p) {
            const unsigned x = walk.entity_nodes[entity.first + p];
            node_record r{entity.key, NO_ID, {0, 0, 0}, p};
            if (walk.is_new(x)) {
              r.id = ids[x];
              for (int c = 0; c < 3; ++c) r.xyz[c] = coords(c, x);
            }
            to_holders[k].push_back(r);
          }
        }
    } catch (const std::bad_alloc&) {
      status = tessel::OUT_OF_MEMORY;
    }
  }
  if ((status = agree(comm, status)) != 0) return status;
  if ((status = exchange(comm, sharing, to_holders, from_owners)) != 0) return status;  // agreed

  // Every node of an entity another rank owns must now have come from that owner
  // (parts that disagree, e.g. one global ID on two different nodes, fail here).
  for (std::size_t k = 0; k < nb_neighbours && k < from_owners.size() && status == 0; ++k)
    for (const node_record& r : from_owners[k]) {
      const std::size_t e = find_entity(entities, by_key, r.key);
      if (e == NONE || entities[e].owner != static_cast<int>(k) || r.position >= entities[e].count) {
        status = -2;
        break;
      }
      const unsigned x = walk.entity_nodes[entities[e].first + r.position];
      if (!walk.is_new(x)) continue;
      ids[x] = r.id;
      for (int c = 0; c < 3; ++c) coords(c, x) = r.xyz[c];
    }
  for (std::size_t x = nb_old; x < nb_all && status == 0; ++x)
    if (ids[x] == NO_ID) status = -2;
  if ((status = agree(comm, status)) != 0) return status;
  node_ids = ids;
  return 0;
}

}  // namespace detail
}  // namespace mpi
}  // namespace tessel3d
}  // namespace zel
