// Extrusion core shared by every extrusion family: the surface node map, the layer count
// and layer distribution from two sizes, the generation of solids, lateral quadrangles
// and far cap, the argument checks and the roll-back of the outputs on failure.
//
// A call runs: checks -> node map -> layer count N -> elements -> node placement, and on
// a failure of the last two brings every output back to its column count on entry. The
// copy of surface node n in layer k (1 ... N) is node nbNodes + (k - 1) * node_count +
// local_index[n]; layer 0 is the surface itself.
#pragma once

#include <cmath>
#include <cstddef>
#include <cstdint>

#include "common/debug_check.h"
#include "common/element_tables.h"
#include "common/parallel.h"
#include "order/hash_tables.h"
#include "zel/matrix.h"

namespace elfes {

using zel::dense1D;
using zel::dense2D;

// ---- surface node map -------------------------------------------------------------------

/// The distinct nodes of a surface in order of first appearance (columns in order, rows
/// 0, 1, 2, then row 3 unless it is ABSENT), and the reverse map node ID -> local index.
struct surface_node_map {
  dense1D<unsigned, 8> node_ids;
  hash_table<map_entry<unsigned, std::size_t>> local_index;
  bool complete = false;  // every node of the surface made it into the map

  std::size_t node_count() const { return node_ids.size(); }
  /// Local index of a node, NOT_FOUND for a node that is not in the map.
  unsigned local(unsigned node) const {
    const std::size_t pos = local_index.find(hash_key(node), node);
    if (pos == local_index.end()) return NOT_FOUND;
    const std::size_t index = local_index.value(pos).second;
    TESSEL3D_DEBUG_ASSERT(index < node_ids.size() && node_ids[index] == node);  // the two maps agree
    return static_cast<unsigned>(index);
  }
};

/// Fills `map` from a 3- or 4-row surface (any other row count leaves it empty).
/// Returns -199 when a reservation failed (the containers then grow on demand, so the map
/// may still be complete) and 0 otherwise; map.complete tells whether every node could be
/// stored.
int build_surface_node_map(const dense2D<unsigned>& connectS, surface_node_map& map);

// ---- layer count and distribution ---------------------------------------------------------

/// Layers per unit length when the size varies linearly from h0 to h1 over the sweep:
/// ln(hmax / hmin) / (hmax - hmin), with its series near hmin = hmax.
double layers_per_length(double h0, double h1);

/// The real layer count x rounded to a multiple of m (1 or 2), never below m. The
/// threshold between the candidates lo and hi = lo + m is their geometric mean: hi when
/// x^2 >= lo * hi. Requires 0 <= x < 2^32 (layer_count() checks it); 64-bit so that the
/// caller can test the result against the node-ID range before narrowing it.
std::uint64_t round_layer_count(double x, unsigned m);

/// Fraction of the sweep at which layer boundary t = k / N lies, so that layer
/// thicknesses form a geometric progression from about h0 to about h1. In [0, 1].
double layer_fraction(double t, double h0, double h1);

/// The real layer count L * layers_per_length(h0, h1) rounded (m = 2 when even_layers);
/// false when it cannot be represented (not below 2^32, or not a number).
bool layer_count(double length, double h0, double h1, bool even_layers, std::uint64_t& N);

// ---- argument checks ----------------------------------------------------------------------

/// Checks that open every extrusion: 1 when the surface has no entries (nothing to do),
/// -1 when coords has the wrong rows (2 or 3 allowed when planar_ok, else 3), -2 when
/// check_IDs(connectS, FACE_MIX4, id_bound) fails or an absent marker ~0U stands where a
/// face must have a node (rows 0 to 2), 0 when the call may go on.
int check_surface(const dense2D<double>& coords, const dense2D<unsigned>& connectS, bool planar_ok,
                  std::size_t id_bound);

/// Status codes of the row checks of the output matrices (0: not checked).
struct output_codes {
  int connectE, connectE2, connectQ4, connectTop;
};

/// Row checks of the outputs, in order: connectE 6 or 8 rows, connectE2 2, connectQ4 4,
/// connectTop 3 or 4; an empty matrix passes. 0 or the code of the first failure.
int check_outputs(const output_codes& codes, const dense2D<unsigned>& connectE, const dense2D<unsigned>& connectE2,
                  const dense2D<unsigned>& connectQ4, const dense2D<unsigned>& connectTop);

/// True when v > 0 (false for a NaN).
inline bool positive(double v) { return v > 0.0; }

// ---- outputs --------------------------------------------------------------------------------

/// The matrices an extrusion appends to, with their column counts on entry.
class extrusion_outputs {
 public:
  extrusion_outputs(dense2D<double>& nodes, dense2D<unsigned>& solids, const dense2D<unsigned>& edges,
                    dense2D<unsigned>& lateral, dense2D<unsigned>& cap)
      : coords(nodes),
        connectE(solids),
        connectE2(edges),
        connectQ4(lateral),
        connectTop(cap),
        nb_nodes(nodes.cols()),
        nb_solids(solids.cols()),
        nb_quads(lateral.cols()),
        nb_top(cap.cols()) {}

  /// Brings every output back to its column count on entry (row counts stay as they are).
  void roll_back();

