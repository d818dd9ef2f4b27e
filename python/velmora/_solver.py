"""The Solver class and spsolve."""

import collections
import ctypes
import math
import warnings
import weakref

import numpy as np
import scipy.sparse as sp
import scipy.sparse.csgraph as csgraph
import scipy.sparse.linalg as spla

from . import _accuracy, _matrix
from ._library import ERR_FACTOR, ERR_PREORDER, VelmoraError, library

__all__ = ["Solver", "spsolve", "Inertia", "AccuracyWarning"]

Inertia = collections.namedtuple("Inertia", "positive negative zero")
Inertia.__doc__ = "Counts of positive, negative and zero pivots."



class AccuracyWarning(UserWarning):
    """A solve whose backward error stayed above the target: the matrix
    may be singular or too ill-conditioned.  Solver.accuracy tells more."""


ORDERINGS = {"mmd": 0, "md": 1, "nd": 2, "metis": 3, "amd": 4}


class _Handle:
    """The library's handle and the arrays its calls share.  Kept apart from
    Solver so that the finalizer that releases it holds no Solver."""

    def __init__(self, mtype, n):
        self.pt = (ctypes.c_void_p * 64)()
        self.iparm = np.zeros(64, dtype=np.intc)
        self.dparm = np.zeros(64, dtype=np.float64)
        self.perm = np.zeros(n, dtype=np.intc)
        self.mtype, self.n = mtype, n
        self.a = self.ia = self.ja = None
        self.msglvl = 0
        self.live = False

    def init(self, mtype):
        error = ctypes.c_int(0)
        self.pt[:] = [None] * 64
        library().velmorainit(self.pt, _int(mtype), _int(0), _ptr(self.iparm),
                              _ptr(self.dparm), ctypes.byref(error))
        if error.value:
            raise VelmoraError.from_call(error.value, 0)
        self.mtype = mtype

    def call(self, phase, b=None, x=None):
        """One call of the library; returns its error code."""
        nrhs = 1 if b is None else b.shape[1]
        error = ctypes.c_int(0)
        library().velmora(
            self.pt, _int(1), _int(1), _int(self.mtype), _int(phase),
            _int(self.n), _ptr(self.a), _ptr(self.ia), _ptr(self.ja),
            _ptr(self.perm), _int(nrhs), _ptr(self.iparm), _int(self.msglvl),
            None if b is None else _ptr(b), None if x is None else _ptr(x),
            ctypes.byref(error), _ptr(self.dparm))
        self.live = self.live or phase > 0
        return error.value

    def release(self):
        if self.live:
            self.live = False
            self.call(-1)


def _int(v):
    return ctypes.byref(ctypes.c_int(v))


def _ptr(array):
    return array.ctypes.data


class _OneBased:
    """iparm or dparm, indexed by the slot numbers 1 to 64."""

    def __init__(self, array, name):
        self._array, self._name = array, name

    def _index(self, slot):
        if not isinstance(slot, (int, np.integer)) or not 1 <= slot <= 64:
            raise IndexError("%s slots are numbered 1 to 64" % self._name)
        return slot - 1

    def __getitem__(self, slot):
        return self._array[self._index(slot)].item()

    def __setitem__(self, slot, value):
        self._array[self._index(slot)] = value

    def __len__(self):
        return 64

    def __repr__(self):
        return "%s(%s)" % (self._name, {i + 1: v.item() for i, v in
                                        enumerate(self._array) if v})


