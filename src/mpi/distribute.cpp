// distribute: a mesh held by one rank, cut by METIS and spread over every rank.
#include <metis.h>

#include <algorithm>
#include <cstdint>
#include <limits>
#include <vector>

#include "mpi/node_sharing.h"
#include "mpi/solid_layout.h"
#include "zel/tessel3d_mpi.h"

namespace zel {
namespace tessel3d {
namespace mpi {
namespace {

using detail::status_ok;
using detail::status_out_of_memory;

constexpr int part_tag = 7311;
constexpr int partitioner_failed = -5;

// What the root decides for each rank: its elements (ascending) and its nodes
// (ascending), the latter rebuilt when the part is packed.
struct plan {
  std::vector<std::uint64_t> element_start;  // rank r's elements: elements[start[r] .. start[r + 1])
  std::vector<unsigned> elements;
  std::vector<std::uint64_t> unused_start;  // rank r's share of the nodes no element uses
  std::vector<unsigned> unused;
  std::vector<std::uint64_t> sizes;  // per rank: #nodes, #elements
};

// The dual graph of the elements, as METIS takes it (adjacency lists, symmetric): two
// elements are neighbours when they share a face. The library's face pairing reads the
// corners (the first rows of every layout but the high-order mixed one); where three or
// more elements share a face it lists one neighbour, so missing reverse links are added.
// False when the layout has no corner rows of its own (the caller lets METIS build it).
bool dual_graph(const dense2D<unsigned>& connect, element_type type, std::vector<idx_t>& start,
                std::vector<idx_t>& adjacent, int& status) {
  if (type == SOLID_MIX27) return false;
  const element_type linear = elfes::element_table[type].linear;
  const dense2D<unsigned> corners = connect.sub_matrix(0, 0, elfes::element_rows(linear), connect.cols());
  dense2D<unsigned> neighbours;
  const int found = tessel::get_neighbors(corners, linear, neighbours);
  if (found != 0) {
    status = found == status_out_of_memory ? status_out_of_memory : partitioner_failed;
    return true;
  }
  const std::size_t nb_elements = connect.cols(), faces = neighbours.rows();
  auto links_to = [&](std::size_t from, std::size_t to) {
    const unsigned* column = neighbours.data() + from * neighbours.ld();
    return std::find(column, column + faces, unsigned(to)) != column + faces;
  };
  std::vector<std::pair<unsigned, unsigned>> reverse;  // (element, neighbour) links to add
  std::vector<idx_t> degree(nb_elements + 1, 0);
  for (std::size_t j = 0; j < nb_elements; ++j)
    for (std::size_t f = 0; f < faces; ++f) {
      const unsigned n = neighbours(f, j);
      if (n == elfes::ABSENT) continue;
      ++degree[j];
      if (!links_to(n, j)) reverse.emplace_back(n, unsigned(j)), ++degree[n];
    }
  start.assign(nb_elements + 1, 0);
  for (std::size_t j = 0; j < nb_elements; ++j) start[j + 1] = start[j] + degree[j];
  adjacent.resize(static_cast<std::size_t>(start[nb_elements]));
  std::vector<idx_t> next(start.begin(), start.end() - 1);
  for (std::size_t j = 0; j < nb_elements; ++j)
    for (std::size_t f = 0; f < faces; ++f)
      if (neighbours(f, j) != elfes::ABSENT) adjacent[next[j]++] = static_cast<idx_t>(neighbours(f, j));
  for (const auto& link : reverse) adjacent[next[link.first]++] = static_cast<idx_t>(link.second);
  return true;
}

// The element -> rank map: METIS's k-way partition of the dual graph (elements sharing
// a face are neighbours), so the cut runs between elements along few faces.
int partition(const dense2D<unsigned>& connect, element_type type, unsigned nb_nodes, int nb_ranks,
              std::vector<idx_t>& rank_of) {
  const std::size_t nb_elements = connect.cols();
  rank_of.assign(nb_elements, 0);
  if (nb_ranks == 1) return status_ok;
  if (nb_elements <= static_cast<std::size_t>(nb_ranks)) {
    for (std::size_t j = 0; j < nb_elements; ++j) rank_of[j] = static_cast<idx_t>(j);
    return status_ok;
  }
  // METIS counts in 32-bit integers here.
  if (nb_elements * 27 > static_cast<std::size_t>(std::numeric_limits<idx_t>::max())) return partitioner_failed;
  idx_t ne = static_cast<idx_t>(nb_elements), nn = static_cast<idx_t>(nb_nodes), nparts = nb_ranks, objval = 0, one = 1,
        ncommon = 3;
  idx_t options[METIS_NOPTIONS];
  METIS_SetDefaultOptions(options);
  options[METIS_OPTION_NUMBERING] = 0;
  std::vector<idx_t> start, adjacent;
  int status = status_ok;
  int metis;
  if (dual_graph(connect, type, start, adjacent, status)) {
    if (status != status_ok) return status;
    metis = METIS_PartGraphKway(&ne, &one, start.data(), adjacent.data(), nullptr, nullptr, nullptr, &nparts, nullptr,
                                nullptr, options, &objval, rank_of.data());
  } else {
    // The high-order mixed layout: METIS builds the dual graph from the corners.
    std::vector<idx_t> corners;
    start.assign(nb_elements + 1, 0);
    for (std::size_t j = 0; j < nb_elements; ++j) {
      const unsigned* column = connect.data() + j * connect.ld();
      const unsigned n = detail::corners_of_column(column, type);
      for (unsigned k = 0; k < n; ++k)
        if (column[k] != elfes::ABSENT) corners.push_back(static_cast<idx_t>(column[k]));
      start[j + 1] = static_cast<idx_t>(corners.size());
    }
    std::vector<idx_t> node_part(nb_nodes);
    metis = METIS_PartMeshDual(&ne, &nn, start.data(), corners.data(), nullptr, nullptr, &ncommon, &nparts, nullptr,
                               options, &objval, rank_of.data(), node_part.data());
  }
  if (metis == METIS_ERROR_MEMORY) return status_out_of_memory;
  return metis == METIS_OK ? status_ok : partitioner_failed;
}

// Rank r's node list: the nodes of its elements and its share of the unused ones,
// ascending. `stamp` marks the nodes already listed for r.
void nodes_of_rank(const dense2D<unsigned>& connect, const plan& p, int r, std::vector<int>& stamp,
                   std::vector<unsigned>& nodes) {
  nodes.clear();
  for (std::uint64_t e = p.element_start[r]; e < p.element_start[r + 1]; ++e) {
    const unsigned* column = connect.data() + std::size_t(p.elements[e]) * connect.ld();
    for (std::size_t k = 0; k < connect.rows(); ++k)
      if (column[k] != elfes::ABSENT && stamp[column[k]] != r) {
        stamp[column[k]] = r;
        nodes.push_back(column[k]);
      }
  }
  nodes.insert(nodes.end(), p.unused.begin() + p.unused_start[r], p.unused.begin() + p.unused_start[r + 1]);
  std::sort(nodes.begin(), nodes.end());
}

// The root's plan: the partition, each rank's elements, and the sizes of every part.
int make_plan(const dense2D<unsigned>& connect, element_type type, unsigned nb_nodes, int nb_ranks, plan& p) {
  std::vector<idx_t> rank_of;
  const int status = partition(connect, type, nb_nodes, nb_ranks, rank_of);
  if (status != status_ok) return status;
  const auto ranks = static_cast<std::size_t>(nb_ranks);
  const std::size_t nb_elements = connect.cols();
  p.element_start.assign(ranks + 1, 0);
  for (idx_t r : rank_of) ++p.element_start[r + 1];
  for (std::size_t r = 0; r < ranks; ++r) p.element_start[r + 1] += p.element_start[r];
  p.elements.resize(nb_elements);
  std::vector<std::uint64_t> next(p.element_start.begin(), p.element_start.end() - 1);
  for (std::size_t j = 0; j < nb_elements; ++j) p.elements[next[rank_of[j]]++] = static_cast<unsigned>(j);

  std::vector<char> used(nb_nodes, 0);
  for (std::size_t j = 0; j < nb_elements; ++j) {
    const unsigned* column = connect.data() + j * connect.ld();
    for (std::size_t k = 0; k < connect.rows(); ++k)
      if (column[k] != elfes::ABSENT) used[column[k]] = 1;
  }
  for (unsigned i = 0; i < nb_nodes; ++i)
    if (!used[i]) p.unused.push_back(i);
  p.unused_start.resize(ranks + 1);
  for (std::size_t r = 0; r <= ranks; ++r) p.unused_start[r] = p.unused.size() * r / ranks;

  p.sizes.assign(2 * ranks, 0);
  std::vector<int> stamp(nb_nodes, -1);
  std::vector<unsigned> nodes;
  for (int r = 0; r < nb_ranks; ++r) {
    nodes_of_rank(connect, p, r, stamp, nodes);
    p.sizes[2 * r] = nodes.size();
    p.sizes[2 * r + 1] = p.element_start[r + 1] - p.element_start[r];
  }
  return status_ok;
}

// The four arrays of a part, as they travel: node IDs, coordinates, element IDs,
// connectivity (contiguous: ld = rows).
struct part_buffers {
  std::uint64_t* node_ids;
  double* coords;
  std::uint64_t* element_ids;
  unsigned* connect;
};

part_buffers buffers_of(part& q) {
  return {q.node_ids.data(), q.coords.data(), q.element_ids.data(), q.connect.data()};
}

std::uint64_t nb_part_requests(std::uint64_t nb_nodes, std::uint64_t nb_elements, std::uint64_t rows) {
  return detail::nb_pieces(nb_nodes * sizeof(std::uint64_t)) + detail::nb_pieces(3 * nb_nodes * sizeof(double)) +
         detail::nb_pieces(nb_elements * sizeof(std::uint64_t)) +
         detail::nb_pieces(rows * nb_elements * sizeof(unsigned));
}

// Posts the sends (or receives) of a part's arrays; returns the number of requests.
int post_part(MPI_Comm comm, int peer, bool sending, const part_buffers& b, std::uint64_t nb_nodes,
              std::uint64_t nb_elements, std::uint64_t rows, MPI_Request* requests) {
  void* arrays[4] = {b.node_ids, b.coords, b.element_ids, b.connect};
  const std::uint64_t bytes[4] = {nb_nodes * sizeof(std::uint64_t), 3 * nb_nodes * sizeof(double),
                                  nb_elements * sizeof(std::uint64_t), rows * nb_elements * sizeof(unsigned)};
  MPI_Request* next = requests;
  for (int k = 0; k < 4; ++k)
    next = sending ? detail::post_send(comm, peer, part_tag, arrays[k], bytes[k], next)
                   : detail::post_receive(comm, peer, part_tag, arrays[k], bytes[k], next);
  return static_cast<int>(next - requests);
}

// Fills rank r's arrays on the root, local node IDs in ascending global ID.
void pack_part(const dense2D<double>& coords, const dense2D<unsigned>& connect, const plan& p, int r,
               const std::vector<unsigned>& nodes, std::vector<unsigned>& local_of, const part_buffers& b) {
  for (std::size_t i = 0; i < nodes.size(); ++i) {
    local_of[nodes[i]] = static_cast<unsigned>(i);
    b.node_ids[i] = nodes[i];
    const double* from = coords.data() + std::size_t(nodes[i]) * coords.ld();
    b.coords[3 * i] = from[0], b.coords[3 * i + 1] = from[1], b.coords[3 * i + 2] = from[2];
  }
  const std::size_t rows = connect.rows();
  for (std::uint64_t e = p.element_start[r], j = 0; e < p.element_start[r + 1]; ++e, ++j) {
    b.element_ids[j] = p.elements[e];
    const unsigned* from = connect.data() + std::size_t(p.elements[e]) * connect.ld();
    unsigned* to = b.connect + j * rows;
    for (std::size_t k = 0; k < rows; ++k) to[k] = from[k] == elfes::ABSENT ? elfes::ABSENT : local_of[from[k]];
  }
}

// The root's scratch, sized before the parts leave so that nothing can fail after the
// other ranks have started to wait for theirs.
struct root_scratch {
  std::vector<int> stamp;
  std::vector<unsigned> nodes, local_of;
  std::vector<std::uint64_t> node_ids, element_ids;
  std::vector<double> coords;
  std::vector<unsigned> connect;
  std::vector<MPI_Request> requests;

