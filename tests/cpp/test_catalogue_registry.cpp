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

constexpr const char* kSegment = "OperationId - names must use lower-case ASCII identifier segments";
constexpr const char* kEmptySegment = "OperationId - namespace segments must not be empty";
constexpr const char* kMajor = "OperationId::parse - major version must be a non-zero integer";
constexpr const char* kCanonical = "OperationId::parse - expected canonical identifier 'name@major'";

} // namespace

TEST(OperationId, NamesAndCanonicalTexts) {
    // Texts with an '@' go through parse, the others are names with major 1.
    const std::pair<std::string, const char*> cases[] = {
        {"a.b_1", ""}, {"", "OperationId - name must not be empty"},
        {"a", "OperationId - name must be namespaced with at least one '.'"},
        {".a", kEmptySegment}, {"a..b", kEmptySegment}, {"a.", kEmptySegment}, {"a.B", kSegment}, {"a.1b", kSegment},
        {"a._b", kSegment}, {"a-b.c", kSegment}, {"a.b@4294967295", ""}, {"a.b@0", kMajor}, {"a.b@x", kMajor},
        {"a.b@4294967296", kMajor}, {"a.b@1@2", kMajor}, {"a.b@-1", kMajor}, {"@1", kCanonical},
        {"a.b@", kCanonical}, {"A.b@1", kSegment}};
    for (const auto& [text, message] : cases)
        EXPECT_EQ(message_of<std::invalid_argument>([&] {
                      text.find('@') == std::string::npos ? OperationId(text, 1) : OperationId::parse(text);
                  }),
                  message)
            << text;
    EXPECT_EQ(message_of<std::invalid_argument>([] { OperationId::parse("a.b"); }), kCanonical);
    EXPECT_EQ(OperationId::parse("x.y@007").to_string(), "x.y@7");
}

TEST(OperationSpec, SignatureChecksInOrder) {
    constexpr auto R = OperandAccess::read;
    constexpr auto W = OperandAccess::write;
    const char* no_output = "OperationSpec - operation must declare at least one output";
    const char* output_order = "OperationSpec - output roles must be contiguous and ordered";
    const std::pair<std::vector<RoleDeclaration>, const char*> cases[] = {
        {{{0, R, {}}, {output_role(0), W, {}}}, ""},
        {{}, no_output},
        {{{0, R, {}}}, no_output},
        {{{1, R, {}}, {output_role(0), W, {}}}, "OperationSpec - input roles must be contiguous and ordered"},
        {{{0, W, {}}, {output_role(0), W, {}}}, "OperationSpec - input roles must use read access"},
        {{{output_role(0), R, {}}}, "OperationSpec - output roles must use write or read-write access"},
        {{{output_role(0), W, {}}, {0, R, {}}}, output_order},
        {{{0, R, {}}, {output_role(1), W, {}}}, output_order}};
    for (const auto& [roles, message] : cases)
        EXPECT_EQ(message_of<std::invalid_argument>([&] { OperationSpec(OperationId("x.y", 1), roles); }), message);
}

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
