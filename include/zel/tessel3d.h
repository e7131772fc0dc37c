// tessel3d: tools for three-dimensional finite-element meshes.
//
// Every function is stateless and works on plain matrices (zel/matrix.h):
//   coords    3 x #nodes doubles, one column per node (x, y, z)
//   connect   #rows x #elements node IDs, one column per element; ~0U marks an absent
//             node in the mixed layouts (SOLID_MIX8: TH4, PY5, W6 and H8 in 8 rows)
// Every view may have a leading dimension larger than its rows.
//
// Status codes: 0 on success (or a count / found flag where a function says so);
// -k when argument k (counted from 1) is invalid, the first failing check winning and
// nothing being written after it; -199 when an output cannot be sized. An empty
// connectivity is not an error. Nothing throws, prints or reads the environment.
//
// Orientation: an element is positive when its signed volume is. For a TH4,
// 6V = (p0 - p3) . ((p1 - p3) x (p2 - p3)), so node 3 lies on the negative side of the
// right-hand normal of 0 -> 1 -> 2 (the unit tetrahedron 0, e1, e2, e3 is negative).
// For PY5, W6 and H8 the right-hand normal of the base 0 -> 1 -> 2 (-> 3) points into
// the element.
//
// Concurrency: calls on distinct output matrices may run in parallel; matrices sharing
// a buffer (shallow copies) must not be written by two calls at once.
//
// Shared memory within a call: an output (or in-out argument) may be the same matrix as an
// input, a shallow copy or view of it, or overlap it: the call then reads that input from
// a private copy taken first and gives what it gives on separate matrices (-199 when that
// copy cannot be had, with nothing changed). Two outputs that share memory cannot both be
// written; the calls that have two are refused, nothing written: the angle measures with
// minValues and maxValues (-5), split_solid_Q4 with connectOut and failed (-6),
// duplicate_surface_nodes with coords and connectivity (-2). The extrusions read a surface
// or edge list that shares memory with connectE, connectQ4 or connectTop from a copy;
// their outputs must not share memory with one another.
#pragma once

#include "zel/matrix.h"
#include "zel/tessel.h"
#include "zel/tessel3d_export.h"

