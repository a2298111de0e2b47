"""quillmark._native: module functions, catalogue, builder, context, structured operands, LUFactor."""
import ml_dtypes
import numpy as np
import pytest

import quillmark
from quillmark import _native
from quillmark._dtypes import complex32, from_complex32, to_complex32

from conftest import FLOATING, TOLERANCE, misaligned, random_array, run


@pytest.fixture(scope="module")
def catalogue():
    return _native.ContextBuilder().build()


# ---- module functions and the complex32 dtype


def test_module_functions():
    assert _native.__doc__ == "Private native implementation for quillmark"
    assert (_native.available_backends(), _native.cuda_is_available(), _native.cuda_device_count()) == \
        (("cpu",), False, 0)
    info = _native.build_info()
    assert list(info) == ["version", "cuda", "cuda_architectures", "cpu_simd", "cpu_simd_compiled", "nanobind_major"]
    assert [info[key] for key in ("version", "cuda", "cpu_simd_compiled", "nanobind_major")] == \
        ["0.1.1", False, "AVX2,AVX512", 2]
    assert info["cpu_simd"] in ("AVX2", "AVX512")
    assert [list(p.items()) for p in _native.numeric_policies()] == [
        [("dtype", d), ("compute_dtype", c), ("default", True)] for d, c in [
            ("complex32", "complex64"), ("float16", "float32"), ("bfloat16", "float32"), ("float64", "float64"),
            ("complex128", "complex128"), ("float32", "float32"), ("int32", "int32"), ("complex64", "complex64")]]


def test_complex32_helpers_round_trip():
    assert complex32.itemsize == 4 and complex32.names == ("real", "imag")
    values = np.array([1 + 2j, -0.5j, 65520 + 0j], dtype=np.complex128)
    packed = to_complex32(values)
    back = from_complex32(packed)
    assert back.dtype == np.complex64
    assert back[0] == 1 + 2j and back[1] == -0.5j and np.isinf(back[2].real)
    assert to_complex32(np.array([3.0]))["imag"][0] == 0
    assert quillmark.complex32 is complex32


# ---- ContextBuilder and _Catalogue


def test_builder_builds_once():
    builder = _native.ContextBuilder()
    catalogue = builder.build()
    assert isinstance(catalogue, _native._Catalogue)
    with pytest.raises(RuntimeError, match="^ContextBuilder has already been built$"):
        builder.build()
    with pytest.raises(RuntimeError, match="^QuillmarkContextBuilder::load_plugin - builder has already been sealed$"):
        builder.load_plugin("/nonexistent/plugin.so")


def test_operations_in_registration_order_and_lookup(catalogue):
    operations = catalogue.operations()
    assert isinstance(operations, tuple) and len(operations) == 32
    assert operations[0] == "quillmark.sqrt@1" and operations[-1] == "quillmark.logdet_positive_definite@1"
    assert [catalogue.describe(op)["handle"] for op in operations] == list(range(1, 33))
    asked = ["quillmark.matmul@1", "quillmark.matmul@2", "quillmark.unknown@1", "not an identifier"]
    assert [catalogue.contains_operation(op) for op in asked] == [True, False, False, False]


def test_describe_schema_and_refusals(catalogue):
    d = catalogue.describe("quillmark.eigh@1")
    assert list(d) == ["id", "handle", "roles", "numerics", "provenance", "implementations"]
    assert d["id"] == "quillmark.eigh@1"
    assert d["roles"] == [{"role": 0, "access": "read", "kind": "matrix"}, {"role": 2**31, "access": "write",
                          "kind": "vector"}, {"role": 2**31 + 1, "access": "write", "kind": "matrix"}]
    assert list(d["numerics"]) == ["shapes", "constraints", "requirements", "notes"]
    assert d["provenance"] == {"kind": "builtin", "version": "0.1.1"}
    for implementation in d["implementations"]:
        assert list(implementation) == ["backend", "operands", "numerics", "provenance"]
        operands = implementation["operands"]
        assert [(o["role"], o["access"]) for o in operands] == [(0, "read"), (2**31, "write"), (2**31 + 1, "write")]
        assert list(operands[0]) == ["role", "access", "kind", "dtype", "compute_dtype", "location",
                                     "storage_format", "complex_layout", "matrix_layout"]
        assert list(implementation["numerics"]) == ["algorithm", "stability", "complexity", "precision",
                                                    "parameters", "notes"]
    # Every registered policy is listed, not only the first implementation of each backend.
    policies = {impl["operands"][0]["dtype"] + "/" + impl["operands"][0]["compute_dtype"]
                for impl in catalogue.describe("quillmark.solve@1")["implementations"]}
    assert {f"{t}/{t}" for t in ("float32", "float64", "complex64", "complex128")} <= policies
    with pytest.raises(IndexError, match="^OperationRegistry - operation 'quillmark.matmul' is not registered$"):
        catalogue.describe("quillmark.matmul@7")
    with pytest.raises(ValueError, match="^OperationId::parse - "):
        catalogue.describe("matmul")


