"""NumPy-style functions over the catalogue's operations.

Each function takes array-likes, converts them once (zero-copy when dtype and layout already fit),
allocates outputs through the result policy and runs the operation on the default context or on
``context=``. ``dtype=`` names the storage dtype the inputs are converted to, ``compute_dtype=``
the dtype arithmetic runs in; by default inputs follow NumPy's promotion, widened to the nearest
dtype the operation serves (integers to float64 unless the operation has an int32 kernel).
"""

import operator
from typing import NamedTuple

import numpy as np

from . import _api, _native
from ._api import (_INFO, as_array, convert, default_context, dtype_name, execute, numpy_dtype, op_info,
                   result_policy, working_dtype, writable_target)

_PY_SCALARS = (int, float, complex)


class EighResult(NamedTuple):
    """Eigenvalues in ascending order and orthonormal eigenvectors (columns)."""
    eigenvalues: np.ndarray
    eigenvectors: np.ndarray


class EigResult(NamedTuple):
    """Complex eigenvalues and unit-norm right eigenvectors (columns)."""
    eigenvalues: np.ndarray
    eigenvectors: np.ndarray


class SlogdetResult(NamedTuple):
    """Sign (a unit phase for complex input) and natural log of the determinant's magnitude."""
    sign: object
    logabsdet: object


def _setup(name, args, dtype, context):
    """Operation info, context, converted inputs and working dtype for one call."""
    info = _INFO.get(name) or op_info(name)
    ctx = (_api._default_context or default_context()) if context is None else context
    arrays, dtypes, weak = [], [], False
    for a in args:
        if type(a) is not np.ndarray:
            weak = weak or type(a) in _PY_SCALARS
            a = as_array(a)
        arrays.append(a)
        dtypes.append(a.dtype)
    if dtype is None and not weak:
        key = tuple(dtypes)
        dt = info.working.get(key)
        if dt is None:
            dt = info.working[key] = working_dtype(info, arrays, None)
    else:
        # Python scalars take part in promotion as NumPy's weak scalars.
        strong = [x for a, x in zip(args, arrays) if type(a) not in _PY_SCALARS]
        scalars = [a for a in args if type(a) in _PY_SCALARS]
        dt = working_dtype(info, strong or arrays, dtype, scalars if strong else ())
    return info, ctx, [convert(a, dt) for a in arrays], dt


def _target(out, shape, dt):
    """(array to bind, array to copy into afterwards): ``out`` itself when it fits."""
    if out is not None and writable_target(out, shape, dt):
        return out, None
    return np.empty(shape, dt), out


def _deliver(target, back):
    if back is None:
        return target
    np.copyto(back, target, casting="same_kind")
    return back


def _single(info, ctx, inputs, shape, out, compute_dtype, bind_shape=None, out_dtype=None):
    """Run an operation with one dense output of ``shape`` (bound as ``bind_shape``)."""
    bind_shape = shape if bind_shape is None else bind_shape
    dt = out_dtype if out_dtype is not None else numpy_dtype(
        result_policy(info, ctx, inputs, bind_shape)[0])
    target, back = _target(out, shape, dt)
    execute(info, ctx, inputs, (target if shape == bind_shape else target.reshape(bind_shape),),
            compute_dtype)
    if back is None and not shape:
        return target[()]
    return _deliver(target, back)


def _matrix(name, a):
    if a.ndim != 2:
        raise ValueError(f"quillmark.{name} - expected a matrix (two dimensions), got shape {a.shape}")
    return a


def _order(name, a):
    """The row count of a matrix argument (the operation's shape rule checks squareness)."""
    return _matrix(name, a).shape[0]


# Element-wise and reductions. Any shape is accepted and worked on as its flat vector.

