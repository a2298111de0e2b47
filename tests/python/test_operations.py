"""Every built-in operation through Context.execute against NumPy/SciPy references."""
import numpy as np
import pytest
import scipy.linalg

from conftest import FLOATING, TOLERANCE, random_array, real_dtype, run

N = 9


def close(got, want, dtype):
    tol = TOLERANCE[np.dtype(dtype).type]
    np.testing.assert_allclose(got, want, rtol=tol, atol=tol * max(1.0, float(np.max(np.abs(want), initial=0))))


def pd_matrix(rng, n, dtype):
    a = random_array(rng, (n, n), dtype)
    return (a @ a.conj().T + n * np.eye(n)).astype(dtype)


ELEMENTWISE = {
    "quillmark.multiply@1": np.multiply,
    "quillmark.add@1": np.add,
    "quillmark.subtract@1": np.subtract,
}


@pytest.mark.parametrize("dtype", FLOATING)
@pytest.mark.parametrize("operation", sorted(ELEMENTWISE))
def test_binary_vector(ctx, rng, dtype, operation):
    x, y = random_array(rng, 37, dtype), random_array(rng, 37, dtype)
    out = np.zeros(37, dtype)
    assert run(ctx, operation, [x, y], [out]) is out
    close(out, ELEMENTWISE[operation](x, y), dtype)


@pytest.mark.parametrize("dtype", FLOATING)
def test_unary_and_reductions(ctx, rng, dtype):
    x = random_array(rng, 41, dtype)
    if np.dtype(dtype).kind == "f":
        x = np.abs(x)
    out = np.zeros(41, dtype)
    run(ctx, "quillmark.sqrt@1", [x], [out])
    close(out, np.sqrt(x), dtype)

    total = np.zeros((), dtype)
    run(ctx, "quillmark.sum@1", [x], [total])
    close(total, x.sum(), dtype)

    norm = np.zeros((), real_dtype(dtype))
    run(ctx, "quillmark.norm@1", [x], [norm])
    close(norm, np.linalg.norm(x), dtype)

    y = x.copy()
    run(ctx, "quillmark.conjugate@1", [], [y])
    close(y, np.conj(x), dtype)

    s = np.asarray(random_array(rng, (), dtype))
    for operation, want in (("quillmark.scale@1", x * s), ("quillmark.divide@1", x / s)):
        out = np.zeros(41, dtype)
        run(ctx, operation, [x, s], [out])
        close(out, want, dtype)


@pytest.mark.parametrize("dtype", FLOATING)
def test_products(ctx, rng, dtype):
    a, b = random_array(rng, (N, 5), dtype), random_array(rng, (5, 7), dtype)
    out = np.zeros((N, 7), dtype)
    run(ctx, "quillmark.matmul@1", [a, b], [out])
    close(out, a @ b, dtype)

    v = random_array(rng, 5, dtype)
    mv = np.zeros(N, dtype)
    run(ctx, "quillmark.matvec@1", [a, v], [mv])
    close(mv, a @ v, dtype)

    k = np.zeros((N * 5, 5 * 7), dtype)
    run(ctx, "quillmark.kron@1", [a, b], [k])
    close(k, np.kron(a, b), dtype)

    x, y = random_array(rng, 6, dtype), random_array(rng, 4, dtype)
    outer = np.zeros((6, 4), dtype)
    run(ctx, "quillmark.outer@1", [x, y], [outer])
    close(outer, np.outer(x, y), dtype)

    inner = np.zeros((), dtype)
    run(ctx, "quillmark.inner@1", [x, x * 2], [inner])
    close(inner, np.vdot(x, x * 2), dtype)

    for operation, want in (("quillmark.transpose@1", a.T), ("quillmark.adjoint@1", a.conj().T)):
        out = np.zeros((5, N), dtype)
        run(ctx, operation, [a], [out])
        close(out, want, dtype)


