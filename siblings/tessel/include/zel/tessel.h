// zel base mesh library: element types, node-ID checks, a nearest-node search,
// node compaction and the adjacency helpers that callers of the solid-mesh tools need.
//
// Meshes are plain matrices (see zel/matrix.h): coordinates 3 x #nodes, one column per
// node; a connectivity has one column per element and one row per local node. The value
// ~0U in a connectivity marks an absent node; it occurs only in the mixed layouts.
#pragma once

#include "zel/matrix.h"
#include "zel/zel_tessel_export.h"

namespace zel {

/// Element types. The values are fixed (0 ... 24): zel::TH4 == 14.
enum element_type {
  NONE,         ///< 0: no element
  NODE,         ///< 1: isolated node
  E2,           ///< 2: edge, 2 nodes
  E3,           ///< 3: edge, 3 nodes (two ends, one mid node)
  E4,           ///< 4: edge, 4 nodes
  FACE_MIX4,    ///< 5: T3 and Q4 in 4-row columns (a T3 has ~0U in row 3)
  FACE_MIX9,    ///< 6: high-order faces in 9-row columns
  T3,           ///< 7: triangle
  T6,           ///< 8: quadratic triangle
  Q4,           ///< 9: quadrangle
  Q8,           ///< 10: quadratic serendipity quadrangle
  Q9,           ///< 11: quadratic quadrangle with centre node
  SOLID_MIX8,   ///< 12: TH4, PY5, W6 and H8 in 8-row columns, absent rows ~0U
  SOLID_MIX27,  ///< 13: high-order solids in 27-row columns
  TH4,          ///< 14: tetrahedron
  TH10,         ///< 15: quadratic tetrahedron
  PY5,          ///< 16: pyramid
  PY13,         ///< 17: quadratic serendipity pyramid
  PY14,         ///< 18: quadratic pyramid with base-centre node
  W6,           ///< 19: wedge (triangular prism)
  W15,          ///< 20: quadratic serendipity wedge
  W18,          ///< 21: quadratic wedge with quadrangle-centre nodes
  H8,           ///< 22: hexahedron
  H20,          ///< 23: quadratic serendipity hexahedron
  H27           ///< 24: quadratic hexahedron with face and volume centres
};

namespace tessel {

/// The sentinels of the mesh matrices: one bit pattern, ~0U, with three meanings, each
/// under its own name so that code says which one it means.
constexpr unsigned ABSENT = ~0U;      ///< a connectivity position without a node (mixed layouts)
constexpr unsigned NO_ELEMENT = ~0U;  ///< no element: across a boundary face, or holding a node
constexpr unsigned NOT_FOUND = ~0U;   ///< a search found nothing (no node, no containing element)

/// Status returned by every function of the libraries when memory runs out.
constexpr int OUT_OF_MEMORY = -199;

/// True when every entry of `connect` is a node ID below nbNodes. The absent marker ~0U
/// is accepted for the mixed types only (FACE_MIX4, FACE_MIX9, SOLID_MIX8, SOLID_MIX27),
/// whose row counts are also checked so that their columns can be read safely:
/// FACE_MIX4 3 or 4 rows, SOLID_MIX8 4, 5, 6 or 8 rows, FACE_MIX9 at most 9,
/// SOLID_MIX27 at most 27. Pure types get no row check. An empty matrix passes.
ZEL_TESSEL_EXPORT bool check_IDs(const dense2D<unsigned>& connect, element_type type, unsigned nbNodes);

/// True when every entry of `connect` is below nbNodes or is the marker ~0U (boundary
/// entries of an adjacency, triangles in the quadrangle form of a face list).
ZEL_TESSEL_EXPORT bool check_IDs(const dense2D<unsigned>& connect, unsigned nbNodes);

/// True when every entry of `ids` is below nbNodes (no marker accepted).
ZEL_TESSEL_EXPORT bool check_IDs(const dense1D<unsigned, 8>& ids, unsigned nbNodes);

/// Nearest-node search over a fixed set of nodes: a k-d tree built in O(n log n), each
/// cell split at the median of its widest coordinate, up to 8 nodes per leaf. Queries
/// take O(log n) on average. The detector copies what it needs: coords may change or go
/// away after construction. Queries are const and safe to run from several threads at
/// once; copies are shallow and cheap.
///
/// Non-finite values: a node with a NaN coordinate is left out (it is nearest to no
/// point); infinite coordinates are kept and compared as IEEE arithmetic does (a finite
/// node is nearer than an infinite one). A query with a NaN coordinate gives ~0U.
/// When the tree cannot be allocated the detector holds no node and every query gives ~0U.
class ZEL_TESSEL_EXPORT node_detector {
 public:
  /// Holds no node: every query gives ~0U.
  node_detector();
  /// Every column of coords (3 rows, any leading dimension; any other row count gives
  /// an empty detector).
  explicit node_detector(const dense2D<double>& coords);
  /// The columns of coords listed in ids (entries not below the column count are skipped;
  /// an ID listed twice is held twice, which changes no answer).
  node_detector(const dense2D<double>& coords, const dense1D<unsigned, 8>& ids);

