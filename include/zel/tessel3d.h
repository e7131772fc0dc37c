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
#pragma once

#include "zel/matrix.h"
#include "zel/tessel.h"
#include "zel/tessel3d_export.h"

namespace zel {
namespace tessel3d {

/// The library version, "5.5.0.0" (a constant string for the life of the process).
TESSEL3D_EXPORT const char* version();

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

/// Signed total volume of a solid mesh (inverted elements subtract).
/// @param[in]  coords   3 x #nodes
/// @param[in]  connect  4 (TH4), 5 (PY5), 6 (W6) rows, or any other count read as the
///                      8-row mixed layout (pure H8 included)
/// @param[out] result   set to 0 first, then to the total
/// @return 0 (also for an empty connect, before any check) | -1 coords not 3 rows
///         | -2 bad node IDs or row count
TESSEL3D_EXPORT int volume(const dense2D<double>& coords, const dense2D<unsigned>& connect, double& result);

/// Circumcentres of the tetrahedra of a TH4 mesh.
/// @param[in]  coords   3 x #nodes
/// @param[in]  connect  4 x #elements
/// @param[out] centers  emptied first; 3 x #elements on success
/// @return 0 | -1 coords not 3 rows | -2 connect not 4 rows or bad node IDs
///         | -199 centers cannot be sized
TESSEL3D_EXPORT int circumcenters(const dense2D<double>& coords, const dense2D<unsigned>& connect,
                                  dense2D<double>& centers);

/// Smallest and largest dihedral angle of every element (radians, or normalised so that
/// the regular element of its kind scores 1).
/// @param[in]  coords     3 x #nodes (rows not checked)
/// @param[in]  connect    4, 5, 6 rows or the 8-row mixed layout
/// @param[in]  normalise  scale by the kind's normalisation factors
/// @param[out] minValues, maxValues  entry j for element j; sized by the caller (at
///             least #elements), never resized
/// @return 0 | -2 bad node IDs or row count
TESSEL3D_EXPORT int dihedral_angles(const dense2D<double>& coords, const dense2D<unsigned>& connect, bool normalise,
                                    dense1D<double, 8>& minValues, dense1D<double, 8>& maxValues);

/// Smallest and largest solid angle at the vertices of every element (steradians, or
/// normalised). Arguments and codes as dihedral_angles.
TESSEL3D_EXPORT int solid_angles(const dense2D<double>& coords, const dense2D<unsigned>& connect, bool normalise,
                                 dense1D<double, 8>& minValues, dense1D<double, 8>& maxValues);

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
// A surface connectS (3 rows: T3; 4 rows: Q4, or mixed with ~0U in row 3) is swept into
// layers of W6 and H8 appended to connectE (6 or 8 rows). The long forms also append the
// lateral quadrangles swept by the edges of connectE2 to connectQ4 and the far cap,
// reversed, to connectTop. The copy of surface node n in layer k gets the ID
// nbNodes + (k - 1) * #surface nodes + (index of n in order of first appearance).
// Layer counts come either from nbLayers or from sizes h0 (start) and h1 (end), the
// thickness varying geometrically from one to the other (even_layers: an even count).
// Existing columns of every output are kept; on failure after writing began, every
// output is brought back to its column count on entry.

TESSEL3D_EXPORT int extrude_translate(dense2D<double>& coords, const dense2D<unsigned>& connectS,
                                      const vector_fixed<double, 3>& T, unsigned nbLayers, dense2D<unsigned>& connectE,
                                      const dense2D<unsigned>& connectE2, dense2D<unsigned>& connectQ4,
                                      dense2D<unsigned>& connectTop);
TESSEL3D_EXPORT int extrude_translate(dense2D<double>& coords, const dense2D<unsigned>& connectS,
                                      const vector_fixed<double, 3>& T, unsigned nbLayers,
                                      dense2D<unsigned>& connectE);
TESSEL3D_EXPORT int extrude_translate(dense2D<double>& coords, const dense2D<unsigned>& connectS,
                                      const vector_fixed<double, 3>& T, double h0, double h1, bool even_layers,
                                      dense2D<unsigned>& connectE, const dense2D<unsigned>& connectE2,
                                      dense2D<unsigned>& connectQ4, dense2D<unsigned>& connectTop);
TESSEL3D_EXPORT int extrude_translate(dense2D<double>& coords, const dense2D<unsigned>& connectS,
                                      const vector_fixed<double, 3>& T, double h0, double h1, bool even_layers,
                                      dense2D<unsigned>& connectE);

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

TESSEL3D_EXPORT int extrude_normal(dense2D<double>& coords, const dense2D<unsigned>& connectS,
                                   const dense2D<double>& node_normals, unsigned nbLayers, dense2D<unsigned>& connectE,
                                   const dense2D<unsigned>& connectE2, dense2D<unsigned>& connectQ4,
                                   dense2D<unsigned>& connectTop);
TESSEL3D_EXPORT int extrude_normal(dense2D<double>& coords, const dense2D<unsigned>& connectS,
                                   const dense2D<double>& node_normals, unsigned nbLayers,
                                   dense2D<unsigned>& connectE);
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

TESSEL3D_EXPORT int extrude_line(dense2D<double>& coords, const dense2D<unsigned>& connectS,
                                 const dense1D<unsigned, 8>& line, const vector_fixed<double, 3>& V,
                                 const dense2D<double>& line_metrics, dense2D<unsigned>& connectE,
                                 const dense2D<unsigned>& connectE2, dense2D<unsigned>& connectQ4,
                                 dense2D<unsigned>& connectTop);
TESSEL3D_EXPORT int extrude_line(dense2D<double>& coords, const dense2D<unsigned>& connectS,
                                 const dense1D<unsigned, 8>& line, const vector_fixed<double, 3>& V,
                                 const dense2D<double>& line_metrics, dense2D<unsigned>& connectE);
TESSEL3D_EXPORT int extrude_line(dense2D<double>& coords, const dense2D<unsigned>& connectS,
                                 const dense1D<unsigned, 8>& line, const vector_fixed<double, 3>& V,
                                 const dense1D<double, 8>& line_scales, dense2D<unsigned>& connectE,
                                 const dense2D<unsigned>& connectE2, dense2D<unsigned>& connectQ4,
                                 dense2D<unsigned>& connectTop);
TESSEL3D_EXPORT int extrude_line(dense2D<double>& coords, const dense2D<unsigned>& connectS,
                                 const dense1D<unsigned, 8>& line, const vector_fixed<double, 3>& V,
                                 const dense1D<double, 8>& line_scales, dense2D<unsigned>& connectE);

// ---- point location and interpolation ----------------------------------------------

/// Finds the TH4 that holds `point` by a walk across faces from an element next to a
/// node that `detector` returns, with a second chance from the elements around the
/// truly closest node.
/// @return 1 located (element set) | 0 not located (element ~0U) | -1 coords
///         | -2 connectivity IDs | -3 neighbors | -4 node_element | -1 a walk met an
///         inverted or flat element
TESSEL3D_EXPORT int get_element_containing_point(const dense2D<double>& coords, const dense2D<unsigned>& connectivity,
                                                 const dense2D<unsigned>& neighbors,
                                                 const dense1D<unsigned, 8>& node_element,
                                                 const tessel::node_detector& detector, element_type type,
                                                 const vector_fixed<double, 3>& point, unsigned& element,
                                                 double tolerance);

/// Linear interpolation of a nodal field at the listed nodes that lie in no element
/// (node_element ~0U); nodes outside the mesh copy the nearest mesh node.
/// @return 0 | -1 coords | -2 connectivity | -3 neighbors | -4 node_element | -5 field
///         | -6 nodes
TESSEL3D_EXPORT int interpolate(const dense2D<double>& coords, const dense2D<unsigned>& connectivity,
                                const dense2D<unsigned>& neighbors, const dense1D<unsigned, 8>& node_element,
                                dense2D<double>& field, const dense1D<unsigned, 8>& nodes);
TESSEL3D_EXPORT int interpolate(const dense2D<double>& coords, const dense2D<unsigned>& connectivity,
                                const dense2D<unsigned>& neighbors, const dense1D<unsigned, 8>& node_element,
                                dense1D<double, 8>& field, const dense1D<unsigned, 8>& nodes);

/// Interpolation of metrics (6 packed values per node: M11 M12 M22 M13 M23 M33) or of
/// isotropic sizes at nodes that lie in no element, keeping every result a valid metric.
/// @return 0 | -1 coords | -2 connectivity | -3 neighbors | -4 node_element | -5 metrics
///         | -6 nodes
TESSEL3D_EXPORT int interpolate_metrics(const dense2D<double>& coords, const dense2D<unsigned>& connectivity,
                                        const dense2D<unsigned>& neighbors, const dense1D<unsigned, 8>& node_element,
                                        dense2D<double>& metrics, const dense1D<unsigned, 8>& nodes,
                                        bool keep_valid);
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

// ---- surfaces ----------------------------------------------------------------------

/// Opens a TH4, H8 or SOLID_MIX8 mesh along an internal surface by giving every
/// non-excluded surface node a copy used on the chosen side(s).
/// @return the number of nodes added (>= 0) | -1 coords | -2 connectivity | -3 neighbors
///         | -4 node_element | -5 surface | -9 type | -199 memory
TESSEL3D_EXPORT int duplicate_surface_nodes(dense2D<double>& coords, dense2D<unsigned>& connectivity,
                                            const dense2D<unsigned>& neighbors,
                                            const dense1D<unsigned, 8>& node_element,
                                            const dense2D<unsigned>& surface, const dense1D<unsigned, 8>& excluded,
                                            bool positive_side, bool negative_side, element_type type);

/// Splits the solids that carry one of the listed quadrangles so that each listed
/// quadrangle becomes two triangles; other solids are copied unchanged.
/// @return 0 | -1 coords | -2 connect | -3 quads | -4 min_quality | -199 memory
TESSEL3D_EXPORT int split_solid_Q4(dense2D<double>& coords, const dense2D<unsigned>& connect,
                                   const dense2D<unsigned>& quads, double min_quality, dense2D<unsigned>& connectOut,
                                   dense1D<unsigned, 8>& failed);

}  // namespace tessel3d
}  // namespace zel