@pytest.mark.parametrize("dtype", FLOATING)
def test_traces_power_identity(ctx, rng, dtype):
    x, y = random_array(rng, (2, 2), dtype), random_array(rng, (3, 3), dtype)
    a = np.kron(x, y)
    tr = np.zeros((), dtype)
    run(ctx, "quillmark.trace@1", [a], [tr])
    close(tr, np.trace(a), dtype)
    left, right = np.zeros((3, 3), dtype), np.zeros((2, 2), dtype)
    run(ctx, "quillmark.partial_trace_left@1", [a], [left])
    run(ctx, "quillmark.partial_trace_right@1", [a], [right])
    close(left, np.trace(x) * y, dtype)
    close(right, np.trace(y) * x, dtype)

    m = (random_array(rng, (4, 4), dtype) / 2).astype(dtype)
    for power in (0, 1, 5):
        out = np.zeros((4, 4), dtype)
        run(ctx, "quillmark.matrix_power@1", [m, np.array(power, np.int32)], [out])
        close(out, np.linalg.matrix_power(m.astype(np.complex128), power), dtype)

    eye = np.full((5, 5), 7, dtype)
    run(ctx, "quillmark.eye@1", [], [eye])
    assert np.array_equal(eye, np.eye(5))


@pytest.mark.parametrize("dtype", FLOATING)
def test_predicates(ctx, rng, dtype):
    q, _ = np.linalg.qr(random_array(rng, (6, 6), dtype))
    flag = np.zeros((), bool)
    run(ctx, "quillmark.is_unitary@1", [q.astype(dtype)], [flag])
    assert flag
    run(ctx, "quillmark.is_unitary@1", [random_array(rng, (2, 3), dtype)], [flag])
    assert not flag

    x = random_array(rng, 5, dtype)
    run(ctx, "quillmark.vector_equal@1", [x, x.copy()], [flag])
    assert flag
    run(ctx, "quillmark.vector_equal@1", [x, x[:4].copy()], [flag])
    assert not flag


@pytest.mark.parametrize("dtype", FLOATING)
def test_hermitian_family(ctx, rng, dtype):
    a = pd_matrix(rng, N, dtype)
    values, vectors = np.zeros(N, real_dtype(dtype)), np.zeros((N, N), dtype)
    result = run(ctx, "quillmark.eigh@1", [a], [values, vectors])
    assert isinstance(result, tuple) and result[0] is values and result[1] is vectors
    close(values, np.linalg.eigvalsh(a), dtype)
    close(a @ vectors, vectors * values, dtype)

    only = np.zeros(N, real_dtype(dtype))
    run(ctx, "quillmark.eigvalsh@1", [a], [only])
    close(only, values, dtype)

    logdet = np.zeros((), real_dtype(dtype))
    run(ctx, "quillmark.logdet_positive_definite@1", [a], [logdet])
    close(logdet, np.linalg.slogdet(a)[1], dtype)

    sign, logabs = np.zeros((), dtype), np.zeros((), real_dtype(dtype))
    b = random_array(rng, (N, N), dtype)
    run(ctx, "quillmark.slogdet@1", [b], [sign, logabs])
    want_sign, want_logabs = np.linalg.slogdet(b)
    close(sign, want_sign, dtype)
    close(logabs, want_logabs, dtype)


@pytest.mark.parametrize("dtype", FLOATING)
def test_lu_family(ctx, rng, dtype):
    import quillmark

    a = random_array(rng, (N, N), dtype)
    lu = quillmark.LUOperand(a)
    run(ctx, "quillmark.lu_factor@1", [], [lu])
    p, l, u = scipy.linalg.lu(a)
    assert lu.swaps >= 0 and lu.pivots.min() >= 1
    rhs = random_array(rng, N, dtype)
    x = rhs.copy()
    run(ctx, "quillmark.solve@1", [lu], [x])
    close(a @ x, rhs, dtype)
    logdet = np.zeros((), np.complex64 if np.dtype(dtype) in (np.float32, np.complex64) else np.complex128)
    run(ctx, "quillmark.logdet@1", [lu], [logdet])
    close(np.exp(logdet), np.linalg.det(a), dtype)


