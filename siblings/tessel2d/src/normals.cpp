// normals: angle-weighted nodal normals of a triangle / quadrangle surface.
#include <cmath>

#include "zel/tessel.h"
#include "zel/tessel2d.h"

namespace zel {
namespace tessel2d {
namespace {

struct vec3 {
  double x, y, z;
};
inline vec3 sub(const double* a, const double* b) { return {a[0] - b[0], a[1] - b[1], a[2] - b[2]}; }
inline vec3 cross(const vec3& a, const vec3& b) {
  return {a.y * b.z - a.z * b.y, a.z * b.x - a.x * b.z, a.x * b.y - a.y * b.x};
}
inline double dot(const vec3& a, const vec3& b) { return a.x * b.x + a.y * b.y + a.z * b.z; }

// Angle between u and v in [0, pi], 0 when either is null.
inline double angle_between(const vec3& u, const vec3& v) {
  const double p = std::sqrt(dot(u, u) * dot(v, v));
  if (!(p > 0)) return 0;
  double c = dot(u, v) / p;
  c = c > 1 ? 1 : (c < -1 ? -1 : c);
  return std::acos(c);
}

// Adds each face's unit normal, weighted by its angle at the node, to the node's sum.
// With `reference` given, a face counts at a node only when its normal lies within
// max_angle of the node's reference direction.
void accumulate(const dense2D<double>& coords, const dense2D<unsigned>& faces, double* sums, const double* reference,
                double max_angle) {
  const std::size_t ldc = coords.ld();
  const double* xyz = coords.data();
  const unsigned* face = faces.data();
  for (std::size_t j = 0; j < faces.cols(); ++j, face += faces.ld()) {
    const unsigned corners = (faces.rows() == 4 && face[3] != tessel::ABSENT) ? 4 : 3;
    const double* p[4];
    for (unsigned k = 0; k < corners; ++k) p[k] = xyz + std::size_t(face[k]) * ldc;
    const vec3 n = corners == 3 ? cross(sub(p[1], p[0]), sub(p[2], p[0])) : cross(sub(p[2], p[0]), sub(p[3], p[1]));
    const double length = std::sqrt(dot(n, n));
    if (!(length > 0)) continue;
    const vec3 unit = {n.x / length, n.y / length, n.z / length};
    for (unsigned k = 0; k < corners; ++k) {
      double* sum = sums + 3 * std::size_t(face[k]);
      if (reference) {
        const double* r = reference + 3 * std::size_t(face[k]);
        if (angle_between(unit, {r[0], r[1], r[2]}) > max_angle) continue;
      }
      const double weight = angle_between(sub(p[(k + 1) % corners], p[k]), sub(p[(k + corners - 1) % corners], p[k]));
      sum[0] += weight * unit.x;
      sum[1] += weight * unit.y;
      sum[2] += weight * unit.z;
    }
  }
}

// Corners 0-2 of every face must be nodes; corner 3 (4-row form) a node or ~0U.
bool faces_valid(const dense2D<unsigned>& faces, unsigned nbNodes) {
  if (faces.empty()) return true;
  if (faces.rows() != 3 && faces.rows() != 4) return false;
  const unsigned* face = faces.data();
  for (std::size_t j = 0; j < faces.cols(); ++j, face += faces.ld()) {
    if (face[0] >= nbNodes || face[1] >= nbNodes || face[2] >= nbNodes) return false;
    if (faces.rows() == 4 && face[3] >= nbNodes && face[3] != tessel::ABSENT) return false;
  }
  return true;
}

}  // namespace

int normals(const dense2D<double>& coords, const dense2D<unsigned>& connectS, double angle, bool unit,
            dense2D<double>& normals) {
  if (coords.rows() != 3) return -1;
  const unsigned nbNodes = static_cast<unsigned>(coords.cols());
  if (!faces_valid(connectS, nbNodes)) return -2;
  if (!(angle >= 0)) return -3;

  dense2D<double> result;
  if (!result.resize(3, coords.cols(), 0.0)) return tessel::OUT_OF_MEMORY;
  accumulate(coords, connectS, result.data(), nullptr, 0);
  if (angle > 0 && !connectS.empty()) {
    // Second pass against the all-face average: faces beyond the feature angle drop out.
    dense2D<double> filtered;
    if (!filtered.resize(3, coords.cols(), 0.0)) return tessel::OUT_OF_MEMORY;
    accumulate(coords, connectS, filtered.data(), result.data(), angle);
    for (std::size_t j = 0; j < coords.cols(); ++j) {
      const double* f = &filtered(0, j);
      if (f[0] != 0 || f[1] != 0 || f[2] != 0)
        for (int d = 0; d < 3; ++d) result(d, j) = f[d];
    }
  }
  if (unit) {
    for (std::size_t j = 0; j < coords.cols(); ++j) {
      double* n = &result(0, j);
      const double length = std::sqrt(n[0] * n[0] + n[1] * n[1] + n[2] * n[2]);
      if (length > 0)
        for (int d = 0; d < 3; ++d) n[d] /= length;
    }
  }
  normals.swap(result);
  return 0;
}

}  // namespace tessel2d
}  // namespace zel
