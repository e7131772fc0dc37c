// extrude_normal over MPI: each rank grows its faces along nodal vectors, given, or the
// unit normals of the whole surface: at a node shared by several ranks, the faces of
// every rank add their angle-weighted normals in the order of their global IDs.
#include <algorithm>
#include <cmath>

#include "mpi/extrude_part.h"

namespace zel {
namespace tessel3d {
namespace mpi {
namespace {

// A face's share of a node's normal: its unit normal weighted by its angle at the node.
struct normal_share {
  std::uint32_t node;    // the local node, or (in messages) its place in the shared list
  std::uint32_t corner;  // the node's corner in the face
  std::uint64_t face;    // global face ID
  double v[3];
};

bool share_before(const normal_share& a, const normal_share& b) {
  return a.node != b.node ? a.node < b.node : a.face != b.face ? a.face < b.face : a.corner < b.corner;
}

double angle_between(const double* u, const double* v) {
  const double p = std::sqrt((u[0] * u[0] + u[1] * u[1] + u[2] * u[2]) * (v[0] * v[0] + v[1] * v[1] + v[2] * v[2]));
  if (!(p > 0)) return 0;
  double c = (u[0] * v[0] + u[1] * v[1] + u[2] * v[2]) / p;
  c = c > 1 ? 1 : (c < -1 ? -1 : c);
  return std::acos(c);
}

// The shares of the local faces, with the formulas of zel::tessel2d::normals.
void local_shares(const part& surface, std::vector<normal_share>& shares) {
  const dense2D<unsigned>& faces = surface.connect;
  for (std::size_t j = 0; j < faces.cols(); ++j) {
    const unsigned corners = (faces.rows() == 4 && faces(3, j) != tessel::ABSENT) ? 4 : 3;
    const double* p[4];
    for (unsigned k = 0; k < corners; ++k) p[k] = &surface.coords(0, faces(k, j));
    auto sub = [](const double* a, const double* b, double* out) {
      for (unsigned d = 0; d < 3; ++d) out[d] = a[d] - b[d];
    };
    double a[3], b[3];
    if (corners == 3)
      sub(p[1], p[0], a), sub(p[2], p[0], b);
    else
      sub(p[2], p[0], a), sub(p[3], p[1], b);
    const double n[3] = {a[1] * b[2] - a[2] * b[1], a[2] * b[0] - a[0] * b[2], a[0] * b[1] - a[1] * b[0]};
    const double length = std::sqrt(n[0] * n[0] + n[1] * n[1] + n[2] * n[2]);
    if (!(length > 0)) continue;
    const double unit[3] = {n[0] / length, n[1] / length, n[2] / length};
    for (unsigned k = 0; k < corners; ++k) {
      double u[3], w[3];
      sub(p[(k + 1) % corners], p[k], u);
      sub(p[(k + corners - 1) % corners], p[k], w);
      const double weight = angle_between(u, w);
      shares.push_back(
          {faces(k, j), k, surface.element_ids[j], {weight * unit[0], weight * unit[1], weight * unit[2]}});
    }
  }
}

// The unit normal of every local node over the faces of every rank (0 for a node in no
// face), the same bits on every rank holding the node. Collective: 0 | -2 | -199.
int surface_normals(MPI_Comm comm, const part& surface, dense2D<double>& normals) {
  std::vector<normal_share> shares;
  int status = detail::guarded([&] {
    if (!tessel::check_IDs(surface.connect, FACE_MIX4, unsigned(surface.coords.cols()))) return -2;
    local_shares(surface, shares);
    return 0;
  });
  if ((status = detail::agree(comm, status)) != 0) return status;
  detail::node_sharing sharing;
  if ((status = detail::build_node_sharing(comm, surface.node_ids, sharing)) != 0) return status;

  std::vector<std::vector<normal_share>> send, received;
  status = detail::guarded([&] {
    std::sort(shares.begin(), shares.end(), share_before);
    std::vector<std::size_t> first(surface.coords.cols() + 1, 0);  // shares of node n: [first[n], first[n + 1])
    for (const normal_share& s : shares) ++first[s.node + 1];
    for (std::size_t n = 0; n < surface.coords.cols(); ++n) first[n + 1] += first[n];
    send.resize(sharing.neighbours.size());
    for (std::size_t k = 0; k < sharing.neighbours.size(); ++k)
      for (std::size_t i = 0; i < sharing.shared[k].size(); ++i) {
        const unsigned n = sharing.shared[k][i];
        for (std::size_t s = first[n]; s < first[n + 1]; ++s) {
          normal_share out = shares[s];
          out.node = std::uint32_t(i);
          send[k].push_back(out);
        }
      }
    return 0;
  });
  if ((status = detail::agree(comm, status)) != 0) return status;
  if ((status = detail::exchange(comm, sharing, send, received)) != 0) return status;
  status = detail::guarded([&] {
    for (std::size_t k = 0; k < received.size(); ++k)
      for (normal_share s : received[k]) {
        s.node = sharing.shared[k][s.node];
        shares.push_back(s);
      }
    std::sort(shares.begin(), shares.end(), share_before);
    if (!normals.resize(3, surface.coords.cols(), 0.0)) return detail::out_of_memory;
    for (const normal_share& s : shares)
      for (unsigned d = 0; d < 3; ++d) normals(d, s.node) += s.v[d];
    for (std::size_t n = 0; n < normals.cols(); ++n) {
      const double length =
          std::sqrt(normals(0, n) * normals(0, n) + normals(1, n) * normals(1, n) + normals(2, n) * normals(2, n));
      if (length > 0)
        for (unsigned d = 0; d < 3; ++d) normals(d, n) /= length;
    }
    return 0;
  });
  return detail::agree(comm, status);
}

}  // namespace

int extrude_normal(MPI_Comm comm, const part& surface, const dense2D<double>& node_normals, unsigned nbLayers,
                   part& solids) {
  detail::sweep_extras extras;
  extras.status = node_normals.rows() == 3 && node_normals.cols() == surface.coords.cols() ? 0 : -3;
  return detail::extrude_part(
      comm, surface, extras,
      [&](dense2D<double>& coords, const dense2D<unsigned>& faces, dense2D<unsigned>& connectE) {
        return tessel3d::extrude_normal(coords, faces, node_normals, nbLayers, connectE);
      },
      solids);
}

int extrude_normal(MPI_Comm comm, const part& surface, double thickness, unsigned nbLayers, part& solids) {
  if (comm == MPI_COMM_NULL) return -1;
  int status = detail::check_surface_part(surface);
  if (status == 0 && nbLayers > 0 && !(thickness > 0)) status = -3;
  dense2D<double> vectors;
  {
    const detail::private_comm own(comm);
    if ((status = detail::agree(own.get(), status)) != 0) return status;
    if (nbLayers == 0) return 0;
    if ((status = surface_normals(own.get(), surface, vectors)) != 0) return status;
  }
  for (std::size_t n = 0; n < vectors.cols(); ++n)
    for (unsigned d = 0; d < 3; ++d) vectors(d, n) *= thickness;
  return extrude_normal(comm, surface, vectors, nbLayers, solids);
}

}  // namespace mpi
}  // namespace tessel3d
}  // namespace zel
