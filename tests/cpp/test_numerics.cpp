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

} // namespace

// ---- expressions ---------------------------------------------------------------------------------

struct BuildCase {
    const char* label;
    std::function<void()> build;
    const char* message; // "" when valid
};
void PrintTo(const BuildCase& c, std::ostream* os) { *os << c.label; }

class ExpressionConstruction : public ::testing::TestWithParam<BuildCase> {};
TEST_P(ExpressionConstruction, Checks) { EXPECT_EQ(message_of(GetParam().build), GetParam().message); }

constexpr const char* kArity = "SymbolicExpression - operator has invalid arity";
constexpr const char* kSymbol = "SymbolicExpression - symbol must be a lower-case identifier";
std::vector<SymbolicExpression> ones(std::size_t n) { return std::vector<SymbolicExpression>(n, lit(1)); }
INSTANTIATE_TEST_SUITE_P(
    Rules, ExpressionConstruction,
    ::testing::Values(
        BuildCase{"zero", [] { lit(0); }, ""},
        BuildCase{"negative", [] { lit(-1); }, "SymbolicExpression - constants must be non-negative"},
        BuildCase{"underscore", [] { sym("n_2"); }, ""}, BuildCase{"dotted", [] { sym("n.k"); }, ""},
        BuildCase{"upper", [] { sym("N"); }, kSymbol}, BuildCase{"digit_first", [] { sym("2n"); }, kSymbol},
        BuildCase{"empty", [] { sym(""); }, kSymbol}, BuildCase{"dash", [] { sym("n-k"); }, kSymbol},
        BuildCase{"add1", [] { SymbolicExpression::make_operator(ExpressionKind::add, ones(1)); }, kArity},
        BuildCase{"mul5", [] { SymbolicExpression::make_operator(ExpressionKind::multiply, ones(5)); }, ""},
        BuildCase{"pow3", [] { SymbolicExpression::make_operator(ExpressionKind::power, ones(3)); }, kArity},
        BuildCase{"div2", [] { SymbolicExpression::make_operator(ExpressionKind::divide, ones(2)); }, ""},
        BuildCase{"log2_2", [] { SymbolicExpression::make_operator(ExpressionKind::log2, ones(2)); }, kArity},
        BuildCase{"log2_1", [] { SymbolicExpression::make_operator(ExpressionKind::log2, ones(1)); }, ""},
        BuildCase{"leaf_kind", [] { SymbolicExpression::make_operator(ExpressionKind::constant, ones(2)); }, kArity},
        BuildCase{"bad_kind",
                  [] { SymbolicExpression::make_operator(static_cast<ExpressionKind>(12), ones(2)); }, kArity}),
    [](const auto& info) { return std::string(info.param.label); });

TEST(SymbolicExpression, TextFormAndStructuralEquality) {
    const auto e = sum_of({dim(in0, 1), lit(1)});
    EXPECT_EQ(e.to_text(), "add(dim(0,1),1)");
    const auto nested = SymbolicExpression::make_operator(
        ExpressionKind::maximum,
        {SymbolicExpression::operand_value(out1),
         SymbolicExpression::make_operator(ExpressionKind::log2, {sym("n")}), SymbolicExpression::unknown()});
    EXPECT_EQ(nested.to_text(), "maximum(value(2147483649),log2(n),unknown)");
    EXPECT_EQ(e, sum_of({dim(in0, 1), lit(1)}));
    EXPECT_FALSE(e == sum_of({dim(in0, 0), lit(1)}));
    EXPECT_FALSE(e == product_of({dim(in0, 1), lit(1)}));
    EXPECT_EQ(SymbolicExpression(), SymbolicExpression::unknown());
}

struct ScopeCase {
    const char* label;
    SymbolicExpression expression;
    ExpressionContext context;
    const char* message;
};
void PrintTo(const ScopeCase& c, std::ostream* os) { *os << c.label; }

