"""Valid calls of any shape (empty extents included) and memory order give NumPy's answer."""
import numpy as np
import pytest
from hypothesis import given, settings, strategies as st

import quillmark as qm

from conftest import SANITIZED, arrange

DTYPES = [np.float32, np.float64, np.complex64, np.complex128]


def well_conditioned(a):
    return a + (2 * len(a) + 1) * np.eye(len(a), dtype=a.dtype)


def hermitian(a):
    return ((a + a.conj().T) / 2).astype(a.dtype)


# name: (arguments from shapes (m, k, n), quillmark call, NumPy reference)
CASES = {
    "matmul": (lambda m, k, n: [(m, k), (k, n)], qm.matmul, np.matmul),
    "matvec": (lambda m, k, n: [(m, k), (k,)], qm.matmul, np.matmul),
    "add": (lambda m, k, n: [(m, k), (m, k)], qm.add, np.add),
    "kron": (lambda m, k, n: [(m, k), (n, 2)], qm.kron, np.kron),
    "transpose": (lambda m, k, n: [(m, k)], qm.transpose, np.transpose),
    "norm": (lambda m, k, n: [(m, k)], qm.norm, lambda a: np.linalg.norm(a.ravel())),
    "solve": (lambda m, k, n: [(m, m), (m,)], lambda a, b: qm.solve(well_conditioned(a), b),
              lambda a, b: np.linalg.solve(well_conditioned(a), b) if len(b) else b),
    "eigvalsh": (lambda m, k, n: [(m, m)], lambda a: qm.eigvalsh(hermitian(a)),
                 lambda a: np.linalg.eigvalsh(hermitian(a))),
    "slogdet": (lambda m, k, n: [(m, m)], lambda a: qm.slogdet(well_conditioned(a)).logabsdet,
                lambda a: np.linalg.slogdet(well_conditioned(a))[1]),
}


@pytest.mark.parametrize("name", sorted(CASES))
@settings(max_examples=20 if SANITIZED else 60, deadline=None)
@given(dims=st.tuples(*[st.integers(0, 5)] * 3), dtype=st.sampled_from(DTYPES), seed=st.integers(0, 2**32 - 1),
       orders=st.lists(st.sampled_from(["C", "F", "strided", "reversed"]), min_size=2, max_size=2))
def test_any_shape_and_layout_matches_numpy(name, dims, dtype, seed, orders):
    shapes, ours, theirs = CASES[name]
    rng = np.random.default_rng(seed)
    args = []
    for shape, order in zip(shapes(*dims), orders):
        a = rng.standard_normal(shape) + (1j * rng.standard_normal(shape) if np.dtype(dtype).kind == "c" else 0)
        args.append(arrange(a.astype(dtype), order))
    got, want = np.asarray(ours(*args)), np.asarray(theirs(*args))
    tol = 1e-3 if dtype in (np.float32, np.complex64) else 1e-10
    assert got.shape == want.shape
    np.testing.assert_allclose(got, want, rtol=tol, atol=tol * max(1.0, float(np.abs(want).max(initial=0))))
