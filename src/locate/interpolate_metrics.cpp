// interpolate_metrics: anisotropic metrics (symmetric positive-definite tensors, six
// packed values per node) or isotropic sizes at the nodes that lie in no element of a
// TH4 mesh, combined from the four nodes of the element that holds each of them so
// that every result stays a valid metric; nodes outside the mesh copy their nearest
// mesh node.
#include "common/shared_memory.h"
#include "locate/metric_mix.h"
#include "locate/node_placement.h"
#include "locate/placed_nodes.h"
#include "zel/tessel3d.h"

namespace zel {
namespace tessel3d {
namespace {

// The two kinds of metric storage behind one loop.
struct tensor_metrics {
  dense2D<double> values;  // 6 x #nodes, shares the caller's storage
  double* at(unsigned n) { return values.data() + n * values.ld(); }
  bool is_valid(unsigned n) { return elfes::metric_is_valid(at(n)); }
  void copy(unsigned from, unsigned to) {
    const double* source = at(from);
    double* target = at(to);
    for (unsigned k = 0; k < 6; ++k) target[k] = source[k];
  }
  void combine(const unsigned* column, const double* lambda, unsigned to) {
    elfes::metric6 m[4], result;
    for (unsigned i = 0; i < 4; ++i)
      for (unsigned k = 0; k < 6; ++k) m[i][k] = at(column[i])[k];
    if (!elfes::combine_metrics(m, lambda, result)) return;
    double* target = at(to);
    for (unsigned k = 0; k < 6; ++k) target[k] = result[k];
  }
};

struct size_metrics {
  double* values;
  double* at(unsigned n) const { return values + n; }
  bool is_valid(unsigned n) const { return elfes::in_open_range(values[n]); }
  void copy(unsigned from, unsigned to) { values[to] = values[from]; }
  void combine(const unsigned* column, const double* lambda, unsigned to) {
    const double sizes[4] = {values[column[0]], values[column[1]], values[column[2]], values[column[3]]};
    double h;
    if (elfes::combine_sizes(sizes, lambda, h)) values[to] = h;
  }
};

template <class Metrics>
int interpolate_each(const dense2D<double>& coords, const dense2D<unsigned>& connectivity,
                     const dense2D<unsigned>& neighbors, const dense1D<unsigned, 8>& node_element, Metrics& metrics,
                     const dense1D<unsigned, 8>& nodes, bool keep_valid) {
  elfes::node_placement placement(coords, connectivity, neighbors, node_element);
  if (placement.build() != 0) return tessel::OUT_OF_MEMORY;
  elfes::order_records order;
  bool list_order = false;
  if (elfes::free_nodes_in_order(coords, connectivity, node_element, nodes, order, &list_order) != 0)
    return tessel::OUT_OF_MEMORY;
  // A node's own metric is read only by its own placement (each node comes once).
  auto place = [&](unsigned n, elfes::placed_node& placed, elfes::locate_scratch& scratch) {
    placed.status =
        keep_valid && metrics.is_valid(n) ? elfes::skipped : placement.place(n, placed.where, placed.lambda, scratch);
  };
  auto write = [&](unsigned n, const elfes::placed_node& placed) {
    if (placed.status == 1)
      metrics.combine(connectivity.data() + placed.where * connectivity.ld(), placed.lambda, n);
    else if (placed.status == 0 && placed.where != tessel::NOT_FOUND)
      metrics.copy(placed.where, n);
  };
  return elfes::place_then_write<elfes::locate_scratch>(coords, order, list_order, place, write);
}

}  // namespace

int interpolate_metrics(const dense2D<double>& coords, const dense2D<unsigned>& connectivity,
                        const dense2D<unsigned>& neighbors, const dense1D<unsigned, 8>& node_element,
                        dense2D<double>& metrics, const dense1D<unsigned, 8>& nodes, bool keep_valid) {
  if (elfes::shares_with_any(metrics, coords, connectivity, neighbors, node_element,
                             nodes))  // written while they are read
    return elfes::with_private_copies(
        [&](const auto& c, const auto& k, const auto& n, const auto& e, const auto& d) {
          return interpolate_metrics(c, k, n, e, metrics, d, keep_valid);
        },
        coords, connectivity, neighbors, node_element, nodes);
  if (nodes.empty()) return 0;
  if (const int status = elfes::check_placement_mesh(coords, connectivity, neighbors, node_element)) return status;
  if (metrics.cols() != coords.cols() || metrics.rows() != 6) return -5;
  if (!tessel::check_IDs(nodes, static_cast<unsigned>(coords.cols()))) return -6;
  tensor_metrics tensors{metrics};
  return interpolate_each(coords, connectivity, neighbors, node_element, tensors, nodes, keep_valid);
}

int interpolate_metrics(const dense2D<double>& coords, const dense2D<unsigned>& connectivity,
                        const dense2D<unsigned>& neighbors, const dense1D<unsigned, 8>& node_element,
                        dense2D<double>& metrics, bool keep_valid) {
  if (elfes::shares_with_any(metrics, coords, connectivity, neighbors, node_element))  // written while they are read
    return elfes::with_private_copies(
        [&](const auto& c, const auto& k, const auto& n, const auto& e) {
          return interpolate_metrics(c, k, n, e, metrics, keep_valid);
        },
        coords, connectivity, neighbors, node_element);
  dense1D<unsigned, 8> nodes;
  if (!elfes::every_node(coords, nodes)) return tessel::OUT_OF_MEMORY;
  return interpolate_metrics(coords, connectivity, neighbors, node_element, metrics, nodes, keep_valid);
}

int interpolate_metrics(const dense2D<double>& coords, const dense2D<unsigned>& connectivity,
                        const dense2D<unsigned>& neighbors, const dense1D<unsigned, 8>& node_element,
                        dense1D<double, 8>& metrics, const dense1D<unsigned, 8>& nodes, bool keep_valid) {
  if (elfes::shares_with_any(metrics, coords, connectivity, neighbors, node_element,
                             nodes))  // written while they are read
    return elfes::with_private_copies(
        [&](const auto& c, const auto& k, const auto& n, const auto& e, const auto& d) {
          return interpolate_metrics(c, k, n, e, metrics, d, keep_valid);
        },
        coords, connectivity, neighbors, node_element, nodes);
  if (nodes.empty()) return 0;
  if (const int status = elfes::check_placement_mesh(coords, connectivity, neighbors, node_element)) return status;
  if (metrics.size() != coords.cols()) return -5;
  if (!tessel::check_IDs(nodes, static_cast<unsigned>(coords.cols()))) return -6;
  size_metrics sizes{metrics.data()};
  return interpolate_each(coords, connectivity, neighbors, node_element, sizes, nodes, keep_valid);
}

int interpolate_metrics(const dense2D<double>& coords, const dense2D<unsigned>& connectivity,
                        const dense2D<unsigned>& neighbors, const dense1D<unsigned, 8>& node_element,
                        dense1D<double, 8>& metrics, bool keep_valid) {
  if (elfes::shares_with_any(metrics, coords, connectivity, neighbors, node_element))  // written while they are read
    return elfes::with_private_copies(
        [&](const auto& c, const auto& k, const auto& n, const auto& e) {
          return interpolate_metrics(c, k, n, e, metrics, keep_valid);
        },
        coords, connectivity, neighbors, node_element);
  dense1D<unsigned, 8> nodes;
  if (!elfes::every_node(coords, nodes)) return tessel::OUT_OF_MEMORY;
  return interpolate_metrics(coords, connectivity, neighbors, node_element, metrics, nodes, keep_valid);
}

}  // namespace tessel3d
}  // namespace zel
