"""Factor once, solve many times: an unsymmetric convection-diffusion
matrix, 200 right-hand sides one by one and then all at once, then new
values on the same pattern.  Run: python3 many_rhs.py"""

import time

import numpy as np
import scipy.sparse as sp

import velmora

g = 60
T = sp.diags([-1.3, 4.5, -0.7], [-1, 0, 1], shape=(g, g))
V = sp.diags([-1.1, 0, -0.9], [-1, 0, 1], shape=(g, g))
A = (sp.kron(sp.eye(g), T) + sp.kron(V, sp.eye(g))).tocsr()  # n = 3600
B = np.random.default_rng(0).standard_normal((A.shape[0], 200))

with velmora.Solver(A) as solver:
    start = time.perf_counter()
    solver.factor()
    factored = time.perf_counter()
    X = np.column_stack([solver.solve(B[:, k]) for k in range(B.shape[1])])
    one_by_one = time.perf_counter()
    Y = solver.solve(B)
    done = time.perf_counter()
    print("factor %.3f s, 200 solves one by one %.3f s, as one block %.3f s"
          % (factored - start, one_by_one - factored, done - one_by_one))
    print("backward error %.1e, factor entries %d"
          % (solver.backward_error(B, Y), solver.factor_nonzeros))

    A.data *= 2.0  # same pattern, new values: no new analysis
    solver.factor(A)
    print("after new values: x = X / 2 to %.1e"
          % np.abs(solver.solve(B[:, 0]) - X[:, 0] / 2).max())
