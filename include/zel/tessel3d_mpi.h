// tessel3d_mpi: the library's tools on meshes partitioned over MPI ranks.
//
// Each rank holds its part of the mesh as the library's own matrices plus 64-bit global
// IDs (struct part below). Who shares which nodes with whom is derived from the global
// node IDs, so a caller never builds communication lists.
//
// Every function here is collective over its communicator, like an MPI call: every rank
// of `comm` calls it, with its own part. MPI is initialised by the caller; the library
// never uses MPI_COMM_WORLD and sends its messages on a private duplicate of `comm`, so
// they never mix with the caller's.
//
// Status codes, as in <zel/tessel3d.h>: 0 on success; -k when argument k (counted from 1,
// the communicator being argument 1) is invalid; -199 when an output or a work buffer
// cannot be sized. EVERY RANK RETURNS THE SAME STATUS: when ranks fail differently, all
// return the failure of the lowest argument number, and -199 only when no argument is
// invalid anywhere. Outputs are unchanged on every rank when the status is not 0. Nothing
// throws, prints or reads the environment.
#pragma once

#include <mpi.h>

#include <cstdint>
#include <string>
#include <vector>

#include "zel/matrix.h"
#include "zel/tessel3d.h"
#include "zel/tessel3d_mpi_export.h"

