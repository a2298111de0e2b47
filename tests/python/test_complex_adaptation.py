"""Interleaved complex operands served by split-plane kernels: results are bit-exact, outputs are
fully written, read-write outputs keep their contents, and inputs are left untouched."""
import numpy as np
import pytest

from conftest import random_array, run

quillmark = pytest.importorskip("quillmark")

COMPLEX = [np.complex64, np.complex128]
# Odd lengths exercise the scalar tails of the plane copies.
LENGTHS = [1, 7, 1000, 70001]


@pytest.fixture(scope="module")
def context():
    # Every copy large enough to split is split, where the machine has workers to split it over.
    return quillmark.Context(min_parallel_work=1)


def same_bits(a, b):
    return a.dtype == b.dtype and a.shape == b.shape and a.tobytes() == b.tobytes()


def naive_product(x, y):
    re = x.real * y.real - x.imag * y.imag
    im = x.real * y.imag + x.imag * y.real
    out = np.empty_like(x)
    out.real, out.imag = re, im
    return out


ELEMENTWISE = {"add": np.add, "subtract": np.subtract, "multiply": naive_product, "conjugate": None}


@pytest.mark.parametrize("dtype", COMPLEX)
@pytest.mark.parametrize("n", LENGTHS)
@pytest.mark.parametrize("op", sorted(ELEMENTWISE))
def test_elementwise_bit_exact_and_inputs_kept(context, rng, dtype, n, op):
    x, y = random_array(rng, n, dtype), random_array(rng, n, dtype)
    if op == "conjugate":  # in place: the read-write output's contents are carried in
        expected = np.conj(x)
        assert same_bits(run(context, "quillmark.conjugate@1", [], [x]), expected)
        return
    x0, y0 = x.copy(), y.copy()
    # Stale output contents must not survive: every element is produced by the kernel.
    out = run(context, f"quillmark.{op}@1", [x, y], [np.full(n, np.nan + 1j * np.nan, dtype)])
    assert same_bits(out, ELEMENTWISE[op](x, y).astype(dtype))
    assert same_bits(x, x0) and same_bits(y, y0)


def lane_order_matvec(a, x):
    """Row sums with lane l accumulating the terms j = l mod 8 in order, lanes combined pairwise."""
    terms = naive_product(a, np.broadcast_to(x, a.shape))
    lanes = np.zeros((a.shape[0], 8), a.dtype)
    for lane in range(min(8, a.shape[1])):
        part = terms[:, lane::8]
        lanes[:, lane] = np.cumsum(part.real, axis=1)[:, -1] + 1j * np.cumsum(part.imag, axis=1)[:, -1]
    return ((lanes[:, 0] + lanes[:, 1]) + (lanes[:, 2] + lanes[:, 3])) + (
        (lanes[:, 4] + lanes[:, 5]) + (lanes[:, 6] + lanes[:, 7]))


@pytest.mark.parametrize("dtype", COMPLEX)
# Long columns and long rows run in row tiles; every tile keeps the lane order.
@pytest.mark.parametrize("shape", [(1, 1), (5, 7), (33, 19), (300, 301), (5000, 3), (3, 5000), (2049, 2)])
def test_matvec_row_major_matches_lane_order(context, rng, dtype, shape):
    a, x = random_array(rng, shape, dtype), random_array(rng, shape[1], dtype)
    a0, x0 = a.copy(), x.copy()
    out = np.full(shape[0], np.nan, dtype)
    run(context, "quillmark.matvec@1", [a, x], [out])
    if dtype == np.complex128:
        assert same_bits(out, lane_order_matvec(a, x))
    else:
        np.testing.assert_allclose(out, a @ x, rtol=2e-4, atol=2e-4)
    assert same_bits(a, a0) and same_bits(x, x0)


@pytest.mark.parametrize("dtype", COMPLEX)
@pytest.mark.parametrize("op", ["matvec", "transpose", "matmul"])
def test_fortran_ordered_operands(context, rng, dtype, op):
    n = 37
    a = np.asfortranarray(random_array(rng, (n, n), dtype))
    x = random_array(rng, n, dtype)
    a0 = a.copy(order="A")
    inputs, expected = {"matvec": ([a, x], a @ x), "transpose": ([a], a.T), "matmul": ([a, a], a @ a)}[op]
    out = np.full(expected.shape, np.nan, dtype)
    try:
        run(context, f"quillmark.{op}@1", inputs, [out])
    except quillmark.NativeError as error:
        assert error.reason == "no_backend_available"
        return
    if op == "transpose":
        assert same_bits(out, np.ascontiguousarray(expected))
    else:
        np.testing.assert_allclose(out, expected, rtol=1e-3 if dtype == np.complex64 else 1e-10, atol=1e-3)
    assert same_bits(a, a0)


# Large calls run tile by tile; every element depends on its own inputs only, so a large call
# must give the bits of many small ones, whatever the tile boundaries.
UNARY = {
    "sqrt": lambda v, s: [v],
    "scale": lambda v, s: [v, s],
    "divide": lambda v, s: [v, s],
    "add": lambda v, s: [v, v[::-1].copy()],
    "multiply": lambda v, s: [v, v[::-1].copy()],
}


@pytest.mark.parametrize("dtype", COMPLEX)
@pytest.mark.parametrize("op", sorted(UNARY))
def test_large_call_matches_small_calls(context, rng, dtype, op):
    n, piece = 70001, 997
    v = random_array(rng, n, dtype)
    s = np.array(random_array(rng, 1, dtype)[0])
    inputs = UNARY[op](v, s)
    whole = np.full(n, np.nan, dtype)
    run(context, f"quillmark.{op}@1", inputs, [whole])
    pieces = np.full(n, np.nan, dtype)
    for start in range(0, n, piece):
        part = [a if a.ndim == 0 else a[start:start + piece] for a in inputs]
        run(context, f"quillmark.{op}@1", part, [pieces[start:start + piece]])
    assert same_bits(whole, pieces)


# An output that is an input is computed in place; one shifted over an input reads the input first.
@pytest.mark.parametrize("dtype", COMPLEX)
@pytest.mark.parametrize("shift", [0, 1])
def test_large_output_over_an_input(context, rng, dtype, shift):
    n = 50001
    buffer, y = random_array(rng, n + 1, dtype), random_array(rng, n, dtype)
    expected = buffer[:n] + y
    run(context, "quillmark.add@1", [buffer[:n], y], [buffer[shift:shift + n]])
    assert same_bits(buffer[shift:shift + n], expected)


# matvec reads A's rows in place: an output inside A or x must still see the inputs as they were.
@pytest.mark.parametrize("where", ["row_of_a", "last_row_of_a", "x"])
def test_matvec_output_inside_an_input(context, rng, where):
    n = 301
    a, x = random_array(rng, (n, n), np.complex128), random_array(rng, n, np.complex128)
    expected = lane_order_matvec(a.copy(), x.copy())
    out = {"row_of_a": a[0], "last_row_of_a": a[n - 1], "x": x}[where]
    run(context, "quillmark.matvec@1", [a, x], [out])
    assert same_bits(out, expected)