class ExpressionScope : public ::testing::TestWithParam<ScopeCase> {};
TEST_P(ExpressionScope, Validates) {
    // An LU role counts its order only; a kind-less role takes its rank from the shape, if any.
    const std::vector<ExpressionRole> roles{{in0, OperandKind::lu, std::nullopt},
                                            {in1, OperandKind::scalar, std::nullopt},
                                            {out0, std::nullopt, 2u},
                                            {out1, std::nullopt, std::nullopt}};
    const auto& c = GetParam();
    EXPECT_EQ(message_of([&] { c.expression.validate(roles, c.context); }), c.message);
}
using EC = ExpressionContext;
INSTANTIATE_TEST_SUITE_P(
    Rules, ExpressionScope,
    ::testing::Values(
        ScopeCase{"lu_axis0", dim(in0, 0), EC::shape, ""},
        ScopeCase{"lu_axis1", dim(in0, 1), EC::shape, "SymbolicExpression - operand dimension axis is out of range"},
        ScopeCase{"shape_rank", dim(out0, 1), EC::shape_constraint, ""},
        ScopeCase{"shape_rank_past", product_of({lit(2), dim(out0, 2)}), EC::complexity,
                  "SymbolicExpression - operand dimension axis is out of range"},
        ScopeCase{"no_rank_known", dim(out1, 7), EC::shape, ""},
        ScopeCase{"undeclared", sum_of({lit(1), dim(5, 0)}), EC::shape_constraint,
                  "SymbolicExpression - operand role is not declared"},
        ScopeCase{"undeclared_cost", SymbolicExpression::operand_value(kOutputRoleBit | 2), EC::complexity,
                  "ImplementationNumerics - expression role is not registered"},
        ScopeCase{"value_scalar", SymbolicExpression::operand_value(in1), EC::shape, ""},
        ScopeCase{"value_lu", SymbolicExpression::operand_value(in0), EC::shape,
                  "SymbolicExpression - operand value must reference a scalar"},
        ScopeCase{"value_rank2", SymbolicExpression::operand_value(out0), EC::complexity,
                  "SymbolicExpression - operand value must reference a scalar"},
        ScopeCase{"unknown_constraint", sum_of({lit(1), SymbolicExpression::unknown()}), EC::shape_constraint,
                  "SymbolicExpression - unknown is not valid in a shape constraint"},
        ScopeCase{"unknown_cost", sum_of({lit(1), SymbolicExpression::unknown()}), EC::complexity, ""},
        // Operands are checked left to right.
        ScopeCase{"first_fault_wins", sum_of({dim(in0, 3), SymbolicExpression::unknown()}), EC::shape_constraint,
                  "SymbolicExpression - operand dimension axis is out of range"}),
    [](const auto& info) { return std::string(info.param.label); });

// ---- operation contracts -------------------------------------------------------------------------

namespace {

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

struct ContractCase {
    const char* label;
    std::function<void(OperationNumerics&)> mutate;
    const char* message;
};
void PrintTo(const ContractCase& c, std::ostream* os) { *os << c.label; }

template <class E> E bad(std::uint32_t v) { return static_cast<E>(v); }

} // namespace