namespace zel {
namespace tessel3d {

/// The library version, "5.5.0.0" (a constant string for the life of the process).
TESSEL3D_EXPORT const char* version();

/// Sets the number of threads the functions below may use for one call: n, or with n = 0
/// (the default) the cores the process may run on (its affinity mask). Results are the
/// same bits whatever the count. The threads are oneTBB's: calls made from several
/// threads of the caller share them instead of multiplying them, and a call made from
/// inside the caller's own oneTBB work runs within it. Counts above 1024 are taken as
/// 1024. Takes effect for the calls that start after it returns.
TESSEL3D_EXPORT void set_threads(unsigned n);
/// The number of threads a call may use (at least 1).
TESSEL3D_EXPORT unsigned threads();

// ---- orientation flips -------------------------------------------------------------

/// Reverses the orientation of every element in place by exchanging fixed pairs of rows
/// in each column. Node IDs are neither checked nor changed; ~0U entries move like any.
///   TH4, PY5  0<->2            TH10  0<->2 4<->6 7<->9
///   W6        0<->2 3<->5      PY14  0<->2 5<->7 6<->8 9<->10 11<->12
///   H8        0<->2 4<->6      W18   0<->2 3<->5 6<->8 9<->11 12<->14 15<->17
///   H27       0<->2 4<->6 8<->9 10<->11 12<->13 14<->15 16<->18 21<->22 20<->23
///   any other type (PY13, W15, H20 included): the row count is checked, nothing moves.
/// Type SOLID_MIX8 (12) stands here for the 27-row mixed high-order layout: each column
/// gets 0<->2, then by its padding: row 10 absent (TH10) 4<->6 7<->9; else row 14 absent
/// (PY14) 5<->7 6<->8 9<->10 11<->12; else 3<->5 and, row 18 absent (W18), the W18
/// exchanges from 6<->8 on, or (H27) the H27 exchanges from 4<->6 on.
/// @param[in,out] connect  #rows x #elements; shape, offset and ld unchanged
/// @param[in]     type     one of the 25 element types
/// @return 0 (also for 0 columns, whatever the rows) | -2 row count is not the type's
///         (27 for SOLID_MIX8)
TESSEL3D_EXPORT int flip(dense2D<unsigned>& connect, element_type type);

/// Single-type flips that exchange the two halves of each element:
/// flip_TH4 0<->1; flip_W6 0<->3 1<->4 2<->5; flip_H8 0<->4 1<->5 2<->6 3<->7.
/// @return 0 (also for 0 columns) | -1 connect does not have 4 / 6 / 8 rows
TESSEL3D_EXPORT int flip_TH4(dense2D<unsigned>& connect);
TESSEL3D_EXPORT int flip_W6(dense2D<unsigned>& connect);
TESSEL3D_EXPORT int flip_H8(dense2D<unsigned>& connect);

// ---- measures ----------------------------------------------------------------------

/// Signed total volume of a solid mesh: the sum of the elements' signed volumes, so
/// inverted elements subtract (no absolute value is taken anywhere).
/// Each element is measured as a sum of tetrahedra (a, b, c, d) with the right-hand
/// volume det(b - a, c - a, d - a) / 6 (library TH4 orientation, see the file comment):
///   TH4  the element itself, (p0 - p3) . ((p1 - p3) x (p2 - p3)) / 6
///   PY5  (0 1 2 4) + (0 2 3 4): a warped base counts as split along its diagonal 0-2
///   W6   (1 2 0 4) + (2 0 4 3) + (2 4 5 3)
///   H8   (0 1 3 4) + (2 3 1 6) + (5 4 6 1) + (7 6 4 3) + (1 3 4 6)
/// With plane faces this is the exact volume. A warped quadrangle is cut along the
/// diagonal of that split, so two W6 or H8 sharing a warped face may cut it differently.
/// Reference values: tetrahedron (0,0,0) (1,0,0) (0,1,0) (0,0,1) -1/6; pyramid on the
/// base (0,0,0) (1,0,0) (1,1,0) (0,1,0) with apex (0,0,1) 1/3; prism (0,0,0) (1,0,0)
/// (0,1,0) (0,0,1) (1,0,1) (0,1,1) 1/2; unit cube with the base of the pyramid, then
/// the same corners at z = 1, 1.
/// @param[in]  coords   3 x #nodes
/// @param[in]  connect  #rows x #elements: 4 rows TH4, 5 PY5, 6 W6; any other row count is
///                      read as the 8-row mixed layout (a pure H8 mesh included), each
///                      column measured by its own kind. The kernels read rows 0-7 only.
/// @param[out] result   set to 0.0 first, then to the total
/// @return 0 (also for an empty connect, before any other check) | -1 coords not 3 rows
///         | -2 connect rejected by check_IDs (TH4, PY5, W6 by row count, else SOLID_MIX8,
///         which also rejects row counts other than 4, 5, 6, 8). Nothing is allocated.
/// A malformed mixed column whose kind needs an absent node (~0U) gives NaN.
TESSEL3D_EXPORT int volume(const dense2D<double>& coords, const dense2D<unsigned>& connect, double& result);

/// Circumcentres of the tetrahedra of a TH4 mesh, built from the circumcircle of face
/// (1, 2, 3) moved along the face normal until it is as far from node 0.
/// Deliberately sensitive to orientation: an inverted or flat element (6V <= 0, or node
/// 0 too close to the face's plane) gets the centre of the circumcircle of its face
/// (1, 2, 3) instead; a face whose nodes are (nearly) collinear gives the coordinates of
/// node 3. Example: (0,0,0) (0,1,0) (1,0,0) (0,0,1) gives (0.5, 0.5, 0.5); the inverted
/// order (0,0,0) (1,0,0) (0,1,0) (0,0,1) gives (1/3, 1/3, 1/3).
/// @param[in]  coords   3 x #nodes
/// @param[in]  connect  4 x #elements
/// @param[out] centers  emptied to 0 x 0 first (so a failing call leaves it empty);
///                      3 x #elements on success, column j the centre of element j
/// @return 0 (an empty 4-row connect gives centers 3 x 0) | -1 coords not 3 rows
///         | -2 connect not 4 rows (checked even when empty) or bad node IDs
///         | -199 centers cannot be sized
TESSEL3D_EXPORT int circumcenters(const dense2D<double>& coords, const dense2D<unsigned>& connect,
                                  dense2D<double>& centers);

/// Smallest and largest interior dihedral angle of every element, over the pairs of
/// faces that share an edge: acos(-(na . nb) / (|na| |nb|)) from the inward face normals
/// (triangle (a - c) x (b - c), quadrangle (c - a) x (d - b)). Radians, in [0, pi] for a
/// positive element; a degenerate face gives 0 for its pairs; the cosine is not clamped,
/// so rounding past +-1 gives NaN, which the extremes pass on as their comparisons
/// dictate (min takes x when "x >= min" is false, max when "max >= x" is false).
/// normalise scales each value so that the regular element of its kind scores 1:
///   TH4 1/acos(1/3); PY5 1/acos(-1/3) at the lateral edges, 1/acos(1/sqrt 3) at the
///   base; W6 3/pi between quadrangles, 2/pi elsewhere; H8 2/pi.
/// @param[in]  coords     3 x #nodes (rows past the third are ignored)
/// @param[in]  connect    4 (TH4), 5 (PY5), 6 (W6) rows, or the 8-row mixed layout (pure
///                        H8 included). In the mixed layout a pyramid base or wedge side
///                        whose fourth node is absent is measured as a triangle.
/// @param[in]  normalise  scale by the factors above
/// @param[out] minValues, maxValues  entry j set for element j; never resized: entries
///             past the end of a shorter vector are skipped, entries past #elements kept
/// @return -5 (tested first) minValues and maxValues share memory | 0 (an empty connect
///         after the check: outputs untouched) | -2 connect rejected by check_IDs (nothing
///         written) | -1 coords with fewer than 3 rows (tested after the emptiness test;
///         nothing written). The call allocates nothing: the values of an element
///         (at most twelve) are kept on the stack.
TESSEL3D_EXPORT int dihedral_angles(const dense2D<double>& coords, const dense2D<unsigned>& connect, bool normalise,
                                    dense1D<double, 8>& minValues, dense1D<double, 8>& maxValues);

/// Smallest and largest solid angle at the vertices of every element (steradians),
/// 2 atan2(a . (b x c), (c + b) . (b + a)) with a, b, c the unit edge vectors leaving
/// the vertex. Positive at the vertices of a positive element, negative for an inverted
/// one (pi/2 at a cube corner). A pyramid's apex is the sum of the two trihedra over
/// the halves of its base.
/// normalise scales: TH4 5/pi (the regular tetrahedron scores about 0.877, the right
///   corner of (0,0,0) (0,1,0) (1,0,0) (0,0,1) 2.5); PY5 1/(2 asin(1/3)) at the base,
///   1/(4 asin(1/3)) at the apex; W6 3/pi; H8 2/pi (regular elements score 1).
/// Arguments, extremes and status codes as dihedral_angles.
TESSEL3D_EXPORT int solid_angles(const dense2D<double>& coords, const dense2D<unsigned>& connect, bool normalise,
                                 dense1D<double, 8>& minValues, dense1D<double, 8>& maxValues);

/// The checked forms of dihedral_angles and solid_angles: extremes that are defined for
/// every element, and the list of degenerate elements. With L the longest edge of an
/// element and tol = 1e-12:
///   - a face is degenerate when its normal (as above) is no longer than tol L^2: its
///     pairs of faces are left out of the dihedral extremes;
///   - a corner is degenerate when one of its edges is no longer than tol L, two of its
///     edges are parallel (sine <= tol), or its three edges lie in a plane (|a . (b x c)|
///     <= tol for the unit edges) with the corner inside their angle, where the solid
///     angle would jump between -2 pi and 2 pi: it is left out of the solid-angle
///     extremes (a pyramid's apex when either half is);
///   - an element is degenerate when it has such a face (dihedral) or corner (solid), or
///     when it is flat: |volume| <= tol L^3 / 6, the volume split as `volume` splits it.
///     A column of the mixed layout that lacks a node its kind needs is degenerate.
/// Dihedral angles are atan2(|na x nb|, -(na . nb)) from the unit inward normals, always
/// in [0, pi] and accurate near 0 and pi (a flat tetrahedron gives 0 and pi); solid
/// angles use the formula above, in [-2 pi, 2 pi]. The extremes are those of the values
/// left, NaN for both only when no value is left. Normalisation as above. Each element
/// is measured on the stack: nothing is left out for lack of memory.
/// Example: a tetrahedron whose node 3 lies 1e-9 above the middle of face (0, 1, 2) is
/// not degenerate, with extremes close to 0 and pi; with nodes 0 and 1 at the same
/// point it is (flat, and two faces without a normal), its one defined dihedral angle,
/// between the faces opposite nodes 0 and 1, giving both extremes.
/// @param[out] degenerate  cleared first; on success the columns of the degenerate
///                         elements, ascending
/// @return as dihedral_angles (checks in the same order), or -199 when `degenerate`
///         cannot grow: every extreme is written and `degenerate` is left empty; -6 when
///         `degenerate` shares memory with minValues or maxValues (nothing written)
TESSEL3D_EXPORT int dihedral_angles(const dense2D<double>& coords, const dense2D<unsigned>& connect, bool normalise,
                                    dense1D<double, 8>& minValues, dense1D<double, 8>& maxValues,
                                    dense1D<unsigned, 8>& degenerate);
TESSEL3D_EXPORT int solid_angles(const dense2D<double>& coords, const dense2D<unsigned>& connect, bool normalise,
                                 dense1D<double, 8>& minValues, dense1D<double, 8>& maxValues,
                                 dense1D<unsigned, 8>& degenerate);

// ---- element order -----------------------------------------------------------------
//
// Local numbering of the high-order elements. A column lists the corners, then e nodes
// per edge in the local edge order, then the nodes inside each face in the local face
// order (t per triangle, q per quadrangle), then the nodes inside the element; rows past
// the element's own count hold ~0U.
//   edges  TH4  (1,2) (2,0) (0,1) (3,0) (3,1) (3,2)
//          PY5  (0,4) (1,4) (2,4) (3,4) (0,1) (1,2) (2,3) (3,0)
//          W6   (0,3) (1,4) (2,5) (1,2) (2,0) (0,1) (4,5) (5,3) (3,4)
//          H8   (0,1) (1,2) (2,3) (3,0) (4,5) (5,6) (6,7) (7,4) (0,4) (1,5) (2,6) (3,7)
//   faces  TH4  (1,2,3) (2,0,3) (0,1,3) (2,1,0)          face i is opposite corner i
//          PY5  (0,4,1) (1,4,2) (2,4,3) (3,4,0) (0,1,2,3)  four triangles, then the base
//          W6   (0,1,2) (3,5,4) (2,1,4,5) (0,2,5,3) (1,0,3,4)
//          H8   (0,3,7,4) (1,5,6,2) (0,4,5,1) (3,2,6,7) (0,1,2,3) (4,7,6,5)
// Quadratic setting: TH10 = corners 0-3, edge nodes 4-9; PY14 = corners 0-4, edge nodes
// 5-12, base centre 13; W18 = corners 0-5, edge nodes 6-14, quadrangle centres 15-17;
// H27 = corners 0-7, edge nodes 8-19, face centres 20-25, centre 26.
//
// Placement of the new nodes. Edge node k (0 ... e-1) lies at fraction (k+1)/(e+1) of
// the straight edge, from the end the edge was first met with; an element that walks the
// edge the other way lists its e nodes backwards, so in every element the k-th node of
// edge (a, b) is the (k+1)-th from a. Face nodes are spread by the face's first-met corner
// order (c0, c1, c2[, c3]): a triangle's single node at its centroid, its three nodes at
// weights (r, s, 1-r-s) on (c0, c1, c2) = (1/4, 1/4, 1/2), (1/2, 1/4, 1/4), (1/4, 1/2, 1/4);
// a quadrangle's q = k*k nodes on a k x k grid, node i + k*j at xi = 2(i+1)/(k+1) - 1 from
// c0 to c1 and eta = 2(j+1)/(k+1) - 1 from c0 to c3. An element seeing the face with the
// same orientation lists the run rotated left by the position of its first corner in the
// stored order; one seeing it reversed lists the run backwards, then rotated by the
// position of its first corner in the reversed stored order (for a triangle with three
// nodes: node k sits next to the element face's corner (k+2) mod 3 in the first case and
// (k+1) mod 3 in the second). Interior nodes: TH4 and W6 at the centroid, H8 on an
// m x m x m grid (first parameter fastest, xi along 0-1, eta along 0-3, zeta along 0-4,
// values 2(i+1)/(m+1) - 1), PY5 on the axis from the base centre (zeta = 0) to the apex
// (zeta = 1) at zeta = (k+1)/(p+1).
//
// Straight elements use linear weights (bilinear, trilinear; on the pyramid's axis each
// base corner weighs (1 - zeta)/4 and the apex zeta). A caller's edge node bends what is
// built next to it: a face one of whose edges carries a caller's node is curved and gets
// its nodes from the six-node triangle or the eight-node serendipity quadrangle on its
// corners and the first node of each edge; with e = 1 (and t = 0 for TH4, W6, PY5; q = 1
// for W6, H8, PY5) an element that touches a caller's node (an edge node for TH4 and W6;
// an edge or face node for H8 and PY5) places its interior nodes with the TH10 or W18
// functions, with the 27-node triquadratic hexahedron whose missing centre is taken as
// 1/2 sum(face nodes) - 1/4 sum(edge nodes) + 1/8 sum(corners), or, on the pyramid's
// axis, with the quadratic through the base centre (zeta = 0), the apex (zeta = 1) and
// the mid-height point 1/4 sum(lateral edge nodes) + 1/8 sum(base edge nodes)
// - 1/8 sum(base corners). All of these are exact for quadratic maps.

/// Converts a linear solid mesh into high order: e nodes on each edge, q = k*k inside
/// each quadrangle, t inside each triangle, h = m*m*m inside each H8, w inside each W6,
/// p inside each PY5, n inside each TH4. Every edge and face shared by several elements
/// gets one set of new nodes; the caller's edges and faces give theirs. New IDs are
/// numbered from #nodes in this order: edge nodes (edge by edge as the elements meet
/// them, column by column in local edge order), face nodes (likewise), interior nodes
/// (element by element).
/// @param[in,out] coords    3 x #nodes; grown by the new nodes (old columns untouched)
/// @param[in]     connectM  4 (TH4), 6 (TH4, PY5, W6 by their padding) or 8 rows (the
///                          mixed layout) x #elements
/// @param[in]     nodes_per_edge e (any), nodes_in_Q4 q (a square), nodes_in_T3 t (0, 1
///                or 3), nodes_in_H8 h (0, 1, 8 or 27), nodes_in_W6 w (0 or 1),
///                nodes_in_PY5 p (any), nodes_in_TH4 n (0 or 1)
/// @param[out]    connectH  cleared first; on success #rows x #elements with #rows
///                4+6e+4t+n for TH4 only, 6+9e+3q+2t+w for W6 only, and otherwise the
///                largest of those and 5+8e+q+4t+p and 8+12e+6q+h
/// @param[in]     faces     caller's faces, one column each: 3 corners, 3e edge nodes, t
///                interior nodes (t+3(e+1) rows: TH4 meshes, or 6-row meshes), or 4 corners,
///                4e edge nodes, q interior nodes (q+4(e+1) rows: 6- and 8-row meshes) where
///                a triangle has ~0U in the last row and its interior nodes from row 3e+3.
///                When both counts agree the quadrangle form is assumed. Only the corners
///                and the first interior node are read: a face's nodes are consecutive IDs
/// @param[in]     edges     caller's edges, e+2 rows: the two ends, then the e nodes from
///                the first end; only the first is read (the e nodes are consecutive IDs).
///                Of two columns for one edge (or face) the last one counts
/// @return 0 (also when connectM is empty or all counts are 0, with connectH cleared)
///         | -1 coords not 3 rows | -2 connectM not 4, 6 or 8 rows, bad node IDs, or a
///         column without one of its kind's corners | -4 q not a square | -5 t not 0, 1, 3
///         | -6 h not a cube (the cube root is truncated, so 64 and above are refused)
///         | -7 w >= 2 | -9 n >= 2 | -11 faces: wrong rows, bad IDs, or ~0U in a row
///         that is read | -12 edges: not e+2 rows, bad IDs or ~0U in a read row | -199
///         memory (also when a new node ID would reach ~0U); connectH is then
///         cleared and coords keeps its column count.
/// A degenerate element is converted like any other.
TESSEL3D_EXPORT int convert_into_high_order(dense2D<double>& coords, const dense2D<unsigned>& connectM,
                                            unsigned nodes_per_edge, unsigned nodes_in_Q4, unsigned nodes_in_T3,
                                            unsigned nodes_in_H8, unsigned nodes_in_W6, unsigned nodes_in_PY5,
                                            unsigned nodes_in_TH4, dense2D<unsigned>& connectH,
                                            const dense2D<unsigned>& faces, const dense2D<unsigned>& edges);
/// In-place form of the above: connect is copied, then receives the result. The codes
/// keep the positions of the long form (-11 faces, -12 edges); -199 also when the copy
/// cannot be made (connect untouched then). After any other failure, and when every count
/// is 0, connect is left cleared.
TESSEL3D_EXPORT int convert_into_high_order(dense2D<double>& coords, dense2D<unsigned>& connect,
                                            unsigned nodes_per_edge, unsigned nodes_in_Q4, unsigned nodes_in_T3,
                                            unsigned nodes_in_H8, unsigned nodes_in_W6, unsigned nodes_in_PY5,
                                            unsigned nodes_in_TH4, const dense2D<unsigned>& faces,
                                            const dense2D<unsigned>& edges);
/// Options of the conversion into high order.
struct high_order_options {
  /// true (the default): every element lists the nodes of each of its faces at the
  /// positions its own face order gives (see the placement rules above: node i + k*j of a
  /// quadrangle at xi from the element face's corner c0 to c1 and eta from c0 to c3; a
  /// triangle's node k next to its corner (k+2) mod 3), whatever rotation and reflection
  /// the face was first met with, so the complete Lagrange element built from a column
  /// is the element the linear one describes. false: the run of face nodes is rotated as
  /// a flat list, as the forms without options do, which for q > 1 and t = 3 lists the
  /// nodes of a face met second at the wrong positions.
  bool conforming_faces = true;
};

/// The conversion with options. Node IDs, coordinates and the rows of corners, edge
/// nodes and interior nodes are those of the forms without options, and so are the face
/// blocks of the element that meets each face first; with conforming_faces, the blocks
/// of the other elements list the same nodes in their own order. h may be any cube
/// (m*m*m: 64, 125, ... too). Status codes as above; the in-place form likewise.
TESSEL3D_EXPORT int convert_into_high_order(dense2D<double>& coords, const dense2D<unsigned>& connectM,
                                            unsigned nodes_per_edge, unsigned nodes_in_Q4, unsigned nodes_in_T3,
                                            unsigned nodes_in_H8, unsigned nodes_in_W6, unsigned nodes_in_PY5,
                                            unsigned nodes_in_TH4, dense2D<unsigned>& connectH,
                                            const dense2D<unsigned>& faces, const dense2D<unsigned>& edges,
                                            const high_order_options& options);
TESSEL3D_EXPORT int convert_into_high_order(dense2D<double>& coords, dense2D<unsigned>& connect,
                                            unsigned nodes_per_edge, unsigned nodes_in_Q4, unsigned nodes_in_T3,
                                            unsigned nodes_in_H8, unsigned nodes_in_W6, unsigned nodes_in_PY5,
                                            unsigned nodes_in_TH4, const dense2D<unsigned>& faces,
                                            const dense2D<unsigned>& edges, const high_order_options& options);
/// Quadratic elements in place: the in-place form with (e, q, t, h, w, p, n) =
/// (1, 1, 0, 1, 0, 0, 0), giving TH10, PY14, W18 and H27 (10 rows for TH4 meshes, 18 for
/// W6 meshes, 27 otherwise). The caller's faces are T6 columns (6 rows) or Q9 columns
/// (9 rows, a triangle being a T6 column with ~0U in row 8), the edges E3 columns (ends,
/// then the middle node).
/// @return as the in-place form: -11 faces, -12 edges.
TESSEL3D_EXPORT int convert_into_quadratic(dense2D<double>& coords, dense2D<unsigned>& connect);
TESSEL3D_EXPORT int convert_into_quadratic(dense2D<double>& coords, dense2D<unsigned>& connect,
                                           const dense2D<unsigned>& faces, const dense2D<unsigned>& edges);

/// Drops the high-order nodes of a quadratic connectivity in place; coordinates are not
/// touched and nothing is renumbered. 10 rows (TH10) become 4. 13, 14, 15, 18, 20 and 27
/// rows become 8, each column keeping its first 8 rows, with the padding of its kind
/// read from where its own padding begins: row 10 ~0U (TH10) pads rows 4-7; else row 13
/// or 14 ~0U (PY13, PY14) pads rows 5-7; else row 15 or 18 ~0U (W15, W18) pads rows 6-7.
/// Only rows beyond the pure element's own count are read, so pure PY13, PY14, W15 and
/// W18 matrices keep edge nodes in rows 5-7 (pyramids) or 6-7 (wedges).
/// @param[in,out] connect  #rows x #elements; a buffer shared with other matrices is left
///                to them (the result moves to a buffer of its own)
/// @return 0 (also for an empty matrix, unchanged) | -1 row count not 10, 13, 14, 15, 18,
///         20 or 27 (nothing changed) | -199 a shared buffer could not be detached
///         (nothing changed)
TESSEL3D_EXPORT int convert_into_linear(dense2D<unsigned>& connect);

/// Splits every TH4 into 4, every W6 into 6 and every H8 into 8 hexahedra: the mesh is
/// first given one node on every edge, inside every face and inside every element (the
/// conversion above with all counts 1), then each element is cut into one hexahedron per
/// corner (corner, the midpoints of its edges, the centres of its faces, the element's
/// centre). A positive element gives positive hexahedra, and a straight-sided mesh keeps
/// its volume.
/// @param[in,out] coords     3 x #nodes; grown by the new nodes only on success
/// @param[in]     connect    4, 6 or 8 rows (as above) x #elements; no pyramid
/// @param[in,out] connectH8  8 x #hexahedra, or empty; the new hexahedra are appended
///                after its columns (4 #TH4 + 6 #W6 + 8 #H8 of them, in element order)
/// @param[in]     faces      caller's faces with one interior node: 7 rows (triangles, for 4-
///                and 6-row meshes) or 9 rows (quadrangles); every entry must be a node, so
///                the 9-row form cannot carry a triangle (its ~0U marker is refused with -4)
/// @param[in]     edges      caller's edges with their middle node, 3 rows
/// @return 0 (also for 0 columns) | -1 coords not 3 rows | -2 bad node IDs in connect, or
///         a pyramid in a 6- or 8-row connect | -3 connectH8 not empty and not 8 rows | -4
///         faces with an ID that is not a node | -5 edges likewise | the conversion's codes
///         (-2, -11 faces rows, -12 edges rows, -199) | -199 connectH8 cannot grow. On
///         failure coords and connectH8 keep their column counts.
TESSEL3D_EXPORT int split_into_H8(dense2D<double>& coords, const dense2D<unsigned>& connect,
                                  dense2D<unsigned>& connectH8, const dense2D<unsigned>& faces,
                                  const dense2D<unsigned>& edges);

// ---- extrusion ---------------------------------------------------------------------
//
// Every extrusion sweeps a surface into layers of solids and differs only in where the
// copies of the surface nodes go. Shared rules:
//
// Surface connectS: 3 x #faces (T3), or 4 x #faces (Q4, or mixed with ~0U in row 3 for a
// triangle); corners 0 to 2 must be nodes. Its distinct nodes, taken in order of first
// appearance (columns in order, rows 0, 1, 2, 3), are the #surface nodes copied into each
// layer. The copy of surface node n in layer k (k = 1 ... N) is node
//   nbNodes + (k - 1) * #surface nodes + (position of n in that order),
// nbNodes being the column count of coords on entry; layer 0 is the surface itself.
//
// Outputs (existing columns are kept; new ones are appended after them):
//   coords      grows to 3 x (nbNodes + N * #surface nodes), new nodes layer by layer;
//               a 2-row (planar) coords becomes 3 rows with z = 0 for the old nodes
//   connectE    becomes 2 * rows(connectS) rows (6: W6; 8: H8, and W6 with ~0U in rows
//               6-7) and grows by N columns per face, face by face and, within a face,
//               layer by layer: (b0 b1 b2 [b3] t0 t1 t2 [t3]), b the face's nodes in
//               layer k - 1 and t in layer k. Existing rows are cut or padded with ~0U
//               accordingly (an existing 8-row connectE loses rows 6-7 to a 3-row surface).
//   connectQ4   (long forms) 4 rows, N columns per edge (a b) of connectE2, in edge order
//               then layer order: (b a a' b'), primes for the next layer. Edge nodes
//               should be surface nodes: others give meaningless IDs, without an error.
//   connectTop  (long forms) rows(connectS) rows, one column per face: the last layer's
//               copy reversed, (b0 b2 b1) or (b0 b3 b2 b1), ~0U kept in row 3 of a triangle
// The short forms pass empty matrices in place of connectE2, connectQ4 and connectTop and
// discard them. Each output grows by reserving at least twice its current columns (when it
// has no room) and resizing, so repeated extrusions into the same matrices stay linear.
//
// Orientation follows the surface: a solid is positive when the sweep goes the way the
// right-hand normal of its face points. Nothing merges nodes: a node on a rotation axis, a
// zero normal or a full turn gives flat solids.
//
// Layer counts: the layer-count forms return 0 at once (touching nothing) when
// nbLayers == 0; otherwise they call the size form with h0 = h1 = L / nbLayers and
// even_layers = false, L the family's sweep length, which gives exactly nbLayers uniform
// layers. A size form takes N = L * ln(hmax/hmin) / (hmax - hmin) (L / h when h0 == h1)
// rounded to a multiple m of 1 (of 2 with even_layers), never below m; between the
// candidates lo and hi = lo + m it picks hi when x^2 >= lo * hi (2.46 gives 3, 2.4 gives
// 2). Layer k ends at the fraction u_k of the sweep at which the layer thickness grows
// (or shrinks) geometrically from about h0 to about h1; u_k = k / N when h0 == h1.
//
// Status, in the order tested: 0 for an empty surface (outputs untouched), then -1 coords,
// -2 surface, the family's parameters, then the row checks of connectE (6 or 8),
// connectE2 (2), connectQ4 (4) and connectTop (3 or 4), an empty matrix passing each; the
// codes below give each family's numbers. Nothing is written when a check fails. -199:
//   - the layer count cannot be represented (L * layers per length not below 2^32 or not
//     a number: tiny sizes, a huge or undefined length) or the node IDs would reach 2^32
//     (nbNodes + N * #surface nodes >= 2^32): returned before anything is written;
//   - an output cannot be sized: every output is brought back to its column count on
//     entry (rows as resized: a planar coords stays 3 x nbNodes).
// The map of surface nodes is sized up front; when that reservation fails the map grows
// as it fills instead, and the call goes on (only what the map cannot hold fails it).
// The work is linear in the output: no count reaches a loop before its outputs are sized.

/// Sweeps a surface along the vector T: layer k is the surface moved by u_k T. L = |T|.
/// @param[in,out] coords      2 or 3 x #nodes (see the shared rules)
/// @param[in]     connectS    3 or 4 x #faces
/// @param[in]     T           the whole translation; the far cap is the surface moved by T
/// @param[in]     nbLayers    uniform layers (0: nothing done)
/// @param[in,out] connectE    0 x 0, 6 or 8 x #solids
/// @param[in]     connectE2   2 x #edges swept into connectQ4
/// @param[in,out] connectQ4   4 x #quadrangles
/// @param[in,out] connectTop  3 or 4 x #faces
/// @return 0 | -1 coords not 2 or 3 rows | -2 connectS bad node IDs or ~0U in rows 0-2
///         | -4 h0 not > 0 (so T = 0 with nbLayers gives -4) | -5 h1 not > 0 | -7 connectE
///         | -8 connectE2 | -9 connectQ4 | -10 connectTop | -199 (shared rules).
///         T and even_layers are not checked (no -3, no -6).
TESSEL3D_EXPORT int extrude_translate(dense2D<double>& coords, const dense2D<unsigned>& connectS,
                                      const vector_fixed<double, 3>& T, unsigned nbLayers, dense2D<unsigned>& connectE,
                                      const dense2D<unsigned>& connectE2, dense2D<unsigned>& connectQ4,
                                      dense2D<unsigned>& connectTop);
/// Short form: solids only. Codes as the long form (-7 connectE).
TESSEL3D_EXPORT int extrude_translate(dense2D<double>& coords, const dense2D<unsigned>& connectS,
                                      const vector_fixed<double, 3>& T, unsigned nbLayers, dense2D<unsigned>& connectE);
/// Size form: h0 and h1 are the layer thicknesses wanted next to the surface and at the
/// far cap; even_layers asks for an even count (at least 2). Codes as above.
TESSEL3D_EXPORT int extrude_translate(dense2D<double>& coords, const dense2D<unsigned>& connectS,
                                      const vector_fixed<double, 3>& T, double h0, double h1, bool even_layers,
                                      dense2D<unsigned>& connectE, const dense2D<unsigned>& connectE2,
                                      dense2D<unsigned>& connectQ4, dense2D<unsigned>& connectTop);
TESSEL3D_EXPORT int extrude_translate(dense2D<double>& coords, const dense2D<unsigned>& connectS,
                                      const vector_fixed<double, 3>& T, double h0, double h1, bool even_layers,
                                      dense2D<unsigned>& connectE);

/// Sweeps a surface around the axis through C along R by the angle |R| (right-hand rule):
/// layer k is the surface turned about that axis by u_k |R|. L = |P0 - C| |R|, P0 the first
/// node of the first face (the arc it travels when it lies in the plane through C normal
/// to R; no other node counts). A 2-row coords gets z from the rotation.
/// @param[in] C  a point of the axis
/// @param[in] R  the axis direction scaled by the total angle in radians
/// Other arguments as extrude_translate.
/// @return layer-count forms, before converting: 0 when nbLayers is 0 or connectS empty
///         | -1 coords not 2 or 3 rows | -2 P0 not below #nodes | -6 connectE | -7 connectE2
///         | -8 connectQ4 | -9 connectTop; then the size form's codes (-5 when P0 lies on
///         the axis, since L = 0).
///         Size forms: 0 | -1 | -2 connectS | -5 h0 not > 0 | -6 h1 not > 0 | -8 connectE
///         | -9 connectE2 | -10 connectQ4 | -11 connectTop | -199 (shared rules).
TESSEL3D_EXPORT int extrude_rotate(dense2D<double>& coords, const dense2D<unsigned>& connectS,
                                   const vector_fixed<double, 3>& C, const vector_fixed<double, 3>& R,
                                   unsigned nbLayers, dense2D<unsigned>& connectE, const dense2D<unsigned>& connectE2,
                                   dense2D<unsigned>& connectQ4, dense2D<unsigned>& connectTop);
TESSEL3D_EXPORT int extrude_rotate(dense2D<double>& coords, const dense2D<unsigned>& connectS,
                                   const vector_fixed<double, 3>& C, const vector_fixed<double, 3>& R,
                                   unsigned nbLayers, dense2D<unsigned>& connectE);
TESSEL3D_EXPORT int extrude_rotate(dense2D<double>& coords, const dense2D<unsigned>& connectS,
                                   const vector_fixed<double, 3>& C, const vector_fixed<double, 3>& R, double h0,
                                   double h1, bool even_layers, dense2D<unsigned>& connectE,
                                   const dense2D<unsigned>& connectE2, dense2D<unsigned>& connectQ4,
                                   dense2D<unsigned>& connectTop);
TESSEL3D_EXPORT int extrude_rotate(dense2D<double>& coords, const dense2D<unsigned>& connectS,
                                   const vector_fixed<double, 3>& C, const vector_fixed<double, 3>& R, double h0,
                                   double h1, bool even_layers, dense2D<unsigned>& connectE);

/// Sweeps a surface along a helix: layer k is the surface turned about the axis through C
/// along R by u_k |R|, then moved by u_k T. L = |T| (the turn plays no part in the count).
/// For a pure rotation use extrude_rotate: T = 0 with nbLayers gives -5 (h0 = 0), while
/// the size forms accept it (L = 0: one layer, two with even_layers).
/// @param[in] T  the whole translation along the sweep
/// Other arguments as extrude_rotate.
/// @return layer-count forms, before converting: 0 when nbLayers is 0 | -7 connectE
///         | -8 connectTop (even for an empty connectS); then the size form's codes.
///         Size forms: the codes of extrude_rotate's size form, -5 h0 and -6 h1 included,
///         although h0 and h1 stand one argument further on here: 0 | -1 | -2 | -5 | -6
///         | -8 connectE | -9 connectE2 | -10 connectQ4 | -11 connectTop | -199.
TESSEL3D_EXPORT int extrude_spiral(dense2D<double>& coords, const dense2D<unsigned>& connectS,
                                   const vector_fixed<double, 3>& C, const vector_fixed<double, 3>& R,
                                   const vector_fixed<double, 3>& T, unsigned nbLayers, dense2D<unsigned>& connectE,
                                   const dense2D<unsigned>& connectE2, dense2D<unsigned>& connectQ4,
                                   dense2D<unsigned>& connectTop);
TESSEL3D_EXPORT int extrude_spiral(dense2D<double>& coords, const dense2D<unsigned>& connectS,
                                   const vector_fixed<double, 3>& C, const vector_fixed<double, 3>& R,
                                   const vector_fixed<double, 3>& T, unsigned nbLayers, dense2D<unsigned>& connectE);
TESSEL3D_EXPORT int extrude_spiral(dense2D<double>& coords, const dense2D<unsigned>& connectS,
                                   const vector_fixed<double, 3>& C, const vector_fixed<double, 3>& R,
                                   const vector_fixed<double, 3>& T, double h0, double h1, bool even_layers,
                                   dense2D<unsigned>& connectE, const dense2D<unsigned>& connectE2,
                                   dense2D<unsigned>& connectQ4, dense2D<unsigned>& connectTop);
TESSEL3D_EXPORT int extrude_spiral(dense2D<double>& coords, const dense2D<unsigned>& connectS,
                                   const vector_fixed<double, 3>& C, const vector_fixed<double, 3>& R,
                                   const vector_fixed<double, 3>& T, double h0, double h1, bool even_layers,
                                   dense2D<unsigned>& connectE);

/// Grows a surface along nodal vectors, as for boundary layers or shells: node n moves by
/// (k / nbLayers) node_normals(:, n) in layer k, so the vector's length is the node's total
/// displacement (a zero vector keeps the node in place: flat solids). nbLayers is used as
/// it stands: 0 appends no node and no solid but still appends the reversed surface to
/// connectTop and gives connectE its 2 * rows(connectS) rows.
/// @param[in,out] coords        3 x #nodes (2 rows are refused)
/// @param[in]     node_normals  3 x (at least every surface node ID + 1); only the columns
///                              of surface nodes are read
/// @return 0 (empty connectS) | -1 coords not 3 rows | -2 connectS bad node IDs (checked
///         against min(#nodes, columns of node_normals)) or ~0U in rows 0-2
///         | -3 node_normals not 3 rows | -5 connectE | -6 connectE2 | -7 connectQ4
///         | -8 connectTop | -199 (shared rules). No -4: nbLayers is not checked.
TESSEL3D_EXPORT int extrude_normal(dense2D<double>& coords, const dense2D<unsigned>& connectS,
                                   const dense2D<double>& node_normals, unsigned nbLayers, dense2D<unsigned>& connectE,
                                   const dense2D<unsigned>& connectE2, dense2D<unsigned>& connectQ4,
                                   dense2D<unsigned>& connectTop);
TESSEL3D_EXPORT int extrude_normal(dense2D<double>& coords, const dense2D<unsigned>& connectS,
                                   const dense2D<double>& node_normals, unsigned nbLayers, dense2D<unsigned>& connectE);
/// Thickness forms: the surface's unit nodal normals (zel::tessel2d::normals, averaged over
/// every face, oriented by the faces' right-hand rule) scaled by thickness * u_k. L =
/// thickness; a layer count converts into h0 = h1 = thickness / nbLayers.
/// @return layer-count forms, before converting: 0 when nbLayers is 0 | -5 connectE
///         | -6 connectTop; then the size form's codes.
///         Size forms: 0 | -1 coords not 3 rows | -2 connectS | -3 thickness not > 0
///         | -4 h0 not > 0 | -5 h1 not > 0 | -7 connectE | -8 connectE2 | -9 connectQ4
///         | -10 connectTop | a negative status of the normals, as it is, before anything
///         is written | -199 (shared rules). No -6: even_layers is not checked.
TESSEL3D_EXPORT int extrude_normal(dense2D<double>& coords, const dense2D<unsigned>& connectS, double thickness,
                                   unsigned nbLayers, dense2D<unsigned>& connectE, const dense2D<unsigned>& connectE2,
                                   dense2D<unsigned>& connectQ4, dense2D<unsigned>& connectTop);
TESSEL3D_EXPORT int extrude_normal(dense2D<double>& coords, const dense2D<unsigned>& connectS, double thickness,
                                   unsigned nbLayers, dense2D<unsigned>& connectE);
TESSEL3D_EXPORT int extrude_normal(dense2D<double>& coords, const dense2D<unsigned>& connectS, double thickness,
                                   double h0, double h1, bool even_layers, dense2D<unsigned>& connectE,
                                   const dense2D<unsigned>& connectE2, dense2D<unsigned>& connectQ4,
                                   dense2D<unsigned>& connectTop);
TESSEL3D_EXPORT int extrude_normal(dense2D<double>& coords, const dense2D<unsigned>& connectS, double thickness,
                                   double h0, double h1, bool even_layers, dense2D<unsigned>& connectE);

/// Sweeps a cross-section along a polyline of existing nodes (pipes, beams, ducts): one
/// layer per segment, N = size(line) - 1. Starting from the direction V, segment k turns
/// the section by the smallest rotation from the previous direction (V for k = 1) onto
/// segment k, never more than 90 degrees (a fold back by more turns it by the
/// supplement); V = 0, or a direction along the segment, gives no turn. Layer k is layer
/// k - 1 moved from line[k - 1] to line[k], turned, and scaled about the polyline node by
/// f = g_k / g_(k-1), g_j being node j's size (1 where node j's scaling is not valid,
/// always for j = 0), so layer k's section is scaled by g_k when every node has a valid one.
/// When line[0] is a node of the section, the polyline's nodes take the place of its
/// copies in connectE, connectQ4 and connectTop and the copies are removed from coords
/// (zel::tessel::simplify; the later new nodes move down to close the gap; if that step
/// runs out of memory the unused copies stay, and 0 is still returned).
/// @param[in,out] coords        3 x #nodes
/// @param[in]     line          node IDs, at least 2
/// @param[in]     V             the direction the section faces at line[0]
/// @param[in]     line_metrics  empty, or 6 x #line: packed symmetric tensors (a11 a12 a22
///                              a13 a23 a33) per polyline node; column k is valid when it
///                              exists and is positive definite; g_k = 1 / sqrt(u^T A u) in
///                              the unit direction u of the node's offset from the polyline
///                              (0 when u^T A u <= 0, which puts the node on the polyline;
///                              so does an undefined quotient f, e.g. 0 / 0)
/// @return 0 (also for an empty connectS) | -1 coords not 3 rows | -2 connectS
///         | -3 fewer than 2 polyline nodes, or a polyline node not below #nodes
///         | -5 line_metrics neither empty nor 6 rows | -6 connectE | -7 connectE2
///         | -8 connectQ4 | -9 connectTop | -199 (shared rules). V is not checked (no -4).
TESSEL3D_EXPORT int extrude_line(dense2D<double>& coords, const dense2D<unsigned>& connectS,
                                 const dense1D<unsigned, 8>& line, const vector_fixed<double, 3>& V,
                                 const dense2D<double>& line_metrics, dense2D<unsigned>& connectE,
                                 const dense2D<unsigned>& connectE2, dense2D<unsigned>& connectQ4,
                                 dense2D<unsigned>& connectTop);
TESSEL3D_EXPORT int extrude_line(dense2D<double>& coords, const dense2D<unsigned>& connectS,
                                 const dense1D<unsigned, 8>& line, const vector_fixed<double, 3>& V,
                                 const dense2D<double>& line_metrics, dense2D<unsigned>& connectE);
/// Factor forms: g_k = line_scales[k], valid when k < size and 0 < value < DBL_MAX (with
/// line_scales = (any, 2, 2, 1) the section doubles, keeps that size, then returns). Codes
/// as the tensor forms without -5.
TESSEL3D_EXPORT int extrude_line(dense2D<double>& coords, const dense2D<unsigned>& connectS,
                                 const dense1D<unsigned, 8>& line, const vector_fixed<double, 3>& V,
                                 const dense1D<double, 8>& line_scales, dense2D<unsigned>& connectE,
                                 const dense2D<unsigned>& connectE2, dense2D<unsigned>& connectQ4,
                                 dense2D<unsigned>& connectTop);
TESSEL3D_EXPORT int extrude_line(dense2D<double>& coords, const dense2D<unsigned>& connectS,
                                 const dense1D<unsigned, 8>& line, const vector_fixed<double, 3>& V,
                                 const dense1D<double, 8>& line_scales, dense2D<unsigned>& connectE);

// ---- point location and interpolation ----------------------------------------------
//
// A TH4 mesh is searched through its face adjacency `neighbors` (4 x #elements: entry
// (f, e) is the element across face f of e, ~0U on the boundary; face f is opposite local
// node f, read as (1,2,3) (2,0,3) (0,1,3) (2,1,0), as zel::tessel::get_neighbors builds
// it) and `node_element` (one element holding each node, ~0U for a node in no element,
// as zel::tessel::get_node_element builds it).
//
// The search: a seed element from a node near the point, then a walk from element to
// element across a face through which the point lies outside, the first face tested
// being drawn from a fixed pseudo-random sequence (restarted for every walk, so the
// same mesh, point and seed give the same path). A walk ends when an element holds the
// point, when it leaves the mesh, when it meets an element whose 6V is not positive and
// finite, or after as many element tests as the mesh has elements. When it leaves the
// mesh (or reaches that limit), the search walks again from each element around the
// node closest to the point, in turn, until one walk finds it.
//
// Inside test: with 6V = (p0 - p3) . ((p1 - p3) x (p2 - p3)) and the barycentric
// coordinates of the point, the point is inside when every coordinate is >= -tolerance
// (0 accepts points on faces, edges and nodes; a positive value accepts points slightly
// outside, in proportion to the element's size; a negative one rejects points near faces).
// A point with a coordinate that is not finite lies in no element, and neither does a
// point far outside an element's box (beyond 1/1024 of its extent plus 4 x tolerance
// extents), whose triple products lose their digits (from about 1e17 extents away every
// one rounds to 0) or overflow; near the element the test is exactly the one above.
//
// Cost: the checks scan the mesh; then a node search, a walk of length about the
// distance from the seed in elements, and, when the walk leaves the mesh, one walk per
// element around the closest node (each at most #elements steps). When more than 64
// elements hold that node, a scan of the mesh first tells whether any element holds the
// point (if none does and every element is valid, no walk can find it: the answer is
// given at once, without changing it).

/// Finds the TH4 that holds `point`, seeded from `detector.find_close(point)` with a
/// second chance from the elements around `detector.find_closest(point)`.
/// @param[in]  coords        3 x #nodes
/// @param[in]  connectivity  #rows x #elements of type `type` (searched only as 4-row TH4)
/// @param[in]  neighbors     same shape as connectivity, rows = faces of `type` (TH4 and
///                           TH10 4, PY5..W18 5, H8..H27 and the mixed solids 6, T3/T6 3,
///                           Q4..Q9 and FACE_MIX4/9 4, edges 2, NONE/NODE 0)
/// @param[in]  node_element  #nodes entries (not checked against the element count; an
///                           entry that is not an element gives no seed)
/// @param[in]  detector      node search over the columns of coords, built by the caller
/// @param[out] element       the containing element, ~0U unless 1 is returned (set to
///                           ~0U before the first check)
/// @param[in]  tolerance     relative tolerance of the inside test (see above), finite
/// @return 1 located | 0 not located: outside the mesh, no seed node, or a mesh that is
///         not a 4-row TH4 (any other type passing the checks, surface and mixed meshes
///         included, is not searched) | -1 coords not 3 rows | -2 connectivity rejected
///         by check_IDs(type, #nodes) | -3 neighbors not the shape of connectivity, its
///         rows not those of `type`, or an entry neither an element nor ~0U | -4
///         node_element size not #nodes | -9 tolerance not finite (it would accept every
///         point) | -1 a walk met an inverted, flat or non-finite
///         element (0 instead when that happened exactly at the walk's step limit)
///         | -199 memory for the list of elements around the closest node.
/// The checks scan the whole mesh on every call (to search many points, use
/// get_elements_containing_points, which checks it once). Nothing else is written.
TESSEL3D_EXPORT int get_element_containing_point(const dense2D<double>& coords, const dense2D<unsigned>& connectivity,
                                                 const dense2D<unsigned>& neighbors,
                                                 const dense1D<unsigned, 8>& node_element,
                                                 const tessel::node_detector& detector, element_type type,
                                                 const vector_fixed<double, 3>& point, unsigned& element,
                                                 double tolerance);

/// Finds the TH4 that holds each of many points, checking the mesh once for all of them.
/// Each point is searched exactly as get_element_containing_point searches it alone (same
/// seed, walk, second chance and tolerance, no seed carried from one point to the next),
/// so elements[i] is, bit for bit, the element that call gives for column i of points
/// (~0U where it gives none). The points are visited along a space-filling curve over
/// their positions (points with a coordinate that is not finite last), which keeps
/// consecutive searches in the same part of the mesh; the results do not depend on it.
/// @param[in]  coords, connectivity, neighbors, node_element, detector, type, tolerance
///                           as for get_element_containing_point
/// @param[in]  points        3 x #points, one point per column (any leading dimension)
/// @param[out] elements      resized to #points once the checks pass: the containing
///                           element of each point, or ~0U; left as it was on a negative
///                           status, except -1 for an invalid element met
/// @return 1 every point located (also for 0 points) | 0 at least one point not
///         located (outside the mesh, no seed node), or a mesh that is not a 4-row TH4
///         (every entry ~0U) | -1 coords not 3 rows | -2 connectivity rejected by
///         check_IDs(type, #nodes) | -3 neighbors not the shape of connectivity, its rows
///         not those of `type`, or an entry neither an element nor ~0U | -4 node_element
///         size not #nodes | -7 points not 3 rows, or 2^32 columns or more | -9
///         tolerance not finite | -1 also
///         when the search of at least one point met an inverted, flat or non-finite
///         element, as get_element_containing_point reports it: then `elements` is
///         written, those points get ~0U and every other point its result | -199 memory (the order of the points, a list of
///         elements around a node, or `elements`): nothing written.
TESSEL3D_EXPORT int get_elements_containing_points(const dense2D<double>& coords, const dense2D<unsigned>& connectivity,
                                                   const dense2D<unsigned>& neighbors,
                                                   const dense1D<unsigned, 8>& node_element,
                                                   const tessel::node_detector& detector, element_type type,
                                                   const dense2D<double>& points, dense1D<unsigned, 8>& elements,
                                                   double tolerance);

/// Linear interpolation of a nodal field at the listed nodes that lie in no element
/// (node_element ~0U), e.g. the nodes of a second mesh appended to coords. Each is
/// located as above (tolerance 1e-6, seeds from an octree of the mesh's nodes built for
/// the call) and receives F3 + l0 (F0 - F3) + l1 (F1 - F3) + l2 (F2 - F3) from the four
/// nodes of its element and its barycentric weights; a node that is not located (outside
/// the mesh, or its walk met an invalid element) receives an exact copy of the nearest
/// mesh node's values (by exact distance, however far the node: distances that would
/// overflow are compared scaled by a power of two). Mesh nodes and unlisted nodes are
/// only read. A listed node with a coordinate that is not finite has no nearest node and
/// is left as it was. Mesh nodes with a coordinate that is not finite take no part in
/// the node search (none is copied from them); nodes crowded into one 2^-32 step of the mesh's extent (coincident nodes, or
/// a far outlier squeezing the rest) are searched one by one. Each node is located and
/// written on its own, so the nodes are treated in an order of their positions (along a
/// space-filling curve), each once and several at a time on the library's threads, which
/// gives the same values as the list order, faster; only when a listed node with
/// node_element ~0U is also a node of connectivity (inconsistent input, whose written
/// value later nodes may read) is the list order followed, one node at a time.
/// @param[in]     coords        3 x #nodes: mesh nodes and the nodes to fill
/// @param[in]     connectivity  4 x #elements TH4
/// @param[in]     neighbors     4 x #elements face adjacency
/// @param[in]     node_element  #nodes entries
/// @param[in,out] field         #components x #nodes (any row count, 0 included), or
///                              #nodes values
/// @param[in]     nodes         node IDs at which values may be computed
/// @return 0 (also for an empty `nodes`, checked first) | -1 coords not 3 rows | -2
///         connectivity not 4 rows, or a node ID not below #nodes | -3 neighbors not 4
///         rows, not #elements columns, or an entry neither an element nor ~0U
///         | -4 node_element size not #nodes | -5 field not one column (entry) per node
///         | -6 an entry of nodes is not a node ID | -199 memory for the octree, the
///         order of the nodes or their placements (nothing written), or for a second
///         chance (the nodes treated before it, in the order above, hold their values, the
///         others are as they were)
TESSEL3D_EXPORT int interpolate(const dense2D<double>& coords, const dense2D<unsigned>& connectivity,
                                const dense2D<unsigned>& neighbors, const dense1D<unsigned, 8>& node_element,
                                dense2D<double>& field, const dense1D<unsigned, 8>& nodes);
TESSEL3D_EXPORT int interpolate(const dense2D<double>& coords, const dense2D<unsigned>& connectivity,
                                const dense2D<unsigned>& neighbors, const dense1D<unsigned, 8>& node_element,
                                dense1D<double, 8>& field, const dense1D<unsigned, 8>& nodes);

/// Interpolation of metrics at the nodes that lie in no element, keeping every result a
/// valid metric. Anisotropic: 6 x #nodes, each column a symmetric positive-definite
/// tensor packed as M11 M12 M22 M13 M23 M33; the four node metrics of the element are
/// combined by a chain of two-metric interpolations, each in the basis that diagonalises
/// both metrics, linear in the sizes 1 / sqrt(eigenvalue). Isotropic: one size per node
/// (valid in (0, DBL_MAX)), interpolated linearly. Nodes with a negligible barycentric
/// weight (< 1e-12) take no part. Located and placed as by interpolate(); a node that is
/// not located copies the nearest mesh node's metric. A combination that fails (a node
/// metric that is not positive definite or not a valid size, an eigen solver failure)
/// leaves the node's metric as it was, and the call still returns 0.
/// @param[in,out] metrics     6 x #nodes tensors, or #nodes sizes
/// @param[in]     nodes       the nodes treated; the forms without it treat 0 ... #nodes-1
/// @param[in]     keep_valid  skip nodes whose metric is already valid (smallest
///                            eigenvalue > 0, or size in (0, DBL_MAX))
/// Other arguments as for interpolate(). Mesh nodes are never changed.
/// @return 0 (also for an empty `nodes`) | -1 coords not 3 rows | -2 connectivity not 4
///         rows, or a node ID not below #nodes | -3 neighbors not 4 rows or not #elements
///         columns, or an entry neither an element nor ~0U | -4 node_element size not
///         #nodes | -5 metrics not 6 x #nodes (or not #nodes long) | -6 an entry
///         of nodes is not a node ID | -199 memory (the octree, the list of every node,
///         the order of the nodes or their placements: nothing written; a second chance:
///         as for interpolate())
TESSEL3D_EXPORT int interpolate_metrics(const dense2D<double>& coords, const dense2D<unsigned>& connectivity,
                                        const dense2D<unsigned>& neighbors, const dense1D<unsigned, 8>& node_element,
                                        dense2D<double>& metrics, const dense1D<unsigned, 8>& nodes, bool keep_valid);
TESSEL3D_EXPORT int interpolate_metrics(const dense2D<double>& coords, const dense2D<unsigned>& connectivity,
                                        const dense2D<unsigned>& neighbors, const dense1D<unsigned, 8>& node_element,
                                        dense2D<double>& metrics, bool keep_valid);
TESSEL3D_EXPORT int interpolate_metrics(const dense2D<double>& coords, const dense2D<unsigned>& connectivity,
                                        const dense2D<unsigned>& neighbors, const dense1D<unsigned, 8>& node_element,
                                        dense1D<double, 8>& metrics, const dense1D<unsigned, 8>& nodes,
                                        bool keep_valid);
TESSEL3D_EXPORT int interpolate_metrics(const dense2D<double>& coords, const dense2D<unsigned>& connectivity,
                                        const dense2D<unsigned>& neighbors, const dense1D<unsigned, 8>& node_element,
                                        dense1D<double, 8>& metrics, bool keep_valid);

// ---- point location that cannot miss, and interpolation onto any point ---------------
//
// The search above trusts its walk: on meshes with slots, cracks, thin walls or holes the
// walk and its second chance, both started next to the node nearest the point, can end
// on the wrong side of a gap and miss a point that lies in an element. The forms below
// find every point that lies in a valid element (every barycentric coordinate >=
// -tolerance), whatever the mesh's shape: the same walk (from the element of a near
// node, at most 256 steps) is tried first, and when it fails a bounding-volume tree of
// the elements lists the few whose box holds the point, tested in a fixed order. The
// tree, rather than more walks, because its answer never depends on the paths between
// elements, and a query costs a descent (O(log #elements) plus the elements whose
// widened box holds the point) whatever the mesh's shape. Results are deterministic. A
// point with a coordinate that is not finite lies in no element; inverted, flat or
// non-finite elements hold no point.
//
// The interpolations below give a node outside the mesh the value at the closest point
// of the mesh's boundary (the nearest boundary face, interpolated on that face), so that
// the error of a linear field grows with the distance to the mesh, not with the size of
// its elements.

/// A TH4 mesh prepared for many searches: deep copies of coords and connectivity (later
/// changes to the caller's matrices do not reach it), the face adjacency, one element per
/// node, a node search and the trees of the elements and of the boundary faces. Queries
/// are const and may run at once from several threads. Memory: about 80 bytes per
/// element (twice that while building).
class TESSEL3D_EXPORT point_locator {
 public:
  /// Prepares the mesh; a locator that is not built (or whose build failed) holds no
  /// element and locates nothing.
  /// @param[in] coords        3 x #nodes
  /// @param[in] connectivity  4 x #elements TH4 (fewer than 2^30 elements)
  /// @return 0 | -1 coords not 3 rows | -2 connectivity not 4 rows, or a node ID not
  ///         below #nodes | -199 memory, or 2^30 elements or more (the locator is then
  ///         empty)
  int build(const dense2D<double>& coords, const dense2D<unsigned>& connectivity);