def sqrt(x, /, *, out=None, dtype=None, compute_dtype=None, context=None):
    """Element-wise square root (principal branch for complex; NaN for negative reals).

    >>> import quillmark as qm
    >>> qm.sqrt([1.0, 4.0, 9.0])
    array([1., 2., 3.])
    """
    info, ctx, (a,), _ = _setup("sqrt", (x,), dtype, context)
    return _single(info, ctx, (a.reshape(-1),), a.shape, out, compute_dtype, (a.size,))


def conjugate(x, /, *, out=None, dtype=None, compute_dtype=None, context=None):
    """Element-wise complex conjugate; real input is returned unchanged (as a copy).

    ``out=x`` conjugates in place.

    >>> import quillmark as qm
    >>> qm.conjugate([1 + 2j, 3 - 1j])
    array([1.-2.j, 3.+1.j])
    """
    info, ctx, (a,), dt = _setup("conjugate", (x,), dtype, context)
    if out is not None and writable_target(out, a.shape, dt):
        target, back = out, None
        if target is not a:
            np.copyto(target, a)
    else:
        # The operation works in place: never on the caller's memory.
        target, back = (a.copy() if a is x or a.base is not None else a), out
    execute(info, ctx, (), (target.reshape(-1),), compute_dtype)
    return _deliver(target, back)


conj = conjugate


def _binary(name, x1, x2, out, dtype, compute_dtype, context):
    info, ctx, (a, b), dt = _setup(name, (x1, x2), dtype, context)
    if a.shape != b.shape:
        shape = np.broadcast_shapes(a.shape, b.shape)
        a = np.ascontiguousarray(np.broadcast_to(a, shape))
        b = np.ascontiguousarray(np.broadcast_to(b, shape))
    return _single(info, ctx, (a.reshape(-1), b.reshape(-1)), a.shape, out, compute_dtype, (a.size,))


def add(x1, x2, /, *, out=None, dtype=None, compute_dtype=None, context=None):
    """Element-wise sum, broadcasting like NumPy.

    >>> import quillmark as qm
    >>> qm.add([1.0, 2.0], [10.0, 20.0])
    array([11., 22.])
    """
    return _binary("add", x1, x2, out, dtype, compute_dtype, context)


def subtract(x1, x2, /, *, out=None, dtype=None, compute_dtype=None, context=None):
    """Element-wise difference, broadcasting like NumPy.

    >>> import quillmark as qm
    >>> qm.subtract([5, 7], [1, 2], dtype="int32")
    array([4, 5], dtype=int32)
    """
    return _binary("subtract", x1, x2, out, dtype, compute_dtype, context)


def multiply(x1, x2, /, *, out=None, dtype=None, compute_dtype=None, context=None):
    """Element-wise product, broadcasting like NumPy.

    >>> import quillmark as qm
    >>> qm.multiply([[1.0, 2.0], [3.0, 4.0]], 2.0)
    array([[2., 4.],
           [6., 8.]])
    """
    return _binary("multiply", x1, x2, out, dtype, compute_dtype, context)


def _reduce(name, x, out, dtype, compute_dtype, context):
    info, ctx, (a,), _ = _setup(name, (x,), dtype, context)
    return _single(info, ctx, (a.reshape(-1),), (), out, compute_dtype)


def sum(x, /, *, out=None, dtype=None, compute_dtype=None, context=None):  # noqa: A001
    """Sum of all elements, as a NumPy scalar (or written into a 0-d ``out``).

    >>> import quillmark as qm
    >>> float(qm.sum([[1, 2], [3, 4]]))
    10.0
    """
    return _reduce("sum", x, out, dtype, compute_dtype, context)


def norm(x, /, *, out=None, dtype=None, compute_dtype=None, context=None):
    """Euclidean norm of all elements (Frobenius norm of a matrix), in the real dtype of the input's
    precision.

    >>> import quillmark as qm
    >>> float(qm.norm([3.0, 4.0]))
    5.0
    """
    return _reduce("norm", x, out, dtype, compute_dtype, context)


