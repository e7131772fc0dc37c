"""What the binding adds to the library: array conversion, zero-copy views and in-place
writes, private copies of the inputs (threads), and the mapping of statuses to errors."""

import os
import pathlib
import pickle
import re
import subprocess
import sys

import numpy as np
import pytest
from conftest import CUBE, UNIT, box

import tessel3d as t3
from tessel3d import _native
from tessel3d.errors import TABLES

ROOT = pathlib.Path(__file__).resolve().parents[2]
TET = np.array([[0, 0, 0], [0, 1, 0], [1, 0, 0], [0, 0, 1]], float)  # positive in this library


def run_python(code):
    """Runs code in a fresh interpreter (a crash there fails the test, not the suite)."""
    env = dict(os.environ, PYTHONPATH=os.pathsep.join(sys.path))
    return subprocess.run([sys.executable, "-c", code], capture_output=True, text=True, env=env, timeout=600)


# ---- conversion, zero copy, in-place writes -------------------------------------------

@pytest.mark.parametrize("connect", [
    np.array([[0, 1, 2, 3]], np.int64), np.array([[0, 1, 2, 3]], np.int16), [[0, 1, 2, 3]],
    np.asfortranarray(np.array([[0, 1, 2, 3], [0, 1, 2, 3]], np.uint32))[:1],
    np.array([[0, 9, 1, 9, 2, 9, 3, 9]], np.uint32)[:, ::2],  # rows not contiguous
])
def test_other_dtypes_and_layouts_are_converted(connect):
    assert t3.volume(TET, connect) == pytest.approx(1 / 6)
    # a float64 dtype equal to NumPy's but another instance (as other libraries hand out)
    other = pickle.loads(pickle.dumps(np.dtype(float)))
    assert other is not np.dtype(float)
    assert t3.volume(TET.astype(other), connect) == pytest.approx(1 / 6)


@pytest.mark.parametrize("value, fragment", [
    (np.array([[0.5, 1, 2, 3]]), "must hold integer"),
    (np.array([[0, 1, 2, -7]]), "not a 32-bit ID"),
    (np.array([[0, 1, 2, 2 ** 32]]), "not a 32-bit ID"),
    (np.arange(4), "must be a 2-D array"),
    ([["a", "b", "c", "d"]], "must hold integer"),
])
def test_unusable_arrays_are_refused_before_the_call(value, fragment):
    with pytest.raises(t3.Error, match=fragment):
        t3.flip(value, t3.TH4)


def test_column_slices_are_views_and_flips_write_them_in_place():
    big = np.arange(12, dtype=np.uint32).reshape(2, 6)
    view = big[:, :4]
    assert _native.matrix_layout(view) == (view.ctypes.data, 4, 2, 6)
    wide = np.zeros((5, 4))
    assert _native.matrix_layout(wide[:, :3]) == (wide.ctypes.data, 3, 5, 4)
    assert t3.flip(view, t3.TH4) is view
    assert big.tolist() == [[2, 1, 0, 3, 4, 5], [8, 7, 6, 9, 10, 11]]  # columns 4, 5 untouched


def test_converted_in_place_arrays_get_the_result_back():
    signed = np.array([[0, 1, 2, -1]], np.int64)  # -1 stands for ABSENT
    assert t3.flip(signed, t3.TH4) is signed and signed.tolist() == [[2, 1, 0, -1]]
    fortran = np.asfortranarray(np.array([[0, 1, 2, 3], [4, 5, 6, 7]], np.uint32))
    t3.flip(fortran, t3.TH4)
    assert fortran.tolist() == [[2, 1, 0, 3], [6, 5, 4, 7]]
    failed = np.arange(8, dtype=np.uint32).reshape(1, 8)
    with pytest.raises(t3.Error):
        t3.flip(failed, t3.TH4)
    assert failed.tolist() == [list(range(8))]  # a refused call writes nothing


def mesh_and_outside_node():
    """A unit box of TH4 plus node n outside it, nearest to the corner (1, 1, 1)."""
    coords, connect = box("TH4", (1, 1, 1))
    coords = np.concatenate([coords, [[1.5, 1.5, 1.5]]])
    corner = int(np.argmin(np.linalg.norm(coords[:-1] - 1, axis=1)))
    return coords, connect, len(coords) - 1, corner


@pytest.mark.parametrize("dtype", [np.float64, np.float32])
def test_interpolate_writes_the_callers_field(dtype):
    coords, connect, outside, corner = mesh_and_outside_node()
    field = np.arange(len(coords), dtype=dtype)
    result = t3.interpolate(coords, connect, field, [outside])
    assert result is field and field[outside] == corner
    metrics = np.ones(len(coords), dtype=dtype)
    metrics[outside] = -1
    assert t3.interpolate_metrics(coords, connect, metrics, [outside]) is metrics and metrics[outside] == 1