class OperationContract : public ::testing::TestWithParam<ContractCase> {};
TEST_P(OperationContract, ValidatesInOrder) {
    OperationNumerics c = valid_contract();
    GetParam().mutate(c);
    const auto roles = contract_roles();
    EXPECT_EQ(message_of([&] { c.validate(roles); }), GetParam().message);
}
INSTANTIATE_TEST_SUITE_P(
    Rules, OperationContract,
    ::testing::Values(
        ContractCase{"valid", [](auto&) {}, ""},
        ContractCase{"kindless_any_rank", [](auto& c) { c.shapes[3].dimensions = {lit(1), lit(2), lit(3)}; }, ""},
        ContractCase{"missing_shape", [](auto& c) { c.shapes.pop_back(); },
                     "OperationNumerics - shapes must describe every operand role"},
        ContractCase{"count_before_everything",
                     [](auto& c) {
                         c.shapes.pop_back();
                         c.requirements[0].note.clear();
                     },
                     "OperationNumerics - shapes must describe every operand role"},
        ContractCase{"duplicate_shape", [](auto& c) { c.shapes[3].role = in0; },
                     "OperationNumerics - shape role is missing or duplicated"},
        ContractCase{"undeclared_shape", [](auto& c) { c.shapes[3].role = kOutputRoleBit | 2; },
                     "OperationNumerics - shape role is missing or duplicated"},
        ContractCase{"matrix_rank1", [](auto& c) { c.shapes[1].dimensions.pop_back(); },
                     "OperationNumerics - shape rank disagrees with operand kind"},
        ContractCase{"lu_rank2", [](auto& c) { c.shapes[0].dimensions.push_back(sym("n")); },
                     "OperationNumerics - shape rank disagrees with operand kind"},
        // A later shape's rank error comes before an earlier shape's expression error.
        ContractCase{"rank_before_expressions",
                     [](auto& c) {
                         c.shapes[0].dimensions = {dim(7, 0)};
                         c.shapes[2].dimensions.clear();
                     },
                     "OperationNumerics - shape rank disagrees with operand kind"},
        ContractCase{"shape_axis", [](auto& c) { c.shapes[2].dimensions = {dim(in1, 2)}; },
                     "SymbolicExpression - operand dimension axis is out of range"},
        ContractCase{"shape_unknown_allowed", [](auto& c) { c.shapes[2].dimensions = {SymbolicExpression()}; },
                     ""},
        ContractCase{"constraint_unknown", [](auto& c) { c.constraints[1].right = SymbolicExpression(); },
                     "SymbolicExpression - unknown is not valid in a shape constraint"},
        ContractCase{"constraint_undeclared", [](auto& c) { c.constraints[0].left = dim(2, 0); },
                     "SymbolicExpression - operand role is not declared"},
        ContractCase{"constraint_value_of_vector",
                     [](auto& c) { c.constraints[0].left = SymbolicExpression::operand_value(out0); },
                     "SymbolicExpression - operand value must reference a scalar"},
        ContractCase{"relation", [](auto& c) { c.constraints[1].relation = bad<ShapeRelation>(4); },
                     "OperationNumerics - shape constraint relation is invalid"},
        ContractCase{"relation_before_requirements",
                     [](auto& c) {
                         c.constraints[1].relation = bad<ShapeRelation>(4);
                         c.requirements[0].kind = bad<RequirementKind>(9);
                     },
                     "OperationNumerics - shape constraint relation is invalid"},
        ContractCase{"req_kind", [](auto& c) { c.requirements[0].kind = bad<RequirementKind>(9); },
                     "OperationNumerics - requirement kind is invalid"},
        ContractCase{"req_purpose", [](auto& c) { c.requirements[0].purpose = bad<RequirementPurpose>(4); },
                     "OperationNumerics - requirement purpose is invalid"},
        ContractCase{"req_enforcement",
                     [](auto& c) { c.requirements[0].enforcement = bad<RequirementEnforcement>(3); },
                     "OperationNumerics - requirement enforcement is invalid"},
        ContractCase{"req_no_roles", [](auto& c) { c.requirements[0].roles.clear(); },
                     "OperationNumerics - requirements need roles and a note"},
        ContractCase{"req_no_note", [](auto& c) { c.requirements[0].note.clear(); },
                     "OperationNumerics - requirements need roles and a note"},
        ContractCase{"req_repeat", [](auto& c) { c.requirements[0].roles.push_back(in0); },
                     "OperationNumerics - requirement roles must be unique"},
        ContractCase{"req_undeclared", [](auto& c) { c.requirements[0].roles = {kOutputRoleBit | 9}; },
                     "OperationNumerics - requirement role is not declared"}),
    [](const auto& info) { return std::string(info.param.label); });

TEST(OperationContract, OperationSpecConstructionRunsIt) {
    auto c = std::make_shared<OperationNumerics>(valid_contract());
    c->shapes[1].dimensions.pop_back();
    EXPECT_EQ(message_of([&] { OperationSpec(OperationId("x.y", 1), contract_roles(), {}, c); }),
              "OperationNumerics - shape rank disagrees with operand kind");
}

// ---- implementation records ----------------------------------------------------------------------

