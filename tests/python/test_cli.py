"""``python -m quillmark`` commands, each run as its own process."""
import importlib.util
import os
import subprocess
import sys

import pytest


def run(*args, cwd=None):
    env = dict(os.environ, PYTHONWARNINGS="ignore")
    return subprocess.run([sys.executable, "-m", "quillmark", *args], capture_output=True,
                          text=True, timeout=300, cwd=cwd, env=env)


@pytest.mark.parametrize("args, fragments", [
    (["info"], ["quillmark 0.1.1", "SIMD engine", "threads", "32 (", "cpu_scalar"]),
    (["describe", "eigh"], ["roles", "Input0", "notes", "implementations", "float64"]),
    (["describe", "quillmark.solve@1"], ["roles", "Input0", "notes", "implementations", "float64"]),
    (["check", "--dtypes", "float64", "complex64"], ["64 passed, 0 failed"]),
])
def test_command(args, fragments):
    result = run(*args)
    assert result.returncode == 0, result.stdout + result.stderr
    assert all(fragment in result.stdout for fragment in fragments), result.stdout


@pytest.mark.parametrize("args, fragment", [
    (["describe", "no_such_operation"], "not registered"),
    (["bench", "--sizes", "-3"], "--sizes: must be at least 1"),
    (["bench", "--threads", "-1"], "--threads: must be at least 0"),
    (["bench", "--threads", "4096", "--sizes", "8"], "requested CPU thread count exceeds"),
    (["bench", "--plot", "/no/such/dir/x.png"], "--plot: no such directory"),
    (["check", "--dtypes", "int32"], "invalid choice: 'int32'"),
])
def test_bad_arguments_fail_cleanly(args, fragment):
    result = run(*args)
    assert result.returncode == 2
    assert fragment in result.stderr and "Traceback" not in result.stderr, result.stderr


def test_bench_tiny(tmp_path):
    plot = tmp_path / "bench.png"
    result = run("bench", "--sizes", "8", "16", "--ops", "matmul", "solve", "--budget", "0",
                 "--plot", str(plot))
    assert result.returncode == 0, result.stderr
    lines = result.stdout.splitlines()
    assert "NumPy BLAS threads" in lines[0]
    assert sum(line.startswith(("matmul ", "solve ")) for line in lines) == 4
    if importlib.util.find_spec("matplotlib"):
        assert plot.stat().st_size > 1000 and plot.read_bytes()[:4] == b"\x89PNG"
    else:
        assert "no plot written" in result.stdout