def test_fields_that_would_truncate_and_read_only_arrays_are_refused():
    coords, connect, outside, _ = mesh_and_outside_node()
    field = np.zeros(len(coords), np.int64)
    with pytest.raises(TypeError, match="field \\(argument [35]\\).*int64 would truncate"):
        t3.interpolate(coords, connect, field, [outside])
    with pytest.raises(TypeError, match="metrics"):
        t3.interpolate_metrics(coords, connect, np.ones(len(coords), np.int32))
    frozen = np.arange(4, dtype=np.uint32).reshape(1, 4)
    frozen.flags.writeable = False
    with pytest.raises(t3.Error, match="read-only"):
        t3.flip(frozen, t3.TH4)


def test_inputs_are_never_written_and_results_are_arrays_of_their_own():
    coords, connect = CUBE.copy(), np.arange(8, dtype=np.uint32).reshape(1, 8)
    before = coords.copy(), connect.copy()
    results = [t3.convert_into_quadratic(coords, connect), t3.split_into_h8(coords, connect),
               t3.split_solid_q4(coords, connect, [[0, 1, 2, 3]], 0.0),
               t3.duplicate_surface_nodes(coords, connect, [[0, 1, 2, 3]], type=t3.H8),
               t3.extrude_translate(coords, np.array([[0, 1, 2, 3]], np.uint32), (0, 0, 1), 0)]
    for result in results:
        result.coords[:] = -7  # must not reach the caller's arrays
        result[1][...] = 0
    np.testing.assert_array_equal(coords, before[0])
    np.testing.assert_array_equal(connect, before[1])


def test_element_types_outside_the_enumeration_are_refused_by_the_module():
    with pytest.raises(ValueError, match="not an element type"):
        _native.flip(np.zeros((1, 4), np.uint32), 99)
    with pytest.raises(ValueError):
        t3.flip(np.zeros((1, 4), np.uint32), 99)


# ---- threads ---------------------------------------------------------------------------

def test_thread_count_follows_the_affinity_mask_and_changes_no_bit():
    rng = np.random.default_rng(3)
    coords = rng.random((5000, 3))
    connect = rng.integers(0, 5000, size=(300000, 4), dtype=np.uint32)  # several chunks
    try:
        t3.set_threads(0)
        assert t3.threads() == len(os.sched_getaffinity(0))
        t3.set_threads(1)
        one = t3.volume(coords, connect), t3.get_node_element(connect, 5000)
        for n in (2, 4):
            t3.set_threads(n)
            assert t3.threads() == n
            assert t3.volume(coords, connect) == one[0]
            assert np.array_equal(t3.get_node_element(connect, 5000), one[1])
        with pytest.raises(ValueError):
            t3.set_threads(-1)
    finally:
        t3.set_threads(0)


def test_a_thread_writing_bad_ids_during_calls_cannot_crash_the_interpreter():
    # Before the inputs were private copies, a few hundred calls of dihedral_angles on
    # this mesh were enough for a SIGSEGV.
    code = """
import threading, numpy as np, tessel3d as t3
from conftest import box
coords, connect = box("TH4", (16, 16, 16))
good, done = connect[:, 0].copy(), threading.Event()
def writer():
    while not done.is_set():
        connect[:, 0] = 4000000000
        connect[:, 0] = good
thread = threading.Thread(target=writer)
thread.start()
calls = (lambda: t3.dihedral_angles(coords, connect), lambda: t3.volume(coords, connect),
         lambda: t3.element_volumes(coords, connect), lambda: t3.circumcenters(coords, connect),
         lambda: t3.get_neighbors(connect), lambda: t3.convert_into_quadratic(coords, connect))
try:
    for i in range(600):
        try:
            calls[i % len(calls)]()
        except t3.Error:
            pass
finally:
    done.set()
    thread.join()
print("survived")
"""
    result = run_python(f"import sys; sys.path.insert(0, {str(pathlib.Path(__file__).parent)!r})\n" + code)
    assert result.returncode == 0 and "survived" in result.stdout, result.stderr[-2000:]


def test_calls_from_several_threads_give_the_single_thread_results():
    from concurrent.futures import ThreadPoolExecutor
    coords, connect = box("TH4", (6, 6, 6), jitter=0.2)
    expected = t3.element_volumes(coords, connect)
    with ThreadPoolExecutor(4) as pool:
        results = list(pool.map(lambda _: t3.element_volumes(coords, connect), range(16)))
    for r in results:
        np.testing.assert_array_equal(r, expected)


# ---- statuses and errors ------------------------------------------------------------------

def header_statuses(path):
    """{function: negative statuses its doc comment lists} of a public header, overloads
    merged; "no -k" mentions are not statuses."""
    statuses, doc, in_doc = {}, [], False
    for line in pathlib.Path(path).read_text().splitlines():
        s = line.strip()
        if s.startswith("///"):
            doc = (doc if in_doc else []) + [s[3:]]
            in_doc = True
            continue
        in_doc = False
        declared = re.match(r"\w+_EXPORT\s+int\s+(\w+)\(", s)
        if declared:
            text = " ".join(doc)
            text = re.sub(r"\b[Nn]o -\d+", "", text[text.find("@return"):] if "@return" in text else text)
            found = {int(c) for c in re.findall(r"(?<![\w.^])(-\d+)\b", text)}
            statuses.setdefault(declared.group(1), set()).update(found)
    return statuses


