"""The NumPy-style functions against NumPy on the inputs NumPy users pass."""
import ast
import inspect
import itertools
import pathlib
import threading
from concurrent.futures import ThreadPoolExecutor

import numpy as np
import pytest

import quillmark as qm
from quillmark import _api

from conftest import arrange

RNG = np.random.default_rng(5)
A = RNG.standard_normal((5, 5))
B = RNG.standard_normal((5, 5))
X = RNG.standard_normal(5)
Y = RNG.standard_normal(5)
H = A @ A.T + 5 * np.eye(5)

# name -> (call, reference, arguments); every argument is a 1-D or 2-D float64 array.
CASES = {
    "sqrt": (qm.sqrt, np.sqrt, (np.abs(X),)),
    "conjugate": (qm.conjugate, np.conj, (X,)),
    "add": (qm.add, np.add, (X, Y)),
    "subtract": (qm.subtract, np.subtract, (A, B)),
    "multiply": (qm.multiply, np.multiply, (X, Y)),
    "sum": (qm.sum, np.sum, (A,)),
    "norm": (qm.norm, np.linalg.norm, (X,)),
    "transpose": (qm.transpose, np.transpose, (A,)),
    "adjoint": (qm.adjoint, lambda a: a.conj().T, (A,)),
    "matmul": (qm.matmul, np.matmul, (A, B)),
    "matmul-vector": (qm.matmul, np.matmul, (A, X)),
    "matvec": (qm.matvec, np.matmul, (A, X)),
    "kron": (qm.kron, np.kron, (A[:2], B[:, :3])),
    "inner": (qm.inner, np.vdot, (X, Y)),
    "outer": (qm.outer, np.outer, (X, Y[:3])),
    "trace": (qm.trace, np.trace, (A[:, :4],)),
    "solve": (qm.solve, np.linalg.solve, (A, X)),
    "solve-columns": (qm.solve, np.linalg.solve, (A, B[:, :3])),
    "eigvalsh": (qm.eigvalsh, np.linalg.eigvalsh, (H,)),
    "logdet_positive_definite": (qm.logdet_positive_definite, lambda a: np.linalg.slogdet(a)[1], (H,)),
    "slogdet": (lambda a: tuple(qm.slogdet(a)), lambda a: tuple(np.linalg.slogdet(a)), (A,)),
    "logdet": (lambda a: np.exp(qm.logdet(a)).real, np.linalg.det, (A,)),
    "matrix_power": (lambda a: qm.matrix_power(a, 3), lambda a: np.linalg.matrix_power(a, 3), (A,)),
    "scale": (lambda x: qm.scale(x, 2.5), lambda x: 2.5 * x, (X,)),
    "divide": (lambda x: qm.divide(x, 4), lambda x: x / 4, (X,)),
    "partial_trace_left": (lambda a: qm.partial_trace_left(a, 2),
                           lambda a: a[:2, :2] + a[2:, 2:], (A[:4, :4],)),
    "partial_trace_right": (lambda a: qm.partial_trace_right(a, 2),
                            lambda a: a.reshape(2, 2, 2, 2).trace(axis1=1, axis2=3), (A[:4, :4],)),
    "eigh": (lambda a: qm.eigh(a).eigenvalues, np.linalg.eigvalsh, (H,)),
    "principal_eigenvector": (lambda a: abs(qm.principal_eigenvector(a)),
                              lambda a: abs(np.linalg.eigh(a)[1][:, -1]), (H,)),
}


class Producer:
    """Exposes an array through the DLPack protocol only."""
    def __init__(self, a):
        self.__dlpack__, self.__dlpack_device__ = a.__dlpack__, a.__dlpack_device__


def variants(args):
    """The same values as NumPy users hand them over."""
    yield "ndarray", args
    yield "list", tuple(a.tolist() for a in args)
    for order in ("F", "strided", "reversed"):
        yield order, tuple(arrange(a, order) for a in args)
    yield "big-endian", tuple(a.astype(">f8") for a in args)
    yield "int64", tuple(np.round(a * 4).astype(np.int64) for a in args)
    yield "dlpack", tuple(Producer(a) for a in args)


@pytest.mark.parametrize("name", sorted(CASES))
def test_functions_match_numpy_on_any_array_like(name):
    call, reference, args = CASES[name]
    for label, given in variants(args):
        if label == "int64" and name in ("sqrt", "eigvalsh", "logdet_positive_definite", "eigh",
                                         "principal_eigenvector"):
            continue  # rounding breaks positivity; integer coverage comes from the others
        want = reference(*(np.asarray(a, np.float64) for a in (args if label == "dlpack" else given)))
        arrays = [a for a in given if isinstance(a, np.ndarray)]
        before = [a.copy() for a in arrays]
        got = call(*given)
        assert all(np.array_equal(a, b) for a, b in zip(arrays, before)), f"{label}: an input was written"
        np.testing.assert_allclose(np.asarray(got, np.float64), np.asarray(want, np.float64),
                                   rtol=1e-9, atol=1e-9, err_msg=label)


