// Extrusion core: node map, layer count and distribution, element generation, checks
// and roll-back shared by the extrusion families.
#include "extrude/extrude_core.h"
#include "common/shared_memory.h"

#include <cmath>

#include "common/element_tables.h"
#include "common/parallel.h"
#include "zel/tessel.h"

namespace elfes {

int build_surface_node_map(const dense2D<unsigned>& connectS, surface_node_map& map) {
  map.node_ids.clear();
  map.complete = false;
  const std::size_t rows = connectS.rows(), nb_faces = connectS.cols();
  int status = 0;
  if (!map.node_ids.reserve(nb_faces, 1)) status = OUT_OF_MEMORY;
  if (!map.local_index.reset(23, 23, 1.0)) status = OUT_OF_MEMORY;
  if (rows != 3 && rows != 4) {
    map.complete = true;
    return status;
  }
  // A surface has about as many nodes as faces (half as many for triangles): size the
  // table once for that many so that the bulk insertion does not rehash.
  if (!map.local_index.rehash(nb_faces)) status = OUT_OF_MEMORY;

  const unsigned* column = connectS.data();
  for (std::size_t j = 0; j < nb_faces; ++j, column += connectS.ld())
    for (std::size_t r = 0; r < rows; ++r) {
      const unsigned node = column[r];
      if (node == ABSENT) continue;  // only row 3 may hold it (checked by the callers)
      const map_entry<unsigned, std::size_t> entry{node, map.node_ids.size()};
      bool added = false;
      const std::size_t pos = map.local_index.insert_growing(hash_key(node), entry, &added);
      if (pos == map.local_index.npos) return OUT_OF_MEMORY;  // incomplete: map.complete stays false
      if (added && !map.node_ids.push_back(node)) return OUT_OF_MEMORY;
      TESSEL3D_DEBUG_ASSERT(map.local_index.value(pos).second < map.node_ids.size());
    }
  TESSEL3D_DEBUG_ASSERT(map.local_index.size() == map.node_ids.size());
  map.complete = true;
  return status;
}

double layers_per_length(double h0, double h1) {
  double hmin = h1, hmax = h0;
  if (h1 > h0) {
    hmin = h0;
    hmax = h1;
  }
  const double inverse = 1.0 / hmax;
  const double x = (hmin - hmax) * inverse;
  double c = 1.0;
  if (x < -0.01)
    c = std::log1p(x) / x;
  else if (x < -1e-12)  // series of log1p(x) / x, where the quotient loses digits
    c = ((0.2 - x / 6) * x * x + (1.0 / 3 - x / 4)) * x * x + (1 - x / 2);
  return c * inverse;
}

std::uint64_t round_layer_count(double x, unsigned m) {
  const std::uint64_t k = x > 0 ? static_cast<std::uint64_t>(x / m) : 0;
  const std::uint64_t lo = k * m, hi = lo + m;
  // Geometric mean of the candidates, not their midpoint: 2.46 rounds up to 3.
  return x * x >= static_cast<double>(lo * hi) ? hi : lo;
}

double layer_fraction(double t, double h0, double h1) {
  if (h0 == h1 || t == 0 || t == 1) return t;
  const bool increasing = h1 > h0;
  const double small = increasing ? h0 : h1, big = increasing ? h1 : h0, s = increasing ? 1 - t : t;
  const double x = (small - big) / big;
  double v = s;
  if (x < -0.01) {
    v = std::expm1(std::log1p(x) * s) / x;  // ((1 + x)^s - 1) / x
  } else if (x < -1e-12) {
    const double a = s - 1, b = s - 2, c = s - 3;
    v = s * (1 + x * a / 2 + x * x * a * b / 6 + x * x * x * a * b * c / 24);
  }
  if (increasing) v = 1 - v;
  if (!(v >= 0)) return 0;
  return v > 1 ? 1 : v;
}

bool layer_count(double length, double h0, double h1, bool even_layers, std::uint64_t& N) {
  const double x = length * layers_per_length(h0, h1);
  if (!(x < 4294967296.0)) return false;  // tiny sizes, an infinite or undefined length
  N = round_layer_count(x, even_layers ? 2 : 1);
  return true;
}

int check_surface(const dense2D<double>& coords, const dense2D<unsigned>& connectS, bool planar_ok,
                  std::size_t id_bound) {
  if (connectS.empty()) return 1;
  if (coords.rows() != 3 && !(planar_ok && coords.rows() == 2)) return -1;
  const unsigned bound = id_bound < 0xFFFFFFFFu ? static_cast<unsigned>(id_bound) : 0xFFFFFFFFu;
  if (!zel::tessel::check_IDs(connectS, zel::FACE_MIX4, bound)) return -2;
  // The mixed check lets ~0U through in any row; only row 3 may be empty.
  const unsigned* column = connectS.data();
  for (std::size_t j = 0; j < connectS.cols(); ++j, column += connectS.ld())
    if (column[0] == ABSENT || column[1] == ABSENT || column[2] == ABSENT) return -2;
  return 0;
}

namespace {

bool bad_rows(const dense2D<unsigned>& m, std::size_t a, std::size_t b) {
  return !m.empty() && m.rows() != a && m.rows() != b;
}

}  // namespace

int check_outputs(const output_codes& codes, const dense2D<unsigned>& connectE, const dense2D<unsigned>& connectE2,
                  const dense2D<unsigned>& connectQ4, const dense2D<unsigned>& connectTop) {
  if (codes.connectE && bad_rows(connectE, 6, 8)) return codes.connectE;
  if (codes.connectE2 && bad_rows(connectE2, 2, 2)) return codes.connectE2;
  if (codes.connectQ4 && bad_rows(connectQ4, 4, 4)) return codes.connectQ4;
  if (codes.connectTop && bad_rows(connectTop, 3, 4)) return codes.connectTop;
  return 0;
}

void extrusion_outputs::roll_back() {
  // Fewer columns with the same rows never needs memory: these cannot fail.
  connectE.resize(connectE.rows(), nb_solids, ABSENT);
  connectQ4.resize(connectQ4.rows(), nb_quads, ABSENT);
  connectTop.resize(connectTop.rows(), nb_top, ABSENT);
  coords.resize(coords.rows(), nb_nodes, 0.0);
}

bool node_ids_fit(std::size_t nb_nodes, std::uint64_t N, std::size_t node_count) {
  const std::uint64_t limit = 0xFFFFFFFFu;  // the total node count; IDs stay below ~0U
  if (nb_nodes > limit) return false;
  return node_count == 0 || N <= (limit - nb_nodes) / node_count;
}

int build_extruded_elements(const dense2D<unsigned>& connectS, const surface_node_map& map, std::size_t nb_nodes,
                            std::size_t N, dense2D<unsigned>& connectE, const dense2D<unsigned>& connectE2,
                            dense2D<unsigned>& connectQ4, dense2D<unsigned>& connectTop) {
  // Outputs grow in place: inputs that share their memory are read from private copies.
  if (shares_with_any(connectS, connectE, connectQ4, connectTop) ||
      shares_with_any(connectE2, connectE, connectQ4, connectTop)) {
    dense2D<unsigned> surface, edges;
    if (!surface.copy(connectS) || !edges.copy(connectE2)) return -199;
    return build_extruded_elements(surface, map, nb_nodes, N, connectE, edges, connectQ4, connectTop);
  }
  const std::size_t R = connectS.rows(), nb_faces = connectS.cols(), nb_edges = connectE2.cols();
  const std::size_t E0 = connectE.cols(), Q0 = connectQ4.cols(), T0 = connectTop.cols();
  bool sized = grow_columns(connectE, 2 * R, E0 + N * nb_faces, ABSENT);
  sized = grow_columns(connectQ4, 4, Q0 + N * nb_edges, ABSENT) && sized;
  sized = grow_columns(connectTop, R, T0 + nb_faces, ABSENT) && sized;
  if (!sized) return OUT_OF_MEMORY;

  // IDs are 32-bit: a node missing from the map (local index NOT_FOUND) wraps like the caller's.
  const unsigned base = static_cast<unsigned>(nb_nodes), step = static_cast<unsigned>(map.node_count());
  const std::size_t ldE = connectE.ld(), ldT = connectTop.ld(), ldQ = connectQ4.ld();
  // Faces, and then edges, are independent: chunks of them on the library's threads.
  // Within a chunk the layer-1 nodes of every face go first into its far-cap column:
  // done apart from the bulk of the solids, the map lookups find the table still in cache.
  elfes::parallel_for(nb_faces, 1u << 12, [&](std::size_t first, std::size_t last) {
    const unsigned* face = connectS.data() + first * connectS.ld();
    for (std::size_t j = first; j < last; ++j, face += connectS.ld()) {
      const unsigned nb_corners = (R == 4 && face[3] != ABSENT) ? 4 : 3;
      unsigned* top = connectTop.data() + (T0 + j) * ldT;
      for (unsigned i = 0; i < nb_corners; ++i) {
        TESSEL3D_DEBUG_ASSERT(map.local(face[i]) != NOT_FOUND);  // every face node is in a complete map
        top[i] = base + map.local(face[i]);
      }
    }
    face = connectS.data() + first * connectS.ld();
    for (std::size_t j = first; j < last; ++j, face += connectS.ld()) {
      const unsigned nb_corners = (R == 4 && face[3] != ABSENT) ? 4 : 3;
      unsigned* top = connectTop.data() + (T0 + j) * ldT;
      unsigned b[4], t[4];
      for (unsigned i = 0; i < nb_corners; ++i) {
        b[i] = face[i];
        t[i] = top[i];
      }
      unsigned* solid = connectE.data() + (E0 + j * N) * ldE;
      for (std::size_t k = 0; k < N; ++k, solid += ldE)
        for (unsigned i = 0; i < nb_corners; ++i) {
          solid[i] = b[i];
          solid[nb_corners + i] = t[i];
          b[i] = t[i];
          t[i] += step;
        }
      // Far cap: the last layer's nodes, reversed so that its normal points out of the solid.
      top[0] = b[0];
      for (unsigned i = 1; i < nb_corners; ++i) top[i] = b[nb_corners - i];
    }
  });

  elfes::parallel_for(nb_edges, 1u << 12, [&](std::size_t first, std::size_t last) {
    const unsigned* edge = connectE2.data() + first * connectE2.ld();
    for (std::size_t e = first; e < last; ++e, edge += connectE2.ld()) {
      unsigned a = edge[0], b = edge[1];
      unsigned a_up = base + map.local(a), b_up = base + map.local(b);
      unsigned* quad = connectQ4.data() + (Q0 + e * N) * ldQ;
      for (std::size_t k = 0; k < N; ++k, quad += ldQ) {
        quad[0] = b;
        quad[1] = a;
        quad[2] = a_up;
        quad[3] = b_up;
        a = a_up;
        b = b_up;
        a_up += step;
        b_up += step;
      }
    }
  });
  return 0;
}

int open_layers(dense2D<double>& coords, const surface_node_map& map, std::size_t nb_nodes, std::size_t N,
                node_layers& layers) {
  const std::size_t count = map.node_count();
  if (count == 0 || N == 0) return 1;
  if (!grow_columns(coords, 3, nb_nodes + N * count, 0.0)) return OUT_OF_MEMORY;
  TESSEL3D_DEBUG_ASSERT(map.complete && nb_nodes + N * count <= 0xFFFFFFFFull);
  layers = {coords.data(), coords.ld(), nb_nodes, count, map.node_ids.data()};
  return 0;
}

}  // namespace elfes
