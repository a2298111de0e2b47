"""Every built-in operation through Context.execute against NumPy/SciPy references."""
import ml_dtypes
import numpy as np
import pytest

import quillmark
from conftest import FLOATING, TOLERANCE, positive_definite, random_array, real_dtype, run
from quillmark._dtypes import complex32, from_complex32, to_complex32

N = 9


def close(got, want, dtype):
    if got.dtype == bool:
        assert got == want
        return
    tol = TOLERANCE[np.dtype(dtype).type]
    np.testing.assert_allclose(got, want, rtol=tol, atol=tol * max(1.0, float(np.max(np.abs(want), initial=0))))


def complex_of(dtype):
    return np.complex64 if np.dtype(dtype) in (np.float32, np.complex64) else np.complex128


def direct_cases(rng, dtype):
    """operation -> (inputs, outputs, NumPy answers per output) for operations with a direct reference."""
    def r(*shape):
        return random_array(rng, shape, dtype)

    def z(*shape, kind=dtype):
        return np.zeros(shape, kind)

    real = real_dtype(dtype)
    x, y, a, b, v = r(37), r(37), r(N, 5), r(5, 7), r(5)
    positive = np.abs(x) if np.dtype(dtype).kind == "f" else x
    s = np.asarray(r())
    kx, ky = r(2, 2), r(3, 3)
    m = (r(4, 4) / 2).astype(dtype)
    h, g = positive_definite(rng, N, dtype), r(N, N)
    sign, logabs = np.linalg.slogdet(g)
    q = np.linalg.qr(r(6, 6))[0].astype(dtype)
    cases = {
        # Flags start at the opposite answer, so a kernel that writes only one answer is caught.
        "is_unitary": ([q], [np.zeros((), bool)], [True]),
        "is_unitary rectangular": ([r(2, 3)], [np.ones((), bool)], [False]),
        "vector_equal": ([x, x.copy()], [np.zeros((), bool)], [True]),
        "vector_equal lengths": ([x, x[:4].copy()], [np.ones((), bool)], [False]),
        "multiply": ([x, y], [z(37)], [x * y]),
        "add": ([x, y], [z(37)], [x + y]),
        "subtract": ([x, y], [z(37)], [x - y]),
        "sqrt": ([positive], [z(37)], [np.sqrt(positive)]),
        "sum": ([x], [z()], [x.sum()]),
        "norm": ([x], [z(kind=real)], [np.linalg.norm(x)]),
        "conjugate": ([], [x.copy()], [np.conj(x)]),  # in place
        "scale": ([x, s], [z(37)], [x * s]),
        "divide": ([x, s], [z(37)], [x / s]),
        "matmul": ([a, b], [z(N, 7)], [a @ b]),
        "matvec": ([a, v], [z(N)], [a @ v]),
        "kron": ([a, b], [z(N * 5, 35)], [np.kron(a, b)]),
        "outer": ([x[:6], y[:4]], [z(6, 4)], [np.outer(x[:6], y[:4])]),
        "inner": ([x, 2 * x], [z()], [np.vdot(x, 2 * x)]),
        "transpose": ([a], [z(5, N)], [a.T]),
        "adjoint": ([a], [z(5, N)], [a.conj().T]),
        "trace": ([np.kron(kx, ky)], [z()], [np.trace(kx) * np.trace(ky)]),
        "partial_trace_left": ([np.kron(kx, ky)], [z(3, 3)], [np.trace(kx) * ky]),
        "partial_trace_right": ([np.kron(kx, ky)], [z(2, 2)], [np.trace(ky) * kx]),
        "eye": ([], [np.full((5, 5), 7, dtype)], [np.eye(5)]),
        "eigvalsh": ([h], [z(N, kind=real)], [np.linalg.eigvalsh(h)]),
        "logdet_positive_definite": ([h], [z(kind=real)], [np.linalg.slogdet(h)[1]]),
        "slogdet": ([g], [z(), z(kind=real)], [sign, logabs]),
    }
    for power in (0, 1, 5):
        cases[f"matrix_power {power}"] = ([m, np.array(power, np.int32)], [z(4, 4)],
                                          [np.linalg.matrix_power(m.astype(np.complex128), power)])
    return cases


DIRECT = sorted(direct_cases(np.random.default_rng(0), np.float64))


@pytest.mark.parametrize("dtype", FLOATING)
@pytest.mark.parametrize("case", DIRECT)
def test_direct_references(ctx, rng, dtype, case):
    inputs, outputs, wants = direct_cases(rng, dtype)[case]
    result = run(ctx, f"quillmark.{case.split()[0]}@1", inputs, outputs)
    if len(outputs) == 1:
        assert result is outputs[0]
    else:  # a tuple of the bound objects themselves
        assert isinstance(result, tuple) and [id(r) for r in result] == [id(o) for o in outputs]
    for got, want in zip(outputs, wants):
        close(got, want, dtype)


