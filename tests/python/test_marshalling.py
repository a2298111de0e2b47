"""Context.execute: the checks on bindings, zero-copy marshalling, results and threads."""
from concurrent.futures import ThreadPoolExecutor

import ml_dtypes
import numpy as np
import pytest

from quillmark import _native
from quillmark._dtypes import complex32

from conftest import misaligned, run

HOST2 = {"Input0": "host", "Output0": "host"}
BF16 = ml_dtypes.bfloat16
LOW_PRECISION = "low-precision binding requires aligned, native-endian contiguous storage and writable output"


def vec(n=3, dtype=np.float32):
    return np.arange(1, n + 1, dtype=dtype)


def read_only(a):
    a.flags.writeable = False
    return a


def unary(a=None, out=None):
    return {"Input0": vec() if a is None else a, "Output0": vec() if out is None else out}


X = "Context.execute - "
# Each case: operation (a bare name is a built-in one), bindings, the exact message, then locations
# (default: all on the host), compute dtypes and the error type where they differ from the usual.
REFUSED = [
    ("add", {"Input0": vec(), "Input1": vec(), "Output0": vec(), "Output1": vec()},
     X + "binding count does not match operation", {"Input0": "host", "Input1": "host", "Output0": "host"}),
    ("add", {"Input0": vec(), "Input1": vec(), "Output0": vec()}, X + "binding count does not match operation", HOST2),
    ("sqrt", unary(), X + "compute dtype role has no binding", None, {"Input1": "float32"}),
    ("add", {"Input0": vec(), "Input9": vec(), "Output0": vec()}, X + "missing binding Input1"),
    ("sqrt", unary(), X + "missing location for Output0", {"Input0": "host", "Output9": "host"}),
    ("sqrt", unary(), X + "invalid location for Input0", {"Input0": "device", "Output0": "host"}),
    ("sqrt", unary(), X + "invalid location for Output0", {"Input0": "host", "Output0": 1}),
    ("eig", unary(np.eye(2), _native.EigenOperand(2, "complex128")),
     X + "CUDA eigen binding requires CudaEigenOperand", {"Input0": "host", "Output0": "cuda"}),
    ("eig", unary(np.eye(2), np.zeros(2, np.complex128)), X + "host eigen binding requires EigenOperand"),
    ("solve", unary(_native.LUOperand(3, "float32")), X + "structured operand compute dtype is fixed at construction",
     None, {"Input0": "float32"}),
    ("solve", unary(np.eye(3, dtype=np.float32)), X + "LU binding requires LUOperand"),
    ("lu_factor", {"Output0": _native.LUOperand(3)}, X + "LUOperand must use host residency", {"Output0": "cuda"}),
    ("sqrt", unary(), X + "CUDA binding requires a CUDA-enabled build", {"Input0": "host", "Output0": "cuda"}),
    ("sqrt", unary([1.0, 2.0, 3.0]), "host binding requires a NumPy ndarray"),
    ("sqrt", unary(_native.LUOperand(3)), "host binding requires a NumPy ndarray"),
    ("sqrt", unary(np.zeros((1, 1, 3), np.float32)), X + "array binding rank must be zero, one or two"),
    ("sum", unary(out=np.zeros(1, np.float32)), X + "scalar binding must have rank zero"),
    ("sqrt", unary(np.zeros((3, 1), np.float32)), X + "vector binding must have rank one"),
    ("transpose", unary(out=np.zeros((3, 1), np.float32)), X + "matrix binding must have rank two"),
    ("sqrt", unary(), X + "uncompiled storage/compute dtype policy (compute=float64); array storage dtypes: float32",
     None, {"Input0": "float64"}),
    ("sqrt", unary(vec(dtype=np.int64)),
     X + "uncompiled storage/compute dtype policy (compute=int64); array storage dtypes: int64"),
    ("sqrt", unary(out=np.zeros(3, bool)), X + "bool arrays are supported only for scalar outputs"),
    ("scale", {"Input0": vec(), "Input1": np.zeros((), bool), "Output0": vec()},
     X + "bool arrays are supported only for scalar outputs"),
    ("is_unitary", unary(np.eye(2), np.zeros((), bool)), X + "bool outputs require int32 compute dtype",
     None, {"Output0": "float64"}),
    ("is_unitary", unary(np.eye(2), read_only(np.zeros((), bool))), X + "bool scalar bindings must be writable"),
    ("sqrt", unary(np.ones(6, BF16)[::2], np.ones(3, BF16)), LOW_PRECISION),
    ("sqrt", unary(np.ones(3, BF16), read_only(np.ones(3, BF16))), LOW_PRECISION),
    ("sqrt", unary(np.ones(6, np.float32)[::2]), X + "array binding must be contiguous"),
    ("transpose", unary(np.ones((4, 4))[::2, ::2], np.zeros((2, 2))), X + "array binding must be contiguous"),
    ("sqrt", unary(vec(dtype=">f4")), X + "array binding must be aligned and native-endian"),
    ("sqrt", unary(out=read_only(vec())), X + "output binding must be writable"),
    ("conjugate", {"Output0": read_only(vec())}, X + "output binding must be writable"),
    ("quillmark.nothing@1", {}, "QuillmarkContext - operation 'quillmark.nothing@1' is not registered",
     None, None, IndexError),
    ("quillmark.sqrt", {}, "OperationId::parse - expected canonical identifier 'name@major'"),
    ("add", {"Input0": vec(3), "Input1": vec(4), "Output0": vec(3)}, "OperationSpec - vector input size mismatch"),
    # Zero-width factors exist in NumPy at any height; the product's shape does not fit 64 bits.
    *[("kron", {"Input0": np.zeros(shape), "Input1": np.zeros(shape), "Output0": np.zeros((0, 0))},
       "OperationSpec - Kronecker product output shape overflow") for shape in [(2**33, 0), (0, 2**32)]],
]


