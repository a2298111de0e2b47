// NumPy arrays as the library sees them: dtype recognition, flags, raw element pointers, borrowed
// storages over array memory and exported copies of owned storage.
#include <nanobind/ndarray.h>
#include <nanobind/stl/string.h>

#include <algorithm>
#include <bit>
#include <cstring>
#include <limits>
#include <stdexcept>
#include <string_view>

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

std::optional<ScalarType> recognise(char kind, std::size_t itemsize) {
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
    default:
        return std::nullopt;
    }
}

PyTypeObject* ndarray_type() {
    static PyObject* type = nb::object(numpy_module().attr("ndarray")).release().ptr();
    return reinterpret_cast<PyTypeObject*>(type);
}

// An attribute read through ndarray's own descriptor, which a subclass cannot replace.
nb::object base_attribute(nb::handle array, const char* name) {
    nb::object descriptor = nb::handle(reinterpret_cast<PyObject*>(ndarray_type())).attr(name);
    PyObject* value = Py_TYPE(descriptor.ptr())->tp_descr_get(descriptor.ptr(), array.ptr(),
                                                             reinterpret_cast<PyObject*>(Py_TYPE(array.ptr())));
    if (!value)
        throw nb::python_error();
    return nb::steal(value);
}

// The element type named by a buffer format ("d", "<f", ">Zd", "T{e:real:e:imag:}", ...).
struct FormatType {
    std::optional<ScalarType> storage;
    bool is_bool = false;
    bool native = true;
};

// NumPy exports complex32 as the record "T{e:real:e:imag:}", each field possibly preceded by a
// native byte-order or size mark ("T{=e:real:e:imag:}" at addresses that are not aligned).
bool is_complex32_record(std::string_view format) {
    const auto field = [&format](std::string_view name) {
        if (!format.empty() && (format[0] == '@' || format[0] == '=' || format[0] == '<'))
            format.remove_prefix(1);
        if (!format.starts_with(name))
            return false;
        format.remove_prefix(name.size());
        return true;
    };
    if (!format.starts_with("T{"))
        return false;
    format.remove_prefix(2);
    return field("e:real:") && field("e:imag:") && format == "}";
}

FormatType read_format(const char* format, std::size_t itemsize) {
    static_assert(std::endian::native == std::endian::little, "byte-order prefixes are read for little-endian hosts");
    FormatType type;
    if (!format)
        format = "B";
    if (*format == '@' || *format == '=' || *format == '<') {
        ++format;
    } else if (*format == '>' || *format == '!') {
        type.native = false;
        ++format;
    }
    if (format[0] == 'T') {
        if (itemsize == 4 && is_complex32_record(format))
            type.storage = ScalarType::complex32;
        return type;
    }
    const bool complex = *format == 'Z';
    if (complex)
        ++format;
    if (format[0] == '\0' || format[1] != '\0')
        return type;
    char kind = 0;
    switch (format[0]) {
    case 'e': case 'f': case 'd': kind = complex ? 'c' : 'f'; break;
    case 'b': case 'h': case 'i': case 'l': case 'q': case 'n': kind = 'i'; break;
    case 'B': case 'H': case 'I': case 'L': case 'Q': case 'N': kind = 'u'; break;
    case '?': type.is_bool = !complex; return type;
    default: return type;
    }
    if (complex && kind != 'c')
        return type;
    type.storage = recognise(kind, itemsize);
    return type;
}

std::size_t element_alignment(ScalarType type) noexcept {
    switch (type) {
    case ScalarType::bfloat16:
    case ScalarType::float16:
    case ScalarType::complex32:
        return 2;
    case ScalarType::float32:
    case ScalarType::int32:
    case ScalarType::uint32:
    case ScalarType::complex64:
    case ScalarType::complex_int32:
        return 4;
    default:
        return 8;
    }
}

