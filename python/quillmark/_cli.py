"""``python -m quillmark``: info, describe, check and bench."""

import argparse
import os
import subprocess
import sys
import time

import numpy as np

import quillmark as qm
from ._api import _role_name, canonical_name

_BLAS_THREAD_VARS = ("OPENBLAS_NUM_THREADS", "OMP_NUM_THREADS", "MKL_NUM_THREADS")


def _table(headers, rows):
    """Plain aligned columns: readable in a terminal and in captured logs alike."""
    rows = [[str(c) for c in row] for row in rows]
    widths = [max(len(h), *(len(r[i]) for r in rows)) if rows else len(h)
              for i, h in enumerate(headers)]
    lines = ["  ".join(h.ljust(w) for h, w in zip(headers, widths)).rstrip(),
             "  ".join("-" * w for w in widths)]
    lines += ["  ".join(c.ljust(w) for c, w in zip(r, widths)).rstrip() for r in rows]
    return "\n".join(lines)


def expression(e):
    """A numeric-contract expression as text.

    >>> expression({"operator": "multiply", "operands": [{"operator": "constant", "integer": 2},
    ...     {"operator": "operand_dimension", "role": 0, "axis": 1}]})
    '2 * Input0.shape[1]'
    """
    op = e.get("operator")
    if op == "symbol":
        return e["name"]
    if op == "constant":
        return str(e.get("integer", e.get("value", "?")))
    if op == "operand_dimension":
        return f"{_role_name(e['role'])}.shape[{e['axis']}]"
    parts = [expression(x) for x in e.get("operands", [])]
    joiner = {"add": " + ", "multiply": " * ", "power": "^"}.get(op)
    if joiner and parts:
        return joiner.join(f"({p})" if " " in p and op != "add" else p for p in parts)
    return f"{op}({', '.join(parts)})"


def info_text():
    """The ``info`` report.

    >>> print(info_text())  # doctest: +ELLIPSIS
    quillmark 0.1.1
      SIMD engine      ...
      operations       32 (... implementations: cpu_scalar ...)
    ...
    """
    build = qm.build_info()
    ctx = qm.default_context()
    cat = qm._api._default_catalogue()
    per_backend = {}
    for op in cat.operations():
        for impl in cat.describe(op)["implementations"]:
            per_backend[impl["backend"]] = per_backend.get(impl["backend"], 0) + 1
    impls = ", ".join(f"{k} {v}" for k, v in sorted(per_backend.items()))
    policies = ", ".join(f"{p['dtype']}/{p['compute_dtype']}" for p in qm.numeric_policies())
    lines = [
        f"quillmark {build['version']}",
        f"  SIMD engine      {build['cpu_simd']} (compiled: {build['cpu_simd_compiled']})",
        f"  operations       {len(cat.operations())} ({sum(per_backend.values())} implementations: {impls})",
        f"  threads          {ctx.thread_count} (of {os.cpu_count()} CPUs)",
        f"  backends         {', '.join(qm.available_backends())}; CUDA available: {qm.cuda_is_available()}",
        f"  policies         {policies}",
        f"  NumPy            {np.__version__}",
        f"  Python           {sys.version.split()[0]}",
    ]
    return "\n".join(lines)


def describe_text(name):
    """One operation's contract and implementations, readable.

    >>> print(describe_text("trace"))  # doctest: +ELLIPSIS
    quillmark.trace@1  (handle 20, builtin 0.1.1)
    roles
      Input0   read   matrix
      Output0  write  scalar
    ...
    """
    d = qm.describe(canonical_name(name))
    prov = d["provenance"]
    lines = [f"{d['id']}  (handle {d['handle']}, {prov['kind']} {prov.get('version', '')})".rstrip(),
             "roles"]
    lines += ["  " + line for line in _table(
        ["role", "access", "kind"],
        [(_role_name(r["role"]), r["access"], r["kind"]) for r in d["roles"]]).splitlines()[2:]]
    num = d.get("numerics") or {}
    sections = (
        ("shapes", lambda s: f"{_role_name(s['role'])}: ({', '.join(expression(x) for x in s['shapes'])})"),
        ("constraints", lambda c: f"{expression(c['left'])} {c['relation']} {expression(c['right'])}"),
        ("requirements", lambda r: f"{r['kind']} ({', '.join(_role_name(x) for x in r['roles'])}; "
                                   f"{r['enforcement']}): {r['note']}"),
        ("notes", lambda n: f"- {n}"),
    )
    for key, text in sections:
        if num.get(key):
            lines.append(key)
            lines += ["  " + text(item) for item in num[key]]
    rows = []
    for impl in d["implementations"]:
        n = impl["numerics"]
        operands = " ".join(
            o["dtype"] if o["dtype"] == o["compute_dtype"] else f"{o['dtype']}/{o['compute_dtype']}"
            for o in impl["operands"])
        rows.append((impl["backend"], operands, n.get("algorithm", ""), n.get("stability", ""),
                     n.get("precision", {}).get("mode", ""),
                     expression(n["complexity"]["work"]) if n.get("complexity") else ""))
    lines.append(f"implementations ({len(rows)})")
    lines += ["  " + line for line in _table(
        ["backend", "operand dtypes (storage/compute)", "algorithm", "stability", "precision", "work"],
        rows).splitlines()]
    return "\n".join(lines)


