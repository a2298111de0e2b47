"""Context.execute on arrays that share memory, and on arrays whose Python attributes disagree with
their memory: results must be what NumPy gives for the same memory, or a clear refusal."""
import numpy as np
import pytest

from quillmark import _native
from quillmark._dtypes import complex32, from_complex32, to_complex32

from conftest import misaligned, run


# ---- overlapping operands --------------------------------------------------------------------------

# Element-wise operations: (name, NumPy reference, arity); the second input of scale/divide is a scalar.
ELEMENTWISE = [
    ("add", np.add, 2),
    ("subtract", np.subtract, 2),
    ("multiply", np.multiply, 2),
    ("sqrt", np.sqrt, 1),
    ("scale", np.multiply, "scalar"),
    ("divide", np.divide, "scalar"),
]


def within(store, start, shape):
    """A C-contiguous view of `shape` starting at element `start` of a flat store."""
    size = int(np.prod(shape))
    return store[start:start + size].reshape(shape)


# Where the input and the output start in one store: "shifted" catches a forward-running loop that
# smears its own writes into the input, "behind" a backward-running one.
PLACEMENTS = {"disjoint": (0, 10), "exact": (0, 0), "shifted": (0, 1), "behind": (1, 0)}


@pytest.mark.parametrize("how", list(PLACEMENTS))
@pytest.mark.parametrize("dtype", [np.float64, np.complex64])
@pytest.mark.parametrize("name,reference,arity", ELEMENTWISE, ids=[e[0] for e in ELEMENTWISE])
def test_elementwise_overlap_matches_numpy(ctx, name, reference, arity, how, dtype):
    n, (start, out_start) = 8, PLACEMENTS[how]
    store = (np.arange(1, 2 * n + 3) * 0.5).astype(dtype)
    a, out = store[start:start + n], store[out_start:out_start + n]
    # A scalar operand lies inside the output.
    b = {1: [], 2: [np.linspace(1.0, 3.0, n).astype(dtype)], "scalar": [out[3:4].reshape(())]}[arity]
    # NumPy's answer: inputs read before the output is written.
    expected = store.copy()
    expected[out_start:out_start + n] = reference(*[v.copy() for v in [a] + b])
    run(ctx, f"quillmark.{name}@1", [a] + b, [out])
    np.testing.assert_allclose(store, expected, rtol=1e-6)


# Products and reshaping operations, with the inputs laid over the output's memory. Each case:
# operation, input shapes, output shape, NumPy reference.
PRODUCTS = {
    "matmul": ("quillmark.matmul@1", [(3, 3), (3, 3)], (3, 3), lambda a, b: a @ b),
    "matvec": ("quillmark.matvec@1", [(3, 3), (3,)], (3,), lambda a, x: a @ x),
    "kron": ("quillmark.kron@1", [(2, 2), (2, 2)], (4, 4), np.kron),
    "outer": ("quillmark.outer@1", [(3,), (4,)], (3, 4), np.outer),
    "inner": ("quillmark.inner@1", [(5,), (5,)], (), np.vdot),
    "transpose": ("quillmark.transpose@1", [(3, 3)], (3, 3), np.transpose),
    "adjoint": ("quillmark.adjoint@1", [(3, 3)], (3, 3), lambda a: a.conj().T),
    "trace": ("quillmark.trace@1", [(3, 3)], (), np.trace),
    "sum": ("quillmark.sum@1", [(6,)], (), np.sum),
}


