"""quillmark: dense linear algebra with documented numeric contracts.

Operations are named from a versioned catalogue ("quillmark.matmul@1"), NumPy arrays are bound
to their roles and executed through a :class:`Context`.
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
