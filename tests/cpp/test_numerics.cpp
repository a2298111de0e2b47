#include <gtest/gtest.h>

#include "test_support.hpp"

#include <cmath>
#include <functional>
#include <limits>
#include <string>

#include "catalogue/description.hpp"
#include "catalogue/numerics.hpp"
#include "catalogue/symbolic_expression.hpp"

using namespace quillmark;
using quillmark::testing::message_of;

namespace {

constexpr OperandRole in0 = 0, in1 = 1, out0 = kOutputRoleBit, out1 = kOutputRoleBit | 1;
using EC = ExpressionContext;
using Strings = std::vector<std::string>;

template <class E> E bad(std::uint32_t v) { return static_cast<E>(v); }
SymbolicExpression op(ExpressionKind kind, std::size_t arity) {
    return SymbolicExpression::make_operator(kind, std::vector<SymbolicExpression>(arity, lit(1)));
}
SymbolicExpression value(OperandRole role) { return SymbolicExpression::operand_value(role); }

constexpr const char* kArity = "SymbolicExpression - operator has invalid arity";
constexpr const char* kSymbol = "SymbolicExpression - symbol must be a lower-case identifier";
constexpr const char* kAxis = "SymbolicExpression - operand dimension axis is out of range";
constexpr const char* kScalarValue = "SymbolicExpression - operand value must reference a scalar";
constexpr const char* kUnknown = "SymbolicExpression - unknown is not valid in a shape constraint";
constexpr const char* kRank = "OperationNumerics - shape rank disagrees with operand kind";
constexpr const char* kNeeds = "OperationNumerics - requirements need roles and a note";
constexpr const char* kUnregistered = "ImplementationNumerics - expression role is not registered";
constexpr const char* kFinite = "ImplementationNumerics - numeric parameters must be finite";
constexpr const char* kMalformed = "ImplementationNumerics - algorithm parameter is malformed";

// An LU role counts its order only; a kind-less role takes its rank from the shape, if any.
std::function<void()> in_scope(SymbolicExpression e, EC context) {
    return [=] {
        const std::vector<ExpressionRole> roles{{in0, OperandKind::lu, std::nullopt},
                                                {in1, OperandKind::scalar, std::nullopt},
                                                {out0, std::nullopt, 2u},
                                                {out1, std::nullopt, std::nullopt}};
        e.validate(roles, context);
    };
}

// in0 lu, in1 matrix, out0 vector rw, out1 of any kind.
std::vector<RoleDeclaration> contract_roles() {
    return {{in0, OperandAccess::read, OperandKind::lu},
            {in1, OperandAccess::read, OperandKind::matrix},
            {out0, OperandAccess::read_write, OperandKind::vector},
            {out1, OperandAccess::write, std::nullopt}};
}

OperationNumerics valid_contract() {
    OperationNumerics c;
    c.shapes = {{in0, {sym("n")}}, {in1, {sym("n"), sym("n")}}, {out0, {sym("n")}}, {out1, {}}};
    c.constraints = {{dim(in1, 0), ShapeRelation::equal, dim(in0, 0)},
                     {dim(in0, 0), ShapeRelation::divisible_by, lit(1)}};
    c.requirements = {{RequirementKind::nonsingular, {in0, in1}, RequirementPurpose::defined_result,
                       RequirementEnforcement::caller_responsibility, "Factors must be valid."}};
    c.notes = {"A note."};
    return c;
}

std::function<void()> contract(std::function<void(OperationNumerics&)> mutate) {
    return [=] {
        OperationNumerics c = valid_contract();
        mutate(c);
        c.validate(contract_roles());
    };
}

OperationSpec implemented_operation() {
    auto c = std::make_shared<OperationNumerics>();
    c->shapes = {{in0, {sym("m"), sym("k")}}, {in1, {}}, {out0, {sym("m"), sym("k")}}};
    return OperationSpec(OperationId("x.gemm", 1),
                         {{in0, OperandAccess::read, OperandKind::matrix},
                          {in1, OperandAccess::read, OperandKind::scalar},
                          {out0, OperandAccess::write, OperandKind::matrix}},
                         {}, c);
}

ImplementationNumerics valid_record() {
    ImplementationNumerics r;
    r.algorithm = "cpu.classical_gemm";
    r.stability = Stability::backward_stable;
    r.complexity.work = product_of({dim(in0, 0), dim(in0, 1), value(in1)});
    r.complexity.auxiliary_space = lit(0);
    r.complexity.notes = {"Cost note."};
    r.precision = {PrecisionMode::native, std::string("float64"), ReductionOrder::sequential, {"Precision note."}};
    r.parameters = {{"tolerance", 1e-4, "Relative tolerance."}, {"block", std::int64_t{64}, "Block size."}};
    r.notes = {"Second.", "First."};
    return r;
}

std::function<void()> record(std::function<void(ImplementationNumerics&)> mutate) {
    return [=] {
        ImplementationNumerics r = valid_record();
        mutate(r);
        r.validate(implemented_operation());
    };
}

// Faults are added one on top of the other, from the last check to the first, so each new fault must
// take over the message; the untouched object must pass.
using Ladder = std::vector<std::pair<std::function<void()>, const char*>>;
void expect_ladder(const std::function<std::string()>& message, const Ladder& steps) {
    EXPECT_EQ(message(), "");
    for (std::size_t i = 0; i < steps.size(); ++i) {
        steps[i].first();
        EXPECT_EQ(message(), steps[i].second) << "step " << i;
    }
}

struct Check {
    const char* label;
    std::function<void()> run;
    const char* message; // "" when valid
};
void PrintTo(const Check& c, std::ostream* os) { *os << c.label; }
const auto kLabel = [](const auto& info) { return std::string(info.param.label); };

} // namespace

