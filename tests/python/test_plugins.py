"""Native plugins compiled from C at test time and loaded in forked children, so that a loader
crash fails one test instead of the run."""

import gc
import multiprocessing
import os
import shutil
import subprocess
import sys
import threading
import warnings
from pathlib import Path

import numpy as np
import pytest

import quillmark
from quillmark import _native

from conftest import host

ROOT = Path(__file__).resolve().parents[2]
SOURCE = Path(__file__).parent / "plugins" / "probe_plugin.c"
CC = shutil.which("cc")
ATTRS = ("operation", "reason", "library", "native_status", "status_name", "detail")

pytestmark = pytest.mark.skipif(CC is None or not hasattr(_native, "ContextBuilder"),
                                reason="needs a C compiler and the context builder")


def compile_plugin(source, output, *defines):
    command = [CC, "-std=c11", "-Wall", "-Wextra", "-Werror", "-O1", "-shared", "-fPIC",
               f"-I{quillmark.get_include()}", *(f"-D{d}" for d in defines), str(source), "-o", str(output)]
    result = subprocess.run(command, capture_output=True, text=True)
    assert result.returncode == 0, result.stderr
    return str(output)


@pytest.fixture(scope="module")
def plugin(tmp_path_factory):
    """plugin(*defines) -> path of the probe plugin built with those -D switches."""
    root = tmp_path_factory.mktemp("plugins")
    built = {}

    def build(*defines):
        if defines not in built:
            built[defines] = compile_plugin(SOURCE, root / f"probe_{len(built)}.so", *defines)
        return built[defines]

    return build


def _child(send, fn, args):
    try:
        outcome = ("ok", fn(*args))
    except BaseException as e:  # reported to the parent, which asserts on it
        outcome = ("error", type(e).__name__, str(e), {a: getattr(e, a) for a in ATTRS if hasattr(e, a)})
    send.send(outcome)
    send.close()
    os._exit(0)


def in_child(fn, *args):
    """fn(*args) in a forked child: ("ok", result) or ("error", type name, message, attributes)."""
    context = multiprocessing.get_context("fork")
    receive, send = context.Pipe(duplex=False)
    process = context.Process(target=_child, args=(send, fn, args))
    with warnings.catch_warnings():  # the child only uses objects it creates itself
        warnings.filterwarnings("ignore", "This process .* is multi-threaded", DeprecationWarning)
        process.start()
    send.close()
    outcome = receive.recv() if receive.poll(120) else None
    process.join(30)
    if outcome is None:
        pytest.fail(f"plugin child ended without a result (exit code {process.exitcode})")
    return outcome


def snapshot(catalogue):
    """Everything describe says about every operation, for comparing builders."""
    return {op: catalogue.describe(op) for op in catalogue.operations()}


def refusal_leaves_builder(path, preload=()):
    """Load `path` after `preload` and report the failure, checking that the refused plugin left
    the builder exactly as a builder that never saw it."""
    builder, reference = _native.ContextBuilder(), _native.ContextBuilder()
    for other in preload:
        builder.load_plugin(other)
        reference.load_plugin(other)
    try:
        builder.load_plugin(path)
    except Exception as e:
        failure = (type(e).__name__, str(e), {a: getattr(e, a) for a in ATTRS if hasattr(e, a)})
    else:
        return "loaded"
    assert snapshot(builder.build()) == snapshot(reference.build())
    return failure


def expect_refusal(outcome, kind, message, **attrs):
    assert outcome[0] == "ok", outcome
    assert outcome[1] != "loaded", "the plugin was accepted"
    got_kind, got_message, got_attrs = outcome[1]
    assert (got_kind, got_message) == (kind, message)
    for name, value in attrs.items():
        assert got_attrs[name] == value


