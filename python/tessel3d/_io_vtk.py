""".vtu files through VTK's own XML reader and writer (python3-vtk9): the arrays cross
between NumPy and VTK without Python loops. Cells are in VTK's node orders here; the
caller converts them."""

import numpy as np

# VTK cell type -> this library's type name
VTK_TYPES = {1: "NODE", 3: "E2", 21: "E3", 5: "T3", 22: "T6", 9: "Q4", 23: "Q8", 28: "Q9", 10: "TH4", 24: "TH10",
             14: "PY5", 27: "PY13", 13: "W6", 26: "W15", 32: "W18", 12: "H8", 25: "H20", 29: "H27"}
CELL_TYPES = {v: k for k, v in VTK_TYPES.items()}
VTK_NAMES = {1: "vertex", 2: "poly-vertex", 4: "poly-line", 6: "triangle strip", 7: "polygon", 8: "pixel",
             11: "voxel", 15: "pentagonal prism", 16: "hexagonal prism", 42: "polyhedron"}
COMPRESSORS = ("zlib", "lz4", "lzma")


def available():
    try:
        import vtkmodules.vtkIOXML  # noqa: F401
    except ImportError:
        return False
    return True


def _observe(algorithm, progress):
    if progress is not None:
        algorithm.AddObserver("ProgressEvent", lambda caller, event: progress(float(caller.GetProgress())))


def read_vtu(path, progress=None):
    """(points (n, 3), [(vtk type, cell indices, (m, k) int64 cells)], point_data, cell_data)
    of a .vtu file (or a legacy .vtk one); raises ValueError on what VTK cannot read or this library cannot hold."""
    from vtkmodules.util.numpy_support import vtk_to_numpy
    if str(path).lower().endswith(".vtk"):
        from vtkmodules.vtkIOLegacy import vtkUnstructuredGridReader
        reader = vtkUnstructuredGridReader()
        reader.SetFileName(str(path))
        if not reader.IsFileUnstructuredGrid():
            raise ValueError("cannot read it as a mesh file (not a VTK unstructured grid)")
    else:
        from vtkmodules.vtkIOXML import vtkXMLUnstructuredGridReader
        reader = vtkXMLUnstructuredGridReader()
        if not reader.CanReadFile(str(path)):
            raise ValueError("cannot read it as a mesh file (not a VTK XML unstructured grid)")
        reader.SetFileName(str(path))
    _observe(reader, progress)
    errors = []
    reader.AddObserver("ErrorEvent", lambda caller, event: errors.append(event))
    reader.GetExecutive()  # errors go to the observer, not to the terminal
    reader.Update()
    grid = reader.GetOutput()
    if errors or reader.GetErrorCode():
        raise ValueError("VTK's reader failed")
    points = grid.GetPoints()
    points = np.zeros((0, 3)) if points is None else vtk_to_numpy(points.GetData()).astype(np.float64, copy=False)
    blocks = []
    if grid.GetNumberOfCells():
        cells = grid.GetCells()
        offsets = vtk_to_numpy(cells.GetOffsetsArray()).astype(np.int64, copy=False)
        connectivity = vtk_to_numpy(cells.GetConnectivityArray()).astype(np.int64, copy=False)
        types = vtk_to_numpy(grid.GetCellTypesArray())
        sizes = np.diff(offsets)
        for vtk_type in np.unique(types):
            index = np.nonzero(types == vtk_type)[0]
            if int(vtk_type) not in VTK_TYPES:
                name = VTK_NAMES.get(int(vtk_type), f"VTK cell type {int(vtk_type)}")
                raise ValueError(f"{len(index)} cells of a kind this library has no type for ({name})")
            k = len(_library_order(VTK_TYPES[int(vtk_type)]))
            wrong = np.nonzero(sizes[index] != k)[0]
            if len(wrong):
                raise ValueError(f"cell {index[wrong[0]]} of VTK type {int(vtk_type)} has {sizes[index[wrong[0]]]} "
                                 f"nodes instead of {k}")
            blocks.append((int(vtk_type), index, connectivity[offsets[index][:, None] + np.arange(k)]))
    point_data = _arrays(grid.GetPointData(), vtk_to_numpy)
    cell_data = _arrays(grid.GetCellData(), vtk_to_numpy)
    return points, blocks, point_data, cell_data