@pytest.mark.parametrize("dtype", FLOATING)
def test_general_eigen(ctx, rng, dtype):
    import quillmark

    a = random_array(rng, (N, N), dtype)
    complex_dtype = np.complex64 if np.dtype(dtype) in (np.float32, np.complex64) else np.complex128
    eig = quillmark.EigenOperand(N, np.dtype(complex_dtype).name)
    run(ctx, "quillmark.eig@1", [a], [eig])
    values, vectors = eig.values, eig.vectors
    for i in range(N):
        close(a @ vectors[:, i], values[i] * vectors[:, i], dtype)
        close(np.linalg.norm(vectors[:, i]), 1.0, dtype)

    s = pd_matrix(rng, N, dtype)
    v = np.zeros(N, dtype)
    run(ctx, "quillmark.principal_eigenvector@1", [s], [v])
    w, vecs = np.linalg.eigh(s)
    close(abs(np.vdot(vecs[:, -1], v)), 1.0, dtype)


LOW_PRECISION = ["bfloat16", "float16", "complex32"]


def low_precision_array(rng, shape, name):
    import ml_dtypes
    from quillmark._dtypes import complex32, to_complex32

    if name == "complex32":
        return to_complex32(rng.standard_normal(shape) + 1j * rng.standard_normal(shape))
    dtype = ml_dtypes.bfloat16 if name == "bfloat16" else np.float16
    return rng.standard_normal(shape).astype(dtype)


def widen(a):
    from quillmark._dtypes import complex32, from_complex32

    return from_complex32(a) if a.dtype == complex32 else a.astype(np.float32)


def rounded(values, like):
    from quillmark._dtypes import complex32, to_complex32

    return to_complex32(values) if like.dtype == complex32 else np.asarray(values).astype(like.dtype)


@pytest.mark.parametrize("name", LOW_PRECISION)
def test_low_precision_rounds_once(ctx, rng, name):
    x, y = low_precision_array(rng, 33, name), low_precision_array(rng, 33, name)
    out = np.zeros_like(x)
    run(ctx, "quillmark.add@1", [x, y], [out])
    np.testing.assert_array_equal(widen(out), widen(rounded(widen(x) + widen(y), x)))

    a, b = low_precision_array(rng, (6, 5), name), low_precision_array(rng, (5, 4), name)
    prod = np.zeros_like(a, shape=(6, 4))
    run(ctx, "quillmark.matmul@1", [a, b], [prod])
    want = widen(rounded(widen(a).astype(np.result_type(widen(a), np.float64)) @ widen(b), a))
    np.testing.assert_allclose(widen(prod), want, rtol=1e-2, atol=1e-2)

    m = low_precision_array(rng, (5, 5), name)
    h = rounded(widen(m) + widen(m).conj().T, m)
    values = np.zeros(5, np.float16 if name != "bfloat16" else h.dtype)
    run(ctx, "quillmark.eigvalsh@1", [h], [values])
    np.testing.assert_allclose(values.astype(np.float64), np.linalg.eigvalsh(widen(h)), rtol=2e-2, atol=2e-2)


def test_int32_wraps(ctx):
    big = np.array([2**31 - 1, -(2**31), 7], np.int32)
    out = np.zeros(3, np.int32)
    run(ctx, "quillmark.add@1", [big, np.array([1, -1, 1], np.int32)], [out])
    assert out.tolist() == [-(2**31), 2**31 - 1, 8]

    a = np.arange(12, dtype=np.int32).reshape(3, 4)
    prod = np.zeros((3, 3), np.int32)
    run(ctx, "quillmark.matmul@1", [a, a.T.copy()], [prod])
    assert np.array_equal(prod, a @ a.T)
    total = np.zeros((), np.int32)
    run(ctx, "quillmark.trace@1", [a], [total])
    assert total == np.trace(a)
    flag = np.zeros((), bool)
    run(ctx, "quillmark.vector_equal@1", [big, big.copy()], [flag])
    assert flag
