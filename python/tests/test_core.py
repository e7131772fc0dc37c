"""Version, element types, the flips, array conversion (zero copy) and errors."""

import os

import numpy as np
import pytest

import tessel3d as t3
from tessel3d import _core

# Exchanges of flip() per type, written out from the library's documentation.
FLIP_PAIRS = {
    "TH4": [(0, 2)], "PY5": [(0, 2)], "TH10": [(0, 2), (4, 6), (7, 9)],
    "PY14": [(0, 2), (5, 7), (6, 8), (9, 10), (11, 12)], "W6": [(0, 2), (3, 5)],
    "W18": [(0, 2), (3, 5), (6, 8), (9, 11), (12, 14), (15, 17)], "H8": [(0, 2), (4, 6)],
    "H27": [(0, 2), (4, 6), (8, 9), (10, 11), (12, 13), (14, 15), (16, 18), (21, 22), (20, 23)],
    "PY13": [], "W15": [], "H20": [], "T3": [], "Q4": [],
}


def test_version_and_constants():
    assert t3.version() == "5.5.0.0"
    assert t3.ABSENT == 0xFFFFFFFF == _core.ABSENT
    assert (t3.TH4, t3.SOLID_MIX8, t3.H27) == (14, 12, 24)
    assert t3.ROWS[t3.W18] == 18 and t3.FACES[t3.PY5] == 5
    assert t3.element_type("h8") is t3.ElementType.H8


@pytest.mark.parametrize("name", sorted(FLIP_PAIRS))
def test_flip_exchanges_the_documented_rows(name):
    rows = t3.ROWS[t3.element_type(name)]
    connect = np.arange(3 * rows, dtype=np.uint32).reshape(3, rows)
    expected = connect.copy()
    for a, b in FLIP_PAIRS[name]:
        expected[:, [a, b]] = expected[:, [b, a]]
    result = t3.flip(connect, name)
    assert result is connect  # in place, the caller's own memory
    np.testing.assert_array_equal(connect, expected)
    t3.flip(connect, name)  # twice: the identity
    np.testing.assert_array_equal(connect, np.arange(3 * rows).reshape(3, rows))


def test_flip_mixed_27_follows_the_padding():
    a = t3.ABSENT
    tet = list(range(10)) + [a] * 17
    hexa = list(range(100, 127))
    connect = np.array([tet, hexa], dtype=np.uint32)
    t3.flip(connect, t3.SOLID_MIX8)
    assert connect[0, :10].tolist() == [2, 1, 0, 3, 6, 5, 4, 9, 8, 7]
    # the hexahedron branch also exchanges rows 3 and 5
    assert connect[1, :6].tolist() == [102, 101, 100, 105, 106, 103]


def test_single_type_flips_exchange_halves():
    connect = np.arange(8, dtype=np.uint32).reshape(1, 8)
    t3.flip_h8(connect)
    assert connect.tolist() == [[4, 5, 6, 7, 0, 1, 2, 3]]
    w = np.arange(6, dtype=np.uint32).reshape(1, 6)
    assert t3.flip_w6(w).tolist() == [[3, 4, 5, 0, 1, 2]]
    t = np.arange(4, dtype=np.uint32).reshape(1, 4)
    assert t3.flip_th4(t).tolist() == [[1, 0, 2, 3]]


def test_flip_works_on_a_column_slice_without_copy():
    big = np.arange(12, dtype=np.uint32).reshape(2, 6)
    view = big[:, :4]
    address, rows, cols, ld = _core.matrix_layout(view)
    assert (address, rows, cols, ld) == (view.ctypes.data, 4, 2, 6)
    t3.flip(view, t3.TH4)
    assert big.tolist() == [[2, 1, 0, 3, 4, 5], [8, 7, 6, 9, 10, 11]]  # columns 4, 5 untouched


def test_inputs_of_the_right_layout_are_read_in_place():
    coords = np.zeros((5, 3))
    assert _core.matrix_layout(coords) == (coords.ctypes.data, 3, 5, 3)
    wide = np.zeros((5, 4))
    assert _core.matrix_layout(wide[:, :3]) == (wide.ctypes.data, 3, 5, 4)


def test_other_dtypes_are_converted_and_written_back():
    signed = np.array([[0, 1, 2, -1]], dtype=np.int64)  # -1 stands for ABSENT
    t3.flip(signed, t3.TH4)
    assert signed.tolist() == [[2, 1, 0, -1]]
    fortran = np.asfortranarray(np.array([[0, 1, 2, 3], [4, 5, 6, 7]], dtype=np.uint32))
    t3.flip(fortran, t3.TH4)
    assert fortran.tolist() == [[2, 1, 0, 3], [6, 5, 4, 7]]
    assert t3.flip([[0, 1, 2, 3]], t3.TH4).tolist() == [[2, 1, 0, 3]]


@pytest.mark.parametrize("call, status, text", [
    (lambda: t3.flip(np.zeros((1, 27), np.uint32), t3.H8), -2,
     "flip: type (argument 2) H8 needs 8 node IDs per element, connect has 27"),
    (lambda: t3.flip(np.zeros((1, 8), np.uint32), t3.SOLID_MIX8), -2,
     "flip: type (argument 2) SOLID_MIX8 needs 27 node IDs per element, connect has 8"),
    (lambda: t3.flip_h8(np.zeros((1, 27), np.uint32)), -1, "flip_h8: connect (argument 1) must have 8 columns, not 27"),
    (lambda: t3.flip_th4(np.zeros((2, 5), np.uint32)), -1, "flip_th4: connect (argument 1) must have 4 columns, not 5"),
])
def test_errors_name_function_argument_and_fault(call, status, text):
    with pytest.raises(t3.Error) as caught:
        call()
    assert str(caught.value) == text
    assert caught.value.status == status
    assert isinstance(caught.value, ValueError)


def test_failed_flip_leaves_the_array_alone_and_empty_input_passes():
    connect = np.arange(8, dtype=np.uint32).reshape(1, 8)
    with pytest.raises(t3.Error):
        t3.flip(connect, t3.TH4)
    assert connect.tolist() == [list(range(8))]
    assert t3.flip(np.zeros((0, 5), np.uint32), t3.H8).shape == (0, 5)


@pytest.mark.parametrize("value, fragment", [
    (np.array([[0.5, 1, 2, 3]]), "must hold integer"),
    (np.array([[0, 1, 2, -7]]), "not a 32-bit ID"),
    (np.arange(4), "must be a 2-D array"),
])
def test_bad_arrays_are_refused_before_the_call(value, fragment):
    with pytest.raises(t3.Error, match=fragment):
        t3.flip(value, t3.TH4)


def test_read_only_array_cannot_be_flipped():
    connect = np.arange(4, dtype=np.uint32).reshape(1, 4)
    connect.flags.writeable = False
    with pytest.raises(t3.Error, match="read-only"):
        t3.flip(connect, t3.TH4)


def test_thread_count_follows_the_affinity_mask_and_changes_no_bit():
    rng = np.random.default_rng(3)
    coords = rng.random((5000, 3))
    connect = rng.integers(0, 5000, size=(300000, 4), dtype=np.uint32)  # several chunks
    try:
        t3.set_threads(0)
        assert t3.threads() == len(os.sched_getaffinity(0))
        t3.set_threads(1)
        one = t3.volume(coords, connect)
        for n in (2, 4):
            t3.set_threads(n)
            assert t3.threads() == n
            assert t3.volume(coords, connect) == one
        with pytest.raises(ValueError):
            t3.set_threads(-1)
    finally:
        t3.set_threads(0)
