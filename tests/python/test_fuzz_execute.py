"""Context.execute under random, mostly malformed calls for every built-in operation.

A call may fail only with ValueError, TypeError, IndexError, MemoryError or RuntimeError
(NativeError included); inputs are never changed, and a call refused by argument checking
leaves its outputs untouched as well.
"""
import contextlib

import numpy as np
import pytest
from hypothesis import HealthCheck, given, settings, strategies as st

import quillmark
from quillmark import complex32, to_complex32
from quillmark._dtypes import bfloat16

from conftest import SANITIZED

ALLOWED = (ValueError, TypeError, IndexError, MemoryError, RuntimeError)

CATALOGUE = quillmark.ContextBuilder().build()


def role_name(code):
    return f"Input{code}" if code < 2**31 else f"Output{code - 2**31}"


ROLES = {op: [(role_name(r["role"]), r["access"], r["kind"]) for r in CATALOGUE.describe(op)["roles"]]
         for op in CATALOGUE.operations()}

FLOAT_NAMES = ["float32", "float64", "complex64", "complex128", "float16", "bfloat16", "complex32"]
ODD_DTYPES = [np.bool_, np.int64, np.uint8, object, np.dtype(">f8"), np.dtype(">c16"), np.int32, "U3"]
COMPUTE_NAMES = FLOAT_NAMES + ["int32", "int64", "bool", "", "float128"]


def make_array(rng, shape, name, special):
    """Random contents of the named dtype; `special` plants one NaN or infinity in floating data."""
    low = {"complex32": np.complex64, "bfloat16": np.float32}.get(name)
    dtype = np.dtype(low or name)
    if dtype.kind in "OU":
        return np.full(shape, 1, dtype=dtype)
    if dtype.kind in "iub":
        return rng.integers(-3, 4, shape).astype(dtype)
    values = rng.standard_normal(shape) + (1j * rng.standard_normal(shape) if dtype.kind == "c" else 0)
    if special and values.size:
        values.reshape(-1)[rng.integers(0, values.size)] = rng.choice([np.nan, np.inf, -np.inf])
    if name == "complex32":
        return to_complex32(values)
    return np.asarray(values).astype(bfloat16 if name == "bfloat16" else dtype)


def base_shapes(op, kinds, n, m):
    """Shapes that fit the operation for the dims n, m: the starting point that mutations break."""
    short = op.split(".")[1].split("@")[0]
    special = {
        "matmul": [(n, m), (m, n), (n, n)],
        "matvec": [(n, m), (m,), (n,)],
        "kron": [(n, m), (m, n), (n * m, m * n)],
        "outer": [(n,), (m,), (n, m)],
        "partial_trace_left": [(n * m, n * m), (m, m)],
        "partial_trace_right": [(n * m, n * m), (m, m)],
    }
    return special.get(short) or [{"scalar": (), "vector": (n,), "matrix": (n, n)}.get(kind, n) for kind in kinds]


def output_dtypes(op, name):
    """role -> dtype of the outputs of an implementation whose first input is `name`, where one exists;
    predicates are bound to bool, as users bind them."""
    for implementation in CATALOGUE.describe(op)["implementations"]:
        operands = implementation["operands"]
        if operands[0]["dtype"] == name:
            return {role_name(o["role"]): "bool" if o["dtype"] == "int32" != name else o["dtype"] for o in operands}
    return {}


def mutate_array(draw, rng, arr):
    # Subclasses whose attributes lie are covered in test_execute_path.
    how = draw(st.sampled_from(["strided", "fortran", "readonly", "misaligned", "rank", "list"]))
    if how == "strided" and arr.ndim:
        return np.repeat(arr, 2, axis=-1)[..., ::2]
    if how == "fortran" and arr.ndim == 2:
        return np.asfortranarray(arr)
    if how == "readonly":
        arr = arr.copy()
        arr.flags.writeable = False
        return arr
    # complex32 lands 2 bytes past a 4-byte boundary: aligned parts, unaligned whole.
    if how == "misaligned" and not arr.dtype.hasobject:
        step = 2 if arr.dtype == complex32 else 1
        raw = np.zeros(arr.nbytes + step, np.uint8)
        view = raw[step:].view(arr.dtype).reshape(arr.shape)
        view[...] = arr
        return view
    if how == "rank":
        return arr.reshape(arr.shape + (1,)) if draw(st.booleans()) or arr.ndim == 0 else arr.reshape(-1)[:0]
    if how == "list":
        return arr.tolist()
    return arr


def structured(make, n, name):
    """A structured operand, or a plain array where its dtype has none (which execute refuses)."""
    try:
        return make()
    except ValueError:
        return make_array(np.random.default_rng(n), (n, n), name, False)