namespace {

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
    r.complexity.work = product_of({dim(in0, 0), dim(in0, 1), SymbolicExpression::operand_value(in1)});
    r.complexity.auxiliary_space = lit(0);
    r.complexity.notes = {"Cost note."};
    r.precision = {PrecisionMode::native, std::string("float64"), ReductionOrder::sequential, {"Precision note."}};
    r.parameters = {{"tolerance", 1e-4, "Relative tolerance."}, {"block", std::int64_t{64}, "Block size."}};
    r.notes = {"Second.", "First."};
    return r;
}

struct RecordCase {
    const char* label;
    std::function<void(ImplementationNumerics&)> mutate;
    const char* message;
};
void PrintTo(const RecordCase& c, std::ostream* os) { *os << c.label; }

constexpr double kNaN = std::numeric_limits<double>::quiet_NaN();

} // namespace

class ImplementationRecord : public ::testing::TestWithParam<RecordCase> {};
TEST_P(ImplementationRecord, ValidatesInOrder) {
    const OperationSpec spec = implemented_operation();
    ImplementationNumerics r = valid_record();
    GetParam().mutate(r);
    const std::string before = describe(r).to_json(); // NaN never compares equal, its text does
    EXPECT_EQ(message_of([&] { r.validate(spec); }), GetParam().message);
    EXPECT_EQ(describe(r).to_json(), before);
}
INSTANTIATE_TEST_SUITE_P(
    Rules, ImplementationRecord,
    ::testing::Values(
        RecordCase{"valid", [](auto&) {}, ""},
        RecordCase{"stability_unknown", [](auto& r) { r.stability = Stability::unknown; }, ""},
        RecordCase{"stability_4", [](auto& r) { r.stability = Stability::not_guaranteed; }, ""},
        RecordCase{"algorithm_upper", [](auto& r) { r.algorithm = "CPU.gemm"; },
                   "ImplementationNumerics - algorithm must be a lower-case identifier"},
        RecordCase{"algorithm_first",
                   [](auto& r) {
                       r.algorithm = "";
                       r.stability = bad<Stability>(5);
                   },
                   "ImplementationNumerics - algorithm must be a lower-case identifier"},
        RecordCase{"stability", [](auto& r) { r.stability = bad<Stability>(5); },
                   "ImplementationNumerics - stability is invalid"},
        RecordCase{"stability_before_mode",
                   [](auto& r) {
                       r.stability = bad<Stability>(5);
                       r.precision.mode = bad<PrecisionMode>(5);
                   },
                   "ImplementationNumerics - stability is invalid"},
        RecordCase{"mode", [](auto& r) { r.precision.mode = bad<PrecisionMode>(5); },
                   "ImplementationNumerics - precision mode is invalid"},
        RecordCase{"reduction", [](auto& r) { r.precision.reduction_order = bad<ReductionOrder>(6); },
                   "ImplementationNumerics - reduction order is invalid"},
        RecordCase{"note", [](auto& r) { r.notes.push_back(""); },
                   "ImplementationNumerics - notes must not be empty"},
        RecordCase{"own_notes_first",
                   [](auto& r) {
                       r.precision.notes.push_back("");
                       r.notes.push_back("");
                   },
                   "ImplementationNumerics - notes must not be empty"},
        RecordCase{"complexity_note", [](auto& r) { r.complexity.notes = {""}; },
                   "ComplexityDescription - notes must not be empty"},
        RecordCase{"precision_note", [](auto& r) { r.precision.notes = {"x", ""}; },
                   "PrecisionDescription - notes must not be empty"},
        RecordCase{"accumulation", [](auto& r) { r.precision.accumulation_dtype = ""; },
                   "PrecisionDescription - accumulation dtype must not be empty"},
        RecordCase{"no_accumulation", [](auto& r) { r.precision.accumulation_dtype.reset(); }, ""},
        RecordCase{"foreign_role", [](auto& r) { r.complexity.auxiliary_space = dim(out1, 0); },
                   "ImplementationNumerics - expression role is not registered"},
        RecordCase{"axis_from_shape", [](auto& r) { r.complexity.work = dim(out0, 2); },
                   "SymbolicExpression - operand dimension axis is out of range"},
        RecordCase{"unknown_cost", [](auto& r) { r.complexity.work = SymbolicExpression(); }, ""},
        RecordCase{"expressions_before_parameters",
                   [](auto& r) {
                       r.complexity.work = dim(out1, 0);
                       r.parameters[0].value = kNaN;
                   },
                   "ImplementationNumerics - expression role is not registered"},
        RecordCase{"param_name", [](auto& r) { r.parameters[1].name = "Block"; },
                   "ImplementationNumerics - algorithm parameter is malformed"},
        RecordCase{"param_description", [](auto& r) { r.parameters[1].description = ""; },
                   "ImplementationNumerics - algorithm parameter is malformed"},
        RecordCase{"param_nan", [](auto& r) { r.parameters[0].value = kNaN; },
                   "ImplementationNumerics - numeric parameters must be finite"},
        RecordCase{"param_inf", [](auto& r) { r.parameters[0].value = -HUGE_VAL; },
                   "ImplementationNumerics - numeric parameters must be finite"},
        RecordCase{"param_string", [](auto& r) { r.parameters[1].value = std::string(); },
                   "ImplementationNumerics - string parameters must not be empty"},
        RecordCase{"param_duplicate",
                   [](auto& r) { r.parameters.push_back({"tolerance", std::int64_t{1}, "Again."}); },
                   "ImplementationNumerics - algorithm parameter names must be unique"},
        // Every parameter is checked before uniqueness is.
        RecordCase{"duplicate_after_values",
                   [](auto& r) {
                       r.parameters.push_back({"block", std::int64_t{1}, "Again."});
                       r.parameters.push_back({"z", kNaN, "Bad."});
                   },
                   "ImplementationNumerics - numeric parameters must be finite"}),
    [](const auto& info) { return std::string(info.param.label); });