class Rule : public ::testing::TestWithParam<Check> {};
TEST_P(Rule, GivesItsMessage) { EXPECT_EQ(message_of(GetParam().run), GetParam().message); }

INSTANTIATE_TEST_SUITE_P(
    ExpressionConstruction, Rule,
    ::testing::Values(Check{"negative", [] { lit(-1); }, "SymbolicExpression - constants must be non-negative"},
                      Check{"underscore", [] { sym("n_2"); }, ""}, Check{"dotted", [] { sym("n.k"); }, ""},
                      Check{"upper", [] { sym("N"); }, kSymbol}, Check{"digit_first", [] { sym("2n"); }, kSymbol},
                      Check{"empty", [] { sym(""); }, kSymbol}, Check{"dash", [] { sym("n-k"); }, kSymbol},
                      Check{"add1", [] { op(ExpressionKind::add, 1); }, kArity},
                      Check{"mul5", [] { op(ExpressionKind::multiply, 5); }, ""},
                      Check{"pow3", [] { op(ExpressionKind::power, 3); }, kArity},
                      Check{"log2_2", [] { op(ExpressionKind::log2, 2); }, kArity},
                      Check{"leaf_kind", [] { op(ExpressionKind::constant, 2); }, kArity},
                      Check{"bad_kind", [] { op(bad<ExpressionKind>(12), 2); }, kArity}),
    kLabel);

INSTANTIATE_TEST_SUITE_P(
    ExpressionScope, Rule,
    ::testing::Values(
        Check{"lu_axis0", in_scope(dim(in0, 0), EC::shape), ""},
        Check{"lu_axis1", in_scope(dim(in0, 1), EC::shape), kAxis},
        Check{"shape_rank_past", in_scope(product_of({lit(2), dim(out0, 2)}), EC::complexity), kAxis},
        Check{"no_rank_known", in_scope(dim(out1, 7), EC::shape), ""},
        Check{"undeclared", in_scope(sum_of({lit(1), dim(5, 0)}), EC::shape_constraint),
              "SymbolicExpression - operand role is not declared"},
        Check{"undeclared_cost", in_scope(value(kOutputRoleBit | 2), EC::complexity), kUnregistered},
        Check{"value_scalar", in_scope(value(in1), EC::shape), ""},
        Check{"value_lu", in_scope(value(in0), EC::shape), kScalarValue},
        Check{"unknown_constraint", in_scope(sum_of({lit(1), {}}), EC::shape_constraint), kUnknown},
        Check{"unknown_cost", in_scope(sum_of({lit(1), {}}), EC::complexity), ""},
        // Operands are checked left to right.
        Check{"first_fault_wins", in_scope(sum_of({dim(in0, 3), {}}), EC::shape_constraint), kAxis}),
    kLabel);

// The valid contract's LU role has a rank-1 shape.
INSTANTIATE_TEST_SUITE_P(
    OperationContract, Rule,
    ::testing::Values(
        Check{"kindless_any_rank", contract([](auto& c) { c.shapes[3].dimensions = {lit(1), lit(2), lit(3)}; }), ""},
        Check{"shape_unknown_allowed", contract([](auto& c) { c.shapes[2].dimensions = {{}}; }), ""},
        Check{"matrix_rank1", contract([](auto& c) { c.shapes[1].dimensions.pop_back(); }), kRank},
        Check{"lu_rank2", contract([](auto& c) { c.shapes[0].dimensions.push_back(sym("n")); }), kRank},
        Check{"req_no_roles", contract([](auto& c) { c.requirements[0].roles.clear(); }), kNeeds},
        Check{"checked_by_operation_spec",
              [] {
                  auto c = std::make_shared<OperationNumerics>(valid_contract());
                  c->shapes[1].dimensions.pop_back();
                  OperationSpec(OperationId("x.y", 1), contract_roles(), {}, c);
              },
              kRank}),
    kLabel);