class Solver:
    """A factorization of a sparse matrix, kept for many solves.

    A is a SciPy sparse matrix or a dense 2-D array, square, real or
    complex.  mtype is the library's matrix type; by default it is chosen
    from the values as velmora-solve does: 2 for a symmetric real matrix
    (-2 when a pivot is not positive), 4 for a Hermitian one (then -4), 6
    for complex symmetric, 11 or 13 otherwise.  ordering is 0 to 4 of
    iparm(2), or "mmd", "md", "nd", "metis", "amd"; threads is iparm(3) (0
    or None: the OpenMP default).  iparm maps slot numbers to values set
    after the defaults, e.g. {8: 2}.  target is the backward error that
    solve() aims at (0: the plain solve).  verbose=True lets the library
    print its report.

    analyse() and factor() run on demand; a solver holds the library's
    memory until close(), the end of a with block, or its collection.

    >>> import numpy as np, scipy.sparse as sp, velmora
    >>> A = sp.csr_matrix([[4., 1, 0], [1, -3, 1], [0, 1, 5]])
    >>> with velmora.Solver(A) as s:
    ...     x = s.solve(np.array([1., 2, 3]))
    ...     print(s.mtype, s.inertia, s.backward_error([1., 2, 3], x) < 1e-14)
    -2 Inertia(positive=2, negative=1, zero=0) True
    >>> np.allclose(A @ x, [1, 2, 3])
    True
    """

    def __init__(self, A, mtype=None, ordering=None, threads=None,
                 iparm=None, target=1e-14, verbose=False):
        A = _matrix.as_csr(A)
        rank = csgraph.structural_rank(A)
        if rank < A.shape[0]:
            raise VelmoraError(ERR_PREORDER, "the matrix is structurally "
                               "singular: its structural rank is %d of %d"
                               % (rank, A.shape[0]))
        self._auto = mtype is None
        mtype = _matrix.choose_mtype(A) if self._auto else mtype
        self._A = _matrix.fit_mtype(A, mtype)
        if isinstance(ordering, str):
            if ordering not in ORDERINGS:
                raise VelmoraError.bad_input("ordering %r is not one of %s"
                                             % (ordering, list(ORDERINGS)))
            ordering = ORDERINGS[ordering]
        self._options = (ordering, threads or 0, dict(iparm or {}))
        self.target = target
        self._handle = _Handle(mtype, A.shape[0])
        self._handle.msglvl = 1 if verbose else 0
        self._finalizer = weakref.finalize(self, self._handle.release)
        self._start(mtype)
        self.accuracy = None

    def _start(self, mtype):
        h = self._handle
        h.init(mtype)
        ordering, threads, iparm = self._options
        if ordering is not None:
            h.iparm[1] = ordering
        h.iparm[2] = threads
        h.iparm[32] = 1  # the log-determinant
        for slot, value in iparm.items():
            try:
                _OneBased(h.iparm, "iparm")[slot] = value
            except (IndexError, TypeError, ValueError) as exc:
                raise VelmoraError.bad_input("iparm[%r] = %r: %s"
                                             % (slot, value, exc)) from None
        h.a, h.ia, h.ja = _matrix.stored(self._A, mtype)
        self._diagonal = len(h.a) == h.n
        self._stage = 0  # 1 analysed, 2 factored

    # ---- the phases

    def _check(self, error, phase):
        if error:
            raise VelmoraError.from_call(error, phase, self._diagonal)

    def _open(self):
        if not self._finalizer.alive:
            raise VelmoraError.bad_input("the solver is closed")
        return self._handle

    def analyse(self):
        """Ordering and symbolic factorization (phase 11)."""
        self._check(self._open().call(11), 11)
        self._stage = 1
        return self

    def factor(self, A_new=None):
        """Numerical factorization (phase 22), after analyse() if needed.
        A_new gives new values on the same pattern."""
        h = self._open()
        if A_new is not None:
            A_new = _matrix.fit_mtype(_matrix.as_csr(A_new), h.mtype)
            a, ia, ja = _matrix.stored(A_new, h.mtype)
            if A_new.shape != self._A.shape or not (
                    np.array_equal(ia, h.ia) and np.array_equal(ja, h.ja)):
                raise VelmoraError.bad_input("the new matrix has another "
                                             "pattern: make a new Solver")
            self._A, h.a = A_new, a
        if self._stage < 1:
            self.analyse()
        error = h.call(22)
        if error == ERR_FACTOR and self._auto and h.mtype in (2, 4):
            h.release()  # not positive definite: the indefinite type
            self._start(-h.mtype)
            self.analyse()
            error = h.call(22)
        self._check(error, 22)
        if self._auto and self._diagonal and h.mtype in (2, 4) \
                and (h.a.real <= 0).any():
            h.mtype = -h.mtype  # a diagonal is solved as it is
        self._stage = 2
        return self

    def _factored(self):
        if self._open() and self._stage < 2:
            self.factor()
        return self._handle

    def _phase33(self, B, refine):
        """X for the columns of B (n x k) with one solve; refine None keeps
        the caller's iparm(8), 0 asks for none beyond the library's
        default, k > 0 for at least k steps."""
        h = self._handle
        saved = h.iparm[5], h.iparm[7]
        if refine is not None:
            steps = max(refine, abs(saved[1])) if refine else 0
            h.iparm[7] = -steps if saved[1] < 0 else steps
        h.iparm[5] = 0  # the solution goes to x; b is our copy anyway
        B = np.array(B, dtype=h.a.dtype, order="F")
        X = np.zeros_like(B, order="F")
        try:
            error = h.call(33, B, X)
        finally:
            h.iparm[5], h.iparm[7] = saved
        if error != ERR_FACTOR:  # that one: refinement stopped, x is kept
            self._check(error, 33)
        return X, int(h.iparm[6])

    def solve(self, b, transpose=False, target=None):
        """x with A x = b (A^T x = b when transpose), b of n values or n x k.

        Aims at the backward error target (the solver's by default, 0 for
        the plain solve); self.accuracy tells what it took.
        """
        h = self._factored()
        target = self.target if target is None else target
        B = b.toarray() if sp.issparse(b) else np.asarray(b)
        dtype = _matrix.value_dtype(B.dtype, "the right-hand side")
        if B.ndim not in (1, 2) or B.shape[0] != h.n:
            raise VelmoraError.bad_input("the right-hand side is %s, not %d "
                                         "or %d x k" % (B.shape, h.n, h.n))
        _matrix.check_finite(B, "the right-hand side")
        if transpose and h.mtype in _matrix.HERMITIAN_MTYPES:
            return np.conj(self.solve(np.conj(B), False, target))
        B2 = B.reshape(h.n, -1).astype(dtype)
        if B2.shape[1] == 0:
            return np.zeros(B.shape, dtype=np.result_type(dtype, h.a.dtype))
        split = np.iscomplexobj(B2) and not np.iscomplexobj(h.a)
        if split:  # a real factor: real and imaginary parts apart
            B2 = np.hstack([B2.real, B2.imag])
        transposed = (transpose and not self._diagonal
                      and h.mtype not in _matrix.SYMMETRIC_MTYPES)
        A = self._A.T.tocsr() if transposed else self._A
        if transposed:
            h.iparm[11] = 1
        try:
            X, self.accuracy, self._steps = _accuracy.solve_to_target(
                A, self._phase33, B2, target)
        finally:
            if transposed:
                h.iparm[11] = 0
        if split:
            k = X.shape[1] // 2
            X = X[:, :k] + 1j * X[:, k:]
        if not self.accuracy.reached and target > 0:
            warnings.warn("backward error %.1e above the target %.0e: the "
                          "matrix may be singular or too ill-conditioned"
                          % (self.accuracy.best, target), AccuracyWarning,
                          stacklevel=2)
        return X.reshape(B.shape)

    # ---- what the factorization tells

    @property
    def n(self):
        """The order of the matrix."""
        return self._handle.n

    @property
    def mtype(self):
        """The matrix type in use (after a fall-back from 2 or 4)."""
        return self._handle.mtype

    @property
    def inertia(self):
        """(positive, negative, zero) pivots of a real symmetric or a
        Hermitian matrix, None for the other types."""
        h = self._factored()
        if h.mtype not in (2, -2, 4, -4):
            return None
        if self._diagonal:
            pos, neg = (h.a.real > 0).sum(), (h.a.real < 0).sum()
        else:
            pos, neg = int(h.iparm[21]), int(h.iparm[22])
        return Inertia(pos, neg, h.n - pos - neg)

    @property
    def perturbed_pivots(self):
        """Pivots the factorization replaced because they were tiny
        (iparm(14))."""
        return int(self._factored().iparm[13])

    @property
    def log_determinant(self):
        """log |det A| (dparm(33)); complex for types 3 and 13, whose
        imaginary part is the argument of det A (dparm(32), reduced to
        -pi..pi)."""
        h = self._factored()
        if h.mtype in (3, 13):
            return complex(h.dparm[32], math.remainder(h.dparm[31],
                                                       2 * math.pi))
        return float(h.dparm[32])

    @property
    def factor_nonzeros(self):
        """Entries of the factors (iparm(18))."""
        v = int(self._factored().iparm[17])
        return v if v >= 0 else -1000 * v

    @property
    def refinement_steps(self):
        """Refinement steps the library made in the last solve."""
        return getattr(self, "_steps", 0)

    @property
    def iparm(self):
        """The control array by slot number: s.iparm[14] is iparm(14)."""
        return _OneBased(self._handle.iparm, "iparm")

    @property
    def dparm(self):
        """The double control array by slot number: s.dparm[33]."""
        return _OneBased(self._handle.dparm, "dparm")

    def backward_error(self, b, x):
        """||b - A x||_inf / (||A||_inf ||x||_inf + ||b||_inf), the largest
        over the columns."""
        B = np.asarray(b).reshape(self.n, -1)
        X = np.asarray(x).reshape(self.n, -1)
        anorm = abs(self._A).sum(axis=1).max()
        return float(_accuracy.backward_errors(self._A, anorm, X, B).max())

    def as_linear_operator(self):
        """A^-1 as a scipy.sparse.linalg.LinearOperator (plain solves with
        the factor), e.g. a preconditioner for gmres or cg."""
        self._factored()

        def rsolve(v):
            return np.conj(self.solve(np.conj(v), transpose=True, target=0))

        dtype = np.result_type(self._handle.a.dtype)
        return spla.LinearOperator(
            (self.n, self.n), dtype=dtype,
            matvec=lambda v: self.solve(v, target=0),
            matmat=lambda V: self.solve(V, target=0),
            rmatvec=rsolve, rmatmat=rsolve)

    # ---- the handle's lifetime

    def close(self):
        """Releases the library's memory (phase -1); the solver is unusable
        after it.  Calling it again does nothing."""
        self._finalizer()

    def __enter__(self):
        return self

    def __exit__(self, *exc):
        self.close()

    def __repr__(self):
        state = ("closed" if not self._finalizer.alive else
                 ("new", "analysed", "factored")[self._stage])
        return "<velmora.Solver n=%d mtype=%d %s>" % (self.n, self.mtype,
                                                       state)


def spsolve(A, b, **options):
    """x with A x = b, like scipy.sparse.linalg.spsolve.

    A: SciPy sparse matrix or dense array, square, real or complex; b: n
    values or an n x k array (a sparse b is made dense, and so is x).
    options: those of Solver (mtype, ordering, threads, iparm, target,
    verbose) and transpose=True to solve A^T x = b.

    >>> import numpy as np, scipy.sparse as sp, velmora
    >>> A = sp.diags([-1, 2, -1], [-1, 0, 1], shape=(5, 5), format="csr")
    >>> velmora.spsolve(A, np.ones(5))
    array([2.5, 4. , 4.5, 4. , 2.5])
    >>> velmora.spsolve(A * 1j, np.ones((5, 2))).shape
    (5, 2)
    """
    transpose = options.pop("transpose", False)
    with Solver(A, **options) as s:
        return s.solve(b, transpose=transpose)
