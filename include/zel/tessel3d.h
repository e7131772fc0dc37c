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

/// Converts a linear solid mesh (4, 6 or 8 rows; TH4, PY5, W6, H8, alone or mixed) into
/// high order: e nodes on each edge, q = k*k inside each quadrangle, t in {0, 1, 3}
/// inside each triangle, h = m*m*m inside each H8, w in {0, 1} inside each W6, p inside
/// each PY5, n in {0, 1} inside each TH4. Shared edges and faces get one set of nodes.
/// Caller's edges (e + 2 rows) and faces are reused.
/// @return 0 | -1 coords | -2 connectM | -4 q | -5 t | -6 h | -7 w | -9 n | -11 faces
///         | -12 edges | -199 memory
TESSEL3D_EXPORT int convert_into_high_order(dense2D<double>& coords, const dense2D<unsigned>& connectM,
                                            unsigned nodes_per_edge, unsigned nodes_in_Q4, unsigned nodes_in_T3,
                                            unsigned nodes_in_H8, unsigned nodes_in_W6, unsigned nodes_in_PY5,
                                            unsigned nodes_in_TH4, dense2D<unsigned>& connectH,
                                            const dense2D<unsigned>& faces, const dense2D<unsigned>& edges);
/// In-place form of the above (same codes, -11 faces, -12 edges).
TESSEL3D_EXPORT int convert_into_high_order(dense2D<double>& coords, dense2D<unsigned>& connect,
                                            unsigned nodes_per_edge, unsigned nodes_in_Q4, unsigned nodes_in_T3,
                                            unsigned nodes_in_H8, unsigned nodes_in_W6, unsigned nodes_in_PY5,
                                            unsigned nodes_in_TH4, const dense2D<unsigned>& faces,
                                            const dense2D<unsigned>& edges);
/// Quadratic elements in place: TH10, PY14, W18, H27.
TESSEL3D_EXPORT int convert_into_quadratic(dense2D<double>& coords, dense2D<unsigned>& connect);
TESSEL3D_EXPORT int convert_into_quadratic(dense2D<double>& coords, dense2D<unsigned>& connect,
                                           const dense2D<unsigned>& faces, const dense2D<unsigned>& edges);

/// Drops the high-order nodes of a quadratic connectivity in place (coordinates untouched).
/// @return 0 | -1 row count not 10, 13, 14, 15, 18, 20 or 27
TESSEL3D_EXPORT int convert_into_linear(dense2D<unsigned>& connect);

/// Splits every TH4 into 4, W6 into 6 and H8 into 8 hexahedra appended to connectH8.
/// @return 0 | -1 coords | -2 connect (pyramids included) | -3 connectH8 not 8 rows
///         | -4 faces | -5 edges | -199 memory
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
/// @param[in]  tolerance     relative tolerance of the inside test (see above)
/// @return 1 located | 0 not located: outside the mesh, no seed node, or a mesh that is
///         not a 4-row TH4 (any other type passing the checks, surface and mixed meshes
///         included, is not searched) | -1 coords not 3 rows | -2 connectivity rejected
///         by check_IDs(type, #nodes) | -3 neighbors not the shape of connectivity, its
///         rows not those of `type`, or an entry neither an element nor ~0U | -4
///         node_element size not #nodes | -1 a walk met an inverted, flat or non-finite
///         element (0 instead when that happened exactly at the walk's step limit)
///         | -199 memory for the list of elements around the closest node.
/// The checks scan the whole mesh on every call. Nothing else is written.
TESSEL3D_EXPORT int get_element_containing_point(const dense2D<double>& coords, const dense2D<unsigned>& connectivity,
                                                 const dense2D<unsigned>& neighbors,
                                                 const dense1D<unsigned, 8>& node_element,
                                                 const tessel::node_detector& detector, element_type type,
                                                 const vector_fixed<double, 3>& point, unsigned& element,
                                                 double tolerance);

/// Linear interpolation of a nodal field at the listed nodes that lie in no element
/// (node_element ~0U), e.g. the nodes of a second mesh appended to coords. Each is
/// located as above (tolerance 1e-6, seeds from an octree of the mesh's nodes built for
/// the call) and receives F3 + l0 (F0 - F3) + l1 (F1 - F3) + l2 (F2 - F3) from the four
/// nodes of its element and its barycentric weights; a node that is not located (outside
/// the mesh, or its walk met an invalid element) receives an exact copy of the nearest
/// mesh node's values. Mesh nodes and unlisted nodes are only read.
/// @param[in]     coords        3 x #nodes: mesh nodes and the nodes to fill
/// @param[in]     connectivity  4 x #elements TH4 (node IDs not checked: must be valid)
/// @param[in]     neighbors     4 x #elements face adjacency
/// @param[in]     node_element  #nodes entries
/// @param[in,out] field         #components x #nodes (any row count, 0 included), or
///                              #nodes values
/// @param[in]     nodes         node IDs at which values may be computed
/// @return 0 (also for an empty `nodes`, checked first) | -1 coords not 3 rows | -2
///         connectivity not 4 rows | -3 neighbors not 4 rows or not #elements columns
///         | -4 node_element size not #nodes | -5 field not one column (entry) per node
///         | -6 an entry of nodes is not a node ID | -199 memory for the octree (nothing
///         written) or for a second chance (the nodes before it hold their values)
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
///         rows | -3 neighbors not 4 rows or not #elements columns | -4 node_element
///         size not #nodes | -5 metrics not 6 x #nodes (or not #nodes long) | -6 an entry
///         of nodes is not a node ID | -199 memory (the octree, the list of every node
///         or a second chance)
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
