#pragma once
// The small expression language of numeric contracts: shapes, shape constraints and costs.
#include <cstdint>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "core/operand_types.hpp"

namespace quillmark {

class OperationSpec;

enum class ExpressionKind : std::uint32_t {
    unknown = 0,
    constant = 1,
    symbol = 2,
    operand_dimension = 3,
    operand_value = 4,
    add = 5,
    multiply = 6,
    power = 7,
    divide = 8,
    minimum = 9,
    maximum = 10,
    log2 = 11,
};

// "unknown" for values without a name.
std::string_view expression_kind_name(ExpressionKind kind) noexcept;

// 'a'..'z' first, then 'a'..'z', '0'..'9', '_' or '.'.
bool is_lower_case_identifier(std::string_view text) noexcept;

// Where an expression sits decides which leaves it may hold and how a foreign role is reported.
enum class ExpressionContext : std::uint32_t { shape = 0, shape_constraint = 1, complexity = 2 };

// What an expression may know about one role of the operation it is validated against.
struct ExpressionRole {
    OperandRole role;
    std::optional<OperandKind> kind;    // absent: any kind
    std::optional<std::uint32_t> rank;  // the numeric shape's rank, when the operation has one
};

// Immutable and cheap to copy: copies share one tree.
class SymbolicExpression {
public:
    // unknown()
    SymbolicExpression();

    static SymbolicExpression unknown();
    // Throws std::invalid_argument "SymbolicExpression - constants must be non-negative".
    static SymbolicExpression constant(std::int64_t value);
    // Throws std::invalid_argument "SymbolicExpression - symbol must be a lower-case identifier".
    static SymbolicExpression symbol(std::string name);
    static SymbolicExpression operand_dimension(OperandRole role, std::uint32_t axis);
    static SymbolicExpression operand_value(OperandRole role);
    // Throws std::invalid_argument "SymbolicExpression - operator has invalid arity" for a kind that is
    // not an operator or an operand count that the kind does not take.
    static SymbolicExpression make_operator(ExpressionKind kind, std::vector<SymbolicExpression> operands);

    ExpressionKind kind() const noexcept;
    // Payload accessors answer 0 / empty for a kind without that payload.
    std::int64_t integer() const noexcept;
    const std::string& name() const noexcept;
    OperandRole role() const noexcept;
    std::uint32_t axis() const noexcept;
    std::span<const SymbolicExpression> operands() const noexcept;

    // "add(dim(0,1),1)"; roles print as their decimal code.
    std::string to_text() const;

    // Recursive checks against the roles of an operation, std::invalid_argument on the first failure.
    void validate(std::span<const ExpressionRole> roles, ExpressionContext context) const;
    // Roles from the OperationSpec, ranks from its numeric shapes when it has them.
    void validate(const OperationSpec& spec, ExpressionContext context) const;

    friend bool operator==(const SymbolicExpression& a, const SymbolicExpression& b) noexcept;

private:
    struct Node;
    explicit SymbolicExpression(std::shared_ptr<const Node> node) : node_(std::move(node)) {}
    static const std::shared_ptr<const Node>& unknown_node();
    std::shared_ptr<const Node> node_;
};

// Short spellings for contract tables.
SymbolicExpression dim(OperandRole role, std::uint32_t axis);
SymbolicExpression sym(std::string name);
SymbolicExpression lit(std::int64_t value);
SymbolicExpression sum_of(std::vector<SymbolicExpression> operands);
SymbolicExpression product_of(std::vector<SymbolicExpression> operands);

// The roles of an OperationSpec as validation sees them.
std::vector<ExpressionRole> expression_roles(const OperationSpec& spec);

} // namespace quillmark
