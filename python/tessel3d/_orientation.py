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
    if not len(tetrahedra):
        return
    from .measures import element_volumes
    try:
        volumes = element_volumes(coords, np.ascontiguousarray(tetrahedra[:, :4]))
    except (ValueError, TypeError, NotImplementedError):
        return  # the call itself reports bad arguments
    if (volumes < 0).all():
        raise Error(f"{function}: all {len(volumes)} tetrahedra of connect are inverted: cells in VTK's, Gmsh's "
                    f"or meshio's node order? Convert them with tessel3d.io.to_library_order(cells, 'tetra') "
                    f"(their tetrahedra are oriented the other way round), or flip them",
                    function=function, argument="connect", position=2)