def _by_scalar(name, x, s, out, dtype, compute_dtype, context):
    info, ctx, (a, k), _ = _setup(name, (x, s), dtype, context)
    if k.ndim != 0:
        raise ValueError(f"quillmark.{name} - the second argument must be a scalar, got shape {k.shape}")
    return _single(info, ctx, (a.reshape(-1), k), a.shape, out, compute_dtype, (a.size,))


def scale(x, alpha, /, *, out=None, dtype=None, compute_dtype=None, context=None):
    """``alpha * x`` for a scalar ``alpha``.

    >>> import quillmark as qm
    >>> qm.scale([1.0, 2.0], 3)
    array([3., 6.])
    """
    return _by_scalar("scale", x, alpha, out, dtype, compute_dtype, context)


def divide(x, divisor, /, *, out=None, dtype=None, compute_dtype=None, context=None):
    """``x / divisor`` for a scalar ``divisor``.

    >>> import quillmark as qm
    >>> qm.divide([2.0, 5.0], 2.0)
    array([1. , 2.5])
    """
    return _by_scalar("divide", x, divisor, out, dtype, compute_dtype, context)


# Matrix operations.

def transpose(a, /, *, out=None, dtype=None, compute_dtype=None, context=None):
    """The transposed matrix, as a new array.

    >>> import quillmark as qm
    >>> qm.transpose([[1.0, 2.0, 3.0]])
    array([[1.],
           [2.],
           [3.]])
    """
    info, ctx, (m,), _ = _setup("transpose", (a,), dtype, context)
    _matrix("transpose", m)
    return _single(info, ctx, (m,), m.shape[::-1], out, compute_dtype)


def adjoint(a, /, *, out=None, dtype=None, compute_dtype=None, context=None):
    """The conjugate transpose (``a.conj().T``), as a new array.

    >>> import quillmark as qm
    >>> qm.adjoint([[1j, 2.0]])
    array([[0.-1.j],
           [2.-0.j]])
    """
    info, ctx, (m,), _ = _setup("adjoint", (a,), dtype, context)
    _matrix("adjoint", m)
    return _single(info, ctx, (m,), m.shape[::-1], out, compute_dtype)


def matmul(x1, x2, /, *, out=None, dtype=None, compute_dtype=None, context=None):
    """Matrix product with NumPy's rules for one- and two-dimensional operands.

    A matrix times a vector runs ``matvec``; a leading vector is a row, a trailing one a column,
    and two vectors give their (unconjugated) dot product.

    >>> import quillmark as qm
    >>> qm.matmul([[1.0, 2.0], [3.0, 4.0]], [[1.0], [1.0]])
    array([[3.],
           [7.]])
    >>> qm.matmul([[1.0, 2.0], [3.0, 4.0]], [1.0, 1.0])
    array([3., 7.])
    """
    a, b = as_array(x1), as_array(x2)
    if a.ndim == 2 and b.ndim == 1:
        return matvec(a, b, out=out, dtype=dtype, compute_dtype=compute_dtype, context=context)
    if not (1 <= a.ndim <= 2 and 1 <= b.ndim <= 2):
        raise ValueError(f"quillmark.matmul - operands must have one or two dimensions, got shapes "
                         f"{a.shape} and {b.shape}")
    info, ctx, (a2, b2), _ = _setup("matmul", (a.reshape(1, -1) if a.ndim == 1 else a,
                                               b.reshape(-1, 1) if b.ndim == 1 else b), dtype, context)
    bind = (a2.shape[0], b2.shape[1])
    shape = bind[int(a.ndim == 1):2 - int(b.ndim == 1)]
    if a2.shape[1] != b2.shape[0]:
        raise ValueError(f"quillmark.matmul - inner dimensions differ: {a.shape} and {b.shape}")
    return _single(info, ctx, (a2, b2), shape, out, compute_dtype, bind)