def _check_cases(rng, dtype):
    """(name, quillmark call, NumPy reference) for every built-in operation."""
    def arr(*shape):
        a = rng.standard_normal(shape)
        if np.dtype(dtype).kind == "c":
            a = a + 1j * rng.standard_normal(shape)
        return a.astype(dtype)

    n = 6
    a, b, x, y = arr(n, n), arr(n, n), arr(n), arr(n)
    h = (a @ a.conj().T + n * np.eye(n)).astype(dtype)
    s = arr()
    k = np.kron(arr(2, 2), arr(3, 3))
    q = np.linalg.qr(a)[0].astype(dtype)
    w_h = np.linalg.eigvalsh(h)

    def eig_residual():
        w, v = qm.eig(a)
        return np.abs(a @ v - v * w).max() / max(1.0, np.abs(w).max())

    def eigh_residual():
        w, v = qm.eigh(h)
        return max(np.abs(w - w_h).max(), np.abs(h @ v - v * w).max()) / w_h.max()

    def principal_residual():
        v = qm.principal_eigenvector(h)
        return abs(1 - abs(np.vdot(np.linalg.eigh(h)[1][:, -1], v)))

    root = np.abs(x) if x.dtype.kind == "f" else x  # real square roots of negatives are NaN
    return [
        ("sqrt", lambda: qm.sqrt(root), lambda: np.sqrt(root)),
        ("conjugate", lambda: qm.conjugate(x), lambda: np.conj(x)),
        ("multiply", lambda: qm.multiply(x, y), lambda: x * y),
        ("add", lambda: qm.add(x, y), lambda: x + y),
        ("subtract", lambda: qm.subtract(x, y), lambda: x - y),
        ("sum", lambda: qm.sum(x), lambda: x.sum()),
        ("norm", lambda: qm.norm(x), lambda: np.linalg.norm(x)),
        ("scale", lambda: qm.scale(x, s), lambda: x * s),
        ("divide", lambda: qm.divide(x, s), lambda: x / s),
        ("transpose", lambda: qm.transpose(a), lambda: a.T),
        ("adjoint", lambda: qm.adjoint(a), lambda: a.conj().T),
        ("matmul", lambda: qm.matmul(a, b), lambda: a @ b),
        ("matvec", lambda: qm.matvec(a, x), lambda: a @ x),
        ("kron", lambda: qm.kron(a[:2, :3], b[:3, :2]), lambda: np.kron(a[:2, :3], b[:3, :2])),
        ("inner", lambda: qm.inner(x, y), lambda: np.vdot(x, y)),
        ("outer", lambda: qm.outer(x, y), lambda: np.outer(x, y)),
        ("lu_factor", lambda: qm.solve(qm.lu_factor(a), y), lambda: np.linalg.solve(a, y)),
        ("solve", lambda: qm.solve(a, y), lambda: np.linalg.solve(a, y)),
        ("logdet", lambda: np.exp(qm.logdet(a)), lambda: np.linalg.det(a)),
        ("trace", lambda: qm.trace(a), lambda: np.trace(a)),
        ("eig", eig_residual, lambda: 0.0),
        ("principal_eigenvector", principal_residual, lambda: 0.0),
        ("partial_trace_left", lambda: qm.partial_trace_left(k, 3),
         lambda: sum(k[i * 3:(i + 1) * 3, i * 3:(i + 1) * 3] for i in range(2))),
        ("partial_trace_right", lambda: qm.partial_trace_right(k, 2),
         lambda: k.reshape(2, 3, 2, 3).trace(axis1=1, axis2=3)),
        ("matrix_power", lambda: qm.matrix_power(a / 2, 3), lambda: np.linalg.matrix_power(a / 2, 3)),
        ("is_unitary", lambda: float(qm.is_unitary(q)), lambda: 1.0),
        ("eye", lambda: qm.eye(n, dtype=dtype), lambda: np.eye(n)),
        ("vector_equal", lambda: float(qm.vector_equal(x, x.copy())), lambda: 1.0),
        ("eigh", eigh_residual, lambda: 0.0),
        ("eigvalsh", lambda: qm.eigvalsh(h), lambda: w_h),
        ("slogdet", lambda: qm.slogdet(a)[1], lambda: np.linalg.slogdet(a)[1]),
        ("logdet_positive_definite", lambda: qm.logdet_positive_definite(h),
         lambda: np.linalg.slogdet(h)[1]),
    ]


