"""Many Python threads executing at once, each result checked against NumPy.

Executions release the interpreter lock, so these calls really overlap inside the library:
on one shared context, on contexts of their own, and while contexts are made and dropped.
Failing calls are mixed in so that error paths run beside successful ones.
"""
import os
import threading

import numpy as np
import pytest

import quillmark
from conftest import FLOATING, TOLERANCE, random_array, run

THREADS, CALLS = 8, 500
# Worker threads where the machine has them (one CPU stays with the caller), so that loops
# inside the kernels are split across the pool as well.
WORKERS = max(1, min(4, (os.cpu_count() or 2) - 1))


def context():
    return quillmark.Context(thread_count=WORKERS, min_parallel_work=1)


def close(got, want, dtype):
    tol = TOLERANCE[np.dtype(dtype).type] * 10
    return np.allclose(got, want, rtol=tol, atol=tol * max(1.0, float(np.max(np.abs(want), initial=0))))


def hermitian(a):
    return (a + a.conj().T).astype(a.dtype)


# operation, inputs made from (random maker, n), NumPy reference
OPERATIONS = [
    ("matmul", lambda r, n: [r(n, 7), r(7, n)], np.matmul),
    ("add", lambda r, n: [r(50 * n), r(50 * n)], np.add),
    ("matvec", lambda r, n: [r(n, n + 3), r(n + 3)], np.matmul),
    ("adjoint", lambda r, n: [r(n, n + 1)], lambda a: a.conj().T),
    ("sum", lambda r, n: [r(30 * n)], np.sum),
    ("eigvalsh", lambda r, n: [hermitian(r(n, n))], np.linalg.eigvalsh),
]


def one_call(ctx, rng):
    """Runs one random operation; True when its outcome matches NumPy."""
    dtype = rng.choice(FLOATING)
    kind = int(rng.integers(0, len(OPERATIONS) + 2))
    n = int(rng.integers(1, 40))
    if kind < len(OPERATIONS):
        operation, make, reference = OPERATIONS[kind]
        inputs = make(lambda *shape: random_array(rng, shape, dtype), n)
        want = np.asarray(reference(*inputs))
        out = run(ctx, f"quillmark.{operation}@1", inputs, [np.zeros(want.shape, want.dtype)])
        return close(out, want, dtype)
    if kind == len(OPERATIONS):
        a = random_array(rng, (n, n), dtype) + n * np.eye(n, dtype=dtype)
        rhs = random_array(rng, n, dtype)
        x = rhs.copy()
        quillmark.LUFactor(a, ctx).solve(x)
        return close(a @ x, rhs, dtype)
    # A singular solve: the failure must arrive, as NativeError, on the calling thread only.
    try:
        quillmark.LUFactor(np.zeros((n, n), dtype), ctx)
    except quillmark.NativeError as error:
        return error.reason == "singular"
    return False


def hammer(make_context, renew_every=0):
    """THREADS threads x CALLS calls; returns the number of wrong results. With `renew_every`, every
    other thread moves to a context of its own that often, dropping the last one while the others run."""
    wrong, errors = [0] * THREADS, []
    start = threading.Barrier(THREADS)

    def worker(index):
        try:
            ctx = make_context()
            rng = np.random.default_rng(index)
            start.wait()
            for call in range(CALLS):
                if renew_every and index % 2 and call % renew_every == 0:
                    ctx = context()
                wrong[index] += not one_call(ctx, rng)
        except BaseException as error:  # reported on the main thread
            errors.append(error)

    threads = [threading.Thread(target=worker, args=(i,)) for i in range(THREADS)]
    for t in threads:
        t.start()
    for t in threads:
        t.join(timeout=600)
    assert not any(t.is_alive() for t in threads), "threads still running: a hang"
    assert not errors, errors[0]
    return sum(wrong)


@pytest.mark.parametrize("mode", ["one_shared_context", "a_context_each", "contexts_dropped_while_others_run"])
def test_threads_get_numpy_results(mode):
    shared = context()
    make = context if mode == "a_context_each" else lambda: shared
    assert hammer(make, renew_every=10 if mode == "contexts_dropped_while_others_run" else 0) == 0
