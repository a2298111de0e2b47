#include <gtest/gtest.h>

#include "test_support.hpp"

#include <string>

#include "catalogue/operation_id.hpp"
#include "catalogue/operation_registry.hpp"

using namespace quillmark;
using quillmark::testing::message_of;

namespace {

std::vector<RoleDeclaration> unary() {
    return {{input_role(0), OperandAccess::read, OperandKind::vector},
            {output_role(0), OperandAccess::write, OperandKind::vector}};
}

void add(OperationRegistry& registry, const char* name, std::uint32_t major) {
    registry.register_operation(OperationSpec(OperationId(name, major), unary()), RegistrationProvenance());
}

struct NameCase {
    const char* name;
    const char* message; // "" when valid
};

constexpr const char* kSegment = "OperationId - names must use lower-case ASCII identifier segments";
constexpr const char* kEmptySegment = "OperationId - namespace segments must not be empty";
constexpr const char* kMajor = "OperationId::parse - major version must be a non-zero integer";
constexpr const char* kCanonical = "OperationId::parse - expected canonical identifier 'name@major'";

} // namespace

// Texts with an '@' go through parse, the others are names with major 1.
class OperationIdText : public ::testing::TestWithParam<NameCase> {};
TEST_P(OperationIdText, Validates) {
    const std::string text = GetParam().name;
    EXPECT_EQ(message_of<std::invalid_argument>([&] {
                  text.find('@') == std::string::npos ? OperationId(text, 1) : OperationId::parse(text);
              }),
              GetParam().message);
}
INSTANTIATE_TEST_SUITE_P(
    Rules, OperationIdText,
    ::testing::Values(NameCase{"a.b_1", ""}, NameCase{"", "OperationId - name must not be empty"},
                      NameCase{"a", "OperationId - name must be namespaced with at least one '.'"},
                      NameCase{".a", kEmptySegment}, NameCase{"a..b", kEmptySegment}, NameCase{"a.", kEmptySegment},
                      NameCase{"a.B", kSegment}, NameCase{"a.1b", kSegment}, NameCase{"a._b", kSegment},
                      NameCase{"a-b.c", kSegment}, NameCase{"a.b@4294967295", ""}, NameCase{"a.b@0", kMajor},
                      NameCase{"a.b@x", kMajor}, NameCase{"a.b@4294967296", kMajor}, NameCase{"a.b@1@2", kMajor},
                      NameCase{"a.b@-1", kMajor}, NameCase{"@1", kCanonical}, NameCase{"a.b@", kCanonical},
                      NameCase{"A.b@1", kSegment}));

TEST(OperationId, ParseNeedsAMajorAndDropsLeadingZeros) {
    EXPECT_EQ(message_of<std::invalid_argument>([] { OperationId::parse("a.b"); }), kCanonical);
    EXPECT_EQ(OperationId::parse("x.y@007").to_string(), "x.y@7");
}

struct SignatureCase {
    std::vector<RoleDeclaration> roles;
    const char* message;
};
class SpecSignatures : public ::testing::TestWithParam<SignatureCase> {};
TEST_P(SpecSignatures, ChecksInOrder) {
    EXPECT_EQ(message_of<std::invalid_argument>([&] { OperationSpec(OperationId("x.y", 1), GetParam().roles); }),
              GetParam().message);
}
constexpr auto R = OperandAccess::read;
constexpr auto W = OperandAccess::write;
constexpr const char* kNoOutput = "OperationSpec - operation must declare at least one output";
constexpr const char* kOutputOrder = "OperationSpec - output roles must be contiguous and ordered";
INSTANTIATE_TEST_SUITE_P(
    Rules, SpecSignatures,
    ::testing::Values(SignatureCase{{{0, R, {}}, {output_role(0), W, {}}}, ""}, SignatureCase{{}, kNoOutput},
                      SignatureCase{{{0, R, {}}}, kNoOutput},
                      SignatureCase{{{1, R, {}}, {output_role(0), W, {}}},
                                    "OperationSpec - input roles must be contiguous and ordered"},
                      SignatureCase{{{0, W, {}}, {output_role(0), W, {}}},
                                    "OperationSpec - input roles must use read access"},
                      SignatureCase{{{output_role(0), R, {}}},
                                    "OperationSpec - output roles must use write or read-write access"},
                      SignatureCase{{{output_role(0), W, {}}, {0, R, {}}}, kOutputOrder},
                      SignatureCase{{{0, R, {}}, {output_role(1), W, {}}}, kOutputOrder}));