INSTANTIATE_TEST_SUITE_P(
    ImplementationRecord, Rule,
    ::testing::Values(Check{"stability_unknown", record([](auto& r) { r.stability = Stability::unknown; }), ""},
                      Check{"unknown_cost", record([](auto& r) { r.complexity.work = {}; }), ""},
                      Check{"no_accumulation", record([](auto& r) { r.precision.accumulation_dtype.reset(); }), ""},
                      Check{"param_description", record([](auto& r) { r.parameters[1].description = ""; }), kMalformed},
                      Check{"param_inf", record([](auto& r) { r.parameters[0].value = -HUGE_VAL; }), kFinite}),
    kLabel);

TEST(SymbolicExpression, TextFormAndStructuralEquality) {
    const auto e = sum_of({dim(in0, 1), lit(1)});
    EXPECT_EQ(e.to_text(), "add(dim(0,1),1)");
    EXPECT_EQ(SymbolicExpression::make_operator(ExpressionKind::maximum, {value(out1), op(ExpressionKind::log2, 1), {}})
                  .to_text(),
              "maximum(value(2147483649),log2(1),unknown)");
    EXPECT_FALSE(e == product_of({dim(in0, 1), lit(1)}));
}

TEST(OperationContract, ChecksRunInOrder) {
    OperationNumerics c = valid_contract();
    Requirement& q = c.requirements[0];
    const Ladder steps{
        {[&] { q.roles = {kOutputRoleBit | 9}; }, "OperationNumerics - requirement role is not declared"},
        {[&] { q.roles.push_back(q.roles[0]); }, "OperationNumerics - requirement roles must be unique"},
        {[&] { q.note.clear(); }, kNeeds},
        {[&] { q.enforcement = bad<RequirementEnforcement>(3); },
         "OperationNumerics - requirement enforcement is invalid"},
        {[&] { q.purpose = bad<RequirementPurpose>(4); }, "OperationNumerics - requirement purpose is invalid"},
        {[&] { q.kind = bad<RequirementKind>(9); }, "OperationNumerics - requirement kind is invalid"},
        {[&] { c.constraints[1].relation = bad<ShapeRelation>(4); },
         "OperationNumerics - shape constraint relation is invalid"},
        {[&] { c.constraints[1].right = {}; }, kUnknown},
        {[&] { c.constraints[0].left = value(out0); }, kScalarValue},
        {[&] { c.shapes[0].dimensions = {dim(in1, 2)}; }, kAxis},
        // A later shape's rank error comes before an earlier shape's expression error.
        {[&] { c.shapes[2].dimensions.clear(); }, kRank},
        {[&] { c.shapes[3].role = in0; }, "OperationNumerics - shape role is missing or duplicated"},
        {[&] { c.shapes.pop_back(); }, "OperationNumerics - shapes must describe every operand role"}};
    expect_ladder([&] { return message_of([&] { c.validate(contract_roles()); }); }, steps);
}

TEST(ImplementationRecord, ChecksRunInOrderWithoutChangingTheRecord) {
    ImplementationNumerics r = valid_record();
    auto& p = r.parameters;
    const Ladder steps{
        // Same name, other value: still a duplicate.
        {[&] { p.push_back({"tolerance", std::int64_t{1}, "Again."}); },
         "ImplementationNumerics - algorithm parameter names must be unique"},
        {[&] { p.push_back({"z", std::string(), "Empty."}); },
         "ImplementationNumerics - string parameters must not be empty"},
        {[&] { p[0].value = std::numeric_limits<double>::quiet_NaN(); }, kFinite},
        {[&] { p[0].name = "Tolerance"; }, kMalformed},
        {[&] { r.complexity.auxiliary_space = dim(out1, 0); }, kUnregistered},
        {[&] { r.complexity.work = dim(out0, 2); }, kAxis},
        {[&] { r.precision.accumulation_dtype = ""; }, "PrecisionDescription - accumulation dtype must not be empty"},
        {[&] { r.precision.notes = {"x", ""}; }, "PrecisionDescription - notes must not be empty"},
        {[&] { r.complexity.notes = {""}; }, "ComplexityDescription - notes must not be empty"},
        {[&] { r.notes.push_back(""); }, "ImplementationNumerics - notes must not be empty"},
        {[&] { r.precision.reduction_order = bad<ReductionOrder>(6); },
         "ImplementationNumerics - reduction order is invalid"},
        {[&] { r.precision.mode = bad<PrecisionMode>(5); }, "ImplementationNumerics - precision mode is invalid"},
        {[&] { r.stability = bad<Stability>(5); }, "ImplementationNumerics - stability is invalid"},
        {[&] { r.algorithm = "CPU.gemm"; }, "ImplementationNumerics - algorithm must be a lower-case identifier"}};
    expect_ladder(
        [&] {
            const std::string before = describe(r).to_json(); // NaN never compares equal, its text does
            const std::string message = message_of([&] { r.validate(implemented_operation()); });
            EXPECT_EQ(describe(r).to_json(), before);
            return message;
        },
        steps);
}