TEST(ImplementationRecord, NormalisedCopyIsSorted) {
    const ImplementationNumerics r = valid_record();
    const ImplementationNumerics n = r.normalised(implemented_operation());
    EXPECT_EQ(n.notes, (std::vector<std::string>{"First.", "Second."}));
    ASSERT_EQ(n.parameters.size(), 2u);
    EXPECT_EQ(n.parameters[0].name, "block");
    EXPECT_EQ(n.parameters[1].name, "tolerance");
    EXPECT_EQ(r.notes[0], "Second."); // the source stays as it was

    ImplementationNumerics shuffled = r;
    std::swap(shuffled.parameters[0], shuffled.parameters[1]);
    std::swap(shuffled.notes[0], shuffled.notes[1]);
    EXPECT_EQ(shuffled.normalised(implemented_operation()), n);
}

TEST(ImplementationRecord, ResolvedDerivesWidenedPrecision) {
    ImplementationNumerics r = valid_record();
    r.precision = {PrecisionMode::mixed, std::nullopt, ReductionOrder::sequential, {"Zeta note."}};
    const auto mixed = r.resolved(ScalarType::float16, ScalarType::float32);
    EXPECT_EQ(mixed.precision.accumulation_dtype, "float32");
    EXPECT_EQ(mixed.precision.notes,
              (std::vector<std::string>{
                  "Values are loaded from float16 storage, computed in float32, and rounded once to the output "
                  "storage type.",
                  "Zeta note."}));
    EXPECT_EQ(mixed.parameters[0].name, "block");

    // A named accumulation dtype holds, and resolving twice adds the text once.
    r.precision = {PrecisionMode::widened, std::string("float64"), ReductionOrder::sequential, {}};
    const auto widened = r.resolved(ScalarType::float32, ScalarType::float32);
    EXPECT_EQ(widened.precision.accumulation_dtype, "float64");
    EXPECT_EQ(widened.resolved(ScalarType::float32, ScalarType::float32), widened);
    EXPECT_EQ(widened.precision.notes.size(), 1u);

    for (PrecisionMode mode : {PrecisionMode::native, PrecisionMode::unknown, PrecisionMode::not_applicable}) {
        r.precision = {mode, std::nullopt, ReductionOrder::sequential, {}};
        const auto same = r.resolved(ScalarType::float16, ScalarType::float32);
        EXPECT_FALSE(same.precision.accumulation_dtype);
        EXPECT_TRUE(same.precision.notes.empty());
    }
}

