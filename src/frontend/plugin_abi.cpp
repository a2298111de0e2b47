#include "frontend/plugin_abi.hpp"

#include <stdexcept>

namespace quillmark::plugin_abi {
namespace {

// ABI scalar codes by library scalar type; code 7 is unused on purpose.
struct ScalarCode {
    std::uint32_t code;
    ScalarType type;
};
constexpr std::array<ScalarCode, 13> kScalarCodes{{
    {QUILLMARK_SCALAR_FLOAT32, ScalarType::float32},
    {QUILLMARK_SCALAR_FLOAT64, ScalarType::float64},
    {QUILLMARK_SCALAR_INT32, ScalarType::int32},
    {QUILLMARK_SCALAR_INT64, ScalarType::int64},
    {QUILLMARK_SCALAR_COMPLEX64, ScalarType::complex64},
    {QUILLMARK_SCALAR_COMPLEX128, ScalarType::complex128},
    {QUILLMARK_SCALAR_COMPLEX_INT32, ScalarType::complex_int32},
    {QUILLMARK_SCALAR_COMPLEX_INT64, ScalarType::complex_int64},
    {QUILLMARK_SCALAR_FLOAT16, ScalarType::float16},
    {QUILLMARK_SCALAR_UINT32, ScalarType::uint32},
    {QUILLMARK_SCALAR_UINT64, ScalarType::uint64},
    {QUILLMARK_SCALAR_BFLOAT16, ScalarType::bfloat16},
    {QUILLMARK_SCALAR_COMPLEX32, ScalarType::complex32},
}};

// The enumerations whose ABI code is their value plus one.
template <class E> std::optional<E> one_based(std::uint32_t code, std::uint32_t count) noexcept {
    if (code < 1 || code > count) return std::nullopt;
    return static_cast<E>(code - 1);
}

// Called from plugin code: nothing may escape, and a malformed or unstorable message is dropped.
void store_message(void* context, quillmark_string message) noexcept {
    if (!context || (message.size != 0 && !message.data)) return;
    try {
        static_cast<ErrorCapture*>(context)->set_message(std::string(message.data ? message.data : "", message.size));
    } catch (...) {
    }
}

} // namespace

std::optional<ScalarType> scalar_type(std::uint32_t code) noexcept {
    for (const ScalarCode& entry : kScalarCodes)
        if (entry.code == code) return entry.type;
    return std::nullopt;
}

std::uint32_t scalar_code(ScalarType type) noexcept {
    for (const ScalarCode& entry : kScalarCodes)
        if (entry.type == type) return entry.code;
    return 0;
}

std::optional<OperandAccess> access(std::uint32_t code) noexcept { return one_based<OperandAccess>(code, 3); }
std::optional<OperandKind> kind(std::uint32_t code) noexcept { return one_based<OperandKind>(code, 5); }
std::optional<Location> location(std::uint32_t code) noexcept { return one_based<Location>(code, 3); }
std::optional<ComplexLayout> complex_layout(std::uint32_t code) noexcept {
    return one_based<ComplexLayout>(code, 3);
}

std::optional<MatrixLayout> matrix_layout(std::uint32_t code) noexcept {
    switch (code) {
    case QUILLMARK_MATRIX_LAYOUT_NONE: return MatrixLayout::none;
    case QUILLMARK_MATRIX_LAYOUT_ROW_MAJOR: return MatrixLayout::row_major;
    case QUILLMARK_MATRIX_LAYOUT_COLUMN_MAJOR: return MatrixLayout::column_major;
    default: return std::nullopt;
    }
}

std::string_view status_name(std::int32_t status) noexcept {
    switch (status) {
    case QUILLMARK_STATUS_OK: return "QUILLMARK_STATUS_OK";
    case QUILLMARK_STATUS_INVALID_ARGUMENT: return "QUILLMARK_STATUS_INVALID_ARGUMENT";
    case QUILLMARK_STATUS_UNSUPPORTED: return "QUILLMARK_STATUS_UNSUPPORTED";
    case QUILLMARK_STATUS_RUNTIME_ERROR: return "QUILLMARK_STATUS_RUNTIME_ERROR";
    case QUILLMARK_STATUS_INTERNAL_ERROR: return "QUILLMARK_STATUS_INTERNAL_ERROR";
    default: return "QUILLMARK_STATUS_UNKNOWN";
    }
}

std::string_view backend_display_name(BackendKind kind) noexcept {
    switch (kind) {
    case BackendKind::cpu_scalar: return "CPU scalar";
    case BackendKind::cpu_simd: return "CPU SIMD";
    case BackendKind::cuda: return "CUDA";
    }
    return "unknown";
}

std::string read_string(const quillmark_string& text, std::string_view label) {
    if (text.size == 0) return {};
    if (!text.data) throw std::invalid_argument(std::string(label) + " is malformed");
    return std::string(text.data, text.size);
}

BackendLibraryError plugin_error(std::string operation, std::string_view context, std::optional<BackendKind> backend,
                                 std::int32_t status, const std::string& message) {
    std::string text(context);
    if (backend) text += " on the " + std::string(backend_display_name(*backend)) + " backend";
    text += " failed with plugin status " + std::to_string(status);
    if (!message.empty()) text += ": " + message;
    return BackendLibraryError("native plugin", status, std::string(status_name(status)), std::move(operation), text);
}

ErrorCapture::ErrorCapture() noexcept : record_{sizeof(quillmark_error_capture), this, &store_message} {}

void ErrorCapture::set_message(std::string message) noexcept { message_ = std::move(message); }

std::vector<OperandSchema::Buffer> OperandSchema::buffers() const {
    const ScalarType storage = dtype.storage();
    const ScalarType component = scalar_metadata(storage).component;
    const bool complex_storage = is_complex_category(scalar_metadata(storage).category);
    const MatrixLayout matrix = kind == OperandKind::matrix ? layout : MatrixLayout::none;
    switch (kind) {
    case OperandKind::lu: {
        std::vector<Buffer> lu{{BufferRole::lu_factors, storage, layout},
                               {BufferRole::lu_pivots, ScalarType::int64, MatrixLayout::none},
                               {BufferRole::lu_swap_count, ScalarType::int64, MatrixLayout::none}};
        if (complex == ComplexLayout::split) { // the factors would be two planes
            lu[0] = {BufferRole::real, component, layout};
            lu.insert(lu.begin() + 1, {BufferRole::imaginary, component, layout});
        }
        return lu;
    }
    case OperandKind::eigen:
        if (complex == ComplexLayout::split)
            return {{BufferRole::real, component, MatrixLayout::none},
                    {BufferRole::imaginary, component, MatrixLayout::none},
                    {BufferRole::real, component, layout},
                    {BufferRole::imaginary, component, layout}};
        return {{BufferRole::eigenvalues, storage, MatrixLayout::none}, {BufferRole::eigenvectors, storage, layout}};
    default:
        // Complex scalars are held as two adjacent components whatever their declared layout.
        if (complex == ComplexLayout::split || (kind == OperandKind::scalar && complex_storage))
            return {{BufferRole::real, component, matrix}, {BufferRole::imaginary, component, matrix}};
        return {{BufferRole::data, storage, matrix}};
    }
}

} // namespace quillmark::plugin_abi
