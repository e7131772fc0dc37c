"""tessel3d: tools for three-dimensional finite-element meshes, over the C++ library.

Meshes are NumPy arrays: coordinates (n, 3) float64, connectivities (m, k) uint32 whose
row j lists the nodes of element j (ABSENT, 0xFFFFFFFF, marks a position without a node
in the mixed layouts; signed input may use -1). Arrays of that dtype whose rows are
contiguous are passed as they are, others are converted once. Results are new arrays,
except for the in-place calls (flip, interpolate, interpolate_metrics), which write the
caller's array and return it. A negative status of the
library raises tessel3d.Error (a ValueError) naming the function and the argument, or
tessel3d.OutOfMemoryError (a MemoryError) when memory ran out.

Threads: every function releases the GIL while the library works, on private copies of
its inputs, so calls may run in parallel with each other and with code that changes the
arrays passed (the result then reflects some state of them, never a crash).

    import numpy as np, tessel3d as t3
    coords = np.array([[0, 0, 0], [1, 0, 0], [1, 1, 0], [0, 1, 0],
                       [0, 0, 1], [1, 0, 1], [1, 1, 1], [0, 1, 1]], dtype=float)
    cube = np.arange(8, dtype=np.uint32).reshape(1, 8)
    t3.volume(coords, cube)                      # 1.0
    quadratic = t3.convert_into_quadratic(coords, cube)   # 27 nodes, 1 H27

Submodules: tessel3d.io (mesh files through meshio), tessel3d.cli (the command line,
``python3 -m tessel3d``).
"""

from . import _native
from .errors import Error, OutOfMemoryError
from .extrude import Extrusion, extrude_line, extrude_normal, extrude_rotate, extrude_spiral, extrude_translate
from .locate import Locator, get_element_containing_point, interpolate, interpolate_metrics
from .measures import (Angles, circumcenters, degenerate_elements, dihedral_angles, element_volumes, solid_angles,
                       volume)
from .mesh import (ABSENT, FACES, ROWS, ElementType, NodeDetector, element_type, flip, flip_h8, flip_th4, flip_w6,
                   get_neighbors, get_node_element, mixed, set_threads, solid_type, surface_normals, threads,
                   version)
from .order import Converted, Split, convert_into_high_order, convert_into_linear, convert_into_quadratic, split_into_h8
from .surface import Duplication, SplitQ4, SplitReason, duplicate_surface_nodes, split_solid_q4

globals().update({t.name: t for t in ElementType})

__version__ = _native.version()

__all__ = [
    "ABSENT", "Angles", "Converted", "Duplication", "ElementType", "Error", "Extrusion", "FACES", "Locator", "ROWS",
    "Split", "SplitQ4", "SplitReason", "circumcenters", "degenerate_elements", "convert_into_high_order", "convert_into_linear", "convert_into_quadratic",
    "dihedral_angles", "duplicate_surface_nodes", "element_type", "element_volumes", "extrude_line", "extrude_normal",
    "extrude_rotate", "extrude_spiral", "extrude_translate", "flip", "flip_h8", "flip_th4", "flip_w6",
    "get_element_containing_point", "get_neighbors", "get_node_element", "interpolate", "interpolate_metrics",
    "mixed", "OutOfMemoryError", "set_threads", "solid_angles", "solid_type", "split_into_h8", "split_solid_q4",
    "surface_normals", "threads", "version", "volume",
] + [t.name for t in ElementType]