# Cases are passed by position so that the operands stay owned by this module alone.
@pytest.mark.parametrize("index", range(len(REFUSED)), ids=[f"{case[0]}: {case[2][:60]}" for case in REFUSED])
def test_execute_refuses(ctx, index):
    case = REFUSED[index]
    operation, bindings, message, locations, compute, error = case + (None, None, ValueError)[len(case) - 3:]
    operation = operation if "." in operation else f"quillmark.{operation}@1"
    before = {role: obj.copy() for role, obj in bindings.items() if isinstance(obj, np.ndarray)}
    with pytest.raises(error) as info:
        ctx.execute(operation, bindings, locations or {role: "host" for role in bindings}, compute or {})
    assert str(info.value) == message
    assert not isinstance(info.value, _native.NativeError)
    for role, saved in before.items():
        np.testing.assert_array_equal(bindings[role], saved)


@pytest.mark.parametrize("position", [0, 1, 2])
@pytest.mark.parametrize("dtype", [complex32, BF16, np.float16, np.float32, np.float64, np.complex128],
                         ids=["complex32", "bfloat16", "float16", "float32", "float64", "complex128"])
def test_misaligned_storage_is_refused_in_every_role(ctx, dtype, position):
    arrays = [np.ones(3, dtype) for _ in range(3)]
    arrays[position] = misaligned(dtype)
    before = [a.copy() for a in arrays]
    with pytest.raises(ValueError) as info:
        run(ctx, "quillmark.add@1", arrays[:2], arrays[2:])
    sixteen_bit = np.dtype(dtype).itemsize <= 2 or dtype == complex32
    assert str(info.value) == (LOW_PRECISION if sixteen_bit else X + "array binding must be aligned and native-endian")
    for a, b in zip(arrays, before):
        np.testing.assert_array_equal(a.view(np.uint8), b.view(np.uint8))


@pytest.mark.parametrize("dtype", [np.complex64, np.complex128])
def test_column_major_complex_matrices_are_used_in_place(ctx, dtype):
    a = np.asfortranarray((np.arange(6) + 1j * np.arange(6)[::-1]).reshape(2, 3).astype(dtype))
    out = np.zeros((3, 2), dtype, order="F")
    try:
        assert run(ctx, "quillmark.adjoint@1", [a], [out]) is out
    except _native.NativeError as e:
        # Marshalling accepted the arrays; only an interleaved column-major implementation can take them.
        assert e.reason == "no_backend_available" and not out.any()
        pytest.skip("no interleaved column-major implementation is registered")
    np.testing.assert_array_equal(out, a.conj().T)
    assert out.flags.f_contiguous


def test_structured_output_is_returned(ctx):
    lu = _native.LUOperand(np.array([[0.0, 1.0], [2.0, 3.0]]))
    assert run(ctx, "quillmark.lu_factor@1", [], [lu]) is lu
    assert lu.swaps == 1 and lu.pivots.tolist() == [2, 2]


@pytest.mark.parametrize("dtype", [bool, np.int32])
def test_predicate_outputs(ctx, dtype):
    flag = run(ctx, "quillmark.is_unitary@1", [np.eye(3)], [np.full((), 7, dtype)])
    assert flag.dtype == dtype and flag == 1
    run(ctx, "quillmark.is_unitary@1", [2 * np.eye(3)], [flag], {"Output0": "int32"})
    assert flag == 0


def test_explicit_default_compute_dtype_and_low_precision_pair(ctx):
    out = run(ctx, "quillmark.sqrt@1", [np.array([1.0, 4.0], np.float16)], [np.zeros(2, np.float16)],
              {"Input0": "float32", "Output0": "float32"})
    assert out.tolist() == [1.0, 2.0]


def test_lu_factor_threads(ctx):
    rng = np.random.default_rng(3)
    a = rng.standard_normal((20, 20)) + 20 * np.eye(20)
    factor = _native.LUFactor(a, ctx)
    rhs = rng.standard_normal((8, 20))
    solutions = rhs.copy()
    with ThreadPoolExecutor(8) as pool:
        list(pool.map(factor.solve, solutions))  # each thread solves one row in place
    np.testing.assert_allclose(solutions @ a.T, rhs, atol=1e-10)
