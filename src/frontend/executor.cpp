#include "frontend/executor.hpp"

#include <array>
#include <functional>
#include <stdexcept>
#include <vector>

#include "dispatch/backend_process.hpp"

namespace quillmark {
namespace {

// Messages name the operation; its text is only built when one is thrown.
[[noreturn]] void refuse(const OperationSpec& spec, const std::string& what) {
    throw std::invalid_argument("QuillmarkExecutor::execute - " + what + " for operation '" + spec.id().to_string() +
                                "'");
}

void check_arity(const OperationSpec& spec, std::size_t bound) {
    if (bound != spec.roles().size())
        throw std::invalid_argument("QuillmarkExecutor::execute - binding arity does not match operation '" +
                                    spec.id().to_string() + "'");
}

void check_access(const OperationSpec& spec, const RoleDeclaration& role, const OperationBindings::Binding& binding) {
    if (role.access != OperandAccess::read && !binding.writable)
        refuse(spec, "writable binding " + role_text(role.role) + " is const");
}

// What the runtime runs: the chosen kernel directly, or else the dispatched process. Passed by one
// reference so that no closure is allocated per call.
struct ProcessRun {
    const CpuKernelMaterialiser* kernel;
    BackendProcess* process;
    std::span<const OperationBindings::Binding* const> operands;
    std::size_t inputs;
    const std::shared_ptr<const CpuRuntimeContext>& runtime;
    bool fail_fast;

    void operator()() const {
        BackendExecutionSession session(runtime);
        BackendExecutionBindings execution;
        execution.reserve(operands.size());
        for (std::size_t i = 0; i < operands.size(); ++i) {
            if (i < inputs)
                execution.bind_read(*operands[i]->operand);
            else
                execution.bind_write(*operands[i]->writable);
        }
        if (kernel)
            kernel->launch(session, execution, fail_fast);
        else
            process->execute(session, execution, fail_fast);
    }
};

} // namespace

void QuillmarkExecutor::execute(const OperationBindings& bindings, const OperationId& operation, bool fail_fast) const {
    const OperationSpec& spec = context_->lookup(operation);
    const auto roles = spec.roles();
    check_arity(spec, bindings.size());

    std::vector<const OperationBindings::Binding*> bound;
    std::vector<OperandDescriptor> all;
    bound.reserve(roles.size());
    all.reserve(roles.size());
    for (const RoleDeclaration& role : roles) {
        const OperationBindings::Binding* binding = bindings.find(role.role);
        if (!binding)
            refuse(spec, "missing binding " + role_text(role.role));
        check_access(spec, role, *binding);
        bound.push_back(binding);
        all.push_back(describe_operand(*binding->operand, role.role));
    }
    run(spec, all, bound, fail_fast);
}

void QuillmarkExecutor::execute(const OperationSpec& spec, std::span<const OperandDescriptor> descriptors,
                                std::span<const OperationBindings::Binding> operands, bool fail_fast) const {
    const auto roles = spec.roles();
    check_arity(spec, operands.size());
    if (descriptors.size() != operands.size())
        throw std::invalid_argument("QuillmarkExecutor::execute - every bound operand needs one descriptor");
    constexpr std::size_t kInline = 8;
    std::array<const OperationBindings::Binding*, kInline> inline_bound{};
    std::vector<const OperationBindings::Binding*> heap_bound;
    std::span<const OperationBindings::Binding*> bound(inline_bound.data(), operands.size());
    if (operands.size() > kInline) {
        heap_bound.resize(operands.size());
        bound = heap_bound;
    }
    for (std::size_t i = 0; i < roles.size(); ++i) {
        check_access(spec, roles[i], operands[i]);
        bound[i] = &operands[i];
    }
    run(spec, descriptors, bound, fail_fast);
}

void QuillmarkExecutor::run(const OperationSpec& spec, std::span<const OperandDescriptor> descriptors,
                            std::span<const OperationBindings::Binding* const> operands, bool fail_fast) const {
    spec.validate(descriptors);
    const std::size_t inputs = spec.input_count();
    const BackendDispatcher& dispatcher = context_->dispatcher();
    const auto input_descriptors = descriptors.first(inputs), output_descriptors = descriptors.subspan(inputs);
    const CpuKernelMaterialiser* kernel = dispatcher.direct_kernel(spec.handle(), input_descriptors, output_descriptors);
    BackendProcess process;
    if (!kernel) process = dispatcher.dispatch(spec.handle(), input_descriptors, output_descriptors);
    const auto& runtime = context_->runtime();
    const ProcessRun task{kernel, &process, operands, inputs, runtime, fail_fast};
    runtime->run(std::cref(task));
}

} // namespace quillmark
