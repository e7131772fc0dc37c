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


def _errors(algorithm):
    """A list that collects the errors of an algorithm and of its pipeline executive
    (observed, they become exceptions here instead of text on the terminal)."""
    errors = []
    for source in (algorithm, algorithm.GetExecutive()):
        source.AddObserver("ErrorEvent", lambda caller, event: errors.append(event))
    return errors


class _OutputWindow:
    """Collects the text VTK's objects would print to the terminal (its XML parser's
    errors among them) while a file is read or written; the previous window comes back
    after. `failed` says whether an error was collected."""

    def __enter__(self):
        from vtkmodules.vtkCommonCore import vtkLogger, vtkOutputWindow, vtkStringOutputWindow
        self.previous = vtkOutputWindow.GetInstance()
        self.window = vtkStringOutputWindow()
        vtkOutputWindow.SetInstance(self.window)
        self.verbosity = vtkLogger.GetCurrentVerbosityCutoff()
        vtkLogger.SetStderrVerbosity(vtkLogger.VERBOSITY_OFF)  # VTK's logger prints errors too
        return self

    def __exit__(self, *exception):
        from vtkmodules.vtkCommonCore import vtkLogger, vtkOutputWindow
        vtkOutputWindow.SetInstance(self.previous)
        vtkLogger.SetStderrVerbosity(self.verbosity)

    @property
    def failed(self):
        return "ERR" in self.window.GetOutput() or "ERROR" in self.window.GetOutput()


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
    errors = _errors(reader)
    with _OutputWindow() as window:
        reader.Update()
    errors += ["parser"] if window.failed else []
    grid = reader.GetOutput()
    if errors or reader.GetErrorCode():
        raise ValueError("VTK's reader failed (a damaged or truncated file?)")
    points = grid.GetPoints()
    points = np.zeros((0, 3)) if points is None else vtk_to_numpy(points.GetData()).astype(np.float64, copy=False)
    blocks = []
    if grid.GetNumberOfCells():
        cells = grid.GetCells()
        offsets = vtk_to_numpy(cells.GetOffsetsArray())
        connectivity = vtk_to_numpy(cells.GetConnectivityArray())
        types = vtk_to_numpy(grid.GetCellTypesArray())
        # runs of one cell type (a file written by kinds has one run per kind), each
        # sliced out of the connectivity without a gather
        starts = np.concatenate([[0], np.nonzero(types[1:] != types[:-1])[0] + 1, [len(types)]])
        runs = {}
        for start, end in zip(starts[:-1], starts[1:]):
            vtk_type = int(types[start])
            if vtk_type not in VTK_TYPES:
                count = int((types == vtk_type).sum())
                name = VTK_NAMES.get(vtk_type, f"VTK cell type {vtk_type}")
                raise ValueError(f"{count} cells of a kind this library has no type for ({name})")
            k = len(_library_order(VTK_TYPES[vtk_type]))
            first = int(offsets[start])
            expected = first + k * np.arange(end - start + 1, dtype=np.int64)
            if not np.array_equal(offsets[start:end + 1], expected):
                wrong = start + int(np.nonzero(offsets[start:end + 1] != expected)[0][0]) - 1
                raise ValueError(f"cell {wrong} of VTK type {vtk_type} has "
                                 f"{int(offsets[wrong + 1] - offsets[wrong])} nodes instead of {k}")
            runs.setdefault(vtk_type, []).append((np.arange(start, end), connectivity[first:first + k * (end - start)]
                                                  .reshape(-1, k)))
        for vtk_type, parts in runs.items():
            index = np.concatenate([i for i, _ in parts])
            block = parts[0][1] if len(parts) == 1 else np.concatenate([c for _, c in parts])
            blocks.append((vtk_type, index, block))
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
    """Writes blocks [(library type, (m, k) cells, columns)], cells[:, columns] in VTK's
    order (columns None: as they are), with their data
    (point_data {name: (n, ...)}, cell_data {name: (total cells, ...)}) to a .vtu file,
    appended raw binary, compressed by `compression` (None or one of COMPRESSORS), or
    to a binary legacy .vtk file (uncompressed) when the path ends so."""
    from vtkmodules.util.numpy_support import numpy_to_vtk, numpy_to_vtkIdTypeArray
    from vtkmodules.vtkCommonCore import vtkPoints, vtkTypeInt32Array
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
    sizes = [c.shape[1] for _, c, _ in blocks]
    counts = [len(c) for _, c, _ in blocks]
    total = sum(counts)
    nb_entries = sum(s * c for s, c in zip(sizes, counts))
    # 32-bit cell storage where it fits: half the bytes to write (and to read back)
    id_type = np.int32 if max(nb_entries, len(points)) < 2 ** 31 else np.int64
    connectivity = np.empty(nb_entries, dtype=id_type)
    offsets = np.empty(total + 1, dtype=id_type)
    types = np.empty(total, dtype=np.uint8)
    start, position = 0, 0
    for (name, cells, columns), k, m in zip(blocks, sizes, counts):
        place = connectivity[position:position + k * m].reshape(m, k)
        if columns is None:
            place[:] = cells
        elif cells.dtype == np.uint32 and id_type == np.int32:
            # reordered straight into place (node IDs below 2^31 here: the same bits)
            np.take(cells.view(np.int32), columns, axis=1, out=place)
        else:
            place[:] = np.take(cells, columns, axis=1)
        offsets[start:start + m] = np.arange(position, position + k * m, k, dtype=id_type)
        types[start:start + m] = CELL_TYPES[name]
        start, position = start + m, position + k * m
    offsets[total] = position
    keep += [connectivity, offsets, types]
    cell_array = vtkCellArray()
    if id_type == np.int32:
        vtk_offsets, vtk_connectivity = vtkTypeInt32Array(), vtkTypeInt32Array()
        vtk_offsets.SetVoidArray(offsets, len(offsets), 1)
        vtk_connectivity.SetVoidArray(connectivity, len(connectivity), 1)
        cell_array.SetData(vtk_offsets, vtk_connectivity)
    else:
        cell_array.SetData(numpy_to_vtkIdTypeArray(offsets, deep=False),
                           numpy_to_vtkIdTypeArray(connectivity, deep=False))
    grid.SetCells(numpy_to_vtk(types, deep=False), cell_array)
    for name, values in point_data.items():
        grid.GetPointData().AddArray(to_vtk(values, name))
    for name, values in cell_data.items():
        grid.GetCellData().AddArray(to_vtk(values, name))
    if str(path).lower().endswith(".vtk"):
        from vtkmodules.vtkIOLegacy import vtkUnstructuredGridWriter
        writer = vtkUnstructuredGridWriter()
        writer.SetFileTypeToBinary()
        writer.SetInputData(grid)
    else:
        writer = vtkXMLUnstructuredGridWriter()
        writer.SetInputData(grid)
        writer.SetDataModeToAppended()
        writer.EncodeAppendedDataOff()
        writer.SetHeaderTypeToUInt64()
        {None: writer.SetCompressorTypeToNone, "zlib": writer.SetCompressorTypeToZLib,
         "lz4": writer.SetCompressorTypeToLZ4, "lzma": writer.SetCompressorTypeToLZMA}[compression]()
        if compression is not None:
            writer.SetCompressionLevel(1 if compression != "lzma" else 2)
    writer.SetFileName(str(path))
    _observe(writer, progress)
    errors = _errors(writer)
    with _OutputWindow() as window:
        written = writer.Write()
    if not written or errors or window.failed:
        raise ValueError("VTK's writer failed (disk full or no permission?)")
