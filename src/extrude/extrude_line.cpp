// extrude_line: layers of a cross-section swept along a polyline of existing nodes,
// turning with it and optionally scaled by a tensor or a factor per polyline node.
#include <cmath>
#include <limits>

#include "extrude/extrude_core.h"
#include "extrude/rotation.h"
#include "zel/lapack.h"
#include "zel/tessel.h"
#include "zel/tessel3d.h"

namespace zel {
namespace tessel3d {
namespace {

inline double dot(const double* a, const double* b) { return a[0] * b[0] + a[1] * b[1] + a[2] * b[2]; }

// Sizes from packed symmetric tensors (a11 a12 a22 a13 a23 a33), one column per polyline
// node: the size in the unit direction u is 1 / sqrt(u^T A u).
struct tensor_sizes {
  const dense2D<double>& metrics;

  bool valid(std::size_t k) const {
    if (k >= metrics.cols()) return false;
    double packed[6], eigenvalues[3], work[9];
    const double* column = metrics.data() + k * metrics.ld();
    for (int i = 0; i < 6; ++i) packed[i] = column[i];
    int info = 0;
    lapack::dspev('N', 'U', 3, packed, eigenvalues, nullptr, 1, work, info);
    return info == 0 && eigenvalues[0] > 0;
  }
  double size(std::size_t k, const double* o) const {
    const double* a = metrics.data() + k * metrics.ld();
    double u[3] = {o[0], o[1], o[2]};
    const double length2 = dot(o, o);
    if (length2 != 0 && length2 != 1) {
      const double length = std::sqrt(length2);
      u[0] /= length;
      u[1] /= length;
      u[2] /= length;
    }
    const double q = a[0] * u[0] * u[0] + a[2] * u[1] * u[1] + a[5] * u[2] * u[2] +
                     2 * (a[1] * u[0] * u[1] + a[3] * u[0] * u[2] + a[4] * u[1] * u[2]);
    return q > 0 ? 1 / std::sqrt(q) : 0.0;
  }
};

// One positive finite factor per polyline node.
struct factor_sizes {
  const dense1D<double, 8>& scales;