@pytest.mark.parametrize("name", sorted(n for n in CASES if len(CASES[n][2]) == 2))
def test_mixed_dtype_arguments_promote(name):
    call, reference, (first, second) = CASES[name]
    got = call(first.astype(np.float32), second.astype(np.complex64))
    assert np.asarray(got).dtype == np.complex64
    want = reference(first, second.astype(np.complex128))
    np.testing.assert_allclose(got, want, rtol=2e-4, atol=2e-4)


@pytest.mark.parametrize("first,second,expected", [
    (np.float32, np.float64, np.float64),
    (np.float32, np.complex64, np.complex64),
    (np.float64, np.complex64, np.complex128),
    (np.int32, np.int32, np.int32),       # add serves int32 itself
    (np.int64, np.int64, np.float64),     # no int64 kernels: widened to float64
    (np.int32, np.float32, np.float64),   # NumPy's own promotion
    (np.float16, np.float32, np.float32),
])
def test_mixed_dtypes_follow_numpy_promotion(first, second, expected):
    x, y = np.arange(1, 4).astype(first), np.arange(4, 7).astype(second)
    got = qm.add(x, y)
    assert got.dtype == expected
    np.testing.assert_array_equal(got, (x + y).astype(expected))


def test_python_scalars_do_not_widen():
    x = np.arange(4, dtype=np.float32)
    assert qm.scale(x, 2.5).dtype == np.float32
    assert qm.multiply(x, 2).dtype == np.float32
    assert qm.add([1, 2], 0.5).dtype == np.float64


@pytest.mark.parametrize("dtype", ["bfloat16", "float16", "complex32"])
def test_low_precision_storage(dtype):
    x = qm.eye(3, dtype=dtype)
    y = qm.add(x, x)
    assert y.dtype == _api.numpy_dtype(dtype)
    wide = qm.from_complex32(y) if dtype == "complex32" else y.astype(np.float32)
    np.testing.assert_array_equal(wide, 2 * np.eye(3))
    # complex32 promotes with a wider dtype as complex64 would
    if dtype == "complex32":
        assert qm.add(x, np.eye(3)).dtype == np.complex128


# The exact result array, or one that receives a cast copy.
@pytest.mark.parametrize("out", [np.empty((5, 5)), np.empty((5, 5), np.complex128), np.empty((5, 5), order="F"),
                                 np.empty((5, 10))[:, ::2]])
def test_out_is_written_and_returned(out):
    assert qm.matmul(A, B, out=out) is out
    np.testing.assert_allclose(out, A @ B)


def test_out_in_place_and_into_scalars():
    z = X + 1j * Y
    assert qm.conjugate(z, out=z) is z
    np.testing.assert_array_equal(z, X - 1j * Y)
    s = np.zeros(())
    qm.sum(X, out=s)
    assert s == pytest.approx(X.sum())
    out = np.empty((5, 2))
    assert qm.solve(qm.lu_factor(A), B[:, :2], out=out) is out
    np.testing.assert_allclose(A @ out, B[:, :2], atol=1e-12)


def test_named_results():
    w, v = res = qm.eigh(H)
    assert res.eigenvalues is w and res.eigenvectors is v
    np.testing.assert_allclose(H @ v, v * w, atol=1e-10)

    sign, logabs = res = qm.slogdet(A)
    assert (res.sign, res.logabsdet) == (sign, logabs)

    res = qm.eig(A)
    assert res.eigenvalues.dtype == np.complex128
    np.testing.assert_allclose(A @ res.eigenvectors, res.eigenvectors * res.eigenvalues, atol=1e-10)
    assert qm.eig(A.astype(np.float32)).eigenvalues.dtype == np.complex64


def test_lu_factor_serves_solve_and_logdet():
    lu = qm.lu_factor(A)
    np.testing.assert_allclose(A @ qm.solve(lu, X), X, atol=1e-12)
    np.testing.assert_allclose(np.exp(qm.logdet(lu)), np.linalg.det(A))
    with pytest.raises(qm.NativeError) as info:
        qm.lu_factor(np.zeros((3, 3)))
    assert info.value.reason == "singular"


