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
///         connectivity or an internal table).
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