  /// The element that holds `point` (see above).
  /// @param[out] element    the element, ~0U unless 1 is returned
  /// @param[in]  tolerance  relative tolerance of the inside test, as for
  ///                        get_element_containing_point
  /// @return 1 located | 0 not located | -3 tolerance not finite
  int find(const vector_fixed<double, 3>& point, unsigned& element, double tolerance) const;

  /// The element that holds each column of `points` (3 x #points, any leading
  /// dimension), searched in an order along their positions, each as find() searches it.
  /// @param[out] elements  resized to #points: the element of each point, or ~0U;
  ///                       untouched on a negative status
  /// @return 1 every point located (also for 0 points) | 0 some not | -1 points not 3
  ///         rows, or 2^32 columns or more | -3 tolerance not finite | -199 memory
  int find(const dense2D<double>& points, dense1D<unsigned, 8>& elements, double tolerance) const;

  /// Where a value at `point` is read: the element holding it with its four barycentric
  /// weights (tolerance 0, else 1e-9 across an inner face only, the weights then clamped
  /// to [0, 1] and summing to 1; return 1); else the element of the boundary face nearest
  /// the point (by exact distance, scaled when it would overflow), with the weights of
  /// the closest point of that face (0 for the node opposite the face; return 2); 0 for a
  /// point with a coordinate that is not finite, or a locator with no element.
  int weights(const vector_fixed<double, 3>& point, unsigned& element, vector_fixed<double, 4>& lambda) const;