# ---- Context


def test_context_defaults_and_properties(catalogue):
    ctx = _native.Context(min_parallel_work=1000, catalogue=catalogue)
    assert ctx.min_parallel_work == 1000 and ctx.cuda_device == -1 and ctx.thread_count >= 1
    assert ctx.synchronise() is None
    for name in ("thread_count", "min_parallel_work", "cuda_device"):
        with pytest.raises(AttributeError):
            setattr(ctx, name, 1)
    # Policy words are matched exactly (see the refusals below); the other knobs are accepted as given.
    for policy in ("disabled", "auto"):
        assert _native.Context(numa_policy=policy, pinning_policy=policy, scheduling="anything", cross_device="x",
                               stream_pool_size=4, external_stream=1234).thread_count >= 1


@pytest.mark.parametrize("kwargs, error, message", [
    ({"numa_policy": "Auto"}, ValueError, "^Context - invalid NUMA policy$"),
    ({"numa_policy": "bogus", "pinning_policy": "bogus"}, ValueError, "^Context - invalid NUMA policy$"),
    ({"pinning_policy": "AUTO"}, ValueError, "^Context - invalid thread-pinning policy$"),
    ({"cuda_device": 0}, RuntimeError, "^Context - this Quillmark wheel has no CUDA backend$"),
    # The runtime is made before the CUDA device is looked at.
    ({"thread_count": 1 << 20, "cuda_device": 0}, ValueError, "^CpuRuntimeContext - requested CPU thread count"),
    ({"thread_count": -1}, TypeError, None),
])
def test_context_constructor_checks(kwargs, error, message):
    with pytest.raises(error, match=message):
        _native.Context(**kwargs)


# ---- LUOperand and EigenOperand


def test_structured_operands_from_a_size():
    lu = _native.LUOperand(3)
    assert (lu.dtype, lu.compute_dtype, lu.size, lu.swaps) == ("complex64", "complex64", 3, 0)
    assert lu.pivots.dtype == np.int64 and lu.pivots.tolist() == [0, 0, 0]
    assert lu.factors.dtype == np.complex64 and lu.factors.shape == (3, 3)
    half = _native.LUOperand(2, "bfloat16")
    assert half.compute_dtype == "float32" and half.factors.dtype == ml_dtypes.bfloat16
    eig = _native.EigenOperand(4)
    assert (eig.dtype, eig.compute_dtype, eig.size) == ("complex64", "complex64", 4)
    assert eig.values.shape == (4,) and eig.vectors.shape == (4, 4)
    assert _native.EigenOperand(2, "complex32").values.dtype == complex32


def test_lu_operand_complex32_and_foreign_byte_order():
    packed = to_complex32(np.array([[1 + 2j, 3], [4j, -1]]))
    lu = _native.LUOperand(packed)
    assert lu.dtype == "complex32" and lu.compute_dtype == "complex64" and lu.factors.dtype == complex32
    np.testing.assert_array_equal(lu.factors, packed)
    swapped = np.array([[1.0, 2.0], [3.0, 4.0]], dtype=">f8")
    np.testing.assert_array_equal(_native.LUOperand(swapped).factors, swapped)


@pytest.mark.parametrize("args, message", [
    ((2, "float32", None), "host eigenvalues - unsupported policy or layout"),  # None: an EigenOperand
    ((2, "complex64", "complex128", None), "structured operand - uncompiled storage/compute dtype policy"),
    ((np.zeros((3, 4)),), "LUOperand - matrix must be square"),
    ((np.zeros(3),), "LUOperand - matrix must be square"),
    ((np.zeros((3, 3), np.int32),), "LUOperand - matrix requires floating point storage"),
    ((np.zeros((2, 2), bool),), "LUOperand - matrix requires floating point storage"),
    ((np.zeros((3, 3), np.float32), "float64"), "LUOperand - explicit dtype does not match array storage"),
    ((misaligned(np.float64, (3, 3), offset=4),), "LUOperand - input must be aligned"),
    ((np.zeros((2, 2), np.float32), "", "float64"), "structured operand - uncompiled storage/compute dtype policy"),
    ((3, "float99"), "structured operand - uncompiled storage/compute dtype policy"),
    ((3, "int32"), "structured operand requires a float32/64 or complex64/128 factor policy"),
    ((3, "float16", "float16"), "structured operand - uncompiled storage/compute dtype policy"),
])
def test_structured_operand_checks(args, message):
    with pytest.raises(ValueError) as info:
        _native.EigenOperand(*args[:-1]) if args[-1] is None else _native.LUOperand(*args)
    assert str(info.value) == message
    assert not isinstance(info.value, _native.NativeError)