  /// Some node near p, cheaply: the nearest among the leaf cell that p falls in and the
  /// medians met on the way down (at most 8 + depth distance evaluations), not
  /// necessarily the nearest overall; ~0U when the detector holds no node or p has a
  /// NaN coordinate.
  unsigned find_close(const vector_fixed<double, 3>& p) const;
  /// The node nearest p (exact, by the squared distance dx*dx + dy*dy + dz*dz; ties go
  /// to the smallest node ID); ~0U when the detector holds no node or p has a NaN
  /// coordinate.
  unsigned find_closest(const vector_fixed<double, 3>& p) const;
  /// Number of nodes held.
  std::size_t size() const { return ids_.size(); }

 private:
  void build(const dense2D<double>& coords, const dense1D<unsigned, 8>* ids);

  // The tree is implicit: the cell [lo, hi) of more than 8 nodes splits at
  // mid = lo + (hi - lo) / 2 along axis split_axes_[mid]: node mid is the median, the
  // nodes of [lo, mid) have a coordinate <= its own along that axis, those of
  // [mid + 1, hi) >= it.
  dense1D<unsigned, 8> ids_;               // node IDs in tree order
  dense1D<double, 8> points_;              // their coordinates, 3 per node, in tree order
  dense1D<unsigned char, 8> split_axes_;   // split axis (0, 1, 2) of each cell, at its mid
  dense1D<unsigned, 8> min_ids_;           // smallest node ID of each cell of more than 8 nodes, at its mid
  double bounds_[6] = {0, 0, 0, 0, 0, 0};  // box of every node: lower x y z, upper x y z
};

/// Removes the nodes numbered from nbNodes on that no connectivity in [first, last) uses
/// any more, renumbers the nodes after them keeping their relative order (in every
/// matrix of the range) and shrinks coords to the nodes left (their columns move down,
/// the column count drops; coords stays a view of its buffer, so shrinking never
/// allocates). Nodes below nbNodes are always kept. Entries equal to ~0U or not below
/// the column count of coords are left as they are. A matrix listed twice in the range
/// (the same view) is renumbered once; matrices that overlap otherwise are not supported.
/// Time linear in the nodes and entries.
/// @param[in,out] coords  3 x #nodes; 3 x #nodes-left on return
/// @param[in,out] first, last  a range of connectivities (any row counts; nullptr: none)
/// @param[out]    work    scratch space, #nodes - nbNodes entries (contents replaced)
/// @param[in]     nbNodes the nodes below it are kept whatever the connectivities use
/// @return 0 | -1 coords not 3 rows | -199 work cannot be sized (nothing changed)
ZEL_TESSEL_EXPORT int simplify(dense2D<double>& coords, dense2D<unsigned>* first, dense2D<unsigned>* last,
                               dense1D<unsigned, 8>& work, unsigned nbNodes);

/// Face adjacency of a linear solid mesh: neighbors gets one row per local face and one
/// column per element; entry (f, e) is the element across face f of e, ~0U on the
/// boundary (and on the rows past a mixed column's faces). Two elements are neighbours
/// across a face when their faces have the same nodes, in any order or orientation.
/// Face orders:
///   TH4         face f opposite node f: (1,2,3) (2,0,3) (0,1,3) (2,1,0)
///   PY5         (0,4,1) (1,4,2) (2,4,3) (3,4,0) (0,1,2,3)
///   W6          (0,1,2) (3,5,4) (2,1,4,5) (0,2,5,3) (1,0,3,4)
///   H8          (0,3,7,4) (1,5,6,2) (0,4,5,1) (3,2,6,7) (0,1,2,3) (4,7,6,5)
///   SOLID_MIX8  each column uses its kind's faces, classified from rows 3, 4, 5, 6 in
///               this order: row 3 present and row 4 absent TH4; row 4 present: row 5
///               absent PY5, else row 6 absent W6, else H8; rows 3 and 4 absent: row 5
///               absent H8, else row 6 absent W6, else H8
/// A face with an absent node (~0U) matches nothing. Where three or more elements share a
/// face, each takes the lowest-numbered other one (the adjacency is then not symmetric).
/// Runs in time linear in the mesh: faces are filed under their smallest node and paired
/// within that short list; memory is 16 bytes per face plus a table linear in the largest
/// node ID (a sort of the distinct IDs replaces the table when the IDs are sparse).
/// @param[in]  connect    4 (TH4), 5 (PY5), 6 (W6), 8 (H8, SOLID_MIX8) x #elements;
///                        any row count when it has no column; node IDs are not checked
///                        against a node count
/// @param[in]  type       TH4, PY5, W6, H8 or SOLID_MIX8
/// @param[out] neighbors  4 (TH4), 5 (PY5, W6), 6 (H8, SOLID_MIX8) x #elements, a new
///                        buffer; written only on success
/// @return 0 | -1 connect has columns and its row count is not that of type
///         | -2 type is not one of the five | -199 memory
ZEL_TESSEL_EXPORT int get_neighbors(const dense2D<unsigned>& connect, element_type type, dense2D<unsigned>& neighbors);

/// For each node ID below nbNodes, the first element (column) that holds it, ~0U for a
/// node in no element. node_element gets nbNodes entries, in a new buffer, and is
/// written only on success. ~0U entries of connect are skipped.
/// @return 0 | -1 an entry is neither below nbNodes nor ~0U | -199 memory
ZEL_TESSEL_EXPORT int get_node_element(const dense2D<unsigned>& connect, unsigned nbNodes,
                                       dense1D<unsigned, 8>& node_element);

}  // namespace tessel
}  // namespace zel
