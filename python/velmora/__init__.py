"""velmora: sparse direct solves from Python.

A thin layer over the shared library libvelmora (through ctypes) for SciPy
sparse matrices and NumPy arrays:

- spsolve(A, b) solves in one call, like scipy.sparse.linalg.spsolve;
- Solver(A) keeps the factorization for many right-hand sides, new values
  on the same pattern (factor(A_new)), the inertia, the log-determinant,
  and A^-1 as a LinearOperator;
- VelmoraError carries the library's error code when anything fails.

Every solve aims at a normwise backward error of 1e-14 (the target
option; 0 turns it off): when the first solve misses it, the solve is
repeated with explicit refinement steps, then flexible GMRES
preconditioned by the factor finishes the columns still short.

The library is found through VELMORA_LIBRARY (a path), then beside the
installed package, then in the build tree of a checkout, then by the
system's loader.

>>> import numpy as np, scipy.sparse as sp, velmora
>>> A = sp.random(50, 50, density=0.1, random_state=1) + 10 * sp.eye(50)
>>> b = np.arange(50.0)
>>> x = velmora.spsolve(A, b)
>>> bool(np.linalg.norm(A @ x - b) < 1e-12 * np.linalg.norm(b))
True
>>> try:
...     velmora.spsolve(A[:, :49], b[:49])
... except velmora.VelmoraError as e:
...     print(e.code, e)
-1 the matrix is 50 x 49, not square: only square systems are solved
"""

from ._accuracy import Accuracy
from ._library import VelmoraError
from ._solver import AccuracyWarning, Inertia, Solver, spsolve

VelmoraError.__module__ = AccuracyWarning.__module__ = __name__

__all__ = ["spsolve", "Solver", "VelmoraError", "AccuracyWarning",
           "Inertia", "Accuracy"]