namespace zel {
namespace tessel3d {
namespace mpi {

/// One rank's part of a mesh partitioned over a communicator.
/// Every element lives on exactly one rank. A node lives on every rank that has an
/// element using it (or, for a part that is a point cloud, on the rank holding it), with
/// the same global ID and the same coordinates everywhere. The owner of a node is the
/// lowest rank holding it. Global IDs are any distinct 64-bit values (not necessarily
/// dense): distinct among a rank's nodes, and distinct among all ranks' elements.
/// A part holds nodes that no local element uses only where a function says so.
struct part {
  dense2D<double> coords;              ///< 3 x #local nodes
  dense2D<unsigned> connect;           ///< #rows x #local elements, local node IDs (columns of coords)
  dense1D<std::uint64_t> node_ids;     ///< #local nodes: the global ID of each local node
  dense1D<std::uint64_t> element_ids;  ///< #local elements: the global ID of each element
};

// ---- distribution ------------------------------------------------------------------

/// Spreads a mesh held by one rank over every rank of comm. The root's mesh is cut by
/// METIS (the dual graph of the elements, two elements being neighbours when they share
/// a face); each rank receives its elements and every node they use. Global node IDs are
/// the root's column indices in coords, global element IDs the root's column indices in
/// connect; a part's local nodes are in ascending global ID and its elements in
/// ascending global ID. With one rank, no partitioner is called.
/// @param[in]  comm     the communicator (every rank calls)
/// @param[in]  root     the rank holding the mesh, the same on every rank
/// @param[in]  coords   on root: 3 x #nodes; ignored elsewhere
/// @param[in]  connect  on root: #rows x #elements in one of the library's solid layouts
///                      (4, 5, 6 or 8 rows, the 8-row mixed layout, or the quadratic
///                      rows 10, 13, 14, 15, 18, 20, 27); ignored elsewhere
/// @param[out] out      this rank's part
/// @return 0 | -1 comm is MPI_COMM_NULL | -2 root is not a rank of comm (or differs
///         between ranks) | -3 coords (rows) | -4 connect (row count, or a node ID not a
///         column of coords) | -5 the partitioner failed | -199
TESSEL3D_MPI_EXPORT int distribute(MPI_Comm comm, int root, const dense2D<double>& coords,
                                   const dense2D<unsigned>& connect, part& out);

/// Rebuilds on root the one-machine mesh of a partitioned one: nodes are the distinct
/// global node IDs of all parts, in ascending order (the i-th smallest ID becomes
/// column i), and elements are ordered by ascending global element ID. For parts made by
/// `distribute`, this gives back the root's mesh when every node was used by an element.
/// @param[in]  comm     the communicator (every rank calls)
/// @param[in]  root     the rank receiving the mesh, the same on every rank
/// @param[in]  p        this rank's part
/// @param[out] coords   on root: 3 x #global nodes; unchanged elsewhere
/// @param[out] connect  on root: #rows x #global elements; unchanged elsewhere
/// @return 0 | -1 comm is MPI_COMM_NULL | -2 root | -3 p (shapes disagree, a local node
///         ID out of range, connect rows differing between ranks, or a repeated global
///         element ID) | -199
TESSEL3D_MPI_EXPORT int gather(MPI_Comm comm, int root, const part& p, dense2D<double>& coords,
                               dense2D<unsigned>& connect);

// ---- measures ----------------------------------------------------------------------

/// Signed total volume of a partitioned solid mesh. Each element's volume is what the
/// one-machine `volume` gives for that element alone; those values are summed exactly
/// and the total is rounded once (to nearest, ties to even), so every rank gets the same
/// bits whatever the number of ranks, the partition and the order of the elements. It
/// may differ from the one-machine `volume` of the whole mesh by that function's own
/// rounding of its running sum (a few units in the last place on large meshes).
/// @param[in]  comm    the communicator (every rank calls)
/// @param[in]  p       this rank's part: connect 4 (TH4), 5 (PY5), 6 (W6) rows or the
///                     8-row mixed layout (pure H8 included); an empty part adds 0
/// @param[out] result  the total on every rank; unchanged on failure
/// @return 0 | -1 comm is MPI_COMM_NULL | -2 p (coords not 3 rows, another row count,
///         or a node ID that is not a column of coords) | -199
TESSEL3D_MPI_EXPORT int volume(MPI_Comm comm, const part& p, double& result);

/// The checked angle measures on a partitioned mesh: per-element extremes and the
/// degenerate elements of this rank's part exactly as the one-machine checked
/// `dihedral_angles` / `solid_angles` give them for the local elements, plus the
/// smallest and largest value over every rank's elements (NaN when no element anywhere
/// has a defined value), the same on every rank.
/// @param[in]  comm        the communicator (every rank calls)
/// @param[in]  p           this rank's part
/// @param[in]  normalise   as in the one-machine call
/// @param[out] minValues, maxValues  resized to #local elements, entry j for element j
/// @param[out] degenerate  the local columns of the degenerate elements, ascending
/// @param[out] smallest, largest  the global extremes
/// @return 0 | -1 comm is MPI_COMM_NULL | -2 p (as the one-machine call checks coords
///         and connect) | -199 (also when `degenerate` cannot grow); outputs unchanged
///         on failure. Outputs that share memory are replaced, not written through.
TESSEL3D_MPI_EXPORT int dihedral_angles(MPI_Comm comm, const part& p, bool normalise, dense1D<double, 8>& minValues,
                                        dense1D<double, 8>& maxValues, dense1D<unsigned, 8>& degenerate,
                                        double& smallest, double& largest);
TESSEL3D_MPI_EXPORT int solid_angles(MPI_Comm comm, const part& p, bool normalise, dense1D<double, 8>& minValues,
                                     dense1D<double, 8>& maxValues, dense1D<unsigned, 8>& degenerate, double& smallest,
                                     double& largest);

// ---- files ----

/// A named array of values per node or per element, as the partitioned files carry them:
/// one column per node (or element), one row per component. Exactly one of the two
/// matrices has rows: `reals` (written as Float64) or `integers` (written as Int64).
struct data_array {
  std::string name;
  dense2D<double> reals;           ///< #components x #items, or no rows
  dense2D<std::int64_t> integers;  ///< #components x #items, or no rows
};

/// Writes a partitioned mesh as a VTK partitioned unstructured grid: every rank writes
/// its part to the piece `<stem>_<rank>.vtu` beside `path` (`<stem>` is path without its
/// ".pvtu"), and rank 0 writes `path`, which lists the pieces. Pieces are VTK XML files
/// with binary data appended raw (uncompressed), in this machine's byte order, cells in
/// VTK's node orders. Global IDs travel as the point data "GlobalNodeID" and the cell
/// data "GlobalElementID" (Int64, marked as the global IDs; IDs above 2^63 - 1 appear
/// negative there and read back unchanged). Existing files of those names are replaced;
/// on failure the pieces written by this call are removed.
/// @param[in] comm        the communicator (every rank calls)
/// @param[in] path        the .pvtu file's path, the same on every rank
/// @param[in] p           this rank's part
/// @param[in] type        the element type of p.connect: a type VTK has a cell for (NODE,
///                        E2, E3, T3, T6, Q4, Q8, Q9, TH4, TH10, PY5, PY13, W6, W15, W18,
///                        H8, H20, H27; PY14 has none) with its row count, or a mixed
///                        layout: FACE_MIX4 (T3, Q4) or SOLID_MIX8 (TH4, PY5, W6, H8),
///                        each column's type told by its count of leading entries
///                        before ~0U
/// @param[in] point_data  arrays with one column per local node; the same names, types
///                        and components on every rank, none named "GlobalNodeID"
/// @param[in] cell_data   arrays with one column per local element, likewise (none named
///                        "GlobalElementID")
/// @return 0 | -1 comm is MPI_COMM_NULL | -2 path is null or empty, or a file cannot be
///         written | -3 p (coords not 3 rows, node_ids or element_ids of the wrong size,
///         an entry of connect not a local node) | -4 type (or a column of a mixed layout
///         holding no type VTK has) | -5 point_data | -6 cell_data | -199
TESSEL3D_MPI_EXPORT int write_pvtu(MPI_Comm comm, const char* path, const part& p, element_type type,
                                   const std::vector<data_array>& point_data = {},
                                   const std::vector<data_array>& cell_data = {});

/// The same with one element type per column (cell_types[j] for column j, whose leading
/// rows hold its nodes), for meshes that mix kinds no single layout holds.
/// @return as above, -4 being cell_types (size, or a type VTK has no cell for, or more
///         nodes than p.connect has rows)
TESSEL3D_MPI_EXPORT int write_pvtu(MPI_Comm comm, const char* path, const part& p,
                                   const dense1D<unsigned char>& cell_types,
                                   const std::vector<data_array>& point_data = {},
                                   const std::vector<data_array>& cell_data = {});

/// Reads a VTK partitioned unstructured grid (.pvtu and its pieces), or a single .vtu,
/// with every rank at once: of M pieces, rank r of N reads pieces [M r / N, M (r + 1) / N)
/// (with N > M some ranks read none and get an empty part). Reads what `write_pvtu`
/// writes and what VTK's XML writers write: ascii, inline or appended data, raw or
/// base64, 32- or 64-bit headers, zlib-compressed or not, either byte order.
/// Global node IDs come from the point data marked as global IDs or named
/// "GlobalNodeID" (any integer type); without them, the n-th point of the file (pieces in
/// order) gets ID n, so the pieces' copies of a shared point stay distinct nodes. Global
/// element IDs likewise from "GlobalElementID", or the cell's rank in the file. Points of
/// a rank's pieces with the same global ID become one local node (first-seen order), and
/// must have the same coordinates.
/// @param[in]  comm        the communicator (every rank calls)
/// @param[in]  path        the .pvtu (or .vtu) file's path, the same on every rank
/// @param[out] p           this rank's part: connect holds each cell's nodes in the
///                         library's order, ~0U after them when the column has fewer
///                         nodes than connect has rows
/// @param[out] type        the one layout that holds every rank's cells: their type when
///                         they all have one, else FACE_MIX4 or SOLID_MIX8 when that
///                         holds them all, else NONE (and connect has as many rows as
///                         the largest cell has nodes); the same on every rank
/// @param[out] cell_types  the type of each local element
/// @param[out] point_data  the other point arrays the file declares, in its order: integer
///                         types as integers, floating types as reals
/// @param[out] cell_data   the other cell arrays, likewise
/// @return 0 | -1 comm is MPI_COMM_NULL | -2 path is null, a file cannot be read or is
///         not a well-formed VTK unstructured grid (bad XML, data past the end of the
///         file, sizes that disagree, cells the library has no type for, node indices
///         out of range, a global ID with two different positions) | -199; outputs
///         unchanged on failure
TESSEL3D_MPI_EXPORT int read_pvtu(MPI_Comm comm, const char* path, part& p, element_type& type,
                                  dense1D<unsigned char>& cell_types, std::vector<data_array>& point_data,
                                  std::vector<data_array>& cell_data);

// ---- order conversions -------------------------------------------------------------
//
// Each rank converts its own elements with the one-machine function, taking them in
// ascending global element ID, then every new node on an edge or a face that several
// ranks have becomes one node: one global ID, and on every rank the coordinates the rank
// of the element with the lowest global ID holding that edge or face computed (that
// element meets it first in a one-machine conversion of the mesh in element-ID order, so
// the coordinates are those of the one-machine result, bit for bit). The result equals
// the one-machine conversion of the whole mesh up to the numbering of the nodes.
// New global IDs start after the largest global node ID in use; each rank numbers the
// new nodes it owns by (lowest global element ID holding them, row in that element),
// the ranks one after the other, so the numbering depends on the partition.
// Cost: two rounds of messages with the neighbouring ranks, each sending one record per
// shared edge or face (its corners' IDs), then one per new node on them (ID, coordinates).

/// High order on a partitioned mesh: the one-machine convert_into_high_order with the
/// counts e q t h w p n (no caller's edges or faces). Faces are always listed in each
/// element's own face order (options.conforming_faces), since which element meets a
/// face first depends on the partition.
/// @param[in]     comm     the communicator (every rank calls)
/// @param[in,out] p        connect: 4, 6 or 8 rows (TH4, PY5, W6, H8 as one machine
///                         takes them) -> the converted rows of the whole mesh's
///                         conversion (TH4 alone, W6 alone, or the largest count), in
///                         the same column order; coords and node_ids grown by the new
///                         nodes (old columns kept); element_ids unchanged
/// @param[in]     nodes_per_edge ... nodes_in_TH4  as one machine; the same on every rank
/// @param[in]     options  conforming_faces false is refused when it would matter
/// @return 0 (also when every count is 0: nothing changes) | -1 comm is MPI_COMM_NULL |
///         -2 p (coords not 3 rows, #node_ids or #element_ids not #columns, a repeated
///         node or element ID, connect rows, node IDs or kinds as one machine checks
///         them, or global node IDs leaving no room for the new ones) | -3 .. -9 a count
///         refused by the one-machine checks or differing between ranks | -10 options |
///         -199; p unchanged on every rank on failure
TESSEL3D_MPI_EXPORT int convert_into_high_order(MPI_Comm comm, part& p, unsigned nodes_per_edge, unsigned nodes_in_Q4,
                                                unsigned nodes_in_T3, unsigned nodes_in_H8, unsigned nodes_in_W6,
                                                unsigned nodes_in_PY5, unsigned nodes_in_TH4,
                                                const high_order_options& options);

/// Quadratic elements (TH10, PY14, W18, H27) on a partitioned mesh: the above with
/// (e, q, t, h, w, p, n) = (1, 1, 0, 1, 0, 0, 0).
/// @return 0 | -1 comm is MPI_COMM_NULL | -2 p (as above) | -199; p unchanged on failure
TESSEL3D_MPI_EXPORT int convert_into_quadratic(MPI_Comm comm, part& p);

/// Back to linear elements on a partitioned mesh: the one-machine convert_into_linear on
/// each rank's connect, then the nodes no local element uses any more are dropped (every
/// rank that holds such a node drops it), the others renumbered locally in their order;
/// global IDs are kept. No message beyond agreeing on the status.
/// @param[in]     comm  the communicator (every rank calls)
/// @param[in,out] p     connect: 10, 13, 14, 15, 18, 20 or 27 rows -> 4 or 8 rows; coords
///                      and node_ids: the nodes still used; element_ids unchanged
/// @return 0 | -1 comm is MPI_COMM_NULL | -2 p (shapes, a repeated node ID, an entry that
///         is neither a node nor absent, or a row count the one-machine call refuses) |
///         -199; p unchanged on failure
TESSEL3D_MPI_EXPORT int convert_into_linear(MPI_Comm comm, part& p);

/// Every TH4 into 4, W6 into 6 and H8 into 8 hexahedra on a partitioned mesh, as the
/// one-machine split_into_H8 (no caller's edges or faces).
/// @param[in]  comm  the communicator (every rank calls)
/// @param[in]  in    connect: 4, 6 or 8 rows, no pyramid; element IDs below 2^61
/// @param[out] out   coords, node_ids: in's nodes, then the new ones; connect: 8 rows, the
///                   hexahedra of in's elements in in's element order; element_ids: 8 g + k
///                   for hexahedron k of element g (the same whatever the partition). out
///                   may be in.
/// @return 0 | -1 comm is MPI_COMM_NULL | -2 in (as convert_into_high_order's p, a pyramid,
///         or an element ID of 2^61 or more) | -199; out unchanged on failure
TESSEL3D_MPI_EXPORT int split_into_H8(MPI_Comm comm, const part& in, part& out);

// ---- extrusions, cracks, interpolation ----------------------------------------------
//
// Interpolation from a partitioned TH4 mesh (the source) onto points held by any rank
// (the nodes of a second partitioned mesh, or any cloud). Each point is sent to the
// ranks whose elements' box holds it, and read in the element that holds it: of all
// the elements of all ranks holding it (barycentric coordinates >= 0), the one with the
// lowest global element ID; else, of those holding it within 1e-9 (rounding on a face
// that is not on the mesh's boundary, the weights then clamped to [0, 1]), the lowest
// global ID. A point that no element holds takes the value at the closest point of the
// nearest boundary face of the whole mesh (faces between two ranks are not boundary
// faces), searched on every rank whose boundary faces may hold a nearer one, ties going
// to the lowest global element ID. The values are those of the one-machine
// interpolate_projected / interpolate_metrics_projected on the same mesh, and do not
// depend on the partition (a point on a face shared by two elements, which one machine
// reads in either, may differ from its result in the last bits).
// Every rank returns the same status; outputs are written only on success.

/// A nodal field of the source read at each local point.
/// @param[in]  comm    the communicator (collective: every rank of it calls)
/// @param[in]  source  the local part of a TH4 mesh: connect 4 x #elements
/// @param[in]  field   #components x #local source nodes (the same component count on
///                     every rank; the values of a shared node the same everywhere)
/// @param[in]  points  3 x #points, this rank's points (any count, 0 included)
/// @param[out] values  on success #components x #points: the value at each point; NaN
///                     for a point with a coordinate that is not finite, or every point
///                     when the source mesh has no element on any rank
/// @return 0 | -1 comm is MPI_COMM_NULL (on that rank only) | -2 source: coords not 3
///         rows, connect not 4 rows or a node ID not below #local nodes, node_ids or
///         element_ids not one per node / element | -3 field not one column per local
///         node, or component counts that differ between ranks | -4 points not 3 rows
///         | -199 memory, on any rank (values unchanged).
TESSEL3D_MPI_EXPORT int interpolate(MPI_Comm comm, const part& source, const dense2D<double>& field,
                                    const dense2D<double>& points, dense2D<double>& values);

/// Metrics of the source read at each local point, combined as
/// interpolate_metrics_projected combines them: written only when the result is a valid
/// metric, else the valid metric of the element's node with the largest weight, else
/// the point's metric is left as it was.
/// @param[in]     metrics     6 x #local source nodes (packed tensors M11 M12 M22 M13
///                            M23 M33) or 1 x #local source nodes (sizes)
/// @param[in,out] values      rows(metrics) x #points: the points' metrics
/// @param[in]     keep_valid  leave the points whose metric is already valid
/// @return 0 | -1 | -2 as interpolate | -3 metrics not 6 or 1 rows, not one column per
///         local node, or row counts that differ between ranks | -4 points not 3 rows
///         | -5 values not rows(metrics) x #points | -199 memory (values unchanged).
TESSEL3D_MPI_EXPORT int interpolate_metrics(MPI_Comm comm, const part& source, const dense2D<double>& metrics,
                                            const dense2D<double>& points, dense2D<double>& values, bool keep_valid);

// Extrusions of a partitioned surface: surface.connect is 3 (T3) or 4 (Q4, or mixed with
// ABSENT in row 3) x #local faces, surface.element_ids the faces' global IDs. Each rank
// sweeps its own faces exactly as the one-machine extrusion of the same name does (the
// same layer count and positions), and `solids` receives its part of the swept mesh:
//   coords       the part's nodes (in their order), then their copies layer by layer
//   connect      6 (T3 faces on every rank) or 8 rows, N solids per local face, face by
//                face, layer by layer, local node IDs
//   node_ids     a part's node keeps its ID; the copy in layer k (1 ... N) of the node
//                with global ID g is k * (G + 1) + g, G the largest global node ID of the
//                surface on any rank, so a node shared by several ranks has the same copies
//                (same IDs and positions) on each
//   element_ids  the solid of layer k over the face with global ID f: f * N + (k - 1),
//                which is the one-machine column of that solid when the faces' IDs are
//                their one-machine columns
// Status, the same on every rank: 0 | -1 comm is MPI_COMM_NULL | -2 surface: coords not 3
// rows, connect with columns and not 3 or 4 rows or with a bad node ID, node_ids or
// element_ids not one per node / face | the one-machine call's code of each parameter
// at the same position (the communicator and the part standing for coords and connectS)
// | -3 parameters that differ between ranks and give different layer counts | -199 memory, or global IDs that would not fit in 64 bits. solids is unchanged on
// failure, and when the one-machine call would do nothing (nbLayers = 0).

/// Sweep along T (extrude_translate): -4 when T = 0 with nbLayers > 0, or h0 not > 0; -5 h1.
TESSEL3D_MPI_EXPORT int extrude_translate(MPI_Comm comm, const part& surface, const vector_fixed<double, 3>& T,
                                          unsigned nbLayers, part& solids);
TESSEL3D_MPI_EXPORT int extrude_translate(MPI_Comm comm, const part& surface, const vector_fixed<double, 3>& T,
                                          double h0, double h1, bool even_layers, part& solids);

/// Sweep about the axis through C along R (extrude_rotate). The sweep length is that of
/// the first node of the face with the lowest global ID (on whichever rank holds it), as
/// the one-machine call takes the first node of its first face: -5 when it lies on the
/// axis, or h0 not > 0; -6 h1.
TESSEL3D_MPI_EXPORT int extrude_rotate(MPI_Comm comm, const part& surface, const vector_fixed<double, 3>& C,
                                       const vector_fixed<double, 3>& R, unsigned nbLayers, part& solids);
TESSEL3D_MPI_EXPORT int extrude_rotate(MPI_Comm comm, const part& surface, const vector_fixed<double, 3>& C,
                                       const vector_fixed<double, 3>& R, double h0, double h1, bool even_layers,
                                       part& solids);

/// Sweep along a helix (extrude_spiral): -5 h0 (T = 0 with nbLayers), -6 h1.
TESSEL3D_MPI_EXPORT int extrude_spiral(MPI_Comm comm, const part& surface, const vector_fixed<double, 3>& C,
                                       const vector_fixed<double, 3>& R, const vector_fixed<double, 3>& T,
                                       unsigned nbLayers, part& solids);
TESSEL3D_MPI_EXPORT int extrude_spiral(MPI_Comm comm, const part& surface, const vector_fixed<double, 3>& C,
                                       const vector_fixed<double, 3>& R, const vector_fixed<double, 3>& T, double h0,
                                       double h1, bool even_layers, part& solids);

/// Growth along nodal vectors (extrude_normal): node_normals 3 x #local nodes, the same
/// vector for a node on every rank holding it (-3 otherwise shaped).
TESSEL3D_MPI_EXPORT int extrude_normal(MPI_Comm comm, const part& surface, const dense2D<double>& node_normals,
                                       unsigned nbLayers, part& solids);
/// Growth along the unit normals of the whole surface scaled by thickness: at each node
/// the angle-weighted normals of its faces on every rank (zel::tessel2d::normals' rule),
/// summed in the order of the faces' global IDs, so a shared node gets the same normal
/// on every rank whatever the partition (the one-machine sum, in column order, is the
/// same when the IDs are its columns; the layer positions may differ from the
/// one-machine call's in the last bit, the scaling being applied in another order).
/// @return 0 (nothing done when nbLayers = 0) | -1 | -2 | -3 thickness not > 0 | -199
TESSEL3D_MPI_EXPORT int extrude_normal(MPI_Comm comm, const part& surface, double thickness, unsigned nbLayers,
                                       part& solids);

/// Sweep along a polyline (extrude_line) given as points, 3 x #line, the same on every
/// rank (-3 when not 3 rows or fewer than 2 points); line_metrics 6 x #line tensors or
/// line_scales #line factors as in the one-machine call (-5 line_metrics).
TESSEL3D_MPI_EXPORT int extrude_line(MPI_Comm comm, const part& surface, const dense2D<double>& line_points,
                                     const vector_fixed<double, 3>& V, const dense2D<double>& line_metrics,
                                     part& solids);
TESSEL3D_MPI_EXPORT int extrude_line(MPI_Comm comm, const part& surface, const dense2D<double>& line_points,
                                     const vector_fixed<double, 3>& V, const dense1D<double, 8>& line_scales,
                                     part& solids);

/// Opens a partitioned solid mesh along an internal surface that may cross the ranks'
/// boundaries, as the one-machine duplicate_surface_nodes opens one mesh: around each
/// surface node that is not excluded, the elements holding it form groups joined across
/// the faces that hold the node (never across a surface face, in either orientation, nor
/// the mesh's boundary), whichever ranks hold them; a group carrying the surface's face
/// the same way round (an element face read in the one-machine face order equal to it)
/// lies on its positive side, the reversed face on its negative side, and every element
/// of a group on a requested side takes that side's copy of the node (a group carrying
/// both, at an open rim, takes the negative one, as one machine leaves it). The copies
/// get global IDs every rank derives alone: s * (G + 1) + g for the node with global ID
/// g, s = 1 positive, 2 negative, G the largest global node ID on any rank; each rank
/// appends the copies its elements use (after its nodes, ascending by global ID) with
/// the coordinates of the node copied. Where one side of the surface meets a node in two
/// sheets that no face joins, both take the copy (one machine gives it to the sheet it
/// reaches first).
/// @param[in]     comm      the communicator (every rank calls)
/// @param[in,out] mesh      connect 4 (TH4) or 8 (H8, SOLID_MIX8) rows; coords and
///                          node_ids grow, connect is replaced; nodes no local element
///                          uses any more stay in the part
/// @param[in]     surface   3 or 4 (FACE_MIX4) x #faces, local node IDs: each face listed
///                          on every rank that has an element carrying it (listing the
///                          faces whose nodes a rank holds does it)
/// @param[in]     excluded  local node IDs that keep their single ID (excluded on any rank
///                          holding the node, excluded everywhere)
/// @return the number of nodes the one-machine call adds (each non-excluded surface node
///         once per requested side; the same on every rank, at most INT_MAX) | -1 comm is
///         MPI_COMM_NULL | -2 mesh: coords not 3 rows, node_ids or element_ids not one
///         per node / element, connect rows or node IDs not those of `type` | -3 surface
///         not 3 or 4 rows, or a bad node ID (ABSENT only in row 3) | -4 excluded holds
///         an ID that is not a local node | -7 type not TH4, H8 or SOLID_MIX8 | -199
///         memory, or copy IDs beyond 64 bits. 0 with nothing done when no side is
///         requested. mesh is unchanged on failure.
TESSEL3D_MPI_EXPORT int duplicate_surface_nodes(MPI_Comm comm, part& mesh, const dense2D<unsigned>& surface,
                                                const dense1D<unsigned, 8>& excluded, bool positive_side,
                                                bool negative_side, element_type type);

}  // namespace mpi
}  // namespace tessel3d
}  // namespace zel
