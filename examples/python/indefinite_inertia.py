"""Solve a symmetric indefinite (saddle point) system and read the inertia
of its factorization: [[H, J^T], [J, 0]] with H positive definite and J of
full rank has as many negative eigenvalues as J has rows.
Run: python3 indefinite_inertia.py"""

import numpy as np
import scipy.sparse as sp

import velmora

n, m = 400, 100
rng = np.random.default_rng(0)
H = sp.diags([-1, 4, -1], [-1, 0, 1], shape=(n, n))
J = sp.random(m, n, density=0.02, random_state=1) + sp.eye(m, n)
K = sp.bmat([[H, J.T], [J, None]], format="csr")
b = rng.standard_normal(n + m)

with velmora.Solver(K) as solver:  # tries mtype 2, falls back to -2
    x = solver.solve(b)
    print("mtype %d, inertia %s" % (solver.mtype, tuple(solver.inertia)))
    print("perturbed pivots %d, backward error %.1e"
          % (solver.perturbed_pivots, solver.backward_error(b, x)))
