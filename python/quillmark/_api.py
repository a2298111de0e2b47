"""The machinery behind the NumPy-style functions: the default context, cached operation metadata,
dtype selection and operand conversion.

Per-call work is kept to dictionary look-ups and the array conversions a call needs; everything
read from ``describe`` is gathered once per operation.
"""

import threading

import numpy as np

from . import _native
from ._dtypes import bfloat16, complex32, to_complex32

_lock = threading.Lock()
_default_context = None
_catalogue = None

_ROLE_NAMES = {}


def _role_name(code):
    name = _ROLE_NAMES.get(code)
    if name is None:
        name = f"Output{code - 2**31}" if code >= 2**31 else f"Input{code}"
        _ROLE_NAMES[code] = name
    return name


def _once(name, make):
    """The module global ``name``, made by ``make`` on first use; one maker wins a race."""
    value = globals()[name]
    if value is None:
        with _lock:
            value = globals()[name]
            if value is None:
                value = globals()[name] = make()
    return value


def default_context():
    """The process-wide default :class:`Context`, made on first use (thread-safe).

    Every function uses it unless given ``context=``.

    >>> import quillmark as qm
    >>> qm.default_context() is qm.default_context()
    True
    """
    return _default_context or _once("_default_context", _native.Context)


def _default_catalogue():
    return _catalogue or _once("_catalogue", lambda: _native.ContextBuilder().build())


def canonical_name(name):
    """The catalogue identifier for ``"matmul"``, ``"quillmark.matmul"`` or ``"quillmark.matmul@1"``.

    >>> canonical_name("matmul")
    'quillmark.matmul@1'
    """
    if not isinstance(name, str):
        raise TypeError(f"operation name must be a str, got {type(name).__name__}")
    if "@" not in name:
        if "." not in name:
            name = "quillmark." + name
        name += "@1"
    return name


def describe(name, catalogue=None):
    """The machine-readable contract of one operation and its implementations.

    ``name`` may be short (``"solve"``) or canonical (``"quillmark.solve@1"``). Without
    ``catalogue`` the built-in catalogue answers.

    >>> import quillmark as qm
    >>> d = qm.describe("solve")
    >>> d["id"], [r["kind"] for r in d["roles"]]
    ('quillmark.solve@1', ['lu', 'vector'])
    """
    return (catalogue or _default_catalogue()).describe(canonical_name(name))


def operations(catalogue=None):
    """The canonical identifiers of the catalogue's operations, in registration order.

    >>> import quillmark as qm
    >>> ops = qm.operations()
    >>> len(ops), ops[0], ops[-1]
    (32, 'quillmark.sqrt@1', 'quillmark.logdet_positive_definite@1')
    """
    return (catalogue or _default_catalogue()).operations()


class _OpInfo:
    """What one operation needs at call time, read once from its description."""

    __slots__ = ("name", "id", "input_roles", "output_roles", "locations", "structured_roles",
                 "served", "outputs_for", "policies", "working", "roles")

    def __init__(self, name):
        info = describe(name)
        self.name = name
        self.id = info["id"]
        roles = info["roles"]
        self.input_roles = tuple(_role_name(r["role"]) for r in roles if r["role"] < 2**31)
        self.output_roles = tuple(_role_name(r["role"]) for r in roles if r["role"] >= 2**31)
        self.roles = self.input_roles + self.output_roles
        self.locations = {_role_name(r["role"]): "host" for r in roles}
        self.structured_roles = frozenset(
            _role_name(r["role"]) for r in roles if r["kind"] in ("lu", "eigen"))
        # Storage dtypes served for the first operand, and the output dtypes each one yields.
        self.outputs_for = {}
        for impl in info["implementations"]:
            operands = impl["operands"]
            outs = tuple((o["dtype"], o["compute_dtype"]) for o in operands if o["role"] >= 2**31)
            self.outputs_for.setdefault(operands[0]["dtype"], outs)
        self.served = tuple(sorted(self.outputs_for))
        self.policies = {}
        self.working = {}  # input dtypes -> working dtype, for calls without dtype=


_INFO = {}


def op_info(name):
    info = _INFO.get(name)
    if info is None:
        info = _INFO[name] = _OpInfo(name)
    return info


# Where a dtype goes when the operation does not serve it: the next wider dtype of its kind.
_WIDER = {
    "bool": "int32", "int8": "int32", "uint8": "int32", "int16": "int32", "uint16": "int32",
    "int32": "float64", "int64": "float64", "uint32": "float64", "uint64": "float64",
    "float16": "float32", "bfloat16": "float32", "float32": "float64",
    "complex32": "complex64", "complex64": "complex128",
}

_NAMED = {"bfloat16": bfloat16, "complex32": complex32}


_NAMES = {}


def dtype_name(dt):
    """The library's name of a NumPy dtype (``complex32`` and ``bfloat16`` included)."""
    name = _NAMES.get(dt)
    if name is None:
        name = _NAMES[dt] = "complex32" if dt.kind == "V" and dt == complex32 else dt.name
    return name


def numpy_dtype(name):
    """The NumPy dtype for a library dtype name, a NumPy dtype or a type."""
    dt = _NAMED.get(name) if isinstance(name, str) else None
    if dt is None:
        dt = np.dtype(name)
        if isinstance(name, str):
            _NAMED[name] = dt
    return dt


