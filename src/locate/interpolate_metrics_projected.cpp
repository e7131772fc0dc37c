// interpolate_metrics_projected: metrics (packed tensors or sizes) at the nodes that no
// element of a TH4 mesh references, combined in the element that holds each node or at
// the closest point of the boundary, and written only when the result is a valid metric.
#include "locate/metric_mix.h"
#include "locate/projected_nodes.h"
#include "zel/tessel3d.h"

namespace zel {
namespace tessel3d {
namespace {

struct tensor_metrics {
  dense2D<double> values;  // 6 x #nodes, shares the caller's storage
  double* at(unsigned n) { return values.data() + std::size_t(n) * values.ld(); }
  bool is_valid(unsigned n) { return elfes::metric_is_valid(at(n)); }
  bool combine(const unsigned* column, const double* lambda, double* result) {
    elfes::metric6 m[4], out;
    for (unsigned i = 0; i < 4; ++i)
      for (unsigned k = 0; k < 6; ++k) m[i][k] = at(column[i])[k];
    if (!elfes::combine_metrics(m, lambda, out) || !elfes::metric_is_valid(out.data())) return false;
    for (unsigned k = 0; k < 6; ++k) result[k] = out[k];
    return true;
  }
  void write(unsigned n, const double* result) {
    for (unsigned k = 0; k < 6; ++k) at(n)[k] = result[k];
  }
};

struct size_metrics {
  double* values;
  bool is_valid(unsigned n) const { return elfes::in_open_range(values[n]); }
  bool combine(const unsigned* column, const double* lambda, double* result) const {
    const double sizes[4] = {values[column[0]], values[column[1]], values[column[2]], values[column[3]]};
    return elfes::combine_sizes(sizes, lambda, *result);
  }
  void write(unsigned n, const double* result) { values[n] = *result; }
};

template <class Metrics>
int interpolate_each(const dense2D<double>& coords, const dense2D<unsigned>& connectivity, Metrics& metrics,
                     const dense1D<unsigned, 8>& nodes, bool keep_valid) {
  point_locator locator;
  elfes::order_records order;
  bool list_order = false;
  if (elfes::prepare_projection(coords, connectivity, nodes, locator, order, list_order) != 0)
    return tessel::OUT_OF_MEMORY;
  // A node's own metric is read only by its own placement (each node comes once).
  auto place = [&](unsigned n, elfes::placed_node& placed, elfes::no_scratch&) {
    if (keep_valid && metrics.is_valid(n))
      placed.status = 0;
    else
      elfes::projected_weights(locator, coords, n, placed);
  };
  auto write = [&](unsigned n, const elfes::placed_node& placed) {
    if (placed.status == 0) return;
    const unsigned* column = connectivity.data() + std::size_t(placed.where) * connectivity.ld();
    const double* lambda = placed.lambda;
    double result[6];
    if (metrics.combine(column, lambda, result)) {
      metrics.write(n, result);
      return;
    }
    // The combination failed or rounded into an invalid metric: the valid metric of the
    // node with the largest weight (the first of equal ones).
    unsigned best = 4;
    for (unsigned i = 0; i < 4; ++i)
      if (metrics.is_valid(column[i]) && (best == 4 || lambda[i] > lambda[best])) best = i;
    if (best == 4) return;
    double one[4] = {0, 0, 0, 0};
    one[best] = 1;
    if (metrics.combine(column, one, result)) metrics.write(n, result);
  };
  return elfes::place_then_write<elfes::no_scratch>(coords, order, list_order, place, write);
}

}  // namespace

int interpolate_metrics_projected(const dense2D<double>& coords, const dense2D<unsigned>& connectivity,
                                  dense2D<double>& metrics, const dense1D<unsigned, 8>& nodes, bool keep_valid) {
  if (nodes.empty()) return 0;
  if (const int status = elfes::check_projection_mesh(coords, connectivity)) return status;
  if (metrics.cols() != coords.cols() || metrics.rows() != 6) return -3;
  if (!tessel::check_IDs(nodes, static_cast<unsigned>(coords.cols()))) return -4;
  tensor_metrics tensors{metrics};
  return interpolate_each(coords, connectivity, tensors, nodes, keep_valid);
}

int interpolate_metrics_projected(const dense2D<double>& coords, const dense2D<unsigned>& connectivity,
                                  dense2D<double>& metrics, bool keep_valid) {
  dense1D<unsigned, 8> nodes;
  if (!elfes::every_node(coords, nodes)) return tessel::OUT_OF_MEMORY;
  return interpolate_metrics_projected(coords, connectivity, metrics, nodes, keep_valid);
}

int interpolate_metrics_projected(const dense2D<double>& coords, const dense2D<unsigned>& connectivity,
                                  dense1D<double, 8>& metrics, const dense1D<unsigned, 8>& nodes, bool keep_valid) {
  if (nodes.empty()) return 0;
  if (const int status = elfes::check_projection_mesh(coords, connectivity)) return status;
  if (metrics.size() != coords.cols()) return -3;
  if (!tessel::check_IDs(nodes, static_cast<unsigned>(coords.cols()))) return -4;
  size_metrics sizes{metrics.data()};
  return interpolate_each(coords, connectivity, sizes, nodes, keep_valid);
}

int interpolate_metrics_projected(const dense2D<double>& coords, const dense2D<unsigned>& connectivity,
                                  dense1D<double, 8>& metrics, bool keep_valid) {
  dense1D<unsigned, 8> nodes;
  if (!elfes::every_node(coords, nodes)) return tessel::OUT_OF_MEMORY;
  return interpolate_metrics_projected(coords, connectivity, metrics, nodes, keep_valid);
}

}  // namespace tessel3d
}  // namespace zel
