"""complex64 operations on the cpu_simd backend, under each SIMD engine.

The tests run in this process under the default selection, and again in one child process per
engine with QUILLMARK_CPU_SIMD_RUNTIME forced, since the selection is fixed once per process.
"""
import os
import subprocess
import sys

import numpy as np
import pytest
from conftest import random_array, run

quillmark = pytest.importorskip("quillmark")

C64 = np.complex64
TOL = 5e-5  # relative to the operands' scale
FORCED = os.environ.get("QUILLMARK_CPU_SIMD_RUNTIME")


def cpu_flags():
    with open("/proc/cpuinfo") as f:
        return set(next((line for line in f if line.startswith("flags")), ":").split(":", 1)[1].split())


HAS_AVX512 = {"avx512f", "avx512dq", "avx512cd", "avx512bw", "avx512vl"} <= cpu_flags()


def c64(rng, shape, order="C"):
    return np.asarray(random_array(rng, shape, C64), order=order)


def assert_close(got, want, scale=1.0):
    want = np.asarray(want)
    err = np.max(np.abs(got.astype(np.complex128) - want), initial=0.0)
    assert err <= TOL * scale * max(1.0, np.max(np.abs(want), initial=0.0)), err


def wide(a):
    return a.astype(np.complex128)


# Shapes around the vector widths (4 and 8 complex numbers) and the GEMM tiles.
SHAPES = [(1, 1, 1), (3, 5, 7), (8, 8, 8), (17, 9, 13), (33, 64, 5), (70, 129, 66)]


@pytest.mark.parametrize("m,k,n", SHAPES)
@pytest.mark.parametrize("orders", ["CCC", "FCC", "CFF", "FFF"])
def test_products(ctx, rng, m, k, n, orders):
    a, b = c64(rng, (m, k), orders[0]), c64(rng, (k, n), orders[1])
    out = run(ctx, "quillmark.matmul@1", [a, b], [np.zeros((m, n), C64, order=orders[2])])
    assert_close(out, wide(a) @ wide(b), scale=np.sqrt(k))
    x = c64(rng, k)
    assert_close(run(ctx, "quillmark.matvec@1", [a, x], [np.zeros(m, C64)]), wide(a) @ wide(x), scale=np.sqrt(k))


@pytest.mark.parametrize("rows,cols", [(1, 1), (3, 7), (33, 17), (64, 40)])
@pytest.mark.parametrize("order", ["C", "F"])
def test_transpose_adjoint(ctx, rng, rows, cols, order):
    a = c64(rng, (rows, cols), order)
    for op, want in [("transpose", a.T), ("adjoint", a.conj().T)]:
        out = run(ctx, f"quillmark.{op}@1", [a], [np.zeros((cols, rows), C64, order=order)])
        np.testing.assert_array_equal(out, want)


@pytest.mark.parametrize("d,q", [(1, 3), (3, 2), (5, 4), (9, 3)])
def test_partial_traces(ctx, rng, d, q):
    x, y = wide(c64(rng, (q, q))), wide(c64(rng, (d, d)))
    for side, a in [("left", np.kron(x, y)), ("right", np.kron(y, x))]:
        out = run(ctx, f"quillmark.partial_trace_{side}@1", [a.astype(C64)], [np.zeros((d, d), C64)])
        assert_close(out, np.trace(x) * y, scale=q)


@pytest.mark.parametrize("n", [1, 5, 12])
@pytest.mark.parametrize("exponent", [0, 1, 2, 7])
def test_eye_and_matrix_power(ctx, rng, n, exponent):
    np.testing.assert_array_equal(run(ctx, "quillmark.eye@1", [], [np.full((n, n), 9, C64)]), np.eye(n))
    a = (c64(rng, (n, n)) / np.sqrt(n)).astype(C64)
    out = run(ctx, "quillmark.matrix_power@1", [a, np.array(exponent, np.int32)], [np.zeros((n, n), C64)])
    assert_close(out, np.linalg.matrix_power(wide(a), exponent), scale=n * max(exponent, 1))


