// What the distributed extrusions share: each rank sweeps its own faces with the
// one-machine extrusion, then the new nodes and solids get global IDs that every rank
// derives alone: the copy of the node with global ID g in layer k is node
// k * (G + 1) + g, G the largest global node ID of the surface on any rank, and the solid
// of layer k over the face with global ID f is element f * N + (k - 1), N the layer
// count (the one-machine column of that solid when the face IDs are the one-machine
// columns). The positions of the copies depend only on their node's position, the same
// on every rank.
#pragma once

#include <algorithm>
#include <cstdint>
#include <vector>

#include "mpi/record_exchange.h"
#include "zel/tessel3d_mpi.h"

namespace zel {
namespace tessel3d {
namespace mpi {
namespace detail {

/// The checks of a surface part: 0 | -2 coords not 3 rows, connect with columns and not
/// 3 or 4 rows, node_ids or element_ids not one per node / face.
inline int check_surface_part(const part& surface) {
  if (surface.coords.rows() != 3) return -2;
  if (!surface.connect.empty() && surface.connect.rows() != 3 && surface.connect.rows() != 4) return -2;
  if (surface.node_ids.size() != surface.coords.cols() || surface.element_ids.size() != surface.connect.cols())
    return -2;
  return 0;
}

/// The extra input of a sweep: nodes appended after the part's own (a polyline), and
/// whether a face holding the first node of the mesh's first face (lowest global face
/// ID) is put before the part's faces, for the sweeps whose length that node gives.
struct sweep_extras {
  const dense2D<double>* appended = nullptr;  // 3 x #extra nodes, or none
  bool first_node_first = false;
  int status = 0;  // the sweep's own checks of its arguments (0 or -k), agreed with the part's
};

// The distinct nodes of a 3- or 4-row surface in order of first appearance (columns in
// order, rows in order, ABSENT skipped): the order in which the one-machine extrusions
// number the copies.
inline std::vector<unsigned> nodes_in_first_appearance(const dense2D<unsigned>& faces, std::size_t nb_nodes) {
  std::vector<unsigned> order;
  std::vector<unsigned char> seen(nb_nodes, 0);
  for (std::size_t j = 0; j < faces.cols(); ++j)
    for (std::size_t i = 0; i < faces.rows(); ++i) {
      const unsigned n = faces(i, j);
      if (n == tessel::ABSENT || seen[n]) continue;
      seen[n] = 1;
      order.push_back(n);
    }
  return order;
}

/// Runs sweep(coords, faces, connectE) (a one-machine extrusion's short form, returning
/// its status) on this rank's faces and builds `solids`. Collective; the same status on
/// every rank: 0 | -1 | -2 | the sweep's own codes | -3 when the ranks' parameters give
/// different layer counts | -199 (also when the global IDs would not fit in 64 bits).
/// solids is unchanged on failure.
template <class Sweep>
int extrude_part(MPI_Comm caller, const part& surface, const sweep_extras& extras, const Sweep& sweep, part& solids) {
  if (caller == MPI_COMM_NULL) return -1;
  const private_comm own(caller);
  const MPI_Comm comm = own.get();
  int status = check_surface_part(surface);
  if (status == 0) status = extras.status;
  if ((status = agree(comm, status)) != 0) return status;

  // Every rank's solids get the same row count: 4-row faces (triangles padded with
  // ABSENT) as soon as one rank has quadrangles.
  unsigned rows = surface.connect.empty() ? 3 : unsigned(surface.connect.rows());
  MPI_Allreduce(MPI_IN_PLACE, &rows, 1, MPI_UNSIGNED, MPI_MAX, comm);

  // The first node of the mesh's first face, found on every rank.
  std::uint64_t first_face = ~std::uint64_t(0);
  double first_node[3] = {0, 0, 0};
  if (extras.first_node_first) {
    struct candidate {
      std::uint64_t id;
      double xyz[3];
    } mine{~std::uint64_t(0), {0, 0, 0}};
    for (std::size_t j = 0; j < surface.connect.cols(); ++j)
      if (surface.element_ids[j] < mine.id) {
        mine.id = surface.element_ids[j];
        const unsigned n = surface.connect(0, j);
        for (unsigned d = 0; d < 3; ++d) mine.xyz[d] = n < surface.coords.cols() ? surface.coords(d, n) : 0.0;
      }
    std::vector<candidate> all;
    status = guarded([&] {
      int size = 1;
      MPI_Comm_size(comm, &size);
      all.resize(std::size_t(size));
      return 0;
    });
    if ((status = agree(comm, status)) != 0) return status;
    MPI_Allgather(&mine, int(sizeof mine), MPI_BYTE, all.data(), int(sizeof mine), MPI_BYTE, comm);
    for (const candidate& c : all)
      if (c.id < first_face) {
        first_face = c.id;
        std::copy(c.xyz, c.xyz + 3, first_node);
      }
  }
  const bool prepend = extras.first_node_first && first_face != ~std::uint64_t(0);

  // The one-machine sweep on this rank's faces (and extras).
  const std::size_t nb_own = surface.coords.cols(), nb_appended = extras.appended ? extras.appended->cols() : 0;
  const std::size_t nb_in = nb_own + nb_appended + (prepend ? 1 : 0), nb_faces = surface.connect.cols();
  dense2D<double> coords;
  dense2D<unsigned> faces, connectE;
  status = guarded([&] {
    if (!coords.resize(3, nb_in) || !faces.resize(rows, nb_faces + (prepend ? 1 : 0), tessel::ABSENT))
      return out_of_memory;
    for (std::size_t n = 0; n < nb_own; ++n)
      for (unsigned d = 0; d < 3; ++d) coords(d, n) = surface.coords(d, n);
    for (std::size_t n = 0; n < nb_appended; ++n)
      for (unsigned d = 0; d < 3; ++d) coords(d, nb_own + n) = (*extras.appended)(d, n);
    if (prepend) {
      for (unsigned d = 0; d < 3; ++d) coords(d, nb_in - 1) = first_node[d];
      for (unsigned i = 0; i < 3; ++i) faces(i, 0) = unsigned(nb_in - 1);
    }
    const std::size_t shift = prepend ? 1 : 0;
    for (std::size_t j = 0; j < nb_faces; ++j)
      for (std::size_t i = 0; i < surface.connect.rows(); ++i) faces(i, j + shift) = surface.connect(i, j);
    return sweep(coords, faces, connectE);
  });
  if ((status = agree(comm, status)) != 0) return status;

  // Layer count and the room of the global IDs.
  const std::size_t nb_swept = faces.cols();
  // N, its complement (for the smallest N), largest node ID, largest face ID + 1.
  std::uint64_t global[4] = {0, 0, 0, 0};
  if (nb_swept > 0) global[0] = connectE.cols() / nb_swept, global[1] = ~global[0];
  for (std::size_t n = 0; n < nb_own; ++n) global[2] = std::max(global[2], surface.node_ids[n]);
  for (std::size_t j = 0; j < nb_faces; ++j) global[3] = std::max(global[3], surface.element_ids[j] + 1);
  MPI_Allreduce(MPI_IN_PLACE, global, 4, MPI_UINT64_T, MPI_MAX, comm);
  const std::uint64_t N = global[0], stride = global[2] + 1, max64 = ~std::uint64_t(0);
  // Parameters that differ between ranks would give different layer counts.
  if (global[1] != 0 && ~global[1] != N) return -3;
  if (stride == 0 || (N > 0 && (N >= max64 / stride || global[3] > max64 / N))) return out_of_memory;

  part built;
  status = guarded([&] {
    const std::vector<unsigned> order = nodes_in_first_appearance(faces, nb_in);
    std::vector<unsigned> renumber(coords.cols(), tessel::ABSENT);
    std::size_t nb_out = nb_own;
    for (std::size_t k = 1; k <= N; ++k)
      for (unsigned n : order) nb_out += n < nb_own;
    if (!built.coords.resize(3, nb_out) || !built.node_ids.resize(nb_out)) return out_of_memory;
    std::size_t next = 0;
    auto keep = [&](std::size_t from, std::uint64_t id) {
      for (unsigned d = 0; d < 3; ++d) built.coords(d, next) = coords(d, from);
      built.node_ids[next] = id;
      renumber[from] = unsigned(next++);
    };
    for (std::size_t n = 0; n < nb_own; ++n) keep(n, surface.node_ids[n]);
    for (std::size_t k = 1; k <= N; ++k)
      for (std::size_t pos = 0; pos < order.size(); ++pos)
        if (order[pos] < nb_own) keep(nb_in + (k - 1) * order.size() + pos, k * stride + surface.node_ids[order[pos]]);
    const std::size_t skipped = prepend ? std::size_t(N) : 0;
    const std::size_t nb_solids = connectE.cols() - skipped;
    const std::size_t out_rows = connectE.cols() ? connectE.rows() : 2 * std::size_t(rows);
    if (!built.connect.resize(out_rows, nb_solids) || !built.element_ids.resize(nb_solids)) return out_of_memory;
    for (std::size_t j = 0; j < nb_solids; ++j) {
      for (std::size_t i = 0; i < connectE.rows(); ++i) {
        const unsigned n = connectE(i, j + skipped);
        built.connect(i, j) = n == tessel::ABSENT ? n : renumber[n];
      }
      built.element_ids[j] = surface.element_ids[j / N] * N + j % N;
    }
    return 0;
  });
  if ((status = agree(comm, status)) != 0) return status;
  solids = built;
  return 0;
}

}  // namespace detail
}  // namespace mpi
}  // namespace tessel3d
}  // namespace zel