  bool valid(std::size_t k) const {
    return k < scales.size() && scales[k] > 0 && scales[k] < std::numeric_limits<double>::max();
  }
  double size(std::size_t k, const double*) const { return scales[k]; }
};

// Layer k is the previous layer moved from line[k - 1] to line[k], turned by the smallest
// rotation between the previous direction and segment k, and scaled by g_k / g_(k-1).
template <class Sizes>
int place_along_line(dense2D<double>& coords, const elfes::surface_node_map& map, std::size_t nb_nodes,
                     const dense1D<unsigned, 8>& line, const vector_fixed<double, 3>& V, const Sizes& sizes) {
  const std::size_t N = line.size() - 1;
  elfes::node_layers layers;
  const int status = elfes::open_layers(coords, map, nb_nodes, N, layers);
  if (status != 0) return status < 0 ? status : 0;
  double prev[3] = {V[0], V[1], V[2]};
  bool prev_valid = false;  // entry 0 is never read: the surface is the section at line[0]
  for (std::size_t k = 1; k <= N; ++k) {
    const double* a = layers.xyz + std::size_t(line[k - 1]) * layers.ld;
    const double* b = layers.xyz + std::size_t(line[k]) * layers.ld;
    const double d[3] = {b[0] - a[0], b[1] - a[1], b[2] - a[2]};
    double w[3] = {prev[1] * d[2] - prev[2] * d[1], prev[2] * d[0] - prev[0] * d[2], prev[0] * d[1] - prev[1] * d[0]};
    const double w2 = dot(w, w);
    if (w2 != 0) {
      // asin of the sine keeps the turn below 90 degrees: a fold beyond it turns the
      // section by the supplement.
      double s = std::sqrt(w2 / (dot(d, d) * dot(prev, prev)));
      s = s > 1 ? 1 : (s < -1 ? -1 : s);
      const double factor = std::asin(s) / std::sqrt(w2);
      if (factor != 1) {
        w[0] *= factor;
        w[1] *= factor;
        w[2] *= factor;
      }
    }
    const elfes::rotation3 M = elfes::rotation_matrix(w);
    const bool valid = sizes.valid(k);
    double* out = layers.copy(k, 0);
    for (std::size_t i = 0; i < layers.count; ++i, out += layers.ld) {
      out[0] = b[0];
      out[1] = b[1];
      out[2] = b[2];
      if (layers.ids[i] == line[0]) continue;  // the polyline's own node
      const double* p = layers.copy(k - 1, i);
      const double o[3] = {p[0] - a[0], p[1] - a[1], p[2] - a[2]};
      const double g = valid ? sizes.size(k, o) : 1.0, g_prev = prev_valid ? sizes.size(k - 1, o) : 1.0;
      const double f = g / g_prev;
      // 0 / 0 (an offset of zero length between two tensors) leaves the node on the line.
      if (f != 0 && std::isfinite(f)) {
        double turned[3];
        M.apply(o, turned);
        out[0] += f * turned[0];
        out[1] += f * turned[1];
        out[2] += f * turned[2];
      }
    }
    prev[0] = d[0];
    prev[1] = d[1];
    prev[2] = d[2];
    prev_valid = valid;
  }
  return 0;
}

// The polyline's nodes stand in for the copies of the section node line[0], whose copies
// are then dropped. Only IDs of the new layers are looked at.
void merge_start_node(dense2D<double>& coords, const dense1D<unsigned, 8>& line, std::size_t nb_nodes,
                      std::size_t node_count, unsigned first_local, dense2D<unsigned>& connectE,
                      dense2D<unsigned>& connectQ4, dense2D<unsigned>& connectTop) {
  const std::size_t end = nb_nodes + (line.size() - 1) * node_count;
  dense2D<unsigned> matrices[3] = {connectE, connectQ4, connectTop};  // shallow: the same storage
  for (dense2D<unsigned>& m : matrices) {
    unsigned* column = m.data();
    for (std::size_t j = 0; j < m.cols(); ++j, column += m.ld())
      for (std::size_t r = 0; r < m.rows(); ++r) {
        const unsigned id = column[r];
        if (id == tessel::ABSENT || id < nb_nodes || id >= end) continue;
        const std::size_t offset = id - nb_nodes;
        if (offset % node_count == first_local) column[r] = line[offset / node_count + 1];
      }
  }
  dense1D<unsigned, 8> work;
  // A failure here only leaves the unused copies in place: the mesh is right either way.
  tessel::simplify(coords, matrices, matrices + 3, work, static_cast<unsigned>(nb_nodes));
}

template <class Sizes>
int extrude_along(dense2D<double>& coords, const dense2D<unsigned>& connectS, const dense1D<unsigned, 8>& line,
                  const vector_fixed<double, 3>& V, const Sizes& sizes, int metrics_code, dense2D<unsigned>& connectE,
                  const dense2D<unsigned>& connectE2, dense2D<unsigned>& connectQ4, dense2D<unsigned>& connectTop) {
  if (const int status = elfes::check_surface(coords, connectS, false, coords.cols())) return status > 0 ? 0 : status;
  const unsigned nb_nodes32 = coords.cols() < 0xFFFFFFFFu ? static_cast<unsigned>(coords.cols()) : 0xFFFFFFFFu;
  if (line.size() < 2 || !tessel::check_IDs(line, nb_nodes32)) return -3;
  if (metrics_code) return metrics_code;
  if (const int status = elfes::check_outputs({-6, -7, -8, -9}, connectE, connectE2, connectQ4, connectTop))
    return status;

  elfes::surface_node_map map;
  elfes::build_surface_node_map(connectS, map);  // a failed reservation still leaves a usable map
  const unsigned first_local = map.local(line[0]);
  const std::size_t N = line.size() - 1;
  elfes::extrusion_outputs out(coords, connectE, connectE2, connectQ4, connectTop);
  const int status = elfes::extrude_layers(out, connectS, map, N,
                                           [&] { return place_along_line(coords, map, out.nb_nodes, line, V, sizes); });
  if (status == 0 && first_local != tessel::NOT_FOUND)
    merge_start_node(coords, line, out.nb_nodes, map.node_count(), first_local, connectE, connectQ4, connectTop);
  return status;
}

}  // namespace

int extrude_line(dense2D<double>& coords, const dense2D<unsigned>& connectS, const dense1D<unsigned, 8>& line,
                 const vector_fixed<double, 3>& V, const dense2D<double>& line_metrics, dense2D<unsigned>& connectE,
                 const dense2D<unsigned>& connectE2, dense2D<unsigned>& connectQ4, dense2D<unsigned>& connectTop) {
  // The tensor check stands between the polyline's and the outputs'.
  const int metrics_code = !line_metrics.empty() && line_metrics.rows() != 6 ? -5 : 0;
  return extrude_along(coords, connectS, line, V, tensor_sizes{line_metrics}, metrics_code, connectE, connectE2,
                       connectQ4, connectTop);
}

int extrude_line(dense2D<double>& coords, const dense2D<unsigned>& connectS, const dense1D<unsigned, 8>& line,
                 const vector_fixed<double, 3>& V, const dense2D<double>& line_metrics, dense2D<unsigned>& connectE) {
  dense2D<unsigned> connectE2, connectQ4, connectTop;
  return extrude_line(coords, connectS, line, V, line_metrics, connectE, connectE2, connectQ4, connectTop);
}

int extrude_line(dense2D<double>& coords, const dense2D<unsigned>& connectS, const dense1D<unsigned, 8>& line,
                 const vector_fixed<double, 3>& V, const dense1D<double, 8>& line_scales, dense2D<unsigned>& connectE,
                 const dense2D<unsigned>& connectE2, dense2D<unsigned>& connectQ4, dense2D<unsigned>& connectTop) {
  return extrude_along(coords, connectS, line, V, factor_sizes{line_scales}, 0, connectE, connectE2, connectQ4,
                       connectTop);
}

int extrude_line(dense2D<double>& coords, const dense2D<unsigned>& connectS, const dense1D<unsigned, 8>& line,
                 const vector_fixed<double, 3>& V, const dense1D<double, 8>& line_scales, dense2D<unsigned>& connectE) {
  dense2D<unsigned> connectE2, connectQ4, connectTop;
  return extrude_line(coords, connectS, line, V, line_scales, connectE, connectE2, connectQ4, connectTop);
}

}  // namespace tessel3d
}  // namespace zel