TEST(OperationSpec, ValidateChecksRolesKindsThenShapes) {
    int shape_calls = 0;
    OperationSpec spec(OperationId("x.y", 1), unary(), [&](std::span<const OperandDescriptor>) { ++shape_calls; });
    std::vector<OperandDescriptor> ops(2);
    ops[0].role = input_role(0);
    ops[1].role = output_role(0);
    ops[0].kind = ops[1].kind = OperandKind::vector;
    spec.validate(ops);
    EXPECT_EQ(message_of([&] { spec.validate(std::span(ops).first(1)); }), "OperationSpec - operand arity mismatch");
    EXPECT_EQ(message_of([&] { spec.validate(std::vector<OperandDescriptor>{ops[1], ops[0]}); }),
              "OperationSpec - operands do not match the registered role order");
    ops[1].kind = OperandKind::matrix;
    EXPECT_EQ(message_of([&] { spec.validate(ops); }),
              "OperationSpec - operand family does not match the registered contract");
    EXPECT_EQ(shape_calls, 1); // only the well-formed call reached the shape rule
}

TEST(OperationRegistry, RegistrationSealingAndHandles) {
    OperationRegistry registry;
    add(registry, "x.y", 1);
    add(registry, "x.y", 2);
    EXPECT_EQ(message_of<std::invalid_argument>([&] { add(registry, "x.y", 1); }),
              "OperationRegistry - operation 'x.y@1' is already registered");
    EXPECT_EQ(registry.size(), 2u);
    EXPECT_EQ(message_of<std::logic_error>([&] { registry.lookup(OperationId("x.y", 1)).handle(); }),
              "OperationSpec::handle - operation catalogue has not been sealed");
    registry.seal();
    registry.seal();
    EXPECT_EQ(registry.lookup(OperationId("x.y", 1)).handle(), 1u);
    EXPECT_EQ(registry.lookup(OperationId("x.y", 2)).handle(), 2u);
    EXPECT_EQ(message_of<std::logic_error>([&] { add(registry, "x.z", 1); }),
              "OperationRegistry::register_operation - catalogue is sealed");
    // The missing-operation message names the operation without its major.
    EXPECT_EQ(message_of<std::out_of_range>([&] { registry.lookup(OperationId("x.y", 3)); }),
              "OperationRegistry - operation 'x.y' is not registered");
}

TEST(RegistrationProvenance, RejectsBadFields) {
    EXPECT_EQ(message_of([] { RegistrationProvenance(3, "p", std::nullopt); }),
              "RegistrationProvenance - origin is not recognised");
    EXPECT_EQ(message_of([] { RegistrationProvenance(0, "", std::nullopt); }),
              "RegistrationProvenance - owner ID must not be empty");
    EXPECT_EQ(message_of([] { RegistrationProvenance(0, "p", std::string()); }),
              "RegistrationProvenance - version must not be empty");
}

TEST(OperationDescriptor, PreservesOutputOnlyForRegisteredOutputs) {
    std::vector<OperandDescriptor> ops(2);
    ops[0].role = output_role(0);
    ops[1].role = input_role(0);
    OperationDescriptor d(ops, {true});
    EXPECT_TRUE(d.preserves_output(output_role(0)));
    EXPECT_EQ(message_of<std::invalid_argument>([&] { d.preserves_output(input_role(0)); }),
              "OperationDescriptor::preserves_output - role is not an output");
    EXPECT_EQ(message_of<std::out_of_range>([&] { d.preserves_output(output_role(5)); }),
              "OperationDescriptor::preserves_output - output is not registered");
}
