"""Solving to a backward error target on a factored system.

The same policy as velmora-solve's: static pivoting leaves some answers
short of working accuracy, so after the first solve the normwise backward
error ||b - A x||_inf / (||A||_inf ||x||_inf + ||b||_inf) is measured, and
when it misses the target

1. the solve runs again asking for explicit refinement steps (iparm(8));
2. the columns still short get flexible GMRES on A, each iteration
   preconditioned by one solve with the factor: a few perturbed pivots are
   a low-rank change of A, which the Krylov method removes in about as many
   iterations.
"""

import collections

import numpy as np

Accuracy = collections.namedtuple(
    "Accuracy", "first refined krylov krylov_iterations best reached")
Accuracy.__doc__ = """What the last solve did: the backward error after the
first solve, after the explicit refinement and after the Krylov stage
(None for a stage not run), the FGMRES iterations, the backward error of the
answer handed back (the largest over the right-hand sides) and whether it
met the target."""

REFINE_STEPS = 10
KRYLOV_ITERATIONS = 150
KRYLOV_RESTART = 30


def backward_errors(A, anorm, X, B):
    """The normwise backward error of each column of X (2-D arrays)."""
    num = np.abs(B - A @ X).max(axis=0)
    den = anorm * np.abs(X).max(axis=0) + np.abs(B).max(axis=0)
    with np.errstate(divide="ignore", invalid="ignore"):
        e = np.where(den > 0, num / den, np.where(num > 0, np.inf, 0.0))
    return np.where(np.isnan(e), np.inf, e)


def fgmres(A, precondition, anorm, b, x, target):
    """Flexible GMRES(m) from x; returns the best x, its backward error and
    the iterations made."""
    n = b.shape[0]
    m = max(1, min(KRYLOV_RESTART, n))
    bnorm = np.abs(b).max()

    def berr(x):
        r = b - A @ x
        return r, backward_errors(A, anorm, x[:, None], b[:, None])[0]

    r, current = berr(x)
    best, best_x, used = current, x.copy(), 0
    while used < KRYLOV_ITERATIONS and current > target:
        beta = np.linalg.norm(r)
        if not beta > 0:
            break
        # ||r||_inf <= ||r||_2: an estimate below this meets the target.
        tol = 0.5 * target * (anorm * np.abs(x).max() + bnorm)
        V = np.zeros((n, m + 1), dtype=b.dtype)
        Z = np.zeros((n, m), dtype=b.dtype)
        H = np.zeros((m + 1, m), dtype=b.dtype)
        V[:, 0] = r / beta
        k = 0
        while k < m and used < KRYLOV_ITERATIONS:
            z = precondition(V[:, k])
            if not np.isfinite(z).all():
                break
            used += 1
            Z[:, k] = z
            w = A @ z
            for i in range(k + 1):  # modified Gram-Schmidt
                H[i, k] = np.vdot(V[:, i], w)
                w = w - H[i, k] * V[:, i]
            H[k + 1, k] = np.linalg.norm(w)
            k += 1
            g = np.zeros(k + 1, dtype=b.dtype)
            g[0] = beta
            y = np.linalg.lstsq(H[:k + 1, :k], g, rcond=None)[0]
            estimate = np.linalg.norm(H[:k + 1, :k] @ y - g)
            if not abs(H[k, k - 1]) > 1e-300 or estimate <= tol:
                break
            V[:, k] = w / H[k, k - 1]
        if k == 0:
            break
        x = x + Z[:, :k] @ y
        previous = current
        r, current = berr(x)
        if current < best:
            best, best_x = current, x.copy()
        if not current < 0.5 * previous:  # a cycle that gains little
            break
    return best_x, best, used


def solve_to_target(A, solve, B, target):
    """X for the columns of B by solve(B, refine) (refine None: the
    caller's iparm(8)), improved until each column's backward error meets
    target (0: the first solve only); returns X, the Accuracy and the
    library's refinement steps."""
    anorm = abs(A).sum(axis=1).max()
    X, steps = solve(B, None)
    e = backward_errors(A, anorm, X, B)
    first, refined, krylov, iterations = e.max(), None, None, 0
    if target > 0 and e.max() > target:
        X2, more = solve(B, REFINE_STEPS)
        steps += more
        e2 = backward_errors(A, anorm, X2, B)
        refined = e2.max()
        better = e2 < e
        X[:, better], e[better] = X2[:, better], e2[better]
    if target > 0 and e.max() > target:
        def precondition(v):
            return solve(v[:, None], 0)[0][:, 0]
        for c in np.flatnonzero(e > target):
            X[:, c], e[c], used = fgmres(A, precondition, anorm, B[:, c],
                                         X[:, c], target)
            iterations += used
        krylov = e.max()
    best = e.max()
    return X, Accuracy(first, refined, krylov, iterations, best,
                       bool(target <= 0 or best <= target)), steps
