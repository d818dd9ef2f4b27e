"""The Python package against SciPy and NumPy, which serve as the reference:
answers by their backward error computed here, inertia by eigenvalue
counts, refusals by the codes the caller sees."""

import doctest
import os
import pathlib
import runpy
import warnings

import numpy as np
import pytest
import scipy.io
import scipy.sparse as sp
import scipy.sparse.linalg as spla

import velmora
import velmora._solver

ROOT = pathlib.Path(__file__).resolve().parents[2]
MATRICES = pathlib.Path(os.environ.get("VELMORA_MATRIX_DIR",
                                       ROOT / ".." / "shared" / "matrices"))


def berr(A, x, b):
    x, b = x.reshape(len(b), -1), b.reshape(len(b), -1)
    anorm = abs(A).sum(axis=1).max()
    return (np.abs(b - A @ x).max(axis=0)
            / (anorm * np.abs(x).max(axis=0) + np.abs(b).max(axis=0))).max()


def laplacian(g, shift=0.0):
    L = sp.diags([-1, 2, -1], [-1, 0, 1], shape=(g, g))
    I = sp.eye(g)
    return (sp.kron(I, L) + sp.kron(L, I) - shift * sp.eye(g * g)).tocsr()


def convection(g):
    T = sp.diags([-1.3, 4.5, -0.7], [-1, 0, 1], shape=(g, g))
    V = sp.diags([-1.1, 0, -0.9], [-1, 0, 1], shape=(g, g))
    return (sp.kron(sp.eye(g), T) + sp.kron(V, sp.eye(g))).tocsr()


@pytest.mark.parametrize("path", sorted(MATRICES.glob("*.mtx")),
                         ids=lambda p: p.name)
def test_matrix_folder_against_scipy(path):
    with open(path, "rb") as f:  # mmread loops forever without a size line
        if not any(line.strip() and not line.startswith(b"%") for line in f):
            pytest.skip("no size line")
    try:
        A = sp.csr_matrix(scipy.io.mmread(str(path)))
    except Exception as exc:  # broken files are the reader's business
        pytest.skip("mmread refuses it: %s" % exc)
    if A.shape[0] != A.shape[1] or A.shape[0] == 0:
        pytest.skip("not a square system")
    rng = np.random.default_rng(7)
    b = A @ rng.standard_normal(A.shape[0])
    if np.iscomplexobj(A.data):
        b = b + 1j * (A @ rng.standard_normal(A.shape[0]))
    with warnings.catch_warnings():
        warnings.simplefilter("error")
        try:
            ref = spla.spsolve(A.tocsc(), b)
        except (Warning, RuntimeError) as exc:
            pytest.skip("SciPy does not take it: %s" % exc)
        if not np.isfinite(ref).all():
            pytest.skip("SciPy does not take it")
        x = velmora.spsolve(A, b)
    assert berr(A, x, b) < 1e-13


@pytest.mark.parametrize("seed", range(6))
def test_inertia_and_determinant_against_eigenvalues(seed):
    rng = np.random.default_rng(seed)
    n = 12 + 5 * seed
    M = sp.random(n, n, density=0.3, random_state=seed).toarray()
    if seed % 2:
        M = M + 1j * sp.random(n, n, density=0.3, random_state=seed).toarray()
    H = M + M.conj().T - rng.uniform(0.5, 2) * np.eye(n)
    ev = np.linalg.eigvalsh(H)
    with velmora.Solver(sp.csr_matrix(H)) as s:
        assert s.inertia == ((ev > 0).sum(), (ev < 0).sum(), 0)
        assert s.mtype == (-4 if seed % 2 else -2)
        assert s.log_determinant == pytest.approx(np.log(np.abs(ev)).sum())


def test_factorization_reused_for_100_right_hand_sides():
    A = convection(15)
    rng = np.random.default_rng(1)
    B = rng.standard_normal((A.shape[0], 100))
    with velmora.Solver(A, ordering="metis") as s:
        s.factor()
        X = np.column_stack([s.solve(B[:, k]) for k in range(100)])
        assert berr(A, X, B) < 1e-14
        np.testing.assert_allclose(s.solve(B), X, rtol=1e-12, atol=1e-14)
        # new values on the same pattern, the transposed system
        A2 = A.copy()
        A2.data *= rng.uniform(0.5, 2, A2.nnz)
        s.factor(A2)
        assert berr(A2, s.solve(B[:, 0]), B[:, 0]) < 1e-14
        assert berr(A2.T, s.solve(B[:, :3], transpose=True), B[:, :3]) < 1e-14
        with pytest.raises(velmora.VelmoraError) as err:
            s.factor(A2 + sp.eye(A2.shape[0], k=3))
        assert err.value.code == -1


def test_right_hand_sides_of_every_kind():
    A = convection(6)
    C = A + 0.5j * sp.eye(A.shape[0])
    b = np.arange(A.shape[0], dtype=float)
    for M, rhs in [(A, b + 2j * b), (C, b), (C.T @ C, np.float32(b)),
                   (A.T @ A, sp.csc_matrix(b[:, None]))]:
        x = velmora.spsolve(M, rhs)
        dense = rhs.toarray() if sp.issparse(rhs) else rhs
        assert berr(M, x, np.asarray(dense)) < 1e-14


