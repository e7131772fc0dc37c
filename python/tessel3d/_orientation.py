"""The check that tells arrays in another tool's node order from this library's."""

import numpy as np

from .errors import Error

ABSENT = 0xFFFFFFFF


def refuse_inverted(function, coords, connect):
    """Raises tessel3d.Error (a ValueError) when a linear solid connectivity has
    tetrahedra and every one of them is inverted: the mark of cells in VTK's, Gmsh's or
    meshio's node order, whose tetrahedra are oriented the other way round from this
    library's (their pyramids, wedges and hexahedra agree with it, so those say nothing).
    Called by the conversions before they build on the input."""
    connect = np.asarray(connect)
    if connect.ndim != 2 or len(connect) == 0 or connect.shape[1] not in (4, 8):
        return
    tetrahedra = connect if connect.shape[1] == 4 else connect[(connect[:, 3] != ABSENT) & (connect[:, 4] == ABSENT)]
    tetrahedra = tetrahedra[:, :4]
    if not len(tetrahedra):
        return
    coords = np.asarray(coords)
    if coords.ndim != 2 or coords.shape[1] != 3:
        return  # the call itself reports bad arguments
    # A few first, so that a right mesh costs next to nothing. Each set is a private copy,
    # checked before use: another thread may be writing the caller's array.
    for chosen in (tetrahedra[:64], tetrahedra):
        chosen = np.array(chosen, dtype=np.int64)
        if chosen.max() >= len(coords):
            return  # the call itself reports bad IDs
        volumes = _six_volumes(coords, chosen)
        if not (volumes < 0).all():
            return
    raise Error(f"{function}: all {len(volumes)} tetrahedra of connect are inverted: cells in VTK's, Gmsh's "
                f"or meshio's node order? Convert them with tessel3d.io.to_library_order(cells, 'tetra') "
                f"(their tetrahedra are oriented the other way round), or flip them",
                function=function, argument="connect", position=2)


def _six_volumes(coords, tetrahedra):
    """Six times the signed volumes in this library's TH4 convention."""
    p = coords[tetrahedra]
    a, b, c = p[:, 0] - p[:, 3], p[:, 1] - p[:, 3], p[:, 2] - p[:, 3]
    return np.einsum("ij,ij->i", a, np.cross(b, c))
