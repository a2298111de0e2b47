"""Allocations that cannot succeed, and memory held across many executions."""
import gc
import subprocess
import sys

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


@pytest.mark.parametrize("left, right", [((2**33, 0), (2**33, 0)), ((0, 2**32), (0, 2**32))])
def test_kron_output_shape_overflow_is_refused(ctx, left, right):
    # Zero-width factors exist in NumPy at any height; the product's shape does not fit 64 bits.
    with pytest.raises(ValueError, match="Kronecker product output shape overflow"):
        run(ctx, "quillmark.kron@1", [np.zeros(left), np.zeros(right)], [np.zeros((0, 0))])


def resident_bytes():
    with open("/proc/self/statm") as statm:
        return int(statm.read().split()[1]) * 4096


def mixed_round(ctx, rng, i):
    """Successful and failing executions, structured operands made and dropped."""
    a = rng.standard_normal((12, 12))
    out = np.zeros((12, 12))
    run(ctx, "quillmark.matmul@1", [a, a], [out])
    x = rng.standard_normal(64).astype(np.complex64)
    y = np.zeros(64, np.complex64)
    run(ctx, "quillmark.add@1", [x, x], [y])
    lu = quillmark.LUOperand(a + 12 * np.eye(12))
    run(ctx, "quillmark.lu_factor@1", [], [lu])
    rhs = rng.standard_normal(12)
    run(ctx, "quillmark.solve@1", [lu], [rhs])
    eig = quillmark.EigenOperand(6, "complex128")
    run(ctx, "quillmark.eig@1", [a[:6, :6].astype(np.complex128)], [eig])
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


# Each runs in a child interpreter: a memory fault there fails one test instead of ending the run.
UNSAFE_IMPORTS = {
    "shape_overriding_subclass": """
import numpy as np, quillmark
class Liar(np.ndarray):
    @property
    def shape(self):
        return (100000,)
x = np.arange(4, dtype=np.float32)
out = np.zeros(4, np.float32)
roles = ["Input0", "Input1", "Output0"]
bindings = dict(zip(roles, [x.view(Liar), x.view(Liar), out.view(Liar)]))
try:
    quillmark.Context().execute("quillmark.add@1", bindings, dict.fromkeys(roles, "host"))
except ValueError:
    pass
else:
    assert np.array_equal(out, 2 * x), out
""",
    "misaligned_complex32": """
import numpy as np, quillmark
from quillmark import complex32, from_complex32, to_complex32
def misaligned(values):
    raw = np.zeros(values.size * 4 + 2, np.uint8)
    view = raw[2:].view(complex32).reshape(values.shape)  # 2 bytes past a 4-byte boundary
    view[...] = to_complex32(values)
    return view
rng = np.random.default_rng(0)
a = misaligned(rng.standard_normal((33, 33)) + 1j * rng.standard_normal((33, 33)))
ctx = quillmark.Context()
for op, shape, want in [("quillmark.transpose@1", (33, 33), from_complex32(a).T),
                        ("quillmark.matmul@1", (33, 33), from_complex32(a) @ from_complex32(a))]:
    out = misaligned(np.zeros(shape))
    inputs = [a] if op.endswith("transpose@1") else [a, a]
    bindings = {f"Input{i}": v for i, v in enumerate(inputs)} | {"Output0": out}
    ctx.execute(op, bindings, dict.fromkeys(bindings, "host"))
    assert np.allclose(from_complex32(out), want, rtol=2e-2, atol=0.3), op
""",
}


@pytest.mark.parametrize("case", sorted(UNSAFE_IMPORTS))
def test_array_import_is_memory_safe(case):
    child = subprocess.run([sys.executable, "-c", UNSAFE_IMPORTS[case]], capture_output=True, text=True, timeout=300)
    assert child.returncode == 0, child.stderr[-2000:]
