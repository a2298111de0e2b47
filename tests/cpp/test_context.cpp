// Builder -> context -> executor -> process, end to end over borrowed host storage.
#include <gtest/gtest.h>

#include "test_support.hpp"

#include <vector>

#include "catalogue/builtin_operations.hpp"
#include "core/errors.hpp"
#include "frontend/context_builder.hpp"
#include "frontend/executor.hpp"
#include "storage/borrowed_host_storage.hpp"
#include "storage/dense_host_storage.hpp"

using namespace quillmark;
using quillmark::testing::message_of;

namespace {

const std::shared_ptr<const SealedCatalogue>& builtin_catalogue() {
    static const auto catalogue = QuillmarkContextBuilder().build();
    return catalogue;
}

struct ContextExecution : ::testing::Test {
    QuillmarkContext context{builtin_catalogue(), CpuRuntimeOptions{}};
    QuillmarkExecutor executor{context};
    OperationId id(const char* text) { return OperationId::parse(text); }
};

using Vec64 = BorrowedDenseHostRealVector<PolicyF64>;

} // namespace

TEST_F(ContextExecution, BindingChecksComeBeforeDispatchAndLeaveOperandsUntouched) {
    std::vector<double> x{1, 2, 3}, out{9, 9, 9}, short_out(2);
    Vec64 vx(x.data(), 3), vo(out.data(), 3), vs(short_out.data(), 2);
    // Roles bound in order; a null output entity binds `vo` read-only.
    const auto failure = [&](std::vector<std::pair<OperandRole, Vec64*>> roles) {
        return message_of<std::invalid_argument>([&] {
            OperationBindings b;
            for (auto [role, entity] : roles)
                if (is_output_role(role) && entity)
                    b.bind(role, static_cast<OperandEntity&>(*entity));
                else
                    b.bind(role, static_cast<const OperandEntity&>(entity ? *entity : vo));
            executor.execute(b, id("quillmark.add@1"));
        });
    };
    const std::string add = " for operation 'quillmark.add@1'";
    EXPECT_EQ(failure({{input_role(0), &vx}, {input_role(2), &vx}, {output_role(0), &vo}}),
              "QuillmarkExecutor::execute - missing binding Input1" + add);
    EXPECT_EQ(failure({{input_role(0), &vx}, {input_role(1), &vx}, {output_role(0), nullptr}}),
              "QuillmarkExecutor::execute - writable binding Output0 is const" + add);
    EXPECT_EQ(failure({{input_role(0), &vx}}), "QuillmarkExecutor::execute - binding arity does not match operation "
                                               "'quillmark.add@1'");
    EXPECT_EQ(failure({{input_role(0), &vx}, {input_role(0), &vx}}),
              "OperationBindings::bind - operand role is already bound");
    EXPECT_EQ(failure({{input_role(0), &vx}, {input_role(1), &vx}, {output_role(0), &vs}}),
              "OperationSpec - vector output size mismatch");
    EXPECT_EQ(out, (std::vector<double>{9, 9, 9}));
    EXPECT_EQ(message_of<std::out_of_range>([&] { executor.execute(OperationBindings(), id("quillmark.add@2")); }),
              "QuillmarkContext - operation 'quillmark.add@2' is not registered");
}

TEST(ContextBuilder, BuildValidationAndSealing) {
    QuillmarkContextBuilder empty(QuillmarkContextBuilder::CpuBackends::omitted);
    EXPECT_EQ(message_of<std::invalid_argument>([&] { empty.build(); }),
              "QuillmarkContextBuilder::build - operation has no implementation: 'quillmark.sqrt@1'");
    EXPECT_FALSE(empty.sealed());

    // A matrix registration for a vector role breaks the numeric shape's rank.
    QuillmarkContextBuilder rank(QuillmarkContextBuilder::CpuBackends::omitted);
    OperandDescriptor d;
    d.kind = OperandKind::matrix;
    d.matrix_layout = MatrixLayout::row_major;
    const BackendOperandKey matrix = operand_key(d);
    auto one_step = cpu_kernel_materialiser(BackendKind::cpu_scalar, [](CpuExecutionContext&, BackendExecutionBindings&) {});
    rank.register_backend(BackendRegistryKey(BackendKind::cpu_scalar, builtin_operation_id(BuiltinOperation::sqrt),
                                             {matrix}, {matrix}),
                          one_step, QuillmarkContextBuilder::builtin_provenance());
    EXPECT_EQ(message_of<std::invalid_argument>([&] { rank.build(); }),
              "QuillmarkContextBuilder::build - backend family rank does not match the numerical shape for operation "
              "'quillmark.sqrt@1'");

    QuillmarkContextBuilder empty_process(QuillmarkContextBuilder::CpuBackends::omitted);
    empty_process.register_backend(
        BackendRegistryKey(BackendKind::cpu_scalar, builtin_operation_id(BuiltinOperation::eye), {}, {matrix}),
        [] { return BackendProcess(); }, QuillmarkContextBuilder::builtin_provenance());
    EXPECT_EQ(message_of<std::invalid_argument>([&] { empty_process.build(); }),
              "QuillmarkContextBuilder::build - backend materialised an empty process for 'quillmark.eye@1'");

    QuillmarkContextBuilder builder;
    builder.build();
    EXPECT_EQ(message_of<std::logic_error>([&] { builder.build(); }),
              "QuillmarkContextBuilder::build - builder has already been sealed");
    EXPECT_EQ(message_of<std::logic_error>([&] { builder.load_plugin("x.so"); }),
              "QuillmarkContextBuilder::load_plugin - builder has already been sealed");
}

TEST_F(ContextExecution, DescribedOperandsAreCheckedLikeBindings) {
    std::vector<double> x{1, 4, 9}, out{9, 9, 9};
    Vec64 vx(x.data(), 3), vo(out.data(), 3);
    const OperationSpec& sqrt = context.lookup(id("quillmark.sqrt@1"));
    EXPECT_EQ(&context.operation(sqrt.handle()), &sqrt);
    const std::vector<OperandDescriptor> described{describe_operand(vx, input_role(0)),
                                                   describe_operand(vo, output_role(0))};

    const std::vector<OperationBindings::Binding> read_only{{&vx, nullptr}, {&vo, nullptr}};
    EXPECT_EQ(message_of<std::invalid_argument>([&] { executor.execute(sqrt, described, read_only); }),
              "QuillmarkExecutor::execute - writable binding Output0 is const for operation 'quillmark.sqrt@1'");
    const std::vector<OperationBindings::Binding> one{{&vx, nullptr}};
    EXPECT_EQ(message_of<std::invalid_argument>([&] { executor.execute(sqrt, described, one); }),
              "QuillmarkExecutor::execute - binding arity does not match operation 'quillmark.sqrt@1'");
    EXPECT_EQ(out, (std::vector<double>{9, 9, 9})); // every module call runs the accepted path
    EXPECT_EQ(message_of<std::out_of_range>([&] { context.operation(0); }),
              "QuillmarkContext - operation handle is not registered");
}
