#include "catalogue/numerics.hpp"

#include <algorithm>
#include <cmath>
#include <stdexcept>

namespace quillmark {

namespace {

[[noreturn]] void fail(const char* message) { throw std::invalid_argument(message); }

const RoleDeclaration* find_declaration(std::span<const RoleDeclaration> roles, OperandRole role) noexcept {
    for (const RoleDeclaration& r : roles)
        if (r.role == role) return &r;
    return nullptr;
}

void check_notes(const std::vector<std::string>& notes, const char* message) {
    for (const std::string& note : notes)
        if (note.empty()) fail(message);
}

void sort_notes(std::vector<std::string>& notes) { std::sort(notes.begin(), notes.end()); }

void sort_parameters(std::vector<AlgorithmParameter>& parameters) {
    std::stable_sort(parameters.begin(), parameters.end(),
                     [](const AlgorithmParameter& a, const AlgorithmParameter& b) { return a.name < b.name; });
}

} // namespace

void OperationNumerics::validate(std::span<const RoleDeclaration> roles) const {
    if (shapes.size() != roles.size()) fail("OperationNumerics - shapes must describe every operand role");

    for (std::size_t i = 0; i < shapes.size(); ++i) {
        const bool declared = find_declaration(roles, shapes[i].role) != nullptr;
        const bool repeated = std::any_of(shapes.begin(), shapes.begin() + static_cast<std::ptrdiff_t>(i),
                                          [&](const OperandShape& s) { return s.role == shapes[i].role; });
        if (!declared || repeated) fail("OperationNumerics - shape role is missing or duplicated");
    }

    for (const OperandShape& shape : shapes) {
        const RoleDeclaration* declaration = find_declaration(roles, shape.role);
        if (declaration->kind && shape.rank() != operand_rank(*declaration->kind))
            fail("OperationNumerics - shape rank disagrees with operand kind");
    }

    std::vector<ExpressionRole> scope;
    scope.reserve(roles.size());
    for (const RoleDeclaration& r : roles) {
        const OperandShape* s = shape(r.role);
        scope.push_back({r.role, r.kind,
                         s ? std::optional<std::uint32_t>(static_cast<std::uint32_t>(s->rank())) : std::nullopt});
    }
    for (const OperandShape& s : shapes)
        for (const SymbolicExpression& e : s.dimensions) e.validate(scope, ExpressionContext::shape);
    for (const ShapeConstraint& c : constraints) {
        c.left.validate(scope, ExpressionContext::shape_constraint);
        c.right.validate(scope, ExpressionContext::shape_constraint);
        if (static_cast<std::uint32_t>(c.relation) > 3) fail("OperationNumerics - shape constraint relation is invalid");
    }

    for (const Requirement& r : requirements) {
        if (static_cast<std::uint32_t>(r.kind) > 8) fail("OperationNumerics - requirement kind is invalid");
        if (static_cast<std::uint32_t>(r.purpose) > 3) fail("OperationNumerics - requirement purpose is invalid");
        if (static_cast<std::uint32_t>(r.enforcement) > 2)
            fail("OperationNumerics - requirement enforcement is invalid");
        if (r.roles.empty() || r.note.empty()) fail("OperationNumerics - requirements need roles and a note");
        for (std::size_t i = 0; i < r.roles.size(); ++i)
            if (std::find(r.roles.begin(), r.roles.begin() + static_cast<std::ptrdiff_t>(i), r.roles[i]) !=
                r.roles.begin() + static_cast<std::ptrdiff_t>(i))
                fail("OperationNumerics - requirement roles must be unique");
        // A precondition on an operand the operation does not have can never be met or checked.
        for (OperandRole role : r.roles)
            if (find_declaration(roles, role) == nullptr) fail("OperationNumerics - requirement role is not declared");
    }
}

const OperandShape* OperationNumerics::shape(OperandRole role) const noexcept {
    for (const OperandShape& s : shapes)
        if (s.role == role) return &s;
    return nullptr;
}

void ImplementationNumerics::validate(const OperationSpec& spec) const {
    if (!is_lower_case_identifier(algorithm))
        fail("ImplementationNumerics - algorithm must be a lower-case identifier");
    if (static_cast<std::uint32_t>(stability) > 4) fail("ImplementationNumerics - stability is invalid");
    if (static_cast<std::uint32_t>(precision.mode) > 4) fail("ImplementationNumerics - precision mode is invalid");
    if (static_cast<std::uint32_t>(precision.reduction_order) > 5)
        fail("ImplementationNumerics - reduction order is invalid");

    check_notes(notes, "ImplementationNumerics - notes must not be empty");
    check_notes(complexity.notes, "ComplexityDescription - notes must not be empty");
    check_notes(precision.notes, "PrecisionDescription - notes must not be empty");
    if (precision.accumulation_dtype && precision.accumulation_dtype->empty())
        fail("PrecisionDescription - accumulation dtype must not be empty");

    const std::vector<ExpressionRole> scope = expression_roles(spec);
    complexity.work.validate(scope, ExpressionContext::complexity);
    complexity.auxiliary_space.validate(scope, ExpressionContext::complexity);

    for (const AlgorithmParameter& p : parameters) {
        if (!is_lower_case_identifier(p.name) || p.description.empty())
            fail("ImplementationNumerics - algorithm parameter is malformed");
        if (const double* d = std::get_if<double>(&p.value); d && !std::isfinite(*d))
            fail("ImplementationNumerics - numeric parameters must be finite");
        if (const std::string* s = std::get_if<std::string>(&p.value); s && s->empty())
            fail("ImplementationNumerics - string parameters must not be empty");
    }
    std::vector<std::string_view> names;
    names.reserve(parameters.size());
    for (const AlgorithmParameter& p : parameters) names.push_back(p.name);
    std::sort(names.begin(), names.end());
    if (std::adjacent_find(names.begin(), names.end()) != names.end())
        fail("ImplementationNumerics - algorithm parameter names must be unique");
}

ImplementationNumerics ImplementationNumerics::normalised(const OperationSpec& spec) const {
    validate(spec);
    ImplementationNumerics copy = *this;
    copy.normalise();
    return copy;
}

void ImplementationNumerics::normalise() {
    sort_notes(notes);
    sort_notes(complexity.notes);
    sort_notes(precision.notes);
    sort_parameters(parameters);
}

ImplementationNumerics ImplementationNumerics::resolved(ScalarType storage, ScalarType compute) const {
    ImplementationNumerics copy = *this;
    if (precision.mode == PrecisionMode::widened || precision.mode == PrecisionMode::mixed) {
        // The text and the accumulation dtype describe one type: a record that accumulates wider
        // than the compute dtype says so in both.
        if (!copy.precision.accumulation_dtype) copy.precision.accumulation_dtype = std::string(scalar_name(compute));
        const ScalarType computed = scalar_type_from_name(*copy.precision.accumulation_dtype).value_or(compute);
        std::string text = precision_description(storage, computed);
        if (std::find(copy.precision.notes.begin(), copy.precision.notes.end(), text) == copy.precision.notes.end())
            copy.precision.notes.push_back(std::move(text));
    }
    copy.normalise();
    return copy;
}

std::string_view relation_name(ShapeRelation relation) noexcept {
    switch (relation) {
    case ShapeRelation::equal: return "equal";
    case ShapeRelation::less_equal: return "less_equal";
    case ShapeRelation::greater_equal: return "greater_equal";
    case ShapeRelation::divisible_by: return "divisible_by";
    }
    return "unknown";
}

std::string_view requirement_kind_name(RequirementKind kind) noexcept {
    switch (kind) {
    case RequirementKind::finite: return "finite";
    case RequirementKind::nonzero: return "nonzero";
    case RequirementKind::nonnegative: return "nonnegative";
    case RequirementKind::positive: return "positive";
    case RequirementKind::nonsingular: return "nonsingular";
    case RequirementKind::hermitian: return "hermitian";
    case RequirementKind::normal: return "normal";
    case RequirementKind::positive_definite: return "positive_definite";
    case RequirementKind::unique_dominant_eigenvalue: return "unique_dominant_eigenvalue";
    }
    return "unknown";
}

std::string_view requirement_purpose_name(RequirementPurpose purpose) noexcept {
    switch (purpose) {
    case RequirementPurpose::execution: return "execution";
    case RequirementPurpose::defined_result: return "defined_result";
    case RequirementPurpose::unique_result: return "unique_result";
    case RequirementPurpose::accuracy: return "accuracy";
    }
    return "unknown";
}

std::string_view requirement_enforcement_name(RequirementEnforcement enforcement) noexcept {
    switch (enforcement) {
    case RequirementEnforcement::checked: return "checked";
    case RequirementEnforcement::guaranteed_by_operand: return "guaranteed_by_operand";
    case RequirementEnforcement::caller_responsibility: return "caller_responsibility";
    }
    return "unknown";
}

std::string_view stability_name(Stability stability) noexcept {
    switch (stability) {
    case Stability::unknown: return "unknown";
    case Stability::exact: return "exact";
    case Stability::backward_stable: return "backward_stable";
    case Stability::conditionally_stable: return "conditionally_stable";
    case Stability::not_guaranteed: return "not_guaranteed";
    }
    return "unknown";
}

std::string_view precision_mode_name(PrecisionMode mode) noexcept {
    switch (mode) {
    case PrecisionMode::unknown: return "unknown";
    case PrecisionMode::native: return "native";
    case PrecisionMode::widened: return "widened";
    case PrecisionMode::mixed: return "mixed";
    case PrecisionMode::not_applicable: return "not_applicable";
    }
    return "unknown";
}

std::string_view reduction_order_name(ReductionOrder order) noexcept {
    switch (order) {
    case ReductionOrder::unknown: return "unknown";
    case ReductionOrder::not_applicable: return "not_applicable";
    case ReductionOrder::sequential: return "sequential";
    case ReductionOrder::pairwise: return "pairwise";
    case ReductionOrder::parallel_tree: return "parallel_tree";
    case ReductionOrder::library_defined: return "library_defined";
    }
    return "unknown";
}

} // namespace quillmark