// Contiguity as NumPy defines it: axes of length one place no constraint; an empty array is both.
bool contiguous(int ndim, const Py_ssize_t* shape, const Py_ssize_t* strides, Py_ssize_t itemsize, bool c_order) {
    // Strides of an empty array are arbitrary (NumPy gives (0, 0) to a (0, 4) array).
    if (std::find(shape, shape + ndim, Py_ssize_t{0}) != shape + ndim)
        return true;
    Py_ssize_t expected = itemsize;
    for (int i = 0; i < ndim; ++i) {
        const int axis = c_order ? ndim - 1 - i : i;
        const Py_ssize_t extent = shape[axis];
        if (extent != 1) {
            if (strides[axis] != expected)
                return false;
            expected *= extent;
        }
    }
    return true;
}

// NumPy's array and dtype records, as far as their layout is shared by every NumPy release since
// 1.7: it is the layout that compiled extensions read through NumPy's own accessor macros.
// Reading it costs a few loads, where a buffer export builds and compares a format string per
// array; and it is the array's real state, which no Python-level override can change.
struct NumpyDescr {
    PyObject_HEAD
    PyTypeObject* typeobj;
    char kind;
    char type;
    char byteorder;
    char former_flags;
    int type_num;
};
struct NumpyArray {
    PyObject_HEAD
    char* data;
    int nd;
    Py_ssize_t* dimensions;
    Py_ssize_t* strides;
    PyObject* base;
    NumpyDescr* descr;
    int flags;
};
constexpr int kNumpyWriteable = 0x0400;

struct RecordType {
    std::optional<ScalarType> storage;
    bool is_bool = false;
    Py_ssize_t itemsize = 0;
};

// The built-in NumPy type numbers (stable across releases) of the dtypes read from the record;
// any other dtype (complex32's record dtype, extension dtypes) takes the buffer path.
RecordType record_type(int type_num) noexcept {
    static_assert(sizeof(long) == 8, "NumPy's long is int64 on this platform");
    switch (type_num) {
    case 0: return {std::nullopt, true, 1};
    case 5: return {ScalarType::int32, false, 4};
    case 6: return {ScalarType::uint32, false, 4};
    case 7: case 9: return {ScalarType::int64, false, 8};
    case 8: case 10: return {ScalarType::uint64, false, 8};
    case 11: return {ScalarType::float32, false, 4};
    case 12: return {ScalarType::float64, false, 8};
    case 14: return {ScalarType::complex64, false, 8};
    case 15: return {ScalarType::complex128, false, 16};
    case 23: return {ScalarType::float16, false, 2};
    default: return {};
    }
}

// Checks the record layout once against a buffer export of a known array; a NumPy whose records
// differ is read through buffer exports only.
bool numpy_records_readable() {
    static const bool readable = [] {
        nb::object probe = numpy_module().attr("zeros")(nb::make_tuple(2, 3), "float64");
        Py_buffer view{};
        if (PyObject_GetBuffer(probe.ptr(), &view, PyBUF_RECORDS_RO) != 0) {
            PyErr_Clear();
            return false;
        }
        const auto* record = reinterpret_cast<const NumpyArray*>(probe.ptr());
        const bool same = record->data == view.buf && record->nd == 2 && record->dimensions[0] == 2 &&
                          record->dimensions[1] == 3 && record->strides[0] == 24 && record->strides[1] == 8 &&
                          record->descr && record->descr->type_num == 12 && record->descr->kind == 'f' &&
                          (record->flags & kNumpyWriteable) != 0;
        PyBuffer_Release(&view);
        return same;
    }();
    return readable;
}

// An entity made in `arena` (destroyed, never freed, by its deleter), or on the heap without one.
template <class E, class... Args> BorrowedEntity make_entity(std::pmr::memory_resource* arena, Args&&... args) {
    if (!arena)
        return BorrowedEntity(new E(std::forward<Args>(args)...));
    std::pmr::polymorphic_allocator<> allocator(arena);
    return BorrowedEntity(allocator.new_object<E>(std::forward<Args>(args)...), EntityDeleter{true});
}