# ---- LUFactor


@pytest.mark.parametrize("dtype", FLOATING)
def test_lu_factor_logdet(ctx, rng, dtype):
    # Solving with an LUFactor is covered in test_solvers.
    a = random_array(rng, (6, 6), dtype)
    if np.linalg.det(a).real > 0:
        a[[0, 1]] = a[[1, 0]]  # a negative real determinant: the logarithm's imaginary part is pi
    factor = _native.LUFactor(a, ctx)
    assert (factor.size, factor.dtype) == (6, np.dtype(dtype).name)
    logdet = factor.logdet()
    assert isinstance(logdet, complex) and (a.dtype.kind == "c" or logdet.imag == pytest.approx(np.pi))
    np.testing.assert_allclose(np.exp(logdet), np.linalg.det(a.astype(np.complex128)), rtol=TOLERANCE[dtype] * 50)


@pytest.mark.parametrize("rhs, error, message", [
    (np.ones(3, np.float64), ValueError, "^solve - right-hand side dtype does not match factor$"),
    (np.ones(4, np.float32), ValueError, "^solve - right-hand side size mismatch$"),
    (np.ones((3, 4), np.float32)[:, ::2], ValueError, "C-contiguous"),
    (np.ones((3, 2, 1), np.float32), ValueError, "rank one or two"),
    (np.frombuffer(np.ones(3, np.float32).tobytes(), np.float32), ValueError, "writable"),  # read-only
    ([1.0, 2.0, 3.0], TypeError, None),
])
def test_lu_factor_solve_refuses(ctx, rhs, error, message):
    factor = _native.LUFactor(np.eye(3, dtype=np.float32) * 2, ctx)
    before = np.array(rhs, copy=True)
    with pytest.raises(error, match=message):
        factor.solve(rhs)
    np.testing.assert_array_equal(rhs, before)


# ---- Native errors from solvers and dispatch


# Each case: the failing call (given the context and its output), the message, and the attributes.
NATIVE_FAILURES = {
    "singular": (lambda ctx, out: _native.LUFactor(np.array([[1.0, 2.0, 3.0], [2.0, 4.0, 6.0], [1.0, 0.0, 1.0]]), ctx),
                 "LU factorisation - singular matrix at pivot 2",
                 {"reason": "singular", "library": "CPU", "operation": "quillmark.lu_factor", "native_status": 2}),
    "indefinite": (lambda ctx, out: run(ctx, "quillmark.logdet_positive_definite@1",
                                        [np.array([[1.0, 2.0], [2.0, 1.0]])], [out[0, 0:1].reshape(())]),
                   None,
                   {"reason": "solver_failure", "library": "CPU", "operation": "quillmark.logdet_positive_definite"}),
    # Marshalling accepts a real column-major matrix; no adapter bridges real layouts.
    "real column-major": (lambda ctx, out: run(ctx, "quillmark.transpose@1",
                                               [np.asfortranarray(np.arange(6.0).reshape(2, 3))], [out]),
                          "BackendDispatcher::dispatch - no backend entry available",
                          {"reason": "no_backend_available"}),
}


@pytest.mark.parametrize("case", list(NATIVE_FAILURES))
def test_native_errors(ctx, case):
    call, message, attributes = NATIVE_FAILURES[case]
    out = np.zeros((3, 2))
    with pytest.raises(_native.NativeError) as info:
        call(ctx, out)
    err = info.value
    assert isinstance(err, RuntimeError) and not hasattr(err, "status_name")
    assert message is None or str(err) == message
    assert {name: getattr(err, name) for name in attributes} == attributes
    assert not hasattr(err, "library") or (isinstance(err.native_status, int) and err.detail)
    assert not out.any()


def test_never_factorised_operand_fails_solve(ctx):
    x = np.ones(2, np.complex64)
    with pytest.raises(ValueError, match="^solve - invalid LU pivot$"):
        run(ctx, "quillmark.solve@1", [_native.LUOperand(2)], [x])
    assert x.tolist() == [1, 1]