def _library_order(name):
    from ._io_orders import LIBRARY_ORDERS
    return LIBRARY_ORDERS[name]


def _arrays(data, vtk_to_numpy):
    out = {}
    for i in range(data.GetNumberOfArrays()):
        array = data.GetArray(i)
        if array is not None and array.GetName():
            out[array.GetName()] = vtk_to_numpy(array)
    return out


def write_vtu(path, points, blocks, point_data, cell_data, compression, progress=None):
    """Writes blocks [(library type, (m, k) cells in VTK's order)] with their data
    (point_data {name: (n, ...)}, cell_data {name: (total cells, ...)}) to a .vtu file,
    appended raw binary, compressed by `compression` (None or one of COMPRESSORS)."""
    from vtkmodules.util.numpy_support import numpy_to_vtk, numpy_to_vtkIdTypeArray
    from vtkmodules.vtkCommonCore import vtkPoints
    from vtkmodules.vtkCommonDataModel import vtkCellArray, vtkUnstructuredGrid
    from vtkmodules.vtkIOXML import vtkXMLUnstructuredGridWriter
    keep = []  # the NumPy buffers VTK's arrays point to, alive until written

    def to_vtk(array, name=None):
        array = np.ascontiguousarray(array)
        if array.dtype == np.bool_:
            array = array.astype(np.uint8)
        keep.append(array)
        out = numpy_to_vtk(array.reshape(len(array), -1) if array.ndim > 2 else array, deep=False)
        if name is not None:
            out.SetName(name)
        return out

    grid = vtkUnstructuredGrid()
    vtk_points = vtkPoints()
    vtk_points.SetData(to_vtk(np.asarray(points, dtype=np.float64)))
    grid.SetPoints(vtk_points)
    sizes = [c.shape[1] for _, c in blocks]
    counts = [len(c) for _, c in blocks]
    total = sum(counts)
    connectivity = np.empty(sum(s * c for s, c in zip(sizes, counts)), dtype=np.int64)
    offsets = np.empty(total + 1, dtype=np.int64)
    types = np.empty(total, dtype=np.uint8)
    start, position = 0, 0
    for (name, cells), k, m in zip(blocks, sizes, counts):
        connectivity[position:position + k * m] = np.asarray(cells, dtype=np.int64).ravel()
        offsets[start:start + m] = position + k * np.arange(m)
        types[start:start + m] = CELL_TYPES[name]
        start, position = start + m, position + k * m
    offsets[total] = position
    keep += [connectivity, offsets, types]
    cell_array = vtkCellArray()
    cell_array.SetData(numpy_to_vtkIdTypeArray(offsets, deep=False), numpy_to_vtkIdTypeArray(connectivity, deep=False))
    grid.SetCells(numpy_to_vtk(types, deep=False), cell_array)
    for name, values in point_data.items():
        grid.GetPointData().AddArray(to_vtk(values, name))
    for name, values in cell_data.items():
        grid.GetCellData().AddArray(to_vtk(values, name))
    writer = vtkXMLUnstructuredGridWriter()
    writer.SetFileName(str(path))
    writer.SetInputData(grid)
    writer.SetDataModeToAppended()
    writer.EncodeAppendedDataOff()
    writer.SetHeaderTypeToUInt64()
    {None: writer.SetCompressorTypeToNone, "zlib": writer.SetCompressorTypeToZLib,
     "lz4": writer.SetCompressorTypeToLZ4, "lzma": writer.SetCompressorTypeToLZMA}[compression]()
    if compression is not None:
        writer.SetCompressionLevel(1 if compression != "lzma" else 2)
    _observe(writer, progress)
    errors = []
    writer.AddObserver("ErrorEvent", lambda caller, event: errors.append(event))
    if not writer.Write() or errors:
        raise ValueError("VTK's writer failed (disk full or no permission?)")