TEST(ImplementationRecord, DescribeKeysAndValues) {
    ImplementationNumerics r = valid_record().normalised(implemented_operation());
    r.stability = Stability::unknown;
    r.precision.accumulation_dtype.reset();
    const Description d = describe(r);
    EXPECT_EQ(d.keys(),
              (std::vector<std::string>{"algorithm", "stability", "complexity", "precision", "parameters", "notes"}));
    EXPECT_EQ(d.at("stability").as_string(), "unknown");
    EXPECT_EQ(d.at("complexity").keys(), (std::vector<std::string>{"work", "auxiliary_space", "notes"}));
    const Description& precision = d.at("precision");
    EXPECT_EQ(precision.keys(),
              (std::vector<std::string>{"mode", "accumulation_dtype", "reduction_order", "notes"}));
    EXPECT_TRUE(precision.at("accumulation_dtype").is_null());
    EXPECT_EQ(precision.at("reduction_order").as_string(), "sequential");
    const auto& params = d.at("parameters").as_list();
    ASSERT_EQ(params.size(), 2u);
    EXPECT_EQ(params[0].keys(), (std::vector<std::string>{"name", "value", "description"}));
    EXPECT_EQ(params[0].at("value").as_int(), 64);
    EXPECT_DOUBLE_EQ(params[1].at("value").as_double(), 1e-4);
    EXPECT_EQ(d.at("complexity").at("work").to_json(),
              R"({"operator":"multiply","operands":[{"operator":"operand_dimension","role":0,"axis":0},)"
              R"({"operator":"operand_dimension","role":0,"axis":1},{"operator":"operand_value","role":1}]})");

    r.stability = bad<Stability>(9);
    r.precision.mode = bad<PrecisionMode>(9);
    r.precision.reduction_order = bad<ReductionOrder>(9);
    const Description odd = describe(r);
    EXPECT_EQ(odd.at("stability").as_string(), "unknown");
    EXPECT_EQ(odd.at("precision").at("mode").as_string(), "unknown");
    EXPECT_EQ(odd.at("precision").at("reduction_order").as_string(), "unknown");
}

TEST(Description, OperandsProvenanceAndDictOrder) {
    const auto scalar = describe_operand(out1, OperandAccess::write, OperandKind::scalar, ScalarType::float16,
                                         ScalarType::float32, Location::pageable_host, StorageFormat::dense,
                                         ComplexLayout::none, MatrixLayout::row_major);
    EXPECT_EQ(scalar.to_json(), R"({"role":2147483649,"access":"write","kind":"scalar","dtype":"float16",)"
                                R"("compute_dtype":"float32","location":"pageable_host","storage_format":"dense",)"
                                R"("complex_layout":"none","matrix_layout":"none"})");
    OperandDescriptor lu;
    lu.role = in0;
    lu.kind = OperandKind::lu;
    lu.dtype = DataTypeDescriptor(ScalarType::complex64, ScalarType::complex64);
    lu.complex_layout = ComplexLayout::split;
    lu.matrix_layout = MatrixLayout::column_major;
    const auto d = describe_operand(OperandAccess::read, lu);
    EXPECT_EQ(d.at("matrix_layout").as_string(), "column_major");
    EXPECT_EQ(d.at("complex_layout").as_string(), "split");

    EXPECT_EQ(describe_provenance(RegistrationProvenance()).to_json(), R"({"kind":"builtin","version":null})");
    EXPECT_EQ(describe_provenance(RegistrationProvenance("acme.fast", "2.0")).to_json(),
              R"({"kind":"native","version":"2.0"})");

    Description dict = Description::dict();
    dict.set("b", 1).set("a", 2).set("b", "x");
    EXPECT_EQ(dict.to_json(), R"({"b":"x","a":2})");
    EXPECT_THROW(dict.at("c"), std::out_of_range);
    EXPECT_THROW(dict.as_list(), std::logic_error);
}
