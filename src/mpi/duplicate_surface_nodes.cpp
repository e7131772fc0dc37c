// duplicate_surface_nodes over MPI: a partitioned solid mesh opened along an internal
// surface that may cross the ranks' boundaries. Around each surface node, the elements
// holding it fall into groups that meet across faces holding the node (never across the
// surface): each rank finds its local groups, and a meeting rank per node (chosen by its
// global ID) joins the groups that meet across faces between ranks and decides, once for
// all, which copy of the node each group gets.
#include <algorithm>
#include <array>
#include <climits>
#include <numeric>

#include "mpi/global_boundary.h"
#include "zel/tessel3d_mpi.h"
#include "zel/tessel_elements.h"

namespace zel {
namespace tessel3d {
namespace mpi {
namespace {

using detail::agree;
using detail::guarded;
using detail::out_of_memory;
using key4 = std::array<std::uint64_t, 4>;  // sorted global IDs, a triangle padded with ~0
constexpr std::uint64_t no_id = ~std::uint64_t(0);
constexpr unsigned positive_flag = 1, negative_flag = 2;

// What a rank tells a node's meeting rank: one of its groups around the node (with the
// sides of the surface its elements carry), or a face between ranks that a group reaches.
struct node_record {
  std::uint64_t node;  // global ID
  key4 face;           // for a link: the face; {} for a group
  std::uint32_t group;
  std::uint32_t flags;  // group: positive_flag | negative_flag; link: 4
};
constexpr std::uint32_t link_flag = 4;

struct union_find {
  std::vector<std::uint32_t> parent;
  explicit union_find(std::size_t n) : parent(n) { std::iota(parent.begin(), parent.end(), 0u); }
  std::uint32_t find(std::uint32_t a) {
    while (parent[a] != a) a = parent[a] = parent[parent[a]];
    return a;
  }
  void join(std::uint32_t a, std::uint32_t b) {
    a = find(a), b = find(b);
    if (a != b) parent[std::max(a, b)] = std::min(a, b);
  }
};

key4 sorted_key(const std::uint64_t* ids, unsigned count) {
  key4 key{no_id, no_id, no_id, no_id};
  for (unsigned i = 0; i < count; ++i) {  // insertion: at most 4 IDs
    unsigned j = i;
    for (; j > 0 && key[j - 1] > ids[i]; --j) key[j] = key[j - 1];
    key[j] = ids[i];
  }
  return key;
}

// Same cyclic order (1), reversed (2), or neither (0).
unsigned orientation(const std::uint64_t* a, const std::uint64_t* b, unsigned count) {
  for (unsigned shift = 0; shift < count; ++shift) {
    bool same = true, reversed = true;
    for (unsigned i = 0; i < count; ++i) {
      same &= a[i] == b[(i + shift) % count];
      reversed &= a[i] == b[(shift + count - i) % count];
    }
    if (same) return positive_flag;
    if (reversed) return negative_flag;
  }
  return 0;
}

class local_mesh {
 public:
  local_mesh(const part& mesh, element_type type) : mesh_(mesh), type_(type) {}

  tessel::solid_kind kind(std::size_t e) const {
    if (type_ == TH4) return tessel::kind_TH4;
    if (type_ == H8) return tessel::kind_H8;
    return tessel::mixed8_kind(mesh_.connect.data() + e * mesh_.connect.ld());
  }
  // Global IDs of face f of element e, in the element's face order; its node count.
  unsigned face_ids(std::size_t e, unsigned f, std::uint64_t* ids, unsigned* local = nullptr) const {
    const tessel::solid_record& s = tessel::solid_records[kind(e)];
    const unsigned count = s.face_size[f];
    for (unsigned i = 0; i < count; ++i) {
      const unsigned n = mesh_.connect(s.faces[f][i], e);
      ids[i] = mesh_.node_ids[n];
      if (local) local[i] = n;
    }
    return count;
  }

