// tessel3d over MPI: the library's families on a mesh partitioned over a communicator.
#pragma once

#include <mpi.h>

#include <cstdint>

#include "zel/matrix.h"
#include "zel/tessel3d.h"
#include "zel/tessel3d_mpi_export.h"

namespace zel {
namespace tessel3d {
namespace mpi {

/// One rank's part of a mesh partitioned over a communicator. Every element lives on exactly
/// one rank. A node lives on every rank that has an element using it (or, for a part that
/// is a point cloud, on the rank holding it), with the same global ID and the same
/// coordinates everywhere. Who shares what with whom is derived from the global IDs.
struct part {
  dense2D<double> coords;              // 3 x #local nodes
  dense2D<unsigned> connect;           // #rows x #local elements, local node IDs
  dense1D<std::uint64_t> node_ids;     // #local nodes: global ID of each local node
  dense1D<std::uint64_t> element_ids;  // #local elements: global ID of each element
};

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

}  // namespace mpi
}  // namespace tessel3d
}  // namespace zel