def layout_word(x):
    """How an argument arrived, for messages: its shape and memory order."""
    if not isinstance(x, np.ndarray):
        return type(x).__name__
    if x.ndim < 2:
        order = "contiguous" if x.flags.c_contiguous else "strided"
    elif x.flags.c_contiguous:
        order = "row_major"
    elif x.flags.f_contiguous:
        order = "column_major"
    else:
        order = "strided"
    return f"{order} {x.shape}"


def refusal(info, arrays, asked, reason="no implementation fits"):
    """The TypeError for a call that no implementation serves: what was asked, what is served."""
    dtypes = ", ".join(dtype_name(a.dtype) if isinstance(a, np.ndarray) else type(a).__name__
                       for a in arrays)
    layouts = ", ".join(layout_word(a) for a in arrays)
    return TypeError(
        f"quillmark.{info.name} - {reason}: asked for dtype {asked} with inputs of dtypes ({dtypes}) "
        f"and layouts ({layouts}); the operation serves: {', '.join(info.served)}")


def as_array(x):
    """Any array-like (lists, scalars, DLPack producers) as an ndarray, without copying arrays."""
    if type(x) is np.ndarray:
        return x
    if not isinstance(x, np.ndarray) and not hasattr(x, "__array__") and hasattr(x, "__dlpack__"):
        return np.from_dlpack(x)
    return np.asarray(x)


def _promote(arrays, weak):
    """NumPy's promotion, with Python scalars weak; complex32 promotes as complex64."""
    dts = [a.dtype for a in arrays]
    c32 = [dt.kind == "V" and dt == complex32 for dt in dts]
    if all(c32):
        return complex32
    if any(c32):
        dts = [np.dtype(np.complex64) if c else dt for c, dt in zip(c32, dts)]
    try:
        return np.result_type(*dts, *weak)
    except TypeError:
        return None


def working_dtype(info, arrays, dtype, weak=()):
    """The storage dtype that the call runs in: ``dtype`` if given, else the promoted dtype of the
    inputs, widened until the operation serves it."""
    if dtype is not None:
        dt = numpy_dtype(dtype)
        if dtype_name(dt) not in info.outputs_for:
            raise refusal(info, arrays, dtype_name(dt), "dtype not served")
        return dt
    dt = _promote(arrays, weak)
    name = dtype_name(dt) if dt is not None else None
    while name is not None and name not in info.outputs_for:
        name = _WIDER.get(name)
    if name is None:
        raise refusal(info, arrays, dtype_name(dt) if dt is not None else "(no common dtype)",
                      "no dtype of the inputs' kind is served")
    return numpy_dtype(name)


def convert(x, dt):
    """``x`` as an aligned C-contiguous array of dtype ``dt``: itself when it already is one."""
    if x.dtype == dt:
        flags = x.flags
        if flags.c_contiguous and flags.aligned:
            return x
        return np.array(x, order="C")
    if dtype_name(dt) == "complex32":
        return to_complex32(x)
    if dtype_name(x.dtype) == "complex32":
        from ._dtypes import from_complex32
        x = from_complex32(x)
    return np.array(x, dtype=dt, order="C")


def writable_target(out, shape, dt):
    """Whether ``out`` can be bound directly as an output of this shape and dtype."""
    if type(out) is not np.ndarray and not isinstance(out, np.ndarray):
        raise TypeError("out must be a NumPy array")
    if out.shape != shape:
        raise ValueError(f"out has shape {out.shape}, the result has shape {shape}")
    flags = out.flags
    return out.dtype == dt and flags.c_contiguous and flags.aligned and flags.writeable


def result_policy(info, ctx, inputs, shape):
    """The (dtype, compute_dtype) of the single dense output, cached for the default context."""
    cache = info.policies if ctx is _default_context else None
    if cache is not None:
        # Inputs share the working dtype (an exponent is always int32), so it and the result's
        # rank decide.
        key = (len(shape), inputs[0].dtype)
        hit = cache.get(key)
        if hit is not None:
            return hit
    try:
        policy = ctx._result_policy(info.id, list(inputs), shape)
    except _native.NativeError:
        # The policy knows no complex scalars (their dense form has no interleaved layout);
        # the registrations themselves name the output dtype.
        outs = info.outputs_for.get(dtype_name(inputs[0].dtype))
        if outs is None:
            raise
        policy = outs[0]
    if cache is not None:
        cache[key] = policy
    return policy


def _category(dt):
    if dt.kind == "c" or dtype_name(dt) == "complex32":
        return "complex"
    return "integer" if dt.kind in "iub" else "real"


def execute(info, ctx, inputs, outputs, compute_dtype):
    """Bind positionally and run; dispatch refusals become a TypeError naming what was asked."""
    bindings = dict(zip(info.roles, (*inputs, *outputs)))
    computes = {}
    if compute_dtype is not None:
        # Only operands of the compute dtype's own kind take it (a complex call's real norm or
        # an int32 exponent keep their defaults).
        kind = _category(numpy_dtype(compute_dtype))
        computes = {role: compute_dtype for role, obj in bindings.items()
                    if role not in info.structured_roles and isinstance(obj, np.ndarray)
                    and _category(obj.dtype) == kind}
    try:
        return ctx.execute(info.id, bindings, info.locations, computes)
    except _native.NativeError as error:
        if getattr(error, "reason", "") == "no_backend_available":
            arrays = [a for a in inputs if isinstance(a, np.ndarray)] or list(outputs)
            asked = dtype_name(arrays[0].dtype) if arrays and hasattr(arrays[0], "dtype") else "?"
            raise refusal(info, arrays, asked) from error
        raise
