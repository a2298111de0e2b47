"""Times quillmark operation families against NumPy in the same run and prints throughput ratios.

NumPy's BLAS is limited to the thread count quillmark uses (one CPU is held back for the caller),
so both sides run on equal resources. Run: python bench/bench_ops.py [--sizes 256 1024]
"""
import argparse
import os
import sys
import time


def _threads():
    cpus = os.cpu_count() or 1
    return max(cpus - 1, 1)


# Must be set before NumPy loads its BLAS.
for _var in ("OPENBLAS_NUM_THREADS", "OMP_NUM_THREADS", "MKL_NUM_THREADS"):
    os.environ[_var] = str(_threads())
os.environ.pop("OPENBLAS_CORETYPE", None)
os.environ.pop("OPENBLAS_L2_SIZE", None)

import numpy as np  # noqa: E402

import quillmark  # noqa: E402


def hermitian(m, dtype):
    """m in dtype, made exactly Hermitian: a product's two triangles may round differently."""
    m = m.astype(dtype)
    return ((m + m.conj().T) / 2).astype(dtype)


def best_time(fn, budget=0.6, min_runs=3):
    fn()
    runs, best, start = 0, float("inf"), time.perf_counter()
    while runs < min_runs or time.perf_counter() - start < budget:
        t = time.perf_counter()
        fn()
        best = min(best, time.perf_counter() - t)
        runs += 1
    return best


def cases(n, dtype, rng):
    def arr(*shape):
        a = rng.standard_normal(shape)
        if np.dtype(dtype).kind == "c":
            a = a + 1j * rng.standard_normal(shape)
        return a.astype(dtype)

    a, b = arr(n, n), arr(n, n)
    v, w = arr(n * n), arr(n * n)
    x = arr(n)
    spd = hermitian(a @ a.conj().T + n * np.eye(n), dtype)
    out_m = np.empty((n, n), dtype)
    out_v = np.empty(n * n, dtype)
    out_x = np.empty(n, dtype)
    real = np.empty(0, dtype).real.dtype
    scalar = np.zeros((), dtype)
    yield "matmul", ("quillmark.matmul@1", [a, b], [out_m]), lambda: a @ b
    yield "matvec", ("quillmark.matvec@1", [a, x], [out_x]), lambda: a @ x
    yield "add", ("quillmark.add@1", [v, w], [out_v]), lambda: np.add(v, w, out=out_v)
    yield "multiply", ("quillmark.multiply@1", [v, w], [out_v]), lambda: np.multiply(v, w, out=out_v)
    yield "subtract", ("quillmark.subtract@1", [v, w], [out_v]), lambda: np.subtract(v, w, out=out_v)
    factor = np.array(v[1])
    yield "scale", ("quillmark.scale@1", [v, factor], [out_v]), lambda: np.multiply(v, factor, out=out_v)
    yield "sqrt", ("quillmark.sqrt@1", [v], [out_v]), lambda: np.sqrt(v, out=out_v)
    flipped = v.copy()  # conjugated in place, run after run
    yield "conjugate", ("quillmark.conjugate@1", [], [flipped]), lambda: np.conjugate(flipped, out=flipped)
    fortran = np.asfortranarray(a)
    yield "matvec_f", ("quillmark.matvec@1", [fortran, x], [out_x]), lambda: fortran @ x
    yield "sum", ("quillmark.sum@1", [v], [scalar]), lambda: v.sum()
    yield "norm", ("quillmark.norm@1", [v], [np.zeros((), real)]), lambda: np.linalg.norm(v)
    yield "transpose", ("quillmark.transpose@1", [a], [out_m]), lambda: np.copyto(out_m, a.T)
    if n <= 256:
        yield "slogdet", ("quillmark.slogdet@1", [a], [np.zeros((), dtype), np.zeros((), real)]), \
            lambda: np.linalg.slogdet(a)
        yield "eigh", ("quillmark.eigh@1", [spd], [np.empty(n, real), np.empty((n, n), dtype)]), \
            lambda: np.linalg.eigh(spd)
        yield "logdet_pd", ("quillmark.logdet_positive_definite@1", [spd], [np.zeros((), real)]), \
            lambda: np.linalg.cholesky(spd)


def solver_cases(ctx, n, dtype, rng):
    """Factorisations and eigen solvers against SciPy/NumPy: (name, quillmark call, reference call)."""
    import scipy.linalg

    a = rng.standard_normal((n, n))
    if np.dtype(dtype).kind == "c":
        a = a + 1j * rng.standard_normal((n, n))
    a = a.astype(dtype)
    spd = hermitian(a @ a.conj().T + n * np.eye(n), dtype)
    real = np.empty(0, dtype).real.dtype

    def run(op, ins, outs):
        bindings = {f"Input{i}": x for i, x in enumerate(ins)}
        bindings.update({f"Output{j}": x for j, x in enumerate(outs)})
        locations = {k: "host" for k in bindings}
        return lambda: ctx.execute(op, bindings, locations)

    yield "lu_factor", lambda: quillmark.LUFactor(a, ctx), lambda: scipy.linalg.lu_factor(a)
    yield "slogdet", run("quillmark.slogdet@1", [a], [np.zeros((), dtype), np.zeros((), real)]), \
        lambda: np.linalg.slogdet(a)
    yield "logdet_pd", run("quillmark.logdet_positive_definite@1", [spd], [np.zeros((), real)]), \
        lambda: np.log(np.diagonal(np.linalg.cholesky(spd)).real).sum()
    yield "eigh", run("quillmark.eigh@1", [spd], [np.empty(n, real), np.empty((n, n), dtype)]), \
        lambda: np.linalg.eigh(spd)
    if n <= 256:
        eigen = quillmark.EigenOperand(n, str(np.result_type(dtype, np.complex64)))
        yield "eig", run("quillmark.eig@1", [a], [eigen]), lambda: np.linalg.eig(a)