def check(dtypes=("float32", "float64", "complex64", "complex128"), out=sys.stdout):
    """Run every operation against NumPy; print a table; return whether all passed."""
    rows, ok = [], True
    for dtype in dtypes:
        tol = 1e-3 if dtype in ("float32", "complex64") else 1e-9
        rng = np.random.default_rng(0)
        for name, ours, theirs in _check_cases(rng, dtype):
            try:
                got, want = np.asarray(ours(), np.complex128), np.asarray(theirs(), np.complex128)
                err = float(np.abs(got - want).max(initial=0) / max(1.0, np.abs(want).max(initial=0)))
                passed = err <= tol
                detail = f"{err:.1e}"
            except Exception as e:  # a failing operation is a row of the report, not a crash
                passed, detail = False, f"{type(e).__name__}: {e}"[:60]
            ok &= passed
            rows.append((name, dtype, detail, "pass" if passed else "FAIL"))
    print(_table(["operation", "dtype", "error", "result"], rows), file=out)
    failed = sum(r[3] == "FAIL" for r in rows)
    print(f"{len(rows) - failed} passed, {failed} failed", file=out)
    return ok


# bench: work counts for GFLOP/s (real flops; complex arithmetic counts four times).
_BENCH = {
    "matmul": (lambda n: 2 * n**3, lambda a, v, h, c: (lambda: qm.matmul(a, a, context=c), lambda: a @ a)),
    "matvec": (lambda n: 2 * n**2, lambda a, v, h, c: (lambda: qm.matvec(a, v, context=c), lambda: a @ v)),
    "solve": (lambda n: 2 * n**3 / 3 + 2 * n**2,
              lambda a, v, h, c: (lambda: qm.solve(a, v, context=c), lambda: np.linalg.solve(a, v))),
    "slogdet": (lambda n: 2 * n**3 / 3,
                lambda a, v, h, c: (lambda: qm.slogdet(a, context=c), lambda: np.linalg.slogdet(a))),
    "eigh": (lambda n: 4 * n**3 / 3,
             lambda a, v, h, c: (lambda: qm.eigh(h, context=c), lambda: np.linalg.eigh(h))),
}


def _best(fn, budget):
    fn()
    runs, best, start = 0, float("inf"), time.perf_counter()
    while runs < 3 or time.perf_counter() - start < budget:
        t = time.perf_counter()
        fn()
        best = min(best, time.perf_counter() - t)
        runs += 1
    return best


def _progress(items, **kw):
    try:
        from tqdm import tqdm
    except ImportError:
        return items
    return tqdm(items, **kw)