@pytest.mark.parametrize("dtype", FLOATING)
def test_eigen_pairs(ctx, rng, dtype):
    a = positive_definite(rng, N, dtype)
    values, vectors = run(ctx, "quillmark.eigh@1", [a], [np.zeros(N, real_dtype(dtype)), np.zeros((N, N), dtype)])
    close(values, np.linalg.eigvalsh(a), dtype)
    close(a @ vectors, vectors * values, dtype)
    v = run(ctx, "quillmark.principal_eigenvector@1", [a], [np.zeros(N, dtype)])
    close(abs(np.vdot(np.linalg.eigh(a)[1][:, -1], v)), 1.0, dtype)

    g = random_array(rng, (N, N), dtype)
    eig = run(ctx, "quillmark.eig@1", [g], [quillmark.EigenOperand(N, np.dtype(complex_of(dtype)).name)])
    close(g @ eig.vectors, eig.vectors * eig.values, dtype)
    close(np.linalg.norm(eig.vectors, axis=0), np.ones(N), dtype)


@pytest.mark.parametrize("dtype", FLOATING)
def test_lu_family(ctx, rng, dtype):
    a = random_array(rng, (N, N), dtype)
    lu = run(ctx, "quillmark.lu_factor@1", [], [quillmark.LUOperand(a)])
    assert lu.swaps >= 0 and lu.pivots.min() >= 1
    rhs = random_array(rng, N, dtype)
    close(a @ run(ctx, "quillmark.solve@1", [lu], [rhs.copy()]), rhs, dtype)
    logdet = run(ctx, "quillmark.logdet@1", [lu], [np.zeros((), complex_of(dtype))])
    close(np.exp(logdet), np.linalg.det(a), dtype)


def low_precision_array(rng, shape, name):
    if name == "complex32":
        return to_complex32(rng.standard_normal(shape) + 1j * rng.standard_normal(shape))
    return rng.standard_normal(shape).astype(ml_dtypes.bfloat16 if name == "bfloat16" else np.float16)


def widen(a):
    return from_complex32(a) if a.dtype == complex32 else a.astype(np.float32)


def rounded(values, like):
    return to_complex32(values) if like.dtype == complex32 else np.asarray(values).astype(like.dtype)


@pytest.mark.parametrize("name", ["bfloat16", "float16", "complex32"])
def test_low_precision_rounds_once(ctx, rng, name):
    x, y = low_precision_array(rng, 33, name), low_precision_array(rng, 33, name)
    out = run(ctx, "quillmark.add@1", [x, y], [np.zeros_like(x)])
    np.testing.assert_array_equal(widen(out), widen(rounded(widen(x) + widen(y), x)))

    a, b = low_precision_array(rng, (6, 5), name), low_precision_array(rng, (5, 4), name)
    prod = run(ctx, "quillmark.matmul@1", [a, b], [np.zeros_like(a, shape=(6, 4))])
    want = widen(rounded(widen(a).astype(np.result_type(widen(a), np.float64)) @ widen(b), a))
    np.testing.assert_allclose(widen(prod), want, rtol=1e-2, atol=1e-2)

    m = low_precision_array(rng, (5, 5), name)
    h = rounded(widen(m) + widen(m).conj().T, m)
    values = run(ctx, "quillmark.eigvalsh@1", [h], [np.zeros(5, np.float16 if name != "bfloat16" else h.dtype)])
    np.testing.assert_allclose(values.astype(np.float64), np.linalg.eigvalsh(widen(h)), rtol=2e-2, atol=2e-2)


def test_int32_wraps(ctx):
    big = np.array([2**31 - 1, -(2**31), 7], np.int32)
    a = np.arange(12, dtype=np.int32).reshape(3, 4)
    for operation, inputs, out, want in [
            ("add", [big, np.array([1, -1, 1], np.int32)], np.zeros(3, np.int32), [-(2**31), 2**31 - 1, 8]),
            ("matmul", [a, a.T.copy()], np.zeros((3, 3), np.int32), a @ a.T),
            ("trace", [a], np.zeros((), np.int32), np.trace(a)),
            ("vector_equal", [big, big.copy()], np.zeros((), bool), True)]:
        np.testing.assert_array_equal(run(ctx, f"quillmark.{operation}@1", inputs, [out]), want, err_msg=operation)