  /// One element holding node n, ~0U for a node in no element (or not a node).
  unsigned element_of_node(unsigned n) const { return n < node_element_.size() ? node_element_[n] : ~0U; }
  /// Number of elements held.
  std::size_t size() const { return connectivity_.cols(); }

 private:
  dense2D<double> coords_;
  dense2D<unsigned> connectivity_, neighbors_;
  dense1D<unsigned, 8> node_element_;
  tessel::node_detector nodes_;
  // Trees of the elements and of the boundary faces (item 4 e + f: face f of element e):
  // items in tree order, 7 values per tree node, depth.
  dense1D<unsigned, 8> element_items_, face_items_;
  dense1D<double, 8> element_nodes_, face_nodes_;
  unsigned element_depth_ = 0, face_depth_ = 0;
  double bounds_[6] = {0, 0, 0, 0, 0, 0};  // box of the nodes of the elements
};

/// The element of each column of `points` in a TH4 mesh, found as point_locator::find
/// finds it (which this builds for the call: to search many batches, keep a locator).
/// @param[in]  coords        3 x #nodes
/// @param[in]  connectivity  4 x #elements TH4
/// @param[in]  points        3 x #points
/// @param[out] elements      #points: the element of each point, or ~0U; untouched on a
///                           negative status
/// @param[in]  tolerance     relative tolerance of the inside test
/// @return 1 every point located | 0 some not | -1 coords not 3 rows | -2 connectivity
///         not 4 rows or a node ID not below #nodes | -3 points not 3 rows, or 2^32
///         columns or more | -5 tolerance not finite | -199 memory
TESSEL3D_EXPORT int locate_points(const dense2D<double>& coords, const dense2D<unsigned>& connectivity,
                                  const dense2D<double>& points, dense1D<unsigned, 8>& elements, double tolerance);

/// Interpolation of a nodal field at the listed nodes that no element references (e.g.
/// the nodes of a second mesh appended to coords): a node in an element gets the linear
/// interpolation of its four nodes, a node outside the mesh the value at the closest
/// point of the boundary (point_locator::weights). Linear fields are reproduced exactly
/// inside the mesh. A node with a coordinate that is not finite, or any node when the
/// mesh has no element, is left as it was. Cost: building a point_locator, then
/// O(log #elements) per node inside, plus the boundary faces whose box is nearer than
/// the closest one for a node outside. Mesh nodes and unlisted nodes are only
/// read.
/// @param[in]     coords        3 x #nodes: mesh nodes and the nodes to fill
/// @param[in]     connectivity  4 x #elements TH4
/// @param[in,out] field         #components x #nodes (any row count), or #nodes values
/// @param[in]     nodes         node IDs at which values may be computed
/// @return 0 (also for an empty `nodes`, checked first) | -1 coords not 3 rows | -2
///         connectivity not 4 rows, or a node ID not below #nodes | -3 field not one
///         column (entry) per node | -4 an entry of nodes is not a node ID | -199 memory
///         (nothing written)
TESSEL3D_EXPORT int interpolate_projected(const dense2D<double>& coords, const dense2D<unsigned>& connectivity,
                                          dense2D<double>& field, const dense1D<unsigned, 8>& nodes);
TESSEL3D_EXPORT int interpolate_projected(const dense2D<double>& coords, const dense2D<unsigned>& connectivity,
                                          dense1D<double, 8>& field, const dense1D<unsigned, 8>& nodes);

/// Interpolation of metrics (6 x #nodes packed tensors, or #nodes sizes, as for
/// interpolate_metrics) at the listed nodes that no element references, read where
/// interpolate_projected reads fields: the node metrics of the element with weight zero
/// are left out and the others combined as interpolate_metrics combines them. A result
/// is written only when it is valid (smallest eigenvalue > 0, or a size in (0,
/// DBL_MAX)); when the combination fails or gives an invalid result (rounding, with
/// extreme anisotropy), the node takes the valid metric of the element's node with the
/// largest weight, and is left as it was only when no node of the element has one.
/// @param[in,out] metrics     6 x #nodes tensors, or #nodes sizes
/// @param[in]     nodes       the nodes treated; the forms without it treat 0 ... #nodes-1
/// @param[in]     keep_valid  skip nodes whose metric is already valid
/// @return 0 (also for an empty `nodes`) | -1 coords not 3 rows | -2 connectivity not 4
///         rows, or a node ID not below #nodes | -3 metrics not 6 x #nodes (or not #nodes
///         long) | -4 an entry of nodes is not a node ID | -199 memory (nothing written)
TESSEL3D_EXPORT int interpolate_metrics_projected(const dense2D<double>& coords, const dense2D<unsigned>& connectivity,
                                                  dense2D<double>& metrics, const dense1D<unsigned, 8>& nodes,
                                                  bool keep_valid);
TESSEL3D_EXPORT int interpolate_metrics_projected(const dense2D<double>& coords, const dense2D<unsigned>& connectivity,
                                                  dense2D<double>& metrics, bool keep_valid);
TESSEL3D_EXPORT int interpolate_metrics_projected(const dense2D<double>& coords, const dense2D<unsigned>& connectivity,
                                                  dense1D<double, 8>& metrics, const dense1D<unsigned, 8>& nodes,
                                                  bool keep_valid);
TESSEL3D_EXPORT int interpolate_metrics_projected(const dense2D<double>& coords, const dense2D<unsigned>& connectivity,
                                                  dense1D<double, 8>& metrics, bool keep_valid);

// ---- surfaces ----------------------------------------------------------------------

/// Opens a solid mesh along an internal surface: every surface node that is not excluded
/// gets a copy for each requested side, and the elements on that side that hold the node
/// are made to use the copy, so that afterwards the two sides share none of these nodes.
///
/// Sides. A surface face (q0, q1, q2[, q3]) has the right-hand normal of q0 -> q1 -> q2.
/// An element lies on its positive side when one of the element's faces, read in the
/// face order below, is the same face with the same orientation (the element faces'
/// normals point into the element, so the surface normal points into it too); on its
/// negative side when that holds for the reversed face (q2, q1, q0) / (q3, q2, q1, q0).
/// Face orders (also those of zel::tessel::get_neighbors, which builds `neighbors`):
///   TH4  face f opposite node f: (1,2,3) (2,0,3) (0,1,3) (2,1,0)
///   PY5  (0,4,1) (1,4,2) (2,4,3) (3,4,0) (0,1,2,3)
///   W6   (0,1,2) (3,5,4) (2,1,4,5) (0,2,5,3) (1,0,3,4)
///   H8   (0,3,7,4) (1,5,6,2) (0,4,5,1) (3,2,6,7) (0,1,2,3) (4,7,6,5)
///
/// For each side (positive first), each surface column in order and each of its nodes n
/// in the side's order that this side has not handled yet: the elements around n are
/// those that hold n and are reached from node_element[n] across faces containing n;
/// the first of them (in depth-first order) having the oriented surface face is the
/// seed; from the seed the side spreads to neighbours that hold n, never across a
/// surface face (either orientation) nor the boundary. A new node, a copy of n's
/// coordinates, is appended to coords (even when the side holds no element, e.g. at
/// the boundary of the mesh) and replaces n in the elements reached. New node IDs
/// therefore follow the order in which the surface columns first list the nodes: the
/// positive side first, then the negative side reading each column backwards. An
/// excluded node (e.g. on the rim of an open surface) keeps its single ID. Lookups
/// read the connectivity as given; with both sides, n is left only in elements of
/// neither side.
///
/// @param[in,out] coords        3 x #nodes; grows by the returned count of columns
///                              (room for them is reserved first); the old columns are
///                              kept.
/// @param[in,out] connectivity  4 (TH4) or 8 (H8) x #elements, or SOLID_MIX8 in 4, 5, 6
///                              or 8 rows (absent rows ~0U). On success it becomes a new
///                              contiguous matrix (ld = rows) with the replaced IDs; other
///                              shallow copies of the input keep the old values.
/// @param[in]     neighbors     #faces (4 TH4, 6 H8 and SOLID_MIX8) x #elements: entry
///                              (f, e) is the element across local face f of e, ~0U on
///                              the boundary (and past the faces of a mixed column).
/// @param[in]     node_element  per node ID: one element holding it (at least as many
///                              entries as the highest node ID the connectivity uses).
/// @param[in]     surface       3 (T3, for TH4) or 4 (Q4, for H8) x #faces, or FACE_MIX4
///                              in 3 or 4 rows (row 3 ~0U: a triangle) for SOLID_MIX8.
/// @param[in]     excluded      nodes that keep their single ID; not validated, entries
///                              that are not surface nodes have no effect.
/// @param[in]     positive_side, negative_side  the sides to open.
/// @param[in]     type          TH4, H8 or SOLID_MIX8.
/// @return the number of nodes added (0 or more), after these checks in order:
///         -2 coords and connectivity share memory (nothing written);
///         0 when connectivity or surface has no entries or no side is requested;
///         -1 coords not 3 rows;
///         -2 connectivity IDs invalid (check_IDs for `type`) or, for TH4 / H8, not 4 / 8
///            rows;
///         -3 neighbors with another column count, with rows other than the face count
///            of `type` (4 TH4, 6 H8 and SOLID_MIX8; the other types by their own face
///            or side count, checked before -9), or with an entry that is neither an
///            element nor ~0U;
///         -4 a node of the connectivity has no node_element entry;
///         -5 surface IDs invalid for the face type of `type`, or not 3 (TH4) / 4 (H8)
///            rows;
///         -9 type is not TH4, H8 or SOLID_MIX8.
///         Then 0, with coords and connectivity unchanged, when a handled surface node's
///         node_element entry is missing or not an element holding it (the negative side
///         is not run when the positive one failed); -199, also with nothing changed,
///         when memory cannot be had (the room in coords, the working copy of the
///         connectivity or an internal table), or when a new node ID would reach ~0U.
TESSEL3D_EXPORT int duplicate_surface_nodes(dense2D<double>& coords, dense2D<unsigned>& connectivity,
                                            const dense2D<unsigned>& neighbors,
                                            const dense1D<unsigned, 8>& node_element, const dense2D<unsigned>& surface,
                                            const dense1D<unsigned, 8>& excluded, bool positive_side,
                                            bool negative_side, element_type type);

/// Makes a solid mesh conform to a triangulated interface: every solid that carries one
/// of the listed quadrangles is cut so that each listed quadrangle becomes two triangles
/// while its other faces stay as they were (so the pieces still match the neighbours);
/// the other solids are copied unchanged.
/// A solid carries a listed quadrangle when one of its faces is that quadrangle with the
/// same orientation, whatever corner the listing starts from. The faces, in face order,
/// with right-hand normals pointing into the solid:
///   PY5  0 4 1, 1 4 2, 2 4 3, 3 4 0, base 0 1 2 3
///   W6   0 1 2, 3 5 4, 2 1 4 5, 0 2 5 3, 1 0 3 4
///   H8   0 3 7 4, 1 5 6 2, 0 4 5 1, 3 2 6 7, 0 1 2 3, 4 7 6 5
/// So list a face as seen from the solid to split, and list it in both orientations to
/// split both solids that share it (the conforming form below needs either one).
///   PY5 whose base (0 1 2 3) is listed: two TH4 with the pyramid's apex, cut along 0-2 or
///     1-3.
///   W6 or H8 carrying one or more listed faces: one new node at the mean of its corners,
///     and one element on each face with that node as apex, in the solid's face order: a
///     TH4 on a triangle, a PY5 on an unlisted quadrangle, two TH4 on a listed quadrangle.
///   TH4 (and the TH4 columns of the mixed layout): copied, having no quadrangle.
/// The quality of an element is its smallest normalised dihedral angle, computed exactly
/// as dihedral_angles with normalisation does (1 for a regular element). A listed face is
/// cut along the diagonal whose two tetrahedra have the higher smallest quality, taken
/// over every solid that carries the face in either orientation, so a face listed both
/// ways is cut the same way on both sides; on a tie, the diagonal whose two node IDs,
/// sorted, are lexicographically smaller. A solid is split only when every piece has a
/// quality above min_quality (a NaN quality is not); otherwise it is copied unchanged,
/// its column goes to `failed` and it gets no new node. A face shared with such a solid
/// is then a quadrangle on its side and two triangles on the other (never so in the
/// conforming form below).
/// Every piece is positive when its solid is (TH4 with the library's handedness, see the
/// file comment), and the pieces of a solid with plane faces fill exactly its volume. An
/// inverted solid gives inverted pieces: dihedral angles do not see orientation.
/// A degenerate solid gives degenerate pieces, whose quality (0, or NaN) fails any
/// threshold of 0 or more.
/// @param[in,out] coords       3 x #nodes; on success grown by one column per split W6 or
///                             H8, in column order (old columns untouched)
/// @param[in]     connect      5 (PY5), 6 (W6) or 8 rows (H8, or the mixed layout whose
///                             columns are classified by their absent rows) x #solids
/// @param[in]     quads        4 x #quadrangles, each oriented as seen from a solid that
///                             carries it; duplicates and quadrangles no solid carries have
///                             no effect
/// @param[in]     min_quality  threshold on the quality of every piece (any finite value)
/// @param[out]    connectOut   cleared first; on success 8 x #elements in the mixed layout,
///                             the elements in input column order, a split solid's pieces
///                             (face by face) in its place, absent rows ~0U
/// @param[out]    failed       cleared first; on success the columns, ascending, of the
///                             solids that carry a listed face but were left whole
/// @return -6 (tested first) connectOut and failed share memory | 0 (also for a connect
///         without columns, connectOut then 8 x 0) | -1 coords not 3
///         rows | -2 connect with columns and a row count other than 5, 6, 8, a bad node
///         ID, or a mixed column whose kind needs an absent node | -3 quads with columns
///         and not 4 rows, or a bad node ID (~0U included) | -4 min_quality NaN or
///         infinite | -199 memory, also when a new node ID would reach ~0U. On any failure
///         connectOut and failed are left empty and coords keeps its columns. Time and
///         memory linear in #nodes + #solids + #quadrangles.
TESSEL3D_EXPORT int split_solid_Q4(dense2D<double>& coords, const dense2D<unsigned>& connect,
                                   const dense2D<unsigned>& quads, double min_quality, dense2D<unsigned>& connectOut,
                                   dense1D<unsigned, 8>& failed);

/// Why a solid is listed by the conforming split_solid_Q4 (row 1 of `failed`).
enum split_Q4_reason : unsigned {
  split_Q4_below_quality = 1,     ///< left whole: a piece would not exceed min_quality
  split_Q4_faces_kept_whole = 2,  ///< left whole: every listed face it carries is kept whole
  split_Q4_partly_split = 3,      ///< split, but some listed faces it carries are kept whole
};

/// The conforming split: a listed quadrangle is cut on both sides or on neither,
/// whichever orientation it is listed in (a solid carries it in either orientation).
/// Pieces, diagonals, quality and new nodes as the form above, with one more rule: a
/// solid that cannot be split with every piece above min_quality is copied unchanged and
/// keeps all its listed faces whole; every other solid on those faces is then judged
/// again with a PY5 on each such face (as on an unlisted quadrangle), and may in turn be
/// left whole. The rule is applied until nothing changes (a face only turns from cut to
/// whole), so no quadrangle of the output ever faces two triangles. Solids are judged
/// in column order, a solid sent back by a neighbour's failure next; a solid that fails
/// stays whole.
/// Arguments and status codes as the form above, except:
/// @param[out] failed  cleared first; on success 2 x #listed solids, ascending by column:
///                     row 0 the column of a solid that carries a listed face, row 1 a
///                     split_Q4_reason. A solid split with all its listed faces cut is
///                     not listed. Left empty on any failure.
/// Time and memory linear in #nodes + #solids + #quadrangles: each solid is judged at
/// most once more than it has listed faces.
TESSEL3D_EXPORT int split_solid_Q4(dense2D<double>& coords, const dense2D<unsigned>& connect,
                                   const dense2D<unsigned>& quads, double min_quality, dense2D<unsigned>& connectOut,
                                   dense2D<unsigned>& failed);

}  // namespace tessel3d
}  // namespace zel
