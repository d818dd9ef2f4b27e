"""Solve a symmetric positive definite system: the 2D Laplacian of a
100 x 100 grid, in one call.  Run: python3 spd_solve.py"""

import numpy as np
import scipy.sparse as sp

import velmora

g = 100
L = sp.diags([-1, 2, -1], [-1, 0, 1], shape=(g, g))
A = sp.kron(sp.eye(g), L) + sp.kron(L, sp.eye(g))  # n = 10000
b = np.ones(g * g)

x = velmora.spsolve(A, b)
print("n = %d, ||b - A x||_inf = %.1e, x[:3] = %s"
      % (A.shape[0], np.abs(b - A @ x).max(), x[:3]))
