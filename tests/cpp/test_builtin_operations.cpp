#include <gtest/gtest.h>

#include "test_support.hpp"

#include <map>
#include <string>

#include "catalogue/builtin_operations.hpp"
#include "catalogue/description.hpp"
#include "catalogue/numerics.hpp"

using namespace quillmark;
using quillmark::testing::message_of;
using B = BuiltinOperation;

namespace {

OperandDescriptor operand(OperandKind kind, std::uint64_t a = 0, std::uint64_t b = 0) {
    OperandDescriptor d;
    d.kind = kind;
    d.extent = {a, b};
    return d;
}
OperandDescriptor S() { return operand(OperandKind::scalar); }
OperandDescriptor V(std::uint64_t n) { return operand(OperandKind::vector, n); }
OperandDescriptor M(std::uint64_t r, std::uint64_t c) { return operand(OperandKind::matrix, r, c); }
OperandDescriptor LU(std::uint64_t n) { return operand(OperandKind::lu, n); }
OperandDescriptor E(std::uint64_t n) { return operand(OperandKind::eigen, n); }

constexpr std::uint64_t k2p32 = std::uint64_t{1} << 32;

OperationRegistry sealed_builtins() {
    OperationRegistry registry;
    register_builtin_operations(registry, RegistrationProvenance(std::string("0.1.1")));
    registry.seal();
    return registry;
}

// Evaluates a contract's symbolic dimension for one choice of symbol values.
std::uint64_t evaluate(const SymbolicExpression& e, const std::vector<OperandDescriptor>& operands) {
    static const std::map<std::string, std::uint64_t> symbols{{"m", 2}, {"n", 3}, {"k", 4},
                                                              {"p", 5}, {"q", 2}, {"d", 3}};
    switch (e.kind()) {
    case ExpressionKind::constant: return static_cast<std::uint64_t>(e.integer());
    case ExpressionKind::symbol: return symbols.at(e.name());
    case ExpressionKind::operand_dimension:
        for (const auto& d : operands)
            if (d.role == e.role()) return d.extent[e.axis()];
        throw std::logic_error("role");
    case ExpressionKind::multiply: {
        std::uint64_t v = 1;
        for (const auto& o : e.operands()) v *= evaluate(o, operands);
        return v;
    }
    default: throw std::logic_error("unexpected expression " + e.to_text());
    }
}

bool holds(ShapeRelation relation, std::uint64_t l, std::uint64_t r) {
    switch (relation) {
    case ShapeRelation::equal: return l == r;
    case ShapeRelation::less_equal: return l <= r;
    case ShapeRelation::greater_equal: return l >= r;
    case ShapeRelation::divisible_by: return r != 0 && l % r == 0;
    }
    return false;
}

} // namespace

struct RuleCase {
    const char* label;
    B operation;
    std::vector<OperandDescriptor> operands;
    const char* message; // "" passes
};
void PrintTo(const RuleCase& c, std::ostream* os) { *os << c.label; }

