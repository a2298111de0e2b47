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

} // namespace

struct NameCase {
    const char* name;
    const char* message; // nullptr when valid
};
class OperationIdNames : public ::testing::TestWithParam<NameCase> {};
TEST_P(OperationIdNames, Validates) {
    const auto& c = GetParam();
    const std::string got = message_of<std::invalid_argument>([&] { OperationId(c.name, 1); });
    EXPECT_EQ(got, c.message ? std::string(c.message) : "") << c.name;
}
INSTANTIATE_TEST_SUITE_P(
    Rules, OperationIdNames,
    ::testing::Values(NameCase{"a.b", nullptr}, NameCase{"a.b_1", nullptr},
                      NameCase{"", "OperationId - name must not be empty"},
                      NameCase{"a", "OperationId - name must be namespaced with at least one '.'"},
                      NameCase{".a", "OperationId - namespace segments must not be empty"},
                      NameCase{"a..b", "OperationId - namespace segments must not be empty"},
                      NameCase{"a.", "OperationId - namespace segments must not be empty"},
                      NameCase{"a.B", "OperationId - names must use lower-case ASCII identifier segments"},
                      NameCase{"a.1b", "OperationId - names must use lower-case ASCII identifier segments"},
                      NameCase{"a._b", "OperationId - names must use lower-case ASCII identifier segments"},
                      NameCase{"a-b.c", "OperationId - names must use lower-case ASCII identifier segments"}));

class OperationIdParse : public ::testing::TestWithParam<NameCase> {};
TEST_P(OperationIdParse, Parses) {
    const auto& c = GetParam();
    EXPECT_EQ(message_of<std::invalid_argument>([&] { OperationId::parse(c.name); }),
              c.message ? std::string(c.message) : "")
        << c.name;
}
constexpr const char* kMajorMsg = "OperationId::parse - major version must be a non-zero integer";
constexpr const char* kCanonMsg = "OperationId::parse - expected canonical identifier 'name@major'";
INSTANTIATE_TEST_SUITE_P(Rules, OperationIdParse,
                         ::testing::Values(NameCase{"a.b@1", nullptr}, NameCase{"a.b@4294967295", nullptr},
                                           NameCase{"a.b@0", kMajorMsg}, NameCase{"a.b@x", kMajorMsg},
                                           NameCase{"a.b@4294967296", kMajorMsg}, NameCase{"a.b@1@2", kMajorMsg},
                                           NameCase{"a.b@-1", kMajorMsg}, NameCase{"a.b", kCanonMsg},
                                           NameCase{"@1", kCanonMsg}, NameCase{"a.b@", kCanonMsg},
                                           NameCase{"A.b@1",
                                                    "OperationId - names must use lower-case ASCII identifier "
                                                    "segments"}));

TEST(OperationId, CanonicalTextAndLeadingZeros) {
    const OperationId id = OperationId::parse("x.y@007");
    EXPECT_EQ(id.major(), 7u);
    EXPECT_EQ(id.to_string(), "x.y@7");
    EXPECT_EQ(OperationId::parse("a.b@1"), OperationId("a.b", 1));
    EXPECT_NE(OperationId("a.b", 1), OperationId("a.b", 2));
}

struct SignatureCase {
    std::vector<RoleDeclaration> roles;
    const char* message;
};
class SpecSignatures : public ::testing::TestWithParam<SignatureCase> {};
TEST_P(SpecSignatures, ChecksInOrder) {
    const auto& c = GetParam();
    EXPECT_EQ(message_of<std::invalid_argument>([&] { OperationSpec(OperationId("x.y", 1), c.roles); }),
              c.message ? std::string(c.message) : "");
}
const auto R = OperandAccess::read;
const auto W = OperandAccess::write;
INSTANTIATE_TEST_SUITE_P(
    Rules, SpecSignatures,
    ::testing::Values(SignatureCase{{{0, R, {}}, {output_role(0), W, {}}}, nullptr},
                      SignatureCase{{}, "OperationSpec - operation must declare at least one output"},
                      SignatureCase{{{1, R, {}}, {output_role(0), W, {}}},
                                    "OperationSpec - input roles must be contiguous and ordered"},
                      SignatureCase{{{0, W, {}}, {output_role(0), W, {}}},
                                    "OperationSpec - input roles must use read access"},
                      SignatureCase{{{output_role(0), R, {}}},
                                    "OperationSpec - output roles must use write or read-write access"},
                      SignatureCase{{{0, R, {}}}, "OperationSpec - operation must declare at least one output"},
                      SignatureCase{{{output_role(0), W, {}}, {0, R, {}}},
                                    "OperationSpec - output roles must be contiguous and ordered"},
                      SignatureCase{{{0, R, {}}, {output_role(1), W, {}}},
                                    "OperationSpec - output roles must be contiguous and ordered"}));

