#!/usr/bin/env python3
"""velmora.spsolve against SciPy's direct solvers, from Python.

    python3 bench/python_bench.py [--runs 3] [--print-only]

Solves generated Laplacians and convection-diffusion matrices and the real
matrices of ../shared/matrices with at least 400 unknowns, one right-hand
side each, with velmora.spsolve (at 1 and 2 threads, its default backward
error target 1e-14), scipy.sparse.linalg.spsolve (SuperLU) and
scipy.sparse.linalg.splu followed by a solve.  Each time is the median of
the runs of the whole call, matrix conversion included; the solvers take
turns.  The table goes into bench/RESULTS.md as the section "## Python:
velmora.spsolve against SciPy", before "## Factorization time against n";
the rest of the file is left as it is.  The package is taken from python/
of this checkout, the library from build/ unless VELMORA_LIBRARY says.
"""

import argparse
import os
import pathlib
import platform
import statistics
import sys
import time
import warnings

os.environ.setdefault("OMP_WAIT_POLICY", "passive")
ROOT = pathlib.Path(__file__).resolve().parents[1]
sys.path.insert(0, str(ROOT / "python"))

import numpy as np  # noqa: E402
import scipy  # noqa: E402
import scipy.io  # noqa: E402
import scipy.sparse as sp  # noqa: E402
import scipy.sparse.linalg as spla  # noqa: E402

import velmora  # noqa: E402

SECTION = "## Python: velmora.spsolve against SciPy"
NEXT = "## Factorization time against n"


def laplacian(g, dims):
    L = sp.diags([-1, 2, -1], [-1, 0, 1], shape=(g, g))
    I = sp.eye(g)
    if dims == 2:
        return (sp.kron(I, L) + sp.kron(L, I)).tocsr()
    return (sp.kron(sp.kron(I, I), L) + sp.kron(sp.kron(I, L), I)
            + sp.kron(sp.kron(L, I), I)).tocsr()


def convection(g, dims):
    """Upwind convection-diffusion: diffusion plus a first difference."""
    C = sp.diags([-1, 1], [-1, 0], shape=(g, g))
    I = sp.eye(g)
    if dims == 2:
        D = sp.kron(I, C) + 0.5 * sp.kron(C, I)
    else:
        D = (sp.kron(sp.kron(I, I), C) + 0.5 * sp.kron(sp.kron(I, C), I)
             + 0.25 * sp.kron(sp.kron(C, I), I))
    return (laplacian(g, dims) + 3.0 * D).tocsr()


def matrices():
    yield "Laplacian 2D 150^2", laplacian(150, 2)
    yield "Laplacian 2D 300^2", laplacian(300, 2)
    yield "Laplacian 3D 20^3", laplacian(20, 3)
    yield "Laplacian 3D 25^3", laplacian(25, 3)
    yield "convection-diffusion 2D 200^2", convection(200, 2)
    yield "convection-diffusion 3D 20^3", convection(20, 3)
    folder = ROOT / ".." / "shared" / "matrices"
    for path in sorted(folder.glob("*.mtx")):
        try:
            with open(path, "rb") as f:  # mmread hangs without a size line
                if not any(ln.strip() and not ln.startswith(b"%") for ln in f):
                    continue
            A = sp.csr_matrix(scipy.io.mmread(str(path)))
        except Exception:
            continue
        if A.shape[0] == A.shape[1] >= 400 and not np.iscomplexobj(A.data):
            yield path.name, A


def berr(A, x, b):
    if x is None or not np.isfinite(x).all():
        return float("nan")
    anorm = abs(A).sum(axis=1).max()
    return np.abs(b - A @ x).max() / (anorm * np.abs(x).max()
                                      + np.abs(b).max())


def splu_solve(A, b):
    return spla.splu(A.tocsc()).solve(b)