  dense2D<double>& coords;
  dense2D<unsigned>& connectE;
  const dense2D<unsigned>& connectE2;
  dense2D<unsigned>& connectQ4;
  dense2D<unsigned>& connectTop;
  const std::size_t nb_nodes, nb_solids, nb_quads, nb_top;
};

/// Grows m to rows x cols (new entries `fill`, existing ones kept in place), reserving at
/// least twice the current columns first when the buffer has no room. False on failure.
template <class T>
bool grow_columns(dense2D<T>& m, std::size_t rows, std::size_t cols, const T& fill) {
  const auto& storage = m.storage();
  const bool room = storage && storage.unique() && rows <= m.ld() && cols > 0 &&
                    m.offset() + m.ld() * (cols - 1) + rows <= storage->capacity();
  if (!room && cols > m.cols()) {
    const std::size_t wanted = cols > 2 * m.cols() ? cols : 2 * m.cols();
    if (!m.reserve(rows, wanted, 1)) return false;
  }
  return m.resize(rows, cols, fill);
}

/// Appends N layers of solids per face (connectE, 2 x rows(connectS) rows), N lateral
/// quadrangles per edge of connectE2 (connectQ4) and the reversed last layer of every face
/// (connectTop). 0, or -199 when a resize failed (all three are attempted).
int build_extruded_elements(const dense2D<unsigned>& connectS, const surface_node_map& map, std::size_t nb_nodes,
                            std::size_t N, dense2D<unsigned>& connectE, const dense2D<unsigned>& connectE2,
                            dense2D<unsigned>& connectQ4, dense2D<unsigned>& connectTop);

/// Node IDs must stay below ~0U: false when nb_nodes + N * node_count >= 2^32.
bool node_ids_fit(std::size_t nb_nodes, std::uint64_t N, std::size_t node_count);

// ---- node placement ------------------------------------------------------------------------

/// Columns of the coordinates while the layers are placed.
struct node_layers {
  double* xyz;
  std::size_t ld, nb_nodes, count;
  const unsigned* ids;

  /// Surface node i (in map order).
  const double* surface(std::size_t i) const { return xyz + std::size_t(ids[i]) * ld; }
  /// Copy of surface node i in layer k (the surface node itself for k = 0).
  double* copy(std::size_t k, std::size_t i) const {
    return k == 0 ? xyz + std::size_t(ids[i]) * ld : xyz + (nb_nodes + (k - 1) * count + i) * ld;
  }
};

/// Writes every copy: node(value, i, out) for surface node i in layer k (1 ... N), value =
/// layer(k). The surface nodes are cut into chunks run on the library's threads, each
/// walking the layers in turn; layer(k) is a pure function of k, evaluated per chunk.
template <class Layer, class Node>
void place_layers(const node_layers& layers, std::size_t N, Layer&& layer, Node&& node) {
  parallel_for(layers.count, 1u << 12, [&](std::size_t first, std::size_t last) {
    for (std::size_t k = 1; k <= N; ++k) {
      const auto value = layer(k);
      double* out = layers.copy(k, first);
      for (std::size_t i = first; i < last; ++i, out += layers.ld) node(value, i, out);
    }
  });
}

/// Resizes coords to 3 rows and nb_nodes + N * node_count columns (new entries 0.0) and
/// describes its columns in `layers`. 1 when there is nothing to place (N or node_count
/// is 0), 0 when the layers may be written, -199 when coords cannot be sized.
int open_layers(dense2D<double>& coords, const surface_node_map& map, std::size_t nb_nodes, std::size_t N,
                node_layers& layers);

/// The steps shared by every family once the checks have passed and N is known: node-ID
/// room (-199 before writing), elements, then place(outputs) which writes the nodes; on a
/// failure of either step every output goes back to its column count on entry.
template <class Place>
int extrude_layers(extrusion_outputs& out, const dense2D<unsigned>& connectS, const surface_node_map& map,
                   std::uint64_t N, Place&& place) {
  if (!map.complete || !node_ids_fit(out.nb_nodes, N, map.node_count())) return OUT_OF_MEMORY;
  int status = build_extruded_elements(connectS, map, out.nb_nodes, N, out.connectE, out.connectE2, out.connectQ4,
                                       out.connectTop);
  if (status == 0) status = place();
  if (status != 0) out.roll_back();
  return status;
}

/// Euclidean length of a vector.
inline double norm(const zel::vector_fixed<double, 3>& v) { return std::sqrt(v[0] * v[0] + v[1] * v[1] + v[2] * v[2]); }

/// Status codes of a size form: h0, h1 and the outputs' row checks.
struct size_form_codes {
  int h0, h1;
  output_codes outputs;
};

/// The size forms of the translation, rotation and spiral: the checks (coords with 2 or
/// 3 rows, the surface, h0 > 0, h1 > 0, the outputs), the node map, N layers over
/// sweep_length() (called once the surface is known to be valid), then the elements and
/// place(map, nb_nodes, N), with the roll-back of extrude_layers.
template <class SweepLength, class Place>
int extrude_sized(dense2D<double>& coords, const dense2D<unsigned>& connectS, double h0, double h1, bool even_layers,
                  const size_form_codes& codes, dense2D<unsigned>& connectE, const dense2D<unsigned>& connectE2,
                  dense2D<unsigned>& connectQ4, dense2D<unsigned>& connectTop, SweepLength&& sweep_length,
                  Place&& place) {
  if (const int status = check_surface(coords, connectS, true, coords.cols())) return status > 0 ? 0 : status;
  if (!positive(h0)) return codes.h0;
  if (!positive(h1)) return codes.h1;
  if (const int status = check_outputs(codes.outputs, connectE, connectE2, connectQ4, connectTop)) return status;

  surface_node_map map;
  build_surface_node_map(connectS, map);  // a failed reservation still leaves a usable map
  std::uint64_t N = 0;
  if (!layer_count(sweep_length(), h0, h1, even_layers, N)) return OUT_OF_MEMORY;
  extrusion_outputs out(coords, connectE, connectE2, connectQ4, connectTop);
  return extrude_layers(out, connectS, map, N, [&] { return place(map, out.nb_nodes, N); });
}

}  // namespace elfes