REGISTRATION_FAULTS = {
    1: "native plugin supplied a null kernel registration",
    2: "quillmark_kernel_spec has an invalid struct_size",
    3: "quillmark_operation_id has an invalid struct_size",
    4: "operation name is malformed",
    5: "native plugin registered CUDA code with CUDA disabled",
    6: "native plugin declared an invalid backend",
    7: "native kernel callback must not be null",
    8: "native kernel operand array is malformed",
    9: "native kernel operand array is malformed",
    10: "quillmark_backend_operand has an invalid struct_size",
    11: "native plugin declared an invalid operand kind",
    12: "native plugin declared an invalid location",
    13: "native plugin declared an invalid scalar type",
    14: "native plugin declared an invalid complex layout",
    15: "native plugin declared an invalid matrix layout",
    16: "native plugin declared an invalid access",
    17: "DataTypeDescriptor - storage and compute categories differ",
    18: "native plugin operand complex layout disagrees with its logical dtype",
    19: "native plugin scalar and vector kernels require QUILLMARK_MATRIX_LAYOUT_NONE",
    20: "native kernel arity does not match operation 'probe.scale@1'",
    21: "native kernel role/access/family does not match operation 'probe.scale@1'",
    22: "native kernel role/access/family does not match operation 'probe.scale@1'",
    23: "native kernel refers to unregistered operation 'other.scale@1'",
    24: "native kernel must have at least one write or read-write operand",
    25: "native kernel operand schema has too many storage buffers",
    26: "native plugin matrix kernels require row-major or column-major layout",
    27: "native kernel role/access/family does not match operation 'probe.swapped@1'",
    28: "OperationId - names must use lower-case ASCII identifier segments",
    29: "quillmark_backend_operand has an invalid struct_size",  # also an invalid kind: the size is checked first
}


@pytest.mark.parametrize("fault", sorted(REGISTRATION_FAULTS))
def test_refused_registration_that_the_plugin_ignores(plugin, fault):
    # Seven good kernels (declaring seven operations) come before the faulty one; none may remain.
    outcome = in_child(refusal_leaves_builder, plugin(f"FAULT={fault}", "IGNORE_FAILURE"))
    expect_refusal(outcome, "ValueError",
                   "native plugin ignored a failed host registration: " + REGISTRATION_FAULTS[fault])


LOAD_FAULTS = [
    (("INIT_STATUS=3", 'INIT_MESSAGE="boom"'), "NativeError",
     "native plugin initialisation failed with plugin status 3: boom",
     {"status_name": "QUILLMARK_STATUS_RUNTIME_ERROR", "native_status": 3}),
    (("INIT_STATUS=42",), "NativeError", "native plugin initialisation failed with plugin status 42",
     {"status_name": "QUILLMARK_STATUS_UNKNOWN", "native_status": 42}),
    # A refused registration that the plugin passes on carries the host's reason.
    (("FAULT=13",), "NativeError",
     "native plugin initialisation failed with plugin status 1: native plugin declared an invalid scalar type",
     {"status_name": "QUILLMARK_STATUS_INVALID_ARGUMENT", "native_status": 1}),
    (("METADATA_SIZE=48",), "ValueError", "quillmark_plugin_metadata has an invalid struct_size", {}),
    (("ABI_REVISION=2",), "ValueError", "native plugin ABI revision mismatch: expected 1, received 2", {}),
    (("MALFORMED_ID", "NO_KERNELS"), "ValueError", "plugin ID is malformed", {}),
    (("MALFORMED_VERSION",), "ValueError", "plugin version is malformed", {}),
    (('PLUGIN_VERSION=""',), "ValueError", "native plugin version must not be empty", {}),
    (("CUDA_MIN=11000",), "ValueError", "native CPU plugin declared CUDA runtime requirements", {}),
    (("CUDA_MAX=12000",), "ValueError", "native CPU plugin declared CUDA runtime requirements", {}),
    (('PLUGIN_ID=""', "NO_KERNELS"), "ValueError", "OperationId - namespace segments must not be empty", {}),
    (('PLUGIN_ID="quillmark"', 'OP_NS="quillmark.probe"'), "ValueError", "native plugin may not use the reserved 'quillmark' namespace", {}),
    (('PLUGIN_ID="quillmark.ext"',), "ValueError",
     "native plugin may not use the reserved 'quillmark' namespace", {}),
    (("NO_KERNELS",), "ValueError", "native plugin must register at least one kernel", {}),
    # Several faults at once: the earliest step wins.
    (("INIT_STATUS=2", "ABI_REVISION=2", "METADATA_SIZE=48"), "NativeError",
     "native plugin initialisation failed with plugin status 2", {"status_name": "QUILLMARK_STATUS_UNSUPPORTED"}),
    (("METADATA_SIZE=48", "FAULT=13", "IGNORE_FAILURE"), "ValueError",
     "quillmark_plugin_metadata has an invalid struct_size", {}),
    (("FAULT=13", "IGNORE_FAILURE", "ABI_REVISION=2"), "ValueError",
     "native plugin ignored a failed host registration: native plugin declared an invalid scalar type", {}),
    (("ABI_REVISION=2", 'PLUGIN_VERSION=""'), "ValueError",
     "native plugin ABI revision mismatch: expected 1, received 2", {}),
    (('PLUGIN_VERSION=""', "CUDA_MIN=5"), "ValueError", "native plugin version must not be empty", {}),
    (("CUDA_MIN=5", 'PLUGIN_ID="quillmark"', 'OP_NS="quillmark.probe"'), "ValueError",
     "native CPU plugin declared CUDA runtime requirements", {}),
    (('PLUGIN_ID="quillmark"', 'OP_NS="quillmark.probe"', "FAULT=5", "IGNORE_FAILURE"), "ValueError",
     "native plugin ignored a failed host registration: native plugin registered CUDA code with CUDA disabled", {}),
]


