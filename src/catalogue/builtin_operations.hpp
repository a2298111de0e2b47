#pragma once
// The 32 operations every catalogue starts with, in registration (handle) order.
#include <cstdint>
#include <memory>
#include <span>

#include "catalogue/operation_id.hpp"
#include "catalogue/operation_registry.hpp"
#include "catalogue/operation_spec.hpp"

namespace quillmark {

class OperationNumerics;

enum class BuiltinOperation : std::uint32_t {
    sqrt = 0,
    conjugate = 1,
    multiply = 2,
    add = 3,
    subtract = 4,
    sum = 5,
    norm = 6,
    scale = 7,
    divide = 8,
    transpose = 9,
    adjoint = 10,
    matmul = 11,
    matvec = 12,
    kron = 13,
    inner = 14,
    outer = 15,
    lu_factor = 16,
    solve = 17,
    logdet = 18,
    trace = 19,
    eig = 20,
    principal_eigenvector = 21,
    partial_trace_left = 22,
    partial_trace_right = 23,
    matrix_power = 24,
    is_unitary = 25,
    eye = 26,
    vector_equal = 27,
    eigh = 28,
    eigvalsh = 29,
    slogdet = 30,
    logdet_positive_definite = 31,
};

inline constexpr std::size_t kBuiltinOperationCount = 32;

// "quillmark.<name>" major 1. Throws std::out_of_range "builtin_operation_id - unknown built-in operation"
// for a value outside the enumeration.
const OperationId& builtin_operation_id(BuiltinOperation operation);
// All 32, in registration order.
std::span<const OperationId> builtin_operation_ids();

// The signature of one built-in: roles with access and kind.
std::vector<RoleDeclaration> builtin_roles(BuiltinOperation operation);
// The shape rule of one built-in, for callers that want it without the signature checks in front.
ShapeValidator builtin_shape_rule(BuiltinOperation operation);

// Registers all 32 in order with their roles, shape rules and numeric contracts. Checks that none is
// registered yet before adding any, so a failure leaves the registry as it was.
void register_builtin_operations(OperationRegistry& registry, const RegistrationProvenance& provenance);

// Whether the operation is one of the element-wise built-ins, whose output may be exactly one of
// its inputs (false for any other identifier).
bool builtin_elementwise(const OperationId& id) noexcept;

// Throws std::logic_error "operation_numerics - unknown built-in operation" for any other identifier.
std::shared_ptr<const OperationNumerics> operation_numerics(const OperationId& id);

} // namespace quillmark