# complex64 takes the SIMD kernels, complex128 the scalar ones.
@pytest.mark.parametrize("dtype", [np.complex64, np.complex128])
@pytest.mark.parametrize("placement", ["first input is the output", "inputs straddle the output", "disjoint"])
@pytest.mark.parametrize("case", list(PRODUCTS))
def test_product_overlap_matches_numpy(ctx, case, placement, dtype):
    operation, in_shapes, out_shape, reference = PRODUCTS[case]
    sizes = [int(np.prod(s)) for s in in_shapes]
    out_size = int(np.prod(out_shape))
    store = (np.arange(1, 64) * (1 + 0.5j) / 7).astype(dtype)
    starts, out_start = {"disjoint": ([0, sizes[0]], sum(sizes)), "first input is the output": ([0, 20], 0),
                         "inputs straddle the output": ([0, sizes[0] + out_size // 2], max(sizes[0] - 1, 1))}[placement]
    expected_store = store.copy()
    expected = reference(*[within(store, s, shape).copy() for s, shape in zip(starts, in_shapes)])
    within(expected_store, out_start, out_shape)[...] = expected

    inputs = [within(store, s, shape) for s, shape in zip(starts, in_shapes)]
    run(ctx, operation, inputs, [within(store, out_start, out_shape)])
    tol = 1e-5 if dtype == np.complex64 else 1e-12
    np.testing.assert_allclose(store, expected_store, rtol=tol, atol=tol)


def test_outputs_sharing_memory_are_written_in_role_order(ctx):
    a = np.array([[2.0, 1.0], [1.0, -3.0]])
    both = np.zeros(())
    run(ctx, "quillmark.slogdet@1", [a], [both, both])
    assert both == pytest.approx(np.linalg.slogdet(a)[1])

    # The eigenvalues' last element is the eigenvectors' first: the eigenvectors win it.
    h = np.array([[2.0, 1.0, 0.0], [1.0, 3.0, 1.0], [0.0, 1.0, 4.0]])
    values, vectors = np.zeros(3), np.zeros((3, 3))
    run(ctx, "quillmark.eigh@1", [h], [values, vectors])
    store = np.zeros(11)
    run(ctx, "quillmark.eigh@1", [h], [store[:3], within(store, 2, (3, 3))])
    np.testing.assert_allclose(store[:2], values[:2], rtol=1e-12)
    np.testing.assert_allclose(within(store, 2, (3, 3)), vectors, rtol=1e-12, atol=1e-12)


def test_an_output_over_its_own_input_matrix(ctx):
    a = np.array([[4.0, 1.0], [2.0, 3.0]])
    expected = np.linalg.slogdet(a)
    sign, logabs = a[0, 0:1].reshape(()), a[1, 1:2].reshape(())
    run(ctx, "quillmark.slogdet@1", [a], [sign, logabs])
    assert (a[0, 0], a[1, 1]) == pytest.approx(expected)


# ---- arrays whose attributes lie ----------------------------------------------------------------------

def lying(array, **attributes):
    """`array` as an instance of a subclass whose properties report `attributes`."""
    cls = type("Lying", (np.ndarray,), {k: property(lambda self, v=v: v) for k, v in attributes.items()})
    return array.view(cls)


LIES = {
    "huge shape": dict(shape=(1 << 24,)),
    "huge strides": dict(strides=(1 << 20,)),
    "wrong rank": dict(ndim=1, shape=(1 << 20,)),
    "wrong dtype": dict(dtype=np.dtype(np.complex128), itemsize=16),
    "wrong flags": dict(flags=None),
}


@pytest.mark.parametrize("lie", list(LIES))
def test_overridden_attributes_are_ignored(ctx, lie):
    x = np.array([1 + 2j, 3 - 4j])
    liar = lying(x.copy(), **LIES[lie])
    ctx.execute("quillmark.conjugate@1", {"Output0": liar}, {"Output0": "host"})
    np.testing.assert_array_equal(liar.view(np.ndarray), x.conj())

    m = np.arange(6.0).reshape(2, 3)
    out = lying(np.zeros((3, 2)), **LIES[lie])
    run(ctx, "quillmark.transpose@1", [lying(m, **LIES[lie])], [out])
    np.testing.assert_array_equal(out.view(np.ndarray), m.T)

    a = np.array([[4.0, 1.0], [2.0, 3.0]])
    rhs = lying(np.array([1.0, 2.0]), **LIES[lie])
    _native.LUFactor(lying(a.copy(), **LIES[lie]), ctx).solve(rhs)
    np.testing.assert_allclose(rhs.view(np.ndarray), np.linalg.solve(a, [1.0, 2.0]))


def test_rank_comes_from_the_buffer(ctx):
    # A 3-d array claiming rank 1 is still refused as rank three.
    liar = lying(np.zeros((2, 2, 2)), ndim=1, shape=(8,))
    with pytest.raises(ValueError, match="rank must be zero, one or two"):
        run(ctx, "quillmark.sqrt@1", [liar], [np.zeros(8)])


@pytest.mark.parametrize("operation", ["add", "transpose", "matmul"])
def test_complex32_is_recognised_at_any_aligned_address(ctx, rng, operation):
    # NumPy describes the record differently at addresses that are not 4-byte aligned; kernels
    # must not assume the 4-byte alignment of the whole element either.
    n = 33
    a = misaligned(complex32, (n, n), offset=2)
    a[...] = to_complex32(rng.standard_normal((n, n)) + 1j * rng.standard_normal((n, n)))
    wide = from_complex32(a).astype(np.complex128)
    inputs, want = {"add": ([a, a], 2 * wide), "transpose": ([a], wide.T), "matmul": ([a, a], wide @ wide)}[operation]
    out = misaligned(complex32, (n, n), offset=2)
    shape = (-1,) if operation == "add" else (n, n)  # add is a vector operation
    run(ctx, f"quillmark.{operation}@1", [x.reshape(shape) for x in inputs], [out.reshape(shape)])
    rtol, atol = (2e-2, 0.3) if operation == "matmul" else (0, 0)  # doubling and transposing are exact
    np.testing.assert_allclose(from_complex32(out), want, rtol=rtol, atol=atol)
