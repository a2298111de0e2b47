"""Low-precision dtypes that NumPy lacks.

``complex32`` is two float16 parts, real first, in 4 bytes. bfloat16 comes from ``ml_dtypes``.
"""

import numpy as np
import ml_dtypes

bfloat16 = np.dtype(ml_dtypes.bfloat16)
complex32 = np.dtype([("real", np.float16), ("imag", np.float16)])


def to_complex32(array):
    """Round each part of a real or complex array to float16 and pack it as complex32."""
    source = np.asarray(array)
    out = np.empty(source.shape, dtype=complex32)
    with np.errstate(over="ignore"):  # out-of-range parts become infinities, as in the native rounding
        out["real"] = np.real(source).astype(np.float16)
        out["imag"] = np.imag(source).astype(np.float16) if np.iscomplexobj(source) else 0
    return out


def from_complex32(array):
    """Widen a complex32 array to complex64 (exact)."""
    source = np.asarray(array)
    if source.dtype != complex32:
        raise ValueError("from_complex32 - array must have the complex32 dtype")
    out = np.empty(source.shape, dtype=np.complex64)
    out.real = source["real"].astype(np.float32)
    out.imag = source["imag"].astype(np.float32)
    return out