@pytest.mark.parametrize("n", [1, 6, 31])
def test_solve_from_lu(ctx, rng, n):
    a = c64(rng, (n, n)) + n * np.eye(n, dtype=C64)
    lu = run(ctx, "quillmark.lu_factor@1", [], [quillmark.LUOperand(a)])
    rhs = c64(rng, n)
    assert_close(wide(a) @ wide(run(ctx, "quillmark.solve@1", [lu], [rhs.copy()])), wide(rhs), scale=n)


@pytest.mark.parametrize("n", [1, 4, 9, 24])
def test_eig(ctx, rng, n):
    a = c64(rng, (n, n))
    eig = run(ctx, "quillmark.eig@1", [a], [quillmark.EigenOperand(n, "complex64")])
    values, vectors = wide(eig.values), wide(eig.vectors)
    residual = wide(a) @ vectors - vectors * values
    assert np.linalg.norm(residual) <= 1e-3 * np.linalg.norm(wide(a)) * n
    np.testing.assert_allclose(np.sort_complex(values), np.sort_complex(np.linalg.eigvals(wide(a))), atol=1e-3 * n)


@pytest.mark.parametrize("n", [1, 7, 40])
def test_principal_eigenvector(ctx, rng, n):
    # A dominant eigenvalue well apart from the rest of the spectrum.
    q, _ = np.linalg.qr(wide(c64(rng, (n, n))))
    values = np.linspace(0.1, 0.5, n).astype(np.complex128)
    values[n // 2] = 3.0 + 1.0j
    a = (q @ np.diag(values) @ q.conj().T).astype(C64)
    v = run(ctx, "quillmark.principal_eigenvector@1", [a], [np.zeros(n, C64)])
    assert abs(np.linalg.norm(v) - 1) < 1e-5
    assert abs(abs(np.vdot(q[:, n // 2], wide(v))) - 1) < 1e-4
    top = v[np.argmax(np.abs(v))]
    assert top.imag == 0 and top.real > 0


def test_power_iteration_refuses_non_finite_and_reports_stalls(ctx):
    a = np.eye(3, dtype=C64)
    a[1, 2] = np.nan
    with pytest.raises(ValueError, match="input must contain only finite entries"):
        run(ctx, "quillmark.principal_eigenvector@1", [a], [np.zeros(3, C64)])
    # Eigenvalues 1 and -1: the iterate flips between two directions and never settles.
    swap = np.diag([1, -1]).astype(C64)
    with pytest.raises(quillmark.NativeError) as info:
        run(ctx, "quillmark.principal_eigenvector@1", [swap], [np.zeros(2, C64)])
    assert info.value.reason == "non_convergence"


ENGINES = [
    pytest.param("AVX2"),
    pytest.param("AVX512", marks=pytest.mark.skipif(not HAS_AVX512, reason="the CPU lacks AVX-512")),
]


@pytest.mark.skipif(FORCED is not None, reason="already inside a forced-engine run")
@pytest.mark.parametrize("engine", ENGINES)
def test_under_forced_engine(engine):
    env = dict(os.environ, QUILLMARK_CPU_SIMD_RUNTIME=engine)
    child = subprocess.run([sys.executable, "-m", "pytest", "-q", "-p", "no:cacheprovider", __file__],
                           env=env, capture_output=True, text=True, cwd=os.path.dirname(__file__))
    assert child.returncode == 0, child.stdout[-3000:] + child.stderr[-2000:]


@pytest.mark.skipif(FORCED is not None, reason="already inside a forced-engine run")
@pytest.mark.parametrize("value,error", [("avx2", "ValueError"), ("", "ValueError")]
                         + ([] if HAS_AVX512 else [("AVX512", "RuntimeError")]))
def test_failed_selection_fails_execution_without_fallback(value, error):
    script = ("import numpy as np, quillmark\nfrom conftest import run\na = np.ones((2, 2), np.complex64)\n"
              "try:\n    run(quillmark.Context(), 'quillmark.matmul@1', [a, a], [a.copy()])\n"
              "except Exception as e:\n    print(type(e).__name__, e)\n")
    env = dict(os.environ, QUILLMARK_CPU_SIMD_RUNTIME=value)
    child = subprocess.run([sys.executable, "-c", script], env=env, capture_output=True, text=True,
                           cwd=os.path.dirname(__file__))
    assert child.stdout.startswith(error), child.stdout + child.stderr