@pytest.mark.parametrize("header", ["include/zel/tessel3d.h", "siblings/tessel/include/zel/tessel.h",
                                    "siblings/tessel2d/include/zel/tessel2d.h"])
def test_every_status_in_the_headers_has_its_message(header):
    python_names = {"normals": "surface_normals", "locate_points": "locate_points",
                    "interpolate_projected": "interpolate", "interpolate_metrics_projected": "interpolate_metrics"}
    unbound = {"simplify"}
    listed = header_statuses(ROOT / header)
    assert listed, "no documented status found: has the header's comment format changed?"
    for function, statuses in listed.items():
        if function in unbound:
            continue
        name = python_names.get(function, function.lower())
        tables = [table for key, table in TABLES.items() if key.split("/")[0] == name]
        assert tables, f"{function}: no errors table"
        known = set().union(*map(set, tables)) | {-199}  # -199: OutOfMemoryError for every function
        assert statuses <= known, f"{function}: statuses {sorted(statuses - known)} have no message"


@pytest.mark.parametrize("call, error, text", [
    (lambda: t3.volume(TET[:, :2], [[0, 1, 2, 3]]), t3.Error,
     "volume: coords (argument 1) must be an (n, 3) array of node coordinates, not of shape (4, 2)"),
    (lambda: t3.volume(TET, [[0, 1, 2, 9]]), t3.Error,
     "volume: connect (argument 2) must list 4 (TH4), 5 (PY5), 6 (W6) or 8 (mixed, H8) node IDs per element, "
     "each below the node count (element 0 holds node ID 9, not below the node count 4)"),
    (lambda: t3.dihedral_angles(TET[:, :2], [[0, 1, 2, 3]]), t3.Error, "dihedral_angles: coords (argument 1)"),
    (lambda: t3.flip(np.zeros((1, 8), np.uint32), t3.SOLID_MIX8), t3.Error,
     "flip: type (argument 2) SOLID_MIX8 needs 27 node IDs per element, connect has 8"),
    (lambda: t3.convert_into_linear(np.zeros((1, 11), np.uint32)), t3.Error,
     "convert_into_linear: connect (argument 1) must have 10, 13, 14, 15, 18, 20 or 27 columns, not 11"),
    (lambda: t3.split_solid_q4(CUBE, [list(range(8))], [[0, 1, 2, 3]], float("nan")), t3.Error,
     "split_solid_q4: min_quality (argument 4) must be a finite number"),
    (lambda: t3.interpolate(TET, [[0, 1, 2, 3]], np.zeros(3), [0]), t3.Error,
     "interpolate: field (argument 3) must have one row (or entry) per node (field has shape (3,), coords has "
     "shape (4, 3))"),
    (lambda: t3.extrude_translate(TET, [[0, 1, 2]], (0, 0, 1), 2 ** 32), t3.Error,
     "extrude_translate: layers (argument 4) = 4294967296 is not a layer count"),
    (lambda: t3.extrude_rotate(TET, [[0, 1, 2]], (0, 0, -1), (0, 0, 1), h0=1e-300, h1=1e-300), t3.Error,
     "extrude_rotate: h0 = 1e-300 and h1 = 1e-300 (arguments 5, 6) over a sweep of length 1.0 give"),
    (lambda: t3.extrude_normal(TET, [[0, 1, 2]], 1.0, 2 ** 32 - 1), t3.Error,
     "extrude_normal: layers (argument 4) = 4294967295: 4294967295 layers of 3 surface nodes on top of 4 nodes "
     "need more than the 2^32 - 1 node IDs"),
])
def test_errors_name_the_function_the_argument_and_what_was_passed(call, error, text):
    with pytest.raises(error) as caught:
        call()
    assert str(caught.value).startswith(text), str(caught.value)
    assert isinstance(caught.value, ValueError) and caught.value.status < 0


def test_running_out_of_memory_is_a_memory_error_even_for_the_adjacency_built_inside():
    # The address space is capped just above what the interpreter holds, so the face
    # adjacency that interpolate builds for itself cannot be allocated.
    code = """
import resource, numpy as np, tessel3d as t3
from conftest import box
coords, connect = box("TH4", (24, 24, 24))
field, nodes = np.zeros(len(coords)), np.arange(len(coords), dtype=np.uint32)
held = int(open("/proc/self/statm").read().split()[0]) * resource.getpagesize()
resource.setrlimit(resource.RLIMIT_AS, (held, resource.RLIM_INFINITY))
try:
    t3.interpolate(coords, connect, field, nodes)
except MemoryError as error:
    print(type(error).__name__, getattr(error, "status", None), error)
"""
    result = run_python(f"import sys; sys.path.insert(0, {str(pathlib.Path(__file__).parent)!r})\n" + code)
    assert result.returncode == 0, result.stderr[-2000:]
    assert "out of memory" in result.stdout and "argument" not in result.stdout, result.stdout
    assert result.stdout.startswith("OutOfMemoryError -199") or "private copy" in result.stdout


def test_version():
    assert t3.__version__ == t3.version() == _native.version()
    assert re.fullmatch(r"\d+\.\d+\.\d+\.\d+", t3.__version__)