@pytest.mark.parametrize("defines, kind, message, attrs", LOAD_FAULTS, ids=lambda v: None)
def test_refused_plugin(plugin, defines, kind, message, attrs):
    outcome = in_child(refusal_leaves_builder, plugin(*defines))
    if kind == "NativeError":
        attrs = {"library": "native plugin", "reason": "library_failure", **attrs}
    expect_refusal(outcome, kind, message, **attrs)


def test_kernels_outside_the_namespace_and_second_loads_are_refused(plugin):
    probe = plugin()
    foreign = plugin('PLUGIN_ID="other"', 'OP_NS="probe"')
    expect_refusal(in_child(refusal_leaves_builder, foreign, (probe,)), "ValueError",
                   "native kernel operation 'probe.scale@1' is outside plugin namespace 'other'")
    # Loading the same library again would register the same kernels a second time.
    expect_refusal(in_child(refusal_leaves_builder, probe, (probe,)), "ValueError",
                   "BackendRegistry::register_backend - duplicate registration for probe.scale@1")


def test_path_errors_are_value_errors(tmp_path, plugin):
    no_entry = compile_plugin(SOURCE, tmp_path / "no_entry.so", "quillmark_plugin_init=other_init")
    cases = [("", "QuillmarkContextBuilder::load_plugin - path must not be empty"),
             (str(tmp_path / "missing.so"), f"failed to load native plugin '{tmp_path / 'missing.so'}'"),
             (no_entry, f"failed to resolve 'quillmark_plugin_init' in native plugin '{no_entry}'")]
    for path, message in cases:
        expect_refusal(in_child(refusal_leaves_builder, path), "ValueError", message)


