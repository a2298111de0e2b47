"""Many Python threads executing at once, each result checked against NumPy.

Executions release the interpreter lock, so these calls really overlap inside the library:
on one shared context, on contexts of their own, and while contexts are made and dropped.
Failing calls are mixed in so that error paths run beside successful ones.
"""
import gc
import os
import threading
import time

import numpy as np
import pytest

import quillmark
from conftest import TOLERANCE, random_array, run

THREADS, CALLS = 8, 500
# Worker threads where the machine has them (one CPU stays with the caller), so that loops
# inside the kernels are split across the pool as well.
WORKERS = max(1, min(4, (os.cpu_count() or 2) - 1))


def context():
    return quillmark.Context(thread_count=WORKERS, min_parallel_work=1)


def close(got, want, dtype):
    tol = TOLERANCE[np.dtype(dtype).type] * 10
    return np.allclose(got, want, rtol=tol, atol=tol * max(1.0, float(np.max(np.abs(want), initial=0))))


def one_call(ctx, rng):
    """Runs one random operation; True when its outcome matches NumPy."""
    dtype = rng.choice([np.float32, np.float64, np.complex64, np.complex128])
    kind = rng.integers(0, 8)
    n = int(rng.integers(1, 40))
    if kind == 0:
        a, b = random_array(rng, (n, 7), dtype), random_array(rng, (7, n), dtype)
        out = np.zeros((n, n), dtype)
        run(ctx, "quillmark.matmul@1", [a, b], [out])
        return close(out, a @ b, dtype)
    if kind == 1:
        x, y = random_array(rng, 50 * n, dtype), random_array(rng, 50 * n, dtype)
        out = np.zeros_like(x)
        run(ctx, "quillmark.add@1", [x, y], [out])
        return close(out, x + y, dtype)
    if kind == 2:
        a, x = random_array(rng, (n, n + 3), dtype), random_array(rng, n + 3, dtype)
        out = np.zeros(n, dtype)
        run(ctx, "quillmark.matvec@1", [a, x], [out])
        return close(out, a @ x, dtype)
    if kind == 3:
        a = random_array(rng, (n, n + 1), dtype)
        out = np.zeros((n + 1, n), dtype)
        run(ctx, "quillmark.adjoint@1", [a], [out])
        return close(out, a.conj().T, dtype)
    if kind == 4:
        x = random_array(rng, 30 * n, dtype)
        out = np.zeros((), dtype)
        run(ctx, "quillmark.sum@1", [x], [out])
        return close(out, x.sum(), dtype)
    if kind == 5:
        a = random_array(rng, (n, n), dtype) + n * np.eye(n, dtype=dtype)
        rhs = random_array(rng, n, dtype)
        x = rhs.copy()
        quillmark.LUFactor(a, ctx).solve(x)
        return close(a @ x, rhs, dtype)
    if kind == 6:
        a = random_array(rng, (n, n), dtype)
        a = (a + a.conj().T).astype(dtype)
        values = np.zeros(n, np.empty(0, dtype).real.dtype)
        run(ctx, "quillmark.eigvalsh@1", [a], [values])
        return close(values, np.linalg.eigvalsh(a.astype(np.complex128)), dtype)
    # A singular solve: the failure must arrive, as NativeError, on the calling thread only.
    a = np.zeros((n, n), dtype)
    try:
        quillmark.LUFactor(a, ctx)
    except quillmark.NativeError as error:
        return error.reason == "singular"
    return False


def hammer(make_context):
    """THREADS threads x CALLS calls; returns (wrong results, seconds)."""
    wrong, errors = [0] * THREADS, []
    start = threading.Barrier(THREADS)

    def worker(index):
        try:
            ctx = make_context()
            rng = np.random.default_rng(index)
            start.wait()
            wrong[index] = sum(not one_call(ctx, rng) for _ in range(CALLS))
        except BaseException as error:  # reported on the main thread
            errors.append(error)

    began = time.perf_counter()
    threads = [threading.Thread(target=worker, args=(i,)) for i in range(THREADS)]
    for t in threads:
        t.start()
    for t in threads:
        t.join(timeout=600)
    assert not any(t.is_alive() for t in threads), "threads still running: a hang"
    assert not errors, errors[0]
    elapsed = time.perf_counter() - began
    print(f"\n{THREADS} threads x {CALLS} calls: {sum(wrong)} wrong, {elapsed:.2f} s")
    return sum(wrong), elapsed


@pytest.mark.parametrize("shared", [True, False], ids=["one_shared_context", "a_context_each"])
def test_threads_get_numpy_results(shared):
    ctx = context()
    wrong, _ = hammer((lambda: ctx) if shared else context)
    assert wrong == 0


def test_contexts_dropped_while_others_run():
    shared, stop, failures = context(), threading.Event(), []

    def steady(seed):
        rng = np.random.default_rng(seed)
        while not stop.is_set():
            if not one_call(shared, rng):
                failures.append(seed)

    threads = [threading.Thread(target=steady, args=(i,)) for i in range(4)]
    for t in threads:
        t.start()
    rng = np.random.default_rng(99)
    try:
        for _ in range(40):
            transient = context()
            for _ in range(5):
                if not one_call(transient, rng):
                    failures.append("transient")
            del transient
            gc.collect()
    finally:
        stop.set()
        for t in threads:
            t.join(timeout=600)
    assert not any(t.is_alive() for t in threads)
    assert not failures
