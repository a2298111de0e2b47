"""Solver results that must not depend on how the work is split: many right-hand sides against
one at a time, and the blocked factorisations against the NumPy/SciPy answers at orders past the
block size. (Worker threads against the serial bits: test_blocked_lu.cpp, which can simulate a
machine with spare CPUs.)"""
import ml_dtypes
import numpy as np
import pytest
from conftest import FLOATING, TOLERANCE, positive_definite, random_array, real_dtype, run

from quillmark import _native


@pytest.mark.parametrize("dtype", FLOATING + [np.float16])
def test_block_of_right_hand_sides_matches_lone_columns_bit_for_bit(ctx, rng, dtype):
    n, k = 70, 67  # more columns than one pass of the block solve
    a = random_array(rng, (n, n), dtype) + np.eye(n, dtype=dtype) * 8
    factor = _native.LUFactor(a, ctx)
    block = random_array(rng, (n, k), dtype)
    together = block.copy()
    factor.solve(together)
    for c in (0, 63, 64, k - 1):
        alone = np.ascontiguousarray(block[:, c])
        factor.solve(alone)
        assert alone.tobytes() == together[:, c].tobytes()


@pytest.mark.parametrize("dtype", FLOATING)
@pytest.mark.parametrize("n", [127, 200])
def test_blocked_factorisations_match_references(ctx, rng, dtype, n):
    a = random_array(rng, (n, n), dtype)
    tol = TOLERANCE[dtype] * n
    sign, logabs = np.zeros((), dtype), np.zeros((), real_dtype(dtype))
    run(ctx, "quillmark.slogdet@1", [a], [sign, logabs])
    want_sign, want_logabs = np.linalg.slogdet(a.astype(np.complex128 if a.dtype.kind == "c" else np.float64))
    np.testing.assert_allclose(logabs, want_logabs, rtol=tol)
    np.testing.assert_allclose(sign, want_sign, atol=tol)

    spd = positive_definite(rng, n, dtype)
    out = np.zeros((), real_dtype(dtype))
    run(ctx, "quillmark.logdet_positive_definite@1", [spd], [out])
    np.testing.assert_allclose(out, np.linalg.slogdet(spd.astype(np.complex128))[1], rtol=tol)

    factor = _native.LUFactor(a, ctx)
    rhs = random_array(rng, (n, 2), dtype)
    x = rhs.copy()
    factor.solve(x)
    np.testing.assert_allclose(a.astype(np.complex128) @ x, rhs, atol=tol * 10)


# The operand gathers its values into column-major storage tile by tile: every element must land
# in place whatever the source's strides and however the order divides into tiles.
@pytest.mark.parametrize("dtype", [np.float16, ml_dtypes.bfloat16, np.float32, np.float64, np.complex64, np.complex128])
@pytest.mark.parametrize("n", [1, 31, 33, 70])
@pytest.mark.parametrize("view", ["C", "F", "strided"])
def test_lu_operand_takes_values_of_any_layout(rng, dtype, n, view):
    a = random_array(rng, (2 * n, 2 * n), dtype)
    values = {"C": np.ascontiguousarray(a[:n, :n]), "F": np.asfortranarray(a[:n, :n]), "strided": a[::2, ::2]}[view]
    lu = _native.LUOperand(values)
    assert (lu.dtype, lu.size, lu.swaps) == (np.dtype(dtype).name, n, 0)
    factors = lu.factors
    assert factors.tobytes() == np.ascontiguousarray(values).tobytes()
    factors[...] = 0  # an exported copy, not a view of the operand
    assert lu.factors.tobytes() == np.ascontiguousarray(values).tobytes()