def matvec(a, x, /, *, out=None, dtype=None, compute_dtype=None, context=None):
    """Matrix-vector product ``a @ x``.

    >>> import quillmark as qm
    >>> qm.matvec([[1.0, 0.0], [0.0, 2.0]], [3.0, 4.0])
    array([3., 8.])
    """
    info, ctx, (m, v), _ = _setup("matvec", (a, x), dtype, context)
    _matrix("matvec", m)
    return _single(info, ctx, (m, v), (m.shape[0],), out, compute_dtype)


def kron(a, b, /, *, out=None, dtype=None, compute_dtype=None, context=None):
    """Kronecker product; vectors count as single rows, and two vectors give a vector.

    >>> import quillmark as qm
    >>> qm.kron([[1.0, 2.0]], [[1.0], [10.0]])
    array([[ 1.,  2.],
           [10., 20.]])
    """
    info, ctx, (m1, m2), _ = _setup("kron", (a, b), dtype, context)
    vectors = m1.ndim == 1 and m2.ndim == 1
    m1 = m1.reshape(1, -1) if m1.ndim == 1 else _matrix("kron", m1)
    m2 = m2.reshape(1, -1) if m2.ndim == 1 else _matrix("kron", m2)
    bind = (m1.shape[0] * m2.shape[0], m1.shape[1] * m2.shape[1])
    return _single(info, ctx, (m1, m2), (bind[1],) if vectors else bind, out, compute_dtype, bind)


def inner(x, y, /, *, out=None, dtype=None, compute_dtype=None, context=None):
    """Inner product with the first vector conjugated, ``sum(conj(x) * y)`` (NumPy's ``vdot``;
    unlike ``numpy.inner`` for complex input).

    >>> import quillmark as qm
    >>> complex(qm.inner([1j, 1.0], [1j, 2.0]))
    (3+0j)
    """
    info, ctx, (u, v), _ = _setup("inner", (x, y), dtype, context)
    return _single(info, ctx, (u.reshape(-1), v.reshape(-1)), (), out, compute_dtype)


vdot = inner


def outer(a, b, /, *, out=None, dtype=None, compute_dtype=None, context=None):
    """Outer product ``out[i, j] = a[i] * b[j]`` of the flattened inputs (no conjugation).

    >>> import quillmark as qm
    >>> qm.outer([1.0, 2.0], [1.0, 10.0, 100.0])
    array([[  1.,  10., 100.],
           [  2.,  20., 200.]])
    """
    info, ctx, (u, v), _ = _setup("outer", (a, b), dtype, context)
    return _single(info, ctx, (u.reshape(-1), v.reshape(-1)), (u.size, v.size), out, compute_dtype)


def trace(a, /, *, out=None, dtype=None, compute_dtype=None, context=None):
    """Sum of the diagonal (of the available diagonal for a rectangular matrix).

    >>> import quillmark as qm
    >>> float(qm.trace([[1.0, 2.0], [3.0, 4.0]]))
    5.0
    """
    info, ctx, (m,), _ = _setup("trace", (a,), dtype, context)
    return _single(info, ctx, (_matrix("trace", m),), (), out, compute_dtype)


def _partial_trace(name, a, dim, out, dtype, compute_dtype, context):
    info, ctx, (m,), _ = _setup(name, (a,), dtype, context)
    _matrix(name, m)
    if dim is None:
        if out is None:
            raise TypeError(f"quillmark.{name} - give dim (the order of the result) or out")
        dim = as_array(out).shape[0]
    dim = operator.index(dim)
    return _single(info, ctx, (m,), (dim, dim), out, compute_dtype)


def partial_trace_left(a, dim=None, /, *, out=None, dtype=None, compute_dtype=None, context=None):
    """Trace out the first (left) Kronecker factor; the result has order ``dim``.

    For ``a = kron(x, y)`` the result is ``trace(x) * y``.

    >>> import numpy as np, quillmark as qm
    >>> qm.partial_trace_left(np.kron(np.eye(2), [[1.0, 2.0], [3.0, 4.0]]), 2)
    array([[2., 4.],
           [6., 8.]])
    """
    return _partial_trace("partial_trace_left", a, dim, out, dtype, compute_dtype, context)


