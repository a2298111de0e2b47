// Structured operands (LU factorisations, eigen decompositions) in owned host storage, and
// LUFactor, which factorises an array once and then solves and takes log-determinants.
#include <nanobind/nanobind.h>
#include <nanobind/stl/complex.h>
#include <nanobind/stl/string.h>

#include <algorithm>
#include <complex>
#include <cstring>
#include <stdexcept>

#include "backend/cpu/structured_solver.hpp"
#include "catalogue/builtin_operations.hpp"
#include "frontend/executor.hpp"
#include "frontend/operation_bindings.hpp"
#include "module_parts.hpp"
#include "native_types.hpp"
#include "storage/dense_host_storage.hpp"
#include "storage/storage_factory.hpp"

namespace quillmark::python {
namespace {

using namespace nb::literals;

const OperationId& lu_factor_id() { return builtin_operation_id(BuiltinOperation::lu_factor); }
const OperationId& solve_id() { return builtin_operation_id(BuiltinOperation::solve); }
const OperationId& logdet_id() { return builtin_operation_id(BuiltinOperation::logdet); }

bool is_floating_storage(ScalarType type) noexcept {
    // The compiled pairs less int32.
    return is_compiled_policy(type, default_compute(type)) && type != ScalarType::int32;
}

// The (storage, compute) pair of a structured operand; an empty compute name takes the default.
DataTypeDescriptor structured_policy(const std::string& dtype, const std::string& compute_dtype) {
    const std::optional<ScalarType> storage = scalar_type_from_name(dtype);
    std::optional<ScalarType> compute;
    if (!compute_dtype.empty())
        compute = scalar_type_from_name(compute_dtype);
    else if (storage)
        compute = default_compute(*storage);
    if (!storage || !compute || !is_compiled_policy(*storage, *compute))
        throw std::invalid_argument("structured operand - uncompiled storage/compute dtype policy");
    using enum ScalarType;
    if (*compute != float32 && *compute != float64 && *compute != complex64 && *compute != complex128)
        throw std::invalid_argument(
            "structured operand requires a float32/64 or complex64/128 factor policy");
    return DataTypeDescriptor(*storage, *compute);
}

void make_structured(StructuredOperand& operand, const DataTypeDescriptor& dtype, OperandKind kind,
                     std::uint64_t n) {
    const ComplexLayout complex =
        is_complex_type(dtype.storage()) ? ComplexLayout::interleaved : ComplexLayout::none;
    std::unique_ptr<OperandEntity> entity =
        make_dense_host_storage(dtype, kind, {n, 0}, complex, MatrixLayout::column_major);
    if (!entity)
        throw std::bad_alloc();
    operand.entity = std::move(entity);
    operand.storage = dtype.storage();
    operand.compute = dtype.compute();
    operand.size = n;
}

BufferDescriptor buffer(const StructuredOperand& operand, std::size_t index) {
    return operand.entity->erased_access().buffer(index);
}

// Gathers a strided n x n matrix into column-major order, one element of Size bytes at a time.
// Square tiles keep both the source rows and the target columns of a tile in cache; walking a
// whole row-major column at a time would fetch a cache line per element.
template <std::size_t Size>
void gather_column_major(std::byte* target, const std::byte* source, std::uint64_t n, std::int64_t row_stride,
                         std::int64_t col_stride) {
    constexpr std::uint64_t kTile = 32;
    for (std::uint64_t j0 = 0; j0 < n; j0 += kTile)
        for (std::uint64_t i0 = 0; i0 < n; i0 += kTile)
            for (std::uint64_t j = j0; j < std::min(n, j0 + kTile); ++j)
                for (std::uint64_t i = i0; i < std::min(n, i0 + kTile); ++i)
                    std::memcpy(target + (i + j * n) * Size,
                                source + (static_cast<std::int64_t>(i) * row_stride +
                                          static_cast<std::int64_t>(j) * col_stride) *
                                             static_cast<std::int64_t>(Size),
                                Size);
}

void gather(std::size_t element, std::byte* target, const std::byte* source, std::uint64_t n,
            std::int64_t row_stride, std::int64_t col_stride) {
    switch (element) {
    case 2:
        return gather_column_major<2>(target, source, n, row_stride, col_stride);
    case 4:
        return gather_column_major<4>(target, source, n, row_stride, col_stride);
    case 8:
        return gather_column_major<8>(target, source, n, row_stride, col_stride);
    case 16:
        return gather_column_major<16>(target, source, n, row_stride, col_stride);
    default:
        throw std::logic_error("LUOperand - unexpected element size");
    }
}

void lu_from_size(NativeLUOperand* self, std::uint64_t size, const std::string& dtype,
                  const std::string& compute_dtype) {
    NativeLUOperand operand;
    make_structured(operand, structured_policy(dtype, compute_dtype), OperandKind::lu, size);
    new (self) NativeLUOperand(std::move(operand));
}

void lu_from_values(NativeLUOperand* self, nb::handle values, const std::string& dtype,
                    const std::string& compute_dtype) {
    if (!is_ndarray(values))
        throw nb::type_error("LUOperand - values must be a NumPy ndarray");
    ArrayFacts facts = inspect_array(values);
    if (facts.ndim != 2 || facts.shape[0] != facts.shape[1])
        throw std::invalid_argument("LUOperand - matrix must be square");
    if (!facts.storage || !is_floating_storage(*facts.storage))
        throw std::invalid_argument("LUOperand - matrix requires floating point storage");
    if (!dtype.empty() && dtype != facts.dtype_name())
        throw std::invalid_argument("LUOperand - explicit dtype does not match array storage");
    const std::size_t element = scalar_metadata(*facts.storage).element_size;
    if (nb::cast<std::uintptr_t>(values.attr("ctypes").attr("data")) % element != 0)
        throw std::invalid_argument("LUOperand - input must be aligned");
    const DataTypeDescriptor policy = structured_policy(facts.dtype_name(), compute_dtype);
    std::vector<nb::object> keep;
    if (!facts.native) {
        // Foreign byte order: read the values through a native-order copy.
        keep.push_back(values.attr("astype")(values.attr("dtype").attr("newbyteorder")("=")));
        facts = inspect_array(keep.back());
    }

    NativeLUOperand operand;
    const std::uint64_t n = facts.shape[0];
    make_structured(operand, policy, OperandKind::lu, n);
    if (n != 0)
        gather(element, static_cast<std::byte*>(buffer(operand, 0).data),
               static_cast<const std::byte*>(facts.data), n, facts.strides[0], facts.strides[1]);
    new (self) NativeLUOperand(std::move(operand));
}

void eigen_from_size(NativeEigenOperand* self, std::uint64_t size, const std::string& dtype,
                     const std::string& compute_dtype) {
    NativeEigenOperand operand;
    make_structured(operand, structured_policy(dtype, compute_dtype), OperandKind::eigen, size);
    new (self) NativeEigenOperand(std::move(operand));
}

std::string storage_name(const StructuredOperand& operand) {
    return std::string(scalar_name(operand.storage));
}
std::string compute_name(const StructuredOperand& operand) {
    return std::string(scalar_name(operand.compute));
}
// Properties take the bound class itself, not the unbound base.
template <class T> std::string storage_name_of(const T& operand) {
    return storage_name(operand);
}
template <class T> std::string compute_name_of(const T& operand) {
    return compute_name(operand);
}

nb::object export_matrix(const StructuredOperand& operand, std::size_t index) {
    const BufferDescriptor b = buffer(operand, index);
    const auto n = static_cast<std::size_t>(operand.size);
    return export_array(operand.storage, {n, n}, b.layout == MatrixLayout::column_major, b.data);
}

nb::object lu_pivots(const NativeLUOperand& self) {
    return export_array(ScalarType::int64, {static_cast<std::size_t>(self.size)}, false,
                        buffer(self, 1).data);
}
nb::object lu_factors(const NativeLUOperand& self) {
    return export_matrix(self, 0);
}
nb::object eigen_values(const NativeEigenOperand& self) {
    return export_array(self.storage, {static_cast<std::size_t>(self.size)}, false, buffer(self, 0).data);
}
nb::object eigen_vectors(const NativeEigenOperand& self) {
    return export_matrix(self, 1);
}

// ---- LUFactor

void run_released(const QuillmarkContext& context, const OperationBindings& bindings,
                  const OperationId& operation) {
    nb::gil_scoped_release release;
    QuillmarkExecutor(context).execute(bindings, operation);
}

void init_lu_factor(NativeLUFactor* self, nb::handle a, const NativeContext& context) {
    NativeLUFactor factor;
    lu_from_values(&factor.lu, a, "", "");
    factor.context = context.context;
    OperationBindings bindings;
    bindings.bind(output_role(0), *factor.lu.entity);
    run_released(*factor.context, bindings, lu_factor_id());
    new (self) NativeLUFactor(std::move(factor));
}

// Row-major n x columns right-hand sides of the factor's own dtype, solved in place by the
// scalar backend's substitution; false when the dtype has no direct path. complex64 has none: a
// lone complex64 vector is solved by the SIMD engine, and every column must get its answer.
bool solve_columns_in_place(const NativeLUOperand& lu, std::byte* data, std::uint64_t columns) {
    const MatrixGeometry g{lu.size, lu.size, MatrixLayout::column_major};
    const void* factors = buffer(lu, 0).data;
    const auto* pivots = static_cast<const std::int64_t*>(buffer(lu, 1).data);
    auto run = [&]<class C>(C*) {
        cpu::lu_solve_columns(static_cast<const C*>(factors), g, pivots, reinterpret_cast<C*>(data), columns);
        return true;
    };
    switch (lu.storage) {
    case ScalarType::float32: return run(static_cast<float*>(nullptr));
    case ScalarType::float64: return run(static_cast<double*>(nullptr));
    case ScalarType::complex128: return run(static_cast<std::complex<double>*>(nullptr));
    default: return false;
    }
}

void solve(const NativeLUFactor& self, nb::handle rhs) {
    if (!is_ndarray(rhs))
        throw nb::type_error("solve - right-hand side must be a NumPy ndarray");
    const ArrayFacts facts = inspect_array(rhs);
    if (facts.storage != self.lu.storage)
        throw std::invalid_argument("solve - right-hand side dtype does not match factor");
    if (facts.ndim != 1 && facts.ndim != 2)
        throw std::invalid_argument("solve - right-hand side must have rank one or two");
    if (facts.shape[0] != self.lu.size)
        throw std::invalid_argument("solve - right-hand side size mismatch");
    if (!facts.c_contiguous || !facts.aligned || !facts.native)
        throw std::invalid_argument(
            "solve - right-hand side must be aligned, native-endian and C-contiguous");
    if (!facts.writeable)
        throw std::invalid_argument("solve - right-hand side must be writable");

    std::vector<nb::object> keep;
    auto* data = static_cast<std::byte*>(array_data(facts, keep));
    const std::uint64_t n = self.lu.size;
    const std::uint64_t columns = facts.ndim == 1 ? 1 : facts.shape[1];
    const std::size_t element = scalar_metadata(self.lu.storage).element_size;
    nb::gil_scoped_release release;
    const QuillmarkExecutor executor(*self.context);
    if (facts.ndim == 1) {
        auto vector = borrow_storage(self.lu.storage, OperandKind::vector, data, {n, 0}, MatrixLayout::none);
        OperationBindings bindings;
        bindings.bind(input_role(0), static_cast<const OperandEntity&>(*self.lu.entity));
        bindings.bind(output_role(0), *vector);
        executor.execute(bindings, solve_id());
        return;
    }
    // A factor held in its compute type solves all columns in one pass over the factors.
    if (self.lu.storage == self.lu.compute && solve_columns_in_place(self.lu, data, columns))
        return;
    // Otherwise each column is solved in a contiguous copy.
    std::vector<std::byte> column(n * element);
    auto vector =
        borrow_storage(self.lu.storage, OperandKind::vector, column.data(), {n, 0}, MatrixLayout::none);
    OperationBindings bindings;
    bindings.bind(input_role(0), static_cast<const OperandEntity&>(*self.lu.entity));
    bindings.bind(output_role(0), *vector);
    for (std::uint64_t k = 0; k < columns; ++k) {
        for (std::uint64_t i = 0; i < n; ++i)
            std::memcpy(column.data() + i * element, data + (i * columns + k) * element, element);
        executor.execute(bindings, solve_id());
        for (std::uint64_t i = 0; i < n; ++i)
            std::memcpy(data + (i * columns + k) * element, column.data() + i * element, element);
    }
}

template <class P> std::complex<double> logdet_in(const NativeLUFactor& self) {
    BoundComplexScalarEntity<P> result;
    OperationBindings bindings;
    bindings.bind(input_role(0), static_cast<const OperandEntity&>(*self.lu.entity));
    bindings.bind(output_role(0), result);
    run_released(*self.context, bindings, logdet_id());
    const auto value = result.value();
    return {static_cast<double>(value.real()), static_cast<double>(value.imag())};
}

std::complex<double> logdet(const NativeLUFactor& self) {
    const bool single = self.lu.compute == ScalarType::float32 || self.lu.compute == ScalarType::complex64;
    return single ? logdet_in<PolicyC64>(self) : logdet_in<PolicyC128>(self);
}

} // namespace

void bind_structured(nb::module_& m) {
    nb::class_<NativeLUOperand>(
        m, "LUOperand",
        "A host LU-factorisation operand: packed n x n factors (unit lower triangle implied), 1-based\n"
        "pivots and the row-exchange count. Bind it to the LU role of 'quillmark.lu_factor@1' to fill it,\n"
        "then to the input of 'quillmark.solve@1' or 'quillmark.logdet@1'.")
        .def("__init__", &lu_from_size, "size"_a, "dtype"_a = "complex64", "compute_dtype"_a = "",
             "An empty LU operand for an n x n matrix (n = size), to be filled by 'quillmark.lu_factor@1'.")
        .def("__init__", &lu_from_values, "values"_a, "dtype"_a = "", "compute_dtype"_a = "",
             nb::sig("def __init__(self, values: numpy.ndarray, dtype: str = '', compute_dtype: str = '') -> "
                     "None"),
             "An LU operand whose packed factors are copied from a square floating-point array. Pivots are\n"
             "left unset and the swap count is 0; the factors are not validated.")
        .def_prop_ro("dtype", &storage_name_of<NativeLUOperand>, "The storage dtype name.")
        .def_prop_ro("compute_dtype", &compute_name_of<NativeLUOperand>, "The compute dtype name.")
        .def_prop_ro(
            "size", [](const NativeLUOperand& self) { return self.size; }, "The order n.")
        .def_prop_ro("pivots", &lu_pivots, nb::for_getter(nb::sig("def pivots(self) -> numpy.ndarray")),
                     "A copy of the n one-based pivots (int64).")
        .def_prop_ro(
            "factors", &lu_factors, nb::for_getter(nb::sig("def factors(self) -> numpy.ndarray")),
            "A copy of the packed factors; factors[i, j] is element (i, j) of the n x n factor matrix.")
        .def_prop_ro(
            "swaps",
            [](const NativeLUOperand& self) {
                return *static_cast<const std::int64_t*>(buffer(self, 2).data);
            },
            "The number of row exchanges.");

    nb::class_<NativeEigenOperand>(
        m, "EigenOperand",
        "A host eigen-decomposition operand: n eigenvalues and the n x n eigenvectors, filled by\n"
        "'quillmark.eig@1'.")
        .def("__init__", &eigen_from_size, "size"_a, "dtype"_a = "complex64", "compute_dtype"_a = "",
             "An empty eigen operand for an n x n matrix (n = size) in a complex storage dtype.")
        .def_prop_ro("dtype", &storage_name_of<NativeEigenOperand>, "The storage dtype name.")
        .def_prop_ro("compute_dtype", &compute_name_of<NativeEigenOperand>, "The compute dtype name.")
        .def_prop_ro(
            "size", [](const NativeEigenOperand& self) { return self.size; }, "The order n.")
        .def_prop_ro("values", &eigen_values, nb::for_getter(nb::sig("def values(self) -> numpy.ndarray")),
                     "A copy of the n eigenvalues.")
        .def_prop_ro(
            "vectors", &eigen_vectors, nb::for_getter(nb::sig("def vectors(self) -> numpy.ndarray")),
            "A copy of the eigenvectors; vectors[:, i] is the unit-norm right eigenvector of values[i].");

    nb::class_<NativeLUFactor>(
        m, "LUFactor",
        "The LU factorisation of a square array, made at construction through a context, with solve and\n"
        "logdet on it.")
        .def("__init__", &init_lu_factor, "a"_a, "context"_a,
             nb::sig("def __init__(self, a: numpy.ndarray, context: Context) -> None"),
             "Factorise the square array a with 'quillmark.lu_factor@1' on the given context.")
        .def_prop_ro(
            "size", [](const NativeLUFactor& self) { return self.lu.size; }, "The order n.")
        .def_prop_ro(
            "dtype", [](const NativeLUFactor& self) { return storage_name(self.lu); },
            "The storage dtype of the factorisation.")
        .def_prop_ro(
            "compute_dtype", [](const NativeLUFactor& self) { return compute_name(self.lu); },
            "The compute dtype of the factorisation.")
        .def("solve", &solve, "rhs"_a, nb::sig("def solve(self, rhs: numpy.ndarray) -> None"),
             "Solve A x = rhs in place: rhs (C-contiguous, shape (n,) or (n, k), the factor's dtype) is\n"
             "overwritten with x, column by column.")
        .def("logdet", &logdet,
             "The natural logarithm of det(A) as a complex number (principal branch: imaginary part 0 or pi\n"
             "for real matrices).");
}

} // namespace quillmark::python
