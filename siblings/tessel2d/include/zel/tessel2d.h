// zel 2D mesh library: nodal normals of triangle and quadrangle surfaces.
#pragma once

#include "zel/matrix.h"
#include "zel/zel_tessel2d_export.h"

namespace zel {
namespace tessel2d {

/// Nodal normals of a surface of triangles and quadrangles.
/// @param[in]  coords   3 x #nodes node coordinates
/// @param[in]  connectS 3 x #faces (T3), or 4 x #faces (Q4, or mixed with ~0U in row 3
///                      for a triangle)
/// @param[in]  angle    feature angle in radians: when > 0, a face takes part in a node's
///                      normal only if its normal is within `angle` of the node's
///                      all-face average; 0 averages every face
/// @param[in]  unit     scale every normal to unit length
/// @param[out] normals  3 x #nodes (one column per column of coords): the average of the
///                      normals of the faces around the node, weighted by each face's
///                      angle at the node and oriented by the faces' right-hand rule;
///                      (0, 0, 0) for a node in no face
/// @return 0 | -1 coords not 3 rows | -2 connectS has columns and rows other than 3 or 4,
///         or a corner 0-2 not below #nodes, or a corner 3 neither below #nodes nor ~0U
///         | -3 angle negative or not a number | -199 normals cannot be sized (normals
///         is written only on success)
ZEL_TESSEL2D_EXPORT int normals(const dense2D<double>& coords, const dense2D<unsigned>& connectS, double angle,
                                bool unit, dense2D<double>& normals);

}  // namespace tessel2d
}  // namespace zel
