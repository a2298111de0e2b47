#pragma once
// The operand vocabulary shared by the catalogue, storage and dispatch: roles, access,
// kinds, layouts, residency and the descriptor of one concrete operand.
#include <array>
#include <cstdint>
#include <string>
#include <string_view>

#include "core/scalar_type.hpp"

namespace quillmark {

// Input i is i; output j is j with the top bit set.
using OperandRole = std::uint32_t;
inline constexpr OperandRole kOutputRoleBit = 0x80000000u;
inline constexpr std::uint64_t kMaxRoleIndex = 0x7FFFFFFFu;

// Throw std::out_of_range when the index exceeds 0x7FFFFFFF.
OperandRole input_role(std::uint64_t index);
OperandRole output_role(std::uint64_t index);
constexpr bool is_output_role(OperandRole role) noexcept { return (role & kOutputRoleBit) != 0; }
constexpr std::uint32_t role_index(OperandRole role) noexcept { return role & ~kOutputRoleBit; }
// "Input0", "Output1".
std::string role_text(OperandRole role);
// Throw std::invalid_argument when the role has the other direction.
std::uint32_t input_index(OperandRole role);
std::uint32_t output_index(OperandRole role);

enum class OperandAccess : std::uint32_t { read = 0, write = 1, read_write = 2 };
enum class OperandKind : std::uint32_t { scalar = 0, vector = 1, matrix = 2, lu = 3, eigen = 4 };
enum class StorageFormat : std::uint32_t { dense = 0, sparse = 1 };
enum class ComplexLayout : std::uint32_t { none = 0, split = 1, interleaved = 2 };
// `none` is carried by operands that are not matrix-shaped.
enum class MatrixLayout : std::uint32_t { row_major = 0, column_major = 1, none = 2 };
// Host memory handed over from Python is pageable host memory.
enum class Location : std::uint32_t { pageable_host = 0, pinned_host = 1, cuda_device = 2 };

std::string_view access_name(OperandAccess access) noexcept;
std::string_view kind_name(OperandKind kind) noexcept;
std::string_view format_name(StorageFormat format) noexcept;
std::string_view complex_layout_name(ComplexLayout layout) noexcept;
std::string_view matrix_layout_name(MatrixLayout layout) noexcept;
std::string_view location_name(Location location) noexcept;

// Rank of the numeric shape of an operand kind (LU counts its order only).
// Throws std::logic_error "operand_rank - invalid operand kind".
std::uint32_t operand_rank(OperandKind kind);

// One concrete operand of a call, as dispatch and the shape rules see it.
struct OperandDescriptor {
    OperandRole role = 0;
    OperandKind kind = OperandKind::scalar;
    DataTypeDescriptor dtype{ScalarType::float64, ScalarType::float64};
    Location location = Location::pageable_host;
    StorageFormat format = StorageFormat::dense;
    ComplexLayout complex_layout = ComplexLayout::none;
    MatrixLayout matrix_layout = MatrixLayout::none;
    // vector: {n, 0}; matrix: {rows, cols}; lu and eigen: {order, 0}; scalar: {0, 0}.
    std::array<std::uint64_t, 2> extent{};
    std::int32_t numa_node = -1;

    std::uint64_t length() const noexcept { return extent[0]; }
    std::uint64_t rows() const noexcept { return extent[0]; }
    std::uint64_t cols() const noexcept { return extent[1]; }
};

} // namespace quillmark