  void size(const plan& p, std::size_t nb_nodes, std::size_t rows, int root) {
    std::uint64_t most_nodes = 0, most_elements = 0, most_requests = 0;
    for (std::size_t r = 0; 2 * r < p.sizes.size(); ++r) {
      if (static_cast<int>(r) == root) continue;
      most_nodes = std::max(most_nodes, p.sizes[2 * r]);
      most_elements = std::max(most_elements, p.sizes[2 * r + 1]);
      most_requests = std::max(most_requests, nb_part_requests(p.sizes[2 * r], p.sizes[2 * r + 1], rows));
    }
    stamp.assign(nb_nodes, -1);
    local_of.assign(nb_nodes, elfes::ABSENT);
    // A rank's node list holds each of its nodes once, plus its unused ones.
    nodes.reserve(std::max(most_nodes, p.sizes[2 * root]));
    node_ids.resize(most_nodes);
    coords.resize(3 * most_nodes);
    element_ids.resize(most_elements);
    connect.resize(rows * most_elements);
    requests.resize(most_requests);
  }
  part_buffers buffers() { return {node_ids.data(), coords.data(), element_ids.data(), connect.data()}; }
};

int distribute_on(const detail::private_comm& comm, int root, const dense2D<double>& coords,
                  const dense2D<unsigned>& connect, part& out) {
  const int rank = comm.rank(), size = comm.size();
  const bool is_root = rank == root;
  element_type type = TH4;

  // The root's checks, then its plan; every rank learns the outcome.
  int status = status_ok;
  plan p;
  if (is_root) {
    if (coords.rows() != 3 || coords.cols() >= std::numeric_limits<unsigned>::max())
      status = -3;
    else if (connect.cols() > 0 && (!detail::solid_layout_of_rows(connect.rows(), type) ||
                                    !tessel::check_IDs(connect, type, static_cast<unsigned>(coords.cols()))))
      status = -4;
    if (status == status_ok) {
      try {
        status = make_plan(connect, type, static_cast<unsigned>(coords.cols()), size, p);
      } catch (const std::bad_alloc&) {
        status = status_out_of_memory;
      }
    }
  }
  status = detail::agree_after_wait(comm.get(), status);
  if (status != status_ok) return status;
  // Every rank learns its sizes and the rows, and sizes its part; the root its scratch.
  std::uint64_t mine[2] = {0, 0}, rows = connect.rows();
  MPI_Scatter(is_root ? p.sizes.data() : nullptr, 2, MPI_UINT64_T, mine, 2, MPI_UINT64_T, root, comm.get());
  MPI_Bcast(&rows, 1, MPI_UINT64_T, root, comm.get());
  part result;
  root_scratch scratch;
  std::vector<MPI_Request> requests;
  if (!(result.coords.resize(3, mine[0]) && result.connect.resize(static_cast<std::size_t>(rows), mine[1]) &&
        result.node_ids.resize(mine[0]) && result.element_ids.resize(mine[1])))
    status = status_out_of_memory;
  else {
    try {
      if (is_root)
        scratch.size(p, coords.cols(), static_cast<std::size_t>(rows), root);
      else
        requests.resize(nb_part_requests(mine[0], mine[1], rows));
    } catch (const std::bad_alloc&) {
      status = status_out_of_memory;
    }
  }
  status = detail::agree(comm.get(), status);
  if (status != status_ok) return status;

  if (!is_root) {
    const int n = post_part(comm.get(), root, false, buffers_of(result), mine[0], mine[1], rows, requests.data());
    detail::wait_all_after_wait(n, requests.data());
  } else {
    // One part at a time, in the scratch sized above: nothing allocates from here on.
    for (int r = 0; r < size; ++r) {
      nodes_of_rank(connect, p, r, scratch.stamp, scratch.nodes);
      if (r == root) {
        pack_part(coords, connect, p, r, scratch.nodes, scratch.local_of, buffers_of(result));
        continue;
      }
      pack_part(coords, connect, p, r, scratch.nodes, scratch.local_of, scratch.buffers());
      const int n = post_part(comm.get(), r, true, scratch.buffers(), p.sizes[2 * r], p.sizes[2 * r + 1], rows,
                              scratch.requests.data());
      MPI_Waitall(n, scratch.requests.data(), MPI_STATUSES_IGNORE);
    }
  }
  out = result;
  return status_ok;
}

}  // namespace

int distribute(MPI_Comm comm, int root, const dense2D<double>& coords, const dense2D<unsigned>& connect, part& out) {
  if (comm == MPI_COMM_NULL) return -1;
  try {
    detail::private_comm own(comm);
    if (!detail::root_agreed(own.get(), root)) return detail::agree(own.get(), -2);
    return distribute_on(own, root, coords, connect, out);
  } catch (const std::bad_alloc&) {
    return status_out_of_memory;
  }
}

}  // namespace mpi
}  // namespace tessel3d
}  // namespace zel
