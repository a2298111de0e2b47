"""quillmark: dense linear algebra with documented numeric contracts.

NumPy-style functions (``quillmark.matmul(a, b)``, ``quillmark.eigh(a)``, ...) run the catalogue's
operations on any array-like. Underneath, operations are named from a versioned catalogue
("quillmark.matmul@1"), NumPy arrays are bound to their roles and executed through a
:class:`Context`.
"""

from . import _native
from ._dtypes import complex32, from_complex32, to_complex32
from ._native import (
    NativeError,
    available_backends,
    build_info,
    cuda_device_count,
    cuda_is_available,
    numeric_policies,
)

__version__ = "0.1.1"


def get_include():
    """The folder holding ``quillmark/plugin.h``, for compiling native plugins (``-I``)."""
    import os

    return os.path.join(os.path.dirname(__file__), "include")


__all__ = [
    "NativeError",
    "available_backends",
    "build_info",
    "complex32",
    "cuda_device_count",
    "cuda_is_available",
    "from_complex32",
    "get_include",
    "numeric_policies",
    "to_complex32",
]

# Classes that later layers of the module add, re-exported when present.
for _name in ("ContextBuilder", "Context", "LUOperand", "EigenOperand", "LUFactor"):
    if hasattr(_native, _name):
        globals()[_name] = getattr(_native, _name)
        __all__.append(_name)
del _name

from ._api import default_context, describe, operations
from ._functions import (
    EigResult, EighResult, SlogdetResult, add, adjoint, conj, conjugate, divide, eig, eigh,
    eigvalsh, eye, identity, inner, is_unitary, kron, logdet, logdet_positive_definite, lu_factor,
    matmul, matrix_power, matvec, multiply, norm, outer, partial_trace_left, partial_trace_right,
    principal_eigenvector, scale, slogdet, solve, sqrt, subtract, sum, trace, transpose, vdot,
    vector_equal,
)

__all__ += [
    "EigResult", "EighResult", "SlogdetResult", "add", "adjoint", "conj", "conjugate",
    "default_context", "describe", "divide", "eig", "eigh", "eigvalsh", "eye", "identity", "inner",
    "is_unitary", "kron", "logdet", "logdet_positive_definite", "lu_factor", "matmul",
    "matrix_power", "matvec", "multiply", "norm", "operations", "outer", "partial_trace_left",
    "partial_trace_right", "principal_eigenvector", "scale", "slogdet", "solve", "sqrt",
    "subtract", "sum", "trace", "transpose", "vdot", "vector_equal",
]
