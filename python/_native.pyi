"""Private native implementation for quillmark"""

from typing import Any, overload

import numpy


class NativeError(RuntimeError):
    pass

def numeric_policies() -> tuple:
    """
    The compiled storage/compute dtype pairs, each a dict with 'dtype', 'compute_dtype' and 'default'.
    """

def available_backends() -> tuple:
    """The execution backends of this build."""

def cuda_is_available() -> bool:
    """Whether a CUDA backend is usable (never in this build)."""

def cuda_device_count() -> int:
    """The number of usable CUDA devices (0 in this build)."""

def build_info() -> dict:
    """Version, CUDA support and the CPU SIMD engine selected at run time."""

class _Catalogue:
    """
    A sealed operation catalogue with its backends, produced by ContextBuilder.build().
    """

    def contains_operation(self, operation: str) -> bool:
        """
        Whether the catalogue holds the operation named by its canonical identifier ('name@major').
        """

    def operations(self) -> tuple[str, ...]:
        """The canonical identifiers of all operations, in registration order."""

    def describe(self, operation: str) -> dict[str, Any]:
        """
        The machine-readable description of one operation: 'id', 'handle', 'roles', 'numerics',
        'provenance' and 'implementations' (one dict per backend registration with 'backend',
        'operands', 'numerics' and 'provenance'). Raises IndexError for an operation that is not
        registered and ValueError for a malformed identifier.
        """

class ContextBuilder:
    """
    Collects native plugins on top of the built-in operations and CPU backends,
    and seals them once into a _Catalogue.
    """

    def __init__(self) -> None:
        """A fresh builder holding the built-in catalogue and the CPU backends."""

    def load_plugin(self, path: str) -> ContextBuilder:
        """
        Load one native plugin library into the builder and return the same builder. A plugin that
        fails leaves the builder as it was.
        """

    def build(self) -> _Catalogue:
        """
        Validate and seal the builder's registries and return the catalogue. A builder builds once.
        """

class Context:
    """
    An execution context: the CPU runtime (threads, NUMA and pinning policies) over a
    sealed catalogue.

    Contexts are read-only once made and may be shared between threads; each execution
    runs on the calling thread with the interpreter lock released.
    """

    def __init__(self, thread_count: int = 0, min_parallel_work: int = 32768, cuda_device: int = -1, stream_pool_size: int = 32, external_stream: int | None = None, numa_policy: str = 'auto', pinning_policy: str = 'auto', scheduling: str = 'auto', cross_device: str = 'reject', catalogue: _Catalogue | None = None) -> None:
        """
        Create a context.

        thread_count 0 lets the runtime choose; min_parallel_work is the smallest amount of
        work split across threads; numa_policy and pinning_policy are 'disabled', 'auto' or
        'strict'. A catalogue of None uses the built-in catalogue. cuda_device,
        stream_pool_size, external_stream, scheduling and cross_device belong to the CUDA
        path, which this build lacks: any cuda_device >= 0 is refused.
        """

    @property
    def thread_count(self) -> int:
        """The number of CPU threads in force."""

    @property
    def min_parallel_work(self) -> int:
        """The smallest amount of work that is split across threads."""

    @property
    def cuda_device(self) -> int:
        """The CUDA device requested (-1: none)."""

    def synchronise(self) -> None:
        """
        Wait for outstanding work. CPU executions complete before execute returns, so
        this returns at once.
        """

    def execute(self, operation: str, bindings: dict[str, Any], locations: dict[str, str], compute_dtypes: dict[str, str] = {}) -> Any:
        """
        Run one catalogue operation.

        bindings maps role names ('Input0', 'Output0', ...) to NumPy arrays (rank 0 for
        scalars) or structured operands; locations maps every role to 'host' or 'cuda';
        compute_dtypes optionally names a compute dtype per array role. Arrays are used in
        place, never copied; outputs are written into them. Returns the single output
        object, or a tuple of the outputs in role order.
        """

    def _result_policy(self, operation: str, inputs: list[Any], output_shape: tuple[int, ...], output_dtype: str = '') -> tuple[str, str]:
        """
        The (dtype, compute_dtype) names of the dense result that the registered implementations
        would produce for these inputs (in role order); len(output_shape) gives the result kind
        (0 scalar, 1 vector, 2 row-major matrix). An empty output_dtype leaves the dtype open.
        """

class LUOperand:
    """
    A host LU-factorisation operand: packed n x n factors (unit lower triangle implied), 1-based
    pivots and the row-exchange count. Bind it to the LU role of 'quillmark.lu_factor@1' to fill it,
    then to the input of 'quillmark.solve@1' or 'quillmark.logdet@1'.
    """

    @overload
    def __init__(self, size: int, dtype: str = 'complex64', compute_dtype: str = '') -> None:
        """
        An empty LU operand for an n x n matrix (n = size), to be filled by 'quillmark.lu_factor@1'.
        """

    @overload
    def __init__(self, values: numpy.ndarray, dtype: str = '', compute_dtype: str = '') -> None:
        """
        An LU operand whose packed factors are copied from a square floating-point array. Pivots are
        left unset and the swap count is 0; the factors are not validated.
        """

    @property
    def dtype(self) -> str:
        """The storage dtype name."""

    @property
    def compute_dtype(self) -> str:
        """The compute dtype name."""

    @property
    def size(self) -> int:
        """The order n."""

    @property
    def pivots(self) -> numpy.ndarray:
        """A copy of the n one-based pivots (int64)."""

    @property
    def factors(self) -> numpy.ndarray:
        """
        A copy of the packed factors; factors[i, j] is element (i, j) of the n x n factor matrix.
        """

    @property
    def swaps(self) -> int:
        """The number of row exchanges."""

class EigenOperand:
    """
    A host eigen-decomposition operand: n eigenvalues and the n x n eigenvectors, filled by
    'quillmark.eig@1'.
    """

    def __init__(self, size: int, dtype: str = 'complex64', compute_dtype: str = '') -> None:
        """
        An empty eigen operand for an n x n matrix (n = size) in a complex storage dtype.
        """

    @property
    def dtype(self) -> str:
        """The storage dtype name."""

    @property
    def compute_dtype(self) -> str:
        """The compute dtype name."""

    @property
    def size(self) -> int:
        """The order n."""

    @property
    def values(self) -> numpy.ndarray:
        """A copy of the n eigenvalues."""

    @property
    def vectors(self) -> numpy.ndarray:
        """
        A copy of the eigenvectors; vectors[:, i] is the unit-norm right eigenvector of values[i].
        """

class LUFactor:
    """
    The LU factorisation of a square array, made at construction through a context, with solve and
    logdet on it.
    """

    def __init__(self, a: numpy.ndarray, context: Context) -> None:
        """
        Factorise the square array a with 'quillmark.lu_factor@1' on the given context.
        """

    @property
    def size(self) -> int:
        """The order n."""

    @property
    def dtype(self) -> str:
        """The storage dtype of the factorisation."""

    @property
    def compute_dtype(self) -> str:
        """The compute dtype of the factorisation."""

    def solve(self, rhs: numpy.ndarray) -> None:
        """
        Solve A x = rhs in place: rhs (C-contiguous, shape (n,) or (n, k), the factor's dtype) is
        overwritten with x, column by column.
        """

    def logdet(self) -> complex:
        """
        The natural logarithm of det(A) as a complex number (principal branch: imaginary part 0 or pi
        for real matrices).
        """
