"""Per-call overhead of Context.execute on a tiny operation, against NumPy's ufunc call in the
same run: an 8-element float64 add into a preallocated output.

Run: python bench/bench_execute.py [--size 8] [--calls 200000]
"""
import argparse
import os
import sys
import time

# One thread on both sides, set before NumPy loads its BLAS.
for _var in ("OPENBLAS_NUM_THREADS", "OMP_NUM_THREADS", "MKL_NUM_THREADS"):
    os.environ.setdefault(_var, "1")

import numpy as np  # noqa: E402

from quillmark import _native  # noqa: E402


def per_call(fn, calls, repeats=7):
    """Best mean time per call over `repeats` batches of `calls` calls."""
    fn()
    best = float("inf")
    for _ in range(repeats):
        start = time.perf_counter()
        for _ in range(calls):
            fn()
        best = min(best, (time.perf_counter() - start) / calls)
    return best


def main(argv=None):
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--size", type=int, default=8)
    parser.add_argument("--calls", type=int, default=200_000)
    args = parser.parse_args(argv)

    ctx = _native.Context()
    x = np.arange(args.size, dtype=np.float64)
    y = np.full(args.size, 2.0)
    z = np.empty(args.size)
    bindings = {"Input0": x, "Input1": y, "Output0": z}
    locations = {"Input0": "host", "Input1": "host", "Output0": "host"}
    execute = ctx.execute

    quill = per_call(lambda: execute("quillmark.add@1", bindings, locations), args.calls)
    np.testing.assert_array_equal(z, x + y)
    numpy = per_call(lambda: np.add(x, y, out=z), args.calls)
    empty = per_call(lambda: None, args.calls)

    print(f"{args.size}-element float64 add, best of 7 x {args.calls} calls (loop overhead {empty * 1e6:.3f} us)")
    print(f"{'path':<34}{'us/call':>10}")
    print(f"{'Context.execute':<34}{quill * 1e6:>10.3f}")
    print(f"{'np.add(x, y, out=z)':<34}{numpy * 1e6:>10.3f}")
    print(f"ratio execute/numpy: {quill / numpy:.2f}")
    return 0


if __name__ == "__main__":
    sys.exit(main())
