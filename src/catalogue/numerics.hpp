#pragma once
// Numeric contracts: what an operation promises about shapes and operand values, and how one
// implementation of it computes.
#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

#include "catalogue/operation_spec.hpp"
#include "catalogue/symbolic_expression.hpp"
#include "core/scalar_type.hpp"

namespace quillmark {

// The symbolic shape of one operand role; its rank is the number of dimensions.
struct OperandShape {
    OperandRole role = 0;
    std::vector<SymbolicExpression> dimensions;

    std::size_t rank() const noexcept { return dimensions.size(); }
    bool operator==(const OperandShape&) const = default;
};

enum class ShapeRelation : std::uint32_t { equal = 0, less_equal = 1, greater_equal = 2, divisible_by = 3 };

struct ShapeConstraint {
    SymbolicExpression left;
    ShapeRelation relation = ShapeRelation::equal;
    SymbolicExpression right;

    bool operator==(const ShapeConstraint&) const = default;
};

enum class RequirementKind : std::uint32_t {
    finite = 0,
    nonzero = 1,
    nonnegative = 2,
    positive = 3,
    nonsingular = 4,
    hermitian = 5,
    normal = 6,
    positive_definite = 7,
    unique_dominant_eigenvalue = 8,
};

enum class RequirementPurpose : std::uint32_t { execution = 0, defined_result = 1, unique_result = 2, accuracy = 3 };

enum class RequirementEnforcement : std::uint32_t {
    checked = 0,
    guaranteed_by_operand = 1,
    caller_responsibility = 2,
};

// A precondition on operand values and who answers for it.
struct Requirement {
    RequirementKind kind = RequirementKind::finite;
    std::vector<OperandRole> roles;
    RequirementPurpose purpose = RequirementPurpose::execution;
    RequirementEnforcement enforcement = RequirementEnforcement::checked;
    std::string note;

    bool operator==(const Requirement&) const = default;
};

// The contract of an operation, shared by all its implementations.
class OperationNumerics {
public:
    std::vector<OperandShape> shapes; // one per operand role
    std::vector<ShapeConstraint> constraints;
    std::vector<Requirement> requirements;
    std::vector<std::string> notes;

    // Checks against the signature it belongs to; std::invalid_argument on the first failure.
    void validate(std::span<const RoleDeclaration> roles) const;
    // nullptr when no shape names the role.
    const OperandShape* shape(OperandRole role) const noexcept;

    bool operator==(const OperationNumerics&) const = default;
};

enum class Stability : std::uint32_t {
    unknown = 0,
    exact = 1,
    backward_stable = 2,
    conditionally_stable = 3,
    not_guaranteed = 4,
};

enum class PrecisionMode : std::uint32_t { unknown = 0, native = 1, widened = 2, mixed = 3, not_applicable = 4 };

enum class ReductionOrder : std::uint32_t {
    unknown = 0,
    not_applicable = 1,
    sequential = 2,
    pairwise = 3,
    parallel_tree = 4,
    library_defined = 5,
};

struct ComplexityDescription {
    SymbolicExpression work;
    SymbolicExpression auxiliary_space;
    std::vector<std::string> notes;

    bool operator==(const ComplexityDescription&) const = default;
};

struct PrecisionDescription {
    PrecisionMode mode = PrecisionMode::unknown;
    std::optional<std::string> accumulation_dtype;
    ReductionOrder reduction_order = ReductionOrder::unknown;
    std::vector<std::string> notes;

    bool operator==(const PrecisionDescription&) const = default;
};

using ParameterValue = std::variant<std::int64_t, double, std::string>;

// A published tunable: a tolerance, an iteration limit, ...
struct AlgorithmParameter {
    std::string name;
    ParameterValue value;
    std::string description;

    bool operator==(const AlgorithmParameter&) const = default;
};

// How one registered implementation computes.
struct ImplementationNumerics {
    std::string algorithm;
    Stability stability = Stability::unknown;
    ComplexityDescription complexity;
    PrecisionDescription precision;
    std::vector<AlgorithmParameter> parameters;
    std::vector<std::string> notes;

    // Checks against the implemented operation; std::invalid_argument (or std::out_of_range from the
    // role helpers) on the first failure. Changes nothing.
    void validate(const OperationSpec& spec) const;
    // validate(spec), then a copy in canonical order (see normalise).
    ImplementationNumerics normalised(const OperationSpec& spec) const;
    // Sorts every notes list and the parameters by name, so that equal contracts compare and print
    // equally. Does not check anything.
    void normalise();
    // The form stored for one registration: for the widened and mixed modes the precision notes
    // gain the storage/compute text and a missing accumulation dtype becomes the compute dtype;
    // other modes keep their precision as given. The result is normalised.
    ImplementationNumerics resolved(ScalarType storage, ScalarType compute) const;

    bool operator==(const ImplementationNumerics&) const = default;
};

// Enumeration words; "unknown" for values without a name.
std::string_view relation_name(ShapeRelation relation) noexcept;
std::string_view requirement_kind_name(RequirementKind kind) noexcept;
std::string_view requirement_purpose_name(RequirementPurpose purpose) noexcept;
std::string_view requirement_enforcement_name(RequirementEnforcement enforcement) noexcept;
std::string_view stability_name(Stability stability) noexcept;
std::string_view precision_mode_name(PrecisionMode mode) noexcept;
std::string_view reduction_order_name(ReductionOrder order) noexcept;

} // namespace quillmark
