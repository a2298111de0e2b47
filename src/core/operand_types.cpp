#include "core/operand_types.hpp"

#include <stdexcept>

namespace quillmark {

OperandRole input_role(std::uint64_t index) {
    if (index > kMaxRoleIndex) throw std::out_of_range("input_role - input index is out of range");
    return static_cast<OperandRole>(index);
}

OperandRole output_role(std::uint64_t index) {
    if (index > kMaxRoleIndex) throw std::out_of_range("output_role - output index is out of range");
    return static_cast<OperandRole>(index) | kOutputRoleBit;
}

std::string role_text(OperandRole role) {
    return (is_output_role(role) ? "Output" : "Input") + std::to_string(role_index(role));
}

std::uint32_t input_index(OperandRole role) {
    if (is_output_role(role)) throw std::invalid_argument("input_index - output is not an input role");
    return role;
}

std::uint32_t output_index(OperandRole role) {
    if (!is_output_role(role)) throw std::invalid_argument("output_index - input is not an output role");
    return role_index(role);
}

std::string_view access_name(OperandAccess access) noexcept {
    switch (access) {
    case OperandAccess::read: return "read";
    case OperandAccess::write: return "write";
    case OperandAccess::read_write: return "read_write";
    }
    return "unknown";
}

std::string_view kind_name(OperandKind kind) noexcept {
    switch (kind) {
    case OperandKind::scalar: return "scalar";
    case OperandKind::vector: return "vector";
    case OperandKind::matrix: return "matrix";
    case OperandKind::lu: return "lu";
    case OperandKind::eigen: return "eigen";
    }
    return "unknown";
}

std::string_view format_name(StorageFormat format) noexcept {
    return format == StorageFormat::dense ? "dense" : format == StorageFormat::sparse ? "sparse" : "unknown";
}

std::string_view complex_layout_name(ComplexLayout layout) noexcept {
    switch (layout) {
    case ComplexLayout::none: return "none";
    case ComplexLayout::split: return "split";
    case ComplexLayout::interleaved: return "interleaved";
    }
    return "unknown";
}

std::string_view matrix_layout_name(MatrixLayout layout) noexcept {
    switch (layout) {
    case MatrixLayout::row_major: return "row_major";
    case MatrixLayout::column_major: return "column_major";
    case MatrixLayout::none: return "none";
    }
    return "unknown";
}

std::string_view location_name(Location location) noexcept {
    switch (location) {
    case Location::pageable_host: return "pageable_host";
    case Location::pinned_host: return "pinned_host";
    case Location::cuda_device: return "cuda_device";
    }
    return "unknown";
}

std::uint32_t operand_rank(OperandKind kind) {
    switch (kind) {
    case OperandKind::scalar: return 0;
    case OperandKind::vector: return 1;
    case OperandKind::matrix: return 2;
    case OperandKind::lu: return 1;
    case OperandKind::eigen: return 1;
    }
    throw std::logic_error("operand_rank - invalid operand kind");
}

} // namespace quillmark