def test_accuracy_policy_reaches_the_target():
    # A shifted Laplacian with an eigenvalue 1e-12 from the shift: tiny
    # pivots perturbed, refinement stalls, the Krylov stage finishes.
    A = laplacian(20)
    A = A - (np.linalg.eigvalsh(A.toarray())[37] + 1e-12) * sp.eye(400)
    b = np.random.default_rng(3).standard_normal(400)
    with velmora.Solver(A) as s:
        plain = s.solve(b, target=0)
        x = s.solve(b)
        assert berr(A, plain, b) > 1e-13 and s.accuracy.first > 1e-14
        assert berr(A, x, b) < 1e-14 and s.accuracy.reached
    singular = laplacian(4) - 2 * sp.eye(16)  # not singular enough to refuse
    singular = singular.tolil()
    singular[1] = singular[0]
    with pytest.warns(velmora.AccuracyWarning):
        velmora.spsolve(singular.tocsr(), np.arange(16.0))


def test_preconditioner_for_scipy_gmres():
    A = convection(12)
    b = np.ones(A.shape[0])
    with velmora.Solver(A) as s:
        M = s.as_linear_operator()
        x, info = spla.gmres(A, b, M=M, tol=1e-12, atol=0, maxiter=5)
        assert info == 0 and berr(A, x, b) < 1e-13


def _bad_csr():
    A = laplacian(3)
    A.indices[4] = 9
    return A


def _bad_coo():
    A = sp.coo_matrix(laplacian(3))
    A.row[0] = -1
    return A


@pytest.mark.parametrize("A, b, code, check", [
    (sp.random(4, 5, density=0.5, random_state=0), np.ones(4), -1, 10),
    (sp.eye(4, dtype=object), np.ones(4), -1, 10),
    (np.array([["a", "b"], ["c", "d"]]), np.ones(2), -1, 10),
    (laplacian(3), np.array(["x"] * 9), -1, 10),
    (laplacian(3) * np.nan, np.ones(9), -1, 300),
    (laplacian(3), np.r_[np.ones(8), np.inf], -1, 301),
    (_bad_csr(), np.ones(9), -1, 101),
    (_bad_coo(), np.ones(9), -1, 101),
    (laplacian(3), np.ones(8), -1, 0),
    (sp.csr_matrix(np.array([[1., 2], [0, 0]])), np.ones(2), -6, 0),
], ids=["non-square", "object", "strings", "rhs-strings", "nan", "inf",
        "csr-index", "coo-index", "rhs-length", "empty-row"])
def test_bad_input_raises_with_codes(A, b, code, check):
    kept = [np.array(v, copy=True) for v in
            (getattr(A, "data", A), getattr(A, "indices", 0), b)]
    with pytest.raises(velmora.VelmoraError) as err:
        velmora.spsolve(A, b)
    assert (err.value.code, err.value.check) == (code, check)
    for old, new in zip(kept, (getattr(A, "data", A),
                               getattr(A, "indices", 0), b)):
        np.testing.assert_array_equal(old, new)  # the caller's data intact


def test_library_codes_and_closed_handles():
    with pytest.raises(velmora.VelmoraError) as err:  # the library refuses
        velmora.spsolve(convection(4), np.ones(16), ordering=9)
    assert err.value.code == -7 and err.value.phase == 11
    zero = sp.csr_matrix(([1.0, 0, 3], [0, 1, 2], [0, 1, 2, 3]))
    with pytest.raises(velmora.VelmoraError) as err:  # zero on a diagonal
        velmora.spsolve(zero, np.ones(3))
    assert err.value.row == 2
    s = velmora.Solver(laplacian(3))
    s.close()
    s.close()
    with pytest.raises(velmora.VelmoraError):
        s.solve(np.ones(9))


def test_handles_are_released():
    A, b = laplacian(16), np.ones(256)

    def cycles(count):
        for k in range(count):
            s = velmora.Solver(A, threads=1)
            s.solve(b)
            if k % 3 == 0:
                s.close()
            elif k % 3 == 1:
                with s:
                    s.solve(b)
            del s  # the third: left to the finalizer

    def resident_kb():
        with open("/proc/self/statm") as f:
            pages = int(f.read().split()[1])
        return pages * os.sysconf("SC_PAGE_SIZE") // 1024

    cycles(50)
    before = resident_kb()
    cycles(1000)
    assert resident_kb() - before < 16000  # 1000 handles kept: 64 MB


def test_doctests_and_examples(capsys):
    for module in (velmora, velmora._solver):
        assert doctest.testmod(module).failed == 0
    for path in sorted((ROOT / "examples" / "python").glob("*.py")):
        runpy.run_path(str(path), run_name="__main__")
    out = capsys.readouterr().out
    assert "inertia (400, 100, 0)" in out and "after new values" in out
