// NumPy arrays as the library sees them: dtype recognition, flags, raw element pointers, borrowed
// storages over array memory and exported copies of owned storage.
#include <nanobind/ndarray.h>
#include <nanobind/stl/string.h>

#include <cstring>
#include <limits>
#include <stdexcept>

#include "native_types.hpp"
#include "storage/borrowed_host_storage.hpp"

namespace quillmark::python {
namespace {

using namespace nb::literals;

// Python objects cached for the life of the process (deliberately never released: the module
// cannot be unloaded and these may be used until interpreter shutdown).
PyObject* cached_import(const char* module) {
    return nb::module_::import_(module).release().ptr();
}

nb::handle numpy_module() {
    static PyObject* numpy = cached_import("numpy");
    return numpy;
}

nb::handle low_precision_dtypes() {
    static PyObject* dtypes = cached_import("quillmark._dtypes");
    return dtypes;
}

bool dtype_equals(nb::handle dtype, nb::handle other) {
    const int equal = PyObject_RichCompareBool(dtype.ptr(), other.ptr(), Py_EQ);
    if (equal < 0)
        throw nb::python_error();
    return equal == 1;
}

std::optional<ScalarType> recognise(char kind, std::size_t itemsize, nb::handle dtype) {
    using enum ScalarType;
    switch (kind) {
    case 'f':
        if (itemsize == 2)
            return float16;
        if (itemsize == 4)
            return float32;
        if (itemsize == 8)
            return float64;
        return std::nullopt;
    case 'i':
        if (itemsize == 4)
            return int32;
        if (itemsize == 8)
            return int64;
        return std::nullopt;
    case 'u':
        if (itemsize == 4)
            return uint32;
        if (itemsize == 8)
            return uint64;
        return std::nullopt;
    case 'c':
        if (itemsize == 8)
            return complex64;
        if (itemsize == 16)
            return complex128;
        return std::nullopt;
    case 'V':
        // Neither low-precision type is a NumPy builtin; both come as extension/structured dtypes.
        if (itemsize == 2 && dtype_equals(dtype, low_precision_dtypes().attr("bfloat16")))
            return bfloat16;
        if (itemsize == 4 && dtype_equals(dtype, low_precision_dtypes().attr("complex32")))
            return complex32;
        return std::nullopt;
    default:
        return std::nullopt;
    }
}

// Attribute names are interned once, so that per-call lookups neither build nor hash strings.
#define QM_NAME(text)                                                                                        \
    ([]() -> nb::handle {                                                                                    \
        static PyObject* const name = PyUnicode_InternFromString(text);                                      \
        return name;                                                                                         \
    }())

bool truth(nb::handle value) {
    const int result = PyObject_IsTrue(value.ptr());
    if (result < 0)
        throw nb::python_error();
    return result == 1;
}

template <class P>
std::unique_ptr<OperandEntity> borrow_real(OperandKind kind, void* data, std::array<std::uint64_t, 2> extent,
                                           MatrixLayout layout) {
    auto* elements = static_cast<typename P::storage_type*>(data);
    switch (kind) {
    case OperandKind::scalar:
        return std::make_unique<BorrowedDenseHostRealScalar<P>>(elements);
    case OperandKind::vector:
        return std::make_unique<BorrowedDenseHostRealVector<P>>(elements, extent[0]);
    case OperandKind::matrix:
        return std::make_unique<BorrowedDenseHostRealMatrix<P>>(elements, extent[0], extent[1], layout);
    default:
        throw std::logic_error("borrow_storage - only dense kinds can be borrowed");
    }
}

template <class P>
std::unique_ptr<OperandEntity> borrow_complex(OperandKind kind, void* data,
                                              std::array<std::uint64_t, 2> extent, MatrixLayout layout) {
    using S = typename P::storage_type;
    switch (kind) {
    case OperandKind::scalar:
        return std::make_unique<BorrowedDenseHostComplexSplitScalar<P>>(static_cast<component_t<S>*>(data));
    case OperandKind::vector:
        return std::make_unique<BorrowedDenseHostComplexInterleavedVector<P>>(static_cast<S*>(data),
                                                                              extent[0]);
    case OperandKind::matrix:
        return std::make_unique<BorrowedDenseHostComplexInterleavedMatrix<P>>(static_cast<S*>(data),
                                                                              extent[0], extent[1], layout);
    default:
        throw std::logic_error("borrow_storage - only dense kinds can be borrowed");
    }
}

const char* raw_view_dtype(ScalarType storage) noexcept {
    return storage == ScalarType::bfloat16 ? "uint16" : "uint32";
}

} // namespace

bool is_ndarray(nb::handle object) {
    static PyObject* ndarray = nb::object(numpy_module().attr("ndarray")).release().ptr();
    const int result = PyObject_IsInstance(object.ptr(), ndarray);
    if (result < 0)
        throw nb::python_error();
    return result == 1;
}

ArrayFacts inspect_array(nb::handle array) {
    ArrayFacts facts;
    facts.array = array;
    facts.ndim = nb::cast<std::size_t>(array.attr(QM_NAME("ndim")));
    nb::tuple shape = nb::cast<nb::tuple>(array.attr(QM_NAME("shape")));
    for (std::size_t axis = 0; axis < facts.ndim && axis < 2; ++axis)
        facts.shape[axis] = nb::cast<std::uint64_t>(shape[axis]);

    nb::object dtype = array.attr(QM_NAME("dtype"));
    const std::string kind = nb::cast<std::string>(dtype.attr(QM_NAME("kind")));
    const auto itemsize = nb::cast<std::size_t>(dtype.attr(QM_NAME("itemsize")));
    facts.native = truth(dtype.attr(QM_NAME("isnative")));
    if (kind == "b") {
        facts.is_bool = true;
        facts.dtype_name = "bool";
    } else {
        facts.storage = kind.size() == 1 ? recognise(kind[0], itemsize, dtype) : std::nullopt;
        facts.dtype_name = facts.storage ? std::string(scalar_name(*facts.storage))
                                         : nb::cast<std::string>(dtype.attr(QM_NAME("name")));
    }

    nb::object flags = array.attr(QM_NAME("flags"));
    facts.c_contiguous = truth(flags.attr(QM_NAME("c_contiguous")));
    facts.f_contiguous = truth(flags.attr(QM_NAME("f_contiguous")));
    facts.aligned = truth(flags.attr(QM_NAME("aligned")));
    facts.writeable = truth(flags.attr(QM_NAME("writeable")));
    return facts;
}

ScalarType default_compute(ScalarType storage) noexcept {
    switch (storage) {
    case ScalarType::bfloat16:
    case ScalarType::float16:
        return ScalarType::float32;
    case ScalarType::complex32:
        return ScalarType::complex64;
    default:
        return storage;
    }
}

bool is_complex_type(ScalarType type) noexcept {
    return type == ScalarType::complex32 || type == ScalarType::complex64 || type == ScalarType::complex128 ||
           type == ScalarType::complex_int32 || type == ScalarType::complex_int64;
}

nb::ndarray<nb::ro> import_array(const ArrayFacts& facts, std::vector<nb::object>& keep) {
    nb::handle source = facts.array;
    if (facts.low_precision()) {
        keep.push_back(facts.array.attr(QM_NAME("view"))(raw_view_dtype(*facts.storage)));
        source = keep.back();
    }
    nb::ndarray<nb::ro> imported;
    if (!nb::try_cast(source, imported, false))
        throw std::invalid_argument("host binding requires a NumPy ndarray");
    return imported;
}

void* array_data(const ArrayFacts& facts, std::vector<nb::object>& keep) {
    return const_cast<void*>(import_array(facts, keep).data());
}

std::unique_ptr<OperandEntity> borrow_storage(ScalarType storage, OperandKind kind, void* data,
                                              std::array<std::uint64_t, 2> extent, MatrixLayout layout) {
    switch (storage) {
    case ScalarType::float32:
        return borrow_real<PolicyF32>(kind, data, extent, layout);
    case ScalarType::float64:
        return borrow_real<PolicyF64>(kind, data, extent, layout);
    case ScalarType::bfloat16:
        return borrow_real<PolicyBF16>(kind, data, extent, layout);
    case ScalarType::float16:
        return borrow_real<PolicyF16>(kind, data, extent, layout);
    case ScalarType::int32:
        return borrow_real<PolicyI32>(kind, data, extent, layout);
    case ScalarType::complex32:
        return borrow_complex<PolicyC32>(kind, data, extent, layout);
    case ScalarType::complex64:
        return borrow_complex<PolicyC64>(kind, data, extent, layout);
    case ScalarType::complex128:
        return borrow_complex<PolicyC128>(kind, data, extent, layout);
    default:
        throw std::logic_error("borrow_storage - storage dtype has no compiled policy");
    }
}

nb::object numpy_dtype(ScalarType storage) {
    static PyObject* cache[13] = {};
    const auto code = static_cast<std::size_t>(storage);
    if (code >= 13 || storage == ScalarType::complex_int32 || storage == ScalarType::complex_int64)
        throw std::invalid_argument("numpy dtype - scalar type has no NumPy dtype");
    if (!cache[code]) {
        nb::object dtype = (storage == ScalarType::bfloat16 || storage == ScalarType::complex32)
                               ? low_precision_dtypes().attr(std::string(scalar_name(storage)).c_str())
                               : numpy_module().attr("dtype")(std::string(scalar_name(storage)));
        cache[code] = dtype.release().ptr();
    }
    return nb::borrow(cache[code]);
}

nb::object export_array(ScalarType storage, const std::vector<std::size_t>& shape, bool column_major,
                        const void* source) {
    const std::size_t element = scalar_metadata(storage).element_size;
    std::size_t count = 1;
    nb::list dims;
    for (std::size_t extent : shape) {
        if (extent > static_cast<std::size_t>(std::numeric_limits<Py_ssize_t>::max()) ||
            (extent != 0 && count > std::numeric_limits<std::size_t>::max() / element / extent))
            throw std::overflow_error("size exceeds destination integer range");
        count *= extent;
        dims.append(extent);
    }
    const bool raw = storage == ScalarType::bfloat16 || storage == ScalarType::complex32;
    nb::object dtype = raw ? numpy_module().attr("dtype")(raw_view_dtype(storage)) : numpy_dtype(storage);
    nb::object array = numpy_module().attr("empty")(nb::tuple(dims), "dtype"_a = dtype,
                                                    "order"_a = column_major ? "F" : "C");
    nb::ndarray<> target;
    if (!nb::try_cast(array, target, false))
        throw std::runtime_error("structured ndarray export - could not reach the new array");
    if (count != 0)
        std::memcpy(target.data(), source, count * element);
    if (raw)
        return array.attr("view")(numpy_dtype(storage));
    return array;
}

} // namespace quillmark::python
