import os

import numpy as np
import pytest

quillmark = pytest.importorskip("quillmark")

# Set by scripts/sanitize.sh while the suite runs against a sanitizer build of the extension.
SANITIZED = bool(os.environ.get("QUILLMARK_SANITIZED"))

FLOATING = [np.float32, np.float64, np.complex64, np.complex128]
TOLERANCE = {np.float32: 2e-4, np.float64: 1e-10, np.complex64: 2e-4, np.complex128: 1e-10}


def random_array(rng, shape, dtype):
    dtype = np.dtype(dtype)
    values = rng.standard_normal(shape)
    if dtype.kind == "c":
        values = values + 1j * rng.standard_normal(shape)
    return values.astype(dtype)


def real_dtype(dtype):
    return np.empty(0, dtype).real.dtype


def positive_definite(rng, n, dtype):
    """A well-conditioned Hermitian positive definite matrix."""
    a = random_array(rng, (n, n), dtype)
    gram = a @ a.conj().T
    return ((gram + gram.conj().T) / 2 + n * np.eye(n)).astype(dtype)


def misaligned(dtype, shape=3, offset=1):
    """Zeros of `dtype` starting `offset` bytes past an aligned address."""
    count = int(np.prod(shape))
    return np.zeros(count * np.dtype(dtype).itemsize + offset, np.uint8)[offset:].view(dtype).reshape(shape)


def arrange(a, order):
    """a's values in another memory layout: column-major, a strided view, or negative strides."""
    if order == "F":
        return np.asfortranarray(a)
    if order == "strided":
        wide = np.zeros(tuple(2 * s for s in a.shape), a.dtype)
        view = wide[tuple(slice(None, None, 2) for _ in a.shape)]
        view[...] = a
        return view
    if order == "reversed":
        flip = tuple(slice(None, None, -1) for _ in a.shape)
        return a[flip].copy()[flip]
    return a


@pytest.fixture(scope="session")
def ctx():
    return quillmark.Context()


@pytest.fixture
def rng():
    return np.random.default_rng(1234)


def run(ctx, operation, inputs, outputs, compute_dtypes=None):
    """Bind inputs as Input0.., outputs as Output0.. on the host and execute."""
    bindings = {f"Input{i}": a for i, a in enumerate(inputs)}
    bindings.update({f"Output{j}": a for j, a in enumerate(outputs)})
    return ctx.execute(operation, bindings, {role: "host" for role in bindings}, compute_dtypes or {})
