#include "frontend/executor.hpp"

#include <stdexcept>
#include <vector>

#include "dispatch/backend_process.hpp"

namespace quillmark {

void QuillmarkExecutor::execute(const OperationBindings& bindings, const OperationId& operation, bool fail_fast) const {
    const OperationSpec& spec = context_->lookup(operation);
    const std::string id = operation.to_string();
    const auto roles = spec.roles();
    if (bindings.size() != roles.size())
        throw std::invalid_argument("QuillmarkExecutor::execute - binding arity does not match operation '" + id + "'");

    std::vector<const OperationBindings::Binding*> bound;
    std::vector<OperandDescriptor> all;
    bound.reserve(roles.size());
    all.reserve(roles.size());
    for (const RoleDeclaration& role : roles) {
        const OperationBindings::Binding* binding = bindings.find(role.role);
        if (!binding)
            throw std::invalid_argument("QuillmarkExecutor::execute - missing binding " + role_text(role.role) +
                                        " for operation '" + id + "'");
        if (role.access != OperandAccess::read && !binding->writable)
            throw std::invalid_argument("QuillmarkExecutor::execute - writable binding " + role_text(role.role) +
                                        " is const for operation '" + id + "'");
        bound.push_back(binding);
        all.push_back(describe_operand(*binding->operand, role.role));
    }
    spec.validate(all);

    const std::span<const OperandDescriptor> descriptors(all);
    const std::size_t inputs = spec.input_count();
    BackendProcess process =
        context_->dispatcher().dispatch(spec.handle(), descriptors.first(inputs), descriptors.subspan(inputs));

    const auto& runtime = context_->runtime();
    runtime->run([&] {
        BackendExecutionSession session(runtime);
        BackendExecutionBindings execution;
        for (std::size_t i = 0; i < bound.size(); ++i) {
            if (i < inputs) execution.bind_read(*bound[i]->operand);
            else execution.bind_write(*bound[i]->writable);
        }
        process.execute(session, execution, fail_fast);
    });
}

} // namespace quillmark
