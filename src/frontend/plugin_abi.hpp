#pragma once
// Translation between the plugin C records and the library's own vocabulary: codes, strings,
// statuses, the error capture and the decoded form of a registered kernel.
#include <quillmark/plugin.h>

#include <array>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "catalogue/operation_id.hpp"
#include "core/errors.hpp"
#include "core/operand_types.hpp"
#include "core/scalar_type.hpp"
#include "dispatch/backend_kind.hpp"
#include "storage/buffer_access.hpp"

namespace quillmark::plugin_abi {

// The decoders return nullopt for a code outside the ABI's table.
std::optional<ScalarType> scalar_type(std::uint32_t code) noexcept;
std::uint32_t scalar_code(ScalarType type) noexcept;
std::optional<OperandAccess> access(std::uint32_t code) noexcept;
std::optional<OperandKind> kind(std::uint32_t code) noexcept;
std::optional<Location> location(std::uint32_t code) noexcept;
std::optional<ComplexLayout> complex_layout(std::uint32_t code) noexcept;
std::optional<MatrixLayout> matrix_layout(std::uint32_t code) noexcept; // 0 gives MatrixLayout::none

// "QUILLMARK_STATUS_OK" ... "QUILLMARK_STATUS_INTERNAL_ERROR", "QUILLMARK_STATUS_UNKNOWN" otherwise.
std::string_view status_name(std::int32_t status) noexcept;
// "CPU scalar", "CPU SIMD", "CUDA", "unknown".
std::string_view backend_display_name(BackendKind kind) noexcept;

// Throws std::invalid_argument label + " is malformed" for a non-zero length with a null pointer.
std::string read_string(const quillmark_string& text, std::string_view label);

// The failure of a plugin status: context, then " on the <backend> backend" when one is known,
// " failed with plugin status <n>" and ": <message>" when the plugin left one.
BackendLibraryError plugin_error(std::string operation, std::string_view context, std::optional<BackendKind> backend,
                                 std::int32_t status, const std::string& message);

// Host side of a quillmark_error_capture: the last message the plugin stored.
class ErrorCapture {
public:
    ErrorCapture() noexcept;
    ErrorCapture(const ErrorCapture&) = delete;
    ErrorCapture& operator=(const ErrorCapture&) = delete;

    const quillmark_error_capture* record() const noexcept { return &record_; }
    const std::string& message() const noexcept { return message_; }
    void set_message(std::string message) noexcept;

private:
    quillmark_error_capture record_;
    std::string message_;
};

// One validated operand declaration of a kernel.
struct OperandSchema {
    quillmark_backend_operand declaration; // the codes as registered, struct_size normalised to 36
    OperandAccess access;
    OperandKind kind;
    Location location;
    DataTypeDescriptor dtype;
    ComplexLayout complex;
    MatrixLayout layout; // none when the declaration leaves it open

    // The buffers a bound operand of this schema offers, in storage order.
    struct Buffer {
        BufferRole role;
        ScalarType scalar_type;
        MatrixLayout layout; // none: not checked
    };
    std::vector<Buffer> buffers() const;
};

// A kernel kept from a registration.
struct KernelSchema {
    OperationId operation;
    BackendKind backend;
    std::vector<OperandSchema> operands; // in role order
    quillmark_kernel_fn callback;
    void* user_data;
};

// The marshalled operands allow at most this many buffers each.
inline constexpr std::size_t kMaxOperandBuffers = 3;

} // namespace quillmark::plugin_abi
