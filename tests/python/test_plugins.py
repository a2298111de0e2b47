"""Native plugins compiled from C at test time and loaded in forked children, so that a loader
crash fails one test instead of the run."""

import functools
import gc
import itertools
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

from conftest import random_array, run

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
    root, numbers = tmp_path_factory.mktemp("plugins"), itertools.count()
    return functools.cache(lambda *defines: compile_plugin(SOURCE, root / f"probe_{next(numbers)}.so", *defines))


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


def passes_in_child(fn, *args):
    """fn(*args), which asserts on its own results, in a forked child."""
    outcome = in_child(fn, *args)
    assert outcome == ("ok", None), outcome


def snapshot(catalogue):
    """Everything describe says about every operation, for comparing builders."""
    return {op: catalogue.describe(op) for op in catalogue.operations()}


def refusal(path, preload):
    """Loads `path` after `preload` and reports the failure, checking that the refused plugin left
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


def expect_refusal(path, kind, message, preload=(), **attrs):
    """Loading `path` (in a child) fails with `kind`, `message` and the given attributes."""
    outcome = in_child(refusal, path, preload)
    assert outcome[0] == "ok", outcome
    assert outcome[1] != "loaded", "the plugin was accepted"
    got_kind, got_message, got_attrs = outcome[1]
    assert (got_kind, got_message) == (kind, message)
    assert {name: got_attrs[name] for name in attrs} == attrs


INIT_FAILED = "native plugin initialisation failed with plugin status "
IGNORED = "native plugin ignored a failed host registration: "
RESERVED = ('PLUGIN_ID="quillmark"', 'OP_NS="quillmark.probe"')

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
    expect_refusal(plugin(f"FAULT={fault}", "IGNORE_FAILURE"), "ValueError", IGNORED + REGISTRATION_FAULTS[fault])


# (defines, message) refused with ValueError; (defines, message, status name) with NativeError, whose
# native status is the number in the message.
LOAD_FAULTS = [
    (("INIT_STATUS=3", 'INIT_MESSAGE="boom"'), INIT_FAILED + "3: boom", "RUNTIME_ERROR"),
    (("INIT_STATUS=42",), INIT_FAILED + "42", "UNKNOWN"),
    # A refused registration that the plugin passes on carries the host's reason.
    (("FAULT=13",), INIT_FAILED + "1: native plugin declared an invalid scalar type", "INVALID_ARGUMENT"),
    (("METADATA_SIZE=48",), "quillmark_plugin_metadata has an invalid struct_size"),
    (("ABI_REVISION=2",), "native plugin ABI revision mismatch: expected 1, received 2"),
    (("MALFORMED_ID", "NO_KERNELS"), "plugin ID is malformed"),
    (("MALFORMED_VERSION",), "plugin version is malformed"),
    (('PLUGIN_VERSION=""',), "native plugin version must not be empty"),
    (("CUDA_MIN=11000",), "native CPU plugin declared CUDA runtime requirements"),
    (("CUDA_MAX=12000",), "native CPU plugin declared CUDA runtime requirements"),
    (('PLUGIN_ID=""', "NO_KERNELS"), "OperationId - namespace segments must not be empty"),
    (RESERVED, "native plugin may not use the reserved 'quillmark' namespace"),
    (('PLUGIN_ID="quillmark.ext"',), "native plugin may not use the reserved 'quillmark' namespace"),
    (("NO_KERNELS",), "native plugin must register at least one kernel"),
    # Several faults at once: the earliest step wins.
    (("INIT_STATUS=2", "ABI_REVISION=2", "METADATA_SIZE=48"), INIT_FAILED + "2", "UNSUPPORTED"),
    (("METADATA_SIZE=48", "FAULT=13", "IGNORE_FAILURE"), "quillmark_plugin_metadata has an invalid struct_size"),
    (("FAULT=13", "IGNORE_FAILURE", "ABI_REVISION=2"), IGNORED + "native plugin declared an invalid scalar type"),
    (("ABI_REVISION=2", 'PLUGIN_VERSION=""'), "native plugin ABI revision mismatch: expected 1, received 2"),
    (('PLUGIN_VERSION=""', "CUDA_MIN=5"), "native plugin version must not be empty"),
    (("CUDA_MIN=5", *RESERVED), "native CPU plugin declared CUDA runtime requirements"),
    ((*RESERVED, "FAULT=5", "IGNORE_FAILURE"), IGNORED + "native plugin registered CUDA code with CUDA disabled"),
]


@pytest.mark.parametrize("fault", LOAD_FAULTS, ids=lambda fault: "-".join(fault[0]))
def test_refused_plugin(plugin, fault):
    defines, message, *status_name = fault
    if not status_name:
        return expect_refusal(plugin(*defines), "ValueError", message)
    status = int(message[len(INIT_FAILED):].split(":")[0])
    expect_refusal(plugin(*defines), "NativeError", message, library="native plugin", reason="library_failure",
                   native_status=status, status_name="QUILLMARK_STATUS_" + status_name[0])


def test_kernels_outside_the_namespace_and_second_loads_are_refused(plugin):
    probe = plugin()
    foreign = plugin('PLUGIN_ID="other"', 'OP_NS="probe"')
    expect_refusal(foreign, "ValueError", "native kernel operation 'probe.scale@1' is outside plugin namespace 'other'",
                   (probe,))
    # Loading the same library again would register the same kernels a second time.
    expect_refusal(probe, "ValueError", "BackendRegistry::register_backend - duplicate registration for probe.scale@1",
                   (probe,))


def test_path_errors_are_value_errors(tmp_path, plugin):
    no_entry = compile_plugin(SOURCE, tmp_path / "no_entry.so", "quillmark_plugin_init=other_init")
    cases = [("", "QuillmarkContextBuilder::load_plugin - path must not be empty"),
             (str(tmp_path / "missing.so"), f"failed to load native plugin '{tmp_path / 'missing.so'}'"),
             (no_entry, f"failed to resolve 'quillmark_plugin_init' in native plugin '{no_entry}'"),
             # a loadable plugin before the NUL: nothing may be loaded
             (f"{plugin()}\0x", f"failed to load native plugin '{plugin()}\\0x'")]
    for path, message in cases:
        expect_refusal(path, "ValueError", message)


def check_probe_kernels(path):
    """Runs in the child and asserts there: the declared kernels against NumPy, and their failures."""
    catalogue = _native.ContextBuilder().load_plugin(path).build()
    ctx = _native.Context(catalogue=catalogue)
    rng = np.random.default_rng(7)
    assert catalogue.operations()[-7:] == ("probe.scale@1", "probe.conj@1", "probe.flip@1", "probe.lu_det@1",
                                           "probe.refuse@1", "probe.wait@1", "probe.eigen_mix@1")
    described = catalogue.describe("probe.lu_det@1")
    native = {"kind": "native", "version": "1.0", "owner": "probe", "description": "kernels for the loader tests"}
    assert described["provenance"] == native and described["numerics"] is None
    assert [(role["role"], role["kind"]) for role in described["roles"]] == [(0, "lu"), (2**31, "scalar")]
    [implementation] = described["implementations"]
    assert (implementation["backend"], implementation["provenance"], implementation["numerics"]) == \
        ("cpu_scalar", native, None)

    x = rng.standard_normal(5)
    np.testing.assert_array_equal(run(ctx, "probe.scale@1", [np.array(-1.5), x], [np.zeros(5)]), -1.5 * x)
    # The caller's interleaved arrays are adapted to the kernel's split planes and back.
    z = random_array(rng, 6, np.complex64)
    np.testing.assert_array_equal(run(ctx, "probe.conj@1", [z], [np.zeros(6, np.complex64)]), np.conj(z))
    m = random_array(rng, (3, 4), np.complex128)
    np.testing.assert_array_equal(run(ctx, "probe.flip@1", [m], [np.zeros_like(m)]), np.conj(m[::-1]))

    a = rng.standard_normal((5, 5))
    lu = run(ctx, "quillmark.lu_factor@1", [], [_native.LUOperand(a.copy(), "float64")])
    assert run(ctx, "probe.lu_det@1", [lu], [np.zeros(())]) == pytest.approx(np.linalg.det(a), rel=1e-12)
    eig = run(ctx, "quillmark.eig@1", [random_array(rng, (4, 4), np.complex64)], [_native.EigenOperand(4, "complex64")])
    mixed = run(ctx, "probe.eigen_mix@1", [eig], [np.zeros(4, np.complex64)])
    np.testing.assert_allclose(mixed, eig.values * eig.vectors[0], rtol=1e-6)

    failures = [("probe.scale@1", [np.array(2.0), x], np.full(4, 7.0), 1, "INVALID_ARGUMENT",
                 "native kernel on the CPU scalar backend failed with plugin status 1: probe.scale - length mismatch")]
    names = {1: "INVALID_ARGUMENT", 2: "UNSUPPORTED", 3: "RUNTIME_ERROR", 4: "INTERNAL_ERROR", 42: "UNKNOWN"}
    failures += [("probe.refuse@1", [np.array([float(s), 1.0])], np.full(2, 7.0), s, name,
                  f"native kernel on the CPU SIMD backend failed with plugin status {s}: refused with {s}")
                 for s, name in names.items()]
    for operation, inputs, out, status, name, message in failures:
        before = [v.copy() for v in inputs + [out]]
        with pytest.raises(_native.NativeError) as info:
            run(ctx, operation, inputs, [out])
        assert str(info.value) == message
        assert {a: getattr(info.value, a) for a in ATTRS[:-1]} == {
            "operation": operation, "reason": "library_failure", "library": "native plugin",
            "native_status": status, "status_name": "QUILLMARK_STATUS_" + name}
        assert all(np.array_equal(b, v) for b, v in zip(before, inputs + [out]))


def test_declared_operations_run_through_execute(plugin):
    passes_in_child(check_probe_kernels, plugin())


def check_kernel_runs_without_the_interpreter_lock(path):
    ctx = _native.Context(catalogue=_native.ContextBuilder().load_plugin(path).build())
    flag, out = np.zeros(1), np.zeros(1)

    def release():  # can only run while the kernel has let go of the interpreter lock
        while out[0] == 0.0:
            pass
        flag[0] = 1.0

    threading.Thread(target=release, daemon=True).start()
    run(ctx, "probe.wait@1", [flag], [out])  # the kernel fails unless the flag is set while it waits


def test_kernel_runs_without_the_interpreter_lock(plugin):
    passes_in_child(check_kernel_runs_without_the_interpreter_lock, plugin())


def mapped(path):
    real = os.path.realpath(path)
    with open("/proc/self/maps") as maps:
        return any(line.rstrip().endswith(real) for line in maps)


def check_library_lifetime(path, refused, namespace):
    assert not mapped(path)
    builder = _native.ContextBuilder()
    with pytest.raises(ValueError):
        builder.load_plugin(refused)
    assert not mapped(refused)
    builder.load_plugin(path)
    catalogue = builder.build()
    del builder
    gc.collect()
    assert mapped(path)
    ctx = _native.Context(catalogue=catalogue)
    del catalogue
    gc.collect()  # the context still holds the catalogue, and the catalogue the library
    assert run(ctx, f"{namespace}.scale@1", [np.array(3.0), np.ones(2)], [np.zeros(2)]).tolist() == [3.0, 3.0]
    del ctx
    gc.collect()
    assert not mapped(path)


# The second plugin also shows that the reserved word is refused only as a whole segment.
@pytest.mark.parametrize("defines, namespace", [((), "probe"), (('PLUGIN_ID="quillmarkx"',), "quillmarkx")])
def test_library_lives_as_long_as_a_catalogue(plugin, defines, namespace):
    passes_in_child(check_library_lifetime, plugin(*defines), plugin("ABI_REVISION=2"), namespace)


def check_example(path):
    ctx = _native.Context(catalogue=_native.ContextBuilder().load_plugin(path).build())
    rng = np.random.default_rng(3)
    for dtype in (np.float32, np.float64, np.complex64):
        x = rng.standard_normal(9).astype(dtype)
        y = rng.standard_normal(9).astype(dtype)
        a = np.array(0.5 - 2j if dtype == np.complex64 else -2.5, dtype=dtype)
        np.testing.assert_allclose(run(ctx, "example.axpy@1", [a, x], [y.copy()]), a * x + y, rtol=1e-6)
    with pytest.raises(_native.NativeError) as info:
        run(ctx, "example.axpy@1", [np.array(1.0), np.ones(3)], [np.ones(4)])
    assert (str(info.value), info.value.status_name) == ("native kernel on the CPU scalar backend failed with plugin "
                                                         "status 1: example.axpy - x and y differ in length (3 and 4)",
                                                         "QUILLMARK_STATUS_INVALID_ARGUMENT")


def test_example_plugin_builds_with_its_documented_command_and_runs(tmp_path):
    # The build command documented at the top of the example's source.
    text = (ROOT / "examples" / "plugin" / "axpy.c").read_text()
    command = next(line.strip(" *") for line in text.splitlines() if line.strip(" *").startswith("cc "))
    command = command.replace("$(python ", f"$({sys.executable} ").replace("-o axpy_plugin.so",
                                                                            f"-o {tmp_path / 'axpy_plugin.so'}")
    subprocess.run(command, shell=True, check=True, cwd=ROOT)
    passes_in_child(check_example, str(tmp_path / "axpy_plugin.so"))