@st.composite
def calls(draw, op):
    roles = ROLES[op]
    rng = np.random.default_rng(draw(st.integers(0, 2**32 - 1)))
    n, m = draw(st.integers(0, 5)), draw(st.integers(1, 4))
    name = draw(st.sampled_from(FLOAT_NAMES + ["int32"]))
    special = draw(st.integers(0, 4)) == 0
    shapes = base_shapes(op, [kind for _, _, kind in roles], n, m)
    bindings, compute, outputs = {}, {}, output_dtypes(op, name)
    for (role, access, kind), shape in zip(roles, shapes):
        dtype_name = outputs.get(role, name) if role.startswith("Output") else name
        if kind == "lu":
            lu_dtype = dtype_name if dtype_name in FLOAT_NAMES else "float64"
            if access == "read" and draw(st.booleans()):
                obj = structured(lambda: quillmark.LUOperand(make_array(rng, (n, n), lu_dtype, special)), n, name)
                with contextlib.suppress(ValueError, RuntimeError):  # singular or non-finite: stays unfactorised
                    CTX.execute("quillmark.lu_factor@1", {"Output0": obj}, {"Output0": "host"})
            else:
                size = draw(st.sampled_from([n, n + 1, 0]))
                obj = structured(lambda: quillmark.LUOperand(size, lu_dtype), n, name)
        elif kind == "eigen":
            eig_dtype = {"float64": "complex128", "float16": "complex32"}.get(dtype_name, "complex64")
            size = draw(st.sampled_from([n, n + 1]))
            obj = structured(lambda: quillmark.EigenOperand(size, eig_dtype), n, name)
        elif op == "quillmark.matrix_power@1" and role == "Input1":
            obj = np.asarray(draw(st.integers(-2, 5)), dtype=np.int32)
        else:
            obj = make_array(rng, shape, dtype_name, special)
            if dtype_name == "bool":
                compute[role] = "int32"
        bindings[role] = obj
    locations = {role: "host" for role in bindings}

    for _ in range(draw(st.integers(0, 3))):
        if not bindings:
            break
        role = draw(st.sampled_from(sorted(bindings)))
        what = draw(st.sampled_from(["dtype", "array", "array", "shape", "drop", "extra", "location",
                                     "compute", "swap_kind"]))
        if what == "dtype" and isinstance(bindings[role], np.ndarray):
            odd = draw(st.sampled_from(ODD_DTYPES + FLOAT_NAMES))
            bindings[role] = make_array(rng, np.asarray(bindings[role]).shape, odd, special)
        elif what == "array" and isinstance(bindings[role], np.ndarray):
            bindings[role] = mutate_array(draw, rng, bindings[role])
        elif what == "shape" and isinstance(bindings[role], np.ndarray):
            shape = tuple(draw(st.integers(0, 6)) for _ in range(bindings[role].ndim))
            bindings[role] = make_array(rng, shape, name, special)
        elif what == "drop":
            del bindings[role]
        elif what == "extra":
            bindings[draw(st.sampled_from(["Input5", "Output3", "input0", "Output0 "]))] = np.zeros(3)
        elif what == "location":
            locations[role] = draw(st.sampled_from(["cuda", "device", "", "HOST"]))
        elif what == "compute":
            compute[draw(st.sampled_from([role, "Input9"]))] = draw(st.sampled_from(COMPUTE_NAMES))
        elif what == "swap_kind":
            bindings[role] = (quillmark.LUOperand(max(n, 1), "float64") if isinstance(bindings[role], np.ndarray)
                              else make_array(rng, (n, n), name, special))
    if draw(st.integers(0, 5)) == 0:
        locations = {role: "host" for role in bindings}  # keep the location set in step with the bindings
    return bindings, locations, compute


def snapshot(obj):
    if isinstance(obj, np.ndarray):
        return ("array", obj.dtype.str, obj.tobytes())
    if isinstance(obj, quillmark.LUOperand):
        return ("lu", obj.factors.tobytes(), obj.pivots.tobytes(), obj.swaps)
    if isinstance(obj, quillmark.EigenOperand):
        return ("eigen", obj.values.tobytes(), obj.vectors.tobytes())
    return ("other", repr(obj))


CTX = quillmark.Context()
EXAMPLES = 25 if SANITIZED else 60


@pytest.mark.parametrize("op", sorted(ROLES))
def test_execute_refuses_cleanly(op):
    read_roles = {role for role, access, _ in ROLES[op] if access == "read"}

    @settings(max_examples=EXAMPLES, deadline=None, database=None,
              suppress_health_check=[HealthCheck.too_slow, HealthCheck.data_too_large])
    @given(calls(op))
    def check(call):
        bindings, locations, compute = call
        before = {role: snapshot(obj) for role, obj in bindings.items()}
        error = None
        try:
            CTX.execute(op, bindings, locations, compute)
        except ALLOWED as e:
            error = e
        # A refusal by argument checking keeps every binding; anything else keeps at least the inputs.
        kept = set(bindings) if type(error) in (ValueError, TypeError, IndexError) else read_roles & set(bindings)
        changed = [role for role in kept if snapshot(bindings[role]) != before[role]]
        assert not changed, f"{error!r} changed {changed}"

    check()