def bench(args, argv):
    try:
        threads = qm.Context(thread_count=args.threads).thread_count
    except ValueError as e:
        print(f"error: {e}", file=sys.stderr)
        return 2
    if any(os.environ.get(v) != str(threads) for v in _BLAS_THREAD_VARS):
        # NumPy's BLAS reads its thread count once, when it loads: rerun with it fixed.
        env = dict(os.environ, **{v: str(threads) for v in _BLAS_THREAD_VARS})
        return subprocess.call([sys.executable, "-m", "quillmark", *argv], env=env)
    ctx = qm.Context(thread_count=threads) if args.threads else qm.default_context()
    rng = np.random.default_rng(0)
    factor = 4 if np.dtype(args.dtype).kind == "c" else 1
    cases = [(op, n) for op in args.ops for n in args.sizes]
    rows, series = [], {}
    for op, n in _progress(cases, desc="bench", unit="case", file=sys.stderr):
        work, make = _BENCH[op]
        a = rng.standard_normal((n, n)).astype(args.dtype)
        v = rng.standard_normal(n).astype(args.dtype)
        ours, theirs = make(a, v, (a + a.conj().T).astype(args.dtype), ctx)
        t_q, t_n = _best(ours, args.budget), _best(theirs, args.budget)
        gq, gn = factor * work(n) / t_q / 1e9, factor * work(n) / t_n / 1e9
        rows.append((op, n, f"{t_q * 1e3:.3f}", f"{t_n * 1e3:.3f}", f"{gq:.2f}", f"{gn:.2f}",
                     f"{t_n / t_q:.2f}"))
        series.setdefault(op, []).append((n, gq, gn))
    print(f"quillmark {qm.build_info()['cpu_simd']}, {threads} thread(s); NumPy BLAS threads "
          f"{threads}; dtype {args.dtype}; ratio > 1: quillmark faster")
    print(_table(["operation", "n", "quillmark ms", "numpy ms", "quillmark GFLOP/s",
                  "numpy GFLOP/s", "ratio"], rows))
    if args.plot:
        try:
            import matplotlib
            matplotlib.use("Agg")
            import matplotlib.pyplot as plt
        except ImportError:
            print("matplotlib is not installed (pip install 'quillmark[plot]'): no plot written")
            return 0
        fig, ax = plt.subplots(figsize=(7, 4.5))
        for op, points in series.items():
            ns = [p[0] for p in points]
            line, = ax.plot(ns, [p[1] for p in points], marker="o", label=f"quillmark {op}")
            ax.plot(ns, [p[2] for p in points], marker="x", linestyle="--", color=line.get_color(),
                    label=f"NumPy {op}")
        ax.set_xlabel("n")
        ax.set_ylabel("GFLOP/s")
        ax.set_title(f"{args.dtype}, {threads} thread(s)")
        ax.legend(fontsize="small")
        fig.tight_layout()
        try:
            fig.savefig(args.plot, dpi=100)
        except OSError as e:
            print(f"error: plot not written: {e}", file=sys.stderr)
            return 1
        print(f"plot written to {args.plot}")
    return 0


def _at_least(low, kind=int):
    def parse(text):
        try:
            value = kind(text)
        except ValueError:
            raise argparse.ArgumentTypeError(f"invalid {kind.__name__} value: {text!r}") from None
        if value < low:
            raise argparse.ArgumentTypeError(f"must be at least {low}, got {text}")
        return value
    return parse


def main(argv=None):
    argv = sys.argv[1:] if argv is None else list(argv)
    parser = argparse.ArgumentParser(prog="python -m quillmark",
                                     description="Inspect, check and benchmark quillmark.")
    sub = parser.add_subparsers(dest="command", required=True)
    sub.add_parser("info", help="version, SIMD engine, threads, backends, catalogue summary")
    p = sub.add_parser("describe", help="one operation's contract and implementations")
    p.add_argument("operation", help="e.g. solve, quillmark.solve or quillmark.solve@1")
    p = sub.add_parser("check", help="run every operation against NumPy")
    dtypes = ["float32", "float64", "complex64", "complex128"]
    p.add_argument("--dtypes", nargs="+", default=dtypes, choices=dtypes)
    p = sub.add_parser("bench", help="time operations against NumPy at equal threads")
    p.add_argument("--ops", nargs="+", default=["matmul", "solve", "slogdet"], choices=sorted(_BENCH))
    p.add_argument("--sizes", nargs="+", type=_at_least(1), default=[64, 128, 256, 512])
    p.add_argument("--dtype", default="float64", choices=dtypes)
    p.add_argument("--threads", type=_at_least(0), default=0, help="0: quillmark's default")
    p.add_argument("--budget", type=_at_least(0.0, float), default=0.3,
                   help="seconds of timing per case and side")
    p.add_argument("--plot", default="quillmark-bench.png", help="PNG path ('' for none)")
    args = parser.parse_args(argv)
    if args.command == "bench" and args.plot and not os.path.isdir(os.path.dirname(os.path.abspath(args.plot))):
        # Found out before the timings, not after them.
        p.error(f"argument --plot: no such directory for {args.plot!r}")
    if args.command == "info":
        print(info_text())
    elif args.command == "describe":
        try:
            print(describe_text(args.operation))
        except (IndexError, ValueError) as e:
            print(f"error: {e}", file=sys.stderr)
            return 2
    elif args.command == "check":
        return 0 if check(tuple(args.dtypes)) else 1
    elif args.command == "bench":
        return bench(args, argv)
    return 0