class BuiltinShapeRule : public ::testing::TestWithParam<RuleCase> {};
TEST_P(BuiltinShapeRule, FirstFailingCheckWins) {
    const auto& c = GetParam();
    EXPECT_EQ(message_of([&] { builtin_shape_rule(c.operation)(c.operands); }), c.message);
}
constexpr const char* kVectorOut = "OperationSpec - output must be a vector";
constexpr const char* kSquare = "OperationSpec - first operand must be square";
constexpr const char* kKronOverflow = "OperationSpec - Kronecker product output shape overflow";
constexpr const char* kPartialTrace = "OperationSpec - partial trace output shape mismatch";
INSTANTIATE_TEST_SUITE_P(
    Rules, BuiltinShapeRule,
    ::testing::Values(
        RuleCase{"sqrt_output_kind", B::sqrt, {V(3), S()}, kVectorOut},
        RuleCase{"add_lengths", B::add, {V(3), V(4), V(3)}, "OperationSpec - vector input size mismatch"},
        RuleCase{"add_output_kind_before_sizes", B::subtract, {V(3), V(4), S()}, kVectorOut},
        RuleCase{"vector_equal_lengths", B::vector_equal, {V(3), V(4), S()}, ""}, // other valid calls: BuiltinContract
        RuleCase{"inner_sizes_before_output", B::inner, {V(3), V(4), V(1)},
                 "OperationSpec - vector input size mismatch"},
        RuleCase{"adjoint_same_shape", B::adjoint, {M(2, 3), M(2, 3)},
                 "OperationSpec - transposed output shape mismatch"},
        RuleCase{"matmul_inner", B::matmul, {M(2, 3), M(4, 5), M(2, 5)}, "OperationSpec - matrix input shape mismatch"},
        RuleCase{"matmul_output", B::matmul, {M(2, 3), M(3, 5), M(5, 2)},
                 "OperationSpec - matrix output shape mismatch"},
        RuleCase{"matvec_output", B::matvec, {M(2, 3), V(3), V(3)},
                 "OperationSpec - matrix/vector output size mismatch"},
        RuleCase{"kron_output", B::kron, {M(2, 3), M(4, 5), M(8, 14)},
                 "OperationSpec - Kronecker output shape mismatch"},
        RuleCase{"kron_overflow_before_output", B::kron, {M(k2p32, 1), M(k2p32, 1), M(0, 0)}, kKronOverflow},
        RuleCase{"kron_largest_fit", B::kron, {M(k2p32 - 1, 1), M(k2p32 + 1, 0), M(~std::uint64_t{0}, 0)}, ""},
        RuleCase{"outer_swapped", B::outer, {V(2), V(3), M(3, 2)},
                 "OperationSpec - outer-product output shape mismatch"},
        RuleCase{"solve_rhs_size", B::solve, {LU(3), V(4)}, "OperationSpec - solve RHS size mismatch"},
        RuleCase{"trace_rectangular", B::trace, {M(2, 3), S()}, ""},
        RuleCase{"is_unitary_rectangular", B::is_unitary, {M(2, 3), S()}, ""},
        RuleCase{"eig_rectangular", B::eig, {M(2, 3), E(2)}, kSquare},
        RuleCase{"eig_output_size", B::eig, {M(3, 3), E(2)}, "OperationSpec - eigen output size mismatch"},
        RuleCase{"principal_size", B::principal_eigenvector, {M(3, 3), V(2)},
                 "OperationSpec - eigenvector output size mismatch"},
        RuleCase{"ptrace_4", B::partial_trace_left, {M(6, 6), M(4, 4)}, kPartialTrace},
        RuleCase{"ptrace_0", B::partial_trace_right, {M(6, 6), M(0, 0)}, kPartialTrace},
        RuleCase{"ptrace_input_square", B::partial_trace_left, {M(6, 5), M(3, 3)}, kSquare},
        RuleCase{"power_scalar_before_square", B::matrix_power, {M(2, 3), V(1), M(2, 3)},
                 "OperationSpec - second operand must be a scalar"},
        RuleCase{"eigh_vectors", B::eigh, {M(3, 3), V(3), M(3, 2)}, "eigh - eigenvector shape mismatch"},
        RuleCase{"eigh_count", B::eigh, {M(3, 3), V(2), M(3, 3)}, "eigh/eigvalsh - eigenvalue count mismatch"},
        RuleCase{"slogdet_second_output", B::slogdet, {M(3, 3), S(), V(1)},
                 "slogdet/logdet_positive_definite - output must be a scalar"},
        RuleCase{"short_call", B::matmul, {M(2, 2), M(2, 2)}, "OperationSpec - operand arity mismatch"}),
    [](const auto& info) { return std::string(info.param.label); });