def simd_cases(ctx, rng):
    """complex64 through the cpu_simd backend at the sizes its targets name: (n, name, ours, numpy/scipy)."""
    import scipy.linalg

    def c64(*shape):
        return (rng.standard_normal(shape) + 1j * rng.standard_normal(shape)).astype(np.complex64)

    def call(op, ins, outs):
        bindings = {f"Input{i}": a for i, a in enumerate(ins)}
        bindings.update({f"Output{j}": a for j, a in enumerate(outs)})
        locations = {k: "host" for k in bindings}
        return lambda: ctx.execute(op, bindings, locations)

    a, b = c64(1024, 1024), c64(1024, 1024)
    yield 1024, "matmul", call("quillmark.matmul@1", [a, b], [np.empty((1024, 1024), np.complex64)]), lambda: a @ b
    big, x = c64(4096, 4096), c64(4096)
    yield 4096, "matvec", call("quillmark.matvec@1", [big, x], [np.empty(4096, np.complex64)]), lambda: big @ x
    # A fresh operand per run: factorising in place twice would time a different matrix.
    yield 1024, "lu_factor", lambda: call("quillmark.lu_factor@1", [], [quillmark.LUOperand(a)])(), \
        lambda: scipy.linalg.lu_factor(a)
    e = c64(256, 256)
    yield 256, "eig", call("quillmark.eig@1", [e], [quillmark.EigenOperand(256, "complex64")]), \
        lambda: np.linalg.eig(e)


def main():
    parser = argparse.ArgumentParser(description=__doc__)
    parser.add_argument("--sizes", type=int, nargs="+", default=[256, 1024])
    parser.add_argument("--dtypes", nargs="+", default=["float64", "float32", "complex64", "complex128"])
    parser.add_argument("--solvers", action="store_true", help="time the factorisations and eigen solvers instead")
    parser.add_argument("--only", nargs="+", default=None, help="operation names to time (default: all)")
    parser.add_argument("--simd", action="store_true", help="only the complex64 cpu_simd target cases")
    args = parser.parse_args()
    ctx = quillmark.Context()
    rng = np.random.default_rng(0)
    print(f"quillmark {quillmark.build_info()['cpu_simd']}, {ctx.thread_count} thread(s); "
          f"NumPy BLAS threads {_threads()}")
    print(f"{'n':>5} {'dtype':>10} {'operation':>10} {'quillmark ms':>13} {'numpy ms':>10} {'ratio':>7}")
    if args.simd:
        for n, name, ours_fn, reference in simd_cases(ctx, rng):
            ours, theirs = best_time(ours_fn), best_time(reference)
            print(f"{n:>5} {'complex64':>10} {name:>10} {ours * 1e3:>13.3f} {theirs * 1e3:>10.3f} {theirs / ours:>7.2f}")
            sys.stdout.flush()
        return
    for n in args.sizes:
        for dtype in args.dtypes:
            if args.solvers:
                for name, ours_fn, reference in solver_cases(ctx, n, dtype, rng):
                    if args.only and name not in args.only:
                        continue
                    ours, theirs = best_time(ours_fn), best_time(reference)
                    print(f"{n:>5} {dtype:>10} {name:>10} {ours * 1e3:>13.3f} {theirs * 1e3:>10.3f} {theirs / ours:>7.2f}")
                sys.stdout.flush()
                continue
            for name, (op, ins, outs), reference in cases(n, dtype, rng):
                if args.only and name not in args.only:
                    continue
                bindings = {f"Input{i}": a for i, a in enumerate(ins)}
                bindings.update({f"Output{j}": a for j, a in enumerate(outs)})
                locations = {k: "host" for k in bindings}
                try:
                    ours = best_time(lambda: ctx.execute(op, bindings, locations))
                except quillmark.NativeError as error:  # e.g. a layout no registration or adapter serves
                    print(f"{n:>5} {dtype:>10} {name:>10} {'n/a':>13} {'':>10} {'':>7}  {error.reason}")
                    continue
                theirs = best_time(reference)
                # ratio > 1 means quillmark is faster
                print(f"{n:>5} {dtype:>10} {name:>10} {ours * 1e3:>13.3f} {theirs * 1e3:>10.3f} {theirs / ours:>7.2f}")
            sys.stdout.flush()


if __name__ == "__main__":
    main()
