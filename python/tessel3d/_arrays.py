"""Argument conversion between Python values and the arrays the compiled module takes.

Coordinates are (n, 3) float64 and connectivities (m, k) uint32 arrays whose rows are
contiguous: exactly the memory of the library's 3 x n and k x m column-major matrices.
An array that already has that dtype and layout (C order, or a column slice such as
``a[:, :4]``) is passed as it is; anything else is converted once here. The compiled
module reads inputs into private copies (so that no other thread can change them during
the call) and writes in-out arrays (flips, interpolated fields) in place.
"""

import numpy as np

from . import _native
from .errors import Error

ABSENT = 0xFFFFFFFF


def native(*_names):
    """The compiled module, tessel3d._native, which holds every family's bindings.

    Callers name the family and function they need; the one module has them all and is
    loaded with the package, so a failure to load it shows at ``import tessel3d``.
    """
    return _native


def fits(a, dtype):
    """True when `a` can be handed to the library without a copy."""
    if not isinstance(a, np.ndarray) or a.dtype != dtype or a.ndim != 2 or not a.flags.aligned:
        return False
    item = a.itemsize
    if a.shape[0] == 0:
        return True
    if a.shape[1] > 1 and a.strides[1] != item:
        return False
    if a.shape[0] > 1 and (a.strides[0] < a.shape[1] * item or a.strides[0] % item):
        return False
    return True


def _two_dimensional(a, function, name, position):
    if a.ndim == 1 and a.size == 0:
        return a.reshape(0, 0)
    if a.ndim != 2:
        raise Error(f"{function}: {name} (argument {position}) must be a 2-D array, not of shape {a.shape}",
                    status=-position, function=function, argument=name, position=position)
    return a


def real_matrix(value, function, name, position):
    """A float64 2-D array that the library can read in place."""
    if fits(value, np.float64):
        return value
    try:
        a = np.asarray(value, dtype=np.float64)
    except (TypeError, ValueError) as error:
        raise Error(f"{function}: {name} (argument {position}) must hold numbers ({error})",
                    status=-position, function=function, argument=name, position=position) from None
    a = _two_dimensional(a, function, name, position)
    return np.ascontiguousarray(a)


def real_vector(value, function, name, position, size=None):
    try:
        a = np.ascontiguousarray(value, dtype=np.float64)
    except (TypeError, ValueError) as error:
        raise Error(f"{function}: {name} (argument {position}) must hold numbers ({error})",
                    status=-position, function=function, argument=name, position=position) from None
    if a.ndim != 1 or (size is not None and a.size != size):
        shape = f"({size},)" if size is not None else "1-D"
        raise Error(f"{function}: {name} (argument {position}) must be a {shape} array, not of shape {a.shape}",
                    status=-position, function=function, argument=name, position=position)
    return a


def _ids(value, function, name, position):
    """An integer array as uint32, -1 standing for ABSENT in signed input."""
    a = value if isinstance(value, np.ndarray) else np.asarray(value)
    if a.size == 0 and a.dtype.kind not in "iu":
        a = a.astype(np.uint32)
    if a.dtype.kind not in "iu":
        raise Error(f"{function}: {name} (argument {position}) must hold integer node or element IDs, "
                    f"not {a.dtype}", status=-position, function=function, argument=name, position=position)
    if a.dtype == np.uint32:
        return a
    if a.size:
        low, high = a.min(), a.max()
        if low < -1 or high > ABSENT:
            bad = low if low < -1 else high
            raise Error(f"{function}: {name} (argument {position}) holds {bad}, which is not a 32-bit ID "
                        f"(-1 may stand for the absent marker)",
                        status=-position, function=function, argument=name, position=position)
        if low == -1:
            a = np.where(a == -1, ABSENT, a)
    return a.astype(np.uint32)


def id_matrix(value, function, name, position):
    """A uint32 2-D array that the library can read in place."""
    if fits(value, np.uint32):
        return value
    a = _two_dimensional(_ids(value, function, name, position), function, name, position)
    return np.ascontiguousarray(a)


def id_vector(value, function, name, position):
    a = _ids(value, function, name, position)
    if a.ndim != 1:
        a = a.reshape(-1)
    return np.ascontiguousarray(a)


def optional(convert, value, function, name, position):
    return None if value is None else convert(value, function, name, position)


def in_out(value, convert, function, name, position):
    """(array the library writes into, callback that hands the result back).

    The caller's own array is written when it has the right dtype and layout; otherwise a
    converted copy is written and then copied back into the caller's array. An array
    whose dtype cannot hold the results without truncating them (an integer field for
    float64 results) is refused with TypeError rather than written back rounded: pass
    ``field.astype(float)`` and use the array returned.
    """
    if isinstance(value, np.ndarray) and not value.flags.writeable:
        raise Error(f"{function}: {name} (argument {position}) is read-only and the call writes into it",
                    status=-position, function=function, argument=name, position=position)
    a = convert(value, function, name, position)
    if a is value:
        return a, lambda: value
    if isinstance(value, np.ndarray) and not np.can_cast(a.dtype, value.dtype, casting="same_kind"):
        raise TypeError(f"{function}: {name} (argument {position}) is written in place with {a.dtype} values, "
                        f"which its dtype {value.dtype} would truncate; pass {name}.astype(float) and use the "
                        "array returned")

    def back():
        if isinstance(value, np.ndarray) and value.shape == a.shape:
            out = a
            if value.dtype.kind == "i" and a.dtype == np.uint32:
                out = np.where(a == ABSENT, -1, a.astype(np.int64))
            np.copyto(value, out, casting="unsafe")
            return value
        return a
    return a, back


def point(value, function, name, position):
    return real_vector(value, function, name, position, size=3)