class BuiltinContract : public ::testing::TestWithParam<std::uint32_t> {};
TEST_P(BuiltinContract, AgreesWithSignatureAndShapeRule) {
    const auto op = static_cast<B>(GetParam());
    const auto roles = builtin_roles(op);
    const auto numerics = operation_numerics(builtin_operation_id(op));
    ASSERT_TRUE(numerics);
    EXPECT_NO_THROW(numerics->validate(roles));
    EXPECT_FALSE(numerics->notes.empty());

    // Operands sized by the symbolic shapes must satisfy the constraints and pass the shape rule,
    // so the published contract cannot drift from the checked one.
    std::vector<OperandDescriptor> call;
    for (const RoleDeclaration& r : roles) {
        OperandDescriptor d = operand(*r.kind);
        d.role = r.role;
        const OperandShape* s = numerics->shape(r.role);
        ASSERT_NE(s, nullptr);
        for (std::size_t axis = 0; axis < s->rank(); ++axis) d.extent[axis] = evaluate(s->dimensions[axis], {});
        call.push_back(d);
    }
    for (const ShapeConstraint& c : numerics->constraints)
        EXPECT_TRUE(holds(c.relation, evaluate(c.left, call), evaluate(c.right, call)))
            << c.left.to_text() << " vs " << c.right.to_text();
    EXPECT_NO_THROW(builtin_shape_rule(op)(call));
}
INSTANTIATE_TEST_SUITE_P(All, BuiltinContract, ::testing::Range<std::uint32_t>(0, 32), [](const auto& info) {
    const std::string id = builtin_operation_id(static_cast<B>(info.param)).name();
    return id.substr(id.find('.') + 1);
});

TEST(BuiltinCatalogue, RegistersInTableOrderWithHandles) {
    const OperationRegistry registry = sealed_builtins();
    ASSERT_EQ(registry.size(), 32u);
    const auto ids = builtin_operation_ids();
    for (std::size_t i = 0; i < ids.size(); ++i) EXPECT_EQ(registry.lookup(ids[i]).handle(), i + 1);

    // Registered specs carry the published contract (their shape rules are run by every execution).
    const OperationSpec& add = registry.lookup(builtin_operation_id(B::add));
    EXPECT_EQ(add.numerics(), operation_numerics(add.id()).get());
}

TEST(BuiltinCatalogue, FailedRegistrationChangesNothing) {
    OperationRegistry registry;
    registry.register_operation(OperationSpec(builtin_operation_id(B::matmul), builtin_roles(B::matmul)),
                                RegistrationProvenance());
    EXPECT_EQ(message_of([&] { register_builtin_operations(registry, RegistrationProvenance()); }),
              "OperationRegistry - operation 'quillmark.matmul@1' is already registered");
    EXPECT_EQ(registry.size(), 1u);
}

TEST(BuiltinCatalogue, UnknownIdentifiers) {
    EXPECT_EQ(message_of([] { operation_numerics(OperationId("quillmark.sqrt", 2)); }),
              "operation_numerics - unknown built-in operation");
    EXPECT_EQ(message_of([] { operation_numerics(OperationId("acme.sqrt", 1)); }),
              "operation_numerics - unknown built-in operation");
    EXPECT_THROW(builtin_operation_id(static_cast<B>(32)), std::out_of_range);
}

TEST(BuiltinCatalogue, DescribeOperationSchema) {
    const OperationRegistry registry = sealed_builtins();
    // Key orders, roles and provenance are checked through the module; these are the nested records.
    const Description d = describe_operation(registry.entry(builtin_operation_id(B::matmul)));
    EXPECT_EQ(d.at("numerics").at("shapes").as_list()[0].to_json(),
              R"({"role":0,"rank":2,"shapes":[{"operator":"symbol","name":"m"},{"operator":"symbol","name":"k"}]})");

    // The divisor, not the vector, carries the nonzero requirement.
    const Description divide = describe_operation(registry.entry(builtin_operation_id(B::divide)));
    const Description& requirement = divide.at("numerics").at("requirements").as_list().at(0);
    EXPECT_EQ(requirement.to_json(), R"({"kind":"nonzero","roles":[1],"purpose":"defined_result",)"
                                     R"("enforcement":"caller_responsibility",)"
                                     R"("note":"A zero divisor produces infinite or NaN entries."})");
}