def partial_trace_right(a, dim=None, /, *, out=None, dtype=None, compute_dtype=None, context=None):
    """Trace out the second (right) Kronecker factor; the result has order ``dim``.

    For ``a = kron(x, y)`` the result is ``trace(y) * x``.

    >>> import numpy as np, quillmark as qm
    >>> qm.partial_trace_right(np.kron([[1.0, 2.0], [3.0, 4.0]], np.eye(3)), 2)
    array([[ 3.,  6.],
           [ 9., 12.]])
    """
    return _partial_trace("partial_trace_right", a, dim, out, dtype, compute_dtype, context)


def matrix_power(a, n, /, *, out=None, dtype=None, compute_dtype=None, context=None):
    """``a`` raised to the non-negative integer power ``n`` (``n = 0`` gives the identity).

    >>> import quillmark as qm
    >>> qm.matrix_power([[1.0, 1.0], [0.0, 1.0]], 3)
    array([[1., 3.],
           [0., 1.]])
    """
    info, ctx, (m,), _ = _setup("matrix_power", (a,), dtype, context)
    _matrix("matrix_power", m)
    exponent = np.array(operator.index(n), np.int32)
    return _single(info, ctx, (m, exponent), m.shape, out, compute_dtype)


def _flag(name, args, dtype, compute_dtype, context):
    info, ctx, inputs, _ = _setup(name, args, dtype, context)
    return bool(_single(info, ctx, inputs, (), None, compute_dtype, out_dtype=np.dtype(bool)))


def is_unitary(a, /, *, dtype=None, compute_dtype=None, context=None):
    """Whether ``a`` is unitary (orthogonal for real input) within the compute precision;
    a non-square matrix is not.

    >>> import quillmark as qm
    >>> qm.is_unitary([[0.0, 1.0], [1.0, 0.0]]), qm.is_unitary([[1.0, 1.0], [0.0, 1.0]])
    (True, False)
    """
    m = _matrix("is_unitary", as_array(a))
    return _flag("is_unitary", (m,), dtype, compute_dtype, context)


def vector_equal(x, y, /, *, dtype=None, compute_dtype=None, context=None):
    """Whether two vectors are equal within the compute precision (different lengths: False).

    >>> import quillmark as qm
    >>> qm.vector_equal([1.0, 2.0], [1.0, 2.0]), qm.vector_equal([1.0], [1.0, 2.0])
    (True, False)
    """
    u, v = (as_array(x).reshape(-1), as_array(y).reshape(-1))
    return _flag("vector_equal", (u, v), dtype, compute_dtype, context)


def eye(n, m=None, /, *, dtype=None, out=None, compute_dtype=None, context=None):
    """The ``n`` by ``n`` identity matrix (float64 unless ``dtype`` says otherwise).

    >>> import quillmark as qm
    >>> qm.eye(2, dtype="complex64")
    array([[1.+0.j, 0.+0.j],
           [0.+0.j, 1.+0.j]], dtype=complex64)
    """
    n = operator.index(n)
    if m is not None and operator.index(m) != n:
        raise ValueError("quillmark.eye - only square identities are served")
    info = op_info("eye")
    ctx = default_context() if context is None else context
    dt = working_dtype(info, [], "float64" if dtype is None else dtype)
    target, back = _target(out, (n, n), dt)
    execute(info, ctx, (), (target,), compute_dtype)
    return _deliver(target, back)


identity = eye


# Factorisations, decompositions and determinants.

def lu_factor(a, /, *, dtype=None, compute_dtype=None, context=None):
    """LU factorisation with partial pivoting, as an :class:`LUOperand` for :func:`solve` and
    :func:`logdet` (``factors``: packed L and U; ``pivots``: 1-based; ``swaps``).

    A singular matrix raises :class:`NativeError` with ``reason == "singular"``.

    >>> import quillmark as qm
    >>> lu = qm.lu_factor([[0.0, 2.0], [1.0, 1.0]])
    >>> lu.pivots.tolist(), lu.swaps
    ([2, 2], 1)
    """
    info, ctx, (m,), dt = _setup("lu_factor", (a,), dtype, context)
    _matrix("lu_factor", m)
    lu = _native.LUOperand(values=m, dtype=dtype_name(dt), compute_dtype=compute_dtype or "")
    execute(info, ctx, (), (lu,), None)
    return lu