TEST(OperationSpec, ValidateChecksRolesKindsThenShapes) {
    int shape_calls = 0;
    OperationSpec spec(OperationId("x.y", 1), unary(), [&](std::span<const OperandDescriptor>) { ++shape_calls; });
    OperandDescriptor in, out;
    in.role = input_role(0);
    in.kind = OperandKind::vector;
    out.role = output_role(0);
    out.kind = OperandKind::vector;
    std::vector<OperandDescriptor> ops{in, out};
    spec.validate(ops);
    EXPECT_EQ(shape_calls, 1);
    EXPECT_EQ(message_of<std::invalid_argument>([&] { spec.validate(std::span(ops).first(1)); }),
              "OperationSpec - operand arity mismatch");
    std::vector<OperandDescriptor> swapped{out, in};
    EXPECT_EQ(message_of<std::invalid_argument>([&] { spec.validate(swapped); }),
              "OperationSpec - operands do not match the registered role order");
    ops[1].kind = OperandKind::matrix;
    EXPECT_EQ(message_of<std::invalid_argument>([&] { spec.validate(ops); }),
              "OperationSpec - operand family does not match the registered contract");
    EXPECT_EQ(shape_calls, 1);
}

TEST(OperationRegistry, RegistrationSealingAndHandles) {
    OperationRegistry registry;
    registry.register_operation(OperationSpec(OperationId("x.y", 1), unary()), RegistrationProvenance());
    registry.register_operation(OperationSpec(OperationId("x.y", 2), unary()), RegistrationProvenance());
    EXPECT_EQ(message_of<std::invalid_argument>([&] {
                  registry.register_operation(OperationSpec(OperationId("x.y", 1), unary()), RegistrationProvenance());
              }),
              "OperationRegistry - operation 'x.y@1' is already registered");
    EXPECT_EQ(registry.size(), 2u);
    EXPECT_EQ(message_of<std::logic_error>([&] { registry.lookup(OperationId("x.y", 1)).handle(); }),
              "OperationSpec::handle - operation catalogue has not been sealed");
    registry.seal();
    registry.seal();
    EXPECT_EQ(registry.lookup(OperationId("x.y", 1)).handle(), 1u);
    EXPECT_EQ(registry.lookup(OperationId("x.y", 2)).handle(), 2u);
    EXPECT_EQ(message_of<std::logic_error>([&] {
                  registry.register_operation(OperationSpec(OperationId("x.z", 1), unary()), RegistrationProvenance());
              }),
              "OperationRegistry::register_operation - catalogue is sealed");
    // The missing-operation message names the operation without its major.
    EXPECT_EQ(message_of<std::out_of_range>([&] { registry.lookup(OperationId("x.y", 3)); }),
              "OperationRegistry - operation 'x.y' is not registered");
}

TEST(OperationSpec, HandleAssignedOnce) {
    OperationSpec spec(OperationId("x.y", 1), unary());
    EXPECT_THROW(spec.assign_handle(0), std::logic_error);
    spec.assign_handle(4);
    EXPECT_EQ(message_of<std::logic_error>([&] { spec.assign_handle(5); }),
              "OperationSpec::assign_handle - invalid handle assignment");
}

TEST(RegistrationProvenance, ChecksAndKinds) {
    EXPECT_EQ(RegistrationProvenance().owner_id(), "quillmark");
    EXPECT_EQ(RegistrationProvenance(1, "p", std::nullopt).kind_name(), "native");
    EXPECT_EQ(RegistrationProvenance("demo", "1.0").origin(), 2u);
    EXPECT_EQ(message_of<std::invalid_argument>([] { RegistrationProvenance(3, "p", std::nullopt); }),
              "RegistrationProvenance - origin is not recognised");
    EXPECT_EQ(message_of<std::invalid_argument>([] { RegistrationProvenance(0, "", std::nullopt); }),
              "RegistrationProvenance - owner ID must not be empty");
    EXPECT_EQ(message_of<std::invalid_argument>([] { RegistrationProvenance(0, "p", std::string()); }),
              "RegistrationProvenance - version must not be empty");
}

TEST(OperationDescriptor, PreservesOutput) {
    OperandDescriptor in, out;
    in.role = input_role(0);
    out.role = output_role(0);
    OperationDescriptor d({out, in}, {true});
    EXPECT_TRUE(d.preserves_output(output_role(0)));
    EXPECT_EQ(message_of<std::invalid_argument>([&] { d.preserves_output(input_role(0)); }),
              "OperationDescriptor::preserves_output - role is not an output");
    EXPECT_EQ(message_of<std::out_of_range>([&] { d.preserves_output(output_role(5)); }),
              "OperationDescriptor::preserves_output - output is not registered");
}