# Dtype refusals name the request and what is served; shape faults say what is wrong.
@pytest.mark.parametrize("call, error, fragments", [
    (lambda: qm.sqrt([1.0], dtype="int32"), TypeError, ["quillmark.sqrt", "int32", "float64", "bfloat16"]),
    (lambda: qm.eigh(np.eye(2, dtype=object)), TypeError, ["quillmark.eigh", "object", "complex128"]),
    (lambda: qm.matmul(np.array([["a"]]), np.eye(1)), TypeError, ["quillmark.matmul", "str", "float64"]),
    (lambda: qm.add(np.ones(2, np.longdouble), [1, 2]), TypeError, ["float128", "contiguous (2,)", "float32"]),
    (lambda: qm.matmul(A, B, dtype="float32", compute_dtype="float64"), ValueError, ["uncompiled"]),
    (lambda: qm.add([1.0, 2.0], [1.0, 2.0, 3.0]), ValueError, ["broadcast"]),
    (lambda: qm.matmul(np.ones((2, 3)), np.ones((2, 3))), ValueError, ["inner dimensions"]),
    (lambda: qm.eigh(np.ones((2, 3))), ValueError, ["square"]),
    (lambda: qm.scale([1.0], [1.0, 2.0]), ValueError, ["scalar"]),
    (lambda: qm.matrix_power(np.eye(2), -1), ValueError, ["non-negative"]),
    (lambda: qm.trace(np.ones(3)), ValueError, ["two dimensions"]),
    (lambda: qm.add(X, Y, out=np.empty(4)), ValueError, ["shape"]),
])
def test_refusals_name_the_fault(call, error, fragments):
    with pytest.raises(error) as info:
        call()
    assert all(fragment in str(info.value) for fragment in fragments), str(info.value)


def test_compute_dtype_and_dtype_choose_the_policy():
    half = qm.matmul(A, B, dtype="float16", compute_dtype="float32")
    assert half.dtype == np.float16
    np.testing.assert_allclose(half, A @ B, rtol=2e-2, atol=5e-2)


def test_explicit_context_is_used():
    ctx = qm.Context(thread_count=1)
    np.testing.assert_allclose(qm.matmul(A, B, context=ctx), A @ B)
    assert qm.is_unitary(np.eye(3), context=ctx) is True


def test_default_context_is_made_once_across_threads(monkeypatch):
    monkeypatch.setattr(_api, "_default_context", None)
    barrier = threading.Barrier(8)

    def worker(i):
        barrier.wait()
        context, a = qm.default_context(), np.tile(A + i, (8, 8))
        return context, all(np.allclose(qm.matmul(a, a), a @ a, rtol=1e-10, atol=1e-10) for _ in range(20))

    with ThreadPoolExecutor(8) as pool:
        results = list(pool.map(worker, range(8)))
    assert all(context is results[0][0] and good for context, good in results)


def test_every_operation_has_a_function_and_a_description():
    described = {qm.describe(name)["id"] for name in ("solve", "quillmark.solve", "quillmark.solve@1")}
    assert described == {"quillmark.solve@1"}
    for op in qm.operations():
        short = op.split(".", 1)[1].split("@")[0]
        assert callable(getattr(qm, short)), short
        assert getattr(qm, short).__doc__ and ">>>" in getattr(qm, short).__doc__


def test_stubs_match_the_functions():
    stub = pathlib.Path(qm._functions.__file__).with_suffix(".pyi")
    stubbed = {node.name: node.args for node in ast.parse(stub.read_text()).body if isinstance(node, ast.FunctionDef)}
    for name, function in inspect.getmembers(qm._functions, inspect.isfunction):
        if name.startswith("_") or function.__module__ != "quillmark._functions" or function.__name__ != name:
            continue  # private, imported, or an alias (aliases are assignments in the stub)
        params, args = inspect.signature(getattr(qm, name)).parameters.values(), stubbed[name]
        assert [(p.name, p.kind == p.KEYWORD_ONLY) for p in params] == \
            [(a.arg, a in args.kwonlyargs) for a in args.posonlyargs + args.args + args.kwonlyargs], name


PROMOTABLE = ["bool", "int8", "uint8", "int32", "int64", "float16", "float32", "float64", "complex64", "complex128"]
PAIRS = {
    "add": (lambda x, y: qm.add(x, y.T), lambda x, y: x + y.T),
    "multiply": (lambda x, y: qm.multiply(x, y.T), lambda x, y: x * y.T),
    "matmul": (qm.matmul, np.matmul),
    "kron": (qm.kron, np.kron),
    "trace": (lambda x, y: qm.trace(x), lambda x, y: np.trace(x)),
}


@pytest.mark.parametrize("op", sorted(PAIRS))
def test_every_dtype_pair_computes_what_numpy_computes(op):
    """Whatever NumPy promotes to, the result holds the same values in a dtype at least as
    precise (integers without an int32 kernel and bool arithmetic widen)."""
    call, reference = PAIRS[op]
    for d1, d2 in itertools.product(PROMOTABLE, repeat=2):
        modulus = (2, 2) if "bool" in (d1, d2) else (5, 3)
        x = (np.arange(6).reshape(2, 3) % modulus[0]).astype(d1)
        y = (np.arange(6).reshape(3, 2) % modulus[1]).astype(d2)
        got = np.asarray(call(x, y))
        numpy_dtype = np.result_type(x) if op == "trace" else np.result_type(x, y)
        assert got.dtype.itemsize >= min(numpy_dtype.itemsize, 4), (d1, d2, got.dtype)
        assert (got.dtype.kind == "c") == (numpy_dtype.kind == "c"), (d1, d2, got.dtype)
        want = reference(x.astype(np.complex128), y.astype(np.complex128))
        np.testing.assert_array_equal(got.astype(np.complex128), want, err_msg=f"{d1} {d2}")