def _factor(a, b, dtype, compute_dtype, context):
    """``a`` itself when it is already a factorisation, else its LU factorisation."""
    if isinstance(a, _native.LUOperand):
        return a
    arrays = [as_array(a)] + ([] if b is None else [as_array(b)])
    if dtype is None:
        dtype = working_dtype(op_info("lu_factor"), arrays, None)
    return lu_factor(arrays[0], dtype=dtype, compute_dtype=compute_dtype, context=context)


def solve(a, b, /, *, out=None, dtype=None, compute_dtype=None, context=None):
    """Solve ``a @ x = b`` for ``x``; ``a`` is a square matrix or a factorisation from
    :func:`lu_factor` (reused across calls). ``b`` is a vector or a matrix of columns.

    >>> import quillmark as qm
    >>> qm.solve([[2.0, 0.0], [0.0, 4.0]], [2.0, 2.0])
    array([1. , 0.5])
    >>> lu = qm.lu_factor([[2.0, 0.0], [0.0, 4.0]])
    >>> qm.solve(lu, [[2.0, 4.0], [4.0, 8.0]])
    array([[1., 2.],
           [1., 2.]])
    """
    ctx = default_context() if context is None else context
    lu = _factor(a, b, dtype, compute_dtype, ctx)
    info = op_info("solve")
    rhs = as_array(b)
    dt = numpy_dtype(lu.dtype)
    if rhs.ndim == 1:
        if out is not None and writable_target(out, rhs.shape, dt):
            target, back = out, None
            if target is not rhs:
                np.copyto(target, rhs, casting="same_kind")
        else:
            target, back = convert(rhs, dt), out
            if np.may_share_memory(target, rhs):
                target = target.copy()
        execute(info, ctx, (lu,), (target,), lu.compute_dtype)
    elif rhs.ndim == 2:
        # Each right-hand side is solved in place as one contiguous row of the transpose.
        columns = convert(rhs.T, dt)
        if np.may_share_memory(columns, rhs):
            columns = columns.copy()
        for column in columns:
            execute(info, ctx, (lu,), (column,), lu.compute_dtype)
        target, back = columns.T, out
        if back is not None and back.shape != target.shape:
            raise ValueError(f"out has shape {back.shape}, the result has shape {target.shape}")
    else:
        raise ValueError(f"quillmark.solve - b must be a vector or a matrix, got shape {rhs.shape}")
    return _deliver(target, back)


def logdet(a, /, *, dtype=None, compute_dtype=None, context=None):
    """Principal complex logarithm of ``det(a)`` (imaginary part 0 or pi for real input); ``a`` is
    a square matrix or a factorisation from :func:`lu_factor`. A singular matrix fails in the
    factorisation (see :func:`slogdet` for a result of ``-inf`` instead).

    >>> import quillmark as qm
    >>> complex(qm.logdet([[-1.0, 0.0], [0.0, 1.0]]))
    3.141592653589793j
    """
    ctx = default_context() if context is None else context
    lu = _factor(a, None, dtype, compute_dtype, ctx)
    info = op_info("logdet")
    target = np.empty((), numpy_dtype(info.outputs_for[lu.dtype][0][0]))
    execute(info, ctx, (lu,), (target,), None)
    return target[()]


def _outputs(info, dt, *shapes):
    return [np.empty(shape, numpy_dtype(name)) for shape, (name, _) in
            zip(shapes, info.outputs_for[dtype_name(dt)])]