  // The surface's faces by key, each with its oriented IDs.
  void add_surface(const dense2D<unsigned>& surface) {
    for (std::size_t j = 0; j < surface.cols(); ++j) {
      const unsigned count = surface.rows() == 4 && surface(3, j) != tessel::ABSENT ? 4 : 3;
      std::array<std::uint64_t, 4> ids{no_id, no_id, no_id, no_id};
      for (unsigned i = 0; i < count; ++i) ids[i] = mesh_.node_ids[surface(i, j)];
      faces_.push_back({sorted_key(ids.data(), count), ids});
    }
    std::sort(faces_.begin(), faces_.end());
  }
  // positive_flag / negative_flag when face f of e is a surface face in that
  // orientation, 0 when it is not a surface face.
  unsigned surface_sides(std::size_t e, unsigned f) const {
    std::uint64_t ids[4];
    const unsigned count = face_ids(e, f, ids);
    const key4 key = sorted_key(ids, count);
    auto it = std::lower_bound(faces_.begin(), faces_.end(), std::make_pair(key, std::array<std::uint64_t, 4>{}));
    unsigned sides = 0;
    for (; it != faces_.end() && it->first == key; ++it) sides |= orientation(ids, it->second.data(), count);
    return sides;
  }

 private:
  const part& mesh_;
  element_type type_;
  std::vector<std::pair<key4, std::array<std::uint64_t, 4>>> faces_;
};

int check_arguments(const part& mesh, const dense2D<unsigned>& surface, const dense1D<unsigned, 8>& excluded,
                    element_type type) {
  const std::size_t nb_nodes = mesh.coords.cols();
  if (mesh.coords.rows() != 3 || mesh.node_ids.size() != nb_nodes || mesh.element_ids.size() != mesh.connect.cols() ||
      nb_nodes >= std::size_t(~0U))
    return -2;
  const bool known = type == TH4 || type == H8 || type == SOLID_MIX8;
  if (known && !mesh.connect.empty() &&
      (mesh.connect.rows() != (type == TH4 ? 4u : 8u) || !tessel::check_IDs(mesh.connect, type, unsigned(nb_nodes))))
    return -2;
  if (!surface.empty()) {
    if ((surface.rows() != 3 && surface.rows() != 4) || !tessel::check_IDs(surface, FACE_MIX4, unsigned(nb_nodes)))
      return -3;
    for (std::size_t j = 0; j < surface.cols(); ++j)
      for (unsigned i = 0; i < 3; ++i)
        if (surface(i, j) == tessel::ABSENT) return -3;
  }
  if (!tessel::check_IDs(excluded, unsigned(nb_nodes))) return -4;
  if (!known) return -7;
  return 0;
}

}  // namespace

int duplicate_surface_nodes(MPI_Comm caller, part& mesh, const dense2D<unsigned>& surface,
                            const dense1D<unsigned, 8>& excluded, bool positive_side, bool negative_side,
                            element_type type) {
  if (caller == MPI_COMM_NULL) return -1;
  const detail::private_comm own(caller);
  const MPI_Comm comm = own.get();
  int status = check_arguments(mesh, surface, excluded, type);
  if ((status = agree(comm, status)) != 0) return status;
  if (!positive_side && !negative_side) return 0;
  int size = 1;
  MPI_Comm_size(comm, &size);
  const std::size_t nb_nodes = mesh.coords.cols(), nb_elements = mesh.connect.cols();

  // Which nodes are surface nodes, and which are excluded, as any rank holding them says.
  detail::node_sharing sharing;
  if ((status = detail::build_node_sharing(comm, mesh.node_ids, sharing)) != 0) return status;
  std::vector<unsigned char> node_flags;  // 1 surface node, 2 excluded
  std::vector<std::vector<unsigned char>> send_flags, got_flags;
  status = guarded([&] {
    node_flags.assign(nb_nodes, 0);
    for (std::size_t j = 0; j < surface.cols(); ++j)
      for (std::size_t i = 0; i < surface.rows(); ++i)
        if (surface(i, j) != tessel::ABSENT) node_flags[surface(i, j)] |= 1;
    for (std::size_t k = 0; k < excluded.size(); ++k) node_flags[excluded[k]] |= 2;
    send_flags.resize(sharing.neighbours.size());
    for (std::size_t k = 0; k < sharing.neighbours.size(); ++k)
      for (unsigned n : sharing.shared[k]) send_flags[k].push_back(node_flags[n]);
    return 0;
  });
  if ((status = agree(comm, status)) != 0) return status;
  if ((status = detail::exchange(comm, sharing, send_flags, got_flags)) != 0) return status;
  for (std::size_t k = 0; k < got_flags.size(); ++k)
    for (std::size_t i = 0; i < got_flags[k].size(); ++i) node_flags[sharing.shared[k][i]] |= got_flags[k][i];

  // Local groups: (node, element) pairs joined across faces holding the node that are
  // neither surface faces nor the part's boundary.
  local_mesh local(mesh, type);
  std::vector<std::pair<unsigned, unsigned>> pairs;  // (local node, element), sorted
  std::vector<std::uint32_t> group_of;               // per pair
  std::vector<std::vector<node_record>> send;
  std::vector<std::vector<std::size_t>> sent_group;  // per meeting rank: the groups sent, in order
  std::vector<std::uint32_t> group_flags;
  status = guarded([&] {
    local.add_surface(surface);
    dense2D<unsigned> neighbors;
    if (tessel::get_neighbors(mesh.connect, type, neighbors) != 0) return out_of_memory;
    for (std::size_t e = 0; e < nb_elements; ++e) {
      const unsigned nb_vertices = tessel::solid_records[local.kind(e)].nb_vertices;
      for (unsigned i = 0; i < nb_vertices; ++i) {
        const unsigned n = mesh.connect(i, e);
        if (node_flags[n] == 1) pairs.push_back({n, unsigned(e)});
      }
    }
    std::sort(pairs.begin(), pairs.end());
    auto pair_index = [&](unsigned n, unsigned e) {
      return std::uint32_t(std::lower_bound(pairs.begin(), pairs.end(), std::make_pair(n, e)) - pairs.begin());
    };
    union_find groups(pairs.size());
    std::vector<std::uint32_t> flags(pairs.size(), 0);
    struct link {
      std::uint32_t pair;
      key4 face;
    };
    std::vector<link> links;
    for (std::uint32_t p = 0; p < pairs.size(); ++p) {
      const unsigned n = pairs[p].first, e = pairs[p].second;
      const tessel::solid_record& s = tessel::solid_records[local.kind(e)];
      for (unsigned f = 0; f < s.nb_faces; ++f) {
        std::uint64_t ids[4];
        unsigned nodes[4];
        const unsigned count = local.face_ids(e, f, ids, nodes);
        if (std::find(nodes, nodes + count, n) == nodes + count) continue;
        if (const unsigned sides = local.surface_sides(e, f)) {
          flags[p] |= sides;
          continue;
        }
        const unsigned across = neighbors(f, e);
        if (across != tessel::NO_ELEMENT)
          groups.join(p, pair_index(n, across));
        else
          links.push_back({p, sorted_key(ids, count)});
      }
    }
    // Dense group numbers, their sides, and the records for the meeting ranks.
    group_of.resize(pairs.size());
    std::vector<std::uint32_t> number(pairs.size(), ~0u);
    for (std::uint32_t p = 0; p < pairs.size(); ++p) {
      const std::uint32_t root = groups.find(p);
      if (number[root] == ~0u) {
        number[root] = std::uint32_t(group_flags.size());
        group_flags.push_back(0);
      }
      group_of[p] = number[root];
      group_flags[group_of[p]] |= flags[p];
    }
    send.assign(std::size_t(size), {});
    sent_group.assign(std::size_t(size), {});
    std::vector<unsigned char> group_sent(group_flags.size(), 0);
    for (std::uint32_t p = 0; p < pairs.size(); ++p) {
      const std::uint32_t g = group_of[p];
      if (group_sent[g]) continue;
      group_sent[g] = 1;
      const std::uint64_t id = mesh.node_ids[pairs[p].first];
      const int r = detail::meeting_rank({id, id, id}, size);
      send[r].push_back({id, key4{}, g, group_flags[g]});
      sent_group[r].push_back(g);
    }
    for (const link& l : links) {
      const std::uint64_t id = mesh.node_ids[pairs[l.pair].first];
      send[detail::meeting_rank({id, id, id}, size)].push_back({id, l.face, group_of[l.pair], link_flag});
    }
    return 0;
  });
  if ((status = agree(comm, status)) != 0) return status;

  // Global IDs of the copies: side s (1 positive, 2 negative) of the node with ID g gets
  // s * (G + 1) + g.
  std::uint64_t largest = 0;
  for (std::size_t n = 0; n < nb_nodes; ++n) largest = std::max(largest, mesh.node_ids[n]);
  MPI_Allreduce(MPI_IN_PLACE, &largest, 1, MPI_UINT64_T, MPI_MAX, comm);
  if (largest >= no_id / 3) return out_of_memory;
  const std::uint64_t stride = largest + 1;

  detail::received_records<node_record> met;
  if ((status = detail::exchange_records(comm, send, met)) != 0) return status;

  // The meeting ranks: join the groups of each node across the faces between ranks.
  std::vector<std::vector<std::uint64_t>> answers;
  unsigned long long added = 0;
  status = guarded([&] {
    std::vector<std::uint32_t> order(met.data.size());
    std::iota(order.begin(), order.end(), 0u);
    // By node, groups before links, links by face.
    std::sort(order.begin(), order.end(), [&](std::uint32_t a, std::uint32_t b) {
      const node_record &x = met.data[a], &y = met.data[b];
      if (x.node != y.node) return x.node < y.node;
      if ((x.flags == link_flag) != (y.flags == link_flag)) return y.flags == link_flag;
      return x.face < y.face;
    });
    std::vector<int> from(met.data.size());
    for (int r = 0; r < size; ++r)
      for (std::size_t i = met.offset[r]; i < met.offset[r + 1]; ++i) from[i] = r;
    // Records of each (rank, group) as one item: the group records' positions.
    std::vector<std::uint64_t> answer(met.data.size(), no_id);
    union_find joined(met.data.size());
    for (std::size_t lo = 0; lo < order.size();) {
      std::size_t hi = lo;
      const std::uint64_t node = met.data[order[lo]].node;
      while (hi < order.size() && met.data[order[hi]].node == node) ++hi;
      ++added;
      // (rank, group) -> record, among this node's group records.
      std::vector<std::pair<std::pair<int, std::uint32_t>, std::uint32_t>> groups;
      std::size_t k = lo;
      for (; k < hi && met.data[order[k]].flags != link_flag; ++k)
        groups.push_back({{from[order[k]], met.data[order[k]].group}, order[k]});
      std::sort(groups.begin(), groups.end());
      auto record_of = [&](std::uint32_t rec) {
        auto it = std::lower_bound(groups.begin(), groups.end(),
                                   std::make_pair(std::make_pair(from[rec], met.data[rec].group), std::uint32_t(0)));
        return it != groups.end() && it->first.first == from[rec] && it->first.second == met.data[rec].group
                   ? it->second
                   : ~0u;
      };
      // Links with the same face join their groups.
      for (std::size_t a = k; a < hi;) {
        std::size_t b = a + 1;
        while (b < hi && met.data[order[b]].face == met.data[order[a]].face) ++b;
        const std::uint32_t first = record_of(order[a]);
        for (std::size_t c = a + 1; c < b; ++c) {
          const std::uint32_t other = record_of(order[c]);
          if (first != ~0u && other != ~0u) joined.join(first, other);
        }
        a = b;
      }
      // Sides of each joined group, then the copy each gets (the negative side last, as
      // one machine overwrites a group that carries both).
      std::vector<std::pair<std::uint32_t, std::uint32_t>> root_sides;
      for (const auto& g : groups) root_sides.push_back({joined.find(g.second), met.data[g.second].flags});
      std::sort(root_sides.begin(), root_sides.end());
      for (std::size_t a = 0; a < root_sides.size();) {
        std::size_t b = a;
        std::uint32_t both = 0;
        while (b < root_sides.size() && root_sides[b].first == root_sides[a].first) both |= root_sides[b++].second;
        const std::uint64_t copy = negative_side && (both & negative_flag)   ? 2 * stride + node
                                   : positive_side && (both & positive_flag) ? stride + node
                                                                             : no_id;
        for (std::size_t c = a; c < b; ++c) answer[root_sides[c].first] = copy;
        a = b;
      }
      for (const auto& g : groups) answer[g.second] = answer[joined.find(g.second)];
      lo = hi;
    }
    answers.assign(std::size_t(size), {});
    for (int r = 0; r < size; ++r)
      for (std::size_t i = met.offset[r]; i < met.offset[r + 1]; ++i)
        if (met.data[i].flags != link_flag) answers[r].push_back(answer[i]);
    return 0;
  });
  if ((status = agree(comm, status)) != 0) return status;
  detail::received_records<std::uint64_t> copies;
  if ((status = detail::exchange_records(comm, answers, copies)) != 0) return status;

  // Every rank: the copies its groups take, as new local nodes.
  part built;
  status = guarded([&] {
    std::vector<std::uint64_t> copy_of_group(group_flags.size(), no_id);
    for (int r = 0; r < size; ++r)
      for (std::size_t i = 0; i < sent_group[r].size(); ++i) copy_of_group[sent_group[r][i]] = copies.from(r)[i];
    std::vector<std::pair<std::uint64_t, unsigned>> new_nodes;  // (global ID, node copied)
    for (std::size_t p = 0; p < pairs.size(); ++p)
      if (copy_of_group[group_of[p]] != no_id) new_nodes.push_back({copy_of_group[group_of[p]], pairs[p].first});
    std::sort(new_nodes.begin(), new_nodes.end());
    new_nodes.erase(std::unique(new_nodes.begin(), new_nodes.end()), new_nodes.end());
    const std::size_t nb_out = nb_nodes + new_nodes.size();
    if (!built.coords.resize(3, nb_out) || !built.node_ids.resize(nb_out) || !built.connect.copy(mesh.connect) ||
        !built.element_ids.copy(mesh.element_ids))
      return out_of_memory;
    for (std::size_t n = 0; n < nb_out; ++n) {
      const std::size_t source = n < nb_nodes ? n : new_nodes[n - nb_nodes].second;
      for (unsigned d = 0; d < 3; ++d) built.coords(d, n) = mesh.coords(d, source);
      built.node_ids[n] = n < nb_nodes ? mesh.node_ids[n] : new_nodes[n - nb_nodes].first;
    }
    for (std::size_t p = 0; p < pairs.size(); ++p) {
      const std::uint64_t copy = copy_of_group[group_of[p]];
      if (copy == no_id) continue;
      const unsigned n = pairs[p].first, e = pairs[p].second;
      const unsigned replacement =
          unsigned(nb_nodes + (std::lower_bound(new_nodes.begin(), new_nodes.end(), std::make_pair(copy, 0u)) -
                               new_nodes.begin()));
      for (std::size_t i = 0; i < built.connect.rows(); ++i)
        if (built.connect(i, e) == n) built.connect(i, e) = replacement;
    }
    return 0;
  });
  if ((status = agree(comm, status)) != 0) return status;
  MPI_Allreduce(MPI_IN_PLACE, &added, 1, MPI_UNSIGNED_LONG_LONG, MPI_SUM, comm);
  added *= unsigned(positive_side) + unsigned(negative_side);
  mesh = built;
  return added > (unsigned long long)(INT_MAX) ? INT_MAX : int(added);
}

}  // namespace mpi
}  // namespace tessel3d
}  // namespace zel