def run_probe_kernels(path):
    catalogue = _native.ContextBuilder().load_plugin(path).build()
    ctx = _native.Context(catalogue=catalogue)
    rng = np.random.default_rng(7)
    results = {"operations": catalogue.operations(), "describe": catalogue.describe("probe.lu_det@1")}

    x = rng.standard_normal(5)
    y = np.zeros(5)
    ctx.execute("probe.scale@1", {"Input0": np.array(-1.5), "Input1": x, "Output0": y},
                host(["Input0", "Input1", "Output0"]))
    results["scale"] = (x, y)

    # The caller's interleaved arrays are adapted to the kernel's split planes and back.
    z = (rng.standard_normal(6) + 1j * rng.standard_normal(6)).astype(np.complex64)
    w = np.zeros(6, np.complex64)
    ctx.execute("probe.conj@1", {"Input0": z, "Output0": w}, host(["Input0", "Output0"]))
    results["conj"] = (z, w)

    m = rng.standard_normal((3, 4)) + 1j * rng.standard_normal((3, 4))
    flipped = np.zeros_like(m)
    ctx.execute("probe.flip@1", {"Input0": m, "Output0": flipped}, host(["Input0", "Output0"]))
    results["flip"] = (m, flipped)

    a = rng.standard_normal((5, 5))
    lu = _native.LUOperand(a.copy(), "float64")
    ctx.execute("quillmark.lu_factor@1", {"Output0": lu}, {"Output0": "host"})
    det = np.zeros((), np.float64)
    ctx.execute("probe.lu_det@1", {"Input0": lu, "Output0": det}, host(["Input0", "Output0"]))
    results["lu_det"] = (a, float(det))

    eig = _native.EigenOperand(4, "complex64")
    ctx.execute("quillmark.eig@1", {"Input0": rng.standard_normal((4, 4)).astype(np.complex64), "Output0": eig},
                host(["Input0", "Output0"]))
    mixed = np.zeros(4, np.complex64)
    ctx.execute("probe.eigen_mix@1", {"Input0": eig, "Output0": mixed}, host(["Input0", "Output0"]))
    results["eigen_mix"] = (eig.values, eig.vectors, mixed)

    failures = []
    bad_y = np.full(4, 7.0)
    for operation, bindings in [
        ("probe.scale@1", {"Input0": np.array(2.0), "Input1": x.copy(), "Output0": bad_y}),
        *[("probe.refuse@1", {"Input0": np.array([float(s), 1.0]), "Output0": np.full(2, 7.0)})
          for s in (1, 2, 3, 4, 42)],
    ]:
        before = {role: array.copy() for role, array in bindings.items()}
        try:
            ctx.execute(operation, bindings, host(bindings))
        except _native.NativeError as e:
            untouched = all(np.array_equal(before[r], bindings[r]) for r in bindings)
            failures.append((str(e), {a: getattr(e, a) for a in ATTRS if hasattr(e, a)}, untouched))
    results["failures"] = failures
    return results


def test_declared_operations_run_through_execute(plugin):
    outcome = in_child(run_probe_kernels, plugin())
    assert outcome[0] == "ok", outcome
    r = outcome[1]
    assert r["operations"][-7:] == ("probe.scale@1", "probe.conj@1", "probe.flip@1", "probe.lu_det@1",
                                    "probe.refuse@1", "probe.wait@1", "probe.eigen_mix@1")
    described = r["describe"]
    native = {"kind": "native", "version": "1.0", "owner": "probe", "description": "kernels for the loader tests"}
    assert described["provenance"] == native
    assert [role["kind"] for role in described["roles"]] == ["lu", "scalar"]
    assert [role["role"] for role in described["roles"]] == [0, 2**31]
    [implementation] = described["implementations"]
    assert implementation["backend"] == "cpu_scalar" and implementation["provenance"] == native
    assert implementation["numerics"] is None and described["numerics"] is None

    x, y = r["scale"]
    np.testing.assert_array_equal(y, -1.5 * x)
    z, w = r["conj"]
    np.testing.assert_array_equal(w, np.conj(z))
    m, flipped = r["flip"]
    np.testing.assert_array_equal(flipped, np.conj(m[::-1]))
    a, det = r["lu_det"]
    assert det == pytest.approx(np.linalg.det(a), rel=1e-12)
    values, vectors, mixed = r["eigen_mix"]
    np.testing.assert_allclose(mixed, values * vectors[0], rtol=1e-6)

    messages = [failure[0] for failure in r["failures"]]
    assert messages == [
        "native kernel on the CPU scalar backend failed with plugin status 1: probe.scale - length mismatch",
        *[f"native kernel on the CPU SIMD backend failed with plugin status {s}: refused with {s}"
          for s in (1, 2, 3, 4, 42)]]
    names = ["INVALID_ARGUMENT", "INVALID_ARGUMENT", "UNSUPPORTED", "RUNTIME_ERROR", "INTERNAL_ERROR", "UNKNOWN"]
    for (_, attrs, untouched), status, name in zip(r["failures"], (1, 1, 2, 3, 4, 42), names):
        assert attrs == {"operation": attrs["operation"], "reason": "library_failure", "library": "native plugin",
                         "native_status": status, "status_name": "QUILLMARK_STATUS_" + name}
        assert untouched
    assert [attrs["operation"] for _, attrs, _ in r["failures"]][:2] == ["probe.scale@1", "probe.refuse@1"]