def eig(a, /, *, dtype=None, compute_dtype=None, context=None):
    """Eigenvalues and unit-norm right eigenvectors of a general square matrix, always complex:
    ``eigenvectors[:, i]`` belongs to ``eigenvalues[i]``.

    >>> import quillmark as qm
    >>> w, v = qm.eig([[2.0, 0.0], [0.0, 3.0]])
    >>> sorted(w.real.round(6).tolist())
    [2.0, 3.0]
    """
    info, ctx, (m,), dt = _setup("eig", (a,), dtype, context)
    n = _order("eig", m)
    out_name, out_compute = info.outputs_for[dtype_name(dt)][0]
    values = _native.EigenOperand(n, out_name, out_compute)
    execute(info, ctx, (m,), (values,), compute_dtype)
    return EigResult(values.values, values.vectors)


def principal_eigenvector(a, /, *, out=None, dtype=None, compute_dtype=None, context=None):
    """Unit-norm eigenvector of the eigenvalue of greatest magnitude (phase not fixed).

    >>> import quillmark as qm
    >>> v = qm.principal_eigenvector([[1.0, 0.0], [0.0, 5.0]])
    >>> abs(v).round(6).tolist()
    [0.0, 1.0]
    """
    info, ctx, (m,), _ = _setup("principal_eigenvector", (a,), dtype, context)
    return _single(info, ctx, (m,), (_order("principal_eigenvector", m),), out, compute_dtype)


def eigh(a, /, *, dtype=None, compute_dtype=None, context=None):
    """Eigen decomposition of a Hermitian (real symmetric) matrix: ascending real eigenvalues and
    orthonormal eigenvectors in columns.

    >>> import quillmark as qm
    >>> w, v = qm.eigh([[2.0, 1.0], [1.0, 2.0]])
    >>> w.round(6).tolist()
    [1.0, 3.0]
    """
    info, ctx, (m,), dt = _setup("eigh", (a,), dtype, context)
    n = _order("eigh", m)
    values, vectors = _outputs(info, dt, (n,), (n, n))
    execute(info, ctx, (m,), (values, vectors), compute_dtype)
    return EighResult(values, vectors)


def eigvalsh(a, /, *, out=None, dtype=None, compute_dtype=None, context=None):
    """Ascending real eigenvalues of a Hermitian (real symmetric) matrix.

    >>> import quillmark as qm
    >>> qm.eigvalsh([[2.0, 1.0], [1.0, 2.0]]).round(6)
    array([1., 3.])
    """
    info, ctx, (m,), _ = _setup("eigvalsh", (a,), dtype, context)
    return _single(info, ctx, (m,), (_order("eigvalsh", m),), out, compute_dtype)


def slogdet(a, /, *, dtype=None, compute_dtype=None, context=None):
    """Sign and natural log of the magnitude of ``det(a)``; a singular matrix gives
    ``(0, -inf)``.

    >>> import quillmark as qm
    >>> sign, logabsdet = qm.slogdet([[-2.0, 0.0], [0.0, 1.0]])
    >>> float(sign), round(float(logabsdet), 6)
    (-1.0, 0.693147)
    """
    info, ctx, (m,), dt = _setup("slogdet", (a,), dtype, context)
    _order("slogdet", m)
    sign, logabs = _outputs(info, dt, (), ())
    execute(info, ctx, (m,), (sign, logabs), compute_dtype)
    return SlogdetResult(sign[()], logabs[()])


def logdet_positive_definite(a, /, *, out=None, dtype=None, compute_dtype=None, context=None):
    """Natural log of the determinant of a Hermitian positive definite matrix, by Cholesky.

    >>> import quillmark as qm
    >>> round(float(qm.logdet_positive_definite([[4.0, 0.0], [0.0, 1.0]])), 6)
    1.386294
    """
    info, ctx, (m,), _ = _setup("logdet_positive_definite", (a,), dtype, context)
    _order("logdet_positive_definite", m)
    return _single(info, ctx, (m,), (), out, compute_dtype)
