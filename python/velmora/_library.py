"""Loading the shared library and calling it through ctypes.

The library is looked for, in this order:

1. the file named by the environment variable ``VELMORA_LIBRARY``;
2. the place recorded when the package was installed beside the library
   (``cmake --install`` writes it into ``_install.py``, relative to the
   package);
3. the build tree of a source checkout (``build/`` beside ``python/``);
4. the system's loader (``libvelmora.so.0`` on the loader's path).
"""

import ctypes
import os
import pathlib

__all__ = ["VelmoraError", "library", "MEANINGS", "CHECK_MEANINGS"]

ERR_INPUT, ERR_MEMORY, ERR_REORDER, ERR_FACTOR = -1, -2, -3, -4
ERR_INTERNAL, ERR_PREORDER, ERR_SILENT, ERR_OVERFLOW = -5, -6, -7, -8

# What each value of `error` means, as velmora-solve words it.
MEANINGS = {
    ERR_INPUT: "inconsistent input, or an option not available in this build",
    ERR_MEMORY: "not enough memory",
    ERR_REORDER: "the reordering failed",
    ERR_FACTOR: "zero or negative pivot: the numerical factorization failed",
    ERR_INTERNAL: "unclassified internal error",
    ERR_PREORDER: "the preordering failed: the matrix is structurally "
                  "singular",
    ERR_SILENT: "inconsistent input, or an option not available in this "
                "build; verbose=True prints the library's reason",
    ERR_OVERFLOW: "the factors overflow the 32-bit integers of the library",
}

# The codes of the library's matrix and vector checkers; the Python layer
# refuses the same faults with the same numbers before any call.
CHECK_MEANINGS = {
    10: "not a matrix of this type",
    100: "row pointers not increasing",
    101: "column index out of range",
    200: "column indices of a row not increasing",
    300: "a NaN value",
    301: "an infinite value",
}

_PHASES = {11: "analysis", 22: "factorization", 33: "solve", -1: "release"}


class VelmoraError(Exception):
    """A failure of the solver or a refusal of its input.

    ``code`` is the library's value of ``error`` (-1 for input that the
    Python layer refuses before calling it), ``phase`` the phase that failed
    (0 when no call was made), and ``check`` the number of the matrix or
    vector check that failed, as the library's checkers number them
    (101 for an index out of range, 300 for a NaN, ...), or 0.
    """

    def __init__(self, code, message, phase=0, check=0, row=0):
        super().__init__(message)
        self.code = code
        self.phase = phase
        self.check = check
        self.row = row

    @classmethod
    def from_call(cls, code, phase, diagonal=False):
        what = _PHASES.get(phase, "phase %d" % phase)
        text = "%s failed with error %d: " % (what, code)
        if diagonal:  # the row of a diagonal matrix, negated for a zero
            row = abs(code)
            return cls(code, text + "the diagonal matrix has a zero on row "
                       "%d: it is singular" % row, phase, row=row)
        return cls(code, text + MEANINGS.get(code, "unknown error"), phase)

    @classmethod
    def bad_input(cls, message, check=0):
        return cls(ERR_INPUT, message, 0, check)


_int_p = ctypes.POINTER(ctypes.c_int)
_lib = None


def _candidates():
    env = os.environ.get("VELMORA_LIBRARY")
    if env:
        yield env
        return
    here = pathlib.Path(__file__).resolve().parent
    try:
        from . import _install
        yield str((here / _install.LIBRARY).resolve())
    except ImportError:
        pass
    yield str(here.parent.parent / "build" / "libvelmora.so.0")
    yield "libvelmora.so.0"


def library():
    """The loaded library with the prototypes of its two main calls."""
    global _lib
    if _lib is not None:
        return _lib
    tried = []
    for path in _candidates():
        if os.sep in path and not os.path.exists(path):
            tried.append(path + " (absent)")
            continue
        try:
            lib = ctypes.CDLL(path)
        except OSError as exc:
            tried.append(str(exc))
            continue
        lib.velmora.restype = None
        # Scalars by address; arrays as the addresses of NumPy buffers.
        pt, arr = ctypes.POINTER(ctypes.c_void_p), ctypes.c_void_p
        lib.velmora.argtypes = [pt, _int_p, _int_p, _int_p, _int_p, _int_p,
                                arr, arr, arr, arr, _int_p, arr, _int_p, arr,
                                arr, _int_p, arr]
        lib.velmorainit.restype = None
        lib.velmorainit.argtypes = [pt, _int_p, _int_p, arr, arr, _int_p]
        _lib = lib
        return lib
    raise ImportError("libvelmora not found; set VELMORA_LIBRARY to its "
                      "path. Tried: " + "; ".join(tried))
