#include "catalogue/symbolic_expression.hpp"

#include <algorithm>
#include <stdexcept>

#include "catalogue/numerics.hpp"
#include "catalogue/operation_spec.hpp"

namespace quillmark {

struct SymbolicExpression::Node {
    ExpressionKind kind = ExpressionKind::unknown;
    std::int64_t integer = 0;
    std::string name;
    OperandRole role = 0;
    std::uint32_t axis = 0;
    std::vector<SymbolicExpression> operands;
};

namespace {

bool is_operator(ExpressionKind kind) noexcept {
    return kind >= ExpressionKind::add && kind <= ExpressionKind::log2;
}

bool arity_fits(ExpressionKind kind, std::size_t count) noexcept {
    switch (kind) {
    case ExpressionKind::add:
    case ExpressionKind::multiply:
    case ExpressionKind::minimum:
    case ExpressionKind::maximum: return count >= 2;
    case ExpressionKind::power:
    case ExpressionKind::divide: return count == 2;
    case ExpressionKind::log2: return count == 1;
    default: return false;
    }
}

const ExpressionRole* find_role(std::span<const ExpressionRole> roles, OperandRole role) noexcept {
    for (const ExpressionRole& r : roles)
        if (r.role == role) return &r;
    return nullptr;
}

std::optional<std::uint32_t> known_rank(const ExpressionRole& r) {
    if (r.rank) return r.rank;
    if (r.kind) return operand_rank(*r.kind);
    return std::nullopt;
}

} // namespace

// Every default-constructed expression shares one node.
const std::shared_ptr<const SymbolicExpression::Node>& SymbolicExpression::unknown_node() {
    static const std::shared_ptr<const Node> node = std::make_shared<const Node>();
    return node;
}

std::string_view expression_kind_name(ExpressionKind kind) noexcept {
    switch (kind) {
    case ExpressionKind::unknown: return "unknown";
    case ExpressionKind::constant: return "constant";
    case ExpressionKind::symbol: return "symbol";
    case ExpressionKind::operand_dimension: return "operand_dimension";
    case ExpressionKind::operand_value: return "operand_value";
    case ExpressionKind::add: return "add";
    case ExpressionKind::multiply: return "multiply";
    case ExpressionKind::power: return "power";
    case ExpressionKind::divide: return "divide";
    case ExpressionKind::minimum: return "minimum";
    case ExpressionKind::maximum: return "maximum";
    case ExpressionKind::log2: return "log2";
    }
    return "unknown";
}

bool is_lower_case_identifier(std::string_view text) noexcept {
    if (text.empty() || text.front() < 'a' || text.front() > 'z') return false;
    return std::all_of(text.begin() + 1, text.end(), [](char ch) {
        return (ch >= 'a' && ch <= 'z') || (ch >= '0' && ch <= '9') || ch == '_' || ch == '.';
    });
}

SymbolicExpression::SymbolicExpression() : node_(unknown_node()) {}

SymbolicExpression SymbolicExpression::unknown() { return SymbolicExpression(); }

SymbolicExpression SymbolicExpression::constant(std::int64_t value) {
    if (value < 0) throw std::invalid_argument("SymbolicExpression - constants must be non-negative");
    auto node = std::make_shared<Node>();
    node->kind = ExpressionKind::constant;
    node->integer = value;
    return SymbolicExpression(std::move(node));
}

SymbolicExpression SymbolicExpression::symbol(std::string name) {
    if (!is_lower_case_identifier(name))
        throw std::invalid_argument("SymbolicExpression - symbol must be a lower-case identifier");
    auto node = std::make_shared<Node>();
    node->kind = ExpressionKind::symbol;
    node->name = std::move(name);
    return SymbolicExpression(std::move(node));
}

SymbolicExpression SymbolicExpression::operand_dimension(OperandRole role, std::uint32_t axis) {
    auto node = std::make_shared<Node>();
    node->kind = ExpressionKind::operand_dimension;
    node->role = role;
    node->axis = axis;
    return SymbolicExpression(std::move(node));
}

SymbolicExpression SymbolicExpression::operand_value(OperandRole role) {
    auto node = std::make_shared<Node>();
    node->kind = ExpressionKind::operand_value;
    node->role = role;
    return SymbolicExpression(std::move(node));
}

SymbolicExpression SymbolicExpression::make_operator(ExpressionKind kind, std::vector<SymbolicExpression> operands) {
    if (!arity_fits(kind, operands.size()))
        throw std::invalid_argument("SymbolicExpression - operator has invalid arity");
    auto node = std::make_shared<Node>();
    node->kind = kind;
    node->operands = std::move(operands);
    return SymbolicExpression(std::move(node));
}

ExpressionKind SymbolicExpression::kind() const noexcept { return node_->kind; }
std::int64_t SymbolicExpression::integer() const noexcept { return node_->integer; }
const std::string& SymbolicExpression::name() const noexcept { return node_->name; }
OperandRole SymbolicExpression::role() const noexcept { return node_->role; }
std::uint32_t SymbolicExpression::axis() const noexcept { return node_->axis; }
std::span<const SymbolicExpression> SymbolicExpression::operands() const noexcept { return node_->operands; }

std::string SymbolicExpression::to_text() const {
    const Node& n = *node_;
    switch (n.kind) {
    case ExpressionKind::unknown: return "unknown";
    case ExpressionKind::constant: return std::to_string(n.integer);
    case ExpressionKind::symbol: return n.name;
    case ExpressionKind::operand_dimension:
        return "dim(" + std::to_string(n.role) + "," + std::to_string(n.axis) + ")";
    case ExpressionKind::operand_value: return "value(" + std::to_string(n.role) + ")";
    default: break;
    }
    std::string text(expression_kind_name(n.kind));
    text += '(';
    for (std::size_t i = 0; i < n.operands.size(); ++i) {
        if (i != 0) text += ',';
        text += n.operands[i].to_text();
    }
    text += ')';
    return text;
}

void SymbolicExpression::validate(std::span<const ExpressionRole> roles, ExpressionContext context) const {
    const Node& n = *node_;
    switch (n.kind) {
    case ExpressionKind::operand_dimension:
    case ExpressionKind::operand_value: {
        const ExpressionRole* r = find_role(roles, n.role);
        if (r == nullptr) {
            if (context == ExpressionContext::complexity)
                throw std::invalid_argument("ImplementationNumerics - expression role is not registered");
            throw std::invalid_argument("SymbolicExpression - operand role is not declared");
        }
        const std::optional<std::uint32_t> rank = known_rank(*r);
        if (n.kind == ExpressionKind::operand_dimension) {
            if (rank && n.axis >= *rank)
                throw std::invalid_argument("SymbolicExpression - operand dimension axis is out of range");
        } else {
            const bool scalar = r->kind ? *r->kind == OperandKind::scalar : (!rank || *rank == 0);
            if (!scalar) throw std::invalid_argument("SymbolicExpression - operand value must reference a scalar");
        }
        return;
    }
    case ExpressionKind::unknown:
        if (context == ExpressionContext::shape_constraint)
            throw std::invalid_argument("SymbolicExpression - unknown is not valid in a shape constraint");
        return;
    default:
        if (is_operator(n.kind))
            for (const SymbolicExpression& operand : n.operands) operand.validate(roles, context);
        return;
    }
}

void SymbolicExpression::validate(const OperationSpec& spec, ExpressionContext context) const {
    const std::vector<ExpressionRole> roles = expression_roles(spec);
    validate(roles, context);
}

bool operator==(const SymbolicExpression& a, const SymbolicExpression& b) noexcept {
    if (a.node_ == b.node_) return true;
    const auto& x = *a.node_;
    const auto& y = *b.node_;
    return x.kind == y.kind && x.integer == y.integer && x.name == y.name && x.role == y.role && x.axis == y.axis &&
           x.operands == y.operands;
}

SymbolicExpression dim(OperandRole role, std::uint32_t axis) {
    return SymbolicExpression::operand_dimension(role, axis);
}
SymbolicExpression sym(std::string name) { return SymbolicExpression::symbol(std::move(name)); }
SymbolicExpression lit(std::int64_t value) { return SymbolicExpression::constant(value); }
SymbolicExpression sum_of(std::vector<SymbolicExpression> operands) {
    return SymbolicExpression::make_operator(ExpressionKind::add, std::move(operands));
}
SymbolicExpression product_of(std::vector<SymbolicExpression> operands) {
    return SymbolicExpression::make_operator(ExpressionKind::multiply, std::move(operands));
}

std::vector<ExpressionRole> expression_roles(const OperationSpec& spec) {
    // Roles are addressed by index, as a backend key addresses them.
    std::vector<ExpressionRole> roles;
    roles.reserve(spec.roles().size());
    const auto declared = spec.roles();
    for (std::size_t i = 0; i < declared.size(); ++i) {
        const OperandRole role = i < spec.input_count() ? input_role(i) : output_role(i - spec.input_count());
        roles.push_back({role, declared[i].kind, std::nullopt});
    }
    if (const OperationNumerics* numerics = spec.numerics())
        for (const OperandShape& shape : numerics->shapes)
            for (ExpressionRole& r : roles)
                if (r.role == shape.role) r.rank = static_cast<std::uint32_t>(shape.dimensions.size());
    return roles;
}

} // namespace quillmark