SOLVERS = [
    ("velmora 1 thr", lambda A, b: velmora.spsolve(A, b, threads=1)),
    ("velmora 2 thr", lambda A, b: velmora.spsolve(A, b, threads=2)),
    ("scipy spsolve", lambda A, b: spla.spsolve(A.tocsc(), b)),
    ("scipy splu", splu_solve),
]


def run(runs):
    rows = []
    for name, A in matrices():
        b = A @ np.random.default_rng(0).standard_normal(A.shape[0])
        times = {s: [] for s, _ in SOLVERS}
        answers = {}
        for _ in range(runs):
            for label, solve in SOLVERS:
                start = time.perf_counter()
                try:
                    with warnings.catch_warnings():
                        warnings.simplefilter("ignore")
                        x = solve(A, b)
                except Exception:
                    x = None
                times[label].append(time.perf_counter() - start)
                answers[label] = x
        row = [name, A.shape[0], A.nnz]
        for label, _ in SOLVERS:
            row += [statistics.median(times[label]),
                    berr(A, answers[label], b)]
        rows.append(row)
        print(" | ".join(str(v) for v in row), flush=True)
    return rows


def table(rows, runs, seconds):
    labels = [s for s, _ in SOLVERS]
    out = [SECTION, "",
           "Run: `python3 bench/python_bench.py`; %s; Python %s, NumPy %s, "
           "SciPy %s; medians of %d runs; wall time %.0f s."
           % (time.strftime("%Y-%m-%d %H:%M UTC", time.gmtime()),
              platform.python_version(), np.__version__, scipy.__version__,
              runs, seconds), "",
           "One right-hand side; each time is the whole call from Python "
           "(checks, conversion, analysis, factorization, solve), velmora "
           "with its backward error target 1e-14, SciPy's SuperLU with its "
           "defaults (COLAMD, no refinement; spsolve and splu then solve). "
           "Backward error ||b - A x||_inf / (||A||_inf ||x||_inf + "
           "||b||_inf); ratio: velmora at 2 threads over the faster of the "
           "two SciPy calls (below 1 velmora is faster).", "",
           "| matrix | n | nnz | " + " | ".join(
               "%s s | %s berr" % (s, s.split()[0]) for s in labels)
           + " | ratio |",
           "|---|--:|--:|" + "--:|--:|" * len(labels) + "--:|"]
    ratios = []
    for r in rows:
        cells = [r[0], str(r[1]), str(r[2])]
        for k in range(len(labels)):
            t, e = r[3 + 2 * k], r[4 + 2 * k]
            cells += ["%.4f" % t, "%.1e" % e if np.isfinite(e) else "failed"]
        peer = min(r[7], r[9])
        ratio = r[5] / peer
        ratios.append(ratio)
        cells.append("%.2f" % ratio)
        out.append("| " + " | ".join(cells) + " |")
    out += ["", "Geometric mean of the ratio: %.2f (range %.2f to %.2f)."
            % (np.exp(np.mean(np.log(ratios))), min(ratios), max(ratios)), ""]
    return "\n".join(out) + "\n"


def write(section, path):
    text = path.read_text()
    start = text.find(SECTION)
    end = text.find(NEXT)
    if end < 0:
        raise SystemExit("%s: no line %r" % (path, NEXT))
    if 0 <= start < end:
        text = text[:start] + section + "\n" + text[end:]
    else:
        text = text[:end] + section + "\n" + text[end:]
    path.write_text(text)


def main():
    parser = argparse.ArgumentParser(description=__doc__.split("\n\n")[0])
    parser.add_argument("--runs", type=int, default=3)
    parser.add_argument("--print-only", action="store_true",
                        help="print the section instead of writing it")
    args = parser.parse_args()
    start = time.perf_counter()
    rows = run(args.runs)
    section = table(rows, args.runs, time.perf_counter() - start)
    if args.print_only:
        print(section)
    else:
        write(section, ROOT / "bench" / "RESULTS.md")
        print("written into bench/RESULTS.md")


if __name__ == "__main__":
    main()