template <class P>
BorrowedEntity borrow_real(std::pmr::memory_resource* arena, OperandKind kind, void* data,
                           std::array<std::uint64_t, 2> extent, MatrixLayout layout) {
    auto* elements = static_cast<typename P::storage_type*>(data);
    switch (kind) {
    case OperandKind::scalar:
        return make_entity<BorrowedDenseHostRealScalar<P>>(arena, elements);
    case OperandKind::vector:
        return make_entity<BorrowedDenseHostRealVector<P>>(arena, elements, extent[0]);
    case OperandKind::matrix:
        return make_entity<BorrowedDenseHostRealMatrix<P>>(arena, elements, extent[0], extent[1], layout);
    default:
        throw std::logic_error("borrow_storage - only dense kinds can be borrowed");
    }
}

template <class P>
BorrowedEntity borrow_complex(std::pmr::memory_resource* arena, OperandKind kind, void* data,
                              std::array<std::uint64_t, 2> extent, MatrixLayout layout) {
    using S = typename P::storage_type;
    switch (kind) {
    case OperandKind::scalar:
        return make_entity<BorrowedDenseHostComplexSplitScalar<P>>(arena, static_cast<component_t<S>*>(data));
    case OperandKind::vector:
        return make_entity<BorrowedDenseHostComplexInterleavedVector<P>>(arena, static_cast<S*>(data),
                                                                              extent[0]);
    case OperandKind::matrix:
        return make_entity<BorrowedDenseHostComplexInterleavedMatrix<P>>(arena, static_cast<S*>(data),
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
    return PyObject_TypeCheck(object.ptr(), ndarray_type());
}

HeldBuffer& HeldBuffer::operator=(HeldBuffer&& other) noexcept {
    if (this != &other) {
        release();
        view_ = other.view_;
        other.view_.obj = nullptr;
    }
    return *this;
}

bool HeldBuffer::acquire(nb::handle object) {
    release();
    if (PyObject_GetBuffer(object.ptr(), &view_, PyBUF_RECORDS_RO) == 0)
        return true;
    PyErr_Clear();
    view_.obj = nullptr;
    return false;
}

void HeldBuffer::release() noexcept {
    if (view_.obj)
        PyBuffer_Release(&view_);
    view_.obj = nullptr;
}

std::uint64_t ArrayFacts::byte_size() const noexcept { return bytes_; }

std::string ArrayFacts::dtype_name() const {
    if (is_bool)
        return "bool";
    if (storage)
        return std::string(scalar_name(*storage));
    return foreign_name_;
}

bool ArrayFacts::read_record(nb::handle object) {
    if (!numpy_records_readable())
        return false;
    const auto* record = reinterpret_cast<const NumpyArray*>(object.ptr());
    const RecordType type = record_type(record->descr->type_num);
    if ((!type.storage && !type.is_bool) || record->nd < 0)
        return false;
    held_ = nb::borrow(object);
    storage = type.storage;
    is_bool = type.is_bool;
    native = record->descr->byteorder != '>';
    data = record->data;
    ndim = static_cast<std::size_t>(record->nd);
    bytes_ = static_cast<std::uint64_t>(type.itemsize);
    for (int axis = 0; axis < record->nd; ++axis) {
        bytes_ *= static_cast<std::uint64_t>(record->dimensions[axis]);
        if (axis < 2) {
            shape[axis] = static_cast<std::uint64_t>(record->dimensions[axis]);
            strides[axis] = record->strides[axis] / type.itemsize;
        }
    }
    c_contiguous = contiguous(record->nd, record->dimensions, record->strides, type.itemsize, true);
    f_contiguous = contiguous(record->nd, record->dimensions, record->strides, type.itemsize, false);
    writeable = (record->flags & kNumpyWriteable) != 0;
    aligned = is_bool || reinterpret_cast<std::uintptr_t>(data) % element_alignment(*storage) == 0;
    return true;
}

ArrayFacts::ArrayFacts(nb::handle object) : array(object) {
    if (read_record(object))
        return;
    if (!export_.acquire(object)) {
        // NumPy exports no buffer for extension dtypes: bfloat16 is reached through a raw
        // uint16 view of the same memory; any other such dtype is only named, for the messages.
        nb::object dtype = base_attribute(object, "dtype");
        if (!dtype_equals(dtype, low_precision_dtypes().attr("bfloat16"))) {
            ndim = nb::cast<std::size_t>(base_attribute(object, "ndim"));
            foreign_name_ = nb::cast<std::string>(dtype.attr("name"));
            return;
        }
        nb::handle type(reinterpret_cast<PyObject*>(ndarray_type()));
        raw_ = type.attr("view")(object, numpy_module().attr("uint16"), type);
        if (!export_.acquire(raw_))
            throw std::logic_error("ArrayFacts - the uint16 view of a bfloat16 array exports no buffer");
        storage = ScalarType::bfloat16;
        native = true; // a byte-swapped bfloat16 dtype does not compare equal
    } else {
        const FormatType type =
            read_format(export_.view().format, static_cast<std::size_t>(export_.view().itemsize));
        storage = type.storage;
        is_bool = type.is_bool;
        native = type.native;
    }

    const Py_buffer& view = export_.view();
    data = view.buf;
    bytes_ = static_cast<std::uint64_t>(view.len);
    ndim = static_cast<std::size_t>(view.ndim);
    for (int axis = 0; axis < view.ndim && axis < 2; ++axis) {
        shape[axis] = static_cast<std::uint64_t>(view.shape[axis]);
        strides[axis] = view.strides[axis] / view.itemsize;
    }
    c_contiguous = contiguous(view.ndim, view.shape, view.strides, view.itemsize, true);
    f_contiguous = contiguous(view.ndim, view.shape, view.strides, view.itemsize, false);
    writeable = !view.readonly;
    if (is_bool)
        aligned = true;
    else if (storage)
        aligned = reinterpret_cast<std::uintptr_t>(view.buf) % element_alignment(*storage) == 0;
    else
        foreign_name_ = nb::cast<std::string>(base_attribute(object, "dtype").attr("name"));
}

ArrayFacts inspect_array(nb::handle array) { return ArrayFacts(array); }

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

void* array_data(const ArrayFacts& facts, std::vector<nb::object>&) { return facts.data; }

void EntityDeleter::operator()(OperandEntity* entity) const noexcept {
    if (in_arena)
        entity->~OperandEntity();
    else
        delete entity;
}

BorrowedEntity borrow_storage(ScalarType storage, OperandKind kind, void* data, std::array<std::uint64_t, 2> extent,
                              MatrixLayout layout, std::pmr::memory_resource* arena) {
    switch (storage) {
    case ScalarType::float32:
        return borrow_real<PolicyF32>(arena, kind, data, extent, layout);
    case ScalarType::float64:
        return borrow_real<PolicyF64>(arena, kind, data, extent, layout);
    case ScalarType::bfloat16:
        return borrow_real<PolicyBF16>(arena, kind, data, extent, layout);
    case ScalarType::float16:
        return borrow_real<PolicyF16>(arena, kind, data, extent, layout);
    case ScalarType::int32:
        return borrow_real<PolicyI32>(arena, kind, data, extent, layout);
    case ScalarType::complex32:
        return borrow_complex<PolicyC32>(arena, kind, data, extent, layout);
    case ScalarType::complex64:
        return borrow_complex<PolicyC64>(arena, kind, data, extent, layout);
    case ScalarType::complex128:
        return borrow_complex<PolicyC128>(arena, kind, data, extent, layout);
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