def run_while_another_thread_waits(path):
    ctx = _native.Context(catalogue=_native.ContextBuilder().load_plugin(path).build())
    flag, out = np.zeros(1), np.zeros(1)

    def release():  # can only run while the kernel has let go of the interpreter lock
        while out[0] == 0.0:
            pass
        flag[0] = 1.0

    helper = threading.Thread(target=release, daemon=True)
    helper.start()
    ctx.execute("probe.wait@1", {"Input0": flag, "Output0": out}, host(["Input0", "Output0"]))
    helper.join(10)
    return float(flag[0])


def test_kernel_runs_without_the_interpreter_lock(plugin):
    assert in_child(run_while_another_thread_waits, plugin()) == ("ok", 1.0)


def mapped(path):
    real = os.path.realpath(path)
    with open("/proc/self/maps") as maps:
        return any(line.rstrip().endswith(real) for line in maps)


def track_library_lifetime(path, refused):
    states = [mapped(path)]
    builder = _native.ContextBuilder()
    try:
        builder.load_plugin(refused)
    except (ValueError, _native.NativeError):
        pass
    states.append(mapped(refused))
    builder.load_plugin(path)
    states.append(mapped(path))
    catalogue = builder.build()
    del builder
    gc.collect()
    states.append(mapped(path))
    ctx = _native.Context(catalogue=catalogue)
    y = np.zeros(2)
    ctx.execute("probe.scale@1", {"Input0": np.array(3.0), "Input1": np.ones(2), "Output0": y},
                host(["Input0", "Input1", "Output0"]))
    del catalogue
    gc.collect()
    states.append(mapped(path))  # the context still holds the catalogue
    del ctx
    gc.collect()
    states.append(mapped(path))
    return states, y.tolist()


def test_library_lives_as_long_as_a_catalogue(plugin):
    outcome = in_child(track_library_lifetime, plugin(), plugin("ABI_REVISION=2"))
    assert outcome == ("ok", ([False, False, True, True, True, False], [3.0, 3.0]))


def test_reserved_word_only_as_a_whole_segment(plugin):
    def load(path):
        return _native.ContextBuilder().load_plugin(path).build().operations()[-7:]

    outcome = in_child(load, plugin('PLUGIN_ID="quillmarkx"'))
    assert outcome[0] == "ok" and outcome[1][0] == "quillmarkx.scale@1"


EXAMPLE = ROOT / "examples" / "plugin"


def example_command():
    """The build command documented at the top of examples/plugin/axpy.c."""
    text = (EXAMPLE / "axpy.c").read_text()
    return next(line.strip(" *") for line in text.splitlines() if line.strip(" *").startswith("cc "))


def run_example(path):
    ctx = _native.Context(catalogue=_native.ContextBuilder().load_plugin(path).build())
    rng = np.random.default_rng(3)
    results = []
    for dtype in (np.float32, np.float64, np.complex64):
        x = rng.standard_normal(9).astype(dtype)
        y = rng.standard_normal(9).astype(dtype)
        a = np.array(0.5 - 2j if dtype == np.complex64 else -2.5, dtype=dtype)
        out = y.copy()
        ctx.execute("example.axpy@1", {"Input0": a, "Input1": x, "Output0": out}, host(["Input0", "Input1", "Output0"]))
        results.append((a, x, y, out))
    try:
        ctx.execute("example.axpy@1", {"Input0": np.array(1.0), "Input1": np.ones(3), "Output0": np.ones(4)},
                    host(["Input0", "Input1", "Output0"]))
    except _native.NativeError as e:
        results.append((str(e), e.status_name))
    return results


def test_example_plugin_builds_with_its_documented_command_and_runs(tmp_path):
    command = example_command().replace("$(python ", f"$({sys.executable} ")
    command = command.replace("-o axpy_plugin.so", f"-o {tmp_path / 'axpy_plugin.so'}")
    subprocess.run(command, shell=True, check=True, cwd=ROOT)
    outcome = in_child(run_example, str(tmp_path / "axpy_plugin.so"))
    assert outcome[0] == "ok", outcome
    *runs, failure = outcome[1]
    for a, x, y, out in runs:
        np.testing.assert_allclose(out, a * x + y, rtol=1e-6)
    assert failure == ("native kernel on the CPU scalar backend failed with plugin status 1: "
                       "example.axpy - x and y differ in length (3 and 4)", "QUILLMARK_STATUS_INVALID_ARGUMENT")
