"""Checking a caller's matrix and putting it in the form the library takes.

Everything the library would refuse, or could not survive, is refused here
first: a matrix that is not square, values of a type that is not a number,
NaN or infinite values, and index arrays that point outside the matrix.
The index arrays are read before SciPy touches them, since its conversions
trust them.
"""

import numpy as np
import scipy.sparse as sp

from ._library import VelmoraError

MTYPES = (1, 2, -2, 11, 3, 4, -4, 6, 13)
COMPLEX_MTYPES = (3, 4, -4, 6, 13)
SYMMETRIC_MTYPES = (2, -2, 4, -4, 6)
HERMITIAN_MTYPES = (4, -4)
_INT_MAX = 2**31 - 1


def value_dtype(dtype, what):
    """float64 or complex128 for a numeric dtype; refuses anything else."""
    dtype = np.dtype(dtype)
    if dtype.kind in "biu" or (dtype.kind == "f" and dtype.itemsize <= 8):
        return np.dtype(np.float64)
    if dtype.kind == "c" and dtype.itemsize <= 16:
        return np.dtype(np.complex128)
    raise VelmoraError.bad_input("%s has dtype %s: values must be real or "
                                 "complex numbers of at most double "
                                 "precision" % (what, dtype), check=10)


def check_finite(values, what):
    values = np.asarray(values)
    if values.size and not np.isfinite(values).all():
        nan = np.isnan(values).any()
        raise VelmoraError.bad_input(
            "%s holds %s value" % (what, "a NaN" if nan else "an infinite"),
            check=300 if nan else 301)


def _check_index(array, bound, what):
    array = np.asarray(array)
    if array.ndim != 1 or array.dtype.kind not in "iu":
        raise VelmoraError.bad_input("%s is not a one-dimensional integer "
                                     "array" % what, check=101)
    if array.size and (array.min() < 0 or array.max() >= bound):
        raise VelmoraError.bad_input("%s holds an index outside 0..%d"
                                     % (what, bound - 1), check=101)


def _check_compressed(m, major, minor):
    """indptr and indices of a CSR, CSC or BSR matrix (in blocks)."""
    indptr = np.asarray(m.indptr)
    if indptr.ndim != 1 or indptr.dtype.kind not in "iu" \
            or indptr.size != major + 1:
        raise VelmoraError.bad_input("indptr has not %d entries" % (major + 1),
                                     check=100)
    if indptr[0] != 0 or (np.diff(indptr) < 0).any() \
            or indptr[-1] > min(len(m.indices), len(m.data)):
        raise VelmoraError.bad_input("indptr does not increase from 0 to at "
                                     "most the number of entries", check=100)
    _check_index(m.indices[:indptr[-1]], minor, "indices")


def as_csr(A):
    """A as a canonical CSR matrix of float64 or complex128 values."""
    if sp.issparse(A):
        shape = A.shape
        if len(shape) != 2 or shape[0] != shape[1] or shape[0] < 1:
            raise VelmoraError.bad_input(
                "the matrix is %s, not square: only square systems are "
                "solved" % " x ".join(map(str, shape)), check=10)
        dtype = value_dtype(A.dtype, "the matrix")
        fmt = A.format
        if fmt in ("csr", "csc"):
            _check_compressed(A, shape[0], shape[1])
        elif fmt == "bsr":
            r, c = A.blocksize
            _check_compressed(A, shape[0] // r, shape[1] // c)
        elif fmt == "coo":
            if not len(A.row) == len(A.col) == len(A.data):
                raise VelmoraError.bad_input("row, col and data of the COO "
                                             "matrix differ in length",
                                             check=100)
            _check_index(A.row, shape[0], "row")
            _check_index(A.col, shape[1], "col")
        check_finite(A.data, "the matrix")
        A = sp.csr_matrix(A, dtype=dtype, copy=True)
    else:
        dense = np.asarray(A)
        if dense.ndim != 2 or dense.shape[0] != dense.shape[1] \
                or dense.shape[0] < 1:
            raise VelmoraError.bad_input(
                "the matrix is %s, not square: only square systems are "
                "solved" % " x ".join(map(str, dense.shape)), check=10)
        dtype = value_dtype(dense.dtype, "the matrix")
        check_finite(dense, "the matrix")
        A = sp.csr_matrix(dense, dtype=dtype)
    A.sum_duplicates()
    A.sort_indices()
    if A.shape[0] >= _INT_MAX or A.nnz + A.shape[0] >= _INT_MAX:
        raise VelmoraError.bad_input("the matrix is too large for the "
                                     "library's 32-bit indices", check=10)
    return A


def _same(A, B):
    return (A - B).count_nonzero() == 0


def choose_mtype(A):
    """The type velmora-solve would give: 2 or 4 when the matrix is
    symmetric or Hermitian (-2 or -4 follow at a non-positive pivot), 6
    for complex symmetric, else 11 or 13."""
    if np.iscomplexobj(A.data):
        if _same(A, A.conj().T):
            return 4
        return 6 if _same(A, A.T) else 13
    return 2 if _same(A, A.T) else 11


def fit_mtype(A, mtype):
    """A with the values mtype needs; refuses a type that does not fit."""
    if mtype not in MTYPES:
        raise VelmoraError.bad_input("mtype %r is not one of %s"
                                     % (mtype, MTYPES), check=10)
    if mtype in COMPLEX_MTYPES:
        A = A.astype(np.complex128)
    elif np.iscomplexobj(A.data):
        raise VelmoraError.bad_input("complex values need a complex mtype "
                                     "(3, 4, -4, 6 or 13), not %d" % mtype,
                                     check=10)
    if mtype in HERMITIAN_MTYPES and not _same(A, A.conj().T):
        raise VelmoraError.bad_input("mtype %d needs a Hermitian matrix (give "
                                     "the whole matrix, not a triangle)"
                                     % mtype, check=10)
    if mtype in (2, -2, 6) and not _same(A, A.T):
        raise VelmoraError.bad_input("mtype %d needs a symmetric matrix (give "
                                     "the whole matrix, not a triangle)"
                                     % mtype, check=10)
    return A


def stored(A, mtype):
    """(a, ia, ja) as the library takes them for mtype: one-based CSR, the
    upper triangle with every diagonal entry for the symmetric types, the
    symmetrised pattern for 1 and 3."""
    n = A.shape[0]
    coo = A.tocoo()
    rows, cols, vals = coo.row, coo.col, coo.data
    diag = np.arange(n)
    zeros = np.zeros(n, dtype=A.dtype)
    if mtype in SYMMETRIC_MTYPES:
        keep = rows <= cols
        rows, cols, vals = rows[keep], cols[keep], vals[keep]
        rows, cols = np.r_[rows, diag], np.r_[cols, diag]
        vals = np.r_[vals, zeros]
    elif mtype in (1, 3):
        rows, cols = np.r_[rows, cols, diag], np.r_[cols, rows, diag]
        vals = np.r_[vals, np.zeros_like(vals), zeros]
    elif A.nnz == n and not (rows == cols).all():
        # As many entries as rows reads as a diagonal matrix to the library:
        # an explicit zero on one missing diagonal keeps the general path.
        i = rows[rows != cols][0]
        rows, cols, vals = np.r_[rows, i], np.r_[cols, i], np.r_[vals, 0]
    # Conversion sums the zeros into present entries and keeps the others.
    S = sp.csr_matrix((vals, (rows, cols)), shape=A.shape, dtype=A.dtype)
    S.sum_duplicates()
    S.sort_indices()
    return (np.ascontiguousarray(S.data),
            (S.indptr + 1).astype(np.intc), (S.indices + 1).astype(np.intc))