TEST(ImplementationRecord, ResolvedDerivesWidenedPrecision) {
    ImplementationNumerics r = valid_record();
    r.precision = {PrecisionMode::mixed, std::nullopt, ReductionOrder::sequential, {"Zeta note."}};
    const auto mixed = r.resolved(ScalarType::float16, ScalarType::float32);
    EXPECT_EQ(mixed.precision.accumulation_dtype, "float32");
    EXPECT_EQ(mixed.precision.notes,
              (Strings{"Values are loaded from float16 storage, computed in float32, and rounded once to the output "
                       "storage type.",
                       "Zeta note."}));
    EXPECT_EQ(mixed.parameters[0].name, "block");

    // A named accumulation dtype holds, and resolving twice adds the text once.
    r.precision = {PrecisionMode::widened, std::string("float64"), ReductionOrder::sequential, {}};
    const auto widened = r.resolved(ScalarType::float32, ScalarType::float32);
    EXPECT_EQ(widened.precision.accumulation_dtype, "float64");
    EXPECT_EQ(widened.resolved(ScalarType::float32, ScalarType::float32), widened);
    EXPECT_EQ(widened.precision.notes,
              (Strings{"Values are loaded from float32 storage, computed in float64, and rounded once to the output "
                       "storage type."}));

    for (PrecisionMode mode : {PrecisionMode::native, PrecisionMode::unknown, PrecisionMode::not_applicable}) {
        r.precision = {mode, std::nullopt, ReductionOrder::sequential, {}};
        const auto same = r.resolved(ScalarType::float16, ScalarType::float32);
        EXPECT_FALSE(same.precision.accumulation_dtype);
        EXPECT_TRUE(same.precision.notes.empty());
    }
}

// Top-level key orders are checked through the module.
TEST(ImplementationRecord, NormalisedDescriptionKeysAndValues) {
    ImplementationNumerics r = valid_record().normalised(implemented_operation());
    r.stability = Stability::unknown;
    r.precision.accumulation_dtype.reset();
    const Description d = describe(r);
    EXPECT_EQ(d.at("notes").to_json(), R"(["First.","Second."])"); // sorted
    EXPECT_EQ(d.at("stability").as_string(), "unknown");
    EXPECT_EQ(d.at("complexity").keys(), (Strings{"work", "auxiliary_space", "notes"}));
    const Description& precision = d.at("precision");
    EXPECT_EQ(precision.keys(), (Strings{"mode", "accumulation_dtype", "reduction_order", "notes"}));
    EXPECT_TRUE(precision.at("accumulation_dtype").is_null());
    EXPECT_EQ(d.at("parameters").as_list().at(0).to_json(),
              R"({"name":"block","value":64,"description":"Block size."})");
    EXPECT_EQ(d.at("complexity").at("work").to_json(),
              R"({"operator":"multiply","operands":[{"operator":"operand_dimension","role":0,"axis":0},)"
              R"({"operator":"operand_dimension","role":0,"axis":1},{"operator":"operand_value","role":1}]})");

    r.precision.mode = bad<PrecisionMode>(9); // out-of-range values never leak their number
    EXPECT_EQ(describe(r).at("precision").at("mode").as_string(), "unknown");
}

TEST(Description, OperandsProvenanceAndDictOrder) {
    // A scalar has no matrix layout whatever the descriptor says.
    EXPECT_EQ(describe_operand(out1, OperandAccess::write, OperandKind::scalar, ScalarType::float16,
                               ScalarType::float32, Location::pageable_host, StorageFormat::dense, ComplexLayout::none,
                               MatrixLayout::row_major)
                  .to_json(),
              R"({"role":2147483649,"access":"write","kind":"scalar","dtype":"float16",)"
              R"("compute_dtype":"float32","location":"pageable_host","storage_format":"dense",)"
              R"("complex_layout":"none","matrix_layout":"none"})");
    EXPECT_EQ(describe_provenance(RegistrationProvenance()).to_json(), R"({"kind":"builtin","version":null})");

    Description dict = Description::dict();
    dict.set("b", 1).set("a", 2).set("b", "x");
    EXPECT_EQ(dict.to_json(), R"({"b":"x","a":2})");
    EXPECT_THROW(dict.at("c"), std::out_of_range);
}
