"""Allocations that cannot succeed, and memory held across many executions."""
import gc

import numpy as np
import pytest

import quillmark
from conftest import SANITIZED, run

# The address sanitizer aborts on any allocation beyond its own ceiling instead of failing it,
# and keeps freed memory in quarantine, so these checks mean nothing under it.
real_allocations = pytest.mark.skipif(SANITIZED, reason="sanitizer allocator aborts or quarantines")


@pytest.mark.parametrize("make", [
    pytest.param(lambda n: quillmark.LUOperand(n, "float64"), id="lu"),
    pytest.param(lambda n: quillmark.EigenOperand(n, "complex128"), id="eigen"),
])
@pytest.mark.parametrize("order", [
    2**31,  # n*n elements exceed the address space
    2**32,  # n*n overflows 64 bits
    2**63,
    pytest.param(2**20, marks=real_allocations),  # terabytes: a real allocation that fails
])
def test_huge_structured_operands_fail_cleanly(make, order):
    with pytest.raises((MemoryError, ValueError)):
        make(order)


def resident_bytes():
    with open("/proc/self/statm") as statm:
        return int(statm.read().split()[1]) * 4096


def mixed_round(ctx, rng, i):
    """Successful and failing executions, structured operands made and dropped."""
    a = rng.standard_normal((12, 12))
    out = run(ctx, "quillmark.matmul@1", [a, a], [np.zeros((12, 12))])
    x = rng.standard_normal(64).astype(np.complex64)
    y = run(ctx, "quillmark.add@1", [x, x], [np.zeros(64, np.complex64)])
    lu = run(ctx, "quillmark.lu_factor@1", [], [quillmark.LUOperand(a + 12 * np.eye(12))])
    run(ctx, "quillmark.solve@1", [lu], [rng.standard_normal(12)])
    run(ctx, "quillmark.eig@1", [a[:6, :6].astype(np.complex128)], [quillmark.EigenOperand(6, "complex128")])
    failing = [
        lambda: run(ctx, "quillmark.add@1", [x, x[:3]], [y]),  # ValueError from the shape rule
        lambda: run(ctx, "quillmark.lu_factor@1", [], [quillmark.LUOperand(np.zeros((8, 8)))]),  # NativeError
        lambda: run(ctx, "quillmark.matmul@1", [np.asfortranarray(a), a], [out]),  # dispatch failure
    ]
    try:
        failing[i % 3]()
    except (ValueError, RuntimeError):
        pass


@real_allocations
def test_resident_memory_stays_flat_over_many_executions(ctx):
    rng = np.random.default_rng(5)
    for i in range(300):  # warm-up: caches, allocator pools, lazily made state
        mixed_round(ctx, rng, i)
    gc.collect()
    before = resident_bytes()
    rounds = 2000  # 5 executions each: 10,000 executions
    for i in range(rounds):
        mixed_round(ctx, rng, i)
    gc.collect()
    growth = resident_bytes() - before
    # A leak of 400 bytes per execution would show as 4 MB.
    assert growth < 4 * 2**20, f"resident memory grew by {growth / 2**20:.1f} MiB over {rounds * 5} executions"
