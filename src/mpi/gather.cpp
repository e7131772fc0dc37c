// gather: the one-machine mesh of a partitioned one, rebuilt on one rank.
#include <algorithm>
#include <cstdint>
#include <limits>
#include <vector>

#include "mpi/node_sharing.h"
#include "zel/tessel.h"
#include "zel/tessel3d_mpi.h"

namespace zel {
namespace tessel3d {
namespace mpi {
namespace {

using detail::status_ok;
using detail::status_out_of_memory;

constexpr int gather_tag = 7321;
constexpr std::uint64_t no_rows = std::numeric_limits<std::uint64_t>::max();

// What one rank sends: its node IDs, coordinates (3 per node), element IDs and local
// connectivity (rows per element), all contiguous.
struct incoming_part {
  std::uint64_t nb_nodes = 0, nb_elements = 0;
  std::vector<std::uint64_t> node_ids, element_ids;
  std::vector<double> coords;
  std::vector<unsigned> connect;
};

bool part_is_valid(const part& p) {
  const std::size_t nb_nodes = p.node_ids.size();
  if (p.coords.cols() != nb_nodes || (nb_nodes > 0 && p.coords.rows() < 3)) return false;
  if (p.connect.cols() != p.element_ids.size() || nb_nodes >= std::numeric_limits<unsigned>::max()) return false;
  return tessel::check_IDs(p.connect, static_cast<unsigned>(nb_nodes));
}

// This rank's arrays, contiguous, ready to travel.
void flatten(const part& p, incoming_part& flat) {
  flat.nb_nodes = p.node_ids.size();
  flat.nb_elements = p.element_ids.size();
  flat.node_ids.assign(p.node_ids.data(), p.node_ids.data() + flat.nb_nodes);
  flat.element_ids.assign(p.element_ids.data(), p.element_ids.data() + flat.nb_elements);
  flat.coords.resize(3 * flat.nb_nodes);
  for (std::size_t i = 0; i < flat.nb_nodes; ++i)
    for (int c = 0; c < 3; ++c) flat.coords[3 * i + c] = p.coords(c, i);
  const std::size_t rows = p.connect.rows();
  flat.connect.resize(rows * flat.nb_elements);
  for (std::size_t j = 0; j < flat.nb_elements; ++j)
    std::copy(p.connect.data() + j * p.connect.ld(), p.connect.data() + j * p.connect.ld() + rows,
              flat.connect.data() + j * rows);
}

int post(MPI_Comm comm, int peer, bool sending, incoming_part& q, std::uint64_t rows, MPI_Request* requests) {
  void* arrays[4] = {q.node_ids.data(), q.coords.data(), q.element_ids.data(), q.connect.data()};
  const std::uint64_t bytes[4] = {q.nb_nodes * sizeof(std::uint64_t), 3 * q.nb_nodes * sizeof(double),
                                  q.nb_elements * sizeof(std::uint64_t), rows * q.nb_elements * sizeof(unsigned)};
  MPI_Request* next = requests;
  for (int k = 0; k < 4; ++k)
    next = sending ? detail::post_send(comm, peer, gather_tag, arrays[k], bytes[k], next)
                   : detail::post_receive(comm, peer, gather_tag, arrays[k], bytes[k], next);
  return static_cast<int>(next - requests);
}

std::uint64_t nb_requests(const incoming_part& q, std::uint64_t rows) {
  return detail::nb_pieces(q.nb_nodes * 8) + detail::nb_pieces(q.nb_nodes * 24) + detail::nb_pieces(q.nb_elements * 8) +
         detail::nb_pieces(rows * q.nb_elements * sizeof(unsigned));
}

// On the root: the one-machine mesh from every rank's arrays; -3 for a repeated element
// ID. A node takes the coordinates of the lowest rank holding it.
int assemble(const std::vector<incoming_part>& parts, std::uint64_t rows, dense2D<double>& coords,
             dense2D<unsigned>& connect) {
  struct node_ref {
    std::uint64_t id;
    std::uint32_t rank;
    std::uint32_t local;
  };
  std::vector<node_ref> nodes;
  std::uint64_t nb_entries = 0, nb_elements = 0;
  for (const incoming_part& q : parts) nb_entries += q.nb_nodes, nb_elements += q.nb_elements;
  nodes.reserve(nb_entries);
  for (std::size_t r = 0; r < parts.size(); ++r)
    for (std::uint64_t i = 0; i < parts[r].nb_nodes; ++i)
      nodes.push_back({parts[r].node_ids[i], static_cast<std::uint32_t>(r), static_cast<std::uint32_t>(i)});
  std::sort(nodes.begin(), nodes.end(),
            [](const node_ref& a, const node_ref& b) { return a.id != b.id ? a.id < b.id : a.rank < b.rank; });
  // dense_of[r][i]: the one-machine column of rank r's local node i.
  std::vector<std::vector<unsigned>> dense_of(parts.size());
  for (std::size_t r = 0; r < parts.size(); ++r) dense_of[r].resize(parts[r].nb_nodes);
  std::vector<std::size_t> first_of_id;  // index in `nodes` of each distinct ID's first holder
  for (std::size_t k = 0; k < nodes.size(); ++k) {
    if (k == 0 || nodes[k].id != nodes[k - 1].id) first_of_id.push_back(k);
    dense_of[nodes[k].rank][nodes[k].local] = static_cast<unsigned>(first_of_id.size() - 1);
  }
  if (first_of_id.size() >= std::numeric_limits<unsigned>::max()) return -3;

  struct element_ref {
    std::uint64_t id;
    std::uint32_t rank;
    std::uint64_t local;
  };
  std::vector<element_ref> elements;
  elements.reserve(nb_elements);
  for (std::size_t r = 0; r < parts.size(); ++r)
    for (std::uint64_t j = 0; j < parts[r].nb_elements; ++j)
      elements.push_back({parts[r].element_ids[j], static_cast<std::uint32_t>(r), j});
  std::sort(elements.begin(), elements.end(), [](const element_ref& a, const element_ref& b) { return a.id < b.id; });
  for (std::size_t k = 1; k < elements.size(); ++k)
    if (elements[k].id == elements[k - 1].id) return -3;

  dense2D<double> new_coords;
  dense2D<unsigned> new_connect;
  const std::size_t nb_rows = elements.empty() ? (rows == no_rows ? 0 : rows) : rows;
  if (!new_coords.resize(3, first_of_id.size()) || !new_connect.resize(nb_rows, elements.size()))
    return status_out_of_memory;
  for (std::size_t d = 0; d < first_of_id.size(); ++d) {
    const node_ref& n = nodes[first_of_id[d]];
    for (int c = 0; c < 3; ++c) new_coords(c, d) = parts[n.rank].coords[3 * std::size_t(n.local) + c];
  }
  for (std::size_t j = 0; j < elements.size(); ++j) {
    const element_ref& e = elements[j];
    const unsigned* from = parts[e.rank].connect.data() + e.local * nb_rows;
    unsigned* to = new_connect.data() + j * new_connect.ld();
    for (std::size_t k = 0; k < nb_rows; ++k)
      to[k] = from[k] == tessel::ABSENT ? tessel::ABSENT : dense_of[e.rank][from[k]];
  }
  coords = new_coords;
  connect = new_connect;
  return status_ok;
}

int gather_on(const detail::private_comm& comm, int root, const part& p, dense2D<double>& coords,
              dense2D<unsigned>& connect) {
  const int rank = comm.rank(), size = comm.size();
  const bool is_root = rank == root;

  // The parts' shapes, and one row count for every rank that has elements.
  int status = part_is_valid(p) ? status_ok : -3;
  std::uint64_t rows_range[2] = {no_rows, 0};
  if (p.element_ids.size() > 0)
    rows_range[0] = p.connect.rows(), rows_range[1] = ~std::uint64_t(p.connect.rows());
  else
    rows_range[1] = ~std::uint64_t(0);
  std::uint64_t agreed_rows[2];
  MPI_Allreduce(rows_range, agreed_rows, 2, MPI_UINT64_T, MPI_MIN, comm.get());
  const std::uint64_t rows = agreed_rows[0];
  if (rows != no_rows && rows != ~agreed_rows[1]) status = -3;
  status = detail::agree(comm.get(), status);
  if (status != status_ok) return status;
  // With no element anywhere, connect keeps the root's row count.
  std::uint64_t root_rows = p.connect.rows();
  MPI_Bcast(&root_rows, 1, MPI_UINT64_T, root, comm.get());
  const std::uint64_t nb_rows = rows == no_rows ? root_rows : rows;

  incoming_part mine;
  std::vector<incoming_part> parts;
  std::vector<MPI_Request> requests;
  std::uint64_t counts[2] = {p.node_ids.size(), p.element_ids.size()};
  std::vector<std::uint64_t> all_counts;
  try {
    flatten(p, mine);
    if (is_root) all_counts.resize(2 * std::size_t(size));
  } catch (const std::bad_alloc&) {
    status = status_out_of_memory;
  }
  status = detail::agree(comm.get(), status);
  if (status != status_ok) return status;
  MPI_Gather(counts, 2, MPI_UINT64_T, all_counts.data(), 2, MPI_UINT64_T, root, comm.get());
  try {
    if (is_root) {
      parts.resize(size);
      std::uint64_t total_requests = 0;
      for (int r = 0; r < size; ++r) {
        if (r == root) continue;
        incoming_part& q = parts[r];
        q.nb_nodes = all_counts[2 * r], q.nb_elements = all_counts[2 * r + 1];
        q.node_ids.resize(q.nb_nodes), q.coords.resize(3 * q.nb_nodes);
        q.element_ids.resize(q.nb_elements), q.connect.resize(nb_rows * q.nb_elements);
        total_requests += nb_requests(q, nb_rows);
      }
      requests.resize(total_requests);
    } else {
      requests.resize(nb_requests(mine, nb_rows));
    }
  } catch (const std::bad_alloc&) {
    status = status_out_of_memory;
  } catch (const std::length_error&) {
    status = status_out_of_memory;
  }
  status = detail::agree(comm.get(), status);
  if (status != status_ok) return status;

  MPI_Request* next = requests.data();
  if (is_root) {
    for (int r = 0; r < size; ++r)
      if (r != root) next += post(comm.get(), r, false, parts[r], nb_rows, next);
  } else {
    next += post(comm.get(), root, true, mine, nb_rows, next);
  }
  MPI_Waitall(static_cast<int>(next - requests.data()), requests.data(), MPI_STATUSES_IGNORE);

  if (is_root) {
    parts[root] = std::move(mine);
    try {
      status = assemble(parts, nb_rows, coords, connect);
    } catch (const std::bad_alloc&) {
      status = status_out_of_memory;
    }
  }
  return detail::agree_after_wait(comm.get(), status);
}

}  // namespace

int gather(MPI_Comm comm, int root, const part& p, dense2D<double>& coords, dense2D<unsigned>& connect) {
  if (comm == MPI_COMM_NULL) return -1;
  try {
    detail::private_comm own(comm);
    if (!detail::root_agreed(own.get(), root)) return detail::agree(own.get(), -2);
    return gather_on(own, root, p, coords, connect);
  } catch (const std::bad_alloc&) {
    return status_out_of_memory;
  }
}

}  // namespace mpi
}  // namespace tessel3d
}  // namespace zel
